#!/usr/bin/env python3
"""Two builds of the program side by side: random command files of every outcome type, and all that they leave behind.

    sameruns.py OLD NEW [RUNS] [SEED]

Runs of both programs on the made study of tests/reference/nonlinear, with random equations, centering, weights,
restrictions, engines and files; every fourth command file has a small fault. Exit codes, console, reports, residual, graph, variance and start files, documents and
newcmd.kdr must be the same to the byte, but for date and time, the style sheet of HTML reports, and the order and the
version of the members of a document. For a change that is meant to change no number.
"""
import json
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "mutants"))
from commandfiles import mutant

STUDY = pathlib.Path(__file__).parent / "nonlinear"
OUTCOMES = [("N", "X1"), ("N", "YPOIS"), ("N", "X2"), ("BERNOULLI", "YBERN"), ("BINOMIAL,NTRIAL", "YBIN"), ("POISSON", "YPOIS"),
            ("POISSON,EXPOS", "YEXP"), ("MULTINOMIAL,3", "YMUL3"), ("ORDINAL,3", "YORD3"), ("ORDINAL,5", "YORD5")]


def equations(draw, kind, outcome):
    """The equation lines of a random model, and what the options have to know of it: random coefficients, effects."""
    lines, random2, random3, effects = [], 0, 0, 0
    predictors = [v for v in ("X1", "X2", "W1") if v != outcome and draw.random() < 0.6]
    terms = ["INTRCPT1"] + [v + draw.choice(["", ",1", ",2"]) for v in predictors]
    categories = int(kind.split(",")[1]) if kind.startswith(("MULT", "ORD")) else 0
    sets = categories - 1 if kind.startswith("MULT") else 1
    thresholds = [f"THOLD{c}" for c in range(2, categories)] if kind.startswith("ORD") else []
    for number in range(sets):
        label = f"{outcome}({number + 1})" if sets > 1 else outcome
        lines.append(f"LEVEL1:{label if sets == 1 else outcome}={'+'.join(terms + thresholds)}+RANDOM")
        for c, coefficient in enumerate(["INTRCPT1"] + predictors):
            slope = c == 0 or draw.random() < 0.3
            level2 = ["INTRCPT2"] + [v + draw.choice(["", ",1", ",2"]) for v in ("Z1", "Z2") if draw.random() < 0.35]
            lines.append(f"LEVEL2:{coefficient}={'+'.join(level2)}{'+RANDOM' if slope else ''}/")
            random2 += slope
            for t, term in enumerate(level2):
                level3 = ["INTRCPT3"] + [v + draw.choice(["", ",2"]) for v in ("Q1", "Q2") if draw.random() < 0.25]
                varies = t == 0 and (c == 0 or draw.random() < 0.2)
                lines.append(f"LEVEL3:{term.split(',')[0]}={'+'.join(level3)}{'+RANDOM' if varies else ''}/")
                random3 += varies
                effects += len(level3)
    return lines, random2, random3, effects + len(thresholds) * sets


def commandfile(draw):
    kind, outcome = draw.choice(OUTCOMES)
    linear = kind == "N"
    lines, random2, random3, effects = equations(draw, kind, outcome)
    head = [f"NONLIN:{kind}"]
    if linear:
        head += [f"NUMIT:{draw.choice([3, 20, 200])},{draw.choice('NY')}"]
    else:
        head += [f"MACROIT:{draw.choice([2, 5, 40])},{draw.choice('NY')}", f"MICROIT:{draw.choice([5, 50])}"]
    chance = lambda share: draw.random() < share
    lines += [f"FULLOUTPUT:{draw.choice('NY')}", "TITLE:same", f"OUTPUT:{draw.choice(['out.txt', 'out.html'])}", "LVR-BETA:N"]
    lines += ["LEVEL1DELETION:NONE", "HYPOTH:N"]
    if chance(0.3) and not kind.startswith(("MULT", "ORD")):
        row = ",".join(draw.choice(["0", "1", "-1", "0.5"]) for _ in range(effects - 1)) + ",1"
        lines += [f"GAMMA1:{row}"]
    lines += ["CONSTRAIN:" + (",".join(["1", "1"] + ["0"] * (effects - 2)) if chance(0.1) and effects > 2 else "N")]
    if chance(0.25):
        lines += ["LEVEL1WEIGHT:W1"] * chance(0.7) + ["LEVEL2WEIGHT:W2"] + ["LEVEL3WEIGHT:W3"] * chance(0.5)
    elif kind == "BERNOULLI" and chance(0.4):
        lines += [f"LAPLACE:Y,{draw.choice([1, 20])}"]
    elif kind.startswith(("BERN", "BIN", "POIS")) and chance(0.4):
        lines += [f"AGQ:Y,{draw.choice([2, 12])},{draw.choice([3, 5])}"]
    if chance(0.15):
        lines += ["DIAGONALIZETAUPI:Y"]
    if chance(0.15):
        lines += ["DIAGONALIZETAUBETA:Y"]
    if chance(0.1):
        lines += ["ESTTAU2:" + ",".join(["0.5"] + ["*"] * (random2 * (random2 + 1) // 2 - 1))]
    if chance(0.2):
        lines += [f"FISHERTYPE:{draw.choice([0, 1, 2])}"]
    if chance(0.2):
        lines += [f"ACCEL:{draw.choice([1, 3, 10])}"]
    if chance(0.15) and not kind.startswith(("MULT", "ORD")):
        lines += ["FIXSIGMA2:" + draw.choice(["1.0", "2.5"])]
    if chance(0.1) and linear:
        lines += ["VARIANCEKNOWN:W1"]
    if chance(0.1) and linear:
        lines += [f"HETIT:{draw.choice([1, 5])}"]
    if chance(0.1):
        lines += ["DEVIANCE:4000.5", "DF:3"]
    if chance(0.4):
        lines += ["PRINTVARIANCE-COVARIANCE:" + draw.choice("YA")]
    if chance(0.3):
        lines += ["STARTVALS:start.dat"]
    if chance(0.3):
        lines += ["GRAPHGAMMAS:graph.bin"]
    for level, files in (1, "Y/X1,X2/Z1/Q1"), (2, "Y/Z1,Z2/Q1"), (3, "Y/Q1,Q2"):
        lines += [f"RESFIL{level}:{files if chance(0.4) else 'N'}"]
    lines += [f"RESFILTYPE:{draw.choice(['FREEFORMAT', 'SYSTAT', 'SAS', 'SPSS', 'STATA'])}"]
    lines += [f"RESULTS:{draw.choice(['out.json', 'out.csv'])}"]
    if chance(0.05):
        lines += ["DEBUG:1"]
    return "\n".join(["#same"] + head + lines) + "\n"


def masked(data):
    data = re.sub(rb"<style>.*?</style>", b"STYLE", data, flags=re.S)
    data = re.sub(rb"\d+ \w+ \d{4}, \w+day", b"DATE", data)
    data = re.sub(rb"\d\d \w{3} \d\d", b"DAY", data)
    return re.sub(rb"\d{4}-\d\d-\d\dT[\d:]+|[ \d]\d:[ \d]\d:[ \d]\d|[ \d]\d:\d\d", b"TIME", data)


def document(data):
    """A results document without what tells of its form."""
    members = json.loads(data)
    for name in ("format_version", "checksums"):
        members.pop(name, None)
    return members


def outputs(program, folder, text):
    """Exit code, console, and every file of a run in a folder of its own."""
    folder.mkdir()
    shutil.copy(folder.parent / "nonlin.mdm", folder)
    (folder / "run.kdr").write_text(text)
    done = subprocess.run([program, "-q", "nonlin.mdm", "run.kdr"], cwd=folder, stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=300)
    made = {path.name: masked(path.read_bytes()) for path in folder.iterdir() if path.name not in ("nonlin.mdm", "run.kdr")}
    if "out.json" in made:
        made["out.json"] = document(made["out.json"])
    made["exit"], made["console"], made["errors"] = done.returncode, masked(done.stdout), done.stderr
    shutil.rmtree(folder)
    return made


def main():
    old, new = (str(pathlib.Path(program).resolve()) for program in sys.argv[1:3])
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 200
    draw = random.Random(int(sys.argv[4]) if len(sys.argv) > 4 else 1)
    differ, codes = 0, {}
    with tempfile.TemporaryDirectory() as place:
        place = pathlib.Path(place)
        for path in STUDY.iterdir():
            shutil.copy(path, place)
        subprocess.run([old, "-q", "-r", "nonlin.mdmt"], cwd=place, check=True, capture_output=True)
        for number in range(runs):
            text = commandfile(draw)
            if number % 4 == 3:
                text = mutant(text, draw)
            first, second = (outputs(program, place / name, text) for program, name in ((old, "old"), (new, "new")))
            codes[first["exit"]] = codes.get(first["exit"], 0) + 1
            wrong = sorted(name for name in first.keys() | second.keys() if first.get(name) != second.get(name))
            if wrong:
                differ += 1
                pathlib.Path(f"differs-{number}.kdr").write_text(text)
                print(f"run {number}: {', '.join(wrong)}: differs-{number}.kdr", flush=True)
    print(f"{runs} runs, exit codes {codes}: {differ} differ")
    return 1 if differ else 0


if __name__ == "__main__":
    sys.exit(main())
