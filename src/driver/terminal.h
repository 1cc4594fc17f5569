// Lines from a person at a terminal, with editing and history. Internal to the questions. The two bodies are
// terminal_editline.cpp, over the editline library, and terminal_plain.cpp for a build without it.
#pragma once

#include <string>

namespace kdr {

// True when lines can be edited: standard input and standard output are a terminal, and the library is there.
[[nodiscard]] bool atterminal();

// Shows the prompt, whose last line the editor shows again when it redraws, and reads a line without its end into
// `line`. False, with an empty line, at the end of input and when a signal came. Lines that are not empty join the
// history.
[[nodiscard]] bool editline(const std::string& prompt, std::string& line);

}  // namespace kdr
