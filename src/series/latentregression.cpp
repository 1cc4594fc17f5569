#include "series/latentregression.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <utility>

#include "core/constants.h"
#include "kernel/decompositions.h"
#include "kernel/distributions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

struct Work {
  const LatentModel& model;
  const LatentEstimates& estimates;
  LatentRegression& result;
  std::vector<int> order;    // outcomes, then predictors
  Array<double> TPPinv, GP;  // nP squared, nP by nW
  int r = 0, g = 0;
  int nO = 0, nP = 0, nW = 0;
};

void makelists(Work& work) {
  LatentRegression& result = work.result;
  std::set<int> variables;
  for (int i = 0; i < work.r; ++i) {
    const LatentRole role = work.model.roles[at(i)];
    if (role == LatentRole::ignore) continue;
    (role == LatentRole::outcome ? result.outcomes : result.predictors).push_back(i);
    for (const LatentTerm& term : work.model.equations[at(i)]) variables.insert(term.variable);
  }
  result.terms.assign(variables.begin(), variables.end());
  work.order = result.outcomes;
  work.order.insert(work.order.end(), result.predictors.begin(), result.predictors.end());
  work.nO = static_cast<int>(result.outcomes.size());
  work.nP = static_cast<int>(result.predictors.size());
  work.nW = static_cast<int>(result.terms.size());
}

// The block of Tb with these rows and columns.
Array<double> taublock(const Work& work, const std::vector<int>& rows, const std::vector<int>& columns) {
  Array<double> block(rows.size() * columns.size());
  std::size_t next = 0;
  for (const int i : rows)
    for (const int j : columns) block[next++] = work.estimates.taubeta[at(i) * at(work.r) + at(j)];
  return block;
}

int placeofterm(const Work& work, int variable) {
  const std::vector<int>& terms = work.result.terms;
  return static_cast<int>(std::lower_bound(terms.begin(), terms.end(), variable) - terms.begin());
}

// G_O or G_P.
Array<double> gammablock(const Work& work, const std::vector<int>& coefficients) {
  Array<double> block(coefficients.size() * at(work.nW));
  for (std::size_t row = 0; row < coefficients.size(); ++row)
    for (const LatentTerm& term : work.model.equations[at(coefficients[row])])
      block[row * at(work.nW) + at(placeofterm(work, term.variable))] = work.estimates.gamma[at(term.gamma)];
  return block;
}

// V += J C J' for J = columns' , one row of `columns` for each of the n parameters, whose covariance is C; V is size by
// size.
void addsandwich(Array<double>& V, const Array<double>& columns, const Array<double>& C, int size, int n) {
  Array<double> CJ(at(n) * at(size));
  mulAB(CJ.data(), C.data(), columns.data(), n, size, n);
  addAtB(V.data(), columns.data(), CJ.data(), size, size, n);
}

// The part of the tau elements: row e of K1 and of K2 has the derivatives of vec(b) and of vec(G_adj) by element e.
// With b = T_OP T_PP^-1,  db = (dT_OP - b dT_PP) T_PP^-1  and  dG_adj = -db G_P.
void taupart(const Work& work) {
  LatentRegression& result = work.result;
  const int nO = work.nO, nP = work.nP, nW = work.nW, n = nO + nP, s = static_cast<int>(packedsize(n));
  Array<double> K1(at(s) * at(nO * nP)), K2(at(s) * at(nO * nW)), Ct(square(s));
  Array<double> dT(at(nO * nP)), dTPP(square(nP));
  std::vector<int> element;  // of the covariance
  for (int a = 0; a < n; ++a)
    for (int c = 0; c <= a; ++c) {
      dT.fill(0.0);
      dTPP.fill(0.0);
      if (c < nO && a >= nO) dT[c * nP + a - nO] = 1.0;
      if (c >= nO) dTPP[(a - nO) * nP + c - nO] = dTPP[(c - nO) * nP + a - nO] = 1.0;
      subAB(dT.data(), result.b.data(), dTPP.data(), nO, nP, nP);
      mulAB(K1.data() + element.size() * at(nO * nP), dT.data(), work.TPPinv.data(), nO, nP, nP);
      subAB(K2.data() + element.size() * at(nO * nW), K1.data() + element.size() * at(nO * nP), work.GP.data(), nO, nW,
            nP);
      const auto [low, high] = std::minmax(work.order[at(a)], work.order[at(c)]);
      element.push_back(work.estimates.firstbeta + high * (high + 1) / 2 + low);
    }
  for (int i = 0; i < s; ++i)
    for (int j = 0; j < s; ++j)
      Ct[i * s + j] =
          work.estimates.taucovariance[at(element[at(i)]) * at(work.estimates.tauorder) + at(element[at(j)])];
  addsandwich(result.Vb, K1, Ct, nO * nP, s);
  addsandwich(result.Vadj, K2, Ct, nO * nW, s);
  addsandwich(result.Vdiff, K2, Ct, nO * nW, s);
}

// The part of the fixed effects: a gamma of outcome i at term w moves G_adj there; one of predictor j moves row j of
// G_P, so -b[i][j] in G_adj and b[i][j] in G_O - G_adj for each outcome i.
void gammapart(const Work& work) {
  LatentRegression& result = work.result;
  const int nO = work.nO, nP = work.nP, nW = work.nW, size = nO * nW;
  std::vector<std::pair<int, LatentTerm>> sel;  // row of the combined order, term
  for (int row = 0; row < nO + nP; ++row)
    for (const LatentTerm& term : work.model.equations[at(work.order[at(row)])]) sel.emplace_back(row, term);
  const int m = static_cast<int>(sel.size());
  Array<double> J1(at(m) * at(size)), J2(at(m) * at(size)), Vg(square(m));
  for (int k = 0; k < m; ++k) {
    const auto& [row, term] = sel[at(k)];
    const int w = placeofterm(work, term.variable);
    if (row < nO) J1[k * size + row * nW + w] = 1.0;
    for (int i = 0; row >= nO && i < nO; ++i) {
      J2[k * size + i * nW + w] = result.b[i * nP + row - nO];
      J1[k * size + i * nW + w] = -J2[k * size + i * nW + w];
    }
    for (int l = 0; l < m; ++l)
      Vg[k * m + l] = work.estimates.vgamma[at(term.gamma) * at(work.g) + at(sel[at(l)].second.gamma)];
  }
  addsandwich(result.Vadj, J1, Vg, size, m);
  addsandwich(result.Vdiff, J2, Vg, size, m);
}

std::span<const double> view(const Array<double>& values) { return {values.data(), values.size()}; }

LatentTest testof(double estimate, double variance, int df) {
  LatentTest test{estimate, absent, absent, absent};
  if (!(variance >= 0.0)) return test;
  test.error = std::sqrt(variance);
  test.t = estimate / test.error;
  if (df > 0 && std::isfinite(test.t)) test.p = tprob(df, test.t);
  return test;
}

void maketests(LatentRegression& result) {
  const auto list = [&](std::vector<LatentTest>& tests, const Array<double>& V, std::size_t n, auto estimate) {
    for (std::size_t i = 0; i < n; ++i) tests.push_back(testof(estimate(i), V[i * (n + 1)], result.df));
  };
  list(result.adjusted, result.Vadj, result.Gadj.size(), [&](std::size_t i) { return result.Gadj[i]; });
  list(result.slopes, result.Vb, result.b.size(), [&](std::size_t i) { return result.b[i]; });
  list(result.differences, result.Vdiff, result.Gadj.size(),
       [&](std::size_t i) { return result.GO[i] - result.Gadj[i]; });
}

}  // namespace

LatentRegression latentregression(const LatentModel& model, const LatentEstimates& estimates) {
  LatentRegression result;
  Work work{model, estimates, result, {}, {}, {}};
  work.r = static_cast<int>(model.roles.size());
  work.g = static_cast<int>(estimates.gamma.size());
  makelists(work);
  const int nO = work.nO, nP = work.nP, nW = work.nW;
  if (nO == 0 || nP == 0) return result;

  const Array<double> TOO = taublock(work, result.outcomes, result.outcomes);
  const Array<double> TOP = taublock(work, result.outcomes, result.predictors);
  const Array<double> TPP = taublock(work, result.predictors, result.predictors);
  work.TPPinv.reset(square(nP));
  if (invertsymmetric(nP, TPP.data(), work.TPPinv.data()).result != 0) return result;
  result.computable = true;
  result.df = model.nunits3 - nW - nP;

  result.b.reset(at(nO * nP));
  mulAB(result.b.data(), TOP.data(), work.TPPinv.data(), nO, nP, nP);
  result.GO = gammablock(work, result.outcomes);
  work.GP = gammablock(work, result.predictors);
  result.Gadj = result.GO.copy();
  subAB(result.Gadj.data(), result.b.data(), work.GP.data(), nO, nW, nP);
  result.R = TOO.copy();
  subABt(result.R.data(), result.b.data(), TOP.data(), nO, nO, nP);

  result.Vb.reset(square(nO * nP));
  result.Vadj.reset(square(nO * nW));
  result.Vdiff.reset(square(nO * nW));
  if (estimates.taucovariance.empty()) {
    for (Array<double>* V : {&result.Vb, &result.Vadj, &result.Vdiff}) V->fill(absent);
  } else {
    taupart(work);
    gammapart(work);
  }
  maketests(result);
  return result;
}

LatentModel latentmodel(const ModelRows& rows, std::span<const LatentRole> roles, int nunits3) {
  LatentModel model;
  model.roles = roles;
  model.nunits3 = nunits3;
  for (const CoefficientRow& coefficient : rows.coefficients) model.ntaupi += coefficient.random ? 1 : 0;
  const std::vector<int> reduced = reducedeffects(rows);
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    std::vector<LatentTerm>& equation = model.equations.emplace_back();
    for (int e = term.firsteffect; e < term.firsteffect + term.neffects; ++e)
      equation.push_back({rows.effects[at(e)].variable, reduced[at(e)]});
  }
  return model;
}

LatentRegression latentregression(const LatentModel& model, const PassResults& results) {
  LatentEstimates estimates{view(results.est.taubeta),
                            view(results.est.gammahat),
                            view(results.covariance),
                            {},
                            0,
                            static_cast<int>(packedsize(model.ntaupi))};
  if (results.errors.known) {
    estimates.taucovariance = view(results.errors.covariance);
    estimates.tauorder = results.errors.order;
  }
  return latentregression(model, estimates);
}

LatentRegression latentregression(const LatentModel& model, const Pooled& averages) {
  LatentEstimates estimates{view(averages.taubeta),
                            view(averages.effects.gamma),
                            view(averages.effects.model.covariance),
                            {},
                            0,
                            static_cast<int>(packedsize(model.ntaupi))};
  if (averages.errorsknown) {
    estimates.taucovariance = view(averages.taucovariance);
    estimates.tauorder = estimates.firstbeta + static_cast<int>(packedsize(static_cast<int>(model.equations.size())));
  }
  return latentregression(model, estimates);
}

}  // namespace kdr
