// The letters of the report's quantities, and the row labels made with them.
#pragma once

#include <string>

#include "core/names.h"
#include "report/modelrows.h"

namespace kdr {

// Fills run.sym for run.mdm.mdmtype in the report's mode. Called once the mode is known.
void setsymbols();

// Fills gammanames1, gammanames2 and gammanames3 of run.model.coef, a row per fixed effect that the constraints left.
// The label of a coefficient stands in the row of its first fixed effect, and is gone with it. Needs the symbols, and
// in an ordinal run the category labels.
void makerowlabels();

// The labels of single coefficients, as they stand in the row labels.
[[nodiscard]] std::string coefficientlabel(const CoefficientRow& coefficient);
[[nodiscard]] std::string termlabel(const ModelRows& rows, const TermRow& term);
[[nodiscard]] std::string effectlabel(const ModelRows& rows, const EffectRow& effect);

// True when a row label holds nothing.
[[nodiscard]] bool isblank(const Label& label);

// The random-effect name of row i of taupi or taubeta; 8 blanks, or 0, where the run's labels are too short.
[[nodiscard]] Name labelof(const Array<Name>& names, int i);
[[nodiscard]] int subscriptof(const Array<int>& subscripts, int i);

}  // namespace kdr
