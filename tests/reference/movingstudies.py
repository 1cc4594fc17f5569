#!/usr/bin/env python3
"""Random studies for the quadrature whose nodes go with the data, against integrals that share nothing with the program.

Each study is drawn anew: 5 to 40 level-3 units, level-2 units of 1 to 30 records, a binary, binomial or count outcome, or
counts with exposure; one or two random effects a level, taus from 0 to 9, predictors in units from 1e-6 to 1e6, rare and
common outcomes. The oracle integrates in the effects A z, B w with inner nodes around the mode of each integrand for its own
w and outer nodes around posterior moments; its score is that of the same sums, its information comes from differences of
the score. At the program's estimates it says how far the log-likelihood is off, how far a Newton step would go in standard
errors, and what the standard errors are.

  movingstudies.py PROGRAM FIRST LAST [POINTS [EFFECTS [COMMANDS]]]     POINTS: AUTO, if not given

EFFECTS, two digits, takes other numbers of effects at level 2 and at level 3 than those drawn, up to 3; "" those drawn. With
DIAGONALIZE lines among the commands the oracle knows diagonal matrices. `ordinal` as the first of them: all studies have
ordinal outcomes, whose probabilities the oracle takes as differences of cumulative ones.
"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
from types import SimpleNamespace
import numpy as np
from scipy.special import gammaln, logsumexp

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "endtoend"))
from program import NOFEATURES, NOFILES, fixedtext, run


# Of ordinal outcomes: even, skewed to either side, a rare category between others, two and seven of them.
CUTS = [[0, 1, 2], [0, 0.1, 3], [-3, 0, 0.6], [0, 0.04, 1], [0], [-2, -1, 0, 1, 2, 3]]


def study(seed, only=None):
    """Records as arrays, and the model that drew them; `only`: of this outcome."""
    rng = np.random.default_rng(seed)
    outcome = rng.choice(["bernoulli", "bernoulli", "binomial", "poisson", "exposure"])
    outcome = only or outcome
    q, r = [(1, 1), (1, 1), (1, 1), (2, 1), (1, 2), (2, 2)][rng.integers(6)]
    K = int(rng.integers(5, 41)) if q + r < 4 else int(rng.integers(8, 21))
    most, units = int(rng.choice([3, 8, 30])), int(rng.choice([3, 6]))
    sd = lambda n: np.sqrt(rng.choice([0, 0.05, 0.3, 1, 9 if outcome in ("bernoulli", "binomial") else 1], size=n, p=[0.1, 0.2, 0.3, 0.3, 0.1]))
    su, sv = sd(q), sd(r)
    ru, rv = rng.uniform(-0.9, 0.9, 2)
    scale, origin = 10.0 ** rng.integers(-6, 7, size=2) if rng.random() < 0.6 else np.ones(2), rng.choice([0, 0, 3], size=2)
    constant = rng.choice([-3, -1, 0, 0.5] if outcome in ("bernoulli", "binomial") else [-2, 0, 1, 3])
    trials = int(rng.choice([5, 20, 200]))
    lines = []
    cuts = CUTS[seed % len(CUTS)] if outcome == "ordinal" else []
    def pair(s, rho):
        a = rng.normal(size=2)
        return np.append(s, 0)[:2] * np.array([a[0], rho * a[0] + np.sqrt(1 - rho * rho) * a[1]])
    for k in range(K):
        z, v = rng.normal(), pair(sv, rv)
        for j in range(int(rng.integers(1, units + 1))):
            w, u = rng.normal(), pair(su, ru)
            for _ in range(int(rng.integers(1, most + 1))):
                x = rng.normal(size=2)
                eta = constant + 0.3 * z + 0.3 * w + (0.4 + v[1] + u[1]) * x[0] - 0.3 * x[1] + v[0] + u[0]
                n = {"binomial": float(rng.integers(1, trials + 1)), "exposure": round(rng.uniform(0.2, 4), 3)}.get(outcome, 1.0)
                mu = 1 / (1 + np.exp(-eta))
                y = (rng.binomial(int(n), mu) if outcome in ("bernoulli", "binomial") else
                     np.sum(rng.logistic() > eta + np.array(cuts)) if outcome == "ordinal" else
                     rng.poisson(n * np.exp(min(eta, 8))))
                lines.append((k, j, y, n, *(scale * (x + origin)), w, z))
    return outcome, q, r, np.array([l for l in lines])


def write(folder, outcome, q, r, rows, engine):
    units2 = {(k, j): (k, j, w) for k, j, *_, w, z in rows}
    units3 = {k: (k, z) for k, *_, z in rows}
    fixedtext(folder, (rows[:, :6], units2.values(), units3.values()), "%24.20f", (["Y", "N", "X1", "X2"], ["W"], ["Z"]))
    kind = {"bernoulli": "BERNOULLI", "binomial": "BINOMIAL,N", "poisson": "POISSON", "exposure": "POISSON,N",
            "ordinal": f"ORDINAL,{(C := len(np.unique(rows[:, 2])))}"}[outcome]
    thresholds = "".join(f"THOLD{c}+" for c in range(2, C)) if outcome == "ordinal" else ""
    with open(f"{folder}/s.kdr", "w") as file:
        file.write(f"NONLIN:{kind}\nMACROIT:100,N\nMICROIT:200\n{engine}\nLEVEL1:Y=INTRCPT1+X1+X2+{thresholds}RANDOM\n"
                   "LEVEL2:INTRCPT1=INTRCPT2+W+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Z+RANDOM/\nLEVEL3:W=INTRCPT3/\n"
                   f"LEVEL2:X1=INTRCPT2{'+RANDOM' if q > 1 else ''}/\nLEVEL3:INTRCPT2=INTRCPT3{'+RANDOM' if r > 1 else ''}/\n"
                   f"LEVEL2:X2=INTRCPT2{'+RANDOM' if q > 2 else ''}/\nLEVEL3:INTRCPT2=INTRCPT3{'+RANDOM' if r > 2 else ''}/\nTITLE:s\nOUTPUT:s.txt\nFULLOUTPUT:N\n" + NOFILES + NOFEATURES)


def pairs(n):
    return [(a, b) for a in range(n) for b in range(a + 1)]


def unpacked(theta, q, r):
    """The lower triangles of both levels, and what stands behind them."""
    P2, P3 = len(pairs(q)), len(pairs(r))
    A, B = np.zeros((q, q)), np.zeros((r, r))
    A[np.tril_indices(q)], B[np.tril_indices(r)] = theta[:P2], theta[P2:P2 + P3]
    return A, B, theta[P2 + P3:]


def grid(points, dims):
    """Nodes of the standard normal density in so many dimensions, and the logarithms of weights that hold its inverse."""
    x, w = np.polynomial.hermite_e.hermegauss(points)
    nodes = np.stack(np.meshgrid(*[x] * dims, indexing="ij"), -1).reshape(-1, dims)
    logw = sum(np.meshgrid(*[np.log(w) - 0.5 * np.log(2 * np.pi) + x * x / 2] * dims, indexing="ij")).reshape(-1)
    return nodes, logw


def semifactor(T):
    L = np.zeros_like(T)
    for c in range(len(T)):
        pivot = T[c, c] - L[c, :c] @ L[c, :c]
        if pivot <= 1e-9 * max(T[c, c], 1e-300) or pivot <= 0:
            continue
        L[c, c] = np.sqrt(pivot)
        for i in range(c + 1, len(T)):
            L[i, c] = (T[i, c] - L[i, :c] @ L[c, :c]) / L[c, c]
    return L


def settleouter(oracle, moments):
    """Outer nodes around posterior means and covariances, as `moments` gives them by the nodes of before."""
    for _ in range(40):
        mean, C = moments()
        C = C + 0.02 * oracle.C  # few nodes may see nothing of an integrand's width
        moved = max(np.max(np.abs(mean - oracle.w) ** 2 / np.einsum("kaa->ka", C)),
                    np.max(np.abs(np.linalg.solve(C, oracle.C) - np.eye(C.shape[1]))))
        oracle.w, oracle.C = mean, C
        if moved < 0.03:
            break


class Oracle:
    def __init__(self, outcome, q, r, rows, points2, points3, diagonal=(False, False)):
        self.outcome, self.q, self.r, self.diagonal = outcome, q, r, diagonal
        keys = [(int(a), int(b)) for a, b in rows[:, :2]]
        units = list(dict.fromkeys(keys))
        place = {key: i for i, key in enumerate(units)}
        j = np.array([place[key] for key in keys])
        m = np.bincount(j).max()
        within = np.zeros(len(j), int)
        count = {}
        for i, unit in enumerate(j):
            within[i] = count.get(unit, 0)
            count[unit] = within[i] + 1
        one = np.ones((len(rows), 1))
        self.scales = np.sqrt(np.mean(rows[:, 4:6] ** 2, axis=0))
        x = rows[:, 4:6] / self.scales
        xg = np.hstack([one, rows[:, 7:8], rows[:, 6:7], x])
        both = np.hstack([one, x])
        def spread(values):
            out = np.zeros((len(units), m) + values.shape[1:])
            out[j, within] = values
            return out
        self.y, self.n, self.used = spread(rows[:, 2]), spread(rows[:, 3]), spread(one[:, 0])
        self.xg, self.d, self.e = spread(xg), spread(both[:, :q]), spread(both[:, :r])
        values = np.unique(rows[:, 2])
        self.thresholds = len(values) - 2 if outcome == "ordinal" else 0
        self.category = np.searchsorted(values, rows[:, 2])
        thirds = list(dict.fromkeys(u[0] for u in units))
        self.k = np.array([thirds.index(u[0]) for u in units])
        order = np.argsort(j, kind="stable")  # records unit by unit
        self.unit, self.first = j[order], np.searchsorted(j[order], np.arange(len(units)))
        self.rows = [a[order] for a in (rows[:, 2], rows[:, 3], xg, both[:, :q], both[:, :r])]
        self.K, self.g = len(thirds), 5
        self.category = self.category[order]
        y, n = rows[:, 2], rows[:, 3]
        self.constant = (np.sum(gammaln(n + 1) - gammaln(y + 1) - gammaln(n - y + 1)) if outcome == "binomial" else
                         -np.sum(gammaln(y + 1)) if outcome in ("poisson", "exposure") else 0.0)
        self.logn = np.log(np.where(self.used > 0, self.n, 1))
        self.inner, self.outer = grid(points2, q), grid(points3, r)
        self.w, self.C = np.zeros((self.K, r)), np.tile(np.eye(r), (self.K, 1, 1))

    def density(self, eta, y, n, logn):
        """Of records and its first two derivatives, those of the second with a minus."""
        if self.outcome == "ordinal":
            l, up, down, w = self.ordinal(eta)
            return l, up + down, w
        if self.outcome in ("bernoulli", "binomial"):
            t = np.exp(-np.abs(eta))
            n = n if self.outcome == "binomial" else 1.0
            mu = np.where(eta > 0, 1.0, t) / (1 + t)
            return y * eta - n * (np.maximum(eta, 0) + np.log(1 + t)), y - n * mu, n * mu * (1 - mu)
        t = eta + (logn if self.outcome == "exposure" else 0.0)
        mu = np.exp(np.minimum(t, 300))
        return y * t - mu, y - mu, mu

    def ordinal(self, eta, category=None):
        """The difference of two cumulative probabilities, its derivatives by their thresholds, and minus the second by eta."""
        with np.errstate(over="ignore"):
            F = lambda x: 1 / (1 + np.exp(-x))
            t = np.concatenate([[-np.inf, 0], self.t, [np.inf]])[:, None]
            category = self.category if category is None else category
            b, a = eta + t[category + 1], eta + t[category]
            # on the side where neither is near 1
            p = np.where(a + b > 0, F(-a) - F(-b), F(b) - F(a))
            p = np.where(p > 1e-300, p, 1e-300)
            fb, fa = F(b) * F(-b), F(a) * F(-a)
        return np.log(p), fb / p, -fa / p, fa + fb

    def matrices(self, theta):
        return unpacked(theta, self.q, self.r)

    def once(self, theta, score):
        A, B, g = self.matrices(theta)
        g, self.t = g[:self.g], g[self.g:]
        y, n, xg, d, e = self.rows
        L3 = np.linalg.cholesky(self.C)
        W = self.w[:, None, :] + np.einsum("kab,xb->kxa", L3, self.outer[0])
        Wj = W[self.k]
        dA, eB, j = d @ A, e @ B, self.unit
        f = (xg @ g)[:, None] + sum(eB[:, b, None] * Wj[j, :, b] for b in range(self.r))
        y, n, logn = y[:, None], n[:, None], np.log(n)[:, None]
        total = lambda rows: np.add.reduceat(rows, self.first, axis=0)
        def objective(z):
            l, s, w = self.density(f + sum(dA[:, a, None] * z[..., a][j] for a in range(self.q)), y, n, logn)
            return total(l) - 0.5 * (z * z).sum(-1), s, w
        def curvature(w):
            H = np.empty(z.shape + (self.q,))
            for a in range(self.q):
                for b in range(a + 1):
                    H[..., a, b] = H[..., b, a] = total((dA[:, a] * dA[:, b])[:, None] * w) + (a == b)
            return H
        z = np.zeros((len(self.first), f.shape[1], self.q))
        value, s, w = objective(z)
        for _ in range(100):
            right = np.stack([total(dA[:, a, None] * s) for a in range(self.q)], -1) - z
            step = np.linalg.solve(curvature(w), right[..., None])[..., 0]
            scale = np.ones(z.shape[:2])
            for _ in range(40):
                trial = z + scale[..., None] * step
                new, s, w = objective(trial)
                worse = new < value - 1e-10 * (1 + np.abs(value))
                if not worse.any():
                    break
                scale = np.where(worse, scale / 2, scale)
            z, value = trial, new
            if np.abs(step).max() < 1e-5:
                break
        L = np.linalg.cholesky(np.linalg.inv(curvature(w)))
        sums = np.zeros(z.shape[:2])
        hz = np.zeros(z.shape + (self.q,))
        rbar = np.zeros(f.shape)
        tbar = np.zeros((2,) + f.shape if self.thresholds else 0)  # by the upper and by the lower threshold
        for x0, w0 in zip(*self.inner):
            zx = z + np.einsum("jvab,b->jva", L, x0)
            l, s, _ = objective(zx)
            p = np.exp(l - value + w0)
            sums += p
            if score:
                if self.thresholds:
                    tbar += p[j] * np.stack(self.ordinal(f + sum(dA[:, a, None] * zx[..., a][j] for a in range(self.q)))[1:3])
                s = p[j] * s
                rbar += s
                for a in range(self.q):
                    hz[..., a, :] += total(d[:, a, None] * s)[..., None] * zx
        logs = value + np.log(sums) + np.log(np.einsum("jvaa->jva", L)).sum(-1)
        h = np.zeros(W.shape[:2])
        np.add.at(h, self.k, logs)
        h += self.outer[1] - 0.5 * (W * W).sum(-1) + np.log(np.einsum("kaa->ka", L3)).sum(-1)[:, None]
        unit = logsumexp(h, axis=1)
        weight = np.exp(h - unit[:, None])
        mean = np.einsum("kv,kva->ka", weight, W)
        centred = W - mean[:, None, :]
        C = np.einsum("kv,kva,kvb->kab", weight, centred, centred)
        result = None
        if score:
            wj = weight[self.k] / sums
            SA = np.einsum("jv,jvab->ab", wj, hz)
            rb = wj[j] * rbar
            SB = np.einsum("nv,na,nvb->ab", rb, e, Wj[j], optimize=True)
            Sg = rb.sum(1) @ xg
            St = [sum(np.sum((wj[j] * tbar[side])[self.category == c + 1 + side]) for side in (0, 1))
                  for c in range(self.thresholds)]
            result = np.concatenate([[SA[a, b] for a, b in pairs(self.q)], [SB[a, b] for a, b in pairs(self.r)], Sg, St])
        return unit.sum() + self.constant, result, mean, C

    def settle(self, theta):
        settleouter(self, lambda: self.once(theta, False)[2:])

    def judge(self, Tp, Tb, gamma):
        """Log-likelihood; Newton step and standard errors of (vech Tp, vech Tb, gamma), NaN for what has none."""
        D = np.diag(np.append(1, self.scales)[:self.q]), np.diag(np.append(1, self.scales)[:self.r])
        A, B = semifactor(D[0] @ Tp @ D[0]), semifactor(D[1] @ Tb @ D[1])
        G = np.array([1, 1, 1, *(1 / self.scales), *[1] * self.thresholds])
        theta = np.concatenate([[A[a, b] for a, b in pairs(self.q)], [B[a, b] for a, b in pairs(self.r)], gamma / G])
        self.settle(theta)
        value, score, _, _ = self.once(theta, True)
        P2, P3 = len(pairs(self.q)), len(pairs(self.r))
        free = [i for i in range(len(theta)) if i >= P2 + P3 or
                np.any((A if i < P2 else B)[:, (pairs(self.q) + pairs(self.r))[i][1]] != 0)]
        apart = [a != b and self.diagonal[level] for level, n in enumerate((self.q, self.r)) for a, b in pairs(n)]
        free = [i for i in free if i >= P2 + P3 or not apart[i]]
        H = np.zeros((len(free), len(free)))
        for c, i in enumerate(free):
            step = 1e-3 * max(1.0, abs(theta[i])) if i < P2 + P3 else 1e-3
            up, down = theta.copy(), theta.copy()
            up[i] += step
            down[i] -= step
            H[:, c] = (self.once(down, True)[1][free] - self.once(up, True)[1][free]) / (2 * step)
        V = np.linalg.inv((H + H.T) / 2)
        def parameters(theta):
            A, B, g = self.matrices(theta)
            inverse = [np.linalg.inv(d) for d in D]
            Tp, Tb = inverse[0] @ A @ A.T @ inverse[0], inverse[1] @ B @ B.T @ inverse[1]
            return np.concatenate([[Tp[a, b] for a, b in pairs(self.q)], [Tb[a, b] for a, b in pairs(self.r)], g * G])
        J = np.zeros((len(theta), len(free)))
        for c, i in enumerate(free):
            e = np.zeros(len(theta))
            e[i] = 1e-5
            J[:, c] = (parameters(theta + e) - parameters(theta - e)) / 2e-5
        variance = np.diag(J @ V @ J.T)
        se = np.sqrt(np.where(variance > 0, variance, np.nan))
        least = np.linalg.eigvalsh((H + H.T) / 2).min()
        return value, J @ V @ score[free], se, least


def fitted(program, outcome, q, r, rows, engine, name, write=write):
    """What a whole run has found in the phase of this name; or, where there is none, the end of a line and its verdict."""
    with tempfile.TemporaryDirectory() as folder:
        write(folder, outcome, q, r, rows, engine)
        if run(program, folder, "-r", "s.mdmt")[0]:
            return None, ("no MDM file", "no data")
        began = time.time()
        code, said = run(program, folder, "-results", "s.json", "s.mdm", "s.kdr")
        seconds = time.time() - began
        if code:
            return None, (f"code {code}: {said.strip().splitlines()[-1][:80]}", "pql failed")
        with open(f"{folder}/s.json") as file:
            document = json.load(file)
    phases = {p["phase"]: p for p in document["phases"]}
    if name not in phases:
        return None, ("no results: " + " | ".join(document["warnings"])[:150], "said so" if document["warnings"] else "SILENT")
    p = phases[name]
    lower = lambda t: [t[a][b] for a, b in pairs(len(t))]
    errors = [e["standard_error"] or [[None] * n] * n for e, n in ((p["tau_pi"], q), (p["tau_beta"], r))]
    se = lower(errors[0]) + lower(errors[1]) + [row["model_based"] and row["model_based"]["standard_error"] for row in p["fixed_effects"]]
    return SimpleNamespace(
        phase=p, seconds=seconds, value=p["marginal_log_likelihood"],
        taus=(np.array(p["tau_pi"]["estimate"]), np.array(p["tau_beta"]["estimate"])),
        gamma=np.array([row["estimate"] for row in p["fixed_effects"]]),
        se=np.array([np.nan if not x else x for x in se], float),
        edge=any(sum(p["tau_pi"]["at_edge"] + p["tau_beta"]["at_edge"], [])),
        warnings=[w for w in p["warnings"] + document["warnings"] if "macro" not in w and "robust standard errors" not in w]), None


def apart(se, right):
    """The largest share by which standard errors are off, and how many only one side has."""
    both = ~np.isnan(se) & ~np.isnan(right)
    return np.max(np.abs(se[both] / right[both] - 1), initial=0), int(np.sum(np.isnan(se) != np.isnan(right)))


def lineof(found, gap, far, off, missing):
    """What a run has found, and how far it is from the oracle."""
    p = found.phase
    return (f"{p['points']:2d} points, {p['iterations']:2d} iterations, {found.seconds:.1f} s, taus {np.diag(found.taus[0])} "
            f"{np.diag(found.taus[1])}, gap {gap:.5f}, {far:.4f} se, errors {100 * off:.2f}%" + (", edge" if found.edge else "")
            + (f", {missing} differ" if missing else "") + "".join("\n     " + w for w in found.warnings))


def verdictof(fine, warnings):
    return "right" if fine and not warnings else "right, warned" if fine else "said so" if warnings else "MISS"


def one(program, seed, points, effects="", *commands):
    outcome, q, r, rows = study(seed, "ordinal" if commands[:1] == ("ordinal",) else None)
    commands = [c for c in commands if c != "ordinal"]
    q, r = map(int, effects or (q, r))
    here = f"{seed:4d} {outcome:9s} q {q} r {r} K {len(set(rows[:, 0])):2d} n {len(rows):4d}: "
    found, ending = fitted(program, outcome, q, r, rows, "\n".join([f"AGQ:Y,100,{points}", *commands]), "quadrature")
    if found is None:
        return here + ending[0], ending[1]
    # Where they differ the oracle takes more nodes: those around modes want many where a slope of few records varies much.
    grids = {(1, 1): ((21, 31), (41, 61)), (2, 1): ((15, 15), (41, 15)), (1, 2): ((15, 15), (31, 31))}
    diagonal = "DIAGONALIZETAUPI:Y" in commands, "DIAGONALIZETAUBETA:Y" in commands
    for grids in grids.get((q, r), ((9, 9), (15, 11), (25, 15)) if max(q, r) < 3 else ((9, 9), (15, 13))):
        oracle = Oracle(outcome, q, r, rows, *grids, diagonal)
        value, step, right, least = oracle.judge(*found.taus, found.gamma)
        gap, far, (off, missing) = abs(value - found.value), np.nanmax(np.abs(step) / right), apart(found.se, right)
        fine = gap < 0.01 and far < 0.02 and off < 0.02 and least > 0 and not missing
        if fine:
            break
    return here + lineof(found, gap, far, off, missing), verdictof(fine, found.warnings)


def studies(one, program, first, last, *how):
    """Prints a line for each study and counts the verdicts; the lines."""
    lines, verdicts = [], []
    for seed in range(int(first), int(last) + 1):
        try:
            line, verdict = one(os.path.abspath(program), seed, *how)
        except np.linalg.LinAlgError as error:
            line, verdict = f"{seed:4d} oracle: {error}", "no oracle"
        except subprocess.TimeoutExpired:
            line, verdict = f"{seed:4d}", "more than 300 s"
        lines.append(line)
        verdicts.append(verdict)
        print(f"{line} -> {verdict}", flush=True)
    print(f"{len(verdicts)} studies:", ", ".join(f"{verdicts.count(v)} {v}" for v in sorted(set(verdicts))))
    return lines


if __name__ == "__main__":
    np.set_printoptions(precision=4, suppress=True)
    program, first, last, points, *how = sys.argv[1:] + ["AUTO"] * (len(sys.argv) < 5)
    studies(one, program, first, last, points, *how)
