"""Formulas: the columns of the model matrix and the models themselves beside those of R (tests/reference/formulas.R),
refusals with their places, names and IDs of any length, and the files that -fit leaves.

    formula_test.py <program>
"""
import csv
import json
import math
import os
import re
import struct
import subprocess
import sys
import tempfile

from formulamodels import blocks, compare, effects, key, lastphase, numbers
from mdmfile import Mdm
from program import REFERENCE, Checks, body, finish, run

DATA = REFERENCE / "formulas"
PROGRAM = os.path.abspath(sys.argv[1])
MADE = [".mdm", ".kdr", ".txt", ".json"]


def fit(folder, formula, data, *words, stem="f"):
    """Exit code, what the console said, and the results document."""
    for name in MADE:
        if os.path.exists(f"{folder}/{stem}{name}"):
            os.remove(f"{folder}/{stem}{name}")
    code, said = run(PROGRAM, folder, "-fit", formula, str(data), "-o", stem, *words)
    path = f"{folder}/{stem}.json"
    return code, said, json.load(open(path)) if os.path.exists(path) else None


def columnsof(path, document):
    """Sums of each fixed effect's column over the records of the MDM file."""
    mdm = Mdm(path)
    places = [{name.decode("latin-1").strip("\0 "): i - 1 for i, name in enumerate(table)} for table in mdm.names]
    sums = {name: [0.0, 0.0, 0.0] for name in effects(document)}
    rows = effects(document)
    value = lambda data, level, name: 1.0 if name.startswith("INTRCPT") else struct.unpack_from("<d", data, 8 * places[level - 1][name])[0]
    level3, n = dict(mdm.rows()), 0
    for id3, _, records, level2 in mdm.units():
        for record in records:
            n += 1
            for name, row in rows.items():
                x = value(record, 1, row["level1"]) * value(level2, 2, row["level2"]) * value(level3[id3], 3, row["level3"])
                sums[name][0] += x
                sums[name][1] += x * x
                sums[name][2] += x * n
    return sums


def columns(folder):
    c = Checks("columns")
    for data, formula, _, rows in blocks("formulas.out", "columns"):
        groups = "Block/Variety" if data == "oats" else "school/pupil"
        code, said, document = fit(folder, f"{formula} + (1 | {groups})", DATA / f"{data}.csv")
        if document is None:
            c.fail(f"{formula}: code {code}: {said[-300:]}")
            continue
        sums = columnsof(f"{folder}/f.mdm", document)
        want = {key(name): numbers(values) for name, values in rows}
        dropped = {key(name) for name in re.findall(r"^(.*) is left out: other columns", said, re.M)}
        c.equal(f"names of {formula}", sorted(sums), sorted(set(want) - dropped))
        c(bool(dropped) == (formula in DEFICIENT), f"{formula}: dropped {dropped}")
        order = [key(x) for x in re.findall(r"^(\S.*?)  +-?[\d.e+-]+  +[\d.e+-]+  +-?[\d.]+  +\d+  ", said, re.M)]
        c.equal(f"order of {formula}", order, [key(name) for name, _ in rows if key(name) not in dropped])
        for name in sums:
            for got, wanted in zip(sums[name][:3 if data == "growth" else 2], want.get(name, ())):
                c.near(f"{formula}: {name}", got, wanted, 1e-7, 1e-9)
    return c


# Model matrices of R whose columns depend on each other.
DEFICIENT = {"score ~ sex:arm", "score ~ center(hours) + center(hours, pupil) + mean(hours, pupil)"}


INNER = {"pupil:school", "school:pupil", "pupil", "Side:Dog", "Dog:Side", "Site:Wafer", "variety:Block", "Wafer:Lot", "cask:batch", "sample",
         "Variety:Block", "Block:Variety"}  # R's names of the groupings of level 2


def models(folder):
    c = Checks("models")
    for data, formula, options, rows in blocks("formulas.out", "fit"):
        code, said, document = fit(folder, formula, DATA / f"{data}.csv", *options)
        if document is None:
            c.fail(f"{formula}: code {code}: {said[-300:]}")
            continue
        what, engine, phase = f"{data}: {formula}", bool(options), lastphase(document)
        residual, variances = compare(c, what, document, rows, engine), {}
        for words in rows:
            if words[0].startswith("variances "):
                variances.setdefault(int(words[0].split()[1] in INNER), []).extend(numbers(words[2]))
        for inner, tau in ((1, "tau_pi"), (0, "tau_beta")):
            if inner in variances:
                mine = sorted(phase[tau]["estimate"][i][i] for i in range(len(phase[tau]["rows"])))
                c.equal(f"{what}: size of {tau}", len(mine), len(variances[inner]))
                for a, b in zip(mine, sorted(variances[inner])):
                    c.near(f"{what}: {tau}", a, b, 2e-3 * residual if engine else 2e-3 * (residual + b), 0.01)
    return c


# A formula, the words that say what is wrong, and what the carets stand under.
WRONG = [
    ("score + year", "There is no ~", "score + year"), ("score ~ ", "ends here", ""), ("", "is empty", None),
    ("score ~ year + (1 | school/pupil", "never closed", "("), ("score ~ year) + (1 | school/pupil)", "never opened", ")"),
    ("score ~ yeer + (1 | school/pupil)", "no column yeer. Is year meant?", "yeer"),
    ("score ~ year + 1 | school", "stands in parentheses", "year + 1 | school"),
    ("score ~ year + (0 | school)", "Nothing is random here", "0 | school"),
    ("score ~ year", "no random part", "year"),
    ("score ~ year + (1 | school) + (1 | paper)", "crossed", "paper"),
    ("score ~ year + (1 | school/pupil/year)", "more than two groupings", "school/pupil/year"),
    ("score ~ s(year) + (1 | school/pupil)", "no smooth terms", "s(year)"),
    ("score ~ lag(year) + (1 | school/pupil)", "no function lag()", "lag"),
    ("score ~ year^2 + (1 | school/pupil)", "The square is I(year^2)", "year^2"),
    ("score ~ 2*year + (1 | school/pupil)", "I(2*x)", "2"), ("score ~ year + 3 + (1 | school/pupil)", "only 1", "3"),
    ("score ~ log(ses) + (1 | school/pupil)", "has no value in record", "log(ses)"),
    ("score ~ poly(year, 9) + (1 | school/pupil)", "below the number of different values", "poly(year, 9)"),
    ("score ~ poly(year) + (1 | school/pupil)", "Its form is poly(x, 2)", "poly(year)"),
    ("score ~ center(ses, arm) + (1 | school/pupil)", "units of the random parts: school, school:pupil", "arm"),
    ("score ~ factor(arm, ref = \"book\") + (1 | school/pupil)", "no level book. The levels are books, none, tutor", "\"book\""),
    ("score ~ I(sex + 1) + (1 | school/pupil)", "is a column of texts", "sex"),
    ("score ~ year + (arm | school/pupil)", "does not vary within the units of school", "arm | school/pupil"),
    ("score ~ year + (1 | school) + (1 + year | school) + (1 | school:pupil)", "in another part already", "1 + year | school"),
    ("score ~ score + (1 | school/pupil)", "outcome cannot be a term", "score"),
    ("sex ~ year + (1 | school/pupil)", "holds texts", "sex"),
    ("score ~ year + + (1 | school/pupil) year", "An operator", "y"), ("score = year + (1 | school/pupil)", "has ~ where", "="),
    ("score ~ year ~ ses", "one ~", "~"), ("score ~ year * (1 | school/pupil)", "only be added", "(1 | school/pupil)"),
    ("score ~ (year | school/pupil | x)", "one bar", "year | school/pupil | x"),
    ("score ~ `my var + (1 | school/pupil)", "never closed", "`"), ("score ~ . + (1 | school/pupil)", "point for all", "."),
    ("score ~ 2nd + (1 | school/pupil)", "between backticks", "2nd"),
    ("cbind(right, tries) ~ year + (1 | school/pupil)", "-family binomial", "cbind(right, tries)"),
    ("score ~ mixed + (1 | school/pupil)", "line 3 holds \"n.a.\"", "mixed"),
    ("score ~ \u00fcber + (1 | school/pupil)", "no column \u00fcber", "\u00fcber"),
]


def refusals(folder):
    c = Checks("refusals")
    rows = list(csv.reader(open(DATA / "growth.csv")))
    with open(f"{folder}/wrong.csv", "w") as f:
        for i, row in enumerate(rows):
            f.write(",".join(row + [["mixed", "1", "n.a."][i] if i < 3 else str(i)]) + "\n")
    before = sorted(os.listdir(folder))
    for formula, words, under in WRONG:
        done = subprocess.run([PROGRAM, "-q", "-fit", formula, "wrong.csv", "-o", "w"], cwd=folder, capture_output=True, text=True)
        lines = done.stdout.splitlines()
        c.equal(f"code of {formula}", done.returncode, 100)
        c(any(words in line for line in lines), f"{formula}: {done.stdout!r}")
        c.equal(f"files of {formula}", sorted(os.listdir(folder)), before)
        if under is not None:
            at = max((i for i, line in enumerate(lines) if line.strip(" ^") == "" and "^" in line), default=None)
            c(at is not None, f"{formula}: no carets in {done.stdout!r}")
            shown, carets = (lines[at - 1], lines[at]) if at else ("", "")
            c.equal(f"place in {formula}", shown[carets.find("^"):carets.rfind("^") + 1].strip(), under)
    for words, said in ((["-family", "ordinal"], "line 3 holds \"n.a.\""),):
        code, text = run(PROGRAM, folder, "-fit", "mixed ~ year + (1 | school/pupil)", "wrong.csv", "-o", "w", *words)
        c(code == 100 and said in text, f"a text among categories that are numbers: {code} {text!r}")
    for words, said in ((["-family", "gamma"], "-family takes"), (["-family", "poisson"], "whole numbers from 0 on"),
                        (["-engine", "pql"], "not normal"), (["-trials", "tries"], "goes with -family binomial"),
                        (["-family", "binomial", "-engine", "mcmc"], "-engine takes"), (["-keyword", "LEVEL1:A=B"], "already"),
                        (["-weights2", "year"], "varies within units"), (["-weights1", "weks"], "Is weeks meant?")):
        outcome = "passed" if "mcmc" in words else "score"
        code, text = run(PROGRAM, folder, "-fit", f"{outcome} ~ year + (1 | school/pupil)", "wrong.csv", "-o", "w", *words)
        c(code == 100 and said in text, f"{words}: {code} {text!r}")
        c.equal(f"files after {words}", sorted(os.listdir(folder)), before)
    code, text = run(PROGRAM, folder, "-fit", "passed ~ offset(year) + (1 | school/pupil)", "wrong.csv", "-o", "w", "-family", "binomial")
    c(code == 100 and "have an offset" in text, f"an offset of 0 and 1: {text!r}")
    taken = [round(fit(folder, f"{y} ~ ses + {plus} (1 | school/pupil)", "wrong.csv", stem="w")[2]["phases"][-1]["log_likelihood"], 9)
             for y, plus in (("I(score - 2 * year - ses)", ""), ("score", "offset(2 * year) + offset(ses) +"))]
    c.equal("an offset comes off a normal outcome", *taken)
    # a keyword that the run refuses, when MDM file and command file stand already: beside the report of the run before, and of none
    late = lambda stem: run(PROGRAM, folder, "-fit", "score ~ year + (1 | school/pupil)", "wrong.csv", "-o", stem, "-keyword", "AGQ:Y,5,5")
    c.equal("refused late", late("w"), (100, late("none")[1].replace("none.mdm and none.kdr were made", "w.mdm and w.kdr were made, w.txt is of "
            "an earlier run, w.json is of an earlier run")))
    c(late("none")[1].endswith("Without results: none.mdm and none.kdr were made.\n"), late("none")[1])
    os.rename(f"{folder}/wrong.csv", f"{folder}/wrong.txt")  # the report would be wrong.txt
    code, text = run(PROGRAM, folder, "-fit", "score ~ 1 + (1 | school/pupil)", "wrong.txt")
    c(code == 100 and "place of the data" in text, text)
    with open(f"{folder}/mine.kdr", "w") as f:
        f.write("NONLIN:N\n")
    code, text = run(PROGRAM, folder, "-fit", "score ~ 1 + (1 | school/pupil)", "wrong.txt", "-o", "mine")
    c(code == 100 and "would be lost" in text, text)
    return c


def study(path, names, rows):
    with open(path, "w", newline="", encoding="utf-8") as f:
        csv.writer(f).writerows([names] + rows)


def longnames(folder):
    """Names with blanks, umlauts, 300 characters, alike in eight letters; a factor of 200 levels, one of them empty in
    the records with an outcome; IDs of 100 characters, some of which differ by case alone."""
    c = Checks("names")
    long = "x" * 150 + "_" + "y" * 149
    names = ["Schule", "Sch\u00fcler", "y", "gr\u00f6\u00dfe in cm", "gr\u00f6\u00dfe in m", long, "stra\u00dfe", "f"]
    rows, state = [], 12345
    for i in range(4000):
        state = state * 1103515245 % 2 ** 31
        u = lambda k: (state >> k) % 97 / 97
        school, pupil = i // 80, i // 4
        y = 3 + u(3) + (school * 7 % 11) / 5 + (pupil * 5 % 13) / 9 + (i % 200) / 100
        rows.append([("S" * 99) + "abcdefghij"[school % 10] + str(school // 10), "Kind " + ("P" if pupil % 2 else "p") + "\u00e4" * 90 + str(pupil // 2),
                     "" if i % 200 == 77 else f"{y:.4f}", f"{u(5):.3f}", f"{u(9):.3f}", f"{u(11):.3f}",
                     ["Ahorn-Weg", "B\u00e4rengasse", "Am Z\u00f6llner"][school % 3], f"level {i % 200:03}"])
    study(f"{folder}/lang.csv", names, rows)
    formula = f"y ~ `gr\u00f6\u00dfe in cm` + `gr\u00f6\u00dfe in m` + {long} + stra\u00dfe + f + (1 | Schule/Sch\u00fcler)"
    code, said, document = fit(folder, formula, "lang.csv", "-keyword", "RESFIL2:Y/",  "-keyword", "RESFIL2NAME:l2.csv", "-keyword",
                               "RESFILTYPE:FREEFORMAT", "-keyword", "RESFIL3:Y/", "-keyword", "RESFIL3NAME:l3.csv")
    c.equal("code", code, 0)
    if document is None:
        c.fail(said[-500:])
        return c
    said = said.encode("latin-1").decode("utf-8")
    c("f: no record has the level level 077" in said, "empty level")
    c("stra\u00dfe is a factor: Am Z\u00f6llner, B\u00e4rengasse against Ahorn-Weg" in said, said[:600])
    whole = [row["whole_name"] for row in document["variables"]]
    for name in (long, "gr\u00f6\u00dfe in cm", "stra\u00dfeB\u00e4rengasse", "flevel 199"):
        c(name in whole, f"{name} is not among the whole names")
    c.equal("effects", len(document["phases"][0]["fixed_effects"]), 4 + 2 + 198)
    c.equal("units", (document["dimensions"]["level3_units"], document["dimensions"]["level2_units"]), (50, 1000))
    report = open(f"{folder}/f.txt", encoding="utf-8").read()
    c(re.search(r"Names of the variables:", report) and long in report, "legend of the report")
    units = [row[:2] for row in csv.reader(open(f"{folder}/l2.csv", encoding="utf-8"))][2:]
    c.equal("IDs of level 2", sorted(map(tuple, units)), sorted({(row[0], row[1]) for row in rows}))
    units = [row[0] for row in csv.reader(open(f"{folder}/l3.csv", encoding="utf-8"))][2:]
    c.equal("IDs of level 3", sorted(units), sorted({row[0] for row in rows}))
    # command files take whole names, and refuse what could be two
    with open(f"{folder}/long.kdr", "w", encoding="utf-8") as f:
        f.write(f"NONLIN:N\nNUMIT:500,N\nLEVEL1:Y=INTRCPT1+gr\u00f6\u00dfe in m+{long}\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\n"
                f"LEVEL3:INTRCPT2=INTRCPT3+stra\u00dfeB\u00e4rengasse+RANDOM/\nLEVEL2:gr\u00f6\u00dfe in m=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n"
                f"LEVEL2:{long}=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\nRESFIL1:N\nRESFIL2:N\nRESFIL3:N\nCONSTRAIN:N\nHYPOTH:N\n"
                "LVR-BETA:N\nTITLE:\nOUTPUT:long.txt\nRESULTS:long.json\n")
    code, said = run(PROGRAM, folder, "-strict", "f.mdm", "long.kdr")
    c.equal("whole names in a command file", code if code == 0 else said[-400:], 0)
    if code == 0:
        got = {key(":".join(k)) for k in effects(json.load(open(f"{folder}/long.json")))}
        c.equal("its effects", got, {key(x) for x in ("(Intercept)", "gr\u00f6\u00dfe in m", long, "stra\u00dfeB\u00e4rengasse")})
    # the questions take whole names, too: those alike in 8 letters are two
    done = subprocess.run([PROGRAM, "-q", "f.mdm"], cwd=folder, input="n\ny\ngr\u00f6\u00dfe in m\ngr\u00f6\u00dfe in cm\n0\n", capture_output=True,
                          text=True)
    c("set the level-1 intercept" in done.stdout and not re.search("taken for|already chosen|no variable", done.stdout), done.stdout[:900])
    # a copy that is cut within the section is damaged, whatever the place
    data = open(f"{folder}/f.mdm", "rb").read()
    at = data.rindex(b"KDR3TEXT")
    for cut in (at + 3, at + 9, at + 25, (at + len(data)) // 2, len(data) - 1):
        with open(f"{folder}/cut.mdm", "wb") as f:
            f.write(data[:cut])
        code, said = run(PROGRAM, folder, "cut.mdm", "long.kdr")
        c(code == 100 and "is damaged" in said, f"cut at {cut - at}: {code} {said[-200:]!r}")
    with open(f"{folder}/cut.mdm", "wb") as f:
        f.write(data[:at])  # without the section the file is what it was
    c.equal("without the section", run(PROGRAM, folder, "cut.mdm", "f.kdr")[0], 0)
    return c


UNITS = 401  # pupils with a score of another year than 3


def files(folder):
    """What -fit writes: a command file that gives the same report again; options in its lines."""
    c = Checks("files")
    growth = DATA / "growth.csv"
    code, said, first = fit(folder, "score ~ year*sex + arm + (year | school/pupil)", growth)
    report = open(f"{folder}/f.txt").read()
    left = re.search(r"(\d+) of (\d+) records are left out, \d+ remain", said)
    words = f"{left[1]} of {left[2]} records of {growth} are left out" if left else "?"
    told = [words in w for w in (report, " ".join(first["warnings"]))] + [
        left and left[0] in open(f"{folder}/{name}").read() for name in ("KDR3MDM.STS", "f.kdr")]
    c.equal("report, results, log and command file tell the records that are left out", told, [True] * 4)
    report = "".join(line for line in report.splitlines(True) if words not in line)
    c.equal("files", sorted(set(os.listdir(folder)) & {"f" + x for x in MADE + [".html"]}), sorted("f" + x for x in MADE))
    code, _ = run(PROGRAM, folder, "-strict", "f.mdm", "f.kdr")
    c.equal("run again", (code, body(open(f"{folder}/f.txt").read()) == body(report)), (0, True))
    c("# score ~" not in said and "#score ~ year*sex + arm + (year | school/pupil)\n" in open(f"{folder}/f.kdr").read(), "formula in the file")
    lines = lambda: open(f"{folder}/f.kdr").read().splitlines()
    fit(folder, "score ~ year + (1 | school) + (0 + year | school) + (1 + year | school:pupil)", growth)
    c("DIAGONALIZETAUBETA:Y" in lines() and "DIAGONALIZETAUPI:Y" not in lines(), f"independent effects: {lines()}")
    fit(folder, "score ~ year + ses + (1 + year | school) + (0 + ses | school) + (1 | school:pupil)", growth)
    c("ESTTAU3:E,0,E,E,0,E" in lines(), f"independent in part: {lines()}")
    fit(folder, "score ~ year + (1 | school/pupil)", growth, "-keyword", "NUMIT:7,N", "-keyword", "TITLE:mine", "-weights1", "weeks")
    c("NUMIT:7,N" in lines() and "NUMIT:500,N" not in lines() and "TITLE:mine" in lines() and "LEVEL1WEIGHT:WEEKS" in lines(), f"{lines()}")
    for words, line in ((["-engine", "quadrature", "-points", "7"], "AGQ:Y,50,7"), (["-engine", "laplace6"], "LAPLACE:Y,50"), ([], "AGQ:Y,50,AUTO"),
                        (["-engine", "laplace"], "AGQ:Y,50,1"), (["-engine", "pql"], None)):
        code, said, _ = fit(folder, "passed ~ year + (1 | school/pupil)", growth, "-family", "binomial", *words)
        engines = [x for x in lines() if x.startswith(("AGQ:", "LAPLACE:"))]
        c.equal(f"engine of {words}", (code, engines), (0, [line] if line else []))
        c("The event of passed is yes." in said, "event")
    code, said, document = fit(folder, "books ~ year + (1 | school/pupil)", growth, "-family", "poisson", "-exposure", "weeks")
    c("NONLIN:POISSON,WEEKS" in lines() and document["model"]["count_variable"] == "WEEKS", f"{lines()}")
    code, said, document = fit(folder, "paper ~ year + (1 | school/pupil)", growth, "-family", "multinomial")
    c.equal("multinomial", (code, len(document["phases"][-1]["fixed_effects"]) if document else said[-200:]), (0, 4))
    c.equal("multinomial, engine", (document["phases"][-1]["phase"], "AGQ:Y,50,AUTO" in lines()), ("quadrature", True))
    code, said, document = fit(folder, "tries ~ year + (1 | school/pupil)", growth, "-family", "ordinal")
    c.equal("ordinal", (code, len(document["phases"][-1]["fixed_effects"]) if document else said[-200:]), (0, 6))
    c.equal("ordinal, engine", (document["phases"][-1]["phase"], "AGQ:Y,50,AUTO" in lines()), ("quadrature", True))
    # quadrature that would take too long gives way to one point, which is told before it begins
    with open(f"{folder}/large.csv", "w") as file:
        file.write("c,x,school,pupil\n" + "".join(f"{1 + (i * i + i // 7) % 4},{i % 11 - 5},{i // 400},{i // 20}\n" for i in range(20000)))
    for formula, why in (("c ~ x + (1 | school/pupil)", "with 7 points for each of 6 random effects would take about 40 seconds of one core"),
                         ("c ~ x + (x | school)", "there are more than 4 random effects of a level")):
        child = subprocess.Popen([PROGRAM, "-q", "-fit", formula, "large.csv", "-o", "f", "-family", "multinomial"], cwd=folder,
                                 stdout=subprocess.PIPE, text=True)
        told = next((line for line in child.stdout if "Estimates are those of the Laplace approximation" in line), "nothing")
        next(line for line in child.stdout if "MACRO ITERATION 1" in line)
        child.kill()
        child.communicate()
        c(why in told and "AGQ:Y,50,1" in lines() and any(why in line for line in lines()), f"{formula}: {told} {lines()}")
    # what -reml fits is fitted again
    _, said, first = fit(folder, "score ~ year + (1 | school/pupil)", growth, "-reml")
    c("REML criterion" in said and first["phases"][-1]["likelihood"] == "restricted", said[-500:])
    run(PROGRAM, folder, "f.mdm", "f.kdr")
    c.equal("-reml again", json.load(open(f"{folder}/f.json"))["phases"][-1]["deviance"], first["phases"][-1]["deviance"])
    code, said, document = fit(folder, "score ~ year + (1 | school/pupil)", growth, "-keyword", "NUMIT:1,N")
    c("WARNING: the iterations were stopped prior to convergence.\n\nThe report is" in said, said[-400:])
    code, said, document = fit(folder, "score ~ year + (1 | school/pupil)", growth, "-robust")
    c("robust SE" in said, said[-500:])
    # codes of missing values are none of the IDs
    code, said, document = fit(folder, "score ~ year + (1 | school/pupil)", growth, "-missing", "3,7")
    c("year: 401 values count as missing" in said or "year: " in said, said[:300])
    c.equal("units with codes", document["dimensions"]["level2_units"] if document else said[-300:], UNITS)
    # -from with factors
    code, said = run(PROGRAM, folder, "-from", str(growth), "-level3", "school", "-level2", "pupil", "-factors")
    c(code == 0 and "sex is a factor: male against female." in said and "SEXMALE" in said, said[:800])
    return c


def main():
    with tempfile.TemporaryDirectory() as folder:
        finish([part(folder) for part in (columns, models, refusals, longnames, files)])


main()
