// The bootstrap of a model of another outcome: each replicate is a data set of its own, in an unnamed file, that the
// whole chain is fitted to, with the engine that the fit has. Derived in docs/numerics.md, "Bootstrap".
#pragma once

#include <string>

#include "estimate/bootstrap/bootstrap.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Why there can be none, in a sentence; empty if there can.
[[nodiscard]] std::string bootstrapobstacle(const Model& model, const Control& control, bool cases);

// Of a finished fit with the estimates `est`, those of its engine if it has one.
[[nodiscard]] Failure bootstrapchain(const ChainFit& fit, const Estimates& est, const BootstrapRequest& request,
                                     BootstrapResults& results);

}  // namespace kdr
