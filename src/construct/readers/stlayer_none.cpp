#include "construct/readers/stlayer.h"

namespace kdr {

// A build without the libraries.
std::span<const StBackend> stbackends() { return {}; }

}  // namespace kdr
