"""Predictions by the C interface: the arrays of a fit and rows of its matrices in, values and errors out."""
from __future__ import annotations

import ctypes
from typing import TYPE_CHECKING, Iterator, Mapping

import numpy as np

from . import _library as lib
from . import _units
from ._library import library

if TYPE_CHECKING:
    from ._table import Fields
    from .results import Results

LINEAR, RESPONSE, AVERAGE, UNITLINEAR, UNITRESPONSE = range(5)
OF = {("link", "fixed"): LINEAR, ("response", "fixed"): RESPONSE, ("link", "population"): LINEAR,
      ("response", "population"): AVERAGE, ("link", "unit"): UNITLINEAR, ("response", "unit"): UNITRESPONSE}
FAMILIES = {"gaussian": 0, "binomial": 2, "poisson": 3, "multinomial": 4, "ordinal": 5}


def mean(family: str, eta: np.ndarray) -> np.ndarray:
    """The mean of an outcome of two values, or of counts or numbers."""
    small = np.exp(-np.abs(eta))
    if family == "binomial":
        return np.where(eta >= 0, 1.0 / (1.0 + small), small / (1.0 + small))
    return np.exp(eta) if family == "poisson" else eta


def _filled(struct: ctypes.Structure, **arrays: np.ndarray | None) -> ctypes.Structure:
    """The struct with the addresses of these arrays, which it keeps alive."""
    struct.size = ctypes.sizeof(struct)
    struct.kept = {name: None if a is None else np.ascontiguousarray(a, dtype=np.intp if a.dtype.kind == "i" else np.float64)
                   for name, a in arrays.items()}
    for name, array in struct.kept.items():
        setattr(struct, name, lib.address(array))
    return struct


def _parts(of: lib.Rows, length: int) -> Iterator[tuple[slice, lib.Rows]]:
    """The rows in parts of that length."""
    for start in range(0, of.records, length):
        place = slice(start, min(start + length, of.records))
        part = _filled(lib.Rows(), **{name: None if a is None else a[place] for name, a in of.kept.items()})
        part.records = place.stop - start
        yield place, part


def fitted(m: Results, effects: Mapping[int, np.ndarray] | None) -> lib.Fitted:
    """The arrays of a fit; `effects` of units, [units, effects] of level 2 and 3, in the place of its own."""
    state = m._state
    random = effects if effects is not None else {level: state.get(f"effects{level}") for level in (2, 3)}
    made = _filled(lib.Fitted(), fixed=state["estimates"], covariance=state["covariance"], joint=state.get("joint"),
                   taupi=state["tau2"], taubeta=state["tau3"], level2=random.get(2), level3=random.get(3),
                   variances2=state.get("effects2_cov"), variances3=state.get("effects3_cov"), covariances=state.get("effects_both"),
                   **{f"weights{level}": state.get(f"weights{level}") for level in (1, 2, 3)})
    made.family, made.categories = FAMILIES[m.family], len(m.categories)
    made.fixedeffects, made.random2, made.random3 = len(state["estimates"]), len(state["tau2"]), len(state["tau3"])
    made.units2, made.units3, made.sigma2 = state["units2"], state["units3"], m.scale
    return made


def rows(m: Results, fields: Fields | None = None, units: bool = True) -> lib.Rows:
    """The matrices of a table, or of the fit's own records with their outcome."""
    words = m._state["words"]
    own = fields is None
    X, Z2, Z3 = (m._matrix(part, len(words[part]), fields) for part in (lib.EFFECTS, lib.RANDOM2, lib.RANDOM3))
    unit = [(m._state[f"unit{level}"] if own else _units.ofrows(m, fields, level)) if units and level - 2 < len(m._groupings) else None
            for level in (2, 3)]
    y, count, _ = m._outcome if own else (None, None, None)
    if own and m.categories:
        y = np.unique(y, return_inverse=True)[1].astype(float)
    made = _filled(lib.Rows(), fixed=X, random2=Z2, random3=Z3, offset=m._matrix(lib.OFFSETS, 1, fields)[:, 0], unit2=unit[0],
                   unit3=unit[1], outcome=y, counts=count)
    made.records = len(X)
    return made


def predicted(m: Results, what: int, of: lib.Rows, errors: bool = False, effects: Mapping[int, np.ndarray] | None = None):
    """(values, standard errors or None), [rows, k]; k is that of kdr3_predict."""
    k = 1 if not m.categories else len(m.categories) - (what in (LINEAR, UNITLINEAR))
    values, wrong = np.empty((of.records, k)), np.empty((of.records, k)) if errors else None
    own = rows(m) if errors and what in (UNITLINEAR, UNITRESPONSE) else None
    model = fitted(m, effects)
    # Averages take long of many categories: an interrupt comes through between two parts.
    for place, part in _parts(of, 1000 if what == AVERAGE else max(1, of.records)):
        lib.check(library.kdr3_predict(ctypes.byref(model), None if own is None else ctypes.byref(own), ctypes.byref(part), what,
                                       values[place].ctypes.data, None if wrong is None else wrong[place].ctypes.data))
    return values, wrong
