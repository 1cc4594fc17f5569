// Latent variable regression: some random level-2 coefficients of a level-3 unit regressed on others and on the level-3
// variables of the model, from the estimates of the model alone. Derived in docs/numerics.md, "Latent variable
// regression".
//
// With the outcome coefficients O (nO) and the predictor coefficients P (nP), Tb = taubeta, and G the level-3
// coefficients on the nW terms:
//   b = T_OP T_PP^-1 (nO x nP),  G_adj = G_O - b G_P (nO x nW),  R = T_OO - b T_OP' (nO x nO)
// Standard errors by the delta method, from the covariances of the tau elements and of the fixed effects.
#pragma once

#include <span>
#include <vector>

#include "core/codes.h"
#include "core/modelwalk.h"
#include "core/results.h"
#include "series/pooledresults.h"

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
  int ntaupi = 0;  // order of taupi
};

struct LatentEstimates {
  std::span<const double> taubeta;        // r squared
  std::span<const double> gamma;          // [g]
  std::span<const double> vgamma;         // g squared, the covariance of gamma
  std::span<const double> taucovariance;  // tauorder squared, elements of taupi, then of taubeta; empty: not known
  int tauorder = 0;
  int firstbeta = 0;  // elements of taupi
};

// A coefficient with its test; what cannot be computed is not finite.
struct LatentTest {
  double estimate, error, t, p;
};

// The results of a regression of random level-2 coefficients on others and on level-3 variables: nO outcomes, nP
// predictors, nW terms.
struct LatentRegression {
  std::vector<int> outcomes, predictors;  // places among the random level-2 coefficients
  std::vector<int> terms;                 // level-3 variables in table order
  bool computable = false;                // T_PP could be inverted; the rest is empty otherwise
  Array<double> b;                        // nO by nP
  Array<double> GO, Gadj;                 // nO by nW
  Array<double> R;                        // nO squared
  Array<double> Vb;                       // (nO nP) squared, covariance of the rows of b; these three are absent
  Array<double> Vadj, Vdiff;              // throughout when the covariance of the taus isn't known. (nO nW) squared, of
                                          // the rows of G_adj and of G_O - G_adj
  int df = 0;                             // level-3 units - nW - nP
  std::vector<LatentTest> adjusted;       // [nO nW], of G_adj
  std::vector<LatentTest> slopes;         // [nO nP], of b
  std::vector<LatentTest> differences;    // [nO nW], of G_O - G_adj
};

// What is said where it is not computable.
inline constexpr const char* nolatentregression = "Unable to compute latent variable regression.";

// Changes no estimate.
[[nodiscard]] LatentRegression latentregression(const LatentModel& model, const LatentEstimates& estimates);

// The regression's view of the rows of a model; `roles` has to stay where it is.
[[nodiscard]] LatentModel latentmodel(const ModelRows& rows, std::span<const LatentRole> roles, int nunits3);

// The regression of the results of a pass or of the averages of a series.
[[nodiscard]] LatentRegression latentregression(const LatentModel& model, const PassResults& results);
[[nodiscard]] LatentRegression latentregression(const LatentModel& model, const Pooled& averages);

}  // namespace kdr
