"""Imputed data and plausible values: fits of several tables as one result."""
from __future__ import annotations

import copy
import math
from typing import TYPE_CHECKING, Any, Sequence

import numpy as np

from . import _library as lib
from ._formula import Formula
from ._frames import Frame, matrix, series, shown
from ._summary import Summary
from ._table import names
from .estimates import Estimates
from .results import Results

if TYPE_CHECKING:
    from ._frames import Matrix, Series, Table


def _factors(fit: Results) -> dict:
    """The levels of each factor in their order; the first is the reference."""
    return {name: one.labels if one.ordered else sorted(one.labels) for name, one in fit._fields().columns.items()
            if one.labels is not None and name not in fit._state["words"][lib.GROUPS2] + fit._state["words"][lib.GROUPS3]}


def inplaceof(formula: str, data: Any, plausible: Sequence[str]):
    """The table with each of the plausible values in the place of the first one."""
    known, named = names(data), Formula(formula).words(lib.COLUMNS)
    if isinstance(plausible, str) or not isinstance(plausible, Sequence) or len(plausible) < 2:
        raise lib.KDR3Error("plausible names the columns of two or more plausible values.")
    for name in plausible:
        if name not in known:
            raise lib.KDR3Error(f"The table has no column {name}.")
    if plausible[0] not in named:
        raise lib.KDR3Error(f"The first plausible value, {plausible[0]}, does not stand in the formula.")
    if set(plausible[1:]) & set(named):
        raise lib.KDR3Error("The first plausible value alone stands in the formula.")
    for name in plausible:
        if hasattr(data, "assign"):  # pandas
            yield data.assign(**{plausible[0]: data[name]})
        else:
            yield {**{column: data[column] for column in known}, plausible[0]: data[name]}


class Pooled(Estimates):
    """The averages of the fits of m imputed tables or plausible values, by Rubin (1987), as the program makes them of a
    series.

    The covariance of the fixed effects, and of the variances, is the mean of the fits' covariances, within, plus
    (1 + 1/m) times the covariance of their estimates, between. With r the ratio of the second part to the first, an
    effect has min((m - 1) (1 + 1/r)^2, its degrees of freedom in the complete data) degrees of freedom, the former cut
    to a whole number. Shapes and names are those of :class:`kdr3.Results`.
    """

    def __init__(self, fits: list[Results]):
        self.fits, first = fits, fits[0]
        self.formula, self.family, self.outcome, self.engine, self.levels = first.formula, first.family, first.outcome, first.engine, first.levels
        self.categories = first.categories
        self._names, self._random, self._groupings = first._names, first._random, first._groupings
        self.warnings = [*differences(fits), *dict.fromkeys(f"Table {i}: {words}" for i, fit in enumerate(fits, 1) for words in fit.warnings)]
        self.nobs, self.ngroups, self.weights, self.reml = first.nobs, first.ngroups, first.weights, first.reml
        self.converged = all(fit.converged for fit in fits)
        self._state = {"words": first._state["words"], **averages(fits)}
        self.scale = self._state["sigma2"]
        self._free, self._missing = {}, {}
        for which, complete in (("covariance", [fit._df() for fit in fits]), ("robust", [fit._df(True) for fit in fits])):
            self._free[which], self._missing[which] = freedom(
                len(fits), np.diag(self._state[f"within_{which}"]), np.diag(self._state["between"]), np.mean(complete, axis=0))

    def _df(self, robust: bool = False) -> np.ndarray:
        return self._free["robust" if robust else "covariance"]

    @property
    def fraction_missing(self) -> Series:
        """[g] of the information that is missing."""
        return series(self._missing["covariance"], self._names, "fraction_missing")

    def _waldtests(self, contrasts: Sequence[np.ndarray], robust: bool) -> list[dict[str, float]]:
        return [self._wald(C, robust) for C in contrasts] if len(self.fits) > 1 else self.fits[0]._waldtests(contrasts, robust)

    def _wald(self, C: np.ndarray, robust: bool) -> dict[str, float]:
        """The test of C gamma = 0 of k rows (Li, Raghunathan and Rubin 1991): with U the mean of the fits' covariances of
        the contrasts e and r = tr(B U^-1) / k of what lies between them, D = e' U^-1 e / (k (1 + r)) is F with k and df2
        degrees of freedom. As in the program the chi-square is k D. Of one table the test is that of its fit."""
        m, k = len(self.fits), len(C)
        U, B = (C @ self._state[part] @ C.T for part in (f"within_{'robust' if robust else 'covariance'}", "between"))
        e = C @ self._state["estimates"]
        try:
            r = float(np.trace(np.linalg.solve(U, B))) / k
            D = float(e @ np.linalg.solve(U, e)) / (k * (1 + r))
        except np.linalg.LinAlgError:
            r = D = math.nan
        t = k * (m - 1)
        if r == 0:
            df2 = math.inf
        elif t > 4:
            df2 = 4 + (t - 4) * (1 + (1 - 2 / t) / r) ** 2
        else:
            df2 = t * (1 + 1 / k) * (1 + 1 / r) ** 2 / 2
        p = lib.pvalue(lib.CHISQUARE, k * D, k) if math.isinf(df2) else lib.pvalue(lib.F, D, k, df2)
        return {"chi_square": k * D, "df": k, "df2": df2, "p": p}

    def anova(self, robust: bool = False) -> Table:
        """The pooled Wald test of each term: term, chi_square, df, df2 of the denominator, p."""
        return self._termtests(robust)

    def predict(self, data: Any = None, kind: str = "response", effects: str = "unit", se: bool = False) -> Series | Matrix | Table:
        """The means of the fits' predictions, for new data or for the records of each fit; see Results.predict. Standard
        errors are by Rubin's rules, prediction by prediction: of new data those of the pooled covariance."""
        made = [fit.predict(data, kind=kind, effects=effects, se=se) for fit in self.fits]
        parts = [one["predicted"] for one in made] if se else made
        if any(list(getattr(one, "index", ())) != list(getattr(parts[0], "index", ())) for one in parts):
            raise lib.KDR3Error("The tables lead to fits of different records, whose predictions have no means. New data have.")
        values = np.array([np.asarray(one, dtype=float) for one in parts])
        mean = values.mean(axis=0)
        if not se:
            index = getattr(parts[0], "index", range(len(mean)))
            return series(mean, index) if mean.ndim == 1 else matrix(mean, index, getattr(parts[0], "columns", range(mean.shape[1])))
        within = np.mean([np.asarray(one["se"], dtype=float) ** 2 for one in made], axis=0)
        m = len(made)
        between = values.var(axis=0, ddof=1) * (1 + 1 / m) if m > 1 else 0.0
        shaped = copy.copy(made[0])  # of categories with a column for each
        shaped["predicted"], shaped["se"] = mean, np.sqrt(within + between)
        return shaped

    def tidy(self, effects: Sequence[str] = ("fixed", "ran_pars"), conf_int: bool = False, alpha: float = 0.05,
             robust: bool = False, exponentiate: bool = False) -> Table:
        """As Results.tidy, with the fraction of information that is missing (fmi) behind."""
        made = super().tidy(effects, conf_int, alpha, robust, exponentiate)
        missing = list(self._missing["robust" if robust else "covariance"]) if "fixed" in effects else []
        made["fmi"] = missing + [math.nan] * (len(made["term"]) - len(missing))
        return made

    def summary(self, robust: bool = False) -> Summary:
        """The averages in words and tables."""
        sizes = [("Records", ", ".join(dict.fromkeys(str(fit.nobs) for fit in self.fits))),
                 *((name, ", ".join(dict.fromkeys(str(fit.ngroups[name]) for fit in self.fits)) + " units") for name in self._groupings)]
        missing = self._missing["robust" if robust else "covariance"]
        fixed = [[*row, shown(float(missing[i]))] for i, row in enumerate(self._fixedrows(robust))]
        columns = [list(column) for column in Frame(self.variances).values()]
        random = [[" ".join(filter(None, (group, term and f" {term}", term2 and f"with {term2}"))), *map(shown, map(float, numbers))]
                  for group, term, term2, *numbers in zip(*columns)]
        head = ["Fixed effects", "estimate", "robust SE" if robust else "SE", "t", "df", "p", "2.5%", "97.5%", "missing"]
        return Summary(self.formula, self._about(("Tables", f"{len(self.fits)}, pooled by Rubin's rules"), sizes, []), (head, fixed),
                       (["Random effects", "estimate", "SE", "SD or correlation"], random), self.warnings)

    def __repr__(self) -> str:
        return f"<kdr3 {self.family}: {self.formula}; {len(self.fits)} tables pooled>"


def differences(fits: list[Results]) -> list[str]:
    """What the fits differ in and may; an error where they are fits of different models."""
    first = fits[0]
    for i, other in enumerate(fits[1:], 2):
        if other._names != first._names or other._random != first._random:
            raise lib.KDR3Error("The tables lead to different models: their effects are not the same.")
        for what, one, two in (("family", first.family, other.family), ("categories of the outcome", first.levels, other.levels),
                               ("levels of a factor", _factors(first), _factors(other)),
                               ("groupings", first._groupings, other._groupings), ("engine", first.engine, other.engine)):
            if one != two:
                raise lib.KDR3Error(f"Tables 1 and {i} lead to different models: the {what} differ.")
    told = []
    if len(fits) == 1:
        told.append("One table alone is pooled: nothing tells what is missing.")
    if any(not np.array_equal(np.sort(fit._state["rows"]), np.sort(first._state["rows"])) for fit in fits):
        told.append("The tables lead to fits of different records: " + ", ".join(str(fit.nobs) for fit in fits)
                    + " records. Imputed data have the same.")
    for sentence in told:
        lib.tell(sentence)
    return told


def averages(fits: list[Results]) -> dict[str, Any]:
    """Means of the estimates, and their covariances within and between the fits."""
    m = len(fits)
    factor = (1 + 1 / m) / (m - 1) if m > 1 else 0.0

    def mean(name):
        return np.mean([fit._state[name] for fit in fits], axis=0)

    made: dict[str, Any] = {"estimates": mean("estimates")}
    away = np.array([fit._state["estimates"] for fit in fits]) - made["estimates"]
    made["between"] = away.T @ away * factor
    for which in ("covariance", "robust"):
        made[f"within_{which}"] = mean(which)
        made[which] = made[f"within_{which}"] + made["between"]
    for level in range(2, 2 + len(fits[0]._groupings)):
        made[f"tau{level}"] = mean(f"tau{level}")
        made[f"tau{level}_errors"] = variance_errors(fits, f"tau{level}", made[f"tau{level}"], factor)
    made["sigma2"] = float(mean("sigma2"))
    made["sigma2_error"] = float(variance_errors(fits, "sigma2", made["sigma2"], factor))
    return made


def variance_errors(fits: list[Results], name: str, mean, factor: float):
    """Standard errors of variances. One that has none in some of the fits, as at the edge of what is possible, has none."""
    values = np.array([fit._state[name] for fit in fits])
    errors = np.array([fit._state["sigma2_error" if name == "sigma2" else f"{name}_errors"] for fit in fits])
    total = np.mean(errors ** 2, axis=0) + factor * ((values - mean) ** 2).sum(axis=0)
    if fits[0].engine in ("quadrature", "laplace6"):
        total = np.where((errors == 0).any(axis=0) & (np.asarray(mean) != 0), math.nan, total)
    return np.sqrt(total)


def freedom(m: int, within: np.ndarray, between: np.ndarray, complete: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """[g] degrees of freedom, and the fractions of missing information (r + 2 / (nu + 3)) / (r + 1)."""
    largest = 2.0**31 - 1  # beyond it there is nothing between
    with np.errstate(divide="ignore", invalid="ignore"):
        r = between / within
        nu = (m - 1) * (1 + 1 / r) ** 2
        some = (m > 1) & (nu <= largest)
        return (np.where(some, np.minimum(np.floor(nu), complete), complete),
                np.where(some, (r + 2 / (nu + 3)) / (r + 1), 0.0))
