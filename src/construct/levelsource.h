// The raw data of a construction: one source for each level, in one of the formats of construct/rawformats.h.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "construct/rawvariable.h"
#include "core/codes.h"
#include "data/mdm.h"
#include "kernel/array.h"

namespace kdr {

struct RawReader;

// The raw file of one level.
struct LevelSource {
  bool opened = false;          // from openraw to closeraw
  std::FILE* stream = nullptr;  // none where a library reads the file
  std::string filename;         // as the template or the dialogue gave it
  int numvar = 0;        // variables that the raw file has; ASCII: values that the format yields, IDs not counted
  int selected = 0;      // variables that go into the MDM file, ID columns not counted
  std::string format;    // ASCII only: format text, at most 1023 characters
  std::string filetype;  // OTHER only: the word behind the slash of the file's name

  // Every format but ASCII.
  std::vector<RawVariable> vartable;  // one row for each variable of the file, by open()
  Array<int> chosen;                  // rows marked as variables, in the order of the values of a record
  int row3 = -1, row2 = -1;           // rows of the ID columns, by settlevariables
  long long asked = 0;                // records that readrecord was asked for: the number of the one in hand
  long long fractions = 0;            // numeric IDs that are no whole numbers
  double firstfraction = 0.0;         // the first of them
  long long fractionrecord = 0;       // and its record
};

// What a construction is told about its raw data. The names, the kind of IDs and the head's fields are in run.mdm.
struct RawData {
  const RawReader* reader = nullptr;  // the format of all three files; null while none is chosen
  LevelSource level[3];               // index 0, 1, 2 for levels 1, 2, 3
  int reading = 0;                    // index of the level that readrecord was asked for last
  bool silent = false;                // the console is not told the statistics of the variables, only the log is
  bool varyingfirst = false;          // of a file that serves several levels the first row of each unit counts
  Array<double> missingcodes;         // ASCII only: the value that stands for missing, one for each level-1 variable
  std::string templatename;           // the template that was read, or empty
};
extern RawData raw;

// One raw format. Levels are indices 0 to 2; the fields of raw.level[level] are the operations' only arguments besides.
struct RawReader {
  RawType rawdattype;
  const char* word;   // value of RAWDATTYPE: in a template
  std::size_t match;  // characters of the word that a value must begin with
  // Opens the file of the level by its name and reads its head.
  void (*open)(int level);
  // Called once before the first record: settles `selected` and brings the file to its first record.
  void (*prepare)(int level);
  // Reads the next record: the selected variables into `values`, in raw-file order or for SYSTAT in the order of the
  // list, missing ones as missingcode, and the IDs; `id2` is null at level 3. 0 for a record, not 0 when there are no
  // more.
  int (*record)(int level, double* values, Id* id3, Id* id2);
  // Closes the file.
  void (*close)(int level);
  // Null in a format without them: whether the numeric columns of the level can be read as the texts that the file has;
  // reads one so; why a column is not numeric, where the file tells.
  bool (*canbetext)(int level) = nullptr;
  void (*astext)(int level, int row) = nullptr;
  std::string (*whytext)(int level, int row) = nullptr;
};

// Opens the file of the level by its name and reads its head.
void openraw(int level);
// Closes the file of the level, if it is open.
void closeraw(int level);

// Reads the next record of a level through its format. Data of two levels have one ID, which the formats take for that
// of level 3; here it becomes both.
[[nodiscard]] int readrecord(int level, double* values, Id* id3, Id* id2);

// Whether the raw data are of this format.
[[nodiscard]] bool rawis(RawType type);

// Closes the stream of a level; a part of the readers' close().
void closestream(int level);

// Drops all that the construction was told and closes its raw files.
void forgetraw();

}  // namespace kdr
