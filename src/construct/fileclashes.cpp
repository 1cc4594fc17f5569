#include "construct/fileclashes.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "construct/templatehead.h"
#include "data/mdm.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"

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

bool (*iscommandtext)(std::string_view head) = nullptr;

InputKind inputkind(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return InputKind::none;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return InputKind::none;
  char bytes[4096];
  std::string_view head(bytes, std::fread(bytes, 1, sizeof bytes, file));
  std::fclose(file);
  if (head.starts_with(mdmmagic)) return InputKind::mdmfile;
  constexpr std::string_view rawheads[] = {
      "$FL2", "$FL3", "PK\3\4", "<stata_dta>", "\xD0\xCF\x11\xE0", "HEADER RECORD*******"};
  for (const std::string_view raw : rawheads)
    if (head.starts_with(raw)) return InputKind::rawdata;
  if (head.starts_with(bytemark)) head.remove_prefix(bytemark.size());
  const auto begins = [&](std::string_view words) {
    return head.size() >= words.size() && strncasecmp(head.data(), words.data(), words.size()) == 0;
  };
  if (begins(templatehead)) return InputKind::mdmtemplate;
  if (begins("#SIGMA2")) return InputKind::startingvalues;
  return iscommandtext != nullptr && iscommandtext(head) ? InputKind::commandfile : InputKind::none;
}

void refuseinput(const std::string& output, InputKind own) {
  static constexpr const char* kinds[] = {"",        "an MDM file", "a template", "a command file", "starting values",
                                          "raw data"};
  const InputKind kind = output.empty() ? InputKind::none : inputkind(output);
  if (kind == InputKind::none || kind == own) return;
  stopwith("The output file %s holds %s, which would be lost. Give the output another name, or remove the file\n",
           output.c_str(), kinds[static_cast<int>(kind)]);
}

void refuseunwritable(const std::string& output) {
  std::error_code none;
  const bool isfolder = std::filesystem::is_directory(output, none);
  if (output.empty() || (isspecial(output) && !isfolder)) return;
  const std::string target = behindlinks(output);
  const std::filesystem::path folder = std::filesystem::path(target).parent_path();
  const bool writable =
      access(target.c_str(), W_OK) == 0 || access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) == 0;
  if (writable && !isfolder) return;
  if (isfolder) errno = EISDIR;
  std::perror("");  // of the folder
  stopwith("Unable to open %s for writing\n", output.c_str());
}

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
