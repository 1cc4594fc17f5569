#include "estimate/linear/exploratory.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/modelwalk.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

double squared(double x) { return x * x; }

// Sums of squares and products of n residuals and m predictors about their means.
struct Products {
  int n = 0, m = 0;
  Array<double> ssr, ssx, sxy;  // [n], [m], n rows of m
  Array<double> rawx;           // [m], sums of squares about 0

  void reset(int residuals, int predictors) {
    n = residuals;
    m = predictors;
    ssr.reset(at(n));
    ssx.reset(at(m));
    sxy.reset(at(n) * at(m));
    rawx.reset(at(m));
  }
  // One unit, by its deviations from the means.
  void add(const double* dr, const double* dx) {
    for (int x = 0; x < m; ++x) ssx[x] += dx[x] * dx[x];
    for (int c = 0; c < n; ++c) {
      ssr[c] += dr[c] * dr[c];
      for (int x = 0; x < m; ++x) sxy[c * m + x] += dr[c] * dx[x];
    }
  }
};

// Deviations are those from the means of the level-3 unit, in data of two levels from those of all units.
Products level2products(Pass& pass) {
  const int p = pass.p, m = pass.mdm().nvar2;
  const bool two = pass.mdm().twolevel();
  const auto groupof = [&](int k) { return two ? 0 : k; };
  const auto unitsof = [&](int k) { return static_cast<double>(two ? pass.mdm().nunits2 : pass.n2of[k]); };
  Products products;
  products.reset(p, m);
  Array<double> meanu(at(pass.mdm().nunits3) * at(p)), meanx(at(pass.mdm().nunits3) * at(m));
  const auto nothing = [](int) {};
  sweepunits(
      pass.n2of, nothing,
      [&](int k, std::size_t, const double* hot, const double* cold) {
        const double units = unitsof(k);
        const int group = groupof(k);
        for (int c = 0; c < p; ++c) meanu[group * p + c] += hot[pass.store.atustar + at(c)] / units;
        for (int x = 0; x < m; ++x) meanx[group * m + x] += cold[pass.store.atlevel2 + at(x)] / units;
      },
      nothing, reading(pass.store.hot), reading(pass.store.cold));
  Array<double> du(at(p)), dx(at(m));
  sweepunits(
      pass.n2of, nothing,
      [&](int k, std::size_t, const double* hot, const double* cold) {
        const int group = groupof(k);
        for (int c = 0; c < p; ++c) du[c] = hot[pass.store.atustar + at(c)] - meanu[group * p + c];
        for (int x = 0; x < m; ++x) dx[x] = cold[pass.store.atlevel2 + at(x)] - meanx[group * m + x];
        products.add(du.data(), dx.data());
        for (int x = 0; x < m; ++x) products.rawx[x] += squared(cold[pass.store.atlevel2 + x]);
      },
      nothing, reading(pass.store.hot), reading(pass.store.cold));
  return products;
}

Products level3products(const Pass& pass) {
  const int b = pass.b, m = pass.mdm().nvar3, units = pass.mdm().nunits3;
  Products products;
  products.reset(b, m);
  Array<double> meanv(at(b)), meanx(at(m)), dv(at(b)), dx(at(m));
  for (int k = 0; k < units; ++k) {
    for (int c = 0; c < b; ++c) meanv[c] += pass.vstar.row(k)[c] / units;
    for (int x = 0; x < m; ++x) meanx[x] += pass.mdm().level3[k * m + x] / units;
  }
  for (int k = 0; k < units; ++k) {
    for (int c = 0; c < b; ++c) dv[c] = pass.vstar.row(k)[c] - meanv[c];
    for (int x = 0; x < m; ++x) dx[x] = pass.mdm().level3[k * m + x] - meanx[x];
    products.add(dv.data(), dx.data());
    for (int x = 0; x < m; ++x) products.rawx[x] += squared(pass.mdm().level3[k * m + x]);
  }
  return products;
}

// Residual c on predictor x (from 0). At level 2 the residual variance is that left by the fit; at level 3 it is that
// of the residuals themselves.
ExploratoryFit regress(const Products& products, int level, int c, int x, int units) {
  ExploratoryFit fit;
  const double ssx = products.ssx[x];
  // What is left of a constant by rounding is no variation.
  constexpr double rounding = 1e-24;
  if (ssx <= rounding * products.rawx[x] || units <= fewexploratoryunits) return fit;
  const double slope = products.sxy[c * products.m + x] / ssx;
  fit.coefficient = slope;
  const double explained = level == 2 ? slope * slope * ssx : 0.0;
  const double variance = (products.ssr[c] - explained) / (units - 2) / ssx;
  fit.error = variance > 0.0 ? std::sqrt(variance) : 0.0;
  return fit;
}

// The candidates of residual c, n of them.
ExploratoryBlock block(const Products& products, int level, int c, const int* variables, int n, int units) {
  ExploratoryBlock made;
  made.row = c;
  for (int i = 0; i < n; ++i) {
    made.variables.push_back(variables[i]);
    made.fits.push_back(regress(products, level, c, variables[i] - 1, units));
  }
  return made;
}

void level2analysis(Pass& pass, std::vector<ExploratoryBlock>& blocks) {
  const Products products = level2products(pass);
  int c = 0;
  for (const CoefficientRow& coefficient : modelrows(pass.model()).coefficients) {
    if (!coefficient.random) continue;
    blocks.push_back(block(products, 2, c++, pass.model().extra2.row(coefficient.set, coefficient.place),
                           pass.model().nextra2.row(coefficient.set)[coefficient.place], pass.mdm().nunits2));
  }
}

void level3analysis(const Pass& pass, std::vector<ExploratoryBlock>& blocks) {
  const Products products = level3products(pass);
  int c = 0;
  const ModelRows rows = modelrows(pass.model());
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    const int set = rows.owner(term).set;
    blocks.push_back(block(products, 3, c++, pass.model().extra3.row(set, term.place),
                           pass.model().nextra3.row(set)[term.place], pass.mdm().nunits3));
  }
}

}  // namespace

int mostcandidates(const IntTable& counts) { return *std::max_element(counts.cells.begin(), counts.cells.end()); }

bool haveexploratory(const Model& model) {
  return mostcandidates(model.nextra2) > 0 || mostcandidates(model.nextra3) > 0;
}

ExploratoryAnalysis exploratory(Pass& pass) {
  ExploratoryAnalysis analysis;
  if (mostcandidates(pass.model().nextra2) > 0) level2analysis(pass, analysis.level2);
  if (mostcandidates(pass.model().nextra3) > 0) level3analysis(pass, analysis.level3);
  return analysis;
}

}  // namespace kdr
