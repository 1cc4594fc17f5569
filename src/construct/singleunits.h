// Levels that may have been interchanged: those whose units hold one unit of the next level each.
#pragma once

#include <string>
#include <vector>

namespace kdr {

// A sentence for each such level of run.mdm, with the question.
[[nodiscard]] std::vector<std::string> singleunits();

}  // namespace kdr
