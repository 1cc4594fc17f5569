// The posterior covariance of a level-2 unit's random effects, whatever those of its level-3 unit are.
#pragma once

namespace kdr {

// P (q squared) += C2 + Q' C3 Q: C2 the covariance of u_j given v_k, q squared; Q = (Z2'Z1) C2, r by q; C3 the
// covariance of v_k, r squared. room: r by q.
void addunconditional(double* P, int q, int r, const double* C2, const double* Q, const double* C3, double* room);

}  // namespace kdr
