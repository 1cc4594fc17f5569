"""Predicted margins and profiles of the likelihood: their numbers, and how they are drawn."""
import itertools
import math
import textwrap
import typing

from .canvas import BLUE, GREY, PALETTE, figure
from .digits import interval, shown
from .document import NOTHING, USAGE, Z95, Refusal, outcomename

MOST = 4  # combinations of the other values that are drawn


# ---- Margins

def value(row, name):
    return float(row[name]) if row[name] else math.nan


def isnumber(text):
    try:
        return math.isfinite(float(text))
    except ValueError:
        return False


def tableof(run, quantity):
    """The rows of a quantity in the table of -margins, and the names of its grid."""
    run.read()
    if run.margins is None:
        raise Refusal(NOTHING, "the run made no table of predicted margins (-margins 'NAME=VALUE,VALUE; NAME')")
    rows, grid = run.margins
    return [row for row in rows if row["quantity"] == quantity], grid


def columnof(run, rows):
    return "average" if run.nonlinear and all(row["average"] for row in rows) else "response"


def effects(run):
    """(label, estimate, lower, upper) of the average marginal effects over the records as they are."""
    rows, grid = tableof(run, "effect")
    rows = [row for row in rows if not any(row[name] for name in grid)]
    if not rows:
        raise Refusal(NOTHING, "the table of predicted margins has no average marginal effects (-margins 'NAME')")
    column = columnof(run, rows)
    label = lambda row: row["variable"] + (f" ({row['contrast']})" if row["contrast"] not in ("", "slope") else "") + (
        f", category {row['category']}" if row["category"] else "")
    return [(label(row), *(value(row, column + ending) for ending in ("", "_low", "_high"))) for row in rows]


def margins(run, predictor=None):
    """The variable of the axis, and of each combination of the others and each category the points (x, estimate, lower,
    upper): {(combination, category): [point]}; then the column that they are from."""
    rows, grid = tableof(run, "margin")
    rows = [row for row in rows if any(row[name] for name in grid)]
    if not rows:
        raise Refusal(NOTHING, "the table of predicted margins has no grid of values (-margins 'NAME=VALUE,VALUE')")
    several = [name for name in grid if len({row[name] for row in rows}) > 1] or grid
    if predictor is not None and predictor not in grid:
        raise Refusal(USAGE, f"{predictor} is not in the grid of the predicted margins, which has {', '.join(grid)}")
    axis = predictor or next((name for name in several if all(isnumber(row[name]) for row in rows)), several[0])
    column, found = columnof(run, rows), {}
    for row in rows:
        others = ", ".join(f"{name} = {row[name]}" for name in several if name != axis)
        found.setdefault((others, row["category"]), []).append(
            (row[axis], *(value(row, column + ending) for ending in ("", "_low", "_high"))))
    return axis, found, column


def places(points):
    """Where points stand on the axis: at their numbers, or side by side; and whether they have numbers."""
    numeric = len(points) > 1 and all(isnumber(point[0]) for point in points)
    return [float(point[0]) for point in points] if numeric else list(range(len(points))), numeric


def ticks(ax, points):
    """At the values themselves, unless they are many numbers."""
    xs, numeric = places(points)
    if not numeric or len(points) <= 6:
        ax.set_xticks(xs, [point[0] for point in points])


def bandedlines(ax, series, shift):
    """Lines with bands, of names points with intervals."""
    ticks(ax, series[0][1])
    for i, (name, points) in enumerate(series):
        colour, marker = PALETTE[i % len(PALETTE)], "os^Dv<>P"[i % 8]
        xs, numeric = places(points)
        low, high = [p[2] for p in points], [p[3] for p in points]
        if numeric:
            order = sorted(range(len(xs)), key=xs.__getitem__)
            xs, low, high, ys = ([some[k] for k in order] for some in (xs, low, high, [p[1] for p in points]))
            ax.fill_between(xs, low, high, color=colour, alpha=0.18, linewidth=0)
            ax.plot(xs, ys, color=colour, marker=marker, markersize=3.5, linewidth=1.4, label=name)
        else:
            xs = [x + shift * (i - (len(series) - 1) / 2) for x in xs]
            ax.vlines(xs, low, high, color=colour, linewidth=1.6)
            ax.plot(xs, [p[1] for p in points], marker, color=colour, markersize=4.5, label=name)


def stacked(ax, series):
    """Probabilities of the categories, one on the other."""
    xs, numeric = places(series[0][1])
    order = sorted(range(len(xs)), key=xs.__getitem__)
    base = [0.0] * len(order)
    for i, (name, points) in enumerate(series):
        top = [b + points[k][1] for b, k in zip(base, order)]
        colour, hatch = PALETTE[i % len(PALETTE)], ("", "///", "...", "\\\\\\", "xxx", "ooo")[i % 6]
        if numeric:
            ax.fill_between([xs[k] for k in order], base, top, facecolor=colour, alpha=0.75, hatch=hatch, edgecolor="white", linewidth=0.4, label=name)
        else:
            ax.bar(xs, [t - b for t, b in zip(top, base)], bottom=base, width=0.7, color=colour, alpha=0.75, hatch=hatch, edgecolor="white", label=name)
        base = top
    ticks(ax, series[0][1])
    ax.set_ylim(0, 1)
    ax.margins(x=0)


def drawmargins(run, predictor=None, title=""):
    axis, found, column = margins(run, predictor)
    model = run.document["model"]
    combinations = list(dict.fromkeys(others for others, _ in found))
    categories = list(dict.fromkeys(category for _, category in found))
    mean = "\n(mean over the random effects)" if column == "average" else "\n(random effects of 0)" if run.nonlinear else ""
    beside = dict(loc="upper left", bbox_to_anchor=(1.0, 1.0))
    if len(categories) == 1:
        drawing, (ax,) = figure(1, 3.4, title)
        bandedlines(ax, [(others, found[others, categories[0]]) for others in combinations], 0.15)
        ax.set_title("Predicted margins, 95% intervals")
        ax.set_xlabel(axis)
        ax.set_ylabel({"normal": "Mean of ", "poisson": "Mean count of "}.get(model["distribution"], "Probability of ") + outcomename(run.document) + mean)
        if combinations != [""]:
            ax.legend(**(beside if len(combinations) > 3 else {}))
        return drawing
    chosen = combinations[:MOST]
    drawing, axes = figure(2 * len(chosen), 2.5, title)
    for i, others in enumerate(chosen):
        series = [(category, found[others, category]) for category in categories]
        top, below = axes[2 * i:2 * i + 2]
        stacked(top, series)
        bandedlines(below, series, 0.15)
        for ax in (top, below):
            ax.set_xlabel(axis)
            ax.set_ylabel(("Probability" if ax is below else "Probabilities, summed") + mean)
            ax.legend(title=outcomename(run.document), title_fontsize=8, **beside)
        top.set_title(others or "Predicted margins")
        below.set_title("95% intervals")
    if len(chosen) < len(combinations):
        drawing.supxlabel(f"{len(combinations) - MOST} more combinations are not drawn", fontsize=8, color=GREY)
    drawing.align_ylabels(axes)
    return drawing


def draweffects(run, title=""):
    rows = effects(run)
    drawing, (ax,) = figure(1, 1.0 + 0.28 * len(rows), title)
    at = list(range(len(rows), 0, -1))
    ax.hlines(at, [row[2] for row in rows], [row[3] for row in rows], color=BLUE, linewidth=1.6)
    ax.plot([row[1] for row in rows], at, "o", color=BLUE, markersize=4.5)
    ax.axvline(0, color=GREY, linewidth=0.8)
    ax.set_yticks(at, [row[0] for row in rows])
    ax.set_ylim(0.4, len(rows) + 0.6)
    ax.set_title("Average marginal effects")
    ax.set_xlabel("Change of the " + {"normal": "mean", "poisson": "mean count"}.get(run.document["model"]["distribution"], "probability")
                  + f" of {outcomename(run.document)}, 95% interval")
    return drawing


def describedeffects(run):
    return "; ".join(f"{name} {shown(estimate)} ({interval([low, high])})" for name, estimate, low, high in effects(run))


def describedmargins(run, predictor=None):
    axis, found, _ = margins(run, predictor)
    told = [f"{', '.join(filter(None, (others, category and f'category {category}')))}{' ' * bool(others or category)}from "
            f"{shown(points[0][1])} ({interval(points[0][2:])}) at {points[0][0]} to {shown(points[-1][1])} ({interval(points[-1][2:])}) at {points[-1][0]}"
            for (others, category), points in itertools.islice(found.items(), 12)]
    return f"over {axis}: " + "; ".join(told)


# ---- Profiles

class Profile(typing.NamedTuple):
    name: str
    estimate: float
    error: float  # standard error, or None
    low: float  # ends of the interval: one that was not found, or lies at the edge of what is possible, is None
    high: float
    curve: list  # points (value, zeta), zeta the signed root of twice the drop of the log-likelihood

    def known(self):
        """The points that the interval alone has."""
        return [(x, z) for x, z in ((self.low, -Z95), (self.estimate, 0.0), (self.high, Z95)) if x is not None]


def profiles(document, phase):
    """The profiles that were found: of fixed effects, standard deviations and correlations. A document of an earlier version has no
    points of the curve but those of the interval."""
    found = phase.get("profile_intervals")
    if not found:
        raise Refusal(NOTHING, f"the phase {phase['phase']} has no profile of the likelihood (PROFILE:Y in the command file)")
    curves, rows = found.get("curves") or {}, []

    def add(name, estimate, error, bounds, curve):
        if estimate is not None and bounds and bounds != [None, None]:
            rows.append(Profile(name, estimate, error, *bounds, curve or ()))

    def deviation(name, variance, error, bounds, curve):
        root = math.sqrt(max(variance or 0.0, 0.0))
        add(name, root, error / (2 * root) if error and root else None, bounds and [b if b is None or b > 0 else None for b in bounds],
            [(math.sqrt(max(x, 0.0)), z) for x, z in curve or ()])

    def matrices(level, key):
        tau, its, points = phase[key], found.get(key), curves.get(key)
        if not tau or not its:
            return
        names, n = [row["label"] for row in tau["rows"]], len(tau["rows"])
        for i in range(n):
            deviation(f"SD: {names[i]}, level {level}", tau["estimate"][i][i], tau["standard_error"] and tau["standard_error"][i][i],
                      its["standard_deviation"][i], points and points["variance"][i])
        for i in range(n):
            for k in range(i):
                if its["correlation"][i][k] and tau["correlation"]:
                    add(f"Correlation: {names[k]} and {names[i]}, level {level}", tau["correlation"][i][k], None,
                        [None if b is None or abs(b) >= 1 else b for b in its["correlation"][i][k]], points and points["correlation"][i][k])

    effects = phase["fixed_effects"]
    for effect, bounds, curve in zip(effects, found.get("fixed_effects") or (), curves.get("fixed_effects") or [None] * len(effects)):
        add(effect["label"], effect["estimate"], (effect["model_based"] or {}).get("standard_error"), bounds, curve)
    matrices(3, "tau_beta")
    matrices(2, "tau_pi")
    sigma2 = phase["sigma2"]
    if sigma2 and found.get("sigma2"):
        deviation("SD: level 1", sigma2["estimate"], sigma2["standard_error"], [b and math.sqrt(b) for b in found["sigma2"]], curves.get("sigma2"))
    if not rows:
        raise Refusal(NOTHING, f"no profile of the phase {phase['phase']} was found")
    return rows


def drawprofiles(run, phase, title=""):
    rows = profiles(run.document, phase)
    drawing, axes = figure(len(rows), 1.7, title, columns=2)
    for ax, row in zip(axes, rows):
        points, known = zip(*(row.curve or row.known())), row.known()
        for z in (-Z95, 0.0, Z95):
            ax.axhline(z, color=GREY, linewidth=0.5 if z else 0.8, linestyle=":" if z else "-")
        if row.error:
            ax.plot([row.estimate - Z95 * row.error, row.estimate + Z95 * row.error], [-Z95, Z95], color=GREY, linestyle="--", linewidth=1)
        ax.plot(*points, color=BLUE, linewidth=1.4)
        ax.plot(*zip(*known), color=BLUE, marker="o", markersize=3.5, linestyle="none")
        ax.vlines([x for x, z in known if z], -2.6, [z for _, z in known if z], color=BLUE, linewidth=0.6, linestyle=":")
        ax.set_title(textwrap.fill(row.name, 32), fontsize=8)
        ax.set_ylim(-2.6, 2.6)
        ax.tick_params(labelsize=7)
        ax.locator_params(axis="x", nbins=4)
    drawing.supylabel("Signed root of the likelihood ratio", fontsize=8)
    drawing.supxlabel("points: estimate and ends of the 95% profile interval; dashed: by the standard error", fontsize=8, color=GREY)
    return drawing


def describedprofiles(run, phase):
    end = lambda x: "none" if x is None else shown(x)
    return "; ".join(f"{row.name} {shown(row.estimate)}, from {end(row.low)} to {end(row.high)}" for row in profiles(run.document, phase))
