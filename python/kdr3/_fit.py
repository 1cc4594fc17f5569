"""Fits: a formula and a table to a result, in a thread that a keyboard interrupt can stop."""
from __future__ import annotations

import ctypes
import threading
from typing import Any, Callable, Mapping, Sequence

import numpy as np

from . import _library as lib
from ._library import library
from ._table import Fields
from .results import Results

FAMILIES = {"normal": "gaussian", "bernoulli": "binomial", "logit": "binomial"}
KNOWN = ("gaussian", "binomial", "poisson", "ordinal", "multinomial")
DEGREES = {"counts": 0, "satterthwaite": 1, "kenward-roger": 2}


class Formula(lib.Handle):
    """A formula with the data and the model that it makes of a table; or, without a table, the formula alone."""

    def __init__(self, text: str, fields: Fields | None = None, options: Mapping[str, str | None] | None = None):
        super().__init__(library.kdr3_formula_free)
        if not isinstance(text, str):
            raise TypeError("A formula is a text, as 'score ~ year + (year | school/pupil)'.")
        if fields is None:
            lib.check(library.kdr3_formula_read(lib.encoded(text), ctypes.byref(self.pointer)))
            return
        given = lib.Options(size=ctypes.sizeof(lib.Options))
        for name, value in (options or {}).items():
            setattr(given, name, None if value is None else lib.encoded(str(value)))
        interruptible(lambda flag: lib.check(library.kdr3_formula_make(
            lib.encoded(text), ctypes.byref(given), fields.rows, fields.count, fields.array, ctypes.byref(self.pointer))))
        self.fields = fields  # by which other handles of the same data are made

    def words(self, which: int) -> list[str]:
        return lib.texts(library.kdr3_formula_text, self.pointer, which)

    def matrix(self, part: int, columns: int, rows: int, fields: Fields | None = None) -> np.ndarray:
        """[rows, columns] of the fixed effects, or of the random ones of a level."""
        made = np.empty((rows, columns))
        if columns and rows:
            lib.check(library.kdr3_formula_matrix(self.pointer, part, rows, fields.count if fields else 0,
                                                  fields.array if fields else None, made.ctypes.data))
        return made


def interruptible(work: Callable[[ctypes.c_int], Any]) -> Any:
    """work(flag) in a thread. An interrupt of the main thread raises the flag, by which the work ends early; the main
    thread always waits for that, since the work uses what it has made."""
    flag = ctypes.c_int(0)
    if threading.current_thread() is not threading.main_thread():
        return work(flag)
    done, outcome = threading.Event(), []

    def run():
        try:
            outcome.append((True, work(flag)))
        except BaseException as error:  # handed on below
            outcome.append((False, error))
        finally:
            done.set()

    threading.Thread(target=run, name="kdr3", daemon=True).start()
    interrupt = None
    while True:
        try:
            while not done.wait(0.2):
                pass
            break
        except KeyboardInterrupt as error:
            interrupt, flag.value = error, 1
    if interrupt is not None:
        raise interrupt
    good, what = outcome[0]
    if not good:
        raise what
    return what


def run(formula: Formula, flag, progress: Callable[[str], None] | None = None) -> lib.Handle:
    """The result of a fit of the formula's model. The thread keeps all handles that the fit uses."""
    observer = lib.Observer(size=ctypes.sizeof(lib.Observer))
    observer.state, observer.abandon = ctypes.addressof(flag), lib.RAISED
    raised: list[BaseException] = []

    def tell(_, sentence: bytes) -> None:
        try:
            progress(sentence.decode())
        except BaseException as error:  # C is no place for it: the fit ends early, and it is raised behind it
            raised.append(error)
            flag.value = 1

    if progress is not None:
        if not callable(progress):
            raise lib.KDR3Error(f"progress is a function of a sentence, not {type(progress).__name__}.")
        observer.progress = lib.PROGRESS(tell)
    result = lib.Handle(library.kdr3_result_free)
    status = library.kdr3_fit(library.kdr3_formula_model(formula.pointer), ctypes.byref(observer), ctypes.byref(result.pointer))
    if raised:
        raise raised[0]
    lib.check(status)
    return result


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
        from .pooled import Pooled
        if not data:
            raise lib.KDR3Error("The list of tables is empty.")
        if plausible is not None:
            raise lib.KDR3Error("Plausible values are columns of one table, not of a list of tables.")
        return Pooled.of(formula, data, arguments)
    if plausible is not None:
        from .pooled import Pooled, inplaceof
        return Pooled.of(formula, inplaceof(formula, data, list(plausible)), arguments)
    return Results(*estimate(formula, data, arguments))


def estimate(formula: str, data: Any, arguments: Mapping[str, Any]):
    """The handles of a fit, and what they were made with."""
    options = {"family": FAMILIES.get(arguments["family"], arguments["family"])}
    extra = {}
    for name in ("trials", "exposure"):
        if arguments[name] is not None and not isinstance(arguments[name], str):
            raise lib.KDR3Error(f"{name} is the name of a column, not {type(arguments[name]).__name__}: put it into the table.")
    if options["family"] not in KNOWN:
        raise lib.KDR3Error(f"family is one of {', '.join(KNOWN)}. It cannot be {arguments['family']}.")
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
    settings = settingsof(arguments)
    threads = lib.whole("threads", settings.pop("THREADS", arguments["threads"]))
    made = {"formula": formula, "options": options, "missing": codes, "settings": settings, "threads": threads}
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


def setmodel(handle: Formula, made: Mapping[str, Any]) -> None:
    model = library.kdr3_formula_model(handle.pointer)
    for name, value in {**made["settings"], "THREADS": made["threads"]}.items():
        try:
            number = float(value)
        except (TypeError, ValueError):
            raise lib.KDR3Error(f"The setting {name} is a number. It cannot be {value!r}.") from None
        lib.check(library.kdr3_model_set(model, lib.encoded(str(name)), number))
