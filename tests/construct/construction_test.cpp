#include "construct/construction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "construct/child.h"
#include "construct/levelsource.h"
#include "core/constants.h"
#include "data/unitreader.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "runmdm.h"

namespace kdr {
namespace {

constexpr double miss = missingcode;

// One raw record of any level.
struct Row {
  double id3, id2;
  std::vector<double> values;
};

// Raw data in memory, in the place of a format: IDs are numbers, or the same numbers as texts.
struct Memory {
  std::vector<Row> rows[3];
  std::size_t next[3] = {};
} memory;

void prepare(int level) {
  memory.next[level] = 0;
  raw.level[level].selected = raw.level[level].numvar;
}

Id made(double number) {
  Id id{};
  char text[32];
  std::snprintf(text, sizeof text, number == miss ? "" : "%.0f", number);
  id.text = paddedname(text, 12);
  if (run.mdm.numericids) id.number = number;
  return id;
}

int record(int level, double* values, Id* id3, Id* id2) {
  if (memory.next[level] == memory.rows[level].size()) return 1;
  const Row& row = memory.rows[level][memory.next[level]++];
  *id3 = made(row.id3);
  if (id2 != nullptr) *id2 = made(row.id2);
  std::copy(row.values.begin(), row.values.end(), values);
  return 0;
}

void close(int) {}

constexpr RawReader memoryreader{RawType::spss, "spss", 4, nullptr, prepare, record, close};

struct Job {
  std::vector<Row> level1, level2, level3;
  bool numeric = true;
  bool l1missing = false;
  bool deletenow = true;
  std::vector<double> codes = {};
};

void fillnames(Array<Name>& names, int level, std::size_t nvar) {
  names.reset(nvar + 1);
  for (std::size_t v = 0; v <= nvar; ++v) {
    char name[32];
    std::snprintf(name, sizeof name, "V%d%zu", level, v);
    names[v] = paddedname(name);
  }
}

void make(const Job& job, std::size_t nvar1 = 2, std::size_t nvar2 = 1, std::size_t nvar3 = 1) {
  startrun();
  run.id.waitseconds = -1;
  run.files.mdmfile = "made.mdm";
  run.mdm.numericids = job.numeric;
  run.mdm.l1missing = job.l1missing;
  run.mdm.deletednow = job.deletenow;
  raw.reader = &memoryreader;
  raw.missingcodes.reset(job.codes.size());
  std::copy(job.codes.begin(), job.codes.end(), raw.missingcodes.begin());
  memory = Memory{{job.level1, job.level2, job.level3}};
  const std::size_t nvar[] = {nvar1, nvar2, nvar3};
  Array<Name>* names[] = {&run.mdm.names1, &run.mdm.names2, &run.mdm.names3};
  for (int level = 0; level < 3; ++level) {
    raw.level[level].filename = "raw" + std::to_string(level + 1);
    raw.level[level].numvar = static_cast<int>(nvar[level]);
    fillnames(*names[level], level + 1, nvar[level]);
  }
  mkmdm();
}

// The blocks of a finished file, one line each: level-3 ID, level-2 ID, level-2 value, means, records.
void printunits() {
  run.mdm.stream = openfile("made.mdm", "rb");
  readrunmdm();
  UnitReader reader;
  UnitBlock block;
  startunits(reader, run.mdm, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
  const auto idtext = [](const Id& id) {
    return run.mdm.numericids ? std::to_string(static_cast<long>(id.number)) : leftname(id.text);
  };
  const auto show = [](double value) { value == missingcode ? std::printf(" .") : std::printf(" %g", value); };
  while (readunit(reader, block)) {
    std::printf("%s/%s %g [", idtext(block.id3).c_str(), idtext(block.id2).c_str(), block.level2[0]);
    for (int v = 0; v < run.mdm.nvar1; ++v) show(block.means[static_cast<std::size_t>(v)]);
    std::printf(" ]");
    for (int i = 0; i < block.nj * run.mdm.nvar1; ++i) show(block.records[static_cast<std::size_t>(i)]);
    std::printf("\n");
  }
  std::printf("rows:");
  for (int k = 0; k < run.mdm.nunits3; ++k)
    std::printf(" %s=%g", idtext(level3id(run.mdm, k)).c_str(), run.mdm.level3[static_cast<std::size_t>(k)]);
  std::printf("\nmeans:");
  for (const Array<double>* means : {&run.mdm.mean1, &run.mdm.mean2, &run.mdm.mean3})
    for (const double mean : *means) std::printf(" %g", mean);
  std::printf("\n");
}

struct Made {
  ChildEnd build;
  std::string log;
  std::string units;
};

Made makefrom(const Job& job) {
  makefile("made.mdm", "an older file");
  std::remove("KDR3MDM.STS");
  Made made;
  made.build = runchild([&] { make(job); });
  made.log = contents("KDR3MDM.STS");
  if (made.build.code == 0) made.units = runchild(printunits).words;
  return made;
}

// The log in front of its tables.
std::string headof(const std::string& log) { return log.substr(0, log.find("\n                      LEVEL-1")); }

const std::string extrawords = "\nThere are extra messages in KDR3MDM.STS.  Please examine this file.\n\n";

TEST(Construction, Merge) {
  Workplace workplace;
  const std::vector<Row> two = {{1, 0, {10}}, {2, 0, {20}}};
  const auto repeated = [](int level, int id) {
    char line[160];
    std::snprintf(line, sizeof line,
                  "Level-%d group %12d stands more than once in the level-%d file. Only its first row is used.", level,
                  id, level);
    return std::string(line);
  };
  const struct {
    const char* what;
    Job job;
    std::string units;
    std::string log = "";
  } cases[] = {
      {"units, means and grand means",
       {{{1, 1, {1, 5}}, {1, 1, {3, 7}}, {1, 2, {4, 8}}, {2, 1, {0, 2}}}, {{1, 1, {7}}, {1, 2, {8}}, {2, 1, {9}}}, two},
       "1/1 7 [ 2 6 ] 1 5 3 7\n1/2 8 [ 4 8 ] 4 8\n2/1 9 [ 0 2 ] 0 2\nrows: 1=10 2=20\nmeans: 2 5.5 8 15\n"},
      {"deletion at analysis time: only records without any value go; means are over nj",
       {{{1, 1, {1, miss}}, {1, 1, {miss, miss}}, {1, 1, {3, 5}}, {2, 1, {miss, 8}}},
        {{1, 1, {7}}, {2, 1, {9}}},
        two,
        true,
        true,
        false},
       "1/1 7 [ 2 2.5 ] 1 . 3 5\n2/1 9 [ 0 8 ] . 8\nrows: 1=10 2=20\nmeans: 2 6.5 8 15\n"},
      {"missing codes, one for each variable",
       {{{1, 1, {-9, -8}}, {1, 1, {-8, -9}}, {1, 1, {-9, 5}}}, {{1, 1, {-9}}}, two, false, true, false, {-9, -8}},
       "1/1 -9 [ -4 -2 ] -8 -9 . 5\nrows: 1=10\nmeans: -8 -2 -9 10\n"},
      {"a level-3 unit without a row is named once",
       {{{1, 1, {1, 1}}, {5, 1, {2, 2}}, {5, 2, {2, 2}}, {5, 3, {2, 2}}, {6, 1, {3, 3}}},
        {{1, 1, {1}}, {5, 1, {1}}, {5, 2, {1}}, {5, 3, {1}}, {6, 1, {2}}},
        two},
       "1/1 1 [ 1 1 ] 1 1\nrows: 1=10\nmeans: 1 1 1 10\n",
       " Group            5 not in level-3 file.\n Group            6 not in level-3 file.\n"},
      {"the same with texts",
       {{{1, 1, {1, 1}}, {5, 1, {2, 2}}, {5, 2, {2, 2}}}, {{1, 1, {1}}, {5, 1, {1}}, {5, 2, {1}}}, two, false},
       "1/1 1 [ 1 1 ] 1 1\nrows: 1=10\nmeans: 1 1 1 10\n",
       " Group            5 not in level-3 file.\n"},
      {"rows with missing values at levels 2 and 3; a level-3 row without an ID",
       {{{1, 1, {1, 1}}, {1, 2, {2, 2}}, {2, 1, {3, 3}}, {3, 1, {4, 4}}},
        {{1, 1, {miss}}, {1, 2, {6}}, {2, 1, {7}}, {3, 1, {8}}},
        {{miss, 0, {99}}, {1, 0, {10}}, {2, 0, {miss}}, {3, 0, {30}}}},
       "1/2 6 [ 2 2 ] 2 2\n3/1 8 [ 4 4 ] 4 4\nrows: 1=10 3=30\nmeans: 3 3 7 20\n",
       "1 level-3 records have no ID. They were passed over.\n Group            2 not in level-3 file.\n"
       "1 level-1 records have no level-2 row that counts. The first one is of unit 1 in unit 1.\n"},
      {"rows that repeat a unit: one line for each, and the variables that differ",
       {{{1, 1, {1, 1}}, {1, 2, {2, 2}}, {1, 3, {3, 3}}},
        {{1, 1, {5}}, {1, 1, {5}}, {1, 1, {6}}, {1, 1, {5}}, {1, 2, {miss}}, {1, 2, {7}}, {1, 3, {8}}, {1, 3, {8}}},
        {{1, 0, {10}}, {1, 0, {10}}, {1, 0, {11}}, {2, 0, {0}}, {2, 0, {0}}}},
       "1/1 5 [ 1 1 ] 1 1\n1/2 7 [ 2 2 ] 2 2\n1/3 8 [ 3 3 ] 3 3\nrows: 1=10\nmeans: 2 2 6.66667 10\n",
       repeated(3, 1) + " Its rows differ in V31.\n" + repeated(3, 2) + "\n" + repeated(2, 1) +
           " Its rows differ in V21.\n" + repeated(2, 3) + "\n"},
  };
  for (const auto& c : cases) {
    const Made made = makefrom(c.job);
    EXPECT_EQ(made.build.code, 0) << c.what;
    EXPECT_EQ(made.units, c.units) << c.what;
    EXPECT_EQ(headof(made.log), c.log) << c.what;
    EXPECT_EQ(made.build.words.ends_with(extrawords), !c.log.empty()) << c.what;
  }
}

TEST(Construction, Stops) {
  Workplace workplace;
  const std::vector<Row> one = {{1, 0, {10}}};
  const std::vector<Row> first = {{1, 1, {1, 1}}};
  const auto unsorted = [](int level, const std::string& id, int before, int behind, int row) {
    const std::string digit = std::to_string(level);
    return "\nThe level-" + digit + " file is not sorted!\nID " + id + "\nIn raw" + digit + ", ID " +
           std::to_string(before) + " comes before ID " + std::to_string(behind) + " (record " + std::to_string(row) +
           ").\n";
  };
  const struct {
    Job job;
    int code;
    std::string words;
    bool logged = true;  // the log has the same words
  } cases[] = {
      {{first, {{1, 1, {1}}}, {{2, 0, {1}}, {1, 0, {2}}}}, 100, unsorted(3, "1.000000", 2, 1, 2)},
      {{first, {{1, 1, {1}}}, {{2, 0, {1}}, {1, 0, {2}}}, false}, 100, unsorted(3, "           1", 2, 1, 2)},
      {{first, {{1, 1, {1}}}, {{1, 0, {1}}, {10, 0, {1}}, {2, 0, {2}}}, false},
       100,
       unsorted(3, "           2", 10, 2, 3) +
           "A shorter text ID has to come before a longer one: fill the IDs up with zeros, or sort by their length.\n"},
      {{{{2, 1, {1, 1}}, {1, 7, {1, 1}}}, {{2, 1, {1}}}, one}, 100, unsorted(1, "1.000000", 2, 1, 2)},
      {{{{1, 8, {1, 1}}, {1, 7, {1, 1}}}, {{1, 7, {1}}}, one}, 100, unsorted(1, "7.000000", 8, 7, 2)},
      {{first, {{1, 2, {1}}, {1, 1, {1}}}, one}, 100, unsorted(2, "1.000000", 2, 1, 2)},
      // Out of order only where the merge no longer looks.
      {{{{1, 1, {1, 1}}, {1, 5, {1, 1}}, {1, 6, {1, 1}}, {1, 5, {1, 1}}}, {{1, 1, {1}}}, one},
       100,
       unsorted(1, "5.000000", 6, 5, 4)},
      {{first, {{1, 1, {1}}, {3, 1, {1}}, {2, 1, {1}}}, one}, 100, unsorted(2, "2.000000", 3, 2, 3)},
      {{{{1, 1, {1, miss}}}, {{1, 1, {1}}}, one}, 100, "\nThere are missing data at level-1. Unable to continue.\n"},
      {{{}, {}, one}, 1, " raw1 is an empty file\n", false},
      {{first, {{1, 1, {miss}}}, one}, 1, " raw2 is an empty file\n", false},
  };
  for (const auto& c : cases) {
    const Made made = makefrom(c.job);
    EXPECT_EQ(made.build.code, c.code) << c.words;
    EXPECT_EQ(made.build.words, c.words);
    EXPECT_EQ(made.log, (c.logged ? c.words : "") + "The construction stopped here. No MDM file was made.\n");
    EXPECT_EQ(contents("made.mdm"), "an older file") << c.words;
  }
  const Made none = makefrom({{{3, 1, {1, 1}}}, {{3, 1, {1}}}, one});
  EXPECT_EQ(none.build.code, 100);
  EXPECT_EQ(none.log,
            " Group            3 not in level-3 file.\nNo groups left for analysis\n"
            "The first IDs of each file, level-3 ID first:\n"
            "  level 1                    level 2                    level 3\n"
            "             3            1             3            1             1\n");
  EXPECT_EQ(runchild([&] { make({{{1, 1, {}}}, {{1, 1, {1}}}, one}, 0); }).code, 100);  // all records are empty
  EXPECT_EQ(contents("KDR3MDM.STS"), "Level-2 group            1 has inadequate data\nNo groups left for analysis\n");
}

// Units larger than the first capacity, more level-3 rows than the first capacity: nothing is lost, and the tables of
// console and log agree with sums worked out here.
TEST(Construction, ManyRows) {
  Workplace workplace;
  for (const bool numeric : {true, false}) {
    Job job;
    job.numeric = numeric;
    long records = 0;
    for (int k = 0; k < 1203; ++k) {
      job.level3.push_back({100000.0 + k, 0, {k * 1.0}});
      job.level2.push_back({100000.0 + k, 1, {k % 10 * 1.0}});
      const int nj = k == 7 ? 201 : k % 4 == 0 ? 50 : 1;
      for (int i = 0; i < nj; ++i, ++records) job.level1.push_back({100000.0 + k, 1, {i % 2 * 1.0, 2.0}});
    }
    const Made made = makefrom(job);
    ASSERT_EQ(made.build.code, 0);
    const ChildEnd counts = runchild([&] {
      run.mdm.stream = openfile("made.mdm", "rb");
      readrunmdm();
      std::printf("%d %d %d %d", run.mdm.numl1rec, run.mdm.numl2rec, run.mdm.numl3rec, run.mdm.maxnj);
    });
    EXPECT_EQ(counts.words, std::to_string(records) + " 1203 1203 201");
    // 301 units of 50 records with 25 ones each, one of 201 with 100, the rest zeros: 7625 ones in 16152 records.
    const std::string table =
        "\n                      LEVEL-1 DESCRIPTIVE STATISTICS"
        "\n\n VARIABLE NAME       N       MEAN         SD         MINIMUM      MAXIMUM\n"
        "       V11         16152       0.47       0.50         0.00         1.00\n"
        "       V12         16152       2.00       0.00         2.00         2.00\n\n";
    EXPECT_EQ(made.build.words.substr(0, table.size()), table);
    EXPECT_EQ(made.log.substr(0, table.size()), table);
    // Level 3: 0 to 1202, with the standard deviation of the first n whole numbers, sqrt(n (n + 1) / 12).
    EXPECT_NE(made.log.find("       V31          1203     601.00     347.42         0.00      1202.00\n"),
              std::string::npos);
    EXPECT_NE(made.log.find("\nMDM template:  \nMDM file name: made.mdm\nDate:          "), std::string::npos);
  }
}

// A standard deviation of 1 around 1e9 and around -1e12.
TEST(Construction, StandardDeviationOfLargeValues) {
  Workplace workplace;
  Job job{{}, {{1, 1, {1}}}, {{1, 0, {10}}}};
  for (const double z : {-1.0, 0.0, 1.0, 1.0, 0.0, -1.0, 1.0, -1.0, std::sqrt(1.5), -std::sqrt(1.5)})
    job.level1.push_back({1, 1, {1e9 + z, z - 1e12}});
  const std::string log = makefrom(job).log;
  EXPECT_NE(log.find(" 1000000000.00       1.00 "), std::string::npos) << log;
  EXPECT_NE(log.find(" -1000000000000.00       1.00 "), std::string::npos) << log;
}

TEST(Construction, FilesThatCannotBe) {
  Workplace workplace;
  const Job job{{{1, 1, {1, 1}}}, {{1, 1, {1}}}, {{1, 0, {10}}}};
  std::filesystem::create_directory("made.mdm");
  ChildEnd outcome = runchild([&] { make(job); });
  EXPECT_EQ(outcome.code, 100);
  EXPECT_EQ(outcome.words, "Unable to open made.mdm for writing\n");
  std::filesystem::remove("made.mdm");

  // The new file must not take the place of what it is made from, whatever its name.
  makefile("raw2", "data");
  std::filesystem::create_symlink("raw2", "made.mdm");
  outcome = runchild([&] { make(job); });
  EXPECT_EQ(outcome.code, 100);
  EXPECT_EQ(outcome.words, "The MDM file made.mdm must not be one of the raw data files!\n");
  outcome = runchild([&] {
    raw.templatename = "./made.mdm";
    std::filesystem::remove("made.mdm");
    makefile("made.mdm", "data");
    make(job);
  });
  EXPECT_EQ(outcome.words, "The MDM file made.mdm must not be the template!\n");
  EXPECT_EQ(contents("raw2") + contents("made.mdm"), "datadata");

  if (std::filesystem::exists("/dev/full")) {
    outcome = runchild([&] {
      std::filesystem::remove("made.mdm");
      std::filesystem::create_symlink("/dev/full", "made.mdm");
      make(job);
    });
    EXPECT_EQ(outcome.code, 5);
    EXPECT_TRUE(outcome.words.ends_with(" Unable to write. Full disk?\n")) << outcome.words;
  }
}

TEST(Construction, ProcessedLines) {
  Workplace workplace;
  const Job job{{{1, 2, {2, 2}}}, {{1, 1, {miss}}, {1, 2, {6}}}, {{1, 0, {10}}, {2, 0, {miss}}}};
  const ChildEnd outcome = runchild([&] {
    make(job);
    printprocessed();
  });
  EXPECT_TRUE(
      outcome.words.ends_with("      1 level-1 records have been processed\n"
                              "      1 level-2 records have been processed\n"
                              "      1 level-3 records have been processed\n"
                              "1 level-2 cases were deleted due to missing data.\n"
                              "1 level-3 cases were deleted due to missing data.\n"))
      << outcome.words;
}

}  // namespace
}  // namespace kdr
