#include "estimate/likelihood/unconditional.h"

#include "kernel/products.h"

namespace kdr {

void addunconditional(double* P, int q, int r, const double* C2, const double* Q, const double* C3, double* room) {
  mulAB(room, C3, Q, r, q, r);
  addAtB(P, Q, room, q, q, r);
  for (int i = 0; i < q * q; ++i) P[i] += C2[i];
}

}  // namespace kdr
