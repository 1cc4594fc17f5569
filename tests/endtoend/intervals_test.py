"""Intervals of variance components: by the profile of the likelihood against lme4, by standard errors against the formula.

The numbers of lme4 are in tests/reference/profiles.out (profiles.R), the studies are those of restrictedstudies.py.
"""
import json
import math
import pathlib
import random
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "reference"))
import comparerestricted as campaign
import restrictedstudies as studies
from program import REFERENCE, run

program = str(pathlib.Path(sys.argv[1]).resolve())
folder = pathlib.Path(tempfile.mkdtemp())
EFFECTS = ["(Intercept)", "Q", "Z", "X", "Q:X"]


def fit(study, extra, number=None):
    return campaign.fitted(program, folder, number or study, studies.describe(study)[1]["model"], extra)


def named(phase):
    """Profile intervals by lme4's names."""
    profile, root = phase["profile_intervals"], math.sqrt
    pupils, schools = profile["tau_pi"], profile["tau_beta"]
    made = {"sd_(Intercept)|school:pupil": pupils["standard_deviation"][0], "sigma": [root(x) for x in profile["sigma2"]],
            "sd_(Intercept)|school": schools["standard_deviation"][0], **(profile["intraclass_correlation"] or {}), **dict(zip(EFFECTS, profile["fixed_effects"] or []))}
    if len(pupils["variance"]) > 1:
        made["sd_X|school:pupil"], made["cor_X.(Intercept)|school:pupil"] = pupils["standard_deviation"][1], pupils["correlation"][1][0]
    return made


def curves(phase):
    """Points of the profiles by lme4's names, of standard deviations."""
    made = phase["profile_intervals"]["curves"]
    root = lambda curve: [(math.sqrt(x), z) for x, z in curve]
    pupils = made["tau_pi"]
    found = {"sd_(Intercept)|school:pupil": root(pupils["variance"][0]), "sigma": root(made["sigma2"]),
             "sd_(Intercept)|school": root(made["tau_beta"]["variance"][0]), **dict(zip(EFFECTS, made["fixed_effects"]))}
    if len(pupils["variance"]) > 1:
        found["sd_X|school:pupil"], found["cor_X.(Intercept)|school:pupil"] = root(pupils["variance"][1]), pupils["correlation"][1][0]
    return found


def between(curve, x):
    """The cubic through the four points of a curve that are nearest to x."""
    near = sorted(sorted(curve, key=lambda point: abs(point[0] - x))[:4])
    return sum(z * math.prod((x - other) / (here - other) for other, _ in near if other != here) for here, z in near)


# lme4's splines are good for a thousandth of an interval, but for a lower bound near 0; the direct ones for more digits.
wanted, drawn = {}, []
for line in (REFERENCE / "profiles.out").read_text().splitlines():
    study, name, low, high = line.split()
    if name.startswith("curve:"):
        drawn.append((int(study), name.removeprefix("curve:"), float(low), float(high)))
        continue
    wanted.setdefault((int(study), name.split(":")[0] if name.startswith(("ml:", "reml:")) else "confint"), {})[
        name.removeprefix("ml:").removeprefix("reml:")] = (float(low), float(high))
for study in sorted({study for study, _ in wanted}):
    studies.write(folder / f"study{study}.csv", study)
for (study, by), rows in wanted.items():
    phase, _ = fit(study, "PROFILE:Y\n" + ("" if by == "reml" else "LIKELIHOOD:ML\n"))
    found = named(phase)
    assert (by == "reml") == (phase["profile_intervals"]["fixed_effects"] is None)
    for name, (low, high) in rows.items():
        if by == "confint" and (study, name) == (2, "sd_(Intercept)|school:pupil"):
            continue  # the direct rows have it
        near = (3e-3 if by == "confint" else 1e-5) * (high - low)
        assert abs(found[name][0] - low) < near and abs(found[name][1] - high) < near, (study, by, name, found[name], (low, high))
    if by == "confint":
        points = curves(phase)
        for _, name, x, zeta in (row for row in drawn if row[0] == study):
            assert len(points[name]) >= 8 and sorted(points[name]) == points[name], (study, name, points[name])
            assert abs(between(points[name], x) - zeta) < 0.02, (study, name, x, zeta, points[name])

# Slopes at both levels: at each bound of level 3 twice the log-likelihood of lme4 is 3.84 below the top (profilerises.R), and a
# variance whose likelihood does not fall so far ends at 0.


def slopes(seed):
    draw, rows = random.Random(seed), ["k,j,y,x"]
    for k in range(10):
        v = draw.gauss(0, .5)
        for j in range(5):
            u, us = draw.gauss(0, .7), draw.gauss(0, .3)
            for _ in range(5):
                x = draw.gauss(0, 1)
                rows.append("%d,%d,%.4f,%.4f" % (k, k * 100 + j, 1 + v + u + (.5 + us) * x + draw.gauss(0, 1), x))
    return "\n".join(rows) + "\n"


(folder / "slopes.csv").write_text(slopes(11))
code, said = run(program, folder, "-fit", "y ~ x + (x | k/j)", "slopes.csv", "-o", "p", "-keyword", "PROFILE:Y")
assert code == 0, said[-300:]
profile = json.loads((folder / "p.json").read_text())["phases"][-1]["profile_intervals"]
found = [*profile["tau_beta"]["standard_deviation"][0], *profile["tau_beta"]["standard_deviation"][1], profile["tau_beta"]["correlation"][1][0][0]]
for line, bound in zip((REFERENCE / "profilerises.out").read_text().splitlines(), found, strict=True):
    name, held, rise = line.split()
    assert abs(bound - float(held)) < 2e-5 * (1 + 10 * float(held)) and -0.01 < float(rise) - 3.8415 < 0.06, (name, held, bound, rise)
assert profile["tau_pi"]["variance"][1][0] == 0 and profile["tau_pi"]["correlation"][1][0] == [-1, 1]
assert abs(profile["tau_pi"]["standard_deviation"][0][0] - 0.3247072) < 2e-5 and profile["tau_beta"]["correlation"][1][0][1] == 1

# No unit of measurement matters.
plain = named(fit(61, "PROFILE:Y\nLIKELIHOOD:ML\n")[0])
rows = [(k, j, 1e3 * y, 1e-4 * x, z, q) for k, j, y, x, z, q in studies.rows(61)]
(folder / "study1000.csv").write_text("school,pupil,Y,X,Z,Q\n" + "".join("%d,%d,%.17g,%.17g,%.17g,%.17g\n" % row for row in rows))
scaled = named(fit(61, "PROFILE:Y\nLIKELIHOOD:ML\n", 1000)[0])
for name, factor in (("sd_X|school:pupil", 1e7), ("cor_X.(Intercept)|school:pupil", 1), ("X", 1e7), ("sigma", 1e3)):
    for a, b in zip(plain[name], scaled[name]):
        assert abs(b / factor - a) < 2e-4 * (plain[name][1] - plain[name][0]), (name, plain[name], scaled[name])

# By standard errors: the logarithm of a variance is normal. No interval at the edge (study 15: tau(pi) 0).
phase, _ = fit(61, "")
for tau, rows in ((phase["tau_pi"], phase["variance_intervals"]["tau_pi"]), (phase["tau_beta"], phase["variance_intervals"]["tau_beta"])):
    for i, (low, high) in enumerate(rows["variance"]):
        v, se = tau["estimate"][i][i], tau["standard_error"][i][i]
        assert abs(low - v * math.exp(-1.959964 * se / v)) < 1e-6 * v and abs(high - v * math.exp(1.959964 * se / v)) < 1e-5 * v
        assert abs(rows["standard_deviation"][i][0] - math.sqrt(low)) < 1e-12
assert fit(15, "")[0]["variance_intervals"]["tau_pi"]["variance"] == [None]

# The report has the table; what a restricted profile lacks is told in it; other models are refused.
phase, document = fit(2, "PROFILE:Y\n")
page = " ".join((folder / "s.txt").read_text().split())
assert "95% intervals by the profile of the likelihood" in page and "no profile intervals; theirs are by t" in page
assert "PROFILE:Y" in (folder / "newcmd.kdr").read_text().splitlines()
(folder / "s.kdr").write_text(campaign.commands("intercepts", "PROFILE:Y\nLEVEL3WEIGHT:Q\n").replace("LIKELIHOOD:REML\n", ""))
code, said = run(program, folder, "study2.mdm", "s.kdr")
assert code == 100 and "PROFILE: cannot be combined with design weights" in said, said[-300:]
print("intervals: all well")
