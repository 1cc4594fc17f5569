"""Handles: a formula with the data and the model that it makes of a table, and its fit in a thread that a keyboard interrupt
can stop."""
from __future__ import annotations

import ctypes
import threading
from typing import Any, Callable, Mapping

import numpy as np

from . import _library as lib
from ._library import library
from ._table import Fields


class Formula(lib.Handle):
    """A formula with the data and the model that it makes of a table; or, without a table, the formula alone."""

    def __init__(self, text: str, fields: Fields | None = None, options: Mapping[str, str | None] | None = None):
        super().__init__(library.kdr3_formula_free)
        if not isinstance(text, str):
            raise lib.KDR3Error(f"A formula is a text, as 'score ~ year + (year | school/pupil)', not {type(text).__name__}.")
        if fields is None:
            lib.check(library.kdr3_formula_read(lib.encoded(text), ctypes.byref(self.pointer)))
            return
        given = lib.Options(size=ctypes.sizeof(lib.Options))
        for name, value in (options or {}).items():
            setattr(given, name, None if value is None else lib.encoded(str(value)))
        interruptible(lambda flag: lib.check(library.kdr3_formula_make(
            lib.encoded(text), ctypes.byref(given), fields.rows, fields.count, fields.array, ctypes.byref(self.pointer))))
        self.weights = [(options or {}).get(f"weights{level}") for level in (1, 2, 3)]
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


def setmodel(handle: Formula, made: Mapping[str, Any]) -> None:
    model = library.kdr3_formula_model(handle.pointer)
    for name, value in {**made["settings"], "THREADS": made["threads"]}.items():
        try:
            number = float(value)
        except (TypeError, ValueError):
            raise lib.KDR3Error(f"The setting {name} is a number. It cannot be {value!r}.") from None
        lib.check(library.kdr3_model_set(model, lib.encoded(str(name)), number))
