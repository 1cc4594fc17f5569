// Deviance of the model and its comparison with an alternative one.
#pragma once

#include <string>

#include "core/results.h"

namespace kdr {

// Writes deviance and number of parameters of a pass or an engine, and the likelihood-ratio test when the run was told
// the deviance of an alternative model.
void modelstatistics(const PassResults& results);

// Writes sentences in lines of the report's width.
void sentences(const std::string& text);

}  // namespace kdr
