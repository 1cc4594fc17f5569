// The level-1 records of a level-3 unit, as the maximum-likelihood engines see them.
//
// The rows of the model follow from the level-1 predictors x by scaling, because every column of W2 and of W3 has one
// entry (linear/pass.h). For record i of level-2 unit j of level-3 unit k, with the Design of the pass:
//   B row   (nbeta)  column m is w2[j][m] x_i[owner2[m]]
//   e_i     (r)      the first r columns of the B row: those random at level 3
//   d_i     (q)      column a is x_i[random1[a]]: those random at level 2
//   xg_i    (g)      element reduced[f] gets w3[f] times column owner3[f] of the B row, summed over f
//   eta_i = xg_i' gamma + e_i' v_k + d_i' u_j
#pragma once

#include <cstddef>
#include <vector>

#include "kernel/array.h"

namespace kdr {

struct Level3Records {
  int k = 0;                  // the level-3 unit, from 0
  std::size_t firstunit = 0;  // the data set's level-2 units before those of k
  int units = 0;              // J_k, its level-2 units; one may have no record
  Array<std::size_t> start;   // [units + 1] records of k before level-2 unit j; start[units] is the number of records
  Array<double> x;            // records by npi: all level-1 coefficients, the constant included
  Array<double> w2;           // units by nbeta: the entry of W2_j in each column of B
  Array<double> w3;           // [full ngamma] the entry of W3_k in each of its columns
  Array<double> y;            // [records] the outcome as it was read: 0/1, a count of successes, a count; of categories
                              // their number, from 0
  Array<double> n;            // [records] trials or exposure; empty when the model has none
  // Where the records are those of cuts (cuts.h): how many records there were, and how many of each category, counted
  // by the weights of records and level-2 units; else empty.
  double outcomes = 0.0;
  Array<double> categories;  // [C]
  // Design weights, each within the unit above it; empty, and 1, without.
  Array<double> weight1;  // [records]
  Array<double> weight2;  // [units]
  double weight3 = 1.0;
};

// Gives the records of Bernoulli, binomial and Poisson outcomes their weights a, which are in place: a record of weight
// a is one of a y successes in a n trials, or a count of a y with an exposure of a n, but for a constant of the
// outcome.
inline void weighrecords(Level3Records& unit) {
  if (unit.n.empty()) {
    unit.n = unit.weight1.copy();
  } else {
    for (std::size_t i = 0; i < unit.n.size(); ++i) unit.n[i] *= unit.weight1[i];
  }
  for (std::size_t i = 0; i < unit.y.size(); ++i) unit.y[i] *= unit.weight1[i];
}

// Delivers the level-3 units of the data set in order, several at a time, as often as it is asked to.
struct RecordSource {
  void* state = nullptr;
  // Goes back to the first unit.
  void (*rewind)(void* state) = nullptr;
  // The next units, at least one and about as many records as the source finds convenient; none behind the last unit,
  // and where it can go no further. They are the source's, until the next call.
  const std::vector<Level3Records>& (*next)(void* state) = nullptr;
  // Whether it could go no further, and never will; null for a source that always can.
  bool (*broken)(void* state) = nullptr;
  // Asks, in the thread that walks over the units, whether the fit is given up, by which the source is broken; null:
  // it never is.
  bool (*givesup)(void* state) = nullptr;
};

[[nodiscard]] inline bool brokensource(const RecordSource& source) {
  return source.broken != nullptr && source.broken(source.state);
}

}  // namespace kdr
