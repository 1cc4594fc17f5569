"""What the units of a fit are called, and which of them the rows of a table belong to."""
from __future__ import annotations

from typing import TYPE_CHECKING, Mapping

import numpy as np

from . import _library as lib

if TYPE_CHECKING:
    from ._table import Fields
    from .results import Results


def named(m: Results) -> dict[str, list]:
    """What the units of each grouping are called, in the order of the random effects: values, or tuples of several."""
    found = {}
    for level, group in enumerate(m._groupings, 2):
        columns = [m._fields().columns[name] for name in m._state["words"][lib.GROUPS2 if level == 2 else lib.GROUPS3]]
        unit, rows = m._state[f"unit{level}"], m._state["rows"]
        first = rows[np.flatnonzero(np.r_[True, unit[1:] != unit[:-1]])] if len(unit) else []
        names = [tuple(_value(column, row) for column in columns) for row in first]
        found[group] = [name[0] if len(name) == 1 else name for name in names]
    return found


def ofrows(m: Results, fields: Fields, level: int) -> np.ndarray:
    """[rows] the number of the unit of each row, -1 of one that the fit does not know."""
    group = m._groupings[level - 2]
    columns = [fields.columns[name] for name in m._state["words"][lib.GROUPS2 if level == 2 else lib.GROUPS3]]
    lost = np.any([column.absent() for column in columns], axis=0)
    if lost.any():
        lib.tell(f"{int(lost.sum())} of {fields.rows} rows do not tell their unit of {group}: its random effects are taken as 0.")
    units = [tuple(map(str, unit)) if isinstance(unit, tuple) else (str(unit),) for unit in m.units[group]]
    known = [{name: code for code, name in enumerate(dict.fromkeys(unit[c] for unit in units))} for c in range(len(columns))]
    codes = [_codesof(column, of) for column, of in zip(columns, known)]
    sizes = [len(of) for of in known]
    place = {int(np.ravel_multi_index([of[name] for of, name in zip(known, unit)], sizes)): i for i, unit in enumerate(units)}
    lost |= np.any([one < 0 for one in codes], axis=0)
    keys, rows = np.unique(np.ravel_multi_index([np.where(lost, 0, one) for one in codes], sizes), return_inverse=True)
    return np.where(lost, -1, np.array([place.get(int(key), -1) for key in keys])[rows])


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
