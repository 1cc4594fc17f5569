// The columns of a residual file and their names in every form. A row holds the IDs, at levels 2 and 3 the number of
// members of the unit, and then one value for each column.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "data/mdm.h"

namespace kdr {

// The values of RESFILTYPE:.

// The columns of a group stand together, and the groups of a level stand in this order, but for the number of the
// record, which is the last column.
enum class ColumnGroup {
  fit,     // level 1: residuals and fitted values, one each or one for each category but the last, and SIGMA; in runs
           // with engines those on the scale of the outcome, too, with categories those on the scale of the link
  EB,      // empirical Bayes residuals
  OL,      // least-squares residuals
  FV,      // fitted values of the coefficients
  EC,      // empirical Bayes coefficients
  PV,      // posterior variances, lower triangle by rows
  record,  // level 1: the number of the record in its level-2 unit
  chosen,  // variables of the MDM file
};

// The same name in every form where it is short enough. No two columns of a file have the same name in any form: one
// that would repeat an earlier one ends in "_1", "_2" ... instead.
struct ResidualColumn {
  ColumnGroup group;
  int place;              // of its value among those of the group, from 0; of a chosen variable that in the data row
  int level;              // of a chosen variable
  std::string name;       // text forms
  std::string stataname;  // at most 8 characters
  std::string shortname;  // SPSS, at most 8 characters
  std::string longname;   // SPSS, the full name; empty when shortname is that
  std::string label;      // SPSS and Stata: what the source of the data says of it, or nothing
};

struct ResidualColumns {
  int level = 0;
  bool response = false;              // level 1: with the columns of runs with engines
  bool withid3 = true;                // the rows bear the ID of level 3: not in data of two levels
  bool textid[2] = {};                // of level 3 and level 2: its IDs are texts
  std::size_t idwidth[2] = {12, 12};  // bytes of the longest one of them, 12 or more
  std::vector<ResidualColumn> columns;

  [[nodiscard]] bool hascount() const { return level > 1; }
  // Calls use(which) for each ID of a row in the order of its columns: 0 for level 3, 1 for level 2.
  template <class Use>
  void eachid(Use use) const {
    if (withid3) use(0);
    if (level < 3) use(1);
  }
  [[nodiscard]] static const char* idname(int which) { return which == 0 ? "L3ID" : "L2ID"; }
  // The text of a row's ID, of level 3 (0) or level 2 (1): whole, where the MDM file has it so.
  [[nodiscard]] std::string idtext(int which, const Id& id) const;
  [[nodiscard]] const char* countname() const { return level == 2 ? "NJK" : "NK"; }
  // The columns of one group.
  [[nodiscard]] std::vector<const ResidualColumn*> of(ColumnGroup group) const;
  [[nodiscard]] int number(ColumnGroup group) const;
};

// Whether the run asks for residual and graph files of its last engine that has results. Engines with fixed nodes
// repeat what earlier versions did: their files are those of quasi-likelihood.
[[nodiscard]] bool residualsofengine();

// The columns of the file of `level` (1 to 3) for the model in run.model and the lists of chosen variables. Needs the
// complete model; nothing of it changes.
[[nodiscard]] ResidualColumns residualcolumns(int level);

}  // namespace kdr
