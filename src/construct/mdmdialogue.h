// The dialogue that makes an MDM file: the same facts as a template tells, by question and answer.
#pragma once

namespace kdr {

// Fills `raw`, run.mdm (names, kinds) and run.files.mdmfile from the answers, opens the raw files, and writes it all as
// a template by writetemplate. Code 100 after ten answers out of range, failure 14 where a name, a format or an ID
// column does not come; a raw file that cannot be read ends the run as it does for a template.
void mdmdialogue();

// The dialogue's choice of ID columns and variables from the row table of raw.level[level], for the formats whose files
// name their variables. Marks the rows, fills `chosen` and the level's name table, and at level index 0 settles
// run.mdm.numericids.
void choosevariables(int level);

}  // namespace kdr
