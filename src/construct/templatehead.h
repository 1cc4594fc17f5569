// The line that a template begins with.
#pragma once

namespace kdr {

inline constexpr const char* templatehead = "#KDR3 MDM CREATION TEMPLATE";

}  // namespace kdr
