#include "estimate/linear/restriction.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

namespace {

// log det T + tr(T^-1 S), which the update makes small; false when T is not a usable covariance. T^-1 is left in
// `inverse`.
bool deviance(const double* T, const double* S, int n, Array<double>& inverse, double& value) {
  const Inversion inversion = invertsymmetric(n, T, inverse.data());
  if (inversion.result != 0 || !positivecovariance(T, n)) return false;
  value = inversion.logdeterminant();
  for (std::size_t i = 0; i < square(n); ++i) value += inverse[i] * S[i];
  return true;
}

}  // namespace

Restriction taurestriction(const Model& model, Tau which) {
  const TauHeld held = model.restrictions.of(which);
  const int n = model.coef.order(which);
  Restriction restriction;
  restriction.free.reset(packedsize(n));
  Array<int> parameterof(packedsize(n) + 1);  // free parameter of each equality group, from 1; 0 for none yet
  eachelement(n, [&](int e, int i, int j) {
    int& free = restriction.free[e];
    const int group = held.equal != nullptr ? std::abs((*held.equal)[e]) : 0;
    if ((held.fixed != nullptr && !isabsent((*held.fixed)[i * n + j])) || (held.diagonal && i != j)) {
      free = -1;
    } else if (group == 0) {
      free = restriction.nfree++;
    } else {
      if (parameterof[group] == 0) parameterof[group] = ++restriction.nfree;
      free = parameterof[group] - 1;
    }
  });
  return restriction;
}

Restriction allrestriction(const Model& model, bool sigma2free) {
  Restriction all;
  const Restriction parts[] = {taurestriction(model, Tau::pi), taurestriction(model, Tau::beta)};
  all.free.reset(parts[0].free.size() + parts[1].free.size() + 1);
  std::size_t e = 0;
  for (const Restriction& part : parts) {
    for (const int free : part.free) all.free[e++] = free < 0 ? -1 : free + all.nfree;
    all.nfree += part.nfree;
  }
  all.free[e] = sigma2free ? all.nfree++ : -1;
  return all;
}

void reduceinformation(const Restriction& restriction, const double* I, int ld, double* reduced) {
  const int n = static_cast<int>(restriction.free.size()), m = restriction.nfree;
  std::fill_n(reduced, square(m), 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      if (const int a = restriction.free[i], c = restriction.free[j]; a >= 0 && c >= 0)
        reduced[a * m + c] += I[i * ld + j];
}

void reducevector(const Restriction& restriction, const double* s, double* reduced) {
  std::fill_n(reduced, restriction.nfree, 0.0);
  for (std::size_t i = 0; i < restriction.free.size(); ++i)
    if (const int a = restriction.free[i]; a >= 0) reduced[a] += s[i];
}

void expandinverse(const Restriction& restriction, const double* reduced, double* full, int ld) {
  const int n = static_cast<int>(restriction.free.size()), m = restriction.nfree;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const int a = restriction.free[i], c = restriction.free[j];
      full[i * ld + j] = a >= 0 && c >= 0 ? reduced[a * m + c] : 0.0;
    }
}

void maximisetau(double* T, const double* S, int n, const Restriction& restriction) {
  if (restriction.none()) {
    std::copy_n(S, square(n), T);
    return;
  }
  if (restriction.nfree == 0) return;
  constexpr int maxsteps = 100, maxhalvings = 40;
  constexpr double leastgain = 1e-14;
  const int elements = static_cast<int>(packedsize(n)), m = restriction.nfree;
  Array<double> inverse(square(n)), half(square(n)), A(square(n));
  Array<double> score(at(elements)), information(square(elements));
  Array<double> reduced(square(m)), reducedinverse(square(m)), x(at(m)), step(at(m)), tried(square(n));
  double value = 0.0;
  if (!deviance(T, S, n, inverse, value)) return;
  for (int round = 0; round < maxsteps; ++round) {
    // Score and information of one unit: 1/2 D'vec(T^-1 (S - T) T^-1), 1/2 D'(T^-1 (x) T^-1) D.
    for (std::size_t i = 0; i < square(n); ++i) half[i] = S[i] - T[i];
    mulAB(A.data(), inverse.data(), half.data(), n, n, n);
    mulAB(half.data(), A.data(), inverse.data(), n, n, n);
    eachelement(n, [&](int e, int i, int j) {
      score[e] = (i == j ? 0.5 : 1.0) * half[i * n + j];
      eachelement(n, [&](int f, int k, int l) {
        information[e * elements + f] = 0.5 * duplicatedproduct(inverse.data(), n, i, j, k, l);
      });
    });
    reduceinformation(restriction, information.data(), elements, reduced.data());
    reducevector(restriction, score.data(), x.data());
    if (invertsymmetric(m, reduced.data(), reducedinverse.data()).result != 0) return;
    mulAB(step.data(), reducedinverse.data(), x.data(), m, 1, m);

    double next = value;
    bool improved = false;
    for (int halving = 0; halving < maxhalvings && !improved; ++halving) {
      std::copy_n(T, square(n), tried.data());
      eachelement(n, [&](int e, int i, int j) {
        if (const int a = restriction.free[e]; a >= 0) {
          tried[i * n + j] += step[a];
          if (i != j) tried[j * n + i] += step[a];
        }
      });
      improved = deviance(tried.data(), S, n, inverse, next) && next <= value;
      for (double& s : step) s *= 0.5;
    }
    if (!improved) return;
    std::copy_n(tried.data(), square(n), T);
    const bool settled = value - next <= leastgain * std::max(1.0, std::fabs(value));
    value = next;
    if (settled) return;
  }
}

}  // namespace kdr
