#!/usr/bin/env python3
"""Marginal log-likelihoods of three-level models for Bernoulli, binomial and Poisson outcomes, and their maxima.

Every inner integral is centred on the mode of its own integrand for its own v and scaled by the curvature there, the outer
one likewise; both take the nodes of numpy. The maximum is found by BFGS of scipy over log-Cholesky factors, standard errors
come from second differences of the log-likelihood. Nothing is shared with the program but the data.

  densequadrature.py make DIR      writes the made data DIR/<case>.dat
  densequadrature.py solve DIR CASE...   writes DIR/<case>.ref
  densequadrature.py prenatal DATA POINTS...   log-likelihood and gradient of the prenatal care data at the estimates of 41 points
"""
import sys
import numpy as np
from scipy.optimize import minimize
from scipy.special import gammaln, logsumexp

# case: outcome, q, r, points of the inner and of the outer integral; slopes of x are random where an order is 2
CASES = {
    "bernoulli11": ("bernoulli", 1, 1, (21, 21)),
    "bernoulli21": ("bernoulli", 2, 1, (15, 15)),
    "bernoulli22": ("bernoulli", 2, 2, (9, 7)),
    "binomial12": ("binomial", 1, 2, (15, 9)),
    "poisson11": ("poisson", 1, 1, (21, 21)),
    "exposure21": ("exposure", 2, 1, (9, 9)),
}


class Data:
    """Records padded to the largest level-2 unit: y, n (J, m), xg (J, m, g), d (J, m, q), e (J, m, r); k (J)."""

    def __init__(self, outcome, unit3, unit2, y, n, xg, d, e):
        self.outcome = outcome
        keys = list(zip(unit3, unit2))
        units = list(dict.fromkeys(keys))
        place = {key: j for j, key in enumerate(units)}
        j = np.array([place[key] for key in keys])
        counts = np.bincount(j)
        J, m = len(units), counts.max()
        within = np.array([i - np.searchsorted(j, j[i]) for i in range(len(j))])
        def spread(values):
            out = np.zeros((J, m) + values.shape[1:])
            out[j, within] = values
            return out
        self.y, self.n, self.used = spread(y), spread(n), spread(np.ones(len(y)))
        self.xg, self.d, self.e = spread(xg), spread(d), spread(e)
        thirds = list(dict.fromkeys(u[0] for u in units))
        self.k = np.array([thirds.index(u[0]) for u in units])
        self.K, self.q, self.r, self.g = len(thirds), d.shape[1], e.shape[1], xg.shape[1]
        if outcome == "binomial":
            self.constant = np.sum(gammaln(n + 1) - gammaln(y + 1) - gammaln(n - y + 1))
        elif outcome in ("poisson", "exposure"):
            self.constant = -np.sum(gammaln(y + 1))
        else:
            self.constant = 0.0
        self.v, self.u = np.zeros((self.K, self.r)), None

    def density(self, eta, y, n, used):
        """Log-density without constants, its first derivative and minus its second, by eta."""
        if self.outcome in ("bernoulli", "binomial"):
            n = np.where(used > 0, n if self.outcome == "binomial" else 1.0, 0.0)
            mu = 1 / (1 + np.exp(-np.clip(eta, -700, 700)))
            return y * eta - n * np.logaddexp(0, eta), y - n * mu, n * mu * (1 - mu)
        t = eta + (np.log(np.where(used > 0, n, 1)) if self.outcome == "exposure" else 0.0)
        mu = np.exp(np.minimum(t, 300)) * used
        return y * t * used - mu, (y - mu) * used, mu


def nodes(points, dims):
    x, w = np.polynomial.hermite.hermgauss(points)
    grid = np.stack(np.meshgrid(*[x] * dims, indexing="ij"), -1).reshape(-1, dims)
    logw = sum(np.meshgrid(*[np.log(w) + x * x] * dims, indexing="ij")).reshape(-1)
    return grid, logw


def normal(T):
    K = np.linalg.inv(T)
    return K, -0.5 * (len(T) * np.log(2 * np.pi) + np.linalg.slogdet(T)[1])


def inner(data, f, Tp, points, start):
    """log of the level-2 integrals for fixed parts f (J, nv, m): (J, nv); and the modes."""
    K, constant = normal(Tp)
    y, n, used = (a[:, None, :] for a in (data.y, data.n, data.used))
    d = data.d
    def objective(u):
        l, s, w = data.density(f + np.einsum("jma,jva->jvm", d, u), y, n, used)
        return l.sum(-1) - 0.5 * np.einsum("jva,ab,jvb->jv", u, K, u), s, w
    u = np.broadcast_to(start, f.shape[:2] + (data.q,)).copy()
    value, s, w = objective(u)
    for _ in range(100):
        H = np.einsum("jvm,jma,jmb->jvab", w, d, d) + K
        step = np.linalg.solve(H, (np.einsum("jvm,jma->jva", s, d) - u @ K)[..., None])[..., 0]
        scale = np.ones(f.shape[:2])
        for _ in range(30):
            trial = u + scale[..., None] * step
            new, s, w = objective(trial)
            worse = new < value - 1e-12 * np.abs(value)
            if not worse.any():
                break
            scale = np.where(worse, scale / 2, scale)
        u, value = trial, new
        if np.abs(step).max() < 1e-6:
            break
    H = np.einsum("jvm,jma,jmb->jvab", w, d, d) + K
    L = np.linalg.cholesky(2 * np.linalg.inv(H))
    x, logw = nodes(points, data.q)
    total = None
    parts = []
    for x0, w0 in zip(x, logw):
        ux = u + np.einsum("jvab,b->jva", L, x0)
        parts.append(objective(ux)[0] + w0)
    total = logsumexp(np.stack(parts), axis=0)
    return total + constant + np.log(np.einsum("jvaa->jva", L)).sum(-1), u


def loglikelihood(data, Tp, Tb, gamma, points):
    """The marginal log-likelihood; points of the inner and of the outer integral."""
    points, points3 = points
    K, constant = normal(Tb)
    fixed = data.xg @ gamma
    if data.u is None:
        data.u = np.zeros((len(data.k), data.q))
    def outer(V, keep=False):  # V (K, nv, r) -> log integrand (K, nv)
        f = fixed[:, None, :] + np.einsum("jmb,jvb->jvm", data.e, V[data.k])
        value, u = inner(data, f, Tp, points, data.u[:, None, :])
        if keep:
            data.u = u[:, 0]
        h = np.zeros(V.shape[:2])
        np.add.at(h, data.k, value)
        return h - 0.5 * np.einsum("kva,ab,kvb->kv", V, K, V)
    # Mode and curvature of the outer integrand by differences.
    v = data.v.copy()
    eye, h = np.eye(data.r), 0.02
    offsets = [np.zeros(data.r)] + [s * h * eye[a] for a in range(data.r) for s in (1, -1)]
    if data.r == 2:
        offsets += [h * (eye[0] + eye[1]), -h * (eye[0] + eye[1])]
    offsets = np.array(offsets)
    for it in range(30):
        F = outer(v[:, None, :] + offsets, keep=True)
        grad = np.stack([(F[:, 1 + 2 * a] - F[:, 2 + 2 * a]) / (2 * h) for a in range(data.r)], -1)
        hess = np.zeros((data.K, data.r, data.r))
        for a in range(data.r):
            hess[:, a, a] = -(F[:, 1 + 2 * a] + F[:, 2 + 2 * a] - 2 * F[:, 0]) / h**2
        if data.r == 2:
            both = -(F[:, 5] + F[:, 6] - 2 * F[:, 0]) / h**2
            hess[:, 0, 1] = hess[:, 1, 0] = (both - hess[:, 0, 0] - hess[:, 1, 1]) / 2
        step = np.linalg.solve(hess, grad[..., None])[..., 0]
        step *= np.minimum(1, 2 / np.maximum(np.abs(step).max(-1, keepdims=True), 1e-300))
        v = v + step
        if np.abs(step).max() < 1e-3:
            break
    data.v = v
    L = np.linalg.cholesky(2 * np.linalg.inv(hess))
    x, logw = nodes(points3, data.r)
    V = v[:, None, :] + np.einsum("kab,xb->kxa", L, x)
    value = outer(V) + logw
    unit = logsumexp(value, axis=1) + constant + np.log(np.einsum("kaa->ka", L)).sum(-1)
    return unit.sum() + data.constant


def pairs(n):
    return [(a, b) for a in range(n) for b in range(a + 1)]


def unpack(theta, q, r):
    """From (vech taupi, vech taubeta, gamma)."""
    def matrix(values, n):
        T = np.zeros((n, n))
        for (a, b), value in zip(pairs(n), values):
            T[a, b] = T[b, a] = value
        return T
    P2, P3 = len(pairs(q)), len(pairs(r))
    return matrix(theta[:P2], q), matrix(theta[P2:P2 + P3], r), theta[P2 + P3:]


def fromfactors(phi, q, r):
    def covariance(values, n):
        L = np.zeros((n, n))
        for (a, b), value in zip(pairs(n), values):
            L[a, b] = np.exp(value) if a == b else value
        T = L @ L.T
        return [T[a, b] for a, b in pairs(n)]
    P2, P3 = len(pairs(q)), len(pairs(r))
    return np.concatenate([covariance(phi[:P2], q), covariance(phi[P2:P2 + P3], r), phi[P2 + P3:]])


def maximise(data, start, points, gtol=5e-3):
    """From a start in (vech taupi, vech taubeta, gamma); returns the same form."""
    q, r = data.q, data.r
    Tp, Tb, gamma = unpack(start, q, r)
    def factors(T):
        L = np.linalg.cholesky(T)
        return [np.log(L[a, b]) if a == b else L[a, b] for a, b in pairs(len(T))]
    phi = np.concatenate([factors(Tp), factors(Tb), gamma])
    f = lambda phi: -loglikelihood(data, *unpack(fromfactors(phi, q, r), q, r), points)
    def gradient(phi):
        centre = f(phi)  # one-sided differences move the maximum by half their width
        return np.array([(f(phi + e) - centre) / 1e-4 for e in 1e-4 * np.eye(len(phi))])
    fit = minimize(f, phi, jac=gradient, method="BFGS", options={"gtol": gtol})
    return fromfactors(fit.x, q, r), -fit.fun, np.abs(fit.jac).max()


def standarderrors(data, theta, points):
    f = lambda t: loglikelihood(data, *unpack(t, data.q, data.r), points)
    n = len(theta)
    h = 2e-3 * np.maximum(np.abs(theta), 0.5)
    H = np.zeros((n, n))
    centre = f(theta)
    e = np.diag(h)
    single = [(f(theta + e[i]), f(theta - e[i])) for i in range(n)]
    for i in range(n):
        H[i, i] = -(single[i][0] + single[i][1] - 2 * centre) / h[i] ** 2
        for j in range(i):
            both = f(theta + e[i] + e[j]) + f(theta - e[i] - e[j]) - 2 * centre
            H[i, j] = H[j, i] = -(both - (single[i][0] + single[i][1] - 2 * centre) -
                                  (single[j][0] + single[j][1] - 2 * centre)) / (2 * h[i] * h[j])
    return np.sqrt(np.diag(np.linalg.inv(H)))


TRUTH2 = {1: [0.8], 2: [0.8, 0.2, 0.4]}
TRUTH3 = {1: [0.5], 2: [0.5, -0.1, 0.3]}
GAMMA = [-0.3, 0.5, 0.4, -0.6]
COUNTS2 = {1: [0.3], 2: [0.3, 0.05, 0.1]}
COUNTS3 = {1: [0.2]}
GAMMACOUNTS = [-1.5, 0.5, 0.4, -0.3]


def truth(case):
    outcome, q, r, _ = CASES[case]
    if outcome in ("poisson", "exposure"):
        return np.array(COUNTS2[q] + COUNTS3[r] + GAMMACOUNTS)
    return np.array(TRUTH2[q] + TRUTH3[r] + GAMMA)


def make(folder):
    """Lines: level-3 unit, level-2 unit, y, n, x (level 1), w (level 2), z (level 3)."""
    for number, (case, (outcome, q, r, _)) in enumerate(CASES.items()):
        rng = np.random.default_rng(100 + number)
        Tp, Tb, gamma = unpack(truth(case), q, r)
        lines = []
        for k in range(25):
            z = round(rng.normal(), 3)
            v = np.append(rng.multivariate_normal(np.zeros(r), Tb), 0)[:2]
            for j in range(rng.integers(4, 9)):
                w = round(rng.normal(), 3)
                u = np.append(rng.multivariate_normal(np.zeros(q), Tp), 0)[:2]
                for i in range(rng.integers(3, 13)):
                    x = round(rng.normal(), 3)
                    eta = gamma @ [1, z, w, x] + v[0] + v[1] * x + u[0] + u[1] * x
                    n = 1.0
                    if outcome == "binomial":
                        n = float(rng.integers(1, 9))
                    if outcome == "exposure":
                        n = round(rng.uniform(0.2, 4), 3)
                    if outcome in ("bernoulli", "binomial"):
                        y = rng.binomial(int(n), 1 / (1 + np.exp(-eta)))
                    else:
                        y = rng.poisson(n * np.exp(eta))
                    lines.append(f"{k} {j} {y} {n:g} {x:g} {w:g} {z:g}\n")
        with open(f"{folder}/{case}.dat", "w") as file:
            file.writelines(lines)


def read(folder, case):
    outcome, q, r, points = CASES[case]
    a = np.loadtxt(f"{folder}/{case}.dat")
    one, x, w, z = np.ones(len(a)), a[:, 4], a[:, 5], a[:, 6]
    slopes = np.stack([one, x], 1)
    return Data(outcome, a[:, 0].astype(int), a[:, 1].astype(int), a[:, 2], a[:, 3], np.stack([one, z, w, x], 1),
                slopes[:, :q], slopes[:, :r])


def solve(folder, case):
    points = CASES[case][3]
    data = read(folder, case)
    start = truth(case)
    theta, best, gradient = maximise(data, start, points)
    se = standarderrors(data, theta, points)
    with open(f"{folder}/{case}.ref", "w") as file:
        file.write(f"# {points} points, largest gradient {gradient:.1e}\n")
        file.write(f"maximum {best:.6f}\n")
        for name, values in (("start", start), ("estimate", theta), ("se", se)):
            file.write(name + "".join(f" {v:.7f}" for v in values) + "\n")
    print(case, best, theta, se, flush=True)


def prenatal(folder, numbers):
    a = np.loadtxt(f"{folder}/prenatal-1.dat")
    c = {int(row[0]): row[1:] for row in np.loadtxt(f"{folder}/prenatal-3.dat")}
    one = np.ones((len(a), 1))
    third = np.array([c[int(k)] for k in a[:, 0]])
    data = Data("bernoulli", a[:, 0].astype(int), a[:, 1].astype(int), a[:, 2], one[:, 0],
                np.hstack([one, a[:, 3:13], third]), one, one)
    theta = np.array([49.5873, 15.1846, 6.4352, -0.9916, 1.0178, -0.6966, -0.6222, -1.1792, -6.0713, -3.1752, 2.2552, 6.2905,
                      -3.1903, -4.4814, -0.0679])
    for points in numbers:
        f = lambda t: loglikelihood(data, *unpack(t, 1, 1), (points, points))
        best = f(theta)
        print(points, "points: log-likelihood", round(best, 4), flush=True)
        h = 2e-3 * np.maximum(np.abs(theta), 0.5)
        gradient = np.array([(f(theta + e) - f(theta - e)) / (2 * e.max()) for e in np.diag(h)])
        print("  gradient", np.round(gradient, 4), flush=True)


if __name__ == "__main__":
    if sys.argv[1] == "make":
        make(sys.argv[2])
    elif sys.argv[1] == "solve":
        for case in sys.argv[3:] or CASES:
            solve(sys.argv[2], case)
    else:
        prenatal(sys.argv[2], [int(p) for p in sys.argv[3:]])
