// Checked file access and the table of temporary files.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace kdr {

// A handle on one temporary file, open for update in binary mode.
using ScratchFile = std::FILE*;

inline constexpr int maxscratch = 50;

// Opens a new temporary file, positioned at 0. The file loses its name as soon as it is open, so that no end of the
// process, however sudden, leaves it behind. Stops the run when the table is full, or with failure 6.
[[nodiscard]] ScratchFile scratchopen();
// Failure 6 when there can be no temporary file, before anything is written that would be lost by it.
void checkscratch();
// Closes one scratch file and frees its place in the table. A null handle is ignored.
void scratchclose(ScratchFile file);
// Closes every scratch file. The stop sequence calls it.
void scratchcloseall();

// Opens a path; never returns on failure: prints the system's words and "Unable to open %s for reading" or "writing",
// and stops with code 100.
[[nodiscard]] std::FILE* openfile(const std::string& path, const char* mode);

// Stops with code 100 and "Unable to read" when a read from the stream has failed.
void checkread(std::FILE* stream, const std::string& name);

// Reads exactly `bytes` bytes: 1 on success or for a count of 0, else 0.
[[nodiscard]] int readchk(void* buffer, std::size_t bytes, std::FILE* stream);
// Reads up to `bytes` bytes and returns how many there were. A read that fails is not the end of the file: checkread.
[[nodiscard]] std::size_t readupto(void* buffer, std::size_t bytes, std::FILE* stream, const std::string& name);
// Writes exactly `bytes` bytes; failure 5 otherwise.
void writechk(const void* buffer, std::size_t bytes, std::FILE* stream);
// True when both paths lead to one existing file.
[[nodiscard]] bool samefile(const std::string& one, const std::string& other);
// True for a path, or a name in it, that is longer than the program or the system takes.
[[nodiscard]] bool overlong(const std::string& path);
// The file that a path leads to through symbolic links, whether it is there or not.
[[nodiscard]] std::string behindlinks(const std::string& path);
// True when the path leads to something that exists and is no ordinary file: a device, a pipe, a folder.
[[nodiscard]] bool isspecial(const std::string& path);
// Flushes and closes a file that was written; failure 5 when anything could not be written.
void closechk(std::FILE* stream);

}  // namespace kdr
