// The results of a pass as the report shows them. What a pass of each kind shows:
//   linear, pql, categories   everything
//   identity                  everything but ratios, robust results and variance tests, and only with full output
//   populationaverage         the fixed effects, their robust twin and the hypothesis tests
#pragma once

#include <string>

#include "core/results.h"
#include "report/fixedtable.h"

namespace kdr {

// A section heading: text over a rule of its length, or <h3>.
void sectionheading(const char* text, const char* html, int rule);

// Lines in bold.
void reportwarning(const std::string& lines);
// The number of level-1 records that run-time deletion left, when it left any out.
void deletionnote();

// The section " Least Squares Estimates" of a linear run.
void leastsquarestables(const LeastSquaresResults& results);

// How the iterations ended.
void endingwords(const PassResults& results);
// What hangs on an iteration: the heading, the warnings, sigma^2, the taus with their standard errors, correlations and
// reliabilities, and the log-likelihood of the iteration.
void iterationtables(const PassResults& results);
// The fixed effects with their ratios and hypothesis tests, by the covariance of the model.
void fixedeffectstables(const PassResults& results, TableKind kind = TableKind::estimates);
// The same by the sandwich, or the words that there is none.
void robusttables(const PassResults& results);
// All tables of the results.
void passtables(const PassResults& results);

}  // namespace kdr
