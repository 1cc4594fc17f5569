"""Numbers for the test of Rubin's rules: made-up results of four sub-runs, and their averages worked out from the
definitions, element by element, in exact arithmetic up to the last square root.

    pooling.py > pooling.txt

Every line is a name and its values, matrices by rows. "record" opens the input of a sub-run, "pooled" the averages of
the first M of them. Source of the rules: Rubin (1987), Multiple Imputation for Nonresponse in Surveys, chapter 3.
"""
import random
from fractions import Fraction as F
from math import sqrt

Q, R, G = 2, 2, 3
NT = Q * (Q + 1) // 2 + R * (R + 1) // 2
DFGAMMA = [18, 900, 25]
random.seed(1987)


def number(lo, hi):
    return F(random.randint(int(lo * 10000), int(hi * 10000)), 10000)


def covariance(n, scale):
    """A symmetric matrix with a heavy diagonal, around the same values each time."""
    m = [[F(0)] * n for _ in range(n)]
    for i in range(n):
        for j in range(i + 1):
            m[i][j] = m[j][i] = scale * (number(0.9, 1.1) if i == j else number(-0.2, 0.2))
    return m


def record():
    effects = lambda: dict(gamma=[number(1.8, 2.2), number(-0.505, -0.495), number(0.0, 1.5)],
                           vgamma=covariance(G, F(1, 20)), robust=covariance(G, F(1, 16)))
    return dict(units=[90 + random.randint(0, 5), 17 + random.randint(0, 3)], sigma2=number(1.9, 2.3), loglik=number(-900, -800),
                sigma2variance=number(0.01, 0.02), taupi=covariance(Q, F(2)), taubeta=covariance(R, F(1)),
                taucovariance=covariance(NT, F(1, 10)), reliability2=[number(0, 1) for _ in range(Q)],
                reliability3=[number(0, 1) for _ in range(R)], effects=effects(),
                testunits=[80 + random.randint(0, 5), 15 + random.randint(0, 3)], chisq2=[number(50, 90) for _ in range(Q)],
                chisq3=[number(10, 30) for _ in range(R)], popaverage=effects())


def mean(xs):
    return sum(xs, F(0)) / len(xs)


def meanmatrix(ms):
    return [[mean([m[i][j] for m in ms]) for j in range(len(ms[0]))] for i in range(len(ms[0]))]


def variance(xs):
    """With M - 1; 0 for one value."""
    return sum((x - mean(xs)) ** 2 for x in xs) / (len(xs) - 1) if len(xs) > 1 else F(0)


def cross(xs, ys):
    return sum((x - mean(xs)) * (y - mean(ys)) for x, y in zip(xs, ys)) / (len(xs) - 1) if len(xs) > 1 else F(0)


def lower(m):
    return [m[i][j] for i in range(len(m)) for j in range(i + 1)]


def pooleffects(records, which):
    M, out = len(records), {}
    inflate = 1 + F(1, M)
    gammas = [[r[which]['gamma'][i] for r in records] for i in range(G)]
    out['gamma'] = [mean(x) for x in gammas]
    s2 = mean([r['sigma2'] for r in records])
    for kind, matrix in (('model', 'vgamma'), ('robust', 'robust')):
        within = meanmatrix([r[which][matrix] for r in records])
        total = [[s2 * within[i][j] + inflate * cross(gammas[i], gammas[j]) for j in range(G)] for i in range(G)]
        out[kind + 'covariance'] = sum(total, [])
        df = []
        for i in range(G):
            T = inflate * variance(gammas[i])
            if M == 1 or T == 0:
                df.append(DFGAMMA[i])
                continue
            nu = (M - 1) * (s2 * within[i][i] / T + 1) ** 2
            df.append(min(int(nu) if nu <= 2147483647 else DFGAMMA[i], DFGAMMA[i]))
        out[kind + 'df'] = df
    return out


def pooled(records):
    M, out = len(records), {}
    inflate = 1 + F(1, M)
    plain = ('taupi', 'taubeta', 'reliability2', 'reliability3', 'chisq2', 'chisq3')
    out['sigma2'] = [mean([r['sigma2'] for r in records])]
    for name in plain:
        values = [sum(r[name], []) if isinstance(r[name][0], list) else r[name] for r in records]
        out[name] = [mean(x) for x in zip(*values)]
    out['sigma2error'] = [sqrt(mean([r['sigma2variance'] for r in records]) + inflate * variance([r['sigma2'] for r in records]))]
    t = list(zip(*[lower(r['taupi']) + lower(r['taubeta']) for r in records]))
    within = meanmatrix([r['taucovariance'] for r in records])
    total = [[within[i][j] + inflate * cross(t[i], t[j]) for j in range(NT)] for i in range(NT)]
    out['taucovariance'] = sum(total, [])
    out['tauerrors'] = [sqrt(total[i][i]) for i in range(NT)]
    out['units3'] = [sum(r['units'][1] for r in records) // M]
    out['testunits'] = [sum(r['testunits'][i] for r in records) // M for i in (0, 1)]
    for which in ('effects', 'popaverage'):
        for name, values in pooleffects(records, which).items():
            out[which + name] = values
    return out


def write(name, values):
    flat = []
    for v in values:
        flat += v if isinstance(v, list) else [v]
    print(name, *(v if isinstance(v, int) else repr(float(v)) for v in flat))


records = [record() for _ in range(4)]
write('dfgamma', DFGAMMA)
for r in records:
    print('record')
    for name, value in r.items():
        if isinstance(value, dict):
            for part, x in value.items():
                write(name + part, x)
        else:
            write(name, value if isinstance(value, list) else [value])
for M in (1, 2, 4):
    print('pooled', M)
    for name, values in pooled(records[:M]).items():
        write(name, values)
