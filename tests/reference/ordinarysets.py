"""How many ordinary made studies end without estimates.

    ordinarysets.py PROGRAM [n]

Makes n studies (300) of many sizes and scales, runs a model with random intercepts and, in most, random slopes on each,
and counts the codes that the program ends with, with a line for each study that has no estimates.
"""
import collections
import random
import sys
import pathlib

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "endtoend"))
from program import NOFEATURES, NOFILES, Workplace

VARIABLES = ["Y", "X1", "X2"], ["Z"], ["Q"]
END = NOFILES + NOFEATURES + "NUMIT:500,N\nOUTPUT:s.txt\n"


def scale(rng, low, high):
    return 10 ** rng.uniform(low, high)


def study(work, seed):
    """Makes study `seed` and its command file; returns a line that describes it."""
    rng = random.Random(seed)
    units3, units2 = rng.choice([12, 20, 40, 60]), rng.choice([3, 4, 6, 10])
    slopes = rng.choice([0, 1, 1, 1, 2])
    slopes3 = rng.choice([0, min(1, slopes)])
    smallest = rng.choice([slopes + 2, slopes + 2, max(2, slopes + 1), 5, 12])
    largest = smallest + rng.choice([0, 3, 10])
    sdx = [scale(rng, -4, 5) if rng.random() < 0.5 else 1.0 for _ in range(2)]
    meanx = [rng.choice([0, 0, 0, 2, 5]) * s for s in sdx]
    sdy = scale(rng, -2, 5) if rng.random() < 0.5 else 1.0
    meany = rng.choice([0, 3, 10]) * sdy
    sd2, sd3 = rng.choice([0.3, 0.7, 1.5]), rng.choice([0.3, 0.7])
    rows = [[], [], []]
    cell = "%20.10f" if min(sdx + [sdy]) > 1e-3 else "%20.12f"
    for k in range(units3):
        q = rng.gauss(0, 1)
        v = [rng.gauss(0, sd3) for _ in range(3)]
        rows[2].append((k, q))
        for j in range(units2):
            z = rng.gauss(0, 1)
            u = [rng.gauss(0, sd2) for _ in range(3)]
            rows[1].append((k, j, z))
            for _ in range(rng.randint(smallest, largest)):
                x = [rng.gauss(0, 1) for _ in range(2)]
                y = 0.3 * z + 0.2 * q + u[0] + v[0] + rng.gauss(0, 1)
                y += sum((0.5 + (u[i + 1] if slopes > i else 0) + (v[i + 1] if slopes3 > i else 0)) * x[i] for i in range(2))
                values = [meany + sdy * y] + [m + s * t for m, s, t in zip(meanx, sdx, x)]
                rows[0].append((k, j, *values))
    work.make(rows, cell, VARIABLES)
    model = "NONLIN:N\nLEVEL1:Y=INTRCPT1+X1+X2+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+Z+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Q+RANDOM/\nLEVEL3:Z=INTRCPT3/\n"
    for i in range(2):
        model += "LEVEL2:X%d=INTRCPT2%s/\nLEVEL3:INTRCPT2=INTRCPT3%s/\n" % (
            i + 1, "+RANDOM" if slopes > i else "", "+RANDOM" if slopes3 > i else "")
    work.write("s.kdr", model + END)
    return "%d x %d x %d-%d, %d and %d random slopes, SD of Y %.2g, of X1 and X2 %.2g %.2g, means %.2g %.2g" % (
        units3, units2, smallest, largest, slopes, slopes3, sdy, *sdx, *meanx)


def main():
    work = Workplace(sys.argv[1])
    codes = collections.Counter()
    for seed in range(int(sys.argv[2]) if len(sys.argv) > 2 else 300):
        line = study(work, seed)
        done = work.run("s.mdm", "s.kdr")
        codes[done.returncode] += 1
        if done.returncode != 0:
            print("study %d ends with %d: %s" % (seed, done.returncode, line))
    print("codes:", dict(sorted(codes.items())))


if __name__ == "__main__":
    main()
