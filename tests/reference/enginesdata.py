"""Made data for the comparison of engines: 100 level-3 units with 3 to 5 level-2 units of 3 to 6 records each ('small') or
8 to 14 ('medium'), a Bernoulli outcome, random intercepts and slopes at level 2, intercepts at level 3. Writes y1.dat, y2.dat, y3.dat, the template and the
command files into a folder, and estimates by the quadrature of densequadrature.py.

  enginesdata.py make DIR small|medium      enginesdata.py solve DIR POINTS
"""
import os
import sys
import numpy as np
import densequadrature as dense

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'endtoend'))
from program import NOFEATURES, NOFILES, fixedtext

SIZES = {'small': (3, 7), 'medium': (8, 15)}
GAMMA, TAU2, TAU3 = [-0.3, 0.8], [[1.5, 0.3], [0.3, 1.0]], [[1.0]]


def make(folder, size):
    rng = np.random.default_rng(7)
    rows, unit2 = [[], [], []], 0
    for k in range(1, 101):
        rows[2].append((k, rng.normal()))
        v = rng.multivariate_normal([0], TAU3)[0]
        for _ in range(rng.integers(3, 6)):
            unit2 += 1
            rows[1].append((k, unit2, rng.normal()))
            u = rng.multivariate_normal([0, 0], TAU2)
            for _ in range(rng.integers(*SIZES[size])):
                x = round(rng.normal(), 3)
                eta = GAMMA[0] + v + u[0] + (GAMMA[1] + u[1]) * x
                rows[0].append((k, unit2, rng.random() < 1 / (1 + np.exp(-eta)), x))
    fixedtext(folder, rows, '%8.3f', (['Y', 'X'], ['W'], ['Z']), 'y.mdm')
    for name, line in [('laplace', 'LAPLACE:Y,200')] + [('points%d' % p, 'AGQ:Y,200,%d' % p) for p in (5, 7, 11, 15)]:
        with open('%s/%s.kdr' % (folder, name), 'w') as f:
            f.write('NONLIN:BERNOULLI\nMACROIT:200,N\nMICROIT:500\nFIXSIGMA2:1.0\nLEVEL1:Y=INTRCPT1+X+RANDOM\n'
                    'LEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL2:X=INTRCPT2+RANDOM/\n'
                    'LEVEL3:INTRCPT2=INTRCPT3/\nTITLE:Engines\nOUTPUT:%s.txt\nFULLOUTPUT:N\n%s\n' % (name, line) + NOFILES + NOFEATURES)


def solve(folder, points):
    a = np.loadtxt(folder + '/y1.dat')
    one = np.ones((len(a), 1))
    both = np.hstack([one, a[:, 3:4]])
    data = dense.Data('bernoulli', a[:, 0].astype(int), a[:, 1].astype(int), a[:, 2], one[:, 0], both, both, one)
    theta, best, gradient = dense.maximise(data, np.array([1.5, 0.3, 1.0, 1.0] + GAMMA), (points, points), 1e-2)
    print(points, 'points: log-likelihood %.4f, largest gradient %.1e' % (best, gradient))
    print('estimate', np.round(theta, 4))
    print('s.e.', np.round(dense.standarderrors(data, theta, (points, points)), 4), flush=True)


if __name__ == '__main__':
    make(*sys.argv[2:]) if sys.argv[1] == 'make' else solve(sys.argv[2], int(sys.argv[3]))
