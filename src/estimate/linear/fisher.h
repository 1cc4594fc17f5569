// Fisher scoring of the variance components: information, score and the update of the fixed effects that goes with
// them.
//
// The parameters, NT = p(p+1)/2 + b(b+1)/2 + 1 of them: the lower triangle of taupi by rows, that of taubeta by rows,
// sigma2 last.
#pragma once

#include "estimate/linear/pass.h"
#include "estimate/linear/point.h"
#include "estimate/linear/restriction.h"
#include "kernel/array.h"

namespace kdr {

struct FisherWork {
  int NT = 0;
  Restriction restriction;       // what is fixed or equal among them
  Array<double> information;     // NT squared
  Array<double> invinformation;  // NT squared: K (K'IK)^-1 K' over the free parameters; 0 in the rows of fixed ones
  Array<double> score;           // [NT]
};

// Sizes the work for a pass; nothing when fishertype is none.
void makefisher(const Pass& pass, FisherWork& fisher);
void sizefisher(const Pass& pass, FisherWork& fisher);  // whatever fishertype is

// Information and score at a point. Returns false when a matrix of a unit cannot be inverted.
[[nodiscard]] bool fisherpoint(Pass& pass, const Estimates& est, FisherWork& fisher);

// Inverts the information of the free parameters; rows of fixed ones become 0. With `strict` the information must pass
// the tests of a covariance matrix too. Returns false when that fails.
[[nodiscard]] bool invertinformation(FisherWork& fisher, bool strict);

// The step [NT] that inverse information and score make.
[[nodiscard]] Array<double> scoringdirection(const FisherWork& fisher);
// `start` with its variance components moved by factor times the step.
[[nodiscard]] Estimates moved(const Pass& pass, const Estimates& start, const Array<double>& step, double factor);
// Whether the variance components are usable ones there.
[[nodiscard]] bool stepstays(const Pass& pass, const Estimates& start, const Array<double>& step, double factor);

// What becomes of the estimates of the pass behind a step: nothing, or they get the fixed effects and the
// log-likelihood that belong to it.
enum class Scoring { asks, steps };

// Expected information (fishertype expected). Returns false when a matrix cannot be inverted or the information is not
// usable. A scoring that asks stops after inverse information and score and changes only these, dinv and C_j^-1; one
// that steps also fills the posterior means and the log-likelihood, and updates gammahat and vgamma. The cost is linear
// in the number of level-2 units: the sum over all pairs of units of a level-3 unit is a product of sums over units.
[[nodiscard]] bool fisherfull(Pass& pass, FisherWork& fisher, Likelihood& likelihood, Scoring scoring);

// Sum of the outer products of the level-3 units' scores (fishertype outerproducts). Returns true when its inverse
// exists; a scoring that steps updates gammahat and the log-likelihood in any case.
[[nodiscard]] bool fisherouter(Pass& pass, FisherWork& fisher, Likelihood& likelihood, Scoring scoring);

// By fishertype.
[[nodiscard]] bool fisherstep(Pass& pass, FisherWork& fisher, Likelihood& likelihood, Scoring scoring);

}  // namespace kdr
