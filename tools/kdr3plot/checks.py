"""Pictures that check a model: simulated residuals, observed against predicted values."""
import statistics

from .canvas import BLUE, GREY, MANY, RED, figure, unitsname
from .digits import shown
from .document import UNREADABLE, Refusal, outcomename


def numbers():
    try:
        from . import simulated
    except ImportError:
        raise Refusal(UNREADABLE, "numpy is missing (Debian package python3-numpy, which python3-matplotlib brings)")
    return simulated


STRIPES = 10  # of the records in the order of the fitted value, in which quartiles are drawn


def drawsimulated(run, title=""):
    simulated = numbers()
    panels = simulated.residuals(run)
    drawing, axes = figure(2 * len(panels), 2.5, title, columns=2)
    for (level, name, points), left, right in zip(panels, axes[::2], axes[1::2]):
        us = sorted(u for _, u in points)
        n, many = len(us), len(us) > MANY
        left.plot([0, 1], [0, 1], color=GREY, linewidth=0.8)
        left.plot([(i + 0.5) / n for i in range(n)], us, "o", color=BLUE, markersize=1.6 if many else 2.6, markeredgewidth=0, rasterized=many)
        left.set_title(name or f"{n} records")
        left.set_xlabel("Uniform quantile")
        left.set_ylabel("Simulated residual" if level == 1 else f"{n} {unitsname(level, n)}")
        left.text(0.04, 0.95, f"Kolmogorov–Smirnov\np {pvalue(simulated.kolmogorov(us)[1])}", transform=left.transAxes, fontsize=7, va="top")
        for ax in (left, right):
            ax.set_xlim(-0.02, 1.02)
            ax.set_ylim(-0.02, 1.02)
        against(right, level, points)
    drawing.align_ylabels(axes[::2])
    drawing.supxlabel(drawn(simulated), fontsize=8, color=GREY)
    return drawing


def drawn(simulated):
    return f"one draw of the random effects given the data, seed {simulated.SEED}"


def pvalue(p):
    return "< 0.001" if p < 0.001 else f"= {p:.3f}"


def against(ax, level, points):
    """Residuals over the ranks of the fitted values, with their quartiles in stripes of these."""
    if points[0][0] is None:
        ax.text(0.5, 0.5, "one fitted value\nfor all units", ha="center", va="center", color=GREY, fontsize=8)
        ax.set_axis_off()
        return
    ordered = [u for _, u in sorted(points, key=lambda point: point[0])]
    n, many = len(ordered), len(ordered) > MANY
    ax.plot([(i + 0.5) / n for i in range(n)], ordered, "o", color=BLUE, markersize=1.4 if many else 2.4, markeredgewidth=0,
            alpha=max(0.05, min(0.6, 800 / n)), rasterized=many)
    for share in (0.25, 0.5, 0.75):
        ax.axhline(share, color=GREY, linewidth=0.8)
    stripes = [ordered[n * k // STRIPES:n * (k + 1) // STRIPES] for k in range(STRIPES)] if n >= 10 * STRIPES else []
    quartiles = [statistics.quantiles(some, method="inclusive") for some in stripes]
    for i in range(3 if stripes else 0):
        ax.plot([(k + 0.5) / STRIPES for k in range(STRIPES)], [q[i] for q in quartiles], color=RED, linewidth=1.2)
    ax.set_xlabel("Rank of the fitted value" if level == 1 else "Rank of the fitted coefficient")
    if stripes:
        ax.set_title("red: quartiles", fontweight="normal", fontsize=8, color=GREY)


def drawcalibration(run, title=""):
    panels = numbers().calibration(run)
    model = run.document["model"]
    drawing, axes = figure(len(panels), 3.4 if len(panels) == 1 else 2.6, title)
    what = {"poisson": "count for an exposure of 1" if model["count_variable"] else "count", "binomial": "proportion"}.get(
        model["distribution"], "probability")
    for ax, (name, groups) in zip(axes, panels):
        ends = [min(min(group) for group in groups), max(max(group) for group in groups)]
        ax.plot(ends, ends, color=GREY, linewidth=0.8)
        for predicted, observed, low, high in groups:
            ax.plot([predicted, predicted], [low, high], color=BLUE, alpha=0.45, linewidth=3, solid_capstyle="butt")
        for out, colour in ((False, BLUE), (True, RED)):
            some = [group for group in groups if (group[2] <= group[1] <= group[3]) != out]
            ax.plot([group[0] for group in some], [group[1] for group in some], "sD"[out], color=colour, markersize=4.5)
        ax.set_title(name or outcomename(run.document))
        ax.set_xlabel(f"Predicted {what}, {len(groups)} groups of records")
        ax.set_ylabel(f"Observed {'share' if what == 'probability' else what}")
    drawing.supxlabel(drawn(numbers()), fontsize=8, color=GREY)
    return drawing


def describedsimulated(run):
    simulated = numbers()
    return "; ".join(f"{name + ', ' if name else ''}{len(points)} {'records' if level == 1 else unitsname(level, len(points))}, "
                     f"Kolmogorov–Smirnov p {pvalue(simulated.kolmogorov([u for _, u in points])[1])}"
                     for level, name, points in simulated.residuals(run))


def describedcalibration(run):
    return "; ".join(f"{name + ': ' if name else ''}observed " + ", ".join(
        f"{shown(observed)} for {shown(predicted)}" for predicted, observed, _, _ in groups) + f" ({outside(groups)} of {len(groups)} outside 95%)"
        for name, groups in numbers().calibration(run))


def outside(groups):
    return sum(not low <= observed <= high for _, observed, low, high in groups)
