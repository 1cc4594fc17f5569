#include "report/startvaluesfile.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/constants.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"
#include "kernel/sizes.h"
#include "report/filecell.h"

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

// A row of the lower triangle: n values between blanks, into both places of the matrix.
void readrow(std::FILE* file, Array<double>& t, int order, int row) {
  std::string line;
  readline(file, line);
  std::size_t from = 0;
  for (int j = 0; j <= row; ++j) {
    from = std::min(line.find_first_not_of(" \t", from), line.size());
    const std::size_t to = std::min(line.find(' ', from), line.size());
    const double value = std::atof(line.substr(from, to - from).c_str());
    t[row * order + j] = t[j * order + row] = value;
    from = to;
  }
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
  std::string line;
  readline(file, line);
  est.sigma2 = std::atof(line.c_str());
  expectmarker(file, "#TAUPI", "Tau(pi) values must be preceded with a line #TAUPI\n");
  for (int i = 0; i < run.model.coef.ntaupi; ++i) readrow(file, est.taupi, run.model.coef.ntaupi, i);
  expectmarker(file, "#TAUBETA", "Tau(beta) values must be preceded with a line #TAUBETA\n");
  for (int i = 0; i < run.model.coef.ntaubeta; ++i) readrow(file, est.taubeta, run.model.coef.ntaubeta, i);
  expectmarker(file, "#GAMMA", "gamma values must be preceded with a line #GAMMA\n");
  for (int i = 0; i < run.model.coef.ngamma; ++i) {
    if (!readline(file, line))
      stopwith(
          "There are not enough lines in the starting value file: %s\nThere should be %d lines after the #GAMMA "
          "line.\n",
          run.files.startvals.c_str(), run.model.coef.ngamma);
    est.gammahat[i] = std::atof(line.c_str());
  }
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
