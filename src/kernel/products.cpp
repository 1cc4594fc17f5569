#include "kernel/products.h"

#include <cstddef>

namespace kdr {

namespace {

using Index = std::ptrdiff_t;

enum class Form { AB, AtB, ABt };
enum class Into { set, add, sub };

// One product with its strides; the tiles of C are addressed through it.
struct Operands {
  double* C;
  Index ldc;
  const double* A;
  Index lda;
  const double* B;
  Index ldb;
};

// The R by P tile of C at (row, col). Its sums stay in registers over the whole inner loop, and are independent of each
// other: that is what keeps the arithmetic units busy although each single sum must run in the order of k.
// N is the inner order, or 0 when it is only known at run time.
template <Form form, Into into, int N, int R, int P>
inline void tile(const Operands& o, Index row, Index col, Index n) {
  double sum[R][P];
  for (int i = 0; i < R; ++i)
    for (int j = 0; j < P; ++j) sum[i][j] = into == Into::set ? 0.0 : o.C[(row + i) * o.ldc + col + j];
  const Index inner = N > 0 ? N : n;
  for (Index k = 0; k < inner; ++k)
    for (int i = 0; i < R; ++i) {
      const double a = form == Form::AtB ? o.A[k * o.lda + row + i] : o.A[(row + i) * o.lda + k];
      for (int j = 0; j < P; ++j) {
        const double b = form == Form::ABt ? o.B[(col + j) * o.ldb + k] : o.B[k * o.ldb + col + j];
        if constexpr (into == Into::sub)
          sum[i][j] -= a * b;
        else
          sum[i][j] += a * b;
      }
    }
  for (int i = 0; i < R; ++i)
    for (int j = 0; j < P; ++j) o.C[(row + i) * o.ldc + col + j] = sum[i][j];
}

// P columns of C from `col` on, all m rows.
template <Form form, Into into, int N, int P>
inline void columns(const Operands& o, Index col, Index m, Index n) {
  Index row = 0;
  for (; row + 4 <= m; row += 4) tile<form, into, N, 4, P>(o, row, col, n);
  for (; row < m; ++row) tile<form, into, N, 1, P>(o, row, col, n);
}

template <Form form, Into into, int N>
void blocks(const Operands& o, Index m, Index p, Index n) {
  Index col = 0;
  for (; col + 4 <= p; col += 4) columns<form, into, N, 4>(o, col, m, n);
  switch (p - col) {
    case 1:
      return columns<form, into, N, 1>(o, col, m, n);
    case 2:
      return columns<form, into, N, 2>(o, col, m, n);
    case 3:
      return columns<form, into, N, 3>(o, col, m, n);
    default:
      return;
  }
}

template <Form form, Into into>
inline void product(const Operands& o, int m, int p, int n) {
  switch (n) {
    case 1:
      return blocks<form, into, 1>(o, m, p, n);
    case 2:
      return blocks<form, into, 2>(o, m, p, n);
    case 3:
      return blocks<form, into, 3>(o, m, p, n);
    case 4:
      return blocks<form, into, 4>(o, m, p, n);
    default:
      return blocks<form, into, 0>(o, m, p, n);
  }
}

}  // namespace

void mulAB(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::AB, Into::set>({C, p, A, n, B, p}, m, p, n);
}

void mulAtB(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::AtB, Into::set>({C, p, A, m, B, p}, m, p, n);
}

void mulABt(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::ABt, Into::set>({C, p, A, n, B, n}, m, p, n);
}

void addAB(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::AB, Into::add>({C, p, A, n, B, p}, m, p, n);
}

void addAtB(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::AtB, Into::add>({C, p, A, m, B, p}, m, p, n);
}

void addABt(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::ABt, Into::add>({C, p, A, n, B, n}, m, p, n);
}

void subAB(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::AB, Into::sub>({C, p, A, n, B, p}, m, p, n);
}

void subABt(double* C, const double* A, const double* B, int m, int p, int n) {
  product<Form::ABt, Into::sub>({C, p, A, n, B, n}, m, p, n);
}

void subAtx(double* c, const double* A, const double* x, int m, int n) {
  product<Form::AtB, Into::sub>({c, 1, A, m, x, 1}, m, 1, n);
}

void mulABld(double* C, int ldc, const double* A, int lda, const double* B, int ldb, int m, int p, int n) {
  product<Form::AB, Into::set>({C, ldc, A, lda, B, ldb}, m, p, n);
}

void mulAtBld(double* C, int ldc, const double* A, int lda, const double* B, int ldb, int m, int p, int n) {
  product<Form::AtB, Into::set>({C, ldc, A, lda, B, ldb}, m, p, n);
}

void mulABtld(double* C, int ldc, const double* A, int lda, const double* B, int ldb, int m, int p, int n) {
  product<Form::ABt, Into::set>({C, ldc, A, lda, B, ldb}, m, p, n);
}

}  // namespace kdr
