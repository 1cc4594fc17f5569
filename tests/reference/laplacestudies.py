#!/usr/bin/env python3
"""Random Bernoulli studies for Laplace-6, against its value by a dense computation from its definition.

The studies are those of movingstudies.py with a binary outcome. With G the covariance of all random effects of a level-3
unit, G = R R', f_i the row of record i over them and H = I + R' (sum_i k2_i f_i f_i') R at the joint mode,

    loglik = sum [y eta - log(1 + exp eta)] - x'x / 2 - log|H| / 2 + log(1 - S),   effects R x,   A_il = f_i' R H^-1 R' f_l
    S = sum_i [k4_i A_ii^2 / 8 + k6_i A_ii^3 / 48] - 5/24 sum over pairs of records of one level-2 unit of
        k3_i k3_l A_ii A_ll A_il

At the program's estimates the oracle says how far the log-likelihood is off, how far a Newton step by differences of this
value would go in standard errors, what the standard errors are, whether a climb by BFGS from elsewhere finds more,
and how far the value, and that of the first order, is from an integral.

  laplacestudies.py PROGRAM FIRST LAST [OTHER COMMANDS]     such as AGQNODES:FIXED

With `ordinal` as the first of these: ordinal outcomes with one point of quadrature, the first order alone, with k2 the sum of
both densities at the bounds of a category and probabilities as differences of cumulative ones.
"""
import sys
import numpy as np
from scipy.optimize import minimize
from movingstudies import Oracle, apart, fitted, pairs, semifactor, studies, study, verdictof


class Dense(Oracle):
    """`once` is that of the integral; `value` that of Laplace-6."""

    def __init__(self, q, r, rows, points2, points3, outcome="bernoulli"):
        super().__init__(outcome, q, r, rows, points2, points3)
        J, m = self.used.shape
        count = np.bincount(self.k)
        self.most, self.m = count.max(), m
        within = np.concatenate([np.arange(n) for n in count])
        def spread(values):
            out = np.zeros((self.K, self.most) + values.shape[1:])
            out[self.k, within] = values
            return out.reshape((self.K, self.most * m) + values.shape[2:])
        self.Y, self.U, self.XG, self.E = spread(self.y), spread(self.used), spread(self.xg), spread(self.e)
        D = spread(self.d)
        # Rows of all effects: v, then u of each level-2 unit.
        self.F2 = np.zeros((self.K, self.most * m, self.most, q))
        for j in range(self.most):
            self.F2[:, j * m:(j + 1) * m, j] = D[:, j * m:(j + 1) * m]
        self.start = np.zeros((self.K, r + self.most * q))
        if outcome == "ordinal":
            self.categories = np.searchsorted(np.unique(rows[:, 2]), self.Y)

    def record(self, eta):
        """Log-density, its derivative, k2."""
        if self.outcome == "ordinal":
            l, up, down, w = self.ordinal(eta.reshape(-1, 1), self.categories.reshape(-1))
            return [a.reshape(eta.shape) for a in (l, up + down, w)]
        mu = 1 / (1 + np.exp(-eta))
        return self.Y * eta - np.logaddexp(0, eta), self.Y - mu, mu * (1 - mu)

    def value(self, theta, sixth=True):
        A, B, g = self.matrices(theta)
        g, self.t = g[:self.g], g[self.g:]
        rows = np.concatenate([self.E @ B, (self.F2 @ A).reshape(self.K, self.most * self.m, -1)], axis=2)
        fixed, eye = self.XG @ g, np.eye(rows.shape[2])
        def objective(x):
            eta = fixed + np.einsum("kid,kd->ki", rows, x)
            return np.sum(self.U * self.record(eta)[0], 1) - 0.5 * np.sum(x * x, 1), eta
        x = self.start
        height, eta = objective(x)
        for _ in range(200):
            _, r, w = self.record(eta)
            w = self.U * w
            H = np.einsum("ki,kid,kie->kde", w, rows, rows, optimize=True) + eye
            step = np.linalg.solve(H, (np.einsum("ki,kid->kd", self.U * r, rows) - x)[..., None])[..., 0]
            if np.abs(step).max() < 1e-9:
                break
            scale = np.ones(self.K)
            for _ in range(40):
                trial = x + scale[:, None] * step
                new, eta = objective(trial)
                worse = new < height - 1e-9 * (1 + np.abs(height))
                if not worse.any():
                    break
                scale = np.where(worse, scale / 2, scale)
            x, height = trial, new
        self.start = x
        result = height - 0.5 * np.linalg.slogdet(H)[1]
        if not sixth or self.outcome == "ordinal":
            return result.sum()
        mu = 1 / (1 + np.exp(-eta))
        k2, third = w, w * (1 - 2 * mu)
        k4 = (1 - 6 * k2) * k2
        k6 = (1 - 12 * k2) * k4 - 12 * third ** 2
        V = np.linalg.inv(H)
        S = np.zeros(self.K)
        for j in range(self.most):
            here = slice(j * self.m, (j + 1) * self.m)
            f = rows[:, here]
            A_il = np.einsum("kid,kde,kle->kil", f, V, f, optimize=True)
            a = np.einsum("kii->ki", A_il)
            S += np.sum(self.U[:, here] * (k4[:, here] * a ** 2 / 8 + k6[:, here] * a ** 3 / 48), 1)
            S -= 5 / 24 * np.einsum("ki,kil,kl->k", third[:, here] * a, A_il, third[:, here] * a)
        if np.any(S >= 1):
            return -np.inf
        return (result + np.log(1 - S)).sum()

    def judge6(self, Tp, Tb, gamma):
        scale = np.append(1, self.scales[0])
        D = np.diag(scale[:self.q]), np.diag(scale[:self.r])
        A, B = semifactor(D[0] @ Tp @ D[0]), semifactor(D[1] @ Tb @ D[1])
        G = np.array([1, 1, 1, *(1 / self.scales), *[1] * self.thresholds])
        theta = np.concatenate([[A[a, b] for a, b in pairs(self.q)], [B[a, b] for a, b in pairs(self.r)], gamma / G])
        P2, P3 = len(pairs(self.q)), len(pairs(self.r))
        free = [i for i in range(len(theta)) if i >= P2 + P3 or
                np.any((A if i < P2 else B)[:, (pairs(self.q) + pairs(self.r))[i][1]] != 0)]
        n, h = len(free), 5e-3
        value = self.value(theta)
        def moved(steps):
            point = theta.copy()
            for i, step in steps:
                point[free[i]] += step
            return self.value(point)
        score, H = np.zeros(n), np.zeros((n, n))
        for i in range(n):
            up, down, up2, down2 = (moved([(i, s * h)]) for s in (1, -1, 2, -2))
            score[i] = (8 * (up - down) - (up2 - down2)) / (12 * h)
            H[i, i] = -(-(up2 + down2) + 16 * (up + down) - 30 * value) / (12 * h * h)
            for l in range(i):
                H[i, l] = H[l, i] = -(moved([(i, h), (l, h)]) - moved([(i, h), (l, -h)]) - moved([(i, -h), (l, h)]) +
                                      moved([(i, -h), (l, -h)])) / (4 * h * h)
        V = np.linalg.inv(H)
        inverse = [np.linalg.inv(d) for d in D]
        def parameters(theta):
            A, B, g = self.matrices(theta)
            Tp, Tb = inverse[0] @ A @ A.T @ inverse[0], inverse[1] @ B @ B.T @ inverse[1]
            return np.concatenate([[Tp[a, b] for a, b in pairs(self.q)], [Tb[a, b] for a, b in pairs(self.r)], g * G])
        J = np.zeros((len(theta), n))
        for c, i in enumerate(free):
            e = np.zeros(len(theta))
            e[i] = 1e-5
            J[:, c] = (parameters(theta + e) - parameters(theta - e)) / 2e-5
        variance = np.diag(J @ V @ J.T)
        begin = theta.copy()
        begin[:P2 + P3] = 1.3 * begin[:P2 + P3] + 0.3 * (theta[:P2 + P3] == 0)
        while not np.isfinite(self.value(begin)):
            begin[:P2 + P3] *= 0.8
        higher = -minimize(lambda t: min(-self.value(t), 1e10), begin, method="BFGS", options={"gtol": 1e-4, "maxiter": 25}).fun
        integral, first = np.nan, self.value(theta, False)
        if self.q + self.r < 4:
            self.settle(theta)
            integral = self.once(theta, False)[0]
        return (value, J @ V @ score, np.sqrt(np.where(variance > 0, variance, np.nan)), np.linalg.eigvalsh(H).min(), higher,
                integral, first)


def one(program, seed, *commands):
    outcome = "ordinal" if commands[:1] == ("ordinal",) else "bernoulli"
    commands = [c for c in commands if c != "ordinal"]
    _, q, r, rows = study(seed, outcome)
    rows[:, 3] = 1.0
    here = f"{seed:4d} q {q} r {r} K {len(set(rows[:, 0])):2d} n {len(rows):4d}: "
    found, ending = fitted(program, outcome, q, r, rows, "\n".join(["LAPLACE:Y,100" if outcome == "bernoulli" else "AGQ:Y,100,1", *commands]),
                           "laplace6" if outcome == "bernoulli" else "quadrature")
    if found is None:
        return here + ending[0], ending[1]
    dense = Dense(q, r, rows, *((31, 41) if q + r == 2 else (11, 21)), outcome)
    value, step, right, least, higher, integral, first = dense.judge6(*found.taus, found.gamma)
    gap, far, (off, missing) = abs(value - found.value), np.nanmax(np.abs(step) / right), apart(found.se, right)
    fine = gap < 1e-5 and far < 0.01 and off < 0.01 and least > 0 and not missing and higher < value + 1e-3
    nearer = outcome == "ordinal" or not abs(value - integral) > abs(first - integral)
    return (here + f"{found.phase['iterations']:2d} iterations, {found.seconds:.1f} s, taus {np.diag(found.taus[0])} "
            f"{np.diag(found.taus[1])}, gap {gap:.1e}, {far:.5f} se, errors {100 * off:.3f}%, more {higher - value:.1e}, "
            f"integral {value - integral:.3f} (first order {first - integral:.3f}){'' if nearer else ' NOT nearer'}"
            + (f", {missing} differ" if missing else "") + "".join("\n     " + w for w in found.warnings)), verdictof(fine, found.warnings)


if __name__ == "__main__":
    np.set_printoptions(precision=4, suppress=True)
    known = ["NOT" not in line for line in studies(one, *sys.argv[1:]) if "integral" in line and "integral nan" not in line]
    print(f"nearer to the integral than the first order: {sum(known)} of {len(known)}")
