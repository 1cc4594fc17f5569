#include "estimate/linear/linearrun.h"

#include <utility>

#include "estimate/linear/datapass.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/recordunits.h"
#include "estimate/linear/runpass.h"

namespace kdr {

namespace {

constexpr int farlimit = 10000;  // iterations when the user goes on at the limit

PassPlan linearplan(const Analysis& analysis) {
  PassPlan plan;
  plan.fixsigma2 = analysis.model.restrictions.fixsigma2.value_or(0.0);
  plan.restricted = analysis.control.restricted;
  plan.shares = true;
  plan.leastsquares = analysis.wanted.leastsquares;
  plan.searching = Searching::atedge;
  plan.hetit = analysis.control.hetit;
  plan.limit = analysis.control.numit;
  plan.stopval = analysis.control.stopval;
  plan.farlimit = farlimit;
  return plan;
}

// The data pass over the blocks of the MDM file, which become the working data file when a later reader wants the
// records.
Failure readrecords(const Analysis& analysis, LinearFit& fit) {
  RecordUnits units;
  startrecords(units, analysis);
  WorkingFile working;
  if (analysis.wanted.records)
    if (Failure failure = startworking(working)) return failure;
  units.working = working.file();
  Failure failure = datapass(fit.pass, [&](UnitProducts& unit) { return nextunit(units, unit); });
  if (units.failure) return units.failure;
  tellobserver(analysis.observer.recordsread, units.hash);
  if (failure || !working.isopen()) return failure;
  return finishworking(std::move(working), fit.working);
}

}  // namespace

Failure fitlinear(const Analysis& analysis, LinearFit& fit) {
  if (Failure failure = beginpass(fit.pass, analysis, linearplan(analysis))) return failure;
  if (Failure failure = readrecords(analysis, fit)) return failure;
  IterationState state;
  return runpass(fit.pass, state, fit.results);
}

}  // namespace kdr
