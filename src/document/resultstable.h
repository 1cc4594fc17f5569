// The results document as one table of comma-separated values: a row for each fixed effect of each phase, then one for
// sigma^2 and one for each element of the lower triangles of the taus.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kdr {

// A text as a field of such a table: one with a comma, a quote or a line end stands in quotes.
[[nodiscard]] std::string csvfield(const std::string& text);

// `document` as docs/results.schema.json describes it. A null of the document is an empty field.
[[nodiscard]] std::string resultstable(const nlohmann::ordered_json& document);

}  // namespace kdr
