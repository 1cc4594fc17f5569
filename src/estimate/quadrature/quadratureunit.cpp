#include "estimate/quadrature/quadratureunit.h"

#include <algorithm>
#include <cmath>

#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr std::size_t padded(std::size_t n) { return (n + nodestep - 1) / nodestep * nodestep; }

// Nodes of level 3 are worked in blocks of about this many pairs of a level-3 and a level-2 node.
constexpr std::size_t pairsofblock = 256;
// How far a logarithm may exceed the one that scales its sum.
constexpr double largestexcess = 300.0;

void fit(Array<double>& array, std::size_t n) {
  if (array.size() < n) array.reset(n);
}

// The logarithm of one value by the loops', the same on every machine.
double logarithm(const QuadratureLoops& loops, double value) {
  double values[nodestep] = {value, 1.0, 1.0, 1.0};
  loops.logarithms(values, nodestep);
  return values[0];
}
double exponential(const QuadratureLoops& loops, double value) {
  double values[nodestep] = {value, 0.0, 0.0, 0.0};
  loops.exponentials(values, nodestep);
  return values[0];
}

// L = the lower Cholesky factor of 2 A (n squared), by columns, the upper triangle of L zero. False at a pivot that is
// not above 0.
bool factor(std::size_t n, const double* A, double* L) {
  std::fill_n(L, n * n, 0.0);
  for (std::size_t c = 0; c < n; ++c) {
    double pivot = 2.0 * A[c * n + c];
    for (std::size_t l = 0; l < c; ++l) pivot -= L[c * n + l] * L[c * n + l];
    if (!(pivot > 0.0) || !std::isfinite(pivot)) return false;
    L[c * n + c] = std::sqrt(pivot);
    for (std::size_t i = c + 1; i < n; ++i) {
      double sum = 2.0 * A[i * n + c];
      for (std::size_t l = 0; l < c; ++l) sum -= L[i * n + l] * L[c * n + l];
      L[i * n + c] = sum / L[c * n + c];
    }
  }
  return true;
}

double logdiagonal(const QuadratureLoops& loops, std::size_t n, const double* L) {
  double product = 1.0;
  for (std::size_t i = 0; i < n; ++i) product *= L[i * n + i];
  // The product of many small factors may leave the range of the loops' logarithm.
  if (product > 1.0e-290 && product < 1.0e290) return logarithm(loops, product);
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += logarithm(loops, L[i * n + i]);
  return sum;
}

// The nodes centre + L x (n by count), quad = -x'Kx / 2 (count) and, when t is not null, t = vech(K x x' K - K)
// (n(n+1)/2 by count).
void placenodes(const NodeGrid& grid, const double* centre, const double* L, const double* K, double* x, double* quad,
                double* t) {
  const std::size_t n = at(grid.dims), count = at(grid.count);
  for (std::size_t a = 0; a < n; ++a) {
    std::fill_n(x + a * count, count, centre[a]);
    for (std::size_t b = 0; b <= a; ++b)
      for (std::size_t m = 0; m < count; ++m) x[a * count + m] += L[a * n + b] * grid.x[b * count + m];
  }
  for (std::size_t m = 0; m < count; ++m) {
    double Kx[mosteffects];
    double form = 0.0;
    for (std::size_t a = 0; a < n; ++a) {
      double sum = 0.0;
      for (std::size_t b = 0; b < n; ++b) sum += K[a * n + b] * x[b * count + m];
      Kx[a] = sum;
      form += sum * x[a * count + m];
    }
    quad[m] = -0.5 * form;
    if (t == nullptr) continue;
    for (std::size_t a = 0, pair = 0; a < n; ++a)
      for (std::size_t b = 0; b <= a; ++b, ++pair) t[pair * count + m] = Kx[a] * Kx[b] - K[a * n + b];
  }
}

// The rows e_i, d_i and the fixed part of the records of level-2 unit j.
void makerows(const QuadratureModel& model, const Level3Records& records, int j, QuadratureWork& work) {
  const std::size_t npi = at(model.npi), q = at(model.q), r = at(model.r), dims = q + r;
  const std::size_t first = records.start[at(j)], count = records.start[at(j) + 1] - first;
  const double* w2 = records.w2.data() + at(j) * at(model.nbeta);
  const Design& design = *model.design;
  fit(work.rows, count * dims);
  fit(work.fixed, count);
  double* coefficients = work.coefficients.data();  // W2_j W3 gamma
  std::fill_n(coefficients, npi, 0.0);
  for (std::size_t m = 0; m < at(model.nbeta); ++m) coefficients[at(design.owner2[m])] += w2[m] * work.theta[m];
  for (std::size_t i = 0; i < count; ++i) {
    const double* x = records.x.data() + (first + i) * npi;
    double* row = work.rows.data() + i * dims;
    for (std::size_t b = 0; b < r; ++b) row[b] = w2[b] * x[at(design.owner2[b])];
    for (std::size_t a = 0; a < q; ++a) row[r + a] = x[at(design.random1[a])];
    double sum = 0.0;
    for (std::size_t c = 0; c < npi; ++c) sum += x[c] * coefficients[c];
    work.fixed[i] = sum;
  }
}

// Shapes of the statistics of one level-2 unit at one level-3 node, one behind the other in a record of `size`:
// mean of u less its centre (q), second moment of the same (triangle), covariance of z = (h, t2) (triangle).
struct Statistics {
  std::size_t q, Z;
  std::size_t mean = 0, second, covariance, size;
  Statistics(std::size_t orderq, std::size_t orderz)
      : q(orderq),
        Z(orderz),
        second(orderq),
        covariance(orderq + packedsize(orderq)),
        size(covariance + packedsize(Z)) {}
};

// A running sum of terms exp(log of its weight) times a value, whose scale follows the largest weight.
struct Scale {
  double shift = 0.0;
  bool empty = true;
  // The weight of a term relative to the scale. `rescale` is what the sums so far are to be multiplied with.
  double weight(const QuadratureLoops& loops, double logweight, double& rescale) {
    rescale = 1.0;
    if (empty) {
      shift = logweight;
      empty = false;
    } else if (logweight - shift > largestexcess) {
      const double fall = shift - logweight;
      rescale = fall < -700.0 ? 0.0 : exponential(loops, fall);
      shift = logweight;
    }
    const double excess = logweight - shift;
    return excess < -700.0 ? 0.0 : exponential(loops, excess);
  }
};

void multiply(double* values, std::size_t n, double factor) {
  for (std::size_t i = 0; i < n; ++i) values[i] *= factor;
}
void addmultiple(double* sum, const double* values, std::size_t n, double factor) {
  for (std::size_t i = 0; i < n; ++i) sum[i] += factor * values[i];
}

// One level-3 unit under way.
struct UnitIntegral {
  const QuadratureModel& model;
  const QuadraturePoint& point;
  const Level3Records& records;
  const Adaptation& adaptation;
  QuadratureWork& work;
  const bool withmoments, withinformation;

  const QuadratureLoops& loops = fastestquadratureloops();
  const std::size_t npi = at(model.npi), nbeta = at(model.nbeta), q = at(model.q), r = at(model.r);
  const std::size_t P2 = packedsize(q), P3 = packedsize(r), Z = npi + P2, A = P2 + P3 + nbeta;
  const std::size_t units = at(records.units), total = records.start[units];
  const std::size_t nodes2 = at(model.grid2.count), nodes3 = at(model.grid3.count);
  const Statistics shape{q, withinformation ? Z : 0};

  // Sums over the level-3 nodes, each with its weight, in work.moments: 1, v - vstar (r), its second moments
  // (triangle), a - a of the first node (A), its second moments (triangle).
  const std::size_t atmean = 1, atsecond = atmean + r, atlevel3 = atsecond + packedsize(r), atcross = atlevel3 + A;
  const std::size_t nmoments = atcross + (withinformation ? packedsize(A) : 0);

  const double* centre3() const { return adaptation.vstar.data() + at(records.k) * r; }
  const double* centre2(std::size_t j) const { return adaptation.ustar.data() + (records.firstunit + j) * q; }

  [[nodiscard]] std::size_t blocksize() const { return std::clamp<std::size_t>(pairsofblock / nodes2, 1, nodes3); }
  [[nodiscard]] std::size_t paircount() const { return padded(blocksize() * nodes2); }

  void prepare();
  EngineFailure level2(std::size_t j, std::size_t firstnode, std::size_t nodes);
  void placepairs(std::size_t firstnode, std::size_t nodes);
  void callloops(std::size_t j);
  double normalise(std::size_t node);
  void level2moments(std::size_t j, std::size_t node);
  EngineFailure integrate(double& loglikelihood);
  void addnode(Scale& scale, std::size_t m, std::size_t node, double logweight);
  void finish(const UnitMoments& moments);
  void renew(Adaptation& next, double sum);
  void score(double sum, double* s);
  void information(double sum, double* H);
};

void UnitIntegral::prepare() {
  const std::size_t block = blocksize(), pairs = paircount(), dims = q + r;
  fit(work.L2, q * q);
  fit(work.L3, r * r);
  fit(work.v, r * nodes3);
  fit(work.quad3, nodes3);
  fit(work.t3, P3 * nodes3);
  fit(work.u, q * nodes2);
  fit(work.quad2, nodes2);
  fit(work.t2, P2 * nodes2);
  fit(work.z, (Z + q) * nodes2);
  fit(work.theta, nbeta);
  fit(work.coefficients, npi);
  fit(work.nodes, dims * pairs);
  fit(work.logdensity, pairs);
  fit(work.product, pairs);
  fit(work.sums, block);
  level2means(*model.design, records.w3.data(), point.gamma, work.theta.data());
  if (!withmoments) return;
  fit(work.gradient, npi * pairs);
  fit(work.statistics, block * units * shape.size);
  fit(work.averages, units * shape.size);
  fit(work.recordweights, block * total);
  fit(work.averageweights, total);
  fit(work.level3, block * A + A);
  fit(work.moments, nmoments);
  std::fill_n(work.averages.data(), units * shape.size, 0.0);
  std::fill_n(work.averageweights.data(), total, 0.0);
  std::fill_n(work.moments.data(), nmoments, 0.0);
}

// The coordinates of the pairs of a block: level-3 node by level-3 node, within it level-2 node by level-2 node.
void UnitIntegral::placepairs(std::size_t firstnode, std::size_t nodes) {
  const std::size_t pairs = paircount();
  for (std::size_t node = 0; node < nodes; ++node) {
    for (std::size_t b = 0; b < r; ++b)
      std::fill_n(work.nodes.data() + b * pairs + node * nodes2, nodes2, work.v[b * nodes3 + firstnode + node]);
    for (std::size_t a = 0; a < q; ++a)
      std::copy_n(work.u.data() + a * nodes2, nodes2, work.nodes.data() + (r + a) * pairs + node * nodes2);
  }
}

void UnitIntegral::callloops(std::size_t j) {
  const std::size_t first = records.start[j], count = records.start[j + 1] - first;
  RecordDensity density = RecordDensity::bernoulli;
  const double* y = records.y.data() + first;
  const double* n = records.n.empty() ? nullptr : records.n.data() + first;
  if (model.outcome == Family::bernoulli) {
    n = nullptr;
    // A share of successes is a binomial outcome of one trial.
    if (!std::all_of(y, y + count, [](double value) { return value == 0.0 || value == 1.0; }))
      density = RecordDensity::binomial;
  } else if (model.outcome == Family::binomial) {
    density = RecordDensity::binomial;
  } else if (n == nullptr) {
    density = RecordDensity::poisson;
  } else {
    density = RecordDensity::exposure;
    fit(work.n, padded(count));
    std::copy_n(n, count, work.n.data());
    std::fill(work.n.data() + count, work.n.data() + padded(count), 1.0);
    loops.logarithms(work.n.data(), padded(count));
    n = work.n.data();
  }
  if (withmoments) fit(work.weights, count * paircount());
  const NodePairs pairs{count,
                        npi,
                        q + r,
                        paircount(),
                        records.x.data() + first * npi,
                        work.rows.data(),
                        work.fixed.data(),
                        y,
                        n,
                        work.nodes.data(),
                        work.logdensity.data(),
                        work.gradient.data(),
                        work.weights.data(),
                        work.product.data()};
  (withmoments ? loops.moments : loops.density)[static_cast<int>(density)](pairs);
}

// Turns the logarithms of the integrand at the level-2 nodes of one level-3 node into normalised weights, in place, and
// returns the logarithm of their sum; two sweeps, with the exponentials between them, see level2().
double UnitIntegral::normalise(std::size_t node) {
  double* weight = work.logdensity.data() + node * nodes2;
  double sum = 0.0;
  for (std::size_t m = 0; m < nodes2; ++m) {
    weight[m] *= model.grid2.weight[m];
    sum += weight[m];
  }
  const double inverse = 1.0 / sum;
  for (std::size_t m = 0; m < nodes2; ++m) weight[m] *= inverse;
  return logarithm(loops, sum);
}

// Level-2 unit j at the level-3 nodes of a block: adds the logarithm of its integral to the sums and leaves its
// statistics.
EngineFailure UnitIntegral::level2(std::size_t j, std::size_t firstnode, std::size_t nodes) {
  if (!factor(q, adaptation.P.data() + (records.firstunit + j) * q * q, work.L2.data())) return EngineFailure::centre2;
  const double constant = logdiagonal(loops, q, work.L2.data()) + point.logc2;
  placenodes(model.grid2, centre2(j), work.L2.data(), point.Kp.data(), work.u.data(), work.quad2.data(),
             withmoments ? work.t2.data() : nullptr);
  placepairs(firstnode, nodes);
  makerows(model, records, static_cast<int>(j), work);
  callloops(j);

  double* logs = work.logdensity.data();
  for (std::size_t node = 0; node < nodes; ++node) {
    double* log = logs + node * nodes2;
    for (std::size_t m = 0; m < nodes2; ++m) log[m] += work.quad2[m];
    const double largest = *std::max_element(log, log + nodes2);
    for (std::size_t m = 0; m < nodes2; ++m) log[m] -= largest;
    work.sums[node] += largest + constant;
  }
  std::fill(logs + nodes * nodes2, logs + paircount(), 0.0);
  loops.exponentials(logs, paircount());
  for (std::size_t node = 0; node < nodes; ++node) {
    work.sums[node] += normalise(node);
    if (withmoments) level2moments(j, node);
  }
  return EngineFailure::none;
}

// The statistics of unit j at one level-3 node, and what it adds to the level-3 sums t2 and beta of the node.
void UnitIntegral::level2moments(std::size_t j, std::size_t node) {
  const std::size_t first = records.start[j], count = records.start[j + 1] - first, pairs = paircount();
  const double* weight = work.logdensity.data() + node * nodes2;
  const auto mean = [&](const double* values) {
    double sum = 0.0;
    for (std::size_t m = 0; m < nodes2; ++m) sum += weight[m] * values[m];
    return sum;
  };
  double* statistics = work.statistics.data() + (node * units + j) * shape.size;

  // u less its centre, and z = (h, t2) less its mean.
  double* centred = work.z.data();
  for (std::size_t a = 0; a < q; ++a, centred += nodes2) {
    for (std::size_t m = 0; m < nodes2; ++m) centred[m] = work.u[a * nodes2 + m] - centre2(j)[a];
    statistics[shape.mean + a] = mean(centred);
    for (std::size_t b = 0; b <= a; ++b) {
      const double* other = work.z.data() + b * nodes2;
      double sum = 0.0;
      for (std::size_t m = 0; m < nodes2; ++m) sum += weight[m] * centred[m] * other[m];
      statistics[shape.second + packedsize(a) + b] = sum;
    }
  }
  double* level3 = work.level3.data() + node * A;
  double* z = centred;
  for (std::size_t c = 0; c < Z; ++c, centred += nodes2) {
    const double* values =
        c < npi ? work.gradient.data() + c * pairs + node * nodes2 : work.t2.data() + (c - npi) * nodes2;
    const double zmean = mean(values);
    if (c < npi)
      work.coefficients[c] = zmean;
    else
      level3[c - npi] += zmean;
    if (!withinformation) continue;
    for (std::size_t m = 0; m < nodes2; ++m) centred[m] = values[m] - zmean;
    for (std::size_t d = 0; d <= c; ++d) {
      const double* other = z + d * nodes2;
      double sum = 0.0;
      for (std::size_t m = 0; m < nodes2; ++m) sum += weight[m] * centred[m] * other[m];
      statistics[shape.covariance + packedsize(c) + d] = sum;
    }
  }
  const double* w2 = records.w2.data() + j * nbeta;
  for (std::size_t m = 0; m < nbeta; ++m) level3[P2 + P3 + m] += w2[m] * work.coefficients[at(model.design->owner2[m])];
  if (!withinformation) return;
  for (std::size_t i = 0; i < count; ++i)
    work.recordweights[node * total + first + i] = mean(work.weights.data() + i * pairs + node * nodes2);
}

// Adds level-3 node m, node `node` of its block, to all sums.
void UnitIntegral::addnode(Scale& scale, std::size_t m, std::size_t node, double logweight) {
  double rescale = 1.0;
  const bool first = scale.empty;
  const double weight = model.grid3.weight[m] * scale.weight(loops, logweight, rescale);
  if (rescale != 1.0) {
    multiply(work.moments.data(), withmoments ? nmoments : 1, rescale);
    if (withmoments) {
      multiply(work.averages.data(), units * shape.size, rescale);
      multiply(work.averageweights.data(), total, rescale);
    }
  }
  double* sums = work.moments.data();
  sums[0] += weight;
  if (!withmoments) return;
  for (std::size_t a = 0; a < r; ++a) {
    const double va = work.v[a * nodes3 + m] - centre3()[a];
    sums[atmean + a] += weight * va;
    for (std::size_t b = 0; b <= a; ++b)
      sums[atsecond + packedsize(a) + b] += weight * va * (work.v[b * nodes3 + m] - centre3()[b]);
  }
  double* a = work.level3.data() + node * A;
  double* reference = work.level3.data() + blocksize() * A;
  for (std::size_t c = 0; c < P3; ++c) a[P2 + c] = work.t3[c * nodes3 + m];
  if (first) std::copy_n(a, A, reference);
  for (std::size_t c = 0; c < A; ++c) a[c] -= reference[c];
  addmultiple(sums + atlevel3, a, A, weight);
  addmultiple(work.averages.data(), work.statistics.data() + node * units * shape.size, units * shape.size, weight);
  if (!withinformation) return;
  for (std::size_t c = 0; c < A; ++c) addmultiple(sums + atcross + packedsize(c), a, c + 1, weight * a[c]);
  addmultiple(work.averageweights.data(), work.recordweights.data() + node * total, total, weight);
}

EngineFailure UnitIntegral::integrate(double& loglikelihood) {
  prepare();
  fit(work.moments, 1);
  work.moments[0] = 0.0;
  if (!factor(r, adaptation.C3.data() + at(records.k) * r * r, work.L3.data())) return EngineFailure::centre3;
  placenodes(model.grid3, centre3(), work.L3.data(), point.Kb.data(), work.v.data(), work.quad3.data(), work.t3.data());
  const std::size_t block = blocksize();
  Scale scale;
  for (std::size_t first = 0; first < nodes3; first += block) {
    const std::size_t nodes = std::min(block, nodes3 - first);
    std::fill_n(work.sums.data(), block, 0.0);
    if (withmoments) std::fill_n(work.level3.data(), block * A, 0.0);
    for (std::size_t j = 0; j < units; ++j)
      if (const EngineFailure failure = level2(j, first, nodes); failure != EngineFailure::none) return failure;
    for (std::size_t node = 0; node < nodes; ++node)
      addnode(scale, first + node, node, work.quad3[first + node] + work.sums[node]);
  }
  loglikelihood = scale.shift + logarithm(loops, work.moments[0]) + point.logc3 + logdiagonal(loops, r, work.L3.data());
  return EngineFailure::none;
}

// The new adaptation: posterior means and covariances.
void UnitIntegral::renew(Adaptation& next, double sum) {
  const auto put = [sum](std::size_t n, const double* centre, const double* means, const double* seconds, double* mean,
                         double* covariance) {
    for (std::size_t a = 0; a < n; ++a) mean[a] = centre[a] + means[a] / sum;
    for (std::size_t a = 0; a < n; ++a)
      for (std::size_t b = 0; b <= a; ++b)
        covariance[a * n + b] = covariance[b * n + a] =
            seconds[packedsize(a) + b] / sum - (means[a] / sum) * (means[b] / sum);
  };
  put(r, centre3(), work.moments.data() + atmean, work.moments.data() + atsecond, next.vstar.data() + at(records.k) * r,
      next.C3.data() + at(records.k) * r * r);
  for (std::size_t j = 0; j < units; ++j) {
    const double* average = work.averages.data() + j * shape.size;
    const std::size_t unit = records.firstunit + j;
    put(q, centre2(j), average + shape.mean, average + shape.second, next.ustar.data() + unit * q,
        next.P.data() + unit * q * q);
  }
}

// The weight of tau element `pair` of a matrix: 1/2 on the diagonal, 1 off it.
double pairweight(std::size_t pair) {
  std::size_t a = 0;
  while (packedsize(a + 1) <= pair) ++a;
  return pair + 1 == packedsize(a + 1) ? 0.5 : 1.0;
}

// 2 wt E[t2], 2 wt E[t3], 2 W3' E[beta].
void UnitIntegral::score(double sum, double* s) {
  const Design& design = *model.design;
  const double* reference = work.level3.data() + blocksize() * A;
  const auto mean = [&](std::size_t c) { return reference[c] + work.moments[atlevel3 + c] / sum; };
  std::fill_n(s, P2 + P3 + at(model.g), 0.0);
  for (std::size_t c = 0; c < P2; ++c) s[c] = 2.0 * pairweight(c) * mean(c);
  for (std::size_t c = 0; c < P3; ++c) s[P2 + c] = 2.0 * pairweight(c) * mean(P2 + c);
  for (std::size_t f = 0; f < design.owner3.size(); ++f)
    s[P2 + P3 + at(design.reduced[f])] += 2.0 * records.w3[f] * mean(P2 + P3 + at(design.owner3[f]));
}

// 2 [ E S - sum_j E cov(z_j | v) - cov(a) ] in the order (t2, t3, beta), the tau rows and columns with their pair
// weights, gamma from beta by W3. S = sum_i E[w_i] x_i x_i'.
void UnitIntegral::information(double sum, double* H) {
  const Design& design = *model.design;
  fit(work.information, A * A + npi * npi);
  double* N = work.information.data();  // lower triangle
  double* X = N + A * A;                // S_j, lower triangle
  std::fill_n(N, A * A, 0.0);
  const double* means = work.moments.data() + atlevel3;
  const double* cross = work.moments.data() + atcross;
  for (std::size_t c = 0; c < A; ++c)
    for (std::size_t d = 0; d <= c; ++d)
      N[c * A + d] = (means[c] / sum) * (means[d] / sum) - cross[packedsize(c) + d] / sum;
  for (std::size_t j = 0; j < units; ++j) {
    const double* covariance = work.averages.data() + j * shape.size + shape.covariance;
    const double* w2 = records.w2.data() + j * nbeta;
    for (std::size_t c = 0; c < npi; ++c)
      for (std::size_t d = 0; d <= c; ++d) X[c * npi + d] = -covariance[packedsize(c) + d] / sum;
    for (std::size_t i = records.start[j]; i < records.start[j + 1]; ++i) {
      const double* x = records.x.data() + i * npi;
      for (std::size_t c = 0; c < npi; ++c) {
        const double wx = work.averageweights[i] / sum * x[c];
        for (std::size_t d = 0; d <= c; ++d) X[c * npi + d] += wx * x[d];
      }
    }
    for (std::size_t c = 0; c < P2; ++c)
      for (std::size_t d = 0; d <= c; ++d) N[c * A + d] -= covariance[packedsize(npi + c) + npi + d] / sum;
    for (std::size_t m = 0; m < nbeta; ++m) {
      const std::size_t c = at(design.owner2[m]);
      double* row = N + (P2 + P3 + m) * A;
      for (std::size_t d = 0; d < P2; ++d) row[d] -= w2[m] * covariance[packedsize(npi + d) + c] / sum;
      for (std::size_t n = 0; n <= m; ++n) {
        const std::size_t d = at(design.owner2[n]);
        row[P2 + P3 + n] += w2[m] * w2[n] * X[std::max(c, d) * npi + std::min(c, d)];
      }
    }
  }
  const std::size_t taus = P2 + P3, P = taus + at(model.g), full = design.owner3.size();
  const auto weight = [&](std::size_t c) { return pairweight(c < P2 ? c : c - P2); };
  std::fill_n(H, P * P, 0.0);
  for (std::size_t c = 0; c < taus; ++c)
    for (std::size_t d = 0; d <= c; ++d) H[c * P + d] = H[d * P + c] = 2.0 * weight(c) * weight(d) * N[c * A + d];
  for (std::size_t f = 0; f < full; ++f) {
    const std::size_t beta = taus + at(design.owner3[f]), gamma = taus + at(design.reduced[f]);
    for (std::size_t d = 0; d < taus; ++d) {
      const double value = 2.0 * weight(d) * records.w3[f] * N[beta * A + d];
      H[gamma * P + d] += value;
      H[d * P + gamma] += value;
    }
    for (std::size_t h = 0; h < full; ++h) {
      const std::size_t other = taus + at(design.owner3[h]);
      H[gamma * P + taus + at(design.reduced[h])] +=
          2.0 * records.w3[f] * records.w3[h] * N[std::max(beta, other) * A + std::min(beta, other)];
    }
  }
}

void UnitIntegral::finish(const UnitMoments& moments) {
  const double sum = work.moments[0];
  if (moments.next != nullptr) renew(*moments.next, sum);
  score(sum, moments.score);
  if (withinformation) information(sum, moments.information);
}

}  // namespace

const QuadratureLoops& fastestquadratureloops() {
#if defined(__x86_64__)
  static const QuadratureLoops& fastest =
      __builtin_cpu_supports("avx2") ? avx2::quadratureloops : baseline::quadratureloops;
  return fastest;
#else
  return baseline::quadratureloops;
#endif
}

bool makepoint(QuadraturePoint& point, const Parameters& parameters) {
  constexpr double twopi = 6.283185308;
  const auto invert = [](int n, const Array<double>& tau, Array<double>& K, double& logconstant) {
    K.reset(square(n));
    const Inversion inversion = invertsymmetric(n, tau.data(), K.data());
    logconstant = -0.5 * (n * std::log(twopi) + inversion.logpivots);
    return inversion.result == 0 && !inversion.negative;
  };
  point.gamma = parameters.gamma.data();
  const bool usable2 = invert(parameters.q, parameters.taupi, point.Kp, point.logc2);
  return invert(parameters.r, parameters.taubeta, point.Kb, point.logc3) && usable2;
}

EngineFailure integrateunit(const QuadratureModel& model, const QuadraturePoint& point, const Level3Records& records,
                            const Adaptation& adaptation, QuadratureWork& work, double& loglikelihood,
                            const UnitMoments* moments) {
  const bool withinformation = moments != nullptr && moments->information != nullptr;
  UnitIntegral unit{model, point, records, adaptation, work, moments != nullptr, withinformation};
  const EngineFailure failure = unit.integrate(loglikelihood);
  if (failure == EngineFailure::none && moments != nullptr) unit.finish(*moments);
  return failure;
}

}  // namespace kdr
