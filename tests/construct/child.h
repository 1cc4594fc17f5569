// Runs a job that may end the process in a process of its own, and makes files for it.
#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "driver/runrecord.h"

namespace kdr {

struct ChildEnd {
  int code;           // exit code, -1 for a crash
  std::string words;  // all that the job printed to standard output
};

inline std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void makefile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
}

// A job that returns ends with code 0.
inline ChildEnd runchild(const std::function<void()>& job) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    if (std::freopen("words", "w", stdout) == nullptr) _exit(99);
    run.id.waitseconds = -1;
    job();
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents("words")};
}

// No file may grow beyond `size`, as on a full disk. For a process of its own.
inline void limitfiles(rlim_t size) {
  const rlimit limit{size, size};
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, SIG_IGN);
}

// A directory of its own that is the working directory while the object lives.
struct Workplace {
  std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::path place;

  Workplace() {
    std::string path = (std::filesystem::temp_directory_path() / "kdr3testXXXXXX").string();
    place = mkdtemp(path.data());
    std::filesystem::current_path(place);
  }
  ~Workplace() {
    std::filesystem::current_path(before);
    std::filesystem::remove_all(place);
  }
};

}  // namespace kdr
