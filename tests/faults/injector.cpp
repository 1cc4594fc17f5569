// A library that is loaded before the program's own: it counts the calls of the functions below, and the one that
// KDR3_FAULT names, "<group>:<n>", fails as the system would let it fail. Without KDR3_FAULT the counts of each group
// go to the file KDR3_COUNTS at the end.
//
// Groups: "open" (fopen and its like), "write" (a full disk from the n-th write on), "read" (one read error), "rename",
// "memory" (the n-th allocation and all that follow).
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum Group { opening, writing, reading, renaming, memory, ngroups };
constexpr const char* names[ngroups] = {"open", "write", "read", "rename", "memory"};

std::atomic<long> counts[ngroups];
int faultgroup = -1;
long faultcall = 0;
bool ready = false;

// True for the call that is to fail. Where the cause lasts, so does the fault.
bool fails(Group group) {
  if (!ready) return false;
  const long n = ++counts[group];
  if (group != faultgroup) return false;
  return group == writing || group == memory ? n >= faultcall : n == faultcall;
}

template <class F>
F next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

__attribute__((constructor)) void begin() {
  if (const char* fault = std::getenv("KDR3_FAULT")) {
    const char* colon = std::strchr(fault, ':');
    for (int g = 0; g < ngroups; ++g)
      if (std::strncmp(fault, names[g], static_cast<std::size_t>(colon - fault)) == 0) faultgroup = g;
    faultcall = std::atol(colon + 1);
  }
  ready = true;
}

void tell() {
  const char* path = std::getenv("KDR3_COUNTS");
  if (path == nullptr) return;
  ready = false;
  char text[200];
  int length = 0;
  for (int g = 0; g < ngroups; ++g)
    length += std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length), "%s %ld\n", names[g],
                            counts[g].load());
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (file < 0) return;
  static const auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
  (void)!real(file, text, static_cast<std::size_t>(length));
  close(file);
}

}  // namespace

extern "C" {

// The program ends by this one.
[[noreturn]] void _Exit(int code) {
  tell();
  _exit(code);
}

int open(const char* path, int flags, ...) {
  static const auto real = next<int (*)(const char*, int, ...)>("open");
  std::va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (fails(opening)) {
    errno = EACCES;
    return -1;
  }
  return real(path, flags, mode);
}

std::FILE* fopen(const char* path, const char* mode) {
  static const auto real = next<std::FILE* (*)(const char*, const char*)>("fopen");
  if (fails(opening)) {
    errno = EACCES;
    return nullptr;
  }
  return real(path, mode);
}

std::FILE* fdopen(int handle, const char* mode) {
  static const auto real = next<std::FILE* (*)(int, const char*)>("fdopen");
  if (fails(opening)) {
    errno = EMFILE;
    return nullptr;
  }
  return real(handle, mode);
}

int mkstemp(char* path) {
  static const auto real = next<int (*)(char*)>("mkstemp");
  if (fails(opening)) {
    errno = ENOSPC;
    return -1;
  }
  return real(path);
}

ssize_t pread(int handle, void* bytes, size_t count, off_t place) {
  static const auto real = next<ssize_t (*)(int, void*, size_t, off_t)>("pread");
  if (fails(reading)) {
    errno = EIO;
    return -1;
  }
  return real(handle, bytes, count, place);
}

// The names of the same functions for files of any size.
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
std::FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));
int mkstemp64(char* path) __attribute__((alias("mkstemp")));
ssize_t pread64(int handle, void* bytes, size_t count, off_t place) __attribute__((alias("pread")));

int rename(const char* from, const char* to) {
  static const auto real = next<int (*)(const char*, const char*)>("rename");
  if (fails(renaming)) {
    errno = EIO;
    return -1;
  }
  return real(from, to);
}

// Streams are cut off from the disk by their buffered writes: the library's own calls cannot be taken over, so the
// functions by which the program writes fail as a write through a full buffer would, with the stream's mark set.
size_t fwrite(const void* bytes, size_t size, size_t count, std::FILE* stream) {
  static const auto real = next<size_t (*)(const void*, size_t, size_t, std::FILE*)>("fwrite");
  if (fails(writing)) {
    errno = ENOSPC;
    stream->_flags |= 0x20;
    return 0;
  }
  return real(bytes, size, count, stream);
}

int vfprintf(std::FILE* stream, const char* format, std::va_list arguments) {
  static const auto real = next<int (*)(std::FILE*, const char*, std::va_list)>("vfprintf");
  if (fails(writing)) {
    errno = ENOSPC;
    stream->_flags |= 0x20;
    return -1;
  }
  return real(stream, format, arguments);
}

int fprintf(std::FILE* stream, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int written = vfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int fflush(std::FILE* stream) {
  static const auto real = next<int (*)(std::FILE*)>("fflush");
  if (fails(writing)) {
    errno = ENOSPC;
    if (stream != nullptr) stream->_flags |= 0x20;
    return EOF;
  }
  return real(stream);
}

int fclose(std::FILE* stream) {
  static const auto real = next<int (*)(std::FILE*)>("fclose");
  if (fails(writing)) {
    real(stream);
    errno = ENOSPC;
    return EOF;
  }
  return real(stream);
}

size_t fread(void* bytes, size_t size, size_t count, std::FILE* stream) {
  static const auto real = next<size_t (*)(void*, size_t, size_t, std::FILE*)>("fread");
  if (fails(reading)) {
    errno = EIO;
    stream->_flags |= 0x20;
    return 0;
  }
  return real(bytes, size, count, stream);
}

int fgetc(std::FILE* stream) {
  static const auto real = next<int (*)(std::FILE*)>("fgetc");
  if (fails(reading)) {
    errno = EIO;
    stream->_flags |= 0x20;
    return EOF;
  }
  return real(stream);
}

char* fgets(char* line, int size, std::FILE* stream) {
  static const auto real = next<char* (*)(char*, int, std::FILE*)>("fgets");
  if (fails(reading)) {
    errno = EIO;
    stream->_flags |= 0x20;
    return nullptr;
  }
  return real(line, size, stream);
}

void* malloc(size_t bytes) {
  static const auto real = next<void* (*)(size_t)>("malloc");
  if (fails(memory)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(bytes);
}

void* calloc(size_t n, size_t bytes) {
  // dlsym itself may ask for memory: until the real one is known, this much is at hand.
  static char early[4096];
  static std::size_t used = 0;
  static bool asking = false;
  static void* (*real)(size_t, size_t) = nullptr;
  if (real == nullptr) {
    if (asking) {
      void* piece = early + used;
      used += (n * bytes + 15) / 16 * 16;
      return piece;
    }
    asking = true;
    real = next<void* (*)(size_t, size_t)>("calloc");
  }
  if (fails(memory)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(n, bytes);
}
}
