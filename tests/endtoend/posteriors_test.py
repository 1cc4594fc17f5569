"""Residual files, graph file, reliabilities, latent regression and document of runs with engines.

Random effects against integrals and modes computed from their definition (tests/reference/posteriormoments.py) and against
those of glmer; what hangs on them by their formulas; the same files in all forms, of the same run again, and of PQL on request.

    posteriors_test.py PROGRAM
"""
import json
import sys

import numpy as np

from program import NOFEATURES, REFERENCE, Checks, Workplace, body
from residualfiles import FORMS, read, readgraph
sys.path.append(str(REFERENCE))
import posteriormoments as oracle

check = Checks()
work = Workplace(sys.argv[1])
KIND = {"bernoulli": "BERNOULLI", "binomial": "BINOMIAL,N", "poisson": "POISSON", "exposure": "POISSON,N",
        "ordinal": "ORDINAL,3", "multinomial": "MULTINOMIAL,3"}
FILES = "RESFIL1:Y/X\nRESFIL2:Y/W\nRESFIL3:Y/Z\nRESFILTYPE:FREEFORMAT\n"


def weight1(records):
    return 0.5 + 0.25 * (np.arange(records) % 5)


def weight2(units):
    return 0.5 + 0.5 * (units % 3)


def make(case):
    rows = oracle.data(case)
    table = np.column_stack([rows, weight1(len(rows)), weight2(rows[:, 1])])
    np.savetxt(work.folder / "made.csv", table, delimiter=",", header="K,J,Y,N,X,W,Z,A,B", comments="", fmt="%g")
    done = work.run("-from", "made.csv", "-level3", "K", "-level2", "J", "-level1", "Y,N,X,A", case + ".mdm")
    assert done.returncode == 0, done.stdout
    return rows


def commands(case, engine, files=FILES, extra=""):
    outcome, q, r = oracle.CASES[case]
    random = lambda wanted: "+RANDOM" if wanted else ""
    ordinal, multinomial = outcome == "ordinal", outcome == "multinomial"
    slopes = not multinomial
    equations = (f"LEVEL1:Y=INTRCPT1+X{'+THOLD2' * ordinal}+RANDOM\n"
                 "LEVEL2:INTRCPT1=INTRCPT2+W+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Z+RANDOM/\nLEVEL3:W=INTRCPT3/\n"
                 f"LEVEL2:X=INTRCPT2{random(slopes and q > 1)}/\nLEVEL3:INTRCPT2=INTRCPT3{random(slopes and r > 1)}/\n")
    return (f"NONLIN:{KIND[outcome]}\nMACROIT:100,N\nMICROIT:200\nSTOPMICRO:0.0000001\nFIXSIGMA2:1.0\n{engine}"
            f"{equations * (2 if multinomial else 1)}{NOFEATURES}{files}GRAPHGAMMAS:graph.bin\nRESULTS:run.json\nTITLE:\nOUTPUT:run.txt\n{extra}")


def run(case, engine, code=0, **more):
    work.write("run.kdr", commands(case, engine, **more))
    done = work.run("-effects", *(["-strict"] if code else []), case + ".mdm", "run.kdr")
    check(done.returncode == code, f"{case}, {engine!r}: code {done.returncode}: {done.stdout[-300:]}")
    return json.loads(work.read("run.json")), work.read("run.txt")


def tables(form="FREEFORMAT"):
    return {level: read(str(work.folder), form, level) for level in (1, 2, 3)}


def estimates(phase):
    matrix = lambda name: np.array(phase[name]["estimate"])
    return np.array([e["estimate"] for e in phase["fixed_effects"]]), matrix("tau_pi"), matrix("tau_beta")


def triangle(matrix):
    return [matrix[i, j] for i in range(len(matrix)) for j in range(i + 1)]


def compare(case, rows, phase, found, tolerance, name):
    """The rows of some level-3 units, and all that belongs to them, against what was found of these."""
    gamma, Tp, Tb = estimates(phase)
    files = tables()
    same = lambda what, got, want, allowed=tolerance: check(
        np.max(np.abs(np.array(got, float) - np.array(want, float)) / np.maximum(1, np.abs(want))) < allowed,
        f"{name}: {what} is {got}, expected {want}")
    id3 = [int(float(row[0])) for row in files[3].rows]
    id2 = [(int(float(row[0])), int(float(row[1]))) for row in files[2].rows]
    first = 0
    for k, (unit, one) in found.items():
        q, r, base = unit.q, unit.r, gamma[:3] @ unit.g[0, :3]
        row = files[3].rows[id3.index(k)][2:]
        fitted3 = [gamma[0] + gamma[1] * unit.g[0, 1], gamma[2], gamma[3]]
        same(f"EB of unit {k}", row[:r], one["v"])
        check(row[r:2 * r] == [None] * r, f"{name}: OL of unit {k}: {row[r:2 * r]}")
        same(f"FV of unit {k}", row[2 * r:2 * r + 3], fitted3)
        places = [0] + [2] * (r > 1)
        fitted3 = np.array(fitted3)
        fitted3[places] += one["v"]
        same(f"EC of unit {k}", row[2 * r + 3:2 * r + 6], fitted3)
        same(f"PV of unit {k}", row[2 * r + 6:2 * r + 6 + len(triangle(Tb))], triangle(one["vv"]))
        v = np.append(one["v"], 0)[:2]
        for j in range(unit.units):
            row = files[2].rows[id2.index((k, j))][3:]
            w = unit.g[unit.j == j][0, 2]
            mine = np.array([gamma[0] + gamma[1] * unit.g[0, 1] + gamma[2] * w + v[0], gamma[3] + v[1]])
            same(f"EB of unit {k} {j}", row[:q], one["u"][j])
            check(row[q:2 * q] == [None] * q, f"{name}: OL of unit {k} {j}")
            same(f"FV of unit {k} {j}", row[2 * q:2 * q + 2], mine)
            mine[:q] += one["u"][j]
            same(f"EC of unit {k} {j}", row[2 * q + 2:2 * q + 4], mine)
            same(f"PV of unit {k} {j}", row[2 * q + 4:2 * q + 4 + len(triangle(Tp))], triangle(one["uu"][j]))
        eta = unit.g @ gamma + unit.e @ one["v"] + np.sum(unit.d * one["u"][unit.j], 1)
        mean, variance = unit.mean(eta)
        records = np.array([row[2:8] for row in files[1].rows if int(float(row[0])) == k], float)
        want = [(unit.y - mean) / variance, eta, np.ones(len(eta)), mean, unit.y - mean, (unit.y - mean) / np.sqrt(variance)]
        for what, got, x in zip(files[1].names[2:8], records.T, want):
            same(f"{what} of unit {k}", got, x, 10 * tolerance)
    return files


def reads(name, document, report, phase, words):
    check(words in report, f"{name}: the report doesn't say {words!r}")
    check({mark["phase"] for mark in document["checksums"]} == {phase}, f"{name}: {document['checksums']}")
    return next(p for p in document["phases"] if p["phase"] == phase)


def ineffects(name, phase, files):
    """The document's random effects are those of the files."""
    for level in (2, 3):
        part = lambda row, start: [x for x, column in zip(row, files[level].names) if column.startswith(start)]
        rows = phase["random_effects"][f"level{level}"]
        check(len(rows) == len(files[level].rows) and all(
            [float(unit[f"level{l}"]) for l in (3, 2)[:4 - level]] == [float(x) for x in row[:4 - level]]
            and np.allclose(unit["estimate"], part(row, "EB"), atol=2e-6)
            and np.allclose(triangle(np.array(unit["covariance"])), part(row, "PV"), atol=2e-6)
            for unit, row in zip(rows, files[level].rows)), f"{name}: random effects of level {level} in the document")


# Posterior means and variances, of every outcome; five units each.
POINTS = {"bernoulli11": (21, 61), "bernoulli21": (15, 33), "bernoulli22": (7, 21), "binomial12": (11, 41),
          "poisson11": (21, 97), "exposure21": (15, 45)}
for case, (points, steps) in POINTS.items():
    rows = make(case)
    document, report = run(case, f"AGQ:Y,100,{points}\n", code=0)
    phase = reads(case, document, report, "quadrature", "The residual files and the graph data file have the random effects of "
                  f"adaptive quadrature ({points} points for each effect): posterior means and variances.")
    chosen = range(25) if case in ("bernoulli11", "poisson11") else range(5 if case != "bernoulli22" else 2)
    units = {k: oracle.Unit(case, k, rows) for k in chosen}
    gamma, Tp, Tb = estimates(phase)
    found = {k: (unit, oracle.integrals(unit, gamma, Tp, Tb, steps)) for k, unit in units.items()}
    files = compare(case, rows, phase, {k: found[k] for k in list(found)[:5]}, 2e-3 if case == "bernoulli22" else 5e-5, case)
    ineffects(case, phase, files)
    if len(found) == 25:
        want = oracle.reliabilities([f[0] for f in found.values()], [f[1] for f in found.values()], Tp[0, 0], Tb[0, 0])
        got = [phase[tau]["reliability"][0] for tau in ("tau_pi", "tau_beta")]
        check(np.allclose(got, want, atol=2e-5), f"{case}: reliabilities {got}, expected {want}")
    graph = readgraph(str(work.folder / "graph.bin"), str(work.folder / (case + ".mdm")), nonlinear=True)
    q, r = oracle.CASES[case][1:]
    check(np.allclose(graph["gamma"], gamma) and np.allclose(graph["quadrature"], gamma), f"{case}: gamma of the graph file")
    for level, n, at in ((2, q, 3), (3, r, 2)):
        for a in range(n):
            check(np.allclose(graph[f"level{level}"][f"EB{a + 1}"], [row[at + a] for row in files[level].rows], atol=2e-6),
                  f"{case}: EB of level {level} in the graph file")
    check(np.allclose(graph["fitted"]["FITVAL"], files[1].column("FITVAL"), atol=2e-6), f"{case}: graph file, fitted values")

# The same with categories, where the files hold fitted probabilities.
def comparecategories(case, unit, one, files, probabilities, tolerance):
    k = int(unit.k)
    same = lambda what, got, want: check(np.allclose(np.array(got, float), want, atol=tolerance),
                                         f"{case}, unit {k}: {what} is {got}, expected {want}")
    column = lambda table, start: [i for i, name in enumerate(table.names) if name.startswith(start)]
    part = lambda table, row, start: [row[i] for i in column(table, start)]
    row, = (row for row in files[3].rows if float(row[0]) == k)
    same("v", part(files[3], row, "EB"), one["v"])
    same("variances of v", part(files[3], row, "PV"), triangle(one["vv"]))
    for j in range(unit.units):
        row, = (row for row in files[2].rows if (float(row[0]), float(row[1])) == (k, j))
        same(f"u of {j}", part(files[2], row, "EB"), one["u"][j])
        same(f"variances of u of {j}", part(files[2], row, "PV"), triangle(one["uu"][j]))
        check(set(part(files[2], row, "OL")) == {None}, f"{case}: OL of unit {k} {j}")
    rows = [row for row in files[1].rows if float(row[0]) == k]
    same("fitted", [part(files[1], row, "FITVAL") for row in rows], probabilities)
    reached = unit.y[:, None] <= [0, 1] if unit.outcome == "ordinal" else unit.y[:, None] == [0, 1]
    same("residuals", [part(files[1], row, "L1RES") for row in rows], reached - probabilities)
    same("link", [part(files[1], row, "ETA") for row in rows], linkof(unit.outcome, probabilities))
    same("Pearson", [part(files[1], row, "PEARS") for row in rows], pearson(reached, probabilities))


def linkof(outcome, probabilities):
    return np.log(probabilities / (1 - probabilities if outcome == "ordinal" else 1 - probabilities.sum(1, keepdims=True)))


def pearson(reached, probabilities):
    return (reached - probabilities) / np.sqrt(probabilities * (1 - probabilities))


def categoryunit(case, k, rows, gamma):
    unit = oracle.Unit(case, k, rows)
    unit.k = k
    if case.startswith("ordinal"):
        gamma, unit.thresholds = gamma[:4], gamma[4:]
    return unit, gamma


def categoryprobabilities(unit, gamma, one):
    p = unit.probabilities(unit.g @ gamma + unit.e @ one["v"] + np.sum(unit.d * one["u"][unit.j].reshape(
        (len(unit.j),) + (1,) * (unit.d.ndim - 2) + (-1,)), -1))
    return np.cumsum(p, -1)[:, :2] if unit.outcome == "ordinal" else p[:, :2]


for case, points, steps in (("ordinal21", 15, 33), ("multinomial22", 9, 21)):
    rows = make(case)
    document, report = run(case, f"AGQ:Y,100,{points}\n")
    phase = reads(case, document, report, "quadrature", f"adaptive quadrature ({points} points for each effect): posterior means")
    gamma, Tp, Tb = estimates(phase)
    files = tables()
    ineffects(case, phase, files)
    graph = readgraph(str(work.folder / "graph.bin"), str(work.folder / (case + ".mdm")), nonlinear=True, categories=True)
    for level in (2, 3):
        places = [i for i, name in enumerate(files[level].names) if name.startswith("EB")]
        check(all(np.allclose(graph[f"level{level}"][f"EB{a + 1}"], [row[i] for row in files[level].rows], atol=2e-6)
                  for a, i in enumerate(places)), f"{case}: EB of level {level} in the graph file")
    for k in range(5):
        unit, own = categoryunit(case, k, rows, gamma)
        one = oracle.integrals(unit, own, Tp, Tb, steps)
        comparecategories(case, unit, one, files, categoryprobabilities(unit, own, one), 1e-3 if case == "multinomial22" else 1e-4)

# Design weights: the density of a record counts so often, the integral of a level-2 unit likewise.
for case, points, steps in (("bernoulli21", 15, 33), ("ordinal21", 15, 33)):
    rows = make(case)
    document, report = run(case, f"AGQ:Y,100,{points}\n", extra="LEVEL1WEIGHT:A\nLEVEL2WEIGHT:B\nWEIGHTSCALE:NONE\n")
    phase = reads(f"{case}, weighted", document, report, "quadrature", f"adaptive quadrature ({points} points for each effect)")
    gamma, Tp, Tb = estimates(phase)
    first, files, found = weight1(len(rows)), tables(), {}
    for k in range(5):
        unit, own = categoryunit(case, k, rows, gamma)
        unit.weights1, unit.weights2 = first[rows[:, 0] == k], weight2(np.arange(unit.units))
        found[k] = unit, oracle.integrals(unit, own, Tp, Tb, steps)
        if case == "ordinal21":
            comparecategories(f"{case}, weighted", unit, found[k][1], files, categoryprobabilities(unit, own, found[k][1]), 1e-4)
    if case != "ordinal21":
        compare(case, rows, phase, found, 1e-4, f"{case}, weighted")
    ineffects(f"{case}, weighted", phase, files)

# One point and Laplace-6: modes and curvature.
make("poisson11")
for case, engine, phase, words in (("poisson11", "AGQ:Y,100,1\n", "quadrature", "the first-order Laplace approximation"),
                                   ("bernoulli21", "LAPLACE:Y,100\n", "laplace6", "Laplace-6"),
                                   ("binomial12", "AGQ:Y,100,1\n", "quadrature", "the first-order Laplace approximation")):
    rows = oracle.data(case)
    document, report = run(case, engine)
    made = reads(case, document, report, phase, f"have the random effects of {words}: modes and the curvature there.")
    units = {k: oracle.Unit(case, k, rows) for k in range(5)}
    compare(case, rows, made, {k: (unit, oracle.modes(unit, *estimates(made))) for k, unit in units.items()}, 2e-5, words)

# The same by glmer.
document, report = run("poisson11", "AGQ:Y,100,1\n")
files, pairs = tables(), {"u": [], "v": []}
mine = {"v": {(int(float(row[0])),): row[2] for row in files[3].rows},
        "u": {(int(float(row[0])), int(float(row[1]))): row[3] for row in files[2].rows}}
for line in (REFERENCE / "posteriorsglmer.out").read_text().splitlines()[1:]:
    which, *key, value = line.split()
    pairs[which].append((float(value), mine[which][tuple(map(int, key))]))
for which, both in pairs.items():
    x, y = np.array(both).T
    slope = np.cov(x, y)[0, 1] / np.var(x, ddof=1)
    check(len(x) == len(mine[which]) and np.corrcoef(x, y)[0, 1] > 0.99999 and abs(slope - 1) < 0.003,
          f"{which}: correlation {np.corrcoef(x, y)[0, 1]}, slope {slope} with glmer")

# All forms hold the same; a run of newcmd.kdr repeats them.
def forms(case, engine):
    make(case)
    document, report = run(case, engine)
    plain = tables()
    again = work.run(case + ".mdm", "newcmd.kdr")
    check(again.returncode == 0 and body(work.read("run.txt"))[3:] == body(report)[3:], f"{case}: newcmd.kdr repeats the report")
    check(all(tables()[level].rows == plain[level].rows for level in plain), f"{case}: newcmd.kdr repeats the files")
    for form in FORMS:
        run(case, engine, files=FILES.replace("FREEFORMAT", form))
        made = tables(form)
        for level, table in made.items():
            near = all((a is None) == (b is None) and (a is None or isinstance(a, str) or abs(a - b) < 1e-5)
                       for mine, row in zip(table.rows, plain[level].rows) for a, b in zip(mine[2:], row[2:]))
            check(near and len(table.rows) == len(plain[level].rows), f"{case}, {form}: level {level} is another")
        label = b"Random effects by adaptive quadrature (7 points for each effect)"
        if form in ("SPSS", "STATA"):
            check(label in (work.folder / (FORMS[form][1] % 2)).read_bytes()[:200], f"{case}, {form}: no label")


for case in ("bernoulli21", "ordinal21", "multinomial22"):
    forms(case, "AGQ:Y,100,7\n")

# Of PQL on request, and with fixed nodes: the files of a run without an engine, byte by byte.
names = [FORMS["FREEFORMAT"][1] % level for level in (1, 2, 3)]
for case, others in (("ordinal21", ["RESFILOF:PQL\n"]), ("bernoulli21", ["RESFILOF:PQL\n", "AGQNODES:FIXED\n"])):
    run(case, "")
    without, plainpql = [work.read(name) for name in names], tables()
    graphof = "pql" if case == "ordinal21" else "population_average"
    for extra in others:
        document, report = run(case, "AGQ:Y,20,5\n", extra=extra)
        check([work.read(name) for name in names] == without, f"{case}, {extra!r}: other files than those of PQL")
        check({(mark["file"], mark["phase"]) for mark in document["checksums"]} ==
              {(name, "pql") for name in names} | {("graph.bin", graphof)}, f"{case}, {extra!r}: {document['checksums']}")
        check("The residual files have the random effects of quasi-likelihood (PQL)." in report, f"{extra!r}: who is not told")
        check(("RESFILOF:PQL" in work.read("newcmd.kdr")) == ("RESFILOF" in extra), f"{extra!r} in newcmd.kdr")
# An engine without results leaves those of PQL, in the same columns.
document, report = run("bernoulli21", "AGQ:Y,100,150\n", code=20)
files = tables()
check([[row[:5] for row in files[1].rows], files[2].rows] == [[row[:5] for row in plainpql[1].rows], plainpql[2].rows],
      "an engine without results: other files than those of PQL")
check(files[1].names[2:8] == ["L1RESID", "FITVAL", "SIGMA", "FITMU", "RAWRES", "PEARSON"], f"columns {files[1].names}")
rows = np.array([row[2:8] for row in files[1].rows], float)
mu, y = 1 / (1 + np.exp(-rows[:, 1])), oracle.data("bernoulli21")[:, 2]
check(np.allclose(rows[:, 3:], np.stack([mu, y - mu, (y - mu) / np.sqrt(mu * (1 - mu))], 1), atol=1e-5), "the response of PQL")
check("The residual files have the random effects of quasi-likelihood (PQL)." in report, "who is not told")
for case in ("ordinal21", "multinomial22"):
    make(case)
    report = run(case, "AGQ:Y,100,198\n")[1]
    check("random effects of quasi-likelihood (PQL)." in report, f"{case}: who is not told")
    table = tables()[1]
    check(table.names[2:11] == [head + c for head in ("L1RES_", "FITVAL_") for c in "12"] + ["SIGMA", "ETA_1", "ETA_2", "PEARS_1", "PEARS_2"],
          f"columns {table.names}")
    rows = np.array([row[2:11] for row in table.rows], float)
    fitted, reached = rows[:, 2:4], np.rint(rows[:, :2] + rows[:, 2:4])
    check(np.allclose(rows[:, 5:7], linkof(case[:-2], fitted), atol=1e-3), f"{case}: link of PQL")
    check(np.allclose(rows[:, 7:9], pearson(reached, fitted), atol=1e-3), f"{case}: Pearson residuals of PQL")
# What the dialogue asks where a command file leaves it open.
asked = [line for line in commands("bernoulli21", "AGQ:Y,100,5\n").splitlines() if not line.startswith(("RESFIL2", "RESFIL3", "OUTPUT"))]
work.write("run.kdr", "\n".join(asked) + "\n")
for answer, stated in (("y", False), ("n", True)):
    done = work.run("bernoulli21.mdm", "run.kdr", answers=f"y\n0\nn\n{answer}\nrun.txt\n")
    check(done.returncode == 0 and "Are they to have the random effects of the engine" in done.stdout
          and ("RESFILOF:PQL" in work.read("newcmd.kdr")) == stated, f"asked, {answer}: {done.stdout[-300:]}")
check.finish()
