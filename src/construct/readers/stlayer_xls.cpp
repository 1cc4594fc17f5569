// Workbooks of Excel 97 to 2003: a stream of records in a compound file, each with a kind, a length and its bytes.
//
// The records of the workbook come first, then those of its sheets. The cells of the first sheet are kept, in the order
// of rows and columns.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

#include "construct/readers/stlayer_compound.h"
#include "construct/readers/stlayer_sheet.h"
#include "driver/failures.h"

namespace kdr {

namespace {

// Kinds of records.
constexpr unsigned startkind = 0x809, endkind = 0x0A, continuekind = 0x3C;
constexpr unsigned passwordkind = 0x2F, datemodekind = 0x22, sheetkind = 0x85, formatkind = 0x41E, stylekind = 0xE0;
constexpr unsigned textskind = 0xFC, numberkind = 0x203, shortkind = 0x27E, shortskind = 0xBD, sharedkind = 0xFD;
constexpr unsigned labelkind = 0x204, richkind = 0xD6, truthkind = 0x205, formulakind = 0x06, resultkind = 0x207;

constexpr unsigned newest = 0x600;  // the version of Excel 97 and later
constexpr std::size_t mostcolumns = 256;
constexpr const char* damaged = "it is no undamaged workbook of Excel";

// A record of the stream in hand. Its content may go on in records that continue it.
struct Record {
  unsigned kind = 0;
  std::size_t at = 0;   // the next byte
  std::size_t end = 0;  // behind its last byte
};

// A cell with a value: a number, or one of the texts.
struct XlsCell {
  std::uint32_t place;  // 256 times the row, and the column
  std::int32_t text;    // -1 for a number
  double number;
};

struct XlsBook {
  std::string stream;
  bool from1904 = false;
  std::vector<SharedText> texts;
  std::size_t shared = 0;                              // of them, those that cells refer to
  std::vector<std::pair<unsigned, unsigned>> formats;  // the workbook's own: number, and what the format shows
  std::vector<unsigned> styles;                        // what the cell formats show
  std::vector<XlsCell> cells;
  std::size_t next = 0;  // cell
};

XlsBook& bookof(void* opened) { return *static_cast<XlsBook*>(opened); }

// Goes to the record that begins at `at`. False when the stream ends before the record does.
bool takerecord(const XlsBook& book, std::size_t at, Record& record) {
  constexpr std::size_t head = 4;
  if (at > book.stream.size() || book.stream.size() - at < head) return false;
  record.kind = static_cast<unsigned>(littlenumber(book.stream, at, 2));
  record.at = at + head;
  record.end = record.at + littlenumber(book.stream, at + 2, 2);
  return record.end <= book.stream.size();
}

std::size_t lengthof(const Record& record) { return record.end - record.at; }

unsigned wordin(const XlsBook& book, const Record& record, std::size_t at) {
  return static_cast<unsigned>(littlenumber(book.stream, record.at + at, 2));
}

double doublein(const XlsBook& book, const Record& record, std::size_t at) {
  return std::bit_cast<double>(littlenumber(book.stream, record.at + at, 8));
}

// A short form of a number: 30 bits of a whole number or of a double, perhaps a hundredfold.
double shortnumber(const XlsBook& book, const Record& record, std::size_t at) {
  const auto bits = static_cast<std::uint32_t>(littlenumber(book.stream, record.at + at, 4));
  const double value = (bits & 2U) != 0 ? static_cast<double>(static_cast<std::int32_t>(bits) >> 2)
                                        : std::bit_cast<double>(std::uint64_t{bits & ~3U} << 32U);
  return (bits & 1U) != 0 ? value / 100.0 : value;
}

// --- Texts ---

// Makes sure that the record has a byte left, in the one that continues it if need be.
bool hasbyte(const XlsBook& book, Record& record) {
  while (record.at == record.end)
    if (!takerecord(book, record.end, record) || record.kind != continuekind) return false;
  return true;
}

bool takenumber(const XlsBook& book, Record& record, int count, unsigned& value) {
  value = 0;
  for (int i = 0; i < count; ++i) {
    if (!hasbyte(book, record)) return false;
    value |= static_cast<unsigned>(static_cast<unsigned char>(book.stream[record.at++])) << (8 * i);
  }
  return true;
}

bool passover(const XlsBook& book, Record& record, std::size_t count) {
  while (count > 0) {
    if (!hasbyte(book, record)) return false;
    const std::size_t step = std::min(count, lengthof(record));
    record.at += step;
    count -= step;
  }
  return true;
}

void appendcharacter(std::string& text, unsigned c) {
  const auto add = [&](unsigned bits) { text += static_cast<char>(bits); };
  if (c < 0x80) {
    add(c);
  } else if (c < 0x800) {
    add(0xC0 | c >> 6);
    add(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    add(0xE0 | c >> 12);
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  } else {
    add(0xF0 | c >> 18);
    add(0x80 | (c >> 12 & 0x3F));
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  }
}

// Takes a text, as UTF-8: the number of its characters, flags, the characters with one or two bytes each, formats
// within it and reading aids. A record that continues the characters begins with flags of its own.
bool taketext(const XlsBook& book, Record& record, std::string& text) {
  constexpr unsigned twobytes = 1, aids = 4, runs = 8;
  unsigned count = 0, flags = 0, formats = 0, aidlength = 0, first = 0;
  text.clear();
  if (!takenumber(book, record, 2, count) || !takenumber(book, record, 1, flags)) return false;
  if ((flags & runs) != 0 && !takenumber(book, record, 2, formats)) return false;
  if ((flags & aids) != 0 && !takenumber(book, record, 4, aidlength)) return false;
  unsigned width = flags & twobytes;
  for (; count > 0; --count) {
    unsigned c = 0;
    if (record.at == record.end && !takenumber(book, record, 1, width)) return false;
    if (!takenumber(book, record, (width & twobytes) != 0 ? 2 : 1, c)) return false;
    if (c >= 0xD800 && c < 0xDC00) {
      first = c;  // half of a character beyond the first 65536
      continue;
    }
    const bool second = first != 0 && c >= 0xDC00 && c < 0xE000;
    appendcharacter(text, second ? 0x10000 + ((first - 0xD800) << 10) + (c - 0xDC00) : c);
    first = 0;
  }
  return passover(book, record, std::size_t{4} * formats + aidlength);
}

void keeptext(XlsBook& book, const std::string& text) {
  book.texts.push_back({std::string(sttext(text)), static_cast<int>(text.size())});
}

// --- The workbook ---

bool taketexts(XlsBook& book, Record record) {
  unsigned total = 0, count = 0;
  std::string text;
  if (!takenumber(book, record, 4, total) || !takenumber(book, record, 4, count)) return false;
  for (; count > 0; --count) {
    if (!taketext(book, record, text)) return false;
    keeptext(book, text);
  }
  book.shared = book.texts.size();
  return true;
}

void takestyle(XlsBook& book, unsigned format) {
  const auto own =
      std::find_if(book.formats.begin(), book.formats.end(), [&](const auto& entry) { return entry.first == format; });
  book.styles.push_back(own != book.formats.end() ? own->second : builtinshows(format));
}

// Reads the workbook's records. `sheet` becomes the place of the first sheet that is no chart.
bool readworkbook(XlsBook& book, std::size_t& sheet, std::string& trouble) {
  Record record;
  std::string text;
  bool found = false;
  trouble = damaged;
  if (!takerecord(book, 0, record) || record.kind != startkind || lengthof(record) < 2) return false;
  if (wordin(book, record, 0) != newest) {
    trouble = "it is a workbook of Excel 95 or before; save it from a newer spreadsheet program";
    return false;
  }
  for (;;) {
    if (!takerecord(book, record.end, record)) return false;
    const std::size_t length = lengthof(record);
    if (record.kind == endkind) break;
    if (record.kind == passwordkind) {
      trouble = "it is protected by a password";
      return false;
    }
    if (record.kind == datemodekind && length >= 2) book.from1904 = wordin(book, record, 0) != 0;
    if (record.kind == sheetkind && length >= 6 && !found && book.stream[record.at + 5] == 0) {
      sheet = littlenumber(book.stream, record.at, 4);
      found = true;
    }
    if (record.kind == formatkind && length >= 2) {
      Record code{record.kind, record.at + 2, record.end};
      if (!taketext(book, code, text)) return false;
      book.formats.emplace_back(wordin(book, record, 0), formatshows(text));
    }
    if (record.kind == stylekind && length >= 4) takestyle(book, wordin(book, record, 2));
    if (record.kind == textskind && !taketexts(book, record)) return false;
  }
  trouble = found ? "" : "it has no sheet";
  return found;
}

// --- The sheet ---

// A cell's head: row, column, format. A shorter record is damaged.
struct CellHead {
  std::uint32_t place;
  unsigned style;
};

bool headof(const XlsBook& book, const Record& record, std::size_t length, CellHead& head) {
  if (lengthof(record) < length || wordin(book, record, 2) >= mostcolumns) return false;
  head = {wordin(book, record, 0) << 8U | wordin(book, record, 2), wordin(book, record, 4)};
  return true;
}

void keepnumber(XlsBook& book, const CellHead& head, double number) {
  SheetCell cell{};
  setdated(cell, number, head.style < book.styles.size() ? book.styles[head.style] : 0, book.from1904);
  book.cells.push_back({head.place, -1, number});
  if (cell.kind != SheetCell::Kind::text) return;
  book.cells.back().text = static_cast<std::int32_t>(book.texts.size());
  book.texts.push_back({cell.text, cell.width});
}

void keeplabel(XlsBook& book, const CellHead& head, std::size_t text) {
  book.cells.push_back({head.place, static_cast<std::int32_t>(text), 0.0});
}

// The stored result of a formula. Where that is a text, the record with it is to come: `awaits` tells.
void takeresult(XlsBook& book, const CellHead& head, const Record& record, bool& awaits) {
  constexpr unsigned notnumber = 0xFFFF;
  constexpr char textresult = 0, truthresult = 1;
  if (wordin(book, record, 12) != notnumber) return keepnumber(book, head, doublein(book, record, 6));
  const char kind = book.stream[record.at + 6];
  awaits = kind == textresult;
  if (kind == truthresult) book.cells.push_back({head.place, -1, book.stream[record.at + 8] != 0 ? 1.0 : 0.0});
}

// Keeps what a record of the sheet tells of cells. `formula` is the cell whose result is awaited.
bool takecells(XlsBook& book, Record record, CellHead& formula, bool& awaits) {
  CellHead head{};
  std::string text;
  switch (record.kind) {
    case numberkind:
      if (!headof(book, record, 14, head)) return false;
      keepnumber(book, head, doublein(book, record, 6));
      break;
    case shortkind:
      if (!headof(book, record, 10, head)) return false;
      keepnumber(book, head, shortnumber(book, record, 6));
      break;
    case shortskind:
      if (!headof(book, record, 6, head) || wordin(book, record, 2) + (lengthof(record) - 6) / 6 > mostcolumns)
        return false;
      for (std::size_t at = 4; at + 8 <= lengthof(record); at += 6, ++head.place) {
        head.style = wordin(book, record, at);
        keepnumber(book, head, shortnumber(book, record, at + 2));
      }
      break;
    case sharedkind: {
      if (!headof(book, record, 10, head)) return false;
      const std::size_t shared = littlenumber(book.stream, record.at + 6, 4);
      if (shared >= book.shared) return false;
      keeplabel(book, head, shared);
      break;
    }
    case labelkind:
    case richkind:
      if (!headof(book, record, 8, head)) return false;
      record.at += 6;
      if (!taketext(book, record, text)) return false;
      keeplabel(book, head, book.texts.size());
      keeptext(book, text);
      break;
    case truthkind:
      if (!headof(book, record, 8, head)) return false;
      if (book.stream[record.at + 7] == 0)  // else an error, which is a missing value
        book.cells.push_back({head.place, -1, book.stream[record.at + 6] != 0 ? 1.0 : 0.0});
      break;
    case formulakind:
      if (!headof(book, record, 14, formula)) return false;
      takeresult(book, formula, record, awaits);
      break;
    case resultkind:
      if (!awaits) break;
      if (!taketext(book, record, text)) return false;
      keeplabel(book, formula, book.texts.size());
      keeptext(book, text);
      awaits = false;
      break;
    default:
      break;
  }
  return true;
}

bool readsheet(XlsBook& book, std::size_t at) {
  constexpr std::size_t mosttexts = std::size_t{1} << 30;
  Record record;
  CellHead formula{};
  bool awaits = false;
  int depth = 1;  // a chart within the sheet has a start and an end of its own
  if (!takerecord(book, at, record) || record.kind != startkind) return false;
  for (std::size_t count = 0; depth > 0; ++count) {
    if (count % 4096 == 0) checksignals();
    if (!takerecord(book, record.end, record) || book.texts.size() > mosttexts) return false;
    if (record.kind == startkind) ++depth;
    if (record.kind == endkind) --depth;
    if (depth == 1 && !takecells(book, record, formula, awaits)) return false;
  }
  // Rows and columns nearly always come in their order.
  const auto before = [](const XlsCell& a, const XlsCell& b) { return a.place < b.place; };
  if (!std::is_sorted(book.cells.begin(), book.cells.end(), before))
    std::stable_sort(book.cells.begin(), book.cells.end(), before);
  return true;
}

bool readbook(XlsBook& book, const std::string& path, std::string& trouble) {
  CompoundFile file;
  trouble = damaged;
  if (!readcompound(path, file)) return false;
  if (hasstream(file, "EncryptedPackage")) trouble = "it is protected by a password";
  if (hasstream(file, "Book"))
    trouble = "it is a workbook of Excel 95 or before; save it from a newer spreadsheet program";
  if (!readstream(file, "Workbook", book.stream)) return false;
  std::size_t sheet = 0;
  if (!readworkbook(book, sheet, trouble)) return false;
  if (!readsheet(book, sheet)) trouble = "its first sheet is damaged or cut short";
  book.stream.clear();
  book.stream.shrink_to_fit();
  return trouble.empty();
}

void closexls(void* opened) { delete &bookof(opened); }

void* openxls(const std::string& path, std::string& trouble) {
  auto* book = new XlsBook;
  if (readbook(*book, path, trouble)) return book;
  closexls(book);
  return nullptr;
}

bool rewindxls(void* opened, std::string&) {
  bookof(opened).next = 0;
  return true;
}

// Rows without a cell are passed over.
bool rowofxls(void* opened, SheetRow& row, std::string&) {
  XlsBook& book = bookof(opened);
  row.count = 0;
  if (book.next == book.cells.size()) return false;
  const std::uint32_t number = book.cells[book.next].place >> 8U;
  for (; book.next < book.cells.size() && book.cells[book.next].place >> 8U == number; ++book.next) {
    const XlsCell& kept = book.cells[book.next];
    SheetCell& cell = cellat(row, kept.place & 0xFFU);
    if (kept.text < 0) {
      setnumber(cell, kept.number);
    } else {
      setshared(cell, book.texts[static_cast<std::size_t>(kept.text)]);
    }
  }
  return true;
}

}  // namespace

const SheetSource xlssource = {openxls, rowofxls, rewindxls, closexls};

}  // namespace kdr
