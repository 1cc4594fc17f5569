#include "construct/readers/stlayer.h"

namespace kdr {

std::span<const StBackend> stbackends() {
  static constexpr StBackend backends[] = {
      {StFormat::sas, readstatdictionary, readstatrecord, readstatclose},
      {StFormat::sastransport, readstatdictionary, readstatrecord, readstatclose},
      {StFormat::spss, readstatdictionary, readstatrecord, readstatclose},
      {StFormat::spssportable, readstatdictionary, readstatrecord, readstatclose},
      {StFormat::stata, readstatdictionary, readstatrecord, readstatclose},
      {StFormat::delimited, csvdictionary, csvrecord, csvclose},
      {StFormat::excel, exceldictionary, excelrecord, excelclose},
      {StFormat::dbase, dbasedictionary, dbaserecord, dbaseclose},
  };
  return backends;
}

}  // namespace kdr
