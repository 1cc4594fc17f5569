"""The numbers of each picture."""
import math
import os
import re
import statistics

from .document import (DAMAGED, NOTHING, UNREADABLE, USAGE, Z95, Refusal, equations, errorsof, outcomename, readresults,
                       twolevel, warn, wholename)
from .files import randomeffects

def caterpillar(run, level):
    """Of each random effect: label, and (unit, estimate, lower, upper) in the order of the estimates."""
    if level == 3 and twolevel(run.document):
        raise Refusal(NOTHING, "the data have two levels")
    table = run.table(level)
    names, (p, m), units = randomeffects(run, level), run.shape(level), table.units()
    if not names:
        raise Refusal(NOTHING, f"the model has no random effect of level {level}")
    first = table.ids + 1
    panels = []
    for i, name in enumerate(names):
        effects = table.at(first + i)
        variances = table.at(first + 2 * p + 2 * m + i * (i + 3) // 2)  # the diagonal of a lower triangle by rows
        rows = [(unit, u, u - Z95 * math.sqrt(v), u + Z95 * math.sqrt(v))
                for unit, u, v in zip(units, effects, variances) if not math.isnan(u + v) and v >= 0]
        if len(rows) < len(units):
            warn(f"{len(units) - len(rows)} units without a posterior variance are not drawn")
        panels.append((name, sorted(rows, key=lambda row: row[1])))
    return panels


def quantiles(run, levels=(2, 3)):
    """Of each random effect: level, label, and (normal quantile, estimate) in order. The i-th of n estimates stands at
    the quantile of (i - 1/2) / n."""
    panels, refused = [], None
    for level in levels[:1] if twolevel(run.document) else levels:
        try:
            panels += [(level, name, rows) for name, rows in caterpillar(run, level)]
        except Refusal as refusal:
            if refusal.code == DAMAGED:
                raise
            if refusal.code == UNREADABLE:
                warn(str(refusal))
            refused = refused or refusal
    if not panels:
        raise refused
    normal = statistics.NormalDist()
    return [(level, name, [(normal.inv_cdf((i + 0.5) / len(rows)), row[1]) for i, row in enumerate(rows)])
            for level, name, rows in panels]


def residuals(run):
    """Label (of the category, if any) and (fitted value, residual) of each record. The fitted values of categories are
    probabilities, those of other outcomes stand on the scale of the link."""
    table = run.table(1)
    panels = []
    for i, name in enumerate(table.names):
        if re.fullmatch(r"L1RESID|L1RES_\d+", name):
            fitted = "FITVAL" if name == "L1RESID" else "FITVAL_" + name[6:]
            if fitted not in table.names:
                fitted = fitted.replace("_", "")  # the short form of the name
            model, title = run.document["model"], ""
            if name != "L1RESID":
                if int(name[6:]) > len(model["categories"]):
                    raise Refusal(DAMAGED, f"{run.path} is damaged: it has fewer categories than {table.path}")
                title = (outcomename(run.document) + (" at or below " if model["distribution"] == "ordinal" else " = ")
                         + model["categories"][int(name[6:]) - 1])
            panels.append((title, list(zip(table.column(fitted), table.at(i)))))
    return panels


def shownamong(phase, intercept):
    return [effect for effect in phase["fixed_effects"] if intercept or iseffect(effect)] or phase["fixed_effects"]


def ofsubruns(run, phase, intercept=False, ratio=False):
    """Of averages: the estimates of each sub-run whose document is there, in the order of coefficients(); and how many
    are not there."""
    names = [one["results"] for one in (run.document["series"] or {}).get("subruns", ())]
    wanted = {"average": (phase.get("estimates_of"), "final", "pql"), "average_population_average": ("population_average",)}
    made = []
    for name in filter(None, names):
        try:
            document = readresults(os.path.join(run.folder, name))
        except Refusal as refusal:
            warn(f"without sub-run: {refusal}")
            continue
        phases = {one["phase"]: one for one in document["phases"]}
        one = next((phases[key] for key in wanted.get(phase["phase"], ()) if key in phases), None)
        if one and len(one["fixed_effects"]) == len(phase["fixed_effects"]):
            made.append([effect.get("ratio" if ratio else "estimate") for effect in shownamong(one, intercept)])
    return made, len(names) - len(made)


LARGEST = 1e100  # differences and squares of larger numbers leave the range of a double


def iseffect(effect):
    """Neither an intercept nor a threshold, beside whose size the others cannot be seen."""
    return bool(effect["variables"]) and not effect["threshold"]


def coefficients(document, phase, robust=False, intercept=False, ratio=False):
    """(label, estimate, lower, upper) of each fixed effect, and which standard errors the intervals rest on. Intercepts and
    thresholds are among them where they are asked for, or where there is nothing else."""
    side = errorsof(phase, robust)
    rows, without = [], []
    for effect in shownamong(phase, intercept):
        test = effect[side] or {}
        key = "ratio" if ratio else "estimate"
        if ratio and "ratio" not in effect:
            raise Refusal(NOTHING, f"the effects of the phase {phase['phase']} have no odds or event-rate ratios")
        low, high = test.get("ratio_interval" if ratio else "interval") or (None, None)
        if None in (effect[key], low, high):
            without.append(effect["label"])
        else:
            rows.append((effect["label"], effect[key], low, high))
    if not rows:
        raise Refusal(NOTHING, f"the phase {phase['phase']} has no intervals by {side.replace('_', '-')} standard errors")
    if any(abs(number) > LARGEST for row in rows for number in row[1:]):
        raise Refusal(NOTHING, f"the effects of the phase {phase['phase']} are too large to draw")
    if without:
        warn(f"not drawn, since they have no interval: {', '.join(without)}")
    return rows, side


def pickunits(table, wanted):
    """Rows of the units with these names (ID, or level-3 ID/level-2 ID)."""
    rows = []
    for name in wanted:
        found = [i for i, names in enumerate(zip(table.at(table.ids - 1), table.fullnames()))
                 if name.upper() in (names[0].upper(), names[1].upper())]
        if not found:
            raise Refusal(USAGE, f"there is no unit {name} in {table.path}")
        if len(found) > 1:
            raise Refusal(USAGE, f"several units are called {name}" + "; give level-3 ID/level-2 ID" * (table.ids > 1))
        rows += found
    return rows


def lines(run, units=None, predictor=None, category=None, most=8):
    """The fitted line of each chosen level-2 unit as (unit, (x, y), (x, y)), that of the mean coefficients, and what the
    other predictors are held at, and the category. Without units the `most` ones with most records."""
    table = run.table(2)
    all_ = equations(run.document)
    categories = list(dict.fromkeys(equation["category"] for equation in all_)) or [None]
    if category is None:
        category = categories[0]
    if category not in categories:
        raise Refusal(USAGE, f"there is no category {category}" + (f"; there are {', '.join(categories)}" if categories[0] else ""))
    mine = [(i, equation) for i, equation in enumerate(all_) if equation["category"] == category]
    slopes = {equation["variable"]: i for i, equation in mine if equation["variable"] != "INTRCPT1"}
    if not slopes or not table.rows:
        raise Refusal(NOTHING, "the model has no level-1 predictor to draw lines over")
    if predictor is None:
        predictor = next((e["variable"] for _, e in mine if e["random"] and e["variable"] in slopes), next(iter(slopes)))
    predictor = next((name for name in slopes if predictor in (name, wholename(run.document, 1, name))), predictor)
    if predictor not in slopes:
        raise Refusal(USAGE, f"{predictor} is no level-1 predictor of the model; these are: {', '.join(slopes)}")

    records = run.tables.get(1)
    values = {name: records.column(name) for name in slopes if records and name in records.names}
    if predictor not in values and predictor not in run.predictors:
        raise Refusal(NOTHING, f"the lines need the range of {predictor}: let the run repeat it in the level-1 residual file "
                               f"(RESFIL1:Y/{predictor}) or write a graph data file (GRAPHGAMMAS:)")
    held = {}
    for name in slopes:
        if name != predictor:
            known = [x for x in values.get(name, []) if not math.isnan(x)]
            held[name] = statistics.fmean(known) if known else run.predictors.get(name, (0.0,))[0]

    p, m = run.shape(2)
    first = table.ids + 1 + 2 * p + m
    names = table.units()
    if units:
        chosen = pickunits(table, units)
    else:
        chosen = sorted(sorted(range(len(names)), key=lambda i: -table.at(table.ids)[i])[:most])
    spans = {}
    if any(not math.isnan(x) for x in values.get(predictor, [])):
        for unit, x in zip(records.fullnames(), values[predictor]):
            if not math.isnan(x):
                low, high = spans.get(unit, (x, x))
                spans[unit] = min(low, x), max(high, x)
        whole = min(s[0] for s in spans.values()), max(s[1] for s in spans.values())
    elif predictor in run.predictors:
        whole = run.predictors[predictor][1:]
    else:
        raise Refusal(NOTHING, f"no record has a value of {predictor}")

    def line(values, span):
        base = sum(values[i] * held.get(equation["variable"], 1.0) for i, equation in mine
                   if equation["variable"] != predictor)
        return tuple((x, base + values[slopes[predictor]] * x) for x in span)

    fitted, fullnames = [table.at(first + i) for i in range(m)], table.fullnames()
    drawn = [(names[i], *line([column[i] for column in fitted], spans.get(fullnames[i], whole))) for i in chosen]
    means = [statistics.fmean(column) for column in fitted]
    ends = [x for _, *points in drawn for x, _ in points]
    return predictor, drawn, line(means, (min(ends), max(ends))), held, category
