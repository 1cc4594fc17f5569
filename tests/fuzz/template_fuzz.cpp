// Templates. The input is the template; the raw files "a", "b" and "c" of fixed columns, and
// "d", "e" and "f" of delimited text, are there for it to name.
#include "construct/construction.h"
#include "construct/levelsource.h"
#include "construct/template.h"
#include "harness.h"

using namespace kdr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.find("/dev") != std::string_view::npos || input.find("..") != std::string_view::npos) return 0;
  startharness();
  writeinput("t.mdmt", input);
  writeinput("a", "A 1  1  2\nA 1  3  4\nB 1  5  6\n");
  writeinput("b", "A 1  7\nB 1  8\n");
  writeinput("c", "A  1\nB  2\n");
  writeinput("d", "id3,id2,text,x,y,longername1,longername2\n1,1,A,1,2,3,4\n1,1,A,3,4,5,NA\n2,1,B,5,6,7,8\n");
  writeinput("e", "id3,id2,text,w,x\n1,1,A,7,1\n2,1,B,8,2\n");
  writeinput("f", "id3,text,z\n1,A,1\n2,B,2\n");
  run.mdm = MdmData{};
  run.files.mdmfile.clear();
  runjob([] {
    readtemplate("t.mdmt");
    run.files.mdmfile = "t.mdm";
    mkmdm();
  });
  if (run.mdm.stream != nullptr) std::fclose(run.mdm.stream);
  forgetraw();
  return 0;
}
