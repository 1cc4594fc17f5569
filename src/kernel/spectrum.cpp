#include "kernel/spectrum.h"

#include <algorithm>
#include <cmath>

#include "kernel/sizes.h"

namespace kdr {

void spectrum(std::size_t n, const double* A, double* values, double* Q) {
  constexpr int mostsweeps = 60;
  Array<double> M(n * n);
  std::copy_n(A, n * n, M.data());
  std::fill_n(Q, n * n, 0.0);
  for (std::size_t i = 0; i < n; ++i) Q[i * n + i] = 1.0;
  for (int sweep = 0; sweep < mostsweeps; ++sweep) {
    bool turned = false;
    for (std::size_t p = 0; p < n; ++p)
      for (std::size_t q = p + 1; q < n; ++q) {
        const double off = M[p * n + q];
        if (std::fabs(off) <= 1.0e-17 * std::sqrt(std::fabs(M[p * n + p] * M[q * n + q])) || off == 0.0) continue;
        turned = true;
        const double theta = 0.5 * (M[q * n + q] - M[p * n + p]) / off;
        const double t = (theta < 0.0 ? -1.0 : 1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        const double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
        for (std::size_t i = 0; i < n; ++i) {
          const double a = M[i * n + p], b = M[i * n + q];
          M[i * n + p] = c * a - s * b;
          M[i * n + q] = s * a + c * b;
        }
        for (std::size_t i = 0; i < n; ++i) {
          const double a = M[p * n + i], b = M[q * n + i];
          M[p * n + i] = c * a - s * b;
          M[q * n + i] = s * a + c * b;
        }
        for (std::size_t i = 0; i < n; ++i) {
          const double a = Q[i * n + p], b = Q[i * n + q];
          Q[i * n + p] = c * a - s * b;
          Q[i * n + q] = s * a + c * b;
        }
      }
    if (!turned) break;
  }
  for (std::size_t i = 0; i < n; ++i) values[i] = M[i * n + i];
  for (std::size_t i = 0; i < n; ++i) {
    const auto least = static_cast<std::size_t>(std::min_element(values + i, values + n) - values);
    if (least == i) continue;
    std::swap(values[i], values[least]);
    for (std::size_t l = 0; l < n; ++l) std::swap(Q[l * n + i], Q[l * n + least]);
  }
}

bool choleskyfactor(std::size_t n, const double* A, double* L) {
  std::fill_n(L, n * n, 0.0);
  for (std::size_t c = 0; c < n; ++c) {
    double pivot = A[c * n + c];
    for (std::size_t l = 0; l < c; ++l) pivot -= L[c * n + l] * L[c * n + l];
    if (!(pivot > 0.0) || !std::isfinite(pivot)) return false;
    L[c * n + c] = std::sqrt(pivot);
    for (std::size_t i = c + 1; i < n; ++i) {
      double sum = A[i * n + c];
      for (std::size_t l = 0; l < c; ++l) sum -= L[i * n + l] * L[c * n + l];
      L[i * n + c] = sum / L[c * n + c];
    }
  }
  return true;
}

int lowerroot(const double* S, int n, double rounding, double* L) {
  int rank = 0;
  std::fill_n(L, square(n), 0.0);
  for (int c = 0; c < n; ++c) {
    double pivot = S[c * n + c];
    for (int l = 0; l < c; ++l) pivot -= L[c * n + l] * L[c * n + l];
    if (!(pivot > rounding * S[c * n + c])) continue;
    ++rank;
    L[c * n + c] = std::sqrt(pivot);
    for (int i = c + 1; i < n; ++i) {
      double sum = S[i * n + c];
      for (int l = 0; l < c; ++l) sum -= L[i * n + l] * L[c * n + l];
      L[i * n + c] = sum / L[c * n + c];
    }
  }
  return rank;
}

void invertlower(std::size_t n, const double* L, double* X) {
  std::fill_n(X, n * n, 0.0);
  for (std::size_t c = 0; c < n; ++c) {
    X[c * n + c] = 1.0 / L[c * n + c];
    for (std::size_t i = c + 1; i < n; ++i) {
      double sum = 0.0;
      for (std::size_t l = c; l < i; ++l) sum -= L[i * n + l] * X[l * n + c];
      X[i * n + c] = sum / L[i * n + i];
    }
  }
}

void inversefromfactor(std::size_t n, const double* X, double* inverse) {
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l <= i; ++l) {
      double sum = 0.0;
      for (std::size_t m = i; m < n; ++m) sum += X[m * n + i] * X[m * n + l];
      inverse[i * n + l] = inverse[l * n + i] = sum;
    }
}

}  // namespace kdr
