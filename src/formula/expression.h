// A formula as a tree, by the grammar of R: y ~ x + I(x^2) + (1 + x | a/b).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kdr {

// Where a piece of the formula stands: bytes begin to end.
struct Place {
  std::size_t begin = 0, end = 0;
};

enum class Part { number, text, name, call, parentheses, sign, operation };

struct Expression {
  Part part = Part::number;
  std::string word;    // of a name or text: itself; of a call: the function; of a sign or operation: the operator
  double value = 0.0;  // of a number
  Place place;
  std::vector<Expression> operands;  // of a call: its arguments
  std::vector<std::string> named;    // of a call: the names of its arguments, empty where they have none
};

[[nodiscard]] inline bool isoperation(const Expression& e, std::string_view word) {
  return e.part == Part::operation && e.word == word;
}
[[nodiscard]] inline bool isnumber(const Expression& e, double value) {
  return e.part == Part::number && e.value == value;
}
[[nodiscard]] inline bool iscall(const Expression& e, std::string_view function) {
  return e.part == Part::call && e.word == function;
}
// Without the parentheses around it.
[[nodiscard]] const Expression& bare(const Expression& e);

// The tree of a formula, whose root is the operation ~ with two operands. Refuses anything that is no
// formula.
[[nodiscard]] Expression parseformula(const std::string& formula);

// As R writes it, which is how R names a variable of a model.
[[nodiscard]] std::string deparsed(const Expression& e);

// What a formula, or a table that it cannot be fitted to, is refused with: lines of text. The one thing that is thrown
// by this room, from anywhere in it; whoever calls it has to catch it.
struct Refusal {
  std::string words;
};
[[noreturn]] void refuse(std::string words);
// Says `words`, and shows the formula with carets under the place.
[[noreturn]] void refuseformula(const std::string& formula, const Place& place, const std::string& words);

}  // namespace kdr
