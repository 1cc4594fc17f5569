// The data set of a model run: what its MDM file holds, and the weights that the analysis gives its rows.
#pragma once

#include <cstdio>
#include <string>

#include "core/codes.h"
#include "core/names.h"
#include "core/results.h"
#include "data/longtexts.h"
#include "kernel/array.h"

namespace kdr {

// The plain values of an MDM file.
struct MdmHead {
  std::FILE* stream = nullptr;                // the open MDM file
  std::string path;                           // its name, for messages
  int nvar1 = 0, nvar2 = 0, nvar3 = 0;        // variables of each level, the intercept not counted
  int nunits1 = 0, nunits2 = 0, nunits3 = 0;  // level-1 records, level-2 units, level-3 units in the analysis
  int numl1rec = 0;                           // level-1 records that the file holds
  int numl2rec = 0, numl3rec = 0;             // level-2 blocks and level-3 rows that the file holds
  MdmType mdmtype = MdmType::ordinary;
  RawType rawdattype = RawType::ascii;
  bool numericids = false;   // IDs are doubles, else 13-byte texts
  bool l1missing = false;    // the level-1 data were declared to hold missing values
  bool deletednow = false;   // missing level-1 data were deleted when the file was made; else the data pass does it
  int maxnj = 0;             // largest number of records of a level-2 unit
  std::string fnames[3];     // raw files, for display
  long long firstblock = 0;  // file position of the first level-2 block
  long long lastblock = 0;   // where the last one ends; 0: at the end of the file
  LongTexts texts;           // what stands behind it

  int ncol1 = 0, ncol2 = 0, ncol3 = 0;  // widths of the equation tables: nvarL + 1 (ordinal: with thresholds)
  int maxbeta = 0;                      // ncol2 * (ncol1 - 1): level-2 coefficients that an equation set can have

  [[nodiscard]] bool twolevel() const { return mdmtype == MdmType::twolevel; }
};

// What the MDM file holds besides its level-2 blocks.
struct MdmData : MdmHead {
  Array<Name> names1, names2, names3;  // nvarL + 1 slots; slot 0 is the intercept
  Array<double> mean1, mean2, mean3;   // grand means, [v - 1]
  Array<Name> textid3;                 // [nunits3] when IDs are texts
  Array<double> numericid3;            // [nunits3] when IDs are numeric
  Array<double> level3;                // nunits3 rows of nvar3 values
  Array<double> observed3;             // the same before centering, empty where nothing is centered

  // The same data; both read one stream, by positions of their own.
  [[nodiscard]] MdmData copy() const;
};

[[nodiscard]] inline UnitCounts countsof(const MdmData& data) {
  return {data.nunits1, data.nunits2, data.twolevel() ? 0 : data.nunits3, data.numl1rec};
}

// Design weights, one entry per level-1 record, level-2 unit and level-3 unit in file order; empty unless the run is
// weighted.
struct DesignWeights {
  Array<double> weight1;           // products with those of both levels above
  Array<double> weight2;           // with that of the level above
  Array<double> weight3;           // of the unit
  Array<double> own1, own2, own3;  // of each level alone: what log-likelihoods are multiplied with
};

}  // namespace kdr
