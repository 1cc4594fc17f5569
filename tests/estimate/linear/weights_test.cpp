// Design weights that cannot be; their normalisation and the weighted covariance are held against dense computation by
// the end-to-end tests.
#include "estimate/linear/weights.h"

#include <gtest/gtest.h>

#include "study.h"

namespace {

using namespace kdr;

TEST(Weights, RefusesWhatItCannotCompute) {
  struct Case {
    int wgtvar1, wgtvar3;
    double level3weight;
    const char* words;
  };
  const Case cases[] = {{4, 2, 1.0, "Unable to do only level-1 and level-3 weights"},
                        {0, 2, 0.0, "Level-3 Weights must be positive!"},
                        {2, 0, 1.0, "Weights must be positive!"}};  // X1 has both signs
  for (const Case& refused : cases) {
    study::Study made(4);
    run.model.weighted = true;
    run.model.wgtvar1 = refused.wgtvar1;
    run.model.wgtvar3 = refused.wgtvar3;
    run.mdm.level3[1] = refused.level3weight;
    const Failure failure = normaliseweights(run.model, run.mdm, made.observer, run.weights);
    EXPECT_NE(failure.consolewords.find(refused.words), std::string::npos) << failure.consolewords;
  }
}

}  // namespace
