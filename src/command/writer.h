// The run stated as a command file.
#pragma once

#include <cstdio>
#include <string>

namespace kdr {

// Writes the keyword state of the run and its model to a new text file. Run again, the file restores the run. It states
// the outcome as reported. A file that cannot be opened ends the run; one that cannot be filled raises failure 5.
void writecommandfile(const std::string& path);
// The same for the next plausible-value pass, with the outcome in use now. The stream stands at its start afterwards.
void writenextcommands(std::FILE* out);

}  // namespace kdr
