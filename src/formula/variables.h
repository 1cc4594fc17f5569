// The values of a formula's variables, for every record of the file.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/constants.h"
#include "formula/factors.h"
#include "formula/terms.h"

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

// What variables were made with, by the expression: means, scales, polynomials. Other data are coded by the same.
struct Coding {
  std::map<std::string, std::vector<double>> numbers;
};

// The file as the formula sees it.
struct FormulaData {
  std::string formula;
  std::vector<LongColumn> columns;
  std::map<std::string, std::size_t> places;  // in `columns`, by the names in the formula
  std::size_t nrecords = 0;
  std::vector<Grouping> groupings;
  std::map<std::string, Variable> variables;  // by name
  std::shared_ptr<Coding> coding = std::make_shared<Coding>();
  const Coding* known = nullptr;  // of other data, which these are coded by; null: they make a coding of their own

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

// The same variable over other data, which have the columns: its levels are those of `like`, others are missing.
// Refuses what other data cannot have.
[[nodiscard]] Variable variablelike(const FormulaData& data, const Expression& e, const Variable& like);

// The values of an expression of numbers.
[[nodiscard]] std::vector<double> valuesof(const FormulaData& data, const Expression& e);

// A text between quotes or a name, as an argument that names a level.
[[nodiscard]] std::string levelargument(const Expression& e);

}  // namespace kdr
