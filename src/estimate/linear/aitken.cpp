#include "estimate/linear/aitken.h"

namespace kdr {

namespace {

// One tau matrix and its history.
struct Series {
  double* x;
  const double* x1;
  const double* x2;
  int n;
  bool diagonal;  // only the diagonal takes part

  // Calls take(i, j, at) for each element that takes part.
  template <class Take>
  void each(Take take) const {
    for (int i = 0; i < n; ++i)
      for (int j = diagonal ? i : 0; j <= i; ++j) take(i, j, static_cast<std::ptrdiff_t>(i) * n + j);
  }
};

// An element that is 0 or stands still, as a fixed one does, has no ratio of changes.
bool takespart(const Series& s, std::ptrdiff_t at) { return (s.diagonal || s.x1[at] != 0.0) && s.x1[at] != s.x2[at]; }

}  // namespace

bool aitkenstep(Pass& pass, double& ratio, const TauHistory& history) {
  const Series series[] = {
      {pass.est.taupi.data(), history.T1.data(), history.T2.data(), pass.p, pass.model().restrictions.diagtaupi},
      {pass.est.taubeta.data(), history.L1.data(), history.L2.data(), pass.b, pass.model().restrictions.diagtaubeta}};
  int count = ratio != 0.0 ? 1 : 0;
  for (const Series& s : series)
    s.each([&](int, int, std::ptrdiff_t at) {
      if (!takespart(s, at)) return;
      ++count;
      ratio += (s.x[at] - s.x1[at]) / (s.x1[at] - s.x2[at]);
    });
  if (count == 0) return false;
  ratio /= count;
  constexpr double least = 0.01, most = 0.985;
  if (!(least < ratio && ratio <= most)) return false;
  for (const Series& s : series)
    s.each([&](int i, int j, std::ptrdiff_t at) {
      if (!takespart(s, at)) return;
      const double value = s.x1[at] + (s.x[at] - s.x1[at]) / (1.0 - ratio);
      s.x[at] = s.x[static_cast<std::ptrdiff_t>(j) * s.n + i] = value;
    });
  return true;
}

}  // namespace kdr
