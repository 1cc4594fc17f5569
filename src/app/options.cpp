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
#include <string>
#include <vector>

#include "construct/onefile.h"
#include "construct/template.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"

namespace kdr {

namespace {

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

// -mi<k>
void imputation(const char* argument) {
  if (std::tolower(static_cast<unsigned char>(argument[0])) != 'i') return;
  constexpr long most = sizeof run.series.mistatus - 1;
  const long k = std::strtol(argument + 1, nullptr, 10);
  if (k < 0 || k > most) stopwith("The index of a data set behind -mi must lie within 0 and %ld.\n", most);
  run.series.mimode = true;
  run.series.miindex = static_cast<int>(k);
  if (k == 0) {
    run.series.mifirst = true;
    std::memset(run.series.mistatus, 0, sizeof run.series.mistatus);
  }
}

void takeoption(char letter, const char* argument, Options& options) {
  switch (letter) {
    case 'p':
      if (std::tolower(static_cast<unsigned char>(argument[0])) == 'l') setpriority(1);
      if (std::tolower(static_cast<unsigned char>(argument[0])) == 'h') setpriority(2);
      break;
    case 'r':
      responsefile(argument, options);
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
      if (strncasecmp(argument, "owait", 5) == 0) run.id.waitseconds = 0;
      break;
    case 'i':
      run.id.inmemory = argument[0] != '0';
      break;
    case 't':
      run.id.threads = std::max(0, std::atoi(argument));
      break;
    case 'm':
      imputation(argument);
      break;
    default:  // 'e'
      run.series.milast = true;
      break;
  }
}

[[noreturn]] void usage(const char* program) {
  stopwith("usage: %s [-p priority] [-r respfile] [-v] [-w] [-nowait] [mdm file] [command file]\n", program);
}

constexpr const char* help =
    "usage: kdr3 [options] [mdm file] [command file]\n"
    "\n"
    "Estimates the model of the command file from the data of the MDM file; - is a command file on standard input.\n"
    "Without files the program asks. Options may stand before and behind the files.\n"
    "\n"
    "  -r FILE          a template (.mdmt): make an MDM file; another file: answers to the questions\n"
    "  -from FILE -level3 COLUMN -level2 COLUMN\n"
    "                   make an MDM file from one long file\n"
    "  -level1 NAMES    with -from: variables that stay at level 1 though they do not vary within units\n"
    "  -missing CODES   with -from: these numbers stand for missing values, as in -missing -9,999\n"
    "  -q               end at once\n"
    "  -nowait          end when the next second begins\n"
    "  -w               end after a pause of some seconds\n"
    "  -results FILE    write the results as a document (.json) or a table (.csv)\n"
    "  -strict          stop at an unknown keyword (code 8) or a lost equation (100); code 20 when not converged\n"
    "  -i 1             keep the data in memory\n"
    "  -t N             threads of the maximum-likelihood engines\n"
    "  -p low, -p high  priority of the process\n"
    "  -mi K, -e        data set K of a multiple imputation; -e: the last one\n"
    "  -v               print the version and go on\n"
    "  -h, --help       print this list\n"
    "  --version        print the version\n";

// Options of whole words without an argument. False when the word is none of them. The two that ask something end the
// process without a pause.
bool wordoption(const char* word) {
  const bool askhelp = std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0;
  if (askhelp || std::strcmp(word, "--version") == 0) {
    if (askhelp) {
      std::printf("%s", help);
    } else {
      std::printf("%s version %s\n", module, version);
    }
    run.id.waitseconds = -1;
    fail(0);
  }
  if (strcasecmp(word, "-strict") != 0) return false;
  run.id.strict = true;
  return true;
}

// The path of a copy, in memory, of all that stands on standard input: the questions find its end there.
std::string standardinput() {
  const int copy = memfd_create("commands", 0);
  if (copy < 0) fail(6);
  char bytes[4096];
  ssize_t count = 0;
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
  for (const char* at = list.c_str(); *at != '\0';) {
    char* end = nullptr;
    numbers.push_back(std::strtod(at, &end));
    if (end == at || (*end != ',' && *end != '\0'))
      stopwith("-missing takes numbers with commas between them, as in -missing -9,999. It cannot be %s\n",
               list.c_str());
    at = *end == ',' ? end + 1 : end;
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
  for (int word = 1; word < argc; ++word) {
    if (optionsended || argv[word][0] != '-' || argv[word][1] == '\0') {
      files.emplace_back(argv[word]);
      if (overlong(files.back())) stopwith("The path is too long: %s\n", argv[word]);
      continue;
    }
    if (std::strcmp(argv[word], "--") == 0) {
      optionsended = true;
      continue;
    }
    if (wordoption(argv[word])) continue;
    if (std::string* value = argumentof(onefile, argv[word])) {
      if (word + 1 == argc) {
        std::printf("option requires an argument -- %s\n", argv[word] + 1);
        usage(argv[0]);
      }
      *value = argv[++word];
      continue;
    }
    for (const char* at = argv[word] + 1; *at != '\0'; ++at) {
      const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(*at)));
      if (std::strchr(letters, letter) == nullptr) {
        std::printf("illegal option -- %c\n", *at);
        usage(argv[0]);
      }
      const char* argument = "";
      const bool takesargument = std::strchr(witharguments, letter) != nullptr;
      if (takesargument) {
        if (at[1] != '\0') {
          argument = at + 1;
        } else if (word + 1 < argc) {
          argument = argv[++word];
        } else {
          std::printf("option requires an argument -- %c\n", *at);
          usage(argv[0]);
        }
      }
      takeoption(letter, argument, options);
      if (takesargument) break;
    }
  }
  if (run.series.milast && !run.series.mimode)
    stopwith("-e (last multiple imputation) specified, but -m (multiple imputation) was not!\n");
  run.files.resultsgiven = !run.files.results.empty();
  if (overlong(run.files.results)) stopwith("The path is too long: %s\n", run.files.results.c_str());
  if (!files.empty()) run.files.mdmfile = files[0];
  if (files.size() > 1) run.files.cmdshown = run.files.cmdfile = files[1];
  if (run.files.cmdfile == "-") run.files.cmdfile = standardinput();
  const bool wanted =
      !(onefile.from + onefile.level3 + onefile.level2 + onefile.missing).empty() || !onefile.level1.empty();
  if (wanted && (onefile.from.empty() || onefile.level3.empty() || onefile.level2.empty() || options.templatejob))
    stopwith("-from FILE, -level3 COLUMN and -level2 COLUMN go together, and without a template.\n");
  if (wanted) {
    takeonefile({onefile.from, onefile.level3, onefile.level2, wordsof(onefile.level1), numbersof(onefile.missing)});
    options.templatejob = true;
  }
  if (run.files.resultsgiven && options.templatejob)
    stopwith("-results goes with a model: no results come of making an MDM file.\n");
  return options;
}

}  // namespace kdr
