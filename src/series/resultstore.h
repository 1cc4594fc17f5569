// The result store of a multiple-imputation series, through which its processes meet: one file in the current folder.
//
//   offset  bytes
//   0       4      int32: data sets that have begun
//   4       128    one byte per data set: 1 when it finished, 2 when it finished before it had converged, else 0
//   132            the records of the finished data sets, one after the other, in the order in which they finished
//   behind  48     the mark: which series this store is of (orders, fingerprint of the model), with a checksum
//
// A record holds the fields of SubrunRecord in order, ints as int32, everything else as float64; field by field as they
// exist under the series' shape, the population-average effects last.
//
// A kill at any moment leaves the store readable. A data set appends by writing a new mark where it will stand, then
// the record over the old mark, and then, once both are on the disk, its own byte. A reader believes the bytes alone:
// with n of them set it takes n records and looks for the mark behind record n, or, where a data set was killed while
// it wrote, behind record n + 1. Whatever else follows is overwritten by the next data set.
#pragma once

#include <vector>

#include "core/failure.h"
#include "series/subrun.h"

namespace kdr {

inline constexpr const char* storename = "mixyzzy.dat";
inline constexpr int maxsets = 128;

inline constexpr char setconverged = 1, setunconverged = 2;

struct StoreHead {
  int nsets = 0;                // data sets that have begun
  char mistatus[maxsets] = {};  // as in the file
  [[nodiscard]] int finished() const;
};

// Makes a store for the first data set of a series; one that is left over is replaced. Fails as the system refuses to
// open or write it.
Failure createstore(const SubrunShape& shape);

// The store as it stands, of which `records` (may be null) gets the finished sub-runs. Fails with one sentence that
// says why there is no usable store: none exists, it is of another series, it isn't whole; or as the system refuses it.
Failure readstore(const SubrunShape& shape, StoreHead& head, std::vector<SubrunRecord>* records);

// The failure of a folder without a store.
[[nodiscard]] Failure nostore();

// Data set `index`, which is not the first, begins: it and all before it count as begun. Fails as readstore, or with
// the sentence that refuses an index that has finished already or is too large.
Failure joinstore(const SubrunShape& shape, int index, StoreHead& head);

// Data set `index` has finished: appends its record and then marks it. Fails as readstore, and nothing is marked.
Failure appendrecord(const SubrunShape& shape, int index, const SubrunRecord& record, bool converged = true);

// The failure is no more than that there is no usable store.
[[nodiscard]] bool unusable(const Failure& failure);

void removestore();

// Bytes of a record.
[[nodiscard]] long long recordsize(const SubrunShape& shape);

}  // namespace kdr
