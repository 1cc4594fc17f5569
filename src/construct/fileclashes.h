// Files of a run that would stand in each other's place.
#pragma once

#include <string>
#include <vector>

namespace kdr {

// Says so when a file that the run is going to write would take the place of one of the `inputs` or of raw data that
// the MDM file names; otherwise empty.
[[nodiscard]] std::string lossby(const std::string& output, const std::vector<std::string>& inputs);
// Stops with code 100 when one of the `outputs` would take the place of such a file or of another output: files that
// exist are compared by what they are, whatever path or link leads to them, others by their place. Empty names and
// devices are passed over.
void refuseclashes(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs);
// True when both paths lead to one file, or to one place where none is.
[[nodiscard]] bool leadtoone(const std::string& one, const std::string& other);

}  // namespace kdr
