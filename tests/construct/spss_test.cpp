#include "construct/readers/spss.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "construct/rawbytes.h"
#include "core/constants.h"

namespace kdr {
namespace {

const double M = missingcode;

// A variable record with those that continue it.
std::string variable(const std::string& name, int width, const std::vector<double>& missing = {}, int nmissing = 0,
                     const std::string& label = "") {
  std::string bytes = int32bytes(2) + int32bytes(width) + int32bytes(label.empty() ? 0 : 1) + int32bytes(nmissing) +
                      int32bytes(0x050800) + int32bytes(0x050800) + fixed(name, 8);
  if (!label.empty())
    bytes += int32bytes(static_cast<int>(label.size())) + fixed(label, (label.size() + 3) / 4 * 4, '\0');
  for (const double value : missing) bytes += lowbytes(value);
  for (int left = width - 8; left > 0; left -= 8)
    bytes += int32bytes(2) + int32bytes(-1) + int32bytes(0) + int32bytes(0) + int32bytes(0) + int32bytes(0) +
             std::string(8, ' ');
  return bytes;
}

std::string extension(int subtype, int size, const std::string& content) {
  return int32bytes(7) + int32bytes(subtype) + int32bytes(size) + int32bytes(static_cast<int>(content.size()) / size) +
         content;
}

struct Sav {
  std::string dictionary;
  int numslots;
  std::string data;
  int compressed = 0;
  int numcases = -1;
  std::string records = {};  // behind the variable records
  int layout = 2;
  std::string magic = "$FL2";

  [[nodiscard]] std::string bytes() const {
    return magic + fixed("@(#) a product", 60) + int32bytes(layout) + int32bytes(numslots) + int32bytes(compressed) +
           int32bytes(0) + int32bytes(numcases) + lowbytes(100.0) + "01 Jan 9700:00:00" + std::string(67, ' ') +
           dictionary + records + int32bytes(999) + int32bytes(0) + data;
  }
};

std::string cells(const std::vector<double>& values) {
  std::string bytes;
  for (const double value : values) bytes += lowbytes(value);
  return bytes;
}

const std::string ids = variable("LEA", 0) + variable("SCHOOL", 0);
const Columns columns{"lea", "school", {"x", "y"}};

struct Spss : testing::Test {
  Workplace workplace;
};

TEST_F(Spss, MissingValues) {
  const double lowest = -DBL_MAX;
  const struct {
    const char* what;
    std::vector<double> list;
    int nmissing;
    std::vector<double> written, expected;
  } cases[] = {
      {"none", {}, 0, {0.0, -1.0e36, lowest, -9.9e35, 1.0e36}, {0.0, M, M, -9.9e35, 1.0e36}},
      {"no numbers", {9}, 1, {std::nan(""), HUGE_VAL, -HUGE_VAL, 1.0}, {M, M, M, 1.0}},
      {"one", {9}, 1, {9.0, 8.0, lowest, 9.5}, {M, 8.0, M, 9.5}},
      {"two", {8, 9}, 2, {8.0, 9.0, 8.5, lowest}, {M, M, 8.5, M}},
      {"three", {8, 9, -1}, 3, {-1.0, 9.0, 1.0}, {M, M, 1.0}},
      {"range", {5, 7}, -2, {4.9, 5.0, 6.0, 7.0, 7.1, lowest}, {4.9, M, M, M, 7.1, M}},
      {"range from the lowest", {lowest, 3}, -2, {-100.0, 3.0, 3.5}, {M, M, 3.5}},
      {"range and one", {5, 7, 99}, -3, {5.0, 7.5, 99.0, 98.0}, {M, 7.5, M, 98.0}},
  };
  for (const auto& c : cases) {
    Sav sav{ids + variable("X", 0, c.list, c.nmissing, "a label") + variable("Y", 0), 4, ""};
    for (const double value : c.written) sav.data += cells({1, 2, value, 9});
    const Records records = readraw("spss", sav.bytes(), columns);
    ASSERT_EQ(records.values.size(), c.expected.size()) << c.what;
    for (std::size_t i = 0; i < c.expected.size(); ++i) {
      EXPECT_EQ(records.values[i][0], c.expected[i]) << c.what << " " << i;
      EXPECT_EQ(records.values[i][1], 9.0) << c.what;
    }
  }
}

// In an ID column a declared value is an ID here; the library of type OTHER takes it for missing.
TEST_F(Spss, MissingIds) {
  const Sav sav{
      variable("LEA", 0, {7, 9}, -2, "declared") + variable("SCHOOL", 0) + variable("X", 0, {9}, 1) + variable("Y", 0),
      4, cells({8, 1, 9, 3}) + cells({10, -DBL_MAX, 4, -DBL_MAX}), 0, 2};
  const std::string none = "-1000000000000000042420637374017961984";
  const std::vector<std::vector<double>> values = {{M, 3}, {4, M}};
  const Records own = readraw("spss", sav.bytes(), columns);
  const Records other = readraw("other", sav.bytes(), columns, " /spss");
  EXPECT_EQ(own.values, values);
  EXPECT_EQ(other.values, values);
  EXPECT_EQ(own.id3, (std::vector<std::string>{"8", "10"}));
  EXPECT_EQ(other.id3, (std::vector<std::string>{none, "10"}));
  EXPECT_EQ(own.id2, (std::vector<std::string>{"1", none}));
  EXPECT_EQ(other.id2, own.id2);
}

// Slots: LEA, SCHOOL, a text of 12 (2), X, a text of 40 (5), Y, a text of 3 (1).
const std::string mixed = ids + variable("NAME", 12) + variable("X", 0, {4}, 1) + variable("WIDE", 40) +
                          variable("Y", 0) + variable("SHORT", 3);

TEST_F(Spss, CompressedCases) {
  const auto codes = [](std::vector<int> list) {
    std::string bytes;
    for (const int code : list) bytes += static_cast<char>(code);
    return bytes;
  };
  Sav sav{mixed, 12, "", 1, 3};
  // first case: 1, 2.5, "abcdefghijkl", 4 (missing), wide text, system-missing, blanks
  sav.data = codes({101, 253, 253, 253, 104, 253, 254, 253}) + cells({2.5}) + "abcdefgh" + "ijkl    " + "wide    " +
             "-middle-" +
             // its other four codes, and four of the second case: 0, -99, "name", blanks
             codes({254, 254, 255, 254, 254, 1, 253, 254}) + "name    " +
             // X 151, wide blanks, Y 0 by blanks, short text
             codes({251, 254, 254, 254, 254, 254, 254, 253}) + "abc     " +
             // third case: system-missing IDs, name blank by 255; filler between the codes
             codes({255, 255, 0, 254, 255, 100, 0, 0}) + codes({0, 254, 254, 254, 254, 254, 101, 254}) +
             codes({252, 0, 0, 0, 0, 0, 0, 0});
  const Records numeric = readraw("spss", sav.bytes(), columns);
  ASSERT_EQ(numeric.values.size(), 3u);
  EXPECT_EQ(numeric.values, (std::vector<std::vector<double>>{{M, M}, {151, 0}, {0, 1}}));
  EXPECT_EQ(numeric.id3, (std::vector<std::string>{"1", "0", "-1000000000000000042420637374017961984"}));
  EXPECT_EQ(numeric.id2[0], "2");  // floor(2.5 + 0.2)
  EXPECT_EQ(numeric.id2[1], "-99");

  const Records text = readraw("spss", sav.bytes(), {"name", "short", {"school", "x"}});
  EXPECT_EQ(text.id3, (std::vector<std::string>{"ABCDEFGHIJKL", "        NAME", "            "}));
  EXPECT_EQ(text.id2, (std::vector<std::string>{"            ", "         ABC", "            "}));
  EXPECT_EQ(text.values, (std::vector<std::vector<double>>{{2.5, M}, {-99, 151}, {M, 0}}));

  // Cut anywhere, the whole cases before the cut are the same, and the loss is told.
  const std::size_t head = sav.bytes().size() - sav.data.size();
  for (std::size_t cut = 0; cut < sav.data.size(); ++cut) {
    testing::internal::CaptureStdout();
    const Records less = readraw("spss", sav.bytes().substr(0, head + cut), columns);
    std::fflush(stdout);
    const std::string words = testing::internal::GetCapturedStdout();
    ASSERT_LE(less.values.size(), 3u);
    for (std::size_t i = 0; i < less.values.size(); ++i) EXPECT_EQ(less.values[i], numeric.values[i]);
    EXPECT_EQ(words.empty(), less.values.size() == 3) << cut;
  }
}

TEST_F(Spss, PlainCases) {
  Sav sav{mixed, 12, "", 0, 2};
  sav.data = cells({7, 8}) + fixed("one", 16) + cells({4}) + fixed("a text over five slots", 40) + cells({5}) +
             fixed("s", 8) + cells({7, 9}) + fixed("twelve chars", 16) + cells({3}) + fixed("", 40) +
             cells({-DBL_MAX}) + fixed("", 8);
  const Records numeric = readraw("spss", sav.bytes(), columns);
  EXPECT_EQ(numeric.values, (std::vector<std::vector<double>>{{M, 5}, {3, M}}));
  EXPECT_EQ(numeric.id2, (std::vector<std::string>{"8", "9"}));
  const Records text = readraw("spss", sav.bytes(), {"NAME", "SHORT", {"x"}});
  EXPECT_EQ(text.id3, (std::vector<std::string>{"         ONE", "TWELVE CHARS"}));

  const struct {
    const char* what;
    std::string bytes;
    std::size_t cases;
    const char* words;
  } cut[] = {
      {"in the second case", sav.bytes().substr(0, sav.bytes().size() - 1), 1,
       "file is cut short or damaged: it breaks off in case 2, which does not count.\n"
       "1 of the 2 cases that it states are missing.\n"},
      {"between them", sav.bytes().substr(0, sav.bytes().size() - 96), 1,
       "file is cut short or damaged: it ends before case 2.\n1 of the 2 cases that it states are missing.\n"},
      {"all", sav.bytes().substr(0, sav.bytes().size() - 192), 0,
       "file is cut short or damaged: it ends before case 1.\n2 of the 2 cases that it states are missing.\n"},
      {"a case more", sav.bytes() + sav.data.substr(96), 3,
       "file holds 3 cases, more than the 2 that it states. All of them count.\n"},
      {"filler behind the last case", sav.bytes() + "filler", 2, ""},
      {"no number of cases, no code for the end",
       Sav{ids + variable("X", 0) + variable("Y", 0), 4, std::string(8, '\x65'), 1}.bytes(), 2,
       "file may be cut short: no code for the end follows its case 2.\n"},
  };
  for (const auto& c : cut) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(readraw("spss", c.bytes, columns).values.size(), c.cases) << c.what;
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.words) << c.what;
  }
}

TEST_F(Spss, DictionaryRecords) {
  const std::string labels = int32bytes(3) + int32bytes(3) + lowbytes(1.0) + "\x03" + "one" + std::string(4, ' ') +
                             lowbytes(2.0) + "\x07" + "exactly" + lowbytes(3.0) + "\x08" + "longer..." +
                             std::string(6, ' ') + int32bytes(4) + int32bytes(2) + int32bytes(3) + int32bytes(4);
  const std::string document = int32bytes(6) + int32bytes(2) + std::string(160, 'd');
  const std::string info =
      extension(3, 4, std::string(32, '\1')) + extension(4, 8, cells({-DBL_MAX, DBL_MAX, -DBL_MAX}));
  const std::string longnames = extension(13, 1, "X=A_long_name_of_X\tY=y") + extension(11, 4, std::string(48, '\1')) +
                                extension(16, 8, std::string(16, '\1')) + extension(21, 1, "something") +
                                extension(24, 1, "<xml/>");
  Sav sav{ids + variable("X", 0, {}, 0, "label") + variable("Y", 0, {1, 2}, -2, "another label"), 4,
          cells({1, 2, 3, 4})};
  const struct {
    const char* what;
    std::string records;
    const char* words;
  } cases[] = {
      {"none", "", ""},
      {"labels", labels, ""},
      {"document", document, ""},
      {"machine", info, ""},
      {"all", labels + labels + document + info + longnames, ""},
      {"subtype 9 alone", int32bytes(7) + int32bytes(9) + info, ""},
      {"subtype 9 with size and count", extension(9, 8, cells({1})) + info, ""},
      {"an unknown subtype", extension(25, 1, "new"),
       "Invalid dictionary subtype 25 in SPSS level-1 file.  This is\n"
       "probably due to a new version of SPSS that KDR does not know about yet.\n"},
      {"labels of nothing", labels.substr(0, labels.size() - 16) + int32bytes(7),
       "The level-1 SPSS has a strange header.\n"},
      {"an unknown record", int32bytes(5), "The level-1 SPSS has a strange header.\n"},
      {"one variable record too many", variable("Z", 0), "The level-1 SPSS has a strange header.\n"},
      {"a document longer than the file", int32bytes(6) + int32bytes(0x7fffffff),
       "The level-1 SPSS has a strange header.\n"},
      {"an extension of less than nothing", int32bytes(7) + int32bytes(5) + int32bytes(-1) + int32bytes(8),
       "The level-1 SPSS has a strange header.\n"},
  };
  for (const auto& c : cases) {
    sav.records = c.records;
    const ChildEnd outcome = refuseraw("spss", sav.bytes(), columns);
    const bool read = *c.words == '\0';
    EXPECT_EQ(outcome.code, read ? 0 : 1) << c.what << outcome.words;
    EXPECT_EQ(outcome.words.substr(0, std::strlen(c.words)), c.words) << c.what;
    if (read) {
      EXPECT_EQ(readraw("spss", sav.bytes(), columns).values, (std::vector<std::vector<double>>{{3, 4}})) << c.what;
    }
  }
}

TEST_F(Spss, Refusals) {
  const std::string strange = "The level-1 SPSS has a strange header.\n";
  const std::string none = "The level-1 file does not seem to be a SPSS file!\n";
  const Sav good{ids + variable("X", 0) + variable("Y", 0), 4, cells({1, 2, 3, 4})};
  const auto with = [&](auto change) {
    Sav sav = good;
    change(sav);
    return sav.bytes();
  };
  const std::string turned{"\0\0\0\2", 4};
  std::string bigendian = good.bytes();
  bigendian.replace(64, 4, turned);
  const struct {
    const char* what;
    std::string bytes;
    std::string words;
    Columns columns;
    int code = 1;
  } cases[] = {
      {"empty", "", none, columns},
      {"another kind", with([](Sav& s) { s.magic = "SPSS"; }), none, columns},
      {"compressed as a whole", with([](Sav& s) { s.magic = "$FL3"; }),
       none + "It is one that is compressed as a whole. Please save it as an ordinary .sav file.\n", columns},
      {"an unknown layout", with([](Sav& s) { s.layout = 4; }), none, columns},
      {"high byte first", bigendian,
       none + "It was written by a machine that stores the high byte first. Please save it anew on this kind of "
              "machine.\n",
       columns},
      {"more slots than records", with([](Sav& s) { s.numslots = 5; }), none, columns},
      {"more slots than the file has room for", with([](Sav& s) { s.numslots = 0x7fffffff; }), strange, columns},
      {"fewer slots than none", with([](Sav& s) { s.numslots = -2; }), strange, columns},
      {"four missing values", with([](Sav& s) {
         s.dictionary = variable("X", 0, {1, 2, 3, 4}, 4) + s.dictionary;
       }),
       strange, columns},
      {"one variable alone", Sav{variable("LEA", 20), 3, ""}.bytes(), " file is an empty file\n", columns},
      {"the continuation of a text", Sav{mixed, 12, ""}.bytes(), "id variable not found!\n", {"lea", "", {"x"}}, 100},
      {"a text ID of more than 12",
       Sav{mixed, 12, cells({1, 2}) + fixed("", 24) + "thirteen char" + std::string(43, ' ')}.bytes(),
       "Your ID variable is longer than 12 characters.\nIt stands in record 1 of the level-1 file file.\n",
       {"wide", "short", {"x"}},
       100},
      {"an ID of 14 digits", with([](Sav& s) {
         s.data = cells({10000000000000.0, 1, 1, 1});
       }),
       "ID must be no more than 12 digits long\nIt stands in record 1 of the level-1 file file.\n", columns, 100},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = refuseraw("spss", c.bytes, c.columns);
    EXPECT_EQ(outcome.code, c.code) << c.what;
    const std::string empty = c.code == 1 && c.words[0] != ' ' ? " file is an empty file\n" : "";
    EXPECT_EQ(outcome.words, c.words + empty) << c.what;
  }
  for (const char level : {'2', '3'}) {
    const std::string name = std::string("The level-") + level;
    makefile("t.mdmt", std::string(templatehead) + "\nrawdattype:spss\nl" + level + "fname:file\n");
    for (const auto& [bytes, words] :
         {std::pair(std::string("no"), name + " file does not seem to be a SPSS file!\n"),
          std::pair(with([](Sav& s) { s.records = int32bytes(5); }), name + " SPSS has a strange header.\n"),
          std::pair(
              with([](Sav& s) { s.records = extension(25, 1, "new"); }),
              std::string("Invalid dictionary subtype 25 in SPSS level-") + level +
                  " file.  This is\nprobably due to a new version of SPSS that KDR does not know about yet.\n")}) {
      makefile("file", bytes);
      EXPECT_EQ(runchild([] { readtemplate("t.mdmt"); }).words, words + " file is an empty file\n");
    }
  }
  const Sav largest{good.dictionary, 4, cells({999999999999.0, 123456789012.0, 1, 1})};
  EXPECT_EQ(readraw("spss", largest.bytes(), columns).id3[0], "999999999999");
  EXPECT_EQ(readraw("spss", largest.bytes(), columns).id2[0], "123456789012");
}

// Whole names, of ID columns and in other letters too, come before the short ones that the file makes of them.
TEST_F(Spss, LongNames) {
  Sav sav{variable("AREA_NUM", 0) + variable("SCH", 0) + variable("MATHSCOR", 0) + variable("V2_A", 0) +
              variable("\xC3\x84 9", 0),
          5, cells({1, 2, 3, 4, 5})};
  sav.records = extension(13, 1,
                          "AREA_NUM=area_number_of_the_study\tSCH=school\tMATHSCOR=mathscore_1\tV2_A=mathscore_2\t"
                          "\xC3\x84 9=\xC3\x84lter in Jahren");
  const Records records =
      readraw("spss", sav.bytes(),
              {"area_number_of_the_study", "SCHOOL", {"Mathscore_1", "mathscore_2", "\xC3\x84lter in Jahren"}});
  EXPECT_EQ(records.values, (std::vector<std::vector<double>>{{3, 4, 5}}));
  EXPECT_EQ(records.id3[0] + records.id2[0], "12");
  EXPECT_EQ(readraw("spss", sav.bytes(), {"area_num", "sch", {"v2_a"}}).values[0][0], 4);
  EXPECT_EQ(refuseraw("spss", sav.bytes(), {"area_num", "sch", {"mathscore_3"}}).words,
            "Variable mathscore_3 not found!\n");
  EXPECT_EQ(refuseraw("spss", sav.bytes(), {"area_num", "sch", {"mathscor"}}).words,
            "Variable mathscor cannot be told from another one of the level-1 file. Give its whole name, or rename one "
            "of them!\n");
}

TEST_F(Spss, OtherBias) {
  Sav sav{ids + variable("X", 0) + variable("Y", 0), 4, "\x02\x03\x04\x01\xfc" + std::string(3, '\0'), 1};
  std::string bytes = sav.bytes();
  bytes.replace(84, 8, lowbytes(0.0));
  const Records records = readraw("spss", bytes, columns);
  EXPECT_EQ(records.values, (std::vector<std::vector<double>>{{4, 1}}));
  EXPECT_EQ(records.id3[0] + records.id2[0], "23");
}

// Some writers leave the number of slots out.
TEST_F(Spss, SlotsThatAreNotCounted) {
  Sav sav{ids + variable("X", 0, {1, 3}, -2, "label") + variable("TEXT", 20) + variable("Y", 0), -1,
          cells({1, 2, 3}) + fixed("", 24) + cells({4})};
  sav.records = int32bytes(6) + int32bytes(1) + std::string(80, 'd');
  EXPECT_EQ(readraw("spss", sav.bytes(), columns).values, (std::vector<std::vector<double>>{{M, 4}}));
  EXPECT_EQ(refuseraw("spss", sav.bytes().substr(0, 300), columns).code, 1);
}

// Only the first variable of a very long string is one that can be named.
TEST_F(Spss, VeryLongStrings) {
  const std::string second = variable("V600_A", 255) + variable("V600_B", 96);
  Sav sav{ids + variable("V600", 255) + second + variable("X", 0) + variable("V300", 255) + variable("V3001", 48) +
              variable("SHORT", 8) + variable("Y", 0),
          2 + 32 + 32 + 12 + 1 + 32 + 6 + 2, ""};
  sav.data = cells({1, 2}) + std::string(76 * 8, 'v') + cells({3}) + std::string(38 * 8, 'w') + "short   " + cells({4});
  sav.records = extension(14, 1, std::string("V600=00600\0\tV300=00300\0\t", 24));
  EXPECT_EQ(readraw("spss", sav.bytes(), columns).values, (std::vector<std::vector<double>>{{3, 4}}));
  const std::string absent = "id variable not found!\n";
  for (const char* name : {"V600_A", "V600_B", "V3001"})
    EXPECT_EQ(refuseraw("spss", sav.bytes(), {"SHORT", name, {"x"}}).words, absent) << name;
}

// More slots in a case than the buffer has bytes, and cases across its end.
TEST_F(Spss, CasesWiderThanTheBuffer) {
  constexpr int wide = 150000;
  Sav sav{ids + variable("X", 0) + variable("Y", 0), wide, "", 0, 3};
  for (int i = 4; i < wide; ++i) sav.dictionary += variable("V", 0);
  for (int c = 1; c <= 3; ++c) {
    std::vector<double> one(wide, 5.0);
    one[0] = one[1] = one[2] = one[3] = c;
    sav.data += cells(one);
  }
  EXPECT_EQ(readraw("spss", sav.bytes(), columns).values, (std::vector<std::vector<double>>{{1, 1}, {2, 2}, {3, 3}}));
  sav.compressed = 1;
  sav.data.clear();
  for (int c = 1; c <= 3; ++c)
    for (int block = 0; block < wide / 8; ++block) {
      sav.data +=
          block == 0 ? std::string(4, static_cast<char>(100 + c)) + std::string(4, '\xfd') : std::string(8, '\xfd');
      sav.data += cells(std::vector<double>(block == 0 ? 4 : 8, 5.0));
    }
  EXPECT_EQ(readraw("spss", sav.bytes(), columns).values, (std::vector<std::vector<double>>{{1, 1}, {2, 2}, {3, 3}}));
}

}  // namespace
}  // namespace kdr
