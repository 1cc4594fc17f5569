#include "estimate/linear/elimination.h"

#include <utility>

namespace kdr {

const double* eliminate(int n, double s, const double* S, const double* T, double* R, double* work) {
  const int width = 2 * n;
  double* const M = work;                   // [s I + S T | I]
  double* const weight = work + n * width;  // of the rows to come; the pivots of those that are done
  for (int i = 0; i < n; ++i) {
    weight[i] = S[i * n + i] > 0.0 ? S[i * n + i] : 1.0;
    for (int j = 0; j < n; ++j) {
      double sum = i == j ? s : 0.0;
      for (int l = 0; l < n; ++l) sum += S[i * n + l] * T[l * n + j];
      M[i * width + j] = sum;
      M[i * width + n + j] = i == j ? 1.0 : 0.0;
    }
  }
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    const auto squared = [&](int i) { return M[i * width + c] * M[i * width + c]; };
    for (int i = c + 1; i < n; ++i)
      if (squared(i) * weight[pivot] > squared(pivot) * weight[i]) pivot = i;
    if (pivot != c) {
      std::swap(weight[pivot], weight[c]);
      for (int j = 0; j < width; ++j) std::swap(M[pivot * width + j], M[c * width + j]);
    }
    const double head = M[c * width + c], inverse = 1.0 / head;
    weight[c] = head;
    for (int j = c; j < width; ++j) M[c * width + j] *= inverse;
    for (int i = 0; i < n; ++i) {
      if (i == c) continue;
      const double factor = M[i * width + c];
      for (int j = c; j < width; ++j) M[i * width + j] -= factor * M[c * width + j];
    }
  }
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) R[i * n + j] = M[i * width + n + j];
  return weight;
}

}  // namespace kdr
