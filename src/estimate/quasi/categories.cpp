#include "estimate/quasi/categories.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>

#include "core/formatted.h"
#include "estimate/linear/recordunits.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

Failure wrongcount(const Analysis& analysis, const char* than) {
  const Model& model = analysis.model;
  return failedwith(formatted("There are %s than the specified %d categories of %8.8s!\n", than,
                              model.outcome.categories, analysis.mdm.names1[at(model.outvar)].text));
}

// False when a value has no place in the table.
bool addvalue(CategoryTable& table, int most, double y) {
  const auto found = std::lower_bound(table.value.begin(), table.value.end(), y);
  const auto place = found - table.value.begin();
  if (found != table.value.end() && *found == y) {
    ++table.count[static_cast<std::size_t>(place)];
    return true;
  }
  if (table.value.size() == at(most)) return false;
  table.value.insert(found, y);
  table.count.insert(table.count.begin() + place, 1.0);
  return true;
}

}  // namespace

Failure readcategories(const Analysis& analysis, CategoryTable& table) {
  const int categories = analysis.model.outcome.categories;
  RecordUnits units;
  startrecords(units, analysis);
  while (nextblock(units)) {
    if (analysis.observer.givesup()) return failed(abandoned);
    for (std::size_t i = 0; i < at(units.unit.nj); ++i)
      if (!addvalue(table, categories, units.unit.records[i * at(units.layout.width) + at(units.layout.observed)]))
        return wrongcount(analysis, "more");
  }
  if (units.failure) return units.failure;
  return table.value.size() < at(categories) ? wrongcount(analysis, "less") : Failure{};
}

Array<Name> categorylabels(const double* values, int n) {
  Array<Name> labels(static_cast<std::size_t>(n));
  const auto distinct = [&] {
    std::set<std::string> texts;
    for (const Name& label : labels) texts.insert(label.text);
    return texts.size() == labels.size();
  };
  const auto label = [&](const char* format, int digits, int width) {
    for (int k = 0; k < n; ++k) {
      char text[400];
      std::snprintf(text, sizeof text, format, digits, values[k]);
      Name& name = labels[static_cast<std::size_t>(k)];
      std::snprintf(name.text, sizeof name.text, "%.*s", width, text);
    }
  };
  label("%.*f", 0, 4);
  for (int digits = 1; digits <= 12 && !distinct(); ++digits) label("%.*g", digits, 12);
  return labels;
}

std::vector<double> startingprobabilities(const Outcome& outcome, const CategoryTable& table) {
  constexpr double rare = 0.15;
  std::vector<double> p = table.count;
  double total = 0.0;
  for (const double n : p) total += n;
  for (double& x : p) x /= total;
  if (*std::min_element(p.begin(), p.end()) < rare) std::fill(p.begin(), p.end(), 1.0 / static_cast<double>(p.size()));
  if (outcome.ordinal())
    for (std::size_t c = 1; c < p.size(); ++c) p[c] += p[c - 1];
  p.pop_back();
  return p;
}

void responseprobabilities(const Outcome& outcome, const double* eta, int M, double* p) {
  if (outcome.ordinal()) {
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

bool workingresponses(const Outcome& outcome, const double* eta, const double* indicator, const double* p, int M,
                      double* z) {
  if (outcome.ordinal()) {
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

bool responseweights(const Outcome& outcome, const double* p, int M, double* W) {
  std::fill_n(W, square(M), 0.0);
  if (!outcome.ordinal()) {
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

Failure nearsingular() {
  Failure failure = failed(18);
  failure.consolewords = "The level-1 weight matrix is near singular. Unable to continue.\n";
  return failure;
}

}  // namespace kdr
