#include "driver/questions.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "driver/terminal.h"

namespace kdr {

namespace {

// What is printed for a "?", in the order of Question.
constexpr const char* helptexts[] = {
    "An answer of one line.\n",
    "y for yes, n for no.\n",
    "A whole number.\n",
    "A number, with a point for its decimals.\n",
    "The number of a variable in the list above, or its name.\n",
    "A number, with a point for its decimals. An empty line leaves the value as it is.\n",
    "The file that the report goes to. A name that ends in .htm or .html makes a web page, any other plain text.\n",
    "The data file of this program that a model run reads, and that a run with raw data makes (usually .mdm).\n",
    "The file with the raw data, with its folder if it lies in another one.\n",
    "The file with the raw data, a slash and the type of the file, as in schools.csv /delim.\n",
    "The columns of a record in parentheses: A4 text of 4 columns, F7.3 a number in 7 columns, 5F2.0 five of them,\n"
    "2X two columns to pass over, / the next line. The text fields, the IDs, stand first.\n",
    "A name of at most 8 characters, as it will stand in the model and in the report.\n",
    "A line that stands above the report. It may be empty.\n",
    "0 leaves the variable as it is, 1 takes off the mean of its unit, 2 the mean of all records or units.\n",
    "o makes the coefficient an outcome of the regression, p a predictor, i leaves it out.\n",
    "now: records with a missing value never reach the MDM file. analysis: each run deletes those that lack a value "
    "in\n"
    "the variables of its model.\n",
    "0 ends the iterations and prints the results so far, 1 ends the run.\n",
};
static_assert(std::size(helptexts) == static_cast<std::size_t>(Question::interrupt) + 1);

bool asksforhelp(const std::string& line) {
  const std::size_t first = line.find_first_not_of(" \t");
  return first != std::string::npos && line[first] == '?' && line.find_first_not_of(" \t", first + 1) == line.npos;
}

bool inputended = false;

// A line of a pipe, a file, or a terminal whose output goes elsewhere.
bool plainline(const std::string& prompt, std::string& line) {
  std::fputs(prompt.c_str(), stdout);
  std::fflush(stdout);
  for (;;) {
    const int c = std::getchar();
    if (c == EOF || c == '\n') {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (c == EOF) {
        checksignals();
        if (std::ferror(stdin) != 0 && errno != EINTR) unreadableinput();
        std::clearerr(stdin);
      }
      inputended = c == EOF;
      return c == '\n' || !line.empty();
    }
    line.push_back(static_cast<char>(c));
  }
}

}  // namespace

bool readanswer(const std::string& prompt, std::string& line, Question question, const std::string& more) {
  for (;;) {
    line.clear();
    const BreakableReads breakable;
    const bool any = atterminal() ? editline(prompt, line) : plainline(prompt, line);
    checksignals();
    if (!asksforhelp(line)) return any;
    std::printf("%s%s", helptexts[static_cast<std::size_t>(question)], more.c_str());
  }
}

void unreadableinput() {
  std::perror("");
  stopwith("Unable to read standard input\n");
}

void tellnonumber(const std::string& answer, const char* wanted) {
  const std::size_t first = answer.find_first_not_of(" \t");
  if (first != answer.npos && std::strchr("+-.0123456789", answer[first]) != nullptr)
    std::printf(" This is no %s to its end: %s\n", wanted, printable(answer).c_str());
}

void noproperresponse() {
  std::fflush(stdout);
  if (inputended && !run.files.cmdfile.empty())
    std::fprintf(stderr,
                 "\nStandard input ended at this question. Lines of the command file answer such questions:\n"
                 "LEVEL1DELETION:NONE, CONSTRAIN:N, HYPOTH:N, %s, %s, TITLE:, OUTPUT:\n",
                 run.mdm.twolevel() ? "RESFIL2:N" : "LVR-BETA:N, RESFIL2:N, RESFIL3:N",
                 run.model.outcome.linear() ? "NUMIT:500,N" : "MACROIT:100,N, MICROIT:200");
  fail(100, "Unable to get a proper response!\n");
}

int askyesno(const char* prompt) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line, Question::yesno);
    const char first = line.empty() ? '\0' : line[0];
    if (first == 'n' || first == 'N') return 0;
    if (first == 'y' || first == 'Y') return 1;
  }
  noproperresponse();
}

int asknumber(const char* prompt, int lo, int hi) {
  const std::string range = formatted("It lies within %d and %d.\n", lo, hi);
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line, Question::number, range);
    const std::optional<int> value = wholeof(line);
    if (value && lo <= *value && *value <= hi) return *value;
    if (!value) tellnonumber(line, "whole number");
  }
  noproperresponse();
}

int askvariable(const char* prompt, int lo, int hi, const std::function<int(const std::string& name)>& find) {
  const std::string more =
      lo < 1 ? std::string("0 ends the list") + (lo < 0 ? "; -1 takes that of the question before.\n" : ".\n")
             : std::string();
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line, Question::variable, more);
    const std::optional<int> value = wholeof(line);
    if (value && lo <= *value && *value <= hi) return *value;
    const std::size_t first = line.find_first_not_of(" \t");
    if (value || first == std::string::npos) continue;
    const std::string name = line.substr(first, line.find_last_not_of(" \t") + 1 - first);
    const int found = find(name);
    if (found > 0) return found;
    std::printf(" There is no variable %s.\n", printable(name).c_str());
  }
  noproperresponse();
}

double askreal(const char* prompt, double lo, double hi) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer(std::string(prompt) + " ", line, Question::real);
    const std::optional<double> value = realof(line);
    if (value && lo <= *value && *value <= hi) return *value;
    if (!value) tellnonumber(line, "number");
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
