"""The results document of a model, as kdr3plot reads it."""
from __future__ import annotations

import json
from typing import Any, Sequence

from . import _library as lib
from .kdr3plot import document

document.hears = lib.tell  # its warnings


def documentof(m) -> dict[str, Any]:
    """A copy of the document of a result, with the names that its effects are shown by."""
    return document.understood(categorised(json.loads(m._state["document"]), m.levels), "the result")


def categorised(part, levels: Sequence[str]):
    """A document whose categories, which the library has as numbers, are called by the names of the outcome's values."""
    if isinstance(part, list):
        return [categorised(one, levels) for one in part]
    if not levels or not isinstance(part, dict):
        return part
    made = {name: categorised(one, levels) for name, one in part.items()}
    if made.get("category"):
        made["category"] = levels[int(made["category"]) - 1]
    if made.get("categories"):
        made["categories"] = list(levels)
    return made
