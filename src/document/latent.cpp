#include "document/latent.h"

#include <utility>
#include <vector>

#include "core/modelwalk.h"

namespace kdr {

namespace {

// How the random level-2 coefficients are named, in their order.
std::vector<Json> coefficientnames(const Subject& subject) {
  const ModelRows rows = modelrows(subject.model);
  std::vector<Json> names;
  for (const TermRow& term : rows.terms)
    if (term.random)
      names.push_back({{"level1", subject.name(1, rows.owner(term).variable)},
                       {"level2", subject.name(2, term.variable)},
                       {"subscript", termdigits(rows, term)}});
  return names;
}

void addlatenttest(Json& row, const LatentTest& test) {
  row["estimate"] = number(test.estimate);
  row["standard_error"] = number(test.error);
  row["t"] = number(test.t);
  row["p"] = number(test.p);
}

}  // namespace

Json latentof(const Subject& subject, const LatentRegression& regression) {
  if (!regression.computable) return {};
  const std::vector<Json> names = coefficientnames(subject);
  const std::size_t nW = regression.terms.size(), nP = regression.predictors.size();
  Json outcomes = Json::array();
  for (std::size_t i = 0; i < regression.outcomes.size(); ++i) {
    Json terms = Json::array(), predictors = Json::array();
    for (std::size_t w = 0; w < nW; ++w) {
      const std::size_t place = i * nW + w;
      Json row{{"level3", subject.name(3, regression.terms[w])}, {"original", number(regression.GO[place])}};
      addlatenttest(row, regression.adjusted[place]);
      row["difference"] = number(regression.differences[place].estimate);
      row["difference_standard_error"] = number(regression.differences[place].error);
      terms.push_back(std::move(row));
    }
    for (std::size_t j = 0; j < nP; ++j) {
      Json row = names[at(regression.predictors[j])];
      addlatenttest(row, regression.slopes[i * nP + j]);
      predictors.push_back(std::move(row));
    }
    Json outcome = names[at(regression.outcomes[i])];
    outcome["terms"] = std::move(terms);
    outcome["predictors"] = std::move(predictors);
    outcomes.push_back(std::move(outcome));
  }
  return {{"outcomes", std::move(outcomes)},
          {"residual_covariance", square(static_cast<int>(regression.outcomes.size()), regression.R)},
          {"df", regression.df}};
}

}  // namespace kdr
