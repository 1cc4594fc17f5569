#include "estimate/bootstrap/bootstrap.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <vector>

#include "estimate/inference/teststatistics.h"
#include "estimate/likelihood/unitthreads.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// What an interval is of: its value in the fit and in the replicates, and the range that it is known to lie in.
struct Draws {
  double estimate = 0.0;
  std::vector<double> values;
  double least = -HUGE_VAL, most = HUGE_VAL;
};

// The value below which a share lies: place share (B + 1) of the sorted values, interpolated.
double quantile(const std::vector<double>& sorted, double share) {
  const double last = static_cast<double>(sorted.size()), place = std::clamp(share * (last + 1.0), 1.0, last) - 1.0;
  const auto i = static_cast<std::size_t>(place);
  const double next = i + 1 < sorted.size() ? sorted[i + 1] : sorted[i];
  return sorted[i] + (place - std::floor(place)) * (next - sorted[i]);
}

constexpr std::size_t fewest = 20;  // replicates that an interval needs

void take(Draws draws, Interval& percentile, Interval& basic) {
  std::erase_if(draws.values, [](double x) { return !std::isfinite(x); });
  if (draws.values.size() < fewest || !std::isfinite(draws.estimate)) return;
  std::ranges::sort(draws.values);
  if (draws.values.front() == draws.values.back() && draws.estimate != 0.0) return;  // the model holds it
  const double low = quantile(draws.values, 0.025), high = quantile(draws.values, 0.975);
  percentile = {true, low, high};
  basic = {true, std::max(2.0 * draws.estimate - high, draws.least), std::min(2.0 * draws.estimate - low, draws.most)};
}

// The estimates of a row.
struct Row {
  const double* gamma;
  const double *pi, *beta;  // packed
  double sigma2;
};

struct Collector {
  const Replicates& made;
  const Array<double>& best;  // the row of the fit
  ProfileIntervals &percentile, &basic;

  [[nodiscard]] Row rowof(const double* values) const {
    const double* const pi = values + made.g;
    const double* const beta = pi + packedsize(made.p);
    return {values, pi, beta, beta[packedsize(made.b)]};
  }
  template <class Of>
  void add(Of of, Interval& atpercentile, Interval& atbasic, double least = -HUGE_VAL, double most = HUGE_VAL) const {
    Draws draws{of(rowof(best.data())), {}, least, most};
    for (int i = 0; i < made.asked; ++i)
      if (made.fitted[at(i)] != 0) draws.values.push_back(of(rowof(made.rows.row(i))));
    take(std::move(draws), atpercentile, atbasic);
  }
  void tau(Tau which, int n) const;
};

// A variance and, on its own scale for the basic interval, its standard deviation share the percentile interval; the
// basic interval of the deviation is squared.
void Collector::tau(Tau which, int n) const {
  const auto packed = [which](const Row& row) { return which == Tau::pi ? row.pi : row.beta; };
  std::vector<Interval>&variances = ofthe(which, percentile.variances.level2, percentile.variances.level3),
  &basicvariances = ofthe(which, basic.variances.level2, basic.variances.level3);
  std::vector<Interval>&correlations =
      ofthe(which, percentile.variances.correlations2, percentile.variances.correlations3),
  &basiccorrelations = ofthe(which, basic.variances.correlations2, basic.variances.correlations3);
  for (int i = 0; i < n; ++i) {
    const std::size_t ii = packedsize(i) + at(i);
    add([&](const Row& row) { return packed(row)[ii]; }, variances.emplace_back(), basicvariances.emplace_back(), 0.0);
    for (int j = 0; j < i; ++j) {
      const std::size_t ij = packedsize(i) + at(j), jj = packedsize(j) + at(j);
      add(
          [&](const Row& row) {
            return std::clamp(packed(row)[ij] / std::sqrt(packed(row)[ii] * packed(row)[jj]), -1.0, 1.0);
          },
          correlations.emplace_back(), basiccorrelations.emplace_back(), -1.0, 1.0);
    }
  }
}

}  // namespace

Replicates::Replicates(int replicates, int effects, int order2, int order3)
    : g(effects), p(order2), b(order3), fitted(at(replicates)), asked(replicates) {
  rows.reset(at(asked), at(g) + packedsize(p) + packedsize(b) + 1);
}

void Replicates::put(int replicate, const Estimates& est) {
  double* const row = rows.row(replicate);
  std::copy_n(est.gammahat.data(), g, row);
  pack(p, est.taupi.data(), row + g);
  pack(b, est.taubeta.data(), row + at(g) + packedsize(p));
  row[rows.width - 1] = est.sigma2;
}

void runreplicates(const BootstrapRequest& request, Replicates& made,
                   const std::function<bool(int replicate, int worker)>& fit) {
  std::atomic<bool> stopped{false};
  std::atomic<int> done{0};
  Array<char> tried(at(request.replicates));
  const auto asked = [&] {
    if (request.stops && request.stops()) stopped = true;
    return stopped.load();
  };
  Halt halt(asked);
  overplaces(at(request.replicates), request.threads, halt, [&](std::size_t i, int worker) {
    if (worker == 0) {
      static_cast<void>(asked());
      if (request.progress) request.progress(done);
    }
    if (stopped) return;
    made.fitted[i] = fit(static_cast<int>(i), worker) ? 1 : 0;
    if (made.fitted[i] == 0 && stopped) return;  // given up, not failed
    tried[i] = 1;
    ++done;
  });
  for (std::size_t i = 0; i < tried.size(); ++i) {
    made.tried += tried[i];
    made.failed += tried[i] - made.fitted[i];
  }
  if (request.progress) request.progress(done);
}

BootstrapResults bootstrapresults(const Replicates& made, const BootstrapRequest& request, const Estimates& est,
                                  bool intraclass) {
  BootstrapResults results;
  results.made = true;
  results.cases = request.cases;
  results.seed = request.seed;
  results.asked = made.asked;
  results.tried = made.tried;
  results.failed = made.failed;
  Replicates own(1, made.g, made.p, made.b);
  own.put(0, est);
  ProfileIntervals &percentile = results.percentile, &basic = results.basic;
  percentile.made = basic.made = true;
  const Collector collector{made, own.rows.cells, percentile, basic};
  for (std::size_t i = 0; i < at(made.g); ++i)
    collector.add([i](const Row& row) { return row.gamma[i]; }, percentile.effects.emplace_back(),
                  basic.effects.emplace_back());
  collector.tau(Tau::pi, made.p);
  collector.tau(Tau::beta, made.b);
  if (est.sigma2 > 0.0)
    collector.add([](const Row& row) { return row.sigma2; }, percentile.variances.sigma2, basic.variances.sigma2, 0.0);
  if (!intraclass) return results;
  percentile.intraclass = basic.intraclass = true;
  const auto third = [&](const Row& row) { return made.b > 0 ? row.beta[0] : 0.0; };
  const auto total = [&](const Row& row) { return row.pi[0] + third(row) + row.sigma2; };
  collector.add([&](const Row& row) { return (row.pi[0] + third(row)) / total(row); }, percentile.samelevel2,
                basic.samelevel2, 0.0, 1.0);
  if (made.b > 0)
    collector.add([&](const Row& row) { return third(row) / total(row); }, percentile.samelevel3, basic.samelevel3, 0.0,
                  1.0);
  return results;
}

}  // namespace kdr
