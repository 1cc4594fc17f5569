#include "report/startvaluesfile.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/constants.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"
#include "driver/warnings.h"
#include "kernel/sizes.h"
#include "report/filecell.h"
#include "report/passtables.h"
#include "report/resultsdocument.h"
#include "report/stream.h"

namespace kdr {

namespace {

// Reads a line without its end and trailing blanks. False when there is none that ends with a new line.
bool readline(std::FILE* file, std::string& line) {
  char buffer[maxline];
  line.clear();
  const bool read = std::fgets(buffer, sizeof buffer, file) != nullptr;
  checkread(file, run.files.startvals);
  if (!read) return false;
  line = buffer;
  const bool ended = !line.empty() && line.back() == '\n';
  line.erase(line.find_last_not_of(" \r\n") + 1);
  return ended;
}

constexpr const char* firstmarker = "#SIGMA2";

void expectmarker(std::FILE* file, const char* marker, const char* words) {
  std::string line;
  readline(file, line);
  if (marker == firstmarker) dropmark(line, run.files.startvals);
  if (strncasecmp(line.c_str(), marker, std::strlen(marker)) != 0) stopwith("%s", words);
}

[[noreturn]] void notnumbers(const std::string& line, std::size_t wanted) {
  stopwith("Starting value file %s: there should be %d number%s, with a point for decimals, on the line: %s\n",
           printable(run.files.startvals).c_str(), static_cast<int>(wanted), wanted == 1 ? "" : "s",
           printable(line).c_str());
}

// The numbers at the start of the next line, as many as are wanted; `more` becomes true where others stand behind them.
std::vector<double> readnumbers(std::FILE* file, std::size_t wanted, bool& more) {
  constexpr const char* blanks = " \t";
  std::string line;
  readline(file, line);
  std::vector<double> numbers;
  std::size_t from = line.find_first_not_of(blanks);
  while (from != line.npos && numbers.size() < wanted) {
    const std::size_t to = std::min(line.find_first_of(blanks, from), line.size());
    const std::optional<double> number = realof(std::string_view(line).substr(from, to - from));
    if (!number) notnumbers(line, wanted);
    numbers.push_back(*number);
    from = line.find_first_not_of(blanks, to);
  }
  if (numbers.size() != wanted) notnumbers(line, wanted);
  more = more || from != line.npos;
  return numbers;
}

// A lower triangle, into both places of the matrix.
void readtriangle(std::FILE* file, Array<double>& t, int order, bool& more) {
  for (int i = 0; i < order; ++i) {
    const std::vector<double> row = readnumbers(file, static_cast<std::size_t>(i) + 1, more);
    for (int j = 0; j <= i; ++j) t[i * order + j] = t[j * order + i] = row[static_cast<std::size_t>(j)];
  }
}

// The file may be of another model, whose values stand in other places.
void tellmore() {
  const std::string words = "Starting value file " + run.files.startvals +
                            ": it has more values than the model. Is it of another one? Those behind are ignored.";
  if (run.id.strict) stopwith("%s\n", words.c_str());
  warn(words);
  reportwarning("WARNING: " + escaped(words));
  documentwarning(words);
}

void writetriangle(std::FILE* file, const Array<double>& t, int order) {
  for (int i = 0; i < order; ++i) {
    for (int j = 0; j <= i; ++j) std::fprintf(file, "%s ", filecell(t[i * order + j], 13, 5).c_str());
    std::fprintf(file, "\n");
  }
}

}  // namespace

bool havestartvalues() {
  struct stat status {};
  return !run.files.startvals.empty() && stat(run.files.startvals.c_str(), &status) == 0;
}

Estimates readstartvalues() {
  Estimates est;
  const Coefficients& coef = run.model.coef;
  est.gammahat.reset(at(coef.ngamma));
  est.taupi.reset(square(coef.ntaupi));
  est.taubeta.reset(square(coef.ntaubeta));
  std::FILE* file = openfile(run.files.startvals, "rt");
  expectmarker(file, firstmarker, "sigma2 value must be preceded with a line #SIGMA2\n");
  bool more = false;
  est.sigma2 = readnumbers(file, 1, more)[0];
  expectmarker(file, "#TAUPI", "Tau(pi) values must be preceded with a line #TAUPI\n");
  readtriangle(file, est.taupi, coef.ntaupi, more);
  expectmarker(file, "#TAUBETA", "Tau(beta) values must be preceded with a line #TAUBETA\n");
  readtriangle(file, est.taubeta, coef.ntaubeta, more);
  expectmarker(file, "#GAMMA", "gamma values must be preceded with a line #GAMMA\n");
  std::string line;
  for (int i = 0; i < coef.ngamma; ++i) {
    if (!readline(file, line))
      stopwith(
          "There are not enough lines in the starting value file: %s\nThere should be %d lines after the #GAMMA "
          "line.\n",
          run.files.startvals.c_str(), coef.ngamma);
    const std::optional<double> number = realof(line);
    if (!number) notnumbers(line, 1);
    est.gammahat[i] = *number;
  }
  while (readline(file, line)) more = more || !line.empty();
  if (more) tellmore();
  std::fclose(file);
  return est;
}

void writestartvalues(const Estimates& est) {
  ResultFile result;
  opentext(result, run.files.startvals);
  std::FILE* file = result.stream;
  std::fprintf(file, "#SIGMA2\n%s\n", filecell(est.sigma2, 12, 5).c_str());
  std::fprintf(file, "#TAUPI\n");
  writetriangle(file, est.taupi, run.model.coef.ntaupi);
  std::fprintf(file, "#TAUBETA\n");
  writetriangle(file, est.taubeta, run.model.coef.ntaubeta);
  std::fprintf(file, "#GAMMA\n");
  for (int i = 0; i < run.model.coef.ngamma; ++i) std::fprintf(file, "%s\n", filecell(est.gammahat[i], 13, 6).c_str());
  finishresult(result);
}

}  // namespace kdr
