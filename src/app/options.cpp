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
#include <utility>
#include <vector>

#include "app/predictiondata.h"
#include "command/text.h"
#include "construct/onefile.h"
#include "construct/template.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"
#include "driver/warnings.h"

namespace kdr {

namespace {

constexpr const char* help =
    "usage: kdr3 [options] [mdm file] [command file]\n"
    "\n"
    "Estimates the model of the command file from the data of the MDM file; - is a command file on standard input.\n"
    "Without files the program asks. Options may stand before and behind the files.\n"
    "\n"
    "  -fit FORMULA FILE\n"
    "                   fit the model of a formula to one long file: score ~ year + (year | school/pupil)\n"
    "  -o STEM          with -fit: names of the files that are written, STEM.mdm .kdr .txt .json\n"
    "  -family NAME     with -fit: gaussian, binomial, poisson, ordinal or multinomial\n"
    "  -trials COLUMN, -exposure COLUMN\n"
    "                   with -fit: trials of a binomial outcome, exposure of counts\n"
    "  -engine NAME     with -fit: pql, laplace, laplace6 or quadrature\n"
    "  -points N        with -fit: points of the quadrature, or auto\n"
    "  -weights1 COLUMN, -weights2 COLUMN, -weights3 COLUMN\n"
    "                   with -fit: design weights of a level\n"
    "  -robust          with -fit: robust standard errors on the console\n"
    "  -keyword LINE    with -fit: one more line of the command file, as in -keyword NUMIT:1000,N\n"
    "  -page            with -fit: STEM.html, a page with tables and pictures\n"
    "  -r FILE          a template (.mdmt): make an MDM file; another file: answers to the questions\n"
    "  -from FILE -level2 COLUMN\n"
    "                   make an MDM file from one long file\n"
    "  -level3 COLUMN   with -from: the IDs of a third level\n"
    "  -level1 NAMES    with -from: variables that stay at level 1 though they do not vary within units\n"
    "  -factors         with -from: columns of names become columns of 0 and 1\n"
    "  -missing CODES   with -from and -fit: these numbers stand for missing values, as in -missing -9,999\n"
    "  -q               end at once\n"
    "  -nowait          end when the next second begins\n"
    "  -w               end after a pause of some seconds\n"
    "  -results FILE    write the results as a document (.json) or a table (.csv)\n"
    "  -effects         random effects of all units with their covariances in the results document\n"
    "  -predict FILE    predictions for the rows of a file, into a table beside the report\n"
    "  -margins LIST    predicted margins and average marginal effects, as in -margins 'year=0,1,2; female'\n"
    "  -reml            restricted maximum likelihood (LIKELIHOOD:REML)\n"
    "  -bootstrap N     bootstrap intervals from N replicates, drawn from the fitted model\n"
    "  -cases           with -bootstrap: level-3 units (of two levels, level-2 units) drawn with replacement\n"
    "  -seed S          with -bootstrap: number that the replicates follow from (1)\n"
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
  if (sameword(word, "-reml")) return run.id.restricted = true;
  if (sameword(word, "-cases")) return run.id.cases = true;
  if (sameword(word, "-effects")) return run.out.effects = true;
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
  std::string bootstrap, seed;
  std::vector<std::string> level1;  // of each -level1
  bool factors = false;
  FitRequest fit;
  bool page = false;
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

// The program that draws pages: beside this one, or found by its name.
std::string pagemaker() {
  constexpr const char* name = "kdr3-plot";
  char self[maxpath] = {};
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string folder(self, length > 0 ? static_cast<std::size_t>(length) : 0);
  folder.resize(folder.rfind('/') + 1);
  std::vector<std::string> places{folder};
  const char* path = std::getenv("PATH");
  if (path != nullptr)
    for (const std::string& place : split(path, ':')) places.push_back(place.empty() ? "" : place + "/");
  for (const std::string& place : places)
    if (access((place + name).c_str(), X_OK) == 0) return place + name;
  stopwith("-page needs the program %s, which is not installed.\n", name);
}

// The place for the argument of an option that is a whole word, or null when it is none.
std::string* argumentof(OneFileOptions& options, const char* word) {
  if (strcasecmp(word, "-from") == 0) return &options.from;
  if (strcasecmp(word, "-level3") == 0) return &options.level3;
  if (strcasecmp(word, "-level2") == 0) return &options.level2;
  if (strcasecmp(word, "-level1") == 0) return &options.level1.emplace_back();
  if (strcasecmp(word, "-missing") == 0) return &options.missing;
  if (strcasecmp(word, "-results") == 0) return &run.files.results;
  if (strcasecmp(word, "-predict") == 0) return &run.files.predict;
  if (strcasecmp(word, "-margins") == 0) return &run.files.margins;
  if (strcasecmp(word, "-bootstrap") == 0) return &options.bootstrap;
  if (strcasecmp(word, "-seed") == 0) return &options.seed;
  FitRequest& fit = options.fit;
  const std::pair<const char*, std::string*> offit[] = {{"-fit", &fit.formula},         {"-o", &fit.stem},
                                                        {"-family", &fit.family},       {"-trials", &fit.trials},
                                                        {"-exposure", &fit.exposure},   {"-engine", &fit.engine},
                                                        {"-points", &fit.points},       {"-weights1", &fit.weights[0]},
                                                        {"-weights2", &fit.weights[1]}, {"-weights3", &fit.weights[2]}};
  for (const auto& [name, place] : offit)
    if (strcasecmp(word, name) == 0) return place;
  if (strcasecmp(word, "-keyword") == 0) return &fit.keywords.emplace_back();
  return nullptr;
}

// Words without an argument that go with -from or -fit.
bool markof(OneFileOptions& options, const std::string& word) {
  if (sameword(word, "-factors")) return options.factors = true;
  if (sameword(word, "-robust")) return options.fit.robust = true;
  if (sameword(word, "-page")) return options.page = true;
  return false;
}

// Replicates and seed of the bootstrap.
void takebootstrap(const OneFileOptions& given) {
  constexpr int least = 20, most = 1000000;
  if (given.bootstrap.empty()) {
    if (run.id.cases || !given.seed.empty()) stopwith("-cases and -seed go with -bootstrap N.\n");
    return;
  }
  run.id.bootstrap = wholeof(given.bootstrap).value_or(0);
  if (run.id.bootstrap < least || run.id.bootstrap > most)
    stopwith("-bootstrap takes a number of replicates from %d to %d. It cannot be %s\n", least, most,
             given.bootstrap.c_str());
  if (given.seed.empty()) return;
  const std::optional<int> seed = wholeof(given.seed);
  if (!seed || *seed < 0)
    stopwith("-seed takes a whole number from 0 to 2147483647. It cannot be %s\n", given.seed.c_str());
  run.id.seed = static_cast<std::uint64_t>(*seed);
}

// -level2 and -level3 tell the units of the file of -predict, where no MDM file is made.
void takepredictions(OneFileOptions& given) {
  for (const std::string* word : {&run.files.predict, &run.files.margins})
    if (!word->empty() && run.series.mimode) stopwith("-predict and -margins are for single runs, not for series.\n");
  if (overlong(run.files.predict)) stopwith("The path is too long: %s\n", run.files.predict.c_str());
  if (run.files.predict.empty() || !given.from.empty() || !given.fit.formula.empty()) return;
  run.files.predictlevel2 = std::exchange(given.level2, "");
  run.files.predictlevel3 = std::exchange(given.level3, "");
}

// The one word behind the options is the file of -fit.
void takefit(OneFileOptions& onefile, bool given, const std::vector<std::string>& files, Options& options) {
  FitRequest& fit = onefile.fit;
  const bool any = onefile.page || fit.robust || !fit.keywords.empty() ||
                   !(fit.stem + fit.family + fit.trials + fit.exposure + fit.engine + fit.points + fit.weights[0] +
                     fit.weights[1] + fit.weights[2])
                        .empty();
  if (!given) {
    if (any) stopwith("-o, -family, -engine, -keyword and their like go with -fit FORMULA FILE.\n");
    return;
  }
  if (files.size() != 1) stopwith("-fit takes a formula and one file of data: -fit 'y ~ x + (1 | a/b)' FILE\n");
  if (!(onefile.from + onefile.level3 + onefile.level2).empty() || !onefile.level1.empty() || onefile.factors ||
      options.templatejob || run.series.mimode || run.files.resultsgiven)
    stopwith("-fit goes without -from, -level1, -level2, -level3, -factors, -r, -mi and -results.\n");
  fit.file = files[0];
  fit.missing = numbersof(onefile.missing);
  fit.page = onefile.page ? pagemaker() : "";
  fit.keepdata = !run.files.predict.empty() || !run.files.margins.empty();
  options.fit = std::move(fit);
}

}  // namespace

Options readoptions(int argc, char** argv) {
  constexpr const char* letters = "eimnprtwvq";
  constexpr const char* witharguments = "imnprt";
  Options options;
  OneFileOptions onefile;
  std::vector<std::string> files;
  bool optionsended = false, fitgiven = false, response = false;
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
    const bool twohyphens = word.starts_with("--");
    if (twohyphens) {
      const std::size_t sign = word.find('=');
      if (sign != std::string::npos) given = word.substr(sign + 1);
      word = word.substr(1, sign == std::string::npos ? sign : sign - 1);
      if (sign != std::string::npos && given.empty()) usageerror("option requires an argument -- " + word.substr(1));
    }
    if (wordoption(word) || markof(onefile, word)) {
      if (!given.empty()) usageerror("option takes no argument -- " + word.substr(1));
      continue;
    }
    if (std::string* value = argumentof(onefile, word.c_str())) {
      if (!value->empty()) stopwith("The option %s stands twice.\n", word.c_str());
      *value = given.empty() ? argument(word.substr(1)) : given;
      if (value->empty() && (value == &onefile.bootstrap || value == &onefile.seed))
        usageerror("option requires an argument -- " + word.substr(1));
      fitgiven = fitgiven || value == &onefile.fit.formula;
      continue;
    }
    for (std::size_t at = 1; at < word.size(); ++at) {
      const char letter = static_cast<char>(std::tolower(static_cast<unsigned char>(word[at])));
      if (std::strchr(letters, letter) == nullptr)
        usageerror("illegal option -- " + (twohyphens ? word.substr(1) : std::string(1, word[at])));
      if (std::strchr(witharguments, letter) == nullptr) {
        if (!given.empty()) usageerror("option takes no argument -- " + word.substr(1));
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
      if (letter == 'r' && std::exchange(response, true)) stopwith("The option -r stands twice.\n");
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
  takebootstrap(onefile);
  takepredictions(onefile);
  takefit(onefile, fitgiven, files, options);
  if (options.fit) {
    readpredictionfile(options.fit->missing);
    if (!run.files.predict.empty()) options.fit->planned = checkpredictionfile;
    return options;
  }
  if (!files.empty()) run.files.mdmfile = files[0];
  if (files.size() > 1) run.files.cmdshown = run.files.cmdfile = files[1];
  if (run.files.cmdfile == "-") run.files.cmdfile = standardinput();
  if (!run.files.predict.empty()) {
    readpredictionfile(numbersof(onefile.missing));
    onefile.missing.clear();
  }
  const bool wanted = !(onefile.from + onefile.level3 + onefile.level2 + onefile.missing).empty() ||
                      !onefile.level1.empty() || onefile.factors;
  if (wanted && (onefile.from.empty() || onefile.level2.empty() || options.templatejob))
    stopwith(
        "-from FILE and -level2 COLUMN go together, with -level3 COLUMN for a third level, and without a template.\n");
  if (wanted) {
    takeonefile({onefile.from, onefile.level3, onefile.level2, wordsof(onefile.level1), numbersof(onefile.missing),
                 onefile.factors});
    options.templatejob = true;
  }
  for (std::size_t i = options.templatejob ? 1 : 2; i < files.size(); ++i)
    warn("The word " + printable(files[i]) + " of the command line is not used.");
  if (options.templatejob && !(run.files.predict + run.files.margins).empty())
    stopwith("-predict and -margins go with a model.\n");
  if (run.files.resultsgiven && options.templatejob)
    stopwith("-results goes with a model: no results come of making an MDM file.\n");
  return options;
}

}  // namespace kdr
