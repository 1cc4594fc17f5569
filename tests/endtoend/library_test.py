"""The library against the program: the same model by the C header and by a command file gives the same results document,
the random effects that the program writes into its residual files, and the robust errors of its document.

    library_test.py <program>
"""
import json
import math
import os
import pathlib
import subprocess
import sys

import jsonschema

from program import NOFILES, REFERENCE, ROOT, Checks, madefolder, run
from residualfiles import readfree

sys.path.append(str(REFERENCE))
import twolevelmodels

SCHEMA = jsonschema.Draft202012Validator(json.loads((ROOT / "docs" / "results.schema.json").read_text()))
FAMILIES = ["N", "BERNOULLI", "BINOMIAL", "POISSON", "MULTINOMIAL", "ORDINAL"]
LETTER = {"": 0, ",1": 1, ",2": 2}

# Level-1 terms, each with its level-2 terms, each with its level-3 terms: name, centering, random.
SLOPES = [("", "", 1, [("", "", 1, [("", ""), ("Q1", ",2")]), ("Z1", ",2", 0, [("", "")])]),
          ("X1", ",1", 1, [("", "", 1, [("", "")])]), ("X2", ",2", 0, [("", "", 0, [("", "")])])]
INTERCEPTS = [("", "", 1, [("", "", 1, [("", "")])]), ("X2", "", 0, [("", "", 0, [("", "")])])]


class Model:
    def __init__(self, outcome, family, terms, counts="", categories=0, keywords="", calls=(), mdm="nonlin.mdm"):
        """Of data of two levels the terms of level 3 are left out. `keywords` of the command file, a line each, and what they are as calls of the library: `set` alike for all
        with a number, the others are in `calls`."""
        kind = FAMILIES[family] + (f",{categories}" if categories else f",{counts}" if counts else "")
        thresholds = "".join(f"+THOLD{c}" for c in range(2, categories)) if family == 5 else ""
        sets = categories - 1 if family == 4 else 1
        self.mdm, two = mdm, mdm == "two.mdm"
        self.lines, self.calls = [f"NONLIN:{kind}"], [f"make {outcome} {counts or '-'} {family} {categories}"]
        first = "+".join((name or "INTRCPT1") + letter for name, letter, _, _ in terms)
        for _ in range(sets):
            self.lines += [f"LEVEL1:{outcome}={first}{thresholds}+RANDOM"]
            for name, _, random, level2 in terms:
                second = "+".join((n or "INTRCPT2") + letter for n, letter, _, _ in level2)
                self.lines += [f"LEVEL2:{name or 'INTRCPT1'}={second}{'+RANDOM' if random else ''}/"]
                for n, _, varies, level3 in level2:
                    third = "+".join((v or "INTRCPT3") + letter for v, letter in level3)
                    self.lines += [] if two else [f"LEVEL3:{n or 'INTRCPT2'}={third}{'+RANDOM' if varies else ''}/"]
        place = 0
        for c, (name, letter, random, level2) in enumerate(terms):
            self.calls += [f"level1 {name or '-'} {LETTER[letter]} {random}"]
            for n, after, varies, level3 in level2:
                self.calls += [f"level2 {c} {n or '-'} {LETTER[after]} {0 if two else varies}"]
                if two:
                    continue
                self.calls += [f"level3 {place} {v or '-'} {LETTER[behind]}" for v, behind in level3]
                place += 1
        self.lines += ["LEVEL1DELETION:NONE"] + ([] if two or "LVR-BETA" in keywords else ["LVR-BETA:N"]) + keywords.split()
        if "CONSTRAIN" not in keywords:
            self.lines += ["CONSTRAIN:N"]
        self.lines += ["HYPOTH:N", "TITLE:", "OUTPUT:out.txt", "RESULTS:out.json", "RESFILTYPE:FREEFORMAT", "RESFIL1:N",
                       "RESFIL2:Y"] + ([] if two else ["RESFIL3:Y"])
        self.calls += list(calls)


LINEAR = "NUMIT:300,N"
CHAIN = "MACROIT:60,N MICROIT:200"
SETCHAIN = ["set MACROIT 60", "set MICROIT 200"]
MODELS = {
    "linear": Model("X1", 0, INTERCEPTS, keywords=LINEAR, calls=["set NUMIT 300"]),
    "slopes": Model("YPOIS", 0, SLOPES, keywords=LINEAR + " FISHERTYPE:1 GAMMA1:0,0,1,0,0 GAMMA1:0,0,0,1,0 GAMMA2:1,0,0,-1,0 LVR-BETA:O,P",
                    calls=["set NUMIT 300", "latent op", "set FISHERTYPE 1", "hypothesis 2 5 0 0 1 0 0 0 0 0 1 0", "hypothesis 1 5 1 0 0 -1 0"]),
    "constrained": Model("YPOIS", 0, SLOPES, keywords=LINEAR + " CONSTRAIN:0,1,0,1,0 GAMMA1:1,0,0,-1,0",
                         calls=["set NUMIT 300", "constrain 5 0 1 0 1 0", "hypothesis 1 5 1 0 0 -1 0"]),
    "restricted": Model("YPOIS", 0, SLOPES, keywords=LINEAR + " ESTTAU2:E,0.1,E CONTAU3:1,3",
                        calls=["set NUMIT 300", "restrict 2 2 nan 0.1 0.1 nan 0 0 0 0", "restrict 3 2 nan nan nan nan 1 0 0 1"]),
    "few units": Model("YPOIS", 0, SLOPES, keywords=LINEAR + " LIKELIHOOD:REML DDF:KENWARDROGER ROBUST:CR2 EDGECOV:FULL PROFILE:Y SHARES:Y",
                       calls=["set NUMIT 300", *(f"set {name} {value}" for name, value in (
                           ("REML", 1), ("DDF", 2), ("CR2", 1), ("EDGECOVFULL", 1), ("PROFILE", 1), ("SHARES", 1)))]),
    "observed": Model("X1", 0, INTERCEPTS, keywords=LINEAR + " DDF:SATTERTHWAITE,OBSERVED", calls=["set NUMIT 300", "set DDF 1", "set DDFOBSERVED 1"]),
    "weighted": Model("X1", 0, INTERCEPTS, keywords=LINEAR + " LEVEL1WEIGHT:W1 LEVEL2WEIGHT:W2 FIXSIGMA2:0.8",
                      calls=["set NUMIT 300", "weights W1 W2 - -", "set FIXSIGMA2 0.8"]),
    "known variances": Model("X1", 0, INTERCEPTS, keywords=LINEAR + " VARIANCEKNOWN:W1",
                             calls=["set NUMIT 300", "weights - - - W1"]),
    "small sample": Model("YPOIS", 0, INTERCEPTS, keywords=LINEAR + " LIKELIHOOD:REML DDF:SATTERTHWAITE ROBUST:CR2 GAMMA1:1,1",
                          calls=["set NUMIT 300", "set REML 1", "set DDF 1", "set CR2 1", "hypothesis 1 2 1 1"]),
    "stopped": Model("X1", 0, INTERCEPTS, keywords="NUMIT:2,N", calls=["set NUMIT 2"]),
    "pql": Model("YBERN", 1, SLOPES, keywords=CHAIN + " FIXSIGMA2:1.0 GAMMA1:0,0,1,-1,0",
                 calls=SETCHAIN + ["set FIXSIGMA2 1", "hypothesis 1 5 0 0 1 -1 0"]),
    "short": Model("YBIN", 2, INTERCEPTS, "NTRIAL", keywords="MACROIT:2,N MICROIT:200", calls=["set MACROIT 2", "set MICROIT 200"]),
    "laplace": Model("YBERN", 1, INTERCEPTS, keywords=CHAIN + " LAPLACE:Y,20", calls=SETCHAIN + ["set LAPLACE 20"]),
    "quadrature": Model("YPOIS", 3, INTERCEPTS, keywords=CHAIN + " AGQ:Y,40,9", calls=SETCHAIN + ["set AGQ 9", "set AGQIT 40"]),
    "weighted quadrature": Model("YBERN", 1, INTERCEPTS, keywords=CHAIN + " AGQ:Y,40,5 LEVEL1WEIGHT:W1 LEVEL2WEIGHT:W2 WEIGHTSCALE:NONE",
                                 calls=SETCHAIN + ["set AGQ 5", "set AGQIT 40", "weights W1 W2 - -", "set WEIGHTSCALE 0"]),
    "too few points": Model("YPOIS", 3, INTERCEPTS, keywords=CHAIN + " AGQ:Y,20,3", calls=SETCHAIN + ["set AGQ 3", "set AGQIT 20"]),
    "multinomial": Model("YMUL3", 4, INTERCEPTS, categories=3, keywords=CHAIN, calls=SETCHAIN),
    "multinomial, quadrature": Model("YMUL3", 4, INTERCEPTS, categories=3, keywords=CHAIN + " AGQ:Y,40,5", calls=SETCHAIN + ["set AGQ 5", "set AGQIT 40"]),
    "two levels": Model("YPOIS", 0, SLOPES, keywords=LINEAR + " GAMMA1:0,1,-1,0", calls=["set NUMIT 300", "hypothesis 1 4 0 1 -1 0"], mdm="two.mdm"),
    "two levels, quadrature": Model("YBERN", 1, INTERCEPTS, keywords=CHAIN + " AGQ:Y,40,9", calls=SETCHAIN + ["set AGQ 9", "set AGQIT 40"],
                                    mdm="two.mdm"),
    "ordinal": Model("YORD5", 5, INTERCEPTS, categories=5, keywords=CHAIN, calls=SETCHAIN),
    "ordinal, quadrature": Model("YORD5", 5, INTERCEPTS, categories=5, keywords=CHAIN + " AGQ:Y,40,7", calls=SETCHAIN + ["set AGQ 7", "set AGQIT 40"]),
}


def library(client, folder, model):
    """The results document, the rows of means and covariances of each level, and the robust errors of each tau."""
    done = subprocess.run([client], cwd=folder, input="\n".join(["open " + model.mdm, *model.calls, "fit"]) + "\n",
                          capture_output=True, text=True, timeout=300)
    text, _, rest = done.stdout.partition("\n}\n")
    if done.returncode != 0:
        raise ValueError(done.stdout + done.stderr)
    rows = {level: [[float(x) for x in line.split()[1:]] for line in rest.splitlines() if line.startswith(level)]
            for level in ("level2", "level3", "tau_pi", "tau_beta")}
    return json.loads(text + "}"), rows


def compare(check, name, program, client, folder):
    model = MODELS[name]
    pathlib.Path(folder, "run.kdr").write_text("\n".join(model.lines) + "\n")
    code, said = run(program, folder, model.mdm, "run.kdr")
    check(code == 0, f"{name}: the program ended with code {code}\n{said[-600:]}")
    want = json.loads(pathlib.Path(folder, "out.json").read_text())
    found, rows = library(client, folder, model)
    check(not (errors := [e.message for e in SCHEMA.iter_errors(found)]), f"{name}: {errors[:3]}")
    for member in want:
        if member in ("data", "files", "checksums"):
            continue
        for one, two in zip(want[member], found[member]) if member == "phases" else [(want[member], found[member])]:
            different = [key for key in one if one[key] != two.get(key)] if isinstance(one, dict) else [two]
            check(one == two, f"{name}: {member} {one['phase'] if member == 'phases' else one} differs in {different}")
        if member == "phases":
            check.equal(f"{name}: phases", len(found[member]), len(want[member]))
    # Robust errors of the variances: those of the last engine, else none.
    for tau in ("tau_pi", "tau_beta"):
        printed = [phase[tau]["robust_standard_error"] for phase in found["phases"] if phase[tau] and "robust_standard_error" in phase[tau]]
        numbers = [x for row in printed[-1] or [] for x in row] if printed else []
        check(all(math.isnan(x) for x in rows[tau][0]) if not numbers else rows[tau] == [numbers], f"{name}: robust {tau}: {rows[tau]} beside {printed}")
        check(bool(numbers) == ("quadrature" in name or name == "laplace") or not rows[tau][0], f"{name}: robust {tau} {printed}")
    # Posterior means EB... and the lower triangle of the covariances PV... of the residual files, to their digits. Those of the
    # weighted linear model stand there before they are divided by the root of the unit's weight, EC... less FV... behind it.
    check(model.mdm != "two.mdm" or not rows["level3"], f"{name}: level 3")
    for level, file in (("level2", "resfil2.dat"), ("level3", "resfil3.dat"))[:1 if model.mdm == "two.mdm" else 2]:
        table = readfree(os.path.join(folder, file), int(level[-1]))
        eb = [i for i, column in enumerate(table.names) if column.startswith("EB")]
        pv = [i for i, column in enumerate(table.names) if column.startswith("PV")]
        n = len(eb)
        triangle = [n + i * n + j for i in range(n) for j in range(i + 1)]
        check(len(table.rows) == len(rows[level]) and n > 0 and len(pv) == len(triangle), f"{name}: {level}: {table.names}")
        for printed, row in zip(table.rows, rows[level]):
            if name == "weighted":
                named = dict(zip(table.names, printed))
                (mean, covariance), effect = row, table.names[eb[0]][2:]
                check(abs(named["EC" + effect] - named["FV" + effect] - mean) <= 2e-6, f"{name}: {level}: {printed} beside {row}")
                root = mean / printed[eb[0]]
                check(abs(printed[eb[0]]) < 0.05 or abs(printed[pv[0]] * root ** 2 / covariance - 1) <= 1e-4, f"{name}: {level}: {printed} beside {row}")
                continue
            for i, j in list(zip(eb, range(n))) + list(zip(pv, triangle)):
                check(abs(printed[i] - row[j]) <= 6e-6 * max(1, abs(row[j])), f"{name}: {level}: {printed} beside {row}")


def main():
    program = str(pathlib.Path(sys.argv[1]).resolve())
    client = str(pathlib.Path(program).parent / "library_client")
    check = Checks()
    folder = madefolder(program, REFERENCE / "nonlinear", "nonlin.mdmt")
    pathlib.Path(folder, "two.mdmt").write_text(twolevelmodels.template("nonlinear", twolevelmodels.NAMES["nonlin"]))
    check.equal("two.mdm", run(program, folder, "-r", "two.mdmt")[0], 0)
    for name in sys.argv[2:] or MODELS:
        compare(check, name, program, client, folder)
    check.finish()


if __name__ == "__main__":
    main()
