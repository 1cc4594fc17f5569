// The innermost loops of the engine: the walks over the level-2 units of one level-3 unit, written once and compiled
// for every set of vector instructions that a machine may have (unitloops.cpp). Four units are worked side by side. The
// order of summation is fixed and no multiplication is fused with an addition, so every set gives the same bits.
#pragma once

#include <cstddef>

namespace kdr {

// Where the records of one level-3 unit's level-2 units stand and what is in them; see unitstore.h.
struct UnitRecords {
  double* hot;  // the first record
  std::size_t stride;
  std::size_t atZ1Y, atBZ1, atCinv, atustar;
  int units;
  int p, b, nb;  // orders of taupi and of taubeta, rows of B'Z1
  double* work;  // loopwork(p, b, nb) doubles
};

// Sums of the first visit, lower triangles of full matrices; the caller clears them.
struct FirstVisit {
  const double* S;  // packed
  double *HB, *HY, *RR, *Cinv;
  double YCY, logdetC;
};

// Sums of a scoring step over the units, see fisher.cpp.
struct ScoringVisit {
  const double *Ti, *E;  // taupi^-1 (p squared), E_k (b squared)
  double s, z;           // sigma2, the scale of Z2
  double* TT;            // p squared by p squared: N_jj (x) N_jj - s^2 B_jj (x) B_jj is added
  double* FF;            // p squared: C T^-1 C + C T^-1 G_j + G_j T^-1 C is added
};

struct UnitLoops {
  // Writes C_j^-1 to each record. False when some C_j has a determinant that is not positive.
  bool (*first)(const UnitRecords& records, FirstVisit& visit);
  // u_j = C_j^-1 (Z1'Y - B'Z1' thetastar), to each record with `keep`. Returns the sum of u_j'a_j and adds the sum of
  // u_j u_j' to the lower triangle of UU (p squared).
  double (*means)(const UnitRecords& records, const double* thetastar, bool keep, double* UU);
  void (*scoring)(const UnitRecords& records, const ScoringVisit& visit);
};

inline constexpr int loopstep = 4;  // units side by side

// The loops in the instructions that every machine of the kind has, and in wider ones.
namespace baseline {
extern const UnitLoops loops;
}
namespace avx2 {
extern const UnitLoops loops;
}

// Doubles of work that the loops need.
[[nodiscard]] std::size_t loopwork(int p, int b, int nb);
// The fastest loops that this machine can run.
[[nodiscard]] const UnitLoops& unitloops();

}  // namespace kdr
