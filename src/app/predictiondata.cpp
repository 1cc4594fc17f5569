#include "app/predictiondata.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "command/formula/fit.h"
#include "construct/levelsource.h"
#include "construct/longfile.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "core/words.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "formula/newrecords.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

std::vector<LongColumn> columns;  // of the file of -predict
std::vector<double> codes;        // of missing values

// The column of that name, with its case or else without; null: none, or several.
const LongColumn* columnnamed(const std::string& name) {
  const LongColumn* alike = nullptr;
  int count = 0;
  for (const LongColumn& column : columns) {
    if (column.name == name) return &column;
    if (!sameword(column.name, name)) continue;
    alike = &column;
    ++count;
  }
  return count == 1 ? alike : nullptr;
}

[[noreturn]] void lackscolumn(const std::string& name) {
  stopwith("-predict: %s has no column %s, which the model needs.\n", printable(run.files.predict).c_str(),
           printable(name).c_str());
}

// The place of a record's unit among those of the data, -1: it is not there.
struct UnitPlaces {
  std::map<std::string, long long> exact, folded;

  void add(const std::string& id, long long place) {
    exact.emplace(id, place);
    folded.emplace(uppercase(id), place);
  }
  [[nodiscard]] long long find(const std::string& id) const {
    if (const auto found = exact.find(id); found != exact.end()) return found->second;
    const auto found = folded.find(uppercase(id));
    return found == folded.end() ? -1 : found->second;
  }
};
constexpr char between = '\x1f';  // IDs of two levels

}  // namespace

std::vector<long long> unitplaces(const DataUnits& units, const PredictionTable& table, int level) {
  UnitPlaces known;
  const bool two = run.mdm.twolevel();
  if (level == 3)
    for (std::size_t k = 0; k < units.level3.size(); ++k) known.add(units.level3[k], static_cast<long long>(k));
  if (level == 2)
    for (std::size_t j = 0; j < units.level2.size(); ++j)
      known.add((two ? "" : units.level3[units.parent[j]]) + between + units.level2[j], static_cast<long long>(j));
  std::vector<long long> places(table.n, -1);
  const std::vector<std::string>& ids = level == 3 ? table.level3 : table.level2;
  if (ids.empty() || (level == 2 && !two && table.level3.empty())) return places;
  for (std::size_t i = 0; i < table.n; ++i)
    if (!ids[i].empty()) places[i] = known.find(level == 3 ? ids[i] : (two ? "" : table.level3[i]) + between + ids[i]);
  return places;
}

namespace {

// What centering takes off a variable in each record: the grand mean; the mean of the record's unit, or, of a unit that
// is not in the data, that of its own records.
void center(const PredictionData& data, PredictionTable& table, int level, std::size_t v) {
  std::vector<double>& values = table.values[level - 1][v];
  const Centering mark = centeringof(level, v);
  if (mark == Centering::none) return;
  if (mark == Centering::grandmean) {
    for (double& value : values)
      if (value != missingcode) value -= grandmean(level, v);
    return;
  }
  const std::vector<long long> places = unitplaces(data.units, table, level + 1);
  const std::vector<std::vector<double>>& means = level == 1 ? data.units.means1 : data.units.means2;
  const std::vector<std::string>& ids = level == 1 ? table.level2 : table.level3;
  std::map<std::string, std::pair<double, double>> fresh;
  const auto idof = [&](std::size_t i) {
    return (level == 1 && !table.level3.empty() ? table.level3[i] : "") + between + (ids.empty() ? "" : ids[i]);
  };
  for (std::size_t i = 0; i < table.n; ++i)
    if (places[i] < 0 && values[i] != missingcode) {
      auto& [sum, count] = fresh[idof(i)];
      sum += values[i];
      count += 1.0;
    }
  bool told = false;
  for (std::size_t i = 0; i < table.n; ++i) {
    if (values[i] == missingcode) continue;
    if (ids.empty() || ids[i].empty()) {
      if (!std::exchange(told, true))
        data.tell(leftname(namesoflevel(level)[v]) + " is centered on the mean of its unit, which is not told.");
      values[i] = missingcode;
      continue;
    }
    const auto& [sum, count] =
        places[i] < 0 ? fresh[idof(i)] : std::pair{means[static_cast<std::size_t>(places[i])][v - 1], 1.0};
    values[i] -= sum / count;
  }
}

// By the names of the MDM file.

const LongColumn* mdmcolumn(int level, std::size_t v) {
  const LongColumn* column = columnnamed(leftname(namesoflevel(level)[v]));
  const VariableText* text = run.mdm.texts.of(level, static_cast<int>(v));
  if (column == nullptr && text != nullptr && !text->name.empty()) column = columnnamed(text->name);
  return column;
}

// A column in the form of that of the fit. A text in a column of numbers makes it one of texts, in which the codes of
// missing values have not been met yet.
LongColumn likefitted(const LongColumn& column, const LongColumn& fitted, const Tell& tell) {
  LongColumn made = alike(column, fitted, tell);
  if (column.text && !fitted.text)
    for (double& value : made.numbers)
      if (std::find(codes.begin(), codes.end(), value) != codes.end()) value = missingcode;
  return made;
}

std::vector<double> numbersof(const LongColumn& column, const Tell& tell) {
  LongColumn numbers;
  numbers.name = column.name;
  return likefitted(column, numbers, tell).numbers;
}

std::vector<std::string> idsof(const std::string& name) {
  std::vector<std::string> ids;
  if (name.empty()) return ids;
  const LongColumn* column = columnnamed(name);
  if (column == nullptr) lackscolumn(name);
  for (std::size_t i = 0; i < lengthof(*column); ++i) {
    if (column->text) {
      const std::string text = column->codes[i] < 0 ? "" : column->texts[at(column->codes[i])];
      const std::optional<double> number = run.mdm.numericids ? realof(text) : std::nullopt;
      ids.push_back(number ? formatted("%.15g", *number) : text);
    } else {
      ids.push_back(column->numbers[i] == missingcode ? "" : formatted("%.15g", column->numbers[i]));
    }
  }
  return ids;
}

PredictionTable tablebynames(const PredictionData& data) {
  PredictionTable table;
  table.n = lengthof(columns[0]);
  for (int level = 1; level <= 3; ++level) {
    const std::vector<bool> used = variablesof(level);
    table.values[level - 1].resize(used.size());
    for (std::size_t v = 1; v < used.size(); ++v) {
      if (!used[v]) continue;
      const LongColumn* column = mdmcolumn(level, v);
      if (column == nullptr) lackscolumn(leftname(namesoflevel(level)[v]));
      table.values[level - 1][v] = numbersof(*column, data.tell);
    }
  }
  table.level2 = idsof(run.files.predictlevel2);
  table.level3 = idsof(run.files.predictlevel3);
  if (run.model.outcome.family == Family::poisson && run.model.outcome.counted)
    if (const LongColumn* column = mdmcolumn(1, at(run.model.outcome.countvariable.value_or(0))); column != nullptr)
      table.counts = numbersof(*column, data.tell);
  return table;
}

// By the columns of the formula.

// The variable of the MDM file that a piece became.
std::size_t variableof(int level, const std::string& name) {
  const Array<Name>& names = namesoflevel(level);
  for (std::size_t v = 1; v < names.size(); ++v)
    if (leftname(names[v]) == name) return v;
  return 0;
}

PredictionTable tableof(const PreparedFit& fit, NewRecords records) {
  PredictionTable table;
  table.n = records.n;
  for (int level = 1; level <= 3; ++level) {
    table.values[level - 1].resize(namesoflevel(level).size());
    for (std::size_t i = 0; i < records.pieces[level - 1].size(); ++i)
      table.values[level - 1][variableof(level, fit.pieces[level - 1][i])] = std::move(records.pieces[level - 1][i]);
  }
  table.offset = std::move(records.offset);
  table.counts = std::move(records.counts);
  table.level2 = std::move(records.level2);
  table.level3 = std::move(records.level3);
  return table;
}

PredictionTable tablebyformula(const PredictionData& data) {
  const FormulaPlan& plan = *data.fit->plan;
  const NeededColumns names = neededcolumns(plan);
  NamedColumns named;
  const auto take = [&](const std::string& name) {
    const LongColumn* column = columnnamed(name);
    if (column != nullptr) named.emplace(name, likefitted(*column, plan.data.column(name), data.tell));
  };
  checkpredictionfile(plan);
  for (const std::string& name : names.needed) take(name);
  for (const std::string& name : names.optional) take(name);
  if (named.empty()) named.emplace(columns[0].name, columns[0]);  // a model of nothing but intercepts
  return tableof(*data.fit, newrecords(plan, named, data.tell));
}

// The analysed records of a formula.

NamedColumns fittedcolumns(const FormulaPlan& plan) {
  NamedColumns named;
  const NeededColumns names = neededcolumns(plan);
  for (const std::vector<std::string>* list : {&names.needed, &names.optional})
    for (const std::string& name : *list) named.emplace(name, plan.data.column(name));
  if (named.empty()) named.emplace("", plan.data.columns[0]);
  return named;
}

void keeprecords(PredictionTable& table, const std::vector<char>& kept) {
  const auto keep = [&](auto& values) {
    std::size_t to = 0;
    for (std::size_t i = 0; i < values.size(); ++i)
      if (kept[i] != 0) values[to++] = std::move(values[i]);
    values.resize(to);
  };
  for (auto& level : table.values)
    for (auto& values : level) keep(values);
  for (std::vector<double>* values : {&table.offset, &table.counts}) keep(*values);
  for (std::vector<std::string>* ids : {&table.level2, &table.level3}) keep(*ids);
  table.n = static_cast<std::size_t>(std::count_if(kept.begin(), kept.end(), [](char k) { return k != 0; }));
}

// The number that a value of a column of numbers is: of one with names, what a name stands for.
std::optional<double> numberof(const LongColumn& column, const std::string& value) {
  for (const auto& [number, label] : column.labels)
    if (label == value) return number;
  return realof(value);
}

void change(LongColumn& column, const ColumnChange& change, const std::vector<char>& kept) {
  if (!change.move.empty()) {
    for (std::size_t i = 0, record = 0; i < column.numbers.size(); ++i) {
      if (kept[i] == 0) continue;
      if (column.numbers[i] != missingcode) column.numbers[i] += change.move[record];
      ++record;
    }
    return;
  }
  if (!column.text) {
    std::fill(column.numbers.begin(), column.numbers.end(), numberof(column, change.value).value_or(missingcode));
    return;
  }
  column.texts = {change.value};
  std::fill(column.codes.begin(), column.codes.end(), 0);
}

// The factor of the model that this column is, as it stands or by factor(); null: none.
const Variable* factorof(const FormulaPlan& plan, const std::string& name) {
  for (const auto& [text, variable] : plan.data.variables)
    if (variable.factor && !variable.indicator && variable.source == &plan.data.column(name)) return &variable;
  return nullptr;
}

bool onlyzeroone(const std::vector<double>& numbers) {
  return std::all_of(numbers.begin(), numbers.end(), [](double x) { return x == 0.0 || x == 1.0; });
}

std::optional<ColumnFacts> formulacolumn(const PreparedFit& fit, const std::string& wanted) {
  const FormulaPlan& plan = *fit.plan;
  std::string name;
  const NeededColumns names = neededcolumns(plan);
  for (const std::string& needed : names.needed)
    if (needed == wanted || (name.empty() && sameword(needed, wanted))) name = needed;
  if (name.empty()) return std::nullopt;
  const LongColumn& column = plan.data.column(name);
  ColumnFacts facts{name, false, {}, {}};
  if (const Variable* factor = factorof(plan, name); factor != nullptr) {
    facts.discrete = true;
    facts.values = factor->names.levels;
    return facts;
  }
  std::set<std::string> texts;
  for (std::size_t i = 0; i < fit.kept.size(); ++i) {
    if (fit.kept[i] == 0) continue;
    if (!column.text) {
      facts.numbers.push_back(column.numbers[i]);
    } else if (column.codes[i] >= 0) {
      texts.insert(column.texts[at(column.codes[i])]);
    }
  }
  facts.discrete = column.text || onlyzeroone(facts.numbers);
  facts.values =
      column.text ? std::vector<std::string>(texts.begin(), texts.end()) : std::vector<std::string>{"0", "1"};
  return facts;
}

AnalysedRecords formularecords(const PredictionData& data) {
  AnalysedRecords records;
  const PreparedFit& fit = *data.fit;
  records.column = [&fit](const std::string& name) { return formulacolumn(fit, name); };
  records.holds = [&fit](const ColumnFacts& facts, const std::string& value) {
    const LongColumn& column = fit.plan->data.column(facts.name);
    if (column.text) return std::find(column.texts.begin(), column.texts.end(), value) != column.texts.end();
    return numberof(column, value).has_value();
  };
  records.table = [&data, &fit](const std::vector<ColumnChange>& changes) {
    NamedColumns named = fittedcolumns(*fit.plan);
    for (const ColumnChange& each : changes) change(named.at(each.name), each, fit.kept);
    PredictionTable table = tableof(fit, newrecords(*fit.plan, named, data.tell));
    keeprecords(table, fit.kept);
    return table;
  };
  return records;
}

// The analysed records of an MDM file.

std::optional<std::pair<int, std::size_t>> mdmvariable(const std::string& name) {
  for (int level = 1; level <= 3; ++level) {
    const std::vector<bool> used = variablesof(level);
    for (std::size_t v = 1; v < used.size(); ++v) {
      const VariableText* text = run.mdm.texts.of(level, static_cast<int>(v));
      if (used[v] &&
          (sameword(leftname(namesoflevel(level)[v]), name) || (text != nullptr && sameword(text->name, name))))
        return std::pair{level, v};
    }
  }
  return std::nullopt;
}

AnalysedRecords mdmrecords(const PredictionData& data) {
  const auto held = std::make_shared<MdmRecords>(readrecords(*data.analysis));
  AnalysedRecords records;
  records.column = [held](const std::string& name) -> std::optional<ColumnFacts> {
    const auto found = mdmvariable(name);
    if (!found) return std::nullopt;
    ColumnFacts facts{leftname(namesoflevel(found->first)[found->second]), false, {"0", "1"}, {}};
    facts.numbers = held->values[found->first - 1][found->second];
    facts.discrete = onlyzeroone(facts.numbers);
    return facts;
  };
  records.holds = [](const ColumnFacts&, const std::string& value) { return realof(value).has_value(); };
  records.table = [held](const std::vector<ColumnChange>& changes) {
    PredictionTable table;
    table.n = held->n;
    for (int level = 0; level < 3; ++level) table.values[level] = held->values[level];
    table.counts = held->counts;
    for (const ColumnChange& each : changes) {
      const auto [level, v] = *mdmvariable(each.name);
      std::vector<double>& values = table.values[level - 1][v];
      for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = each.move.empty() ? realof(each.value).value_or(missingcode) : values[i] + each.move[i];
    }
    for (int level = 1; level <= 3; ++level)
      for (std::size_t v = 1; v < table.values[level - 1].size(); ++v)
        for (std::size_t i = 0; i < table.values[level - 1][v].size(); ++i)
          table.values[level - 1][v][i] -= held->centre[level - 1][v][i];
    return table;
  };
  return records;
}

}  // namespace

void readpredictionfile(const std::vector<double>& missing) {
  if (run.files.predict.empty()) return;
  openlong(run.files.predict);
  std::vector<int> rows;
  for (std::size_t row = 0; row < raw.level[0].vartable.size(); ++row)
    if (!raw.level[0].vartable[row].hidden && !raw.level[0].vartable[row].fullname.empty())
      rows.push_back(static_cast<int>(row));
  columns = readlong(rows, missing, {});
  codes = missing;
  forgetraw();
}

void checkpredictionfile(const FormulaPlan& plan) {
  for (const std::string& name : neededcolumns(plan).needed)
    if (columnnamed(name) == nullptr) lackscolumn(name);
}

PredictionData predictiondata(const PreparedFit* fit, const Analysis& analysis, Tell tell) {
  return {fit, &analysis, std::move(tell), dataunits(analysis)};
}

std::string stemof(const PreparedFit& fit) { return fit.request.stem; }

PredictionTable newtable(const PredictionData& data) {
  if (data.fit != nullptr) return tablebyformula(data);
  PredictionTable table = tablebynames(data);
  for (int level = 1; level <= 3; ++level)
    for (std::size_t v = 1; v < table.values[level - 1].size(); ++v)
      if (!table.values[level - 1][v].empty()) center(data, table, level, v);
  return table;
}

AnalysedRecords analysedrecords(const PredictionData& data) {
  return data.fit != nullptr ? formularecords(data) : mdmrecords(data);
}

}  // namespace kdr
