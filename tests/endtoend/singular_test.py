"""Singular and nearly singular studies: every run ends in an orderly way, says what is wrong, and prints no NaN."""
import json
import random
import re
import sys

from program import NOFEATURES, NOFILES, Checks, Workplace

check = Checks()
work = Workplace(sys.argv[1])

MODEL = """NONLIN:N
LEVEL1:Y=INTRCPT1+X{more}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3{q}+RANDOM/
LEVEL2:X=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
{moreequations}NUMIT:300,N
TITLE:singular
OUTPUT:s.txt
""" + NOFILES + NOFEATURES


def study(units3, units2, records, sd2=(1, 0.5), sd3=(0.7, 0.3), sde=1.0, y=None, seed=11):
    """Makes s.mdm; `records` is a number or a function of the running number of the level-2 unit, `units2` one or a function of
    that of the level-3 unit."""
    rng = random.Random(seed)
    rows = [[], [], []]
    for k in range(units3):
        q, v0, v1 = rng.gauss(0, 1), rng.gauss(0, sd3[0]), rng.gauss(0, sd3[1])
        rows[2].append((k, q))
        for j in range(units2(k) if callable(units2) else units2):
            z, u0, u1 = rng.gauss(0, 1), rng.gauss(0, sd2[0]), rng.gauss(0, sd2[1])
            rows[1].append((k, j, z))
            for _ in range(records(len(rows[1])) if callable(records) else records):
                x = rng.gauss(0, 1)
                value = 1 + u0 + v0 + (2 + u1 + v1) * x + rng.gauss(0, 1) * sde if y is None else y(x)
                rows[0].append((k, j, round(value, 5), x, 2 * x + 1))
    work.make(rows, "%12.6f", (["Y", "X", "X2"], ["Z"], ["Q"]))


def fit(what, codes, words="", q="", more="", moreequations="", **keywords):
    work.write("s.kdr", MODEL.format(q=q, more=more, moreequations=moreequations))
    done = work.run("s.mdm", work.edited("s.kdr", "s.kdr", **keywords))
    text = done.stdout + work.read("s.txt")
    check(done.returncode in codes, f"{what}: code {done.returncode}, {done.stdout[-200:]!r}")
    check(words in text, f"{what}: {words!r} is not said")
    check(not re.search(r"\b-?(nan|inf)\b", text, re.IGNORECASE), f"{what}: a NaN or an infinity is printed")
    return text


study(30, 6, 8)
text = fit("an ordinary study", [0], "Statistics for the current model")
check("Unable to compute" not in text and "NC" not in text, "an ordinary study has all its numbers")
fit("collinear fixed effects", [11], "near singularity", more="+X2", moreequations="LEVEL2:X2=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n")
for fishertype in "012":
    fit("FISHERTYPE " + fishertype, [0], "Statistics for the current model", FISHERTYPE=fishertype)

text = fit("a heterogeneous stage", [0], "RESULTS FOR HETEROGENEOUS TAU(PI)", HETIT="8")
stage = text.split("RESULTS FOR HETEROGENEOUS TAU(PI)")[1].split("******* ITERATION")[0]
check("\ntau(pi)\n" not in stage and "Reliability" not in stage and "INTRCPT3, G000" in stage, "what the stage shows")
check(len(work.read("hettau.dat").splitlines()) == 30, "hettau.dat has a line for each level-3 unit")
check(all(len(line) == 12 + 3 * 15 for line in work.read("hettau.dat").splitlines()), "identifier and triangle of a unit")
likelihoods = [float(value) for value in re.findall(r"at iteration \d+ = (\S+)", text.split("RESULTS FOR HET")[0])]
check(likelihoods[:5] == sorted(likelihoods[:5]), "the likelihood rises over the heterogeneous iterations")
# The means over the level-3 units, of unequal numbers of level-2 units, follow from what each has; a diagonal tau(pi) stays one.
study(30, lambda k: 5 + k % 4, 8)
for diagonal in "NY":
    fit("units of unequal size", [0], HETIT="4", DIAGONALIZETAUPI=diagonal, RESULTS="s.json")
    stage = next(p for p in json.loads(work.read("s.json"))["phases"] if p["phase"] == "heterogeneous")
    each = [[float(line[at:at + 15]) for at in (12, 27, 42)] for line in work.read("hettau.dat").splitlines()]
    sizes = [5 + k % 4 for k in range(30)]
    for e, (i, j) in enumerate(((0, 0), (1, 0), (1, 1))):
        for name, n in ("tau_pi_average", [1] * 30), ("tau_pi_weighted_average", sizes):
            want = sum(w * T[e] for w, T in zip(n, each)) / sum(n)
            check(abs(stage[name][i][j] - want) < 1e-6, f"{name}, {i} {j}: {stage[name]}, {want}")
    check(all((T[1] == 0.0) == (diagonal == "Y") for T in each), f"diagonal {diagonal}: {each[:3]}")
study(30, 3, 8)
fit("too few level-2 units for a heterogeneous stage", [100], "***Unable to perform heterogeneous iterations.", HETIT="8")
study(30, 6, 8, sd2=(0, 0), sd3=(0, 0))
for fishertype in "012":
    fit("no variance at levels 2 and 3, FISHERTYPE " + fishertype, [0, 15], FISHERTYPE=fishertype)
study(30, 6, 8, sd3=(1, 0))
fit("a variance of 0 at level 3", [0, 15])

study(30, 6, 1)
fit("units with fewer records than random effects", [13], "Every level-1 predictor matrix is near singular.")
study(30, 6, lambda unit: 1 if unit % 2 else 2)
fit("no record to spare for sigma^2, which the data tell from the taus", [0], "starting values share out the")
study(30, 6, lambda unit: 1 if unit % 3 else 9)
fit("a third of the units has a fit of its own", [0], "are based on only 60 of 180")

# Here a scoring step gains next to nothing and overshoots; the run may not stop at it.
study(30, 3, 3, sd2=(0.5, 0.3), sd3=(0.2, 0), seed=25)
text = fit("an overshooting step", [0], "small change", STOPVAL="0.001", NUMIT="6000,N")
deviance = float(re.findall(r"Deviance += ([\d.]+)", text)[-1])
check(abs(deviance - 857.188) < 0.1, f"an overshooting step: deviance {deviance}, at the maximum 857.188")

study(1, 20, 8)
fit("one level-3 unit", [0, 100, 2, 15])
study(2, 20, 8)
fit("two level-3 units", [0, 100, 2, 15])
fit("two level-3 units and a level-3 predictor", [0, 100, 2, 15], q="+Q")
study(3, 1, 30)
fit("as many level-2 as level-3 units", [0, 100, 15, 16])

study(20, 5, 6, y=lambda x: 0.0)
fit("an outcome of zeros", [100], "The outcome variable is all zeros!")
study(20, 5, 6, y=lambda x: 3.0)
fit("a constant outcome", [100, 11, 13, 15, 16])
study(20, 5, 6, y=lambda x: 1 + 2 * x)
fit("an outcome without residual", [100], "Sigma_squared(0) is virtually zero")
study(20, 5, 6, y=lambda x: 1e5 + x)
fit("a large constant", [0, 100])
check.finish()
