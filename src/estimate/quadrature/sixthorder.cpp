#include "estimate/quadrature/sixthorder.h"

#include <algorithm>
#include <cmath>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/quadrature/posteriormoments.h"
#include "estimate/quasi/family.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

constexpr double pairweight = 5.0 / 24.0;

double quadraticform(std::size_t n, const double* M, const double* x) {
  double sum = 0.0;
  for (std::size_t a = 0; a < n; ++a) sum += x[a] * dot(M + a * n, x, n);
  return sum;
}

// M += factor x x'.
void addouter(std::size_t n, double factor, const double* x, double* M) {
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t b = 0; b < n; ++b) M[a * n + b] += factor * x[a] * x[b];
}

// One level-3 unit.
struct Expansion {
  const Frame& frame;
  const Level3Records& records;
  const double *z, *w;
  const ModeWork& work;
  const CurvatureRows& rows;
  SixthOrder& sixth;
  std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), units = at(records.units);
  int op = frame.npi, oq = frame.q, orr = frame.r;
  double S = 0.0;
  // W: sum_j L_j'N_j L_j, less that of unit j; then C3 times it times C3.
  Array<double> omega{npi}, h{npi}, LN{npi * r}, W{r * r}, others{r * r};

  [[nodiscard]] const double* x(std::size_t i) const { return sixth.x.data() + i * npi; }
  [[nodiscard]] LogitCumulants cumulants(std::size_t i) const { return logitcumulants(sixth.mu[i], sixth.k2[i]); }

  void predict(std::size_t j);
  void moments(std::size_t j);
  void weights(std::size_t j, double D);
  void columns(std::size_t j, double D, const double* AN, const double* LV, const double* left, std::size_t n,
               const double* right, double* U);
};

// x~, mean and variance of the records of unit j, which stand by columns in `work`.
void Expansion::predict(std::size_t j) {
  const std::size_t stride = work.first[j + 1] - work.first[j], s = q + r;
  const double *columns = work.xcolumns.data() + work.first[j] * npi, *C = work.columns.data() + j * npi * s;
  for (std::size_t m = 0; m < npi; ++m)
    h[m] = work.fixed[j * npi + m] + dot(C + m * s, z + j * q, q) + dot(C + m * s + q, w, r);
  for (std::size_t i = records.start[j], place = 0; i < records.start[j + 1]; ++i, ++place) {
    double* row = sixth.x.data() + i * npi;
    for (std::size_t m = 0; m < npi; ++m) row[m] = columns[m * stride + place];
    const LogitMean mean = logitmean(dot(row, h.data(), npi));
    sixth.k2[i] = mean.variance;
    sixth.mu[i] = mean.mu;
  }
}

// a_i, b_i = x~_i'A omega, S, N without its factor D, and W.
void Expansion::moments(std::size_t j) {
  predict(j);
  const double* A = rows.form.data() + j * npi * npi;
  double* N = sixth.N.data() + j * npi * npi;
  omega.fill(0.0);
  for (std::size_t i = records.start[j]; i < records.start[j + 1]; ++i) {
    const LogitCumulants k = cumulants(i);
    const double a = quadraticform(npi, A, x(i));
    sixth.a[i] = a;
    S += a * a * (k.k4 / 8.0 + k.k6 * a / 48.0);
    for (std::size_t m = 0; m < npi; ++m) omega[m] += k.k3 * a * x(i)[m];
  }
  mulAB(h.data(), A, omega.data(), op, 1, op);
  S -= pairweight * dot(omega.data(), h.data(), npi);
  std::fill_n(N, npi * npi, 0.0);
  addouter(npi, pairweight, omega.data(), N);
  for (std::size_t i = records.start[j]; i < records.start[j + 1]; ++i) {
    const LogitCumulants k = cumulants(i);
    const double a = sixth.a[i], b = dot(x(i), h.data(), npi);
    sixth.b[i] = b;
    addouter(npi, 2.0 * pairweight * k.k3 * b - a * (k.k4 / 4.0 + k.k6 * a / 16.0), x(i), N);
  }
  const double* L = rows.L.data() + j * npi * r;
  mulAB(LN.data(), N, L, op, orr, op);
  addAtB(W.data(), L, LN.data(), orr, orr, op);
}

// U = 2 D (A N left + LV right'), left (npi by n), right (n by r).
void Expansion::columns(std::size_t j, double D, const double* AN, const double* LV, const double* left, std::size_t n,
                        const double* right, double* U) {
  const int order = static_cast<int>(n);
  double* to = U + j * npi * n;
  mulAB(to, AN, left, op, order, op);
  addABt(to, LV, right, op, order, orr);
  for (std::size_t i = 0; i < npi * n; ++i) to[i] *= 2.0 * D;
}

// With V = W - L'N L of unit j: the derivatives c_i by eta, U2 and U3, and N with its factor.
void Expansion::weights(std::size_t j, double D) {
  const double *A = rows.form.data() + j * npi * npi, *L = rows.L.data() + j * npi * r;
  const double* left3 = rows.left3.data() + j * npi * r;  // L C3
  double* N = sixth.N.data() + j * npi * npi;
  fit(sixth.room, 2 * npi * npi + npi * r);
  double *AN = sixth.room.data(), *Q = AN + npi * npi, *LV = Q + npi * npi;
  double* byeta = sixth.byeta.data() + j * npi;
  std::fill_n(byeta, npi, 0.0);
  mulAB(LN.data(), N, L, op, orr, op);
  mulAtB(others.data(), L, LN.data(), orr, orr, op);
  for (std::size_t i = 0; i < r * r; ++i) others[i] = W[i] - others[i];
  mulAB(LV, left3, others.data(), op, orr, orr);
  mulAB(AN, A, N, op, op, op);
  mulAB(Q, AN, A, op, op, op);
  addABt(Q, LV, left3, op, op, orr);
  for (std::size_t i = records.start[j]; i < records.start[j + 1]; ++i) {
    const LogitCumulants k = cumulants(i);
    const double a = sixth.a[i];
    const double c = -a * a * (k.k5 / 8.0 + k.k7 * a / 48.0) + 2.0 * pairweight * k.k4 * a * sixth.b[i] -
                     k.k3 * quadraticform(npi, Q, x(i));
    for (std::size_t m = 0; m < npi; ++m) byeta[m] += D * c * x(i)[m];
  }
  // H^-1 V_m' for another unit m is C3 L_m' at w and slope_j C3 L_m' at z_j.
  Array<double> right(q * r);
  mulAB(right.data(), work.sweep.slope.data() + j * q * r, work.sweep.C3.data(), oq, orr, orr);
  columns(j, D, AN, LV, rows.left2.data() + j * npi * q, q, right.data(), sixth.U2.data());
  columns(j, D, AN, LV, left3, r, work.sweep.C3.data(), sixth.U3.data());
  for (std::size_t i = 0; i < npi * npi; ++i) N[i] *= D;
}

}  // namespace

void makecurvaturerows(const Frame& frame, const SphericalPoint& point, std::size_t units, const ModeWork& work,
                       CurvatureRows& rows) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r);
  const int op = frame.npi, oq = frame.q, orr = frame.r;
  fit(rows.cD, npi * q);
  for (Array<double>* array : {&rows.E, &rows.L, &rows.left3}) fit(*array, units * npi * r);
  fit(rows.left2, units * npi * q);
  fit(rows.form, units * npi * npi);
  Array<double> Dc(npi * q), Ls(npi * q);
  const double *cD = rows.cD.data(), *C3 = work.sweep.C3.data();
  mulAB(rows.cD.data(), frame.Sd.data(), point.A.data(), op, oq, oq);
  for (std::size_t j = 0; j < units; ++j) {
    double *E = rows.E.data() + j * npi * r, *L = rows.L.data() + j * npi * r, *left3 = rows.left3.data() + j * npi * r,
           *left2 = rows.left2.data() + j * npi * q, *form = rows.form.data() + j * npi * npi;
    const double* slope = work.sweep.slope.data() + j * q * r;
    mulAB(E, work.frames.Se.data() + j * npi * r, point.B.data(), op, orr, orr);
    std::copy_n(E, npi * r, L);
    addAB(L, cD, slope, op, orr, oq);
    mulAB(left3, L, C3, op, orr, orr);
    mulAB(left2, cD, work.sweep.C2.data() + j * q * q, op, oq, oq);
    mulABt(form, left2, cD, op, op, oq);
    addABt(form, left3, L, op, op, orr);
    addABt(left2, left3, slope, op, oq, orr);
  }
}

bool makesixthorder(const Frame& frame, const Level3Records& records, const double* z, const double* w,
                    const ModeWork& work, const CurvatureRows& rows, SixthOrder& sixth) {
  const std::size_t npi = at(frame.npi), units = at(records.units), total = records.start[units];
  for (Array<double>* array : {&sixth.mu, &sixth.k2, &sixth.a, &sixth.b}) fit(*array, total);
  fit(sixth.x, total * npi);
  fit(sixth.byeta, units * npi);
  fit(sixth.N, units * npi * npi);
  fit(sixth.U2, units * npi * at(frame.q));
  fit(sixth.U3, units * npi * at(frame.r));
  Expansion expansion{frame, records, z, w, work, rows, sixth};
  for (std::size_t j = 0; j < units; ++j) expansion.moments(j);
  if (!(1.0 - expansion.S > 0.0)) return false;
  sixth.share = std::log1p(-expansion.S);
  for (std::size_t j = 0; j < units; ++j) expansion.weights(j, 1.0 / (1.0 - expansion.S));
  return true;
}

LaplaceFindings laplacefindings(SphericalLikelihood& likelihood) {
  const Frame& frame = likelihood.frame;
  const SphericalState& state = likelihood.current;
  const std::size_t q = at(frame.q), r = at(frame.r), width = q + r + 2;
  const int oq = frame.q, orr = frame.r;
  const SphericalPoint there = sphericalpoint(frame, state.point);
  const Parameters parameters = parametersof(frame, state.point);
  LaplaceFindings findings;
  findings.u.reset(frame.units2() * q);
  findings.v.reset(frame.units3() * r);
  Array<double> toU(q * q), toV(r * r), sums(frame.units3() * width);
  mulAB(toU.data(), frame.toD.data(), there.A.data(), oq, oq, oq);
  mulAB(toV.data(), frame.toE.data(), there.B.data(), orr, orr, orr);
  Halt halt(givingup(*likelihood.source));
  static_cast<void>(
      overunits(*likelihood.source, likelihood.threads, halt, [&](const Level3Records& records, int worker) {
        ModeWork& work = likelihood.modework[at(worker)];
        const std::size_t k = at(records.k), first = records.firstunit, units = at(records.units);
        double *z = likelihood.trial.nodes.z.data() + first * q, *w = likelihood.trial.nodes.w.data() + k * r;
        std::copy_n(state.nodes.z.data() + first * q, units * q, z);
        std::copy_n(state.nodes.w.data() + k * r, r, w);
        double* sum = sums.data() + k * width;
        if (jointmodes(frame, there, records, exactmodes, z, w, work))
          addreliabilities(frame, there, work.frames, units, nullptr, work.M.data(), work.sweep.C2,
                           {oq, frame.toD, parameters.taupi, sum, sum + q + r},
                           {orr, frame.toE, parameters.taubeta, sum + q, sum + q + r + 1});
        for (std::size_t j = 0; j < units; ++j)
          mulAB(findings.u.data() + (first + j) * q, toU.data(), z + j * q, oq, 1, oq);
        mulAB(findings.v.data() + k * r, toV.data(), w, orr, 1, orr);
      }));
  findings.reliabilities = meanreliabilities(frame, sums);
  for (const double change : state.shares) findings.largest = std::max(findings.largest, std::fabs(change));
  return findings;
}

}  // namespace kdr
