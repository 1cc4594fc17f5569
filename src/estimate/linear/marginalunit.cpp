#include "estimate/linear/marginalunit.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/elimination.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// R = (I + S T)^-1; returns the logarithm of the determinant of its inverse. `work`: that of eliminate.
double resolvent(int n, const double* S, const double* T, double* R, double* work) {
  const double* pivots = eliminate(n, 1.0, S, T, R, work);
  double logdeterminant = 0.0;
  for (int c = 0; c < n; ++c) logdeterminant += std::log(std::fabs(pivots[c]));
  return logdeterminant;
}

// The rows and columns of Z2.
void takeZ2(const double* G, int C, int b, double* block) {
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) block[i * b + j] = G[(firstB + i) * C + firstB + j];
}

// Y (C squared) = M - M[:,b] TF - TF' M[b,:] + TF' M[b,b] TF
void project(const double* M, const double* TF, int C, int b, double* half, double* Y) {
  std::copy_n(M, square(C), Y);
  // half = M[b,:] - M[b,b] TF / 2, so that Y = M - TF' half - half' TF
  for (int a = 0; a < b; ++a)
    for (int j = 0; j < C; ++j) {
      double sum = 0.0;
      for (int c = 0; c < b; ++c) sum += M[(firstB + a) * C + firstB + c] * TF[c * C + j];
      half[a * C + j] = M[(firstB + a) * C + j] - 0.5 * sum;
    }
  for (int i = 0; i < C; ++i)
    for (int j = 0; j < C; ++j)
      for (int a = 0; a < b; ++a) Y[i * C + j] -= TF[a * C + i] * half[a * C + j] + half[a * C + i] * TF[a * C + j];
}

}  // namespace

std::size_t marginalwork(int p, int b, int C) {
  constexpr std::size_t lanes = 4;
  const std::size_t pp = square(p), Cp = at(C * p), np = packedsize(p), CC = square(C);
  const std::size_t first = np + 2 * Cp + 3 * Cp + 2 * pp + 2 * pp + at(p) + 2 * pp + 2 * Cp + 3 * packedsize(C);
  const std::size_t unit = at(b * p) + 4 * pp + 2 * Cp;
  const std::size_t second =
      2 * np + np * (packedsize(C) + CC + at(b * C) + square(b)) + packedsize(static_cast<int>(np)) * (CC + 1) + unit;
  return lanes * std::max(first, second) + lanes;  // and what its alignment may pass over
}

std::size_t marginalkept(int p, int C, int units) {
  constexpr std::size_t lanes = 4;
  return (2 * square(p) + 2 * at(C * p)) * ((at(units) + lanes - 1) / lanes * lanes) + lanes;
}

const MarginalLoops& marginalloops() {
#if defined(__x86_64__)
  static const MarginalLoops& fastest =
      __builtin_cpu_supports("avx2") ? avx2::marginalloopset : baseline::marginalloopset;
  return fastest;
#else
  return baseline::marginalloopset;
#endif
}

MarginalUnit::MarginalUnit(const MarginalSums& sums) : theta(at(sums.nbeta)) {
  const int p = sums.p, b = sums.b, C = sums.columns();
  for (Array<double>* m : {&G1, &G2, &G3, &Y1, &Y2, &Y3}) m->reset(square(C));
  for (Array<double>* m : {&C1, &C2, &C3, &Rb, &N, &NC2N, &Ct, &Ct2, &bb}) m->reset(square(b));
  for (Array<double>* m : {&F, &F2, &TF, &TF2, &bC}) m->reset(at(b * C));
  work.reset(2 * square(b) + at(b));
  loopwork.reset(marginalwork(p, b, C));
}

void beginunit(const MarginalSums& sums, int k, double sigma2, const double* gamma, MarginalUnit& unit) {
  const int C = sums.columns();
  unit.weights = sums.weights.row(k);
  level2means(*sums.design, unit.weights, gamma, unit.theta.data());
  std::copy_n(sums.residual.row(k), unit.G1.size(), unit.G1.data());
  // Row and column 0 become those of r = Y - B theta.
  double* const G = unit.G1.data();
  for (int m = firstB; m < C; ++m)
    for (int j = 0; j < C; ++j) G[j] -= unit.theta[m - firstB] * G[m * C + j];
  for (int m = firstB; m < C; ++m)
    for (int j = 0; j < C; ++j) G[j * C] -= unit.theta[m - firstB] * G[j * C + m];
  for (std::size_t i = 0; i < unit.G1.size(); ++i) {
    unit.G1[i] /= sigma2;
    unit.G2[i] = unit.G1[i] / sigma2;
    unit.G3[i] = unit.G2[i] / sigma2;
  }
  unit.logdeterminant = unit.traceR = unit.traceRR = 0.0;
}

void finishvalue(const MarginalSums& sums, const Estimates& theta, MarginalUnit& unit) {
  const int b = sums.b, C = sums.columns();
  const double* Tb = theta.taubeta.data();
  mirror(C, unit.G1.data());
  takeZ2(unit.G1.data(), C, b, unit.C1.data());
  unit.logdeterminant += resolvent(b, unit.C1.data(), Tb, unit.Rb.data(), unit.work.data());
  mulAB(unit.N.data(), Tb, unit.Rb.data(), b, b, b);
  symmetrise(b, unit.N.data());
  mulAB(unit.F.data(), unit.Rb.data(), unit.G1.data() + firstB * C, b, C, b);
  mulAB(unit.TF.data(), Tb, unit.F.data(), b, C, b);
  std::copy(unit.G1.begin(), unit.G1.end(), unit.Y1.begin());
  for (int i = 0; i < C; ++i)
    for (int j = 0; j < C; ++j)
      for (int a = 0; a < b; ++a) unit.Y1[i * C + j] -= unit.G1[(firstB + a) * C + i] * unit.TF[a * C + j];
  symmetrise(C, unit.Y1.data());
}

void finishderivatives(const MarginalSums& sums, const Estimates& theta, MarginalUnit& unit) {
  const int b = sums.b, C = sums.columns();
  const double* Tb = theta.taubeta.data();
  mirror(C, unit.G2.data());
  mirror(C, unit.G3.data());
  takeZ2(unit.G2.data(), C, b, unit.C2.data());
  takeZ2(unit.G3.data(), C, b, unit.C3.data());
  // F2 = Rb (G2[b,:] - C2 TF)
  std::copy_n(unit.G2.data() + firstB * C, at(b * C), unit.bC.data());
  subAB(unit.bC.data(), unit.C2.data(), unit.TF.data(), b, C, b);
  mulAB(unit.F2.data(), unit.Rb.data(), unit.bC.data(), b, C, b);
  mulAB(unit.TF2.data(), Tb, unit.F2.data(), b, C, b);
  for (int a = 0; a < b; ++a)
    for (int j = 0; j < C; ++j) {
      if (j >= firstB && j < firstB + b) {
        unit.Ct[a * b + j - firstB] = unit.F[a * C + j];
        unit.Ct2[a * b + j - firstB] = unit.F2[a * C + j];
      }
    }
  symmetrise(b, unit.Ct.data());
  symmetrise(b, unit.Ct2.data());
  mulAB(unit.bb.data(), unit.N.data(), unit.C2.data(), b, b, b);
  mulAB(unit.NC2N.data(), unit.bb.data(), unit.N.data(), b, b, b);
  project(unit.G2.data(), unit.TF.data(), C, b, unit.bC.data(), unit.Y2.data());
  // M3 = G3 - G2[b,:]' N G2[b,:]
  mulAB(unit.bC.data(), unit.N.data(), unit.G2.data() + firstB * C, b, C, b);
  for (int i = 0; i < C; ++i)
    for (int j = 0; j < C; ++j)
      for (int a = 0; a < b; ++a) unit.G3[i * C + j] -= unit.G2[(firstB + a) * C + i] * unit.bC[a * C + j];
  project(unit.G3.data(), unit.TF.data(), C, b, unit.bC.data(), unit.Y3.data());
}

void addform(const MarginalSums& sums, const MarginalUnit& unit, const double* X, LevelForm& form) {
  const Design& design = *sums.design;
  const int C = sums.columns(), g = sums.g;
  form.rr += X[0];
  for (std::size_t i = 0; i < design.owner3.size(); ++i) {
    const double* const row = X + at(firstB + design.owner3[i]) * at(C);
    form.xr[design.reduced[i]] += unit.weights[i] * row[0];
    double* const to = form.xx.data() + at(design.reduced[i]) * at(g);
    for (std::size_t j = 0; j < design.owner3.size(); ++j)
      to[design.reduced[j]] += unit.weights[i] * row[firstB + design.owner3[j]] * unit.weights[j];
  }
}

}  // namespace kdr
