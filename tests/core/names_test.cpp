#include "core/names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string_view>

namespace {

using namespace kdr;

TEST(Names, PadnameJustifiesToTheWidth) {
  struct Case {
    const char* text;
    int width;
    const char* wanted;
  };
  const Case cases[] = {
      {"ses", 8, "     SES    "},       {"ABCDEFGHIJ", 8, "ABCDEFGH    "}, {"ABCDEFGHIJKLMNOP", 12, "ABCDEFGHIJKL"},
      {"  ab", 8, "      AB    "},      {"ab  ", 12, "          AB"},      {"", 8, "            "},
      {"        ", 12, "            "}, {"a b", 8, "     A B    "},
  };
  using namespace std::string_view_literals;
  EXPECT_STREQ(paddedname("A\0B1"sv, 12).text, "        A B1");  // a zero byte is a blank, not an end
  for (const Case& c : cases) EXPECT_STREQ(paddedname(c.text, c.width).text, c.wanted) << c.text;
}

TEST(Names, LookupComparesEightCharactersWithoutCase) {
  Array<Name> table(4);
  table[0] = paddedname("INTRCPT1");
  table[1] = paddedname("ABCDEFGH");
  table[2] = paddedname("ab");
  table[3] = paddedname("AB");
  EXPECT_EQ(findname("ABCDEFGHIJ", table, 3), 1);
  EXPECT_EQ(findname("AB      ", table, 3), 2);  // the lowest index wins
  EXPECT_EQ(findname("intrcpt1", table, 3), 0);
  EXPECT_EQ(findname("ABCDEFG", table, 3), -1);
  EXPECT_EQ(findname("AB", table, 1), -1);
  EXPECT_EQ(findname("INTRCPT1", table, -1), -1);
}

TEST(Names, LeftnameUndoesThePadding) {
  EXPECT_EQ(leftname(paddedname("ses")), "SES");
  EXPECT_EQ(leftname(paddedname("ABCDEFGHIJKL", 12)), "ABCDEFGH");
  Name blank = paddedname("");
  leftname(blank.text);
  EXPECT_STREQ(blank.text, "            ");
}

TEST(Names, RemovingClosesUpAndBlanksTheLastSlot) {
  Array<Name> table(3);
  for (std::size_t i = 0; i < 3; ++i) table[i] = paddedname(i == 0 ? "A" : i == 1 ? "B" : "C");
  removename(table, 3, 1);
  EXPECT_EQ(leftname(table[0]) + leftname(table[1]), "AC");
  EXPECT_STREQ(table[2].text, "            ");
}

}  // namespace
