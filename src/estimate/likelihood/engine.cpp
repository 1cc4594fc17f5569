#include "estimate/likelihood/engine.h"

#include "kernel/sizes.h"

namespace kdr {

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
  result.setaupi = standarderrors(V, P, 0, estimates.q);
  result.setaubeta = standarderrors(V, P, n2, estimates.r);
}

}  // namespace kdr
