// The working data file as the maximum-likelihood engines read it.
#pragma once

#include "core/failure.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// What a RecordSource over the working data file needs; it must outlive the source.
struct RecordBatches {
  const Pass* pass = nullptr;
  const MacroState* state = nullptr;
  UnitReader reader;
  UnitBlock unit;                                   // buffer
  bool keeps = false;                               // the batches stay in memory, as few records' do
  std::vector<std::vector<Level3Records>> batches;  // those read so far, or the last one
  std::size_t next = 0;                             // the batch to come
  int k = 0;                                        // the next level-3 unit
  std::size_t units = 0, records = 0;               // level-2 units and records before it
  Failure failure;                                  // why it can go no further
};

// Makes a source of the file.
[[nodiscard]] RecordSource recordbatches(RecordBatches& batches, const Pass& pass, const MacroState& state);

}  // namespace kdr
