"""The page: one HTML file with the data, the model, the tables and all pictures."""
import base64
import html
import os

from .canvas import picture
from .digits import shown
from .document import NOTHING, USAGE, Refusal, choosephase, outcomename, outcomes, phasename, twolevel, warn, wholename
from .files import Run
from .model import engine, equationsof, formula, pooled
from .pictures import KINDS, described, draw, source
from .tables import phasetables, warnings

STYLE = """
:root { color-scheme: light dark; --paper: #fff; --ink: #1b1b1b; --faint: #555; --line: #ddd; --strong: #767676; --link: #00538a; }
body { font: 16px/1.5 system-ui, sans-serif; color: var(--ink); background: var(--paper); max-width: 58rem;
  margin: 0 auto; padding: 1rem; overflow-wrap: anywhere; }
p, ul, dl, figure { max-width: 46rem; }
a { color: var(--link); }
h1 { font-size: 1.4rem; line-height: 1.25; }
h2 { font-size: 1.15rem; margin-top: 2.2rem; border-bottom: 1px solid var(--strong); }
h3 { font-size: 1rem; margin: 1.4rem 0 .3rem; }
nav ul { display: flex; flex-wrap: wrap; gap: .2rem 1.1rem; padding: 0; list-style: none; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: .25rem 1rem; margin: .6rem 0; }
dt { color: var(--faint); } dd { margin: 0; }
dd ul { margin: 0; padding-left: 1.1rem; }
code { font-family: ui-monospace, monospace; font-size: .92em; }
.equations { line-height: 1.7; margin: .2rem 0 .8rem; padding-left: 1rem; }
table { border-collapse: collapse; overflow-wrap: break-word; font-size: .86rem; font-variant-numeric: tabular-nums; }
caption { text-align: left; font-weight: 600; font-size: 1rem; padding: 1.2rem 0 .3rem; }
th, td { text-align: right; padding: .25rem .4rem; border-bottom: 1px solid var(--line); font-weight: normal;
  white-space: nowrap; }
thead th, thead td { color: var(--faint); border-bottom: 1px solid var(--strong); vertical-align: bottom; }
th:first-child { text-align: left; }
th.section { font-style: italic; padding-top: .7rem; }
thead th { white-space: normal; }
.stacked th:first-child { white-space: normal; min-width: 6.5rem; }
table:not(.stacked) { min-width: min(100%, 22rem); }
.wide { overflow-x: auto; }
.wide:focus-visible { outline: 2px solid var(--link); outline-offset: 2px; }
figure { margin: 1.4rem 0; } img { width: 100%; height: auto; } figcaption { color: var(--faint); font-size: .9rem; }
.warning { border-left: 4px solid #D55E00; padding-left: .7rem; }
summary { font-size: 1.15rem; font-weight: bold; margin-top: 2.2rem; cursor: pointer; } details h2 { margin-top: 1rem; }
@media (max-width: 940px) { table { font-size: .76rem; } th, td { padding: .25rem .3rem; } }
@media screen and (max-width: 780px) {
  table { font-size: .86rem; }
  th:first-child { white-space: normal; min-width: 6rem; }
  .stacked, .stacked tbody, .stacked caption { display: block; }
  .stacked thead { position: absolute; clip-path: inset(50%); width: 1px; height: 1px; overflow: hidden; }
  .stacked tr { display: flex; flex-wrap: wrap; column-gap: .8rem; padding: .3rem 0; border-bottom: 1px solid var(--line); }
  .stacked tbody th { flex: 0 0 100%; font-weight: 600; }
  .stacked th, .stacked td { border: 0; text-align: left; padding: .05rem 0; white-space: normal; }
  .stacked td { min-width: 6.4rem; } .stacked td:nth-child(2) { min-width: 7.4rem; }
  .stacked td:empty { display: none; }
  .stacked td::before { content: attr(data-name) " "; color: var(--faint); }
  .wide { position: relative; }
}
@media screen and (max-width: 520px) { dl { display: block; } dt { margin-top: .5rem; } }
@media screen and (prefers-color-scheme: dark) {
  :root { --paper: #1a1a1a; --ink: #e4e4e4; --faint: #b0b0b0; --line: #3a3a3a; --strong: #8a8a8a; --link: #7cc4f0; }
  img { filter: invert(.9) hue-rotate(180deg); }
}
@media print {
  :root { color-scheme: light; }
  body { max-width: none; padding: 0; font-size: 10pt; }
  nav { display: none; } .wide { overflow: visible; }
  table { font-size: 8pt; } th, td { padding: .15rem .3rem; white-space: normal; }
  figure, tr { break-inside: avoid; } h2, caption { break-after: avoid; } img { max-width: 14cm; }
}
"""


# ---- What the results are about

def sentence(document):
    """The type of the outcome with what belongs to it."""
    model = document["model"]
    kind, count, categories = model["distribution"], model["count_variable"], model["categories"]
    count = count and wholename(document, 1, count)
    listed, event = ", ".join(categories), document["event"]
    return {"normal": "normal", "bernoulli": "binary; the event is 1" + (f" ({event})" if event else ""),
            "binomial": f"binomial: successes in {count or 'one'} trials",
            "poisson": "counts" + (f" with the exposure {count}" if count else ", each with an exposure of 1"),
            "ordinal": f"ordered categories: {listed}; cumulative from the lowest one",
            "multinomial": f"categories: {listed}; the last one is the reference"}[kind] + f" ({model['link']} link)"


def plural(count, what):
    return f"{count} {what}{'' if count == 1 else 's'}"


def records(document):
    """Records and units used, and those that run-time deletion left out."""
    sizes = document["dimensions"]
    text = f"{plural(sizes['records'], 'record')} in {plural(sizes['level2_units'], 'level-2 unit')}"
    text += "" if twolevel(document) else f" in {plural(sizes['level3_units'], 'level-3 unit')}"
    lost = sizes.get("records_read", sizes["records"]) - sizes["records"]
    if lost > 0:
        text += f"; {lost} of {sizes['records_read']} are left out, since a variable of the model is missing"
    return text


def weights(document):
    words = [f"{wholename(document, level, name)} (level {level})" for level in (1, 2, 3)
             if (name := document["model"]["weights"][f"level{level}"])]
    known = document["model"]["weights"]["known_variance"]
    scale = {"mean": "; scaled to a mean of 1", "none": "; as they are"}.get(document["model"]["weights"].get("scale"), "")
    return (["design weights " + ", ".join(words) + scale] if words else []) + (
        [f"known level-1 variances {wholename(document, 1, known)}"] if known else [])


def pooling(document):
    """Of a series: the kind, the number of sets, and the sub-runs, as HTML."""
    text, runs = pooled(document)
    listed = "".join(f"<li>{html.escape(run)}</li>" for run in runs)
    return html.escape(text) + f"<ul>{listed}</ul>" * bool(listed)


def estimated(phase):
    """Engine, points, their check, kind of likelihood and degrees of freedom."""
    words = [{"final": "maximum likelihood", "pql": "penalized quasi-likelihood (PQL)", "quadrature": "adaptive quadrature",
              "laplace6": "Laplace approximation of the sixth order", "average": "averages over data sets"}.get(
                  phase["phase"], engine(phase))]
    if phase.get("likelihood") == "restricted":
        words[0] = "restricted maximum likelihood"
    points = phase.get("points")
    if points:
        words[0] = "first-order Laplace approximation" if points == 1 else f"{words[0]} with {points} points for each random effect"
    elif points == 0:
        words[0] += " with fixed nodes"
    check = phase.get("check")
    if check:
        words.append(f"with {check['points']} points the log-likelihood changes by {shown(check['log_likelihood_change'], 4)} and a standard "
                     f"error by at most {shown(100 * (check['largest_standard_error_change'] or 0.0), 2)}%")
    if phase.get("estimates_of"):
        words.append(f"of the estimates of {phase['estimates_of']}")
    if phase.get("degrees_of_freedom"):
        words.append(f"degrees of freedom of {phase['degrees_of_freedom'].title()}")
    return "; ".join(words)


def facts(document, phase):
    """The list of what the results are about: (name, HTML)."""
    data, escape = document["data"], html.escape
    text, differ = formula(document)
    coding = document.get("coding")
    names = list(filter(None, (coding and coding["file"], data["mdm_file"])))
    state = {True: "yes", False: "<b>no</b>", None: "not told"}[document["converged"]]
    rows = [("Outcome", escape(f"{', '.join(outcomes(document))}: {sentence(document)}")),
            ("Model", f"<code>{escape(text)}</code>" + (" (first category; the others have terms of their own)" if differ else "")),
            ("Data", escape(", ".join(names) or "columns in memory")
             + (" (the last of the series)" if (document["series"] or {"subrun": 1})["subrun"] is None
                and document["series"]["kind"] == "multiple imputation" else "")),
            ("Records", escape(records(document))), ("Weights", escape("; ".join(weights(document)))), ("Pooling", pooling(document)),
            ("Estimation", escape(estimated(phase))), ("Converged", state),
            ("Command file", escape(data["command_file"] or "")),
            ("Program", escape(f"{document['program']} {document['version']}"))]
    return [(name, value) for name, value in rows if value]


def equationlines(document):
    text = ""
    for head, lines in equationsof(document, html.escape):
        single = [line for line in lines if " + " not in line.split(" = ", 1)[1]]  # but one fixed term
        others = [line for line in lines if line not in single]
        text += f'<h3>{head}</h3><p class="equations">{"<br>".join(others + [", ".join(single)] * bool(single))}</p>\n'
    return text


# ---- Pictures

def subrun(run):
    """Of averages: the run of the last sub-run that is there, or None."""
    for one in reversed((run.document["series"] or {}).get("subruns", ())):
        if one["results"]:
            try:
                return one, Run(os.path.join(run.folder, one["results"]), run.folder)
            except Refusal as refusal:
                warn(f"the pictures of {one['results']} are not drawn: {refusal}")
    return None


ASKED = ("margins", "effects", "profile")  # by an option or keyword of their own: not missed where they are not there
CATEGORIES = ("bernoulli", "ordinal", "multinomial")  # whose residuals are two curves, or as many as there are categories


def leftout(kind, run, drawn):
    """Does a kind not belong to the results, or does another picture say more?"""
    distribution = run.document["model"]["distribution"]
    return (kind == "caterpillar3" and twolevel(run.document) or kind == "calibration" and distribution == "normal"
            or kind == "residuals" and distribution in CATEGORIES and "simulated" in drawn)


def figures(run, o):
    """All pictures that there are, as HTML, and a list of the others with the reason."""
    text, undrawn, drawn, units = "", [], set(), o.units
    inner = subrun(run)
    for kind, name in KINDS.items():
        if leftout(kind, run, drawn):
            continue
        use, words = run, source(kind, run)
        if inner and kind not in ("coefficients", "profile"):
            use, words = inner[1], ", ".join(filter(None, (source(kind, inner[1]), f"sub-run {inner[0]['subrun']}")))
        try:
            o.units = None if kind.startswith("caterpillar") else units  # the page's --units are level-2 units of the lines
            data = base64.b64encode(picture(draw(kind, use, o, ""), "svg")).decode()
            alt = described(kind, use, o)
        except Refusal as refusal:
            if refusal.code == USAGE:
                raise
            if refusal.code != NOTHING:
                warn(f"{kind} is not drawn: {refusal}")
            if refusal.code != NOTHING or kind not in ASKED:
                undrawn.append(f"{name}: {refusal}")
            continue
        drawn.add(kind)
        text += (f'<figure><img alt="{html.escape(alt)}" src="data:image/svg+xml;base64,{data}">'
                 f"<figcaption>{html.escape(', '.join(filter(None, (name, words))))}</figcaption></figure>\n")
    if undrawn:
        text += "<h3>Not drawn</h3><ul>" + "".join(f"<li>{html.escape(line)}</li>" for line in undrawn) + "</ul>"
    return text


# ---- The whole

ENDINGS = " by kdr3-plot.</p></main></body></html>\n", " by kdr3-plot.</p></body></html>\n"  # of a page, of an older one


def opening(title):
    return (f'<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8">\n'
            f'<meta name="viewport" content="width=device-width, initial-scale=1">\n<title>{title}</title>'
            f"<style>{STYLE}</style></head><body><main>\n<h1>{title}</h1>\n")


def closing(words):
    return f"<p>{words}{ENDINGS[0]}"


def allwarnings(document):
    """Those of the run; of a phase in the phase itself, where they do not repeat these."""
    state = ["The run did not converge."] if document["converged"] is False else []
    return warnings(state + document["warnings"])


def page(run, o):
    document = run.document
    first = choosephase(document, o.phase)
    others = [phase for phase in document["phases"] if phase is not first]
    links = [("model", "Model"), ("results", phasename(first).capitalize() if first["phase"] != "pql" else phasename(first)),
             ("pictures", "Pictures")] + [("others", "Other results")] * bool(others)
    text = opening(html.escape(document["title"] or f"Results for {outcomename(document)}"))
    text += allwarnings(document)
    text += "<dl>" + "".join(f"<dt>{name}</dt><dd>{value}</dd>" for name, value in facts(document, first)) + "</dl>\n"
    text += '<nav aria-label="Contents"><ul>' + "".join(f'<li><a href="#{mark}">{name}</a></li>' for mark, name in links) + "</ul></nav>\n"
    text += f'<section id="model"><h2>Model</h2>{equationlines(document)}</section>\n'
    text += phasetables(document, first, "results")
    text += f'<section id="pictures"><h2>Pictures</h2>\n{figures(run, o)}</section>\n'
    if others:
        text += ('<details id="others"><summary>Other results of this run</summary>'
                 + "".join(phasetables(document, phase, phase["phase"]) for phase in others) + "</details>\n")
    return text + closing(f"Made from {html.escape(os.path.basename(run.path))}")
