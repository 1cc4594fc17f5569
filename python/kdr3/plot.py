"""The pictures of kdr3-plot, of a result: from its document, and from tables as the program's residual files have them."""
from __future__ import annotations

import base64
import html
import pathlib
import re
from types import SimpleNamespace
from typing import Any, Sequence

import numpy as np

from . import _library as lib
from . import _predict
from ._document import documentof
from .kdr3plot import canvas, document as documents, files, pictures

# What a refusal says of the command file and of the command line, by what it is here.
WORDS = {r" \(PROFILE:Y in the command file\)": ' (settings={"PROFILE": 1})',
         r"the run made no table of predicted margins \(-margins .*\)": "predicted margins are of the program alone (-margins)"}


class Picture:
    """A picture: a notebook shows it, save(path) writes it, and `figure` is the figure of matplotlib."""

    def __init__(self, figure, words: str):
        self.figure, self.words = figure, words

    def svg(self) -> str:
        """The picture as SVG."""
        return canvas.picture(self.figure, "svg").decode()

    def png(self) -> bytes:
        """The picture as PNG."""
        return canvas.picture(self.figure, "png")

    def save(self, path: str | pathlib.Path) -> None:
        """Writes the picture, as PNG or SVG by the ending of the name."""
        form = pathlib.Path(path).suffix.lower()
        if form not in (".png", ".svg"):
            raise lib.KDR3Error(f"A picture is saved as .png or .svg. It cannot be {path}.")
        pathlib.Path(path).write_bytes(canvas.picture(self.figure, form[1:]))

    def _repr_svg_(self) -> str:
        return self.svg()

    def _repr_html_(self) -> str:
        data = base64.b64encode(canvas.picture(self.figure, "svg")).decode()
        return (f'<img style="width:100%;max-width:46rem;height:auto;background:#fff" alt="{html.escape(self.words)}" '
                f'src="data:image/svg+xml;base64,{data}">')

    def __repr__(self) -> str:
        return f"<picture: {self.words}>"


class Plots:
    """Pictures of a result, each a method. They are those of kdr3-plot, which docs/plots.md describes."""

    def __init__(self, results):
        self._m = results

    def coefficients(self, robust: bool = False, intercept: bool = False, ratio: bool = False) -> Picture:
        """The fixed effects with their 95% intervals; `ratio`: odds ratios, or those of rates."""
        return self._drawn("coefficients", robust=robust, intercept=intercept, ratio=ratio)

    def caterpillar(self, group: str | None = None, term: str | None = None, units: Sequence[str] = ()) -> Picture:
        """The predicted random effects of the units in their order, with 95% intervals by their posterior variances: of
        the highest level, and all its effects, unless others are named. `units` are marked."""
        level, label = self._place(group, term)
        return self._drawn(f"caterpillar{level}", label=named(units), effect=label)

    effects = caterpillar

    def qq(self, units: Sequence[str] = ()) -> Picture:
        """Quantiles of the random effects against those of the standard normal."""
        return self._drawn("qq", label=named(units))

    def lines(self, units: Sequence[str] = (), predictor: str | None = None, category: str | None = None) -> Picture:
        """The fitted lines of units of level 2: of those named, or of the eight with most records."""
        return self._drawn("lines", units=named(units), predictor=predictor, category=category)

    def residuals(self) -> Picture:
        """Residuals of the records against their fitted values; working ones of an outcome that is not normal."""
        return self._drawn("residuals")

    def simulated(self) -> Picture:
        """Simulated residuals of records and of random effects, uniform under the model."""
        return self._drawn("simulated")

    def calibration(self) -> Picture:
        """Observed against predicted shares or counts of groups of records."""
        return self._drawn("calibration")

    def profile(self) -> Picture:
        """The profiles of the likelihood of a fit with settings={"PROFILE": 1}."""
        return self._drawn("profile")

    def margins(self) -> Picture:
        """Refused: predicted margins are of the program alone."""
        return self._drawn("margins")

    def _drawn(self, kind: str, **given: Any) -> Picture:
        options = dict(units=None, label=None, predictor=None, category=None, robust=False, intercept=False, ratio=False, effect=None)
        o = SimpleNamespace(**{**options, **given}, phase=self._m._phase["phase"])
        try:
            run = runof(self._m)
            return Picture(pictures.draw(kind, run, o, ""), pictures.described(kind, run, o))
        except documents.Refusal as refusal:
            words = str(refusal)
            for said, here in WORDS.items():
                words = re.sub(said, here, words)
            raise (ImportError if "matplotlib is missing" in words else lib.KDR3Error)(words[0].upper() + words[1:] + ".") from None

    def _place(self, group: str | None, term: str | None) -> tuple[int, str | None]:
        """The level of a grouping, and what its random effect is called in the pictures."""
        found = dict(zip(self._m._groupings, self._m._random))
        having = [name for name, names in found.items() if names]
        group = group if group is not None else having[-1]
        if group not in having:
            raise lib.KDR3Error(f"There are no random effects of {group}, but of {', '.join(having)}.")
        if term is not None and term not in found[group]:
            raise lib.KDR3Error(f"{group} has no random effect {term}, but {', '.join(found[group])}.")
        level = 2 + list(found).index(group)
        return level, None if term is None else files.randomeffects(runof(self._m), level)[found[group].index(term)]


# -- What the pictures read ----------------------------------------------------------------------------------------------

def runof(m) -> files.Run:
    """The model as kdr3-plot reads a run; made once of a result."""
    if "_run" not in m.__dict__:
        document = documentof(m)
        m._run = files.Run.ofcolumns(document, "the result", tables(m, document), phaseof(m)["phase"])
    return m._run


def phaseof(m) -> dict[str, Any]:
    """Whose the random effects are: with fixed nodes of quadrature those of quasi-likelihood, as in the program's files."""
    pql = next((phase for phase in m.document["phases"] if phase["phase"] == "pql"), None)
    return pql if pql and m._phase.get("points") == 0 else m._phase


def tables(m, document) -> list[files.Table]:
    """As the residual files of the levels would be: coefficients by level, and from them the records' values."""
    c = coefficients(m, document)
    made = [records(m, document, c)]
    for level in (2, 3) if c.three else (2,):
        made.append(units(m, c, level))
    return made


def coefficients(m, document) -> SimpleNamespace:
    """The coefficients of all units, as the program's residual files have them: with the variables w of level 2 and z of
    level 3,

        level 3:  FV = sum gamma z,       EC = FV + u         [units3, terms]
        level 2:  FV = sum EC(terms) w,   EC = FV + r         [units2, equations].

    Of two levels the terms are the fixed effects, the same in all units.
    """
    three = not documents.twolevel(document)
    values = {}  # of each variable by its level, record by record
    for level, part in enumerate((lib.VARIABLES1, lib.VARIABLES2, lib.VARIABLES3), 1):
        names = m._handle().words(part)
        values.update({(level, name): column for name, column in zip(names, m._matrix(part, len(names)).T)})
    unit2 = m._state["unit2"]
    unit3 = m._state["unit3"] if three else np.zeros(len(unit2), dtype=np.int64)
    first2, first3 = (np.unique(unit, return_index=True)[1] for unit in (unit2, unit3))
    gamma = [effect["estimate"] for effect in phaseof(m)["fixed_effects"]]

    def at(level, variable, rows):
        return np.ones(len(rows)) if documents.isintercept(variable) or variable is None else values[level, variable][rows]

    made = SimpleNamespace(three=three, values=values, unit={2: unit2, 3: unit3}, count={2: len(first2), 3: len(first3)},
                           FV={2: [], 3: []}, EC={2: [], 3: []}, thresholds=[], first={2: first2, 3: first3})
    randoms = {level: iter(m._effects(level).T if level == 2 or three else ()) for level in (2, 3)}
    for equation in document["model"]["equations"]:
        own = np.zeros(len(first2))
        for term in equation["terms"]:
            over = sum(gamma[effect["fixed_effect"]] * at(3, effect["variable"], first3) for effect in term["effects"])
            over = np.zeros(len(first3)) + over
            full = over + next(randoms[3]) if term["random"] else over
            own = own + full[unit3[first2]] * at(2, term["variable"], first2)
            if not equation["threshold"]:
                made.FV[3].append(over)
                made.EC[3].append(full)
        if equation["threshold"]:
            made.thresholds.append(own)
            continue
        made.FV[2].append(own)
        made.EC[2].append(own + next(randoms[2]) if equation["random"] else own)
    return made


def named(units: Sequence) -> list[str]:
    """Units as kdr3-plot names them: of two columns ID/ID."""
    return ["/".join(map(str, unit)) if isinstance(unit, tuple) else str(unit) for unit in units]


def identities(m, c, level: int) -> list[list[str]]:
    """What the units of a level are called, in one or two columns."""
    names = [m._state["words"][which] for which in (lib.GROUPS2, lib.GROUPS3)]
    places = [i for i, name in enumerate(names[0]) if name not in names[1]] or range(len(names[0]))
    tuples = {n: [unit if isinstance(unit, tuple) else (unit,) for unit in m.units[group]] for n, group in enumerate(m._groupings, 2)}
    own = {2: [":".join(str(unit[i]) for i in places) for unit in tuples[2]]}
    if not c.three:
        return [own[2]]
    over = [":".join(map(str, unit)) for unit in tuples[3]]
    return [over] if level == 3 else [[over[k] for k in c.unit[3][c.first[2]]], own[2]]


def tabled(columns: dict[str, Any]) -> files.Table:
    listed = [column if isinstance(column, list) else np.asarray(column).tolist() for column in columns.values()]
    return files.Table("the result", list(columns), range(len(listed[0])), dict(enumerate(listed)))


def units(m, c, level: int) -> files.Table:
    """Identifiers, the count of a unit; EB, OL (missing), FV, EC, and the lower triangle of PV by rows."""
    ids = identities(m, c, level)
    columns: dict[str, Any] = dict(zip(["L3ID", "L2ID"][-len(ids):] if level == 2 else ["L3ID"], ids))
    of = c.unit[2] if level == 2 else c.unit[3][c.first[2]]
    columns["NJK" if level == 2 else "NK"] = np.bincount(of, minlength=c.count[level])
    effects, n = m._effects(level), c.count[level]
    p = effects.shape[1]
    columns.update({f"EB{i}": effects[:, i] for i in range(p)})
    columns.update({f"OL{i}": np.full(n, np.nan) for i in range(p)})
    columns.update({f"{mark}{i}": value for mark, all_ in (("FV", c.FV), ("EC", c.EC)) for i, value in enumerate(all_[level])})
    spread = m._state[f"effects{level}_cov"]
    columns.update({f"PV{i}_{j}": spread[:, i, j] for i in range(p) for j in range(i + 1)})
    return tabled(columns)


def records(m, document, c) -> files.Table:
    """Identifiers, residuals and fitted values of the records, and all variables of the model."""
    ids = identities(m, c, 2)
    columns: dict[str, Any] = dict(zip(["L3ID", "L2ID"][-len(ids):], ([one[j] for j in c.unit[2]] for one in ids)))
    columns.update(fits(m, document, c))
    for (_, name), values in c.values.items():
        if name in columns:
            raise lib.KDR3Error(f"The variable {name} has the name of a column of residuals: pictures need another one.")
        columns[name] = values
    if name := document["model"]["count_variable"]:
        columns[name] = m._outcome[1]
    return tabled(columns)


def fits(m, document, c) -> dict[str, np.ndarray]:
    """Of the records the residual, the fitted value on the scale of the link, and their like on that of the outcome; of
    categories the indicators less the probabilities, and these: in an ordinal model of each category or a lower one."""
    y, count, offset = m._outcome
    equations = documents.equations(document)
    eta = {}
    for equation, coefficient in zip(equations, c.EC[2]):
        x = 1.0 if documents.isintercept(equation["variable"]) else c.values[1, equation["variable"]]
        eta[equation["category"]] = eta.get(equation["category"], 0.0) + x * coefficient[c.unit[2]]
    if m.family in ("ordinal", "multinomial"):
        return ofcategories(m.family, y, np.column_stack(list(eta.values())), np.array([0.0] + [t[0] for t in c.thresholds]))
    x, = eta.values()
    if m.family == "gaussian":
        return {"L1RESID": y - offset - x, "FITVAL": x + offset, "SIGMA": np.full(len(y), np.sqrt(m.scale))}
    mean = _predict.mean(m.family, x)
    raw, variance = y - count * mean, count * (mean * (1 - mean) if m.family == "binomial" else mean)
    return {"L1RESID": raw / variance, "FITVAL": x, "SIGMA": np.full(len(y), np.sqrt(m.scale)), "FITMU": count * mean, "RAWRES": raw}


def ofcategories(family: str, y: np.ndarray, eta: np.ndarray, thresholds: np.ndarray) -> dict[str, np.ndarray]:
    """y counts the categories from 1; eta [n, 1] of an ordinal outcome, [n, categories - 1] of a nominal one."""
    if family == "ordinal":
        p = 1 / (1 + np.exp(-(eta + thresholds)))
        reached = y[:, None] <= np.arange(1, p.shape[1] + 1)
    else:
        top = np.maximum(eta.max(axis=1, keepdims=True), 0.0)
        p = np.exp(eta - top) / (np.exp(-top) + np.exp(eta - top).sum(axis=1, keepdims=True))
        reached = y[:, None] == np.arange(1, p.shape[1] + 1)
    return {**{f"L1RES_{i + 1}": column for i, column in enumerate((reached - p).T)},
            **{f"FITVAL_{i + 1}": column for i, column in enumerate(p.T)}}
