#include "linear/residualfiles.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "data/scratch.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "linear/sweep.h"
#include "linear/unitresults.h"
#include "report/residual/residualfile.h"

namespace kdr {

namespace {

// Fills a row from the left.
struct RowValues {
  Array<double> values;
  std::size_t used = 0;

  void start() { used = 0; }
  void add(double value) { values[used++] = value; }
  void add(const Array<double>& group) {
    std::copy(group.begin(), group.end(), values.data() + used);
    used += group.size();
  }
  // The variables of a compacted list from a row of data without the intercept.
  void addchosen(const Array<int>& variables, int n, const double* row) {
    for (int i = 0; i < n; ++i) add(row[variables[at(i)] - 1]);
  }
};

const double* level3values(int k) { return run.mdm.level3.data() + at(k) * at(run.mdm.nvar3); }

// Level-1 variable of each column of A, 0 for the constant.
Array<int> level1columns(const Pass& pass) {
  Array<int> columns(at(pass.npi));
  std::size_t c = 0;
  const int* use = run.model.use1.row(0);
  for (int v = 0; v < run.mdm.ncol1; ++v)
    if (use[v] == 1) columns[c++] = v;
  return columns;
}

void writelevel1(Pass& pass) {
  const ModelSpec& model = run.model;
  ResidualFile file;
  openresidualfile(file, 1, run.files.resfil1name, run.mdm.nunits1, 0);
  RowValues row{Array<double>(file.columns.columns.size())};
  ResidualRow line;
  line.values = row.values.data();
  const double sigma = std::sqrt(run.est.sigma2);
  eachfittedunit(pass, [&](int k, const UnitBlock& unit, const double* fitted) {
    line.id3 = level3id(k);
    line.id2 = unit.id2;
    for (int i = 0; i < unit.nj; ++i) {
      const double* record = unit.records.data() + at(i) * at(run.mdm.nvar1);
      row.start();
      row.add(record[run.kind.outvar - 1] - fitted[i]);
      row.add(fitted[i]);
      row.add(sigma);
      row.addchosen(model.res1vars1, model.nres1vars1, record);
      row.addchosen(model.res1vars2, model.nres1vars2, unit.level2.data());
      row.addchosen(model.res1vars3, model.nres1vars3, level3values(k));
      writeresidualrow(file, line);
    }
  });
  closeresidualfile(file);
}

template <class Groups>
void addgroups(RowValues& row, const Groups& groups) {
  row.start();
  row.add(groups.EB);
  row.add(groups.OL);
  row.add(groups.FV);
  row.add(groups.EC);
  row.add(groups.PV);
}

// The files of levels 2 and 3, in one sweep.
void writeunitfiles(Pass& pass) {
  const ModelSpec& model = run.model;
  const bool want2 = run.out.resfil2, want3 = run.out.resfil3;
  const double missing = missingmark(static_cast<ResidualForm>(run.out.resfiltype));
  const int units2 = std::accumulate(pass.n2of.begin(), pass.n2of.end(), 0);
  ResidualFile file2, file3;
  if (want2) openresidualfile(file2, 2, run.files.resfil2name, units2 - pass.emptyunits, run.mdm.maxnj);
  if (want3)
    openresidualfile(file3, 3, run.files.resfil3name, run.mdm.nunits3,
                     *std::max_element(pass.n2of.begin(), pass.n2of.end()));
  RowValues row2{Array<double>(file2.columns.columns.size())}, row3{Array<double>(file3.columns.columns.size())};
  ResidualRow line2, line3;
  line2.values = row2.values.data();
  line3.values = row3.values.data();
  UnitResults results = makeunitresults(pass);
  std::size_t unit = 0;
  sweepunits(
      pass, false, [&](int k) { level3results(pass, k, missing, results); },
      [&](int k, const double* hot, const double* cold) {
        const std::size_t place = unit++;
        if (!want2 || cold[0] == 0.0) return;
        level2coefficients(pass, place, hot, cold, results);
        level2residuals(pass, k, hot, cold, missing, results);
        line2.id3 = level3id(k);
        line2.id2 = getid(pass.store, cold);
        line2.count = static_cast<int>(cold[0]);
        addgroups(row2, results.level2);
        row2.addchosen(model.res2vars2, model.nres2vars2, cold + pass.store.atlevel2);
        row2.addchosen(model.res2vars3, model.nres2vars3, level3values(k));
        writeresidualrow(file2, line2);
      },
      [&](int k) {
        if (!want3) return;
        line3.id3 = level3id(k);
        line3.count = pass.n2of[k];
        addgroups(row3, results.level3);
        row3.addchosen(model.res3vars3, model.nres3vars3, level3values(k));
        writeresidualrow(file3, line3);
      });
  if (want2) closeresidualfile(file2);
  if (want3) closeresidualfile(file3);
}

}  // namespace

void eachfittedunit(Pass& pass, const std::function<void(int, const UnitBlock&, const double*)>& use) {
  const Array<int> columns = level1columns(pass);
  std::FILE* stream = openfile(run.files.tempname2, "rb");
  UnitReader reader;
  startunits(reader, stream, 0, run.mdm.nvar1, run.mdm.nvar2, false);
  UnitBlock block;
  UnitResults results = makeunitresults(pass);
  Array<double> fitted(at(run.mdm.maxnj));
  std::size_t unit = 0;
  sweepunits(
      pass, false, [&](int k) { level3results(pass, k, 0.0, results); },
      [&](int k, const double* hot, const double* cold) {
        const std::size_t place = unit++;
        if (!readunit(reader, block)) stopwith("The working data file is damaged: it is cut off.\n");
        if (block.nj == 0) return;
        level2coefficients(pass, place, hot, cold, results);
        const double* coefficients = results.level2.EC.data();
        for (int i = 0; i < block.nj; ++i) {
          const double* record = block.records.data() + at(i) * at(run.mdm.nvar1);
          double sum = 0.0;
          for (std::size_t c = 0; c < columns.size(); ++c)
            sum += coefficients[c] * (columns[c] == 0 ? 1.0 : record[columns[c] - 1]);
          fitted[at(i)] = sum;
        }
        use(k, block, fitted.data());
      },
      [](int) {});
  std::fclose(stream);
}

void writeresidualfiles(Pass& pass) {
  if (run.out.resfil1) writelevel1(pass);
  if (run.out.resfil2 || run.out.resfil3) writeunitfiles(pass);
}

}  // namespace kdr
