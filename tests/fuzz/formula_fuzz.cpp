// Formulas over a small file. One that is taken must leave a command file that is taken, too; any other ends with
// code 100 and nothing written.
#include <filesystem>

#include "command/commandfile.h"
#include "command/formula/fit.h"
#include "data/mdm.h"
#include "driver/files.h"
#include "harness.h"

using namespace kdr;

namespace {

constexpr std::string_view records =
    "g,s,y,x,n,f\n1,1,1.5,0,5,a\n1,1,2,1,6,b\n1,2,0.5,2,7,a\n1,2,3,0,8,c\n2,1,1,2,9,b\n2,1,4,1,5,a\n2,2,2,0,6,c\n"
    "2,2,,1,7,a\n3,1,2.5,2,8,b\n3,1,1,0,9,a\n3,2,2,1,5,c\n3,2,3.5,2,6,b\n";

// False when the formula was refused.
bool prepares(const std::string& formula, const std::string& family) {
  FitRequest request;
  request.formula = formula;
  request.file = "a.csv";
  request.stem = "made";
  request.family = family;
  try {
    static_cast<void>(preparefit(request));
  } catch (const Stopped& stopped) {
    if (stopped.code != 100 && stopped.code != 1) std::abort();
    return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  startharness();
  static constexpr const char* families[] = {"", "binomial", "poisson", "ordinal"};
  if (size == 0) return 0;
  writeinput("a.csv", records);
  for (const char* name : {"made.mdm", "made.kdr"}) std::filesystem::remove(name);
  run.mdm = MdmData{};
  run.files = RunFiles{};
  if (!prepares({reinterpret_cast<const char*>(data) + 1, size - 1}, families[data[0] & 3])) {
    if (std::filesystem::exists("made.mdm") || std::filesystem::exists("made.kdr")) std::abort();
    return 0;
  }
  run.mdm.stream = openfile(run.files.mdmfile, "rb");
  run.mdm.path = run.files.mdmfile;
  if (readmdm(run.mdm)) std::abort();
  allocatemodel();
  try {
    readcommandfile();
  } catch (const Stopped&) {
    std::abort();
  }
  std::fclose(run.mdm.stream);
  run.mdm.stream = nullptr;
  return 0;
}
