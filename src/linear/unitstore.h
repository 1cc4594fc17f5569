// The store of the level-2 units: what is left of a unit's records once the data pass is over.
//
// Streams of records of one stride each, one record per level-2 unit in file order:
//
//   hot    read by every iteration    Z1'Z1 packed, Z1'Y, B'Z1, then C^-1 packed and u*, which the iterations rewrite
//   cold   read once or twice a run   n_j, the inverse of Z1'Z1 packed, the level-2 identifier, the level-2 row
//
// and in a weighted run a third:
//
//   weighted   read once a run        W(j|k), Z12'Z12 packed and B2'Z12, rows with their factor once more
//
// with B = A W2, the level-1 predictors times the unit's level-2 design (n_j by nbeta). Neither M'Z1 nor Z2'Z1 is
// stored: M = B W3, so M'Z1 = W3' B'Z1, and Z2'Z1 is the first rows of B'Z1, those random at level 3. An iteration so
// works with nbeta rows where M has ngamma, and applies W3 once per level-3 unit.
//
// The streams stay in memory while they fit the budget, or whatever their size with -i; beyond it they lie in scratch
// files and pass through memory in windows of whole level-3 units. Every pass goes forward through the windows, so its
// cost is one linear read, and one linear write where it changes a record.
#pragma once

#include <cstddef>

#include "data/mdm.h"
#include "data/scratch.h"
#include "kernel/array.h"

namespace kdr {

// Bytes that the streams of a pass may hold in memory without -i.
extern std::size_t unitstorebudget;
// Bytes of one window of a stream that lies in a scratch file; a level-3 unit that needs more gets it.
extern std::size_t unitwindowbytes;

// Records of `stride` doubles, appended in order and then swept in windows.
struct RecordStream {
  std::size_t stride = 0;
  bool resident = true;   // all records are in `buffer`
  Array<double> buffer;   // every record, or those of the window at hand
  std::size_t first = 0;  // number of the record at the head of `buffer`
  std::size_t held = 0;   // records in `buffer`
  ScratchFile file = nullptr;
};

// Consecutive level-3 units k in k0..k1-1 and their level-2 units, first..first+count-1.
struct UnitWindow {
  int k0, k1;
  std::size_t first, count;
};

struct UnitStore {
  int p = 0;   // ntaupi, order of Z1'Z1
  int nb = 0;  // nbeta, rows of B'Z1
  std::size_t nunits = 0;

  // Offsets into a hot record.
  std::size_t atZ1Y = 0, atBZ1 = 0, atCinv = 0, atustar = 0;  // Z1'Z1 stands at 0
  // Offsets into a cold record: n_j stands at 0.
  std::size_t atinverse = 0, atid = 0, atlevel2 = 0;
  bool haslevel2 = false, hasid = false;

  RecordStream hot, cold, weighted;
  Array<UnitWindow> windows;
};

// Lays the store out for `nunits` level-2 units and opens it for appending. `withid` and `withlevel2` say whether a
// later reader needs the identifier and the level-2 row of a unit.
void openstore(UnitStore& store, int p, int nb, std::size_t nunits, int nvar2, bool withid, bool withlevel2,
               bool weighted);
// The next record to fill, zeroed.
[[nodiscard]] double* appendrecord(RecordStream& stream);
// Ends the appending and cuts the units into windows; n2of[k] is the number of level-2 units of level-3 unit k.
void closestore(UnitStore& store, const Array<int>& n2of);
// Gives the scratch files back.
void freestore(UnitStore& store);

// The records of a window, in order. A stream that lies in a file is read unless it holds the window already.
[[nodiscard]] double* loadwindow(RecordStream& stream, const UnitWindow& window);
// Writes a changed window of a stream that lies in a file.
void savewindow(RecordStream& stream, const UnitWindow& window);

// The level-2 identifier of a cold record.
void putid(const UnitStore& store, double* cold, const Id& id);
[[nodiscard]] Id getid(const UnitStore& store, const double* cold);

}  // namespace kdr
