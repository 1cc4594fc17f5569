// Records of a series that tests make up.
#pragma once

#include <cstddef>
#include <vector>

#include "series/subrun.h"

namespace kdr {

// Every field different from every other one, and from those of another `seed`.
inline SubrunRecord numberedrecord(const SubrunShape& shape, int seed) {
  SubrunRecord record = emptyrecord(shape);
  double next = seed;
  const auto fill = [&](Array<double>& values) {
    for (double& x : values) x = next += 1.0 / 64.0;
  };
  record.units2 = 100 + seed;
  record.units3 = 200 + seed;
  record.sigma2 = next += 1.0;
  record.loglik = -(next += 1.0);
  if (shape.fisher) record.sigma2variance = next += 1.0;
  for (Array<double>* values :
       {&record.taupi, &record.taubeta, &record.taucovariance, &record.reliability2, &record.reliability3,
        &record.effects.gammahat, &record.effects.vgamma, &record.effects.robust, &record.chisq2, &record.chisq3,
        &record.popaverage.gammahat, &record.popaverage.vgamma, &record.popaverage.robust})
    fill(*values);
  record.testunits2 = 300 + seed;
  record.testunits3 = 400 + seed;
  return record;
}

// All numbers of a record in one row, for comparison.
inline std::vector<double> flattened(const SubrunRecord& record) {
  std::vector<double> all = {static_cast<double>(record.units2),
                             static_cast<double>(record.units3),
                             record.sigma2,
                             record.loglik,
                             record.sigma2variance,
                             static_cast<double>(record.testunits2),
                             static_cast<double>(record.testunits3)};
  for (const Array<double>* values :
       {&record.taupi, &record.taubeta, &record.taucovariance, &record.reliability2, &record.reliability3,
        &record.effects.gammahat, &record.effects.vgamma, &record.effects.robust, &record.chisq2, &record.chisq3,
        &record.popaverage.gammahat, &record.popaverage.vgamma, &record.popaverage.robust})
    all.insert(all.end(), values->begin(), values->end());
  return all;
}

}  // namespace kdr
