#include "kernel/array.h"

namespace kdr {

void (*outofmemory)() = std::abort;

void* alloczero(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  void* memory = std::calloc(1, bytes);
  if (memory == nullptr) outofmemory();
  return memory;
}

}  // namespace kdr
