"""Where scales, boundaries and options meet: numbers that must not depend on units of measurement, and words."""
import json
import math
import pathlib
import random
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "reference"))
import edgemodels
import ordinarysets
from program import Checks, Workplace

check = Checks()
work = Workplace(sys.argv[1])
MODEL = """NONLIN:N
LEVEL1:Y=INTRCPT1{x}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
{more}""" + ordinarysets.END
SLOPE = "LEVEL2:X1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3{random}/\n"


def study(units3, units2, records, y, scalex=1.0, scaley=1.0, x=lambda rng, i: rng.gauss(0, 1), z=lambda k, j: 1.0,
          **missing):
    """y(rng, k) starts a level-3 unit and gives a function that starts a level-2 unit and gives one of x."""
    rng = random.Random(5)
    rows = [[], [], []]
    for k in range(units3):
        start2 = y(rng, k)
        rows[2].append((k, 1.0 + k % 3))
        for j in range(units2(k) if callable(units2) else units2):
            value = start2()
            rows[1].append((k, j, z(k, j)))
            for i in range(records(k + j) if callable(records) else records):
                x1 = x(rng, i)
                rows[0].append((k, j, scaley * value(x1), scalex * x1, -1.0 - i))
    work.make(rows, "%20.14f", ordinarysets.VARIABLES, **missing)


def slopes(sd2=(1, 0.5), sd3=(0.7, 0.3), sde=1.0):
    def start(rng, k):
        v = [rng.gauss(0, sd) for sd in sd3]

        def start2():
            u = [rng.gauss(0, sd) for sd in sd2]
            return lambda x: 1 + u[0] + v[0] + (2 + u[1] + v[1]) * x + rng.gauss(0, sde)
        return start2
    return start


def fit(what, code=0, x="+X1", more=SLOPE.format(random="+RANDOM"), output="s.txt", **keywords):
    work.write("s.kdr", MODEL.format(x=x, more=more))
    done = work.run("s.mdm", work.edited("s.kdr", "s.kdr", OUTPUT=output, **keywords))
    check(done.returncode == code, f"{what}: code {done.returncode}, {done.stdout[-200:]!r}")
    return done.stdout + work.read(output)


def number(pattern, text):
    found = re.findall(pattern + r"\s*=?\s*(-?[\d.]+)", text)
    return float(found[-1]) if found else math.nan


def near(what, got, want, relative):
    check(abs(got - want) <= relative * abs(want), f"{what} is {got}, expected {want}")


def ratios(text):
    """The t-ratios of the fixed effects, model-based and robust."""
    return [float(t) for t in re.findall(r"INTRCPT3, G\S+ +\S+ +\S+ +(\S+)", text.split("Final estimation of fixed")[-2] + text.split("Final estimation of fixed")[-1])]


# Intercepts alone, random effects a hundred times sigma: with w_j = 1/(tau_pi + sigma^2/n_j) of the level-2 units and
# W_k their sum, the score of level-3 unit k is sum_j w_j (mean_j - gamma) / (1 + tau_beta W_k).
means = []


def large(rng, k):
    v = rng.gauss(0, 0.5)
    means.append([])

    def start2():
        u, own = rng.gauss(0, 1), []
        means[-1].append(own)

        def value(x):
            own.append(3 + u + v + rng.gauss(0, 0.01))
            return own[-1]
        return value
    return start2


study(60, lambda k: 1 + k % 7, lambda unit: 2 + unit % 9, large)
text = fit("large random effects", x="", more="", STOPVAL="0.01")
gamma, sigma2 = number(r"INTRCPT3, G000", text), number(r"\n sigma\^2", text)
taupi, taubeta = (float(re.findall(row + r" +\S+ +(\S+)", text)[-1]) for row in (r"r0", r"u00"))
scores, information = 0.0, 0.0
for unit in means:
    w = [1 / (taupi + sigma2 / len(own)) for own in unit]
    e = sum(a * (sum(own) / len(own) - gamma) for a, own in zip(w, unit)) / (1 + taubeta * sum(w))
    scores += e * e
    information += sum(w) / (1 + taubeta * sum(w))
near("the robust standard error beside large random effects", number(r"INTRCPT3, G000 +\S+", text),
     math.sqrt(scores) / information, 1e-3)

# No unit of measurement decides what can be computed: deviance, t-ratios and standard errors of the variances follow.
study(20, 6, 8, slopes())
base = fit("units of measurement 1 1")
few = "large number of level 3 units.  These data do not meet this criterion."
check(few in base, "20 level-3 units less one effect are few")
for scalex, scaley in ((1e5, 1), (1e-4, 1), (2e5, 1e4), (1, 1e5), (1e-3, 1e-4)):
    study(20, 6, 8, slopes(), scalex, scaley)
    what = f"units of measurement {scalex:g} {scaley:g}"
    text = fit(what)
    check("not computable" not in text and "cannot be computed" not in text, what + ": something is not computable")
    near(what + ": the deviance", number("Deviance  +", text), number("Deviance  +", base) + 960 * 2 * math.log(scaley), 1e-6)
    got, want = ratios(text), ratios(base)
    if scalex == 1:
        check(len(got) == len(want) == 4, f"{what}: {len(got)} t-ratios")
        for a, b in zip(got, want):
            near(what + ": a t-ratio", a, b, 2e-3)

# The files keep small numbers.
work.write("start.val", "")
(work.folder / "start.val").unlink()
text = fit("small numbers", STARTVALS="start.val", **{"PRINTVARIANCE-COVARIANCE": "Y"})
tail = text.split("Final estimation of level-3")[-1]
lines = work.read("start.val").splitlines()
taus = work.read("tauvc.dat").split()
check(all(len(line) == 13 for line in lines[lines.index("#GAMMA") + 1:]), "a gamma of the start file has 13 columns")
near("sigma2 in tauvc.dat and in the start file", float(lines[1]), float(taus[-1]), 2e-7)
near("tau in tauvc.dat and in the start file", float(lines[3]), float(taus[0]), 2e-7)
check(all(float(t) != 0 for t in taus[:8]), "no tau in tauvc.dat is 0")
deviance = number("Deviance  +", text)
near("the deviance from its own start file", number("Deviance  +", fit("from the start file", STARTVALS="start.val")), deviance, 1e-7)

# Two records a unit for two random effects: identified by the predictor's variation between units, or not at all.
study(60, 4, 2, slopes())
text = fit("two records a unit", more=SLOPE.format(random=""))
check("share out the\n" in text, "shared starting values are announced")
near("sigma^2 from two records a unit", number(r"\n sigma\^2", text), 1.0, 0.5)
study(60, 4, 2, slopes(), x=lambda rng, i: i)
text = fit("two records a unit at the same two places", 16, more=SLOPE.format(random=""))

# 21 less one are enough. With two level-2 units in a level-3 unit there are too few for covariances of its own.
for units2, code in ((3, 0), (2, 100)):
    study(21, units2, 6, slopes())
    text = fit(f"heterogeneous, {units2} units", code, more=SLOPE.format(random=""), HETIT="2")
    check(("ratio is too small" in text) == (code == 100), f"heterogeneous, {units2} units: {text[-200:]}")
    check(code == 100 or few not in text, "21 level-3 units less one effect are few")

# Ordinary studies end with estimates.
for seed in range(40):
    line = ordinarysets.study(work, seed)
    done = work.run("s.mdm", "s.kdr")
    check(done.returncode == 0, f"{line}: code {done.returncode}")

# From the default criterion on, the least deviances of densemaximum.py: maxima where a tau has no inverse; a ridge that steps
# creep along (732); two hills of which another start finds the higher one (369, and 1491 by 80); a given covariance that
# moments make no variances for (406); a tau that goes to 0 beside one of rank 1.
work.write("s.mdmt", edgemodels.TEMPLATE)
for made, least in ((78, 1000.5523), (167, -185.5455), (259, 40.4087), (369, -18.2339), (406, -193.5929), (437, -96.7173),
                    (591, -84.6994), (675, 1017.1195), (707, 7.6341), (732, -1483.9433), (1491, -170.5607),
                    (edgemodels.Hills(372), 288.9239)):
    made = edgemodels.Study(made) if isinstance(made, int) else made
    made.write(work)
    assert work.run("-r", "s.mdmt").returncode == 0
    done = work.run("-strict", "s.mdm", "s.kdr")
    text = work.read("s.txt")
    what = f"edge, {made}"
    check(done.returncode == 0 and "At iteration" in text and "At iteration" in done.stdout, what + ": no search")
    check(abs(number("Deviance  +", text) - least) < 0.001, f"{what}: deviance {number('Deviance  +', text)}, least {least}")

# Known variances a billionth of what the outcomes vary by leave the log-likelihood no digit: where the search at the edge
# finds no maximum for it, the run has not converged, and all places say so.
lost = 0
for seed in (1, 15, 16, 17, 26, 33, 46, 55):
    rng = random.Random(seed)
    rows = ["", "", ""]
    for k in range(6):
        rows[2] += "%4d%20.10f\n" % (k, 1)
        for j in range(3):
            rows[1] += "%4d%4d%20.10f\n" % (k, j, 1)
            for _ in range(4):
                known, y = max(10 ** rng.uniform(-9, 0), 1e-9), rng.gauss(0, 1) * 10 ** rng.uniform(0, 4)
                rows[0] += "%4d%4d" % (k, j) + "".join("%20.10f" % c for c in (y, 0, 0, known)) + "\n"
    for level in range(3):
        work.write("s%d.dat" % (level + 1), rows[level])
    assert work.run("-r", "s.mdmt").returncode == 0
    work.write("s.kdr", MODEL.format(x="", more="VARIANCEKNOWN:V\n"))
    done = work.run("-strict", "s.mdm", "s.kdr", "-results", "s.json")
    text, document = work.read("s.txt"), json.loads(work.read("s.json"))
    ending = document["phases"][-1]["ending"]
    check(done.returncode == (0 if document["converged"] else 20), f"no digit left, {seed}: code {done.returncode}")
    told = ["there has failed" in text, "were stopped prior to convergence" in done.stdout,
            any("prior to convergence" in x for x in document["warnings"])]
    check(told == [True] * 3 and not document["converged"] or ending == "converged", f"no digit left, {seed}: {ending} {told}")
    lost += ending == "lost"
check(lost > 0, "a search that fails is told")

# Words. Of two equal gammas the second is removed, the first row of its coefficient: the heading goes to the next row.
study(15, 4, 6, slopes(sd3=(0.5, 0)))
MORE = "LEVEL2:X1=INTRCPT2+Z+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Q/\nLEVEL3:Z=INTRCPT3/\n"
study(15, 4, 6, slopes(sd3=(0.5, 0)), z=lambda k, j: (k + j) % 5)
text = fit("a removed first row", more=MORE, CONSTRAIN="1,1,0,0").split("Final estimation of fixed effects")[1]
check(text.index("X1") < text.index(" Q, G"), f"the slope's own heading stands above its first row that is left: {text[:900]}")
html = fit("its HTML", more=MORE, CONSTRAIN="1,1,0,0", output="s.html")
check("page 1" not in html and "See the table of the constraints." in html, "the HTML report has no page 1")
text = fit("least squares", x="+X1", more=SLOPE.format(random=""))
least = text.split("Least-squares estimates")[1].split("STARTING VALUES")[0]
check("#" in text and "#" not in least, "the degrees of freedom of least squares are exact")

# The exploratory analysis of two units says why it has no numbers.
study(2, 30, 8, slopes())
work.write("s.kdr", MODEL.format(x="", more="").replace("INTRCPT3+RANDOM/", "INTRCPT3+RANDOM/Q"))
for name in ("s.txt", "s.html"):
    done = work.run("s.mdm", work.edited("s.kdr", "s.kdr", OUTPUT=name))
    check(done.returncode == 0 and "there are too few level-3 units" in work.read(name), f"{name}: two units, {done.stdout[-99:]}")
check(re.search(r"Potential Level-3 Predictors</td>\s*</tr>\s*<tbody>", work.read("s.html")), "the row of the heads is closed")

# The table is as wide as the longest list of candidates, also where the coefficient that has it is not random.
study(15, 4, 6, slopes())
text = fit("candidates of a fixed slope", more="LEVEL2:X1=INTRCPT2/Z\nLEVEL3:INTRCPT2=INTRCPT3/\n", output="s.html")
check("<td align=center colspan=1 " in text, "candidates of a fixed slope: width of the table")

# Known variances: both forms of the report say that they are not normalised, and what the deviance compares with.
study(15, 4, 6, slopes(), x=lambda rng, i: 1 + rng.random())
for name, cell in (("s.txt", r"Precision +yes +X1 +no\n"), ("s.html", r"Precision</td>.*> *X1</td><td[^>]*>no</td>")):
    text = fit("known variances", x="", more="", VARIANCEKNOWN="X1", output=name)
    check(re.search(cell, text), f"{name}: a precision is not normalised")
    check("compare such deviances only with each other" in text, f"{name}: deviances of known variances")

# A record that lacks one of them, or its weight, is deleted.
study(15, 4, 6, slopes(), x=lambda rng, i: 1 + rng.random() if i else -99.0, missing="y/SAME\n-99.000000", deletion="analysis")
for keyword in ("VARIANCEKNOWN", "LEVEL1WEIGHT"):
    text = fit(keyword + " with missing values", x="", more="", **{keyword: "X1"})
    check("level-1 records to 300" in text, f"{keyword} with missing values: {text[-200:]}")

# Weights are tested as they were read: a mean of negative ones would make them positive.
study(15, 4, 6, slopes(), z=lambda k, j: -1.0 - j)
for level, name in ((1, "X2"), (2, "Z")):
    text = fit(f"negative weights at level {level}", 100, **{f"LEVEL{level}WEIGHT": name})
    check(f"Level-{level} Weights must be positive!" in text, f"negative weights at level {level}: {text[-99:]!r}")
check.finish()
