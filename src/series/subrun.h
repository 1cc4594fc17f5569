// What one sub-run of a series leaves behind for the averages.
#pragma once

#include <optional>

#include "core/control.h"
#include "core/model.h"
#include "core/modelwalk.h"
#include "core/results.h"
#include "data/mdmdata.h"
#include "kernel/array.h"

namespace kdr {

// What all sub-runs of one series have in common.
struct SubrunShape {
  int q = 0, r = 0, g = 0;       // orders of taupi, taubeta and gammahat
  bool fisher = false;           // there is a covariance of the variance components
  bool popaverage = false;       // a Bernoulli, binomial or Poisson run: there are population-average fixed effects
  unsigned long long model = 0;  // fingerprint of the model; 0 where nobody asks
  bool sigma2fixed = false;      // sigma^2 is held, so that it has no variance
  bool fractional = false;       // the degrees of freedom of the fixed effects are no counts
  std::optional<PassKind> engine = std::nullopt;  // whose results the records are, where these aren't those of a pass

  // Elements of both taus.
  [[nodiscard]] int tauorder() const { return q * (q + 1) / 2 + r * (r + 1) / 2; }
};

// Fixed effects of one sub-run. The matrices are in units of the same record's sigma2.
struct SubrunEffects {
  Array<double> gammahat;  // [g]
  Array<double> vgamma;    // g squared; in a weighted run the weighted covariance over sigma2
  Array<double> robust;    // g squared; its first element is absent when it couldn't be computed
  Array<double> df;        // with shape.fractional, [g]: complete-data degrees of freedom; not of a population average
};

struct SubrunRecord {
  int units2 = 0, units3 = 0;  // usable units of the reliabilities
  double sigma2 = 0.0;
  double loglik = 0.0;
  double sigma2variance = 0.0;   // with shape.fisher; 0.0 when it isn't computable
  Array<double> taupi, taubeta;  // q squared, r squared
  Array<double>
      taucovariance;  // with shape.fisher: tauorder squared, lower triangles of taupi, then of taubeta by rows
  Array<double> reliability2, reliability3;  // [q], [r]
  SubrunEffects effects;
  int testunits2 = 0, testunits3 = 0;  // usable units of the chi-square tests
  Array<double> chisq2, chisq3;        // [q], [r]
  SubrunEffects popaverage;            // with shape.popaverage
};

// A record of this shape with all arrays zeroed.
[[nodiscard]] SubrunRecord emptyrecord(const SubrunShape& shape);

// The shape of the records of a series, from the complete model with its rows.
[[nodiscard]] SubrunShape seriesshape(const Model& model, const ModelRows& rows, const MdmData& data,
                                      const Control& control);

// The record of the results of a pass, without population-average effects.
[[nodiscard]] SubrunRecord subrunrecord(const SubrunShape& shape, const PassResults& results);

// Fixed effects of a pass in the form of a record, the covariances in units of the record's sigma^2.
[[nodiscard]] SubrunEffects subruneffects(const PassResults& results, double sigma2);

}  // namespace kdr
