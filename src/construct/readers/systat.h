// Raw data in SYSTAT .SYS files: a head, which a comment may precede, the names, and the records, each in segments of
// at most 128 bytes between length marks. The variables of the MDM file stand in the order in which they were listed.
#pragma once

#include "construct/levelsource.h"

namespace kdr {

// The operations of RawReader besides settlevariables. opensystat stops with failure 1 when the head cannot be read,
// with code 100 when a name is too long. Data that end before their time are reported on the console and in the log.
void opensystat(int level);
[[nodiscard]] int systatrecord(int level, double* values, Id* id3, Id* id2);
void closesystat(int level);

}  // namespace kdr
