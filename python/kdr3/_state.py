"""Everything of a fit as arrays and words, so that nothing hangs on the library's handles."""
from __future__ import annotations

import ctypes
from typing import Any

import numpy as np

from . import _library as lib
from ._library import library


def stateof(handle, result) -> dict[str, Any]:
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
    state.update(_weights(handle, result, (len(rows[0]), *units)))
    state["document"] = library.kdr3_result_document(result.pointer, 0).decode()
    state["warnings"] = lib.texts(library.kdr3_result_warning, result.pointer)
    return state


def _weights(handle, result, sizes: tuple[int, int, int]) -> dict[str, np.ndarray]:
    """Design weights of records and units as the fit had them; nothing without any."""
    if not any(handle.weights):
        return {}
    weights = [np.empty(size) for size in sizes]
    lib.check(library.kdr3_result_weights(result.pointer, *[one.ctypes.data for one in weights]))
    return {f"weights{level}": one for level, one in enumerate(weights, 1)}


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


def byalphabet(handle, words) -> list[str]:
    """A warning where the order of an ordinal outcome is that of the alphabet, which nobody has asked for."""
    outcome, family, _ = words[lib.OUTCOME]
    name = outcome.strip("`")
    plain = handle.fields.columns.get(name[7:-1] if name.startswith("factor(") else name)
    if family != "ordinal" or plain is None or plain.labels is None or plain.ordered:
        return []
    return [f"The categories of {outcome} are texts, ordered by the alphabet: {' < '.join(words[lib.LEVELS])}. Another order is "
            "that of a column of categories, as of pandas.Categorical(values, categories)."]
