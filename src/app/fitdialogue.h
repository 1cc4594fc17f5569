// The dialogue about a file of raw data: the formula first, then what stands beside it behind -fit.
#pragma once

#include <optional>
#include <string>

#include "command/formula/fit.h"

namespace kdr {

// Whether this is a file that -fit reads, as far as its name tells.
[[nodiscard]] bool israwdata(const std::string& path);

// Asks for a model of the file and prepares it as -fit does. An answer of < goes back to the question before; what
// cannot be fitted is told, and the formula asked for again. Nothing when the answer to the first question is an empty
// line.
[[nodiscard]] std::optional<PreparedFit> fitdialogue(const std::string& file);

}  // namespace kdr
