#include "nonlinear/categorydata.h"

#include <algorithm>
#include <cmath>

#include "driver/failures.h"
#include "kernel/sizes.h"
#include "model/modelwalk.h"

namespace kdr {

namespace {

RecordLayout stackedlayout() {
  RecordLayout layout;
  const int M = run.kind.ncat - 1;
  layout.raw = false;
  layout.responses = M;
  layout.width = 4 * M;
  layout.place.reset(at(run.mdm.nvar1));
  layout.place.fill(-1);
  const auto carry = [&](int v) {
    int& place = layout.place[at(v) - 1];
    if (place < 0) place = layout.width++;
    return place;
  };
  layout.column.reset(at(run.coef.npi));
  std::size_t c = 0;
  for (const CoefficientRow& own : modelrows().coefficients)
    layout.column[c++] = own.variable == 0 || own.threshold ? -1 : carry(own.variable);
  for (std::size_t i = 0; i < at(run.model.nres1vars1); ++i) carry(run.model.res1vars1[i]);
  return layout;
}

// The response of each column of D: the equation set of a multinomial coefficient, the cut of a threshold, or all.
std::vector<int> responserows() {
  std::vector<int> rows;
  for (const CoefficientRow& own : modelrows().coefficients)
    rows.push_back(!run.kind.ordinal ? own.set : own.threshold ? own.variable - run.mdm.nvar1 : -1);
  return rows;
}

// The entry of every column of D that is not 0.
void predictors(const RecordLayout& layout, const double* record, Array<double>& x) {
  for (std::size_t c = 0; c < x.size(); ++c) x[c] = layout.column[c] < 0 ? 1.0 : record[layout.column[c]];
}

}  // namespace

void preparecategoricaldata(const CategoryTable& table, MacroState& state) {
  const int M = run.kind.ncat - 1;
  state.layout = stackedlayout();
  const RecordLayout& to = state.layout;
  const std::vector<double> p = startingprobabilities(table);
  std::vector<double> eta(p.size());
  double last = 1.0;
  for (const double x : p) last -= x;
  for (std::size_t c = 0; c < p.size(); ++c) eta[c] = std::log(p[c] / (run.kind.ordinal ? 1.0 - p[c] : last));

  RecordUnits units;
  startrecords(units, mdmlayout(true), run.mdm.stream, run.mdm.firstblock);
  std::FILE* out = startworking();
  UnitBlock stacked;
  while (nextblock(units)) {
    checksignals();
    const UnitBlock& unit = units.unit;
    // The outcome before centering; a centered outcome is no category.
    std::vector<double> outcomes(at(unit.nj));
    for (std::size_t i = 0; i < outcomes.size(); ++i)
      outcomes[i] = unit.records[i * at(units.layout.width) + at(units.layout.observed)];
    centerblock(units);
    if (stacked.records.size() < at(unit.nj) * at(to.width)) stacked.records.reset(at(unit.nj) * at(to.width));
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
      const double* values = unit.records.data() + i * at(units.layout.width);
      double* row = stacked.records.data() + i * at(to.width);
      double* indicator = row + 2 * M;
      for (int c = 0; c < M; ++c) {
        const double value = table.value[at(c)];
        indicator[c] = (run.kind.ordinal ? outcomes[i] <= value : outcomes[i] == value) ? 1.0 : 0.0;
      }
      std::copy(eta.begin(), eta.end(), row + M);
      std::copy(p.begin(), p.end(), row + 3 * M);
      if (!workingresponses(eta.data(), indicator, p.data(), M, row)) nearsingular();
      for (std::size_t v = 0; v < to.place.size(); ++v)
        if (to.place[v] >= 0) row[to.place[v]] = values[v];
      if (run.kind.weighted) run.weights.factor1[units.records + i] = std::sqrt(run.weights.weight1[units.records + i]);
    }
    units.records += outcomes.size();
    stacked.nj = unit.nj;
    stacked.id2 = unit.id2;
    stacked.id3 = unit.id3;
    if (stacked.level2.size() != unit.level2.size()) stacked.level2.reset(unit.level2.size());
    std::copy(unit.level2.begin(), unit.level2.end(), stacked.level2.begin());
    writeunit(out, stacked, to.width, run.mdm.nvar2, false);
  }
  finishworking(out);
}

void updatecategoricaldata(Pass& pass, MacroState& state) {
  constexpr double limit = 30.0, restart = 2.0;
  constexpr int lastrestart = 7;
  const RecordLayout& layout = state.layout;
  const int M = layout.responses;
  const std::vector<int> rows = responserows();
  const Design& design = pass.design;
  Array<double> weights(design.owner3.size()), theta(at(pass.nbeta)), thetastar(at(pass.nbeta)), beta(at(pass.npi));
  Array<double> x(at(pass.npi));
  std::FILE* out = startworking();
  UnitReader reader;
  startunits(reader, run.files.working, 0, layout.width, run.mdm.nvar2, false);
  UnitBlock unit;
  const auto updaterecord = [&](double* record) {
    double *z = record, *eta = record + M, *indicator = record + 2 * M, *p = record + 3 * M;
    predictors(layout, record, x);
    std::fill_n(eta, M, 0.0);
    double common = 0.0;  // of the columns that stand in all rows
    for (std::size_t c = 0; c < x.size(); ++c) (rows[c] < 0 ? common : eta[rows[c]]) += x[c] * beta[c];
    for (int c = 0; c < M; ++c) {
      eta[c] += common;
      if (state.macro <= lastrestart && std::fabs(eta[c]) > limit) eta[c] = eta[c] > 0.0 ? restart : -restart;
    }
    responseprobabilities(eta, M, p);
    if (!workingresponses(eta, indicator, p, M, z)) nearsingular();
  };
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3weights(pass, k, weights.data());
        level2means(pass, weights.data(), run.est.gammahat.data(), theta.data());
        addlevel3effects(pass, k, pass.vstar.row(k), theta.data(), thetastar.data());
      },
      [&](int, std::size_t j, const double* hot) {
        if (!readunit(reader, unit)) stopwith("The working data file is damaged: it is cut off.\n");
        level2coefficients(pass, unit.level2.data(), thetastar.data(), beta.data());
        addlevel2effects(pass, j, hot + pass.store.atustar, beta.data());
        for (int i = 0; i < unit.nj; ++i) updaterecord(unit.records.data() + at(i) * at(layout.width));
        writeunit(out, unit, layout.width, run.mdm.nvar2, false);
      },
      [](int) {}, reading(pass.store.hot));
  finishworking(out);
  state.previous = run.est.copy();
}

void startcategories(CategoryUnits& units, const RecordLayout& layout) {
  units.layout = &layout;
  units.row = responserows();
  units.W.reset(square(layout.responses));
  units.Wz.reset(at(layout.responses));
  units.total.reset(at(layout.responses));
  units.x.reset(units.row.size());
  startunits(units.reader, run.files.working, 0, layout.width, run.mdm.nvar2, false);
}

namespace {

// The products of one record. With the rows r(a), r(b) of the columns a and b of D, (D'WD)_ab = x_a x_b W_r(a)r(b); a
// column that stands in all rows takes the sums over them.
void addrecord(CategoryUnits& units, const double* record, double weight, double* AA, double* AA2) {
  const int M = units.layout->responses, n = static_cast<int>(units.x.size()) + 1;
  const double* z = record;
  double* W = units.W.data();
  predictors(*units.layout, record, units.x);
  if (!responseweights(record + 3 * M, M, W)) nearsingular();
  double all = 0.0, allz = 0.0, zz = 0.0;
  for (int c = 0; c < M; ++c) {
    double sum = 0.0, sumz = 0.0;
    for (int d = 0; d < M; ++d) {
      sum += W[c * M + d];
      sumz += W[c * M + d] * z[d];
    }
    units.total[c] = sum;
    units.Wz[c] = sumz;
    all += sum;
    allz += sumz;
    zz += z[c] * sumz;
  }
  const auto put = [&](int a, int b, double value) {
    AA[a * n + b] += weight * value;
    if (AA2 != nullptr) AA2[a * n + b] += weight * weight * value;
  };
  for (int a = 0; a + 1 < n; ++a) {
    const int r = units.row[at(a)];
    for (int b = 0; b <= a; ++b) {
      const int s = units.row[at(b)];
      const double w = r < 0 ? (s < 0 ? all : units.total[s]) : s < 0 ? units.total[r] : W[r * M + s];
      put(a, b, units.x[a] * units.x[b] * w);
    }
    put(n - 1, a, units.x[a] * (r < 0 ? allz : units.Wz[r]));
  }
  put(n - 1, n - 1, zz);
}

}  // namespace

bool nextunit(CategoryUnits& units, UnitProducts& products) {
  UnitBlock& unit = units.unit;
  if (!readunit(units.reader, unit)) return false;
  if (units.k < 0 || !sameid(unit.id3, units.current)) {
    ++units.k;
    units.current = unit.id3;
  }
  products.k = units.k;
  products.nj = unit.nj;
  products.id2 = unit.id2;
  std::copy_n(unit.level2.data(), products.level2.size(), products.level2.data());
  products.AA.fill(0.0);
  products.AA2.fill(0.0);
  for (int i = 0; i < unit.nj; ++i) {
    const double factor = run.kind.weighted ? run.weights.factor1[units.records + at(i)] : 1.0;
    addrecord(units, unit.records.data() + at(i) * at(units.layout->width), factor * factor, products.AA.data(),
              run.kind.weighted ? products.AA2.data() : nullptr);
  }
  units.records += at(unit.nj);
  return true;
}

}  // namespace kdr
