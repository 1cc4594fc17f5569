#include "app/datawalk.h"

#include <algorithm>

#include "core/modelwalk.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "estimate/linear/recordunits.h"
#include "kernel/sizes.h"
#include "report/resultsdocument.h"

namespace kdr {

// The variables of a level that are in the model, by their place among all.
std::vector<bool> variablesof(int level) {
  const ModelRows rows = modelrows(run.model);
  const MdmData& mdm = run.mdm;
  std::vector<bool> used(at(level == 1 ? mdm.nvar1 : level == 2 ? mdm.nvar2 : mdm.nvar3) + 1);
  if (level == 1)
    for (const CoefficientRow& row : rows.coefficients)
      if (!row.threshold) used[at(row.variable)] = true;
  if (level == 2)
    for (const TermRow& row : rows.terms) used[at(row.variable)] = true;
  if (level == 3)
    for (const EffectRow& row : rows.effects) used[at(row.variable)] = true;
  used[0] = false;
  return used;
}

const Array<Name>& namesoflevel(int level) {
  return level == 1 ? run.mdm.names1 : level == 2 ? run.mdm.names2 : run.mdm.names3;
}
Centering centeringof(int level, std::size_t v) {
  const Array<Centering>& marks = level == 1 ? run.model.center1 : level == 2 ? run.model.center2 : run.model.center3;
  return v < marks.size() ? marks[v] : Centering::none;
}
double grandmean(int level, std::size_t v) {
  return (level == 1 ? run.mdm.mean1 : level == 2 ? run.mdm.mean2 : run.mdm.mean3)[v - 1];
}

DataUnits dataunits(const Analysis& analysis) {
  DataUnits units;
  const auto marked = [](const Array<Centering>& marks) {
    return std::any_of(marks.begin(), marks.end(), [](Centering mark) { return mark == Centering::groupmean; });
  };
  const bool group1 = marked(run.model.center1), group2 = marked(run.model.center2);
  RecordUnits walk;
  startrecords(walk, analysis);
  for (int k = 0; k < run.mdm.nunits3; ++k) units.level3.push_back(unitid(3, level3id(run.mdm, k)));
  while (nextblock(walk)) {
    units.level2.push_back(unitid(2, walk.unit.id2));
    units.parent.push_back(at(walk.k));
    if (group1) units.means1.emplace_back(walk.unit.means.begin(), walk.unit.means.end());
    if (group2 && units.means2.size() <= at(walk.k)) units.means2.emplace_back(walk.mean2.begin(), walk.mean2.end());
  }
  stopif(walk.failure);
  return units;
}

MdmRecords readrecords(const Analysis& analysis) {
  MdmRecords records;
  std::vector<bool> used[3];
  for (int level = 1; level <= 3; ++level) {
    used[level - 1] = variablesof(level);
    records.values[level - 1].resize(used[level - 1].size());
    records.centre[level - 1].resize(used[level - 1].size());
  }
  const int count = run.model.outcome.family == Family::poisson && run.model.outcome.counted
                        ? run.model.outcome.countvariable.value_or(0)
                        : 0;
  RecordUnits walk;
  startrecords(walk, analysis);
  while (nextblock(walk)) {
    const UnitBlock& unit = walk.unit;
    for (int i = 0; i < unit.nj; ++i) {
      const double* record = unit.records.data() + at(i) * at(run.mdm.nvar1);
      const double* const rows[] = {record, unit.level2.data(), run.mdm.level3.data() + at(walk.k) * at(run.mdm.nvar3)};
      const double* const means[] = {unit.means.data(), walk.mean2.data(), nullptr};
      for (int level = 1; level <= 3; ++level)
        for (std::size_t v = 1; v < used[level - 1].size(); ++v) {
          if (!used[level - 1][v]) continue;
          const Centering mark = centeringof(level, v);
          // Level 3 is centered where the model is read.
          const double taken = mark == Centering::none        ? 0.0
                               : mark == Centering::groupmean ? means[level - 1][v - 1]
                                                              : grandmean(level, v);
          records.values[level - 1][v].push_back(rows[level - 1][v - 1] + (level == 3 ? taken : 0.0));
          records.centre[level - 1][v].push_back(taken);
        }
      if (count > 0) records.counts.push_back(record[count - 1]);
      ++records.n;
    }
  }
  stopif(walk.failure);
  return records;
}

void walkunits(const Analysis& analysis, const std::set<int>& units3, std::set<double>& values,
               const std::function<void(const WalkedRecord& record)>& visit) {
  constexpr std::size_t mostvalues = 200;
  RecordUnits walk;
  startrecords(walk, analysis);
  WalkedRecord record;
  const auto take = [](std::vector<double>& to, const double* from, int n) {
    to.assign(1, 1.0);
    to.insert(to.end(), from, from + n);
  };
  std::size_t unit = 0, first = 0;
  std::vector<double> observed, counts;
  for (; nextblock(walk); ++unit, first += observed.size()) {
    observed.clear();
    counts.clear();
    for (int i = 0; i < walk.unit.nj; ++i) {
      const double* row = walk.unit.records.data() + at(i) * at(walk.layout.width);
      observed.push_back(row[walk.layout.observed]);
      counts.push_back(walk.layout.count < 0 ? 1.0 : row[walk.layout.count]);
      if (values.size() < mostvalues) values.insert(observed.back());
    }
    if (!units3.contains(walk.k)) continue;
    centerblock(walk);
    record.level3 = walk.k;
    record.level2 = unit;
    take(record.row2, walk.unit.level2.data(), run.mdm.nvar2);
    take(record.row3, run.mdm.level3.data() + at(walk.k) * at(run.mdm.nvar3), run.mdm.nvar3);
    for (std::size_t i = 0; i < observed.size(); ++i) {
      take(record.level1, walk.unit.records.data() + i * at(walk.layout.width), run.mdm.nvar1);
      record.record = first + i;
      record.outcome = observed[i];
      record.count = counts[i];
      visit(record);
    }
  }
  stopif(walk.failure);
}

}  // namespace kdr
