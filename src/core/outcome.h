// What kind of variable the outcome is, and how its mean hangs on the linear predictor.
#pragma once

namespace kdr {

enum class Family {
  normal,
  bernoulli,
  binomial,  // successes in a number of trials
  poisson,
  multinomial,
  ordinal,
};

enum class Link { identity, logit, log, baselinelogit, cumulativelogit };

// What is set from outside: Bernoulli and Poisson outcomes are `counted` when a column of exposure stands beside them,
// binomial ones always.
struct Outcome {
  Family family = Family::normal;
  int categories = 0;     // of a multinomial or ordinal outcome
  bool counted = false;   // a level-1 column holds trials or exposure
  int countvariable = 0;  // its level-1 index, 0 while the dialogue has not asked for it

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
