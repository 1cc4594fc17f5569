"""Levels 2 and 3 without any variable: runs give what they give when the levels have variables that no model uses.

    novariables_test.py <program>
"""
import random
import sys

from program import NOFEATURES, Checks, Workplace, body
from residualfiles import FORMS, graphfile, read

work, check = Workplace(sys.argv[1]), Checks()

COMMANDS = """NONLIN:%s
LEVEL1:%s=INTRCPT1+X%s+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
RESFIL1:Y/X
RESFIL2:Y
RESFIL3:Y
RESFILTYPE:%s
GRAPHGAMMAS:graph.bin
PRINTVARIANCE-COVARIANCE:A
TITLE:t
OUTPUT:out.txt
""" + NOFEATURES
KINDS = {  # head, outcome, thresholds, how the graph file is read
    "linear": ("N\nNUMIT:100,N", "Y", "", {}),
    "Bernoulli": ("BERNOULLI\nMACROIT:50,N\nMICROIT:50\nLAPLACE:Y,3", "B", "", dict(nonlinear=True)),
    "ordinal": ("ORDINAL,3\nMACROIT:50,N\nMICROIT:50", "C", "+THOLD2", dict(categories=True)),
}


def study():
    rng = random.Random(3)
    rows = [[], [], []]
    for k in range(1, 21):
        v = rng.gauss(0, 0.7)
        rows[2].append((k, rng.gauss(0, 1)))
        for j in range(1, 5):
            u = rng.gauss(0, 0.7)
            rows[1].append((k, 10 * k + j, rng.gauss(0, 1)))
            for _ in range(6):
                x = rng.gauss(0, 1)
                y = 0.3 + 0.5 * x + u + v + rng.gauss(0, 1)
                rows[0].append((k, 10 * k + j, y, x, y > 0.3, 1 + (y > 0) + (y > 1)))
    return rows


def outcome(name, kind, form):
    head, y, thresholds, graph = KINDS[kind]
    work.write("run.kdr", COMMANDS % (head, y, thresholds, form))
    done = work.run(name + ".mdm", "run.kdr")
    check(done.returncode == 0, f"{name}, {kind}, {form}: {done.stdout[-300:]}")
    report = [line for line in body(work.read("out.txt")) if "data source" not in line]
    tables = [(t.names, t.rows) for t in (read(str(work.folder), form, level) for level in (1, 2, 3))]
    return report, tables, graphfile.read(str(work.folder / "graph.bin"), str(work.folder / (name + ".mdm")), **graph)


want = {}
for n2, n3 in ((1, 1), (0, 1), (1, 0), (0, 0)):
    name = f"m{n2}{n3}"
    work.make(study(), "%9.4f", (["Y", "X", "B", "C"], ["Z"] * n2, ["Q"] * n3), name + ".mdm")
    for kind in KINDS:
        for form in FORMS if kind == "linear" else ("SPSS",):
            if n2 + n3 == 1 and form not in ("SPSS", "SYSTAT"):
                continue
            got = outcome(name, kind, form)
            reference = want.setdefault((kind, form), got)
            for what, a, b in zip(("report", "residual files", "graph file"), got, reference):
                check(a == b, f"{name}, {kind}, {form}: another {what}")

# The same model by dialogue: nothing to choose from at levels 2 and 3, so no question for a predictor there.
work.write("rest.kdr", NOFEATURES + "NUMIT:100,N\nTITLE:t\n")
answers = ["n", "Y", "X", "0", "n", "n", "n", "n", "y", "n", "y", "y", "n", "y", "0", "0", "y", "y", "5", "asked.txt"]
done = work.run("m00.mdm", "rest.kdr", answers="\n".join(answers) + "\n")
check(done.returncode == 0, f"the dialogue: {done.stdout[-300:]}")
results = lambda report: "\n".join(report).split("Level-1 Model")[1].split("Statistics for the current model")[0]
check(results(body(work.read("asked.txt"))) == results(want["linear", "SPSS"][0]), "the dialogue: another model")
check([read(str(work.folder), "FREEFORMAT", level).names for level in (2, 3)]
      == [names for names, _ in want["linear", "FREEFORMAT"][1][1:]], "the dialogue: other residual files")
check.finish()
