#include "construct/fileclashes.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

// Device and number of a file that exists, the resolved path of one that does not.
std::string place(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return std::to_string(status.st_dev) + " " + std::to_string(status.st_ino);
  std::error_code problem;
  const std::filesystem::path whole = std::filesystem::weakly_canonical(behindlinks(path), problem);
  return problem ? path : std::filesystem::absolute(whole, problem).string();
}

}  // namespace

std::string lossby(const std::string& output, const std::vector<std::string>& inputs) {
  for (const std::string& path : inputs)
    if (!path.empty() && leadtoone(output, path))
      return "The output file " + output + " is an input file of this run\n";
  const std::string folder = std::filesystem::path(run.files.mdmfile).parent_path() / "";
  for (const std::string& raw : run.mdm.fnames)
    if (!raw.empty() && (samefile(output, raw) || samefile(output, folder + raw)))
      return "The output file " + output + " holds raw data of the MDM file, which would be lost\n";
  return {};
}

void refuseclashes(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs) {
  std::set<std::string> written;
  for (const std::string& path : outputs) {
    if (path.empty() || isspecial(path)) continue;
    if (const std::string words = lossby(path, inputs); !words.empty()) stopwith("%s", words.c_str());
    if (!written.insert(place(path)).second)
      stopwith("The result file %s has the name of another file of this run\n", path.c_str());
  }
}

bool leadtoone(const std::string& one, const std::string& other) { return place(one) == place(other); }

}  // namespace kdr
