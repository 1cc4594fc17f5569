"""A model in words and tables."""
from __future__ import annotations

import html
import math

from ._frames import table


class Summary:
    """A model in words."""

    def __init__(self, formula: str, about, fixed, random, warnings: list[str]):
        self.formula, self.about, self.fixed, self.random, self.warnings = formula, about, fixed, random, warnings

    def as_text(self) -> str:
        """As it is printed."""
        width = max(len(name) for name, _ in self.about)
        parts = [self.formula, "\n".join(f"{name:{width}}  {value}" for name, value in self.about), table(*self.fixed),
                 table(*self.random), *(f"Warning: {words}" for words in self.warnings)]
        return "\n\n".join(parts)

    __str__ = __repr__ = as_text

    def as_html(self) -> str:
        """As a notebook shows it; texts of the data are escaped."""
        def rows(head, body):
            top = "".join(f"<th style='text-align:{'left' if c == 0 else 'right'}'>{html.escape(x)}</th>" for c, x in enumerate(head))
            lines = "".join("<tr>" + "".join(f"<td style='text-align:{'left' if c == 0 else 'right'}'>{html.escape(x)}</td>"
                                             for c, x in enumerate(row)) + "</tr>" for row in body)
            return f"<thead><tr>{top}</tr></thead><tbody>{lines}</tbody>"
        about = "".join(f"<tr><th style='text-align:left'>{html.escape(n)}</th><td style='text-align:left'>{html.escape(v)}</td></tr>"
                        for n, v in self.about)
        tables = "".join(f"<div style='overflow-x:auto'><table>{one}</table></div>" for one in (about, rows(*self.fixed), rows(*self.random)))
        words = "".join(f"<p><strong>Warning:</strong> {html.escape(w)}</p>" for w in self.warnings)
        return ("<div style='display:grid;grid-template-columns:minmax(0,1fr)'>"  # as wide as the page: what is wider scrolls
                f"<p><code style='overflow-wrap:anywhere'>{html.escape(self.formula)}</code></p>{tables}{words}</div>")

    _repr_html_ = as_html


def degrees(df: float) -> str:
    return "" if math.isinf(df) else f"{df:.0f}" if df == int(df) else f"{df:.1f}"


def probability(p: float) -> str:
    return "" if math.isnan(p) else "<0.001" if p < 0.0005 else f"{p:.3f}"
