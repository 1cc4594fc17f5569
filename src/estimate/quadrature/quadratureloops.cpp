// This file is compiled once for each set of vector instructions, into a namespace named after the set. It uses no
// inline function or template from elsewhere: their one copy in the program could then hold instructions that the
// machine does not have.
#include "estimate/quadrature/quadratureloops.h"

namespace kdr::KDR3_INSTRUCTIONS {

namespace {

// Vectors never leave this file, so how they are passed does not matter. A cast between them keeps the bits.
using Lane = double __attribute__((vector_size(32)));
using Bits = long long __attribute__((vector_size(32)));

// Arrays of doubles have not the alignment of lanes.
inline Lane load(const double* from) {
  Lane value;
  __builtin_memcpy(&value, from, sizeof value);
  return value;
}
inline void store(double* to, Lane value) { __builtin_memcpy(to, &value, sizeof value); }
inline Lane all(double value) { return Lane{value, value, value, value}; }
inline Lane larger(Lane a, Lane b) { return a > b ? a : b; }
inline Lane smaller(Lane a, Lane b) { return a < b ? a : b; }

// exp(x) = 2^k exp(r), k the whole number next to x / log 2 and |r| <= log(2)/2, exp(r) by its Taylor series.
inline Lane exponential(Lane x) {
  constexpr double perlog2 = 1.4426950408889634074, shift = 6755399441055744.0;  // 1.5 * 2^52 rounds to whole numbers
  constexpr double log2high = 6.93147180369123816490e-01, log2low = 1.90821492927058770002e-10;
  x = larger(smaller(x, all(709.0)), all(-708.0));
  const Lane shifted = x * perlog2 + shift;
  const Lane k = shifted - shift;
  const Lane r = (x - k * log2high) - k * log2low;
  const Lane r2 = r * r;
  // sum of r^m / (m + 2)!, in pairs, so that the multiplications do not wait for each other
  const Lane c0 = 0.5 + r * (1.0 / 6.0), c1 = 1.0 / 24.0 + r * (1.0 / 120.0), c2 = 1.0 / 720.0 + r * (1.0 / 5040.0);
  const Lane c3 = 1.0 / 40320.0 + r * (1.0 / 362880.0), c4 = 1.0 / 3628800.0 + r * (1.0 / 39916800.0);
  const Lane c5 = 1.0 / 479001600.0 + r * (1.0 / 6227020800.0);
  const Lane r4 = r2 * r2;
  const Lane tail = (c0 + r2 * c1) + r4 * ((c2 + r2 * c3) + r4 * (c4 + r2 * c5));
  const Lane expr = 1.0 + (r + r2 * tail);
  const Bits power = (reinterpret_cast<Bits>(shifted) << 52) + 0x3ff0000000000000LL;  // the low bits hold k
  return expr * reinterpret_cast<Lane>(power);
}

// log(x) = k log 2 + log(1 + f) with sqrt(1/2) <= 1 + f < sqrt(2), by the rational form of s = f / (2 + f) of the
// freely distributable mathematical library (Sun Microsystems, 1993).
inline Lane logarithm(Lane x) {
  constexpr double log2high = 6.93147180369123816490e-01, log2low = 1.90821492927058770002e-10;
  Bits bits = reinterpret_cast<Bits>(x);
  bits += 0x3ff0000000000000LL - 0x3fe6a09e667f3bcdLL;  // raises the exponent where the fraction is sqrt(1/2) or more
  const Bits exponent = (bits >> 52) & 0x7ff;
  bits = (bits & 0x000fffffffffffffLL) + 0x3fe6a09e667f3bcdLL;
  const Lane fraction = reinterpret_cast<Lane>(bits);
  const Lane k = __builtin_convertvector(exponent, Lane) - 1023.0;
  const Lane f = fraction - 1.0;
  const Lane s = f / (2.0 + f);
  const Lane z = s * s, w = z * z;
  const Lane t1 = w * (3.999999999940941908e-01 + w * (2.222219843214978396e-01 + w * 1.531383769920937332e-01));
  const Lane t2 = z * (6.666666666666735130e-01 +
                       w * (2.857142874366239149e-01 + w * (1.818357216161805012e-01 + w * 1.479819860511658591e-01)));
  const Lane half = 0.5 * f * f;
  return k * log2high - ((half - (s * (half + (t1 + t2)) + k * log2low)) - f);
}

constexpr double leastprobability = 1.0e-14, largesteta = 700.0;
constexpr double logleast = -32.236191301916641;  // log(1e-14)
constexpr double largestmean = 1.0e100;           // of a Poisson outcome: its density is 0 long before
constexpr std::size_t perlogarithm = 20;          // probabilities of 1e-14 or more whose product is a normal number

inline Lane limited(Lane eta) { return larger(smaller(eta, all(largesteta)), all(-largesteta)); }

// f_i + d_i' u + e_i' v at four nodes. D: number of dimensions where the compiler knows it, else 0.
template <int D>
inline Lane predictor(const NodePairs& a, std::size_t i, std::size_t p, double fixed) {
  const std::size_t dims = D > 0 ? D : a.dims;
  Lane eta = all(fixed);
  for (std::size_t d = 0; d < dims; ++d) eta += a.rows[i * dims + d] * load(a.nodes + d * a.pairs + p);
  return eta;
}

inline void addgradient(const NodePairs& a, std::size_t i, std::size_t p, Lane residual) {
  for (std::size_t c = 0; c < a.npi; ++c) {
    double* g = a.gradient + c * a.pairs + p;
    store(g, load(g) + a.x[i * a.npi + c] * residual);
  }
}

template <bool M>
void clear(const NodePairs& a) {
  for (std::size_t p = 0; p < a.pairs; ++p) a.logdensity[p] = 0.0;
  if (M)
    for (std::size_t p = 0; p < a.npi * a.pairs; ++p) a.gradient[p] = 0.0;
}

// A binary outcome. With s = 1 for y = 1 and s = -1 for y = 0, pr = 1 / (1 + exp(-s eta)) is the probability of what
// was observed; l = log pr, r = s (1 - pr), w = pr (1 - pr). The logarithm is taken of products of probabilities.
template <int D, bool M>
void bernoulli(const NodePairs& a) {
  clear<M>(a);
  for (std::size_t first = 0; first < a.records; first += perlogarithm) {
    const std::size_t last = first + perlogarithm < a.records ? first + perlogarithm : a.records;
    for (std::size_t p = 0; p < a.pairs; ++p) a.work[p] = 1.0;
    for (std::size_t i = first; i < last; ++i) {
      const double sign = a.y[i] == 1.0 ? 1.0 : -1.0;
      for (std::size_t p = 0; p < a.pairs; p += nodestep) {
        const Lane e = exponential(-sign * limited(predictor<D>(a, i, p, a.fixed[i])));
        const Lane pr = 1.0 / (1.0 + e);
        store(a.work + p, load(a.work + p) * larger(pr, all(leastprobability)));
        if constexpr (M) {
          const Lane rest = e * pr;
          store(a.weights + i * a.pairs + p, rest * pr);
          addgradient(a, i, p, sign * rest);
        }
      }
    }
    for (std::size_t p = 0; p < a.pairs; p += nodestep)
      store(a.logdensity + p, load(a.logdensity + p) + logarithm(load(a.work + p)));
  }
}

// y successes in n trials: l = y log mu + (n - y) log(1 - mu), r = y - n mu, w = n mu (1 - mu).
template <int D, bool M>
void binomial(const NodePairs& a) {
  clear<M>(a);
  for (std::size_t i = 0; i < a.records; ++i) {
    const double y = a.y[i], n = a.n == nullptr ? 1.0 : a.n[i];
    for (std::size_t p = 0; p < a.pairs; p += nodestep) {
      const Lane eta = limited(predictor<D>(a, i, p, a.fixed[i]));
      const Lane e = exponential(-eta);
      const Lane mu = 1.0 / (1.0 + e);
      const Lane logmu = logarithm(mu);
      const Lane density = y * larger(logmu, all(logleast)) + (n - y) * larger(logmu - eta, all(logleast));
      store(a.logdensity + p, load(a.logdensity + p) + density);
      if constexpr (M) {
        const Lane mean = n * mu;
        store(a.weights + i * a.pairs + p, mean * (e * mu));
        addgradient(a, i, p, y - mean);
      }
    }
  }
}

// A count: with t = eta, plus the logarithm of the exposure, mu = exp(t), l = y t - mu, r = y - mu, w = mu.
template <int D, bool M>
void poisson(const NodePairs& a) {
  clear<M>(a);
  for (std::size_t i = 0; i < a.records; ++i) {
    const double y = a.y[i], logexposure = a.n == nullptr ? 0.0 : a.n[i];
    for (std::size_t p = 0; p < a.pairs; p += nodestep) {
      const Lane t = logexposure + limited(predictor<D>(a, i, p, a.fixed[i]));
      const Lane mu = smaller(exponential(t), all(largestmean));
      store(a.logdensity + p, load(a.logdensity + p) + (y * t - mu));
      if constexpr (M) {
        store(a.weights + i * a.pairs + p, mu);
        addgradient(a, i, p, y - mu);
      }
    }
  }
}

// Densities that have no floor, and their moments. Each takes its four nodes through all records, with the sums in
// registers: N columns of x where the compiler knows their number, else 0 and the gradient in memory.
template <int D, int N>
struct NodeSums {
  const NodePairs& a;
  const std::size_t p;
  Lane node[D > 0 ? D : 1];
  Lane gradient[N > 0 ? N : 1];

  NodeSums(const NodePairs& pairs, std::size_t first) : a(pairs), p(first) {
    for (int d = 0; d < D; ++d) node[d] = load(a.nodes + static_cast<std::size_t>(d) * a.pairs + p);
    for (int c = 0; c < N; ++c) gradient[c] = all(0.0);
    if constexpr (N == 0)
      for (std::size_t c = 0; c < a.npi; ++c) store(a.gradient + c * a.pairs + p, all(0.0));
  }
  Lane eta(std::size_t i) const {
    if constexpr (D == 0) {
      return limited(predictor<0>(a, i, p, a.fixed[i]));
    } else {
      Lane sum = all(a.fixed[i]);
      for (int d = 0; d < D; ++d) sum += a.rows[i * D + static_cast<std::size_t>(d)] * node[d];
      return limited(sum);
    }
  }
  void add(std::size_t i, Lane weight, Lane residual) {
    store(a.weights + i * a.pairs + p, weight);
    if constexpr (N == 0) {
      addgradient(a, i, p, residual);
    } else {
      for (int c = 0; c < N; ++c) gradient[c] += a.x[i * N + static_cast<std::size_t>(c)] * residual;
    }
  }
  void finish(Lane logdensity) {
    store(a.logdensity + p, logdensity);
    for (int c = 0; c < N; ++c) store(a.gradient + static_cast<std::size_t>(c) * a.pairs + p, gradient[c]);
  }
};

// A binary outcome. With t = s eta and e = exp(-|t|), which is never above 1: l = min(t, 0) - log(1 + e). The logarithm
// is taken of products of 1 + e, which lie between 1 and 2.
template <int D, int N>
void exactbernoulli(const NodePairs& a) {
  constexpr std::size_t perproduct = 1000;
  for (std::size_t p = 0; p < a.pairs; p += nodestep) {
    NodeSums<D, N> sums(a, p);
    Lane logdensity = all(0.0);
    for (std::size_t first = 0; first < a.records; first += perproduct) {
      const std::size_t last = first + perproduct < a.records ? first + perproduct : a.records;
      Lane product = all(1.0);
      for (std::size_t i = first; i < last; ++i) {
        const double sign = a.y[i] == 1.0 ? 1.0 : -1.0;
        const Lane t = sign * sums.eta(i);
        const Lane e = exponential(-larger(t, -t));
        const Lane sum = 1.0 + e, inverse = 1.0 / sum;
        product *= sum;
        logdensity += smaller(t, all(0.0));
        sums.add(i, e * inverse * inverse, sign * ((t < 0.0 ? all(1.0) : e) * inverse));
      }
      logdensity -= logarithm(product);
    }
    sums.finish(logdensity);
  }
}

// y successes in n trials, in the same way: l = y eta - n (max(eta, 0) + log(1 + e)).
template <int D, int N>
void exactbinomial(const NodePairs& a) {
  for (std::size_t p = 0; p < a.pairs; p += nodestep) {
    NodeSums<D, N> sums(a, p);
    Lane logdensity = all(0.0);
    for (std::size_t i = 0; i < a.records; ++i) {
      const double y = a.y[i], n = a.n == nullptr ? 1.0 : a.n[i];
      const Lane eta = sums.eta(i);
      const Lane e = exponential(-larger(eta, -eta));
      const Lane sum = 1.0 + e, inverse = 1.0 / sum;
      logdensity += y * eta - n * (larger(eta, all(0.0)) + logarithm(sum));
      sums.add(i, n * (e * inverse * inverse), y - n * ((eta < 0.0 ? e : all(1.0)) * inverse));
    }
    sums.finish(logdensity);
  }
}

template <int D, int N>
void exactpoisson(const NodePairs& a) {
  for (std::size_t p = 0; p < a.pairs; p += nodestep) {
    NodeSums<D, N> sums(a, p);
    Lane logdensity = all(0.0);
    for (std::size_t i = 0; i < a.records; ++i) {
      const double y = a.y[i];
      const Lane t = (a.n == nullptr ? 0.0 : a.n[i]) + sums.eta(i);
      const Lane mu = smaller(exponential(t), all(largestmean));
      logdensity += y * t - mu;
      sums.add(i, mu, y - mu);
    }
    sums.finish(logdensity);
  }
}

// One or two random effects a level are the daily case and have code of their own.
template <bool M>
void anybernoulli(const NodePairs& a) {
  a.dims == 2 ? bernoulli<2, M>(a) : a.dims == 3 ? bernoulli<3, M>(a) : bernoulli<0, M>(a);
}
template <bool M>
void anybinomial(const NodePairs& a) {
  a.dims == 2 ? binomial<2, M>(a) : a.dims == 3 ? binomial<3, M>(a) : binomial<0, M>(a);
}
template <bool M>
void anypoisson(const NodePairs& a) {
  a.dims == 2 ? poisson<2, M>(a) : a.dims == 3 ? poisson<3, M>(a) : poisson<0, M>(a);
}

// The code for the dimensions and columns at hand: two to four effects and up to four columns have their own.
using Exact = void (*)(const NodePairs&);
template <int D>
struct ExactTable {
  static constexpr Exact of[3][5] = {
      {exactbernoulli<D, 0>, exactbernoulli<D, 1>, exactbernoulli<D, 2>, exactbernoulli<D, 3>, exactbernoulli<D, 4>},
      {exactbinomial<D, 0>, exactbinomial<D, 1>, exactbinomial<D, 2>, exactbinomial<D, 3>, exactbinomial<D, 4>},
      {exactpoisson<D, 0>, exactpoisson<D, 1>, exactpoisson<D, 2>, exactpoisson<D, 3>, exactpoisson<D, 4>}};
};
template <int kind>
void exact(const NodePairs& a) {
  const std::size_t n = a.npi <= 4 ? a.npi : 0;
  switch (a.dims) {
    case 2:
      return ExactTable<2>::of[kind][n](a);
    case 3:
      return ExactTable<3>::of[kind][n](a);
    case 4:
      return ExactTable<4>::of[kind][n](a);
    default:
      return ExactTable<0>::of[kind][n](a);
  }
}

// The last places of a segment of four or more are taken with those before them, which the mask leaves out.
inline Lane tailmask(std::size_t rest) {
  return Lane{rest > 3 ? 1.0 : 0.0, rest > 2 ? 1.0 : 0.0, rest > 1 ? 1.0 : 0.0, rest > 0 ? 1.0 : 0.0};
}

inline double segmentdot(const double* x, const double* y, std::size_t n, Lane mask) {
  if (n < nodestep) {
    double sum = 0.0;
    for (std::size_t l = 0; l < n; ++l) sum += x[l] * y[l];
    return sum;
  }
  Lane sum = mask * load(x + n - nodestep) * load(y + n - nodestep);
  for (std::size_t l = 0; l + nodestep <= n; l += nodestep) sum += load(x + l) * load(y + l);
  return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}

void segmentsums(const SegmentSums& a) {
  const Lane mask = tailmask(a.length % nodestep);
  for (std::size_t i = 0; i < a.rows; ++i) {
    const double* values = a.values + i * a.pairs;
    const std::size_t sets = a.lower && i + 2 < a.sets ? i + 2 : a.sets;
    for (std::size_t m = 0; m < a.segments; ++m) {
      double* sums = a.sums + m * a.stride + i * a.rowstride;
      for (std::size_t s = 0; s < sets; ++s)
        sums[s * a.setstride] =
            segmentdot(values + m * a.length, a.weights + s * a.pairs + m * a.length, a.length, mask);
    }
  }
}

void exponentials(double* values, std::size_t n) {
  for (std::size_t i = 0; i < n; i += nodestep) store(values + i, exponential(load(values + i)));
}
void logarithms(double* values, std::size_t n) {
  for (std::size_t i = 0; i < n; i += nodestep) store(values + i, logarithm(load(values + i)));
}

}  // namespace

extern const QuadratureLoops quadratureloops;
const QuadratureLoops quadratureloops = {
    {anybernoulli<false>, anybinomial<false>, anypoisson<false>, anypoisson<false>},
    {anybernoulli<true>, anybinomial<true>, anypoisson<true>, anypoisson<true>},
    {exact<0>, exact<1>, exact<2>, exact<2>},
    segmentsums,
    exponentials,
    logarithms};

}  // namespace kdr::KDR3_INSTRUCTIONS
