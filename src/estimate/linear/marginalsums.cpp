#include "estimate/linear/marginalsums.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>
#include <vector>

#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// Columns of the units: Y (or r) first, then those of B. Z2 are the first b of B, which have its scale here; what
// multiplies them as columns of B, theta and W3, is divided by it.
int columnsof(const Pass& pass) { return 1 + pass.nbeta; }
constexpr int firstB = 1;

// X = S_AA^+ (p squared), of S_AA at a unit diagonal, whose small eigenvalues are left out.
void pseudoinverse(const double* S, int p, Array<double>& X) {
  constexpr double nothing = 1.0e-10;
  Array<double> scaled(square(p)), values(at(p)), vectors(square(p)), scale(at(p));
  for (int i = 0; i < p; ++i) scale[i] = S[i * p + i] > 0.0 ? 1.0 / std::sqrt(S[i * p + i]) : 0.0;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j < p; ++j) scaled[i * p + j] = S[i * p + j] * scale[i] * scale[j];
  if (p == 1) {
    values[0] = scaled[0];
    vectors[0] = 1.0;
  } else {
    spectrum(at(p), scaled.data(), values.data(), vectors.data());
  }
  X.fill(0.0);
  for (int e = 0; e < p; ++e) {
    if (!(values[e] > nothing)) continue;
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < p; ++j)
        X[i * p + j] += scale[i] * vectors[i * p + e] / values[e] * vectors[j * p + e] * scale[j];
  }
}

// [Y | B]'[Y | B] of a level-3 unit.
void crossproducts(const Pass& pass, int k, double* S) {
  const int C = columnsof(pass), nb = pass.nbeta;
  const auto scale = [&](int i) { return i < pass.b ? pass.scale3[k] : 1.0; };
  S[0] = pass.sumYY[k];
  for (int i = 0; i < nb; ++i) {
    S[firstB + i] = S[(firstB + i) * C] = scale(i) * pass.sumBY.row(k)[i];
    for (int j = 0; j < nb; ++j) S[(firstB + i) * C + firstB + j] = scale(i) * scale(j) * pass.sumBB.row(k)[i * nb + j];
  }
}

// [Y | B]'A of a level-2 unit of k: B'Z1 stands behind Z1'Y.
void takeproducts(const Pass& pass, int k, const double* hot, double* S) {
  const int p = pass.p;
  std::copy_n(hot + pass.store.atZ1Y, at(columnsof(pass) * p), S);
  for (int i = firstB * p; i < (firstB + pass.b) * p; ++i) S[i] *= pass.scale3[k];
}

// A column that Z1 explains but for rounding is left nothing.
void clearrounding(const double* S, int C, double* left) {
  constexpr double rounding = 1.0e-11;
  for (int i = 0; i < C; ++i) {
    if (left[i * C + i] > rounding * S[i * C + i]) continue;
    for (int j = 0; j < C; ++j) left[i * C + j] = left[j * C + i] = 0.0;
  }
}

// R = (s I + S T)^-1 (n squared, not symmetric), S and T non-negative, T singular or not. Eliminated at the scale that
// gives S a unit diagonal, so that no unit of measurement chooses a pivot. Returns log det(s I + S T).
double resolvent(int n, double s, const double* S, const double* T, double* R, Array<double>& work) {
  const int width = 2 * n;
  work.resize(square(n) * 2 + at(n));
  double* const M = work.data();  // [s I + S T | I], scaled
  double* const scale = M + square(n) * 2;
  for (int i = 0; i < n; ++i) scale[i] = S[i * n + i] > 0.0 ? std::sqrt(S[i * n + i]) : 1.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double sum = 0.0;
      for (int l = 0; l < n; ++l) sum += S[i * n + l] * T[l * n + j];
      M[i * width + j] = sum * scale[j] / scale[i] + (i == j ? s : 0.0);
      M[i * width + n + j] = i == j ? 1.0 : 0.0;
    }
  double logdet = 0.0;
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    for (int i = c + 1; i < n; ++i)
      if (std::fabs(M[i * width + c]) > std::fabs(M[pivot * width + c])) pivot = i;
    if (pivot != c) std::swap_ranges(M + pivot * width, M + (pivot + 1) * width, M + c * width);
    const double head = M[c * width + c];
    logdet += std::log(std::fabs(head));
    for (int j = 0; j < width; ++j) M[c * width + j] /= head;
    for (int i = 0; i < n; ++i) {
      const double factor = M[i * width + c];
      if (i == c || factor == 0.0) continue;
      for (int j = c; j < width; ++j) M[i * width + j] -= factor * M[c * width + j];
    }
  }
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) R[i * n + j] = M[i * width + n + j] * scale[i] / scale[j];
  return logdet;
}

// The symmetric element of a triangle as ordered pairs (a, b), of which E is the sum of e_a e_b'.
struct Element {
  int i, j;
  [[nodiscard]] double of(const double* symmetric, int n) const { return symmetric[i * n + j] * (i == j ? 1.0 : 2.0); }
  template <class Use>
  void each(Use use) const {
    use(i, j);
    if (i != j) use(j, i);
  }
};

Array<Element> elementsof(int n) {
  Array<Element> elements(packedsize(n));
  eachelement(n, [&](int e, int i, int j) { elements[e] = {i, j}; });
  return elements;
}

// tr(E X E' Y), n by n.
double doubletrace(Element E, const double* X, Element F, const double* Y, int n) {
  double sum = 0.0;
  E.each([&](int a, int b) { F.each([&](int c, int d) { sum += X[b * n + c] * Y[d * n + a]; }); });
  return sum;
}

// One level-2 unit at theta. Transposed matrices have a row of p values for each column of [r | B].
struct Level2Unit {
  Array<double> S, beta;     // S_A' and beta'
  Array<double> SAA, R;      // p squared
  Array<double> H1, H2, H3;  // S_A' R', S_A' R'R', ...: (A'W^-m [r | B])'
  Array<double> K1, K2;      // p squared: A'W^-m A
  Array<double> work;
  double logdet = 0.0, traceR = 0.0, traceRR = 0.0;  // log det(s I + S_AA T), tr(sR), tr((sR)^2)

  Level2Unit(int p, int C) : SAA(square(p)), R(square(p)), K1(square(p)), K2(square(p)) {
    for (Array<double>* m : {&S, &beta, &H1, &H2, &H3}) m->reset(at(C * p));
  }
};

// Row 0 becomes that of r = Y - B theta.
void takeresidual(double* rows, int nb, int p, const double* theta) {
  for (int m = 0; m < nb; ++m)
    for (int i = 0; i < p; ++i) rows[i] -= theta[m] * rows[(firstB + m) * p + i];
}

void takeunit(const Pass& pass, int k, const double* hot, const double* coefficients, const double* theta,
              Level2Unit& unit) {
  unpack(pass.p, hot, unit.SAA.data());
  takeproducts(pass, k, hot, unit.S.data());
  std::copy_n(coefficients, unit.beta.size(), unit.beta.data());
  takeresidual(unit.S.data(), pass.nbeta, pass.p, theta);
  takeresidual(unit.beta.data(), pass.nbeta, pass.p, theta);
}

void resolveunit(const Pass& pass, const Estimates& theta, Level2Unit& unit) {
  const int p = pass.p, C = columnsof(pass);
  unit.logdet = resolvent(p, theta.sigma2, unit.SAA.data(), theta.taupi.data(), unit.R.data(), unit.work);
  mulABt(unit.H1.data(), unit.S.data(), unit.R.data(), C, p, p);
}

void resolvehigher(const Pass& pass, double s, Level2Unit& unit) {
  const int p = pass.p, C = columnsof(pass);
  mulABt(unit.H2.data(), unit.H1.data(), unit.R.data(), C, p, p);
  unit.traceR = unit.traceRR = 0.0;
  for (int i = 0; i < p; ++i) {
    unit.traceR += s * unit.R[i * p + i];
    for (int j = 0; j < p; ++j) unit.traceRR += s * s * unit.R[i * p + j] * unit.R[j * p + i];
  }
}

// One level-3 unit at theta: G_m = [r | B]'W^-m [r | B], and what follows from them.
struct Level3Unit {
  Array<double> weights, theta;           // of W3_k; [nbeta] W3_k gamma
  Array<double> G1, G2, G3;               // C squared
  Array<double> C1, C2, C3, Rb, N, NC2N;  // b squared: Z2'W^-m Z2, (I + C1 Tb)^-1, Tb Rb
  Array<double> Ct, Ct2;                  // Z2'V^-m Z2
  Array<double> F, F2, TF, TF2;           // b by C: Z2'V^-m [r | B], and Tb times them
  Array<double> TFt, TF2t;                // their transposes
  Array<double> Y1, Y2, Y3;               // C squared: [r | B]'V^-m [r | B]
  Array<double> bC, bb, work;
  double logdet = 0.0;

  Level3Unit(const Pass& pass) : weights(pass.design.owner3.size()), theta(at(pass.nbeta)) {
    const int b = pass.b, C = columnsof(pass);
    for (Array<double>* m : {&G1, &G2, &G3, &Y1, &Y2, &Y3}) m->reset(square(C));
    for (Array<double>* m : {&C1, &C2, &C3, &Rb, &N, &NC2N, &Ct, &Ct2, &bb}) m->reset(square(b));
    for (Array<double>* m : {&F, &F2, &TF, &TF2, &TFt, &TF2t, &bC}) m->reset(at(b * C));
  }
};

// M (C squared) := L M L', where L takes theta times the columns of B off column 0.
void takeresidual(double* M, int nb, const double* theta) {
  const int C = 1 + nb;
  for (int j = 0; j < C; ++j)
    for (int m = 0; m < nb; ++m) M[j] -= theta[m] * M[(firstB + m) * C + j];
  for (int i = 0; i < C; ++i)
    for (int m = 0; m < nb; ++m) M[i * C] -= theta[m] * M[i * C + firstB + m];
}

// G_m before its level-2 units: what Z1 leaves over sigma2^m.
void beginunit(const Pass& pass, const MarginalSums& sums, const Estimates& at0, const double* gamma, int k,
               Level3Unit& unit) {
  level3weights(pass, k, unit.weights.data());
  level2means(pass.design, unit.weights.data(), gamma, unit.theta.data());
  for (int i = 0; i < pass.b; ++i) unit.theta[i] /= pass.scale3[k];
  for (std::size_t i = 0; i < unit.weights.size(); ++i)
    if (pass.design.owner3[i] < pass.b) unit.weights[i] /= pass.scale3[k];
  std::copy_n(sums.residual.row(k), unit.G1.size(), unit.G1.data());
  takeresidual(unit.G1.data(), pass.nbeta, unit.theta.data());
  const double s = at0.sigma2;
  for (std::size_t i = 0; i < unit.G1.size(); ++i) {
    unit.G1[i] /= s;
    unit.G2[i] = unit.G1[i] / s;
    unit.G3[i] = unit.G2[i] / s;
  }
}

void symmetrise(int n, double* m) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < i; ++j) m[i * n + j] = m[j * n + i] = 0.5 * (m[i * n + j] + m[j * n + i]);
}

// The rows and columns of Z2.
void takeZ2(const double* G, int C, int b, double* block) {
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) block[i * b + j] = G[(firstB + i) * C + firstB + j];
}

// Rb, N, F, Y1.
void level3value(const Pass& pass, const Estimates& theta, Level3Unit& unit) {
  const int b = pass.b, C = columnsof(pass);
  const double* Tb = theta.taubeta.data();
  symmetrise(C, unit.G1.data());
  takeZ2(unit.G1.data(), C, b, unit.C1.data());
  unit.logdet = resolvent(b, 1.0, unit.C1.data(), Tb, unit.Rb.data(), unit.work);
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

// Ct, F2, Ct2, Y2, Y3.
void level3derivatives(const Pass& pass, const Estimates& theta, Level3Unit& unit) {
  const int b = pass.b, C = columnsof(pass);
  const double* Tb = theta.taubeta.data();
  symmetrise(C, unit.G2.data());
  symmetrise(C, unit.G3.data());
  takeZ2(unit.G2.data(), C, b, unit.C2.data());
  takeZ2(unit.G3.data(), C, b, unit.C3.data());
  // F2 = Rb (G2[b,:] - C2 TF)
  std::copy_n(unit.G2.data() + firstB * C, at(b * C), unit.bC.data());
  subAB(unit.bC.data(), unit.C2.data(), unit.TF.data(), b, C, b);
  mulAB(unit.F2.data(), unit.Rb.data(), unit.bC.data(), b, C, b);
  mulAB(unit.TF2.data(), Tb, unit.F2.data(), b, C, b);
  for (int a = 0; a < b; ++a)
    for (int j = 0; j < C; ++j) {
      unit.TFt[j * b + a] = unit.TF[a * C + j];
      unit.TF2t[j * b + a] = unit.TF2[a * C + j];
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

// A symmetric form in [r | M].
struct Form {
  double rr = 0.0;
  Array<double> xr, xx;  // [g], g squared
  explicit Form(int g) : xr(at(g)), xx(square(g)) {}
};

// form += D'X D of a level-3 unit, from its form in [r | B].
void addform(const Pass& pass, const Level3Unit& unit, const double* X, Form& form) {
  const Design& design = pass.design;
  const int C = columnsof(pass), g = pass.g;
  form.rr += X[0];
  for (std::size_t i = 0; i < design.owner3.size(); ++i) {
    const double* const row = X + at(firstB + design.owner3[i]) * at(C);
    form.xr[design.reduced[i]] += unit.weights[i] * row[0];
    double* const to = form.xx.data() + at(design.reduced[i]) * at(g);
    for (std::size_t j = 0; j < design.owner3.size(); ++j)
      to[design.reduced[j]] += unit.weights[i] * row[firstB + design.owner3[j]] * unit.weights[j];
  }
}

// The sums of a sweep over all units for the derivatives.
struct DerivativeSums {
  const Pass& pass;
  const bool all;
  const int p, b, C, np, nb, NT;
  const Array<Element> elements2, elements3;
  Array<double> t;      // [NT]
  std::vector<Form> P;  // [NT]
  Array<double> Qrr;    // pairs
  std::vector<Form> Q;  // pairs, with `all`; one of Q_ij and its transpose
  Array<double> T;      // pairs, with `all`
  // Of one level-3 unit: forms in [r | B] (C squared) of the elements of taupi, of their pairs and of their pairs with
  // sigma2, the last two of r alone without `all`; b by C and b squared for each element.
  UnitTable<double> P2, Q22, Q2s, Y, Lambda;
  Array<double> U, U2, NL, L, L2, LNL, Kf, KM, O;  // of one level-2 unit
  Array<double> form, bC, bb, bb2;

  DerivativeSums(const Pass& ofpass, bool wantall)
      : pass(ofpass),
        all(wantall),
        p(pass.p),
        b(pass.b),
        C(columnsof(pass)),
        np(static_cast<int>(packedsize(p))),
        nb(static_cast<int>(packedsize(b))),
        NT(np + nb + 1),
        elements2(elementsof(p)),
        elements3(elementsof(b)),
        t(at(NT)) {
    const std::size_t pairs = packedsize(NT), block = all ? square(C) : 1;
    for (int i = 0; i < NT; ++i) P.emplace_back(pass.g);
    Qrr.reset(pairs);
    if (all) {
      for (std::size_t i = 0; i < pairs; ++i) Q.emplace_back(pass.g);
      T.reset(pairs);
    }
    P2.reset(at(np), square(C));
    Q22.reset(packedsize(np), block);
    Q2s.reset(at(np), block);
    Y.reset(at(np), at(b * C));
    Lambda.reset(at(np), square(b));
    for (Array<double>* m : {&U, &U2}) m->reset(at(p * C));
    for (Array<double>* m : {&NL, &L, &L2}) m->reset(at(b * p));
    for (Array<double>* m : {&LNL, &Kf, &KM, &O}) m->reset(square(p));
    form.reset(square(C));
    bC.reset(at(b * C));
    for (Array<double>* m : {&bb, &bb2}) m->reset(square(b));
  }

  static std::size_t pair(int i, int j) { return i >= j ? packedsize(i) + at(j) : packedsize(j) + at(i); }
  // X += factor x y' over the columns, or of r alone.
  void outer(double* X, double factor, const double* x, const double* y) const {
    if (!all) {
      X[0] += factor * x[0] * y[0];
    } else {
      fullouter(X, factor, x, y);
    }
  }
  void fullouter(double* X, double factor, const double* x, const double* y) const {
    for (int c = 0; c < C; ++c) {
      const double f = factor * x[c];
      for (int d = 0; d < C; ++d) X[c * C + d] += f * y[d];
    }
  }
  // A pair's form, of one level-3 unit.
  void addQ(const Level3Unit& unit, int i, int j, const double* X) {
    Qrr[pair(i, j)] += X[0];
    if (all) addform(pass, unit, X, Q[pair(i, j)]);
  }
  double* cleared() {
    form.fill(0.0);
    return form.data();
  }
};

void beginlevel3(DerivativeSums& sums) {
  for (UnitTable<double>* table : {&sums.P2, &sums.Q22, &sums.Q2s, &sums.Y, &sums.Lambda}) table->cells.fill(0.0);
}

// U = A'(V^-1 [r | B])_j, U2 = A'(V^-2 [r | B])_j (p by C), L = Z2'W^-1 A (b by p), and with them
//   Kf = K1 - L'N L = A'(V^-1)_jj A,  O = A'(V^-2)_jj A,  KM = K1 - 2 L'N L
void projectunit(DerivativeSums& sums, const Level3Unit& unit3, Level2Unit& unit) {
  const int p = sums.p, b = sums.b, C = sums.C;
  std::copy_n(unit.H1.data() + firstB * p, at(b * p), sums.L.data());
  std::copy_n(unit.H2.data() + firstB * p, at(b * p), sums.L2.data());
  mulAB(sums.NL.data(), unit3.N.data(), sums.L.data(), b, p, b);
  mulAtB(sums.LNL.data(), sums.L.data(), sums.NL.data(), p, p, b);
  mulAB(unit.K1.data(), unit.R.data(), unit.SAA.data(), p, p, p);
  symmetrise(p, unit.K1.data());
  for (std::size_t i = 0; i < square(p); ++i) sums.Kf[i] = unit.K1[i] - sums.LNL[i];
  if (sums.all) {
    for (std::size_t i = 0; i < square(p); ++i) sums.KM[i] = unit.K1[i] - 2.0 * sums.LNL[i];
    // O = K2 - L2'N L - L'N L2 + L'N C2 N L
    mulAB(sums.O.data(), unit.R.data(), unit.K1.data(), p, p, p);
    mulAtB(sums.LNL.data(), sums.L2.data(), sums.NL.data(), p, p, b);
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < p; ++j) sums.O[i * p + j] -= sums.LNL[i * p + j] + sums.LNL[j * p + i];
    mulAB(sums.NL.data(), unit3.NC2N.data(), sums.L.data(), b, p, b);
    addAtB(sums.O.data(), sums.L.data(), sums.NL.data(), p, p, b);
    symmetrise(p, sums.O.data());
  }
  // (H1 - L TF)' and (H2 - L2 TF - L TF2)', C by p.
  subAB(unit.H2.data(), unit3.TFt.data(), sums.L2.data(), C, p, b);
  subAB(unit.H2.data(), unit3.TF2t.data(), sums.L.data(), C, p, b);
  subAB(unit.H1.data(), unit3.TFt.data(), sums.L.data(), C, p, b);
  for (int c = 0; c < C; ++c)
    for (int i = 0; i < p; ++i) {
      sums.U[i * C + c] = unit.H1[c * p + i];
      sums.U2[i * C + c] = unit.H2[c * p + i];
    }
}

// The share of a level-2 unit: what is a sum over the units of k.
void addlevel2(DerivativeSums& sums, double s, const Level2Unit& unit) {
  const int p = sums.p, b = sums.b, C = sums.C, last = sums.NT - 1;
  const auto U = [&](int i) { return sums.U.data() + at(i * C); };
  for (int e = 0; e < sums.np; ++e) {
    const Element E = sums.elements2[e];
    sums.t[e] += E.of(sums.Kf.data(), p);
    E.each([&](int i, int j) {
      sums.fullouter(sums.P2.row(e), 1.0, U(i), U(j));
      sums.outer(sums.Q2s.row(e), 1.0, U(i), sums.U2.data() + at(j * C));
      for (int a = 0; a < b; ++a) {
        const double l = sums.L[a * p + i];
        for (int c = 0; c < C; ++c) sums.Y.row(e)[a * C + c] += l * U(j)[c];
        for (int c = 0; c < b; ++c) sums.Lambda.row(e)[a * b + c] += l * sums.L[c * p + j];
      }
    });
    for (int f = 0; f <= e; ++f) {
      const Element F = sums.elements2[f];
      double* const Q = sums.Q22.row(static_cast<int>(DerivativeSums::pair(e, f)));
      E.each([&](int i, int j) { F.each([&](int k, int l) { sums.outer(Q, unit.K1[j * p + k], U(i), U(l)); }); });
      if (sums.all) sums.T[DerivativeSums::pair(e, f)] += doubletrace(E, unit.K1.data(), F, sums.KM.data(), p);
    }
    if (sums.all) sums.T[DerivativeSums::pair(last, e)] += E.of(sums.O.data(), p);
  }
  sums.t[last] += unit.traceR / s;
  if (sums.all) sums.T[DerivativeSums::pair(last, last)] += unit.traceRR / (s * s);
}

double traceof(const double* X, const double* Y, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) sum += X[i * n + j] * Y[j * n + i];
  return sum;
}

// What the level-3 effects add to the elements of taupi, once the level-2 units of k are summed.
void endtaupi(DerivativeSums& sums, const Level3Unit& unit) {
  const int b = sums.b, C = sums.C;
  for (int e = 0; e < sums.np; ++e) {
    addform(sums.pass, unit, sums.P2.row(e), sums.P[e]);
    sums.addQ(unit, sums.NT - 1, e, sums.Q2s.row(e));
    // (e, f): - Y(E)'N Y(E'), tr(Lambda(E) N Lambda(E') N)
    mulAB(sums.bC.data(), unit.N.data(), sums.Y.row(e), b, C, b);
    mulAB(sums.bb.data(), unit.N.data(), sums.Lambda.row(e), b, b, b);
    for (int f = 0; f <= e; ++f) {
      double* const Q = sums.Q22.row(static_cast<int>(DerivativeSums::pair(e, f)));
      for (int a = 0; a < b; ++a) sums.outer(Q, -1.0, sums.bC.data() + at(a * C), sums.Y.row(f) + at(a * C));
      sums.addQ(unit, e, f, Q);
      if (!sums.all) continue;
      mulAB(sums.bb2.data(), unit.N.data(), sums.Lambda.row(f), b, b, b);
      sums.T[DerivativeSums::pair(e, f)] += traceof(sums.bb.data(), sums.bb2.data(), b);
    }
    // (e, element of taubeta): Y(E)'Rb'E'F, tr(E'Rb Lambda(E) Rb')
    mulAB(sums.bC.data(), unit.Rb.data(), sums.Y.row(e), b, C, b);
    mulAB(sums.bb2.data(), unit.Rb.data(), sums.Lambda.row(e), b, b, b);
    mulABt(sums.bb.data(), sums.bb2.data(), unit.Rb.data(), b, b, b);
    symmetrise(b, sums.bb.data());
    for (int f = 0; f < sums.nb; ++f) {
      const Element F = sums.elements3[f];
      double* const Q = sums.cleared();
      F.each([&](int i, int j) { sums.outer(Q, 1.0, sums.bC.data() + at(i * C), unit.F.data() + at(j * C)); });
      sums.addQ(unit, sums.np + f, e, Q);
      if (sums.all) sums.T[DerivativeSums::pair(sums.np + f, e)] += F.of(sums.bb.data(), b);
    }
  }
}

void endtaubeta(DerivativeSums& sums, const Level3Unit& unit) {
  const int b = sums.b, C = sums.C, last = sums.NT - 1;
  const auto F = [&](int i) { return unit.F.data() + at(i * C); };
  for (int e = 0; e < sums.nb; ++e) {
    const Element E = sums.elements3[e];
    const int i = sums.np + e;
    sums.t[i] += E.of(unit.Ct.data(), b);
    double* X = sums.cleared();
    E.each([&](int r, int c) { sums.fullouter(X, 1.0, F(r), F(c)); });
    addform(sums.pass, unit, X, sums.P[i]);
    X = sums.cleared();
    E.each([&](int r, int c) { sums.outer(X, 1.0, F(r), unit.F2.data() + at(c * C)); });
    sums.addQ(unit, last, i, X);
    for (int f = 0; f <= e; ++f) {
      const Element G = sums.elements3[f];
      X = sums.cleared();
      E.each([&](int r, int c) { G.each([&](int k, int l) { sums.outer(X, unit.Ct[c * b + k], F(r), F(l)); }); });
      sums.addQ(unit, i, sums.np + f, X);
      if (sums.all)
        sums.T[DerivativeSums::pair(i, sums.np + f)] += doubletrace(E, unit.Ct.data(), G, unit.Ct.data(), b);
    }
    if (sums.all) sums.T[DerivativeSums::pair(last, i)] += E.of(unit.Ct2.data(), b);
  }
}

void endsigma2(DerivativeSums& sums, const Level3Unit& unit) {
  const int b = sums.b, last = sums.NT - 1;
  addform(sums.pass, unit, unit.Y2.data(), sums.P[last]);
  sums.addQ(unit, last, last, unit.Y3.data());
  sums.t[last] -= traceof(unit.N.data(), unit.C2.data(), b);
  if (!sums.all) return;
  mulAB(sums.bb.data(), unit.N.data(), unit.C2.data(), b, b, b);
  sums.T[DerivativeSums::pair(last, last)] +=
      traceof(sums.bb.data(), sums.bb.data(), b) - 2.0 * traceof(unit.N.data(), unit.C3.data(), b);
}

// Score and informations from the sums, with tr(Phi Px_i), Phi Px_i and pr_i.
MarginalDerivatives derivativesof(const DerivativeSums& sums, const MarginalValue& value, Criterion criterion) {
  const int NT = sums.NT, g = sums.pass.g;
  const bool restricted = criterion == Criterion::restricted;
  const double* Phi = value.covariance.data();
  MarginalDerivatives made{Array<double>(at(NT)), Array<double>(square(NT)), Array<double>(square(NT)), {}, {}};
  UnitTable<double> PhiP, Phir;
  PhiP.reset(at(NT), square(g));
  Phir.reset(at(NT), at(g));
  for (int i = 0; i < NT; ++i) {
    mulAB(PhiP.row(i), Phi, sums.P[i].xx.data(), g, g, g);
    mulAB(Phir.row(i), Phi, sums.P[i].xr.data(), g, 1, g);
    double trace = 0.0;
    for (int a = 0; a < g; ++a) trace += PhiP.row(i)[a * g + a];
    made.score[i] = -0.5 * (sums.t[i] - (restricted ? trace : 0.0) - sums.P[i].rr);
  }
  for (int i = 0; i < NT; ++i)
    for (int j = 0; j <= i; ++j) {
      const std::size_t pair = DerivativeSums::pair(i, j);
      const double q = sums.Qrr[pair] - dot(sums.P[i].xr.data(), Phir.row(j), at(g));
      made.average[i * NT + j] = made.average[j * NT + i] = 0.5 * q;
      if (!sums.all) continue;
      double information = sums.T[pair];
      if (restricted)
        information += traceof(PhiP.row(i), PhiP.row(j), g) - 2.0 * traceof(Phi, sums.Q[pair].xx.data(), g);
      made.expected[i * NT + j] = made.expected[j * NT + i] = 0.5 * information;
    }
  if (!sums.all) return made;
  made.P.reset(at(NT), square(g));
  made.Q.reset(packedsize(NT), square(g));
  for (int i = 0; i < NT; ++i) std::copy(sums.P[i].xx.begin(), sums.P[i].xx.end(), made.P.row(i));
  for (std::size_t i = 0; i < sums.Q.size(); ++i)
    std::copy(sums.Q[i].xx.begin(), sums.Q[i].xx.end(), made.Q.row(static_cast<int>(i)));
  return made;
}

}  // namespace

Failure makemarginalsums(Pass& pass, MarginalSums& sums) {
  const int p = pass.p, C = columnsof(pass);
  sums.coefficients.open(at(C * p), at(pass.mdm().nunits2),
                         {pass.analysis->store.inmemory ||
                              at(pass.mdm().nunits2) * at(C * p) * sizeof(double) <= pass.analysis->store.budget,
                          pass.analysis->store.window, &pass.observer()});
  sums.residual.reset(at(pass.mdm().nunits3), square(C));
  Array<double> S(at(C * p)), SAA(square(p)), inverse(square(p)), whole(square(C));
  sweepunits(
      pass.n2of, [&](int k) { crossproducts(pass, k, sums.residual.row(k)); },
      [&](int k, std::size_t, const double* hot) {
        unpack(p, hot, SAA.data());
        pseudoinverse(SAA.data(), p, inverse);
        double* const beta = sums.coefficients.append();
        takeproducts(pass, k, hot, S.data());
        mulAB(beta, S.data(), inverse.data(), C, p, p);
        subABt(sums.residual.row(k), S.data(), beta, C, C, p);
      },
      [&](int k) {
        crossproducts(pass, k, whole.data());
        symmetrise(C, sums.residual.row(k));
        clearrounding(whole.data(), C, sums.residual.row(k));
      },
      reading(pass.store.hot));
  sums.coefficients.finish();
  if (storefailure(pass.store)) return storefailure(pass.store);
  return sums.coefficients.failure();
}

MarginalValue marginalvalue(Pass& pass, MarginalSums& sums, const Estimates& theta) {
  const int p = pass.p, C = columnsof(pass), g = pass.g;
  MarginalValue value;
  if (!(theta.sigma2 > 0.0) || !std::isfinite(theta.sigma2)) return value;
  Level2Unit unit2(p, C);
  Level3Unit unit3(pass);
  Form total(g);  // of V^-1, with r at the fixed effects of theta
  double logdet = (pass.nunits1 - static_cast<double>(pass.mdm().nunits2) * p) * std::log(theta.sigma2);
  sweepunits(
      pass.n2of, [&](int k) { beginunit(pass, sums, theta, theta.gammahat.data(), k, unit3); },
      [&](int k, std::size_t, const double* hot, const double* coefficients) {
        takeunit(pass, k, hot, coefficients, unit3.theta.data(), unit2);
        resolveunit(pass, theta, unit2);
        addABt(unit3.G1.data(), unit2.beta.data(), unit2.H1.data(), C, C, p);
        logdet += unit2.logdet;
      },
      [&](int) {
        level3value(pass, theta, unit3);
        logdet += unit3.logdet;
        addform(pass, unit3, unit3.Y1.data(), total);
      },
      reading(pass.store.hot), reading(sums.coefficients));
  // gamma = gamma0 + Phi M'V^-1 r
  Array<double> X(square(g)), delta(at(g));
  double logdetPhi = 0.0;
  {
    Array<double> scaled(square(g)), L(square(g));
    for (int i = 0; i < g; ++i)
      if (!(total.xx[i * g + i] > 0.0)) return value;
    const auto scale = [&](int i) { return std::sqrt(total.xx[i * g + i]); };
    for (int i = 0; i < g; ++i)
      for (int j = 0; j < g; ++j) scaled[i * g + j] = total.xx[i * g + j] / (scale(i) * scale(j));
    if (collinear(scaled.data(), g) || !choleskyfactor(at(g), scaled.data(), L.data())) return value;
    for (int i = 0; i < g; ++i) logdetPhi -= 2.0 * (std::log(L[i * g + i]) + std::log(scale(i)));
    Array<double> Linverse(square(g));
    invertlower(at(g), L.data(), Linverse.data());
    inversefromfactor(at(g), Linverse.data(), X.data());
    for (int i = 0; i < g; ++i)
      for (int j = 0; j < g; ++j) X[i * g + j] /= scale(i) * scale(j);
  }
  mulAB(delta.data(), X.data(), total.xr.data(), g, 1, g);
  const double rss = total.rr - dot(delta.data(), total.xr.data(), at(g));
  value.gamma = theta.gammahat.copy();
  for (int i = 0; i < g; ++i) value.gamma[i] += delta[i];
  value.covariance = std::move(X);
  const double log2pi = std::log(2.0 * std::numbers::pi);
  value.loglik = -0.5 * (pass.nunits1 * log2pi + logdet + rss);
  value.restricted = value.loglik + 0.5 * (g * log2pi + logdetPhi);
  value.known = std::isfinite(value.loglik) && std::isfinite(value.restricted);
  return value;
}

MarginalDerivatives marginalderivatives(Pass& pass, MarginalSums& sums, const Estimates& theta,
                                        const MarginalValue& value, Criterion criterion, Derivatives wanted) {
  const int p = pass.p, C = columnsof(pass);
  const double s = theta.sigma2;
  DerivativeSums total(pass, wanted == Derivatives::all);
  Level2Unit unit2(p, C);
  Level3Unit unit3(pass);
  const std::size_t last = at(total.NT - 1);
  const double left = pass.nunits1 - static_cast<double>(pass.mdm().nunits2) * p;
  total.t[last] = left / s;
  if (total.all) total.T[DerivativeSums::pair(total.NT - 1, total.NT - 1)] = left / (s * s);
  const std::size_t stride2 = pass.store.hot.stride(), strideC = sums.coefficients.stride();
  sweeplevel3(
      pass.n2of,
      [&](int k, std::size_t, const double* hot, const double* coefficients) {
        const auto eachunit = [&](auto use) {
          for (std::size_t j = 0; j < at(pass.n2of[k]); ++j) {
            takeunit(pass, k, hot + j * stride2, coefficients + j * strideC, unit3.theta.data(), unit2);
            resolveunit(pass, theta, unit2);
            resolvehigher(pass, s, unit2);
            use();
          }
        };
        beginunit(pass, sums, theta, value.gamma.data(), k, unit3);
        eachunit([&] {
          mulABt(unit2.H3.data(), unit2.H2.data(), unit2.R.data(), C, p, p);
          addABt(unit3.G1.data(), unit2.beta.data(), unit2.H1.data(), C, C, p);
          addABt(unit3.G2.data(), unit2.beta.data(), unit2.H2.data(), C, C, p);
          addABt(unit3.G3.data(), unit2.beta.data(), unit2.H3.data(), C, C, p);
        });
        level3value(pass, theta, unit3);
        level3derivatives(pass, theta, unit3);
        beginlevel3(total);
        eachunit([&] {
          projectunit(total, unit3, unit2);
          addlevel2(total, s, unit2);
        });
        endtaupi(total, unit3);
        endtaubeta(total, unit3);
        endsigma2(total, unit3);
      },
      reading(pass.store.hot), reading(sums.coefficients));
  return derivativesof(total, value, criterion);
}

}  // namespace kdr
