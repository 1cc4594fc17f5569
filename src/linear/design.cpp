#include <algorithm>
#include <cstdio>

#include "driver/failures.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "linear/pass.h"
#include "model/complete.h"
#include "model/modelwalk.h"

namespace kdr {

namespace {

// The reduced fixed effect of each full one, from the rows of the constraint matrix, which have a single 1.
void reducedeffects(Array<int>& reduced) {
  const auto full = reduced.size();
  for (std::size_t i = 0; i < full; ++i) reduced[i] = static_cast<int>(i);
  if (run.model.nconstrained == 0) return;
  for (std::size_t i = 0; i < full; ++i)
    for (std::size_t j = 0; j < full; ++j)
      if (run.model.constrainmatrix[i * full + j] != 0.0) reduced[i] = static_cast<int>(j);
}

}  // namespace

int level1coefficients(int set) {
  const int* use = run.model.use1.row(set);
  return static_cast<int>(std::count(use, use + run.mdm.ncol1, 1));
}

Array<int> level1columns(const Pass& pass) {
  Array<int> columns(at(pass.npi));
  std::size_t i = 0;
  eachcoefficient1([&](const Coefficient1& coefficient) { columns[i++] = coefficient.v; });
  return columns;
}

void makedesign(Pass& pass) {
  const ModelSpec& model = run.model;
  pass.npi = run.coef.npi;
  pass.nbeta = run.coef.nbeta;
  pass.g = run.coef.ngamma;
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

  pass.b = randomlevel2();
  pass.p = 0;
  int coef1 = 0, coef2 = 0, effect = 0;
  int nextrandom = 0, nextfixed = pass.b;  // next column of B of either group
  for (int e = 0; e < run.kind.neqsets; ++e) {
    int b = 0;  // level-2 coefficient within the set
    for (int c = 0; c < level1coefficients(e); ++c, ++coef1) {
      const int nterms2 = model.nterms2.row(e)[c];
      int nfixed = 0;
      for (int s = 0; s < nterms2; ++s, ++b, ++coef2) {
        const bool fixed = model.fixed2.row(e)[b] != 0;
        const int nterms3 = model.nterms3.row(e)[b];
        nfixed += fixed;
        if (!fixed) pass.nterms3reduced[nextrandom] = nterms3;
        const int column = fixed ? nextfixed++ : nextrandom++;
        design.column2[coef2] = column;
        design.owner2[column] = coef1;
        design.variable2[column] = model.terms2.row(e, c)[s];
        for (int t = 0; t < nterms3; ++t, ++effect) {
          design.owner3[effect] = column;
          design.variable3[effect] = model.terms3.row(e, b)[t];
        }
      }
      if (!model.fixed1.row(e)[c]) {
        pass.nrandomterms[pass.p] = nterms2 - nfixed;
        pass.nfixedterms[pass.p] = nfixed;
        design.random1[pass.p++] = coef1;
      }
    }
  }
  reducedeffects(design.reduced);

  if (pass.b == 0) std::printf("Nothing left at beta level.\n");
  if (pass.p == 0) std::printf("Nothing left at pi level.\n");
  if (pass.b == 0 || pass.p == 0) stopwith("Some variables must be specified as random.\n");
  run.coef.ntaupi = pass.p;
  run.coef.ntaubeta = pass.b;
}

void level3weights(const Pass& pass, int k, double* weights) {
  const double* row = run.mdm.level3.data() + at(k) * at(run.mdm.nvar3);
  const Design& design = pass.design;
  for (std::size_t i = 0; i < design.variable3.size(); ++i) {
    const int variable = design.variable3[i];
    weights[i] = variable == 0 ? 1.0 : row[variable - 1];
  }
}

void level2means(const Pass& pass, const double* weights, const double* gamma, double* theta) {
  std::fill_n(theta, pass.nbeta, 0.0);
  const Design& design = pass.design;
  for (std::size_t i = 0; i < design.owner3.size(); ++i)
    theta[design.owner3[i]] += weights[i] * gamma[design.reduced[i]];
}

void addlevel3effects(const Pass& pass, int k, const double* v, const double* theta, double* thetastar) {
  std::copy_n(theta, pass.nbeta, thetastar);
  for (int i = 0; i < pass.b; ++i) thetastar[i] += pass.scale3[k] * v[i];
}

void addtransposedW3(const Pass& pass, const double* weights, const double* t, double* x) {
  const Design& design = pass.design;
  for (std::size_t i = 0; i < design.owner3.size(); ++i) x[design.reduced[i]] += weights[i] * t[design.owner3[i]];
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
