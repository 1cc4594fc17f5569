"""Largest differences between the dense results and lme4.out, per model."""
import json
import os
import numpy as np
from models import SCHOOL

HERE = os.path.dirname(os.path.abspath(__file__))
# order of the fixed effects of the dense computation in lmer's names
ORDER = {'A': ['(Intercept)', 'Q1c', 'Z1c', 'Z2g', 'X1g', 'Q1c:X1g', 'Z1c:X1g', 'X2c'],
         'B': ['(Intercept)', 'Q1', 'Q2c', 'Z1', 'X1', 'X2c'],
         'D': ['X1', 'X1:Q2', 'X1:Z1', 'X2'],
         'E': ['(Intercept)', 'Z1c', 'Z2g', 'X1c', 'X2c']}
ORDER['C'] = ORDER['R3'] = ORDER['A']


def main():
    models, name = {}, None
    for line in open(HERE + '/lme4.out'):
        w = line.split()
        if w[0] == 'model':
            name = w[1]
            models[name] = dict(gamma={}, tau={})
        elif w[0] == 'gamma':
            models[name]['gamma'][w[1]] = (float(w[2]), float(w[4]))
        elif w[0] == 'tau' and w[1] != 'Residual':
            models[name]['tau'].setdefault(w[1][:3], []).append(float(w[4]))
        elif w[0] in ('loglik', 'sigma2'):
            models[name][w[0]] = float(w[1])
    for name, r in models.items():
        d = json.load(open('%s/results/school-%s.json' % (HERE, name)))
        T, L, cov = (np.array(d[k]) for k in ('taupi', 'taubeta', 'covariance'))

        def elements(X):
            return list(np.diag(X)) + ([] if SCHOOL[name].get('diagtaupi') else
                                       [X[i, j] for j in range(len(X)) for i in range(j + 1, len(X))])
        g = [r['gamma'][n] for n in ORDER[name]]
        print('%-3s loglik %.1e gamma %.1e se %.1e tau(pi) %.1e tau(beta) %.1e sigma2 %.1e' % (
            name, abs(d['loglik'] - r['loglik']), max(abs(a - b[0]) for a, b in zip(d['gamma'], g)),
            max(abs(a - b[1]) for a, b in zip(np.sqrt(np.diag(cov)), g)),
            max(abs(a - b) for a, b in zip(elements(T), r['tau']['id2'])),
            max(abs(a - b) for a, b in zip(elements(L), r['tau']['id3'])), abs(d['sigma2'] - r['sigma2'])))


if __name__ == '__main__':
    main()
