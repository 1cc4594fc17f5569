#include "document/subject.h"

#include <utility>

#include "core/modelwalk.h"

namespace kdr {

namespace {

Json nameornull(const Subject& subject, int level, int v) { return v == 0 ? Json() : Json(subject.name(level, v)); }

const char* centering(const Array<Centering>& marks, int v) {
  constexpr const char* words[] = {"none", "group mean", "grand mean"};
  return words[static_cast<int>(at(v) < marks.size() ? marks[v] : Centering::none)];
}

Json effectsof(const Subject& subject, const ModelRows& rows, const std::vector<int>& reduced, const TermRow& term) {
  Json effects = Json::array();
  for (int g = term.firsteffect; g < term.firsteffect + term.neffects; ++g) {
    const EffectRow& effect = rows.effects[at(g)];
    effects.push_back({{"variable", whenever(!subject.twolevel, subject.name(3, effect.variable))},
                       {"centering", centering(subject.model.center3, effect.variable)},
                       {"subscript", subject.twolevel ? termdigits(rows, term) : effectdigits(rows, effect)},
                       {"fixed_effect", reduced[at(g)]},
                       {"constraint_group", effect.group}});
  }
  return effects;
}

Json equations(const Subject& subject) {
  const Model& model = subject.model;
  const ModelRows rows = modelrows(model);
  const std::vector<int> reduced = reducedeffects(rows);
  Json list = Json::array();
  for (const CoefficientRow& coefficient : rows.coefficients) {
    Json terms = Json::array();
    for (int t = coefficient.firstterm; t < coefficient.firstterm + coefficient.nterms; ++t) {
      const TermRow& term = rows.terms[at(t)];
      terms.push_back({{"variable", subject.name(2, term.variable)},
                       {"centering", centering(model.center2, term.variable)},
                       {"subscript", termdigits(rows, term)},
                       {"random", term.random},
                       {"effects", effectsof(subject, rows, reduced, term)}});
    }
    list.push_back({{"category", categoryornull(subject, coefficient.set)},
                    {"variable", subject.name(1, coefficient.variable)},
                    {"centering", coefficient.threshold ? "none" : centering(model.center1, coefficient.variable)},
                    {"subscript", std::to_string(coefficient.subscript)},
                    {"threshold", coefficient.threshold},
                    {"random", coefficient.random},
                    {"terms", std::move(terms)}});
  }
  return list;
}

std::string distribution(Family family) {
  std::string name = nameof(family);
  name[0] = static_cast<char>(name[0] - 'A' + 'a');
  return name;
}

std::string categorylabel(const Subject& subject, int k) {
  return k >= 0 && at(k) < subject.categories.size() ? subject.categories[at(k)] : "";
}

}  // namespace

Json categoryornull(const Subject& subject, int set) {
  return subject.model.outcome.family == Family::multinomial ? textornull(categorylabel(subject, set)) : Json();
}

Json describedmodel(const Subject& subject) {
  const Model& model = subject.model;
  Json categories = Json::array();
  if (model.outcome.categorical())
    for (int k = 0; k < model.outcome.categories; ++k) categories.push_back(categorylabel(subject, k));
  constexpr const char* links[] = {"identity", "logit", "log", "multinomial logit", "cumulative logit"};
  return {{"outcome", subject.outcome},
          {"distribution", distribution(model.outcome.family)},
          {"link", links[static_cast<int>(model.outcome.link())]},
          {"count_variable",
           model.outcome.counted ? nameornull(subject, 1, model.outcome.countvariable.value_or(0)) : Json()},
          {"categories", std::move(categories)},
          {"equations", equations(subject)},
          {"sigma2_held_at",
           whenever(model.restrictions.fixsigma2.has_value(), number(model.restrictions.fixsigma2.value_or(0.0)))},
          {"weights",
           {{"level1", nameornull(subject, 1, model.wgtvar1)},
            {"level2", nameornull(subject, 2, model.wgtvar2)},
            {"level3", nameornull(subject, 3, model.wgtvar3)},
            {"known_variance", nameornull(subject, 1, model.autovknown)},
            {"scale", model.rawweights ? "none" : "mean"}}}};
}

Json describedvariables(const Subject& subject) {
  Json list = Json::array();
  for (int level = 1; level <= 3; ++level)
    for (int v = 1; at(v) < subject.names[level - 1].size(); ++v) {
      const VariableText* text = subject.texts->of(level, v);
      if (text == nullptr) continue;
      Json values = Json::array();
      for (const auto& [value, label] : text->labels) values.push_back({{"value", number(value)}, {"label", label}});
      list.push_back({{"level", level},
                      {"name", subject.name(level, v)},
                      {"whole_name", textornull(text->name)},
                      {"label", textornull(text->label)},
                      {"values", std::move(values)}});
    }
  return list;
}

}  // namespace kdr
