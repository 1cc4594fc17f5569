#include "estimate/quasi/family.h"

#include <algorithm>

namespace kdr {

Linked linkedfitted(Link link, double fitted) {
  if (link == Link::logit) {
    const double mu = std::clamp(fitted, 0.01, 0.99);
    return {std::log(mu / (1.0 - mu)), mu, mu * (1.0 - mu)};
  }
  const double mu = fitted > 0.001 ? fitted : 0.001;
  return {std::log(mu), mu, mu};
}

Linked linkedcapped(double eta, double cap) {
  const Linked record = linked(Link::log, eta);
  return record.mu > cap ? Linked{std::log(cap), cap, cap} : record;
}

}  // namespace kdr
