// The data of a run as predictions need them beside its results: units by their IDs, and the values of the model's
// variables in each analysed record.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "core/model.h"
#include "estimate/analysis.h"

namespace kdr {

// In the order of the data.
struct DataUnits {
  std::vector<std::string> level2, level3;  // IDs
  std::vector<std::size_t> parent;          // [level-2 unit]
  // Means that group-mean centering takes off ([level-2 unit][variable], [level-3 unit][variable of level 2]), where
  // some variable of the model has it.
  std::vector<std::vector<double>> means1, means2;
};
[[nodiscard]] DataUnits dataunits(const Analysis& analysis);

// The analysed records: [level - 1][variable][record], of variables of the model; others are empty.
struct MdmRecords {
  std::size_t n = 0;
  std::vector<std::vector<double>> values[3];  // without centering
  std::vector<std::vector<double>> centre[3];  // what it takes off
  std::vector<double> counts;                  // exposure; empty: none
};
[[nodiscard]] MdmRecords readrecords(const Analysis& analysis);

// A record of a level-3 unit, its variables centered as in the model.
struct WalkedRecord {
  int level3 = 0;
  std::size_t level2 = 0, record = 0;      // in the order of the data
  std::vector<double> level1, row2, row3;  // by variable, [0] of no use
  double outcome = 0.0, count = 1.0;
};
// Visits the records of these units; `values` gets the different values of the outcome in all records, up to a few
// more than an outcome has categories.
void walkunits(const Analysis& analysis, const std::set<int>& units3, std::set<double>& values,
               const std::function<void(const WalkedRecord& record)>& visit);

// The variables of a level (1 to 3) that are in the model, by their place among all.
[[nodiscard]] std::vector<bool> variablesof(int level);
[[nodiscard]] const Array<Name>& namesoflevel(int level);
[[nodiscard]] Centering centeringof(int level, std::size_t v);
[[nodiscard]] double grandmean(int level, std::size_t v);

}  // namespace kdr
