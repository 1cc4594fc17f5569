#include "library/values.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>
#include <vector>

#include "core/constraints.h"
#include "core/formatted.h"
#include "core/modelcounts.h"
#include "core/settling.h"
#include "estimate/likelihood/engines.h"
#include "estimate/linear/deletion.h"
#include "estimate/linear/restrictedfit.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr::library {

namespace {

Centering centeringof(kdr3_centering centering) { return static_cast<Centering>(centering); }

// A term of an equation with the terms of the next level in its place.
struct Branch {
  const kdr3_model::Term* term;
  std::vector<Branch> terms;
};

// The terms of an owner in the order of their variables, the intercept first, as the equation tables want them.
std::vector<Branch> branches(const std::vector<kdr3_model::Term>& list, int owner) {
  std::vector<Branch> found;
  for (const kdr3_model::Term& term : list)
    if (term.owner == owner) found.push_back({&term, {}});
  std::ranges::sort(found, {}, [](const Branch& branch) { return branch.term->variable; });
  return found;
}

std::vector<Branch> equationsof(const kdr3_model& model) {
  std::vector<Branch> level1 = branches(model.level1, 0);
  for (Branch& coefficient : level1) {
    coefficient.terms = branches(model.level2, static_cast<int>(coefficient.term - model.level1.data()));
    for (Branch& term : coefficient.terms)
      term.terms = branches(model.level3, static_cast<int>(term.term - model.level2.data()));
  }
  return level1;
}

void setequations(const std::vector<Branch>& equations, int set, bool twolevel, Model& model) {
  std::size_t c = 0;
  int place = 0;
  for (const Branch& coefficient : equations) {
    const auto v = at(coefficient.term->variable);
    model.use1.row(set)[v] = Use::predictor;
    model.center1[v] = centeringof(coefficient.term->centering);
    model.fixed1.row(set)[c] = coefficient.term->random ? 0 : 1;
    for (std::size_t s = 0; s < coefficient.terms.size(); ++s, ++place) {
      const Branch& term = coefficient.terms[s];
      model.terms2.row(set, static_cast<int>(c))[s] = term.term->variable;
      model.center2[at(term.term->variable)] = centeringof(term.term->centering);
      model.fixed2.row(set)[place] = term.term->random ? 0 : 1;
      if (twolevel) fixatlevel3(model, set, place);
      for (std::size_t u = 0; u < term.terms.size(); ++u) {
        model.terms3.row(set, place)[u] = term.terms[u].term->variable;
        model.center3[at(term.terms[u].term->variable)] = centeringof(term.terms[u].term->centering);
      }
    }
    ++c;
  }
}

std::string checkequations(const kdr3_model& model, const std::vector<Branch>& equations) {
  if (equations.empty()) return "The model has no level-1 coefficient.";
  bool random2 = false, random3 = false;
  for (const Branch& coefficient : equations) {
    const std::string name = model.data->names[0][at(coefficient.term->variable)];
    if (coefficient.terms.empty() && !coefficient.term->random)
      return "The level-1 coefficient " + name + " has neither a level-2 term nor a random effect.";
    random2 = random2 || coefficient.term->random;
    for (const Branch& term : coefficient.terms) {
      const bool twolevel = model.data->mdm.twolevel();
      if (twolevel && (term.term->random || !term.terms.empty()))
        return "The data have two levels: the model has neither terms nor random effects of level 3.";
      if (term.terms.empty() && !twolevel && !term.term->random)
        return "The level-2 coefficient " + model.data->names[1][at(term.term->variable)] + " of " + name +
               " has neither a level-3 term nor a random effect.";
      random3 = random3 || term.term->random;
    }
  }
  if (!random2 && !random3) return "The model needs a random effect.";
  return "";
}

// The restrictions of a tau of order n as the model holds them; words: they are of another order.
std::string setrestriction(const kdr3_model::TauRestriction& given, const char* name, int n, bool& haveest,
                           Array<double>& est, bool& havecon, Array<int>& con) {
  for (const std::size_t size : {given.fixed.size(), given.groups.size()})
    if (size != 0 && size != square(n))
      return formatted("The restriction of tau(%s) is not of its order, which is %d.", name, n);
  haveest = !given.fixed.empty();
  if (haveest) est.reset(square(n));
  std::ranges::copy(given.fixed, est.begin());
  havecon = !given.groups.empty();
  if (!havecon) return "";
  con.reset(packedsize(n));
  std::unordered_map<int, int> first;  // the place of the first member of each group, from 1
  eachelement(n, [&](int e, int i, int j) {
    const int group = given.groups[at(i) * at(n) + at(j)];
    if (group == 0) return;
    const auto [place, fresh] = first.try_emplace(group, e + 1);
    con[e] = fresh ? e + 1 : -place->second;
  });
  return "";
}

std::string setrestrictions(const kdr3_model& model, Model& made) {
  Restrictions& held = made.restrictions;
  held.diagtaupi = model.diagtaupi;
  held.diagtaubeta = model.diagtaubeta;
  if (model.fixsigma2 != 0.0) held.fixsigma2 = model.fixsigma2;
  std::string words = setrestriction(model.taus[0], "pi", made.coef.ntaupi, held.haveesttau2, held.esttau2,
                                     held.havecontau2, held.contau2);
  if (!words.empty()) return words;
  return setrestriction(model.taus[1], "beta", made.coef.ntaubeta, held.haveesttau3, held.esttau3, held.havecontau3,
                        held.contau3);
}

// Constraints and hypotheses; the model is complete but for them.
std::string seteffects(const kdr3_model& model, Model& made) {
  const std::size_t n = at(made.coef.ngamma);
  made.constraints.reset(n);
  if (!model.groups.empty()) {
    if (model.groups.size() != n)
      return formatted("The groups are of %zu fixed effects, and the model has %zu.", model.groups.size(), n);
    std::ranges::copy(model.groups, made.constraints.begin());
  }
  std::size_t place = 0;
  for (std::size_t h = 0; h < model.hypotheses.size(); ++h) {
    const kdr3_model::Hypothesis& hypothesis = model.hypotheses[h];
    if (hypothesis.contrasts.size() != hypothesis.rows * n)
      return formatted("Hypothesis %zu is not about %zu fixed effects, which the model has.", h + 1, n);
    made.nhypotheses = true;
    made.hypothesisrows[h] = static_cast<short>(hypothesis.rows);
    made.contrasts.resize(place + hypothesis.contrasts.size());
    std::ranges::copy(hypothesis.contrasts, made.contrasts.begin() + place);
    place += hypothesis.contrasts.size();
  }
  makeconstraints(made);
  applyconstraints(made);
  made.coef.ngamma -= made.nconstrained;
  return "";
}

// Why there is no latent variable regression of the roles that were given.
std::string latentobstacle(const kdr3_model& model, const Model& made, const Control& control) {
  const auto has = [&](LatentRole role) { return std::ranges::find(model.latent, role) != model.latent.end(); };
  if (model.latent.empty()) return "";
  if (made.outcome.family == Family::multinomial) return "Latent variable regression is not for multinomial outcomes.";
  if (model.latent.size() != at(made.coef.ntaubeta))
    return formatted("The roles of a latent variable regression are %zu, and %d coefficients vary at level 3.",
                     model.latent.size(), made.coef.ntaubeta);
  if (!has(LatentRole::outcome) || !has(LatentRole::predictor))
    return "A latent variable regression needs an outcome and a predictor.";
  if (control.fishertype == FisherType::none) return "Latent variable regression needs a FISHERTYPE above 0.";
  if (control.restricted || control.ddf != DegreesMethod::counts)
    return "REML and DDF go with no latent variable regression.";
  return "";
}

// What follows from the kind of the model, as the command file settles it.
std::string settle(const kdr3_model& model, Values& values) {
  Model& made = values.model;
  Control& control = values.control;
  if (control.laplace && made.outcome.family != Family::bernoulli) return "Laplace-6 is for Bernoulli outcomes.";
  if (control.agqpoints != 0 && made.outcome.linear()) return "Adaptive quadrature is not for normal outcomes.";
  if (control.agqfixed && (control.agqauto || (control.agqpoints != 0 && control.agqpoints < 3)))
    return "With AGQNODESFIXED the number of quadrature points must be 3 to 198.";
  if (countsinequations(made)) return "The column of trials or exposure stands in an equation as well.";
  if (const char* keeper = variancekeeper(made, control)) {
    if (model.fixsigma2 != 0.0 && model.fixsigma2 != 1.0) return formatted("With %s sigma^2 is held at 1.", keeper);
    made.restrictions.fixsigma2 = 1.0;
  }
  settlecontrol(made, model.stopgiven, control);
  if (std::string words = smallsampleobstacle(made, control); !words.empty()) return words;
  if (std::string words = latentobstacle(model, made, control); !words.empty()) return words;
  return engineobstacle(made, control);
}

// The outcome and the equations, and the sizes of the tables.
void setmodel(const kdr3_model& model, const std::vector<Branch>& equations, Values& values) {
  Model& made = values.model;
  MdmData& mdm = values.mdm;
  made.outcome = model.kind;
  made.outvar = model.outcome;
  made.outname = mdm.names1[at(model.outcome)];
  made.neqsets = model.kind.family == Family::multinomial ? model.kind.categories - 1 : 1;
  const int thresholds = model.kind.ordinal() ? model.kind.categories - 2 : 0;
  mdm.ncol1 = mdm.nvar1 + 1 + thresholds;
  mdm.ncol2 = mdm.nvar2 + 1;
  mdm.ncol3 = mdm.nvar3 + 1;
  mdm.maxbeta = mdm.ncol2 * (mdm.ncol1 - 1);
  mdm.names1.resize(at(mdm.ncol1));
  allocateequations(made, mdm.nvar1, mdm.ncol1, mdm.ncol2, mdm.ncol3);
  for (int set = 0; set < made.neqsets; ++set) {
    made.use1.row(set)[model.outcome] = Use::outcome;
    setequations(equations, set, model.data->mdm.twolevel(), made);
    for (int t = 0; t < thresholds; ++t) made.use1.row(set)[mdm.nvar1 + 1 + t] = Use::predictor;
  }
  for (int t = 0; t < thresholds; ++t) mdm.names1[at(mdm.nvar1 + 1 + t)] = paddedname(formatted("THOLD%d", t + 2));
  made.nointercept1 = equations.front().term->variable != 0;
  made.wgtvar1 = model.weights[0];
  made.wgtvar2 = model.weights[1];
  made.wgtvar3 = model.weights[2];
  made.weighted = made.wgtvar1 != 0 || made.wgtvar2 != 0 || made.wgtvar3 != 0;
  made.rawweights = model.rawweights;
  made.autovknown = model.knownvariance;
}

}  // namespace

std::string makevalues(const kdr3_model& model, Values& values) {
  const std::vector<Branch> equations = equationsof(model);
  if (std::string words = checkequations(model, equations); !words.empty()) return words;
  values.mdm = model.data->mdm.copy();
  values.control = model.control;
  setmodel(model, equations, values);
  Model& made = values.model;
  MdmData& mdm = values.mdm;
  completemodel(made);
  labelrandomeffects(made, mdm.names1, mdm.names2);
  markdeletion(made, mdm);
  if (std::string words = setrestrictions(model, made); !words.empty()) return words;
  if (std::string words = seteffects(model, made); !words.empty()) return words;
  return settle(model, values);
}

}  // namespace kdr::library
