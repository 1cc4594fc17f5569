#include "estimate/linear/heterogeneous.h"

#include <algorithm>
#include <cstdio>

#include "data/mdm.h"
#include "data/resultfile.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/results.h"
#include "kernel/sizes.h"
#include "report/filecell.h"
#include "report/matrixtables.h"
#include "report/passtables.h"
#include "report/resultsdocument.h"

namespace kdr {

namespace {

void writeunittaupi(std::FILE* file, int k, const double* T, int p) {
  constexpr int perline = 60;
  const Id id = level3id(k);
  if (run.mdm.numericids) {
    std::fprintf(file, "%12.0f", id.number);
  } else {
    std::fprintf(file, "%12.12s", id.text.text);
  }
  int written = 0;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j) {
      if (written != 0 && written % perline == 0) std::fprintf(file, "\n");
      std::fprintf(file, "%s", filecell(T[i * p + j], 15, 7).c_str());
      ++written;
    }
  std::fprintf(file, "\n");
}

}  // namespace

void checkheterogeneous(const Pass& pass) {
  const int b = pass.b;
  if ((b + 1) * run.mdm.nunits3 * b / 2 >= pass.nusable2 - pass.nusable3) {
    reportline("***Unable to perform heterogeneous iterations.");
    reportline("The level-2/level-3 ratio is too small for the number of random effects");
    stoprun(100);
  }
}

void startheterogeneous(IterationState& state) {
  state.hettaupi.reset(at(run.mdm.nunits3), run.est.taupi.size());
  for (int k = 0; k < run.mdm.nunits3; ++k)
    std::copy(run.est.taupi.begin(), run.est.taupi.end(), state.hettaupi.row(k));
}

void heterogeneousresults(Pass& pass, IterationState& state) {
  const int p = pass.p;
  PassResults results = stageresults(pass, state);
  iterationtables(results);
  Array<double>& T = run.est.taupi;
  Array<double>& mean = results.meantaupi;
  mean.reset(T.size());
  T.fill(0.0);
  ResultFile file;
  opentext(file, heterogeneousfile);
  for (int k = 0; k < run.mdm.nunits3; ++k) {
    const double* Tk = state.hettaupi.row(k);
    writeunittaupi(file.stream, k, Tk, p);
    for (std::size_t i = 0; i < T.size(); ++i) {
      mean[i] += Tk[i] / run.mdm.nunits3;
      T[i] += pass.n2of[k] * Tk[i] / run.mdm.nunits2;
    }
  }
  finishresult(file);
  results.weightedtaupi = T.copy();
  documentpass(results);
  tautable(Tau::pi, MatrixTitle::average, false, p, mean.data());
  tautable(Tau::pi, MatrixTitle::weightedaverage, false, p, T.data());
  fixedeffectstables(results);
}

}  // namespace kdr
