// The store of the level-2 units: what is left of a unit's records once the data pass is over.
//
// Streams of records, one record per level-2 unit in file order:
//
//   hot        read by every iteration   Z1'Z1 packed, Z1'Y, B'Z1, then C^-1 packed and u*, which the steps rewrite
//   cold       read once or twice        n_j, the inverse of Z1'Z1 packed, the level-2 identifier, the level-2 row
//   weighted   weighted runs, read once  W(j|k), Z12'Z12 packed and B2'Z12, rows with their factor once more
//
// with B = A W2, the level-1 predictors times the unit's level-2 design (n_j by nbeta). Neither M'Z1 nor Z2'Z1 is
// stored: M = B W3, so M'Z1 = W3' B'Z1, and Z2'Z1 is the first rows of B'Z1, those random at level 3. An iteration so
// works with nbeta rows where M has ngamma, and applies W3 once per level-3 unit.
#pragma once

#include <cstddef>

#include "core/constants.h"
#include "data/mdm.h"
#include "estimate/analysis.h"
#include "estimate/linear/recordstream.h"

namespace kdr {

// What a store has to hold.
struct StoreLayout {
  int p = 0;               // ntaupi, order of Z1'Z1
  int nb = 0;              // nbeta, rows of B'Z1
  std::size_t nunits = 0;  // level-2 units
  bool withid = false;     // a later reader needs the identifiers
  int nvar2 = 0;           // width of the level-2 rows that a later reader needs, 0: none does
  bool weighted = false;
  bool numericids = false;
  StoreSettings settings;
  const Observer* observer = nullptr;  // of the streams
};

struct UnitStore {
  int p = 0, nb = 0;

  // Offsets into a hot record.
  std::size_t atZ1Y = 0, atBZ1 = 0, atCinv = 0, atustar = 0;  // Z1'Z1 stands at 0
  // Offsets into a cold record: n_j stands at 0.
  std::size_t atinverse = 0, atid = 0, atlevel2 = 0;
  int nvar2 = 0;
  bool hasid = false, numericids = false;

  RecordStream hot, cold, weighted;
};

// Lays the store out and opens it for appending.
void openstore(UnitStore& store, const StoreLayout& layout);
// Ends the appending.
void finishstore(UnitStore& store);
// The first thing that went wrong with one of its streams.
[[nodiscard]] const Failure& storefailure(const UnitStore& store);

// The level-2 identifier of a cold record.
void putid(const UnitStore& store, double* cold, const Id& id);
[[nodiscard]] Id getid(const UnitStore& store, const double* cold);

// Whether the level-2 unit of a cold record has a least-squares fit of its own.
[[nodiscard]] inline bool usableunit(const UnitStore& store, const double* cold) {
  return store.p == 0 || !isabsent(cold[store.atinverse]);
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
