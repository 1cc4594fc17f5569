#include "estimate/likelihood/recordbatches.h"

#include <algorithm>
#include <utility>

#include "estimate/quadrature/cuts.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// A batch ends behind so many records, or level-3 units: threads begin and end with each, and what it gives is held
// unit by unit. Batches that are kept may be longer.
constexpr std::size_t batchrecords = 20000, batchunits = 20000, keptbatchrecords = 200000;
// Bytes of records below which they are read once and kept.
constexpr std::size_t mostkept = std::size_t{32} << 20;

void rewindbatches(void* state) {
  RecordBatches& batches = *static_cast<RecordBatches*>(state);
  batches.next = 0;
  // What was kept is delivered again, and the reader goes on behind it.
  if (batches.keeps) return;
  const MdmData& mdm = batches.pass->mdm();
  startunits(batches.reader, mdm, batches.state->working.file(), 0, batches.state->layout.width, mdm.nvar2, false);
  batches.k = 0;
  batches.units = batches.records = 0;
}

// The category, from 0, of a record that begins with the indicators of its responses: of an ordinal one those of values
// at or below each cut.
double categoryof(const double* indicators, int responses) {
  int c = 0;
  while (c < responses && indicators[c] == 0.0) ++c;
  return c;
}

// The level-3 unit k, from its blocks.
Level3Records readlevel3(RecordBatches& batches) {
  const Pass& pass = *batches.pass;
  const RecordLayout& layout = batches.state->layout;
  const std::size_t npi = at(pass.npi), nbeta = at(pass.nbeta);
  Level3Records unit;
  unit.k = batches.k;
  unit.firstunit = batches.units;
  unit.units = pass.n2of[batches.k];
  const std::size_t records = at(pass.n1of[batches.k]);
  unit.start.reset(at(unit.units) + 1);
  unit.x.reset(records * npi);
  unit.w2.reset(at(unit.units) * nbeta);
  unit.w3.reset(pass.design.owner3.size());
  unit.y.reset(records);
  if (!batches.state->counts.empty()) unit.n.reset(records);
  level3weights(pass, batches.k, unit.w3.data());
  const bool weighted = pass.model().weighted;
  const DesignWeights& weights = pass.weights();
  if (weighted) {
    unit.weight1.reset(records);
    unit.weight2.reset(at(unit.units));
    std::copy_n(weights.own1.data() + batches.records, records, unit.weight1.data());
    std::copy_n(weights.own2.data() + batches.units, unit.units, unit.weight2.data());
    unit.weight3 = weights.own3[batches.k];
  }
  std::size_t record = 0;
  for (std::size_t j = 0; j < at(unit.units); ++j) {
    if (!neededunit(batches.reader, batches.unit)) {
      batches.failure = batches.reader.failure;
      return unit;
    }
    const UnitBlock& block = batches.unit;
    for (std::size_t m = 0; m < nbeta; ++m) unit.w2[j * nbeta + m] = level2entry(pass, m, block.level2.data());
    for (int i = 0; i < block.nj; ++i, ++record) {
      const double* values = block.records.data() + at(i) * at(layout.width);
      for (std::size_t c = 0; c < npi; ++c)
        unit.x[record * npi + c] = layout.column[c] < 0 ? 1.0 : values[layout.column[c]];
      unit.y[record] = layout.responses > 0 ? categoryof(values, layout.responses) : values[layout.observed];
      if (!unit.n.empty()) unit.n[record] = batches.state->counts[batches.records + record];
    }
    unit.start[j + 1] = record;
  }
  if (weighted && pass.model().outcome.single()) weighrecords(unit);
  if (weighted && pass.model().outcome.family == Family::multinomial) unit.n = unit.weight1.copy();
  ++batches.k;
  batches.units += at(unit.units);
  batches.records += record;
  const Outcome& outcome = pass.model().outcome;
  return outcome.ordinal() ? cutrecords(unit, outcome.categories) : std::move(unit);
}

bool givesup(void* state) {
  RecordBatches& batches = *static_cast<RecordBatches*>(state);
  if (!batches.failure && batches.pass->observer().givesup()) batches.failure = failed(abandoned);
  return static_cast<bool>(batches.failure);
}

const std::vector<Level3Records>& nextbatch(void* state) {
  RecordBatches& batches = *static_cast<RecordBatches*>(state);
  static_cast<void>(givesup(state));
  if (batches.keeps && batches.next < batches.batches.size() && !batches.failure)
    return batches.batches[batches.next++];
  if (batches.keeps || batches.batches.empty()) batches.batches.emplace_back();
  std::vector<Level3Records>& batch = batches.batches.back();
  batch.clear();
  const std::size_t first = batches.records, most = batches.keeps ? keptbatchrecords : batchrecords;
  while (!batches.failure && batches.k < batches.pass->mdm().nunits3 &&
         (batch.empty() || (batches.records - first < most && batch.size() < batchunits)))
    batch.push_back(readlevel3(batches));
  if (batches.failure) batch.clear();
  ++batches.next;
  return batch;
}

bool brokenbatches(void* state) { return static_cast<bool>(static_cast<RecordBatches*>(state)->failure); }

}  // namespace

RecordSource recordbatches(RecordBatches& batches, const Pass& pass, const MacroState& state) {
  batches.pass = &pass;
  batches.state = &state;
  batches.reader.observer = &pass.observer();
  rewindbatches(&batches);
  batches.keeps = at(pass.nunits1) * (at(pass.npi) + 2) * sizeof(double) < mostkept;
  return {&batches, rewindbatches, nextbatch, brokenbatches, pass.observer().poll ? givesup : nullptr};
}

}  // namespace kdr
