// Workbooks of Excel 97 to 2003. An input that begins like a compound file behind its first byte is one. Any other
// holds the records of a workbook, which are put into one here.
#include "../construct/workbook97.h"
#include "rawfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (size == 0) return 0;
  if (input.substr(1, 2) == "\xD0\xCF" || size > 60000) return kdr::fuzzraw("other", data, size, " /excel");
  kdr::startharness();
  kdr::writeinput("raw", kdr::compound(std::string(input.substr(1))));
  return kdr::fuzzfile("other", data[0], " /excel");
}
