// Files of a run that would stand in each other's place.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kdr {

// Says so when a file that the run is going to write would take the place of one of the `inputs` or of raw data that
// the MDM file names; otherwise empty.
[[nodiscard]] std::string lossby(const std::string& output, const std::vector<std::string>& inputs);
// Stops with code 100 when one of the `outputs` would take the place of such a file or of another output: files that
// exist are compared by what they are, whatever path or link leads to them, others by their place. Empty names and
// devices are passed over.
void refuseclashes(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs);
// What a file begins as that the program reads.
enum class InputKind { none, mdmfile, mdmtemplate, commandfile, startingvalues, rawdata };
[[nodiscard]] InputKind inputkind(const std::string& path);
// Whether a text begins as a command file does; the program sets it at its start.
extern bool (*iscommandtext)(std::string_view head);
// Stops with code 100 when the file is one that the program reads, of another kind than the `own` of the output.
void refuseinput(const std::string& output, InputKind own = InputKind::none);
// Stops with code 100 when the output, a file or none yet, could not be written at the end of the run.
void refuseunwritable(const std::string& output);
// True when both paths lead to one file, or to one place where none is.
[[nodiscard]] bool leadtoone(const std::string& one, const std::string& other);

}  // namespace kdr
