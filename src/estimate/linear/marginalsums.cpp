#include "estimate/linear/marginalsums.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <type_traits>
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
  constexpr double nothing = 1.0e-10, ordinary = 1.0e-3;
  // As a rule nothing is left out, and the determinant at a unit diagonal says so: no eigenvalue is below it over p^p.
  const Inversion inversion = invertsymmetric(p, S, X.data());
  double diagonal = 1.0;
  for (int i = 0; i < p; ++i) diagonal *= S[i * p + i];
  if (inversion.result == 0 && !inversion.negative && inversion.determinant > ordinary * diagonal && diagonal > 0.0)
    return;
  Array<double> scaled(square(p)), values(at(p)), vectors(square(p)), scale(at(p));
  for (int i = 0; i < p; ++i) scale[i] = S[i * p + i] > 0.0 ? 1.0 / std::sqrt(S[i * p + i]) : 0.0;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j < p; ++j) scaled[i * p + j] = S[i * p + j] * scale[i] * scale[j];
  spectrum(at(p), scaled.data(), values.data(), vectors.data());
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
  const double* const from = hot + pass.store.atZ1Y;
  const int p = pass.p, size = columnsof(pass) * p;
  for (int i = 0; i < size; ++i) S[i] = from[i];
  if (const double scale = pass.scale3[k]; scale != 1.0)
    for (int i = firstB * p; i < (firstB + pass.b) * p; ++i) S[i] *= scale;
}

// A column that Z1 explains but for rounding is left nothing.
void clearrounding(const double* S, int C, double* left) {
  constexpr double rounding = 1.0e-11;
  for (int i = 0; i < C; ++i) {
    if (left[i * C + i] > rounding * S[i * C + i]) continue;
    for (int j = 0; j < C; ++j) left[i * C + j] = left[j * C + i] = 0.0;
  }
}

// A sum of logarithms with few of them: that of a product, which is kept within bounds.
struct LogProduct {
  double product = 1.0, sum = 0.0;
  void multiply(double x) {
    constexpr double large = 1.0e100, small = 1.0e-100;
    if (!(x < large && x > small)) {
      sum += std::log(x);
      return;
    }
    product *= x;
    if (product < large && product > small) return;
    sum += std::log(product);
    product = 1.0;
  }
  [[nodiscard]] double value() const { return sum + std::log(product); }
};

// The orders that are common have loops of their own: P is the order where it is known to the compiler, 0 elsewhere.
template <int P>
constexpr int orderof(int p) {
  return P > 0 ? P : p;
}
template <class Use>
auto byorder(int p, Use use) {
  switch (p) {
    case 1:
      return use(std::integral_constant<int, 1>{});
    case 2:
      return use(std::integral_constant<int, 2>{});
    case 3:
      return use(std::integral_constant<int, 3>{});
    default:
      return use(std::integral_constant<int, 0>{});
  }
}

// R = (s I + S T)^-1 (n squared, not symmetric), S and T non-negative, T singular or not. `work`: 2 n^2 + n values; the
// determinant goes into `determinant`. Rows are pivoted at the scale that gives S a unit diagonal, so that no unit of
// measurement chooses.
template <int N>
void resolvent(int order, double s, const double* S, const double* T, double* R, double* work,
               LogProduct& determinant) {
  const int n = orderof<N>(order), width = 2 * n;
  double* const M = work;  // [s I + S T | I]
  double* const weight = work + 2 * n * n;
  for (int i = 0; i < n; ++i) {
    weight[i] = S[i * n + i] > 0.0 ? S[i * n + i] : 1.0;
    for (int j = 0; j < n; ++j) {
      double sum = i == j ? s : 0.0;
      for (int l = 0; l < n; ++l) sum += S[i * n + l] * T[l * n + j];
      M[i * width + j] = sum;
      M[i * width + n + j] = i == j ? 1.0 : 0.0;
    }
  }
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    const auto size = [&](int i) { return M[i * width + c] * M[i * width + c]; };
    for (int i = c + 1; i < n; ++i)
      if (size(i) * weight[pivot] > size(pivot) * weight[i]) pivot = i;
    if (pivot != c) {
      std::swap(weight[pivot], weight[c]);
      for (int j = 0; j < width; ++j) std::swap(M[pivot * width + j], M[c * width + j]);
    }
    const double head = M[c * width + c], inverse = 1.0 / head;
    determinant.multiply(std::fabs(head));
    for (int j = c; j < width; ++j) M[c * width + j] *= inverse;
    for (int i = 0; i < n; ++i) {
      if (i == c) continue;
      const double factor = M[i * width + c];
      for (int j = c; j < width; ++j) M[i * width + j] -= factor * M[c * width + j];
    }
  }
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) R[i * n + j] = M[i * width + n + j];
}

// out = rows X' (C by p).
template <int P>
void timestransposed(double* out, const double* rows, const double* X, int C, int order) {
  const int p = orderof<P>(order);
  for (int c = 0; c < C; ++c)
    for (int i = 0; i < p; ++i) {
      double sum = 0.0;
      for (int l = 0; l < p; ++l) sum += rows[c * p + l] * X[i * p + l];
      out[c * p + i] = sum;
    }
}

// The lower triangle of G += A H' (C squared), which is symmetric.
template <int P>
void addgram(double* G, const double* A, const double* H, int C, int order) {
  const int p = orderof<P>(order);
  for (int c = 0; c < C; ++c)
    for (int d = 0; d <= c; ++d) {
      double sum = 0.0;
      for (int i = 0; i < p; ++i) sum += A[c * p + i] * H[d * p + i];
      G[c * C + d] += sum;
    }
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
  Array<double> S, beta;               // S_A' and beta'
  Array<double> SAA, R;                // p squared
  Array<double> H1, H2, H3;            // S_A' R', S_A' R'R', ...: (A'W^-m [r | B])'
  Array<double> K1, K2;                // p squared: A'W^-m A
  double traceR = 0.0, traceRR = 0.0;  // tr(sR), tr((sR)^2)
  Array<double> work;

  Level2Unit(int p, int C) : SAA(square(p)), R(square(p)), K1(square(p)), K2(square(p)), work(2 * square(p) + at(p)) {
    for (Array<double>* m : {&S, &beta, &H1, &H2, &H3}) m->reset(at(C * p));
  }
};

// Row 0 becomes that of r = Y - B theta.
template <int P>
void takeresidual(double* rows, int nb, int order, const double* theta) {
  const int p = orderof<P>(order);
  for (int m = 0; m < nb; ++m)
    for (int i = 0; i < p; ++i) rows[i] -= theta[m] * rows[(firstB + m) * p + i];
}

// The unit's products, R, H1.
template <int P>
void resolveunit(const Pass& pass, int k, const Estimates& at0, const double* hot, const double* theta,
                 Level2Unit& unit, LogProduct& determinant) {
  const int p = orderof<P>(pass.p);
  unpack(p, hot, unit.SAA.data());
  takeproducts(pass, k, hot, unit.S.data());
  takeresidual<P>(unit.S.data(), pass.nbeta, p, theta);
  resolvent<P>(p, at0.sigma2, unit.SAA.data(), at0.taupi.data(), unit.R.data(), unit.work.data(), determinant);
  timestransposed<P>(unit.H1.data(), unit.S.data(), unit.R.data(), columnsof(pass), p);
}

// beta, of the residual.
template <int P>
void takecoefficients(const Pass& pass, const double* coefficients, const double* theta, Level2Unit& unit) {
  const int p = orderof<P>(pass.p), size = columnsof(pass) * p;
  for (int i = 0; i < size; ++i) unit.beta[i] = coefficients[i];
  takeresidual<P>(unit.beta.data(), pass.nbeta, p, theta);
}

// What the second visit to a unit has from the first: S_AA, R, H1, H2.
template <class Use>
void eachkept(Level2Unit& unit, Use use) {
  for (Array<double>* m : {&unit.SAA, &unit.R, &unit.H1, &unit.H2}) use(*m);
}
void keepunit(Level2Unit& unit, double* kept) {
  eachkept(unit, [&](const Array<double>& m) {
    for (const double x : m) *kept++ = x;
  });
}
void recallunit(const double* kept, Level2Unit& unit) {
  eachkept(unit, [&](Array<double>& m) {
    for (double& x : m) x = *kept++;
  });
}

template <int P>
void tracesof(double s, int order, Level2Unit& unit) {
  const int p = orderof<P>(order);
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
  Array<double> Y1, Y2, Y3;               // C squared: [r | B]'V^-m [r | B]
  Array<double> bC, bb, work;

  Level3Unit(const Pass& pass) : weights(pass.design.owner3.size()), theta(at(pass.nbeta)) {
    const int b = pass.b, C = columnsof(pass);
    for (Array<double>* m : {&G1, &G2, &G3, &Y1, &Y2, &Y3}) m->reset(square(C));
    for (Array<double>* m : {&C1, &C2, &C3, &Rb, &N, &NC2N, &Ct, &Ct2, &bb}) m->reset(square(b));
    for (Array<double>* m : {&F, &F2, &TF, &TF2, &bC}) m->reset(at(b * C));
    work.reset(2 * square(b) + at(b));
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
void level3value(const Pass& pass, const Estimates& theta, Level3Unit& unit, LogProduct& determinant) {
  const int b = pass.b, C = columnsof(pass);
  const double* Tb = theta.taubeta.data();
  mirror(C, unit.G1.data());
  takeZ2(unit.G1.data(), C, b, unit.C1.data());
  resolvent<0>(b, 1.0, unit.C1.data(), Tb, unit.Rb.data(), unit.work.data(), determinant);
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

using Form = LevelForm;

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
  Form V;  // of V^-1
  LogProduct determinant;
  Array<double> t;      // [NT]
  std::vector<Form> P;  // [NT]
  Array<double> Qrr;    // pairs
  std::vector<Form> Q;  // pairs, with `all`; one of Q_ij and its transpose
  Array<double> T;      // pairs, with `all`
  // Of one level-3 unit: forms in [r | B] (C squared) of the elements of taupi, of their pairs and of their pairs with
  // sigma2, the last two of r alone without `all`; b by C and b squared for each element.
  UnitTable<double> P2, Q22, Q2s, Y, Lambda;
  Array<double> U, U2, NL, LNL, Kf, KM, O;  // of one level-2 unit
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
        V(pass.g),
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
    NL.reset(at(b * p));
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
template <int P, bool all>
void projectunit(DerivativeSums& sums, const Level3Unit& unit3, Level2Unit& unit) {
  const int p = orderof<P>(sums.p), b = sums.b, C = sums.C;
  double* const K = unit.K1.data();
  const double *const L = unit.H1.data() + firstB * p, *const L2 = unit.H2.data() + firstB * p;
  timestransposed<P>(K, unit.R.data(), unit.SAA.data(), p, p);  // R S_AA, which is symmetric
  // LNL = L'N L
  for (std::size_t i = 0; i < square(p); ++i) sums.LNL[i] = 0.0;
  for (int a = 0; a < b; ++a)
    for (int i = 0; i < p; ++i) {
      double sum = 0.0;
      for (int c = 0; c < b; ++c) sum += unit3.N[a * b + c] * L[c * p + i];
      sums.NL[a * p + i] = sum;
      for (int l = 0; l < p; ++l) sums.LNL[l * p + i] += L[a * p + l] * sum;
    }
  for (std::size_t i = 0; i < square(p); ++i) sums.Kf[i] = K[i] - sums.LNL[i];
  if (all) {
    for (std::size_t i = 0; i < square(p); ++i) sums.KM[i] = K[i] - 2.0 * sums.LNL[i];
    // O = K2 - L2'N L - L'N L2 + L'N C2 N L
    timestransposed<P>(unit.K2.data(), unit.R.data(), K, p, p);
    std::copy(unit.K2.begin(), unit.K2.end(), sums.O.data());
    for (int a = 0; a < b; ++a)
      for (int i = 0; i < p; ++i) {
        double bent = 0.0;
        for (int c = 0; c < b; ++c) bent += unit3.NC2N[a * b + c] * L[c * p + i];
        for (int l = 0; l < p; ++l) {
          const double product = L2[a * p + l] * sums.NL[a * p + i];
          sums.O[l * p + i] += L[a * p + l] * bent - product;
          sums.O[i * p + l] -= product;
        }
      }
  }
  // H1 - L TF and, of r alone without `all`, H2 - L2 TF - L TF2.
  for (int c = 0; c < C; ++c)
    for (int i = 0; i < p; ++i) {
      double u = unit.H1[c * p + i];
      for (int a = 0; a < b; ++a) u -= unit3.TF[a * C + c] * L[a * p + i];
      sums.U[i * C + c] = u;
    }
  for (int c = 0; c < (all ? C : 1); ++c)
    for (int i = 0; i < p; ++i) {
      double u = unit.H2[c * p + i];
      for (int a = 0; a < b; ++a) u -= unit3.TF[a * C + c] * L2[a * p + i] + unit3.TF2[a * C + c] * L[a * p + i];
      sums.U2[i * C + c] = u;
    }
}

// The share of a level-2 unit: what is a sum over the units of k.
template <int P, bool all>
void addlevel2(DerivativeSums& sums, double s, const Level2Unit& unit) {
  const int p = orderof<P>(sums.p), b = sums.b, C = sums.C, last = sums.NT - 1;
  const double* const K = unit.K1.data();
  const double* const L = unit.H1.data() + firstB * p;
  const auto U = [&](int i) { return sums.U.data() + i * C; };
  const auto U2 = [&](int i) { return sums.U2.data() + i * C; };
  const auto outer = [C](double* X, double factor, const double* x, const double* y) {
    for (int c = 0; c < (all ? C : 1); ++c) {
      const double f = factor * x[c];
      for (int d = 0; d < (all ? C : 1); ++d) X[c * C + d] += f * y[d];
    }
  };
  int e = 0;
  for (int r = 0; r < p; ++r)
    for (int q = 0; q <= r; ++q, ++e) {
      const Element E{r, q};
      sums.t[e] += E.of(sums.Kf.data(), p);
      double *const P2 = sums.P2.row(e), *const Q2s = sums.Q2s.row(e), *const Y = sums.Y.row(e),
                    *const Lambda = sums.Lambda.row(e);
      E.each([&](int i, int j) {
        const double *const x = U(i), *const y = U(j);
        for (int c = 0; c < C; ++c)
          for (int d = 0; d <= c; ++d) P2[c * C + d] += x[c] * y[d];
        outer(Q2s, 1.0, x, U2(j));
        for (int a = 0; a < b; ++a) {
          const double l = L[a * p + i];
          for (int c = 0; c < (all ? C : 1); ++c) Y[a * C + c] += l * y[c];
          if (!all) continue;
          for (int c = 0; c < b; ++c) Lambda[a * b + c] += l * L[c * p + j];
        }
      });
      int f = 0;
      for (int v = 0; v < p; ++v)
        for (int w = 0; w <= v && f <= e; ++w, ++f) {
          const Element F{v, w};
          double* const Q = sums.Q22.row(e * (e + 1) / 2 + f);
          E.each([&](int i, int j) { F.each([&](int k, int l) { outer(Q, K[j * p + k], U(i), U(l)); }); });
          if (all) sums.T[DerivativeSums::pair(e, f)] += doubletrace(E, K, F, sums.KM.data(), p);
        }
      if (all) sums.T[DerivativeSums::pair(last, e)] += E.of(sums.O.data(), p);
    }
  sums.t[last] += unit.traceR / s;
  if (all) sums.T[DerivativeSums::pair(last, last)] += unit.traceRR / (s * s);
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
    mirror(C, sums.P2.row(e));
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

// P of r - M change, of which only the part of r alone is asked for.
double rrchanged(const Form& P, const Array<double>& change) {
  const int g = static_cast<int>(change.size());
  double rr = P.rr;
  for (int a = 0; a < g; ++a) rr += change[a] * (dot(P.xx.data() + at(a * g), change.data(), at(g)) - 2.0 * P.xr[a]);
  return rr;
}

// Score and informations from the sums, with tr(Phi Px_i), Phi Px_i and pr_i.
// The score belongs to the fixed effects that are best, which differ by `change` from those of the sums.
MarginalDerivatives derivativesof(const DerivativeSums& sums, const MarginalValue& value, Criterion criterion,
                                  const Array<double>& change) {
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
    made.score[i] = -0.5 * (sums.t[i] - (restricted ? trace : 0.0) - rrchanged(sums.P[i], change));
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

namespace {

// One sweep with one visit to each unit; visit(k, unit) has Y1 of each level-3 unit.
template <class Visit>
void sweepvalues(Pass& pass, MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                 LogProduct& determinant, Visit visit) {
  const int p = pass.p, C = columnsof(pass);
  Level2Unit unit2(p, C);
  Level3Unit unit3(pass);
  byorder(p, [&](auto order) {
    constexpr int P = decltype(order)::value;
    sweepunits(
        pass.n2of, [&](int k) { beginunit(pass, sums, theta, gamma.data(), k, unit3); },
        [&](int k, std::size_t, const double* hot, const double* coefficients) {
          resolveunit<P>(pass, k, theta, hot, unit3.theta.data(), unit2, determinant);
          takecoefficients<P>(pass, coefficients, unit3.theta.data(), unit2);
          addgram<P>(unit3.G1.data(), unit2.beta.data(), unit2.H1.data(), C, p);
        },
        [&](int k) {
          level3value(pass, theta, unit3, determinant);
          visit(k, unit3);
        },
        reading(pass.store.hot), reading(sums.coefficients));
  });
}

// The value at theta from r'V^-1 r and its like, r at the fixed effects of theta, and from the logarithm of the product
// of the determinants; `change` (g) receives what the best fixed effects differ by.
MarginalValue valueof(const Pass& pass, const Estimates& theta, const Form& total, double logdeterminants,
                      Array<double>& change) {
  const int g = pass.g;
  MarginalValue value;
  // gamma = gamma0 + Phi M'V^-1 r
  Array<double> X(square(g));
  change.reset(at(g));
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
  mulAB(change.data(), X.data(), total.xr.data(), g, 1, g);
  const double rss = total.rr - dot(change.data(), total.xr.data(), at(g));
  value.gamma = theta.gammahat.copy();
  for (int i = 0; i < g; ++i) value.gamma[i] += change[i];
  value.covariance = std::move(X);
  const double logdet =
      (pass.nunits1 - static_cast<double>(pass.mdm().nunits2) * pass.p) * std::log(theta.sigma2) + logdeterminants;
  const double log2pi = std::log(2.0 * std::numbers::pi);
  value.loglik = -0.5 * (pass.nunits1 * log2pi + logdet + rss);
  value.restricted = value.loglik + 0.5 * (g * log2pi + logdetPhi);
  value.known = std::isfinite(value.loglik) && std::isfinite(value.restricted);
  return value;
}

}  // namespace

void eachlevel3form(Pass& pass, MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                    const std::function<void(int k, const LevelForm& form)>& use) {
  LogProduct unused;
  sweepvalues(pass, sums, theta, gamma, unused, [&](int k, const Level3Unit& unit) {
    Form form(pass.g);
    addform(pass, unit, unit.Y1.data(), form);
    use(k, form);
  });
}

MarginalValue marginalvalue(Pass& pass, MarginalSums& sums, const Estimates& theta) {
  if (!(theta.sigma2 > 0.0) || !std::isfinite(theta.sigma2)) return {};
  Form total(pass.g);  // of V^-1, with r at the fixed effects of theta
  LogProduct determinant;
  sweepvalues(pass, sums, theta, theta.gammahat, determinant,
              [&](int, const Level3Unit& unit) { addform(pass, unit, unit.Y1.data(), total); });
  Array<double> change;
  return valueof(pass, theta, total, determinant.value(), change);
}

namespace {

// One sweep: two visits to the units of each level-3 unit, of which the second has from the first what fits into some
// memory.
template <int P>
void sweepderivatives(Pass& pass, MarginalSums& sums, const Estimates& theta, const double* gamma,
                      DerivativeSums& total) {
  constexpr std::size_t mostkept = std::size_t{1} << 22;  // in values
  const int p = orderof<P>(pass.p), C = total.C;
  const double s = theta.sigma2;
  Level2Unit unit2(p, C);
  Level3Unit unit3(pass);
  LogProduct unused;
  Array<double> kept;
  const std::size_t stride2 = pass.store.hot.stride(), strideC = sums.coefficients.stride();
  const std::size_t width = 2 * square(p) + 2 * at(C * p);
  sweeplevel3(
      pass.n2of,
      [&](int k, std::size_t, const double* hot, const double* coefficients) {
        const std::size_t units = at(pass.n2of[k]);
        const bool keep = units * width <= mostkept;
        if (keep && kept.size() < units * width) kept.reset(units * width);
        beginunit(pass, sums, theta, gamma, k, unit3);
        for (std::size_t j = 0; j < units; ++j) {
          resolveunit<P>(pass, k, theta, hot + j * stride2, unit3.theta.data(), unit2, total.determinant);
          takecoefficients<P>(pass, coefficients + j * strideC, unit3.theta.data(), unit2);
          timestransposed<P>(unit2.H2.data(), unit2.H1.data(), unit2.R.data(), C, p);
          timestransposed<P>(unit2.H3.data(), unit2.H2.data(), unit2.R.data(), C, p);
          addgram<P>(unit3.G1.data(), unit2.beta.data(), unit2.H1.data(), C, p);
          addgram<P>(unit3.G2.data(), unit2.beta.data(), unit2.H2.data(), C, p);
          addgram<P>(unit3.G3.data(), unit2.beta.data(), unit2.H3.data(), C, p);
          if (keep) keepunit(unit2, kept.data() + j * width);
        }
        level3value(pass, theta, unit3, total.determinant);
        level3derivatives(pass, theta, unit3);
        addform(pass, unit3, unit3.Y1.data(), total.V);
        beginlevel3(total);
        for (std::size_t j = 0; j < units; ++j) {
          if (keep) {
            recallunit(kept.data() + j * width, unit2);
          } else {
            resolveunit<P>(pass, k, theta, hot + j * stride2, unit3.theta.data(), unit2, unused);
            timestransposed<P>(unit2.H2.data(), unit2.H1.data(), unit2.R.data(), C, p);
          }
          tracesof<P>(s, p, unit2);
          if (total.all) {
            projectunit<P, true>(total, unit3, unit2);
            addlevel2<P, true>(total, s, unit2);
          } else {
            projectunit<P, false>(total, unit3, unit2);
            addlevel2<P, false>(total, s, unit2);
          }
        }
        endtaupi(total, unit3);
        endtaubeta(total, unit3);
        endsigma2(total, unit3);
      },
      reading(pass.store.hot), reading(sums.coefficients));
}

void sumderivatives(Pass& pass, MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                    DerivativeSums& total) {
  const double s = theta.sigma2, left = pass.nunits1 - static_cast<double>(pass.mdm().nunits2) * pass.p;
  const int last = total.NT - 1;
  total.t[last] = left / s;
  if (total.all) total.T[DerivativeSums::pair(last, last)] = left / (s * s);
  byorder(pass.p,
          [&](auto order) { sweepderivatives<decltype(order)::value>(pass, sums, theta, gamma.data(), total); });
}

}  // namespace

MarginalDerivatives marginalderivatives(Pass& pass, MarginalSums& sums, const Estimates& theta,
                                        const MarginalValue& value, Criterion criterion, Derivatives wanted) {
  DerivativeSums total(pass, wanted == Derivatives::all);
  sumderivatives(pass, sums, theta, value.gamma, total);
  return derivativesof(total, value, criterion, Array<double>(at(pass.g)));
}

MarginalStep marginalstep(Pass& pass, MarginalSums& sums, const Estimates& theta, Criterion criterion) {
  constexpr double far = 1.0;  // standard errors, squared
  MarginalStep step;
  if (!(theta.sigma2 > 0.0) || !std::isfinite(theta.sigma2)) return step;
  DerivativeSums total(pass, false);
  sumderivatives(pass, sums, theta, theta.gammahat, total);
  Array<double> change;
  step.value = valueof(pass, theta, total.V, total.determinant.value(), change);
  if (!step.value.known) return step;
  MarginalDerivatives made = dot(change.data(), total.V.xr.data(), change.size()) > far
                                 ? marginalderivatives(pass, sums, theta, step.value, criterion, Derivatives::step)
                                 : derivativesof(total, step.value, criterion, change);
  step.score = std::move(made.score);
  step.average = std::move(made.average);
  return step;
}

}  // namespace kdr
