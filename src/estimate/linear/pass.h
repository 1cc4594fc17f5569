// One pass of the estimation over the data: dimensions, design, sums and store. Made where the pass begins, gone where
// it ends, and handed by reference to the phases.
//
// For level-2 unit j of level-3 unit k, with n_j records:
//   A_j  n_j by npi      level-1 predictors, column 0 the constant when there is an intercept
//   W2_j npi by nbeta    level-2 design: row c holds the terms of level-1 coefficient c
//   W3_k nbeta by ngamma level-3 design: row b holds the terms of level-2 coefficient b
//   B_j  n_j by nbeta    A_j W2_j
//   M_j  n_j by ngamma   B_j W3_k, the fixed part
//   Z1_j n_j by p        the columns of A_j whose coefficient is random at level 2
//   Z2_j n_j by b        the columns of B_j whose coefficient is random at level 3
// and Y_j = M_j gamma + Z1_j u_j + Z2_j v_k + e_j with cov(u_j) = taupi, cov(v_k) = taubeta, cov(e_j) = sigma2 I.
//
// Every column of B is one column of A times a number, and every column of M one column of B times a number, because
// each fixed effect belongs to one coefficient. So all cross-products follow from A'A, A'Y and Y'Y of a unit by
// scaling.
#pragma once

#include "core/failure.h"
#include "estimate/analysis.h"
#include "estimate/linear/passplan.h"
#include "estimate/linear/unitstore.h"
#include "kernel/array.h"

namespace kdr {

// The coefficients of all equation sets, and to whom each belongs. The columns of B stand with those random at level 3
// first, each group in the order of the model, so that Z2 is the first b columns of B.
struct Design {
  Array<int> owner2;     // [nbeta] level-1 coefficient of each column of W2
  Array<int> variable2;  // [nbeta] its level-2 variable, 0 for INTRCPT2
  Array<int> owner3;     // [full ngamma] column of B of each column of W3
  Array<int> variable3;  // [full ngamma] its level-3 variable, 0 for INTRCPT3
  Array<int> reduced;    // [full ngamma] the fixed effect that it enters: constrained ones share one
  Array<int> random1;    // [p] level-1 coefficient of each column of Z1
  Array<int> column2;    // [nbeta] column of B of each level-2 coefficient in the order of the model
};

struct Pass {
  const Analysis* analysis = nullptr;  // of the fit that the pass belongs to
  PassPlan plan;
  Estimates est;            // at hand
  int npi = 0, nbeta = 0;   // all level-1 and level-2 coefficients
  int p = 0, b = 0, g = 0;  // ntaupi, ntaubeta, ngamma
  Design design;

  // Terms of the reduced model, for the degrees of freedom of the variance tests.
  Array<int> nrandomterms;    // [p] level-2 terms of a coefficient that are random at level 3
  Array<int> nfixedterms;     // [p] those that are fixed
  Array<int> nterms3reduced;  // [b] level-3 terms of the coefficients random at level 3

  // Sums over the data set.
  double totalYY = 0.0;
  Array<double> gramMM;  // g squared, M'M
  Array<double> gramMY;  // [g], M'Y

  // Sums per level-3 unit k. Sub-blocks of BB give Z2'Z2 and, through W3, M'Z2 and M'M.
  Array<int> n2of, n1of;     // level-2 units, level-1 records
  Array<double> sumYY;       // Y'Y
  UnitTable<double> sumBB;   // nbeta squared, B'B
  UnitTable<double> sumBY;   // [nbeta], B'Y
  UnitTable<double> sumBB2;  // weighted runs: B2'B2, the rows of B with their factor once more
  Array<double> scale3;      // factor of the columns of Z2: 1.0, in a weighted run 1/sqrt of the unit's weight

  // The posterior of level 3 at the last step, per unit k.
  UnitTable<double> dinv;    // b squared: D_k^-1; sigma2 times it is the posterior covariance of v_k
  UnitTable<double> within;  // b squared: D_k without its share of taubeta, Z2'Z2 - sum_j Z2'Z1 C_j^-1 Z1'Z2
  UnitTable<double> vstar;   // [b]: posterior mean, the empirical Bayes residual of level 3
  UnitTable<double> vright;  // [b]: q_k, what D_k^-1 makes vstar from
  // The least-squares residual of level 3, from the variance tests; absent in a unit without one.
  UnitTable<double> vlsq;  // [b]

  UnitStore store;

  int nunits1 = 0;     // level-1 records of the analysis
  int emptyunits = 0;  // level-2 units that run-time deletion left without a record

  double fixsigma2 = 0.0;                        // what sigma^2 is held at; 0.0: it is estimated
  double likeconstant = 0.0;                     // nunits1 times half the logarithm of 2 pi
  bool repaired = false;                         // a tau of the start had to be repaired, and no other start was tried
  int nusable1 = 0, nusable2 = 0, nusable3 = 0;  // records and units that entered the moments of the starting values

  [[nodiscard]] int order(Tau which) const { return ofthe(which, p, b); }
  [[nodiscard]] const Model& model() const { return analysis->model; }
  [[nodiscard]] const MdmData& mdm() const { return analysis->mdm; }
  [[nodiscard]] const DesignWeights& weights() const { return analysis->weights; }
  [[nodiscard]] const Control& control() const { return analysis->control; }
  [[nodiscard]] const Observer& observer() const { return analysis->observer; }
};

// Whether level-3 unit k has a least-squares residual, once the variance tests are made.
[[nodiscard]] inline bool hasleastsquares3(const Pass& pass, int k) {
  return pass.b == 0 || !isabsent(pass.vlsq.row(k)[0]);
}

// The independent units of the data: those of level 3, in data of two levels those of level 2.
[[nodiscard]] inline int independentunits(const Pass& pass) {
  return pass.mdm().twolevel() ? pass.mdm().nunits2 : pass.mdm().nunits3;
}

// Records and units of the pass.
[[nodiscard]] inline UnitCounts countsof(const Pass& pass) {
  UnitCounts counts = countsof(pass.mdm());
  counts.records = pass.nunits1;
  return counts;
}

// Fills the dimensions, the design and the term counts of the reduced model. Fails for a model with nothing random.
[[nodiscard]] Failure makedesign(Pass& pass);

// The level-3 design of unit k in a vector: W3[owner3[i]][reduced[i]] has weights[i]. weights: full ngamma.
void level3weights(const Pass& pass, int k, double* weights);

// theta = W3_k gamma (nbeta), `weights` as level3weights gives them.
void level2means(const Design& design, const double* weights, const double* gamma, double* theta);
// thetastar = theta + z v (nbeta): what the level-2 units of k vary about, given the level-3 effects v (b).
void addlevel3effects(const Pass& pass, int k, const double* v, const double* theta, double* thetastar);
// Both for one level-3 unit after the other: what its level-2 units vary about.
struct UnitMeans {
  Array<double> weights;           // of level3weights
  Array<double> theta, thetastar;  // [nbeta]
};
[[nodiscard]] UnitMeans makeunitmeans(const Pass& pass);
void takeunitmeans(const Pass& pass, int k, const double* gamma, const double* v, UnitMeans& means);
// The entry of W2 in column m of B, from a unit's row of level-2 variables.
[[nodiscard]] inline double level2entry(const Pass& pass, std::size_t m, const double* level2) {
  const int variable = pass.design.variable2[m];
  return variable == 0 ? 1.0 : level2[variable - 1];
}
// beta = W2 thetastar (npi) of a level-2 unit.
void level2coefficients(const Pass& pass, const double* level2, const double* thetastar, double* beta);
// beta += d ustar at the coefficients random at level 2: ustar (p) of unit number `unit` of the data set, d the scale
// of Z1.
void addlevel2effects(const Pass& pass, std::size_t unit, const double* ustar, double* beta);
// x += W3_k' t, t of nbeta, x of ngamma.
void addtransposedW3(const Design& design, const double* weights, const double* t, double* x);
// beta += W2 theta and x += W2' t of a level-2 unit whose column m of W2 has the entry w2[m]; beta and t of npi, theta
// and x of nbeta.
void addW2(const Design& design, const double* w2, const double* theta, double* beta);
void addtransposedW2(const Design& design, const double* w2, const double* t, double* x);
// X += W3_k' P W3_k, P nbeta squared symmetric, X ngamma squared.
void addsandwichW3(const Pass& pass, const double* weights, const double* P, double* X);

}  // namespace kdr
