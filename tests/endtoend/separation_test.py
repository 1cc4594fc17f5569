"""Separation and values that an outcome can't have: said in every outcome type, by every engine, in all places.

    separation_test.py <program>

The data are made to be separated, and one changed record is enough for an estimate to exist.
"""
import json
import random
import sys

from program import NOFEATURES, NOFILES, Checks, Workplace, template

check = Checks()
work = Workplace(sys.argv[1])
work.write("s.mdmt", template("s.mdm", ("s1.dat", "s2.dat", "s3.dat"), ("(2A4,7F12.6)", "(2A4,F12.6)", "(A4,F12.6)"),
                              (["Y", "TIMES", "GRADE", "N", "X", "W", "D"], ["D2"], ["D3"])))
KINDS = {"BERNOULLI": "Y", "BERNOULLI,N": "TIMES", "POISSON": "TIMES", "POISSON,N": "TIMES", "MULTINOMIAL,3": "GRADE",
         "ORDINAL,3": "GRADE"}
ENGINES = ("", "LAPLACE:Y,30\n", "AGQ:Y,30,3\n", "AGQ:Y,30,5\nAGQNODES:FIXED\n")


def study(change):
    """change(row, d2, d3) of each record Y, TIMES, GRADE, N, X, W, D may change it in place."""
    rng = random.Random(11)
    rows = [[], [], []]
    for k in range(14):
        v, d3 = rng.gauss(0, 0.6), float(k % 5 == 1)
        rows[2].append("%4d%12.6f\n" % (k, d3))
        for j in range(4):
            u, d2 = rng.gauss(0, 0.6), float(rng.random() < 0.3)
            rows[1].append("%4d%4d%12.6f\n" % (k, j, d2))
            for i in range(7):
                x, w, n = rng.gauss(0, 1), rng.gauss(0, 1), rng.randint(1, 4)
                eta = 0.3 * x - 0.3 * w + u + v
                made = [float(rng.random() < 1 / (1 + 2.718 ** -eta)) for _ in range(n)]
                grade = 1.0 + (eta + rng.gauss(0, 1.6) > -0.7) + (eta + rng.gauss(0, 1.6) > 0.7)
                row = [made[0], sum(made), grade, n, x, w, float(rng.random() < 0.25)]
                change(row, d2, d3)
                rows[0].append("%4d%4d" % (k, j) + "".join("%12.6f" % c for c in row) + "\n")
    for level in range(3):
        work.write("s%d.dat" % (level + 1), "".join(rows[level]))
    done = work.run("-r", "s.mdmt")
    assert done.returncode == 0, done.stdout


def fit(kind, predictors, more="", level2="", level3="", strict=("-strict",)):
    """Exit code, console, report, document."""
    cuts = "+THOLD2" if kind.startswith("ORDINAL") else ""
    one = f"LEVEL1:{KINDS[kind]}=INTRCPT1{''.join('+' + x for x in predictors)}{cuts}+RANDOM\n"
    one += f"LEVEL2:INTRCPT1=INTRCPT2{level2}+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3{level3}+RANDOM/\n"
    one += "LEVEL3:D2=INTRCPT3/\n" if level2 else ""
    one += "".join(f"LEVEL2:{x}=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n" for x in predictors)
    sets = 2 if kind.startswith("MULTINOMIAL") else 1
    work.write("s.kdr", f"NONLIN:{kind}\nMACROIT:80,N\nMICROIT:50\nFIXSIGMA2:1\n{more}{one * sets}OUTPUT:s.txt\n" + NOFILES + NOFEATURES)
    (work.folder / "s.json").unlink(missing_ok=True)
    done = work.run("s.mdm", "s.kdr", "-results", "s.json", *strict)
    made = work.folder / "s.json"
    return done.returncode, done.stdout, work.read("s.txt"), json.loads(made.read_text()) if made.exists() else {}


def alike(where):
    """Outcomes alike in all records where where(row, d2, d3) holds."""
    def change(row, d2, d3):
        if where(row, d2, d3):
            row[0], row[1], row[2] = 1.0, float(row[3]), 1.0
    return change


def told(what, result, *names):
    code, said, text, document = result
    check(code == 20, f"{what}: code {code}, {said[-200:]!r}")
    phases = [p for p in document.get("phases", []) if p["phase"] != "identity"]
    check(document.get("converged") is False and phases and not any(p["converged"] for p in phases),
          f"{what}: converged {[(p['phase'], p['converged']) for p in phases]}")
    for place, words in (("console", said), ("report", text), ("document", " ".join(document.get("warnings", [])))):
        check("separation" in words and all(name in words for name in names), f"{what}: {place} {words[-300:]!r}")


def separated():
    # A predictor of each level, every type: successes only, counts of 0, one grade.
    places = {"D": lambda row, d2, d3: row[6] == 1, "D2": lambda row, d2, d3: d2 == 1, "D3": lambda row, d2, d3: d3 == 1}
    symbols = {"D": "D (G100", "D2": "D2 (G010", "D3": "D3 (G001"}
    for name, where in places.items():
        for kind in KINDS:
            def change(row, d2, d3):
                if where(row, d2, d3):
                    row[0], row[1], row[2] = (0.0, 0.0, 1.0) if kind.startswith("POISSON") else (1.0, float(row[3]), 1.0)
            study(change)
            predictors, more = (["D"] if name == "D" else []), dict(level2="+D2" * (name == "D2"), level3="+D3" * (name == "D3"))
            told(f"{kind}, {name}", fit(kind, predictors, **more), "separation by " + name, symbols[name])
            if name == "D":  # records that differ: nothing is said
                left = [3.0, 2.0]  # of a multinomial run two: no category may be missing

                def but(row, d2, d3):
                    before = row[:3]
                    if where(row, d2, d3):
                        change(row, d2, d3)
                        if left and row[:3] != before:
                            row[:3] = [1 - row[0], 1.0 if kind.startswith("POISSON") else 0.0, left.pop()]
                study(but)
                code, said, text, _ = fit(kind, predictors)
                check("separation" not in said + text and code == 0, f"{kind}, all but one: {code} {said[-200:]!r}")
    study(alike(places["D"]))
    for engine in ENGINES[1:]:
        told("Bernoulli, " + engine.strip().replace("\n", " "), fit("BERNOULLI", ["D"], engine), "separation by D")
    told("binomial, quadrature", fit("BERNOULLI,N", ["D"], ENGINES[2]), "separation by D")


def together():
    """Two predictors that separate together, neither alone: completely, and but for the records at one place."""
    for rule, what in ((lambda row: row[4] + row[5] > 0, "completely"), (None, "in part")):
        def change(row, d2, d3):
            row[4] = round(row[4], 1) or 0.1
            if what == "completely":
                row[0], row[2] = float(rule(row)), 1.0 + (not rule(row)) * (1 + (row[4] + row[5] < -1))
                row[1] = row[3] * row[0]
            else:  # alike where both are 1, and where both are 0
                row[5] = float(row[5] > 0)
                if row[5] == row[6]:
                    row[0], row[1], row[2] = row[5], row[3] * row[5], 3.0 - 2.0 * row[5]
        study(change)
        for kind in ("BERNOULLI", "BERNOULLI,N", "MULTINOMIAL,3", "ORDINAL,3"):
            predictors = ["X", "W"] if what == "completely" else ["W", "D"]
            told(f"{kind}, {what}", fit(kind, predictors), "separation", predictors[0], predictors[1])


def impossible():
    """One sentence with the first record and how many, before the first pass."""
    for kind, place, value, words in (
            ("BERNOULLI", 0, 0.5, "Y must be 0 or 1, but"), ("BERNOULLI", 0, -99.0, "Y must be 0 or 1, but"),
            ("BERNOULLI,N", 1, 1.5, "TIMES must be a whole number from 0 to that of the trials N"),
            ("BERNOULLI,N", 1, 9.0, "from 0 to that of the trials N"), ("BERNOULLI,N", 3, 0.0, "N a whole number above 0"),
            ("BERNOULLI,N", 3, 2.5, "N a whole number above 0"), ("POISSON", 1, -99.0, "TIMES must be a whole number of 0 or more"),
            ("POISSON", 1, 2.5, "TIMES must be a whole number of 0 or more"), ("POISSON,N", 3, 0.0, "the exposure N above 0")):
        number = [0]

        def change(row, d2, d3):
            number[0] += 1
            if number[0] in (31, 40, 200):
                row[place] = value
        study(change)
        code, said, text, _ = fit(kind, ["X"])
        sentence = f"3 of 392 records have something else, the first one record 31 (level-3 unit 1, level-2 unit 0) with "
        for where, told in (("console", said), ("report", text)):
            told = " ".join(told.split())
            check(code == 100 and words in told and sentence in told, f"{kind} {value}: code {code}, {where} {told[-300:]!r}")
        check("MACRO ITERATION" not in said, f"{kind} {value}: before the first pass")


separated()
together()
impossible()
check.finish()
