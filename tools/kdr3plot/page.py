"""The page: one HTML file with the model, the tables and all pictures."""
import base64
import html
import os

from .document import NOTHING, USAGE, Refusal, choosephase, outcomename, twolevel, warn, wholename
from .pictures import KINDS, draw, picture, source
from .tables import phasetables, warnings

STYLE = """
:root { color-scheme: light dark; --paper: #fff; --ink: #1b1b1b; --faint: #555; --line: #ddd; --strong: #888; }
body { font: 16px/1.5 system-ui, sans-serif; color: var(--ink); background: var(--paper); max-width: 58rem;
  margin: 0 auto; padding: 1rem; overflow-wrap: anywhere; }
p, ul, figure { max-width: 46rem; }
h1 { font-size: 1.4rem; line-height: 1.25; }
h2 { font-size: 1.15rem; margin-top: 2.2rem; border-bottom: 1px solid var(--strong); }
h3 { font-size: 1rem; margin: 1.6rem 0 .3rem; }
table { border-collapse: collapse; font-size: .86rem; font-variant-numeric: tabular-nums; }
th, td { text-align: right; padding: .25rem .5rem; border-bottom: 1px solid var(--line); font-weight: normal;
  white-space: nowrap; }
thead th { color: var(--faint); border-bottom: 1px solid var(--strong); vertical-align: bottom; }
th:first-child { text-align: left; }
.effects th:first-child { white-space: normal; min-width: 8rem; }
.wide { overflow-x: auto; }
figure { margin: 1.4rem 0; } img { width: 100%; height: auto; } figcaption { color: var(--faint); font-size: .9rem; }
.warning { border-left: 4px solid #D55E00; padding-left: .7rem; }
summary { font-size: 1.15rem; font-weight: bold; margin-top: 2.2rem; cursor: pointer; } details h2 { margin-top: 1rem; }
@media (max-width: 940px) { table { font-size: .76rem; } th, td { padding: .25rem .3rem; } }
@media (max-width: 780px) {
  table { font-size: .86rem; }
  .effects, .effects tbody { display: block; } .effects thead { display: none; }
  .effects tr { display: flex; flex-wrap: wrap; column-gap: .8rem; padding: .3rem 0; border-bottom: 1px solid var(--line); }
  .effects tbody th { flex: 0 0 100%; font-weight: 600; }
  .effects th, .effects td { border: 0; text-align: left; padding: .05rem 0; }
  .effects td { min-width: 6.4rem; } .effects td:nth-child(2) { min-width: 7.4rem; }
  .effects td::before { content: attr(data-name) " "; color: var(--faint); }
}
@media (prefers-color-scheme: dark) {
  :root { --paper: #1a1a1a; --ink: #e4e4e4; --faint: #aaa; --line: #3a3a3a; --strong: #777; }
  img { filter: invert(.9) hue-rotate(180deg); }
}
"""


def equationlines(document):
    """The model as text: each level-1 coefficient with the terms and effects that it is made of."""
    items = []
    for equation in document["model"]["equations"]:
        if equation["threshold"]:
            continue
        terms = []
        for term in equation["terms"]:
            terms.append(wholename(document, 2, term["variable"]) + centered(term))
            if twolevel(document):
                continue
            effects = [wholename(document, 3, effect["variable"]) + centered(effect) for effect in term["effects"]]
            terms[-1] += f" ({', '.join(effects)}" + (", random over level-3 units)" if term["random"] else ")")
        head = f"{equation['category']}: " if equation["category"] else ""
        items.append(f"<li><b>{html.escape(head + wholename(document, 1, equation['variable']) + centered(equation))}</b>"
                     + (", random over level-2 units" if equation["random"] else "")
                     + f": {html.escape('; '.join(terms))}</li>")
    return "<ul>" + "".join(items) + "</ul>"


def centered(variable):
    return "" if variable["centering"] == "none" else f" centered at its {variable['centering']}"


def page(run, o):
    document = run.document
    model, sizes = document["model"], document["dimensions"]
    title = html.escape(document["title"] or "Results")
    state = {True: "", False: warnings(["The run did not converge."]), None: ""}[document["converged"]]
    text = (f'<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8">\n'
            f'<meta name="viewport" content="width=device-width, initial-scale=1">\n<title>{title}</title>'
            f"<style>{STYLE}</style></head><body><main>\n<h1>{title}</h1>\n"
            f"<p>Outcome {html.escape(outcomename(document))}, {model['distribution']}, {model['link']} link. "
            f"{sizes['records']} records in {sizes['level2_units']} level-2 units"
            + ("" if twolevel(document) else f" in {sizes['level3_units']} level-3 units") + ". "
            f"Data {html.escape(document['data']['mdm_file'] or 'columns in memory')}, model "
            f"{html.escape(document['data']['command_file'] or 'without a command file')}.</p>\n")
    text += state + warnings(document["warnings"]) + "<h2>Model</h2>" + equationlines(document)
    first = choosephase(document, o.phase)
    text += phasetables(first) + "<h2>Pictures</h2>\n"
    undrawn = []
    units = o.units
    for kind, name in KINDS.items():
        if kind == "caterpillar3" and twolevel(document):
            continue
        try:
            o.units = None if kind.startswith("caterpillar") else units  # the page's --units are level-2 units of the lines
            data = base64.b64encode(picture(draw(kind, run, o, ""), "svg")).decode()
        except Refusal as refusal:
            if refusal.code == USAGE:
                raise
            if refusal.code != NOTHING:
                warn(f"{kind} is not drawn: {refusal}")
            undrawn.append(f"{name}: {refusal}")
            continue
        text += (f'<figure><img alt="{html.escape(name)}" src="data:image/svg+xml;base64,{data}">'
                 f"<figcaption>{', '.join(filter(None, (name, source(kind, run))))}</figcaption></figure>\n")
    if undrawn:
        text += "<h3>Not drawn</h3><ul>" + "".join(f"<li>{html.escape(line)}</li>" for line in undrawn) + "</ul>"
    others = [phase for phase in document["phases"] if phase is not first]
    if others:
        text += "<details><summary>Other results of this run</summary>" + "".join(map(phasetables, others)) + "</details>"
    return text + closing(f"Made from {html.escape(os.path.basename(run.path))}")


ENDINGS = " by kdr3-plot.</p></main></body></html>\n", " by kdr3-plot.</p></body></html>\n"  # of a page, of an older one


def closing(words):
    return f"<p>{words}{ENDINGS[0]}"
