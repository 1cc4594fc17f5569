// An ascent by steps on score and information with a ridge, halved where they leave the space of the parameters: that
// of the engines of AGQNODES:FIXED, whose runs others want to repeat. All others climb by ascent.h. What is climbed is
// given as a function of a point; how, by a set of policies.
//
// An iteration at x, with score s and information H there:
//   H := H + ridge I, the ridge growing, until H has an inverse
//   d = H^-1 s, halved until x + d lies inside
//   x := x + d if the value there is taken; else the ridge grows, and the step is made anew
// Source of the ridge: Levenberg (1944), Quarterly of Applied Mathematics 2, 164-168; Marquardt (1963), SIAM Journal
// 11, 431-441.
#pragma once

#include <cstddef>
#include <functional>

#include "estimate/ascent/evaluation.h"
#include "kernel/array.h"

namespace kdr {

enum class UsableInverse {
  definite,  // of a matrix that is positive definite once brought to a unit diagonal
  pivots     // of a matrix without a negative pivot; from another one the step would lead away from the maximum
};
enum class Lowering {
  behindstep,  // a ridge falls behind a step that it was large enough for
  beforestep   // it falls as soon as there is an inverse
};
enum class Undefined {
  ridge,  // a point without a value makes the ridge grow
  halve   // it is outside: the step is halved
};

// How to climb.
struct RidgedPolicy {
  double firstridge = 0.01;      // the first ridge that is added is `growth` times this; in the unit of the information
  double growth = 10.0;          // a ridge grows and falls by this factor
  double leastridge = 0.0;       // it falls while it is above this
  double largestridge = 1.0e20;  // beyond, no step that can be told from 0 is left
  double largestratio = 1.0e6;   // of a ridge to the largest diagonal element: beyond, the information has no say
  UsableInverse inverse = UsableInverse::definite;
  Lowering lowering = Lowering::behindstep;
  Undefined undefined = Undefined::ridge;
  int trials = 8;     // of one step, each half of the one before; one that is inside only at the last is too short:
                      // the ascent ends at its point
  int freesteps = 0;  // so many steps may lower the value, while information from afar overshoots; a later one
                      // that does makes the ridge grow
  bool halvefirst = false;  // the first step is halved, and so is the one behind a fall
  double fall = 0.0;        // what the value must lose for a fall: less is rounding
};

struct RidgedAscent;

enum class AscentEvent { ridgeraised, ridgelowered, stephalved, fallen, stepped };

// What is climbed. To test a point moves nothing; accepted() says that the point tested last is the current
// one now.
struct RidgedProblem {
  std::function<Evaluation(const Array<double>& point)> evaluate;  // with score and information; of the current point
  std::function<Evaluation(const Array<double>& point)> test;      // the value alone
  std::function<bool(Array<double>& point)> inside;  // whether the point is one of the space; may hold elements of it
  std::function<void()> accepted;                    // may be empty, as all below
  std::function<bool(const RidgedAscent& ascent)> settled;  // asked behind each step: true ends the ascent
  std::function<bool()> stop;       // asked behind each step: true ends it before it has settled
  std::function<bool()> abandoned;  // asked behind an evaluation that is not usable: true ends it as `unusable`
  std::function<void(AscentEvent event, const RidgedAscent& ascent)> tell;
};

// The ridge on the diagonal of an information matrix. value 0.0: none is in use.
struct Ridge {
  double value = 0.0;
  // Adds the ridge to the diagonal of H (order P), on top of what was added before. False when it is beyond its bounds.
  [[nodiscard]] bool addto(double* H, std::size_t P, const RidgedPolicy& policy) const;
  // The next ridge after a failure.
  void raise(const RidgedPolicy& policy);
};

// An ascent under way. All of the last iteration stands until the next.
struct RidgedAscent {
  const RidgedPolicy& policy;
  const RidgedProblem& problem;
  Array<double> now;   // [P] the current point
  double value = 0.0;  // there; of the start as the caller gives it
  Ridge ridge{};
  int iterations = 0;       // finished ones
  Array<double> before{};   // [P] where the last iteration began
  Evaluation at{};          // there; its information as it came
  Array<double> H{};        // P squared: its information with the ridges added
  Array<double> inverse{};  // P squared
  Array<double> step{};     // [P] as it was made, with its halvings
  bool raised = false;      // the ridge has grown in the last iteration
  bool halvenext = false;   // the last step led to a fall
  bool stopped = false;
};

// inverse := H^-1 as the policy asks for it; false when there is none.
[[nodiscard]] bool invertinformation(const Array<double>& H, UsableInverse kind, Array<double>& inverse);

// Iterates until the ascent has settled, at most `iterations` times in all. An iteration that fails leaves the point
// where it began, but for that of the last trial: `unusable` by its evaluation, `notdefinite` without a ridge within
// its bounds that gives a step, `nostep` without one that stays inside. ascent.iterations, ridge and value go on from
// where they stand.
[[nodiscard]] AscentEnd climb(RidgedAscent& ascent, int iterations);

}  // namespace kdr
