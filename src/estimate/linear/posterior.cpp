#include "estimate/linear/posterior.h"

#include <algorithm>
#include <cmath>

#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

Level3Posterior makeposterior(const Pass& pass) {
  Level3Posterior unit;
  unit.sums.HB.reset(square(pass.nbeta));
  unit.sums.HY.reset(at(pass.nbeta));
  unit.sums.RR.reset(square(pass.b * pass.p));
  unit.sums.Cinv.reset(square(pass.p));
  unit.loopwork.reset(loopwork(pass.p, pass.b, pass.nbeta));
  unit.weights.reset(pass.design.owner3.size());
  unit.P.reset(square(pass.nbeta));
  unit.y.reset(at(pass.nbeta));
  unit.E.reset(square(pass.b));
  unit.q.reset(at(pass.b));
  unit.v.reset(at(pass.b));
  unit.theta.reset(at(pass.nbeta));
  unit.thetastar.reset(at(pass.nbeta));
  unit.PP.reset(square(pass.p));
  unit.UU.reset(square(pass.p));
  return unit;
}

// x' M x, M of order n.
double quadratic(const double* M, const double* x, int n) {
  double total = 0.0;
  for (int i = 0; i < n; ++i) {
    double s = 0.0;
    for (int j = 0; j < n; ++j) s += M[i * n + j] * x[j];
    total += x[i] * s;
  }
  return total;
}

// P_k, y_k, D_k, E_k, q_k, v_k. False when D_k cannot be inverted.
bool level3step(const Pass& pass, const PosteriorInput& input, Level3Posterior& unit, Array<double>& inverse) {
  const int nb = pass.nbeta, b = pass.b;
  const double* BB = pass.sumBB.row(unit.k);
  const double* BY = pass.sumBY.row(unit.k);
  for (std::size_t i = 0; i < square(nb); ++i) unit.P[i] = BB[i] - unit.sums.HB[i];
  for (int i = 0; i < nb; ++i) unit.y[i] = BY[i] - unit.sums.HY[i];

  const double z = unit.z;
  double* D = unit.E.data();
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) D[i * b + j] = z * z * unit.P[i * nb + j] + input.Sb[i * b + j];
  const Inversion inversion = invertsymmetric(b, D, inverse.data());
  if (inversion.result != 0) return false;
  unit.logdetE = -inversion.logdeterminant();
  std::copy_n(inverse.data(), square(b), unit.E.data());

  level3weights(pass, unit.k, unit.weights.data());
  level2means(pass.design, unit.weights.data(), input.gamma, unit.theta.data());
  for (int i = 0; i < b; ++i) unit.q[i] = z * (unit.y[i] - dot(unit.P.data() + i * nb, unit.theta.data(), at(nb)));
  for (int i = 0; i < b; ++i) unit.v[i] = dot(unit.E.data() + i * b, unit.q.data(), at(b));
  addlevel3effects(pass, unit.k, unit.v.data(), unit.theta.data(), unit.thetastar.data());
  return true;
}

// The sum of V_j = C_j^-1 + R_j' E R_j.
void sumposteriorcovariance(const Pass& pass, Level3Posterior& unit) {
  const int p = pass.p, b = pass.b, rows = p * b;
  for (int i = 0; i < p; ++i)
    for (int l = 0; l < p; ++l) {
      double s = 0.0;
      for (int a = 0; a < b; ++a)
        for (int c = 0; c < b; ++c) s += unit.E[a * b + c] * unit.sums.RR[(a * p + i) * rows + c * p + l];
      unit.PP[i * p + l] = unit.sums.Cinv[i * p + l] + unit.z * unit.z * s;
    }
}

// rss, Q and the trace of one level-3 unit; `ua` is the sum of u'a over its units and S that of its units.
void unitscalars(const Pass& pass, Level3Posterior& unit, const double* S, double ua) {
  const int nb = pass.nbeta, b = pass.b, p = pass.p;
  const double* BB = pass.sumBB.row(unit.k);
  const double* BY = pass.sumBY.row(unit.k);
  const double YY = pass.sumYY[unit.k];
  const double* thetastar = unit.thetastar.data();
  unit.rss =
      YY - 2.0 * dot(thetastar, BY, at(nb)) + quadratic(BB, thetastar, nb) - ua - dot(S, unit.UU.data(), square(p));
  unit.Q = YY - unit.sums.YCY - 2.0 * dot(unit.theta.data(), unit.y.data(), at(nb)) +
           quadratic(unit.P.data(), unit.theta.data(), nb) - dot(unit.q.data(), unit.v.data(), at(b));
  // tr(Z2'Z2 E) - 2 tr(K E) + sum_j tr(Z1'Z1 V_j), the last by n p + tr(E K) - tr(S sum V_j).
  double trace = unit.units * p - dot(S, unit.PP.data(), square(p));
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) trace += unit.z * unit.z * unit.E[i * b + j] * unit.P[i * nb + j];
  unit.trace = trace;
}

// A += W3'(P - z^2 P_.r E P_r.) W3 and c += W3'(y - z^2 P_.r E y_r).
void addgeneralised(const Pass& pass, const Level3Posterior& unit, PosteriorSums& sums, Array<double>& reducedP,
                    Array<double>& reducedy) {
  const int nb = pass.nbeta, b = pass.b;
  const double zz = unit.z * unit.z;
  for (int i = 0; i < nb; ++i) {
    double PE[64];
    Array<double> longrow;
    double* row = PE;
    if (b > 64) {
      longrow.reset(at(b));
      row = longrow.data();
    }
    for (int c = 0; c < b; ++c) {
      double s = 0.0;
      for (int a = 0; a < b; ++a) s += unit.P[i * nb + a] * unit.E[a * b + c];
      row[c] = zz * s;
    }
    for (int j = 0; j < nb; ++j) reducedP[i * nb + j] = unit.P[i * nb + j] - dot(row, unit.P.data() + j * nb, at(b));
    reducedy[i] = unit.y[i] - dot(row, unit.y.data(), at(b));
  }
  addsandwichW3(pass, unit.weights.data(), reducedP.data(), sums.A.data());
  addtransposedW3(pass.design, unit.weights.data(), reducedy.data(), sums.c.data());
}

void addunit(const Pass& pass, const PosteriorInput& input, const Level3Posterior& unit, PosteriorSums& sums) {
  sums.logdetCinv += unit.sums.logdetCinv;
  sums.logdetE += unit.logdetE;
  sums.logdetT += unit.units * unit.logdetT;
  sums.rss += unit.rss;
  sums.Q += unit.Q;
  sums.traceacc += input.sigma2 * unit.trace;
  for (std::size_t i = 0; i < square(pass.p); ++i) {
    sums.PP[i] += unit.PP[i];
    sums.UU[i] += unit.UU[i];
  }
  for (int i = 0; i < pass.b; ++i)
    for (int j = 0; j < pass.b; ++j) {
      sums.sumDinv[i * pass.b + j] += unit.E[i * pass.b + j];
      sums.VV[i * pass.b + j] += unit.v[i] * unit.v[j];
    }
}

void clear(const Pass& pass, PosteriorSums& sums) {
  sums = PosteriorSums{};
  sums.PP.reset(square(pass.p));
  sums.UU.reset(square(pass.p));
  sums.sumDinv.reset(square(pass.b));
  sums.VV.reset(square(pass.b));
  sums.A.reset(square(pass.g));
  sums.c.reset(at(pass.g));
}

// S of one level-3 unit in the heterogeneous stage. False when its taupi cannot be inverted.
bool unitS(const Pass& pass, const PosteriorInput& input, Level3Posterior& unit, double* S) {
  const Inversion inversion = invertsymmetric(pass.p, input.hettaupi->row(unit.k), S);
  if (inversion.result == 1) return false;
  unit.logdetT = inversion.logdeterminant();
  for (std::size_t i = 0; i < square(pass.p); ++i) S[i] *= input.sigma2;
  return true;
}

}  // namespace

PosteriorResult posteriorsweep(Pass& pass, const PosteriorInput& input, PosteriorSums& sums,
                               const Level3Visitor& visit) {
  clear(pass, sums);
  const int p = pass.p, b = pass.b, nb = pass.nbeta;
  UnitStore& store = pass.store;
  Level3Posterior unit = makeposterior(pass);
  Array<double> S(square(p)), Spacked(packedsize(p));
  Array<double> inverse(square(b));
  Array<double> reducedP(square(nb)), reducedy(at(nb));
  if (input.hettaupi == nullptr) {
    std::copy_n(input.S, square(p), S.data());
    pack(p, S.data(), Spacked.data());
  }

  PosteriorResult result = PosteriorResult::ok;
  sweeplevel3(
      pass.n2of,
      [&](int k, std::size_t, double* hot) {
        if (result != PosteriorResult::ok) return;
        unit.k = k;
        unit.units = pass.n2of[k];
        unit.records = unitrecords(store, hot, unit.units, b, unit.loopwork);
        unit.z = pass.scale3[k];
        if (input.hettaupi != nullptr) {
          if (!unitS(pass, input, unit, S.data())) return void(result = PosteriorResult::badT);
          pack(p, S.data(), Spacked.data());
        }
        if (!sumunits(unit.records, Spacked.data(), unit.sums)) return void(result = PosteriorResult::badC);
        if (!level3step(pass, input, unit, inverse)) return void(result = PosteriorResult::badD);
        const double ua = meanunits(unit.records, unit.thetastar.data(), input.keepmeans, unit.UU.data());
        sumposteriorcovariance(pass, unit);
        unitscalars(pass, unit, S.data(), ua);
        addgeneralised(pass, unit, sums, reducedP, reducedy);
        addunit(pass, input, unit, sums);
        std::copy(unit.E.begin(), unit.E.end(), pass.dinv.row(k));
        for (int i = 0; i < b; ++i)
          for (int j = 0; j < b; ++j) pass.within.row(k)[i * b + j] = unit.z * unit.z * unit.P[i * nb + j];
        if (input.keepmeans) {
          std::copy(unit.v.begin(), unit.v.end(), pass.vstar.row(k));
          std::copy(unit.q.begin(), unit.q.end(), pass.vright.row(k));
        }
        if (visit) visit(unit);
      },
      changing(store.hot));
  return result;
}

}  // namespace kdr
