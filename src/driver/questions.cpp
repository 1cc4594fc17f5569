#include "driver/questions.h"

#include <cstdio>
#include <cstdlib>

#include "driver/failures.h"
#include "driver/terminal.h"

namespace kdr {

namespace {

// A line of a pipe, a file, or a terminal whose output goes elsewhere.
bool plainline(const std::string& prompt, std::string& line) {
  std::fputs(prompt.c_str(), stdout);
  std::fflush(stdout);
  for (;;) {
    const int c = std::getchar();
    if (c == EOF || c == '\n') {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (c == EOF) std::clearerr(stdin);
      return c == '\n' || !line.empty();
    }
    line.push_back(static_cast<char>(c));
  }
}

}  // namespace

bool readanswer(const std::string& prompt, std::string& line) {
  line.clear();
  const bool any = atterminal() ? editline(prompt, line) : plainline(prompt, line);
  checksignals();
  return any;
}

void noproperresponse() { fail(100, "Unable to get a proper response!\n"); }

int askyesno(const char* prompt) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line);
    const char first = line.empty() ? '\0' : line[0];
    if (first == 'n' || first == 'N') return 0;
    if (first == 'y' || first == 'Y') return 1;
  }
  noproperresponse();
}

int asknumber(const char* prompt, int lo, int hi) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line);
    char* end = nullptr;
    const long value = std::strtol(line.c_str(), &end, 10);
    if (end != line.c_str() && lo <= value && value <= hi) return static_cast<int>(value);
  }
  noproperresponse();
}

double askreal(const char* prompt, double lo, double hi) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line);
    char* end = nullptr;
    const double value = std::strtod(line.c_str(), &end);
    if (end != line.c_str() && lo <= value && value <= hi) return value;
  }
  noproperresponse();
}

void showchoices(const char* prompt, int n, const Array<Name>& table, int skip) {
  std::printf("\n%s\n The choices are: \n", prompt);
  for (int i = 1; i <= n; ++i) {
    if (i == skip) {
      std::printf("%25s", "");
    } else {
      std::printf(" For %8.8s enter %2d   ", table[static_cast<std::size_t>(i)].text, i);
    }
    if (i % 3 == 0) std::printf("\n");
  }
  std::printf(n % 3 == 0 ? "\n" : "\n\n");
}

void centertitle(const char* text) {
  const std::string title = text;
  const int pad = (75 - static_cast<int>(title.size())) / 2;
  std::printf("\n%*s%s\n", pad > 0 ? pad : 0, "", text);
}

}  // namespace kdr
