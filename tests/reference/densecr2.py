"""CR2 errors and their degrees of freedom from the definition, on n by n matrices, for studies of restrictedstudies.py.

    densecr2.py restricted.out study ... > cr2.out

V at the variances of lmer in restricted.out. With V = C C' the whitened model is y* = X* gamma + e*, cov(e*) = I; H = X* Phi X*';
the residuals of a cluster are multiplied by (I - H_kk)^-1/2. Degrees of freedom: Satterthwaite of the quadratic form in e*;
of several contrasts by the variances of the elements of G V_CR2 G', G = (L Phi L')^-1/2 L.
"""
import sys

import numpy as np

import comparerestricted
import restrictedstudies


def covariance(data, model, theirs):
    k, j = data[:, 0], data[:, 1]
    V = theirs["sigma2"][0] * np.eye(len(data))
    for unit, values, term in ((j, theirs["pupil"], restrictedstudies.MODELS[model][0]), (k, theirs["school"], restrictedstudies.MODELS[model][1])):
        Z = np.column_stack([np.ones(len(data))] + ([data[:, 3]] if term == "X" else []))
        T = np.array([[values[0]]]) if Z.shape[1] == 1 else np.array([[values[0], values[1]], [values[1], values[2]]])
        V += (Z @ T @ Z.T) * (unit[:, None] == unit[None, :])
    return V


def root(M, power):
    w, U = np.linalg.eigh(M)
    return (U * w ** power) @ U.T


def cr2(study, theirs):
    model = restrictedstudies.describe(study)[1]["model"]
    data = np.array(restrictedstudies.rows(study))
    data[:, 2:] = np.round(data[:, 2:], 8)
    y, x, z, q = data[:, 2:].T
    X = np.column_stack([np.ones(len(y)), q, z, x, x * q])
    C = np.linalg.cholesky(covariance(data, model, theirs))
    Xs, ys = np.linalg.solve(C, X), np.linalg.solve(C, y)
    Phi = np.linalg.inv(Xs.T @ Xs)
    H = Xs @ Phi @ Xs.T
    rest = np.eye(len(y)) - H
    residual = rest @ ys
    adjusted = np.zeros((len(y), 5, len(np.unique(data[:, 0]))))  # the scores' factors: score_k = factor_k' e*
    V = np.zeros((5, 5))
    for at, k in enumerate(np.unique(data[:, 0])):
        rows = data[:, 0] == k
        A = root(rest[np.ix_(rows, rows)], -0.5)
        score = Xs[rows].T @ A @ residual[rows]
        V += np.outer(score, score)
        adjusted[:, :, at] = rest[:, rows] @ A @ Xs[rows]
    V = Phi @ V @ Phi
    df = []
    for l in np.eye(5):
        G = np.einsum("nik,i->nk", adjusted, Phi @ l)
        M = G.T @ G
        df.append(np.trace(M) ** 2 / np.sum(M * M))
    out = {"cr2se": np.sqrt(np.diag(V)), "cr2df": df}
    for L in (np.array([[0, 1, 0, 0, 0], [0, 0, 0, 0, 1.0]]), np.array([[0, 1, 0, 0, 0], [0, 0, 1, 0, 0], [0, 0, 0, 1, 1.0]])):
        r = len(L)
        G = root(L @ Phi @ L.T, -0.5) @ L
        p = np.einsum("nik,si->nsk", adjusted, G @ Phi)
        total = 0.0
        for s in range(r):
            for t in range(r):
                ss, tt, st = p[:, s].T @ p[:, s], p[:, t].T @ p[:, t], p[:, s].T @ p[:, t]
                total += np.sum(ss * tt) + np.sum(st * st.T)
        eta = r * (r + 1) / total
        e = L @ Phi @ Xs.T @ ys
        F = (eta - r + 1) / (eta * r) * e @ np.linalg.solve(L @ V @ L.T, e)
        out[f"cr2F{r}"] = [eta - r + 1, F]
    return out


if __name__ == "__main__":
    reference = comparerestricted.reference(sys.argv[1])
    for study in map(int, sys.argv[2:]):
        for what, values in cr2(study, reference[study]).items():
            print(study, what, *("%.12g" % value for value in values))
