"""Multinomial outcomes by quadrature and Laplace: binary outcomes, labels and counts of the report, repeated runs, refusals, and
random studies against integrals of the test's own.

    multinomial_test.py <program>
"""
import json
import os
import pathlib
import sys

import numpy as np

from program import NOFEATURES, NOFILES, REFERENCE, Checks, madefolder, run

sys.path.insert(0, str(REFERENCE))
import multinomialstudies

PROGRAM = os.path.abspath(sys.argv[1])
check = Checks()
FOLDER = pathlib.Path(madefolder(PROGRAM, REFERENCE / "nonlinear", "nonlin.mdmt"))


def fit(kind, outcome, engine, sets=1, slopes=(), more="", name="s"):
    """Exit code, what was said, and the results document."""
    slope = lambda x: "+RANDOM" if x in slopes else ""
    equations = (f"LEVEL1:{outcome}=INTRCPT1+X1+X2+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"
                 + "".join(f"LEVEL2:{x}=INTRCPT2{slope(x)}/\nLEVEL3:INTRCPT2=INTRCPT3/\n" for x in ("X1", "X2")))
    (FOLDER / f"{name}.kdr").write_text(f"NONLIN:{kind}\nMACROIT:100,N\nMICROIT:100\n{engine}\n" + sets * equations
                                        + f"{more}OUTPUT:{name}.txt\n" + NOFILES + NOFEATURES)
    return again(f"{name}.kdr", name)


def again(command, name):
    made = FOLDER / f"{name}.json"
    made.unlink(missing_ok=True)
    code, said = run(PROGRAM, FOLDER, "-results", made.name, "nonlin.mdm", command)
    return code, said, json.loads(made.read_text()) if made.exists() else None


def phase(document):
    return next(p for p in document["phases"] if p["phase"] == "quadrature")


def numbers(p):
    rows = p["fixed_effects"]
    return (p["marginal_log_likelihood"], [x for t in ("tau_pi", "tau_beta") for row in p[t]["estimate"] for x in row],
            [r["estimate"] for r in rows], [r["model_based"]["standard_error"] for r in rows])


def two():
    """Two categories are a binary outcome with the signs turned."""
    for slopes, points in (((), "1"), (("X1",), "7"), ((), "AUTO")):
        multinomial = fit("MULTINOMIAL,2", "YBERN", f"AGQ:Y,50,{points}", slopes=slopes)[2]
        binary = fit("BERNOULLI", "YBERN", f"AGQ:Y,50,{points}", slopes=slopes, more="FIXSIGMA2:1\n")[2]
        a, b = numbers(phase(multinomial)), numbers(phase(binary))
        check.near(f"two, {points}", a[0], b[0], 1e-6)
        for x, y, se in zip(a[2], b[2], b[3]):
            check.near(f"two, {points}: coefficient", x, -y, 1e-3 * se)
        for x, y in zip(a[1] + a[3], b[1] + b[3]):
            check.near(f"two, {points}: taus and errors", x, y, 1e-4 * abs(y))


def three():
    """Labels, criteria, and the same numbers from newcmd.kdr."""
    code, _, document = fit("MULTINOMIAL,3", "YMUL3", "AGQ:Y,50,5", 2)
    p = phase(document)
    check.equal("three", (code, p["converged"], p["parameters"]), (0, True, 12))
    value, _, gamma, _ = numbers(p)
    check.near("AIC", p["aic"], -2 * value + 24, 1e-6)
    check.near("BIC", p["bic"], -2 * value + np.log(1060) * 12, 1e-6)
    pql = next(q for q in document["phases"] if q["phase"] == "pql")
    labels = [[(r["category"], r["level1"]) for r in q["fixed_effects"]] for q in (p, pql)]
    check.equal("labels", labels[0], labels[1])
    check.equal("categories", len({c for c, _ in labels[0]}), 2)
    check(all(e for e in sum(p["tau_pi"]["standard_error"], [])), "standard errors of tau(pi)")
    report = (FOLDER / "s.txt").read_text()
    tables = report[report.index("ADAPTIVE GAUSSIAN QUADRATURE"):]
    for words in ("For Category", "Standard errors of tau(pi)", "Odds"):
        check(words in tables, words)
    check.equal("newcmd.kdr", numbers(phase(again("newcmd.kdr", "second")[2])), numbers(p))


def refusals():
    for engine, slopes, more, words in (
            ("AGQ:Y,40,7", ("X1", "X2"), "", "7 points for 6 and 2 effects would be 5764801 nodes. One point, AGQ:Y,40,1"),
            ("AGQ:Y,40,7\nAGQNODES:FIXED", (), "", "AGQNODES:FIXED is for Bernoulli, binomial and Poisson outcomes."),
            ("LAPLACE:Y,20", (), "", "may only be done on Bernoulli")):
        code, said, document = fit("MULTINOMIAL,3", "YMUL3", engine, 2, slopes, more)
        check.equal(engine, (code, " ".join(words.split()) in " ".join(said.split()), document), (100, True, None))
    code, said, _ = fit("MULTINOMIAL,4", "YMUL3", "AGQ:Y,40,1", 3)
    check.equal("unused category", (code, "There are less than the specified 4 categories" in said), (100, True))


def rare():
    """Of 573 records in 58 units one of each rare category: the likelihood has its maximum at variances near 0, the Laplace
    approximation one at 62 and 175, which console, report and document say is in doubt. Five points find the former."""
    rows = ["k,j,y"] + [f"{i // 60},{i // 10},{1 + (i == 137) + 2 * (i == 402)}" for i in range(573)]
    (FOLDER / "rare.csv").write_text("\n".join(rows) + "\n")
    for points, doubtful in ((1, True), (5, False)):
        code, said = run(PROGRAM, FOLDER, "-fit", "y ~ 1 + (1 | k/j)", "rare.csv", "-family", "multinomial", "-engine", "quadrature", "-points",
                         str(points), "-strict", "-o", "rare")
        made = json.loads((FOLDER / "rare.json").read_text())
        of, words = phase(made), "a random effect has a standard deviation of 13.2 on the scale of the linear predictor"
        places = (said, (FOLDER / "rare.txt").read_text(), *made["warnings"], *of["warnings"])
        check(code == 20 * doubtful and sum(words in place for place in places) == 4 * doubtful, f"rare, {points} points: {code}, {places[2:]}")
        check((of["ending"], of["converged"], made["converged"]) == (("doubtful", False, False) if doubtful else ("converged", True, True)),
              f"rare, {points} points: {of['ending']}")
        check((of["tau_pi"]["estimate"][0][0] > 50) == doubtful, f"rare, {points} points: {of['tau_pi']['estimate']}")


def studies():
    for seed, points in ((15, "AUTO"), (4, "1"), (6, "1")):
        line, verdict = multinomialstudies.one(PROGRAM, seed, points)
        check.equal(line, verdict, "right")


for job in (two, three, rare, refusals, studies):
    job()
check.finish()
