"""The least deviance of a study of edgemodels.py: a dense likelihood, maximised over factors of the taus from several starts,
so that a tau without an inverse is a point like any other.
"""
import os

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")
import numpy as np
from scipy.optimize import minimize


class Dense:
    """-2 log-likelihood with the best fixed effects, and its gradient by T, L and s, over padded n by n matrices."""

    def __init__(self, study):
        self.study, p, b = study, study.p, study.b
        known = study.restriction.startswith("VARIANCEKNOWN")
        n = max(map(len, study.units))
        K = len(study.units)
        self.y, self.X = np.zeros((K, n)), np.zeros((K, n, study.q))
        self.same, self.real = np.zeros((K, n, n)), np.zeros((K, n))
        for k, records in enumerate(study.units):
            j = np.array([r[0] for r in records])
            m = len(j)
            weight = np.array([r[2] for r in records]) ** (-0.5 if known else 0.0)
            self.y[k, :m] = weight * np.array([r[1] for r in records])
            self.X[k, :m] = weight[:, None] * np.array([r[3] for r in records]) / np.array(study.unit)
            self.same[k, :m, :m] = j[:, None] == j[None, :]
            self.real[k, :m] = 1.0
        self.Z1, self.Z2, self.n = self.X[:, :, :p], self.X[:, :, :b], n
        # One effect for the two that CONSTRAIN:1,1 holds equal.
        self.M = self.X.sum(2, keepdims=True) if study.restriction.startswith("CONSTRAIN") else self.X
        self.records = self.real.sum()
        self.fixed = 1.0 if known else 0.8 if study.restriction.startswith("FIXSIGMA2") else None

    def value(self, T, L, s):
        V = self.same * (self.Z1 @ T @ self.Z1.transpose(0, 2, 1)) + self.Z2 @ L @ self.Z2.transpose(0, 2, 1)
        at = np.arange(self.n)
        V[:, at, at] += np.where(self.real > 0, s, 1.0)
        Vi = np.linalg.inv(V)
        VM = Vi @ self.M
        gamma = np.linalg.solve((self.M.transpose(0, 2, 1) @ VM).sum(0), np.einsum('kng,kn->g', VM, self.y))
        r = self.y - self.M @ gamma
        w = np.einsum('kij,kj->ki', Vi, r)
        value = np.linalg.slogdet(V)[1].sum() + (r * w).sum() + self.records * np.log(2 * np.pi)
        G = Vi - w[:, :, None] * w[:, None, :]
        dT = np.einsum('kia,kij,kjc->ac', self.Z1, self.same * G, self.Z1, optimize=True)
        dL = np.einsum('kia,kij,kjc->ac', self.Z2, G, self.Z2, optimize=True)
        return value, dT, dL, (np.einsum('kii->ki', G) * self.real).sum()


class Parameters:
    """A tau by unbounded parameters: its factor F, T = FF', whose elements a restriction may hold; or v and r."""

    def __init__(self, restriction, level, order):
        mine = restriction.endswith("Y") and restriction.startswith("DIAGONALIZETAU" + ("PI" if level == 2 else "BETA"))
        mine = mine or restriction.startswith(("CONTAU%d" % level, "ESTTAU%d" % level))
        self.q, self.kind = order, restriction.split(":")[1] if mine else ""
        self.size = {"1,3": 2, "Y": order, "E,0,E": order, "0.5,E,E": 2, "0.3,E,E": 2, "E,0.1,E": 2}.get(
            self.kind, order * (order + 1) // 2)

    def factor(self, a):
        """F and its derivatives."""
        q, kind = self.q, self.kind
        F, dF = np.zeros((q, q)), np.zeros((self.size, q, q))
        if kind == "1,3":  # T = v (1 r; r 1): F = root (1 0; sin cos)
            F[:] = a[0] * np.array([[1, 0], [np.sin(a[1]), np.cos(a[1])]])
            dF[0] = np.array([[1, 0], [np.sin(a[1]), np.cos(a[1])]])
            dF[1] = a[0] * np.array([[0, 0], [np.cos(a[1]), -np.sin(a[1])]])
        elif kind in ("Y", "E,0,E"):
            for i in range(q): F[i, i], dF[i, i, i] = a[i], 1.0
        elif kind.endswith(",E,E"):
            F[0, 0] = float(kind[:3]) ** 0.5
            F[1, 0], F[1, 1], dF[0, 1, 0], dF[1, 1, 1] = a[0], a[1], 1.0, 1.0
        elif kind == "E,0.1,E":  # F11 = exp(a), F21 = 0.1 / F11
            F[0, 0], F[1, 0], F[1, 1] = np.exp(a[0]), 0.1 * np.exp(-a[0]), a[1]
            dF[0, 0, 0], dF[0, 1, 0], dF[1, 1, 1] = F[0, 0], -F[1, 0], 1.0
        else:
            for e, (i, j) in enumerate((i, j) for i in range(q) for j in range(i + 1)):
                F[i, j], dF[e, i, j] = a[e], 1.0
        return F, dF

    def start(self, size, slant):
        q = self.q
        if self.kind == "1,3": return [size, slant]
        if self.kind == "E,0.1,E": return [np.log(max(size, 0.3)), size]
        if self.kind.endswith(",E,E"): return [slant * size, size]
        if self.kind: return [size] * q
        return [size if i == j else slant * size for i in range(q) for j in range(i + 1)]


def maximum(study):
    """The least deviance, from several starts."""
    dense = Dense(study)
    two, three = (Parameters(study.restriction, level, order) for level, order in ((2, study.p), (3, study.b)))

    def value(theta):
        F2, d2 = two.factor(theta[:two.size])
        F3, d3 = three.factor(theta[two.size:two.size + three.size])
        s = dense.fixed if dense.fixed is not None else np.exp(theta[-1])
        try:
            deviance, dT, dL, ds = dense.value(F2 @ F2.T, F3 @ F3.T, s)
        except np.linalg.LinAlgError:
            return 1e12, np.zeros(len(theta))
        slope = [2 * np.sum((dT @ F2) * d) for d in d2] + [2 * np.sum((dL @ F3) * d) for d in d3]
        return deviance, np.array(slope + [ds * s] * (dense.fixed is None))
    spread = np.log(max(np.var(dense.y[dense.real > 0]), 1e-6))
    best = np.inf
    for size, slant, share in ((0.6, 0.3, 0.1), (0.3, -0.5, 0.5), (0.9, 0.9, 0.05), (0.05, 0.0, 0.9)):
        start = two.start(size, slant) + three.start(size, -slant) + [spread + np.log(share)] * (dense.fixed is None)
        for _ in range(3):  # anew from the end: the memory of the steps is worth little at an edge
            done = minimize(value, start, jac=True, method="L-BFGS-B", options={"maxiter": 300, "ftol": 1e-14, "gtol": 1e-8})
            start = done.x
            if done.fun > best + 0.5: break
        best = min(best, done.fun)
    return best
