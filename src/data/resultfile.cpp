#include "data/resultfile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr std::size_t buffersize = std::size_t{1} << 20;

// The file behind a path that may be a symbolic link; the path itself when there is none.
std::string behindlinks(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

bool isspecial(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

void forget(const std::string& path) { std::erase(run.files.unfinished, path); }

[[noreturn]] void cannotwrite(ResultFile& file) {
  std::fclose(file.stream);
  file.stream = nullptr;
  if (!file.temporary.empty()) std::remove(file.temporary.c_str());
  fail(5);
}

}  // namespace

void openresult(ResultFile& file, const std::string& path) {
  file.target = behindlinks(path);
  file.temporary.clear();
  file.used = 0;
  if (file.buffer.empty()) file.buffer.reset(buffersize);
  if (!isspecial(file.target)) {
    file.temporary = file.target + ".part";
    file.stream = std::fopen(file.temporary.c_str(), "wb");
  }
  if (file.temporary.empty() || file.stream == nullptr) {
    // A device, or a folder that takes no new file: the target as it stands, or the message that it cannot be had.
    file.temporary.clear();
    file.stream = openfile(path, "wb");
  } else {
    run.files.unfinished.push_back(file.temporary);
  }
  std::setvbuf(file.stream, nullptr, _IONBF, 0);
}

void flushresult(ResultFile& file) {
  if (file.used != 0 && std::fwrite(file.buffer.data(), 1, file.used, file.stream) != file.used) cannotwrite(file);
  file.used = 0;
}

void writeresult(ResultFile& file, const void* bytes, std::size_t count) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    if (file.used == file.buffer.size()) flushresult(file);
    const std::size_t piece = std::min(count, file.buffer.size() - file.used);
    std::memcpy(file.buffer.data() + file.used, from, piece);
    file.used += piece;
    from += piece;
    count -= piece;
  }
}

void writeresult(ResultFile& file, std::string_view text) { writeresult(file, text.data(), text.size()); }

void finishresult(ResultFile& file) {
  flushresult(file);
  const bool unwritten = std::ferror(file.stream) != 0;
  const bool unclosed = std::fclose(file.stream) != 0;
  file.stream = nullptr;
  const std::string temporary = file.temporary;
  if (unwritten || unclosed || (!temporary.empty() && std::rename(temporary.c_str(), file.target.c_str()) != 0)) {
    if (!temporary.empty()) std::remove(temporary.c_str());
    fail(5);
  }
  forget(temporary);
}

}  // namespace kdr
