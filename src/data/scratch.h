// Temporary files, and what paths lead to.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

#include "core/failure.h"

namespace kdr {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
// A temporary file, open for update in binary mode; it closes when it goes.
using ScratchFile = std::unique_ptr<std::FILE, CloseFile>;

// Opens a new temporary file, positioned at 0. The file loses its name as soon as it is open, so that no end of the
// process, however sudden, leaves it behind. Null, with errno, when there can be none.
[[nodiscard]] ScratchFile scratchopen();
// Failure 6 for what errno tells.
[[nodiscard]] Failure notemporaryfile();

// Reads exactly `bytes` bytes: 1 on success or for a count of 0, else 0.
[[nodiscard]] int readchk(void* buffer, std::size_t bytes, std::FILE* stream);

// True when both paths lead to one existing file.
[[nodiscard]] bool samefile(const std::string& one, const std::string& other);
// True for a path, or a name in it, that is longer than the program or the system takes.
[[nodiscard]] bool overlong(const std::string& path);
// The file that a path leads to through symbolic links, whether it is there or not.
[[nodiscard]] std::string behindlinks(const std::string& path);
// True when the path leads to something that exists and is no ordinary file: a device, a pipe, a folder.
[[nodiscard]] bool isspecial(const std::string& path);

}  // namespace kdr
