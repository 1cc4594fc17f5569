// All that one process knows of its one job. Reached as `run` by the rooms of the program, not by the
// estimation; composed of plain groups of fields.
//
// Every field is zero, empty or false from program start unless a default stands beside it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "core/codes.h"
#include "core/constants.h"
#include "core/control.h"
#include "core/model.h"
#include "core/names.h"
#include "data/mdmdata.h"
#include "data/scratch.h"
#include "kernel/array.h"

namespace kdr {

// Identity of the process and how it was called.
struct RunIdentity {
  std::tm started{};             // local time at program start
  bool inmemory = false;         // -i: the unit store stays in memory, whatever its size
  int threads = 0;               // -t<n>: threads of the maximum-likelihood engines; 0: one for each core
  int waitseconds = 3;           // length of the wait at every end; below 0 (-q): none at all
  bool restricted = false;       // -reml: LIKELIHOOD:REML, whatever the command file says
  int bootstrap = 0;             // -bootstrap N: replicates; 0: none
  std::uint64_t seed = 1;        // -seed
  bool cases = false;            // -cases: of level-3 units
  bool strict = false;           // -strict: a run that did not converge ends with unconvergedcode
  std::optional<int> records;    // level-1 records of the last data pass, fewer than the data's behind deletion
  bool unconverged = false;      // a result of the run was stopped before it converged, or given up
  bool passunconverged = false;  // the same of this pass of a series of plausible values
};

// A series of sub-runs: multiple imputation (one process each) or plausible values (one pass each).
struct SeriesMode {
  bool mimode = false;                        // -mi<k>
  int miindex = 0;                            // k
  bool mifirst = false;                       // k is 0: the result store is to be created
  bool milast = false;                        // -e
  bool closing = false;                       // -e without files: no data set, only the averages
  char mistatus[128] = {};                    // of each data set: 1 finished, 2 finished without convergence
  bool pvmode = false;                        // a PLAUSVALS: list is in force
  bool pvfirst = false;                       // first pass of that repetition
  int pvindex = 0;                            // number of the current pass, from 0
  bool showntau2 = false, showntau3 = false;  // a starting tau has been shown in this series
  Array<int> pvlist;                          // level-1 index of each plausible value, nsets entries
  int pvcurrent = 0;                          // level-1 index in use now
  int pvpredictor = 0;                        // passes in which the plausible value was a predictor
  int nsets = 0;                              // listed plausible values; under mimode, data sets stored so far
};

// What tells a file that this run has made from one that took its place later.
struct FileMark {
  std::string name;
  long long bytes = 0;
  std::uint32_t crc = 0;  // CRC-32
  std::string phase;      // whose values it has, as the results document names it; empty: of no phase
};

// Paths, at most 259 characters each.
struct RunFiles {
  std::string mdmfile;        // MDM file, read or to be written
  std::string cmdfile;        // command file; empty: the dialogue supplies the model
  std::string cmdshown;       // the name printed in the report
  std::string sourcename;     // the data source's name in the report
  std::string outfile;        // report path, or the word "stdout" in any case
  std::string outbase;        // outfile without its extension, the stem of numbered reports
  std::string title;          // problem title, at most 63 characters
  std::string startvals;      // starting-value file
  std::string graphgammas;    // graph data file
  std::string nullmodel;      // NULLMODEL:. Results document of the model without predictors; empty: none
  std::string results;        // RESULTS:, -results. Results document; empty: none
  bool resultsgiven = false;  // by -results, which wins over RESULTS:
  std::string predict;        // -predict: the file whose rows are predicted; empty: none
  std::string predictlevel2, predictlevel3;  // its columns of IDs; with -fit the formula tells them
  std::string margins;                       // -margins, as it stands
  std::string resfil1name, resfil2name, resfil3name;
  ScratchFile nextcommands;             // command file of the next plausible-value pass, without a name
  std::vector<std::string> unfinished;  // result files that are not complete; a stop removes them
  std::vector<std::string> made;        // result files of this pass that are complete, in order
  std::vector<FileMark> marks;          // of its residual files and its graph data file
};

// What the run writes.
struct OutputControl {
  bool fulloutput = true;                       // FULLOUTPUT:
  VarianceFiles printvc = VarianceFiles::none;  // PRINTVARIANCE-COVARIANCE:
  bool resfil1 = false, resfil2 = false, resfil3 = false;
  bool resfilrecnum = false;                     // RESFILRECNUM:. the level-1 file has the number of each record
  ResidualForm resfiltype = ResidualForm::spss;  // RESFILTYPE:
  ResidualsOf resfilof = ResidualsOf::engine;    // RESFILOF:
  bool graph = false;                            // GRAPHGAMMAS:
  bool effects = false;                          // -effects: the results document has the random effects
  std::optional<double> deviance;                // DEVIANCE:. Of the alternative model
  int df = 0;                                    // DF:. Its number of parameters
  bool lvr = false;                              // LVR-BETA:
  Array<LatentRole> lvrroles;                    // one per random level-2 coefficient

  // Variables that the residual files are to carry: marks by variable (1 wanted) ...
  Array<int> wanted1vars1, wanted1vars2, wanted1vars3;  // widths ncol1, ncol2, ncol3
  Array<int> wanted2vars2, wanted2vars3;                // widths ncol2, ncol3
  Array<int> wanted3vars3;                              // width ncol3
  // ... and the lists of `n...` variable indices that `compactlists` makes of them.
  Array<int> res1vars1, res1vars2, res1vars3;
  Array<int> res2vars2, res2vars3;
  Array<int> res3vars3;
  int nres1vars1 = 0, nres1vars2 = 0, nres1vars3 = 0;
  int nres2vars2 = 0, nres2vars3 = 0;
  int nres3vars3 = 0;
};

// One mark per group of questions: what the command file answered, so that the dialogue passes over it.
struct AnsweredMarks {
  bool nonlin = false, level1 = false, level2 = false, level3 = false;
  bool extra2 = false, extra3 = false;  // a "/" list on a LEVEL2: or LEVEL3: line
  bool deletion = false, lvr = false, nobase = false, iterations = false;
  bool constrain = false, hypoth = false, gammas = false, deviance = false;
  bool resfiltype = false;
  bool numit = false, stopval = false, stopmicro = false;
  bool title = false, output = false, resfil1 = false, resfil2 = false, resfil3 = false;
  [[nodiscard]] bool wholemodel() const { return level1 && level2 && level3; }
};

// Letters of the report's quantities, in the report's mode.
struct Symbols {
  std::string sym1, sym2, sym3;           // coefficients of levels 1 to 3
  std::string syme, symr2, symr3;         // random effects of levels 1 to 3
  std::string symvar1, symvar2, symvar3;  // their variances
  std::string symsub, symsub2, symsub3;   // subscript letters of level-1, level-2 and level-3 quantities
};

// The report. Written through driver/reportstream.h.
struct ReportStream {
  std::FILE* stream = nullptr;  // null while no report is open
  bool html = false;
  bool numberedhtml = false;  // mode of the numbered reports of a series, from the name that was given for them
  long long mark = -1;        // where the results of a later pass go back to, below 0: nowhere (markreport)
};

// A sentence about the run as a whole, which the report has below its header and the results document among its
// warnings. Of what the command file says in vain (driver/oddities.h), or of the rest (driver/warnings.h).
struct RunWarning {
  std::string words;
  bool ofcommands;
};

struct RunRecord {
  std::vector<RunWarning> warnings;
  RunIdentity id;
  SeriesMode series;
  RunFiles files;
  MdmData mdm;
  Model model;
  Control control;
  OutputControl out;
  AnsweredMarks answered;
  Symbols sym;
  ReportStream report;
  DesignWeights weights;

  // Level-1 records of the analysis; of the data before the first data pass.
  [[nodiscard]] int records() const { return id.records.value_or(mdm.nunits1); }
};

extern RunRecord run;

// Sets the constants of the record that depend on the moment: start time and temporary names.
void startrun();

// Allocates the equation tables of run.model for its `neqsets` sets from the dimensions in run.mdm, all term slots
// noslot, everything else zero.
void allocatemodel();

}  // namespace kdr
