#include "command/constraints.h"

#include <algorithm>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/oddities.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

// Groups that are numbered from 1 upward in the order of their first members.
int countgroups() {
  int groups = 0;
  for (const int group : run.model.constraints)
    if (group == groups + 1) ++groups;
  return groups;
}

}  // namespace

void checkconstraints() {
  const int groups = countgroups();
  for (const int group : run.model.constraints)
    if (group < 0 || group > groups)
      stopwith("Groups of constrained gammas must be numbered from 1 upward, in the order of their first gammas!\n");
}

void makeconstraints() {
  Model& model = run.model;
  const auto n = static_cast<std::size_t>(run.model.coef.ngamma);
  if (model.constraints.size() != n) model.constraints.resize(n);
  checkconstraints();

  model.nconstrained = 0;
  model.removed.reset(n);
  model.constrainmatrix.reset(n * n);
  double* const matrix = model.constrainmatrix.data();
  for (std::size_t i = 0; i < n; ++i) matrix[i * n + i] = 1.0;
  const int groups = countgroups();
  for (int k = 1; k <= groups; ++k) {
    int* const first = std::find(model.constraints.begin(), model.constraints.end(), k);
    if (std::count(model.constraints.begin(), model.constraints.end(), k) == 1)
      oddcommand(formatted("CONSTRAIN: group %d has one member, and constrains nothing.\n", k));
    for (int* member = first + 1; member != model.constraints.end(); ++member) {
      if (*member != k) continue;
      const auto i = static_cast<std::size_t>(member - model.constraints.begin());
      matrix[i * n + static_cast<std::size_t>(first - model.constraints.begin())] = 1.0;
      model.removed[i] = 1;
    }
  }
  for (std::size_t i = n; i-- > 0;) {
    if (model.removed[i] == 0) continue;
    for (std::size_t row = 0; row < n; ++row) {
      double* const values = matrix + row * n;
      std::copy(values + i + 1, values + n, values + i);
      values[n - 1] = 0.0;
    }
    ++model.nconstrained;
  }
}

void applyconstraints() {
  Model& model = run.model;
  model.uncutcontrasts = model.contrasts.copy();
  const auto full = static_cast<std::size_t>(run.model.coef.ngamma);
  if (full == 0 || model.contrasts.empty()) return;
  const std::size_t rows = model.contrasts.size() / full;
  const std::size_t width = full - static_cast<std::size_t>(model.nconstrained);
  model.contrasts.reset(rows * width);
  for (std::size_t row = 0; row < rows; ++row) {
    // The contrast of the full gammas, in terms of the reduced ones from which constrainmatrix makes them.
    for (std::size_t g = 0; g < full; ++g)
      for (std::size_t column = 0; column < width; ++column)
        model.contrasts[row * width + column] +=
            model.uncutcontrasts[row * full + g] * model.constrainmatrix[g * full + column];
  }
}

}  // namespace kdr
