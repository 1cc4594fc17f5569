#include "estimate/quadrature/sixthorder.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/usable.h"
#include "estimate/quasi/family.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

constexpr double pairweight = 5.0 / 24.0;

void fit(Array<double>& array, std::size_t n) {
  if (array.size() < n) array.reset(n);
}

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
  const ModeWork& work;
  const CurvatureRows& rows;
  SixthOrder& sixth;
  std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), units = at(records.units);
  int op = frame.npi, oq = frame.q, orr = frame.r;
  double S = 0.0;
  // W: sum_j L_j'N_j L_j, less that of unit j; then C3 times it times C3.
  Array<double> omega{npi}, h{npi}, LN{npi * r}, W{r * r}, others{r * r}, through{npi * std::max(q, r)};

  [[nodiscard]] const double* x(std::size_t i) const { return work.rows.x.data() + i * npi; }
  [[nodiscard]] LogitCumulants cumulants(std::size_t i) const {
    return logitcumulants(records.y[i] - work.densities.r[i], work.densities.W[i]);
  }

  void moments(std::size_t j);
  void weights(std::size_t j, double D);
  void columns(std::size_t j, double D, const double* AN, const double* LV, const double* left, std::size_t n,
               const double* right, double* U);
};

// a_i, b_i = x~_i'A omega, S, N without its factor D, and W.
void Expansion::moments(std::size_t j) {
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
    sixth.byeta[i] = D * (-a * a * (k.k5 / 8.0 + k.k7 * a / 48.0) + 2.0 * pairweight * k.k4 * a * sixth.b[i] -
                          k.k3 * quadraticform(npi, Q, x(i)));
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

bool makesixthorder(const Frame& frame, const Level3Records& records, const ModeWork& work, const CurvatureRows& rows,
                    SixthOrder& sixth) {
  const std::size_t npi = at(frame.npi), units = at(records.units), total = records.start[units];
  for (Array<double>* array : {&sixth.byeta, &sixth.a, &sixth.b}) fit(*array, total);
  fit(sixth.N, units * npi * npi);
  fit(sixth.U2, units * npi * at(frame.q));
  fit(sixth.U3, units * npi * at(frame.r));
  Expansion expansion{frame, records, work, rows, sixth};
  for (std::size_t j = 0; j < units; ++j) expansion.moments(j);
  if (!(1.0 - expansion.S > 0.0)) return false;
  sixth.share = std::log1p(-expansion.S);
  for (std::size_t j = 0; j < units; ++j) expansion.weights(j, 1.0 / (1.0 - expansion.S));
  return true;
}

namespace {

// T_aa / (V + T)_aa added to each sum, for the T of columns that the inverse I of `information` turns to V = to I to'.
// False when there is no inverse.
bool addreliabilities(int order, const double* information, const Array<double>& to, const Array<double>& T,
                      Array<double>& sums) {
  const std::size_t n = at(order);
  Array<double> inverse(n * n), half(n * n), V(n * n);
  if (!invertcovariance(information, order, inverse.data())) return false;
  mulAB(half.data(), to.data(), inverse.data(), order, order, order);
  mulABt(V.data(), half.data(), to.data(), order, order, order);
  for (std::size_t a = 0; a < n; ++a) {
    const double t = T[a * n + a];
    sums[a] += t / (V[a * n + a] + t);
  }
  return true;
}

}  // namespace

LaplaceFindings laplacefindings(const SphericalLikelihood& likelihood) {
  const Frame& frame = likelihood.frame;
  const SphericalState& state = likelihood.current;
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), packed = packedsize(frame.npi);
  const int op = frame.npi, oq = frame.q, orr = frame.r;
  const SphericalPoint there = sphericalpoint(frame, state.point);
  const Parameters parameters = parametersof(frame, state.point);
  LaplaceFindings findings;
  findings.rel2.reset(q);
  findings.rel3.reset(r);
  findings.u.reset(frame.units2() * q);
  findings.v.reset(frame.units3() * r);
  UnitFrames frames;
  Array<double> M(npi * npi), MD(npi * q), ME(npi * r), dd(q * q), de(q * r), H2(q * q), L2(q * q), X2(q * q),
      C2(q * q), AC(q * q), kept(q * q), share(q * r), information(r * r), toU(q * q), toV(r * r);
  mulAB(toU.data(), frame.toD.data(), there.A.data(), oq, oq, oq);
  mulAB(toV.data(), frame.toE.data(), there.B.data(), orr, orr, orr);
  for (std::size_t k = 0; k < frame.units3(); ++k) {
    makeunitframes(frame, k, frames);
    information.fill(0.0);
    mulAB(findings.v.data() + k * r, toV.data(), state.nodes.w.data() + k * r, orr, 1, orr);
    for (std::size_t unit = frame.units.first[k]; unit < frame.units.first[k + 1]; ++unit) {
      const double *sum = state.sums.M.data() + unit * packed,
                   *Se = frames.Se.data() + (unit - frame.units.first[k]) * npi * r;
      mulAB(findings.u.data() + unit * q, toU.data(), state.nodes.z.data() + unit * q, oq, 1, oq);
      for (std::size_t a = 0, e = 0; a < npi; ++a)
        for (std::size_t b = 0; b <= a; ++b, ++e) M[a * npi + b] = M[b * npi + a] = sum[e];
      mulAB(MD.data(), M.data(), frame.Sd.data(), op, oq, op);
      mulAB(ME.data(), M.data(), Se, op, orr, op);
      mulAtB(dd.data(), frame.Sd.data(), MD.data(), oq, oq, op);
      mulAtB(de.data(), frame.Sd.data(), ME.data(), oq, orr, op);
      if (addreliabilities(oq, dd.data(), frame.toD, parameters.taupi, findings.rel2)) ++findings.nrel2;
      // sum W ee' - (sum W ed') A C2 A' (sum W de'), C2 = (I + A'(sum W dd')A)^-1.
      addAtB(information.data(), Se, ME.data(), orr, orr, op);
      mulAB(AC.data(), dd.data(), there.A.data(), oq, oq, oq);
      mulAtB(H2.data(), there.A.data(), AC.data(), oq, oq, oq);
      for (std::size_t a = 0; a < q; ++a) H2[a * q + a] += 1.0;
      if (!choleskyfactor(q, H2.data(), L2.data())) continue;
      invertlower(q, L2.data(), X2.data());
      inversefromfactor(q, X2.data(), C2.data());
      mulAB(AC.data(), there.A.data(), C2.data(), oq, oq, oq);
      mulABt(kept.data(), AC.data(), there.A.data(), oq, oq, oq);
      mulAB(share.data(), kept.data(), de.data(), oq, orr, oq);
      for (std::size_t a = 0; a < r; ++a)
        for (std::size_t b = 0; b < r; ++b)
          for (std::size_t c = 0; c < q; ++c) information[a * r + b] -= de[c * r + a] * share[c * r + b];
    }
    if (addreliabilities(orr, information.data(), frame.toE, parameters.taubeta, findings.rel3)) ++findings.nrel3;
  }
  for (const double change : state.shares) findings.largest = std::max(findings.largest, std::fabs(change));
  for (double& sum : findings.rel2) sum = findings.nrel2 > 0 ? sum / findings.nrel2 : 0.0;
  for (double& sum : findings.rel3) sum = findings.nrel3 > 0 ? sum / findings.nrel3 : 0.0;
  return findings;
}

}  // namespace kdr
