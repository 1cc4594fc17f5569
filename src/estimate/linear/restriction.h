// What a model holds fixed or equal among the variance parameters, and the updates that respect it.
//
// ESTTAU2: and its twin fix elements, CONTAU2: and its twin make groups equal, DIAGONALIZETAUPI: fixes the
// off-diagonals at 0. So every parameter is fixed or has the value of one free parameter; K maps the free ones to all
// (docs/numerics.md, "Fixed and equal elements").
#pragma once

#include "core/model.h"
#include "kernel/array.h"

namespace kdr {

struct Restriction {
  Array<int> free;  // the free parameter of each parameter, -1 for a fixed one
  int nfree = 0;
  [[nodiscard]] bool none() const { return nfree == static_cast<int>(free.size()); }
};

// The restriction of the lower triangle of a tau, by rows.
[[nodiscard]] Restriction taurestriction(const Model& model, Tau which);
// That of all variance parameters: both triangles, then sigma2.
[[nodiscard]] Restriction allrestriction(const Model& model, bool sigma2free);

// The maximum over the free elements of -log det T - tr(T^-1 S), the expected complete-data likelihood of a covariance
// matrix with second moment S. T (order n) goes in with a value that satisfies the restriction. Without a restriction
// it is S. Otherwise the ascent finds it, by scoring steps from T on.
void maximisetau(double* T, const double* S, int n, const Restriction& restriction);

// reduced (nfree squared) = K'IK of the information I with row stride ld; x (nfree) = K's.
void reduceinformation(const Restriction& restriction, const double* I, int ld, double* reduced);
void reducevector(const Restriction& restriction, const double* s, double* reduced);
// full = K reduced K' with row stride ld; rows and columns of fixed parameters become 0.
void expandinverse(const Restriction& restriction, const double* reduced, double* full, int ld);

}  // namespace kdr
