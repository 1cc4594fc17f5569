// The layer through which raw data of many packages are read: one calling order, whatever library stands behind.
//
//   StHandle handle = ST_OpenEnvironment();
//   ST_OpenInputFile(handle, format, path);            // a format number of the table in other.cpp
//   int numvar = ST_ReadDict(handle);
//   ST_SelectAllVars(handle);                          // or ST_SelectVar for each one that is wanted
//   ST_InitReadOnly(handle);
//   while (ST_ReadRecord(handle) == 0) ST_GetVarData(handle, v, &value, &second);
//   ST_CloseFiles(handle);
//
// Variables count from 0. What is wrong with a file is told by results and by ST_Trouble. The process ends here only
// where it would end in any reader: by a signal, without memory, on a full disk, at a file that the system cannot read.
#pragma once

#include <cstddef>
#include <string>

#include "core/names.h"

namespace kdr {

struct StFile;
using StHandle = StFile*;

// The formats that a library reads, by their numbers.
enum class StFormat {
  dbase = 6,
  excel = 7,
  sastransport = 12,
  spssportable = 13,
  stata = 14,
  delimited = 18,
  spss = 22,
  sas = 38,
};

// The value of a variable in the record in hand: the one of the two that the variable's type tells. A text is
// without the blanks behind it; of one that is longer than ST_LongestText there is one byte more than that.
union StValue {
  const double* number;
  const std::string* text;
};
inline constexpr std::size_t ST_LongestText = 1000;

// True when a library stands behind the format number.
[[nodiscard]] bool ST_CanRead(int format);

// A handle for one file, to be given back by ST_CloseFiles.
[[nodiscard]] StHandle ST_OpenEnvironment();
// 0, or -1 when the file does not exist, -2 when it cannot be opened for reading, -3 when the handle has a file
// already.
[[nodiscard]] int ST_OpenInputFile(StHandle handle, int format, const char* path);
// Reads the dictionary: the number of variables, or -1 when the file has none that can be read.
[[nodiscard]] int ST_ReadDict(StHandle handle);
// Which variables the records are to have. Those that are not selected cost no time or space.
void ST_SelectAllVars(StHandle handle);
void ST_SelectVar(StHandle handle, int v);
// Ends the selection; the next record is the first one.
void ST_InitReadOnly(StHandle handle);
// 1 for a numeric variable, 2 for a text.
[[nodiscard]] int ST_GetVarType(StHandle handle, int v);
// Its name, of which 4096 bytes are kept.
[[nodiscard]] const char* ST_GetVarName(StHandle handle, int v);
[[nodiscard]] int ST_GetVarPrintWidth(StHandle handle, int v);
// Where the file has the first text of a variable that would be numeric without it, or nothing.
[[nodiscard]] const char* ST_WhyText(StHandle handle, int v);
// The labels that its values have ("1 = low, 2 = high"), or nothing. Some files tell them at the end of the data only:
// until then they are the word "yes".
[[nodiscard]] std::string ST_Labels(StHandle handle, int v);
// The same one by one, whole; and what the file says of the variable, or nothing.
[[nodiscard]] ValueLabels ST_ValueLabels(StHandle handle, int v);
[[nodiscard]] const char* ST_GetVarLabel(StHandle handle, int v);
// Makes a numeric variable of delimited text one of the texts that the file has. Before the first record only.
void ST_ReadAsText(StHandle handle, int v);
// 0 for a record, 1 at the end of the data.
[[nodiscard]] int ST_ReadRecord(StHandle handle);
// 1 if the value is missing, else 0 with `value` set. `second` is always set to 0.
[[nodiscard]] int ST_GetVarData(StHandle handle, int v, StValue* value, int* second);
// Why there is no dictionary, or, at the end of the data, how they were cut short. Empty when all is well.
[[nodiscard]] const char* ST_Trouble(StHandle handle);
inline constexpr const char* ST_CannotOpen = "it cannot be opened";
// What else is to be told of the data at their end, or nothing.
[[nodiscard]] const char* ST_Remark(StHandle handle);
// Closes the file and frees the handle. Null is ignored.
void ST_CloseFiles(StHandle handle);

}  // namespace kdr
