#include "estimate/linear/unitsums.h"

#include <algorithm>

#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

std::size_t loopwork(int p, int b, int nb) {
  const std::size_t pp = square(p), bp = at(b) * at(p);
  const std::size_t visits =
      2 * packedsize(p) + 2 * at(p) + 2 * at(nb) * at(p) + packedsize(nb) + at(nb) + packedsize(b * p);
  const std::size_t scoring = 7 * pp + 2 * bp + pp * pp;
  return loopstep * std::max(visits, scoring) + loopstep;  // and what its alignment may pass over
}

const UnitLoops& unitloops() {
#if defined(__x86_64__)
  static const UnitLoops& fastest = __builtin_cpu_supports("avx2") ? avx2::loops : baseline::loops;
  return fastest;
#else
  return baseline::loops;
#endif
}

UnitRecords unitrecords(const UnitStore& store, double* hot, int units, int b, Array<double>& work) {
  return {hot, store.hot.stride(), store.atZ1Y, store.atBZ1, store.atCinv, store.atustar, units, store.p,
          b,   store.nb,           work.data()};
}

bool sumunits(const UnitRecords& records, const double* Spacked, Level2Sums& sums) {
  for (Array<double>* m : {&sums.HB, &sums.HY, &sums.RR, &sums.Cinv}) m->fill(0.0);
  FirstVisit visit{Spacked, sums.HB.data(), sums.HY.data(), sums.RR.data(), sums.Cinv.data(), 0.0, 0.0};
  if (!unitloops().first(records, visit)) return false;
  mirror(records.nb, sums.HB.data());
  mirror(records.b * records.p, sums.RR.data());
  mirror(records.p, sums.Cinv.data());
  sums.YCY = visit.YCY;
  sums.logdetCinv = -visit.logdetC;
  return true;
}

double meanunits(const UnitRecords& records, const double* thetastar, bool keep, double* UU) {
  std::fill_n(UU, square(records.p), 0.0);
  const double ua = unitloops().means(records, thetastar, keep, UU);
  mirror(records.p, UU);
  return ua;
}

}  // namespace kdr
