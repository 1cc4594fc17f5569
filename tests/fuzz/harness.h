// What every fuzz target shares. A stop of the program ends the job in hand, not the process.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

struct Stopped {
  int code;
};

// Once per process: stops throw, nothing is printed, and all files are made in a directory of their own.
inline void startharness() {
  static bool started = false;
  if (started) return;
  started = true;
  endprocess = [](int code) { throw Stopped{code}; };
  run.id.waitseconds = -1;
  std::string place = (std::filesystem::temp_directory_path() / "kdr3fuzzXXXXXX").string();
  if (mkdtemp(place.data()) == nullptr || chdir(place.c_str()) != 0) std::abort();
  static std::string remembered;
  remembered = place;
  std::atexit([] { std::filesystem::remove_all(remembered); });
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

inline void writeinput(const char* path, std::string_view bytes) {
  std::FILE* file = std::fopen(path, "wb");
  if (file == nullptr) std::abort();
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
}

// Runs one job to its end or its stop. The code of the stop must be one that bad input can have.
template <class Job>
void runjob(Job job) {
  try {
    job();
  } catch (const Stopped& stopped) {
    if (stopped.code != 100 && stopped.code != 1) std::abort();
  }
}

}  // namespace kdr
