"""Instructions of two builds side by side: usage python3 bench/instructions.py OLD NEW

A row for each kind of run on the examples, from start to end, counted by valgrind: the same on a busy machine. Exits 1
when a row has grown by more than 3%.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

EXAMPLES = pathlib.Path(__file__).parent.parent / "examples"
ROWS = [  # name, example, command file, lines in the place of others
    ("linear", "chem97", "model2.kdr", []),
    ("linear, no scoring", "chem97", "model2.kdr", ["FISHERTYPE:0", "NUMIT:40,N"]),
    ("restricted likelihood", "chem97", "model2.kdr", ["LIKELIHOOD:REML", "DDF:KENWARDROGER"]),
    ("ordinal", "chem97", "ordinal.kdr", ["MACROIT:4,N"]),
    ("quasi-likelihood", "prenatal", "care.kdr", []),
    ("Laplace-6", "prenatal", "care.kdr", ["LAPLACE:Y,5"]),
    ("quadrature", "prenatal", "care.kdr", ["AGQ:Y,5,5"]),
    ("quadrature, fixed nodes", "prenatal", "care.kdr", ["AGQ:Y,5,5", "AGQNODES:FIXED"]),
    ("counts", "melanoma", "deaths.kdr", []),
    ("residual files", "chem97", "model1.kdr", ["RESFIL1:Y", "RESFIL2:Y", "RESFIL3:Y", "RESULTS:out.json"]),
]


def instructions(program, folder, command, lines):
    kept = [line for line in (folder / command).read_text().splitlines()
            if line.split(":")[0].upper() not in {new.split(":")[0] for new in lines}]
    (folder / "run.kdr").write_text("\n".join(kept + lines) + "\n")
    mdm = next(folder.glob("*.mdm")).name
    done = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program, "-q", "-t1", mdm, "run.kdr"],
                          cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    counted = re.search(r"Collected : (\d+)", done.stderr)
    return int(counted[1]) if counted and done.returncode == 0 else None


def main():
    programs = [str(pathlib.Path(program).resolve()) for program in sys.argv[1:3]]
    grown = False
    print("| run | before | after | change |\n|---|---:|---:|---:|")
    for name, example, command, lines in ROWS:
        with tempfile.TemporaryDirectory() as place:
            folder = pathlib.Path(place) / example
            shutil.copytree(EXAMPLES / example, folder)
            subprocess.run([programs[0], "-q", "-r", f"{example}.mdmt"], cwd=folder, check=True, capture_output=True)
            old, new = (instructions(program, folder, command, lines) for program in programs)
        if old is None or new is None:
            print(f"| {name} | {old} | {new} | did not run |", flush=True)
            grown = True
            continue
        grown |= new > 1.03 * old
        print(f"| {name} | {old / 1e6:.1f} M | {new / 1e6:.1f} M | {100 * (new / old - 1):+.2f}% |", flush=True)
    return 1 if grown else 0


if __name__ == "__main__":
    sys.exit(main())
