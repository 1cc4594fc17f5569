"""What the residual files and the graph file of a model hold, on full matrices; writes results/residuals-<tag>.json.

The estimates are those of results/<tag>.json. Per level-3 unit, in file order:
  level3   EB, OL (null without a fit), FV, EC, PV (lower triangle by rows), graphOL (least squares of Z2 alone), NK
  level2   the same for its level-2 units, with NJK
  level1   fitted value and residual of every record
All numbers come from the joint normal distribution of the dense model; W2 and W3 are formed from their definition.
"""
import json
import os
import sys
import numpy as np
from dense import Data, build, inference, normaliseweights, mean, usable
from denselikelihood import lower, posterior
from makedata import NAMES
from models import I3, SETS

HERE = os.path.dirname(os.path.abspath(__file__))
WANTED = ['school-A', 'school-B', 'school-C', 'school-D', 'school-E', 'school-R5', 'school-R6', 'school-W123',
          'schoolnum-A', 'tiny-T', 'missinganalysis-A']


def triangle(m):
    return [float(m[i, j]) for i, j in lower(len(m))]


def leastsquares(Z, r):
    A = Z.T @ Z
    return list(np.linalg.solve(A, Z.T @ r)) if usable(A)[0] else None


def results(data, m, ref):
    units, _, factors, Cm, _ = build(data, m)
    gamma, T, L, s = np.array(ref['gamma']), np.array(ref['taupi']), np.array(ref['taubeta']), ref['sigma2']
    full = Cm @ gamma
    weights = normaliseweights(data, m['weights']) if 'weights' in m else None
    post = posterior(units, gamma, T, L, s)
    lsq3 = inference(units, gamma, T, L, s)['lsq3']
    value = lambda level, name, row, center: 1.0 if name.startswith('INTRCPT') else row[NAMES[level].index(name)] - center
    out = dict(level1=[], level2=[], level3=[], sigma=float(np.sqrt(s)))
    for k, (unit, x, f, (q, unit2)) in enumerate(zip(units, post, factors, data.units)):
        v, covv, us, covs = x[0], x[1], x[2], x[3]
        d3 = 1 / np.sqrt(weights[2][k]) if weights else 1.0
        FV3, EC3, random, at, r = {}, {}, [], 0, 0
        for c, _ in m['level1']:
            for t, _ in m['level2'][c]:
                FV3[c, t] = 0.0
                for name, mark in m['level3'].get((c, t), I3):
                    FV3[c, t] += value(3, name, q, {0: 0.0, 2: data.grand.get(name, 0.0)}[mark]) * full[at]
                    at += 1
                EC3[c, t] = FV3[c, t]
                if (c, t) in m['random3']:
                    EC3[c, t] += d3 * v[r]
                    r += 1
        resid = unit.y - unit.M @ gamma
        out['level3'].append(dict(EB=list(v), OL=lsq3[k], FV=list(FV3.values()), EC=list(EC3.values()),
                                  PV=triangle(covv), graphOL=leastsquares(unit.Z2, resid), NK=len(unit2)))
        groupmean = {n: mean([z[i] for z, _ in unit2]) for i, n in enumerate(NAMES[2])}
        for j, (rows, (z, records)) in enumerate(zip(unit.rows, unit2)):
            d2 = 1 / np.sqrt(weights[1][k][j]) if weights else 1.0
            FV2, EC2, r = [], [], 0
            for c, _ in m['level1']:
                FV2.append(sum(EC3[c, t] * value(2, t, z, {0: 0.0, 1: groupmean.get(t), 2: data.grand.get(t)}[mark])
                               for t, mark in m['level2'][c]))
                EC2.append(FV2[-1] + (d2 * us[j][r] if c in m['random2'] else 0.0))
                r += c in m['random2']
            out['level2'].append(dict(EB=list(us[j]), FV=FV2, EC=EC2, PV=triangle(covs[j]), NJK=len(records),
                                      OL=leastsquares(unit.Z1[rows], resid[rows] - unit.Z2[rows] @ v)))
            fitted = (unit.M[rows] @ gamma + unit.Z2[rows] @ v + unit.Z1[rows] @ us[j]) / f[rows]
            out['level1'] += [[float(a), float(b)] for a, b in zip(unit.y[rows] / f[rows] - fitted, fitted)]
    return out


def rounded(x):
    if isinstance(x, dict):
        return {k: rounded(v) for k, v in x.items()}
    if isinstance(x, (list, tuple)):
        return [rounded(v) for v in x]
    return float('%.9g' % x) if isinstance(x, float) else x


def main():
    for name, (templates, models) in SETS.items():
        for t, (timing, code) in templates.items():
            for mname, m in models.items():
                tag = '%s-%s' % (t, mname)
                if tag not in (sys.argv[1:] or WANTED):
                    continue
                used = {m['outcome']} | {n for n, _ in m['level1']} - {'INTRCPT1'}
                data = Data('%s/%s' % (HERE, name), timing, code, [NAMES[1].index(n) for n in used])
                with open('%s/results/%s.json' % (HERE, tag)) as f:
                    ref = json.load(f)
                with open('%s/results/residuals-%s.json' % (HERE, tag), 'w') as f:
                    json.dump(rounded(results(data, m, ref)), f)
                    f.write('\n')
                print(tag)


if __name__ == '__main__':
    main()
