"""The result of a fit."""
from __future__ import annotations

import json
import math
import zipfile
from functools import cached_property
from typing import TYPE_CHECKING, Any, Mapping, Sequence

import numpy as np

from . import _library as lib
from . import _hypotheses
from . import _predict
from . import _units
from ._formula import Formula, interruptible, run, setmodel
from ._frames import beside, frame, matrix, series, shown
from ._library import library
from ._state import byalphabet, stateof
from ._summary import Summary
from ._table import Fields
from .bootstrap import Bootstrap
from .estimates import Estimates

if TYPE_CHECKING:
    import os

    from ._frames import Matrix, Series, Table
    from .plot import Plots

PHASES = {"": "final", "quadrature": "quadrature", "laplace6": "laplace6", "pql": "pql"}


class Results(Estimates):
    """A fitted model. What it shows is in attributes named as those of statsmodels where these exist.

    Shapes: g fixed effects, p and b random effects of levels 2 and 3, n records that the model uses, C categories. With
    pandas installed [g] is a series and a matrix a frame, with the names; without it they are numbers with names and an array.
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
        state = self._state = {"words": [handle.words(which) for which in range(12)], **stateof(handle, result)}
        state["warnings"] += byalphabet(handle, state["words"])
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

    def _df(self, robust: bool = False) -> np.ndarray:
        """Those of tests by robust errors are counts, or of CR2, whatever those of the others are."""
        df = np.asarray(self._state["df"], dtype=float)
        sides = [effect["robust"] for effect in self._phase["fixed_effects"]]
        if robust and all(sides):
            df = np.array([math.nan if side["df"] is None else side["df"] for side in sides])[self._state["places"]]
        return np.where(np.isnan(df), np.inf, df)

    def _waldtests(self, contrasts: Sequence[np.ndarray], robust: bool) -> list[dict[str, float]]:
        if contrasts and self._smallsample(robust):
            return _hypotheses.tested(self, contrasts, robust)
        return [self._wald(C, robust) for C in contrasts]

    def _smallsample(self, robust: bool) -> bool:
        """Whether tests of contrasts are by F: with `ddf`, or of robust errors with CR2."""
        return bool(self._made["settings"].get("CR2" if robust else "DDF"))

    def _wald(self, C: np.ndarray, robust: bool) -> dict[str, float]:
        V = C @ self._state["robust" if robust else "covariance"] @ C.T
        at = C @ self._state["estimates"]
        try:
            chisquare = float(at @ np.linalg.solve(V, at))
        except np.linalg.LinAlgError:
            chisquare = math.nan
        return {"chi_square": chisquare, "df": len(C), "df2": math.inf, "p": lib.pvalue(lib.CHISQUARE, chisquare, len(C))}

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
        return _units.named(self)

    # -- Records -----------------------------------------------------------------------------------------------------

    def _handle(self):
        """The formula with its data, made again where it came from a file."""
        if self._formula is None:
            self._formula = Formula(self.formula, Fields.restored(self._state["table"], self._state.get("index")), self._made["options"])
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
            new unit the variance of its effects. They are those of the program's -predict.

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

    def simulate(self, nsim: int = 1, seed: int | None = None) -> np.ndarray:
        """[n, nsim] outcomes drawn from the model, with new random effects, in the order of the table; of categories
        their places in `categories`, from 0."""
        if lib.whole("nsim", nsim) < 0:
            raise lib.KDR3Error(f"nsim is a whole number from 0. It cannot be {nsim}.")
        if self.family != "gaussian" and self.scale != 1.0:
            raise lib.KDR3Error("A model with over-dispersion has no distribution to draw from.")
        draw = np.random.default_rng(None if seed is None else abs(lib.whole("seed", seed)))
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

    def glance(self) -> Table:
        """One row: nobs, sigma, logLik, AIC, BIC, deviance (REMLcrit of a restricted likelihood), df.residual."""
        return frame({"nobs": [self.nobs], "sigma": [math.sqrt(self.scale)], "logLik": [self.llf], "AIC": [self.aic],
                      "BIC": [self.bic], "REMLcrit" if self.reml else "deviance": [self.deviance],
                      "df.residual": [self.nobs - self.df_model]})

    def anova(self, *others: "Results", robust: bool = False) -> Table:
        """Without others a Wald test of each term; else the likelihood-ratio tests of :func:`kdr3.anova`."""
        if others:
            from .compare import anova
            return anova(self, *others)
        return self._termtests(robust)

    # -- Refits ------------------------------------------------------------------------------------------------------

    def bootstrap(self, replicates: int = 1000, seed: int = 1, cases: bool = False, threads: int = 0) -> "Bootstrap":
        """The model fitted again to outcomes drawn from it, in threads; with `cases` to its highest units drawn with
        replacement (Davison and Hinkley 1997). The seed tells what is drawn, for any number of threads."""
        handle = self._again({**self._made, "threads": threads})
        if self.family == "gaussian":
            self._start(handle)
        lib.check(library.kdr3_model_bootstrap(library.kdr3_formula_model(handle.pointer), lib.whole("replicates", replicates),
                                               lib.whole("seed", seed) % 2**64, int(cases)))
        return Bootstrap(self, handle, interruptible(lambda flag: run(handle, flag)))

    def _again(self, made: Mapping[str, Any]):
        """The formula with the same data and a model of its own."""
        handle = Formula(self.formula, self._fields(), self._made["options"])
        setmodel(handle, made)
        return handle

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

    def summary(self, robust: bool = False) -> Summary:
        """The model in words and tables: text when printed, a table in a notebook."""
        how = {"": "restricted maximum likelihood" if self.reml else "maximum likelihood", "pql": "quasi-likelihood (PQL)",
               "quadrature": "maximum likelihood, adaptive quadrature", "laplace6": "maximum likelihood, sixth-order Laplace"}
        sizes = [("Records", str(self.nobs)), *((name, f"{count} units") for name, count in self.ngroups.items())]
        likelihood = [] if math.isnan(self.llf) else [
            ("Log-likelihood", f"{self.llf:.4f}"), ("Deviance", f"{self.deviance:.4f} with {self.df_model} parameters"),
            ("AIC, BIC", ", ".join("-" if math.isnan(value) else f"{value:.4f}" for value in (self.aic, self.bic)))]
        head = ["Fixed effects", "estimate", "robust SE" if robust else "SE", "t", "df", "p", "2.5%", "97.5%"]
        return Summary(self.formula, self._about(("Estimation", how[self.engine]), sizes, likelihood), (head, self._fixedrows(robust)),
                       (["Random effects", "variance", "SD", "correlations"], self._randomrows()), self.warnings)

    def _randomrows(self) -> list[list[str]]:
        rows = []
        for level, (group, names) in enumerate(zip(self._groupings, self._random), 2):
            tau = self._state[f"tau{level}"]
            sd = np.sqrt(np.maximum(np.diag(tau), 0.0))
            for i, name in enumerate(names):
                correlations = "  ".join(f"{tau[i, j] / (sd[i] * sd[j]):.3f}" if sd[i] * sd[j] > 0 else "-" for j in range(i))
                rows.append([f"{group}  {name}", shown(float(tau[i, i])), shown(float(sd[i])), correlations])
        if self._dispersed:
            rows.append(["Residual", shown(self.scale), shown(math.sqrt(self.scale)), ""])
        return rows

    @property
    def plot(self) -> Plots:
        """The pictures of kdr3-plot, with matplotlib: plot.coefficients(), plot.caterpillar(), plot.lines() ..."""
        from .plot import Plots
        return Plots(self)

    # -- Files -------------------------------------------------------------------------------------------------------

    def __getstate__(self):
        state = {key: value for key, value in self._state.items() if key not in ("table", "index")}
        return {"state": state, "made": self._made, "table": self._fields().state(), "index": self._fields().index}

    def __setstate__(self, kept):
        self._formula, self._made = None, kept["made"]
        self._state = {**kept["state"], "table": kept["table"], "index": kept.get("index")}
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
