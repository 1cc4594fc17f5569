#include "formula/plan.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <unordered_map>
#include <utility>

#include "core/evaluationcost.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "core/words.h"

namespace kdr {

namespace {

// Columns of the table.

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

std::string columnwords(const std::vector<std::string>& names, const std::string& name) {
  constexpr std::size_t longest = 100, most = 12;
  std::string near, all;
  std::size_t count = 0;
  for (const std::string& other : names) {
    if (other.empty()) continue;
    if (count++ < most) all += (all.empty() ? "" : ", ") + other;
    if (name.size() < longest && other.size() < longest &&
        3 * distance(uppercase(name), uppercase(other)) <= name.size())
      near += (near.empty() ? "" : " or ") + other;
  }
  if (!near.empty()) return " Is " + near + " meant?";
  return " The columns are " + all + (count > most ? " ..." : "") + ".";
}

constexpr int nocolumn = -1, severalcolumns = -2;

// The row of the column that a name tells; below 0 where there is none, or several.
int columnrow(const std::vector<std::string>& names, const std::string& name) {
  int exact = nocolumn, alike = nocolumn;
  for (std::size_t row = 0; row < names.size(); ++row) {
    if (names[row] == name) exact = exact == nocolumn ? static_cast<int>(row) : severalcolumns;
    if (sameword(names[row], name)) alike = alike == nocolumn ? static_cast<int>(row) : severalcolumns;
  }
  return exact == nocolumn ? alike : exact;
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

// Which grouping is level 2, and which level 3. Where one holds the columns of the other it is the inner one; else the
// data tell. One grouping makes a model of two levels.
void settlegroupings(FormulaPlan& plan) {
  findgroupings(plan.data, plan.model);
  const std::vector<Grouping>& groupings = plan.data.groupings;
  const std::string& text = plan.model.text;
  constexpr const char* wanted =
      "A model has one grouping, as in (1 | school), or two, one within the other, as in (1 | school/pupil).";
  if (groupings.empty())
    refuseformula(text, plan.model.root.operands[1].place, std::string("There is no random part. ") + wanted);
  if (groupings.size() == 1) {
    if (!plan.options.weights[2].empty())
      refuse(formatted("-weights3: %s is the only grouping, which is level 2. See -weights2.",
                       printable(groupings[0].shown).c_str()));
    plan.units.levels = 2;
    return;
  }
  if (groupings.size() > 2)
    refuseformula(text, groupings[2].place, std::string("These are more than two groupings. ") + wanted);
  const auto first = acrossunits(groupings[0], groupings[1]), second = acrossunits(groupings[1], groupings[0]);
  if (first && second) {
    const auto [one, other] = *second;
    refuseformula(text, groupings[1].place,
                  "The groupings are crossed, which cannot be fitted: " + groupings[1].shown + " " +
                      unitshown(plan.data, groupings[1].names, one) + " lies in " + groupings[0].shown + " " +
                      unitshown(plan.data, groupings[0].names, one) + " and in " +
                      unitshown(plan.data, groupings[0].names, other) +
                      ". If its numbers begin anew in each, write (1 | " + groupings[0].shown + "/" +
                      groupings[1].shown + ").");
  }
  if (!first && !second)
    refuseformula(text, groupings[1].place,
                  "The units of " + groupings[0].shown + " and of " + groupings[1].shown + " are the same.");
  plan.outer = second ? 1 : 0;  // a unit of grouping 1 lies in several of grouping 0
  plan.inner = second ? 0 : 1;
}

// The outcome, and what stands beside it.

std::shared_ptr<std::vector<double>> shared(std::vector<double> values) {
  return std::make_shared<std::vector<double>>(std::move(values));
}

[[noreturn]] void refuseoutcome(const FormulaPlan& plan, const std::string& words) {
  refuseformula(plan.model.text, plan.model.outcome->place, words);
}

// The outcome as a column of names, or nothing when it is one of numbers.
std::optional<Factor> outcomenames(const FormulaPlan& plan, const Expression& e) {
  if (iscall(e, "factor")) {
    if (e.operands.size() > 1 || bare(e.operands[0]).part != Part::name)
      refuseoutcome(plan, "An outcome can be factor(y), without more.");
    return factorof(plan.data.column(bare(e.operands[0]).word), {});
  }
  if (e.part != Part::name || !holdsnames(plan.data.column(e.word))) return std::nullopt;
  const LongColumn& column = plan.data.column(e.word);
  if (const std::string words = strayrefusal(column); !words.empty()) refuseoutcome(plan, words);
  return factorof(column, {});
}

std::vector<double> codesof(const Factor& factor, double first) {
  std::vector<double> values;
  values.reserve(factor.codes.size());
  for (const int code : factor.codes) values.push_back(code < 0 ? missingcode : first + code);
  return values;
}

// The names of a factor as what its codes stand for.
ValueLabels labelsof(const Factor& factor, double first) {
  ValueLabels labels;
  for (const std::string& level : factor.levels) labels.emplace_back(first + static_cast<double>(labels.size()), level);
  return labels;
}

// An outcome of two names is 0 and 1.
void takebinary(FormulaPlan& plan, const Factor& names) {
  if (names.levels.size() != 2)
    refuseoutcome(plan, formatted("A binomial outcome has two values. This one has %zu.", names.levels.size()));
  plan.outcome.values = shared(codesof(names, 0.0));
  plan.outcome.labels = labelsof(names, 0.0);
  plan.listener.remark("The event of " + plan.outcome.name + " is " + names.levels[1] + ".");
}

void takecbind(FormulaPlan& plan, const Expression& e) {
  std::vector<double> successes = valuesof(plan.data, e.operands[0]);
  std::vector<double> trials = valuesof(plan.data, e.operands[1]);
  for (std::size_t i = 0; i < trials.size(); ++i) {
    if (successes[i] == missingcode || trials[i] == missingcode) {
      trials[i] = missingcode;
      continue;
    }
    if (successes[i] < 0.0 || trials[i] < 0.0)
      refuseoutcome(plan, formatted("Successes and failures cannot be below 0, as in record %zu.", i + 1));
    trials[i] += successes[i];
  }
  plan.outcome.name = deparsed(e.operands[0]);
  plan.outcome.values = shared(std::move(successes));
  plan.counts = Extra{"trials of " + plan.outcome.name, "", shared(std::move(trials))};
}

void takeoutcome(FormulaPlan& plan) {
  const Expression& e = bare(*plan.model.outcome);
  const FitFamily family = plan.family;
  if (e.part == Part::number || e.part == Part::text) refuseoutcome(plan, "The outcome is a column of the file.");
  plan.outcome.name = deparsed(e);
  if (iscall(e, "cbind")) {
    if (family != FitFamily::binomial) refuseoutcome(plan, "cbind(y, n - y) goes with -family binomial.");
    if (!plan.options.trials.empty()) refuseoutcome(plan, "cbind() tells the trials: without -trials.");
    return takecbind(plan, e);
  }
  if (iscall(e, "poly")) refuseoutcome(plan, "The outcome is one column.");
  const std::optional<Factor> names = outcomenames(plan, e);
  if (e.part == Part::name) {
    const LongColumn& column = plan.data.column(e.word);
    plan.outcome.label = column.label;
    plan.outcome.labels = column.labels;
  }
  const bool bycodes = names && e.part == Part::name && !plan.data.column(e.word).text;  // numbers with labels
  switch (family) {
    case FitFamily::gaussian:
    case FitFamily::poisson:
      if (names && !bycodes)
        refuseoutcome(plan, "This outcome is one of numbers, but " + plan.outcome.name +
                                " holds texts. See -family binomial, ordinal, multinomial.");
      plan.outcome.values = shared(valuesof(plan.data, e));
      break;
    case FitFamily::binomial:
      if (names && plan.options.trials.empty()) return takebinary(plan, *names);
      if (names && !bycodes) refuseoutcome(plan, "With -trials the outcome is a number of successes.");
      plan.outcome.values = shared(valuesof(plan.data, e));
      break;
    case FitFamily::ordinal:
    case FitFamily::multinomial:
      plan.outcome.values = shared(names && !bycodes ? codesof(*names, 1.0) : valuesof(plan.data, e));
      if (names && !bycodes) plan.outcome.labels = labelsof(*names, 1.0);
      for (const auto& [value, label] : plan.outcome.labels)
        plan.listener.remark(plan.outcome.name + formatted(" %.15g is ", value) + label + ".");
      break;
  }
}

// The sum of two columns, missing where one is.
void addvalues(std::vector<double>& sum, const std::vector<double>& values) {
  for (std::size_t i = 0; i < sum.size(); ++i)
    sum[i] = sum[i] == missingcode || values[i] == missingcode ? missingcode : sum[i] + values[i];
}

// An offset of a normal outcome comes off it: y - o = Xb + e has the likelihood of y = o + Xb + e.
void takefromoutcome(FormulaPlan& plan, Extra offset) {
  std::vector<double> values = *plan.outcome.values, less = *offset.values;
  for (double& value : less) value = value == missingcode ? value : -value;
  addvalues(values, less);
  plan.listener.remark("The outcome is " + plan.outcome.name + " less its offset, " + offset.name + ".");
  plan.outcome.name += " less " + offset.name;
  plan.outcome.labels.clear();  // of values that it no longer has
  plan.outcome.values = shared(std::move(values));
  plan.offset = std::move(offset);
}

// An offset of counts is the logarithm of their exposure.
void takeexposure(FormulaPlan& plan, const Extra& offset) {
  std::vector<double> values = *offset.values;
  for (double& value : values)
    if (value != missingcode) value = std::exp(value);
  plan.counts = Extra{"exp(" + offset.name + ")", "", shared(std::move(values))};
}

// Offsets add up: those of the formula, and the column of the options.
void takeoffset(FormulaPlan& plan) {
  const auto& offsets = plan.model.offsets;
  const std::string& text = plan.model.text;
  if (offsets.empty() && plan.options.offset.empty()) return;
  const Expression* first = offsets.empty() ? nullptr : &bare(offsets[0]->operands[0]);
  if (plan.family != FitFamily::gaussian && plan.family != FitFamily::poisson) {
    constexpr const char* words = "Only outcomes that are normal or counts (poisson) have an offset.";
    if (first == nullptr) refuse(words);
    refuseformula(text, offsets[0]->place, words);
  }
  if (!plan.options.exposure.empty()) {
    constexpr const char* words = "The offset and -exposure say it twice.";
    if (first == nullptr) refuse(words);
    refuseformula(text, offsets[0]->place, words);
  }
  if (plan.family == FitFamily::poisson && offsets.size() == 1 && plan.options.offset.empty() &&
      iscall(*first, "log")) {
    plan.counts = Extra{deparsed(first->operands[0]), "", shared(valuesof(plan.data, first->operands[0]))};
    return;
  }
  Extra sum{"", "", shared(std::vector<double>(plan.data.nrecords, 0.0))};
  const auto add = [&](const std::string& name, const std::vector<double>& values) {
    sum.name += (sum.name.empty() ? "" : " + ") + name;
    addvalues(*sum.values, values);
  };
  for (const Expression* e : offsets) add(deparsed(e->operands[0]), valuesof(plan.data, e->operands[0]));
  if (!plan.options.offset.empty()) add(plan.options.offset, plan.data.column(plan.options.offset).numbers);
  if (plan.family == FitFamily::poisson) return takeexposure(plan, sum);
  takefromoutcome(plan, std::move(sum));
}

void takeextras(FormulaPlan& plan) {
  const FitFamily family = plan.family;
  const auto column = [&](const std::string& name) {
    const LongColumn& from = plan.data.column(name);
    return Extra{from.name, from.label, shared(from.numbers)};
  };
  if (!plan.options.trials.empty() && family != FitFamily::binomial) refuse("-trials goes with -family binomial.");
  if (!plan.options.exposure.empty() && family != FitFamily::poisson) refuse("-exposure goes with -family poisson.");
  if (!plan.options.trials.empty()) plan.counts = column(plan.options.trials);
  if (!plan.options.exposure.empty()) plan.counts = column(plan.options.exposure);
  takeoffset(plan);
  for (int level = 0; level < 3; ++level)
    if (!plan.options.weights[level].empty()) plan.weights[level] = column(plan.options.weights[level]);
}

// The records.

// Leaves out each record in which something of the model is missing, as `na.omit` does, and says how many and why.
std::vector<char> completerecords(FormulaPlan& plan) {
  const FormulaData& data = plan.data;
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
    plan.listener.remark(formatted("%s is missing in %zu records.", name.c_str(), count));
    reasons += (reasons.empty() ? ": " : ", ") + name + formatted(" is missing in %zu", count);
  };
  const auto dropextra = [&](const Extra& extra) {
    drop(extra.name, [&](std::size_t i) { return (*extra.values)[i] == missingcode; });
  };
  dropextra(plan.outcome);
  if (plan.counts) dropextra(*plan.counts);
  for (const std::optional<Extra>& weights : plan.weights)
    if (weights) dropextra(*weights);
  for (const auto& named : data.variables) drop(named.first, [&](std::size_t i) { return named.second.missing(i); });
  for (const Grouping& grouping : data.groupings)
    drop(grouping.shown, [&](std::size_t i) { return grouping.units[i] < 0; });
  const auto left = std::count(kept.begin(), kept.end(), 1);
  if (left == 0) refuse(formatted("No record of %s has all that the model needs.", plan.options.source.c_str()));
  if (!reasons.empty()) {
    const std::size_t out = data.nrecords - static_cast<std::size_t>(left);
    plan.listener.remark(formatted("%zu of %zu records are left out, %td remain.", out, data.nrecords, left));
    plan.listener.warning(formatted("%zu of %zu records of %s are left out, %td remain", out, data.nrecords,
                                    plan.options.source.c_str(), left) +
                          reasons + ".");
  }
  return kept;
}

// Of one unit alone nothing tells how units differ.
void warnofsingleunits(FormulaPlan& plan, const std::vector<char>& kept) {
  const auto first = static_cast<std::size_t>(std::find(kept.begin(), kept.end(), 1) - kept.begin());
  for (const Grouping& grouping : plan.data.groupings) {
    bool alone = true;
    for (std::size_t i = first; alone && i < kept.size(); ++i)
      alone = kept[i] == 0 || grouping.units[i] == grouping.units[first];
    if (alone)
      plan.listener.warning(formatted("All records are of one unit of %s: nothing tells the variance between units.",
                                      grouping.shown.c_str()));
  }
}

// Levels that no record is left of go, as in lme4.
void dropemptylevels(FormulaPlan& plan, const std::vector<char>& kept) {
  for (auto& [name, variable] : plan.data.variables) {
    if (!variable.factor) continue;
    Factor& factor = variable.names;
    std::vector<int> place(factor.levels.size(), -1);
    for (std::size_t i = 0; i < kept.size(); ++i)
      if (kept[i] != 0) place[static_cast<std::size_t>(factor.codes[i])] = 0;
    std::vector<std::string> levels;
    for (std::size_t k = 0; k < place.size(); ++k) {
      if (place[k] < 0) {
        plan.listener.remark(name + ": no record has the level " + factor.levels[k] + ", which is left out.");
        continue;
      }
      place[k] = static_cast<int>(levels.size());
      levels.push_back(factor.levels[k]);
    }
    factor.levels = std::move(levels);
    for (int& code : factor.codes) code = code < 0 ? -1 : place[static_cast<std::size_t>(code)];
    if (factor.levels.size() < 2)
      refuseformula(plan.model.text, variable.place,
                    name + " has only one value in these records" +
                        (factor.levels.empty() ? "." : ", " + factor.levels[0] + "."));
  }
}

void tellfactors(FormulaPlan& plan) {
  constexpr std::size_t longest = 300;
  for (const auto& [name, variable] : plan.data.variables) {
    if (!variable.factor || variable.indicator) continue;
    std::string others;
    for (std::size_t k = 1; k < variable.names.levels.size() && others.size() < longest; ++k)
      others += (k == 1 ? "" : ", ") + variable.names.levels[k];
    if (others.size() >= longest) others += " ...";
    plan.listener.remark(name + " is a factor: " + others + " against " + variable.names.levels[0] + ".");
  }
}

void settlelevels(FormulaPlan& plan) {
  std::string lists[3];
  for (auto& named : plan.data.variables) {
    const std::string& name = named.first;
    auto& variable = named.second;
    variable.level = plan.units.levels - 1;
    const std::size_t n = variable.factor ? 1 : variable.columns.size();
    for (std::size_t k = 0; k < n; ++k) {
      const auto value = [&](std::size_t record) {
        return variable.factor ? static_cast<double>(variable.names.codes[record]) : (*variable.columns[k])[record];
      };
      variable.level = std::min(variable.level, levelof(printable(name), plan.units, value, plan.listener.remark));
    }
    std::string& list = lists[variable.level];
    list += (list.empty() ? "" : ", ") + name;
  }
  const std::string units[] = {"records", plan.data.groupings[plan.inner].shown,
                               plan.outer ? plan.data.groupings[*plan.outer].shown : ""};
  for (int level = 0; level < plan.units.levels; ++level)
    if (!lists[level].empty())
      plan.listener.level(
          formatted("Level %d (%s): %s", level + 1, printable(units[level]).c_str(), printable(lists[level]).c_str()));
}

void checkvalues(FormulaPlan& plan) {
  const FitFamily family = plan.family;
  std::set<double> values;
  const std::vector<double>& y = *plan.outcome.values;
  for (const std::uint32_t record : plan.units.order) {
    const double value = y[record];
    if (values.size() <= 200) values.insert(value);
    if (family == FitFamily::binomial && !plan.counts && value != 0.0 && value != 1.0)
      refuseoutcome(plan,
                    formatted("A binomial outcome without trials is 0 or 1, or a factor of two levels. Record %u has "
                              "%.15g. See -trials, cbind(y, n - y) and factor().",
                              record + 1, value));
    if (family == FitFamily::poisson && (value < 0.0 || value != std::floor(value)))
      refuseoutcome(plan, formatted("Counts are whole numbers from 0 on. Record %u has %.15g.", record + 1, value));
    if (!plan.counts) continue;
    const double count = (*plan.counts->values)[record];
    if (!(count > 0.0))
      refuse(formatted("%s must be above 0. Record %u has %.15g.", printable(plan.counts->name).c_str(), record + 1,
                       count));
    if (family == FitFamily::binomial && (value < 0.0 || value > count))
      refuseoutcome(plan, formatted("Record %u has %.15g successes in %.15g trials.", record + 1, value, count));
  }
  if (values.size() < 2) refuseoutcome(plan, "The outcome has only one value in these records.");
  if (family == FitFamily::ordinal || family == FitFamily::multinomial) {
    plan.categories = static_cast<int>(values.size());
    constexpr std::size_t mostcategories = 100;
    if (values.size() > mostcategories) refuseoutcome(plan, "These are more than 100 categories.");
    if (values.size() < 3) refuseoutcome(plan, "Two categories are an outcome of -family binomial.");
  }
  for (const int level : {2, 3}) {
    const std::optional<Extra>& weights = plan.weights[level - 1];
    if (!weights) continue;
    const std::vector<std::size_t>& first = level == 2 ? plan.units.first2 : plan.units.first3;
    for (std::size_t unit = 0, i = 0; i < plan.units.order.size(); ++i) {
      if (unit + 1 < first.size() && i == first[unit + 1]) ++unit;
      if ((*weights->values)[plan.units.order[i]] != (*weights->values)[plan.units.order[first[unit]]])
        refuse(formatted("-weights%d: %s varies within units of level %d.", level, printable(weights->name).c_str(),
                         level));
    }
  }
}

// Columns that others give already go, as in lme4.
void dropredundant(FormulaPlan& plan) {
  const std::vector<bool> without = redundant(plan.fixed, plan.units.order);
  std::vector<ModelColumn> left;
  for (std::size_t j = 0; j < plan.fixed.size(); ++j) {
    if (without[j]) {
      const std::string words = plan.fixed[j].name + " is left out: other columns of the model give it already.";
      plan.listener.remark(words);
      plan.listener.warning(words);
    } else {
      left.push_back(plan.fixed[j]);
    }
  }
  if (left.empty()) refuseformula(plan.model.text, plan.model.root.operands[1].place, "The model has no fixed effect.");
  plan.fixed = std::move(left);
}

}  // namespace

std::optional<FitFamily> familynamed(const std::string& word) {
  constexpr const char* words[] = {"gaussian", "binomial", "poisson", "ordinal", "multinomial"};
  if (word.empty()) return FitFamily::gaussian;
  for (int i = 0; i < 5; ++i)
    if (sameword(word, words[i])) return static_cast<FitFamily>(i);
  return std::nullopt;
}

void readplan(FormulaPlan& plan) {
  readformula(plan.options.formula, plan.model);
  checkfunctions(plan.model.text, plan.model.root);
  const std::optional<FitFamily> family = familynamed(plan.options.family);
  if (!family)
    refuse("-family takes gaussian, binomial, poisson, ordinal or multinomial. It cannot be " + plan.options.family);
  plan.family = *family;
}

WantedColumns wantedcolumns(FormulaPlan& plan, const std::vector<std::string>& names, const std::vector<bool>& texts) {
  const FormulaOptions& given = plan.options;
  WantedColumns wanted;
  const auto add = [&](const std::string& name, int row) {
    const auto found = std::find(wanted.rows.begin(), wanted.rows.end(), row);
    plan.data.places[name] = static_cast<std::size_t>(found - wanted.rows.begin());
    if (found == wanted.rows.end()) wanted.rows.push_back(row);
  };
  std::vector<NamedPlace> named;
  columnnames(plan.model.root, named);
  for (const NamedPlace& name : named) {
    if (name.name == "." && columnrow(names, ".") < 0)
      refuseformula(plan.model.text, name.place, "The point for all other columns is not known here: name them.");
    const int row = columnrow(names, name.name);
    if (row == severalcolumns)
      refuseformula(plan.model.text, name.place, given.subject + " has several columns of this name.");
    if (row == nocolumn)
      refuseformula(plan.model.text, name.place,
                    given.subject + " has no column " + name.name + "." + columnwords(names, name.name));
    add(name.name, row);
  }
  const std::pair<const char*, const std::string*> options[] = {
      {"-trials", &given.trials},       {"-exposure", &given.exposure},   {"-weights1", &given.weights[0]},
      {"-weights2", &given.weights[1]}, {"-weights3", &given.weights[2]}, {"-offset", &given.offset}};
  for (const auto& [option, name] : options) {
    if (name->empty()) continue;
    const int row = columnrow(names, *name);
    if (row < 0)
      refuse(formatted("%s: %s has %s column %s.%s", option, given.source.c_str(),
                       row == nocolumn ? "no" : "more than one", printable(*name).c_str(),
                       printable(columnwords(names, *name)).c_str()));
    if (texts[static_cast<std::size_t>(row)])
      refuse(formatted("%s: the column %s holds texts.", option, printable(*name).c_str()));
    add(*name, row);
  }
  plan.data.formula = plan.model.text;
  for (const RandomPart& part : plan.model.randoms)
    for (const std::string& name : part.group) wanted.ids.push_back(columnrow(names, name));
  return wanted;
}

std::vector<char> evaluateplan(FormulaPlan& plan) {
  settlegroupings(plan);
  takeoutcome(plan);
  takeextras(plan);
  for (const Expression* e : plan.model.fixed.variables) static_cast<void>(variableof(plan.data, *e));
  for (const RandomPart& part : plan.model.randoms)
    for (const Expression* e : part.terms.variables) static_cast<void>(variableof(plan.data, *e));
  if (plan.data.variables.contains(plan.outcome.name))
    refuseformula(plan.model.text, plan.data.variables.at(plan.outcome.name).place, "The outcome cannot be a term.");
  std::vector<char> kept = completerecords(plan);
  warnofsingleunits(plan, kept);
  dropemptylevels(plan, kept);
  return kept;
}

void designplan(FormulaPlan& plan, const std::vector<char>& kept) {
  sortunits(plan.units, kept);
  plan.records = plan.units.order.size();
  tellfactors(plan);
  checkvalues(plan);
  settlelevels(plan);
  plan.fixed = modelmatrix(plan.data, plan.model.fixed);
  dropredundant(plan);
  plan.design = designof(plan.data, plan.model, plan.fixed, plan.inner, plan.outer);
  for (Grouping& grouping : plan.data.groupings) grouping.units = {};
}

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

std::vector<std::string> owncolumns(const FormulaPlan& plan) {
  std::vector<std::string> own = plan.data.groupings[plan.inner].names;
  if (plan.outer)
    std::erase_if(own, [&outer = plan.data.groupings[*plan.outer].names](const std::string& name) {
      return std::find(outer.begin(), outer.end(), name) != outer.end();
    });
  return own;
}

namespace {

// Why quadrature is not for who has not stated points; empty: it is. `asked`: for quadrature as such.
std::string toocostly(const FormulaPlan& plan, bool asked) {
  constexpr std::size_t mosteffects = 4;  // of a level
  constexpr double longest = 30.0, mostnodes = 1.0e6;
  const Design& design = plan.design;
  const bool multinomial = plan.family == FitFamily::multinomial;
  const std::size_t sets = multinomial ? static_cast<std::size_t>(plan.categories) - 1 : 1;
  if (sets * std::max(design.effects(2), design.effects(3)) > mosteffects)
    return formatted("there are more than %zu random effects of a level", mosteffects);
  const int effects = static_cast<int>(sets * (design.effects(2) + design.effects(3)));
  const int points = std::pow(7, effects) <= mostnodes ? 7 : 5;  // of the first numbers of points, that are compared
  const double records = static_cast<double>(plan.records) * (plan.family == FitFamily::ordinal ? 2.0 : 1.0);
  const double seconds = evaluationseconds(points, effects, records, static_cast<int>(sets),
                                           static_cast<int>(sets * design.tree().size()));
  if (asked || seconds < longest) return "";
  return formatted(
      "an evaluation of the likelihood with %d points for each of %d random effects would take %s of one core", points,
      effects, durationwords(seconds).c_str());
}

}  // namespace

EngineChoice enginechoice(const FormulaPlan& plan) {
  const std::string &engine = plan.options.engine, &points = plan.options.points;
  EngineChoice choice;
  if (plan.family == FitFamily::gaussian) {
    if (!engine.empty() || !points.empty())
      refuse("-engine and -points are for outcomes that are not normal; see -family.");
    return choice;
  }
  constexpr const char* engines[] = {"pql", "laplace", "laplace6", "quadrature"};
  if (!engine.empty() &&
      std::none_of(std::begin(engines), std::end(engines), [&](const char* word) { return sameword(engine, word); }))
    refuse("-engine takes pql, laplace, laplace6 or quadrature. It cannot be " + engine);
  const bool pql = sameword(engine, "pql");
  choice.laplace6 = sameword(engine, "laplace6");
  choice.quadrature = !pql && !choice.laplace6;
  if (!points.empty() && !sameword(engine, "quadrature") && !engine.empty())
    refuse("-points goes with -engine quadrature.");
  constexpr int mostpoints = 198;
  const int stated = wholeof(points).value_or(0);
  if (!points.empty() && !sameword(points, "auto") && stated != 1 && (stated < 3 || stated > mostpoints))
    refuse("-points takes 1, 3 to 198, or auto. It cannot be " + points);
  const Design& design = plan.design;
  std::string why;
  if (design.restricted()) why = "random parts that are independent in part only";
  if (!pql && !why.empty()) {
    if (!engine.empty()) refuse("-engine " + engine + " cannot be had with " + why + ".");
    const std::string words =
        "Estimates are those of quasi-likelihood (PQL): quadrature cannot be had with " + why + ".";
    plan.listener.remark(words);
    plan.listener.warning(words);
    choice.quadrature = false;
  }
  if (choice.laplace6 && (plan.family != FitFamily::binomial || plan.counts))
    refuse("-engine laplace6 is for outcomes of 0 and 1. See -engine laplace and quadrature.");
  if (choice.laplace6 && (design.diagonal(2) || design.diagonal(3)))
    refuse("-engine laplace6 cannot be had with random effects that are independent of each other.");
  choice.points = sameword(engine, "laplace") ? 1 : stated;
  if (!choice.quadrature || choice.points == 1 || !points.empty()) return choice;
  const std::string costly = toocostly(plan, !engine.empty());
  if (costly.empty()) return choice;
  const std::string words = "Estimates are those of the Laplace approximation (one point), since " + costly +
                            ". See -points for quadrature all the same.";
  plan.listener.remark(words);
  plan.listener.warning(words);
  choice.points = 1;
  return choice;
}

}  // namespace kdr
