// The heading of a section of results.
#pragma once

namespace kdr {

// Goes back to run.report.reportpos, unless there is none, and writes the heading of the pass that is under way; of a
// linear pass with full output also the level-1 variance `sigma2`.
void resultsheading(double sigma2);

}  // namespace kdr
