// What the targets of binary raw files share: one file serves all three levels.
#pragma once

#include "construct/construction.h"
#include "construct/levelsource.h"
#include "construct/rawformats.h"
#include "construct/rawvariables.h"
#include "harness.h"

namespace kdr {

// Marks the first two columns of one kind as the IDs and up to 20 numeric columns as variables.
inline void markcolumns(int level, bool textids) {
  LevelSource& source = raw.level[level];
  clearmarks(level);
  int ids = level == 2 ? 1 : 2;
  int variables = 20;
  for (std::size_t row = 0; row < source.vartable.size(); ++row) {
    RawVariable& variable = source.vartable[row];
    if (variable.hidden) continue;
    if (ids > 0 && variable.text == textids) {
      variable.mark = level == 2 || ids == 2 ? level3idmark : level2idmark;
      --ids;
    } else if (!variable.text && variables > 0) {
      variable.mark = variablemark;
      source.chosen.resize(source.chosen.size() + 1);
      source.chosen[source.chosen.size() - 1] = static_cast<int>(row);
      --variables;
    }
  }
  if (ids > 0) stopwith("id variable not found!\n");
}

// Reads the file "raw". The bits of `choices` tell the kind of IDs and what is done about missing values. Type OTHER
// has its file type in `type`, with a slash.
inline int fuzzfile(const char* word, std::uint8_t choices, const std::string& type) {
  run.mdm = MdmData{};
  run.mdm.l1missing = (choices & 1) != 0;
  run.mdm.deletednow = (choices & 2) != 0;
  run.files.mdmfile = "a.mdm";
  raw.reader = findreader(word);
  runjob([&] {
    for (int level = 0; level < 3; ++level) {
      raw.level[level].filename = "raw" + type;
      openraw(level);
      markcolumns(level, (choices & 4) != 0);
    }
    settleidkind();
    for (Array<Name>* names : {&run.mdm.names1, &run.mdm.names2, &run.mdm.names3}) {
      names->reset(21);
      names->fill(paddedname("X"));
    }
    mkmdm();
  });
  if (run.mdm.stream != nullptr) std::fclose(run.mdm.stream);
  forgetraw();
  return 0;
}

// The first byte of the input holds the choices, the rest is the file.
inline int fuzzraw(const char* word, const std::uint8_t* data, std::size_t size, const std::string& type = "") {
  if (size == 0) return 0;
  startharness();
  writeinput("raw", std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  return fuzzfile(word, data[0], type);
}

}  // namespace kdr
