"""Residual files joined to the raw data as docs/residuals.md tells it.

    joining_test.py <program> [directory]

Clinics and wards whose names have a blank inside, records with missing values deleted by the run. The examples of the
page must find what R found (tests/reference/joined.txt). With a directory, the files that tests/reference/joined.R
opens are put there.
"""
import csv
import random
import re
import shutil
import subprocess
import sys
from pathlib import Path

from program import NOFEATURES, ROOT, Checks, Workplace, template
from residualfiles import FORMS, read

TEMPLATE = template("clinics.mdm", ("level1.dat", "level2.dat", "level3.dat"),
                    ("(A9,1X,A6,2F9.4)", "(A9,1X,A6,F9.4)", "(A9,F9.4)"), (["Y", "X"], ["Z"], ["Q"]),
                    missing="y/SAME\n-99.000000", deletion="analysis")
COMMANDS = """NONLIN:N
NUMIT:200,N
LEVEL1:Y=INTRCPT1+X+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
RESFIL1:Y/Y
RESFIL2:Y
RESFIL3:Y
RESFILTYPE:%s
RESFILRECNUM:Y
TITLE:clinics
OUTPUT:run.txt
""" + NOFEATURES


def study(place):
    """24 clinics of 3 wards; a sixth of the outcomes, and every one of a ward, is missing."""
    rng = random.Random(7)
    raw, level1, level2, level3 = ["clinic,ward,y,x"], [], [], []
    for k in range(1, 25):
        clinic, v = "Klinik %02d" % k, rng.gauss(0, 1)
        level3.append("%s%9.4f" % (clinic, v))
        for j in range(1, 4):
            ward, u = "Ward %d" % j, rng.gauss(0, 1)
            level2.append("%s %s%9.4f" % (clinic, ward, u))
            for _ in range(6):
                x = round(rng.gauss(0, 1), 4)
                y = round(1 + x + v + u + rng.gauss(0, 1), 4)
                if rng.random() < 1 / 6 or (k, j) == (3, 2):
                    y = -99
                raw.append("%s,%s,%s,%s" % (clinic, ward, y, x))
                level1.append("%s %s%9.4f%9.4f" % (clinic, ward, y, x))
    for name, lines in (("records.csv", raw), ("level1.dat", level1), ("level2.dat", level2), ("level3.dat", level3)):
        place.write(name, "\n".join(lines) + "\n")
    place.write("clinics.mdmt", TEMPLATE)


def example(language):
    return re.search("```%s\n(.*?)```" % language, (ROOT / "docs" / "residuals.md").read_text(), re.S)[1]


def main():
    place, check = Workplace(sys.argv[1]), Checks()
    study(place)
    check(place.run("-r", "clinics.mdmt").returncode == 0, "the MDM file is made")
    clinics = {"KLINIK %02d" % k for k in range(1, 25)}
    kept = None
    for form in FORMS:
        place.write("run.kdr", COMMANDS % form)
        done = place.run("clinics.mdm", "run.kdr")
        check(done.returncode == 0, f"{form}: the run ends well: {done.stdout}")
        for level in (1, 2, 3):
            table = read(str(place.folder), form, level)
            check(set(table.column("L3ID")) == clinics, f"{form}, level {level}: the clinics have their whole names")
        table = read(str(place.folder), form, 1)
        check(table.names[-1] == "RECNUM", f"{form}: RECNUM stands last")
        rows = list(zip(table.column("L3ID"), table.column("L2ID"), table.column("RECNUM")))
        check(kept in (None, rows), f"{form}: the same records as in the other forms")
        kept = rows
    check("RESFILRECNUM:Y" in place.read("newcmd.kdr"), "newcmd.kdr repeats the keyword")

    if len(sys.argv) > 2:
        place.write("join.R", example("r"))
        for name in ("join.R", "records.csv", "resfil1.sav", "resfil1.dta"):
            shutil.copy(place.folder / name, Path(sys.argv[2]))
    # Who is joined must have an outcome of his own, and who is not must lack it.
    want = [line.split() for line in (ROOT / "tests" / "reference" / "joined.txt").read_text().splitlines()]
    space = {}
    here = example("python").replace("'resfil1.dat'", repr(str(place.folder / "resfil1.dat"))).replace(
        "'records.csv'", repr(str(place.folder / "records.csv")))
    exec(here, space)
    got = [[r["y"], r["L1RESID"]] for r in space["joined"]]
    check(len(got) == len(want) == 432, "every raw record stands in the joined table")
    check(all((a[0] == "-99") == (a[1] is None) for a in got), "Python: records without an outcome have no residual")
    check(all(float(a[0]) == float(b[0]) and (b[1] == "NA" if a[1] is None else abs(float(a[1]) - float(b[1])) < 2e-4)
              for a, b in zip(got, want)), "Python joins what R joins")
    place.write("join.sps", "SET DECIMAL=DOT.\n" + example("spss") +
                "SORT CASES BY row.\nSAVE TRANSLATE /OUTFILE='joined.csv' /TYPE=CSV /REPLACE /FIELDNAMES.\n")
    done = subprocess.run(["pspp", "join.sps"], cwd=place.folder, capture_output=True, text=True, timeout=60)
    check(done.returncode == 0, "PSPP runs the example: " + done.stdout)
    with open(place.folder / "joined.csv", newline="") as file:
        got = [[row["y"], row["l1resid"].strip()] for row in csv.DictReader(map(str.lower, file))]
    check(len(got) == len(want) and all(
        float(a[0]) == float(b[0]) and (a[1] == "" if b[1] == "NA" else abs(float(a[1]) - float(b[1])) < 2e-3)
        for a, b in zip(got, want)), "PSPP joins what R joins")
    check.finish()


if __name__ == "__main__":
    main()
