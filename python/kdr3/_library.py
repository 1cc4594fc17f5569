"""libkdr3 by ctypes: found, checked, its functions with their types. Calls let the interpreter lock go."""
from __future__ import annotations

import ctypes
import operator
import os
import pathlib
import re
import warnings
from ctypes import POINTER, Structure, byref, c_char_p, c_double, c_int, c_size_t, c_ssize_t, c_ubyte, c_uint64, c_void_p

VERSION, ABI = "7.1.0", 1
OK, WARNING, ERROR = range(3)
DOUBLE, FLOAT, INT32, INT64, TEXT = range(5)
(COLUMNS, REMARKS, WARNINGS, EFFECTS, TERMS, RANDOM2, RANDOM3, GROUPINGS, GROUPS2, GROUPS3, OUTCOME, LEVELS,
 OFFSETS, VARIABLES1, VARIABLES2, VARIABLES3) = range(16)
T, CHISQUARE, F = range(3)


class KDR3Error(ValueError):
    """A model, a table or a call that is refused, with the program's sentence."""


class KDR3Warning(UserWarning):
    """What is wrong with a result, in a sentence: no convergence, records left out, an edge."""


class Field(Structure):
    _fields_ = [("size", c_size_t), ("name", c_char_p), ("type", c_int), ("values", c_void_p), ("stride", c_ssize_t),
                ("missing", c_void_p), ("labels", POINTER(c_char_p)), ("labelcount", c_size_t), ("first", c_int),
                ("ordered", c_int)]


class Options(Structure):
    NAMES = ("family", "engine", "points", "trials", "exposure", "offset", "weights1", "weights2", "weights3")
    _fields_ = [("size", c_size_t)] + [(name, c_char_p) for name in NAMES]


STOP = ctypes.CFUNCTYPE(c_int, c_void_p)
PROGRESS = ctypes.CFUNCTYPE(None, c_void_p, c_char_p)


class Observer(Structure):
    _fields_ = [("size", c_size_t), ("state", c_void_p), ("stop", c_void_p), ("progress", PROGRESS), ("abandon", c_void_p)]


class Test(Structure):
    _fields_ = [("size", c_size_t), ("df", c_int), ("chisquare", c_double), ("p", c_double), ("df2", c_double)]


class Summary(Structure):
    _fields_ = [("size", c_size_t), ("converged", c_int), ("iterations", c_int)] + [
        (name, c_size_t) for name in ("records", "units2", "units3", "fixedeffects", "random2", "random3", "parameters")] + [
        ("loglikelihood", c_double), ("sigma2", c_double)]


def _addresses(*names: str) -> list:
    return [(name, c_void_p) for name in names]


class Fitted(Structure):
    _fields_ = [("size", c_size_t), ("family", c_int), ("categories", c_int), ("fixedeffects", c_size_t), ("random2", c_size_t),
                ("random3", c_size_t), *_addresses("fixed", "taupi", "taubeta"), ("sigma2", c_double),
                *_addresses("covariance", "joint"), ("units2", c_size_t), ("units3", c_size_t),
                *_addresses("level2", "level3", "variances2", "variances3", "covariances", "weights1", "weights2", "weights3")]


class Rows(Structure):
    _fields_ = [("size", c_size_t), ("records", c_size_t),
                *_addresses("fixed", "random2", "random3", "offset", "unit2", "unit3", "outcome", "counts")]


def _places():
    """Where the library may be, in the order in which it is looked for."""
    if path := os.environ.get("KDR3_LIBRARY"):
        yield pathlib.Path(path)
        return
    here = pathlib.Path(__file__).resolve().parent
    yield here / "libkdr3.so"
    yield here.parent.parent / "build" / "libkdr3.so"  # of the source tree
    yield pathlib.Path("libkdr3.so.1")  # of the system


def _open() -> ctypes.CDLL:
    tried = []
    for place in _places():
        if place.is_absolute() and not place.exists():
            tried.append(str(place))
            continue
        try:
            library = ctypes.CDLL(str(place))
        except OSError as error:
            tried.append(f"{place} ({error})")
            continue
        try:
            library.kdr3_version.restype = c_char_p
            version, abi = library.kdr3_version().decode(), library.kdr3_abi()
        except AttributeError:
            raise ImportError(f"{place} is no library of KDR3.") from None
        if (version, abi) != (VERSION, ABI):
            raise ImportError(f"{place} is version {version} of KDR3 (interface {abi}), and this package is {VERSION} "
                              f"(interface {ABI}): install the two together.")
        return library
    raise ImportError("libkdr3.so was not found: " + "; ".join(tried) + ". Set KDR3_LIBRARY to its path.")


def _declare(library: ctypes.CDLL) -> ctypes.CDLL:
    handle, doubles, sizes = c_void_p, POINTER(c_double), POINTER(c_size_t)
    signatures = {
        "kdr3_message": (c_char_p,),
        "kdr3_formula_read": (c_int, c_char_p, POINTER(handle)),
        "kdr3_formula_make": (c_int, c_char_p, POINTER(Options), c_size_t, c_size_t, POINTER(Field), POINTER(handle)),
        "kdr3_formula_model": (handle, handle),
        "kdr3_formula_text": (c_char_p, handle, c_int, c_size_t),
        "kdr3_formula_order": (c_int, handle, sizes),
        "kdr3_formula_records": (c_int, handle, sizes, c_void_p, c_void_p, c_void_p),
        "kdr3_formula_matrix": (c_int, handle, c_int, c_size_t, c_size_t, POINTER(Field), c_void_p),
        "kdr3_formula_outcome": (c_int, handle, c_void_p, c_void_p, c_void_p),
        "kdr3_formula_free": (None, handle),
        "kdr3_model_set": (c_int, handle, c_char_p, c_double),
        "kdr3_model_start": (c_int, handle, c_size_t, c_void_p, c_size_t, c_void_p, c_size_t, c_void_p, c_double),
        "kdr3_model_bootstrap": (c_int, handle, c_int, c_uint64, c_int),
        "kdr3_model_hypothesis": (c_int, handle, c_size_t, c_size_t, c_void_p),
        "kdr3_model_latent": (c_int, handle, c_char_p),
        "kdr3_fit": (c_int, handle, POINTER(Observer), POINTER(handle)),
        "kdr3_result_summary": (c_int, handle, POINTER(Summary)),
        "kdr3_result_fixed": (c_int, handle, c_void_p, c_void_p, c_void_p, c_void_p),
        "kdr3_result_name": (c_char_p, handle, c_size_t),
        "kdr3_result_variances": (c_int, handle, c_void_p, c_void_p, c_void_p, c_void_p, doubles),
        "kdr3_result_effects": (c_int, handle, c_void_p, c_void_p),
        "kdr3_result_effectvariances": (c_int, handle, c_void_p, c_void_p),
        "kdr3_result_effectcovariances": (c_int, handle, c_void_p),
        "kdr3_result_weights": (c_int, handle, c_void_p, c_void_p, c_void_p),
        "kdr3_result_joint": (c_int, handle, c_void_p),
        "kdr3_predict": (c_int, POINTER(Fitted), POINTER(Rows), POINTER(Rows), c_int, c_void_p, c_void_p),
        "kdr3_result_test": (c_int, handle, c_size_t, c_int, POINTER(Test)),
        "kdr3_result_replicates": (c_int, handle, sizes, sizes, c_void_p),
        "kdr3_result_document": (c_char_p, handle, c_int),
        "kdr3_result_warning": (c_char_p, handle, c_size_t),
        "kdr3_result_free": (None, handle),
        "kdr3_pvalue": (c_double, c_int, c_double, c_double, c_double),
    }
    for name, (result, *arguments) in signatures.items():
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments
    return library


library = _declare(_open())
RAISED = ctypes.cast(library.kdr3_raised, c_void_p).value  # a stop function whose state is an int


# Options of the command line and keywords of its files, in its sentences: the arguments here.
OPTION = re.compile(r"(?:(?<=\s)|^)-(family|engine|points|trials|exposure|offset|weights[123]|missing|cases)\b")
WORDS = {"cases": "cases=True"}
KEYWORD = re.compile(r"\b(LIKELIHOOD:REML|DDF:KENWARDROGER|DDF:|ROBUST:CR2|PROFILE:|AGQDERIVLEVEL:1|AGQNODES:FIXED|FIXSIGMA2:1\.0)")
ARGUMENTS = {"LIKELIHOOD:REML": "reml=True", "DDF:KENWARDROGER": 'ddf="kenward-roger"', "DDF:": "ddf", "ROBUST:CR2": "the setting CR2",
             "PROFILE:": "the setting PROFILE", "AGQDERIVLEVEL:1": "the setting AGQDERIVLEVEL", "AGQNODES:FIXED": "the setting AGQNODESFIXED",
             "FIXSIGMA2:1.0": "the setting FIXSIGMA2 at 1"}


def check(status: int) -> None:
    """Raises what a call was refused with."""
    if status == ERROR:
        sentence, *place = library.kdr3_message().decode("utf-8", "replace").split("\n", 1)
        sentence = KEYWORD.sub(lambda found: ARGUMENTS[found[1]], sentence)
        raise KDR3Error("\n".join([OPTION.sub(lambda found: WORDS.get(found[1], found[1]), sentence), *place]))


def encoded(text: str) -> bytes:
    """A text as the library takes it, which ends at a NUL."""
    if "\0" in text:
        raise KDR3Error(f"A NUL character stands in {text!r}.")
    try:
        return text.encode()
    except UnicodeEncodeError:
        raise KDR3Error(f"A character that is no Unicode stands in {text!r}.") from None


def whole(name: str, value) -> int:
    """An argument that is a whole number."""
    try:
        return operator.index(value)
    except TypeError:
        raise KDR3Error(f"{name} is a whole number. It cannot be {value!r}.") from None


def texts(function, handle, *first) -> list[str]:
    """All texts that a function hands out by number."""
    found: list[str] = []
    while (text := function(handle, *first, len(found))) is not None:
        found.append(text.decode("utf-8", "replace"))
    return found


def tell(sentence: str) -> None:
    """A warning at the place of the call into the package."""
    level, frame = 1, __import__("sys")._getframe(1)
    while frame is not None and frame.f_globals.get("__name__", "").split(".")[0] == "kdr3":
        level, frame = level + 1, frame.f_back
    warnings.warn(sentence, KDR3Warning, stacklevel=level + 1)


class Handle:
    """A handle that is freed with the object."""

    def __init__(self, free):
        self.pointer, self._free = c_void_p(), free

    def __del__(self):
        if self.pointer:
            self._free(self.pointer)
            self.pointer = c_void_p()


def address(array):
    """The address of a contiguous array, or null."""
    return None if array is None else array.ctypes.data


def pvalue(kind: int, statistic: float, df1: float, df2: float = float("nan")) -> float:
    return library.kdr3_pvalue(kind, statistic, df1, df2)
