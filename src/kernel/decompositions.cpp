#include "kernel/decompositions.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "kernel/array.h"
#include "kernel/constants.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

using Index = std::ptrdiff_t;

// Scratch doubles: on the stack up to `Small`, from the heap above.
template <int Small>
class Scratch {
 public:
  explicit Scratch(std::size_t n) : large(n > Small ? n : 0) {}
  double* data() { return large.empty() ? small : large.data(); }

 private:
  double small[Small];
  Array<double> large;
};

// Start of row i in a packed lower triangle.
constexpr Index packedrow(Index i) { return i * (i + 1) / 2; }

// Determinant, and the number of pivots taken before one was 0.0.
struct Elimination {
  double det;
  Index pivots;
};

// Replaces the packed lower triangle b of a symmetric matrix by its inverse, and leaves the pivots in `pivot`. v is n
// doubles of scratch. N is the order, or 0 when it is only known at run time; both run the same operations in the same
// order. The loops are unrolled so that small fixed orders end up in registers.
// With B the inverse of the leading k by k block, x the first k entries of row k, v = -B x and d = a[k][k] + v'x:
//   new inverse = [B + v v'/d, v/d; v'/d, 1/d],   determinant *= d.
template <int N>
inline Elimination invertpacked(int order, double* b, double* v, double* pivot) {
  const Index n = N > 0 ? N : order;
  Elimination result{b[0], 0};
  if (b[0] == 0.0) return result;
  pivot[0] = b[0];
  result.pivots = 1;
  b[0] = 1.0 / b[0];
#pragma GCC unroll 4
  for (Index k = 1; k < n; ++k) {
    double* const row = b + packedrow(k);
    double d = row[k];
#pragma GCC unroll 4
    for (Index i = 0; i < k; ++i) {
      double s = 0.0;
#pragma GCC unroll 4
      for (Index j = 0; j <= i; ++j) s += b[packedrow(i) + j] * row[j];
#pragma GCC unroll 4
      for (Index j = i + 1; j < k; ++j) s += b[packedrow(j) + i] * row[j];
      v[i] = -s;
      d -= s * row[i];
    }
    if (d == 0.0) {
      result.det = 0.0;
      return result;
    }
    pivot[k] = d;
    ++result.pivots;
    if (const double det = d * result.det; det != 0.0) result.det = det;  // a product that underflows is not taken

    row[k] = 1.0 / d;
#pragma GCC unroll 4
    for (Index i = 0; i < k; ++i) row[i] = v[i] / d;
#pragma GCC unroll 4
    for (Index j = 0; j < k; ++j)
#pragma GCC unroll 4
      for (Index i = 0; i <= j; ++i) b[packedrow(j) + i] += v[j] * row[i];
  }
  return result;
}

// Copies the lower triangle into b, inverts it there, and expands it into both triangles of inv. v is 2n doubles.
// The logarithms come last, so that no call interrupts the elimination.
template <int N>
inline int invert(int order, const double* a, Index ld, double* inv, Index ldinv, double* b, double* v, double* work) {
  const Index n = N > 0 ? N : order;
#pragma GCC unroll 4
  for (Index i = 0; i < n; ++i)
#pragma GCC unroll 4
    for (Index j = 0; j <= i; ++j) b[packedrow(i) + j] = a[i * ld + j];
  double* const pivot = v + n;
  const Elimination result = invertpacked<N>(order, b, v, pivot);
#pragma GCC unroll 4
  for (Index i = 0; i < n; ++i)
#pragma GCC unroll 4
    for (Index j = 0; j <= i; ++j) inv[i * ldinv + j] = inv[j * ldinv + i] = b[packedrow(i) + j];

  double logdet = 0.0, flag = 0.0;
  for (Index k = 0; k < result.pivots; ++k)
    if (pivot[k] > 0.0)
      logdet += std::log(pivot[k]);
    else
      flag = 1.0;
  work[0] = result.det;
  work[1] = logdet;
  work[2] = flag;
  return result.det == 0.0 ? 1 : result.det < 0.0 ? 2 : 0;
}

// Kept apart from each other: together in one function they would share the largest frame.
template <int N>
[[gnu::noinline]] int invertfixed(const double* a, Index ld, double* inv, Index ldinv, double* work) {
  double b[packedrow(N)], v[2 * N];
  return invert<N>(N, a, ld, inv, ldinv, b, v, work);
}

[[gnu::noinline]] int invertgeneral(int n, const double* a, Index ld, double* inv, Index ldinv, double* work) {
  Scratch<64> v(2 * static_cast<std::size_t>(n));
  return invert<0>(n, a, ld, inv, ldinv, work, v.data(), work);
}

// Reduces the dense symmetric n by n matrix A to tridiagonal form by Householder reflections: the diagonal into d,
// the sub-diagonal, without regard to its signs, into e. v and w are n doubles of scratch each.
void tridiagonalise(Index n, double* A, double* d, double* e, double* v, double* w) {
  for (Index c = 0; c + 2 < n; ++c) {
    double* const T = A + (c + 1) * n + c + 1;  // the trailing block, len by len with the stride n
    const Index len = n - 1 - c;
    const double* const x = A + (c + 1) * n + c;  // the column below the diagonal, stride n
    double s = 0.0;
    for (Index i = 0; i < len; ++i) s += x[i * n] * x[i * n];
    s = std::sqrt(s);
    e[c] = s;
    if (s == 0.0) continue;

    const double head = x[0] > 0.0 ? x[0] + s : x[0] - s;
    v[0] = 1.0;
    double vv = 1.0;
    for (Index i = 1; i < len; ++i) {
      v[i] = x[i * n] / head;
      vv += v[i] * v[i];
    }
    // H T H with H = I - beta v v', as T - v w' - w v' with q = beta T v, w = q - (beta/2)(q'v) v
    const double beta = 2.0 / vv;
    double qv = 0.0;
    for (Index i = 0; i < len; ++i) {
      double sum = 0.0;
      for (Index j = 0; j < len; ++j) sum += T[i * n + j] * v[j];
      w[i] = beta * sum;
      qv += w[i] * v[i];
    }
    for (Index i = 0; i < len; ++i) w[i] -= 0.5 * beta * qv * v[i];
    for (Index i = 0; i < len; ++i)
      for (Index j = 0; j < len; ++j) T[i * n + j] -= v[i] * w[j] + w[i] * v[j];
  }
  for (Index i = 0; i < n; ++i) d[i] = A[i * n + i];
  if (n > 1) e[n - 2] = A[(n - 1) * n + n - 2];
}

// One implicit QR step with the Wilkinson shift on the unreduced block first..last of the tridiagonal matrix (d, e).
void qrstep(Index first, Index last, double* d, double* e) {
  const double below = e[last - 1];
  const double t = (d[last - 1] - d[last]) / 2.0;
  const double root = std::sqrt(t * t + below * below);
  const double shift = d[last] - below * below / (t + (t >= 0.0 ? root : -root));
  double x = d[first] - shift;
  double z = e[first];
  for (Index k = first; k < last; ++k) {
    // the rotation with s x + c z = 0, from the ratio of the smaller to the larger element
    double c = 1.0, s = 0.0;
    if (z != 0.0) {
      if (std::fabs(z) > std::fabs(x)) {
        const double ratio = -x / z;
        s = 1.0 / std::sqrt(1.0 + ratio * ratio);
        c = s * ratio;
      } else {
        const double ratio = -z / x;
        c = 1.0 / std::sqrt(1.0 + ratio * ratio);
        s = c * ratio;
      }
    }
    if (k > first) e[k - 1] = c * x - s * z;
    // rows and columns k and k+1 are [p q; q r]
    const double p = d[k], q = e[k], r = d[k + 1];
    const double top = c * p - s * q, right = c * q - s * r;
    d[k] = c * top - s * right;
    d[k + 1] = s * (s * p + c * q) + c * (s * q + c * r);
    e[k] = s * top + c * right;
    if (k + 1 < last) {
      x = e[k];
      z = -s * e[k + 1];  // the bulge, two below the diagonal
      e[k + 1] *= c;
    }
  }
}

// Turns the diagonal d of the tridiagonal matrix (d, e) into its eigenvalues. False when the sweeps run out.
bool diagonalise(Index n, double* d, double* e) {
  // A NaN beside e[i] fails the comparison even when e[i] is 0.0, so that the sweeps run out.
  const auto negligible = [d, e](Index i) {
    return std::fabs(e[i]) <= 1.19209289e-07 * (std::fabs(d[i]) + std::fabs(d[i + 1]));
  };
  const Index sweeps = std::max<Index>(n * n, 50);
  for (Index sweep = 0; sweep < sweeps; ++sweep) {
    for (Index i = n - 2; i >= 0; --i)
      if (negligible(i)) e[i] = 0.0;
    Index last = n - 1;
    while (last > 0 && negligible(last - 1)) --last;
    if (last == 0) return true;
    Index first = last - 1;
    while (first > 0 && !negligible(first - 1)) --first;
    qrstep(first, last, d, e);
  }
  return false;
}

}  // namespace

int syminverse(int n, const double* a, int ld, double* inv, int ldinv, double* work) {
  switch (n) {
    case 1:
      return invertfixed<1>(a, ld, inv, ldinv, work);
    case 2:
      return invertfixed<2>(a, ld, inv, ldinv, work);
    case 3:
      return invertfixed<3>(a, ld, inv, ldinv, work);
    case 4:
      return invertfixed<4>(a, ld, inv, ldinv, work);
    case 5:
      return invertfixed<5>(a, ld, inv, ldinv, work);
    default:
      break;
  }
  if (n > 0) return invertgeneral(n, a, ld, inv, ldinv, work);
  work[0] = 1.0;  // the empty product
  work[1] = work[2] = 0.0;
  return 0;
}

Inversion invertsymmetric(int n, const double* a, double* inverse) {
  constexpr int small = 8;
  double local[packedsize(small) + 3];
  Array<double> large;
  double* work = local;
  if (n > small) {
    large.reset(packedsize(n) + 3);
    work = large.data();
  }
  const int result = syminverse(n, a, n, inverse, n, work);
  return {result, work[0], work[1], work[2] != 0.0};
}

bool hasunitcorrelation(int n, const double* a, int ld) {
  bool found = false;
  for (Index i = 0; i < n; ++i)
    for (Index j = 0; j < i; ++j) {
      const double p = std::fabs(a[j * ld + j] * a[i * ld + i]);
      if (p == 0.0) {
        found = true;
        break;
      }
      if (std::fabs(a[i * ld + j]) / std::sqrt(p) >= 1.0) found = true;
    }
  return found;
}

bool ispositivedefinite(int n, const double* a, int ld, double* cond) {
  if (n == 1) {
    if (cond != nullptr) *cond = a[0];
    return a[0] > 1e-35;
  }
  if (cond != nullptr) *cond = n < 1 ? 1.0 : bigvalue;
  if (n < 1) return true;

  const Index order = n;
  Scratch<8 * 8 + 4 * 8> scratch(static_cast<std::size_t>(order * order + 4 * order));
  double* const A = scratch.data();
  double* const d = A + order * order;
  double* const e = d + order;
  for (Index i = 0; i < order; ++i) std::copy_n(a + i * ld, order, A + i * order);
  tridiagonalise(order, A, d, e, e + order, e + 2 * order);
  if (!diagonalise(order, d, e)) return false;

  const auto [min, max] = std::minmax_element(d, d + order);
  if (cond != nullptr) *cond = *min == 0.0 ? bigvalue : std::fabs(*max / *min);
  return std::all_of(d, d + order, [limit = 1e-13 / n](double eigenvalue) { return eigenvalue > limit; });
}

}  // namespace kdr
