// Fixed-format text. The first byte of the input is the number of variables, the rest of the first line the format of
// all three levels, and what follows the data of all three levels.
#include "construct/construction.h"
#include "construct/levelsource.h"
#include "construct/rawformats.h"
#include "construct/readers/ascii.h"
#include "harness.h"

using namespace kdr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t feed = input.find('\n');
  if (size == 0 || feed == 0 || feed >= maxformat) return 0;
  startharness();
  writeinput("raw", input.substr(feed + 1));
  const int nvar = data[0] % 8;
  const std::string format(input.substr(1, feed - 1));
  run.mdm = MdmData{};
  run.mdm.l1missing = (data[0] & 8) != 0;
  run.mdm.deletednow = (data[0] & 16) != 0;
  run.files.mdmfile = "a.mdm";
  raw.reader = findreader("ascii");
  (void)checkformat(format);
  for (Array<Name>* names : {&run.mdm.names1, &run.mdm.names2, &run.mdm.names3})
    names->reset(static_cast<std::size_t>(nvar) + 1);
  runjob([&] {
    for (int level = 0; level < 3; ++level) {
      raw.level[level].filename = "raw";
      raw.level[level].numvar = nvar;
      raw.level[level].format = format.c_str();
      openraw(level);
    }
    mkmdm();
  });
  if (run.mdm.stream != nullptr) std::fclose(run.mdm.stream);
  forgetraw();
  return 0;
}
