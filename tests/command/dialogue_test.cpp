// The dialogue: what it asks, and what the answers leave in the record.
#include "command/dialogue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "command/complete.h"
#include "command/constraints.h"
#include "command/smallmdm.h"
#include "command/writer.h"
#include "core/constraints.h"

using namespace kdr;

namespace {

// Reads a command file and holds the dialogue with the given lines of answers. On a normal end the run is written to
// "new.kdr".
ChildEnd converse(const std::string& text, const std::string& answers) {
  makefile("answers", answers);
  return runchild([&] {
    if (std::freopen("answers", "r", stdin) == nullptr) _exit(99);
    if (text.empty()) {
      smallmdm();
      readcommandfile();
    } else {
      readtext(text);
    }
    run.mdm.deletednow = true;
    modelquestions();
    constraintquestions();
    settleconstraints();
    featurequestions();
    outputquestions();
    compactlists();
    run.model.outname = run.mdm.names1[static_cast<std::size_t>(run.model.outvar)];
    applyconstraints(run.model);
    writecommandfile("new.kdr");
  });
}

std::string equations() {
  const std::string text = contents("new.kdr");
  const std::size_t start = text.find("LEVEL1:");
  return text.substr(start, text.find("LEVEL1WEIGHT") - start);
}

bool holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

const std::string settled =
    "NUMIT:5\nRESFIL2:N\nRESFIL3:N\nTITLE:t\nOUTPUT:o\nHYPOTH:N\nCONSTRAIN:N\nLVR-BETA:N\nLEVEL1DELETION:NONE\n";

struct Dialogue : testing::Test {
  Workplace workplace;
};

}  // namespace

TEST_F(Dialogue, WholeConversation) {
  const ChildEnd outcome = converse("",
                                    "n\n"                       // no non-linear analysis
                                    "4\n"                       // outcome Y
                                    "4\n3\n3\n1\n0\n"           // that is the outcome; X; again; A
                                    "n\n"                       // intercept stays
                                    "y\n9\n1\n2\n"              // A: a bad digit, group mean; X: grand mean
                                    "-1\n2\n2\n0\n"             // nothing before the first coefficient; W; again
                                    "-1\n"                      // A: as the intercept
                                    "3\n0\n"                    // X: W2
                                    "n\nn\ny\n"                 // X without INTRCPT2
                                    "y\nn\ny\nn\n"              // A is fixed at level 2
                                    "y\n2\n0\n"                 // W grand mean, W2 not centered
                                    "1\n0\n-1\n0\n0\n0\n"       // P for INTRCPT2, copied to W, the rest none
                                    "y\n1\n2\n"                 // P: no group mean at level 3
                                    "y\nn\ny\ny\ny\ny\n"        // only the first is random at level 3
                                    "2\n1\n0\n"                 // exploratory at level 2: W stands in the model; V; end
                                    "-1\n"                      // X: as the intercept
                                    "2\n0\n"                    // exploratory at level 3: Q
                                    "y\nn\nn\nn\ny\ny\nn\nn\n"  // gammas 4 and 5 equal
                                    "y\ny\ny\nn\nn\nn\n"        // 1 and 2 equal; the groups are numbered anew
                                    "n\n"
                                    "y\ny\n1,5\n1\n0\n-1\n0\n0\nn\nn\ny\n100.5\n7.5\n7\n"  // one contrast, the deviance
                                    "n\n"        // no latent variable regression
                                    "y\n3\n0\n"  // level-2 residual file with W2
                                    "n\n4\n"     // Stata
                                    "20\nA title\n");
  EXPECT_EQ(outcome.code, 0) << outcome.words;
  EXPECT_EQ(equations(),
            "LEVEL1:Y=INTRCPT1+A,1+X,2+RANDOM\n"
            "LEVEL2:INTRCPT1=INTRCPT2+W,2+RANDOM/V\n"
            "LEVEL3:INTRCPT2=INTRCPT3+P,2+RANDOM/Q\n"
            "LEVEL3:W=INTRCPT3+P,2/\n"
            "LEVEL2:A=INTRCPT2+W,2/\n"
            "LEVEL3:INTRCPT2=INTRCPT3/\n"
            "LEVEL3:W=INTRCPT3/\n"
            "LEVEL2:X=W2+RANDOM/V\n"
            "LEVEL3:W2=INTRCPT3/\n")
      << outcome.words;
  const std::string text = contents("new.kdr");
  for (const char* line : {"NUMIT:20\n", "RESFILTYPE:STATA\n", "RESFIL2:Y/W,W2/P\n", "RESFIL2NAME:resfil2.dta\n",
                           "CONSTRAIN:1,1,0,2,2,0,0\n", "DEVIANCE:100.500000\nDF:7\n", "LVR-BETA:N\n",
                           "TITLE:A title\n", "GAMMA1:1.0000,0.0000,0.0000,-1.0000,0.0000,0.0000,0.0000\n"})
    EXPECT_TRUE(holds(text, line)) << line << text;
  for (const char* words :
       {" This is no number to its end: 1,5\n", " This is no whole number to its end: 7.5\n",
        " That is the outcome variable!\n", "You have already chosen that variable!\n",
        "Which level-2 predictor to model INTRCPT1, P0?\n", "Which level-2 predictor to model        A, P1 slope?\n",
        "Do you want to set the level-2 intercept to zero for        X, P2? ", "Do you want to fix        A,P1 slope? ",
        "Which level-3 predictors to model        A/       W, B11 slope?\n",
        "Which level-3 predictors to model        X/      W2, B21?\n", " Do you want to constrain G210? ",
        " Enter contrast value for INTRCPT1/       W/INTRCPT3, G010 (0 to ignore)"})
    EXPECT_TRUE(holds(outcome.words, words)) << words;
}

TEST_F(Dialogue, KindsOfOutcome) {
  const std::string rest = "RESFIL2:N\nRESFIL3:N\nTITLE:t\nOUTPUT:o\nHYPOTH:N\nCONSTRAIN:N\nLVR-BETA:N\n";
  const std::string model = "0\nn\nn\n0\nn\nn\n0\nn\n0\n0\n";  // the intercept alone at all levels
  struct Case {
    std::string answers;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"y\n1\n20\n10\nn\ny\n30\n4\n" + model,
       {"MACROIT:20\nMICROIT:10\nNONLIN:BERNOULLI\nLAPLACE:y,30\n", "\nLEVEL1:Y=INTRCPT1+RANDOM\n",
        "FIXSIGMA2:1.000000\n"}},
      {"y\n2\n20\n10\ny\n4\n0\n4\n6\n" + model.substr(2), {"NONLIN:BINOMIAL,T\n"}},
      {"y\n4\n20\n10\ny\n4\n0\n6\n" + model.substr(2), {"NONLIN:POISSON,T\n"}},
      {"y\n6\n20\n10\n4\n3\n" + model,
       {"NONLIN:ORDINAL,3\n", "LEVEL1:Y=INTRCPT1+THOLD2+RANDOM\n", "LEVEL2:INTRCPT1=INTRCPT2+RANDOM/\n"}},
      {"y\n5\n20\n10\n4\n3\n3\n0\nn\nn\n1\n0\n0\n0\n0\nn\nn\nn\nn\nn\nn\n0\n0\n0\n0\n0\nn\n0\n0\n0\n0\n0\n0\n0\n0\n0\n",
       {"NONLIN:MULTINOMIAL,3\n",
        "LEVEL2:INTRCPT1=INTRCPT2+V+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL3:V=INTRCPT3+RANDOM/\n"
        "LEVEL2:X=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL1:Y=INTRCPT1+X+RANDOM\n"}},
  };
  for (const Case& c : cases) {
    const ChildEnd outcome = converse(rest, c.answers);
    EXPECT_EQ(outcome.code, 0) << c.answers << outcome.words;
    const std::string text = contents("new.kdr");
    for (const std::string& line : c.lines) EXPECT_TRUE(holds(text, line)) << line << text << outcome.words;
    EXPECT_FALSE(holds(outcome.words, "How many iterations"));
    EXPECT_FALSE(holds(outcome.words, "THOLD"));
  }
}

TEST_F(Dialogue, NoLevel1Intercept) {
  const ChildEnd outcome = converse(settled, "n\n4\n3\n0\ny\nn\n0\nn\nn\n0\nn\n0\n0\n");
  EXPECT_EQ(outcome.code, 0) << outcome.words;
  EXPECT_TRUE(holds(outcome.words, "Which level-2 predictor to model        X, P1?\n")) << outcome.words;
  EXPECT_TRUE(holds(equations(), "LEVEL1:Y=X+RANDOM\nLEVEL2:X="));
}
