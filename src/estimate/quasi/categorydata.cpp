#include "estimate/quasi/categorydata.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/modelwalk.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/runpass.h"
#include "estimate/quasi/family.h"
#include "estimate/quasi/fixedrows.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

RecordLayout stackedlayout(const Analysis& analysis) {
  RecordLayout layout;
  const int M = analysis.model.outcome.categories - 1;
  layout.responses = M;
  layout.width = analysis.wanted.fitted ? 2 * M : M;
  layvariables(analysis, layout);
  return layout;
}

// The fixed effects of the thresholds, in the order of their responses, the second one first.
std::vector<int> thresholdeffects(const Analysis& analysis) {
  const ModelRows rows = modelrows(analysis.model);
  const std::vector<int> reduced = reducedeffects(rows);
  std::vector<int> effects;
  for (std::size_t i = 0; i < rows.effects.size(); ++i)
    if (rows.owner(rows.effects[i]).threshold) effects.push_back(reduced[i]);
  return effects;
}

// The fixed effects that the first working data are made from: an intercept and the thresholds, the rest 0.
void startworkinggamma(const Pass& pass, MacroState& state, const Array<double>& eta) {
  state.workinggamma.reset(at(pass.g));
  if (!pass.model().outcome.ordinal()) return;
  const ModelRows rows = modelrows(state.analysis.model);
  const std::vector<int> reduced = reducedeffects(rows);
  for (std::size_t i = 0; i < rows.effects.size(); ++i)
    if (rows.owner(rows.effects[i]).variable == 0 && rows.termof(rows.effects[i]).variable == 0 &&
        rows.effects[i].variable == 0)
      state.workinggamma[reduced[i]] = eta[0];
  std::size_t response = 1;
  for (const int g : thresholdeffects(state.analysis)) state.workinggamma[g] = eta[response++] - eta[0];
}

// How far the step from the fixed effects `from` to `to` may go for the thresholds to stay in order: 1 when all of it
// may, else to where the distance of two thresholds, or of the first from 0, is a fifth of what it was.
double orderedshare(const std::vector<int>& thresholds, const Array<double>& from, const Array<double>& to) {
  constexpr double least = 0.2;
  double share = 1.0, frombelow = 0.0, tobelow = 0.0;
  for (const int g : thresholds) {
    const double before = from[g] - frombelow, now = to[g] - tobelow;
    if (now < least * before) share = std::min(share, (1.0 - least) * before / (before - now));
    frombelow = from[g];
    tobelow = to[g];
  }
  return share;
}

// A record of categories whose predictors lie beyond the limit starts again near 0: each response of a multinomial one,
// an ordinal one as a whole, so that its predictors keep their order.
void bringback(const Outcome& outcome, Array<double>& eta) {
  constexpr double limit = 30.0, restart = 2.0;
  if (!outcome.ordinal()) {
    for (double& x : eta)
      if (std::fabs(x) > limit) x = x > 0.0 ? restart : -restart;
    return;
  }
  double shift = 0.0;
  if (eta[0] > limit) shift = restart - eta[0];
  if (eta[eta.size() - 1] < -limit) shift = -restart - eta[eta.size() - 1];
  if (shift != 0.0)
    for (double& x : eta) x += shift;
}

// A data pass over stacked records: the pass that takes them, the working data of the record at hand, and the file.
struct Stacking {
  DataFold fold;
  MacroState& state;
  const RecordLayout& layout;
  int M;
  std::vector<int> row;        // [npi] response of each column of D, -1: all of them
  Array<double> x;             // [npi] the entry of every column of D that is not 0
  Array<double> eta, p, z;     // [M]
  Array<double> W, Wz, total;  // M squared, [M], [M]: W times a vector of ones
  int saturated = 0;           // responses that have next to no say
  WorkingFile out{};           // where the records go, if it is open
  Failure failure{};           // the first; units behind it are passed over
};

// Of a pass that has begun.
Stacking startstacking(Pass& pass, MacroState& state, bool writes) {
  const RecordLayout& layout = state.layout;
  Stacking s{
      startfold(pass), state, layout, layout.responses, responserows(state.analysis), {}, {}, {}, {}, {}, {}, {}};
  s.x.reset(s.row.size());
  for (Array<double>* values : {&s.eta, &s.p, &s.z, &s.Wz, &s.total}) values->reset(at(s.M));
  s.W.reset(square(s.M));
  if (writes) s.failure = startworking(s.out);
  return s;
}

void takepredictors(Stacking& s, const double* record) {
  for (std::size_t c = 0; c < s.x.size(); ++c) s.x[c] = s.layout.column[c] < 0 ? 1.0 : record[s.layout.column[c]];
}

// The products of one record whose x, eta and p stand. With the rows r(a), r(b) of the columns a and b of D,
// (D'WD)_ab = x_a x_b W_r(a)r(b); a column that stands in all rows takes the sums over them.
void addrecord(Stacking& s, double* record, std::size_t number) {
  const Analysis& analysis = s.state.analysis;
  const Outcome& outcome = analysis.model.outcome;
  const int M = s.M, n = static_cast<int>(s.x.size()) + 1;
  double* W = s.W.data();
  const double* z = s.z.data();
  if (!workingresponses(outcome, s.eta.data(), record, s.p.data(), M, s.z.data()) ||
      !responseweights(outcome, s.eta.data(), s.p.data(), M, W)) {
    s.failure = nearsingular();
    return;
  }
  if (analysis.wanted.fitted) std::copy_n(s.p.data(), M, record + M);
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
  for (int c = 0; c < M; ++c)
    if (logitmean(s.eta[c]).variance < leastweight) ++s.saturated;
  const bool weighted = analysis.model.weighted;
  const double factor = weighted ? s.state.factors[number] : 1.0, weight = factor * factor;
  double* AA = s.fold.unit.AA.data();
  double* AA2 = weighted ? s.fold.unit.AA2.data() : nullptr;
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
  for (int i = 0; i < unit.nj && !s.failure; ++i) {
    double* record = unit.records.data() + at(i) * at(s.layout.width);
    takepredictors(s, record);
    predict();
    addrecord(s, record, s.fold.records + at(i));
  }
  if (s.failure) return;
  foldunit(s.fold);
  if (s.out.isopen())
    writeunit(s.out.file(), unit, s.layout.width, s.state.analysis.mdm.nvar2, false, s.state.analysis.mdm.numericids);
}

Failure finishstacking(Stacking& s) {
  if (s.failure) return std::move(s.failure);
  s.state.saturated = s.saturated;
  if (Failure failure = finishfold(s.fold)) return failure;
  return s.out.isopen() ? finishworking(std::move(s.out), s.state.working) : Failure{};
}

}  // namespace

Failure preparecategoricaldata(const CategoryTable& table, MacroState& state, Pass& first, const PassPlan& plan) {
  const Analysis& analysis = state.analysis;
  const bool ordinal = analysis.model.outcome.ordinal(), weighted = analysis.model.weighted;
  state.layout = stackedlayout(analysis);
  if (Failure failure = beginpass(first, analysis, plan)) return failure;
  Stacking s = startstacking(first, state, true);
  const std::vector<double> p = startingprobabilities(analysis.model.outcome, table);
  double last = 1.0;
  for (const double x : p) last -= x;
  for (std::size_t c = 0; c < p.size(); ++c) {
    s.p[c] = p[c];
    s.eta[c] = std::log(p[c] / (ordinal ? 1.0 - p[c] : last));
  }
  startworkinggamma(first, state, s.eta);

  RecordUnits units;
  startrecords(units, analysis);
  if (weighted) state.factors.reset(at(analysis.mdm.numl1rec));
  const std::size_t width = at(units.layout.width), newwidth = at(s.layout.width);
  UnitBlock stacked;
  stacked.records.reset(at(analysis.mdm.maxnj) * newwidth);
  while (!s.failure && nextblock(units)) {
    const UnitBlock& unit = units.unit;
    // The outcome before centering; a centered outcome is no category.
    for (int i = 0; i < unit.nj; ++i) {
      const double outcome = unit.records[at(i) * width + at(units.layout.observed)];
      double* indicator = stacked.records.data() + at(i) * newwidth;
      for (int c = 0; c < s.M; ++c) {
        const double value = table.value[at(c)];
        indicator[c] = (ordinal ? outcome <= value : outcome == value) ? 1.0 : 0.0;
      }
      if (weighted) {
        const std::size_t record = s.fold.records + at(i);
        state.factors[record] = std::sqrt(analysis.weights.weight1[record]);
      }
    }
    centerblock(units);
    relayunit(unit, units.layout, stacked, s.layout);
    stackunit(s, units.k, stacked, [] {});
  }
  if (units.failure) return units.failure;
  tellobserver(analysis.observer.recordsread, units.hash);
  return finishstacking(s);
}

Failure updatecategoricaldata(Pass& pass, MacroState& state, Pass& next, const PassPlan& plan) {
  const Analysis& analysis = state.analysis;
  constexpr int lastrestart = 7;
  state.previous = pass.est.copy();
  const double share = orderedshare(thresholdeffects(analysis), state.workinggamma, state.previous.gammahat);
  state.shortened = share < 1.0;
  for (std::size_t g = 0; g < state.workinggamma.size(); ++g) {
    double& working = state.workinggamma[g];
    working = state.shortened ? working + share * (state.previous.gammahat[g] - working) : state.previous.gammahat[g];
  }
  if (Failure failure = beginpass(next, analysis, plan)) return failure;
  Stacking s = startstacking(next, state, analysis.wanted.fitted);
  UnitMeans means = makeunitmeans(pass);
  Array<double> beta(at(pass.npi));
  const auto predict = [&] {
    s.eta.fill(0.0);
    double common = 0.0;  // of the columns that stand in all rows
    for (std::size_t c = 0; c < s.x.size(); ++c) (s.row[c] < 0 ? common : s.eta[s.row[c]]) += s.x[c] * beta[c];
    for (double& eta : s.eta) eta += common;
    if (state.macro <= lastrestart) bringback(analysis.model.outcome, s.eta);
    responseprobabilities(analysis.model.outcome, s.eta.data(), s.M, s.p.data());
  };
  startunits(state.reader, analysis.mdm, state.working.file(), 0, s.layout.width, analysis.mdm.nvar2, false);
  UnitBlock unit;
  sweepunits(
      pass.n2of, [&](int k) { takeunitmeans(pass, k, state.workinggamma.data(), pass.vstar.row(k), means); },
      [&](int k, std::size_t j, const double* hot) {
        if (s.failure) return;
        if (!neededunit(state.reader, unit)) s.failure = state.reader.failure;
        if (s.failure) return;
        level2coefficients(pass, unit.level2.data(), means.thetastar.data(), beta.data());
        addlevel2effects(pass, j, hot + pass.store.atustar, beta.data());
        stackunit(s, k, unit, predict);
      },
      [](int) {}, reading(pass.store.hot));
  if (!s.failure) s.failure = storefailure(pass.store);
  return finishstacking(s);
}

}  // namespace kdr
