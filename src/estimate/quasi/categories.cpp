#include "estimate/quasi/categories.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>

#include "core/formatted.h"
#include "estimate/linear/recordunits.h"
#include "estimate/quasi/family.h"
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

// Whether the first thresholds of an ordinal run from equal cuts come in order, from the proportions of the categories.
bool equalcutsrise(const std::vector<double>& proportion) {
  const auto C = static_cast<double>(proportion.size());
  double cumulated = 0.0, before = 0.0;
  for (std::size_t c = 0; c + 1 < proportion.size(); ++c) {
    cumulated += proportion[c];
    const double cut = static_cast<double>(c + 1) / C;
    const double z = std::log(cut / (1.0 - cut)) + (cumulated - cut) / (cut * (1.0 - cut));
    if (c > 0 && !(z > before)) return false;
    before = z;
  }
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
  if (table.value.empty()) return norecordleft();
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
  constexpr double rare = 0.15, least = 0.01;
  const auto C = static_cast<double>(table.count.size());
  std::vector<double> p = table.count;
  double total = 0.0;
  for (const double n : p) total += n;
  for (double& x : p) x /= total;
  if (*std::min_element(p.begin(), p.end()) < rare) {
    if (outcome.ordinal() && !equalcutsrise(p)) {
      double sum = 0.0;
      for (double& x : p) sum += x = std::max(x, least / C);
      for (double& x : p) x /= sum;
    } else {
      std::fill(p.begin(), p.end(), 1.0 / C);
    }
  }
  if (outcome.ordinal())
    for (std::size_t c = 1; c < p.size(); ++c) p[c] += p[c - 1];
  p.pop_back();
  return p;
}

void responseprobabilities(const Outcome& outcome, const double* eta, int M, double* p) {
  if (outcome.ordinal()) {
    for (int c = 0; c < M; ++c) p[c] = logitmean(eta[c]).mu;
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
    // (1 - p)/g = 1/p and -p/g = -1/(1 - p), where 1 - p is the mean at -eta
    for (int c = 0; c < M; ++c) {
      const double mean = indicator[c] != 0.0 ? p[c] : logitmean(-eta[c]).mu;
      if (!(mean > 0.0)) return false;
      z[c] = indicator[c] != 0.0 ? eta[c] + 1.0 / mean : eta[c] - 1.0 / mean;
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

bool responseweights(const Outcome& outcome, const double* eta, const double* p, int M, double* W) {
  std::fill_n(W, square(M), 0.0);
  if (!outcome.ordinal()) {
    for (int c = 0; c < M; ++c)
      for (int d = 0; d < M; ++d) W[c * M + d] = c == d ? p[c] * (1.0 - p[c]) : -p[c] * p[d];
    return true;
  }
  const auto g = [&](int c) { return logitmean(eta[c]).variance; };
  for (int c = 0; c <= M; ++c) {
    // q of category c without cancellation: F(b) - F(a) = F(b) F(-a) (1 - exp(a - b))
    const double above = c < M ? p[c] : 1.0, below = c > 0 ? logitmean(-eta[c - 1]).mu : 1.0;
    const double q = above * below * (c > 0 && c < M ? -std::expm1(eta[c - 1] - eta[c]) : 1.0);
    if (!(q > 0.0) || !std::isfinite(q)) return false;
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
