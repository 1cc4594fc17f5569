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

#include "core/failure.h"
#include "core/observer.h"
#include "data/scratch.h"
#include "kernel/array.h"

namespace kdr {

// How a stream is opened.
struct StreamSettings {
  bool inmemory = true;
  std::size_t window = 0;  // bytes of one window of a stream that lies in a scratch file; a level-3 unit that
                           // needs more gets it
  const Observer* observer = nullptr;  // may be null; asked before each window whether to give up
};

// A stream that has failed (disk full, no temporary file, given up) says so until it is opened anew. It takes records
// all the same, and keeps none; a sweep over it ends at once. Whoever uses it asks when a phase is over.
class RecordStream {
 public:
  RecordStream() = default;
  RecordStream(RecordStream&& other) noexcept { *this = std::move(other); }
  RecordStream& operator=(RecordStream&& other) noexcept;

  // Opens the stream for appending `records` records of `doubles` values each. Drops what it held.
  void open(std::size_t doubles, std::size_t records, const StreamSettings& settings);
  // The next record to fill, zeroed.
  [[nodiscard]] double* append();
  // Ends the appending.
  void finish();

  // The `count` records from `first` on, in order; read unless they are at hand. Null when they cannot be had.
  [[nodiscard]] double* load(std::size_t first, std::size_t count);
  // Keeps what was changed in the records that were loaded last.
  void save();

  [[nodiscard]] std::size_t stride() const { return width; }
  [[nodiscard]] bool isopen() const { return width != 0; }
  // Asks the observer whether to give up.
  void goeson();
  // Records that one window may hold: all of them when the stream is in memory.
  [[nodiscard]] std::size_t windowrecords() const;
  // The first thing that went wrong.
  [[nodiscard]] const Failure& failure() const { return problem; }

 private:
  void flush();
  void seek(std::size_t record);
  void fail(Failure failure);

  StreamSettings settings;
  std::size_t width = 0;  // doubles of a record
  Array<double> buffer;   // every record, or those of the window at hand
  std::size_t first = 0;  // number of the record at the head of `buffer`
  std::size_t held = 0;   // records in `buffer`
  ScratchFile file;
  Failure problem;
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
    const bool loaded =
        ((uses.stream.goeson(), static_cast<void>(uses.stream.load(first, count)), !uses.stream.failure()) && ...);
    if (!loaded) return;
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
