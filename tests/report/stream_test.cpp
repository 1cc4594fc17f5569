#include "report/stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "construct/child.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/header.h"
#include "report/resultsheading.h"
#include "reportfixture.h"

namespace kdr {
namespace {

class Report : public testing::Test {
 protected:
  void SetUp() override {
    startmodel({"Y"}, {}, {});
    run.id.waitseconds = -1;
  }
  Workplace workplace;
};

constexpr const char* pagebegin =
    "<!DOCTYPE html>\n<html lang=en>\n<head>\n"
    "<meta http-equiv=\"content-type\" content=\"text/html;charset=utf-8\" />\n<title>a &lt; b &amp; "
    "c</title>\n<style>\n";
constexpr const char* pagehead = "</head>\n<body bgcolor=\"FFFFFF\" fgcolor=\"000000\">\n";

TEST_F(Report, NameDecidesTheMode) {
  struct {
    const char* name;
    bool html;
  } cases[] = {{"r.txt", false}, {"r.HTM", true}, {"r.html", true}, {"r", false}, {"htm", false}, {"a.htm.txt", false}};
  for (const auto& c : cases) {
    run.files.outfile = c.name;
    run.files.title = "a < b & c";
    openreport();
    EXPECT_EQ(run.report.html, c.html) << c.name;
    reportline("x");
    closereport();
    const std::string text = contents(c.name);
    EXPECT_EQ(text.starts_with(pagebegin), c.html) << text;
    EXPECT_TRUE(text.ends_with(c.html ? std::string(pagehead) + "x<br>\n</body></html>\n" : "x\n")) << text;
    EXPECT_EQ(text == "x\n", !c.html) << text;
  }
}

// The passes of one process go on from the first one's name, dots of folder and stem and all.
TEST_F(Report, SeriesNumberTheirReports) {
  std::filesystem::create_directory("d.x");
  const struct {
    const char *given, *stem, *ending;
  } cases[] = {{"./d.x/r", "./d.x/r.", ""}, {"a.b.htm", "a.b_", ".html"}};
  for (const auto& c : cases) {
    run.series = SeriesMode{};
    run.series.pvmode = true;
    run.files.outfile = c.given;
    for (; run.series.pvindex < 3; ++run.series.pvindex) {
      openreport();
      EXPECT_EQ(run.report.html, *c.ending != 0);
      closereport();
      EXPECT_EQ(run.files.outfile, c.stem + std::to_string(run.series.pvindex + 1) + c.ending);
      EXPECT_TRUE(std::filesystem::exists(run.files.outfile));
    }
  }
}

TEST_F(Report, DoesNotOverwriteItsInput) {
  makefile("m.kdr", "LEVEL1:Y=INTRCPT1\n");
  run.files.cmdfile = "m.kdr";
  run.files.outfile = "./m.kdr";
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        openreport();
      },
      testing::ExitedWithCode(100), "is an input file of this run");
  EXPECT_EQ(contents("m.kdr"), "LEVEL1:Y=INTRCPT1\n");
}

// A later, shorter iteration overwrites an earlier one; what the earlier one left behind goes with the end.
TEST_F(Report, ShorterIterationLeavesNothingOfTheLongerOne) {
  setsymbols();
  run.files.outfile = "r.txt";
  run.model.outcome.family = Family::bernoulli;
  openreport();
  rewindreport();  // no mark yet
  report("head\n");
  markreport();
  int macro = 0;
  for (const char* words : {"a long result of an early iteration\n", "short\n"}) {
    resultsheading(PassKind::pql, ++macro, 1.0);
    report("%s", words);
  }
  closereport();
  EXPECT_EQ(contents("r.txt"),
            "head\n\fRESULTS FOR NON-LINEAR MODEL WITH THE LOGIT LINK FUNCTION:\n"
            "  Unit-Specific Model, PQL Estimation - (macro iteration 2)\nshort\n");
}

}  // namespace
}  // namespace kdr
