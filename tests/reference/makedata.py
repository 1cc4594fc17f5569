"""Makes the small data sets, templates and command files under this directory. Run it again to get the same bytes.

school         28 level-3 units, text identifiers
schoolnum      the same data with identifiers that look like numbers, also as CSV
schoolmissing  the same data with -99 in some level-1 values, for deletion at construction and at analysis
tiny           5 level-3 units, 12 level-2 units, 60 records
"""
import csv
import os
import pathlib
import sys
import numpy as np
from models import SETS, commandfile

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / 'endtoend'))
from program import template

HERE = os.path.dirname(os.path.abspath(__file__))
NAMES = {1: ['Y', 'X1', 'X2', 'V', 'W1'], 2: ['Z1', 'Z2', 'W2'], 3: ['Q1', 'Q2', 'W3']}


def simulate(rng, units3, sizes):
    """Rows per level: (id3, id2, values), identifiers as whole numbers. sizes(k) gives the record counts of unit k."""
    T, L, s = np.array([[1.1, 0.25], [0.25, 0.5]]), np.array([[0.9, 0.2], [0.2, 0.45]]), 2.0
    rows = {1: [], 2: [], 3: []}
    unit2 = 0
    for k in range(units3):
        q1, q2, w3 = rng.normal(), rng.normal(), 0.5 + rng.random()
        rows[3].append((k + 1, None, [q1, q2, w3]))
        v = np.linalg.cholesky(L) @ rng.normal(size=2)
        zslope = 0.45 * rng.normal()
        for n in sizes(k):
            unit2 += 1
            z1, z2, w2 = rng.normal() + 0.4 * q1, 2 + rng.normal(), 0.5 + rng.random()
            rows[2].append((k + 1, unit2, [z1, z2, w2]))
            u = np.linalg.cholesky(T) @ rng.normal(size=2)
            center = 1 + 0.7 * rng.normal()
            for _ in range(n):
                x1, x2 = center + rng.normal(), 3 + 1.5 * rng.normal()
                var = s * np.exp(0.5 * rng.normal())
                e = np.sqrt(var) * rng.normal()
                y = (4 + 0.8 * q1 + 0.6 * z1 - 0.3 * z2 + zslope * (z2 - 2) + v[0] + u[0]
                     + (1.0 + 0.3 * q1 + 0.2 * z1 + v[1] + u[1]) * (x1 - center) + 0.35 * x2 + e)
                rows[1].append((k + 1, unit2, [y, x1, x2, var, 0.4 + 1.2 * rng.random()]))
    return {level: [(i, j, [round(float(x), 4) for x in vals]) for i, j, vals in r] for level, r in rows.items()}


def schoolsizes(rng):
    counts = [1, 12, 2, 3] + [int(x) for x in rng.integers(2, 11, size=24)]
    plan = []
    for k, n in enumerate(counts):
        plan.append([int(x) for x in rng.integers(2, 17, size=n)])
    plan[0] = [9]
    plan[1][3] = plan[5][0] = plan[9][1] = plan[14][-1] = 1
    plan[7][0] = 24
    return plan


def writelevel(path, level, rows, ids):
    with open(path, 'w', newline='\n') as f:
        for i, j, vals in rows:
            f.write(ids(i, j) + ''.join('%10.4f' % x for x in vals) + '\n')


def textid(i, j):
    return 'S%03d' % i + (' c%05d' % j if j is not None else '')


def numberid(i, j):
    return '%4d' % (100 + 7 * i) + (' %6d' % (1000 + 3 * j) if j is not None else '')


def made(name, timing, code):
    return template(name + '.mdm', ['level%d.dat' % n for n in (1, 2, 3)],
                    ('(A4,1X,A6,5F10.4)', '(A4,1X,A6,3F10.4)', '(A4,3F10.4)'), NAMES.values(),
                    'n' if code is None else 'y/SAME\n%f' % code, timing)


def write(directory, rows, ids):
    os.makedirs(directory, exist_ok=True)
    for level in (1, 2, 3):
        writelevel('%s/level%d.dat' % (directory, level), level, rows[level], ids)


def main():
    rng = np.random.default_rng(20240417)
    plan = schoolsizes(rng)
    school = simulate(rng, len(plan), lambda k: plan[k])
    rng = np.random.default_rng(1)
    tinyplan = [[5, 6], [4, 7, 3], [6], [8, 2, 5, 4], [5, 5]]
    tiny = simulate(rng, 5, lambda k: tinyplan[k])
    holes = np.random.default_rng(5)
    seen, missing = set(), []
    for i, j, vals in school[1]:
        vals = list(vals)
        if j in seen and holes.random() < 0.08:
            vals[int(holes.integers(0, 3))] = -99.0
        seen.add(j)
        missing.append((i, j, vals))
    write(HERE + '/school', school, textid)
    write(HERE + '/schoolnum', school, numberid)
    write(HERE + '/schoolmissing', {1: missing, 2: school[2], 3: school[3]}, textid)
    write(HERE + '/tiny', tiny, textid)
    for level in (1, 2, 3):
        head = ['ID3'] + (['ID2'] if level < 3 else []) + NAMES[level]
        table = [[100 + 7 * i] + ([1000 + 3 * j] if j is not None else []) + vals for i, j, vals in school[level]]
        with open(HERE + '/schoolnum/level%d.csv' % level, 'w', newline='') as f:
            csv.writer(f, lineterminator='\n').writerows([head] + table)
    for name, (templates, models) in SETS.items():
        for t, (timing, code) in templates.items():
            with open('%s/%s/%s.mdmt' % (HERE, name, t), 'w') as f:
                f.write(made(t, timing, code))
        for m, model in models.items():
            with open('%s/%s/%s.kdr' % (HERE, name, m), 'w') as f:
                f.write(commandfile(m, model))
    print(len(school[3]), len(school[2]), len(school[1]), 'missing', sum(-99.0 in r[2] for r in missing))
    print(len(tiny[3]), len(tiny[2]), len(tiny[1]))


if __name__ == '__main__':
    main()
