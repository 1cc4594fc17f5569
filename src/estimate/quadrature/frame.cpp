#include "estimate/quadrature/frame.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kernel/distributions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

// A column that is within this share of its length a combination of those before it has no direction of its own: its
// matrix then gets no rotation.
constexpr double leastnewshare = 1.0e-11;
// Of two thresholds at a start. Those of estimates to begin from may be anywhere.
constexpr double leastdistance = 1.0e-3;

// R (n squared, upper triangular) := that of the QR decomposition of R with `row` beneath it. `row` is used up.
void appendrow(std::size_t n, double* R, double* row) {
  for (std::size_t c = 0; c < n; ++c) {
    if (row[c] == 0.0) continue;
    const double a = R[c * n + c], b = row[c];
    const double length = std::sqrt(a * a + b * b);
    const double cosine = a / length, sine = b / length;
    for (std::size_t i = c; i < n; ++i) {
      const double upper = R[c * n + i], lower = row[i];
      R[c * n + i] = cosine * upper + sine * lower;
      row[i] = cosine * lower - sine * upper;
    }
  }
}

// R of the records of one unit (npi squared), by Gram-Schmidt in the order of the columns. Those of different linear
// predictors stand in different rows and are orthogonal.
void unittriangle(std::size_t npi, std::size_t records, const double* x, const std::vector<int>& response,
                  Array<double>& columns, double* R) {
  if (columns.size() < npi * records) columns.reset(npi * records);
  for (std::size_t c = 0; c < npi; ++c)
    for (std::size_t i = 0; i < records; ++i) columns[c * records + i] = x[i * npi + c];
  std::fill_n(R, npi * npi, 0.0);
  for (std::size_t c = 0; c < npi; ++c) {
    double* column = columns.data() + c * records;
    const double length = std::sqrt(dot(column, column, records));
    R[c * npi + c] = length;
    if (length == 0.0) continue;
    multiply(column, records, 1.0 / length);
    for (std::size_t l = c + 1; l < npi; ++l) {
      if (!response.empty() && response[l] != response[c]) continue;
      double* other = columns.data() + l * records;
      const double share = dot(column, other, records);
      R[c * npi + l] = share;
      for (std::size_t i = 0; i < records; ++i) other[i] -= share * column[i];
    }
  }
}

double columnlength(std::size_t rows, std::size_t n, const double* M, std::size_t c) {
  double sum = 0.0;
  for (std::size_t i = 0; i < rows; ++i) sum = std::hypot(sum, M[i * n + c]);
  return sum;
}

// Makes R, the triangle of columns, one of columns with mean square 1, and its inverse; only the lengths where
// `scaled`, or where the columns depend on each other.
void settriangle(std::size_t n, double records, bool scaled, Array<double>& R, Array<double>& inverse) {
  for (double& value : R) value /= std::sqrt(records);
  for (std::size_t c = 0; c < n; ++c)
    if (!(std::fabs(R[c * n + c]) > leastnewshare * columnlength(n, n, R.data(), c))) scaled = true;
  if (scaled) {
    Array<double> lengths(n * n);
    for (std::size_t c = 0; c < n; ++c) {
      const double length = columnlength(n, n, R.data(), c);
      lengths[c * n + c] = length > 0.0 ? length : 1.0;
    }
    R = std::move(lengths);
  }
  inverse.reset(n * n);
  for (std::size_t c = 0; c < n; ++c) {
    inverse[c * n + c] = 1.0 / R[c * n + c];
    for (std::size_t i = c; i-- > 0;) {
      double sum = 0.0;
      for (std::size_t l = i + 1; l <= c; ++l) sum -= R[i * n + l] * inverse[l * n + c];
      inverse[i * n + c] = sum / R[i * n + i];
    }
  }
}

// The same of all columns but the last, those of thresholds. Theirs is the identity, or, `distances`, what makes
// thresholds distances: each less the one before.
void settriangle(std::size_t n, std::size_t thresholds, bool distances, double records, Array<double>& R,
                 Array<double>& inverse) {
  if (thresholds == 0) return settriangle(n, records, false, R, inverse);
  const std::size_t free = n - thresholds;
  Array<double> leading(free * free), leadinginverse;
  for (std::size_t c = 0; c < free; ++c) std::copy_n(R.data() + c * n, free, leading.data() + c * free);
  settriangle(free, records, false, leading, leadinginverse);
  R.reset(n * n);
  inverse.reset(n * n);
  for (std::size_t c = 0; c < free; ++c) {
    std::copy_n(leading.data() + c * free, free, R.data() + c * n);
    std::copy_n(leadinginverse.data() + c * free, free, inverse.data() + c * n);
  }
  for (std::size_t c = free; c < n; ++c) {
    R[c * n + c] = 1.0;
    if (c > free) R[c * n + c - 1] = distances ? -1.0 : 0.0;
    for (std::size_t d = free; d <= c; ++d) inverse[c * n + d] = distances || c == d ? 1.0 : 0.0;
  }
}

// A count that a weight was multiplied with and divided by is the same again but for rounding.
double withoutweight(double value, double weight) {
  constexpr double rounding = 1.0e-12;
  const double count = value / weight, whole = std::round(count);
  return std::fabs(count - whole) < rounding * count ? whole : count;
}

// The terms of the outcome alone; of a weighted record times the weights, and for a count y with weight a, which stands
// as a y of exposure a n, less a y log a.
void addconstants(Frame& frame, const Level3Records& unit) {
  const bool weighted = !unit.weight1.empty();
  for (std::size_t j = 0; j < at(unit.units); ++j)
    for (std::size_t i = unit.start[j]; i < unit.start[j + 1]; ++i) {
      const double a = weighted ? unit.weight1[i] : 1.0, above = weighted ? unit.weight2[j] * unit.weight3 : 1.0;
      const double y = weighted ? withoutweight(unit.y[i], a) : unit.y[i];
      if (frame.outcome == Family::binomial && !unit.n.empty())
        frame.combinations += a * above * logcombinations(weighted ? withoutweight(unit.n[i], a) : unit.n[i], y);
      if (frame.outcome == Family::poisson) frame.counts -= a * above * logfactorial(y);
      if (frame.outcome == Family::poisson && weighted) frame.counts -= above * unit.y[i] * std::log(a);
    }
}

// What the frame knows of a level-3 unit beside its columns: predictors and weights, and the counts and constants of
// its records.
void keepunit(Frame& frame, const Level3Records& unit) {
  UnitDesigns& units = frame.units;
  units.first.push_back(units.first.back() + at(unit.units));
  units.w2.insert(units.w2.end(), unit.w2.begin(), unit.w2.end());
  units.w3.insert(units.w3.end(), unit.w3.begin(), unit.w3.end());
  if (!unit.weight2.empty()) {
    units.weight2.insert(units.weight2.end(), unit.weight2.begin(), unit.weight2.end());
    units.weight3.push_back(unit.weight3);
  }
  const auto records = static_cast<double>(unit.start[at(unit.units)]);
  frame.records += records;
  frame.outcomes += unit.categories.empty() ? records : unit.outcomes;
  if (frame.categories.empty()) frame.categories.reset(unit.categories.size());
  for (std::size_t c = 0; c < unit.categories.size(); ++c) frame.categories[c] += unit.weight3 * unit.categories[c];
  addconstants(frame, unit);
  if (!frame.shares && frame.outcome == Family::bernoulli)
    frame.shares = std::any_of(unit.y.begin(), unit.y.end(), [](double y) { return y != 0.0 && y != 1.0; });
}

struct TriangleWork {
  Array<double> columns, R;  // of unittriangle
  Array<double> row, fixed;  // [max(npi, g, r, nbeta)], [g]
};

// The records of level-2 unit j, by the rows x' of their triangle, into the triangles of all: x' into R1, e' with
// e_b = w2_b x_owner(b) into Re, and the columns of gamma, sums of w3_f w2_m x_owner(m), into Rx.
void appendunit(Frame& frame, const Level3Records& unit, std::size_t j, TriangleWork& work) {
  const Design& design = *frame.design;
  const std::size_t p = at(frame.npi), r = at(frame.r), g = at(frame.g);
  const std::size_t first = unit.start[j], count = unit.start[j + 1] - first;
  const double* w2 = unit.w2.data() + j * at(frame.nbeta);
  unittriangle(p, count, unit.x.data() + first * p, frame.response, work.columns, work.R.data());
  for (std::size_t i = 0; i < p; ++i) {
    const double* x = work.R.data() + i * p;
    if (std::all_of(x, x + p, [](double v) { return v == 0.0; })) continue;
    for (std::size_t b = 0; b < r; ++b) work.row[b] = w2[b] * x[at(design.owner2[b])];
    appendrow(r, frame.Re.data(), work.row.data());
    std::fill(work.fixed.begin(), work.fixed.end(), 0.0);
    for (std::size_t f = 0; f < design.owner3.size(); ++f) {
      const std::size_t m = at(design.owner3[f]);
      work.fixed[at(design.reduced[f])] += unit.w3[f] * w2[m] * x[at(design.owner2[m])];
    }
    appendrow(g, frame.Rx.data(), work.fixed.data());
    std::copy_n(x, p, work.row.data());
    appendrow(p, frame.R1.data(), work.row.data());
  }
}

// Weights of the units, those of level 3 to a mean of 1: a factor of all of them leaves every step as it is.
void setweights(Frame& frame) {
  UnitDesigns& units = frame.units;
  frame.counted2 = static_cast<double>(frame.units2());
  if (units.weight3.empty()) return;
  double sum = 0.0;
  for (const double weight : units.weight3) sum += weight;
  frame.scale = sum / static_cast<double>(frame.units3());
  for (double& weight : units.weight3) weight /= frame.scale;
  frame.counts /= frame.scale;
  frame.combinations /= frame.scale;
  for (double& count : frame.categories) count /= frame.scale;
  frame.counted2 = 0.0;
  for (std::size_t k = 0; k < frame.units3(); ++k)
    for (std::size_t j = units.first[k]; j < units.first[k + 1]; ++j)
      frame.counted2 += units.weight3[k] * units.weight2[j];
}

void setSd(Frame& frame) {
  const std::size_t npi = at(frame.npi), q = at(frame.q);
  frame.Sd.reset(npi * q);
  for (std::size_t c = 0; c < npi; ++c)
    for (std::size_t a = 0; a < q; ++a)
      for (std::size_t b = 0; b < q; ++b)
        frame.Sd[c * q + a] += frame.R1[c * npi + at(frame.design->random1[b])] * frame.toD[b * q + a];
}

// M := R T R'.
Array<double> sandwich(int n, const Array<double>& R, const Array<double>& T) {
  Array<double> RT(square(n)), M(square(n));
  mulAB(RT.data(), R.data(), T.data(), n, n, n);
  mulABt(M.data(), RT.data(), R.data(), n, n, n);
  return M;
}

// The order of pivots of M (n squared) that takes the largest residual variance each time, and whether the order given
// ever leaves one with less than half of it.
bool pivotorder(std::size_t n, const Array<double>& M, std::vector<std::size_t>& order) {
  constexpr double share = 0.5;
  Array<double> rest = M.copy();
  const auto eliminate = [&](Array<double>& S, std::size_t p) {
    if (!(S[p * n + p] > 0.0)) return;
    for (std::size_t i = 0; i < n; ++i) {
      if (i == p) continue;
      const double factor = S[i * n + p] / S[p * n + p];
      for (std::size_t l = 0; l < n; ++l)
        if (l != p) S[i * n + l] -= factor * S[p * n + l];
    }
    for (std::size_t i = 0; i < n; ++i) S[i * n + p] = S[p * n + i] = 0.0;
  };
  bool needed = false;
  const double negligible = 1.0e-14 * [&] {
    double most = 0.0;
    for (std::size_t a = 0; a < n; ++a) most = std::max(most, M[a * n + a]);
    return most;
  }();
  for (std::size_t p = 0; p < n; ++p) {
    double most = 0.0;
    for (std::size_t a = p; a < n; ++a) most = std::max(most, rest[a * n + a]);
    needed = needed || (most > negligible && rest[p * n + p] < share * most);
    eliminate(rest, p);
  }
  rest = M.copy();
  order.clear();
  std::vector<bool> used(n);
  for (std::size_t p = 0; p < n; ++p) {
    std::size_t best = n;
    for (std::size_t a = 0; a < n; ++a)
      if (!used[a] && (best == n || rest[a * n + a] > rest[best * n + best])) best = a;
    order.push_back(best);
    used[best] = true;
    eliminate(rest, best);
  }
  return needed;
}

// Rows of R and columns of its inverse in a new order.
void reorder(std::size_t n, const std::vector<std::size_t>& order, Array<double>& R, Array<double>& inverse) {
  Array<double> newR(n * n), newinverse(n * n);
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t i = 0; i < n; ++i) {
      newR[a * n + i] = R[order[a] * n + i];
      newinverse[i * n + a] = inverse[i * n + order[a]];
    }
  R = std::move(newR);
  inverse = std::move(newinverse);
}

// The lower factor of M, which may be singular, into the elements of a point.
void semifactor(std::size_t n, const Array<double>& M, double* elements) {
  constexpr double negligible = 1.0e-12;
  Array<double> L(n * n);
  for (std::size_t c = 0; c < n; ++c) {
    double pivot = M[c * n + c];
    for (std::size_t l = 0; l < c; ++l) pivot -= L[c * n + l] * L[c * n + l];
    if (!(pivot > negligible * M[0])) continue;
    L[c * n + c] = std::sqrt(pivot);
    for (std::size_t i = c + 1; i < n; ++i) {
      double sum = M[i * n + c];
      for (std::size_t l = 0; l < c; ++l) sum -= L[i * n + l] * L[c * n + l];
      L[i * n + c] = sum / L[c * n + c];
    }
  }
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t b = 0; b <= a; ++b) *elements++ = L[a * n + b];
}

// A = L Q' by Givens rotations of columns; A becomes L.
void lowertriangle(std::size_t n, Array<double>& A, Array<double>& Q) {
  Q.reset(n * n);
  for (std::size_t i = 0; i < n; ++i) Q[i * n + i] = 1.0;
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t b = a + 1; b < n; ++b) {
      if (A[a * n + b] == 0.0) continue;
      const double length = std::hypot(A[a * n + a], A[a * n + b]);
      const double cosine = A[a * n + a] / length, sine = A[a * n + b] / length;
      for (Array<double>* M : {&A, &Q})
        for (std::size_t i = 0; i < n; ++i) {
          const double first = (*M)[i * n + a], second = (*M)[i * n + b];
          (*M)[i * n + a] = cosine * first + sine * second;
          (*M)[i * n + b] = cosine * second - sine * first;
        }
      A[a * n + b] = 0.0;
    }
}

bool pivotlevel(std::size_t n, bool diagonal, Array<double>& R, Array<double>& inverse, double* elements,
                Array<double>& Q) {
  Q.reset(n * n);
  for (std::size_t i = 0; i < n; ++i) Q[i * n + i] = 1.0;
  if (n <= 1 || diagonal) return false;
  Array<double> A(n * n);
  for (std::size_t a = 0, e = 0; a < n; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++e) A[a * n + b] = elements[e];
  Array<double> M(n * n);
  mulABt(M.data(), A.data(), A.data(), static_cast<int>(n), static_cast<int>(n), static_cast<int>(n));
  std::vector<std::size_t> order;
  if (!pivotorder(n, M, order)) return false;
  reorder(n, order, R, inverse);
  Array<double> permuted(n * n);
  for (std::size_t a = 0; a < n; ++a) std::copy_n(A.data() + order[a] * n, n, permuted.data() + a * n);
  lowertriangle(n, permuted, Q);
  for (std::size_t a = 0, e = 0; a < n; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++e) elements[e] = permuted[a * n + b];
  return true;
}

}  // namespace

std::size_t Frame::count() const { return packedsize(q) + packedsize(r) + at(g); }

Frame makeframe(Family outcome, int npi, int nbeta, const Design& design, RecordSource& source, const Parameters& shape,
                bool diagonalpi, bool diagonalbeta, const std::vector<int>& response) {
  Frame frame;
  frame.outcome = outcome == Family::ordinal ? Family::bernoulli : outcome;
  frame.npi = npi;
  frame.nbeta = nbeta;
  frame.q = shape.q;
  frame.r = shape.r;
  frame.g = shape.g;
  frame.diagonalpi = diagonalpi;
  frame.diagonalbeta = diagonalbeta;
  frame.response = response;
  for (const int c : response) frame.responses = std::max(frame.responses, at(c) + 1);
  frame.design = &design;
  const std::size_t p = at(npi), q = at(shape.q), r = at(shape.r), g = at(shape.g);
  frame.R1.reset(p * p);
  frame.Rx.reset(g * g);
  frame.Re.reset(r * r);
  frame.units.first.assign(1, 0);
  TriangleWork work{{}, Array<double>(p * p), Array<double>(std::max({p, g, r, at(nbeta)})), Array<double>(g)};
  source.rewind(source.state);
  for (;;) {
    const std::vector<Level3Records>& batch = source.next(source.state);
    if (batch.empty()) break;
    for (const Level3Records& unit : batch) {
      keepunit(frame, unit);
      for (std::size_t j = 0; j < at(unit.units); ++j) appendunit(frame, unit, j, work);
    }
  }
  // R of the columns random at level 2 follows from R1.
  frame.Rd.reset(q * q);
  for (std::size_t i = 0; i < p; ++i) {
    for (std::size_t a = 0; a < q; ++a) work.row[a] = frame.R1[i * p + at(design.random1[a])];
    appendrow(q, frame.Rd.data(), work.row.data());
  }
  if (frame.categories.size() > 2) frame.thresholds = static_cast<int>(frame.categories.size()) - 2;
  settriangle(p, at(frame.thresholds), false, frame.records, frame.R1, frame.toX);
  settriangle(g, at(frame.thresholds), true, frame.records, frame.Rx, frame.toG);
  settriangle(q, frame.records, diagonalpi, frame.Rd, frame.toD);
  settriangle(r, frame.records, diagonalbeta, frame.Re, frame.toE);
  setSd(frame);
  setweights(frame);
  return frame;
}

SphericalPoint sphericalpoint(const Frame& frame, const Array<double>& point) {
  const auto fill = [](std::size_t n, const double* elements) {
    Array<double> M(n * n);
    for (std::size_t a = 0; a < n; ++a)
      for (std::size_t b = 0; b <= a; ++b) M[a * n + b] = *elements++;
    return M;
  };
  const std::size_t P2 = packedsize(frame.q), P3 = packedsize(frame.r);
  Array<double> g(at(frame.g));
  std::copy_n(point.data() + P2 + P3, frame.g, g.data());
  for (std::size_t c = at(frame.g - frame.thresholds); c < g.size(); ++c) g[c] = std::exp(g[c]);
  return {fill(at(frame.q), point.data()), fill(at(frame.r), point.data() + P2), std::move(g)};
}

Array<double> pointof(Frame& frame, const Parameters& parameters) {
  Array<double> point(frame.count());
  const auto level = [](int n, bool diagonal, Array<double>& R, Array<double>& inverse, const Array<double>& T,
                        double* elements) {
    Array<double> M = sandwich(n, R, T);
    if (diagonal)
      for (std::size_t i = 0; i < square(n); ++i)
        if (i % (at(n) + 1) != 0) M[i] = 0.0;
    std::vector<std::size_t> order;
    if (!diagonal && pivotorder(at(n), M, order)) {
      reorder(at(n), order, R, inverse);
      M = sandwich(n, R, T);
    }
    semifactor(at(n), M, elements);
  };
  level(frame.q, frame.diagonalpi, frame.Rd, frame.toD, parameters.taupi, point.data());
  level(frame.r, frame.diagonalbeta, frame.Re, frame.toE, parameters.taubeta, point.data() + packedsize(frame.q));
  double* fixed = point.data() + packedsize(frame.q) + packedsize(frame.r);
  mulAB(fixed, frame.Rx.data(), parameters.gamma.data(), frame.g, 1, frame.g);
  for (int c = frame.g - frame.thresholds; c < frame.g; ++c) fixed[c] = std::log(std::max(fixed[c], leastdistance));
  setSd(frame);
  return point;
}

Parameters parametersof(const Frame& frame, const Array<double>& point) {
  const SphericalPoint there = sphericalpoint(frame, point);
  Parameters parameters;
  parameters.q = frame.q;
  parameters.r = frame.r;
  parameters.g = frame.g;
  const auto product = [](int n, const Array<double>& inverse, const Array<double>& A, Array<double>& T) {
    Array<double> factor(square(n));
    mulAB(factor.data(), inverse.data(), A.data(), n, n, n);
    T.reset(square(n));
    mulABt(T.data(), factor.data(), factor.data(), n, n, n);
  };
  product(frame.q, frame.toD, there.A, parameters.taupi);
  product(frame.r, frame.toE, there.B, parameters.taubeta);
  parameters.gamma.reset(at(frame.g));
  mulAB(parameters.gamma.data(), frame.toG.data(), there.g.data(), frame.g, 1, frame.g);
  return parameters;
}

Array<double> parameterderivatives(const Frame& frame, const Array<double>& point) {
  const std::size_t P = frame.count(), P2 = packedsize(frame.q), P3 = packedsize(frame.r);
  const SphericalPoint there = sphericalpoint(frame, point);
  Array<double> J(P * P);
  // T = F F' with F = inverse A; dF = inverse E_cd has column d equal to column c of the inverse.
  const auto level = [&](int order, const Array<double>& inverse, const Array<double>& A, std::size_t first) {
    const std::size_t n = at(order);
    Array<double> F(n * n);
    mulAB(F.data(), inverse.data(), A.data(), order, order, order);
    eachelement(order, [&](int column, int c, int d) {
      eachelement(order, [&](int row, int a, int b) {
        J[(first + at(row)) * P + first + at(column)] =
            inverse[at(a) * n + at(c)] * F[at(b) * n + at(d)] + inverse[at(b) * n + at(c)] * F[at(a) * n + at(d)];
      });
    });
  };
  level(frame.q, frame.toD, there.A, 0);
  level(frame.r, frame.toE, there.B, P2);
  const std::size_t g = at(frame.g);
  for (std::size_t i = 0; i < g; ++i)
    for (std::size_t l = 0; l < g; ++l)
      J[(P2 + P3 + i) * P + P2 + P3 + l] = frame.toG[i * g + l] * (l + at(frame.thresholds) < g ? 1.0 : there.g[l]);
  return J;
}

std::vector<bool> heldelements(const Frame& frame) {
  std::vector<bool> held(frame.count());
  const auto level = [&](int n, bool diagonal, std::size_t first) {
    if (diagonal) eachelement(n, [&](int e, int a, int b) { held[first + at(e)] = a != b; });
  };
  level(frame.q, frame.diagonalpi, 0);
  level(frame.r, frame.diagonalbeta, packedsize(frame.q));
  return held;
}

Turn pivot(Frame& frame, Array<double>& point) {
  Turn turn;
  const bool second = pivotlevel(at(frame.q), frame.diagonalpi, frame.Rd, frame.toD, point.data(), turn.Q2);
  const bool third =
      pivotlevel(at(frame.r), frame.diagonalbeta, frame.Re, frame.toE, point.data() + packedsize(frame.q), turn.Q3);
  turn.turned = second || third;
  if (second) setSd(frame);
  return turn;
}

void makeunitframes(const Frame& frame, std::size_t k, UnitFrames& frames) {
  const Design& design = *frame.design;
  const std::size_t npi = at(frame.npi), nbeta = at(frame.nbeta), g = at(frame.g), r = at(frame.r),
                    full = design.owner3.size();
  const std::size_t first = frame.units.first[k], units = frame.units.first[k + 1] - first;
  const auto fit = [](Array<double>& array, std::size_t n) {
    if (array.size() < n) array.reset(n);
  };
  fit(frames.Sx, units * npi * g);
  fit(frames.Se, units * npi * r);
  fit(frames.T, nbeta * g);
  fit(frames.work, npi * std::max(g, r));
  double* T = frames.T.data();  // W3_k toG
  std::fill_n(T, nbeta * g, 0.0);
  const double* w3 = frame.units.w3.data() + k * full;
  for (std::size_t f = 0; f < full; ++f)
    for (std::size_t c = 0; c < g; ++c)
      T[at(design.owner3[f]) * g + c] += w3[f] * frame.toG[at(design.reduced[f]) * g + c];
  const auto throughR1 = [&](std::size_t columns, double* S) {
    std::fill_n(S, npi * columns, 0.0);
    for (std::size_t c = 0; c < npi; ++c)
      for (std::size_t l = 0; l < npi; ++l)
        if (const double factor = frame.R1[c * npi + l]; factor != 0.0)
          for (std::size_t i = 0; i < columns; ++i) S[c * columns + i] += factor * frames.work[l * columns + i];
  };
  for (std::size_t j = 0; j < units; ++j) {
    const double* w2 = frame.units.w2.data() + (first + j) * nbeta;
    std::fill_n(frames.work.data(), npi * g, 0.0);
    for (std::size_t m = 0; m < nbeta; ++m)
      for (std::size_t c = 0; c < g; ++c) frames.work[at(design.owner2[m]) * g + c] += w2[m] * T[m * g + c];
    throughR1(g, frames.Sx.data() + j * npi * g);
    std::fill_n(frames.work.data(), npi * r, 0.0);
    for (std::size_t m = 0; m < r; ++m)
      for (std::size_t b = 0; b < r; ++b) frames.work[at(design.owner2[m]) * r + b] += w2[m] * frame.toE[m * r + b];
    throughR1(r, frames.Se.data() + j * npi * r);
  }
}

}  // namespace kdr
