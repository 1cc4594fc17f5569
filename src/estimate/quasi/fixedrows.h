// The rows of the fixed part, record by record: M of pass.h, and of categories those of each response.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/failure.h"
#include "data/unitreader.h"
#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// The response of each level-1 coefficient: the equation set of a multinomial one, the cut of a threshold, else -1:
// all.
[[nodiscard]] std::vector<int> responserows(const Analysis& analysis);
// Responses of a record: one, or categories less one.
[[nodiscard]] int responsesof(const Outcome& outcome);

struct FixedRows {
  const Pass* pass = nullptr;  // its design is what is used
  std::vector<int> response;   // of each level-1 coefficient
  Array<double> weights;       // W3 of the level-3 unit at hand, as level3weights gives it
};
[[nodiscard]] FixedRows makefixedrows(const Pass& pass);
// Goes to level-3 unit k.
void takelevel3(FixedRows& rows, int k);
// h (ngamma) of a response of a record with the level-1 entries x (npi) in a unit with these level-2 variables.
void fixedrow(const FixedRows& rows, const double* x, const double* level2, int response, double* h);

// A record of the MDM file as the model has it.
struct ModelRecord {
  const double* x;        // [npi] entries of the columns of A, centered; 1 for a threshold
  const double* level2;   // its unit's level-2 variables, centered
  double y, n;            // the outcome as it was read, and its trials or exposure, 1 without
  const UnitBlock& unit;  // that it lies in
};
// Visits the records one after the other; `rows` stands at their level-3 unit.
[[nodiscard]] Failure walkrecords(FixedRows& rows, const std::function<void(const ModelRecord& record)>& visit);

// A name without the blanks behind it.
[[nodiscard]] std::string barename(const Name& name);
// How words name fixed effect g of the reduced model: its variables and its symbol, "SEX (G100)".
[[nodiscard]] std::string effectname(const Analysis& analysis, int g);
// The name of its variables alone.
[[nodiscard]] std::string predictorname(const Analysis& analysis, int g);

}  // namespace kdr
