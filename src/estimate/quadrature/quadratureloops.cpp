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

inline Lane root(Lane x) {
  return Lane{__builtin_sqrt(x[0]), __builtin_sqrt(x[1]), __builtin_sqrt(x[2]), __builtin_sqrt(x[3])};
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

// Densities of a unit whose linear predictor is a sum of a part for each dimension of the nodes. The exponential of the
// sum is the product of theirs, so that exponentials are taken of records, dimensions and points, not of pairs of
// nodes. Each density takes its four nodes through all records, with the sums in registers: N columns of x and their
// products where the compiler knows the number, else 0 and the sums in memory.
constexpr double largestpart = 345.0;  // of eta at the centres, and of all dimensions: exponentials stay numbers

template <int N>
struct NodeSums {
  const UnitNodes& a;
  const std::size_t p;
  Lane gradient[N > 0 ? N : 1];
  Lane products[N > 0 ? N*(N + 1) / 2 : 1];

  NodeSums(const UnitNodes& nodes, std::size_t first) : a(nodes), p(first) {
    for (Lane& value : gradient) value = all(0.0);
    for (Lane& value : products) value = all(0.0);
    if constexpr (N == 0)
      for (std::size_t c = 0; c < a.npi; ++c) store(a.gradient + c * a.stride + p, all(0.0));
  }
  void add(std::size_t i, Lane weight, Lane residual) {
    if constexpr (N == 0) {
      store(a.weights + i * a.stride + p, weight);
      for (std::size_t c = 0; c < a.npi; ++c) {
        double* g = a.gradient + c * a.stride + p;
        store(g, load(g) + a.x[i * a.npi + c] * residual);
      }
    } else {
      const double* x = a.x + i * N;
      for (int c = 0, e = 0; c < N; ++c) {
        gradient[c] += x[c] * residual;
        const Lane weighted = x[c] * weight;
        for (int d = 0; d <= c; ++d, ++e) products[e] += x[d] * weighted;
      }
    }
  }
  void finish(Lane logdensity) {
    store(a.logdensity + p, logdensity);
    if constexpr (N > 0) {
      for (int c = 0; c < N; ++c) store(a.gradient + static_cast<std::size_t>(c) * a.stride + p, gradient[c]);
      for (int e = 0; e < N * (N + 1) / 2; ++e)
        store(a.weights + static_cast<std::size_t>(e) * a.stride + p, products[e]);
    }
  }
};

inline Lane held(Lane value, double limit) { return larger(smaller(value, all(limit)), all(-limit)); }

// to[t] := exp(c line[t]) for one dimension, 1 behind the points. The points lie symmetrically about 0.
inline void dimension(const UnitNodes& a, double c, double limit, double* to) {
  if (a.points < nodestep) {
    store(to, exponential(held(c * load(a.line), limit)));
    return;
  }
  const std::size_t half = (a.points + 1) / 2;
  for (std::size_t t = 0; t < half; t += nodestep) {
    const Lane e = exponential(held(c * load(a.line + t), limit)), inverse = 1.0 / e;
    store(to + (a.points - nodestep - t), __builtin_shufflevector(inverse, inverse, 3, 2, 1, 0));
    store(to + t, e);
  }
  for (std::size_t t = a.points; t < a.linestride; ++t) to[t] = 1.0;
}

// to[m] := the product over `dims` dimensions of values[d][digits[d][m]]. Without dimensions there is one node.
inline void tensor(const UnitNodes& a, const double* values, std::size_t dims, const unsigned char* digits,
                   std::size_t digitstride, std::size_t first, std::size_t n, double* to) {
  for (std::size_t m = 0; m < n; ++m) {
    double product = dims == 0 ? 1.0 : values[digits[first + m]];
    for (std::size_t d = 1; d < dims; ++d) product *= values[d * a.linestride + digits[d * digitstride + first + m]];
    to[m] = product;
  }
}
// The same for all level-2 nodes, whose first dimension's point changes fastest.
inline void wholetensor(const UnitNodes& a, const double* values, double* to) {
  if (a.dims2 == 0) to[0] = 1.0;
  for (std::size_t first = 0; a.dims2 > 0 && first < a.nodes2; first += a.points) {
    double factor = 1.0;
    for (std::size_t d = 1; d < a.dims2; ++d) factor *= values[d * a.linestride + a.digits2[d * a.nodes2 + first]];
    for (std::size_t t = 0; t < a.points; t += nodestep) store(to + first + t, factor * load(values + t));
  }
  for (std::size_t l = a.nodes2; l < a.length; ++l) to[l] = 1.0;
}

// linear[m] := start + the sum over dimensions of values[d][digits[d][m]].
inline void linearpart(const UnitNodes& a, const double* values, std::size_t dims, const unsigned char* digits,
                       std::size_t digitstride, std::size_t first, std::size_t n, double start, double* linear) {
  for (std::size_t m = 0; m < n; ++m) {
    linear[m] = start;
    for (std::size_t d = 0; d < dims; ++d) linear[m] += values[d * a.linestride + digits[d * digitstride + first + m]];
  }
}

// outer[i][m] inner[i][l] := exp(s_i eta_i), s_i = -1 for y_i = 1 if `binary`, else 1; linear[m] + linear[l] := sum_i
// y_i eta_i if not. No exponent is larger than what is returned.
inline double exponentialparts(const UnitNodes& a, bool binary) {
  const std::size_t dims = a.dims3 + a.dims2;
  double *e = a.work, *sums = e + dims * a.linestride, *before = sums + dims * a.linestride, *product = before + dims,
         *starts = product + a.outerstride;
  const double limit = largestpart / static_cast<double>(dims);
  double sum = 0.0, largest = 0.0, widest = 0.0;
  for (std::size_t t = 0; t < dims * a.linestride; ++t) sums[t] = 0.0;
  for (std::size_t i = 0; i < a.records; ++i) {
    starts[i] = binary && a.y[i] == 1.0 ? -a.fixed[i] : a.fixed[i];
    starts[i] = starts[i] > largestpart ? largestpart : starts[i] < -largestpart ? -largestpart : starts[i];
    largest = starts[i] > largest ? starts[i] : largest;
    sum += a.y[i] * starts[i];
  }
  for (std::size_t i = a.records; i % nodestep != 0; ++i) starts[i] = 0.0;
  for (std::size_t i = 0; i < a.records; i += nodestep) store(starts + i, exponential(load(starts + i)));
  for (std::size_t i = 0; i < a.records; ++i) {
    const double sign = binary && a.y[i] == 1.0 ? -1.0 : 1.0;
    double *outer = a.outer + i * a.outerstride, *inner = a.inner + i * a.length, width = 0.0;
    bool same3 = i > 0, same2 = i > 0;
    for (std::size_t d = 0; d < dims; ++d) {
      const double given = a.rows[i * dims + d], c = sign * given, far = (c < 0.0 ? -c : c) * a.line[0];
      width += far < limit ? far : limit;
      if (!binary)
        for (std::size_t t = 0; t < a.points; t += nodestep) {
          double* to = sums + d * a.linestride + t;
          store(to, load(to) + a.y[i] * held(c * load(a.line + t), limit));
        }
      if (i > 0 && c == before[d]) continue;
      (d < a.dims3 ? same3 : same2) = false;
      double* values = e + d * a.linestride;
      if (i > 0 && c == -before[d]) {  // the same from the other end
        for (std::size_t t = 0; t < a.points / 2; ++t) {
          const double first = values[t];
          values[t] = values[a.points - 1 - t];
          values[a.points - 1 - t] = first;
        }
      } else {
        dimension(a, c, limit, values);
      }
      before[d] = c;
    }
    widest = width > widest ? width : widest;
    if (!same3) tensor(a, e, a.dims3, a.digits3, a.nodes3, a.first, a.segments, product);
    for (std::size_t m = 0; m < a.segments; ++m) outer[m] = starts[i] * product[m];
    if (same2) {
      for (std::size_t l = 0; l < a.length; l += nodestep) store(inner + l, load(inner - a.length + l));
    } else {
      wholetensor(a, e + a.dims3 * a.linestride, inner);
    }
  }
  if (!binary) {
    linearpart(a, sums, a.dims3, a.digits3, a.nodes3, a.first, a.segments, sum, a.linear);
    linearpart(a, sums + a.dims3 * a.linestride, a.dims2, a.digits2, a.nodes2, 0, a.nodes2, 0.0,
               a.linear + a.outerstride);
    for (std::size_t l = a.nodes2; l < a.length; ++l) a.linear[a.outerstride + l] = 0.0;
  }
  return largest + widest;
}

// A binary outcome. With s = 1 for y = 1, else -1, and e = exp(-s eta): l = -log(1 + e), of products of 1 + e, r = s e
// / (1 + e), w = e / (1 + e)^2.
template <int N>
void exactbernoulli(const UnitNodes& a) {
  const double room = 700.0 / (exponentialparts(a, true) + 0.7);
  const std::size_t perproduct = room < 1000.0 ? static_cast<std::size_t>(room) : 1000;
  for (std::size_t m = 0, p = 0; m < a.segments; ++m)
    for (std::size_t l = 0; l < a.length; l += nodestep, p += nodestep) {
      NodeSums<N> sums(a, p);
      Lane logdensity = all(0.0);
      for (std::size_t first = 0; first < a.records; first += perproduct) {
        const std::size_t last = first + perproduct < a.records ? first + perproduct : a.records;
        Lane product = all(1.0);
        for (std::size_t i = first; i < last; ++i) {
          const Lane e = a.outer[i * a.outerstride + m] * load(a.inner + i * a.length + l);
          const Lane sum = 1.0 + e, inverse = 1.0 / sum, other = e * inverse;
          product *= sum;
          sums.add(i, other * inverse, (2.0 * a.y[i] - 1.0) * other);
        }
        logdensity -= logarithm(product);
      }
      sums.finish(logdensity);
    }
}

// y successes in n trials, e = exp(eta): l = y eta - n log(1 + e), r = y - n e / (1 + e), w = n e / (1 + e)^2.
template <int N>
void exactbinomial(const UnitNodes& a) {
  exponentialparts(a, false);
  for (std::size_t m = 0, p = 0; m < a.segments; ++m)
    for (std::size_t l = 0; l < a.length; l += nodestep, p += nodestep) {
      NodeSums<N> sums(a, p);
      Lane logdensity = a.linear[m] + load(a.linear + a.outerstride + l);
      for (std::size_t i = 0; i < a.records; ++i) {
        const double n = a.n == nullptr ? 1.0 : a.n[i];
        const Lane e = a.outer[i * a.outerstride + m] * load(a.inner + i * a.length + l);
        const Lane sum = 1.0 + e, inverse = 1.0 / sum, mean = n * (e * inverse);
        logdensity -= n * logarithm(sum);
        sums.add(i, mean * inverse, a.y[i] - mean);
      }
      sums.finish(logdensity);
    }
}

// A count, mu = exp(eta): l = y eta - mu, r = y - mu, w = mu.
template <int N>
void exactpoisson(const UnitNodes& a) {
  exponentialparts(a, false);
  for (std::size_t m = 0, p = 0; m < a.segments; ++m)
    for (std::size_t l = 0; l < a.length; l += nodestep, p += nodestep) {
      NodeSums<N> sums(a, p);
      Lane total = all(0.0);
      for (std::size_t i = 0; i < a.records; ++i) {
        const Lane mu = smaller(a.outer[i * a.outerstride + m] * load(a.inner + i * a.length + l), all(largestmean));
        total += mu;
        sums.add(i, mu, a.y[i] - mu);
      }
      sums.finish(a.linear[m] + load(a.linear + a.outerstride + l) - total);
    }
}

// A multinomial record of weight n with the linear predictors eta_c, e_c = exp(eta_c), of all categories but the last:
// p_c = e_c / (1 + sum e), y_c = n in its category, else 0, l = sum_c y_c eta_c - n log(1 + sum e), r_c = y_c - n p_c,
// W = n (diag(p) - p p'). M predictors where the compiler knows the number, else 0.
template <int M>
void exactmultinomial(const UnitNodes& a) {
  constexpr std::size_t room = M > 0 ? static_cast<std::size_t>(M) : mostresponses;
  constexpr std::size_t sumsroom = mostpackedresponses * (mostpackedresponses + 1) / 2;
  const std::size_t m = M > 0 ? static_cast<std::size_t>(M) : a.responses, cells = m * (m + 1) / 2, npi = a.npi;
  const double logroom = 700.0 / (exponentialparts(a, false) + static_cast<double>(m));
  const std::size_t perproduct = logroom < 1000.0 ? static_cast<std::size_t>(logroom) : 1000;
  Lane e[room], W[room * (room + 1) / 2], products[sumsroom];
  for (std::size_t k = 0, p = 0; k < a.segments; ++k)
    for (std::size_t l = 0; l < a.length; l += nodestep, p += nodestep) {
      Lane logdensity = a.linear[k] + load(a.linear + a.outerstride + l), product = all(1.0);
      for (std::size_t c = 0; c < npi; ++c) store(a.gradient + c * a.stride + p, all(0.0));
      if (a.packed)
        for (std::size_t s = 0; s < npi * (npi + 1) / 2; ++s) products[s] = all(0.0);
      const double* x = a.x;
      std::size_t factors = 0;
      for (std::size_t first = 0, i = 0; first < a.records; first += m, ++i, x += npi) {
        Lane sum = all(1.0);
        for (std::size_t c = 0; c < m; ++c) {
          e[c] = a.outer[(first + c) * a.outerstride + k] * load(a.inner + (first + c) * a.length + l);
          sum += e[c];
        }
        const Lane inverse = 1.0 / sum;
        const double n = a.n == nullptr ? 1.0 : a.n[i];
        if (a.n == nullptr) {
          product *= sum;
        } else {
          logdensity -= n * logarithm(sum);
        }
        if (++factors >= perproduct) {
          logdensity -= logarithm(product);
          product = all(1.0);
          factors = 0;
        }
        for (std::size_t c = 0; c < m; ++c) e[c] *= inverse;
        for (std::size_t c = 0, s = 0; c < m; ++c) {
          const Lane mean = n * e[c];
          for (std::size_t d = 0; d < c; ++d, ++s) W[s] = -mean * e[d];
          W[s++] = mean * (1.0 - e[c]);
        }
        for (std::size_t c = 0, s = 0; c < npi; ++c) {
          const std::size_t own = static_cast<std::size_t>(a.response[c]);
          double* g = a.gradient + c * a.stride + p;
          store(g, load(g) + x[c] * (a.y[first + own] - n * e[own]));
          for (std::size_t d = 0; a.packed && d <= c; ++d, ++s) {
            const std::size_t other = static_cast<std::size_t>(a.response[d]);
            products[s] += (x[c] * x[d]) * W[own < other ? other * (other + 1) / 2 + own : own * (own + 1) / 2 + other];
          }
        }
        for (std::size_t s = 0; !a.packed && s < cells; ++s) store(a.weights + (i * cells + s) * a.stride + p, W[s]);
      }
      store(a.logdensity + p, logdensity - logarithm(product));
      if (a.packed)
        for (std::size_t s = 0; s < npi * (npi + 1) / 2; ++s) store(a.weights + s * a.stride + p, products[s]);
    }
}
void anymultinomial(const UnitNodes& a) {
  a.responses == 2 ? exactmultinomial<2>(a) : a.responses == 3 ? exactmultinomial<3>(a) : exactmultinomial<0>(a);
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

// Up to three columns have code of their own.
template <int N>
void exactof(int kind, const UnitNodes& a) {
  kind == 0 ? exactbernoulli<N>(a) : kind == 1 ? exactbinomial<N>(a) : exactpoisson<N>(a);
}
template <int kind>
void exact(const UnitNodes& a) {
  static_assert(mostpacked == 3);
  a.npi == 1   ? exactof<1>(kind, a)
  : a.npi == 2 ? exactof<2>(kind, a)
  : a.npi == 3 ? exactof<3>(kind, a)
               : exactof<0>(kind, a);
}

// The sums of the lanes of four lanes.
inline Lane lanesums(Lane a, Lane b, Lane c, Lane d) {
  // a0 + a1, b0 + b1, a2 + a3, b2 + b3
  const Lane ab = __builtin_shufflevector(a, b, 0, 4, 2, 6) + __builtin_shufflevector(a, b, 1, 5, 3, 7);
  const Lane cd = __builtin_shufflevector(c, d, 0, 4, 2, 6) + __builtin_shufflevector(c, d, 1, 5, 3, 7);
  return __builtin_shufflevector(ab, cd, 0, 1, 4, 5) + __builtin_shufflevector(ab, cd, 2, 3, 6, 7);
}

template <int sets>
inline void addsets(const double* values, const double* weights, std::size_t pairs, std::size_t length, double* sums,
                    std::size_t setstride) {
  Lane sum[4] = {};
  for (std::size_t l = 0; l < length; l += nodestep) {
    const Lane value = load(values + l);
    for (int s = 0; s < sets; ++s) sum[s] += value * load(weights + static_cast<std::size_t>(s) * pairs + l);
  }
  const Lane total = lanesums(sum[0], sum[1], sum[2], sum[3]);
  for (int s = 0; s < sets; ++s) sums[static_cast<std::size_t>(s) * setstride] = total[s];
}

void segmentsums(const SegmentSums& a) {
  for (std::size_t i = 0; i < a.rows; ++i) {
    const std::size_t sets = a.lower && i + 2 < a.sets ? i + 2 : a.sets;
    for (std::size_t m = 0; m < a.segments; ++m) {
      const double *values = a.values + i * a.pairs + m * a.length, *weights = a.weights + m * a.length;
      double* sums = a.sums + m * a.stride + i * a.rowstride;
      std::size_t s = 0;
      for (; s + 4 <= sets; s += 4)
        addsets<4>(values, weights + s * a.pairs, a.pairs, a.length, sums + s * a.setstride, a.setstride);
      const double* rest = weights + s * a.pairs;
      double* to = sums + s * a.setstride;
      if (sets - s == 3) addsets<3>(values, rest, a.pairs, a.length, to, a.setstride);
      if (sets - s == 2) addsets<2>(values, rest, a.pairs, a.length, to, a.setstride);
      if (sets - s == 1) addsets<1>(values, rest, a.pairs, a.length, to, a.setstride);
    }
  }
}

// Four records side by side at one linear predictor each. N columns where the compiler knows the number, else 0 and the
// sums in memory.
template <int N, RecordDensity outcome>
double recordsums(const RecordColumns& a) {
  constexpr std::size_t perproduct = 1000;  // of factors between 1 and 2
  constexpr bool counts = outcome == RecordDensity::poisson || outcome == RecordDensity::exposure;
  constexpr std::size_t known = N > 0 ? N : 1;
  constexpr std::size_t sums = known + known * (known + 1) / 2;
  const std::size_t npi = N > 0 ? static_cast<std::size_t>(N) : a.npi, packed = npi * (npi + 1) / 2;
  Lane own[sums];  // h, M
  for (Lane& value : own) value = all(0.0);
  if constexpr (N == 0)
    for (std::size_t e = 0; e < npi + packed; ++e) store(a.work + e * nodestep, all(0.0));
  const auto add = [&](std::size_t e, Lane value) {
    if constexpr (N > 0) {
      own[e] += value;
    } else {
      store(a.work + e * nodestep, load(a.work + e * nodestep) + value);
    }
  };
  Lane logdensity = all(0.0), product = all(1.0);
  std::size_t factors = 0;
  for (std::size_t i = 0; i < a.stride; i += nodestep) {
    const double* columns = a.columns + i;
    Lane eta = a.coefficients[0] * load(columns);
    for (std::size_t c = 1; c < npi; ++c) eta += a.coefficients[c] * load(columns + c * a.stride);
    eta = limited(eta);
    const Lane y = load(a.y + i), n = load(a.n + i);
    Lane r, W, D;
    if constexpr (counts) {
      if constexpr (outcome == RecordDensity::exposure) eta += load(a.offset + i);
      const Lane mu = n * smaller(exponential(eta), all(largestmean));
      logdensity += y * eta - mu;
      r = y - mu;
      W = D = mu;
    } else {
      const Lane e = exponential(-larger(eta, -eta));
      const Lane inverse = 1.0 / (1.0 + e), mu = (eta < 0.0 ? e : all(1.0)) * inverse;
      logdensity += y * eta - n * larger(eta, all(0.0));
      if constexpr (outcome == RecordDensity::bernoulli) {
        product *= 1.0 + n * e;
        if (++factors == perproduct) {
          logdensity -= logarithm(product);
          product = all(1.0);
          factors = 0;
        }
      } else {
        logdensity -= n * logarithm(1.0 + e);
      }
      r = y - n * mu;
      W = n * (e * inverse * inverse);
      D = W * ((eta < 0.0 ? 1.0 - e : e - 1.0) * inverse);
    }
    if (a.D != nullptr) store(a.D + i, D);
    for (std::size_t c = 0, e = 0; c < npi; ++c) {
      const Lane x = load(columns + c * a.stride), weighted = x * W;
      add(c, x * r);
      for (std::size_t d = 0; d <= c; ++d, ++e) add(npi + e, weighted * load(columns + d * a.stride));
    }
  }
  if constexpr (outcome == RecordDensity::bernoulli) logdensity -= logarithm(product);
  const auto sum = [](Lane lane) { return (lane[0] + lane[1]) + (lane[2] + lane[3]); };
  const auto result = [&](std::size_t e) { return sum(N > 0 ? own[e] : load(a.work + e * nodestep)); };
  for (std::size_t c = 0; c < npi; ++c) a.h[c] = result(c);
  for (std::size_t e = 0; e < packed; ++e) a.M[e] = result(npi + e);
  return sum(logdensity);
}
template <RecordDensity outcome>
double anyrecordsums(const RecordColumns& a) {
  switch (a.npi) {
    case 1:
      return recordsums<1, outcome>(a);
    case 2:
      return recordsums<2, outcome>(a);
    case 3:
      return recordsums<3, outcome>(a);
    default:
      return recordsums<0, outcome>(a);
  }
}

// The same of multinomial records. Where n is 0 there is no record.
double multinomialsums(const RecordColumns& a) {
  const std::size_t npi = a.npi, m = a.responses, packed = npi * (npi + 1) / 2;
  for (std::size_t s = 0; s < npi + packed; ++s) store(a.work + s * nodestep, all(0.0));
  Lane logdensity = all(0.0), eta[mostresponses], r[mostresponses];
  for (std::size_t i = 0; i < a.stride; i += nodestep) {
    const double* columns = a.columns + i;
    const Lane y = load(a.y + i), n = load(a.n + i);
    for (std::size_t c = 0; c < m; ++c) eta[c] = all(0.0);
    for (std::size_t c = 0; c < npi; ++c) eta[a.response[c]] += a.coefficients[c] * load(columns + c * a.stride);
    Lane largest = all(0.0), observed = all(0.0);
    for (std::size_t c = 0; c < m; ++c) {
      eta[c] = limited(eta[c]);
      largest = larger(largest, eta[c]);
      observed += y == static_cast<double>(c) ? eta[c] : all(0.0);
    }
    Lane sum = exponential(-largest);
    for (std::size_t c = 0; c < m; ++c) {
      eta[c] = exponential(eta[c] - largest);
      sum += eta[c];
    }
    logdensity += n * (observed - largest - logarithm(sum));
    for (std::size_t c = 0; c < m; ++c) {
      eta[c] /= sum;  // the probability
      store(a.D + c * a.stride + i, eta[c]);
      r[c] = n * ((y == static_cast<double>(c) ? all(1.0) : all(0.0)) - eta[c]);
    }
    for (std::size_t c = 0, s = 0; c < npi; ++c) {
      const int own = a.response[c];
      const Lane x = load(columns + c * a.stride), weighted = n * x * eta[own];
      double* h = a.work + c * nodestep;
      store(h, load(h) + x * r[own]);
      for (std::size_t d = 0; d <= c; ++d, ++s) {
        const int other = a.response[d];
        double* M = a.work + (npi + s) * nodestep;
        store(M, load(M) + weighted * load(columns + d * a.stride) * ((own == other ? 1.0 : 0.0) - eta[other]));
      }
    }
  }
  const auto sum = [](Lane lane) { return (lane[0] + lane[1]) + (lane[2] + lane[3]); };
  for (std::size_t c = 0; c < npi; ++c) a.h[c] = sum(load(a.work + c * nodestep));
  for (std::size_t s = 0; s < packed; ++s) a.M[s] = sum(load(a.work + (npi + s) * nodestep));
  return sum(logdensity);
}

// With A = X Q X' (responses squared) of a record, d tr(W A) / d eta_c = p_c (A_cc - sum_d p_d A_dd - 2 (A p)_c + 2 p'A
// p).
void multinomialformsums(const RecordColumns& a, const double* Q, double* t) {
  const std::size_t npi = a.npi, m = a.responses;
  for (std::size_t c = 0; c < npi; ++c) t[c] = 0.0;
  Lane A[mostresponses * mostresponses], Ap[mostresponses];
  for (std::size_t i = 0; i < a.stride; i += nodestep) {
    const double* columns = a.columns + i;
    for (std::size_t s = 0; s < m * m; ++s) A[s] = all(0.0);
    for (std::size_t c = 0; c < npi; ++c) {
      Lane* row = A + static_cast<std::size_t>(a.response[c]) * m;
      const Lane x = load(columns + c * a.stride);
      for (std::size_t d = 0; d < npi; ++d) row[a.response[d]] += Q[c * npi + d] * x * load(columns + d * a.stride);
    }
    Lane diagonal = all(0.0), form = all(0.0);
    for (std::size_t c = 0; c < m; ++c) {
      const Lane p = load(a.D + c * a.stride + i);
      Ap[c] = all(0.0);
      for (std::size_t d = 0; d < m; ++d) Ap[c] += A[c * m + d] * load(a.D + d * a.stride + i);
      diagonal += p * A[c * m + c];
      form += p * Ap[c];
    }
    for (std::size_t c = 0; c < npi; ++c) {
      const std::size_t own = static_cast<std::size_t>(a.response[c]);
      const Lane p = load(a.n + i) * load(a.D + own * a.stride + i);
      const Lane part =
          -0.5 * p * (A[own * m + own] - diagonal - 2.0 * Ap[own] + 2.0 * form) * load(columns + c * a.stride);
      t[c] += (part[0] + part[1]) + (part[2] + part[3]);
    }
  }
}

// t[c] := -1/2 sum_i D_i x_ic x_i'Q x_i.
void formsums(const RecordColumns& a, const double* Q, double* t) {
  if (a.response != nullptr) return multinomialformsums(a, Q, t);
  for (std::size_t c = 0; c < a.npi; ++c) t[c] = 0.0;
  for (std::size_t i = 0; i < a.stride; i += nodestep) {
    const double* columns = a.columns + i;
    Lane form = all(0.0);
    for (std::size_t c = 0; c < a.npi; ++c) {
      Lane row = all(0.0);
      for (std::size_t d = 0; d < a.npi; ++d) row += Q[c * a.npi + d] * load(columns + d * a.stride);
      form += row * load(columns + c * a.stride);
    }
    const Lane value = -0.5 * load(a.D + i) * form;
    for (std::size_t c = 0; c < a.npi; ++c) {
      const Lane part = value * load(columns + c * a.stride);
      t[c] += (part[0] + part[1]) + (part[2] + part[3]);
    }
  }
}

// Neither mu nor 1 - mu comes by cancellation.
void workinglogits(LogitRecords& a) {
  Bits held{}, mute{};
  for (std::size_t i = 0; i < a.stride; i += nodestep) {
    const Lane eta = load(a.eta + i), n = a.n == nullptr ? all(1.0) : load(a.n + i);
    const Lane small = exponential(eta < 0.0 ? eta : -eta);
    const Lane most = 1.0 / (1.0 + small), rest = small * most;
    const Lane w = n * (rest * most), mu = eta < 0.0 ? rest : most;
    held -= w >= a.largest;
    mute -= w < a.least;
    store(a.z + i, eta + (load(a.y + i) - n * mu) / w);
    store(a.root + i, root(smaller(w, all(a.largest))));
  }
  a.held = (held[0] + held[1]) + (held[2] + held[3]);
  a.mute = (mute[0] + mute[1]) + (mute[2] + mute[3]);
}

void nodeweights(const NodeWeights& a) {
  for (std::size_t m = 0; m < a.segments; ++m) {
    double* logs = a.logs + m * a.length;
    Lane most = all(-1.0e300);
    for (std::size_t l = 0; l < a.length; l += nodestep) {
      Lane squares = all(0.0);
      for (std::size_t d = 0; d < a.dims; ++d) {
        const Lane z = load(a.nodes + d * a.stride + m * a.length + l);
        squares += z * z;
      }
      const Lane value = load(logs + l) - 0.5 * squares;
      most = larger(value, most);
      store(logs + l, value);
    }
    const double first = most[0] > most[1] ? most[0] : most[1], second = most[2] > most[3] ? most[2] : most[3];
    const double largest = first > second ? first : second;
    Lane sum = all(0.0);
    for (std::size_t l = 0; l < a.length; l += nodestep) {
      const Lane value = load(a.weight + l) * exponential(load(logs + l) - largest);
      sum += value;
      store(logs + l, value);
    }
    const double total = (sum[0] + sum[1]) + (sum[2] + sum[3]), inverse = 1.0 / total;
    for (std::size_t l = 0; l < a.length; l += nodestep) store(logs + l, inverse * load(logs + l));
    a.totals[m] = total;
    a.largest[m] = largest;
  }
  for (std::size_t m = a.segments; m % nodestep != 0; ++m) a.totals[m] = a.largest[m] = 1.0;
  for (std::size_t m = 0; m < a.segments; m += nodestep)
    store(a.totals + m, load(a.largest + m) + logarithm(load(a.totals + m)));
}

void products(const double* a, const double* b, double* to, std::size_t n) {
  for (std::size_t i = 0; i < n; i += nodestep) store(to + i, load(a + i) * load(b + i));
}
void addmultiple(double* sum, const double* values, std::size_t n, double factor) {
  for (std::size_t i = 0; i < n; i += nodestep) store(sum + i, load(sum + i) + factor * load(values + i));
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
    {exact<0>, exact<1>, exact<2>, exact<2>, anymultinomial},
    {anyrecordsums<RecordDensity::bernoulli>, anyrecordsums<RecordDensity::binomial>,
     anyrecordsums<RecordDensity::poisson>, anyrecordsums<RecordDensity::exposure>, multinomialsums},
    formsums,
    workinglogits,
    segmentsums,
    nodeweights,
    products,
    addmultiple,
    exponentials,
    logarithms};

}  // namespace kdr::KDR3_INSTRUCTIONS
