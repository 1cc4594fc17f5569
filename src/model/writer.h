// The run stated as a command file.
#pragma once

#include <string>

namespace kdr {

// Writes the keyword state of the run and its model to a new text file. Run again, the file restores the run. A path
// that begins with the name of the file for the next plausible-value pass gets the outcome in use now, any other the
// outcome as reported. A file that cannot be opened ends the run; one that cannot be filled raises failure 5.
void writecommandfile(const std::string& path);

}  // namespace kdr
