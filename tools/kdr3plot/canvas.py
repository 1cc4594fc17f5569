"""The sheet that pictures are drawn on. The colours are told apart by colour-blind readers too (Okabe and Ito)."""
import io

from .document import UNREADABLE, Refusal

BLUE, LIGHT, RED, GREY = "#0072B2", "#9CC9E3", "#D55E00", "#666666"
PALETTE = ("#0072B2", "#D55E00", "#009E73", "#CC79A7", "#E69F00", "#56B4E9", "#7F3C8D", "#8C564B")
WIDTH = 5.0  # inches of every picture, so that its letters stay readable on a phone
FEW = 40  # units that are all named
MANY = 1000  # points or intervals from which on an SVG holds them as an image


def sheet():
    """A context in which pictures have their looks, whatever a session has told matplotlib; it tells the session nothing."""
    try:
        from matplotlib import style
    except ImportError:
        raise Refusal(UNREADABLE, "matplotlib is missing (Debian package python3-matplotlib)")
    return style.context(["default", {
        "font.size": 9, "axes.titlesize": 9, "axes.titleweight": "bold", "axes.titlelocation": "left",
        "axes.spines.top": False, "axes.spines.right": False, "legend.frameon": False, "legend.fontsize": 8,
        "svg.hashsalt": "kdr3-plot", "figure.dpi": 130, "text.parse_math": False}])


def figure(panels, height, title, columns=1):
    """A figure with `panels` axes one below the other, or in rows of some columns; without those that stay empty."""
    from matplotlib.figure import Figure
    rows = -(-panels // columns)
    drawing = Figure(figsize=(WIDTH, height * rows + 0.3 * bool(title)), layout="constrained")
    axes = drawing.subplots(rows, columns, squeeze=False)
    for empty in axes.flat[panels:]:
        empty.remove()
    if title:
        drawing.suptitle(title, x=0.01, ha="left", fontsize=9, color=GREY)
    return drawing, list(axes.flat[:panels])


def unitsname(level, count):
    return f"level-{level} unit{'s' if count != 1 else ''}"


def picture(drawing, form):
    """The bytes of a figure; the same ones each time."""
    out = io.BytesIO()
    with sheet():
        drawing.savefig(out, format=form, metadata={"Date": None} if form == "svg" else {"Software": None},
                        dpi=130 if form == "png" else 200)
    if form == "png":  # a palette takes a third of the bytes; this one keeps rare colours too
        from PIL import Image
        image = Image.open(out).convert("RGB").quantize(256, Image.Quantize.MAXCOVERAGE, dither=Image.Dither.NONE)
        out = io.BytesIO()
        image.save(out, "PNG", optimize=True)
    return out.getvalue()
