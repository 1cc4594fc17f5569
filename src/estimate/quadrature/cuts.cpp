#include "estimate/quadrature/cuts.h"

#include <algorithm>
#include <cmath>

#include "kernel/sizes.h"

namespace kdr {

namespace {

// phi and its derivatives by u.
struct Factor {
  double value, first, second;
};
Factor factorof(double s) {
  const double first = s / std::expm1(s), rest = -std::expm1(-s);
  return {std::log(rest), first, first * (1.0 - s / rest)};
}

}  // namespace

Level3Records cutrecords(const Level3Records& records, int categories) {
  const std::size_t units = at(records.units), total = records.start[units],
                    npi = records.x.size() / std::max<std::size_t>(total, 1), C = at(categories), thresholds = C - 2;
  Level3Records cuts;
  cuts.k = records.k;
  cuts.firstunit = records.firstunit;
  cuts.units = records.units;
  cuts.start.reset(units + 1);
  cuts.x.reset(2 * total * npi);
  cuts.w2 = records.w2.copy();
  cuts.w3 = records.w3.copy();
  cuts.y.reset(2 * total);
  cuts.categories.reset(C);
  std::size_t next = 0;
  const auto add = [&](std::size_t record, std::size_t cut, bool success) {
    double* x = cuts.x.data() + next * npi;
    std::copy_n(records.x.data() + record * npi, npi - thresholds, x);
    if (cut > 0) x[npi - thresholds + cut - 1] = 1.0;
    cuts.y[next++] = success ? 1.0 : 0.0;
  };
  for (std::size_t j = 0; j < units; ++j) {
    for (std::size_t i = records.start[j]; i < records.start[j + 1]; ++i) {
      const auto category = static_cast<std::size_t>(records.y[i]);
      ++cuts.categories[category];
      if (category + 1 < C) add(i, category, true);
      if (category > 0) add(i, category - 1, false);
    }
    cuts.start[j + 1] = next;
  }
  cuts.x.resize(next * npi);
  cuts.y.resize(next);
  return cuts;
}

void addcategories(const Frame& frame, const SphericalPoint& there, const Array<double>& categories, double& value,
                   double* score) {
  for (std::size_t c = 1, e = at(frame.g - frame.thresholds); e < at(frame.g); ++c, ++e) {
    const double s = there.g[e];
    const Factor factor = factorof(s);
    value += categories[c] * factor.value;
    score[e] = s * score[e] + categories[c] * factor.first;
  }
}

void addcategories(const Frame& frame, const SphericalPoint& there, const double* score, std::size_t P,
                   double* information, double* scale) {
  const std::size_t g = at(frame.g), thresholds = at(frame.thresholds);
  for (std::size_t c = 0; c < thresholds; ++c) {
    const std::size_t e = P - thresholds + c, place = g - thresholds + c;
    const double s = there.g[place], n = frame.categories[1 + c];
    const Factor factor = factorof(s);
    for (std::size_t i = 0; i < P; ++i) {
      information[e * P + i] *= s;
      information[i * P + e] *= s;
    }
    information[e * P + e] -= score[place] - n * factor.first + n * factor.second;
    scale[e] = s * s * scale[e] - n * factor.second;
  }
}

void startthresholds(const Frame& frame, double* gamma) {
  if (frame.thresholds == 0) return;
  constexpr double leastrecords = 0.5;  // of a category
  const std::size_t C = frame.categories.size();
  double below = std::max(frame.categories[0], leastrecords), total = 0.0;
  for (const double n : frame.categories) total += std::max(n, leastrecords);
  const auto logit = [total](double n) { return std::log(n / (total - n)); };
  for (std::size_t c = 1, e = at(frame.g - frame.thresholds); c + 1 < C; ++c, ++e) {
    const double n = std::max(frame.categories[c], leastrecords);
    gamma[e] = std::log(logit(below + n) - logit(below));
    below += n;
  }
}

}  // namespace kdr
