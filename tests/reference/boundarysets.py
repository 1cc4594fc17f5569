"""How far from the maximum the program ends where that lies at the edge: a tau without an inverse.

    boundarysets.py PROGRAM [n]

Makes n studies (60) whose taus have a variance of 0 or a correlation of 1 or -1, fits two random coefficients at both
levels, without and with restrictions, at the default criterion and at 1e-10 with up to 20,000 iterations, and compares
the deviance with the least one of a dense likelihood (densemaximum.py). Prints a line for each study, which ends with
that least deviance, then the largest distances.
"""
import pathlib
import random
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "endtoend"), str(HERE)]
import ordinarysets
from program import Workplace

MODEL = """NONLIN:N
LEVEL1:Y=INTRCPT1+X1+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
""" + ordinarysets.END
RESTRICTIONS = ("", "", "", "CONTAU2:1,3\n", "CONTAU3:1,3\n", "DIAGONALIZETAUPI:Y\n")
KINDS = ("no slope at 2", "no slope at 3", "r=1 at 2", "r=-1 at 3", "no intercept at 3", "r=1 at both")


def study(work, seed):
    """Writes the data; returns level-3 units as (y, X, list of level-2 sizes), kind and restriction."""
    rng = random.Random(seed)
    kind, restriction = KINDS[seed % len(KINDS)], RESTRICTIONS[(seed // len(KINDS)) % len(RESTRICTIONS)]
    units3, scale = rng.choice([10, 20, 30]), rng.choice([1.0, 1.0, 10.0])
    rows, units = [[], [], []], []
    for k in range(units3):
        v = [rng.gauss(0, 0.6), rng.gauss(0, 0.4)]
        if kind == "no slope at 3": v[1] = 0.0
        if kind == "no intercept at 3": v[0] = 0.0
        if kind == "r=-1 at 3": v[1] = -0.7 * v[0]
        if kind == "r=1 at both": v[1] = 0.5 * v[0]
        rows[2].append("%4d%20.10f\n" % (k, 1.0))
        y, X, sizes = [], [], []
        for j in range(rng.randint(3, 6)):
            u = [rng.gauss(0, 0.8), rng.gauss(0, 0.5)]
            if kind == "no slope at 2": u[1] = 0.0
            if kind.startswith("r=1"): u[1] = 0.6 * u[0]
            rows[1].append("%4d%4d%20.10f\n" % (k, j, 1.0))
            sizes.append(rng.randint(3, 8))
            for _ in range(sizes[-1]):
                x = round(rng.gauss(0.3, 1) * scale, 8)
                value = round(1 + u[0] + v[0] + (0.5 + u[1] + v[1]) * x / scale + rng.gauss(0, 1), 8)
                rows[0].append("%4d%4d%20.10f%20.10f%20.10f\n" % (k, j, value, x, 0.0))
                y.append(value)
                X.append([1.0, x / scale])
        units.append((y, X, sizes))
    for level in range(3):
        work.write("s%d.dat" % (level + 1), "".join(rows[level]))
    return units, kind, restriction, scale


def main():
    from densemaximum import best

    work = Workplace(sys.argv[1])
    work.write("s.mdmt", ordinarysets.TEMPLATE)
    worst = {"default": [], "tight": []}
    for seed in range(int(sys.argv[2]) if len(sys.argv) > 2 else 60):
        units, kind, restriction, scale = study(work, seed)
        assert work.run("-r", "s.mdmt").returncode == 0
        target = best(units, restriction, scale)
        line = "%3d %-18s %-22s" % (seed, kind, restriction.strip())
        for name, control in (("default", "NUMIT:20000,N\n"), ("tight", "NUMIT:20000,N\nSTOPVAL:0.0000000001\n")):
            work.write("s.kdr", MODEL.replace("NUMIT:500,N\n", "") + restriction + control)
            done = work.run("s.mdm", "s.kdr")
            text = work.read("s.txt") if done.returncode == 0 else ""
            found = re.findall(r"Deviance += +(-?[\d.]+)", text)
            if not found:
                line += "  %s: code %d" % (name, done.returncode)
                continue
            iterations = re.findall(r"at iteration (\d+) =", text)[-1]
            above = float(found[-1]) - target
            worst[name].append((above, seed))
            line += "  %s %+.4f in %s%s" % (name, above, iterations, " edge" if "along the edge" in text else "")
        print(line + "  %.5f" % target, flush=True)
    for name, list_ in worst.items():
        print(name, "largest:", ", ".join("%.4f (%d)" % pair for pair in sorted(list_, reverse=True)[:8]))


if __name__ == "__main__":
    main()
