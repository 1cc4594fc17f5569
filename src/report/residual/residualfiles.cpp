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
#include "estimate/quasi/categories.h"
#include "estimate/quasi/family.h"
#include "estimate/quasi/fixedrows.h"
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

void openrows(RowWriter& writer, const ResidualSource& of, int level, const std::string& path, int cases,
              int largestcount) {
  writer.file.out.phase = of.phase;
  writer.file.label = of.label;
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

// The values of the fit group of one record after the other.
struct FitValues {
  const ResidualSource& of;
  const UnitResults& results;  // of the unit at hand
  bool response;               // with the columns of runs with engines
  double sigma;
  std::vector<int> rows = {};  // of categories: the response of each level-1 coefficient, -1: all
  std::size_t record = 0;      // of the data set
  Array<double> eta = {}, p = {};
  std::vector<double> values = {};

  [[nodiscard]] double predictor(const Values& row) const;
  void predictors(const Values& row);
  void one(const Values& row);
  void categories(const Values& row);
  void take(const Values& row);
};

FitValues makefitvalues(const ResidualSource& of, const UnitResults& results, bool response) {
  FitValues made{of, results, response, of.engine != nullptr ? 1.0 : std::sqrt(of.pass.est.sigma2)};
  const std::size_t M = at(of.layout.responses);
  if (M > 0) made.rows = responserows(*of.pass.analysis);
  made.eta.reset(M);
  made.p.reset(M);
  return made;
}

double entryof(const RecordLayout& layout, const Values& record, std::size_t c) {
  return layout.column[c] < 0 ? 1.0 : record[at(layout.column[c])];
}

double FitValues::predictor(const Values& row) const {
  double sum = 0.0;
  for (std::size_t c = 0; c < of.layout.column.size(); ++c) sum += results.level2.EC[c] * entryof(of.layout, row, c);
  return sum;
}

// Residual, fitted value and sigma; then the mean of the outcome, the raw and the Pearson residual
//   n mu,  y - n mu,  (y - n mu) / sqrt(n var).
// The residual of an engine is the working one, (y - n mu) / (n var).
void FitValues::one(const Values& row) {
  const RecordLayout& layout = of.layout;
  const double fitted = predictor(row);
  if (!response) {
    const double outcome = row[at(layout.outcome)] / (layout.count < 0 ? 1.0 : row[at(layout.count)]);
    values = {outcome - fitted, fitted, sigma};
    return;
  }
  const Linked link = linked(run.model.outcome.link(), fitted);
  const double n = of.counts == nullptr || of.counts->empty() ? 1.0 : (*of.counts)[record];
  const double raw = row[at(layout.observed)] - n * link.mu, variance = n * link.variance;
  const double residual = of.engine != nullptr ? raw / variance : row[at(layout.outcome)] - fitted;
  values = {residual, fitted, sigma, n * link.mu, raw, raw / std::sqrt(variance)};
}

// The linear predictor of every response.
void FitValues::predictors(const Values& row) {
  double common = 0.0;
  eta.fill(0.0);
  for (std::size_t c = 0; c < rows.size(); ++c)
    (rows[c] < 0 ? common : eta[rows[c]]) += results.level2.EC[c] * entryof(of.layout, row, c);
  for (double& x : eta) x += common;
}

// The Pearson residual (y - p) / sqrt(p (1 - p)) of an indicator y of 1 or 0, by the logit t of p: exp(-t/2) or
// -exp(t/2). There is no 1 - p in it, which would be 0 for a p near 1.
double indicatorresidual(double indicator, double t) {
  return indicator != 0.0 ? std::exp(-0.5 * t) : -std::exp(0.5 * t);
}

// The logit of the probability of response c: of an ordinal record eta_c, of a multinomial one
//   log p_c - log sum_d!=c p_d = eta_c - log(1 + sum_d!=c exp(eta_d)).
double responselogit(const Outcome& outcome, const Array<double>& eta, std::size_t c) {
  if (outcome.ordinal()) return eta[c];
  double largest = 0.0;
  for (std::size_t d = 0; d < eta.size(); ++d)
    if (d != c) largest = std::max(largest, eta[d]);
  double others = std::exp(-largest);
  for (std::size_t d = 0; d < eta.size(); ++d)
    if (d != c) others += std::exp(eta[d] - largest);
  return eta[c] - largest - std::log(others);
}

// Every residual, every fitted probability and sigma; then every linear predictor and every Pearson residual. The
// probabilities of quasi-likelihood stand in the record.
void FitValues::categories(const Values& row) {
  const std::size_t M = at(of.layout.responses);
  const double *indicator = row.data(), *probability = indicator + M;
  if (response || of.engine != nullptr) predictors(row);
  if (of.engine != nullptr) {
    responseprobabilities(run.model.outcome, eta.data(), static_cast<int>(M), p.data());
    probability = p.data();
  }
  values.clear();
  for (std::size_t c = 0; c < M; ++c) values.push_back(indicator[c] - probability[c]);
  values.insert(values.end(), probability, probability + M);
  values.push_back(sigma);
  if (!response) return;
  values.insert(values.end(), eta.begin(), eta.end());
  for (std::size_t c = 0; c < M; ++c)
    values.push_back(indicatorresidual(indicator[c], responselogit(run.model.outcome, eta, c)));
}

void FitValues::take(const Values& row) {
  of.layout.responses > 0 ? categories(row) : one(row);
  ++record;
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

void writelevel1(const ResidualSource& of) {
  const RecordLayout& layout = of.layout;
  RowWriter writer;
  openrows(writer, of, 1, subrunname(run.files.resfil1name), run.records(), 0);
  for (RowWriter::Place& place : writer.places)
    if (place.source == RowSources::dataof(1)) place.place = at(layout.place[place.place]);
  RecordNumbers numbers;
  if (run.out.resfilrecnum)
    startunits(numbers.reader, run.mdm, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
  UnitResults results = makeunitresults(of.pass);
  FitValues fit = makefitvalues(of, results, writer.file.columns.response);
  const auto unitrows = [&](int k, const UnitBlock& unit) {
    writer.row.id3 = level3id(run.mdm, k);
    writer.row.id2 = unit.id2;
    writer.from.data(2) = unit.level2;
    writer.from.data(3) = level3values(k);
    if (run.out.resfilrecnum) nextnumbers(numbers, unit.nj);
    for (int i = 0; i < unit.nj; ++i) {
      if (run.out.resfilrecnum) writer.from[ColumnGroup::record] = {&numbers.numbers[at(i)], 1};
      const Values record(unit.records.data() + at(i) * at(layout.width), at(layout.width));
      fit.take(record);
      writer.from[ColumnGroup::fit] = fit.values;
      writer.from.data(1) = record;
      writerow(writer);
    }
  };
  eachunit(
      of, 0.0, results, [](int) {}, unitrows, [](int) {});
  closeresidualfile(writer.file);
}

// The sweep over the store of a pass, its level-3 values in `results`: begin(k) and end(k) around the units of level-3
// unit k, use(k, unit, hot, cold) for each of them.
template <class Begin, class Use, class End>
void eachstoredunit(const ResidualSource& of, double missing, UnitResults& results, Begin begin, Use use, End end) {
  Pass& pass = of.pass;
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3results(pass, k, missing, results);
        begin(k);
      },
      use, end, reading(pass.store.hot), reading(pass.store.cold));
  stopif(storefailure(pass.store));
}

// The files of levels 2 and 3, in one sweep: over the store of a pass, with an engine over the file of the records.
void writeunitfiles(const ResidualSource& of) {
  Pass& pass = of.pass;
  const bool want2 = run.out.resfil2, want3 = run.out.resfil3;
  const double missing = missingmark(run.out.resfiltype);
  const int units2 = std::accumulate(pass.n2of.begin(), pass.n2of.end(), 0);
  const int mostunits2 = *std::max_element(pass.n2of.begin(), pass.n2of.end());
  RowWriter writer2, writer3;
  if (want2) openrows(writer2, of, 2, subrunname(run.files.resfil2name), units2 - pass.emptyunits, run.mdm.maxnj);
  if (want3) openrows(writer3, of, 3, subrunname(run.files.resfil3name), run.mdm.nunits3, mostunits2);
  UnitResults results = makeunitresults(pass);
  takegroups(writer2.from, results.level2);
  takegroups(writer3.from, results.level3);
  const auto begin = [&](int k) {
    writer2.row.id3 = writer3.row.id3 = level3id(run.mdm, k);
    writer2.from.data(3) = writer3.from.data(3) = level3values(k);
  };
  const auto unitrow = [&](const Id& id, int count, const double* level2) {
    writer2.row.id2 = id;
    writer2.row.count = count;
    writer2.from.data(2) = {level2, at(run.mdm.nvar2)};
    writerow(writer2);
  };
  const auto end = [&](int k) {
    if (!want3) return;
    writer3.row.count = pass.n2of[k];
    writerow(writer3);
  };
  if (of.engine != nullptr) {
    eachunit(
        of, missing, results, begin,
        [&](int, const UnitBlock& unit) {
          if (want2) unitrow(unit.id2, unit.nj, unit.level2.data());
        },
        end);
  } else {
    eachstoredunit(
        of, missing, results, begin,
        [&](int k, std::size_t unit, const double* hot, const double* cold) {
          if (!want2 || cold[0] == 0.0) return;
          level2coefficients(pass, unit, hot, cold, results);
          level2residuals(pass, k, hot, cold, missing, results);
          unitrow(getid(pass.store, cold), static_cast<int>(cold[0]), cold + pass.store.atlevel2);
        },
        end);
  }
  if (want2) closeresidualfile(writer2.file);
  if (want3) closeresidualfile(writer3.file);
}

}  // namespace

bool wantresidualfiles() { return run.out.resfil1 || run.out.resfil2 || run.out.resfil3; }

void writeresidualfiles(const ResidualSource& of) {
  if (run.out.resfil1) writelevel1(of);
  if (run.out.resfil2 || run.out.resfil3) writeunitfiles(of);
}

void eachunit(const ResidualSource& of, double missing, UnitResults& results, const std::function<void(int)>& begin,
              const std::function<void(int, const UnitBlock&)>& use, const std::function<void(int)>& end) {
  Pass& pass = of.pass;
  UnitReader reader;
  reader.observer = &pass.observer();
  startunits(reader, run.mdm, of.working.file(), 0, of.layout.width, run.mdm.nvar2, false);
  UnitBlock block;
  const auto next = [&] {
    if (!neededunit(reader, block)) tell(reader.failure);
    return block.nj > 0;
  };
  if (of.engine != nullptr) {
    std::size_t unit = 0;
    for (int k = 0; k < run.mdm.nunits3; ++k) {
      level3results(pass, *of.engine, k, missing, results);
      begin(k);
      for (int j = 0; j < pass.n2of[k]; ++j, ++unit) {
        if (!next()) continue;
        level2results(pass, *of.engine, unit, block.level2.data(), missing, results);
        use(k, block);
      }
      end(k);
    }
    return;
  }
  eachstoredunit(
      of, missing, results, begin,
      [&](int k, std::size_t unit, const double* hot, const double* cold) {
        if (!next()) return;
        level2coefficients(pass, unit, hot, cold, results);
        use(k, block);
      },
      end);
}

void eachfittedunit(const ResidualSource& of, const std::function<void(int, const UnitBlock&, const double*)>& use) {
  UnitResults results = makeunitresults(of.pass);
  const FitValues fit = makefitvalues(of, results, false);
  Array<double> fitted(at(run.mdm.maxnj));
  const auto width = at(of.layout.width);
  eachunit(
      of, 0.0, results, [](int) {},
      [&](int k, const UnitBlock& unit) {
        for (std::size_t i = 0; i < at(unit.nj); ++i)
          fitted[i] = fit.predictor({unit.records.data() + i * width, width});
        use(k, unit, fitted.data());
      },
      [](int) {});
}

}  // namespace kdr
