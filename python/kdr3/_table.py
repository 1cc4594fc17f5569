"""Tables of any kind as columns of the C interface: pandas, polars and pyarrow frames, what has the interchange protocol
__dataframe__, and mappings of arrays."""
from __future__ import annotations

import ctypes
import datetime
import decimal
import numbers
from typing import Any, Mapping, Sequence

import numpy as np

from . import _library as lib
from ._frames import haspandas

EXACT = 2**53  # whole numbers up to here are doubles


def asframe(data: Any) -> Any:
    """A table as one of those whose columns are taken by their names."""
    if isinstance(data, (Mapping, np.ndarray)) or hasattr(data, "columns") or not hasattr(data, "__dataframe__"):
        return data
    try:
        from pandas.api.interchange import from_dataframe
    except ImportError:
        raise lib.KDR3Error(f"{type(data).__name__} has the protocol __dataframe__, which takes pandas 1.5 or later to read.") from None
    return from_dataframe(data)


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
    raise lib.KDR3Error(f"Data are a data frame or a mapping of arrays, not {type(data).__name__}.")


def index(data: Any):
    """The row labels of a pandas frame; None of other tables."""
    return data.index if hasattr(data, "iloc") and hasattr(data, "index") else None


class Column:
    """One column: its values, and what keeps them alive.

    values: [rows] numbers, or codes of `labels`; missing: [rows] of bool, or None. identifies: whole numbers that doubles
    would make one of, taken as texts, by which units are told.
    """

    identifies = False

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


def _decoded(name: str, row: int, value: bytes) -> str:
    try:
        return value.decode()
    except UnicodeDecodeError:
        raise lib.KDR3Error(f"The column {name} holds bytes in record {row + 1} that are no UTF-8: {value!r}.") from None


def _nodates(name: str, what: str) -> lib.KDR3Error:
    return lib.KDR3Error(f"The column {name} holds {what}: make a number of dates and times, as the years since the first one.")


def _texts(name: str, values: np.ndarray) -> Column | None:
    """Texts and missing values by whole passes over the column, as most columns of objects are; None of others."""
    each = values.tolist()
    kinds = set(map(type, each))
    if float in kinds and kinds <= {str, type(None), float}:
        each = [None if value != value else value for value in each]
        kinds = set(map(type, each))
    if not kinds <= {str, type(None)}:
        return None
    labels = [value for value in dict.fromkeys(each) if value is not None]
    place = {None: -1, **{label: i for i, label in enumerate(labels)}}
    return _codes(name, labels, np.fromiter(map(place.__getitem__, each), np.int32, len(each)), False)


def _objects(name: str, values: np.ndarray) -> Column:
    """Texts (bytes are texts in UTF-8), numbers, or truths, which are a factor."""
    if (texts := _texts(name, values)) is not None:
        return texts
    known: dict[str, int] = {}
    codes = np.empty(len(values), dtype=np.int32)
    first: dict[str, tuple[int, Any]] = {}  # where each kind of value stands first
    whole = True
    for i, value in enumerate(values):
        if value is None or type(value).__name__ in ("NAType", "NaTType") or value != value:
            codes[i] = -1
            continue
        if isinstance(value, bytes):
            value = _decoded(name, i, value)
        kind = ("text" if isinstance(value, str) else "truth" if isinstance(value, (bool, np.bool_))
                else "number" if isinstance(value, (numbers.Real, decimal.Decimal)) else "other")
        first.setdefault(kind, (i, value))
        whole = whole and (kind != "number" or isinstance(value, numbers.Integral))
        codes[i] = known.setdefault(str(value), len(known))
    if "other" in first:
        row, value = first["other"]
        if isinstance(value, (datetime.date, datetime.time, datetime.timedelta, np.datetime64, np.timedelta64)):
            raise _nodates(name, f"a {type(value).__name__} in record {row + 1}")
        raise lib.KDR3Error(f"The column {name} holds {type(value).__name__} in record {row + 1}, neither a number nor a text.")
    if len(first) > 1:
        (kind, _), (other, (row, value)) = sorted(first.items(), key=lambda item: item[1][0])[:2]
        raise lib.KDR3Error(f"The column {name} holds {kind}s and other values: {value!r} in record {row + 1} is no {kind}.")
    if "truth" in first:
        return _codes(name, ["FALSE", "TRUE"], [-1 if c < 0 else int(bool(v)) for v, c in zip(values, codes)], True)
    if "number" in first and not (whole and any(abs(int(value)) > EXACT for value in known)):
        return Column(name, np.array([np.nan if c < 0 else float(v) for v, c in zip(values, codes)]))
    made = _codes(name, known, codes, False)
    made.identifies = "number" in first
    return made


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
    large = kind in "iu" and len(values) and (int(values.max()) > EXACT or int(values.min()) < -EXACT)
    if kind in "OUST" or large:  # IDs that doubles would make one of are texts
        each = values.astype(object)
        return _objects(name, each if missing is None else np.where(missing, None, each))
    if kind in "iu":
        small = values.dtype.itemsize < 4 or values.dtype == np.dtype("i4")
        return Column(name, values.astype(np.int32 if small else np.int64, copy=False), missing)
    if kind == "f":
        single = values.dtype == np.dtype("f4")
        return Column(name, values.astype(np.float32 if single else np.float64, copy=False), missing)
    if kind in "Mm":
        raise _nodates(name, str(values.dtype))
    raise lib.KDR3Error(f"The column {name} holds {values.dtype}, which is neither numbers nor texts.")


def _pandas(name: str, values: Any) -> Column:
    """A column of a type of pandas' own."""
    kind = getattr(values.dtype, "kind", "O")
    if kind in "mM" or type(values.dtype).__name__ == "PeriodDtype":
        raise _nodates(name, str(values.dtype))
    missing = values.isna().to_numpy(dtype=bool)
    if kind in "iu":
        return _array(name, np.ma.array(values.to_numpy(dtype=f"{kind}8", na_value=0), mask=missing))
    if kind == "f":
        return _array(name, values.to_numpy(dtype=np.float64, na_value=np.nan))
    if kind == "b":
        return _codes(name, ["FALSE", "TRUE"], np.where(missing, -1, values.to_numpy(dtype=bool, na_value=False)), True)
    return _array(name, np.asarray(values, dtype=object))


def _polars(name: str, values: Any) -> Column:
    """A column of polars, which tells missing values by is_null()."""
    kind, missing = str(values.dtype), np.asarray(values.is_null().to_numpy(), dtype=bool)
    if kind.startswith(("Categorical", "Enum")):
        labels = [str(label) for label in values.cat.get_categories().to_list()]
        place = {label: i for i, label in enumerate(labels)}
        return _codes(name, labels, [-1 if lost else place[text] for text, lost in zip(values.cast(str).to_list(), missing)], True)
    if kind.startswith(("Int", "UInt")):
        return _array(name, np.ma.array(np.asarray(values.fill_null(0).to_numpy()), mask=missing))
    return _array(name, np.asarray(values.to_numpy()))


def _arrow(name: str, values: Any) -> Column:
    """A column of pyarrow, in one piece."""
    values = values.combine_chunks()
    if hasattr(values, "chunks"):
        values = values.chunk(0) if values.num_chunks else values
    if hasattr(values, "dictionary"):
        return _codes(name, values.dictionary.to_pylist(), values.indices.fill_null(-1).to_numpy(zero_copy_only=False), True)
    if str(values.type).startswith(("int", "uint")):
        missing = values.is_null().to_numpy(zero_copy_only=False)
        return _array(name, np.ma.array(values.fill_null(0).to_numpy(zero_copy_only=False), mask=missing))
    return _array(name, values.to_numpy(zero_copy_only=False))


def named(data: Any, name: str) -> Any:
    """The column of that name as the table has it."""
    try:
        return data[name]
    except (KeyError, IndexError, TypeError):
        return next((data[other] for other in (data.columns if hasattr(data, "columns") else data) if str(other) == name))


def column(name: str, values: Any) -> Column:
    """A column of any kind."""
    if hasattr(values, "combine_chunks"):
        return _arrow(name, values)
    if hasattr(values, "is_null") and hasattr(values, "to_physical"):
        return _polars(name, values)
    if hasattr(values, "cat") and hasattr(values, "to_numpy") and hasattr(values.cat, "categories"):
        return _codes(name, values.cat.categories, values.cat.codes.to_numpy(), True)
    if hasattr(values, "to_numpy"):
        if not isinstance(getattr(values, "dtype", None), (np.dtype, type(None))) and hasattr(values, "isna"):
            return _pandas(name, values)
        values = values.to_numpy()
    return _array(name, values if isinstance(values, np.ndarray) else np.asarray(values))


def _checklabels(data: Any, wanted: list[str], extra: Mapping[str, Any]) -> None:
    """Rows are matched by their places: Series beside a frame, or in a mapping, have to have the same labels in the same
    order."""
    series = [(name, data[name]) for name in wanted if name in data] if isinstance(data, Mapping) else []
    labels, of = index(data), "the table"
    for name, values in [*series, *((name.strip("()"), values) for name, values in extra.items())]:
        own = index(values)
        if own is None:
            continue
        if labels is None:
            labels, of = own, name
        elif len(own) == len(labels) and not own.equals(labels):
            raise lib.KDR3Error(f"{name} has other row labels than {of}, or in another order: reindex it, or hand in its values alone.")


def _indexstate(labels) -> dict[str, np.ndarray]:
    """Row labels of numbers, texts or times as arrays, one for each level of them; others are not kept."""
    made = {}
    for level in range(0 if labels is None else labels.nlevels):
        values = labels.get_level_values(level).to_numpy()
        if values.dtype == object and all(isinstance(value, str) for value in values):
            values = values.astype(str)
        if values.dtype == object:
            return {}
        name = labels.names[level]
        made[f"index{level}_values"], made[f"index{level}_name"] = values, np.array("" if name is None else str(name))
    return made


def _restoredindex(state: Mapping[str, Any]):
    levels = []
    while f"index{len(levels)}_values" in state:
        levels.append(state[f"index{len(levels)}_values"])
    if not levels or not haspandas():
        return None
    import pandas
    levels = [level.astype(object) if level.dtype.kind == "U" else level for level in levels]
    names = [str(state[f"index{i}_name"]) or None for i in range(len(levels))]
    return pandas.MultiIndex.from_arrays(levels, names=names) if len(levels) > 1 else pandas.Index(levels[0], name=names[0])


class Fields:
    """The columns of a table as an array of fields: those of `wanted` with their values, of the others the names alone.

    A name is wanted with its case, or without it. `codes`: numbers that stand for missing values.
    """

    def __init__(self, data: Any, wanted: list[str], extra: Mapping[str, Any] | None = None, codes: Sequence[float] = ()):
        data, extra = asframe(data), extra or {}
        all_names = names(data)
        fold = {name.lower() for name in wanted}
        for name in all_names:
            if name.lower() in fold and all_names.count(name) > 1:
                raise lib.KDR3Error(f"The table has {all_names.count(name)} columns {name}.")
        self.columns: dict[str, Column] = {name: column(name, named(data, name)) for name in all_names
                                           if name.lower() in fold}
        for name, values in extra.items():
            self.columns[name] = column(name.strip("()"), values)
            self.columns[name].name = name
        for one in self.columns.values():
            if one.labels is None and codes:
                lost = np.isin(one.values, codes)
                one.missing = lost if one.missing is None else lost | one.missing
        lengths = {name.strip("()"): len(one.values) for name, one in self.columns.items()}
        if len(set(lengths.values())) > 1:
            raise lib.KDR3Error("The columns differ in length: " + ", ".join(f"{n} has {k}" for n, k in lengths.items()) + ".")
        _checklabels(data, list(self.columns), extra)
        self.index = index(data)
        # of a table without any of these columns the library says which it lacks
        self.rows, *_ = list(lengths.values()) or [len(named(data, name)) for name in all_names[:1]] or [0]
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
        made.update(_indexstate(self.index))
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
        made.index = _restoredindex(state) if index is None else index
        made._make([])
        return made
