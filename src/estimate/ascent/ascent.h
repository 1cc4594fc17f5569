// Climbing to a maximum by Newton steps: the ascent of the engines. It serves every log-likelihood that can be
// evaluated with score and information. What is evaluated, and how an approximation goes along with the point, is the
// problem's affair; when a step is taken, cut, turned or the last one is this file's.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "estimate/ascent/evaluation.h"
#include "kernel/array.h"

namespace kdr {

// How an approximation reaches a trial point.
enum class Approach {
  carried,  // from the last accepted evaluation, by what that one found
  modes,    // afresh, from the point alone
  renewed   // at the same point, by its own findings
};

struct AscentProblem {
  std::size_t count = 0;   // P
  std::vector<bool> held;  // [P] an element that is held gets score 0 and plays no part
  // Evaluates a point; `accepted`, called next, makes it the one that others are carried from.
  std::function<Evaluation(const Array<double>& point, Approach approach)> evaluate;
  std::function<void()> accepted;
  // Whether an evaluation depends on how its point was reached, so that the two remedies for it are worth trying.
  bool approaches = false;
  // May be empty: evaluations have the exact information. Else theirs only stands for it, and this one is asked for the
  // exact information at the last accepted point, where the ascent seems to be at its end.
  std::function<Evaluation(const Array<double>& point, const Evaluation& there)> exact;
  // May be empty. Rearranges the coordinates of the last accepted point; true: it must be evaluated anew.
  std::function<bool(Array<double>& point)> rearrange;
  // May be empty. At a point that looks like a maximum: the same with elements put to their edge, or an empty array.
  std::function<Array<double>(const Array<double>& point, const Evaluation& there)> edge;
  // May be empty. Asked behind an evaluation that is not usable, once: true says that it was dropped, since the ascent
  // is to end with the last accepted point.
  std::function<bool()> halted;
  // May be empty. Called after each iteration; true stops.
  std::function<bool(int iteration, double value)> iterated;
};

struct AscentSettings {
  int iterations = 100;
  double fall = 1.0e-3;            // how much the value may fall in a step: less than another approach changes it
  double contraction = 0.25;       // a step that lowers the value is taken when the decrement falls to this share
  double fardecrement = 1.0;       // above: a rejected trial may be one of nodes that were carried too far
  int halvings = 12;               // to 1/4000 of a step that was cut to its reach already
  double definite = 1.0e-9;        // an eigenvalue of the scaled information below is not counted on
  double leastcurvature = 1.0e-4;  // nor are steps longer than this allows
  double decrement = 1.0e-6;       // stop: twice the gain that is left to a Newton step, 0.001 standard errors
  double saddle = 1.0e-6;          // an eigenvalue below minus this leads uphill
  double settled = 1.0e-4;         // stop: the value has changed by less
  int settling = 6;                // iterations that the last one may take
  double edgefall = 1.0e-4;        // an element goes to its edge when the value falls by less
  int finals = 2;                  // evaluations at the end, each renewed from the one before
  double finaldecrement = 1.0e-4;  // of the last of them: above, the ascent goes on
  int reopenings = 5;              // how often it may
};

struct AscentResult {
  AscentEnd end = AscentEnd::unusable;
  Array<double> point;
  Evaluation there;
  bool exact = false;   // its information is
  bool halted = false;  // an evaluation was dropped: the end is `stopped`, or `unusable` where it was the first
  int iterations = 0, evaluations = 0;
  double decrement = 0.0;  // of the last evaluation; its root is how far the maximum is, in standard errors
  double least = 0.0;      // the least eigenvalue of the scaled information
};

// A Newton step from an evaluation: eigenvalues of the scaled information that are not above `definite` are taken by
// their size, at least `leastcurvature`; the step is cut to the reach of its elements.
struct NewtonStep {
  Array<double> delta;
  double decrement = 0.0, least = 0.0;
  Array<double> uphill;  // the direction of the least eigenvalue, as long as the shortest `turn` allows
};
NewtonStep newtonstep(const AscentProblem& problem, const AscentSettings& settings, const Evaluation& there);

// From a point, reached by `approach`.
AscentResult climb(const AscentProblem& problem, const AscentSettings& settings, const Array<double>& start,
                   Approach approach);

}  // namespace kdr
