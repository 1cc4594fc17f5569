// Numbers in what people write: a text is a number to its end, or none.
#pragma once

#include <optional>
#include <string_view>

namespace kdr {

// The number in decimal notation that the text is, with or without an exponent and with blanks at its ends; nothing for
// any other text, the words for infinity and for no number among them, and for one beyond the range of a double.
[[nodiscard]] std::optional<double> realof(std::string_view text);
// The same for a whole number in the range of an int, in any of its forms: 1e3 is a thousand.
[[nodiscard]] std::optional<int> wholeof(std::string_view text);

}  // namespace kdr
