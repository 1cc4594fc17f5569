#!/usr/bin/env python3
"""Multinomial outcomes by maximum likelihood: derivatives proved by differences, and integrals that share nothing with the program.

With M = C - 1 linear predictors a record (the last category's is 0), p_c = exp(eta_c) / (1 + sum exp(eta_d)), the rows X, D, E of
a record have M lines. The oracle integrates in the effects A z, B w with inner nodes around the mode of each integrand for its own
w and outer nodes around posterior moments; its score is that of the same sums, its information comes from differences of the score.

  multinomialstudies.py prove            derivatives of the record, score and information of a unit, gradient of one point
  multinomialstudies.py make DIR         made data DIR/<case>.dat
  multinomialstudies.py solve DIR CASE...      their maxima, DIR/<case>.ref
  multinomialstudies.py PROGRAM FIRST LAST [POINTS]     whole runs of random studies; POINTS: AUTO, if not given
  multinomialstudies.py climb PROGRAM FIRST LAST [POINTS]     the same beside the maxima that the oracle finds from a start of its own

The random studies have 2 to 4 categories, rare ones among them, some of the intercepts and of the slopes of x random, variances from 0
to 4, predictors in units from 1e-6 to 1e6. The oracle says as in movingstudies.py how far the log-likelihood is off, how far a
Newton step would go in standard errors, and what the standard errors are; with one point on the dense Laplace approximation.
"""
import os
import sys
import numpy as np
from scipy.special import logsumexp
from movingstudies import (NOFEATURES, NOFILES, apart, fitted, fixedtext, grid, lineof, pairs, semifactor, settleouter, studies,
                           unpacked, verdictof)

# case: categories, columns (predictor, 1 or x) of the effects of level 2 and of level 3, points of both integrals
ONE, SLOPE = 0, 1
CASES = {
    "multinomial22": (3, [(0, ONE), (1, ONE)], [(0, ONE), (1, ONE)], (7, 9)),
    "multinomial31": (3, [(0, ONE), (0, SLOPE), (1, ONE)], [(1, ONE)], (15, 3)),
    "multinomial33": (4, [(c, ONE) for c in range(3)], [(c, ONE) for c in range(3)], (5, 5)),
}


def density(eta, Y, weights=True):
    """Log-density of records (..., M), its first derivative, and W, minus its second."""
    top = np.maximum(eta.max(-1), 0)
    e = np.exp(eta - top[..., None])
    total = e.sum(-1) + np.exp(-top)
    p = e / total[..., None]
    if not weights:
        return (Y * eta).sum(-1) - top - np.log(total), Y - p, None
    W = -p[..., :, None] * p[..., None, :]
    for c in range(eta.shape[-1]):
        W[..., c, c] += p[..., c]
    return (Y * eta).sum(-1) - top - np.log(total), Y - p, W


def third(p):
    """dW_ab / deta_c of a record."""
    M, d = len(p), np.eye(len(p))
    return np.array([[[p[a] * d[a, b] * d[a, c] - d[a, b] * p[a] * p[c] - d[a, c] * p[a] * p[b] - d[b, c] * p[b] * p[a]
                       + 2 * p[a] * p[b] * p[c] for c in range(M)] for b in range(M)] for a in range(M)])


class Data:
    """Records sorted by unit: category y from 0, rows X (N, M, g), D (N, M, q), E (N, M, r), number of their level-2 unit, and the
    level-3 unit k of each of those."""

    def __init__(self, y, X, D, E, unit, k):
        self.Y = np.eye(X.shape[1] + 1)[y][:, :-1]
        self.X, self.D, self.E, self.unit, self.k = X, D, E, unit, k
        self.first = np.searchsorted(unit, np.arange(len(k)))
        self.q, self.r, self.g, self.M = D.shape[2], E.shape[2], X.shape[2], X.shape[1]
        self.K = k.max() + 1

    def matrices(self, theta):
        return unpacked(theta, self.q, self.r)

    def pointof(self, Tp, Tb, gamma):
        A, B = semifactor(Tp), semifactor(Tb)
        return np.concatenate([[A[c] for c in pairs(self.q)], [B[c] for c in pairs(self.r)], gamma])

    def parameters(self, theta):
        A, B, g = self.matrices(theta)
        return np.concatenate([[(T @ T.T)[c] for c in pairs(len(T))] for T in (A, B)] + [g])


class Integral:
    def __init__(self, data, points2, points3):
        self.data, self.inner, self.outer = data, grid(points2, data.q), grid(points3, data.r)
        self.w, self.C = np.zeros((data.K, data.r)), np.tile(np.eye(data.r), (data.K, 1, 1))
        self.start = None

    def once(self, theta):
        """Log-likelihood, score, and the posterior means and covariances of w."""
        data = self.data
        A, B, g = data.matrices(theta)
        L3 = np.linalg.cholesky(self.C)
        V = self.w[:, None, :] + np.einsum("kab,xb->kxa", L3, self.outer[0])  # of each level-3 unit
        j, Vj = data.unit, V[data.k]
        DA, EB = data.D @ A, data.E @ B
        total = lambda rows: np.add.reduceat(rows, data.first, axis=0)
        f = (data.X @ g)[:, None, :] + np.einsum("nmr,nvr->nvm", EB, Vj[j])
        Y = data.Y[:, None, :]
        def objective(z, weights=True):
            eta = f.copy()
            for a in range(data.q):
                eta += DA[:, None, :, a] * z[..., a][j][..., None]
            l, s, W = density(eta, Y, weights)
            return total(l) - 0.5 * (z * z).sum(-1), s, W
        def curvature(W):
            return total(np.einsum("nma,nvmc,ncb->nvab", DA, W, DA, optimize=True)) + np.eye(data.q)
        z = np.zeros(Vj.shape[:2] + (data.q,)) if self.start is None else self.start.copy()
        value, s, W = objective(z)
        for _ in range(100):
            step = np.linalg.solve(curvature(W), (total(np.einsum("nma,nvm->nva", DA, s)) - z)[..., None])[..., 0]
            scale = np.ones(z.shape[:2])
            for _ in range(40):
                trial = z + scale[..., None] * step
                new, s, W = objective(trial)
                worse = new < value - 1e-10 * (1 + np.abs(value))
                if not worse.any():
                    break
                scale = np.where(worse, scale / 2, scale)
            z, value = trial, new
            if np.abs(step).max() < 1e-4:
                break
        self.start = z
        L = np.linalg.cholesky(np.linalg.inv(curvature(W)))
        logs = []
        for x, logw in zip(*self.inner):
            logs.append(objective(z + L @ x, False)[0] + logw)
        logs = np.array(logs) + np.log(np.einsum("jvaa->jva", L)).sum(-1)
        inner = logsumexp(logs, axis=0)
        SA, rbar = np.zeros(Vj.shape[:2] + (data.q, data.q)), 0.0
        for x, log in zip(self.inner[0], logs):
            weight, here = np.exp(log - inner), z + L @ x
            _, s, _ = objective(here, False)
            s *= weight[j][..., None]
            SA += total(np.einsum("nma,nvm->nva", data.D, s))[..., :, None] * here[..., None, :]
            rbar = rbar + s
        h = np.zeros(V.shape[:2])
        np.add.at(h, data.k, inner)
        h += self.outer[1] - 0.5 * (V * V).sum(-1) + np.log(np.einsum("kaa->ka", L3)).sum(-1)[:, None]
        unit = logsumexp(h, axis=1)
        weight = np.exp(h - unit[:, None])
        mean = np.einsum("kv,kva->ka", weight, V)
        centred = V - mean[:, None, :]
        wj = weight[data.k]
        rb = wj[j][..., None] * rbar
        SB = np.einsum("nma,nvm,nvb->ab", data.E, rb, Vj[j], optimize=True)
        SA = np.einsum("jv,jvab->ab", wj, SA)
        score = np.concatenate([[SA[c] for c in pairs(data.q)], [SB[c] for c in pairs(data.r)],
                                np.einsum("nmg,nvm->g", data.X, rb, optimize=True)])
        return unit.sum(), score, mean, np.einsum("kv,kva,kvb->kab", weight, centred, centred)

    def settle(self, theta):
        settleouter(self, lambda: self.once(theta)[2:])

    def value(self, theta):
        return self.once(theta)[:2]


class OnePoint:
    """The Laplace approximation from its definition, on full matrices of each level-3 unit, and its exact gradient."""

    def __init__(self, data):
        self.data, self.units = data, []
        for k in range(data.K):
            units = np.flatnonzero(data.k == k)
            records = np.flatnonzero(np.isin(data.unit, units))
            place = data.unit[records] - units[0]
            self.units.append((records, place, len(units), np.zeros(data.r + data.q * len(units))))

    def settle(self, theta):
        pass

    def value(self, theta):
        data = self.data
        A, B, g = data.matrices(theta)
        value, SA, SB, Sg = 0.0, np.zeros_like(A), np.zeros_like(B), np.zeros_like(g)
        for records, place, J, x in self.units:
            n, q, r, M = len(records), data.q, data.r, data.M
            D, E, X, Y = data.D[records], data.E[records], data.X[records], data.Y[records]
            b = np.zeros((n, M, r + q * J))  # the rows over (w, z_1, .., z_J)
            b[:, :, :r] = E @ B
            at = r + q * place[:, None] + np.arange(q)
            for i in range(n):
                b[i][:, at[i]] = D[i] @ A
            for _ in range(100):
                l, s, W = density(X @ g + b @ x, Y)
                H = np.einsum("nma,nmc,ncb->ab", b, W, b, optimize=True) + np.eye(len(x))
                step = np.linalg.solve(H, np.einsum("nma,nm->a", b, s) - x)
                before, scale = l.sum() - 0.5 * x @ x, 1.0
                while (density(X @ g + b @ (x + scale * step), Y)[0].sum() - 0.5 * (x + scale * step) @ (x + scale * step) <
                       before - 1e-10 * abs(before)):
                    scale /= 2
                x += scale * step
                if np.abs(step).max() < 1e-11:
                    break
            l, s, W = density(X @ g + b @ x, Y)
            H = np.einsum("nma,nmc,ncb->ab", b, W, b, optimize=True) + np.eye(len(x))
            value += l.sum() - 0.5 * x @ x - 0.5 * np.linalg.slogdet(H)[1]
            Hb = np.linalg.solve(H, b.reshape(-1, len(x)).T).T.reshape(b.shape)  # H^-1 b
            a = np.einsum("nmx,ncx->nmc", b, Hb)
            t = -0.5 * np.array([np.einsum("abc,ab->c", third(y - r_), a_) for y, r_, a_ in zip(Y, s, a)])
            p = np.linalg.solve(H, np.einsum("nma,nm->a", b, t))
            rho = s + t - np.einsum("nmc,nca,a->nm", W, b, p)
            WHb = np.einsum("nmc,nca->nma", W, Hb)
            Sg += np.einsum("nmg,nm->g", X, rho)
            SB += np.einsum("nma,nmb->ab", E, rho[..., None] * x[:r] + s[..., None] * p[:r] - WHb[..., :r])
            for i in range(n):
                SA += D[i].T @ (rho[i][:, None] * x[at[i]] + s[i][:, None] * p[at[i]] - WHb[i][:, at[i]])
        return value, np.concatenate([[SA[c] for c in pairs(data.q)], [SB[c] for c in pairs(data.r)], Sg])


def information(method, theta, free, step=1e-3):
    H = np.zeros((len(free), len(free)))
    for c, i in enumerate(free):
        up, down = theta.copy(), theta.copy()
        up[i] += step
        down[i] -= step
        H[:, c] = (method.value(down)[1][free] - method.value(up)[1][free]) / (2 * step)
    return (H + H.T) / 2


def maximise(method, theta, steps, quiet=False):
    """By steps on the information of another method; the point, its value and its information."""
    everything = np.arange(len(theta))
    for _ in range(60):
        method.settle(theta)
        steps.settle(theta)
        value, score = method.value(theta)
        H = information(steps, theta, everything)
        values, Q = np.linalg.eigh(H)
        step = Q @ (Q.T @ score / np.maximum(np.abs(values), 1e-3))
        theta = theta + step * min(1.0, 1.0 / np.abs(step).max())
        if not quiet:
            print("  ", value, np.abs(score).max(), flush=True)
        if score @ step < 1e-7:
            break
    return theta, method.value(theta)[0], information(method, theta, everything)


def errors(data, theta, H, free):
    J = np.array([(data.parameters(theta + e) - data.parameters(theta - e)) / 2e-5 for e in 1e-5 * np.eye(len(theta))[free]]).T
    return np.sqrt(np.diag(J @ np.linalg.inv(H) @ J.T))


def rowsof(columns, M, one, x):
    rows = np.zeros((len(one), M, len(columns)))
    for a, (c, which) in enumerate(columns):
        rows[:, c, a] = x if which else one
    return rows


def dataof(C, second, third_, records, *more):
    """From lines of level-3 unit, level-2 unit, y, x, w, z; the fixed effects of each predictor are 1, z, w, x and `more`."""
    k, j, y, x, w, z = records.T
    keys = list(zip(k, j))
    units = list(dict.fromkeys(keys))
    place = {key: i for i, key in enumerate(units)}
    thirds = list(dict.fromkeys(unit[0] for unit in units))
    M, row = C - 1, np.stack([np.ones(len(y)), z, w, x, *more], -1)
    g = row.shape[1]
    X = np.zeros((len(y), M, g * M))
    for c in range(M):
        X[:, c, g * c:g * c + g] = row
    return Data(y.astype(int), X, rowsof(second, M, row[:, 0], x), rowsof(third_, M, row[:, 0], x),
                np.array([place[key] for key in keys]), np.array([thirds.index(unit[0]) for unit in units]))


def truth(case):
    C, second, third_, _ = CASES[case]
    tau = lambda n, variance, covariance: [variance if a == b else covariance for a, b in pairs(n)]
    gamma = np.tile([0.3, 0.4, -0.3, 0.5], C - 1) - 0.4 * np.repeat(np.arange(C - 1), 4)
    return tau(len(second), 0.8, 0.2), tau(len(third_), 0.5, -0.1), gamma


def square(values, n):
    T = np.zeros((n, n))
    for (a, b), value in zip(pairs(n), values):
        T[a, b] = T[b, a] = value
    return T


def draw(rng, probabilities):
    return int(np.searchsorted(np.cumsum(probabilities), rng.random() * (1 - 1e-12)))


def make(folder):
    for number, (case, (C, second, third_, _)) in enumerate(CASES.items()):
        rng = np.random.default_rng(300 + number)
        taupi, taubeta, gamma = truth(case)
        lines = []
        for k in range(12 if C == 4 else 20):
            z = round(rng.normal(), 3)
            v = rng.multivariate_normal(np.zeros(len(third_)), square(taubeta, len(third_)))
            for j in range(rng.integers(2, 6)):
                w = round(rng.normal(), 3)
                u = rng.multivariate_normal(np.zeros(len(second)), square(taupi, len(second)))
                for _ in range(rng.integers(1, 9)):
                    x = round(rng.normal(), 3)
                    eta = gamma.reshape(-1, 4) @ [1, z, w, x]
                    for effects, columns in ((u, second), (v, third_)):
                        for effect, (c, which) in zip(effects, columns):
                            eta[c] += effect * (x if which else 1)
                    p = np.append(np.exp(eta), 1)
                    lines.append(f"{k} {j} {draw(rng, p / p.sum())} 1 {x:g} {w:g} {z:g}\n")
        with open(f"{folder}/{case}.dat", "w") as file:
            file.writelines(lines)


def solve(folder, case):
    C, second, third_, points = CASES[case]
    data = dataof(C, second, third_, np.loadtxt(f"{folder}/{case}.dat", usecols=(0, 1, 2, 4, 5, 6)))
    taupi, taubeta, gamma = truth(case)
    path, P2, P3 = f"{folder}/{case}.ref", len(taupi), len(taubeta)
    known = {line.split()[0]: np.array(line.split()[1:], float) for line in open(path) if line[0] != "#"} if os.path.exists(path) else {}
    def start(name):  # the estimates of an older file, if there is one, else the truth
        values = known.get(name, np.concatenate([taupi, taubeta, gamma]))
        return data.pointof(square(values[:P2], data.q), square(values[P2:P2 + P3], data.r), values[P2 + P3:])
    with open(path, "w") as file:
        file.write(f"# {points} points; and one point\n")
        for ending, method in (("1", OnePoint(data)), ("", Integral(data, *points))):
            theta, value, H = maximise(method, start("estimate" + ending), method if ending else Integral(data, 3, 3))
            file.write(f"maximum{ending} {value:.6f}\n")
            for name, values in (("estimate", data.parameters(theta)), ("se", errors(data, theta, H, np.arange(len(theta))))):
                file.write(name + ending + "".join(f" {v:.7f}" for v in values) + "\n")
        file.write("start" + "".join(f" {v:.7f}" for v in [*taupi, *taubeta, *gamma]) + "\n")


def louis(data, theta, points):
    """The information of the first level-3 units by sum E[X'WX] - Var(a), on a grid of all effects of a unit at once."""
    A, B, g = data.matrices(theta)
    total, P = 0.0, len(theta)
    for k in range(data.K):
        units = np.flatnonzero(data.k == k)
        nodes, logw = grid(points, data.r + data.q * len(units))
        logw = logw - 0.5 * (nodes * nodes).sum(-1)
        mean, second, complete, logs = 0.0, 0.0, 0.0, []
        steps = []
        for x, log in zip(nodes, logw):
            w, own = x[:data.r], x[data.r:].reshape(-1, data.q)
            a, c = np.zeros(P), np.zeros((P, P))
            for i in np.flatnonzero(np.isin(data.unit, units)):
                z = own[data.unit[i] - units[0]]
                l, s, W = density(data.X[i] @ g + data.D[i] @ A @ z + data.E[i] @ B @ w, data.Y[i])
                rows = np.hstack([np.stack([data.D[i][:, e] * z[f] for e, f in pairs(data.q)], 1),
                                  np.stack([data.E[i][:, e] * w[f] for e, f in pairs(data.r)], 1), data.X[i]])
                log, a, c = log + l, a + rows.T @ s, c + rows.T @ W @ rows
            steps.append((log, a, c))
        weight = np.exp(np.array([log for log, _, _ in steps]) - logsumexp([log for log, _, _ in steps]))
        mean = sum(f * a for f, (_, a, _) in zip(weight, steps))
        total = total + sum(f * (c - np.outer(a - mean, a - mean)) for f, (_, a, c) in zip(weight, steps))
    return total


def prove():
    rng = np.random.default_rng(1)
    eta, Y, h = rng.normal(size=4), np.eye(5)[2][:4], 1e-5
    l, r, W = density(eta, Y)
    slope = lambda f: np.stack([(f(eta + e) - f(eta - e)) / (2 * h) for e in h * np.eye(4)], -1)
    print("record: score", np.abs(slope(lambda t: density(t, Y)[0]) - r).max(), "W", np.abs(slope(lambda t: density(t, Y)[1]) + W).max(),
          "third", np.abs(slope(lambda t: density(t, Y)[2]) - third(Y - r)).max())
    N = 9
    lines = np.column_stack([np.repeat([0, 0, 1], 3), np.repeat([0, 1, 0], 3), rng.integers(3, size=N), rng.normal(size=(N, 3))])
    data = dataof(3, [(0, ONE), (1, SLOPE)], [(1, ONE)], lines)
    theta = rng.normal(size=3 + 1 + 8) * 0.5 + 0.3
    for name, method in (("integral", Integral(data, 15, 15)), ("one point", OnePoint(data))):
        method.settle(theta)
        score = method.value(theta)[1]
        steps = [(method.value(theta + e)[0] - method.value(theta - e)[0]) / 2e-4 for e in 1e-4 * np.eye(len(theta))]
        print(name + ": score", np.abs(np.array(steps) - score).max())
        if name == "integral":
            small = dataof(3, [(0, ONE)], [(1, SLOPE)], lines)
            theta2 = theta[:10]
            integral = Integral(small, 25, 25)
            integral.settle(theta2)
            H = information(integral, theta2, np.arange(10))
            print("information", np.abs(H - louis(small, theta2, 25)).max(), "of", np.abs(H).max())


VALUES = (1, 2, 5, 9)  # of the categories


def study(seed):
    """Categories, columns of the effects, records of level-3 unit, level-2 unit, y, x1, x2, w, z."""
    rng = np.random.default_rng(seed)
    C = int(rng.choice([2, 3, 3, 3, 4]))
    M = C - 1
    intercepts, slope = [(c, ONE) for c in range(M)], (int(rng.integers(M)), SLOPE)
    ways = [(intercepts, intercepts[:1]), (intercepts[-1:], intercepts)]
    if M < 3:
        ways += [(intercepts, intercepts), (sorted([*intercepts[-1:], slope]), intercepts[:1]), (intercepts[:1], sorted([*intercepts[:1], slope]))]
    second, third_ = ways[rng.integers(len(ways))]
    sd = lambda n: np.sqrt(rng.choice([0, 0.05, 0.4, 1, 4], size=n, p=[0.1, 0.2, 0.3, 0.3, 0.1]))
    su, sv = sd(len(second)), sd(len(third_))
    scale, origin = 10.0 ** rng.integers(-6, 7, size=2) if rng.random() < 0.6 else np.ones(2), rng.choice([0, 0, 3], size=2)
    constant, most = rng.choice([-2, -1, 0, 0.5], size=M), int(rng.choice([3, 8, 20]))
    gamma = np.column_stack([constant, *0.4 * rng.normal(size=(4, M))])
    lines = []
    for k in range(int(rng.integers(8, 21))):
        z, v = rng.normal(), sv * rng.normal(size=len(sv))
        for j in range(int(rng.integers(2, 6))):
            w, u = rng.normal(), su * rng.normal(size=len(su))
            for _ in range(int(rng.integers(1, most + 1))):
                x = rng.normal(size=2)
                eta = gamma @ [1, z, w, *x]
                for effects, columns in ((u, second), (v, third_)):
                    for effect, (c, which) in zip(effects, columns):
                        eta[c] += effect * (x[0] if which else 1)
                p = np.append(np.exp(eta), 1)
                lines.append((k, j, draw(rng, p / p.sum()), *(scale * (x + origin)), w, z))
    return C, second, third_, np.array(lines)


def write(folder, outcome, q, r, rows, engine):
    C, second, third_ = outcome
    coded = np.column_stack([rows[:, :2], np.array(VALUES)[rows[:, 2].astype(int)], rows[:, 3:5]])
    fixedtext(folder, (coded, {(k, j): (k, j, w) for k, j, *_, w, z in rows}.values(), {k: (k, z) for k, *_, z in rows}.values()),
              "%24.20f", (["Y", "X1", "X2"], ["W"], ["Z"]))
    random = lambda columns, column: "+RANDOM" if column in columns else ""
    with open(f"{folder}/s.kdr", "w") as file:
        file.write(f"NONLIN:MULTINOMIAL,{C}\nMACROIT:100,N\nMICROIT:200\n{engine}\n")
        for c in range(C - 1):
            file.write(f"LEVEL1:Y=INTRCPT1+X1+X2+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+W{random(second, (c, ONE))}/\n"
                       f"LEVEL3:INTRCPT2=INTRCPT3+Z{random(third_, (c, ONE))}/\nLEVEL3:W=INTRCPT3/\n"
                       f"LEVEL2:X1=INTRCPT2{random(second, (c, SLOPE))}/\nLEVEL3:INTRCPT2=INTRCPT3{random(third_, (c, SLOPE))}/\n"
                       "LEVEL2:X2=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n")
        file.write("TITLE:s\nOUTPUT:s.txt\nFULLOUTPUT:N\n" + NOFILES + NOFEATURES)


class Studied:
    """What a whole run has found in a study, the data in columns of x with mean square 1, and the run's place there."""

    def __init__(self, program, seed, points):
        C, second, third_, rows = study(seed)
        self.q, self.r = q, r = len(second), len(third_)
        self.here = f"{seed:4d} C {C} {second} {third_} {np.bincount(rows[:, 2].astype(int), minlength=C)}: "
        self.found, self.ending = fitted(program, (C, second, third_), q, r, rows, f"AGQ:Y,100,{points}", "quadrature", write)
        if self.found is None:
            return
        size = np.sqrt(np.mean(rows[:, 3:5] ** 2, axis=0))
        self.data = dataof(C, second, third_, np.column_stack([rows[:, :3], rows[:, 3] / size[0], rows[:, 5:]]), rows[:, 4] / size[1])
        scales = [np.array([size[0] if which else 1.0 for _, which in columns]) for columns in (second, third_)]
        fixed = np.tile([1, 1, 1, *size], C - 1)
        self.taus, self.gamma = [T * np.outer(s, s) for T, s in zip(self.found.taus, scales)], self.found.gamma * fixed
        self.back = np.concatenate([[s[a] * s[b] for a, b in pairs(len(s))] for s in scales] + [fixed])

    def integral(self, fine=False):
        few = self.q + self.r == 2
        return Integral(self.data, *2 * ((61 if few else 17) if fine else (31 if few else 9),))


def climbed(program, seed, points):
    """The run's estimates and standard errors beside those of a maximum that the oracle finds from no fixed effects and variances of 1/2."""
    made = Studied(program, seed, points)
    if made.found is None:
        return made.here + made.ending[0], made.ending[1]
    data, found = made.data, made.found
    theta, mine = data.pointof(np.eye(made.q) / 2, np.eye(made.r) / 2, np.zeros(data.g)), data.parameters(data.pointof(*made.taus, made.gamma))
    for finer in (False, True):
        theta, value, H = maximise(made.integral(finer), theta, Integral(data, 3, 3), quiet=True)
        right = errors(data, theta, H, np.arange(len(theta)))
        far, gap = np.abs(mine - data.parameters(theta)) / right, abs(value - found.value)
        off, missing = apart(found.se * made.back, right)
        fine = gap < 0.01 and far.max() < 0.02 and off < 0.02 and (not missing or found.edge)  # which has no errors there
        if fine:
            break
    return (made.here + f"{found.phase['points']} points, {len(far)} parameters, the maximum of {value:.5f} is {gap:.5f} away, estimates {far.max():.4f} se, "
            f"errors {100 * off:.2f}%" + ", edge" * found.edge), verdictof(fine, found.warnings)


def one(program, seed, points):
    made = Studied(program, seed, points)
    here, found, q, r = made.here, made.found, made.q, made.r
    if found is None:
        return here + made.ending[0], made.ending[1]
    data = made.data
    theta = data.pointof(*made.taus, made.gamma)
    A, B, _ = data.matrices(theta)
    columns = [np.any(A[:, b]) for _, b in pairs(q)] + [np.any(B[:, b]) for _, b in pairs(r)] + [True] * data.g
    free = np.flatnonzero(columns)
    methods = [lambda: OnePoint(data)] if points == "1" else [made.integral, lambda: made.integral(True)]
    for method in methods:
        oracle = method()
        oracle.settle(theta)
        value, score = oracle.value(theta)
        H = information(oracle, theta, free)
        step, right = np.zeros(len(theta)), errors(data, theta, H, free)
        step[free] = np.linalg.solve(H, score[free])
        J = np.array([(data.parameters(theta + e) - data.parameters(theta - e)) / 2e-5 for e in 1e-5 * np.eye(len(theta))]).T
        right = np.where(right > 0, right, np.nan)
        gap, far, (off, missing) = abs(value - found.value), np.nanmax(np.abs(J @ step) / right), apart(found.se * made.back, right)
        least = np.linalg.eigvalsh(H).min()
        fine = gap < (1e-4 if points == "1" else 0.01) and far < 0.02 and off < 0.02 and least > 0 and not missing
        if fine:
            break
    return here + lineof(found, gap, far, off, missing), verdictof(fine, found.warnings)


if __name__ == "__main__":
    np.set_printoptions(precision=4, suppress=True)
    if sys.argv[1] == "prove":
        prove()
    elif sys.argv[1] == "make":
        make(sys.argv[2])
    elif sys.argv[1] == "solve":
        for case in sys.argv[3:] or CASES:
            solve(sys.argv[2], case)
    elif sys.argv[1] == "climb":
        studies(climbed, *sys.argv[2:5], *(sys.argv[5:] or ["AUTO"]))
    else:
        studies(one, *sys.argv[1:4], *(sys.argv[4:] or ["AUTO"]))
