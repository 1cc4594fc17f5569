"""Drawing: one function for each kind of picture."""
import math
import statistics
import textwrap

from .canvas import BLUE, FEW, GREY, LIGHT, MANY, PALETTE, RED, figure, sheet, unitsname
from .checks import describedcalibration, describedsimulated, drawcalibration, drawsimulated
from .digits import interval, shown
from .document import USAGE, Refusal, choosephase, outcomename, phasename, wholename
from .model import rationame
from .predicted import describedeffects, describedmargins, describedprofiles, draweffects, drawmargins, drawprofiles
from .values import caterpillar, coefficients, lines, ofsubruns, pickunits, quantiles, residuals, shownamong

OUTERMOST = 3  # of many units, so many are named at each end


def panelsof(run, level, effect):
    """The random effects of a level, or the one of this name."""
    return [panel for panel in caterpillar(run, level) if effect in (None, panel[0])]


def drawcaterpillar(run, level, units=None, title="", effect=None):
    panels = panelsof(run, level, effect)
    marked = set(run.table(level).units()[i] for i in pickunits(run.table(level), units)) if units else set()
    drawing, axes = figure(len(panels), 2.8, title)
    for ax, (name, rows) in zip(axes, panels):
        few = len(rows) <= FEW
        size = 4 if few else 2.2 if len(rows) <= 300 else 1
        # One path for all intervals: an SVG stays small.
        xs = [x for i in range(1, len(rows) + 1) for x in (i, i, math.nan)]
        ys = [y for row in rows for y in (row[2], row[3], math.nan)]
        ax.plot(xs, ys, color=LIGHT, linewidth=2 if few else max(0.25, min(1.4, 250 / len(rows))), solid_capstyle="butt",
                rasterized=len(rows) > MANY)
        ax.axhline(0, color=GREY, linewidth=0.8)
        ax.plot(range(1, len(rows) + 1), [row[1] for row in rows], "o", markersize=size, color=BLUE, markeredgewidth=0,
                rasterized=len(rows) > MANY)
        last, step = -math.inf, 0
        for i, (unit, u, low, high) in enumerate(rows, 1):
            if unit in marked:
                ax.plot([i, i], [low, high], color=RED, linewidth=1.6)
                ax.plot([i], [u], "o", color=RED, markersize=4)
                step = step + 1 if i - last < 0.1 * len(rows) else 0  # a line higher where the name before is near
                ax.annotate(unit, (i, high), xytext=(0, 3 + 10 * step), textcoords="offset points", color=RED, fontsize=8,
                            ha="center", bbox={"facecolor": "white", "edgecolor": "none", "alpha": 0.85, "pad": 0.3})
                last = i
        if few:
            ax.set_xticks(range(1, len(rows) + 1), [row[0] for row in rows], rotation=90, fontsize=7)
        elif not marked:
            for side, some in (("left", rows[:OUTERMOST]), ("right", rows[::-1][:OUTERMOST])):
                ax.text(0.02 if side == "left" else 0.98, 0.97 if side == "left" else 0.03, ("lowest: " if side == "left" else "highest: ")
                        + ", ".join(row[0] for row in some), transform=ax.transAxes, fontsize=7, color=GREY, ha=side,
                        va="top" if side == "left" else "bottom")
        ax.set_title(name)
        ax.set_xlabel(f"{len(rows)} {unitsname(level, len(rows))}, in order of the random effect")
        ax.set_ylabel("Random effect, 95% interval")
        ax.margins(x=0.02)
    drawing.align_ylabels(axes)
    return drawing


def drawlines(run, units=None, predictor=None, category=None, title=""):
    predictor, drawn, mean, held, category = lines(run, units, predictor, category)
    drawing, (ax,) = figure(1, 3.6, title)
    for i, (unit, *ends) in enumerate(drawn):
        colour = PALETTE[i % len(PALETTE)] if len(drawn) <= len(PALETTE) else LIGHT
        ax.plot([x for x, _ in ends], [y for _, y in ends], color=colour, linewidth=1.4 if len(drawn) <= 40 else 0.6,
                marker="os^Dv<>P"[i % 8] if len(drawn) <= len(PALETTE) else None, markersize=3.5,
                label=unit if len(drawn) <= len(PALETTE) else "")
    count = len(run.table(2).rows)
    ax.plot([x for x, _ in mean], [y for _, y in mean], color="black", linestyle="--", linewidth=1.4,
            label=f"mean of all {count}")
    ax.set_xlabel("\n".join([wholename(run.document, 1, predictor)] + textwrap.wrap("held: " * bool(held) + ", ".join(
        f"{wholename(run.document, 1, name)} at {value:.3g}" for name, value in held.items()), 46)))
    ax.set_ylabel(scale(run))
    ax.set_title(f"{len(drawn)} {unitsname(2, len(drawn))}" + (f", category {category}" if category else ""))
    ax.legend(title="level-2 unit", title_fontsize=8, loc="upper left", bbox_to_anchor=(1.0, 1.0))
    return drawing


def scale(run):
    model = run.document["model"]
    if not run.nonlinear:
        return f"Fitted {outcomename(run.document)}"
    first = f" at or below {model['categories'][0]}" if model["distribution"] == "ordinal" else ""
    return f"Linear predictor of {outcomename(run.document)}{first}\n({model['link']} link)"


def drawresiduals(run, title=""):
    panels = residuals(run)
    drawing, axes = figure(len(panels), 3.2 if len(panels) == 1 else 2.4, title)
    for ax, (name, points) in zip(axes, panels):
        many = len(points) > MANY
        ax.plot([x for x, _ in points], [y for _, y in points], "o", color=BLUE, markeredgewidth=0,
                markersize=1.4 if many else 2.6, alpha=0.25 if many else 0.6, rasterized=many)
        ax.axhline(0, color=GREY, linewidth=0.8)
        ax.set_title(name or f"{len(points)} records")
        ax.set_xlabel("Fitted probability" if name else scale(run))
        ax.set_ylabel("Observed (0 or 1) less fitted" if name else "Working residual" if run.nonlinear else "Level-1 residual")
    return drawing


def drawqq(run, units=None, title=""):
    panels = quantiles(run)
    found = {level: namedunits(run, level, units) for level in {level for level, _, _ in panels}}
    if units and not any(found.values()):
        raise Refusal(USAGE, f"there is no unit {', '.join(units)}")
    drawing, axes = figure(len(panels), 3.0, title)
    for ax, (level, name, points) in zip(axes, panels):
        ys = [y for _, y in points]
        ax.plot([x for x, _ in points], ys, "o", color=BLUE, markersize=2.6 if len(ys) <= 300 else 1.6, markeredgewidth=0,
                rasterized=len(ys) > MANY)
        if len(ys) > 3:  # the line through the quartiles of both
            low, _, high = statistics.quantiles(ys, method="inclusive")
            slope = (high - low) / (2 * statistics.NormalDist().inv_cdf(0.75))
            ax.axline((0, (low + high) / 2), slope=slope, color=GREY, linewidth=0.8)
        order = [row[0] for row in dict(caterpillar(run, level))[name]]
        for unit, (x, y) in zip(order, points):
            if unit in found[level]:
                ax.plot([x], [y], "o", color=RED, markersize=4)
                ax.annotate(unit, (x, y), xytext=(4, -8), textcoords="offset points", color=RED, fontsize=8)
        ax.set_title(f"{name}, {len(ys)} {unitsname(level, len(ys))}")
        ax.set_xlabel("Standard normal quantile")
        ax.set_ylabel("Random effect")
    drawing.align_ylabels(axes)
    return drawing


def namedunits(run, level, units):
    """The units of a level with these names; a name may be one of another level."""
    found = set()
    for unit in units or ():
        try:
            found.update(run.table(level).units()[i] for i in pickunits(run.table(level), [unit]))
        except Refusal as refusal:
            if refusal.code != USAGE:
                raise
    return found


def drawcoefficients(run, phase, robust=False, intercept=False, ratio=False, title=""):
    rows, side = coefficients(run.document, phase, robust, intercept, ratio)
    parts, _ = ofsubruns(run, phase, intercept, ratio)
    shown = [effect["label"] for effect in shownamong(phase, intercept)]
    drawing, (ax,) = figure(1, 0.9 + 0.28 * len(rows), title)
    places = range(len(rows), 0, -1)
    for place, (name, estimate, low, high) in zip(places, rows):
        ax.plot([low, high], [place, place], color=BLUE, linewidth=1.6, solid_capstyle="butt")
        ax.plot([estimate], [place], "o", color=BLUE, markersize=4.5)
        some = [part[shown.index(name)] for part in parts if part[shown.index(name)] is not None]
        if some:  # below the average
            ax.plot(some, [place - 0.22] * len(some), "o", color=RED, markersize=2.6, markeredgewidth=0, alpha=0.7)
    ax.axvline(1 if ratio else 0, color=GREY, linewidth=0.8)
    if ratio:
        ax.set_xscale("log")
        from matplotlib.ticker import LogLocator, NullFormatter, StrMethodFormatter
        ax.xaxis.set_major_locator(LogLocator(subs=(1, 2, 5)))
        ax.xaxis.set_major_formatter(StrMethodFormatter("{x:g}"))
        ax.xaxis.set_minor_formatter(NullFormatter())
    ax.set_yticks(list(places), [row[0] for row in rows])
    ax.set_ylim(0.4, len(rows) + 0.6)
    ax.set_xlabel(f"{rationame(run.document) if ratio else 'Estimate'}, 95% interval by {side.replace('_', '-')} standard errors"
                  + (f"\nsmall dots: the {len(parts)} sub-runs" if parts else ""))
    ax.set_title(f"Fixed effects, {phasename(phase)}")
    return drawing


def source(kind, run):
    """Where a picture's numbers come from, where that may be another phase than a reader expects."""
    if not run.nonlinear or kind in ("coefficients", "profile"):
        return ""
    if kind in ("margins", "effects"):  # of the last results of the run
        return phasename(choosephase(run.document))
    level = {"residuals": 1, "simulated": 1, "calibration": 1, "caterpillar3": 3}.get(kind, 2)
    try:
        run.read()
    except Refusal:
        pass  # it is told when the picture is drawn
    phase = run.phases.get(level)
    return phasename({"phase": phase}) if phase else "PQL results"


def draw(kind, run, o, title):
    with sheet():
        return drawn(kind, run, o, title)


def drawn(kind, run, o, title):
    if kind in ("caterpillar2", "caterpillar3"):
        return drawcaterpillar(run, int(kind[-1]), (o.units or []) + (o.label or []), title, getattr(o, "effect", None))
    if kind == "lines":
        return drawlines(run, o.units, o.predictor, o.category, title)
    if kind == "residuals":
        return drawresiduals(run, title)
    if kind == "qq":
        return drawqq(run, o.label, title)
    if kind == "simulated":
        return drawsimulated(run, title)
    if kind == "calibration":
        return drawcalibration(run, title)
    if kind == "margins":
        return drawmargins(run, o.predictor, title)
    if kind == "effects":
        return draweffects(run, title)
    if kind == "profile":
        return drawprofiles(run, choosephase(run.document, o.phase), title)
    return drawcoefficients(run, choosephase(run.document, o.phase), o.robust, o.intercept, o.ratio, title)


def described(kind, run, o):
    """What a reader who does not see the picture has to know."""
    name = KINDS[kind]
    if kind == "coefficients":
        rows, _ = coefficients(run.document, choosephase(run.document, o.phase), o.robust, o.intercept, o.ratio)
        return f"{name}: " + "; ".join(f"{what} {shown(value)} ({interval([low, high])})" for what, value, low, high in rows[:12]) + (
            f"; and {len(rows) - 12} more" if len(rows) > 12 else "")
    if kind.startswith("caterpillar"):
        return f"{name}: " + "; ".join(
            f"{what}, from {rows[0][0]} ({shown(rows[0][1])}) to {rows[-1][0]} ({shown(rows[-1][1])}) in {len(rows)} units"
            for what, rows in panelsof(run, int(kind[-1]), getattr(o, "effect", None)) if rows)
    if kind == "qq":
        return f"{name}: " + "; ".join(f"{what} of {unitsname(level, len(rows))}, {shown(rows[0][1])} to {shown(rows[-1][1])}"
                                       for level, what, rows in quantiles(run) if rows)
    if kind == "lines":
        predictor, drawn, *_ = lines(run, o.units, o.predictor, o.category)
        return f"{name} over {wholename(run.document, 1, predictor)}: " + "; ".join(
            f"{unit} from {shown(first[1])} to {shown(last[1])}" for unit, first, last in drawn)
    if kind in ("simulated", "calibration"):
        return f"{name}: " + (describedsimulated if kind == "simulated" else describedcalibration)(run)
    if kind == "margins":
        return f"{name} " + describedmargins(run, o.predictor)
    if kind == "effects":
        return f"{name}: " + describedeffects(run)
    if kind == "profile":
        return f"{name}: " + describedprofiles(run, choosephase(run.document, o.phase))
    panels = [(what, [residual for _, residual in points if not math.isnan(residual)]) for what, points in residuals(run)]
    return f"{name}: " + "; ".join(f"{what + ', ' if what else ''}{len(some)} records, residuals from {shown(min(some))} to {shown(max(some))}"
                                   for what, some in panels if some)


KINDS = {
    "coefficients": "Fixed effects with their 95% intervals",
    "caterpillar2": "Random effects of the level-2 units with their 95% intervals",
    "caterpillar3": "Random effects of the level-3 units with their 95% intervals",
    "lines": "Fitted lines of level-2 units",
    "margins": "Predicted margins with their 95% intervals",
    "effects": "Average marginal effects with their 95% intervals",
    "profile": "Profiles of the likelihood",
    "calibration": "Observed against predicted values",
    "simulated": "Simulated residuals",
    "residuals": "Level-1 residuals against fitted values",
    "qq": "Normal quantile plots of the random effects",
}
