"""Imputed data: fits of several tables as one result."""
from __future__ import annotations

import math

import numpy as np

from . import _library as lib
from ._frames import frame, matrix, series, shown, table
from .results import Results, Summary, _degrees, _p, tquantile


def _factors(fit: Results) -> dict:
    """The levels of each factor in their order; the first is the reference."""
    return {name: one.labels if one.ordered else sorted(one.labels) for name, one in fit._fields().columns.items()
            if one.labels is not None and name not in fit._state["words"][lib.GROUPS2] + fit._state["words"][lib.GROUPS3]}


class Pooled:
    """The averages of the fits of m imputed tables, by Rubin (1987), as the program makes them of a series.

    The covariance of the fixed effects is the mean of the fits' covariances plus (1 + 1/m) times the covariance of
    their estimates. With r the ratio of the second part to the first, an effect has
    min((m - 1) (1 + 1/r)^2, its degrees of freedom in the complete data) degrees of freedom, the former cut to a whole
    number.
    """

    def __init__(self, fits: list[Results]):
        first = fits[0]
        for other in fits[1:]:
            if other._names != first._names or other._random != first._random:
                raise lib.KDR3Error("The tables lead to different models: their effects are not the same.")
        self.fits, self.formula, self.family, self.outcome = fits, first.formula, first.family, first.outcome
        for i, other in enumerate(fits[1:], 2):
            for what, one, two in (("family", first.family, other.family), ("categories of the outcome", first.levels, other.levels),
                                   ("levels of a factor", _factors(first), _factors(other)),
                                   ("groupings", first._groupings, other._groupings), ("engine", first.engine, other.engine)):
                if one != two:
                    raise lib.KDR3Error(f"Tables 1 and {i} lead to different models: the {what} differ.")
        self._names, m = first._names, len(fits)
        estimates = np.array([fit._state["estimates"] for fit in fits])
        self._estimates = estimates.mean(axis=0)
        away = estimates - self._estimates
        between = away.T @ away * ((1 + 1 / m) / (m - 1) if m > 1 else 0.0)
        within = np.mean([fit._state["covariance"] for fit in fits], axis=0)
        self._covariance = within + between
        complete = np.mean([fit._df() for fit in fits], axis=0)
        with np.errstate(divide="ignore", invalid="ignore"):
            r = np.diag(between) / np.diag(within)
            nu = (m - 1) * (1 + 1 / r) ** 2
            self._missing = np.where(r > 0, (r + 2 / (nu + 3)) / (r + 1), 0.0)
        self._df_pooled = np.where((r > 0) & (m > 1), np.minimum(np.trunc(nu), complete), complete)
        self.nobs = first.nobs
        self.converged = all(fit.converged for fit in fits)
        self.scale = float(np.mean([fit.scale for fit in fits]))
        told = []
        if m == 1:
            told.append("One table alone is pooled: nothing tells what is missing.")
        if any(not np.array_equal(np.sort(fit._state["rows"]), np.sort(first._state["rows"])) for fit in fits):
            told.append("The tables lead to fits of different records: " + ", ".join(str(fit.nobs) for fit in fits)
                        + " records. Imputed data have the same.")
        for sentence in told:
            lib.tell(sentence)
        self.warnings = told + list(dict.fromkeys(f"Table {i}: {words}" for i, fit in enumerate(fits, 1) for words in fit.warnings))

    @property
    def params(self):
        """[g] means of the fits' fixed effects."""
        return series(self._estimates, self._names, "params")

    def cov_params(self):
        """[g, g] their covariance."""
        return matrix(self._covariance, self._names, self._names)

    def _se(self) -> np.ndarray:
        return np.sqrt(np.diag(self._covariance))

    @property
    def bse(self):
        """[g] standard errors."""
        return series(self._se(), self._names, "bse")

    @property
    def df(self):
        """[g] degrees of freedom."""
        return series(self._df_pooled, self._names, "df")

    @property
    def fraction_missing(self):
        """[g] of the information that is missing."""
        return series(self._missing, self._names, "fraction_missing")

    @property
    def tvalues(self):
        """[g] estimates over standard errors."""
        return series(self._estimates / self._se(), self._names, "tvalues")

    def _p(self) -> np.ndarray:
        return np.array([lib.pvalue(lib.T, abs(t), df) for t, df in zip(self._estimates / self._se(), self._df_pooled)])

    @property
    def pvalues(self):
        """[g] two-sided."""
        return series(self._p(), self._names, "pvalues")

    def conf_int(self, alpha: float = 0.05):
        """[g, 2] intervals."""
        half = np.array([tquantile(alpha, df) for df in self._df_pooled]) * self._se()
        return matrix(np.column_stack([self._estimates - half, self._estimates + half]), self._names, [0, 1])

    @property
    def cov_re(self):
        """The means of the covariance matrices of the random effects of each grouping."""
        first = self.fits[0].cov_re
        return {group: sum(fit.cov_re[group] for fit in self.fits) / len(self.fits) for group in first}

    def tidy(self, conf_int: bool = False, alpha: float = 0.05):
        """Fixed effects as a table with the columns of broom."""
        columns = {"effect": ["fixed"] * len(self._names), "term": self._names, "estimate": self._estimates,
                   "std.error": self._se(), "statistic": self._estimates / self._se(), "df": self._df_pooled,
                   "p.value": self._p(), "fmi": self._missing}
        if conf_int:
            bounds = np.asarray(self.conf_int(alpha))
            columns.update({"conf.low": bounds[:, 0], "conf.high": bounds[:, 1]})
        return frame(columns)

    def summary(self) -> Summary:
        """The averages in words and tables."""
        about = [("Outcome", f"{self.outcome} ({self.family})"), ("Tables", f"{len(self.fits)}, pooled by Rubin's rules"),
                 ("Records", ", ".join(dict.fromkeys(str(fit.nobs) for fit in self.fits))),
                 ("Converged", "yes" if self.converged else "NO")]
        fixed = [[name, shown(float(b)), shown(float(s)), shown(float(b / s)), _degrees(df), _p(p), shown(float(f))]
                 for name, b, s, df, p, f in zip(self._names, self._estimates, self._se(), self._df_pooled, self._p(), self._missing)]
        random = []
        for level, (group, names) in enumerate(zip(self.fits[0]._groupings, self.fits[0]._random), 2):
            tau = np.mean([fit._state[f"tau{level}"] for fit in self.fits], axis=0)
            random += [[f"{group}  {name}", shown(float(tau[i, i])), shown(math.sqrt(max(tau[i, i], 0.0)))] for i, name in enumerate(names)]
        if self.family == "gaussian":
            random.append(["Residual", shown(self.scale), shown(math.sqrt(self.scale))])
        return Summary(self.formula, about, (["Fixed effects", "estimate", "SE", "t", "df", "p", "missing"], fixed),
                       (["Random effects", "variance", "SD"], random), self.warnings)

    def _repr_html_(self) -> str:
        return self.summary()._repr_html_()

    def __repr__(self) -> str:
        return f"<kdr3 {self.family}: {self.formula}; {len(self.fits)} tables pooled>"
