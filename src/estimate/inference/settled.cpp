#include "estimate/inference/settled.h"

#include "core/formatted.h"

namespace kdr {

std::string unsettledwords(const PassResults& results) {
  const bool fitted =
      results.kind == PassKind::linear || results.kind == PassKind::pql || results.kind == PassKind::categories;
  if (!fitted || results.errors.stepleft < settled) return {};
  return formatted(
      "WARNING: the variance components have not settled: the next scoring step would move one of them\n"
      "by %.1f standard errors. You may want to re-run the analysis with a smaller %s.",
      results.errors.stepleft, results.kind == PassKind::linear ? "STOPVAL" : "STOPMICRO");
}

std::string unsettledaverage(const PassResults& results) {
  if (!results.unsettled) return {};
  return formatted("WARNING: the fixed effects of the population average have not settled in %d passes.",
                   results.rounds);
}

}  // namespace kdr
