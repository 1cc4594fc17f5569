"""The command line: options, what may be written over, and the ends of a call."""
import argparse
import os

from .document import UNREADABLE, Refusal, warn
from .files import Run
from .page import ENDING, page
from .pictures import KINDS, draw, picture, source

# The kinds that an option is for.
USES = {"units": ("lines", "caterpillar2", "caterpillar3"), "predictor": ("lines",), "category": ("lines",),
        **{name: ("coefficients",) for name in ("phase", "robust", "ratio", "no-intercept")}}


def options(words):
    kinds = "".join(f"\n  {kind:<13} {name}" for kind, name in KINDS.items())
    parser = argparse.ArgumentParser(
        prog="kdr3-plot", formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False,
        description="Draws the results of a run of kdr3 (RESULTS:name.json in its command file).",
        usage="kdr3-plot RESULTS.json --kind KIND -o PICTURE.png|.svg [options]\n       "
              "kdr3-plot --page RESULTS.json -o PAGE.html [options]",
        epilog=f"kinds:{kinds}\n\nexit status: 0 drawn, 2 wrong options, 3 a file cannot be read or written,\n"
               "4 a file is damaged or of another kind or run, 5 the run has nothing to draw.")
    parser.add_argument("results", metavar="RESULTS.json", help="the results document")
    parser.add_argument("-o", "--output", required=True, metavar="FILE", help="picture (.png, .svg) or page (.html)")
    parser.add_argument("--kind", choices=KINDS, metavar="KIND", help="what to draw, see below")
    parser.add_argument("--page", action="store_true", help="one HTML page with tables and all pictures")
    parser.add_argument("--units", metavar="ID,...", type=lambda x: [u.strip() for u in x.split(",") if u.strip()],
                        help="units of the lines (else the 8 largest), or to mark in a caterpillar; ID, or level-3 ID/level-2 ID")
    parser.add_argument("--phase", metavar="PHASE", help="phase of the coefficients, and the first of a page")
    parser.add_argument("--predictor", metavar="NAME", help="level-1 variable that the lines run over")
    parser.add_argument("--category", metavar="NAME", help="category whose lines are drawn")
    parser.add_argument("--robust", action="store_true", help="coefficients: intervals by robust standard errors")
    parser.add_argument("--ratio", action="store_true", help="coefficients: odds or event-rate ratios")
    parser.add_argument("--no-intercept", action="store_true", help="coefficients: without intercepts")
    parser.add_argument("--folder", metavar="DIR", help="where the run was made, if not in the folder of RESULTS.json")
    o = parser.parse_args(words)
    if o.page == (o.kind is not None):
        parser.error("either --kind or --page is needed")
    for name, kinds in USES.items():
        if o.kind and o.kind not in kinds and getattr(o, name.replace("-", "_")):
            parser.error(f"--{name} has no effect on --kind {o.kind}")
    ending = os.path.splitext(o.output)[1].lower()
    if ending not in ((".html", ".htm") if o.page else (".png", ".svg")):
        parser.error(f"{o.output}: the output of {'--page ends in .html' if o.page else '--kind ends in .png or .svg'}")
    return o, ending[1:]


def refuseloss(path, ispage, run):
    """No file of the run gives way to a picture, and none that is neither a picture nor a page."""
    if not os.path.isfile(path):
        return
    document = run.document
    names = document["files"] + [document["data"][name] or "" for name in ("mdm_file", "command_file")]
    for name in [run.path] + [os.path.join(run.folder, name) for name in names]:
        if os.path.exists(name) and os.path.samefile(path, name):
            raise Refusal(UNREADABLE, f"{path} is a file of the run and would be lost: give another name behind -o")
    with open(path, "rb") as file:
        head = file.read(8)
        file.seek(max(0, os.path.getsize(path) - len(ENDING)))
        mine = file.read() == ENDING.encode() if ispage else head.startswith((b"\x89PNG", b"<?xml"))
    if head and not mine:
        raise Refusal(UNREADABLE, f"{path} holds something else than a {'page of kdr3-plot' if ispage else 'picture'} and "
                                  "would be lost: give another name behind -o")


def write(path, data):
    """Whole or not at all: under another name first, which nobody has."""
    number, part = 0, path + ".part"
    while os.path.lexists(part):
        number += 1
        part = f"{path}.part{number}"
    made = False
    try:
        with open(part, "xb") as file:
            made = True
            file.write(data)
        os.replace(part, path)
    except OSError as error:
        if made:
            os.remove(part)
        raise Refusal(UNREADABLE, f"{path} cannot be written: {error.strerror}")


def main(words):
    o, ending = options(words)
    try:
        run = Run(o.results, o.folder)
        refuseloss(o.output, o.page, run)
        if o.page:
            data = page(run, o).encode()
        else:
            title = ", ".join(filter(None, (run.document["title"], source(o.kind, run))))
            data = picture(draw(o.kind, run, o, title), ending)
        write(o.output, data)
    except Refusal as refusal:
        warn(str(refusal))
        return refusal.code
    return 0
