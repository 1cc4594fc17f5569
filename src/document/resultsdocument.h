// The results of a fit as one document for other programs: JSON, or a table of comma-separated values
// (docs/results.md, docs/results.schema.json). The phases are collected as their results stand; a phase takes the place
// of an earlier one of its name, as in the report.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "core/results.h"
#include "document/subject.h"
#include "estimate/likelihood/engines.h"
#include "estimate/linear/unitresults.h"
#include "estimate/quasi/macrostate.h"
#include "series/latentregression.h"
#include "series/pooledresults.h"

namespace kdr {

struct ResultsDocument {
  std::vector<Json> phases;
  std::vector<std::string> warnings;  // sentences about the whole
  bool converged = true;              // nothing was stopped, limited or given up so far
  bool separated = false;             // some fixed effects have no finite estimate
};

// IDs of the units: of each level-2 unit with a record, and which level-3 unit it belongs to; of each level-3 unit.
struct UnitNames {
  std::vector<std::string> level2, level3;
  std::vector<std::size_t> parent;  // [level-2 unit]
  std::vector<char> empty;          // [level-2 unit] not 0: it lost all of its records
};

// The phase of a pass, of ordinary least squares.
void addphase(ResultsDocument& document, const Subject& subject, const PassResults& results);
void addphase(ResultsDocument& document, const Subject& subject, const LeastSquaresResults& results);
// Of a tau(pi) for each level-3 unit; `mean` and `weighted` are the averages of taupi over these.
void addphase(ResultsDocument& document, const Subject& subject, const PassResults& results, const Array<double>& mean,
              const Array<double>& weighted);
// The phases of the averages of a series.
void addphases(ResultsDocument& document, const Subject& subject, const Pooled& pooled);
// The phase of an engine that has ended, if there are results, and what has come of them.
void addengine(ResultsDocument& document, const Subject& subject, const EngineStage& stage, bool fixednodes);
// The latent variable regression of the estimates of a pass, and of the averages of a series, for their phase.
void addlatent(ResultsDocument& document, const Subject& subject, const PassResults& results,
               const LatentRegression& regression);
void addlatent(ResultsDocument& document, const Subject& subject, const Pooled& averages,
               const LatentRegression& regression);
// The bootstrap of the phase of that name.
void addbootstrap(ResultsDocument& document, const Subject& subject, const char* phase,
                  const BootstrapResults& results);
// The random effects of the phase of that name: means and covariances given the data, of each unit.
void addrandomeffects(ResultsDocument& document, const Subject& subject, const char* phase,
                      const Posteriors& posteriors, const UnitNames& names);
// How the macro iterations ended, which their last pass alone does not tell.
void addmacroend(ResultsDocument& document, const MacroEvent& event);

// What stands around the phases.
struct DocumentFrame {
  std::string title, mdmfile, commandfile;  // empty: there is none
  Json series, converged;                   // the members of these names
  Json files = Json::array(), checksums = Json::array();
  Json coding;  // how a formula made the columns of the model
};

// The whole. Its warnings are those of the document, one for each phase that ended too soon, and one for a comparison
// of deviances that is none.
[[nodiscard]] Json wholedocument(const ResultsDocument& document, const Subject& subject, const DocumentFrame& frame);

// The whole as the text of a file: JSON, or the table.
[[nodiscard]] std::string documenttext(const Json& whole, bool table);

// What a document and a table begin with.
inline constexpr char documenthead[] = "{\n \"format\": \"kdr3 results\"";
inline constexpr char tablehead[] = "phase,part,";

}  // namespace kdr
