// Keywords whose values are lists.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "command/categories.h"
#include "command/complete.h"
#include "command/reader.h"
#include "command/text.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/oddities.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The levels' tau matrices side by side.
struct TauFields {
  const char *greek, *keyword;
  int number;
  int (*order)();
  bool Restrictions::*haveest;
  Array<double> Restrictions::*est;
  bool Restrictions::*havecon;
  Array<int> Restrictions::*con;
};

constexpr TauFields taupi = {"pi",
                             "esttau2",
                             1,
                             randomlevel1,
                             &Restrictions::haveesttau2,
                             &Restrictions::esttau2,
                             &Restrictions::havecontau2,
                             &Restrictions::contau2};
constexpr TauFields taubeta = {"beta",
                               "esttau3",
                               2,
                               randomlevel2,
                               &Restrictions::haveesttau3,
                               &Restrictions::esttau3,
                               &Restrictions::havecontau3,
                               &Restrictions::contau3};

// Elements of the lower triangle of a tau.
long long triangle(int order) { return static_cast<long long>(packedsize(order)); }

void needmodel(const char* kind, const TauFields& tau) {
  if (!run.answered.wholemodel()) stopwith("%s tau(%s) must be specified after complete model\n", kind, tau.greek);
}

// A list with more entries than the model has a use for. It is told at the end of the file: the rest of the model may
// stand below the list, which then has another fault.
void checklength(CommandReader& reader, std::size_t entries, std::size_t places, const char* what) {
  if (entries <= places || !reader.excess.empty()) return;
  const std::string& line = reader.lines.line;
  reader.excess = formatted("The line %s has %zu numbers, and the model has %zu %s!\n",
                            line.substr(0, line.find(':') + 1).c_str(), entries, places, what);
}

void readesttau(CommandReader& reader, const TauFields& tau, const std::string& value) {
  needmodel("Estimated", tau);
  const int d = tau.order();
  if (d == 0) return;
  const std::vector<std::string> elements = split(value, ',');
  if (static_cast<long long>(elements.size()) < triangle(d)) {
    // An element that cannot be read is told first.
    for (const std::string& element : elements)
      if (!sameword(element, "E") && !realof(element))
        stopwith("Invalid number in %s specification: %s\n Valid are numbers and E\n", tau.keyword, element.c_str());
    stopwith("There must be at least %lld elements of esttau%d specified\n", triangle(d), tau.number);
  }
  checklength(reader, elements.size(), static_cast<std::size_t>(triangle(d)), "such elements");
  Array<double> matrix(at(d) * at(d));
  std::size_t n = 0;
  for (int i = 0; i < d; ++i)
    for (int j = 0; j <= i; ++j) {
      const std::string& element = elements[n++];
      const bool free = sameword(element, "E");
      if (!free && !realof(element))
        stopwith("Invalid number in %s specification: %s\n Valid are numbers and E\n", tau.keyword, element.c_str());
      matrix[at(i) * at(d) + at(j)] = matrix[at(j) * at(d) + at(i)] = free ? absent : realof(element).value_or(0.0);
    }
  run.model.restrictions.*tau.est = std::move(matrix);
  run.model.restrictions.*tau.haveest = true;
}

void readcontau(CommandReader& reader, const TauFields& tau, const std::string& value) {
  needmodel("Constrained", tau);
  const long long places = triangle(tau.order());
  Array<int>& codes = run.model.restrictions.*tau.con;
  if (!(run.model.restrictions.*tau.havecon)) codes.reset(static_cast<std::size_t>(places));
  run.model.restrictions.*tau.havecon = true;
  const std::vector<std::string> elements = split(value, ',');
  checklength(reader, elements.size(), static_cast<std::size_t>(places), "such elements");
  int first = 0;
  for (std::size_t i = 0; i < elements.size() && static_cast<long long>(i) < std::max(places, 1LL); ++i) {
    const int k = wholeof(elements[i]).value_or(0);
    if (k < 1 || k > places)
      stopwith("Element %s of tau(%s) is outside its %lld elements\n", elements[i].c_str(), tau.greek, places);
    int& code = codes[at(k) - 1];
    if (code != 0) stopwith("An element of tau(%s) has been constrained more than once\n", tau.greek);
    if (i == 0) first = k;
    code = i == 0 ? first : -first;
  }
}

// Marks the variables of one list of a residual file.
void marklist(CommandReader& reader, const char* what, const std::string& list, const Array<Name>& names, int nvar,
              Array<int>& flags) {
  if (list.empty()) return;
  for (const std::string& name : split(list, ',')) {
    if (name.empty()) badspecification(what, reader.lines.line);
    flags[at(variable(reader.lines.number, what, name, names, nvar, 0))] = 1;
  }
}

// The lists behind the slashes, `wanted` of them; missing ones are empty. None for a file that is not wanted.
std::vector<std::string> slashlists(const char* keyword, const std::string& value, std::size_t wanted) {
  std::vector<std::string> lists = split(value, '/');
  if (isno(lists[0])) return {};
  if (!isyes(lists[0]) || lists.size() > wanted + 1)
    refusevalue(keyword, formatted("N, or Y and behind it up to %zu lists with a / before each", wanted).c_str(),
                value);
  lists.erase(lists.begin());
  lists.resize(wanted);
  return lists;
}

void refuselatetables() {
  const AnsweredMarks& read = run.answered;
  if (read.level1 || read.level2 || read.resfil2 || (read.resfil3 && !run.mdm.twolevel()))
    stopwith("Nonlin:ordinal/multinomial must be specified before model or residual file\n");
}

}  // namespace

void readnonlin(CommandReader& reader, const std::string& value) {
  run.answered.nonlin = true;
  const std::vector<std::string> fields = split(value, ',');
  if (isno(value)) return;
  const auto* const family = std::find_if(std::begin(familynames), std::end(familynames),
                                          [&](const char* n) { return sameword(fields[0], n); });
  if (family == std::end(familynames))
    stopwith("Incorrect non-linear type: %s\n Valid are N, BERNOULLI, BINOMIAL, POISSON, MULTINOMIAL and ORDINAL\n",
             value.c_str());

  Model& kind = run.model;
  const bool before = kind.outcome.categorical();
  const auto type = static_cast<Family>(family - std::begin(familynames));
  const bool newtables = Outcome{type}.categorical() || before;
  if (newtables) refuselatetables();
  kind.outcome.family = type;
  if (fields.size() > 2 || (kind.outcome.linear() && fields.size() > 1))
    refusevalue("NONLIN", "a type, and behind a comma its categories or a variable", value);
  const std::string second = fields.size() > 1 ? fields[1] : "";
  if (kind.outcome.categorical()) {
    if (second.empty()) stopwith("For multinomial/ordinal, you must specify the number of categories\n");
    const std::optional<int> categories = wholeof(second);
    if (!categories) refusevalue("NONLIN", "a whole number of categories", value);
    kind.outcome.categories = *categories;
  } else if (kind.outcome.single() && fields.size() > 1) {
    const int v = kind.outcome.countvariable.emplace(
        variable(reader.lines.number, "nlcntvar", second, run.mdm.names1, run.mdm.nvar1));
    kind.outcome.counted = true;
    run.out.wanted1vars1[at(v)] = 1;
  }
  // One trial each: a Bernoulli outcome.
  if (kind.outcome.link() == Link::logit)
    kind.outcome.family = kind.outcome.counted ? Family::binomial : Family::bernoulli;
  if (newtables) makeequationsets();
}

void readdeletion(CommandReader& reader, const std::string& value) {
  run.answered.deletion = true;
  if (sameword(value, "NONE")) return;
  for (const std::string& name : split(value, ','))
    run.model.delete1[at(variable(reader.lines.number, "level1deletion", name, run.mdm.names1, run.mdm.nvar1)) - 1] =
        Deletion::named;
}

void readplausvals(CommandReader& reader, const std::string& value) {
  if (isno(value)) return;
  if (!run.answered.level1) stopwith("plausvals must be specified after level-1 model\n");
  SeriesMode& series = run.series;
  if (!series.pvfirst && !series.pvmode) {
    series.pvfirst = series.pvmode = true;
    series.pvindex = series.pvcurrent = 0;
  }
  const std::vector<std::string> names = split(value, ',');
  series.pvlist.reset(names.size());
  series.nsets = static_cast<int>(names.size());
  for (std::size_t i = 0; i < names.size(); ++i)
    series.pvlist[i] = variable(reader.lines.number, "plausvals", names[i], run.mdm.names1, run.mdm.nvar1);
  if (series.pvfirst) series.pvcurrent = series.pvlist[0];
}

void readlvr(CommandReader&, const std::string& value) {
  run.answered.lvr = true;
  if (isno(value)) return;
  if (!run.answered.wholemodel()) stopwith("lvr must be specified after complete model\n");
  const int n = randomlevel2();
  if (n == 0) stopwith("There is no tau, so lvr cannot be used!\n");
  const std::vector<std::string> letters = split(value, ',');
  if (letters.size() > at(n)) stopwith("lvr has letters for more than the %d coefficients random at level 3!\n", n);
  run.out.lvrroles.reset(at(n));
  run.out.lvr = false;
  for (std::size_t i = 0; i < at(n); ++i) {
    const auto* role = rownamed(roleletters, i < letters.size() ? letters[i] : std::string());
    if (role == nullptr) {
      std::printf(
          "lvr must be specifed as o, p or i\nLVR-BETA: wants %d such letters with commas between them, not %s\n", n,
          printable(value).c_str());
      stoprun(8);
    }
    run.out.lvrroles[i] = role->code;
    run.out.lvr = run.out.lvr || role->code != LatentRole::ignore;
  }
}

void readesttau2(CommandReader& reader, const std::string& value) { readesttau(reader, taupi, value); }
void readesttau3(CommandReader& reader, const std::string& value) { readesttau(reader, taubeta, value); }
void readcontau2(CommandReader& reader, const std::string& value) { readcontau(reader, taupi, value); }
void readcontau3(CommandReader& reader, const std::string& value) { readcontau(reader, taubeta, value); }

void readcontrast(CommandReader& reader, const std::string& value) {
  if (!run.answered.wholemodel()) stopwith("Gammas must be specified after complete model\n");
  const std::string keyword = reader.lines.line.substr(0, reader.lines.line.find(':'));
  const int hypothesis = wholeof(keyword.substr(5)).value_or(0);
  if (hypothesis < 1 || hypothesis > maxhypotheses) {
    oddcommand(
        formatted(" %s: hypotheses have the numbers 1 to %d: ignored\n", printable(keyword).c_str(), maxhypotheses));
    return;
  }
  if (hypothesis < reader.hypothesis) stopwith("The lines GAMMA%d: must stand together!\n", hypothesis);
  if (hypothesis > reader.hypothesis + 1)
    stopwith("There is no line GAMMA%d: before the line GAMMA%d:!\n", reader.hypothesis + 1, hypothesis);
  reader.hypothesis = hypothesis;
  short& rows = run.model.hypothesisrows[at(hypothesis) - 1];
  const auto width = at(countfixedeffects());
  if (rows == SHRT_MAX) stopwith("There are too many contrasts in hypothesis %d!\n", hypothesis);
  ++rows;
  run.answered.gammas = run.model.nhypotheses = true;
  Array<double>& contrasts = run.model.contrasts;
  const std::size_t start = contrasts.size();
  contrasts.resize(start + width);
  const std::vector<std::string> values = split(value, ',');
  const bool toomany = values.size() > width;
  if ((toomany && !reader.toomany) || (values.size() < width && reader.oddhypothesis == 0)) {
    reader.toomany = toomany;
    reader.oddhypothesis = hypothesis;
    reader.oddnumbers = static_cast<int>(values.size());
  }
  for (std::size_t i = 0; i < width && i < values.size(); ++i) {
    const std::optional<double> number = realof(values[i]);
    if (!number)
      refusevalue(keyword.c_str(), "numbers with commas between them", value,
                  ("Invalid number in a contrast: " + values[i] + "\n").c_str());
    contrasts[start + i] = *number;
  }
}

void readconstrain(CommandReader& reader, const std::string& value) {
  run.answered.constrain = !isyes(value);
  if (isyes(value)) return;
  if (isno(value)) return;
  if (!run.answered.wholemodel()) stopwith("Constraints must be specified after complete model\n");
  const auto width = at(countfixedeffects());
  if (run.model.constraints.size() != width) run.model.constraints.reset(width);
  const std::vector<std::string> values = split(value, ',');
  checklength(reader, values.size(), width, "fixed effects");
  for (std::size_t i = 0; i < width && i < values.size(); ++i) {
    const std::optional<int> group = wholeof(values[i]);
    if (!group)
      refusevalue("CONSTRAIN", "N, Y, or whole numbers with commas between them", value,
                  ("Invalid number in a constraint: " + values[i] + "\n").c_str());
    run.model.constraints[i] = *group;
  }
}

void readresfil1(CommandReader& reader, const std::string& value) {
  run.answered.resfil1 = true;
  const std::vector<std::string> lists = slashlists("RESFIL1", value, 3);
  if (lists.empty()) return;
  run.out.resfil1 = true;
  marklist(reader, "resfil1", lists[0], run.mdm.names1, run.mdm.nvar1, run.out.wanted1vars1);
  marklist(reader, "resfil1", lists[1], run.mdm.names2, run.mdm.nvar2, run.out.wanted1vars2);
  marklist(reader, "resfil1", lists[2], run.mdm.names3, run.mdm.nvar3, run.out.wanted1vars3);
}

void readresfil2(CommandReader& reader, const std::string& value) {
  run.answered.resfil2 = true;
  const std::vector<std::string> lists = slashlists("RESFIL2", value, 2);
  if (lists.empty()) return;
  run.out.resfil2 = true;
  marklist(reader, "resfil2", lists[0], run.mdm.names2, run.mdm.nvar2, run.out.wanted2vars2);
  marklist(reader, "resfil2", lists[1], run.mdm.names3, run.mdm.nvar3, run.out.wanted2vars3);
}

void readresfil3(CommandReader& reader, const std::string& value) {
  run.answered.resfil3 = true;
  const std::vector<std::string> lists = slashlists("RESFIL3", value, 1);
  if (lists.empty()) return;
  run.out.resfil3 = true;
  marklist(reader, "resfil3", lists[0], run.mdm.names3, run.mdm.nvar3, run.out.wanted3vars3);
}

}  // namespace kdr
