#include "command/formula/coding.h"

#include <string>
#include <vector>

namespace kdr {

namespace {

Json partsof(const std::vector<ColumnPart>& parts) {
  Json list = Json::array();
  for (const ColumnPart& part : parts) {
    const Variable& variable = *part.variable;
    list.push_back({{"variable", variable.name},
                    {"level", whenever(variable.factor, variable.factor ? variable.names.levels[at(part.column)] : "")},
                    {"column", whenever(!variable.factor, part.column + 1)}});
  }
  return list;
}

// What a call took from all records of the file, by the names of docs/results.md.
Json settingsof(const Settings& settings) {
  Json list = Json::array();
  for (const auto& [call, numbers] : settings.numbers) {
    Json row{{"call", call}};
    if (numbers.size() == 1) {
      row["center"] = number(numbers[0]);
    } else if (numbers.size() == 2) {
      row["center"] = number(numbers[0]);
      row["scale"] = number(numbers[1]);
    } else {
      row["center"] = number(numbers[0]);
      Json shifts = Json::array(), lengths = Json::array();
      for (std::size_t k = 1; k + 1 < numbers.size(); k += 2) {
        shifts.push_back(number(numbers[k]));
        lengths.push_back(number(numbers[k + 1]));
      }
      row["shifts"] = std::move(shifts);
      row["squared_lengths"] = std::move(lengths);
    }
    list.push_back(std::move(row));
  }
  for (const auto& [call, means] : settings.means) list.push_back({{"call", call}, {"units", means.size()}});
  return list;
}

Json variablesof(const FormulaPlan& plan) {
  Json list = Json::array();
  for (const auto& [name, variable] : plan.data.variables) {
    const bool factor = variable.factor;
    Json labels = Json::array();
    if (variable.source != nullptr)
      for (const auto& [value, label] : variable.source->labels)
        labels.push_back({{"value", number(value)}, {"label", label}});
    list.push_back({{"name", name},
                    {"level", variable.level + 1},
                    {"kind", variable.indicator ? "comparison"
                             : factor           ? "factor"
                                                : "numbers"},
                    {"columns", whenever(!factor, variable.columns.size())},
                    {"levels", whenever(factor, variable.names.levels)},
                    {"reference", whenever(factor, factor ? variable.names.levels[0] : "")},
                    {"labels", std::move(labels)}});
  }
  return list;
}

}  // namespace

Json codingof(const FormulaPlan& plan, const EquationLines& lines) {
  const auto nameof = [&](int level, int piece) {
    return piece == interceptpiece ? "INTRCPT" + std::to_string(level) : lines.names[level - 1][at(piece)];
  };
  Json columns = Json::array(), pieces = Json::array();
  for (std::size_t i = 0; i < plan.design.fixed.size(); ++i) {
    const FixedEffect& effect = plan.design.fixed[i];
    columns.push_back({{"name", effect.name},
                       {"level1", nameof(1, effect.of.piece1)},
                       {"level2", nameof(2, effect.of.piece2)},
                       {"level3", whenever(!lines.twolevel, nameof(3, effect.piece3))},
                       {"parts", partsof(plan.fixed[i].parts)}});
  }
  for (int level = 1; level <= 3; ++level)
    for (std::size_t i = 0; i < plan.design.pieces[level - 1].size(); ++i) {
      const Piece& piece = plan.design.pieces[level - 1][i];
      pieces.push_back({{"level", level},
                        {"name", lines.names[level - 1][i]},
                        {"formula_name", piece.name},
                        {"parts", partsof(piece.parts)}});
    }
  const auto grouping = [&](std::size_t i) { return Json(plan.data.groupings[i].names); };
  return {{"formula", plan.model.text},
          {"file", plan.options.source},
          {"groupings", {{"level2", grouping(plan.inner)}, {"level3", plan.outer ? grouping(*plan.outer) : Json()}}},
          {"outcome", plan.outcome.name},
          {"variables", variablesof(plan)},
          {"settings", settingsof(*plan.data.settings)},
          {"columns", std::move(columns)},
          {"pieces", std::move(pieces)}};
}

}  // namespace kdr
