"""Tests by F as the program makes them. The model is fitted again with the contrasts as its hypotheses, since the degrees of
freedom of a denominator come of more than a result holds."""
from __future__ import annotations

import ctypes
import math
from typing import TYPE_CHECKING, Sequence

import numpy as np

from . import _library as lib
from ._formula import interruptible, run
from ._library import library

if TYPE_CHECKING:
    from .results import Results

MOST = 128  # hypotheses of a model


def tested(m: Results, contrasts: Sequence[np.ndarray], robust: bool) -> list[dict[str, float]]:
    """The tests of C gamma = 0 for each matrix C [r, g]: {"chi_square", "df", "df2", "p"}."""
    settings = {name: value for name, value in m._made["settings"].items() if name not in ("PROFILE", "SHARES")}
    made = []
    for first in range(0, len(contrasts), MOST):
        handle = m._again({**m._made, "settings": settings})
        if m._made.get("started"):
            m._start(handle)
        some = contrasts[first:first + MOST]
        for C in some:
            ordered = np.empty(C.shape)
            ordered[:, m._state["places"]] = C  # the library has its own order of the effects
            lib.check(library.kdr3_model_hypothesis(library.kdr3_formula_model(handle.pointer), *C.shape, ordered.ctypes.data))
        result = interruptible(lambda flag: run(handle, flag))
        for i in range(len(some)):
            test = lib.Test(size=ctypes.sizeof(lib.Test))
            lib.check(library.kdr3_result_test(result.pointer, i, int(robust), ctypes.byref(test)))
            made.append({"chi_square": test.chisquare, "df": test.df, "df2": math.inf if math.isnan(test.df2) else test.df2, "p": test.p})
    return made
