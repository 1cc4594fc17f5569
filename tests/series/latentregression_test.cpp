// What a regression cannot compute; its numbers are held against their definition by the end-to-end test.
#include "series/latentregression.h"

#include <gtest/gtest.h>

#include <cmath>

#include "core/constants.h"

namespace kdr {
namespace {

// Three random coefficients, of which the last two are the predictors; two level-3 variables.
struct Example {
  std::vector<LatentRole> roles = {LatentRole::outcome, LatentRole::predictor, LatentRole::predictor};
  LatentModel model;
  std::vector<double> taubeta = {2, 0.5, 0.3, 0.5, 1, 0.2, 0.3, 0.2, 1}, gamma = {1, 2, 3, 4},
                      vgamma = std::vector<double>(16), taucovariance = std::vector<double>(49);
  Example() {
    model.equations = {{{0, 0}, {1, 1}}, {{0, 2}}, {{1, 3}}};
    model.nunits3 = 50;
    for (std::size_t i = 0; i < 4; ++i) vgamma[5 * i] = 0.1;
    for (std::size_t i = 0; i < 7; ++i) taucovariance[8 * i] = 0.2;
  }
  [[nodiscard]] LatentRegression regress() const {
    LatentModel whole = model;
    whole.roles = roles;
    return latentregression(whole, {taubeta, gamma, vgamma, taucovariance, 7, 1});
  }
};

TEST(LatentRegression, WhatCannotBeComputed) {
  EXPECT_TRUE(Example().regress().computable);
  EXPECT_FALSE(isabsent(Example().regress().Vb[0]));
  EXPECT_EQ(Example().regress().df, 50 - 2 - 2);  // less terms and predictors

  Example unknown;
  unknown.taucovariance.clear();
  const LatentRegression without = unknown.regress();
  EXPECT_TRUE(without.computable);
  for (const Array<double>* V : {&without.Vb, &without.Vadj, &without.Vdiff}) EXPECT_TRUE(isabsent((*V)[0]));
  EXPECT_TRUE(std::isnan(without.slopes[0].error) && std::isnan(without.adjusted[0].p));
  Example few;  // level-3 units: as many as coefficients
  few.model.nunits3 = 4;
  EXPECT_TRUE(std::isnan(few.regress().adjusted[0].p) && few.regress().adjusted[0].error > 0.0);

  Example flat;  // a predictor without variance
  for (std::size_t i = 0; i < 3; ++i) flat.taubeta[3 * i + 2] = flat.taubeta[6 + i] = 0.0;
  EXPECT_FALSE(flat.regress().computable);

  Example none;
  none.roles = {LatentRole::outcome, LatentRole::outcome, LatentRole::ignore};
  EXPECT_FALSE(none.regress().computable);
}

}  // namespace
}  // namespace kdr
