// What the residual files and the graph file hold of one unit: its residuals, the values of its coefficients and its
// posterior covariance, from the sums and the store of a finished pass. All vectors are in the order of the model.
//
// Level-3 unit k, z the scale of Z2 (1 without design weights):
//   FV = W3 gamma,  EC = FV + z v at the coefficients random at level 3,  PV = sigma2 D_k^-1
// Level-2 unit j of k, d the scale of Z1:
//   FV = W2 EC_k,  EC = FV + d u at the coefficients random at level 2
//   OL = (Z1'Z1)^-1 (Z1'Y - Z1'M gamma - Z1'Z2 v)
//   PV = sigma2 (C + A D_k^-1 A'),  C = C_j^-1, A = C Z1'Z2
#pragma once

#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

struct UnitResults {
  struct Level3 {
    Array<double> EB, OL;  // [b]
    Array<double> FV, EC;  // [nbeta]
    Array<double> PV;      // packed, order b
  } level3;
  struct Level2 {
    Array<double> EB, OL;  // [p]
    Array<double> FV, EC;  // [npi]
    Array<double> PV;      // packed, order p
  } level2;

  UnitMeans means;                            // of the level-3 unit at hand, in the order of the columns of B
  Array<double> C, A, AE, inverse, residual;  // buffers
};

[[nodiscard]] UnitResults makeunitresults(const Pass& pass);

// In this order: level3results for a level-3 unit, then for each of its level-2 units level2coefficients and
// level2residuals, which use what the functions before them left.

// Level-3 unit k: all of level3, and means. OL is pass.vlsq, or `missing` throughout for a unit without one.
void level3results(const Pass& pass, int k, double missing, UnitResults& results);
// Level-2 unit number `unit` (in the order of the store) of the level-3 unit at hand: EB, FV and EC.
void level2coefficients(const Pass& pass, std::size_t unit, const double* hot, const double* cold,
                        UnitResults& results);
// The same unit's PV.
void level2variance(const Pass& pass, int k, const double* hot, UnitResults& results);
// The same unit's OL, `missing` throughout where it has no least-squares fit, and PV.
void level2residuals(const Pass& pass, int k, const double* hot, const double* cold, double missing,
                     UnitResults& results);

// The posterior means of level 2 of a finished pass, p for each unit in the order of the store.
[[nodiscard]] Array<double> posteriormeans2(Pass& pass);

// Posterior means and covariances of all units of a finished pass: p and p squared for each level-2 unit in the order
// of the store, b and b squared for each level-3 unit.
struct Posteriors {
  Array<double> u, uvariance;
  Array<double> v, vvariance;
  Array<double> uv;  // p by b for each level-2 unit: Cov(u, v). Of engines alone
};
// What the store lacks at the end is told by its failure.
[[nodiscard]] Posteriors posteriors(Pass& pass);

// Fixed effects with the posteriors of the random ones, by another method than the pass. The random effects enter as
// they are, without the scales of Z1 and Z2.
struct FittedEffects {
  Array<double> gamma;
  Posteriors random;
};
// What level3results leaves, by these effects. There is no least-squares residual: OL is `missing`.
void level3results(const Pass& pass, const FittedEffects& fitted, int k, double missing, UnitResults& results);
// The same of level-2 unit number `unit` of the data set, which belongs to the level-3 unit at hand; `level2` is its
// row of level-2 variables.
void level2results(const Pass& pass, const FittedEffects& fitted, std::size_t unit, const double* level2,
                   double missing, UnitResults& results);

}  // namespace kdr
