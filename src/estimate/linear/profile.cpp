#include "estimate/linear/profile.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "core/modelwalk.h"
#include "estimate/ascent/conescoring.h"
#include "estimate/linear/marginalsurface.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr double threshold = 3.841458820694124;  // 0.95 quantile of chi-square, one degree of freedom
constexpr double notthere = 0.005;               // of a log-likelihood: another point than the maximum
constexpr double notfound = std::numeric_limits<double>::quiet_NaN();

// What is profiled: a fixed effect, a variance, or a function h of the variance components theta. An intraclass
// correlation is a'theta / b'theta, a correlation is theta_c / root(theta_u theta_v).
struct Target {
  std::optional<int> effect;
  std::optional<std::size_t> element;  // the function is this one variance
  Array<double> a, b;
  bool correlation = false;
  std::size_t c = 0, u = 0, v = 0;
};

// The constraint h = level as a function g(theta) that is 0 there: a'theta - level b'theta, or theta_c - level
// root(theta_u theta_v).
struct Constraint {
  double g = 0.0;
  Array<double> gradient;
};
Constraint constraintof(const Target& target, double level, const Array<double>& theta) {
  Constraint made{0.0, Array<double>(theta.size())};
  if (target.correlation) {
    const double u = std::max(theta[target.u], 0.0), v = std::max(theta[target.v], 0.0), root = std::sqrt(u * v);
    made.g = theta[target.c] - level * root;
    made.gradient[target.c] = 1.0;
    if (root > 0.0) {
      made.gradient[target.u] = -0.5 * level * root / u;
      made.gradient[target.v] = -0.5 * level * root / v;
    }
    return made;
  }
  for (std::size_t i = 0; i < theta.size(); ++i) {
    made.gradient[i] = target.a[i] - level * target.b[i];
    made.g += made.gradient[i] * theta[i];
  }
  return made;
}

// The profile under way.
struct Profile {
  Pass& pass;
  Restriction restriction;
  MarginalSurface surface;
  double top = 0.0;                // the maximum
  Array<double> best = {};         // and where it is
  Array<double> information = {};  // there, NT squared
  Array<double> gamma = {};
  Array<double> covariance = {};  // of the fixed effects
  Array<double> last = {};        // the last solution beside a constraint, from which the next one starts
  bool stopped = false, higher = false;

  [[nodiscard]] ConeProblem problem() {
    ConeProblem made;
    made.orders = {surface.sums.p, surface.sums.b};
    made.free = restriction.free.copy();
    made.nfree = restriction.nfree;
    made.stop = [this] { return stopped = stopped || pass.observer().givesup() || pass.observer().wantsstop(); };
    return made;
  }
  bool climbtotop(const Array<double>& from);
  std::optional<double> ofeffect(int effect, double level);
  std::optional<double> ofvariance(std::size_t element, double level);
  std::optional<double> offunction(const Target& target, double level);
  // The largest likelihood at a level, below `top` as a rule.
  std::optional<double> at(const Target& target, double level) {
    const std::optional<double> value = target.effect    ? ofeffect(*target.effect, level)
                                        : target.element ? ofvariance(*target.element, level)
                                                         : offunction(target, level);
    if (value && *value > top + notthere) higher = true;
    return stopped ? std::nullopt : value;
  }
};

bool Profile::climbtotop(const Array<double>& from) {
  ConeProblem climb = problem();
  climb.evaluate = [this](const Array<double>& point) { return surface.evaluate(point); };
  climb.test = climb.evaluate;
  const ConeResult result = climbcone(climb, {}, from);
  if (result.end == AscentEnd::unusable || stopped) return false;
  best = result.point.copy();
  const Evaluation there = surface.evaluate(best);
  if (!there.usable) return false;
  top = there.value;
  information = there.information.copy();
  gamma = surface.latest.value.gamma.copy();
  covariance = surface.latest.value.covariance.copy();
  last = best.copy();
  return true;
}

std::optional<double> Profile::ofeffect(int effect, double level) {
  surface.held = HeldEffect{effect, level};
  surface.lastpoint = {};
  surface.now.gammahat = gamma.copy();
  ConeProblem climb = problem();
  climb.evaluate = [this](const Array<double>& point) { return surface.evaluate(point); };
  climb.test = climb.evaluate;
  const ConeResult result = climbcone(climb, {}, last);
  surface.held.reset();
  surface.lastpoint = {};
  if (result.end == AscentEnd::unusable) return {};
  last = result.point.copy();
  return result.value;
}

// A variance is held where it is asked for, with those that are equal to it. Its covariances start in proportion to its
// root, so that the matrix stays one, and without it are held at 0.
std::optional<double> Profile::ofvariance(std::size_t element, double level) {
  ConeProblem climb = problem();
  Array<double> from = last.copy();
  const int group = restriction.free[element];
  std::size_t first = 0;
  for (const int n : climb.orders) {
    eachelement(n, [&](int e, int i, int j) {
      const auto place = [&](int r, int c) { return first + packedsize(std::max(r, c)) + kdr::at(std::min(r, c)); };
      if (i != j || restriction.free[first + kdr::at(e)] != group) return;
      const double now = last[first + kdr::at(e)], factor = now > 0.0 ? std::sqrt(level / now) : 0.0;
      for (int l = 0; l < n; ++l) {
        if (l == i || restriction.free[place(i, l)] < 0) continue;
        from[place(i, l)] *= factor;
        if (level == 0.0) climb.free[place(i, l)] = -1;
      }
    });
    first += packedsize(n);
  }
  std::vector<int> number(kdr::at(restriction.nfree), -1);
  climb.nfree = 0;
  for (std::size_t e = 0; e < from.size(); ++e) {
    if (restriction.free[e] == group) {
      from[e] = level;
      climb.free[e] = -1;
    }
    if (climb.free[e] < 0) continue;
    int& place = number[kdr::at(climb.free[e])];
    if (place < 0) place = climb.nfree++;
    climb.free[e] = place;
  }
  climb.evaluate = [this](const Array<double>& point) { return surface.evaluate(point); };
  climb.test = climb.evaluate;
  if (climb.nfree == 0) {
    const Evaluation there = surface.evaluate(from);
    return there.usable ? std::optional(there.value) : std::nullopt;
  }
  const ConeResult result = climbcone(climb, {}, from);
  if (result.end != AscentEnd::converged) return {};
  last = result.point.copy();
  return result.value;
}

// The maximum of l under g = 0 by multipliers: that of l + lambda g - mu g^2 / 2, lambda taking over what the square
// holds. With mu of `stiff` over the variance of g what is left of g is a hundredth of its standard error after one
// round; the value that belongs to g = 0 is l + lambda g but for the square of that.
std::optional<double> Profile::offunction(const Target& target, double level) {
  constexpr double stiff = 100.0, close = 1.0e-4;
  constexpr int rounds = 12;
  const std::size_t NT = best.size();
  double variance = 0.0;
  {
    const Constraint here = constraintof(target, level, last);
    for (std::size_t i = 0; i < NT; ++i)
      if (information[i * (NT + 1)] > 0.0) variance += here.gradient[i] * here.gradient[i] / information[i * (NT + 1)];
  }
  if (!(variance > 0.0)) return {};
  const double mu = stiff / variance;
  double lambda = 0.0;
  ConeProblem climb = problem();
  climb.evaluate = [&](const Array<double>& point) {
    Evaluation there = surface.evaluate(point);
    if (!there.usable) return there;
    const Constraint here = constraintof(target, level, point);
    const double force = lambda - mu * here.g;
    there.value += lambda * here.g - 0.5 * mu * here.g * here.g;
    for (std::size_t i = 0; i < NT; ++i) {
      there.score[i] += force * here.gradient[i];
      for (std::size_t j = 0; j < NT; ++j) there.information[i * NT + j] += mu * here.gradient[i] * here.gradient[j];
    }
    return there;
  };
  climb.test = climb.evaluate;
  for (int round = 0; round < rounds; ++round) {
    const ConeResult result = climbcone(climb, {}, last);
    if (result.end == AscentEnd::unusable || stopped) return {};
    last = result.point.copy();
    const double g = constraintof(target, level, last).g;
    lambda -= mu * g;
    if (std::fabs(g) <= close * std::sqrt(variance)) return surface.look(last).value.of(surface.criterion) + lambda * g;
  }
  return {};
}

// One bound: the level x(t) at which twice the log-likelihood is `threshold` below the top. t begins at 0, where the
// estimate is; `end` is where x ends, if it does, and what the bound is where the likelihood has not fallen so far by
// then. `step` is a first guess.
struct Side {
  std::function<double(double t)> level;
  double step = 1.0;
  std::optional<double> end;
};
struct Bound {
  double t, level, zeta;
};
std::optional<double> zetaat(Profile& profile, const Target& target, const Side& side, double t) {
  const std::optional<double> value = profile.at(target, side.level(t));
  if (!value) return {};
  return std::sqrt(std::max(0.0, 2.0 * (profile.top - *value)));
}
std::optional<Bound> bound(Profile& profile, const Target& target, const Side& side) {
  constexpr int most = 40;
  constexpr double close = 1.0e-5;
  const double root = std::sqrt(threshold);
  profile.last = profile.best.copy();
  double low = 0.0, atlow = 0.0, high = 0.0, athigh = 0.0;
  bool bracketed = false;
  double t = side.end ? std::min(side.step, 0.5 * *side.end) : side.step;
  for (int i = 0; i < most; ++i) {
    const std::optional<double> z = zetaat(profile, target, side, t);
    if (!z) return {};
    const Bound here{t, side.level(t), *z};
    if (std::fabs(*z - root) < close) return here;
    if (*z < root) {
      low = t;
      atlow = *z;
      if (side.end && t >= *side.end) return here;
    } else {
      high = t;
      athigh = *z;
      bracketed = true;
    }
    // zeta is near a line in t: through the estimate while there is no bracket, within it afterwards, and by halves
    // where that creeps.
    if (!bracketed) {
      double next = atlow > 0.1 ? std::min(low * root / atlow * 1.05, 4.0 * low) : 4.0 * low;
      if (side.end && (next >= *side.end || i >= 3)) next = *side.end;
      t = next;
      continue;
    }
    const double width = high - low;
    if (width <= 1.0e-9 * high) return here;
    t = low + width * (root - atlow) / (athigh - atlow);
    const double margin = i % 5 == 4 ? 0.3 : 0.01;
    t = std::clamp(t, low + margin * width, high - margin * width);
  }
  return {};
}

// The curve on one side, outwards: zeta at these parts of the way to the bound, at the bound, and a little behind it.
// Each climb starts from the one before.
ProfileCurve outwards(Profile& profile, const Target& target, const Side& side, const std::optional<Bound>& found) {
  ProfileCurve curve;
  if (!found || !profile.pass.analysis->wanted.curves) return curve;
  profile.last = profile.best.copy();
  for (const double part : {0.25, 0.5, 0.75, 1.0, 1.25}) {
    const double t = side.end ? std::min(part * found->t, *side.end) : part * found->t;
    if (part == 1.0) {
      curve.push_back({found->level, found->zeta});
    } else if (part < 1.0 || t > found->t) {
      const std::optional<double> zeta = zetaat(profile, target, side, t);
      if (profile.stopped) return {};
      if (zeta) curve.push_back({side.level(t), *zeta});
    }
  }
  return curve;
}

// Both sides with the estimate, where zeta is 0, between them.
ProfileCurve joined(const ProfileCurve& down, double estimate, const ProfileCurve& up) {
  if (down.empty() && up.empty()) return {};
  ProfileCurve curve;
  for (auto point = down.rbegin(); point != down.rend(); ++point) curve.push_back({point->value, -point->zeta});
  curve.push_back({estimate, 0.0});
  curve.insert(curve.end(), up.begin(), up.end());
  return curve;
}

double levelof(const std::optional<Bound>& found) { return found ? found->level : notfound; }

// What a profile says of one parameter. Without `down` it ends below at the estimate.
Interval both(Profile& profile, const Target& target, const std::optional<Side>& down, const std::optional<Side>& up,
              ProfileCurve& curve) {
  const auto search = [&](const std::optional<Side>& side) {
    return side && !profile.stopped ? bound(profile, target, *side) : std::nullopt;
  };
  const std::optional<Bound> low = search(down), high = search(up);
  if (profile.stopped || (!low && !high)) return {};
  const double estimate = (down ? down : up)->level(0.0);
  const ProfileCurve below = down ? outwards(profile, target, *down, low) : ProfileCurve{};
  const ProfileCurve above = up ? outwards(profile, target, *up, high) : ProfileCurve{};
  if (!profile.stopped) curve = joined(below, estimate, above);
  return {true, down ? levelof(low) : estimate, up ? levelof(high) : estimate};
}

// A variance on the scale of the standard deviation, in steps of its own standard error.
Interval variance(Profile& profile, std::size_t element, ProfileCurve& curve) {
  const std::size_t NT = profile.best.size();
  Target target;
  target.element = element;
  const double own = profile.information[element * (NT + 1)];
  if (!(own > 0.0)) return {};
  const double error = 1.0 / std::sqrt(own), deviation = std::sqrt(std::max(0.0, profile.best[element]));
  const double step = std::max(error / std::max(2.0 * deviation, std::sqrt(error)), 1.0e-3 * std::sqrt(error));
  const Side up{[=](double t) { return (deviation + t) * (deviation + t); }, 2.0 * step, {}};
  const Side down{[=](double t) { return (deviation - t) * (deviation - t); }, 2.0 * step, deviation};
  return deviation == 0.0 ? both(profile, target, {}, up, curve) : both(profile, target, down, up, curve);
}

// A correlation, between -1 and 1; all of that where a variance may be 0. `estimate` may be at an end.
Interval correlation(Profile& profile, const Target& target, double estimate, bool anything, ProfileCurve& curve) {
  if (anything) return {true, -1.0, 1.0};
  constexpr double atend = 1.0e-6;
  const auto side = [&](double end) -> std::optional<Side> {
    if (std::fabs(end - estimate) <= atend) return {};
    return Side{[=](double t) { return std::clamp(estimate + (end > 0 ? t : -t), -1.0, 1.0); },
                0.5 * std::fabs(end - estimate), std::fabs(end - estimate)};
  };
  const std::optional<Side> down = side(-1.0), up = side(1.0);
  const Interval found = both(profile, target, down, up, curve);
  if (profile.stopped) return {};
  const double low = !down ? -1.0 : found.known ? found.low : notfound;
  const double high = !up ? 1.0 : found.known ? found.high : notfound;
  return {std::isfinite(low) || std::isfinite(high), low, high};
}

// An element that the model leaves free.
bool isfree(const Profile& profile, std::size_t element) { return profile.restriction.free[element] >= 0; }

void oftau(Profile& profile, std::size_t first, int n, std::vector<Interval>& variances,
           std::vector<Interval>& correlations, std::vector<ProfileCurve>& curves,
           std::vector<ProfileCurve>& correlationcurves) {
  const auto place = [&](int i, int j) { return first + packedsize(i) + at(j); };
  for (int i = 0; i < n; ++i) {
    const std::size_t element = place(i, i);
    ProfileCurve& curve = curves.emplace_back();
    variances.push_back(isfree(profile, element) && !profile.stopped ? variance(profile, element, curve) : Interval{});
    for (int j = 0; j < i; ++j) {
      ProfileCurve& its = correlationcurves.emplace_back();
      Target target;
      target.correlation = true;
      target.c = place(i, j);
      target.u = place(j, j);
      target.v = element;
      const Interval &one = variances[at(i)], &other = variances[at(j)];
      const bool missing = !one.known || !other.known || std::isnan(one.low) || std::isnan(other.low);
      if (!isfree(profile, target.c) || missing || profile.stopped) {
        correlations.push_back({});
        continue;
      }
      const Array<double>& theta = profile.best;
      const double root = std::sqrt(theta[target.u] * theta[target.v]);
      const bool anything = !(one.low > 0.0) || !(other.low > 0.0) || !(root > 0.0);
      correlations.push_back(correlation(profile, target, anything ? 0.0 : theta[target.c] / root, anything, its));
    }
  }
}

void ofeffects(Profile& profile, std::vector<Interval>& effects, std::vector<ProfileCurve>& curves) {
  const std::size_t g = profile.gamma.size();
  for (std::size_t i = 0; i < g && !profile.stopped; ++i) {
    Target target;
    target.effect = static_cast<int>(i);
    const double estimate = profile.gamma[i], error = std::sqrt(profile.covariance[i * (g + 1)]);
    const auto side = [&](double sign) { return Side{[=](double t) { return estimate + sign * t; }, 2.0 * error, {}}; };
    ProfileCurve& curve = curves.emplace_back();
    effects.push_back(both(profile, target, side(-1.0), side(1.0), curve));
  }
}

// With one variance at each level, theta = (taupi, taubeta, sigma2), the second of three levels alone: (taupi +
// taubeta) / total and taubeta / total.
void intraclass(Profile& profile, ProfileIntervals& made) {
  const Array<double>& theta = profile.best;
  const auto share = [&](std::size_t first, ProfileCurve& curve) {
    Target target;
    target.a.reset(theta.size());
    target.b.reset(theta.size());
    target.b.fill(1.0);
    double common = 0.0, total = 0.0;
    for (std::size_t e = 0; e < theta.size(); ++e) {
      target.a[e] = e >= first && e + 1 < theta.size() ? 1.0 : 0.0;
      common += target.a[e] * theta[e];
      total += theta[e];
    }
    const double estimate = common / total;
    const Side down{[=](double t) { return std::max(0.0, estimate - t); }, 0.5 * estimate, estimate};
    const Side up{[=](double t) { return std::min(1.0, estimate + t); },
                  std::min(0.5 * estimate + 0.02, 0.5 * (1.0 - estimate)), 1.0 - estimate};
    return estimate > 0.0 ? both(profile, target, down, up, curve) : both(profile, target, {}, up, curve);
  };
  if (profile.stopped) return;
  made.intraclass = true;
  made.samelevel2 = share(0, made.curves.samelevel2);
  if (!profile.stopped && theta.size() == 3) made.samelevel3 = share(1, made.curves.samelevel3);
}

}  // namespace

bool interceptsalone(const Pass& pass) {
  const ModelRows rows = modelrows(pass.model());
  if (pass.p != 1 || pass.b > 1 || pass.model().autovknown != 0) return false;
  for (const CoefficientRow& row : rows.coefficients)
    if (row.random && row.variable != 0) return false;
  for (const TermRow& row : rows.terms)
    if (row.random && (row.variable != 0 || rows.owner(row).variable != 0)) return false;
  return true;
}

ProfileIntervals profileintervals(Pass& pass, const ProfileRequest& request, std::vector<std::string>& notes) {
  ProfileIntervals made;
  const Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  Profile profile{pass,
                  allrestriction(pass.model(), pass.fixsigma2 == 0.0),
                  {request.sums, request.criterion, restriction, request.from.copy()}};
  const Array<double> from = variancepoint(request.sums, request.from);
  const Evaluation before = profile.surface.evaluate(from);
  if (!profile.climbtotop(from)) {
    notes.emplace_back("PROFILE: the likelihood has no maximum that intervals could be reckoned from.");
    return made;
  }
  made.made = true;
  if (!before.usable || before.value < profile.top - notthere)
    notes.emplace_back(
        "PROFILE: the estimates are not at the maximum of the likelihood, which the intervals belong to.");
  VarianceIntervals& variances = made.variances;
  ProfileCurves& curves = made.curves;
  made.drawn = pass.analysis->wanted.curves;
  oftau(profile, 0, pass.p, variances.level2, variances.correlations2, curves.level2, curves.correlations2);
  oftau(profile, packedsize(pass.p), pass.b, variances.level3, variances.correlations3, curves.level3,
        curves.correlations3);
  const std::size_t last = profile.best.size() - 1;
  if (isfree(profile, last) && !profile.stopped) variances.sigma2 = variance(profile, last, curves.sigma2);
  if (request.criterion == Criterion::full) {
    ofeffects(profile, made.effects, curves.effects);
  } else {
    notes.emplace_back(
        "PROFILE: the restricted likelihood is no function of the fixed effects, which have no profile intervals; "
        "theirs are by t. LIKELIHOOD:ML has both.");
  }
  if (interceptsalone(pass)) intraclass(profile, made);
  if (profile.stopped) notes.emplace_back("PROFILE: stopped before its end, so that some intervals are missing.");
  if (profile.higher)
    notes.emplace_back(
        "PROFILE: the likelihood has a higher maximum than that of the estimates, which the profile met on its way.");
  return made;
}

}  // namespace kdr
