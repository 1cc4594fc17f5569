// What kind of variable the outcome is, and how its mean hangs on the linear predictor.
#pragma once

#include <optional>

namespace kdr {

enum class Family {
  normal,
  bernoulli,
  binomial,  // successes in a number of trials
  poisson,
  multinomial,
  ordinal,
};
inline constexpr const char* familynames[] = {"Normal", "Bernoulli", "Binomial", "Poisson", "Multinomial", "Ordinal"};
[[nodiscard]] constexpr const char* nameof(Family family) { return familynames[static_cast<int>(family)]; }

enum class Link { identity, logit, log, baselinelogit, cumulativelogit };

// What is set from outside: Bernoulli and Poisson outcomes are `counted` when a column of exposure stands beside them,
// binomial ones always.
struct Outcome {
  Family family = Family::normal;
  int categories = 0;                               // of a multinomial or ordinal outcome
  bool counted = false;                             // a level-1 column holds trials or exposure
  std::optional<int> countvariable = std::nullopt;  // its level-1 index, once it is known

  [[nodiscard]] bool linear() const { return family == Family::normal; }
  [[nodiscard]] bool ordinal() const { return family == Family::ordinal; }
  [[nodiscard]] bool categorical() const { return family == Family::multinomial || family == Family::ordinal; }
  // One linear predictor a record, and a link: Bernoulli, binomial, Poisson.
  [[nodiscard]] bool single() const { return !linear() && !categorical(); }
  [[nodiscard]] Link link() const {
    switch (family) {
      case Family::normal:
        return Link::identity;
      case Family::poisson:
        return Link::log;
      case Family::multinomial:
        return Link::baselinelogit;
      case Family::ordinal:
        return Link::cumulativelogit;
      default:
        return Link::logit;
    }
  }
};

}  // namespace kdr
