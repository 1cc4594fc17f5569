#include "kernel/products.h"

#include <cstddef>
#include <cstring>

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

// Two neighbouring elements of C, worked on at once; each has its own sum.
typedef double Pair [[gnu::vector_size(16)]];

template <class V>
constexpr Index width = sizeof(V) / sizeof(double);

template <class V>
inline V load(const double* from) {
  V v;
  std::memcpy(&v, from, sizeof(V));
  return v;
}

// The elements [k][col] of B or B', as many as V holds.
template <Form form, class V>
inline V loadB(const Operands& o, Index k, Index col) {
  if constexpr (form != Form::ABt)
    return load<V>(o.B + k * o.ldb + col);
  else if constexpr (width<V> == 1)
    return o.B[col * o.ldb + k];
  else
    return V{o.B[col * o.ldb + k], o.B[(col + 1) * o.ldb + k]};
}

// The tile of C at (row, col), R rows by Q vectors V. Its sums stay in registers over the whole inner loop, and are
// independent of each other: that is what keeps the arithmetic units busy although each single sum must run in the
// order of k. N is the inner order, or 0 when it is only known at run time.
template <Form form, Into into, int N, int R, class V, int Q>
inline void tile(const Operands& o, Index row, Index col, Index n) {
  V sum[R][Q];
  for (int i = 0; i < R; ++i)
    for (int q = 0; q < Q; ++q)
      if constexpr (into == Into::set)
        sum[i][q] = V{};
      else
        sum[i][q] = load<V>(o.C + (row + i) * o.ldc + col + q * width<V>);
  const Index inner = N > 0 ? N : n;
  for (Index k = 0; k < inner; ++k) {
    V b[Q];
    for (int q = 0; q < Q; ++q) b[q] = loadB<form, V>(o, k, col + q * width<V>);
    for (int i = 0; i < R; ++i) {
      const double a = form == Form::AtB ? o.A[k * o.lda + row + i] : o.A[(row + i) * o.lda + k];
      for (int q = 0; q < Q; ++q)
        if constexpr (into == Into::sub)
          sum[i][q] -= a * b[q];
        else
          sum[i][q] += a * b[q];
    }
  }
  for (int i = 0; i < R; ++i)
    for (int q = 0; q < Q; ++q) std::memcpy(o.C + (row + i) * o.ldc + col + q * width<V>, &sum[i][q], sizeof(V));
}

// Q vectors of columns of C from `col` on, all m rows.
template <Form form, Into into, int N, class V, int Q>
inline void columns(const Operands& o, Index col, Index m, Index n) {
  Index row = 0;
  if constexpr (N == 0)
    for (; row + 4 <= m; row += 4) tile<form, into, N, 4, V, Q>(o, row, col, n);
  for (; row + 2 <= m; row += 2) tile<form, into, N, 2, V, Q>(o, row, col, n);
  if (row < m) tile<form, into, N, 1, V, Q>(o, row, col, n);
}

template <Form form, Into into, int N>
void blocks(const Operands& o, Index m, Index p, Index n) {
  Index col = 0;
  for (; col + 4 <= p; col += 4) columns<form, into, N, Pair, 2>(o, col, m, n);
  if (col + 2 <= p) {
    columns<form, into, N, Pair, 1>(o, col, m, n);
    col += 2;
  }
  if (col < p) columns<form, into, N, double, 1>(o, col, m, n);
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

}  // namespace kdr
