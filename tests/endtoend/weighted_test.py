"""Design weights and robust errors of the engines: estimates and sandwiches against a grid of the whole integrals
(tests/reference/weightedstudies.py), what report, document and newcmd.kdr say of them, and what is refused.

    weighted_test.py <program>
"""
import json
import math
import pathlib
import random
import subprocess
import sys
import tempfile

from program import NOFEATURES, NOFILES, REFERENCE, Checks, fixedtext, run

program, check = str(pathlib.Path(sys.argv[1]).resolve()), Checks()
KINDS = {"bernoulli": "BERNOULLI", "binomial": "BINOMIAL,N", "poisson": "POISSON"}


def fit(file, levels, *keywords, units=12, weight=None, linear=False):
    """Console, report and phases of a run, and of the run of its newcmd.kdr; weights as the reference makes them."""
    folder = fit.folder = pathlib.Path(tempfile.mkdtemp())
    lines = [line.split() for line in (REFERENCE / "quadrature" / (file + ".dat")).read_text().splitlines()]
    rows = [(int(k), int(j), *map(float, (y, n, x))) for k, j, y, n, x, *_ in lines if int(k) < units]
    a, b, c = (lambda i: 0.5 + 0.25 * (i % 5)), (lambda j: 0.5 + 0.5 * (j % 3)), (lambda k: 0.6 + 0.4 * (k % 4))
    if weight:
        a = b = c = lambda _: weight
    level1 = [(*row, a(i)) for i, row in enumerate(rows)]
    level2 = dict.fromkeys((k, j, b(j)) for k, j, *_ in rows)
    fixedtext(folder, (level1, level2, dict.fromkeys((k, c(k)) for k, *_ in rows)), "%24.14f", (["Y", "N", "X", "A"], ["B"], ["C"]))
    (folder / "s.kdr").write_text(
        ("NONLIN:N\nNUMIT:500,N\n" if linear else f"NONLIN:{KINDS[file.rstrip('012')]}\nMACROIT:100,N\nMICROIT:200\n") + "\n".join(keywords) + "\n"
        + "".join(f"LEVEL{level}WEIGHT:{'ABC'[level - 1]}\n" for level in levels)
        + "LEVEL1:Y=INTRCPT1+X+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL2:X=INTRCPT2/\n"
        "LEVEL3:INTRCPT2=INTRCPT3/\nTITLE:s\nOUTPUT:s.txt\nFULLOUTPUT:N\n" + NOFILES + NOFEATURES.replace("HYPOTH:N", "HYPOTH:N\nGAMMA1:0.0,1.0"))
    assert run(program, folder, "-r", "s.mdmt")[0] == 0
    code, said = run(program, folder, "-results", "s.json", "s.mdm", "s.kdr")
    if code:
        return code, said, "", {}
    phases = {p["phase"]: p for p in json.loads((folder / "s.json").read_text())["phases"]}
    again, _ = run(program, folder, "-results", "t.json", "s.mdm", "newcmd.kdr")
    check(again == 0 and json.loads((folder / "t.json").read_text())["phases"] == list(phases.values()), f"{file} {levels} {keywords}: newcmd.kdr")
    return code, said, (folder / "s.txt").read_text(), phases


def numbers(phase, side, errors):
    taus = [phase[tau] for tau in ("tau_pi", "tau_beta")]
    return ([tau["estimate"][0][0] for tau in taus] + [row["estimate"] for row in phase["fixed_effects"]],
            [tau[errors][0][0] for tau in taus] + [row[side]["standard_error"] for row in phase["fixed_effects"]])


# Against the grid: with weights the standard errors are the sandwich, without the second ones.
stored = {tuple(line.split()[:2]): [float(x) for x in line.split()[2:]] for line in (REFERENCE / "weighted.out").read_text().splitlines()}
for name, (file, levels, raw) in {"bernoulli-raw": ("bernoulli11", (1, 2, 3), True), "bernoulli-mean": ("bernoulli11", (1, 2, 3), False),
                                  "poisson-mean": ("poisson11", (2,), False), "binomial-none": ("binomial12", (), False)}.items():
    code, said, text, phases = fit(file, levels, "AGQ:Y,100,11", *["WEIGHTSCALE:NONE"] * raw)
    check(code == 0, f"{name}: code {code} {said[-200:]}")
    phase = phases["quadrature"]
    check.near(f"{name}, log-likelihood", phase["marginal_log_likelihood"], stored[name, "value"][0], 2e-3)
    estimates, robust = numbers(phase, "robust", "robust_standard_error")
    _, errors = numbers(phase, "model_based", "standard_error")
    for i, (estimate, error) in enumerate(zip(stored[name, "estimate"], stored[name, "sandwich"])):
        check.near(f"{name}, estimate {i}", estimates[i], estimate, 0.005 * error)
        check.near(f"{name}, sandwich {i}", robust[i], error, 0.005 * error)
    check.equal(f"{name}, weighted", phase["weighted"], bool(levels))
    check.equal(f"{name}, standard errors are the sandwich", errors == robust, bool(levels))
    check.equal(f"{name}, AIC", phase["aic"] is None, bool(levels))
    # What the report prints below the heading of the engine.
    engine = text[text.index("ADAPTIVE GAUSSIAN QUADRATURE"):text.index("Statistics for the current model")]
    for words, times in (("with robust standard errors", 1), ("(Unit-specific model)", 0 if levels else 1), ("Robust standard error of tau(pi)", 1),
                         ("\nStandard error of tau(pi)", 0 if levels else 1), ("larger number of" if levels else "large number of level 3 units", 1),
                         ("Results of General Linear Hypothesis Testing", 1 if levels else 2)):
        check.equal(f"{name}, {words!r} in the report", engine.count(words), times)
    check(f"{robust[1]:.5f}" in engine and f"{robust[3]:.6f}" in engine, f"{name}: robust errors in the report {robust}")

# Weights of 1, of any value at the top level, and level 1 with level 3, which only weights as they stand can have.
plain = fit("bernoulli11", (), "AGQ:Y,100,1")[3]["quadrature"]
ones = fit("bernoulli11", (1, 3), "AGQ:Y,100,1", "WEIGHTSCALE:NONE", weight=1.0)[3]["quadrature"]
check.near("weights of 1", ones["marginal_log_likelihood"], plain["marginal_log_likelihood"], 1e-7)
for a, b, error in zip(*[numbers(p, "robust", "robust_standard_error")[0] for p in (ones, plain)], numbers(plain, "robust", "robust_standard_error")[1]):
    check.near("weights of 1", a, b, 2e-3 * error)
check.near("weights of 1, sandwich", *[numbers(p, "robust", "robust_standard_error")[1][2] for p in (ones, plain)], 1e-4)

# As they stand, too, weights of a linear model are in units of their mean.
one, thousand = (fit("poisson11", (1,), "WEIGHTSCALE:NONE", "STOPVAL:0.0000000001", weight=weight, linear=True)[3]["final"] for weight in (1.0, 1000.0))
for name in ("sigma2", "tau_pi", "tau_beta"):
    a, b = (p[name]["estimate"] if name == "sigma2" else p[name]["estimate"][0][0] for p in (thousand, one))
    check.near(f"linear, weights of 1000: {name}", a, b, 0, 1e-6)

# Two levels: a level-2 unit is the highest there is. Whole weights of records and units are copies, by one point and more.
def twolevels(rows, *words, family="binomial"):
    folder = pathlib.Path(tempfile.mkdtemp())
    (folder / "f.csv").write_text("k,y,x,a,b\n" + "".join(",".join(map(str, row)) + "\n" for row in rows))
    code, said = run(program, folder, "-fit", "y ~ x + (1 | k)", "f.csv", "-family", family, "-o", "f", *words)
    check(code == 0, f"two levels {words}: code {code} {said[-300:]}")
    return {p["phase"]: p for p in json.loads((folder / "f.json").read_text())["phases"]}["quadrature"]


draw = random.Random(5)
rows = {"binomial": [], "ordinal": [], "multinomial": []}
for k in range(30):
    u, b = draw.gauss(0, 1), draw.randint(1, 3)
    for _ in range(draw.randint(2, 7)):
        x, a = round(draw.gauss(0, 1), 4), draw.randint(1, 2)
        p = draw.random()
        latent = 0.2 + 0.5 * x + u - math.log(p / (1 - p))
        for family, y in ("binomial", int(latent > 0)), ("ordinal", 1 + (latent > -1) + (latent > 1)), ("multinomial", 1 + (latent > -1) + (latent > 1)):
            rows[family].append((k, y, x, a, b))
for family in rows:
    copies = [(10 * row[0] + copy, *row[1:]) for row in rows[family] for copy in range(row[4]) for _ in range(row[3])]
    for engine in (["-engine", "laplace"], ["-engine", "quadrature", "-points", "9"]):
        weighted = twolevels(rows[family], "-weights1", "a", "-weights2", "b", "-keyword", "WEIGHTSCALE:NONE", *engine, family=family)
        wanted = twolevels(copies, *engine, family=family)
        check.near(f"two levels, {family} {engine}", weighted["marginal_log_likelihood"], wanted["marginal_log_likelihood"], 1e-6)
        for a, b in zip(weighted["fixed_effects"], wanted["fixed_effects"]):
            check.near(f"two levels, {family} {engine}", a["estimate"], b["estimate"], 2e-3 * b["model_based"]["standard_error"])

# The dialogue asks for them: its run is that of the command file with these weights, and newcmd.kdr repeats it.
for levels, weights, keywords in (((1, 3), "A0C", ["WEIGHTSCALE:NONE"]), ((1, 2, 3), "ABCy", []), ((2,), "0B0n", ["WEIGHTSCALE:NONE"])):
    *_, phases = fit("bernoulli11", levels, "AGQ:Y,100,5", *keywords)
    (fit.folder / "d.kdr").write_text("TITLE:d\nOUTPUT:d.txt\nRESULTS:d.json\n" + NOFILES + NOFEATURES)
    answers = ["y", "1", "100", "200", "n", "n", "y", "100", "5", "y", *weights, *"YX0nn00nnyny00yny00"]
    for command, given in (("d.kdr", "\n".join(answers) + "\n"), ("newcmd.kdr", "")):
        done = subprocess.run([program, "-q", "s.mdm", command], cwd=fit.folder, input=given, capture_output=True, text=True)
        check(done.returncode == 0, f"dialogue with weights {weights}, {command}: code {done.returncode} {done.stdout[-900:]}")
        made = {p["phase"]: p for p in json.loads((fit.folder / "d.json").read_text())["phases"]}
        check([made["quadrature"][key] for key in ("fixed_effects", "tau_pi")] == [phases["quadrature"][key] for key in ("fixed_effects", "tau_pi")],
              f"dialogue with weights {weights}, {command}: another model")

# Too few units: none without weights; the only ones that there are with them, and not without a word.
code, said, text, phases = fit("bernoulli11", (), "AGQ:Y,100,5", "LAPLACE:Y,50", units=4)
for name in ("laplace6", "quadrature"):
    check.equal(f"{name} of 4 units", [phases[name]["fixed_effects"][0]["robust"], phases[name]["tau_pi"]["robust_standard_error"]], [None, None])
    check(any("robust standard errors cannot" in words for words in phases[name]["warnings"]), f"{name} of 4 units says nothing")
check(text.count("The robust standard errors cannot be computed") >= 2, "4 units in the report")
code, said, text, phases = fit("bernoulli11", (3,), "AGQ:Y,100,5", units=4)
check(any("no more level-3 units than parameters" in words for words in phases["quadrature"]["warnings"]), "4 weighted units say nothing")
check("no more level-3 units than parameters" in text, "4 weighted units in the report")

for words, levels, *keywords in (("terms of the sixth order know no weights", (3,), "LAPLACE:Y,50"), ("fixed nodes", (3,), "AGQ:Y,50,5", "AGQNODES:FIXED"),
                                 ("outer products alone", (2,), "AGQ:Y,50,5", "AGQDERIVLEVEL:1"), ("MEAN or NONE", (2,), "WEIGHTSCALE:1"),
                                 ("only level-1 and level-3 weights", (1, 3), "AGQ:Y,50,5")):
    code, said, *_ = fit("bernoulli11", levels, *keywords)
    check(code != 0 and words in said, f"{keywords}: code {code} {said[-200:]}")
check.finish()
