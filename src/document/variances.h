// The variance components of a phase.
#pragma once

#include <span>
#include <vector>

#include "core/results.h"
#include "document/subject.h"

namespace kdr {

// What a tau of a phase has; null pointers and empty arrays are not known.
struct TauParts {
  int n = 0;
  const Array<double>* tau = nullptr;
  const Array<double>* errors = nullptr;
  const Array<double>* reliabilities = nullptr;
  int reliabilityunits = 0;
};
[[nodiscard]] Json taumatrix(const Subject& subject, Tau which, const TauParts& parts);

[[nodiscard]] Json sigma2of(double estimate, bool held, bool errorknown, double error);

// The members of `variance_intervals`, and of `profile_intervals`.
[[nodiscard]] Json intervalsof(const VarianceIntervals& intervals, int p, int b);
[[nodiscard]] Json profileof(const ProfileIntervals& profile, int p, int b);

// The member `variance_shares`.
[[nodiscard]] Json sharesof(const VarianceShares& shares, bool twolevel);

// The member `variance_tests` of the taus with these tests.
[[nodiscard]] Json variancetests(const Subject& subject, const Array<double>& taupi, const Array<double>& taubeta,
                                 const VarianceTests& tests);

// Which elements of a tau have no standard error because they are at the edge of their range; null: none is.
[[nodiscard]] Json edges(int n, const std::vector<bool>& edge);

// The shares of a linear model with nothing but an intercept that varies at all levels; null for others.
[[nodiscard]] Json intraclass(const Subject& subject, double sigma2, const Array<double>& taupi,
                              const Array<double>& taubeta);

}  // namespace kdr
