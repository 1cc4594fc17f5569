#include "construct/readers/other.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <sstream>

#include "construct/onefile.h"
#include "construct/rawtest.h"
#include "construct/readers/plainnumber.h"
#include "construct/readers/st.h"
#include "construct/spellings.h"
#include "construct/workbook.h"
#include "construct/workbook97.h"
#include "core/constants.h"

namespace kdr {
namespace {

const std::string files = std::string(TESTDATA) + "/tests/construct/files/";

TEST(OtherTypes, Numbers) {
  EXPECT_EQ(stformat("excel"), 7);
  EXPECT_EQ(stformat("ACCESS"), 23);
  EXPECT_EQ(stformat("123"), 0);
  EXPECT_EQ(stformat("statistica"), 30);
  EXPECT_EQ(stformat("Sybase"), 45);
  EXPECT_EQ(stformat("rsybase"), 25);
  EXPECT_EQ(stformat("xls"), -1);
  EXPECT_EQ(stformat(""), -1);
}

TEST(OtherTypes, Split) {
  const struct {
    const char* value;
    const char* path;
    const char* word;
  } cases[] = {
      {"data.xls /excel", "data.xls", "excel"},
      {"data.xls/EXCEL ", "data.xls", "EXCEL"},
      {"/a b/c.dta  / stata", "/a b/c.dta", "stata"},
      {"c.dta /stata/se", "c.dta", "stata/se"},
      {"/home/c.dta/stata/SE", "/home/c.dta", "stata/SE"},
      {"/home/data.csv", "/home", "data.csv"},
      {"/delim", "", "delim"},
  };
  for (const auto& c : cases) {
    std::string path;
    std::string word;
    splitfiletype(c.value, path, word);
    EXPECT_EQ(path, c.path) << c.value;
    EXPECT_EQ(word, c.word) << c.value;
  }
}

Recipe sample(const std::string& file, const std::string& type, bool texts) {
  Recipe recipe{"other", {}};
  for (int i = 0; i < 3; ++i) {
    const std::size_t at = file.find('#');
    recipe.file[i] = files + file.substr(0, at) + std::to_string(i + 1) + file.substr(at + 1) + type;
  }
  recipe.id3 = texts ? "TLEA" : "LEA";
  recipe.id2 = texts ? "TSCHOOL" : "SCHOOL";
  recipe.names[0] = "SCORE\nFEMALE\nAGE\nGCSE\nGCSECNT\n";
  recipe.names[1] = "SCHGCSE\nSCHSIZE\n";
  recipe.names[2] = "LEAGCSE\nLEANSCH\n";
  return recipe;
}

// The first words in which two texts differ, numbers by more than a relative tolerance; empty when they agree.
std::string firstdifference(const std::string& one, const std::string& other, double tolerance) {
  std::istringstream a(one);
  std::istringstream b(other);
  std::string left;
  std::string right;
  for (;;) {
    const bool more = static_cast<bool>(a >> left);
    if (more != static_cast<bool>(b >> right)) return "one text is longer";
    if (!more) return "";
    const double x = std::strtod(left.c_str(), nullptr);
    const double y = std::strtod(right.c_str(), nullptr);
    if (left != right && !(x != 0.0 && std::fabs(x - y) <= tolerance * std::fabs(y))) return left + " " + right;
  }
}

// One sample in fixed columns and in every other format. tests/reference/otherfiles.py tells how they were made.
TEST(OtherFiles, HoldTheSameData) {
  Workplace workplace;
  std::string text = std::string(templatehead) + "\nrawdattype:ascii\nnuml1var:5\nnuml2var:2\nnuml3var:2\n";
  text +=
      "l1format:(2A12,4F8,F10)\nl2format:(2A12,F10,F8)\nl3format:(A12,F10,F8)\nmdmname:made.mdm\n"
      "l1missing:y/same\n-77\ntimeofdeletion:analysis\n";
  for (int i = 1; i < 4; ++i) {
    const std::string level = std::to_string(i);
    text += "l" + level + "fname:" + files + "sample" + level + ".dat\n*begin l" + level + "vars\n" +
            sample("#", "", true).names[i - 1] + "*end l" + level + "vars\n";
  }
  ASSERT_EQ(makemdm(text).words, "");
  const std::string plain = contents("shown");
  ASSERT_NE(plain.find(" ."), std::string::npos);
  std::string numbered = plain;
  for (const std::string word : {"AREA", "SCHOOL00000", "SCHOOL0000"})
    for (std::size_t at = 0; (at = numbered.find(word, at)) != std::string::npos;) numbered.erase(at, word.size());
  const struct {
    const char* file;
    const char* type;
  } cases[] = {
      {"sample#.csv", " /delim"},     {"sample#.txt", "/Delim"},         {"sample#-semicolon.csv", " /delim"},
      {"sample#.xls", " /excel"},     {"sample#.xlsx", " /excel"},       {"sample#-r.xlsx", " /excel"},
      {"sample#-117.dta", " /stata"}, {"sample#-118.dta", " /stata/se"}, {"sample#.dbf", " /xbase"},
      {"sample#.dta", " /stata"},     {"sample#.dta", " /stata/se"},     {"sample#.sav", " /spss"},
      {"sample#.sav", " /spss-hl"},   {"sample#.por", " /spssp"},        {"sample#.xpt", " /sasx"},
      {"sample#-8.xpt", " /sasx"},    {"sample#.sas7bdat", " /sas-win"}, {"sample#.sas7bdat", " /sas-sun"},
  };
  for (const auto& c : cases)
    for (const bool texts : {false, true}) {
      const Recipe recipe = sample(c.file, c.type, texts);
      const ChildEnd outcome = makemdm(templateof(recipe));
      EXPECT_EQ(outcome.code, 0) << c.file;
      EXPECT_EQ(outcome.words, "") << c.file;
      // Portable files hold numbers to the base 30, not doubles.
      const double tolerance = std::string(c.type) == " /spssp" ? 1e-15 : 0.0;
      EXPECT_EQ(firstdifference(contents("shown"), texts ? plain : numbered, tolerance), "") << c.file << c.type;
      const std::string copy = contents(templatecopy);
      EXPECT_NE(copy.find(".xls /"), c.file == std::string("sample#.xls") ? std::string::npos : 0U);
      const std::string first = contents("made.mdm");
      EXPECT_EQ(makemdm(copy).code, 0) << c.file;
      EXPECT_EQ(contents("made.mdm"), first) << c.file;
    }
  // The transport files through the reader of their own.
  for (const bool texts : {false, true}) {
    Recipe recipe = sample("sample#.xpt", "", texts);
    recipe.kind = "sas";
    EXPECT_EQ(makemdm(templateof(recipe)).words, "");
    EXPECT_EQ(contents("shown"), texts ? plain : numbered);
  }
}

// The short ways to a number give the double that the library's scan gives.
TEST(PlainNumber, IsTheNearestDouble) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 200000; ++i) {
    std::string text = std::to_string(random() >> (random() % 64));
    if (random() % 2 == 0) text.insert(random() % (text.size() + 1), ".");
    if (random() % 3 == 0) text.insert(0, random() % 2 == 0 ? "-" : "+");
    const char* end = text.data() + text.size();
    const double expected = std::strtod(text.c_str(), nullptr);
    double forwards = 0.0;
    double backwards = 0.0;
    std::size_t before = 1;
    const bool simple = std::count_if(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) <= 15;
    ASSERT_EQ(startswithnumber(text.data(), end, forwards), simple ? end : nullptr) << text;
    ASSERT_EQ(endsinnumber(text.data(), text.size(), backwards, before), simple) << text;
    if (!simple) continue;
    ASSERT_EQ(before, 0U) << text;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(forwards), std::bit_cast<std::uint64_t>(expected)) << text;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(backwards), std::bit_cast<std::uint64_t>(expected)) << text;
  }
}

// Each format cut short at level 1: words, and the records that are there.
TEST(OtherFiles, CutShort) {
  Workplace workplace;
  const struct {
    const char* file;
    const char* type;
    std::size_t kept;
    const char* words;  // of data that are read up to the cut; null for a file that is refused
  } cases[] = {
      {"sample1.dbf", "xbase", 4000, "its head tells 60 records, but 45 are there"},
      {"sample1.csv", "delim", 1500, "no line end follows its last line, which counts all the same"},
      {"sample1.por", "spssp", 2000, "it breaks off behind record 28 (Error in SCORE (row=29))"},
      {"sample1.xpt", "sasx", 6200, "it ends in the middle of record 58, which does not count"},
      {"sample1.xpt", "sasx", 2000 + 3 * 73, "it ends behind record 3 without filling a card of 80 bytes"},
      {"foreign8-1.dta", "stata", 15000, "it breaks off behind record 245 of 300 (Unable to read from file)"},
      {"sample1.dta", "stata", 7500, nullptr},
      {"sample1.sas7bdat", "sas-win", 12000, nullptr},
      {"sample1.xls", "excel", 9000, nullptr},
      {"sample1.xlsx", "excel", 7000, nullptr},
      {"sample1.sav", "spss", 1800, nullptr},
      {"sample1.dbf", "xbase", 100, nullptr},
      {"sample1.dta", "stata", 300, nullptr},
      {"sample1.sav", "spss", 100, nullptr},
      {"sample1.por", "spssp", 300, nullptr},
      {"sample1.sas7bdat", "sas-win", 0, nullptr},
      {"sample1.xls", "excel", 0, nullptr},
      {"sample1.xlsx", "excel", 2, nullptr},
      {"sample1.xpt", "sasx", 500, nullptr},
  };
  for (const auto& c : cases) {
    makefile("cut", contents(files + c.file).substr(0, c.kept));
    Recipe recipe = sample("sample#.csv", " /delim", false);
    recipe.file[0] = std::string("cut /") + c.type;
    const ChildEnd outcome = makemdm(templateof(recipe));
    EXPECT_EQ(outcome.code, c.words == nullptr ? 1 : 0) << c.file << c.kept << outcome.words;
    const std::string begins = c.words != nullptr ? std::string("cut may be cut short: ") + c.words
                                                  : std::string("cut cannot be read as ") + c.type + ": ";
    EXPECT_EQ(outcome.words.substr(0, begins.size()), begins) << c.file << " " << c.kept << outcome.words;
  }
}

// All that the layer tells of a file.
std::string described(const char* path, int format) {
  const ChildEnd outcome = runchild([=] {
    StHandle handle = ST_OpenEnvironment();
    std::printf("%d", ST_OpenInputFile(handle, format, path));
    const int count = ST_ReadDict(handle);
    for (int v = 0; v < count; ++v)
      std::printf(" %s:%d:%d", ST_GetVarName(handle, v), ST_GetVarType(handle, v), ST_GetVarPrintWidth(handle, v));
    ST_SelectAllVars(handle);
    ST_InitReadOnly(handle);
    while (count > 0 && ST_ReadRecord(handle) == 0) {
      std::printf("\n");
      for (int v = 0; v < count; ++v) {
        StValue value{};
        int second = 1;
        if (ST_GetVarData(handle, v, &value, &second) == 1) {
          std::printf("[.]");
        } else if (ST_GetVarType(handle, v) == 1) {
          std::printf("[%.15g]", *value.number);
        } else {
          std::printf("[%s]", value.text->c_str());
        }
      }
    }
    std::printf("\n%s", ST_Trouble(handle));
    if (*ST_Remark(handle) != '\0') std::printf("\n%s", ST_Remark(handle));
    ST_CloseFiles(handle);
  });
  EXPECT_EQ(outcome.code, 0);
  return outcome.words;
}

// What the head of a file can tell, through the library for statistics packages.
TEST(StatisticsFiles, Heads) {
  Workplace workplace;
  const std::string names =
      "0 LEA:1:%1 SCHOOL:1:%1 TLEA:2:5 TSCHOOL:2:12 SCORE:1:%1 FEMALE:1:%1 AGE:1:%2 GCSE:1:%2 GCSECNT:1:%2\n";
  const auto widths = [&](const std::string& whole, const std::string& real) {
    std::string text = names;
    for (const auto& [mark, width] : {std::pair("%1", whole), std::pair("%2", real)})
      for (std::size_t at = 0; (at = text.find(mark)) != std::string::npos;) text.replace(at, 2, width);
    return text;
  };
  const auto head = [](const std::string& text) { return text.substr(0, text.find('\n') + 1); };
  EXPECT_EQ(head(described((files + "sample1.sav").c_str(), 22)), widths("8", "8"));
  EXPECT_EQ(head(described((files + "sample1.dta").c_str(), 14)), widths("3", "7"));
  EXPECT_EQ(head(described((files + "sample1.por").c_str(), 13)), widths("0", "0"));

  const std::string dta = contents(files + "foreign8-1.dta");
  const auto with = [&](std::size_t at, const std::string& bytes) {
    return std::string(dta).replace(at, bytes.size(), bytes);
  };
  const struct {
    std::string bytes;
    const char* words;
  } cases[] = {
      {with(4, "\xFF\x7F"), "0\nits head tells more variables than it can hold"},
      {with(6, "\xFF\xFF\xFF\xFF"), "0\nits head tells fewer than no records"},
      {std::string("\x72\2\1\0", 4) + std::string(112, '\0'), "0\nit holds no variables"},
  };
  for (const auto& c : cases) {
    makefile("1", c.bytes);
    const std::string shown = described("1", 14);
    EXPECT_EQ(shown.substr(0, 1) + shown.substr(shown.find('\n')), c.words);
  }

  const std::string sav = contents(files + "savnone-1.sav");
  makefile("1", sav.substr(0, sav.size() - 1000));
  const std::string shown = described("1", 22);
  EXPECT_EQ(shown.substr(shown.rfind('\n')),
            "\nit breaks off behind record 292 of 300 (File did not contain the expected number of rows)");

  // A transport file with another data set behind the first one.
  const std::string xpt = contents(files + "sample1.xpt");
  makefile("1", xpt + xpt.substr(xpt.find("HEADER RECORD*******MEMBER")));
  EXPECT_EQ(described("1", 12), described((files + "sample1.xpt").c_str(), 12) +
                                    "\nit holds more than one data set, and the first one was read");
}

// Sheets with a line of names and records. A cell: its attributes, and what it holds.
std::string cell(const std::string& attributes, const std::string& content) {
  return "<c " + attributes + ">" + content + "</c>";
}
std::string number(const std::string& value, const std::string& attributes = "") {
  return cell(attributes, "<v>" + value + "</v>");
}
std::string row(const std::string& cells, const std::string& attributes = "") {
  return "<row " + attributes + ">" + cells + "</row>";
}
std::string names(const std::string& letters) {
  std::string cells;
  for (const char letter : letters) cells += cell("t='inlineStr'", std::string("<is><t>") + letter + "</t></is>");
  return row(cells);
}

// The library that reads these files hides a zero byte and what stands behind it.
TEST(StatisticsFiles, ZeroBytes) {
  Workplace workplace;
  const std::string ends = "An ID has a zero byte in it.\n";
  const std::string slot = "1       1       a text", damaged("1       1\0x     a text", 22);
  struct Case {
    const char* file;
    std::string sought, instead, words;
  };
  const Case cases[] = {{"sample1.sas7bdat", "AREA1", std::string("AR\0A1", 5), ends},
                        {"sample1.xpt", "AREA1", std::string("AR\0A1", 5), ends},
                        {"savnone-1.sav", slot, damaged, ends},
                        {"savbyte-1.sav", slot, damaged, ends},
                        {"sample1.por", "AREA1", std::string("AR\0A1", 5), "is zero, and such a file is text.\n"}};
  for (const Case& c : cases) {
    std::string bytes = contents(files + c.file);
    bytes.replace(bytes.find(c.sought), c.sought.size(), c.instead);
    makefile(c.file, bytes);
    const bool slots = c.sought == slot;
    const ChildEnd end = makemdmof([&] {
      run.files.mdmfile = "made.mdm";
      takeonefile({c.file, slots ? "LEAT" : "TLEA", slots ? "SCHOOLT" : "TSCHOOL", {}, {}});
    });
    EXPECT_NE(end.words.find(c.words), std::string::npos) << c.file << ": " << end.words;
    EXPECT_NE(end.code, 0) << c.file;
  }
}

struct Delimited : testing::Test {
  Workplace workplace;
  const std::string one = "id3,id2,x,y,name\na,1,1,2,\"x, \"\"y\"\"\"\na,1,NA,3,\nb,2,,-1.5e3,NA\n";
  Recipe recipe{"other", {"1.csv /delim", "2.csv /delim", "3.csv /delim"}, "ID3", "ID2", {"x\nY\n", "w\n", "z\n"}};
  void SetUp() override {
    makefile("1.csv", one);
    makefile("2.csv", "ID3,ID2,W\na,1,7\nb,2,8\n");
    makefile("3.csv", "ID3;Z\na;0.1\nb;+2\n");
    recipe.id2 = "id2";
  }
  static std::string told(const std::string& name) {
    return "Variable " + name +
           " cannot be told from another one of the level-1 file. Give its whole name, or rename one of them!\n";
  }
  static std::string described(const std::string& level1) {
    makefile("1.csv", level1);
    return kdr::described("1.csv", 18);
  }
};

TEST_F(Delimited, Tables) {
  const std::string large(1 << 21, 'x');
  const struct {
    std::string text;
    std::string shown;
  } cases[] = {
      {one, "0 id3:2:1 id2:1:1 x:1:2 y:1:6 name:2:6\n[a][1][1][2][x, \"y\"]\n[a][1][.][3][]\n[b][2][.][-1500][NA]\n"},
      {"\xEF\xBB\xBF\"a b\";c\r\n1;x\r\n\r\n 2 ;\"y\nz\"\r\n",
       "0 a b:1:1 c:2:3\n[1][x]\n[2][y\nz]\n\nfields that hold line ends: 1, the first one in line 4"},
      {"a\tb\n1\t\n\t2", "0 a:1:1 b:1:1\n[1][.]\n[.][2]\nno line end follows its last line, which counts all the same"},
      {"a,b\r1,2\r", "0 a:1:1 b:1:1\n[1][2]\n"},
      {"\"a,b,c\";d\n1;2\n", "0 a,b,c:1:1 d:1:1\n[1][2]\n"},
      {"a\nthirteenchars\n", "0 a:2:13\n[thirteenchars]\n"},
      {"a,b\nNA,NA\nNaN,x\n.,.\n#N/A,\n3,TRUE\n", "0 a:1:4 b:2:4\n[.][NA]\n[.][x]\n[.][.]\n[.][]\n[3][TRUE]\n"},
      {"a,b\nTRUE,True\nFALSE,false\n2,NA\n", "0 a:1:5 b:1:5\n[1][1]\n[0][0]\n[2][.]\n"},
      {"sep=|\r\na|b,c\r\n1|2\r\n", "0 a:1:1 b,c:1:1\n[1][2]\n"},
      {"\xEF\xBB\xBFSEP=;\na;b\n1,5;2\n3\n", "0\nline 4 has 1 fields, the header line has 2"},
      {"a,b\n", "0 a:1:0 b:1:0\n"},
      {"a,b\n1,2\n3", "0 a:1:1 b:1:1\n[1][2]\nit ends in the middle of line 3, which does not count"},
      {"a,b\n1,2\n3,\"4\n5,6\n", "0\nline 3, column 3: a quote opens a field that never ends"},
      {"a,b\n1,\"2\n\"\n\"3\n\",\"4\n", "0\nline 5, column 3: a quote opens a field that never ends"},
      {"a,b\n1,\"2\"3\n4,5\n",
       "0\nline 2, column 5: a quote closes the field that begins in line 2, column 3, and neither the delimiter nor a "
       "line end follows it"},
      {"a,b\n1, \"2\" \n4,5'10\"\n", "0 a:1:1 b:2:5\n[1][2]\n[4][5'10\"]\n"},
      {"a,b\n1, \"2,3\"\n", "0\nline 2, column 4: blanks stand before the quote that opens the field"},
      {"\n \t\t\t\na;b\n1;2\n", "0 a:1:1 b:1:1\n[1][2]\n"},
      {"\xFF\xFE" + std::string("a\0", 2), "0\nits characters have two bytes each (UTF-16); save it as UTF-8"},
      {std::string("a\0,\0", 4), "0\nits characters have two bytes each (UTF-16); save it as UTF-8"},
      {std::string("\xFF\xFE\0\0a\0\0\0", 8), "0\nits characters have four bytes each (UTF-32); save it as UTF-8"},
      {std::string("\0\0\xFE\xFF\0\0\0a", 8), "0\nits characters have four bytes each (UTF-32); save it as UTF-8"},
      {std::string("a\0\0\0", 4), "0\nits characters have four bytes each (UTF-32); save it as UTF-8"},
      {std::string("\0a", 2), "0\nits characters have two bytes each (UTF-16); save it as UTF-8"},
      // Decimal commas: in the whole file or not at all.
      {"a;b;c\n1,5;2;-,25\n;3;1,5e2\n", "0 a:1:3 b:1:1 c:1:5\n[1.5][2][-0.25]\n[.][3][150]\n"},
      {"a\tb\n1,5\tx\n", "0 a:1:3 b:2:1\n[1.5][x]\n"},
      {"a;b;c\n1,5;1.234;7\n", "0 a:1:3 b:2:5 c:1:1\n[1.5][1.234][7]\n"},
      {"a;b\n1,5;1.5\n1.5;2.5\n", "0 a:2:3 b:1:3\n[1,5][1.5]\n[1.5][2.5]\n"},
      {"a;b\n1.234,5;1.5\n", "0 a:2:7 b:1:3\n[1.234,5][1.5]\n"},
      {"a;b\n1,234,567;1.5\n", "0 a:2:9 b:1:3\n[1,234,567][1.5]\n"},
      {"a,b\n\"1,5\",1.5\n", "0 a:2:3 b:1:3\n[1,5][1.5]\n"},
      {"a,b\n1,2\n3\n", "0\nline 3 has 1 fields, the header line has 2"},
      {"a,b\n1,2,3\n", "0\nline 2 has 3 fields, the header line has 2"},
      {"", "0\nit has no header line"},
      {"\n\n", "0\nit has no header line"},
      {"\"" + large + "\"\n1\n", "0\nline 1, column 1: the field is longer than any that makes sense"},
      {"a\n\"" + large + "\"\n", "0\nline 2, column 1: the field is longer than any that makes sense"},
  };
  for (const auto& c : cases) EXPECT_EQ(described(c.text), c.shown) << c.text.substr(0, 80);
}

// A line without quotes takes a shorter way than one with them.
TEST_F(Delimited, QuotesChangeNothing) {
  std::vector<std::string> fields = {"", " 7 ", "\t8.25 \t", "1 2", "a\rb", " \t"};
  std::istringstream words(
      "1 -2.5 +.5 5. -0.0 123456789012345 1234567890123456 0.1234567890123456789 12345.67 1e-3 1e-400 NA "
      "00000000000000000000.3 +-3 - . 1.2.3 1e999");
  for (std::string word; words >> word;) fields.push_back(word);
  for (const std::string& field : fields)
    for (const std::string delimiter : {",", ";", "\t"})
      for (const std::string ending : {"\n", "\r\n"}) {
        if (delimiter == "\t" && field.find('\t') != std::string::npos) continue;
        const std::string head = "a" + delimiter + "b" + delimiter + "c" + ending + ending;
        const std::string row = field + delimiter + field + delimiter;
        const std::string blank = delimiter == "\t" ? "  " : " \t";
        EXPECT_EQ(described(head + row + "x" + ending + blank + ending),
                  described(head + row + "\"x\"" + ending + blank + ending))
            << field << delimiter;
      }
}

TEST_F(Delimited, NumberSpellings) {
  std::string text = "a\n";
  for (const Spelling& number : spellings(63)) text += number.text + "\n";
  makefile("1.csv", text);
  StHandle handle = ST_OpenEnvironment();
  ASSERT_EQ(ST_OpenInputFile(handle, 18, "1.csv") + ST_ReadDict(handle), 1);
  ASSERT_EQ(ST_GetVarType(handle, 0), 1) << ST_WhyText(handle, 0);
  ST_SelectAllVars(handle);
  StValue value{};
  int second = 0;
  for (const Spelling& number : spellings(63)) {
    ASSERT_EQ(ST_ReadRecord(handle) + ST_GetVarData(handle, 0, &value, &second), 0);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(*value.number), std::bit_cast<std::uint64_t>(number.value)) << number.text;
  }
  ST_CloseFiles(handle);
  for (const char* word : notnumbers)
    EXPECT_EQ(described(std::string("a;b\n1,5;1\n") + "\"" + word + "\";1\n").substr(0, 5),
              word == std::string("12,50") ? "0 a:1" : "0 a:2")
        << word;
}

TEST_F(Delimited, NumericIds) {
  makefile("1.csv", "ID3,id2,X,Y\n1,1.8,1,2\n999999999999,123456789012,3,4\n");
  makefile("2.csv", "ID3,id2,W\n1,2,7\n999999999999,123456789012,8\n");
  makefile("3.csv", "ID3,Z\n,5\nNA,6\n1,7\n999999999999,8\n");  // rows without an ID go
  EXPECT_EQ(makemdm(templateof(recipe)).code, 0);
  EXPECT_EQ(contents("shown"),
            "INTRCPT1\nX\nY\nINTRCPT2\nW\nINTRCPT3\nZ\n1 0x1.cp+2\n999999999999 0x1p+3\n"
            "1 2 0x1.cp+2\n 0x1p+0 0x1p+1\n999999999999 123456789012 0x1p+3\n 0x1.8p+1 0x1p+2\n");
  // Rows without an ID, wherever they stand, are passed over and counted.
  makefile("1.csv", "ID3,id2,X,Y\n1,2,1,2\n1,NA,9,9\n999999999999,123456789012,3,4\n,,9,9\n,1,9,9\n");
  makefile("2.csv", "ID3,id2,W\n,7,7\n1,2,7\n999999999999,123456789012,8\n");
  const std::string shown = contents("shown");
  EXPECT_EQ(makemdm(templateof(recipe)).words,
            "2 level-3 records have no ID. They were passed over.\n"
            "3 level-1 records have no ID. They were passed over.\n"
            "1 level-2 records have no ID. They were passed over.\n" +
                extrawords);
  EXPECT_EQ(contents("shown"), shown);
  makefile("1.csv", "ID3;id2;X;Y\n1;2;2.5;3,5\n");
  EXPECT_EQ(
      makemdm(templateof(recipe)).words,
      "mdm variables must be numeric!\nVariable X of the level-1 file is a character variable: it has points where "
      "the file has decimal commas.\n");
  makefile("1.csv", "ID3,id2,Y,X\n1,2,5,5\n1,2,5,n.a.\n");
  EXPECT_EQ(makemdm(templateof(recipe)).words,
            "mdm variables must be numeric!\nVariable X of the level-1 file is a character variable: line 3 holds "
            "\"n.a.\".\n");
  // Digits are texts where the other ID is one; NA is an ID too.
  makefile("1.csv", "ID3,id2,X,Y\na,01,1,2\nNA,1,3,4\n");
  makefile("2.csv", "ID3,id2,W\nA,01,7\nNA,1,8\n");
  makefile("3.csv", "ID3,Z\nA,7\nNA,8\n");
  EXPECT_EQ(makemdm(templateof(recipe)).words, "");
  EXPECT_TRUE(contents("shown").ends_with("A 01 0x1.cp+2\n 0x1p+0 0x1p+1\nNA 1 0x1p+3\n 0x1.8p+1 0x1p+2\n"));
  makefile("1.csv", "ID3,id2,X,Y\nthirteen char,s1,1,2\n");
  EXPECT_EQ(makemdm(templateof(recipe)).words,
            "Your ID variable is longer than 12 characters.\nIt stands in record 1 of the level-1 file 1.csv.\n");
}

// A variable is told by its whole name, or by its first 8 characters where that is enough; names in the MDM file
// have 8.
TEST_F(Delimited, Names) {
  const std::string a = "\xC3\xA4";
  const std::string twelve = a + a + a + a + a + a + "sixmor";
  makefile("1.csv", "id3,id2,mathscore_1,mathscore_2,a name far too long for a table,mathscore_9x," + twelve +
                        ",Case,CASE\n" + "a,p,1,2,3,4,5,6,7\n");
  makefile("2.csv", "id3,id2,w\na,p,5\n");
  makefile("3.csv", "id3,z\na,6\n");
  const struct {
    std::string names;
    std::string words;
    std::string record;
  } cases[] = {
      {"mathscore_1\n", "", "0x1p+0"},
      {"MATHSCORE_2\n", "", "0x1p+1"},
      {"a name far too long for a table\n", "", "0x1.8p+1"},
      {"a name f\n", "", "0x1.8p+1"},
      {"mathscore_9\n", "", "0x1p+2"},
      {twelve + "\n", "", "0x1.4p+2"},
      {a + a + a + a + "\n", "", "0x1.4p+2"},
      {"CASE\n", "", "0x1.cp+2"},
      {"Case\n", "", "0x1.8p+2"},
      {"mathscore_3\n", "Variable mathscore_3 not found!\n", ""},
      {"mathscore\n", told("mathscore"), ""},
      {"MATHSCOR\n", told("MATHSCOR"), ""},
      {"case\n", told("case"), ""},
      {"thirteenchars\n", "Variable name thirteenchars is too long!\n", ""},
      {"mathscore_1\nmathscore_2\n",
       "Two variables of the level-1 file 1.csv would have the name MATHSCOR: names count by their first 8 "
       "characters!\n",
       ""},
  };
  for (const auto& c : cases) {
    recipe.names[0] = c.names;
    const ChildEnd outcome = makemdm(templateof(recipe));
    EXPECT_EQ(outcome.words, c.words);
    EXPECT_EQ(outcome.code, c.words.empty() ? 0 : 100) << c.names;
    const std::string shown = contents("shown");
    EXPECT_TRUE(shown.ends_with(c.record.empty() ? "" : " " + c.record + "\n")) << c.names << shown;
    if (!c.words.empty()) continue;
    EXPECT_EQ(makemdm(contents(templatecopy)).code, 0) << c.names;
    EXPECT_EQ(contents("shown"), shown);
  }
}

TEST_F(Delimited, Refusals) {
  const auto file = [this](const std::string& name) {
    Recipe changed = recipe;
    changed.file[0] = name;
    return templateof(changed);
  };
  makeworkbook(
      "unlike.xlsx",
      {row(cell("t='str'", "<v>id3</v>") + cell("t='str'", "<v>z</v>")) + row(number("1") + number("2")), {}, {}, {}});
  Recipe unlike = recipe;  // texts in delimited text, numbers in a workbook
  unlike.file[2] = "unlike.xlsx /excel";
  makefile("ids.csv", "id3,id2,x,y\n999999999999,1,2,3\n9999999999999,1,2,3\n");
  makefile("two.csv", "id3,id2,w\n999999999999,1,2\n");
  makefile("three.csv", "id3,z\n999999999999,1\n");
  makefile("bad.csv", "id3,id2\n1\n");
  makeworkbook("formula.xlsx", {names("a") + row(cell("", "<f>1</f>")), {}, {}, {}});
  const Recipe ids{
      "other", {"ids.csv /delim", "two.csv /delim", "three.csv /delim"}, "id3", "id2", {"x\ny\n", "w\n", "z\n"}};
  const struct {
    std::string text;
    int code;
    std::string words;
  } cases[] = {
      {file("1.csv"), 100, "\nMust specify Stat/Transfer file type!\n" + othertypes()},
      {file("1.csv /"), 100, "\nMust specify Stat/Transfer file type!\n" + othertypes()},
      {file("1.csv /csv"), 100, "\nIncorrect Stat/Transfer file type!\n" + othertypes()},
      {file("1.csv /gauss"), 100,
       "\nKDR3 has no library for files of type gauss (Gauss). The types that it reads are sas-win, excel, spss, "
       "delim, "
       "xbase, sas-sun, sas-linux, sasx, spss-hl, spssp, stata, stata/se.\n"},
      {file("none.csv /delim"), 100, "\nnone.csv does not exist!\n"},
      {file(". /delim"), 100, "\n. cannot be opened for reading!\n"},
      {file("bad.csv /delim"), 1, "bad.csv cannot be read as delim: line 2 has 1 fields, the header line has 2.\n"},
      {file("1.csv /excel"), 1, "1.csv cannot be read as excel: it is no undamaged workbook of Excel.\n"},
      {file("formula.xlsx /excel"), 1,
       "formula.xlsx cannot be read as excel: the formula in A2 has no stored result; save it from a spreadsheet "
       "program.\n"},
      {templateof(unlike), 100, "ID's must be both be character or both numeric!\n"},
      {templateof(ids), 100,
       "ID must be no more than 12 digits long\nIt stands in record 2 of the level-1 file ids.csv.\n"},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = makemdm(c.text);
    EXPECT_EQ(outcome.code, c.code) << c.words;
    EXPECT_EQ(outcome.words, c.words);
  }
  StHandle handle = ST_OpenEnvironment();
  EXPECT_EQ(ST_OpenInputFile(handle, 18, "1.csv"), 0);
  EXPECT_EQ(ST_OpenInputFile(handle, 18, "1.csv"), -3);
  ST_CloseFiles(handle);
}

TEST(Workbooks, Cells) {
  Workplace workplace;
  const std::string formats =
      "<numFmts><numFmt numFmtId='164' formatCode='yyyy\\-mm\\-dd'/><numFmt numFmtId='165' "
      "formatCode='0.0&quot;days&quot;;[Red]d'/><numFmt numFmtId='166' formatCode='[h]:mm'/><numFmt numFmtId='167' "
      "formatCode='mmm'/></numFmts><cellStyleXfs><xf numFmtId='14'/></cellStyleXfs><cellXfs><xf numFmtId='0'/><xf "
      "numFmtId='164'/><xf numFmtId='165'/><xf numFmtId='166'/><xf numFmtId='167'/><xf numFmtId='22'/><xf "
      "numFmtId='14'/></cellXfs>";
  const std::string texts =
      "<si><t>one</t></si><si><r><t>ri</t></r><r><t>ch</t></r><rPh><t>no</t></rPh></si><si/>"
      "<si><t>NA</t></si><si><t>thirteen char</t></si>";
  const auto dated = [&](const std::string& value, char style) {
    return names("a") + row(number(value, std::string("s='") + style + "'"));
  };
  const struct {
    Workbook book;
    std::string shown;
  } cases[] = {
      {{names("ab") + row(number("1.5E-3") + number("1 2")), {}, {}, {}}, "0\nB2 holds no number"},
      {{names("ab") + row(number("1.5E-3") + number("\n +2 ")), {}, {}, {}}, "0 a:1:0 b:1:0\n[0.0015][2]\n"},
      // Kinds of cells: shared texts, results of formulas, truth values, errors.
      {{names("abc") + row(number("0", "t='s'") + number("1", "t='s'") + number("4", "t='s'")) +
            row(number("2", "t='s'") + number("3", "t='s'") + number("7")),
        texts,
        {},
        {}},
       "0 a:2:3 b:2:4 c:2:13\n[one][rich][thirteen char]\n[][][7]\n"},
      {{names("abcd") +
            row(cell("", "<f>1+1</f><v>2</v>") + cell("t='str'", "<f>x</f><v>t</v>") + number("1", "t='b'") +
                number("#N/A", "t='e'")) +
            row(cell("t='e'", "<f>1/0</f><v>#DIV/0!</v>") + cell("t='str'", "<f>x</f><v/>") + number("0", "t='b'") +
                number("3")),
        {},
        {},
        {}},
       "0 a:1:0 b:2:1 c:1:0 d:1:0\n[2][t][1][.]\n[.][][0][3]\n"},
      {{names("a") + row(cell("", "<f>1+1</f><v></v>")), {}, {}, {}},
       "0\nthe formula in A2 has no stored result; save it from a spreadsheet program"},
      {{names("a") + row(number("5", "t='s'")), texts, {}, {}}, "0\nA2 refers to a text that is not there"},
      {{names("a") + row(number("-1", "t='s'")), texts, {}, {}}, "0\nA2 refers to a text that is not there"},
      // Places: cells and rows that are left out, rows without a value, a first sheet whose names come late.
      {{row("", "r='2'") + row(cell("r='B3' t='str'", "<v>b</v>"), "r='3'") +
            row(number("1", "r='A7'") + number("2", "r='C7'"), "r='7'") + row("<c r='B8'/>", "r='8'") +
            row(number("3", "r='B9'"), "r='9'"),
        {},
        {},
        {}},
       "0 :1:0 b:1:0 :1:0\n[1][.][2]\n[.][3][.]\n"},
      {{names("a") + row(number("1", "r='XFD2'"), "r='2'") + row(number("1", "r='XFE3'")), {}, {}, {}},
       "0\nrow 3 has a cell that no sheet can have"},
      {{names("a") + row("<c r='7'/>"), {}, {}, {}}, "0\nrow 2 has a cell that no sheet can have"},
      {{names("a") + row("<c r='XFD2'><c/></c><c/>"), {}, {}, {}}, "0\nrow 2 has a cell that no sheet can have"},
      {{names("a") + row(number("1", "r='7'")), {}, {}, {}}, "0\nrow 2 has a cell that no sheet can have"},
      {{names("a") + row("", "r='1'"), {}, {}, {}}, "0\na row behind row 1 has no number that a sheet can have"},
      {{names("a") + row("", "r='1048577'"), {}, {}, {}}, "0\na row behind row 1 has no number that a sheet can have"},
      {{row(""), {}, {}, {}}, "0\nits first sheet is empty"},
      {{"", {}, {}, {}}, "0\nits first sheet is empty"},
      {{names("a"), {}, {}, {}}, "0 a:1:0\n"},
      // Dates: the days of 1900, of 1904, times, and numbers that only look like one.
      {{dated("1", '1'), {}, formats, {}}, "0 a:2:10\n[1900-01-01]\n"},
      {{dated("59", '1'), {}, formats, {}}, "0 a:2:10\n[1900-02-28]\n"},
      {{dated("61", '6'), {}, formats, {}}, "0 a:2:10\n[1900-03-01]\n"},
      {{dated("43831", '4'), {}, formats, {}}, "0 a:2:10\n[2020-01-01]\n"},
      {{dated("42369", '1'), {}, formats, "date1904='1'"}, "0 a:2:10\n[2020-01-01]\n"},
      {{dated("43831.75", '5'), {}, formats, {}}, "0 a:2:19\n[2020-01-01 18:00:00]\n"},
      {{dated("0.999999999", '3'), {}, formats, {}}, "0 a:2:8\n[00:00:00]\n"},
      {{dated("1.25", '2'), {}, formats, {}}, "0 a:1:0\n[1.25]\n"},
      {{dated("-1", '1'), {}, formats, {}}, "0 a:1:0\n[-1]\n"},
      {{dated("1e300", '1'), {}, formats, {}}, "0 a:1:0\n[1e+300]\n"},
      {{dated("1", '9'), {}, formats, {}}, "0 a:1:0\n[1]\n"},
      // Forms that other writers give a workbook.
      {{names("a") + row(number("1")), {}, {}, {}, true}, "0 a:1:0\n[1]\n"},
      {{"<x:row><x:c t='str'><x:v>a</x:v></x:c></x:row><x:row><x:c><x:v>2</x:v></x:c></x:row>",
        {},
        {},
        {},
        false,
        "x:"},
       "0 a:1:0\n[2]\n"},
      {{names("a"), {}, {}, {}, false, {}, "chartsheet"}, "0 second:1:0\n"},
      // Damage, and entities that unfold without end.
      {{names("a") + "<row><c>", {}, {}, {}}, "0\nits part xl/a.xml is damaged in line 1: mismatched tag"},
      {{names("a"), "<si>", {}, {}}, "0\nits part xl/t.xml is damaged in line 1: mismatched tag"},
      {{names("a"), {}, "<", {}}, "0\nits part xl/s.xml is damaged in line 1: not well-formed (invalid token)"},
      {{names("a"), {}, {}, "a"}, "0\nits part xl/workbook.xml is damaged in line 1: not well-formed (invalid token)"},
  };
  for (const auto& c : cases) {
    makeworkbook("1", c.book);
    EXPECT_EQ(described("1", 7), c.shown) << c.book.cells;
  }
}

// Reads a workbook to its end; says when it was refused without a word, or when its first number is not `wanted`.
void readhostile(const std::string& bytes, std::size_t at, double wanted = missingcode) {
  makefile("1", bytes);
  StHandle handle = ST_OpenEnvironment();
  if (ST_OpenInputFile(handle, 7, "1") == 0 && ST_ReadDict(handle) > 0) {
    ST_SelectAllVars(handle);
    StValue value{};
    int second = 0;
    while (ST_ReadRecord(handle) == 0)
      if (wanted != missingcode && ST_GetVarData(handle, 0, &value, &second) == 0 && *value.number != wanted)
        std::printf("byte %zu ", at);
  } else if (*ST_Trouble(handle) == '\0') {
    std::printf("no word of byte %zu ", at);
  }
  ST_CloseFiles(handle);
}

// What is wrong with the archive itself. Every third byte of a small one is changed in turn.
TEST(Workbooks, HostileArchives) {
  Workplace workplace;
  const std::string good = "0 a:1:0\n[12345]\n";
  makeworkbook("1", {names("a") + row(number("12345")), {}, {}, {}}, 0);
  ASSERT_EQ(described("1", 7), good);
  const std::string whole = contents("1");
  std::string changed = whole;
  changed.replace(changed.find("12345"), 5, "12346");
  makefile("1", changed);
  EXPECT_EQ(described("1", 7), "0\nits part xl/a.xml does not agree with its checksum");
  changed = whole;
  changed.replace(changed.rfind("_rels/.rels"), 11, "_rels/.none");
  makefile("1", changed);
  EXPECT_EQ(described("1", 7), "0\nit is no workbook of Excel");
  makefile("1", whole.substr(0, whole.size() - 30));
  EXPECT_EQ(described("1", 7), "0\nit is no undamaged workbook of Excel: its table of contents is missing");
  makefile("1", "PK");
  EXPECT_EQ(described("1", 7), "0\nit is no undamaged workbook of Excel: its table of contents is missing");
  const ChildEnd all = runchild([&] {
    for (std::size_t at = 0; at < whole.size(); at += 3) {
      std::string bytes = whole;
      bytes[at] = static_cast<char>(~bytes[at]);
      // What is read all the same is what was written, unless the names of parts led to another sheet.
      readhostile(bytes, at, 12345.0);
    }
  });
  EXPECT_EQ(all.code, 0);
  EXPECT_EQ(all.words, "");
}

TEST(Workbooks97, Cells) {
  Workplace workplace;
  const std::string a = bifflabel(0, 0, "a");
  const std::string ab = a + bifflabel(0, 1, "b");
  const auto style = [](int format) { return biff(0xE0, int16bytes(0) + int16bytes(format) + std::string(16, '\0')); };
  const std::string styles =
      biff(0x41E, int16bytes(164) + bifftext("yyyy\\-mm\\-dd")) + style(0) + style(164) + style(22) + style(2);
  const auto shortform = [](int row, int column, int bits) {
    return biff(0x27E, biffplace(row, column) + int32bytes(bits));
  };
  // Shared texts that go on in another record, once with another width; with formats and reading aids.
  const std::string spread =
      biff(0xFC, int32bytes(3) + int32bytes(3) + int16bytes(3) + std::string("\0x", 2)) +
      biff(0x3C, std::string("\1y\0\xE4\0", 5) + int16bytes(1) + "\x0D" + int16bytes(1) + int32bytes(2)) +
      biff(0x3C, std::string("\1\x3A\x26", 3) + "runsai" + int16bytes(2)) +
      biff(0x3C, std::string("\1\x3D\xD8\0\xDE", 5));
  const std::string shared = biff(0xFD, biffplace(1, 0) + int32bytes(0)) + biff(0xFD, biffplace(2, 0) + int32bytes(1)) +
                             biff(0xFD, biffplace(3, 0) + int32bytes(2));
  const auto truth = [](int row, int value, int error) {
    return biff(0x205, biffplace(row, 0) + static_cast<char>(value) + static_cast<char>(error));
  };
  const std::string old = "0\nit is a workbook of Excel 95 or before; save it from a newer spreadsheet program";
  const std::string cut = "0\nits first sheet is damaged or cut short";
  const std::string damaged = "0\nit is no undamaged workbook of Excel";
  const struct {
    Workbook97 book;
    std::string shown;
  } cases[] = {
      {{"", ab + biffnumber(1, 0, 0.1) + shortform(1, 1, 7 << 2 | 2) + shortform(2, 0, -5 * 4 | 3) +
                shortform(2, 1, 0x3FF80000) + shortform(3, 0, 0x3FF80001)},
       "0 a:1:0 b:1:0\n[0.1][7]\n[-0.05][1.5]\n[0.015][.]\n"},
      {{"", ab + biff(0xBD, int16bytes(1) + int16bytes(0) + int16bytes(0) + int32bytes(6) + int16bytes(0) +
                                int32bytes(10) + int16bytes(1))},
       "0 a:1:0 b:1:0\n[1][2]\n"},
      {{spread, a + shared}, "0 a:2:4\n[xy\xC3\xA4]\n[\xE2\x98\xBA]\n[\xF0\x9F\x98\x80]\n"},
      {{"", a + bifflabel(1, 0, "NA") + biff(0xD6, biffplace(2, 0) + bifftext("rich") + int16bytes(0)) +
                biffnumber(3, 0, 2.5)},
       "0 a:2:4\n[rich]\n[2.5]\n"},
      {{"", a + truth(1, 1, 0) + truth(2, 0, 0) + truth(3, 42, 1) + biffnumber(4, 0, 9)}, "0 a:1:0\n[1]\n[0]\n[9]\n"},
      // Formulas count by their stored results; a shared one may stand before a text.
      {{"", ab + biffformula(1, 0, lowbytes(2.5)) + biffformula(1, 1, biffresult(0)) + biff(0x4BC, "shared") +
                biff(0x207, bifftext("t")) + biffformula(2, 0, biffresult(1, 1)) +
                biffformula(3, 0, biffresult(2, 42)) + biffformula(3, 1, biffresult(3)) + biffnumber(4, 0, 1)},
       "0 a:1:0 b:2:1\n[2.5][t]\n[1][]\n[1][]\n"},
      // Dates: by a format of the workbook's own and by one that all have.
      {{styles, a + biffnumber(1, 0, 43831, 1) + biffnumber(2, 0, 43831.75, 2) + biffnumber(3, 0, 43831, 3)},
       "0 a:2:19\n[2020-01-01]\n[2020-01-01 18:00:00]\n[43831]\n"},
      {{styles + biff(0x22, int16bytes(1)), a + biffformula(1, 0, lowbytes(42369.0))}, "0 a:1:0\n[42369]\n"},
      {{styles + biff(0x22, int16bytes(1)), a + biffnumber(1, 0, 42369, 1)}, "0 a:2:10\n[2020-01-01]\n"},
      // Places: out of order, twice, with a chart between them.
      {{"", biffnumber(7, 1, 4) + biffnumber(2, 0, 1) + ab + biffstart(32) + biffnumber(1, 0, 99) + biffend +
                biffnumber(2, 1, 2) + biffnumber(7, 1, 5)},
       "0 a:1:0 b:1:0\n[1][2]\n[.][5]\n"},
      {{"", a + biffnumber(1, 0, 1), 0x600, std::string("\2\0", 2)}, "0 a:1:0\n[1]\n"},
      {{"", a + biffnumber(1, 255, 1)},
       "0 a:1:0" +
           [] {
             std::string rest;
             for (int i = 1; i < 256; ++i) rest += " :1:0";
             rest += "\n";
             for (int i = 1; i < 256; ++i) rest += "[.]";
             return rest + "[1]\n";
           }()},
      // What cannot be read.
      {{"", "", 0x600, "\2"}, "0\nit has no sheet"},
      {{"", ""}, "0\nits first sheet is empty"},
      {{biff(0x2F, "secret"), a}, "0\nit is protected by a password"},
      {{"", a, 0x500}, old},
      {{"", a + biffnumber(1, 256, 1)}, cut},
      {{"", a + biff(0x203, "short")}, cut},
      {{"", a + biff(0xFD, biffplace(1, 0) + int32bytes(0))}, cut},
      {{"", a + biff(0xBD, int16bytes(1) + int16bytes(255) + std::string(14, '\0'))}, cut},
      {{"", bifflabel(0, 0, "a") + biff(0x204, biffplace(1, 0) + int16bytes(9) + '\0' + "too few")}, cut},
      {{biff(0xFC, int32bytes(-1) + int32bytes(-1)), a}, damaged},
  };
  for (const auto& c : cases)
    for (const std::size_t padding : {0, 5000}) {  // in small pieces, and in sectors
      makefile("1", compound(biffstream(c.book) + std::string(padding, '\0')));
      EXPECT_EQ(described("1", 7), c.shown) << (&c - cases);
    }
  const std::string stream = biffstream({"", a + biffnumber(1, 0, 1)});
  makefile("1", compound(stream, "Book"));
  EXPECT_EQ(described("1", 7), old);
  makefile("1", compound(stream, "EncryptedPackage"));
  EXPECT_EQ(described("1", 7), "0\nit is protected by a password");
  makefile("1", compound(stream.substr(0, stream.size() - 4)));
  EXPECT_EQ(described("1", 7), cut);
}

// Every eleventh byte of a real workbook is changed in three ways, which leads chains and places astray.
TEST(Workbooks97, HostileBytes) {
  Workplace workplace;
  const std::string whole = contents(files + "sample1.xls");
  const ChildEnd all = runchild([&] {
    for (std::size_t at = 0; at < whole.size(); at += at < 512 ? 1 : 11)
      for (const char mask : {'\xFF', '\x01', '\x80'}) {
        std::string bytes = whole;
        bytes[at] = static_cast<char>(bytes[at] ^ mask);
        readhostile(bytes, at);
      }
  });
  EXPECT_EQ(all.code, 0);
  EXPECT_EQ(all.words, "");
}

// A numeric column can hold anything: what is no number is missing and told.
TEST(Dbase, StrangeFields) {
  Workplace workplace;
  const auto field = [](const char* name, char type, int width, int decimals) {
    return fixed(name, 11, '\0') + type + std::string(4, '\0') + static_cast<char>(width) +
           static_cast<char>(decimals) + std::string(14, '\0');
  };
  const auto table = [&](const std::vector<std::string>& values) {
    std::string bytes = std::string("\x03\x60\1\1", 4) + int32bytes(static_cast<int>(values.size())) + int16bytes(97) +
                        int16bytes(10) + std::string(20, '\0') + field("N", 'N', 6, 2) + field("C", 'C', 3, 1) + '\r';
    for (const std::string& value : values) bytes += ' ' + fixed(value, 6) + "abc";
    return bytes + '\x1A';
  };
  const std::string head = "0 N:1:6 C:2:3\n";
  const struct {
    std::vector<std::string> values;
    std::string shown;
  } cases[] = {
      {{"1", "  -2.5", "+3", "1e2", "", "******", "NA", std::string("7\0\0\0\0\0", 6)},
       "[1][abc]\n[-2.5][abc]\n[3][abc]\n[100][abc]\n[.][abc]\n[.][abc]\n[.][abc]\n[7][abc]\n"},
      {{"1", "abc", "N/A", ".", "2,5", "12x", "1 2", "0x10"},
       "[1][abc]\n[.][abc]\n[.][abc]\n[.][abc]\n[.][abc]\n[.][abc]\n[.][abc]\n[.][abc]\n\n7 fields of numeric "
       "columns hold no number and count as missing, the first is N of record 2"},
  };
  for (const auto& c : cases) {
    makefile("1", table(c.values));
    EXPECT_EQ(described("1", 6), head + c.shown);
  }
}

TEST(Dbase, DeletedRecordsAndHostileHeads) {
  Workplace workplace;
  const std::string whole = contents(files + "sample1.dbf");
  const std::size_t heads = static_cast<unsigned char>(whole[8]) + 256U * static_cast<unsigned char>(whole[9]);
  const Recipe all = sample("sample#.dbf", " /xbase", false);
  Recipe recipe = all;
  recipe.file[0] = "cut /xbase";
  ASSERT_EQ(makemdm(templateof(all)).code, 0);
  const std::string shown = contents("shown");
  std::string deleted = whole;
  deleted[heads] = '*';
  makefile("cut", deleted);
  EXPECT_EQ(makemdm(templateof(recipe)).code, 0);
  EXPECT_EQ(contents("shown").size(), shown.size() - shown.substr(shown.find("\n 0x") + 1).find('\n') - 1);
  // Number of records, lengths of head and record, width of the first field.
  const struct {
    std::size_t at;
    std::string bytes;
    int code;
  } cases[] = {
      {4, "\xff\xff\xff\x7f", 0},
      {4, "\xff\xff\xff\xff", 1},
      {8, "\xff\xff", 1},
      {8, std::string(" \0", 2), 1},
      {10, "\x02", 1},
      {48, "\xff", 1},
  };
  for (const auto& c : cases) {
    std::string text = whole;
    text.replace(c.at, c.bytes.size(), c.bytes);
    makefile("cut", text);
    EXPECT_EQ(makemdm(templateof(recipe)).code, c.code) << c.at;
  }
}

}  // namespace
}  // namespace kdr
