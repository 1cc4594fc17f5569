// Categories of the rows of the model, as the report shows them.
#pragma once

#include <string>
#include <vector>

#include "core/modelwalk.h"
#include "core/tables.h"

namespace kdr {

// True when several equation sets stand side by side, one for each category but the last.
[[nodiscard]] bool multinomialrun();
// The label of category k; empty when it has none.
[[nodiscard]] std::string categorylabel(int k);
// The same as the report shows it.
[[nodiscard]] std::string categoryof(int k);
// The category of each of the n rows of a tau; empty texts unless multinomial.
[[nodiscard]] std::vector<std::string> randomcategories(Tau which, int n);

}  // namespace kdr
