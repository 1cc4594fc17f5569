#include "estimate/likelihood/engine.h"

#include "estimate/inference/teststatistics.h"
#include "kernel/sizes.h"

namespace kdr {

const char* problemwords(Engine engine, EngineFailure failure) {
  const bool laplace = engine == Engine::laplace6;
  switch (failure) {
    case EngineFailure::toomanyeffects:
      return laplace ? "" : "There are too many random effects for AGQ!";
    case EngineFailure::nodes:
      return laplace ? "" : "Too many iterations in gauher!";
    case EngineFailure::centre3:
      return laplace ? "Cannot compute Laplace6 V22" : "Unable to compute AGQ T(hat)(beta)";
    case EngineFailure::centre2:
      return laplace ? "Cannot compute Laplace6 inv[C]" : "Unable to compute AGQ T(hat)(pi)";
    case EngineFailure::notdefinite:
      return laplace ? "Unable to invert H in Laplace" : "Unable to compute adaptive Gaussian Hessian";
    case EngineFailure::nostep:
      return laplace ? "" : "Unable to compute adaptive Gaussian Tau";
    default:
      return "";
  }
}

void tellstep(const EngineSettings& settings, AscentEvent event, const RidgedAscent& ascent) {
  using Kind = EngineEvent::Kind;
  switch (event) {
    case AscentEvent::ridgeraised:
      return tell(settings, {Kind::ridgeraised});
    case AscentEvent::ridgelowered:
      return tell(settings, {Kind::ridgelowered});
    case AscentEvent::stephalved:
      return tell(settings, {Kind::stephalved});
    case AscentEvent::fallen:
      return tell(settings, {Kind::fallen});
    case AscentEvent::stepped:
      return tell(settings, {Kind::iteration, ascent.iterations, ascent.value});
  }
}

void takecovariance(EngineResult& result) {
  const Parameters& estimates = result.estimates;
  const std::size_t P = estimates.count(), n2 = estimates.ntaupi(), n3 = estimates.ntaubeta();
  const double* V = result.covariance.data();
  result.taucovariance = diagonalblock(V, P, 0, n2 + n3);
  result.vgamma = diagonalblock(V, P, n2 + n3, at(estimates.g));
  result.setaupi = standarderrors(result.covariance, static_cast<int>(P), 0, estimates.q);
  result.setaubeta = standarderrors(result.covariance, static_cast<int>(P), n2, estimates.r);
  if (result.robust.empty()) return;
  result.robustpi = standarderrors(result.robust, static_cast<int>(P), 0, estimates.q);
  result.robustbeta = standarderrors(result.robust, static_cast<int>(P), n2, estimates.r);
}

}  // namespace kdr
