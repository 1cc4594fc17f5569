#include "estimate/linear/fisher.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/emstep.h"
#include "estimate/linear/posterior.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Inverses at the current estimates.
struct Inverses {
  Array<double> Ti, Li, S, Sb;  // taupi^-1, taubeta^-1, and sigma2 times them
  double logdetT = 0.0, logdetL = 0.0;
};

Inverses invert(const Pass& pass) {
  Inverses inv;
  [[maybe_unused]] const int t = scaleinverse(pass.est.taupi.data(), pass.p, pass.est.sigma2, inv.S, inv.logdetT);
  [[maybe_unused]] const int l = scaleinverse(pass.est.taubeta.data(), pass.b, pass.est.sigma2, inv.Sb, inv.logdetL);
  inv.logdetT *= pass.mdm().nunits2;
  inv.logdetL *= pass.mdm().nunits3;
  inv.Ti = inv.S.copy();
  inv.Li = inv.Sb.copy();
  for (double& x : inv.Ti) x /= pass.est.sigma2;
  for (double& x : inv.Li) x /= pass.est.sigma2;
  return inv;
}

// out = left M right, all square of order n; `half` is work.
void sandwich(const double* left, const double* M, const double* right, int n, double* half, double* out) {
  mulAB(half, left, M, n, n, n);
  mulAB(out, half, right, n, n, n);
}

// What the information needs of the data, summed over the level-3 units. With N22 = Z2'V^-1 Z2, N21_j = Z2'V^-1 Z1_j
// and N_jl = Z1_j'V^-1 Z1_l of a unit, and W = V^-1 (all computed at sigma2 = s, T, L):
//   I_LL = 1/2 D'(sum N22 (x) N22)D         I_LT = 1/2 D'(sum_j N21_j (x) N21_j)D
//   I_TT = 1/2 D'(sum_jl N_jl (x) N_jl)D    I_Ls = 1/2 D'vec(sum Z2'W W Z2)
//   I_Ts = 1/2 D'vec(sum_j Z1_j'W W Z1_j)   I_ss = 1/2 tr(W W)
// where D copies the elements of a triangle to both places. The blocks of V^-1 follow from the posterior of the unit:
//   N22 = L^-1 - s L^-1 E L^-1,  N21_j = s L^-1 E U_j,  U_j = R_j T^-1
//   N_jj = T^-1 - s T^-1 V_j T^-1,  B_jl = U_j' E U_l,  N_jl = -s B_jl for j other than l
// The sum over pairs is never run: with Y = sum_j U_j (x) U_j,
//   sum_jl B_jl (x) B_jl = Y'(E (x) E)Y,
// so sum_jl N_jl (x) N_jl = sum_j [N_jj (x) N_jj - s^2 B_jj (x) B_jj] + s^2 Y'(E (x) E)Y.
// W W comes from the derivative of V^-1 by s. With F the posterior covariance of all random effects over s and G their
// prior covariance, Z'W W Z = G^-1 F G^-1 - s G^-1 F G^-1 F G^-1 and tr(W W) = (n - q)/s^2 + tr(F G^-1 F G^-1), whose
// blocks are, with Hs = sum_j R_j T^-1 R_j':
//   [F G^-1 F]_22 = E (Hs + L^-1) E
//   [F G^-1 F]_jj = C T^-1 C + C T^-1 G_j + G_j T^-1 C + R_j' E (Hs + L^-1) E R_j,  C = C_j^-1, G_j = R_j' E R_j
struct InformationSums {
  const Pass* pass;
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

InformationSums makesums(const Pass& pass, const Inverses& inv) {
  InformationSums sums;
  sums.pass = &pass;
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
                      {sums.inv->Ti.data(), unit.E.data(), sums.pass->est.sigma2, unit.z, sums.TT.data(), FF.data()});
  for (int i = 0; i < p; ++i)  // the sum of R_j' FE R_j, from the moments of R_j
    for (int l = 0; l < p; ++l)
      for (int a = 0; a < b; ++a)
        for (int c = 0; c < b; ++c)
          FF[i * p + l] += unit.z * unit.z * FE[a * b + c] * unit.sums.RR[(a * p + i) * rows + c * p + l];
  for (std::size_t i = 0; i < FF.size(); ++i) {
    sums.ss += FF[i] * sums.inv->Ti[i];
    // T^-1 (sum V_j - s FF) T^-1 is formed once, at the end.
    sums.Ts[i] += unit.PP[i] - sums.pass->est.sigma2 * FF[i];
  }
}

void addlevel3unit(InformationSums& sums, const Pass& pass, const Level3Posterior& unit) {
  const int p = pass.p, b = pass.b, pp = p * p, bb = b * b;
  const double s = pass.est.sigma2;
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

// Element e of a lower triangle by rows.
struct Place {
  int i, j;
};

Array<Place> triangleplaces(int n) {
  Array<Place> places(packedsize(n));
  std::size_t e = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) places[e++] = {i, j};
  return places;
}

// D'K D at two places of triangles of orders n and m: the sum of K over the copies of either element.
double duplicated(const double* K, int n, Place x, int m, Place y) {
  const int width = m * m;
  const auto element = [&](int i, int j, int k, int l) { return K[(i * n + j) * width + k * m + l]; };
  double sum = element(x.i, x.j, y.i, y.j);
  if (x.i != x.j) sum += element(x.j, x.i, y.i, y.j);
  if (y.i != y.j) sum += element(x.i, x.j, y.j, y.i);
  if (x.i != x.j && y.i != y.j) sum += element(x.j, x.i, y.j, y.i);
  return sum;
}

double duplicated(const double* m, int n, Place x) { return m[x.i * n + x.j] + (x.i != x.j ? m[x.j * n + x.i] : 0.0); }

// The information from the sums. Rows (i, j) of TT were summed as N[i][k] N[j][l] at ((i, j), (k, l)).
void fillinformation(const Pass& pass, InformationSums& sums, FisherWork& fisher) {
  const int p = pass.p, b = pass.b, NT = fisher.NT;
  const Array<Place> t = triangleplaces(p), l = triangleplaces(b);
  const int nt = static_cast<int>(t.size()), nl = static_cast<int>(l.size());
  fisher.information.fill(0.0);
  const auto put = [&](int row, int column, double value) {
    fisher.information[row * NT + column] = fisher.information[column * NT + row] = 0.5 * value;
  };
  for (int x = 0; x < nt; ++x)
    for (int y = 0; y <= x; ++y) put(x, y, duplicated(sums.TT.data(), p, t[x], p, t[y]));
  for (int x = 0; x < nl; ++x) {
    for (int y = 0; y < nt; ++y) put(nt + x, y, duplicated(sums.LT.data(), b, l[x], p, t[y]));
    for (int y = 0; y <= x; ++y) put(nt + x, nt + y, duplicated(sums.LL.data(), b, l[x], b, l[y]));
  }
  if (pass.fixsigma2 == 0.0) {
    Array<double> Ts(square(p)), Ls(square(b)), half(square(std::max(p, b)));
    sandwich(sums.inv->Ti.data(), sums.Ts.data(), sums.inv->Ti.data(), p, half.data(), Ts.data());
    sandwich(sums.inv->Li.data(), sums.Ls.data(), sums.inv->Li.data(), b, half.data(), Ls.data());
    for (int x = 0; x < nt; ++x) put(NT - 1, x, duplicated(Ts.data(), p, t[x]));
    for (int x = 0; x < nl; ++x) put(NT - 1, nt + x, duplicated(Ls.data(), b, l[x]));
    put(NT - 1, NT - 1, sums.ss);
  }
}

// score += D'vec(inverse X inverse) for the triangle that starts at `first`.
void addscore(double* score, int first, const double* inverse, const double* X, int n) {
  Array<double> half(square(n)), out(square(n));
  sandwich(inverse, X, inverse, n, half.data(), out.data());
  const Array<Place> places = triangleplaces(n);
  for (std::size_t e = 0; e < places.size(); ++e) score[at(first) + e] += duplicated(out.data(), n, places[e]);
}

// tr(X Y), both symmetric.
double tracedot(const Array<double>& X, const double* Y) { return dot(X.data(), Y, X.size()); }

// The score from expected moments: 1/2 T^-1 (sum u u' + s V_j - J2 T) T^-1 and its like, and for sigma2
// 1/2 [rss/s^2 - (N - J2 p - J3 b)/s - tr(L^-1 sum E) - tr(T^-1 sum V)].
void fillscore(const Pass& pass, const Inverses& inv, const PosteriorSums& sums, FisherWork& fisher) {
  const double s = pass.est.sigma2;
  fisher.score.fill(0.0);
  if (pass.fixsigma2 == 0.0)
    fisher.score[at(fisher.NT) - 1] =
        sums.rss / (s * s) -
        (static_cast<double>(pass.nunits1) - static_cast<double>(pass.mdm().nunits2) * pass.p -
         static_cast<double>(pass.mdm().nunits3) * pass.b) /
            s -
        tracedot(inv.Li, sums.sumDinv.data()) - tracedot(inv.Ti, sums.PP.data());
  Array<double> X(square(pass.b));
  for (std::size_t i = 0; i < X.size(); ++i) X[i] = sums.VV[i] + s * sums.sumDinv[i];
  for (std::size_t i = 0; i < X.size(); ++i) X[i] -= pass.mdm().nunits3 * pass.est.taubeta[i];
  addscore(fisher.score.data(), static_cast<int>(packedsize(pass.p)), inv.Li.data(), X.data(), pass.b);
  X.reset(square(pass.p));
  for (std::size_t i = 0; i < X.size(); ++i) X[i] = sums.UU[i] + s * sums.PP[i];
  for (std::size_t i = 0; i < X.size(); ++i) X[i] -= pass.mdm().nunits2 * pass.est.taupi[i];
  addscore(fisher.score.data(), 0, inv.Ti.data(), X.data(), pass.p);
  for (double& x : fisher.score) x *= 0.5;
}

// One sweep at the estimates at hand, which fills the information.
bool sweepinformation(Pass& pass, const Inverses& inv, bool keepmeans, PosteriorSums& sums, FisherWork& fisher) {
  InformationSums info = makesums(pass, inv);
  const PosteriorInput input{pass.est.sigma2, pass.est.gammahat.data(), inv.S.data(), inv.Sb.data(), nullptr,
                             keepmeans};
  const auto visit = [&](const Level3Posterior& unit) { addlevel3unit(info, pass, unit); };
  if (posteriorsweep(pass, input, sums, visit) != PosteriorResult::ok) return false;
  fillinformation(pass, info, fisher);
  return true;
}

// The score of one level-3 unit and its outer product.
struct OuterScores {
  const Inverses* inv;
  FisherWork* fisher;
  Array<double> score;
};

void addouterscore(OuterScores& outer, const Pass& pass, const Level3Posterior& unit) {
  const double s = pass.est.sigma2;
  const int NT = outer.fisher->NT, p = pass.p, b = pass.b;
  Array<double>& score = outer.score;
  score.fill(0.0);
  Array<double> X(square(b));
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j)
      X[i * b + j] = unit.v[i] * unit.v[j] + s * unit.E[i * b + j] - pass.est.taubeta[i * b + j];
  addscore(score.data(), static_cast<int>(packedsize(p)), outer.inv->Li.data(), X.data(), b);
  X.reset(square(p));
  for (std::size_t i = 0; i < X.size(); ++i) X[i] = unit.UU[i] + s * unit.PP[i] - unit.units * pass.est.taupi[i];
  addscore(score.data(), 0, outer.inv->Ti.data(), X.data(), p);
  if (pass.fixsigma2 == 0.0)
    score[at(NT) - 1] = unit.rss / (s * s) -
                        (static_cast<double>(pass.n1of[unit.k]) - static_cast<double>(unit.units) * p - b) / s -
                        tracedot(outer.inv->Li, unit.E.data()) - tracedot(outer.inv->Ti, unit.PP.data());
  for (double& x : score) x *= 0.5;
  for (int i = 0; i < NT; ++i) {
    outer.fisher->score[i] += score[i];
    for (int j = 0; j < NT; ++j) outer.fisher->information[i * NT + j] += score[i] * score[j];
  }
}

}  // namespace

void makefisher(const Pass& pass, FisherWork& fisher) {
  if (pass.control().fishertype != 0) sizefisher(pass, fisher);
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

bool fisherfull(Pass& pass, FisherWork& fisher, Likelihood& likelihood, bool closing) {
  const Inverses inv = invert(pass);
  PosteriorSums sums;
  if (!sweepinformation(pass, inv, !closing, sums, fisher) || !invertinformation(fisher, true)) return false;
  fillscore(pass, inv, sums, fisher);
  if (closing) return true;
  const double current = loglikelihood(pass, sums, inv.logdetT, inv.logdetL);
  if (!glsupdate(pass, sums)) return false;
  likelihood = {likelihood.current, current};
  return true;
}

Array<double> scoringdirection(const FisherWork& fisher) {
  Array<double> d(at(fisher.NT));
  mulAB(d.data(), fisher.invinformation.data(), fisher.score.data(), fisher.NT, 1, fisher.NT);
  return d;
}

void moveestimates(Pass& pass, const Estimates& start, const Array<double>& step, double factor) {
  const double* d = step.data();
  pass.est.taupi = start.taupi.copy();
  pass.est.taubeta = start.taubeta.copy();
  addtriangle(pass.est.taupi.data(), pass.p, d, factor);
  addtriangle(pass.est.taubeta.data(), pass.b, d + packedsize(pass.p), factor);
  pass.est.sigma2 = start.sigma2 + factor * step[step.size() - 1];
}

bool stepstays(Pass& pass, const Array<double>& step, double factor) {
  Estimates here = pass.est.copy();
  moveestimates(pass, here, step, factor);
  const bool usable = usableestimates(pass);
  pass.est = std::move(here);
  return usable;
}

bool fisherpoint(Pass& pass, FisherWork& fisher) {
  const Inverses inv = invert(pass);
  PosteriorSums sums;
  if (!sweepinformation(pass, inv, false, sums, fisher)) return false;
  fillscore(pass, inv, sums, fisher);
  return true;
}

bool fisherouter(Pass& pass, FisherWork& fisher, Likelihood& likelihood) {
  const Inverses inv = invert(pass);
  fisher.information.fill(0.0);
  fisher.score.fill(0.0);
  OuterScores outer{&inv, &fisher, Array<double>(at(fisher.NT))};
  PosteriorSums sums;
  const PosteriorInput input{pass.est.sigma2, pass.est.gammahat.data(), inv.S.data(), inv.Sb.data(), nullptr, true};
  const auto visit = [&](const Level3Posterior& unit) { addouterscore(outer, pass, unit); };
  if (posteriorsweep(pass, input, sums, visit) != PosteriorResult::ok) return false;
  // Outer products of fewer units than parameters are singular, whatever rounding makes of their determinant.
  const bool inverted = pass.mdm().nunits3 >= fisher.restriction.nfree && invertinformation(fisher, false);
  likelihood = {likelihood.current, loglikelihood(pass, sums, inv.logdetT, inv.logdetL)};
  // An unusable generalised cross-product leaves gammahat as it was; the step stands on the variance components.
  [[maybe_unused]] const bool updated = glsupdate(pass, sums);
  return inverted;
}

bool fisherstep(Pass& pass, FisherWork& fisher, Likelihood& likelihood, bool closing) {
  return pass.control().fishertype == 2 ? fisherfull(pass, fisher, likelihood, closing)
                                        : fisherouter(pass, fisher, likelihood);
}

}  // namespace kdr
