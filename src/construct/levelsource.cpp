#include "construct/levelsource.h"

#include "driver/runrecord.h"

namespace kdr {

RawData raw;

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
