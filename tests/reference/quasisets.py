"""Random studies by quasi-likelihood: whole runs of the program, tight and at the default criteria, beside a dense fixed point.

    quasisets.py dense FILE FIRST LAST        the fixed points of the studies FIRST to LAST - 1, a line each at the end of FILE
    quasisets.py PROGRAM FILE [FIRST LAST]    runs PROGRAM on the studies of FILE and compares
    quasisets.py PROGRAM starts FIRST LAST    ordinal studies of 795 records and 3 to 10 categories with random proportions:
                                              those that end without convergence, and what becomes of the dense fixed point

Bernoulli, binomial, Poisson, multinomial and ordinal outcomes with skewed proportions, small variances and separated
predictors among them. The dense fixed point (densepql.py) climbs where a variance goes to 0 on the factors of tau(pi) and
tau(beta). Prints a line for each run whose fixed effects are more than 0.01 standard errors away, or that says that it has
not converged, with what it says, then the counts.
"""
import json
import os
import pathlib
import sys
import tempfile

import numpy as np
from scipy import optimize

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "endtoend")]
import densepql
from dense import Data, maximise, thetaspace
from denselikelihood import gls, level2cov, loglik, pack, unpack
from makedata import template, textid, write
from models import INT3, model
from nonlinearmodels import commands

NAMES = {1: ["Y", "COUNT", "X1", "X2"], 2: ["Z1"], 3: ["Q1"]}
FAR = 25.0  # a predictor beyond it: separated


def inverse(eta):
    return 1 / (1 + np.exp(-eta))


def makestudy(seed, directory):
    """Writes data and template; returns the model."""
    rng = np.random.default_rng(1000 + seed)
    kind = ["bernoulli", "binomial", "poisson", "multinomial", "ordinal", "ordinal"][seed % 6]
    categories = int(rng.integers(3, 5)) if kind == "multinomial" else int(rng.integers(3, 7))
    slope = rng.random() < 0.3 and kind not in ("multinomial", "ordinal")
    sd2, sd3 = rng.choice([0.0, 0.3, 0.7, 1.2]), rng.choice([0.0, 0.3, 0.8])
    rare, level, width = rng.choice([0.5, 0.2, 0.04]), rng.choice([-2.0, -0.5, 0.0, 1.0]), rng.choice([1.0, 0.5, 2.0])
    effects = rng.choice([0.3, 1.0, 2.0])
    shares = rng.dirichlet(np.full(categories, rng.choice([0.7, 3.0])))
    shares = np.maximum(shares, 0.02) / np.maximum(shares, 0.02).sum()
    cuts = np.log(np.cumsum(shares)[:-1] / (1 - np.cumsum(shares)[:-1]))
    rows, unit2 = {1: [], 2: [], 3: []}, 0
    for k in range(int(rng.integers(10, 26))):
        q = rng.normal()
        rows[3].append((k + 1, None, [q]))
        v = rng.normal(size=categories) * sd3
        for _ in range(int(rng.integers(2, 5))):
            unit2 += 1
            z = rng.normal()
            rows[2].append((k + 1, unit2, [z]))
            u, us = rng.normal(size=categories) * sd2, rng.normal() * 0.5 * slope
            for _ in range(int(rng.integers(2, 9))):
                x1, x2 = width * rng.normal(), float(rng.random() < rare)
                part = effects * (0.5 + us) * x1 / width + 0.5 * effects * x2 + 0.3 * z - 0.2 * q
                eta = part + u[0] + v[0]
                count = int(rng.integers(1, 9))
                if kind == "bernoulli":
                    y = float(rng.random() < inverse(level + eta))
                elif kind == "binomial":
                    y = float(rng.binomial(count, inverse(level + eta)))
                elif kind == "poisson":
                    y = float(rng.poisson(min(count * np.exp(0.4 * (level + eta)), 1e5)))
                elif kind == "ordinal":
                    y = 1.0 + int(np.searchsorted(inverse(cuts + eta), rng.random()))
                else:
                    e = np.log(shares) + np.append((part * np.array([1.0, -0.5, 0.3])[:categories - 1]), 0.0)
                    e[:-1] += u[:-1] + v[:-1]
                    e = np.exp(e - e.max())
                    y = 1.0 + int(np.searchsorted(np.cumsum(e / e.sum()), rng.random() * 0.999999))
                rows[1].append((k + 1, unit2, [y, count, x1, x2]))
    rows = {n: [(i, j, [round(float(x), 4) for x in vals]) for i, j, vals in r] for n, r in rows.items()}
    write(directory, rows, textid)
    with open(directory + "/s.mdmt", "w") as f:
        f.write(template("s.mdm", ["level%d.dat" % i for i in (1, 2, 3)],
                         ["(A4,%s%dF10.4)" % ("1X,A6," * (i < 3), len(NAMES[i])) for i in (1, 2, 3)], NAMES.values()))
    level1 = [("INTRCPT1", 0), ("X1", 0), ("X2", 0)]
    level2 = {"INTRCPT1": [("INTRCPT2", 0), ("Z1", 0)], "X1": [("INTRCPT2", 0)], "X2": [("INTRCPT2", 0)]}
    level3 = {("INTRCPT1", "INTRCPT2"): [("INTRCPT3", 0), ("Q1", 0)]}
    m = model(level1, ["INTRCPT1", "X1"] if slope else ["INTRCPT1"], level2, INT3, level3, kind=kind, outcome="Y",
              fixsigma2=1.0, count="COUNT" if kind in ("binomial", "poisson") else None)
    if m["count"] and rng.random() < 0.3:
        m["fixsigma2"] = 0.0
    if kind in ("multinomial", "ordinal"):
        m["categories"] = len({r[2][0] for r in rows[1]})
        if m["categories"] < 3:
            m.update(kind="bernoulli")
            del m["categories"]
            low = min(r[2][0] for r in rows[1])
            write(directory, {**rows, 1: [(i, j, [float(x[0] > low)] + x[1:]) for i, j, x in rows[1]]}, textid)
    return m


def startstudy(seed, directory):
    """An ordinal study with a random distribution of its categories; returns the model."""
    rng = np.random.default_rng(9000 + seed)
    shares = rng.dirichlet(np.full(int(rng.integers(3, 11)), rng.choice([0.5, 1.0, 3.0])))
    shares = np.maximum(shares, 0.01) / np.maximum(shares, 0.01).sum()
    cuts = np.log(np.cumsum(shares)[:-1] / (1 - np.cumsum(shares)[:-1]))
    sd, slope, rows, unit2 = rng.choice([0.3, 0.7]), rng.choice([0.3, 1.0]), {1: [], 2: [], 3: []}, 0
    for k in range(25):
        rows[3].append((k + 1, None, [0.0]))
        v = rng.normal() * sd
        for j in range(4):
            unit2 += 1
            rows[2].append((k + 1, unit2, [0.0]))
            u = rng.normal() * sd
            for _ in range(7 if j == 3 and k < 5 else 8):
                x = rng.normal()
                y = 1.0 + int(np.searchsorted(inverse(cuts + slope * x + u + v), rng.random()))
                rows[1].append((k + 1, unit2, [y, 1.0, round(x, 4), 0.0]))
    write(directory, rows, textid)
    with open(directory + "/s.mdmt", "w") as f:
        f.write(template("s.mdm", ["level%d.dat" % i for i in (1, 2, 3)],
                         ["(A4,%s%dF10.4)" % ("1X,A6," * (i < 3), len(NAMES[i])) for i in (1, 2, 3)], NAMES.values()))
    return model([("INTRCPT1", 0), ("X1", 0)], ["INTRCPT1"], {"INTRCPT1": [("INTRCPT2", 0)], "X1": [("INTRCPT2", 0)]}, INT3,
                 kind="ordinal", outcome="Y", fixsigma2=1.0, categories=len({r[2][0] for r in rows[1]}))


# --- the dense fixed point -------------------------------------------------------------------------------------------

def score(units, T, L, s):
    """The log-likelihood at the best gamma, and its derivatives by T, L and s, each element on its own."""
    gamma, _ = gls(units, T, L, s)
    value, dT, dL, ds = 0.0, np.zeros_like(T), np.zeros_like(L), 0.0
    for u in units:
        V = u.Z2 @ L @ u.Z2.T + level2cov(u, T) + s * np.eye(u.n)
        Vi, r = np.linalg.inv(V), u.y - u.M @ gamma
        e = Vi @ r
        value -= 0.5 * (u.n * np.log(2 * np.pi) + np.linalg.slogdet(V)[1] + r @ e)
        for rows in u.rows:
            a = u.Z1[rows].T @ e[rows]
            dT += np.outer(a, a) - u.Z1[rows].T @ Vi[rows, rows] @ u.Z1[rows]
        a = u.Z2.T @ e
        dL += np.outer(a, a) - u.Z2.T @ Vi @ u.Z2
        ds += e @ e - np.trace(Vi)
    return value, 0.5 * dT, 0.5 * dL, 0.5 * ds


def climb(units, free, theta, p, b):
    """The maximum over factors of T and L, and over the logarithm of a free s, from theta."""
    T, L, s = unpack(theta, p, b)
    root = lambda X: np.linalg.cholesky(X + np.eye(len(X)) * max(1e-10, 1e-6 * np.trace(X)))
    lp, lb = np.tril_indices(p), np.tril_indices(b)

    def parts(x):
        A, B = np.zeros((p, p)), np.zeros((b, b))
        A[lp], B[lb] = x[:len(lp[0])], x[len(lp[0]):len(lp[0]) + len(lb[0])]
        return A, B, np.exp(x[-1]) if free else s

    def f(x):
        A, B, t = parts(x)
        value, dT, dL, ds = score(units, A @ A.T, B @ B.T, t)
        return -value, -np.concatenate([(2 * dT @ A)[lp], (2 * dL @ B)[lb], [ds * t] if free else []])

    start = np.concatenate([root(T)[lp], root(L)[lb], [np.log(s)] if free else []])
    found = optimize.minimize(f, start, jac=True, method="L-BFGS-B", options=dict(maxiter=60, ftol=1e-15, gtol=1e-7))
    A, B, t = parts(found.x)
    return pack(A @ A.T, B @ B.T, t)


def best(units, m, theta, p, b):
    """Scoring from theta while it stays well inside, else a climb."""
    inside = lambda x: all(np.linalg.eigvalsh(X)[0] > 1e-4 for X in unpack(x, p, b)[:2])
    if inside(theta):
        new, grad, _ = maximise(units, m, p, b, theta, 3)
        if inside(new) and np.all(np.isfinite(new)) and grad < 1e6:
            return new
    return climb(units, not m.get("fixsigma2"), theta, p, b)


def fixedpoint(m, data):
    ps, c = densepql.parts(data, m)
    scalar = "categories" not in m
    p, b = ps[0].Z1.shape[1], ps[0].Z2.shape[1]
    settings = {k: v for k, v in m.items() if k != "fixsigma2" or v}
    if scalar:
        rates = [np.clip(0.5 * (q.y / q.n) + 0.5 * sum(x.y.sum() for x in ps) / sum(x.n.sum() for x in ps), 0.01,
                         0.99 if m["kind"] != "poisson" else np.inf) for q in ps]
        etas = [np.log(r) if m["kind"] == "poisson" else np.log(r / (1 - r)) for r in rates]
    else:
        values, counts = np.unique(np.concatenate([q.y for q in ps]), return_counts=True)
        prop = (counts + 0.5) / (counts + 0.5).sum()
        if m["kind"] == "ordinal":
            base = np.log(np.cumsum(prop)[:-1] / (1 - np.cumsum(prop)[:-1]))
            indicators = [(q.y[:, None] <= values[:c]).astype(float) for q in ps]
        else:
            base = np.log(prop[:c] / prop[c])
            indicators = [(q.y[:, None] == values[:c]).astype(float) for q in ps]
        etas = [np.tile(base, len(q.y)) for q in ps]
    theta, old, gamma = pack(np.eye(p) * 0.3, np.eye(b) * 0.3, settings.get("fixsigma2", 1.0)), None, None
    for number in range(1, 1000):
        if scalar:
            made = [densepql.scalardata(m, q, eta, False, 0, None) for q, eta in zip(ps, etas)]
            z, W = [a for a, _ in made], [w for _, w in made]
        else:
            z, W, pis = densepql.newcategories(m["kind"], indicators, etas, c, 100)
            if m["kind"] == "ordinal" and any(np.min(np.diff(x, axis=1)) <= 0 for x in pis):
                return dict(end="thresholds out of order")
        units, _, _ = densepql.scaled(ps, c, z, W)
        theta = best(units, settings, theta, p, b)
        T, L, s = unpack(theta, p, b)
        gamma, cov = gls(units, T, L, s)
        se = np.sqrt(np.diag(cov))
        etas = densepql.predictor(ps, units, gamma, T, L, s)
        if max(np.max(np.abs(eta)) for eta in etas) > FAR:
            return dict(end="separated", gamma=gamma.tolist(), se=se.tolist(), theta=theta.tolist())
        # variances by their roots: one that goes to 0 comes to rest
        now = np.concatenate([gamma / se, 0.01 * np.sqrt(np.abs(theta))])
        if old is not None and np.max(np.abs(now - old)) < 1e-6:
            return dict(end="fixed point", gamma=gamma.tolist(), se=se.tolist(), theta=theta.tolist(), passes=number)
        old = now
    return dict(end="no fixed point", gamma=gamma.tolist(), se=se.tolist(), theta=theta.tolist())


def dense(path, first, last):
    for seed in range(first, last):
        with tempfile.TemporaryDirectory() as directory:
            m = makestudy(seed, directory)
            data = Data(directory, "now", None, [], NAMES)
            try:
                made = fixedpoint(m, data)
            except (np.linalg.LinAlgError, FloatingPointError, AssertionError) as failure:
                made = dict(end="failed: %s" % failure)
        with open(path, "a") as f:
            f.write(json.dumps(dict(seed=seed, kind=m["kind"], **made)) + "\n")


# --- the program -----------------------------------------------------------------------------------------------------

def runs(program, directory, m, kinds=("tight", "default")):
    """The results documents at the two kinds of criteria, each with the exit code."""
    from program import run
    text = commands("s", m)
    loose = "\n".join(x for x in text.splitlines() if not x.startswith(("STOPMACRO", "STOPMICRO")))
    loose = loose.replace("MACROIT:500,N", "MACROIT:100,N").replace("MICROIT:5000", "MICROIT:100")
    assert run(program, directory, "-r", "s.mdmt")[0] == 0
    for name, words in (("tight", text), ("default", loose)):
        if name not in kinds:
            continue
        lines = [x for x in words.splitlines() if not x.startswith(("OUTPUT", "PRINTVARIANCE"))]
        with open(directory + "/s.kdr", "w") as f:
            f.write("\n".join(lines) + "\nOUTPUT:s.txt\n")
        if os.path.exists(directory + "/s.json"):
            os.remove(directory + "/s.json")
        code, said = run(program, directory, "s.mdm", "s.kdr", "-results", "s.json", "-strict")
        document = json.load(open(directory + "/s.json")) if code in (0, 20) else None
        yield name, code, said, document


def unitspecific(document):
    return next(x for x in document["phases"] if x["phase"] == "pql")


def compare(program, path, first=0, last=10 ** 9):
    tally = {}
    for line in open(path):
        want = json.loads(line)
        if not first <= want["seed"] < last:
            continue
        with tempfile.TemporaryDirectory() as directory:
            m = makestudy(want["seed"], directory)
            for name, code, said, document in runs(program, directory, m):
                if document is None:
                    outcome, words = "code %d" % code, said.strip().splitlines()[-1]
                else:
                    phase = unitspecific(document)
                    words = " | ".join(document["warnings"] + phase["warnings"])[:150].replace("\n", " ")
                    gamma = [x["estimate"] for x in phase["fixed_effects"]]
                    far = (max(abs(a - g) / e for a, g, e in zip(gamma, want["gamma"], want["se"]))
                           if "gamma" in want else np.nan)
                    outcome = "converged" if code == 0 else "not converged"
                    outcome += ", near" if far < 0.01 else ", far"
                    words = "%.4f standard errors, %s" % (far, words)
                key = (name, want["end"].split(":")[0], outcome)
                print(want["seed"], name, outcome, file=sys.stderr, flush=True)
                tally[key] = tally.get(key, 0) + 1
                if key[1:] != ("fixed point", "converged, near"):
                    print(want["seed"], want["kind"], want["end"], name, outcome, words, flush=True)
    for key in sorted(tally):
        print("%-8s %-24s %-22s %d" % (*key, tally[key]))


def starts(program, first, last):
    ends = {}
    for seed in range(first, last):
        with tempfile.TemporaryDirectory() as directory:
            m = startstudy(seed, directory)
            for name, code, said, document in runs(program, directory, m, ("default",)):
                end = "converged" if code == 0 else "code %d" % code
                if code != 0:
                    dense = fixedpoint(m, Data(directory, "now", None, [], NAMES))["end"]
                    print(seed, m["categories"], "categories", end, said.strip().splitlines()[-1], "dense:", dense, flush=True)
                    end += ", dense " + dense
                ends[end] = ends.get(end, 0) + 1
    print(ends)


if __name__ == "__main__":
    if sys.argv[1] == "dense":
        dense(sys.argv[2], *map(int, sys.argv[3:]))
    elif sys.argv[2] == "starts":
        starts(os.path.abspath(sys.argv[1]), *map(int, sys.argv[3:]))
    else:
        compare(os.path.abspath(sys.argv[1]), sys.argv[2], *map(int, sys.argv[3:]))
