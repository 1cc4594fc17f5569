"""Dense three-level linear mixed model, written from its definition.

A level-3 unit is a `Unit`; all its n records are kept as plain n-row matrices and V is formed as an n by n matrix:

    y = M gamma + Z1 u + Z2 v + e,  V = Z2 L Z2' + blockdiag(Z1_j T Z1_j') + sigma2 diag(d)

with T the level-2 covariance (order p), L the level-3 covariance (order b), d the known relative level-1 variances
(1 when there are none). Nothing here uses cross-products per level-2 unit, Woodbury identities or posterior algebra
beyond the normal theory of one dense matrix, so it is an independent check of code that does.

The variance parameters theta are ordered: lower triangle of T by rows, lower triangle of L by rows, sigma2.
"""
import numpy as np


class Unit:
    """One level-3 unit: y (n), M (n by g), Z1 (n by p), Z2 (n by b), rows: list of slices, one per level-2 unit."""

    def __init__(self, y, M, Z1, Z2, rows):
        self.y, self.M, self.Z1, self.Z2, self.rows = y, M, Z1, Z2, rows
        self.n = len(y)


def lower(n):
    return [(i, j) for i in range(n) for j in range(i + 1)]


def pack(T, L, s):
    return np.array([T[i, j] for i, j in lower(len(T))] + [L[i, j] for i, j in lower(len(L))] + [s])


def unpack(theta, p, b):
    T, L = np.zeros((p, p)), np.zeros((b, b))
    at = 0
    for X in (T, L):
        for i, j in lower(len(X)):
            X[i, j] = X[j, i] = theta[at]
            at += 1
    return T, L, theta[at]


def symbasis(n):
    for i, j in lower(n):
        E = np.zeros((n, n))
        E[i, j] = E[j, i] = 1.0
        yield E


def level2cov(unit, T):
    V = np.zeros((unit.n, unit.n))
    for r in unit.rows:
        V[r, r] = unit.Z1[r] @ T @ unit.Z1[r].T
    return V


def covariance(unit, T, L, s):
    return unit.Z2 @ L @ unit.Z2.T + level2cov(unit, T) + s * np.eye(unit.n)


def dcovariance(unit, p, b):
    """The derivatives of V with respect to every theta, in order."""
    return ([level2cov(unit, E) for E in symbasis(p)] + [unit.Z2 @ E @ unit.Z2.T for E in symbasis(b)]
            + [np.eye(unit.n)])


def loglik(units, gamma, T, L, s):
    total = 0.0
    for u in units:
        V = covariance(u, T, L, s)
        sign, logdet = np.linalg.slogdet(V)
        r = u.y - u.M @ gamma
        if sign <= 0:
            return -np.inf
        total -= 0.5 * (u.n * np.log(2 * np.pi) + logdet + r @ np.linalg.solve(V, r))
    return total


def gls(units, T, L, s):
    """Generalised least squares: gamma and its covariance."""
    A, c = 0.0, 0.0
    for u in units:
        Vi = np.linalg.inv(covariance(u, T, L, s))
        A = A + u.M.T @ Vi @ u.M
        c = c + u.M.T @ Vi @ u.y
    cov = np.linalg.inv(A)
    return cov @ c, cov


def scoreandinformation(units, gamma, T, L, s):
    """Score of theta at gamma, expected information of theta, and the scores unit by unit.

    With dV the derivatives of V, the information is tr(V^-1 dV_a V^-1 dV_b) / 2. Those by T and L are sums of Z E Z' with E
    symmetric of one or two ones, so that tr(E_a S E_b S') = vec(E_a)' (S x S) vec(E_b), S being blocks of Z' V^-1 Z.
    """
    p, b = len(T), len(L)
    E1, E2 = (np.array(list(symbasis(k))).reshape(k * (k + 1) // 2, k * k) for k in (p, b))
    n1, n2 = len(E1), len(E1) + len(E2)
    info, scores = np.zeros((n2 + 1, n2 + 1)), []
    for u in units:
        Vi = np.linalg.inv(covariance(u, T, L, s))
        r, J = Vi @ (u.y - u.M @ gamma), len(u.rows)
        Z = np.zeros((u.n, J * p))
        for j, rows in enumerate(u.rows):
            Z[rows, j * p:(j + 1) * p] = u.Z1[rows]
        VZ, V2 = Vi @ Z, Vi @ u.Z2
        S11, S12, S22 = (Z.T @ VZ).reshape(J, p, J, p), (Z.T @ V2).reshape(J, p, b), u.Z2.T @ V2
        a1, a2 = (Z.T @ r).reshape(J, p), u.Z2.T @ r
        pull1 = np.einsum('ia,ib->ab', a1, a1) - np.einsum('iaib->ab', S11)
        pull2 = np.outer(a2, a2) - S22
        scores.append(0.5 * np.concatenate([E1 @ pull1.ravel(), E2 @ pull2.ravel(), [r @ r - np.trace(Vi)]]))
        flat = S11.transpose(0, 2, 1, 3).reshape(J * J, p * p)
        K11 = (flat.T @ flat).reshape((p,) * 4).transpose(0, 2, 1, 3).reshape(p * p, p * p)
        K12 = np.einsum('iab,icd->acbd', S12, S12).reshape(p * p, b * b)
        one = np.zeros_like(info)
        one[:n1, :n1] = E1 @ K11 @ E1.T
        one[:n1, n1:n2] = E1 @ K12 @ E2.T
        one[n1:n2, n1:n2] = E2 @ np.kron(S22, S22) @ E2.T
        one[:n1, n2] = E1 @ np.einsum('nia,nib->ab', VZ.reshape(u.n, J, p), VZ.reshape(u.n, J, p)).ravel()
        one[n1:n2, n2] = E2 @ (V2.T @ V2).ravel()
        one[n2, n2] = np.sum(Vi * Vi)
        info += 0.5 * (np.triu(one) + np.triu(one, 1).T)
    return sum(scores), info, scores


def posterior(units, gamma, T, L, s):
    """Per level-3 unit: v*, cov(v), list of u*_j, list of cov(u_j), list of cov(v, u_j), from the joint normal."""
    p, b = len(T), len(L)
    out = []
    for u in units:
        Vi = np.linalg.inv(covariance(u, T, L, s))
        J = len(u.rows)
        # stacked effects (v, u_1 .. u_J) and their covariance with y
        Z = np.zeros((u.n, b + J * p))
        Z[:, :b] = u.Z2
        G = np.zeros((b + J * p,) * 2)
        G[:b, :b] = L
        for j, r in enumerate(u.rows):
            c = slice(b + j * p, b + (j + 1) * p)
            Z[r, c] = u.Z1[r]
            G[c, c] = T
        GZ = G @ Z.T
        mean = GZ @ Vi @ (u.y - u.M @ gamma)
        cov = G - GZ @ Vi @ GZ.T
        parts = [slice(b + j * p, b + (j + 1) * p) for j in range(J)]
        out.append((mean[:b], cov[:b, :b], [mean[c] for c in parts], [cov[c, c] for c in parts],
                    [cov[:b, c] for c in parts], mean, cov, Z))
    return out
