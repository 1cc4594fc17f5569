#include "core/failure.h"

#include <cstring>

#include "core/constants.h"
#include "core/failuretable.h"

namespace kdr {

namespace {

// Adds `text` to a sentence: white space of any length becomes a blank.
void append(std::string& sentence, std::string_view text) {
  for (const char c : text) {
    if (c != ' ' && c != '\n' && c != '\t') {
      sentence += c;
    } else if (!sentence.empty() && sentence.back() != ' ') {
      sentence += ' ';
    }
  }
}

}  // namespace

std::string sentenceof(const Failure& failure) {
  std::string sentence;
  append(sentence, failure.reportwords.empty() ? failure.consolewords : failure.reportwords);
  for (const FailureRow& row : failures) {
    if (row.code != failure.row) continue;
    for (const char* line : row.lines) {
      if (line == nullptr) break;
      append(sentence, " ");
      const char* hole = std::strstr(line, "%s");
      const bool first = line == row.lines[0] && row.namesmodule;
      append(sentence, hole == nullptr ? line : std::string_view(line, static_cast<std::size_t>(hole - line)));
      if (hole == nullptr) continue;
      append(sentence, first ? module : failure.argument);
      append(sentence, hole + 2);
    }
  }
  if (failure.systemerror != 0) append(sentence, std::string(" ") + std::strerror(failure.systemerror));
  while (!sentence.empty() && sentence.back() == ' ') sentence.pop_back();
  return sentence;
}

}  // namespace kdr
