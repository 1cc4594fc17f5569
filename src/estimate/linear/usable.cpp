#include "estimate/linear/usable.h"

#include <cmath>

#include "kernel/array.h"
#include "kernel/decompositions.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// m brought to a unit diagonal; its diagonal is positive.
Array<double> unitdiagonal(const double* m, int n) {
  Array<double> scaled(square(n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) scaled[i * n + j] = m[i * n + j] / (std::sqrt(m[i * n + i]) * std::sqrt(m[j * n + j]));
  return scaled;
}

// positivecovariance; `condition` gets the condition number of the correlations.
bool positivecorrelations(const double* m, int n, double& condition) {
  for (int i = 0; i < n; ++i)
    if (!(m[i * n + i] >= 0.0)) return false;
  if (n == 1) return std::isnormal(m[0]);
  return !hasunitcorrelation(n, m, n) && ispositivedefinite(n, unitdiagonal(m, n).data(), n, &condition);
}

}  // namespace

bool positivecovariance(const double* m, int n) {
  double condition = 1.0;
  return positivecorrelations(m, n, condition);
}

bool invertcovariance(const double* m, int n, double* inverse) {
  return invertsymmetric(n, m, inverse).result == 0 && positivecovariance(m, n);
}

bool usablecovariance(const double* m, int n) {
  Array<double> inverse(square(n));
  return invertcovariance(m, n, inverse.data());
}

bool invertcrossproduct(const double* m, int n, double* inverse, double worst) {
  if (n == 0) return true;
  if (n == 1 && std::isnormal(m[0]) && m[0] > 0.0) {
    inverse[0] = 1.0 / m[0];
    return true;
  }
  if (invertsymmetric(n, m, inverse).result != 0) return false;
  // The eigenvalues lie between 1/tr(inverse) and tr(m), of the scaled matrix too: where that settles it with a wide
  // margin, as for most units, none is computed.
  if (n > 1) {
    double trace = 0.0, inversetrace = 0.0, scaledinverse = 0.0;
    for (int i = 0; i < n; ++i) {
      trace += m[i * n + i];
      inversetrace += inverse[i * n + i];
      scaledinverse += m[i * n + i] * inverse[i * n + i];
    }
    if (inversetrace > 0.0 && inversetrace < 1.0e10 && trace * inversetrace < 0.01 * worst) return true;
    if (scaledinverse > 0.0 && n * scaledinverse < 0.01 * worst && positivecovariance(m, n)) return true;
  }
  double condition = 1.0;
  if (!positivecorrelations(m, n, condition)) return false;
  if (condition <= worst) return true;
  return ispositivedefinite(n, m, n, &condition) && condition <= worst;
}

bool collinear(const double* gram, int n) {
  constexpr double worst = 1.0e12;
  double condition = 1.0;
  return !positivecorrelations(gram, n, condition) || condition > worst;
}

}  // namespace kdr
