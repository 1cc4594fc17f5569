"""Random effects of single level-3 units given their outcomes and the estimates, from their definition.

Of the integrals: sums over a grid of equal steps in standard normal effects, which for smooth integrands converge faster
than any power of the step; of the modes: Newton's method on all effects of the unit at once. Data and outcomes are those of
densequadrature.py; nothing else is shared.

With categories a record has a row of the designs for each linear predictor (multinomial), or thresholds (ordinal).

  posteriormoments.py glmer CASE     writes the data of a case as CASE.csv, for posteriorsglmer.R
"""
import pathlib
import sys

import numpy as np

HERE = pathlib.Path(__file__).parent
CASES = {"bernoulli11": ("bernoulli", 1, 1), "bernoulli21": ("bernoulli", 2, 1), "bernoulli22": ("bernoulli", 2, 2),
         "binomial12": ("binomial", 1, 2), "poisson11": ("poisson", 1, 1), "exposure21": ("exposure", 2, 1),
         "ordinal21": ("ordinal", 2, 1), "multinomial22": ("multinomial", 2, 2)}
CATEGORIES = 3


class Unit:
    """The records of a level-3 unit: y, n, x~ by columns 1, z, w, x, and the level-2 unit of each. Design weights are exponents:
    `weights1` of the density of each record, `weights2` of the integral of each level-2 unit."""

    def __init__(self, case, k, rows, weights1=None, weights2=None):
        self.outcome, self.q, self.r = CASES[case]
        a = rows[rows[:, 0] == k]
        one, x = np.ones(len(a)), a[:, 4]
        self.j, self.y = a[:, 1].astype(int), a[:, 2]
        self.n = a[:, 3] if self.outcome in ("binomial", "exposure") else one
        self.g = np.stack([one, a[:, 6], a[:, 5], x], 1)
        self.d, self.e = np.stack([one, x], 1)[:, :self.q], np.stack([one, x], 1)[:, :self.r]
        self.units = self.j.max() + 1
        self.weights1 = one if weights1 is None else weights1
        self.weights2 = np.ones(self.units) if weights2 is None else weights2
        if self.outcome == "multinomial":  # random intercepts of each category but the last
            each = np.eye(CATEGORIES - 1)
            self.d = self.e = np.tile(each, (len(a), 1, 1))
            self.g = np.stack([np.kron(each, row) for row in self.g])
        self.thresholds = np.zeros(0)  # those behind the first, of ordinal outcomes

    def probabilities(self, eta):
        """Of the categories, along a last axis of their own."""
        if self.outcome == "multinomial":
            e = np.exp(np.stack([eta[:, 0], eta[:, 1], 0 * eta[:, 0]], -1))
            return e / e.sum(-1, keepdims=True)
        below = 1 / (1 + np.exp(-(eta[..., None] + np.append(0, self.thresholds))))
        ends = np.ones(eta.shape + (1,))
        return np.diff(np.concatenate([0 * ends, below, ends], -1))

    def mean(self, eta):
        """Expected outcome and its variance."""
        if self.outcome in ("bernoulli", "binomial"):
            p = 1 / (1 + np.exp(-eta))
            return self.n * p, self.n * p * (1 - p)
        return self.n * np.exp(eta), self.n * np.exp(eta)

    def density(self, eta, i):
        """Log-densities of records i, without constants, at many predictors: rows of eta are records."""
        y, n = self.y[i, None], self.n[i, None]
        if self.outcome in ("ordinal", "multinomial"):
            return np.log(np.take_along_axis(self.probabilities(eta), y.astype(int)[..., None], -1)[..., 0])
        return y * eta - n * (np.logaddexp(0, eta) if self.outcome in ("bernoulli", "binomial") else np.exp(eta))


def data(case):
    if case == "ordinal21":  # counts, the larger ones taken together
        rows = data("exposure21")
        rows[:, 2] = np.minimum(rows[:, 2], CATEGORIES - 1)
        return rows
    return np.loadtxt(HERE / "quadrature" / f"{case}.dat")


def grid(dims, points, width):
    line = np.linspace(-width, width, points)
    x = np.stack(np.meshgrid(*[line] * dims, indexing="ij"), -1).reshape(-1, dims)
    return x, -0.5 * np.sum(x * x, 1)


def integrals(unit, gamma, Tp, Tb, points, width=6.0):
    """Means and covariances of v and of each u, and the mean weight of each record that has one."""
    Lp, Lb = np.linalg.cholesky(Tp), np.linalg.cholesky(Tb)
    z, logz = grid(unit.q, points, width)
    w, logw = grid(unit.r, points, width)
    u, v = z @ Lp.T, w @ Lb.T
    fixed, J = unit.g @ gamma, unit.units
    total, first, second = logw.copy(), np.zeros((len(w), J, unit.q)), np.zeros((len(w), J, unit.q, unit.q))
    weights = np.zeros((len(w), len(fixed)))
    for m in range(len(w)):
        base = fixed + unit.e @ v[m]
        for j in range(J):
            i = np.flatnonzero(unit.j == j)
            eta = base[i][..., None] + unit.d[i] @ u.T
            log = logz + unit.weights1[i] @ unit.density(eta, i)
            most = log.max()
            p = np.exp(log - most)
            total[m] += unit.weights2[j] * (most + np.log(p.sum()))
            p /= p.sum()
            first[m, j], second[m, j] = p @ u, (u * p[:, None]).T @ u
            if unit.outcome in ("ordinal", "multinomial"):
                continue
            mu = 1 / (1 + np.exp(-eta)) if unit.outcome in ("bernoulli", "binomial") else np.exp(eta)
            weights[m, i] = unit.n[i] * ((mu * (1 - mu) if unit.outcome in ("bernoulli", "binomial") else mu) @ p)
    p = np.exp(total - total.max())
    p /= p.sum()
    ev, eu = p @ v, np.einsum("m,mja->ja", p, first)
    return dict(v=ev, vv=(v * p[:, None]).T @ v - np.outer(ev, ev), u=eu, weights=p @ weights,
                uv=np.einsum("m,mja,mb->jab", p, first, v) - np.einsum("ja,b->jab", eu, ev),
                uu=np.einsum("m,mjab->jab", p, second) - np.einsum("ja,jb->jab", eu, eu))


def modes(unit, gamma, Tp, Tb):
    """The joint mode of (v, u_1, ..., u_J) and the inverse of the curvature there, in the form of integrals()."""
    q, r, J = unit.q, unit.r, unit.units
    rows = np.zeros((len(unit.y), r + J * q))
    rows[:, :r] = unit.e
    for i, j in enumerate(unit.j):
        rows[i, r + j * q:r + (j + 1) * q] = unit.d[i]
    prior = np.zeros((r + J * q,) * 2)
    prior[:r, :r] = np.linalg.inv(Tb)
    for j in range(J):
        at = slice(r + j * q, r + (j + 1) * q)
        prior[at, at] = np.linalg.inv(Tp)
    x = np.zeros(r + J * q)
    value = lambda at: (unit.density((unit.g @ gamma + rows @ at)[:, None], np.arange(len(unit.y))).sum()
                        - 0.5 * at @ prior @ at)
    for _ in range(200):
        mu, var = unit.mean(unit.g @ gamma + rows @ x)
        H = rows.T @ (var[:, None] * rows) + prior
        step = np.linalg.solve(H, rows.T @ (unit.y - mu) - prior @ x)
        factor = 1.0
        while value(x + factor * step) < value(x) and factor > 1e-8:
            factor /= 2
        x = x + factor * step
        if np.abs(step).max() < 1e-10:
            break
    V = np.linalg.inv(H)
    at = [slice(r + j * q, r + (j + 1) * q) for j in range(J)]
    return dict(v=x[:r], vv=V[:r, :r], u=np.array([x[a] for a in at]), uu=np.array([V[a, a] for a in at]), weights=var)


def reliabilities(units, found, Tp, Tb):
    """Of intercepts at both levels: means of T / (V + T) over the units, V the inverse of the information."""
    level2, level3 = [], []
    for unit, one in zip(units, found):
        I = np.array([one["weights"][unit.j == j].sum() for j in range(unit.units)])
        level2 += list(Tp / (1 / I + Tp))
        level3.append(Tb / (1 / np.sum(I - I * I / (I + 1 / Tp)) + Tb))
    return np.mean(level2), np.mean(level3)


if __name__ == "__main__":
    case = sys.argv[2]
    np.savetxt(f"{case}.csv", data(case), delimiter=",", header="k,j,y,n,x,w,z", comments="", fmt="%g")
