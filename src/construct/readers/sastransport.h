// Raw data in SAS transport files of version 5: cards of 80 bytes, heads first, then the records without a gap, their
// numbers in the hexadecimal floating point of the IBM System/360.
#pragma once

#include <string>

#include "construct/levelsource.h"

namespace kdr {

// The value of a numeric field of `width` bytes, 1 to 8, the low bytes of the fraction being left out. The value is
// cut, not rounded, to the 53 bits of a double. A field whose bytes behind the first are zero and whose first is not is
// missing.
[[nodiscard]] double ibmdouble(const unsigned char* field, int width);

// When `path`, a transport file whose name holds ".ssp", does not exist but the data set of the same name with ".ssd"
// does: asks whether to convert it and with a yes runs SAS on a job "xyzzy.sas" in the working directory, which looks
// for the data set in the folder of the transport file. True when the transport file exists now.
[[nodiscard]] bool sasconvert(const std::string& path);

// The operations of RawReader besides settlevariables. opensas stops with failure 1 when the heads cannot be read, with
// code 100 when the length of a descriptor is none. Only the first data set of a file is read. What ends the data
// before the file's end is told on the console and in the log.
void opensas(int level);
[[nodiscard]] int sasrecord(int level, double* values, Id* id3, Id* id2);
void closesas(int level);

}  // namespace kdr
