"""The result of a fit."""
from __future__ import annotations

import ctypes
import html
import json
import math
import numbers
import zipfile
from functools import cached_property
from typing import TYPE_CHECKING, Any, Mapping, Sequence

import numpy as np

from . import _library as lib
from . import _predict
from ._frames import beside, frame, matrix, series, shown, table
from ._library import library
from ._table import Fields

if TYPE_CHECKING:
    import os

    from ._frames import Matrix, Series, Table

PHASES = {"": "final", "quadrature": "quadrature", "laplace6": "laplace6", "pql": "pql"}


def _checkalpha(alpha: Any) -> None:
    if not isinstance(alpha, numbers.Real) or not 0 < alpha < 1:
        raise lib.KDR3Error(f"alpha is between 0 and 1. It cannot be {alpha!r}.")


def tquantile(p: float, df: float) -> float:
    """The two-sided point of Student's t: the value beyond which a share p lies, on both sides together."""
    _checkalpha(p)
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


def logistic(x: np.ndarray) -> np.ndarray:
    return np.where(x >= 0, 1.0 / (1.0 + np.exp(-np.abs(x))), np.exp(-np.abs(x)) / (1.0 + np.exp(-np.abs(x))))


class Results:
    """A fitted model. What it shows is in attributes named as those of statsmodels where these exist.

    Shapes: g fixed effects, p and b random effects of levels 2 and 3, n records that the model uses, C categories. With
    pandas installed [g] is a series and a matrix a frame, with the names; without it they are a mapping and an array.
    Estimates are in units of the outcome, or of its link: logits, logarithms of a rate.

    Attributes
    ----------
    formula, outcome, family, engine : str
        As they were fitted; engine is "" of a normal outcome, else "quadrature", "laplace6" or "pql": that of the result.
    levels : list of str
        The values of an outcome with names, in their order; of two the second is the event.
    nobs : int
        n, records that the model uses.
    llf : float
        Log-likelihood at the estimates, restricted with `reml`; NaN of quasi-likelihood.
    scale : float
        Variance of level 1; of an outcome that is not normal over-dispersion, 1 where it is held there (FIXSIGMA2).
    df_model : int
        Parameters: fixed effects, variances and covariances.
    converged : bool
        By the rule of the estimation; `warnings` tells what else is wrong.
    remarks, warnings : list of str
        What the formula made of the data, and what a reader of the results has to know.
    document : dict
        The results document of the program (docs/results.md).
    """

    def __init__(self, handle, result, made: Mapping[str, Any]):
        self._formula, self._made = handle, dict(made)
        state = self._state = {"words": [handle.words(which) for which in range(12)], **_estimates(handle, result)}
        state["warnings"] += _byalphabet(handle, state["words"])
        if made["settings"].get("AGQNODESFIXED"):
            state["warnings"].append("With AGQNODESFIXED the random effects are those of quasi-likelihood, beside the estimates of quadrature.")
        self._take(state)
        for sentence in [*self.warnings]:
            lib.tell(sentence)

    def _take(self, state: dict[str, Any]) -> None:
        words = state["words"]
        self.formula: str = self._made["formula"]
        self.remarks: list[str] = words[lib.REMARKS]
        self.warnings: list[str] = list(dict.fromkeys([*words[lib.WARNINGS], *state["warnings"]]))
        self.outcome, self.family, self.engine = words[lib.OUTCOME]
        self.levels: list[str] = words[lib.LEVELS]
        self._groupings = words[lib.GROUPINGS]
        self._random = [words[lib.RANDOM2], words[lib.RANDOM3]][:len(self._groupings)]
        self._names: list[str] = state["names"]
        self.document: dict[str, Any] = json.loads(state["document"])
        if self.family == "multinomial":  # the matrices have the effects of each category in turn
            sets = len(self._names) // max(1, len(words[lib.EFFECTS]))
            self._random = [[f"{name}[{s + 1}]" for s in range(sets) for name in names] for names in self._random]
        phases = {one["phase"]: one for one in self.document["phases"]}
        if self.engine:  # that of the result, whatever was asked for: one that failed is told in a warning
            self.engine = next((name for name in ("quadrature", "laplace6") if name in phases), "pql")
        self._phase = phases.get(PHASES[self.engine], self.document["phases"][-1])
        self.converged: bool = bool(state["converged"])
        self.nobs: int = int(state["records"])
        self.llf: float = float(state["loglikelihood"])
        self.scale: float = float(state["sigma2"])
        self.df_model: int = int(state["parameters"])

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

    def _df(self, robust: bool = False) -> np.ndarray:
        """Those of tests by robust errors are counts, or of CR2, whatever those of the others are."""
        df = np.asarray(self._state["df"], dtype=float)
        sides = [effect["robust"] for effect in self._phase["fixed_effects"]]
        if robust and all(sides):
            df = np.array([math.nan if side["df"] is None else side["df"] for side in sides])[self._state["places"]]
        return np.where(np.isnan(df), np.inf, df)

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

    # -- Fit ---------------------------------------------------------------------------------------------------------

    @property
    def aic(self) -> float:
        """Twice the parameters less twice the log-likelihood (Akaike 1974); NaN where the program has none, as of a
        weighted likelihood of an engine."""
        value = self._phase.get("aic")
        return math.nan if value is None else value

    @property
    def bic(self) -> float:
        """The parameters times the logarithm of a sample size less twice the log-likelihood (Schwarz 1978), by the
        number that the document names (bic_sample_size)."""
        value = self._phase.get("bic")
        return math.nan if value is None else value

    @property
    def deviance(self) -> float:
        """-2 llf."""
        return -2 * self.llf

    @property
    def reml(self) -> bool:
        """Whether llf is the restricted likelihood."""
        return bool(self._made["settings"].get("REML"))

    @property
    def weights(self) -> dict[str, str]:
        """The columns of design weights by the argument that named them."""
        options = self._made["options"]
        return {name: options[name] for name in ("weights1", "weights2", "weights3") if options.get(name)}

    @property
    def ngroups(self) -> dict[str, int]:
        """The units of each grouping."""
        return dict(zip(self._groupings, [int(self._state["units2"]), int(self._state["units3"])]))

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

    @property
    def random_effects(self) -> dict[str, Any]:
        """The predicted random effects of each grouping: [units, effects], a row for each unit, in the order of `units`.

        They are means given the data and the estimates (Laird and Ware 1982), after quadrature by its integrals; after
        Laplace, Laplace-6 and quasi-likelihood the modes. Raises KDR3Error where the fit has none."""
        return {g: matrix(self._effects(level), self.units[g], names)
                for level, (g, names) in enumerate(zip(self._groupings, self._random), 2) if names}

    def _effects(self, level: int) -> np.ndarray:
        values = self._state.get(f"effects{level}")
        if values is None:
            raise lib.KDR3Error("The fit has no posteriors of the random effects.")
        return values

    @property
    def random_effects_cov(self) -> dict[str, np.ndarray]:
        """Their covariances given the data: [units, effects, effects] of each grouping; beside modes by the curvature
        there. The fixed effects count as known."""
        return {g: self._state[f"effects{level}_cov"]
                for level, (g, names) in enumerate(zip(self._groupings, self._random), 2) if names}

    @cached_property
    def units(self) -> dict[str, list]:
        """What the units of each grouping are called, in the order of the random effects: values, or tuples of several."""
        found = {}
        for level, group in enumerate(self._groupings, 2):
            columns = [self._fields().columns[name] for name in self._state["words"][lib.GROUPS2 if level == 2 else lib.GROUPS3]]
            unit, rows = self._state[f"unit{level}"], self._state["rows"]
            first = rows[np.flatnonzero(np.r_[True, unit[1:] != unit[:-1]])] if len(unit) else []
            names = [tuple(_value(column, row) for column in columns) for row in first]
            found[group] = [name[0] if len(name) == 1 else name for name in names]
        return found

    # -- Records -----------------------------------------------------------------------------------------------------

    def _handle(self):
        """The formula with its data, made again where it came from a file."""
        if self._formula is None:
            from ._fit import Formula, setmodel
            self._formula = Formula(self.formula, Fields.restored(self._state["table"]), self._made["options"])
            setmodel(self._formula, self._made)
        return self._formula

    def _fields(self) -> Fields:
        return self._handle().fields

    def _matrix(self, part: int, columns: int, fields: Fields | None = None) -> np.ndarray:
        return self._handle().matrix(part, columns, self.nobs if fields is None else fields.rows, fields)

    @cached_property
    def _outcome(self) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        """[n] each, in the order of units: outcome, trials or exposure, offset."""
        made = [np.empty(self.nobs) for _ in range(3)]
        lib.check(library.kdr3_formula_outcome(self._handle().pointer, *[one.ctypes.data for one in made]))
        return made[0], made[1], made[2]

    def _mean(self, eta: np.ndarray) -> np.ndarray:
        if self.family == "binomial":
            return logistic(eta)
        return np.exp(eta) if self.family == "poisson" else eta

    @cached_property
    def _fitted(self) -> np.ndarray:
        """[n, 1], or of categories [n, C], in the order of units."""
        self._whole()
        return _predict.predicted(self, _predict.UNITRESPONSE, _predict.rows(self))[0]

    def _whole(self) -> None:
        for level, names in enumerate(self._random, 2):
            if names:
                self._effects(level)

    def _shaped(self, values: np.ndarray, index, names: Sequence[str]):
        """[rows, k] as a series, of categories as a matrix with their names."""
        return matrix(values, index, names) if self.categories else series(values[:, 0], index)

    def _in_rows(self, values: np.ndarray, names: Sequence[str] = ()):
        """[n, k] in the order of units, handed out in the order of the table, by its index."""
        order = np.argsort(self._state["rows"], kind="stable")
        rows, index = self._state["rows"][order], self._fields().index
        return self._shaped(values[order], rows if index is None else index[rows], names)

    @property
    def fittedvalues(self) -> Series | Matrix:
        """[n] the mean of each record given the predicted random effects, in the order of the table: of a binomial
        outcome the probability, of counts the expected count; of C categories [n, C], the probability of each."""
        return self._in_rows(self._fitted, self.categories)

    @property
    def resid(self) -> Series | Matrix:
        """[n] the outcome less fittedvalues; of a binomial one its share, of categories [n, C] their indicators."""
        return self.residuals("response")

    def residuals(self, kind: str = "response") -> Series | Matrix:
        """[n] residuals: "response", or "pearson", which are over the standard deviation of the outcome given its mean.
        Of C categories [n, C], those of the indicator of each one: 0 and 1 less the probability p, over the root of
        p (1 - p)."""
        if kind not in ("response", "pearson"):
            raise lib.KDR3Error(f"Residuals are response or pearson. They cannot be {kind}.")
        fitted, (y, count, _) = self._fitted, self._outcome
        if self.categories:
            y = (np.unique(y, return_inverse=True)[1][:, None] == np.arange(len(self.categories))).astype(float)
            variance = fitted * (1 - fitted)
        else:
            y, count = y[:, None], count[:, None]
            if self.family == "binomial":
                y = y / count
                variance = self.scale * fitted * (1 - fitted) / count
            else:
                variance = self.scale * (fitted if self.family == "poisson" else np.ones(y.shape))
        left = y - fitted
        return self._in_rows(left / np.sqrt(variance) if kind == "pearson" else left, self.categories)

    @property
    def categories(self) -> list[str]:
        """[C] names of the categories of an ordinal or multinomial outcome, in their order; none of another one."""
        if self.family not in ("ordinal", "multinomial"):
            return []
        return self.levels or [str(value) for value in self.document["model"]["categories"]]

    def predict(self, data: Any = None, kind: str = "response", effects: str = "unit", se: bool = False) -> Series | Matrix | Table:
        """Predictions for the rows of a table, or for the records of the fit.

        Parameters
        ----------
        data : table with the columns of the formula, optional
            Factors, scales and polynomials are those of the data that were fitted. A row with a missing value or an
            unknown level has no prediction, NaN, with a warning.
        kind : {"response", "link"}
            The mean of the outcome (the probability of a binomial one, the expected count); or the linear predictor.
        effects : {"unit", "fixed", "population"}
            With the predicted random effects of the units, 0 of a unit that the fit does not know; with random effects
            of 0; or averaged over their distribution (by integration to rounding), which of a link other than the
            identity is not the same.
        se : bool
            Also standard errors, by the delta method: of the fixed effects, and where the response is averaged after
            an engine of the variances. Of units they have the error of the predicted random effects in them, and of a
            new unit the variance of its effects. They are those of the program's -predict. Models with design weights
            have none of units.

        Returns
        -------
        [rows] of the table, by its index; with se a frame of "predicted" and "se".
        Of an outcome with C categories [rows, C] probabilities in columns named as the categories; of kind="link"
        [rows, C - 1] linear predictors: of a multinomial outcome the logit of each category against the last one, of an
        ordinal one the logit of that category or a lower one. With se `made["predicted"]` and `made["se"]` are two
        such. Offsets and exposure are in it: a table without their columns is refused.

        Raises
        ------
        KDR3Error
            A column is missing, the table has no rows, or the model has no such errors.

        Notes
        -----
        Derived in docs/numerics.md, "Predictions". Of intervals: value plus and minus the point of t times se, on the
        scale of the link.
        """
        if (kind, effects) not in _predict.OF:
            raise lib.KDR3Error("A prediction is response or link, and of effects unit, fixed or population.")
        if effects == "unit":
            self._whole()
            if se and self.weights:
                raise lib.KDR3Error('Models with design weights have standard errors of effects="fixed" and "population" alone.')
        fields = None if data is None else self._newfields(data, effects == "unit")
        values, errors = _predict.predicted(self, _predict.OF[kind, effects], _predict.rows(self, fields, effects == "unit"), se)
        if lost := int(np.isnan(values[:, 0]).sum()):
            lib.tell(f"{lost} of {len(values)} rows have no prediction: a value is missing in them, or a level is not one of the "
                     "data that were fitted.")
        names = self.categories if kind == "response" else self.categories[:-1]
        if fields is None:
            shaped = [self._in_rows(one, names) for one in (values, errors) if one is not None]
        else:
            index = range(fields.rows) if fields.index is None else fields.index
            shaped = [self._shaped(one, index, names) for one in (values, errors) if one is not None]
        return beside({"predicted": shaped[0], "se": shaped[1]}) if se else shaped[0]

    def _newfields(self, data: Any, units: bool) -> Fields:
        words = self._state["words"]
        wanted = list(self._fields().columns)
        fields = Fields(data, wanted, codes=self._made.get("missing", ()))
        if units:
            lacking = [name for name in dict.fromkeys(words[lib.GROUPS2] + words[lib.GROUPS3]) if name not in fields.columns]
            if lacking:
                raise lib.KDR3Error(f'The new data have no column {lacking[0]}, which tells the units. effects="fixed" needs none.')
        if not fields.columns:
            raise lib.KDR3Error("The new data have none of the model's columns.")
        if fields.rows == 0:
            raise lib.KDR3Error("The new data have no rows.")
        return fields

    def _unitsof(self, fields: Fields, level: int) -> np.ndarray:
        """[rows] the number of the unit of each row, -1 of one that the fit does not know."""
        group = self._groupings[level - 2]
        columns = [fields.columns[name] for name in self._state["words"][lib.GROUPS2 if level == 2 else lib.GROUPS3]]
        lost = np.any([column.absent() for column in columns], axis=0)
        if lost.any():
            lib.tell(f"{int(lost.sum())} of {fields.rows} rows do not tell their unit of {group}: its random effects are taken as 0.")
        units = [tuple(map(str, unit)) if isinstance(unit, tuple) else (str(unit),) for unit in self.units[group]]
        known = [{name: code for code, name in enumerate(dict.fromkeys(unit[c] for unit in units))} for c in range(len(columns))]
        codes = [_codesof(column, of) for column, of in zip(columns, known)]
        sizes = [len(of) for of in known]
        place = {int(np.ravel_multi_index([of[name] for of, name in zip(known, unit)], sizes)): i for i, unit in enumerate(units)}
        lost |= np.any([one < 0 for one in codes], axis=0)
        keys, rows = np.unique(np.ravel_multi_index([np.where(lost, 0, one) for one in codes], sizes), return_inverse=True)
        return np.where(lost, -1, np.array([place.get(int(key), -1) for key in keys])[rows])

    def simulate(self, nsim: int = 1, seed: int | None = None) -> np.ndarray:
        """[n, nsim] outcomes drawn from the model, with new random effects, in the order of the table; of categories
        their places in `categories`, from 0."""
        if lib.whole("nsim", nsim) < 0:
            raise lib.KDR3Error(f"nsim is a whole number from 0. It cannot be {nsim}.")
        if self.family != "gaussian" and self.scale != 1.0:
            raise lib.KDR3Error("A model with over-dispersion has no distribution to draw from.")
        draw = np.random.default_rng(seed)
        rows, count = _predict.rows(self), self._outcome[1]
        made = np.empty((self.nobs, nsim))
        for s in range(nsim):
            effects = {level: draw.multivariate_normal(np.zeros(len(self._state[f"tau{level}"])), self._state[f"tau{level}"],
                                                       int(self._state[f"units{level}"]), method="eigh")
                       for level, names in enumerate(self._random, 2) if names}
            mean = _predict.predicted(self, _predict.UNITRESPONSE, rows, effects=effects)[0]
            if self.categories:
                reached = np.cumsum(mean, axis=1)[:, :-1]
                made[:, s] = (draw.random(self.nobs)[:, None] > reached).sum(axis=1)
            elif self.family == "gaussian":
                made[:, s] = mean[:, 0] + draw.normal(0.0, math.sqrt(self.scale), self.nobs)
            elif self.family == "poisson":
                made[:, s] = draw.poisson(mean[:, 0])
            else:
                made[:, s] = draw.binomial(count.astype(np.int64), mean[:, 0])
        return made[np.argsort(self._state["rows"], kind="stable")]

    # -- Tables ------------------------------------------------------------------------------------------------------

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

    def glance(self) -> Table:
        """One row: nobs, sigma, logLik, AIC, BIC, deviance (REMLcrit of a restricted likelihood), df.residual."""
        return frame({"nobs": [self.nobs], "sigma": [math.sqrt(self.scale)], "logLik": [self.llf], "AIC": [self.aic],
                      "BIC": [self.bic], "REMLcrit" if self.reml else "deviance": [self.deviance],
                      "df.residual": [self.nobs - self.df_model]})

    def wald_test(self, contrasts: Any, robust: bool = False) -> dict[str, float]:
        """Whether all rows of contrasts [r, g] are 0: {"chi_square", "df", "p"}, the Wald statistic, r and the p-value of
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
        return self._wald(C, robust)

    def _wald(self, C: np.ndarray, robust: bool) -> dict[str, float]:
        V = C @ self._state["robust" if robust else "covariance"] @ C.T
        at = C @ self._state["estimates"]
        try:
            chisquare = float(at @ np.linalg.solve(V, at))
        except np.linalg.LinAlgError:
            chisquare = math.nan
        return {"chi_square": chisquare, "df": len(C), "p": lib.pvalue(lib.CHISQUARE, chisquare, len(C))}

    def anova(self, *others: "Results", robust: bool = False):
        """Without others a Wald test of each term; else the likelihood-ratio tests of :func:`kdr3.anova`."""
        if others:
            from .compare import anova
            return anova(self, *others)
        return self._termtests(robust)

    def _termtests(self, robust: bool):
        """A row for each term: the joint test of its fixed effects."""
        terms = self._state["words"][lib.TERMS]
        effects = self._state["words"][lib.EFFECTS]
        rows = []
        for term in dict.fromkeys(terms):
            if term == "(Intercept)":
                continue
            wanted = {name for name, of in zip(effects, terms) if of == term}
            places = [i for i, name in enumerate(self._names) if name.split("[")[0] in wanted or name in wanted]
            rows.append({"term": term, **self._wald(np.eye(len(self._names))[places], robust)})
        return frame({name: [row[name] for row in rows] for name in (rows[0] if rows else ("term", "chi_square", "df", "p"))})

    # -- Refits ------------------------------------------------------------------------------------------------------

    def bootstrap(self, replicates: int = 1000, seed: int = 1, cases: bool = False, threads: int = 0) -> "Bootstrap":
        """The model fitted again to outcomes drawn from it, in threads; with `cases` to its highest units drawn with
        replacement (Davison and Hinkley 1997). The seed tells what is drawn, for any number of threads."""
        from ._fit import Formula, interruptible, run, setmodel
        handle = Formula(self.formula, self._fields(), self._made["options"])
        setmodel(handle, {**self._made, "threads": threads})
        if self.family == "gaussian":
            self._start(handle)
        lib.check(library.kdr3_model_bootstrap(library.kdr3_formula_model(handle.pointer), lib.whole("replicates", replicates),
                                               lib.whole("seed", seed) % 2**64, int(cases)))
        return Bootstrap(self, handle, interruptible(lambda flag: run(handle, flag)))

    def _start(self, handle) -> None:
        """The estimates as starting values of another model of the same shape."""
        state = self._state
        order = np.argsort(state["places"])
        gamma = np.ascontiguousarray(state["estimates"][order])
        taus = [np.ascontiguousarray(state.get(f"tau{level}", np.empty((0, 0)))) for level in (2, 3)]
        lib.check(library.kdr3_model_start(library.kdr3_formula_model(handle.pointer), len(gamma), gamma.ctypes.data,
                                           len(taus[0]), taus[0].ctypes.data, len(taus[1]), taus[1].ctypes.data, self.scale))

    # -- Words -------------------------------------------------------------------------------------------------------

    def __repr__(self) -> str:
        groups = ", ".join(f"{name} {count}" for name, count in self.ngroups.items())
        weighted = "; weighted" if self.weights else ""
        return f"<kdr3 {self.family}: {self.formula}; {self.nobs} records, {groups}{weighted}; log-likelihood {self.llf:.4f}>"

    def _parts(self, robust: bool):
        """Title, head and rows of each table of a summary."""
        how = {"": "restricted maximum likelihood" if self.reml else "maximum likelihood", "pql": "quasi-likelihood (PQL)",
               "quadrature": "maximum likelihood, adaptive quadrature", "laplace6": "maximum likelihood, sixth-order Laplace"}
        about = [("Outcome", f"{self.outcome} ({self.family})"), ("Estimation", how[self.engine]),
                 ("Records", str(self.nobs)), *((name, f"{count} units") for name, count in self.ngroups.items())]
        if self.levels or self.family in ("ordinal", "multinomial"):
            about.insert(1, ("Categories", self._categories()))
        if self.weights:
            about.append(("Weights", ", ".join(f"{name}: {column}" for name, column in self.weights.items())
                          + "; standard errors are the sandwich"))
        if not math.isnan(self.llf):
            about += [("Log-likelihood", f"{self.llf:.4f}"), ("Deviance", f"{self.deviance:.4f} with {self.df_model} parameters"),
                      ("AIC, BIC", ", ".join("-" if math.isnan(value) else f"{value:.4f}" for value in (self.aic, self.bic)))]
        about.append(("Converged", "yes" if self.converged else "NO"))
        bounds = np.asarray(self.conf_int(robust=robust))
        fixed = [[name, *(shown(float(x)) for x in (self._state["estimates"][i], self._se(robust)[i], self._t(robust)[i])),
                  _degrees(self._df(robust)[i]), _p(self._p(robust)[i]), shown(float(bounds[i, 0])),
                  shown(float(bounds[i, 1]))] for i, name in enumerate(self._names)]
        random = []
        for level, (group, names) in enumerate(zip(self._groupings, self._random), 2):
            tau = self._state[f"tau{level}"]
            sd = np.sqrt(np.maximum(np.diag(tau), 0.0))
            for i, name in enumerate(names):
                correlations = "  ".join(f"{tau[i, j] / (sd[i] * sd[j]):.3f}" if sd[i] * sd[j] > 0 else "-" for j in range(i))
                random.append([f"{group}  {name}", shown(float(tau[i, i])), shown(float(sd[i])), correlations])
        if self._dispersed:
            random.append(["Residual", shown(self.scale), shown(math.sqrt(self.scale)), ""])
        error = "robust SE" if robust else "SE"
        return about, (["Fixed effects", "estimate", error, "t", "df", "p", "2.5%", "97.5%"], fixed), (
            ["Random effects", "variance", "SD", "correlations"], random)

    def _categories(self) -> str:
        levels = self.categories or self.levels
        if self.family == "ordinal":
            return " < ".join(levels)
        if self.family == "multinomial":
            return ", ".join(f"[{s}] {level}" for s, level in enumerate(levels[:-1], 1)) + f"; reference {levels[-1]}"
        return f"event {levels[-1]}, not {levels[0]}"

    def summary(self, robust: bool = False) -> "Summary":
        """The model in words and tables: text when printed, a table in a notebook."""
        return Summary(self.formula, *self._parts(robust), self.warnings)

    def _repr_html_(self) -> str:
        return self.summary()._repr_html_()

    @property
    def plot(self):
        """The pictures of kdr3-plot, with matplotlib: plot.coefficients(), plot.caterpillar(), plot.lines() ..."""
        from .plot import Plots
        return Plots(self)

    # -- Files -------------------------------------------------------------------------------------------------------

    def __getstate__(self):
        state = {key: value for key, value in self._state.items() if key != "table"}
        return {"state": state, "made": self._made, "table": self._fields().state(), "index": self._fields().index}

    def __setstate__(self, kept):
        self._formula, self._made = None, kept["made"]
        self._state = {**kept["state"], "table": kept["table"]}
        self._take(self._state)

    def save(self, path: str | os.PathLike[str]) -> None:
        """Writes the result, with the columns that it was fitted to, as a .npz file of arrays (no pickle), which
        :func:`kdr3.load` reads."""
        kept = self.__getstate__()
        arrays = {f"table_{name}": value for name, value in kept["table"].items()}
        plain = {}
        for name, value in kept["state"].items():
            if isinstance(value, np.ndarray):
                arrays[f"state_{name}"] = value
            else:
                plain[name] = value
        text = json.dumps({"kdr3": lib.VERSION, "state": plain, "made": kept["made"]})
        with open(path, "wb") as file:
            np.savez_compressed(file, about=np.array(text), **arrays)


class Summary:
    """A model in words."""

    def __init__(self, formula: str, about, fixed, random, warnings: list[str]):
        self.formula, self.about, self.fixed, self.random, self.warnings = formula, about, fixed, random, warnings

    def as_text(self) -> str:
        """As it is printed."""
        width = max(len(name) for name, _ in self.about)
        parts = [self.formula, "\n".join(f"{name:{width}}  {value}" for name, value in self.about), table(*self.fixed),
                 table(*self.random), *(f"Warning: {words}" for words in self.warnings)]
        return "\n\n".join(parts)

    __str__ = __repr__ = as_text

    def as_html(self) -> str:
        """As a notebook shows it; texts of the data are escaped."""
        def rows(head, body):
            top = "".join(f"<th style='text-align:{'left' if c == 0 else 'right'}'>{html.escape(x)}</th>" for c, x in enumerate(head))
            lines = "".join("<tr>" + "".join(f"<td style='text-align:{'left' if c == 0 else 'right'}'>{html.escape(x)}</td>"
                                             for c, x in enumerate(row)) + "</tr>" for row in body)
            return f"<table><thead><tr>{top}</tr></thead><tbody>{lines}</tbody></table>"
        about = "".join(f"<tr><th style='text-align:left'>{html.escape(n)}</th><td style='text-align:left'>{html.escape(v)}</td></tr>"
                        for n, v in self.about)
        words = "".join(f"<p><strong>Warning:</strong> {html.escape(w)}</p>" for w in self.warnings)
        return (f"<div><p><code>{html.escape(self.formula)}</code></p><table>{about}</table>{rows(*self.fixed)}"
                f"{rows(*self.random)}{words}</div>")

    _repr_html_ = as_html


class Bootstrap:
    """The estimates of a bootstrap's replicates.

    params : [replicates, g] fixed effects, NaN in one without a fit that converged; tau : {grouping: [replicates, p, p]};
    scale : [replicates].
    """

    def __init__(self, results: Results, handle, result):
        asked, tried = ctypes.c_size_t(), ctypes.c_size_t()
        lib.check(library.kdr3_result_replicates(result.pointer, ctypes.byref(asked), ctypes.byref(tried), None))
        orders = [len(names) for names in results._random]
        packed = [k * (k + 1) // 2 for k in orders]
        g = len(results._names)
        rows = np.empty((asked.value, g + sum(packed) + 1))
        lib.check(library.kdr3_result_replicates(result.pointer, None, None, rows.ctypes.data))
        self.results, self.tried = results, tried.value
        self.failed = int(np.isnan(rows[:tried.value, 0]).sum())
        self.params = matrix(rows[:, results._state["places"]], range(asked.value), results._names)
        self.tau, at = {}, g
        for group, k, size in zip(results._groupings, orders, packed):
            full = np.empty((len(rows), k, k))
            lower = np.tril_indices(k)
            full[:, lower[0], lower[1]] = full[:, lower[1], lower[0]] = rows[:, at:at + size]
            self.tau[group], at = full, at + size
        self.scale = rows[:, -1]
        document = json.loads(library.kdr3_result_document(result.pointer, 0).decode())
        self.document = document
        self.warnings = lib.texts(library.kdr3_result_warning, result.pointer)

    def conf_int(self, alpha: float = 0.05) -> Matrix:
        """[g, 2] percentile intervals of the fixed effects."""
        _checkalpha(alpha)
        values = np.asarray(self.params)
        values = values[~np.isnan(values[:, 0])]
        n = len(values)
        values = np.sort(values, axis=0)
        bounds = [[np.interp(np.clip(q * (n + 1), 1, n) - 1, np.arange(n), column) for q in (alpha / 2, 1 - alpha / 2)]
                  for column in values.T] if n else np.full((len(self.results._names), 2), math.nan)
        return matrix(np.array(bounds), self.results._names, [0, 1])

    @property
    def bse(self) -> Series:
        """[g] standard deviations of the replicates."""
        return series(np.nanstd(np.asarray(self.params), axis=0, ddof=1), self.results._names, "bse")

    def __repr__(self) -> str:
        return f"<bootstrap of {self.tried} replicates, {self.failed} without a fit: {self.results.formula}>"


def _byalphabet(handle, words) -> list[str]:
    """A warning where the order of an ordinal outcome is that of the alphabet, which nobody has asked for."""
    outcome, family, _ = words[lib.OUTCOME]
    name = outcome.strip("`")
    plain = handle.fields.columns.get(name[7:-1] if name.startswith("factor(") else name)
    if family != "ordinal" or plain is None or plain.labels is None or plain.ordered:
        return []
    return [f"The categories of {outcome} are texts, ordered by the alphabet: {' < '.join(words[lib.LEVELS])}. Another order is "
            "that of a column of categories, as of pandas.Categorical(values, categories)."]


def _degrees(df: float) -> str:
    return "" if math.isinf(df) else f"{df:.0f}" if df == int(df) else f"{df:.1f}"


def _p(p: float) -> str:
    return "" if math.isnan(p) else "<0.001" if p < 0.0005 else f"{p:.3f}"


def _value(column, row: int):
    value = column.values[row]
    if column.labels is not None:
        return column.labels[int(value)] if value >= 0 else None
    return _plain(value)


def _plain(value) -> int | float:
    return int(value) if float(value).is_integer() else float(value)


def _codesof(column, known: Mapping[str, int]) -> np.ndarray:
    """[rows] the codes of values as they are written, so that the number 1, the text and the category are one; -1 of one
    that is not known."""
    if column.labels is not None:
        return np.array([*(known.get(label, -1) for label in column.labels), -1])[column.values]
    values, places = np.unique(column.values, return_inverse=True)
    return np.array([known.get(str(_plain(value)), -1) for value in values], dtype=np.int64)[places]


def _estimates(handle, result) -> dict[str, Any]:
    """Everything of a result as arrays, the fixed effects in the order of the formula."""
    summary = lib.Summary(size=ctypes.sizeof(lib.Summary))
    lib.check(library.kdr3_result_summary(result.pointer, ctypes.byref(summary)))
    g, orders, units = summary.fixedeffects, (summary.random2, summary.random3), (summary.units2, summary.units3)
    three = len(handle.words(lib.GROUPINGS)) > 1
    state: dict[str, Any] = {name: getattr(summary, name) for name in
                             ("converged", "iterations", "records", "units2", "units3", "parameters", "loglikelihood", "sigma2")}
    estimates, df, covariance, robust = np.empty(g), np.empty(g), np.empty((g, g)), np.empty((g, g))
    lib.check(library.kdr3_result_fixed(result.pointer, *[a.ctypes.data for a in (estimates, covariance, robust, df)]))
    names = lib.texts(library.kdr3_result_name, result.pointer)
    order, labels = _order(handle, names)
    state.update(places=order, names=labels, estimates=estimates[order], df=df[order],
                 covariance=covariance[np.ix_(order, order)], robust=robust[np.ix_(order, order)])
    error = ctypes.c_double()
    taus = [np.empty((k, k)) for k in orders for _ in range(2)]
    lib.check(library.kdr3_result_variances(result.pointer, taus[0].ctypes.data, taus[2].ctypes.data, taus[1].ctypes.data,
                                            taus[3].ctypes.data, ctypes.byref(error)))
    state["sigma2_error"] = error.value
    for level, (k, n) in enumerate(zip(orders, units), 2):
        state[f"tau{level}"], state[f"tau{level}_errors"] = taus[2 * (level - 2)], taus[2 * (level - 2) + 1]
    effects = [np.empty((n, k)) for k, n in zip(orders, units)]
    covariances = [np.empty((n, k, k)) for k, n in zip(orders, units)]
    if library.kdr3_result_effects(result.pointer, *[a.ctypes.data for a in effects]) != lib.ERROR:
        lib.check(library.kdr3_result_effectvariances(result.pointer, *[a.ctypes.data for a in covariances]))
        for level in (2, 3) if three else (2,):
            state[f"effects{level}"], state[f"effects{level}_cov"] = effects[level - 2], covariances[level - 2]
        both = np.empty((units[0], *orders))
        lib.check(library.kdr3_result_effectcovariances(result.pointer, both.ctypes.data))
        state["effects_both"] = both if np.isfinite(both).all() else None
    variances = sum(k * (k + 1) // 2 for k in orders)
    joint = np.empty((variances + g, variances + g))
    lib.check(library.kdr3_result_joint(result.pointer, joint.ctypes.data))
    places = np.r_[np.arange(variances), variances + order]
    state["joint"] = joint[np.ix_(places, places)] if np.isfinite(joint).all() else None
    count = ctypes.c_size_t()
    lib.check(library.kdr3_formula_records(handle.pointer, ctypes.byref(count), None, None, None))
    rows = [np.empty(count.value, dtype=np.uintp) for _ in range(3)]
    lib.check(library.kdr3_formula_records(handle.pointer, None, rows[0].ctypes.data, rows[1].ctypes.data,
                                           rows[2].ctypes.data if three else None))
    state["rows"], state["unit2"] = rows[0].astype(np.int64), rows[1].astype(np.int64)
    if three:
        state["unit3"] = rows[2].astype(np.int64)
    state["document"] = library.kdr3_result_document(result.pointer, 0).decode()
    state["warnings"] = lib.texts(library.kdr3_result_warning, result.pointer)
    return state


def _order(handle, names: list[str]) -> tuple[np.ndarray, list[str]]:
    """Where each effect stands among those of the result, in the order of the formula, and what it is called."""
    effects = handle.words(lib.EFFECTS)
    count = len(effects)
    places = (ctypes.c_size_t * max(1, count))()
    lib.check(library.kdr3_formula_order(handle.pointer, places))
    first = [int(places[i]) for i in range(count)]
    if len(names) == count:
        return np.array(first, dtype=np.int64), effects
    sets = [(s, f"[{s + 1}]") for s in range(len(names) // count)] if names[0].endswith("[1]") else [(0, "")]
    order = [s * count + place for s, _ in sets for place in first]
    labels = [name + mark for _, mark in sets for name in effects]
    rest = range(len(order), len(names))
    return np.array([*order, *rest], dtype=np.int64), labels + [names[i] for i in rest]


def load(path: str | os.PathLike[str]) -> Results:
    """A result that Results.save has written."""
    try:
        opened = np.load(path, allow_pickle=False)
        about = json.loads(str(opened["about"]))
        if not isinstance(about, dict) or "kdr3" not in about:
            raise KeyError
    except (ValueError, KeyError, IndexError, EOFError, zipfile.BadZipFile):
        raise lib.KDR3Error(f"{path} is no result of this package.") from None
    with opened as file:
        state = {**about["state"], **{name[6:]: file[name] for name in file.files if name.startswith("state_")}}
        columns = {name[6:]: file[name] for name in file.files if name.startswith("table_")}
    made = Results.__new__(Results)
    made.__setstate__({"state": state, "made": about["made"], "table": columns})
    return made
