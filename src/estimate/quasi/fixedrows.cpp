#include "estimate/quasi/fixedrows.h"

#include <algorithm>

#include "core/formatted.h"
#include "core/modelwalk.h"
#include "estimate/linear/recordunits.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The first effect of the complete model that fixed effect g is.
const EffectRow& effectof(const ModelRows& rows, int g) {
  const std::vector<int> reduced = reducedeffects(rows);
  const auto found = std::find(reduced.begin(), reduced.end(), g);
  return rows.effects[static_cast<std::size_t>(found - reduced.begin())];
}

}  // namespace

std::string barename(const Name& name) {
  const std::string text = leftname(name);
  return text.substr(0, text.find(' '));
}

std::vector<int> responserows(const Analysis& analysis) {
  const Outcome& outcome = analysis.model.outcome;
  std::vector<int> rows;
  for (const CoefficientRow& own : modelrows(analysis.model).coefficients)
    rows.push_back(outcome.family == Family::multinomial ? own.set
                   : own.threshold                       ? own.variable - analysis.mdm.nvar1
                                                         : -1);
  return rows;
}

int responsesof(const Outcome& outcome) { return outcome.categorical() ? outcome.categories - 1 : 1; }

FixedRows makefixedrows(const Pass& pass) {
  return {&pass, responserows(*pass.analysis), Array<double>(pass.design.owner3.size())};
}

void takelevel3(FixedRows& rows, int k) { level3weights(*rows.pass, k, rows.weights.data()); }

void fixedrow(const FixedRows& rows, const double* x, const double* level2, int response, double* h) {
  const Design& design = rows.pass->design;
  std::fill_n(h, rows.pass->g, 0.0);
  for (std::size_t i = 0; i < design.owner3.size(); ++i) {
    const int m = design.owner3[i], c = design.owner2[m];
    if (rows.response[at(c)] >= 0 && rows.response[at(c)] != response) continue;
    h[design.reduced[i]] += x[c] * level2entry(*rows.pass, at(m), level2) * rows.weights[i];
  }
}

Failure walkrecords(FixedRows& rows, const std::function<void(const ModelRecord& record)>& visit) {
  const Pass& pass = *rows.pass;
  RecordUnits units;
  startrecords(units, *pass.analysis);
  const RecordLayout& layout = units.layout;
  const std::size_t width = at(layout.width), npi = at(pass.npi);
  Array<double> x(npi), outcome(at(pass.mdm().maxnj)), count(at(pass.mdm().maxnj));
  int k = -1;
  while (nextblock(units)) {
    if (pass.observer().givesup()) return failed(abandoned);
    UnitBlock& unit = units.unit;
    if (units.k != k) takelevel3(rows, k = units.k);
    for (std::size_t i = 0; i < at(unit.nj); ++i) {  // both before centering
      outcome[i] = unit.records[i * width + at(layout.observed)];
      count[i] = layout.count < 0 ? 1.0 : unit.records[i * width + at(layout.count)];
    }
    centerblock(units);
    for (std::size_t i = 0; i < at(unit.nj); ++i) {
      const double* values = unit.records.data() + i * width;
      for (std::size_t c = 0; c < npi; ++c) {
        const int place = layout.column[c];
        x[c] = place < 0 || place >= pass.mdm().nvar1 ? 1.0 : values[place];
      }
      visit({x.data(), unit.level2.data(), outcome[i], count[i], unit});
    }
  }
  return std::move(units.failure);
}

std::string predictorname(const Analysis& analysis, int g) {
  const ModelRows rows = modelrows(analysis.model);
  const EffectRow& effect = effectof(rows, g);
  std::string name;
  const auto add = [&](const Array<Name>& names, int variable) {
    if (variable == 0) return;
    if (!name.empty()) name += ':';
    name += barename(names[variable]);
  };
  add(analysis.mdm.names1, rows.owner(effect).variable);
  add(analysis.mdm.names2, rows.termof(effect).variable);
  add(analysis.mdm.names3, effect.variable);
  return name.empty() ? std::string("the intercept") : name;
}

std::string effectname(const Analysis& analysis, int g) {
  const Model& model = analysis.model;
  const ModelRows rows = modelrows(model);
  const EffectRow& effect = effectof(rows, g);
  const CoefficientRow& owner = rows.owner(effect);
  std::string name = predictorname(analysis, g);
  if (owner.threshold) return name;
  std::string symbol = formatted("G%d%d%d", owner.subscript, rows.termof(effect).subscript, effect.subscript);
  if (model.outcome.family == Family::multinomial && at(owner.set) < model.categorylabel.size())
    symbol += ", category " + barename(model.categorylabel[at(owner.set)]);
  return formatted("%s (%s)", name.c_str(), symbol.c_str());
}

}  // namespace kdr
