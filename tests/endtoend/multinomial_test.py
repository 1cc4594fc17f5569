"""Multinomial outcomes by quadrature and Laplace: binary outcomes, labels and counts of the report, repeated runs, refusals, and
random studies against integrals of the test's own.

    multinomial_test.py <program>
"""
import json
import sys

import numpy as np

from categoryfits import Fits, numbers, phase
from program import REFERENCE, run

sys.path.insert(0, str(REFERENCE))
import multinomialstudies

fits = Fits(sys.argv[1])
check = fits.check


def three():
    """Labels, criteria, and the same numbers from newcmd.kdr."""
    code, _, document = fits.fit("MULTINOMIAL,3", "YMUL3", "AGQ:Y,50,5")
    p = phase(document)
    check.equal("three", (code, p["converged"], p["parameters"]), (0, True, 12))
    value = numbers(p)[0]
    check.near("AIC", p["aic"], -2 * value + 24, 1e-6)
    check.near("BIC", p["bic"], -2 * value + np.log(1060) * 12, 1e-6)
    pql = next(q for q in document["phases"] if q["phase"] == "pql")
    labels = [[(r["category"], r["level1"]) for r in q["fixed_effects"]] for q in (p, pql)]
    check.equal("labels", labels[0], labels[1])
    check.equal("categories", len({c for c, _ in labels[0]}), 2)
    check(all(e for e in sum(p["tau_pi"]["standard_error"], [])), "standard errors of tau(pi)")
    report = (fits.folder / "s.txt").read_text()
    tables = report[report.index("ADAPTIVE GAUSSIAN QUADRATURE"):]
    for words in ("For Category", "Standard errors of tau(pi)", "Odds"):
        check(words in tables, words)
    fits.again(document)


def refusals():
    three, four = ("MULTINOMIAL,3", "YMUL3"), ("MULTINOMIAL,4", "YMUL3")
    fits.refused(*three, "AGQ:Y,40,7", "7 points for 6 and 2 effects would be 5764801 nodes. One point, AGQ:Y,40,1", random=("X1", "X2"))
    fits.refused(*three, "AGQ:Y,40,7\nAGQNODES:FIXED", "AGQNODES:FIXED is for Bernoulli, binomial and Poisson outcomes.")
    fits.refused(*three, "LAPLACE:Y,20", "may only be done on Bernoulli")
    fits.refused(*four, "AGQ:Y,40,1", "There are less than the specified 4 categories")


def rare():
    """Of 573 records in 58 units one of each rare category: the likelihood has its maximum at variances near 0, the Laplace
    approximation one at 62 and 175, which console, report and document say is in doubt. Five points find the former."""
    rows = ["k,j,y"] + [f"{i // 60},{i // 10},{1 + (i == 137) + 2 * (i == 402)}" for i in range(573)]
    (fits.folder / "rare.csv").write_text("\n".join(rows) + "\n")
    for points, doubtful in ((1, True), (5, False)):
        code, said = run(fits.program, fits.folder, "-fit", "y ~ 1 + (1 | k/j)", "rare.csv", "-family", "multinomial", "-engine", "quadrature", "-points",
                         str(points), "-strict", "-o", "rare")
        made = json.loads((fits.folder / "rare.json").read_text())
        of, words = phase(made), "a random effect has a standard deviation of 13.2 on the scale of the linear predictor"
        places = (said, (fits.folder / "rare.txt").read_text(), *made["warnings"], *of["warnings"])
        check(code == 20 * doubtful and sum(words in place for place in places) == 4 * doubtful, f"rare, {points} points: {code}, {places[2:]}")
        check((of["ending"], of["converged"], made["converged"]) == (("doubtful", False, False) if doubtful else ("converged", True, True)),
              f"rare, {points} points: {of['ending']}")
        check((of["tau_pi"]["estimate"][0][0] > 50) == doubtful, f"rare, {points} points: {of['tau_pi']['estimate']}")


def studies():
    for seed, points in ((15, "AUTO"), (4, "1"), (6, "1")):
        line, verdict = multinomialstudies.one(fits.program, seed, points)
        check.equal(line, verdict, "right")


fits.twoarebinary("MULTINOMIAL")
for job in (three, rare, refusals, studies):
    job()
check.finish()
