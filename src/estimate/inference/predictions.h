// Predictions of a fitted model: for values of the predictors the linear predictor, the response with random effects of
// 0, its mean over the random effects, and the response of a unit, each with its error by the delta method. Values in,
// values out; derived in docs/numerics.md, "Predictions".
//
// A record has M linear predictors (1, or of C categories C - 1) and K responses (1 or C). Orders: g fixed effects, p
// and b random effects of level 2 and 3. Parameters stand as in likelihood/parameters.h: P of them.
#pragma once

#include <vector>

#include "core/model.h"
#include "core/modelwalk.h"
#include "core/results.h"
#include "kernel/array.h"

namespace kdr {

// Which element of a row belongs to which variables.
struct PredictorPlan {
  ModelRows rows;
  std::vector<int> reduced;   // [effects of the complete model] the fixed effect that it enters
  std::vector<int> response;  // [level-1 coefficients] the linear predictor that it belongs to, -1: all of them
  int M = 1, g = 0, p = 0, b = 0;
};
// Of a model whose constraints are applied.
[[nodiscard]] PredictorPlan predictorplan(const Model& model);

// eta_m = x_m'gamma + d_m'u + e_m'v + offset.
struct PredictorRows {
  Array<double> x, d, e;  // M by g, M by p, M by b
  double offset = 0.0;
  double count = 1.0;  // exposure
};
// From the values of the variables of each level, centered as in the model ([variable], 0 is of no use). False where
// one that is needed is missing.
[[nodiscard]] bool makerows(const PredictorPlan& plan, const double* level1, const double* level2, const double* level3,
                            PredictorRows& rows);

// What predictions are made from. What it points to has to stay.
struct FittedModel {
  const PredictorPlan& plan;
  Outcome outcome;
  const PassResults& results;
  // The covariance of all parameters is known: errors of means over the random effects allow for the variances, too.
  [[nodiscard]] bool joint() const;
};

// X gamma + offset (M values).
[[nodiscard]] Array<double> fixedpredictors(const FittedModel& fitted, const PredictorRows& rows);

// K values with their derivatives by the parameters (K by P).
struct Responses {
  Array<double> value, gradient;
  // Of a unit's responses: the variance that its random effects bring, K by K. Empty for others.
  Array<double> spread;
};

// Linear predictors (M values).
[[nodiscard]] Responses linearpredictors(const FittedModel& fitted, const PredictorRows& rows);
// Responses with random effects of 0: means, rates times `count`, probabilities of each category.
[[nodiscard]] Responses fixedresponses(const FittedModel& fitted, const PredictorRows& rows);
// Their means over the random effects of both levels.
[[nodiscard]] Responses meanresponses(const FittedModel& fitted, const PredictorRows& rows);

// What is known of the random effects (u, v) of a record's units.
struct KnownEffects {
  Array<double> mean;        // [p + b] given the data
  Array<double> covariance;  // (p + b) squared, likewise
  Array<double> jacobian;    // p + b by g: how the mean goes with the fixed effects
};
// Of units that nothing is known of.
[[nodiscard]] KnownEffects unknowneffects(const FittedModel& fitted);
[[nodiscard]] Responses unitpredictors(const FittedModel& fitted, const PredictorRows& rows, const KnownEffects& of);
[[nodiscard]] Responses unitresponses(const FittedModel& fitted, const PredictorRows& rows, const KnownEffects& of);

// A value with its standard error and its 95% interval.
struct Prediction {
  double value = 0.0, se = 0.0;
  double df = 0.0;
  Interval interval;
};
// On which scale an interval is symmetric: that of the value, of its logit, or of its logarithm.
enum class IntervalScale { value, logit, log };
// Of response k. Degrees of freedom are those of the report: with DDF: of the combination of fixed effects, else the
// fewest of the effects that are in it.
[[nodiscard]] Prediction predictionof(const FittedModel& fitted, const Responses& responses, int k,
                                      IntervalScale scale);
// The scale of a response.
[[nodiscard]] IntervalScale scaleof(const Outcome& outcome);

// Weighted sums of responses: an average over records, or the difference of two.
void addresponses(Responses& sum, const Responses& responses, double weight);

}  // namespace kdr
