#include "command/commandfile.h"

#include <cstdio>
#include <string>

#include "command/complete.h"
#include "command/constraints.h"
#include "command/defaults.h"
#include "command/reader.h"
#include "command/settle.h"
#include "command/text.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/questions.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"

namespace kdr {

void badspecification(const char* what, const std::string& name) {
  std::printf("Batch file %s specification invalid\n", what);
  fail(9, name.c_str());
}

void badline(const CommandReader& reader) {
  char number[16];
  std::snprintf(number, sizeof number, "%3d", reader.lines.number);
  fail(8, number);
}

int variable(const char* what, const std::string& name, const Array<Name>& table, int highest, int lowest) {
  const int v = findname(name, table, highest);
  if (v >= lowest) return v;
  const MdmData& mdm = run.mdm;
  const Array<Name>* tables[] = {&mdm.names1, &mdm.names2, &mdm.names3};
  const int counts[] = {mdm.nvar1, mdm.nvar2, mdm.nvar3};
  for (int level = 0; level < 3; ++level)
    if (tables[level] != &table && findname(name, *tables[level], counts[level]) > 0)
      std::printf("%s is a variable of level %d.\n", name.c_str(), level + 1);
  badspecification(what, name);
}

namespace {

void unrecognized(const std::string& line) {
  if (run.id.strict) {
    std::printf("Unrecognized control word: %s\n", printable(line).c_str());
    fail(8, line.c_str());
  }
  std::printf("Unrecognized control word, ignored: %s\n", printable(line).c_str());
  std::string answer;
  readanswer("Hit return to continue ", answer);
}

void readkeyword(CommandReader& reader) {
  const std::string line = reader.lines.line;  // the model's lines move the reader on
  const std::size_t colon = line.find(':');
  const std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
  if (!beginswith(line, "TITLE") && (value.empty() || value[0] == ' ')) {
    std::printf("A line is a keyword, a colon and directly behind it a value, or it begins with #.\n");
    badline(reader);
  }
  if (const KeywordHandler handler = findkeyword(line); handler != nullptr) {
    handler(reader, value);
  } else {
    unrecognized(line);
  }
}

// Lists whose length the model gives were read with the model as it stood then; a further LEVEL1: line behind them
// would leave them with the wrong length.
void checkorders() {
  const auto square = [](int n) { return static_cast<std::size_t>(n) * static_cast<std::size_t>(n); };
  const Restrictions& held = run.model.restrictions;
  const int n2 = randomlevel1(), n3 = randomlevel2();
  const auto late = [](bool wrong, const char* kind, const char* greek) {
    if (wrong) stopwith("%s tau(%s) must be specified after complete model\n", kind, greek);
  };
  late(held.haveesttau2 && held.esttau2.size() != square(n2), "Estimated", "pi");
  late(held.haveesttau3 && held.esttau3.size() != square(n3), "Estimated", "beta");
  late(held.havecontau2 && held.contau2.size() != packedsize(n2), "Constrained", "pi");
  late(held.havecontau3 && held.contau3.size() != packedsize(n3), "Constrained", "beta");
  if (run.out.lvr && run.out.lvrroles.size() != static_cast<std::size_t>(n3))
    stopwith("lvr must be specified after complete model\n");

  const auto ngamma = static_cast<std::size_t>(countfixedeffects());
  std::size_t rows = 0;
  for (const short n : run.model.hypothesisrows) rows += static_cast<std::size_t>(n);
  if (run.model.contrasts.size() != rows * ngamma) stopwith("Gammas must be specified after complete model\n");
  if (!run.model.constraints.empty() && run.model.constraints.size() != ngamma)
    stopwith("Constraints must be specified after complete model\n");
}

// Every set of equations, and every threshold, that a model of the file must have.
void checksets(const CommandReader& reader) {
  const Model& kind = run.model;
  if (!run.answered.level1) return;
  if (kind.outcome.ordinal() && reader.nthresholds != kind.outcome.categories - 2)
    stopwith("There are not enough thresholds specified on the level-1 line.\n");
  if (reader.set + 1 < kind.neqsets)
    stopwith("There are %d sets of equations in the command file where %d are needed!\n", reader.set + 1, kind.neqsets);
}

// A file in which some coefficients have an equation and another has none has probably lost a line: without it the
// coefficient is random and has no fixed effect. Such a model can be meant, so it is told, and stops a -strict run.
void checkequations(const CommandReader& reader) {
  const auto lost = [](const std::string& name, int level) {
    const std::string words =
        formatted("%s of level %d has no LEVEL%d: line, while others have one: it is random without a fixed effect!\n",
                  name.c_str(), level, level + 1);
    if (run.id.strict) stopwith("%s", words.c_str());
    std::printf("%s", words.c_str());
  };
  if (run.answered.level2 && !reader.without2.empty()) lost(reader.without2, 1);
  if (run.answered.level3 && !reader.without3.empty()) lost(reader.without3, 2);
}

// What only the whole file can tell.
void endoffile(const CommandReader& reader) {
  if (run.mdm.deletednow) run.answered.deletion = true;
  setresfilnames();
  settlerecord();
  checksets(reader);
  checkequations(reader);
  if (reader.deviance != reader.df) std::printf(" Deviance and df must be specified together\n");
  checkorders();
  if (!reader.excess.empty()) stopwith("%s", reader.excess.c_str());
  if (reader.toomany)
    stopwith("The line GAMMA%d: has %d numbers, and the model has %d fixed effects!\n", reader.oddhypothesis,
             reader.oddnumbers, countfixedeffects());
  if (reader.oddhypothesis != 0)
    std::printf(" The line GAMMA%d: has %d numbers for %d fixed effects: those behind are 0\n", reader.oddhypothesis,
                reader.oddnumbers, countfixedeffects());
  checkconstraints();
}

}  // namespace

void readcommandfile() {
  resetkeywords();
  CommandReader reader;
  const bool nextpass = run.files.nextcommands != nullptr;
  if (run.files.cmdfile.empty() && !nextpass) {
    endoffile(reader);
    return;
  }
  reader.lines.stream.reset(nextpass ? run.files.nextcommands.release() : openfile(run.files.cmdfile, "rb"));
  while (nextline(reader.lines)) {
    const std::string& line = reader.lines.line;
    if (line.empty() || line[0] == ' ' || line[0] == '#') continue;
    readkeyword(reader);
  }
  reader.lines.stream.reset();
  endoffile(reader);
}

}  // namespace kdr
