"""What the package hands out: pandas objects where pandas is installed, else plain ones with the same names."""
from __future__ import annotations

import importlib.util
from typing import TYPE_CHECKING, Any, Iterable, Mapping, Union

import numpy as np

if TYPE_CHECKING:
    import pandas
    Series = Union[pandas.Series, "Named"]
    Table = Union[pandas.DataFrame, "Frame"]
    Matrix = Union[pandas.DataFrame, np.ndarray]


def haspandas() -> bool:
    return importlib.util.find_spec("pandas") is not None


class Named:
    """Numbers with names, where pandas is not installed: as an array, by name or place, and in the order of the names."""

    def __init__(self, values, index: Iterable):
        self.values, self.index = np.asarray(values), list(index)

    def __getitem__(self, key):
        """By a name, or several, or as of an array where it is none."""
        if isinstance(key, slice) or getattr(key, "dtype", None) == bool:
            return self.values[key]
        known = {name: place for place, name in enumerate(self.index)}
        return self.values[known.get(key, key) if np.isscalar(key) else [known.get(one, one) for one in key]]

    def __contains__(self, name):
        return name in self.index

    def __iter__(self):
        return iter(self.values)

    def __len__(self):
        return len(self.index)

    def keys(self) -> list:
        return self.index

    def items(self) -> Iterable:
        return zip(self.index, self.values)

    def __array__(self, dtype=None, copy=None):
        return np.asarray(self.values, dtype=dtype)

    def __repr__(self):
        width = max((len(str(name)) for name in self.index), default=0)
        return "\n".join(f"{str(name):{width}}  {value:.6g}" for name, value in zip(self.index, self.values))


class Frame(dict):
    """Columns of one length, where pandas is not installed."""

    def __repr__(self):
        return table(list(self), list(zip(*[[shown(v) for v in column] for column in self.values()])))


def series(values, index, name: str | None = None) -> Series:
    if haspandas():
        import pandas
        return pandas.Series(np.asarray(values), index=index, name=name)
    return Named(values, index)


def frame(columns: Mapping[str, Any], index=None) -> Table:
    if haspandas():
        import pandas
        return pandas.DataFrame(dict(columns), index=index)
    return Frame(columns)


def matrix(values, rows, columns) -> Matrix:
    """A matrix with names of rows and columns; without pandas the array alone."""
    if haspandas():
        import pandas
        return pandas.DataFrame(values, index=rows, columns=columns)
    return np.asarray(values)


def beside(parts: Mapping[str, Any]) -> Table:
    """Series, or matrices of the same rows, under a name each."""
    if not haspandas():
        return Frame({name: np.asarray(part) for name, part in parts.items()})
    import pandas
    return pandas.concat(dict(parts), axis=1)


def shown(value: Any, digits: int = 4) -> str:
    if value is None or value == "" or (isinstance(value, float) and np.isnan(value)):
        return ""
    if isinstance(value, (bool, str)):
        return str(value)
    if isinstance(value, (int, np.integer)):
        return str(value)
    if value != 0 and (abs(value) < 10.0**-digits or abs(value) >= 1e7):
        return f"{value:.{digits - 1}e}"
    return f"{value:.{digits}f}"


def table(head: list[str], rows: list) -> str:
    """Text columns, the first to the left and the others to the right."""
    cells = [head] + [list(row) for row in rows]
    widths = [max(len(row[c]) for row in cells) for c in range(len(head))]
    return "\n".join("  ".join(f"{x:<{w}}" if c == 0 else f"{x:>{w}}" for c, (x, w) in enumerate(zip(row, widths))).rstrip()
                     for row in cells)
