// The results document of the run (document/resultsdocument.h): JSON, or a table of comma-separated values where the
// name ends in ".csv". Its phases are collected as their results stand. Nothing is kept unless the run asks for it.
#pragma once

#include <span>
#include <string>

#include "core/results.h"
#include "document/resultsdocument.h"
#include "estimate/likelihood/engines.h"
#include "estimate/quasi/macrostate.h"
#include "report/residual/residualfiles.h"
#include "series/pooledresults.h"

namespace kdr {

// Forgets what was collected: a pass of the series begins, or its averages.
void startdocument();

// The phase of a pass. An identity pass has none without full output.
void documentpass(const PassResults& results);
void documentleastsquares(const LeastSquaresResults& results);
// `mean` and `weighted` are the averages of taupi over the level-3 units.
void documentheterogeneous(const PassResults& results, const Array<double>& mean, const Array<double>& weighted);
// The phases of the averages of a series; `failed` are the indices of the data sets that failed.
void documentaverages(const Pooled& pooled, std::span<const int> failed);

// What is known behind a phase: of the macro iterations, and of an engine that has ended.
void documentmacroend(const MacroEvent& event);
void documentengine(const EngineStage& stage);
// The latent variable regression of the results of a pass, or of the averages.
void documentlatent(const PassResults& results, const LatentRegression& regression);
void documentlatent(const Pooled& averages, const LatentRegression& regression);
// Of the phase of that name.
void documentbootstrap(const char* phase, const BootstrapResults& results);
// Which records were analysed, and how a formula made the columns of the model.
void documentrecords(const RecordsHash& hash);
void documentcoding(Json made);
// With -effects, the random effects of a finished pass, for the phase of that name.
void documenteffects(const char* phase, Pass& pass);
// The same of an engine, for its phase. The IDs are those of the file of the records: the pass may be one that failed.
void documenteffects(const ResidualSource& of);
// An ID of a unit of level 2 or 3 as its source has it.
[[nodiscard]] std::string unitid(int level, const Id& id);
// The IDs of its units, of a pass that keeps them (Wanted::unitrows).
[[nodiscard]] UnitNames unitnames(Pass& pass);
// A sentence about the run as a whole.
void documentwarning(const std::string& words);

// The file of this pass: the name that the user gave, in a series with the number of the sub-run before its extension;
// empty when none is wanted.
[[nodiscard]] std::string resultsname();

// Stops with code 100 where -effects has no document to go into.
void checkeffects();

// Stops with code 100 where the document would take the place of a file that is none, as raw data named pupils.csv.
void refuseforeignresults();

// Writes the document of this pass, or of the averages. It is complete or not there. Failure 5.
void writeresults();
void writeaveragedresults();

}  // namespace kdr
