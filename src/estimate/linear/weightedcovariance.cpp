#include "estimate/linear/weightedcovariance.h"

#include <algorithm>

#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The variance of the score, level-3 unit by level-3 unit. Orders: p effects of level 2, b of level 3, nb level-2
// coefficients, g effects.
struct ScoreVariance {
  Pass& pass;
  const int p = pass.p, b = pass.b, nb = pass.nbeta, g = pass.g;
  const double s = pass.est.sigma2;
  Array<double> Ti{square(p)}, Li{square(b)};  // taupi^-1, taubeta^-1
  double W3 = 1.0;
  // Sums of the level-3 unit at hand, nb squared. With H_j = B'Z1 C_j^-1 and rho = W(j|k) / W(k):
  //   HB = sum_j H_j Z1'B
  //   F  = sum_j rho H_j T^-1 H_j'                                   variance of the level-2 effects in the score
  //   G  = B2'B2 - sum_j (H_j Z12'B2 + B2'Z12 H_j') + sum_j H_j Z12'Z12 H_j'   that of the residuals
  Array<double> HB{square(nb)}, F{square(nb)}, G{square(nb)};
  Array<double> X{square(g)};  // the variance of the score of all
  Array<double> C{square(p)}, W11{square(p)}, H{at(nb * p)}, half{at(nb * p)}, N{square(nb)};
  Array<double> Pb{at(nb * b)}, PbL{at(nb * b)}, J{square(nb)}, JM{square(nb)}, total{square(nb)};
  Array<double> weights{pass.design.owner3.size()};

  explicit ScoreVariance(Pass& thepass) : pass(thepass) {
    invertsymmetric(p, pass.est.taupi.data(), Ti.data());
    invertsymmetric(b, pass.est.taubeta.data(), Li.data());
  }
  void begin(int k);
  void addunit(const double* hot, const double* weighted);
  void project(int k);
  void addprojected(const Array<double>& M, double factor);
  void end(int k);
};

void ScoreVariance::begin(int k) {
  W3 = pass.weights().weight3[k];
  HB.fill(0.0);
  F.fill(0.0);
  std::copy_n(pass.sumBB2.row(k), square(nb), G.data());
}

void ScoreVariance::addunit(const double* hot, const double* weighted) {
  const double *BZ1 = hot + pass.store.atBZ1, *BZ12 = weighted + 1 + packedsize(p);
  unpack(p, hot + pass.store.atCinv, C.data());
  unpack(p, weighted + 1, W11.data());
  mulAB(H.data(), BZ1, C.data(), nb, p, p);
  addABt(HB.data(), H.data(), BZ1, nb, nb, p);

  mulAB(half.data(), H.data(), Ti.data(), nb, p, p);
  mulABt(N.data(), half.data(), H.data(), nb, nb, p);
  for (std::size_t i = 0; i < N.size(); ++i) F[i] += weighted[0] / W3 * N[i];

  subABt(G.data(), H.data(), BZ12, nb, nb, p);
  subABt(G.data(), BZ12, H.data(), nb, nb, p);
  mulAB(half.data(), H.data(), W11.data(), nb, p, p);
  addABt(G.data(), half.data(), H.data(), nb, nb, p);
}

// With P = B'B - HB:  Pb = z P_.r E,  and the projection J = I - z Pb e_r' that the level-3 effects leave on the score.
void ScoreVariance::project(int k) {
  const double z = pass.scale3[k];
  const double *BB = pass.sumBB.row(k), *E = pass.dinv.row(k);
  J.fill(0.0);
  for (int i = 0; i < nb; ++i) {
    J[i * nb + i] = 1.0;
    for (int c = 0; c < b; ++c) {
      double sum = 0.0;
      for (int a = 0; a < b; ++a) sum += (BB[i * nb + a] - HB[i * nb + a]) * E[a * b + c];
      Pb[i * b + c] = z * sum;
      J[i * nb + c] -= z * z * sum;
    }
  }
}

// total += factor J M J'
void ScoreVariance::addprojected(const Array<double>& M, double factor) {
  mulAB(JM.data(), J.data(), M.data(), nb, nb, nb);
  mulABt(N.data(), JM.data(), J.data(), nb, nb, nb);
  for (std::size_t i = 0; i < total.size(); ++i) total[i] += factor * N[i];
}

// total = W(k) s^2 (Pb L^-1 Pb' + J F J') + s J G J',  X += W3_k' total W3_k
void ScoreVariance::end(int k) {
  project(k);
  mulAB(PbL.data(), Pb.data(), Li.data(), nb, b, b);
  mulABt(total.data(), PbL.data(), Pb.data(), nb, nb, b);
  for (double& x : total) x *= W3 * s * s;
  addprojected(F, W3 * s * s);
  addprojected(G, s);
  level3weights(pass, k, weights.data());
  addsandwichW3(pass, weights.data(), total.data(), X.data());
}

}  // namespace

Array<double> weightedcovariance(Pass& pass) {
  const int g = pass.g;
  ScoreVariance variance(pass);
  sweepunits(
      pass.n2of, [&](int k) { variance.begin(k); },
      [&](int, std::size_t, const double* hot, const double* weighted) { variance.addunit(hot, weighted); },
      [&](int k) { variance.end(k); }, reading(pass.store.hot), reading(pass.store.weighted));
  Array<double> V(square(g)), covariance(square(g));
  mulAB(V.data(), pass.est.vgamma.data(), variance.X.data(), g, g, g);
  mulAB(covariance.data(), V.data(), pass.est.vgamma.data(), g, g, g);
  return covariance;
}

}  // namespace kdr
