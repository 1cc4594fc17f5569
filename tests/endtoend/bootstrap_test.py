"""Bootstrap intervals beside those of lme4, each with its own random numbers; threads, seeds, failures, refusals.

The numbers of lme4 are in tests/reference/bootstraps.out (bootstraps.R).
"""
import json
import math
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "reference"))
import comparerestricted as campaign
import restrictedstudies as studies
from program import NOFEATURES, NOFILES, REFERENCE, run

program = str(pathlib.Path(sys.argv[1]).resolve())
folder = pathlib.Path(tempfile.mkdtemp())
rows = studies.rows(61)
(folder / "s.csv").write_text("school,pupil,Y,X,Z,Q,B,C\n" + "".join(
    "%d,%d,%.8f,%.8f,%.8f,%.8f,%d,%d\n" % (*row, row[2] > 0.2, min(9, max(0, round(row[2] + 1)))) for row in rows))
code, said = run(program, folder, "-from", "s.csv", "-level3", "school", "-level2", "pupil")
assert code == 0, said
(folder / "linear.kdr").write_text(campaign.commands("slope2", "LIKELIHOOD:ML\n").replace("LIKELIHOOD:REML\n", ""))
BINARY = ("NONLIN:BERNOULLI\nMACROIT:200,N\nMICROIT:50\nFIXSIGMA2:1.0\nLEVEL1:B=INTRCPT1+X+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+Z+RANDOM/\n"
          "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL3:Z=INTRCPT3/\nLEVEL2:X=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n"
          + NOFILES + NOFEATURES + "OUTPUT:s.txt\nRESULTS:s.json\n")
(folder / "binary.kdr").write_text(BINARY)
(folder / "engine.kdr").write_text(BINARY + "AGQ:Y,50,1\n")


def bootstrap(command, phase, *words):
    code, said = run(program, folder, *words, "s.mdm", command)
    assert code == 0, said[-800:]
    whole = json.loads((folder / "s.json").read_text())
    return [p for p in whole["phases"] if p["phase"] == phase][0]["bootstrap"], said


def named(made):
    pupils, schools = made["tau_pi"]["standard_deviation"], made["tau_beta"]["standard_deviation"]
    names = ["Intercept", "Q", "Z", "X", "Q:X"] if len(made["fixed_effects"]) == 5 else ["Intercept", "Z", "X"]
    found = dict(zip(names, made["fixed_effects"]))
    found |= {"sd_Intercept|school:pupil": pupils[0], "sd_Intercept|school": schools[0], "school:pupil": pupils[0], "school": schools[0]}
    if len(pupils) > 1:
        found["sd_X|school:pupil"] = pupils[1]
    if made["sigma2"]:
        found["sigma"] = [math.sqrt(x) for x in made["sigma2"]]
    return found


# Bounds within four Monte Carlo errors of lme4's: that of a 2.5% quantile of B normal variates is 2.67 sd / root(B).
wanted = {}
for line in (REFERENCE / "bootstraps.out").read_text().splitlines():
    kind, name, count, sd, low, high = line.split()
    wanted.setdefault(kind, []).append((name, int(count), float(sd), float(low), float(high)))
for kind, command, phase, words, B in (("parametric", "linear.kdr", "final", [], 4000), ("cases", "linear.kdr", "final", ["-cases"], 4000),
                                       ("binary", "engine.kdr", "quadrature", [], 300)):
    made, said = bootstrap(command, phase, "-bootstrap", str(B), "-seed", "3", *words)
    assert made["replicates"] == B and made["failed"] < 0.05 * B and f"{B} bootstrap replicates" in said
    found = named(made["percentile"])
    for name, count, sd, low, high in wanted[kind]:
        # Tails of a deviation near 0 are flat, and lmer stops short of some maxima there (its two optimisers up to 3.6 of a deviance apart).
        near = (8 if name.startswith("s") else 4) * 2.67 * sd * math.sqrt(1 / B + 1 / count)
        assert abs(found[name][0] - low) < near and abs(found[name][1] - high) < near, (kind, name, found[name], (low, high), near)
        if not name.startswith("s"):
            estimate = [p for p in json.loads((folder / "s.json").read_text())["phases"] if p["phase"] == phase][0]["fixed_effects"]
            basic = named(made["basic"])[name]
            centre = estimate[["Intercept", "Q", "Z", "X", "Q:X"].index(name) if len(estimate) == 5 else ["Intercept", "Z", "X"].index(name)]
            assert abs(basic[0] + found[name][1] - 2 * centre["estimate"]) < 1e-9, (kind, name)
    assert "95% bootstrap intervals" in (folder / "s.txt").read_text()

# Threads change nothing, the seed does; quasi-likelihood and counts of level-3 units as well.
for command, phase, words in (("linear.kdr", "final", []), ("linear.kdr", "final", ["-cases", "-reml"]), ("binary.kdr", "pql", []),
                              ("binary.kdr", "pql", ["-cases"])):
    one, _ = bootstrap(command, phase, "-bootstrap", "40", "-t", "1", *words)
    three, _ = bootstrap(command, phase, "-bootstrap", "40", "-t", "3", *words)
    other, _ = bootstrap(command, phase, "-bootstrap", "40", "-t", "3", "-seed", "2", *words)
    assert one == three and one["percentile"] != other["percentile"], (command, words)
    assert one["kind"] == ("level3_units" if words else "parametric")


# Refusals.
for words, sentence in ((["-bootstrap", "5"], "-bootstrap takes a number of replicates from 20"), (["-cases"], "go with -bootstrap"),
                        (["-bootstrap", "20", "-seed", "x"], "-seed takes a whole number")):
    code, said = run(program, folder, *words, "s.mdm", "linear.kdr")
    assert code == 100 and sentence in said, (words, said[-300:])
(folder / "w.kdr").write_text((folder / "linear.kdr").read_text() + "LEVEL3WEIGHT:Q\n")
code, said = run(program, folder, "-bootstrap", "20", "s.mdm", "w.kdr")
assert code == 100 and "design weights" in said, said[-300:]
(folder / "o.kdr").write_text(BINARY.replace("FIXSIGMA2:1.0\n", ""))
code, said = run(program, folder, "-bootstrap", "20", "s.mdm", "o.kdr")
assert code == 100 and "over-dispersion" in said, said[-300:]
print("bootstrap: all well")
