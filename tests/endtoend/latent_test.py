"""Latent variable regression of the built program: coefficients, standard errors and tests against the delta method by
numerical differentiation, from the variance-covariance files of the same run; on simulated data with a known structure.
The results document against the same, to more digits.

    latent_test.py <program>
"""
import json
import math
import random
import re
import sys
import types

import rubin
from program import NOFILES, ROOT, Checks, Workplace, template

sys.dont_write_bytecode = True
sys.path.append(str(ROOT / "tools"))
from kdr3plot import tables
from kdr3plot.document import choosephase, readresults

MODEL = """#Two random slopes and an intercept
NONLIN:{kind}
LEVEL1:{outcome}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+Z+RANDOM/
LEVEL3:INTRCPT2={first}+RANDOM/
LEVEL3:Z=INTRCPT3+V+RANDOM/
LEVEL2:X=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2={second}+RANDOM/
LEVEL1DELETION:NONE
CONSTRAIN:{constrain}
HYPOTH:N
LVR-BETA:{roles}
{control}
PRINTVARIANCE-COVARIANCE:Y
FULLOUTPUT:N
{options}TITLE:Latent variables
OUTPUT:{output}
RESULTS:out.json
""" + NOFILES
UNITS = 250
# B00 = 1 + 0.5 W + u0, B01 = 0.8 + 0.4 V + u1, B10 = 0.3 + 0.2 W + u2 with u2 = 0.6 u0 - 0.4 u1 + e
SLOPES = (0.6, -0.4)
ADJUSTED = {"INTRCPT3": 0.3 - 0.6 * 1.0 + 0.4 * 0.8, "W": 0.2 - 0.6 * 0.5, "V": 0.4 * 0.4}


class Place(Workplace):
    def mdm(self, k=0, level3="(A4,3F10.4)"):
        """Makes latent.mdm of data set k: the outcomes YBERN and YORD are drawn anew in each."""
        self.write("latent.mdmt", template(
            "latent.mdm", (f"l1_{k}.dat", "l2.dat", "l3.dat"),
            ("(A4,1X,A6,4F10.4,2F3.0)", "(A4,1X,A6,1F10.4)", level3),
            (["Y", "X", "Y2", "Y3", "YBERN", "YORD"], ["Z"], ["W", "V", "SIZE"])))
        assert self.run("-r", "latent.mdmt").returncode == 0


def simulate(place):
    rng, more = random.Random(11), random.Random(12)
    inverse = lambda eta: 1 / (1 + math.exp(-eta))
    one, two, three, j = ([], [], []), [], [], 0
    for k in range(UNITS):
        w, v = rng.gauss(0, 1), rng.gauss(0, 1)
        u0, u1 = rng.gauss(0, 1), rng.gauss(0, 0.8)
        b = (1 + 0.5 * w + u0, 0.8 + 0.4 * v + u1, 0.3 + 0.2 * w + SLOPES[0] * u0 + SLOPES[1] * u1 + rng.gauss(0, 0.5))
        three.append("%4d%10.4f%10.4f%10.4f\n" % (k, w, v, 1 + k % 7))
        for _ in range(6):
            j += 1
            z = rng.gauss(0, 1)
            p0, p1 = b[0] + b[1] * z + rng.gauss(0, 0.5), b[2] + rng.gauss(0, 0.4)
            two.append("%4d %6d%10.4f\n" % (k, j, z))
            for _ in range(5):
                x = rng.gauss(0, 1)
                y = p0 + p1 * x + rng.gauss(0, 0.7)
                eta = p0 - 1 + p1 * x
                noise, u = (more.gauss(0, 0.3), more.gauss(0, 0.3)), more.random()
                for lines in one:
                    u = u if more.random() < 0.9 else more.random()
                    lines.append("%4d %6d%10.4f%10.4f%10.4f%10.4f%3d%3d\n" % (
                        k, j, y, x, y + noise[0], y + noise[1], u < inverse(eta),
                        1 + (u > inverse(eta)) + (u > inverse(eta + 1.5))))
    for name, lines in (*((f"l1_{n}.dat", lines) for n, lines in enumerate(one)), ("l2.dat", two), ("l3.dat", three)):
        place.write(name, "".join(lines))
    place.mdm()


NAMES = ("B00", "B01", "B10")
# level-3 terms of the three coefficients, each with its fixed effect
EQUATIONS = ({"INTRCPT3": 0, "W": 1}, {"INTRCPT3": 2, "V": 3}, {"INTRCPT3": 4, "W": 5})


def definition(tau, gamma, outcomes, predictors, terms, equations):
    """The rows of b, G_O and G_adj."""
    at = lambda i, term: gamma[equations[i][term]] if term in equations[i] else 0.0
    TPP = [[tau[i][j] for j in predictors] for i in predictors]
    b = [rubin.solved(TPP, [tau[o][p] for p in predictors]) for o in outcomes]
    G = [[at(o, t) for t in terms] for o in outcomes]
    adjusted = [[G[i][w] - sum(x * at(p, t) for x, p in zip(b[i], predictors)) for w, t in enumerate(terms)]
                for i in range(len(outcomes))]
    return b, G, adjusted


def standarderrors(f, x, C):
    """By central differences; f gives a list of values."""
    J = []
    for i in range(len(x)):
        h = 1e-5
        up, down = list(x), list(x)
        up[i] += h
        down[i] -= h
        J.append([(a - b) / (2 * h) for a, b in zip(f(up), f(down))])
    n = len(x)
    return [math.sqrt(sum(J[i][k] * C[i][j] * J[j][k] for i in range(n) for j in range(n))) for k in range(len(J[0]))]


ROW = re.compile(r"^ .*?([A-Z0-9]+),G\d+\*\s*(\S+) +(\S+) +(\S+) +(\S+)$", re.M)
COMPARISON = re.compile(r"^.{22}  ([ A-Z0-9]{8}) *(-?\d+\.\d{5}) +(-?\d+\.\d{5}) +(-?\d+\.\d{5}) +(\d+\.\d{5})$", re.M)


def pooled(singles):
    """The averages of single runs in the place of one."""
    whole = lambda ms, vectors: rubin.total(rubin.meanmatrix(ms), vectors)[0]
    return types.SimpleNamespace(
        taubeta=rubin.meanmatrix([s.taubeta for s in singles]), gamma=rubin.mean([s.gamma for s in singles], vector=True),
        taucovariance=whole([s.taucovariance for s in singles], [s.tau() for s in singles]),
        covariance=whole([s.covariance for s in singles], [s.gamma for s in singles]))


def compare(check, name, text, document, single, roles, equations=EQUATIONS):
    """The regression in a report and in a results document against that of a single run's estimates, or of averaged ones."""
    r, firstbeta = 3, 3
    outcomes = [i for i in range(r) if roles[i] == "O"]
    predictors = [i for i in range(r) if roles[i] == "P"]
    used = {t for i in outcomes + predictors for t in equations[i]}
    terms = [t for t in ("INTRCPT3", "W", "V") if t in used]
    g = len(single.gamma)
    pairs = [(i, j) for i in range(r) for j in range(i + 1)]
    x = [single.taubeta[i][j] for i, j in pairs] + single.gamma
    C = [[0.0] * len(x) for _ in x]
    for a in range(len(pairs)):
        for c in range(len(pairs)):
            C[a][c] = single.taucovariance[firstbeta + a][firstbeta + c]
    for a in range(g):
        for c in range(g):
            C[len(pairs) + a][len(pairs) + c] = single.covariance[a][c]

    def at(x):
        tau = [[0.0] * r for _ in range(r)]
        for (i, j), value in zip(pairs, x):
            tau[i][j] = tau[j][i] = value
        return definition(tau, x[len(pairs):], outcomes, predictors, terms, equations)

    flat = lambda m: [y for row in m for y in row]
    b, G, adjusted = at(x)
    errb = standarderrors(lambda y: flat(at(y)[0]), x, C)
    erradj = standarderrors(lambda y: flat(at(y)[2]), x, C)
    errdiff = standarderrors(lambda y: [p - q for p, q in zip(flat(at(y)[1]), flat(at(y)[2]))], x, C)
    near = lambda what, got, want, tolerance: check(abs(float(got) - want) <= tolerance,
                                                    f"{name}: {what} is {got}, expected {want}")
    section = text[text.index("Latent Variable Regression Results"):]
    table = ROW.findall(section)
    check(len(table) == len(outcomes) * (len(terms) + len(predictors)), f"{name}: {len(table)} rows\n{section}")
    table = iter(table)
    df = UNITS - len(terms) - len(predictors)
    estimates = {}
    for i in range(len(outcomes)):
        rows = [(terms[w], adjusted[i][w], erradj[i * len(terms) + w]) for w in range(len(terms))] + \
            [(NAMES[predictors[k]], b[i][k], errb[i * len(predictors) + k]) for k in range(len(predictors))]
        for (label, value, error), (got, estimate, se, t, p) in zip(rows, table):
            check(got == label, f"{name}: row {got}, expected {label}")
            near(label, estimate, value, 2e-6)
            near(label + " s.e.", se, error, 1e-5)
            if error == 0.0:  # a term that neither the outcome's nor a predictor's equation has
                check(value == 0.0 and (t, p) == ("NC", "NC"), f"{name}: t and p of {label} are {t}, {p}")
                continue
            near(label + " t", t, value / error, 2e-3 + 1e-3 * abs(value / error))
            near(label + " p", p, math.erfc(abs(value / error) / math.sqrt(2)), 5e-3)  # df is large
            estimates[label] = float(estimate), float(se)
    compared = COMPARISON.findall(section)
    check(len(compared) == len(outcomes) * len(terms), f"{name}: {len(compared)} compared rows")
    for n, row in enumerate(compared):
        i, w = divmod(n, len(terms))
        near("original", row[1], G[i][w], 6e-6)
        near("adjusted", row[2], adjusted[i][w], 6e-6)
        near("difference", row[3], G[i][w] - adjusted[i][w], 6e-6)
        near("its error", row[4], errdiff[n], 1.1e-5)
    rows = [line for line in section[section.index("Var(u*)"):].splitlines() if line.startswith("\t")]
    for i, o in enumerate(outcomes):
        for j, other in enumerate(outcomes):
            R = single.taubeta[o][other] - sum(x * single.taubeta[other][p] for x, p in zip(b[i], predictors))
            near(f"residual covariance {i} {j}", rows[i].split()[-len(outcomes) + j], R, 6e-6)
    check(df > 200, name)

    (latent,) = [phase["latent_regression"] for phase in document["phases"] if "latent_regression" in phase]
    close = lambda what, got, want: check(got is not None and abs(got - want) <= 2e-5 * max(abs(want), 1e-2),
                                          f"{name}: {what} of the document is {got}, expected {want}")
    names = [f"B{row['subscript']}" for row in latent["outcomes"]]
    check(names == [NAMES[o] for o in outcomes] and latent["df"] == df, f"{name}: document: {names}, {latent['df']}")
    for i, outcome in enumerate(latent["outcomes"]):
        check([row["level3"] for row in outcome["terms"]] == terms, f"{name}: document: {outcome['terms']}")
        check([f"B{row['subscript']}" for row in outcome["predictors"]] == [NAMES[p] for p in predictors], name)
        rows = [(row, adjusted[i][w], erradj[i * len(terms) + w]) for w, row in enumerate(outcome["terms"])] + \
            [(row, b[i][k], errb[i * len(predictors) + k]) for k, row in enumerate(outcome["predictors"])]
        for row, value, error in rows:
            close("estimate", row["estimate"], value)
            close("error", row["standard_error"], error)
            check((row["t"] is None) == (error == 0.0), f"{name}: {row}")
            if error != 0.0:
                close("t", row["t"], value / error)
        for w, row in enumerate(outcome["terms"]):
            close("original", row["original"], G[i][w])
            close("difference", row["difference"], G[i][w] - adjusted[i][w])
            close("its error", row["difference_standard_error"], errdiff[i * len(terms) + w])
        for j, other in enumerate(outcomes):
            R = single.taubeta[outcomes[i]][other] - sum(x * single.taubeta[other][p] for x, p in zip(b[i], predictors))
            close("residual covariance", latent["residual_covariance"][i][j], R)
    return estimates


if __name__ == "__main__":
    check = Checks()
    place = Place(sys.argv[1])
    simulate(place)
    both = "INTRCPT3+W"

    linear = dict(kind="N", outcome="Y=INTRCPT1+X", control="NUMIT:5000,N\nSTOPVAL:0.0000000001", options="", first=both,
                  second=both, constrain="N", output="out.txt")
    macro = dict(linear, control="MACROIT:50,N\nMICROIT:500\nSTOPMICRO:0.0000001")
    bernoulli = dict(macro, kind="BERNOULLI", outcome="YBERN=INTRCPT1+X", options="FIXSIGMA2:1.0\n")
    ordinal = dict(macro, kind="ORDINAL,3", outcome="YORD=INTRCPT1+X+THOLD2")
    quick = dict(control="MACROIT:4,N\nMICROIT:30\nSTOPMICRO:0.0001")  # what is regressed need not have converged

    def run(name, roles, words=(), code=0, **settings):
        place.write("latent.kdr", MODEL.format(roles=",".join(roles), **dict(linear, **settings)))
        done = place.run(*words, "latent.mdm", "latent.kdr")
        check(done.returncode == code, f"{name}: {done.stdout[-500:]}")
        return done

    document = lambda file: json.loads(place.read(file))

    def single(name, roles, equations=EQUATIONS, **settings):
        """A run, its regression compared, and what it left."""
        run(name, roles, **settings)
        left = rubin.Single(place.folder, "out.txt")
        return left, compare(check, name, place.read("out.txt"), document("out.json"), left, roles, equations)

    # what it was made with comes back; of the other outcomes the scale differs, and the intercept by 1
    for name, settings, shift in (("linear", linear, 0), ("bernoulli", bernoulli, 1), ("ordinal", ordinal, 1)):
        _, found = single(name, "PPO", **settings)
        truth = dict(ADJUSTED, INTRCPT3=ADJUSTED["INTRCPT3"] + SLOPES[0] * shift)
        for label, value in [("B00", SLOPES[0]), ("B01", SLOPES[1]), *truth.items()]:
            estimate, error = found[label]
            check(abs(estimate - value) < 3 * error, f"{name}: {label} is {estimate} ({error}), made with {value}")
        check("\tB10 = G100* + G101*(W) + G102*(V) + G103*(B00) + G104*(B01) + u10*\n" in place.read("out.txt"),
              f"{name}: the equation")
        phase = choosephase(readresults(str(place.folder / "out.json")))
        cells = re.sub("<[^>]*>", " ", tables.latenttables(phase))
        shown = re.search("regression of the coefficient X.*Coefficient: Z +(\\S+)", cells, re.S)
        check(shown and abs(float(shown[1].replace("\N{MINUS SIGN}", "-")) - found["B01"][0]) < 1e-3, f"{name}: page: {cells}")
        run(f"{name}, html", "PPO", **dict(settings, output="out.html"))
        page = place.read("out.html")
        check("<h4>Latent Variable Regression Results</h4>" in page and "%13.6f</td>" % found["B00"][0] in page,
              f"{name}, html")
    for roles, settings in (("OOP", linear), ("POO", linear), ("IPO", linear), ("OPI", linear), ("OIP", dict(ordinal, **quick)),
                            ("POO", dict(bernoulli, **quick))):
        single(roles, roles, **settings)
    # the covariance of a weighted run is the one of its table, in the file and here
    for kind, settings in (("linear", dict(options="LEVEL3WEIGHT:SIZE\n")),
                           ("bernoulli", dict(bernoulli, options="FIXSIGMA2:1.0\nLEVEL3WEIGHT:SIZE\n", **quick))):
        left, _ = single(f"weighted {kind}", "PPO", **settings)
        for i, row in enumerate(left.report.fixed["final"].rows):
            check(abs(left.covariance[i][i] / row.se ** 2 - 1) < 1e-3, f"weighted {kind}: file {left.covariance[i][i]}, {row}")
    single("constrained", "PPO", ({"INTRCPT3": 0, "W": 1}, {"INTRCPT3": 2, "V": 3}, {"INTRCPT3": 4, "W": 1}),
           constrain="0,1,0,0,0,1")
    run("no intercept", "PIO", first="W", second="W")
    text = place.read("out.txt")
    check("\tB10 = G100*(W) + G101*(B00) + u10*\n" in text and re.search(r"B10         W,G100\*", text),
          "no intercept: the first term's name")

    # in a series: each sub-run's own, and that of the averages
    values = ["Y", "Y2", "Y3"]
    singles = [single(value, "PPO", outcome=value + "=INTRCPT1+X") for value in values]
    run("plausible values", "PPO", outcome="Y=INTRCPT1+X", options="PLAUSVALS:" + ",".join(values) + "\n")
    for k, (left, _) in enumerate(singles):
        compare(check, f"plausible value {k + 1}", place.read(f"out.{k + 1}"), document(f"out_{k + 1}.json"), left, "PPO")
    compare(check, "averages of plausible values", place.read("out.avg"), document("out.json"),
            pooled([left for left, _ in singles]), "PPO")
    for name, settings in (("bernoulli", dict(bernoulli, **quick)), ("ordinal", dict(ordinal, **quick))):
        singles = []
        for k in range(3):
            place.mdm(k)
            singles.append(single(f"{name} {k}", "OPP", **settings)[0])
        for k in range(3):
            place.mdm(k)
            run(f"{name}, data set {k}", "OPP", (f"-mi{k}", *(["-e"] if k == 2 else [])), **settings)
            compare(check, f"{name}, data set {k}", place.read(f"out.{k + 1}"), document(f"out_{k + 1}.json"), singles[k], "OPP")
        compare(check, f"{name}, averages", place.read("out.avg"), document("out.json"), pooled(singles), "OPP")

    # the unit of a level-3 variable is told by its numbers alone: its rows have as many digits in any
    _, plain = single("unit of one", "PPO")
    place.write("l3.dat", "".join(row[:4] + "%14.4f" % (1e6 * float(row[4:14])) + row[14:] for row in place.read("l3.dat").splitlines(True)))
    place.mdm(0, "(A4,1F14.4,2F10.4)")
    run("unit of a million", "PPO")
    table = {label: (float(estimate), float(error), t, p) for label, estimate, error, t, p in ROW.findall(place.read("out.txt"))}
    for label, (value, error) in plain.items():
        unit = 1e6 if label == "W" else 1.0
        for what, got, want in (("estimate", table[label][0], value), ("error", table[label][1], error)):
            check(abs(got * unit / want - 1) < 1e-3, f"{label} in millions: {what} {got}, {want} in ones")

    # before the report there is nothing to regress on, or nothing to regress
    for roles in ("OOI", "PPI"):
        done = run(roles, roles, code=100, output="refused.txt")
        check("latent variable regression needs a" in done.stdout and not (place.folder / "refused.txt").exists(),
              f"{roles}: {done.stdout}")
    check.finish()
