// A model from the calls of include/kdr3/kdr3.h, term by term.
#include <strings.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <utility>

#include "core/constants.h"
#include "core/formatted.h"
#include "library/handles.h"

namespace kdr::library {

namespace {

std::string unknownname(int level, const char* name) {
  return formatted("The data have no level-%d column %s.", level, name);
}

bool centeringknown(kdr3_centering centering) { return centering >= KDR3_RAW && centering <= KDR3_GRANDMEAN; }

// Adds a term to a list that holds each variable of an owner once.
kdr3_status addterm(kdr3_model& model, std::vector<kdr3_model::Term>& list, int level, const kdr3_model::Term& term,
                    const char* name) {
  if (term.variable < 0) return error(unknownname(level, name));
  if (!centeringknown(term.centering)) return error("A centering is raw, by the group mean or by the grand mean.");
  if (level == (model.data->mdm.twolevel() ? 2 : 3) && term.centering == KDR3_GROUPMEAN)
    return error(formatted("A level-%d variable has no groups to be centered in: %s.", level,
                           name == nullptr ? "the intercept" : name));
  for (const kdr3_model::Term& other : list) {
    if (other.owner == term.owner && other.variable == term.variable)
      return error("The term " + model.data->names[level - 1][static_cast<std::size_t>(term.variable)] +
                   " is in the equation already.");
    if (other.variable == term.variable && term.variable != 0 && other.centering != term.centering)
      return error("The variable " + std::string(name) + " is centered in two ways.");
  }
  list.push_back(term);
  return KDR3_OK;
}

// A control by its name: where its value goes, and which values it takes.
struct Setting {
  const char* name;
  double least, most;
  bool whole;
  void (*set)(kdr3_model& model, double value);
};

constexpr double many = 1.0e9;
int whole(double value) { return static_cast<int>(value); }

void setstop(kdr3_model& model, double value) {
  model.control.stopval = value;
  model.stopgiven = true;
}

void setpoints(kdr3_model& model, double value) { model.control.agqpoints = whole(value); }

constexpr Setting settings[] = {
    {"NUMIT", 1, many, true, [](kdr3_model& m, double v) { m.control.numit = whole(v); }},
    {"MICROIT", 1, many, true, [](kdr3_model& m, double v) { m.control.numit = whole(v); }},
    {"MACROIT", 1, many, true, [](kdr3_model& m, double v) { m.control.macroit = whole(v); }},
    {"STOPVAL", 0, 100, false, setstop},
    {"STOPMICRO", 0, 100, false, setstop},
    {"STOPMACRO", 0, 100, false, [](kdr3_model& m, double v) { m.control.stopmacro = v; }},
    {"ACCEL", 1, many, true, [](kdr3_model& m, double v) { m.control.accel = whole(v); }},
    {"FISHERTYPE", 0, 2, true,
     [](kdr3_model& m, double v) { m.control.fishertype = static_cast<FisherType>(whole(v)); }},
    {"REML", 0, 1, true, [](kdr3_model& m, double v) { m.control.restricted = v != 0; }},
    {"DDF", 0, 2, true, [](kdr3_model& m, double v) { m.control.ddf = static_cast<DegreesMethod>(whole(v)); }},
    {"DDFOBSERVED", 0, 1, true, [](kdr3_model& m, double v) { m.control.ddfobserved = v != 0; }},
    {"CR2", 0, 1, true, [](kdr3_model& m, double v) { m.control.clusterrobust = v != 0; }},
    {"PROFILE", 0, 1, true, [](kdr3_model& m, double v) { m.control.profile = v != 0; }},
    {"SHARES", 0, 1, true, [](kdr3_model& m, double v) { m.control.shares.asked = v != 0; }},
    {"EDGECOVFULL", 0, 1, true, [](kdr3_model& m, double v) { m.control.edgefull = v != 0; }},
    {"FIXSIGMA2", 0, 1e300, false, [](kdr3_model& m, double v) { m.fixsigma2 = v; }},
    {"DIAGONALIZETAUPI", 0, 1, true, [](kdr3_model& m, double v) { m.diagtaupi = v != 0; }},
    {"DIAGONALIZETAUBETA", 0, 1, true, [](kdr3_model& m, double v) { m.diagtaubeta = v != 0; }},
    {"WEIGHTSCALE", 0, 1, true, [](kdr3_model& m, double v) { m.rawweights = v == 0; }},
    {"THREADS", 0, 1024, true, [](kdr3_model& m, double v) { m.threads = whole(v); }},
    {"POPAVIT", 0, many, true, [](kdr3_model& m, double v) { m.control.popavit = whole(v); }},
    {"LAPLACE", 0, many, true,
     [](kdr3_model& m, double v) {
       m.control.laplace = v != 0;
       if (v != 0) m.control.laplaceit = whole(v);
     }},
    {"AGQ", 0, 198, true, setpoints},
    {"AGQIT", 0, many, true, [](kdr3_model& m, double v) { m.control.agqit = whole(v); }},
    {"AGQAUTO", 0, 1, true,
     [](kdr3_model& m, double v) {
       m.control.agqauto = v != 0;
       if (v != 0) m.control.agqpoints = 5;
     }},
    {"AGQNODESFIXED", 0, 1, true, [](kdr3_model& m, double v) { m.control.agqfixed = v != 0; }},
    {"AGQDERIVLEVEL", 1, 2, true, [](kdr3_model& m, double v) { m.control.agqderivlevel = whole(v); }},
};

}  // namespace

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

kdr3_status kdr3_model_make(const kdr3_data* data, const char* outcome, kdr3_family family, const char* counts,
                            int categories, kdr3_model** result) {
  return guarded([&]() -> kdr3_status {
    if (data == nullptr || outcome == nullptr || result == nullptr)
      return error("A model needs its data, the name of its outcome and a place for the handle.");
    *result = nullptr;
    if (family < KDR3_NORMAL || family > KDR3_ORDINAL) return error("The outcome is of no known family.");
    auto model = std::make_unique<kdr3_model>();
    model->data = data;
    model->outcome = variable(*data, 1, outcome);
    if (model->outcome < 1) return error(unknownname(1, outcome));
    model->kind.family = static_cast<Family>(family);
    if (counts != nullptr) {
      if (family != KDR3_BINOMIAL && family != KDR3_POISSON)
        return error("Only binomial and Poisson outcomes have a column of trials or exposure.");
      model->kind.counted = true;
      model->kind.countvariable = variable(*data, 1, counts);
      if (model->kind.countvariable < 1) return error(unknownname(1, counts));
    } else if (family == KDR3_BINOMIAL) {
      return error("A binomial outcome needs a column of trials.");
    }
    if (model->kind.categorical()) {
      if (categories < 2) return error("A multinomial or ordinal outcome needs its number of categories.");
      model->kind.categories = categories;
    }
    model->control.numit = model->kind.linear() ? 500 : 200;
    model->control.macroit = model->kind.linear() ? 0 : 100;
    model->control.agqit = 200;
    model->control.numitcontinue = AtLimit::stop;  // nobody can be asked
    *result = model.release();
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_level1(kdr3_model* model, const char* name, kdr3_centering centering, int random,
                              int* coefficient) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr) return error("The model is missing.");
    const int v = variable(*model->data, 1, name);
    if (v == model->outcome) return error("The outcome cannot be a predictor.");
    if (coefficient != nullptr) *coefficient = static_cast<int>(model->level1.size());
    return addterm(*model, model->level1, 1, {0, v, centering, random != 0}, name);
  });
}

kdr3_status kdr3_model_level2(kdr3_model* model, int coefficient, const char* name, kdr3_centering centering,
                              int random, int* term) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr) return error("The model is missing.");
    if (coefficient < 0 || static_cast<std::size_t>(coefficient) >= model->level1.size())
      return error("There is no level-1 coefficient of that number.");
    if (term != nullptr) *term = static_cast<int>(model->level2.size());
    return addterm(*model, model->level2, 2, {coefficient, variable(*model->data, 2, name), centering, random != 0},
                   name);
  });
}

kdr3_status kdr3_model_level3(kdr3_model* model, int term, const char* name, kdr3_centering centering) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr) return error("The model is missing.");
    if (term < 0 || static_cast<std::size_t>(term) >= model->level2.size())
      return error("There is no level-2 coefficient of that number.");
    return addterm(*model, model->level3, 3, {term, variable(*model->data, 3, name), centering, false}, name);
  });
}

kdr3_status kdr3_model_set(kdr3_model* model, const char* name, double value) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr || name == nullptr) return error("A setting needs its model and its name.");
    for (const Setting& setting : settings) {
      if (strcasecmp(setting.name, name) != 0) continue;
      if (!(value >= setting.least && value <= setting.most) || (setting.whole && value != std::floor(value)))
        return error(formatted("%s takes a%s number from %g to %g.", setting.name, setting.whole ? " whole" : "",
                               setting.least, setting.most));
      if (setting.set == setpoints && value == 2) return error("The number of quadrature points is 1, or 3 to 198.");
      setting.set(*model, value);
      return KDR3_OK;
    }
    return error("There is no setting " + std::string(name) + ".");
  });
}

kdr3_status kdr3_model_weights(kdr3_model* model, const char* level1, const char* level2, const char* level3,
                               const char* knownvariance) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr) return error("The model is missing.");
    const char* names[] = {level1, level2, level3};
    for (int level = 1; level <= 3; ++level) {
      const int v = variable(*model->data, level, names[level - 1]);
      if (v < 0) return error(unknownname(level, names[level - 1]));
      model->weights[level - 1] = v;
    }
    model->knownvariance = variable(*model->data, 1, knownvariance);
    if (model->knownvariance < 0) return error(unknownname(1, knownvariance));
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_constrain(kdr3_model* model, size_t count, const int* groups) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr || groups == nullptr) return error("A constraint needs its model and the groups.");
    int known = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (groups[i] < 0 || groups[i] > known + 1)
        return error("Groups of equal fixed effects are numbered from 1, in the order of their first members.");
      if (groups[i] > known) ++known;
    }
    model->groups.assign(groups, groups + count);
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_hypothesis(kdr3_model* model, size_t rows, size_t count, const double* contrasts) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr || contrasts == nullptr || rows == 0)
      return error("A hypothesis needs its model and a contrast or more.");
    if (model->hypotheses.size() == maxhypotheses || rows > SHRT_MAX)
      return error(formatted("A model has %d hypotheses at the most, each of %d contrasts.", maxhypotheses, SHRT_MAX));
    if (!std::all_of(contrasts, contrasts + rows * count, [](double c) { return std::isfinite(c); }))
      return error("A contrast holds a number that is not finite.");
    model->hypotheses.push_back({rows, {contrasts, contrasts + rows * count}});
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_restrict(kdr3_model* model, int level, size_t order, const double* fixed, const int* groups) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr || (level != 2 && level != 3)) return error("A restriction needs its model and level 2 or 3.");
    kdr3_model::TauRestriction made;
    for (std::size_t i = 0; i < order; ++i)
      for (std::size_t j = 0; j < order; ++j) {
        const std::size_t here = i * order + j, across = j * order + i;
        const bool even = (fixed == nullptr || fixed[here] == fixed[across] ||
                           (std::isnan(fixed[here]) && std::isnan(fixed[across]))) &&
                          (groups == nullptr || groups[here] == groups[across]);
        if (!even) return error("The restriction of a covariance matrix is symmetric.");
        if (fixed != nullptr && std::isinf(fixed[here])) return error("An element is held at no finite value.");
        if (groups != nullptr && groups[here] < 0) return error("The number of a group is below 0.");
      }
    if (fixed != nullptr) made.fixed.assign(fixed, fixed + order * order);
    if (groups != nullptr) made.groups.assign(groups, groups + order * order);
    model->taus[level - 2] = std::move(made);
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_start(kdr3_model* model, size_t g, const double* gamma, size_t p, const double* taupi, size_t b,
                             const double* taubeta, double sigma2) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr || gamma == nullptr || (p > 0 && taupi == nullptr) || (b > 0 && taubeta == nullptr))
      return error("Starting values need their model and all estimates.");
    const auto finite = [](const double* values, std::size_t n) {
      return std::all_of(values, values + n, [](double value) { return std::isfinite(value); });
    };
    if (!finite(gamma, g) || !finite(taupi, p * p) || !finite(taubeta, b * b) || !(sigma2 > 0.0))
      return error("A starting value is not finite, or sigma^2 not above 0.");
    const auto copy = [](const double* values, std::size_t n) {
      Array<double> made(n);
      std::copy_n(values, n, made.data());
      return made;
    };
    model->start = Estimates{copy(gamma, g), copy(taupi, p * p), copy(taubeta, b * b), sigma2, {}};
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_bootstrap(kdr3_model* model, int replicates, uint64_t seed, int cases) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr) return error("The model is missing.");
    constexpr int most = 1000000;
    if (replicates < 0 || replicates > most) return error("A bootstrap has from 0 to 1,000,000 replicates.");
    model->bootstrap = {replicates, seed, cases != 0};
    return KDR3_OK;
  });
}

kdr3_status kdr3_model_latent(kdr3_model* model, const char* roles) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr) return error("The model is missing.");
    std::vector<LatentRole> made;
    for (const char* letter = roles; letter != nullptr && *letter != '\0'; ++letter) {
      const char word[] = {*letter, '\0'};
      const auto* role =
          std::ranges::find_if(roleletters, [&](const auto& row) { return strcasecmp(row.word, word) == 0; });
      if (role == std::end(roleletters)) return error("A coefficient of a latent variable regression is O, P or I.");
      made.push_back(role->code);
    }
    model->latent = std::move(made);
    return KDR3_OK;
  });
}

void kdr3_model_free(kdr3_model* model) { delete model; }
