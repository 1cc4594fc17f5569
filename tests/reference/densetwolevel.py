"""Dense computation of the models of twolevelmodels.py; writes results/two-<model>.json and its like.

    densetwolevel.py [kind-model ...]
"""
import json
import os
import sys
import numpy as np
import dense
import densepql
from dense import HERE, Data
from twolevelmodels import SETS, tag

KEPT = ('n1', 'n2', 'n3', 'deviance', 'parameters', 'gamma', 'covariance', 'taupi', 'taubeta', 'sigma2', 'setau', 'robust', 'weighted',
        'rel2', 'rel3', 'stat2', 'stat3', 'nrel2', 'nrel3', 'nstat2', 'nstat3', 'dfstat2', 'dfstat3', 'df', 'dfrough', 'leastsquares',
        'wald', 'order', 'ratiofinal', 'ratiorobust', 'populationaverage', 'exploratory')


def readtwo(directory, level, n):
    """Every level-2 unit stands for a level-3 unit without variables."""
    rows = dense.readlevel(directory, min(level, 2), n or 3)
    return [(id2, id2 if level < 3 else None, values if level < 3 else []) for _, id2, values in rows]


def checkweights(data, names):
    """Weights of two levels by their definition: those of records with a mean of 1 in each unit, times the unit's; without
    weights of units, their mean in a unit is the unit's."""
    v1, v2, _ = names
    w1, w2 = [], []
    for _, ((z, records),) in data.units:
        x = np.array([r[data.names[1].index(v1)] if v1 else 1.0 for r in records])
        own = z[data.names[2].index(v2)] if v2 else x.mean()
        w1.append(x / x.mean() * own)
        w2.append(own)
    found1, found2, _ = dense.normaliseweights(data, names)
    everything = np.concatenate(w1)
    assert np.allclose(np.concatenate([np.concatenate(u) for u in found1]), everything / everything.mean(), rtol=1e-10)
    assert np.allclose(np.concatenate(found2), np.array(w2) / np.mean(w2), rtol=1e-10)


def main():
    for folder, names, models in SETS:
        for (kind, name), m in models.items():
            if sys.argv[1:] and tag(kind, name) not in sys.argv[1:]:
                continue
            of = {**names, 3: []} if kind == 'two' else names
            data = Data('%s/%s' % (HERE, folder), 'now', None, [], of, readtwo if kind == 'two' else dense.readlevel)
            if kind == 'two' and 'weights' in m:
                checkweights(data, m['weights'])
            r = densepql.reference(data, m) if 'kind' in m else dense.solved(data, m)
            r = {k: v for k, v in densepql.rounded(r).items() if k in KEPT}
            print(tag(kind, name), 'gradient ok', np.round(r['gamma'], 4), r.get('deviance'), flush=True)
            with open(os.path.join(HERE, 'results', tag(kind, name) + '.json'), 'w') as f:
                json.dump(r, f)
                f.write('\n')


if __name__ == '__main__':
    main()
