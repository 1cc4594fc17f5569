// The failure table: words, where they go, and the code that the process ends with.
#include "driver/failures.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "construct/child.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"

namespace {

using namespace kdr;

struct Ending {
  int code;
  const char* text;
  const char* console;  // all that is printed
  const char* report;   // all that the report holds
};

class Failures : public testing::Test {
 protected:
  std::string path = testing::TempDir() + "failure.txt";

  // Ends a run in a child process with its report at `path`.
  void endrun(const Ending& ending, bool html) const {
    run = RunRecord{};
    run.id.waitseconds = -1;
    run.files.outfile = path;
    run.report.html = html;
    run.report.stream = std::fopen(path.c_str(), "w");
    dup2(STDERR_FILENO, STDOUT_FILENO);
    fail(ending.code, ending.text);
  }
  [[nodiscard]] std::string reported() const { return contents(path); }
};

TEST_F(Failures, EachEndsWithItsWordsAndCode) {
  const Ending endings[] = {
      {0, "", "", ""},
      {1, "a.dat", " a.dat is an empty file\n", ""},
      {2, "2", "", " No more level-2 groups left for analysis\n"},
      {3, "", " Out of memory. Please run a smaller problem\n", ""},
      {5, "", " Unable to write. Full disk\\?\n", ""},
      {6, "", " Unable to open temp file\n", ""},
      {8, " 12", " Error in batch file at line  12\n", ""},
      {9, "XYZ", "XYZ does not exist\n", ""},
      {10, "", "Level 1 variables must be specified in the order given in the mdm file\n", ""},
      {11, "", "",
       "\nThere is a problem in the fixed portion of the model.  A near singularity is\n"
       "likely.  Possible sources are a collinearity or multicollinearity among the\n"
       "predictors.  We suggest that you examine a correlation matrix among the fixed\n"
       "effect predictors.\n\n"},
      {12, "tau(pi)", "", "\nMatrix tau(pi) is not invertible. Unable to continue\n"},
      {13, "1", "",
       "\nKDR3 is unable to compute starting values based on the specified model.\n"
       "Every level-1 predictor matrix is near singular.\n"
       "1) Center one or more level-1 predictors.\n"
       "2) One (or more) of the random effects should be either deleted from the model\n"
       "   or treated as fixed.\n"},
      {14, "", "Unable to get a proper response\n", ""},
      {16, "", "",
       "\nThere are no degrees of freedom to estimate sigma_squared. Set sigma_squared\n"
       "to a constant, or delete one or more of the random effects from the model.\n"},
      {17, "", "There are no fixed effects!!\n", ""},
      {100, "words", "words\n", ""},
      {77, "", "Bad exit code 77\n", ""},
  };
  for (const Ending& ending : endings) {
    EXPECT_EXIT(endrun(ending, false), testing::ExitedWithCode(ending.code), ending.console) << ending.code;
    EXPECT_EQ(reported(), ending.report) << ending.code;
  }
}

TEST_F(Failures, SingularComponentsAreExplainedInBothModes) {
  const Ending singular{15, "", "", ""};
  EXPECT_EXIT(endrun(singular, false), testing::ExitedWithCode(15), "");
  const std::string text = reported();
  EXPECT_EQ(text.find("\nKDR3 is unable to estimate covariance components for the model specified. It is\n"
                      "likely that either:\n\n    1. one or more of the variance components is very close to zero"),
            0U);
  EXPECT_EXIT(endrun(singular, true), testing::ExitedWithCode(15), "");
  EXPECT_EQ(reported().find("<br>\nKDR3 is unable to estimate covariance components"), 0U);
}

// A failure while the stop sequence runs must not start it again.
TEST_F(Failures, AFailureWithinTheStopGoesOnToTheEnd) {
  stophooks.closelog = [](int) { fail(5); };
  EXPECT_EXIT(endrun({100, "", "", ""}, false), testing::ExitedWithCode(5), "Unable to write");
  stophooks.closelog = nullptr;
}

}  // namespace
