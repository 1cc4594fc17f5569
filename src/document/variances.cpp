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
