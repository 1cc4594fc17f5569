#include "estimate/linear/weights.h"

#include <algorithm>

#include "core/formatted.h"
#include "data/unitreader.h"
#include "estimate/linear/deletion.h"
#include "kernel/array.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The making of the weights, and the first thing that went wrong.
struct Making {
  const Model& model;
  const MdmData& mdm;
  const Observer& observer;
  DesignWeights& weights;
  Failure failure;
};

// A weight as it was read: means and products of negative ones can be positive.
double positive(Making& making, double weight, int level) {
  if (!(weight > 0.0) && !making.failure)
    making.failure = failedwith(formatted("Level-%d Weights must be positive!\n", level));
  return weight;
}

// Divides the n values from `first` by their mean.
void dividebymean(Array<double>& weights, std::size_t first, std::size_t n) {
  double sum = 0.0;
  for (std::size_t i = first; i < first + n; ++i) sum += weights[i];
  if (n == 0) return;
  const double mean = sum / static_cast<double>(n);
  for (std::size_t i = first; i < first + n; ++i) weights[i] /= mean;
}

// Units and records that remain, in file order.
struct Remaining {
  Array<int> unitsin;    // level-2 units of each level-3 unit
  Array<int> recordsin;  // records of each level-2 unit
  std::size_t units = 0, records = 0;
};

// Mean of wgtvar2 over all level-2 rows of the level-3 unit whose first block has just been read.
double level2mean(Making& making, UnitReader& reader, const UnitBlock& first, UnitBlock& ahead) {
  const std::size_t variable = at(making.model.wgtvar2) - 1;
  double sum = positive(making, first.level2[variable], 2);
  int rows = 1;
  const long long position = unitposition(reader);
  while (skimunit(reader, ahead) && sameid(ahead.id3, first.id3, making.mdm.numericids)) {
    sum += positive(making, ahead.level2[variable], 2);
    ++rows;
  }
  seekunit(reader, position);
  return sum / rows;
}

// The weights of one unit as they stand: its records from `record` on, and the unit's own. A level-2 unit that is its
// level-3 unit gives its weight to that.
void rawweights(Making& making, const UnitBlock& unit, std::size_t record, double& weight2, double& weight3) {
  const Model& model = making.model;
  if (model.wgtvar2 != 0)
    (making.mdm.twolevel() ? weight3 : weight2) = positive(making, unit.level2[at(model.wgtvar2) - 1], 2);
  for (int i = 0; model.wgtvar1 != 0 && i < unit.nj; ++i)
    making.weights.weight1[record + at(i)] =
        positive(making, unit.records[at(i) * at(making.mdm.nvar1) + at(model.wgtvar1) - 1], 1);
}

// The raw weights of one unit: its records from `record` on, and the unit's own.
void unitweights(Making& making, const UnitBlock& unit, std::size_t record, double& weight2, double m2,
                 double weight3) {
  const Model& model = making.model;
  DesignWeights& weights = making.weights;
  const bool set1 = model.wgtvar1 != 0, set2 = model.wgtvar2 != 0, set3 = model.wgtvar3 != 0;
  if (set1 && !set2 && set3) {
    making.failure = failedwith(
        "\nUnable to do only level-1 and level-3 weights.\n"
        "To run the analysis KDR3 must be able to compute W(i|jk), W(j|k) and W(k).\n"
        "We cannot compute these three quantities based on the information provided.\n");
    return;
  }
  const double x2 = set2 ? unit.level2[at(model.wgtvar2) - 1] / m2 : 1.0;
  if (set2) weight2 = set3 ? x2 * weight3 : x2;
  if (!set1) return;
  const auto x1 = [&](int i) { return unit.records[at(i) * at(making.mdm.nvar1) + at(model.wgtvar1) - 1]; };
  for (int i = 0; i < unit.nj; ++i) positive(making, x1(i), 1);
  double m1 = 0.0;
  for (int i = 0; i < unit.nj; ++i) m1 += x1(i) / unit.nj;
  // With level-2 weights alone beside them the level-1 weights are taken as they are.
  const bool plain = set2 && !set3;
  for (int i = 0; i < unit.nj; ++i) weights.weight1[record + at(i)] = plain ? x1(i) : x1(i) / m1;
  if (!set2) weight2 = m1;
}

Remaining readweights(Making& making) {
  const Model& model = making.model;
  const MdmData& mdm = making.mdm;
  DesignWeights& weights = making.weights;
  Remaining remaining{Array<int>(at(mdm.nunits3)), Array<int>(at(mdm.nunits2))};
  UnitReader reader;
  reader.observer = &making.observer;
  startunits(reader, mdm, mdm.stream, mdm.firstblock, mdm.nvar1, mdm.nvar2, true);
  UnitBlock unit, ahead;
  const bool deleting = !mdm.deletednow;
  int k = -1;
  double m2 = 1.0;
  Id current{};
  while (!making.failure && readunit(reader, unit)) {
    if (making.observer.givesup()) making.failure = failed(abandoned);
    if (k < 0 || !sameid(unit.id3, current, mdm.numericids)) {
      if (++k >= mdm.nunits3) {
        making.failure = damagedmdm(mdm, "it has more level-3 units than its table");
        break;
      }
      current = unit.id3;
      if (model.wgtvar2 != 0 && !model.rawweights) m2 = level2mean(making, reader, unit, ahead);
      if (model.wgtvar2 != 0 && model.wgtvar3 == 0 && !model.rawweights) weights.weight3[k] = m2;
    }
    if (deleting) deleterecords(model, unit);
    if (unit.nj == 0) continue;
    double& weight2 = weights.weight2[remaining.units];
    if (model.rawweights) {
      rawweights(making, unit, remaining.records, weight2, weights.weight3[k]);
    } else {
      unitweights(making, unit, remaining.records, weight2, m2, weights.weight3[k]);
    }
    ++remaining.unitsin[k];
    remaining.recordsin[remaining.units++] = unit.nj;
    remaining.records += at(unit.nj);
  }
  if (!making.failure) making.failure = reader.failure;
  return remaining;
}

// The weights as they stand become those of their level. Quasi-likelihood and linear models take products with the
// weights above to a mean of 1 over all units: variance components are in units of it, and no fixed effect of a linear
// model moves. Of outcomes whose sigma^2 is held the record's weight within its unit stands.
void multiplyraw(const Making& making, const Remaining& remaining) {
  DesignWeights& weights = making.weights;
  weights.own1 = weights.weight1.copy();
  weights.own2 = weights.weight2.copy();
  weights.own3 = weights.weight3.copy();
  dividebymean(weights.weight3, 0, weights.weight3.size());
  std::size_t unit = 0;
  for (std::size_t k = 0; k < weights.weight3.size(); ++k)
    for (const std::size_t end = unit + at(remaining.unitsin[k]); unit < end; ++unit)
      weights.weight2[unit] *= weights.weight3[k];
  dividebymean(weights.weight2, 0, remaining.units);
  std::size_t record = 0;
  for (std::size_t j = 0; j < remaining.units; ++j)
    for (int i = 0; i < remaining.recordsin[j]; ++i) weights.weight1[record++] *= weights.weight2[j];
  if (!making.model.restrictions.fixsigma2) dividebymean(weights.weight1, 0, remaining.records);
}

// Each level within the one above it, then times the weight of the one above, each time to a mean of 1.
void normalise(const Making& making, const Remaining& remaining) {
  const Model& model = making.model;
  const MdmData& mdm = making.mdm;
  DesignWeights& weights = making.weights;
  const std::size_t units3 = at(mdm.nunits3);
  const auto eachlevel3 = [&](auto use) {
    std::size_t unit = 0, record = 0;
    for (std::size_t k = 0; k < units3; ++k) {
      const std::size_t firstunit = unit, firstrecord = record;
      for (; unit < firstunit + at(remaining.unitsin[k]); ++unit) record += at(remaining.recordsin[unit]);
      use(k, firstunit, unit - firstunit, firstrecord, record - firstrecord);
    }
  };

  if (model.wgtvar1 != 0 && model.wgtvar2 == 0 && model.wgtvar3 == 0)
    eachlevel3([&](std::size_t k, std::size_t first, std::size_t n, std::size_t, std::size_t) {
      double sum = 0.0;
      for (std::size_t j = first; j < first + n; ++j) sum += weights.weight2[j];
      if (n == 0) return;
      weights.weight3[k] = sum / static_cast<double>(n);
      dividebymean(weights.weight2, first, n);
    });
  dividebymean(weights.weight3, 0, units3);
  weights.own3 = weights.weight3.copy();

  eachlevel3([&](std::size_t, std::size_t first, std::size_t n, std::size_t, std::size_t) {
    dividebymean(weights.weight2, first, n);
  });
  dividebymean(weights.weight2, 0, remaining.units);
  weights.own2 = weights.weight2.copy();
  eachlevel3([&](std::size_t k, std::size_t first, std::size_t n, std::size_t, std::size_t) {
    for (std::size_t j = first; j < first + n; ++j) weights.weight2[j] *= weights.weight3[k];
  });
  dividebymean(weights.weight2, 0, remaining.units);

  eachlevel3([&](std::size_t, std::size_t, std::size_t, std::size_t first, std::size_t n) {
    dividebymean(weights.weight1, first, n);
  });
  dividebymean(weights.weight1, 0, remaining.records);
  weights.own1 = weights.weight1.copy();
  std::size_t record = 0;
  for (std::size_t j = 0; j < remaining.units; ++j)
    for (int i = 0; i < remaining.recordsin[j]; ++i) weights.weight1[record++] *= weights.weight2[j];
  dividebymean(weights.weight1, 0, remaining.records);
  dividebymean(weights.weight2, 0, remaining.units);
}

}  // namespace

Failure normaliseweights(const Model& model, MdmData& mdm, const Observer& observer, DesignWeights& weights) {
  Making making{model, mdm, observer, weights, {}};
  weights.weight1.reset(at(mdm.nunits1));
  weights.weight2.reset(at(mdm.nunits2));
  weights.weight3.reset(at(mdm.nunits3));
  for (Array<double>* level : {&weights.weight1, &weights.weight2, &weights.weight3}) level->fill(1.0);
  if (model.wgtvar3 != 0) {
    for (std::size_t k = 0; k < weights.weight3.size(); ++k)
      weights.weight3[k] = positive(making, mdm.level3[k * at(mdm.nvar3) + at(model.wgtvar3) - 1], 3);
    if (!model.rawweights) dividebymean(weights.weight3, 0, weights.weight3.size());
  }
  const Remaining remaining = making.failure ? Remaining{} : readweights(making);
  if (making.failure) return making.failure;
  model.rawweights ? multiplyraw(making, remaining) : normalise(making, remaining);
  mdm.nunits2 = static_cast<int>(remaining.units);
  return {};
}

}  // namespace kdr
