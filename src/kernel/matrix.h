// Element-wise and other small operations on dense row-major matrices. Unless a stride `ld` is given, the row stride
// is the number of columns. Nothing is allocated.
#pragma once

#include <cstddef>

namespace kdr {

// dest = a + b and dest = a - b, rows by cols; dest may be a or b.
void matadd(double* dest, const double* a, const double* b, int rows, int cols);
void matsub(double* dest, const double* a, const double* b, int rows, int cols);

// Multiplies the rows by cols block m of stride ld by s in place.
void scale(double* m, int rows, int cols, int ld, double s);

// The sum of the n diagonal entries of m.
[[nodiscard]] double trace(const double* m, int n, int ld);

// dest[j][i] = src[i][j] for the rows by cols matrix src; dest has the row stride `rows` and must not overlap src.
void transpose(double* dest, const double* src, int rows, int cols);

// Sets the rows by cols block m to 0.0.
void zerofill(double* m, int rows, int cols);

// Copies the rows by cols block src of stride ldsrc into slot number `slot` of dest, an array of equal blocks of rows
// by lddest doubles each.
void copyblock(double* dest, std::size_t slot, const double* src, int rows, int cols, int ldsrc, int lddest);

// dest = a (x) b with the row stride ld: the element in row i rb + r and column c cb + s is a[i][c] b[r][s], for a of
// ra by ca and b of rb by cb.
void kronecker(double* dest, int ld, const double* a, int ra, int ca, const double* b, int rb, int cb);

// Removes column `col` of the rows by width block m of stride ld in place: the entries behind it move one place left.
// Of the last column, only the entry of the last row is set to 0.0; the others keep what stood there.
void dropcolumn(double* m, int ld, int rows, int width, int col);

// Moves the rows behind `row` of the rows by cols matrix m up by one; the last row keeps what stood there.
void droprow(double* m, int rows, int cols, int row);

// dest[i][j] += arg[j][i], both n by n; dest must not overlap arg.
void addtransposed(double* dest, const double* arg, int n);

// Starts n running minima, maxima and means: bigvalue, missingcode and 0.0.
void initminmax(double* min, double* max, double* mean, int n);

// Sorts the n doubles of a in ascending order, in at most O(n log n) steps. NaNs leave the order undefined.
void sortdoubles(double* a, std::ptrdiff_t n);

// The convergence count of adaptive quadrature at the log-likelihood s: the number of the n gradient entries g[i] with
//   |g[i]| / sqrt(max(|h[i][i]|, 1) max(|-2 s|, 1)) >= 0.0001,   h n by n.
[[nodiscard]] int countsignificant(int n, double s, const double* h, const double* g);

}  // namespace kdr
