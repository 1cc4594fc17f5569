#include "series/resultstore.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "construct/child.h"
#include "records.h"

namespace kdr {
namespace {

constexpr SubrunShape shape{2, 1, 2, true, true, 77};
constexpr std::size_t headsize = 132, marksize = 48;

struct ResultStore : testing::Test {
  Workplace workplace;
  static std::string stored() { return contents(storename); }
  static void setcontents(const std::string& bytes) { makefile(storename, bytes); }

  // A series whose data sets 0, 1, ... ended: true well, false with a failure.
  static void makeseries(const std::vector<bool>& ended, const SubrunShape& kind = shape) {
    ASSERT_FALSE(createstore(kind));
    for (std::size_t i = 0; i < ended.size(); ++i) {
      StoreHead head;
      const int index = static_cast<int>(i);
      if (i > 0) {
        ASSERT_EQ(joinstore(kind, index, head).consolewords, "");
      }
      if (ended[i]) {
        ASSERT_EQ(appendrecord(kind, index, numberedrecord(kind, index)).consolewords, "");
      }
    }
  }
  // The store is usable and holds just the records of these data sets.
  static void expectrecords(const std::vector<int>& sets, const SubrunShape& kind = shape) {
    StoreHead head;
    std::vector<SubrunRecord> records;
    ASSERT_EQ(readstore(kind, head, &records).consolewords, "");
    ASSERT_EQ(records.size(), sets.size());
    for (std::size_t i = 0; i < sets.size(); ++i)
      EXPECT_EQ(flattened(records[i]), flattened(numberedrecord(kind, sets[i]))) << i;
  }
  static std::string refusal(const SubrunShape& kind = shape) {
    StoreHead head;
    std::vector<SubrunRecord> records;
    return readstore(kind, head, &records).consolewords;
  }
};

TEST_F(ResultStore, RecordsComeBackInEveryShape) {
  for (const SubrunShape& kind : {shape, SubrunShape{1, 3, 4, false, false}, SubrunShape{3, 2, 1, true, false}}) {
    makeseries({true, false, true, true}, kind);
    expectrecords({0, 2, 3}, kind);
    EXPECT_EQ(stored().size(), headsize + 3 * static_cast<std::size_t>(recordsize(kind)) + marksize);
  }
}

// Offsets and widths of the head and of a record, worked out by hand.
TEST_F(ResultStore, LayoutOfTheFile) {
  makeseries({true, false, true});
  const std::string bytes = stored();
  const auto word = [&](std::size_t offset) {
    std::int32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
  };
  const auto real = [&](std::size_t offset) {
    double value = 0.0;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
  };
  EXPECT_EQ(word(0), 3);
  EXPECT_EQ(bytes.substr(4, 128), std::string("\1\0\1", 3) + std::string(125, '\0'));
  // 2 ints, sigma2, loglik, sigma2variance, taupi 4, taubeta 1, covariance 16, reliabilities 2 and 1, gamma 2, vgamma
  // 4, robust 4, 2 ints, chi-squares 2 and 1, and the 10 doubles of the population average
  const std::size_t size = 8 + 8 * (3 + 4 + 1 + 16 + 3 + 10) + 8 + 8 * (3 + 10);
  EXPECT_EQ(static_cast<std::size_t>(recordsize(shape)), size);
  const SubrunRecord third = numberedrecord(shape, 2);
  const std::size_t start = headsize + size;
  EXPECT_EQ(word(start), third.units2);
  EXPECT_EQ(word(start + 4), third.units3);
  EXPECT_EQ(real(start + 8), third.sigma2);
  EXPECT_EQ(real(start + 24), third.sigma2variance);
  EXPECT_EQ(real(start + 8 * 4), third.taupi[0]);
  EXPECT_EQ(real(start + 8 * 9), third.taucovariance[0]);
  EXPECT_EQ(real(start + 8 * 28), third.effects.gammahat[0]);
  EXPECT_EQ(word(start + 8 * 38), third.testunits2);
  EXPECT_EQ(real(start + 8 * 39), third.chisq2[0]);
  EXPECT_EQ(real(start + 8 * 42), third.popaverage.gammahat[0]);
  EXPECT_EQ(real(start + size - 8), third.popaverage.robust[3]);
}

// Every state in which a kill can leave the file while the third data set appends its record.
TEST_F(ResultStore, KilledWhileAppending) {
  makeseries({true, true, true});
  const std::string after = stored();
  makeseries({true, true, false});
  const std::string begun = stored();
  const auto size = static_cast<std::size_t>(recordsize(shape)), place = headsize + 2 * size;
  ASSERT_EQ(begun.size(), place + marksize);
  const std::string mark = begun.substr(place);
  std::string state = begun;
  state.resize(place + size);  // a hole up to the new mark
  for (std::size_t i = 0; i < marksize; ++i) {
    setcontents(state);
    expectrecords({0, 1});
    state += mark[i];
  }
  for (std::size_t i = place; i < place + size; ++i) {
    setcontents(state);
    expectrecords({0, 1});
    state[i] = after[i];
  }
  setcontents(state);  // all but the data set's byte
  expectrecords({0, 1});
  state[4 + 2] = 1;
  EXPECT_EQ(state, after);

  // From half a record, the series goes on: the same data set again, or the next one.
  std::string half = begun;
  half.resize(place + size / 2, 'x');
  half.resize(place + size);
  setcontents(half + mark);
  StoreHead head;
  EXPECT_EQ(joinstore(shape, 3, head).consolewords, "");
  EXPECT_EQ(head.nsets, 4);
  EXPECT_EQ(appendrecord(shape, 3, numberedrecord(shape, 3), false).consolewords, "");
  StoreHead ended;
  EXPECT_EQ(readstore(shape, ended, nullptr).consolewords, "");
  EXPECT_EQ(ended.mistatus[3], setunconverged);
  expectrecords({0, 1, 3});
}

// A store that lost its end is not pooled, wherever it was cut.
TEST_F(ResultStore, CutAnywhere) {
  const SubrunShape small{1, 1, 1, false, false};
  makeseries({true, true, true}, small);
  const std::string whole = stored();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    setcontents(whole.substr(0, size));
    EXPECT_NE(refusal(small).find("not whole"), std::string::npos) << size;
  }
}

TEST_F(ResultStore, DamagedHead) {
  makeseries({true, true});
  const std::string whole = stored();
  struct Damage {
    std::size_t offset;
    char value;
  };
  for (const Damage& damage :
       {Damage{0, 0}, Damage{1, 1}, Damage{4, 3}, Damage{4 + 2, 1}, Damage{5, 0}, Damage{whole.size() - 9, 1}}) {
    std::string bytes = whole;
    bytes[damage.offset] = damage.value;
    setcontents(bytes);
    StoreHead head;
    const bool forgotten = damage.offset == 5;  // as if the second record had half been written
    EXPECT_EQ(refusal().empty(), forgotten) << damage.offset;
    EXPECT_EQ(!joinstore(shape, 2, head), forgotten) << damage.offset;
  }
}

TEST_F(ResultStore, OfAnotherSeries) {
  EXPECT_NE(refusal().find("There is no result store"), std::string::npos);
  makeseries({true, true});
  for (SubrunShape other : {SubrunShape{1, 2, 2, true, true, 77}, SubrunShape{2, 1, 3, true, true, 77},
                            SubrunShape{2, 1, 2, false, true, 77}, SubrunShape{2, 1, 2, true, false, 77},
                            SubrunShape{2, 1, 2, true, true, 78}}) {
    const std::string bytes = stored();
    EXPECT_NE(refusal(other).find("another model"), std::string::npos);
    StoreHead head;
    EXPECT_NE(joinstore(other, 2, head).consolewords, "");
    EXPECT_NE(appendrecord(other, 2, emptyrecord(other)).consolewords, "");
    EXPECT_EQ(stored(), bytes);
  }
  ASSERT_FALSE(createstore(shape));  // a new series begins in the place of the old one
  expectrecords({});
}

TEST_F(ResultStore, IndicesThatAreRefused) {
  makeseries({true, false});
  StoreHead head;
  EXPECT_NE(joinstore(shape, 128, head).consolewords.find("at most 128 data sets"), std::string::npos);
  EXPECT_NE(joinstore(shape, 0, head).consolewords.find("has finished already"), std::string::npos);
  EXPECT_EQ(joinstore(shape, 1, head).consolewords, "");  // it failed, so it may try again
  EXPECT_EQ(head.nsets, 2);
  EXPECT_EQ(joinstore(shape, 127, head).consolewords, "");  // those between never began
  EXPECT_EQ(head.nsets, 128);
}

}  // namespace
}  // namespace kdr
