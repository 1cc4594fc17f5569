// Words and numbers of a line of text, for the command file and its writer.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/codes.h"
#include "core/model.h"
#include "core/words.h"

namespace kdr {

// Without the blanks and tabs at both ends.
[[nodiscard]] std::string_view trimmed(std::string_view text);
// The pieces between the separators, blanks at their ends removed; an empty text is one empty piece.
[[nodiscard]] std::vector<std::string> split(std::string_view text, char separator);
// The row of a table of words that the text is, or begins with; null when there is none.
template <class Table>
[[nodiscard]] constexpr auto* rownamed(const Table& table, std::string_view text) {
  return rowof(table, [&](const char* word) { return sameword(text, word); });
}
// The centering of the digit 0, 1 or 2.
[[nodiscard]] inline Centering centeringof(char digit) { return static_cast<Centering>(digit - '0'); }
// The first character in upper case, zero for an empty text.
[[nodiscard]] char firstletter(std::string_view text);

// The text as a problem title: cut to its length, fit to be shown, without blanks at its end.
[[nodiscard]] std::string titlefrom(std::string_view text);

// Y or YES, and N, NO or NONE, in any case.
[[nodiscard]] bool isyes(std::string_view text);
[[nodiscard]] bool isno(std::string_view text);
// A variable of one of the name tables of run.mdm.
struct FoundVariable {
  int index = -1;    // -1 when the table has no such name
  bool cut = false;  // the name is longer than what counts of it, and no whole name of a source
};
// Looks for a variable by its name of 8 characters, and by the whole name that its source has, where just one has it;
// the signs that part names may stand as _ in that. A longer name is looked for among the whole names first.
[[nodiscard]] FoundVariable findvariable(std::string_view name, const Array<Name>& table, int n);
// Up to three names 1..n of a table, those that differ least from `name`, with commas between them; empty when none has
// half of it.
[[nodiscard]] std::string nearestnames(std::string_view name, const Array<Name>& table, int n);

}  // namespace kdr
