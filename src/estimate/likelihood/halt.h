// Whether a walk over units is to end before its end.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <utility>

namespace kdr {

// Every thread of a walk asks between its steps. The one that called, worker 0, hands the question on, twenty times a
// second at the most; what it is answered has no part in what is computed.
class Halt {
 public:
  static constexpr std::int64_t pause = 50;  // milliseconds

  Halt() = default;
  explicit Halt(std::function<bool()> asked) : question(std::move(asked)) {}
  [[nodiscard]] bool canhalt() const { return static_cast<bool>(question); }
  [[nodiscard]] bool halted() const { return over.load(std::memory_order_relaxed); }

  // True from the first true answer on.
  bool ask(int worker) {
    if (worker == 0 && question && !halted()) {
      const std::int64_t now = milliseconds();
      if (now - last >= pause) {
        last = now;
        if (question()) over.store(true, std::memory_order_relaxed);
      }
    }
    return halted();
  }

 private:
  // Of a clock that is cheap to read.
  static std::int64_t milliseconds() {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
  }

  std::function<bool()> question;
  std::atomic<bool> over{false};
  std::int64_t last = milliseconds();
};

// One thread's way to ask; without a halt it never ends early.
struct Asking {
  Halt* halt = nullptr;
  int worker = 0;
  [[nodiscard]] bool halted() const { return halt != nullptr && halt->ask(worker); }
};

}  // namespace kdr
