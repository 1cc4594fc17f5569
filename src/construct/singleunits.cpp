#include "construct/singleunits.h"

#include "core/formatted.h"
#include "driver/runrecord.h"

namespace kdr {

std::vector<std::string> singleunits() {
  const MdmData& mdm = run.mdm;
  std::vector<std::string> words;
  if (!mdm.twolevel() && mdm.numl3rec == mdm.numl2rec)
    words.push_back(
        formatted("Each of the %d level-3 units holds one level-2 unit. Are the levels interchanged?", mdm.numl3rec));
  if (mdm.numl2rec == mdm.numl1rec)
    words.push_back(
        formatted("Each of the %d level-2 units holds one level-1 record. Are the levels interchanged?", mdm.numl2rec));
  return words;
}

}  // namespace kdr
