// The construction of an MDM file from three raw data files, one for each level.
//
// The level-3 file is read whole; the files of levels 1 and 2 are merged on their IDs in one forward pass. Finished
// units wait on a scratch file, because the head of the MDM file needs the totals.
#pragma once

namespace kdr {

// Rows that the last mkmdm dropped for missing values. Those without an ID are not among them.
struct DeletedRows {
  int level2 = 0;
  int level3 = 0;
};
extern DeletedRows deletedrows;

// Makes the MDM file run.files.mdmfile from `raw` and from the names and kinds in run.mdm, writes the log KDR3MDM.STS
// and prints the descriptive statistics. Afterwards run.mdm describes the file: nunits1, nunits2, nunits3 are its
// counts.
//
// All three raw files must be in the order of their IDs, level-3 ID first. Stops with code 100 when one is not, when a
// level has no variables, when data that were declared complete hold missing values, or when no unit is left; with
// failure 1 when the level-1 or level-2 file has no record, with failure 5 when something cannot be written.
//
// The file takes the place of an older one when it is complete. It gets its magic last, after all else has reached the
// disk, so what a sudden end leaves is no MDM file.
void mkmdm();

// The console lines on the records that the construction processed and the rows that it deleted.
void printprocessed();

}  // namespace kdr
