#include "construct/rawformats.h"

#include <strings.h>

#include "construct/rawvariables.h"
#include "construct/readers/ascii.h"
#include "construct/readers/other.h"
#include "construct/readers/sastransport.h"
#include "construct/readers/spss.h"
#include "construct/readers/stata.h"
#include "construct/readers/systat.h"

namespace kdr {

namespace {

constexpr RawReader readers[] = {
    {RawType::ascii, "ascii", 5, openascii, prepareascii, asciirecordof, closeascii},
    {RawType::systat, "systat", 6, opensystat, settlevariables, systatrecord, closesystat},
    {RawType::sas, "sas", 3, opensas, settlevariables, sasrecord, closesas},
    {RawType::spss, "spss", 4, openspss, preparespss, spssrecord, closespss},
    {RawType::stata, "stata", 4, openstata, preparestata, statarecord, closestata},
    {RawType::other, "other", 5, openother, prepareother, strecord, closeother, othercanbetext, otherastext,
     otherwhytext},
};

}  // namespace

const RawReader* findreader(const std::string& value) {
  for (const RawReader& reader : readers)
    if (strncasecmp(value.c_str(), reader.word, reader.match) == 0) return &reader;
  return nullptr;
}

}  // namespace kdr
