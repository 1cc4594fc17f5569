#include "estimate/linear/datapass.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/exploratory.h"
#include "estimate/linear/usable.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Element (c, d) of a lower triangle of the unit's products.
double element(const Pass& pass, const Array<double>& products, int c, int d) {
  const std::size_t n = at(pass.npi) + 1;
  return c >= d ? products[at(c) * n + at(d)] : products[at(d) * n + at(c)];
}
// Element (c, d) of A'A, of Y'A in row npi.
double product(const Pass& pass, const DataFold& fold, int c, int d) { return element(pass, fold.unit.AA, c, d); }

// B'B, B'Y and Y'Y of the unit into the sums of level-3 unit k.
void addtolevel3(Pass& pass, const DataFold& fold, int k) {
  const int y = pass.npi;
  double* BB = pass.sumBB.row(k);
  double* BY = pass.sumBY.row(k);
  for (int i = 0; i < pass.nbeta; ++i) {
    const int c = pass.design.owner2[i];
    for (int j = 0; j <= i; ++j)
      BB[i * pass.nbeta + j] += fold.w2[i] * fold.w2[j] * product(pass, fold, c, pass.design.owner2[j]);
    BY[i] += fold.w2[i] * product(pass, fold, y, c);
  }
  pass.sumYY[k] += product(pass, fold, y, y);
}

// Z1'Z1, Z1'Y and B'Z1 into the hot record; in a weighted run times `scale2`, once for each Z1.
void fillhot(const Pass& pass, const DataFold& fold, double scale2, double* hot) {
  const UnitStore& store = pass.store;
  double* packed = hot;
  for (int i = 0; i < pass.p; ++i) {
    const int c = pass.design.random1[i];
    for (int j = 0; j <= i; ++j) *packed++ = product(pass, fold, c, pass.design.random1[j]) * scale2 * scale2;
    hot[store.atZ1Y + at(i)] = product(pass, fold, pass.npi, c) * scale2;
    for (int m = 0; m < pass.nbeta; ++m)
      hot[store.atBZ1 + at(m * pass.p + i)] = fold.w2[m] * product(pass, fold, pass.design.owner2[m], c) * scale2;
  }
}

// What the weighted covariance needs of the unit: B2'B2 into the sum of k, B2'Z12 and Z12'Z12 into its record, with B2
// and Z12 the columns of B and Z1 whose rows carry their factor once more.
void fillweighted(Pass& pass, const DataFold& fold, int k, double weight2) {
  const double scale2 = 1.0 / std::sqrt(weight2);
  double* BB2 = pass.sumBB2.row(k);
  double* record = pass.store.weighted.append();
  record[0] = weight2;
  double* Z1Z1 = record + 1;
  double* BZ1 = Z1Z1 + packedsize(pass.p);
  for (int m = 0; m < pass.nbeta; ++m) {
    const int c = pass.design.owner2[m];
    for (int n = 0; n < pass.nbeta; ++n)
      BB2[m * pass.nbeta + n] += fold.w2[m] * fold.w2[n] * element(pass, fold.unit.AA2, c, pass.design.owner2[n]);
    for (int i = 0; i < pass.p; ++i)
      BZ1[m * pass.p + i] = scale2 * fold.w2[m] * element(pass, fold.unit.AA2, c, pass.design.random1[i]);
  }
  for (int i = 0; i < pass.p; ++i)
    for (int j = 0; j <= i; ++j)
      *Z1Z1++ = scale2 * scale2 * element(pass, fold.unit.AA2, pass.design.random1[i], pass.design.random1[j]);
}

// The inverse of Z1'Z1, absent when the unit has no least-squares fit of its own.
void fillinverse(const Pass& pass, DataFold& fold, const double* hot, double* inverse) {
  const int p = pass.p;
  unpack(p, hot, fold.Z1Z1.data());
  const bool usable = invertcrossproduct(fold.Z1Z1.data(), p, fold.inverse.data(), worstunitcondition);
  pack(p, fold.inverse.data(), inverse);
  if (!usable) std::fill_n(inverse, packedsize(p), absent);
}

void fillcold(const Pass& pass, DataFold& fold, const double* hot, double* cold) {
  const UnitStore& store = pass.store;
  cold[0] = fold.unit.nj;
  fillinverse(pass, fold, hot, cold + store.atinverse);
  putid(store, cold, fold.unit.id2);
  std::copy_n(fold.unit.level2.data(), store.nvar2, cold + store.atlevel2);
}

// gramMM and gramMY from the sums of the level-3 units, whose B'B becomes full.
void grandsums(Pass& pass) {
  Array<double> weights(pass.design.owner3.size());
  for (int k = 0; k < pass.mdm().nunits3; ++k) {
    mirror(pass.nbeta, pass.sumBB.row(k));
    level3weights(pass, k, weights.data());
    addsandwichW3(pass, weights.data(), pass.sumBB.row(k), pass.gramMM.data());
    addtransposedW3(pass.design, weights.data(), pass.sumBY.row(k), pass.gramMY.data());
    pass.totalYY += pass.sumYY[k];
  }
}

void allocatesums(Pass& pass) {
  const auto units = at(pass.mdm().nunits3);
  pass.totalYY = 0.0;
  pass.emptyunits = 0;
  pass.gramMM.reset(square(pass.g));
  pass.gramMY.reset(at(pass.g));
  pass.n1of.reset(units);
  pass.n2of.reset(units);
  pass.sumYY.reset(units);
  pass.sumBB.reset(units, square(pass.nbeta));
  pass.sumBY.reset(units, at(pass.nbeta));
  if (pass.model().weighted) pass.sumBB2.reset(units, square(pass.nbeta));
  pass.scale3.reset(units);
  for (std::size_t k = 0; k < units; ++k)
    pass.scale3[k] = pass.model().weighted ? 1.0 / std::sqrt(pass.weights().weight3[k]) : 1.0;
  const bool withid = pass.analysis->wanted.unitrows;
  const bool withlevel2 = withid || haveexploratory(pass.model());
  openstore(pass.store, {pass.p, pass.nbeta, at(pass.mdm().nunits2), withid, withlevel2 ? pass.mdm().nvar2 : 0,
                         pass.model().weighted, pass.mdm().numericids, pass.analysis->store, &pass.observer()});
}

}  // namespace

DataFold startfold(Pass& pass) {
  allocatesums(pass);
  DataFold fold{pass, {}, {}, {}, {}};
  fold.unit.AA.reset(productssize(pass.npi));
  if (pass.model().weighted) fold.unit.AA2.reset(productssize(pass.npi));
  fold.unit.level2.reset(at(pass.mdm().nvar2));
  fold.w2.reset(at(pass.nbeta));
  fold.Z1Z1.reset(square(pass.p));
  fold.inverse.reset(square(pass.p));
  return fold;
}

void foldunit(DataFold& fold) {
  Pass& pass = fold.pass;
  fold.givenup = fold.givenup || pass.observer().givesup();
  const UnitProducts& unit = fold.unit;
  ++pass.n2of[unit.k];
  pass.n1of[unit.k] += unit.nj;
  for (int m = 0; m < pass.nbeta; ++m) fold.w2[m] = level2entry(pass, at(m), unit.level2.data());
  addtolevel3(pass, fold, unit.k);
  double* hot = pass.store.hot.append();
  fillhot(pass, fold, pass.model().weighted ? 1.0 / std::sqrt(pass.weights().weight2[fold.units]) : 1.0, hot);
  fillcold(pass, fold, hot, pass.store.cold.append());
  if (pass.model().weighted) fillweighted(pass, fold, unit.k, pass.weights().weight2[fold.units]);
  pass.emptyunits += unit.nj == 0;
  fold.records += at(unit.nj);
  ++fold.units;
}

Failure finishfold(DataFold& fold) {
  Pass& pass = fold.pass;
  grandsums(pass);
  finishstore(pass.store);
  pass.nunits1 = static_cast<int>(fold.records);
  pass.likeconstant = pass.nunits1 * (0.5 * std::log(6.2831853));
  return fold.givenup ? failed(abandoned) : storefailure(pass.store);
}

Failure datapass(Pass& pass, const UnitSource& next) {
  DataFold fold = startfold(pass);
  while (!fold.givenup && next(fold.unit)) foldunit(fold);
  return finishfold(fold);
}

}  // namespace kdr
