// One long file. The first byte of the input tells its type and whether there are codes of missing values and a
// variable that stays at level 1; its ID columns are "area" and "school".
#include "construct/onefile.h"
#include "rawfile.h"

using namespace kdr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static constexpr const char* paths[] = {"raw.csv", "raw.sav", "raw.dta", "raw.xlsx"};
  OneFileJob job{paths[data[0] & 3], "area", "school", {}, {}};
  if ((data[0] & 4) != 0) job.level1 = {"n"};
  if ((data[0] & 8) != 0) job.missing = {-9.0, 999.0};
  startharness();
  writeinput(job.path.c_str(), std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  run.mdm = MdmData{};
  run.files.mdmfile = "a.mdm";
  runjob([&] {
    takeonefile(job);
    mkmdm();
    writekeys();
  });
  if (run.mdm.stream != nullptr) std::fclose(run.mdm.stream);
  forgetraw();
  return 0;
}
