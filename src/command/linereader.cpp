#include "command/linereader.h"

#include <utility>

#include "core/constants.h"
#include "driver/files.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"

namespace kdr {

bool nextline(LineReader& lines) {
  if (lines.held) {
    lines.held = false;
    ++lines.number;
    return true;
  }
  std::swap(lines.before, lines.line);
  lines.line.clear();
  int c = 0;
  bool ended = false;
  while (lines.line.size() < maxline - 1 && (c = std::fgetc(lines.stream.get())) != EOF) {
    lines.line.push_back(static_cast<char>(c));
    if (c == '\n') break;
  }
  checkread(lines.stream.get(), run.files.cmdfile);
  if (lines.line.empty()) return false;
  if (lines.number++ == 0) dropmark(lines.line, run.files.cmdfile);
  if (!lines.line.empty() && lines.line.back() == '\n') {
    ended = true;
    lines.line.pop_back();
  }
  if (const std::size_t zero = lines.line.find('\0'); zero != std::string::npos) lines.line.resize(zero);
  if (ended || c == EOF) lines.line.erase(lines.line.find_last_not_of(" \r") + 1);
  return true;
}

void holdline(LineReader& lines) {
  lines.held = true;
  --lines.number;
}

}  // namespace kdr
