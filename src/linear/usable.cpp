#include "linear/usable.h"

#include <cmath>

#include "kernel/array.h"
#include "kernel/decompositions.h"
#include "kernel/sizes.h"

namespace kdr {

bool positivecovariance(const double* m, int n) {
  for (int i = 0; i < n; ++i)
    if (!(m[i * n + i] >= 0.0)) return false;
  return !hasunitcorrelation(n, m, n) && ispositivedefinite(n, m, n, nullptr);
}

bool invertcovariance(const double* m, int n, double* inverse) {
  double condition = 0.0;
  return invertsymmetric(n, m, inverse).result == 0 && !isbadcov(n, m, n, &condition);
}

bool usablecovariance(const double* m, int n) {
  Array<double> inverse(square(n));
  return invertcovariance(m, n, inverse.data());
}

bool invertcrossproduct(const double* m, int n, double* inverse, double worst) {
  if (invertsymmetric(n, m, inverse).result != 0) return false;
  // The eigenvalues lie between 1/tr(inverse) and tr(m): where that settles it with a wide margin, as for most units,
  // none is computed.
  if (n > 1) {
    double trace = 0.0, inversetrace = 0.0;
    for (int i = 0; i < n; ++i) {
      trace += m[i * n + i];
      inversetrace += inverse[i * n + i];
    }
    if (inversetrace > 0.0 && inversetrace < 1.0e10 && trace * inversetrace < 0.01 * worst) return true;
  }
  double condition = 0.0;
  return !isbadcov(n, m, n, &condition) && (n == 1 || condition <= worst);
}

bool collinear(const double* gram, int n) {
  constexpr double worst = 1.0e12;
  double condition = 0.0;
  if (isbadcov(n, gram, n, &condition)) return true;
  Array<double> scaled(square(n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) scaled[i * n + j] = gram[i * n + j] / std::sqrt(gram[i * n + i] * gram[j * n + j]);
  return !ispositivedefinite(n, scaled.data(), n, &condition) || condition > worst;
}

}  // namespace kdr
