// Scoring of covariance matrices that may be singular at the maximum: a variance of 0, a correlation of 1 or -1. What
// is climbed is a function of the matrices themselves, smooth where they are singular, too; no step needs an inverse of
// one.
//
// A singular T = R diag(l) R' with the null space N keeps its rank. Among the steps d with N'dN = 0, and under the
// restrictions of its elements, the one is taken that is best for
//   score'd - 1/2 d'(H + C)d,   C: d'Cd = 2 tr(Z (N'dR) diag(l)^-1 (R'dN)),
// Z the part of the multiplier of N'dN that holds the matrix at its edge. C is the curvature of the set of matrices of
// that rank: a step along R'dN lifts N'TN by its square. The point behind the step is brought back to the rank; a step
// that leaves the cone gives up the directions with which it would, and where the point itself rises by giving them up,
// it does so first. Where nothing is left to gain at the rank, a direction of N along which the function rises is let
// go. Derived in docs/numerics.md, "Scoring at the edge".
#pragma once

#include <functional>
#include <vector>

#include "estimate/ascent/evaluation.h"
#include "kernel/array.h"

namespace kdr {

// What is climbed. The P elements of a point are the lower triangles by rows of matrices, one after the other, then
// others, which no limit holds but `test`.
struct ConeProblem {
  std::vector<int> orders;  // of the matrices
  Array<int> free;          // [P] the free parameter of each element, -1 for one that is held (linear/restriction.h)
  int nfree = 0;
  // Value, score and information of all P elements, held ones too; `scale` is made use of, `reach` and `turn` are not.
  std::function<Evaluation(const Array<double>& point)> evaluate;
  std::function<Evaluation(const Array<double>& point)> test;  // the value alone
  std::function<bool()> stop;                                  // may be empty. Asked before each step: true ends it
};

struct ConePolicy {
  int iterations = 200;
  double decrement = 1.0e-8;  // stop: twice the gain that is left, a step of 1e-4 standard errors
  double coarse = 1.0e-5;     // the same where rounding leaves no step that rises
  double rise = 1.0e-4;       // of what the score promises, the least that a step must gain
  int halvings = 12;          // of a step under one ridge
  int ridges = 5;        // the first is none, the next 0.001 of an element's own information, each 30 times as much
  double lift = 1.0e-5;  // what the step off the edge may cost
};

struct ConeResult {
  AscentEnd end = AscentEnd::unusable;
  Array<double> point;
  double value = 0.0;
  double decrement = 0.0;
  int iterations = 0;
  std::vector<int> lacking;  // how much each matrix lacks of its full rank
  [[nodiscard]] bool atedge() const {
    for (const int n : lacking)
      if (n > 0) return true;
    return false;
  }
  // [P] A step off the edge: with it, or a part of it, the matrices have their full rank; it costs about `policy.lift`
  // for each rank that they lack. Empty inside.
  Array<double> lift;
};

// From a start whose matrices are no more than singular.
[[nodiscard]] ConeResult climbcone(const ConeProblem& problem, const ConePolicy& policy, const Array<double>& start);

}  // namespace kdr
