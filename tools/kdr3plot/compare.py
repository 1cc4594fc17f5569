"""Models side by side: the rows of a table for a paper, and the tests of neighbours."""
import collections

from .digits import degrees, interval, places, pvalue, shown, statistic
from .document import choosephase, errorsof, outcomes, twolevel
from .model import engine, formula, pooled, rationame, thresholdname
from .nested import LOWER, TOP, compared, fixedgroups, groupof, held, loglikelihood, randomterms, sizesof, spans, termsof


class Column:
    def __init__(self, document, name, phase=None):
        self.document, self.phase = document, choosephase(document, phase)
        self.name, self.outcome = name, ", ".join(outcomes(document))

    def spans(self, smaller):
        """Are the fixed effects of another model a part of this one's?"""
        return spans(fixedgroups(self.document), fixedgroups(smaller.document))


class Cell:
    """A number with its standard error or interval, either may be None; or one that was held."""

    def __init__(self, value=None, error=None, bounds=None, held=False):
        self.value, self.error, self.bounds, self.held = value, error, bounds, held


class Row:
    """Of each column a Cell, or None where the model has not what the label names. Its numbers share their decimals."""

    def __init__(self, label, cells, decimals=None, words=None):
        self.label, self.cells, self.words = label, cells, words or ("–",) * len(cells)
        errors = [cell.error or (cell.bounds and None not in cell.bounds and (cell.bounds[1] - cell.bounds[0]) / 4)
                  for cell in cells if cell]
        self.decimals = places(errors) if decimals is None else decimals

    def texts(self):
        return [self.text(cell, word) for cell, word in zip(self.cells, self.words)]

    def text(self, cell, word):
        if cell is None:
            return word
        text = shown(cell.value, self.decimals if isinstance(cell.value, float) else None)
        if cell.held:
            return f"{text}, held"
        if cell.bounds:
            return f"{text} [{interval(cell.bounds, self.decimals, ', ')}]"
        return f"{text} ({shown(cell.error, self.decimals)})" if cell.error is not None else text


class Comparison:
    """sections: (heading, rows). tests: dictionaries of nested.compared with the names of both models."""

    def __init__(self, columns, o):
        self.columns, self.o, self.notes = columns, o, []
        self.names = [column.name for column in columns]
        self.sections = [(head, rows) for head, rows in (
            *self.effects(), *self.variances(), ("Size", self.sizes()), ("Fit", self.fit()),
            ("Shares of variance", self.shares())) if rows]
        self.tests = [(a.name, b.name, compared(a, b)) for a, b in zip(columns, columns[1:])]
        self.tell()

    # Fixed effects

    def sideof(self, column):
        return errorsof(column.phase, self.o.robust)

    def fixedcell(self, effect, side):
        test = effect[side] or {}
        ratio = self.o.ratio and "ratio" in effect and not effect["threshold"]
        value = effect["ratio"] if ratio else effect["estimate"]
        if ratio or self.o.intervals:
            return Cell(value, bounds=test.get("ratio_interval" if ratio else "interval"))
        return Cell(value, test.get("standard_error"))

    def effects(self):
        """Effects, then thresholds. The order is that of the models, a later one's new effects behind those it has before
        them."""
        order, cells, missing, names = [], {}, {}, {}
        for k, column in enumerate(self.columns):
            terms, last, side = termsof(column.document), -1, self.sideof(column)
            for i, effect in enumerate(column.phase["fixed_effects"]):
                threshold = thresholdname(column.document, effect)
                key = (threshold is not None, terms[i])
                if key not in order:
                    order.insert(last + 1, key)
                    names[key] = threshold or effect["label"], terms[i]
                last = order.index(key)
                cells.setdefault(key, {})[k] = self.fixedcell(effect, side)
                share = (effect[side] or {}).get("missing_information")
                if share is not None:
                    missing.setdefault(key, {})[k] = Cell(share)
        labels = toldapart(names)
        rows = lambda cells, wanted, decimals=None: [Row(labels[key], [cells[key].get(k) for k in range(len(self.columns))], decimals)
                                                     for key in order if key in cells and key[0] in wanted]
        return (f"{self.ratios()}s" if self.o.ratio else "Fixed effects", rows(cells, [False])), ("Thresholds", rows(cells, [True])), (
            "Missing information", rows(missing, [False, True], 3))

    def ratios(self):
        names = {rationame(column.document) for column in self.columns}
        return names.pop() if len(names) == 1 else "Ratio"

    # Random part

    def variances(self):
        sections, order, found, names = [], {TOP: [], LOWER: []}, {}, {}
        for k, column in enumerate(self.columns):
            terms = randomterms(column.document)
            for own, name in ((groupof(column.document, 2), "tau_pi"), (TOP, "tau_beta")):
                group = LOWER if self.islower(column) else own
                tau, mine = column.phase[name], [(group, *term[1:]) for term in terms if term[0] == own]
                for i, row in enumerate(tau["rows"] if tau and tau["estimate"] else ()):
                    names[mine[i]] = row["label"], {mine[i]}
                    for j in [i, *range(i)]:
                        key = frozenset((mine[i], mine[j]))
                        if key not in order[group]:
                            order[group].append(key)
                        found.setdefault(key, {})[k] = self.taucell(column.phase, name, i, j)
        for group in (TOP, LOWER):
            labels = toldapart({term: name for term, name in names.items() if term[0] == group})
            rows = [Row(("Variance: " if len(key) == 1 else "Correlation: ") + ", ".join(sorted(labels[term] for term in key)),
                        [found[key].get(k) for k in range(len(self.columns))], None if len(key) == 1 or self.o.intervals else 2)
                    for key in sorted(order[group], key=len)]
            sections.append((f"Random effects of {self.unitsof(group)}", rows))
        cells = [self.sigmacell(column) for column in self.columns]
        linear = any(column.document["model"]["link"] == "identity" for column in self.columns)
        sections.append(("Level 1", [Row("Variance" if linear else "Dispersion", cells)] if any(cells) else []))
        return sections

    def islower(self, column):
        """Are the units of two levels as many as those below the highest level of a model of three?"""
        sizes = [sizesof(other.document) for other in self.columns if not twolevel(other.document)]
        count = column.document["dimensions"]["level2_units"]
        return twolevel(column.document) and count in {size[2] for size in sizes} - {size[1] for size in sizes}

    def unitsof(self, group):
        """The number of the level, where it is that of all models."""
        levels = {2 if twolevel(column.document) or group == LOWER else 3 for column in self.columns
                  if group == (LOWER if self.islower(column) else TOP) or not twolevel(column.document)}
        return f"level {levels.pop()}" if len(levels) == 1 else group

    def taucell(self, phase, name, i, j):
        tau, bounds = phase[name], None
        intervals = (phase.get("variance_intervals") or {}).get(name)
        if i != j:
            if self.o.intervals and intervals:
                bounds = (intervals["correlation"][i] or [None] * i)[j]
            return Cell(tau["correlation"][i][j] if tau["correlation"] else None, bounds=bounds)
        if held(tau, i, i):
            return Cell(tau["estimate"][i][i], held=True)
        if self.o.intervals and intervals:
            return Cell(tau["estimate"][i][i], bounds=(intervals["variance"] or [None] * (i + 1))[i])
        return Cell(tau["estimate"][i][i], tau["standard_error"][i][i] if tau["standard_error"] else None)

    def sigmacell(self, column):
        """Of outcomes with a distribution of their own a dispersion, which is mostly held at 1 and no number of interest then."""
        phase, linear = column.phase, column.document["model"]["link"] == "identity"
        sigma2 = phase["sigma2"]
        if not sigma2 or sigma2["estimate"] is None or sigma2["held"] and not linear:
            return None
        if sigma2["held"]:
            return Cell(sigma2["estimate"], held=True)
        if self.o.intervals:
            return Cell(sigma2["estimate"], bounds=(phase.get("variance_intervals") or {}).get("sigma2"))
        return Cell(sigma2["estimate"], sigma2["standard_error"])

    # Sizes and fit

    def plain(self, label, values, decimals=None):
        """A row of numbers without errors; None when no model has one."""
        cells = [None if value is None else Cell(value) for value in values]
        return [Row(label, cells, decimals)] if any(cells) else []

    def sizes(self):
        sizes = [sizesof(column.document) for column in self.columns]
        sizes = [(size[0], None, size[1]) if self.islower(column) else size for column, size in zip(self.columns, sizes)]
        rows = []
        for place, group in ((1, TOP), (2, LOWER)):
            name = self.unitsof(group)
            rows += self.plain(name[0].upper() + name[1:].replace(" ", "-") + " units" if name.startswith("level") else f"Units of {name}",
                               [size[place] for size in sizes])
        return rows + self.plain("Records", [size[0] for size in sizes]) + self.plain("Data sets pooled", [column.phase.get("subruns") for column in self.columns])

    def fit(self):
        phases = [column.phase for column in self.columns]
        rows = [Row("Estimation", [None] * len(phases), words=[engine(phase) for phase in phases])]
        rows += self.plain("Parameters", [phase["parameters"] for phase in phases])
        likelihoods = [loglikelihood(phase) for phase in phases]
        rows += self.plain("Log-likelihood", likelihoods, 2)
        rows += self.plain("Deviance", [None if x is None else -2 * x for x in likelihoods], 2)
        for key, label in (("aic", "AIC"), ("bic", "BIC")):
            rows += self.plain(label, [phase[key] for phase in phases], 2)
        return rows

    def shares(self):
        rows = []
        for level in (2, 3):
            rows += self.plain(f"ICC, same level-{level} unit", [iccof(column.phase, f"same_level{level}_unit") for column in self.columns], 3)
        for key in ("marginal", "conditional"):
            rows += self.plain(f"R², {key}", [((column.phase.get("variance_shares") or {}).get("r_squared") or {}).get(key)
                                              for column in self.columns], 3)
        return rows

    # What stands below

    def tell(self):
        sides = {column.name: self.sideof(column).replace("_", "-") for column in self.columns}
        side = " or ".join(sorted(set(sides.values())))
        beside = "95% intervals in brackets" if self.o.intervals or self.o.ratio else "standard errors in parentheses"
        outcomes = dict.fromkeys(column.outcome for column in self.columns)
        self.notes.append(f"Outcome: {', '.join(outcomes)}. Of fixed effects, {side} {beside}.")
        if " or " in side:
            self.notes += [f"{name}: {words} errors." for name, words in sides.items()]
        self.notes += [f"{column.name}: {formula(column.document)[0]}" for column in self.columns]
        self.shared([(column.name, note) for column in self.columns for note in aboutcolumn(column)])
        self.shared([(f"{a} against {b}", note) for a, b, made in self.tests for note in made["notes"]])
        for a, b, made in self.tests:
            if "why" in made:
                end = ("; AIC and BIC compare them" if made["criteria"] else "; their AIC and BIC do not compare them, either")
                self.notes.append(f"No likelihood-ratio test of {a} and {b}: {made['why']}{end}.")
        if any(made.get("mixture_p") is not None for _, _, made in self.tests):
            self.notes.append("Mixture p: of the mixture, half and half, of chi-squares with one degree of freedom less and with these, "
                              "since a variance is 0 in the smaller model.")
        bases = {column.phase["bic_sample_size"] for column in self.columns} - {None}
        if bases:
            self.notes.append("BIC counts level-1 records.")

    def shared(self, pairs):
        """One note for all that it is of."""
        notes = {}
        for name, note in pairs:
            notes.setdefault(note, []).append(name)
        self.notes += [f"{', '.join(dict.fromkeys(names))}: {note}" for note, names in notes.items()]

    def testtable(self):
        """Heads and rows of the tests."""
        mixture = any(made.get("mixture_p") is not None for _, _, made in self.tests)
        rows = [[f"{made['large']} against {made['small']}", statistic(made["chi_square"]), degrees(made["df"]), pvalue(made["p"])]
                + [pvalue(made["mixture_p"])] * mixture for _, _, made in self.tests if "why" not in made]
        return ["Likelihood-ratio test", "χ²", "df", "p"] + ["Mixture p"] * mixture, rows


def aboutcolumn(column):
    document = column.document
    weights = [f"{name} (level {level})" for level in (1, 2, 3) if (name := document["model"]["weights"][f"level{level}"])]
    text, runs = pooled(document)
    return ([f"{text[:1].upper()}{text[1:]}" + f" ({'; '.join(runs)})" * bool(runs) + "."] * bool(text)
            + [f"Weighted by {', '.join(weights)}."] * bool(weights)
            + ["Did not converge, or failed its check."] * (document["converged"] is False)
            + list(document["warnings"]))


def toldapart(names):
    """A label for each key of (label, terms): with the centering of its variables where several have one label."""
    count = collections.Counter(label for label, _ in names.values())
    return {key: label if count[label] == 1 else f"{label} ({', or '.join(sorted(map(centerings, terms)))})"
            for key, (label, terms) in names.items()}


def centerings(term):
    """How the variables of a term stand in it."""
    words = {"none": "as it is", "grand mean": "less its mean"}
    return ", ".join(f"{name} {words.get(mark, f'less its mean in the unit of {mark[12:]}')}"
                     for name, mark in sorted(term[-1])) or "intercept"


def iccof(phase, key):
    for part in (phase["intraclass_correlation"], (phase.get("variance_shares") or {}).get("intraclass_correlation")):
        if part and part[key] is not None:
            return part[key]
    return None
