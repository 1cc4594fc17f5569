// A run on a small MDM that exists in memory only, and command files for it.
#pragma once

#include <initializer_list>
#include <string>

#include "command/commandfile.h"
#include "construct/child.h"
#include "driver/runrecord.h"

namespace kdr {

inline Array<Name> nametable(std::initializer_list<const char*> names) {
  Array<Name> table(names.size());
  std::size_t v = 0;
  for (const char* name : names) table[v++] = paddedname(name);
  return table;
}

// Level 1: A B X Y Z T; level 2: V W W2; level 3: P Q.
inline void smallmdm() {
  run = RunRecord{};
  run.id.waitseconds = -1;
  MdmData& mdm = run.mdm;
  mdm.names1 = nametable({"INTRCPT1", "A", "B", "X", "Y", "Z", "T"});
  mdm.names2 = nametable({"INTRCPT2", "V", "W", "W2"});
  mdm.names3 = nametable({"INTRCPT3", "P", "Q"});
  mdm.nvar1 = 6;
  mdm.nvar2 = 3;
  mdm.nvar3 = 2;
  mdm.ncol1 = mdm.nvar1 + 1;
  mdm.ncol2 = mdm.nvar2 + 1;
  mdm.ncol3 = mdm.nvar3 + 1;
  mdm.maxbeta = mdm.ncol2 * mdm.nvar1;
}

inline void readtext(const std::string& text) {
  smallmdm();
  makefile("model.kdr", text);
  run.files.cmdfile = "model.kdr";
  readcommandfile();
}

// What a command file makes a process print, and the code it ends with: 0 when the whole file is taken.
inline ChildEnd readinchild(const std::string& text) {
  return runchild([&] {
    if (std::freopen("/dev/null", "r", stdin) == nullptr) _exit(99);
    readtext(text);
  });
}

// Two random coefficients at level 2, three at level 2 in all, the first random at level 3; five fixed effects.
inline const std::string samplemodel =
    "LEVEL1:Y=INTRCPT1+X,1+RANDOM\n"
    "LEVEL2:INTRCPT1=INTRCPT2+W,2+RANDOM/W2\n"
    "LEVEL3:INTRCPT2=INTRCPT3+P,2+Q+RANDOM/\n"
    "LEVEL3:W=INTRCPT3/Q\n"
    "LEVEL2:X=INTRCPT2+RANDOM/\n"
    "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n";

}  // namespace kdr
