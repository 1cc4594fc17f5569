"""Mixed models of two and three levels by maximum likelihood, for normal, binary, count, ordinal and nominal outcomes.

    import kdr3
    m = kdr3.fit("score ~ year + (year | school/pupil)", df)
    print(m.summary())
"""
from ._fit import fit
from ._library import VERSION as __version__
from ._library import KDR3Error, KDR3Warning
from .pooled import Pooled
from .results import Bootstrap, Results, anova, load

__all__ = ["Bootstrap", "KDR3Error", "KDR3Warning", "Pooled", "Results", "anova", "fit", "load", "__version__"]
