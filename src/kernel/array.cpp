#include "kernel/array.h"

#include <new>

namespace kdr {

void* alloczero(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  for (;;) {
    if (void* memory = std::calloc(1, bytes)) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}

}  // namespace kdr
