#include "model/dialogue.h"

#include "model/complete.h"
namespace kdr {
void modelquestions() { completemodel(); }
void constraintquestions() {}
void featurequestions() {}
void outputquestions() {}
}  // namespace kdr
