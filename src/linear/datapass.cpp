#include "linear/datapass.h"

#include <algorithm>
#include <cmath>

#include "driver/failures.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "linear/usable.h"

namespace kdr {

namespace {

// The unit at hand and the buffers of its matrices.
struct UnitWork {
  UnitProducts unit;
  Array<double> w2;  // [nbeta] the numbers in W2: column b of B is w2[b] times column owner2[b] of A
  Array<double> Z1Z1, inverse;
};

UnitWork makework(const Pass& pass) {
  UnitWork work;
  work.unit.AA.reset(productssize(pass.npi));
  if (run.kind.weighted) work.unit.AA2.reset(productssize(pass.npi));
  work.unit.level2.reset(at(run.mdm.nvar2));
  work.w2.reset(at(pass.nbeta));
  work.Z1Z1.reset(square(pass.p));
  work.inverse.reset(square(pass.p));
  return work;
}

// Element (c, d) of a lower triangle of the unit's products.
double element(const Pass& pass, const Array<double>& products, int c, int d) {
  const std::size_t n = at(pass.npi) + 1;
  return c >= d ? products[at(c) * n + at(d)] : products[at(d) * n + at(c)];
}
// Element (c, d) of A'A, of Y'A in row npi.
double product(const Pass& pass, const UnitWork& work, int c, int d) { return element(pass, work.unit.AA, c, d); }

// B'B, B'Y and Y'Y of the unit into the sums of level-3 unit k.
void addtolevel3(Pass& pass, const UnitWork& work, int k) {
  const int y = pass.npi;
  double* BB = pass.sumBB.row(k);
  double* BY = pass.sumBY.row(k);
  for (int i = 0; i < pass.nbeta; ++i) {
    const int c = pass.design.owner2[i];
    for (int j = 0; j <= i; ++j)
      BB[i * pass.nbeta + j] += work.w2[i] * work.w2[j] * product(pass, work, c, pass.design.owner2[j]);
    BY[i] += work.w2[i] * product(pass, work, y, c);
  }
  pass.sumYY[k] += product(pass, work, y, y);
}

// Z1'Z1, Z1'Y and B'Z1 into the hot record; in a weighted run times `scale2`, once for each Z1.
void fillhot(const Pass& pass, const UnitWork& work, double scale2, double* hot) {
  const UnitStore& store = pass.store;
  double* packed = hot;
  for (int i = 0; i < pass.p; ++i) {
    const int c = pass.design.random1[i];
    for (int j = 0; j <= i; ++j) *packed++ = product(pass, work, c, pass.design.random1[j]) * scale2 * scale2;
    hot[store.atZ1Y + at(i)] = product(pass, work, pass.npi, c) * scale2;
    for (int m = 0; m < pass.nbeta; ++m)
      hot[store.atBZ1 + at(m * pass.p + i)] = work.w2[m] * product(pass, work, pass.design.owner2[m], c) * scale2;
  }
}

// What the weighted covariance needs of the unit: B2'B2 into the sum of k, B2'Z12 and Z12'Z12 into its record, with B2
// and Z12 the columns of B and Z1 whose rows carry their factor once more.
void fillweighted(Pass& pass, const UnitWork& work, int k, double weight2) {
  const double scale2 = 1.0 / std::sqrt(weight2);
  double* BB2 = pass.sumBB2.row(k);
  double* record = pass.store.weighted.append();
  record[0] = weight2;
  double* Z1Z1 = record + 1;
  double* BZ1 = Z1Z1 + packedsize(pass.p);
  for (int m = 0; m < pass.nbeta; ++m) {
    const int c = pass.design.owner2[m];
    for (int n = 0; n < pass.nbeta; ++n)
      BB2[m * pass.nbeta + n] += work.w2[m] * work.w2[n] * element(pass, work.unit.AA2, c, pass.design.owner2[n]);
    for (int i = 0; i < pass.p; ++i)
      BZ1[m * pass.p + i] = scale2 * work.w2[m] * element(pass, work.unit.AA2, c, pass.design.random1[i]);
  }
  for (int i = 0; i < pass.p; ++i)
    for (int j = 0; j <= i; ++j)
      *Z1Z1++ = scale2 * scale2 * element(pass, work.unit.AA2, pass.design.random1[i], pass.design.random1[j]);
}

// The inverse of Z1'Z1, with missingcode at its head when the unit has no least-squares fit of its own.
void fillinverse(const Pass& pass, UnitWork& work, const double* hot, double* inverse) {
  const int p = pass.p;
  unpack(p, hot, work.Z1Z1.data());
  const bool usable = invertcrossproduct(work.Z1Z1.data(), p, work.inverse.data(), worstunitcondition);
  pack(p, work.inverse.data(), inverse);
  if (!usable) inverse[0] = missingcode;
}

void fillcold(const Pass& pass, UnitWork& work, const double* hot, double* cold) {
  const UnitStore& store = pass.store;
  cold[0] = work.unit.nj;
  fillinverse(pass, work, hot, cold + store.atinverse);
  putid(store, cold, work.unit.id2);
  std::copy_n(work.unit.level2.data(), store.nvar2, cold + store.atlevel2);
}

void mirrorlevel3(Pass& pass) {
  const int n = pass.nbeta;
  for (int k = 0; k < run.mdm.nunits3; ++k) {
    double* BB = pass.sumBB.row(k);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < i; ++j) BB[j * n + i] = BB[i * n + j];
  }
}

// gramMM and gramMY from the sums of the level-3 units.
void grandsums(Pass& pass) {
  Array<double> weights(pass.design.owner3.size());
  for (int k = 0; k < run.mdm.nunits3; ++k) {
    level3weights(pass, k, weights.data());
    addsandwichW3(pass, weights.data(), pass.sumBB.row(k), pass.gramMM.data());
    addtransposedW3(pass, weights.data(), pass.sumBY.row(k), pass.gramMY.data());
    pass.totalYY += pass.sumYY[k];
  }
}

void allocatesums(Pass& pass, bool withid, bool withlevel2) {
  const auto units = at(run.mdm.nunits3);
  pass.totalYY = 0.0;
  pass.emptyunits = 0;
  pass.gramMM.reset(square(pass.g));
  pass.gramMY.reset(at(pass.g));
  pass.n1of.reset(units);
  pass.n2of.reset(units);
  pass.sumYY.reset(units);
  pass.sumBB.reset(units, square(pass.nbeta));
  pass.sumBY.reset(units, at(pass.nbeta));
  if (run.kind.weighted) pass.sumBB2.reset(units, square(pass.nbeta));
  pass.scale3.reset(units);
  for (std::size_t k = 0; k < units; ++k)
    pass.scale3[k] = run.kind.weighted ? 1.0 / std::sqrt(run.weights.weight3[k]) : 1.0;
  openstore(pass.store,
            {pass.p, pass.nbeta, at(run.mdm.nunits2), withid, withlevel2 ? run.mdm.nvar2 : 0, run.kind.weighted});
}

}  // namespace

void datapass(Pass& pass, const UnitSource& next, bool withid, bool withlevel2) {
  allocatesums(pass, withid, withlevel2);
  UnitWork work = makework(pass);
  std::size_t records = 0;
  for (std::size_t units = 0; next(work.unit); ++units) {
    checksignals();
    const int k = work.unit.k;
    ++pass.n2of[k];
    pass.n1of[k] += work.unit.nj;
    for (int m = 0; m < pass.nbeta; ++m) {
      const int variable = pass.design.variable2[m];
      work.w2[m] = variable == 0 ? 1.0 : work.unit.level2[at(variable) - 1];
    }
    addtolevel3(pass, work, k);
    double* hot = pass.store.hot.append();
    fillhot(pass, work, run.kind.weighted ? 1.0 / std::sqrt(run.weights.weight2[units]) : 1.0, hot);
    fillcold(pass, work, hot, pass.store.cold.append());
    if (run.kind.weighted) fillweighted(pass, work, k, run.weights.weight2[units]);
    pass.emptyunits += work.unit.nj == 0;
    records += at(work.unit.nj);
  }
  mirrorlevel3(pass);
  grandsums(pass);
  finishstore(pass.store);
  run.mdm.nunits1 = static_cast<int>(records);
  pass.likeconstant = run.mdm.nunits1 * (0.5 * std::log(6.2831853));
}

}  // namespace kdr
