#include "data/readers/stlayer.h"

namespace kdr {

std::span<const StBackend> stbackends() {
  static constexpr StBackend backends[] = {
      {38, readstatdictionary, readstatrecord, readstatclose},  // SAS 7 and later
      {12, readstatdictionary, readstatrecord, readstatclose},  // SAS transport
      {22, readstatdictionary, readstatrecord, readstatclose},  // SPSS
      {13, readstatdictionary, readstatrecord, readstatclose},  // SPSS portable
      {14, readstatdictionary, readstatrecord, readstatclose},  // Stata
      {18, csvdictionary, csvrecord, csvclose},                 // delimited text
      {7, exceldictionary, excelrecord, excelclose},            // Excel
      {6, dbasedictionary, dbaserecord, dbaseclose},            // dBASE
  };
  return backends;
}

}  // namespace kdr
