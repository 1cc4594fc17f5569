#include "estimate/laplace/laplace.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/linear/usable.h"
#include "estimate/quasi/macrotest.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

using Kind = EngineEvent::Kind;

const double logtwopi = std::log(6.2831853);

void asktostop(LaplaceLikelihood& likelihood) {
  const EngineSettings& engine = likelihood.settings.engine;
  if (engine.stopasked && engine.stopasked()) likelihood.stopped = true;
}

std::vector<ScoreWork> scorework(const LaplaceLikelihood& likelihood) {
  std::vector<ScoreWork> work;
  for (int i = 0; i < std::max(likelihood.settings.engine.threads, 1); ++i)
    work.push_back(makescorework(likelihood.data, likelihood.q, likelihood.r));
  return work;
}

Parameters parametersat(const LaplaceLikelihood& likelihood, const Array<double>& point) {
  return parametersof(likelihood.q, likelihood.r, likelihood.g, point);
}

// The modes of a point; its taus inverted. False with likelihood.failure.
bool findmodes(LaplaceLikelihood& likelihood, const Parameters& parameters, Kind sweep, TauInverses& inverses,
               ModeSums& sums) {
  likelihood.failure = EngineFailure::notdefinite;
  if (!invertaus(parameters, inverses)) return false;
  likelihood.modes.u = likelihood.u.copy();
  likelihood.modes.v = likelihood.v.copy();
  likelihood.failure =
      findmodes(likelihood.data, likelihood.settings, parameters, inverses, sweep, likelihood.modes, sums);
  if (likelihood.failure != EngineFailure::none) return false;
  asktostop(likelihood);
  return true;
}

// Score, information and reliabilities at the modes, summed in the order of the units.
Evaluation walkscores(LaplaceLikelihood& likelihood, const Parameters& parameters, const TauInverses& inverses) {
  const EngineData& data = likelihood.data;
  const std::size_t P = parameters.count(), q = at(parameters.q), r = at(parameters.r);
  const std::size_t width = P + q + r;  // score, shares in the reliabilities of levels 2 and 3
  std::vector<ScoreWork> work = scorework(likelihood);
  Array<double> rows(at(data.units3) * width);
  std::vector<UnitReliability> counts(at(data.units3));
  std::vector<char> defined(at(data.units3));
  Evaluation there;
  Halt halt(givingup(data.source));
  const bool whole =
      overunits(data.source, likelihood.settings.engine.threads, halt, [&](const Level3Records& unit, int worker) {
        double* row = rows.data() + at(unit.k) * width;
        counts[at(unit.k)] = {row + P, row + P + q};
        defined[at(unit.k)] =
            unitscore(data, parameters, inverses, likelihood.modes, unit, work[at(worker)], row, counts[at(unit.k)]);
      });
  if (!whole) {
    likelihood.failure = EngineFailure::data;
    return there;
  }
  there.usable = true;
  there.score.reset(P);
  there.information.reset(P * P);
  likelihood.rel2.reset(q);
  likelihood.rel3.reset(r);
  likelihood.nrel2 = likelihood.nrel3 = 0;
  for (std::size_t k = 0; k < at(data.units3); ++k) {
    const double* s = rows.data() + k * width;
    for (std::size_t i = 0; i < P; ++i) {
      there.score[i] += s[i];
      for (std::size_t l = 0; l <= i; ++l) there.information[i * P + l] += s[i] * s[l];
    }
    for (std::size_t a = 0; a < q; ++a) likelihood.rel2[a] += s[P + a];
    for (std::size_t a = 0; a < r; ++a) likelihood.rel3[a] += s[P + q + a];
    likelihood.nrel2 += counts[k].count2;
    likelihood.nrel3 += counts[k].count3;
  }
  mirror(static_cast<int>(P), there.information.data());
  for (double& sum : likelihood.rel2) sum = likelihood.nrel2 > 0 ? sum / likelihood.nrel2 : 0.0;
  for (double& sum : likelihood.rel3) sum = likelihood.nrel3 > 0 ? sum / likelihood.nrel3 : 0.0;
  if (std::find(defined.begin(), defined.end(), 0) != defined.end())
    tell(likelihood.settings.engine, {Kind::undefined});
  return there;
}

}  // namespace

LaplaceLikelihood laplacelikelihood(const EngineData& data, const LaplaceSettings& settings, const Parameters& start,
                                    const Array<double>& u, const Array<double>& v) {
  LaplaceLikelihood likelihood{data, settings, start.q, start.r, start.g, u.copy(), v.copy()};
  startmodes(data, start.q, start.r, u, v, likelihood.modes);
  return likelihood;
}

Evaluation laplacevalue(LaplaceLikelihood& likelihood, const Array<double>& point) {
  const EngineData& data = likelihood.data;
  Evaluation there;
  TauInverses inverses;
  ModeSums modes;
  const Parameters parameters = parametersat(likelihood, point);
  if (!findmodes(likelihood, parameters, Kind::valuesweep, inverses, modes)) return there;

  std::vector<ScoreWork> work = scorework(likelihood);
  std::vector<UnitLikelihood> units(at(data.units3));
  Halt halt(givingup(data.source));
  const bool whole =
      overunits(data.source, likelihood.settings.engine.threads, halt, [&](const Level3Records& unit, int worker) {
        units[at(unit.k)] = unitlikelihood(data, parameters, likelihood.modes, unit, work[at(worker)]);
      });
  if (!whole) {
    likelihood.failure = EngineFailure::data;
    return there;
  }
  double records = 0.0, corrections = 0.0;
  for (const UnitLikelihood& unit : units) {
    if (!(1.0 - unit.S > 0.0)) return there;
    records += unit.loglik;
    corrections += std::log(1.0 - unit.S);
  }
  there.value = -0.5 * (data.units3 * inverses.logTb + static_cast<double>(data.units2) * inverses.logTp + modes.logH2 +
                        modes.logH3 - 2.0 * records + modes.uKu + modes.vKv - 2.0 * corrections) -
                0.5 * static_cast<double>(data.records) * logtwopi;
  there.usable = std::isfinite(there.value);
  return there;
}

Evaluation laplacescore(LaplaceLikelihood& likelihood, const Array<double>& point) {
  TauInverses inverses;
  ModeSums modes;
  const Parameters parameters = parametersat(likelihood, point);
  if (!findmodes(likelihood, parameters, Kind::scoresweep, inverses, modes)) return {};
  likelihood.u = likelihood.modes.u.copy();
  likelihood.v = likelihood.modes.v.copy();
  return walkscores(likelihood, parameters, inverses);
}

RidgedProblem laplaceproblem(LaplaceLikelihood& likelihood) {
  RidgedProblem problem;
  problem.evaluate = [&likelihood](const Array<double>& point) { return laplacescore(likelihood, point); };
  problem.test = [&likelihood](const Array<double>& point) { return laplacevalue(likelihood, point); };
  problem.inside = [&likelihood](const Array<double>& point) {
    const Parameters parameters = parametersat(likelihood, point);
    return usablecovariance(parameters.taupi.data(), parameters.q) &&
           usablecovariance(parameters.taubeta.data(), parameters.r);
  };
  problem.accepted = [&likelihood] {
    likelihood.u = likelihood.modes.u.copy();
    likelihood.v = likelihood.modes.v.copy();
  };
  // Estimates that a raised ridge holds back have not settled.
  problem.settled = [&likelihood](const RidgedAscent& ascent) {
    return !ascent.raised && macrotest(parametersat(likelihood, ascent.now), parametersat(likelihood, ascent.before),
                                       likelihood.settings.stopmacro);
  };
  problem.stop = [&likelihood] {
    asktostop(likelihood);
    return likelihood.stopped;
  };
  problem.abandoned = [&likelihood] { return likelihood.failure == EngineFailure::data; };
  problem.tell = [&likelihood](AscentEvent event, const RidgedAscent& ascent) {
    tellstep(likelihood.settings.engine, event, ascent);
  };
  return problem;
}

namespace {

EngineFailure failureof(AscentEnd end, const LaplaceLikelihood& likelihood) {
  switch (end) {
    case AscentEnd::nostep:
      return EngineFailure::nostep;
    case AscentEnd::notdefinite:
      return EngineFailure::notdefinite;
    case AscentEnd::unusable:
      return likelihood.failure;
    default:
      return EngineFailure::none;
  }
}

void takeestimates(const RidgedAscent& ascent, LaplaceLikelihood& likelihood, LaplaceResult& result) {
  EngineResult& fit = result.fit;
  fit.end = EngineEnd::estimated;
  fit.estimates = parametersat(likelihood, ascent.now);
  fit.iteration = result.finalcall ? ascent.iterations + 1 : ascent.iterations;
  fit.loglik = ascent.value;
  // The printed likelihood is lower than the marginal one by this constant.
  fit.marginal = fit.loglik + 0.5 * static_cast<double>(likelihood.data.records) * std::log(2.0 * M_PI);
  fit.covariance = ascent.inverse.copy();
  takecovariance(fit);
  if (!fit.converged)
    fit.warnings.emplace_back("WARNING: the iterations of Laplace-6 ended before they had converged.");
  result.rel2 = std::move(likelihood.rel2);
  result.rel3 = std::move(likelihood.rel3);
  result.nrel2 = likelihood.nrel2;
  result.nrel3 = likelihood.nrel3;
}

// The inverse of the information without a ridge, at the estimates.
EngineFailure finalinverse(RidgedAscent& ascent, const LaplaceLikelihood& likelihood) {
  ascent.at = ascent.problem.evaluate(ascent.now);
  if (!ascent.at.usable) return likelihood.failure;
  return invertinformation(ascent.at.information, ascent.policy.inverse, ascent.inverse) ? EngineFailure::none
                                                                                         : EngineFailure::notdefinite;
}

}  // namespace

LaplaceResult runlaplace(const EngineData& data, const LaplaceSettings& settings, const Parameters& start,
                         const Array<double>& u, const Array<double>& v, double quasilikelihood) {
  LaplaceResult result;
  EngineResult& fit = result.fit;
  LaplaceLikelihood likelihood = laplacelikelihood(data, settings, start, u, v);
  const RidgedProblem problem = laplaceproblem(likelihood);
  RidgedAscent ascent{settings.ascent, problem, elementsof(start), quasilikelihood};
  tell(settings.engine, {Kind::begun});
  const AscentEnd end = climb(ascent, settings.engine.iterations);
  fit.converged = end == AscentEnd::converged;
  fit.stopped = likelihood.stopped;
  fit.failure = failureof(end, likelihood);
  if (end == AscentEnd::notdefinite) tell(settings.engine, {Kind::problem, 0, 0.0, EngineFailure::notdefinite});
  if (end == AscentEnd::limit && ascent.iterations > 0) tell(settings.engine, {Kind::limit});
  result.finalcall = fit.failure == EngineFailure::none && ascent.ridge.value > 0.0;
  if (result.finalcall) fit.failure = finalinverse(ascent, likelihood);
  if (fit.failure == EngineFailure::none && ascent.iterations > 0) {
    takeestimates(ascent, likelihood, result);
  } else {
    fit.end = fit.failure == EngineFailure::none ? EngineEnd::noiterations : EngineEnd::failed;
    fit.estimates = start.copy();
    fit.loglik = quasilikelihood;
    fit.converged = false;
  }
  result.u = std::move(likelihood.u);
  result.v = std::move(likelihood.v);
  return result;
}

}  // namespace kdr
