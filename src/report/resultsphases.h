// The phases of the results document, for those who show a part of them elsewhere.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace kdr {

// Those that stand so far, in the form of docs/results.md.
[[nodiscard]] const nlohmann::ordered_json& documentphases();

}  // namespace kdr
