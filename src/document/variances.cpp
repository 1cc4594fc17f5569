#include "document/variances.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/modelwalk.h"
#include "estimate/inference/teststatistics.h"

namespace kdr {

namespace {

Json taurows(const Subject& subject, Tau which) {
  const ModelRows rows = modelrows(subject.model);
  Json list = Json::array();
  if (which == Tau::pi) {
    for (const CoefficientRow& row : rows.coefficients)
      if (row.random)
        list.push_back({{"category", categoryornull(subject, row.set)},
                        {"level1", subject.name(1, row.variable)},
                        {"level2", nullptr},
                        {"subscript", std::to_string(row.subscript)}});
  } else {
    for (const TermRow& row : rows.terms)
      if (row.random)
        list.push_back({{"category", categoryornull(subject, rows.owner(row).set)},
                        {"level1", subject.name(1, rows.owner(row).variable)},
                        {"level2", subject.name(2, row.variable)},
                        {"subscript", termdigits(rows, row)}});
  }
  return list;
}

Json testsof(const Array<double>& tau, std::span<const VarianceTest> tests) {
  Json list = Json::array();
  const std::size_t n = tests.size();
  for (std::size_t i = 0; i < n; ++i) {
    const double variance = std::max(0.0, tau[i * (n + 1)]);
    Json row{{"variance", number(variance)}, {"standard_deviation", number(std::sqrt(variance))}};
    if (tests[i].known) {
      addtest(row, tests[i].chisquare);
    } else {
      row.update({{"chi_square", nullptr}, {"df", nullptr}, {"p", nullptr}});
    }
    list.push_back(std::move(row));
  }
  return list;
}

}  // namespace

Json taumatrix(const Subject& subject, Tau which, const TauParts& parts) {
  const double* tau = parts.tau->data();
  const auto correlation = [&](int i, int j) { return correlationof(tau, parts.n, i, j); };
  const bool reliable = parts.reliabilities != nullptr && parts.reliabilityunits > 0;
  return {{"rows", taurows(subject, which)},
          {"estimate", square(parts.n, *parts.tau)},
          {"standard_error", parts.errors == nullptr ? Json() : square(parts.n, *parts.errors)},
          {"correlation", square(parts.n, correlation)},
          {"reliability", reliable ? numbers(*parts.reliabilities) : Json()},
          {"reliability_units", whenever(reliable, parts.reliabilityunits)}};
}

Json sigma2of(double estimate, bool held, bool errorknown, double error) {
  return {
      {"estimate", number(estimate)}, {"standard_error", whenever(errorknown && !held, number(error))}, {"held", held}};
}

Json variancetests(const Subject& subject, const Array<double>& taupi, const Array<double>& taubeta,
                   const VarianceTests& tests) {
  return {{"level2", testsof(taupi, tests.level2)},
          {"level2_units", tests.units2},
          {"level3", testsof(taubeta, tests.level3)},
          {"level3_units", whenever(!subject.twolevel, tests.units3)}};
}

namespace {

Json tauintervals(const VarianceIntervals& intervals, Tau which, int n) {
  const std::vector<Interval>& variances = intervals.variances(which);
  if (variances.empty()) return {};
  Json of = Json::array(), deviations = Json::array(), correlations = Json::array();
  const auto root = [](double x) { return x >= 0.0 ? std::sqrt(x) : x; };
  for (int i = 0; i < n; ++i) {
    const Interval& variance = variances[at(i)];
    of.push_back(bounds(variance));
    deviations.push_back(bounds({variance.known, root(variance.low), root(variance.high)}));
    Json row = Json::array();
    for (int j = 0; j < n; ++j) {
      const std::size_t place = packedsize(std::max(i, j) - 1) + at(std::min(i, j));
      row.push_back(i == j ? Json() : bounds(intervals.correlations(which)[place]));
    }
    correlations.push_back(std::move(row));
  }
  return {{"variance", std::move(of)},
          {"standard_deviation", std::move(deviations)},
          {"correlation", std::move(correlations)}};
}

}  // namespace

Json intervalsof(const VarianceIntervals& intervals, int p, int b) {
  return {{"sigma2", bounds(intervals.sigma2)},
          {"tau_pi", tauintervals(intervals, Tau::pi, p)},
          {"tau_beta", b > 0 ? tauintervals(intervals, Tau::beta, b) : Json()}};
}

namespace {

Json curveof(const ProfileCurve& curve) {
  if (curve.empty()) return {};
  Json points = Json::array();
  for (const auto& [value, zeta] : curve) points.push_back({number(value), number(zeta)});
  return points;
}

Json curvesof(const std::vector<ProfileCurve>& curves) {
  Json list = Json::array();
  for (const ProfileCurve& curve : curves) list.push_back(curveof(curve));
  return list;
}

Json curvesof(const ProfileCurves& curves, Tau which, int n) {
  Json correlations = Json::array();
  for (int i = 0; i < n; ++i) {
    Json row = Json::array();
    for (int j = 0; j < i; ++j) row.push_back(curveof(curves.correlations(which)[packedsize(i - 1) + at(j)]));
    correlations.push_back(std::move(row));
  }
  return {{"variance", curvesof(curves.variances(which))}, {"correlation", std::move(correlations)}};
}

}  // namespace

Json profileof(const ProfileIntervals& profile, int p, int b) {
  Json made = intervalsof(profile.variances, p, b);
  Json effects, shares;
  for (const Interval& interval : profile.effects) effects.push_back(bounds(interval));
  if (profile.intraclass)
    shares = {{"same_level3_unit", bounds(profile.samelevel3)}, {"same_level2_unit", bounds(profile.samelevel2)}};
  made["fixed_effects"] = std::move(effects);
  made["intraclass_correlation"] = std::move(shares);
  if (!profile.drawn) return made;
  const ProfileCurves& curves = profile.curves;
  Json pair;
  if (profile.intraclass)
    pair = {{"same_level3_unit", curveof(curves.samelevel3)}, {"same_level2_unit", curveof(curves.samelevel2)}};
  made["curves"] = {{"sigma2", curveof(curves.sigma2)},
                    {"tau_pi", curvesof(curves, Tau::pi, p)},
                    {"tau_beta", b > 0 ? curvesof(curves, Tau::beta, b) : Json()},
                    {"fixed_effects", whenever(!curves.effects.empty(), curvesof(curves.effects))},
                    {"intraclass_correlation", std::move(pair)}};
  return made;
}

Json sharesof(const VarianceShares& shares, bool twolevel) {
  const auto third = [twolevel](double value) { return twolevel ? Json() : number(value); };
  const auto pair = [&](bool known, double same2, double same3) {
    return known ? Json{{"same_level3_unit", third(same3)}, {"same_level2_unit", number(same2)}} : Json();
  };
  return {{"fixed", number(shares.fixed)},
          {"level1", number(shares.level1)},
          {"level2", number(shares.level2)},
          {"level3", third(shares.level3)},
          {"intraclass_correlation", pair(true, shares.same2, shares.same3)},
          {"response_correlation", pair(shares.response, shares.responsesame2, shares.responsesame3)},
          {"r_squared", {{"marginal", number(shares.marginal)}, {"conditional", number(shares.conditional)}}},
          {"design_effect", number(shares.designeffect)},
          {"effective_sample_size", number(shares.effective)},
          {"explained", shares.against ? Json{{"level1", number(shares.explained1)},
                                              {"level2", number(shares.explained2)},
                                              {"level3", third(shares.explained3)}}
                                       : Json()}};
}

Json edges(int n, const std::vector<bool>& edge) {
  if (edge.empty()) return {};
  Json rows = Json::array();
  for (int i = 0; i < n; ++i) {
    Json row = Json::array();
    for (int j = 0; j < n; ++j) row.push_back(static_cast<bool>(edge[at(i) * at(n) + at(j)]));
    rows.push_back(std::move(row));
  }
  return rows;
}

Json intraclass(const Subject& subject, double sigma2, const Array<double>& taupi, const Array<double>& taubeta) {
  const Model& model = subject.model;
  const bool two = subject.twolevel;
  const ModelRows rows = modelrows(model);
  const bool null = model.outcome.linear() && model.autovknown == 0 && rows.effects.size() == 1 && taupi.size() == 1 &&
                    taubeta.size() == (two ? 0 : 1) && rows.coefficients[0].variable == 0 &&
                    rows.terms[0].variable == 0 && rows.effects[0].variable == 0;
  if (!null) return {};
  const double between = two ? 0.0 : taubeta[0], total = sigma2 + taupi[0] + between;
  return {{"share_level1", number(sigma2 / total)},
          {"share_level2", number(taupi[0] / total)},
          {"share_level3", whenever(!two, number(between / total))},
          {"same_level3_unit", whenever(!two, number(between / total))},
          {"same_level2_unit", number((taupi[0] + between) / total)}};
}

}  // namespace kdr
