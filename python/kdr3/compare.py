"""Models beside each other: the tests of kdr3-plot --compare, on the documents of the results."""
from __future__ import annotations

import math
from typing import TYPE_CHECKING

import numpy as np

from . import _library as lib
from ._document import documentof
from ._frames import frame
from .kdr3plot import compare, nested
from .pooled import Pooled
from .results import Results

if TYPE_CHECKING:
    from ._frames import Table


class Column(compare.Column):
    """A model of a comparison. Its data are at hand: fixed effects may span others under other names."""

    def __init__(self, m: Results):
        super().__init__(documentof(m), m.formula, m._phase["phase"])
        self.m = m

    def spans(self, smaller: "Column") -> bool:
        return super().spans(smaller) or spans(self.m, smaller.m)


def anova(*models: Results | Pooled) -> Table:
    """Likelihood-ratio tests of neighbours, in the order of their parameters; of one model a Wald test of each term.

    What may be tested, and how, is as in kdr3-plot --compare. Where the larger model has one random effect more, the
    variance is 0 in the smaller one, at the edge of what is possible: `p_mixture` is that of the mixture, half and half,
    of chi-squares with one degree of freedom less and with these (Self and Liang 1987); it is the one to take.
    """
    for m in models:
        if not isinstance(m, (Results, Pooled)):
            raise lib.KDR3Error(f"Results of fits are compared, not {type(m).__name__}.")
    if not models:
        raise lib.KDR3Error("There is nothing to compare.")
    if len(models) == 1:
        return models[0].anova()
    for m in models:
        if isinstance(m, Pooled):
            raise lib.KDR3Error(f"{m.formula} has results pooled over data sets, which have no likelihood: wald_test tests its terms.")
    ordered = sorted(models, key=lambda m: m.df_model)
    columns = [Column(m) for m in ordered]
    rows = []
    for i, (m, column) in enumerate(zip(ordered, columns)):
        row = [m.formula, m.df_model, m.llf, m.aic, m.bic, math.nan, math.nan, math.nan, math.nan]
        if i > 0:
            made = tested(columns[i - 1], column)
            row[5:] = [made["chi_square"], made["df"], made["p"], math.nan if made["mixture_p"] is None else made["mixture_p"]]
        rows.append(row)
    names = ("model", "parameters", "logLik", "AIC", "BIC", "chi_square", "df", "p", "p_mixture")
    return frame(dict(zip(names, zip(*rows))))


def tested(a: Column, b: Column) -> dict:
    """The test of two neighbours; an error where there is none."""
    made = nested.compared(a, b)
    if "why" not in made and (name := changed(a.m, b.m)):
        made = {"why": f"they rest on other data: {name} is not the same", "criteria": False}
    if "why" in made:
        end = "AIC and BIC compare them" if made["criteria"] else "their AIC and BIC do not compare them, either"
        why = made["why"].replace("(LIKELIHOOD:ML)", "(reml=False)")
        raise lib.KDR3Error(f"No likelihood-ratio test of {a.name} and {b.name}: {why}; {end}.")
    for sentence in made["notes"]:
        lib.tell(sentence)
    return made


def changed(a: Results, b: Results) -> str | None:
    """A column of both models whose values differ in their records."""
    rows = [np.sort(m._state["rows"]) for m in (a, b)]
    for name, one in a._fields().columns.items():
        other = b._fields().columns.get(name)
        if other is None or (one.labels is None) != (other.labels is None):
            continue
        x, y = ((c.values if c.labels is None else np.array([*c.labels, ""])[c.values])[of] for c, of in zip((one, other), rows))
        lost, also = one.absent()[rows[0]], other.absent()[rows[1]]
        if not np.array_equal(lost, also) or not np.array_equal(x[~lost], y[~lost]):
            return name
    return None


def spans(large: Results, small: Results) -> bool:
    """Whether the columns of the larger model matrix give those of the smaller one."""
    if not np.array_equal(np.sort(large._state["rows"]), np.sort(small._state["rows"])):
        return False
    X, Z = [m._matrix(lib.EFFECTS, len(m._state["words"][lib.EFFECTS]))[np.argsort(m._state["rows"], kind="stable")] for m in (large, small)]
    left = Z - X @ np.linalg.lstsq(X, Z, rcond=None)[0]
    return bool((np.linalg.norm(left, axis=0) <= 1e-8 * np.linalg.norm(Z, axis=0)).all())
