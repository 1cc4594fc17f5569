#include "construct/readers/stlayer_zipxml.h"

#include "construct/readers/stlayer.h"
#include "core/formatted.h"
#include "driver/failures.h"

namespace kdr {

namespace {

constexpr int piecesize = 1 << 16;
constexpr int anycase = 2;  // how unzLocateFile compares names

// Hands the next piece of the part to the parser.
XML_Status feed(XmlPart& part, std::string& trouble) {
  checksignals();
  void* piece = XML_GetBuffer(part.parser, piecesize);
  if (piece == nullptr) fail(3);
  const int length = unzReadCurrentFile(part.archive, piece, piecesize);
  if (length < 0) {
    trouble = formatted("its part %s cannot be unpacked", part.name.c_str());
    return XML_STATUS_ERROR;
  }
  return XML_ParseBuffer(part.parser, length, length == 0);
}

}  // namespace

bool haspart(unzFile archive, const std::string& name) {
  return unzLocateFile(archive, name.c_str(), anycase) == UNZ_OK;
}

void openpart(XmlPart& part, const std::string& name, const XmlHandlers& handlers) {
  closepart(part);
  part.name = name;
  part.parser = XML_ParserCreate(nullptr);
  if (part.parser == nullptr) fail(3);
  XML_SetUserData(part.parser, handlers.context);
  XML_SetElementHandler(part.parser, handlers.start, handlers.end);
  XML_SetCharacterDataHandler(part.parser, handlers.text);
  // A failure of these two shows when the part is read.
  (void)unzLocateFile(part.archive, name.c_str(), anycase);
  (void)unzOpenCurrentFile(part.archive);
}

void closepart(XmlPart& part) {
  if (part.parser == nullptr) return;
  XML_ParserFree(part.parser);
  part.parser = nullptr;
  unzCloseCurrentFile(part.archive);
}

PartState parsepart(XmlPart& part, std::string& trouble) {
  XML_ParsingStatus status;
  XML_GetParsingStatus(part.parser, &status);
  XML_Status result = XML_STATUS_OK;
  if (status.parsing == XML_SUSPENDED) result = XML_ResumeParser(part.parser);
  for (;; result = feed(part, trouble)) {
    if (result == XML_STATUS_SUSPENDED) return PartState::paused;
    if (result == XML_STATUS_ERROR) break;
    XML_GetParsingStatus(part.parser, &status);
    if (status.parsing == XML_FINISHED) {
      if (unzCloseCurrentFile(part.archive) == UNZ_OK) return PartState::ended;
      trouble = formatted("its part %s does not agree with its checksum", part.name.c_str());
      return PartState::failed;
    }
  }
  const XML_Error error = XML_GetErrorCode(part.parser);
  if (error == XML_ERROR_NO_MEMORY) fail(3);
  if (trouble.empty())
    trouble = formatted("its part %s is damaged in line %llu: %s", part.name.c_str(),
                        static_cast<unsigned long long>(XML_GetCurrentLineNumber(part.parser)), XML_ErrorString(error));
  return PartState::failed;
}

bool readpart(XmlPart& part, const std::string& name, const XmlHandlers& handlers, std::string& trouble) {
  openpart(part, name, handlers);
  const bool whole = parsepart(part, trouble) == PartState::ended;
  closepart(part);
  return whole;
}

std::string_view localname(const XML_Char* name) {
  // Most names have a few letters and no prefix: a plain loop beats two searches by the library.
  const XML_Char* end = name;
  for (; *end != '\0'; ++end)
    if (*end == ':') name = end + 1;
  return {name, static_cast<std::size_t>(end - name)};
}

std::string_view attribute(const XML_Char** attributes, std::string_view name) {
  for (; *attributes != nullptr; attributes += 2)
    if (localname(attributes[0]) == name) return attributes[1];
  return {};
}

}  // namespace kdr
