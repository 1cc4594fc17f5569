#include <algorithm>
#include <cmath>
#include <limits>

#include "core/formatted.h"
#include "core/modelwalk.h"
#include "estimate/quasi/fixedrows.h"
#include "estimate/quasi/separation.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

bool iswhole(double x) {
  if (x == 0.0 || x == 1.0) return true;  // as most are
  return std::fabs(x - std::round(x)) <= 1.0e-9 * std::max(1.0, std::fabs(x));
}

// Whether the outcome type can have the value y of n trials or exposure.
bool possible(const Outcome& outcome, double y, double n) {
  if (outcome.categorical()) return true;
  if (!(y >= 0.0) || !(n > 0.0) || !iswhole(y)) return false;
  return outcome.link() != Link::logit || (y <= n && iswhole(n));
}

// What the values have to be.
std::string demand(const Analysis& analysis) {
  const Outcome& outcome = analysis.model.outcome;
  const std::string y = "the outcome " + barename(analysis.model.outname);
  const std::string n =
      outcome.counted ? barename(analysis.mdm.names1[at(outcome.countvariable.value_or(0))]) : std::string();
  if (outcome.link() == Link::log)
    return y + " must be a whole number of 0 or more" +
           (n.empty() ? std::string() : formatted(" and the exposure %s above 0", n.c_str()));
  if (n.empty()) return y + " must be 0 or 1";
  return formatted("%s must be a whole number from 0 to that of the trials %s, and %s a whole number above 0",
                   y.c_str(), n.c_str(), n.c_str());
}

// Records with values that can't be.
struct Impossible {
  long long records = 0, first = 0;  // how many, and the number of the first
  double y = 0.0, n = 1.0;
  Id id3{}, id2{};
};

Failure refusal(const Analysis& analysis, const Impossible& bad, long long records) {
  const bool numeric = analysis.mdm.numericids;
  const auto id = [&](const Id& one) { return numeric ? formatted("%.12g", one.number) : leftname(one.text); };
  std::string values = formatted("%.6g", bad.y);
  if (analysis.model.outcome.counted) values += formatted(" and %.6g", bad.n);
  const std::string outer = analysis.mdm.twolevel() ? "" : "level-3 unit " + id(bad.id3) + ", ";
  return failedboth(formatted(
      "Please check your data: %s, but %lld of %lld records have something else, the first one record %lld "
      "(%slevel-2 unit %s) with %s.\n",
      demand(analysis).c_str(), bad.records, records, bad.first, outer.c_str(), id(bad.id2).c_str(), values.c_str()));
}

// Smallest and largest value of a predictor in a class of outcomes.
struct Range {
  double low = std::numeric_limits<double>::infinity(), high = -std::numeric_limits<double>::infinity();
  void take(double x) {
    low = std::min(low, x);
    high = std::max(high, x);
  }
  void join(const Range& other) {
    low = std::min(low, other.low);
    high = std::max(high, other.high);
  }
  [[nodiscard]] bool empty() const { return high < low; }
};

// Classes of one response: no success, successes only, anything between.
enum { none = 0, only = 1, between = 2 };

// The ranges of every fixed effect's predictor, class by class: the three above, or the categories.
struct Ranges {
  const Analysis* analysis = nullptr;
  int classes = 0;
  std::vector<int> response;           // of each fixed effect, -1 all
  std::vector<bool> shared;            // the effect stands in several responses: no predictor of one
  std::vector<std::vector<Range>> of;  // [g][class]
  std::vector<std::string> name;       // of its predictor
  bool intercept = false;              // some predictor is constant

  [[nodiscard]] Range whole(std::size_t g) const {
    Range range;
    for (const Range& one : of[g]) range.join(one);
    return range;
  }
};

Ranges makeranges(const Pass& pass) {
  Ranges ranges;
  ranges.analysis = pass.analysis;
  const Outcome& outcome = pass.model().outcome;
  ranges.classes = outcome.categorical() ? outcome.categories : 3;
  ranges.response.assign(at(pass.g), -2);
  ranges.shared.assign(at(pass.g), false);
  ranges.of.assign(at(pass.g), std::vector<Range>(at(ranges.classes)));
  const std::vector<int> rows = responserows(*pass.analysis);
  for (std::size_t i = 0; i < pass.design.owner3.size(); ++i) {
    const auto g = at(pass.design.reduced[i]);
    const int row = rows[at(pass.design.owner2[pass.design.owner3[i]])];
    if (ranges.response[g] != -2 && ranges.response[g] != row) ranges.shared[g] = true;
    ranges.response[g] = row;
  }
  for (int g = 0; g < pass.g; ++g) ranges.name.push_back(predictorname(*pass.analysis, g));
  return ranges;
}

// A split of the records by one predictor, at `cut`. upward: it is the larger values that ask for more.
struct Split {
  bool found = false, upward = true;
  double cut = 0.0;
  int category = -1;  // multinomial: the one that is told from the rest
};

// Upward when `above` holds the values that ask for more, `below` those that ask for less, and `middle` those between.
Split splitof(const Ranges& ranges, const Range& below, const Range& middle, const Range& above, const Range& whole) {
  Split split;
  if (static_cast<int>(below.empty()) + static_cast<int>(middle.empty()) + static_cast<int>(above.empty()) > 1)
    return split;  // all outcomes are alike
  const double slack = 1.0e-9 * (whole.high - whole.low);
  for (const bool upward : {true, false}) {
    double from = upward ? below.high : above.high, to = upward ? above.low : below.low;
    if (!middle.empty()) {
      if (middle.high - middle.low > slack) return split;
      from = std::max(from, middle.low);
      to = std::min(to, middle.high);
    }
    if (!ranges.intercept) {
      if (!(from <= slack && to >= -slack)) continue;
      from = to = 0.0;
    }
    if (!(from <= to + slack)) continue;
    split.found = true;
    split.upward = upward;
    split.cut = !std::isfinite(from) ? to : !std::isfinite(to) ? from : to - from > slack ? 0.5 * (from + to) : from;
    return split;
  }
  return split;
}

// The same for an ordinal run: the cut of every response lies between the categories at or below it and those above.
Split ordinalsplit(const Ranges& ranges, std::size_t g, const Range& whole) {
  Split split;
  const double slack = 1.0e-9 * (whole.high - whole.low);
  for (const bool upward : {true, false}) {
    bool holds = true;
    for (int c = 0; c + 1 < ranges.classes && holds; ++c) {
      Range low, high;
      for (int k = 0; k < ranges.classes; ++k) (k <= c ? low : high).join(ranges.of[g][at(k)]);
      holds = upward ? high.high <= low.low + slack : low.high <= high.low + slack;
    }
    if (!holds) continue;
    split.found = true;
    split.upward = upward;
    return split;
  }
  return split;
}

Split findsplit(const Ranges& ranges, std::size_t g) {
  const Outcome& outcome = ranges.analysis->model.outcome;
  const std::vector<Range>& of = ranges.of[g];
  const Range whole = ranges.whole(g);
  if (ranges.shared[g] || !(whole.high > whole.low)) return {};
  if (outcome.ordinal()) return ranges.response[g] >= 0 ? Split{} : ordinalsplit(ranges, g, whole);
  if (!outcome.categorical()) return splitof(ranges, of[none], of[between], of[only], whole);
  // Of a multinomial run the category of the response from the others, or, where the predictor stands in all responses,
  // the last one.
  const int last = ranges.classes - 1;
  for (const int own : {ranges.response[g], last}) {
    if (own == last && std::count(ranges.name.begin(), ranges.name.end(), ranges.name[g]) < last) break;
    Range rest;
    for (int k = 0; k < ranges.classes; ++k)
      if (k != own) rest.join(of[at(k)]);
    Split split = splitof(ranges, rest, {}, of[at(own)], whole);
    split.category = own;
    if (split.found) return split;
  }
  return {};
}

// What the records on one side of the cut have in common.
std::string commonoutcome(const Analysis& analysis, const Split& split, bool more) {
  const Outcome& outcome = analysis.model.outcome;
  if (outcome.family == Family::multinomial) {
    const bool labelled = at(split.category) < analysis.model.categorylabel.size();
    const std::string label =
        labelled ? formatted(" %s", barename(analysis.model.categorylabel[at(split.category)]).c_str()) : std::string();
    return formatted("%s%s", more ? "category" : "another category than", label.c_str());
  }
  if (outcome.link() == Link::log) return "the count 0";
  if (outcome.counted) return more ? "successes only" : "no success";
  return more ? "the outcome 1" : "the outcome 0";
}

// Counts of the records on both sides of the cuts that were found.
struct Sides {
  long long below = 0, above = 0;
};

std::string splitwords(const Analysis& analysis, int g, const Split& split, const Sides& sides) {
  const std::string predictor = predictorname(analysis, g);
  std::string words = "WARNING: separation by " + predictor + ": ";
  if (analysis.model.outcome.ordinal()) {
    words += formatted("no record with a larger value of it has a %s category than one with a smaller value.",
                       split.upward ? "higher" : "lower");
  } else {
    const bool below = sides.below > 0, above = sides.above > 0;
    const auto side = [&](const char* where, long long count, bool more) {
      return formatted("all %lld records with a value %s %.6g have %s", count, where, split.cut,
                       commonoutcome(analysis, split, more).c_str());
    };
    if (above) words += side("above", sides.above, split.upward);
    if (above && below) words += ", ";
    if (below) words += side("below", sides.below, !split.upward);
    words += ".";
  }
  return words + "\nThe coefficient of " + effectname(analysis, g) +
         " has no finite estimate. Leave the predictor out, or join its values.";
}

int classof(const Outcome& outcome, const std::vector<double>& values, double y, double n) {
  if (outcome.categorical())
    return static_cast<int>(std::lower_bound(values.begin(), values.end(), y) - values.begin());
  if (y == 0.0) return none;
  return outcome.link() == Link::logit && y >= n ? only : between;
}

}  // namespace

Failure checkoutcomes(MacroState& state) {
  const Analysis& analysis = state.analysis;
  const Outcome& outcome = analysis.model.outcome;
  Pass pass;
  pass.analysis = &analysis;
  if (Failure failure = makedesign(pass)) return failure;
  FixedRows rows = makefixedrows(pass);
  Ranges ranges = makeranges(pass);
  Impossible bad;
  long long records = 0;
  const int M = responsesof(outcome);
  Array<double> h(at(pass.g));
  const auto own = [&](std::size_t g, int response) { return std::max(ranges.response[g], 0) == response; };
  Failure failure = walkrecords(rows, [&](const ModelRecord& record) {
    ++records;
    if (!possible(outcome, record.y, record.n)) {
      if (bad.records == 0) bad = {0, records, record.y, record.n, record.unit.id3, record.unit.id2};
      ++bad.records;
      return;
    }
    const auto kind = at(classof(outcome, state.categories, record.y, record.n));
    for (int response = 0; response < M; ++response) {
      fixedrow(rows, record.x, record.level2, response, h.data());
      for (std::size_t g = 0; g < h.size(); ++g)
        if (own(g, response)) ranges.of[g][kind].take(h[g]);
    }
  });
  if (failure) return failure;
  if (bad.records > 0) return refusal(analysis, bad, records);

  std::vector<Split> splits;
  bool any = false;
  for (std::size_t g = 0; g < h.size(); ++g) {
    const Range whole = ranges.whole(g);
    if (whole.low == whole.high && whole.low != 0.0 && ranges.response[g] <= 0) ranges.intercept = true;
  }
  for (std::size_t g = 0; g < h.size(); ++g) {
    splits.push_back(findsplit(ranges, g));
    any = any || splits.back().found;
  }
  if (!any) return {};

  std::vector<Sides> sides(splits.size());
  failure = walkrecords(rows, [&](const ModelRecord& record) {
    for (int response = 0; response < M; ++response) {
      fixedrow(rows, record.x, record.level2, response, h.data());
      for (std::size_t g = 0; g < splits.size(); ++g) {
        if (!splits[g].found || !own(g, response)) continue;
        const Range whole = ranges.whole(g);
        const double slack = 1.0e-9 * (whole.high - whole.low);
        sides[g].above += h[g] > splits[g].cut + slack ? 1 : 0;
        sides[g].below += h[g] < splits[g].cut - slack ? 1 : 0;
      }
    }
  });
  for (std::size_t g = 0; g < splits.size(); ++g)
    if (splits[g].found) {
      state.separation.effects.push_back(static_cast<int>(g));
      state.separation.warnings.push_back(splitwords(analysis, static_cast<int>(g), splits[g], sides[g]));
    }
  return failure;
}

}  // namespace kdr
