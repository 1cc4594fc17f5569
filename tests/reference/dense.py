"""Reference values of every model in models.py by dense computation; writes results/<set>-<model>.json.

Estimates are full maximum likelihood: Fisher scoring with halving on the free variance parameters and gamma by
generalised least squares, until the projected score is below 1e-9. Restrictions are K, the map from the free variance
parameters to all: the standard errors are those of K (K'IK)^-1 K', 0 for a fixed element; 'setaufull' has those of the
information without restriction. Where an element is fixed at a value other than 0, 'momentpoint' is where an iteration
stops that sets the element after each moment update: the free elements meet their expected moments there, and the
likelihood is lower than at the restricted maximum.
"""
import json
import os
import sys
import numpy as np
from scipy import optimize, stats
from denselikelihood import (Unit, covariance, gls, level2cov, loglik, lower, pack, posterior, scoreandinformation,
                             unpack)
from makedata import NAMES
from models import I3, SETS

HERE = os.path.dirname(os.path.abspath(__file__))


# --- data and design -------------------------------------------------------------------------------------------------

def readlevel(directory, level, n):
    rows, ids = [], 2 if level < 3 else 1
    for line in open('%s/level%d.dat' % (directory, level)):
        at = 4 if ids == 1 else 11
        rows.append((line[:4].strip(), line[5:11].strip() if ids == 2 else None,
                     [float(line[at + 10 * i:at + 10 * i + 10]) for i in range(n)]))
    return rows


def mean(values):
    return sum(values) / len(values)


class Data:
    """The kept records by unit, with the means that centering uses, as the MDM file and the deletion give them."""

    def __init__(self, directory, timing, code, used, names=NAMES, read=readlevel):
        self.names = names
        raw = read(directory, 1, len(names[1]))
        gone = lambda r, which: code is not None and any(r[2][i] == code for i in which)
        everything = range(len(names[1]))
        infile = [r for r in raw if not (timing == 'now' and gone(r, everything))]
        kept = [r for r in infile if not gone(r, used)]
        self.grand = {}
        for i, name in enumerate(names[1]):
            self.grand[name] = mean([r[2][i] for r in infile if r[2][i] != code])
        self.rows3 = read(directory, 3, len(names[3]))
        rows2 = read(directory, 2, len(names[2]))
        for level, rows in ((2, rows2), (3, self.rows3)):
            for i, name in enumerate(names[level]):
                self.grand[name] = mean([r[2][i] for r in rows])
        self.units = []  # per level-3 unit: (level-3 values, [(level-2 values, records)])
        for id3, _, q in self.rows3:
            mine = [(z, [r[2] for r in kept if r[0] == id3 and r[1] == id2]) for a, id2, z in rows2 if a == id3]
            assert all(recs for _, recs in mine)
            self.units.append((q, mine))


def normaliseweights(data, names):
    """Weights per record, level-2 unit and level-3 unit from the three weight variables; each ends with mean 1."""
    v1, v2, v3 = names
    x1 = [[[r[data.names[1].index(v1)] if v1 else 1.0 for r in recs] for _, recs in u] for _, u in data.units]
    x2 = [[z[data.names[2].index(v2)] if v2 else 1.0 for z, _ in u] for _, u in data.units]
    w3 = np.array([q[data.names[3].index(v3)] if v3 else 1.0 for q, _ in data.units])
    if v3:
        w3 = w3 / w3.mean()
    elif v2:
        w3 = np.array([mean(x) for x in x2])
    w1, w2 = [], []
    for k, u in enumerate(x1):
        m2 = mean(x2[k])
        w1.append([])
        w2.append([])
        for j, xs in enumerate(u):
            m1 = mean(xs)
            ratio2 = x2[k][j] / m2
            if v1 and not v2:
                w1[k].append([x / m1 for x in xs])
                w2[k].append(m1)
            elif v1 and v2 and not v3:
                w1[k].append(list(xs))
                w2[k].append(ratio2)
            elif v1:
                w1[k].append([x / m1 for x in xs])
                w2[k].append(ratio2 * w3[k])
            else:
                w1[k].append([1.0] * len(xs))
                w2[k].append(ratio2 * (w3[k] if v2 and v3 else 1.0))
    w1 = [[np.array(x) for x in u] for u in w1]
    w2 = [np.array(u) for u in w2]
    if v1 and not v2 and not v3:
        for k in range(len(w2)):
            w3[k] = w2[k].mean()
            w2[k] = w2[k] / w3[k]
    w3 = w3 / w3.mean()
    w2 = [u / u.mean() for u in w2]
    total = np.concatenate(w2).mean()
    w2 = [u / total * w3[k] for k, u in enumerate(w2)]
    total = np.concatenate(w2).mean()
    w2 = [u / total for u in w2]
    w1 = [[x / np.concatenate(u).mean() for x in u] for u in w1]
    total = np.concatenate([x for u in w1 for x in u]).mean()
    w1 = [[x / total * w2[k][j] for j, x in enumerate(u)] for k, u in enumerate(w1)]
    total = np.concatenate([x for u in w1 for x in u]).mean()
    w1 = [[x / total for x in u] for u in w1]
    return w1, [u / np.concatenate(w2).mean() for u in w2], w3


def build(data, m):
    """The units in estimation form (`work`), the same with only the row factors (`rows`), and what else is needed."""
    val = lambda level, name, row, center: (1.0 if name.startswith('INTRCPT') else row[data.names[level].index(name)] - center)
    full = sum(len(m['level3'].get((c, t), I3)) for c, _ in m['level1'] for t, _ in m['level2'][c])
    groups = m.get('constrain', [0] * full)
    first = {}
    keep = []
    for i, gr in enumerate(groups):
        if gr == 0 or gr not in first:
            if gr:
                first[gr] = len(keep)
            keep.append(i)
    Cm = np.zeros((full, len(keep)))
    for i, gr in enumerate(groups):
        Cm[i, first[gr] if gr else keep.index(i)] = 1.0
    weights = normaliseweights(data, m['weights']) if 'weights' in m else None
    work, plain, factors = [], [], []
    for k, (q, unit2) in enumerate(data.units):
        groupmean = {n: mean([z[i] for z, _ in unit2]) for i, n in enumerate(data.names[2])}
        pos = sum(len(r) for _, r in unit2)
        y, M, Z1, Z2, rows, f = [], [], [], [], [], []
        for j, (z, recs) in enumerate(unit2):
            start = len(y)
            for i, r in enumerate(recs):
                mrow, z2row, z1row = [], [], []
                for c, mark in m['level1']:
                    idx = None if c == 'INTRCPT1' else data.names[1].index(c)
                    center = {0: 0.0, 1: 0.0 if idx is None else mean([x[idx] for x in recs]),
                              2: data.grand.get(c, 0.0)}[mark]
                    a = val(1, c, r, center)
                    if c in m['random2']:
                        z1row.append(a)
                    for t, mark2 in m['level2'][c]:
                        w = a * val(2, t, z, {0: 0.0, 1: groupmean.get(t, 0.0), 2: data.grand.get(t, 0.0)}[mark2])
                        if (c, t) in m['random3']:
                            z2row.append(w)
                        for s, mark3 in m['level3'].get((c, t), I3):
                            mrow.append(w * val(3, s, q, {0: 0.0, 2: data.grand.get(s, 0.0)}[mark3]))
                y.append(r[data.names[1].index(m['outcome'])])
                M.append(mrow)
                Z1.append(z1row)
                Z2.append(z2row)
                v = r[data.names[1].index(m['vknown'])] if 'vknown' in m else 1.0
                f.append(np.sqrt(weights[0][k][j][i] if weights else 1.0) / np.sqrt(v))
            rows.append(slice(start, len(y)))
        assert len(y) == pos
        f = np.array(f)
        y, M, Z1, Z2 = (np.array(x, dtype=float) for x in (y, M, Z1, Z2))
        M = M @ Cm
        y, M, Z1, Z2 = y * f, M * f[:, None], Z1 * f[:, None], Z2 * f[:, None]
        plain.append(Unit(y, M, Z1, Z2, rows))
        factors.append(f)
        if weights:
            d = np.concatenate([np.full(r.stop - r.start, 1 / np.sqrt(weights[1][k][j])) for j, r in enumerate(rows)])
            Z1, Z2 = Z1 * d[:, None], Z2 / np.sqrt(weights[2][k])
        work.append(Unit(y, M, Z1, Z2, rows))
    return work, plain, factors, Cm, groups


# --- estimation ------------------------------------------------------------------------------------------------------

def thetaspace(m, p, b):
    """theta = fixed + E phi: the free directions under fixed, equal and diagonal constraints and a fixed sigma2."""
    nT, nL = p * (p + 1) // 2, b * (b + 1) // 2
    nt = nT + nL + 1
    fixed, columns, done = np.full(nt, np.nan), [], set()
    for at, n, est, con, diag in ((0, p, m.get('esttau2'), m.get('contau2'), m.get('diagtaupi')),
                                  (nT, b, m.get('esttau3'), m.get('contau3'), m.get('diagtaubeta'))):
        for i, (r, c) in enumerate(lower(n)):
            if diag and r != c:
                fixed[at + i] = 0.0
            elif est and est[i] is not None:
                fixed[at + i] = est[i]
        for group in con or []:
            columns.append([at + g - 1 for g in group])
            done.update(columns[-1])
    if 'vknown' in m:
        fixed[-1] = 1.0
    elif 'fixsigma2' in m:
        fixed[-1] = m['fixsigma2']
    columns += [[i] for i in range(nt) if np.isnan(fixed[i]) and i not in done]
    E = np.zeros((nt, len(columns)))
    for c, members in enumerate(columns):
        E[members, c] = 1.0
    return np.where(np.isnan(fixed), 0.0, fixed), E


def legal(theta, p, b):
    T, L, s = unpack(theta, p, b)
    return s > 0 and all(x > 0 for x in [*np.linalg.eigvalsh(T), *np.linalg.eigvalsh(L)])


def maximise(units, m, p, b, start=None, most=300):
    fixed, E = thetaspace(m, p, b)
    start = pack(np.eye(p), np.eye(b), 2.0) if start is None else start
    theta = fixed + E @ np.linalg.lstsq(E, start - fixed, rcond=None)[0]
    if not E.shape[1]:  # nothing is free
        return fixed, 0.0, 0
    value = -np.inf
    for it in range(most):
        T, L, s = unpack(theta, p, b)
        gamma, cov = gls(units, T, L, s)
        value = loglik(units, gamma, T, L, s)
        score, info, _ = scoreandinformation(units, gamma, T, L, s)
        grad = E.T @ score
        step = np.linalg.solve(E.T @ info @ E, grad)
        if np.max(np.abs(grad)) < 1e-9 or np.max(np.abs(step)) < 1e-13:
            break
        size = 1.0
        while size > 1e-8:
            new = theta + size * (E @ step)
            if legal(new, p, b):
                Tn, Ln, sn = unpack(new, p, b)
                if loglik(units, gls(units, Tn, Ln, sn)[0], Tn, Ln, sn) >= value - 1e-9:
                    break
            size *= 0.5
        theta = new
    return theta, float(np.max(np.abs(grad))), it


def emupdate(units, theta, p, b):
    T, L, s = unpack(theta, p, b)
    gamma = gls(units, T, L, s)[0]
    post = posterior(units, gamma, T, L, s)
    n2 = sum(len(u.rows) for u in units)
    newT = sum(np.outer(a, a) + c for x in post for a, c in zip(x[2], x[3])) / n2
    newL = sum(np.outer(x[0], x[0]) + x[1] for x in post) / len(post)
    e2 = sum(np.sum((u.y - u.M @ gamma - x[7] @ x[5]) ** 2) + np.sum((x[7] @ x[6]) * x[7]) for u, x in zip(units, post))
    return pack(newT, newL, e2 / sum(u.n for u in units))


# --- inference -------------------------------------------------------------------------------------------------------

def usable(A, limit=1e7):
    """A cross-product matrix that has an inverse worth using; also how near the limit it is."""
    if not len(A):
        return True, 1.0
    w = np.linalg.eigvalsh(A)
    if np.min(np.diag(A)) < 1e-20 * max(1.0, w[-1]) or w[0] <= 1e-13 / len(A):
        return False, np.inf
    return w[-1] / w[0] <= limit, w[-1] / w[0]


def inference(units, gamma, T, L, s):
    p, b = len(T), len(L)
    rel2, stat2, rel3, stat3 = np.zeros(p), np.zeros(p), np.zeros(b), np.zeros(b)
    nrel2 = nrel3 = nstat2 = nstat3 = 0
    conds, lsq2, lsq3 = [], [], []
    for u in units:
        V2i = np.linalg.inv(level2cov(u, T) + s * np.eye(u.n))
        E = s * u.Z2.T @ V2i @ u.Z2
        r = u.y - u.M @ gamma
        ok3, c = usable(E, np.inf)
        conds.append(c)
        w = None
        if ok3:
            S = s * np.linalg.inv(E)
            w = S @ u.Z2.T @ V2i @ r
            rel3 += np.diag(L) / np.diag(S + L)
            stat3 += w * w / np.diag(S)
            nrel3 += 1
            nstat3 += 1
        lsq3.append(None if w is None else list(w))
        for rows in u.rows:
            A = u.Z1[rows].T @ u.Z1[rows]
            ok2, c = usable(A)
            conds.append(c)
            uo = None
            if ok2:
                S = s * np.linalg.inv(A)
                rel2 += np.diag(T) / np.diag(S + T)
                nrel2 += 1
                if ok3:
                    uo = np.linalg.inv(A) @ u.Z1[rows].T @ (r[rows] - u.Z2[rows] @ w)
                    stat2 += uo * uo / np.diag(S)
                    nstat2 += 1
            lsq2.append(None if uo is None else list(uo))
    gray = [c for c in conds if 1e5 < c < np.inf]
    return dict(rel2=rel2 / max(nrel2, 1), rel3=rel3 / max(nrel3, 1), stat2=stat2, stat3=stat3, nrel2=nrel2,
                nrel3=nrel3, nstat2=nstat2, nstat3=nstat3, gray=gray, lsq2=lsq2, lsq3=lsq3)


def degreesoffreedom(m, K, J, N, p, b, groups):
    """Approximate degrees of freedom of the fixed effects that remain, and the marks of rough ones."""
    A = B = C = 0
    for c, _ in m['level1']:
        for t, _ in m['level2'][c]:
            n3 = len(m['level3'].get((c, t), I3))
            if (c, t) not in m['random3']:
                if c in m['random2']:
                    A += n3
                else:
                    B += n3
            elif c in m['random2']:
                C += 1
    df, rough, at, seen = [], [], 0, set()
    for c, _ in m['level1']:
        mine, last = [], 0
        for t, _ in m['level2'][c]:
            n3, last = len(m['level3'].get((c, t), I3)), last if m.get('twolevel') else 0
            for _ in range(n3):
                g = groups[at]
                at += 1
                if g and g in seen:
                    last += 1
                    continue
                seen.add(g)
                mark = False
                if m.get('twolevel') and c in m['random2']:  # level 2 is the highest level
                    d = J - len(m['level2'][c])
                elif (c, t) in m['random3']:
                    d = K - n3
                elif c in m['random2']:
                    d = J - K * C - A
                    if d < 1:
                        d, mark = J - A, True
                else:
                    d = N - p * J - b * K - B
                    if d <= 0:
                        d, mark = N - b * K - B, True
                mine.append((d, mark))
        df += [d + last for d, _ in mine]
        rough += [x for _, x in mine]
    return df, rough


def robust(units, gamma, cov, T=None, L=None, s=None):
    """Cluster-robust covariance, level-3 units as clusters, no correction; least squares when T is None."""
    mid = 0.0
    for u in units:
        r = u.y - u.M @ gamma
        e = u.M.T @ r if T is None else u.M.T @ np.linalg.solve(covariance(u, T, L, s), r)
        mid = mid + np.outer(e, e)
    return cov @ mid @ cov


def weightedcov(work, plain, factors, cov, T, L, s):
    mid = 0.0
    for w, u, f in zip(work, plain, factors):
        Vi = np.linalg.inv(covariance(w, T, L, s))
        true = u.Z2 @ L @ u.Z2.T + level2cov(u, T) + s * np.diag(f * f)
        mid = mid + u.M.T @ Vi @ true @ Vi @ u.M
    return cov @ mid @ cov


def exploratory(data, post, m):
    """Simple regressions of the posterior means on the candidates, within level-3 units at level 2: rows per level. In data
    of two levels those of level 2 are about the means of all units."""
    rand2 = [c for c, _ in m['level1'] if c in m['random2']]
    rand3 = [(c, t) for c, _ in m['level1'] for t, _ in m['level2'][c] if (c, t) in m['random3']]
    out = {2: [], 3: []}
    for level, coefs, key in ((2, rand2, 'extra2'), (3, rand3, 'extra3')):
        for r, c in enumerate(coefs):
            for name in m.get(key, {}).get(c, []):
                i = data.names[level].index(name)
                if level == 2:
                    y = [np.array([u[r] for u in x[2]]) for x in post]
                    x = [np.array([z[i] for z, _ in unit2]) for _, unit2 in data.units]
                    if m.get('twolevel'):
                        y, x = [np.concatenate(y)], [np.concatenate(x)]
                    y, x = (np.concatenate([a - a.mean() for a in v]) for v in (y, x))
                else:
                    y, x = np.array([a[0][r] for a in post]), np.array([q[i] for q, _ in data.units])
                    y, x = y - y.mean(), x - x.mean()
                b = x @ y / (x @ x)
                rest = y @ y - (b * b * (x @ x) if level == 2 else 0.0)  # level 3: about the mean, not about the line
                out[level].append([r, name, float(b), float(np.sqrt(rest / (len(y) - 2) / (x @ x)))])
    return out


def listed(x):
    return x.tolist() if isinstance(x, np.ndarray) else x


def reference(directory, timing, code, m):
    used = {m['outcome']} | {n for n, _ in m['level1']} - {'INTRCPT1'}
    return solved(Data(directory, timing, code, [NAMES[1].index(n) for n in used]), m)


def solved(data, m):
    units, plain, factors, Cm, groups = build(data, m)
    p, b, ng = units[0].Z1.shape[1], units[0].Z2.shape[1], units[0].M.shape[1]
    N, J, K = sum(u.n for u in units), sum(len(u.rows) for u in units), len(units)
    theta, grad, its = maximise(units, m, p, b)
    out = dict(n1=N, n2=J, n3=K, gradient=grad)
    fixed, E = thetaspace(m, p, b)
    if any((m.get('esttau2') or []) + (m.get('esttau3') or [])):
        full = lambda phi: fixed + E @ phi
        sol = optimize.root(lambda phi: E.T @ (emupdate(units, full(phi), p, b) - full(phi)), E.T @ (theta - fixed),
                            tol=1e-13)
        T, L, s = unpack(full(sol.x), p, b)
        gamma = gls(units, T, L, s)[0]
        out['momentpoint'] = dict(residual=float(np.max(np.abs(sol.fun))), gamma=gamma.tolist(), taupi=T.tolist(),
                                  taubeta=L.tolist(), sigma2=s, deviance=-2 * loglik(units, gamma, T, L, s))
    T, L, s = unpack(theta, p, b)
    gamma, cov = gls(units, T, L, s)
    score, info, _ = scoreandinformation(units, gamma, T, L, s)
    nfree = ng + E.shape[1]
    out.update(loglik=loglik(units, gamma, T, L, s), parameters=nfree, gamma=gamma, covariance=cov, taupi=T, taubeta=L,
               sigma2=s, score=score, information=info)
    out['deviance'] = -2 * out['loglik']
    if m.get('fisher') == 1:
        unitscores = np.array(scoreandinformation(units, gamma, T, L, s)[2])
        info = unitscores.T @ unitscores
    out['setau'] = np.sqrt(np.diag(E @ np.linalg.inv(E.T @ info @ E) @ E.T))
    order = len(info) - (1 if 'vknown' in m or 'fixsigma2' in m else 0)
    out['setaufull'] = np.sqrt(np.diag(np.linalg.inv(info[:order, :order])))
    out['robust'] = robust(units, gamma, cov, T, L, s)
    if 'weights' in m:
        out['weighted'] = weightedcov(units, plain, factors, cov, T, L, s)
    post = posterior(units, gamma, T, L, s)
    out['v'] = [x[0].tolist() for x in post]
    out['u'] = [a.tolist() for x in post for a in x[2]]
    if 'extra2' in m:
        out['exploratory'] = exploratory(data, post, m)
    inf = inference(units, gamma, T, L, s)
    out.update(inf)
    rand3 = [(c, t) for c, _ in m['level1'] for t, _ in m['level2'][c] if (c, t) in m['random3']]
    nrandom = [sum((c, t) in m['random3'] for t, _ in m['level2'][c]) for c, _ in m['level1'] if c in m['random2']]
    nfixed = [sum((c, t) not in m['random3'] for t, _ in m['level2'][c]) for c, _ in m['level1'] if c in m['random2']]
    out['dfstat2'] = [inf['nstat2'] - r * inf['nstat3'] - f for r, f in zip(nrandom, nfixed)]
    out['dfstat3'] = [inf['nstat3'] - len(m['level3'].get(ct, I3)) for ct in rand3]
    out['df'], out['dfrough'] = degreesoffreedom(m, K, J, N, p, b, groups)
    # least squares
    MM, MY = sum(u.M.T @ u.M for u in units), sum(u.M.T @ u.y for u in units)
    ols = np.linalg.solve(MM, MY)
    so = sum(np.sum((u.y - u.M @ ols) ** 2) for u in units) / N
    out['leastsquares'] = dict(gamma=ols.tolist(), sigma2=so, covariance=(so * np.linalg.inv(MM)).tolist(),
                               loglik=-(N + N * np.log(6.283185307 * so)) / 2,
                               deviance=N + N * np.log(6.283185307 * so), parameters=ng + 1,
                               robust=robust(units, ols, np.linalg.inv(MM)).tolist())
    wald = []
    for rows in m.get('hypotheses', []):
        R = np.array(rows, dtype=float) @ Cm if len(rows[0]) != ng else np.array(rows, dtype=float)
        for kind, V in (('model', cov), ('robust', out['robust'])):
            e, W = R @ gamma, R @ V @ R.T
            x = float(e @ np.linalg.solve(W, e))
            wald.append(dict(kind=kind, estimate=e.tolist(), se=np.sqrt(np.diag(W)).tolist(), statistic=x, df=len(R),
                             p=float(stats.chi2.sf(x, len(R)))))
    out['wald'] = wald
    out['order'] = dict(p=p, b=b, ngamma=ng)
    return {k: listed(x) for k, x in out.items()}


def main():
    os.makedirs(HERE + '/results', exist_ok=True)
    pick = sys.argv[1:]
    for name, (templates, models) in SETS.items():
        for t, (timing, code) in templates.items():
            for mname, m in models.items():
                tag = '%s-%s' % (t, mname)
                if pick and tag not in pick and t not in pick:
                    continue
                r = reference('%s/%s' % (HERE, name), timing, code, m)
                T, L = np.array(r['taupi']), np.array(r['taubeta'])
                print('%-22s %d %d %d dev %.4f s2 %.4f grad %.1e minev %.3f %.3f rel %s %s gray %s n %s' % (
                    tag, r['n1'], r['n2'], r['n3'], r['deviance'], r['sigma2'], r['gradient'],
                    np.linalg.eigvalsh(T)[0], np.linalg.eigvalsh(L)[0], np.round(r['rel2'], 2), np.round(r['rel3'], 2),
                    r['gray'], (r['nrel2'], r['nrel3'], r['nstat2'], r['nstat3'])))
                if mname not in ('A', 'T', 'B') or name == 'schoolnum':
                    for k in ('u', 'lsq2'):
                        del r[k]
                with open('%s/results/%s.json' % (HERE, tag), 'w') as f:
                    json.dump(r, f)
                    f.write('\n')


if __name__ == '__main__':
    main()
