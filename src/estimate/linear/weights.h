// Design weights of the three levels, made from their variables once, before the estimation.
#pragma once

namespace kdr {

// Fills run.weights.weight1, weight2 and weight3, each with mean 1.0: weight3 is the level-3 weight, weight2 carries
// the level-2 weight within its level-3 unit times the level-3 weight, weight1 all three. Units and records are counted
// after run-time deletion; a unit that loses all records takes no entry and lowers run.mdm.nunits2. Stops with code 100
// for level-1 and level-3 weights without level-2 weights, and for a weight that is not positive.
void normaliseweights();

}  // namespace kdr
