#include "driver/files.h"

#include <cerrno>
#include <cstdio>

#include "core/formatted.h"
#include "driver/failures.h"

namespace kdr {

ScratchFile neededscratch() {
  ScratchFile file = scratchopen();
  if (file == nullptr) tell(notemporaryfile());
  return file;
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

std::size_t readupto(void* buffer, std::size_t bytes, std::FILE* stream, const std::string& name) {
  const std::size_t got = std::fread(buffer, 1, bytes, stream);
  if (got < bytes) checkread(stream, name);
  return got;
}

void writechk(const void* buffer, std::size_t bytes, std::FILE* stream) {
  if (bytes != 0 && std::fwrite(buffer, bytes, 1, stream) != 1) fail(5);
}

void checkwritten(std::FILE* stream) {
  if (std::ferror(stream) != 0) fail(5);
}

void closechk(std::FILE* stream) {
  const bool unwritten = std::ferror(stream) != 0;
  if (std::fclose(stream) != 0 || unwritten) fail(5);
}

}  // namespace kdr
