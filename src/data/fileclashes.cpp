#include "data/fileclashes.h"

#include <filesystem>
#include <set>
#include <system_error>

#include "driver/failures.h"

namespace kdr {

namespace {

std::filesystem::path canonical(const std::string& path) {
  std::error_code problem;
  std::filesystem::path whole = std::filesystem::weakly_canonical(path, problem);
  return problem ? std::filesystem::path(path) : std::filesystem::absolute(whole, problem);
}

}  // namespace

void refuseclashes(const std::vector<std::string>& taken, const std::vector<std::string>& results) {
  std::set<std::filesystem::path> places;
  for (const std::string& path : taken)
    if (!path.empty()) places.insert(canonical(path));
  for (const std::string& path : results) {
    std::error_code problem;
    const bool device = std::filesystem::exists(path, problem) && !std::filesystem::is_regular_file(path, problem);
    if (!device && !places.insert(canonical(path)).second)
      stopwith("The result file %s has the name of another file of this run\n", path.c_str());
  }
}

}  // namespace kdr
