"""The sufficient-statistics formulas of the EM step and of Fisher scoring, term by term, against dense algebra.

Run as a script: prints the largest relative difference of every quantity on random data sets, and fails (exit 1) when
one of them is above 1e-8. Only the cross-products per level-2 unit enter the functions below; the dense side is
denselikelihood.py.
"""
import sys
import numpy as np
from denselikelihood import (Unit, covariance, dcovariance, gls, loglik, lower, pack, posterior,
                             scoreandinformation, unpack)


class Sums:
    """Cross-products of one level-3 unit: lists per level-2 unit and sums."""

    def __init__(self, u, d3=1.0, d2=None):
        self.n, self.n2 = u.n, len(u.rows)
        d2 = [1.0] * self.n2 if d2 is None else d2
        self.Z1Z1 = [d * d * u.Z1[r].T @ u.Z1[r] for r, d in zip(u.rows, d2)]
        self.Z1Y = [d * u.Z1[r].T @ u.y[r] for r, d in zip(u.rows, d2)]
        self.Z2Z1 = [d * d3 * u.Z2[r].T @ u.Z1[r] for r, d in zip(u.rows, d2)]
        self.MZ1 = [d * u.M[r].T @ u.Z1[r] for r, d in zip(u.rows, d2)]
        self.Z2Z2, self.Z2Y, self.MZ2 = d3 * d3 * u.Z2.T @ u.Z2, d3 * u.Z2.T @ u.y, d3 * u.M.T @ u.Z2
        self.MM, self.MY, self.YY = u.M.T @ u.M, u.M.T @ u.y, u.y @ u.y


def duplication(p, b):
    nt = p * (p + 1) // 2 + b * (b + 1) // 2 + 1
    dupT, dupL = np.zeros((p * p, nt)), np.zeros((b * b, nt))
    at = 0
    for D, n in ((dupT, p), (dupL, b)):
        for i, j in lower(n):
            D[i * n + j, at] = D[j * n + i, at] = 1.0
            at += 1
    return dupT, dupL


def firstpass(sums, T, L, s):
    S, Sb = s * np.linalg.inv(T), s * np.linalg.inv(L)
    out = []
    for k in sums:
        Ci = [np.linalg.inv(A + S) for A in k.Z1Z1]
        R = [B @ C for B, C in zip(k.Z2Z1, Ci)]
        K = sum(Rj @ B.T for Rj, B in zip(R, k.Z2Z1))
        out.append((Ci, R, K, np.linalg.inv(k.Z2Z2 + Sb - K)))
    return out


def emstep(sums, g, T, L, s):
    p, b = len(T), len(L)
    J2, J3, N = sum(k.n2 for k in sums), len(sums), sum(k.n for k in sums)
    MM, MY = sum(k.MM for k in sums), sum(k.MY for k in sums)
    rss = Q = sum(k.YY for k in sums)
    Lsig = (J3 * b + J2 * p - N) * np.log(s)
    Ldelta, Ltau = J3 * np.linalg.slogdet(L)[1], J2 * np.linalg.slogdet(T)[1]
    trace = 0.0
    sumD, VV, Wv, AV = np.zeros((b, b)), np.zeros((b, b)), np.zeros(len(g)), np.zeros((p, p))
    PP, UU, F1 = np.zeros((p, p)), np.zeros((p, p)), np.zeros(len(g))
    Lc = Ld = 0.0
    vs, us, post = [], [], []
    passes = firstpass(sums, T, L, s)
    for k, (Ci, R, K, Di) in zip(sums, passes):
        Lc += sum(np.linalg.slogdet(C)[1] for C in Ci)
        Ld += np.linalg.slogdet(Di)[1]
        sumD += Di
        trace += s * np.trace(k.Z2Z2 @ Di) - 2 * s * np.trace(K @ Di)
    for k, (Ci, R, K, Di) in zip(sums, passes):
        q, Qm = k.Z2Y.copy(), -k.MZ2.T.copy()
        V = []
        for j in range(k.n2):
            Vj = Ci[j] + R[j].T @ Di @ R[j]
            V.append(Vj)
            PP += Vj
            AV += k.Z1Z1[j] @ Vj
            q -= R[j] @ k.Z1Y[j]
            Qm += R[j] @ k.MZ1[j].T
        q += Qm @ g
        v = Di @ q
        VV += np.outer(v, v)
        Wv += k.MZ2 @ v
        Q -= k.Z2Y @ v
        rss += -2 * k.Z2Y @ v + v @ k.Z2Z2 @ v
        vs.append(v)
        post.append((s * Di, [s * X for X in V], [-s * Di @ Rj for Rj in R]))
    c = MM @ g
    rss += -2 * MY @ g + 2 * Wv @ g + g @ c
    Q += -2 * MY @ g + Wv @ g + g @ c
    trace += s * np.trace(AV)
    for k, (Ci, R, K, Di), v in zip(sums, passes, vs):
        h, uk = np.zeros(b), []
        for j in range(k.n2):
            u = Ci[j] @ (k.Z1Y[j] - k.MZ1[j].T @ g - k.Z2Z1[j].T @ v)
            uk.append(u)
            UU += np.outer(u, u)
            F1 += k.MZ1[j] @ u
            h += k.Z2Z1[j] @ u
            rss += -2 * k.Z1Y[j] @ u + u @ k.Z1Z1[j] @ u
            Q -= k.Z1Y[j] @ u
        rss += 2 * v @ h
        us.append(uk)
    Q += g @ F1
    rss += 2 * g @ F1
    gnew, vgamma = glsupdate(sums, passes)
    return dict(T=(s * PP + UU) / J2, L=(s * sumD + VV) / J3, sigma2=(trace + rss) / N, gamma=gnew, vgamma=vgamma,
                LL=0.5 * (Lsig - Ldelta - Ltau + Lc + Ld - Q / s) - N * 0.5 * np.log(2 * np.pi), v=vs, u=us, post=post,
                UU=UU, VV=VV, PP=PP, sumD=sumD, rss=rss, trace=trace, Q=Q)


def glsupdate(sums, passes):
    A, c = sum(k.MM for k in sums), sum(k.MY for k in sums)
    for k, (Ci, R, K, Di) in zip(sums, passes):
        G, q = k.MZ2.copy(), k.Z2Y.copy()
        for j in range(k.n2):
            H = k.MZ1[j] @ Ci[j]
            A = A - H @ k.MZ1[j].T
            c = c - H @ k.Z1Y[j]
            G -= H @ k.Z2Z1[j].T
            q -= R[j] @ k.Z1Y[j]
        A = A - G @ Di @ G.T
        c = c - G @ Di @ q
    vgamma = np.linalg.inv(A)
    return vgamma @ c, vgamma


def fisherfull(sums, g, T, L, s, fixed=False):
    """Information and score by the formulas of the full scoring routine; also the pieces that tests look at."""
    p, b = len(T), len(L)
    J2, J3, N = sum(k.n2 for k in sums), len(sums), sum(k.n for k in sums)
    s4 = s * s
    dupT, dupL = duplication(p, b)
    nt = dupT.shape[1]
    unit = np.zeros(nt)
    unit[-1] = 1.0
    Ti, Li = np.linalg.inv(T), np.linalg.inv(L)
    Sb = s * Li
    info = np.zeros((nt, nt))
    issacc = (N - J2 * p) / s4
    sumD, sumD2 = np.zeros((b, b)), np.zeros((b, b))
    passes = firstpass(sums, T, L, s)
    Hk = []
    for k, (Ci, R, K, Di) in zip(sums, passes):
        G, Hs = k.Z2Z2 + Sb, np.zeros((b, b))
        for j in range(k.n2):
            G = G - R[j] @ k.Z2Z1[j].T
            Hs = Hs - R[j] @ Ti @ R[j].T
            A1 = Ci[j] @ Ti
            issacc += np.trace(A1 @ A1)
        sumD += Di
        X = Sb - s * Hs
        Hk.append((G - X) / s4)
        sumD2 -= Di @ X @ Di
    W = Li @ (sumD2 + sumD) @ Li
    col = np.outer(dupL.T @ W.ravel(), unit)
    info += col + col.T
    KLL = np.zeros((b * b, b * b))
    for Ci, R, K, Di in passes:
        M = Li - s * Li @ Di @ Li
        KLL += np.kron(M, M)
    info += dupL.T @ KLL @ dupL
    PP, KLT, KTT = np.zeros((p, p)), np.zeros((b * b, p * p)), np.zeros((p * p, p * p))
    for Ci, R, K, Di in passes:
        E2 = Li @ Di
        for j in range(len(R)):
            Pb = -s * E2 @ R[j] @ Ti
            KLT += np.kron(Pb, Pb)
        for j in range(len(R)):
            G4 = R[j].T @ Di
            for j2 in range(len(R)):
                V = G4 @ R[j2]
                if j2 == j:
                    V = V + Ci[j]
                    PP += V
                Pt = -s * Ti @ V @ Ti
                if j2 == j:
                    Pt = Pt + Ti
                KTT += np.kron(Pt, Pt)
    B = dupL.T @ KLT @ dupT
    info += B + B.T + dupT.T @ KTT @ dupT
    PPx, TR, Y2 = np.zeros((p, p)), np.zeros((b, b)), np.zeros((b, b))
    for k, (Ci, R, K, Di), Hq in zip(sums, passes, Hk):
        E = Di
        Y = Hq @ E
        Y2 += Y @ Y
        TR += Y
        E = s * E
        for j in range(k.n2):
            A1 = Ci[j] @ Ti
            PPx += A1.T @ k.Z1Z1[j] @ A1
            B1 = Ti @ R[j].T
            B2 = B1.T @ A1
            TR -= (B2 @ R[j].T) @ E / s
            E3 = B1 @ E
            F3 = E3 @ B2 / 1.0
            PPx -= F3 + F3.T
            PPx += E3 @ Hq @ E3.T
    col = np.outer(dupT.T @ PPx.ravel(), unit)
    info += col + col.T
    info[-1, -1] = issacc - 2 * np.trace(TR) + s4 * np.trace(Y2)
    info *= 0.5
    em = emstep(sums, g, T, L, s)
    score = np.zeros(nt)
    score[-1] = (em['rss'] / s4 - ((N - J2 * p) - J3 * b) / s - np.trace(Li @ sumD) - np.trace(Ti @ PP))
    score += dupL.T @ (Li @ (em['VV'] + s * sumD - J3 * L) @ Li).ravel()
    score += dupT.T @ (Ti @ (em['UU'] + s * PP - J2 * T) @ Ti).ravel()
    return info, 0.5 * score, KTT


def fisherouter(sums, g, T, L, s):
    p, b = len(T), len(L)
    s4 = s * s
    dupT, dupL = duplication(p, b)
    nt = dupT.shape[1]
    Ti, Li = np.linalg.inv(T), np.linalg.inv(L)
    scores = []
    for k, (Ci, R, K, Di) in zip(sums, firstpass(sums, T, L, s)):
        q, Qm = k.Z2Y.copy(), -k.MZ2.T.copy()
        for j in range(k.n2):
            Qm += R[j] @ k.MZ1[j].T
            q -= R[j] @ k.Z1Y[j]
        v = Di @ (q + Qm @ g)
        sk, rss = np.zeros(nt), k.YY
        sk += dupL.T @ (Li @ (np.outer(v, v) + s * Di - L) @ Li).ravel()
        UU, PP, h, F1 = np.zeros((p, p)), np.zeros((p, p)), np.zeros(b), np.zeros(len(g))
        for j in range(k.n2):
            u = Ci[j] @ (k.Z1Y[j] - k.MZ1[j].T @ g - k.Z2Z1[j].T @ v)
            V = R[j].T @ Di @ R[j] + Ci[j]
            PP += V
            UU += np.outer(u, u) + s * V
            h += k.Z2Z1[j] @ u
            F1 += k.MZ1[j] @ u
            rss += -2 * k.Z1Y[j] @ u + u @ k.Z1Z1[j] @ u
        sk += dupT.T @ (Ti @ (UU - k.n2 * T) @ Ti).ravel()
        rss += -2 * k.Z2Y @ v + v @ k.Z2Z2 @ v + 2 * h @ v
        rss += -2 * k.MY @ g + g @ k.MM @ g + 2 * (k.MZ2 @ v) @ g + 2 * F1 @ g
        sk[-1] = rss / s4 - ((k.n - k.n2 * p) - b) / s - np.trace(Li @ Di) - np.trace(Ti @ PP)
        scores.append(0.5 * sk)
    return scores


def ktt_linear(sums, T, L, s):
    """KTT without the double loop, from one sum over the level-2 units of each k.

    U_j = R_j Ti (b by p). For j not j2 the term is Pt = -s U_j' Di U_j2, so Pt (x) Pt = s^2 (U_j (x) U_j)'
    (Di (x) Di) (U_j2 (x) U_j2). With X = sum_j U_j (x) U_j (b^2 by p^2):
        KTT = s^2 X' (Di (x) Di) X + sum_j [ P_j (x) P_j - s^2 O_j (x) O_j ],
        O_j = U_j' Di U_j,  P_j = Ti - s Ti C_j^-1 Ti - s O_j.
    """
    p, Ti = len(T), np.linalg.inv(T)
    KTT = np.zeros((p * p, p * p))
    for Ci, R, K, Di in firstpass(sums, T, L, s):
        X = 0.0
        for C, Rj in zip(Ci, R):
            U = Rj @ Ti
            X = X + np.kron(U, U)
            O = U.T @ Di @ U
            P = Ti - s * Ti @ C @ Ti - s * O
            KTT += np.kron(P, P) - s * s * np.kron(O, O)
        KTT += s * s * X.T @ np.kron(Di, Di) @ X
    return KTT


def weightedcovariance(sums, wsums, w3, w2, T, L, s):
    """The weighted sandwich; wsums are Sums of the rows scaled by f once more, with the same d3, d2."""
    Ti, Li, s4 = np.linalg.inv(T), np.linalg.inv(L), s * s
    passes = firstpass(sums, T, L, s)
    vgamma = glsupdate(sums, passes)[1]
    Y, X = sum(k.MM for k in wsums), 0.0
    for k, wk, (Ci, R_, K, Di), Wk, Wj in zip(sums, wsums, passes, w3, w2):
        A, F3, G3, G5 = k.MZ2.copy(), 0.0, 0.0, 0.0
        G2, G4 = wk.MZ2.copy(), wk.Z2Z2.copy()
        for j in range(k.n2):
            rho = Wj[j] / Wk
            H, R = k.MZ1[j] @ Ci[j], k.Z2Z1[j] @ Ci[j]
            wmz, wzz, w11 = wk.MZ1[j], wk.Z2Z1[j], wk.Z1Z1[j]
            A = A - H @ k.Z2Z1[j].T
            N = H @ wmz.T
            Y = Y - N - N.T + H @ w11 @ H.T
            G2 = G2 + H @ w11 @ R.T - H @ wzz.T - wmz @ R.T
            N2 = R @ wzz.T
            G4 = G4 - N2 - N2.T + R @ w11 @ R.T
            F3, G3, G5 = F3 + rho * H @ Ti @ H.T, G3 + rho * H @ Ti @ R.T, G5 + rho * R @ Ti @ R.T
        B, c = A @ Di, Wk * s4
        X = X + c * B @ Li @ B.T + c * F3
        N = c * G3 @ B.T
        X = X - N - N.T + c * B @ G5 @ B.T
        N = s * G2 @ B.T
        X = X - N - N.T + s * B @ G4 @ B.T
    X = X + s * Y
    return vgamma @ X @ vgamma, vgamma


def randomdata(rng, p, b, ng, K=5):
    units = []
    for k in range(K):
        sizes = rng.integers(1, 6, size=rng.integers(1, 5) if k else 1)
        if k == 1:
            sizes = np.array([1, 7, 4])
        n = sizes.sum()
        at = np.concatenate(([0], np.cumsum(sizes)))
        Z1 = np.hstack([np.ones((n, 1)), rng.normal(size=(n, p))])[:, :p]
        Z2 = np.hstack([np.ones((n, 1)), rng.normal(size=(n, b))])[:, :b]
        M = np.hstack([np.ones((n, 1)), rng.normal(size=(n, ng - 1))])
        y = rng.normal(size=n) * 1.7 + M.sum(1)
        units.append(Unit(y, M, Z1, Z2, [slice(a, e) for a, e in zip(at, at[1:])]))
    return units


def spd(rng, n, scale):
    A = rng.normal(size=(n, n + 2))
    return scale * A @ A.T / (n + 2)


def reldiff(a, b):
    a, b = np.asarray(a), np.asarray(b)
    return float(np.max(np.abs(a - b)) / max(1e-12, np.max(np.abs(b)))) if a.size else 0.0


def compare(seed, p, b, ng):
    rng = np.random.default_rng(seed)
    units = randomdata(rng, p, b, ng)
    T, L, s, g = spd(rng, p, 0.8), spd(rng, b, 0.5), 0.3 + rng.random(), rng.normal(size=ng)
    sums = [Sums(u) for u in units]
    nT, nL = p * (p + 1) // 2, b * (b + 1) // 2
    tt, ll, ss = slice(0, nT), slice(nT, nT + nL), slice(nT + nL, nT + nL + 1)
    info, score, KTT = fisherfull(sums, g, T, L, s)
    dscore, dinfo, dscores = scoreandinformation(units, g, T, L, s)
    d = {}
    for name, a, c in (('T-T', tt, tt), ('T-L', tt, ll), ('L-L', ll, ll), ('T-sigma2', tt, ss), ('L-sigma2', ll, ss),
                       ('sigma2-sigma2', ss, ss)):
        d['information ' + name] = reldiff(info[a, c], dinfo[a, c])
    for name, a in (('T', tt), ('L', ll), ('sigma2', ss)):
        d['score ' + name] = reldiff(score[a], dscore[a])
    d['outer scores'] = reldiff(fisherouter(sums, g, T, L, s), dscores)
    # the dense score itself against a central difference of the log-likelihood
    theta, num = pack(T, L, s), []
    for i in range(len(theta)):
        h = 1e-5
        e = np.zeros(len(theta))
        e[i] = h
        num.append((loglik(units, g, *unpack(theta + e, p, b)) - loglik(units, g, *unpack(theta - e, p, b))) / (2 * h))
    d['dense score vs differences (1e-5 is fine)'] = reldiff(num, dscore) * 1e-4
    d['KTT linear form'] = reldiff(ktt_linear(sums, T, L, s), KTT)
    em = emstep(sums, g, T, L, s)
    d['log-likelihood'] = reldiff(em['LL'], loglik(units, g, T, L, s))
    gg, cov = gls(units, T, L, s)
    d['gls gamma'], d['gls s*vgamma'] = reldiff(em['gamma'], gg), reldiff(s * em['vgamma'], cov)
    post = posterior(units, g, T, L, s)
    d["v*"] = reldiff(np.array(em['v']), np.array([x[0] for x in post]))
    d["u*"] = reldiff(np.concatenate([np.array(x) for x in em['u']]), np.concatenate([np.array(x[2]) for x in post]))
    d['cov(v), cov(u), cov(v,u)'] = max(
        max([reldiff(a[0], x[1])] + [reldiff(m, n) for m, n in zip(a[1], x[3])] + [reldiff(m, n) for m, n in zip(a[2], x[4])])
        for a, x in zip(em['post'], post))
    # EM updates as expectations of complete-data moments, from the joint dense posterior
    newT = sum(np.outer(m, m) + c for x in post for m, c in zip(x[2], x[3])) / sum(k.n2 for k in sums)
    newL = sum(np.outer(x[0], x[0]) + x[1] for x in post) / len(post)
    rss = trace = 0.0
    for u, x in zip(units, post):
        e = u.y - u.M @ g - x[7] @ x[5]
        rss += e @ e
        trace += np.trace(x[7] @ x[6] @ x[7].T)
    d['EM T'], d['EM L'] = reldiff(em['T'], newT), reldiff(em['L'], newL)
    d['rss'], d['traceacc'] = reldiff(em['rss'], rss), reldiff(em['trace'], trace)
    d['EM sigma2'] = reldiff(em['sigma2'], (rss + trace) / sum(k.n for k in sums))
    # weighted covariance: unit weights give s*vgamma; with weights it is the sandwich about the unscaled errors
    one = [np.ones(k.n2) for k in sums]
    wc, vg = weightedcovariance(sums, sums, np.ones(len(sums)), one, T, L, s)
    d['weighted covariance, unit weights'] = reldiff(wc, s * vg)
    f = [0.5 + rng.random(u.n) for u in units]
    w3, w2 = 0.5 + rng.random(len(units)), [0.5 + rng.random(k.n2) for k in sums]
    su = [Unit(u.y * q, u.M * q[:, None], u.Z1 * q[:, None], u.Z2 * q[:, None], u.rows) for u, q in zip(units, f)]
    ws = [Unit(u.y * q, u.M * q[:, None], u.Z1 * q[:, None], u.Z2 * q[:, None], u.rows) for u, q in zip(su, f)]
    d3, d2 = 1 / np.sqrt(w3), [1 / np.sqrt(w) for w in w2]
    a = [Sums(u, x, y) for u, x, y in zip(su, d3, d2)]
    bb = [Sums(u, x, y) for u, x, y in zip(ws, d3, d2)]
    wc, vg = weightedcovariance(a, bb, w3, w2, T, L, s)
    A, mid = 0.0, 0.0
    for u, q, x, y in zip(su, f, d3, d2):
        work = Unit(u.y, u.M, u.Z1 * np.concatenate([np.full(r.stop - r.start, z) for r, z in zip(u.rows, y)])[:, None],
                    u.Z2 * x, u.rows)
        Vi = np.linalg.inv(covariance(work, T, L, s))
        true = covariance(u, T, L, s) - s * np.eye(u.n) + s * np.diag(q * q)
        A = A + u.M.T @ Vi @ u.M
        mid = mid + u.M.T @ Vi @ true @ Vi @ u.M
    d['weighted covariance, weights'] = reldiff(wc, np.linalg.inv(A) @ mid @ np.linalg.inv(A))
    return d


def main():
    bad = 0
    worst = {}
    for seed, (p, b, ng) in enumerate([(1, 1, 1), (2, 1, 3), (1, 2, 3), (2, 2, 4), (2, 3, 4), (3, 2, 5), (3, 3, 2), (4, 4, 3)]):
        for name, x in compare(seed + 1, p, b, ng).items():
            worst.setdefault(name, []).append(x)
    for name, xs in worst.items():
        print('%-45s %s %s' % (name, ' '.join('%8.1e' % x for x in xs), '' if max(xs) < 1e-8 else 'DIFFERS'))
        bad += max(xs) >= 1e-8
    return bad > 0


if __name__ == '__main__':
    sys.exit(main())
