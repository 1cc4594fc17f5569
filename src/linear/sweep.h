// A forward pass over the stored units, level-3 unit by level-3 unit.
#pragma once

#include "driver/failures.h"
#include "kernel/constants.h"
#include "linear/pass.h"

namespace kdr {

// Calls begin(k), then each(k, hot, cold) for every level-2 unit of k in order, then end(k), for every level-3 unit in
// order. `save`: the hot records were changed and are to be kept.
template <class Begin, class Each, class End>
void sweepunits(Pass& pass, bool save, Begin begin, Each each, End end) {
  for (const UnitWindow& window : pass.store.windows) {
    checksignals();
    double* hot = loadwindow(pass.store.hot, window);
    const double* cold = loadwindow(pass.store.cold, window);
    for (int k = window.k0; k < window.k1; ++k) {
      begin(k);
      for (int j = 0; j < pass.n2of[static_cast<std::size_t>(k)]; ++j) {
        each(k, hot, cold);
        hot += pass.store.hot.stride;
        cold += pass.store.cold.stride;
      }
      end(k);
    }
    if (save) savewindow(pass.store.hot, window);
  }
}

// Whether the level-2 unit of a cold record has a least-squares fit of its own.
inline bool usableunit(const Pass& pass, const double* cold) { return cold[pass.store.atinverse] != missingcode; }

// Expands a packed symmetric matrix of order n into both triangles.
inline void unpack(int n, const double* packed, double* full) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) full[i * n + j] = full[j * n + i] = *packed++;
}

// out = Z1'Y - B'Z1' theta of one hot record.
inline void residualproduct(const UnitStore& store, const double* hot, const double* theta, double* out) {
  const double* BZ1 = hot + store.atBZ1;
  for (int i = 0; i < store.p; ++i) {
    out[i] = hot[store.atZ1Y + static_cast<std::size_t>(i)];
    for (int m = 0; m < store.nb; ++m) out[i] -= BZ1[m * store.p + i] * theta[m];
  }
}

}  // namespace kdr
