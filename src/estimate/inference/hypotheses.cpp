// Multivariate Wald tests of contrasts among the fixed effects.
#include <cmath>

#include "estimate/inference/teststatistics.h"
#include "kernel/decompositions.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// e = C gamma (r) and W = C vgamma C' (r x r).
void contrastestimates(const WaldTest& test, const double* gamma, const double* vgamma, Array<double>& e,
                       Array<double>& W) {
  const auto row = [&](int i) { return test.C.data() + static_cast<std::ptrdiff_t>(i) * test.n; };
  Array<double> Vc(at(test.n));
  for (int j = 0; j < test.r; ++j) {
    for (int g = 0; g < test.n; ++g) {
      e[j] += row(j)[g] * gamma[g];
      Vc[g] = 0.0;
      for (int h = 0; h < test.n; ++h) Vc[g] += vgamma[static_cast<std::ptrdiff_t>(g) * test.n + h] * row(j)[h];
    }
    for (int i = 0; i < test.r; ++i) {
      double& w = W[at(i) * at(test.r) + at(j)];
      for (int g = 0; g < test.n; ++g) w += row(i)[g] * Vc[g];
    }
  }
}

// Inverts W; false when the contrasts are not independent.
bool invertcontrasts(int r, const Array<double>& W, Array<double>& inverse) {
  for (int i = 0; i < r; ++i)
    if (W[at(i) * at(r + 1)] < 0.0) return false;
  if (hasunitcorrelation(r, W.data(), r) || !ispositivedefinite(r, W.data(), r, nullptr)) return false;
  return invertsymmetric(r, W.data(), inverse.data()).result == 0;
}

// e' W^-1 e.
double waldstatistic(int r, const Array<double>& e, const Array<double>& inverse) {
  double sum = 0.0;
  for (int i = 0; i < r; ++i)
    for (int j = 0; j < r; ++j) sum += e[i] * inverse[at(i) * at(r) + at(j)] * e[j];
  return sum;
}

// Fills what follows the contrasts.
void computetest(WaldTest& test, const double* gamma, const double* vgamma) {
  const std::size_t r = at(test.r);
  Array<double> W(r * r), inverse(r * r);
  test.estimates.reset(r);
  contrastestimates(test, gamma, vgamma, test.estimates, W);
  test.computed = test.r <= test.n && invertcontrasts(test.r, W, inverse) &&
                  std::isfinite(test.statistic = waldstatistic(test.r, test.estimates, inverse));
  if (!test.computed) return;
  test.tail = chisquaretail(test.r, test.statistic);
  test.errors.reset(r);
  for (std::size_t i = 0; i < r; ++i) test.errors[i] = std::sqrt(W[i * (r + 1)]);
}

}  // namespace

void addhypotheses(EffectTable& table, const Model& model, const Array<double>& gamma,
                   const Array<double>& covariance) {
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
    computetest(test, gamma.data(), covariance.data());
    first += size;
  }
}

}  // namespace kdr
