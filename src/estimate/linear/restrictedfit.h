// The maximum of the restricted likelihood (Patterson and Thompson, 1971), wherever it lies, and what both likelihoods
// say of how well the variance components are known.
// Derived in docs/numerics.md, "Restricted likelihood" and "Degrees of freedom of few units".
#pragma once

#include <optional>
#include <string>

#include "core/failure.h"
#include "estimate/inference/smallsample.h"
#include "estimate/linear/iterationstate.h"
#include "estimate/linear/pass.h"

namespace kdr {

// Why the restricted likelihood, degrees of freedom or robust errors that stand on full covariance matrices, if they
// are asked for, cannot be had for a model, in a sentence; empty if they can.
[[nodiscard]] std::string smallsampleobstacle(const Model& model, const Control& control);

// The variance components of the pass maximise the restricted likelihood.
[[nodiscard]] bool isrestricted(const Pass& pass);

// Climbs from the estimates of the pass, at most state.limit iterations, by the average information. The observer hears
// of each, and is asked at the limit and for an interrupt. state.marginal gets the maximum; the estimates of the pass
// are it, or where a tau is singular there, a point beside it that is none: what inverts a tau stands on that.
[[nodiscard]] Failure iteraterestricted(Pass& pass, IterationState& state);

// What the variance components' uncertainty does to the fixed effects, at `est`, where the likelihood has `value`, by
// the expected information, or the observed one with DDF:SATTERTHWAITE,OBSERVED. Directions in which a tau is singular
// are taken as known unless EDGECOV:FULL. Nothing where the information has no inverse.
struct VarianceInformation {
  VarianceUncertainty fixed;
  Array<double> own;  // [NT] the information of each component
};
[[nodiscard]] std::optional<VarianceInformation> varianceinformation(Pass& pass, MarginalSums& sums,
                                                                     const Estimates& est, const MarginalValue& value);
// The standard errors that it makes.
[[nodiscard]] TauErrors tauerrors(const Pass& pass, const VarianceInformation& known);

}  // namespace kdr
