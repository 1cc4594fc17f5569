// Files of the program, opened, read and written so that what cannot be done ends the run.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "data/scratch.h"

namespace kdr {

// A new temporary file; failure 6 when there can be none.
[[nodiscard]] ScratchFile neededscratch();

// Opens a path; never returns on failure: prints the system's words and "Unable to open %s for reading" or "writing",
// and stops with code 100.
[[nodiscard]] std::FILE* openfile(const std::string& path, const char* mode);

// Stops with code 100 and "Unable to read" when a read from the stream has failed.
void checkread(std::FILE* stream, const std::string& name);
// Reads up to `bytes` bytes and returns how many there were. A read that fails is not the end of the file: checkread.
[[nodiscard]] std::size_t readupto(void* buffer, std::size_t bytes, std::FILE* stream, const std::string& name);
// Writes exactly `bytes` bytes; failure 5 otherwise.
void writechk(const void* buffer, std::size_t bytes, std::FILE* stream);
// Failure 5 when something that was written to the stream did not reach it.
void checkwritten(std::FILE* stream);
// Flushes and closes a file that was written; failure 5 when anything could not be written.
void closechk(std::FILE* stream);

}  // namespace kdr
