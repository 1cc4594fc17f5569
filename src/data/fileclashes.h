// Files of a run that would stand in each other's place.
#pragma once

#include <string>
#include <vector>

namespace kdr {

// Stops with code 100 when one of the `results`, which the run is going to write, would stand where one of the `taken`
// files or another result stands. Empty names and devices are passed over.
void refuseclashes(const std::vector<std::string>& taken, const std::vector<std::string>& results);

}  // namespace kdr
