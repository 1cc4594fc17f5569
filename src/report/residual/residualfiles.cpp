#include "report/residual/residualfiles.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <numeric>
#include <span>
#include <vector>

#include "driver/failures.h"
#include "driver/runrecord.h"
#include "estimate/linear/deletion.h"
#include "estimate/linear/unitresults.h"
#include "kernel/sizes.h"
#include "report/residual/residualfile.h"
#include "report/stream.h"

namespace kdr {

namespace {

using Values = std::span<const double>;

// Where the values of a row stand: the results of each group, then the data of each level.
struct RowSources {
  std::array<Values, 10> all;
  Values& operator[](ColumnGroup group) { return all[static_cast<std::size_t>(group)]; }
  Values& data(int level) { return all[dataof(level)]; }
  static std::size_t dataof(int level) { return static_cast<std::size_t>(ColumnGroup::chosen) + at(level) - 1; }
};

// A file and the row that goes into it. Every column tells which value it has.
struct RowWriter {
  struct Place {
    std::size_t source, place;  // which of from.all, and where in it
  };
  ResidualFile file;
  ResidualRow row;
  RowSources from;
  std::vector<Place> places;
  Array<double> values;
};

void openrows(RowWriter& writer, int level, const std::string& path, int cases, int largestcount) {
  openresidualfile(writer.file, level, path, cases, largestcount);
  for (const ResidualColumn& column : writer.file.columns.columns) {
    const bool chosen = column.group == ColumnGroup::chosen;
    const std::size_t source = chosen ? RowSources::dataof(column.level) : static_cast<std::size_t>(column.group);
    writer.places.push_back({source, at(column.place)});
  }
  writer.values.reset(writer.places.size());
  writer.row.values = writer.values.data();
}

void writerow(RowWriter& writer) {
  double* value = writer.values.data();
  for (const RowWriter::Place& place : writer.places) {
    const Values source = writer.from.all[place.source];
    assert(place.place < source.size());
    *value++ = source[place.place];
  }
  writeresidualrow(writer.file, writer.row);
}

Values level3values(int k) { return {run.mdm.level3.data() + at(k) * at(run.mdm.nvar3), at(run.mdm.nvar3)}; }

template <class Groups>
void takegroups(RowSources& from, const Groups& groups) {
  from[ColumnGroup::EB] = groups.EB;
  from[ColumnGroup::OL] = groups.OL;
  from[ColumnGroup::FV] = groups.FV;
  from[ColumnGroup::EC] = groups.EC;
  from[ColumnGroup::PV] = groups.PV;
}

// Residual, fitted value and sigma of record i of a block, or, of a record with categories, every residual, every
// fitted probability and sigma.
void fitvalues(const RecordLayout& layout, const Values& record, double fitted, double sigma,
               std::vector<double>& fit) {
  fit.clear();
  const std::size_t M = at(layout.responses);
  if (M == 0) {
    const double outcome = record[at(layout.outcome)] / (layout.count < 0 ? 1.0 : record[at(layout.count)]);
    fit = {outcome - fitted, fitted, sigma};
    return;
  }
  const double* indicator = record.data();
  const double* probability = indicator + M;
  for (std::size_t c = 0; c < M; ++c) fit.push_back(indicator[c] - probability[c]);
  fit.insert(fit.end(), probability, probability + M);
  fit.push_back(sigma);
}

// The MDM file beside the working data file: which record of its unit each kept one is.
struct RecordNumbers {
  UnitReader reader;
  UnitBlock unit;
  std::vector<double> numbers;  // of the kept records of the unit at hand, counted from 1 before deletion
};

// The numbers of the next unit that kept any record.
void nextnumbers(RecordNumbers& of, int kept) {
  do {
    if (!readunit(of.reader, of.unit)) {
      stopif(of.reader.failure);
      stopwith("The working data file is damaged: it has too many units.\n");
    }
    of.numbers.clear();
    for (int i = 0; i < of.unit.nj; ++i)
      if (run.mdm.deletednow || !lacksvalue(run.model, of.unit.records.data() + at(i) * at(run.mdm.nvar1)))
        of.numbers.push_back(i + 1);
  } while (of.numbers.empty());
  if (of.numbers.size() != at(kept)) stopwith("The working data file is damaged: a unit has another size.\n");
}

void writelevel1(Pass& pass, const WorkingFile& working, const RecordLayout& layout) {
  RowWriter writer;
  openrows(writer, 1, subrunname(run.files.resfil1name), run.records(), 0);
  for (RowWriter::Place& place : writer.places)
    if (place.source == RowSources::dataof(1)) place.place = at(layout.place[place.place]);
  const double sigma = std::sqrt(pass.est.sigma2);
  std::vector<double> fit;
  RecordNumbers numbers;
  if (run.out.resfilrecnum)
    startunits(numbers.reader, run.mdm, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
  eachfittedunit(pass, working, layout, [&](int k, const UnitBlock& unit, const double* fitted) {
    writer.row.id3 = level3id(run.mdm, k);
    writer.row.id2 = unit.id2;
    writer.from.data(2) = unit.level2;
    writer.from.data(3) = level3values(k);
    if (run.out.resfilrecnum) nextnumbers(numbers, unit.nj);
    for (int i = 0; i < unit.nj; ++i) {
      if (run.out.resfilrecnum) writer.from[ColumnGroup::record] = {&numbers.numbers[at(i)], 1};
      const Values record(unit.records.data() + at(i) * at(layout.width), at(layout.width));
      fitvalues(layout, record, fitted[i], sigma, fit);
      writer.from[ColumnGroup::fit] = fit;
      writer.from.data(1) = record;
      writerow(writer);
    }
  });
  closeresidualfile(writer.file);
}

// The files of levels 2 and 3, in one sweep.
void writeunitfiles(Pass& pass) {
  const bool want2 = run.out.resfil2, want3 = run.out.resfil3;
  const double missing = missingmark(run.out.resfiltype);
  const int units2 = std::accumulate(pass.n2of.begin(), pass.n2of.end(), 0);
  const int mostunits2 = *std::max_element(pass.n2of.begin(), pass.n2of.end());
  RowWriter writer2, writer3;
  if (want2) openrows(writer2, 2, subrunname(run.files.resfil2name), units2 - pass.emptyunits, run.mdm.maxnj);
  if (want3) openrows(writer3, 3, subrunname(run.files.resfil3name), run.mdm.nunits3, mostunits2);
  UnitResults results = makeunitresults(pass);
  takegroups(writer2.from, results.level2);
  takegroups(writer3.from, results.level3);
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3results(pass, k, missing, results);
        writer2.row.id3 = writer3.row.id3 = level3id(run.mdm, k);
        writer2.from.data(3) = writer3.from.data(3) = level3values(k);
      },
      [&](int k, std::size_t unit, const double* hot, const double* cold) {
        if (!want2 || cold[0] == 0.0) return;
        level2coefficients(pass, unit, hot, cold, results);
        level2residuals(pass, k, hot, cold, missing, results);
        writer2.row.id2 = getid(pass.store, cold);
        writer2.row.count = static_cast<int>(cold[0]);
        writer2.from.data(2) = {cold + pass.store.atlevel2, at(run.mdm.nvar2)};
        writerow(writer2);
      },
      [&](int k) {
        if (!want3) return;
        writer3.row.count = pass.n2of[k];
        writerow(writer3);
      },
      reading(pass.store.hot), reading(pass.store.cold));
  stopif(storefailure(pass.store));
  if (want2) closeresidualfile(writer2.file);
  if (want3) closeresidualfile(writer3.file);
}

}  // namespace

void eachfittedunit(Pass& pass, const WorkingFile& working, const RecordLayout& layout,
                    const std::function<void(int, const UnitBlock&, const double*)>& use) {
  UnitReader reader;
  reader.observer = &pass.observer();
  startunits(reader, run.mdm, working.file(), 0, layout.width, run.mdm.nvar2, false);
  UnitBlock block;
  UnitResults results = makeunitresults(pass);
  Array<double> fitted(at(run.mdm.maxnj));
  sweepunits(
      pass.n2of, [&](int k) { level3results(pass, k, 0.0, results); },
      [&](int k, std::size_t unit, const double* hot, const double* cold) {
        if (!neededunit(reader, block)) tell(reader.failure);
        if (block.nj == 0) return;
        level2coefficients(pass, unit, hot, cold, results);
        const double* coefficients = results.level2.EC.data();
        for (int i = 0; i < block.nj; ++i) {
          const double* record = block.records.data() + at(i) * at(layout.width);
          double sum = 0.0;
          for (std::size_t c = 0; c < layout.column.size(); ++c)
            sum += coefficients[c] * (layout.column[c] < 0 ? 1.0 : record[layout.column[c]]);
          fitted[at(i)] = sum;
        }
        use(k, block, fitted.data());
      },
      [](int) {}, reading(pass.store.hot), reading(pass.store.cold));
  stopif(storefailure(pass.store));
}

bool wantresidualfiles() { return run.out.resfil1 || run.out.resfil2 || run.out.resfil3; }

void writeresidualfiles(Pass& pass, const WorkingFile& working, const RecordLayout& layout) {
  if (run.out.resfil1) writelevel1(pass, working, layout);
  if (run.out.resfil2 || run.out.resfil3) writeunitfiles(pass);
}

}  // namespace kdr
