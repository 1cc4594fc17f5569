"""The pooled tests of a series by their formulas, with numpy and scipy: the Wald test of Li, Raghunathan and Rubin (1991) and
that of chi-squares alone of Li, Meng, Raghunathan and Rubin (1991). Prints the cases of the unit tests."""
import numpy as np
from scipy import stats

gamma = np.array([1.5, -0.75, 2.0])
within = np.array([[.5, .2, -.1], [.2, .4, .05], [-.1, .05, .3]])
spread = np.array([[.1, .02, 0], [.02, .06, .01], [0, .01, .05]])  # (1 + 1/M) B
print("Wald of the within covariance alone:", end=" ")
C = np.array([[1, -1, 0], [0, 1, 1.]])
print(repr((C @ gamma) @ np.linalg.solve(C @ within @ C.T, C @ gamma)))
for M, C in ((5, [[1, -1, 0], [0, 1, 1]]), (3, [[0, 1, 0]]), (20, np.eye(3)), (2, [[1, -1, 0], [0, 1, 1]])):
    C = np.array(C, float)
    r = len(C)
    U, B, e = C @ within @ C.T, C @ spread @ C.T, C @ gamma
    s = np.trace(B @ np.linalg.inv(U)) / r
    D = e @ np.linalg.solve(U, e) / (r * (1 + s))
    t = r * (M - 1)
    nu = 4 + (t - 4) * (1 + (1 - 2 / t) / s) ** 2 if t > 4 else t * (1 + 1 / r) * (1 + 1 / s) ** 2 / 2
    rows = ", ".join(repr(float(x)) for x in C.ravel())
    print(f"{{{M}, {r}, {{{rows}}}, {float(r * D)!r}, {float(nu)!r}, {float(stats.f.sf(D, r, nu))!r}}},")
for k, d in ((12, [20.5, 30.25, 17.0, 22.0]), (3, [0.4, 9.0, 2.5])):
    d, M = np.array(d), len(d)
    r = (1 + 1 / M) * np.var(np.sqrt(d), ddof=1)
    D = (d.mean() / k - (M + 1) / (M - 1) * r) / (1 + r)
    nu = k ** (-3 / M) * (M - 1) * (1 + 1 / r) ** 2
    print(k, d.tolist(), repr(float(k * D)), repr(float(nu)), repr(float(stats.f.sf(D, k, nu))))

# The level of a nominal 5% test in 20,000 series of five sub-runs, at shares of the variance between: of the mean of the
# chi-squares tested as one, of the pooled Wald test, of the pooled chi-squares.
rng, M, n = np.random.default_rng(1), 5, 20000
for k in (1, 3):
    for B in (0.1, 0.3, 0.5):
        U = 1 - B
        Q = rng.standard_normal((n, 1, k)) + rng.standard_normal((n, M, k)) * np.sqrt(B)
        d = (Q ** 2).sum(2) / U
        s = (1 + 1 / M) * Q.var(1, ddof=1).mean(1) / U
        t = k * (M - 1)
        nu = 4 + (t - 4) * (1 + (1 - 2 / t) / s) ** 2 if t > 4 else t * (1 + 1 / k) * (1 + 1 / s) ** 2 / 2
        r = (1 + 1 / M) * np.sqrt(d).var(1, ddof=1)
        D = np.maximum(0, (d.mean(1) / k - (M + 1) / (M - 1) * r) / (1 + r))
        tails = (stats.chi2.sf(d.mean(1), k), stats.f.sf((Q.mean(1) ** 2).sum(1) / U / (k * (1 + s)), k, nu),
                 stats.f.sf(D, k, k ** (-3 / M) * (M - 1) * (1 + 1 / r) ** 2))
        print(k, B, *(f"{(p < 0.05).mean():.3f}" for p in tails))
