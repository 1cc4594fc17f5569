"""Made studies with few level-3 units, for restricted likelihood and degrees of freedom.

    restrictedstudies.py FOLDER [n]     writes study1.csv ... (100) and models.txt there

`restricted.R` fits them by lmer, lmerTest and pbkrtest, `comparerestricted.py` by the program. Same bytes each time.
"""
import pathlib
import random
import sys

# What is random at level 2 and at level 3.
MODELS = {"intercepts": ("1", "1"), "slope2": ("X", "1"), "slopes": ("X", "X")}


def describe(seed):
    rng = random.Random(seed)
    return rng, dict(
        model=rng.choice(list(MODELS)), units3=rng.choice([8, 10, 12, 15, 20, 30]), units2=rng.choice([3, 5, 8]),
        records=rng.choice([4, 6, 10]), tau2=rng.choice([0.0, 0.2, 0.6, 1.0]), tau3=rng.choice([0.0, 0.1, 0.4, 1.0]),
        slope2=rng.choice([0.0, 0.2, 0.5]), slope3=rng.choice([0.0, 0.1, 0.4]), scale=rng.choice([1.0, 1.0, 1.0, 100.0]))


def rows(seed):
    """The rows of a study: level-3 and level-2 unit, Y, X, Z, Q."""
    rng, d = describe(seed)
    made = []
    unit = 0
    for k in range(d["units3"]):
        q = rng.gauss(0, 1)
        v = rng.gauss(0, d["tau3"] ** 0.5), rng.gauss(0, d["slope3"] ** 0.5)
        for _ in range(rng.randint(2, d["units2"] + 2)):
            unit += 1
            z = rng.gauss(0, 1)
            u = rng.gauss(0, d["tau2"] ** 0.5), rng.gauss(0, d["slope2"] ** 0.5)
            for _ in range(rng.randint(2, d["records"] + 2)):
                x = rng.gauss(0.3, 1)
                y = 0.3 * q + 0.5 * z + v[0] + u[0] + (0.4 + v[1] + u[1]) * x + rng.gauss(0, 1)
                made.append((k + 1, unit, y * d["scale"], x, z, q))
    return made


def write(path, seed):
    lines = ["school,pupil,Y,X,Z,Q"] + ["%d,%d,%.8f,%.8f,%.8f,%.8f" % row for row in rows(seed)]
    pathlib.Path(path).write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    folder, n = pathlib.Path(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else 100
    folder.mkdir(exist_ok=True)
    for seed in range(1, n + 1):
        write(folder / f"study{seed}.csv", seed)
    (folder / "models.txt").write_text("".join(f"{seed} {describe(seed)[1]['model']}\n" for seed in range(1, n + 1)))
