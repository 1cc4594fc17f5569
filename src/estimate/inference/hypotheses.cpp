// Multivariate Wald tests of contrasts among the fixed effects.
#include <cmath>

#include "estimate/inference/teststatistics.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// The rows of A = C L (r by n), orthogonal with the lengths on the diagonal of R: A = R Q, R lower triangular with
// W = A A' = R R'. Rows are scaled to unit length first; `scale` has their lengths, which are the standard errors of
// the contrasts. False when a row lies in the space of those before it.
bool orthogonalise(Array<double>& A, int r, int n, Array<double>& R, Array<double>& scale) {
  constexpr double dependent = 1.0e-9;
  const auto row = [&](int i) { return A.data() + static_cast<std::ptrdiff_t>(i) * n; };
  const auto dot = [&](const double* a, const double* b) {
    double sum = 0.0;
    for (int k = 0; k < n; ++k) sum += a[k] * b[k];
    return sum;
  };
  for (int i = 0; i < r; ++i) {
    scale[i] = std::sqrt(dot(row(i), row(i)));
    if (!(scale[i] > 0.0) || !std::isfinite(scale[i])) return false;
    for (int k = 0; k < n; ++k) row(i)[k] /= scale[i];
    // Twice is enough: what the first round leaves of the rows before goes in the second.
    for (int round = 0; round < 2; ++round)
      for (int j = 0; j < i; ++j) {
        const double part = dot(row(i), row(j));
        R[i * r + j] += part;
        for (int k = 0; k < n; ++k) row(i)[k] -= part * row(j)[k];
      }
    const double left = std::sqrt(dot(row(i), row(i)));
    if (!(left > dependent)) return false;
    R[i * r + i] = left;
    for (int k = 0; k < n; ++k) row(i)[k] /= left;
  }
  return true;
}

// R^-1 x, R lower triangular.
void solvelower(const Array<double>& R, int r, double* x) {
  for (int i = 0; i < r; ++i) {
    for (int j = 0; j < i; ++j) x[i] -= R[i * r + j] * x[j];
    x[i] /= R[i * r + i];
  }
}

// A test under one covariance: e and its standard errors, and the factor of W.
struct Contrasts {
  Array<double> e, errors;  // [r]
  Array<double> R;          // r squared, of W scaled to a unit diagonal
  double statistic = 0.0;   // e' W^-1 e
};

// False when the contrasts are not independent under the covariance.
bool computecontrasts(const WaldTest& test, const Array<double>& gamma, const Array<double>& covariance,
                      Contrasts& made) {
  const int r = test.r, n = test.n;
  made = {Array<double>(at(r)), Array<double>(at(r)), Array<double>(square(r))};
  mulAB(made.e.data(), test.C.data(), gamma.data(), r, 1, n);
  if (r > n) return false;
  constexpr double nothing = 1.0e-13;
  Array<double> L(square(n));
  lowerroot(covariance.data(), n, nothing, L.data());
  Array<double> A(at(r) * at(n));
  mulAB(A.data(), test.C.data(), L.data(), r, n, n);
  if (!orthogonalise(A, r, n, made.R, made.errors)) return false;
  Array<double> x(at(r));
  for (int i = 0; i < r; ++i) x[i] = made.e[i] / made.errors[i];
  solvelower(made.R, r, x.data());
  for (const double value : x) made.statistic += value * value;
  return std::isfinite(made.statistic);
}

// tr(B U^-1) of the contrasts, from the factor of U.
double relativespread(const WaldTest& test, const Array<double>& spread, const Contrasts& within) {
  const int r = test.r, n = test.n;
  Array<double> CB(at(r) * at(n)), B(square(r)), column(at(r));
  mulAB(CB.data(), test.C.data(), spread.data(), r, n, n);
  mulABt(B.data(), CB.data(), test.C.data(), r, r, n);
  for (int i = 0; i < r; ++i)
    for (int j = 0; j < r; ++j) B[i * r + j] /= within.errors[i] * within.errors[j];
  // R^-1 B R'^-1: its trace. First every column, then every row of what that makes.
  double trace = 0.0;
  for (int pass = 0; pass < 2; ++pass)
    for (int j = 0; j < r; ++j) {
      for (int i = 0; i < r; ++i) column[i] = pass == 0 ? B[i * r + j] : B[j * r + i];
      solvelower(within.R, r, column.data());
      for (int i = 0; i < r; ++i) (pass == 0 ? B[i * r + j] : B[j * r + i]) = column[i];
      if (pass == 1) trace += column[j];
    }
  return trace;
}

ChiSquareTest pooledtest(const WaldTest& test, const Between& between, const Contrasts& within) {
  const double r = test.r, t = r * (between.M - 1), s = relativespread(test, between.spread, within) / r;
  const double nu = t > 4.0 ? 4.0 + (t - 4.0) * std::pow(1.0 + (1.0 - 2.0 / t) / s, 2)
                            : t * (1.0 + 1.0 / r) * std::pow(1.0 + 1.0 / s, 2) / 2.0;
  return chisquaretest(test.r, within.statistic / (1.0 + s), nu);
}

// Fills what follows the contrasts.
void computetest(WaldTest& test, const Array<double>& gamma, const Array<double>& covariance, const Between* between) {
  Contrasts total, within;
  test.computed = computecontrasts(test, gamma, covariance, total);
  if (test.computed && between != nullptr) test.computed = computecontrasts(test, gamma, between->within, within);
  test.estimates = std::move(total.e);
  if (!test.computed) return;
  test.errors = std::move(total.errors);
  test.chisquare = between == nullptr ? chisquaretest(test.r, total.statistic) : pooledtest(test, *between, within);
}

}  // namespace

void testbyF(EffectTable& table, const Denominator& denominator) {
  for (WaldTest& test : table.hypotheses) {
    if (!test.computed) continue;
    const ScaledTest scaled = denominator(test.C.data(), test.r);
    test.denominator = scaled.known;
    if (scaled.known) test.chisquare = chisquaretest(test.r, scaled.factor * test.chisquare.statistic, scaled.df);
  }
}

void addhypotheses(EffectTable& table, const Model& model, const Array<double>& gamma, const Array<double>& covariance,
                   const Between* between) {
  if (!model.nhypotheses || covariance.empty()) return;
  const auto n = static_cast<int>(gamma.size());
  table.toomanycontrasts = !model.hypothesisrows.empty() && model.hypothesisrows[0] > n;
  if (table.toomanycontrasts) return;
  std::size_t first = 0;  // in contrasts
  for (std::size_t h = 0; h < model.hypothesisrows.size() && model.hypothesisrows[h] > 0; ++h) {
    const int r = model.hypothesisrows[h];
    const std::size_t size = at(r) * at(n);
    if (first + size > model.contrasts.size()) break;
    WaldTest& test = table.hypotheses.emplace_back();
    test.number = static_cast<int>(h);
    test.r = r;
    test.n = n;
    test.C.reset(size);
    for (std::size_t i = 0; i < size; ++i) test.C[i] = model.contrasts[first + i];
    computetest(test, gamma, covariance, between);
    first += size;
  }
}

}  // namespace kdr
