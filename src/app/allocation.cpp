// Memory that runs out inside a library ends the run as it does in the program's own code: with failure 3 and without
// unfinished files. Some libraries that read raw data do not look at what they are given, and would end by a signal.
//
// The functions below take the place of the C library's for the whole process, and do their work through it. Other C
// libraries have no such names.
#include <cstdlib>

#include "driver/failures.h"

#ifdef __GLIBC__

#include <atomic>

extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t n, std::size_t bytes);
void* __libc_realloc(void* piece, std::size_t bytes);
}

namespace {

// What the end of the run asks for in vain stays without: it has to come to its end.
void* orfailure(void* piece) {
  static std::atomic<bool> ending = false;
  if (piece == nullptr && !ending.exchange(true)) kdr::fail(3);
  return piece;
}

}  // namespace

extern "C" {

void* malloc(std::size_t bytes) { return orfailure(__libc_malloc(bytes)); }

void* calloc(std::size_t n, std::size_t bytes) { return orfailure(__libc_calloc(n, bytes)); }

void* realloc(void* piece, std::size_t bytes) {
  void* grown = __libc_realloc(piece, bytes);
  return bytes == 0 ? grown : orfailure(grown);
}
}

#endif
