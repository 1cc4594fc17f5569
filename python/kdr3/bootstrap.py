"""The replicates of a bootstrap."""
from __future__ import annotations

import ctypes
import json
import math
from typing import TYPE_CHECKING

import numpy as np

from . import _library as lib
from ._frames import matrix, series
from ._library import library
from .estimates import checkalpha

if TYPE_CHECKING:
    from ._frames import Matrix, Series
    from .results import Results


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
        self.document = json.loads(library.kdr3_result_document(result.pointer, 0).decode())
        self.warnings = lib.texts(library.kdr3_result_warning, result.pointer)
        for sentence in self.warnings:
            if sentence not in results.warnings:
                lib.tell(sentence)

    def conf_int(self, alpha: float = 0.05) -> Matrix:
        """[g, 2] percentile intervals of the fixed effects."""
        checkalpha(alpha)
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
        values = np.asarray(self.params)
        values = values[~np.isnan(values[:, 0])]
        spread = values.std(axis=0, ddof=1) if len(values) > 1 else np.full(values.shape[1], math.nan)
        return series(spread, self.results._names, "bse")

    def __repr__(self) -> str:
        return f"<bootstrap of {self.tried} replicates, {self.failed} without a fit: {self.results.formula}>"
