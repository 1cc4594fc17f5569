#include "estimate/quasi/categorydata.h"

#include <algorithm>
#include <cmath>

#include "core/modelwalk.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/runpass.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

RecordLayout stackedlayout() {
  RecordLayout layout;
  const int M = run.model.outcome.categories - 1;
  layout.responses = M;
  layout.width = run.out.resfil1 ? 2 * M : M;
  layvariables(layout);
  return layout;
}

// The response of each column of D: the equation set of a multinomial coefficient, the cut of a threshold, or all.
std::vector<int> responserows() {
  std::vector<int> rows;
  for (const CoefficientRow& own : modelrows().coefficients)
    rows.push_back(!run.model.outcome.ordinal() ? own.set : own.threshold ? own.variable - run.mdm.nvar1 : -1);
  return rows;
}

// A data pass over stacked records: the pass that takes them, the working data of the record at hand, and the file.
struct Stacking {
  DataFold fold;
  const RecordLayout& layout;
  int M;
  std::vector<int> row;        // [npi] response of each column of D, -1: all of them
  Array<double> x;             // [npi] the entry of every column of D that is not 0
  Array<double> eta, p, z;     // [M]
  Array<double> W, Wz, total;  // M squared, [M], [M]: W times a vector of ones
  std::FILE* out;              // null, or where the records go
};

Stacking startstacking(Pass& pass, const PassPlan& plan, const RecordLayout& layout, bool writes) {
  beginpass(pass, plan);
  Stacking s{startfold(pass), layout, layout.responses, responserows(), {}, {}, {}, {}, {}, {}, {}, nullptr};
  s.x.reset(s.row.size());
  for (Array<double>* values : {&s.eta, &s.p, &s.z, &s.Wz, &s.total}) values->reset(at(s.M));
  s.W.reset(square(s.M));
  if (writes) s.out = startworking();
  return s;
}

void takepredictors(Stacking& s, const double* record) {
  for (std::size_t c = 0; c < s.x.size(); ++c) s.x[c] = s.layout.column[c] < 0 ? 1.0 : record[s.layout.column[c]];
}

// The products of one record whose x, eta and p stand. With the rows r(a), r(b) of the columns a and b of D,
// (D'WD)_ab = x_a x_b W_r(a)r(b); a column that stands in all rows takes the sums over them.
void addrecord(Stacking& s, double* record, std::size_t number) {
  const int M = s.M, n = static_cast<int>(s.x.size()) + 1;
  double* W = s.W.data();
  const double* z = s.z.data();
  if (!workingresponses(s.eta.data(), record, s.p.data(), M, s.z.data()) || !responseweights(s.p.data(), M, W))
    nearsingular();
  if (run.out.resfil1) std::copy_n(s.p.data(), M, record + M);
  double all = 0.0, allz = 0.0, zz = 0.0;
  for (int c = 0; c < M; ++c) {
    double sum = 0.0, sumz = 0.0;
    for (int d = 0; d < M; ++d) {
      sum += W[c * M + d];
      sumz += W[c * M + d] * z[d];
    }
    s.total[c] = sum;
    s.Wz[c] = sumz;
    all += sum;
    allz += sumz;
    zz += z[c] * sumz;
  }
  const double factor = run.model.weighted ? run.weights.factor1[number] : 1.0, weight = factor * factor;
  double* AA = s.fold.unit.AA.data();
  double* AA2 = run.model.weighted ? s.fold.unit.AA2.data() : nullptr;
  const auto put = [&](int a, int b, double value) {
    AA[a * n + b] += weight * value;
    if (AA2 != nullptr) AA2[a * n + b] += weight * weight * value;
  };
  for (int a = 0; a + 1 < n; ++a) {
    const int r = s.row[at(a)];
    for (int b = 0; b <= a; ++b) {
      const int t = s.row[at(b)];
      const double w = r < 0 ? (t < 0 ? all : s.total[t]) : t < 0 ? s.total[r] : W[r * M + t];
      put(a, b, s.x[a] * s.x[b] * w);
    }
    put(n - 1, a, s.x[a] * (r < 0 ? allz : s.Wz[r]));
  }
  put(n - 1, n - 1, zz);
}

// One level-2 unit of level-3 unit k into the pass and into the file. predict(record) makes eta and p of a record whose
// x stands.
template <class Predict>
void stackunit(Stacking& s, int k, UnitBlock& unit, Predict predict) {
  UnitProducts& products = s.fold.unit;
  beginproducts(products, k, unit);
  products.AA.fill(0.0);
  for (int i = 0; i < unit.nj; ++i) {
    double* record = unit.records.data() + at(i) * at(s.layout.width);
    takepredictors(s, record);
    predict();
    addrecord(s, record, s.fold.records + at(i));
  }
  foldunit(s.fold);
  if (s.out != nullptr) writeunit(s.out, unit, s.layout.width, run.mdm.nvar2, false);
}

void finishstacking(Stacking& s) {
  finishfold(s.fold);
  if (s.out != nullptr) finishworking(s.out);
}

}  // namespace

void preparecategoricaldata(const CategoryTable& table, MacroState& state, Pass& first, const PassPlan& plan) {
  state.layout = stackedlayout();
  Stacking s = startstacking(first, plan, state.layout, true);
  const std::vector<double> p = startingprobabilities(table);
  double last = 1.0;
  for (const double x : p) last -= x;
  for (std::size_t c = 0; c < p.size(); ++c) {
    s.p[c] = p[c];
    s.eta[c] = std::log(p[c] / (run.model.outcome.ordinal() ? 1.0 - p[c] : last));
  }

  RecordUnits units;
  startrecords(units);
  const std::size_t width = at(units.layout.width), newwidth = at(s.layout.width);
  UnitBlock stacked;
  stacked.records.reset(at(run.mdm.maxnj) * newwidth);
  while (nextblock(units)) {
    const UnitBlock& unit = units.unit;
    // The outcome before centering; a centered outcome is no category.
    for (int i = 0; i < unit.nj; ++i) {
      const double outcome = unit.records[at(i) * width + at(units.layout.observed)];
      double* indicator = stacked.records.data() + at(i) * newwidth;
      for (int c = 0; c < s.M; ++c) {
        const double value = table.value[at(c)];
        indicator[c] = (run.model.outcome.ordinal() ? outcome <= value : outcome == value) ? 1.0 : 0.0;
      }
      if (run.model.weighted) {
        const std::size_t record = s.fold.records + at(i);
        run.weights.factor1[record] = std::sqrt(run.weights.weight1[record]);
      }
    }
    centerblock(units);
    relayunit(unit, units.layout, stacked, s.layout);
    stackunit(s, units.k, stacked, [] {});
  }
  finishstacking(s);
}

void updatecategoricaldata(Pass& pass, MacroState& state, Pass& next, const PassPlan& plan) {
  constexpr double limit = 30.0, restart = 2.0;
  constexpr int lastrestart = 7;
  state.previous = run.est.copy();
  Stacking s = startstacking(next, plan, state.layout, run.out.resfil1);
  UnitMeans means = makeunitmeans(pass);
  Array<double> beta(at(pass.npi));
  const auto predict = [&] {
    s.eta.fill(0.0);
    double common = 0.0;  // of the columns that stand in all rows
    for (std::size_t c = 0; c < s.x.size(); ++c) (s.row[c] < 0 ? common : s.eta[s.row[c]]) += s.x[c] * beta[c];
    for (double& eta : s.eta) {
      eta += common;
      if (state.macro <= lastrestart && std::fabs(eta) > limit) eta = eta > 0.0 ? restart : -restart;
    }
    responseprobabilities(s.eta.data(), s.M, s.p.data());
  };
  startunits(state.reader, run.files.working, 0, s.layout.width, run.mdm.nvar2, false);
  UnitBlock unit;
  sweepunits(
      pass.n2of, [&](int k) { takeunitmeans(pass, k, state.previous.gammahat.data(), pass.vstar.row(k), means); },
      [&](int k, std::size_t j, const double* hot) {
        neededunit(state.reader, unit);
        level2coefficients(pass, unit.level2.data(), means.thetastar.data(), beta.data());
        addlevel2effects(pass, j, hot + pass.store.atustar, beta.data());
        stackunit(s, k, unit, predict);
      },
      [](int) {}, reading(pass.store.hot));
  finishstacking(s);
}

}  // namespace kdr
