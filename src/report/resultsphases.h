// The phases of the results document, for those who show a part of them elsewhere.
#pragma once

#include <vector>

#include "document/json.h"

namespace kdr {

// Those that stand so far, in the form of docs/results.md.
[[nodiscard]] const std::vector<Json>& documentphases();

}  // namespace kdr
