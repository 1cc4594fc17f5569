#include "driver/terminal.h"

namespace kdr {

bool atterminal() { return false; }

bool editline(const std::string&, std::string& line) {
  line.clear();
  return false;
}

}  // namespace kdr
