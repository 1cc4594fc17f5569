#include "data/fileclashes.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "data/scratch.h"
#include "driver/failures.h"

namespace kdr {

namespace {

// Device and number of a file that exists, the resolved path of one that does not.
std::string place(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return std::to_string(status.st_dev) + " " + std::to_string(status.st_ino);
  std::error_code problem;
  const std::filesystem::path whole = std::filesystem::weakly_canonical(path, problem);
  return problem ? path : std::filesystem::absolute(whole, problem).string();
}

}  // namespace

void refuseclashes(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs) {
  std::set<std::string> read, written;
  for (const std::string& path : inputs)
    if (!path.empty()) read.insert(place(path));
  for (const std::string& path : outputs) {
    if (path.empty() || isspecial(path)) continue;
    if (read.contains(place(path))) stopwith("The output file %s is an input file of this run\n", path.c_str());
    if (!written.insert(place(path)).second)
      stopwith("The result file %s has the name of another file of this run\n", path.c_str());
  }
}

bool leadtoone(const std::string& one, const std::string& other) { return place(one) == place(other); }

}  // namespace kdr
