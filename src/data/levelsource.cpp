#include "data/levelsource.h"

#include <strings.h>

#include "data/readers/ascii.h"
#include "data/readers/other.h"
#include "data/readers/sastransport.h"
#include "data/readers/spss.h"
#include "data/readers/stata.h"
#include "data/readers/systat.h"

namespace kdr {

RawData raw;

namespace {

constexpr RawReader readers[] = {
    {2, "ascii", 5, "ASCII", openascii, prepareascii, asciirecordof, closeascii},
    {3, "systat", 6, "SYSTAT", opensystat, preparesystat, systatrecord, closesystat},
    {5, "sas", 3, "SAS", opensas, preparesas, sasrecord, closesas},
    {6, "spss", 4, "SPSS", openspss, preparespss, spssrecord, closespss},
    {8, "stata", 4, "Stata", openstata, preparestata, statarecord, closestata},
    {9, "other", 5, "OTHER", openother, prepareother, strecord, closeother},
};

}  // namespace

const RawReader* findreader(const std::string& value) {
  for (const RawReader& reader : readers)
    if (strncasecmp(value.c_str(), reader.word, reader.match) == 0) return &reader;
  return nullptr;
}

void openraw(int level) {
  raw.level[level].opened = true;
  raw.reader->open(level);
}

void closeraw(int level) {
  if (raw.level[level].opened) raw.reader->close(level);
  raw.level[level].opened = false;
}

int readrecord(int level, double* values, Id* id3, Id* id2) { return raw.reader->record(level, values, id3, id2); }

void forgetraw() {
  for (int level = 0; level < 3; ++level) closeraw(level);
  raw = RawData{};
}

}  // namespace kdr
