#include "estimate/linear/designmoments.h"

#include <algorithm>

#include "core/formatted.h"
#include "core/modelwalk.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The fixed effect that is the intercept of all levels, alone; -1 without one.
int intercept(const Pass& pass) {
  const ModelRows rows = modelrows(pass.model());
  if (pass.model().nconstrained > 0 || pass.model().neqsets > 1) return -1;
  int g = 0;
  for (const EffectRow& effect : rows.effects) {
    const CoefficientRow& owner = rows.owner(effect);
    if (!owner.threshold && owner.variable == 0 && rows.termof(effect).variable == 0 && effect.variable == 0) return g;
    ++g;
  }
  return -1;
}

// The random effects at the values asked for.
ShareValues valuesof(const Pass& pass) {
  const auto value = [&](int level, int variable) {
    if (variable == 0) return 1.0;
    for (const Shares::Value& given : pass.control().shares.at)
      if (given.level == level && given.variable == variable) return given.value;
    return 0.0;
  };
  const ModelRows rows = modelrows(pass.model());
  ShareValues made{Array<double>(at(pass.p)), Array<double>(at(pass.b))};
  std::size_t i = 0, j = 0;
  for (const CoefficientRow& row : rows.coefficients)
    if (row.random) made.z1[i++] = value(1, row.variable);
  for (const TermRow& row : rows.terms)
    if (row.random) made.z2[j++] = value(1, rows.owner(row).variable) * value(2, row.variable);
  return made;
}

// The first variable with a value that has no random slope, by its level and name; empty: all have.
std::string withoutslope(const Pass& pass) {
  const ModelRows rows = modelrows(pass.model());
  for (const Shares::Value& given : pass.control().shares.at) {
    const auto of = [&](int level, int variable) { return given.level == level && given.variable == variable; };
    bool found = false;
    for (const CoefficientRow& row : rows.coefficients) found = found || (row.random && of(1, row.variable));
    for (const TermRow& row : rows.terms)
      found = found || (row.random && (of(1, rows.owner(row).variable) || of(2, row.variable)));
    const Array<Name>& names = given.level == 1 ? pass.mdm().names1 : pass.mdm().names2;
    if (!found) return leftname(names[at(given.variable)]);
  }
  return "";
}

// The first random effect of each level is that of the intercept; of two levels there is none at level 3.
bool interceptsfirst(const Pass& pass) {
  const ModelRows rows = modelrows(pass.model());
  const auto first = std::ranges::find_if(rows.coefficients, [](const CoefficientRow& row) { return row.random; });
  const auto second = std::ranges::find_if(rows.terms, [](const TermRow& row) { return row.random; });
  if (first == rows.coefficients.end() || first->variable != 0) return false;
  if (pass.mdm().twolevel()) return true;
  return second != rows.terms.end() && second->variable == 0 && rows.owner(*second).variable == 0;
}

}  // namespace

std::optional<DesignMoments> designmoments(Pass& pass) {
  const int one = intercept(pass);
  if (one < 0 || pass.model().weighted || pass.model().autovknown != 0) return {};
  DesignMoments made;
  made.records = pass.nunits1;
  made.MM = pass.gramMM.copy();
  made.M1.reset(at(pass.g));
  for (std::size_t i = 0; i < at(pass.g); ++i) made.M1[i] = pass.gramMM[at(one) * at(pass.g) + i];
  made.Z1Z1.reset(square(pass.p));
  made.Z2Z2.reset(square(pass.b));
  for (int k = 0; k < pass.mdm().nunits3; ++k) {
    const double records = pass.n1of[k];
    made.squares3 += records * records;
    for (int i = 0; i < pass.b; ++i)
      for (int j = 0; j < pass.b; ++j) made.Z2Z2[i * pass.b + j] += pass.sumBB.row(k)[i * pass.nbeta + j];
  }
  Array<double> block(square(pass.p));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int, std::size_t, const double* hot, const double* cold) {
        made.squares2 += cold[0] * cold[0];
        unpack(pass.p, hot, block.data());
        for (std::size_t i = 0; i < block.size(); ++i) made.Z1Z1[i] += block[i];
      },
      [](int) {}, reading(pass.store.hot), reading(pass.store.cold));
  return made;
}

void takeshares(const Pass& pass, const std::optional<DesignMoments>& moments, PassResults& results) {
  const Shares& asked = pass.control().shares;
  if (!asked.asked && !asked.null) return;
  if (pass.model().outcome.categorical()) {
    results.notes.emplace_back("SHARES: has no effect: outcomes with categories have no shares of variance here.");
    return;
  }
  if (!moments) {
    results.notes.emplace_back(
        "SHARES: needs a fixed intercept of its own, one equation, and records without design weights or known "
        "variances: there are no shares of variance.");
    return;
  }
  ShareRequest request{pass.model().outcome, *moments, {}, {}};
  if (!asked.at.empty()) request.at = valuesof(pass);
  if (const std::string name = withoutslope(pass); !name.empty())
    results.notes.push_back("SHARES: " + name + " has no random slope, so that its value has no effect.");
  if (pass.model().outcome.linear() && interceptsfirst(pass)) request.null = asked.null;
  results.shares = variancesharesof(results.est, request);
  if (asked.null && !request.null)
    results.notes.emplace_back(
        "NULLMODEL: is for linear models whose intercept is random at each upper level: nothing is compared with it.");
  if (request.null && request.null->records != pass.nunits1)
    results.notes.push_back(
        formatted("NULLMODEL: its model was fitted to %lld records, this one to %d: what they explain "
                  "of each other's variance says nothing.",
                  request.null->records, pass.nunits1));
}

}  // namespace kdr
