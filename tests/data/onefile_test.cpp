#include "data/onefile.h"

#include <gtest/gtest.h>

#include "data/rawtest.h"

namespace kdr {
namespace {

struct One : testing::Test {
  Workplace workplace;
  static Outcome take(const std::string& path = "pupils.csv") {
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
  const Outcome outcome = take();
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.words,
            "Left out, since they are no numbers: sex.\n"
            "1 records of pupils.csv have no ID. They were left out.\n"
            "pupils.csv is not in the order of its IDs. Its 4 records were sorted in memory.\n"
            "Variable score_maths has the name SCORE_MA in the MDM file.\n"
            "Variable score_music has the name SCORE_MU in the MDM file.\n"
            "rate does not vary within level-2 units, but is missing in 1 of them: it stays at level 1.\n"
            "Variable intrcpt1 has the name INTRCPT2 in the MDM file.\n" +
                std::string());
}

}  // namespace
}  // namespace kdr
