// Command files, for a run on a small MDM in memory. A file that is taken is written again, and the written file must
// be taken too and be written the same.
#include <fstream>
#include <initializer_list>
#include <iterator>

#include "harness.h"
#include "model/commandfile.h"
#include "model/complete.h"
#include "model/constraints.h"
#include "model/writer.h"

using namespace kdr;

namespace {

Array<Name> nametable(std::initializer_list<const char*> names) {
  Array<Name> table(names.size());
  std::size_t v = 0;
  for (const char* name : names) table[v++] = paddedname(name);
  return table;
}

void freshrun() {
  run = RunRecord{};
  run.id.waitseconds = -1;
  MdmData& mdm = run.mdm;
  mdm.names1 = nametable({"INTRCPT1", "A", "B", "X", "Y", "Z", "T"});
  mdm.names2 = nametable({"INTRCPT2", "V", "W", "W2"});
  mdm.names3 = nametable({"INTRCPT3", "P", "Q"});
  mdm.nvar1 = 6;
  mdm.nvar2 = 3;
  mdm.nvar3 = 2;
  mdm.ncol1 = 7;
  mdm.ncol2 = 4;
  mdm.ncol3 = 3;
  mdm.maxbeta = 24;
}

// Reads one file and writes the run as the run sequence does. False when the file was refused.
bool readandwrite(const char* from, const char* to) {
  freshrun();
  run.files.cmdfile = from;
  try {
    readcommandfile();
    completemodel();
    makeconstraints();
    if (run.coef.ngamma - run.model.nconstrained < 1) return false;  // the run sequence ends with failure 17
    compactlists();
    run.kind.outname = run.mdm.names1[static_cast<std::size_t>(run.kind.outvar)];
    run.kind.nlrun = run.kind.nonlin == 1 || run.kind.nonlin == 2;
    run.kind.mnrun = run.kind.nonlin == 3;
    applyconstraints();
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
  if (run.iter.hetit != 0) return false;  // has no line in the written file, but changes others
  if (!run.answered.level1 || run.answered.level2 != (run.coef.npi > 0)) return false;
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
