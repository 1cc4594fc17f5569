// Counts and labels of the complete model, worked out from the tables of run.model.
#pragma once

namespace kdr {

// run.model.coef.npi.
void countlevel1();
// run.model.coef.nbeta and run.model.nterms2.
void countlevel2();
// run.model.coef.ngamma and run.model.nterms3.
void countlevel3();
// All of these.
void completemodel();

// Level-1 and level-2 coefficients with a random effect, over all sets: the orders of taupi and taubeta.
[[nodiscard]] int randomlevel1();
[[nodiscard]] int randomlevel2();
// Fixed effects over all sets, as the tables stand, the thresholds of an ordinal model among them.
[[nodiscard]] int countfixedeffects();

// The labels of the rows of taupi and taubeta: run.model.coef.pinames, betanames1 and betanames2.
void labelrandomeffects();

// Lists the variables of the residual files in run.model from their marks, in order, and counts them. The mark of the
// intercept enters no list.
void compactlists();

}  // namespace kdr
