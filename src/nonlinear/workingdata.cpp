#include "nonlinear/workingdata.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "kernel/sizes.h"
#include "model/modelwalk.h"
#include "nonlinear/marginal.h"
#include "report/stream.h"

namespace kdr {

namespace {

constexpr int workingcolumns = 3;  // NONLINWT, the outcome, Z

// The layout of the file after the first step: where the columns of A and the wanted variables stand.
RecordLayout workinglayout() {
  RecordLayout layout;
  layout.raw = false;
  layout.weight = 0;
  layout.observed = 1;
  layout.outcome = 2;
  layout.width = workingcolumns;
  layout.place.reset(at(run.mdm.nvar1));
  layout.place.fill(-1);
  layout.place[at(run.kind.outvar) - 1] = layout.observed;
  const auto carry = [&](int v) {
    int& place = layout.place[at(v) - 1];
    if (place < 0) place = layout.width++;
    return place;
  };
  layout.column.reset(at(run.coef.npi));
  std::size_t c = 0;
  for (const CoefficientRow& coefficient : modelrows().coefficients)
    layout.column[c++] = coefficient.variable == 0 ? -1 : carry(coefficient.variable);
  for (std::size_t i = 0; i < at(run.model.nres1vars1); ++i) carry(run.model.res1vars1[i]);
  return layout;
}

// The step at hand: the two files, the coefficients of the unit and the rows of the record.
struct Step {
  const WorkingStep& kind;
  const RecordLayout& from;
  const RecordLayout& to;
  Family family;
  int macro;
  MarginalCorrection correction;
  std::vector<int> copied;  // for each column of `to` behind the first three, its place in a record of `from`
  Array<double> weights, theta, thetastar, beta, x, d, e;
  double cap = -1.0;       // the largest rate met so far
  std::size_t record = 0;  // of the data set
  int limited = 0;         // records whose weight is held at the limit
};

[[noreturn]] void badoutcome(const char* words) {
  report("\nPlease check your data.  The outcome variable %s must be ", bareword(run.kind.outname).c_str());
  report("%s.\n\n", words);
  std::printf("\nPlease check your data.  The outcome variable %s must be %s.\n\n", leftname(run.kind.outname).c_str(),
              words);
  stoprun(100);
}

[[noreturn]] void cannotestimate() {
  report("%s cannot estimate the model you have specified.\n", module);
  stopwith("%s cannot estimate the model you have specified.\n", module);
}

void checkoutcome(Family family, double y) {
  if (family == Family::binomial && !(y >= 0.0 && y <= 1.0)) badoutcome("between 0 and 1");
  if (family == Family::poisson && !(y >= 0.0)) badoutcome("non-negative");
}

// x and the linear predictor x'beta of a record, corrected for the population average.
double predictor(const Pass& pass, Step& step, const double* values, const double* level2) {
  double eta = 0.0;
  for (std::size_t c = 0; c < step.x.size(); ++c) {
    const int place = step.from.column[c];
    step.x[c] = place < 0 ? 1.0 : values[place];
    eta += step.x[c] * step.beta[c];
  }
  if (!step.kind.marginal) return eta;
  const Design& design = pass.design;
  for (std::size_t i = 0; i < step.d.size(); ++i) step.d[i] = step.x[design.random1[i]];
  for (std::size_t i = 0; i < step.e.size(); ++i) step.e[i] = level2entry(pass, i, level2) * step.x[design.owner2[i]];
  return marginalpredictor(step.correction, step.d.data(), step.e.data(), eta);
}

Linked linkedrecord(const Step& step, double eta) {
  if (step.kind.first) return linkedfitted(step.family, eta);
  if (step.family == Family::binomial && strayed(eta)) {
    constexpr int lastrestart = 7;
    if (step.macro > lastrestart) cannotestimate();
    return linked(step.family, broughtback(eta));
  }
  if (step.family == Family::poisson && step.kind.capped && step.cap > 0.0) return linkedcapped(eta, step.cap);
  return linked(step.family, eta);
}

// The records of the unit, in the new layout, into `out`.
void convertunit(const Pass& pass, Step& step, const MacroState& state, const UnitBlock& unit, UnitBlock& out) {
  const auto width = at(step.from.width), newwidth = at(step.to.width);
  const auto observed = [&](int i) { return unit.records[at(i) * width + at(step.from.observed)]; };
  const auto count = [&](int i) { return state.counts.empty() ? 1.0 : state.counts[step.record + at(i)]; };
  if (step.kind.first && state.counts.empty())
    for (int i = 0; i < unit.nj; ++i) checkoutcome(step.family, observed(i));
  if (step.kind.capped)
    for (int i = 0; i < unit.nj; ++i) step.cap = std::max(step.cap, observed(i) / count(i));
  if (out.records.size() < at(unit.nj) * newwidth) out.records.reset(at(unit.nj) * newwidth);
  for (int i = 0; i < unit.nj; ++i) {
    const double* values = unit.records.data() + at(i) * width;
    double* row = out.records.data() + at(i) * newwidth;
    const Linked record = linkedrecord(step, predictor(pass, step, values, unit.level2.data()));
    const Working working = workingvalues(record, observed(i), count(i));
    if (working.weight >= largestweight) ++step.limited;
    row[0] = working.weight;
    row[1] = observed(i);
    row[2] = working.z;
    for (std::size_t c = 0; c < step.copied.size(); ++c) row[workingcolumns + c] = values[step.copied[c]];
  }
  step.record += at(unit.nj);
  out.nj = unit.nj;
  out.id2 = unit.id2;
  out.id3 = unit.id3;
  if (out.level2.size() != unit.level2.size()) out.level2.reset(unit.level2.size());
  std::copy(unit.level2.begin(), unit.level2.end(), out.level2.begin());
}

Step makestep(const Pass& pass, const MacroState& state, const WorkingStep& kind, const RecordLayout& to) {
  Step step{kind, state.layout, to, familyof(), state.macro, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}};
  step.correction = {step.family, pass.p, pass.b, run.est.taupi.data(), run.est.taubeta.data()};
  step.copied.assign(at(to.width) - workingcolumns, 0);
  for (std::size_t v = 0; v < to.place.size(); ++v)
    if (to.place[v] >= workingcolumns) step.copied[at(to.place[v]) - workingcolumns] = state.layout.place[v];
  step.weights.reset(pass.design.owner3.size());
  for (Array<double>* values : {&step.theta, &step.thetastar}) values->reset(at(pass.nbeta));
  for (Array<double>* values : {&step.beta, &step.x}) values->reset(at(pass.npi));
  step.d.reset(at(pass.p));
  step.e.reset(at(pass.b));
  return step;
}

}  // namespace

Family familyof() { return run.kind.nonlin == 2 ? Family::poisson : Family::binomial; }

void prepareworkingdata(Pass& pass, MacroState& state, const WorkingStep& kind) {
  RecordLayout to = workinglayout();
  Step step = makestep(pass, state, kind, to);
  std::FILE* out = startworking();
  UnitReader reader;
  startunits(reader, run.files.working, 0, state.layout.width, run.mdm.nvar2, false);
  UnitBlock unit, converted;
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3weights(pass, k, step.weights.data());
        level2means(pass, step.weights.data(), run.est.gammahat.data(), step.theta.data());
        addlevel3effects(pass, k, pass.vstar.row(k), step.theta.data(), step.thetastar.data());
      },
      [&](int, std::size_t j, const double* hot) {
        if (!readunit(reader, unit)) stopwith("The working data file is damaged: it is cut off.\n");
        const Array<double>& means = kind.marginal ? step.theta : step.thetastar;
        level2coefficients(pass, unit.level2.data(), means.data(), step.beta.data());
        if (!kind.marginal) addlevel2effects(pass, j, hot + pass.store.atustar, step.beta.data());
        convertunit(pass, step, state, unit, converted);
        writeunit(out, converted, to.width, run.mdm.nvar2, false);
      },
      [](int) {}, reading(pass.store.hot));
  finishworking(out);
  state.layout = std::move(to);
  state.limited = step.limited;
  state.previous = run.est.copy();
}

}  // namespace kdr
