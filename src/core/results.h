// Results of an estimation as values: of a pass or an engine, with all tests and counts that a report, a results
// document or another client shows of them.
//
// Orders: p = ntaupi, b = ntaubeta, g = ngamma.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/control.h"
#include "core/estimates.h"
#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

// What model a pass fits.
enum class PassKind {
  linear,             // the pass of a linear run
  identity,           // the first pass of a Bernoulli, binomial or Poisson run: a linear model of the raw outcome
  pql,                // a linear model of the working outcome
  categories,         // the same over the stacked categories of a multinomial or ordinal run
  populationaverage,  // the last pass of a run whose identity pass was the first: the taus stand still
  laplace6,           // no pass: maximum likelihood by Laplace-6
  quadrature          // and by quadrature, after the last pql pass
};

// How the iterations of a stage ended.
enum class Ending {
  converged,
  limit,
  keyboard,
  lost,      // their rule was met at the edge of the variances, but the search for the maximum there found none
  nomaximum  // of an engine: the likelihood rises as a variance grows without end
};

// Records and units of the analysis.
struct UnitCounts {
  int records = 0, units2 = 0;
  int units3 = 0;       // 0 in data of two levels
  int filerecords = 0;  // level-1 records before run-time deletion

  [[nodiscard]] bool twolevel() const { return units3 == 0; }
};

// What tells whether two fits had the same records: a sum over the analysed records, whatever their order, of a hash of
// the ID of the record's unit of the highest level, its outcome, and its trials or exposure.
// So it is for each variable that the equations name, and for a known variance: `sum` is of the values before
// centering, each with what tells its record.
struct VariableHash {
  int level, variable;
  std::uint64_t sum = 0;
};
struct RecordsHash {
  std::uint64_t sum = 0;
  std::vector<VariableHash> variables;  // by level and number
};

// Approximate degrees of freedom of the fixed effects. One entry for each that the constraints left, in order; the
// arrays may be longer.
struct FixedDegrees {
  Array<double> df;   // whole numbers by counts
  Array<char> rough;  // 1: the p-value is a rough approximation
  DegreesMethod method = DegreesMethod::counts;

  [[nodiscard]] FixedDegrees copy() const { return {df.copy(), rough.copy(), method}; }
};

// A 95% interval, by the critical value of the t distribution to three decimals.
struct Interval {
  bool known = false;  // the bounds are not of use otherwise
  double low = 0.0, high = 0.0;
};

// One fixed effect with its test. `tested` says whether there is a standard error with degrees of freedom to test with.
struct EffectTest {
  double coefficient = 0.0, se = 0.0, t = 0.0;  // se and t 0.0: there is no standard error
  double p = 0.0;                               // 0.0 unless tested
  double df = 0.0;
  bool fractional = false;             // df is no whole number of its own: it was not counted
  bool tested = false, rough = false;  // rough: p is an approximation
  Interval interval;
  double ratio = 0.0;  // odds or event-rate ratio, of use where the outcome has one
  Interval ratiointerval;
};

// 95% intervals of variance components. A bound that is not a number was not found.
struct VarianceIntervals {
  std::vector<Interval> level2, level3;                // [p], [b]: the variances
  std::vector<Interval> correlations2, correlations3;  // of the elements below the diagonals, by rows
  Interval sigma2;

  [[nodiscard]] const std::vector<Interval>& variances(Tau which) const { return ofthe(which, level2, level3); }
  [[nodiscard]] const std::vector<Interval>& correlations(Tau which) const {
    return ofthe(which, correlations2, correlations3);
  }
};

// Points of a profile of the likelihood, from the lowest value of the parameter on: the value, and zeta, the signed
// root of twice the drop of the log-likelihood there. Empty: not known.
struct ProfilePoint {
  double value, zeta;
};
using ProfileCurve = std::vector<ProfilePoint>;

// Those of each interval of a profile.
struct ProfileCurves {
  std::vector<ProfileCurve> level2, level3, correlations2, correlations3;
  ProfileCurve sigma2;
  std::vector<ProfileCurve> effects;
  ProfileCurve samelevel2, samelevel3;

  [[nodiscard]] const std::vector<ProfileCurve>& variances(Tau which) const { return ofthe(which, level2, level3); }
  [[nodiscard]] const std::vector<ProfileCurve>& correlations(Tau which) const {
    return ofthe(which, correlations2, correlations3);
  }
};

// 95% intervals by the profile of a likelihood.
struct ProfileIntervals {
  bool made = false;  // they were asked for, and could be had; the rest is of no use otherwise
  VarianceIntervals variances;
  std::vector<Interval> effects;    // [g]; none of a restricted likelihood
  bool intraclass = false;          // the model has one variance at level 2 and at most one at level 3, of intercepts:
  Interval samelevel2, samelevel3;  // the correlation of two records of a level-2 unit, of a level-3 unit
  bool drawn = false;               // there are curves
  ProfileCurves curves;
};

// Bootstrap intervals.
struct BootstrapResults {
  bool made = false;
  bool cases = false;  // of level-3 units, not of outcomes drawn from the model
  std::uint64_t seed = 0;
  int asked = 0;                       // replicates
  int tried = 0;                       // before it was stopped
  int failed = 0;                      // without a fit that has converged, of those tried
  ProfileIntervals percentile, basic;  // 95%
};

// How much of the outcome's variance lies at each level, and what the fixed effects explain.
struct VarianceShares {
  bool made = false;                  // they were asked for, and could be had; the rest is of no use otherwise
  double fixed = 0.0;                 // variance of the fixed part over the records
  double level1 = 0.0;                // of level 1: sigma2, or what stands for it on the scale of the link
  double level2 = 0.0, level3 = 0.0;  // means over the records
  double same2 = 0.0, same3 = 0.0;    // correlation of two records of a level-2 unit, of a level-3 unit, at `at`
  bool response = false;              // the same on the scale of the outcome are known
  double responsesame2 = 0.0, responsesame3 = 0.0;
  double marginal = 0.0, conditional = 0.0;    // R squared
  double units2 = 0.0, units3 = 0.0;           // sum n_j^2 / n of the level-2 and level-3 units
  double designeffect = 1.0, effective = 0.0;  // of the mean outcome; records of a simple random sample as good
  bool against = false;                        // a null model was given:
  double explained1 = 0.0, explained2 = 0.0, explained3 = 0.0;  // the share of its variance that is gone
};

// A chi-square test. Of an average of a series it is `df` times an F statistic whose denominator has df2 degrees of
// freedom, and p is that of F.
struct ChiSquareTest {
  double statistic = 0.0;
  int df = 0;
  double df2 = 0.0;  // 0.0: there is no denominator, p is the tail of chi-square
  double p = 1.0;
};

// The test of one hypothesis: r contrasts of n fixed effects.
struct WaldTest {
  int number = 0;  // from 0
  int r = 0, n = 0;
  Array<double> C;                  // r rows of n values
  bool computed = false;            // the contrasts are independent; what follows is of no use otherwise
  bool denominator = true;          // its F has degrees of freedom; without, the chi-square is of no use
  Array<double> estimates, errors;  // [r]
  ChiSquareTest chisquare;
};

// How much of what could be known of an averaged fixed effect the missing values hide, and how efficient the average of
// so many sub-runs is beside one of very many.
struct MissingShare {
  double fraction = 0.0;
  double efficiency = 1.0;
};

// The fixed effects under one covariance.
struct EffectTable {
  std::vector<EffectTest> rows;      // [g]; none: the covariance is not known
  bool toomanycontrasts = false;     // a hypothesis has more contrasts than there are fixed effects: none is tested
  std::vector<WaldTest> hypotheses;  // one for each hypothesis of the model
  std::vector<MissingShare> shares;  // of averages of several sub-runs: [g]
};

// Standard errors of the variance components.
struct TauErrors {
  bool asked = false;            // fishertype is not none
  bool known = false;            // the information could be inverted; the rest but stepleft is empty otherwise
  Array<double> taupi, taubeta;  // full matrices; 0.0 for a fixed element, absent for one not computable
  double sigma2 = 0.0;
  int order = 0;             // NT - 1, elements of taupi and taubeta
  Array<double> covariance;  // order squared, of the elements of the taus
  double sigma2variance = 0.0;
  std::vector<bool> edgepi, edgebeta;  // of an engine, full matrices: at the edge of its range, so without an error
  double stepleft =
      0.0;  // the farthest that the next scoring step moves an element, in standard errors; -1: out of the space

  [[nodiscard]] const Array<double>& of(Tau which) const { return ofthe(which, taupi, taubeta); }
  [[nodiscard]] const std::vector<bool>& edges(Tau which) const { return ofthe(which, edgepi, edgebeta); }
};

struct Reliabilities {
  Array<double> level2, level3;  // [p], [b]; of no use when no unit entered
  int units2 = 0, units3 = 0;    // units that entered

  [[nodiscard]] const Array<double>& of(Tau which) const { return ofthe(which, level2, level3); }
  [[nodiscard]] int units(Tau which) const { return ofthe(which, units2, units3); }
};

// The chi-square test of one variance.
struct VarianceTest {
  bool known = false;  // there are degrees of freedom; of the test nothing but the statistic is of use otherwise
  ChiSquareTest chisquare;
};

// Chi-square tests of the variances on the diagonals.
struct VarianceTests {
  std::vector<VarianceTest> level2, level3;  // [p], [b]
  int units2 = 0, units3 = 0;                // units that entered

  [[nodiscard]] const std::vector<VarianceTest>& of(Tau which) const { return ofthe(which, level2, level3); }
};

// Fixed effects by ordinary least squares, before a linear run's iterations.
struct LeastSquaresResults {
  Array<double> gamma;   // [g]
  Array<double> vgamma;  // g squared; its covariance is sigma2 times it
  double sigma2 = 0.0;
  Array<double> robust;          // g squared, covariance by the cluster sandwich; empty when it is not usable
  bool fewunits = false;         // too few level-3 units for `robust` to be trusted
  std::optional<double> loglik;  // none when the model leaves no residual
  EffectTable effects, robusteffects;
  int parameters = 0;
};

// What quadrature says of its number of points.
struct QuadraturePoints {
  int points = 0;            // for each effect; 0: not of quadrature
  int next = 0;              // another number that was tried; 0: none
  double change = 0.0;       // of the log-likelihood with that
  double errorchange = 0.0;  // the largest relative change of a standard error
  bool agrees = false;       // both are small
};

struct VarianceUncertainty;  // estimate/inference/smallsample.h

struct PassResults {
  PassKind kind = PassKind::linear;
  int macro = 0;               // macro iteration, from 1; 0 in a linear run
  bool heterogeneous = false;  // of the stage with a taupi per level-3 unit

  double fixsigma2 = 0.0;   // what sigma^2 was held at; 0.0: it was estimated
  bool restricted = false;  // the variance components are those of the restricted likelihood, which loglik is
  bool stopped = true;      // the iterations are over

  int iteration = 0;  // the last one
  Ending ending = Ending::converged;
  std::optional<double> loglik;    // none without an iteration
  std::optional<double> marginal;  // of an engine: the log-likelihood with all its constants
  long long parameters = 0;        // that the model estimates
  int rounds = 0;                  // of a population average: its passes
  bool unsettled = false;          // they met their limit

  Estimates est;  // at the end
  TauErrors errors;
  Reliabilities reliabilities;
  FixedDegrees degrees;                                    // of the fixed effects
  FixedDegrees robustdegrees;                              // by `robust`
  std::shared_ptr<const VarianceUncertainty> uncertainty;  // with DDF:, what degrees of freedom of contrasts come from
  Array<double> covariance;   // g squared: the covariance of gammahat, by design weights in a weighted run
  Array<double> joint;        // of an engine: the covariance of all parameters, in the order of likelihood/parameters.h
  Array<double> robust;       // g squared: the cluster sandwich; empty when it is not usable
  bool fewunits = false;      // too few level-3 units for `robust` to be trusted
  TauErrors robusterrors;     // of an engine, by the same sandwich as `robust`; asked: the engine makes it
  bool weighted = false;      // of an engine: `covariance` and `errors` are those of the sandwich themselves
  EffectTable effects;        // by `covariance`
  EffectTable robusteffects;  // by `robust`
  VarianceTests tests;
  VarianceIntervals intervals;  // by the standard errors, of logarithms and of Fisher's z
  ProfileIntervals profile;
  VarianceShares shares;
  std::vector<std::string> warnings;  // whole sentences for the head of the results
  std::vector<std::string> notes;     // the same, of what is no fault
  QuadraturePoints quadrature;

  // The taus were not estimated: their tables are those of an earlier pass.
  [[nodiscard]] bool tausstand() const { return kind == PassKind::populationaverage; }
};

inline constexpr int fewexploratoryunits = 2;  // no more than this many units have no regression

// One candidate's regression. A coefficient that cannot be computed prints as NC.
struct ExploratoryFit {
  std::optional<double> coefficient;
  double error = 0.0;
  [[nodiscard]] double t() const { return error == 0.0 ? 0.0 : coefficient.value_or(0.0) / error; }
};

// The candidates of one random effect.
struct ExploratoryBlock {
  int row = 0;                 // among the random effects of its level
  std::vector<int> variables;  // of the level, 0 the intercept
  std::vector<ExploratoryFit> fits;
};

// Blocks of all random effects of a level; none at a level without candidates.
struct ExploratoryAnalysis {
  std::vector<ExploratoryBlock> level2, level3;
};

}  // namespace kdr
