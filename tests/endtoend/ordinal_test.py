"""Ordinal outcomes by quadrature and Laplace: against ordinal::clmm, integrals of the test's own, and binary outcomes.

    ordinal_test.py <program>
"""
import json
import os
import pathlib
import sys
import tempfile

import numpy as np

from program import NOFEATURES, NOFILES, REFERENCE, Checks, madefolder, run

sys.path.insert(0, str(REFERENCE))
import movingstudies

PROGRAM = os.path.abspath(sys.argv[1])
check = Checks()
FOLDER = pathlib.Path(madefolder(PROGRAM, REFERENCE / "nonlinear", "nonlin.mdmt"))


def fit(kind, outcome, engine, thresholds=0, predictors=("X1", "X2"), random=(), more="", name="s", strict=()):
    """Exit code, what was said, and the results document."""
    cuts = "".join(f"+THOLD{c}" for c in range(2, 2 + thresholds))
    slope = lambda x: "+RANDOM" if x in random else ""
    (FOLDER / f"{name}.kdr").write_text(
        f"NONLIN:{kind}\nMACROIT:100,N\nMICROIT:100\n{engine}\n"
        f"LEVEL1:{outcome}=INTRCPT1{''.join('+' + x for x in predictors)}{cuts}+RANDOM\n"
        "LEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"
        + "".join(f"LEVEL2:{x}=INTRCPT2{slope(x)}/\nLEVEL3:INTRCPT2=INTRCPT3/\n" for x in predictors)
        + f"{more}OUTPUT:{name}.txt\n" + NOFILES + NOFEATURES)
    return again(f"{name}.kdr", name, strict)


def again(command, name, strict=()):
    (FOLDER / f"{name}.json").unlink(missing_ok=True)
    code, said = run(PROGRAM, FOLDER, "-results", f"{name}.json", *strict, "nonlin.mdm", command)
    made = FOLDER / f"{name}.json"
    return code, said, json.loads(made.read_text()) if made.exists() else None


def phase(document):
    return next(p for p in document["phases"] if p["phase"] == "quadrature")


def numbers(p):
    """Log-likelihood, variances, coefficients, standard errors."""
    rows = p["fixed_effects"]
    return (p["marginal_log_likelihood"], [p[t]["estimate"][0][0] for t in ("tau_pi", "tau_beta")], [r["estimate"] for r in rows],
            [r["model_based"]["standard_error"] for r in rows])


def clmm():
    lines = [line.split() for line in (REFERENCE / "ordinalclmm.out").read_text().splitlines()]
    for outcome, categories in (("YORD3", 3), ("YORD5", 5)):
        code, said, document = fit(f"ORDINAL,{categories}", outcome, "AGQ:Y,50,1", categories - 2, strict=("-strict",))
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
        report = (FOLDER / "s.txt").read_text()
        tables = report[report.index("ADAPTIVE GAUSSIAN QUADRATURE"):]
        check.equal(outcome + " report", tables.count("For         THOLD2") > 0, True)
        check.equal(outcome + " method", "full maximum likelihood via first-order Laplace" in report, True)


def two():
    """Two categories are a binary outcome with the signs turned."""
    for random, points in (((), "1"), (("X1",), "7"), ((), "AUTO")):
        ordinal = fit("ORDINAL,2", "YBERN", f"AGQ:Y,50,{points}", random=random)[2]
        binary = fit("BERNOULLI", "YBERN", f"AGQ:Y,50,{points}", random=random, more="FIXSIGMA2:1\n")[2]
        a, b = numbers(phase(ordinal)), numbers(phase(binary))
        check.near(f"two, {points}", a[0], b[0], 1e-6)
        for x, y, se in zip(a[2], b[2], b[3]):
            check.near(f"two, {points}: coefficient", x, -y, 1e-3 * se)
        for x, y in zip(a[1] + a[3], b[1] + b[3]):
            check.near(f"two, {points}: taus and errors", x, y, 1e-4 * y)


def studies():
    """Skewed and rare categories, slopes, variances at the edge: seven categories of 29 records, one record in a category of
    103, odd units."""
    for seed in (17, 24, 27, 32):
        line, verdict = movingstudies.one(PROGRAM, seed, "AUTO", "", "ordinal")
        check.equal(line, verdict, "right")


def alone():
    """A category of one record, which quasi-likelihood cannot do with: the engine begins from a regression."""
    outcome, q, r, rows = movingstudies.study(99, "ordinal")
    with tempfile.TemporaryDirectory() as folder:
        movingstudies.write(folder, outcome, q, r, rows, "AGQ:Y,100,1")
        run(PROGRAM, folder, "-r", "s.mdmt")
        code, said = run(PROGRAM, folder, "-results", "s.json", "s.mdm", "s.kdr")
        document, report = json.loads((made := pathlib.Path(folder, "s.json")).read_text()), made.with_suffix(".txt").read_text()
    check.equal("alone", (code, [p["phase"] for p in document["phases"]]), (0, ["quadrature"]))
    lost = "quasi-likelihood (PQL) has no estimates. It ended at macro iteration 9: The level-1 weight matrix is near singular."
    check.equal("alone, told", [words.count("near singular") for words in (document["warnings"][0], report)], [1, 1])
    check(lost in document["warnings"][0] and lost in report, document["warnings"])
    check(phase(document)["converged"], "alone: converged")


def repeats():
    first = fit("ORDINAL,5", "YORD5", "AGQ:Y,50,7", 3, random=("X1",))[2]
    second = again("newcmd.kdr", "second")[2]
    check.equal("newcmd.kdr", numbers(phase(second)), numbers(phase(first)))
    check.equal("newcmd.kdr, points", phase(second)["points"], 7)


def refusals():
    five = ("YPOIS", "X1", "X2", "W1")
    for kind, engine, more, words in (
            ("ORDINAL,3", "AGQ:Y,40,7", "", "7 points for 5 and 1 effects would be 117649 nodes. One point, AGQ:Y,40,1"),
            ("ORDINAL,3", "AGQ:Y,40,AUTO", "", "5 points for 5 and 1 effects would be 15625 nodes"),
            ("ORDINAL,3", "AGQ:Y,40,7\nAGQNODES:FIXED", "", "AGQNODES:FIXED is for Bernoulli, binomial and Poisson outcomes."),
            ("ORDINAL,3", "LAPLACE:Y,20", "", "may only be done on Bernoulli"),
            ("ORDINAL,3", "AGQ:Y,40,1", "CONSTRAIN:0,1,0,0,0,1\n", "constrained thresholds cannot go on to adaptive quadrature")):
        code, said, document = fit(kind, "YORD3", engine, 1, five, five, more)
        check.equal(engine, (code, " ".join(words.split()) in " ".join(said.split()), document), (100, True, None))
    code, said, _ = fit("ORDINAL,4", "YORD3", "AGQ:Y,40,1", 2)  # a category that no record has
    check.equal("unused category", (code, "There are less than the specified 4 categories" in said), (100, True))


for job in (clmm, two, studies, alone, repeats, refusals):
    job()
check.finish()
