#include "data/mdmdata.h"

namespace kdr {

MdmData MdmData::copy() const {
  MdmData twin;
  static_cast<MdmHead&>(twin) = *this;
  const auto take = [&](auto field) { twin.*field = (this->*field).copy(); };
  for (const auto field : {&MdmData::names1, &MdmData::names2, &MdmData::names3, &MdmData::textid3}) take(field);
  for (const auto field :
       {&MdmData::mean1, &MdmData::mean2, &MdmData::mean3, &MdmData::numericid3, &MdmData::level3, &MdmData::observed3})
    take(field);
  return twin;
}

}  // namespace kdr
