"""Penalised quasi-likelihood from its definition, on full covariance matrices; writes results/<data>-<model>.json.

A macro iteration replaces the outcome by working data and fits the weighted linear mixed model by maximum likelihood
(denselikelihood.py). With eta the linear predictor of a record, effects of both levels included:

    bernoulli, binomial   mu = 1 / (1 + exp(-eta)), w = n mu (1 - mu), z = eta + (y - n mu) / w
    poisson               mu = exp(eta),            w = n mu,          z = eta + (y - n mu) / w
    multinomial           pi_c = exp(eta_c) / (1 + sum), V = diag(pi) - pi pi', W = V, z = eta + V^-1 (indicator - pi)
    ordinal               pi_c = P(y <= c), V_cd = 1 / (pi_d (1 - pi_c)) for c <= d, W = V^-1,
                          z_c = eta_c + (indicator_c - pi_c) / (pi_c (1 - pi_c))

A record of c + 1 categories stands as c rows, the rows of all records one below the other. Rows are multiplied by R with
R'R = W, so that their level-1 variance is sigma2. The first of these fits is to a linear model of the rate (counts) or
to working data at the observed or at equal proportions (categories). Later on a step of the scoring in
each iteration is enough, since the fixed point is wanted; for some models the first three fits run to their ends, and the
working data that follow from them are stored.

`populationaverage` holds the fixed point of the fits with the effects left out of eta, tau held: the first at eta corrected
for them, each other at the fixed effects of the one before.
"""
import json
import os
import sys
import numpy as np
from scipy import stats
from dense import (HERE, Data, build, degreesoffreedom, inference, listed, maximise, normaliseweights, robust, thetaspace,
                   weightedcov)
from denselikelihood import Unit, gls, posterior, scoreandinformation, unpack
from denseresiduals import leastsquares, triangle
from models import I3, INT3, model
from nonlinearmodels import FOLDERS, NAMES, SETS, TRACED, thresholds

TRACES = 3


class Part:
    """The rows of one level-3 unit before working weights: M, Z1, Z2, slices of the level-2 units; y and n by record."""

    def __init__(self, M, Z1, Z2, rows, y, n, f, d2, d3):
        self.M, self.Z1, self.Z2, self.rows = M, Z1, Z2, rows
        self.y, self.n, self.f, self.d2, self.d3 = y, n, f, d2, d3  # f: root of the record's design weight, d2 by row


def parts(data, m):
    """Level-3 units; for categories each record's row stands `c` times, in the form of its kind."""
    c = m['categories'] - 1 if 'categories' in m else 1
    one, _, _, _, _ = build(data, {k: v for k, v in m.items() if k != 'weights'})
    w1, w2, w3 = normaliseweights(data, m['weights']) if 'weights' in m else (None, None, None)
    index = data.names[1].index(m['count']) if m.get('count') else None
    cuts = np.vstack([np.zeros(max(c - 1, 0)), np.eye(max(c - 1, 0))])
    out = []
    for k, (u, (_, unit2)) in enumerate(zip(one, data.units)):
        if m['kind'] == 'multinomial':
            M, Z1, Z2 = (np.vstack([np.kron(np.eye(c), row) for row in X]) for X in (u.M, u.Z1, u.Z2))
        else:
            M, Z1, Z2 = (np.repeat(X, c, axis=0) for X in (u.M, u.Z1, u.Z2))
            if m['kind'] == 'ordinal':
                M = np.hstack([M, np.tile(cuts, (u.n, 1))])
        n = np.array([r[index] for _, recs in unit2 for r in recs]) if m.get('count') else np.ones(u.n)
        f = np.sqrt(np.concatenate(w1[k])) if w1 else np.ones(u.n)
        d2 = np.concatenate([np.full((r.stop - r.start) * c, 1 / np.sqrt(w2[k][j]) if w1 else 1.0)
                             for j, r in enumerate(u.rows)])
        out.append(Part(M, Z1, Z2, [slice(r.start * c, r.stop * c) for r in u.rows], u.y, n, f, d2,
                        1 / np.sqrt(w3[k]) if w1 else 1.0))
    return out, c


# --- working data ----------------------------------------------------------------------------------------------------

def categoryweights(kind, pi):
    """W of one record, and the factors of indicator - pi in z."""
    c = len(pi)
    if kind == 'multinomial':
        V = np.diag(pi) - np.outer(pi, pi)
        return V, np.linalg.inv(V)
    V = np.array([[1 / (pi[max(i, j)] * (1 - pi[min(i, j)])) for j in range(c)] for i in range(c)])
    return np.linalg.inv(V), np.diag(1 / (pi * (1 - pi)))


def categorydata(kind, indicator, eta, pi):
    """z by row and W by record."""
    z, W = np.empty_like(eta), []
    for i in range(len(eta)):
        w, back = categoryweights(kind, pi[i])
        z[i] = eta[i] + back @ (indicator[i] - pi[i])
        W.append(w)
    return z, W


def scalardata(m, part, eta, first, counter, cap):
    """z and w by record. first: eta is the mean of the linear model. cap: largest rate so far, or None."""
    y, n, eta = part.y, part.n, eta.copy()
    if m['kind'] == 'poisson':
        if first:
            mu = np.where(eta <= 0.001, 0.001, eta)
            eta = np.log(mu)
        else:
            mu = np.exp(eta)
            if cap is not None:
                over = (cap > 0) & (mu > cap)
                mu = np.where(over, cap, mu)
                eta = np.where(over, np.log(np.maximum(cap, 1e-300)), eta)
        w = mu
    else:
        if first:
            mu = np.clip(eta, 0.01, 0.99)
            eta = np.log(mu / (1 - mu))
        else:
            assert counter <= 7 or np.max(np.abs(eta)) <= 60
            eta = np.where(eta > 60, 2.0, np.where(eta < -60, -2.0, eta))
            mu = 1 / (1 + np.exp(-eta))
        w = mu * (1 - mu)
    w = w * n
    return eta + (y - mu * n) / w, np.minimum(w, 999999.0)


def scaled(ps, c, z, W):
    """Units of the linear model (effects scaled by their units' weights), the same without that scaling, and f by row."""
    work, plain, factors = [], [], []
    for p, zk, wk in zip(ps, z, W):
        if c == 1 and not isinstance(wk, list):
            R = lambda X: (np.sqrt(wk) * p.f * X.T).T
        else:
            roots = [f * np.linalg.cholesky(w).T for f, w in zip(p.f, wk)]
            R = lambda X: np.concatenate([r @ X[i * c:(i + 1) * c] for i, r in enumerate(roots)])
        y, M, Z1, Z2 = R(zk.reshape(-1)), R(p.M), R(p.Z1), R(p.Z2)
        plain.append(Unit(y, M, Z1, Z2, p.rows))
        work.append(Unit(y, M, Z1 * p.d2[:, None], Z2 * p.d3, p.rows))
        factors.append(np.repeat(p.f, c))
    for units in (work, plain):
        for u in units:
            u.n = len(u.y)
    return work, plain, factors


def firstcategories(m, ps, c):
    values, counts = np.unique(np.concatenate([p.y for p in ps]), return_counts=True)
    assert len(values) == c + 1
    prop = counts / counts.sum()
    if prop.min() < 0.15:
        prop = np.full(c + 1, 1 / (c + 1))
    if m['kind'] == 'multinomial':
        pi, eta = prop[:c], np.log(prop[:c] / prop[c])
        indicators = [(p.y[:, None] == values[:c]).astype(float) for p in ps]
    else:
        pi = np.cumsum(prop)[:c]
        eta = np.log(pi / (1 - pi))
        indicators = [(p.y[:, None] <= values[:c]).astype(float) for p in ps]
    made = [categorydata(m['kind'], x, np.tile(eta, (len(x), 1)), np.tile(pi, (len(x), 1))) for x in indicators]
    return indicators, [a for a, _ in made], [b for _, b in made]


def predictor(ps, units, gamma, T, L, s):
    """The linear predictor with the posterior means in it, by row."""
    return [p.M @ gamma + p.d3 * (p.Z2 @ x[0]) + p.d2 * np.concatenate([p.Z1[r] @ a for r, a in zip(p.rows, x[2])])
            for p, x in zip(ps, posterior(units, gamma, T, L, s))]


def newcategories(kind, indicators, etas, c, counter):
    z, W, pis = [], [], []
    for x, eta in zip(indicators, etas):
        eta = eta.reshape(-1, c)
        if counter < 8:
            eta = np.where(eta > 30, 2.0, np.where(eta < -30, -2.0, eta))
        e = np.exp(eta)
        pi = e / (1 + e.sum(axis=1, keepdims=True)) if kind == 'multinomial' else 1 / (1 + np.exp(-eta))
        a, b = categorydata(kind, x, eta, pi)
        z.append(a), W.append(b), pis.append(pi)
    return z, W, pis


def newcounts(m, ps, etas, counter):
    z, W, cap = [], [], -1.0
    for p, eta in zip(ps, etas):
        caps = np.empty(len(eta))
        for r in p.rows:
            cap = max(cap, np.max(p.y[r] / (p.n[r] if m['kind'] == 'poisson' else 1.0)))
            caps[r] = cap
        a, b = scalardata(m, p, eta, counter == 1, counter, caps if counter == 2 else None)
        z.append(a), W.append(b)
    return z, W


# --- the fixed point -------------------------------------------------------------------------------------------------

def fixedpoint(m, ps, c, traced):
    """The last fit's units, gamma, theta and iteration, and the working data of the first steps.

    The first fit may end on the border of a singular tau, since its level-1 variance is held at a rough value; such a
    run has no stored working data, and the second fit starts anew.
    """
    scalar = 'categories' not in m
    p, b = ps[0].Z1.shape[1], ps[0].Z2.shape[1]
    settings = {k: v for k, v in m.items() if k != 'fixsigma2' or v}
    if scalar:
        mean = sum(q.y.sum() for q in ps) / sum(q.n.sum() for q in ps)
        firstsettings = dict(settings, fixsigma2=mean if m['kind'] == 'poisson' else mean * (1 - mean))
        z, W = [q.y / q.n for q in ps], [np.ones(len(q.y)) for q in ps]
    else:
        firstsettings = settings
        indicators, z, W = firstcategories(m, ps, c)
    traces, old, theta = [], None, None
    for counter in range(1, 500):
        units, plain, factors = scaled(ps, c, z, W)
        start = theta
        if counter == 2 and scalar:
            start = theta / firstsettings['fixsigma2'] ** 2
            start[-1] = settings.get('fixsigma2', 1.0)
        if counter == 2 and grad > 1e-6:
            start = None
        most = 20 if counter == 1 or (traced and counter <= TRACES) else 3 if counter <= TRACES else 1
        theta, grad, _ = maximise(units, firstsettings if counter == 1 else settings, p, b, start, most)
        traced = traced and (counter > TRACES or grad < 1e-6)
        T, L, s = unpack(theta, p, b)
        gamma, cov = gls(units, T, L, s)
        new = np.concatenate([gamma, theta])
        etas = predictor(ps, units, gamma, T, L, s)
        if counter > TRACES + 2 and np.max(np.abs(new - old) / np.maximum(0.01, np.abs(new))) < 1e-10:
            break
        old = new
        if scalar:
            z, W = newcounts(m, ps, etas, counter)
        else:
            z, W, _ = newcategories(m['kind'], indicators, etas, c, counter)
        if traced and counter <= TRACES:
            step = dict(gamma=gamma, theta=theta, z=np.concatenate(z).tolist())
            step['w'] = np.concatenate(W).tolist() if scalar else [w.tolist() for k in W for w in k]
            traces.append(step)
    else:
        raise RuntimeError('no fixed point')
    return units, plain, factors, gamma, cov, theta, etas, counter, traces if traced else []


def popcorrection(m, p, T, L, eta):
    q2, q3 = np.sum((p.Z1 @ T) * p.Z1, axis=1), np.sum((p.Z2 @ L) * p.Z2, axis=1)
    if m['kind'] == 'poisson':
        return eta + 0.5 * q3 + 0.5 * q2
    a = 0.3458429735
    return eta / np.sqrt(1 + a * (q2 + q3))


def average(m, ps, gamma, theta, counter):
    """The last fit's units, gamma and sigma2 of the population average."""
    p, b = ps[0].Z1.shape[1], ps[0].Z2.shape[1]
    T, L, s = unpack(theta, p, b)
    etas = [popcorrection(m, q, T, L, q.M @ gamma) for q in ps]
    nT = p * (p + 1) // 2
    held = dict(esttau2=list(theta[:nT]), esttau3=list(theta[nT:-1]))
    for _ in range(300):
        z, W = newcounts(m, ps, etas, counter)
        units, plain, factors = scaled(ps, 1, z, W)
        if not m['fixsigma2']:
            s = maximise(units, held, p, b, np.append(theta[:-1], s))[0][-1]
        old, (gamma, cov) = gamma, gls(units, T, L, s)
        if np.all(np.abs(gamma - old) < 1e-9 * np.sqrt(np.diag(cov))):
            return units, plain, factors, gamma, cov, s
        etas = [q.M @ gamma for q in ps]
    raise RuntimeError('no population average')


def wald(m, gamma, kinds):
    out = []
    for rows in m.get('hypotheses', []):
        H = np.array(rows, dtype=float)
        for kind, V in kinds:
            e, X = H @ gamma, H @ V @ H.T
            x = float(e @ np.linalg.solve(X, e))
            out.append(dict(kind=kind, estimate=e, se=np.sqrt(np.diag(X)), statistic=x, df=len(H),
                            p=stats.chi2.sf(x, len(H))))
    return out


def fixedpart(m, units, plain, factors, gamma, cov, T, L, s, df):
    out = dict(gamma=gamma, covariance=cov, robust=robust(units, gamma, cov, T, L, s))
    if 'weights' in m:
        out['weighted'] = weightedcov(plain=plain, work=units, factors=factors, cov=cov, T=T, L=L, s=s)
    for kind, V in (('final', out.get('weighted', cov)), ('robust', out['robust'])):
        reach = stats.t.ppf(0.975, df) * np.sqrt(np.diag(V))
        out['ratio' + kind] = np.array([np.exp(gamma), np.exp(gamma - reach), np.exp(gamma + reach)]).T
    out['wald'] = wald(m, gamma, (('model', cov), ('robust', out['robust'])))
    return out


def reference(data, m, traced=False):
    ps, c = parts(data, m)
    units, plain, factors, gamma, cov, theta, etas, counter, traces = fixedpoint(m, ps, c, traced)
    p, b = ps[0].Z1.shape[1], ps[0].Z2.shape[1]
    T, L, s = unpack(theta, p, b)
    N, J, K = sum(len(q.y) for q in ps), sum(len(q.rows) for q in ps), len(ps)
    out = dict(n1=N, n2=J, n3=K, iterations=counter, taupi=T, taubeta=L, sigma2=s, order=dict(p=p, b=b, ngamma=len(gamma)))
    score, info, _ = scoreandinformation(units, gamma, T, L, s)
    settings = {k: v for k, v in m.items() if k != 'fixsigma2' or v}
    _, E = thetaspace(settings, p, b)
    out['gradient'] = float(np.max(np.abs(E.T @ score), initial=0.0))
    out['setau'] = np.sqrt(np.diag(E @ np.linalg.inv(E.T @ info @ E) @ E.T))
    # one coefficient after the other, equation by equation; an ordinal model ends with its cuts
    copies = c if m['kind'] == 'multinomial' else 1
    cuts = ['THOLD%d' % (i + 2) for i in range(thresholds(m))]
    whole = dict(m, level1=m['level1'] * copies + [(t, 0) for t in cuts],
                 level2=dict(m['level2'], **{t: [('INTRCPT2', 0)] for t in cuts}))
    out['df'], out['dfrough'] = degreesoffreedom(whole, K, J, N, p, b, [0] * len(gamma))
    out.update(fixedpart(m, units, plain, factors, gamma, cov, T, L, s, np.array(out['df'], dtype=float)))
    post = posterior(units, gamma, T, L, s)
    out['v'], out['u'] = [x[0].tolist() for x in post], [a.tolist() for x in post for a in x[2]]
    inf = inference(units, gamma, T, L, s)
    out.update(inf)
    if traced and 'categories' not in m:  # what the residual files hold beside u, v and eta
        resid = [q.y - q.M @ gamma for q in units]
        out['pv3'], out['pv2'] = [triangle(x[1]) for x in post], [triangle(a) for x in post for a in x[3]]
        out['ol2'] = [leastsquares(q.Z1[rows], e[rows] - q.Z2[rows] @ x[0])
                      for q, e, x in zip(units, resid, post) for rows in q.rows]
        out['ol3'] = inf['lsq3']
    counts = [([t in [b for a, b in m['random3'] if a == name] for t, _ in m['level2'][name]]) for name, _ in m['level1']
              if name in m['random2']] * copies
    out['dfstat2'] = [inf['nstat2'] - sum(x) * inf['nstat3'] - (len(x) - sum(x)) for x in counts]
    out['dfstat3'] = [inf['nstat3'] - len(m['level3'].get((a, t), I3)) for a, _ in m['level1'] for t, _ in m['level2'][a]
                      if (a, t) in m['random3']] * copies
    out['eta'] = np.concatenate(etas).reshape(-1, c).tolist() if c > 1 else np.concatenate(etas)
    if 'categories' not in m:
        units, plain, factors, gamma, cov, s = average(m, ps, gamma, theta, counter)
        out['populationaverage'] = dict(fixedpart(m, units, plain, factors, gamma, cov, T, L, s, np.array(out['df'], float)),
                                        sigma2=s)
        if traced:  # what the graph data file holds
            post = posterior(units, gamma, T, L, s)
            out['populationaverage'].update(
                v=[x[0].tolist() for x in post], u=[a.tolist() for x in post for a in x[2]],
                pv3=[np.diag(x[1]) for x in post], pv2=[np.diag(a) for x in post for a in x[3]],
                eta=np.concatenate(predictor(ps, units, gamma, T, L, s)))
    if traces:
        out['workingdata'] = traces
    return out


# --- data sets -------------------------------------------------------------------------------------------------------

def fixedwidth(files, widths):
    """A reader of files '<files>-<level>.dat': identifiers of ids characters, then values of the widths given."""
    def read(directory, level, n):
        rows = []
        for line in open('%s/%s-%d.dat' % (directory, files, level)):
            ids, sizes = widths[level]
            ends = np.cumsum(list(ids) + list(sizes))
            cells = [line[e - w:e] for e, w in zip(ends, list(ids) + list(sizes))]
            rows.append((cells[0].strip(), cells[1].strip() if level < 3 else None, [float(x) for x in cells[len(ids):]]))
        return rows
    return read


def example(name):
    directory = HERE + '/../../examples/' + name
    if name == 'prenatal':
        x = 'KID3P MOM25P ORD23 ORD46 ORD7P INDNOSPA INDSPA MOMPRI MOMSEC TOILET'.split()
        names = {1: ['PRENAT'] + x, 2: ['MOMPRI2'], 3: ['PCIND81', 'SSDIST']}
        read = fixedwidth(name, {1: ((4, 5), [2] * 11), 2: ((4, 5), [2]), 3: ((4,), [9, 8])})
        level1 = [('INTRCPT1', 0)] + [(v, 0) for v in x]
        m = model(level1, ['INTRCPT1'], {v: [('INTRCPT2', 0)] for v, _ in level1}, INT3,
                  {('INTRCPT1', 'INTRCPT2'): [('INTRCPT3', 0), ('PCIND81', 0), ('SSDIST', 0)]}, kind='bernoulli',
                  outcome='PRENAT', fixsigma2=1.0)
        return directory, names, read, {'pql1': m}
    names = {1: ['DEATHS', 'EXPECTED', 'UVB'], 2: ['MEANUVB'], 3: ['MEANUVB3']}
    read = fixedwidth(name, {1: ((2, 3), [5, 10, 9]), 2: ((2, 3), [9]), 3: ((2,), [9])})
    m = model([('INTRCPT1', 0), ('UVB', 0)], ['INTRCPT1'], {v: [('INTRCPT2', 0)] for v in ('INTRCPT1', 'UVB')}, INT3,
              kind='poisson', count='EXPECTED', outcome='DEATHS', fixsigma2=1.0)
    return directory, names, read, {'pql1': m, 'pqlod': dict(m, fixsigma2=0.0)}


def rounded(x):
    if isinstance(x, dict):
        return {k: rounded(v) for k, v in x.items()}
    if isinstance(x, (list, tuple, np.ndarray)):
        return [rounded(v) for v in x]
    if isinstance(x, str) or x is None:
        return x
    if isinstance(x, (bool, np.bool_, int, np.integer)):
        return bool(x) if isinstance(x, (bool, np.bool_)) else int(x)
    return float('%.10g' % x)


def main():
    runs = [(data, n, m, ('%s/%s' % (HERE, FOLDERS[data]), (NAMES[data],)), n in TRACED) for data, models in SETS
            for n, m in models.items()]
    for name in ('prenatal', 'melanoma'):
        directory, names, read, models = example(name)
        runs += [(name, n, m, (directory, (names, read)), False) for n, m in models.items()]
    for prefix, name, m, (directory, form), traced in runs:
        tag = '%s-%s' % (prefix, name)
        if sys.argv[1:] and tag not in sys.argv[1:] and prefix not in sys.argv[1:]:
            continue
        data = Data(directory, 'now', None, [], *form)
        r = reference(data, m, traced)
        T, L = np.array(r['taupi']), np.array(r['taubeta'])
        print('%-15s it %d grad %.1e s2 %.4f minev %.3f %.3f gamma %s gray %s n %s' % (
            tag, r['iterations'], r['gradient'], r['sigma2'], np.linalg.eigvalsh(T)[0], np.linalg.eigvalsh(L)[0],
            np.round(r['gamma'], 4), len(r['gray']), (r['nrel2'], r['nrel3'], r['nstat2'], r['nstat3'])), flush=True)
        for k in ('gray', 'lsq2', 'lsq3') + (() if traced or prefix not in FOLDERS else ('u', 'eta')):
            del r[k]
        with open('%s/results/%s.json' % (HERE, tag), 'w') as f:
            json.dump(rounded(r), f)
            f.write('\n')


if __name__ == '__main__':
    main()
