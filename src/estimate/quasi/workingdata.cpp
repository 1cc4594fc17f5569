#include "estimate/quasi/workingdata.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "estimate/linear/crossproducts.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/runpass.h"
#include "estimate/quasi/marginal.h"
#include "kernel/sizes.h"
#include "report/stream.h"

namespace kdr {

namespace {

// The layout of the file from the first step on: the outcome, Z where it is wanted, the columns of A and the wanted
// variables.
RecordLayout workinglayout() {
  RecordLayout layout;
  layout.observed = layout.width++;
  layout.outcome = run.out.resfil1 ? layout.width++ : -1;
  layvariables(layout);
  return layout;
}

// The file that a step writes, when it does.
struct Rewriting {
  std::FILE* stream = nullptr;
  RecordLayout layout;
  UnitBlock unit;
};

// The step at hand: the coefficients of the unit and the rows of the record.
struct Step {
  const WorkingStep& kind;
  const MacroState& state;
  Link link;
  MarginalCorrection correction;
  UnitMeans means;
  Array<double> beta, x, d, e;
  UnitBlock unit;
  Array<double> eta, z, root;  // of its records: predictor, Z, root of the working weight
  double cap = -1.0;           // the largest rate met so far
  std::size_t record = 0;      // of the data set, the first one of the unit
  int limited = 0;             // records whose weight is held at the limit
};

[[noreturn]] void badoutcome(const char* words) {
  report("\nPlease check your data.  The outcome variable %s must be ", bareword(run.model.outname).c_str());
  report("%s.\n\n", words);
  std::printf("\nPlease check your data.  The outcome variable %s must be %s.\n\n", leftname(run.model.outname).c_str(),
              words);
  stoprun(100);
}

[[noreturn]] void cannotestimate() {
  report("%s cannot estimate the model you have specified.\n", module);
  stopwith("%s cannot estimate the model you have specified.\n", module);
}

void checkoutcome(Link link, double y) {
  if (link == Link::logit && !(y >= 0.0 && y <= 1.0)) badoutcome("between 0 and 1");
  if (link == Link::log && !(y >= 0.0)) badoutcome("non-negative");
}

// The linear predictor of a record, corrected for the population average.
double corrected(const Pass& pass, Step& step, const double* x, double eta) {
  const Design& design = pass.design;
  for (std::size_t i = 0; i < step.d.size(); ++i) step.d[i] = x[design.random1[i]];
  for (std::size_t i = 0; i < step.e.size(); ++i)
    step.e[i] = level2entry(pass, i, step.unit.level2.data()) * x[design.owner2[i]];
  return marginalpredictor(step.correction, step.d.data(), step.e.data(), eta);
}

Linked linkedrecord(const Step& step, double eta) {
  if (step.kind.first) return linkedfitted(step.link, eta);
  if (step.link == Link::logit && strayed(eta)) {
    constexpr int lastrestart = 7;
    if (step.state.macro > lastrestart) cannotestimate();
    return linked(step.link, broughtback(eta));
  }
  if (step.link == Link::log && step.kind.capped && step.cap > 0.0) return linkedcapped(eta, step.cap);
  return linked(step.link, eta);
}

// What the whole unit tells before its records are gone through.
void lookover(Step& step) {
  const MacroState& state = step.state;
  const auto observed = [&](int i) {
    return step.unit.records[at(i) * at(state.layout.width) + at(state.layout.observed)];
  };
  if (step.kind.first && state.counts.empty())
    for (int i = 0; i < step.unit.nj; ++i) checkoutcome(step.link, observed(i));
  if (step.kind.capped)
    for (int i = 0; i < step.unit.nj; ++i)
      step.cap = std::max(step.cap, observed(i) / (state.counts.empty() ? 1.0 : state.counts[step.record + at(i)]));
}

// The linear predictors of the unit's records into step.eta.
void predict(const Pass& pass, Step& step) {
  const RecordLayout& layout = step.state.layout;
  const std::size_t npi = at(pass.npi);
  for (std::size_t i = 0; i < at(step.unit.nj); ++i) {
    const double* values = step.unit.records.data() + i * at(layout.width);
    double eta = 0.0;
    for (std::size_t c = 0; c < npi; ++c) {
      const int place = layout.column[c];
      step.x[c] = place < 0 ? 1.0 : values[place];
      eta += step.x[c] * step.beta[c];
    }
    step.eta[i] = step.kind.marginal ? corrected(pass, step, step.x.data(), eta) : eta;
  }
}

// Z and the root of the working weight from the predictors.
void makeworking(Step& step) {
  const RecordLayout& layout = step.state.layout;
  const Array<double>& counts = step.state.counts;
  const bool plainlogit = !step.kind.first && step.link == Link::logit;
  const double* observed = step.unit.records.data() + layout.observed;
  for (std::size_t i = 0; i < at(step.unit.nj); ++i, observed += layout.width) {
    const double eta = step.eta[i];
    const double count = counts.empty() ? 1.0 : counts[step.record + i];
    const Linked link = plainlogit && !strayed(eta) ? linked(Link::logit, eta) : linkedrecord(step, eta);
    const Working working = workingvalues(link, *observed, count);
    if (working.weight >= largestweight) ++step.limited;
    step.z[i] = working.z;
    step.root[i] = std::sqrt(working.weight);
  }
}

// The products of the unit's working records: a row is (row of A, Z) times the root of its working weight, and times
// its factor if it has one.
void addunit(const Pass& pass, Step& step, UnitProducts& products) {
  const RecordLayout& layout = step.state.layout;
  const int* column = layout.column.data();
  const double *records = step.unit.records.data(), *z = step.z.data(), *roots = step.root.data();
  const std::size_t width = at(layout.width), first = step.record;
  const bool factors = havefactors();
  crossproducts(pass.npi + 1, step.unit.nj, products.AA.data(), step.x.data(), [&](auto n, int i, double* x) {
    const double* values = records + at(i) * width;
    const double root = roots[i];
    for (int c = 0; c + 1 < n; ++c) x[c] = column[c] < 0 ? root : values[column[c]] * root;
    x[n - 1] = z[i] * root;
    if (factors) applyfactor(n, run.weights.factor1[first + at(i)], run.model.weighted, x, products.AA2);
  });
}

// The records of the unit in the layout of the file that is written.
void rewriteunit(const Step& step, Rewriting& to) {
  const RecordLayout& layout = to.layout;
  relayunit(step.unit, step.state.layout, to.unit, layout);
  if (layout.outcome >= 0)
    for (std::size_t i = 0; i < at(to.unit.nj); ++i)
      to.unit.records[i * at(layout.width) + at(layout.outcome)] = step.z[i];
  writeunit(to.stream, to.unit, layout.width, run.mdm.nvar2, false);
}

Step makestep(const Pass& pass, const MacroState& state, const WorkingStep& kind) {
  Step step{kind, state, run.model.outcome.link(), {}, makeunitmeans(pass), {}, {}, {}, {}, {}, {}, {}, {}};
  step.correction = {step.link, pass.p, pass.b, state.previous.taupi.data(), state.previous.taubeta.data()};
  step.beta.reset(at(pass.npi));
  step.x.reset(at(pass.npi) + 1);
  step.d.reset(at(pass.p));
  step.e.reset(at(pass.b));
  for (Array<double>* values : {&step.eta, &step.z, &step.root}) values->reset(at(run.mdm.maxnj));
  return step;
}

// The first step drops the variables that the model has no use for. A later one writes only if Z is wanted.
Rewriting startrewriting(const MacroState& state, const WorkingStep& kind) {
  Rewriting to;
  if (!kind.first && (kind.marginal || state.layout.outcome < 0)) return to;
  to.stream = startworking();
  to.layout = workinglayout();
  to.unit.records.reset(at(run.mdm.maxnj) * at(to.layout.width));
  return to;
}

}  // namespace

void prepareworkingdata(Pass& pass, MacroState& state, const WorkingStep& kind, Pass& next, const PassPlan& plan) {
  state.previous = run.est.copy();
  beginpass(next, plan);
  Step step = makestep(pass, state, kind);
  Rewriting to = startrewriting(state, kind);
  startunits(state.reader, run.files.working, 0, state.layout.width, run.mdm.nvar2, false);
  DataFold fold = startfold(next);
  sweepunits(
      pass.n2of, [&](int k) { takeunitmeans(pass, k, state.previous.gammahat.data(), pass.vstar.row(k), step.means); },
      [&](int k, std::size_t j, const double* hot) {
        neededunit(state.reader, step.unit);
        const UnitBlock& unit = step.unit;
        const Array<double>& means = kind.marginal ? step.means.theta : step.means.thetastar;
        level2coefficients(pass, unit.level2.data(), means.data(), step.beta.data());
        if (!kind.marginal) addlevel2effects(pass, j, hot + pass.store.atustar, step.beta.data());
        lookover(step);
        predict(pass, step);
        makeworking(step);
        beginproducts(fold.unit, k, unit);
        addunit(pass, step, fold.unit);
        if (to.stream != nullptr) rewriteunit(step, to);
        foldunit(fold);
        step.record += at(unit.nj);
      },
      [](int) {}, reading(pass.store.hot));
  finishfold(fold);
  state.limited = step.limited;
  if (to.stream == nullptr) return;
  finishworking(to.stream);
  state.layout = std::move(to.layout);
}

}  // namespace kdr
