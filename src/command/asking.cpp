#include "command/asking.h"

#include <cstdio>
#include <cstring>

#include "driver/questions.h"

namespace kdr {

char askletter(const std::string& prompt, const char* choices) {
  std::string line;
  for (;;) {
    if (!readanswer(prompt + " ", line, Question::centering)) noproperresponse();
    if (!line.empty() && std::strchr(choices, line[0]) != nullptr) return line[0];
  }
}

}  // namespace kdr
