// What all tests of the quadrature whose nodes go with the data do with a made study: they fit it, and hold scores and
// informations against differences.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "estimate/likelihood/madestudy.h"
#include "estimate/quadrature/movingquadrature.h"
#include "estimate/quadrature/onepoint.h"

namespace movingstudy {

using namespace kdr;

inline MovingResult fit(madestudy::Study& study, const Parameters& start, int points, MovingSettings settings = {},
                        int threads = 2) {
  RecordSource source = study.source();
  settings.outcome = study.outcome.family;
  settings.response = study.response;
  settings.points = points;
  settings.threads = threads;
  return movingquadrature(settings, study.npi, study.nbeta, study.design, source, start, {});
}

inline SphericalLikelihood likelihoodof(madestudy::Study& study, RecordSource& source, const Parameters& shape,
                                        int points) {
  SphericalLikelihood likelihood = makespherical(study.outcome.family, study.npi, study.nbeta, study.design, source,
                                                 shape, false, false, 2, study.response);
  EXPECT_TRUE(makegrids(likelihood.grids, points, study.q, study.r));
  return likelihood;
}

inline Array<double> moved(const Array<double>& point, std::size_t i, double step) {
  Array<double> to = point.copy();
  to[i] += step;
  return to;
}

// Off any place where something is 0 or an estimate.
inline Array<double> besides(const Array<double>& point) {
  Array<double> to = point.copy();
  for (std::size_t i = 0; i < to.size(); ++i) to[i] += 0.02 * static_cast<double>(i % 3 + 1);
  return to;
}

// The score of a Laplace approximation of either order.
inline void expectlaplacescore(SphericalLikelihood& likelihood, const Array<double>& point, double near,
                               const char* name) {
  const Evaluation centre = evaluatelaplace(likelihood, point);
  ASSERT_TRUE(centre.usable) << name;
  const auto value = [&](const Array<double>& at) { return evaluatelaplace(likelihood, at).value; };
  for (std::size_t i = 0; i < point.size(); ++i) {
    constexpr double h = 1e-4;
    const double slope = (value(moved(point, i, h)) - value(moved(point, i, -h))) / (2.0 * h);
    EXPECT_NEAR(centre.score[i], slope, near * std::max(1.0, std::fabs(slope))) << name << " " << i;
  }
}

// Score and information of the integrals, whose nodes stay around the modes at the point.
inline void expectderivatives(SphericalLikelihood& likelihood, const Array<double>& point, const char* name) {
  Nodes nodes = makenodes(likelihood.frame);
  ASSERT_TRUE(placemodes(likelihood, point, nodes, nullptr));
  const auto evaluate = [&](const Array<double>& at) {
    likelihood.trial.nodes = nodes.copy();
    return evaluatespherical(likelihood, at);
  };
  const Evaluation centre = evaluate(point);
  ASSERT_TRUE(centre.usable) << name;
  for (std::size_t i = 0, P = point.size(); i < P; ++i) {
    constexpr double h = 1e-5;
    const Evaluation above = evaluate(moved(point, i, h)), below = evaluate(moved(point, i, -h));
    const double slope = (above.value - below.value) / (2.0 * h);
    EXPECT_NEAR(centre.score[i], slope, 1e-5 * std::max(1.0, std::fabs(slope))) << name << " " << i;
    for (std::size_t l = 0; l < P; ++l) {
      const double curvature = -(above.score[l] - below.score[l]) / (2.0 * h);
      EXPECT_NEAR(centre.information[l * P + i], curvature, 2e-5 * std::max(1.0, std::fabs(curvature)))
          << name << " " << l << " " << i;
    }
  }
}

}  // namespace movingstudy
