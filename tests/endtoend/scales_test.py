"""A predictor's unit of measurement changes nothing but its own coefficient: every outcome type, every engine.

    scales_test.py <program>

X is measured in units from 1e-8 to 1e8, Z in their inverses. Effects, their standard errors and the elements of the taus
are brought back to the first unit; what is left is the same model.
"""
import json
import random
import sys

from program import NOFEATURES, NOFILES, Checks, Workplace, template

check = Checks()
work = Workplace(sys.argv[1])
work.write("s.mdmt", template("s.mdm", ("s1.dat", "s2.dat", "s3.dat"), ("(2A4,6F20.13)", "(2A4,F20.13)", "(A4,F20.13)"),
                              (["Y", "B", "COUNT", "GRADE", "N", "X"], ["Z"], ["Q"])))
SCALES = (1.0, 1e-8, 1e-3, 1e3, 1e8)
RUNS = [("linear", "NONLIN:N\nNUMIT:500,N\n", "Y", ""),
        ("diagonal", "NONLIN:N\nNUMIT:500,N\n", "Y", "DIAGONALIZETAUPI:Y\n"),
        ("diagonal by EM", "NONLIN:N\nNUMIT:500,N\n", "Y", "DIAGONALIZETAUPI:Y\nFISHERTYPE:0\n"),
        ("restricted likelihood", "NONLIN:N\nNUMIT:500,N\n", "Y", "LIKELIHOOD:REML\n"),
        ("Bernoulli", "NONLIN:BERNOULLI\n", "B", ""),
        ("binomial", "NONLIN:BERNOULLI,N\n", "COUNT", ""), ("over-dispersed", "NONLIN:POISSON\n", "COUNT", "FIXSIGMA2:0\n"),
        ("Poisson with exposure", "NONLIN:POISSON,N\n", "COUNT", ""), ("multinomial", "NONLIN:MULTINOMIAL,3\n", "GRADE", ""),
        ("ordinal", "NONLIN:ORDINAL,3\n", "GRADE", ""), ("Bernoulli by quadrature", "NONLIN:BERNOULLI\n", "B", "AGQ:Y,40,3\n"),
        ("Poisson by quadrature", "NONLIN:POISSON,N\n", "COUNT", "AGQ:Y,40,3\n"),
        ("Bernoulli by Laplace", "NONLIN:BERNOULLI\n", "B", "AGQ:Y,40,1\n"),
        ("Bernoulli by Laplace-6", "NONLIN:BERNOULLI\n", "B", "LAPLACE:Y,50\n")]


def study(scale):
    rng = random.Random(8)
    rows = [[], [], []]
    for k in range(20):
        v = [rng.gauss(0, 0.6), rng.gauss(0, 0.3)]
        rows[2].append("%4d%20.13e\n" % (k, rng.gauss(0, 1)))
        for j in range(4):
            z, u = round(rng.gauss(0, 1), 4), [rng.gauss(0, 0.7), rng.gauss(0, 0.5)]
            rows[1].append("%4d%4d%20.13e\n" % (k, j, z / scale))
            for _ in range(8):
                x, n = round(rng.gauss(0.5, 1), 4), rng.randint(1, 4)
                eta = -0.3 + 0.3 * z + (0.5 + u[1] + v[1]) * x + u[0] + v[0]
                made = [float(rng.random() < 1 / (1 + 2.718281828 ** -eta)) for _ in range(n)]
                grade = 1.0 + (eta + rng.gauss(0, 1.6) > -0.7) + (eta + rng.gauss(0, 1.6) > 0.7)
                cells = (eta + rng.gauss(0, 1), made[0], sum(made), grade, n, x * scale)
                rows[0].append("%4d%4d" % (k, j) + "".join("%20.13e" % c for c in cells) + "\n")
    for level in range(3):
        work.write("s%d.dat" % (level + 1), "".join(rows[level]))
    done = work.run("-r", "s.mdmt")
    assert done.returncode == 0, done.stdout


def fit(head, outcome, more):
    linear, sets = "NUMIT" in head, 2 if "MULTI" in head else 1
    cuts = "+THOLD2" if "ORDINAL" in head else ""
    slope = "" if "MULTI" in head else "+RANDOM"
    equations = (f"LEVEL1:{outcome}=INTRCPT1+X{cuts}+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+Z+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Q+RANDOM/\n"
                 f"LEVEL3:Z=INTRCPT3/\nLEVEL2:X=INTRCPT2{slope}/\nLEVEL3:INTRCPT2=INTRCPT3/\n") * sets
    control = "" if linear else "MACROIT:200,N\nMICROIT:100\n" + ("" if "FIXSIGMA2" in more else "FIXSIGMA2:1\n")
    work.write("s.kdr", head + control + more + equations + "OUTPUT:s.txt\n" + NOFILES + NOFEATURES)
    done = work.run("s.mdm", "s.kdr", "-results", "s.json", "-strict")
    return done, json.loads(work.read("s.json")) if done.returncode in (0, 20) else None


def numbers(phase, scale):
    """Effects and errors in the first unit, elements of the taus; likelihoods."""
    unit = lambda e: (scale if e["level1"] == "X" else 1.0) / (scale if e["level2"] == "Z" else 1.0)
    made = []
    for e in phase["fixed_effects"]:
        made += [e["estimate"] * unit(e), e["model_based"]["standard_error"] * unit(e)]
        if e["robust"]:
            made.append(e["robust"]["standard_error"] * unit(e))
    for name in ("tau_pi", "tau_beta"):
        tau = (phase[name] or {}).get("estimate", [])
        powers = [1.0, scale] if name == "tau_pi" and len(tau) == 2 and len(phase["fixed_effects"]) < 7 else [1.0] * len(tau)
        made += [tau[i][j] * powers[i] * powers[j] for i in range(len(tau)) for j in range(i + 1)]
    return made, [phase["deviance"], phase["marginal_log_likelihood"]]


want = {}
for scale in SCALES:
    study(scale)
    for name, head, outcome, more in RUNS:
        done, document = fit(head, outcome, more)
        what = f"{name}, unit {scale:g}"
        check(done.returncode in (0, 20 if "AGQ" in more else 0), f"{what}: code {done.returncode}, {done.stdout[-300:]!r}")
        if document is None:
            continue
        phases = [p for p in document["phases"] if p["phase"] in ("final", "pql", "laplace6", "quadrature", "population_average")]
        got = [numbers(p, scale) for p in phases]
        if scale == 1.0:
            want[name] = got
            continue
        check(len(got) == len(want[name]), what + ": phases")
        for phase, (a, x), (b, y) in zip(phases, got, want[name]):
            check(len(a) == len(b), what + ": elements")
            for i, (one, other) in enumerate(zip(a, b)):
                check.near(f"{what}, {phase['phase']}, number {i}", one, other, 2e-5, 1e-4)
            for one, other in zip(x, y):
                check.same(f"{what}, {phase['phase']}, likelihood", one, other, 1e-4, 1e-7)
check.finish()
