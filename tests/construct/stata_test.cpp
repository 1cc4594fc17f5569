#include "construct/readers/stata.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "construct/rawbytes.h"
#include "construct/readers/st.h"
#include "core/constants.h"

namespace kdr {
namespace {

const double M = missingcode;

struct Variable {
  std::string name;
  char type;  // b, i, l, f, d, or s for a text
  int width = 0;
};

struct Dta {
  int format;
  std::vector<Variable> variables;
  int numobs;
  std::string data;
  int order = 2;
  bool expansions = false;

  [[nodiscard]] std::string bytes() const {
    const std::size_t n = variables.size();
    const std::size_t namewidth = format == 108 ? 9 : 33;
    const bool letters = format < 111;
    std::string bytes = {static_cast<char>(format), static_cast<char>(order), 1, 0};
    const auto ordered = [&](std::string number) {
      return order == 1 ? std::string(number.rbegin(), number.rend()) : number;
    };
    bytes += ordered(int16bytes(static_cast<int>(n))) + ordered(int32bytes(numobs)) + fixed("a label", 81, '\0') +
             fixed("01 Jan 1997 00:00", 18, '\0');
    for (const Variable& v : variables) {
      static const std::string codes = "bilfd";
      const std::size_t at = codes.find(v.type);
      bytes += static_cast<char>(v.type == 's' ? v.width + (letters ? 127 : 0)
                                 : letters     ? v.type
                                               : 251 + static_cast<int>(at));
    }
    for (const Variable& v : variables) bytes += fixed(v.name + '\0' + "rubbish", namewidth, 'x');
    bytes += std::string(2 * (n + 1) + n * ((format < 114 ? 12 : 49) + namewidth + 81), '\1');
    const auto expansion = [&](int type, const std::string& content) {
      const int length = static_cast<int>(content.size());
      bytes += static_cast<char>(type) + (format == 108 ? int16bytes(length) : int32bytes(length)) + content;
    };
    if (expansions) {
      expansion(1, std::string(300, 'c'));
      expansion(1, "");
      expansion(0, "more");
    }
    expansion(0, "");
    return bytes + data;
  }
};

std::string float32(double value) { return lowbytes(static_cast<float>(value)); }
std::string int8(int value) { return std::string(1, static_cast<char>(value)); }

const Columns columns{"lea", "school", {"b", "i", "l", "f", "d"}};
const std::vector<Variable> all = {{"LEA", 'l'}, {"Text", 's', 5}, {"school", 'd'}, {"b", 'b'},
                                   {"i", 'i'},   {"l", 'l'},       {"f", 'f'},      {"d", 'd'}};

struct Stata : testing::Test {
  Workplace workplace;
};

TEST_F(Stata, Values) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Row {
    int b, i, l;
    double f, d;
  };
  const auto written = [](const Row& row) {
    return int32bytes(1) + fixed("abc", 5, '\0') + lowbytes(2.9) + int8(row.b) + int16bytes(row.i) + int32bytes(row.l) +
           float32(row.f) + lowbytes(row.d);
  };
  const double f = 0.1f;
  const double below = static_cast<double>(1.70e38f);
  const struct {
    Row row;
    std::vector<double> older, newer;
  } cases[] = {
      {{1, -2, 3, 0.1, 0.1}, {1, -2, 3, f, 0.1}, {1, -2, 3, f, 0.1}},
      {{-128, -32768, INT32_MIN, -1.5, -1e300},
       {-128, -32768, -2147483648.0, -1.5, -1e300},
       {-128, -32768, -2147483648.0, -1.5, -1e300}},
      {{127, 32767, 2147483647, 1.71e38, 8.99e307}, {M, M, M, M, M}, {M, M, M, M, M}},
      {{101, 32741, 2147483621, 1.70e38, 8.98e307}, {101, 32741, 2147483621, M, M}, {M, M, M, below, 8.98e307}},
      {{100, 32740, 2147483620, 9.9e37, 9.9e306},
       {100, 32740, 2147483620, static_cast<double>(9.9e37f), 9.9e306},
       {100, 32740, 2147483620, static_cast<double>(9.9e37f), 9.9e306}},
      // the top codes .a and .z of the later releases
      {{102, 32742, 2147483622, 1.7014118e38 * 1.0005, 0x1.001p1023}, {102, 32742, 2147483622, M, M}, {M, M, M, M, M}},
      {{126, 32766, 2147483646, inf, nan}, {126, 32766, 2147483646, M, M}, {M, M, M, M, M}},
  };
  for (const int format : {108, 110, 111, 113, 114, 115})
    for (const bool expansions : {false, true}) {
      Dta dta{format, all, static_cast<int>(std::size(cases)), "", 2, expansions};
      for (const auto& c : cases) dta.data += written(c.row);
      dta.data += "value labels may follow";
      const Records records = readraw("stata", dta.bytes(), columns);
      ASSERT_EQ(records.values.size(), std::size(cases)) << format;
      for (std::size_t k = 0; k < std::size(cases); ++k) {
        EXPECT_EQ(records.values[k], format < 111 ? cases[k].older : cases[k].newer) << format << " " << k;
        EXPECT_EQ(records.id3[k] + " " + records.id2[k], "1 3") << format;  // floor(2.9 + 0.2)
      }
    }
}

TEST_F(Stata, Ids) {
  const std::vector<Variable> variables = {{"empty", 's', 0}, {"a", 's', 12}, {"b", 's', 20}, {"n", 'd'}, {"x", 'b'}};
  const auto one = [](const std::string& a, const std::string& b, double n) {
    return fixed(a, 12, '\0') + fixed(b, 20, '\0') + lowbytes(n) + int8(5);
  };
  const std::string rows = one("Twelve chars", "low Case", 123456789012.0) + one("", "twelve chars", 0x1p1023) +
                           one("a b", std::string("z\0behind the end", 16), 999999999999.0);
  for (const int format : {110, 115}) {
    const Records text = readraw("stata", Dta{format, variables, 3, rows}.bytes(), {"a", "b", {"x"}});
    EXPECT_EQ(text.id3, (std::vector<std::string>{"Twelve chars", "", "a b"}));
    EXPECT_EQ(text.id2, (std::vector<std::string>{"low Case", "twelve chars", "z"}));
    const Records number = readraw("stata", Dta{format, variables, 3, rows}.bytes(), {"n", "x", {}});
    EXPECT_EQ(number.id3[0], "123456789012");
    EXPECT_EQ(std::strtod(number.id3[1].c_str(), nullptr), missingcode);
    EXPECT_EQ(number.id3[2], "999999999999");
    const struct {
      std::string rows;
      Columns columns;
      const char* words;
    } refused[] = {
        {one("a", "thirteen char", 1), {"a", "b", {"x"}}, "Your ID variable is longer than 12 characters.\n"},
        {one("a", "b", 10000000000000.0),
         {"n", "x", {}},
         "ID must be no more than 12 digits long\nIt stands in record 1 of the level-1 file file.\n"},
    };
    for (const auto& c : refused) {
      const ChildEnd outcome = refuseraw("stata", Dta{format, variables, 1, c.rows}.bytes(), c.columns);
      EXPECT_EQ(outcome.code, 100) << c.words;
      EXPECT_EQ(outcome.words, c.words);
    }
  }
}

TEST_F(Stata, Heads) {
  const std::string none = "The level-1 file does not seem to be a Stata file!\n";
  const std::string other =
      !ST_CanRead(14) ? "" : "This file can be read with rawdattype:other and the file type /stata.\n";
  const std::string release = "So sorry, but KDR3 cannot read this version of stata.\n";
  const std::string damaged = "The head of the level-1 Stata file is damaged.\n";
  const std::string platform = "This file seems to have been created on a different platform!\n";
  const Dta good{113, all, 0, ""};
  const std::string head = good.bytes();
  const auto with = [&](auto change) {
    Dta dta = good;
    change(dta);
    return dta.bytes();
  };
  const auto changed = [&](std::size_t at, const std::string& bytes) {
    return std::string(head).replace(at, bytes.size(), bytes);
  };
  const struct {
    const char* what;
    std::string bytes;
    std::string words;
  } cases[] = {
      {"empty", "", none},
      {"one byte", "r", none},
      {"a text", "Hello, these are some data", none},
      {"format 107", changed(0, "\x6b"), none + " file"},
      {"a later release", contents(TESTDATA "/tests/construct/files/sample1-118.dta"), none + other},
      {"a later release, cut short", "<stata_dta><header><release>118</release>", none + " file"},
      {"format 109", changed(0, "\x6d"), release},
      {"format 112", changed(0, "\x70"), release},
      {"format 116", changed(0, "\x74"), release},
      {"format 120", changed(0, "\x78"), release + " file"},
      {"high byte first", with([](Dta& d) { d.order = 1; }), platform + other},
      {"high byte first, format 116", changed(0, "\x74\x01"), release},
      {"variables below 0", changed(4, int16bytes(-1)), damaged},
      {"observations below 0", changed(6, int32bytes(-1)), damaged},
      {"more variables than there are", changed(4, int16bytes(32767)), damaged},
      {"a type that there is not", changed(109, "\xf6"), damaged},
      {"an expansion of less than nothing", head.substr(0, head.size() - 5) + "\1" + int32bytes(-5), damaged},
      {"an expansion longer than the file", head.substr(0, head.size() - 5) + "\1" + int32bytes(0x7fffffff), damaged},
      {"observations without a byte", Dta{113, {{"a", 's', 0}, {"b", 's', 0}}, 2000000000, ""}.bytes(), damaged},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = refuseraw("stata", c.bytes, columns);
    EXPECT_EQ(outcome.code, 1) << c.what;
    EXPECT_EQ(outcome.words.substr(0, c.words.size()), c.words) << c.what;
    EXPECT_NE(outcome.words.find("file", c.words.size()), std::string::npos) << c.what;
  }
  for (std::size_t cut = 2; cut < head.size(); cut += 7)
    ASSERT_EQ(refuseraw("stata", head.substr(0, cut), columns).words.substr(0, damaged.size()), damaged) << cut;
  EXPECT_EQ(refuseraw("stata", head, columns).code, 0);
}

TEST_F(Stata, CutShort) {
  Dta dta{114, {{"lea", 'b'}, {"school", 'b'}, {"x", 'd'}}, 3, ""};
  for (int i = 1; i <= 3; ++i) dta.data += int8(i) + int8(i) + lowbytes(1.0 * i);
  const std::string whole = dta.bytes();
  const struct {
    std::size_t less;
    std::size_t cases;
    const char* words;
  } cuts[] = {
      {0, 3, ""},
      {1, 2,
       "file is cut short or damaged: it breaks off in case 3, which does not count.\n"
       "1 of the 3 cases that it states are missing.\n"},
      {20, 1, "file is cut short or damaged: it ends before case 2.\n2 of the 3 cases that it states are missing.\n"},
  };
  for (const auto& c : cuts) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(readraw("stata", whole.substr(0, whole.size() - c.less), {"lea", "school", {"x"}}).values.size(),
              c.cases);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.words);
  }
  dta.numobs = 2;  // the rest is not looked at
  EXPECT_EQ(readraw("stata", dta.bytes(), {"lea", "school", {"x"}}).values.size(), 2u);
}

// A template of three levels, and all that can be wrong with its blocks.
struct RawTemplate : Stata {
  const std::string text =
      "#KDR3 MDM CREATION TEMPLATE\nmdmtype:0\nrawdattype:stata\nl1fname:one\nl2fname:two\nl3fname:two\n"
      "l1missing:y\ntimeofdeletion:now\nmdmname:made.mdm\n"
      "*begin l1vars\nlevel3id:LEA\nlevel2id:SCHOOL\nX\nLONGNAME\n*end l1vars\n"
      "*begin l2vars\nlevel3id:LEA\nlevel2id:SCHOOL\nX\n*end l2vars\n"
      "*begin l3vars\nlevel3id:LEA\nX\n*end l3vars\n";
  RawTemplate() {
    const std::vector<Variable> variables = {{"lea", 'b'},      {"school", 'b'},    {"x", 'd'},
                                             {"longname", 'b'}, {"textid", 's', 4}, {"textid2", 's', 4}};
    std::string data;
    for (const int id : {1, 2})
      data += int8(id) + int8(1) + lowbytes(id == 1 ? 2.5 : 0x1p1023) + int8(7) + fixed(id == 1 ? "a" : "b", 4, '\0') +
              fixed("c", 4, '\0');
    makefile("one", Dta{113, variables, 2, data}.bytes());
    for (std::size_t at = 2; at < data.size(); at += 19) data.replace(at, 8, lowbytes(1.0));
    makefile("two", Dta{108, variables, 2, data}.bytes());
  }
  static std::string with(std::string made, const std::string& from, const std::string& to) {
    const std::size_t at = made.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return made.replace(at, from.size(), to);
  }
  static ChildEnd read(const std::string& made) {
    makefile("t.mdmt", made);
    std::remove(templatecopy);
    return runchild([] {
      readtemplate("t.mdmt");
      mkmdm();
    });
  }
};

TEST_F(RawTemplate, IsWrittenBack) {
  const struct {
    std::string made, copy;
  } cases[] = {
      {with(with(text, "level3id:LEA", "# a remark\n\nLEVEL3ID: lea"), "LONGNAME", "longnamesaid"), text},
      {with(with(text, "rawdattype:stata", "RAWDATTYPE:Stat"), "l1missing:y", "l1missing:y/SAME"), text},
      {with(text, "mdmname:", "numl1var:7\nl1format:(A3)\nmdmname:"), text},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = read(c.made);
    EXPECT_EQ(outcome.code, 0) << outcome.words;
    EXPECT_EQ(contents(templatecopy), c.copy);
    // X is missing in the second record, which goes, and the unit with it
    EXPECT_NE(outcome.words.find("         X             1       2.50"), std::string::npos) << outcome.words;
  }
}

// The codes .a and .z at every level, in values and in IDs: both readers make the same file, but for its raw data type.
TEST_F(RawTemplate, ExtendedMissingCodes) {
  if (!ST_CanRead(14)) GTEST_SKIP();
  const std::vector<Variable> variables = {{"lea", 'b'}, {"school", 'b'}, {"x", 'd'}, {"longname", 'b'}};
  const double dot = 0x1p1023, z = 0x1.01ap1023;
  const struct {
    int lea, school;
    double x;
    int longname;
  } rows[] = {{1, 1, 2.5, 102}, {2, 1, z, 7},   {3, 1, dot, 127}, {4, 1, 1.5, 100},
              {5, 1, 3, 1},     {6, 127, 4, 1}, {102, 1, 5, 1},   {127, 102, 6, 1}};
  std::string data;
  for (const auto& row : rows) data += int8(row.lea) + int8(row.school) + lowbytes(row.x) + int8(row.longname);
  makefile("one", Dta{113, variables, static_cast<int>(std::size(rows)), data}.bytes());
  makefile("two", contents("one"));
  std::string made[2];
  for (const bool other : {false, true}) {
    std::string recipe = with(text, "timeofdeletion:now", "timeofdeletion:analysis");
    if (other) recipe = with(recipe, "rawdattype:stata", "rawdattype:other");
    for (const std::string name : {"l1fname:one", "l2fname:two", "l3fname:two"})
      if (other) recipe = with(recipe, name, name + " /stata");
    const ChildEnd outcome = read(recipe);
    EXPECT_EQ(outcome.code, 0) << outcome.words;
    EXPECT_NE(outcome.words.find("3 level-1 records have no ID."), std::string::npos) << outcome.words;
    EXPECT_NE(outcome.words.find("3 level-2 records have no ID."), std::string::npos) << outcome.words;
    EXPECT_NE(outcome.words.find("LONGNAME             2"), std::string::npos) << outcome.words;
    made[other] = contents("made.mdm");
    const std::size_t type = made[other].find(lowbytes(other ? -9 : -8));
    ASSERT_NE(type, std::string::npos);
    made[other].replace(type, 4, "type");
  }
  EXPECT_EQ(made[0], made[1]);
}

TEST_F(RawTemplate, Refusals) {
  const std::string noid = "ID specification must immediately follow *begin line!\n";
  const std::string nofile = "Must specify raw data type and input file name before variable names!\n";
  const std::string unlike = "ID's must be both be character or both numeric!\n";
  const struct {
    std::string made;
    std::string words;
  } cases[] = {
      {with(text, "level3id:LEA\n", ""), noid},
      {with(text, "level2id:SCHOOL\n", ""), noid},
      {with(text, "*begin l3vars\nlevel3id:LEA\n", "*begin l3vars\n"), noid},
      {with(text, "level3id:LEA", "level3id:LEE"), "id variable not found!\n"},
      {with(text, "level2id:SCHOOL", "level2id:"), "id variable not found!\n"},
      {with(text, "level2id:SCHOOL", "level2id:TEXTID"), unlike},
      {with(text, "*begin l2vars\nlevel3id:LEA", "*begin l2vars\nlevel3id:TEXTID"), unlike},
      {with(text, "*begin l3vars\nlevel3id:LEA", "*begin l3vars\nlevel3id:TEXTID"), unlike},
      {with(text, "level2id:SCHOOL", "level2id:LEA"), "Variable LEA of the level-1 file is chosen more than once!\n"},
      {with(text, "LONGNAME", "X"), "Variable X of the level-1 file is chosen more than once!\n"},
      {with(text, "LONGNAME", "SCHOOL"), "Variable SCHOOL of the level-1 file is chosen more than once!\n"},
      {with(text, "LONGNAME", "THIRTEENCHARS"), "Variable name THIRTEENCHARS is too long!\n"},
      {with(text, "LONGNAME", "Y"), "Variable Y not found!\n"},
      {with(text, "X\nLONGNAME", "LONGNAME\nX"),
       "The level-1 variables must be listed in the order of the raw file: X comes too late!\n"},
      {with(text, "LONGNAME", "TEXTID"),
       "mdm variables must be numeric!\nVariable TEXTID of the level-1 file is a character variable.\n"},
      {with(text, "X\n*end l3vars\n", "X\n"), "Did not find *END L3VARS!\n"},
      {with(text, "l3fname:two\n", ""), nofile},
      {with(text, "rawdattype:stata\nl1fname:one\n", "l1fname:one\nrawdattype:stata\n"),
       "Must specify raw data type before input file name!\n"},
      {with(text, "mdmname", "rawdattype:spss\nmdmname"), nofile},
      {text.substr(0, text.find("*begin l2vars")), "The template names no level-2 variables!\n"},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = read(c.made);
    EXPECT_EQ(outcome.code, 100) << c.words;
    EXPECT_EQ(outcome.words, c.words);
  }
}

}  // namespace
}  // namespace kdr
