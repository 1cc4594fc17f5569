#include "report/variancefiles.h"

#include <cmath>
#include <cstdio>

#include "driver/reportstream.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "report/filecell.h"

namespace kdr {

namespace {

constexpr int perline = 60;

// One file for all sub-runs of a series holds a block of each.
void openvariancefile(ResultFile& file, const char* path) {
  opentext(file, path, run.out.printvc == VarianceFiles::append);
}

// A row of cells, a new line after each 60 and at the end.
enum class Cell { fixed, exponent };
void writerow(std::FILE* file, const double* values, int n, Cell cell) {
  for (int i = 0; i < n; ++i) {
    if (i != 0 && i % perline == 0) std::fprintf(file, "\n");
    if (cell == Cell::fixed) {
      std::fprintf(file, "%s ", filecell(values[i], 15, 7).c_str());
    } else {
      std::fprintf(file, "%15.7E ", values[i]);
    }
  }
  std::fprintf(file, "\n");
}

}  // namespace

void writegammafile(const char* path, const Array<double>& gamma, const Array<double>& covariance) {
  ResultFile result;
  openvariancefile(result, path);
  std::FILE* file = result.stream;
  const int g = static_cast<int>(gamma.size());
  writerow(file, gamma.data(), g, Cell::fixed);
  Array<double> unknown(covariance.empty() ? gamma.size() : 0);
  unknown.fill(missingcode);
  for (int i = 0; i < g; ++i) {
    const double* row = covariance.empty() ? unknown.data() : covariance.data() + static_cast<std::ptrdiff_t>(i) * g;
    writerow(file, row, g, Cell::exponent);
  }
  finishresult(result);
}

void writetaufile(const char* path, const Estimates& est, const TauErrors& errors, bool withsigma2) {
  ResultFile result;
  openvariancefile(result, path);
  std::FILE* file = result.stream;
  const int p = run.model.coef.ntaupi, b = run.model.coef.ntaubeta;
  for (int i = 0; i < p; ++i) writerow(file, est.taupi.data() + i * p, p, Cell::fixed);
  for (int i = 0; i < b; ++i) writerow(file, est.taubeta.data() + i * b, b, Cell::fixed);
  for (int i = 0; i < errors.order; ++i)
    writerow(file, errors.covariance.data() + static_cast<std::ptrdiff_t>(i) * errors.order, errors.order, Cell::fixed);
  if (withsigma2) std::fprintf(file, "%s\n", filecell(est.sigma2, 15, 7).c_str());
  finishresult(result);
}

void listvariancefiles() {
  reportbreak();
  report("%s, containing the taus ", taufile);
  if (run.control.fishertype != FisherType::none) {
    report("and the variance-covariance matrix of the taus");
    filelistbreak();
  }
  report("has been created.\n");
  reportbreak();
  reportline("%s, containing the variance-covariance matrix of gamma has been created.", gammafile);
  report("%s, containing the robust variance-covariance matrix of gamma has", robustgammafile);
  filelistbreak();
  reportline("been created.");
  endfilelist();
}

void filelistbreak() { report2("\n\t", "<br>\n&nbsp;&nbsp;&nbsp;&nbsp;"); }

void endfilelist() {
  reportline("The above files have been created with a (nF15.7,1X) format.");
  if (run.model.coef.ngamma > perline) {
    report("Due to the high number of gammas, each line of the gamma matrices have been");
    filelistbreak();
    reportline("split across %d lines.", (run.model.coef.ngamma + perline - 1) / perline);
  }
}

}  // namespace kdr
