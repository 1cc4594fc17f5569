#include "estimate/quasi/categories.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "command/categories.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "estimate/linear/recordunits.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

const char* outcomename() { return run.mdm.names1[at(run.model.outvar)].text; }

void addvalue(CategoryTable& table, double y) {
  const auto found = std::lower_bound(table.value.begin(), table.value.end(), y);
  const auto place = found - table.value.begin();
  if (found != table.value.end() && *found == y) {
    ++table.count[static_cast<std::size_t>(place)];
    return;
  }
  if (table.value.size() == at(run.model.outcome.categories))
    stopwith("There are more than the specified %d categories of %8.8s!\n", run.model.outcome.categories,
             outcomename());
  table.value.insert(found, y);
  table.count.insert(table.count.begin() + place, 1.0);
}

}  // namespace

CategoryTable readcategories() {
  CategoryTable table;
  RecordUnits units;
  startrecords(units);
  while (nextblock(units)) {
    checksignals();
    for (std::size_t i = 0; i < at(units.unit.nj); ++i)
      addvalue(table, units.unit.records[i * at(units.layout.width) + at(units.layout.observed)]);
  }
  if (table.value.size() < at(run.model.outcome.categories))
    stopwith("There are less than the specified %d categories of %8.8s!\n", run.model.outcome.categories,
             outcomename());
  run.model.categorylabel = categorylabels(table.value.data(), run.model.outcome.categories);
  return table;
}

std::vector<double> startingprobabilities(const CategoryTable& table) {
  constexpr double rare = 0.15;
  std::vector<double> p = table.count;
  double total = 0.0;
  for (const double n : p) total += n;
  for (double& x : p) x /= total;
  if (*std::min_element(p.begin(), p.end()) < rare) std::fill(p.begin(), p.end(), 1.0 / static_cast<double>(p.size()));
  if (run.model.outcome.ordinal())
    for (std::size_t c = 1; c < p.size(); ++c) p[c] += p[c - 1];
  p.pop_back();
  return p;
}

void responseprobabilities(const double* eta, int M, double* p) {
  if (run.model.outcome.ordinal()) {
    for (int c = 0; c < M; ++c) p[c] = 1.0 / (1.0 + std::exp(-eta[c]));
    return;
  }
  // Over the largest term, so that no exponential overflows.
  double largest = 0.0;
  for (int c = 0; c < M; ++c) largest = std::max(largest, eta[c]);
  double total = std::exp(-largest);
  for (int c = 0; c < M; ++c) total += p[c] = std::exp(eta[c] - largest);
  for (int c = 0; c < M; ++c) p[c] /= total;
}

bool workingresponses(const double* eta, const double* indicator, const double* p, int M, double* z) {
  if (run.model.outcome.ordinal()) {
    for (int c = 0; c < M; ++c) {
      const double g = (1.0 - p[c]) * p[c];
      if (!(g > 0.0)) return false;
      z[c] = eta[c] + (indicator[c] - p[c]) / g;
    }
    return true;
  }
  // V^-1 = diag(1/p) + 1 1'/p_C
  double last = 1.0, sum = 0.0;
  for (int c = 0; c < M; ++c) {
    last -= p[c];
    sum += indicator[c] - p[c];
  }
  if (!(last > 0.0)) return false;
  for (int c = 0; c < M; ++c) {
    if (!(p[c] > 0.0)) return false;
    z[c] = eta[c] + (indicator[c] - p[c]) / p[c] + sum / last;
  }
  return true;
}

bool responseweights(const double* p, int M, double* W) {
  std::fill_n(W, square(M), 0.0);
  if (!run.model.outcome.ordinal()) {
    for (int c = 0; c < M; ++c)
      for (int d = 0; d < M; ++d) W[c * M + d] = c == d ? p[c] * (1.0 - p[c]) : -p[c] * p[d];
    return true;
  }
  const auto g = [&](int c) { return p[c] * (1.0 - p[c]); };
  for (int c = 0; c <= M; ++c) {
    const double q = (c < M ? p[c] : 1.0) - (c > 0 ? p[c - 1] : 0.0);  // of category c
    if (q == 0.0 || !std::isfinite(q)) return false;
    if (c < M) W[c * M + c] += g(c) * g(c) / q;
    if (c > 0) W[(c - 1) * M + c - 1] += g(c - 1) * g(c - 1) / q;
    if (c > 0 && c < M) W[c * M + c - 1] = W[(c - 1) * M + c] = -g(c) * g(c - 1) / q;
  }
  return true;
}

void nearsingular() {
  std::printf("The level-1 weight matrix is near singular. Unable to continue.\n");
  fail(18);
}

}  // namespace kdr
