"""Restricted likelihood and degrees of freedom against lmer, lmerTest and pbkrtest, and what belongs to their keywords.

The numbers of the others are in tests/reference/restricted.out; whole campaign: tests/reference/comparerestricted.py.
"""
import json
import pathlib
import shutil
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "reference"))
import comparerestricted as campaign
import restrictedstudies as studies
from program import NOFEATURES, NOFILES, REFERENCE, run

program = str(pathlib.Path(sys.argv[1]).resolve())
folder = pathlib.Path(tempfile.mkdtemp())
reference = campaign.reference(REFERENCE / "restricted.out")


def fit(study, extra):
    return campaign.fitted(program, folder, study, studies.describe(study)[1]["model"], extra)


def refused(study, extra, words, **replace):
    text = campaign.commands(studies.describe(study)[1]["model"], extra)
    for old, new in replace.items():
        text = text.replace(old, new)
    (folder / "s.kdr").write_text(text)
    code, said = run(program, folder, f"study{study}.mdm", "s.kdr")
    assert code == 100 and words in said, (extra, code, said[-300:])


# Ordinary studies, studies at the edge (15: tau(pi) 0, 44: correlation 1), one whose 2-row test has no denominator (56).
CHOSEN = [2, 7, 15, 18, 44, 51, 56, 61, 64]
LIMITS = {"sigma2": 5e-5, "gamma": 2e-4, "se": 2e-4, "krse": 2e-4, "krdf": 5e-3, "satterthwaite": 5e-3, "kr2df": 5e-3, "kr3df": 5e-3,
          "fai2df": 5e-3, "fai3df": 5e-3, "kr2F": 1e-3, "kr3F": 1e-3, "fai2F": 1e-3, "fai3F": 1e-3, "tau2": 1e-3, "tau3": 1e-3}
for study in CHOSEN:
    studies.write(folder / f"study{study}.csv", study)
    found = campaign.compare(program, folder, study, studies.describe(study)[1]["model"], reference[study])
    assert found.pop("criterion") < 1e-6, study  # lmer may stop short of the maximum, never beyond it
    assert found.pop("aic") < 1e-6, study
    for what, difference in found.items():
        assert difference < LIMITS[what], (study, what, difference)

# No unit of measurement matters, at the edge either.
for study, extra in ((44, "DDF:KENWARDROGER\n"), (2, "DDF:KENWARDROGER\n"), (15, "DDF:SATTERTHWAITE\nEDGECOV:FULL\n")):
    plain, _ = fit(study, extra)
    rows = [(k, j, 1e3 * y, 1e-4 * x, 1e5 * z, q) for k, j, y, x, z, q in studies.rows(study)]
    scaled = folder / "study1000.csv"
    scaled.write_text("school,pupil,Y,X,Z,Q\n" + "".join("%d,%d,%.17g,%.17g,%.17g,%.17g\n" % row for row in rows))
    (folder / "study1000.mdm").unlink(missing_ok=True)
    other, _ = campaign.fitted(program, folder, 1000, studies.describe(study)[1]["model"], extra)
    for key in ("df", "t"):
        assert campaign.each(campaign.side(other, key), campaign.side(plain, key)) < 2e-4, (study, key)

# A tau of rank 1 (34: tau(beta), 68: tau(pi)): the expected information, the edge not taken as known, has pbkrtest's degrees of
# freedom. lmerTest's own information is numerical there and loses the direction of the edge: its numbers lie by those of REDUCED.
for study in (34, 68):
    studies.write(folder / f"study{study}.csv", study)
    phase, _ = fit(study, "DDF:SATTERTHWAITE\nEDGECOV:FULL\n")
    assert campaign.each(campaign.side(phase, "df"), reference[study]["krdf"]) < 1e-3, study
    phase, _ = fit(study, "DDF:SATTERTHWAITE,OBSERVED\n")
    assert campaign.each(campaign.side(phase, "df"), reference[study]["satterthwaite"]) < 0.12, study

# The edge is told, and decides about degrees of freedom.
reduced, document = fit(15, "DDF:KENWARDROGER\n")
full, _ = fit(15, "DDF:KENWARDROGER\nEDGECOV:FULL\n")
assert any("edge: tau(pi) is 0" in w for w in reduced["warnings"]), reduced["warnings"]
assert reduced["tau_pi"]["estimate"] == [[0.0]] and reduced["tau_pi"]["standard_error"] == [[None]]
assert reduced["likelihood"] == "restricted" and reduced["degrees_of_freedom"] == "kenward-roger"
assert campaign.side(reduced, "df") != campaign.side(full, "df")
page = (folder / "s.txt").read_text()
assert "restricted maximum likelihood" in page and "by Kenward and Roger (1997)." in " ".join(page.split()) and "Deviance (restricted)" in page
no, _ = fit(56, "DDF:KENWARDROGER\nEDGECOV:FULL\n")
assert campaign.tests(no)[2]["p"] is None and "degrees of freedom of this test cannot be computed" in (folder / "s.txt").read_text()

# Satterthwaite for maximum likelihood: the estimates are those without it.
ml, _ = campaign.fitted(program, folder, 2, "intercepts", "LIKELIHOOD:ML\nDDF:SATTERTHWAITE\n")
plain, _ = campaign.fitted(program, folder, 2, "intercepts", "LIKELIHOOD:ML\n")
assert "likelihood" not in ml and ml["deviance"] == plain["deviance"]
assert campaign.each(campaign.side(ml, "standard_error"), campaign.side(plain, "standard_error")) < 1e-3
assert all(a != b for a, b in zip(campaign.side(ml, "df"), campaign.side(plain, "df")))
assert all(isinstance(df, int) for df in campaign.side(plain, "df"))

# Restrictions hold: with a diagonal and a held element the rest is at its maximum (the deviance of the free fit is lower).
free, _ = fit(64, "")
for extra in ("DIAGONALIZETAUPI:Y\n", "ESTTAU3:0.5\n", "CONTAU2:1,3\n", "FIXSIGMA2:1.0\n"):
    held, _ = fit(64, extra)
    assert held["converged"] and held["deviance"] > free["deviance"] - 1e-6 and held["parameters"] < free["parameters"], extra

# Equal fixed effects are one effect of the sum of their predictors; exploratory variables leave the fit as it is, and have a table.
(folder / "study3500.csv").write_text("school,pupil,Y,X,Z,Q,S\n" + "".join("%d,%d,%.8f,%.8f,%.8f,%.8f,%.8f\n" % (k, j, y, x, z, q, z + q)
                                                                     for k, j, y, x, z, q in studies.rows(2)))
code, said = run(program, folder, "-from", "study3500.csv", "-level3", "school", "-level2", "pupil")
assert code == 0, said
simple = ("NONLIN:N\nNUMIT:500,N\nLEVEL1:Y=INTRCPT1+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+{}+RANDOM/{}\nLEVEL3:INTRCPT2=INTRCPT3{}+RANDOM/{}\nLEVEL3:{}=INTRCPT3/\n"
          + NOFILES + "LEVEL1DELETION:NONE\nHYPOTH:N\nLVR-BETA:N\nOUTPUT:s.txt\nRESULTS:s.json\nLIKELIHOOD:REML\nDDF:KENWARDROGER\n")
phases = []
for text in (simple.format("Z", "", "+Q", "", "Z") + "CONSTRAIN:0,1,1\n", simple.format("S", "", "", "", "S") + "CONSTRAIN:N\n",
             simple.format("S", "Z", "", "Q", "S") + "CONSTRAIN:N\n"):
    (folder / "s.kdr").write_text(text)
    code, said = run(program, folder, "study3500.mdm", "s.kdr")
    assert code == 0, said[-500:]
    phases.append([p for p in json.loads((folder / "s.json").read_text())["phases"] if p["phase"] == "final"][0])
for other in phases[1:]:
    assert abs(phases[0]["deviance"] - other["deviance"]) < 1e-6
    for key in ("standard_error", "df"):
        assert campaign.each(campaign.side(phases[0], key), campaign.side(other, key)) < 1e-6, key
assert "Exploratory" in (folder / "s.txt").read_text()

# Three-level data sets that come with lme4 and nlme, by lmer and pbkrtest (classic.R).
classic = {}
for line in (REFERENCE / "classic.out").read_text().splitlines():
    name, what, *values = line.split()
    classic.setdefault(name, {})[what] = [float(v) for v in values]
for name, theirs in classic.items():
    pixel = name == "pixel"
    shutil.copy(REFERENCE / "classic" / f"{name}.csv", folder)
    code, said = run(program, folder, "-from", f"{name}.csv", "-level3", "unit3", "-level2", "unit2", "-level1", "Y,DAY,DAYSQ" if pixel else "Y", *["-factors"] * pixel)
    assert code == 0, said
    days = "LEVEL2:DAY=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL2:DAYSQ=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n" * pixel
    (folder / "s.kdr").write_text(f"NONLIN:N\nNUMIT:500,N\nLEVEL1:Y=INTRCPT1{'+DAY+DAYSQ' * pixel}+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\n"
                                  "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n" + days + NOFILES + NOFEATURES + "OUTPUT:s.txt\nRESULTS:s.json\n"
                                  "LIKELIHOOD:REML\nDDF:KENWARDROGER\nEDGECOV:FULL\n")
    code, said = run(program, folder, f"{name}.mdm", "s.kdr")
    assert code == 0, said[-500:]
    phase = [p for p in json.loads((folder / "s.json").read_text())["phases"] if p["phase"] == "final"][0]
    assert abs(phase["deviance"] - theirs["criterion"][0]) < 1e-6, name
    mine = {"gamma": [e["estimate"] for e in phase["fixed_effects"]], "krse": campaign.side(phase, "standard_error"), "krdf": campaign.side(phase, "df"),
            "sigma2": [phase["sigma2"]["estimate"]], "tau2": campaign.lower(phase["tau_pi"]["estimate"]), "tau3": campaign.lower(phase["tau_beta"]["estimate"])}
    for what, values in mine.items():
        for a, b in zip(values, theirs[what]):
            assert abs(a - b) < (1e-3 if what == "krdf" else 2e-5) * max(abs(b), 1e-3 * max(map(abs, theirs[what]))), (name, what, values, theirs[what])

# A known variance that is the same everywhere is a held sigma^2, but for the constant of the deviance.
lines = (folder / "study2.csv").read_text().splitlines()
(folder / "study3000.csv").write_text("\n".join([lines[0] + ",V"] + [line + ",1.3" for line in lines[1:]]) + "\n")
code, said = run(program, folder, "-from", "study3000.csv", "-level3", "school", "-level2", "pupil", "-level1", "V")
assert code == 0, said
known, _ = campaign.fitted(program, folder, 3000, "intercepts", "DDF:KENWARDROGER\nVARIANCEKNOWN:V\n")
held, _ = campaign.fitted(program, folder, 3000, "intercepts", "DDF:KENWARDROGER\nFIXSIGMA2:1.3\n")
assert campaign.each(campaign.side(known, "df"), campaign.side(held, "df")) < 1e-8

# CR2 against dense matrices (densecr2.py): errors, degrees of freedom, tests of 2 and 3 contrasts.
for study, theirs in campaign.reference(REFERENCE / "cr2.out").items():
    if not (folder / f"study{study}.csv").exists():
        studies.write(folder / f"study{study}.csv", study)
    phase, _ = fit(study, "ROBUST:CR2\n")
    robust = [effect["robust"] for effect in phase["fixed_effects"]]
    assert campaign.each([r["standard_error"] for r in robust], theirs["cr2se"]) < 5e-4, study
    assert campaign.each([r["df"] for r in robust], theirs["cr2df"]) < 2e-3, study
    for test in phase["hypothesis_tests"]:
        if test["standard_errors_by"] == "robust" and theirs[f"cr2F{test['df']}"][0] > 0:
            df, F = theirs[f"cr2F{test['df']}"]
            assert abs(test["df2"] - df) < 2e-3 * df and abs(test["chi_square"] / test["df"] - F) < 1e-3 * F, (study, test)

# What cannot be combined, and what has no effect.
refused(2, "LEVEL3WEIGHT:Q\n", "design weights")
refused(2, "HETIT:5\n", "HETIT:")
refused(2, "LVR-BETA:O\n", "latent variable regression", **{"LVR-BETA:N\n": ""})
refused(2, "MACROIT:5,N\n", "for linear models only", **{"NONLIN:N": "NONLIN:POISSON", "NUMIT:500,N\n": "MICROIT:5\n"})
refused(2, "LIKELIHOOD:ML\nDDF:KENWARDROGER\n", "add LIKELIHOOD:REML")
refused(2, "DDF:BEST\n", "KENWARDROGER")
refused(2, "LIKELIHOOD:REMLS\n", "ML or REML")
_, document = fit(2, "FISHERTYPE:1\nACCEL:7\nDEVIANCE:500\nDF:3\n")
told = " ".join(document["warnings"])
assert "FISHERTYPE: has no effect" in told and "ACCEL: has no effect" in told and "same fixed effects alone" in told, told
assert "same fixed effects" in " ".join((folder / "s.txt").read_text().split())

# The option says what the keyword does, and newcmd.kdr repeats all of it.
(folder / "o.kdr").write_text(campaign.commands("intercepts", "DDF:SATTERTHWAITE,OBSERVED\nEDGECOV:FULL\n").replace("LIKELIHOOD:REML\n", ""))
code, said = run(program, folder, "-reml", "study2.mdm", "o.kdr")
assert code == 0, said
again = (folder / "newcmd.kdr").read_text()
for line in ("LIKELIHOOD:REML", "DDF:SATTERTHWAITE,OBSERVED", "EDGECOV:FULL"):
    assert line in again.splitlines(), line

# A series: complete-data degrees of freedom are the mean of those of the data sets.
frees = []
for k, sd in enumerate((0.0, 0.3)):
    rows = [(a, b, y + sd * ((7 * i) % 5 - 2), x, z, q) for i, (a, b, y, x, z, q) in enumerate(studies.rows(2))]
    (folder / f"study{2000 + k}.csv").write_text("school,pupil,Y,X,Z,Q\n" + "".join("%d,%d,%.8f,%.8f,%.8f,%.8f\n" % row for row in rows))
    phase, _ = campaign.fitted(program, folder, 2000 + k, "intercepts", "DDF:SATTERTHWAITE\n")
    frees.append(campaign.side(phase, "df"))
(folder / "s.kdr").write_text(campaign.commands("intercepts", "DDF:SATTERTHWAITE\n"))
for words in (("-mi0", "study2000.mdm"), ("-mi1", "-e", "study2001.mdm")):
    code, said = run(program, folder, *words, "s.kdr")
    assert code == 0, said[-500:]
average = json.loads((folder / "s.json").read_text())["phases"][0]
for effect, a, b in zip(average["fixed_effects"], *frees):
    assert effect["model_based"]["df"] <= (a + b) / 2 + 1e-9
assert any(abs(e["model_based"]["df"] - (a + b) / 2) < 1e-9 for e, a, b in zip(average["fixed_effects"], *frees))
print("restricted likelihood: all well")
