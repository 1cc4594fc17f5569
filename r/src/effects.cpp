// Random effects given estimates: conditional modes and their conditional covariances; and the level at which a column
// varies.
//
// Effects are worked with in the form u = L a, v = M c with T(pi) = L L', T(beta) = M M' and a, c standard normal, so
// that variances at the edge need no inverse. With F = Z2 L, G = Z3 M and the weights W of the records (for an outcome
// that is not normal those of the working model, mu'(eta)) the mode solves
//
//   [ I + F'WF    F'WG   ] [a]   [F' g - a]
//   [  G'WF     I + G'WG ] [c] = [G' g - c]      g = y - mu (normal: W (y - mu))
//
// by Newton steps. The first block consists of one p x p matrix A_j for each level-2 unit; the second, less what the
// units of level 2 explain, is S_k = I + G'WG - sum B_j' A_j^-1 B_j, b x b, of each level-3 unit.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "glue.h"

namespace {

using Vector = std::vector<double>;
using std::size_t;

// Lower triangle of the Cholesky factor of a symmetric n x n matrix, in its place. The matrices here are I plus a
// semi-definite one.
void factor(double* a, size_t n) {
  for (size_t j = 0; j < n; ++j) {
    double pivot = a[j * n + j];
    for (size_t k = 0; k < j; ++k) pivot -= a[j * n + k] * a[j * n + k];
    if (!(pivot > 0.0) || !std::isfinite(pivot))
      throw std::runtime_error("The random effects given the estimates can't be computed.");
    a[j * n + j] = std::sqrt(pivot);
    for (size_t i = j + 1; i < n; ++i) {
      double sum = a[i * n + j];
      for (size_t k = 0; k < j; ++k) sum -= a[i * n + k] * a[j * n + k];
      a[i * n + j] = sum / a[j * n + j];
    }
  }
}

// x = (C C')^-1 x for `columns` right-hand sides x [n x columns].
void solve(const double* c, size_t n, double* x, size_t columns) {
  for (size_t m = 0; m < columns; ++m) {
    for (size_t i = 0; i < n; ++i) {
      for (size_t k = 0; k < i; ++k) x[i * columns + m] -= c[i * n + k] * x[k * columns + m];
      x[i * columns + m] /= c[i * n + i];
    }
    for (size_t i = n; i-- > 0;) {
      for (size_t k = i + 1; k < n; ++k) x[i * columns + m] -= c[k * n + i] * x[k * columns + m];
      x[i * columns + m] /= c[i * n + i];
    }
  }
}

enum class Outcome { normal, binomial, poisson };

// The records and the model. Matrices of R stand column by column.
struct Problem {
  Outcome outcome = Outcome::normal;
  size_t n = 0, p = 0, b = 0, units2 = 0, units3 = 0;
  const double *eta = nullptr, *y = nullptr, *weight = nullptr;  // weight: 1 / variance, or trials
  const int *unit2 = nullptr, *unit3of2 = nullptr;               // from 1
  Vector f, g;                                                   // [n x p], [n x b], row by row

  [[nodiscard]] size_t at2(size_t i) const { return static_cast<size_t>(unit2[i] - 1); }
  [[nodiscard]] size_t at3(size_t j) const { return static_cast<size_t>(unit3of2[j] - 1); }
};

// What a record has at its linear predictor: log-likelihood (but for constants), y - mu in the working unit, weight.
struct Point {
  double loglik, gradient, weight;
};

Point pointof(const Problem& problem, size_t i, double eta) {
  const double y = problem.y[i], w = problem.weight[i];
  switch (problem.outcome) {
    case Outcome::binomial: {
      const double t = std::exp(-std::fabs(eta)), mu = eta > 0 ? 1 / (1 + t) : t / (1 + t);
      return {y * eta - w * (std::max(eta, 0.0) + std::log1p(t)), y - w * mu, w * t / ((1 + t) * (1 + t))};
    }
    case Outcome::poisson: {
      const double mu = w * std::exp(eta);
      return {y * eta - mu, y - mu, mu};
    }
    default:
      return {-w * (y - eta) * (y - eta) / 2, w * (y - eta), w};
  }
}

// The matrices of the units, factored, and the effects.
struct Units {
  Vector A, B, S;  // [units2 x p x p] factored, [units2 x p x b], [units3 x b x b] factored
  Vector a, c;     // [units2 x p], [units3 x b]
  Vector loglik;   // [units3]
};

double dot(const double* x, const double* y, size_t n) {
  double sum = 0.0;
  for (size_t k = 0; k < n; ++k) sum += x[k] * y[k];
  return sum;
}

double predictor(const Problem& problem, size_t i, const Vector& a, const Vector& c) {
  const size_t j = problem.at2(i);
  return problem.eta[i] + dot(&problem.f[i * problem.p], &a[j * problem.p], problem.p) +
         dot(&problem.g[i * problem.b], &c[problem.at3(j) * problem.b], problem.b);
}

// Penalised log-likelihood of each level-3 unit.
Vector value(const Problem& problem, const Vector& a, const Vector& c) {
  Vector values(problem.units3);
  for (size_t i = 0; i < problem.n; ++i)
    values[problem.at3(problem.at2(i))] += pointof(problem, i, predictor(problem, i, a, c)).loglik;
  for (size_t j = 0; j < problem.units2; ++j)
    values[problem.at3(j)] -= dot(&a[j * problem.p], &a[j * problem.p], problem.p) / 2;
  for (size_t k = 0; k < problem.units3; ++k) values[k] -= dot(&c[k * problem.b], &c[k * problem.b], problem.b) / 2;
  return values;
}

// F'g and G'g of a vector of the records.
void products(const Problem& problem, const Vector& gradient, Vector& r, Vector& s) {
  const size_t p = problem.p, b = problem.b;
  r.assign(problem.units2 * p, 0.0);
  s.assign(problem.units3 * b, 0.0);
  for (size_t i = 0; i < problem.n; ++i) {
    const size_t j = problem.at2(i), k = problem.at3(j);
    for (size_t x = 0; x < p; ++x) r[j * p + x] += problem.f[i * p + x] * gradient[i];
    for (size_t x = 0; x < b; ++x) s[k * b + x] += problem.g[i * b + x] * gradient[i];
  }
}

// A, B and S at the weights of the records, factored.
void matrices(const Problem& problem, const Vector& weight, Units& units) {
  const size_t p = problem.p, b = problem.b;
  units.A.assign(problem.units2 * p * p, 0.0);
  units.B.assign(problem.units2 * p * b, 0.0);
  units.S.assign(problem.units3 * b * b, 0.0);
  for (size_t i = 0; i < problem.n; ++i) {
    const size_t j = problem.at2(i), k = problem.at3(j);
    const double *f = &problem.f[i * p], *g = &problem.g[i * b];
    for (size_t x = 0; x < p; ++x) {
      for (size_t y = 0; y <= x; ++y) units.A[(j * p + x) * p + y] += f[x] * f[y] * weight[i];
      for (size_t y = 0; y < b; ++y) units.B[(j * p + x) * b + y] += f[x] * g[y] * weight[i];
    }
    for (size_t x = 0; x < b; ++x)
      for (size_t y = 0; y <= x; ++y) units.S[(k * b + x) * b + y] += g[x] * g[y] * weight[i];
  }
  Vector solved(p * b);
  for (size_t j = 0; j < problem.units2; ++j) {
    double *A = &units.A[j * p * p], *S = &units.S[problem.at3(j) * b * b];
    for (size_t x = 0; x < p; ++x) A[x * p + x] += 1.0;
    factor(A, p);
    const double* B = &units.B[j * p * b];
    std::copy(B, B + p * b, solved.begin());
    solve(A, p, solved.data(), b);
    for (size_t x = 0; x < b; ++x)
      for (size_t y = 0; y <= x; ++y)
        for (size_t q = 0; q < p; ++q) S[x * b + y] -= B[q * b + x] * solved[q * b + y];
  }
  for (size_t k = 0; k < problem.units3; ++k) {
    for (size_t x = 0; x < b; ++x) units.S[(k * b + x) * b + x] += 1.0;
    factor(&units.S[k * b * b], b);
  }
}

// [r; s] becomes the solution of the system above.
void solveunits(const Problem& problem, const Units& units, Vector& r, Vector& s) {
  const size_t p = problem.p, b = problem.b;
  for (size_t j = 0; j < problem.units2; ++j) {
    solve(&units.A[j * p * p], p, &r[j * p], 1);
    for (size_t y = 0; y < b; ++y)
      for (size_t q = 0; q < p; ++q) s[problem.at3(j) * b + y] -= units.B[(j * p + q) * b + y] * r[j * p + q];
  }
  for (size_t k = 0; k < problem.units3; ++k) solve(&units.S[k * b * b], b, &s[k * b], 1);
  Vector taken(p);
  for (size_t j = 0; j < problem.units2; ++j) {
    for (size_t q = 0; q < p; ++q) taken[q] = dot(&units.B[(j * p + q) * b], &s[problem.at3(j) * b], b);
    solve(&units.A[j * p * p], p, taken.data(), 1);
    for (size_t q = 0; q < p; ++q) r[j * p + q] -= taken[q];
  }
}

// Newton steps to the modes, each level-3 unit's halved until its penalised likelihood doesn't fall.
void findmodes(const Problem& problem, Units& units) {
  const size_t p = problem.p, b = problem.b;
  units.a.assign(problem.units2 * p, 0.0);
  units.c.assign(problem.units3 * b, 0.0);
  Vector gradient(problem.n), weight(problem.n), r, s;
  Vector before = problem.outcome == Outcome::normal ? Vector() : value(problem, units.a, units.c);
  for (int step = 0; step < 200; ++step) {
    for (size_t i = 0; i < problem.n; ++i) {
      const Point point = pointof(problem, i, predictor(problem, i, units.a, units.c));
      gradient[i] = point.gradient;
      weight[i] = point.weight;
    }
    matrices(problem, weight, units);
    products(problem, gradient, r, s);
    for (size_t x = 0; x < r.size(); ++x) r[x] -= units.a[x];
    for (size_t x = 0; x < s.size(); ++x) s[x] -= units.c[x];
    Vector da = r, dc = s;
    solveunits(problem, units, da, dc);
    const double decrement = dot(r.data(), da.data(), r.size()) + dot(s.data(), dc.data(), s.size());
    Vector a = units.a, c = units.c;
    for (size_t x = 0; x < a.size(); ++x) a[x] += da[x];
    for (size_t x = 0; x < c.size(); ++x) c[x] += dc[x];
    if (problem.outcome == Outcome::normal) {
      units.a = std::move(a);
      units.c = std::move(c);
      return;
    }
    Vector now = value(problem, a, c);
    for (int half = 0; half < 40; ++half) {
      bool fell = false;
      const auto lower = [&](size_t k) { return !(now[k] >= before[k] - 1e-10 * (1 + std::fabs(before[k]))); };
      for (size_t j = 0; j < problem.units2; ++j)
        if (lower(problem.at3(j)))
          for (size_t x = j * p; x < (j + 1) * p; ++x) a[x] = (a[x] + units.a[x]) / 2;
      for (size_t k = 0; k < problem.units3; ++k) {
        if (!lower(k)) continue;
        fell = true;
        for (size_t x = k * b; x < (k + 1) * b; ++x) c[x] = (c[x] + units.c[x]) / 2;
      }
      if (!fell) break;
      now = value(problem, a, c);
    }
    units.a = std::move(a);
    units.c = std::move(c);
    before = std::move(now);
    if (decrement < 1e-16 * static_cast<double>(problem.units2 + problem.units3)) return;
  }
  throw std::runtime_error("The modes of the random effects were not found.");
}

// L x for x [rows of n], both row by row.
Vector times(const double* L, size_t n, const Vector& x) {
  Vector made(x.size());
  for (size_t row = 0; n > 0 && row < x.size() / n; ++row)
    for (size_t i = 0; i < n; ++i)
      for (size_t k = 0; k < n; ++k) made[row * n + i] += L[k * n + i] * x[row * n + k];
  return made;
}

struct Effects {
  std::string error;
  Vector u, v, eta;          // [units2 x p], [units3 x b], [n]
  Vector cov2, cov3, cov23;  // conditional covariances [p x p], [b x b], [p x b] of each unit
};

// Conditional covariances: cov(c) = S^-1, cov(a, c) = -A^-1 B S^-1, cov(a) = A^-1 - A^-1 B cov(c, a); then L . M'.
void covariances(const Problem& problem, const Units& units, const double* L, const double* M, Effects& made) {
  const size_t p = problem.p, b = problem.b;
  made.cov3.resize(problem.units3 * b * b);
  made.cov2.resize(problem.units2 * p * p);
  made.cov23.resize(problem.units2 * p * b);
  Vector inverse(problem.units3 * b * b);
  const auto sandwich = [](const double* X, size_t rows, const double* middle, const double* Y, size_t columns,
                           double* to) {
    for (size_t i = 0; i < rows; ++i)
      for (size_t j = 0; j < columns; ++j) {
        double sum = 0.0;
        for (size_t k = 0; k < rows; ++k)
          for (size_t l = 0; l < columns; ++l) sum += X[k * rows + i] * middle[k * columns + l] * Y[l * columns + j];
        to[i + j * rows] = sum;
      }
  };
  for (size_t k = 0; k < problem.units3; ++k) {
    double* I = &inverse[k * b * b];
    for (size_t x = 0; x < b; ++x) I[x * b + x] = 1.0;
    solve(&units.S[k * b * b], b, I, b);
    sandwich(M, b, I, M, b, &made.cov3[k * b * b]);
  }
  Vector H(p * b), C(p * b), V(p * p);
  for (size_t j = 0; j < problem.units2; ++j) {
    const double *A = &units.A[j * p * p], *I = &inverse[problem.at3(j) * b * b];
    std::copy_n(&units.B[j * p * b], p * b, H.begin());
    solve(A, p, H.data(), b);
    for (size_t x = 0; x < p; ++x)
      for (size_t y = 0; y < b; ++y) {
        C[x * b + y] = 0.0;
        for (size_t z = 0; z < b; ++z) C[x * b + y] -= H[x * b + z] * I[z * b + y];
      }
    std::fill(V.begin(), V.end(), 0.0);
    for (size_t x = 0; x < p; ++x) V[x * p + x] = 1.0;
    solve(A, p, V.data(), p);
    for (size_t x = 0; x < p; ++x)
      for (size_t y = 0; y < p; ++y)
        for (size_t z = 0; z < b; ++z) V[x * p + y] -= H[x * b + z] * C[y * b + z];
    sandwich(L, p, V.data(), L, p, &made.cov2[j * p * p]);
    sandwich(L, p, C.data(), M, b, &made.cov23[j * p * b]);
  }
}

// Z times a factor, row by row.
Vector product(const double* Z, size_t n, size_t columns, const double* L) {
  Vector made(n * columns);
  for (size_t k = 0; k < columns; ++k)
    for (size_t j = 0; j < columns; ++j) {
      const double factor = L[j * columns + k];
      if (factor == 0.0) continue;
      for (size_t i = 0; i < n; ++i) made[i * columns + j] += Z[k * n + i] * factor;
    }
  return made;
}

SEXP matrix(const Vector& values, size_t rows, size_t columns) {
  SEXP made = Rf_allocMatrix(REALSXP, static_cast<int>(rows), static_cast<int>(columns));
  for (size_t i = 0; i < rows; ++i)
    for (size_t j = 0; j < columns; ++j) REAL(made)[i + j * rows] = values[i * columns + j];
  return made;
}

SEXP plain(const Vector& values) {
  SEXP made = Rf_allocVector(REALSXP, static_cast<R_xlen_t>(values.size()));
  std::copy(values.begin(), values.end(), REAL(made));
  return made;
}

// 1 where a column varies within units of level 2, 2 where within those of level 3 only, else 3; of two levels 1 or 2.
bool constant(const double* values, size_t n, const int* unit, Vector& first) {
  std::fill(first.begin(), first.end(), std::nan(""));
  for (size_t i = 0; i < n; ++i) {
    double& seen = first[static_cast<size_t>(unit[i] - 1)];
    if (std::isnan(seen)) seen = values[i];
    if (seen != values[i]) return false;
  }
  return true;
}

}  // namespace

SEXP kdr3r_levels(SEXP columns, SEXP unit2, SEXP unit3) {
  const R_xlen_t count = Rf_xlength(columns);
  SEXP made = PROTECT(Rf_allocVector(INTSXP, count));
  const auto n = static_cast<size_t>(Rf_xlength(unit2));
  const std::string words = sentenceof([&] {
    const auto sizeofcodes = [&](SEXP codes) {
      return n == 0 ? 0 : static_cast<size_t>(*std::max_element(INTEGER(codes), INTEGER(codes) + n));
    };
    Vector first2(sizeofcodes(unit2)), first3(unit3 == R_NilValue ? 0 : sizeofcodes(unit3));
    for (R_xlen_t c = 0; c < count; ++c) {
      const double* values = REAL(VECTOR_ELT(columns, c));
      int level = 1;
      if (constant(values, n, INTEGER(unit2), first2)) level = 2;
      if (level == 2 && unit3 != R_NilValue && constant(values, n, INTEGER(unit3), first3)) level = 3;
      INTEGER(made)[c] = level;
    }
  });
  UNPROTECT(1);
  if (!words.empty()) return R_NilValue;
  return made;
}

SEXP kdr3r_effects(SEXP given) {
  SEXP holder = nullptr;
  Effects* made = owned<Effects>(holder);
  SEXP z2 = element(given, "z2"), z3 = element(given, "z3");
  const auto units2 = static_cast<size_t>(Rf_xlength(element(given, "unit3of2")));
  const auto p = static_cast<size_t>(Rf_ncols(z2)), b = static_cast<size_t>(Rf_ncols(z3));
  const double *L = REAL(element(given, "l2")), *M = REAL(element(given, "l3"));
  made->error = sentenceof([&] {
    Problem problem;
    problem.outcome = static_cast<Outcome>(Rf_asInteger(element(given, "outcome")));
    problem.n = static_cast<size_t>(Rf_xlength(element(given, "y")));
    problem.p = p;
    problem.b = b;
    problem.units2 = units2;
    problem.unit2 = INTEGER(element(given, "unit2"));
    problem.unit3of2 = INTEGER(element(given, "unit3of2"));
    for (size_t j = 0; j < units2; ++j) problem.units3 = std::max(problem.units3, problem.at3(j) + 1);
    problem.eta = REAL(element(given, "eta"));
    problem.y = REAL(element(given, "y"));
    problem.weight = REAL(element(given, "weight"));
    problem.f = product(REAL(z2), problem.n, p, L);
    problem.g = product(REAL(z3), problem.n, b, M);
    Units units;
    findmodes(problem, units);
    made->u = times(L, p, units.a);
    made->v = times(M, b, units.c);
    made->eta.resize(problem.n);
    for (size_t i = 0; i < problem.n; ++i) made->eta[i] = predictor(problem, i, units.a, units.c);
    if (problem.outcome != Outcome::normal) {
      Vector weight(problem.n);
      for (size_t i = 0; i < problem.n; ++i) weight[i] = pointof(problem, i, made->eta[i]).weight;
      matrices(problem, weight, units);
    }
    covariances(problem, units, L, M, *made);
  });
  const char* names[] = {"error", "level2", "level3", "eta", "cov2", "cov3", "cov23", ""};
  SEXP list = PROTECT(Rf_mkNamed(VECSXP, names));
  if (made->error.empty()) {
    SET_VECTOR_ELT(list, 1, matrix(made->u, units2, p));
    SET_VECTOR_ELT(list, 2, matrix(made->v, b == 0 ? 0 : made->v.size() / b, b));
    SET_VECTOR_ELT(list, 3, plain(made->eta));
    SET_VECTOR_ELT(list, 4, plain(made->cov2));
    SET_VECTOR_ELT(list, 5, plain(made->cov3));
    SET_VECTOR_ELT(list, 6, plain(made->cov23));
  } else {
    SET_VECTOR_ELT(list, 0, Rf_mkString(made->error.c_str()));
  }
  UNPROTECT(2);
  return list;
}
