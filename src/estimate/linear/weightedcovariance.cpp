#include "estimate/linear/weightedcovariance.h"

#include <algorithm>

#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Sums of one level-3 unit, all nbeta squared. With H_j = B'Z1 C_j^-1 and rho = W(j|k) / W(k):
//   HB = sum_j H_j Z1'B
//   F  = sum_j rho H_j T^-1 H_j'                                   variance of the level-2 effects in the score
//   G  = B2'B2 - sum_j (H_j Z12'B2 + B2'Z12 H_j') + sum_j H_j Z12'Z12 H_j'   that of the residuals
struct UnitVariance {
  Array<double> HB, F, G;
};

}  // namespace

Array<double> weightedcovariance(Pass& pass) {
  const int p = pass.p, b = pass.b, nb = pass.nbeta, g = pass.g;
  const double s = pass.est.sigma2;
  Array<double> Ti(square(p)), Li(square(b));
  invertsymmetric(p, pass.est.taupi.data(), Ti.data());
  invertsymmetric(b, pass.est.taubeta.data(), Li.data());
  UnitVariance unit{Array<double>(square(nb)), Array<double>(square(nb)), Array<double>(square(nb))};
  Array<double> X(square(g)), C(square(p)), W11(square(p)), H(at(nb * p)), half(at(nb * p)), N(square(nb));
  Array<double> PE(at(nb * b)), PEL(at(nb * b)), J(square(nb)), JM(square(nb)), total(square(nb));
  Array<double> weights(pass.design.owner3.size());

  // total += factor J M J'
  const auto addprojected = [&](const Array<double>& M, double factor) {
    mulAB(JM.data(), J.data(), M.data(), nb, nb, nb);
    mulABt(N.data(), JM.data(), J.data(), nb, nb, nb);
    for (std::size_t i = 0; i < total.size(); ++i) total[i] += factor * N[i];
  };

  double W3 = 1.0;
  const auto begin = [&](int k) {
    W3 = pass.weights().weight3[k];
    unit.HB.fill(0.0);
    unit.F.fill(0.0);
    std::copy_n(pass.sumBB2.row(k), square(nb), unit.G.data());
  };
  const auto each = [&](int, std::size_t, const double* hot, const double* weighted) {
    unpack(p, hot + pass.store.atCinv, C.data());
    unpack(p, weighted + 1, W11.data());
    const double* BZ12 = weighted + 1 + packedsize(p);
    mulAB(H.data(), hot + pass.store.atBZ1, C.data(), nb, p, p);
    addABt(unit.HB.data(), H.data(), hot + pass.store.atBZ1, nb, nb, p);
    mulAB(half.data(), H.data(), Ti.data(), nb, p, p);
    mulABt(N.data(), half.data(), H.data(), nb, nb, p);
    for (std::size_t i = 0; i < N.size(); ++i) unit.F[i] += weighted[0] / W3 * N[i];
    subABt(unit.G.data(), H.data(), BZ12, nb, nb, p);
    subABt(unit.G.data(), BZ12, H.data(), nb, nb, p);
    mulAB(half.data(), H.data(), W11.data(), nb, p, p);
    addABt(unit.G.data(), half.data(), H.data(), nb, nb, p);
  };
  // With P = B'B - HB and Pb = z P_.r E, the level-3 effects leave the projection J = I - z Pb e_r' on the score:
  // total = W(k) s^2 (Pb L^-1 Pb' + J F J') + s J G J'
  const auto end = [&](int k) {
    const double z = pass.scale3[k];
    const double* BB = pass.sumBB.row(k);
    const double* E = pass.dinv.row(k);
    J.fill(0.0);
    for (int i = 0; i < nb; ++i) {
      J[i * nb + i] = 1.0;
      for (int c = 0; c < b; ++c) {
        double sum = 0.0;
        for (int a = 0; a < b; ++a) sum += (BB[i * nb + a] - unit.HB[i * nb + a]) * E[a * b + c];
        PE[i * b + c] = z * sum;
        J[i * nb + c] -= z * z * sum;
      }
    }
    mulAB(PEL.data(), PE.data(), Li.data(), nb, b, b);
    mulABt(total.data(), PEL.data(), PE.data(), nb, nb, b);
    for (double& x : total) x *= W3 * s * s;
    addprojected(unit.F, W3 * s * s);
    addprojected(unit.G, s);
    level3weights(pass, k, weights.data());
    addsandwichW3(pass, weights.data(), total.data(), X.data());
  };
  sweepunits(pass.n2of, begin, each, end, reading(pass.store.hot), reading(pass.store.weighted));
  Array<double> V(square(g)), covariance(square(g));
  mulAB(V.data(), pass.est.vgamma.data(), X.data(), g, g, g);
  mulAB(covariance.data(), V.data(), pass.est.vgamma.data(), g, g, g);
  return covariance;
}

}  // namespace kdr
