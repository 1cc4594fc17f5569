#include "core/numbers.h"

#include <gtest/gtest.h>

#include <climits>

namespace kdr {
namespace {

TEST(Numbers, AreReadToTheirEnd) {
  for (const auto& [text, value] :
       {std::pair{"1e3", 1000.0}, {" -.5 ", -0.5}, {"+5.", 5.0}, {"0.1", 0.1}, {"1E-2", 0.01}})
    EXPECT_EQ(realof(text), value) << text;
  for (const char* text : {"", " ", "x", "1.5.2", "0x10", "20abc", "1 2", "1,5", "nan", "inf", "-inf", "1e400", "+-1",
                           "--1", "+", ".", "e5", "1e", "5d3"})
    EXPECT_FALSE(realof(text)) << text;
}

TEST(Numbers, WholeOnesInAnyForm) {
  for (const auto& [text, value] : {std::pair{"1e3", 1000}, {"-7", -7}, {"5.0", 5}, {"2147483647", INT_MAX}})
    EXPECT_EQ(wholeof(text), value) << text;
  for (const char* text : {"1.5", "2147483648", "99999999999", "1e-1", "7x"}) EXPECT_FALSE(wholeof(text)) << text;
}

}  // namespace
}  // namespace kdr
