"""How far from the maximum the program ends where that lies at the edge of the variances, or may: a tau without an inverse.

    edgemodels.py MAXIMA [-n MODELS] [-f FIRST] [PROGRAM ...]

Makes MODELS random studies (1,100) from number FIRST on, with variances of 0, correlations of 1 and -1, taus of rank 1
or of zeros and ordinary ones; small and large units, one to three random coefficients at either level, predictors of
other units, all restrictions of the taus, equal fixed effects, known variances and a held sigma^2. The highest maximum of
each that climbs from several starts find in a dense likelihood (densemaximum.py) is kept in the file MAXIMA. Each PROGRAM then runs all of
them at its default criterion; prints the models that end more than 0.01 of a deviance above it, failures, how many
reports say that they have not converged, and the seconds.
"""
import argparse
import json
import pathlib
import random
import re
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "endtoend"), str(HERE)]
from program import NOFILES, Workplace, template

TEMPLATE = template("s.mdm", ("s1.dat", "s2.dat", "s3.dat"), ("(2A4,4F20.10)", "(2A4,F20.10)", "(A4,F20.10)"),
                    (["Y", "X1", "X2", "V"], ["Z"], ["Q"]))
EFFECTS = ("none", "zero slope", "zero intercept", "rank one", "r=-1", "ordinary", "ordinary small")
RESTRICTIONS = ("",) * 6 + ("CONTAU2:1,3", "CONTAU3:1,3", "DIAGONALIZETAUPI:Y", "DIAGONALIZETAUBETA:Y", "ESTTAU2:E,0,E",
                            "ESTTAU2:0.5,E,E", "ESTTAU3:0.3,E,E", "ESTTAU3:E,0.1,E", "FIXSIGMA2:0.8", "VARIANCEKNOWN:V",
                            "CONSTRAIN:1,1")


def effect(rng, kind, q):
    """A function that draws random effects of order q."""
    size = [rng.choice([0.15, 0.4, 0.8]) for _ in range(q)]
    if kind == "none": return lambda: [0.0] * q
    if kind == "ordinary small": size = [0.1] * q
    def draw():
        u = [rng.gauss(0, s) for s in size]
        if kind == "zero slope": u[-1] = 0.0
        if kind == "zero intercept": u[0] = 0.0
        if kind in ("rank one", "r=-1"):
            for i in range(1, q): u[i] = (-1 if kind == "r=-1" else 1) * u[0] * size[i] / size[0]
        return u
    return draw


class Study:
    def __init__(self, number):
        rng = random.Random(number)
        self.restriction = rng.choice(RESTRICTIONS)
        two = self.restriction.startswith(("CONTAU", "ESTTAU", "CONSTRAIN", "DIAG"))
        self.p = 2 if two else rng.choice([1, 2, 2, 2, 3])
        self.b = 2 if two else rng.choice([1, 2, 2, 3]) if self.p == 3 else rng.choice(range(1, self.p + 1))
        self.q = max(self.p, self.b)
        self.kinds = [rng.choice(EFFECTS), rng.choice(EFFECTS)]
        self.large = rng.random() < 0.15
        few = rng.choice([5, 8, 12, 20, 30]) if not self.large else rng.choice([5, 8, 12])
        unit = 1.0 if two else rng.choice([1.0, 1.0, 1e-3, 1e4])
        self.unit = [1.0, unit, 1.0][:self.q]
        noise = rng.choice([0.1, 1.0, 1.0, 3.0])
        draw2, draw3 = effect(rng, self.kinds[0], self.q), effect(rng, self.kinds[1], self.q)
        self.rows, self.units = [[], [], []], []
        for k in range(few):
            v = draw3()
            self.rows[2].append("%4d%20.10f\n" % (k, 1.0))
            records = []
            for j in range(rng.randint(2, 6)):
                u = draw2()
                self.rows[1].append("%4d%4d%20.10f\n" % (k, j, 1.0))
                for _ in range(rng.randint(20, 40) if self.large else rng.randint(1, 7)):
                    x = [1.0, round(rng.gauss(0.3, 1) * unit, 8), round(rng.gauss(0, 1), 8)][:max(2, self.q)]
                    d = round(rng.uniform(0.3, 2), 8)
                    root = noise * (d ** 0.5 if self.restriction.startswith("VAR") else 1.0)
                    coefficients = [1 + u[0] + v[0]] + [0.5 + a + c for a, c in zip(u[1:], v[1:])]
                    y = round(sum(c * t / s for c, t, s in zip(coefficients, x, self.unit)) + rng.gauss(0, root), 8)
                    self.rows[0].append("%4d%4d" % (k, j) + "".join("%20.10f" % t for t in (y, x[1], (x + [0.0])[2], d)) + "\n")
                    records.append((j, y, d, x[:self.q]))
            self.units.append(records)

    def write(self, work):
        for level in range(3):
            work.write("s%d.dat" % (level + 1), "".join(self.rows[level]))
        model = "NONLIN:N\n"
        for i, name in enumerate(("INTRCPT1", "X1", "X2")[:self.q]):
            random2, random3 = "+RANDOM" * (i < self.p), "+RANDOM" * (i < self.b)
            model += "LEVEL2:%s=INTRCPT2%s/\nLEVEL3:INTRCPT2=INTRCPT3%s/\n" % (name, random2, random3)
        model = model.replace("NONLIN:N\n", "NONLIN:N\nLEVEL1:Y=" + "+".join(("INTRCPT1", "X1", "X2")[:self.q]) + "+RANDOM\n")
        constrain = "" if self.restriction.startswith("CONSTRAIN") else "CONSTRAIN:N\n"
        work.write("s.kdr", model + self.restriction + "\n" * bool(self.restriction) + NOFILES + constrain +
                   "LEVEL1DELETION:NONE\nHYPOTH:N\nLVR-BETA:N\nNUMIT:20000,N\nOUTPUT:s.txt\n")

    def __str__(self):
        return "%s, %s%s, p %d b %d, %d level-3 units, %s" % (*self.kinds, ", large" * self.large, self.p, self.b,
                                                             len(self.units), self.restriction or "free")


def main():
    options = argparse.ArgumentParser()
    options.add_argument("maxima")
    options.add_argument("-n", type=int, default=1100)
    options.add_argument("-f", type=int, default=0)
    options.add_argument("-o", help="these models alone, by their numbers with commas")
    options.add_argument("programs", nargs="*")
    options = options.parse_intermixed_args()
    path = pathlib.Path(options.maxima)
    maxima = json.loads(path.read_text()) if path.exists() else {}
    numbers = range(options.f, options.f + options.n)
    if options.o: numbers = [int(number) for number in options.o.split(",")]
    for number in numbers:
        if str(number) not in maxima:
            from densemaximum import maximum
            maxima[str(number)] = maximum(Study(number))
            path.write_text(json.dumps(maxima))
    path.write_text(json.dumps(maxima))
    for program in options.programs:
        work = Workplace(program)
        work.write("s.mdmt", TEMPLATE)
        seconds, above, below, codes, warned = 0.0, [], 0, {}, 0
        for number in numbers:
            study = Study(number)
            study.write(work)
            assert work.run("-r", "s.mdmt").returncode == 0
            begin = time.perf_counter()
            done = work.run("s.mdm", "s.kdr")
            seconds += time.perf_counter() - begin
            text = work.read("s.txt") if done.returncode == 0 else ""
            found = re.findall(r"Deviance += +(-?[\d.]+)", text)
            if not found:
                codes.setdefault(done.returncode, []).append(number)
                continue
            far = float(found[-1]) - maxima[str(number)]
            told = "WARNING" in text
            warned += told
            below += far < -0.002
            if far > 0.01:
                above.append(far)
                print("%5d %+9.4f %10.3f at iteration %s%s%s: %s" % (
                    number, far, maxima[str(number)], re.findall(r"at iteration (\d+) =", text)[-1],
                    ", searched" * ("along the edge" in text), ", warned" * told, study), flush=True)
        print("%s: %d models, %d above by 0.01, %d by 0.1, %d by 1; %d below by 0.002; %d warned; no estimates: %s; %.1f s" % (
            program, len(numbers), len(above), sum(a > 0.1 for a in above), sum(a > 1 for a in above), below, warned,
            {code: len(which) for code, which in codes.items()}, seconds))
        print("  without estimates:", codes)


if __name__ == "__main__":
    main()
