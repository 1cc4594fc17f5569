// The state in which every reading of a command file begins.
#pragma once

#include "core/codes.h"

namespace kdr {

// Gives every keyword field its default and makes the equation tables of one plain set, every term slot free.
void resetkeywords();
// Gives each residual file without a name of its own the default name of run.out.resfiltype.
void setresfilnames();
// Sets run.out.resfiltype; a residual file that bears the default name of the earlier type gets that of the new one.
void changeresfiltype(ResidualForm resfiltype);

}  // namespace kdr
