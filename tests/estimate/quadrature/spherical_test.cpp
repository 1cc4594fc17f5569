// The quadrature whose nodes go with the data: score and information against differences, estimates against dense
// integrals that share nothing with the program.
#include "estimate/quadrature/spherical.h"

#include <gtest/gtest.h>

#include <cmath>

#include "estimate/likelihood/madestudy.h"
#include "estimate/quadrature/densecases.h"
#include "estimate/quadrature/movingquadrature.h"
#include "estimate/quadrature/onepoint.h"

namespace {

using namespace kdr;
using namespace madestudy;
using namespace densecases;

SphericalLikelihood likelihoodof(Study& study, RecordSource& source, const Parameters& shape, int points) {
  SphericalLikelihood likelihood =
      makespherical(study.outcome.family, study.npi, study.nbeta, study.design, source, shape, false, false, 2);
  EXPECT_TRUE(makegrids(likelihood.grids, points, study.q, study.r));
  return likelihood;
}

TEST(Spherical, ScoreAndInformationAreDerivatives) {
  for (const Case& c : cases) {
    Study study = readcase(c);
    study.units.resize(6);
    std::vector<double> theta = reference(c.name, "start");
    const Parameters place = makeparameters(c.q, c.r, theta);
    RecordSource source = study.source();
    SphericalLikelihood likelihood = likelihoodof(study, source, place, 4);
    Array<double> point = pointof(likelihood.frame, place);
    for (std::size_t i = 0; i < point.size(); ++i) point[i] += 0.02 * static_cast<double>(i % 3 + 1);
    Nodes nodes = makenodes(likelihood.frame);
    ASSERT_TRUE(placemodes(likelihood, point, nodes, nullptr));
    const auto evaluate = [&](const Array<double>& at) {
      likelihood.trial.nodes = nodes.copy();
      return evaluatespherical(likelihood, at);
    };
    const Evaluation centre = evaluate(point);
    ASSERT_TRUE(centre.usable) << c.name;
    const std::size_t P = point.size();
    for (std::size_t i = 0; i < P; ++i) {
      constexpr double h = 1e-5;
      Array<double> up = point.copy(), down = point.copy();
      up[i] += h;
      down[i] -= h;
      const Evaluation above = evaluate(up), below = evaluate(down);
      const double slope = (above.value - below.value) / (2.0 * h);
      EXPECT_NEAR(centre.score[i], slope, 1e-5 * std::max(1.0, std::fabs(slope))) << c.name << " " << i;
      for (std::size_t l = 0; l < P; ++l) {
        const double curvature = -(above.score[l] - below.score[l]) / (2.0 * h);
        EXPECT_NEAR(centre.information[l * P + i], curvature, 2e-5 * std::max(1.0, std::fabs(curvature)))
            << c.name << " " << l << " " << i;
      }
    }
  }
}

TEST(Spherical, LaplaceGradientIsADerivative) {
  for (const Case& c : cases) {
    Study study = readcase(c);
    study.units.resize(6);
    const Parameters place = makeparameters(c.q, c.r, reference(c.name, "start"));
    RecordSource source = study.source();
    SphericalLikelihood likelihood = likelihoodof(study, source, place, 3);
    const Array<double> point = pointof(likelihood.frame, place);
    const Evaluation centre = evaluatelaplace(likelihood, point);
    ASSERT_TRUE(centre.usable) << c.name;
    for (std::size_t i = 0; i < point.size(); ++i) {
      constexpr double h = 1e-4;
      Array<double> up = point.copy(), down = point.copy();
      up[i] += h;
      down[i] -= h;
      const double slope =
          (evaluatelaplace(likelihood, up).value - evaluatelaplace(likelihood, down).value) / (2.0 * h);
      EXPECT_NEAR(centre.score[i], slope, 1e-6 * std::max(1.0, std::fabs(slope))) << c.name << " " << i;
    }
  }
}

TEST(MovingQuadrature, MaximaOfDenseIntegrals) {
  for (const Case& c : cases) {
    Study study = readcase(c);
    RecordSource source = study.source();
    MovingSettings settings;
    settings.outcome = c.outcome.family;
    settings.points = c.q + c.r > 3 ? 7 : 11;
    settings.check = false;
    settings.threads = 2;
    const MovingResult result = movingquadrature(settings, study.npi, study.nbeta, study.design, source,
                                                 makeparameters(c.q, c.r, reference(c.name, "start")), {});
    ASSERT_EQ(result.end, MovingEnd::converged) << c.name;
    const std::vector<double> estimates = reference(c.name, "estimate"), errors = reference(c.name, "se");
    const std::vector<double> found = elements(result.parameters);
    EXPECT_NEAR(result.loglikelihood, reference(c.name, "maximum")[0], 0.002) << c.name;
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_NEAR(found[i], estimates[i], 0.01 * errors[i]) << c.name << " " << i;
      EXPECT_NEAR(std::sqrt(result.covariance[i * found.size() + i]), errors[i], 0.01 * errors[i])
          << c.name << " " << i;
    }
    std::printf("%s: %d iterations %d evaluations, ll %.6f distance %g\n", c.name, result.iterations,
                result.evaluations, result.loglikelihood, result.distance);
  }
}

}  // namespace
