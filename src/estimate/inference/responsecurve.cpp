#include "estimate/inference/responsecurve.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "estimate/quasi/family.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

ResponseCurve emptycurve(const Outcome& outcome, int M) {
  ResponseCurve curve{M, outcome.categorical() ? M + 1 : 1, {}, {}, {}};
  curve.mean.reset(at(curve.K));
  curve.first.reset(at(curve.K) * at(M));
  curve.second.reset(at(curve.K) * square(M));
  return curve;
}

namespace {

// The logistic curve, its slope and the slope of that.
struct LogitCurve {
  double mean, first, second;
};
LogitCurve logitcurve(double eta) {
  const LogitMean at = logitmean(eta);
  const double tail = at.small / (1.0 + at.small);  // of the farther side
  return {at.mu, at.variance, at.variance * (eta >= 0.0 ? 2.0 * tail - 1.0 : 1.0 - 2.0 * tail)};
}

// Probabilities of ordered categories: differences of cumulative ones, P_c = logit^-1(eta_c).
void takeordinal(const std::vector<LogitCurve>& cumulative, ResponseCurve& curve) {
  const std::size_t M = at(curve.M);
  curve.first.fill(0.0);
  curve.second.fill(0.0);
  for (std::size_t k = 0; k <= M; ++k) {
    curve.mean[k] = (k < M ? cumulative[k].mean : 1.0) - (k > 0 ? cumulative[k - 1].mean : 0.0);
    const auto add = [&](std::size_t c, double sign) {
      curve.first[k * M + c] = sign * cumulative[c].first;
      curve.second[(k * M + c) * M + c] = sign * cumulative[c].second;
    };
    if (k < M) add(k, 1.0);
    if (k > 0) add(k - 1, -1.0);
  }
}

// p_k = exp(eta_k) / (1 + sum exp(eta_m)), the last category without a predictor: dp_k/dm = p_k (1[k = m] - p_m) and
// d2p_k/dm dn = p_k ((1[k = m] - p_m) (1[k = n] - p_n) - p_m (1[m = n] - p_n)).
void takemultinomial(const double* eta, ResponseCurve& curve) {
  const std::size_t M = at(curve.M);
  double largest = 0.0, sum = 0.0;
  for (std::size_t m = 0; m < M; ++m) largest = std::max(largest, eta[m]);
  for (std::size_t k = 0; k <= M; ++k) sum += curve.mean[k] = std::exp((k < M ? eta[k] : 0.0) - largest);
  for (double& p : curve.mean) p /= sum;
  const double* p = curve.mean.data();
  const auto less = [&](std::size_t k, std::size_t m) { return (k == m ? 1.0 : 0.0) - p[m]; };
  for (std::size_t k = 0; k <= M; ++k)
    for (std::size_t m = 0; m < M; ++m) {
      curve.first[k * M + m] = p[k] * less(k, m);
      for (std::size_t n = 0; n < M; ++n)
        curve.second[(k * M + m) * M + n] = p[k] * (less(k, m) * less(k, n) - p[m] * less(m, n));
    }
}

void takesingle(const LogitCurve& at, double count, ResponseCurve& curve) {
  curve.mean[0] = count * at.mean;
  curve.first[0] = count * at.first;
  curve.second[0] = count * at.second;
}

// Mean over N(eta, variance) of the logistic curve and its derivatives, by the trapezoidal rule in z = (x - eta) / s.
// The integrand's nearest poles are pi / s away, so the rule's error falls as exp(-2 pi^2 / (s h)), and as exp(-2 pi^2
// / h^2) for the normal density: both are rounding at h = min(1/2, 0.55 / s).
LogitCurve averagedlogit(double eta, double variance) {
  if (!(variance > 0.0)) return logitcurve(eta);
  constexpr double reach = 8.5, most = 20000.0;
  const double s = std::sqrt(variance);
  const double n = std::min(std::ceil(reach / std::min(0.5, 0.55 / s)), most), h = reach / n;
  LogitCurve sum{0.0, 0.0, 0.0};
  double total = 0.0;
  for (double i = -n; i <= n; ++i) {
    const double z = i * h, weight = std::exp(-0.5 * z * z);
    const LogitCurve at = logitcurve(eta + s * z);
    total += weight;
    sum.mean += weight * at.mean;
    sum.first += weight * at.first;
    sum.second += weight * at.second;
  }
  return {sum.mean / total, sum.first / total, sum.second / total};
}

// The mean over N(eta, S) of the multinomial curve: the trapezoidal rule in as many dimensions as S has, or, where
// that would be too many points, a lattice in the unit cube, folded (baker's transformation) and taken to the normal.
struct NormalNodes {
  int dimensions = 0;
  std::vector<double> z, weights;  // node by node
};

NormalNodes tensornodes(int dimensions, double largestsd) {
  constexpr double reach = 6.5;
  const double h = std::min(0.8, 0.9 / largestsd);
  const int n = static_cast<int>(std::ceil(reach / h)), side = 2 * n + 1;
  NormalNodes nodes{dimensions, {}, {}};
  std::vector<int> digit(at(dimensions), -n);
  for (double total = std::pow(side, dimensions); total > 0.5; total -= 1.0) {
    double squares = 0.0;
    for (const int i : digit) {
      nodes.z.push_back(i * reach / n);
      squares += nodes.z.back() * nodes.z.back();
    }
    nodes.weights.push_back(std::exp(-0.5 * squares));
    for (std::size_t a = 0; a < digit.size() && ++digit[a] > n; ++a) digit[a] = -n;
  }
  return nodes;
}

// The point below which a share p of the normal distribution lies, by Newton's steps on its logarithm.
double normalpoint(double p) {
  if (p > 0.5) return -normalpoint(1.0 - p);
  double z = p > 0.02 ? 0.0 : -std::sqrt(-2.0 * std::log(p));
  for (int step = 0; step < 60; ++step) {
    const double tail = 0.5 * std::erfc(-z / std::sqrt(2.0)), density = std::exp(-0.5 * z * z) / std::sqrt(2.0 * M_PI);
    const double move = tail * (std::log(p) - std::log(tail)) / density;
    z += move;
    if (std::fabs(move) < 1e-13) break;
  }
  return z;
}

NormalNodes latticenodes(int dimensions) {
  constexpr int points = 16381, generator = 3021;
  NormalNodes nodes{dimensions, {}, std::vector<double>(points, 1.0)};
  for (int i = 0; i < points; ++i) {
    long long power = 1;
    for (int a = 0; a < dimensions; ++a, power = power * generator % points) {
      const double x = (static_cast<double>(i * power % points) + 0.5) / points;
      const double folded = x < 0.5 ? 2.0 * x : 2.0 - 2.0 * x;
      nodes.z.push_back(normalpoint(std::clamp(folded, 0.5 / points, 1.0 - 0.5 / points)));
    }
  }
  return nodes;
}

// S = R R', R with a column for each dimension; the largest standard deviation of a column comes back.
double rootof(const Array<double>& S, int M, int& rank, Array<double>& R) {
  Array<double> values(at(M)), Q(square(M));
  spectrum(at(M), S.data(), values.data(), Q.data());
  const double largest = std::max(values[at(M) - 1], 0.0);
  rank = 0;
  for (const double value : values) rank += value > 1e-14 * largest ? 1 : 0;
  R.reset(at(M) * at(rank));
  for (int r = 0; r < rank; ++r)
    for (int m = 0; m < M; ++m) R[at(m * rank + r)] = Q[at(m * M + M - rank + r)] * std::sqrt(values[at(M - rank + r)]);
  return std::sqrt(largest);
}

void averagemultinomial(const double* eta, const Array<double>& S, ResponseCurve& curve) {
  constexpr double mosttensor = 60000.0;
  const int M = curve.M;
  int rank = 0;
  Array<double> R;
  const double sd = rootof(S, M, rank, R);
  if (rank == 0) return takemultinomial(eta, curve);
  // Records of one design have one S: its nodes are kept.
  static thread_local NormalNodes kept;
  static thread_local double keptsd = -1.0;
  const double side = 2.0 * std::ceil(6.5 / std::min(0.8, 0.9 / sd)) + 1.0;
  const bool tensor = std::pow(side, rank) <= mosttensor;
  const double mark = tensor ? side : 0.0;
  if (kept.dimensions != rank || keptsd != mark) {
    kept = tensor ? tensornodes(rank, sd) : latticenodes(rank);
    keptsd = mark;
  }
  ResponseCurve here = emptycurve({Family::multinomial, M + 1}, M);
  Array<double> moved(at(M));
  double total = 0.0;
  for (Array<double>* sum : {&curve.mean, &curve.first, &curve.second}) sum->fill(0.0);
  for (std::size_t i = 0; i < kept.weights.size(); ++i) {
    const double* z = kept.z.data() + i * at(rank);
    for (int m = 0; m < M; ++m) {
      moved[at(m)] = eta[m];
      for (int r = 0; r < rank; ++r) moved[at(m)] += R[at(m * rank + r)] * z[r];
    }
    takemultinomial(moved.data(), here);
    const double weight = kept.weights[i];
    total += weight;
    for (std::size_t k = 0; k < here.mean.size(); ++k) curve.mean[k] += weight * here.mean[k];
    for (std::size_t k = 0; k < here.first.size(); ++k) curve.first[k] += weight * here.first[k];
    for (std::size_t k = 0; k < here.second.size(); ++k) curve.second[k] += weight * here.second[k];
  }
  for (Array<double>* sum : {&curve.mean, &curve.first, &curve.second})
    for (double& value : *sum) value /= total;
}

}  // namespace

void responsecurve(const Outcome& outcome, const double* eta, double count, ResponseCurve& curve) {
  switch (outcome.link()) {
    case Link::identity:
      return takesingle({eta[0], 1.0, 0.0}, 1.0, curve);
    case Link::log: {
      const double rate = std::exp(eta[0]);
      return takesingle({rate, rate, rate}, count, curve);
    }
    case Link::logit:
      return takesingle(logitcurve(eta[0]), 1.0, curve);
    case Link::cumulativelogit: {
      std::vector<LogitCurve> cumulative;
      for (int m = 0; m < curve.M; ++m) cumulative.push_back(logitcurve(eta[m]));
      return takeordinal(cumulative, curve);
    }
    case Link::baselinelogit:
      return takemultinomial(eta, curve);
  }
}

void averagedcurve(const Outcome& outcome, const double* eta, const Array<double>& S, double count,
                   ResponseCurve& curve) {
  switch (outcome.link()) {
    case Link::identity:
      return responsecurve(outcome, eta, count, curve);
    case Link::log: {
      const double rate = std::exp(eta[0] + 0.5 * S[0]);
      return takesingle({rate, rate, rate}, count, curve);
    }
    case Link::logit:
      return takesingle(averagedlogit(eta[0], S[0]), 1.0, curve);
    case Link::cumulativelogit: {
      std::vector<LogitCurve> cumulative;
      for (int m = 0; m < curve.M; ++m) cumulative.push_back(averagedlogit(eta[m], S[at(m * curve.M + m)]));
      return takeordinal(cumulative, curve);
    }
    case Link::baselinelogit:
      return averagemultinomial(eta, S, curve);
  }
}

}  // namespace kdr
