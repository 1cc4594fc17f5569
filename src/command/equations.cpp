// The model: LEVEL1: lines, and behind each the LEVEL2: and LEVEL3: lines of its coefficients.
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "command/reader.h"
#include "command/text.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/oddities.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

struct Term {
  std::string text;  // as written
  std::string name;  // without the option
  char option;       // zero without one
};

// The terms between plus signs; empty ones are dropped.
std::vector<Term> termsof(std::string_view equation) {
  std::vector<Term> terms;
  for (const std::string& text : split(equation, '+')) {
    if (text.empty()) continue;
    const std::size_t n = text.size();
    const bool marked = n >= 2 && text[n - 2] == ',';
    terms.push_back({text, marked ? text.substr(0, n - 2) : text, marked ? text[n - 1] : '\0'});
  }
  return terms;
}

[[noreturn]] void repeated(const std::string& name, const char* where) {
  stopwith("Variable %s stands more than once in an equation of %s!\n", name.c_str(), where);
}

// A command file that an earlier program wrote of a non-linear run names the working outcome Z and holds no centering
// marks; a line before it states the same equation with the outcome and the marks of the model.
std::string statedequation(const std::string& before, const std::string& value) {
  constexpr std::string_view head = "#KDR3 LEVEL1:";
  if (run.model.outcome.linear() || !beginswith(before, head)) return value;
  std::string stated = before.substr(head.size());
  const std::size_t equals = value.find('='), statedequals = stated.find('=');
  if (equals == std::string::npos || statedequals == std::string::npos) return value;
  const std::string outcome(trimmed(std::string_view(value).substr(0, equals)));
  const std::string working(run.model.outcome.categorical() ? trimmed(std::string_view(stated).substr(0, statedequals))
                                                            : "Z");
  if (!sameword(outcome, working)) return value;
  const std::vector<Term> terms = termsof(std::string_view(value).substr(equals + 1));
  const std::vector<Term> statedterms = termsof(std::string_view(stated).substr(statedequals + 1));
  bool same = terms.size() == statedterms.size();
  for (std::size_t i = 0; same && i < terms.size(); ++i)
    same = terms[i].option == '\0' && sameword(terms[i].name, statedterms[i].name);
  if (!same) stopwith("The line %s and the line LEVEL1: behind it have different terms!\n", std::string(head).c_str());
  return stated;
}

// A LEVEL2: or LEVEL3: line.
struct Equation {
  std::vector<Term> terms;  // without RANDOM
  bool random = false;
  int line = 0;  // its number
};

constexpr const char* equationform = "An equation has the form NAME=TERM+TERM.\n";

// The list behind the "/" of an equation: variables for the exploratory analysis, into a row of 12.
void readextras(int number, const std::string& line, std::string_view list, int level, int* row) {
  if (trimmed(list).empty()) return;
  const Array<Name>& names = level == 2 ? run.mdm.names2 : run.mdm.names3;
  const int nvar = level == 2 ? run.mdm.nvar2 : run.mdm.nvar3;
  int n = 0;
  for (const std::string& name : split(list, ',')) {
    if (n == maxextra) {
      oddcommand(
          formatted(" Line %d has more than %d exploratory variables: those behind are ignored.\n", number, maxextra));
      return;
    }
    const FoundVariable found = findvariable(name, names, nvar);
    if (found.index < 1) {
      std::printf("bad level-%d extra variables\n", level);
      const std::string near = nearestnames(name, names, nvar);
      std::printf("Line %d: there is no %s at level %d.%s%s\n", number, printable(name).c_str(), level,
                  near.empty() ? "" : " The nearest names: ", near.c_str());
      fail(8, line.c_str());
    }
    tellcut(number, name, names, found);
    row[n++] = found.index;
  }
}

// Takes the next line that is no comment when it is an equation of that level; otherwise leaves the reader before it.
bool nextequation(CommandReader& reader, std::string_view keyword) {
  do {
    if (!nextline(reader.lines)) return false;
  } while (beginswith(reader.lines.line, "#"));
  if (beginswith(reader.lines.line, keyword)) return true;
  holdline(reader.lines);
  return false;
}

// Takes the line in hand apart. `owner` is the coefficient that the left side must name; `extras` receives the list
// behind "/".
Equation equationof(const CommandReader& reader, int level, const Name& owner, int* extras) {
  const std::string line = uppercase(reader.lines.line);
  if (line.find('=') == std::string::npos) {
    std::printf("%s", equationform);
    badline(reader);
  }
  const std::size_t slash = line.find('/');
  std::string_view text(line);
  if (slash != std::string::npos) {
    (level == 2 ? run.answered.extra2 : run.answered.extra3) = true;
    readextras(reader.lines.number, line, text.substr(slash + 1), level, extras);
    text = text.substr(0, slash);
  }
  text.remove_prefix(text.find(':') + 1);
  const std::size_t equals = text.find('=');
  const std::string_view left = trimmed(text.substr(0, equals));
  const Array<Name>& table = level == 2 ? run.mdm.names1 : run.mdm.names2;
  const FoundVariable found = findvariable(left, table, static_cast<int>(table.size()) - 1);
  if (equals == std::string_view::npos || found.index < 0 ||
      !samename(paddedname(table[static_cast<std::size_t>(found.index)].text), paddedname(owner.text))) {
    std::printf("The equation of %s is due here.\n", leftname(owner).c_str());
    badline(reader);
  }
  tellcut(reader.lines.number, left, table, found);

  Equation equation;
  equation.line = reader.lines.number;
  for (Term& term : termsof(text.substr(equals + 1))) {
    if (sameword(term.name, "RANDOM")) {
      equation.random = true;
    } else {
      equation.terms.push_back(std::move(term));
    }
  }
  return equation;
}

// Puts variable `v` into the next free slot of a row of terms. The row has a slot for each variable, so it overflows
// only when one stands in it already.
void addterm(int* row, int width, int v, const Term& term, const Name& owner) {
  int slot = 0;
  for (; slot < width && row[slot] != noslot; ++slot)
    if (row[slot] == v) repeated(term.name, leftname(owner).c_str());
  if (slot == width) repeated(term.name, leftname(owner).c_str());
  row[slot] = v;
}

// The LEVEL3: line of the level-2 coefficient whose variable is `owner`, if it stands next. Data of two levels have
// none: the coefficient is a fixed effect.
void readlevel3(CommandReader& reader, int owner) {
  Model& model = run.model;
  const int e = reader.set, b = reader.ncoef2++;
  if (b >= run.mdm.maxbeta) stopwith("There are too many level-2 coefficients!\n");
  if (run.mdm.twolevel()) return fixatlevel3(model, e, b);
  const Name& ownername = run.mdm.names2[static_cast<std::size_t>(owner)];
  if (!nextequation(reader, "LEVEL3:")) {
    if (reader.without3.empty()) reader.without3 = leftname(ownername);
    return;
  }
  run.answered.level3 = true;
  const Equation equation = equationof(reader, 3, ownername, model.extra3.row(e, b));
  for (const Term& term : equation.terms) {
    const int v = variable(equation.line, "level3", term.name, run.mdm.names3, run.mdm.nvar3, 0);
    addterm(model.terms3.row(e, b), run.mdm.ncol3, v, term, ownername);
    if (term.option != '\0' && term.option != '2') {
      oddcommand(formatted("Problem at this point: %s\ninvlaid option on level-3 variable, %c\n",
                           printable(term.text).c_str(), term.option));
    }
    if (v == 0) continue;
    const auto at = static_cast<std::size_t>(v);
    if (term.option == '2') model.center3[at] = Centering::grandmean;
    run.out.wanted1vars3[at] = run.out.wanted2vars3[at] = run.out.wanted3vars3[at] = 1;
  }
  if (!equation.random) model.fixed2.row(e)[b] = 1;
}

// The LEVEL2: line of the level-1 coefficient whose variable is `owner`, if it stands next.
void readlevel2(CommandReader& reader, int owner) {
  Model& model = run.model;
  const int e = reader.set, c = reader.ncoef1++;
  const bool threshold = run.model.outcome.ordinal() && owner > run.mdm.nvar1;
  if (threshold) model.fixed1.row(e)[c] = 1;
  const Name ownername = run.mdm.names1[static_cast<std::size_t>(owner)];
  if (!nextequation(reader, "LEVEL2:")) {
    if (!threshold && reader.without2.empty()) reader.without2 = leftname(ownername);
    return;
  }
  run.answered.level2 = true;
  const Equation equation = equationof(reader, 2, ownername, model.extra2.row(e, c));
  if (threshold && (equation.random || !equation.terms.empty() || model.extra2.row(e, c)[0] != noslot))
    stopwith("The threshold %s can have no equation of its own!\n", leftname(ownername).c_str());
  for (const Term& term : equation.terms) {
    const int v = variable(equation.line, "level2", term.name, run.mdm.names2, run.mdm.nvar2, 0);
    addterm(model.terms2.row(e, c), run.mdm.ncol2, v, term, ownername);
    if (term.option != '\0' && term.option != '1' && term.option != '2') {
      oddcommand(formatted("Problem at this point: %s\ninvalid option on level-2 variable, %c\n",
                           printable(term.text).c_str(), term.option));
    }
    if (v > 0) {
      const auto at = static_cast<std::size_t>(v);
      if (term.option == '1' && run.mdm.twolevel())
        stopwith("Line %d: %s has no groups to be centered in, since the data have two levels. See ,2 (grand mean).\n",
                 equation.line, leftname(run.mdm.names2[at]).c_str());
      if (term.option == '1' || term.option == '2') model.center2[at] = centeringof(term.option);
      run.out.wanted1vars2[at] = run.out.wanted2vars2[at] = 1;
    }
    readlevel3(reader, v);
  }
  if (!equation.random) model.fixed1.row(e)[c] = 1;
}

void readoutcome(const CommandReader& reader, const std::string& name) {
  const int v = variable(reader.lines.number, "outvar", name, run.mdm.names1, run.mdm.ncol1 - 1);
  if (reader.set > 0 && v != run.model.outvar) stopwith("All equations of level 1 must have the same outcome!\n");
  run.model.outvar = v;
  run.model.use1.row(reader.set)[v] = Use::outcome;
  run.out.wanted1vars1[static_cast<std::size_t>(v)] = 1;
}

void readpredictor(CommandReader& reader, int line, const Term& term, int& last) {
  if (beginswith(term.name, "THOLD")) {
    ++reader.nthresholds;
    if (run.model.outcome.ordinal() && reader.nthresholds > run.model.outcome.categories - 2)
      stopwith("You have specified more than %d thresholds in the command file!\n", run.model.outcome.categories - 2);
  }
  const int v = variable(line, "level1", term.name, run.mdm.names1, run.mdm.ncol1 - 1);
  if (v < last) fail(10);
  if (v == last || v == run.model.outvar) repeated(term.name, "level 1");
  last = v;
  run.model.use1.row(reader.set)[v] = Use::predictor;
  if (v > run.mdm.nvar1 && term.option != '\0')
    stopwith("The threshold %s cannot be centered!\n", leftname(run.mdm.names1[static_cast<std::size_t>(v)]).c_str());
  if (term.option == '1' || term.option == '2') {
    run.model.center1[static_cast<std::size_t>(v)] = centeringof(term.option);
  } else if (term.option != '\0') {
    stopwith("invalid option on level-1 variable, %c\n", term.option);
  }
  readlevel2(reader, v);
}

}  // namespace

void readlevel1(CommandReader& reader, const std::string& value) {
  if (++reader.set >= run.model.neqsets) stopwith("You have too many sets of equations!\n");
  run.answered.level1 = true;
  reader.ncoef1 = reader.ncoef2 = reader.nthresholds = 0;
  const std::string equation = statedequation(reader.lines.before, value);
  const std::size_t equals = equation.find('=');
  if (equals == std::string::npos) {
    std::printf("%s", equationform);
    fail(8, equation.c_str());
  }
  readoutcome(reader, std::string(trimmed(std::string_view(equation).substr(0, equals))));

  std::vector<Term> terms = termsof(std::string_view(equation).substr(equals + 1));
  const int line = reader.lines.number;  // the equations of the coefficients move the reader on
  const bool intercept = !terms.empty() && sameword(terms[0].text, "INTRCPT1");
  run.model.use1.row(reader.set)[0] = intercept ? Use::predictor : Use::none;
  if (intercept) {
    terms.erase(terms.begin());
    readlevel2(reader, 0);
  } else {
    run.model.nointercept1 = true;
  }
  int last = 0;
  for (const Term& term : terms)
    if (!sameword(term.name, "RANDOM")) readpredictor(reader, line, term, last);
}

}  // namespace kdr
