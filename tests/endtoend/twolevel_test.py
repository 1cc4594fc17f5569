"""Data of two levels, and models of three levels whose random effects are all at level 3: reports against dense computation
(tests/reference/densetwolevel.py), formulas against general software (twolevel.R), and no trace of a level that is not there.

    twolevel_test.py <program> [part ...]
"""
import csv
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

import oracle_test
import pqlcompare as pql
import report
import residualfiles
from formulamodels import blocks, compare, effects, fixed, key, lastphase, line, numbers
from program import NOFEATURES, REFERENCE, Checks, body, finish, run

sys.path.append(str(REFERENCE))
import twolevelmodels as two

PROGRAM = os.path.abspath(sys.argv[1])
DATA = REFERENCE / "formulas"
# What names or counts a third level, in a report or a command file.
PLOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "kdr3-plot")
THIRD = re.compile(r"level[- ]?3|tau\(beta\)|taubeta|INTRCPT3|L3ID|LVR|\bG\d", re.I)


def folderof(source, names, top):
    """The files of a data set with its MDM file of three levels, and that of two."""
    folder = tempfile.mkdtemp(dir=top)
    shutil.copytree(REFERENCE / source, folder, dirs_exist_ok=True)
    with open(f"{folder}/two.mdmt", "w") as f:
        f.write(two.template(source, names))
    for template in ({"school": "school.mdmt", "nonlinear": "nonlin.mdmt"}[source], "two.mdmt"):
        code, said = run(PROGRAM, folder, "-r", template)
        assert code == 0, said
    return folder


def oracles(top, pick):
    """Estimates, errors, tests, degrees of freedom; the report of newcmd.kdr; no word of a level that is not there."""
    parts = []
    for source, names, models in two.SETS:
        folder = folderof(source, names, top)
        for (kind, name), m in models.items():
            tag = two.tag(kind, name)
            if pick and tag not in pick:
                continue
            c = pql.Roomy(tag)
            parts.append(c)
            with open(f"{folder}/run.kdr", "w") as f:
                f.write(two.text(kind, name, m).replace(f"OUTPUT:{name}.txt", "OUTPUT:run.txt\nRESULTS:run.json"))
            mdm = "two.mdm" if kind == "two" else {"school": "school.mdm", "nonlinear": "nonlin.mdm"}[source]
            code, said = run(PROGRAM, folder, "-strict", mdm, "run.kdr")
            if code != 0:
                c.fail(f"code {code}: {said[-800:]}")
                continue
            want = pql.stored(tag)
            if "kind" in m:
                pql.compare(c, report.sections(f"{folder}/run.txt"), want, m)
            else:
                oracle_test.compare(c, report.read(f"{folder}/run.txt"), want, m)
            first = open(f"{folder}/run.txt", encoding="latin-1").read()
            code, said = run(PROGRAM, folder, "-strict", mdm, "newcmd.kdr")
            c.equal("newcmd.kdr", (code, body(open(f"{folder}/run.txt", encoding="latin-1").read())), (0, body(first)))
            if kind == "two":
                untold(c, first, open(f"{folder}/newcmd.kdr").read(), json.load(open(f"{folder}/run.json")))
    return parts


def untold(c, text, commands, document):
    for what, words in (("report", text), ("newcmd.kdr", commands)):
        found = [line for line in words.splitlines() if THIRD.search(line)]
        c.equal(f"level 3 in the {what}", found, [])
    c.equal("level-3 units", document["dimensions"]["level3_units"], None)
    for phase in document["phases"]:
        tests, shares = phase["variance_tests"] or {}, phase["intraclass_correlation"] or {}
        c.equal(f"level 3 of {phase['phase']}", (phase["tau_beta"], tests.get("level3", []), tests.get("level3_units"), shares.get("share_level3"),
                                                  shares.get("same_level3_unit"), {row["level3"] for row in phase["fixed_effects"]}),
                (None, [], None, None, None, {None}))
        c.equal("words of level 3", [w for w in phase["warnings"] if THIRD.search(w)], [])


def fitted(c, folder, formula, data, *words):
    code, said = run(PROGRAM, folder, "-fit", formula, str(DATA / f"{data}.csv"), "-o", "f", *words)
    if code != 0:
        c.fail(f"{formula} {words}: code {code}: {said[-500:]}")
        return None
    document = json.load(open(f"{folder}/f.json"))
    untold(c, open(f"{folder}/f.txt").read(), open(f"{folder}/f.kdr").read(), document)
    c(not re.search(r"level[- ]3", said), f"{formula}: the console says {said!r}")
    return document


def variances(c, what, phase, rows, room):
    """The elements of tau(pi) against those of R, each matrix sorted."""
    got = phase["tau_pi"]["estimate"]
    want = [x for words in rows if words[0].startswith("variances ") for x in numbers(words[2])]
    c.equal(f"{what}: order of tau(pi)", len(got), len(want))
    for a, b in zip(sorted(got[i][i] for i in range(len(got))), sorted(want)):
        c.near(f"{what}: variance", a, b, room, 0.01)
    blocks = [numbers(words[1]) for words in rows if words[0] == "covariances"]
    free = sorted(got[i][j] for i in range(len(got)) for j in range(i) if got[i][j] != 0.0)
    if len(blocks) == 1 and len(free) == len(blocks[0]):
        for a, b in zip(free, sorted(blocks[0])):
            c.near(f"{what}: covariance", a, b, room, 0.02)


def models(folder):
    """lmer by maximum likelihood; glmer with 11 and 25 points, and the Laplace approximation."""
    c = Checks("models")
    for data, formula, options, rows in blocks("twolevel.out", "fit"):
        document = fitted(c, folder, formula, data, *options)
        if document is None:
            continue
        what, engine = f"{data}: {formula} {' '.join(options)}", bool(options)
        residual = compare(c, what, document, rows, engine)
        variances(c, what, lastphase(document), rows, 2e-3 * residual)
    return c


def small(folder):
    """REML with Satterthwaite's and Kenward and Roger's degrees of freedom; cluster-robust errors, bias-reduced ones too."""
    c = Checks("small samples")
    for data, formula, _, rows in blocks("twolevel.out", "restricted"):
        for method, at in (("SATTERTHWAITE", (1, 2)), ("KENWARDROGER", (3, 4))):
            document = fitted(c, folder, formula, data, "-keyword", "LIKELIHOOD:REML", "-keyword", "DDF:" + method)
            if document is None:
                continue
            phase, what = document["phases"][-1], f"{data}: {formula} {method}"
            got = effects(document, phase)
            for name, want in fixed(rows).items():
                row = got[name]
                c.near(f"{what}: {name}", row["estimate"], want[0], 2e-3 * want[1])
                c.near(f"{what}: SE of {name}", row["model_based"]["standard_error"], want[at[0]], 0, 3e-3)
                c.near(f"{what}: d.f. of {name}", row["model_based"]["df"], want[at[1]], 0.02, 0.01)
            variances(c, what, phase, rows, 1e-3 * line(rows, "residual")[0])
            c.near(f"{what}: criterion", -2 * phase["log_likelihood"], line(rows, "criterion")[0], 2e-3)
    for data, formula, (kind,), rows in blocks("twolevel.out", "robust"):
        document = fitted(c, folder, formula, data, "-robust", "-keyword", "ROBUST:" + kind, "-keyword", "STOPVAL:0.0000000001")
        if document is None:
            continue
        got = effects(document, document["phases"][-1])
        for name, values in rows:
            estimate, se, df = numbers(values)
            row = got[key(name)]["robust"]
            c.near(f"{data}: {formula} {kind}: SE of {name}", row["standard_error"], se, 0, 2e-3)
            if kind == "CR2":
                c.near(f"{data}: {formula} {kind}: d.f. of {name}", row["df"], df, 0, 0.01)
    return c


def engines(folder):
    """Every engine of an outcome of 0 and 1 beside quadrature with 25 points; random effects at level 3 alone are the same
    model, of units one level up."""
    c = Checks("engines")
    formula, data = "passed ~ year + sex + (1 | school)", "growth"
    truth = fitted(c, folder, formula, data, "-family", "binomial", "-points", "25")
    if truth is None:
        return c
    engine = lambda document: next(p for p in document["phases"] if p["phase"] in ("quadrature", "laplace6"))
    want = engine(truth)
    # the fixed Laplace-6 has its errors from the outer products of the scores
    for words, phase, room, errors in ((["-points", "25", "-keyword", "AGQNODES:FIXED"], "quadrature", 2e-3, 2e-3),
                                       (["-engine", "laplace6"], "laplace6", 0.02, 0.02), (["-engine", "laplace"], "quadrature", 0.05, 0.02),
                                       (["-engine", "laplace6", "-keyword", "AGQNODES:FIXED"], "laplace6", 0.02, 0.5), ([], "quadrature", 2e-3, 2e-3)):
        document = fitted(c, folder, formula, data, "-family", "binomial", *words)
        got = {p["phase"]: p for p in document["phases"]}.get(phase) if document else None
        c(got is not None, f"no results of {words}")
        if got:
            near(c, str(words), document, got, truth, want, "tau_pi", room, errors)
    three = "passed ~ year + sex + (1 | school) + (0 | school:pupil)"
    for words in (["-points", "25"], ["-points", "25", "-keyword", "AGQNODES:FIXED"], ["-engine", "laplace6"], ["-engine", "laplace"]):
        code, said = run(PROGRAM, folder, "-fit", three, str(DATA / "growth.csv"), "-family", "binomial", "-o", "g", *words)
        c.equal(f"level 3 alone, {words}", code if code == 0 else said[-300:], 0)
        if code == 0:
            document = json.load(open(f"{folder}/g.json"))
            other = fitted(c, folder, formula, data, "-family", "binomial", *words)
            if other:
                # Laplace-6 has pairs of records of one level-2 unit alone, of which there are less here
                sixth = "laplace6" in words
                near(c, f"level 3 alone, {words}", document, engine(document), other, engine(other), "tau_beta", 0.03 if sixth else 1e-3,
                     0.01 if sixth else 2e-3)
            c.equal("tau(pi)", engine(document)["tau_pi"]["rows"], [])
    return c


def near(c, what, document, got, truth, want, tau, room, errors):
    """Estimates within this part of a standard error, and standard errors within that part of themselves."""
    mine = effects(document, got)
    for name, b in effects(truth, want).items():
        se = b["model_based"]["standard_error"]
        c.near(f"{what}: {name}", mine[name]["estimate"], b["estimate"], room * se)
        c.near(f"{what}: SE of {name}", mine[name]["model_based"]["standard_error"], se, 0, errors)
    error = want["tau_pi"]["standard_error"][0][0]
    c.near(f"{what}: variance", got[tau]["estimate"][0][0], want["tau_pi"]["estimate"][0][0], room * error)
    c.near(f"{what}: its SE", got[tau]["standard_error"][0][0], error, 0, max(errors, 5e-3))


# A keyword about level 3, behind the model.
REFUSED = ["ESTTAU3:E", "CONTAU3:1", "FIXTAU3:3", "DIAGONALIZETAUBETA:Y", "LEVEL3WEIGHT:X", "RESFIL3:Y/", "RESFIL3NAME:x", "LVR-BETA:P",
           "HETIT:5", "LEVEL3:INTRCPT2=INTRCPT3/"]
MODEL = "LEVEL1:SCORE=INTRCPT1+YEAR+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+SES%s+RANDOM/\nLEVEL2:YEAR=INTRCPT2/\n"
SETTINGS = "NONLIN:N\nNUMIT:500,N\n", "LEVEL1DELETION:NONE\nRESFIL1:N\nRESFIL2:N\nCONSTRAIN:N\nHYPOTH:N\nTITLE:\nOUTPUT:m.txt\nRESULTS:m.json\n"


def constructions(folder):
    """-from without -level3, a template of fixed columns and what goes wrong with either; keywords that are refused."""
    c = Checks("constructions")
    shutil.copy(DATA / "growth.csv", folder)
    code, said = run(PROGRAM, folder, "-from", "growth.csv", "-level2", "pupil", "p.mdm")
    c(code == 0 and "Level-2 variables: SES TUTORING" in said and "evel-3" not in said and "evel 3" not in said, said)
    log = open(f"{folder}/KDR3MDM.STS", encoding="latin-1").read()
    c.equal("level 3 in the log", [line for line in log.splitlines() if THIRD.search(line)], [])
    template = open(f"{folder}/creatmdm.mdmt").read()
    c("mdmtype:4" in template and "level3id" not in template and "l3" not in template, template)
    again = open(f"{folder}/p.mdm", "rb").read()
    shutil.copy(f"{folder}/creatmdm.mdmt", f"{folder}/again.mdmt")
    code, said = run(PROGRAM, folder, "-r", "again.mdmt")
    c(code == 0 and open(f"{folder}/p.mdm", "rb").read() == again, f"its template: {code} {said[-300:]}")
    lines = template.splitlines()
    at = next(i for i, line in enumerate(lines) if line.startswith("l2fname"))
    open(f"{folder}/wrong.mdmt", "w").write("\n".join(lines[:at + 1] + ["l3fname:growth.csv /delim"] + lines[at + 1:]) + "\n")
    code, said = run(PROGRAM, folder, "-r", "wrong.mdmt")
    c(code == 100 and "is about level 3, and MDMTYPE:4 has two levels" in said, said)

    def commands(more="", mark="", before=""):
        with open(f"{folder}/m.kdr", "w") as f:
            f.write(SETTINGS[0] + before + MODEL % mark + more + "\n" * bool(more) + SETTINGS[1])
        return run(PROGRAM, folder, "-strict", "p.mdm", "m.kdr")
    code, said = commands()
    c.equal("the model", (code, said if code else ""), (0, ""))
    want = json.load(open(f"{folder}/m.json"))["phases"][-1] if code == 0 else {}
    for keyword in REFUSED:
        code, said = commands(keyword)
        c(code == 100 and "is about level 3, and the data of p.mdm have two levels" in said, f"{keyword}: {code} {said[-300:]!r}")
    for keyword in ("RESFIL3:N", "LVR-BETA:N", "DIAGONALIZETAUBETA:N", "LEVEL3WEIGHT:NONE"):
        c.equal(keyword, commands(keyword)[0], 0)
    code, said = commands(mark=",1")
    c(code == 100 and "SES has no groups to be centered in" in said, said)
    c.equal("grand mean", commands(mark=",2")[0], 0)
    # one parameter more than here can be no random effect of a third level
    if want:
        commands(f"DEVIANCE:{want['deviance'] - 3:.4f}\nDF:{want['parameters'] + 1}")
        compared = json.load(open(f"{folder}/m.json"))["phases"][-1]["model_comparison"]
        c.equal("a comparison", (compared["df"], compared["mixture_p"]), (1, None))
    # a program of before has three types
    data = bytearray(open(f"{folder}/p.mdm", "rb").read())
    c(b"\4\0\0\0" in data[:400], "the type of the file")
    return c


def files(folder):
    """Residual files of each form, the graph data file, start values, variance files, exploratory lists: no ID, count or block
    of level 3, and the same numbers in each form."""
    c = Checks("files")
    rest = "LEVEL1:SCORE=INTRCPT1+YEAR+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+SES+RANDOM/TUTORING\nLEVEL2:YEAR=INTRCPT2+RANDOM/\n"
    for form in ("FREEFORMAT", "SYSTAT", "SAS", "SPSS", "STATA"):
        with open(f"{folder}/r.kdr", "w") as f:
            f.write("NONLIN:N\nNUMIT:500,N\n" + rest + f"RESFILTYPE:{form}\nRESFIL1:Y/YEAR/SES\nRESFIL1NAME:r1.{form}\nRESFIL2:Y/SES\n"
                    f"RESFIL2NAME:r2.{form}\nGRAPHGAMMAS:g.bin\nPRINTVARIANCE-COVARIANCE:A\nSTARTVALS:start.{form}\n" + NOFEATURES.replace("LVR-BETA:N\n", "")
                    + "TITLE:\nOUTPUT:r.txt\nRESULTS:r.json\n")
        code, said = run(PROGRAM, folder, "-strict", "p.mdm", "r.kdr")
        c.equal(form, (code, said[-300:] if code else ""), (0, ""))
        for level in (1, 2):
            data = open(f"{folder}/r{level}.{form}", "rb").read()
            c(b"L3ID" not in data and b"L2ID" in data, f"{form} of level {level}: {data[:120]!r}")
        c.equal("newcmd.kdr", run(PROGRAM, folder, "-strict", "p.mdm", "newcmd.kdr")[0], 0)
    (data, formula, _, want), = blocks("twolevel.out", "residuals")
    fitted(c, folder, formula, data, *sum((["-keyword", x] for x in ("RESFIL1:Y", "RESFIL2:Y", "RESFILTYPE:FREEFORMAT", "STOPVAL:0.0000000001")), []))
    made = residualfiles.readfree(f"{folder}/resfil2.dat", 2)
    c.equal("units of the residual file", [row[0] for row in made.rows], [float(row[0]) for row in want[:-1]])
    at = [made.names.index(x) for x in ("EBINTRCP", "EBDAYS", "PV200", "PV210", "PV211")]
    for row, (unit, values) in zip(made.rows, want):
        for i, x in zip(at, numbers(values)):
            c.near(f"{made.names[i]} of unit {unit}", row[i], x, 0.02, 5e-4)
    made = residualfiles.readfree(f"{folder}/resfil1.dat", 1)
    values = numbers(want[-1][1])
    for i, row in enumerate(made.rows):
        c.near(f"residual of record {i}", row[1], values[2 * i], 0.02)
        c.near(f"fitted value of record {i}", row[2], values[2 * i + 1], 0.02)
    rows = list(csv.reader(open(f"{folder}/r2.FREEFORMAT")))
    c.equal("head", [x.strip() for x in sum(rows[:2], []) if x.strip()][:8], ["L2ID", "NJK", "EBINTRCP", "EBYEAR", "OLINTRCP", "OLYEAR", "FVINTRCP", "FVYEAR"])
    c.equal("rows", len(rows) - 2, json.load(open(f"{folder}/r.json"))["dimensions"]["level2_units"])
    tables = residualfiles.readgraph(f"{folder}/g.bin", f"{folder}/p.mdm")
    c.equal("level 3 of the graph data file", (tables["level3"], tables["predictors3"]["name"]), ({}, []))
    for i, row in enumerate(rows[2:]):
        c.near(f"residual {i} of the graph data file", tables["level2"]["EB1"][i], float(row[2]), 2e-6)
    report = open(f"{folder}/r.txt").read()
    c("Exploratory Analysis: estimated level-2" in report and not THIRD.search(report), "exploratory analysis of the report")
    done = subprocess.run([sys.executable, PLOT, "--page", "r.json", "-o", "r.html"], cwd=folder, capture_output=True, text=True)
    if "matplotlib is missing" not in done.stderr:
        page = re.sub(r'src="[^"]*"', "", open(f"{folder}/r.html").read()) if done.returncode == 0 else done.stderr
        c.equal("level 3 in the page", (done.returncode, re.findall(r".{30}(?:level[- ]3|None).{30}", page, re.I)), (0, []))
        c.equal("pictures", page.count("<figure>"), 6)
    return c


def intervals(folder):
    """Intervals by the profile and the bootstrap, shares of variance, a null model: of two levels alone."""
    c = Checks("intervals")
    (data, formula, _, rows), = blocks("twolevel.out", "profile")
    null = fitted(c, folder, "score ~ 1 + (1 | school)", data)["phases"][-1]
    shutil.copy(f"{folder}/f.json", f"{folder}/null.json")
    document = fitted(c, folder, formula, data, *sum((["-keyword", x] for x in ("PROFILE:Y", "SHARES:Y", "NULLMODEL:null.json")), []))
    for place, value, words in (("level2_units", 7, "other units"), ("level3_units", 5, "two levels")):
        other = json.load(open(f"{folder}/null.json"))
        other["dimensions"][place] = value
        json.dump(other, open(f"{folder}/other.json", "w"))
        code, said = run(PROGRAM, folder, "-fit", formula, str(DATA / f"{data}.csv"), "-o", "o", "-keyword", "NULLMODEL:other.json")
        c(code == 100 and words in said, f"null model, {place}: code {code}, {said[-200:]}")
    shutil.copy(f"{folder}/f.json", f"{folder}/with.json")
    code, said = run(PROGRAM, folder, "-fit", formula, str(DATA / f"{data}.csv"), "-o", "o", "-keyword", "NULLMODEL:with.json")
    c(code == 100 and "with predictors" in said, f"null model with predictors: code {code}, {said[-200:]}")
    made, want = document["phases"][-1], {name: numbers(values) for name, values in rows}
    profile, shares = made["profile_intervals"], made["variance_shares"]
    close = lambda what, got, truth, width: [c.near(f"{what}", a, b, 0, 2e-4 * width) for a, b in zip(got, truth)]
    for name, row, interval in ((row["level1"], row, x) for row, x in zip(made["fixed_effects"], profile["fixed_effects"])):
        truth = want["(Intercept)" if name == "INTRCPT1" else name.lower()]
        close(f"profile of {name}", interval, truth, truth[1] - truth[0])
    for what, got, truth in (("sigma", profile["sigma2"], [x * x for x in want[".sigma"]]),
                             ("tau", profile["tau_pi"]["variance"][0], [x * x for x in want[".sig01"]])):
        close(f"profile of {what}", got, truth, truth[1] - truth[0])
    tau, sigma2 = made["tau_pi"]["estimate"][0][0], made["sigma2"]["estimate"]
    c.near("correlation", shares["intraclass_correlation"]["same_level2_unit"], tau / (tau + sigma2), 1e-9)
    c.near("explained", shares["explained"]["level2"], 1 - tau / null["tau_pi"]["estimate"][0][0], 1e-9)
    for words in ("", "-cases"):
        code, said = run(PROGRAM, folder, "f.mdm", "f.kdr", "-bootstrap", "40", *words.split())
        report = open(f"{folder}/f.txt").read()
        c.equal(f"bootstrap {words}", (code, THIRD.findall(report), re.findall(r"level[- ]3", said)), (0, [], []))
        boot = json.load(open(f"{folder}/f.json"))["phases"][-1]["bootstrap"]
        c.equal(f"bootstrap {words}", (boot["kind"], boot["failed"], boot["percentile"]["tau_beta"]),
                ("level2_units" if words else "parametric", 0, None))
        page = subprocess.run([sys.executable, PLOT, "--page", "f.json", "-o", "f.html"], cwd=folder, capture_output=True, text=True)
        if "matplotlib is missing" not in page.stderr:
            text = re.sub(r'src="[^"]*"', "", open(f"{folder}/f.html").read()) if page.returncode == 0 else page.stderr
            c.equal(f"page {words}", (page.returncode, re.findall(r"level[- ]3", text, re.I), "of level-2 units drawn" in text),
                    (0, [], bool(words)))
        low, high = boot["percentile"]["intraclass_correlation"]["same_level2_unit"]
        c(low < tau / (tau + sigma2) < high, f"bootstrap {words}: {low}, {high}")
    return c


def series(folder):
    """Imputed data sets and plausible values: averages without a third level."""
    c = Checks("series")
    for words, commands in (([], "PLAUSVALS:SCORE,HOURS\n"),):
        with open(f"{folder}/s.kdr", "w") as f:
            f.write(SETTINGS[0] + MODEL % "" + commands + SETTINGS[1])
        code, said = run(PROGRAM, folder, "-strict", "p.mdm", "s.kdr")
        c.equal("plausible values", (code, said[-300:] if code else ""), (0, ""))
        for name in os.listdir(folder):
            if name.startswith("m") and name.endswith(".txt") or name.endswith(".avg"):
                text = open(f"{folder}/{name}", encoding="latin-1").read()
                c.equal(f"level 3 in {name}", [line for line in text.splitlines() if THIRD.search(line)], [])
        if code != 0:
            continue
        document = json.load(open(f"{folder}/m.json"))
        average = {p["phase"]: p for p in document["phases"]}.get("average")
        c(average is not None and average["tau_beta"] is None and average["tau_pi"] is not None, f"{document['phases'][-1]['phase']}")
    return c


def dialogue(folder):
    """The formula is the first question for a file of raw data; a wrong one comes again, < goes back; the same files."""
    c = Checks("dialogue")

    def talk(*answers, words=("growth.csv",)):
        for name in ("d.mdm", "d.kdr", "d.txt", "d.json"):
            if os.path.exists(f"{folder}/{name}"):
                os.remove(f"{folder}/{name}")
        done = subprocess.run([PROGRAM, "-q", *words], cwd=folder, input="\n".join(answers) + "\n", capture_output=True, text=True)
        return done.returncode, done.stdout
    formula = "score ~ year + (year | school)"
    run(PROGRAM, folder, "-fit", formula, "growth.csv", "-o", "d")
    want = [open(f"{folder}/d{x}", "rb").read() for x in (".mdm", ".kdr")]
    for what, answers, words in (
            ("straight", (formula, "", "", "d"), ("growth.csv",)),
            ("wrong first", ("score ~ yeer + (1 | school)", "", "", "d", formula, "gaussian", "", "d"), ("growth.csv",)),
            # from the trials to the family, from the family to the formula, from the name to the weights
            ("back", ("score ~ ses + (1 | school)", "<", formula, "gamma", "binomial", "<", "", "hours", "<", "", "d"), ("growth.csv",)),
            ("by its name", ("growth.csv", formula, "", "", "d"), ())):
        code, said = talk(*answers, words=words)
        c.equal(f"{what}: code", code if code == 0 else said[-500:], 0)
        if code == 0:
            c.equal(what, [open(f"{folder}/d{x}", "rb").read() == y for x, y in zip((".mdm", ".kdr"), want)], [True, True])
        c(what != "wrong first" or "no column yeer. Is year meant?" in said, said[:400])
        c("The columns of growth.csv: school, pupil, year" in said, said[:300])
    code, said = talk("passed ~ year + (1 | school)", "binomial", "", "", "d")
    c("The event of passed is yes." in said and code == 0, said[-300:])
    code, said = talk(formula, "", "hours,,,", " hours,", "d")
    c(code == 0 and "Weights are those of three levels at most." in said and "\nLEVEL1WEIGHT:HOURS\n" in open(f"{folder}/d.kdr").read(), said[-500:])
    # the questions about a model of an MDM file of two levels: none is about a third one; 1 is no centering of level 2
    code, said = talk("n", "SCORE", "YEAR", "0", "n", "n", "SES", "0", "0", "n", "n", "n", "y", "1", "2", "n", "0", "0", "y", "n", "y", "y", "n", "y",
                      "y", "0", "1", "n", "n", "n", "n", "500", "", "q.txt", words=("p.mdm",))
    c(code == 0 and not THIRD.search(said) and "What variable" not in said, said[-900:])
    lines = open(f"{folder}/newcmd.kdr").read()
    c("LEVEL2:INTRCPT1=INTRCPT2+SES,2+RANDOM/\nLEVEL2:YEAR=INTRCPT2+RANDOM/\n" in lines and not THIRD.search(lines), lines)
    code, said = talk("", words=("growth.csv",))
    c(code == 100 and "is raw data" in said, said)
    return c


def main():
    pick = sys.argv[2:]
    with tempfile.TemporaryDirectory() as top:
        parts = [] if pick and not any("-" in p for p in pick) else oracles(top, pick)
        for part in (models, small, engines, constructions, files, intervals, series, dialogue):
            if not pick or part.__name__ in pick:
                parts.append(part(top))
    finish(parts)


if __name__ == "__main__":
    main()
