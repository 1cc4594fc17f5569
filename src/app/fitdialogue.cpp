#include "app/fitdialogue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "command/text.h"
#include "construct/levelsource.h"
#include "construct/longfile.h"
#include "core/formatted.h"
#include "driver/questions.h"

namespace kdr {

namespace {

bool binomial(const FitRequest& request) { return sameword(request.family, "binomial"); }
bool poisson(const FitRequest& request) { return sameword(request.family, "poisson"); }

using Answer = const std::string&;

// Columns with commas between them, of one level after the other. What stands behind the third is no column.
void takeweights(FitRequest& request, Answer answer) {
  const std::vector<std::string> columns = split(answer, ',');
  for (std::size_t level = 0; level < std::size(request.weights); ++level)
    request.weights[level] = level < columns.size() ? std::string(trimmed(columns[level])) : std::string();
}

std::string knownfamily(Answer family) {
  constexpr const char* words[] = {"gaussian", "binomial", "poisson", "ordinal", "multinomial"};
  const bool known = family.empty() || std::any_of(std::begin(words), std::end(words),
                                                   [&](const char* word) { return sameword(family, word); });
  return known ? std::string() : formatted(" There is no family %s.\n", printable(family).c_str());
}

std::string threecolumns(Answer columns) {
  return split(columns, ',').size() <= 3 ? "" : " Weights are those of three levels at most.\n";
}

// A question: what its answer does, why it is none, and when it is asked.
struct FitQuestion {
  const char* prompt;
  const char* help;
  void (*take)(FitRequest& request, Answer answer);
  bool (*asked)(const FitRequest& request) = [](const FitRequest&) { return true; };
  std::string (*refused)(Answer answer) = [](Answer) { return std::string(); };
};

constexpr FitQuestion questions[] = {
    {"Formula of the model, or an empty line for other questions: ",
     "outcome ~ fixed effects + (random effects | units), as in score ~ year*sex + (year | school/pupil) for pupils "
     "in\n"
     "schools, or score ~ year + (1 | school) for two levels.\n",
     [](FitRequest& request, Answer answer) { request.formula = answer; }},
    {.prompt = "Family (gaussian, binomial, poisson, ordinal, multinomial; an empty line for gaussian): ",
     .help =
         "The distribution of the outcome: gaussian is the normal one, binomial for 0 and 1 or a number of successes,\n"
         "poisson for counts, ordinal and multinomial for categories.\n",
     .take = [](FitRequest& request, Answer answer) { request.family = answer; },
     .refused = knownfamily},
    {"Column of the trials (an empty line for none): ",
     "Where the outcome is a number of successes, the column with the number of trials.\n",
     [](FitRequest& request, Answer answer) { request.trials = answer; }, binomial},
    {"Column of the exposure (an empty line for none): ", "The time, area or number that a count comes from.\n",
     [](FitRequest& request, Answer answer) { request.exposure = answer; }, poisson},
    {.prompt = "Columns of design weights, level 1 first, with commas between (an empty line for none): ",
     .help = "w1,w2,w3 are weights of records, level-2 and level-3 units; ,w2 those of level-2 units alone. A column "
             "whose\n"
             "name has a comma in it is named by -weights1, -weights2 or -weights3.\n",
     .take = takeweights,
     .refused = threecolumns},
    {"Name of the files, without an extension (an empty line for that of the data): ",
     "NAME.mdm, NAME.kdr, NAME.txt and NAME.json are written.\n",
     [](FitRequest& request, Answer answer) { request.stem = answer; }},
};
constexpr std::size_t count = std::size(questions);

void tellcolumns(const std::string& file) {
  openlong(file);
  std::string list;
  for (const RawVariable& variable : raw.level[0].vartable)
    if (!variable.hidden && !variable.fullname.empty()) list += (list.empty() ? "" : ", ") + variable.fullname;
  forgetraw();
  std::printf("\nThe columns of %s: %s\nAn answer of < goes back to the question before, ? tells more.\n\n",
              printable(file).c_str(), printable(list).c_str());
}

// All questions from the first one on. False when its answer is empty.
bool ask(FitRequest& request) {
  const auto asked = [&](std::size_t at) { return questions[at].asked(request); };
  int wrong = 0;
  for (std::size_t at = 0; at < count;) {
    const FitQuestion& question = questions[at];
    std::string line;
    readanswer(question.prompt, line, Question::other, question.help);
    const std::string answer(trimmed(line));
    if (answer == "<") {
      for (at -= at > 0; at > 0 && !asked(at);) --at;
      continue;
    }
    if (at == 0 && answer.empty()) return false;
    if (const std::string words = question.refused(answer); !words.empty()) {
      std::printf("%s", words.c_str());
      if (++wrong == maxtries) noproperresponse();
      continue;
    }
    question.take(request, answer);
    for (++at; at < count && !asked(at); ++at) questions[at].take(request, "");
  }
  return true;
}

// Why the model cannot be fitted; nothing when it can be. The attempt is made by a process of its own, since what is
// wrong ends the run that finds it.
std::string obstacle(const FitRequest& request) {
  int ends[2] = {};
  std::fflush(nullptr);
  if (pipe(ends) != 0) return {};
  const pid_t child = fork();
  if (child == 0) {
    // Its end would turn an input back that it shares.
    if (const int nothing = open("/dev/null", O_RDONLY); nothing >= 0) dup2(nothing, STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    checkfit(request);
    _exit(0);
  }
  close(ends[1]);
  std::string words;
  char piece[4096];
  for (ssize_t n = 0; (n = read(ends[0], piece, sizeof piece)) > 0;) words.append(piece, static_cast<std::size_t>(n));
  close(ends[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || status == 0) return {};
  return words;
}

}  // namespace

bool israwdata(const std::string& path) {
  struct stat status {};
  return typeofextension(path) != nullptr && stat(path.c_str(), &status) == 0;
}

std::optional<PreparedFit> fitdialogue(const std::string& file) {
  tellcolumns(file);
  for (int tries = 0; tries < maxtries; ++tries) {
    FitRequest request;
    request.file = file;
    if (!ask(request)) return std::nullopt;
    const std::string words = obstacle(request);
    if (words.empty()) return preparefit(std::move(request));
    std::printf("%s\n", words.c_str());
  }
  noproperresponse();
}

}  // namespace kdr
