// Small helpers of the dialogue. Internal to it.
#pragma once

#include <string>

#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

// Prints "%s " with the prompt; a variable of a level's names: its number in lo..hi, or its name: the whole one that
// the source of the data has, where no other variable has it, or the first 8 characters, which is told of longer ones.
[[nodiscard]] int askvariable(const char* prompt, int lo, int hi, const Array<Name>& table);

// Prints "%s " with the prompt and reads a line until its first character is one of `choices`; without a limit of
// tries, but the end of input ends the run as a tenth bad try would.
[[nodiscard]] char askletter(const std::string& prompt, const char* choices);

}  // namespace kdr
