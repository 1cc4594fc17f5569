// What the command file reader leaves in the record.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "command/complete.h"
#include "command/constraints.h"
#include "command/smallmdm.h"
#include "core/constraints.h"

using namespace kdr;

namespace {

template <class T>
std::vector<T> values(const Array<T>& array) {
  return {array.begin(), array.end()};
}

template <class T>
std::vector<int> row(const EquationTable<T>& table, int e, int r = 0) {
  std::vector<int> cells;
  for (int i = 0; i < table.width; ++i) cells.push_back(static_cast<int>(table.row(e, r)[i]));
  return cells;
}

std::vector<std::string> words(const Array<Name>& names) {
  std::vector<std::string> all;
  for (const Name& name : names) all.push_back(leftname(name));
  return all;
}

using Ints = std::vector<int>;
using Words = std::vector<std::string>;

struct Reading : testing::Test {
  Workplace workplace;
};

}  // namespace

TEST_F(Reading, DefaultsWithoutAFile) {
  smallmdm();
  run.control.numit = 7;
  run.out.graph = true;
  run.files.title = "old";
  run.model.nointercept1 = true;
  readcommandfile();
  EXPECT_EQ(run.control.numit, 0);
  EXPECT_FALSE(run.out.graph);
  EXPECT_EQ(run.files.title, "");
  EXPECT_FALSE(run.model.nointercept1);
  EXPECT_EQ(run.control.accel, 5);
  EXPECT_EQ(run.control.fishertype, FisherType::expected);
  EXPECT_FALSE(run.out.deviance);
  EXPECT_EQ(run.files.resfil2name, "resfil2.sav");
  EXPECT_EQ(row(run.model.terms2, 0), (Ints{noslot, noslot, noslot, noslot}));
  EXPECT_FALSE(run.answered.wholemodel());
}

TEST_F(Reading, CountsAndLabels) {
  readtext(
      "LEVEL1:Y=A+X+RANDOM\n"
      "LEVEL2:A=V+W+RANDOM\n"
      "LEVEL3:V=INTRCPT3+Q\n"
      "LEVEL3:W=P+RANDOM\n"
      "LEVEL2:X=INTRCPT2\n"
      "LEVEL3:INTRCPT2=INTRCPT3+RANDOM\n");
  EXPECT_TRUE(run.model.nointercept1);
  completemodel();
  EXPECT_EQ(run.model.coef.npi, 2);
  EXPECT_EQ(run.model.coef.nbeta, 3);
  EXPECT_EQ(run.model.coef.ngamma, 4);
  // No INTRCPT1: the first digit counts from 1; no INTRCPT2 in A's row: the second too; no INTRCPT3 in W's row.
  EXPECT_EQ(words(run.model.coef.gammasubs), (Words{"110", "111", "121", "200"}));
  EXPECT_EQ(run.model.nterms2.row(0)[0], 2);
  EXPECT_EQ(run.model.nterms3.row(0)[0], 2);
  EXPECT_EQ(run.model.nterms3.row(0)[1], 1);
  EXPECT_EQ(randomlevel1(), 1);
  EXPECT_EQ(randomlevel2(), 2);
  labelrandomeffects();
  EXPECT_EQ(words(run.model.coef.pinames), (Words{"A"}));
  EXPECT_EQ(words(run.model.coef.betanames1), (Words{"A", "X"}));
  EXPECT_EQ(words(run.model.coef.betanames2), (Words{"W", "INTRCPT2"}));
}

TEST_F(Reading, EmptyRowAddsNothing) {
  readtext(
      "LEVEL1:Y=INTRCPT1+X\n"
      "LEVEL2:INTRCPT1=RANDOM\n"
      "LEVEL2:X=INTRCPT2/\n"
      "LEVEL3:INTRCPT2=INTRCPT3/\n");
  completemodel();
  EXPECT_EQ(run.model.coef.npi, 2);
  EXPECT_EQ(run.model.coef.nbeta, 1);
  EXPECT_EQ(run.model.coef.ngamma, 1);
  EXPECT_EQ(words(run.model.coef.gammasubs), (Words{"100"}));
  EXPECT_EQ(run.model.terms2.row(0, 0)[0], noslot);
  EXPECT_EQ(run.model.fixed1.row(0)[0], 0);
}

TEST_F(Reading, SingleValues) {
  struct Case {
    const char* text;
    bool (*holds)();
  };
  const Case cases[] = {
      {"numit:50\r\n",
       [] { return run.control.numit == 50 && run.control.numitcontinue == AtLimit::ask && run.answered.iterations; }},
      {"NUMIT:50,n", [] { return run.control.numitcontinue == AtLimit::stop; }},
      {"NUMIT:1e3,Y", [] { return run.control.numit == 1000 && run.control.numitcontinue == AtLimit::goon; }},
      {"STOPVAL:+1e-3", [] { return run.control.stopval == 1e-3; }},
      {"stopmicro:1e-4", [] { return run.control.stopval == 1e-4; }},
      {"STOPMICROS:1e-4", [] { return run.control.stopval == 1e-4; }},
      {"STOPMACRO:1e-2", [] { return run.control.stopmacro == 1e-2 && run.control.stopval == 1e-6; }},
      {"NONLIN:bernoulli\nMACROIT:10,Y\nMICROIT:14",
       [] {
         return run.model.outcome.family == Family::bernoulli && run.control.macroit == 10 &&
                run.control.numitcontinue == AtLimit::goon && run.control.numit == 14 && run.control.stopval == 1e-5;
       }},
      {"NONLIN:POISSON,T\nMACROIT:10\nSTOPMICRO:1e-9",
       [] {
         return run.model.outcome.family == Family::poisson && run.model.outcome.counted &&
                run.model.outcome.countvariable == 6 && run.control.stopval == 1e-9 && run.out.wanted1vars1[6] == 1;
       }},
      {"NONLIN:BERNOULLI\nMACROIT:2\nAGQ:Y,30,7",
       [] { return run.control.stopval == 1e-6 && run.model.restrictions.fixsigma2 == 1; }},
      {"NONLIN:BERNOULLI\nMACROIT:2\nLAPLACE:y,20",
       [] { return run.control.laplace && run.control.laplaceit == 20 && run.model.restrictions.fixsigma2 == 1.0; }},
      {"LAPLACE:n,20", [] { return !run.control.laplace && run.control.laplaceit == 50; }},
      {"NONLIN:POISSON\nMACROIT:2\nAGQ:y,30,7\nAGQDERIVLEVEL:1",
       [] { return run.control.agqit == 30 && run.control.agqpoints == 7; }},
      {"NONLIN:NONE", [] { return run.model.outcome.linear() && run.answered.nonlin; }},
      {"ACCEL:0", [] { return run.control.accel == 5; }},
      {"ACCEL:2", [] { return run.control.accel == 2; }},
      {"ACCEL:2\nDOFISHER:N", [] { return run.control.accel == 3 && run.control.fishertype == FisherType::none; }},
      {"HETIT:10\nFISHERTYPE:1\nACCEL:-4",
       [] { return run.control.fishertype == FisherType::none && run.control.accel == 3; }},
      {"FISHERTYPE:1", [] { return run.control.fishertype == FisherType::outerproducts; }},
      {"VARIANCEKNOWN:t", [] { return run.model.autovknown == 6 && run.model.restrictions.fixsigma2 == 1.0; }},
      {"LEVEL2WEIGHT:w\nLEVEL1WEIGHT:NONE", [] { return run.model.wgtvar2 == 2 && run.model.wgtvar1 == 0; }},
      {"LEVEL1DELETION:A,T",
       [] {
         return run.model.delete1[0] == Deletion::named && run.model.delete1[1] == Deletion::none &&
                run.model.delete1[5] == Deletion::named && run.answered.deletion;
       }},
      {"PRINTVARIANCE-COVARIANCE:all", [] { return run.out.printvc == VarianceFiles::append; }},
      {"FULLOUTPUT:No", [] { return !run.out.fulloutput; }},
      {"POPAVIT:Y\nPOPAVIT:N", [] { return run.control.popavit == 1; }},
      {"FIXSIGMA2:N", [] { return !run.model.restrictions.fixsigma2; }},
      {"STARTVALS:a/b.val/writeonly", [] { return run.files.startvals == "a/b.val"; }},
      {"RESULTS:a.json\nRESULTS:b/c.csv", [] { return run.files.results == "b/c.csv"; }},
      {"RESFILTYPE:stata\nRESFIL3NAME:u.dta",
       [] { return run.files.resfil1name == "resfil1.dta" && run.files.resfil3name == "u.dta"; }},
      {"RESFIL1:Y/A,B//Q",
       [] {
         return run.out.resfil1 && run.out.wanted1vars1[1] == 1 && run.out.wanted1vars1[2] == 1 &&
                run.out.wanted1vars3[2] == 1 && run.out.wanted1vars2[1] == 0;
       }},
      {"NONLIN:MULTINOMIAL,3\nRESFIL2:Y\nMACROIT:3", [] { return run.model.neqsets == 2 && run.out.resfil2; }},
      {"RESFIL1:Y/A\nNONLIN:ORDINAL,4\nMACROIT:3", [] { return run.out.wanted1vars1[1] == 1; }},
      {"GRAPHGAMMAS:g.grk\nNONLIN:MULTINOMIAL,3\nMACROIT:3", [] { return run.out.graph && run.out.resfil1; }},
      {"HYPOTH:Y", [] { return !run.answered.hypoth; }},
      {"TITLE:0123456789012345678901234567890123456789012345678901234567890123456789",
       [] { return run.files.title.size() == 63; }},
      {"TITLE:01234567890123456789012345678901234567890123456789012345678901 345",
       [] { return run.files.title.size() == 62; }},
      {"TITLE: a: b  ", [] { return run.files.title == " a: b"; }},
  };
  for (const Case& c : cases) {
    readtext(c.text);
    EXPECT_TRUE(c.holds()) << c.text;
  }
}

TEST_F(Reading, SetsAndThresholds) {
  readtext("NONLIN:MULTINOMIAL,3\nMACROIT:3\n" + samplemodel +
           "LEVEL1:Y=B\nLEVEL2:B=INTRCPT2\nLEVEL3:INTRCPT2=INTRCPT3\n");
  EXPECT_EQ(row(run.model.use1, 0), (Ints{2, 0, 0, 2, 1, 0, 0}));
  EXPECT_EQ(row(run.model.use1, 1), (Ints{0, 0, 2, 0, 1, 0, 0}));
  EXPECT_EQ(run.model.terms2.row(1, 0)[0], 0);
  EXPECT_EQ(run.model.terms2.row(1, 1)[0], noslot);

  readtext(
      "NONLIN:ORDINAL,12\nMACROIT:3\n"
      "LEVEL1:Y=INTRCPT1+A+THOLD2+THOLD3+THOLD4+THOLD5+THOLD6+THOLD7+THOLD8+THOLD9+THOLD10+THOLD11+RANDOM\n");
  EXPECT_EQ(run.mdm.ncol1, 17);
  EXPECT_EQ(run.mdm.maxbeta, 4 * 16);
  EXPECT_EQ(leftname(run.mdm.names1[7]), "THOLD2");
  EXPECT_EQ(leftname(run.mdm.names1[16]), "THOLD11");
  EXPECT_EQ(run.model.use1.row(0)[16], Use::predictor);
  // Nothing is known of the intercept's equation and of A's; a threshold has one fixed effect and no random one.
  completemodel();
  EXPECT_EQ(run.model.coef.npi, 12);
  EXPECT_EQ(run.model.coef.nbeta, 10);
  EXPECT_EQ(run.model.coef.ngamma, 10);
  EXPECT_EQ(randomlevel1(), 2);
  EXPECT_EQ(randomlevel2(), 0);
}

TEST_F(Reading, LongLinesComeInPieces) {
  // A comment of 16383 characters and more: what follows is a line of its own.
  readtext("#" + std::string(maxline - 2, 'x') + "NUMIT:4\nSTOPVAL:0.5\n");
  EXPECT_EQ(run.control.numit, 4);
  EXPECT_EQ(run.control.stopval, 0.5);
}

TEST(Constraints, MatrixMakesFullGammasFromReducedOnes) {
  struct Case {
    Ints groups;
    int nconstrained;
    std::vector<double> matrix;
  };
  const Case cases[] = {
      {{0, 1, 1}, 1, {1, 0, 0, 0, 1, 0, 0, 1, 0}},
      {{0, 0}, 0, {1, 0, 0, 1}},
      {{1, 2, 1, 2}, 2, {1, 0, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0}},
      {{1, 1, 0}, 1, {1, 0, 0, 1, 0, 0, 0, 1, 0}},
      {{1, 1, 1}, 2, {1, 0, 0, 1, 0, 0, 1, 0, 0}},
  };
  for (const Case& c : cases) {
    smallmdm();
    run.model.coef.ngamma = static_cast<int>(c.groups.size());
    run.model.constraints.reset(c.groups.size());
    std::copy(c.groups.begin(), c.groups.end(), run.model.constraints.begin());
    run.model.contrasts.reset(2 * c.groups.size());
    for (std::size_t i = 0; i < run.model.contrasts.size(); ++i) run.model.contrasts[i] = static_cast<double>(i) + 1.0;
    settleconstraints();
    EXPECT_EQ(run.model.nconstrained, c.nconstrained);
    EXPECT_EQ(values(run.model.constrainmatrix), c.matrix);

    applyconstraints(run.model);
    const std::size_t full = c.groups.size(), width = full - static_cast<std::size_t>(c.nconstrained);
    ASSERT_EQ(run.model.contrasts.size(), 2 * width);
    EXPECT_EQ(run.model.uncutcontrasts.size(), 2 * full);
    // Whatever the reduced gammas are, a contrast has the value of its full form with the members of a group equal.
    for (std::size_t row = 0; row < 2; ++row) {
      double whole = 0.0, reduced = 0.0;
      std::vector<double> gamma;  // of the gammas that stay
      for (std::size_t g = 0; g < full; ++g) {
        const auto first = static_cast<std::size_t>(
            c.groups[g] == 0 ? g : std::find(c.groups.begin(), c.groups.end(), c.groups[g]) - c.groups.begin());
        const double value = 10.0 + static_cast<double>(first * first);
        if (first == g) gamma.push_back(value);
        whole += static_cast<double>(row * full + g + 1) * value;
      }
      for (std::size_t g = 0; g < width; ++g) reduced += run.model.contrasts[row * width + g] * gamma[g];
      EXPECT_EQ(reduced, whole);
    }
  }
}
