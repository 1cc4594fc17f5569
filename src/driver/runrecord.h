// All that one process knows of its one job. Reached by all code as `run`; composed of plain groups of fields.
//
// Every field is zero, empty or false from program start unless a default stands beside it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/modelspec.h"
#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

// Identity of the process and how it was called.
struct RunIdentity {
  std::tm started{};             // local time at program start
  bool inmemory = false;         // -i: the unit store stays in memory, whatever its size
  int threads = 0;               // -t<n>: threads of the maximum-likelihood engines; 0: one for each core
  int waitseconds = 3;           // length of the wait at every end; below 0 (-q): none at all
  bool strict = false;           // -strict: a run that did not converge ends with unconvergedcode
  bool unconverged = false;      // a result of the run was stopped before it converged, or given up
  bool passunconverged = false;  // the same of this pass of a series of plausible values
};

// A series of sub-runs: multiple imputation (one process each) or plausible values (one pass each).
struct SeriesMode {
  bool mimode = false;      // -mi<k>
  int miindex = 0;          // k
  bool mifirst = false;     // k is 0: the result store is to be created
  bool milast = false;      // -e
  char mistatus[128] = {};  // 1 for each data set that was finished
  bool pvmode = false;      // a PLAUSVALS: list is in force
  bool pvfirst = false;     // first pass of that repetition
  int pvindex = 0;          // number of the current pass, from 0
  Array<int> pvlist;        // level-1 index of each plausible value, nsets entries
  int pvcurrent = 0;        // level-1 index in use now
  int pvpredictor = 0;      // passes in which the plausible value was a predictor
  int nsets = 0;            // listed plausible values; under mimode, data sets stored so far
};

// What tells a file that this run has made from one that took its place later.
struct FileMark {
  std::string name;
  long long bytes = 0;
  std::uint32_t crc = 0;  // CRC-32
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
  std::string results;        // RESULTS:, -results. Results document; empty: none
  bool resultsgiven = false;  // by -results, which wins over RESULTS:
  std::string resfil1name, resfil2name, resfil3name;
  std::FILE* nextcommands = nullptr;    // command file of the next plausible-value pass, without a name
  std::FILE* working = nullptr;         // working data file, without a name
  std::vector<std::string> unfinished;  // result files that are not complete; a stop removes them
  std::vector<std::string> made;        // result files of this pass that are complete, in order
  std::vector<FileMark> marks;          // of its residual files and its graph data file
};

// What the MDM file holds besides its level-2 blocks.
struct MdmData {
  std::FILE* stream = nullptr;                // the open MDM file of a model run
  int nvar1 = 0, nvar2 = 0, nvar3 = 0;        // variables of each level, the intercept not counted
  Array<Name> names1, names2, names3;         // nvarL + 1 slots; slot 0 is the intercept
  int nunits1 = 0, nunits2 = 0, nunits3 = 0;  // level-1 records, level-2 units, level-3 units in the analysis
  int numl1rec = 0;                           // level-1 records that the file holds
  int numl2rec = 0, numl3rec = 0;             // level-2 blocks and level-3 rows that the file holds
  int mdmtype = 0;          // 0 ordinary, 1 and 3 measurement model at level 1, 2 growth: picks the report's symbols
  int rawdattype = 0;       // 2 ASCII, 3 SYSTAT, 5 SAS transport, 6 SPSS, 8 Stata, 9 other
  bool numericids = false;  // IDs are doubles, else 13-byte texts
  bool l1missing = false;   // the level-1 data were declared to hold missing values
  bool deletednow = false;  // missing level-1 data were deleted when the file was made; else the data pass does it
  int maxnj = 0;            // largest number of records of a level-2 unit
  std::string fnames[3];    // raw files, for display
  Array<double> mean1, mean2, mean3;  // grand means, [v - 1]
  Array<Name> textid3;                // [nunits3] when IDs are texts
  Array<double> numericid3;           // [nunits3] when IDs are numeric
  Array<double> level3;               // nunits3 rows of nvar3 values
  long long firstblock = 0;           // file position of the first level-2 block

  int ncol1 = 0, ncol2 = 0, ncol3 = 0;  // widths of the equation tables: nvarL + 1 (ordinal: with thresholds)
  int maxbeta = 0;                      // ncol2 * nvar1: level-2 coefficients that an equation set can have
};

// What kind of model is run.
struct ModelKind {
  int nonlin = 0;             // NONLIN: 0 linear, 1 Bernoulli or binomial, 2 Poisson, 3 multinomial or ordinal
  bool ordinal = false;       // with nonlin 3
  int ncat = 0;               // categories
  int neqsets = 1;            // sets of equations: ncat - 1 for a multinomial run
  bool nlcount = false;       // a count or exposure variable is in use
  int nlcntvar = 0;           // its level-1 index
  int outvar = 0;             // level-1 index of the outcome
  Name outname{};             // the outcome as reported
  bool nointercept1 = false;  // the level-1 equation has no INTRCPT1: level-1 subscripts start at 1
  bool weighted = false;      // a design weight is in force
  bool nlrun = false;         // under way as a Bernoulli, binomial or Poisson run
  bool mnrun = false;         // under way as a multinomial or ordinal run
  [[nodiscard]] bool linear() const { return !nlrun && !mnrun; }
  Array<Name> categorylabel;  // ncat labels of a multinomial or ordinal outcome
};

// Numbers and labels of the coefficients, counted once the model is complete.
struct Coefficients {
  int npi = 0;          // level-1 coefficients of all sets, thresholds of an ordinal model among them
  int nbeta = 0;        // level-2 coefficients of all sets
  int ntaupi = 0;       // those random at level 2: the order of taupi
  int ntaubeta = 0;     // those random at level 3: the order of taubeta
  int ngamma = 0;       // fixed effects of all sets; without the constrained ones once the constraints are applied
  Array<Name> pinames;  // the level-1 variable of each row of taupi
  Array<Name> betanames1, betanames2;                  // the level-1 and the level-2 variable of each row of taubeta
  Array<Label> gammanames1, gammanames2, gammanames3;  // row labels of the fixed effects of the reduced model
  Array<Name> gammasubs;            // the digits of each fixed effect's subscript, full ngamma entries
  Array<int> pisubs;                // subscript of each random level-1 coefficient
  Array<int> betasubs1, betasubs2;  // the two subscripts of each random level-2 coefficient
};

// How the iterations run. The field of a keyword bears the keyword's name.
struct IterationControl {
  int numit = 0;                 // NUMIT:, MICROIT:. Most iterations; 0: the dialogue asks
  int numitcontinue = 2;         // at the limit: 2 ask, 0 stop, 1 go on until converged
  int macroit = 0;               // MACROIT:
  double stopval = 1.0e-6;       // STOPVAL:, STOPMICRO:. Percentage of the log-likelihood
  double stopmacro = 1.0e-4;     // STOPMACRO:
  int accel = 5;                 // ACCEL:. Iterations between accelerations
  int fishertype = 2;            // FISHERTYPE:, DOFISHER:. 0 none, 1 outer products, 2 expected information
  double fixsigma2 = 0.0;        // FIXSIGMA2:. 0.0: sigma^2 is estimated
  int fixtau2 = 3, fixtau3 = 3;  // FIXTAU2:, FIXTAU3:. 1 off-diagonals 0, 2 by hand, 3 automatic, 4 quit, 5 always ask
  bool haveesttau2 = false, haveesttau3 = false;
  Array<double> esttau2, esttau3;  // ESTTAU2:, ESTTAU3:. Square, of the order of the tau; missingcode is free
  bool havecontau2 = false, havecontau3 = false;
  Array<int> contau2, contau3;  // CONTAU2:, CONTAU3:. Packed lower triangle: 0 free; the first member of a group has
                                // its own 1-based place, the others minus that
  int hetit = 0;                // HETIT:. Iterations of the stage with a taupi per level-3 unit
  bool laplace = false;         // LAPLACE:
  int laplaceit = 50;
  int agqpoints = 0;  // AGQ:. Quadrature points; 0 is off
  int agqit = 0;
  int agqderivlevel = 2;  // AGQDERIVLEVEL:
  int taylor = 0;         // TAYLOR:. 0, 2 or 4
  int popavit = 0;        // POPAVIT:
  int debug = 0;          // DEBUG:
};

// What the run writes.
struct OutputControl {
  bool fulloutput = true;                       // FULLOUTPUT:
  int printvc = 0;                              // PRINTVARIANCE-COVARIANCE:. 0 none, 1 Y, 2 A
  bool diagtaupi = false, diagtaubeta = false;  // DIAGONALIZETAUPI:, DIAGONALIZETAUBETA:
  bool resfil1 = false, resfil2 = false, resfil3 = false;
  bool resfilrecnum = false;                  // RESFILRECNUM:. the level-1 file has the number of each record
  int resfiltype = 6;                         // RESFILTYPE:. 2 free format, 3 SYSTAT, 5 SAS, 6 SPSS, 8 Stata
  bool graph = false;                         // GRAPHGAMMAS:
  int wgtvar1 = 0, wgtvar2 = 0, wgtvar3 = 0;  // LEVEL1WEIGHT: ...: index of the weight variable, 0 none
  int autovknown = 0;                         // VARIANCEKNOWN:. Level-1 index of the known variance, 0 none
  double deviance = missingcode;              // DEVIANCE:. Of the alternative model
  int df = 0;                                 // DF:. Its number of parameters
  bool lvr = false;                           // LVR-BETA:
  Array<int> lvrroles;                        // one per random level-2 coefficient: 0 ignore, 1 outcome, 2 predictor
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

// Estimates, row-major. Orders: ngamma, ntaupi and ntaubeta.
struct Estimates {
  Array<double> gammahat;  // [ngamma]
  Array<double> taupi;     // order ntaupi, full symmetric
  Array<double> taubeta;   // order ntaubeta, full symmetric
  double sigma2 = 0.0;
  Array<double> vgamma;  // ngamma squared: sigma2 * vgamma is the covariance of gammahat

  [[nodiscard]] Estimates copy() const {
    return {gammahat.copy(), taupi.copy(), taubeta.copy(), sigma2, vgamma.copy()};
  }
  // Of gammahat, by the model.
  [[nodiscard]] Array<double> covariance() const;
};

// Design weights and known variances, one entry per level-1 record, level-2 unit and level-3 unit in file order.
struct DesignWeights {
  Array<double> weight1;  // empty unless the run is weighted
  Array<double> factor1;  // sqrt(weight1) over the root of the known variance; empty without either
  Array<double> weight2;
  Array<double> weight3;
};

struct RunRecord {
  RunIdentity id;
  SeriesMode series;
  RunFiles files;
  MdmData mdm;
  ModelKind kind;
  ModelSpec model;
  Coefficients coef;
  IterationControl iter;
  OutputControl out;
  AnsweredMarks answered;
  Symbols sym;
  ReportStream report;
  Estimates est;
  DesignWeights weights;
};

extern RunRecord run;

// Sets the constants of the record that depend on the moment: start time and temporary names.
void startrun();

// Allocates the equation tables of run.model for `kind.neqsets` sets from the dimensions in run.mdm, all term slots
// noslot, everything else zero.
void allocatemodel();

}  // namespace kdr
