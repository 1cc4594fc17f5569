"""Makes nonlinear/: one small data set with outcomes of every kind, its template and the command files.

26 level-3 units of unequal size; one category of YORD5 is rare, two of YMUL5 are, which no model uses yet. Run it again to get
the same bytes.
"""
import numpy as np
from makedata import HERE, textid, write
from nonlinearmodels import NAMES, SETS, commands

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


def main():
    rows = simulate(np.random.default_rng(31))
    write(HERE + '/nonlinear', rows, textid)
    lines = ['#KDR3 MDM CREATION TEMPLATE', 'mdmtype:0', 'rawdattype:ascii']
    lines += ['l%dfname:level%d.dat' % (i, i) for i in (1, 2, 3)] + ['numl%dvar:%d' % (i, len(NAMES[i])) for i in (1, 2, 3)]
    lines += ['l1format:(A4,1X,A6,13F10.4)', 'l2format:(A4,1X,A6,3F10.4)', 'l3format:(A4,3F10.4)', 'l1missing:n',
              'timeofdeletion:now', 'mdmname:nonlin.mdm']
    for i in (1, 2, 3):
        lines += ['*begin l%dvars' % i] + NAMES[i] + ['*end l%dvars' % i]
    with open(HERE + '/nonlinear/nonlin.mdmt', 'w') as f:
        f.write('\n'.join(lines) + '\n')
    for models in SETS.values():
        for name, m in models.items():
            with open('%s/nonlinear/%s.kdr' % (HERE, name), 'w') as f:
                f.write(commands(name, m))
    print(len(rows[3]), len(rows[2]), len(rows[1]))
    for i, name in enumerate(NAMES[1][:10]):
        values, counts = np.unique([r[2][i] for r in rows[1]], return_counts=True)
        if len(values) < 7:
            print(name, dict(zip(values.tolist(), np.round(counts / len(rows[1]), 3))))


if __name__ == '__main__':
    main()
