#include "estimate/quasi/separation.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>

#include "estimate/quasi/family.h"
#include "estimate/quasi/fixedrows.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// sign h'd >= 0; of sign 0: h'd = 0.
using VisitHalf = std::function<void(int sign, const double* h)>;

// The rows of the records, and what they ask for.
struct Halves {
  const Outcome& outcome;
  const std::vector<double>& values;
  FixedRows rows;
  int M, g;
  Array<double> h, difference;  // M rows of g, one row
};

void eachhalf(Halves& halves, const ModelRecord& record, const VisitHalf& visit) {
  const Outcome& outcome = halves.outcome;
  const int M = halves.M;
  const auto row = [&](int c) { return halves.h.data() + at(c) * at(halves.g); };
  for (int c = 0; c < M; ++c) fixedrow(halves.rows, record.x, record.level2, c, row(c));
  if (!outcome.categorical()) {
    const bool full = outcome.link() == Link::logit && record.y >= record.n;
    return visit(record.y == 0.0 ? -1 : full ? 1 : 0, row(0));
  }
  const std::vector<double>& values = halves.values;
  const auto k = static_cast<int>(std::lower_bound(values.begin(), values.end(), record.y) - values.begin());
  if (outcome.ordinal()) {
    if (k < M) visit(1, row(k));
    if (k > 0) visit(-1, row(k - 1));
    return;
  }
  for (int c = 0; c <= M; ++c) {  // h_k - h_c, where the last category has a row of 0
    if (c == k) continue;
    for (int i = 0; i < halves.g; ++i) halves.difference[i] = (k < M ? row(k)[i] : 0.0) - (c < M ? row(c)[i] : 0.0);
    visit(1, halves.difference.data());
  }
}

Failure eachhalf(Halves& halves, const VisitHalf& visit) {
  return walkrecords(halves.rows, [&](const ModelRecord& record) { eachhalf(halves, record, visit); });
}

double product(const double* h, const Array<double>& d) {
  double sum = 0.0;
  for (std::size_t i = 0; i < d.size(); ++i) sum += h[i] * d[i];
  return sum;
}

// The regression at d: each half-space an outcome of 1, one of sign 0 an outcome of 1 and one of 0.
struct Regression {
  double loss = 0.0;
  Array<double> score, information;
  Array<double> undecided;         // sum of h h' of the half-spaces that d has not met by far
  double largest = 0.0;            // of sign h'd
  double worst = 0.0;              // of what d is against
  bool open = false, met = false;  // some half-space has sign 0; some are met by far
};

constexpr double byfar = 14.0;  // a millionth is left of the outcome

Failure regress(Halves& halves, const Array<double>& d, Regression& at0) {
  const auto g = at(halves.g);
  at0 = {};
  at0.score.reset(g);
  at0.information.reset(g * g);
  at0.undecided.reset(g * g);
  return eachhalf(halves, [&](int sign, const double* h) {
    const double x = product(h, d), away = (sign == 0 ? 1.0 : sign) * x;
    const LogitMean mean = logitmean(-away);  // of what is left
    double slope = 0.0, weight = 0.0;
    if (sign == 0) {
      at0.open = true;
      at0.loss += std::fabs(x) + 2.0 * std::log1p(mean.small);
      slope = 2.0 * mean.mu - 1.0;
      weight = 2.0 * mean.variance;
      at0.worst = std::max(at0.worst, std::fabs(x));
    } else {
      at0.loss += std::max(-away, 0.0) + std::log1p(mean.small);
      slope = sign * mean.mu;
      weight = mean.variance;
      at0.largest = std::max(at0.largest, away);
      at0.worst = std::max(at0.worst, -away);
    }
    const bool met = sign != 0 && away > byfar;
    at0.met = at0.met || met;
    for (std::size_t i = 0; i < g; ++i) {
      at0.score[i] += slope * h[i];
      for (std::size_t j = 0; j < g; ++j) {
        const double square = h[i] * h[j];
        at0.information[i * g + j] += weight * square;
        if (!met) at0.undecided[i * g + j] += square;
      }
    }
  });
}

// Eigenvalues and vectors of a cross-product whose columns are brought to the lengths in `scale`.
struct ScaledSpectrum {
  Array<double> values, vectors;
};
ScaledSpectrum scaledspectrum(const Array<double>& gram, const Array<double>& scale) {
  const std::size_t g = scale.size();
  Array<double> scaled(g * g);
  for (std::size_t i = 0; i < g; ++i)
    for (std::size_t j = 0; j < g; ++j) scaled[i * g + j] = gram[i * g + j] / (scale[i] * scale[j]);
  ScaledSpectrum made{Array<double>(g), Array<double>(g * g)};
  spectrum(g, scaled.data(), made.values.data(), made.vectors.data());
  return made;
}

// Sum over the eigenvectors q of factor(eigenvalue) q q'x.
Array<double> filtered(const ScaledSpectrum& of, const Array<double>& x, const std::function<double(double)>& factor) {
  const std::size_t g = x.size();
  Array<double> y(g);
  for (std::size_t e = 0; e < g; ++e) {
    double share = 0.0;
    for (std::size_t i = 0; i < g; ++i) share += of.vectors[i * g + e] * x[i];
    share *= factor(of.values[e]);
    for (std::size_t i = 0; i < g; ++i) y[i] += share * of.vectors[i * g + e];
  }
  return y;
}

// The Newton step, in columns of the lengths in `scale`, and the rise that it promises.
Array<double> newtonstep(const Regression& now, const Array<double>& scale, double& rise) {
  Array<double> score(scale.size());
  for (std::size_t i = 0; i < score.size(); ++i) score[i] = now.score[i] / scale[i];
  const ScaledSpectrum of = scaledspectrum(now.information, scale);
  const double largest = of.values[of.values.size() - 1];
  Array<double> step = filtered(of, score, [&](double value) { return value > 1.0e-13 * largest ? 1.0 / value : 0.0; });
  rise = product(step.data(), score);
  for (std::size_t i = 0; i < step.size(); ++i) step[i] /= scale[i];
  return step;
}

// The part of d that the undecided half-spaces do not see.
Array<double> unseenpart(const Regression& now, const Array<double>& d, const Array<double>& scale) {
  Array<double> scaled(d.size());
  for (std::size_t i = 0; i < d.size(); ++i) scaled[i] = d[i] * scale[i];
  Array<double> part =
      filtered(scaledspectrum(now.undecided, scale), scaled, [](double value) { return value < 1.0e-10 ? 1.0 : 0.0; });
  for (std::size_t i = 0; i < d.size(); ++i) part[i] /= scale[i];
  return part;
}

// Whether the half-spaces agree to d.
Failure allagree(Halves& halves, const Array<double>& d, bool& agree) {
  constexpr double rounding = 1.0e-7;
  double largest = 0.0, worst = 0.0;
  Failure failure = eachhalf(halves, [&](int sign, const double* h) {
    const double x = product(h, d);
    largest = std::max(largest, sign * x);
    worst = std::max(worst, sign == 0 ? std::fabs(x) : -sign * x);
  });
  agree = largest > 0.0 && worst <= rounding * largest;
  return failure;
}

// The direction, if there is one; else `found` stays false.
Failure direction(Halves& halves, Array<double>& d, Array<double>& scale, bool& found) {
  constexpr int maxsteps = 40, maxhalvings = 10;
  constexpr double rest = 1.0e-6;
  const std::size_t g = d.size();
  Regression now, next;
  if (Failure failure = regress(halves, d, now)) return failure;
  scale.reset(g);
  for (std::size_t i = 0; i < g; ++i) {
    const double square = now.information[i * (g + 1)];
    scale[i] = square > 0.0 ? std::sqrt(square) : 1.0;
  }
  for (int steps = 0; steps < maxsteps; ++steps) {
    double rise = 0.0, factor = 1.0;
    const Array<double> step = newtonstep(now, scale, rise);
    if (!(rise > rest)) return {};
    for (int halvings = 0;; ++halvings, factor *= 0.5) {
      if (halvings == maxhalvings) return {};
      Array<double> there = d.copy();
      for (std::size_t i = 0; i < g; ++i) there[i] += factor * step[i];
      if (Failure failure = regress(halves, there, next)) return failure;
      if (next.loss > now.loss) continue;
      d = std::move(there);
      now = std::move(next);
      break;
    }
    if (!now.open && now.largest > 0.0 && now.worst <= 0.0) {
      found = true;
      return {};
    }
    if (!now.met) continue;
    Array<double> part = unseenpart(now, d, scale);
    if (Failure failure = allagree(halves, part, found)) return failure;
    if (!found) continue;
    d = std::move(part);
    return {};
  }
  return {};
}

// The effects that have a part in d.
std::vector<int> partsof(const Array<double>& d, const Array<double>& scale) {
  constexpr double part = 0.01;
  double largest = 0.0;
  for (std::size_t i = 0; i < d.size(); ++i) largest = std::max(largest, std::fabs(d[i]) * scale[i]);
  std::vector<int> effects;
  for (std::size_t i = 0; i < d.size(); ++i)
    if (std::fabs(d[i]) * scale[i] >= part * largest) effects.push_back(static_cast<int>(i));
  return effects;
}

void tellseparation(MacroState& state, const std::vector<int>& effects) {
  Separation& separation = state.separation;
  const auto known = [&](int g) { return std::ranges::find(separation.effects, g) != separation.effects.end(); };
  if (std::ranges::any_of(effects, known)) return;  // its cause is told
  std::string names;
  for (std::size_t i = 0; i < effects.size(); ++i) {
    names += i == 0 ? "" : i + 1 == effects.size() ? " and " : ", ";
    names += effectname(state.analysis, effects[i]);
    separation.effects.push_back(effects[i]);
  }
  const bool several = effects.size() > 1;
  separation.warnings.push_back("WARNING: separation: together the predictors tell outcomes apart without fail.\nThe " +
                                std::string(several ? "coefficients of " : "coefficient of ") + names +
                                (several ? " have no finite estimates." : " has no finite estimate.") +
                                " Leave predictors out, or join their values.");
}

}  // namespace

Failure findseparation(MacroState& state) {
  if (state.separation.searched) return {};
  state.separation.searched = true;
  const Analysis& analysis = state.analysis;
  Pass pass;
  pass.analysis = &analysis;
  if (Failure failure = makedesign(pass)) return failure;
  const int M = responsesof(analysis.model.outcome);
  Halves halves{
      analysis.model.outcome,   state.categories, makefixedrows(pass), M, pass.g, Array<double>(at(M) * at(pass.g)),
      Array<double>(at(pass.g))};
  Array<double> d(at(pass.g)), scale;
  bool found = false;
  if (Failure failure = direction(halves, d, scale, found)) return failure;
  if (found) tellseparation(state, partsof(d, scale));
  return {};
}

}  // namespace kdr
