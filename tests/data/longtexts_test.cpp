#include "data/longtexts.h"

#include <gtest/gtest.h>

#include "data/mdm.h"

namespace kdr {
namespace {

const int counts[3] = {2, 0, 1};

LongTexts some() {
  LongTexts texts;
  texts.variables[0] = {{"größe in cm", "", {}}, {std::string(300, 'x'), "a label", {{1.0, "low"}, {-9.5, "none"}}}};
  texts.variables[2] = {{"", "of schools", {}}};
  texts.ids[1] = {"the first school of all", "B"};
  return texts;
}

// What is written is read; entries of later programs are passed over.
TEST(LongTexts, ComeBackWhole) {
  std::string section = textsection(some());
  const char later[] = {'z', 3, 0, 0, 0, 0, 0, 0, 0, 'a', 'b', 'c'};
  section.append(later, sizeof later);
  section[12] = static_cast<char>(section[12] + static_cast<char>(sizeof later));  // the length behind mark and version
  LongTexts texts;
  ASSERT_TRUE(readsection(section, counts, texts));
  EXPECT_EQ(texts.of(1, 1)->name, "größe in cm");
  EXPECT_EQ(texts.of(1, 2)->name, std::string(300, 'x'));
  EXPECT_EQ(texts.of(1, 2)->labels, some().variables[0][1].labels);
  EXPECT_EQ(texts.of(2, 1), nullptr);
  EXPECT_EQ(texts.of(3, 1)->label, "of schools");
  Id id{};
  id.number = 2.0;
  id.text = paddedname("1", 12);
  EXPECT_EQ(*texts.wholeid(3, id, true), "B");
  EXPECT_EQ(*texts.wholeid(3, id, false), "the first school of all");
  EXPECT_EQ(texts.wholeid(2, id, true), nullptr);
  id.number = 3.0;
  EXPECT_EQ(texts.wholeid(3, id, true), nullptr);
}

// No cut, and no byte that is changed, lets a length lead out of the section.
TEST(LongTexts, DamageIsSeen) {
  const std::string section = textsection(some());
  for (std::size_t cut = 0; cut < section.size(); ++cut) {
    LongTexts texts;
    EXPECT_FALSE(readsection(std::string_view(section).substr(0, cut), counts, texts)) << cut;
  }
  for (std::size_t at = 0; at < section.size(); ++at)
    for (const char c : {'\0', '\x7f', '\xff'}) {
      std::string changed = section;
      changed[at] = c;
      LongTexts texts;
      static_cast<void>(readsection(changed, counts, texts));
    }
  LongTexts texts;
  const int fewer[3] = {1, 0, 1};
  EXPECT_FALSE(readsection(section, fewer, texts));
}

}  // namespace
}  // namespace kdr
