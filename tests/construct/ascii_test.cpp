#include "construct/readers/ascii.h"

#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <vector>

#include "construct/child.h"
#include "construct/numberbytes.h"
#include "construct/readers/textstream.h"
#include "construct/spellings.h"
#include "core/constants.h"

namespace kdr {
namespace {

TEST(Format, Items) {
  struct Expected {
    int count;
    FormatKind kind;
    int width;
  };
  const struct {
    const char* format;
    std::vector<Expected> items;
  } cases[] = {
      {"(A6,1X,A4,2F8.2,/,3f6.0)",
       {{1, FormatKind::a, 6},
        {1, FormatKind::x, 1},
        {1, FormatKind::a, 4},
        {2, FormatKind::f, 8},
        {1, FormatKind::slash, 1},
        {3, FormatKind::f, 6}}},
      {"(3X,X3,0E12.4e1,G)",
       {{3, FormatKind::x, 1}, {1, FormatKind::x, 3}, {1, FormatKind::e, 12}, {1, FormatKind::g, 1}}},
      {"( 2 A 1 2 , 10F)", {{2, FormatKind::a, 12}, {10, FormatKind::f, 1}}},
      {"(A6.2)", {{1, FormatKind::a, 62}}},
      {"(99999999999F3", {{1000000000, FormatKind::f, 3}}},
      {",", {{1, FormatKind::none, 1}}},
  };
  for (const auto& c : cases) {
    std::string format = c.format;
    char* at = format.data();
    for (const Expected& expected : c.items) {
      const FormatItem item = nextitem(at);
      EXPECT_EQ(item.kind, expected.kind) << c.format;
      EXPECT_NEAR(item.count, expected.count, expected.count > 1000000 ? 10 : 0) << c.format;
      EXPECT_EQ(item.width, expected.width) << c.format;
      at += item.consumed;
    }
    EXPECT_EQ(*at, '\0') << c.format;
  }
}

TEST(Format, Check) {
  const struct {
    const char* format;
    const char* words;
  } cases[] = {
      {"(2A4,F3.0)", ""},
      {"(A4,/,F3.0)", ""},
      {"A4,F3.0)", " First character of format must be (\n"},
      {"", " First character of format must be (\n"},
      {"(A4,F3.0", " Last character of format must be )\n"},
      {"(", " Last character of format must be )\n"},
      {"(A4,2(F3.0))", " Sorry, no nesting of format allowed. Please expand the format.\n"},
      {"(A4/,F3.0)", " Slashes must be surrounded by ,"},
      {"(A4,/F3.0)", " Slashes must be surrounded by ,"},
      {"(A4,I5,F3)", " Unusable format type: I\n"},
      {"(A4,F9.2,T3,F3)", " Unusable format type: T\n"},
      {"(A6.2,F3)", " Unusable format type: .\n"},
      {"(A4,3Q8.3)", " Unusable format type: Q\n"},
      {"(A4,2AF3)", "Something wrong. 2 format codes\n"},
      {"(A4,,F3)", "problem with format\n(A4,,F3)\n"},
  };
  for (const auto& c : cases) {
    testing::internal::CaptureStdout();
    const bool accepted = checkformat(c.format);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.words);
    EXPECT_EQ(accepted, c.words[0] == '\0') << c.format;
  }
}

// Reads all level-1 records of `data` and prints them.
void printrecords(const std::string& format, int numvar, const std::string& data) {
  makefile("raw", data);
  raw.level[0].filename = "raw";
  raw.level[0].format = format;
  raw.level[0].numvar = numvar;
  run.mdm.l1missing = true;
  openascii(0);
  prepareascii(0);
  Array<double> values(static_cast<std::size_t>(numvar));
  Id id3{};
  Id id2{};
  while (asciirecord(0, 2, &id3, &id2, values.data()) == 0) {
    std::printf("%s|%s", id3.text.text, id2.text.text);
    for (const double value : values) value == missingcode ? std::printf(" .") : std::printf(" %.17g", value);
    std::printf("\n");
  }
  closeascii(0);
}

TEST(AsciiRecord, Cases) {
  const std::string ids = "           A|           1";
  const std::string ones = "           1|           1";
  const std::string nomatch = "\nData do not match format at ";
  const auto holds = [](int line, const std::string& text, const std::string& columns) {
    return "Line " + std::to_string(line) + " of raw holds \"" + text + "\" in columns " + columns + ".\n";
  };
  const struct {
    const char* what;
    const char* format;
    int numvar;
    std::string data;
    int code;
    std::string words;
  } cases[] = {
      {"columns, case and place of an ID", "(A3,1X,A2,F4.1,X2,2F3)", 3, "a   1  2.5xx  3 -4\nAB  2 1e2 yy+.5 7.rest\n",
       0, ids + " 2.5 3 -4\n          AB|           2 100 0.5 7\n"},
      {"one item gives both IDs", "(2A2,F3.0)", 1, "A 1   5\n", 0, ids + " 5\n"},
      {"slash and a line feed of the other kind", "(2A2,F1,/,F1)", 2, "A 1 5\r\n6\r\nA 1 7\r\n8\r\n", 0,
       ids + " 5 6\n" + ids + " 7 8\n"},
      {"a carriage return alone stays", "(2A1,F2)", 1, "A1\r7\n", 0, ids + " 7\n"},
      {"lines that are too short for their numbers", "(2A1,F2,F2)", 2, "11 2 3\n11 4\n11 5 6\n11 7 8\n11\n11 9\n", 0,
       ones + " 2 3\n" + ones + " 4 1\n" + ones + " 7 8\n" + ones + " 1 1\n" +
           "Records of raw that took fields from the next line: 2. The first one starts in line 2, which is too "
           "short.\n"},
      {"a blank line", "(2A1,F2)", 1, "\n11 3\n", 0,
       "           \n|           1 1\nRecords of raw that took fields from the next line: 1. The first one starts in "
       "line 1, which is blank.\n"},
      {"a number across two lines", "(2A1,F4)", 1, "A1 2\nA1 3\n", 100, nomatch + "F4)\n" + holds(1, " 2?A", "3 to 6")},
      {"letters of two bytes in skipped columns", "(2A1,2X,F2)", 1, "A1\xC3\xB6 3\nA1\xC3\xB6 3\n", 0,
       "Line 1 of raw has letters of more than one byte in front of its values. Fields count bytes, not letters.\n" +
           ids + " 3\n" + ids + " 3\n"},
      {"a byte order mark", "(2A1,F2)", 1,
       "\xEF\xBB\xBF"
       "A1 3\n",
       0, ids + " 3\n"},
      {"a blank field is missing", "(2A1,F2,F2)", 2, "A1   7\nA1 8  \n", 0, ids + " . 7\n" + ids + " 8 .\n"},
      {"values behind the format are missing", "(2A1,F1)", 3, "A17\n", 0, ids + " 7 . .\n"},
      {"IDs behind the format are blank", "(F1)", 1, "7\n", 0, "            |             7\n"},
      {"no number", "(2A1,f4,2x,F1)", 2, "A1   5  1\nA1 abc  1\n", 100,
       ids + " 5 1\n" + nomatch + "F4,2X,F1)\n" + holds(2, " abc", "3 to 6")},
      {"another one, in the second line of a record", "(2A1,/,X1,F4)", 1, "A1\n.1\x07 3\n", 100,
       nomatch + "F4)\n" + holds(2, "1? 3", "2 to 5")},
      {"a third ID", "(3A1,F1)", 1, "A1B7\n", 100, "\nThere should only be 2 ID field(s) specified!\n"},
      {"a third ID that is not reached", "(2A1,F1,A1)", 1, "A17B\n", 0, ids + " 7\n"},
      {"an ID too wide", "(A13,A1,F1)", 1, "A            17\n", 100, "id must be 12 or fewer characters\n"},
      {"a value too many", "(A1,3F1)", 2, "A1234\n", 100,
       "\nThe format of the level-1 file yields more than 2 values!\n"},
      {"a field too wide", "(2A1,F16384)", 1, "A1 1\n", 100,
       "\nThe format of the level-1 file has a field of more than 16383 characters!\n"},
      {"a last line without an end", "(2A1,F1)", 1, "A17\nA18", 0,
       ids + " 7\nThe last record of raw (line 2) does not count: no line end follows it.\n"},
      {"a last line without an end, text behind the fields", "(2A1,F1)", 1, "A17\nA18 x", 0,
       ids + " 7\nThe last record of raw (line 2) does not count: no line end follows it.\n"},
      {"the file ends within a record", "(2A1,/,F1)", 1, "A1\n7\nA1\n", 0,
       ids + " 7\nraw ends in the middle of a record (line 3). That record does not count.\n"},
      {"blanks behind the last record", "(2A1,F3)", 1, "A1  7\n \n \n", 0, ids + " 7\n"},
      {"an empty file", "(2A1,F3)", 1, "", 0, ""},
      {"skips that never end", "(2A1,999999999X,F1)", 1, "A1 7\n", 0,
       "raw ends in the middle of a record (line 1). That record does not count.\n"},
      {"slashes that never end", "(2A1,999999999/,F1)", 1, "A1 7\n", 0,
       "raw ends in the middle of a record (line 1). That record does not count.\n"},
  };
  Workplace workplace;
  for (const auto& c : cases) {
    const ChildEnd outcome = runchild([&] { printrecords(c.format, c.numvar, c.data); });
    EXPECT_EQ(outcome.code, c.code) << c.what;
    EXPECT_EQ(outcome.words, c.words) << c.what;
  }
}

// Where the level-1 data are declared to be complete, a record that takes from the next line stops the job.
TEST(AsciiRecord, CompleteDataInShortLines) {
  Workplace workplace;
  const ChildEnd outcome = runchild([] {
    raw.level[0].numvar = 1;
    makefile("raw", "11 2\n11\n11 4\n");
    raw.level[0].filename = "raw";
    raw.level[0].format = "(2A1,F2)";
    openascii(0);
    prepareascii(0);
    Id id{};
    double value = 0.0;
    while (asciirecord(0, 2, &id, &id, &value) == 0) std::printf("%g\n", value);
  });
  EXPECT_EQ(outcome.code, 100);
  EXPECT_EQ(outcome.words,
            "2\nRecords of raw that took fields from the next line: 1. The first one starts in line 2, which is too "
            "short.\nUnable to continue with data that are declared to be complete.\n");
}

// Any decimal spelling of a number reads as the standard library reads it, to the last bit; any other one is refused.
TEST(AsciiRecord, NumberSpellings) {
  Workplace workplace;
  std::string data;
  for (const Spelling& number : spellings(24)) data += "A1" + fixed(number.text, 24) + "\n";
  makefile("raw", data);
  raw.level[0].filename = "raw";
  raw.level[0].format = "(2A1,F24.0)";
  raw.level[0].numvar = 1;
  openascii(0);
  prepareascii(0);
  Id id{};
  double value = 0.0;
  for (const Spelling& number : spellings(24)) {
    ASSERT_EQ(asciirecord(0, 2, &id, &id, &value), 0);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(value), std::bit_cast<std::uint64_t>(number.value)) << number.text;
  }
  EXPECT_EQ(asciirecord(0, 2, &id, &id, &value), -1);
  closeascii(0);
  for (const char* text : notnumbers) {
    const ChildEnd outcome = runchild([&] { printrecords("(2A1,F8)", 1, "A1" + fixed(text, 8) + "\n"); });
    EXPECT_EQ(outcome.code, 100) << text;
  }
}

// Lines of all lengths, over several buffers, give the same bytes with either line end, and the lines are counted.
TEST(TextStream, LineEndsAndLongLines) {
  Workplace workplace;
  std::mt19937 random(23);
  std::string expected;
  std::string file;
  for (int n = 0; n < 60000; ++n) {
    std::string line(random() % 80, static_cast<char>('a' + n % 26));
    if (n % 7 == 0) line += '\r';
    expected += line + "\n";
    file += line + "\r\n";
  }
  expected += "end\r";
  file += "end\r";
  makefile("text", file);
  std::FILE* stream = std::fopen("text", "rb");
  TextStream text;
  starttext(text, stream, "text");
  std::size_t at = 0;
  std::size_t counted = 0;
  long long line = 1;
  while (at < expected.size()) {
    startrecord(text);
    for (; counted < at; ++counted) line += expected[counted] == '\n';
    if (random() % 2 == 0) {
      const std::size_t width = std::min<std::size_t>(random() % 3000, expected.size() - at);
      const char* got = takebytes(text, width);
      ASSERT_NE(got, nullptr);
      ASSERT_EQ(std::string(got, width), expected.substr(at, width)) << at;
      at += width;
    } else {
      const std::size_t feed = expected.find('\n', at);
      const std::size_t most = 1 + random() % 100;
      const bool whole = feed != std::string::npos && feed - at < most;
      const std::size_t moved = whole ? feed - at + 1 : std::min(most, expected.size() - at);
      ASSERT_EQ(skipline(text, most), whole || moved == most);
      at += moved;
    }
    if (random() % 16 == 0) {
      ASSERT_EQ(recordline(text), line);
    }
  }
  EXPECT_EQ(takebytes(text, 1), nullptr);
  std::fclose(stream);
}

}  // namespace
}  // namespace kdr
