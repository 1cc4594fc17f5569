// Writes workbooks of Excel 2007 and later part by part.
#pragma once

#include <minizip/zip.h>

#include <string>

namespace kdr {

// What differs between workbooks; the rest is the least that one has.
struct Workbook {
  std::string cells;        // inside <sheetData>
  std::string texts;        // inside <sst>
  std::string formats;      // inside <styleSheet>
  std::string setting;      // attributes of workbookPr
  bool absolute = false;    // targets from the root
  std::string prefix = {};  // of the sheet's elements, with its colon
  std::string sheetkind = "worksheet";
};

inline std::string relation(const std::string& id, const std::string& kind, const std::string& target) {
  return "<Relationship Id='" + id + "' Type='http://schemas.openxmlformats.org/officeDocument/2006/relationships/" +
         kind + "' Target='" + target + "'/>";
}

inline void makeworkbook(const char* path, const Workbook& book, int level = 6) {
  const std::string from = book.absolute ? "/xl/" : "";
  const std::string& p = book.prefix;
  const struct {
    const char* name;
    std::string content;
  } parts[] = {
      {"[Content_Types].xml", "<Types/>"},
      {"_rels/.rels", "<Relationships>" + relation("r", "officeDocument", "xl/workbook.xml") + "</Relationships>"},
      {"xl/workbook.xml", "<workbook><workbookPr " + book.setting +
                              "/><sheets><sheet name='one' sheetId='7' r:id='a'/><sheet name='two' sheetId='1' "
                              "r:id='b'/></sheets></workbook>"},
      {"xl/_rels/workbook.xml.rels", "<Relationships>" + relation("b", "worksheet", from + "b.xml") +
                                         relation("a", book.sheetkind, from + "sheets/../a.xml") +
                                         relation("t", "sharedStrings", from + "t.xml") +
                                         relation("s", "styles", from + "s.xml") + "</Relationships>"},
      {"xl/a.xml",
       "<" + p + "worksheet><" + p + "sheetData>" + book.cells + "</" + p + "sheetData></" + p + "worksheet>"},
      {"xl/b.xml", "<worksheet><sheetData><row><c t='str'><v>second</v></c></row></sheetData></worksheet>"},
      {"xl/t.xml", "<sst>" + book.texts + "</sst>"},
      {"xl/s.xml", "<styleSheet>" + book.formats + "</styleSheet>"},
  };
  zipFile archive = zipOpen64(path, APPEND_STATUS_CREATE);
  for (const auto& part : parts) {
    zipOpenNewFileInZip64(archive, part.name, nullptr, nullptr, 0, nullptr, 0, nullptr, level == 0 ? 0 : Z_DEFLATED,
                          level, 0);
    zipWriteInFileInZip(archive, part.content.data(), static_cast<unsigned>(part.content.size()));
    zipCloseFileInZip(archive);
  }
  zipClose(archive, nullptr);
}

}  // namespace kdr
