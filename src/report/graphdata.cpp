#include "report/graphdata.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/modelwalk.h"
#include "data/unitreader.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/deletion.h"
#include "estimate/linear/unitresults.h"
#include "estimate/linear/usable.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "report/residual/residualfile.h"
#include "report/residual/residualfiles.h"

namespace kdr {

namespace {

constexpr int percentiles = 101;

void put(ResultFile& file, const double* values, std::size_t n) { writeresult(file, values, n * sizeof(double)); }
void put(ResultFile& file, const Array<double>& values) { put(file, values.data(), values.size()); }

// The predictors of one level and all their values, one column a predictor.
struct Predictors {
  std::vector<int> variables;
  std::vector<Array<double>> values;
  std::size_t count = 0;  // values of each
};

// Level-1 predictors; thresholds of an ordinal model stand behind the variables of the file.
Predictors level1predictors() {
  Predictors list;
  for (int v = 1; v <= run.mdm.nvar1; ++v)
    for (int e = 0; e < run.model.neqsets; ++e)
      if (run.model.use1.row(e)[v] == Use::predictor) {
        list.variables.push_back(v);
        break;
      }
  return list;
}

// The variables that occur in a table of terms.
Predictors termpredictors(const IntTable& terms, int nvar) {
  Predictors list;
  for (int v = 1; v <= nvar; ++v)
    if (std::find(terms.cells.begin(), terms.cells.end(), v) != terms.cells.end()) list.variables.push_back(v);
  return list;
}

void reserve(Predictors& list, int n) {
  for (std::size_t i = 0; i < list.variables.size(); ++i) list.values.emplace_back(at(n));
}

void take(Predictors& list, const double* row) {
  for (std::size_t i = 0; i < list.variables.size(); ++i) list.values[i][list.count] = row[list.variables[i] - 1];
  ++list.count;
}

// Both kinds of centering take off the grand mean.
void center(Predictors& list, const Array<Centering>& marks, const Array<double>& means) {
  for (std::size_t i = 0; i < list.variables.size(); ++i) {
    const auto v = at(list.variables[i]);
    centeraround(marks[v], means[v - 1], list.values[i].data(), list.count);
  }
}

// Walks the MDM file, without the records that the analysis left out.
void readpredictors(Predictors& list1, Predictors& list2) {
  reserve(list1, run.mdm.numl1rec);
  reserve(list2, run.mdm.numl2rec);
  std::FILE* stream = openfile(run.files.mdmfile, "rb");
  UnitReader reader;
  startunits(reader, run.mdm, stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
  UnitBlock unit;
  for (int j = 0; j < run.mdm.numl2rec && readunit(reader, unit); ++j) {
    checksignals();
    if (!run.mdm.deletednow) deleterecords(run.model, unit);
    if (unit.nj == 0) continue;
    for (int i = 0; i < unit.nj; ++i) take(list1, unit.records.data() + at(i) * at(run.mdm.nvar1));
    take(list2, unit.level2.data());
  }
  stopif(reader.failure);
  std::fclose(stream);
  center(list1, run.model.center1, run.mdm.mean1);
  center(list2, run.model.center2, run.mdm.mean2);
}

// Mean and standard deviation of n values; the deviation is 0 when all are equal.
void moments(const double* values, std::size_t n, double& mean, double& deviation) {
  double sum = 0.0, squares = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += values[i];
  mean = n > 0 ? sum / static_cast<double>(n) : 0.0;
  for (std::size_t i = 0; i < n; ++i) squares += (values[i] - mean) * (values[i] - mean);
  const auto [low, high] = std::minmax_element(values, values + n);
  deviation = n < 2 || *low == *high ? 0.0 : std::sqrt(squares / static_cast<double>(n - 1));
}

// Names, means, deviations and percentiles of a level's predictors. The values are sorted on the way.
void writepredictors(ResultFile& file, Predictors& list, const Array<Name>& names) {
  writevalue(file, static_cast<int>(list.variables.size()));
  Array<double> means(list.variables.size()), deviations(list.variables.size());
  for (std::size_t i = 0; i < list.variables.size(); ++i) {
    writeresult(file, names[at(list.variables[i])].text, sizeof(Name));
    moments(list.values[i].data(), list.count, means[i], deviations[i]);
  }
  put(file, means);
  put(file, deviations);
  for (Array<double>& values : list.values) {
    checksignals();
    sortdoubles(values.data(), static_cast<std::ptrdiff_t>(list.count));
    for (std::size_t k = 0; k < percentiles; ++k)
      writevalue(file, list.count == 0 ? 0.0 : values[std::min(k * list.count / 100, list.count - 1)]);
  }
}

void writepredictorsections(ResultFile& file) {
  Predictors list1 = level1predictors();
  Predictors list2 = termpredictors(run.model.terms2, run.mdm.nvar2);
  Predictors list3 = termpredictors(run.model.terms3, run.mdm.nvar3);
  readpredictors(list1, list2);
  reserve(list3, run.mdm.nunits3);
  for (int k = 0; k < run.mdm.nunits3; ++k) take(list3, run.mdm.level3.data() + at(k) * at(run.mdm.nvar3));
  writepredictors(file, list1, run.mdm.names1);
  writepredictors(file, list2, run.mdm.names2);
  writepredictors(file, list3, run.mdm.names3);
}

// The flag of every level-1 coefficient, then of every level-2 coefficient.
void writeflags(ResultFile& file) {
  const ModelRows rows = modelrows(run.model);
  for (const CoefficientRow& coefficient : rows.coefficients) writevalue(file, coefficient.random ? 0 : 1);
  for (const TermRow& term : rows.terms) writevalue(file, term.random ? 0 : 1);
}

// (Z2'Z2)^-1 (Z2'Y - Z2'M gamma) of unit k into `ols`, or the missing mark. results.means.theta is W3 gamma.
struct Level3Fit {
  Array<double> Z2Z2, inverse, right;
};
void level3leastsquares(const Pass& pass, int k, const UnitResults& results, Level3Fit& fit, double* ols) {
  const int b = pass.b, nb = pass.nbeta;
  const double* BB = pass.sumBB.row(k);
  const double* BY = pass.sumBY.row(k);
  const double z = pass.scale3[k];
  for (int i = 0; i < b; ++i) {
    for (int j = 0; j < b; ++j) fit.Z2Z2[i * b + j] = z * z * BB[i * nb + j];
    fit.right[i] = BY[i];
    for (int m = 0; m < nb; ++m) fit.right[i] -= BB[i * nb + m] * results.means.theta[m];
    fit.right[i] *= z;
  }
  if (!invertcovariance(fit.Z2Z2.data(), b, fit.inverse.data())) {
    std::fill_n(ols, b, nosuchvalue);
  } else {
    mulAB(ols, fit.inverse.data(), fit.right.data(), b, 1, b);
  }
}

// The blocks of level 3, kind by kind.
void writelevel3(ResultFile& file, const ResidualSource& of, UnitResults& results) {
  const Pass& pass = of.pass;
  const auto units = at(run.mdm.nunits3);
  const auto b = at(pass.b), n = at(pass.nbeta);
  Array<double> EB(units * b), OL(units * b), FV(units * n), variances(units * b);
  Level3Fit fit{Array<double>(square(pass.b)), Array<double>(square(pass.b)), Array<double>(b)};
  for (std::size_t k = 0; k < units; ++k) {
    const int unit = static_cast<int>(k);
    if (of.engine != nullptr) {
      level3results(pass, *of.engine, unit, nosuchvalue, results);
      std::copy(results.level3.OL.begin(), results.level3.OL.end(), OL.data() + k * b);
    } else {
      level3results(pass, unit, nosuchvalue, results);
      level3leastsquares(pass, unit, results, fit, OL.data() + k * b);
    }
    std::copy(results.level3.EB.begin(), results.level3.EB.end(), EB.data() + k * b);
    std::copy(results.level3.FV.begin(), results.level3.FV.end(), FV.data() + k * n);
    for (std::size_t i = 0; i < b; ++i) variances[k * b + i] = results.level3.PV[i * (i + 3) / 2];
  }
  put(file, EB);
  put(file, OL);
  put(file, FV);
  put(file, variances);
}

void writelevel2(ResultFile& file, const ResidualSource& of, UnitResults& results) {
  Pass& pass = of.pass;
  const auto putunit = [&] {
    put(file, results.level2.EB);
    put(file, results.level2.OL);
    put(file, results.level2.FV);
    for (std::size_t i = 0; i < at(pass.p); ++i) writevalue(file, results.level2.PV[i * (i + 3) / 2]);
  };
  if (of.engine != nullptr)
    return eachunit(
        of, nosuchvalue, results, [](int) {}, [&](int, const UnitBlock&) { putunit(); }, [](int) {});
  sweepunits(
      pass.n2of, [&](int k) { level3results(pass, k, nosuchvalue, results); },
      [&](int k, std::size_t unit, const double* hot, const double* cold) {
        if (cold[0] == 0.0) return;
        level2coefficients(pass, unit, hot, cold, results);
        level2residuals(pass, k, hot, cold, nosuchvalue, results);
        putunit();
      },
      [](int) {}, reading(pass.store.hot), reading(pass.store.cold));
  stopif(storefailure(pass.store));
}

}  // namespace

void writegraphdata(const ResidualSource& of, const Array<double>& phases) {
  Pass& pass = of.pass;
  ResultFile file;
  file.phase = of.phase;
  openresult(file, run.files.graphgammas);
  writeresult(file, "GRKDR3");
  writevalue(file, fileversion);
  writevalue(file, pass.g);
  put(file, phases);
  put(file, of.engine != nullptr ? of.engine->gamma : pass.est.gammahat);
  writepredictorsections(file);

  UnitResults results = makeunitresults(pass);
  writeflags(file);
  if (!run.mdm.twolevel()) writelevel3(file, of, results);
  writelevel2(file, of, results);
  if (run.model.outcome.categorical()) return finishresult(file);
  writevalue(file, run.records());
  eachfittedunit(of, [&](int, const UnitBlock& unit, const double* fitted) { put(file, fitted, at(unit.nj)); });
  finishresult(file);
}

}  // namespace kdr
