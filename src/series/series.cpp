#include "series/series.h"

#include <unistd.h>

#include <bit>
#include <cassert>
#include <concepts>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "report/averagedreport.h"
#include "report/modelrows.h"
#include "report/resultsdocument.h"
#include "report/stream.h"
#include "series/pooling.h"
#include "series/resultstore.h"

namespace kdr {

namespace {

struct Series {
  bool begun = false;  // the store was created or joined
  bool pooled = false;
  bool whole = false;  // the record of this sub-run has all its fields,
  bool ended = false;  // and its estimation came to its end
  SubrunShape shape;
  std::vector<SubrunRecord> records;  // of this process: one of a data set, all of plausible values
  AveragedFrame frame;
  Pooled averages;
};
Series series;

bool inseries() { return run.series.mimode || run.series.pvmode; }

// FNV-1a over what makes the estimates of two data sets comparable: kind of model, categories, equations with their
// variables, random effects, centering, restrictions and weights. The data, the iteration limits and the output are not
// part of it.
class Fingerprint {
 public:
  void add(std::integral auto value) {
    for (int i = 0; i < 8; ++i) hash = (hash ^ ((static_cast<unsigned long long>(value) >> (8 * i)) & 0xFF)) * prime;
  }
  void add(double value) { add(std::bit_cast<long long>(value)); }
  void add(const Name& name) {
    for (int i = 0; i < 8; ++i) hash = (hash ^ static_cast<unsigned char>(name.text[i])) * prime;
  }
  template <class T>
  void add(const Array<T>& values) {
    add(static_cast<long long>(values.size()));
    for (const T value : values) add(value);
  }
  [[nodiscard]] unsigned long long value() const { return hash; }

 private:
  static constexpr unsigned long long prime = 1099511628211ULL;
  unsigned long long hash = 14695981039346656037ULL;
};

void addvariable(Fingerprint& print, const Array<Name>& names, const Array<int>& center, int variable) {
  if (at(variable) < names.size()) print.add(names[at(variable)]);
  print.add(at(variable) < center.size() ? center[at(variable)] : 0);
}

unsigned long long fingerprint(const ModelRows& rows) {
  Fingerprint print;
  const Model& model = run.model;
  const Control& iter = run.control;
  const Outcome& outcome = model.outcome;
  constexpr int kinds[] = {0, 1, 1, 2, 3, 3};  // by family
  for (const int value : {kinds[static_cast<int>(outcome.family)], outcome.linear() ? 1 : 0, outcome.ordinal() ? 1 : 0,
                          outcome.categories, run.model.nointercept1 ? 1 : 0, run.model.restrictions.diagtaupi ? 1 : 0,
                          run.model.restrictions.diagtaubeta ? 1 : 0, iter.laplace ? 1 : 0, iter.agqpoints,
                          iter.agqauto ? 1 : 0, iter.agqfixed ? 1 : 0})
    print.add(value);
  print.add(run.model.restrictions.fixsigma2);
  if (run.model.restrictions.haveesttau2) print.add(run.model.restrictions.esttau2);
  if (run.model.restrictions.haveesttau3) print.add(run.model.restrictions.esttau3);
  if (run.model.restrictions.havecontau2) print.add(run.model.restrictions.contau2);
  if (run.model.restrictions.havecontau3) print.add(run.model.restrictions.contau3);
  for (const int variable : {run.model.outvar, run.model.outcome.counted ? run.model.outcome.countvariable : 0,
                             run.model.autovknown, run.model.wgtvar1})
    print.add(run.mdm.names1[at(variable)]);
  print.add(run.mdm.names2[at(run.model.wgtvar2)]);
  print.add(run.mdm.names3[at(run.model.wgtvar3)]);
  for (const Name& label : run.model.categorylabel) print.add(label);
  for (const CoefficientRow& row : rows.coefficients) {
    print.add(row.random ? 1 : 0);
    addvariable(print, run.mdm.names1, model.center1, row.threshold ? 0 : row.variable);
  }
  for (const TermRow& row : rows.terms) {
    print.add(2 * row.owner + (row.random ? 1 : 0));
    addvariable(print, run.mdm.names2, model.center2, row.variable);
  }
  for (const EffectRow& row : rows.effects) {
    print.add(row.term);
    print.add(row.removed ? -row.group : row.group);
    addvariable(print, run.mdm.names3, model.center3, row.variable);
  }
  return print.value();
}

// What the averages' tables take from the model.
AveragedFrame frameof(const ModelRows& rows, const SubrunShape& shape) {
  AveragedFrame frame;
  degreesoffreedom(frame.degrees);
  frame.sigma2fixed = run.model.restrictions.fixsigma2 != 0.0;
  frame.nterms2.reset(at(shape.q));
  frame.nfixedterms2.reset(at(shape.q));
  frame.nterms3.reset(at(shape.r));
  std::size_t nextpi = 0, nextbeta = 0;
  for (const CoefficientRow& coefficient : rows.coefficients) {
    for (int t = coefficient.firstterm; t < coefficient.firstterm + coefficient.nterms; ++t) {
      const TermRow& term = rows.terms[at(t)];
      if (term.random) frame.nterms3[nextbeta++] = term.neffects;
      if (coefficient.random) ++(term.random ? frame.nterms2 : frame.nfixedterms2)[nextpi];
    }
    nextpi += coefficient.random ? 1 : 0;
  }
  return frame;
}

// Fixed effects of a pass in the form of a record, the covariances in units of the record's sigma^2. That of a
// population-average pass is another one, by which its covariances cannot be brought back.
SubrunEffects effectsof(const PassResults& results, double sigma2) {
  SubrunEffects effects;
  effects.gammahat = results.est.gammahat.copy();
  effects.vgamma = results.covariance.copy();
  effects.robust.reset(effects.vgamma.size());
  if (results.robust.empty()) {
    effects.robust[0] = missingcode;
  } else {
    for (std::size_t i = 0; i < effects.robust.size(); ++i) effects.robust[i] = results.robust[i] / sigma2;
  }
  for (double& v : effects.vgamma) v /= sigma2;
  return effects;
}

// Statistics for which no unit was of use may be absent; they stay zero.
void takesame(Array<double>& to, const Array<double>& from) {
  if (from.size() == to.size()) to = from.copy();
}

SubrunRecord recordof(const SubrunShape& shape, const PassResults& results) {
  SubrunRecord record = emptyrecord(shape);
  record.units2 = results.reliabilities.units2;
  record.units3 = results.reliabilities.units3;
  record.sigma2 = results.est.sigma2;
  record.loglik = results.loglik;
  record.taupi = results.est.taupi.copy();
  record.taubeta = results.est.taubeta.copy();
  if (shape.fisher && results.errors.known) {
    record.sigma2variance = results.errors.sigma2variance;
    record.taucovariance = results.errors.covariance.copy();
  }
  takesame(record.reliability2, results.reliabilities.level2);
  takesame(record.reliability3, results.reliabilities.level3);
  record.effects = effectsof(results, results.est.sigma2);
  record.testunits2 = results.tests.units2;
  record.testunits3 = results.tests.units3;
  takesame(record.chisq2, results.tests.chisq2);
  takesame(record.chisq3, results.tests.chisq3);
  assert(record.taupi.size() == square(shape.q) && record.taubeta.size() == square(shape.r));
  assert(record.effects.gammahat.size() == at(shape.g) && record.effects.vgamma.size() == square(shape.g));
  return record;
}

void stopunusable(const std::string& problem) { stopwith("%s\n", problem.c_str()); }

// All usable sub-runs; `failed` gets the indices of the others. False, with the sentence on the console, when the store
// isn't usable.
bool gather(std::vector<SubrunRecord>& records, std::vector<int>& failed) {
  if (run.series.pvmode) {
    records = std::move(series.records);
    return true;
  }
  StoreHead head;
  if (const std::string problem = readstore(series.shape, head, &records); !problem.empty()) {
    std::printf("%s\n", problem.c_str());
    return false;
  }
  if (series.whole) {
    head.mistatus[run.series.miindex] = 1;
    records.push_back(std::move(series.records[0]));
  }
  for (int i = 0; i < head.nsets; ++i)
    if (head.mistatus[i] == 0) failed.push_back(i);
  return true;
}

// The averages into the open report.
bool writeaverages() {
  std::vector<SubrunRecord> records;
  std::vector<int> failed;
  if (!gather(records, failed)) return false;
  openaveragedreport();
  const Array<int>& df = series.frame.degrees.df;
  if (!records.empty()) series.averages = pool(series.shape, records, {df.data(), df.size()});
  averagedreport(records.empty() ? nullptr : &series.averages, series.frame, failed);
  series.pooled = true;
  return true;
}

}  // namespace

SubrunShape seriesshape() {
  SubrunShape shape;
  const ModelRows rows = modelrows();
  for (const CoefficientRow& row : rows.coefficients) shape.q += row.random ? 1 : 0;
  for (const TermRow& row : rows.terms) shape.r += row.random ? 1 : 0;
  for (const EffectRow& row : rows.effects) shape.g += row.removed ? 0 : 1;
  shape.fisher = run.control.fishertype != 0;
  shape.popaverage = run.model.outcome.single();
  shape.sigma2fixed = run.model.restrictions.fixsigma2 != 0.0;
  shape.model = fingerprint(rows);
  return shape;
}

void clearseries() {
  if (run.series.mimode && run.series.mifirst) removestore();
}

void beginseries() {
  if (!inseries()) return;
  if (run.series.mimode && run.series.pvmode)
    stopwith("A run cannot be a data set of a multiple imputation and a series of plausible values at once.\n");
  const SubrunShape shape = seriesshape();
  SeriesMode& mode = run.series;
  if (mode.mimode && !mode.mifirst) {
    StoreHead head;
    if (const std::string problem = joinstore(shape, mode.miindex, head); !problem.empty()) stopunusable(problem);
    mode.nsets = head.nsets;
    std::memcpy(mode.mistatus, head.mistatus, sizeof mode.mistatus);
  } else if (mode.mimode || mode.pvfirst) {
    startaveragedreport();
    if (mode.mimode) {
      createstore(shape);
      mode.nsets = 1;
      mode.mifirst = false;
    }
  }
  series.shape = shape;
  run.model.coef.ntaupi = shape.q;  // a pass finds the same; a last data set may fail before it has one
  run.model.coef.ntaubeta = shape.r;
  series.frame = frameof(modelrows(), shape);
  series.begun = true;
}

void storesubrun(const PassResults& results) {
  if (!inseries() || results.heterogeneous || results.loglik == missingcode) return;
  const std::size_t place = run.series.mimode ? 0 : at(run.series.pvindex);
  if (results.kind == PassKind::populationaverage) {
    if (place >= series.records.size()) return;
    series.records[place].popaverage = effectsof(results, series.records[place].sigma2);
    series.whole = true;
    return;
  }
  series.frame.degrees = {results.degrees.df.copy(), results.degrees.rough.copy()};
  series.records.resize(place);
  series.records.push_back(recordof(series.shape, results));
  series.whole = !series.shape.popaverage;
}

bool lastsubrun() {
  const SeriesMode& mode = run.series;
  if (mode.mimode) return mode.milast;
  return mode.pvmode && mode.pvindex == mode.nsets - 1;
}

const Pooled* poolseries() {
  series.ended = series.whole;
  if (!inseries() || !lastsubrun()) return nullptr;
  closereport();
  if (!writeaverages()) {
    series.pooled = true;  // the stop has nothing to add
    stoprun(100);
  }
  // The store goes only once what it held stands in the report.
  if (std::fflush(run.report.stream) != 0 || std::ferror(run.report.stream) != 0) fail(5);
  if (run.series.mimode) removestore();
  return series.averages.M > 0 ? &series.averages : nullptr;
}

void closeseries(int code) {
  if (!run.series.mimode) return;
  if (!series.begun && run.series.mifirst && code != 0) {
    std::printf("The first data set of the series failed before its model was known, so the series has not begun.\n");
    return;
  }
  if (!run.series.milast) {
    if (!series.begun || (code != 0 && code != unconvergedcode) || !series.ended) return;
    if (const std::string problem = appendrecord(series.shape, run.series.miindex, series.records[0]); !problem.empty())
      std::printf("%s\n", problem.c_str());
    return;
  }
  if (series.pooled) return;
  if (!series.begun) {
    std::printf("The last data set of the series failed before its model was known, so nothing was averaged.");
    if (access(storename, F_OK) == 0) std::printf(" The other results are kept in %s.", storename);
    std::printf("\n");
    return;
  }
  series.whole = false;
  if (!writeaverages()) return;
  closereport();
  removestore();
  writeaveragedresults();
}

}  // namespace kdr
