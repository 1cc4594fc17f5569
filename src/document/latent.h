// The latent variable regression of a phase.
#pragma once

#include "document/subject.h"
#include "series/latentregression.h"

namespace kdr {

// The member `latent_regression`; null where it could not be computed.
[[nodiscard]] Json latentof(const Subject& subject, const LatentRegression& regression);

}  // namespace kdr
