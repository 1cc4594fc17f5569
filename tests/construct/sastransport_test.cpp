#include "construct/readers/sastransport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>

#include "construct/numberbytes.h"
#include "construct/rawtest.h"
#include "core/constants.h"
#include "runmdm.h"

namespace kdr {
namespace {

TEST(IbmDouble, ByHand) {
  const struct {
    std::vector<unsigned char> field;
    double value;
  } cases[] = {
      {{0x41, 0x10, 0, 0, 0, 0, 0, 0}, 1.0},
      {{0xC2, 0x76, 0xA0, 0, 0, 0, 0, 0}, -118.625},
      {{0x40, 0x19, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99}, 0x1.9999999999999p-4},
      // 1 - 2^-56 is cut to 1 - 2^-53; rounded it would be 1.
      {{0x40, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 1.0 - 0x1p-53},
      {{0xC0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, -1.0 + 0x1p-53},
      {{0x42, 0x01, 0, 0, 0, 0, 0, 0}, 1.0},  // not normalised
      {{0x00, 0, 0, 0, 0, 0, 0, 0x01}, 0x1p-312},
      {{0x7F, 0x10, 0, 0, 0, 0, 0, 0}, 0x1p248},
      {{0, 0, 0, 0, 0, 0, 0, 0}, 0.0},
      {{0x42, 0x64, 0, 0}, 100.0},
      {{0xC1, 0x18}, -1.5},
      {{'.', 0, 0, 0, 0, 0, 0, 0}, missingcode},
      {{'A', 0, 0, 0}, missingcode},
      {{'Z', 0, 0, 0, 0, 0, 0, 0}, missingcode},
      {{'_', 0}, missingcode},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ibmdouble(c.field.data(), static_cast<int>(c.field.size())), c.value) << c.value;
}

// The writer: value = 0.fraction * 16^(exponent - 64), the doubles' 53 bits always fit.
std::string ibmfield(double value, int width) {
  std::string field(8, '\0');
  if (value == missingcode) {
    field[0] = 'B';
  } else if (value != 0.0) {
    int binary = 0;
    double fraction = std::frexp(std::fabs(value), &binary);
    while (binary % 4 != 0) {
      fraction /= 2;
      ++binary;
    }
    field[0] = static_cast<char>((value < 0 ? 128 : 0) + 64 + binary / 4);
    for (std::size_t i = 1; i < 8; ++i) {
      fraction *= 256;
      field[i] = static_cast<char>(static_cast<int>(fraction));
      fraction -= std::floor(fraction);
    }
  }
  return field.substr(0, static_cast<std::size_t>(width));
}

std::string high(unsigned long value, int bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(value >> (8 * bytes) & 255);
  return text;
}

std::string tocard(std::string text) { return fixed(text, (text.size() + 79) / 80 * 80); }

std::string member(const Table& table, std::size_t descriptor) {
  char count[5];
  std::snprintf(count, sizeof count, "%04zu", table.columns.size());
  std::string text =
      tocard("HEADER RECORD*******MEMBER  HEADER RECORD!!!!!!!000000000000000001600000000" +
             std::to_string(descriptor)) +
      tocard("HEADER RECORD*******DSCRPTR HEADER RECORD!!!!!!!000000000000000000000000000000") +
      tocard("SAS     STUDY   SASDATA 9.4") + tocard("24NOV26:12:00:00") +
      tocard(std::string("HEADER RECORD*******NAMESTR HEADER RECORD!!!!!!!000000") + count + "00000000000000000000");
  std::string names;
  unsigned long position = 0;
  for (const Column& column : table.columns) {
    const auto width = static_cast<unsigned long>(column.width);
    std::string name = high(column.text ? 2 : 1, 2) + high(0, 2) + high(width, 2) + high(0, 2) + fixed(column.name, 8);
    name = fixed(name, 84) + high(position, 4);
    name.resize(descriptor, '\0');
    names += name;
    position += width;
  }
  text += tocard(names) + tocard("HEADER RECORD*******OBS     HEADER RECORD!!!!!!!000000000000000000000000000000");
  std::string data;
  for (const auto& row : table.rows)
    for (std::size_t c = 0; c < row.size(); ++c) {
      const Column& column = table.columns[c];
      data += column.text ? fixed(std::get<std::string>(row[c]), static_cast<std::size_t>(column.width))
                          : ibmfield(std::get<double>(row[c]), column.width);
    }
  return text + tocard(data);
}

std::string sasfile(const Table& table, std::size_t descriptor = 140) {
  return tocard("HEADER RECORD*******LIBRARY HEADER RECORD!!!!!!!000000000000000000000000000000") +
         tocard("SAS     SAS     SASLIB  9.4") + tocard("24NOV26:12:00:00") + member(table, descriptor);
}

const Recipe recipe{"sas", {"1.xpt", "2.xpt", "3.xpt"}};

struct Sas : testing::Test {
  Workplace workplace;
  Study study = smallstudy();
  void SetUp() override {
    for (int i = 0; i < 3; ++i) makefile(recipe.file[i], sasfile(study.level[i], i == 1 ? 136 : 140));
  }
};

TEST_F(Sas, NarrowFieldsAndNumericIds) {
  Study narrow = study;
  narrow.level[2].columns[2].width = 3;  // Z
  narrow.level[2].rows = {{missingcode, "", 3.0}, {1.9, "a", 0.75}, {2.0, "b", missingcode}};
  makefile("3.xpt", sasfile(narrow.level[2]));
  const ChildEnd outcome = makemdm(templateof(recipe));
  EXPECT_EQ(outcome.code, 0);
  // The level-3 rows without an ID and without Z go, with the latter its unit; 1.9 becomes 1.
  EXPECT_NE(contents("shown").find("Z\n1 0x1.8p-1\n1 10"), std::string::npos) << contents("shown");
  EXPECT_EQ(
      outcome.words,
      "1 level-3 records have no ID. They were passed over.\n1 IDs of the level-3 file have a fraction, which does "
      "not count. The first one is 1.9 in record 2.\n" +
          extrawords);
}

TEST_F(Sas, DataThatEndEarly) {
  const std::string whole = sasfile(study.level[0]);
  const std::size_t width = 56;  // five numbers, 4 and 12 characters
  const std::size_t start = whole.size() - 3 * 80;
  ASSERT_EQ(whole.compare(start - 80, 23, "HEADER RECORD*******OBS"), 0);
  const std::string heads = whole.substr(0, start);
  const std::string data = whole.substr(start, 4 * width);
  const std::string name = "1.xpt";
  const std::string more = name + " holds more than one data set. Only the first one was read.\n" + extrawords;
  const std::vector<EarlyEnd> cases = {
      {whole.substr(0, 48) + "\n" + whole.substr(80), "", 4},  // a first card that ends with its line feed
      {heads + data.substr(0, 4 * width - 1),
       name + " ends in the middle of record 4. That record does not count.\n" + extrawords, 3},
      {heads + data, "", 4},  // no filler behind the last record
      {heads + data.substr(0, width) + std::string(width, ' ') + data.substr(2 * width),
       "Record 2 of " + name + " is blank, which ends the data. What stands behind it does not count.\n" + extrawords,
       1},
      {whole + member(study.level[1], 140), more, 4},
      {whole + sasfile(study.level[1]), more, 4},
      {whole + std::string(160, ' ') + member(study.level[1], 140), more, 4},
  };
  expectends(recipe, study, cases);
}

TEST_F(Sas, Refusals) {
  const std::string whole = sasfile(study.level[0]);
  const std::string seems = "The level-1 file does not seem to be a SAS transport file!\n";
  const std::string empty = " 1.xpt is an empty file\n";
  const std::string broken = "1.xpt is cut short or damaged: ";
  const auto with = [&](std::size_t at, const std::string& bytes) {
    return std::string(whole).replace(at, bytes.size(), bytes);
  };
  constexpr std::size_t firstname = 8 * 80;
  const std::size_t observations = whole.find("HEADER RECORD*******OBS");
  Table longid = study.level[0];
  longid.columns[3].width = 13;
  longid.rows[0][3] = "thirteen char";
  Table largeid = study.level[0];
  largeid.rows[0][1] = 10000000000000.0;
  Recipe texts = recipe;
  texts.id3 = "T3";
  texts.id2 = "T2";
  const struct {
    std::string text;
    Recipe recipe;
    int code;
    std::string words;
  } cases[] = {
      {"", recipe, 1, seems + empty},
      {with(20, "LIBV8  "), recipe, 1,
       seems + "It is one of version 8, which is read with rawdattype:other and the file type /sasx.\n" + empty},
      {whole.substr(0, 79), recipe, 1, seems + empty},
      {whole.substr(0, 300), recipe, 1, broken + "its heads are not whole.\n" + empty},
      {with(3 * 80 + 75, "141"), recipe, 100, seems},
      {whole.substr(0, 600), recipe, 1, broken + "its heads are not whole.\n" + empty},
      {with(7 * 80 + 54, "0000"), recipe, 1, broken + "it tells no number of variables.\n" + empty},
      {with(7 * 80 + 54, "9999"), recipe, 1, broken + "a variable is of no known type or width.\n" + empty},
      {with(firstname, high(3, 2)), recipe, 1, broken + "a variable is of no known type or width.\n" + empty},
      {with(firstname + 4, high(9, 2)), recipe, 1, broken + "a variable is of no known type or width.\n" + empty},
      {with(firstname + 4, high(0, 2)), recipe, 1, broken + "a variable is of no known type or width.\n" + empty},
      {with(firstname + 84, high(65, 4)), recipe, 1, broken + "a variable lies outside the record.\n" + empty},
      {with(firstname + 84, high(0xFFFFFFFF, 4)), recipe, 1, broken + "a variable lies outside the record.\n" + empty},
      {with(observations, "NO"), recipe, 1, seems + empty},
      {whole.substr(0, observations + 20), recipe, 1, seems + empty},
      {whole.substr(0, observations + 80), recipe, 1, empty},
      {sasfile(longid), texts, 100,
       "Your ID variable is longer than 12 characters.\nIt stands in record 1 of the level-1 file 1.xpt.\n"},
      {sasfile(largeid), recipe, 100,
       "ID must be no more than 12 digits long\nIt stands in record 1 of the level-1 file 1.xpt.\n"},
      {whole.substr(0, 40) + "\n", recipe, 1, seems + empty},
  };
  for (const auto& c : cases) {
    makefile("1.xpt", c.text);
    const ChildEnd outcome = makemdm(templateof(c.recipe));
    EXPECT_EQ(outcome.code, c.code) << c.words;
    EXPECT_EQ(outcome.words, c.words);
  }
}

TEST_F(Sas, Dialogue) {
  const std::string files = "3\n1.xpt\n2.xpt\n3.xpt\n";
  const ChildEnd outcome = answermdm(files + "1\n2\n7\n6\n5\n1\n2\n5\n1\n3\ny\na\nmade.mdm\n");
  EXPECT_EQ(outcome.code, 0) << outcome.words;
  EXPECT_EQ(contents("shown"), studyshown(study, false));
  Table wide = study.level[0];
  wide.columns[3].width = 13;
  makefile("1.xpt", sasfile(wide));
  const std::string noresponse = "Unable to get a proper response\n";
  const std::string longid = "Your ID variable is longer than 12 characters.\n";
  const std::string again = "You have already chosen that variable!\n";
  const auto repeated = [](const char* answer, int times) {
    std::string text;
    while (times-- > 0) text += answer;
    return text;
  };
  const struct {
    std::string answers;
    std::string prompt, words;
    std::size_t times;
  } cases[] = {
      {"3\n" + repeated("4\n", 10), " What variable is the level-2 ID? ", longid, 10},
      {"1\n2\n5\n" + repeated("5\n", 500), " Please specify level-1 variable # 2 (enter 0 to end): ", again, 499}};
  for (const auto& c : cases) {
    const ChildEnd refused = answermdm(files + c.answers);
    EXPECT_EQ(refused.code, 14);
    std::size_t times = 0;
    for (std::size_t at = 0; (at = refused.words.find(c.prompt + c.words, at)) != std::string::npos; ++at) ++times;
    EXPECT_EQ(times, c.times);
    EXPECT_EQ(refused.words.substr(refused.words.size() - noresponse.size()), noresponse);
  }
}

TEST(SasConvert, RunsTheJob) {
  Workplace workplace;
  // A stand-in for SAS that keeps the job and makes nothing.
  makefile("sas", "#!/bin/sh\ncp \"$1\" job\nprintf x > xyzzy.log\n");
  chmod("sas", 0755);
  setenv("PATH", (workplace.place.string() + ":/usr/bin:/bin").c_str(), 1);
  const std::string question =
      "I don't see chem.ssp, but I do see chem.ssd.\nWould you like me to convert it to a transport file? ";
  const auto convert = [](const char* path, const char* answer) {
    makefile("answers", answer);
    std::remove("xyzzy.log");
    return runchild([path] {
      if (std::freopen("answers", "r", stdin) == nullptr) return;
      std::printf(sasconvert(path) ? "done" : "not done");
    });
  };
  EXPECT_EQ(convert("chem.xpt", "y\n").words, "not done");
  EXPECT_EQ(convert("chem.ssp", "y\n").words, "not done");
  makefile("chem.ssd", "data set");
  EXPECT_EQ(convert("chem.ssp", "y\n").words, question + "Give me a moment to run the SAS job...\nnot done");
  EXPECT_FALSE(std::filesystem::exists("xyzzy.sas"));
  // Files of the user's own, and names that would be more than a name in a job.
  makefile("xyzzy.sas", "mine");
  EXPECT_EQ(convert("chem.ssp", "y\n").words,
            question + "The SAS job would overwrite xyzzy.sas. Please rename it.\nnot done");
  EXPECT_EQ(contents("xyzzy.sas"), "mine");
  std::remove("xyzzy.sas");
  std::remove("xyzzy.log");
  const ChildEnd full = runchild([] {  // the disk takes none of the job
    limitfiles(8);
    if (std::freopen("answers", "r", stdin) != nullptr) (void)sasconvert("chem.ssp");
  });
  EXPECT_EQ(full.code, 5);
  EXPECT_FALSE(std::filesystem::exists("xyzzy.sas"));
  makefile("x; endsas.ssd", "data set");
  EXPECT_TRUE(convert("x; endsas.ssp", "y\n")
                  .words.ends_with("x; endsas is no name that a SAS job can have for a data set.\nnot done"));
  const struct {
    const char* dataset;
    const char* transport;
    std::string job;
  } elsewhere[] = {
      {"./chem.ssd", "./chem.ssp",
       "'././chem.ssp';\nlibname fileout '.';\nproc copy in=fileout out=tranfile;\nselect chem;"},
      {"old.ssp/pupils.ssd", "old.ssp/pupils.ssp",
       "'./old.ssp/pupils.ssp';\nlibname fileout 'old.ssp';\nproc copy in=fileout out=tranfile;\nselect pupils;"},
      {"it's/chem.ssd", "it's/chem.ssp",
       "'./it''s/chem.ssp';\nlibname fileout 'it''s';\nproc copy in=fileout out=tranfile;\nselect chem;"},
  };
  for (const auto& c : elsewhere) {
    std::filesystem::create_directories(std::filesystem::path(c.dataset).parent_path());
    makefile(c.dataset, "data set");
    (void)convert(c.transport, "y\n");
    EXPECT_EQ(contents("job"), "libname tranfile sasv5xpt " + c.job + "\nrun;\n");
  }
}

}  // namespace
}  // namespace kdr
