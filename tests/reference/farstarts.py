#!/usr/bin/env python3
"""Whole runs of the program whose quasi-likelihood is far from the maximum: made Bernoulli data with small units and large
variances (standard deviations of 2 to 3), 40 level-3 units with 3 to 8 level-2 units of 2 to 6 records, intercepts
random at both levels, in every tenth set also a slope at level 2. What quadrature makes of each set, beside the maximum
by densequadrature.py.

  farstarts.py PROGRAM SETS [POINTS]      one line a set; POINTS for each effect, 15 if not given
"""
import os
import re
import subprocess
import sys
import tempfile
import numpy as np
import densequadrature as dense

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "endtoend"))
import report
from program import NOFEATURES, NOFILES, fixedtext

MODEL = """NONLIN:BERNOULLI
MACROIT:100,N
MICROIT:200
AGQ:Y,300,%d
LEVEL1:Y=INTRCPT1+X+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2%s/
LEVEL3:INTRCPT2=INTRCPT3/
TITLE:far
OUTPUT:f.txt
FULLOUTPUT:N
""" + NOFILES + NOFEATURES


def make(folder, number):
    """The records of a set: level-3 unit, level-2 unit, y, x; and the parameters that made them."""
    rng = np.random.default_rng(2000 + number)
    q, units2, records = 1 + (number % 10 == 9), 3 + number % 6, 2 + number % 5
    s2, s3 = 2 + 0.02 * number, 3 - 0.02 * number
    rows, two, three = [], [], []
    for k in range(40):
        three.append((k, 0))
        v = s3 * rng.normal()
        for j in range(units2):
            two.append((k, j, 0))
            u, slope = s2 * rng.normal(), (q - 1) * rng.normal()
            for _ in range(records):
                x = round(rng.normal(), 3)
                y = int(rng.random() < 1 / (1 + np.exp(-(0.5 + v + u + (0.5 + slope) * x))))
                rows.append((k, j, y, x))
    fixedtext(folder, (rows, two, three), "%8.3f", (["Y", "X"], ["W"], ["Z"]), "f.mdm")
    truth = [s2 * s2] + [0, 1] * (q - 1) + [s3 * s3, 0.5, 0.5]
    return np.array(rows), np.array(truth), q


def one(program, folder, number, points):
    rows, truth, q = make(folder, number)
    with open(f"{folder}/f.kdr", "w") as file:
        file.write(MODEL % (points, "+RANDOM" if q == 2 else ""))
    subprocess.run([program, "-q", "-r", "f.mdmt"], cwd=folder, stdout=subprocess.PIPE, check=True)
    said = subprocess.run([program, "f.mdm", "f.kdr"], cwd=folder, stdout=subprocess.PIPE, text=True, check=True).stdout
    text = report.read(f"{folder}/f.txt").text
    warnings = re.findall(r"(?m)^(?:WARNING: .*|Unable to compute (?:AGQ|adaptive).*|The run goes on.*)$", text)
    warnings = [w for w in warnings if "macro iterations" not in w]
    r = report.splitsections(text)
    quasi, found = r["unit-specific"], r.get("quadrature")
    start = "PQL %.2f %.2f" % (quasi.taupi[0][0], quasi.taubeta[0][0])
    here = (f"{number:2d} q {q}, {len(rows)} records, sigma {truth[0] ** 0.5:.2f} {truth[-3] ** 0.5:.2f}, {start}: ")
    if found is None:
        return here + "no result", "failed with a message" if warnings else "failed without a word", warnings
    lower = lambda t: [t[a][b] for a in range(len(t)) for b in range(a + 1)]
    theta = np.array(lower(found.taupi) + lower(found.taubeta) + [row.coefficient for row in found.fixed["final"].rows])
    errors = [lower(t) if t else [np.nan] for t in (found.setaupi, found.setaubeta)]
    se = np.array(errors[0] + errors[1] + [row.se for row in found.fixed["final"].rows])
    marginal = float(re.search(r"The marginal log-likelihood = (\S+)", said)[1])
    one = np.ones((len(rows), 1))
    both = np.hstack([one, rows[:, 3:4]])
    data = dense.Data("bernoulli", rows[:, 0].astype(int), rows[:, 1].astype(int), rows[:, 2], one[:, 0], both, both[:, :q], one)
    best, highest, _ = dense.maximise(data, truth, (11, 11), 2e-2)
    apart = np.max(np.abs(theta - best) / se) if len(se) == len(theta) else np.nan
    iterations = len(re.findall("AGQ iteration", said))
    here += f"{iterations} iterations, taus {theta[0]:.3f} {theta[-3]:.3f} (maximum {best[0]:.3f} {best[-3]:.3f}), "
    here += f"log-likelihood {marginal:.4f} ({highest:.4f}), {apart:.3f} se apart"
    return here, "warned" if warnings else "same maximum" if apart < 0.1 else "elsewhere", warnings


def main(program, sets, points=15):
    outcomes = []
    print(f"# farstarts.py PROGRAM {sets} {points}")
    for number in range(sets):
        with tempfile.TemporaryDirectory() as folder:
            line, outcome, warnings = one(os.path.abspath(program), folder, number, points)
        outcomes.append(outcome)
        print(f"{line}: {outcome}", flush=True)
        for warning in warnings:
            print("    " + warning, flush=True)
    print(f"{sets} sets:", ", ".join(f"{outcomes.count(o)} {o}" for o in sorted(set(outcomes))))


if __name__ == "__main__":
    main(sys.argv[1], *map(int, sys.argv[2:]))
