// Series as the run sequence drives them, and what their averaged report says. Every process of a multiple imputation
// is a child of the test.
#include "multirun/series.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "data/child.h"
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

struct Series : testing::Test {
  Workplace workplace;
  static inline std::string console;  // what the last process printed

  // The exit code of a process that does this.
  static int process(const std::function<void()>& work) {
    const Outcome outcome = runchild([&] {
      work();
      fail(0);
    });
    console = outcome.words;
    return outcome.code;
  }

  enum class End { good, failing, killed };
  // Data set `index` of a series. A good one's estimates are shifted.
  static int dataset(int index, bool last, End end, double shift, const std::function<void()>& change = {}) {
    return process([&] {
      smallmodel();
      if (change) change();
      run.series.mimode = true;
      run.series.mifirst = index == 0;
      run.series.miindex = index;
      run.series.milast = last;
      run.files.outfile = "out.txt";
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
};

std::string line(const std::string& text, const std::string& start) {
  const std::size_t at = text.find("\n" + start);
  return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

// A killed process can be repeated, also one that was killed while it wrote the averages.
TEST_F(Series, KilledProcessesAreRepeated) {
  dataset(0, false, End::good, -1.0);
  dataset(1, false, End::killed, 0.0);
  EXPECT_EQ(dataset(1, false, End::good, 0.0), 0);
  EXPECT_EQ(dataset(1, false, End::good, 0.0), 100);  // it has finished
  EXPECT_NE(console.find("has finished already"), std::string::npos);
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
    EXPECT_EQ(dataset(1, true, End::good, 0.0, change), 100);
    EXPECT_NE(console.find("was left by a series with another model"), std::string::npos);
    EXPECT_EQ(contents("out.avg").find("AVERAGED"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(storename));
    ASSERT_EQ(dataset(1, true, End::good, 0.0), 0);
  }
  EXPECT_EQ(dataset(1, true, End::good, 0.0), 100);
  EXPECT_NE(console.find("There is no result store"), std::string::npos);
}

// A robust matrix that is missing once is missing in the averages.
TEST_F(Series, OneMissingRobustMatrix) {
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
                if (pass == 1) results.robust = Array<double>();
                storesubrun(results);
                poolseries();
                closereport();
              }
            }),
            0);
  const std::string text = contents("out.avg");
  EXPECT_NE(line(text, "      INTRCPT3, G000").find("10.500000"), std::string::npos);
  EXPECT_EQ(text.find("robust standard errors"), std::string::npos);
}

}  // namespace
}  // namespace kdr
