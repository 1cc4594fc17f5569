// The table of the formats that raw data can have.
#pragma once

#include <string>

#include "construct/levelsource.h"

namespace kdr {

// The reader whose word the value of RAWDATTYPE: begins with, in any case; null for an unknown word.
[[nodiscard]] const RawReader* findreader(const std::string& value);

}  // namespace kdr
