"""The least deviance of a three-level model with two random coefficients at both levels: a dense likelihood, maximised over
Cholesky factors (variance and correlation where variances are equal) from several starts by L-BFGS-B. For studies of
boundarysets.py, whose maximum may lie where a tau has no inverse.
"""
import numpy as np
from scipy.optimize import minimize
from denselikelihood import Unit, gls, loglik


def factors(theta, restriction, scale):
    """T, L (for the predictor over its scale) and s."""
    def tau(a, equal, diagonal):
        if equal:  # T11 = T22 on the scale of the file: T22 here is scale squared of it
            variance, r = np.exp(a[0]), np.sin(a[1])
            root = np.diag([1.0, scale]) * np.sqrt(variance)
            return root @ np.array([[1, r], [r, 1]]) @ root
        F = np.array([[a[0], 0], [0.0 if diagonal else a[1], a[2]]])
        return F @ F.T
    return (tau(theta[:3], restriction.startswith("CONTAU2"), restriction.startswith("DIAGONALIZETAUPI")),
            tau(theta[3:6], restriction.startswith("CONTAU3"), False), np.exp(theta[6]))


def best(units, restriction, scale):
    made = []
    for y, X, sizes in units:
        ends = np.cumsum(sizes)
        X = np.array(X)
        made.append(Unit(np.array(y), X, X, X, [slice(end - size, end) for end, size in zip(ends, sizes)]))

    def value(theta):
        T, L, s = factors(theta, restriction, scale)
        try:
            return -2 * loglik(made, gls(made, T, L, s)[0], T, L, s)
        except np.linalg.LinAlgError:
            return 1e10
    starts = []
    for a, b in ((0.6, 0.5), (0.3, 0.05), (0.8, -0.5)):
        two = [2 * np.log(a / scale), b, 0] if restriction.startswith("CONTAU2") else [a, b * a, 0.3]
        three = [2 * np.log(a / scale), b, 0] if restriction.startswith("CONTAU3") else [a, -b * a, 0.3]
        starts.append(np.array(two + three + [0.0]))
    return min(minimize(value, start, method="L-BFGS-B", options={"maxiter": 500, "ftol": 1e-13}).fun for start in starts)
