// Zeroed memory and the one array type made on it.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

namespace kdr {

// Returns `bytes` bytes of zeroed memory to be released with free(), or a null pointer for 0 bytes.
// On exhaustion it does what `new` does: the new-handler is called, without one std::bad_alloc is thrown.
[[nodiscard]] void* alloczero(std::size_t bytes);

// A zeroed, move-only array of plain values. Indexing is checked in debug builds only.
template <class T>
class Array {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  Array() = default;
  explicit Array(std::size_t n) : items(static_cast<T*>(alloczero(bytesfor(n)))), count(n) {}
  Array(Array&& other) noexcept : items(std::exchange(other.items, nullptr)), count(std::exchange(other.count, 0)) {}
  Array& operator=(Array&& other) noexcept {
    std::swap(items, other.items);
    std::swap(count, other.count);
    return *this;
  }
  ~Array() { std::free(items); }

  // Drops the contents and holds `n` zeroed values.
  void reset(std::size_t n) { *this = Array(n); }
  // Grows or shrinks to `n` values; the first min(n, size) stay, new ones are zero.
  void resize(std::size_t n) {
    Array next(n);
    if (const std::size_t kept = n < count ? n : count; kept > 0) std::memcpy(next.items, items, kept * sizeof(T));
    *this = std::move(next);
  }
  [[nodiscard]] Array copy() const {
    Array twin(count);
    if (count > 0) std::memcpy(twin.items, items, count * sizeof(T));
    return twin;
  }
  void fill(T value) {
    for (T& item : *this) item = value;
  }

  [[nodiscard]] T* data() { return items; }
  [[nodiscard]] const T* data() const { return items; }
  [[nodiscard]] std::size_t size() const { return count; }
  [[nodiscard]] bool empty() const { return count == 0; }
  T& operator[](std::size_t i) {
    assert(i < count);
    return items[i];
  }
  const T& operator[](std::size_t i) const {
    assert(i < count);
    return items[i];
  }
  T* begin() { return items; }
  T* end() { return items + count; }
  const T* begin() const { return items; }
  const T* end() const { return items + count; }
  operator std::span<T>() { return {items, count}; }
  operator std::span<const T>() const { return {items, count}; }

 private:
  static std::size_t bytesfor(std::size_t n) {
    // A count whose byte size overflows asks for more than there is, and so fails as exhausted memory.
    return n > static_cast<std::size_t>(-1) / sizeof(T) ? static_cast<std::size_t>(-1) : n * sizeof(T);
  }

  T* items = nullptr;
  std::size_t count = 0;
};

// Rows of one width, one for each unit of a level.
template <class T>
struct UnitTable {
  Array<T> cells;
  std::size_t width = 0;

  // Drops the contents and holds `rows` zeroed rows of `rowwidth` values.
  void reset(std::size_t rows, std::size_t rowwidth) {
    width = rowwidth;
    cells.reset(rows * rowwidth);
  }
  [[nodiscard]] T* row(int k) { return cells.data() + static_cast<std::size_t>(k) * width; }
  [[nodiscard]] const T* row(int k) const { return cells.data() + static_cast<std::size_t>(k) * width; }
};

}  // namespace kdr
