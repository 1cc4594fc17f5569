// Counts and labels of a model, worked out from its tables.
#pragma once

#include "core/model.h"

namespace kdr {

// coef.npi.
void countlevel1(Model& model);
// coef.nbeta and nterms2.
void countlevel2(Model& model);
// coef.ngamma and nterms3.
void countlevel3(Model& model);
// nextra2, nextra3 and coef.gammasubs.
void countextras(Model& model);
// All of these.
void completemodel(Model& model);

// The orders of taupi and taubeta and the labels of their rows, from the names of the level-1 and level-2 variables.
void labelrandomeffects(Model& model, const Array<Name>& names1, const Array<Name>& names2);

}  // namespace kdr
