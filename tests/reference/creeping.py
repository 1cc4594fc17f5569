"""How many macro iterations small variance components take, and where they end.

    creeping.py PROGRAM [n]

Makes n Bernoulli studies (60) of many sizes whose variance components go from a tenth to twice that of a logit, and runs
quasi-likelihood at the default criteria and at tight ones, with up to 1,000 macro iterations. Prints a line for each study:
passes of either run, what it warns of, and the largest distance of the variance components in standard errors.
"""
import pathlib
import random
import re
import subprocess
import sys
import tempfile

BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench"
sys.path.insert(0, str(BENCH))
from nonlinear import commandfile

TIGHT = "STOPMICRO:0.0000000001\nSTOPMACRO:0.000001\n"


def components(text):
    """tau(pi), tau(beta), and their standard errors."""
    tables = []
    for before in ("", "Standard errors? of "):
        tables.append([])
        for tau in ("tau(pi)", "tau(beta)"):
            rows = re.search(r"(?m)^" + before + re.escape(tau) + r"\n((?: .*\n)+)", text)
            tables[-1] += [float(x) for x in re.findall(r"-?\d+\.\d+", rows[1])] if rows else []
    return tables


def fit(program, folder, slope, more):
    """Passes, warnings, components."""
    pathlib.Path(folder, "run.kdr").write_text(commandfile(slope, more).replace("MACROIT:100,N", "MACROIT:1000,N"))
    done = subprocess.run([program, "-q", "study.mdm", "run.kdr"], cwd=folder, capture_output=True, text=True, input="")
    assert done.returncode == 0, done.stdout[-300:]
    text = pathlib.Path(folder, "run.txt").read_text()
    words = [word for word, sign in (("limit", "prior to convergence"), ("unsettled", "have not settled")) if sign in text]
    return done.stdout.count("MACRO ITERATION"), " ".join(words), components(text)


def main():
    program, rng = str(pathlib.Path(sys.argv[1]).resolve()), random.Random(5)
    with tempfile.TemporaryDirectory() as folder:
        for seed in range(int(sys.argv[2]) if len(sys.argv) > 2 else 60):
            sizes = [rng.choice([20, 50, 100, 200]), rng.choice([5, 10, 30]), rng.choice([4, 8, 15])]
            slope, scale = rng.random() < 0.5, rng.choice([0.3, 0.6, 1, 1.5])
            subprocess.run(["/usr/bin/python3", BENCH / "simulate.py", f"{folder}/study", *map(str, sizes), "slope" if slope else
                            "intercept", "bernoulli", f"scale={scale}", f"seed={seed}"], check=True)
            (passes, words, found), (tight, tightwords, target) = (fit(program, folder, slope, x) for x in ("", TIGHT))
            far = max([abs(a - b) / e for a, b, e in zip(found[0], target[0], target[1]) if e > 0], default=0)
            print("%2d %3d %2d %2d %-9s %.1f default: %4d %s  tight: %4d %s  distance %.3f" % (
                seed, *sizes, "slope" if slope else "intercept", scale, passes, words, tight, tightwords, far), flush=True)


main()
