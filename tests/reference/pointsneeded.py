"""How many points quadrature needs, by how much the level-2 units say: counts with a mean of about W a level-2 unit.

25 level-3 units with four level-2 units of two records, exposures between a half and one and a half of W/2, variances 0.3.
`spread` is the ratio of the spread of a level-2 unit's nodes to the width of its integrand at one level-3 effect: the
root of 1 + l^2 C3/C2, C2 = 1/(W + 1/tau2), l = W C2, C3 = 1/(4 W/(1 + W tau2) + 1/tau3).

  pointsneeded.py PROGRAM FOLDER > pointsneeded.out
"""
import os
import re
import subprocess
import sys
import numpy as np
import densequadrature as dense

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'endtoend'))
from program import NOFEATURES, NOFILES, fixedtext

COMMANDS = ('NONLIN:POISSON,E\nMACROIT:200,N\nMICROIT:500\nFIXSIGMA2:1.0\nLEVEL1:Y=INTRCPT1+X+RANDOM\n'
            'LEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL2:X=INTRCPT2/\n'
            'LEVEL3:INTRCPT2=INTRCPT3/\nTITLE:Points\nOUTPUT:y.txt\nFULLOUTPUT:N\nAGQ:Y,300,%d\n' + NOFILES + NOFEATURES)


def make(folder, size):
    rng = np.random.default_rng(int(size))
    rows, unit2 = [[], [], []], 0
    for k in range(1, 26):
        v = rng.normal() * 0.3 ** 0.5
        rows[2].append((k, rng.normal()))
        for _ in range(4):
            unit2 += 1
            u = rng.normal() * 0.3 ** 0.5
            rows[1].append((k, unit2, rng.normal()))
            for _ in range(2):
                e, x = round(size / 2 * rng.uniform(0.5, 1.5), 3), round(rng.normal(), 3)
                rows[0].append((k, unit2, rng.poisson(e * np.exp(v + u + 0.1 * x)), e, x))
    fixedtext(folder, rows, '%10.3f', (['Y', 'E', 'X'], ['W'], ['Z']), 'y.mdm')


def main():
    program, folder = sys.argv[1:]
    for size in (3.0, 10.0, 30.0, 100.0, 300.0, 1000.0):
        make(folder, size)
        C2 = 1 / (size + 1 / 0.3)
        C3 = 1 / (4 * size / (1 + 0.3 * size) + 1 / 0.3)
        a = np.loadtxt(folder + '/y1.dat')
        one = np.ones((len(a), 1))
        data = dense.Data('exposure', a[:, 0].astype(int), a[:, 1].astype(int), a[:, 2], a[:, 3],
                          np.hstack([one, a[:, 4:5]]), one, one)
        theta, best, _ = dense.maximise(data, np.array([0.3, 0.3, 0.0, 0.1]), (15, 15), 1e-2)
        errors = dense.standarderrors(data, theta, (15, 15))
        print('W %g, spread %.2f: tau2 %.4f tau3 %.4f constant %.4f (%.4f), log-likelihood %.4f' % (
            size, (1 + (size * C2) ** 2 * C3 / C2) ** 0.5, theta[0], theta[1], theta[2], errors[2], best))
        subprocess.run([program, '-q', '-r', 'y.mdmt'], cwd=folder, stdout=subprocess.DEVNULL, check=True)
        for points in (1, 5, 7, 11, 15):
            with open(folder + '/y.kdr', 'w') as f:
                f.write(COMMANDS % points)
            console = subprocess.run([program, '-q', 'y.mdm', 'y.kdr'], cwd=folder, capture_output=True, text=True).stdout
            with open(folder + '/y.txt') as f:
                text = f.read()
            at = text.find('ADAPTIVE GAUSSIAN')
            text = text[at:text.find('POPULATION-AVERAGE', at)] if at >= 0 else ''
            row = re.search(r'G000 +(\S+) +(\S+)', text)
            said = re.findall(r'WARNING: (.{30})', text)
            found = re.findall(r'marginal log-likelihood = (\S+)', console)
            taus = re.findall(r'^ INTRCPT1,P0 +(\S+)', text, re.M)[:1] + re.findall(r'B00\n +(\S+)', text)[:1]
            print('  %3d points: taus %s constant %s log-likelihood %s %s' % (
                points, ' '.join(taus), ' '.join(row.groups()) if row else 'none', found[-1] if found else 'none', said), flush=True)


if __name__ == '__main__':
    main()
