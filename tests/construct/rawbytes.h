// Writes binary raw files byte by byte, and makes MDM files from them in a child process.
#pragma once

#include <string>
#include <vector>

#include "construct/child.h"
#include "construct/construction.h"
#include "construct/levelsource.h"
#include "construct/numberbytes.h"
#include "construct/rawformats.h"
#include "construct/rawvariables.h"
#include "construct/template.h"

namespace kdr {

// The level-1 records of a file as read through its reader: the values of each, and the IDs.
struct Records {
  std::vector<std::vector<double>> values;
  std::vector<std::string> id3, id2;  // texts, or "%.0f" of numbers
};
struct Columns {
  const char* id3;
  const char* id2;
  std::vector<const char*> variables;
};

// Reads "file" as the level-1 file of a format, in this process. Type OTHER has its file type in `type`, with a slash.
inline Records readraw(const char* word, const std::string& bytes, const Columns& columns,
                       const std::string& type = "") {
  makefile("file", bytes);
  forgetraw();
  raw.reader = findreader(word);
  raw.level[0].filename = "file" + type;
  openraw(0);
  markid(0, level3idmark, columns.id3);
  markid(0, level2idmark, columns.id2);
  for (const char* name : columns.variables) markvariable(0, name);
  settleidkind();
  raw.reader->prepare(0);
  Records records;
  std::vector<double> values(columns.variables.size());
  Id id3{}, id2{};
  const auto shown = [](const Id& id) {
    char text[40];
    std::snprintf(text, sizeof text, "%.0f", id.number);
    return run.mdm.numericids ? std::string(text) : std::string(id.text.text);
  };
  while (readrecord(0, values.data(), &id3, &id2) == 0) {
    records.values.push_back(values);
    records.id3.push_back(shown(id3));
    records.id2.push_back(shown(id2));
  }
  forgetraw();
  return records;
}

// The end of a process that reads the file so.
inline ChildEnd refuseraw(const char* word, const std::string& bytes, const Columns& columns) {
  return runchild([&] { (void)readraw(word, bytes, columns); });
}

}  // namespace kdr
