// The level-1 records of the MDM file as the analysis has them, unit by unit, and the unit source that makes
// cross-products of them: that of a linear run and of the first pass of a chain.
#pragma once

#include <cstdint>
#include <cstdio>

#include "core/failure.h"
#include "core/results.h"
#include "data/unitreader.h"
#include "estimate/analysis.h"
#include "estimate/linear/pass.h"
#include "estimate/linear/unitsource.h"

namespace kdr {

// Where the values of a record of the MDM file or of the working data file stand.
struct RecordLayout {
  int width = 0;      // values of a record
  Array<int> column;  // [npi] place of the predictor of each column of A, -1 for the constant
  int outcome = 0;    // place of the outcome, -1: no reader wants it
  int observed = 0;   // place of the outcome as it was read
  int count = -1;     // place of the trials or exposure that divides the outcome, -1: none
  int responses = 0;  // indicators of a record with categories, at the places 0, 1, ...; behind them, where a residual
                      // file wants them, as many fitted probabilities. 0: one outcome
  Array<int> place;   // [nvar1] place of each level-1 variable of the MDM file, -1: not in the records

  [[nodiscard]] RecordLayout copy() const {
    return {width, column.copy(), outcome, observed, count, responses, place.copy()};
  }
};

// The layout of the records of the MDM file, and of a working data file with the same variables.
[[nodiscard]] RecordLayout mdmlayout(const Model& model, const MdmData& mdm);
// The rest of the layout of a working data file with variables of its own, behind the `width` values that it has
// already: the level-1 predictors of the model and the variables that a later reader wants.
void layvariables(const Analysis& analysis, RecordLayout& layout);
// The variables of `layout`, and what is told of the unit, from a block with the layout `given`.
void relayunit(const UnitBlock& block, const RecordLayout& given, UnitBlock& to, const RecordLayout& layout);

// Begins the products of a unit: what its block tells of it, and no products by design weights yet.
void beginproducts(UnitProducts& products, int k, const UnitBlock& block);

// What is said where no record is left behind deletion.
[[nodiscard]] Failure norecordleft();

// Whether the rows have factors sqrt(w)/sqrt(v).
[[nodiscard]] bool havefactors(const Model& model);

struct RecordUnits {
  const Analysis* analysis = nullptr;
  RecordLayout layout;
  std::FILE* working = nullptr;      // null, or where the blocks go as the analysis has them
  Array<double>* counts = nullptr;   // null, or where the trials or exposure of each record go
  Array<double>* factors = nullptr;  // null, or where the factor of each record goes
  Failure failure;                   // why the walk has ended before its time

  UnitReader reader;
  UnitBlock unit, ahead;
  Id current{};
  int k = -1;
  std::size_t records = 0;     // of the units before the one at hand
  bool hashed = false;         // somebody wants the hash
  RecordsHash hash;            // of the records so far
  std::uint64_t unithash = 0;  // of the ID of the highest level at hand
  Array<double> mean2;         // [nvar2] means of the level-2 variables over the level-3 unit
  Array<double> shift;         // [npi] what centering takes off each column in this unit
  Array<double> x;             // [npi + 1] one record: the columns of A, then Y
  bool group2 = false;         // some level-2 variable is centered on its level-3 mean
};

// Starts a walk through the MDM file, which deletes records with missing values when that was left to the analysis.
void startrecords(RecordUnits& units, const Analysis& analysis);

// The next block, after deletion, into units.unit, and its level-3 unit into units.k; with design weights, blocks
// without a record are left out. False behind the last one, and with units.failure.
[[nodiscard]] bool nextblock(RecordUnits& units);
// Takes off its values what centering asks for.
void centerblock(RecordUnits& units);

// The next unit, centered; with design weights, units without a record are left out. False
// behind the last one, and with units.failure for a known variance that is not positive. Trials and exposure are above
// 0.
[[nodiscard]] bool nextunit(RecordUnits& units, UnitProducts& products);

}  // namespace kdr
