#include "estimate/quasi/workingdata.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "estimate/linear/crossproducts.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/runpass.h"
#include "estimate/quadrature/quadratureloops.h"
#include "estimate/quasi/marginal.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The layout of the file from the first step on: the outcome, Z where it is wanted, the columns of A and the wanted
// variables.
RecordLayout workinglayout(const Analysis& analysis) {
  RecordLayout layout;
  layout.observed = layout.width++;
  layout.outcome = analysis.wanted.fitted ? layout.width++ : -1;
  layvariables(analysis, layout);
  return layout;
}

// The file that a step writes, when it does.
struct Rewriting {
  WorkingFile file;  // open when there is one
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
  Array<double> eta, z, root;       // of its records: predictor, Z, root of the working weight
  Array<double> y, n;               // outcomes and trials, for the loop over logits
  double cap = -1.0;                // the largest rate met so far
  std::size_t record = 0;           // of the data set, the first one of the unit
  int limited = 0;                  // records whose weight is held at the limit
  int saturated = 0;                // records with next to none
  Array<double>* damped = nullptr;  // predictors of the last working data, where steps from them are held short
  int held = 0;                     // records whose step is
  bool strays = false;              // `failure` is of a predictor that runs away
  Failure failure{};                // the first; units behind it are passed over
};

Failure cannotestimate() {
  const std::string words = std::string(module) + " cannot estimate the model you have specified.\n";
  return failedwith(words, words);
}

// The linear predictor of a record, corrected for the population average. A rate starts no higher than the largest one
// met: from far above it each pass would come down by 1.
double corrected(const Pass& pass, Step& step, const double* x, double eta) {
  const Design& design = pass.design;
  for (std::size_t i = 0; i < step.d.size(); ++i) step.d[i] = x[design.random1[i]];
  for (std::size_t i = 0; i < step.e.size(); ++i)
    step.e[i] = level2entry(pass, i, step.unit.level2.data()) * x[design.owner2[i]];
  const double mean = marginalpredictor(step.correction, step.d.data(), step.e.data(), eta);
  return step.link == Link::log && step.cap > 0.0 ? std::min(mean, std::log(step.cap)) : mean;
}

// Where a rate can't be: thousands of times the largest of the data, or 1e-26 of it. One count beyond all others throws
// the fixed effects there, and from far above it each pass would come down by 1.
bool strayedrate(const MacroState& state, double eta) {
  constexpr double above = 8.0, below = 60.0;
  if (!(state.largestrate > 0.0)) return false;
  const double largest = std::log(state.largestrate);
  return !(eta <= largest + above && eta >= largest - below);
}

// A predictor that has run away: in the first macro iterations it starts again, later all go by short steps, or the
// step fails.
Linked runaway(Step& step, double eta) {
  constexpr int lastrestart = 7;
  const bool early = step.state.macro <= lastrestart && step.kind.predictor == Predictor::conditional;
  if (!early && step.damped == nullptr) step.strays = true;
  if (step.link == Link::logit) {
    if (!early && !step.failure) step.failure = cannotestimate();
    return linked(step.link, broughtback(eta));
  }
  constexpr double least = -600.0;  // below it Z is no number
  if (step.damped != nullptr) return linked(step.link, std::max(eta, least));
  const double largest = std::log(step.state.largestrate);
  return linked(step.link, eta > largest ? largest : std::log(step.state.mean));
}

Linked linkedrecord(Step& step, double eta) {
  if (step.kind.first) return linkedfitted(step.link, eta);
  if (step.link == Link::logit) {
    // What runs away for a known reason may.
    return strayed(eta) && !step.state.separation.known() ? runaway(step, eta) : linked(step.link, eta);
  }
  if (step.kind.capped && step.cap > 0.0) return linkedcapped(eta, step.cap);
  return strayedrate(step.state, eta) ? runaway(step, eta) : linked(step.link, eta);
}

// What the whole unit tells before its records are gone through.
void lookover(Step& step) {
  const MacroState& state = step.state;
  const auto observed = [&](int i) {
    return step.unit.records[at(i) * at(state.layout.width) + at(state.layout.observed)];
  };
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
    if (step.kind.predictor == Predictor::corrected) eta = corrected(pass, step, step.x.data(), eta);
    step.eta[i] = eta;
  }
}

// The predictor of record `i` of the unit, no farther than a step from that of its last working data.
double nearlast(Step& step, std::size_t i, double eta) {
  constexpr double most = 2.0;
  double& last = (*step.damped)[step.record + i];
  if (std::fabs(eta - last) > most) ++step.held;
  return last = std::clamp(eta, last - most, last + most);
}

// Whether the unit's records are logits that go their way: no first step, none held short, none run away.
bool plainlogits(const Step& step) {
  if (step.kind.first || step.link != Link::logit || step.damped != nullptr) return false;
  return std::none_of(step.eta.begin(), step.eta.begin() + step.unit.nj, strayed);
}

void makelogits(Step& step) {
  const Array<double>& counts = step.state.counts;
  const std::size_t nj = at(step.unit.nj), width = at(step.state.layout.width), stride = padded(nj);
  const double* observed = step.unit.records.data() + step.state.layout.observed;
  for (std::size_t i = 0; i < nj; ++i) step.y[i] = observed[i * width];
  if (!counts.empty()) std::copy_n(counts.data() + step.record, nj, step.n.data());
  for (std::size_t i = nj; i < stride; ++i) {
    step.eta[i] = 0.0;
    step.n[i] = 1.0;
  }
  LogitRecords records;
  records.stride = stride;
  records.eta = step.eta.data();
  records.y = step.y.data();
  records.n = counts.empty() ? nullptr : step.n.data();
  records.largest = largestweight;
  records.least = leastweight;
  records.z = step.z.data();
  records.root = step.root.data();
  fastestquadratureloops().workinglogits(records);
  step.limited += static_cast<int>(records.held);
  step.saturated += static_cast<int>(records.mute);
}

// Z and the root of the working weight from the predictors.
void makeworking(Step& step) {
  if (plainlogits(step)) return makelogits(step);
  const RecordLayout& layout = step.state.layout;
  const Array<double>& counts = step.state.counts;
  const double* observed = step.unit.records.data() + layout.observed;
  for (std::size_t i = 0; i < at(step.unit.nj); ++i, observed += layout.width) {
    const double eta = step.damped != nullptr ? nearlast(step, i, step.eta[i]) : step.eta[i];
    const double count = counts.empty() ? 1.0 : counts[step.record + i];
    const Linked link = linkedrecord(step, eta);
    const Working working = workingvalues(link, *observed, count);
    if (working.weight >= largestweight) ++step.limited;
    if (working.weight < leastweight) ++step.saturated;
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
  const Model& model = pass.model();
  const bool factors = havefactors(model);
  crossproducts(pass.npi + 1, step.unit.nj, products.AA.data(), step.x.data(), [&](auto n, int i, double* x) {
    const double* values = records + at(i) * width;
    const double root = roots[i];
    for (int c = 0; c + 1 < n; ++c) x[c] = column[c] < 0 ? root : values[column[c]] * root;
    x[n - 1] = z[i] * root;
    if (factors) applyfactor(n, step.state.factors[first + at(i)], model.weighted, x, products.AA2);
  });
}

// The records of the unit in the layout of the file that is written.
void rewriteunit(const Step& step, Rewriting& to) {
  const RecordLayout& layout = to.layout;
  relayunit(step.unit, step.state.layout, to.unit, layout);
  if (layout.outcome >= 0)
    for (std::size_t i = 0; i < at(to.unit.nj); ++i)
      to.unit.records[i * at(layout.width) + at(layout.outcome)] = step.z[i];
  writeunit(to.file.file(), to.unit, layout.width, step.state.analysis.mdm.nvar2, false,
            step.state.analysis.mdm.numericids);
}

Step makestep(const Pass& pass, MacroState& state, const WorkingStep& kind) {
  Step step{kind, state, pass.model().outcome.link(), {}, makeunitmeans(pass), {}, {}, {}, {}, {}, {}, {}, {}, {}, {}};
  if (!state.damped.empty()) step.damped = &state.damped;
  step.correction = {step.link, pass.p, pass.b, state.previous.taupi.data(), state.previous.taubeta.data()};
  step.beta.reset(at(pass.npi));
  step.x.reset(at(pass.npi) + 1);
  step.d.reset(at(pass.p));
  step.e.reset(at(pass.b));
  for (Array<double>* values : {&step.eta, &step.z, &step.root, &step.y, &step.n})
    values->reset(padded(at(pass.mdm().maxnj)));
  return step;
}

// The first step drops the variables that the model has no use for. A later one writes only if Z is wanted.
Failure startrewriting(const MacroState& state, const WorkingStep& kind, Rewriting& to) {
  if (!kind.first && (kind.predictor != Predictor::conditional || state.layout.outcome < 0)) return {};
  if (Failure failure = startworking(to.file)) return failure;
  to.layout = workinglayout(state.analysis);
  to.unit.records.reset(at(state.analysis.mdm.maxnj) * at(to.layout.width));
  return {};
}

// One step. `strays` tells whether it fails for a predictor that runs away.
Failure makedata(Pass& pass, MacroState& state, const WorkingStep& kind, Pass& next, const PassPlan& plan,
                 bool& strays) {
  const MdmData& mdm = state.analysis.mdm;
  if (Failure failure = beginpass(next, state.analysis, plan)) return failure;
  Step step = makestep(pass, state, kind);
  Rewriting to;
  if (Failure failure = startrewriting(state, kind, to)) return failure;
  startunits(state.reader, mdm, state.working.file(), 0, state.layout.width, mdm.nvar2, false);
  DataFold fold = startfold(next);
  sweepunits(
      pass.n2of, [&](int k) { takeunitmeans(pass, k, state.previous.gammahat.data(), pass.vstar.row(k), step.means); },
      [&](int k, std::size_t j, const double* hot) {
        if (step.failure) return;
        if (!neededunit(state.reader, step.unit)) step.failure = state.reader.failure;
        if (step.failure) return;
        const UnitBlock& unit = step.unit;
        const bool conditional = kind.predictor == Predictor::conditional;
        const Array<double>& means = conditional ? step.means.thetastar : step.means.theta;
        level2coefficients(pass, unit.level2.data(), means.data(), step.beta.data());
        if (conditional) addlevel2effects(pass, j, hot + pass.store.atustar, step.beta.data());
        lookover(step);
        predict(pass, step);
        makeworking(step);
        if (step.failure) return;
        beginproducts(fold.unit, k, unit);
        addunit(pass, step, fold.unit);
        if (to.file.isopen()) rewriteunit(step, to);
        foldunit(fold);
        step.record += at(unit.nj);
      },
      [](int) {}, reading(pass.store.hot));
  strays = step.strays;
  if (step.failure) return std::move(step.failure);
  if (storefailure(pass.store)) return storefailure(pass.store);
  if (Failure failure = finishfold(fold)) return failure;
  state.limited = step.limited;
  state.saturated = step.saturated;
  state.shortened = step.held > 0;
  if (kind.capped) state.largestrate = step.cap;
  if (!to.file.isopen()) return {};
  if (Failure failure = finishworking(std::move(to.file), state.working)) return failure;
  state.layout = std::move(to.layout);
  return {};
}

}  // namespace

Failure prepareworkingdata(Pass& pass, MacroState& state, const WorkingStep& kind, Pass& next, const PassPlan& plan) {
  state.previous = pass.est.copy();
  if (kind.predictor == Predictor::corrected) state.damped = {};
  bool strays = false;
  Failure failure = makedata(pass, state, kind, next, plan, strays);
  if (!strays || !state.damped.empty()) return failure;
  // Whole steps overshoot for good. Short ones come to the same fixed points, wherever they start.
  state.damped.reset(at(state.analysis.mdm.numl1rec));
  if (state.analysis.model.outcome.link() == Link::log) state.damped.fill(std::log(state.mean));
  next = Pass();
  return makedata(pass, state, kind, next, plan, strays);
}

}  // namespace kdr
