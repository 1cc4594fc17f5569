#include "command/commandfile.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "command/complete.h"
#include "command/constraints.h"
#include "command/defaults.h"
#include "command/reader.h"
#include "command/settle.h"
#include "command/text.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/oddities.h"
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

void refusevalue(const char* keyword, const char* wanted, const std::string& value, const char* words) {
  stopwith("%s%s: wants %s, not %s\n", words, keyword, wanted, value.c_str());
}

namespace {

// The two words that a text is made of when a sign between them was lost; the second one is empty otherwise.
std::pair<std::string, std::string> lostsign(const std::string& name, const Array<Name>& table, int highest) {
  const auto known = [&](std::string_view word) {
    return sameword(word, "RANDOM") ||
           (!word.empty() && word.size() <= significant && findname(word, table, highest) >= 0);
  };
  for (std::size_t i = name.size(); i-- > 1;) {
    const std::string_view head = trimmed(std::string_view(name).substr(0, i));
    const std::string_view tail = trimmed(std::string_view(name).substr(i));
    if (known(head.substr(0, head.find(','))) && known(tail.substr(0, tail.find(','))))
      return {std::string(head), std::string(tail.substr(0, tail.find(',')))};
  }
  return {};
}

// The level of a variable that has this name in another table: 0 for none.
int otherlevel(const std::string& name, const Array<Name>& table) {
  const MdmData& mdm = run.mdm;
  const Array<Name>* tables[] = {&mdm.names1, &mdm.names2, &mdm.names3};
  const int counts[] = {mdm.nvar1, mdm.nvar2, mdm.nvar3};
  for (int level = 0; level < 3; ++level) {
    if (tables[level] == &table) continue;
    if (const FoundVariable found = findvariable(name, *tables[level], counts[level]); found.index >= 1 && !found.cut)
      return level + 1;
  }
  return 0;
}

// What to do about it.
std::string otherwords(const char* what, const std::string& name, int level) {
  const bool equation = beginswith(what, "level") && what[6] == '\0';
  std::string words = formatted("%s is a variable of level %d", printable(name).c_str(), level);
  if (equation && level > 1) words += formatted(": put it on a LEVEL%d: line", level);
  if (equation && level == 1) words += ": put it on the LEVEL1: line";
  return words + ".\n";
}

[[noreturn]] void unknownvariable(int line, const char* what, const std::string& name, const Array<Name>& table,
                                  int highest) {
  std::printf("Batch file %s specification invalid\n", what);
  const int level = otherlevel(name, table);
  const std::string shown = printable(name), other = level == 0 ? "" : otherwords(what, name, level);
  std::printf("%s", other.empty() ? (shown + " does not exist\n").c_str() : other.c_str());
  std::printf("It stands on line %d of the command file.\n", line);
  if (const auto [head, tail] = lostsign(name, table, highest); !tail.empty()) {
    std::printf("Is a + or a / missing between %s and %s?\n", printable(head).c_str(), printable(tail).c_str());
  } else if (const std::string near = nearestnames(name, table, highest); other.empty() && !near.empty()) {
    std::printf("The nearest names: %s\n", near.c_str());
  }
  stoprun(9);
}

}  // namespace

int variable(int line, const char* what, const std::string& name, const Array<Name>& table, int highest, int lowest) {
  const FoundVariable found = findvariable(name, table, highest);
  // What stands behind the characters that count may be another name, or all may be the whole name of another variable.
  const bool another = found.cut && (otherlevel(name, table) != 0 || !lostsign(name, table, highest).second.empty());
  if (found.index < lowest || another) unknownvariable(line, what, name, table, highest);
  tellcut(line, name, table, found);
  return found.index;
}

void tellcut(int line, std::string_view name, const Array<Name>& table, const FoundVariable& found) {
  if (!found.cut) return;
  const bool ascii = charactersof(name) == name.size();
  oddcommand(formatted(" %s on line %d is taken for %s: names count by their first %d characters%s.\n",
                       printable(name).c_str(), line, leftname(table[static_cast<std::size_t>(found.index)]).c_str(),
                       static_cast<int>(significant), ascii ? "" : ", a letter beyond A to Z as two"));
}

namespace {

void unrecognized(const std::string& line) {
  if (run.id.strict) {
    std::printf("Unrecognized control word: %s\n", printable(line).c_str());
    fail(8, line.c_str());
  }
  oddcommand(formatted("Unrecognized control word, ignored: %s\n", printable(line).c_str()));
  std::string answer;
  readanswer("Hit return to continue ", answer);
}

// Data of two levels have no use for what is about a third one.
void refuselevel3(const CommandReader& reader, const std::string& value) {
  constexpr const char* words[] = {"LEVEL3",  "RESFIL3",   "ESTTAU3", "CONTAU3",
                                   "FIXTAU3", "LVR-BETA:", "HETIT:",  "DIAGONALIZETAUBETA:"};
  const bool about = std::any_of(std::begin(words), std::end(words),
                                 [&](const char* word) { return beginswith(reader.lines.line, word); });
  if (about && !isno(value) && !sameword(value, "NONE"))
    stopwith("Line %d is about level 3, and the data of %s have two levels: %s\n", reader.lines.number,
             run.files.mdmfile.c_str(), printable(reader.lines.line).c_str());
}

void readkeyword(CommandReader& reader) {
  const std::string line = reader.lines.line;  // the model's lines move the reader on
  const std::size_t colon = line.find(':');
  const std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
  if (!beginswith(line, "TITLE") && (value.empty() || value[0] == ' ')) {
    std::printf("A line is a keyword, a colon and directly behind it a value, or it begins with #.\n");
    badline(reader);
  }
  if (run.mdm.twolevel()) refuselevel3(reader, value);
  const Keyword* keyword = findkeyword(line);
  if (keyword == nullptr) return unrecognized(line);
  const auto [first, once] = reader.lineof.try_emplace(keyword, reader.lines.number);
  if (!once && !keyword->repeats)
    oddcommand(
        formatted(" %s stands on line %d and again on line %d.\n", keyword->word, first->second, reader.lines.number));
  keyword->handler(reader, value);
}

// A line that begins with a blank is a remark, and may have been meant as more.
void passover(const CommandReader& reader) {
  const std::string& line = reader.lines.line;
  const std::string_view text = trimmed(line);
  if (line[0] == ' ' && !text.empty() && findkeyword(std::string(text)) != nullptr)
    oddcommand(formatted(" Line %d begins with a blank, and is passed over: %s\n", reader.lines.number,
                         printable(text).c_str()));
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
    oddcommand(
        formatted("%s of level %d has no LEVEL%d: line, while others have one: it is random without a fixed effect!\n",
                  name.c_str(), level, level + 1));
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
  if (reader.deviance != reader.df) oddcommand(" Deviance and df must be specified together\n");
  checkorders();
  if (!reader.excess.empty()) stopwith("%s", reader.excess.c_str());
  if (reader.toomany)
    stopwith("The line GAMMA%d: has %d numbers, and the model has %d fixed effects!\n", reader.oddhypothesis,
             reader.oddnumbers, countfixedeffects());
  if (reader.oddhypothesis != 0)
    oddcommand(formatted(" The line GAMMA%d: has %d numbers for %d fixed effects: those behind are 0\n",
                         reader.oddhypothesis, reader.oddnumbers, countfixedeffects()));
  checkconstraints();
}

}  // namespace

void readcommandfile() {
  resetkeywords();
  CommandReader reader;
  const bool nextpass = run.files.nextcommands != nullptr;
  if (!nextpass) std::erase_if(run.warnings, [](const RunWarning& warning) { return warning.ofcommands; });
  if (run.files.cmdfile.empty() && !nextpass) {
    endoffile(reader);
    return;
  }
  reader.lines.stream.reset(nextpass ? run.files.nextcommands.release() : openfile(run.files.cmdfile, "rb"));
  const BreakableReads breakable;  // a pipe may wait
  while (nextline(reader.lines)) {
    const std::string& line = reader.lines.line;
    if (line.empty() || line[0] == '#') continue;
    line[0] == ' ' ? passover(reader) : readkeyword(reader);
  }
  reader.lines.stream.reset();
  endoffile(reader);
}

}  // namespace kdr
