#include "linear/inference.h"

#include <algorithm>
#include <cmath>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "linear/sweep.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/variancetables.h"

namespace kdr {

namespace {

// Calls use(k, inverse) for each level-3 unit with the inverse of E_k = Z2'Z2 - sum_j Z2'Z1 C_j^-1 Z1'Z2, or with null
// when it is not usable.
template <class Use>
void eachwithin(Pass& pass, Use use) {
  const int b = pass.b, p = pass.p, nb = pass.nbeta;
  Array<double> E(square(b)), inverse(square(b)), work(packedsize(b) + 3), C(square(p)), R(at(b) * at(p));
  sweepunits(
      pass, false,
      [&](int k) {
        const double* BB = Pass::row(pass.sumBB, k, nb * nb);
        for (int i = 0; i < b; ++i)
          for (int j = 0; j < b; ++j) E[i * b + j] = BB[i * nb + j];
      },
      [&](int, const double* hot, const double*) {
        const double* Z2Z1 = hot + pass.store.atBZ1;  // its first b rows
        unpack(p, hot + pass.store.atCinv, C.data());
        mulAB(R.data(), Z2Z1, C.data(), b, p, p);
        subABt(E.data(), R.data(), Z2Z1, b, b, p);
      },
      [&](int k) {
        scale(E.data(), b, b, b, pass.scale3[k] * pass.scale3[k]);
        double condition = 0.0;
        const bool usable =
            syminverse(b, E.data(), b, inverse.data(), b, work.data()) == 0 && !isbadcov(b, E.data(), b, &condition);
        use(k, usable ? inverse.data() : nullptr);
      });
}

// theta* = W3 gamma + z v of level-3 unit k: what the level-2 units of k are compared with.
void unitmeans(const Pass& pass, int k, const double* v, Array<double>& weights, Array<double>& thetastar) {
  level3weights(pass, k, weights.data());
  level2means(pass, weights.data(), run.est.gammahat.data(), thetastar.data());
  for (int i = 0; i < pass.b; ++i) thetastar[i] += pass.scale3[k] * v[i];
}

}  // namespace

void level2reliabilities(Pass& pass, IterationState& state, bool shown) {
  const int p = pass.p;
  state.rel2.reset(at(p));
  state.nrel2 = run.mdm.nunits2;
  Array<double> inverse(square(p));
  const double* T = run.est.taupi.data();
  sweepunits(
      pass, false, [](int) {},
      [&](int, const double*, const double* cold) {
        if (!usableunit(pass, cold)) {
          --state.nrel2;
          return;
        }
        unpack(p, cold + pass.store.atinverse, inverse.data());
        for (int i = 0; i < p; ++i) {
          const double variance = T[i * p + i];
          state.rel2[i] += variance / (run.est.sigma2 * inverse[i * p + i] + variance);
        }
      },
      [](int) {});
  if (state.nrel2 < 1) {
    if (shown) reportline(" The %s reliabilities cannot be computed", run.sym.symvar2.c_str());
    return;
  }
  for (double& r : state.rel2) r /= state.nrel2;
  if (!shown) return;
  reliabilitytable(p, state.rel2.data(), 1);
  if (state.nrel2 != run.mdm.nunits2) partialdatanote("reliability estimates", state.nrel2, run.mdm.nunits2);
}

void level3reliabilities(Pass& pass, IterationState& state, bool shown) {
  const int b = pass.b;
  state.rel3.reset(at(b));
  state.nrel3 = run.mdm.nunits3;
  const double* L = run.est.taubeta.data();
  eachwithin(pass, [&](int, const double* inverse) {
    if (inverse == nullptr) {
      --state.nrel3;
      return;
    }
    for (int i = 0; i < b; ++i) {
      const double variance = L[i * b + i];
      state.rel3[i] += variance / (run.est.sigma2 * inverse[i * b + i] + variance);
    }
  });
  if (state.nrel3 < 1) {
    if (shown) reportline(" The %s(beta) reliabilities cannot be computed", run.report.html ? "&tau;" : "tau");
    return;
  }
  for (double& r : state.rel3) r /= state.nrel3;
  if (!shown) return;
  reliabilitytable(b, state.rel3.data(), 2);
  if (state.nrel3 != run.mdm.nunits3) partialdatanote("reliability estimates", state.nrel3, run.mdm.nunits3);
}

void variancetests(Pass& pass, VarianceTests& tests) {
  const int p = pass.p, b = pass.b;
  const double s = run.est.sigma2;
  tests.stat2.reset(at(p));
  tests.stat3.reset(at(b));
  tests.nstat3 = run.mdm.nunits3;
  tests.nstat2 = run.mdm.nunits2;
  Array<double> w(at(b));
  eachwithin(pass, [&](int k, const double* inverse) {
    double* vlsq = Pass::row(pass.vlsq, k, b);
    if (inverse == nullptr) {
      vlsq[0] = missingcode;
      --tests.nstat3;
      return;
    }
    mulAB(w.data(), inverse, vlsq, b, 1, b);
    std::copy(w.begin(), w.end(), vlsq);
    for (int i = 0; i < b; ++i) tests.stat3[i] += w[i] * w[i] / (s * inverse[i * b + i]);
  });

  Array<double> weights(pass.design.owner3.size()), thetastar(at(pass.nbeta));
  Array<double> inverse(square(p)), a(at(p)), ols(at(p));
  bool usable3 = false;
  sweepunits(
      pass, false,
      [&](int k) {
        const double* vlsq = Pass::row(pass.vlsq, k, b);
        usable3 = vlsq[0] != missingcode;
        if (usable3) unitmeans(pass, k, vlsq, weights, thetastar);
      },
      [&](int, const double* hot, const double* cold) {
        if (!usable3 || !usableunit(pass, cold)) {
          --tests.nstat2;
          return;
        }
        unpack(p, cold + pass.store.atinverse, inverse.data());
        residualproduct(pass.store, hot, thetastar.data(), a.data());
        mulAB(ols.data(), inverse.data(), a.data(), p, 1, p);
        for (int i = 0; i < p; ++i) tests.stat2[i] += ols[i] * ols[i] / (s * inverse[i * p + i]);
      },
      [](int) {});
}

void variancetesttables(const Pass& pass, const VarianceTests& tests) {
  variancetable(1, pass.p, tests.nstat2, tests.nstat3, pass.nrandomterms.data(), pass.nfixedterms.data(),
                run.est.taupi.data(), tests.stat2.data(), run.est.sigma2);
  if (tests.nstat2 != run.mdm.nunits2) partialdatanote("chi-square statistics", tests.nstat2, run.mdm.nunits2);
  variancetable(2, pass.b, tests.nstat3, 0, pass.nterms3reduced.data(), nullptr, run.est.taubeta.data(),
                tests.stat3.data(), run.est.sigma2);
  if (tests.nstat3 != run.mdm.nunits3) partialdatanote("chi-square statistics", tests.nstat3, run.mdm.nunits3);
}

void reportfixedeffects(const Pass& pass, const FixedDegrees& degrees, bool weighted) {
  const Estimates& est = run.est;
  const int g = pass.g;
  Array<double> covariance = weighted ? est.vgammaweighted.copy() : est.vgamma.copy();
  if (!weighted) scale(covariance.data(), g, g, g, est.sigma2);
  fixedtable(degrees, TableKind::estimates, covariance.data(), est.gammahat.data(), g, 1.0);
  if (!run.pass.nlfirstpass) ratiotable(degrees, TableKind::estimates, covariance.data(), est.gammahat.data(), g, 1.0);
  if (run.model.nhypotheses) hypothesistest(g, est.gammahat.data(), covariance.data(), g);
}

namespace {

// The sum over the level-3 units of e e', e = M'(Y - M gamma) by least squares, or M'(Y - M gamma - Z1 u - Z2 v) /
// sigma2.
Array<double> scoreproducts(Pass& pass, bool leastsquares) {
  const int nb = pass.nbeta, p = pass.p, g = pass.g;
  Array<double> total(square(g)), weights(pass.design.owner3.size()), theta(at(nb)), r(at(nb)), e(at(g));
  const Array<double> none(at(pass.b));
  sweepunits(
      pass, false,
      [&](int k) {
        unitmeans(pass, k, leastsquares ? none.data() : Pass::row(pass.vstar, k, pass.b), weights, theta);
        std::copy_n(Pass::row(pass.sumBY, k, nb), nb, r.data());
        subAB(r.data(), Pass::row(pass.sumBB, k, nb * nb), theta.data(), nb, 1, nb);
      },
      [&](int, const double* hot, const double*) {
        if (!leastsquares) subAB(r.data(), hot + pass.store.atBZ1, hot + pass.store.atustar, nb, 1, p);
      },
      [&](int) {
        e.fill(0.0);
        addtransposedW3(pass, weights.data(), r.data(), e.data());
        if (!leastsquares) scale(e.data(), g, 1, 1, 1.0 / run.est.sigma2);
        addABt(total.data(), e.data(), e.data(), g, g, 1);
      });
  return total;
}

// Some level-2 coefficient has fewer than 20 level-3 units left after its level-3 terms.
bool fewlevel3units() {
  constexpr int enough = 20;
  for (int e = 0; e < run.kind.neqsets; ++e) {
    const int* nterms3 = run.model.nterms3.row(e);
    int b = 0;
    for (int c = 0; c < level1coefficients(e); ++c)
      for (int s = 0; s < run.model.nterms2.row(e)[c]; ++s, ++b)
        if (run.mdm.nunits3 - nterms3[b] < enough) return true;
  }
  return false;
}

}  // namespace

void robustcovariance(Pass& pass, const FixedDegrees& degrees, bool leastsquares) {
  const int g = pass.g;
  const double s = run.est.sigma2;
  Array<double>& robust = run.est.vgammarobust;
  const Array<double> scores = scoreproducts(pass, leastsquares);
  Array<double> V = run.est.vgamma.copy(), half(square(g));
  if (!leastsquares) scale(V.data(), g, g, g, s);
  robust.reset(square(g));
  mulAB(half.data(), V.data(), scores.data(), g, g, g);
  mulAB(robust.data(), half.data(), V.data(), g, g, g);

  bool usable = true;
  for (int i = 0; i < g; ++i) usable = usable && robust[i * g + i] >= 0.0;
  if (!usable || hasunitcorrelation(g, robust.data(), g) || !ispositivedefinite(g, robust.data(), g, nullptr)) {
    report("\nThe robust standard errors cannot be computed for this model.\n");
    robust[0] = missingcode;
    return;
  }
  const TableKind kind =
      leastsquares && run.pass.paphase == 0 && !run.kind.mnrun ? TableKind::leastsquaresrobust : TableKind::robust;
  fixedtable(degrees, kind, robust.data(), run.est.gammahat.data(), g, 1.0);
  ratiotable(degrees, kind, robust.data(), run.est.gammahat.data(), g, 1.0);
  if (fewlevel3units())
    report(
        "\nThe robust standard errors are appropriate for datasets having a moderate to\n"
        "large number of level 3 units.  These data do not meet this criterion.\n");
  if (!leastsquares && run.model.nhypotheses) hypothesistest(g, run.est.gammahat.data(), robust.data(), g);
  if (!leastsquares)
    for (double& r : robust) r /= s;
}

}  // namespace kdr
