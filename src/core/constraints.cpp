#include "core/constraints.h"

#include <algorithm>

namespace kdr {

namespace {

// Groups that are numbered from 1 upward in the order of their first members.
int countgroups(const Model& model) {
  int groups = 0;
  for (const int group : model.constraints)
    if (group == groups + 1) ++groups;
  return groups;
}

}  // namespace

bool groupsinorder(const Model& model) {
  const int groups = countgroups(model);
  return std::ranges::all_of(model.constraints, [&](int group) { return group >= 0 && group <= groups; });
}

std::vector<int> lonelygroups(const Model& model) {
  std::vector<int> lonely;
  for (int k = 1; k <= countgroups(model); ++k)
    if (std::count(model.constraints.begin(), model.constraints.end(), k) == 1) lonely.push_back(k);
  return lonely;
}

void makeconstraints(Model& model) {
  const auto n = static_cast<std::size_t>(model.coef.ngamma);
  if (model.constraints.size() != n) model.constraints.resize(n);
  model.nconstrained = 0;
  model.removed.reset(n);
  model.constrainmatrix.reset(n * n);
  double* const matrix = model.constrainmatrix.data();
  for (std::size_t i = 0; i < n; ++i) matrix[i * n + i] = 1.0;
  const int groups = countgroups(model);
  for (int k = 1; k <= groups; ++k) {
    int* const first = std::find(model.constraints.begin(), model.constraints.end(), k);
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

void applyconstraints(Model& model) {
  model.uncutcontrasts = model.contrasts.copy();
  const auto full = static_cast<std::size_t>(model.coef.ngamma);
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
