// The score of a Laplace approximation of either order, against differences of its value.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "estimate/quadrature/onepoint.h"

namespace laplacescores {

inline void expectscore(kdr::SphericalLikelihood& likelihood, const kdr::Array<double>& point, double near,
                        const char* name) {
  const kdr::Evaluation centre = kdr::evaluatelaplace(likelihood, point);
  ASSERT_TRUE(centre.usable) << name;
  for (std::size_t i = 0; i < point.size(); ++i) {
    constexpr double h = 1e-4;
    kdr::Array<double> up = point.copy(), down = point.copy();
    up[i] += h;
    down[i] -= h;
    const double slope =
        (kdr::evaluatelaplace(likelihood, up).value - kdr::evaluatelaplace(likelihood, down).value) / (2.0 * h);
    EXPECT_NEAR(centre.score[i], slope, near * std::max(1.0, std::fabs(slope))) << name << " " << i;
  }
}

}  // namespace laplacescores
