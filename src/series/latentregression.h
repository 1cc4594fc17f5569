// Latent variable regression (Raudenbush and Sampson, 1999): some random level-2 coefficients of a level-3 unit
// regressed on others and on the level-3 variables of the model, from the estimates of the model alone.
//
// With the outcome coefficients O (nO) and the predictor coefficients P (nP), Tb = taubeta, and G the level-3
// coefficients on the nW terms:
//   b = T_OP T_PP^-1 (nO x nP),  G_adj = G_O - b G_P (nO x nW),  R = T_OO - b T_OP' (nO x nO)
// Standard errors by the delta method, from the covariances of the tau elements and of the fixed effects.
#pragma once

#include <span>
#include <vector>

#include "core/codes.h"
#include "report/latentreport.h"
#include "report/passresults.h"
#include "report/pooledresults.h"

namespace kdr {

// A term of a level-2 coefficient's equation.
struct LatentTerm {
  int variable;  // level-3 variable, 0 the intercept
  int gamma;     // its fixed effect; fixed effects that are constrained equal share a number
};

struct LatentModel {
  std::span<const LatentRole> roles;               // one per random level-2 coefficient
  std::vector<std::vector<LatentTerm>> equations;  // of the same coefficients
  int nunits3 = 0;
};

struct LatentEstimates {
  std::span<const double> taubeta;        // r squared
  std::span<const double> gamma;          // [g]
  std::span<const double> vgamma;         // g squared, the covariance of gamma
  std::span<const double> taucovariance;  // tauorder squared, elements of taupi, then of taubeta; empty: not known
  int tauorder = 0;
  int firstbeta = 0;  // elements of taupi
};

// Changes no estimate. Failure 3.
[[nodiscard]] LatentRegression latentregression(const LatentModel& model, const LatentEstimates& estimates);

// The model of the run as the regression sees it. The roles stay those of `run`.
[[nodiscard]] LatentModel latentmodel();

// The regression that run.out.lvrroles asks for, of the results of a pass or of the averages of a series: computes it
// and writes it to the report. Nothing when run.out.lvr is not set. Failure 3.
void latentvariableregression(const PassResults& results);
void latentvariableregression(const Pooled& averages);

}  // namespace kdr
