#include "data/readers/ascii.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "data/child.h"
#include "data/readers/textstream.h"
#include "driver/constants.h"

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
    const char* words = "";
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
      {"(i5,2AF3)",
       {{1, FormatKind::none, 5}, {2, FormatKind::f, 3}},
       " Unusable format type: I\nSomething wrong. 2 format codes\n"},
      {"(99999999999F3", {{1000000000, FormatKind::f, 3}}},
      {",", {{1, FormatKind::none, 1}}},
  };
  Workplace workplace;
  for (const auto& c : cases) {
    std::string format = c.format;
    format.push_back('\0');
    char* at = format.data();
    const Outcome outcome = runchild([&] {
      while (*at != '\0') at += nextitem(at).consumed;
    });
    EXPECT_EQ(outcome.words, c.words) << c.format;
    testing::internal::CaptureStdout();
    for (const Expected& expected : c.items) {
      const FormatItem item = nextitem(at);
      EXPECT_EQ(item.kind, expected.kind) << c.format;
      EXPECT_NEAR(item.count, expected.count, expected.count > 1000000 ? 10 : 0) << c.format;
      EXPECT_EQ(item.width, expected.width) << c.format;
      at += item.consumed;
    }
    testing::internal::GetCapturedStdout();
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
  const struct {
    const char* what;
    const char* format;
    int numvar;
    std::string data;
    int code;
    std::string words;
  } cases[] = {
      {"columns, case and place of an ID", "(A3,1X,A2,F4.1,X2,2F3)", 3, "a   1  2.5xx  3 -4\nAB  2 1e2yy+.5 7.rest\n",
       0, ids + " 2.5 3 -4\n          AB|           2 100 0.5 7\n"},
      {"one item gives both IDs", "(2A2,F3.0)", 1, "A 1   5\n", 0, ids + " 5\n"},
      {"slash and a line feed of the other kind", "(2A2,F1,/,F1)", 2, "A 1 5\r\n6\r\nA 1 7\r\n8\r\n", 0,
       ids + " 5 6\n" + ids + " 7 8\n"},
      {"a carriage return alone stays", "(2A1,F2)", 1, "A1\r7\n", 0, ids + " 7\n"},
      {"a short line runs on into the next", "(2A1,F4)", 1, "A1 2\nA1 3\nA1xy\nA1 4\n", 100,
       ids + " 2\n\nData do not match format at F4)\n"},
      {"a blank field is missing", "(2A1,F2,F2)", 2, "A1   7\nA1 8  \n", 0, ids + " . 7\n" + ids + " 8 .\n"},
      {"values behind the format are missing", "(2A1,F1)", 3, "A17\n", 0, ids + " 7 . .\n"},
      {"IDs behind the format are blank", "(F1)", 1, "7\n", 0, "            |             7\n"},
      {"garbage behind a number is passed over", "(2A1,F4)", 1, "A112ab\n", 0, ids + " 12\n"},
      {"no number", "(2A1,f4,2x,F1)", 2, "A1 abc  1\n", 100, "\nData do not match format at F4,2x,F1)\n"},
      {"letters become upper case as the format is read", "(2A1,f4,2x,f1)", 2, "A1   1  1\nA1   1  x\n", 100,
       ids + " 1 1\n\nData do not match format at F1)\n"},
      {"a value beyond a double", "(2A1,F6)", 1, "A11e999 \n", 100, "\nData do not match format at F6)\n"},
      {"a third ID", "(3A1,F1)", 1, "A1B7\n", 100, "\nThere should only be 2 ID field(s) specified!\n"},
      {"a third ID that is not reached", "(2A1,F1,A1)", 1, "A17B\n", 0, ids + " 7\n"},
      {"an ID too wide", "(A13,A1,F1)", 1, "A            17\n", 100, "id must be 12 or fewer characters\n"},
      {"a value too many", "(A1,3F1)", 2, "A1234\n", 100,
       "\nThe format of the level-1 file yields more than 2 values!\n"},
      {"a field too wide", "(2A1,F16384)", 1, "A1 1\n", 100,
       "\nThe format of the level-1 file has a field of more than 16383 characters!\n"},
      {"a kind that is none", "(2A1,I1,F1)", 1, "A17\nA18\n", 0,
       " Unusable format type: I\nproblem with format\n(2A1,I1,F1)\n" + ids +
           " 7\n Unusable format type: I\nproblem with format\n(2A1,I1,F1)\n" + ids + " 8\n"},
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
    const Outcome outcome = runchild([&] { printrecords(c.format, c.numvar, c.data); });
    EXPECT_EQ(outcome.code, c.code) << c.what;
    EXPECT_EQ(outcome.words, c.words) << c.what;
  }
}

// Any way of writing a number reads as the standard library reads it, to the last bit.
TEST(AsciiRecord, NumbersAsTheLibrary) {
  std::mt19937_64 random(17);
  std::string data;
  std::vector<double> expected;
  const auto add = [&](std::string text) {
    text.resize(24, ' ');
    data += "A1" + text + "\n";
    expected.push_back(std::strtod(text.c_str(), nullptr));
  };
  for (const char* text : {"0",
                           "-0",
                           "+0.",
                           ".5",
                           "-.5",
                           "123456789012345",
                           "1234567890123456",
                           "0.000000000000001",
                           "0.0000000000000001",
                           "9007199254740993",
                           "1e-5",
                           "-1.5E+10",
                           "0x1p3",
                           "1.7976931348623157e308",
                           "4.9e-324",
                           "000000000000000000001",
                           "1.0e36",
                           "-1.0e36x",
                           "3 4",
                           "  12.50"})
    add(text);
  for (int n = 0; n < 5000; ++n) {
    char text[64];
    const double value = std::ldexp(double(random()) - 9.2e18, int(random() % 120) - 110);
    std::snprintf(text, sizeof text, n % 2 == 0 ? "%.*f" : "%.*g", int(random() % 12), value);
    if (std::string(text).size() <= 24) add(text);
  }
  Workplace workplace;
  makefile("raw", data);
  raw.level[0].filename = "raw";
  raw.level[0].format = "(2A1,F24.0)";
  raw.level[0].numvar = 1;
  openascii(0);
  prepareascii(0);
  Id id3{};
  Id id2{};
  double value = 0.0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(asciirecord(0, 2, &id3, &id2, &value), 0);
    ASSERT_EQ(value, expected[i]) << i;
    ASSERT_EQ(std::signbit(value), std::signbit(expected[i])) << i;
  }
  EXPECT_EQ(asciirecord(0, 2, &id3, &id2, &value), -1);
  closeascii(0);
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
