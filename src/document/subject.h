// What a results document is about, the same for all of its phases.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/model.h"
#include "data/longtexts.h"
#include "document/json.h"
#include "estimate/inference/modelstatistics.h"

namespace kdr {

struct Subject {
  const Model& model;
  std::string outcome;                       // its name
  std::vector<std::string> names[3] = {};    // of the variables of levels 1 to 3, [0] that of the intercept
  std::vector<std::string> categories = {};  // their labels, as far as they are known
  int records = 0, units2 = 0, units3 = 0;
  bool twolevel = false;                                  // there is no level 3: what would stand for it is null
  std::optional<Alternative> alternative = std::nullopt;  // what the deviance is compared with
  std::optional<RecordsHash> hash = std::nullopt;         // of the analysed records
  const LongTexts* texts = nullptr;                       // what the source of the data says of its variables
  int recordsread = 0;                                    // of the data, before run-time deletion; 0: not known

  [[nodiscard]] const std::string& name(int level, int v) const { return names[level - 1][at(v)]; }
};

// The member `model`.
[[nodiscard]] Json describedmodel(const Subject& subject);
// The member `variables`, which is there when the source has said something: names and labels as it has them.
[[nodiscard]] Json describedvariables(const Subject& subject);

// The label of the category whose set of equations this is; null unless the outcome is multinomial.
[[nodiscard]] Json categoryornull(const Subject& subject, int set);

}  // namespace kdr
