#include "formula/newrecords.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <utility>

#include "core/constants.h"
#include "core/formatted.h"
#include "core/numbers.h"

namespace kdr {

namespace {

// Texts as the numbers that they are.
LongColumn asnumbers(const LongColumn& column, const Tell& lost) {
  LongColumn numbers;
  bool told = false;
  for (const int code : column.codes) {
    const std::string text = code < 0 ? "" : column.texts[static_cast<std::size_t>(code)];
    const std::optional<double> value = text.empty() || text == "NA" ? std::nullopt : realof(text);
    if (!value && !text.empty() && text != "NA" && !std::exchange(told, true))
      lost(column.name + ": " + text + " is no number.");
    numbers.numbers.push_back(value.value_or(missingcode));
  }
  return numbers;
}

// Numbers whose names those of the fit are: each has one, or is missing.
void takelabels(LongColumn& column, const LongColumn& fitted, const Tell& lost) {
  column.labels = fitted.labels;
  bool told = false;
  for (double& value : column.numbers) {
    if (value == missingcode ||
        std::any_of(column.labels.begin(), column.labels.end(), [&](const auto& row) { return row.first == value; }))
      continue;
    if (!std::exchange(told, true)) lost(column.name + formatted(": the value %.15g has no name in the data.", value));
    value = missingcode;
  }
}

// Names as the numbers that they stand for.
LongColumn unlabelled(const LongColumn& column, const LongColumn& fitted) {
  LongColumn numbers;
  for (const int code : column.codes) {
    const std::string text = code < 0 ? "" : column.texts[static_cast<std::size_t>(code)];
    const auto row = std::find_if(fitted.labels.begin(), fitted.labels.end(),
                                  [&](const auto& label) { return label.second == text; });
    numbers.numbers.push_back(row != fitted.labels.end() ? row->first : realof(text).value_or(missingcode));
  }
  return numbers;
}

// The IDs of the records by these columns, empty where one of them is missing.
std::vector<std::string> idsof(const FormulaData& data, const std::vector<std::string>& names) {
  std::vector<std::string> ids;
  if (std::any_of(names.begin(), names.end(), [&](const std::string& name) { return !data.places.contains(name); }))
    return ids;
  for (std::size_t i = 0; i < data.nrecords; ++i) {
    const bool missing = std::any_of(names.begin(), names.end(), [&](const std::string& name) {
      const LongColumn& column = data.column(name);
      return column.text ? column.codes[i] < 0 : column.numbers[i] == missingcode;
    });
    ids.push_back(missing ? "" : unitshown(data, names, i));
  }
  return ids;
}

std::vector<double> product(const FormulaData& data, const Piece& piece) {
  std::vector<ColumnPart> parts = piece.parts;
  for (ColumnPart& part : parts) part.variable = &data.variables.at(part.variable->name);
  std::vector<double> values;
  for (std::size_t i = 0; i < data.nrecords; ++i) {
    const bool missing =
        std::any_of(parts.begin(), parts.end(), [&](const ColumnPart& part) { return part.variable->missing(i); });
    values.push_back(missing ? missingcode : valueat(parts, i));
  }
  return values;
}

std::vector<double> sumof(const FormulaData& data, const FormulaPlan& plan) {
  std::vector<double> sum(data.nrecords, 0.0);
  const auto add = [&](const std::vector<double>& values) {
    for (std::size_t i = 0; i < sum.size(); ++i)
      sum[i] = sum[i] == missingcode || values[i] == missingcode ? missingcode : sum[i] + values[i];
  };
  for (const Expression* e : plan.model.offsets) add(valuesof(data, e->operands[0]));
  if (!plan.options.offset.empty()) add(data.column(plan.options.offset).numbers);
  return sum;
}

void addnames(const Expression& e, std::vector<std::string>& names) {
  std::vector<NamedPlace> found;
  columnnames(e, found);
  for (const NamedPlace& name : found)
    if (std::find(names.begin(), names.end(), name.name) == names.end()) names.push_back(name.name);
}

}  // namespace

NeededColumns neededcolumns(const FormulaPlan& plan) {
  NeededColumns columns;
  std::vector<const Terms*> sums{&plan.model.fixed};
  for (const RandomPart& part : plan.model.randoms) sums.push_back(&part.terms);
  for (const Terms* terms : sums)
    for (const Expression* e : terms->variables) addnames(*e, columns.needed);
  const bool normal = plan.family == FitFamily::gaussian;
  std::vector<std::string>& offsets = normal ? columns.needed : columns.optional;
  for (const Expression* e : plan.model.offsets) addnames(*e, offsets);
  for (const std::string* name : {&plan.options.offset, &plan.options.exposure})
    if (!name->empty()) offsets.push_back(*name);
  for (const RandomPart& part : plan.model.randoms)
    for (const std::string& name : part.group) columns.optional.push_back(name);
  std::erase_if(columns.optional, [&](const std::string& name) {
    return std::find(columns.needed.begin(), columns.needed.end(), name) != columns.needed.end();
  });
  std::sort(columns.optional.begin(), columns.optional.end());
  columns.optional.erase(std::unique(columns.optional.begin(), columns.optional.end()), columns.optional.end());
  return columns;
}

LongColumn alike(LongColumn column, const LongColumn& fitted, const Tell& lost) {
  const std::string name = column.name;
  if (fitted.text && !column.text) column = astexts(column);
  if (!fitted.text && column.text) column = holdsnames(fitted) ? unlabelled(column, fitted) : asnumbers(column, lost);
  column.name = name;
  column.label = fitted.label;
  column.ordered = false;
  column.labels.clear();
  if (!fitted.text && holdsnames(fitted)) takelabels(column, fitted, lost);
  return column;
}

NewRecords newrecords(const FormulaPlan& plan, const NamedColumns& columns, const Tell& lost) {
  FormulaData data;
  data.formula = plan.data.formula;
  data.settings = plan.data.settings;
  data.fitted = &plan.data;
  data.lost = lost;
  for (const auto& [name, column] : columns) {
    data.places[name] = data.columns.size();
    data.nrecords = lengthof(column);
    data.columns.push_back(column);
  }
  findgroupings(data, plan.model);
  std::vector<const Terms*> sums{&plan.model.fixed};
  for (const RandomPart& part : plan.model.randoms) sums.push_back(&part.terms);
  for (const Terms* terms : sums)
    for (const Expression* e : terms->variables) static_cast<void>(variableof(data, *e));

  NewRecords records;
  records.n = data.nrecords;
  for (int level = 0; level < 3; ++level)
    for (const Piece& piece : plan.design.pieces[level]) records.pieces[level].push_back(product(data, piece));
  const bool normal = plan.family == FitFamily::gaussian;
  const bool offset = !plan.model.offsets.empty() || !plan.options.offset.empty();
  if (normal && offset) records.offset = sumof(data, plan);
  if (plan.family == FitFamily::poisson && plan.counts) {
    const NeededColumns names = neededcolumns(plan);
    const bool known = std::all_of(names.optional.begin(), names.optional.end(), [&](const std::string& name) {
      const bool unit = std::any_of(plan.model.randoms.begin(), plan.model.randoms.end(), [&](const RandomPart& part) {
        return std::find(part.group.begin(), part.group.end(), name) != part.group.end();
      });
      return unit || data.places.contains(name);
    });
    if (known && offset) {
      records.counts = sumof(data, plan);
      for (double& value : records.counts) value = value == missingcode ? value : std::exp(value);
    } else if (known) {
      records.counts = data.column(plan.options.exposure).numbers;
    }
  }
  if (plan.outer) records.level3 = idsof(data, plan.data.groupings[*plan.outer].names);
  records.level2 = idsof(data, owncolumns(plan));
  return records;
}

}  // namespace kdr
