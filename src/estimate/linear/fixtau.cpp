#include "estimate/linear/fixtau.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

bool negativediagonal(const double* t, int n) {
  for (int i = 0; i < n; ++i)
    if (t[i * n + i] < 0.0) return true;
  return false;
}

// The tau at hand and what constrains it.
struct Repair {
  double* t;
  int n;
  const Array<double>& moments;
  const Array<double>* est;  // null without fixed elements
  const Array<int>* codes;   // null without equality groups
  bool diagonal;             // off-diagonals are to be 0
  int rounds = 0;            // failed tests of RepairChoice::clear

  [[nodiscard]] bool freeat(int i, int j) const { return freeelement(est, codes, n, i, j); }
  void set(int i, int j, double value) const { t[i * n + j] = t[j * n + i] = value; }
};

void clearfreeoffdiagonals(const Repair& repair) {
  for (int i = 0; i < repair.n; ++i)
    for (int j = 0; j < i; ++j)
      if (repair.freeat(i, j)) repair.set(i, j, 0.0);
}

void diagonalise(const Repair& repair) {
  if (repair.diagonal) cleardiagonaloff(repair.t, repair.n);
}

// Covariances that are given may be too large for variances that moments make. True when these have grown enough.
bool growvariances(const Repair& repair) {
  constexpr int maxdoublings = 60;
  double* t = repair.t;
  const int n = repair.n;
  for (int doubling = 0; doubling < maxdoublings && repair.est != nullptr; ++doubling) {
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        if (repair.freeat(i, i)) t[i * n + i] = std::max(t[i * n + i], std::fabs(t[i * n + j]));
    if (usablecovariance(t, n)) return true;
    for (int i = 0; i < n; ++i)
      if (repair.freeat(i, i)) t[i * n + i] *= 2.0;
  }
  return false;
}

// The automatic fix-up: lifts non-positive variances, shrinks unit correlations, and as a last resort takes a fifth of
// the moments as variances.
bool automaticfixup(const Repair& repair) {
  constexpr double share = 0.2, shrink = 0.7;
  constexpr int maxshrinks = 50;
  double* t = repair.t;
  const int n = repair.n;
  if (negativediagonal(t, n))
    for (int i = 0; i < n; ++i)
      if (repair.freeat(i, i) && t[i * n + i] <= 0.0) t[i * n + i] = share * repair.moments[i * n + i];
  for (int round = 0; round < maxshrinks && hasunitcorrelation(n, t, n); ++round)
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < i; ++j)
        if (repair.freeat(i, j) && std::fabs(t[i * n + j]) / std::sqrt(t[i * n + i] * t[j * n + j]) >= 1.0)
          repair.set(i, j, t[i * n + j] * shrink);
  diagonalise(repair);
  if (usablecovariance(t, n)) return true;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j)
      if (repair.freeat(i, j)) repair.set(i, j, i == j ? share * repair.moments[i * n + i] : 0.0);
  diagonalise(repair);
  if (usablecovariance(t, n) || growvariances(repair)) return true;
  if (repair.codes == nullptr) return false;
  // Elements held equal are left alone so far; now they start from their moments too, at their common value.
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j)
      if (!fixedelement(repair.est, n, i, j)) repair.set(i, j, i == j ? share * repair.moments[i * n + i] : 0.0);
  applyequal(n, t, *repair.codes);
  diagonalise(repair);
  return usablecovariance(t, n);
}

}  // namespace

bool fixedelement(const Array<double>* est, int n, int i, int j) {
  return est != nullptr && !isabsent((*est)[i * n + j]);
}

bool equalelement(const Array<int>* codes, int i, int j) {
  return codes != nullptr && (*codes)[i >= j ? packedsize(i) + at(j) : packedsize(j) + at(i)] != 0;
}

bool freeelement(const Array<double>* est, const Array<int>* codes, int n, int i, int j) {
  return !fixedelement(est, n, i, j) && !equalelement(codes, i, j);
}

void applyfixed(double* t, int n, const Array<double>& est) {
  for (int i = 0; i < n * n; ++i)
    if (!isabsent(est[i])) t[i] = est[i];
}

void applyequal(int n, double* t, const Array<int>& codes) {
  const std::size_t elements = packedsize(n);
  Array<double> packed(elements), level(elements);
  pack(n, t, packed.data());
  for (std::size_t e = 0; e < elements; ++e) {
    level[e] = packed[e];
    if (codes[e] == 0) continue;
    double sum = 0.0;
    int members = 0;
    for (std::size_t f = 0; f < elements; ++f)
      if (std::abs(codes[f]) == std::abs(codes[e])) {
        sum += packed[f];
        ++members;
      }
    level[e] = sum / members;
  }
  unpack(n, level.data(), t);
}

void applyheld(const Model& model, Tau which, Estimates& est) {
  double* t = est.tau(which).data();
  const int n = model.coef.order(which);
  const TauHeld held = model.restrictions.of(which);
  if (held.fixed != nullptr) applyfixed(t, n, *held.fixed);
  if (held.equal != nullptr) applyequal(n, t, *held.equal);
  if (held.diagonal) cleardiagonaloff(t, n);
}

Failure fixtau(Pass& pass, Tau which, const Array<double>& moments, FixTau code) {
  const Restrictions& restrictions = pass.model().restrictions;
  const TauHeld held = restrictions.of(which);
  const Observer& observer = pass.observer();
  const int n = pass.order(which);
  double* t = pass.est.tau(which).data();
  Repair repair{t, n, moments, held.fixed, held.equal, restrictions.diagtaupi || restrictions.diagtaubeta};

  const TauRepair question{which, n, t, repair.est, repair.codes, pass.est};
  const auto ask = [&] { return observer.chooserepair ? observer.chooserepair(question) : RepairChoice::automatic; };
  const bool standing = code == FixTau::clear || code == FixTau::automatic || code == FixTau::quit;
  if (!standing) tellobserver(observer.unusabletau, question);
  RepairChoice choice = standing ? static_cast<RepairChoice>(code) : ask();
  for (;;) {
    switch (choice) {
      case RepairChoice::clear:
        clearfreeoffdiagonals(repair);
        if (usablecovariance(t, n)) return {};
        ++repair.rounds;
        break;
      case RepairChoice::byhand:
        tellobserver(observer.changetau, question);
        if (!usablecovariance(t, n)) break;
        tellobserver(observer.changeothers, question);
        return {};
      case RepairChoice::automatic:
        if (constexpr int maxrounds = 100; repair.rounds >= maxrounds)
          return failedboth(std::string("Unable to generate a good tau(") + nameof(which) + ")\n");
        if (automaticfixup(repair)) return {};
        tellobserver(observer.badtau, BadTau{BadTau::Why::unrepairable, which, n, t});
        return failedwith(pass.analysis->start != nullptr ? "\nPlease check your starting value file!\n" : "");
      default:
        return failedboth("fixtau set to 4, so no correction to tau made. Unable to continue.\n");
    }
    choice = ask();
  }
}

}  // namespace kdr
