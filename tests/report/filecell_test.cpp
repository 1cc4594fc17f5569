#include "report/filecell.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace {

using namespace kdr;

TEST(FileCell, KeepsItsWidthAndTheValue) {
  for (const int width : {12, 13, 15})
    for (double magnitude = 1e-30; magnitude < 1e30; magnitude *= 3.7)
      for (const double value : {magnitude, -magnitude}) {
        if (width == 12 && value < 0.0) continue;  // for variances
        const std::string cell = filecell(value, width, width == 15 ? 7 : 5);
        EXPECT_EQ(cell.size(), static_cast<std::size_t>(width)) << cell;
        EXPECT_NEAR(std::strtod(cell.c_str(), nullptr), value, 1e-7 * magnitude) << cell;
      }
}

TEST(FileCell, IsFixedWhereThatKeepsTheValue) {
  EXPECT_EQ(filecell(1.25, 12, 5), "     1.25000");
  EXPECT_EQ(filecell(-123.4567891, 15, 7), "   -123.4567891");
  EXPECT_EQ(filecell(0.0, 13, 6), "     0.000000");
  EXPECT_EQ(filecell(4e-9, 15, 7), "  4.0000000E-09");
}

}  // namespace
