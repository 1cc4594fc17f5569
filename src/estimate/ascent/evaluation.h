// What a function that is climbed says of a point, and how an ascent ends.
#pragma once

#include "kernel/array.h"

namespace kdr {

// The evaluation of a point of P elements. One that is not usable has nothing else.
struct Evaluation {
  bool usable = false;  // all numbers are finite
  double value = 0.0;
  Array<double> score;        // [P]
  Array<double> information;  // P squared, both triangles: minus the second derivatives, or what stands for them
  Array<double> scale;        // [P] above 0: the size of an element's own information, which makes elements comparable
  Array<double> reach;        // [P] the longest step of an element that its neighbourhood vouches for
  Array<double> turn;         // [P] the first step along an element at a saddle
};

enum class AscentEnd {
  converged,
  limit,        // of the iterations
  stopped,      // by the caller
  nostep,       // no step was fit to be taken
  notdefinite,  // the information gave no step
  unusable      // a point where an iteration begins could not be evaluated
};

}  // namespace kdr
