#include "estimate/linear/recordunits.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <set>
#include <string>
#include <utility>

#include "core/formatted.h"
#include "core/modelwalk.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/crossproducts.h"
#include "estimate/linear/deletion.h"
#include "kernel/hash.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Unit means over the non-missing values of the records that remain.
void retakemeans(const MdmData& mdm, UnitBlock& unit) {
  const auto width = at(mdm.nvar1);
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
void level3unitmeans(RecordUnits& units) {
  const auto width = at(units.analysis->mdm.nvar2);
  Array<double> sum(width);
  Array<int> n(width);
  const auto take = [&](const UnitBlock& unit) {
    for (std::size_t v = 0; v < width; ++v)
      if (unit.level2[v] != missingcode) {
        sum[v] += unit.level2[v];
        ++n[v];
      }
  };
  take(units.unit);
  const long long position = unitposition(units.reader);
  while (skimunit(units.reader, units.ahead) && sameid(units.ahead.id3, units.unit.id3, units.analysis->mdm.numericids))
    take(units.ahead);
  seekunit(units.reader, position);
  for (std::size_t v = 0; v < width; ++v) units.mean2[v] = n[v] > 0 ? sum[v] / n[v] : 0.0;
}

double level2centre(const RecordUnits& units, std::size_t v) {
  return centre(units.analysis->model.center2[v + 1], units.mean2[v], units.analysis->mdm.mean2[v]);
}

void centerlevel1(RecordUnits& units) {
  const Model& model = units.analysis->model;
  const MdmData& mdm = units.analysis->mdm;
  for (std::size_t c = 0; c < units.shift.size(); ++c) {
    const int v = units.layout.column[c];
    if (v >= 0) units.shift[c] = centre(model.center1[at(v) + 1], units.unit.means[at(v)], mdm.mean1[at(v)]);
  }
}

// A bijection of 64 bits that leaves no trace of small differences (the finaliser of splitmix64).
std::uint64_t mixed(std::uint64_t bits) {
  bits = (bits ^ (bits >> 30U)) * 0xbf58476d1ce4e5b9U;
  bits = (bits ^ (bits >> 27U)) * 0x94d049bb133111ebU;
  return bits ^ (bits >> 31U);
}

// Of an ID as a text, so that numbers and texts of the same digits agree.
std::uint64_t idhash(const MdmData& mdm, int level, const Id& id) {
  const std::string* whole = mdm.texts.wholeid(level, id, mdm.numericids);
  std::string text = whole != nullptr ? *whole : mdm.numericids ? formatted("%.15g", id.number) : id.text.text;
  text.erase(0, text.find_first_not_of(' '));
  text.erase(text.find_last_not_of(' ') + 1);
  Hash hash;
  hash.add(text.data(), text.size());
  return hash.value();
}

// The variables that a changed value of makes another model of: those of the equations, and a known variance.
std::vector<VariableHash> hashedvariables(const Model& model) {
  std::set<std::pair<int, int>> used;
  const ModelRows rows = modelrows(model);
  for (const CoefficientRow& row : rows.coefficients)
    if (!row.threshold) used.emplace(1, row.variable);
  for (const TermRow& row : rows.terms) used.emplace(2, row.variable);
  for (const EffectRow& row : rows.effects) used.emplace(3, row.variable);
  used.emplace(1, model.autovknown);
  std::vector<VariableHash> list;
  for (const auto& [level, variable] : used)
    if (variable != 0) list.push_back({level, variable});
  return list;
}

// With h_i of record i, made of its unit, outcome and trials or exposure: sum_i h_i, and of each variable with value
// x_i sum_i mixed(h_i ^ mixed(x_i)). So no order of the records matters, and a value that moves to another record does.
void hashrecords(RecordUnits& units) {
  if (!units.hashed) return;
  const RecordLayout& layout = units.layout;
  const MdmData& mdm = units.analysis->mdm;
  const auto take = [](double value) { return std::bit_cast<std::uint64_t>(value + 0.0); };  // -0 is 0
  const Array<double>& third = mdm.observed3.empty() ? mdm.level3 : mdm.observed3;
  const double* levels[] = {nullptr, units.unit.level2.data(), third.data() + at(units.k) * at(mdm.nvar3)};
  for (int i = 0; i < units.unit.nj; ++i) {
    const double* values = levels[0] = units.unit.records.data() + at(i) * at(layout.width);
    std::uint64_t bits = mixed(units.unithash ^ mixed(take(values[layout.observed])));
    if (layout.count >= 0) bits = mixed(bits ^ take(values[layout.count]));
    units.hash.sum += bits;
    for (VariableHash& of : units.hash.variables)
      of.sum += mixed(bits ^ mixed(take(levels[of.level - 1][of.variable - 1])));
  }
}

void stopwalk(RecordUnits& units, Failure failure) {
  if (!units.failure) units.failure = std::move(failure);
}

// The outcome of a record of counts as a rate.
double rateof(const RecordUnits& units, const double* values, std::size_t record) {
  const double n = values[units.layout.count];
  if (units.counts != nullptr) (*units.counts)[record] = n;
  return values[units.layout.outcome] / n;
}

// The factor sqrt(w)/sqrt(v) of a record, from its design weight and its known variance.
double makefactor(RecordUnits& units, std::size_t record, const double* values) {
  const Model& model = units.analysis->model;
  double factor = model.weighted ? std::sqrt(units.analysis->weights.weight1[record]) : 1.0;
  if (model.autovknown != 0) {
    const double variance = values[model.autovknown - 1];
    if (!(variance > 0.0))
      stopwalk(units,
               failedwith("Variance knownWeights must be positive!\n", "Variance knownWeights must be positive!\n"));
    factor /= std::sqrt(variance);
  }
  if (units.factors != nullptr) (*units.factors)[record] = factor;
  return factor;
}

// The products of the unit at hand; a record is x = (row of A, y), times its factor if it has one.
void addunit(RecordUnits& units, UnitProducts& products) {
  const RecordLayout& layout = units.layout;
  const int* column = layout.column.data();
  const double* shift = units.shift.data();
  const Model& model = units.analysis->model;
  const bool factors = havefactors(model);
  crossproducts(static_cast<int>(units.x.size()), units.unit.nj, products.AA.data(), units.x.data(),
                [&](auto n, int i, double* x) {
                  const double* values = units.unit.records.data() + at(i) * at(layout.width);
                  const std::size_t record = units.records + at(i);
                  for (int c = 0; c + 1 < n; ++c) x[c] = column[c] < 0 ? 1.0 : values[column[c]] - shift[c];
                  x[n - 1] = layout.count < 0 ? values[layout.outcome] : rateof(units, values, record);
                  if (!factors) return;
                  applyfactor(n, makefactor(units, record, values), model.weighted, x, products.AA2);
                });
}

}  // namespace

bool havefactors(const Model& model) { return model.weighted || model.autovknown != 0; }

RecordLayout mdmlayout(const Model& model, const MdmData& mdm) {
  RecordLayout layout;
  layout.width = mdm.nvar1;
  layout.outcome = layout.observed = model.outvar - 1;
  if (model.outcome.counted) layout.count = model.outcome.countvariable.value_or(0) - 1;
  layout.place.reset(at(mdm.nvar1));
  for (std::size_t v = 0; v < layout.place.size(); ++v) layout.place[v] = static_cast<int>(v);
  layout.column.reset(at(model.coef.npi));
  std::size_t i = 0;
  for (const CoefficientRow& coefficient : modelrows(model).coefficients) layout.column[i++] = coefficient.variable - 1;
  return layout;
}

void layvariables(const Analysis& analysis, RecordLayout& layout) {
  const Model& model = analysis.model;
  const MdmData& mdm = analysis.mdm;
  layout.place.reset(at(mdm.nvar1));
  layout.place.fill(-1);
  if (layout.responses == 0) layout.place[at(model.outvar) - 1] = layout.observed;
  const auto lay = [&](int v) {
    int& place = layout.place[at(v) - 1];
    if (place < 0) place = layout.width++;
    return place;
  };
  layout.column.reset(at(model.coef.npi));
  std::size_t c = 0;
  for (const CoefficientRow& coefficient : modelrows(model).coefficients)
    layout.column[c++] = coefficient.variable == 0 || coefficient.threshold ? -1 : lay(coefficient.variable);
  for (const int v : analysis.wanted.variables1) lay(v);
}

void relayunit(const UnitBlock& block, const RecordLayout& given, UnitBlock& to, const RecordLayout& layout) {
  to.nj = block.nj;
  to.id2 = block.id2;
  to.id3 = block.id3;
  to.level2 = block.level2.copy();
  for (int i = 0; i < to.nj; ++i) {
    const double* values = block.records.data() + at(i) * at(given.width);
    double* row = to.records.data() + at(i) * at(layout.width);
    for (std::size_t v = 0; v < layout.place.size(); ++v)
      if (layout.place[v] >= 0) row[layout.place[v]] = values[given.place[v]];
  }
}

void beginproducts(UnitProducts& products, int k, const UnitBlock& block) {
  products.k = k;
  products.nj = block.nj;
  products.id2 = block.id2;
  std::copy_n(block.level2.data(), products.level2.size(), products.level2.data());
  products.AA2.fill(0.0);
}

void startrecords(RecordUnits& units, const Analysis& analysis) {
  const Model& model = analysis.model;
  const MdmData& mdm = analysis.mdm;
  units.analysis = &analysis;
  units.layout = mdmlayout(model, mdm);
  units.mean2.reset(at(mdm.nvar2));
  units.shift.reset(units.layout.column.size());
  units.x.reset(units.layout.column.size() + 1);
  for (const Centering mark : model.center2) units.group2 = units.group2 || mark == Centering::groupmean;
  units.reader.observer = &analysis.observer;
  units.hashed = static_cast<bool>(analysis.observer.recordsread);
  if (units.hashed) units.hash.variables = hashedvariables(model);
  startunits(units.reader, mdm, mdm.stream, mdm.firstblock, mdm.nvar1, mdm.nvar2, true);
}

bool nextblock(RecordUnits& units) {
  const Model& model = units.analysis->model;
  const MdmData& mdm = units.analysis->mdm;
  UnitBlock& unit = units.unit;
  do {
    if (!readunit(units.reader, unit)) {
      units.failure = units.reader.failure;
      return false;
    }
    if (units.k < 0 || !sameid(unit.id3, units.current, mdm.numericids)) {
      if (++units.k >= mdm.nunits3) {
        units.failure = damagedmdm(mdm, "it has more level-3 units than its table");
        return false;
      }
      units.current = unit.id3;
      if (!mdm.twolevel()) units.unithash = idhash(mdm, 3, unit.id3);
      if (units.group2) level3unitmeans(units);
    }
    if (!mdm.deletednow) {
      deleterecords(model, unit);
      retakemeans(mdm, unit);
    }
  } while (model.weighted && unit.nj == 0);  // the weights have no entry for such a unit
  if (mdm.twolevel()) units.unithash = idhash(mdm, 2, unit.id2);
  hashrecords(units);
  return true;
}

void centerblock(RecordUnits& units) {
  const Model& model = units.analysis->model;
  const MdmData& mdm = units.analysis->mdm;
  UnitBlock& unit = units.unit;
  const auto width = at(mdm.nvar1);
  for (std::size_t v = 0; v < width; ++v) {
    const Centering mark = model.center1[v + 1];
    if (mark == Centering::none) continue;
    const double mean = centre(mark, unit.means[v], mdm.mean1[v]);
    for (std::size_t i = 0; i < at(unit.nj); ++i) unit.records[i * width + v] -= mean;
  }
  for (std::size_t v = 0; v < at(mdm.nvar2); ++v) unit.level2[v] -= level2centre(units, v);
}

Failure norecordleft() {
  return failedboth("No level-1 record is left: each lacks a value in a variable of the model.\n");
}

bool nextunit(RecordUnits& units, UnitProducts& products) {
  if (!nextblock(units)) return false;
  const UnitBlock& unit = units.unit;
  beginproducts(products, units.k, unit);
  centerlevel1(units);
  for (std::size_t v = 0; v < products.level2.size(); ++v) products.level2[v] -= level2centre(units, v);
  addunit(units, products);
  if (units.failure) return false;
  if (units.working != nullptr) {
    centerblock(units);
    writeunit(units.working, unit, units.analysis->mdm.nvar1, units.analysis->mdm.nvar2, false,
              units.analysis->mdm.numericids);
  }
  units.records += at(unit.nj);
  return true;
}

}  // namespace kdr
