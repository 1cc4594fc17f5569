"""Simulated residuals and observed against predicted values.

Outcomes are compared with their distribution given one draw of all random effects from their distribution given the data
and the estimated parameters. Random effects drawn so and outcomes have, under the model, the joint distribution of the
model itself. Hence the residuals are uniform and independent, however few records a unit has; those at the means or modes
of the random effects, which the same outcomes have moved, would not be. At levels 2 and 3 the drawn effects themselves are
compared with their normal distribution.

With r = L v, tau = L L', and likewise at level 3, v and w have standard normal distributions without data. The draw begins
with the normal distribution about the empirical Bayes residuals,
    precision of v in a level-2 unit:   A = I + sum X2' W X2,     X2 = Z2 L2, W the information of a record
    of w and all v of a level-3 unit:   C = I + sum X3' W X3 beside the A, B = sum X2' W X3 between them
and is led to the exact one by Metropolis steps and exchanges between the levels, unless the outcome is normal, where it is exact.
"""
import math
import re
from types import SimpleNamespace

import numpy as np

from .document import DAMAGED, NOTHING, Refusal, equations, isintercept, outcomename, twolevel
from .files import randomeffects

SEED = 1
SWEEPS = 100
GROUPS = 10
TINY = 1e-7  # below the digits of a probability in a residual file
CATEGORIES = ("ordinal", "multinomial")


# ---- What the residual files tell

def valuesphase(run):
    """The phase whose values the residual files have."""
    phases = {phase["phase"]: phase for phase in run.document["phases"]}
    names = (run.phases.get(1), "final", "pql")
    return next((phases[name] for name in names if name in phases), None)


def factors(table, names):
    """The product of some variables in the level-1 residual file, record by record."""
    product = np.ones(len(table.rows))
    for name in names:
        if name not in table.names:
            raise Refusal(NOTHING, f"it needs the variable {name}, whose effect is random, in the level-1 residual file (RESFIL1:Y/{name})")
        product = product * np.array(table.column(name))
    return product


def roots(tau):
    """L of tau = L L', its inverse, 0 in directions without variance, and whether there are none. By way of the correlations:
    units don't matter."""
    deviations = np.sqrt(np.maximum(np.diag(tau), 0.0))
    inverse = np.divide(1.0, deviations, out=np.zeros_like(deviations), where=deviations > 0)
    values, vectors = np.linalg.eigh(tau * np.outer(inverse, inverse))
    some = values > 1e-6
    lengths = np.sqrt(np.where(some, values, 0.0))
    back = np.divide(1.0, lengths, out=np.zeros_like(lengths), where=some)
    return deviations[:, None] * vectors * lengths, (vectors * back).T * inverse, bool(some.all())


def level(run, number, records, phase):
    """Of a level: the unit of each record, and the effects before data, with what a record has of each."""
    all_ = equations(run.document)
    categories = list(dict.fromkeys(equation["category"] for equation in all_))
    found, coefficients = [], 0
    for equation in all_:
        for term in [{"variable": "INTRCPT2", "random": equation["random"]}] if number == 2 else equation["terms"]:
            if term["random"]:
                names = [name for name in (equation["variable"], term["variable"]) if not isintercept(name)]
                found.append((names, categories.index(equation["category"]), coefficients))
            coefficients += 1
    if not found:
        return None
    table = run.table(number)
    place = {name: i for i, name in enumerate(table.fullnames())}
    names = records.fullnames() if number == 2 or records.ids == 1 else records.at(0)
    try:
        unit = np.array([place[name] for name in names], dtype=int)
    except KeyError as error:
        raise Refusal(DAMAGED, f"{table.path} lacks the unit {error} of {records.path}")
    p, first = len(found), table.ids + 1
    estimates = np.column_stack([table.at(first + i) for i in range(p)])
    tau = np.array(phase["tau_pi" if number == 2 else "tau_beta"]["estimate"], dtype=float)
    root, inverse, full = roots(tau)
    design = np.zeros((len(unit), p, run.predictorcount))
    for i, (names, category, _) in enumerate(found):
        its = slice(None) if categories[0] is None else slice(category, category + 1)
        design[:, i, its] = factors(records, names)[:, None]
    fitted = [table.at(first + 2 * p + at) for _, _, at in found]
    return SimpleNamespace(unit=unit, count=len(table.rows), design=design, root=root, tau=tau, estimates=estimates, fitted=fitted,
                           start=estimates @ inverse.T, inverse=inverse if full else None, terms=[term[:2] for term in found],
                           names=randomeffects(run, number), number=number)


def outcome(run, records):
    """The outcome (of categories their place, from 0), its trials or exposure, and its predictors at the empirical Bayes
    residuals."""
    model = run.document["model"]
    kind = model["distribution"]
    if kind not in CATEGORIES:
        eta = np.array(records.column("FITVAL"))[:, None]
        y = np.array(records.column(model["outcome"])) if model["outcome"] in records.names else (
            np.array(records.column("FITVAL")) + records.column("L1RESID") if kind == "normal"
            else np.array(records.column("FITMU")) + records.column("RAWRES"))
        count = np.ones(len(y)) if not model["count_variable"] else factors(records, [model["count_variable"]])
        return y, count, eta
    places, marks = ([i for i, name in enumerate(records.names) if re.fullmatch(form, name)] for form in (r"L1RES_\d+", r"FITVAL_?\d+"))
    fitted = np.column_stack([records.at(i) for i in marks])
    reached = np.rint(fitted + np.column_stack([records.at(i) for i in places]))  # 1 at the category, of ordered ones from it on
    safe = np.clip(fitted, TINY, 1 - TINY)
    if kind == "ordinal":
        return (reached.shape[1] - reached.sum(1)).astype(int), None, np.log(safe / (1 - safe))
    last = np.clip(1 - fitted.sum(1, keepdims=True), TINY, None)
    return np.where(reached.any(1), reached.argmax(1), reached.shape[1]), None, np.log(safe / last)


# ---- Distributions of the outcome

def logistic(x):
    return 0.5 * (1 + np.tanh(0.5 * x))


def probabilities(kind, eta):
    """Of each category of a record."""
    if kind == "ordinal":
        cumulated = np.column_stack([np.zeros(len(eta)), logistic(eta), np.ones(len(eta))])
        return np.maximum(np.diff(cumulated, axis=1), 1e-300)
    full = np.column_stack([eta, np.zeros(len(eta))])
    full = np.exp(full - full.max(1, keepdims=True))
    return full / full.sum(1, keepdims=True)


def loglikelihood(a, eta):
    """Of each record, up to a constant."""
    if a.kind == "normal":
        return -0.5 * ((a.y - eta[:, 0]) / a.sigma) ** 2
    if a.kind == "poisson":
        return a.y * eta[:, 0] - a.count * np.exp(np.minimum(eta[:, 0], 700))
    if a.kind in CATEGORIES:
        return np.log(probabilities(a.kind, eta)[np.arange(len(eta)), a.y])
    return a.y * eta[:, 0] - a.count * np.logaddexp(0, eta[:, 0])


def information(a, eta):
    """Of each record about each of its predictors."""
    if a.kind == "normal":
        return a.sigma[:, None] ** -2
    if a.kind == "ordinal":  # all move together
        p = probabilities(a.kind, eta)
        upper = np.cumsum(p, 1)
        return np.repeat((p * (1 - 2 * upper + p) ** 2).sum(1, keepdims=True) / eta.shape[1], eta.shape[1], 1)
    if a.kind == "multinomial":
        p = probabilities(a.kind, eta)[:, :-1]
        return p * (1 - p)
    mu = np.exp(np.minimum(eta, 700)) if a.kind == "poisson" else logistic(eta)
    return a.count[:, None] * (mu if a.kind == "poisson" else mu * (1 - mu))


def cumulated(y, first, ratio):
    """P(less than y) and P(y or less) of counts with log P(0) = first and P(k) / P(k - 1) = ratio(k, records)."""
    order = np.argsort(-y, kind="stable")
    y, log = y[order], first[order].copy()
    below, upto = np.zeros(len(y)), np.exp(log)
    active = len(y)
    for k in range(1, int(y.max(initial=0)) + 1):
        active = int(np.searchsorted(-y, -k, side="right"))
        log[:active] += np.log(ratio(k, order[:active]))
        below[:active] = upto[:active]
        upto[:active] += np.exp(log[:active])
    back = np.argsort(order)
    return below[back], np.minimum(upto, 1)[back]


def ends(a, eta):
    """F just below the outcome of each record, and at it."""
    if a.kind in CATEGORIES:
        below = np.cumsum(np.column_stack([np.zeros(len(eta)), probabilities(a.kind, eta)]), 1)
        at = np.arange(len(eta))
        return below[at, a.y], np.minimum(below[at, a.y + 1], 1)
    x = eta[:, 0]
    if a.kind == "normal":
        both = normal((a.y - x) / a.sigma)
        return both, both
    y = np.rint(a.y).astype(int)
    if a.kind == "poisson":
        mu = a.count * np.exp(np.minimum(x, 700))
        return cumulated(y, -mu, lambda k, some: mu[some] / k)
    odds = np.exp(np.clip(x, -700, 700))
    return cumulated(y, -a.count * np.logaddexp(0, x), lambda k, some: np.maximum(a.count[some] - k + 1, 1e-300) / k * odds[some])


def normal(z):
    return np.array([0.5 * math.erfc(-x / math.sqrt(2)) for x in z])


# ---- The draw

def sums(unit, count, values):
    made = np.zeros((count,) + values.shape[1:])
    np.add.at(made, unit, values)
    return made


def transposedsolve(factor, noise):
    """Noise with the covariance (factor factor')^-1, unit by unit."""
    return np.linalg.solve(np.swapaxes(factor, -1, -2), noise[..., None])[..., 0]


def draw(run):
    """One draw of all random effects, with what belongs to it; made once for all pictures of a run."""
    if run.drawn is None:
        run.drawn = newdraw(run)
    return run.drawn


def newdraw(run):
    model = run.document["model"]
    weights = model["weights"]
    if any(weights[f"level{k}"] for k in (1, 2, 3)) or weights["known_variance"]:
        raise Refusal(NOTHING, "a model with design weights or known variances has no distribution to simulate from")
    records = run.table(1)
    if not records.rows:
        raise Refusal(NOTHING, "the level-1 residual file has no records")
    kind = model["distribution"]
    a = SimpleNamespace(kind=kind)
    a.y, a.count, eta = outcome(run, records)
    a.sigma = np.array(records.column("SIGMA")) if kind == "normal" else None
    run.predictorcount = eta.shape[1]
    phase = valuesphase(run)
    a.levels = [one for number in ((2,) if twolevel(run.document) else (2, 3)) if (one := level(run, number, records, phase))]
    for one in a.levels:  # from the effects to those of variance 1
        one.x = np.einsum("niq,ia->naq", one.design, one.root)
        one.v = one.start.copy()
    a.fixed = eta - sum(np.einsum("na,naq->nq", one.start[one.unit], one.x) for one in a.levels)
    a.fitted = eta
    noise = np.random.default_rng(SEED)
    begin(a, noise)
    if kind != "normal":
        metropolis(a, noise)
    a.eta = predictor(a)
    a.uniform = noise.random(len(a.y))
    for one in a.levels:
        one.effects = one.v @ one.root.T
    return a


def predictor(a):
    return a.fixed + sum(np.einsum("na,naq->nq", one.v[one.unit], one.x) for one in a.levels)


def begin(a, noise):
    """The draw from the normal distribution about the empirical Bayes residuals."""
    w = information(a, a.fitted)
    for one in a.levels:
        made = sums(one.unit, one.count, np.einsum("naq,nq,nbq->nab", one.x, w, one.x))
        one.factor = np.linalg.cholesky(made + np.eye(made.shape[1]))
    if len(a.levels) == 2:
        two, three = a.levels
        over = a.over = np.zeros(two.count, dtype=int)
        over[two.unit] = three.unit
        cross = sums(two.unit, two.count, np.einsum("naq,nq,nbq->nab", two.x, w, three.x))
        half = np.linalg.solve(two.factor, cross)
        precision = three.factor @ np.swapaxes(three.factor, 1, 2) - sums(over, three.count, np.swapaxes(half, 1, 2) @ half)
        move = transposedsolve(np.linalg.cholesky(precision), noise.standard_normal(three.v.shape))
        three.v += move
        two.v -= transposedsolve(two.factor, np.einsum("jab,jb->ja", half, move[over]))
        two.v += transposedsolve(two.factor, noise.standard_normal(two.v.shape))
    elif a.levels:
        one, = a.levels
        one.v += transposedsolve(one.factor, noise.standard_normal(one.v.shape))


def exchange(a, noise):
    """A step between the levels that leaves all predictors as they are: what effects of level 3 gain, those of the same variable
    in all its level-2 units lose. Its distribution is normal: of d, w + S d and v - R d, the precision is S'S + sum R'R."""
    two, three = a.levels
    both = [term for term in three.terms if term in two.terms]
    r = two.inverse[:, [two.terms.index(term) for term in both]]
    s = three.inverse[:, [three.terms.index(term) for term in both]]
    members = np.bincount(a.over, minlength=three.count)
    factor = np.linalg.cholesky(s.T @ s + members[:, None, None] * (r.T @ r))
    pull = sums(a.over, three.count, two.v) @ r - three.v @ s
    mean = np.linalg.solve(np.swapaxes(factor, 1, 2), np.linalg.solve(factor, pull[..., None]))[..., 0]
    d = mean + transposedsolve(factor, noise.standard_normal(mean.shape))
    three.v += d @ s.T
    two.v -= d[a.over] @ r.T


def metropolis(a, noise):
    eta = predictor(a)
    exchanged = len(a.levels) == 2 and all(one.inverse is not None for one in a.levels)
    log = loglikelihood(a, eta)
    for _ in range(SWEEPS):
        if exchanged:
            exchange(a, noise)
        for one in a.levels:
            move = transposedsolve(one.factor, noise.standard_normal(one.v.shape)) * 2.4 / math.sqrt(one.v.shape[1])
            tried = eta + np.einsum("na,naq->nq", move[one.unit], one.x)
            logtried = loglikelihood(a, tried)
            gain = np.bincount(one.unit, logtried - log, one.count) - 0.5 * ((one.v + move) ** 2 - one.v ** 2).sum(1)
            taken = np.log(noise.random(one.count)) < gain
            one.v[taken] += move[taken]
            of = taken[one.unit]
            eta[of], log[of] = tried[of], logtried[of]


# ---- What is drawn

def expected(a, eta):
    """The fitted value by which records are put in order: mean, of categories the mean of their places."""
    if a.kind in CATEGORIES:
        p = probabilities(a.kind, eta)
        return p @ np.arange(p.shape[1])
    x = eta[:, 0]
    return x if a.kind == "normal" else a.count * np.exp(np.minimum(x, 700)) if a.kind == "poisson" else a.count * logistic(x)


def residuals(run):
    """(level, label, [(fitted value, residual)]): each residual is uniform between 0 and 1 under the model. Of a level whose
    fitted value is the same in all units that value is None."""
    a = draw(run)
    below, upto = ends(a, a.eta)
    panels = [(1, "", list(zip(expected(a, a.eta), np.clip(below + a.uniform * (upto - below), 1e-12, 1 - 1e-12))))]
    for one in a.levels:
        for i, name in enumerate(one.names):
            if one.tau[i, i] > 0:
                fitted = one.fitted[i] if max(one.fitted[i]) > min(one.fitted[i]) else [None] * one.count
                panels.append((one.number, name, list(zip(fitted, normal(one.effects[:, i] / math.sqrt(one.tau[i, i]))))))
    return panels


def kolmogorov(residuals):
    """Greatest distance from the uniform distribution, and its p (Stephens 1970)."""
    u, n = np.sort(residuals), len(residuals)
    distance = max((np.arange(1, n + 1) / n - u).max(), (u - np.arange(n) / n).max())
    x = distance * (math.sqrt(n) + 0.12 + 0.11 / math.sqrt(n))
    p = 2 * sum((-1) ** (k - 1) * math.exp(-2 * (k * x) ** 2) for k in range(1, 101)) if x > 0.2 else 1.0
    return distance, min(max(p, 0.0), 1.0)


def calibration(run):
    """(label, [(predicted, observed, lower, upper)]) of groups of records in the order of the prediction: the mean, and where
    95% of the observed means lie under the model. Per trial, or unit of the exposure."""
    model = run.document["model"]
    if model["distribution"] == "normal":
        raise Refusal(NOTHING, "an outcome without categories, events or counts has no groups to compare")
    a = draw(run)
    if a.kind in CATEGORIES:
        p = probabilities(a.kind, a.eta)
        word = " at or below " if a.kind == "ordinal" else " = "
        if a.kind == "ordinal":
            p = np.cumsum(p, 1)[:, :-1]
        return [(outcomename(run.document) + word + model["categories"][c],
                 grouped(p[:, c], (a.y <= c) if a.kind == "ordinal" else (a.y == c), np.ones(len(a.y)), p[:, c] * (1 - p[:, c])))
                for c in range(p.shape[1])]
    x = a.eta[:, 0]
    mean = np.exp(np.minimum(x, 700)) if a.kind == "poisson" else logistic(x)
    variance = a.count * (mean if a.kind == "poisson" else mean * (1 - mean))
    return [("", grouped(mean, a.y, a.count, variance, math.inf if a.kind == "poisson" else 1.0))]


def grouped(mean, y, count, variance, most=1.0):
    made = []
    for some in np.array_split(np.argsort(mean, kind="stable"), min(GROUPS, len(mean))):
        total = count[some].sum()
        predicted, half = (mean * count)[some].sum() / total, 1.959963984540054 * math.sqrt(variance[some].sum()) / total
        made.append(tuple(map(float, (predicted, y[some].sum() / total, max(predicted - half, 0), min(predicted + half, most)))))
    return made
