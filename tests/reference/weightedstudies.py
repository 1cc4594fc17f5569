#!/usr/bin/env python3
"""Random studies with design weights, by whole runs of quadrature against integrals on a grid and against copies.

Each study is drawn anew: 8 to 30 level-3 units, 1 to 4 level-2 units in each, of 1 to 8 records, a binary, binomial or count
outcome, or counts with exposure; one random effect a level, two at level 2, or one at one level alone; weights at some of the
levels, as they stand or brought to means by the rules of the guide, which are here once more.

  weightedstudies.py PROGRAM grid FIRST LAST       the pseudo-log-likelihood at the program's estimates, by the trapezoidal rule
      over standard normal effects (no node is placed anywhere); the distance from its maximum; the sandwich from differences of
      the log-likelihoods of single level-3 units. Without weights in every fourth study: the robust errors of the second tables.
      The step shrinks until the value stands, and the range is wide: counts above 100 are too narrow for a step of 0.1, and a
      level-2 unit with a count of 45 and a weight of 0.2, which hardly moves the level-3 effect, has its own beyond 6
  weightedstudies.py PROGRAM copies FIRST LAST     WEIGHTSCALE:NONE and weights of 1 to 3 beside a run on copies of records, level-2
      units or level-3 units, by 7 points and by one; the sandwich where the clusters are the same; a factor of all level-3 weights
  weightedstudies.py PROGRAM jackknife SEED        robust standard errors beside those of the jackknife over level-3 units
  weightedstudies.py PROGRAM solve                 pseudo-log-likelihood, maximum and sandwich of four studies, for the tests
"""
import json
import os
import pathlib
import sys
import tempfile
import numpy as np
from scipy.special import gammaln, logsumexp

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "endtoend"))
from program import NOFEATURES, NOFILES, fixedtext, run

SHAPES = [(1, 1), (1, 1), (1, 1), (2, 0), (1, 0), (0, 1)]
KINDS = {"bernoulli": "BERNOULLI", "binomial": "BINOMIAL,N", "poisson": "POISSON", "exposure": "POISSON,N"}


def study(seed, shape=None, whole=False, levels=None, few=True):
    """Rows k, j, y, n, x, a, b, c: record, its unit and the weights of the three levels; outcome, (q, r), weighted levels."""
    rng = np.random.default_rng(seed)
    outcome = str(rng.choice(list(KINDS)))
    q, r = shape or SHAPES[rng.integers(len(SHAPES))]
    levels = levels or [(3,), (2,), (1,), (2, 3), (1, 2, 3), (1, 2)][rng.integers(6)]
    weight = (lambda: float(rng.integers(1, 4))) if whole else (lambda: round(float(rng.choice([0.4, 1, 2.5]) * rng.uniform(0.5, 1.5)), 3))
    of = lambda level: weight() if level in levels else 1.0
    constant = {"bernoulli": 0.3, "binomial": -0.5}.get(outcome, 0.2)
    rows = []
    for k in range(int(rng.integers(8, 31)) if few else 60):
        v, c = rng.normal() * 0.8 * (r > 0), of(3)
        for j in range(int(rng.integers(1, 5))):
            u, b = rng.normal(size=2) * (0.9, 0.6) * (np.arange(2) < q), of(2)
            for _ in range(int(rng.integers(1, 9))):
                x = rng.normal()
                eta = constant + 0.5 * x + v + u[0] + u[1] * x
                n = {"binomial": float(rng.integers(1, 9)), "exposure": round(float(rng.uniform(0.3, 3)), 3)}.get(outcome, 1.0)
                mu = 1 / (1 + np.exp(-eta))
                y = rng.binomial(int(n), mu) if outcome in ("bernoulli", "binomial") else rng.poisson(n * np.exp(eta))
                rows.append((k, j, y, n, round(x, 6), of(1), b, c))
    return outcome, q, r, np.array(rows), levels


def fit(program, outcome, q, r, rows, levels, *commands):
    """The phase of quadrature in the results document, or the words of a run without one."""
    with tempfile.TemporaryDirectory() as folder:
        units2 = {(k, j): (k, j, b) for k, j, *_, b, c in rows}
        units3 = {k: (k, c) for k, *_, c in rows}
        fixedtext(folder, (rows[:, :6], units2.values(), units3.values()), "%24.14f", (["Y", "N", "X", "A"], ["B"], ["C"]))
        weights = "".join(f"LEVEL{level}WEIGHT:{'ABC'[level - 1]}\n" for level in levels)
        random = lambda there: "+RANDOM" if there else ""
        pathlib.Path(folder, "s.kdr").write_text(
            f"NONLIN:{KINDS[outcome]}\nMACROIT:100,N\nMICROIT:200\n" + "\n".join(commands) + f"\nLEVEL1:Y=INTRCPT1+X+RANDOM\n"
            f"LEVEL2:INTRCPT1=INTRCPT2{random(q)}/\nLEVEL3:INTRCPT2=INTRCPT3{random(r)}/\n"
            f"LEVEL2:X=INTRCPT2{random(q > 1)}/\nLEVEL3:INTRCPT2=INTRCPT3{random(r > 1)}/\n{weights}TITLE:s\nOUTPUT:s.txt\nFULLOUTPUT:N\n" + NOFILES + NOFEATURES)
        if run(program, folder, "-r", "s.mdmt")[0]:
            return "no MDM file"
        code, said = run(program, folder, "-results", "s.json", "s.mdm", "s.kdr")
        if code:
            return f"code {code}: {said.strip().splitlines()[-1][:100]}"
        document = json.loads(pathlib.Path(folder, "s.json").read_text())
    phases = {p["phase"]: p for p in document["phases"]}
    return phases.get("quadrature") or "no results: " + " | ".join(document["warnings"])[:150]


def pairs(n):
    return [(a, b) for a in range(n) for b in range(a + 1)]


def numbers(phase):
    """Estimates (vech tau(pi), vech tau(beta), gamma), standard errors, robust ones; NaN where there is none."""
    nan = lambda x: np.nan if x is None or x == 0 else x
    lower = lambda matrix, n: [nan(matrix[a][b]) for a, b in pairs(n)] if matrix else [np.nan] * len(pairs(n))
    lists = [[], [], []]
    for tau in ("tau_pi", "tau_beta"):
        n = len(phase[tau]["estimate"])
        lists[0] += [phase[tau]["estimate"][a][b] for a, b in pairs(n)]
        lists[1] += lower(phase[tau]["standard_error"], n)
        lists[2] += lower(phase[tau]["robust_standard_error"], n)
    for row in phase["fixed_effects"]:
        lists[0].append(row["estimate"])
        lists[1].append(nan(row["model_based"] and row["model_based"]["standard_error"]))
        lists[2].append(nan(row["robust"] and row["robust"]["standard_error"]))
    return [np.array(x, float) for x in lists]


def scaled(rows, levels, raw):
    """The weights of each level within the level above: as they stand, or by the rules of the guide."""
    a, b, c = (rows[:, i].copy() for i in (5, 6, 7))
    if raw:
        return a, b, c
    k = rows[:, 0].astype(int)
    j = np.unique(rows[:, :2], axis=0, return_inverse=True)[1].reshape(-1)
    first = np.unique(j, return_index=True)[1]  # a record of each level-2 unit
    third = np.unique(k, return_index=True)[1]
    mean = lambda values, group: (np.bincount(group, values) / np.bincount(group))[group]
    within2 = lambda values: (np.bincount(k[first], values[first]) / np.bincount(k[first]))[k]  # mean over the level-2 units of k
    if levels == (1,):
        b, a = mean(a, j), a / mean(a, j)
        c = within2(b)
    elif 2 in levels and 3 not in levels:
        c = within2(b)
    elif levels == (1, 2, 3):
        a = a / mean(a, j)
    c = c / c[third].mean()
    b = b / within2(b)
    a = a / mean(a, k)
    return a, b, c


class Grid:
    """Log-likelihoods of the level-3 units, by the trapezoidal rule from -15 to 15, where the coarser grid `before` found something."""

    def __init__(self, outcome, q, r, rows, weights, step, before=None):
        self.outcome, self.q, self.r, self.step = outcome, q, r, step
        line = np.arange(-15, 15 + step / 2, step)
        def grid(n):
            if n == 0:
                return np.zeros((1, 0)), np.zeros(1)
            z = np.stack(np.meshgrid(*[line] * n, indexing="ij"), -1).reshape(-1, n)
            return z, -0.5 * (z ** 2).sum(1) + n * np.log(step / np.sqrt(2 * np.pi))
        (self.z, self.logz), (self.w, self.logw) = grid(q), grid(r)
        a, b, c = weights
        self.units = []
        for k in dict.fromkeys(rows[:, 0]):
            own = rows[:, 0] == k
            inside = []
            for j in dict.fromkeys(rows[own, 1]):
                at = own & (rows[:, 1] == j)
                inside.append((rows[at, 2], rows[at, 3], np.column_stack([np.ones(at.sum()), rows[at, 4]]), a[at], b[at][0]))
            self.units.append((inside, c[own][0]))
        self.c = np.array([c for _, c in self.units])
        def near(grid, old, kept):  # within a step of the box of what was kept: the integrands have one peak
            box = old[kept].min(0) - before.step, old[kept].max(0) + before.step
            return np.flatnonzero(np.all((grid >= box[0]) & (grid <= box[1]), axis=1))
        if before:
            self.kept = [(near(self.w, before.w, w), [near(self.z, before.z, z) for z in zs]) for w, zs in before.kept]
        else:
            self.kept = [(np.arange(len(self.w)), [np.arange(len(self.z))] * len(inside)) for inside, _ in self.units]

    def density(self, eta, y, n):
        if self.outcome in ("bernoulli", "binomial"):
            n = n if self.outcome == "binomial" else np.ones_like(y)
            return y * eta - n * np.logaddexp(0, eta) + gammaln(n + 1) - gammaln(y + 1) - gammaln(n - y + 1)
        eta = eta + (np.log(n) if self.outcome == "exposure" else 0.0)
        return y * eta - np.exp(eta) - gammaln(y + 1)

    def values(self, theta, trim=False):
        """L_k of each level-3 unit, before its weight. Grid points that are nothing at `theta` may be trimmed for what follows."""
        matrices, place = [], 0
        for n in (self.q, self.r):
            T = np.zeros((n, n))
            for a, b in pairs(n):
                T[a, b] = T[b, a] = theta[place]
                place += 1
            matrices.append(np.linalg.cholesky(T) if n else T)
        A, B = matrices
        gamma, out = theta[place:], []
        for at, (inside, _) in enumerate(self.units):
            ws, zs = self.kept[at]
            total, shares = self.logw[ws].copy(), []
            for (y, n, x, a, b), z in zip(inside, zs):
                fixed, u = x @ gamma, self.z[z] @ A.T @ x[:, :self.q].T
                v = self.w[ws] @ B.T @ x[:, :self.r].T
                l = sum(a[i] * self.density(fixed[i] + u[:, i] + v[:, [i]], y[i], n[i]) for i in range(len(y))) + self.logz[z]
                inner = logsumexp(l, axis=1)
                total += b * inner
                shares.append(l - inner[:, None] if trim else None)
            if trim:  # e^-40 of the largest
                rest = total - total.max()
                self.kept[at] = ws[rest > -40], [z[(share + rest[:, None]).max(0) > -40] for z, share in zip(zs, shares)]
            out.append(logsumexp(total))
        return np.array(out)

    def judge(self, theta, se):
        """Pseudo-log-likelihood, Newton step and sandwich errors of the elements, whose errors are about `se`."""
        P, h = len(theta), 0.02 * se
        here = self.values(theta)
        def moved(*by):
            there = theta.copy()
            for i, sign in by:
                there[i] += sign * h[i]
            return self.values(there)
        up, down = [moved((i, 1)) for i in range(P)], [moved((i, -1)) for i in range(P)]
        scores = np.column_stack([(up[i] - down[i]) / (2 * h[i]) for i in range(P)])
        H = np.zeros((P, P))
        for i in range(P):
            H[i, i] = -self.c @ (up[i] - 2 * here + down[i]) / h[i] ** 2
            for l in range(i):
                both = moved((i, 1), (l, 1)) + moved((i, -1), (l, -1))
                H[i, l] = H[l, i] = -self.c @ (both - up[i] - down[i] - up[l] - down[l] + 2 * here) / (2 * h[i] * h[l])
        V = np.linalg.inv(H)
        O = (scores * self.c[:, None] ** 2).T @ scores
        return self.c @ here, V @ (self.c @ scores), np.sqrt(np.diag(V)), np.sqrt(np.diag(V @ O @ V))


def refined(theta, *study):
    """The first grid whose value at `theta` is that of the one with twice the step; None where no two agree."""
    grid = value = None
    for step in (0.2, 0.1, 0.05, 0.025, 0.0125):
        grid, before = Grid(*study, step, grid), value
        value = grid.c @ grid.values(theta, True)
        if before is not None and abs(value - before) < 1e-4 * max(1, abs(value) / 1000):
            return grid
    return None


def gridstudy(program, seed):
    outcome, q, r, rows, levels = study(seed)
    raw, weighted = seed % 2 == 0, seed % 4 != 3
    commands = ["AGQ:Y,100,AUTO"] + (["WEIGHTSCALE:NONE"] if raw else [])
    if not weighted:
        levels, rows[:, 5:] = (), 1.0
    here = f"{seed:4d} {outcome:9s} q {q} r {r} K {len(set(rows[:, 0])):2d} n {len(rows):3d} levels {levels}{' raw' if raw and weighted else ''}: "
    phase = fit(program, outcome, q, r, rows, levels, *commands)
    if isinstance(phase, str):
        return here + phase, "said so"
    theta, se, robust = numbers(phase)
    sandwich = se if weighted else robust
    if any(sum((phase["tau_pi"]["at_edge"] or []) + (phase["tau_beta"]["at_edge"] or []), [])):
        # The model without the effects at their edge, where it is one of those that this oracle knows.
        zero = [phase[t]["estimate"] and phase[t]["estimate"][-1][-1] == 0 for t in ("tau_pi", "tau_beta")]
        keep = np.ones(len(theta), bool)
        if zero[0] and q == 1:
            keep[0], q = False, 0
        elif zero[1] and r == 1:
            keep[q], r = False, 0
        else:
            return here + "at an edge", "edge"
        theta, se, sandwich = theta[keep], se[keep], sandwich[keep]
        here += "edge, "
    if q + r == 0:
        return here + "without effects", "edge"
    few = len(set(rows[:, 0])) <= len(theta)
    grid = refined(theta, outcome, q, r, rows, scaled(rows, levels, raw))
    if grid is None:
        return here + "the grids differ", "unsure"
    value, step, model, right = grid.judge(theta, se)
    gap, far = abs(value - phase["marginal_log_likelihood"]), np.max(np.abs(step) / model)
    off = np.max(np.abs(sandwich / right - 1))
    fine = gap < 0.011 * max(1, abs(value) / 1000) and far < 0.01 and (off < 0.012 or (few and not weighted))
    return here + f"gap {gap:.6f}, {far:.5f} se, sandwich off by {100 * off:.3f}%, over model-based {np.max(right / model):.2f}", "right" if fine else "MISS"


def copied(rows, level):
    """Rows with the units of a level as often as their weight says, and no weights."""
    out = []
    for k, j, y, n, x, a, b, c in rows:
        for copy in range(int((a, b, c)[level - 1])):
            out.append((k + 100 * copy if level == 3 else k, j + 100 * copy if level == 2 else j, y, n, x, 1, 1, 1))
    return np.array(sorted(out, key=lambda row: (row[0], row[1])))


def copystudy(program, seed):
    level = seed % 3 + 1
    outcome, q, r, rows, levels = study(seed, [(1, 1), (2, 1), (1, 2), (2, 0)][seed // 3 % 4], True, (level,))
    lines, verdict = [f"{seed:4d} {outcome:9s} q {q} r {r} level {level}:"], "right"
    for points in (7, 1):
        commands = (f"AGQ:Y,100,{points}", "WEIGHTSCALE:NONE")
        phases = [fit(program, outcome, q, r, rows, levels, *commands), fit(program, outcome, q, r, copied(rows, level), (), *commands)]
        if level == 3:  # a factor of all weights of the top level
            times = rows.copy()
            times[:, 7] *= 1000.0
            phases.append(fit(program, outcome, q, r, times, levels, *commands))
        if any(isinstance(p, str) for p in phases):
            lines.append(f"{points}: " + " / ".join(p if isinstance(p, str) else "results" for p in phases))
            verdict = "said so" if all(isinstance(p, str) for p in phases) else "MISS"
            continue
        (t1, se1, _), (t2, se2, robust2) = map(numbers, phases[:2])
        gap = abs(phases[0]["marginal_log_likelihood"] - phases[1]["marginal_log_likelihood"])
        far = np.max(np.abs(t1 - t2) / np.fmax(1e-12, np.where(np.isnan(se2), 1, se2)))
        off = np.nanmax(np.abs(se1 / robust2 - 1)) if level < 3 and not np.all(np.isnan(robust2)) else 0.0
        fine = gap < 1e-4 and far < 2e-3 and off < 5e-3  # iterations end within 1e-3 of a standard error
        words = f"{points}: gap {gap:.1e}, {far:.1e} se, sandwich {off:.1e}"
        if level == 3:
            t3, se3, _ = numbers(phases[2])
            same = max(np.max(np.abs(t3 - t1) / (np.abs(t1) + 1e-9)), np.nanmax(np.abs(se3 / se1 - 1)))
            words, fine = words + f", factor {same:.1e}", fine and same < 1e-6
        lines.append(words)
        if not fine:
            verdict = "MISS"
    return " ".join(lines), verdict


# Studies of the tests: outcome, q, r, weighted levels, whether they stand as they are; random effects of made data.
SOLVED = {"bernoulli-raw": ("bernoulli11", 1, 1, (1, 2, 3), True), "bernoulli-mean": ("bernoulli11", 1, 1, (1, 2, 3), False),
          "poisson-mean": ("poisson11", 1, 1, (2,), False), "binomial-none": ("binomial12", 1, 1, (), False)}


def madeweights(rows):
    """Rows k, j, y, n, x with the weights that the tests give them."""
    return [(k, j, y, n, x, 0.5 + 0.25 * (i % 5), 0.5 + 0.5 * (j % 3), 0.6 + 0.4 * (k % 4)) for i, (k, j, y, n, x) in enumerate(rows)]


def solve(program):
    for name, (file, q, r, levels, raw) in SOLVED.items():
        lines = [line.split() for line in pathlib.Path(__file__).parent.joinpath("quadrature", file + ".dat").read_text().splitlines()]
        rows = np.array(madeweights([(int(k), int(j), float(y), float(n), float(x)) for k, j, y, n, x, *_ in lines if int(k) < 12]))
        for level in {1, 2, 3} - set(levels):
            rows[:, 4 + level] = 1.0
        outcome = file.rstrip("012")
        phase = fit(program, outcome, q, r, rows, levels, "AGQ:Y,100,7", *["WEIGHTSCALE:NONE"] * raw)  # where to begin
        theta, se, _ = numbers(phase)
        value, step, _, sandwich = refined(theta, outcome, q, r, rows, scaled(rows, levels, raw)).judge(theta, se)
        for word, values in (("value", [value]), ("estimate", theta + step), ("sandwich", sandwich)):
            print(name, word, *(f"{x:.7g}" for x in values), flush=True)


def jackknife(program, seed):
    outcome, q, r, rows, levels = study(seed, (1, 1), False, (1, 2, 3), few=False)
    run = lambda rows: fit(program, outcome, q, r, rows, levels, "AGQ:Y,100,7", "WEIGHTSCALE:NONE")
    theta, se, _ = numbers(run(rows))
    units = list(dict.fromkeys(rows[:, 0]))
    left = np.array([numbers(run(rows[rows[:, 0] != k]))[0] for k in units])
    made = np.sqrt((len(units) - 1) / len(units) * ((left - left.mean(0)) ** 2).sum(0))
    print(f"{outcome} K {len(units)}\nestimate {theta}\nsandwich {se}\njackknife {made}\nratio {se / made}")


if __name__ == "__main__":
    program = str(pathlib.Path(sys.argv[1]).resolve())
    if sys.argv[2] == "jackknife":
        jackknife(program, int(sys.argv[3]))
        sys.exit()
    if sys.argv[2] == "solve":
        solve(program)
        sys.exit()
    counts = {}
    for seed in range(int(sys.argv[3]), int(sys.argv[4])):
        line, verdict = (gridstudy if sys.argv[2] == "grid" else copystudy)(program, seed)
        counts[verdict] = counts.get(verdict, 0) + 1
        print(line, verdict, flush=True)
    print(counts)
