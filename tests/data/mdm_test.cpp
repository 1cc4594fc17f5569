#include "data/mdm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "construct/child.h"
#include "construct/numberbytes.h"
#include "data/unitreader.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "runmdm.h"

namespace kdr {
namespace {

// An MDM file put together field by field: two level-1, one level-2 and two level-3 variables, three units in two
// level-3 units with 1, 2 and 1 records.
struct Sample {
  float version = 7.01F;
  int numl1var = 2, numl2var = 1, numl3var = 2, numl1rec = 4, numl2rec = 3, numl3rec = 2;
  int l1missing = 1, timeofdeletion = 0, mdmtype = 2, rawdattype = 2, maxnj = 2, fnamelen = 20;
  bool numeric = false;
  std::string name = "       X    ";
  std::string groups = "001";  // level-3 row of each unit
  int nj[3] = {1, 2, 1};

  [[nodiscard]] std::string id(int n) const {
    return numeric ? lowbytes(100.0 + n) : fixed("          A" + std::to_string(n), 13, '\0');
  }
  [[nodiscard]] std::string file() const {
    std::string out = "MXKDR3" + lowbytes(version) + lowbytes(numl1var) + lowbytes(numl2var) + lowbytes(numl3var) +
                      lowbytes(numl1rec) + lowbytes(numl2rec) + lowbytes(numl3rec) + lowbytes(l1missing) +
                      lowbytes(timeofdeletion);
    if (version > 6.295) out += lowbytes(mdmtype);
    out += lowbytes(numeric ? -rawdattype : rawdattype) + lowbytes(maxnj);
    out += fixed("INTRCPT1    ", 13, '\0') + fixed(name, 13, '\0') + fixed("       Y    ", 13, '\0');
    out += fixed("INTRCPT2    ", 13, '\0') + fixed("       W    ", 13, '\0');
    out += fixed("INTRCPT3    ", 13, '\0') + fixed("      Z1    ", 13, '\0') + fixed("      Z2    ", 13, '\0');
    out += lowbytes(fnamelen);
    for (const char* raw : {"one.dat", "two.dat", "three.dat"})
      out += fixed(raw, static_cast<std::size_t>(fnamelen > 0 ? fnamelen : 20), '\0');
    for (const double mean : {1.5, 2.5, 3.5, 4.5, 5.5}) out += lowbytes(mean);
    out += id(1) + id(2);
    for (const double z : {31.0, 32.0, 33.0, 34.0}) out += lowbytes(z);
    double next = 0.0;
    for (int j = 0; j < 3; ++j) {
      out += lowbytes(nj[j]) + lowbytes(-1.0 - j) + lowbytes(-2.0 - j);
      for (int i = 0; i < 2 * nj[j]; ++i) out += lowbytes(next++);
      out += id(groups[static_cast<std::size_t>(j)] - '0' + 1) + id(5 + j) + lowbytes(20.0 + j);
    }
    return out;
  }
};

void readall() {
  run.files.mdmfile = "a.mdm";
  run.mdm.stream = openfile("a.mdm", "rb");
  readrunmdm();
  UnitReader reader;
  UnitBlock block;
  startunits(reader, run.mdm, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
  while (readunit(reader, block)) continue;
  stopif(reader.failure);
}

ChildEnd readfile(const std::string& file) {
  makefile("a.mdm", file);
  return runchild(readall);
}

struct MdmFile : testing::Test {
  Workplace workplace;
  ~MdmFile() override {
    if (run.mdm.stream != nullptr) std::fclose(run.mdm.stream);
    run.mdm = MdmData{};
  }
  void open(const std::string& file) {
    makefile("a.mdm", file);
    run.mdm.stream = openfile("a.mdm", "rb");
    readrunmdm();
  }
};

TEST_F(MdmFile, HeadAndTables) {
  for (const bool numeric : {false, true}) {
    Sample sample;
    sample.numeric = numeric;
    open(sample.file());
    const MdmData& mdm = run.mdm;
    EXPECT_EQ(mdm.nvar1, 2);
    EXPECT_EQ(mdm.nvar2, 1);
    EXPECT_EQ(mdm.nvar3, 2);
    EXPECT_EQ(mdm.nunits1, 4);
    EXPECT_EQ(mdm.nunits2, 3);
    EXPECT_EQ(mdm.nunits3, 2);
    EXPECT_TRUE(mdm.l1missing);
    EXPECT_FALSE(mdm.deletednow);
    EXPECT_EQ(mdm.mdmtype, MdmType::growth);
    EXPECT_EQ(mdm.rawdattype, RawType::ascii);
    EXPECT_EQ(mdm.numericids, numeric);
    EXPECT_EQ(mdm.maxnj, 2);
    EXPECT_STREQ(mdm.names1[2].text, "       Y    ");
    EXPECT_STREQ(mdm.names3[0].text, "INTRCPT3    ");
    EXPECT_EQ(mdm.fnames[2], "three.dat");
    EXPECT_EQ(mdm.mean1[1], 2.5);
    EXPECT_EQ(mdm.mean2[0], 3.5);
    EXPECT_EQ(mdm.mean3[1], 5.5);
    EXPECT_EQ(mdm.level3[3], 34.0);
    EXPECT_EQ(mdm.ncol1, 3);
    EXPECT_EQ(mdm.maxbeta, 4);
    EXPECT_EQ(level3id(run.mdm, 1).number, numeric ? 102.0 : 0.0);
    EXPECT_STREQ(level3id(run.mdm, 1).text.text, numeric ? "" : "          A2");
    EXPECT_EQ(sameid(level3id(run.mdm, 0), level3id(run.mdm, 1), run.mdm.numericids), false);
  }
}

TEST_F(MdmFile, OlderVersionHasNoType) {
  Sample sample;
  sample.version = 6.0F;
  sample.l1missing = 0;
  open(sample.file());
  EXPECT_EQ(run.mdm.mdmtype, MdmType::ordinary);
  EXPECT_EQ(run.mdm.maxnj, 2);
  EXPECT_EQ(run.mdm.fnames[0], "one.dat");
  EXPECT_TRUE(run.mdm.deletednow);  // complete data: nothing left to delete
}

TEST_F(MdmFile, UnitsInOrderAheadAndBack) {
  for (const bool numeric : {false, true}) {
    Sample sample;
    sample.numeric = numeric;
    open(sample.file());
    UnitReader reader;
    UnitBlock block;
    startunits(reader, run.mdm, run.mdm.stream, run.mdm.firstblock, 2, 1, true);
    ASSERT_TRUE(readunit(reader, block));
    EXPECT_EQ(block.nj, 1);
    EXPECT_EQ(block.records[1], 1.0);
    const long long here = unitposition(reader);
    ASSERT_TRUE(skimunit(reader, block));
    ASSERT_TRUE(skimunit(reader, block));
    EXPECT_EQ(block.level2[0], 22.0);
    EXPECT_TRUE(sameid(block.id3, level3id(run.mdm, 1), run.mdm.numericids));
    EXPECT_FALSE(skimunit(reader, block));
    seekunit(reader, here);
    ASSERT_TRUE(readunit(reader, block));
    EXPECT_EQ(block.nj, 2);
    EXPECT_EQ(block.means[1], -3.0);
    EXPECT_EQ(block.records[0], 2.0);
    EXPECT_EQ(block.records[3], 5.0);
    EXPECT_EQ(block.level2[0], 21.0);
    EXPECT_TRUE(sameid(block.id3, level3id(run.mdm, 0), run.mdm.numericids));
    ASSERT_TRUE(readunit(reader, block));
    EXPECT_EQ(block.records[1], 7.0);
    EXPECT_FALSE(readunit(reader, block));
  }
}

// Units of many sizes, below and above the reader's buffer, come back as they were written, with and without means.
TEST_F(MdmFile, BlocksOfAllSizes) {
  std::mt19937 random(11);
  run.mdm.maxnj = 70000;
  for (const bool withmeans : {false, true}) {
    const ScratchFile file = scratchopen();
    UnitBlock unit;
    unit.means.reset(3);
    unit.records.reset(3 * 70000);
    unit.level2.reset(2);
    const int sizes[] = {1, 70000, 3, 43690, 43691, 43689, 2, 10000, 10000, 10000, 10000, 10000, 1};
    for (const int nj : sizes) {
      unit.nj = nj;
      for (std::size_t i = 0; i < 3 * static_cast<std::size_t>(nj); ++i) unit.records[i] = nj + 0.001 * double(i);
      unit.means[2] = nj;
      unit.level2[1] = -nj;
      unit.id2.text = paddedname(std::to_string(nj), 12);
      writeunit(file.get(), unit, 3, 2, withmeans, false);
    }
    UnitReader reader;
    UnitBlock block;
    startunits(reader, run.mdm, file.get(), 0, 3, 2, withmeans);
    for (const int nj : sizes) {
      if (random() % 3 == 0) {
        const long long here = unitposition(reader);
        ASSERT_TRUE(skimunit(reader, block));
        EXPECT_EQ(block.level2[1], -nj);
        seekunit(reader, here);
      }
      ASSERT_TRUE(readunit(reader, block));
      ASSERT_EQ(block.nj, nj);
      const std::size_t last = 3 * static_cast<std::size_t>(nj) - 1;
      EXPECT_EQ(block.records[0], nj);
      EXPECT_EQ(block.records[last], nj + 0.001 * double(last));
      EXPECT_EQ(block.means[2], withmeans ? nj : 0);
      EXPECT_EQ(leftname(block.id2.text), std::to_string(nj));
    }
    EXPECT_FALSE(readunit(reader, block));
  }
}

TEST_F(MdmFile, RefusesWhatIsNone) {
  Sample old;
  Sample edge;
  old.version = 5.30F;
  edge.version = 5.309F;  // as a double a little above the limit
  const struct {
    std::string file;
    int code;
    const char* words;
  } cases[] = {
      {"", 100, "Not a valid mdm file.\n"},
      {"MXKDR2" + Sample{}.file().substr(6), 100, "Not a valid mdm file.\n"},
      {old.file(), 100, "Sorry, you will have to remake this ssm file.\n"},
      {edge.file(), 0, ""},
      {Sample{}.file(), 0, ""},
      {Sample{}.file() + "x", 100, "The mdm file a.mdm is damaged: it is longer than its head tells.\n"},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = readfile(c.file);
    EXPECT_EQ(outcome.code, c.code) << c.words;
    EXPECT_EQ(outcome.words, c.words);
  }
}

TEST_F(MdmFile, RefusesEveryTruncation) {
  for (const bool numeric : {false, true}) {
    Sample sample;
    sample.numeric = numeric;
    const std::string whole = sample.file();
    for (std::size_t length = 0; length < whole.size(); ++length) {
      const ChildEnd outcome = readfile(whole.substr(0, length));
      ASSERT_EQ(outcome.code, 100) << length;
      ASSERT_EQ(std::count(outcome.words.begin(), outcome.words.end(), '\n'), 1) << length << outcome.words;
      ASSERT_NE(outcome.words.find("mdm file"), std::string::npos) << length << outcome.words;
    }
  }
}

TEST_F(MdmFile, RefusesWhatDoesNotAgree) {
  const struct {
    const char* what;
    void (*spoil)(Sample& sample);
  } cases[] = {
      {"its numbers of variables cannot be", [](Sample& s) { s.numl2var = -1; }},
      {"its numbers of variables cannot be", [](Sample& s) { s.numl1var = -2; }},
      {"it is cut off", [](Sample& s) { s.numl3var = 2147483647; }},
      {"it has too many variables", [](Sample& s) { s.numl1var = s.numl2var = 2147483647; }},
      {"it is cut off", [](Sample& s) { s.numl1rec = 2147483647; }},
      {"its numbers of records and units do not agree", [](Sample& s) { s.numl2rec = 5; }},
      {"its numbers of records and units do not agree", [](Sample& s) { s.numl3rec = -1; }},
      {"it is longer than its head tells", [](Sample& s) { s.numl1rec = 3; }},
      {"its largest unit has an impossible size", [](Sample& s) { s.maxnj = 0; }},
      {"its largest unit has an impossible size", [](Sample& s) { s.maxnj = 5; }},
      {"its type is unknown", [](Sample& s) { s.mdmtype = 5; }},
      {"it has two levels, and data of a third one", [](Sample& s) { s.mdmtype = 4; }},
      {"its raw data type is unknown", [](Sample& s) { s.rawdattype = 0; }},
      {"its raw data type is unknown", [](Sample& s) { s.rawdattype = -2147483647 - 1; }},
      {"a variable name has no end", [](Sample& s) { s.name = "0123456789ABC"; }},
      {"its file names have no room", [](Sample& s) { s.fnamelen = -1; }},
      {"a file name has no end", [](Sample& s) { s.fnamelen = 4; }},
      {"a level-2 unit has an impossible size", [](Sample& s) { s.maxnj = 1; }},
      {"its level-2 units do not follow its level-3 table", [](Sample& s) { s.groups = "000"; }},
      {"its level-2 units do not follow its level-3 table", [](Sample& s) { s.groups = "010"; }},
      {"its level-2 units do not follow its level-3 table", [](Sample& s) { s.groups = "111"; }},
      {"its level-2 units do not follow its level-3 table", [](Sample& s) { s.groups = "003"; }},
  };
  for (const auto& c : cases) {
    Sample sample;
    c.spoil(sample);
    const ChildEnd outcome = readfile(sample.file());
    EXPECT_EQ(outcome.code, 100) << c.what;
    EXPECT_EQ(outcome.words, std::string("The mdm file a.mdm is damaged: ") + c.what + ".\n");
  }
  // The length agrees with the head, but the blocks share it out otherwise: 12 bytes and two records fewer.
  Sample sample;
  std::string file = sample.file();
  const std::size_t second = file.size() - (4 + 16 + 16 + 13 + 13 + 8) - (4 + 16 + 32 + 13 + 13 + 8);
  for (const int nj : {0, -1, 3, 1, 2147483647}) {
    std::string spoiled = file;
    std::memcpy(&spoiled[second], &nj, sizeof nj);
    EXPECT_EQ(readfile(spoiled).code, 100) << nj;
  }
}

// No single changed byte leads to more than an orderly end.
TEST_F(MdmFile, SurvivesAnyByte) {
  const std::string whole = Sample{}.file();
  std::mt19937 random(3);
  for (int n = 0; n < 400; ++n) {
    std::string spoiled = whole;
    spoiled[random() % whole.size()] = static_cast<char>(random());
    const int code = readfile(spoiled).code;
    EXPECT_TRUE(code == 0 || code == 100) << n << ": " << code;
  }
}

}  // namespace
}  // namespace kdr
