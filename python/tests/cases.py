"""The models of tests/reference/samecases.txt through the package, printed with 12 digits as C and R print them.

    cases.py <folder of references>
"""
import csv
import pathlib
import sys
import warnings

import numpy as np

import kdr3


def read(path):
    """Columns of numbers where all fields are, else of texts."""
    with open(path, newline="") as file:
        head, *rows = csv.reader(file)
    columns = {}
    for name, values in zip(head, zip(*rows)):
        try:
            columns[name] = np.array([float(x) if x else np.nan for x in values])
        except ValueError:
            columns[name] = np.array([x or None for x in values], dtype=object)
    return columns


def lines(folder):
    for line in (folder / "samecases.txt").read_text().splitlines():
        if line.startswith("#"):
            continue
        name, data, formula, *options = line.split("\t")
        given = dict(option.split("=") for option in options)
        settings = {key: float(given.pop(key)) for key in list(given) if key.isupper()}
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", kdr3.KDR3Warning)
            m = kdr3.fit(formula, read(folder / "formulas" / data), settings=settings, **given)
        yield name
        units = [*m.ngroups.values(), 0][:2]
        yield f"records {m.nobs} units {units[0]} {units[1]}"
        if m.llf == m.llf:
            yield f"loglikelihood {m.llf:.12g}"
        for effect, b, v in zip(m._names, np.asarray(m.params), np.diag(np.asarray(m.cov_params()))):
            yield f"{effect} {b:.12g} {v:.12g}"
        for level, group in enumerate(m.ngroups, 2):
            tau = np.asarray(m.cov_re.get(group, np.empty((0, 0))))
            yield from (f"level{level} {i + 1} {j + 1} {tau[i, j]:.12g}" for i in range(len(tau)) for j in range(i + 1))
        yield f"sigma2 {m.scale:.12g}"


if __name__ == "__main__":
    print(*lines(pathlib.Path(sys.argv[1])), sep="\n")
