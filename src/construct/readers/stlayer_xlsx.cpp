// Workbooks of Excel 2007 and later (Office Open XML, ISO/IEC 29500): a zip archive of XML parts.
//
// The parts are found through the relations that each one has to others: the workbook, in it the first sheet, the texts
// that cells share, and the formats, which alone tell dates from numbers. Those are kept; the sheet is streamed.
#include <climits>
#include <cstdio>
#include <filesystem>
#include <map>
#include <vector>

#include "construct/readers/stlayer_sheet.h"
#include "construct/readers/stlayer_zipxml.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"

namespace kdr {

namespace {

// More than a sheet can have, or than would be kept: a hostile file, small for being packed, could state any number.
constexpr std::size_t mostcolumns = 16384;
constexpr long long mostrows = 1048576;
constexpr std::size_t mosttexts = std::size_t{1} << 26;
constexpr std::size_t longesttext = 32767;

struct XlsxBook {
  std::string path;
  unzFile archive = nullptr;
  XmlPart part;
  std::string sheet;  // the part of the first sheet
  bool from1904 = false;
  std::vector<SharedText> texts;
  std::map<int, unsigned> formats;  // the workbook's own number formats: showsdate, showstime
  std::vector<unsigned> styles;     // likewise, of the cell formats

  // The scan of a part.
  std::string* trouble = nullptr;
  std::string text;       // collected characters
  bool collects = false;  // characters count
  bool inside = false;    // within the element that holds all others of interest
  bool phonetic = false;  // within a reading aid, which is no part of a text
  SheetRow* row = nullptr;
  long long rownumber = 0;  // of the row in hand, from 1
  std::size_t column = 0;   // behind the cell before, and in a cell its own
  std::string type;         // of the cell
  std::size_t style = 0;
  bool formula = false;
};

XlsxBook& bookof(void* context) { return *static_cast<XlsxBook*>(context); }

void refuse(XlsxBook& book, const std::string& words) {
  if (book.trouble->empty()) *book.trouble = words;
  XML_StopParser(book.part.parser, XML_FALSE);
}

// A whole number that stands alone in an attribute, up to `most`; otherwise -1.
long long wholenumber(std::string_view digits, long long most) {
  long long value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return -1;
    value = 10 * value + (c - '0');
    if (value > most) return -1;
  }
  return digits.empty() ? -1 : value;
}

void takecharacters(void* context, const XML_Char* characters, int length) {
  XlsxBook& book = bookof(context);
  if (book.collects && book.text.size() < longesttext) book.text.append(characters, static_cast<std::size_t>(length));
}

// --- Relations ---

// The parts that a part refers to: by name, and in its relations part by kind.
struct Relation {
  std::string kind;    // the last word of the type, which is the same in all editions of the standard
  std::string target;  // a part
};
using Relations = std::map<std::string, Relation>;

struct RelationScan {
  std::filesystem::path folder;
  Relations relations;
};

std::string partname(const std::filesystem::path& folder, std::string_view target) {
  return (folder / target).lexically_normal().relative_path().generic_string();
}

Relations relationsof(XlsxBook& book, const std::filesystem::path& part) {
  RelationScan scan{"/" / part.parent_path(), {}};
  const std::string name = partname(scan.folder, "_rels/" + part.filename().string() + ".rels");
  const XmlHandlers handlers = {
      [](void* context, const XML_Char* element, const XML_Char** attributes) {
        auto& found = *static_cast<RelationScan*>(context);
        if (localname(element) != "Relationship" || attribute(attributes, "TargetMode") == "External") return;
        const std::string_view type = attribute(attributes, "Type");
        found.relations[std::string(attribute(attributes, "Id"))] = {
            std::string(type.substr(type.rfind('/') + 1)), partname(found.folder, attribute(attributes, "Target"))};
      },
      nullptr, nullptr, &scan};
  if (haspart(book.archive, name)) (void)readpart(book.part, name, handlers, *book.trouble);
  return scan.relations;
}

// The part of one kind, or nothing.
std::string relatedpart(const XlsxBook& book, const Relations& relations, std::string_view kind) {
  for (const auto& [id, relation] : relations)
    if (relation.kind == kind && haspart(book.archive, relation.target)) return relation.target;
  return "";
}

// --- Workbook, texts and formats ---

struct WorkbookScan {
  bool from1904 = false;
  std::vector<std::string> sheets;  // names of relations
};

void startworkbook(void* context, const XML_Char* element, const XML_Char** attributes) {
  auto& scan = *static_cast<WorkbookScan*>(context);
  const std::string_view name = localname(element);
  if (name == "workbookPr") {
    const std::string_view set = attribute(attributes, "date1904");
    scan.from1904 = set == "1" || set == "true";
  } else if (name == "sheet") {
    scan.sheets.emplace_back(attribute(attributes, "id"));
  }
}

void starttext(void* context, const XML_Char* element, const XML_Char**) {
  XlsxBook& book = bookof(context);
  const std::string_view name = localname(element);
  if (name == "si") book.text.clear();
  if (name == "rPh") book.phonetic = true;
  book.collects = name == "t" && !book.phonetic;
}

void endtext(void* context, const XML_Char* element) {
  XlsxBook& book = bookof(context);
  const std::string_view name = localname(element);
  book.collects = false;
  if (name == "rPh") book.phonetic = false;
  if (name != "si") return;
  if (book.texts.size() == mosttexts) return refuse(book, "it has too many texts");
  book.texts.push_back({std::string(sttext(book.text)), static_cast<int>(std::min(book.text.size(), longesttext))});
}

void startstyle(void* context, const XML_Char* element, const XML_Char** attributes) {
  XlsxBook& book = bookof(context);
  const std::string_view name = localname(element);
  const long long format = wholenumber(attribute(attributes, "numFmtId"), INT_MAX);
  if (name == "cellXfs") {
    book.inside = true;
  } else if (name == "numFmt" && format >= 0) {
    book.formats[static_cast<int>(format)] = formatshows(attribute(attributes, "formatCode"));
  } else if (name == "xf" && book.inside) {
    const auto own = book.formats.find(static_cast<int>(format));
    book.styles.push_back(own != book.formats.end() ? own->second : builtinshows(format));
  }
}

void endstyle(void* context, const XML_Char* element) {
  if (localname(element) == "cellXfs") bookof(context).inside = false;
}

// --- The sheet ---

std::string cellname(const XlsxBook& book) {
  std::string letters;
  for (std::size_t left = book.column + 1; left > 0; left = (left - 1) / 26)
    letters.insert(letters.begin(), static_cast<char>('A' + (left - 1) % 26));
  return letters + std::to_string(book.rownumber);
}

// The cell's column from its name, as in "B7": the letters. Without a name it stands behind the one before.
bool findcolumn(XlsxBook& book, std::string_view name) {
  if (!name.empty()) {
    std::size_t column = 0;
    for (std::size_t i = 0; i < name.size() && name[i] >= 'A' && name[i] <= 'Z' && column <= mostcolumns; ++i)
      column = 26 * column + static_cast<std::size_t>(name[i] - 'A') + 1;
    book.column = column - 1;  // without letters: beyond all columns
  }
  return book.column < mostcolumns;
}

void startcell(XlsxBook& book, const XML_Char** attributes) {
  book.type.clear();
  book.style = 0;
  book.formula = false;
  book.text.clear();
  std::string_view name;
  for (; *attributes != nullptr; attributes += 2) {
    const XML_Char* key = attributes[0];
    if (key[0] == '\0' || key[1] != '\0') continue;
    if (key[0] == 'r') name = attributes[1];
    if (key[0] == 't') book.type = attributes[1];
    if (key[0] == 's') book.style = static_cast<std::size_t>(wholenumber(attributes[1], INT_MAX));
  }
  if (!findcolumn(book, name)) refuse(book, formatted("row %lld has a cell that no sheet can have", book.rownumber));
}

void startsheet(void* context, const XML_Char* element, const XML_Char** attributes) {
  XlsxBook& book = bookof(context);
  const std::string_view name = localname(element);
  if (name == "sheetData") book.inside = true;
  if (!book.inside) return;
  if (name == "c") {
    startcell(book, attributes);
  } else if (name == "v" || name == "t") {
    book.collects = !book.phonetic;
  } else if (name == "f") {
    book.formula = true;
  } else if (name == "rPh") {
    book.phonetic = true;
  } else if (name == "row") {
    const std::string_view stated = attribute(attributes, "r");
    const long long number = stated.empty() ? book.rownumber + 1 : wholenumber(stated, mostrows);
    if (number <= book.rownumber || number > mostrows)
      return refuse(book, formatted("a row behind row %lld has no number that a sheet can have", book.rownumber));
    book.rownumber = number;
    book.column = 0;
    book.row->count = 0;
  }
}

std::string_view withoutspace(std::string_view text) {
  constexpr const char* space = " \t\r\n";
  const std::size_t first = text.find_first_not_of(space);
  return first == text.npos ? "" : text.substr(first, text.find_last_not_of(space) + 1 - first);
}

void endcell(XlsxBook& book) {
  SheetCell& cell = cellat(*book.row, book.column);
  const bool texts = book.type == "str" || book.type == "inlineStr" || book.type == "d";
  double value = 0.0;
  cell = SheetCell{};
  if (book.type == "e") return;  // an error is a missing value
  if (texts) return settext(cell, book.text);
  if (withoutspace(book.text).empty()) {
    if (book.formula)
      refuse(book, formatted("the formula in %s has no stored result; save it from a spreadsheet program",
                             cellname(book).c_str()));
    return;
  }
  if (!fieldnumber(withoutspace(book.text), value))
    return refuse(book, formatted("%s holds no number", cellname(book).c_str()));
  const unsigned shows = book.style < book.styles.size() && book.type != "b" ? book.styles[book.style] : 0;
  if (book.type == "s") {
    if (!(value >= 0.0 && value < static_cast<double>(book.texts.size())))
      return refuse(book, formatted("%s refers to a text that is not there", cellname(book).c_str()));
    setshared(cell, book.texts[static_cast<std::size_t>(value)]);
  } else {
    setdated(cell, value, shows, book.from1904);
  }
}

void endsheet(void* context, const XML_Char* element) {
  XlsxBook& book = bookof(context);
  const std::string_view name = localname(element);
  book.collects = false;
  if (!book.inside) return;
  if (name == "c") {
    if (book.column >= mostcolumns) return;  // the end of an empty cell is still told when its start was refused
    endcell(book);
    ++book.column;
  } else if (name == "row") {
    XML_StopParser(book.part.parser, XML_TRUE);
  } else if (name == "rPh") {
    book.phonetic = false;
  } else if (name == "sheetData") {
    book.inside = false;
  }
}

bool rewindxlsx(void* opened, std::string& trouble) {
  XlsxBook& book = bookof(opened);
  book.trouble = &trouble;
  book.inside = book.phonetic = book.collects = false;
  book.rownumber = 0;
  openpart(book.part, book.sheet, {startsheet, endsheet, takecharacters, &book});
  return true;
}

bool rowofxlsx(void* opened, SheetRow& row, std::string& trouble) {
  XlsxBook& book = bookof(opened);
  book.trouble = &trouble;
  book.row = &row;
  row.count = 0;
  return book.part.parser != nullptr && parsepart(book.part, trouble) == PartState::paused;
}

void closexlsx(void* opened) {
  XlsxBook& book = bookof(opened);
  closepart(book.part);
  if (book.archive != nullptr) unzClose(book.archive);
  delete &book;
}

// Finds the parts, and keeps the texts and formats.
bool readbook(XlsxBook& book, std::string& trouble) {
  const std::string workbook = relatedpart(book, relationsof(book, ""), "officeDocument");
  if (!trouble.empty()) return false;
  trouble = "it is no workbook of Excel";
  if (workbook.empty()) return false;
  trouble.clear();
  WorkbookScan scan;
  if (!readpart(book.part, workbook, {startworkbook, nullptr, nullptr, &scan}, trouble)) return false;
  book.from1904 = scan.from1904;
  const Relations relations = relationsof(book, workbook);
  for (const std::string& id : scan.sheets) {
    const auto found = relations.find(id);
    if (found == relations.end() || found->second.kind != "worksheet") continue;  // a chart
    if (haspart(book.archive, found->second.target)) book.sheet = found->second.target;
    break;
  }
  const std::string texts = relatedpart(book, relations, "sharedStrings");
  const std::string styles = relatedpart(book, relations, "styles");
  if (!texts.empty()) (void)readpart(book.part, texts, {starttext, endtext, takecharacters, &book}, trouble);
  if (!styles.empty()) (void)readpart(book.part, styles, {startstyle, endstyle, nullptr, &book}, trouble);
  if (trouble.empty() && book.sheet.empty()) trouble = "it has no sheet";
  return trouble.empty();
}

// The file as minizip sees it: `opaque` is its path. A read that fails stops the job.
zlib_filefunc64_def filefunctions(const std::string& path) {
  zlib_filefunc64_def functions{};
  functions.opaque = const_cast<std::string*>(&path);
  functions.zopen64_file = [](void*, const void* name, int) -> void* {
    return std::fopen(static_cast<const char*>(name), "rb");
  };
  functions.zread_file = [](void* opaque, void* stream, void* bytes, uLong count) -> uLong {
    return readupto(bytes, count, static_cast<std::FILE*>(stream), *static_cast<const std::string*>(opaque));
  };
  functions.ztell64_file = [](void*, void* stream) {
    return static_cast<ZPOS64_T>(ftello(static_cast<std::FILE*>(stream)));
  };
  functions.zseek64_file = [](void*, void* stream, ZPOS64_T offset, int origin) -> long {
    const int from = origin == ZLIB_FILEFUNC_SEEK_CUR   ? SEEK_CUR
                     : origin == ZLIB_FILEFUNC_SEEK_END ? SEEK_END
                                                        : SEEK_SET;
    return fseeko(static_cast<std::FILE*>(stream), static_cast<off_t>(offset), from);
  };
  functions.zclose_file = [](void*, void* stream) { return std::fclose(static_cast<std::FILE*>(stream)); };
  functions.zerror_file = [](void*, void* stream) { return std::ferror(static_cast<std::FILE*>(stream)); };
  return functions;
}

void* openxlsx(const std::string& path, std::string& trouble) {
  auto* book = new XlsxBook;
  book->path = path;
  book->trouble = &trouble;
  zlib_filefunc64_def functions = filefunctions(book->path);
  book->archive = book->part.archive = unzOpen2_64(path.c_str(), &functions);
  if (book->archive == nullptr) {
    trouble = "it is no undamaged workbook of Excel: its table of contents is missing";
  } else if (readbook(*book, trouble) && rewindxlsx(book, trouble)) {
    return book;
  }
  closexlsx(book);
  return nullptr;
}

}  // namespace

const SheetSource xlsxsource = {openxlsx, rowofxlsx, rewindxlsx, closexlsx};

}  // namespace kdr
