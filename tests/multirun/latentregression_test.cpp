// The regression against its definition, and its covariances against the delta method by numerical differentiation.
#include "multirun/latentregression.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "driver/constants.h"

namespace kdr {
namespace {

using Vector = std::vector<double>;
using Dense = std::vector<Vector>;

// Solves A X = B by Gaussian elimination with row pivoting.
Dense solved(Dense A, Dense B) {
  const std::size_t n = A.size();
  for (std::size_t k = 0; k < n; ++k) {
    std::size_t pivot = k;
    for (std::size_t i = k; i < n; ++i)
      if (std::abs(A[i][k]) > std::abs(A[pivot][k])) pivot = i;
    std::swap(A[k], A[pivot]);
    std::swap(B[k], B[pivot]);
    for (std::size_t i = 0; i < n; ++i) {
      if (i == k) continue;
      const double factor = A[i][k] / A[k][k];
      for (std::size_t j = k; j < n; ++j) A[i][j] -= factor * A[k][j];
      for (double& x : B[i]) x -= factor * B[k][static_cast<std::size_t>(&x - B[i].data())];
    }
  }
  for (std::size_t i = 0; i < n; ++i)
    for (double& x : B[i]) x /= A[i][i];
  return B;
}

Dense randomcovariance(std::size_t n, std::mt19937& random) {
  std::normal_distribution<double> normal;
  Dense L(n, Vector(n)), C(n, Vector(n));
  for (Vector& row : L)
    for (double& x : row) x = normal(random);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      for (std::size_t k = 0; k < n; ++k) C[i][j] += L[i][k] * L[j][k] + (i == j ? 0.2 : 0.0);
  return C;
}

Vector flat(const Dense& matrix) {
  Vector all;
  for (const Vector& row : matrix) all.insert(all.end(), row.begin(), row.end());
  return all;
}

// Five random coefficients; gamma 3 stands in two equations, as after a constraint. Level-3 variables 0, 2, 3, 5 belong
// to coefficients with a role, 4 to the ignored one alone.
struct Example {
  std::vector<int> roles = {2, 1, 0, 1, 2};
  std::vector<std::vector<LatentTerm>> equations = {
      {{0, 0}, {2, 1}}, {{0, 2}, {3, 3}}, {{0, 4}, {4, 5}}, {{2, 6}, {5, 7}}, {{3, 3}, {5, 8}}};
  std::vector<std::size_t> outcomes = {1, 3}, predictors = {0, 4};
  std::vector<int> terms = {0, 2, 3, 5};
  std::size_t r = 5, g = 9, firstbeta = 3;
};

// b, G_O and G_adj at the parameters: the lower triangle of taubeta by rows, then gamma.
struct Coefficients {
  Dense b, GO, Gadj;
};
Coefficients definition(const Example& example, const Vector& parameters) {
  const std::size_t ntau = example.r * (example.r + 1) / 2;
  const auto tau = [&](std::size_t i, std::size_t j) {
    return parameters[i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i];
  };
  const auto coefficient = [&](std::size_t row, int variable) {
    for (const LatentTerm& term : example.equations[row])
      if (term.variable == variable) return parameters[ntau + static_cast<std::size_t>(term.gamma)];
    return 0.0;
  };
  Dense TPP, TPO;
  for (const std::size_t p : example.predictors) {
    TPP.emplace_back();
    TPO.emplace_back();
    for (const std::size_t other : example.predictors) TPP.back().push_back(tau(p, other));
    for (const std::size_t o : example.outcomes) TPO.back().push_back(tau(p, o));
  }
  const Dense transposed = solved(TPP, TPO);  // T_PP^-1 T_PO = b'
  Coefficients result;
  for (std::size_t o = 0; o < example.outcomes.size(); ++o) {
    Vector b, GO, Gadj;
    for (std::size_t p = 0; p < example.predictors.size(); ++p) b.push_back(transposed[p][o]);
    for (const int variable : example.terms) {
      GO.push_back(coefficient(example.outcomes[o], variable));
      double adjusted = GO.back();
      for (std::size_t p = 0; p < b.size(); ++p) adjusted -= b[p] * coefficient(example.predictors[p], variable);
      Gadj.push_back(adjusted);
    }
    result.b.push_back(b);
    result.GO.push_back(GO);
    result.Gadj.push_back(Gadj);
  }
  return result;
}

// J C J' for the derivatives of f by central differences.
template <class Function>
Dense deltamethod(const Vector& parameters, const Dense& C, Function f) {
  const double h = 1e-5;
  Dense J;  // one row per parameter
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    Vector up = parameters, down = parameters;
    up[i] += h;
    down[i] -= h;
    const Vector high = f(up), low = f(down);
    J.emplace_back();
    for (std::size_t k = 0; k < high.size(); ++k) J.back().push_back((high[k] - low[k]) / (2.0 * h));
  }
  const std::size_t n = J[0].size();
  Dense V(n, Vector(n));
  for (std::size_t k = 0; k < n; ++k)
    for (std::size_t l = 0; l < n; ++l)
      for (std::size_t i = 0; i < J.size(); ++i)
        for (std::size_t j = 0; j < J.size(); ++j) V[k][l] += J[i][k] * C[i][j] * J[j][l];
  return V;
}

void expectnear(const char* what, const Array<double>& got, const Vector& expected, double tolerance) {
  ASSERT_EQ(got.size(), expected.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_NEAR(got[i], expected[i], tolerance * (1.0 + std::abs(expected[i]))) << what << " " << i;
}

struct Inputs {
  Vector taubeta, gamma, vgamma, taucovariance, parameters;
  Dense joint;  // covariance of the parameters of `definition`
  std::size_t tauorder = 0;
};

Inputs makeinputs(const Example& example) {
  std::mt19937 random(4);
  std::normal_distribution<double> normal;
  Inputs inputs;
  const std::size_t ntau = example.r * (example.r + 1) / 2;
  inputs.tauorder = example.firstbeta + ntau;
  const Dense tau = randomcovariance(example.r, random), V = randomcovariance(example.g, random),
              C = randomcovariance(inputs.tauorder, random);
  for (std::size_t i = 0; i < example.r; ++i)
    for (std::size_t j = 0; j <= i; ++j) inputs.parameters.push_back(tau[i][j]);
  for (std::size_t i = 0; i < example.g; ++i) inputs.gamma.push_back(normal(random));
  inputs.parameters.insert(inputs.parameters.end(), inputs.gamma.begin(), inputs.gamma.end());
  inputs.joint.assign(ntau + example.g, Vector(ntau + example.g));
  for (std::size_t i = 0; i < ntau; ++i)
    for (std::size_t j = 0; j < ntau; ++j) inputs.joint[i][j] = C[example.firstbeta + i][example.firstbeta + j];
  for (std::size_t i = 0; i < example.g; ++i)
    for (std::size_t j = 0; j < example.g; ++j) inputs.joint[ntau + i][ntau + j] = V[i][j];
  inputs.taubeta = flat(tau);
  inputs.vgamma = flat(V);
  inputs.taucovariance = flat(C);
  return inputs;
}

LatentRegression regress(const Example& example, const Inputs& inputs) {
  LatentModel model;
  model.roles = example.roles;
  model.equations = example.equations;
  model.nunits3 = 50;
  return latentregression(model, {inputs.taubeta, inputs.gamma, inputs.vgamma, inputs.taucovariance,
                                  static_cast<int>(inputs.tauorder), static_cast<int>(example.firstbeta)});
}

TEST(LatentRegression, AgreesWithTheDeltaMethod) {
  const Example example;
  const Inputs inputs = makeinputs(example);
  const LatentRegression got = regress(example, inputs);
  ASSERT_TRUE(got.computable);
  EXPECT_EQ(got.outcomes, (std::vector<int>{1, 3}));
  EXPECT_EQ(got.predictors, (std::vector<int>{0, 4}));
  EXPECT_EQ(got.terms, example.terms);
  EXPECT_EQ(got.df, 50 - 4 - 2);

  const Coefficients at = definition(example, inputs.parameters);
  expectnear("b", got.b, flat(at.b), 1e-11);
  expectnear("G_O", got.GO, flat(at.GO), 1e-15);
  expectnear("G_adj", got.Gadj, flat(at.Gadj), 1e-11);
  // the residual covariance is that of the outcomes given the predictors
  for (std::size_t i = 0; i < 2; ++i)
    for (std::size_t j = 0; j < 2; ++j) {
      const std::size_t o = example.outcomes[i], other = example.outcomes[j];
      double R = inputs.taubeta[o * 5 + other];
      for (std::size_t p = 0; p < 2; ++p) R -= at.b[i][p] * inputs.taubeta[other * 5 + example.predictors[p]];
      EXPECT_NEAR(got.R[2 * i + j], R, 1e-11 * (1.0 + std::abs(R)));
    }

  const auto b = [&](const Vector& p) { return flat(definition(example, p).b); };
  const auto adjusted = [&](const Vector& p) { return flat(definition(example, p).Gadj); };
  const auto difference = [&](const Vector& p) {
    const Coefficients c = definition(example, p);
    Vector d = flat(c.GO);
    const Vector minus = flat(c.Gadj);
    for (std::size_t i = 0; i < d.size(); ++i) d[i] -= minus[i];
    return d;
  };
  expectnear("V_b", got.Vb, flat(deltamethod(inputs.parameters, inputs.joint, b)), 1e-6);
  expectnear("V_adj", got.Vadj, flat(deltamethod(inputs.parameters, inputs.joint, adjusted)), 1e-6);
  expectnear("V_diff", got.Vdiff, flat(deltamethod(inputs.parameters, inputs.joint, difference)), 1e-6);
}

TEST(LatentRegression, WhatCannotBeComputed) {
  const Example example;
  Inputs inputs = makeinputs(example);
  inputs.taucovariance.clear();
  const LatentRegression unknown = regress(example, inputs);
  EXPECT_TRUE(unknown.computable);
  for (const Array<double>* V : {&unknown.Vb, &unknown.Vadj, &unknown.Vdiff}) EXPECT_EQ((*V)[0], missingcode);

  // a predictor without variance
  inputs = makeinputs(example);
  for (std::size_t i = 0; i < 5; ++i) inputs.taubeta[5 * i + 4] = inputs.taubeta[20 + i] = 0.0;
  EXPECT_FALSE(regress(example, inputs).computable);

  Example noneof = example;
  noneof.roles = {1, 1, 0, 1, 1};
  EXPECT_FALSE(regress(noneof, makeinputs(noneof)).computable);
}

}  // namespace
}  // namespace kdr
