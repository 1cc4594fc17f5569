"""Runs docs/python.md: its blocks of Python in their order, in one session in a copy of examples/growth with the other
examples beside it. A block of text behind one is what that prints.

    test_page.py <program> <folder of the source tree>     with PYTHONPATH and KDR3_LIBRARY set
"""
import contextlib
import io
import os
import pathlib
import re
import shutil
import sys
import tempfile
import warnings

TREE = pathlib.Path(sys.argv[2]).resolve()
warnings.simplefilter("ignore")


def trimmed(text):
    return "\n".join(line.rstrip() for line in text.strip("\n").splitlines())


def main():
    page = (TREE / "docs" / "python.md").read_text()
    blocks = re.findall(r"^```(\S+)[^\n]*\n(.*?)^```", page, re.M | re.S)
    session, said, failed = {}, "", 0
    for kind, text in blocks:
        if kind == "python":
            made = io.StringIO()
            with contextlib.redirect_stdout(made):
                exec(compile(text, "docs/python.md", "exec"), session)
            said = made.getvalue()
        elif trimmed(text) != trimmed(said):
            failed += 1
            print(f"The page says\n{trimmed(text)}\nand the package\n{trimmed(said)}\n")
    print(f"{len(blocks)} blocks, {failed} failed")
    return failed > 0


with tempfile.TemporaryDirectory() as place:
    shutil.copytree(TREE / "examples", f"{place}/examples")
    os.chdir(f"{place}/examples/growth")
    try:
        import matplotlib  # noqa: F401: of the pictures
        import pandas
        pandas.set_option("display.width", 120)
    except ImportError:
        print("No pandas or matplotlib: the page is not run")
        sys.exit(0)
    sys.exit(main())
