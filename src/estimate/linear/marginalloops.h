// The innermost loops of the sums over units without an inverse of a tau (marginalsums.h): the two visits to the
// level-2 units of one level-3 unit, written once and compiled for every set of vector instructions that a machine may
// have. Four units are worked side by side where tau(pi) is of order 1 or 2. The order of summation is fixed and no
// multiplication is fused with an addition, so every set gives the same bits.
#pragma once

#include <cstddef>

namespace kdr {

// The records of level-2 units that follow each other. A record has Z1'Z1 packed, [Y | B]'Z1 and the least-squares
// coefficients of [Y | B], both of C = 1 + nbeta rows of p values, Y first.
struct MarginalRecords {
  const double* first;
  std::size_t stride;
  int units;
  int p, b, C;
  double* work;  // marginalwork(p, b, C) doubles
};

// The first visit. With R = (s I + S_AA T)^-1 and H_m = S_A' (R')^m, r = Y - B theta in the place of Y:
struct MarginalFirst {
  const double* theta;  // [nbeta]
  const double* T;      // p squared
  double s;
  int powers;             // 1: G1 alone; 3: all three
  bool all;               // the second visit wants R S_AA times R
  double *G1, *G2, *G3;   // C squared, lower triangles: + beta' H_m'
  double logdeterminant;  // + log det(I + S_AA T / s)
  double traceR;          // + tr(sR)
  double traceRR;         // + tr((sR)^2)
  double* kept;           // marginalkept() doubles for a second visit; null: there is none
};

// The second visit, to what the first has kept. Sums of k, cleared by the caller; E runs over the elements of taupi,
// pairs (E, F) with F <= E are packed. Without `all` forms are those of r alone, and Lambda and the T stay.
struct MarginalSecond {
  const double *N, *NC2N;  // b squared
  const double *TF, *TF2;  // b by C
  bool all;
  const double* kept;
  double* t;        // tr(E Kf)
  double* P;        // lower triangles of C squared: U'E U
  double* Qs;       // U'E U2: C squared or one value
  double* Q;        // pairs: U'E K F U
  double* Y;        // L'E U: b by C, or b values C apart
  double* Lambda;   // L'E L, b squared
  double *Tp, *Ts;  // pairs: tr(E K F K) - 2 tr(E K F LNL); tr(E O)
};

struct MarginalLoops {
  void (*first)(const MarginalRecords& records, MarginalFirst& visit);
  void (*second)(const MarginalRecords& records, const MarginalSecond& visit);
};

// The loops in the instructions that every machine of the kind has, and in wider ones.
namespace baseline {
extern const MarginalLoops marginalloopset;
}
namespace avx2 {
extern const MarginalLoops marginalloopset;
}

// Doubles of work that the loops need, and of what `units` units keep.
[[nodiscard]] std::size_t marginalwork(int p, int b, int C);
[[nodiscard]] std::size_t marginalkept(int p, int C, int units);
// The fastest loops that this machine can run.
[[nodiscard]] const MarginalLoops& marginalloops();

}  // namespace kdr
