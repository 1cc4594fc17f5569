// Workbooks of Excel 2007 and later. An input that starts with PK behind its first byte is an archive. Of any other,
// zero bytes part the sheet's rows, the shared texts and the formats of an archive that is made here: mutations of a
// packed one would all end at its checksums.
#include "../construct/workbook.h"
#include "rawfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (size == 0) return 0;
  if (input.substr(1, 2) == "PK") return kdr::fuzzraw("other", data, size, " /excel");
  std::string parts[3];
  std::size_t at = 1;
  for (std::string& part : parts) {
    const std::size_t end = std::min(input.find('\0', at), size);
    part = input.substr(at, end - at);
    at = std::min(end + 1, size);
  }
  kdr::startharness();
  kdr::makeworkbook("raw", {parts[0], parts[1], parts[2], (data[0] & 8) != 0 ? "date1904='1'" : ""}, 0);
  return kdr::fuzzfile("other", data[0], " /excel");
}
