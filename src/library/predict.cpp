// Predictions by the C interface: rows of matrices and the arrays of a fit in, values and errors out.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "core/formatted.h"
#include "estimate/inference/predictions.h"
#include "estimate/inference/responsecurve.h"
#include "estimate/inference/unitmodes.h"
#include "estimate/linear/unitresults.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "library/handles.h"

namespace kdr::library {

namespace {

Outcome outcomeof(const kdr3_fitted& given) {
  constexpr Family families[] = {Family::normal,  Family::bernoulli,   Family::binomial,
                                 Family::poisson, Family::multinomial, Family::ordinal};
  Outcome outcome;
  outcome.family = families[given.family];
  outcome.categories = given.categories;
  return outcome;
}

// How many columns a row of the interface has: of a model with categories those of one linear predictor.
struct RowWidths {
  std::size_t fixed, random2, random3;
};
RowWidths widthsof(const kdr3_fitted& given, const Outcome& outcome) {
  RowWidths widths{given.fixedeffects, given.random2, given.random3};
  if (outcome.family == Family::ordinal) widths.fixed -= at(outcome.categories - 2);
  if (outcome.family == Family::multinomial)
    for (std::size_t* width : {&widths.fixed, &widths.random2, &widths.random3}) *width /= at(outcome.categories - 1);
  return widths;
}

const char* obstacle(const kdr3_fitted& given, const Outcome& outcome) {
  if (given.fixed == nullptr || (given.random2 > 0 && given.taupi == nullptr) ||
      (given.random3 > 0 && given.taubeta == nullptr))
    return "Predictions need the fixed effects and the variances.";
  if (!outcome.categorical()) return nullptr;
  const std::size_t M = at(std::max(outcome.categories - 1, 1));
  const bool whole =
      outcome.ordinal() ? given.fixedeffects >= M : given.fixedeffects % M + given.random2 % M + given.random3 % M == 0;
  return outcome.categories < 2 || !whole ? "The fixed effects are not those of so many categories." : nullptr;
}

// A fitted model as the rooms of estimation know it.
struct Known {
  const kdr3_fitted& given;
  Outcome outcome;
  RowWidths widths;
  PredictorPlan plan;
  PassResults results;
  Posteriors posteriors;
  const double *weights1 = nullptr, *weights2 = nullptr, *weights3 = nullptr;
  [[nodiscard]] FittedModel model() const { return {plan, outcome, results}; }
};

void take(Array<double>& to, const double* from, std::size_t n) {
  if (from == nullptr) return;
  to.reset(n);
  std::copy_n(from, n, to.data());
}

Known knownof(const kdr3_fitted& given) {
  const Outcome outcome = outcomeof(given);
  Known known{given, outcome, widthsof(given, outcome), {}, {}, {}};
  const std::size_t g = given.fixedeffects, p = given.random2, b = given.random3;
  known.plan.M = outcome.categorical() ? outcome.categories - 1 : 1;
  known.plan.g = static_cast<int>(g);
  known.plan.p = static_cast<int>(p);
  known.plan.b = static_cast<int>(b);
  PassResults& results = known.results;
  take(results.est.gammahat, given.fixed, g);
  take(results.est.taupi, given.taupi, p * p);
  take(results.est.taubeta, given.taubeta, b * b);
  results.est.sigma2 = given.sigma2;
  take(results.covariance, given.covariance, g * g);
  take(results.joint, given.joint, square(static_cast<int>(packedsize(p) + packedsize(b) + g)));
  results.degrees.df.reset(g);
  take(known.posteriors.u, given.level2, given.units2 * p);
  take(known.posteriors.v, given.level3, given.units3 * b);
  if (given.size >= sizeof(kdr3_fitted)) {
    known.weights1 = given.weights1;
    known.weights2 = given.weights2;
    known.weights3 = given.units3 > 0 ? given.weights3 : nullptr;
  }
  const bool whole = given.covariances != nullptr || p == 0 || b == 0;
  if (whole) {
    take(known.posteriors.uvariance, given.variances2, given.units2 * p * p);
    take(known.posteriors.vvariance, given.variances3, given.units3 * b * b);
    take(known.posteriors.uv, given.covariances, given.units2 * p * b);
  }
  return known;
}

PredictorRows emptyrows(const PredictorPlan& plan) {
  return {Array<double>(at(plan.M) * at(plan.g)), Array<double>(at(plan.M) * at(plan.p)),
          Array<double>(at(plan.M) * at(plan.b)), 0.0, 1.0};
}

// The columns of a row into the rows of the linear predictors: each its own (multinomial), or all of them alike.
void spread(const Known& known, const double* from, std::size_t width, int columns, Array<double>& to) {
  const bool own = known.outcome.family == Family::multinomial;
  for (std::size_t m = 0; m < at(known.plan.M); ++m)
    std::copy_n(from, width, to.data() + m * at(columns) + (own ? m * width : 0));
}

// False where a value is not finite.
bool rowof(const Known& known, const kdr3_rows& from, std::size_t i, PredictorRows& rows) {
  const PredictorPlan& plan = known.plan;
  bool finite = true;
  const auto put = [&](const double* values, std::size_t width, int columns, Array<double>& to) {
    if (width == 0) return;
    const double* row = values + i * width;
    finite = finite && std::all_of(row, row + width, [](double x) { return std::isfinite(x); });
    spread(known, row, width, columns, to);
  };
  put(from.fixed, known.widths.fixed, plan.g, rows.x);
  put(from.random2, known.widths.random2, plan.p, rows.d);
  put(from.random3, known.widths.random3, plan.b, rows.e);
  if (known.outcome.ordinal())
    for (int m = 1; m < plan.M; ++m) rows.x[at(m * plan.g + m - 1) + known.widths.fixed] = 1.0;
  rows.offset = from.offset != nullptr ? from.offset[i] : 0.0;
  return finite && std::isfinite(rows.offset);
}

// The units of a row, below 0 of a new one. In data of two levels the unit of the highest one is that of level 2.
struct RowUnits {
  std::ptrdiff_t unit2, unit3;
};
RowUnits unitsof(const kdr3_rows& rows, std::size_t i) {
  return {rows.unit2 != nullptr ? rows.unit2[i] : -1, rows.unit3 != nullptr ? rows.unit3[i] : -1};
}

// What is known of the random effects of the units that rows belong to.
struct UnitEffects {
  const Known& known;
  const kdr3_rows* own;
  bool two;                                                    // levels
  KnownEffects none;                                           // of units that nothing is known of
  std::map<std::ptrdiff_t, std::vector<std::size_t>> records;  // of the fit by their unit of the highest level
  std::map<std::pair<std::ptrdiff_t, std::ptrdiff_t>, KnownEffects> made;
};

UnitEffects startunits(const Known& known, const kdr3_rows* own) {
  UnitEffects effects{known, own, known.given.units3 == 0, unknowneffects(known.model()), {}, {}};
  for (std::size_t i = 0; own != nullptr && i < own->records; ++i) {
    const RowUnits units = unitsof(*own, i);
    effects.records[effects.two ? units.unit2 : units.unit3].push_back(i);
  }
  return effects;
}

// What the level-2 units of a unit of the highest level count, and how often their densities do.
void takeunitweights(const Known& known, const std::vector<std::ptrdiff_t>& members, std::ptrdiff_t top,
                     UnitOutcomes& of) {
  if (known.weights3 != nullptr) of.divisor3 = known.weights3[top];
  if (known.weights2 == nullptr) return;
  for (const std::ptrdiff_t unit : members) {
    of.weight2.push_back(known.weights2[unit]);
    of.divisor2.push_back(known.weights2[unit] * of.divisor3);
  }
}

// Adds the level-2 units of a unit of the highest level, and in data of three levels one that is not there: modes, and
// the means and covariances that are known otherwise in their place. False where the modes have not settled.
bool addmodes(UnitEffects& effects, std::ptrdiff_t top) {
  const Known& known = effects.known;
  const kdr3_rows& own = *effects.own;
  UnitOutcomes of;
  std::vector<std::ptrdiff_t> members;
  for (const std::size_t i : effects.records[top]) {
    PredictorRows rows = emptyrows(known.plan);
    if (!rowof(known, own, i, rows)) return false;
    if (own.counts != nullptr && known.outcome.family == Family::binomial) rows.count = own.counts[i];
    const std::ptrdiff_t unit = unitsof(own, i).unit2;
    const auto place = std::find(members.rbegin(), members.rend(), unit);  // records of a unit mostly stand together
    of.unit.push_back(static_cast<int>(place == members.rend() ? members.size() : members.rend() - place - 1));
    if (place == members.rend()) members.push_back(unit);
    of.rows.push_back(std::move(rows));
    of.outcome.push_back(own.outcome[i]);
    // Over-dispersion: a variance sigma2 times that of the family.
    const bool dispersed = !known.outcome.linear() && known.given.sigma2 > 0.0 && known.given.sigma2 != 1.0;
    if (dispersed || known.weights1 != nullptr)
      of.weight1.push_back((known.weights1 != nullptr ? known.weights1[i] : 1.0) /
                           (dispersed ? known.given.sigma2 : 1.0));
  }
  takeunitweights(known, members, top, of);
  of.units = static_cast<int>(members.size());
  const FittedModel model = known.model();
  UnitModes modes = unitmodes(model, of);
  if (!modes.settled) return false;
  const std::size_t k = effects.two ? 0 : static_cast<std::size_t>(top);
  const auto add = [&](std::ptrdiff_t unit, KnownEffects& found) {
    takeposteriors(model, known.posteriors, unit, k, found);
    effects.made.insert_or_assign({effects.two ? -1 : top, unit}, std::move(found));
  };
  for (std::size_t j = 0; j < members.size(); ++j) add(members[j], modes.ofunit[j]);
  if (!effects.two) add(-1, modes.fresh);
  return true;
}

// Those of a row's units with their errors; null: their modes have not settled.
const KnownEffects* effectsof(UnitEffects& effects, const RowUnits& units) {
  const std::ptrdiff_t top = effects.two ? units.unit2 : units.unit3;
  if (top < 0) return &effects.none;
  const std::pair place{effects.two ? -1 : top, units.unit2};
  auto found = effects.made.find(place);
  if (found == effects.made.end() && addmodes(effects, top)) found = effects.made.find(place);
  return found == effects.made.end() ? nullptr : &found->second;
}

// What a row's prediction is, with its derivatives; none where it can't be told.
std::optional<Responses> responsesof(const Known& known, kdr3_predicted what, const PredictorRows& rows,
                                     const KnownEffects* of) {
  const FittedModel model = known.model();
  switch (what) {
    case KDR3_LINEAR:
      return linearpredictors(model, rows);
    case KDR3_RESPONSE:
      return fixedresponses(model, rows);
    case KDR3_AVERAGE:
      return meanresponses(model, rows);
    case KDR3_UNITLINEAR:
      if (of != nullptr) return unitpredictors(model, rows, *of);
      break;
    case KDR3_UNITRESPONSE:
      if (of != nullptr) return unitresponses(model, rows, *of);
      break;
  }
  return std::nullopt;
}

bool ofunits(kdr3_predicted what) { return what == KDR3_UNITLINEAR || what == KDR3_UNITRESPONSE; }
bool linearones(kdr3_predicted what) { return what == KDR3_LINEAR || what == KDR3_UNITLINEAR; }

// Predictions of rows one after the other without derivatives, which most callers don't ask for.
struct PlainValues {
  const Known& known;
  ResponseCurve curve;
  Array<double> eta;
};

// Z times the effects of a unit, onto the linear predictors.
void addeffects(PlainValues& plain, const Array<double>& Z, const double* effects, std::ptrdiff_t unit, int n) {
  if (n == 0 || unit < 0) return;
  addAB(plain.eta.data(), Z.data(), effects + unit * n, plain.known.plan.M, 1, n);
}

void plainvalues(PlainValues& plain, kdr3_predicted what, const PredictorRows& rows, const RowUnits& units,
                 double* values) {
  const Known& known = plain.known;
  if (what == KDR3_AVERAGE) {
    const Responses made = meanresponses(known.model(), rows);
    std::copy(made.value.begin(), made.value.end(), values);
    return;
  }
  plain.eta.fill(rows.offset);
  addAB(plain.eta.data(), rows.x.data(), known.results.est.gammahat.data(), known.plan.M, 1, known.plan.g);
  if (ofunits(what)) {
    addeffects(plain, rows.d, known.given.level2, units.unit2, known.plan.p);
    addeffects(plain, rows.e, known.given.level3, units.unit3, known.plan.b);
  }
  if (!linearones(what)) responsecurve(known.outcome, plain.eta.data(), 1.0, plain.curve);
  const Array<double>& made = linearones(what) ? plain.eta : plain.curve.mean;
  std::copy(made.begin(), made.end(), values);
}

// Those of units whose modes have not settled stay absent.
void takeerrors(UnitEffects& effects, kdr3_predicted what, const PredictorRows& rows, const RowUnits& units,
                double* errors) {
  const auto made = responsesof(effects.known, what, rows, ofunits(what) ? effectsof(effects, units) : nullptr);
  for (std::size_t k = 0; made && k < made->value.size(); ++k)
    errors[k] = predictionof(effects.known.model(), *made, static_cast<int>(k), IntervalScale::value).se;
}

bool foreignunits(const kdr3_fitted& given, const kdr3_rows& rows) {
  const auto beyond = [&](const std::ptrdiff_t* units, std::size_t count) {
    return units != nullptr && std::any_of(units, units + rows.records, [count](std::ptrdiff_t unit) {
             return unit >= static_cast<std::ptrdiff_t>(count);
           });
  };
  return beyond(rows.unit2, given.units2) || beyond(rows.unit3, given.units3);
}

bool known2(const kdr3_fitted& given) { return given.random2 == 0 || given.level2 != nullptr; }
bool known3(const kdr3_fitted& given) { return given.random3 == 0 || given.level3 != nullptr; }

const char* checkrows(const Known& known, const kdr3_rows& rows) {
  const RowWidths& widths = known.widths;
  if ((widths.fixed > 0 && rows.fixed == nullptr) || (widths.random2 > 0 && rows.random2 == nullptr) ||
      (widths.random3 > 0 && rows.random3 == nullptr))
    return "Rows need the columns of the fixed and of the random effects.";
  return foreignunits(known.given, rows) ? "A row has a unit that the fit does not have." : nullptr;
}

const char* checkunits(const Known& known, const kdr3_rows* own, const kdr3_rows& rows, bool errors) {
  if (rows.unit2 == nullptr && rows.unit3 == nullptr) return nullptr;
  if (!known2(known.given) || !known3(known.given)) return "The fit has no posteriors of the random effects.";
  if (!errors) return nullptr;
  if (own == nullptr || own->size < sizeof(kdr3_rows) || own->outcome == nullptr || own->unit2 == nullptr ||
      (known.given.units3 > 0 && own->unit3 == nullptr))
    return "Errors of known units need the records of the fit.";
  const auto beyond = [&](double place) { return !(place >= 0.0 && place < known.outcome.categories); };
  if (known.outcome.categorical() && std::any_of(own->outcome, own->outcome + own->records, beyond))
    return "An outcome of the fit is no place of a category.";
  return checkrows(known, *own);
}

}  // namespace

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

kdr3_status kdr3_predict(const kdr3_fitted* fitted, const kdr3_rows* own, const kdr3_rows* rows, kdr3_predicted what,
                         double* values, double* errors) {
  return guarded([&]() -> kdr3_status {
    if (fitted == nullptr || rows == nullptr || fitted->size < offsetof(kdr3_fitted, weights1) ||
        rows->size < sizeof(kdr3_rows))
      return error("Predictions need a fitted model and rows whose sizes are set.");
    if (fitted->family < KDR3_NORMAL || fitted->family > KDR3_ORDINAL || what < KDR3_LINEAR || what > KDR3_UNITRESPONSE)
      return error("The family, or what is to be predicted, is none that is known.");
    if (const char* words = obstacle(*fitted, outcomeof(*fitted)); words != nullptr) return error(words);
    const Known known = knownof(*fitted);
    if (errors != nullptr && fitted->covariance == nullptr) return error("Errors need the covariance.");
    if (const char* words = checkrows(known, *rows); words != nullptr) return error(words);
    const bool units = ofunits(what);
    if (units)
      if (const char* words = checkunits(known, own, *rows, errors != nullptr); words != nullptr) return error(words);
    UnitEffects effects = startunits(known, units && errors != nullptr ? own : nullptr);
    PlainValues plain{known, emptycurve(known.outcome, known.plan.M), Array<double>(at(known.plan.M))};
    const std::size_t K = linearones(what) ? at(known.plan.M) : at(plain.curve.K);
    PredictorRows row = emptyrows(known.plan);
    for (std::size_t i = 0; i < rows->records; ++i) {
      double* const value = values != nullptr ? values + i * K : nullptr;
      double* const wrong = errors != nullptr ? errors + i * K : nullptr;
      for (double* to : {value, wrong})
        if (to != nullptr) std::fill_n(to, K, absent);
      if (!rowof(known, *rows, i, row)) continue;
      const RowUnits of = unitsof(*rows, i);
      if (value != nullptr) plainvalues(plain, what, row, of, value);
      if (wrong != nullptr) takeerrors(effects, what, row, of, wrong);
    }
    return KDR3_OK;
  });
}
