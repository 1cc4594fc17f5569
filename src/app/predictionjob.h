// Predictions of a run: of the rows of a file (-predict) and of the analysed records (-margins), each as a table beside
// the report (docs/formulas.md, "Predictions").
#pragma once

#include <string>

#include "core/results.h"
#include "estimate/analysis.h"

namespace kdr {

struct Pass;
struct Posteriors;
struct PreparedFit;

// `fit` is null in a run of a command file, and has to stay until the predictions are written.
void startpredictions(const PreparedFit* fit);
// Stops with code 100 where they cannot be had: for a series, and for names that the model does not know.
void checkpredictions(const Analysis& analysis);
// The same for files that would be lost.
void refuseforeignpredictions();
// The names of the tables, empty for those that are not asked for.
[[nodiscard]] std::string predictionsname();
[[nodiscard]] std::string marginsname();

// Keeps what a finished pass knows of the units of the rows, where predictions are asked for.
void keepuniteffects(Pass& pass);
// Writes the tables by the last results of the run. `kept`: they are those of the pass that keepuniteffects was given;
// `random`: the random effects of an engine whose results they are, or null.
void writepredictions(const Analysis& analysis, const PassResults& results, bool kept,
                      const Posteriors* random = nullptr);

}  // namespace kdr
