"""The model of a document in words, as a formula and as equations."""
import re

from .document import equations, isintercept, outcomes, phasename, twolevel, wholename

RATIOS = {"bernoulli": "Odds ratio", "binomial": "Odds ratio", "poisson": "Rate ratio", "ordinal": "Cumulative odds ratio",
          "multinomial": "Odds ratio"}


def rationame(document):
    return RATIOS.get(document["model"]["distribution"], "Ratio")


def thresholdname(document, effect):
    """Of an ordinal outcome the cut that an effect is the threshold of, the intercept that of the first one; else None."""
    model = document["model"]
    if effect["threshold"]:
        place = effect["level1"].removeprefix("THOLD")
        known = place.isdigit() and 1 < int(place) <= len(model["categories"])
        return f"At or below {model['categories'][int(place) - 1]}, above the first" if known else effect["label"]
    if model["distribution"] == "ordinal" and not effect["variables"]:
        return f"At or below {(model['categories'] or ['the first'])[0]} (intercept)"
    return None


def engine(phase):
    """By what the estimates of a phase were made, in a word or two."""
    name = {"final": "REML" if phase.get("likelihood") else "ML", "average": "pooled", "pql": "PQL",
            "average_population_average": "pooled, population average"}.get(phase["phase"])
    if phase.get("estimates_of"):
        name += ", " + phasename({"phase": phase["estimates_of"]}).removesuffix(" results")
    if phase["phase"] == "quadrature":
        points = phase.get("points")
        return {1: "Laplace"}.get(points, f"AGQ, {points} points" if points else "quadrature")
    return name or phasename(phase).removesuffix(" results")


def pooled(document):
    """Of a series: what the results are, and the names of the sub-runs that averages rest on; else nothing."""
    series = document["series"]
    if not series:
        return "", []
    sets = "plausible values" if series["kind"] == "plausible values" else "imputed data sets"
    if series["subrun"] is not None:
        value = f" ({series['plausible_value']})" if series["plausible_value"] else ""
        return f"sub-run {series['subrun']}{value} of a series of {sets}", []
    count = next((phase["subruns"] for phase in document["phases"] if "subruns" in phase), None)
    text = f"averages of {count} {sets} by Rubin's rules"
    if series["failed_subruns"]:
        text += f"; failed: {', '.join(map(str, series['failed_subruns']))}"
    return text, [", ".join(filter(None, (f"{run['subrun']}", run["plausible_value"], run["results"])))
                  for run in series.get("subruns", ())]


def centeredname(document, level, variable):
    """The name of a variable of an equation; "" for an intercept."""
    return "" if isintercept(variable["variable"]) else wholename(document, level, variable["variable"])


def quoted(name):
    return name if re.fullmatch(r"[^\W\d_][\w.]*", name) else f"`{name}`"


def factor(document, level, variable):
    """A variable as a factor of a term of a formula."""
    name = centeredname(document, level, variable)
    if not name or variable["centering"] == "none":
        return name and quoted(name)
    groups = {1: {"group mean": ", level2"}, 2: {"group mean": ", level3"}}
    return f"center({quoted(name)}{groups.get(level, {}).get(variable['centering'], '')})"


def product(*factors):
    return ":".join(filter(None, factors)) or "1"


def summed(terms):
    """A sum with or without intercept."""
    return " + ".join(([] if "1" in terms else ["0"]) + [term for term in terms if term != "1"] or ["1"])


def outcometerm(document):
    """The left side of the formula."""
    model = document["model"]
    name, count = "|".join(map(quoted, outcomes(document))), model["count_variable"]
    if model["distribution"] == "binomial" and count:
        trials = quoted(wholename(document, 1, count))
        return f"cbind({name}, {trials} − {name})"
    return name


def formula(document):
    """The model as a formula, that of -fit where it was one; else level2 and level3 stand for the identifiers, which the
    document has not. Of a multinomial model the terms of the first category, and whether the others differ."""
    if document.get("coding"):
        return document["coding"]["formula"], False
    all_ = equations(document)
    first = [e for e in all_ if e["category"] == all_[0]["category"]]
    fixed, level2, level3 = [], [], []
    for equation in first:
        one = factor(document, 1, equation)
        if equation["random"]:
            level2.append(product(one))
        for term in equation["terms"]:
            two = factor(document, 2, term)
            if term["random"]:
                level3.append(product(one, two))
            fixed += [product(one, two, factor(document, 3, effect) if effect["variable"] else "") for effect in term["effects"]]
    parts = [summed(fixed)]
    count = document["model"]["count_variable"]
    if document["model"]["distribution"] == "poisson" and count:
        parts.append(f"offset(log({quoted(wholename(document, 1, count))}))")
    # An intercept alone, and one with slopes.
    bars = [f"({summed(terms)} | {group})" for terms, group in (
        (level2, "level2" if twolevel(document) else "level3:level2"), (level3, "level3")) if terms]
    text = f"{outcometerm(document)} ~ {' + '.join(parts + bars)}"
    # The same terms for each category, but for the numbers and the places of their effects.
    bare = lambda e: re.sub(r"'(subscript|fixed_effect|constraint_group|category)': ('[^']*'|\d+|None)", "", str(e))
    shapes = {tuple(bare(e) for e in all_ if e["category"] == category) for category in {e["category"] for e in all_}}
    return text, len(shapes) > 1


# ---- Equations, as HTML: letters by level, subscripts as in the report

LETTERS = {1: "π", 2: "β", 3: "γ"}
COMBINED = {"bernoulli": "logit P({y} = 1)", "binomial": "logit P({y} = 1 in a trial)", "poisson": "log E({y})",
            "ordinal": "logit P({y} ≤ <i>m</i>)", "multinomial": "log [P({y} = {c}) / P({y} = {last})]"}


def letter(symbol, digits=""):
    return f"<i>{symbol}</i>" + (f"<sub>{digits}</sub>" if digits else "")


def equationsof(document, escape):
    """[(heading, [line])] of each level, as HTML; `escape` takes names."""
    model, two = document["model"], twolevel(document)
    categories = list(dict.fromkeys(e["category"] for e in equations(document)))

    def times(symbol, level, variable):
        name = centeredname(document, level, variable)
        mark = {"none": "", "group mean": " − its mean in the unit", "grand mean": " − its mean"}[variable["centering"]]
        return symbol + ("·" + (f"({escape(name)}{mark})" if mark else escape(name)) if name else "")

    ones, twos, threes = [], [], []
    for category in categories:
        mine = [e for e in equations(document) if e["category"] == category]
        own = f"({escape(category)})" if category is not None else ""
        terms = [times(letter("π", e["subscript"] + own), 1, e) for e in mine]
        left = COMBINED.get(model["distribution"], "{y}").format(
            y=escape(" | ".join(outcomes(document))), c=escape(category or ""), last=escape((model["categories"] or [""])[-1]))
        if model["distribution"] == "poisson" and model["count_variable"]:
            terms.insert(0, f"log({escape(wholename(document, 1, model['count_variable']))})")
        if model["distribution"] == "ordinal":
            terms.append("<i>δ<sub>m</sub></i>")
        if model["distribution"] == "normal":
            terms.append(letter("e"))
        ones.append(f"{left} = {' + '.join(terms)}")
        for e in mine:
            terms = [times(letter("β", t["subscript"] + own), 2, t) for t in e["terms"]]
            twos.append(f"{letter('π', e['subscript'] + own)} = {' + '.join(terms)}"
                        + (" + " + letter("r", e["subscript"] + own) if e["random"] else ""))
            for t in e["terms"] if not two else ():
                terms = [times(letter("γ", f["subscript"] + own), 3, f) for f in t["effects"]]
                threes.append(f"{letter('β', t['subscript'] + own)} = {' + '.join(terms)}"
                              + (" + " + letter("u", t["subscript"] + own) if t["random"] else ""))
    return [("Level 1", ones), ("Level 2", twos)] + ([] if two else [("Level 3", threes)])
