#!/usr/bin/env python3
"""Nested models on the random studies of movingstudies.py, most of them with variances at an edge.

Each study is fitted with one and with two random effects at each level, by the same number of points. A model that holds
another has no lower log-likelihood, and where an effect's variance comes out as 0 its log-likelihood is that of the model
without the effect. A correlation of 1 and a variance of 0 show as `at_edge` or as a determinant of 0.

  nestedstudies.py PROGRAM FIRST LAST [POINTS]     POINTS: 11, if not given
"""
import json
import os
import subprocess
import sys
import tempfile

import numpy as np

import movingstudies
from movingstudies import run

MODELS = [(1, 1), (2, 1), (1, 2), (2, 2)]


def fit(program, outcome, q, r, rows, points):
    with tempfile.TemporaryDirectory() as folder:
        movingstudies.write(folder, outcome, q, r, rows, points)
        code, said = run(program, folder, "-r", "s.mdmt")
        if code:
            return None
        code, said = run(program, folder, "-results", "s.json", "s.mdm", "s.kdr")
        if code:
            return None
        with open(f"{folder}/s.json") as file:
            document = json.load(file)
    for phase in document["phases"]:
        if phase["phase"] == "quadrature":
            return phase
    return None


def zeros(phase):
    """Whether the slope's variance is 0 at level 2, at level 3; or, with intercepts alone, theirs."""
    return [phase[tau]["estimate"][-1][-1] == 0 for tau in ("tau_pi", "tau_beta")]


def main(program, first, last, points="11"):
    counts = {"pairs": 0, "equal": 0, "edges": 0, "lost": 0, "lower": 0, "unequal": 0, "told": 0}
    for seed in range(int(first), int(last) + 1):
        outcome, _, _, rows = movingstudies.study(seed)
        fits = {m: fit(os.path.abspath(program), outcome, *m, rows, points) for m in MODELS}
        counts["lost"] += sum(f is None for f in fits.values())
        for smaller, larger, level in [((1, 1), (2, 1), 0), ((1, 1), (1, 2), 1), ((2, 1), (2, 2), 1), ((1, 2), (2, 2), 0)]:
            a, b = fits[smaller], fits[larger]
            if a is None or b is None:
                continue
            gain = b["marginal_log_likelihood"] - a["marginal_log_likelihood"]
            counts["pairs"] += 1
            slope, whole = zeros(b)[level], b["tau_pi" if level == 0 else "tau_beta"]["estimate"]
            edge = slope or any(sum(b["tau_pi"]["at_edge"] + b["tau_beta"]["at_edge"], []))
            counts["edges"] += edge
            said = "" if a["converged"] and b["converged"] and not (a["warnings"] or b["warnings"]) else ", told"
            if slope:
                counts["equal"] += 1
            if gain < -1e-4 or slope and abs(gain) > 1e-4:
                counts["told" if said else "lower" if gain < 0 else "unequal"] += 1
                print(f"{seed:4d} {outcome:9s} {smaller} in {larger}: {gain:+.5f}, taus {np.array(whole).tolist()}{said}"
                      + "".join(f"\n     {w}" for w in a["warnings"] + b["warnings"]), flush=True)
    print(", ".join(f"{value} {name}" for name, value in counts.items()))


if __name__ == "__main__":
    main(*sys.argv[1:])
