// Products of small dense matrices.
//
// A matrix is a row-major array of doubles whose row stride equals its number of columns. C is m by p and n is the
// inner index, whatever is transposed.
//
// Every element of C is a sum over k = 0, 1, ..., n-1 whose terms are added (or subtracted) one by one, in that order,
// to 0.0 or, in the add and sub members, to what stands in C. So a result does not depend on the orders for which the
// code has special paths. C must not overlap an operand. Nothing is allocated.
#pragma once

namespace kdr {

// C = A B.    A m by n, B n by p.
void mulAB(double* C, const double* A, const double* B, int m, int p, int n);
// C = A' B.   A n by m, B n by p.
void mulAtB(double* C, const double* A, const double* B, int m, int p, int n);
// C = A B'.   A m by n, B p by n.
void mulABt(double* C, const double* A, const double* B, int m, int p, int n);

// C += A B, A' B and A B'.
void addAB(double* C, const double* A, const double* B, int m, int p, int n);
void addAtB(double* C, const double* A, const double* B, int m, int p, int n);
void addABt(double* C, const double* A, const double* B, int m, int p, int n);

// C -= A B and A B'.
void subAB(double* C, const double* A, const double* B, int m, int p, int n);
void subABt(double* C, const double* A, const double* B, int m, int p, int n);

}  // namespace kdr
