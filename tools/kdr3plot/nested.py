"""Is one model a part of another, and what a likelihood-ratio test of both may say.

A model is told by its groups of fixed terms and by its random terms. A group is what one fixed effect multiplies: one term,
or with CONSTRAIN: several whose effects are equal. With the columns of a group being the sum of those of its terms, the
smaller model is a part of the larger one where each of its groups is a union of groups of the larger one, and each of its
random terms one of the larger one. Elements of a covariance matrix may be held in the smaller model alone.
"""
from .digits import chisquarep
from .document import isintercept, twolevel, wholename

TOP, LOWER = "the highest level", "the level below"  # of units
ENGINES = {"final": "linear", "laplace6": "Laplace-6", "quadrature": "quadrature"}


def groupof(document, level):
    """Which units these are: those of the highest level, or those within them. Data of two levels have the former alone."""
    return TOP if level == (2 if twolevel(document) else 3) else LOWER


def part(document, level, variable):
    """A variable of an equation with its centering, as a set; empty for an intercept. At whichever level it stands: the
    same variable may be one of level 1 in one data file, of level 2 in the other."""
    name, centering = variable["variable"], variable["centering"]
    if name is None or isintercept(name):
        return frozenset()
    return frozenset({(wholename(document, level, name),
                       f"group mean, {groupof(document, level + 1)}" if centering == "group mean" else centering)})


def termsof(document):
    """The terms of each fixed effect, by its place in fixed_effects: (category, variables with their centering)."""
    groups = {}
    for e in document["model"]["equations"]:
        for t in e["terms"]:
            for f in t["effects"]:
                groups.setdefault(f["fixed_effect"], set()).add(
                    (e["category"], part(document, 1, e) | part(document, 2, t) | part(document, 3, f)))
    return {number: frozenset(group) for number, group in groups.items()}


def fixedgroups(document):
    return set(termsof(document).values())


def randomterms(document):
    """(units, category, variables) of each random effect, in the order of the matrices."""
    equations = [e for e in document["model"]["equations"] if not e["threshold"]]
    return ([(groupof(document, 2), e["category"], part(document, 1, e)) for e in equations if e["random"]]
            + [(TOP, e["category"], part(document, 1, e) | part(document, 2, t))
               for e in equations for t in e["terms"] if t["random"] and not twolevel(document)])


def tausof(column):
    """The matrices of random effects by units."""
    return {groupof(column.document, level): column.phase[name] for level, name in ((2, "tau_pi"), (3, "tau_beta"))
            if level == 2 or not twolevel(column.document)}


def spans(larger, smaller):
    """Every group of the smaller model is a union of groups of the larger one."""
    return all(group == frozenset().union(*(other for other in larger if other <= group)) for group in smaller)


def kindof(column):
    """Of which likelihood the phase has a maximum."""
    phase = column.phase
    kind = ENGINES.get(phase["phase"])
    if kind == "quadrature" and phase.get("points") in (0, 1):
        return {0: "quadrature with fixed nodes", 1: "first-order Laplace"}[phase["points"]]
    return kind


def loglikelihood(phase):
    """The one with all its constants."""
    value = phase["marginal_log_likelihood"]
    if value is None and phase["deviance"] is not None:
        value = phase["log_likelihood"]
    return value


def sizesof(document):
    sizes = document["dimensions"]
    if twolevel(document):
        return sizes["records"], sizes["level2_units"], None
    return sizes["records"], sizes["level3_units"], sizes["level2_units"]


def weightsof(document):
    """Names of weights by units, without those that there are none of."""
    weights = document["model"]["weights"]
    return {1 if level == 1 else groupof(document, level): weights[f"level{level}"] for level in (1, 2, 3)
            if weights[f"level{level}"]}, weights["known_variance"], weights.get("scale")


def changed(a, b):
    """Variables that both models name and whose values are not the same in both, though the records are: a predictor or a known
    variance was changed between the runs. A variable of one level may be one of another level in the other data file."""
    if None in (a.document.get("records_hash"), b.document.get("records_hash")):
        return []
    one, other = ({(row["level"], wholename(column.document, row["level"], row["name"])): row["hash"]
                   for row in column.document.get("variable_hashes") or ()} for column in (a, b))
    found = set()
    for (level, name), digits in one.items():
        same = [(level, name)] if (level, name) in other else [key for key in other if key[1] == name and key not in one]
        if same and all(other[key] != digits for key in same):
            found.add(name)
    return sorted(found)


def otherdata(a, b):
    """Why the two models rest on other data: a sentence, or None."""
    one, other, columns = a.document, b.document, (a, b)
    if one["model"]["outcome"] != other["model"]["outcome"] or a.outcome != b.outcome:
        return f"the outcomes differ ({a.outcome} and {b.outcome})"
    x, y = one.get("records_hash"), other.get("records_hash")
    if twolevel(one) != twolevel(other):
        if None in (x, y):
            return "one has two levels and the other three, and what their levels are the documents do not tell"
        if sizesof(one)[1] != sizesof(other)[1]:
            return "one has two levels and the other three, whose highest one has other units"
    for what, a, b in zip(("records", "units of the highest level", "units below it"), sizesof(one), sizesof(other)):
        if a != b and None not in (a, b):
            return f"they rest on different data ({a} and {b} {what})"
    if x is not None and y is not None and x != y:
        return "they rest on different records, or on records that are grouped otherwise (their hashes differ)"
    for key, what in (("distribution", "distributions of the outcome"), ("link", "links"), ("categories", "categories"),
                      ("count_variable", "trials or exposures"), ("sigma2_held_at", "held level-1 variances")):
        if one["model"][key] != other["model"][key]:
            return f"their {what} differ"
    if wholename(one, 1, one["model"]["weights"]["known_variance"]) in changed(*columns):
        return "their known variances have other values"
    return "their weights differ" if weightsof(one) != weightsof(other) else None


def nolikelihood(a, b):
    """Why their likelihoods are none that a test could compare: a sentence, or None."""
    for column in (a, b):
        if (column.document["series"] or {}).get("subrun", 0) is None:
            return f"{column.name} has results pooled over data sets, which have no likelihood"
        if kindof(column) is None or loglikelihood(column.phase) is None:
            return f"{column.name} has no likelihood of its outcome (phase {column.phase['phase']}); fit both by an engine"
        if any(column.document["model"]["weights"][f"level{level}"] for level in (1, 2, 3)):
            return "the likelihood is weighted, and twice its difference has no chi-square distribution"
        if column.phase["converged"] is False or column.phase["ending"] not in (None, "converged"):
            return f"{column.name} did not converge, or failed its check"
    if kindof(a) != kindof(b):
        return f"the likelihoods are of two kinds ({kindof(a)}, {kindof(b)})"
    kinds = [column.phase.get("likelihood") for column in (a, b)]
    if kinds[0] != kinds[1]:
        return "one was fitted by maximum, the other by restricted likelihood"
    if kinds[0] and fixedgroups(a.document) != fixedgroups(b.document):
        return ("restricted likelihoods compare models with the same fixed effects alone; fit both by maximum likelihood "
                "(LIKELIHOOD:ML)")
    return None


def held(tau, i, j):
    """An element that was held: its standard error is 0."""
    return bool(tau["standard_error"]) and tau["standard_error"][i][j] == 0


def heldotherwise(larger, smaller):
    """Is an element held in the larger model that is free, or held elsewhere, in the smaller one?"""
    for group, other in tausof(smaller).items():
        one = tausof(larger).get(group)
        if not one or not other:
            continue
        spots = [next((i for i, r in enumerate(one["rows"]) if r["label"] == row["label"]), None) for row in other["rows"]]
        for i, x in enumerate(spots):
            for j, y in enumerate(spots[:i + 1]):
                if None not in (x, y) and held(one, x, y) and not (
                        held(other, i, j) and other["estimate"][i][j] == one["estimate"][x][y]):
                    return True
    return False


def unseen(column):
    """Has the model fewer parameters than its free effects and elements, since equations hold between elements?"""
    phase, count = column.phase, len(column.phase["fixed_effects"])
    for tau in filter(None, (phase["tau_pi"], phase["tau_beta"])):
        if not tau["standard_error"]:
            return False
        count += sum(not held(tau, i, j) for i in range(len(tau["rows"])) for j in range(i + 1))
    return phase["parameters"] < count + bool(phase["sigma2"] and not phase["sigma2"]["held"])


def compared(a, b):
    """What the models a and b, neighbours in a table, say against each other: a dictionary with `why`, why there is no
    test, or with chi_square, df, p, mixture_p (or None); and `notes`."""
    why = otherdata(a, b)
    if why:
        return {"why": why, "criteria": False, "notes": []}
    other = changed(a, b)
    differ = f"{', '.join(other)} {'has' if len(other) == 1 else 'have'} other values in one than in the other"
    notes = [differ + "."] if other else []
    why = nolikelihood(a, b)
    if why:
        comparable = "failed its check" not in why and None not in (a.phase["aic"], b.phase["aic"])
        return {"why": why, "criteria": comparable and "kinds" not in why and "restricted" not in why and "weighted" not in why,
                "notes": notes}
    if other:
        return {"why": differ, "criteria": not a.phase.get("likelihood"), "notes": []}
    if None in (a.document.get("records_hash"), b.document.get("records_hash")):
        notes.append("That both rest on the same records is seen by their numbers alone; a document of an earlier version, without "
                     "records_hash, does not tell.")
    if a.phase.get("points") != b.phase.get("points"):
        notes.append(f"The likelihoods rest on {a.phase.get('points')} and {b.phase.get('points')} quadrature points.")
    small, large = sorted((a, b), key=lambda column: column.phase["parameters"])
    df = large.phase["parameters"] - small.phase["parameters"]
    random = [randomterms(column.document) for column in (small, large)]
    extra = [term for term in random[1] if term not in random[0]]
    if df == 0:
        why = "they have the same number of parameters, so that neither is a part of the other"
    elif not large.spans(small) or not set(random[0]) <= set(random[1]) or heldotherwise(large, small):
        why = f"{small.name} is no part of {large.name}"
    elif unseen(large):
        why = f"{large.name} has equations between elements of its covariance matrices, which the document does not tell"
    gain = 2 * (loglikelihood(large.phase) - loglikelihood(small.phase))
    if not why and gain < -1e-7 * abs(2 * loglikelihood(large.phase)):
        why = f"{large.name} has more parameters and fits worse, so that one of them is not at its maximum"
    if why:
        return {"why": why, "criteria": True, "notes": notes}
    gain = max(gain, 0.0)
    p = chisquarep(gain, df)
    mixture = None
    if len(extra) == 1:  # one variance more, which is 0 in the smaller model
        mixture = 0.5 * (p + (chisquarep(gain, df - 1) if df > 1 else 0.0)) if gain > 0 else 1.0
    elif len(extra) > 1:
        notes.append(f"{large.name} has {len(extra)} random effects more, whose variances are 0 in {small.name}, at the edge of what "
                     "is possible: p is too large.")
    return {"chi_square": gain, "df": df, "p": p, "mixture_p": mixture, "small": small.name, "large": large.name,
            "criteria": True, "notes": notes}
