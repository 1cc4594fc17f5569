#include "estimate/quadrature/sphericalunit.h"

#include <algorithm>
#include <cmath>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

// The share of a level-2 unit's variance that goes with w, below which its nodes stand still, and above which they go
// with w wholly.
constexpr double sharestill = 0.15, sharemoving = 0.30;
// Nodes of level 3 are worked in blocks of about this many pairs of a level-3 and a level-2 node.
constexpr std::size_t pairsofblock = 256;
// How far a logarithm may exceed the one that scales its sum.
constexpr double largestexcess = 300.0;

constexpr std::size_t triangle(std::size_t n) { return n * (n + 1) / 2; }
constexpr std::size_t pairplace(std::size_t a, std::size_t b) { return a < b ? triangle(b) + a : triangle(a) + b; }

// A column of a matrix.
struct Column {
  const double* first;
  std::size_t stride;
  double operator[](std::size_t row) const { return first[row * stride]; }
};

// u' M v, M packed of order n.
double form(std::size_t n, const double* M, Column u, Column v) {
  double sum = 0.0;
  for (std::size_t c = 0; c < n; ++c) {
    for (std::size_t d = 0; d < c; ++d) sum += *M++ * (u[c] * v[d] + u[d] * v[c]);
    sum += *M++ * (u[c] * v[c]);
  }
  return sum;
}

// to (n) := M v, M packed.
void timescolumn(std::size_t n, const double* M, Column v, double* to) {
  std::fill_n(to, n, 0.0);
  for (std::size_t c = 0; c < n; ++c) {
    for (std::size_t d = 0; d < c; ++d, ++M) {
      to[c] += *M * v[d];
      to[d] += *M * v[c];
    }
    to[c] += *M++ * v[c];
  }
}

// What the information of a level-2 unit is made of. Factors s and t stand in the order 1, z, w.
struct InformationParts {
  std::size_t n;               // the unit's width
  double* M;                   // M_st = sum_i E[W s t] x~x~', packed of order n, by pairs of factors
  const double *Sx, *Se, *Sd;  // n by g, r, q
  const double* average;       // the unit's record of averages
  double* room;                // n by g, at least n
  std::size_t q, r, g;

  [[nodiscard]] double* of(std::size_t s, std::size_t t) const { return M + pairplace(s, t) * triangle(n); }
  // The place among (1, z, w) of what is in place s among (1, w).
  [[nodiscard]] std::size_t place(std::size_t s) const { return s == 0 ? 0 : q + s; }
  [[nodiscard]] Column x(std::size_t l) const { return {Sx + l, g}; }
  [[nodiscard]] Column e(std::size_t b) const { return {Se + b, r}; }
  [[nodiscard]] Column d(std::size_t a) const { return {Sd + a, q}; }
};

// One level-3 unit under way. Statistics of a level-2 unit at one level-3 node, given w: means and the lower triangle
// of the second moments, of z - z* and of y = (h, h_d[a] z_b).
struct SphericalIntegral {
  const Frame& frame;
  const SphericalGrids& grids;
  const SphericalPoint& point;
  const Level3Records& records;
  Nodes& place;
  RecordSums& sums;
  const Asking& asking;
  SphericalWork& work;

  const QuadratureLoops& loops = fastestquadratureloops();
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), g = at(frame.g);
  const std::size_t P2 = triangle(q), P3 = triangle(r), Y = npi + P2, P = P2 + P3 + g;
  const std::size_t units = at(records.units);
  const std::size_t nodes2 = at(grids.level2.count), nodes3 = at(grids.level3.count);
  // Pairs stand level-3 node by level-3 node, with `length` places each; those behind the level-2 nodes get no weight.
  const std::size_t length = padded(nodes2), points = grids.points;
  const std::size_t block = std::clamp<std::size_t>(pairsofblock / length, 1, nodes3), pairs = block * length;
  // In a record of statistics: q rows of z, each (mean, second moments), q + 1; and Y of y, of Y + 1.
  const std::size_t atz = 0, aty = q * (q + 1), statistics = aty + Y * (Y + 1);
  // In a record of averages.
  const std::size_t nw = triangle(1 + r), nz = triangle(1 + q);
  const std::size_t ofz = 0, ofzz = q, ofzw = ofzz + P2, ofh = ofzw + q * r, ofhh = ofh + npi,
                    ofyh = ofhh + triangle(npi) * nw, ofyy = ofyh + P2 * npi * (1 + r), naverages = ofyy + triangle(P2);
  // Of a row of weights: E[W s s'] for s = (1, z, w). A row is an element of sum W x~x~', packed, or where there are
  // too many of these, the W of a record.
  const std::size_t S = 1 + q + r, nrecord = triangle(S);
  // Of a multinomial record W has a packed matrix in it, and its columns' products are worth while for more columns.
  const std::size_t responses = frame.responses, cells = triangle(responses);
  [[nodiscard]] bool packedrows(std::size_t j) const {
    if (frame.multinomial()) return npi <= mostpackedresponses && triangle(npi) <= cells * nz;
    return width(j) <= mostpacked;
  }
  [[nodiscard]] std::size_t rowsof(std::size_t j) const {
    return packedrows(j) ? triangle(width(j)) : count(j) * cells;
  }
  std::size_t rows = 0;
  // Sums over level-3 nodes: 1, w - w*, its second moments, a - a of the first node, its second moments.
  const std::size_t atmean = 1, atsecond = atmean + r, ata = atsecond + P3, atcross = ata + P,
                    nmoments = atcross + triangle(P);
  // A unit of fewer records than columns is worked in the residuals of its records: its x~ is an identity, and its Sx,
  // Se and Sd are the rows of its records.
  [[nodiscard]] std::size_t count(std::size_t j) const { return records.start[j + 1] - records.start[j]; }
  [[nodiscard]] bool narrow(std::size_t j) const { return !frame.multinomial() && count(j) < npi; }
  [[nodiscard]] std::size_t width(std::size_t j) const { return narrow(j) ? count(j) : npi; }
  // Linear predictors of its records, and the one that column c stands in.
  [[nodiscard]] std::size_t lines(std::size_t j) const { return count(j) * responses; }
  [[nodiscard]] std::size_t lineof(std::size_t c) const { return responses == 1 ? 0 : at(frame.response[c]); }
  [[nodiscard]] const double* xof(std::size_t j) const {
    return narrow(j) ? work.identity.data() + count(j) * npi * npi : work.rows.x.data() + records.start[j] * npi;
  }
  [[nodiscard]] double* Sxof(std::size_t j) const { return work.frames.Sx.data() + j * npi * g; }
  [[nodiscard]] double* Seof(std::size_t j) const { return work.frames.Se.data() + j * npi * r; }
  [[nodiscard]] const double* Sdof(std::size_t j) const {
    return narrow(j) ? work.narrowSd.data() + j * npi * q : frame.Sd.data();
  }
  double shift = 0.0;  // of the running sums
  bool empty = true;

  const double* centre3() const { return place.w.data() + at(records.k) * r; }
  const double* centre2(std::size_t j) const { return place.z.data() + (records.firstunit + j) * q; }

  double logarithm(double value) const {
    double values[nodestep] = {value, 1.0, 1.0, 1.0};
    loops.logarithms(values, nodestep);
    return values[0];
  }
  double exponential(double value) const {
    double values[nodestep] = {value, 0.0, 0.0, 0.0};
    loops.exponentials(values, nodestep);
    return values[0];
  }

  // Row i of an array that has a place for each pair.
  double* pairrow(Array<double>& array, std::size_t i) const { return array.data() + i * pairs; }

  bool prepare();
  void fitwork();
  void preparenarrow();
  bool placelevel3();
  bool placelevel2(std::size_t j);
  void placepairs(std::size_t j, std::size_t firstnode, std::size_t nodes);
  void makerows(std::size_t j);
  UnitNodes nodesof(std::size_t j, std::size_t firstnode, std::size_t nodes);
  bool level2(std::size_t j, std::size_t firstnode, std::size_t nodes);
  void makeproducts(std::size_t j, std::size_t nodes);
  void level2statistics(std::size_t j, std::size_t nodes);
  void level2rowweights(std::size_t j, std::size_t nodes);
  void addscores(std::size_t j, std::size_t nodes);
  void addnode(std::size_t m, std::size_t node, double logweight);
  void average(std::size_t node, double weight, const double* w, const double* offset);
  void averagestatistics(std::size_t j, const double* statistic, double weight, const double* w, const double* offset,
                         const double* products);
  void averageweights(std::size_t node, double weight, const double* w);
  bool integrate(UnitSums& result);
  void finish(UnitSums& result);
  void renew(std::size_t j);
  void weightmoments(std::size_t j, double* M) const;
  void keepmoments(std::size_t j, const double* M);
  void unitinformation(std::size_t j, UnitSums& result);
  void addcomplete(const InformationParts& unit, UnitSums& result) const;
  void addinformationofA(const InformationParts& unit, double* H) const;
  void takecovariances(const InformationParts& unit) const;
  void addinformationofB(const InformationParts& unit, double* H) const;
  void addinformationofg(const InformationParts& unit, double* H) const;
};

bool SphericalIntegral::prepare() {
  makeunitframes(frame, at(records.k), work.frames);
  makeunitrows(frame, records, work.rows);
  preparenarrow();
  work.firstrow.assign(1, 0);
  for (std::size_t j = 0; j < units; ++j) work.firstrow.push_back(work.firstrow.back() + rowsof(j));
  rows = work.firstrow.back();
  fitwork();
  if (!placelevel3()) return false;
  for (std::size_t j = 0; j < units; ++j)
    if (!placelevel2(j)) return false;
  return true;
}

void SphericalIntegral::fitwork() {
  const std::size_t n = std::max(q, r);
  fit(work.cx, npi);
  fit(work.cD, npi * q);
  fit(work.cE, npi * r);
  fit(work.w, r * nodes3);
  fit(work.quad3, nodes3);
  fit(work.shift, units * q * r);
  fit(work.L2, units * q * q);
  fit(work.constant, units);
  fit(work.spread, q * length);
  fit(work.linear, padded(block) + length);
  fit(work.L3, r * r);
  fit(work.nodes, q * pairs);
  fit(work.offsets, q * pairs);
  fit(work.logdensity, pairs);
  fit(work.gradient, Y * pairs);
  fit(work.product, pairs);
  fit(work.sets, (1 + Y) * pairs);
  fit(work.zsets, (1 + q + nz) * pairs);
  fit(work.total, block);
  fit(work.totals, 2 * padded(block));
  fit(work.statistics, block * units * statistics);
  fit(work.averages, units * naverages);
  fit(work.rowweights, block * rows * nz);
  fit(work.rowaverages, rows * nrecord);
  fit(work.level3, (block + 1) * P);
  fit(work.moments, nmoments);
  fit(work.scratch, 6 * n * n);
  std::fill_n(work.averages.data(), units * naverages, 0.0);
  std::fill_n(work.rowaverages.data(), rows * nrecord, 0.0);
  std::fill_n(work.moments.data(), nmoments, 0.0);
}

// w - w* = L3 x of the nodes of level 3, and what their integrands have to them: constant3 + log|L3| - w'w / 2.
// scratch: L3, X3 = L3^-1.
bool SphericalIntegral::placelevel3() {
  const std::size_t n = std::max(q, r);
  double *L3 = work.scratch.data(), *X3 = L3 + n * n;
  if (!choleskyfactor(r, place.C3.data() + at(records.k) * r * r, L3)) return false;
  double constant = grids.constant3;
  for (std::size_t b = 0; b < r; ++b) constant += logarithm(L3[b * r + b]);
  std::fill_n(work.quad3.data(), nodes3, constant);
  for (std::size_t b = 0; b < r; ++b)
    for (std::size_t m = 0; m < nodes3; ++m) {
      double offset = 0.0;
      for (std::size_t c = 0; c <= b; ++c) offset += L3[b * r + c] * M_SQRT2 * grids.level3.x[c * nodes3 + m];
      work.w[b * nodes3 + m] = offset;
      const double w = centre3()[b] + offset;
      work.quad3[m] -= 0.5 * w * w;
    }
  std::copy_n(L3, r * r, work.L3.data());
  invertlower(r, L3, X3);
  return true;
}

void SphericalIntegral::preparenarrow() {
  fit(work.identity, npi * npi * npi);
  fit(work.narrowSd, units * npi * q);
  fit(work.product, npi * std::max({g, r, q}));
  for (std::size_t n = 0; n < npi; ++n)
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t l = 0; l < n; ++l) work.identity[n * npi * npi + i * n + l] = i == l ? 1.0 : 0.0;
  for (std::size_t j = 0; j < units; ++j) {
    if (!narrow(j)) continue;
    const double* given = work.rows.x.data() + records.start[j] * npi;
    const int n = static_cast<int>(count(j));
    mulAB(work.product.data(), given, Sxof(j), n, frame.g, frame.npi);
    std::copy_n(work.product.data(), count(j) * g, Sxof(j));
    mulAB(work.product.data(), given, Seof(j), n, frame.r, frame.npi);
    std::copy_n(work.product.data(), count(j) * r, Seof(j));
    mulAB(work.narrowSd.data() + j * npi * q, given, frame.Sd.data(), n, frame.q, frame.npi);
  }
}

// kappa S, L2 and the constant of level-2 unit j. scratch: L3, X3 stand first.
bool SphericalIntegral::placelevel2(std::size_t j) {
  const std::size_t unit = records.firstunit + j, n = std::max(q, r);
  const double *P0 = place.P.data() + unit * q * q, *K = place.K.data() + unit * q * r;
  double* X3 = work.scratch.data() + n * n;
  double *V = X3 + n * n, *L = V + n * n, *X2 = L + n * n, *R = X2 + n * n;
  double *slope = work.shift.data() + j * q * r, *L2 = work.L2.data() + j * q * q;
  // R = K X3', S = R X3, S K' = R R'.
  mulABt(R, K, X3, frame.q, frame.r, frame.r);
  mulAB(slope, R, X3, frame.q, frame.r, frame.r);
  mulABt(V, R, R, frame.q, frame.q, frame.r);
  if (!choleskyfactor(q, P0, L)) return false;
  double share = 0.0;
  invertlower(q, L, X2);
  mulAB(L, X2, R, frame.q, frame.r, frame.q);
  for (std::size_t i = 0; i < q * r; ++i) share += L[i] * L[i];
  const double kappa = std::clamp((share - sharestill) / (sharemoving - sharestill), 0.0, 1.0);
  for (std::size_t i = 0; i < q * q; ++i) V[i] = P0[i] - (2.0 * kappa - kappa * kappa) * V[i];
  if (!choleskyfactor(q, V, L2)) return false;
  multiply(slope, q * r, kappa);
  double constant = grids.constant2;
  for (std::size_t a = 0; a < q; ++a) constant += logarithm(L2[a * q + a]);
  work.constant[j] = constant;
  return true;
}

// The offsets of level-2 nodes from their centre, and of all pairs of a block, z there.
void SphericalIntegral::placepairs(std::size_t j, std::size_t firstnode, std::size_t nodes) {
  const double* L2 = work.L2.data() + j * q * q;
  for (std::size_t a = 0; a < q; ++a) {
    double* spread = work.spread.data() + a * length;
    std::fill_n(spread, length, 0.0);
    for (std::size_t b = 0; b <= a; ++b)
      addmultiple(spread, grids.level2.x.data() + b * nodes2, nodes2, M_SQRT2 * L2[a * q + b]);
    double *row = work.nodes.data() + a * pairs, *offsets = work.offsets.data() + a * pairs;
    const double centre = centre2(j)[a];
    for (std::size_t node = 0, p = 0; node < nodes; ++node) {
      double moved = 0.0;
      for (std::size_t b = 0; b < r; ++b)
        moved += work.shift[(j * q + a) * r + b] * work.w[b * nodes3 + firstnode + node];
      for (std::size_t l = 0; l < length; ++l, ++p) {
        offsets[p] = moved + spread[l];
        row[p] = centre + offsets[p];
      }
    }
  }
}

// Of the records of level-2 unit j: eta at the centres, with the logarithm of an exposure, and what it changes by with
// the standard normal points of level 3, (Se B + Sd A kappa S) L3, and of level 2, Sd A L2.
void SphericalIntegral::makerows(std::size_t j) {
  const std::size_t n = width(j), dims = q + r;
  const int order = static_cast<int>(n);
  fit(work.fixed, lines(j));
  fit(work.effects, lines(j) * dims);
  fit(work.outer, lines(j) * padded(block));
  fit(work.inner, lines(j) * length + nodestep);
  fit(work.parts, dims * (2 * padded(points) + 1) + padded(block) + lines(j) + nodestep);
  fit(work.weights, rowsof(j) * pairs);
  double *cx = work.cx.data(), *cD = work.cD.data(), *cE = work.cE.data();
  const double *L3 = work.L3.data(), *L2 = work.L2.data() + j * q * q;
  mulAB(cx, Sxof(j), point.g.data(), order, 1, frame.g);
  mulAB(cD, Sdof(j), point.A.data(), order, frame.q, frame.q);
  mulAB(cE, Seof(j), point.B.data(), order, frame.r, frame.r);
  addAB(cx, cD, centre2(j), order, 1, frame.q);
  addAB(cx, cE, centre3(), order, 1, frame.r);
  addAB(cE, cD, work.shift.data() + j * q * r, order, frame.r, frame.q);
  const auto through = [n](double* C, const double* L, std::size_t columns) {
    for (std::size_t c = 0; c < n; ++c)
      for (std::size_t b = 0; b < columns; ++b) {
        double sum = 0.0;
        for (std::size_t d = b; d < columns; ++d) sum += C[c * columns + d] * L[d * columns + b];
        C[c * columns + b] = sum;
      }
  };
  through(cE, L3, r);
  through(cD, L2, q);
  const double* row = xof(j);
  const double* logn =
      frame.outcome == Family::poisson && !records.n.empty() ? work.rows.logn.data() + records.start[j] : nullptr;
  std::fill_n(work.effects.data(), lines(j) * dims, 0.0);
  for (std::size_t i = 0; i < count(j); ++i, row += n) {
    double* fixed = work.fixed.data() + i * responses;
    std::fill_n(fixed, responses, logn == nullptr ? 0.0 : logn[i]);
    for (std::size_t c = 0; c < n; ++c) {
      double* effects = work.effects.data() + (i * responses + lineof(c)) * dims;
      fixed[lineof(c)] += row[c] * cx[c];
      for (std::size_t b = 0; b < r; ++b) effects[b] += row[c] * cE[c * r + b];
      for (std::size_t a = 0; a < q; ++a) effects[r + a] += row[c] * cD[c * q + a];
    }
  }
}

// The records of level-2 unit j at the pairs of a block, for the loops.
UnitNodes SphericalIntegral::nodesof(std::size_t j, std::size_t firstnode, std::size_t nodes) {
  UnitNodes unit{};
  unit.records = lines(j);
  unit.npi = width(j);
  unit.dims3 = r;
  unit.dims2 = q;
  unit.points = points;
  unit.linestride = padded(points);
  unit.line = grids.line.data();
  unit.nodes3 = nodes3;
  unit.nodes2 = nodes2;
  unit.digits3 = grids.digits3.data();
  unit.digits2 = grids.digits2.data();
  unit.first = firstnode;
  unit.segments = nodes;
  unit.length = length;
  unit.outerstride = padded(block);
  unit.x = xof(j);
  unit.rows = work.effects.data();
  unit.fixed = work.fixed.data();
  unit.y = frame.multinomial() ? work.rows.indicators.data() + records.start[j] * responses
                               : records.y.data() + records.start[j];
  const RecordDensity outcome = densityof(frame, records);
  const bool counted = outcome == RecordDensity::binomial || outcome == RecordDensity::multinomial;
  unit.n = counted && !records.n.empty() ? records.n.data() + records.start[j] : nullptr;
  unit.stride = pairs;
  unit.logdensity = work.logdensity.data();
  unit.gradient = work.gradient.data();
  unit.weights = work.weights.data();
  unit.outer = work.outer.data();
  unit.inner = work.inner.data();
  unit.linear = work.linear.data();
  unit.work = work.parts.data();
  unit.responses = responses;
  unit.response = frame.response.data();
  unit.packed = packedrows(j);
  return unit;
}

// Level-2 unit j at the level-3 nodes of a block: adds the logarithm of its integral to the totals, leaves its
// statistics and rows of weights, and adds to the nodes' scores.
bool SphericalIntegral::level2(std::size_t j, std::size_t firstnode, std::size_t nodes) {
  placepairs(j, firstnode, nodes);
  makerows(j);
  loops.exact[static_cast<int>(densityof(frame, records))](nodesof(j, firstnode, nodes));
  double* totals = work.totals.data();
  loops.nodeweights({q, nodes, length, pairs, work.nodes.data(), grids.weight2.data(), work.logdensity.data(), totals,
                     totals + padded(block)});
  for (std::size_t node = 0; node < nodes; ++node) {
    if (!std::isfinite(totals[node])) return false;
    work.total[node] += frame.weight2(at(records.k), j) * (totals[node] + work.constant[j]);
  }
  makeproducts(j, nodes);
  level2statistics(j, nodes);
  level2rowweights(j, nodes);
  addscores(j, nodes);
  return true;
}

// The rows h_d[a] z_b of y, behind those of the gradient h.
void SphericalIntegral::makeproducts(std::size_t j, std::size_t nodes) {
  const std::size_t n = width(j), used = nodes * length;
  const double* Sd = Sdof(j);
  double* hd = work.product.data();
  for (std::size_t a = 0, e = n; a < q; ++a) {
    std::fill_n(hd, used, 0.0);
    for (std::size_t c = 0; c < n; ++c)
      if (const double factor = Sd[c * q + a]; factor != 0.0)
        loops.addmultiple(hd, pairrow(work.gradient, c), used, factor);
    for (std::size_t b = 0; b <= a; ++b, ++e)
      loops.products(hd, pairrow(work.nodes, b), pairrow(work.gradient, e), used);
  }
}

// Means and second moments of z - z* and of y, given w.
void SphericalIntegral::level2statistics(std::size_t j, std::size_t nodes) {
  const std::size_t used = nodes * length, Yj = width(j) + P2, stride = units * statistics;
  const double* weight = work.logdensity.data();
  double* statistic = work.statistics.data() + j * statistics;
  double* set = work.sets.data();
  std::copy_n(weight, used, set);
  for (std::size_t a = 0; a < q; ++a) loops.products(weight, pairrow(work.offsets, a), pairrow(work.sets, 1 + a), used);
  loops.segmentsums(
      {q, 1 + q, true, pairs, nodes, length, work.offsets.data(), set, statistic + atz, stride, 1 + q, 1});
  for (std::size_t c = 0; c < Yj; ++c)
    loops.products(weight, pairrow(work.gradient, c), pairrow(work.sets, 1 + c), used);
  loops.segmentsums(
      {Yj, 1 + Yj, true, pairs, nodes, length, work.gradient.data(), set, statistic + aty, stride, 1 + Yj, 1});
}

// The rows of weights times (1, z, zz'), given w.
void SphericalIntegral::level2rowweights(std::size_t j, std::size_t nodes) {
  const std::size_t used = nodes * length;
  const double* weight = work.logdensity.data();
  double* zset = work.zsets.data();
  std::copy_n(weight, used, zset);
  for (std::size_t a = 0, e = 1 + q; a < q; ++a) {
    double* to = pairrow(work.zsets, 1 + a);
    loops.products(weight, pairrow(work.nodes, a), to, used);
    for (std::size_t b = 0; b <= a; ++b, ++e) loops.products(to, pairrow(work.nodes, b), pairrow(work.zsets, e), used);
  }
  loops.segmentsums({rowsof(j), 1 + q + P2, false, pairs, nodes, length, work.weights.data(), zset,
                     work.rowweights.data() + work.firstrow[j], rows * nz, 1, rows});
}

// Adds the unit's mean of y, through Sx and Se, to a of each node.
void SphericalIntegral::addscores(std::size_t j, std::size_t nodes) {
  const std::size_t n = width(j), Yj = n + P2, stride = units * statistics;
  const double* statistic = work.statistics.data() + j * statistics;
  const double *Sx = Sxof(j), *Se = Seof(j), counts = frame.weight2(at(records.k), j);
  for (std::size_t node = 0; node < nodes; ++node) {
    const double* y = statistic + node * stride + aty;
    double* a = work.level3.data() + node * P;
    for (std::size_t e = 0; e < P2; ++e) a[e] += counts * y[(n + e) * (1 + Yj)];
    // h_e goes to the first places of B; its products with w are taken when the unit's sums are whole.
    for (std::size_t c = 0; c < n; ++c) {
      const double h = counts * y[c * (1 + Yj)];
      for (std::size_t b = 0; b < r; ++b) a[P2 + b] += Se[c * r + b] * h;
      for (std::size_t l = 0; l < g; ++l) a[P2 + P3 + l] += Sx[c * g + l] * h;
    }
  }
}

// The averages of the level-2 units and of their rows of weights over the level-3 nodes, one node's share, at w = w* +
// offset.
void SphericalIntegral::average(std::size_t node, double weight, const double* w, const double* offset) {
  double products[66];  // weight times those of (1, w), packed
  for (std::size_t s = 0, e = 0; s <= r; ++s)
    for (std::size_t t = 0; t <= s; ++t, ++e)
      products[e] = weight * (s == 0 ? 1.0 : w[s - 1]) * (t == 0 ? 1.0 : w[t - 1]);
  for (std::size_t j = 0; j < units; ++j)
    averagestatistics(j, work.statistics.data() + (node * units + j) * statistics, weight, w, offset, products);
  averageweights(node, weight, w);
}

// Of level-2 unit j: E[z], E[zz'] and E[z w'], about z* and w*; E[h]; the covariances given w, of h with h times (1, w)
// twice, of y with h times (1, w), and of y.
void SphericalIntegral::averagestatistics(std::size_t j, const double* statistic, double weight, const double* w,
                                          const double* offset, const double* products) {
  double* average = work.averages.data() + j * naverages;
  const double *z = statistic + atz, *y = statistic + aty;
  for (std::size_t a = 0; a < q; ++a) {
    const double mean = z[a * (1 + q)];
    average[ofz + a] += weight * mean;
    for (std::size_t b = 0; b <= a; ++b) average[ofzz + triangle(a) + b] += weight * z[a * (1 + q) + 1 + b];
    for (std::size_t b = 0; b < r; ++b) average[ofzw + a * r + b] += weight * mean * offset[b];
  }
  const std::size_t n = width(j), Yj = n + P2;
  const auto covariance = [&](std::size_t c, std::size_t d) {
    return y[c * (1 + Yj) + 1 + d] - y[c * (1 + Yj)] * y[d * (1 + Yj)];
  };
  for (std::size_t c = 0; c < n; ++c) {
    average[ofh + c] += weight * y[c * (1 + Yj)];
    for (std::size_t d = 0; d <= c; ++d)
      addmultiple(average + ofhh + (triangle(c) + d) * nw, products, nw, covariance(c, d));
  }
  for (std::size_t e = 0; e < P2; ++e) {
    for (std::size_t c = 0; c < n; ++c) {
      const double value = covariance(n + e, c);
      double* to = average + ofyh + (e * n + c) * (1 + r);
      to[0] += weight * value;
      for (std::size_t b = 0; b < r; ++b) to[1 + b] += weight * w[b] * value;
    }
    for (std::size_t d = 0; d <= e; ++d) average[ofyy + triangle(e) + d] += weight * covariance(n + e, n + d);
  }
}

// E[W s t] of all rows of weights, for the pairs of s and t of (1, z, w).
void SphericalIntegral::averageweights(std::size_t node, double weight, const double* w) {
  const double* from = work.rowweights.data() + node * rows * nz;
  const auto add = [&](std::size_t s, std::size_t t, std::size_t z, double factor) {
    addmultiple(work.rowaverages.data() + (triangle(s) + t) * rows, from + z * rows, rows, factor);
  };
  for (std::size_t a = 0; a <= q; ++a) {
    add(a, 0, a, weight);
    for (std::size_t b = 0; a > 0 && b < a; ++b) add(a, 1 + b, 1 + q + triangle(a - 1) + b, weight);
  }
  for (std::size_t b = 0; b < r; ++b) {
    for (std::size_t a = 0; a <= q; ++a) add(1 + q + b, a, a, weight * w[b]);
    for (std::size_t c = 0; c <= b; ++c) add(1 + q + b, 1 + q + c, 0, weight * w[b] * w[c]);
  }
}

// Adds level-3 node m, node `node` of its block, to all sums, whose scale follows the largest weight.
void SphericalIntegral::addnode(std::size_t m, std::size_t node, double logweight) {
  const bool first = empty;
  if (empty) {
    shift = logweight;
    empty = false;
  } else if (logweight - shift > largestexcess) {
    const double fall = shift - logweight, rescale = fall < -700.0 ? 0.0 : exponential(fall);
    shift = logweight;
    multiply(work.moments.data(), nmoments, rescale);
    multiply(work.averages.data(), units * naverages, rescale);
    multiply(work.rowaverages.data(), rows * nrecord, rescale);
  }
  const double excess = logweight - shift;
  const double weight = grids.level3.weight[m] * (excess < -700.0 ? 0.0 : exponential(excess));
  double w[10], offset[10];
  for (std::size_t b = 0; b < r; ++b) {
    offset[b] = work.w[b * nodes3 + m];
    w[b] = centre3()[b] + offset[b];
  }
  double* sum = work.moments.data();
  sum[0] += weight;
  for (std::size_t a = 0; a < r; ++a) {
    sum[atmean + a] += weight * offset[a];
    for (std::size_t b = 0; b <= a; ++b) sum[atsecond + triangle(a) + b] += weight * offset[a] * offset[b];
  }
  double *a = work.level3.data() + node * P, *reference = work.level3.data() + block * P;
  double he[10];
  std::copy_n(a + P2, r, he);
  for (std::size_t c = 0, e = P2; c < r; ++c)
    for (std::size_t b = 0; b <= c; ++b, ++e) a[e] = he[c] * w[b];
  if (first) std::copy_n(a, P, reference);
  for (std::size_t c = 0; c < P; ++c) a[c] -= reference[c];
  addmultiple(sum + ata, a, P, weight);
  for (std::size_t c = 0; c < P; ++c) addmultiple(sum + atcross + triangle(c), a, c + 1, weight * a[c]);
  average(node, weight, w, offset);
}

bool SphericalIntegral::integrate(UnitSums& result) {
  if (!prepare()) return false;
  for (std::size_t first = 0; first < nodes3; first += block) {
    const std::size_t nodes = std::min(block, nodes3 - first);
    std::fill_n(work.total.data(), block, 0.0);
    std::fill_n(work.level3.data(), block * P, 0.0);
    for (std::size_t j = 0; j < units; ++j)
      if (asking.halted() || !level2(j, first, nodes)) return false;
    for (std::size_t node = 0; node < nodes; ++node)
      addnode(first + node, node, work.quad3[first + node] + work.total[node]);
  }
  result.loglikelihood = shift + logarithm(work.moments[0]);
  if (!std::isfinite(result.loglikelihood) || !(work.moments[0] > 0.0)) return false;
  finish(result);
  return true;
}

// The unit's posterior moments of level 2 in place of its nodes, and its sums.
void SphericalIntegral::renew(std::size_t j) {
  const std::size_t unit = records.firstunit + j;
  const double* average = work.averages.data() + j * naverages;
  const double* wmean = work.moments.data() + atmean;
  double *z = place.z.data() + unit * q, *P0 = place.P.data() + unit * q * q, *K = place.K.data() + unit * q * r;
  for (std::size_t a = 0; a < q; ++a) {
    for (std::size_t b = 0; b <= a; ++b)
      P0[a * q + b] = P0[b * q + a] = average[ofzz + triangle(a) + b] - average[ofz + a] * average[ofz + b];
    for (std::size_t b = 0; b < r; ++b) K[a * r + b] = average[ofzw + a * r + b] - average[ofz + a] * wmean[b];
  }
  for (std::size_t a = 0; a < q; ++a) z[a] += average[ofz + a];
  const double* h = average + ofh;
  if (narrow(j)) {
    mulAtB(work.cx.data(), work.rows.x.data() + records.start[j] * npi, h, frame.npi, 1, static_cast<int>(count(j)));
    h = work.cx.data();
  }
  for (std::size_t c = 0; c < npi; ++c) sums.h[unit * npi + c] = static_cast<float>(h[c]);
}

// M_st = sum_i E[W s t] x~x~' of level-2 unit j: its rows of weights, where these are elements of x~x~'.
void SphericalIntegral::weightmoments(std::size_t j, double* M) const {
  const std::size_t n = width(j), T = triangle(n);
  const double* W = work.rowaverages.data() + work.firstrow[j];
  if (packedrows(j)) {
    for (std::size_t s = 0; s < nrecord; ++s) std::copy_n(W + s * rows, T, M + s * T);
    return;
  }
  std::fill_n(M, nrecord * T, 0.0);
  const double* row = xof(j);
  for (std::size_t i = 0; i < count(j); ++i, row += n)
    for (std::size_t c = 0, e = 0; c < n; ++c)
      for (std::size_t d = 0; d <= c; ++d, ++e) {
        const double product = row[c] * row[d];
        if (product == 0.0) continue;
        const std::size_t cell = i * cells + pairplace(lineof(c), lineof(d));
        for (std::size_t s = 0; s < nrecord; ++s) M[s * T + e] += W[s * rows + cell] * product;
      }
}

// Keeps sum_i E[W] x~x~' of all npi columns for the sweeps that carry the nodes on.
void SphericalIntegral::keepmoments(std::size_t j, const double* M) {
  const std::size_t unit = records.firstunit + j, whole = triangle(npi);
  const double* kept = M;
  if (narrow(j)) {
    const double* W = work.rowaverages.data() + work.firstrow[j];
    fit(work.narrowM, whole);
    std::fill_n(work.narrowM.data(), whole, 0.0);
    for (std::size_t i = 0; i < count(j); ++i) {
      const double* x = work.rows.x.data() + (records.start[j] + i) * npi;
      const double weight = W[packedrows(j) ? triangle(i) + i : i];
      for (std::size_t c = 0, e = 0; c < npi; ++c)
        for (std::size_t d = 0; d <= c; ++d, ++e) work.narrowM[e] += weight * x[c] * x[d];
    }
    kept = work.narrowM.data();
  }
  for (std::size_t e = 0; e < whole; ++e) sums.M[unit * whole + e] = static_cast<float>(kept[e]);
}

// Adds what level-2 unit j gives to the information: sandwiches of N_st = M_st - E[s t Cov(h, h | w)] and of the like
// for z.
void SphericalIntegral::unitinformation(std::size_t j, UnitSums& result) {
  const std::size_t n = width(j), elements = nrecord * triangle(n);
  fit(work.information, nrecord * triangle(npi) + npi * (g + 1));
  double* M = work.information.data();
  double* average = work.averages.data() + j * naverages;
  weightmoments(j, M);
  keepmoments(j, M);
  // All that follows is linear in M and in the averages.
  if (const double counts = frame.weight2(at(records.k), j); counts != 1.0) {
    multiply(M, elements, counts);
    multiply(average, naverages, counts);
  }
  const InformationParts unit{n, M, Sxof(j), Seof(j), Sdof(j), average, M + elements, q, r, g};
  addcomplete(unit, result);
  addinformationofA(unit, result.information);
  takecovariances(unit);
  addinformationofB(unit, result.information);
  addinformationofg(unit, result.information);
}

// The diagonal of sum_i E[W c c'], and the curvatures: d~_a' M_11 d~_a and d~_a' M_(z_b z_b) d~_a, the like for e~ and
// w, and x~_l' M_11 x~_l.
void SphericalIntegral::addcomplete(const InformationParts& unit, UnitSums& result) const {
  const std::size_t n = unit.n;
  for (std::size_t a = 0; a < q; ++a) {
    result.curvature[a] += form(n, unit.M, unit.d(a), unit.d(a));
    for (std::size_t b = 0; b <= a; ++b)
      result.complete[triangle(a) + b] += form(n, unit.of(1 + b, 1 + b), unit.d(a), unit.d(a));
  }
  for (std::size_t a = 0; a < r; ++a) {
    result.curvature[q + a] += form(n, unit.M, unit.e(a), unit.e(a));
    for (std::size_t b = 0; b <= a; ++b)
      result.complete[P2 + triangle(a) + b] += form(n, unit.of(1 + q + b, 1 + q + b), unit.e(a), unit.e(a));
  }
  for (std::size_t l = 0; l < g; ++l) result.complete[P2 + P3 + l] += form(n, unit.M, unit.x(l), unit.x(l));
}

// The information of A: with y_ab = h_d[a] z_b and all covariances given w,
//   A_ab and A_cd: d~_a' M_(z_b z_d) d~_c - E[Cov(y_ab, y_cd)]
//   A_ab and g_l:  (M_(z_b) d~_a - E[Cov(h, y_ab)])' x~_l
//   A_ab and B_cs: (M_(z_b w_s) d~_a - E[w_s Cov(h, y_ab)])' e~_c
void SphericalIntegral::addinformationofA(const InformationParts& unit, double* H) const {
  const std::size_t n = unit.n;
  for (std::size_t a = 0, e = 0; a < q; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++e) {
      for (std::size_t c = 0, f = 0; c <= a; ++c)
        for (std::size_t d = 0; d <= c && f <= e; ++d, ++f)
          H[e * P + f] += form(n, unit.of(1 + b, 1 + d), unit.d(a), unit.d(c)) - unit.average[ofyy + triangle(e) + f];
      for (std::size_t s = 0; s <= r; ++s) {
        double* row = unit.room;
        timescolumn(n, unit.of(1 + b, unit.place(s)), unit.d(a), row);
        for (std::size_t c = 0; c < n; ++c) row[c] -= unit.average[ofyh + (e * n + c) * (1 + r) + s];
        if (s == 0) {
          for (std::size_t c = 0; c < n; ++c)
            for (std::size_t l = 0; l < g; ++l) H[(P2 + P3 + l) * P + e] += row[c] * unit.Sx[c * g + l];
          continue;
        }
        for (std::size_t c = s - 1; c < r; ++c) {
          double sum = 0.0;
          for (std::size_t l = 0; l < n; ++l) sum += row[l] * unit.Se[l * r + c];
          H[(P2 + triangle(c) + s - 1) * P + e] += sum;
        }
      }
    }
}

// N_st = M_st - E[s t Cov(h, h | w)] of s and t of (1, w), in place of M_st.
void SphericalIntegral::takecovariances(const InformationParts& unit) const {
  for (std::size_t s = 0, p = 0; s <= r; ++s)
    for (std::size_t t = 0; t <= s; ++t, ++p) {
      double* N = unit.of(unit.place(s), unit.place(t));
      for (std::size_t e = 0; e < triangle(unit.n); ++e) N[e] -= unit.average[ofhh + e * nw + p];
    }
}

// The information of B: e~_a' N_(w_b w_d) e~_c with itself, e~_a' N_(w_b) x~_l with g.
void SphericalIntegral::addinformationofB(const InformationParts& unit, double* H) const {
  const std::size_t n = unit.n;
  for (std::size_t a = 0, e = P2; a < r; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++e) {
      for (std::size_t c = 0, f = P2; c <= a; ++c)
        for (std::size_t d = 0; d <= c && f <= e; ++d, ++f)
          H[e * P + f] += form(n, unit.of(1 + q + b, 1 + q + d), unit.e(a), unit.e(c));
      for (std::size_t l = 0; l < g; ++l)
        H[(P2 + P3 + l) * P + e] += form(n, unit.of(1 + q + b, 0), unit.e(a), unit.x(l));
    }
}

// The information of g, Sx' N_11 Sx, through N_11 Sx (n by g).
void SphericalIntegral::addinformationofg(const InformationParts& unit, double* H) const {
  const std::size_t n = unit.n;
  const double *N = unit.of(0, 0), *Sx = unit.Sx;
  double* through = unit.room;
  std::fill_n(through, n * g, 0.0);
  for (std::size_t c = 0, p = 0; c < n; ++c)
    for (std::size_t d = 0; d <= c; ++d, ++p) {
      for (std::size_t l = 0; l < g; ++l) through[c * g + l] += N[p] * Sx[d * g + l];
      if (d != c)
        for (std::size_t l = 0; l < g; ++l) through[d * g + l] += N[p] * Sx[c * g + l];
    }
  for (std::size_t c = 0; c < n; ++c)
    for (std::size_t l = 0; l < g; ++l)
      for (std::size_t m = 0; m <= l; ++m) H[(P2 + P3 + l) * P + P2 + P3 + m] += Sx[c * g + l] * through[c * g + m];
}

void SphericalIntegral::finish(UnitSums& result) {
  const double inverse = 1.0 / work.moments[0];
  multiply(work.moments.data() + 1, nmoments - 1, inverse);
  multiply(work.averages.data(), units * naverages, inverse);
  multiply(work.rowaverages.data(), rows * nrecord, inverse);
  const double *mean = work.moments.data() + ata, *cross = work.moments.data() + atcross;
  const double* reference = work.level3.data() + block * P;
  std::fill_n(result.curvature, q + r, 0.0);
  std::fill_n(result.complete, P, 0.0);
  for (std::size_t c = 0; c < P; ++c) {
    result.score[c] = reference[c] + mean[c];
    for (std::size_t d = 0; d <= c; ++d) result.information[c * P + d] = mean[c] * mean[d] - cross[triangle(c) + d];
  }
  for (std::size_t j = 0; j < units; ++j) {
    renew(j);
    unitinformation(j, result);
  }
  for (std::size_t c = 0; c < P; ++c)
    for (std::size_t d = 0; d < c; ++d) result.information[d * P + c] = result.information[c * P + d];
  const double *wmean = work.moments.data() + atmean, *second = work.moments.data() + atsecond;
  double *w = place.w.data() + at(records.k) * r, *C3 = place.C3.data() + at(records.k) * r * r;
  for (std::size_t a = 0; a < r; ++a)
    for (std::size_t b = 0; b <= a; ++b) C3[a * r + b] = C3[b * r + a] = second[triangle(a) + b] - wmean[a] * wmean[b];
  for (std::size_t a = 0; a < r; ++a) w[a] += wmean[a];
}

}  // namespace

bool makegrids(SphericalGrids& grids, int points, int q, int r) {
  const double perdimension = -0.5 * std::log(M_PI);
  grids.constant2 = q * perdimension;
  grids.constant3 = r * perdimension;
  grids.points = at(points);
  grids.line.reset(padded(at(points)));
  if (points != 1) {
    if (!makegrid(grids.level2, points, q) || !makegrid(grids.level3, points, r)) return false;
    // The first dimension's point changes fastest.
    const NodeGrid& any = q > 0 ? grids.level2 : grids.level3;
    for (std::size_t t = 0; t < at(points); ++t) grids.line[t] = M_SQRT2 * any.x[t];
  } else {
    const auto centre = [](NodeGrid& grid, int dims) {
      grid.dims = dims;
      grid.count = 1;
      grid.x.reset(at(dims));
      grid.weight.reset(1);
      grid.weight[0] = std::pow(M_PI, 0.5 * dims);
    };
    centre(grids.level2, q);
    centre(grids.level3, r);
  }
  grids.weight2.reset(padded(at(grids.level2.count)));
  std::copy_n(grids.level2.weight.data(), grids.level2.count, grids.weight2.data());
  const auto digits = [points](const NodeGrid& grid, std::vector<unsigned char>& list) {
    list.resize(at(grid.dims) * at(grid.count));
    for (int m = 0; m < grid.count; ++m)
      for (int d = 0, rest = m; d < grid.dims; ++d, rest /= points)
        list[at(d) * at(grid.count) + at(m)] = static_cast<unsigned char>(rest % points);
  };
  digits(grids.level2, grids.digits2);
  digits(grids.level3, grids.digits3);
  return true;
}

void makeunitrows(const Frame& frame, const Level3Records& records, UnitRows& rows) {
  const std::size_t npi = at(frame.npi), total = records.start[at(records.units)];
  fit(rows.x, total * npi);
  for (std::size_t i = 0; i < total; ++i) {
    const double* x = records.x.data() + i * npi;
    double* to = rows.x.data() + i * npi;
    for (std::size_t c = 0; c < npi; ++c) {
      double sum = 0.0;
      for (std::size_t l = 0; l <= c; ++l) sum += x[l] * frame.toX[l * npi + c];
      to[c] = sum;
    }
  }
  if (frame.multinomial()) {
    fit(rows.indicators, total * frame.responses);
    std::fill_n(rows.indicators.data(), total * frame.responses, 0.0);
    for (std::size_t i = 0; i < total; ++i)
      if (records.y[i] < static_cast<double>(frame.responses))
        rows.indicators[i * frame.responses + static_cast<std::size_t>(records.y[i])] =
            records.n.empty() ? 1.0 : records.n[i];
  }
  if (frame.outcome == Family::poisson && !records.n.empty()) {
    fit(rows.logn, padded(total));
    std::copy_n(records.n.data(), total, rows.logn.data());
    std::fill(rows.logn.data() + total, rows.logn.data() + padded(total), 1.0);
    fastestquadratureloops().logarithms(rows.logn.data(), padded(total));
  }
}

RecordDensity densityof(const Frame& frame, const Level3Records& records) {
  if (frame.multinomial()) return RecordDensity::multinomial;
  if (frame.outcome == Family::poisson) return records.n.empty() ? RecordDensity::poisson : RecordDensity::exposure;
  if (frame.outcome == Family::binomial || !records.n.empty()) return RecordDensity::binomial;
  // A share of successes is a binomial outcome of one trial.
  return frame.shares ? RecordDensity::binomial : RecordDensity::bernoulli;
}

bool integratespherical(const Frame& frame, const SphericalGrids& grids, const SphericalPoint& point,
                        const Level3Records& records, Nodes& nodes, RecordSums& sums, const Asking& asking,
                        SphericalWork& work, UnitSums& result) {
  SphericalIntegral integral{frame, grids, point, records, nodes, sums, asking, work};
  return integral.integrate(result);
}

}  // namespace kdr
