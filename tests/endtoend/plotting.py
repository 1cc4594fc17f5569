"""kdr3-plot called inside the process of a test."""
import contextlib
import io
import os
import sys

from program import ROOT

sys.path.insert(0, str(ROOT / "tools"))
from kdr3plot import command


def kdr3plot(folder, *words):
    """Exit code and standard error of a call in this folder."""
    told, before = io.StringIO(), os.getcwd()
    os.chdir(folder)
    try:
        with contextlib.redirect_stderr(told):
            code = command.main(list(words))
    except SystemExit as end:
        code = end.code
    finally:
        os.chdir(before)
    return code, told.getvalue()
