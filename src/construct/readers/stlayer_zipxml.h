// XML parts of a zip archive, streamed: minizip unpacks, expat parses. No part is ever in memory as a whole.
#pragma once

#include <expat.h>
#include <minizip/unzip.h>

#include <string>
#include <string_view>

namespace kdr {

// The part that is being read; an archive has one at a time.
struct XmlPart {
  unzFile archive = nullptr;
  XML_Parser parser = nullptr;
  std::string name;
};

struct XmlHandlers {
  XML_StartElementHandler start;
  XML_EndElementHandler end;
  XML_CharacterDataHandler text;  // null where the text does not matter
  void* context;                  // their first argument
};

// True when the archive has the part, in whatever case.
[[nodiscard]] bool haspart(unzFile archive, const std::string& name);
// Opens a part that the archive has, in place of the one that was open.
void openpart(XmlPart& part, const std::string& name, const XmlHandlers& handlers);
void closepart(XmlPart& part);

enum class PartState { paused, ended, failed };
// Parses on until a handler pauses the parser, to the end, or to a fault, which `trouble` tells. A handler that finds a
// fault sets `trouble` itself and stops the parser.
[[nodiscard]] PartState parsepart(XmlPart& part, std::string& trouble);
// Parses a whole part.
[[nodiscard]] bool readpart(XmlPart& part, const std::string& name, const XmlHandlers& handlers, std::string& trouble);

// The name of an element or attribute without its prefix.
[[nodiscard]] std::string_view localname(const XML_Char* name);
// The value of an attribute, by its name without prefix; empty when it is not there.
[[nodiscard]] std::string_view attribute(const XML_Char** attributes, std::string_view name);

}  // namespace kdr
