#include "estimate/laplace/laplacemodes.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/quasi/family.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// What a level-3 unit leaves behind in a sweep.
struct UnitSweep {
  int changed2 = 0, changed3 = 0;
  EngineFailure failure = EngineFailure::none;
  ModeSums sums;
};

// Work space of one thread, made for the orders q and r.
struct SweepWork {
  Array<double> theta, coefficients, x;
  Array<double> Sxx, Sxr;               // sum_i w_i x_i x_i', sum_i x_i r_i over the random columns
  Array<double> Sdd, Sed, See, tu, tv;  // q squared, r by q, r squared, [q], [r]
  Array<double> fresh, g;               // [max(q, r)], [r]
};

void makework(const EngineData& data, int q, int r, const RandomColumns& columns, SweepWork& work) {
  work.theta.reset(at(data.nbeta));
  work.coefficients.reset(at(data.npi));
  work.Sxx.reset(square(columns.count));
  work.Sxr.reset(at(columns.count));
  work.Sdd.reset(square(q));
  work.Sed.reset(at(r) * at(q));
  work.See.reset(square(r));
  work.tu.reset(at(q));
  work.tv.reset(at(r));
  work.fresh.reset(at(std::max(q, r)));
  work.g.reset(at(r));
}

// Sxx (lower triangle) = sum_i w_i x_i x_i' and Sxr = sum_i x_i r_i over n records. Count is the number of random
// columns, or 0 when it is only known at run time.
template <int Count>
void moments(std::size_t n, int npi, const double* xall, int count, const double* x, const double* y,
             const double* coefficients, double* Sxx, double* Sxr) {
  const int c = Count > 0 ? Count : count;
  std::fill_n(Sxx, c * c, 0.0);
  std::fill_n(Sxr, c, 0.0);
  for (std::size_t i = 0; i < n; ++i, xall += npi, x += c) {
    double eta = 0.0;
    for (int a = 0; a < npi; ++a) eta += xall[a] * coefficients[a];
    const LogitMean mean = logitmean(eta);
    const double residual = y[i] - mean.mu;
    for (int a = 0; a < c; ++a) {
      Sxr[a] += residual * x[a];
      const double wx = mean.variance * x[a];
      for (int b = 0; b <= a; ++b) Sxx[a * c + b] += wx * x[b];
    }
  }
}

auto momentsof(int count) {
  switch (count) {
    case 1:
      return moments<1>;
    case 2:
      return moments<2>;
    case 3:
      return moments<3>;
    case 4:
      return moments<4>;
    default:
      return moments<0>;
  }
}

// inverse := matrix^-1, order n. False when it is not to be had; otherwise logdet += log |matrix|.
bool invert(int n, const double* matrix, double* inverse, double& logdet) {
  const Inversion inversion = invertsymmetric(n, matrix, inverse);
  if (inversion.result != 0 || !(inversion.determinant > 0.0) || !std::isfinite(inversion.determinant)) return false;
  logdet += inversion.logdeterminant();
  return true;
}

double quadratic(int n, const double* K, const double* x) {
  double sum = 0.0;
  for (int a = 0; a < n; ++a)
    for (int b = 0; b < n; ++b) sum += x[a] * K[a * n + b] * x[b];
  return sum;
}

// Puts `fresh` into `mode` and returns how many elements have changed too much.
int replace(int n, const double* fresh, double* mode, double stop) {
  int changed = 0;
  for (int a = 0; a < n; ++a) {
    changed += mode[a] != 0.0 && !(std::fabs((fresh[a] - mode[a]) / mode[a]) <= stop);
    mode[a] = fresh[a];
  }
  return changed;
}

// The blocks of e and d from the moments of the random columns.
void blocks(const RandomColumns& columns, int q, int r, const double* w2, SweepWork& work) {
  const int c = columns.count;
  const auto moment = [&](int a, int b) { return work.Sxx[at(a >= b ? a * c + b : b * c + a)]; };
  const int* d = columns.d.data();
  const int* e = columns.e.data();
  for (int a = 0; a < q; ++a)
    for (int b = 0; b < q; ++b) work.Sdd[at(a * q + b)] = moment(d[a], d[b]);
  for (int m = 0; m < r; ++m) {
    for (int a = 0; a < q; ++a) work.Sed[at(m * q + a)] = w2[m] * moment(e[m], d[a]);
    for (int l = 0; l < r; ++l) work.See[at(m * r + l)] = w2[m] * w2[l] * moment(e[m], e[l]);
  }
}

// With t_i = r_i + w_i (d_i' u + e_i' v):  tu = sum_i d_i (r_i + w_i d_i' u),  tv = sum_i e_i t_i.
void rightsides(const RandomColumns& columns, int q, int r, const double* w2, const double* u, const double* v,
                SweepWork& work) {
  for (int a = 0; a < q; ++a) {
    double t = work.Sxr[at(columns.d[at(a)])];
    for (int b = 0; b < q; ++b) t += work.Sdd[at(a * q + b)] * u[b];
    work.tu[at(a)] = t;
  }
  for (int m = 0; m < r; ++m) {
    double t = w2[m] * work.Sxr[at(columns.e[at(m)])];
    for (int l = 0; l < r; ++l) t += work.See[at(m * r + l)] * v[l];
    for (int a = 0; a < q; ++a) t += work.Sed[at(m * q + a)] * u[a];
    work.tv[at(m)] = t;
  }
}

// C2 = (Sdd + taupi^-1)^-1 and u := C2 tu; Sdd becomes the inverse of C2. False when there is no C2.
bool moveunit(int q, const TauInverses& inverses, double stop, double* C2, double* u, SweepWork& work, UnitSweep& out) {
  for (std::size_t i = 0; i < square(q); ++i) work.Sdd[i] += inverses.Kp[i];
  if (!invert(q, work.Sdd.data(), C2, out.sums.logH2)) return false;
  mulAB(work.fresh.data(), C2, work.tu.data(), q, 1, q);
  out.changed2 += replace(q, work.fresh.data(), u, stop);
  out.sums.uKu += quadratic(q, inverses.Kp.data(), u);
  return true;
}

// What the unit leaves to level 3: with Q = Sed C2,  H3 += See - Q Sed',  g += tv - Q sum_i d_i t_i, the sum made of
// tu, which becomes it.
void addtolevel3(int q, int r, const double* C2, const double* v, double* Q, double* H3, SweepWork& work) {
  mulAB(Q, work.Sed.data(), C2, r, q, q);
  for (std::size_t i = 0; i < square(r); ++i) H3[i] += work.See[i];
  subABt(H3, Q, work.Sed.data(), r, r, q);
  addAtB(work.tu.data(), work.Sed.data(), v, q, 1, r);
  for (int m = 0; m < r; ++m) work.g[at(m)] += work.tv[at(m)];
  subAB(work.g.data(), Q, work.tu.data(), r, 1, q);
}

// One sweep: new modes u of the level-2 units, each at the v that is there, then v of the unit itself.
void sweepunit(const EngineData& data, const LaplaceSettings& settings, const Parameters& parameters,
               const TauInverses& inverses, const RandomColumns& columns, const Level3Records& unit, SweepWork& work,
               LaplaceModes& modes, UnitSweep& out) {
  const int q = parameters.q, r = parameters.r;
  out = UnitSweep{};
  double* v = modes.v.data() + at(unit.k) * at(r);
  double* H3 = modes.H3.data() + at(unit.k) * square(r);
  double* C3 = modes.C3.data() + at(unit.k) * square(r);
  std::copy_n(inverses.Kb.data(), square(r), H3);
  work.g.fill(0.0);
  level2means(*data.design, unit.w3.data(), parameters.gamma.data(), work.theta.data());
  const double* x = randompart(data, unit, columns, work.x);
  const auto sums = momentsof(columns.count);

  for (int j = 0; j < unit.units; ++j) {
    const std::size_t place = unit.firstunit + at(j), first = unit.start[at(j)];
    double* u = modes.u.data() + place * at(q);
    double* C2 = modes.C2.data() + place * square(q);
    double* Q = modes.Q.data() + place * at(r) * at(q);
    const double* w2 = unit.w2.data() + at(j) * at(data.nbeta);
    level1coefficients(data, unit, j, work.theta.data(), v, r, u, q, work.coefficients.data());
    sums(unit.start[at(j) + 1] - first, data.npi, unit.x.data() + first * at(data.npi), columns.count,
         x + first * at(columns.count), unit.y.data() + first, work.coefficients.data(), work.Sxx.data(),
         work.Sxr.data());
    blocks(columns, q, r, w2, work);
    rightsides(columns, q, r, w2, u, v, work);
    if (!moveunit(q, inverses, settings.stopmodes, C2, u, work, out)) {
      out.failure = EngineFailure::centre2;
      return;
    }
    addtolevel3(q, r, C2, v, Q, H3, work);
  }
  if (!invert(r, H3, C3, out.sums.logH3)) {
    out.failure = EngineFailure::centre3;
    return;
  }
  mulAB(work.fresh.data(), C3, work.g.data(), r, 1, r);
  out.changed3 = replace(r, work.fresh.data(), v, settings.stopmodes);
  out.sums.vKv = quadratic(r, inverses.Kb.data(), v);
}

}  // namespace

void startmodes(const EngineData& data, int q, int r, const Array<double>& u, const Array<double>& v,
                LaplaceModes& modes) {
  modes.u = u.copy();
  modes.v = v.copy();
  modes.C2.reset(data.units2 * square(q));
  modes.Q.reset(data.units2 * at(r) * at(q));
  modes.H3.reset(at(data.units3) * square(r));
  modes.C3.reset(at(data.units3) * square(r));
}

bool invertaus(const Parameters& parameters, TauInverses& inverses) {
  inverses.Kp.reset(square(parameters.q));
  inverses.Kb.reset(square(parameters.r));
  inverses.logTp = inverses.logTb = 0.0;
  return invert(parameters.q, parameters.taupi.data(), inverses.Kp.data(), inverses.logTp) &&
         invert(parameters.r, parameters.taubeta.data(), inverses.Kb.data(), inverses.logTb);
}

RandomColumns randomcolumns(const EngineData& data, int q, int r) {
  const Design& design = *data.design;
  RandomColumns columns;
  Array<int> place(at(data.npi));
  for (int m = 0; m < r; ++m) place[at(design.owner2[at(m)])] = 1;
  for (int a = 0; a < q; ++a) place[at(design.random1[at(a)])] = 1;
  columns.columns.reset(at(data.npi));
  for (int c = 0; c < data.npi; ++c)
    if (place[at(c)] != 0) {
      place[at(c)] = columns.count;
      columns.columns[at(columns.count++)] = c;
    }
  columns.all = columns.count == data.npi;
  columns.e.reset(at(r));
  columns.d.reset(at(q));
  for (int m = 0; m < r; ++m) columns.e[at(m)] = place[at(design.owner2[at(m)])];
  for (int a = 0; a < q; ++a) columns.d[at(a)] = place[at(design.random1[at(a)])];
  return columns;
}

void level1coefficients(const EngineData& data, const Level3Records& unit, int j, const double* theta, const double* v,
                        int r, const double* u, int q, double* coefficients) {
  const Design& design = *data.design;
  const double* w2 = unit.w2.data() + at(j) * at(data.nbeta);
  std::fill_n(coefficients, data.npi, 0.0);
  for (int m = 0; m < data.nbeta; ++m)
    coefficients[design.owner2[at(m)]] += w2[m] * (m < r ? theta[m] + v[m] : theta[m]);
  for (int a = 0; a < q; ++a) coefficients[design.random1[at(a)]] += u[a];
}

const double* randompart(const EngineData& data, const Level3Records& unit, const RandomColumns& columns,
                         Array<double>& room) {
  if (columns.all) return unit.x.data();
  const std::size_t records = unit.y.size(), width = at(columns.count);
  if (room.size() < records * width) room.reset(records * width);
  const double* x = unit.x.data();
  double* to = room.data();
  for (std::size_t i = 0; i < records; ++i, x += data.npi)
    for (std::size_t c = 0; c < width; ++c) *to++ = x[columns.columns[c]];
  return room.data();
}

EngineFailure findmodes(const EngineData& data, const LaplaceSettings& settings, const Parameters& parameters,
                        const TauInverses& inverses, EngineEvent::Kind sweep, LaplaceModes& modes, ModeSums& sums) {
  const auto fail = [&](EngineFailure failure) {
    tell(settings.engine, {EngineEvent::Kind::problem, settings.maxsweeps, 0.0, failure});
    return failure;
  };
  const RandomColumns columns = randomcolumns(data, parameters.q, parameters.r);
  std::vector<SweepWork> work(at(std::max(settings.engine.threads, 1)));
  for (SweepWork& one : work) makework(data, parameters.q, parameters.r, columns, one);
  std::vector<UnitSweep> units(at(data.units3));

  bool settled2 = false, settled3 = false;
  for (int number = 0; number < settings.maxsweeps; ++number) {
    if (number > 0) tell(settings.engine, {sweep});
    Halt halt(givingup(data.source));
    const bool whole =
        overunits(data.source, settings.engine.threads, halt, [&](const Level3Records& unit, int worker) {
          sweepunit(data, settings, parameters, inverses, columns, unit, work[at(worker)], modes, units[at(unit.k)]);
        });
    if (!whole) return EngineFailure::data;
    int changed2 = 0, changed3 = 0;
    sums = ModeSums{};
    for (const UnitSweep& unit : units) {
      if (unit.failure != EngineFailure::none) return fail(unit.failure);
      changed2 += unit.changed2;
      changed3 += unit.changed3;
      sums.logH2 += unit.sums.logH2;
      sums.logH3 += unit.sums.logH3;
      sums.uKu += unit.sums.uKu;
      sums.vKv += unit.sums.vKv;
    }
    settled2 = settled2 || changed2 == 0;
    settled3 = settled3 || changed3 == 0;
    if (settled2 && settled3) return EngineFailure::none;
  }
  return fail(EngineFailure::unsettled);
}

}  // namespace kdr
