"""What estimates of any kind show: those of a fit, and the averages of several."""
from __future__ import annotations

import math
import numbers
from typing import TYPE_CHECKING, Any, Mapping, Sequence

import numpy as np

from . import _library as lib
from ._frames import frame, matrix, series, shown
from ._summary import Summary, degrees, probability

if TYPE_CHECKING:
    from ._frames import Matrix, Series, Table


def checkalpha(alpha: Any) -> None:
    if not isinstance(alpha, numbers.Real) or not 0 < alpha < 1:
        raise lib.KDR3Error(f"alpha is between 0 and 1. It cannot be {alpha!r}.")


def tquantile(p: float, df: float) -> float:
    """The two-sided point of Student's t: the value beyond which a share p lies, on both sides together; NaN without
    degrees of freedom."""
    checkalpha(p)
    if not df > 0:
        return math.nan
    low, high = 0.0, 1.0
    while lib.pvalue(lib.T, high, df) > p:
        high *= 2.0
        if high > 1e8:
            return math.nan
    for _ in range(200):
        middle = 0.5 * (low + high)
        if middle in (low, high):
            break
        if lib.pvalue(lib.T, middle, df) > p:
            low = middle
        else:
            high = middle
    return 0.5 * (low + high)


class Estimates:
    """Estimates by name, with their errors, intervals and tests.

    They stand in `_state`: "estimates" [g], "covariance" and "robust" [g, g], "tau2" and "tau3" with "tau2_errors" and
    "tau3_errors", "sigma2_error", and the words of the formula. A class of them says what their degrees of freedom are
    (_df) and how contrasts are tested (_waldtests).
    """

    formula: str
    family: str
    outcome: str
    levels: list[str]
    scale: float
    weights: Mapping[str, str]
    warnings: list[str]
    converged: bool
    categories: list[str]
    _state: dict[str, Any]
    _names: list[str]
    _groupings: list[str]
    _random: list[list[str]]

    def _df(self, robust: bool = False) -> np.ndarray:
        """[g] degrees of freedom of the t tests, infinite of the standard normal."""
        raise NotImplementedError

    def _waldtests(self, contrasts: Sequence[np.ndarray], robust: bool) -> list[dict[str, float]]:
        """The joint tests of C gamma = 0, for each matrix C [r, g]: {"chi_square", "df", "df2", "p"}."""
        raise NotImplementedError

    def summary(self, robust: bool = False) -> Summary:
        """The estimates in words and tables: text when printed, a table in a notebook."""
        raise NotImplementedError

    # -- Fixed effects -----------------------------------------------------------------------------------------------

    @property
    def params(self) -> Series:
        """[g] fixed effects, in the order of the formula; thresholds of an ordinal outcome come behind them."""
        return series(self._state["estimates"], self._names, "params")

    fe_params = params

    def cov_params(self, robust: bool = False) -> Matrix:
        """[g, g] covariance of the fixed effects; robust: the sandwich over the units of the highest level (Liang and
        Zeger 1986)."""
        return matrix(self._state["robust" if robust else "covariance"], self._names, self._names)

    def _se(self, robust: bool = False) -> np.ndarray:
        return np.sqrt(np.diag(self._state["robust" if robust else "covariance"]))

    @property
    def bse(self) -> Series:
        """[g] standard errors, model-based; with design weights they are the sandwich."""
        return series(self._se(), self._names, "bse")

    bse_fe = bse

    @property
    def bse_robust(self) -> Series:
        """[g] robust standard errors."""
        return series(self._se(True), self._names, "bse_robust")

    @property
    def df(self) -> Series:
        """[g] degrees of freedom of the t tests; infinite where they are of the standard normal."""
        return series(self._df(), self._names, "df")

    def _t(self, robust: bool = False) -> np.ndarray:
        with np.errstate(divide="ignore", invalid="ignore"):
            return self._state["estimates"] / self._se(robust)

    @property
    def tvalues(self) -> Series:
        """[g] estimates over their standard errors."""
        return series(self._t(), self._names, "tvalues")

    def _p(self, robust: bool = False) -> np.ndarray:
        return np.array([lib.pvalue(lib.T, abs(t), df) for t, df in zip(self._t(robust), self._df(robust))])

    @property
    def pvalues(self) -> Series:
        """[g] two-sided, of t with `df` degrees of freedom."""
        return series(self._p(), self._names, "pvalues")

    def conf_int(self, alpha: float = 0.05, robust: bool = False) -> Matrix:
        """[g, 2] intervals of the fixed effects that hold 1 - alpha, by t with `df` degrees of freedom.

        Raises KDR3Error where alpha is not between 0 and 1."""
        half = np.array([tquantile(alpha, df) for df in self._df(robust)]) * self._se(robust)
        values = np.column_stack([self._state["estimates"] - half, self._state["estimates"] + half])
        return matrix(values, self._names, [0, 1])

    # -- Random effects ----------------------------------------------------------------------------------------------

    @property
    def cov_re(self) -> dict[str, Any]:
        """The covariance matrix of the random effects of each grouping: [p, p] and [b, b]; of a multinomial outcome the
        effects of each category in turn, "(Intercept)[1]" that of the first."""
        return {g: matrix(self._state[f"tau{level}"], names, names)
                for level, (g, names) in enumerate(zip(self._groupings, self._random), 2) if names}

    @property
    def variances(self) -> Table:
        """A row for each variance and covariance: group, term, term2, estimate, std_error (NaN where there is none),
        sd_or_correlation; that of level 1 last."""
        rows = []
        for level, (group, names) in enumerate(zip(self._groupings, self._random), 2):
            tau, errors = self._state[f"tau{level}"], self._state[f"tau{level}_errors"]
            for i, name in enumerate(names):
                rows.append((group, name, "", tau[i, i], errors[i, i], math.sqrt(max(tau[i, i], 0.0))))
                for j in range(i):
                    scale = math.sqrt(tau[i, i] * tau[j, j]) if tau[i, i] > 0 and tau[j, j] > 0 else math.nan
                    rows.append((group, name, names[j], tau[i, j], errors[i, j], tau[i, j] / scale))
        if self._dispersed:
            rows.append(("Residual", "", "", self.scale, self._state["sigma2_error"], math.sqrt(self.scale)))
        names = ("group", "term", "term2", "estimate", "std_error", "sd_or_correlation")
        return frame(dict(zip(names, zip(*rows))) if rows else {name: [] for name in names})

    @property
    def _dispersed(self) -> bool:
        """Whether there is a variance of level 1: of an outcome that is not normal over-dispersion, where FIXSIGMA2 is 0."""
        return self.family == "gaussian" or self.scale != 1.0

    def _deviations(self):
        for level, (group, names) in enumerate(zip(self._groupings, self._random), 2):
            tau = self._state[f"tau{level}"]
            for i, name in enumerate(names):
                yield group, f"sd__{name}", math.sqrt(max(tau[i, i], 0.0))
                for j in range(i):
                    scale = math.sqrt(tau[i, i] * tau[j, j]) if tau[i, i] > 0 and tau[j, j] > 0 else math.nan
                    yield group, f"cor__{names[j]}.{name}", tau[i, j] / scale
        if self._dispersed:
            yield "Residual", "sd__Observation", math.sqrt(self.scale)

    # -- Tests -------------------------------------------------------------------------------------------------------

    def wald_test(self, contrasts: Any, robust: bool = False) -> dict[str, float]:
        """Whether all rows of contrasts [r, g] are 0: {"chi_square", "df", "df2", "p"}, the Wald statistic, r, the degrees of
        freedom of the denominator, and the p-value: of chi_square / r as F with r and df2, where df2 is infinite of
        chi-square. Raises KDR3Error where a row is 0, or depends on the others."""
        try:
            C = np.atleast_2d(np.asarray(contrasts, dtype=float))
        except (TypeError, ValueError):
            raise lib.KDR3Error(f"Contrasts are numbers [r, g], one for each fixed effect. They cannot be {contrasts!r}.") from None
        if C.ndim > 2 or C.shape[1] != len(self._names):
            raise lib.KDR3Error(f"A contrast has {C.shape[1]} numbers, and the model {len(self._names)} fixed effects.")
        scaled = C * self._se()
        lengths = np.linalg.norm(scaled, axis=1)
        if not np.isfinite(C).all() or (lengths == 0).any() or (
                np.isfinite(lengths).all() and np.linalg.matrix_rank(scaled / lengths[:, None], tol=1e-10) < len(C)):
            raise lib.KDR3Error("A contrast is 0 or not finite, or depends on the others: there is no joint test of these.")
        return self._waldtests([C], robust)[0]

    def _termtests(self, robust: bool):
        """A row for each term: the joint test of its fixed effects."""
        terms = self._state["words"][lib.TERMS]
        sets = len(self._names) // len(terms) if self.family == "multinomial" else 1  # the effects of each category in turn
        every = np.eye(len(self._names))[:sets * len(terms)]
        contrasts = {term: every[np.array(terms * sets) == term] for term in dict.fromkeys(terms) if term != "(Intercept)"}
        tests = self._waldtests(list(contrasts.values()), robust)
        return frame({"term": list(contrasts), **{name: [test[name] for test in tests] for name in ("chi_square", "df", "df2", "p")}})

    # -- Words -------------------------------------------------------------------------------------------------------

    def _categories(self) -> str:
        levels = self.categories or self.levels
        if self.family == "ordinal":
            return " < ".join(levels)
        if self.family == "multinomial":
            return ", ".join(f"[{s}] {level}" for s, level in enumerate(levels[:-1], 1)) + f"; reference {levels[-1]}"
        return f"event {levels[-1]}, not {levels[0]}"

    def _fixedrows(self, robust: bool) -> list[list[str]]:
        """The fixed effects of a summary: estimate, error, t, df, p, and the interval that holds 95%."""
        b, se, t, df, p = self._state["estimates"], self._se(robust), self._t(robust), self._df(robust), self._p(robust)
        bounds = np.asarray(self.conf_int(robust=robust))
        return [[name, shown(float(b[i])), shown(float(se[i])), shown(float(t[i])), degrees(df[i]), probability(p[i]),
                 *(shown(float(x)) for x in bounds[i])] for i, name in enumerate(self._names)]

    def _about(self, estimation: tuple[str, str], sizes: list[tuple[str, str]], likelihood: list[tuple[str, str]]) -> list[tuple[str, str]]:
        """What stands above the tables of a summary."""
        about = [("Outcome", f"{self.outcome} ({self.family})")]
        if self.levels or self.family in ("ordinal", "multinomial"):
            about.append(("Categories", self._categories()))
        about += [estimation, *sizes]
        if self.weights:
            about.append(("Weights", ", ".join(f"{name}: {column}" for name, column in self.weights.items())
                          + "; standard errors are the sandwich"))
        return [*about, *likelihood, ("Converged", "yes" if self.converged else "NO")]

    def tidy(self, effects: Sequence[str] = ("fixed", "ran_pars"), conf_int: bool = False, alpha: float = 0.05,
             robust: bool = False, exponentiate: bool = False) -> Table:
        """Estimates as a table with the columns of broom.mixed: effect, group, term, estimate, std.error, statistic, df,
        p.value, and with `conf_int` conf.low and conf.high.

        `effects` are "fixed" and "ran_pars", standard deviations and correlations. `exponentiate`: odds or rate ratios of
        the fixed effects, their errors by the delta method."""
        effects = [effects] if isinstance(effects, str) else list(effects)
        if not effects or not set(effects) <= {"fixed", "ran_pars"}:
            raise lib.KDR3Error(f"effects are fixed, ran_pars or both. They cannot be {effects}.")
        rows = []
        if "fixed" in effects:
            bounds = np.asarray(self.conf_int(alpha, robust)) if conf_int else np.full((len(self._names), 2), math.nan)
            for i, name in enumerate(self._names):
                b, s = self._state["estimates"][i], self._se(robust)[i]
                low, high = bounds[i]
                if exponentiate:
                    b, s, low, high = math.exp(b), s * math.exp(b), math.exp(low), math.exp(high)
                rows.append(["fixed", None, name, b, s, self._t(robust)[i], self._df(robust)[i], self._p(robust)[i], low, high])
        if "ran_pars" in effects:
            rows += [["ran_pars", group, name, value] + [math.nan] * 6 for group, name, value in self._deviations()]
        names = ["effect", "group", "term", "estimate", "std.error", "statistic", "df", "p.value", "conf.low", "conf.high"]
        return frame({name: [row[c] for row in rows] for c, name in enumerate(names) if conf_int or c < 8})

    def _repr_html_(self) -> str:
        return self.summary()._repr_html_()
