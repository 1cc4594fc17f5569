// From a formula and a table to a design: what a model is of, without regard to who fits it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "formula/design.h"
#include "formula/units.h"

namespace kdr {

enum class FitFamily { gaussian, binomial, poisson, ordinal, multinomial };
// The family of a word without regard to case, gaussian of an empty one.
[[nodiscard]] std::optional<FitFamily> familynamed(const std::string& word);

// What stands beside a formula. Empty texts were not given.
struct FormulaOptions {
  std::string formula, family;
  std::string engine, points;            // of an outcome that is not normal
  std::string trials, exposure, offset;  // columns
  std::string weights[3];                // columns of the design weights of each level
  std::string source, subject;           // what the table is called, and at the beginning of a sentence
};

// Who is told what a formula made of the table. All of them stand.
struct FormulaListener {
  Tell remark;   // what happened to the data
  Tell warning;  // what a reader of the results has to know of it
  Tell level;    // a line for each level, of its variables
};

// What stands beside the formula's own columns in the data of the model.
struct Extra {
  std::string name, label;
  std::shared_ptr<std::vector<double>> values;
  ValueLabels labels{};  // what the values of an outcome stand for
};

// A formula on its way to a model.
struct FormulaPlan {
  FormulaOptions options;
  FormulaListener listener;
  FitFamily family = FitFamily::gaussian;
  FormulaModel model;
  FormulaData data;
  Extra outcome;
  int categories = 0;           // of an ordinal or multinomial outcome
  std::optional<Extra> counts;  // trials or exposure
  std::optional<Extra> offset;  // what was taken off the outcome
  std::optional<Extra> weights[3];
  std::size_t inner = 0;             // the grouping of level 2
  std::optional<std::size_t> outer;  // that of level 3, where there are two groupings
  LongUnits units;
  std::size_t records = 0;  // in the model: those that the units have
  std::vector<ModelColumn> fixed;
  Design design;

  [[nodiscard]] bool weighted() const { return weights[0] || weights[1] || weights[2]; }
  [[nodiscard]] bool categorical() const { return family == FitFamily::ordinal || family == FitFamily::multinomial; }
};

// The steps, in their order. Each refuses what has no meaning (expression.h).

// Reads the formula of the options, and the family.
void readplan(FormulaPlan& plan);

// Which columns of a table with these names (empty: not to be named) the plan needs, each once; a name is told with its
// case, and without it where that leaves no doubt. `texts` tells which are no numbers. The caller then fills the
// columns of plan.data, in this order, and nrecords.
struct WantedColumns {
  std::vector<int> rows;  // of the table
  std::vector<int> ids;   // those of them that tell units
};
[[nodiscard]] WantedColumns wantedcolumns(FormulaPlan& plan, const std::vector<std::string>& names,
                                          const std::vector<bool>& texts);

// Groupings, outcome and variables. Returns which records have all that the model needs, as `na.omit` does.
[[nodiscard]] std::vector<char> evaluateplan(FormulaPlan& plan);

// The columns that tell a level-2 unit from the others of its level-3 unit.
[[nodiscard]] std::vector<std::string> owncolumns(const FormulaPlan& plan);
// One column whose values tell the units of the groupings that are in these columns.
[[nodiscard]] LongColumn idcolumn(const FormulaData& data, const std::vector<std::string>& names);

// With the unit of each record in plan.units: levels, model matrix, and the design.
void designplan(FormulaPlan& plan, const std::vector<char>& kept);

// How an outcome that is not normal is estimated.
struct EngineChoice {
  bool laplace6 = false, quadrature = false;  // neither: quasi-likelihood
  int points = 0;                             // of quadrature; 0: as many as the data need
};
// Of a plan whose design stands.
[[nodiscard]] EngineChoice enginechoice(const FormulaPlan& plan);

}  // namespace kdr
