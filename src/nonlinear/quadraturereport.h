// What quadrature writes to the report.
#pragma once

#include "nonlinear/quadrature.h"
#include "report/degreesoffreedom.h"

namespace kdr {

// The tables of a finished estimation, or the line of its failure.
void quadraturereport(const QuadratureResult& result, const FixedDegrees& degrees);

}  // namespace kdr
