#include "app/options.h"

#include <strings.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "command/text.h"
#include "construct/onefile.h"
#include "construct/template.h"
#include "core/numbers.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"

namespace kdr {

namespace {

constexpr const char* help =
    "usage: kdr3 [options] [mdm file] [command file]\n"
    "\n"
    "Estimates the model of the command file from the data of the MDM file; - is a command file on standard input.\n"
    "Without files the program asks. Options may stand before and behind the files.\n"
    "\n"
    "  -r FILE          a template (.mdmt): make an MDM file; another file: answers to the questions\n"
    "  -from FILE [-level3 COLUMN] -level2 COLUMN\n"
    "                   make an MDM file from one long file\n"
    "  -level1 NAMES    with -from: variables that stay at level 1 though they do not vary within units\n"
    "  -missing CODES   with -from: these numbers stand for missing values, as in -missing -9,999\n"
    "  -q               end at once\n"
    "  -nowait          end when the next second begins\n"
    "  -w               end after a pause of some seconds\n"
    "  -results FILE    write the results as a document (.json) or a table (.csv)\n"
    "  -strict          stop at what the command file says in vain (code 8 or 100); code 20 when not converged\n"
    "  -i 1             keep the data in memory\n"
    "  -t N             threads of the maximum-likelihood engines\n"
    "  -p low, -p high  priority of the process\n"
    "  -mi K, -e        data set K of a multiple imputation; -e: the last one; -e alone: average the series\n"
    "  -v               print the version and go on\n"
    "  -h, --help       print this list\n"
    "  --version        print the version\n";

[[noreturn]] void usageerror(const std::string& words) { stopwith("%s\n%s", words.c_str(), help); }

// Sets the process's niceness: idle priority for 'l', high for 'h'. A refusal by the system is no error.
void setpriority(int kind) {
  errno = 0;
  getpriority(PRIO_PROCESS, 0);
  if (errno != 0) {
    std::printf("\nUnable to get priority class");
    return;
  }
  constexpr int idle = 19, high = -10;
  ::setpriority(PRIO_PROCESS, 0, kind == 1 ? idle : high);
}

void responsefile(const char* path, Options& options) {
  if (istemplate(path)) {
    readtemplate(path);
    options.templatejob = true;
    return;
  }
  if (std::freopen(path, "r", stdin) == nullptr) stopwith("Unable to open %s\n", path);
  char mark[bytemark.size()];
  if (std::fread(mark, 1, sizeof mark, stdin) != sizeof mark || std::string_view(mark, sizeof mark) != bytemark)
    std::rewind(stdin);
}

// -mi<k>: what stands behind the "i", or the word behind it.
void imputation(const std::string& index) {
  constexpr int most = sizeof run.series.mistatus - 1;
  const std::optional<int> k = wholeof(index);
  if (!k || *k < 0 || *k > most)
    stopwith("The index of a data set behind -mi must lie within 0 and %d. It cannot be %s\n", most, index.c_str());
  run.series.mimode = true;
  run.series.miindex = *k;
  if (*k == 0) {
    run.series.mifirst = true;
    std::memset(run.series.mistatus, 0, sizeof run.series.mistatus);
  }
}

// Threads beyond this number are a slip of the hand.
constexpr int mostthreads = 1024;

void takeoption(char letter, const std::string& argument, Options& options) {
  switch (letter) {
    case 'p':
      if (!beginswith("low", argument) && !beginswith("high", argument))
        stopwith("-p takes low or high. It cannot be %s\n", argument.c_str());
      setpriority(beginswith("low", argument) ? 1 : 2);
      break;
    case 'r':
      responsefile(argument.c_str(), options);
      break;
    case 'v':
      std::printf("%s version %s\n\n", module, version);
      break;
    case 'w':
      run.id.waitseconds = 3;
      break;
    case 'q':
      run.id.waitseconds = -1;
      break;
    case 'n':
      if (!sameword(argument, "owait")) usageerror("illegal option -- n" + argument);
      run.id.waitseconds = 0;
      break;
    case 'i':
      if (argument != "0" && argument != "1") stopwith("-i takes 0 or 1. It cannot be %s\n", argument.c_str());
      run.id.inmemory = argument == "1";
      break;
    case 't':
      run.id.threads = wholeof(argument).value_or(0);
      if (run.id.threads < 1 || run.id.threads > mostthreads)
        stopwith("-t takes a number of threads from 1 to %d. It cannot be %s\n", mostthreads, argument.c_str());
      break;
    case 'm':
      imputation(argument.substr(1));
      break;
    default:  // 'e'
      run.series.milast = true;
      break;
  }
}

// Options of whole words without an argument. False when the word is none of them. The two that ask something end the
// process without a pause.
bool wordoption(const std::string& word) {
  const bool askhelp = word == "--help" || word == "-h" || word == "-help";
  if (askhelp || word == "--version" || word == "-version") {
    if (askhelp) {
      std::printf("%s", help);
    } else {
      std::printf("%s version %s\n", module, version);
    }
    run.id.waitseconds = -1;
    fail(0);
  }
  if (!sameword(word, "-strict")) return false;
  run.id.strict = true;
  return true;
}

// The path of a copy, in memory, of all that stands on standard input: the questions find its end there.
std::string standardinput() {
  const int copy = memfd_create("commands", 0);
  if (copy < 0) fail(6);
  char bytes[4096];
  ssize_t count = 0;
  const BreakableReads breakable;
  while ((count = read(STDIN_FILENO, bytes, sizeof bytes)) != 0) {
    checksignals();
    if (count < 0 && errno != EINTR) unreadableinput();
    if (count > 0 && write(copy, bytes, static_cast<std::size_t>(count)) != count) fail(3);
  }
  return "/proc/self/fd/" + std::to_string(copy);
}

// One long file in the place of a template: options of whole words.
struct OneFileOptions {
  std::string from, level3, level2, missing;
  std::vector<std::string> level1;  // of each -level1
};

// The numbers of a list with commas.
std::vector<double> numbersof(const std::string& list) {
  std::vector<double> numbers;
  if (list.empty()) return numbers;
  for (const std::string& text : split(list, ',')) {
    const std::optional<double> number = realof(text);
    if (!number)
      stopwith("-missing takes numbers with commas between them, as in -missing -9,999. It cannot be %s\n",
               list.c_str());
    numbers.push_back(*number);
  }
  return numbers;
}

// The names of lists with commas.
std::vector<std::string> wordsof(const std::vector<std::string>& lists) {
  std::vector<std::string> names;
  for (const std::string& list : lists)
    for (std::size_t at = 0, end = 0; at < list.size(); at = end + 1) {
      end = std::min(list.find(',', at), list.size());
      if (end > at) names.push_back(list.substr(at, end - at));
    }
  return names;
}

// The place for the argument of an option that is a whole word, or null when it is none.
std::string* argumentof(OneFileOptions& options, const char* word) {
  if (strcasecmp(word, "-from") == 0) return &options.from;
  if (strcasecmp(word, "-level3") == 0) return &options.level3;
  if (strcasecmp(word, "-level2") == 0) return &options.level2;
  if (strcasecmp(word, "-level1") == 0) return &options.level1.emplace_back();
  if (strcasecmp(word, "-missing") == 0) return &options.missing;
  if (strcasecmp(word, "-results") == 0) return &run.files.results;
  return nullptr;
}

}  // namespace

Options readoptions(int argc, char** argv) {
  constexpr const char* letters = "eimnprtwvq";
  constexpr const char* witharguments = "imnprt";
  Options options;
  OneFileOptions onefile;
  std::vector<std::string> files;
  bool optionsended = false;
  for (int next = 1; next < argc; ++next) {
    std::string word = argv[next];
    if (optionsended || word[0] != '-' || word == "-") {
      files.push_back(word);
      if (overlong(word)) stopwith("The path is too long: %s\n", word.c_str());
      continue;
    }
    if (word == "--") {
      optionsended = true;
      continue;
    }
    const auto argument = [&](const std::string& option) {
      if (next + 1 == argc) usageerror("option requires an argument -- " + option);
      return std::string(argv[++next]);
    };
    if (wordoption(word)) continue;
    std::string given;  // --option=given
    if (word.starts_with("--")) {
      const std::size_t sign = word.find('=');
      if (sign != std::string::npos) given = word.substr(sign + 1);
      word = word.substr(1, sign == std::string::npos ? sign : sign - 1);
    }
    if (wordoption(word)) continue;
    if (std::string* value = argumentof(onefile, word.c_str())) {
      *value = given.empty() ? argument(word.substr(1)) : given;
      continue;
    }
    for (std::size_t at = 1; at < word.size(); ++at) {
      const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(word[at])));
      if (std::strchr(letters, letter) == nullptr) usageerror(std::string("illegal option -- ") + word[at]);
      if (std::strchr(witharguments, letter) == nullptr) {
        takeoption(letter, "", options);
        continue;
      }
      std::string value = word.substr(at + 1);
      const bool index = letter == 'm' && (sameword(value, "i") || value.empty());
      if (index) {
        if (value.empty()) value = argument("m");
        if (sameword(value, "i")) value += given.empty() ? argument("mi") : given;
      } else if (value.empty()) {
        value = given.empty() ? argument(std::string(1, letter)) : given;
      }
      if (letter == 'm' && !beginswith(value, "i")) usageerror("illegal option -- m" + value);
      takeoption(letter, value, options);
      break;
    }
  }
  run.series.closing = run.series.milast && !run.series.mimode && files.empty() && argc > 1 && !options.templatejob &&
                       onefile.from.empty();
  if (run.series.milast && !run.series.mimode && !run.series.closing)
    stopwith("-e (last multiple imputation) specified, but -m (multiple imputation) was not!\n");
  run.files.resultsgiven = !run.files.results.empty();
  if (overlong(run.files.results)) stopwith("The path is too long: %s\n", run.files.results.c_str());
  if (!files.empty()) run.files.mdmfile = files[0];
  if (files.size() > 1) run.files.cmdshown = run.files.cmdfile = files[1];
  if (run.files.cmdfile == "-") run.files.cmdfile = standardinput();
  const bool wanted =
      !(onefile.from + onefile.level3 + onefile.level2 + onefile.missing).empty() || !onefile.level1.empty();
  if (wanted && (onefile.from.empty() || onefile.level2.empty() || options.templatejob))
    stopwith("-from FILE and -level2 COLUMN go together, with -level3 COLUMN for a third level, and without a template.\n");
  if (wanted) {
    takeonefile({onefile.from, onefile.level3, onefile.level2, wordsof(onefile.level1), numbersof(onefile.missing)});
    options.templatejob = true;
  }
  if (run.files.resultsgiven && options.templatejob)
    stopwith("-results goes with a model: no results come of making an MDM file.\n");
  return options;
}

}  // namespace kdr
