// Files of a run that would stand in each other's place.
#pragma once

#include <string>
#include <vector>

namespace kdr {

// Stops with code 100 when one of the `outputs`, which the run is going to write, would stand where one of the `inputs`
// or another output stands: files that exist are compared by what they are, whatever path or link leads to them, others
// by their place. Empty names and devices are passed over.
void refuseclashes(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs);
// True when both paths lead to one file, or to one place where none is.
[[nodiscard]] bool leadtoone(const std::string& one, const std::string& other);

}  // namespace kdr
