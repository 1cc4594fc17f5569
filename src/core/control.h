// How an estimation runs: limits, criteria, which methods.
#pragma once

#include <optional>
#include <vector>

#include "core/codes.h"
#include "core/tables.h"

namespace kdr {

// What happens where the iterations reach their limit.
enum class AtLimit { stop, goon, ask };
inline constexpr CodeWord<AtLimit> limitletters[] = {{AtLimit::stop, "N"}, {AtLimit::goon, "Y"}};

// Order of the Taylor series that TAYLOR: asks for.
enum class Taylor { none = 0, second = 2, fourth = 4 };

// What is done about a starting tau that is no covariance matrix, by its code in FIXTAU2: and FIXTAU3:. Any other code
// asks.
enum class FixTau { ask = 0, clear = 1, byhand = 2, automatic = 3, quit = 4, always = 5 };

// Which information matrix makes the accelerated steps and the standard errors of the taus, by its code in FISHERTYPE:.
enum class FisherType { none = 0, outerproducts = 1, expected = 2 };

// Where degrees of freedom of fixed effects come from.
enum class DegreesMethod { counts, satterthwaite, kenwardroger };
inline constexpr CodeWord<DegreesMethod> degreeswords[] = {{DegreesMethod::counts, "COUNTS"},
                                                           {DegreesMethod::satterthwaite, "SATTERTHWAITE"},
                                                           {DegreesMethod::kenwardroger, "KENWARDROGER"}};

// What is asked about the shares of variance.
struct Shares {
  struct Value {
    int level = 1, variable = 0;
    double value = 0.0;
  };
  bool asked = false;
  std::vector<Value> at;  // of variables with a random slope, as they enter the model; others are 0
  struct NullModel {
    double sigma2 = 0.0, taupi = 0.0, taubeta = 0.0;  // taubeta 0.0: of two levels
    long long records = 0;                            // that it was fitted to
  };
  std::optional<NullModel> null;  // variances of the model without predictors
};

// How the iterations run. The field of a keyword bears the keyword's name.
struct Control {
  int numit = 0;  // NUMIT:, MICROIT:. Most iterations; 0: the dialogue asks
  AtLimit numitcontinue = AtLimit::ask;
  int macroit = 0;                               // MACROIT:
  double stopval = 1.0e-6;                       // STOPVAL:, STOPMICRO:. Percentage of the log-likelihood
  double stopmacro = 1.0e-4;                     // STOPMACRO:
  int accel = 5;                                 // ACCEL:. Iterations between accelerations
  FisherType fishertype = FisherType::expected;  // FISHERTYPE:, DOFISHER:
  FixTau fixtau2 = FixTau::automatic, fixtau3 = FixTau::automatic;  // FIXTAU2:, FIXTAU3:
  [[nodiscard]] FixTau& fixtau(Tau which) { return ofthe(which, fixtau2, fixtau3); }
  [[nodiscard]] FixTau fixtau(Tau which) const { return ofthe(which, fixtau2, fixtau3); }
  int hetit = 0;         // HETIT:. Iterations of the stage with a taupi per level-3 unit
  bool laplace = false;  // LAPLACE:
  int laplaceit = 50;
  int agqpoints = 0;             // AGQ:. Quadrature points; 0 is off
  bool agqauto = false;          // AGQ:Y,n,AUTO. As many points as the data need; agqpoints is then not 0
  bool agqfixed = false;         // AGQNODES:. Nodes stand still when the level-3 effects move, and steps have a ridge
  int agqit = 0;                 // its iterations
  int agqderivlevel = 2;         // AGQDERIVLEVEL:
  Taylor taylor = Taylor::none;  // TAYLOR:
  int popavit = 0;               // POPAVIT:
  int debug = 0;                 // DEBUG:
  bool restricted = false;       // LIKELIHOOD:. The variance components maximise the restricted likelihood
  DegreesMethod ddf = DegreesMethod::counts;  // DDF:
  bool ddfobserved = false;                   // DDF:SATTERTHWAITE,OBSERVED. By the observed information
  bool clusterrobust = false;                 // ROBUST:CR2. Bias-reduced robust errors, with degrees of freedom
  bool profile = false;                       // PROFILE:. Intervals by the profile of the likelihood
  Shares shares;                              // SHARES:
  bool edgefull = false;                      // EDGECOV:. The edge of the variance components is not taken as known
};

}  // namespace kdr
