#include "estimate/linear/recordunits.h"

#include <algorithm>
#include <cmath>

#include "core/modelwalk.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/crossproducts.h"
#include "estimate/linear/deletion.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Unit means over the non-missing values of the records that remain.
void retakemeans(UnitBlock& unit) {
  const auto width = at(run.mdm.nvar1);
  for (std::size_t v = 0; v < width; ++v) {
    double sum = 0.0;
    int n = 0;
    for (int i = 0; i < unit.nj; ++i)
      if (const double value = unit.records[at(i) * width + v]; value != missingcode) {
        sum += value;
        ++n;
      }
    unit.means[v] = n > 0 ? sum / n : 0.0;
  }
}

// Means of the raw level-2 values over the level-3 unit whose first block has just been read.
void level3unitmeans(RecordUnits& units) {
  const auto width = at(run.mdm.nvar2);
  Array<double> sum(width);
  Array<int> n(width);
  const auto take = [&](const UnitBlock& unit) {
    for (std::size_t v = 0; v < width; ++v)
      if (unit.level2[v] != missingcode) {
        sum[v] += unit.level2[v];
        ++n[v];
      }
  };
  take(units.unit);
  const long long position = unitposition(units.reader);
  while (skimunit(units.reader, units.ahead) && sameid(units.ahead.id3, units.unit.id3)) take(units.ahead);
  seekunit(units.reader, position);
  for (std::size_t v = 0; v < width; ++v) units.mean2[v] = n[v] > 0 ? sum[v] / n[v] : 0.0;
}

double level2centre(const RecordUnits& units, std::size_t v) {
  return centre(run.model.center2[v + 1], units.mean2[v], run.mdm.mean2[v]);
}

void centerlevel1(RecordUnits& units) {
  for (std::size_t c = 0; c < units.shift.size(); ++c) {
    const int v = units.layout.column[c];
    if (v >= 0) units.shift[c] = centre(run.model.center1[at(v) + 1], units.unit.means[at(v)], run.mdm.mean1[at(v)]);
  }
}

// The outcome of a record of counts as a rate.
double rateof(const RecordUnits& units, const double* values, std::size_t record) {
  const double y = values[units.layout.outcome], n = values[units.layout.count];
  const bool trials = run.model.outcome.link() == Link::logit;
  if (y < 0.0 || n <= 0.0)
    stopwith("\nError: the outcome must be greater than or equal to 0.0, and the\n%s must be greater than 0.0\n",
             trials ? "number of trials" : "exposure");
  if (trials && y > n) stopwith("\nError: the outcome must be less than or equal to the number of trials.\n");
  if (units.counts != nullptr) (*units.counts)[record] = n;
  return y / n;
}

// The factor sqrt(w)/sqrt(v) of a record, from its design weight and its known variance.
double makefactor(std::size_t record, const double* values) {
  double factor = run.model.weighted ? std::sqrt(run.weights.weight1[record]) : 1.0;
  if (run.model.autovknown != 0) {
    const double variance = values[run.model.autovknown - 1];
    if (!(variance > 0.0)) {
      report("Variance known");
      report("Weights must be positive!\n");
      std::printf("Variance known");
      stopwith("Weights must be positive!\n");
    }
    factor /= std::sqrt(variance);
  }
  return run.weights.factor1[record] = factor;
}

// The products of the unit at hand; a record is x = (row of A, y), times its factor if it has one.
void addunit(RecordUnits& units, UnitProducts& products) {
  const RecordLayout& layout = units.layout;
  const int* column = layout.column.data();
  const double* shift = units.shift.data();
  const bool factors = havefactors();
  crossproducts(static_cast<int>(units.x.size()), units.unit.nj, products.AA.data(), units.x.data(),
                [&](auto n, int i, double* x) {
                  const double* values = units.unit.records.data() + at(i) * at(layout.width);
                  const std::size_t record = units.records + at(i);
                  for (int c = 0; c + 1 < n; ++c) x[c] = column[c] < 0 ? 1.0 : values[column[c]] - shift[c];
                  x[n - 1] = layout.count < 0 ? values[layout.outcome] : rateof(units, values, record);
                  if (!factors) return;
                  applyfactor(n, makefactor(record, values), run.model.weighted, x, products.AA2);
                });
}

}  // namespace

bool havefactors() { return run.model.weighted || run.model.autovknown != 0; }

RecordLayout mdmlayout() {
  RecordLayout layout;
  layout.width = run.mdm.nvar1;
  layout.outcome = layout.observed = run.model.outvar - 1;
  if (run.model.outcome.counted) layout.count = run.model.outcome.countvariable - 1;
  layout.place.reset(at(run.mdm.nvar1));
  for (std::size_t v = 0; v < layout.place.size(); ++v) layout.place[v] = static_cast<int>(v);
  layout.column.reset(at(run.model.coef.npi));
  std::size_t i = 0;
  for (const CoefficientRow& coefficient : modelrows().coefficients) layout.column[i++] = coefficient.variable - 1;
  return layout;
}

void layvariables(RecordLayout& layout) {
  layout.place.reset(at(run.mdm.nvar1));
  layout.place.fill(-1);
  if (layout.responses == 0) layout.place[at(run.model.outvar) - 1] = layout.observed;
  const auto lay = [&](int v) {
    int& place = layout.place[at(v) - 1];
    if (place < 0) place = layout.width++;
    return place;
  };
  layout.column.reset(at(run.model.coef.npi));
  std::size_t c = 0;
  for (const CoefficientRow& coefficient : modelrows().coefficients)
    layout.column[c++] = coefficient.variable == 0 || coefficient.threshold ? -1 : lay(coefficient.variable);
  for (std::size_t i = 0; i < at(run.out.nres1vars1); ++i) lay(run.out.res1vars1[i]);
}

void relayunit(const UnitBlock& block, const RecordLayout& given, UnitBlock& to, const RecordLayout& layout) {
  to.nj = block.nj;
  to.id2 = block.id2;
  to.id3 = block.id3;
  to.level2 = block.level2.copy();
  for (int i = 0; i < to.nj; ++i) {
    const double* values = block.records.data() + at(i) * at(given.width);
    double* row = to.records.data() + at(i) * at(layout.width);
    for (std::size_t v = 0; v < layout.place.size(); ++v)
      if (layout.place[v] >= 0) row[layout.place[v]] = values[given.place[v]];
  }
}

void beginproducts(UnitProducts& products, int k, const UnitBlock& block) {
  products.k = k;
  products.nj = block.nj;
  products.id2 = block.id2;
  std::copy_n(block.level2.data(), products.level2.size(), products.level2.data());
  products.AA2.fill(0.0);
}

void startrecords(RecordUnits& units) {
  units.layout = mdmlayout();
  units.mean2.reset(at(run.mdm.nvar2));
  units.shift.reset(units.layout.column.size());
  units.x.reset(units.layout.column.size() + 1);
  for (const int mark : run.model.center2) units.group2 = units.group2 || mark == 1;
  if (havefactors()) run.weights.factor1.reset(at(run.mdm.numl1rec));
  startunits(units.reader, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
}

bool nextblock(RecordUnits& units) {
  UnitBlock& unit = units.unit;
  do {
    if (!readunit(units.reader, unit)) return false;
    if (units.k < 0 || !sameid(unit.id3, units.current)) {
      if (++units.k >= run.mdm.nunits3) damagedmdm("it has more level-3 units than its table");
      units.current = unit.id3;
      if (units.group2) level3unitmeans(units);
    }
    if (!run.mdm.deletednow) {
      deleterecords(unit);
      retakemeans(unit);
    }
  } while (run.model.weighted && unit.nj == 0);  // the weights have no entry for such a unit
  return true;
}

void centerblock(RecordUnits& units) {
  UnitBlock& unit = units.unit;
  const auto width = at(run.mdm.nvar1);
  for (std::size_t v = 0; v < width; ++v) {
    const int mark = run.model.center1[v + 1];
    if (mark == 0) continue;
    const double mean = centre(mark, unit.means[v], run.mdm.mean1[v]);
    for (std::size_t i = 0; i < at(unit.nj); ++i) unit.records[i * width + v] -= mean;
  }
  for (std::size_t v = 0; v < at(run.mdm.nvar2); ++v) unit.level2[v] -= level2centre(units, v);
}

bool nextunit(RecordUnits& units, UnitProducts& products) {
  if (!nextblock(units)) return false;
  const UnitBlock& unit = units.unit;
  beginproducts(products, units.k, unit);
  centerlevel1(units);
  for (std::size_t v = 0; v < products.level2.size(); ++v) products.level2[v] -= level2centre(units, v);
  addunit(units, products);
  if (units.working != nullptr) {
    centerblock(units);
    writeunit(units.working, unit, run.mdm.nvar1, run.mdm.nvar2, false);
  }
  units.records += at(unit.nj);
  return true;
}

}  // namespace kdr
