#include "data/scratch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "core/constants.h"

namespace kdr {

namespace {

// A new file in the user's temporary directory that nobody else can open: one that never had a name where the system
// has such files, otherwise one that was new under its name and lost it at once. -1 when there can be none.
int openunnamed() {
  const char* directory = std::getenv("TMPDIR");
  std::string path = directory != nullptr && *directory != '\0' ? directory : "/tmp";
#ifdef O_TMPFILE
  if (const int handle = open(path.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR); handle >= 0)
    return handle;
#endif
  path += "/kdr3XXXXXX";
  const int handle = mkstemp(path.data());
  if (handle >= 0) unlink(path.c_str());
  return handle;
}

}  // namespace

Failure notemporaryfile() {
  Failure failure = failed(notemporary);
  failure.systemerror = errno;
  return failure;
}

ScratchFile scratchopen() {
  const int handle = openunnamed();
  if (handle < 0) return nullptr;
  ScratchFile file(fdopen(handle, "w+b"));
  if (file == nullptr) {
    const int problem = errno;
    close(handle);
    errno = problem;
  }
  return file;
}

int readchk(void* buffer, std::size_t bytes, std::FILE* stream) {
  return bytes == 0 || std::fread(buffer, bytes, 1, stream) == 1;
}

bool samefile(const std::string& one, const std::string& other) {
  struct stat a {
  }, b{};
  return stat(one.c_str(), &a) == 0 && stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool overlong(const std::string& path) {
  if (path.size() >= maxpath) return true;
  for (std::size_t at = 0, end = 0; at < path.size(); at = end + 1) {
    end = std::min(path.find('/', at), path.size());
    if (end - at > NAME_MAX) return true;
  }
  return false;
}

std::string behindlinks(const std::string& path) {
  constexpr int mostlinks = 40;
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) != nullptr) return resolved;
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return path;  // a pipe, say, behind /dev/stdout
  std::filesystem::path target = path;
  std::error_code none;
  for (int n = 0; n < mostlinks; ++n) {
    const std::filesystem::path next = std::filesystem::read_symlink(target, none);
    if (none) break;
    target = target.parent_path() / next;
  }
  return target;
}

bool isspecial(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

}  // namespace kdr
