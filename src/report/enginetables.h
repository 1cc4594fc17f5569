// The report's sections of the maximum-likelihood engines. The results of an engine come as PassResults of its kind.
#pragma once

#include "core/results.h"

namespace kdr {

// Goes back to the mark of the report and writes the results of Laplace-6: heading, each tau with its standard errors,
// correlations and reliabilities, the fixed effects with their ratios and hypothesis tests, and the likelihood if
// `withlikelihood`. Deviance and number of parameters are modelstatistics'.
void laplacetables(const PassResults& results, bool withlikelihood);

// Goes back to the mark and writes the words of a Laplace-6 estimation without a result: why, where there are warnings.
void laplacefailed(const std::vector<std::string>& warnings);

// Writes the results of quadrature: heading, warnings, each tau with its standard errors and correlations, the fixed
// effects with their ratios and hypothesis tests.
void quadraturetables(const PassResults& results);
// The method behind a phase: "adaptive quadrature (7 points for each effect)", "Laplace-6", "quasi-likelihood (PQL)".
[[nodiscard]] std::string methodwords(PassKind kind, int points = 0);
// The same of the averages of a series, whose runs may differ in the number of points but for one.
[[nodiscard]] std::string seriesmethod(PassKind kind);
// What the head of those tables, and the console, say of the number of points.
[[nodiscard]] std::string pointsline(const QuadraturePoints& made);

}  // namespace kdr
