#include "estimate/linear/fisher.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/posterior.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

namespace {

// Inverses at a point.
struct Inverses {
  ScaledInverses scaled;
  Array<double> Ti, Li;  // taupi^-1, taubeta^-1
};

Inverses invert(const Pass& pass, const Estimates& est) {
  Inverses inv;
  [[maybe_unused]] const bool inverted = scaleinverses(pass, est, inv.scaled);
  inv.Ti = inv.scaled.S.copy();
  inv.Li = inv.scaled.Sb.copy();
  for (double& x : inv.Ti) x /= est.sigma2;
  for (double& x : inv.Li) x /= est.sigma2;
  return inv;
}

// out = left M right, all square of order n; `half` is work.
void sandwich(const double* left, const double* M, const double* right, int n, double* half, double* out) {
  mulAB(half, left, M, n, n, n);
  mulAB(out, half, right, n, n, n);
}

// What the information needs of the data, summed over the level-3 units: derived in docs/numerics.md, "Score and
// information". The sum over pairs of units is never run: with U_j = R_j T^-1 and Y = sum_j U_j (x) U_j,
//   sum_jl N_jl (x) N_jl = sum_j [N_jj (x) N_jj - s^2 B_jj (x) B_jj] + s^2 Y'(E (x) E)Y,  B_jl = U_j' E U_l
struct InformationSums {
  const Pass* pass;
  const Estimates* est;
  const Inverses* inv;
  Array<double> LL;      // b^2 squared
  Array<double> LT;      // b^2 by p^2
  Array<double> TT;      // p^2 squared
  Array<double> Ls, Ts;  // b squared, p squared
  double ss = 0.0;
  // Work of one level-3 unit.
  Array<double> N22, M, half, Hs, U2;  // b squared; U2: b^2 by p^2, the sum of U_j (x) U_j
  Array<double> EU, LEU;               // (E (x) E) U2 and its like
  Array<double> FF, temp, temp2;
};

InformationSums makesums(const Pass& pass, const Estimates& est, const Inverses& inv) {
  InformationSums sums;
  sums.pass = &pass;
  sums.est = &est;
  sums.inv = &inv;
  const auto bb = square(pass.b), pp = square(pass.p);
  sums.LL.reset(bb * bb);
  sums.LT.reset(bb * pp);
  sums.TT.reset(pp * pp);
  sums.Ls.reset(bb);
  sums.Ts.reset(pp);
  for (Array<double>* m : {&sums.N22, &sums.M, &sums.half, &sums.Hs}) m->reset(bb);
  for (Array<double>* m : {&sums.U2, &sums.EU, &sums.LEU}) m->reset(bb * pp);
  for (Array<double>* m : {&sums.FF, &sums.temp, &sums.temp2}) m->reset(pp);
  return sums;
}

// total += factor a (x) c, a and c of order n; the n^2 by n^2 total is indexed by rows (i, k) and columns (j, l):
// a[i][j] c[k][l].
void addkronecker(double* total, const double* a, const double* c, int n, double factor) {
  const int width = n * n;
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < n; ++k)
      for (int j = 0; j < n; ++j) {
        const double scaled = factor * a[i * n + j];
        double* row = total + (i * n + k) * width + j * n;
        for (int l = 0; l < n; ++l) row[l] += scaled * c[k * n + l];
      }
}

// out (b^2 by p^2) = (K (x) K) in, K of order b.
void applykronecker(const double* K, const double* in, double* out, int b, int pp) {
  for (int a = 0; a < b; ++a)
    for (int c = 0; c < b; ++c) {
      double* row = out + (a * b + c) * pp;
      std::fill_n(row, pp, 0.0);
      for (int d = 0; d < b; ++d)
        for (int e = 0; e < b; ++e) {
          const double factor = K[a * b + d] * K[c * b + e];
          const double* from = in + (d * b + e) * pp;
          for (int i = 0; i < pp; ++i) row[i] += factor * from[i];
        }
    }
}

// U2 = sum_j U_j (x) U_j from the second moments of R_j: first the moments by pairs, then T^-1 from both sides.
void sumUU(InformationSums& sums, const Level3Posterior& unit) {
  const int p = sums.pass->p, b = sums.pass->b, rows = p * b;
  const double zz = unit.z * unit.z;
  const double* Ti = sums.inv->Ti.data();
  for (int a = 0; a < b; ++a)
    for (int c = 0; c < b; ++c) {
      double* moments = sums.temp.data();
      for (int i = 0; i < p; ++i)
        for (int l = 0; l < p; ++l) moments[i * p + l] = zz * unit.sums.RR[(a * p + i) * rows + c * p + l];
      sandwich(Ti, moments, Ti, p, sums.temp2.data(), sums.U2.data() + (a * b + c) * p * p);
    }
}

// The part of the level-2 units. FE is E (Hs + L^-1) E.
void addunits(InformationSums& sums, const Level3Posterior& unit, const double* FE) {
  const int p = sums.pass->p, b = sums.pass->b, rows = p * b;
  Array<double>& FF = sums.FF;
  FF.fill(0.0);
  // The pairs with j = l are in Y'(E (x) E)Y already, so B_jj (x) B_jj is taken off again.
  unitloops().scoring(unit.records,
                      {sums.inv->Ti.data(), unit.E.data(), sums.est->sigma2, unit.z, sums.TT.data(), FF.data()});
  for (int i = 0; i < p; ++i)  // the sum of R_j' FE R_j, from the moments of R_j
    for (int l = 0; l < p; ++l)
      for (int a = 0; a < b; ++a)
        for (int c = 0; c < b; ++c)
          FF[i * p + l] += unit.z * unit.z * FE[a * b + c] * unit.sums.RR[(a * p + i) * rows + c * p + l];
  for (std::size_t i = 0; i < FF.size(); ++i) {
    sums.ss += FF[i] * sums.inv->Ti[i];
    // T^-1 (sum V_j - s FF) T^-1 is formed once, at the end.
    sums.Ts[i] += unit.PP[i] - sums.est->sigma2 * FF[i];
  }
}

void addlevel3unit(InformationSums& sums, const Pass& pass, const Level3Posterior& unit) {
  const int p = pass.p, b = pass.b, pp = p * p, bb = b * b;
  const double s = sums.est->sigma2;
  const double* Ti = sums.inv->Ti.data();
  const double* Li = sums.inv->Li.data();
  const double* E = unit.E.data();

  sandwich(Li, E, Li, b, sums.half.data(), sums.N22.data());
  for (int i = 0; i < bb; ++i) sums.N22[i] = Li[i] - s * sums.N22[i];
  addkronecker(sums.LL.data(), sums.N22.data(), sums.N22.data(), b, 1.0);

  sumUU(sums, unit);
  mulAB(sums.M.data(), Li, E, b, b, b);
  applykronecker(sums.M.data(), sums.U2.data(), sums.LEU.data(), b, pp);
  for (std::size_t i = 0; i < sums.LT.size(); ++i) sums.LT[i] += s * s * sums.LEU[i];
  applykronecker(E, sums.U2.data(), sums.EU.data(), b, pp);
  // Y'(E (x) E)Y, with Y's column (i, l) against its column (k, m) at the place of N[i][k] N[l][m].
  for (int d = 0; d < bb; ++d)
    for (int left = 0; left < pp; ++left) {
      const double factor = s * s * sums.U2[d * pp + left];
      for (int right = 0; right < pp; ++right) sums.TT[left * pp + right] += factor * sums.EU[d * pp + right];
    }

  // Hs + L^-1, from the moments before T^-1 came in: R T^-1 R' of pairs of rows is a trace.
  const int rows = p * b;
  for (int a = 0; a < b; ++a)
    for (int c = 0; c < b; ++c) {
      double h = 0.0;
      for (int i = 0; i < p; ++i)
        for (int l = 0; l < p; ++l) h += unit.sums.RR[(a * p + i) * rows + c * p + l] * Ti[i * p + l];
      sums.Hs[a * b + c] = unit.z * unit.z * h + Li[a * b + c];
    }
  Array<double>& FE = sums.M;  // E (Hs + L^-1) E
  sandwich(E, sums.Hs.data(), E, b, sums.half.data(), FE.data());
  for (int i = 0; i < bb; ++i) {
    sums.Ls[i] += E[i] - s * FE[i];
    sums.ss += FE[i] * Li[i];
  }
  sums.ss += (pass.n1of[unit.k] - unit.units * p - b) / (s * s);
  addunits(sums, unit, FE.data());
}

// Element ((i, j), (k, l)) of D'K D, K of n squared rows and m squared columns: the sum of K over the copies of either
// element.
double gathered(const double* K, int n, int i, int j, int m, int k, int l) {
  const int width = m * m;
  const auto element = [&](int a, int b, int c, int d) { return K[(a * n + b) * width + c * m + d]; };
  double sum = element(i, j, k, l);
  if (i != j) sum += element(j, i, k, l);
  if (k != l) sum += element(i, j, l, k);
  if (i != j && k != l) sum += element(j, i, l, k);
  return sum;
}

// The information from the sums. Rows (i, j) of TT were summed as N[i][k] N[j][l] at ((i, j), (k, l)).
void fillinformation(const Pass& pass, InformationSums& sums, FisherWork& fisher) {
  const int p = pass.p, b = pass.b, NT = fisher.NT, nt = static_cast<int>(packedsize(p));
  fisher.information.fill(0.0);
  const auto put = [&](int row, int column, double value) {
    fisher.information[row * NT + column] = fisher.information[column * NT + row] = 0.5 * value;
  };
  // The block of the triangles of orders n and m that begin at `row` and `column`.
  const auto putblock = [&](const Array<double>& K, int n, int row, int m, int column) {
    eachelement(n, [&](int x, int i, int j) {
      eachelement(m, [&](int y, int k, int l) {
        if (row + x >= column + y) put(row + x, column + y, gathered(K.data(), n, i, j, m, k, l));
      });
    });
  };
  putblock(sums.TT, p, 0, p, 0);
  putblock(sums.LT, b, nt, p, 0);
  putblock(sums.LL, b, nt, b, nt);
  if (pass.fixsigma2 == 0.0) {
    Array<double> Ts(square(p)), Ls(square(b)), half(square(std::max(p, b)));
    sandwich(sums.inv->Ti.data(), sums.Ts.data(), sums.inv->Ti.data(), p, half.data(), Ts.data());
    sandwich(sums.inv->Li.data(), sums.Ls.data(), sums.inv->Li.data(), b, half.data(), Ls.data());
    eachelement(p, [&](int x, int i, int j) { put(NT - 1, x, duplicated(Ts.data(), p, i, j)); });
    eachelement(b, [&](int x, int i, int j) { put(NT - 1, nt + x, duplicated(Ls.data(), b, i, j)); });
    put(NT - 1, NT - 1, sums.ss);
  }
}

// score += D'vec(inverse X inverse) for the triangle that starts at `first`.
void addscore(double* score, int first, const double* inverse, const double* X, int n) {
  Array<double> half(square(n)), out(square(n));
  sandwich(inverse, X, inverse, n, half.data(), out.data());
  addduplicated(score + first, out.data(), n);
}

// tr(X Y), both symmetric.
double tracedot(const Array<double>& X, const double* Y) { return dot(X.data(), Y, X.size()); }

// Expected moments that a score is made of, those of one level-3 unit or their sums.
struct ScoreMoments {
  const double *UU, *PP;  // p squared: sums of u u' and of V_j
  const double *vv, *E;   // b squared: sums of v v' and of E_k
  double units2, units3;  // J2, J3
  double residualdf;      // N - J2 p - J3 b
  double rss;
};

// The score from expected moments: 1/2 T^-1 (sum u u' + s V_j - J2 T) T^-1 and its like, and for sigma2
// 1/2 [rss/s^2 - (N - J2 p - J3 b)/s - tr(L^-1 sum E) - tr(T^-1 sum V)].
void scoreof(const Pass& pass, const Estimates& est, const Inverses& inv, const ScoreMoments& moments, double* score) {
  const double s = est.sigma2;
  const std::size_t nt = packedsize(pass.p), NT = nt + packedsize(pass.b) + 1;
  std::fill_n(score, NT, 0.0);
  if (pass.fixsigma2 == 0.0)
    score[NT - 1] =
        moments.rss / (s * s) - moments.residualdf / s - tracedot(inv.Li, moments.E) - tracedot(inv.Ti, moments.PP);
  Array<double> X(square(pass.b));
  for (std::size_t i = 0; i < X.size(); ++i) X[i] = moments.vv[i] + s * moments.E[i] - moments.units3 * est.taubeta[i];
  addscore(score, static_cast<int>(nt), inv.Li.data(), X.data(), pass.b);
  X.reset(square(pass.p));
  for (std::size_t i = 0; i < X.size(); ++i) X[i] = moments.UU[i] + s * moments.PP[i] - moments.units2 * est.taupi[i];
  addscore(score, 0, inv.Ti.data(), X.data(), pass.p);
  for (std::size_t i = 0; i < NT; ++i) score[i] *= 0.5;
}

void fillscore(const Pass& pass, const Estimates& est, const Inverses& inv, const PosteriorSums& sums,
               FisherWork& fisher) {
  const double J2 = pass.mdm().nunits2, J3 = pass.mdm().nunits3;
  scoreof(pass, est, inv,
          {sums.UU.data(), sums.PP.data(), sums.VV.data(), sums.sumDinv.data(), J2, J3,
           pass.nunits1 - J2 * pass.p - J3 * pass.b, sums.rss},
          fisher.score.data());
}

// One sweep at a point, which fills the information.
bool sweepinformation(Pass& pass, const Estimates& est, const Inverses& inv, bool keepmeans, PosteriorSums& sums,
                      FisherWork& fisher) {
  InformationSums info = makesums(pass, est, inv);
  const auto visit = [&](const Level3Posterior& unit) { addlevel3unit(info, pass, unit); };
  if (posteriorsweep(pass, inputat(est, inv.scaled, keepmeans), sums, visit) != PosteriorResult::ok) return false;
  fillinformation(pass, info, fisher);
  return true;
}

// The score of one level-3 unit and its outer product; `score` and `vv` are work.
void addouterscore(const Pass& pass, const Inverses& inv, const Level3Posterior& unit, Array<double>& score,
                   Array<double>& vv, FisherWork& fisher) {
  const int NT = fisher.NT, b = pass.b;
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) vv[i * b + j] = unit.v[i] * unit.v[j];
  const double J2 = unit.units;
  scoreof(pass, pass.est, inv,
          {unit.UU.data(), unit.PP.data(), vv.data(), unit.E.data(), J2, 1.0, pass.n1of[unit.k] - J2 * pass.p - b,
           unit.rss},
          score.data());
  for (int i = 0; i < NT; ++i) {
    fisher.score[i] += score[i];
    for (int j = 0; j < NT; ++j) fisher.information[i * NT + j] += score[i] * score[j];
  }
}

}  // namespace

void makefisher(const Pass& pass, FisherWork& fisher) {
  if (pass.control().fishertype != FisherType::none) sizefisher(pass, fisher);
}

void sizefisher(const Pass& pass, FisherWork& fisher) {
  fisher.NT = static_cast<int>(packedsize(pass.p) + packedsize(pass.b)) + 1;
  fisher.information.reset(square(fisher.NT));
  fisher.invinformation.reset(square(fisher.NT));
  fisher.score.reset(at(fisher.NT));
  fisher.restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
}

bool invertinformation(FisherWork& fisher, bool strict) {
  const Restriction& restriction = fisher.restriction;
  const int n = restriction.nfree;
  Array<double> reduced(square(n)), inverse(square(n));
  reduceinformation(restriction, fisher.information.data(), fisher.NT, reduced.data());
  fisher.invinformation.fill(0.0);
  if (n == 0) return true;
  const bool inverted = invertsymmetric(n, reduced.data(), inverse.data()).result == 0;
  expandinverse(restriction, inverse.data(), fisher.invinformation.data(), fisher.NT);
  return inverted && (!strict || positivecovariance(reduced.data(), n));
}

bool fisherfull(Pass& pass, FisherWork& fisher, Likelihood& likelihood, Scoring scoring) {
  const bool steps = scoring == Scoring::steps;
  const Inverses inv = invert(pass, pass.est);
  PosteriorSums sums;
  if (!sweepinformation(pass, pass.est, inv, steps, sums, fisher) || !invertinformation(fisher, true)) return false;
  fillscore(pass, pass.est, inv, sums, fisher);
  if (!steps) return true;
  const double current = loglikelihood(pass, sums, pass.est.sigma2, inv.scaled);
  if (!glsupdate(pass, sums, pass.est)) return false;
  likelihood = {likelihood.current, current};
  return true;
}

Array<double> scoringdirection(const FisherWork& fisher) {
  Array<double> d(at(fisher.NT));
  mulAB(d.data(), fisher.invinformation.data(), fisher.score.data(), fisher.NT, 1, fisher.NT);
  return d;
}

Estimates moved(const Pass& pass, const Estimates& start, const Array<double>& step, double factor) {
  Estimates est = start.copy();
  addtriangle(est.taupi.data(), pass.p, step.data(), factor);
  addtriangle(est.taubeta.data(), pass.b, step.data() + packedsize(pass.p), factor);
  est.sigma2 = start.sigma2 + factor * step[step.size() - 1];
  return est;
}

bool stepstays(const Pass& pass, const Estimates& start, const Array<double>& step, double factor) {
  return usableestimates(pass, moved(pass, start, step, factor));
}

bool fisherpoint(Pass& pass, const Estimates& est, FisherWork& fisher) {
  const Inverses inv = invert(pass, est);
  PosteriorSums sums;
  if (!sweepinformation(pass, est, inv, false, sums, fisher)) return false;
  fillscore(pass, est, inv, sums, fisher);
  return true;
}

bool fisherouter(Pass& pass, FisherWork& fisher, Likelihood& likelihood, Scoring scoring) {
  const bool steps = scoring == Scoring::steps;
  const Inverses inv = invert(pass, pass.est);
  fisher.information.fill(0.0);
  fisher.score.fill(0.0);
  Array<double> score(at(fisher.NT)), vv(square(pass.b));
  PosteriorSums sums;
  const auto visit = [&](const Level3Posterior& unit) { addouterscore(pass, inv, unit, score, vv, fisher); };
  if (posteriorsweep(pass, inputat(pass.est, inv.scaled, steps), sums, visit) != PosteriorResult::ok) return false;
  // Outer products of fewer units than parameters are singular, whatever rounding makes of their determinant.
  const bool inverted = independentunits(pass) >= fisher.restriction.nfree && invertinformation(fisher, false);
  if (!steps) return inverted;
  likelihood = {likelihood.current, loglikelihood(pass, sums, pass.est.sigma2, inv.scaled)};
  // An unusable generalised cross-product leaves gammahat as it was; the step stands on the variance components.
  [[maybe_unused]] const bool updated = glsupdate(pass, sums, pass.est);
  return inverted;
}

bool fisherstep(Pass& pass, FisherWork& fisher, Likelihood& likelihood, Scoring scoring) {
  return pass.control().fishertype == FisherType::expected ? fisherfull(pass, fisher, likelihood, scoring)
                                                           : fisherouter(pass, fisher, likelihood, scoring);
}

}  // namespace kdr
