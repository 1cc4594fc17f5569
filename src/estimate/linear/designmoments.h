// What the shares of variance need of the records (estimate/inference/varianceshares.h), from the sums of a pass whose
// records have no weights, and the shares themselves.
#pragma once

#include <optional>

#include "estimate/inference/varianceshares.h"
#include "estimate/linear/pass.h"

namespace kdr {

// None without a fixed intercept of its own. What the store lacks is told by its failure.
[[nodiscard]] std::optional<DesignMoments> designmoments(Pass& pass);

// Of a model of the analysis with these estimates, if they are asked for. `moments` of no value: why there are none
// goes into the notes of the results.
void takeshares(const Pass& pass, const std::optional<DesignMoments>& moments, PassResults& results);

}  // namespace kdr
