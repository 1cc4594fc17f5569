#include "estimate/linear/heterogeneous.h"

#include <algorithm>

#include "estimate/linear/results.h"
#include "kernel/sizes.h"

namespace kdr {

Failure checkheterogeneous(const Pass& pass) {
  const int b = pass.b;
  if ((b + 1) * pass.mdm().nunits3 * b / 2 < pass.nusable2 - pass.nusable3) return {};
  Failure failure = failedwith("");
  failure.reportlines = {"***Unable to perform heterogeneous iterations.",
                         "The level-2/level-3 ratio is too small for the number of random effects"};
  return failure;
}

void startheterogeneous(const Pass& pass, IterationState& state) {
  state.hettaupi.reset(at(pass.mdm().nunits3), pass.est.taupi.size());
  for (int k = 0; k < pass.mdm().nunits3; ++k)
    std::copy(pass.est.taupi.begin(), pass.est.taupi.end(), state.hettaupi.row(k));
}

Failure heterogeneousresults(Pass& pass, IterationState& state) {
  HeterogeneousResults results;
  results.stage = stageresults(pass, state);
  if (storefailure(pass.store)) return storefailure(pass.store);
  Array<double>& T = pass.est.taupi;
  results.mean.reset(T.size());
  T.fill(0.0);
  for (int k = 0; k < pass.mdm().nunits3; ++k) {
    const double* Tk = state.hettaupi.row(k);
    for (std::size_t i = 0; i < T.size(); ++i) {
      results.mean[i] += Tk[i] / pass.mdm().nunits3;
      T[i] += pass.n2of[k] * Tk[i] / pass.mdm().nunits2;
    }
  }
  results.weightedmean = T.copy();
  results.taupi = std::move(state.hettaupi);
  tellobserver(pass.observer().heterogeneous, results);
  return {};
}

}  // namespace kdr
