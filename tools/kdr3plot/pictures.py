"""Drawing: one function for each kind of picture. The colours are told apart by colour-blind readers too (Okabe and Ito)."""
import io
import math
import statistics
import textwrap

from .document import UNREADABLE, Refusal, choosephase, outcomename, phasename
from .values import caterpillar, coefficients, lines, pickunits, quantiles, residuals

BLUE, LIGHT, RED, GREY = "#0072B2", "#9CC9E3", "#D55E00", "#666666"
PALETTE = ("#0072B2", "#D55E00", "#009E73", "#CC79A7", "#E69F00", "#56B4E9", "#7F3C8D", "#8C564B")
WIDTH = 5.0  # inches of every picture, so that its letters stay readable on a phone
MANY = 1000  # points or intervals from which on an SVG holds them as an image


def figure(panels, height, title):
    """A figure with `panels` axes one below the other."""
    try:
        import matplotlib
    except ImportError:
        raise Refusal(UNREADABLE, "matplotlib is missing (Debian package python3-matplotlib)")
    matplotlib.use("Agg")
    import matplotlib.pyplot as pyplot
    pyplot.rcParams.update({
        "font.size": 9, "axes.titlesize": 9, "axes.titleweight": "bold", "axes.titlelocation": "left",
        "axes.spines.top": False, "axes.spines.right": False, "legend.frameon": False, "legend.fontsize": 8,
        "svg.hashsalt": "kdr3-plot", "figure.dpi": 130, "text.parse_math": False})
    pyplot.close("all")
    drawing, axes = pyplot.subplots(panels, 1, figsize=(WIDTH, height * panels + 0.3 * bool(title)), squeeze=False,
                                    layout="constrained")
    if title:
        drawing.suptitle(title, x=0.01, ha="left", fontsize=9, color=GREY)
    return drawing, [row[0] for row in axes]


def unitsname(level, count):
    return f"level-{level} unit{'s' if count != 1 else ''}"


def drawcaterpillar(run, level, units=None, title=""):
    panels = caterpillar(run, level)
    marked = set(run.table(level).units()[i] for i in pickunits(run.table(level), units)) if units else set()
    drawing, axes = figure(len(panels), 2.8, title)
    for ax, (name, rows) in zip(axes, panels):
        few = len(rows) <= 40
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
    ax.set_xlabel("\n".join([predictor] + textwrap.wrap("held: " * bool(held) + ", ".join(
        f"{name} at {value:.3g}" for name, value in held.items()), 46)))
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


def drawqq(run, title=""):
    panels = quantiles(run)
    drawing, axes = figure(len(panels), 3.0, title)
    for ax, (level, name, points) in zip(axes, panels):
        ys = [y for _, y in points]
        ax.plot([x for x, _ in points], ys, "o", color=BLUE, markersize=2.6 if len(ys) <= 300 else 1.6, markeredgewidth=0,
                rasterized=len(ys) > MANY)
        if len(ys) > 3:  # the line through the quartiles of both
            low, _, high = statistics.quantiles(ys, method="inclusive")
            slope = (high - low) / (2 * statistics.NormalDist().inv_cdf(0.75))
            ax.axline((0, (low + high) / 2), slope=slope, color=GREY, linewidth=0.8)
        ax.set_title(f"{name}, {len(ys)} {unitsname(level, len(ys))}")
        ax.set_xlabel("Standard normal quantile")
        ax.set_ylabel("Random effect")
    drawing.align_ylabels(axes)
    return drawing


def drawcoefficients(run, phase, robust=False, intercept=True, ratio=False, title=""):
    rows, side = coefficients(run.document, phase, robust, intercept, ratio)
    drawing, (ax,) = figure(1, 0.9 + 0.28 * len(rows), title)
    places = range(len(rows), 0, -1)
    for place, (_, estimate, low, high) in zip(places, rows):
        ax.plot([low, high], [place, place], color=BLUE, linewidth=1.6, solid_capstyle="butt")
        ax.plot([estimate], [place], "o", color=BLUE, markersize=4.5)
    ax.axvline(1 if ratio else 0, color=GREY, linewidth=0.8)
    if ratio:
        ax.set_xscale("log")
        from matplotlib.ticker import LogLocator, NullFormatter, StrMethodFormatter
        ax.xaxis.set_major_locator(LogLocator(subs=(1, 2, 5)))
        ax.xaxis.set_major_formatter(StrMethodFormatter("{x:g}"))
        ax.xaxis.set_minor_formatter(NullFormatter())
    ax.set_yticks(list(places), [row[0] for row in rows])
    ax.set_ylim(0.4, len(rows) + 0.6)
    ax.set_xlabel(f"{'Ratio' if ratio else 'Estimate'}, 95% interval by {side.replace('_', '-')} standard errors")
    ax.set_title(f"Fixed effects, {phasename(phase)}")
    return drawing


def source(kind, run):
    """Where a picture's numbers come from, where that may be another phase than a reader expects."""
    if not run.nonlinear or kind == "coefficients":
        return ""
    run.read()
    return phasename({"phase": run.phase or "pql"})


def draw(kind, run, o, title):
    if kind in ("caterpillar2", "caterpillar3"):
        return drawcaterpillar(run, int(kind[-1]), o.units, title)
    if kind == "lines":
        return drawlines(run, o.units, o.predictor, o.category, title)
    if kind == "residuals":
        return drawresiduals(run, title)
    if kind == "qq":
        return drawqq(run, title)
    return drawcoefficients(run, choosephase(run.document, o.phase), o.robust, not o.no_intercept, o.ratio, title)


KINDS = {
    "coefficients": "Fixed effects with their 95% intervals",
    "caterpillar2": "Random effects of the level-2 units with their 95% intervals",
    "caterpillar3": "Random effects of the level-3 units with their 95% intervals",
    "lines": "Fitted lines of level-2 units",
    "residuals": "Level-1 residuals against fitted values",
    "qq": "Normal quantile plots of the random effects",
}


def picture(drawing, form):
    """The bytes of a figure; the same ones each time."""
    out = io.BytesIO()
    drawing.savefig(out, format=form, metadata={"Date": None} if form == "svg" else {"Software": None},
                    dpi=130 if form == "png" else 200)
    if form == "png":  # a palette takes a third of the bytes; this one keeps rare colours too
        from PIL import Image
        image = Image.open(out).convert("RGB").quantize(256, Image.Quantize.MAXCOVERAGE, dither=Image.Dither.NONE)
        out = io.BytesIO()
        image.save(out, "PNG", optimize=True)
    return out.getvalue()
