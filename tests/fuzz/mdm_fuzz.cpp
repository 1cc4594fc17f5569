// The MDM file: head, tables and the walk over the blocks. The input is the file.
#include "data/unitreader.h"
#include "driver/files.h"
#include "harness.h"

using namespace kdr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  startharness();
  writeinput("fuzz.mdm", {reinterpret_cast<const char*>(data), size});
  run.mdm = MdmData{};
  run.files.mdmfile = "fuzz.mdm";
  std::FILE* stream = openfile("fuzz.mdm", "rb");
  run.mdm.stream = stream;
  runjob([] {
    run.mdm.path = run.files.mdmfile;
    stopif(readmdm(run.mdm));
    UnitReader reader;
    UnitBlock block;
    long long units = 0;
    startunits(reader, run.mdm, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
    while (readunit(reader, block)) {
      ++units;
      const long long here = unitposition(reader);
      while (units % 3 == 0 && skimunit(reader, block)) continue;
      seekunit(reader, here);
    }
    stopif(reader.failure);
    // A file that is read to its end holds what its head tells.
    if (units != run.mdm.nunits2) std::abort();
  });
  std::fclose(stream);
  return 0;
}
