"""The loop of passes of a non-linear run: its limits and failures, and the dialogue that starts it.

    macro_test.py <program>
"""
import json
import math
import pathlib
import random
import re
import signal
import subprocess
import sys
import tempfile
import time

sys.path.append(str(pathlib.Path(__file__).parent.parent / "reference"))
import numpy as np
import quasisets
import report
from program import NOFEATURES, NOFILES, Checks, Workplace, body
from residualfiles import read, readgraph

check = Checks()
work = Workplace(sys.argv[1])

MODEL = """NONLIN:{kind}
MACROIT:{macroit}
MICROIT:50
FIXSIGMA2:1
{more}{equations}FULLOUTPUT:N
TITLE:loop
OUTPUT:out.{form}
""" + NOFILES + NOFEATURES
EQUATIONS = """LEVEL1:{y}=INTRCPT1+X{cuts}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+Z,2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL3:Z=INTRCPT3/
LEVEL2:X=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
"""
NULL = "LEVEL1:{y}=INTRCPT1+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"


def study(change=lambda row, i: row, records=6):
    """12 level-3 units of 5 of `records`; `change` may change a record (Y, COUNT, N, GRADE, X) by its number."""
    rng = random.Random(3)
    rows = [[], [], []]
    for k in range(12):
        v = rng.gauss(0, 0.7)
        rows[2].append((k, rng.gauss(0, 1)))
        for j in range(5):
            u = rng.gauss(0, 0.8)
            rows[1].append((k, j, rng.gauss(0, 1)))
            for _ in range(records):
                x, n = rng.gauss(0, 1), rng.randint(1, 5)
                eta = -0.2 + 0.6 * x + u + v
                made = [float(rng.random() < 1 / (1 + 2.718 ** -eta)) for _ in range(n)]
                row = change([made[0], sum(made), n, 1 + (eta + rng.gauss(0, 1) > -0.8) + (eta + rng.gauss(0, 1) > 0.6), x],
                             len(rows[0]))
                rows[0].append((k, j, *row))
    work.make(rows, "%12.4f", (["Y", "COUNT", "N", "GRADE", "X"], ["Z"], ["Q"]), "m.mdm")


def fit(kind, y="Y", macroit="30,N", more="", cuts="", answers="", form="txt", equations=EQUATIONS):
    """Exit code, console and report."""
    (work.folder / ("out." + form)).unlink(missing_ok=True)
    sets = int(kind.split(",")[1]) - 1 if kind.startswith("MULTINOMIAL") else 1
    work.write("m.kdr", MODEL.format(kind=kind, macroit=macroit, more=more, form=form,
                                     equations=equations.format(y=y, cuts=cuts) * sets))
    done = work.run("m.mdm", "m.kdr", answers=answers)
    made = work.folder / ("out." + form)
    return done.returncode, done.stdout, made.read_text() if made.exists() else ""


def failures():
    """Data and estimates that end a run: exit code, words on the console, words in the report."""
    single = lambda value: lambda row, i: [value] + row[1:]
    rows = [
        ("BERNOULLI", "Y", single(0.0), 100, "", "The outcome variable is all zeros!"),
        ("POISSON", "Y", single(0.0), 100, "", "The outcome variable is all zeros!"),
        ("BERNOULLI", "Y", single(1.0), 100, "", "\nThe outcome variable must take on values between 0 and 1.\n"),
        ("MULTINOMIAL,2", "GRADE", None, 100, "There are more than the specified 2 categories of    GRADE!\n", ""),
        ("MULTINOMIAL,4", "GRADE", None, 100, "There are less than the specified 4 categories of    GRADE!\n", ""),
        ("ORDINAL,2", "GRADE", None, 100, "There are more than the specified 2 categories of    GRADE!\n", ""),
    ]
    for kind, y, change, code, console, report in rows:
        study(change or (lambda row, i: row))
        cuts = "+THOLD2" if kind == "ORDINAL,3" else ""
        for form in ("txt", "html"):
            got, said, text = fit(kind, y, cuts=cuts, form=form)
            what = f"{kind} of {y}, {console or report}"
            check(got == code and console in said, f"{what}: code {got}, {said[-300:]!r}")
            check(form == "html" or report in text, f"{what}: report {text[-300:]!r}")
            check(form == "txt" or not text or text.endswith("</html>\n"), f"{what}: the page is not closed {text[-200:]!r}")


    study(lambda row, i: [2.0 + 2 * (i % 2)] + row[1:], records=1)
    code, _, text = fit("POISSON", more="FIXSIGMA2:0\n", equations=NULL)
    check(code == 16 and "no degrees of freedom to estimate sigma_squared" in text, f"one record a unit: code {code}")
    study(lambda row, i: [1.0 + i // 6 % 3] + row[1:])  # counts alike in each unit: no likelihood without sigma^2 held
    code, said, text = fit("POISSON", more="FIXSIGMA2:0\n", equations=NULL)
    check(code == 100 and all("sigma^2 goes to 0" in x for x in (said, text)), f"counts alike: code {code}, {said[-200:]}")


def skewed():
    """Ordinal outcomes with rare categories converge: equal first cuts would put the thresholds out of order."""
    for shares in ((70, 10, 10, 10), (10, 10, 10, 70), (60, 12, 10, 9, 9), (60, 2, 38), (40, 20, 14, 8, 6, 4, 3, 2, 2, 1)):
        ends = [sum(shares[:c + 1]) / sum(shares) for c in range(len(shares))]

        def change(row, i):
            place = random.Random(i).random()  # of a logistic variable around the predictor
            latent = math.log(place / (1 - place)) - 0.5 * row[4] + 0.5 * (i // 30 % 3 - 1)
            return row[:3] + [1.0 + sum(latent > math.log(end / (1 - end)) for end in ends[:-1])] + row[4:]
        study(change)
        cuts = "".join(f"+THOLD{c + 2}" for c in range(len(shares) - 2))
        code, said, text = fit(f"ORDINAL,{len(shares)}", "GRADE", macroit="100,N", cuts=cuts)
        cut = [float(x) for x in re.findall(r"(?m)^ +d\(\S+\) +(-?[\d.]+)", text)][: len(shares) - 2]
        check(code == 0 and "have converged" in said, f"shares {shares}: code {code}, {said[-200:]}")
        check(cut == sorted(cut) and cut and cut[0] > 0, f"shares {shares}: thresholds {cut}")


def astray():
    """Two records with logits beyond 60 from macro iteration 3 on start again from -2 and 2, with the outcome as it is; in
    one after the seventh all go on from within -2 to 2 by steps of 2 at most, and one beyond 60 again ends the run."""
    options = "STOPMICRO:0.000001\nRESFIL1:Y\nRESFILTYPE:FREEFORMAT\n"
    for far, last in ((25.0, 8), (40.0, 9)):  # beyond 60 in iterations 4 and 8; 3, 5, 7 and 9; then 30 steps
        side = lambda i: far if i == 41 else -far if i == 40 else 1.0 if i % 2 else -1.0
        study(lambda row, i: [float(i % 2 or i == 40)] + row[1:4] + [side(i)])
        code, said, _ = fit("BERNOULLI", macroit="100,N", more=options)
        check(code == 100 and said.count("MACRO ITERATION") == last + 30, f"astray, {far}: code {code}, {said[-100:]}")
    for macroit, beyond in ((7, True), (8, False)):
        fit("BERNOULLI", macroit=f"{macroit},N", more=options)
        rows = read(str(work.folder), "FREEFORMAT", 1).rows[40:42]
        check(all((abs(row[3]) > 60) == beyond for row in rows), f"astray, macro iteration {macroit}: {rows}")
    for row, z in zip(rows, (math.exp(2) - 1, math.exp(-2) + 3)):
        check(abs(row[2] + row[3] - z) < 2e-6, f"astray, outcome 1, Z = {z}: {row}")
    study(lambda row, i: row[:4] + [{40: -60.0, 41: 60.0}.get(i, row[4])])  # of categories, beyond 30
    for macroit, ends in ((7, 0), (20, 18)):
        code, said, _ = fit("MULTINOMIAL,3", "GRADE", macroit=f"{macroit},N", more=options)
        check(code == ends, f"astray, categories, {macroit}: code {code}, {said[-100:]}")


def settled():
    """Runs at tight criteria that ran off for good (109) or crept on below their maxima up to the limit: the fixed points
    of `quasisets.py dense`."""
    for seed, gamma in (
            (109, (0.351183, -0.418708, -0.169908, 0.540969, 0.994344)), (114, (0.339356, 0.047001, 0.236635, 0.061443, -0.11731)),
            (304, (-2.643121, -0.323562, 0.265219, 1.188057, 1.000236, 1.693908, 3.474143, 4.20556, 4.949164))):
        with tempfile.TemporaryDirectory() as folder:
            made = quasisets.makestudy(seed, folder)
            for _, code, said, document in quasisets.runs(work.program, folder, made, ("tight",)):
                check(code == 0, f"study {seed}: code {code}, {said[-200:]!r}")
                for effect, want in zip(quasisets.unitspecific(document)["fixed_effects"] if document else (), gamma):
                    check(abs(effect["estimate"] - want) < 1e-4 * effect["model_based"]["standard_error"], f"study {seed}: {effect}, expected {want}")


def heavy():
    """Counts above a million: the limit of the working weights, with a word on the console and below both headings."""
    study(lambda row, i: [2.0e6 if i // 6 % 4 else 1.0e5] + row[1:])
    _, said, text = fit("POISSON", macroit="6,N")
    numbers = [re.findall("WARNING: the working weights of (.*) records were held at 999999.\n", x) for x in (said, text)]
    check(numbers == [["270"], ["270", "360"]], f"heavy records: {numbers}")  # all have one population average


def averagestep(document):
    """How far one scoring step from the population average would go, in standard errors, on dense matrices: M'V^-1 (Z - M gamma)
    over M'V^-1 M with V of the working data at M gamma."""
    phases = {phase["phase"]: phase for phase in document["phases"]}
    effects = phases["population_average"]["fixed_effects"]
    gamma, tau = np.array([e["estimate"] for e in effects]), [phases["pql"][t]["estimate"][0][0] for t in ("tau_pi", "tau_beta")]
    of = [("INTRCPT1", "INTRCPT2"), ("INTRCPT1", "Z"), ("X", "INTRCPT2")]
    order = [of.index((e["level1"], e["level2"])) for e in effects]
    z = {line[:8]: float(line[8:20]) for line in work.read("m2.dat").splitlines()}
    units = {}
    for line in work.read("m1.dat").splitlines():
        units.setdefault(line[:4], []).append((line[:8], float(line[8:20]), float(line[56:68])))
    score, information = 0.0, 0.0
    for records in units.values():
        M = np.array([(1.0, z[j] - np.mean(list(z.values())), x) for j, _, x in records])[:, order]
        y, j, mu = np.array([y for _, y, _ in records]), np.array([j for j, _, _ in records]), np.exp(M @ gamma)
        V = np.diag(1 / np.minimum(mu, 999999.0)) + tau[0] * (j[:, None] == j[None, :]) + tau[1]
        inverse = np.linalg.inv(V)
        score, information = score + M.T @ inverse @ ((y - mu) / mu), information + M.T @ inverse @ M
    return np.linalg.solve(information, score) / np.sqrt(np.diag(np.linalg.inv(information)))


def extreme():
    """One count far beyond small ones: passes of the population average go on to where it stands, or say so; and PQL says when
    a search has failed."""
    def run(at, count, more=""):
        study(lambda row, i: [count if i == at else row[1]] + row[1:])
        work.write("m.kdr", MODEL.format(kind="POISSON", macroit="100,N", more=more, form="txt", equations=EQUATIONS.format(y="Y", cuts="")))
        done = work.run("m.mdm", "m.kdr", "-strict", "-results", "r.json")
        check(done.returncode in (0, 20), f"extreme {count:g} at {at}: code {done.returncode} {done.stdout[-200:]}")
        return done.returncode, done.stdout, work.read("out.txt"), json.loads(work.read("r.json"))
    for at in (2, 7, 200):  # ran off to where Z is no number but for 7
        code, said, text, document = run(at, 1.0e6)
        told = "population average have not settled" in text
        check(told == ("population average have not settled" in said) and told == (code == 20), f"extreme at {at}: {code}, told {told}")
        step = averagestep(document)
        check(told or max(abs(step)) < 1e-5, f"extreme at {at}: {step} standard errors away")
        check(at == 200 or not told, f"extreme at {at}: not settled")
    code, said, text, _ = run(7, 1.0e6, "POPAVIT:2\n")
    check(code == 20 and all("population average have not settled" in x for x in (said, text)), "extreme, two passes")
    lost = 0
    for at in (207, 225):
        code, said, text, document = run(at, 1.0e5)
        ending = [phase["ending"] for phase in document["phases"] if phase["phase"] == "pql"][0]
        told = [words in x for words in ("the search for the maximum of the last one has failed",) for x in (said, text)]
        check(code == 20 and told == [ending == "lost"] * 2, f"extreme at {at}: code {code}, {ending}, {told}")
        lost += ending == "lost"
    check(lost > 0, "a search that fails in the last pass is told")


def stops():
    """The report tells of a stop from the keyboard, and of a population average that its limit cuts off."""
    study()
    fit("BERNOULLI", more="STOPMICRO:0\nMICROIT:4000\nFISHERTYPE:0\n", macroit="1,N")
    commands = work.write("m.kdr", work.read("m.kdr").replace("MACROIT:1,N", "MACROIT:9,N").replace("MICROIT:50\n", ""))
    for place in ("macro 1/micro iteration 9,", "macro 2/micro iteration 9,"):
        child = subprocess.Popen([work.program, "-q", "-strict", "m.mdm", commands], cwd=work.folder, stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True, env=work.environment)
        next(line for line in child.stdout if place in line)
        child.send_signal(signal.SIGINT)
        rest, _ = child.communicate("0\n", timeout=60)
        told = "stopped from the keyboard" in rest and " terminated prematurely from the keyboard.\n" in work.read("out.txt")
        check(child.returncode == 20 and told, f"a stop at {place} code {child.returncode}, {rest[-300:]}")
        check(rest.count("MACRO ITERATION") == 1, f"a stop at {place} the population average alone follows")
    for microit, cut in ((2, True), (50, False)):
        for scale in (0, 1):
            _, said, text = fit("POISSON", macroit="500,N", more=f"STOPMACRO:0.01\nMICROIT:{microit}\nFIXSIGMA2:{scale}\n")
            told = ("population average were stopped" in said, "WARNING: the iterations were stopped" in text)
            check(told == (cut and scale == 0,) * 2, f"population average, MICROIT:{microit}, FIXSIGMA2:{scale}: {told}")


def within():
    """The interrupt key within an evaluation of the likelihood that takes seconds."""
    rng = random.Random(8)
    for name, pupils, records in (("heavy.csv", 8, 40), ("light.csv", 4, 15)):
        rows = ["y,x,school,pupil"]
        for k in range(10):
            for j in range(pupils):
                u, slope = rng.gauss(0, 1), rng.gauss(0.5, 0.5)
                for _ in range(records):
                    x = rng.gauss(0, 1)
                    rows.append(f"{int(rng.random() < 1 / (1 + math.exp(-0.2 * k + 1 - u - slope * x)))},{x:.4f},{k},{j}")
        work.write(name, "\n".join(rows) + "\n")

    def press(place, answer, data, points):
        child = subprocess.Popen([work.program, "-q", "-strict", "-fit", "y ~ x + (x | school/pupil)", data, "-o", "key", "-family",
                                  "binomial", "-points", str(points), "-t", "2"], cwd=work.folder, stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True, env=work.environment)
        line = next(line for line in child.stdout if place in line)
        time.sleep(0.3 if data == "heavy.csv" else 0.05)
        child.send_signal(signal.SIGINT)
        pressed = time.monotonic()
        rest, _ = child.communicate(f"{answer}\n", timeout=120)
        document = json.loads(work.read("key.json")) if child.returncode == 20 else None
        return child.returncode, time.monotonic() - pressed, line, rest, document

    heavy = "With 31 points for each random effect an evaluation"
    code, seconds, _, rest, _ = press(heavy, 1, "heavy.csv", 31)
    check(code == 0 and seconds < 3 and rest.startswith("Enter 0 to stop"), f"exit: code {code}, {seconds:.1f} s, {rest[:200]}")
    code, _, _, rest, document = press(heavy, 0, "heavy.csv", 31)
    words = "ended before they had converged, where there are no standard errors."
    check(code == 20 and "goes on with the estimates that quadrature started from" in rest and words in work.read("key.txt")
          and any(words in w for w in document["warnings"]), f"nothing but PQL: code {code}, {rest[-500:]}")
    code, _, line, rest, document = press("at AGQ iteration 1 ", 0, "light.csv", 21)
    phase = next((p for p in document["phases"] if p["phase"] == "quadrature"), {}) if document else {}
    check(phase.get("ending") == "keyboard" and abs(phase["marginal_log_likelihood"] / float(line.split()[-1]) - 1) < 1e-6,
          f"the iteration before: code {code}, {phase.get('ending')}, {rest[-300:]}")
    code, _, _, rest, document = press("The number of points is checked with 31", 0, "light.csv", 21)
    words = "21 quadrature points are not checked: their check, with 31, was stopped."
    check(words in rest and words in work.read("key.txt") and any(words in w for w in document["warnings"]),
          f"a check: code {code}, {rest[-300:]}")


def limits():
    """MACROIT: of 1 and more; at the limit N stops with a warning, Y goes on, without a letter the user is asked."""
    study()
    warning = "WARNING: the macro iterations were stopped prior to convergence.\n"
    question = "Do you want to continue until convergence?"
    tight = "STOPMACRO:0.00001\nSTOPMICRO:0.0000000001\n"
    _, _, whole = fit("BERNOULLI", macroit="500,N", more=tight)
    fixed = lambda text: re.findall(r"INTRCPT3, G000 .*", text)
    tau = lambda text: float(re.search(r"(?ms)^tau\(pi\)\n.*?(\d+\.\d+)", text)[1])
    for macroit, answers, passes, warned, asked in (
            ("1,N", "", 1, True, False), ("2,N", "", 2, True, False), ("3,N", "", 3, True, False),
            ("3", "n\n", 3, True, True), ("3", "y\n", None, False, True), ("3,Y", "", None, False, False)):
        code, said, text = fit("BERNOULLI", macroit=macroit, more=tight, answers=answers)
        what = f"MACROIT:{macroit}, answer {answers!r}"
        check(code == 0, f"{what}: code {code}")
        check(text.count(warning) == warned, f"{what}: warning in the report")
        check(("stopped prior to convergence" in said) == warned, f"{what}: words on the console")
        check((question in said) == asked, f"{what}: question")
        check(warned or "The macro iterations have converged" in said, f"{what}: not converged")
        if passes:  # the population average comes behind
            check(said.count("MACRO ITERATION") == passes + 1, f"{what}: {said.count('MACRO ITERATION')} passes")
            check(f"macro iteration {passes})" in text or passes == 1, f"{what}: heading")
        else:
            check(fixed(text) == fixed(whole), f"{what}: {fixed(text)} for {fixed(whole)}")
    # Criteria so loose that the first pass on working data ends the loop: it goes on by searches, and says so at a limit.
    moving, creeping = "WARNING: the variance components have not settled", "The macro iterations creep"
    loose = "STOPMACRO:9\nSTOPMICRO:9\n"
    for macroit, more, far, creeps in (("2,N", loose, True, True), ("500,N", loose, False, True), ("500,N", tight, False, False)):
        _, said, text = fit("BERNOULLI", macroit=macroit, more=more)
        check((moving in said) == (moving in text) == far and (creeping in said) == creeps, f"{macroit} {more!r}: settled or not")
        check(far == (abs(tau(text) - tau(whole)) > 0.05), f"{macroit} {more!r}: tau {tau(text)} for {tau(whole)}")
    for form in ("txt", "html"):
        _, _, text = fit("BERNOULLI", form=form)
        places = [text.lower().find(x) for x in ("summary of the model", "unit-specific model, pql", "population-average model")]
        check(-1 not in places and places == sorted(places), f"order of sections in {form}: {places}")
        check(text.lower().count("unit-specific model, pql") == 1, f"one unit-specific section in {form}")


def dialogue():
    """A model typed in answer to the questions gives the report of the command file that the run leaves."""
    study()
    kinds = {
        "Bernoulli": ("1", "NONLIN:BERNOULLI\nLAPLACE:y,30\n",
                      {"outcome variable": ["1"], "over-dispersion": ["n"], "Laplace-6": ["y"], "Laplace macro": ["30"]}),
        "binomial": ("2", "NONLIN:BINOMIAL,N\n", {"outcome variable": ["2"], "over-dispersion": ["y"], "number of trials": ["3"]}),
        "Poisson": ("3", "NONLIN:POISSON\n", {"outcome variable": ["2"], "over-dispersion": ["y"]}),
        "Poisson with exposure": ("4", "NONLIN:POISSON,N\n",
                                  {"outcome variable": ["2"], "over-dispersion": ["n"], "exposure": ["3"]}),
        "multinomial": ("5", "INTRCPT3/\nLEVEL1:GRADE=INTRCPT1+X+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\n",
                        {"outcome variable": ["4"], "How many categories": ["3"]}),
        "ordinal": ("6", "NONLIN:ORDINAL,3\nLEVEL1:GRADE=INTRCPT1+X+THOLD2+RANDOM\n",
                    {"outcome variable": ["4"], "How many categories": ["3"]}),
    }
    for name, (kind, lines, own) in kinds.items():
        rules = dict({"raw data": ["n"], "name of MDM": ["m.mdm"], "non-linear analysis": ["y"], "type of analysis": [kind],
                      "macro iterations": ["100"], "micro iterations": ["60"], "level-1 predictor": ["5", "0"],
                      "Level-2 predictor": ["1"] + ["0"] * 15, "Level-3 predictor": ["1"] + ["0"] * 25,
                      "title": ["typed", "typed.txt"], "constrain the variances": ["y"] * 2,
                      "fix +X|fix INTRCPT1/ +Z": ["y"] * 9}, **own)
        given, said, held = "", "", own.get("over-dispersion") != ["y"]
        for _ in range(90):
            done = work.run(answers=given)
            said = done.stdout
            if done.returncode == 0:
                break
            last = re.search(r"(?s)(.{4,500}?)\1{9}Unable to get a proper response", said)  # asked ten times at the end
            question = last[1] if last else "title"
            rule = next((r for r in rules if re.search(r, question) and rules[r]), None)
            given += (rules[rule].pop(0) if rule else "n") + "\n"
        check("typed.txt" in [p.name for p in work.folder.iterdir()], f"dialogue, {name}: no report\n{said[-600:]}")
        text, written = body(work.read("typed.txt")), work.read("newcmd.kdr")
        (work.folder / "typed.txt").unlink()
        done = work.run("m.mdm", "newcmd.kdr", answers="n\n")  # should it not converge
        again = body(work.read("typed.txt"))
        check(done.returncode == 0 and again == text, f"dialogue, {name}: " + f"{len(text)} lines, then {len(again)}; " + "\n".join(sorted(set(again) ^ set(text))))
        check(any("G001" in line for line in text), f"dialogue, {name}: the model")
        check(lines in written and "MACROIT:100\nMICROIT:60\n" in written and ("FIXSIGMA2:1.0" in written) == held,
              f"dialogue, {name}: newcmd.kdr\n{written}")
        check(not re.search("How many iterations|THOLD", said), f"dialogue, {name}: questions that have no place")


def graph():
    """The fixed effects of each phase at the head of the graph data file, through both example readers."""
    study()
    phases = {"unitspecific": "unit-specific", "laplace": "laplace", "quadrature": "quadrature"}
    for engines in ("", "LAPLACE:Y,30\n", "AGQ:Y,30,5\n", "LAPLACE:Y,30\nAGQ:Y,30,5\n"):
        code, _, _ = fit("BERNOULLI", more=engines + "GRAPHGAMMAS:graph.bin\n")
        check(code == 0, f"graph data file, {engines!r}: code {code}")
        tables = readgraph(str(work.folder / "graph.bin"), str(work.folder / "m.mdm"), nonlinear=True)
        sections = report.sections(str(work.folder / "out.txt"))
        last = next(x for x in ("quadrature", "laplace", "population-average") if x in sections)
        for phase, section in (phases | {"gamma": last}).items():
            if section not in sections:
                check(tables[phase][0] == -1e36, f"graph data file, {engines!r}: {phase} of a phase that was not asked for")
                continue
            rows = sections[section].fixed["final"].rows
            check(len(rows) == len(tables[phase]) and all(abs(row.coefficient - x) < 6e-7 for row, x in zip(rows, tables[phase])),
                  f"graph data file, {engines!r}: {phase} {tables[phase]}")


def engines():
    """The variance files of the engines; an engine that fails, makes no iteration or meets its limit leaves a word, no
    false file and the estimates of quasi-likelihood."""
    study()
    always = "STOPMICRO:0.00001\nPRINTVARIANCE-COVARIANCE:Y\nGRAPHGAMMAS:graph.bin\n"
    numbers = lambda name: [float(cell) for cell in work.read(name).split()]
    near = lambda made, wanted: len(made) == len(wanted) and all(abs(a - b) < 2e-5 for a, b in zip(made, wanted))

    def run(options, equations=EQUATIONS):
        for file in work.folder.glob("*vc*.dat"):
            file.unlink()
        code, said, text = fit("BERNOULLI", more=always + options, equations=equations)
        check(code == 0, f"{options!r}: code {code}, {said[-200:]}")
        return said, text, report.splitsections(text)

    said, text, sections = run("LAPLACE:Y,30\nAGQ:Y,30,7\n")
    for section, name in (("laplace", "l6"), ("quadrature", "agq")):
        r = sections[section]
        taus, gammas = numbers(f"tauvc{name}.dat"), numbers(f"gamvc{name}.dat")
        check(near(taus[:2], [r.taupi[0][0], r.taubeta[0][0]]), f"taus of {section}: {taus}")
        check(near([taus[2] ** 0.5, taus[5] ** 0.5], [r.setaupi[0][0], r.setaubeta[0][0]]), f"their errors: {taus}")
        rows = r.fixed["final"].rows
        check(near(gammas[:3], [row.coefficient for row in rows]), f"fixed effects of {section}: {gammas}")
        check(near([v ** 0.5 for v in gammas[3::4]], [row.se for row in rows]), f"their errors: {gammas}")
    check("tauvcl6, containing" in text and "gamvcl6.dat, containing" in text, "list of files")

    short = "WARNING: standard errors are far below those of PQL. Use more quadrature points.\n"
    check(short not in text + said, "enough points: a warning")
    started = "The run goes on with the estimates that quadrature started from.\n"
    for factor, points, words in ((5.0, 3, short), (1.0, 5, "Unable to compute adaptive Gaussian Hessian\n")):
        study(lambda row, i: [factor * row[1] + i % 7] + row[1:])
        (_, plain), (said, text) = (fit("POISSON", macroit="10,N", more=x)[1:] for x in ("", f"AGQ:Y,30,{points}\nAGQNODES:FIXED\n"))
        check(words in text and started in text and started in said, f"too few points, {factor}: words")
        averages = [[row.coefficient for row in report.splitsections(x)["population-average"].fixed["final"].rows]
                    for x in (plain, text)]
        check(near(*averages), f"too few points, {factor}: estimates {averages}")
    study()

    said, text, sections = run("LAPLACE:Y,1\n")
    words = "WARNING: the iterations of Laplace-6 ended before they had converged.\n"
    check(text.count(words) == 1 and "(macro iteration 1)\n" + words in text, "Laplace-6 at its limit: warning")

    said, text, sections = run("LAPLACE:Y,0\n")
    quasi = float(re.findall(r"the log-likelihood is = (\S+)", said.split("MACRO ITERATION")[-2])[-1])
    line = "Laplace-6 has made no iteration: the likelihood is that of quasi-likelihood.\n"
    check(line in text and "laplace" not in sections, "no iteration of Laplace-6: words")
    check(abs(sections["unit-specific"].deviance + 2 * quasi) < 1e-3, f"no iteration of Laplace-6: deviance, {quasi}")

    # A slope that hardly varies: Laplace-6 by steps on the taus leaves the space. More than a million nodes: no iteration
    # of quadrature.
    slope = EQUATIONS.replace("LEVEL2:X=INTRCPT2/", "LEVEL2:X=INTRCPT2+RANDOM/")
    _, _, plain = run("", slope)
    for options, phase, words in (
            ("LAPLACE:Y,30\nAGQNODES:FIXED\n", "laplace", "Fisher scoring is unable to compute a maximum likehihood estimate within\n"
             "the parameter space.  Unable to produce Laplace results.\n\n"),
            ("AGQ:Y,30,101\n", "quadrature", "Quadrature has no results.\n"
             "WARNING: 101 quadrature points for 3 effects are more than this program integrates with.\n"
             "The run goes on with the estimates that quadrature started from.\n")):
        said, text, sections = run(options, slope)
        check(words in text and phase not in sections, f"{phase} fails: words")
        check(list(sections) == list(plain) and all(
            sections[s].fixed["final"].rows == plain[s].fixed["final"].rows for s in plain), f"{phase} fails: the rest")
        check(readgraph(str(work.folder / "graph.bin"), str(work.folder / "m.mdm"), nonlinear=True)[phase][0] == -1e36,
              f"{phase} fails: graph data file")
        check(not any((work.folder / f"{part}vc{name}.dat").exists() for part in ("tau", "gam") for name in ("l6", "agq")),
              f"{phase} fails: variance files")
        check("vcl6" not in text, f"{phase} fails: list of files")
    said, text, sections = run("LAPLACE:Y,30\n", slope)
    check("laplace" in sections and "WARNING" not in text and "  1.000  1.000\n" in text, "laplace: a slope that hardly varies")


def points():
    """What quadrature says of its points: on the console, in the report, the results document and the exit code."""
    study()
    for asked, made, other, code in (("1", 1, None, 0), ("AUTO", 7, 5, 0), ("11", 11, 15, 0), ("3", 3, 5, 20)):
        work.write("m.kdr", MODEL.format(kind="BERNOULLI", macroit="60,N", more=f"AGQ:Y,30,{asked}\n", form="txt",
                                         equations=EQUATIONS.format(y="Y", cuts="")))
        done = work.run("m.mdm", "m.kdr", "-strict", "-results", "r.json")
        document = json.loads(work.read("r.json"))
        phase = [p for p in document["phases"] if p["phase"] == "quadrature"][0]
        check(done.returncode == code and phase["points"] == made and (phase["check"] or {}).get("points") == other,
              f"{asked} points: code {done.returncode}, {phase['points']}, {phase['check']}")
        # All but the note that robust standard errors want more units.
        warnings = [words for words in phase["warnings"] if not words.startswith("The robust standard errors")]
        check((document["converged"], phase["converged"], len(warnings)) == ((code == 0,) * 2 + (int(code > 0),)),
              f"{asked} points: {document['converged']}, {warnings}")
        for words in warnings or [f"{made} point" if made > 1 else "One point: the first-order Laplace"]:
            check(words in work.read("out.txt") and words in done.stdout, f"{asked} points: {words}")
        check("population-average" in report.sections(str(work.folder / "out.txt")), f"{asked} points: population average")
        again = work.read("newcmd.kdr")
        check(f"agq:y,30,{asked}\n" in again, f"{asked} points: newcmd.kdr")
    # A variance at its edge: no standard error, and a population average all the same.
    study(lambda row, i: [row[1] + i % 7] + row[1:])
    code, said, text = fit("POISSON", macroit="10,N", more="AGQ:Y,30,7\n")
    made = report.splitsections(text)
    check(code == 0 and list(made) == ["unit-specific", "quadrature", "population-average"], f"at the edge: code {code}, {list(made)}")
    check("NC: at the edge, a variance of 0" in text, "at the edge: words")
    study()


def endings():
    """Each way in which an engine ends short of a maximum: a sentence on the console, in the report and in the results
    document, and code 20."""
    alike = lambda row, i: [float(i // 6 * 7919 % 13 > 6)] + row[1:]  # in each level-2 unit
    slope = EQUATIONS.replace("LEVEL2:X=INTRCPT2/", "LEVEL2:X=INTRCPT2+RANDOM/")
    started = "The run goes on with the estimates that quadrature started from."
    goes = "WARNING: the likelihood has no finite maximum: it rises as a variance grows without end."
    for change, equations, more, results, words in (
            (alike, EQUATIONS, "AGQ:Y,100,7\n", False, (started, "WARNING: 7 quadrature points are too few: their log-likelihood has no maximum that steps could find.")),
            (alike, EQUATIONS, "AGQ:Y,100,AUTO\n", False, (started, goes)),
            (alike, EQUATIONS, "AGQ:Y,100,1\n", True, (goes + " The estimates are where its rise had all but ended.",)),
            (alike, EQUATIONS, "LAPLACE:Y,100\n", True, ("WARNING: the terms of the sixth order are not small",)),
            (None, slope, "AGQ:Y,30,101\n", False, (started, "WARNING: 101 quadrature points for 3 effects are more")),
            (None, EQUATIONS, "AGQ:Y,1,7\n", True, ("WARNING: the iterations of quadrature ended before they had converged.",)),
            (None, EQUATIONS, "AGQ:Y,1,1\n", True, ("WARNING: the iterations of quadrature ended before they had converged.",)),
            (None, EQUATIONS, "LAPLACE:Y,1\n", True, ("WARNING: the iterations of Laplace-6 ended before they had converged.",))):
        study(change or (lambda row, i: row))
        work.write("m.kdr", MODEL.format(kind="BERNOULLI", macroit="60,N", more=more, form="txt", equations=equations.format(y="Y", cuts="")))
        done = work.run("m.mdm", "m.kdr", "-strict", "-results", "r.json")
        document, text = json.loads(work.read("r.json")), work.read("out.txt")
        phases = {p["phase"]: p for p in document["phases"]}
        made = phases.get("laplace6" if "LAPLACE" in more else "quadrature")
        what = f"{words[-1]} {more.strip()}"
        check(done.returncode == 20 and not document["converged"] and (made is not None) == results, f"{what}: code {done.returncode}")
        said = " ".join(document["warnings"] + (made["warnings"] if made else []))
        check(all(w in done.stdout and w in text and (w in said or w == started) for w in words), f"{what}: {said}, {done.stdout[-300:]}")
        check(made is None or "LAPLACE" in more or not made["converged"], f"{what}: the phase has converged")
    study()


def broken():
    """Where quasi-likelihood or the population average has no results, an engine has its own all the same, and every
    place says what is missing. Where the engine has none either, and with the nodes of before, the failure stands."""
    def run(kind, equations, more, macroit="60,N"):
        (work.folder / "r.json").unlink(missing_ok=True)
        work.write("m.kdr", MODEL.format(kind=kind, macroit=macroit, form="txt", equations=equations.format(y="COUNT", cuts=""),
                                         more="PRINTVARIANCE-COVARIANCE:Y\n" + more).replace("MICROIT:50", "MICROIT:200")
                   .replace(NOFILES if "RESFIL" in more else "\0", ""))
        done = work.run("m.mdm", "m.kdr", "-strict", "-results", "r.json")
        document = json.loads(work.read("r.json")) if (work.folder / "r.json").exists() else None
        return done.returncode, done.stdout, work.read("out.txt"), document

    def made(seed, records, deviation3, deviation2, origin, outcome):
        """Intercepts and slopes of these standard deviations at levels 3 and 2; `outcome` draws at a linear predictor."""
        draw, effects = random.Random(seed), {}

        def change(row, i):
            pair = lambda unit, s: effects.setdefault(unit, (draw.gauss(0, s), draw.gauss(0, s)))
            third, second = pair(("v", i // records // 5), deviation3), pair(("u", i // records), deviation2)
            x = row[4] + origin
            return outcome(draw, row, -1 + third[0] + second[0] + (third[1] + second[1]) * x, x)
        study(change, records)

    def trials(draw, row, eta, x):
        return [row[0], sum(draw.random() < 1 / (1 + math.exp(-eta)) for _ in range(200)), 200, row[3], x]

    def counts(draw, row, eta, x):
        count, time = 0, draw.expovariate(1)
        while time < math.exp(min(eta, 7)):
            count, time = count + 1, time + draw.expovariate(1)
        return [row[0], count, row[2], row[3], x]

    slope2 = EQUATIONS.replace("LEVEL2:X=INTRCPT2/", "LEVEL2:X=INTRCPT2+RANDOM/")
    slopes = slope2.replace("RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3/", "RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/")
    lost = "WARNING: quasi-likelihood (PQL) has no estimates. It ended at macro iteration "
    made(0, 2, 5, 1, 3, trials)
    files = "RESFILTYPE:FREEFORMAT\nRESFIL1:Y\nRESFIL2:Y\nRESFIL3:Y\nGRAPHGAMMAS:graph.bin\n"
    got, said, text, document = run("BINOMIAL,N", slopes, "AGQ:Y,60,7\n" + files)
    check([mark["phase"] for mark in document["checksums"]] == ["quadrature"] * 4, f"no PQL: files {document['checksums']}")
    tables, gamma = [read(str(work.folder), "FREEFORMAT", level) for level in (1, 2, 3)], document["phases"][0]["fixed_effects"]
    check([len(t.rows) for t in tables] == [120, 60, 12] and all(
        abs(row[7] + row[3] - row[9]) < 2e-6 and row[3] != 0 for row in tables[1].rows), "no PQL: residual files")
    graphed = readgraph(str(work.folder / "graph.bin"), str(work.folder / "m.mdm"), nonlinear=True)
    check(all(abs(x - e["estimate"]) < 1e-12 for x, e in zip(graphed["gamma"], gamma)), "no PQL: graph data file")
    check(got == 20 and all(lost in x for x in (said, text)), f"no PQL: code {got}, {said[-300:]}")
    check([p["phase"] for p in document["phases"]] == ["quadrature"] and not document["converged"]
          and any(lost in w for w in document["warnings"]), f"no PQL: {document['warnings']}")
    check(list(report.splitsections(text)) == ["quadrature"] and "PQL Estimation" not in text and "gamvc" not in text,
          f"no PQL: sections {list(report.splitsections(text))}")
    limited = run("BINOMIAL,N", slopes, "AGQ:Y,60,7\n", "2,N")[3]  # from what quasi-likelihood had before it failed
    both = [[p["marginal_log_likelihood"] for p in d["phases"] if p["phase"] == "quadrature"][0] for d in (document, limited)]
    check(abs(both[0] - both[1]) < 1e-3, f"no PQL: {both}")
    for more, words in (("", ""), ("AGQ:Y,60,7\nAGQNODES:FIXED\n", ""), ("AGQ:Y,60,41\n", lost)):
        got, said, text, _ = run("BINOMIAL,N", slopes, more)
        check(got == 11 and "problem in the fixed portion" in text and (lost in said) == (words != ""),
              f"no PQL, {more!r}: code {got}, {said[-300:]}")

    # A slope that varies so much that its effect on the mean of all units is beyond numbers: the results of the engine stand.
    made(5, 6, 0.2, 3, 0, counts)
    got, said, text, document = run("POISSON", slope2, "AGQ:Y,60,7\n")
    words = "the fixed effects of the population average have not settled"
    check(got == 20 and words in said and words in text, f"no average: code {got}, {said[-300:]}")
    check([p["phase"] for p in document["phases"]] == ["pql", "quadrature", "population_average"] and not document["converged"]
          and any(words in w for w in document["warnings"]), f"no average: {document['warnings']}")
    study()


failures()
skewed()
astray()
settled()
heavy()
extreme()
stops()
within()
limits()
dialogue()
graph()
engines()
endings()
broken()
points()
check.finish()
