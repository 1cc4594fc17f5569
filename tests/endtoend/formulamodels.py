"""Models by formulas beside those that R fitted (tests/reference/formulas.R, twolevel.R): reading R's file, and comparing."""
from program import REFERENCE

OTHERS = ("residual", "deviance", "covariances", "criterion")  # lines of two words that are no fixed effect


def blocks(file, kind):
    """The entries of a file: the words of the head, and those of each line below it."""
    entries, taken = [], False
    for line in (REFERENCE / file).read_text().splitlines():
        words = [word.strip() for word in line.split("\t")]
        if not line.startswith(" "):
            taken = words[0].startswith(kind + " ")
            if taken:
                entries.append((words[0].split()[1], words[1], words[2].split() if len(words) > 2 else [], []))
        elif taken:
            entries[-1][3].append(words)
    return entries


def numbers(text):
    return [float(x) for x in text.split()]


def line(rows, name, default=None):
    """The numbers of the line of this name."""
    return next((numbers(words[1]) for words in rows if words[0] == name), default)


def key(name):
    """Products are told by their factors: those of one level stand together here."""
    depth, parts = 0, [""]
    for c in name:
        depth += (c == "(") - (c == ")")
        if c == ":" and depth == 0:
            parts.append("")
        else:
            parts[-1] += c
    return tuple(sorted(parts))


def lastphase(document):
    """The results that a reader takes."""
    phases = {p["phase"]: p for p in document["phases"]}
    return next(phases[name] for name in ("quadrature", "final", "pql") if name in phases)


def effects(document, phase=None):
    """Fixed effects by the parts of their names, in the order of R's names where these are sorted."""
    whole = {(row["level"], row["name"]): row["whole_name"] for row in document["variables"]}
    found = {}
    for row in (phase or lastphase(document))["fixed_effects"]:
        names = [(level, row[f"level{level}"]) for level in (1, 2, 3)]
        parts = [whole[place] for place in names if place[1] and not place[1].startswith("INTRCPT")]
        found[key(":".join(parts) or "(Intercept)")] = row
    return found


def fixed(rows):
    """R's fixed effects by the parts of their names: the numbers of each."""
    return {key(words[0]): numbers(words[1]) for words in rows if len(words) == 2 and words[0] not in OTHERS}


def compare(c, what, document, rows, engine):
    """Fixed effects and their errors, the residual variance, the deviance and the number of records; the residual variance."""
    phase, got, values = lastphase(document), effects(document), fixed(rows)
    c.equal(f"effects of {what}", sorted(got), sorted(values))
    for name, (b, se) in values.items():
        if name in got:
            c.near(f"{what}: {name}", got[name]["estimate"], b, 5e-3 * se)
            c.near(f"{what}: SE of {name}", got[name]["model_based"]["standard_error"], se, 0, 0.02 if engine else 5e-3)
    residual, = line(rows, "residual", [1.0])
    if not engine:
        c.near(f"{what}: residual", phase["sigma2"]["estimate"], residual, 0, 2e-3)
    deviance, n = line(rows, "deviance")
    c.near(f"{what}: deviance", -2 * (phase["marginal_log_likelihood"] if engine else phase["log_likelihood"]), deviance, 5e-3)
    c.equal(f"{what}: records", document["dimensions"]["records"], int(n))
    return residual
