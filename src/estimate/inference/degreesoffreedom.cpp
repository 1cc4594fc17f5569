#include "estimate/inference/degreesoffreedom.h"

#include <algorithm>
#include <climits>

namespace kdr {

namespace {

// What the whole model costs, summed over its level-2 coefficients.
struct Costs {
  long long level2 = 0;       // A: level-3 terms of coefficients fixed at level 3 whose level-1 coefficient is random
  long long level1 = 0;       // B: the same where the level-1 coefficient is fixed
  long long randompairs = 0;  // C: coefficients random at level 3 whose level-1 coefficient is random
  long long random1 = 0;      // coefficients random at level 2, and
  long long random2 = 0;      // at level 3
};

Costs modelcosts(const ModelRows& rows) {
  Costs costs;
  for (const CoefficientRow& coefficient : rows.coefficients) costs.random1 += coefficient.random ? 1 : 0;
  for (const TermRow& term : rows.terms) {
    const bool random1 = rows.owner(term).random;
    if (term.random) {
      ++costs.random2;
      costs.randompairs += random1 ? 1 : 0;
    } else {
      (random1 ? costs.level2 : costs.level1) += term.neffects;
    }
  }
  return costs;
}

struct Degrees {
  long long df;
  bool rough;
};

// With J level-2 units, K level-3 units and N records:
//   random at level 3               K - terms
//   random at level 2 only          J - K C - A, roughly J - A where that leaves none
//   fixed at both                   N - ntaupi J - ntaubeta K - B, roughly N - ntaubeta K - B
// Terms are those of the effect's own equation of the highest level, which is level 2 in data of two levels:
//   random at level 2               J - terms
//   fixed                           N - ntaupi J - B
Degrees degreesof(const ModelRows& rows, const UnitCounts& counts, const EffectRow& effect, const Costs& costs) {
  const long long J = counts.units2, K = counts.units3, N = counts.records;
  const TermRow& term = rows.termof(effect);
  if (term.random) return {K - term.neffects, false};
  if (counts.twolevel() && rows.owner(effect).random) return {J - rows.owner(effect).nterms, false};
  if (rows.owner(effect).random) {
    const long long df = J - K * costs.randompairs - costs.level2;
    return df < 1 ? Degrees{J - costs.level2, true} : Degrees{df, false};
  }
  const long long upper = costs.random2 * K + costs.level1;
  const long long df = N - costs.random1 * J - upper;
  if (df > 0) return {df, false};
  return {(upper < N ? N : counts.filerecords) - upper, true};
}

int whole(long long value) { return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX)); }

}  // namespace

FixedDegrees degreesoffreedom(const ModelRows& rows, const UnitCounts& counts) {
  FixedDegrees degrees;
  const Costs costs = modelcosts(rows);
  const std::size_t n = rows.effects.size();
  degrees.df.reset(n);
  degrees.rough.reset(n);

  // A gamma that a constraint removed gives one degree back. The count starts anew with each level-2 coefficient; what
  // the last one of a level-1 coefficient has counted goes to all fixed effects of that level-1 coefficient. In data of
  // two levels, where each level-2 coefficient is a fixed effect, it starts anew with each level-1 coefficient.
  std::size_t kept = 0, first = 0;
  int removed = 0;
  for (std::size_t g = 0; g < n; ++g) {
    const EffectRow& effect = rows.effects[g];
    const bool anew = g > 0 && (counts.twolevel() ? effect.coefficient != rows.effects[g - 1].coefficient
                                                  : effect.term != rows.effects[g - 1].term);
    if (anew) removed = 0;
    if (effect.removed) {
      ++removed;
    } else {
      const Degrees own = degreesof(rows, counts, effect, costs);
      degrees.df[kept] = whole(own.df);
      degrees.rough[kept] = own.rough ? 1 : 0;
      ++kept;
    }
    if (g + 1 == n || rows.effects[g + 1].coefficient != effect.coefficient) {
      for (; first < kept; ++first) degrees.df[first] = whole(static_cast<long long>(degrees.df[first]) + removed);
    }
  }
  return degrees;
}

}  // namespace kdr
