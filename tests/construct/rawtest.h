// What the tests of the raw readers share: a small study, its templates, and the contents of the MDM file made from it.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <variant>
#include <vector>

#include "construct/child.h"
#include "construct/construction.h"
#include "construct/levelsource.h"
#include "construct/mdmdialogue.h"
#include "construct/template.h"
#include "data/mdm.h"
#include "data/unitreader.h"
#include "driver/files.h"
#include "runmdm.h"

namespace kdr {

struct Column {
  std::string name;
  bool text = false;
  int width = 8;
};
using Cell = std::variant<double, std::string>;
struct Table {
  std::vector<Column> columns;
  std::vector<std::vector<Cell>> rows;
};

// Three levels; each has its IDs as numbers (N3, N2) and as texts (T3, T2).
struct Study {
  Table level[3];
};
inline Study smallstudy() {
  const std::string a = "a", b = "BEE", p = "p", q = "twelve chars", r = "r";
  const std::vector<Column> ids = {{"N3"}, {"N2"}, {"T3", true, 4}, {"T2", true, 12}};
  Study study;
  study.level[0].columns = ids;
  study.level[0].columns.insert(study.level[0].columns.end(), {{"X"}, {"Y"}, {"LONGNAME"}});
  study.level[0].rows = {{1.0, 10.0, a, p, 0.1, -118.625, 1e-60},
                         {1.0, 10.0, a, p, 1.0 / 3.0, missingcode, 1e60},
                         {1.0, 11.0, a, q, -0.0625, 7.0, 0.0},
                         {2.0, 999999999999.0, b, r, missingcode, 4095.999, 3.0}};
  study.level[1].columns = ids;
  study.level[1].columns.push_back({"W"});
  study.level[1].rows = {{1.0, 10.0, a, p, 2.5}, {1.0, 11.0, a, q, 3.5}, {2.0, 999999999999.0, b, r, -1.5}};
  study.level[2].columns = {{"N3"}, {"T3", true, 4}, {"Z"}};
  study.level[2].rows = {{1.0, a, 0.7}, {2.0, b, 1e9 + 1.0 / 8.0}};
  return study;
}

struct Recipe {
  std::string kind;
  std::string file[3];
  std::string id3 = "N3", id2 = "N2";
  std::string names[3] = {"X\nY\nLONGNAME\n", "W\n", "Z\n"};
};
inline std::string templateof(const Recipe& recipe) {
  std::string text = std::string(templatehead) + "\nrawdattype:" + recipe.kind + "\n";
  for (int i = 0; i < 3; ++i) text += "l" + std::to_string(i + 1) + "fname:" + recipe.file[i] + "\n";
  text += "l1missing:y\ntimeofdeletion:analysis\nmdmname:made.mdm\n";
  for (int i = 0; i < 3; ++i) {
    const std::string level = std::to_string(i + 1);
    text += "*begin l" + level + "vars\nlevel3id:" + recipe.id3 + "\n";
    if (i < 2) text += "level2id:" + recipe.id2 + "\n";
    text += recipe.names[i] + "*end l" + level + "vars\n";
  }
  return text;
}

inline std::string idshown(const Id& id) {
  char text[64];
  if (run.mdm.numericids) {
    std::snprintf(text, sizeof text, "%.0f", id.number);
  } else {
    std::snprintf(text, sizeof text, "%s", id.text.text + std::strspn(id.text.text, " "));
  }
  return text;
}
inline std::string valuesshown(const double* values, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    char value[40];
    std::snprintf(value, sizeof value, values[i] == missingcode ? " ." : " %a", values[i]);
    text += value;
  }
  return text + "\n";
}

// All that made.mdm holds but names of files and kinds: names, level-3 rows, units. Values to the last bit.
inline std::string mdmshown() {
  run.mdm.stream = openfile("made.mdm", "rb");
  readrunmdm();
  const MdmData& mdm = run.mdm;
  std::string text;
  for (const Array<Name>* names : {&mdm.names1, &mdm.names2, &mdm.names3})
    for (const Name& name : *names) text += leftname(name) + "\n";
  for (int k = 0; k < mdm.nunits3; ++k)
    text += idshown(level3id(run.mdm, k)) + valuesshown(mdm.level3.data() + k * mdm.nvar3, mdm.nvar3);
  UnitReader reader;
  UnitBlock block;
  startunits(reader, mdm, mdm.stream, mdm.firstblock, mdm.nvar1, mdm.nvar2, true);
  while (readunit(reader, block)) {
    text += idshown(block.id3) + " " + idshown(block.id2) + valuesshown(block.level2.data(), mdm.nvar2);
    for (int i = 0; i < block.nj; ++i) text += valuesshown(block.records.data() + i * mdm.nvar1, mdm.nvar1);
  }
  return text;
}

// Makes the MDM file that `tell` fills in what is needed for. Its contents go to the file "shown", the words without
// the descriptive statistics are the outcome's.
inline ChildEnd makemdmof(const std::function<void()>& tell) {
  for (const char* path : {"shown", "made.mdm", templatecopy}) std::remove(path);
  ChildEnd outcome = runchild([&] {
    tell();
    mkmdm();
    makefile("shown", mdmshown());
  });
  const std::size_t statistics = outcome.words.find("\n                      LEVEL-1 DESCRIPTIVE STATISTICS");
  const std::size_t extra = outcome.words.find("\nThere are extra messages in ");
  if (statistics != std::string::npos)
    outcome.words =
        outcome.words.substr(0, statistics) + (extra == std::string::npos ? "" : outcome.words.substr(extra));
  return outcome;
}

// The same from a template, and from the answers to the dialogue.
inline ChildEnd makemdm(const std::string& text) {
  makefile("t.mdmt", text);
  return makemdmof([] { readtemplate("t.mdmt"); });
}
inline ChildEnd answermdm(const std::string& answers) {
  makefile("answers", answers);
  return makemdmof([] {
    if (std::freopen("answers", "r", stdin) == nullptr) _exit(99);
    mdmdialogue();
  });
}

inline const std::string extrawords = "\nThere are extra messages in KDR3MDM.STS.  Please examine this file.\n\n";

// What the small study must give, from the study itself.
inline std::string studyshown(const Study& study, bool textids) {
  std::string text = "INTRCPT1\nX\nY\nLONGNAME\nINTRCPT2\nW\nINTRCPT3\nZ\n";
  const auto id = [&](const std::vector<Cell>& row, std::size_t which, std::size_t ids) {
    if (!textids) {
      Id number{};
      number.number = std::get<double>(row[which]);
      run.mdm.numericids = true;
      return idshown(number);
    }
    std::string name = std::get<std::string>(row[which + ids]);
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return name;
  };
  const auto values = [](const std::vector<Cell>& row, std::size_t ids) {
    std::vector<double> numbers;
    for (std::size_t i = ids; i < row.size(); ++i) numbers.push_back(std::get<double>(row[i]));
    return valuesshown(numbers.data(), static_cast<int>(numbers.size()));
  };
  for (const auto& row : study.level[2].rows) text += id(row, 0, 1) + values(row, 2);
  for (const auto& unit : study.level[1].rows) {
    text += id(unit, 0, 2) + " " + id(unit, 1, 2) + values(unit, 4);
    for (const auto& row : study.level[0].rows)
      if (row[0] == unit[0] && row[1] == unit[1]) text += values(row, 4);
  }
  return text;
}

// A level-1 file of the small study that ends early or holds more: what is said, and how many of its records count.
struct EarlyEnd {
  std::string text, words;
  std::size_t records;
};
inline void expectends(const Recipe& recipe, const Study& study, const std::vector<EarlyEnd>& cases) {
  for (const EarlyEnd& c : cases) {
    makefile(recipe.file[0], c.text);
    const ChildEnd outcome = makemdm(templateof(recipe));
    EXPECT_EQ(outcome.code, 0) << c.words;
    EXPECT_EQ(outcome.words, c.words);
    Study left = study;
    left.level[0].rows.resize(c.records);
    left.level[1].rows.resize(c.records > 2 ? c.records - 1 : 1);
    left.level[2].rows.resize(c.records == 4 ? 2 : 1);
    EXPECT_EQ(contents("shown"), studyshown(left, false)) << c.words;
    EXPECT_NE(contents("KDR3MDM.STS").find(c.words.substr(0, c.words.find('\n'))), std::string::npos) << c.words;
  }
}

}  // namespace kdr
