#include "report/averagedreport.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/enginetables.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/matrixtables.h"
#include "report/passtables.h"
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

void unconvergednote(std::span<const int> unconverged, bool ofengine) {
  if (unconverged.empty()) return;
  std::string words = ofengine
                          ? "Sub-runs that were stopped prior to convergence, or whose engine warns of its results:"
                          : "Sub-runs whose iterations were stopped prior to convergence:";
  for (const int index : unconverged) words += formatted(" %d", index + 1);
  notconverged(words + "\n");
  reportwarning("WARNING: " + words);
  documentwarning(words);
}

void level1(const Pooled& pooled) {
  const Symbols& sym = run.sym;
  if (!pooled.sigma2fixed) reportline(" %s = %s", sym.symvar1.c_str(), fixedpoint(pooled.sigma2, 12, 5).c_str());
  if (pooled.zerovar != 0) {
    reportbreak();
    reportline("Standard errors for %s,%s,%s are not computable.", sym.symvar1.c_str(), sym.symvar2.c_str(),
               sym.symvar3.c_str());
  } else if (pooled.errorsknown && !pooled.sigma2fixed) {
    reportbreak();
    reportline(" Standard Error of %s = %s", sym.symvar1.c_str(), fixedpoint(pooled.sigma2error, 12, 5).c_str());
  }
}

// Of the units of a tau's level some were of no use.
void partialnote(Tau which, const char* what, int units2, int units3) {
  const int used = ofthe(which, units2, units3), total = ofthe(which, run.mdm.nunits2, run.mdm.nunits3);
  if (used != total) partialdatanote(what, used, total);
}

// A tau with its standard errors, correlations and reliabilities.
void tautables(Tau which, const Pooled& pooled) {
  const Array<double>& tau = ofthe(which, pooled.taupi, pooled.taubeta);
  const Array<double>& reliabilities = ofthe(which, pooled.reliability2, pooled.reliability3);
  const int n = static_cast<int>(reliabilities.size());
  if (n == 0) return;
  tautable(which, MatrixTitle::plain, false, n, tau.data());
  if (pooled.errorsknown)
    tautable(which, MatrixTitle::standarderror, false, n,
             ofthe(which, pooled.taupierrors, pooled.taubetaerrors).data());
  correlationtable(which, n, tau.data());
  reliabilitytable(which, n, reliabilities.data());
  partialnote(which, "reliability estimates", pooled.units2, pooled.units3);
}

// The tables and tests of the pooled fixed effects under one covariance.
void effecttables(const EffectTable& effects, TableKind kind, PassKind pass) {
  fixedtable(effects.rows, kind, pass);
  missingtable(effects.shares);
  ratiotable(effects.rows);
  hypothesistests(effects);
}

void fixedeffects(const PooledEffects& effects, PassKind pass) {
  const bool plausible = run.series.pvmode;
  effecttables(effects.model.effects, plausible ? TableKind::averagedpv : TableKind::averagedmi, pass);
  if (effects.robust.known) {
    effecttables(effects.robust.effects, plausible ? TableKind::averagedrobustpv : TableKind::averagedrobustmi, pass);
  } else if (!plausible) {
    report2("\nThe robust standard errors cannot be computed for this model.\n",
            "<br>\nThe robust standard errors cannot be computed for this model.<br>\n");
  }
}

void variances(const Pooled& pooled) {
  for (const Tau which : {Tau::pi, Tau::beta}) {
    const std::vector<VarianceTest>& tests = pooled.tests.of(which);
    variancetable(which, ofthe(which, pooled.taupi, pooled.taubeta), tests, pooled.sigma2);
    const auto ratio = [](const VarianceTest& test) { return test.known && test.chisquare.df2 > 0.0; };
    if (std::any_of(tests.begin(), tests.end(), ratio)) {
      report("Chi-square over its df is pooled, and the p-value that of F. Degrees of freedom of\nthe denominator:");
      for (const VarianceTest& test : tests)
        report(" %s", ratio(test) ? fixedpoint(test.chisquare.df2, 1, 2).c_str() : "none");
      reportbreak();
    }
    if (!tests.empty()) partialnote(which, "chi-square statistics", pooled.tests.units2, pooled.tests.units3);
  }
}

// The pass whose estimates the averages stand for.
PassKind finalpass() {
  if (run.model.outcome.categorical()) return PassKind::categories;
  return run.model.outcome.single() ? PassKind::pql : PassKind::linear;
}

}  // namespace

void startaveragedreport() {
  const std::string name = averagedreportname();
  if (name.empty()) return;
  std::FILE* sub = run.report.stream;
  if (std::fflush(sub) != 0 || std::ferror(sub) != 0) fail(5);  // what rewinds clears the mark
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

void averagedreport(const Pooled* pooled, std::span<const int> failed, std::span<const int> unconverged) {
  heading();
  startdocument();
  if (run.series.mimode) failednote(failed);
  unconvergednote(unconverged, pooled != nullptr && pooled->engine.has_value());
  if (pooled == nullptr) {
    reportline("No analysis of the series is usable, so there are no results to average.");
    return;
  }
  if (pooled->M == 1) reportline("Only one analysis of the series is usable; its results are not averages.");
  documentaverages(*pooled, failed);
  if (pooled->engine) reportline("The averages are those of %s.", seriesmethod(*pooled->engine).c_str());
  level1(*pooled);
  tautables(Tau::pi, *pooled);
  tautables(Tau::beta, *pooled);
  fixedeffects(pooled->effects, finalpass());
  if (!pooled->engine) variances(*pooled);
  if (!pooled->popaverage.gamma.empty()) fixedeffects(pooled->popaverage, PassKind::populationaverage);
}

}  // namespace kdr
