// Residual files by themselves: columns and bytes for models whose engines are elsewhere, numbers, failures.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "command/complete.h"
#include "construct/child.h"
#include "core/constants.h"
#include "driver/runrecord.h"
#include "report/residual/numbers.h"
#include "report/residual/residualfile.h"

namespace kdr {
namespace {

using Names = std::vector<std::string>;

void table(Array<Name>& names, const std::vector<const char*>& list) {
  names.reset(list.size());
  for (std::size_t i = 0; i < list.size(); ++i) names[i] = paddedname(list[i]);
}

// Y on the intercept and READING in `sets` equation sets; both random at level 2, INTRCPT2 random at level 3.
void makemodel(int sets) {
  run = RunRecord{};
  run.mdm.nvar1 = 2;
  run.mdm.nvar2 = run.mdm.nvar3 = 1;
  run.mdm.ncol1 = 3;
  run.mdm.ncol2 = run.mdm.ncol3 = 2;
  run.mdm.maxbeta = 4;
  table(run.mdm.names1, {"INTRCPT1", "Y", "READING"});
  table(run.mdm.names2, {"INTRCPT2", "SIZE"});
  table(run.mdm.names3, {"INTRCPT3", "URBAN"});
  run.model.neqsets = sets;
  run.model.outvar = 1;
  allocatemodel();
  Model& model = run.model;
  for (int e = 0; e < sets; ++e) {
    Use* use = model.use1.row(e);
    use[0] = use[2] = Use::predictor;
    use[1] = Use::outcome;
    model.nterms2.row(e)[0] = 2;
    model.nterms2.row(e)[1] = 1;
    model.terms2.row(e, 0)[0] = 0;
    model.terms2.row(e, 0)[1] = 1;
    model.terms2.row(e, 1)[0] = 1;  // READING has no INTRCPT2: its terms count from 1
    for (int b = 0; b < 3; ++b) {
      model.nterms3.row(e)[b] = 1;
      model.terms3.row(e, b)[0] = 0;
      model.fixed2.row(e)[b] = b == 1;
    }
  }
}

// READING's equation has INTRCPT2 and 12 more terms; all coefficients are random at level 3.
void makewide() {
  makemodel(1);
  run.mdm.nvar2 = 12;
  run.mdm.ncol2 = 13;
  run.mdm.maxbeta = 26;
  run.mdm.names2.reset(13);
  for (int v = 0; v < 13; ++v) run.mdm.names2[static_cast<std::size_t>(v)] = paddedname(std::to_string(100 + v));
  allocatemodel();
  Use* use = run.model.use1.row(0);
  use[0] = use[2] = Use::predictor;
  for (const auto& [c, n] : {std::pair{0, 1}, {1, 13}}) {
    run.model.nterms2.row(0)[c] = n;
    for (int s = 0; s < n; ++s) run.model.terms2.row(0, c)[s] = s;
  }
  for (int b = 0; b < 14; ++b) {
    run.model.nterms3.row(0)[b] = 1;
    run.model.terms3.row(0, b)[0] = 0;
  }
}

void categories(int n, bool ordinal) {
  run.model.outcome.family = ordinal ? Family::ordinal : Family::multinomial;
  run.model.outcome.categories = n;
  run.model.categorylabel.reset(static_cast<std::size_t>(n));
  for (int c = 0; c < n; ++c) {
    Name& label = run.model.categorylabel[static_cast<std::size_t>(c)];
    std::snprintf(label.text, sizeof label.text, "%4d", 10 * (c + 1));
  }
}

enum class Kind { text, stata, shortname, full };

Names names(int level, Kind kind) {
  Names list;
  for (const ResidualColumn& column : residualcolumns(level).columns) {
    const std::string& full = column.longname.empty() ? column.shortname : column.longname;
    list.push_back(kind == Kind::text        ? column.name
                   : kind == Kind::stata     ? column.stataname
                   : kind == Kind::shortname ? column.shortname
                                             : full);
  }
  return list;
}

TEST(ResidualColumns, MultinomialModel) {
  makemodel(2);
  categories(3, false);
  const Names level2 = names(2, Kind::text);
  EXPECT_EQ(Names(level2.begin(), level2.begin() + 4), (Names{"EB10INTRC", "EB10READI", "EB20INTRC", "EB20READI"}));
  EXPECT_EQ(Names(level2.begin() + 8, level2.begin() + 12), (Names{"FV1INTRC", "FV1READI", "FV2INTRC", "FV2READI"}));
  EXPECT_EQ(Names(level2.begin() + 16, level2.begin() + 20), (Names{"PV21000", "PV21010", "PV21011", "PV22020"}));
  const Names full = names(2, Kind::full);
  EXPECT_EQ(full[3], "EB20READING");
  EXPECT_EQ(full[10], "FV2INTRCPT1");
  EXPECT_EQ(full[19], "PV2_20_2_0");
  // EB10INTRC and EB10READI differ in 8 characters, EB20READI from them too; all are cut for Stata.
  EXPECT_EQ(names(2, Kind::stata)[1], "EB10READ");
  const Names level3 = names(3, Kind::text);
  EXPECT_EQ(Names(level3.begin(), level3.begin() + 4), (Names{"EB1000", "EB1011", "EB2000", "EB2011"}));
  EXPECT_EQ(Names(level3.begin() + 8, level3.begin() + 14),
            (Names{"FV100", "FV101", "FV111", "FV200", "FV201", "FV211"}));
}

TEST(ResidualColumns, OrdinalModelLeavesThresholdsOut) {
  makemodel(1);
  categories(4, true);
  run.mdm.ncol1 = 5;  // two thresholds behind the variables
  run.model.use1.reset(1, 1, 5, Use::none);
  for (const int v : {0, 2, 3, 4}) run.model.use1.row(0)[v] = Use::predictor;
  run.model.use1.row(0)[1] = Use::outcome;
  EXPECT_EQ(names(2, Kind::text), (Names{"EBINTRCP", "EBREADIN", "OLINTRCP", "OLREADIN", "FVINTRCP", "FVREADIN",
                                         "ECINTRCP", "ECREADIN", "PV200", "PV210", "PV211"}));
  EXPECT_EQ(names(1, Kind::text).size(), 7U);
  EXPECT_EQ(names(3, Kind::text), (Names{"EB00", "EB11", "OL00", "OL11", "FV00", "FV01", "FV11", "EC00", "EC01", "EC11",
                                         "PV30000", "PV31100", "PV31111"}));
}

TEST(ResidualColumns, FullNamesNeverMeetShortOnes) {
  makewide();  // EB1 in full is EB10, which is the short name of another column
  Names all = names(3, Kind::full);
  const Names shorts = names(3, Kind::shortname);
  EXPECT_EQ(shorts[10], "EB10");
  EXPECT_EQ(all[1], "EB10_1");
  for (std::size_t i = 0; i < all.size(); ++i)
    for (std::size_t j = 0; j < all.size(); ++j) {
      if (i == j) continue;
      EXPECT_NE(all[i], all[j]);
      EXPECT_NE(all[i], shorts[j]);
    }
}

class Text : public testing::Test {
 protected:
  std::string path = testing::TempDir() + "numbers.txt";
  ResultFile file;
  void SetUp() override { openresult(file, path); }
  void TearDown() override { std::remove(path.c_str()); }
  std::string written() {
    finishresult(file);
    return contents(path);
  }
};

TEST_F(Text, NumbersHaveTheDigitsOfPrintf) {
  std::vector<double> values = {
      0.0,     -0.0,   0.5,        -0.0000005, 0.0000005, 1.0000005, 2.5e-7,        123456789.1234565,
      -1.0e36, 1.0e36, 1.7976e308, 5e-324,     -99.0,     1.0 / 3.0, 999999.9999995};
  std::mt19937_64 rng(5);
  for (int i = 0; i < 20000; ++i)
    values.push_back(std::ldexp(std::uniform_real_distribution<double>(-1, 1)(rng), static_cast<int>(rng() % 60) - 30));
  // Exactly between two decimals, and on both sides of the largest number with code of its own.
  for (int i = -2000; i < 2000; ++i) {
    for (const int digits : {6, 7, 8}) values.push_back(std::ldexp(2 * i + 1, -digits));
    values.push_back(std::ldexp(1.0, 43) + i / 8.0);
  }
  std::string want;
  char text[400];
  for (const double value : values) {
    appendnumber(file, value, 6);
    std::snprintf(text, sizeof text, "%f", value);
    want += text;
    writeresult(file, "|");
    want += '|';
    if (std::fabs(value) > 9999.0) continue;
    appendfield(file, value, 11, 5);
    std::snprintf(text, sizeof text, "%11.5f", value);
    want += text;
  }
  EXPECT_EQ(written(), want);
}

TEST_F(Text, AFieldKeepsItsWidth) {
  const struct {
    double value;
    int width, decimals;
    const char* text;
  } cases[] = {
      {-99999.123456, 11, 5, "-99999.1235"},    {123456.789, 11, 5, "123456.7890"},
      {1234567890.4, 11, 5, "1.23457e+09"},     {-1234567890.4, 11, 5, "-1.2346e+09"},
      {-1.0e36, 11, 5, "-1.0000e+36"},          {-1.7e308, 11, 6, "-1.700e+308"},
      {99999.9999999, 11, 5, "100000.0000"},    {123456789012.0, 12, 0, "123456789012"},
      {1234567890123.0, 12, 0, "1.234568e+12"},
  };
  std::string want;
  for (const auto& test : cases) {
    appendfield(file, test.value, test.width, test.decimals);
    writeresult(file, "|");
    want += test.text;
    want += '|';
  }
  appendcount(file, 7, 5);
  appendtext(file, "ab", 4);
  appendtext(file, "abcdef", 4);
  want += "    7  ababcd";
  EXPECT_EQ(written(), want);
}

// Two rows of the level-1 file of a multinomial run with three categories, as the forms of text have them.
const double values[2][7] = {{0.25, -0.75, 0.75, 0.125, 1.5, 40, 1},
                             {-0.5, 1234567.5, 0.5, 0.25, 1.5, missingcode, 12}};
const char* const rowids[2] = {"          A1", "    B, \"2\" c"};

const std::string cardrows =
    "          A1          A1    0.25000   -0.75000    0.75000    0.12500    1.50000\n   40.00000\n          1\n"
    "          A1    B, \"2\" c   -0.500001234567.500    0.50000    0.25000    1.50000\n-1.0000e+36\n         12\n";

TEST(ResidualForms, ManyCategories) {
  makemodel(2);
  categories(3, false);
  run.out.wanted1vars2[1] = 1;
  run.out.resfilrecnum = true;
  compactlists();
  run.id.started.tm_mday = 24;
  run.id.started.tm_mon = 10;
  run.id.started.tm_year = 126;
  run.id.started.tm_hour = 9;
  run.id.started.tm_min = 5;
  run.id.started.tm_sec = 7;
  const struct {
    ResidualForm form;
    std::string want;
  } cases[] = {
      {ResidualForm::freeformat,
       "L3ID,L2ID,L1RES_1,L1RES_2,FITVAL_1,FITVAL_2,SIGMA,    SIZE,RECNUM\n"
       "          A1,          A1,0.250000,-0.750000,0.750000,0.125000,1.500000,40.000000,1\n"
       "          A1,\"    B, \"\"2\"\" c\",-0.500000,1234567.500000,0.500000,0.250000,1.500000,"
       "-1000000000000000042420637374017961984.000000,12\n"},
      {ResidualForm::systat,
       "BASIC\nSAVE RESFIL1\nINPUT (L3ID$,L2ID$,L1RES_1,L1RES_2,FITVAL_1,FITVAL_2,SIGMA,\n    SIZE, \nRECNUM,\n"
       "),(2*$12,5*#11/,\n 1*#11/,\n 1*#11/,\n)\nRUN\n" +
           cardrows + "~\n"},
      {ResidualForm::sas,
       "libname dir \".\";\ndata dir.resfil1;\ninfile cards;\nINPUT (L3ID L2ID L1RES_1 L1RES_2 FITVAL_1 FITVAL_2 "
       "SIGMA\n"
       "SIZE\nRECNUM\n) ($12. $12. 5*11.5\n#2  1*11.5 \n#3  1*11.0 \n);\ncards;\n" +
           cardrows + ";\n"},
  };
  Workplace workplace;
  const auto made = [](ResidualForm form) {
    run.out.resfiltype = form;
    ResidualFile file;
    openresidualfile(file, 1, "file", 2, 0);
    ResidualRow row;
    std::strcpy(row.id3.text.text, rowids[0]);
    for (int i = 0; i < 2; ++i) {
      std::strcpy(row.id2.text.text, rowids[i]);
      row.values = values[i];
      writeresidualrow(file, row);
    }
    closeresidualfile(file);
    return contents("file");
  };
  for (const auto& test : cases) EXPECT_EQ(made(test.form), test.want) << static_cast<int>(test.form);
  EXPECT_EQ(made(ResidualForm::spss).substr(92, 18), "24 Nov 26 9: 5: 7 ");
  EXPECT_EQ(names(1, Kind::shortname), (Names{"L1RES_1", "L1RES_2", "FITVAL1", "FITVAL2", "SIGMA", "SIZE", "RECNUM"}));
  EXPECT_EQ(names(1, Kind::stata)[3], "FITVAL_2");
  categories(12, false);
  EXPECT_EQ(names(1, Kind::stata)[20], "FITVA_10");  // FITVAL_10 cut to 8 characters is taken
}

// A unit of 100,000 members has a column of six digits.
TEST(ResidualForms, LargeUnits) {
  makewide();
  const struct {
    ResidualForm form;
    const char* format;
  } cases[] = {{ResidualForm::systat, "),($12,#6/ 7*#11/ 7*#11/,\n"},
               {ResidualForm::sas, ") ($12. 6.\n#2  7*11.5 #3 "}};
  Workplace workplace;
  for (const auto& test : cases) {
    run.out.resfiltype = test.form;
    ResidualFile file;
    openresidualfile(file, 3, "file", 1, 100000);
    const Array<double> zeros(file.columns.columns.size());
    ResidualRow row;
    std::strcpy(row.id3.text.text, rowids[0]);
    row.count = 100000;
    row.values = zeros.data();
    writeresidualrow(file, row);
    closeresidualfile(file);
    for (const char* part : {test.format, "\n          A1100000\n"})
      EXPECT_NE(contents("file").find(part), std::string::npos) << part;
  }
}

}  // namespace
}  // namespace kdr
