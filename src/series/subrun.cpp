#include "series/subrun.h"

#include <algorithm>
#include <cassert>

#include "core/constants.h"
#include "estimate/likelihood/engines.h"
#include "kernel/hash.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Without what stands behind the eight columns.
void addname(Hash& print, const Name& name) { print.add(name.text, 8); }

template <class T>
void addarray(Hash& print, const Array<T>& values) {
  print.add(values.size());
  for (const T value : values) print.add(value);
}

void addvariable(Hash& print, const Array<Name>& names, const Array<Centering>& center, int variable) {
  if (at(variable) < names.size()) addname(print, names[at(variable)]);
  print.add(at(variable) < center.size() ? static_cast<int>(center[at(variable)]) : 0);
}

// Over what makes the estimates of two data sets comparable: kind of model, categories, equations with their variables,
// random effects, centering, restrictions and weights. The data, the iteration limits and the output are not part of
// it.
unsigned long long fingerprint(const Model& model, const ModelRows& rows, const MdmData& data, const Control& control) {
  Hash print;
  const Outcome& outcome = model.outcome;
  const Restrictions& restrictions = model.restrictions;
  constexpr int kinds[] = {0, 1, 1, 2, 3, 3};  // by family
  for (const int value : {kinds[static_cast<int>(outcome.family)], outcome.linear() ? 1 : 0, outcome.ordinal() ? 1 : 0,
                          outcome.categories, model.nointercept1 ? 1 : 0, restrictions.diagtaupi ? 1 : 0,
                          restrictions.diagtaubeta ? 1 : 0, control.laplace ? 1 : 0, control.agqpoints,
                          control.agqauto ? 1 : 0, control.agqfixed ? 1 : 0})
    print.add(value);
  if (control.restricted || control.ddf != DegreesMethod::counts || control.clusterrobust)
    for (const int value : {control.restricted ? 1 : 0, control.clusterrobust ? 1 : 0, static_cast<int>(control.ddf),
                            control.ddfobserved ? 1 : 0, control.edgefull ? 1 : 0})
      print.add(value);
  // Records of an engine are none to average with those of quasi-likelihood.
  if (const std::optional<PassKind> engine = lastengine(control)) print.add(100 + static_cast<int>(*engine));
  if (model.weighted && model.rawweights) print.add(200);
  print.add(restrictions.fixsigma2.value_or(0.0));
  if (restrictions.haveesttau2) addarray(print, restrictions.esttau2);
  if (restrictions.haveesttau3) addarray(print, restrictions.esttau3);
  if (restrictions.havecontau2) addarray(print, restrictions.contau2);
  if (restrictions.havecontau3) addarray(print, restrictions.contau3);
  for (const int variable : {model.outvar, model.outcome.counted ? model.outcome.countvariable.value_or(0) : 0,
                             model.autovknown, model.wgtvar1})
    addname(print, data.names1[at(variable)]);
  addname(print, data.names2[at(model.wgtvar2)]);
  addname(print, data.names3[at(model.wgtvar3)]);
  for (const Name& label : model.categorylabel) addname(print, label);
  for (const CoefficientRow& row : rows.coefficients) {
    print.add(row.random ? 1 : 0);
    addvariable(print, data.names1, model.center1, row.threshold ? 0 : row.variable);
  }
  for (const TermRow& row : rows.terms) {
    print.add(2 * row.owner + (row.random ? 1 : 0));
    addvariable(print, data.names2, model.center2, row.variable);
  }
  for (const EffectRow& row : rows.effects) {
    print.add(row.term);
    print.add(row.removed ? -row.group : row.group);
    addvariable(print, data.names3, model.center3, row.variable);
  }
  return print.value();
}

// Statistics for which no unit was of use may be absent; they stay zero.
void takesame(Array<double>& to, const Array<double>& from) {
  if (from.size() == to.size()) to = from.copy();
}

void takestatistics(Array<double>& to, const std::vector<VarianceTest>& from) {
  if (from.size() != to.size()) return;
  for (std::size_t i = 0; i < to.size(); ++i) to[i] = from[i].chisquare.statistic;
}

}  // namespace

SubrunRecord emptyrecord(const SubrunShape& shape) {
  SubrunRecord record;
  record.taupi.reset(square(shape.q));
  record.taubeta.reset(square(shape.r));
  if (shape.fisher) record.taucovariance.reset(square(shape.tauorder()));
  record.reliability2.reset(at(shape.q));
  record.reliability3.reset(at(shape.r));
  record.chisq2.reset(at(shape.q));
  record.chisq3.reset(at(shape.r));
  const auto effects = [&](SubrunEffects& x) {
    x.gammahat.reset(at(shape.g));
    x.vgamma.reset(square(shape.g));
    x.robust.reset(square(shape.g));
  };
  effects(record.effects);
  if (shape.fractional) record.effects.df.reset(at(shape.g));
  if (shape.popaverage) effects(record.popaverage);
  return record;
}

SubrunShape seriesshape(const Model& model, const ModelRows& rows, const MdmData& data, const Control& control) {
  SubrunShape shape;
  for (const CoefficientRow& row : rows.coefficients) shape.q += row.random ? 1 : 0;
  for (const TermRow& row : rows.terms) shape.r += row.random ? 1 : 0;
  for (const EffectRow& row : rows.effects) shape.g += row.removed ? 0 : 1;
  shape.engine = lastengine(control);
  shape.fisher = control.fishertype != FisherType::none || shape.engine.has_value();
  shape.popaverage = model.outcome.single();
  shape.sigma2fixed = model.restrictions.fixsigma2.has_value();
  shape.fractional = control.ddf != DegreesMethod::counts;
  shape.model = fingerprint(model, rows, data, control);
  return shape;
}

SubrunEffects subruneffects(const PassResults& results, double sigma2) {
  SubrunEffects effects;
  effects.gammahat = results.est.gammahat.copy();
  effects.vgamma = results.covariance.copy();
  effects.robust.reset(effects.vgamma.size());
  if (results.robust.empty()) {
    effects.robust[0] = absent;
  } else {
    for (std::size_t i = 0; i < effects.robust.size(); ++i) effects.robust[i] = results.robust[i] / sigma2;
  }
  for (double& v : effects.vgamma) v /= sigma2;
  return effects;
}

SubrunRecord subrunrecord(const SubrunShape& shape, const PassResults& results) {
  SubrunRecord record = emptyrecord(shape);
  record.units2 = results.reliabilities.units2;
  record.units3 = results.reliabilities.units3;
  record.sigma2 = results.est.sigma2;
  record.loglik = results.loglik.value_or(absent);
  record.taupi = results.est.taupi.copy();
  record.taubeta = results.est.taubeta.copy();
  if (shape.fisher && results.errors.known) {
    record.sigma2variance = results.errors.sigma2variance;
    record.taucovariance = results.errors.covariance.copy();
  }
  takesame(record.reliability2, results.reliabilities.level2);
  takesame(record.reliability3, results.reliabilities.level3);
  record.effects = subruneffects(results, results.est.sigma2);
  if (shape.fractional) {
    record.effects.df.reset(at(shape.g));
    std::copy_n(results.degrees.df.data(), shape.g, record.effects.df.data());
  }
  record.testunits2 = results.tests.units2;
  record.testunits3 = results.tests.units3;
  takestatistics(record.chisq2, results.tests.level2);
  takestatistics(record.chisq3, results.tests.level3);
  assert(record.taupi.size() == square(shape.q) && record.taubeta.size() == square(shape.r));
  assert(record.effects.gammahat.size() == at(shape.g) && record.effects.vgamma.size() == square(shape.g));
  return record;
}

}  // namespace kdr
