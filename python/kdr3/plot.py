"""Pictures of a result, with matplotlib. Each method returns the figure, which a notebook shows."""
from __future__ import annotations

import io

import numpy as np

from ._library import KDR3Error


def _picture(**given):
    """A figure that a notebook shows by itself, whatever it has been told about matplotlib."""
    try:
        from matplotlib.figure import Figure
    except ImportError:
        raise ImportError("Pictures need matplotlib.") from None

    class Picture(Figure):
        def _repr_png_(self):
            made = io.BytesIO()
            self.savefig(made, format="png", dpi=100)
            return made.getvalue()

    return Picture(**given)


class Plots:
    """plot.residuals(), plot.qq(), plot.effects(), plot.coefficients() of a result."""

    def __init__(self, results):
        self._m = results

    def _axes(self, panels: int = 1, height: float = 4.0):
        wide = min(panels, 3)
        deep = -(-panels // wide)
        figure = _picture(figsize=(5.5 * wide, height * deep), layout="constrained")
        axes = np.ravel(figure.subplots(deep, wide))
        for empty in axes[panels:]:
            empty.set_axis_off()
        return figure, axes[:panels]

    def residuals(self):
        """Pearson residuals against the fitted values."""
        figure, (axes,) = self._axes()
        axes.axhline(0, color="0.6", linewidth=0.8)
        axes.plot(np.asarray(self._m.fittedvalues), np.asarray(self._m.residuals("pearson")), ".", markersize=3, alpha=0.5)
        axes.set(xlabel="fitted", ylabel="Pearson residual", title=self._m.outcome)
        return figure

    def qq(self):
        """Quantiles of the residuals and of each random effect against those of the standard normal."""
        from statistics import NormalDist
        panels = [("residuals", np.asarray(self._m.residuals("pearson")))] if self._m.family == "gaussian" else []
        for (group, values), names in zip(self._m.random_effects.items(), [n for n in self._m._random if n]):
            panels += [(f"{group}: {name}", np.asarray(values)[:, i]) for i, name in enumerate(names)]
        figure, axes = self._axes(len(panels))
        for place, (title, values) in zip(axes, panels):
            values = np.sort((values - values.mean()) / (values.std() or 1.0))
            shares = (np.arange(len(values)) + 0.5) / len(values)
            normal = np.array([NormalDist().inv_cdf(share) for share in shares])
            place.plot(normal, normal, color="0.6", linewidth=0.8)
            place.plot(normal, values, ".", markersize=3)
            place.set(xlabel="normal quantile", ylabel="standardised", title=title)
        return figure

    def effects(self, group: str | None = None, term: str | None = None, alpha: float = 0.05):
        """The predicted random effects of the units in their order, with intervals by their posterior variances: of the
        highest level and the first effect unless others are named."""
        from statistics import NormalDist
        found = self._m.random_effects
        group = group if group is not None else list(found)[-1]
        if group not in found:
            raise KDR3Error(f"There are no random effects of {group}, but of {', '.join(found)}.")
        names = dict(zip(self._m._groupings, self._m._random))[group]
        if term is not None and term not in names:
            raise KDR3Error(f"{group} has no random effect {term}, but {', '.join(names)}.")
        i = names.index(term) if term is not None else 0
        values = np.asarray(found[group])[:, i]
        half = NormalDist().inv_cdf(1 - alpha / 2) * np.sqrt(self._m.random_effects_cov[group][:, i, i])
        order = np.argsort(values)
        figure, (axes,) = self._axes()
        axes.axhline(0, color="0.6", linewidth=0.8)
        axes.errorbar(np.arange(len(values)), values[order], yerr=half[order], fmt=".", markersize=3, linewidth=0.6)
        axes.set(xlabel=f"{group}, in order", ylabel=names[i], title=f"{self._m.outcome}: {group}")
        return figure

    def coefficients(self, alpha: float = 0.05, intercept: bool = False, robust: bool = False):
        """The fixed effects with their intervals."""
        places = [i for i, name in enumerate(self._m._names) if intercept or name != "(Intercept)"]
        bounds = np.asarray(self._m.conf_int(alpha, robust))[places]
        values = np.asarray(self._m.params)[places]
        figure, (axes,) = self._axes(height=1.0 + 0.4 * len(places))
        axes.axvline(0, color="0.6", linewidth=0.8)
        down = np.arange(len(places))[::-1]
        axes.errorbar(values, down, xerr=[values - bounds[:, 0], bounds[:, 1] - values], fmt="o", markersize=4)
        axes.set(yticks=down, yticklabels=[self._m._names[i] for i in places], title=self._m.outcome)
        return figure
