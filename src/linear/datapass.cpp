#include "linear/datapass.h"

#include <algorithm>
#include <cmath>

#include "data/unitreader.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/decompositions.h"
#include "kernel/sizes.h"
#include "linear/deletion.h"

namespace kdr {

namespace {

// Level-1 columns of the analysis and the buffers of one unit.
struct UnitWork {
  Array<int> column;     // [npi] level-1 variable of each column of A, 0 for the constant
  Array<double> shift;   // [npi] what centering takes off the column in this unit
  Array<double> mean2;   // [nvar2] means of the level-2 variables over the level-3 unit
  Array<double> x;       // [npi + 1] one record: the columns of A, then Y
  Array<double> AA;      // (npi + 1) squared, lower triangle: A'A, then the row Y'A and Y'Y
  Array<double> AA2;     // the same with every row times its factor once more; weighted runs only
  Array<double> level2;  // [nvar2] the level-2 row after centering
  Array<double> w2;      // [nbeta] the numbers in W2: column b of B is w2[b] times column owner2[b] of A
  Array<double> Z1Z1, inverse, work;
  bool group1 = false;    // some level-1 variable is centered on its unit mean
  bool group2 = false;    // some level-2 variable is centered on its level-3 mean
  bool deleting = false;  // run-time deletion is to be done
};

UnitWork makework(const Pass& pass) {
  UnitWork work;
  work.column = level1columns(pass);
  work.shift.reset(at(pass.npi));
  work.mean2.reset(at(run.mdm.nvar2));
  work.x.reset(at(pass.npi) + 1);
  work.AA.reset((at(pass.npi) + 1) * (at(pass.npi) + 1));
  if (run.kind.weighted) work.AA2.reset(work.AA.size());
  work.level2.reset(at(run.mdm.nvar2));
  work.w2.reset(at(pass.nbeta));
  work.Z1Z1.reset(at(pass.p) * at(pass.p));
  work.inverse.reset(at(pass.p) * at(pass.p));
  work.work.reset(packedsize(pass.p) + 3);
  for (const int v : work.column) work.group1 = work.group1 || run.model.center1[v] == 1;
  for (const int mark : run.model.center2) work.group2 = work.group2 || mark == 1;
  const Array<int>& marks = run.model.delete1;
  work.deleting = !run.mdm.deletednow && std::any_of(marks.begin(), marks.end(), [](int mark) { return mark != 0; });
  return work;
}

// Unit means over the non-missing values of the records that remain.
void retakemeans(UnitBlock& unit) {
  const auto width = at(run.mdm.nvar1);
  for (std::size_t v = 0; v < width; ++v) {
    double sum = 0.0;
    int n = 0;
    for (int i = 0; i < unit.nj; ++i)
      if (const double value = unit.records[at(i) * width + v]; value != missingcode) {
        sum += value;
        ++n;
      }
    unit.means[v] = n > 0 ? sum / n : 0.0;
  }
}

// Means of the raw level-2 values over the level-3 unit whose first block has just been read.
void level3unitmeans(UnitReader& reader, const UnitBlock& firstblock, UnitBlock& ahead, Array<double>& means) {
  const auto width = at(run.mdm.nvar2);
  Array<double> sum(width);
  Array<int> n(width);
  const auto take = [&](const UnitBlock& unit) {
    for (std::size_t v = 0; v < width; ++v)
      if (unit.level2[v] != missingcode) {
        sum[v] += unit.level2[v];
        ++n[v];
      }
  };
  take(firstblock);
  const long long position = unitposition(reader);
  while (skimunit(reader, ahead) && sameid(ahead.id3, firstblock.id3)) take(ahead);
  seekunit(reader, position);
  for (std::size_t v = 0; v < width; ++v) means[v] = n[v] > 0 ? sum[v] / n[v] : 0.0;
}

void centerlevel2(UnitWork& work, const UnitBlock& unit) {
  for (std::size_t v = 0; v < work.level2.size(); ++v) {
    const int mark = run.model.center2[v + 1];
    const double mean = mark == 1 ? work.mean2[v] : mark == 2 ? run.mdm.mean2[v] : 0.0;
    work.level2[v] = unit.level2[v] - mean;
  }
}

void centerlevel1(UnitWork& work, const UnitBlock& unit) {
  for (std::size_t c = 0; c < work.column.size(); ++c) {
    const int v = work.column[c];
    const int mark = v == 0 ? 0 : run.model.center1[v];
    work.shift[c] = mark == 1 ? unit.means[at(v) - 1] : mark == 2 ? run.mdm.mean1[at(v) - 1] : 0.0;
  }
}

// The factor sqrt(w)/sqrt(v) of a record, from its design weight and its known variance; replaces the weight.
double recordfactor(std::size_t record, const double* values) {
  double factor = run.kind.weighted ? std::sqrt(run.weights.weight1[record]) : 1.0;
  if (run.out.autovknown != 0) {
    const double variance = values[run.out.autovknown - 1];
    if (!(variance > 0.0)) {
      report("Variance known");
      report("Weights must be positive!\n");
      std::printf("Variance known");
      stopwith("Weights must be positive!\n");
    }
    factor /= std::sqrt(variance);
  }
  if (run.kind.weighted) run.weights.weight1[record] = factor;
  return factor;
}

// x = (row of A, y) of one record of n columns, times its factor if it has one.
inline void takerow(UnitWork& work, const double* values, std::size_t record, bool factors, int n, double* x) {
  const int* column = work.column.data();
  const double* shift = work.shift.data();
  for (int c = 0; c + 1 < n; ++c) x[c] = column[c] == 0 ? 1.0 : values[column[c] - 1] - shift[c];
  x[n - 1] = values[run.kind.outvar - 1];
  if (!factors) return;
  const double factor = recordfactor(record, values);
  for (int c = 0; c < n; ++c) x[c] *= factor;
  if (!run.kind.weighted) return;
  for (int c = 0; c < n; ++c)
    for (int d = 0; d <= c; ++d) work.AA2[at(c * n + d)] += factor * factor * x[c] * x[d];
}

// AA = sum of x x' over the records of the unit, `first` the number of its first record.
void addrecords(UnitWork& work, const UnitBlock& unit, std::size_t first, bool factors) {
  const int n = static_cast<int>(work.x.size());
  double* x = work.x.data();
  double* AA = work.AA.data();
  work.AA.fill(0.0);
  for (std::size_t i = 0; i < at(unit.nj); ++i) {
    takerow(work, unit.records.data() + i * at(run.mdm.nvar1), first + i, factors, n, x);
    for (int c = 0; c < n; ++c)
      for (int d = 0; d <= c; ++d) AA[c * n + d] += x[c] * x[d];
  }
}

// The same for n = N columns, with the sums in registers: a row of them two by two, so that one above the triangle may
// be formed too.
template <int N>
void addrecords(UnitWork& work, const UnitBlock& unit, std::size_t first, bool factors) {
  using Pair = double __attribute__((vector_size(16)));
  constexpr int pairs = (N + 1) / 2;
  Pair sums[N][pairs] = {};
  for (std::size_t i = 0; i < at(unit.nj); ++i) {
    double x[2 * pairs] = {};
    takerow(work, unit.records.data() + i * at(run.mdm.nvar1), first + i, factors, N, x);
    for (int c = 0; c < N; ++c)
      for (int d = 0; d <= c / 2; ++d) sums[c][d] += Pair{x[c], x[c]} * Pair{x[2 * d], x[2 * d + 1]};
  }
  for (int c = 0; c < N; ++c)
    for (int d = 0; d <= c; ++d) work.AA[at(c * N + d)] = sums[c][d / 2][d % 2];
}

void unitproducts(UnitWork& work, const UnitBlock& unit, std::size_t first) {
  work.AA2.fill(0.0);
  const bool factors = run.kind.weighted || run.out.autovknown != 0;
  switch (work.x.size()) {
    case 2:
      return addrecords<2>(work, unit, first, factors);
    case 3:
      return addrecords<3>(work, unit, first, factors);
    case 4:
      return addrecords<4>(work, unit, first, factors);
    case 5:
      return addrecords<5>(work, unit, first, factors);
    case 6:
      return addrecords<6>(work, unit, first, factors);
    default:
      return addrecords(work, unit, first, factors);
  }
}

// Element (c, d) of a lower triangle of the unit's products.
double element(const UnitWork& work, const Array<double>& products, int c, int d) {
  const auto n = work.x.size();
  return c >= d ? products[at(c) * n + at(d)] : products[at(d) * n + at(c)];
}
// Element (c, d) of A'A, of Y'A in row npi.
double product(const UnitWork& work, int c, int d) { return element(work, work.AA, c, d); }

// B'B, B'Y and Y'Y of the unit into the sums of level-3 unit k.
void addtolevel3(Pass& pass, const UnitWork& work, int k) {
  const int y = pass.npi;
  double* BB = Pass::row(pass.sumBB, k, pass.nbeta * pass.nbeta);
  double* BY = Pass::row(pass.sumBY, k, pass.nbeta);
  for (int i = 0; i < pass.nbeta; ++i) {
    const int c = pass.design.owner2[i];
    for (int j = 0; j <= i; ++j)
      BB[i * pass.nbeta + j] += work.w2[i] * work.w2[j] * product(work, c, pass.design.owner2[j]);
    BY[i] += work.w2[i] * product(work, y, c);
  }
  pass.sumYY[k] += product(work, y, y);
}

// Z1'Z1, Z1'Y and B'Z1 into the hot record; in a weighted run times `scale2`, once for each Z1.
void fillhot(const Pass& pass, const UnitWork& work, double scale2, double* hot) {
  const UnitStore& store = pass.store;
  double* packed = hot;
  for (int i = 0; i < pass.p; ++i) {
    const int c = pass.design.random1[i];
    for (int j = 0; j <= i; ++j) *packed++ = product(work, c, pass.design.random1[j]) * scale2 * scale2;
    hot[store.atZ1Y + at(i)] = product(work, pass.npi, c) * scale2;
    for (int m = 0; m < pass.nbeta; ++m)
      hot[store.atBZ1 + at(m * pass.p + i)] = work.w2[m] * product(work, pass.design.owner2[m], c) * scale2;
  }
}

// What the weighted covariance needs of the unit: B2'B2 into the sum of k, B2'Z12 and Z12'Z12 into its record, with B2
// and Z12 the columns of B and Z1 whose rows carry their factor once more.
void fillweighted(Pass& pass, const UnitWork& work, int k, double weight2) {
  const double scale2 = 1.0 / std::sqrt(weight2);
  double* BB2 = Pass::row(pass.sumBB2, k, pass.nbeta * pass.nbeta);
  double* record = appendrecord(pass.store.weighted);
  record[0] = weight2;
  double* Z1Z1 = record + 1;
  double* BZ1 = Z1Z1 + packedsize(pass.p);
  for (int m = 0; m < pass.nbeta; ++m) {
    const int c = pass.design.owner2[m];
    for (int n = 0; n < pass.nbeta; ++n)
      BB2[m * pass.nbeta + n] += work.w2[m] * work.w2[n] * element(work, work.AA2, c, pass.design.owner2[n]);
    for (int i = 0; i < pass.p; ++i)
      BZ1[m * pass.p + i] = scale2 * work.w2[m] * element(work, work.AA2, c, pass.design.random1[i]);
  }
  for (int i = 0; i < pass.p; ++i)
    for (int j = 0; j <= i; ++j)
      *Z1Z1++ = scale2 * scale2 * element(work, work.AA2, pass.design.random1[i], pass.design.random1[j]);
}

// Whether the traces of a cross-product matrix of order p and of its inverse show that isbadcov would accept it with a
// condition number below the limit: the eigenvalues lie between 1/tr(inverse) and tr(matrix). The margin is wide, so
// the few matrices near a limit go to isbadcov itself.
bool plainlyusable(const double* matrix, const double* inverse, int p) {
  double trace = 0.0, inversetrace = 0.0;
  for (int i = 0; i < p; ++i) {
    trace += matrix[i * p + i];
    inversetrace += inverse[i * p + i];
  }
  return p > 1 && inversetrace > 0.0 && inversetrace < 1.0e10 && trace * inversetrace < 1.0e5;
}

// The inverse of Z1'Z1, with missingcode at its head when the unit has no least-squares fit of its own.
void fillinverse(const Pass& pass, UnitWork& work, const double* hot, double* inverse) {
  constexpr double worstcondition = 1.0e7;
  const int p = pass.p;
  const double* packed = hot;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j) work.Z1Z1[i * p + j] = work.Z1Z1[j * p + i] = *packed++;
  double condition = 0.0;
  const bool usable = syminverse(p, work.Z1Z1.data(), p, work.inverse.data(), p, work.work.data()) == 0 &&
                      (plainlyusable(work.Z1Z1.data(), work.inverse.data(), p) ||
                       (!isbadcov(p, work.Z1Z1.data(), p, &condition) && (p == 1 || condition <= worstcondition)));
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j) *inverse++ = work.inverse[i * p + j];
  if (!usable) inverse[-static_cast<std::ptrdiff_t>(packedsize(p))] = missingcode;
}

void fillcold(Pass& pass, UnitWork& work, const UnitBlock& unit, const double* hot, double* cold) {
  const UnitStore& store = pass.store;
  cold[0] = unit.nj;
  fillinverse(pass, work, hot, cold + store.atinverse);
  putid(store, cold, unit.id2);
  if (store.haslevel2) std::copy(work.level2.begin(), work.level2.end(), cold + store.atlevel2);
}

// The working data file gets the block as the analysis has it, its variables centered. Changes the block.
void writeworking(std::FILE* working, const UnitWork& work, UnitBlock& unit) {
  const auto width = at(run.mdm.nvar1);
  for (std::size_t v = 1; v <= width; ++v) {
    const int mark = run.model.center1[v];
    if (mark == 0) continue;
    const double mean = mark == 1 ? unit.means[v - 1] : run.mdm.mean1[v - 1];
    for (std::size_t i = 0; i < at(unit.nj); ++i) unit.records[i * width + v - 1] -= mean;
  }
  std::copy(work.level2.begin(), work.level2.end(), unit.level2.begin());
  writeunit(working, unit, run.mdm.nvar1, run.mdm.nvar2, false);
}

void mirrorlevel3(Pass& pass) {
  const int n = pass.nbeta;
  for (int k = 0; k < run.mdm.nunits3; ++k) {
    double* BB = Pass::row(pass.sumBB, k, n * n);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < i; ++j) BB[j * n + i] = BB[i * n + j];
  }
}

// gramMM and gramMY from the sums of the level-3 units.
void grandsums(Pass& pass) {
  Array<double> weights(pass.design.owner3.size());
  for (int k = 0; k < run.mdm.nunits3; ++k) {
    level3weights(pass, k, weights.data());
    addsandwichW3(pass, weights.data(), Pass::row(pass.sumBB, k, pass.nbeta * pass.nbeta), pass.gramMM.data());
    addtransposedW3(pass, weights.data(), Pass::row(pass.sumBY, k, pass.nbeta), pass.gramMY.data());
    pass.totalYY += pass.sumYY[k];
  }
}

void allocatesums(Pass& pass) {
  const auto units = at(run.mdm.nunits3);
  pass.totalYY = 0.0;
  pass.gramMM.reset(at(pass.g) * at(pass.g));
  pass.gramMY.reset(at(pass.g));
  pass.n1of.reset(units);
  pass.n2of.reset(units);
  pass.sumYY.reset(units);
  pass.sumBB.reset(units * at(pass.nbeta) * at(pass.nbeta));
  pass.sumBY.reset(units * at(pass.nbeta));
  if (run.kind.weighted) pass.sumBB2.reset(pass.sumBB.size());
  pass.scale3.reset(units);
  for (int k = 0; k < run.mdm.nunits3; ++k)
    pass.scale3[k] = run.kind.weighted ? 1.0 / std::sqrt(run.weights.weight3[k]) : 1.0;
  const bool residuals = run.out.resfil1 || run.out.resfil2 || run.out.graph;
  const auto anyextra = [](const IntTable& counts) {
    return std::any_of(counts.cells.begin(), counts.cells.end(), [](int n) { return n != 0; });
  };
  openstore(pass.store, pass.p, pass.nbeta, at(run.mdm.nunits2), run.mdm.nvar2, residuals || run.kind.nlrun,
            residuals || !run.kind.linear() || anyextra(run.model.nextra2), run.kind.weighted);
}

}  // namespace

void datapass(Pass& pass) {
  allocatesums(pass);
  UnitWork work = makework(pass);
  UnitReader reader;
  startunits(reader, run.mdm.stream, run.mdm.firstblock, run.mdm.nvar1, run.mdm.nvar2, true);
  UnitBlock unit, ahead;
  std::FILE* working = run.out.resfil1 || run.out.graph ? openfile(run.files.tempname2, "wb") : nullptr;

  int k = -1;
  std::size_t records = 0, units = 0;
  Id current{};
  while (units < at(run.mdm.nunits2) && readunit(reader, unit)) {
    checksignals();
    if (k < 0 || !sameid(unit.id3, current)) {
      if (++k >= run.mdm.nunits3)
        stopwith("The mdm file %s is damaged: it has more level-3 units than its table.\n", run.files.mdmfile.c_str());
      current = unit.id3;
      if (work.group2) level3unitmeans(reader, unit, ahead, work.mean2);
    }
    if (work.deleting) deleterecords(unit);
    if (run.kind.weighted && unit.nj == 0) continue;  // the weights have no entry for such a unit
    ++pass.n2of[k];
    if (!run.mdm.deletednow) retakemeans(unit);
    pass.n1of[k] += unit.nj;
    centerlevel1(work, unit);
    centerlevel2(work, unit);
    unitproducts(work, unit, records);

    for (int m = 0; m < pass.nbeta; ++m) {
      const int variable = pass.design.variable2[m];
      work.w2[m] = variable == 0 ? 1.0 : work.level2[at(variable) - 1];
    }
    addtolevel3(pass, work, k);
    double* hot = appendrecord(pass.store.hot);
    fillhot(pass, work, run.kind.weighted ? 1.0 / std::sqrt(run.weights.weight2[units]) : 1.0, hot);
    fillcold(pass, work, unit, hot, appendrecord(pass.store.cold));
    if (run.kind.weighted) fillweighted(pass, work, k, run.weights.weight2[units]);
    if (working != nullptr) writeworking(working, work, unit);
    pass.emptyunits += unit.nj == 0;
    records += at(unit.nj);
    ++units;
  }
  if (working != nullptr) closechk(working);
  mirrorlevel3(pass);
  grandsums(pass);
  closestore(pass.store, pass.n2of);

  run.mdm.nunits1 = static_cast<int>(records);
  if (run.mdm.nunits1 != run.mdm.numl1rec) {
    reportbreak();
    reportline("Run-time deletion has reduced the number of level-1 records to %d", run.mdm.nunits1);
    reportbreak();
  }
  run.mdm.deletednow = true;
}

}  // namespace kdr
