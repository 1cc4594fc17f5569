// The three-level model written straight from its definition, on full matrices: the oracle of the linear tests.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

namespace dense {

struct Matrix {
  int rows = 0, cols = 0;
  std::vector<double> cells;
  Matrix() = default;
  Matrix(int r, int c) : rows(r), cols(c), cells(static_cast<std::size_t>(r) * static_cast<std::size_t>(c)) {}
  double& operator()(int i, int j) { return cells[static_cast<std::size_t>(i * cols + j)]; }
  double operator()(int i, int j) const { return cells[static_cast<std::size_t>(i * cols + j)]; }
};

inline Matrix operator*(const Matrix& a, const Matrix& b) {
  Matrix c(a.rows, b.cols);
  for (int i = 0; i < a.rows; ++i)
    for (int k = 0; k < a.cols; ++k)
      for (int j = 0; j < b.cols; ++j) c(i, j) += a(i, k) * b(k, j);
  return c;
}
inline Matrix operator+(Matrix a, const Matrix& b) {
  for (std::size_t i = 0; i < a.cells.size(); ++i) a.cells[i] += b.cells[i];
  return a;
}
inline Matrix operator-(Matrix a, const Matrix& b) {
  for (std::size_t i = 0; i < a.cells.size(); ++i) a.cells[i] -= b.cells[i];
  return a;
}
inline Matrix operator*(double s, Matrix a) {
  for (double& x : a.cells) x *= s;
  return a;
}
inline Matrix t(const Matrix& a) {
  Matrix b(a.cols, a.rows);
  for (int i = 0; i < a.rows; ++i)
    for (int j = 0; j < a.cols; ++j) b(j, i) = a(i, j);
  return b;
}
inline double trace(const Matrix& a) {
  double s = 0;
  for (int i = 0; i < a.rows; ++i) s += a(i, i);
  return s;
}

// Inverse by Gauss-Jordan with pivoting; logdet receives log |det|.
inline Matrix inverse(Matrix a, double* logdet = nullptr) {
  const int n = a.rows;
  Matrix b(n, n);
  double sum = 0;
  for (int i = 0; i < n; ++i) b(i, i) = 1;
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    for (int r = c; r < n; ++r)
      if (std::fabs(a(r, c)) > std::fabs(a(pivot, c))) pivot = r;
    for (int j = 0; j < n; ++j) {
      std::swap(a(c, j), a(pivot, j));
      std::swap(b(c, j), b(pivot, j));
    }
    const double d = a(c, c);
    sum += std::log(std::fabs(d));
    for (int j = 0; j < n; ++j) {
      a(c, j) /= d;
      b(c, j) /= d;
    }
    for (int r = 0; r < n; ++r) {
      const double f = a(r, c);
      if (r == c || f == 0) continue;
      for (int j = 0; j < n; ++j) {
        a(r, j) -= f * a(c, j);
        b(r, j) -= f * b(c, j);
      }
    }
  }
  if (logdet != nullptr) *logdet = sum;
  return b;
}

// One level-3 unit: Y (n by 1), M (n by g), Z1 (n by p) with the level-2 unit of each record, Z2 (n by b).
struct Unit {
  Matrix Y, M, Z1, Z2;
  std::vector<int> unit2;
  int units2 = 0;

  // Z1 as a block matrix, n by units2 * p.
  [[nodiscard]] Matrix blockZ1() const {
    const int p = Z1.cols;
    Matrix Z(Y.rows, units2 * p);
    for (int i = 0; i < Y.rows; ++i)
      for (int c = 0; c < p; ++c) Z(i, unit2[static_cast<std::size_t>(i)] * p + c) = Z1(i, c);
    return Z;
  }
};

struct Parameters {
  Matrix T, L;
  double s = 1;
};

inline Matrix identity(int n) {
  Matrix a(n, n);
  for (int i = 0; i < n; ++i) a(i, i) = 1;
  return a;
}

// V = s I + Z1 T Z1' (within level-2 units) + Z2 L Z2'
inline Matrix V(const Unit& u, const Parameters& x) {
  Matrix v = x.s * identity(u.Y.rows) + u.Z2 * x.L * t(u.Z2);
  const Matrix ztz = u.Z1 * x.T * t(u.Z1);
  for (int i = 0; i < v.rows; ++i)
    for (int j = 0; j < v.rows; ++j)
      if (u.unit2[static_cast<std::size_t>(i)] == u.unit2[static_cast<std::size_t>(j)]) v(i, j) += ztz(i, j);
  return v;
}

// dV by parameter q: the lower triangle of T by rows, of L by rows, then s.
inline Matrix dV(const Unit& u, const Parameters& x, int q) {
  const auto place = [](int n, int e) {
    for (int i = 0; i < n; ++i)
      if (e <= i)
        return std::pair<int, int>(i, e);
      else
        e -= i + 1;
    return std::pair<int, int>(-1, -1);
  };
  const int nt = x.T.rows * (x.T.rows + 1) / 2, nl = x.L.rows * (x.L.rows + 1) / 2;
  Parameters d{Matrix(x.T.rows, x.T.rows), Matrix(x.L.rows, x.L.rows), 0};
  if (q < nt) {
    const auto [i, j] = place(x.T.rows, q);
    d.T(i, j) = d.T(j, i) = 1;
  } else if (q < nt + nl) {
    const auto [i, j] = place(x.L.rows, q - nt);
    d.L(i, j) = d.L(j, i) = 1;
  } else {
    d.s = 1;
  }
  return V(u, d);
}

struct Fit {
  double loglik = 0;
  Matrix gls, A;              // generalised least squares and M'V^-1 M
  Matrix information;         // expected, of the variance components
  std::vector<double> score;  // at the gamma given
};

inline Fit evaluate(const std::vector<Unit>& units, const Parameters& x, const Matrix& gamma) {
  const int g = gamma.rows;
  const int np = x.T.rows * (x.T.rows + 1) / 2 + x.L.rows * (x.L.rows + 1) / 2 + 1;
  Fit fit;
  fit.A = Matrix(g, g);
  Matrix c(g, 1);
  fit.information = Matrix(np, np);
  fit.score.assign(static_cast<std::size_t>(np), 0.0);
  for (const Unit& u : units) {
    double logdet = 0;
    const Matrix W = inverse(V(u, x), &logdet);
    const Matrix r = u.Y - u.M * gamma, Wr = W * r;
    fit.loglik += -0.5 * (u.Y.rows * std::log(2 * M_PI) + logdet + (t(r) * Wr)(0, 0));
    fit.A = fit.A + t(u.M) * W * u.M;
    c = c + t(u.M) * W * u.Y;
    std::vector<Matrix> Wd;
    for (int q = 0; q < np; ++q) {
      const Matrix d = dV(u, x, q);
      Wd.push_back(W * d);
      fit.score[static_cast<std::size_t>(q)] += 0.5 * ((t(Wr) * d * Wr)(0, 0) - trace(Wd.back()));
    }
    for (int q = 0; q < np; ++q)
      for (int k = 0; k < np; ++k)
        fit.information(q, k) += 0.5 * trace(Wd[static_cast<std::size_t>(q)] * Wd[static_cast<std::size_t>(k)]);
  }
  fit.gls = inverse(fit.A) * c;
  return fit;
}

}  // namespace dense
