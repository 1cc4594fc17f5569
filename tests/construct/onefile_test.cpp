#include "construct/onefile.h"

#include <gtest/gtest.h>

#include "construct/rawtest.h"

namespace kdr {
namespace {

struct One : testing::Test {
  Workplace workplace;
  static ChildEnd take(const OneFileJob& job = {"pupils.csv", "area", "School", {}, {}}) {
    return makemdmof([&] {
      run.files.mdmfile = "made.mdm";
      takeonefile(job);
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
            "Left out, since they are no numbers: sex (line 2 holds \"f\").\n"
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

// IDs that are too long for the MDM file, alike but for case; names that a command file could not tell.
TEST_F(One, LongIdsAndOddNames) {
  makefile("pupils.csv",
           "School,area,a+b,RANDOM,n\nZoo,\"North, \"\"old\"\"\",1,2,5\nAnn,The whole South,3,4,5\n"
           "zoo,the WHOLE south,5,6,5\nAnn,\"North, \"\"old\"\"\",7,8,5\nAnn,b,9,1,5\n");
  const auto made = [] {
    return makemdmof([] {
      run.files.mdmfile = "made.mdm";
      takeonefile({"pupils.csv", "area", "School", {"n"}, {}});
    });
  };
  const ChildEnd end = made();
  EXPECT_EQ(end.code, 0);
  EXPECT_EQ(end.words,
            "Level-3 IDs of more than 12 characters: the units are numbered from 1 to 3.\n"
            "pupils.csv is not in the order of its IDs. Its 5 records were sorted in memory.\n"
            "Variable a+b has the name A_B in the MDM file.\nVariable RANDOM has the name RANDOM2 in the MDM file.\n"
            "Level-1 variables: N\nLevel-2 variables: A_B RANDOM2\nLevel-3 variables: none\n"
            "The numbers and their IDs stand in made.ids.csv.\n");
  EXPECT_EQ(contents("shown"),
            "INTRCPT1\nN\nINTRCPT2\nA_B\nRANDOM2\nINTRCPT3\n1\n2\n3\n1 ANN 0x1.2p+3 0x1p+0\n 0x1.4p+2\n"
            "2 ANN 0x1.cp+2 0x1p+3\n 0x1.4p+2\n2 ZOO 0x1p+0 0x1p+1\n 0x1.4p+2\n3 ANN 0x1.8p+1 0x1p+2\n 0x1.4p+2\n"
            "3 ZOO 0x1.4p+2 0x1.8p+2\n 0x1.4p+2\n");
  makefile("made.ids.csv", "level,notes\n");
  EXPECT_EQ(made().code, 100);
  EXPECT_EQ(contents("made.ids.csv"), "level,notes\n");
  makefile("pupils.csv", std::string("School,area,x\n1,a\0a,1\n1,a\0b,2\n", 30));
  EXPECT_EQ(take().words, "An ID has a zero byte in it.\nIt stands in record 1 of the level-1 file pupils.csv.\n");
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
