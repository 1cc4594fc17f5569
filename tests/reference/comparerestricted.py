"""The program on the studies of restrictedstudies.py beside lmer, lmerTest and pbkrtest.

    comparerestricted.py PROGRAM FOLDER restricted.out     largest differences, and the studies that differ most

Criterion absolute, variances relative to the largest of their matrix or a tenth of sigma^2, the rest relative.
"""
import json
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "endtoend"))
from program import NOFEATURES, NOFILES, run

LEVEL2 = {"intercepts": ("RANDOM", ""), "slope2": ("RANDOM", "+RANDOM"), "slopes": ("RANDOM", "+RANDOM")}
TESTS = ("GAMMA1:0,1,0,0,0\nGAMMA1:0,0,0,0,1\nGAMMA2:0,1,0,0,0\nGAMMA2:0,0,1,0,0\nGAMMA2:0,0,0,1,1\n")
# lmer's order is constant, Q, Z, X, Q:X; the program's constant, Q, Z, X, X:Q.


def commands(model, extra):
    slope2 = "+RANDOM" if model != "intercepts" else ""
    slope3 = "+RANDOM" if model == "slopes" else ""
    return ("NONLIN:N\nNUMIT:500,N\nLEVEL1:Y=INTRCPT1+X+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+Z+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+Q+RANDOM/\n"
            f"LEVEL3:Z=INTRCPT3/\nLEVEL2:X=INTRCPT2{slope2}/\nLEVEL3:INTRCPT2=INTRCPT3+Q{slope3}/\n"
            + NOFILES + NOFEATURES + TESTS + "OUTPUT:s.txt\nRESULTS:s.json\nLIKELIHOOD:REML\n" + extra)


def fitted(program, folder, study, model, extra):
    """The final phase of a fit, and its document."""
    code, said = run(program, folder, "-from", f"study{study}.csv", "-level3", "school", "-level2", "pupil") \
        if not (folder / f"study{study}.mdm").exists() else (0, "")
    assert code == 0, said
    (folder / "s.kdr").write_text(commands(model, extra))
    code, said = run(program, folder, f"study{study}.mdm", "s.kdr")
    assert code == 0, f"study {study}: {said[-600:]}"
    document = json.loads((folder / "s.json").read_text())
    return [p for p in document["phases"] if p["phase"] == "final"][0], document


def lower(matrix):
    return [matrix[i][j] for j in range(len(matrix)) for i in range(j, len(matrix))]


def relative(mine, theirs, least=0.0):
    size = max(least, *map(abs, theirs))
    return max(abs(a - b) for a, b in zip(mine, theirs)) / size


def each(mine, theirs):
    return max(abs(a - b) / abs(b) for a, b in zip(mine, theirs))


def side(phase, key):
    return [effect["model_based"][key] for effect in phase["fixed_effects"]]


def tests(phase):
    return {len(t["contrasts"]): t for t in phase["hypothesis_tests"] if t["standard_errors_by"] == "model_based"}


def compare(program, folder, study, model, theirs):
    """Name of a quantity -> difference."""
    kr, document = fitted(program, folder, study, model, "DDF:KENWARDROGER\nEDGECOV:FULL\n")
    sat, _ = fitted(program, folder, study, model, "DDF:SATTERTHWAITE,OBSERVED\n")
    assert document["converged"], study
    out = {"criterion": kr["deviance"] - theirs["criterion"][0], "aic": kr["aic"] - theirs["aic"][0],
           "sigma2": relative([kr["sigma2"]["estimate"]], theirs["sigma2"]),
           "tau2": relative(lower(kr["tau_pi"]["estimate"]), theirs["pupil"], 0.1 * theirs["sigma2"][0]),
           "tau3": relative(lower(kr["tau_beta"]["estimate"]), theirs["school"], 0.1 * theirs["sigma2"][0]),
           "gamma": max(abs(e["estimate"] - g) / s for e, g, s in zip(kr["fixed_effects"], theirs["gamma"], theirs["se"])),
           "se": each(side(sat, "standard_error"), theirs["se"])}
    if "krse" not in theirs:
        return out
    out["satterthwaite"] = each(side(sat, "df"), theirs["satterthwaite"])
    out["krse"] = each(side(kr, "standard_error"), theirs["krse"])
    out["krdf"] = each(side(kr, "df"), theirs["krdf"])
    for rows in (2, 3):
        if tests(kr)[rows].get("df2") is None:
            print(f"study {study}: no degrees of freedom for {rows} rows, pbkrtest's are {theirs[f'kr{rows}'][1]}")
            continue
        mine, (_, ddf, stat, _) = tests(kr)[rows], theirs[f"kr{rows}"]
        out[f"kr{rows}df"] = abs(mine["df2"] - ddf) / ddf
        out[f"kr{rows}F"] = abs(mine["chi_square"] / rows - stat) / stat
        mine, (ddf, stat) = tests(sat)[rows], theirs[f"fai{rows}"]
        out[f"fai{rows}df"] = abs(mine["df2"] - ddf) / ddf
        out[f"fai{rows}F"] = abs(mine["chi_square"] / rows - stat) / stat
    return out


def reference(path):
    studies = {}
    for line in pathlib.Path(path).read_text().splitlines():
        study, what, *values = line.split()
        studies.setdefault(int(study), {})[what] = [float(v) for v in values]
    return studies


if __name__ == "__main__":
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    models = dict(line.split() for line in (folder / "models.txt").read_text().splitlines())
    worst = {}
    edges = 0
    for study, theirs in reference(sys.argv[3]).items():
        edges += "krse" not in theirs
        for what, difference in compare(program, folder, study, models[str(study)], theirs).items():
            worst.setdefault(what, []).append((difference, study))
    print(f"{len(reference(sys.argv[3]))} studies, {edges} at the edge")
    for what, list_ in worst.items():
        list_.sort(key=lambda pair: -abs(pair[0]))
        print(what, " ".join("%.2e (%d)" % pair for pair in list_[:4]), "median %.1e" % abs(list_[len(list_) // 2][0]))
