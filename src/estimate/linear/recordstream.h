// Records of one stride, appended in order and then swept level-3 unit by level-3 unit.
//
// A stream stays in memory while it may, else it lies in a scratch file and passes through memory in windows of whole
// level-3 units. A sweep goes forward through the windows of all the streams that it was given, so its cost is one
// linear read of each, and one linear write of those that it changes. A stream closes its file when it goes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <utility>

#include "data/scratch.h"
#include "driver/failures.h"
#include "kernel/array.h"

namespace kdr {

class RecordStream {
 public:
  RecordStream() = default;
  RecordStream(RecordStream&& other) noexcept { *this = std::move(other); }
  RecordStream& operator=(RecordStream&& other) noexcept;
  ~RecordStream() { scratchclose(file); }

  // Opens the stream for appending `records` records of `doubles` values each. Drops what it held. `window`: bytes of
  // one window of a stream that lies in a scratch file; a level-3 unit that needs more gets it. Failure 6.
  void open(std::size_t doubles, std::size_t records, bool inmemory, std::size_t window);
  // The next record to fill, zeroed. Failure 5.
  [[nodiscard]] double* append();
  // Ends the appending. Failure 5.
  void finish();

  // The `count` records from `first` on, in order; read unless they are at hand. Failure 5.
  [[nodiscard]] double* load(std::size_t first, std::size_t count);
  // Keeps what was changed in the records that were loaded last. Failure 5.
  void save();

  [[nodiscard]] std::size_t stride() const { return width; }
  [[nodiscard]] bool isopen() const { return width != 0; }
  // Records that one window may hold: all of them when the stream is in memory.
  [[nodiscard]] std::size_t windowrecords() const;

 private:
  void flush();
  void seek(std::size_t record);

  std::size_t width = 0;  // doubles of a record
  std::size_t windowbytes = 0;
  bool resident = true;   // all records are in `buffer`
  Array<double> buffer;   // every record, or those of the window at hand
  std::size_t first = 0;  // number of the record at the head of `buffer`
  std::size_t held = 0;   // records in `buffer`
  ScratchFile file = nullptr;
};

// How a sweep uses a stream.
struct StreamUse {
  RecordStream& stream;
  bool changes;
};
inline StreamUse reading(RecordStream& stream) { return {stream, false}; }
inline StreamUse changing(RecordStream& stream) { return {stream, true}; }

// Calls visit(k, first, record...) for every level-3 unit in order, with the number of its first level-2 unit and a
// pointer to the record of that unit in each stream; the records of the others follow at the stream's stride.
// n2of[k]: level-2 units of level-3 unit k.
template <class Visit, class... Use>
void sweeplevel3(const Array<int>& n2of, Visit visit, Use... uses) {
  std::size_t limit = std::numeric_limits<std::size_t>::max();
  ((limit = std::min(limit, uses.stream.windowrecords())), ...);
  const std::size_t units3 = n2of.size();
  std::size_t first = 0;
  for (std::size_t k0 = 0; k0 < units3;) {
    checksignals();
    // Whole level-3 units, as many as fit, at least one.
    std::size_t k1 = k0, count = 0;
    do {
      count += static_cast<std::size_t>(n2of[k1++]);
    } while (k1 < units3 && count + static_cast<std::size_t>(n2of[k1]) <= limit);
    const auto sweepwindow = [&](auto... records) {
      for (std::size_t k = k0, unit = first; k < k1; ++k) {
        const auto units = static_cast<std::size_t>(n2of[k]);
        visit(static_cast<int>(k), unit, records...);
        unit += units;
        ((records += units * uses.stream.stride()), ...);
      }
    };
    sweepwindow(uses.stream.load(first, count)...);
    ((uses.changes ? uses.stream.save() : void()), ...);
    first += count;
    k0 = k1;
  }
}

// Calls begin(k), then each(k, unit, record...) for every level-2 unit of k in order, then end(k), for every level-3
// unit in order; `unit` counts the level-2 units of the data set.
template <class Begin, class Each, class End, class... Use>
void sweepunits(const Array<int>& n2of, Begin begin, Each each, End end, Use... uses) {
  sweeplevel3(
      n2of,
      [&](int k, std::size_t unit, auto... records) {
        begin(k);
        for (int j = 0; j < n2of[static_cast<std::size_t>(k)]; ++j, ++unit) {
          each(k, unit, records...);
          ((records += uses.stream.stride()), ...);
        }
        end(k);
      },
      uses...);
}

}  // namespace kdr
