// Series as the run sequence drives them, and what their averaged report says. Every process of a multiple imputation
// is a child of the test.
#include "multirun/series.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "multirun/resultstore.h"
#include "report/reportfixture.h"

namespace kdr {
namespace {

// Y = P0 + e, P0 = B00 + r0, B00 = G000 + G001(W) + u00.
void smallmodel() {
  startmodel({"Y", "Y2", "Y3"}, {}, {"W"});
  setmodel({{0, true, {{0, {0, 1}}}}});
  run.coef.pinames.reset(1);
  run.coef.pinames[0] = run.mdm.names1[0];
  run.iter.fishertype = 2;
  run.id.waitseconds = -1;
  stophooks.closeseries = closeseries;
}

// Estimates that are simple to average by hand.
PassResults smallresults(double shift) {
  PassResults results;
  Estimates& est = results.est;
  const double sigma2 = 4.0 + shift;
  const auto matrix = [](std::size_t n, double first, double last) {
    Array<double> m(n);
    m[0] = first;
    m[n - 1] = last;
    return m;
  };
  results.loglik = -1000.0;
  est.sigma2 = sigma2;
  est.taupi = matrix(1, 2.0 + shift, 2.0 + shift);
  est.taubeta = matrix(1, 1.0 - shift / 2.0, 1.0 - shift / 2.0);
  est.gammahat = matrix(2, 10.0 + shift, 0.5);
  results.errors.known = run.iter.fishertype != 0;
  results.errors.sigma2variance = 0.25;
  results.errors.covariance = matrix(4, 0.09, 0.04);
  results.covariance = matrix(4, 0.25 * sigma2, 0.01 * sigma2);
  results.robust = matrix(4, 0.25 * sigma2, 0.01 * sigma2);
  results.degrees.df.reset(2);
  results.degrees.df.fill(18);
  results.degrees.rough.reset(2);
  results.reliabilities = {matrix(1, 0.5, 0.5 + shift / 10.0), matrix(1, 0.25, 0.25), 100, 20};
  results.tests.chisq2 = matrix(1, 80.0 + shift, 80.0 + shift);
  results.tests.chisq3 = matrix(1, 40.0 + shift, 40.0 + shift);
  results.tests.units2 = 100;
  results.tests.units3 = 20;
  return results;
}

class Series : public testing::Test {
 protected:
  void SetUp() override {
    before = std::filesystem::current_path();
    folder = std::filesystem::path(testing::TempDir()) / "series";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    std::filesystem::current_path(folder);
  }
  void TearDown() override { std::filesystem::current_path(before); }

  // The exit code of a process that does this; what it prints goes to "console".
  static int process(const std::function<void()>& work) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      if (std::freopen("console", "w", stdout) == nullptr) _exit(99);
      work();
      fail(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  enum class End { good, failing, killed };
  // Data set `index` of a series. A good one's estimates are shifted.
  static int dataset(int index, bool last, End end, double shift, const std::string& outfile = "out.txt",
                     const std::function<void()>& change = {}) {
    return process([&] {
      smallmodel();
      if (change) change();
      run.series.mimode = true;
      run.series.mifirst = index == 0;
      run.series.miindex = index;
      run.series.milast = last;
      run.files.outfile = outfile;
      beginreport();
      beginseries();
      report("Results of data set %d.\n", index + 1);
      if (end == End::killed) _exit(7);
      if (end == End::failing) fail(100, "failed");
      storesubrun(smallresults(shift));
      poolseries();
      closereport();
    });
  }
  // As the sequence opens it, up to the model's summary.
  static void beginreport() {
    openreport();
    setsymbols();
    makerowlabels();
    setrandomsubscripts();
    reportline("  Heading");
    reportline("  Output file name              = %s", run.files.outfile.c_str());
    reportline("  The model");
  }
  static std::string contents(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  static bool exists(const char* path) { return std::filesystem::exists(path); }

  std::filesystem::path before, folder;
};

std::string line(const std::string& text, const std::string& start) {
  const std::size_t at = text.find("\n" + start);
  return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

// Shifts -1, 0 and 1: means as in smallresults(0), B = 1, (1 + 1/3) B = 4/3.
TEST_F(Series, AveragesOfThreeDataSets) {
  ASSERT_EQ(dataset(0, false, End::good, -1.0), 0);
  EXPECT_EQ(contents("out.avg"), "  Heading\n  Output file name              = out.avg\n  The model\n");
  ASSERT_EQ(dataset(1, false, End::good, 0.0), 0);
  ASSERT_EQ(dataset(2, true, End::good, 1.0), 0);
  EXPECT_FALSE(exists(storename));
  EXPECT_NE(contents("out.3").find("Results of data set 3.\n"), std::string::npos);
  EXPECT_EQ(contents("out.3").find("AVERAGED"), std::string::npos);

  // standard errors: sigma2 sqrt(0.25 + 4/3), tau(pi) sqrt(0.09 + 4/3), tau(beta) sqrt(0.04 + 1/3), G000
  // sqrt(4 * 0.25 + 4/3) with 2 (1 / (4/3) + 1)^2 = 6.125 degrees of freedom, G001 sqrt(0.04)
  const std::string rule52 = ruleof(52), rule76 = ruleof(76), rule78 = ruleof(78);
  const std::string effects = rule76 +
                              "                                       Standard             Approx.\n"
                              "    Fixed Effect         Coefficient   Error      T-ratio   d.f.     P-value\n" +
                              rule76 + " For       INTRCPT1, P0" + std::string(104, ' ') + "\n" +
                              "    For INTRCPT2, B00" + std::string(110, ' ') + "\n";
  const std::string text = contents("out.avg");
  const std::string averages = text.substr(text.find('\f'));
  EXPECT_EQ(averages.substr(0, averages.find("\f The outcome")),
            "\fTHE AVERAGED RESULTS FOR THIS MULTIPLE IMPUTATION RUN\n"
            " sigma^2 =      4.00000\n"
            "\n Standard Error of sigma^2 =      1.25831\n"
            "\ntau(pi)\n INTRCPT1,P0      2.00000 \n\n"
            "Standard error of tau(pi)\n INTRCPT1,P0      1.19304 \n\n\n" +
                rule52 + "  Random level-1 coefficient   Reliability estimate\n" + rule52 +
                "  INTRCPT1, P0                        0.500\n" + rule52 +
                "\ntau(beta)\n INTRCPT1    \n INTRCPT2,B00\n    1.00000  \n\n"
                "Standard error of tau(beta)\n INTRCPT1    \n INTRCPT2,B00\n    0.61101  \n\n\n" +
                rule52 + "  Random level-2 coefficient   Reliability estimate\n" + rule52 +
                "  INTRCPT1/INTRCPT2, B00               0.250\n" + rule52);
  EXPECT_NE(averages.find("\f The outcome variable is        Y\n\n Final estimation of fixed effects:\n" + rule76),
            std::string::npos);
  EXPECT_NE(line(averages, "      INTRCPT3, G000").find("10.000000    1.527525      6.547        6    0.001"),
            std::string::npos)
      << averages;
  EXPECT_NE(line(averages, "             W, G001").find("0.500000    0.200000      2.500       18    0.022"),
            std::string::npos);
  EXPECT_NE(averages.find("\n Final estimation of fixed effects\n (with robust standard errors)\n"), std::string::npos);
  EXPECT_NE(averages.find(" INTRCPT1,        r0      1.41421       2.00000      80      80.00000    0.479\n"
                          "  level-1,        e       2.00000       4.00000\n"),
            std::string::npos);
  EXPECT_EQ(averages.substr(averages.rfind(" Final estimation of level-3")),
            " Final estimation of level-3 variance components:\n" + rule78 +
                " Random Effect           Standard      Variance     df    Chi-square   P-value\n"
                "                         Deviation     Component\n" +
                rule78 + "INTRCPT1/INTRCPT2,  u00     1.00000       1.00000    18      40.00000    0.002\n" + rule78);
}

// A killed process can be repeated, also one that was killed while it wrote the averages.
TEST_F(Series, KilledProcessesAreRepeated) {
  dataset(0, false, End::good, -1.0);
  dataset(1, false, End::killed, 0.0);
  EXPECT_EQ(dataset(1, false, End::good, 0.0), 0);
  EXPECT_EQ(dataset(1, false, End::good, 0.0), 100);  // it has finished
  EXPECT_NE(contents("console").find("has finished already"), std::string::npos);
  std::ofstream("out.avg", std::ios::app) << "\fTHE AVERAGED RESULTS FOR THIS MULTIPLE IMPUTATION RUN\n sigma";
  EXPECT_EQ(dataset(2, true, End::good, 1.0), 0);
  const std::string text = contents("out.avg");
  EXPECT_EQ(text.find("THE AVERAGED RESULTS"), text.rfind("THE AVERAGED RESULTS"));
  EXPECT_EQ(line(text, " sigma"), " sigma^2 =      4.00000");
}

TEST_F(Series, AnotherModelIsRefused) {
  const std::function<void()> changes[] = {[] { run.model.terms3.row(0, 0)[1] = 0; },  // other level-3 variables
                                           [] { run.kind.outvar = 2; },                // another outcome
                                           [] { run.model.center3[1] = 2; },           // another centering
                                           [] { run.iter.fixsigma2 = 2.0; },
                                           [] { run.out.diagtaupi = true; },
                                           [] {
                                             run.iter.haveesttau2 = true;
                                             run.iter.esttau2.reset(1);
                                           },
                                           [] {
                                             run.iter.havecontau3 = true;
                                             run.iter.contau3.reset(1);
                                           },
                                           [] { run.iter.fishertype = 0; },  // no covariance of the taus
                                           [] {
                                             run.out.wgtvar1 = 3;
                                             run.kind.weighted = true;
                                           }};
  for (const auto& change : changes) {
    ASSERT_EQ(dataset(0, false, End::good, 0.0), 0);
    EXPECT_EQ(dataset(1, true, End::good, 0.0, "out.txt", change), 100);
    EXPECT_NE(contents("console").find("was left by a series with another model"), std::string::npos);
    EXPECT_EQ(contents("out.avg").find("AVERAGED"), std::string::npos);
    EXPECT_TRUE(exists(storename));
    ASSERT_EQ(dataset(1, true, End::good, 0.0), 0);
  }
  EXPECT_EQ(dataset(1, true, End::good, 0.0), 100);
  EXPECT_NE(contents("console").find("There is no result store"), std::string::npos);
}

// All passes in one process; a robust matrix that is missing once is missing in the averages.
TEST_F(Series, PlausibleValues) {
  for (const bool robust : {true, false}) {
    ASSERT_EQ(process([&] {
                for (int pass = 0; pass < 2; ++pass) {
                  smallmodel();
                  run.series.pvmode = true;
                  run.series.pvfirst = pass == 0;
                  run.series.pvindex = pass;
                  run.series.nsets = 2;
                  run.series.pvlist.reset(2);
                  run.series.pvlist[0] = 1;
                  run.series.pvlist[1] = 2;
                  run.files.outfile = "out";
                  run.files.outbase = pass == 0 ? "" : "out";
                  beginreport();
                  beginseries();
                  PassResults results = smallresults(pass);
                  if (!robust && pass == 1) results.robust = Array<double>();
                  storesubrun(results);
                  poolseries();
                  closereport();
                }
              }),
              0);
    const std::string text = contents("out.avg");
    EXPECT_NE(text.find("\fTHE AVERAGED RESULTS FOR THIS PLAUSIBLE VALUE RUN\n"), std::string::npos);
    EXPECT_NE(text.find(" The outcome variables are:        Y,      Y2\n\n"), std::string::npos) << text;
    EXPECT_NE(line(text, "      INTRCPT3, G000").find("10.500000"), std::string::npos);
    EXPECT_EQ(text.find("with robust standard errors") != std::string::npos, robust);
    EXPECT_EQ(text.find("robust standard errors cannot"), std::string::npos);
  }
}

TEST_F(Series, NothingHappensOutsideOfOne) {
  ASSERT_EQ(process([] {
              smallmodel();
              run.files.outfile = "out.txt";
              beginreport();
              beginseries();
              storesubrun(smallresults(0.0));
              if (lastsubrun() || poolseries() != nullptr) _exit(1);
              closereport();
            }),
            0);
  EXPECT_EQ(contents("out.txt"), "  Heading\n  Output file name              = out.txt\n  The model\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator("."), {}), 2);  // out.txt and console
}

}  // namespace
}  // namespace kdr
