#include "estimate/quadrature/movingquadrature.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "core/evaluationcost.h"
#include "core/formatted.h"
#include "estimate/quadrature/onepoint.h"
#include "estimate/quadrature/posteriormoments.h"
#include "estimate/quadrature/regressionstart.h"
#include "estimate/quadrature/spherical.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

constexpr std::array<int, 7> ladder = {5, 7, 11, 15, 21, 31, 41};
constexpr int mosteffectsofalevel = 10, mostpoints = 198;
// Of the first standard deviation of an effect, in units of its error from one level-2 or level-3 unit.
constexpr double leaststart = 0.1;
// The same of those that must not be 0 for others.
constexpr double leastlifted = 0.01;

bool toomany(const MovingSettings& settings, int points, int q, int r) {
  return std::pow(points, q + r) > settings.mostnodes;
}

// Raises standard deviations that are too near 0 to start from.
bool raisestart(const Frame& frame, const Array<double>& curvature, double share, Array<double>& point) {
  bool raised = false;
  const auto level = [&](int n, std::size_t first, const double* information) {
    for (std::size_t a = 0, e = first; a < at(n); ++a, e += a + 1) {
      const double least = share / std::sqrt(std::max(information[a], 1.0e-200));
      if (std::fabs(point[e]) >= least) continue;
      point[e] = point[e] < 0.0 ? -least : least;
      raised = true;
    }
  };
  level(frame.q, 0, curvature.data());
  level(frame.r, packedsize(frame.q), curvature.data() + frame.q);
  return raised;
}

double largestdeviation(const Frame& frame, const Array<double>& point) {
  const SphericalPoint there = sphericalpoint(frame, point);
  double most = 0.0;
  const auto level = [&most](int order, const Array<double>& A) {
    const std::size_t n = at(order);
    for (std::size_t a = 0; a < n; ++a) most = std::max(most, std::sqrt(dot(A.data() + a * n, A.data() + a * n, n)));
  };
  level(frame.q, there.A);
  level(frame.r, there.B);
  return most;
}

// Elements of a point without which the information is taken: those of columns of A or B that are 0, at the edge.
std::vector<bool> edgeelements(const Frame& frame, const Array<double>& point) {
  std::vector<bool> edge(frame.count());
  const auto level = [&](int n, bool diagonal, std::size_t first) {
    std::vector<bool> zero(at(n), true);
    eachelement(n, [&](int e, int, int b) {
      if (point[first + at(e)] != 0.0) zero[at(b)] = false;
    });
    eachelement(n, [&](int e, int a, int b) { edge[first + at(e)] = zero[at(b)] && (a == b || !diagonal); });
  };
  level(frame.q, frame.diagonalpi, 0);
  level(frame.r, frame.diagonalbeta, packedsize(frame.q));
  return edge;
}

constexpr double leastshare = 1.0e-10;
struct Errors {
  bool usable = false;
  Array<double> covariance;  // of the parameters
  Array<double> sandwich;    // the same, J M^-1 O M^-1 J'
  bool fewerunits = false;   // the units' scores, which sum to 0, cannot have an O of full rank
  std::vector<bool> edge;    // of the parameters
};

// J M^-1 J' over the elements that are free, and the sandwich with O, the outer products of the units' scores. Not
// usable where one of the elements says nothing but rounding that others don't.
Errors errorsof(const Frame& frame, const Array<double>& point, const Array<double>& information,
                const Array<double>& outer) {
  const std::size_t P = frame.count(), taus = P - at(frame.g);
  const std::vector<bool> held = heldelements(frame), edge = edgeelements(frame, point);
  std::vector<std::size_t> used;
  for (std::size_t i = 0; i < P; ++i)
    if (!held[i] && !edge[i]) used.push_back(i);
  const std::size_t n = used.size();
  Errors errors;
  Array<double> M(n * n), L(n * n), X(n * n), d(n), inverse(n * n);
  for (std::size_t i = 0; i < n; ++i) {
    if (!(information[used[i] * P + used[i]] > 0.0)) return errors;
    d[i] = std::sqrt(information[used[i] * P + used[i]]);
  }
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l < n; ++l) M[i * n + l] = information[used[i] * P + used[l]] / (d[i] * d[l]);
  if (!choleskyfactor(n, M.data(), L.data())) return errors;
  for (std::size_t i = 0; i < n; ++i)
    if (!(L[i * n + i] * L[i * n + i] > leastshare)) return errors;
  invertlower(n, L.data(), X.data());
  inversefromfactor(n, X.data(), inverse.data());
  const Array<double> J = parameterderivatives(frame, point);
  Array<double> Jused(P * n), through(P * n);
  for (std::size_t i = 0; i < P; ++i)
    for (std::size_t l = 0; l < n; ++l) Jused[i * n + l] = J[i * P + used[l]] / d[l];
  const int order = static_cast<int>(n), all = static_cast<int>(P);
  mulAB(through.data(), Jused.data(), inverse.data(), all, order, order);
  errors.covariance.reset(P * P);
  mulABt(errors.covariance.data(), through.data(), Jused.data(), all, all, order);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l < n; ++l) M[i * n + l] = outer[used[i] * P + used[l]] / (d[i] * d[l]);
  Array<double> half(P * n);
  mulAB(half.data(), through.data(), M.data(), all, order, order);
  errors.sandwich.reset(P * P);
  mulABt(errors.sandwich.data(), half.data(), through.data(), all, all, order);
  errors.fewerunits = frame.units3() <= n;
  errors.edge.assign(P, false);
  for (std::size_t i = 0; i < taus; ++i)
    if (!held[i] && !(errors.covariance[i * P + i] > 0.0)) errors.edge[i] = true;
  // An off-diagonal element of raw parameters stays held with its frame's.
  for (std::size_t i = 0; i < P; ++i)
    if (i < taus && held[i])
      for (std::size_t l = 0; l < P; ++l)
        for (Array<double>* V : {&errors.covariance, &errors.sandwich}) (*V)[i * P + l] = (*V)[l * P + i] = 0.0;
  errors.usable = true;
  return errors;
}

// One run of the ascent with one number of points.
struct Run {
  bool converged = false;
  bool nomaximum = false;
  bool noouter = false;  // outer products were asked for, but have no inverse
  AscentResult ascent;
  Errors errors;
};

struct Search {
  const MovingSettings& settings;
  const QuadratureObserver& observer;
  SphericalLikelihood likelihood{};
  int iterations = 0, evaluations = 0;

  Run run(int points, const Array<double>& start, Approach approach, int limit, bool last);
  AscentProblem watched(Run& made, AscentProblem problem);
  Run runlaplace(Array<double> start);
  void seterrors(Run& made) const;
  void fill(const Run& made, int points, MovingResult& result) const;
  PointsCheck compare(const Run& before, const Run& after, int next) const;
  void check(const Run& before, int points, MovingResult& result);
  void laplace(const Array<double>& start, MovingResult& result);
  void doubtdeviation(const Run& made, MovingResult& result) const;
  void given(const Array<double>& start, MovingResult& result);
  void automatic(const Array<double>& start, MovingResult& result);
  void from(Array<double> point, MovingResult& result);
};

// The problem with progress lines, and with an end where a variance grows for ever.
AscentProblem Search::watched(Run& made, AscentProblem problem) {
  problem.iterated = [this, &made, before = static_cast<double>(-INFINITY), earlier = iterations](
                         int iteration, double value) mutable {
    iterations = earlier + iteration;
    if (observer.iteration) observer.iteration(iterations, value * likelihood.frame.scale);
    made.nomaximum = std::fabs(value - before) < settings.nogain &&
                     largestdeviation(likelihood.frame, likelihood.current.point) > settings.nomaximum;
    before = value;
    return made.nomaximum || (observer.stop && observer.stop());
  };
  return problem;
}

Run Search::run(int points, const Array<double>& start, Approach approach, int limit, bool last) {
  Run made;
  const Frame& frame = likelihood.frame;
  if (!makegrids(likelihood.grids, points, frame.q, frame.r)) return made;
  const double seconds =
      evaluationseconds(points, frame.q + frame.r, frame.records, static_cast<int>(frame.responses), frame.npi);
  if (observer.heavy && seconds > longevaluation) observer.heavy(points, seconds);
  AscentSettings ascent = settings.ascent;
  ascent.iterations = std::max(std::min(settings.iterations, limit), 1);
  if (!last) {
    ascent.finals = 0;
    ascent.decrement = settings.checkdecrement;
    ascent.settled = settings.valueagrees;
  }
  AscentProblem problem = watched(made, ascentof(likelihood));
  if (!last) {
    if (observer.checks) observer.checks(points);
    problem.iterated = [this](int, double) { return observer.stop && observer.stop(); };
  }
  made.ascent = climb(problem, ascent, start, approach);
  evaluations += made.ascent.evaluations;
  made.converged = made.ascent.end == AscentEnd::converged;
  if (made.ascent.end != AscentEnd::unusable) seterrors(made);
  return made;
}

// Outer products of fewer level-3 units than parameters have no inverse: the information stands in for them. With
// design weights the information is no inverse of a covariance, and the sandwich takes its place.
void Search::seterrors(Run& made) const {
  const Frame& frame = likelihood.frame;
  const Array<double>&outer = likelihood.current.outer, &point = made.ascent.point;
  made.errors = errorsof(frame, point, made.ascent.there.information, outer);
  if (!frame.units.weight3.empty()) made.errors.covariance = made.errors.sandwich.copy();
  if (!settings.outerproducts) return;
  Errors byouter = errorsof(frame, point, outer, outer);
  made.noouter = !byouter.usable;
  if (made.noouter) return;
  byouter.sandwich = std::move(made.errors.sandwich);
  made.errors = std::move(byouter);
}

// First order or sixth. The sixth is not defined where variances are so large that its terms outgrow those of the
// first: the ascent then begins nearer to 0.
Run Search::runlaplace(Array<double> start) {
  constexpr int mosthalvings = 20;
  Run made;
  const Frame& frame = likelihood.frame;
  const int steppoints = frame.q + frame.r <= 6 ? 3 : 1;  // of the information that steps take: as few as serve
  if (!makegrids(likelihood.grids, steppoints, frame.q, frame.r)) return made;
  AscentSettings ascent = settings.ascent;
  ascent.iterations = std::max(settings.iterations, 1);
  ascent.fall = settings.laplacefall;
  const AscentProblem problem = watched(made, laplaceascentof(likelihood));
  for (int halving = 0; halving <= mosthalvings; ++halving) {
    made.ascent = climb(problem, ascent, start, Approach::modes);
    evaluations += made.ascent.evaluations;
    if (made.ascent.end != AscentEnd::unusable || !likelihood.sixth || made.ascent.halted ||
        brokensource(*likelihood.source))
      break;
    for (std::size_t i = 0; i + at(frame.g) < start.size(); ++i) start[i] *= 0.5;
  }
  made.converged = made.ascent.end == AscentEnd::converged;
  if (made.ascent.exact) seterrors(made);
  return made;
}

PointsCheck Search::compare(const Run& before, const Run& after, int next) const {
  PointsCheck check;
  check.made = true;
  check.next = next;
  if (!before.errors.usable || !after.errors.usable) {
    check.change = check.errorchange = INFINITY;
    return check;
  }
  check.change = after.ascent.there.value - before.ascent.there.value;
  const std::size_t P = likelihood.frame.count();
  for (std::size_t i = 0; i < P; ++i) {
    const double first = before.errors.covariance[i * P + i], second = after.errors.covariance[i * P + i];
    // What is at its edge with one number alone has changed wholly.
    if ((first > 0.0) != (second > 0.0)) check.errorchange = std::max(check.errorchange, 1.0);
    if (!(first > 0.0) || !(second > 0.0)) continue;
    check.errorchange = std::max(check.errorchange, std::fabs(std::sqrt(second / first) - 1.0));
  }
  check.agrees = after.converged && before.converged && std::fabs(check.change) < settings.valueagrees &&
                 check.errorchange < settings.errorsagree;
  check.change *= likelihood.frame.scale;
  return check;
}

void Search::fill(const Run& made, int points, MovingResult& result) const {
  const Frame& frame = likelihood.frame;
  result.usable = false;
  result.points = points;
  result.iterations = iterations;
  result.evaluations = evaluations;
  result.combinations = frame.combinations * frame.scale;
  result.records = frame.outcomes;
  switch (made.ascent.end) {
    case AscentEnd::converged:
      result.end = MovingEnd::converged;
      break;
    case AscentEnd::limit:
      result.end = MovingEnd::limit;
      break;
    case AscentEnd::stopped:
      result.end = made.nomaximum ? MovingEnd::nomaximum : MovingEnd::stopped;
      break;
    case AscentEnd::nostep:
    case AscentEnd::notdefinite:
      result.end = MovingEnd::toofewpoints;
      break;
    case AscentEnd::unusable:
      result.end = made.ascent.halted ? MovingEnd::stopped : MovingEnd::nonumbers;
      break;
  }
  if (made.ascent.end == AscentEnd::unusable || brokensource(*likelihood.source)) return;
  result.parameters = parametersof(frame, made.ascent.point);
  Array<double> lifted = made.ascent.point.copy();
  raisestart(frame, likelihood.current.curvature, leastlifted, lifted);
  result.lifted = parametersof(frame, lifted);
  result.loglikelihood = made.ascent.there.value * frame.scale;
  result.distance = std::sqrt(made.ascent.decrement);
  result.usable = made.errors.usable && result.end != MovingEnd::toofewpoints;
  if (!result.usable) {
    if (result.end == MovingEnd::converged) result.end = MovingEnd::toofewpoints;
    return;
  }
  const std::string noouter =
      "WARNING: the outer products of so few level-3 units have no inverse. The standard errors are those of the "
      "information.";
  if (made.noouter && std::find(result.warnings.begin(), result.warnings.end(), noouter) == result.warnings.end())
    result.warnings.push_back(noouter);
  if (settings.posteriors) result.posteriors = posteriorsof(frame, made.ascent.point, likelihood.current.nodes);
  if (!settings.sixth) result.reliabilities = reliabilitiesof(likelihood);
  result.covariance = made.errors.covariance.copy();
  result.fewerunits = made.errors.fewerunits;
  if (!made.errors.fewerunits) result.robust = made.errors.sandwich.copy();
  result.edge = made.errors.edge;
  const std::vector<bool> zero = edgeelements(frame, made.ascent.point);
  const std::size_t P2 = packedsize(frame.q), P3 = packedsize(frame.r);
  result.singularpi = std::find(zero.begin(), zero.begin() + static_cast<std::ptrdiff_t>(P2), true) !=
                      zero.begin() + static_cast<std::ptrdiff_t>(P2);
  result.singularbeta =
      std::find(zero.begin() + static_cast<std::ptrdiff_t>(P2), zero.begin() + static_cast<std::ptrdiff_t>(P2 + P3),
                true) != zero.begin() + static_cast<std::ptrdiff_t>(P2 + P3);
}

// What is said of a maximum at a large standard deviation that no other number of points has confirmed.
void Search::doubtdeviation(const Run& made, MovingResult& result) const {
  if (result.end != MovingEnd::converged) return;
  const double deviation = largestdeviation(likelihood.frame, made.ascent.point);
  if (deviation <= settings.unbelieved) return;
  const bool one = result.points == 1;
  result.warnings.push_back(formatted(
      "WARNING: a random effect has a standard deviation of %.1f on the scale of the linear predictor. With %s such a "
      "variance may be that of the approximation alone: compare with more points%s.",
      deviation, one ? "one point" : "so few points", one ? "" : ", or with fewer random effects"));
}

void Search::check(const Run& before, int points, MovingResult& result) {
  const int next = nextpoints(points);
  if (next > mostpoints || toomany(settings, next, likelihood.frame.q, likelihood.frame.r)) {
    result.notes.push_back(
        formatted("The number of quadrature points was not checked: %d points for %d effects are more "
                  "than this program integrates with.",
                  next, likelihood.frame.q + likelihood.frame.r));
    doubtdeviation(before, result);
    return;
  }
  constexpr int mostiterations = 10;  // a maximum that is farther away is another one
  const Run after = run(next, before.ascent.point, Approach::renewed, mostiterations, false);
  result.evaluations = evaluations;
  result.check = compare(before, after, next);
  if (result.check.agrees) return;
  if (after.ascent.end == AscentEnd::stopped || after.ascent.halted) {
    result.warnings.push_back(
        formatted("WARNING: %d quadrature points are not checked: their check, with %d, was stopped.", points, next));
    return;
  }
  if (!after.converged) {
    result.warnings.push_back(
        formatted("WARNING: %d quadrature points could not be checked: with %d the iterations have "
                  "not converged. AUTO in the place of the points finds how many are needed.",
                  points, next));
    return;
  }
  result.warnings.push_back(
      formatted("WARNING: %d quadrature points are too few: with %d the log-likelihood changes by %.4f and a standard "
                "error by %.1f%%. AUTO in the place of the points finds how many are needed.",
                points, next, result.check.change, 100.0 * result.check.errorchange));
}

void Search::laplace(const Array<double>& start, MovingResult& result) {
  const Run made = runlaplace(start.copy());
  fill(made, 1, result);
  if (result.end == MovingEnd::toofewpoints)
    result.warnings.emplace_back(
        settings.sixth ? "WARNING: Laplace-6 has no maximum that steps could find. Use adaptive quadrature."
                       : "WARNING: the Laplace approximation has no maximum that steps could find. Use more quadrature "
                         "points, or AUTO in their place.");
  if (!settings.sixth) doubtdeviation(made, result);
  if (!result.usable || !settings.sixth) return;
  result.laplace = laplacefindings(likelihood);
  result.reliabilities = std::move(result.laplace.reliabilities);
  if (result.laplace.largest > settings.sixthsmall)
    result.warnings.push_back(
        formatted("WARNING: the terms of the sixth order are not small: they change the log-likelihood of a level-%d "
                  "unit by %.2f. Compare with adaptive quadrature (AGQ:).",
                  settings.unitlevel, result.laplace.largest));
}

void Search::given(const Array<double>& start, MovingResult& result) {
  const int points = settings.points;
  if (points == 1) return laplace(start, result);
  const Run first = run(points, start, Approach::modes, settings.iterations, true);
  fill(first, points, result);
  if (result.end == MovingEnd::toofewpoints) {
    const int next = nextpoints(points);
    result.warnings.push_back(
        formatted("WARNING: %d quadrature points are too few: their log-likelihood has no maximum "
                  "that steps could find. Use %d, or AUTO in the place of the points.",
                  points, next));
  }
  if (result.end == MovingEnd::converged && settings.check) check(first, points, result);
}

void Search::automatic(const Array<double>& start, MovingResult& result) {
  Run before;
  bool any = false;
  int pointsbefore = 0;
  for (std::size_t i = 0; i < ladder.size(); ++i) {
    const int points = ladder[i];
    if (toomany(settings, points, likelihood.frame.q, likelihood.frame.r)) {
      result.warnings.push_back(formatted(
          "WARNING: the search for enough quadrature points ended at %d: %d points for %d effects are more than this "
          "program integrates with.",
          pointsbefore, points, likelihood.frame.q + likelihood.frame.r));
      break;
    }
    const bool begun = any && before.ascent.end != AscentEnd::unusable;
    // The run before ended at its own moments; from a run that failed the nodes begin at the modes again.
    Run now = run(points, begun ? likelihood.current.point : start,
                  begun && before.converged ? Approach::renewed : Approach::modes,
                  i + 1 < ladder.size() ? settings.steppediterations : settings.iterations, true);
    const bool stopped = now.ascent.end == AscentEnd::stopped;
    if (any && now.ascent.halted && !stopped) {  // before a point stood: those of the run before stay
      result.end = MovingEnd::stopped;
      return;
    }
    const PointsCheck check = any ? compare(before, now, pointsbefore) : PointsCheck{};
    before = std::move(now);
    fill(before, points, result);
    if (check.made) result.check = check;
    pointsbefore = points;
    any = true;
    if (stopped || before.ascent.halted || check.agrees || brokensource(*likelihood.source)) return;
  }
  // Whichever number it is, a variance that no outcome bears has none that is enough.
  if (!result.usable && largestdeviation(likelihood.frame, before.ascent.point) > settings.nomaximum) {
    result.end = MovingEnd::nomaximum;
    return;
  }
  if (!result.check.made || !result.check.agrees)
    result.warnings.push_back(
        formatted("WARNING: no number of quadrature points up to %d was enough", pointsbefore) +
        (std::isfinite(result.check.change)
             ? formatted(": the last two differ by %.4f in the log-likelihood and by %.1f%% in a standard error.",
                         result.check.change, 100.0 * result.check.errorchange)
             : std::string(": the last two have no results that could be compared.")));
}

const char* engineof(const MovingSettings& settings) { return settings.sixth ? "Laplace-6" : "quadrature"; }

std::string endedwords(const MovingSettings& settings, const MovingResult& result) {
  const char* missing = result.usable                      ? ""
                        : result.end == MovingEnd::stopped ? ", where there are no standard errors"
                                                           : ", where there are no standard errors. Allow more of them";
  return formatted("WARNING: the iterations of %s ended before they had converged%s.", engineof(settings), missing);
}

// From one start, with what there is to say of the end.
void Search::from(Array<double> point, MovingResult& result) {
  result.points = settings.points == 0 ? ladder[0] : settings.points;
  Nodes& nodes = likelihood.current.nodes;
  nodes.z.fill(0.0);
  nodes.w.fill(0.0);
  Array<double> curvature;
  if (brokensource(*likelihood.source)) return;
  if (placemodes(likelihood, point, nodes, &curvature)) {
    raisestart(likelihood.frame, curvature, leaststart, point);
    settings.points == 0 ? automatic(point, result) : given(point, result);
  } else if (takehalt(likelihood)) {
    result.end = MovingEnd::stopped;
  } else if (!brokensource(*likelihood.source)) {
    result.warnings.emplace_back("WARNING: the random effects have no finite modes at the estimates to begin with.");
  }
  const auto first = [&result](const std::string& words) { result.warnings.insert(result.warnings.begin(), words); };
  if (result.end == MovingEnd::limit || result.end == MovingEnd::stopped) first(endedwords(settings, result));
  if (result.end == MovingEnd::nomaximum)
    first(std::string("WARNING: the likelihood has no finite maximum: it rises as a variance grows without end.") +
          (result.usable ? " The estimates are where its rise had all but ended." : ""));
  if (!result.usable && result.warnings.empty())
    result.warnings.push_back(
        formatted("WARNING: the likelihood is not a finite number where %s begins, or its information has no inverse.",
                  engineof(settings)));
}

// Whether another start may end better.
bool lednowhere(const MovingResult& result) {
  return result.end == MovingEnd::nonumbers || result.end == MovingEnd::toofewpoints ||
         result.end == MovingEnd::nomaximum || (result.end == MovingEnd::limit && !result.usable);
}

// A maximum is better than none, unless the likelihood has risen above it elsewhere.
bool better(double nogain, const MovingResult& again, const MovingResult& before) {
  if (!again.usable || !before.usable) return again.usable;
  return !lednowhere(again) && again.loglikelihood > before.loglikelihood - nogain;
}

constexpr const char* elsewhere =
    "From the estimates before, the search led nowhere: it began anew, from a regression without random effects.";

}  // namespace

int nextpoints(int points) {
  for (const int next : ladder)
    if (next > points) return next;
  return points + (points + 1) / 2;
}

MovingResult movingquadrature(const MovingSettings& settings, int npi, int nbeta, const Design& design,
                              RecordSource& source, const Parameters& start, const QuadratureObserver& observer) {
  MovingResult result;
  const int lowest = settings.points == 0 ? ladder[0] : settings.points;
  result.points = lowest;
  if (std::max(start.q, start.r) > mosteffectsofalevel || toomany(settings, lowest, start.q, start.r)) {
    result.end = MovingEnd::toomanynodes;
    result.warnings.push_back(
        lowest == 1 ? formatted("WARNING: %s takes up to %d random effects of a level.",
                                settings.sixth ? "Laplace-6" : "the Laplace approximation", mosteffectsofalevel)
                    : formatted("WARNING: %d quadrature points for %d effects are more than this program "
                                "integrates with.",
                                lowest, start.q + start.r));
    return result;
  }
  Search search{settings, observer};
  search.likelihood = makespherical(settings.outcome, npi, nbeta, design, source, start, settings.diagonalpi,
                                    settings.diagonalbeta, settings.threads, settings.response);
  SphericalLikelihood& likelihood = search.likelihood;
  likelihood.sixth = settings.sixth;
  likelihood.halts = observer.halt;
  const bool given = !start.gamma.empty();
  if (given) search.from(pointof(likelihood.frame, start), result);
  if ((given && !lednowhere(result)) || brokensource(source)) return result;
  Array<double> point;
  if (regressionstart(likelihood, point)) {
    MovingResult again;
    search.from(std::move(point), again);
    if (given && again.usable) again.notes.emplace_back(elsewhere);
    if (!given || better(settings.nogain * likelihood.frame.scale, again, result)) return again;
  } else if (likelihood.stopped) {
    result.end = MovingEnd::stopped;
    result.warnings.insert(result.warnings.begin(), endedwords(settings, result));
  } else if (!given) {
    result.warnings.emplace_back("WARNING: the records do not tell the fixed effects apart.");
  }
  return result;
}

}  // namespace kdr
