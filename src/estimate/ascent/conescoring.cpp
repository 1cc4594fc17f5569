#include "estimate/ascent/conescoring.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// One matrix at a point. In the scale d of its own standard errors it is Q diag(values) Q', values ascending; the first
// `lacking` of them are 0.
struct Block {
  int n = 0, first = 0;  // order, and its first element
  int lacking = 0;
  Array<double> d;          // [n]
  Array<double> values, Q;  // [n], n squared
};

// Functionals of the free parameters that a step has to meet: `rows` rows of m values each.
struct Functionals {
  std::size_t m = 0;
  std::vector<double> rows, wanted;
  void add(const Array<double>& row, double value) {
    rows.insert(rows.end(), row.begin(), row.end());
    wanted.push_back(value);
  }
  [[nodiscard]] std::size_t count() const { return wanted.size(); }
};

// The shortest step in the measure of the information that meets functionals, and its multipliers.
struct Correction {
  Array<double> step;         // [m]
  Array<double> multipliers;  // one for each functional
};

struct Climb {
  const ConeProblem& problem;
  const ConePolicy& policy;
  ConeResult& result;
  std::size_t m;  // free parameters
  std::vector<Block> blocks{};
  Evaluation there{};
  Array<double> unit{};                    // [m] the standard error of each free parameter, by its own information
  Array<double> score{}, H{};              // [m], m squared: of the free parameters in these units
  Array<double> eigenvalues{}, vectors{};  // of H
  Array<double> step{}, multipliers{};     // the best step at the rank, and the multipliers of its functionals
  double ridge = 0.0;

  [[nodiscard]] bool look();
  void measure();
  void decompose(Block& block, const Array<double>& point) const;
  Array<double> image(const Block& block, std::size_t a) const;
  Functionals held(const std::vector<Block>& at) const;
  [[nodiscard]] Array<double> solve(const Array<double>& x) const;
  [[nodiscard]] Correction meet(const Functionals& functionals) const;
  void factorise();
  void solvestep();
  void addcurvature();
  [[nodiscard]] Array<double> moved(const Array<double>& from, const Array<double>& by, double factor) const;
  [[nodiscard]] bool restore(Array<double>& point, std::vector<Block>& at) const;
  struct Trial {
    Array<double> point{};
    std::vector<Block> face{};
    double value = 0.0;
    [[nodiscard]] bool empty() const { return point.empty(); }
  };
  [[nodiscard]] Trial attempt(const Array<double>& by, double factor, double least,
                              const std::vector<Block>& face) const;
  void take(Trial trial);
  [[nodiscard]] bool fall();
  [[nodiscard]] bool newton();
  struct Release {
    std::size_t block = 0;
    double gain = 0.0, slope = 0.0, curvature = 0.0;
    int rank = 0;
    Array<double> direction{};
  };
  [[nodiscard]] Release release() const;
  [[nodiscard]] bool letgo(const Release& release);
  void lift();
  [[nodiscard]] AscentEnd run();
};

// An eigenvalue is 0 below this share of the largest and of a standard error.
constexpr double zero = 1.0e-12;
double threshold(const Block& block) {
  return block.n == 0 ? zero : zero * (1.0 + std::fabs(block.values[at(block.n) - 1]));
}

// The standard errors by which everything is measured: those that each element would have if it were alone.
void Climb::measure() {
  unit.reset(m);
  for (std::size_t e = 0; e < problem.free.size(); ++e)
    if (const int a = problem.free[e]; a >= 0) unit[at(a)] += there.scale[e];
  for (double& u : unit) u = u > 0.0 && std::isfinite(u) ? 1.0 / std::sqrt(u) : 1.0;
  for (Block& block : blocks)
    for (int i = 0; i < block.n; ++i) {
      const double own = there.scale[at(block.first) + packedsize(i) + at(i)];
      block.d[at(i)] = own > 0.0 && std::isfinite(own) ? 1.0 / std::sqrt(std::sqrt(own)) : 1.0;
    }
}

void Climb::decompose(Block& block, const Array<double>& point) const {
  const int n = block.n;
  Array<double> W(square(n));
  unpack(n, point.data() + block.first, W.data());
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) W[at(i * n + j)] /= block.d[at(i)] * block.d[at(j)];
  block.values.reset(at(n));
  block.Q.reset(square(n));
  spectrum(at(n), W.data(), block.values.data(), block.Q.data());
}

// What a unit of parameter a changes, in the coordinates of the block's eigenvectors: n squared.
Array<double> Climb::image(const Block& block, std::size_t a) const {
  const int n = block.n;
  Array<double> E(square(n)), half(square(n));
  eachelement(n, [&](int e, int i, int j) {
    if (problem.free[at(block.first + e)] == static_cast<int>(a))
      E[at(i * n + j)] = E[at(j * n + i)] = unit[a] / (block.d[at(i)] * block.d[at(j)]);
  });
  mulAtB(half.data(), block.Q.data(), E.data(), n, n, n);
  mulAB(E.data(), half.data(), block.Q.data(), n, n, n);
  return E;
}

// N'TN of all blocks, to first order: an off-diagonal element counts twice in a sum of squares. Wanted is what brings
// it to 0.
Functionals Climb::held(const std::vector<Block>& at_) const {
  Functionals functionals{m, {}, {}};
  for (const Block& block : at_) {
    if (block.lacking == 0) continue;
    std::vector<Array<double>> images;
    for (std::size_t a = 0; a < m; ++a) images.push_back(image(block, a));
    for (int i = 0; i < block.lacking; ++i)
      for (int j = 0; j <= i; ++j) {
        Array<double> row(m);
        for (std::size_t a = 0; a < m; ++a) row[a] = (i == j ? 1.0 : std::sqrt(2.0)) * images[a][at(i * block.n + j)];
        functionals.add(row, i == j ? -block.values[at(i)] : 0.0);
      }
  }
  return functionals;
}

void Climb::factorise() {
  eigenvalues.reset(m);
  vectors.reset(m * m);
  spectrum(m, H.data(), eigenvalues.data(), vectors.data());
}

// (H + ridge)^-1 x, directions without curvature left at a large but finite length.
Array<double> Climb::solve(const Array<double>& x) const {
  constexpr double least = 1.0e-11;
  Array<double> y(m);
  for (std::size_t l = 0; l < m; ++l) {
    double share = 0.0;
    for (std::size_t i = 0; i < m; ++i) share += vectors[i * m + l] * x[i];
    share /= std::max(eigenvalues[l], least) + ridge;
    for (std::size_t i = 0; i < m; ++i) y[i] += vectors[i * m + l] * share;
  }
  return y;
}

// H^-1 A'(A H^-1 A')^+ w. Where functionals say the same, as under restrictions, the multipliers are the shortest, as a
// matrix. No eigenvalue of A H^-1 A' is small but for these: those of H are not large, and A is in standard errors.
Correction Climb::meet(const Functionals& functionals) const {
  constexpr double independent = 1.0e-9, rounding = 1.0e-13;
  const std::size_t n = functionals.count();
  Correction correction{Array<double>(m), Array<double>(n)};
  std::vector<Array<double>> solved;
  Array<double> M(n * n), values(n), Q(n * n), row(m);
  for (std::size_t i = 0; i < n; ++i) {
    std::copy_n(functionals.rows.data() + i * m, m, row.data());
    solved.push_back(solve(row));
  }
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) M[i * n + j] = dot(functionals.rows.data() + i * m, solved[j].data(), m);
  spectrum(n, M.data(), values.data(), Q.data());
  for (std::size_t l = 0; l < n; ++l) {
    if (values[l] <= std::max(independent, rounding * values[n - 1])) continue;
    double share = 0.0;
    for (std::size_t i = 0; i < n; ++i) share += Q[i * n + l] * functionals.wanted[i];
    for (std::size_t i = 0; i < n; ++i) correction.multipliers[i] += Q[i * n + l] * share / values[l];
  }
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t a = 0; a < m; ++a) correction.step[a] += correction.multipliers[i] * solved[i][a];
  return correction;
}

// The best step at the rank: H^-1 score without what would move the functionals. Their multipliers are the slopes of
// the function along them.
void Climb::solvestep() {
  step = solve(score);
  Functionals functionals = held(blocks);
  for (std::size_t i = 0; i < functionals.count(); ++i)
    functionals.wanted[i] = dot(functionals.rows.data() + i * m, step.data(), m);
  Correction correction = meet(functionals);
  for (std::size_t a = 0; a < m; ++a) step[a] -= correction.step[a];
  multipliers = std::move(correction.multipliers);
}

// The symmetric matrix that a block's part of the multipliers makes, from `place` on.
Array<double> multiplierof(const Block& block, const Array<double>& multipliers, std::size_t& place) {
  const int k = block.lacking;
  Array<double> Y(square(k));
  for (int i = 0; i < k; ++i)
    for (int j = 0; j <= i; ++j)
      Y[at(i * k + j)] = Y[at(j * k + i)] = multipliers[place++] / (i == j ? 1.0 : std::sqrt(2.0));
  return Y;
}

// H += C: Z, the negative part of the multipliers with its sign changed, is U diag(z) U'.
void Climb::addcurvature() {
  std::size_t place = 0;
  bool added = false;
  for (const Block& block : blocks) {
    const int n = block.n, k = block.lacking;
    if (k == 0) continue;
    const Array<double> Y = multiplierof(block, multipliers, place);
    Array<double> y(at(k)), U(square(k));
    spectrum(at(k), Y.data(), y.data(), U.data());
    std::vector<Array<double>> roots;  // of a parameter's image: sqrt(2 z / l) (U'N'ER)
    for (std::size_t a = 0; a < m; ++a) {
      const Array<double> E = image(block, a);
      Array<double> root(at(k) * at(n - k));
      for (int l = 0; l < k; ++l)
        for (int r = k; r < n; ++r) {
          if (!(y[at(l)] < 0.0) || !(block.values[at(r)] > 0.0)) continue;
          double sum = 0.0;
          for (int i = 0; i < k; ++i) sum += U[at(i * k + l)] * E[at(i * n + r)];
          root[at(l * (n - k) + r - k)] = std::sqrt(-2.0 * y[at(l)] / block.values[at(r)]) * sum;
        }
      roots.push_back(std::move(root));
    }
    for (std::size_t a = 0; a < m; ++a)
      for (std::size_t c = 0; c < m; ++c) H[a * m + c] += dot(roots[a].data(), roots[c].data(), roots[a].size());
    added = added || n > k;
  }
  if (added) factorise();
}

// Score and information of the free parameters, and the best step.
bool Climb::look() {
  there = problem.evaluate(result.point);
  if (!there.usable) return false;
  result.value = there.value;
  measure();
  for (Block& block : blocks) {
    decompose(block, result.point);
    while (block.lacking < block.n && block.values[at(block.lacking)] <= threshold(block)) ++block.lacking;
  }
  const std::size_t P = problem.free.size();
  score.reset(m);
  H.reset(m * m);
  for (std::size_t e = 0; e < P; ++e) {
    const int a = problem.free[e];
    if (a < 0) continue;
    score[at(a)] += unit[at(a)] * there.score[e];
    for (std::size_t f = 0; f < P; ++f)
      if (const int c = problem.free[f]; c >= 0)
        H[at(a) * m + at(c)] += unit[at(a)] * unit[at(c)] * there.information[e * P + f];
  }
  ridge = 0.0;
  factorise();
  solvestep();
  addcurvature();
  solvestep();
  result.decrement = dot(score.data(), step.data(), m);
  return std::isfinite(result.decrement);
}

Array<double> Climb::moved(const Array<double>& from, const Array<double>& by, double factor) const {
  Array<double> point = from.copy();
  for (std::size_t e = 0; e < point.size(); ++e)
    if (const int a = problem.free[e]; a >= 0) point[e] += factor * unit[at(a)] * by[at(a)];
  return point;
}

std::vector<Block> copyof(const std::vector<Block>& blocks) {
  std::vector<Block> twins;
  for (const Block& block : blocks)
    twins.push_back({block.n, block.first, block.lacking, block.d.copy(), block.values.copy(), block.Q.copy()});
  return twins;
}

// Brings a point to matrices that lack at least what `face` does, whose other eigenvalues are positive: Newton steps on
// N'TN, each the shortest in the measure of the information.
bool Climb::restore(Array<double>& point, std::vector<Block>& face) const {
  constexpr int rounds = 20;
  for (int round = 0; round < rounds; ++round) {
    bool done = true;
    for (Block& block : face) {
      decompose(block, point);
      const double least = threshold(block);
      while (block.lacking < block.n && block.values[at(block.lacking)] <= least) ++block.lacking;
      for (int i = 0; i < block.lacking; ++i) done = done && std::fabs(block.values[at(i)]) <= least;
    }
    if (done) return true;
    const Correction correction = meet(held(face));
    if (!std::isfinite(dot(correction.step.data(), correction.step.data(), m))) return false;
    point = moved(point, correction.step, 1.0);
  }
  return false;
}

// The point behind a step, if the function rises there by more than `least` and by a share of what the score promises
// of the way that is left of the step.
Climb::Trial Climb::attempt(const Array<double>& by, double factor, double least,
                            const std::vector<Block>& face) const {
  Trial trial{moved(result.point, by, factor), copyof(face), 0.0};
  if (!restore(trial.point, trial.face)) return {};
  const Evaluation reached = problem.test(trial.point);
  if (!reached.usable) return {};
  double promised = 0.0;
  for (std::size_t e = 0; e < trial.point.size(); ++e)
    if (problem.free[e] >= 0) promised += there.score[e] * (trial.point[e] - result.point[e]);
  if (!(reached.value > result.value + std::max(least, policy.rise * promised))) return {};
  trial.value = reached.value;
  return trial;
}

void Climb::take(Trial trial) {
  result.point = std::move(trial.point);
  result.value = trial.value;
  blocks = std::move(trial.face);
}

// A step that takes R'TR out of the cone goes only a part of its way, and what there is of it to the edge is no guide
// to the rest: other elements go with what cannot be. So the point falls on the edge that it would leave by, if it
// rises so.
bool Climb::fall() {
  std::vector<Block> face = copyof(blocks);
  bool leaves = false;
  for (Block& block : face) {
    const int n = block.n, k = block.lacking, rank = n - k;
    Array<double> behind(square(rank)), values(at(rank)), Q(square(rank));
    for (int i = 0; i < rank; ++i) behind[at(i * rank + i)] = block.values[at(k + i)];
    for (std::size_t a = 0; a < m; ++a) {
      const Array<double> E = image(block, a);
      for (int i = 0; i < rank; ++i)
        for (int j = 0; j < rank; ++j) behind[at(i * rank + j)] += step[a] * E[at((k + i) * n + k + j)];
    }
    spectrum(at(rank), behind.data(), values.data(), Q.data());
    for (const double value : values) block.lacking += value <= threshold(block) ? 1 : 0;
    leaves = leaves || block.lacking > k;
  }
  if (!leaves) return false;
  Trial trial = attempt(step, 0.0, 0.0, face);
  if (trial.empty()) return false;
  take(std::move(trial));
  return true;
}

// The best step, halved until it is one that rises; with ridges where none does. A whole step that gains much more than
// the half that a quadratic function would is doubled as long as that gains.
bool Climb::newton() {
  constexpr double straight = 0.75;
  for (int grown = 0; grown < policy.ridges; ++grown) {
    if (grown > 0) {
      ridge = grown == 1 ? 1.0e-3 : 30.0 * ridge;
      solvestep();
    }
    const double promised = dot(score.data(), step.data(), m);
    double factor = 1.0;
    for (int halving = 0; halving <= policy.halvings; ++halving, factor *= 0.5) {
      Trial trial = attempt(step, factor, 0.0, blocks);
      if (trial.empty()) continue;
      for (int doubling = 1; halving == 0 && doubling <= policy.halvings; ++doubling) {
        const double gain = trial.value - result.value;
        if (gain < straight * factor * promised) break;
        factor *= 2.0;
        Trial farther = attempt(step, factor, gain, blocks);
        if (farther.empty()) break;
        trial = std::move(farther);
      }
      take(std::move(trial));
      return true;
    }
  }
  return false;
}

// Adds up y U_l U_l' over the eigenvectors of a symmetric matrix whose eigenvalues are above 0: its projection onto the
// cone. `last`: over the largest alone. Returns how many there are.
int positivepart(const Array<double>& Y, int k, bool last, Array<double>& part) {
  Array<double> y(at(k)), U(square(k));
  spectrum(at(k), Y.data(), y.data(), U.data());
  part.reset(square(k));
  int rank = 0;
  for (int l = last ? k - 1 : 0; l < k; ++l) {
    if (!(y[at(l)] > 1.0e-9 * std::fabs(y[at(k) - 1]))) continue;
    ++rank;
    for (int i = 0; i < k; ++i)
      for (int j = 0; j < k; ++j) part[at(i * k + j)] += U[at(i * k + l)] * U[at(j * k + l)] * y[at(l)];
  }
  return rank;
}

// A symmetric matrix as functionals have it, and the reverse.
Array<double> packedof(const Array<double>& M, int k) {
  Array<double> packed(packedsize(k));
  eachelement(k, [&](int e, int i, int j) { packed[at(e)] = (i == j ? 1.0 : std::sqrt(2.0)) * M[at(i * k + j)]; });
  return packed;
}
Array<double> fullof(const Array<double>& packed, int k) {
  Array<double> M(square(k));
  eachelement(k, [&](int e, int i, int j) {
    M[at(i * k + j)] = M[at(j * k + i)] = packed[at(e)] / (i == j ? 1.0 : std::sqrt(2.0));
  });
  return M;
}

// What of N'TN free parameters can make: the projection of packed matrices onto the columns of m functionals, n rows.
Array<double> reachable(const double* rows, std::size_t n, std::size_t m) {
  constexpr double independent = 1.0e-9;
  Array<double> M(n * n), values(n), Q(n * n), P(n * n);
  mulABt(M.data(), rows, rows, static_cast<int>(n), static_cast<int>(n), static_cast<int>(m));
  spectrum(n, M.data(), values.data(), Q.data());
  for (std::size_t l = 0; l < n; ++l)
    if (values[l] > independent * values[n - 1])
      for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j) P[i * n + j] += Q[i * n + l] * Q[j * n + l];
  return P;
}

// The nearest matrix to Y that is in the cone and that parameters can make, by alternating projections with Dykstra's
// correction for that onto the cone. It is 0 where no direction off the edge rises.
Array<double> steepestway(const Array<double>& Y, int k, const Array<double>& P) {
  constexpr int rounds = 300;
  const int n = static_cast<int>(packedsize(k));
  Array<double> now = packedof(Y, k), taken(at(n)), part, next(at(n));
  for (int round = 0; round < rounds; ++round) {
    for (int i = 0; i < n; ++i) now[at(i)] += taken[at(i)];
    static_cast<void>(positivepart(fullof(now, k), k, false, part));
    const Array<double> inside = packedof(part, k);
    for (int i = 0; i < n; ++i) taken[at(i)] = now[at(i)] - inside[at(i)];
    mulAB(next.data(), P.data(), inside.data(), n, 1, n);
    std::swap(now, next);
  }
  return fullof(now, k);
}

// The direction off the edge that promises most: of the largest slope in one matrix; under restrictions of its elements
// the steepest that these allow.
Climb::Release Climb::release() const {
  constexpr double feasible = 1.0e-6;
  Release best;
  const Functionals whole = held(blocks);
  std::size_t first = 0;
  for (std::size_t which = 0; which < blocks.size(); ++which) {
    const int k = blocks[which].lacking;
    const std::size_t n = packedsize(k), mine = first;
    first += n;
    if (k == 0) continue;
    std::size_t place = mine;
    const Array<double> Y = multiplierof(blocks[which], multipliers, place);
    Array<double> target;
    int rank = positivepart(Y, k, true, target);
    if (rank == 0) continue;
    const Array<double> P = reachable(whole.rows.data() + mine * m, n, m);
    Array<double> packed = packedof(target, k), made(n);
    const int rows = static_cast<int>(n);
    mulAB(made.data(), P.data(), packed.data(), rows, 1, rows);
    double off = 0.0, size = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
      off += (made[i] - packed[i]) * (made[i] - packed[i]);
      size += packed[i] * packed[i];
    }
    if (off > feasible * feasible * size) {
      target = steepestway(Y, k, P);
      packed = packedof(target, k);
      Array<double> part;
      rank = positivepart(target, k, false, part);
      // What the projections leave of 0 is small, or not in the cone.
      double length = 0.0, outside = 0.0;
      for (std::size_t i = 0; i < target.size(); ++i) {
        length += target[i] * target[i];
        outside += (target[i] - part[i]) * (target[i] - part[i]);
      }
      constexpr double something = 1.0e-4, clear = 1.0e-3;
      if (rank == 0 || length < something * something * size || outside > clear * clear * length) continue;
    }
    Functionals functionals{m, whole.rows, std::vector<double>(whole.count(), 0.0)};
    for (std::size_t i = 0; i < n; ++i) functionals.wanted[mine + i] = packed[i];
    Release found{which, 0.0, 0.0, 0.0, rank, meet(functionals).step};
    found.slope = dot(score.data(), found.direction.data(), m);
    Array<double> bent(m);
    mulAB(bent.data(), H.data(), found.direction.data(), static_cast<int>(m), 1, static_cast<int>(m));
    found.curvature = dot(bent.data(), found.direction.data(), m);
    found.gain = found.slope > 0.0 && found.curvature > 0.0 ? found.slope * found.slope / found.curvature : 0.0;
    if (found.gain > best.gain) best = std::move(found);
  }
  return best;
}

// Along it, first half as far as the information says.
bool Climb::letgo(const Release& release) {
  std::vector<Block> face = copyof(blocks);
  face[release.block].lacking -= release.rank;
  double factor = 0.5 * release.slope / release.curvature;
  for (int halving = 0; halving <= 3 * policy.halvings; ++halving, factor *= 0.5)
    if (Trial trial = attempt(release.direction, factor, 0.0, face); !trial.empty()) {
      take(std::move(trial));
      return true;
    }
  return false;
}

// N'TN := lift Z^-1, which costs tr(Z N'TN) to first order, but no more than 0.001 standard errors.
void Climb::lift() {
  constexpr double most = 1.0e-3;
  Functionals functionals = held(blocks);
  if (functionals.count() == 0) return;
  std::size_t place = 0, row = 0;
  for (const Block& block : blocks) {
    const int k = block.lacking;
    if (k == 0) continue;
    const Array<double> Y = multiplierof(block, multipliers, place);
    Array<double> y(at(k)), U(square(k));
    spectrum(at(k), Y.data(), y.data(), U.data());
    for (int i = 0; i < k; ++i)
      for (int j = 0; j <= i; ++j, ++row) {
        double sum = 0.0;
        for (int l = 0; l < k; ++l)
          sum +=
              U[at(i * k + l)] * U[at(j * k + l)] * (-y[at(l)] * most > policy.lift ? policy.lift / -y[at(l)] : most);
        functionals.wanted[row] = (i == j ? 1.0 : std::sqrt(2.0)) * sum;
      }
  }
  const Correction correction = meet(functionals);
  Array<double> none(problem.free.size());
  result.lift = moved(none, correction.step, 1.0);
}

AscentEnd Climb::run() {
  for (;; ++result.iterations) {
    if (!look()) return AscentEnd::unusable;
    if (problem.stop && problem.stop()) return AscentEnd::stopped;
    const Release off = release();
    const bool settled = std::fabs(result.decrement) < policy.decrement;
    if (settled && off.gain < policy.decrement) return AscentEnd::converged;
    if (result.iterations == policy.iterations) return AscentEnd::limit;
    if (std::fabs(result.decrement) < 0.1 * off.gain && letgo(off)) continue;
    if (!settled && (fall() || newton())) continue;
    const double left = std::max(std::fabs(result.decrement), off.gain);
    return left < policy.coarse ? AscentEnd::converged : AscentEnd::nostep;
  }
}

}  // namespace

ConeResult climbcone(const ConeProblem& problem, const ConePolicy& policy, const Array<double>& start) {
  ConeResult result;
  result.point = start.copy();
  Climb climb{problem, policy, result, at(problem.nfree)};
  int first = 0;
  for (const int n : problem.orders) {
    Block block{n, first, 0, Array<double>(at(n)), {}, {}};
    climb.blocks.push_back(std::move(block));
    first += static_cast<int>(packedsize(n));
  }
  result.end = climb.run();
  if (result.end != AscentEnd::unusable) climb.lift();
  for (const Block& block : climb.blocks) result.lacking.push_back(block.lacking);
  return result;
}

}  // namespace kdr
