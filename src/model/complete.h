// Counts and labels of the complete model, worked out from the tables of run.model.
#pragma once

namespace kdr {

// run.coef.npi and pinames.
void countlevel1();
// run.coef.nbeta, betanames1, betanames2 and run.model.nterms2.
void countlevel2();
// run.coef.ngamma and run.model.nterms3.
void countlevel3();
// run.model.nextra2, nextra3 and run.coef.gammasubs.
void countextras();
// All of these.
void completemodel();

// Level-1 and level-2 coefficients with a random effect, over all sets: the orders of taupi and taubeta.
[[nodiscard]] int randomlevel1();
[[nodiscard]] int randomlevel2();
// Fixed effects over all sets, as the tables stand.
[[nodiscard]] int countfixedeffects();

// Takes the labels of level-2 coefficients without a random effect out of betanames1 and betanames2.
void droprandomlesslabels();

// Marks every variable of the model as one without which a level-1 record cannot be used, when records with missing
// values are still in the file.
void markdeletion();

// Turns the residual-file lists of run.model from flags by variable into lists of indices, in order, and counts them.
// The intercept's flag enters no list. Once per pass.
void compactlists();

}  // namespace kdr
