// Command files, for a run on a small MDM in memory. A file that is taken is written again, and the written file must
// be taken too and be written the same.
#include <fstream>
#include <iterator>

#include "command/complete.h"
#include "command/constraints.h"
#include "command/smallmdm.h"
#include "command/writer.h"
#include "core/constraints.h"
#include "harness.h"

using namespace kdr;

namespace {

// Reads one file and writes the run as the run sequence does. False when the file was refused.
bool readandwrite(const char* from, const char* to) {
  smallmdm();
  run.files.cmdfile = from;
  try {
    readcommandfile();
    completemodel();
    settleconstraints();
    if (run.model.coef.ngamma - run.model.nconstrained < 1) return false;  // the run sequence ends with failure 17
    compactlists();
    run.model.outname = run.mdm.names1[static_cast<std::size_t>(run.model.outvar)];
    applyconstraints(run.model);
  } catch (const Stopped& stopped) {
    if (stopped.code < 8 || (stopped.code > 10 && stopped.code != 100)) std::abort();
    return false;
  }
  writecommandfile(to);
  return true;
}

std::string contents(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A run can be repeated from its file when the file states all of the model and fits into lines.
bool repeatable(const std::string& text) {
  if (run.control.hetit != 0) return false;  // has no line in the written file, but changes others
  if (!run.answered.level1 || run.answered.level2 != (run.model.coef.npi > 0)) return false;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    if (end - start > maxline - 2) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  startharness();
  static const bool quiet = std::freopen("/dev/null", "r", stdin) != nullptr;
  if (!quiet) return 0;
  writeinput("m.kdr", {reinterpret_cast<const char*>(data), size});
  if (!readandwrite("m.kdr", "new.kdr")) return 0;
  const std::string once = contents("new.kdr");
  if (!repeatable(once)) return 0;
  if (!readandwrite("new.kdr", "new2.kdr")) std::abort();
  if (contents("new2.kdr") != once) std::abort();
  return 0;
}
