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
#include "core/formatted.h"
#include "driver/failures.h"

namespace kdr {

namespace {

ScratchFile table[maxscratch];

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

[[noreturn]] void notempfile() {
  std::perror("tmpfile");
  fail(6);
}

}  // namespace

ScratchFile scratchopen() {
  ScratchFile* slot = nullptr;
  for (ScratchFile& entry : table)
    if (entry == nullptr) {
      slot = &entry;
      break;
    }
  if (slot == nullptr) stopwith("Cannot open any more scratch files!\n");

  const int handle = openunnamed();
  if (handle < 0) notempfile();
  *slot = fdopen(handle, "w+b");
  if (*slot == nullptr) {
    close(handle);
    notempfile();
  }
  return *slot;
}

void checkscratch() { scratchclose(scratchopen()); }

void scratchclose(ScratchFile file) {
  for (ScratchFile& entry : table)
    if (file != nullptr && entry == file) {
      std::fclose(entry);
      entry = nullptr;
    }
}

void scratchcloseall() {
  for (ScratchFile& entry : table)
    if (entry != nullptr) {
      std::fclose(entry);
      entry = nullptr;
    }
}

std::FILE* openfile(const std::string& path, const char* mode) {
  std::FILE* stream = std::fopen(path.c_str(), mode);
  if (stream != nullptr && mode[0] == 'r') {
    // A directory opens for reading but cannot be read.
    const int c = std::fgetc(stream);
    if (c == EOF && std::ferror(stream)) {
      const int problem = errno;
      std::fclose(stream);
      stream = nullptr;
      errno = problem;
    } else if (c != EOF) {
      std::ungetc(c, stream);
    } else {
      std::clearerr(stream);
    }
  }
  if (stream != nullptr) return stream;
  std::perror("");
  std::printf("Unable to open %s for ", printable(path).c_str());
  if (mode[0] == 'r') std::printf("reading\n");
  if (mode[0] == 'w' || mode[0] == 'a') std::printf("writing\n");
  stoprun(100);
}

void checkread(std::FILE* stream, const std::string& name) {
  if (std::ferror(stream) == 0) return;
  std::perror("");
  stopwith("Unable to read %s\n", name.c_str());
}

int readchk(void* buffer, std::size_t bytes, std::FILE* stream) {
  return bytes == 0 || std::fread(buffer, bytes, 1, stream) == 1;
}

std::size_t readupto(void* buffer, std::size_t bytes, std::FILE* stream, const std::string& name) {
  const std::size_t got = std::fread(buffer, 1, bytes, stream);
  if (got < bytes) checkread(stream, name);
  return got;
}

void writechk(const void* buffer, std::size_t bytes, std::FILE* stream) {
  if (bytes != 0 && std::fwrite(buffer, bytes, 1, stream) != 1) fail(5);
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

void closechk(std::FILE* stream) {
  const bool unwritten = std::ferror(stream) != 0;
  if (std::fclose(stream) != 0 || unwritten) fail(5);
}

}  // namespace kdr
