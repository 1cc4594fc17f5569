#pragma once
namespace kdr {
void modelquestions();
void constraintquestions();
void featurequestions();
void outputquestions();
}  // namespace kdr
