"""Cost of a macro iteration as the number of categories grows: usage python3 bench/categories.py build/kdr3

20,000 records in 2,000 units in 100, an intercept random at both levels in each equation, C = 2 to 10 categories.
Microseconds of the whole process per record and macro iteration, the better of two runs.
"""
import pathlib
import random
import resource
import subprocess
import sys
import tempfile

SIZES = (100, 20, 10)
TEMPLATE = """#KDR3 MDM CREATION TEMPLATE
rawdattype:ascii
l1fname:1.dat
l2fname:2.dat
l3fname:3.dat
numl1var:2
numl2var:1
numl3var:1
l1format:(2A5,F4.0,F9.4)
l2format:(2A5,F4.0)
l3format:(A5,F4.0)
l1missing:n
timeofdeletion:now
mdmname:study.mdm
*begin l1vars
Y
X
*end l1vars
*begin l2vars
Z
*end l2vars
*begin l3vars
Q
*end l3vars
"""
EQUATIONS = """LEVEL1:Y=INTRCPT1+X{cuts}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
"""
MODEL = """NONLIN:{kind},{categories}
MACROIT:12,N
MICROIT:20
{equations}LEVEL1DELETION:NONE
FULLOUTPUT:N
RESFIL1:N
RESFIL2:N
RESFIL3:N
HYPOTH:N
CONSTRAIN:N
LVR-BETA:N
TITLE:benchmark
OUTPUT:run.txt
"""


def study(folder, categories):
    rng = random.Random(1)
    rows = [[], [], []]
    for k in range(SIZES[0]):
        v = rng.gauss(0, 0.5)
        rows[2].append("%5d%4d\n" % (k, k % 3))
        for j in range(SIZES[1]):
            u = rng.gauss(0, 0.7)
            rows[1].append("%5d%5d%4d\n" % (k, j, j % 3))
            for _ in range(SIZES[2]):
                x = rng.gauss(0, 1)
                place = 0.5 + (u + v + 0.5 * x + rng.gauss(0, 1.8)) / 5
                rows[0].append("%5d%5d%4d%9.4f\n" % (k, j, min(categories - 1, max(0, int(place * categories))), x))
    for level in range(3):
        pathlib.Path(folder, f"{level + 1}.dat").write_text("".join(rows[level]))
    pathlib.Path(folder, "study.mdmt").write_text(TEMPLATE)


def seconds(words, folder):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    done = subprocess.run(words, cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    assert done.returncode == 0, done.stdout[-300:]
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, done.stdout.count("MACRO ITERATION")


def main():
    program = str(pathlib.Path(sys.argv[1]).resolve())
    print("| C | multinomial, us | ordinal, us |\n|---|---|---|")
    for categories in (2, 3, 4, 6, 8, 10):
        cells = []
        with tempfile.TemporaryDirectory() as folder:
            study(folder, categories)
            seconds([program, "-q", "-r", "study.mdmt"], folder)
            for kind in ("MULTINOMIAL", "ORDINAL"):
                cuts = "".join(f"+THOLD{c}" for c in range(2, categories)) if kind == "ORDINAL" else ""
                sets = categories - 1 if kind == "MULTINOMIAL" else 1
                pathlib.Path(folder, "run.kdr").write_text(MODEL.format(
                    kind=kind, categories=categories, equations=EQUATIONS.format(cuts=cuts) * sets))
                runs = [seconds([program, "-q", "study.mdm", "run.kdr"], folder) for _ in range(2)]
                used, passes = min(runs)
                cells.append("%.2f (%d passes)" % (used * 1e6 / (SIZES[0] * SIZES[1] * SIZES[2] * passes), passes))
        print(f"| {categories} | {cells[0]} | {cells[1]} |", flush=True)


main()
