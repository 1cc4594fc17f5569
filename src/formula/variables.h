// The values of a formula's variables, for every record of the file.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/constants.h"
#include "formula/factors.h"
#include "formula/terms.h"
#include "formula/units.h"

namespace kdr {

// The columns whose values together tell the units of a random part.
struct Grouping {
  std::vector<std::string> names;
  std::string shown;       // "school:pupil"
  Place place;             // of the first random part that has it
  std::vector<int> units;  // [record]: numbers from 0, -1 where one of the columns is missing
  int nunits = 0;
};

// One variable: numbers, of which poly() has several columns, or a factor.
struct Variable {
  std::string name;   // as R writes it
  std::string shown;  // the same without backticks, where it is a column's name
  std::string label;
  Place place;
  bool factor = false;
  Factor names;                                               // of a factor
  const LongColumn* source = nullptr;                         // a factor's column in the file, where it is one
  bool indicator = false;                                     // a comparison: FALSE and TRUE
  std::vector<std::shared_ptr<std::vector<double>>> columns;  // else, each [record]
  int level = 0;                                              // index of the highest level at which it is constant

  [[nodiscard]] bool missing(std::size_t record) const {
    return factor ? names.codes[record] < 0 : (*columns[0])[record] == missingcode;
  }
};

// What calls took from the records of the fit, by the call as R writes it: other records take the same.
struct Settings {
  // Of scale(): what comes off, and the divisor; of center(): the mean; of poly(): the mean, then shift and squared
  // length of each degree from 0 on (`orthogonal`).
  std::map<std::string, std::vector<double>> numbers;
  std::map<std::string, std::unordered_map<std::string, double>> means;  // of means over units, by the unit as shown
};

// The file as the formula sees it.
struct FormulaData {
  std::string formula;
  std::vector<LongColumn> columns;
  std::map<std::string, std::size_t> places;  // in `columns`, by the names in the formula
  std::size_t nrecords = 0;
  std::vector<Grouping> groupings;
  std::map<std::string, Variable> variables;  // by name
  std::shared_ptr<Settings> settings = std::make_shared<Settings>();
  // Where these are other records than those of the fit: the latter, whose settings and levels they take, and who is
  // told of values that there are none of, which are missing then.
  const FormulaData* fitted = nullptr;
  Tell lost;

  [[nodiscard]] const LongColumn& column(const std::string& name) const { return columns[places.at(name)]; }
};

// Every name of a column in an expression, with its place.
struct NamedPlace {
  std::string name;
  Place place;
};
void columnnames(const Expression& e, std::vector<NamedPlace>& names);

// Checks that the functions in an expression are known and have the arguments that they take.
void checkfunctions(const std::string& formula, const Expression& e);

// The units of the random parts' groupings, outermost columns first.
void findgroupings(FormulaData& data, const FormulaModel& model);

// The variable that a term names, evaluated at the first time. Refuses it where it has no values.
Variable& variableof(FormulaData& data, const Expression& e);

// The values of an expression of numbers.
[[nodiscard]] std::vector<double> valuesof(const FormulaData& data, const Expression& e);

// The values of these columns in a record, with : between them.
[[nodiscard]] std::string unitshown(const FormulaData& data, const std::vector<std::string>& names, std::size_t record);

// A text between quotes or a name, as an argument that names a level.
[[nodiscard]] std::string levelargument(const Expression& e);

}  // namespace kdr
