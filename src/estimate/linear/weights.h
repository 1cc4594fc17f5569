// Design weights of the three levels, made from their variables once, before the estimation.
#pragma once

#include "core/failure.h"
#include "core/model.h"
#include "core/observer.h"
#include "data/mdmdata.h"

namespace kdr {

// Fills weight1, weight2 and weight3, each with mean 1.0: weight3 is the level-3 weight, weight2 carries
// the level-2 weight within its level-3 unit times the level-3 weight, weight1 all three; and own1, own2 and own3
// before they are multiplied with each other. Units and records are counted after run-time deletion; a unit that loses
// all records takes no entry and lowers mdm.nunits2. With model.rawweights own1, own2 and own3 are the variables as
// they stand, and weight1 has no mean of 1 where sigma^2 is held. Fails for a weight that is not positive, and without
// rawweights for level-1 and level-3 weights without level-2 weights.
[[nodiscard]] Failure normaliseweights(const Model& model, MdmData& mdm, const Observer& observer,
                                       DesignWeights& weights);

}  // namespace kdr
