#include "construct/onefile.h"

#include <gtest/gtest.h>

#include "construct/rawtest.h"

namespace kdr {
namespace {

struct One : testing::Test {
  Workplace workplace;
  static ChildEnd take(const std::string& path = "pupils.csv") {
    return makemdmof([&] {
      run.files.mdmfile = "made.mdm";
      takeonefile(path, "area", "School");
    });
  }
};

// Variables of each level, one with gaps, names alike, texts, an unsorted file with a record that has no ID.
TEST_F(One, EachVariableOnItsLevel) {
  makefile("pupils.csv",
           "school,area,score_maths,score_music,size,money,rate,sex,intrcpt1\n"
           "s2,b,1,2,30,7,1,f,0\ns1,a,3,4,10,9,,m,1\n,a,0,0,0,0,0,m,0\ns10,a,5,NA,20,9,3,f,0\ns1,a,7,8,10,9,,f,1\n");
  const ChildEnd outcome = take();
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.words,
            "Left out, since they are no numbers: sex.\n"
            "1 records of pupils.csv have no ID. They were left out.\n"
            "pupils.csv is not in the order of its IDs. Its 4 records were sorted in memory.\n"
            "Variable score_maths has the name SCORE_MA in the MDM file.\n"
            "Variable score_music has the name SCORE_MU in the MDM file.\n"
            "rate does not vary within level-2 units, but is missing in 1 of them: it stays at level 1.\n"
            "Variable intrcpt1 has the name INTRCPT4 in the MDM file.\n"
            "Level-1 variables: SCORE_MA SCORE_MU RATE\nLevel-2 variables: SIZE INTRCPT4\nLevel-3 variables: MONEY\n");
  EXPECT_EQ(
      contents("shown"),
      "INTRCPT1\nSCORE_MA\nSCORE_MU\nRATE\nINTRCPT2\nSIZE\nINTRCPT4\nINTRCPT3\nMONEY\nA 0x1.2p+3\nB 0x1.cp+2\n"
      "A S1 0x1.4p+3 0x1p+0\n 0x1.8p+1 0x1p+2 .\n 0x1.cp+2 0x1p+3 .\nA S10 0x1.4p+4 0x0p+0\n 0x1.4p+2 . 0x1.8p+1\n"
      "B S2 0x1.ep+4 0x0p+0\n 0x1p+0 0x1p+1 0x1p+0\n");
}

// The template that it writes does the same with a file that is sorted; there the file serves three levels.
TEST_F(One, TheTemplateDoesTheSame) {
  makefile("pupils.csv", "School,area,x,w,z\n1,1,5,7,9\n1,1,6,7,9\n2,1,5,8,9\n1,2,4,3,2\n");
  EXPECT_EQ(take().code, 0);
  const std::string shown = contents("shown");
  const std::string recipe = contents(templatecopy);
  EXPECT_EQ(makemdm(recipe).words, extrawords);
  EXPECT_EQ(contents("shown"), shown);
  EXPECT_TRUE(contents("KDR3MDM.STS")
                  .starts_with("2 rows of the level-3 file were folded into the first one of their "
                               "unit.\n1 rows of the level-2 file were folded"))
      << contents("KDR3MDM.STS");
  std::string varying = recipe;
  varying.replace(varying.find("\nz\n") == std::string::npos ? varying.find("\nZ\n") : varying.find("\nz\n"), 3,
                  "\nW\n");
  const std::string words = "Level-3 variables that vary within units: W. The first row of each unit counts.\n";
  EXPECT_EQ(makemdm(varying).words, words + "That has to be asked for by VARYING:FIRST in the template.\n");
  EXPECT_EQ(makemdm(varying + "varying: first\n").words, words + extrawords);
}

}  // namespace
}  // namespace kdr
