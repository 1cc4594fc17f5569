#include "command/formula/fit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "command/formula/design.h"
#include "command/formula/equationlines.h"
#include "command/formula/variables.h"
#include "command/text.h"
#include "construct/buildlog.h"
#include "construct/construction.h"
#include "construct/fileclashes.h"
#include "construct/levelsource.h"
#include "construct/rawvariables.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "driver/warnings.h"

namespace kdr {

namespace {

// What stands beside the formula's own columns in the MDM file.
struct Extra {
  std::string name, label;
  std::shared_ptr<std::vector<double>> values;
};

struct Fit {
  FitRequest request;
  FormulaModel model;
  FormulaData data;
  Extra outcome;
  int categories = 0;           // of an ordinal or multinomial outcome
  std::optional<Extra> counts;  // trials or exposure
  std::optional<Extra> weights[3];
  std::size_t inner = 0;             // the grouping of level 2
  std::optional<std::size_t> outer;  // that of level 3, where there are two groupings
  LongUnits units;
  std::vector<ModelColumn> fixed;
  Design design;
  std::vector<std::string> remarks;
};

// What the formula made of the data: for console and log, and as a comment for the command file.
void remark(Fit& fit, const std::string& words) {
  logahead(words);
  fit.remarks.push_back(words);
}

enum class FitFamily { gaussian, binomial, poisson, ordinal, multinomial };

FitFamily familyof(const FitRequest& request) {
  constexpr const char* words[] = {"gaussian", "binomial", "poisson", "ordinal", "multinomial"};
  if (request.family.empty()) return FitFamily::gaussian;
  for (int i = 0; i < 5; ++i)
    if (sameword(request.family, words[i])) return static_cast<FitFamily>(i);
  stopwith("-family takes gaussian, binomial, poisson, ordinal or multinomial. It cannot be %s\n",
           request.family.c_str());
}

// Columns of the file.

// How many letters have to be changed, put in or left out to make one word of the other.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t corner = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, corner + (a[i - 1] == b[j - 1] ? 0 : 1)});
      corner = above;
    }
  }
  return row[b.size()];
}

std::string columnwords(const LevelSource& source, const std::string& name) {
  constexpr std::size_t longest = 100, most = 12;
  std::string near, all;
  std::size_t count = 0;
  for (const RawVariable& variable : source.vartable) {
    if (variable.hidden || variable.fullname.empty()) continue;
    if (count++ < most) all += (all.empty() ? "" : ", ") + variable.fullname;
    if (name.size() < longest && variable.fullname.size() < longest &&
        3 * distance(uppercase(name), uppercase(variable.fullname)) <= name.size())
      near += (near.empty() ? "" : " or ") + variable.fullname;
  }
  if (!near.empty()) return " Is " + near + " meant?";
  return " The columns are " + all + (count > most ? " ..." : "") + ".";
}

// The row of the column that a name tells; below 0 where there is none, or several.
int columnrow(const LevelSource& source, const std::string& name) {
  int exact = novariable, alike = novariable;
  for (std::size_t row = 0; row < source.vartable.size(); ++row) {
    const RawVariable& variable = source.vartable[row];
    if (variable.hidden) continue;
    if (variable.fullname == name) exact = exact == novariable ? static_cast<int>(row) : severalvariables;
    if (sameword(variable.fullname, name)) alike = alike == novariable ? static_cast<int>(row) : severalvariables;
  }
  return exact == novariable ? alike : exact;
}

// Collects the rows of the columns that are needed, each once.
struct Wanted {
  std::vector<int> rows;
  std::map<std::string, std::size_t> places;

  void add(const std::string& name, int row) {
    const auto found = std::find(rows.begin(), rows.end(), row);
    places[name] = static_cast<std::size_t>(found - rows.begin());
    if (found == rows.end()) rows.push_back(row);
  }
};

void readcolumns(Fit& fit) {
  openlong(fit.request.file);
  const LevelSource& source = raw.level[0];
  Wanted wanted;
  std::vector<NamedPlace> names;
  columnnames(fit.model.root, names);
  for (const NamedPlace& named : names) {
    if (named.name == "." && columnrow(source, ".") < 0)
      refuseformula(fit.model.text, named.place, "The point for all other columns is not known here: name them.");
    const int row = columnrow(source, named.name);
    if (row == severalvariables)
      refuseformula(fit.model.text, named.place, source.filename + " has several columns of this name.");
    if (row == novariable)
      refuseformula(fit.model.text, named.place,
                    source.filename + " has no column " + named.name + "." + columnwords(source, named.name));
    wanted.add(named.name, row);
  }
  const std::pair<const char*, const std::string*> options[] = {{"-trials", &fit.request.trials},
                                                                {"-exposure", &fit.request.exposure},
                                                                {"-weights1", &fit.request.weights[0]},
                                                                {"-weights2", &fit.request.weights[1]},
                                                                {"-weights3", &fit.request.weights[2]}};
  for (const auto& [option, name] : options) {
    if (name->empty()) continue;
    const int row = columnrow(source, *name);
    if (row < 0)
      stopwith("%s: %s has %s column %s.%s\n", option, source.filename.c_str(),
               row == novariable ? "no" : "more than one", printable(*name).c_str(),
               printable(columnwords(source, *name)).c_str());
    if (source.vartable[static_cast<std::size_t>(row)].text)
      stopwith("%s: the column %s holds texts.\n", option, printable(*name).c_str());
    wanted.add(*name, row);
  }
  fit.data.formula = fit.model.text;
  std::vector<int> ids;
  for (const RandomPart& part : fit.model.randoms)
    for (const std::string& name : part.group) ids.push_back(columnrow(source, name));
  fit.data.columns = readlong(wanted.rows, fit.request.missing, ids);
  fit.data.places = wanted.places;
  fit.data.nrecords = fit.data.columns[0].text ? fit.data.columns[0].codes.size() : fit.data.columns[0].numbers.size();
  for (const LongColumn& column : fit.data.columns)
    if (column.codedmissing > 0)
      remark(fit, column.name + formatted(": %lld values count as missing.", column.codedmissing));
}

// The two groupings.

// A unit of `finer` that lies in two units of `coarser`: its records; none where each lies in one.
std::optional<std::pair<std::size_t, std::size_t>> acrossunits(const Grouping& finer, const Grouping& coarser) {
  std::vector<std::ptrdiff_t> first(static_cast<std::size_t>(finer.nunits), -1);
  for (std::size_t i = 0; i < finer.units.size(); ++i) {
    if (finer.units[i] < 0 || coarser.units[i] < 0) continue;
    std::ptrdiff_t& before = first[static_cast<std::size_t>(finer.units[i])];
    if (before < 0) before = static_cast<std::ptrdiff_t>(i);
    if (coarser.units[static_cast<std::size_t>(before)] != coarser.units[i])
      return std::pair{static_cast<std::size_t>(before), i};
  }
  return std::nullopt;
}

std::string valueshown(const LongColumn& column, std::size_t record) {
  if (!column.text) return formatted("%.15g", column.numbers[record]);
  return column.codes[record] < 0 ? "" : column.texts[static_cast<std::size_t>(column.codes[record])];
}

// The values of these columns in a record, with : between them.
std::string unitshown(const FormulaData& data, const std::vector<std::string>& names, std::size_t record) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += ':';
    text += valueshown(data.column(name), record);
  }
  return text;
}

// Which grouping is level 2, and which level 3. Where one holds the columns of the other it is the inner one; else the
// data tell. One grouping makes a model of two levels.
void settlegroupings(Fit& fit) {
  findgroupings(fit.data, fit.model);
  const std::vector<Grouping>& groupings = fit.data.groupings;
  const std::string& text = fit.model.text;
  constexpr const char* wanted =
      "A model has one grouping, as in (1 | school), or two, one within the other, as in (1 | school/pupil).";
  if (groupings.empty())
    refuseformula(text, fit.model.root.operands[1].place, std::string("There is no random part. ") + wanted);
  if (groupings.size() == 1) {
    if (!fit.request.weights[2].empty())
      stopwith("-weights3: %s is the only grouping, which is level 2. See -weights2.\n",
               printable(groupings[0].shown).c_str());
    fit.units.levels = 2;
    return;
  }
  if (groupings.size() > 2)
    refuseformula(text, groupings[2].place, std::string("These are more than two groupings. ") + wanted);
  const auto first = acrossunits(groupings[0], groupings[1]), second = acrossunits(groupings[1], groupings[0]);
  if (first && second) {
    const auto [one, other] = *second;
    refuseformula(
        text, groupings[1].place,
        "The groupings are crossed, which cannot be fitted: " + groupings[1].shown + " " +
            unitshown(fit.data, groupings[1].names, one) + " lies in " + groupings[0].shown + " " +
            unitshown(fit.data, groupings[0].names, one) + " and in " + unitshown(fit.data, groupings[0].names, other) +
            ". If its numbers begin anew in each, write (1 | " + groupings[0].shown + "/" + groupings[1].shown + ").");
  }
  if (!first && !second)
    refuseformula(text, groupings[1].place,
                  "The units of " + groupings[0].shown + " and of " + groupings[1].shown + " are the same.");
  fit.outer = second ? 1 : 0;  // a unit of grouping 1 lies in several of grouping 0
  fit.inner = second ? 0 : 1;
}

// One column whose values tell the units of the groupings that are in these columns.
LongColumn idcolumn(const FormulaData& data, const std::vector<std::string>& names) {
  if (names.size() == 1) return data.column(names[0]);
  LongColumn column;
  column.text = true;
  std::unordered_map<std::string, int> known;
  for (std::size_t i = 0; i < data.nrecords; ++i) {
    const std::string text = unitshown(data, names, i);
    const auto [place, fresh] = known.try_emplace(text, static_cast<int>(column.texts.size()));
    if (fresh) column.texts.push_back(text);
    column.codes.push_back(place->second);
  }
  return column;
}

// Whether the IDs can stand as numbers in the MDM file.
bool wholenumbers(const LongColumn& column) {
  constexpr double largest = 999999999999.0;
  return !column.text && std::all_of(column.numbers.begin(), column.numbers.end(), [](double value) {
    return value == missingcode || (value == std::floor(value) && value >= 0.0 && value <= largest);
  });
}

LongColumn astexts(LongColumn column) {
  if (column.text) return column;
  LongColumn texts;
  texts.text = true;
  std::unordered_map<double, int> known;
  for (const double value : column.numbers) {
    if (value == missingcode) {
      texts.codes.push_back(-1);
      continue;
    }
    const auto [place, fresh] = known.try_emplace(value, static_cast<int>(texts.texts.size()));
    if (fresh) texts.texts.push_back(formatted("%.15g", value));
    texts.codes.push_back(place->second);
  }
  return texts;
}

// The columns that tell a level-2 unit from the others of its level-3 unit.
std::vector<std::string> owncolumns(const Fit& fit) {
  std::vector<std::string> own = fit.data.groupings[fit.inner].names;
  if (fit.outer)
    std::erase_if(own, [&outer = fit.data.groupings[*fit.outer].names](const std::string& name) {
      return std::find(outer.begin(), outer.end(), name) != outer.end();
    });
  return own;
}

void makeunits(Fit& fit) {
  struct Ids {
    LongColumn column;
    std::string shown;
    UnitKeys& keys;
  };
  std::vector<Ids> levels;
  const auto add = [&](const std::vector<std::string>& names, std::size_t grouping, UnitKeys& keys) {
    for (const std::string& name : names) tellstrayid(fit.data.column(name));
    levels.push_back({idcolumn(fit.data, names), fit.data.groupings[grouping].shown, keys});
  };
  if (fit.outer) add(fit.data.groupings[*fit.outer].names, *fit.outer, fit.units.level3);
  add(owncolumns(fit), fit.inner, fit.units.level2);
  const bool numbers =
      std::all_of(levels.begin(), levels.end(), [](const Ids& ids) { return wholenumbers(ids.column); });
  run.mdm.numericids = numbers;
  for (Ids& ids : levels) {
    if (!numbers) ids.column = astexts(std::move(ids.column));
    ids.keys = unitkeys(ids.column, numbers, false);
    if (ids.keys.numbered)
      remark(fit, formatted("IDs of %s that are long, or differ by case alone: the units are numbered from 1 to %zu.",
                            ids.shown.c_str(), ids.keys.ids.size()));
  }
}

// The outcome, and what stands beside it.

std::shared_ptr<std::vector<double>> shared(std::vector<double> values) {
  return std::make_shared<std::vector<double>>(std::move(values));
}

[[noreturn]] void refuseoutcome(const Fit& fit, const std::string& words) {
  refuseformula(fit.model.text, fit.model.outcome->place, words);
}

// The outcome as a column of names, or nothing when it is one of numbers.
std::optional<Factor> outcomenames(const Fit& fit, const Expression& e) {
  if (iscall(e, "factor")) {
    if (e.operands.size() > 1 || bare(e.operands[0]).part != Part::name)
      refuseoutcome(fit, "An outcome can be factor(y), without more.");
    return factorof(fit.data.column(bare(e.operands[0]).word), {});
  }
  if (e.part != Part::name || !holdsnames(fit.data.column(e.word))) return std::nullopt;
  const LongColumn& column = fit.data.column(e.word);
  if (const std::string words = strayrefusal(column); !words.empty()) refuseoutcome(fit, words);
  return factorof(column, {});
}

std::vector<double> codesof(const Factor& factor, double first) {
  std::vector<double> values;
  values.reserve(factor.codes.size());
  for (const int code : factor.codes) values.push_back(code < 0 ? missingcode : first + code);
  return values;
}

// An outcome of two names is 0 and 1.
void takebinary(Fit& fit, const Factor& names) {
  if (names.levels.size() != 2)
    refuseoutcome(fit, formatted("A binomial outcome has two values. This one has %zu.", names.levels.size()));
  fit.outcome.values = shared(codesof(names, 0.0));
  remark(fit, "The event of " + fit.outcome.name + " is " + names.levels[1] + ".");
}

void takecbind(Fit& fit, const Expression& e) {
  std::vector<double> successes = valuesof(fit.data, e.operands[0]);
  std::vector<double> trials = valuesof(fit.data, e.operands[1]);
  for (std::size_t i = 0; i < trials.size(); ++i) {
    if (successes[i] == missingcode || trials[i] == missingcode) {
      trials[i] = missingcode;
      continue;
    }
    if (successes[i] < 0.0 || trials[i] < 0.0)
      refuseoutcome(fit, formatted("Successes and failures cannot be below 0, as in record %zu.", i + 1));
    trials[i] += successes[i];
  }
  fit.outcome.name = deparsed(e.operands[0]);
  fit.outcome.values = shared(std::move(successes));
  fit.counts = Extra{"trials of " + fit.outcome.name, "", shared(std::move(trials))};
}

void takeoutcome(Fit& fit) {
  const Expression& e = bare(*fit.model.outcome);
  const FitFamily family = familyof(fit.request);
  if (e.part == Part::number || e.part == Part::text) refuseoutcome(fit, "The outcome is a column of the file.");
  fit.outcome.name = deparsed(e);
  if (iscall(e, "cbind")) {
    if (family != FitFamily::binomial) refuseoutcome(fit, "cbind(y, n - y) goes with -family binomial.");
    if (!fit.request.trials.empty()) refuseoutcome(fit, "cbind() tells the trials: without -trials.");
    return takecbind(fit, e);
  }
  if (iscall(e, "poly")) refuseoutcome(fit, "The outcome is one column.");
  const std::optional<Factor> names = outcomenames(fit, e);
  if (e.part == Part::name) fit.outcome.label = fit.data.column(e.word).label;
  const bool bycodes = names && e.part == Part::name && !fit.data.column(e.word).text;  // numbers with labels
  switch (family) {
    case FitFamily::gaussian:
    case FitFamily::poisson:
      if (names && !bycodes)
        refuseoutcome(fit, "This outcome is one of numbers, but " + fit.outcome.name +
                               " holds texts. See -family binomial, ordinal, multinomial.");
      fit.outcome.values = shared(valuesof(fit.data, e));
      break;
    case FitFamily::binomial:
      if (names && fit.request.trials.empty()) return takebinary(fit, *names);
      if (names && !bycodes) refuseoutcome(fit, "With -trials the outcome is a number of successes.");
      fit.outcome.values = shared(valuesof(fit.data, e));
      break;
    case FitFamily::ordinal:
    case FitFamily::multinomial:
      fit.outcome.values = shared(names && !bycodes ? codesof(*names, 1.0) : valuesof(fit.data, e));
      if (names && !bycodes)
        for (std::size_t k = 0; k < names->levels.size(); ++k)
          remark(fit, fit.outcome.name + " " + std::to_string(k + 1) + " is " + names->levels[k] + ".");
      break;
  }
}

// The exposure that offset(log(t)) tells.
void takeoffset(Fit& fit) {
  const auto& offsets = fit.model.offsets;
  if (offsets.empty()) return;
  const std::string& text = fit.model.text;
  if (offsets.size() > 1) refuseformula(text, offsets[1]->place, "A model has one offset.");
  const Expression& e = bare(offsets[0]->operands[0]);
  if (familyof(fit.request) != FitFamily::poisson || !iscall(e, "log"))
    refuseformula(text, offsets[0]->place, "The only offset is offset(log(t)), for counts (-family poisson).");
  if (!fit.request.exposure.empty()) refuseformula(text, offsets[0]->place, "The offset and -exposure say it twice.");
  fit.counts = Extra{deparsed(e.operands[0]), "", shared(valuesof(fit.data, e.operands[0]))};
}

void takeextras(Fit& fit) {
  const FitFamily family = familyof(fit.request);
  const auto column = [&](const std::string& name) {
    const LongColumn& from = fit.data.column(name);
    return Extra{from.name, from.label, shared(from.numbers)};
  };
  if (!fit.request.trials.empty() && family != FitFamily::binomial) stopwith("-trials goes with -family binomial.\n");
  if (!fit.request.exposure.empty() && family != FitFamily::poisson) stopwith("-exposure goes with -family poisson.\n");
  if (!fit.request.trials.empty()) fit.counts = column(fit.request.trials);
  if (!fit.request.exposure.empty()) fit.counts = column(fit.request.exposure);
  takeoffset(fit);
  for (int level = 0; level < 3; ++level)
    if (!fit.request.weights[level].empty()) fit.weights[level] = column(fit.request.weights[level]);
}

// The records.

// Leaves out each record in which something of the model is missing, as `na.omit` does, and says how many and why.
std::vector<char> completerecords(Fit& fit) {
  const FormulaData& data = fit.data;
  std::vector<char> kept(data.nrecords, 1);
  std::string reasons;
  const auto drop = [&](const std::string& name, const auto& missing) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < data.nrecords; ++i)
      if (missing(i)) {
        ++count;
        kept[i] = 0;
      }
    if (count == 0) return;
    remark(fit, formatted("%s is missing in %zu records.", name.c_str(), count));
    reasons += (reasons.empty() ? ": " : ", ") + name + formatted(" is missing in %zu", count);
  };
  const auto dropextra = [&](const Extra& extra) {
    drop(extra.name, [&](std::size_t i) { return (*extra.values)[i] == missingcode; });
  };
  dropextra(fit.outcome);
  if (fit.counts) dropextra(*fit.counts);
  for (const std::optional<Extra>& weights : fit.weights)
    if (weights) dropextra(*weights);
  for (const auto& named : data.variables) drop(named.first, [&](std::size_t i) { return named.second.missing(i); });
  for (const Grouping& grouping : data.groupings)
    drop(grouping.shown, [&](std::size_t i) { return grouping.units[i] < 0; });
  const auto left = std::count(kept.begin(), kept.end(), 1);
  if (left == 0) stopwith("No record of %s has all that the model needs.\n", fit.request.file.c_str());
  if (!reasons.empty()) {
    const std::size_t out = data.nrecords - static_cast<std::size_t>(left);
    remark(fit, formatted("%zu of %zu records are left out, %td remain.", out, data.nrecords, left));
    keepwarning(formatted("%zu of %zu records of %s are left out, %td remain", out, data.nrecords,
                          fit.request.file.c_str(), left) +
                    reasons + ".",
                false);
  }
  return kept;
}

// Levels that no record is left of go, as in lme4.
void dropemptylevels(Fit& fit, const std::vector<char>& kept) {
  for (auto& [name, variable] : fit.data.variables) {
    if (!variable.factor) continue;
    Factor& factor = variable.names;
    std::vector<int> place(factor.levels.size(), -1);
    for (std::size_t i = 0; i < kept.size(); ++i)
      if (kept[i] != 0) place[static_cast<std::size_t>(factor.codes[i])] = 0;
    std::vector<std::string> levels;
    for (std::size_t k = 0; k < place.size(); ++k) {
      if (place[k] < 0) {
        remark(fit, name + ": no record has the level " + factor.levels[k] + ", which is left out.");
        continue;
      }
      place[k] = static_cast<int>(levels.size());
      levels.push_back(factor.levels[k]);
    }
    factor.levels = std::move(levels);
    for (int& code : factor.codes) code = code < 0 ? -1 : place[static_cast<std::size_t>(code)];
    if (factor.levels.size() < 2)
      refuseformula(fit.model.text, variable.place,
                    name + " has only one value in these records" +
                        (factor.levels.empty() ? "." : ", " + factor.levels[0] + "."));
  }
}

void tellfactors(Fit& fit) {
  constexpr std::size_t longest = 300;
  for (const auto& [name, variable] : fit.data.variables) {
    if (!variable.factor || variable.indicator) continue;
    std::string others;
    for (std::size_t k = 1; k < variable.names.levels.size() && others.size() < longest; ++k)
      others += (k == 1 ? "" : ", ") + variable.names.levels[k];
    if (others.size() >= longest) others += " ...";
    remark(fit, name + " is a factor: " + others + " against " + variable.names.levels[0] + ".");
  }
}

void settlelevels(Fit& fit) {
  std::string lists[3];
  for (auto& named : fit.data.variables) {
    const std::string& name = named.first;
    auto& variable = named.second;
    variable.level = fit.units.levels - 1;
    const std::size_t n = variable.factor ? 1 : variable.columns.size();
    for (std::size_t k = 0; k < n; ++k) {
      const auto value = [&](std::size_t record) {
        return variable.factor ? static_cast<double>(variable.names.codes[record]) : (*variable.columns[k])[record];
      };
      variable.level = std::min(variable.level, levelof(printable(name), fit.units, value));
    }
    std::string& list = lists[variable.level];
    list += (list.empty() ? "" : ", ") + name;
  }
  const std::string units[] = {"records", fit.data.groupings[fit.inner].shown,
                               fit.outer ? fit.data.groupings[*fit.outer].shown : ""};
  for (int level = 0; level < fit.units.levels; ++level)
    if (!lists[level].empty())
      std::printf("Level %d (%s): %s\n", level + 1, printable(units[level]).c_str(), printable(lists[level]).c_str());
}

void checkvalues(Fit& fit) {
  const FitFamily family = familyof(fit.request);
  std::set<double> values;
  const std::vector<double>& y = *fit.outcome.values;
  for (const std::uint32_t record : fit.units.order) {
    const double value = y[record];
    if (values.size() <= 200) values.insert(value);
    if (family == FitFamily::binomial && !fit.counts && value != 0.0 && value != 1.0)
      refuseoutcome(fit,
                    formatted("A binomial outcome without trials is 0 or 1, or a factor of two levels. Record %u has "
                              "%.15g. See -trials, cbind(y, n - y) and factor().",
                              record + 1, value));
    if (family == FitFamily::poisson && (value < 0.0 || value != std::floor(value)))
      refuseoutcome(fit, formatted("Counts are whole numbers from 0 on. Record %u has %.15g.", record + 1, value));
    if (!fit.counts) continue;
    const double count = (*fit.counts->values)[record];
    if (!(count > 0.0))
      stopwith("%s must be above 0. Record %u has %.15g.\n", printable(fit.counts->name).c_str(), record + 1, count);
    if (family == FitFamily::binomial && (value < 0.0 || value > count))
      refuseoutcome(fit, formatted("Record %u has %.15g successes in %.15g trials.", record + 1, value, count));
  }
  if (values.size() < 2) refuseoutcome(fit, "The outcome has only one value in these records.");
  if (family == FitFamily::ordinal || family == FitFamily::multinomial) {
    fit.categories = static_cast<int>(values.size());
    constexpr std::size_t mostcategories = 100;
    if (values.size() > mostcategories) refuseoutcome(fit, "These are more than 100 categories.");
    if (values.size() < 3) refuseoutcome(fit, "Two categories are an outcome of -family binomial.");
  }
  for (const int level : {2, 3}) {
    const std::optional<Extra>& weights = fit.weights[level - 1];
    if (!weights) continue;
    const std::vector<std::size_t>& first = level == 2 ? fit.units.first2 : fit.units.first3;
    for (std::size_t unit = 0, i = 0; i < fit.units.order.size(); ++i) {
      if (unit + 1 < first.size() && i == first[unit + 1]) ++unit;
      if ((*weights->values)[fit.units.order[i]] != (*weights->values)[fit.units.order[first[unit]]])
        stopwith("-weights%d: %s varies within units of level %d.\n", level, printable(weights->name).c_str(), level);
    }
  }
}

// Columns that others give already go, as in lme4.
void dropredundant(Fit& fit) {
  const std::vector<bool> without = redundant(fit.fixed, fit.units.order);
  std::vector<ModelColumn> left;
  for (std::size_t j = 0; j < fit.fixed.size(); ++j) {
    if (without[j]) {
      const std::string words = fit.fixed[j].name + " is left out: other columns of the model give it already.";
      remark(fit, words);
      keepwarning(words, false);
    } else {
      left.push_back(fit.fixed[j]);
    }
  }
  if (left.empty()) refuseformula(fit.model.text, fit.model.root.operands[1].place, "The model has no fixed effect.");
  fit.fixed = std::move(left);
}

// The MDM file.

std::function<double(std::size_t)> valueof(const std::vector<ColumnPart>& parts) {
  if (parts.size() == 1) return [part = parts[0]](std::size_t record) { return part.at(record); };
  return [parts](std::size_t record) { return valueat(parts, record); };
}

// A name of up to 8 letters that still tells what the column is.
std::string shortof(const Piece& piece) {
  const auto letters = [](const std::string& text) {
    std::string left;
    for (const char c : text)
      if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' || static_cast<signed char>(c) < 0)
        left += c;
    return left;
  };
  const auto cut = [](const std::string& text, std::size_t bytes) {
    while (bytes > 0 && bytes < text.size() && (static_cast<unsigned char>(text[bytes]) & 0xC0U) == 0x80U) --bytes;
    return text.substr(0, bytes);
  };
  std::string name = piece.name;
  if (piece.parts.size() == 1 && piece.parts[0].variable->factor) {
    const Variable& variable = *piece.parts[0].variable;
    std::string of = letters(variable.name);
    if (of.starts_with("factor")) of.erase(0, std::string_view("factor").size());
    const std::string level = cut(letters(variable.names.levels[static_cast<std::size_t>(piece.parts[0].column)]), 4);
    name = cut(of, 8 - level.size()) + level;
  }
  name = letters(name);
  if (name.starts_with("I") && piece.name.starts_with("I(")) name.erase(0, 1);
  return name.empty() ? "X" : name;
}

// The columns of each level for the construction; the names that they have in the MDM file go into `lines`.
void servedesign(Fit& fit, EquationLines& lines) {
  std::vector<std::string> taken{"RANDOM"};
  std::vector<MadeColumn> made[3];
  const auto addextra = [&](const Extra& extra, int level) {
    const Name name = newname(shortof({extra.name, extra.name, {}}), taken);
    made[level].push_back(
        {name, extra.name, extra.label, {}, [values = extra.values](std::size_t record) { return (*values)[record]; }});
    return leftname(name);
  };
  lines.outcome = addextra(fit.outcome, 0);
  for (int level = 0; level < 3; ++level)
    for (const Piece& piece : fit.design.pieces[level]) {
      const Name name = newname(shortof(piece), taken);
      const std::string label = piece.parts.size() == 1 ? piece.parts[0].variable->label : "";
      made[level].push_back({name, piece.shown, label, {}, valueof(piece.parts)});
      lines.names[level].push_back(leftname(name));
      if (!sameword(leftname(name), piece.shown)) lines.legend.push_back(leftname(name) + " is " + piece.shown);
    }
  if (fit.counts) lines.counts = addextra(*fit.counts, 0);
  for (int level = 0; level < 3; ++level)
    if (fit.weights[level]) lines.weights[level] = addextra(*fit.weights[level], level);
  servecolumns(std::move(fit.units), made, true);
}

// The engine.

// The keyword lines of the outcome type and its engine.
void outcomelines(Fit& fit, EquationLines& lines) {
  const FitFamily family = familyof(fit.request);
  const std::string& engine = fit.request.engine;
  if (family == FitFamily::gaussian) {
    if (!engine.empty() || !fit.request.points.empty())
      stopwith("-engine and -points are for outcomes that are not normal; see -family.\n");
    lines.head = {"NONLIN:N", "NUMIT:500,N"};
    if (run.id.restricted) lines.head.emplace_back("LIKELIHOOD:REML");
    return;
  }
  const bool categorical = family == FitFamily::ordinal || family == FitFamily::multinomial;
  constexpr const char* engines[] = {"pql", "laplace", "laplace6", "quadrature"};
  if (!engine.empty() &&
      std::none_of(std::begin(engines), std::end(engines), [&](const char* word) { return sameword(engine, word); }))
    stopwith("-engine takes pql, laplace, laplace6 or quadrature. It cannot be %s\n", engine.c_str());
  const bool pql = sameword(engine, "pql"), laplace6 = sameword(engine, "laplace6");
  bool quadrature = !pql && !laplace6;
  if (!fit.request.points.empty() && !sameword(engine, "quadrature") && !engine.empty())
    stopwith("-points goes with -engine quadrature.\n");
  constexpr int mostpoints = 198;
  const int stated = wholeof(fit.request.points).value_or(0);
  if (!fit.request.points.empty() && !sameword(fit.request.points, "auto") && stated != 1 &&
      (stated < 3 || stated > mostpoints))
    stopwith("-points takes 1, 3 to 198, or auto. It cannot be %s\n", fit.request.points.c_str());
  std::string why;
  if (categorical) why = "outcomes with categories";
  if (categorical && (fit.weights[0] || fit.weights[1] || fit.weights[2])) why = "design weights of categories";
  if (lines.restricted()) why = "random parts that are independent in part only";
  if (!pql && !why.empty()) {
    if (!engine.empty()) stopwith("-engine %s cannot be had with %s.\n", engine.c_str(), why.c_str());
    remark(fit, "Estimates are those of quasi-likelihood (PQL): quadrature cannot be had with " + why + ".");
    quadrature = false;
  }
  if (laplace6 && (family != FitFamily::binomial || fit.counts))
    stopwith("-engine laplace6 is for outcomes of 0 and 1. See -engine laplace and quadrature.\n");
  if (laplace6 && (lines.diagonal(2) || lines.diagonal(3)))
    stopwith("-engine laplace6 cannot be had with random effects that are independent of each other.\n");
  std::string type = family == FitFamily::poisson       ? "POISSON"
                     : family == FitFamily::ordinal     ? "ORDINAL," + std::to_string(fit.categories)
                     : family == FitFamily::multinomial ? "MULTINOMIAL," + std::to_string(fit.categories)
                     : fit.counts                       ? "BINOMIAL"
                                                        : "BERNOULLI";
  if (fit.counts) type += "," + lines.counts;
  lines.head = {"NONLIN:" + type, "MACROIT:100,N", "MICROIT:100"};
  lines.categories = categorical ? fit.categories : 0;
  lines.multinomial = family == FitFamily::multinomial;
  if (!categorical) lines.head.emplace_back("FIXSIGMA2:1.0");
  if (laplace6) lines.head.emplace_back("LAPLACE:Y,50");
  if (!quadrature) return;
  constexpr std::size_t mosteffects = 4;
  std::string points = sameword(engine, "laplace") ? "1" : uppercase(fit.request.points);
  if (points.empty()) points = lines.effects(2) > mosteffects || lines.effects(3) > mosteffects ? "1" : "AUTO";
  lines.head.push_back("AGQ:Y,50," + points);
}

// The files.

constexpr const char* commandhead = "#Made by kdr3 -fit of ";

void checkcommandfile(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> old(std::fopen(path.c_str(), "rb"), std::fclose);
  if (old == nullptr) return;
  char head[std::string_view(commandhead).size()];
  const std::size_t got = std::fread(head, 1, sizeof head, old.get());
  if (std::string_view(head, got) != commandhead)
    stopwith(
        "The file %s is no command file that -fit made, and would be lost. Give another stem by -o, or rename it.\n",
        path.c_str());
}

void checkfiles(const FitRequest& request) {
  const std::string& stem = request.stem;
  std::vector<std::string> outputs;
  for (const char* extension : {".mdm", ".kdr", ".txt", ".json"}) outputs.push_back(stem + extension);
  if (!request.page.empty()) outputs.push_back(stem + ".html");
  for (const std::string& path : outputs)
    if (path.size() >= maxpath) stopwith("The path is too long: %s\n", path.c_str());
  for (const std::string& path : outputs)
    if (leadtoone(path, request.file))
      stopwith("%s would take the place of the data. Give another stem by -o.\n", path.c_str());
  refuseclashes({request.file}, outputs);
  refuseinput(outputs[0], InputKind::mdmfile);
  for (std::size_t i = 2; i < outputs.size(); ++i) refuseinput(outputs[i]);
  for (const std::string& path : outputs) refuseunwritable(path);
  checkcommandfile(outputs[1]);
}

// The keyword of a line "NAME:value" in capitals.
std::string wordof(const std::string& line) { return uppercase(line.substr(0, line.find(':'))); }

void checkkeywords(const FitRequest& request) {
  for (const std::string& line : request.keywords) {
    const std::string word = wordof(line);
    if (line.find(':') == std::string::npos || word.empty())
      stopwith("-keyword takes NAME:value. It cannot be %s\n", printable(line).c_str());
    if (word == "LIKELIHOOD" && run.id.restricted) stopwith("-keyword LIKELIHOOD: -reml says that already.\n");
    for (const char* own : {"LEVEL1", "LEVEL2", "LEVEL3", "NONLIN", "OUTPUT", "RESULTS"})
      if (word == own) stopwith("-keyword %s: the formula and -fit say that already.\n", own);
  }
}

void writecommands(const Fit& fit, const EquationLines& lines) {
  std::vector<std::string> text{commandhead + printable(fit.request.file)};
  std::string formula = printable(fit.model.text);
  text.push_back("#" + formula);
  for (const std::string& words : lines.legend) text.push_back("#" + printable(words));
  for (const std::string& words : fit.remarks) text.push_back("#" + printable(words));
  const std::vector<std::string>& settings = lines.head;
  const std::vector<std::string> model = equationlines(lines);
  std::vector<std::string> rest = {"RESFIL1:N", "RESFIL2:N",  "RESFIL3:N",    "CONSTRAIN:N",
                                   "HYPOTH:N",  "LVR-BETA:N", "FULLOUTPUT:N", "TITLE:" + titlefrom(formula)};
  if (lines.twolevel)
    std::erase_if(rest, [](const std::string& line) { return line == "RESFIL3:N" || line == "LVR-BETA:N"; });
  rest.push_back("OUTPUT:" + fit.request.stem + ".txt");
  rest.push_back("RESULTS:" + fit.request.stem + ".json");
  std::set<std::string> given;
  for (const std::string& line : fit.request.keywords) given.insert(wordof(line));
  for (const std::vector<std::string>* part :
       std::initializer_list<const std::vector<std::string>*>{&settings, &model, &rest})
    for (const std::string& line : *part)
      if (!given.contains(wordof(line))) text.push_back(line);
  text.insert(text.end(), fit.request.keywords.begin(), fit.request.keywords.end());
  for (const std::string& line : text)
    if (line.size() >= maxline - 1)
      stopwith("A line of the command file would be longer than %d characters: the model has too many effects.\n",
               maxline - 1);
  ResultFile file;
  opentext(file, fit.request.stem + ".kdr");
  for (const std::string& line : text) std::fprintf(file.stream, "%s\n", line.c_str());
  finishresult(file);
}

void defaultstem(FitRequest& request) {
  if (!request.stem.empty()) return;
  const std::size_t base = request.file.rfind('/') + 1;
  request.stem = request.file.substr(base, request.file.rfind('.') - base);
}

EquationLines linesof(const Fit& fit) {
  EquationLines lines;
  lines.design = &fit.design;
  lines.twolevel = !fit.outer;
  return lines;
}

std::vector<FitNames> effectnames(const Design& design, const EquationLines& lines) {
  std::vector<FitNames> names;
  const auto nameof = [&](int level, int piece) {
    return piece == interceptpiece ? "INTRCPT" + std::to_string(level)
                                   : lines.names[level - 1][static_cast<std::size_t>(piece)];
  };
  for (const FixedEffect& effect : design.fixed)
    names.push_back({effect.name, nameof(1, effect.of.piece1), nameof(2, effect.of.piece2), nameof(3, effect.piece3)});
  return names;
}

// What goes into the files.
EquationLines plan(FitRequest request, Fit& fit) {
  defaultstem(request);
  fit.request = std::move(request);
  readformula(fit.request.formula, fit.model);
  checkfunctions(fit.model.text, fit.model.root);
  static_cast<void>(familyof(fit.request));
  checkkeywords(fit.request);
  checkfiles(fit.request);
  readcolumns(fit);
  settlegroupings(fit);
  takeoutcome(fit);
  takeextras(fit);
  for (const Expression* e : fit.model.fixed.variables) static_cast<void>(variableof(fit.data, *e));
  for (const RandomPart& part : fit.model.randoms)
    for (const Expression* e : part.terms.variables) static_cast<void>(variableof(fit.data, *e));
  if (fit.data.variables.contains(fit.outcome.name))
    refuseformula(fit.model.text, fit.data.variables.at(fit.outcome.name).place, "The outcome cannot be a term.");
  const std::vector<char> kept = completerecords(fit);
  dropemptylevels(fit, kept);
  makeunits(fit);
  sortunits(fit.units, kept);
  tellfactors(fit);
  checkvalues(fit);
  settlelevels(fit);
  fit.fixed = modelmatrix(fit.data, fit.model.fixed);
  dropredundant(fit);
  fit.design = designof(fit.data, fit.model, fit.fixed, fit.inner, fit.outer);
  for (Grouping& grouping : fit.data.groupings) grouping.units = {};

  EquationLines lines = linesof(fit);
  servedesign(fit, lines);
  outcomelines(fit, lines);
  return lines;
}

}  // namespace

void checkfit(FitRequest request) {
  Fit fit;
  static_cast<void>(plan(std::move(request), fit));
}

PreparedFit preparefit(FitRequest request) {
  Fit fit;
  const EquationLines lines = plan(std::move(request), fit);
  run.mdm.mdmtype = lines.twolevel ? MdmType::twolevel : MdmType::ordinary;
  run.mdm.deletednow = false;
  run.mdm.l1missing = false;
  run.files.mdmfile = fit.request.stem + ".mdm";
  raw.silent = true;
  for (int level : {1, 2}) raw.level[level].filename = raw.level[0].filename;
  mkmdm();
  forgetcolumns();
  forgetraw();
  run.mdm = MdmData{};
  writecommands(fit, lines);
  run.files.cmdshown = run.files.cmdfile = fit.request.stem + ".kdr";
  PreparedFit prepared;
  prepared.fixed = effectnames(fit.design, lines);
  for (int level = 0; level < 3; ++level)
    for (std::size_t i = 0; i < lines.names[level].size(); ++i)
      prepared.names[lines.names[level][i]] = fit.design.pieces[level][i].name;
  prepared.grouping2 = fit.data.groupings[fit.inner].shown;
  if (fit.outer) prepared.grouping3 = fit.data.groupings[*fit.outer].shown;
  prepared.request = std::move(fit.request);
  return prepared;
}

}  // namespace kdr
