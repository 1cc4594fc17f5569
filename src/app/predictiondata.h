// The records that predictions are made for: rows of another file (-predict), and the analysed records with some column
// changed (-margins).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/datawalk.h"
#include "formula/units.h"

namespace kdr {

struct FormulaPlan;
struct PreparedFit;

struct PredictionTable {
  std::size_t n = 0;
  // [level - 1][variable][record], centered as in the model; empty: no variable of the model. missingcode.
  std::vector<std::vector<double>> values[3];
  std::vector<double> offset, counts;       // empty: none
  std::vector<std::string> level2, level3;  // [record] IDs, empty where missing. No entries: they are not told
};

// The place of each record's unit of level 2 or 3 among those of the data; -1: it is not there, or not told.
[[nodiscard]] std::vector<long long> unitplaces(const DataUnits& units, const PredictionTable& table, int level);

// Reads the file of -predict; later calls take it from memory. Stops with code 100 where that cannot be done.
void readpredictionfile(const std::vector<double>& missing);
// The stem of the files of a run that -fit prepared.
[[nodiscard]] std::string stemof(const PreparedFit& fit);

// Stops with code 100 where it lacks a column that the formula's terms have.
void checkpredictionfile(const FormulaPlan& plan);

// What is known of the data beside the results; `fit` is null in a run of a command file.
struct PredictionData {
  const PreparedFit* fit = nullptr;
  const Analysis* analysis = nullptr;
  Tell tell;
  DataUnits units;
};
[[nodiscard]] PredictionData predictiondata(const PreparedFit* fit, const Analysis& analysis, Tell tell);

// The rows of the file of -predict. A unit of the data has its own means.
[[nodiscard]] PredictionTable newtable(const PredictionData& data);

// A column of the analysed records that is set to a value, or moved.
struct ColumnChange {
  std::string name;
  std::string value;         // a number, or a name of those that the column holds
  std::vector<double> move;  // [record]; in the place of a value
};
struct ColumnFacts {
  std::string name;                 // as the data have it
  bool discrete = false;            // names, or 0 and 1: effects are differences
  std::vector<std::string> values;  // then: the reference first
  std::vector<double> numbers;      // else, [record]
};
// The analysed records.
struct AnalysedRecords {
  // Which column a name tells; none where there is no such column in the model.
  std::function<std::optional<ColumnFacts>(const std::string& name)> column;
  std::function<bool(const ColumnFacts& column, const std::string& value)> holds;
  std::function<PredictionTable(const std::vector<ColumnChange>& changes)> table;
};
[[nodiscard]] AnalysedRecords analysedrecords(const PredictionData& data);

}  // namespace kdr
