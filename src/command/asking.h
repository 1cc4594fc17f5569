// Small helpers of the dialogue. Internal to it.
#pragma once

#include <string>

namespace kdr {

// Prints "%s " with the prompt and reads a line until its first character is one of `choices`; without a limit of
// tries, but the end of input ends the run as a tenth bad try would.
[[nodiscard]] char askletter(const std::string& prompt, const char* choices);

}  // namespace kdr
