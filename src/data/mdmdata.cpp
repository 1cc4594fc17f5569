#include "data/mdmdata.h"

namespace kdr {

MdmData MdmData::copy() const {
  MdmData twin;
  twin.stream = stream;
  twin.path = path;
  twin.nvar1 = nvar1;
  twin.nvar2 = nvar2;
  twin.nvar3 = nvar3;
  twin.names1 = names1.copy();
  twin.names2 = names2.copy();
  twin.names3 = names3.copy();
  twin.nunits1 = nunits1;
  twin.nunits2 = nunits2;
  twin.nunits3 = nunits3;
  twin.numl1rec = numl1rec;
  twin.numl2rec = numl2rec;
  twin.numl3rec = numl3rec;
  twin.mdmtype = mdmtype;
  twin.rawdattype = rawdattype;
  twin.numericids = numericids;
  twin.l1missing = l1missing;
  twin.deletednow = deletednow;
  twin.maxnj = maxnj;
  for (int level = 0; level < 3; ++level) twin.fnames[level] = fnames[level];
  twin.mean1 = mean1.copy();
  twin.mean2 = mean2.copy();
  twin.mean3 = mean3.copy();
  twin.textid3 = textid3.copy();
  twin.numericid3 = numericid3.copy();
  twin.level3 = level3.copy();
  twin.firstblock = firstblock;
  twin.lastblock = lastblock;
  twin.texts = texts;
  twin.ncol1 = ncol1;
  twin.ncol2 = ncol2;
  twin.ncol3 = ncol3;
  twin.maxbeta = maxbeta;
  return twin;
}

}  // namespace kdr
