"""Shares of variance, correlations, R squared and design effects against their definitions, worked from the data here."""
import json
import math
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "reference"))
import comparerestricted as campaign
import restrictedstudies as studies
from program import NOFEATURES, NOFILES, run

program = str(pathlib.Path(sys.argv[1]).resolve())
folder = pathlib.Path(tempfile.mkdtemp())
rows = studies.rows(61)
n = len(rows)


def near(a, b, what, digits=1e-6):
    assert abs(a - b) < digits * max(1.0, abs(b)), (what, a, b)


def variance(values):
    mean = sum(values) / len(values)
    return sum((x - mean) ** 2 for x in values) / (len(values) - 1)


def squares(key):
    counts = {}
    for row in rows:
        counts[row[key]] = counts.get(row[key], 0) + 1
    return sum(c * c for c in counts.values()) / n


m2, m3 = squares(1), squares(0)
gamma = lambda phase: [effect["estimate"] for effect in phase["fixed_effects"]]
T = lambda phase, name="tau_pi": phase[name]["estimate"]

# Linear with a random slope: the variance of level 2 at x is (1, x) T (1, x)', its mean over the records is the share.
studies.write(folder / "study61.csv", 61)
phase, document = campaign.fitted(program, folder, 61, "slope2", "LIKELIHOOD:ML\nSHARES:Y\n")
made, g, t, b, s = phase["variance_shares"], gamma(phase), T(phase), T(phase, "tau_beta")[0][0], phase["sigma2"]["estimate"]
fixed = variance([g[0] + g[1] * q + g[2] * z + g[3] * x + g[4] * x * q for _, _, _, x, z, q in rows])
at = lambda x: t[0][0] + 2 * x * t[0][1] + x * x * t[1][1]
level2 = sum(at(row[3]) for row in rows) / n
for key, value in (("fixed", fixed), ("level1", s), ("level2", level2), ("level3", b)):
    near(made[key], value, key)
near(made["r_squared"]["marginal"], fixed / (fixed + s + level2 + b), "marginal")
near(made["r_squared"]["conditional"], (fixed + level2 + b) / (fixed + s + level2 + b), "conditional")
same2, same3 = (level2 + b) / (s + level2 + b), b / (s + level2 + b)
near(made["intraclass_correlation"]["same_level2_unit"], same2, "same level-2 unit")
near(made["intraclass_correlation"]["same_level3_unit"], same3, "same level-3 unit")
effect = 1 + (m2 - 1) * same2 + (m3 - m2) * same3
near(made["design_effect"], effect, "design effect")
near(made["effective_sample_size"], n / effect, "effective")
assert made["explained"] is None and made["response_correlation"] is None
assert "Shares of variance" in (folder / "s.txt").read_text()
page = (folder / "s.json").rename(folder / "null.json")
phase, _ = campaign.fitted(program, folder, 61, "slope2", "LIKELIHOOD:ML\nSHARES:X=1.5\n")
near(phase["variance_shares"]["intraclass_correlation"]["same_level3_unit"], b / (s + at(1.5) + b), "at a value")
assert "SHARES:X=1.5" in (folder / "newcmd.kdr").read_text().splitlines()

# Against a model without predictors.
null = ("NONLIN:N\nNUMIT:500,N\nLEVEL1:Y=INTRCPT1+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"
        + NOFILES + NOFEATURES + "OUTPUT:n.txt\nRESULTS:null.json\n")
(folder / "n.kdr").write_text(null)
code, said = run(program, folder, "study61.mdm", "n.kdr")
assert code == 0, said
before = [p for p in json.loads((folder / "null.json").read_text())["phases"] if p["phase"] == "final"][0]
phase, _ = campaign.fitted(program, folder, 61, "slope2", "LIKELIHOOD:ML\nNULLMODEL:null.json\n")
explained = phase["variance_shares"]["explained"]
near(explained["level1"], 1 - phase["sigma2"]["estimate"] / before["sigma2"]["estimate"], "explained at level 1")
near(explained["level2"], 1 - T(phase)[0][0] / T(before)[0][0], "explained at level 2")
near(explained["level3"], 1 - T(phase, "tau_beta")[0][0] / T(before, "tau_beta")[0][0], "explained at level 3")
for other in ("study61.csv", "."):
    (folder / "s.kdr").write_text(campaign.commands("slope2", f"NULLMODEL:{other}\n"))
    code, said = run(program, folder, "study61.mdm", "s.kdr")
    assert code == 100 and "NULLMODEL: takes the results document" in said, said[-300:]

# Logits and counts: a level-1 variance of their own, and correlations of the outcomes by integration over the effects.
studied = "school,pupil,Y,X,Z,Q,B,C\n" + "".join(
    "%d,%d,%.8f,%.8f,%.8f,%.8f,%d,%d\n" % (*row, row[2] > 0.2, min(9, max(0, round(1.5 * row[2] + 1)))) for row in rows)
(folder / "study9000.csv").write_text(studied)
code, said = run(program, folder, "-from", "study9000.csv", "-level3", "school", "-level2", "pupil")
assert code == 0, said


def nonlinear(kind, outcome, extra=""):
    (folder / "b.kdr").write_text(
        f"NONLIN:{kind}\nMACROIT:200,N\nMICROIT:50\nSTOPMACRO:1e-7\nFIXSIGMA2:1.0\nLEVEL1:{outcome}=INTRCPT1+X+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+Z+RANDOM/\n"
        "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL3:Z=INTRCPT3/\nLEVEL2:X=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n"
        + NOFILES + NOFEATURES + "OUTPUT:b.txt\nRESULTS:b.json\nSHARES:Y\n" + extra)
    code, said = run(program, folder, "study9000.mdm", "b.kdr")
    assert code == 0, said[-600:]
    return {p["phase"]: p for p in json.loads((folder / "b.json").read_text())["phases"]}


def normal(f, steps=400):
    points = [(-8 + 16 * (i + 0.5) / steps) for i in range(steps)]
    return sum(f(z) * math.exp(-z * z / 2) for z in points) * 16 / steps / math.sqrt(2 * math.pi)


for kind, outcome, extra, which in (("BERNOULLI", "B", "", "pql"), ("BERNOULLI", "B", "AGQ:Y,50,5\n", "quadrature"), ("POISSON", "C", "", "pql")):
    phase = nonlinear(kind, outcome, extra)[which]
    made, g, v2, v3 = phase["variance_shares"], gamma(phase), T(phase)[0][0], T(phase, "tau_beta")[0][0]
    eta = [g[0] + g[1] * z + g[2] * x for _, _, _, x, z, _ in rows]
    mean = sum(eta) / n
    near(made["fixed"], variance(eta), (kind, "fixed"))
    if kind == "BERNOULLI":
        level1 = math.pi ** 2 / 3
        p = lambda v, u: 1 / (1 + math.exp(-(mean + math.sqrt(v3) * v + math.sqrt(v2) * u)))
        given = [(normal(lambda u, v=v: p(v, u), 100), normal(lambda u, v=v: p(v, u) ** 2, 100), v) for v in [-8 + 0.16 * (i + 0.5) for i in range(100)]]
        over = lambda f: sum(f(first, second) * math.exp(-v * v / 2) for first, second, v in given) * 0.16 / math.sqrt(2 * math.pi)
        m = over(lambda first, _: first)
        response2, response3 = ((over(f) - m * m) / (m * (1 - m)) for f in (lambda _, second: second, lambda first, _: first ** 2))
    else:
        rate = math.exp(mean + (v2 + v3) / 2)
        level1 = math.log(1 + 1 / rate)
        total = rate + rate ** 2 * (math.exp(v2 + v3) - 1)
        response2, response3 = rate ** 2 * (math.exp(v2 + v3) - 1) / total, rate ** 2 * (math.exp(v3) - 1) / total
    near(made["level1"], level1, (kind, "level1"))
    near(made["intraclass_correlation"]["same_level3_unit"], v3 / (level1 + v2 + v3), (kind, "latent"))
    near(made["r_squared"]["conditional"], (variance(eta) + v2 + v3) / (variance(eta) + v2 + v3 + level1), (kind, "conditional"))
    near(made["response_correlation"]["same_level2_unit"], response2, (kind, "response, level 2"))
    near(made["response_correlation"]["same_level3_unit"], response3, (kind, "response, level 3"))
    near(made["design_effect"], 1 + (m2 - 1) * response2 + (m3 - m2) * response3, (kind, "design effect"))
print("shares of variance: all well")
