"""Fits: a formula and a table to a result."""
from __future__ import annotations

from typing import Any, Callable, Iterable, Mapping, Sequence

import numpy as np

from . import _library as lib
from ._formula import Formula, interruptible, run, setmodel
from ._table import Fields
from .pooled import Pooled, inplaceof
from .results import Results

FAMILIES = {"normal": "gaussian", "bernoulli": "binomial", "logit": "binomial"}
KNOWN = ("gaussian", "binomial", "poisson", "ordinal", "multinomial")
DEGREES = {"counts": 0, "satterthwaite": 1, "kenward-roger": 2}


def fit(formula: str, data: Any, *, family: str = "gaussian", engine: str | None = None, points: int | str | None = None,
        trials: str | None = None, exposure: str | None = None, offset: Any = None, weights1: Any = None,
        weights2: Any = None, weights3: Any = None, missing: float | Sequence[float] = (), reml: bool = False,
        ddf: str | None = None, threads: int = 0, settings: Mapping[str, float] | None = None,
        start: Results | None = None, plausible: Sequence[str] | None = None,
        progress: Callable[[str], None] | None = None):
    """Fits a mixed model of two or three levels.

    Parameters
    ----------
    formula : str
        In the language of the program, which is that of lme4: ``"score ~ year + (year | school/pupil)"``.
    data : pandas, polars or pyarrow frame, structured array, or mapping of arrays or lists of one dimension
        A row for each record. Texts and categories are factors, the first value the reference; NaN, None and masked
        values are missing, and records with one are left out with a warning. A list of such tables is a set of
        imputed data: the result is pooled by Rubin's rules (:class:`kdr3.Pooled`).
    family : {"gaussian", "binomial", "poisson", "ordinal", "multinomial"}
    engine : {"quadrature", "laplace", "laplace6", "pql"}, optional
        Of an outcome that is not normal; maximum likelihood by adaptive quadrature without it.
    points : int or "auto", optional
        Points of quadrature in each dimension.
    trials, exposure : str, optional
        Columns of a binomial outcome's trials and of the exposure of counts.
    offset, weights1, weights2, weights3 : str or array, optional
        An offset (of normal outcomes and counts), and design weights of the levels: a column, or an array [rows].
        Rows are matched by their places: a Series has to have the row labels of the frame.
    missing : number or sequence of numbers, optional
        Numbers that stand for missing values in every column of numbers, as -9; NaN, None and masks do so anyhow.
    reml : bool
        Restricted maximum likelihood, of a normal outcome; maximum likelihood otherwise.
    ddf : {"counts", "satterthwaite", "kenward-roger"}, optional
        Degrees of freedom of the tests of fixed effects.
    threads : int
        Of the engines; 0 is one for each core.
    settings : mapping, optional
        Keywords of the guide that kdr3_model_set takes, as ``{"NUMIT": 1000}``.
    start : Results, optional
        A fit of the same model to nearly the same data, whose estimates this one starts from (normal outcomes).
    plausible : list of str, optional
        Columns of the plausible values of one variable, the first of which stands in the formula: the model is fitted to
        each in its place, and the fits are pooled.
    progress : callable, optional
        Called with a sentence now and then, in the thread that fits. What it raises ends the fit, and is raised here.

    Returns
    -------
    Results, or Pooled of a list of tables or of plausible values.

    Raises
    ------
    KDR3Error
        With the program's sentence, and where it is about the formula the place in it.
    KeyboardInterrupt
        When it is interrupted; the session goes on.

    Notes
    -----
    Estimation: https://en.wikipedia.org/wiki/Mixed_model; derivations with their sources in docs/numerics.md.
    """
    arguments = dict(family=family, engine=engine, points=points, trials=trials, exposure=exposure, offset=offset,
                     weights1=weights1, weights2=weights2, weights3=weights3, missing=missing, reml=reml, ddf=ddf, threads=threads,
                     settings=settings, start=start, progress=progress)
    if isinstance(data, Sequence) and not isinstance(data, (str, bytes)) and not hasattr(data, "columns"):
        if not data:
            raise lib.KDR3Error("The list of tables is empty.")
        if plausible is not None:
            raise lib.KDR3Error("Plausible values are columns of one table, not of a list of tables.")
        return pooled(formula, data, arguments)
    if plausible is not None:
        return pooled(formula, inplaceof(formula, data, plausible), arguments)
    return Results(*estimate(formula, data, arguments))


def pooled(formula: str, tables: Iterable, arguments: Mapping[str, Any]) -> Pooled:
    """The fits of the tables, pooled; an error says in which table it is."""
    fits = []
    for i, table in enumerate(tables, 1):
        try:
            fits.append(Results(*estimate(formula, table, arguments)))
        except lib.KDR3Error as error:
            raise lib.KDR3Error(f"Table {i}: {error}") from None
    return Pooled(fits)


def estimate(formula: str, data: Any, arguments: Mapping[str, Any]):
    """The handles of a fit, and what they were made with."""
    family = arguments["family"]
    options = {"family": FAMILIES.get(family, family) if isinstance(family, str) else None}
    extra = {}
    for name in ("trials", "exposure"):
        if arguments[name] is not None and not isinstance(arguments[name], str):
            raise lib.KDR3Error(f"{name} is the name of a column, not {type(arguments[name]).__name__}: put it into the table.")
    if options["family"] not in KNOWN:
        raise lib.KDR3Error(f"family is one of {', '.join(KNOWN)}. It cannot be {family}.")
    if options["family"] == "gaussian" and (arguments["engine"] is not None or arguments["points"] is not None):
        raise lib.KDR3Error("engine and points are for outcomes that are not normal.")
    for name in ("engine", "points", "trials", "exposure"):
        options[name] = None if arguments[name] is None else str(arguments[name])
    for name in ("offset", "weights1", "weights2", "weights3"):
        value = arguments[name]
        if value is not None and not isinstance(value, str):
            extra[f"({name})"] = value
            value = f"({name})"
        options[name] = value
    named = Formula(formula).words(lib.COLUMNS) + [v for k, v in options.items() if v and k not in ("family", "engine", "points")]
    codes = codesof(arguments["missing"])
    fields = data if isinstance(data, Fields) else Fields(data, named, extra, codes)
    handle = Formula(formula, fields, options)
    told = {name.lower() for which in (lib.GROUPS2, lib.GROUPS3) for name in handle.words(which)}
    for name, column in fields.columns.items():
        if column.identifies and name.lower() not in told:
            raise lib.KDR3Error(f"The column {name} holds whole numbers above 2^53, which tell units apart and are no measures: "
                                "subtract the least one, or make texts of them.")
    settings = settingsof(arguments)
    threads = lib.whole("threads", settings.pop("THREADS", arguments["threads"]))
    made = {"formula": formula, "options": options, "missing": codes, "settings": settings, "threads": threads,
            "started": arguments["start"] is not None}
    setmodel(handle, made)
    start = arguments["start"]
    if start is not None:
        if not isinstance(start, Results):
            raise lib.KDR3Error(f"start is the result of a fit, not {type(start).__name__}.")
        start._start(handle)
    result = interruptible(lambda flag: run(handle, flag, arguments["progress"]))
    return handle, result, made


def codesof(missing: Any) -> list[float]:
    """The codes of missing values: numbers."""
    try:
        return [float(code) for code in (missing if np.iterable(missing) and not isinstance(missing, str) else [missing])]
    except (TypeError, ValueError):
        raise lib.KDR3Error(f"missing is a number, or several. It cannot be {missing!r}.") from None


def settingsof(arguments: Mapping[str, Any]) -> dict[str, float]:
    settings: dict[str, float] = {}
    if not isinstance(arguments["reml"], (bool, int)):
        raise lib.KDR3Error(f"reml is True or False. It cannot be {arguments['reml']!r}.")
    if arguments["reml"]:
        settings["REML"] = 1
    if (ddf := arguments["ddf"]) is not None:
        if str(ddf).lower() not in DEGREES:
            raise lib.KDR3Error(f"ddf is counts, satterthwaite or kenward-roger. It cannot be {ddf}.")
        settings["DDF"] = DEGREES[str(ddf).lower()]
    given = arguments["settings"] or {}
    if not isinstance(given, Mapping):
        raise lib.KDR3Error(f'settings are names with numbers, as {{"NUMIT": 1000}}. They cannot be {given!r}.')
    return {**settings, **{str(name).upper(): value for name, value in given.items()}}
