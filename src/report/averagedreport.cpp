#include "report/averagedreport.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/matrixtables.h"
#include "report/resultsdocument.h"
#include "report/stream.h"
#include "report/variancetables.h"

namespace kdr {

namespace {

constexpr const char* textheading = "\fTHE AVERAGED RESULTS FOR THIS ";
constexpr const char* htmlheading = "<h2>The Averaged Results for this ";

// A line with its end; false at the end of the file.
bool readline(std::FILE* file, std::string& line) {
  line.clear();
  for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
    line += static_cast<char>(c);
    if (c == '\n') return true;
  }
  return !line.empty();
}

void heading() {
  reporttext("%s%s\n", textheading, run.series.pvmode ? "PLAUSIBLE VALUE RUN" : "MULTIPLE IMPUTATION RUN");
  reporthtml("%s%s</h2>\n", htmlheading, run.series.pvmode ? "Plausible Value Run" : "Multiple Imputation Run");
}

void failednote(std::span<const int> failed) {
  if (failed.empty()) return;
  report2("\nThese results do not reflect the failed sub%s", "<br>\nThese results do not reflect the failed sub%s",
          failed.size() == 1 ? "analysis: " : "analyses: ");
  for (const int index : failed) report("%d ", index + 1);
  reportbreak();
  reportbreak();
}

void level1(const Pooled& pooled, const AveragedFrame& frame) {
  const Symbols& sym = run.sym;
  if (!frame.sigma2fixed) reportline(" %s = %s", sym.symvar1.c_str(), fixedpoint(pooled.sigma2, 12, 5).c_str());
  if (pooled.zerovar != 0) {
    reportbreak();
    reportline("Standard errors for %s,%s,%s are not computable.", sym.symvar1.c_str(), sym.symvar2.c_str(),
               sym.symvar3.c_str());
  } else if (pooled.errorsknown && !frame.sigma2fixed) {
    reportbreak();
    reportline(" Standard Error of %s = %s", sym.symvar1.c_str(), fixedpoint(pooled.sigma2error, 12, 5).c_str());
  }
}

void partialnote(const Pooled& pooled, const char* what) {
  if (pooled.units3 != run.mdm.nunits3) partialdatanote(what, pooled.units3, run.mdm.nunits3);
}

// A tau with its standard errors, correlations and reliabilities.
void tautables(Tau which, const Pooled& pooled) {
  const bool pi = which == Tau::pi;
  const Array<double>& tau = pi ? pooled.taupi : pooled.taubeta;
  const Array<double>& reliabilities = pi ? pooled.reliability2 : pooled.reliability3;
  const int n = static_cast<int>(reliabilities.size());
  tautable(which, MatrixTitle::plain, false, n, tau.data());
  if (pooled.errorsknown)
    tautable(which, MatrixTitle::standarderror, false, n, (pi ? pooled.taupierrors : pooled.taubetaerrors).data());
  correlationtable(which, n, tau.data());
  reliabilitytable(which, n, reliabilities.data());
  partialnote(pooled, "reliability estimates");
}

// The tables and tests of the pooled fixed effects under one covariance.
void effecttables(const Array<double>& gamma, const PooledCovariance& covariance, const AveragedFrame& frame,
                  TableKind kind, PassKind pass) {
  const FixedDegrees degrees{covariance.df.copy(), frame.degrees.rough.copy()};
  const FixedEffects effects{gamma, covariance.variance, degrees};
  const int g = static_cast<int>(gamma.size());
  fixedtable(effects, kind, pass);
  ratiotable(effects, kind);
  if (run.model.nhypotheses) hypothesistest(g, gamma.data(), covariance.covariance.data(), g);
}

void fixedeffects(const PooledEffects& effects, const AveragedFrame& frame, PassKind pass) {
  const bool plausible = run.series.pvmode;
  effecttables(effects.gamma, effects.model, frame, plausible ? TableKind::averagedpv : TableKind::averagedmi, pass);
  if (effects.robust.known) {
    effecttables(effects.gamma, effects.robust, frame,
                 plausible ? TableKind::averagedrobustpv : TableKind::averagedrobustmi, pass);
  } else if (!plausible) {
    report2("\nThe robust standard errors cannot be computed for this model.\n",
            "<br>\nThe robust standard errors cannot be computed for this model.<br>\n");
  }
}

void variances(const Pooled& pooled, const AveragedFrame& frame) {
  const std::size_t q = pooled.chisq2.size(), r = pooled.chisq3.size();
  const auto [df2, df3] = averageddegrees(pooled, frame);
  variancetable(Tau::pi, {static_cast<int>(q), pooled.taupi.data(), pooled.chisq2.data(), df2.data(), pooled.sigma2});
  partialnote(pooled, "chi-square statistics");
  variancetable(Tau::beta,
                {static_cast<int>(r), pooled.taubeta.data(), pooled.chisq3.data(), df3.data(), pooled.sigma2});
  partialnote(pooled, "chi-square statistics");
}

// The pass whose estimates the averages stand for.
PassKind finalpass() {
  if (run.model.outcome.categorical()) return PassKind::categories;
  return run.model.outcome.single() ? PassKind::pql : PassKind::linear;
}

}  // namespace

AveragedDegrees averageddegrees(const Pooled& pooled, const AveragedFrame& frame) {
  const std::size_t q = pooled.chisq2.size(), r = pooled.chisq3.size();
  AveragedDegrees degrees{Array<long long>(q), Array<long long>(r)};
  for (std::size_t i = 0; i < q; ++i)
    degrees.df2[i] =
        pooled.testunits2 - static_cast<long long>(frame.nterms2[i]) * pooled.testunits3 - frame.nfixedterms2[i];
  for (std::size_t i = 0; i < r; ++i) degrees.df3[i] = pooled.testunits3 - frame.nterms3[i];
  return degrees;
}

std::string averagedreportname() {
  if (reportisstdout()) return {};
  return run.files.outbase + (run.report.html ? "_avg.html" : ".avg");
}

void startaveragedreport() {
  const std::string name = averagedreportname();
  if (name.empty()) return;
  std::FILE* sub = run.report.stream;
  std::fflush(sub);
  const off_t place = ftello(sub);
  std::rewind(sub);
  std::FILE* averaged = openfile(name, "w");
  constexpr const char* lead = "  Output file name";
  for (std::string line; readline(sub, line);) {
    const std::size_t sign = strncasecmp(line.c_str(), lead, 18) == 0 ? line.find('=') : std::string::npos;
    if (sign != std::string::npos)
      line = line.substr(0, sign + 2) + escaped(name) + (run.report.html ? "<br>\n" : "\n");
    std::fputs(line.c_str(), averaged);
  }
  checkread(sub, run.files.outfile);
  closechk(averaged);
  fseeko(sub, place, SEEK_SET);
}

void openaveragedreport() {
  const std::string name = averagedreportname();
  if (name.empty()) {
    run.report.stream = stdout;
    return;
  }
  std::FILE* file = openfile(name, samefile(name, name) ? "r+" : "w+");
  // A first attempt at the averages may have been killed while it wrote.
  const std::string lead = run.report.html ? htmlheading : textheading;
  std::string line;
  off_t end = 0;
  while (readline(file, line) && line.compare(0, lead.size(), lead) != 0) end += static_cast<off_t>(line.size());
  checkread(file, name);
  if (fseeko(file, end, SEEK_SET) != 0 || ftruncate(fileno(file), end) != 0) fail(5);
  run.report.stream = file;
}

void averagedreport(const Pooled* pooled, const AveragedFrame& frame, std::span<const int> failed) {
  heading();
  startdocument();
  if (run.series.mimode) failednote(failed);
  if (pooled == nullptr) {
    reportline("No analysis of the series is usable, so there are no results to average.");
    return;
  }
  if (pooled->M == 1) reportline("Only one analysis of the series is usable; its results are not averages.");
  documentaverages(*pooled, frame, failed);
  level1(*pooled, frame);
  tautables(Tau::pi, *pooled);
  tautables(Tau::beta, *pooled);
  fixedeffects(pooled->effects, frame, finalpass());
  variances(*pooled, frame);
  if (!pooled->popaverage.gamma.empty()) fixedeffects(pooled->popaverage, frame, PassKind::populationaverage);
}

}  // namespace kdr
