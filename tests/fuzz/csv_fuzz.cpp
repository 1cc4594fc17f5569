// Delimited text.
#include "rawfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kdr::fuzzraw("other", data, size, " /delim");
}
