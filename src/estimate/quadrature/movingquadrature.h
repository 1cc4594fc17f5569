// Maximum likelihood for Bernoulli, binomial and Poisson outcomes: by quadrature whose nodes go with the data, with one
// point by the first-order Laplace approximation, or, for Bernoulli outcomes, by that of sixth order. Values in, values
// out.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/outcome.h"
#include "estimate/ascent/ascent.h"
#include "estimate/likelihood/parameters.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/linear/unitresults.h"
#include "estimate/quadrature/quadratureloops.h"
#include "estimate/quadrature/sixthorder.h"
#include "kernel/array.h"

namespace kdr {

// Who watches. Any may be empty.
struct QuadratureObserver {
  std::function<void(int iteration, double loglikelihood)> iteration;  // one is over
  std::function<void(int points)> checks;                              // the results are tried with so many points
  std::function<void(int points, double seconds)> heavy;               // an evaluation will take so long, on one core
  std::function<bool()> stop;                                          // asked behind each iteration: true stops there
  std::function<bool()> halt;  // asked within an evaluation: true drops it and stops
};

struct MovingSettings {
  Family outcome = Family::bernoulli;
  std::vector<int> response;   // of a multinomial outcome: the linear predictor of each level-1 coefficient (frame.h)
  int points = 0;              // nodes per dimension: 1 (Laplace), 3 to 198, or 0: as many as the data need
  bool sixth = false;          // Laplace-6: `points` is 1 then
  int iterations = 100;        // upper bound of those of one number of points
  bool outerproducts = false;  // standard errors from the units' scores; steps and points are the same
  bool diagonalpi = false, diagonalbeta = false;
  bool check = true;        // evaluate with the next number of points when the number is given
  bool posteriors = false;  // those of the random effects are wanted: about (q + 1) q numbers of each level-2 unit
  int threads = 1;
  int unitlevel = 3;  // of the independent units, for words: 2 in data of two levels
  AscentSettings ascent{};
  double checkdecrement = 1.0e-4;  // of a check: as near as its comparison needs
  double valueagrees = 0.01;  // two numbers of points agree when the log-likelihood differs by less: 1% of its standard
                              // error in LR tests
  double errorsagree = 0.01;  // and no standard error by more than this share
  int steppediterations = 15;   // of one number of points on the way of AUTO: those that are enough need 10 at most
  double laplacefall = 1.0e-7;  // of the Laplace approximation in a step: rounding of its modes
  // Of log(1 - S) of a level-3 unit. Of 76 random studies 25 had a larger one: their log-likelihoods were off by 0.5 to
  // 17 in 19. Those of the other 51 were by at most 0.7, of 48 by less than 0.27.
  double sixthsmall = 0.125;
  double mostnodes = 1.0e6;  // points^(q + r): beyond, neither memory nor time would do
  double nomaximum = 20.0;   // a standard deviation of an effect, of columns with mean square 1, that no outcome bears
  double nogain = 0.02;      // with a log-likelihood that gains less
  // One that points without a check are not believed: of 573 records with one event the Laplace approximation has its
  // maximum at 7.9, and the likelihood at 0.
  double unbelieved = 5.0;
};

enum class MovingEnd {
  converged,
  limit,         // the iterations met their bound: the estimates are the last
  stopped,       // by the observer
  nomaximum,     // the log-likelihood rises for ever: the estimates are where it has all but ended to
  toofewpoints,  // no step rises, or the information is not positive definite: no estimates
  toomanynodes,  // points^(q + r) is beyond the bound
  nonumbers      // the start has no finite likelihood
};

// What another number of points said.
struct PointsCheck {
  bool made = false;
  int next = 0;              // the other number: the next one, of AUTO the one before
  double change = 0.0;       // of the log-likelihood
  double errorchange = 0.0;  // the largest relative change of a standard error
  bool agrees = false;
};

struct MovingResult {
  MovingEnd end = MovingEnd::nonumbers;
  bool usable = false;  // the estimates are; all that follows exists
  Parameters parameters;
  Parameters
      lifted;  // the same, but standard deviations of 0 are a hundredth of their error: for who must invert a tau
  double loglikelihood = 0.0;  // with all constants
  double combinations = 0.0;   // its share of the logarithms of binomial coefficients
  double records = 0.0;
  int points = 0;
  int iterations = 0, evaluations = 0;
  double distance = 0.0;     // of the estimates from the maximum in standard errors, the farthest of them
  Array<double> covariance;  // P squared, of (vech taupi, vech taubeta, gamma); 0 in the rows of what has none. With
                             // design weights it is the sandwich
  Array<double> robust;      // the same by the sandwich of the units' scores; empty: there are too few of them
  bool fewerunits = false;   // than parameters and one more: so few have no sandwich that has an inverse
  std::vector<bool> edge;    // [P] a variance of 0, and its covariances: at the edge, without a standard error
  bool singularpi = false, singularbeta = false;  // a correlation of 1, or a variance of 0
  Reliabilities reliabilities;
  Posteriors posteriors;  // where they are wanted
  PointsCheck check;
  LaplaceFindings laplace;            // of Laplace-6
  std::vector<std::string> warnings;  // whole sentences
  std::vector<std::string> notes;     // the same, of what is no fault
};

// From `start`; where that leads nowhere, or has no gamma, from a regression without random effects
// (regressionstart.h).
[[nodiscard]] MovingResult movingquadrature(const MovingSettings& settings, int npi, int nbeta, const Design& design,
                                            RecordSource& source, const Parameters& start,
                                            const QuadratureObserver& observer);

// The number of points behind `points`: 5, 7, 11, 15, 21, 31, 41, then half as many again.
[[nodiscard]] int nextpoints(int points);

}  // namespace kdr
