#include "construct/levelsource.h"

#include <strings.h>

#include "construct/readers/ascii.h"
#include "construct/readers/other.h"
#include "construct/readers/sastransport.h"
#include "construct/readers/spss.h"
#include "construct/readers/stata.h"
#include "construct/readers/systat.h"
#include "driver/runrecord.h"

namespace kdr {

RawData raw;

namespace {

constexpr RawReader readers[] = {
    {RawType::ascii, "ascii", 5, openascii, prepareascii, asciirecordof, closeascii},
    {RawType::systat, "systat", 6, opensystat, settlevariables, systatrecord, closesystat},
    {RawType::sas, "sas", 3, opensas, settlevariables, sasrecord, closesas},
    {RawType::spss, "spss", 4, openspss, preparespss, spssrecord, closespss},
    {RawType::stata, "stata", 4, openstata, preparestata, statarecord, closestata},
    {RawType::other, "other", 5, openother, prepareother, strecord, closeother},
};

}  // namespace

const RawReader* findreader(const std::string& value) {
  for (const RawReader& reader : readers)
    if (strncasecmp(value.c_str(), reader.word, reader.match) == 0) return &reader;
  return nullptr;
}

int readrecord(int level, double* values, Id* id3, Id* id2) {
  raw.reading = level;
  ++raw.level[level].asked;
  const int result = raw.reader->record(level, values, id3, id2);
  if (run.mdm.twolevel() && id2 != nullptr) *id2 = *id3;
  return result;
}

bool rawis(RawType type) { return raw.reader != nullptr && raw.reader->rawdattype == type; }

void closestream(int level) {
  LevelSource& source = raw.level[level];
  if (source.stream != nullptr) std::fclose(source.stream);
  source.stream = nullptr;
}

void openraw(int level) {
  raw.level[level].opened = true;
  raw.reader->open(level);
}

void closeraw(int level) {
  if (raw.level[level].opened) raw.reader->close(level);
  raw.level[level].opened = false;
}

void forgetraw() {
  for (int level = 0; level < 3; ++level) closeraw(level);
  raw = RawData{};
}

}  // namespace kdr
