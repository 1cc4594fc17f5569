#include "document/effects.h"

#include "core/modelwalk.h"

namespace kdr {

namespace {

Json tested(const EffectTest& row, const MissingShare* share, bool withratio) {
  Json test{{"standard_error", whenever(row.se != 0.0, number(row.se))},
            {"t", whenever(row.se != 0.0, number(row.t))},
            {"df", row.fractional ? number(row.df) : Json(static_cast<long long>(row.df))},
            {"p", whenever(row.tested, number(row.p))},
            {"p_rough", row.rough},
            {"interval", bounds(row.interval)}};
  if (withratio) test["ratio_interval"] = bounds(row.ratiointerval);
  if (share == nullptr) return test;
  test["missing_information"] = number(share->fraction);
  test["relative_efficiency"] = number(share->efficiency);
  return test;
}

Json fixedeffects(const Subject& subject, const Array<double>& gamma, const EffectTable& model,
                  const EffectTable& robust, bool withratio) {
  const ModelRows rows = modelrows(subject.model);
  const auto side = [&](const EffectTable& table, std::size_t g) {
    if (table.rows.empty()) return Json();
    return tested(table.rows[g], table.shares.empty() ? nullptr : &table.shares[g], withratio);
  };
  Json list = Json::array();
  std::size_t g = 0;
  for (const EffectRow& effect : rows.effects) {
    if (effect.removed) continue;
    const CoefficientRow& owner = rows.owner(effect);
    Json row{{"category", categoryornull(subject, owner.set)},
             {"level1", subject.name(1, owner.variable)},
             {"level2", subject.name(2, rows.termof(effect).variable)},
             {"level3", whenever(!subject.twolevel, subject.name(3, effect.variable))},
             {"subscript", subject.twolevel ? termdigits(rows, rows.termof(effect)) : effectdigits(rows, effect)},
             {"threshold", owner.threshold},
             {"estimate", number(gamma[g])}};
    if (withratio) row["ratio"] = number(std::exp(gamma[g]));
    row["model_based"] = side(model, g);
    row["robust"] = side(robust, g);
    list.push_back(std::move(row));
    ++g;
  }
  return list;
}

void addhypotheses(Json& list, const char* name, const EffectTable& table) {
  for (const WaldTest& test : table.hypotheses) {
    Json contrasts = Json::array();
    for (int row = 0; row < test.r; ++row) {
      Json contrast = Json::array();
      for (int g = 0; g < test.n; ++g) contrast.push_back(number(test.C[row * test.n + g]));
      contrasts.push_back(std::move(contrast));
    }
    Json entry{{"number", test.number + 1},
               {"standard_errors_by", name},
               {"contrasts", std::move(contrasts)},
               {"estimates", test.computed ? numbers(test.estimates) : Json()},
               {"standard_errors", test.computed ? numbers(test.errors) : Json()}};
    if (test.computed && test.denominator) {
      addtest(entry, test.chisquare);
    } else {
      entry.update({{"chi_square", nullptr}, {"df", test.r}, {"p", nullptr}});
    }
    list.push_back(std::move(entry));
  }
}

}  // namespace

void addeffects(Json& phase, const Subject& subject, const Array<double>& gamma, const EffectTable& model,
                const EffectTable& robust, bool withratio) {
  phase["fixed_effects"] = fixedeffects(subject, gamma, model, robust, withratio && !subject.model.outcome.linear());
  Json tests = Json::array();
  addhypotheses(tests, "model_based", model);
  addhypotheses(tests, "robust", robust);
  phase["hypothesis_tests"] = std::move(tests);
}

}  // namespace kdr
