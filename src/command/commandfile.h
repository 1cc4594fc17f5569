// The command file: lines "KEYWORD:value" that set what the user controls and state the model.
#pragma once

namespace kdr {

// Resets every keyword field of the run (groups iter, out, answered, the kind of model, the paths and the title that
// keywords give) and the tables of run.model, then reads run.files.cmdfile, if not empty, and settles what its keywords
// settle together. Needs the dimensions and names in run.mdm. Raises failures 8 to 10 and stops with code 100 after
// words of its own; an unknown keyword is told and passed over.
void readcommandfile();

}  // namespace kdr
