// What a result of the C interface hands out.
#include "library/result.h"

#include <algorithm>
#include <cmath>

#include "kernel/distributions.h"
#include "kernel/sizes.h"

namespace kdr::library {

namespace {

void put(const Array<double>& values, std::size_t n, double* to) {
  if (to == nullptr) return;
  for (std::size_t i = 0; i < n; ++i) to[i] = i < values.size() ? values[i] : absent;
}

void putall(const Array<double>& values, double* to) {
  if (to != nullptr) std::ranges::copy(values, to);
}

constexpr const char* noposteriors = "Quasi-likelihood has no estimates, and so no posteriors of the random effects.";

}  // namespace

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

kdr3_status kdr3_result_summary(const kdr3_result* result, kdr3_summary* summary) {
  if (result == nullptr || summary == nullptr || summary->size < sizeof(kdr3_summary))
    return error("A summary needs its result and a struct whose size is set.");
  const PassResults& results = result->results;
  const bool quasi = results.kind == PassKind::pql || results.kind == PassKind::categories;
  const std::size_t size = summary->size;
  *summary = {};
  summary->size = size;
  summary->converged = results.ending == Ending::converged && result->converged ? 1 : 0;
  summary->iterations = quasi ? results.macro : results.iteration;
  summary->records = at(result->counts.records);
  summary->units2 = at(result->counts.units2);
  summary->units3 = at(result->counts.units3);
  summary->fixedeffects = result->g;
  summary->random2 = at(result->p);
  summary->random3 = at(result->b);
  summary->parameters = static_cast<std::size_t>(results.parameters);
  summary->loglikelihood = (results.kind == PassKind::linear ? results.loglik : results.marginal).value_or(absent);
  summary->sigma2 = results.est.sigma2;
  return KDR3_OK;
}

kdr3_status kdr3_result_fixed(const kdr3_result* result, double* estimates, double* covariance, double* robust,
                              double* df) {
  if (result == nullptr) return error("The result is missing.");
  const PassResults& results = result->results;
  const std::size_t g = result->g;
  put(results.est.gammahat, g, estimates);
  put(results.covariance, g * g, covariance);
  put(results.robust, g * g, robust);
  if (df != nullptr)
    for (std::size_t i = 0; i < g; ++i) df[i] = i < results.degrees.df.size() ? results.degrees.df[i] : absent;
  return KDR3_OK;
}

const char* kdr3_result_name(const kdr3_result* result, size_t i) {
  return result != nullptr && i < result->names.size() ? result->names[i].c_str() : nullptr;
}

kdr3_status kdr3_result_variances(const kdr3_result* result, double* taupi, double* taubeta, double* taupierrors,
                                  double* taubetaerrors, double* sigma2error) {
  if (result == nullptr) return error("The result is missing.");
  const PassResults& results = result->results;
  const std::size_t p = square(result->p), b = square(result->b);
  put(results.est.taupi, p, taupi);
  put(results.est.taubeta, b, taubeta);
  put(results.errors.taupi, p, taupierrors);
  put(results.errors.taubeta, b, taubetaerrors);
  if (sigma2error != nullptr)
    *sigma2error = results.errors.known && results.fixsigma2 == 0.0 && results.kind == PassKind::linear
                       ? results.errors.sigma2
                       : absent;
  return KDR3_OK;
}

kdr3_status kdr3_result_robustvariances(const kdr3_result* result, double* taupierrors, double* taubetaerrors) {
  if (result == nullptr) return error("The result is missing.");
  const TauErrors& robust = result->results.robusterrors;
  put(robust.taupi, square(result->p), taupierrors);
  put(robust.taubeta, square(result->b), taubetaerrors);
  return KDR3_OK;
}

kdr3_status kdr3_result_effects(const kdr3_result* result, double* level2, double* level3) {
  if (result == nullptr) return error("The result is missing.");
  if (result->posteriors.u.empty()) return error(noposteriors);
  putall(result->posteriors.u, level2);
  putall(result->posteriors.v, level3);
  return KDR3_OK;
}

kdr3_status kdr3_result_effectvariances(const kdr3_result* result, double* level2, double* level3) {
  if (result == nullptr) return error("The result is missing.");
  if (result->posteriors.uvariance.empty()) return error(noposteriors);
  putall(result->posteriors.uvariance, level2);
  putall(result->posteriors.vvariance, level3);
  return KDR3_OK;
}

kdr3_status kdr3_result_effectcovariances(const kdr3_result* result, double* both) {
  if (result == nullptr) return error("The result is missing.");
  put(result->posteriors.uv, at(result->counts.units2) * at(result->p) * at(result->b), both);
  return KDR3_OK;
}

kdr3_status kdr3_result_weights(const kdr3_result* result, double* level1, double* level2, double* level3) {
  if (result == nullptr) return error("The result is missing.");
  const auto hand = [](const Array<double>& weights, int n, double* to) {
    if (to == nullptr) return;
    if (weights.empty()) std::fill_n(to, at(n), 1.0);
    std::copy_n(weights.begin(), weights.empty() ? 0 : at(n), to);
  };
  hand(result->weights1, result->counts.records, level1);
  hand(result->weights2, result->counts.units2, level2);
  hand(result->weights3, result->counts.units3, level3);
  return KDR3_OK;
}

kdr3_status kdr3_result_joint(const kdr3_result* result, double* joint) {
  if (result == nullptr) return error("The result is missing.");
  const std::size_t all = packedsize(result->p) + packedsize(result->b) + result->g;
  put(result->results.joint, all * all, joint);
  return KDR3_OK;
}

kdr3_status kdr3_result_test(const kdr3_result* result, size_t i, int robust, kdr3_test* test) {
  if (result == nullptr || test == nullptr || test->size < sizeof(kdr3_test))
    return error("A test needs its result and a struct whose size is set.");
  const EffectTable& table = robust != 0 ? result->results.robusteffects : result->results.effects;
  const std::size_t size = test->size;
  *test = {};
  test->size = size;
  test->chisquare = test->p = test->df2 = absent;
  if (table.rows.empty()) return KDR3_OK;
  if (i >= table.hypotheses.size()) return error("There is no hypothesis of that number.");
  const WaldTest& wald = table.hypotheses[i];
  test->df = wald.r;
  if (!wald.computed || !wald.denominator) return KDR3_OK;
  test->chisquare = wald.chisquare.statistic;
  test->p = wald.chisquare.p;
  if (wald.chisquare.df2 != 0.0) test->df2 = wald.chisquare.df2;
  return KDR3_OK;
}

kdr3_status kdr3_result_replicates(const kdr3_result* result, size_t* asked, size_t* tried, double* rows) {
  if (result == nullptr) return error("The result is missing.");
  const Replicates& made = result->replicates;
  if (asked != nullptr) *asked = at(made.asked);
  if (tried != nullptr) *tried = at(result->replicatestried);
  if (rows == nullptr) return KDR3_OK;
  const std::size_t width = made.rows.width;
  for (std::size_t i = 0; i < at(made.asked); ++i)
    for (std::size_t j = 0; j < width; ++j)
      rows[i * width + j] = made.fitted[i] != 0 ? made.rows.row(static_cast<int>(i))[j] : absent;
  return KDR3_OK;
}

double kdr3_pvalue(kdr3_statistic kind, double statistic, double df1, double df2) {
  if (std::isnan(statistic) || !(df1 > 0.0) || (kind == KDR3_F && !(df2 > 0.0))) return absent;
  if (kind == KDR3_T) return std::isinf(df1) ? normalprob(statistic) : tprob(df1, statistic);
  if (kind == KDR3_CHISQUARE || (kind == KDR3_F && std::isinf(df2)))
    return chisqprob(df1, kind == KDR3_F ? statistic * df1 : statistic);
  return fprob(df1, df2, statistic);
}

const char* kdr3_result_document(const kdr3_result* result, kdr3_form form) {
  if (result == nullptr) return nullptr;
  return form == KDR3_CSV ? result->table.c_str() : result->json.c_str();
}

const char* kdr3_result_warning(const kdr3_result* result, size_t i) {
  return result != nullptr && i < result->warnings.size() ? result->warnings[i].c_str() : nullptr;
}

void kdr3_result_free(kdr3_result* result) { delete result; }
