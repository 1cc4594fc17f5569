// Numbers as text, appended to a result file: the digits of printf, several times as fast.
#pragma once

#include "driver/resultfile.h"

namespace kdr {

// "%.<decimals>f".
void appendnumber(ResultFile& file, double value, int decimals);
// "%<width>.<decimals>f". A number that is wider than its field would push all that follows out of its columns: it is
// written with as many decimals as fit, or with an exponent. Without decimals there is then no point either.
void appendfield(ResultFile& file, double value, int width, int decimals);
// "%<width>d".
void appendcount(ResultFile& file, int value, int width);
// "%<width>.<width>s".
void appendtext(ResultFile& file, const char* text, int width);

}  // namespace kdr
