"""Mixed models of two and three levels by maximum likelihood, for normal, binary, count, ordinal and nominal outcomes.

    import kdr3
    m = kdr3.fit("score ~ year + (year | school/pupil)", df)
    print(m.summary())
"""
import pathlib

HERE = pathlib.Path(__file__).resolve().parent
if not (HERE / "kdr3plot").is_dir():  # installed it is inside; in the source tree, or its tarball, it is kdr3-plot's
    __path__ += [str(place) for place in (HERE.parents[1] / "tools", HERE.parent / "library" / "tools") if (place / "kdr3plot").is_dir()]

from ._fit import fit  # noqa: E402: its modules find kdr3plot by the lines above
from ._library import VERSION as __version__
from ._library import KDR3Error, KDR3Warning
from .bootstrap import Bootstrap
from .compare import anova
from .pooled import Pooled
from .results import Results, load

__all__ = ["Bootstrap", "KDR3Error", "KDR3Warning", "Pooled", "Results", "anova", "fit", "load", "__version__"]
