"""Tables of any kind as columns of the C interface: pandas, polars and pyarrow frames, and mappings of arrays."""
from __future__ import annotations

import ctypes
import numbers
from typing import Any, Mapping

import numpy as np

from . import _library as lib

EXACT = 2**53  # whole numbers up to here are doubles


def names(data: Any) -> list[str]:
    """The names of a table's columns."""
    if isinstance(data, np.ndarray) and data.dtype.names:
        return list(data.dtype.names)
    if hasattr(data, "column_names"):  # pyarrow
        return [str(name) for name in data.column_names]
    if hasattr(data, "columns"):
        return [str(name) for name in data.columns]
    if isinstance(data, Mapping):
        return [str(name) for name in data]
    raise TypeError(f"Data are a data frame or a mapping of arrays, not {type(data).__name__}.")


def index(data: Any):
    """The row labels of a pandas frame; None of other tables."""
    return data.index if hasattr(data, "iloc") and hasattr(data, "index") else None


class Column:
    """One column: its values, and what keeps them alive.

    values: [rows] numbers, or codes of `labels`; missing: [rows] of bool, or None.
    """

    def __init__(self, name: str, values: np.ndarray, missing=None, labels=None, ordered=False):
        self.name, self.values, self.missing, self.labels, self.ordered = name, values, missing, labels, ordered

    def absent(self) -> np.ndarray:
        """[rows] where the value is missing."""
        none = self.values < 0 if self.labels is not None else np.isnan(self.values)
        return none if self.missing is None else none | np.asarray(self.missing, dtype=bool)

    def field(self) -> lib.Field:
        field = lib.Field(size=ctypes.sizeof(lib.Field))
        self._name = lib.encoded(self.name)
        field.name = self._name
        kinds = {np.dtype("f8"): lib.DOUBLE, np.dtype("f4"): lib.FLOAT, np.dtype("i4"): lib.INT32, np.dtype("i8"): lib.INT64}
        field.type = kinds[self.values.dtype]
        field.values, field.stride = self.values.ctypes.data, self.values.strides[0] if len(self.values) > 1 else 0
        if self.missing is not None:
            self._missing = np.ascontiguousarray(self.missing, dtype=np.uint8)
            field.missing = self._missing.ctypes.data
        if self.labels is not None:
            self._labels = (ctypes.c_char_p * max(1, len(self.labels)))(*[lib.encoded(label) for label in self.labels])
            field.labels, field.labelcount, field.ordered = self._labels, len(self.labels), int(self.ordered)
        return field


def _codes(name: str, labels, codes, ordered: bool) -> Column:
    return Column(name, np.ascontiguousarray(codes, dtype=np.int32), None, [str(label) for label in labels], ordered)


def _texts(name: str, values: np.ndarray) -> Column:
    """Texts, and whatever else is an object: numbers as numbers, truths as a factor."""
    known: dict[str, int] = {}
    codes = np.empty(len(values), dtype=np.int32)
    count, odd = 0, None
    for i, value in enumerate(values):
        if value is None or type(value).__name__ in ("NAType", "NaTType") or value != value:
            codes[i] = -1
            continue
        if not isinstance(value, str):
            count, odd = count + 1, (i, value) if odd is None else odd
        codes[i] = known.setdefault(str(value), len(known))
    present = int((codes >= 0).sum())
    if count == present and present > 0:
        if all(isinstance(v, (bool, np.bool_)) for v, code in zip(values, codes) if code >= 0):
            return _codes(name, ["FALSE", "TRUE"], [-1 if c < 0 else int(bool(v)) for v, c in zip(values, codes)], True)
        if all(isinstance(v, numbers.Real) for v, code in zip(values, codes) if code >= 0):
            return Column(name, np.array([np.nan if c < 0 else float(v) for v, c in zip(values, codes)]))
        row, value = odd
        raise lib.KDR3Error(f"The column {name} holds {type(value).__name__} in record {row + 1}, neither a number nor a text.")
    if count > 0:
        row, value = odd
        raise lib.KDR3Error(f"The column {name} holds texts and other values: {value!r} in record {row + 1} is no text.")
    return _codes(name, known, codes, False)


def _array(name: str, values: np.ndarray) -> Column:
    if values.ndim != 1:
        raise lib.KDR3Error(f"The column {name} has {values.ndim} dimensions; a column has one.")
    missing = None
    if isinstance(values, np.ma.MaskedArray):
        missing, values = np.ma.getmaskarray(values), values.data
    kind = values.dtype.kind
    if kind == "b":
        codes = values.astype(np.int32)
        if missing is not None:
            codes[missing] = -1
        return _codes(name, ["FALSE", "TRUE"], codes, True)
    if kind in "OUST":
        column = _texts(name, values.astype(object))
        if missing is not None:
            column.values = column.values.astype(np.float64) if column.labels is None else column.values
            column.missing = missing
        return column
    if kind in "iu":
        if len(values) and (int(values.max()) > EXACT or int(values.min()) < -EXACT):
            return _texts(name, np.array([str(v) for v in values], dtype=object))
        small = values.dtype.itemsize < 4 or values.dtype == np.dtype("i4")
        return Column(name, values.astype(np.int32 if small else np.int64, copy=False), missing)
    if kind == "f":
        single = values.dtype == np.dtype("f4")
        return Column(name, values.astype(np.float32 if single else np.float64, copy=False), missing)
    raise lib.KDR3Error(f"The column {name} holds {values.dtype}, which is neither numbers nor texts.")


def column(data: Any, name: str) -> Column:
    """The column of that name."""
    try:
        values = data[name]
    except (KeyError, IndexError, TypeError):
        values = next((data[other] for other in (data.columns if hasattr(data, "columns") else data) if str(other) == name))
    dtype = getattr(values, "dtype", None)
    if hasattr(values, "cat") and hasattr(values, "to_numpy") and hasattr(values.cat, "categories"):  # pandas
        return _codes(name, values.cat.categories, values.cat.codes.to_numpy(), True)
    if hasattr(values, "cat") and hasattr(values, "to_physical") and str(dtype) in ("Categorical", "Enum"):  # polars
        codes = values.to_physical().fill_null(-1) if str(dtype) != "Enum" else values.to_physical().cast(int).fill_null(-1)
        return _codes(name, values.cat.get_categories().to_list(), codes.to_numpy(), True)
    if hasattr(values, "combine_chunks"):  # pyarrow
        values = values.combine_chunks()
        if hasattr(values, "chunks"):
            values = values.chunk(0) if values.num_chunks else values
        if hasattr(values, "dictionary"):
            return _codes(name, values.dictionary.to_pylist(), values.indices.fill_null(-1).to_numpy(zero_copy_only=False), True)
        return _array(name, values.to_numpy(zero_copy_only=False))
    if hasattr(values, "to_numpy"):
        if dtype is not None and not isinstance(dtype, np.dtype) and hasattr(values, "isna"):  # pandas' own types
            if hasattr(dtype, "kind") and dtype.kind in "iufb" and str(dtype) not in ("string", "category"):
                if dtype.kind == "b":
                    return _codes(name, ["FALSE", "TRUE"], values.astype("Int8").fillna(-1).to_numpy(dtype=np.int32), True)
                return _array(name, values.to_numpy(dtype=np.float64, na_value=np.nan))
            return _array(name, np.asarray(values, dtype=object))
        return _array(name, np.ma.asanyarray(values.to_numpy()) if isinstance(values, np.ma.MaskedArray) else np.asarray(values.to_numpy()))
    return _array(name, values if isinstance(values, np.ndarray) else np.asarray(values))


class Fields:
    """The columns of a table as an array of fields: those of `wanted` with their values, of the others the names alone.

    A name is wanted with its case, or without it.
    """

    def __init__(self, data: Any, wanted: list[str], extra: Mapping[str, Any] | None = None):
        all_names = names(data)
        fold = {name.lower() for name in wanted}
        self.columns: dict[str, Column] = {name: column(data, name) for name in all_names if name.lower() in fold}
        for name, values in (extra or {}).items():
            self.columns[name] = _array(name, np.asarray(values))
        lengths = {name: len(one.values) for name, one in self.columns.items()}
        if len(set(lengths.values())) > 1:
            raise lib.KDR3Error("The columns differ in length: " + ", ".join(f"{n} has {k}" for n, k in lengths.items()) + ".")
        self.rows = next(iter(lengths.values()), 0)
        self.index = index(data)
        self._make(all_names)

    def _make(self, all_names: list[str]) -> None:
        every = list(dict.fromkeys([*all_names, *self.columns]))
        self.array = (lib.Field * max(1, len(every)))()
        self.count = len(every)
        self._nothing = np.zeros(1)
        self._names = [name.encode() for name in every]
        for i, name in enumerate(every):
            if name in self.columns:
                self.array[i] = self.columns[name].field()
            else:
                self.array[i] = lib.Field(size=ctypes.sizeof(lib.Field), name=self._names[i], type=lib.DOUBLE,
                                          values=self._nothing.ctypes.data)

    def state(self) -> dict[str, Any]:
        """Arrays that make the same fields again."""
        made: dict[str, Any] = {}
        for i, (name, one) in enumerate(self.columns.items()):
            made[f"column{i}_name"], made[f"column{i}_values"] = np.array(name), np.ascontiguousarray(one.values)
            if one.missing is not None:
                made[f"column{i}_missing"] = np.asarray(one.missing)
            if one.labels is not None:
                made[f"column{i}_labels"], made[f"column{i}_ordered"] = np.array(one.labels, dtype=str), np.array(one.ordered)
        return made

    @classmethod
    def restored(cls, state: Mapping[str, Any], index=None) -> "Fields":
        made = cls.__new__(cls)
        made.columns = {}
        i = 0
        while f"column{i}_name" in state:
            name = str(state[f"column{i}_name"])
            labels = state.get(f"column{i}_labels")
            made.columns[name] = Column(name, state[f"column{i}_values"], state.get(f"column{i}_missing"),
                                        None if labels is None else [str(x) for x in labels],
                                        bool(state.get(f"column{i}_ordered", False)))
            i += 1
        made.rows = len(next(iter(made.columns.values())).values)
        made.index = index
        made._make([])
        return made
