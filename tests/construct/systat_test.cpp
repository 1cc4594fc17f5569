#include "construct/readers/systat.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <limits>

#include "construct/numberbytes.h"
#include "construct/rawformats.h"
#include "construct/rawtest.h"
#include "construct/rawvariables.h"
#include "core/constants.h"

namespace kdr {
namespace {

std::string head(std::size_t variables, int type) {
  return lowbytes(static_cast<std::int16_t>(variables)) + lowbytes(std::int16_t{1}) +
         lowbytes(static_cast<std::int16_t>(type)) + "\x06";
}

// Pieces of 128 bytes with their length before and behind them; 0x81 for one that another follows.
std::string segmented(std::string data) {
  std::string text;
  while (data.size() > 128) {
    text += "\x81" + data.substr(0, 128) + "\x81";
    data.erase(0, 128);
  }
  const auto length = static_cast<char>(data.size());
  return text + length + data + length;
}

std::string namestext(const Table& table) {
  std::string text;
  for (const Column& column : table.columns) {
    const std::string name = fixed("  " + column.name + (column.text ? "$" : ""), 12);
    text += "\x0c" + name + "\x0c";
  }
  return text;
}

// Numbers first, then texts of 12 bytes.
std::string recordtext(const Table& table, const std::vector<Cell>& row, int type) {
  std::string data;
  for (std::size_t c = 0; c < row.size(); ++c)
    if (!table.columns[c].text) {
      const double value = std::get<double>(row[c]);
      data += type == 2 ? lowbytes(value) : lowbytes(static_cast<float>(value));
    }
  for (std::size_t c = 0; c < row.size(); ++c)
    if (table.columns[c].text) data += fixed(std::get<std::string>(row[c]), 12);
  return segmented(data);
}

std::string systatfile(const Table& table, int type = 2, bool comment = false) {
  std::string text = "\x4b\x06";
  if (comment)
    text += head(30, 0) + "H" + std::string(72, 'c') + "HH" + std::string(72, '$') + "H\x06" +
            head(table.columns.size(), type);
  else
    text += head(table.columns.size(), type);
  text += namestext(table);
  for (const auto& row : table.rows) text += recordtext(table, row, type);
  return text + "\x82";
}

// The study with `count` more numbers between its columns, so that a record takes more than one segment.
Table widened(const Table& table, int count) {
  Table wide = table;
  std::vector<Column> more;
  for (int i = 0; i < count; ++i) more.push_back({"F" + std::to_string(i)});
  wide.columns.insert(wide.columns.begin() + 1, more.begin(), more.end());
  for (auto& row : wide.rows) row.insert(row.begin() + 1, static_cast<std::size_t>(count), Cell{0.5});
  return wide;
}

const Recipe recipe{"systat", {"1.sys", "2.sys", "3.sys"}};

Recipe withtexts() {
  Recipe texts = recipe;
  texts.id3 = "t3$";
  texts.id2 = "T2$";
  return texts;
}

struct Systat : testing::Test {
  Workplace workplace;
  Study study = smallstudy();
  void SetUp() override {
    for (int i = 0; i < 3; ++i) makefile(recipe.file[i], systatfile(study.level[i], 2, i == 0));
  }
};

TEST_F(Systat, MakesTheFile) {
  // Numbers that end with a segment, texts that run over its end, three segments; numbers only.
  for (const int more : {0, 4, 11, 12, 17, 30}) {
    makefile("1.sys", systatfile(widened(study.level[0], more)));
    for (const Recipe& r : {recipe, withtexts()}) {
      const ChildEnd outcome = makemdm(templateof(r));
      EXPECT_EQ(outcome.code, 0) << more;
      EXPECT_EQ(outcome.words, "") << more;
      EXPECT_EQ(contents("shown"), studyshown(study, r.id3 == "t3$")) << more;
      const std::string first = contents("made.mdm");
      EXPECT_EQ(makemdm(contents(templatecopy)).code, 0);
      EXPECT_EQ(contents("made.mdm"), first);
    }
  }
  Table numbers = study.level[2];
  numbers.columns.erase(numbers.columns.begin() + 1);
  for (auto& row : numbers.rows) row.erase(row.begin() + 1);
  makefile("3.sys", systatfile(widened(numbers, 30)));  // 256 bytes: the last number ends a segment
  EXPECT_EQ(makemdm(templateof(recipe)).words, "");
  EXPECT_EQ(contents("shown"), studyshown(study, false));
}

TEST_F(Systat, SinglePrecision) {
  Study single = study;
  for (Table& table : single.level)
    for (auto& row : table.rows)
      for (std::size_t c = 0; c < row.size(); ++c)
        if (!table.columns[c].text && std::get<double>(row[c]) != missingcode)
          row[c] = static_cast<double>(static_cast<float>(std::get<double>(row[c])));
  for (int i = 0; i < 3; ++i) makefile(recipe.file[i], systatfile(study.level[i], 1));
  const ChildEnd outcome = makemdm(templateof(withtexts()));
  EXPECT_EQ(outcome.code, 0);
  // 1e60 is infinite as a single, and so missing.
  single.level[0].rows[1][6] = missingcode;
  EXPECT_EQ(contents("shown"), studyshown(single, true));
}

// Files that SYSTAT itself wrote, which R's package foreign brings along (Debian: r-cran-foreign). The sums are those
// of read.systat there.
TEST_F(Systat, FilesOfSystat) {
  const std::string place = "/usr/lib/R/library/foreign/files/";
  if (!std::filesystem::exists(place + "Iris.syd")) GTEST_SKIP() << "R's package foreign is not installed";
  const struct {
    const char* file;
    const char* id;
    std::vector<const char*> names;
    int records;
    std::vector<double> sums, last;
    const char* lastid;
  } cases[] = {
      {"Iris.syd",
       "SPECIES",
       {"SEPALLEN", "SEPALWID", "PETALLEN", "PETALWID"},
       150,
       {876.5, 458.6, 563.7, 179.9},
       {5.9, 3.0, 5.1, 1.8},
       "3"},
      {"HillRace.SYD",
       "RACE$",
       {"TIME", "DISTANCE", "CLIMB"},
       35,
       {121540.0, 263.5, 63536.0},
       {9590.0, 20.0, 5000.0},
       "MOFFAT CHASE"},
  };
  for (const auto& c : cases) {
    forgetraw();
    raw.reader = findreader("systat");
    raw.level[2].filename = place + c.file;
    openraw(2);
    markid(2, level3idmark, c.id);
    for (const char* name : c.names) markvariable(2, name);
    settleidkind();
    raw.reader->prepare(2);
    std::vector<double> values(c.names.size()), sums(c.names.size());
    Id id{};
    int records = 0;
    while (readrecord(2, values.data(), &id, nullptr) == 0) {
      ++records;
      for (std::size_t i = 0; i < values.size(); ++i) sums[i] += values[i];
    }
    EXPECT_EQ(records, c.records);
    EXPECT_EQ(idshown(id), c.lastid);
    EXPECT_EQ(values, c.last);
    for (std::size_t i = 0; i < sums.size(); ++i) EXPECT_NEAR(sums[i], c.sums[i], 1e-9) << c.names[i];
    forgetraw();
  }
}

TEST_F(Systat, OrderOfTheListAndRoundedIds) {
  Recipe other = recipe;
  other.names[0] = "LONGNAME\nX\nY\n";
  study.level[0].rows[2][1] = 10.9;
  study.level[0].rows[0][1] = 10.7;
  makefile("1.sys", systatfile(study.level[0]));
  study.level[2].rows.insert(study.level[2].rows.begin(), {missingcode, "", 5.0});  // goes, for want of an ID
  makefile("3.sys", systatfile(study.level[2]));
  EXPECT_EQ(makemdm(templateof(other)).code, 0);
  const std::string shown = contents("shown");
  EXPECT_NE(shown.find("Z\n1 0x1"), std::string::npos) << shown;
  EXPECT_EQ(shown.find("INTRCPT1\nLONGNAME\nX\nY\n"), 0U) << shown;
  EXPECT_NE(shown.find("1 10 0x1.4p+1\n 0x1.9b604"), std::string::npos) << shown;
  EXPECT_NE(shown.find("1 11 0x1.cp+1\n 0x0p+0 -0x1p-4 0x1.cp+2\n"), std::string::npos) << shown;
  const std::string first = contents("made.mdm");
  EXPECT_EQ(makemdm(contents(templatecopy)).code, 0);
  EXPECT_EQ(contents("made.mdm"), first);
}

TEST_F(Systat, NoNumbers) {
  const double infinity = std::numeric_limits<double>::infinity();
  Table none = study.level[0];
  for (std::size_t i = 0; i < 3; ++i) none.rows[i][4] = std::vector<double>{std::nan(""), infinity, -infinity}[i];
  for (auto& row : study.level[0].rows) row[4] = missingcode;
  for (const int type : {1, 2}) {
    makefile("1.sys", systatfile(study.level[0], type));
    EXPECT_EQ(makemdm(templateof(recipe)).code, 0);
    const std::string missing = contents("shown");
    makefile("1.sys", systatfile(none, type));
    EXPECT_EQ(makemdm(templateof(recipe)).code, 0);
    EXPECT_EQ(contents("shown"), missing);
  }
}

TEST_F(Systat, DataThatEndEarly) {
  const std::string whole = systatfile(study.level[0]);
  const std::string wide = systatfile(widened(study.level[0], 30));
  const std::string cut = "1.sys ends in the middle of record 4. That record does not count.\n" + extrawords;
  const auto damaged = [](int record) {
    return "1.sys is damaged: a length mark of record " + std::to_string(record) +
           " is wrong. Neither that record nor what follows it counts.\n" + extrawords;
  };
  const std::string open = whole.substr(0, whole.size() - 1);
  const std::string record = recordtext(study.level[0], study.level[0].rows[3], 2);
  const std::size_t second = open.size() - 3 * record.size();
  const std::size_t widerecord = recordtext(widened(study.level[0], 30), widened(study.level[0], 30).rows[0], 2).size();
  const std::size_t widesecond = wide.size() - 1 - 3 * widerecord;
  const struct {
    std::string text;
    std::string words;
    std::size_t records;
  } cases[] = {
      {whole.substr(0, whole.size() - 3), cut, 3},
      {whole.substr(0, whole.size() - 60), cut, 3},
      {wide.substr(0, wide.size() - 3), cut, 3},
      {wide.substr(0, wide.size() - 150), cut, 3},
      {open, "1.sys may be cut short: no end mark follows its record 4.\n" + extrawords, 4},
      {whole + "\x1a", "", 4},
      // What stands behind the end mark is no record, however much of it there is.
      {whole + record, "", 4},
      {whole + std::string(500, '\0'), "", 4},
      {open + std::string(500, '\x1a'), damaged(5), 4},
      // Lost or changed bytes within a record, at the second of three segments, and at the last one's end.
      {std::string(open).erase(second + 20, 8), damaged(2), 1},
      {std::string(open).replace(second, 1, "\x01"), damaged(2), 1},
      {std::string(wide).erase(widesecond + 20, 8), damaged(2), 1},
      {std::string(wide).replace(widesecond + 130, 1, "\x50"), damaged(2), 1},
      {std::string(wide).replace(widesecond + widerecord - 1, 1, "\x01"), damaged(2), 1},
  };
  for (const auto& c : cases) {
    makefile("1.sys", c.text);
    const ChildEnd outcome = makemdm(templateof(recipe));
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.words, c.words);
    Study left = study;
    left.level[0].rows.resize(c.records);
    left.level[1].rows.resize(c.records > 2 ? c.records - 1 : 1);
    left.level[2].rows.resize(c.records == 4 ? 2 : 1);
    EXPECT_EQ(contents("shown"), studyshown(left, false)) << c.words;
  }
}

// The list keeps the order of the answers, and names that a template could not hold are no choice.
TEST_F(Systat, Dialogue) {
  Table table = study.level[0];
  table.columns.insert(table.columns.end(), {{"#C"}, {""}, {"A\nB"}});
  for (auto& row : table.rows) row.insert(row.end(), {1.0, 2.0, 3.0});
  makefile("1.sys", systatfile(table));
  const std::string answers = "2\n1.sys\n2.sys\n3.sys\n3\n3\n4\n7\n5\n6\n0\n3\n4\n5\n0\n2\n3\n0\ny\na\nmade.mdm\n";
  const ChildEnd outcome = answermdm(answers);
  EXPECT_EQ(outcome.code, 0) << outcome.words;
  const std::string first = contents("made.mdm");
  const std::string shown = contents("shown");
  EXPECT_EQ(shown.find("INTRCPT1\nLONGNAME\nX\nY\n"), 0U) << shown;
  EXPECT_NE(shown.find("A TWELVE CHARS 0x1.cp+1\n 0x0p+0 -0x1p-4 0x1.cp+2\n"), std::string::npos) << shown;
  EXPECT_NE(outcome.words.find("For       T3$ enter  3"), std::string::npos) << outcome.words;
  EXPECT_NE(outcome.words.find("For LONGNAME  enter  7\n"
                               " 3 more cannot be chosen, since a template cannot hold their names.\n"),
            std::string::npos)
      << outcome.words;
  EXPECT_EQ(makemdm(contents(templatecopy)).code, 0);
  EXPECT_EQ(contents("made.mdm"), first);
}

// An MDM file that is there already outlives the words on a choice that cannot be.
TEST_F(Systat, ChoicesThatSpareTheFile) {
  Recipe character = recipe;
  character.names[0] = "T2$\nX\n";
  makefile("t.mdmt", templateof(character));
  makefile("made.mdm", "old");
  const ChildEnd refused = runchild([] {
    readtemplate("t.mdmt");
    mkmdm();
  });
  EXPECT_EQ(refused.code, 100);
  EXPECT_EQ(refused.words,
            "mdm variables must be numeric!\nVariable T2$ of the level-1 file is a character variable.\n");
  EXPECT_EQ(contents("made.mdm"), "old");
  Recipe none1 = recipe;
  none1.names[0] = "";
  const ChildEnd outcome = makemdm(templateof(none1));
  EXPECT_EQ(outcome.code, 100);
  EXPECT_EQ(outcome.words, "You have selected no level-1 variable, so that no level-1 record counts!\n");
}

TEST_F(Systat, Names) {
  // Nine characters with a $ are a name, and count by nine.
  Table table = study.level[0];
  table.columns[2].name = "ABCDEFGH";
  table.columns[3].name = "ABCDEFGI";
  table.columns[6].name = "ABCDEFGH";
  makefile("1.sys", systatfile(table));
  Recipe long1 = withtexts();
  std::string text = templateof(long1);
  const auto swap = [&text](const std::string& from, const std::string& to) {
    text.replace(text.find(from), from.size(), to);
  };
  swap("t3$", "abcdefgh$");
  swap("T2$", "ABCDEFGI$");
  swap("LONGNAME", "ABCDEFGH");
  EXPECT_EQ(makemdm(text).words, "");
  EXPECT_NE(contents("shown").find("ABCDEFGH\nINTRCPT2"), std::string::npos);
}

TEST_F(Systat, Refusals) {
  const std::string whole = systatfile(study.level[0]);
  const std::string empty = " 1.sys is an empty file\n";
  const std::string broken = "1.sys is no SYSTAT file, or it is cut short or damaged: ";
  const auto with = [&](std::size_t at, const std::string& bytes) {
    return std::string(whole).replace(at, bytes.size(), bytes);
  };
  Table largeid = study.level[0];
  largeid.rows[0][0] = 10000000000000.0;
  const std::string zero(1, '\0');
  const struct {
    std::string text;
    Recipe recipe;
    int code;
    std::string words;
  } cases[] = {
      {"", recipe, 1, broken + "its head is not whole.\n" + empty},
      {whole.substr(0, 8), recipe, 1, broken + "its head is not whole.\n" + empty},
      {with(6, zero), recipe, 1, broken + "its head is not whole.\n" + empty},  // a comment without an end
      {with(6, "\x03"), recipe, 1, broken + "its numbers are of no known type.\n" + empty},
      {with(2, zero), recipe, 1, broken + "it tells no number of variables.\n" + empty},
      {with(2, "\xff\xff"), recipe, 1, broken + "it tells no number of variables.\n" + empty},
      {whole.substr(0, 60), recipe, 1, broken + "its names are not whole.\n" + empty},
      {with(9 + 14 * 4 + 1, "NINECHARS"), recipe, 100, "\nVariable names limited to 8 characters.\n"},
      {whole.substr(0, 9 + 14 * 7), recipe, 1, "1.sys may be cut short: no end mark follows its record 0.\n" + empty},
      {systatfile(largeid), recipe, 100,
       "ID must be no more than 12 digits long\nIt stands in record 1 of the level-1 file 1.sys.\n"},
  };
  for (const auto& c : cases) {
    makefile("1.sys", c.text);
    const ChildEnd outcome = makemdm(templateof(c.recipe));
    EXPECT_EQ(outcome.code, c.code) << c.words;
    EXPECT_EQ(outcome.words, c.words);
  }
  std::remove("1.sys");
  ASSERT_EQ(mkfifo("1.sys", 0600), 0);
  EXPECT_EQ(makemdm(templateof(recipe)).words,
            "1.sys is no ordinary file. Raw data of this type cannot be read from it.\n");
}

}  // namespace
}  // namespace kdr
