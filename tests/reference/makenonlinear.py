"""Makes nonlinear/ and nonlinearlarge/: data with outcomes that are counts and categories, templates and command files.

The first has 26 level-3 units of unequal size and small level-2 units; one category of YORD5 is rare. The second has level-2
units of mostly some 25 records, for random slopes in each equation; one category of YMUL5 is rare. Run it again to
get the same bytes.
"""
import numpy as np
from makedata import HERE, template, textid, write
from nonlinearmodels import FOLDERS, NAMES, SETS, commands

NTHREE = 26


def draw(rng, p):
    return int(np.searchsorted(np.cumsum(p), rng.random() * 0.999999))


def simulate(rng):
    chol = lambda a, b, c: np.linalg.cholesky(np.array([[a, b], [b, c]]))
    C2, C3 = chol(0.8, 0.15, 0.35), chol(0.7, 0.1, 0.3)
    rows, unit2 = {1: [], 2: [], 3: []}, 0
    inverse = lambda eta: 1 / (1 + np.exp(-eta))
    for k in range(NTHREE):
        q1, q2, w3 = rng.normal(), rng.normal(), 0.5 + rng.random()
        rows[3].append((k + 1, None, [q1, q2, w3]))
        v, vc = C3 @ rng.normal(size=2), rng.normal(size=4) * 0.8
        for _ in range([1, 9, 2][k] if k < 3 else int(rng.integers(3, 8))):
            unit2 += 1
            z1, z2, w2 = rng.normal() + 0.3 * q1, rng.normal(), 0.5 + rng.random()
            rows[2].append((k + 1, unit2, [z1, z2, w2]))
            u, uc, slopes, center = C2 @ rng.normal(size=2), rng.normal(size=4) * 0.9, 1.1 * rng.normal(size=2), rng.normal()
            count = int(rng.integers(3, 15)) if unit2 % 9 else int(rng.integers(1, 3))
            for _ in range(count):
                x1, x2, w1 = center + rng.normal(), 2 + rng.normal(), 0.4 + 1.2 * rng.random()
                part = 0.3 * q1 + 0.4 * z1 + (0.5 + 0.2 * z1 + v[1] + u[1]) * (x1 - center) - 0.4 * (x2 - 2)
                eta = part + v[0] + u[0]
                trials, exposure = int(rng.integers(1, 9)), 0.5 + 4 * rng.random()
                bern = int(rng.random() < inverse(0.3 + eta))
                binomial = int(rng.binomial(trials, inverse(-0.4 + eta)))
                poisson, rate = rng.poisson(np.exp(0.2 + 0.6 * eta)), rng.poisson(exposure * np.exp(-0.3 + 0.6 * eta))
                e = np.array([0.6 + vc[0] + uc[0] + (0.4 + slopes[0]) * (x1 - center) + 0.4 * z1,
                              0.3 + vc[1] + uc[1] + (-0.3 + slopes[1]) * (x1 - center) - 0.4 * (x2 - 2),
                              -0.1 + 0.6 * vc[2] + 0.8 * uc[2] + (slopes[0] + slopes[1]) * (x1 - center)])
                m3 = 1 + draw(rng, np.exp(e) / np.exp(e).sum())
                e5 = np.append(np.array([0.9, 0.6, -0.4, 0.5]) + vc + uc + np.array([0.5, 0.0, 0.2, -0.4]) * (x1 - center)
                               + 0.4 * z1, 0.4)
                m5 = 1 + draw(rng, np.exp(e5) / np.exp(e5).sum())
                cuts = lambda c: np.diff(np.concatenate([[0], inverse(np.array(c) + eta), [1]]))
                o3, o5 = draw(rng, cuts([-1.0, 1.2])), 2 * draw(rng, cuts([-1.5, -0.2, 0.2, 1.5]))
                rows[1].append((k + 1, unit2, [bern, binomial, trials, poisson, rate, exposure, m3, o3, m5, o5, x1, x2, w1]))
    return {level: [(i, j, [round(float(x), 4) for x in vals]) for i, j, vals in r] for level, r in rows.items()}


def simulatelarge(rng):
    inverse = lambda eta: 1 / (1 + np.exp(-eta))
    rows, unit2 = {1: [], 2: [], 3: []}, 0
    mixed = lambda spread: np.linalg.cholesky(spread * (np.eye(4) + 0.3) / 1.3)
    CI, CS, C3 = mixed(1.4), mixed(1.2), mixed(1.2)
    for k in range(30):
        q1, q2 = rng.normal(), rng.normal()
        rows[3].append((k + 1, None, [q1, q2]))
        v = C3 @ rng.normal(size=4)
        for _ in range([1, 8, 2][k] if k < 3 else int(rng.integers(2, 5))):
            unit2 += 1
            z1, z2 = rng.normal() + 0.3 * q1, rng.normal()
            rows[2].append((k + 1, unit2, [z1, z2]))
            u, slope, center = CI @ rng.normal(size=4), CS @ rng.normal(size=4), rng.normal()
            for _ in range(int(rng.integers(12, 29)) if unit2 % 11 else int(rng.integers(2, 5))):
                x1, x2 = center + rng.normal(), 2 + rng.normal()
                fixed = 0.3 * q1 + 0.4 * z1 + 0.2 * z1 * (x1 - center) - 0.4 * (x2 - 2)
                eta = np.array([0.2, -0.9, 0.0, 0.1]) + v + (np.array([0.5, 0.0, 0.2, -0.4]) + slope) * (x1 - center)
                eta += np.array([1.0, 0.2, -0.5, -1.0]) * fixed
                e5 = np.exp(np.append(eta, 0.2))
                e3 = np.exp(np.append(eta[:2] + u[:2] + np.array([0.2, 0.8]), 0.0))
                one = fixed + 0.3 + v[0] + u[0] + (0.5 + slope[0]) * (x1 - center)
                trials = int(rng.integers(1, 9))
                rows[1].append((k + 1, unit2, [int(rng.random() < inverse(one)), int(rng.binomial(trials, inverse(one - 0.7))),
                                               trials, 1 + draw(rng, e3 / e3.sum()), 1 + draw(rng, e5 / e5.sum()),
                                               x1, x2]))
    return {level: [(i, j, [round(float(x), 4) for x in vals]) for i, j, vals in r] for level, r in rows.items()}


def main():
    for name, rows in (('nonlin', simulate(np.random.default_rng(31))), ('large', simulatelarge(np.random.default_rng(32)))):
        directory, names = '%s/%s' % (HERE, FOLDERS[name]), NAMES[name]
        write(directory, rows, textid)
        with open('%s/%s.mdmt' % (directory, name), 'w') as f:
            f.write(template(name + '.mdm', ['level%d.dat' % i for i in (1, 2, 3)],
                             ['(A4,%s%dF10.4)' % ('1X,A6,' * (i < 3), len(names[i])) for i in (1, 2, 3)], names.values()))
        for data, models in SETS:
            for model, m in models.items() if data == name else ():
                with open('%s/%s.kdr' % (directory, model), 'w') as f:
                    f.write(commands(model, m))
        print(name, len(rows[3]), len(rows[2]), len(rows[1]))
        for i, outcome in enumerate(NAMES[name][1]):
            values, counts = np.unique([r[2][i] for r in rows[1]], return_counts=True)
            if len(values) < 7:
                print(outcome, dict(zip(values.tolist(), np.round(counts / len(rows[1]), 3))))


if __name__ == '__main__':
    main()
