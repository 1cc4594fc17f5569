"""The command line: options, what may be written over, and the ends of a call."""
import argparse
import os

from . import writers
from .canvas import picture
from .compare import Column, Comparison
from .document import UNREADABLE, Refusal, readresults, warn
from .files import Run
from .page import ENDINGS, page
from .pictures import KINDS, draw, source

# The kinds that an option is for, and whether it is for a comparison.
USES = {"units": (("lines", "caterpillar2", "caterpillar3"), False), "predictor": (("lines", "margins"), False), "category": (("lines",), False),
        "intercept": (("coefficients",), False), "label": (("caterpillar2", "caterpillar3", "qq"), False), "names": ((), True), "intervals": ((), True), "title": ((), True),
        "phase": (("coefficients", "profile"), True), **{name: (("coefficients",), True) for name in ("robust", "ratio")}}
ONPAGE = ("units", "predictor", "category", "phase", "robust", "ratio", "intercept")
ENDINGS_OF = {"kind": (".png", ".svg"), "page": (".html", ".htm"), "compare": tuple(writers.FORMS)}


def listed(text):
    return [part.strip() for part in text.split(",") if part.strip()]


def kindsof(text):
    wrong = [kind for kind in listed(text) if kind not in KINDS]
    if wrong or not listed(text):
        raise argparse.ArgumentTypeError(f"invalid choice: {', '.join(wrong) or 'none'} (choose from {', '.join(KINDS)})")
    return list(dict.fromkeys(listed(text)))


def options(words):
    kinds = "".join(f"\n  {kind:<13} {name}" for kind, name in KINDS.items())
    parser = argparse.ArgumentParser(
        prog="kdr3-plot", formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False,
        description="Draws the results of a run of kdr3 (RESULTS:name.json in its command file), or compares those of several.",
        usage="kdr3-plot RESULTS.json --kind KIND -o PICTURE.png|.svg [options]\n       "
              "kdr3-plot --page RESULTS.json -o PAGE.html [options]\n       "
              "kdr3-plot --compare A.json B.json ... -o TABLE.txt|.md|.html|.tex|.csv|.docx [options]",
        epilog=f"kinds:{kinds}\n\nexit status: 0 drawn, 2 wrong options, 3 a file cannot be read or written,\n"
               "4 a file is damaged or of another kind or run, 5 the run has nothing to draw.")
    parser.add_argument("results", metavar="RESULTS.json", nargs="+", help="the results document; one or several to compare")
    parser.add_argument("-o", "--output", required=True, metavar="FILE",
                        help="picture (.png, .svg), page (.html) or table (.txt, .md, .html, .tex, .csv, .docx)")
    parser.add_argument("--kind", metavar="KIND,...", type=kindsof,
                        help="what to draw, see below; of several each picture has its kind in its name")
    parser.add_argument("--page", action="store_true", help="one HTML page with tables and all pictures")
    parser.add_argument("--compare", action="store_true", help="a table of several models, with tests of neighbours")
    parser.add_argument("--units", metavar="ID,...", type=listed,
                        help="units of the lines (else the 8 largest), or to mark in a caterpillar; ID, or level-3 ID/level-2 ID")
    parser.add_argument("--phase", metavar="PHASE", help="phase of the coefficients and profiles, the first of a page, of a comparison")
    parser.add_argument("--predictor", metavar="NAME", help="level-1 variable that the lines run over, variable that the margins do")
    parser.add_argument("--category", metavar="NAME", help="category whose lines are drawn")
    parser.add_argument("--robust", action="store_true", help="coefficients, comparison: by robust standard errors")
    parser.add_argument("--ratio", action="store_true", help="coefficients, comparison: odds or event-rate ratios")
    parser.add_argument("--intercept", action="store_true", help="coefficients: with intercepts and thresholds")
    parser.add_argument("--no-intercept", action="store_true", help=argparse.SUPPRESS)  # of earlier versions: as without it
    parser.add_argument("--label", metavar="ID,...", type=listed, help="caterpillars, qq: units to mark and name")
    parser.add_argument("--names", metavar="NAME,...", type=listed, help="comparison: names of the models, else those of the files")
    parser.add_argument("--intervals", action="store_true", help="comparison: 95%% intervals instead of standard errors")
    parser.add_argument("--title", metavar="TEXT", help="comparison: what stands above the table")
    parser.add_argument("--folder", metavar="DIR", help="where the run was made, if not in the folder of RESULTS.json")
    o = parser.parse_args(words)
    modes = [mode for mode in ENDINGS_OF if getattr(o, mode)]
    if len(modes) != 1:
        parser.error("one of --kind, --page and --compare is needed")
    o.mode, = modes
    for name, (kinds, compares) in USES.items():
        has = {"kind": bool(set(o.kind or ()) & set(kinds)), "page": name in ONPAGE, "compare": compares}[o.mode]
        if getattr(o, name.replace("-", "_")) and not has:
            parser.error(f"--{name} has no effect on --{o.mode}" + (f" {','.join(o.kind)}" if o.kind else ""))
    if o.mode != "compare" and len(o.results) > 1:
        parser.error(f"--{o.mode} takes one results document")
    if o.mode == "compare" and len(o.names or o.results) != len(o.results):
        parser.error(f"--names has {len(o.names)} names for {len(o.results)} models")
    ending = os.path.splitext(o.output)[1].lower()
    if ending not in ENDINGS_OF[o.mode]:
        *some, last = ENDINGS_OF[o.mode]
        parser.error(f"{o.output}: the output of --{o.mode} ends in {', '.join(some)} or {last}")
    return o, ending


def ismine(mode, data):
    """Is it a picture, or a page or a table of this program, which may give way to another?"""
    if mode == "kind":
        return data.startswith((b"\x89PNG", b"<?xml"))
    return data.endswith(tuple(ending.encode() for ending in ENDINGS)) or mode == "compare" and writers.istable(data)


def refuseloss(path, mode, runs):
    """No file of a run gives way to a picture, and none that is neither a picture nor a page nor a table."""
    if not os.path.isfile(path):
        return
    for document, at, folder in runs:
        names = document["files"] + [document["data"][name] or "" for name in ("mdm_file", "command_file")]
        for name in [at] + [os.path.join(folder, name) for name in names]:
            if os.path.exists(name) and os.path.samefile(path, name):
                raise Refusal(UNREADABLE, f"{path} is a file of the run and would be lost: give another name behind -o")
    try:
        with open(path, "rb") as file:
            data = file.read()
    except OSError as error:
        raise Refusal(UNREADABLE, f"{path} cannot be written: {error.strerror}")
    if data and not ismine(mode, data):
        what = {"kind": "a picture", "page": "a page of kdr3-plot", "compare": "a table of kdr3-plot"}[mode]
        raise Refusal(UNREADABLE, f"{path} holds something else than {what} and would be lost: give another name behind -o")


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


def comparison(o, ending):
    documents = [readresults(path) for path in o.results]
    refuseloss(o.output, o.mode, [(document, path, os.path.dirname(path) if o.folder is None else o.folder)
                                  for document, path in zip(documents, o.results)])
    names = o.names or apart(o.results)
    made = Comparison([Column(document, name, o.phase) for document, name in zip(documents, names)], o)
    return writers.tableof(made, o.title or (documents[0]["title"] if len(documents) == 1 else None), ending)


def apart(paths):
    """The names of the files; with their folders where two have one."""
    names = [os.path.splitext(os.path.basename(path))[0] for path in paths]
    return names if len(set(names)) == len(names) else [os.path.splitext(path)[0] for path in paths]


def pictures(o, ending):
    """The bytes of each picture by its name; of several kinds each has its kind in its name."""
    run, made = Run(o.results[0], o.folder), {}
    stem = os.path.splitext(o.output)[0]
    names = {kind: o.output if len(o.kind) == 1 else f"{stem}-{kind}{ending}" for kind in o.kind}
    for name in names.values():
        refuseloss(name, o.mode, [(run.document, run.path, run.folder)])
    for kind, name in names.items():
        title = ", ".join(filter(None, (run.document["title"], source(kind, run))))
        made[name] = picture(draw(kind, run, o, title), ending[1:])
    return made


def pageof(o):
    run = Run(o.results[0], o.folder)
    refuseloss(o.output, o.mode, [(run.document, run.path, run.folder)])
    return page(run, o).encode()


def main(words):
    o, ending = options(words)
    try:
        made = pictures(o, ending) if o.kind else {o.output: pageof(o) if o.page else comparison(o, ending)}
        for name, data in made.items():
            write(name, data)
    except Refusal as refusal:
        warn(str(refusal))
        return refusal.code
    return 0
