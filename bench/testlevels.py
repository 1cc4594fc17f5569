"""Rejections of a true null hypothesis at a nominal 5% by each way of testing: usage python3 bench/testlevels.py PROGRAM FILE [STUDIES]

Y = v + u + e with variances .1 (level 3), .5 (level 2) and 1, five level-2 units of 2 to 8 records in each of 8, 15 and 30
level-3 units, and a level-3 predictor Q without an effect, whose test is counted. FILE gets a line for each study and says where
to go on. Three minutes of a quiet core for 400 studies of each size. docs/fewunits.md has the table.
"""
import json
import math
import pathlib
import random
import subprocess
import sys
import tempfile

COMMANDS = ("NONLIN:N\nNUMIT:500,N\nLEVEL1:Y=INTRCPT1+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Q+RANDOM/\n"
            "LEVEL1DELETION:NONE\nRESFIL1:N\nRESFIL2:N\nRESFIL3:N\nCONSTRAIN:N\nHYPOTH:N\nLVR-BETA:N\nOUTPUT:s.txt\nRESULTS:s.json\n")
RUNS = {  # lines, and the columns that the run gives: model-based and robust
    "": ("ML, degrees of freedom by counts", "robust (CR0), by counts"),
    "DDF:SATTERTHWAITE\nPROFILE:Y\n": ("ML, Satterthwaite", None),
    "LIKELIHOOD:REML\n": ("REML, by counts", None),
    "LIKELIHOOD:REML\nDDF:SATTERTHWAITE\nROBUST:CR2\n": ("REML, Satterthwaite", "robust (CR2), Satterthwaite"),
    "LIKELIHOOD:REML\nDDF:KENWARDROGER\n": ("REML, Kenward-Roger", None),
}
PROFILE = "ML, profile interval"


def study(path, units3, seed):
    rng = random.Random(f"{units3} {seed}")
    lines, unit = ["k,j,Y,Q"], 0
    for k in range(units3):
        q, v = rng.gauss(0, 1), rng.gauss(0, .1 ** .5)
        for _ in range(5):
            unit += 1
            u = rng.gauss(0, .5 ** .5)
            for _ in range(rng.randint(2, 8)):
                lines.append("%d,%d,%.8f,%.8f" % (k + 1, unit, v + u + rng.gauss(0, 1), q))
    path.write_text("\n".join(lines) + "\n")


def rejections(program, folder, units3, seed):
    """Which of the methods reject."""
    study(folder / "s.csv", units3, seed)
    call = lambda *words: subprocess.run([program, "-q", *words], cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, check=True)
    call("-from", "s.csv", "-level3", "k", "-level2", "j", "-level1", "Y")
    found = set()
    for lines, (based, robust) in RUNS.items():
        (folder / "s.kdr").write_text(COMMANDS + lines)
        call("s.mdm", "s.kdr")
        phase = [p for p in json.loads((folder / "s.json").read_text())["phases"] if p["phase"] == "final"][0]
        effect = phase["fixed_effects"][1]
        for side, name in (("model_based", based), ("robust", robust)):
            if name and effect[side]["p"] is not None and effect[side]["p"] < .05:
                found.add(name)
        if "PROFILE" in lines and not phase["profile_intervals"]["fixed_effects"][1][0] < 0 < phase["profile_intervals"]["fixed_effects"][1][1]:
            found.add(PROFILE)
    return found


SIZES = (8, 15, 30)


def main():
    program, file = str(pathlib.Path(sys.argv[1]).resolve()), pathlib.Path(sys.argv[2])
    studies = int(sys.argv[3]) if len(sys.argv) > 3 else 400
    done = file.read_text().splitlines() if file.exists() else []
    with tempfile.TemporaryDirectory() as place, file.open("a") as out:
        for i in range(len(done), studies * len(SIZES)):
            found = rejections(program, pathlib.Path(place), SIZES[i % len(SIZES)], i // len(SIZES))
            out.write(f"{SIZES[i % len(SIZES)]};" + ";".join(sorted(found)) + "\n")
            out.flush()
    made = [line.split(";") for line in file.read_text().splitlines()]
    names = [name for pair in RUNS.values() for name in pair if name] + [PROFILE]
    print("| test | " + " | ".join(f"{n} level-3 units" for n in SIZES) + " |\n|---|" + "---:|" * len(SIZES))
    for name in names:
        shares = [sum(name in line[1:] for line in made if line[0] == str(n)) / sum(line[0] == str(n) for line in made) for n in SIZES]
        print(f"| {name} | " + " | ".join(f"{100 * share:.1f}%" for share in shares) + " |")
    count = len(made) // len(SIZES)
    print(f"\n{count} studies of each size; standard error of 5%: {100 * math.sqrt(.05 * .95 / count):.1f}%.")


if __name__ == "__main__":
    main()
