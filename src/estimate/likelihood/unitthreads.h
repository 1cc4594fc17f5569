// The level-3 units of the data set on several threads. They are independent: each writes places of its own, and sums
// over units are formed afterwards in the order of the units, so that the number of threads changes no byte.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "estimate/likelihood/halt.h"
#include "estimate/likelihood/unitrecords.h"

namespace kdr {

// Calls each(place, worker) for every place below `count`, worker from 0 to threads - 1; as many threads as there are
// places at the most. A halt leaves out what is not begun.
template <class Each>
void overplaces(std::size_t count, int threads, Halt& halt, Each each) {
  std::atomic<std::size_t> next{0};
  std::atomic<bool> exhausted{false};
  const auto work = [&](int worker) {
    try {
      for (std::size_t i = next++; i < count && !halt.ask(worker); i = next++) each(i, worker);
    } catch (const std::bad_alloc&) {  // goes on in the thread that called, once the others have ended
      exhausted = true;
      next = count;
    }
  };
  const int workers = static_cast<int>(std::min(count, static_cast<std::size_t>(std::max(threads, 1))));
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t ended = 0;
  std::vector<std::thread> others;
  try {
    for (int worker = 1; worker < workers; ++worker)
      others.emplace_back([&, worker] {
        work(worker);
        const std::lock_guard<std::mutex> lock(mutex);
        ++ended;
        changed.notify_one();
      });
  } catch (const std::system_error&) {  // the system gives no more threads: those that there are do the work
  }
  work(0);
  // The thread that called goes on asking while it waits for the others.
  for (std::unique_lock<std::mutex> lock(mutex); halt.canhalt() && ended < others.size();) {
    changed.wait_for(lock, std::chrono::milliseconds(Halt::pause));
    lock.unlock();
    halt.ask(0);
    lock.lock();
  }
  for (std::thread& other : others) other.join();
  if (exhausted) throw std::bad_alloc();
}
template <class Each>
void overplaces(std::size_t count, int threads, Each each) {
  Halt never;
  overplaces(count, threads, never, each);
}

// Calls, for one batch of the source after the other, before(batch), each(batch, place, worker) for every unit of it,
// and after(batch), which may end the walk by false. False when the source has ended before its last unit, and after a
// halt.
template <class Before, class Each, class After>
[[nodiscard]] bool overbatches(const RecordSource& source, int threads, Halt& halt, Before before, Each each,
                               After after) {
  constexpr std::size_t worthathread = 2000;  // records
  source.rewind(source.state);
  for (;;) {
    const std::vector<Level3Records>& batch = source.next(source.state);
    if (batch.empty()) return !brokensource(source);
    std::size_t records = 0;
    for (const Level3Records& unit : batch) records += unit.y.size();
    before(batch);
    overplaces(batch.size(),
               static_cast<int>(std::min(1 + records / worthathread, static_cast<std::size_t>(std::max(threads, 1)))),
               halt, [&](std::size_t place, int worker) { each(batch, place, worker); });
    if (halt.halted()) return false;
    if (!after(batch)) return true;
  }
}

// Calls each(unit, worker) for every level-3 unit of the source. False as overbatches.
template <class Each>
[[nodiscard]] bool overunits(const RecordSource& source, int threads, Halt& halt, Each each) {
  return overbatches(
      source, threads, halt, [](const auto&) {},
      [&](const std::vector<Level3Records>& batch, std::size_t place, int worker) { each(batch[place], worker); },
      [](const auto&) { return true; });
}

// The halt of a walk over a source: its fit is given up.
[[nodiscard]] inline std::function<bool()> givingup(const RecordSource& source) {
  if (source.givesup == nullptr) return {};
  return [&source] { return source.givesup(source.state); };
}

}  // namespace kdr
