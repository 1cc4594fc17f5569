// Bootstrap intervals of a fit: the model is fitted again to outcomes drawn from it (parametric), or to level-3 units
// drawn with replacement (cases). Derived in docs/numerics.md, "Bootstrap".
#pragma once

#include <cstdint>
#include <functional>

#include "core/failure.h"
#include "core/results.h"
#include "kernel/array.h"

namespace kdr {

struct Replicates;

struct BootstrapRequest {
  int replicates = 0;
  std::uint64_t seed = 1;
  bool cases = false;
  int threads = 1;
  std::function<void(int done)> progress;  // may be empty; from the thread that called
  std::function<bool()> stops;             // the same: true ends the bootstrap with the replicates so far
  Replicates* kept = nullptr;              // gets the estimates of the replicates; null: nobody wants them
};

// The estimates of the replicates: a row each, fixed effects, lower triangles of both taus, sigma2.
struct Replicates {
  int g = 0, p = 0, b = 0;
  UnitTable<double> rows;
  Array<char> fitted;  // 1: the row is that of a fit that has converged
  int asked = 0, tried = 0, failed = 0;

  Replicates() = default;
  Replicates(int replicates, int effects, int order2, int order3);
  void put(int replicate, const Estimates& est);
};

// Runs fit(replicate, worker, row) for each in threads, until it is stopped. True: the row is filled by a fit that has
// converged.
void runreplicates(const BootstrapRequest& request, Replicates& made,
                   const std::function<bool(int replicate, int worker)>& fit);

// 95% percentile and basic intervals from the replicates, of the fit `est`. `intraclass`: its random effects are two
// intercepts beside a level-1 variance.
[[nodiscard]] BootstrapResults bootstrapresults(const Replicates& made, const BootstrapRequest& request,
                                                const Estimates& est, bool intraclass);

}  // namespace kdr
