// Writes workbooks of Excel 97 to 2003 record by record, and the compound files that hold them.
#pragma once

#include <initializer_list>
#include <string>

#include "numberbytes.h"

namespace kdr {

inline std::string biff(int kind, const std::string& content) {
  return int16bytes(kind) + int16bytes(static_cast<int>(content.size())) + content;
}
inline std::string biffstart(int kind, int edition = 0x600) {
  return biff(0x809, int16bytes(edition) + int16bytes(kind) + std::string(12, '\0'));
}
inline const std::string biffend = biff(0x0A, "");

// A text of characters with one byte each, or with the bytes of two.
inline std::string bifftext(const std::string& text) { return int16bytes(static_cast<int>(text.size())) + '\0' + text; }
inline std::string bifftexts(std::initializer_list<std::string> texts) {
  std::string all;
  for (const std::string& text : texts) all += bifftext(text);
  return int32bytes(static_cast<int>(texts.size())) + int32bytes(static_cast<int>(texts.size())) + all;
}
inline std::string biffplace(int row, int column, int style = 0) {
  return int16bytes(row) + int16bytes(column) + int16bytes(style);
}
inline std::string biffnumber(int row, int column, double value, int style = 0) {
  return biff(0x203, biffplace(row, column, style) + lowbytes(value));
}
inline std::string bifflabel(int row, int column, const std::string& text) {
  return biff(0x204, biffplace(row, column) + bifftext(text));
}
inline std::string biffformula(int row, int column, const std::string& result) {
  return biff(0x06, biffplace(row, column) + result + std::string(8, '\0'));
}
// A result that is no number: 0 a text, 1 a truth value, 2 an error, 3 nothing.
inline std::string biffresult(int kind, int value = 0) {
  return int16bytes(kind) + int16bytes(value) + int16bytes(0) + "\xFF\xFF";
}

struct Workbook97 {
  std::string globals;  // further records of the workbook
  std::string cells;    // records of the first sheet
  int edition = 0x600;
  std::string kinds = std::string(1, '\0');  // of the sheets, which are all one and the same
};

inline std::string biffstream(const Workbook97& book) {
  const std::string name = std::string("\1\0s", 3);
  std::string before = biffstart(5, book.edition) + book.globals;
  const int at = static_cast<int>(before.size() + book.kinds.size() * (4 + 6 + name.size()) + biffend.size());
  for (const char kind : book.kinds) before += biff(0x85, int32bytes(at) + '\0' + kind + name);
  return before + biffend + biffstart(16, book.edition) + book.cells + biffend;
}

// A compound file with one stream, of fewer than 60000 bytes: sector 0 has the table of sectors, 1 the directory, 2 the
// table of small pieces, and the content begins in 3.
inline std::string compound(const std::string& stream, const std::string& name = "Workbook") {
  const auto chain = [](int from, std::size_t count) {
    std::string table;
    for (std::size_t i = 1; i <= count; ++i) table += int32bytes(i == count ? -2 : from + static_cast<int>(i));
    return table;
  };
  const bool small = stream.size() < 4096;
  const std::size_t sectors = (stream.size() + 511) / 512;
  const auto entry = [](const std::string& named, char kind, int start, std::size_t length) {
    std::string wide;
    for (const char c : named) wide += std::string{c, '\0'};
    return fixed(wide, 64, '\0') + int16bytes(static_cast<int>(wide.size()) + 2) + kind + '\1' +
           std::string(12, '\xFF') + std::string(36, '\0') + int32bytes(start) + int32bytes(static_cast<int>(length)) +
           int32bytes(0);
  };
  std::string head = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1" + std::string(16, '\0') + int16bytes(0x3E) + int16bytes(3) +
                     int16bytes(-2) + int16bytes(9) + int16bytes(6) + std::string(10, '\0') + int32bytes(1) +
                     int32bytes(1) + int32bytes(0) + int32bytes(4096) + int32bytes(2) + int32bytes(1) + int32bytes(-2) +
                     int32bytes(0) + int32bytes(0);
  const std::string table = int32bytes(-3) + int32bytes(-2) + int32bytes(-2) + chain(3, sectors);
  const std::string directory =
      entry("Root Entry", 5, small ? 3 : -2, small ? sectors * 512 : 0) + entry(name, 2, small ? 0 : 3, stream.size());
  const std::string pieces = small ? chain(0, (stream.size() + 63) / 64) : "";
  return fixed(head, 512, '\xFF') + fixed(table, 512, '\xFF') + fixed(directory, 512, '\0') +
         fixed(pieces, 512, '\xFF') + fixed(stream, sectors * 512, '\0');
}

}  // namespace kdr
