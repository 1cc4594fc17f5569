"""Ordinal outcomes by quadrature and Laplace: against ordinal::clmm, integrals of the test's own, and binary outcomes.

    ordinal_test.py <program>
"""
import json
import pathlib
import sys
import tempfile

import numpy as np

from categoryfits import Fits, numbers, phase
from program import REFERENCE, run

sys.path.insert(0, str(REFERENCE))
import movingstudies

fits = Fits(sys.argv[1])
check = fits.check


def clmm():
    lines = [line.split() for line in (REFERENCE / "ordinalclmm.out").read_text().splitlines()]
    for outcome, categories in (("YORD3", 3), ("YORD5", 5)):
        code, said, document = fits.fit(f"ORDINAL,{categories}", outcome, "AGQ:Y,50,1", words=("-strict",))
        check.equal(outcome + " code", code, 0)
        value, taus, gamma, errors = numbers(phase(document))
        want = lambda what: [[float(x) for x in line[2:]] for line in lines if line[:2] == [outcome, what]]
        check.near(outcome + " log-likelihood", value, want("loglik")[0][0], 1e-4)
        for i, (b, se) in enumerate(want("gamma")):
            check.near(f"{outcome} gamma {i}", gamma[i], b, 0.002 * se)
            check.near(f"{outcome} s.e. {i}", errors[i], se, 0.001 * se)
        for tau, right in zip(taus, want("taus")[0]):
            check.near(outcome + " tau", tau, right, 0.002 * right)
        p = phase(document)
        parameters = 2 + len(gamma)
        check.equal(outcome + " parameters", p["parameters"], parameters)
        check.near(outcome + " AIC", p["aic"], -2 * value + 2 * parameters, 1e-6)
        check.near(outcome + " BIC", p["bic"], -2 * value + np.log(1060) * parameters, 1e-6)
        labels = [(r["level1"], r["threshold"]) for r in p["fixed_effects"]]
        check.equal(outcome + " labels", labels, [("INTRCPT1", False), ("X1", False), ("X2", False)] +
                    [(f"THOLD{c}", True) for c in range(2, categories)])
        report = (fits.folder / "s.txt").read_text()
        tables = report[report.index("ADAPTIVE GAUSSIAN QUADRATURE"):]
        check.equal(outcome + " report", tables.count("For         THOLD2") > 0, True)
        check.equal(outcome + " method", "full maximum likelihood via first-order Laplace" in report, True)


def studies():
    """Skewed and rare categories, slopes, variances at the edge: seven categories of 29 records, one record in a category of
    103, odd units."""
    for seed in (17, 24, 27, 32):
        line, verdict = movingstudies.one(fits.program, seed, "AUTO", "", "ordinal")
        check.equal(line, verdict, "right")


def alone():
    """A category of one record, which quasi-likelihood cannot do with: the engine begins from a regression."""
    outcome, q, r, rows = movingstudies.study(99, "ordinal")
    with tempfile.TemporaryDirectory() as folder:
        movingstudies.write(folder, outcome, q, r, rows, "AGQ:Y,100,1")
        run(fits.program, folder, "-r", "s.mdmt")
        code, said = run(fits.program, folder, "-results", "s.json", "s.mdm", "s.kdr")
        document, report = json.loads((made := pathlib.Path(folder, "s.json")).read_text()), made.with_suffix(".txt").read_text()
    check.equal("alone", (code, [p["phase"] for p in document["phases"]]), (0, ["quadrature"]))
    lost = "quasi-likelihood (PQL) has no estimates. It ended at macro iteration 9: The level-1 weight matrix is near singular."
    check.equal("alone, told", [words.count("near singular") for words in (document["warnings"][0], report)], [1, 1])
    check(lost in document["warnings"][0] and lost in report, document["warnings"])
    check(phase(document)["converged"], "alone: converged")


def repeats():
    first = fits.fit("ORDINAL,5", "YORD5", "AGQ:Y,50,7", random=("X1",))[2]
    fits.again(first)
    check.equal("points", phase(first)["points"], 7)


def refusals():
    ordinal, five = ("ORDINAL,3", "YORD3"), dict(predictors=("YPOIS", "X1", "X2", "W1"), random=("YPOIS", "X1", "X2", "W1"))
    fits.refused(*ordinal, "AGQ:Y,40,7", "7 points for 5 and 1 effects would be 117649 nodes. One point, AGQ:Y,40,1", **five)
    fits.refused(*ordinal, "AGQ:Y,40,AUTO", "5 points for 5 and 1 effects would be 15625 nodes", **five)
    fits.refused(*ordinal, "AGQ:Y,40,7\nAGQNODES:FIXED", "AGQNODES:FIXED is for Bernoulli, binomial and Poisson outcomes.", **five)
    fits.refused(*ordinal, "LAPLACE:Y,20", "may only be done on Bernoulli", **five)
    fits.refused(*ordinal, "AGQ:Y,40,1", "constrained thresholds cannot go on to adaptive quadrature", more="CONSTRAIN:0,1,0,0,0,1\n", **five)
    fits.refused("ORDINAL,4", "YORD3", "AGQ:Y,40,1", "There are less than the specified 4 categories")  # that no record has


fits.twoarebinary("ORDINAL")
for job in (clmm, studies, alone, repeats, refusals):
    job()
check.finish()
