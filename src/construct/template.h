// MDM templates: the plain-text recipe of one MDM file.
#pragma once

#include <cstddef>
#include <string>

#include "construct/templatehead.h"
#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

inline constexpr const char* templatecopy = "creatmdm.mdmt";

// The table of run.mdm that holds the names of level index 0 to 2.
[[nodiscard]] Array<Name>& namesof(int level);
// Makes that table anew: the intercept's name and `count` blank names.
void startnames(int level, std::size_t count);
// Whether a name is that of a level's intercept.
[[nodiscard]] bool isintercept(const Name& name);
// Makes it from the chosen rows of a raw file that names its variables. Stops with code 100 where two of them would
// have one name or one that of an intercept.
void takenames(int level);

// Whether the file can be opened and begins as a template does. Stops with code 100 when it cannot be read.
[[nodiscard]] bool istemplate(const std::string& path);
// Reads a template into `raw`, run.mdm (names, kinds) and run.files.mdmfile, opens its raw files, and writes it back by
// writetemplate. Stops with code 100 and words of its own on anything it cannot use.
void readtemplate(const std::string& path);

// Writes what `raw`, run.mdm and run.files.mdmfile tell as a template to creatmdm.mdmt in the working directory.
// `samemissing`: one missing code stands for all level-1 variables. Failure 5 when it cannot be written.
void writetemplate(bool samemissing);

}  // namespace kdr
