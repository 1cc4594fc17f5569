#include <algorithm>
#include <cmath>
#include <string>

#include "core/modelwalk.h"
#include "estimate/linear/pass.h"
#include "kernel/sizes.h"

namespace kdr {

Failure makedesign(Pass& pass) {
  const Model& model = pass.model();
  pass.npi = model.coef.npi;
  pass.nbeta = model.coef.nbeta;
  pass.g = model.coef.ngamma;
  const int fullgamma = pass.g + model.nconstrained;

  Design& design = pass.design;
  design.owner2.reset(at(pass.nbeta));
  design.variable2.reset(at(pass.nbeta));
  design.owner3.reset(at(fullgamma));
  design.variable3.reset(at(fullgamma));
  design.reduced.reset(at(fullgamma));
  design.random1.reset(at(pass.npi));
  design.column2.reset(at(pass.nbeta));
  pass.nrandomterms.reset(at(pass.npi));
  pass.nfixedterms.reset(at(pass.npi));
  pass.nterms3reduced.reset(at(pass.nbeta));

  const ModelRows rows = modelrows(model);
  pass.b = randomatlevel3(rows);
  pass.p = 0;
  int nextrandom = 0, nextfixed = pass.b;  // next column of B of either group
  for (std::size_t i = 0; i < rows.terms.size(); ++i) {
    const TermRow& term = rows.terms[i];
    const int column = term.random ? nextrandom++ : nextfixed++;
    if (term.random) pass.nterms3reduced[column] = term.neffects;
    design.column2[i] = column;
    design.owner2[column] = term.owner;
    design.variable2[column] = term.variable;
  }
  for (std::size_t i = 0; i < rows.effects.size(); ++i) {
    design.owner3[i] = design.column2[rows.effects[i].term];
    design.variable3[i] = rows.effects[i].variable;
  }
  for (std::size_t i = 0; i < rows.coefficients.size(); ++i) {
    const CoefficientRow& coefficient = rows.coefficients[i];
    if (!coefficient.random) continue;
    const TermRow* const terms = rows.terms.data() + coefficient.firstterm;
    const auto random =
        std::count_if(terms, terms + coefficient.nterms, [](const TermRow& term) { return term.random; });
    pass.nrandomterms[pass.p] = static_cast<int>(random);
    pass.nfixedterms[pass.p] = coefficient.nterms - static_cast<int>(random);
    design.random1[pass.p++] = static_cast<int>(i);
  }
  const std::vector<int> reduced = reducedeffects(rows);
  std::copy(reduced.begin(), reduced.end(), design.reduced.begin());

  if (pass.p == 0 && pass.b == 0) return failedwith("Some variables must be specified as random.\n");
  return {};
}

void level3weights(const Pass& pass, int k, double* weights) {
  const double* row = pass.mdm().level3.data() + at(k) * at(pass.mdm().nvar3);
  const Design& design = pass.design;
  for (std::size_t i = 0; i < design.variable3.size(); ++i) {
    const int variable = design.variable3[i];
    weights[i] = variable == 0 ? 1.0 : row[variable - 1];
  }
}

void level2means(const Design& design, const double* weights, const double* gamma, double* theta) {
  std::fill_n(theta, design.owner2.size(), 0.0);
  for (std::size_t i = 0; i < design.owner3.size(); ++i)
    theta[design.owner3[i]] += weights[i] * gamma[design.reduced[i]];
}

void addlevel3effects(const Pass& pass, int k, const double* v, const double* theta, double* thetastar) {
  std::copy_n(theta, pass.nbeta, thetastar);
  for (int i = 0; i < pass.b; ++i) thetastar[i] += pass.scale3[k] * v[i];
}

UnitMeans makeunitmeans(const Pass& pass) {
  return {Array<double>(pass.design.owner3.size()), Array<double>(at(pass.nbeta)), Array<double>(at(pass.nbeta))};
}

void takeunitmeans(const Pass& pass, int k, const double* gamma, const double* v, UnitMeans& means) {
  level3weights(pass, k, means.weights.data());
  level2means(pass.design, means.weights.data(), gamma, means.theta.data());
  addlevel3effects(pass, k, v, means.theta.data(), means.thetastar.data());
}

void level2coefficients(const Pass& pass, const double* level2, const double* thetastar, double* beta) {
  std::fill_n(beta, pass.npi, 0.0);
  for (std::size_t m = 0; m < at(pass.nbeta); ++m)
    beta[pass.design.owner2[m]] += level2entry(pass, m, level2) * thetastar[m];
}

void addlevel2effects(const Pass& pass, std::size_t unit, const double* ustar, double* beta) {
  const double scale = pass.model().weighted ? 1.0 / std::sqrt(pass.weights().weight2[unit]) : 1.0;
  for (std::size_t i = 0; i < at(pass.p); ++i) beta[pass.design.random1[i]] += scale * ustar[i];
}

void addtransposedW3(const Design& design, const double* weights, const double* t, double* x) {
  for (std::size_t i = 0; i < design.owner3.size(); ++i) x[design.reduced[i]] += weights[i] * t[design.owner3[i]];
}

void addW2(const Design& design, const double* w2, const double* theta, double* beta) {
  for (std::size_t m = 0; m < design.owner2.size(); ++m) beta[design.owner2[m]] += w2[m] * theta[m];
}

void addtransposedW2(const Design& design, const double* w2, const double* t, double* x) {
  for (std::size_t m = 0; m < design.owner2.size(); ++m) x[m] += w2[m] * t[design.owner2[m]];
}

void addsandwichW3(const Pass& pass, const double* weights, const double* P, double* X) {
  const Design& design = pass.design;
  for (std::size_t i = 0; i < design.owner3.size(); ++i) {
    const double* Prow = P + static_cast<std::ptrdiff_t>(design.owner3[i]) * pass.nbeta;
    double* Xrow = X + static_cast<std::ptrdiff_t>(design.reduced[i]) * pass.g;
    for (std::size_t j = 0; j < design.owner3.size(); ++j)
      Xrow[design.reduced[j]] += weights[i] * Prow[design.owner3[j]] * weights[j];
  }
}

}  // namespace kdr
