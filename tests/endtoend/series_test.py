"""Series of runs: five imputed data sets, one process each, and five plausible values in one process, against Rubin's
rules over the single runs of the same models.

    series_test.py <program> [moments of the kill test]

The data are five imputations by mice of a part of the chem97 example (tests/reference/imputed).
"""
import functools
import json
import math
import random
import re
import shutil
import signal
import subprocess
import sys
import time

import report
import rubin
from program import NOFILES, REFERENCE, Checks, Workplace, body, template

DATA = REFERENCE / "imputed"
M = 5
STORE = "mixyzzy.dat"

MODEL = """#Score on sex and earlier attainment
NONLIN:N
LEVEL1:{outcome}=INTRCPT1+{predictors}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+SCHGCSE,2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+LEAGCSE,2+RANDOM/
LEVEL3:SCHGCSE=INTRCPT3/
LEVEL2:{first}=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL2:{second}=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3/
{plausvals}LEVEL1DELETION:NONE
CONSTRAIN:N
{hypotheses}HYPOTH:N
LVR-BETA:N
NUMIT:60,N
STOPVAL:0.0000000001
FULLOUTPUT:N
TITLE:A series
OUTPUT:{output}
{options}""" + NOFILES
# An outcome made of the score: each lists the lines of NONLIN and of the level-1 equation that differ.
NONLINEAR = {"BERNOULLI": ("PASS", ""), "POISSON": ("COUNT", ""), "MULTINOMIAL,3": ("GRADE", ""),
             "ORDINAL,3": ("GRADE", "+THOLD2")}
HYPOTHESES = "GAMMA1:0,1,0,0,0\nGAMMA1:0,0,1,0,0\nGAMMA2:0,0,0,1,-1\n"
CONTRASTS = [[[0, 1, 0, 0, 0], [0, 0, 1, 0, 0]], [[0, 0, 0, 1, -1]]]
DUMPS = "PRINTVARIANCE-COVARIANCE:Y\n"


def model(output="out.txt", options="", outcome="SCORE", predictors="FEMALE+GCSECNT", plausvals="",
          hypotheses=HYPOTHESES):
    second = predictors.split("+")[1].split(",")[0]
    return MODEL.format(outcome=outcome, predictors=predictors, first="FEMALE", second=second, output=output,
                        plausvals=plausvals, options=options, hypotheses=hypotheses)


def nonlinear(kind, **options):
    """The same model for another kind of outcome; of a multinomial one, for each of two categories. Few iterations:
    what is averaged need not have converged."""
    outcome, thresholds = NONLINEAR[kind]
    text = model(outcome=outcome, predictors="FEMALE+GCSECNT", **options)
    equations = re.search(r"(?ms)^LEVEL1:.*?(?=^LEVEL1DELETION)", text)[0]
    text = text.replace(equations, equations.replace("+RANDOM\n", thresholds + "+RANDOM\n", 1))
    if kind.startswith("MULTI"):
        text = text.replace(equations, equations * 2).replace("LVR-BETA:N\n", "")
    text = re.sub("(?m)^NUMIT.*\nSTOPVAL.*", "MACROIT:5,N\nMICROIT:60\nSTOPMICRO:0.00001", text)
    return text.replace("NONLIN:N", "NONLIN:" + kind)


def made(score, top=3):
    """0 or 1, one of three grades, a count."""
    return "%3d%3d%3d" % (score >= 6, 1 if score < 4 else 2 if score < 8 else top, max(0, round((10 - score) / 2)))


class Place(Workplace):
    """A work folder with the MDM files imp1.mdm to imp5.mdm, const.mdm, whose FEMALE is constant, and pv.mdm with all
    imputations side by side."""

    def __init__(self, program):
        super().__init__(program)
        for name in ("level2.dat", "level3.dat"):
            shutil.copy(DATA / name, self.folder)
        lines = (DATA / "level1.dat").read_text().splitlines()
        score = lambda line, m: line[13 + 8 * m:21 + 8 * m]
        gcse = lambda line, m: line[53 + 8 * m:61 + 8 * m]
        other = lambda x: "%3d" % (4 if float(score(x, 0)) >= 8 else 1 if float(score(x, 0)) < 4 else 2)
        self.write("all.dat", "".join(x + "".join(made(float(score(x, m))) for m in range(M)) + other(x) + "\n" for x in lines))
        for m in range(M):
            self.imputed(f"imp{m + 1}", [(x[:13], score(x, m), gcse(x, m)) for x in lines])
        self.imputed("separated", [(x[:13], "%8d" % (9 if float(gcse(x, 0)) > 0 else 1), gcse(x, 0)) for x in lines])
        self.imputed("regraded", [(x[:13], score(x, 0), gcse(x, 0)) for x in lines], top=4)
        self.imputed("const", [(x[:12] + "1", score(x, 0), gcse(x, 0)) for x in lines])
        self.mdm("pv", "all.dat", "F3.0,5F8.3,5F8.4,16F3.0",
                 ["FEMALE"] + [f"SC{m + 1}" for m in range(M)] + [f"GC{m + 1}" for m in range(M)]
                 + [f"{stem}{m + 1}" for m in range(M) for stem in ("PS", "GR", "CN")] + ["OG"])

    def imputed(self, name, rows, top=3):
        """One imputation, with outcomes of other kinds made of its score."""
        self.write(name + ".dat", "".join(a + b + c + made(float(b), top) + "\n" for a, b, c in rows))
        self.mdm(name, name + ".dat", *COLUMNS)

    def mdm(self, name, data, columns, names):
        self.write(name + ".mdmt", template(
            name + ".mdm", (data, "level2.dat", "level3.dat"), (f"(A4,1X,A5,{columns})", "(A4,1X,A5,F8.4)", "(A4,F8.4)"),
            (names, ["SCHGCSE"], ["LEAGCSE"])))
        done = self.run("-r", name + ".mdmt")
        assert done.returncode == 0, done.stdout

    def single(self, mdm, text, fisher=True):
        """A run of its own, and what it left."""
        self.write("single.kdr", re.sub("(?m)^OUTPUT:.*", "OUTPUT:single.txt", text) + DUMPS)
        done = self.run(mdm + ".mdm", "single.kdr")
        assert done.returncode == 0, done.stdout
        return rubin.Single(self.folder, "single.txt", fisher)

    def series(self, text, mdms):
        """All data sets of a multiple imputation; the exit codes."""
        self.write("series.kdr", text)
        return [self.run(f"-mi{k}", *(["-e"] if k + 1 == len(mdms) else []), mdm + ".mdm", "series.kdr").returncode
                for k, mdm in enumerate(mdms)]

    def exists(self, name):
        return (self.folder / name).exists()

    def averaged(self, name="out.avg"):
        """The averages, without the header that they share with the first sub-run."""
        text = self.read(name)
        return report.Report(text[max(text.find("\fTHE AVERAGED RESULTS"), 0):])


COLUMNS = "F3.0,F8.3,F8.4,3F3.0", ["FEMALE", "SCORE", "GCSECNT", "PASS", "GRADE", "COUNT"]
IMPUTED = [f"imp{m + 1}" for m in range(M)]


WEIGHTS = "LEVEL2WEIGHT:SCHGCSE\nLEVEL3WEIGHT:LEAGCSE\n"
TWO = (HYPOTHESES, CONTRASTS)
LAPLACE, QUADRATURE = "LAPLACE:Y,3\nAGQNODES:FIXED\n", "AGQ:Y,3,3\nAGQNODES:FIXED\n"


def padded(hypotheses, n):
    """The hypotheses for a model with n more fixed effects."""
    lines, contrasts = hypotheses
    return (re.sub("(?m)$(?=\n)", ",0" * n, lines), [[row + [0] * n for row in rows] for rows in contrasts])


def imputations(check, place):
    """Each kind of model against its single runs."""
    outer, none, scale = "FISHERTYPE:1\n", "FISHERTYPE:0\n", "FIXSIGMA2:1.0\n"
    for name, make, options, hypotheses in (
            ("full information", model, "", TWO), ("outer products", model, outer, TWO),
            ("no scoring", model, none, TWO),
            ("fixed sigma2", model, "FIXSIGMA2:6.0\n", TWO), ("weights", model, WEIGHTS, TWO),
            ("bernoulli", "BERNOULLI", scale, TWO), ("bernoulli, weights", "BERNOULLI", scale + WEIGHTS, TWO),
            ("bernoulli, dispersion", "BERNOULLI", outer, TWO), ("poisson", "POISSON", scale + outer, TWO),
            ("poisson, dispersion, weights", "POISSON", WEIGHTS, TWO),
            ("poisson, no scoring", "POISSON", scale + none, TWO), ("multinomial", "MULTINOMIAL,3", "", padded(TWO, 5)),
            ("multinomial, weights", "MULTINOMIAL,3", WEIGHTS + outer, padded(TWO, 5)),
            ("laplace", "BERNOULLI", scale + LAPLACE, TWO), ("quadrature", "POISSON", scale + QUADRATURE, TWO),
            ("ordinal", "ORDINAL,3", none, padded(TWO, 1)), ("ordinal, weights", "ORDINAL,3", WEIGHTS, padded(TWO, 1))):
        lines, contrasts = hypotheses
        settings = dict(options=options, hypotheses=lines)
        text = make(**settings) if make is model else nonlinear(make, **settings)
        fisher = none not in options
        singles = runs = [place.single(mdm, text, fisher) for mdm in IMPUTED]
        if name in ("laplace", "quadrature"):
            # averaged are PQL's effects, and the population's, which start from these
            singles = [place.single(mdm, text.replace(LAPLACE, "").replace(QUADRATURE, "")) for mdm in IMPUTED]
            check(any(single.effects[1].gamma != run.effects[1].gamma for single, run in zip(singles, runs)),
                  f"{name}: the engine moves nothing")
            for single, run in zip(singles, runs):
                single.effects[1] = run.effects[1]
        check(place.series(text, IMPUTED) == [0] * M, f"{name}: exit codes")
        check(not place.exists(STORE), f"{name}: the store is left")
        rubin.compare(check, name, place.averaged(), singles, contrasts, fisher)
        for k, single in enumerate(runs):
            part = rubin.sections(place.folder / f"out.{k + 1}")
            check([x.fixed for x in part] == [x.section.fixed for x in single.effects]
                  and part[0].taupi == single.report.taupi and part[0].components == single.report.components,
                  f"{name}: sub-run {k + 1} is not its single run")
        head = place.read("out.avg")
        head = head[:head.index("\f")]
        line = "  Output file name              = "
        first = place.read("out.1").replace(line + "out.1", line + "out.avg")
        check(first.startswith(head) and "multiple imputation analysis" in head, f"{name}: the shared header")


def html(check, place):
    """The same numbers in both modes, in one well-ended page."""
    for name, make in (("linear", model), *((kind, functools.partial(nonlinear, kind)) for kind in NONLINEAR)):
        # hypotheses have other numbers of decimals in HTML; with all iterations a later pass can be the shorter one
        settings = dict(hypotheses="", options="FULLOUTPUT:Y\n")
        place.series(make(**settings), IMPUTED)
        place.series(make(**settings, output="out.html"), IMPUTED)
        place.single("imp5", make(**settings))
        check(results(place.read("out.5")) == results(place.read("single.txt")), f"{name}: the last sub-run's report")
        page = place.read("out_avg.html")
        end = "</body></html>\n"
        check(page.count(end) == 1 and page.endswith(end), f"{name}, html: the end of the page")
        check(place.read("out_5.html").endswith(end), f"{name}, html: the end of the last sub-run's page")
        heading = "<h2>The Averaged Results for this Multiple Imputation Run</h2>\n"
        check(heading in page, f"{name}, html: the heading")
        numbers = lambda text: re.findall(r"-?\d+\.\d{3,}", text)
        shown = page[page.index(heading):]
        check(numbers(re.sub("<[^>]*>", " ", shown.replace("&lt;0.001", "0.000")))
              == numbers(place.averaged().text), f"{name}, html: other numbers")


def failures(check, place):
    """Data sets that fail are named, and the others are averaged: one whose FEMALE is constant, at the start; one whose
    outcome is separated by GCSECNT, with results of early iterations or without the third category."""
    late = nonlinear("BERNOULLI", options="FIXSIGMA2:1.0\n").replace("MACROIT:5", "MACROIT:20")
    ordinal, multinomial = (nonlinear(x, hypotheses="") for x in ("ORDINAL,3", "MULTINOMIAL,3"))
    for name, text, bad, code, contrasts, patterns in (
            ("linear", model(), "const", 11, CONTRASTS, ((0,), (2,), (M - 1,), (0, 3), (0, 1, 2, 3), (1, 2, 3, 4))),
            ("bernoulli", late, "separated", 100, CONTRASTS, ((0,), (2,), (M - 1,), (0, 1, 2, 4))),
            ("ordinal", ordinal, "const", 11, (), ((0, M - 1),)),
            ("multinomial", multinomial, "separated", 100, (), ((2,),)),
            ("ordinal, another category", ordinal, "regraded", 100, (), ((2,),))):
        singles = [place.single(mdm, text) for mdm in IMPUTED]
        for failing in patterns:
            what = f"{name}, failing {failing}"
            codes = place.series(text, [bad if k in failing else mdm for k, mdm in enumerate(IMPUTED)])
            check(codes == [code if k in failing else 0 for k in range(M)], f"{what}: exit codes {codes}")
            averaged = place.averaged()
            note = "sub" + ("analysis: " if len(failing) == 1 else "analyses: ") + "".join(f"{k + 1} " for k in failing)
            check(f"\nThese results do not reflect the failed {note}\n" in averaged.text, f"{what}: the note")
            check(("Only one analysis of the series is usable; its results are not averages." in averaged.text)
                  == (len(failing) == M - 1), f"{what}: the sentence on a single one")
            rubin.compare(check, what, averaged, [s for k, s in enumerate(singles) if k not in failing], contrasts)
            check(not place.exists(STORE), f"{what}: the store is left")
    check(place.series(late, ["const", "separated"]) == [11, 100], "none usable: exit codes")
    check("No analysis of the series is usable" in place.averaged().text and "Final est" not in place.averaged().text,
          "none usable: the sentence")


def refusals(check, place):
    """Stores that are not this series', and words of the command line."""
    words = lambda *w: place.run(*w, "imp1.mdm", "series.kdr")
    place.write("series.kdr", model())
    (place.folder / STORE).unlink(missing_ok=True)
    done = words("-mi1")
    check(done.returncode == 100 and "There is no result store" in done.stdout, f"no store: {done.stdout}")
    same = model(hypotheses="")
    held = nonlinear("BERNOULLI", hypotheses="", options="FIXSIGMA2:1.0\n").replace("CONSTRAIN:N", "CONSTRAIN:0,1,1,0,0")
    for one, others in ((held, (held + LAPLACE, held + QUADRATURE, held.replace("0,1,1,0,0", "0,1,0,0,1"))), (same, (
            model(outcome="COUNT", hypotheses=""), same.replace("LEAGCSE,2", "LEAGCSE"), same.replace("+LEAGCSE,2", ""),
            same.replace("LEAGCSE,2+RANDOM", "LEAGCSE,2").replace("SCHGCSE=INTRCPT3", "SCHGCSE=INTRCPT3+RANDOM"),
            same.replace("GCSECNT=INTRCPT2+RANDOM", "GCSECNT=INTRCPT2").replace("FEMALE=INTRCPT2", "FEMALE=INTRCPT2+RANDOM"),
            *(same + line + "\n" for line in (
                "FIXSIGMA2:2.0", "DIAGONALIZETAUPI:Y", "DIAGONALIZETAUBETA:Y", "ESTTAU2:E,0.1,E", "ESTTAU3:0.5", "CONTAU2:1,3",
                "FISHERTYPE:0", "LEVEL2WEIGHT:SCHGCSE"))))):
        place.write("series.kdr", one)
        words("-mi0")
        for other in others:
            place.write("series.kdr", other)
            done = words("-mi1", "-e")
            check(done.returncode == 100 and "another model" in done.stdout, f"another model: {done.stdout}\n{other}")
            check("AVERAGED" not in place.read("out.avg") and place.exists(STORE), "another model: something was averaged")
    place.write("series.kdr", same)
    check(words("-mi1").returncode == 0, "the same model")
    done = words("-mi1")
    check(done.returncode == 100 and "has finished already" in done.stdout, f"a data set twice: {done.stdout}")
    heading = "\fTHE AVERAGED RESULTS FOR THIS MULTIPLE IMPUTATION RUN\n"
    place.write("out.avg", place.read("out.avg") + heading + " sigma")  # as a process leaves it that is killed while it writes
    words("-mi2", "-e")
    check(place.read("out.avg").count(heading) == 1, "averages that a killed process began stay")
    words("-mi0")
    whole = (place.folder / STORE).read_bytes()
    (place.folder / STORE).write_bytes(whole[:-1])
    done = words("-mi1", "-e")
    check(done.returncode == 100 and "not whole" in done.stdout, f"cut store: {done.stdout}")
    (place.folder / STORE).write_bytes(whole)
    done = words("-mi0", "-e")  # replaces it, and is the whole series
    check(done.returncode == 0 and "Only one analysis" in place.read("out.avg"), "a series of one")
    check(words("-e").returncode == 100, "-e with files and without a number")
    want = body(place.read("out.avg"))
    words("-mi0")
    check(place.run("-mi", "x", "imp1.mdm", "series.kdr").returncode == 100 and place.exists(STORE), "-mi x")
    words("-mi", "1")
    check(place.exists(STORE) and place.exists("out.2"), "-mi 1 is not 0")
    done = place.run("-e")
    check(done.returncode == 0 and "The report is out.avg" in done.stdout and not place.exists(STORE), f"-e alone: {done.stdout}")
    two = body(place.read("out.avg"))
    words("-mi0")
    words("-mi1", "-e")
    check(body(place.read("out.avg")) == two and two != want, "-e alone averages as the last data set does")
    done = place.run("-e")
    check(done.returncode == 100 and "There is no result store" in done.stdout, f"-e without a series: {done.stdout}")
    place.write("series.kdr", nonlinear("MULTINOMIAL,3", hypotheses=""))
    words("-mi0")
    done = place.run("-mi0", "separated.mdm", "series.kdr")  # fails before it makes a store
    check(done.returncode == 100 and "the series has not begun" in done.stdout, f"a failing first: {done.stdout[-200:]}")
    done = words("-mi1", "-e")
    check(done.returncode == 100 and "There is no result store" in done.stdout, f"an old store: {done.stdout[-200:]}")
    done = words("-mi128")
    check(done.returncode == 100 and "127" in done.stdout, f"data set 129: {done.stdout}")


def uncomputable(check, place):
    """Four level-3 units are too few for the outer products of their scores and for robust errors."""
    for m in (1, 2):
        lines = place.read(f"imp{m}.dat").splitlines(True)
        first = sorted({x[:4] for x in lines})[:4]
        place.write("few.dat", "".join(x for x in lines if x[:4] in first))
        place.mdm(f"few{m}", "few.dat", *COLUMNS)
    place.series(nonlinear("BERNOULLI", options="FISHERTYPE:1\n"), ["few1", "few2"])
    text = place.averaged().text
    for line, count in (("Standard errors for sigma^2,tau(pi),tau(beta) are not computable.", 1), ("Standard error", 1),
                        ("\nThe robust standard errors cannot be computed for this model.\n", 2)):
        check(text.count(line) == count, f"uncomputable: {text.count(line)} times {line}")


def leaving(check, place):
    """A user who leaves in the middle of the macro iterations ends with code 0, and yet leaves no results."""
    text = nonlinear("ORDINAL,3", hypotheses="").replace("MACROIT:5", "STOPMACRO:0.000000000001\nMACROIT:5000")
    place.write("series.kdr", text)
    child = subprocess.Popen([place.program, "-q", "-mi0", "imp1.mdm", "series.kdr"], cwd=place.folder,
                             env=place.environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    for line in child.stdout:
        if "MACRO ITERATION 3" in line:
            break
    child.send_signal(signal.SIGINT)
    said, _ = child.communicate("1\n", timeout=60)
    check(child.returncode == 0 and "1 to exit now" in said, f"leaving: code {child.returncode}, {said[-200:]}")
    place.write("series.kdr", nonlinear("ORDINAL,3", hypotheses=""))
    check(place.run("-mi1", "-e", "imp2.mdm", "series.kdr").returncode == 0, "leaving: the last data set")
    check("failed subanalysis: 1 \n" in place.read("out.avg"), "leaving: the data set that was left is averaged")
    place.write("series.kdr", model(hypotheses="").replace("NUMIT:60,N", "NUMIT:2,N"))
    codes = [place.run("-strict", *words, "imp1.mdm", "series.kdr").returncode for words in (["-mi0"], ["-mi1", "-e"])]
    check(codes == [20, 20] and "failed sub" not in place.read("out.avg"), f"-strict: an unconverged data set fails, {codes}")


def kills(check, place, moments):
    """Processes killed at random moments: the averages are those of the data sets that are not named as failed."""
    rng = random.Random(17)
    averaged = refused = 0
    kinds = []
    for text in (model(options="NUMIT:30,N\n", hypotheses=""),
                 nonlinear("BERNOULLI", hypotheses="").replace("MICROIT:60", "MICROIT:10")):
        singles = [place.single(mdm, text) for mdm in IMPUTED]
        place.write("series.kdr", text)
        start = time.time()
        place.run("-mi0", "imp1.mdm", "series.kdr")
        kinds.append((text, singles, time.time() - start))
    for n in range(moments):
        text, singles, length = kinds[n % 2]
        place.write("series.kdr", text)
        for name in (STORE, "out.avg"):
            (place.folder / name).unlink(missing_ok=True)
        victim = rng.randrange(M)
        lost = set()
        for k, mdm in enumerate(IMPUTED):
            words = ["-q", f"-mi{k}"] + (["-e"] if k == M - 1 else []) + [mdm + ".mdm", "series.kdr"]
            child = subprocess.Popen([place.program, *words], cwd=place.folder, env=place.environment,
                                     stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
            if k == victim:
                time.sleep(rng.uniform(0, 1.1 * length))
                child.kill()
            code = child.wait()
            if k == victim == M - 1 and code != 0 and place.exists(STORE):  # the last one again
                code = subprocess.run([place.program, *words], cwd=place.folder, env=place.environment,
                                      stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL).returncode
            lost |= {k} if code != 0 else set()
        if not place.exists("out.avg") or "AVERAGED" not in place.read("out.avg"):
            refused += 1
            check(bool(lost), f"kill {n}: nothing averaged without a kill")
            continue
        averages = place.averaged()
        averaged += 1
        named = re.search(r"failed sub\w+: ((?:\d+ )+)", averages.text)
        failed = {int(x) - 1 for x in named[1].split()} if named else set()
        check(failed <= lost, f"kill {n}: {failed} named, {lost} lost")
        rubin.compare(check, f"kill {n}", averages, [s for k, s in enumerate(singles) if k not in failed])
    check(averaged > moments // 2, f"only {averaged} of {moments} killed series were averaged, {refused} refused")
    (place.folder / STORE).unlink(missing_ok=True)


def plausible(check, place):
    """Outcome and predictor, in one process; every pass is the single run with its variable."""
    scores, gcses = [f"SC{m + 1}" for m in range(M)], [f"GC{m + 1}" for m in range(M)]
    outcome = lambda m: dict(outcome=scores[m], predictors="FEMALE+GC1")
    predictor = lambda m: dict(outcome="SC1", predictors="FEMALE+" + gcses[m])
    centered = lambda m: dict(outcome="SC1", predictors=f"FEMALE+{gcses[m]},2")
    heterogeneous, full = "HETIT:3\n", "FULLOUTPUT:Y\n"
    for name, values, variant, options in (
            ("outcome", scores, outcome, ""), ("predictor", gcses, predictor, ""), ("centered predictor", gcses, centered, ""),
            ("outcome, heterogeneous stage", scores, outcome, heterogeneous + full),
            ("predictor, weights", gcses, centered, WEIGHTS + full),
            ("predictor, held", gcses, centered, "FIXSIGMA2:5.123456789\nDIAGONALIZETAUPI:Y\nFISHERTYPE:1\n" + full)):
        fisher, singles, tables = heterogeneous not in options, [], []
        settings = lambda m: dict(variant(m), options=options)
        for m in range(M):
            singles.append(place.single("pv", model(**settings(m)), fisher))
            tables.append(place.read("single.txt"))
        place.write("pv.kdr", model(plausvals="PLAUSVALS:" + ",".join(values) + "\n", **settings(0)))
        done = place.run("pv.mdm", "pv.kdr")
        check(done.returncode == 0, f"{name}: {done.stdout}")
        rubin.compare(check, name, place.averaged(), singles, CONTRASTS, fisher)
        text = place.averaged().text
        what = "outcome" if variant is outcome else "plausible"
        check(f" The {what} variables are: " + ",".join("%8s" % v for v in values) + "\n" in text,
              f"{name}: the line of the variables")
        check("PLAUSIBLE VALUE RUN" in text, f"{name}: the heading")
        restated = place.read("newcmd.kdr")
        passes = [results(place.read(f"out.{m + 1}")) for m in range(M)]
        if fisher:  # the stage with a tau for each unit is not written
            check(place.run("pv.mdm", "newcmd.kdr").returncode == 0 and place.averaged().text == text
                  and place.read("newcmd.kdr") == restated, f"{name}: newcmd.kdr is another series")
        else:
            check("#HETIT:3 was left out" in restated, f"{name}: newcmd.kdr says nothing of the stage that it lacks")
        for m in range(M):
            check(passes[m] == results(tables[m]),
                  f"{name}: pass {m + 1} is not the single run with {values[m]}")
        place.write("pv.kdr", model(plausvals="PLAUSVALS:" + ",".join(values) + "\n", **settings(0)).replace(
            "OUTPUT:out.txt", "OUTPUT:page.html"))
        done = place.run("pv.mdm", "pv.kdr")
        check(done.returncode == 0 and place.read("page_avg.html").endswith("</body></html>\n"), f"{name}: html")
        last = f"The report is the page page_avg.html, those of the passes are numbered up to page_{M}.html.\n"
        check(done.stdout.endswith(last), f"{name}: the last line {done.stdout[-200:]}")
    residuals = model(plausvals="PLAUSVALS:" + ",".join(scores) + "\n", **outcome(0)).replace("RESFIL2:N", "RESFIL2:Y/")
    place.write("pv.kdr", residuals)
    for again in ("pv.kdr", "newcmd.kdr"):  # over its own numbered residual files
        done = place.run("pv.mdm", again)
        check(done.returncode == 0 and place.exists(f"resfil2_{M}.sav"), f"residual files, {again}: {done.stdout[-200:]}")
    # Other outcomes, and predictors of their models.
    stems = {"BERNOULLI": "PS", "POISSON": "CN", "ORDINAL,3": "GR", "MULTINOMIAL,3": "GR"}

    def text(kind, value, predictor, plausvals=""):
        held = "" if "," in kind else "FIXSIGMA2:1.0\n"
        lines = nonlinear(kind, plausvals=plausvals, hypotheses="", options=held)
        return lines.replace(f"LEVEL1:{NONLINEAR[kind][0]}=", f"LEVEL1:{value}=").replace("GCSECNT", predictor)
    for kind, stem in stems.items():
        for values in ([f"{stem}{m + 1}" for m in range(M)], gcses):
            of = lambda value, more="": text(kind, *((value, "GC1") if values[0] != "GC1" else (stem + "1", value)), more)
            singles = [place.single("pv", of(value)) for value in values]
            place.write("pv.kdr", of(values[0], "PLAUSVALS:" + ",".join(values) + "\n"))
            done = place.run("pv.mdm", "pv.kdr")
            check(done.returncode == 0, f"{kind}, {values[0]}: {done.stdout[-300:]}")
            rubin.compare(check, f"{kind}, {values[0]}", place.averaged(), singles)
            what = "plausible" if values[0] == "GC1" else "outcome"
            check(f" The {what} variables are: " + ",".join("%8s" % v for v in values) in place.averaged().text,
                  f"{kind}, {values[0]}: the line of the variables")
    place.write("pv.kdr", text("ORDINAL,3", "GR1", "GC1", "PLAUSVALS:GR1,OG\n"))
    done = place.run("pv.mdm", "pv.kdr")
    check(done.returncode == 100 and "The plausible value OG has other categories than the first one." in done.stdout
          and "AVERAGED" not in place.read("out.avg"), f"other categories: {done.stdout[-200:]}")


def engines(check, place):
    """Averages and latent regression of an engine's estimates; what has no such estimates is none of them."""
    bernoulli = nonlinear("BERNOULLI", hypotheses="", options="FIXSIGMA2:1.0\nRESULTS:run.json\n").replace("MACROIT:5", "MACROIT:30")
    for kind, engine, phase, words in (("BERNOULLI", "AGQ:Y,50,5\n", "quadrature", "adaptive quadrature"),
                                       ("BERNOULLI", "LAPLACE:Y,50\n", "laplace6", "Laplace-6"),
                                       ("ORDINAL,3", "AGQ:Y,50,3\n", "quadrature", "adaptive quadrature"),
                                       ("MULTINOMIAL,3", "AGQ:Y,50,1\n", "quadrature", "the first-order Laplace approximation")):
        latents = kind != "MULTINOMIAL,3"
        text = nonlinear(kind, hypotheses="", options="FIXSIGMA2:1.0\nRESULTS:run.json\n").replace("MACROIT:5", "MACROIT:30")
        text = text.replace("LVR-BETA:N", "LVR-BETA:O,P" if latents else "LVR-BETA:N").replace(
            "GCSECNT=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3/", "GCSECNT=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/") + engine
        singles = []
        for mdm in IMPUTED[:3]:
            place.write("single.kdr", text)
            done = place.run(mdm + ".mdm", "single.kdr")
            check(done.returncode == 0, f"{phase}: {mdm}: {done.stdout[-300:]}")
            singles.append(next(p for p in json.loads(place.read("run.json"))["phases"] if p["phase"] == phase))
            if not latents:
                continue
            check(f"From the estimates of {words}" in place.read("out.txt"), f"{phase}: whose regression is not told")
            latent(check, place.read("out.txt"), singles[-1]["tau_beta"]["estimate"], f"{phase}, {mdm}")
        codes = place.series(text, IMPUTED[:3])
        check(codes == [0, 0, 0], f"{phase}: exit codes {codes}")
        average = json.loads(place.read("run.json"))["phases"][0]
        report_ = place.read("out.avg")
        check(f"The averages are those of {words}." in report_ and average["estimates_of"] == phase
              and average["variance_tests"] is None, f"{phase}: whose averages")
        cells = lambda p: [([p["tau_pi"][what][0][0]] + [p["tau_beta"][what][i][j] for i in range(2) for j in range(i + 1)])
                           for what in ("estimate", "standard_error")]
        effects = lambda p: [[e["estimate"] for e in p["fixed_effects"]],
                             [e["model_based"]["standard_error"] for e in p["fixed_effects"]]]
        for pick in (cells, effects):
            for i, (got, error) in enumerate(zip(*pick(average))):
                x, e = zip(*((pick(p)[0][i], pick(p)[1][i]) for p in singles))
                between = math.fsum((y - rubin.mean(x)) ** 2 for y in x) / (len(x) - 1)
                want = math.sqrt(rubin.mean([y * y for y in e]) + (1 + 1 / len(x)) * between)
                check(abs(got - rubin.mean(x)) < 1e-9 and abs(error - want) < 1e-9 * max(1, want),
                      f"{phase}: element {i}: {got} ({error}), expected {rubin.mean(x)} ({want})")
        for tau in ("tau_pi", "tau_beta"):
            want = rubin.mean([p[tau]["reliability"] for p in singles], vector=True)
            check(all(abs(a - b) < 1e-9 for a, b in zip(average[tau]["reliability"], want)), f"{phase}: reliabilities of {tau}")
        if latents:
            latent(check, report_, average["tau_beta"]["estimate"], f"{phase}, averages")
        stem = "PS" if kind == "BERNOULLI" else "GR"
        values = ",".join(f"{stem}{k}" for k in (1, 2, 3))
        place.write("pv.kdr", text.replace("PASS=", "PS1=").replace("GRADE=", "GR1=").replace("GCSECNT", "GC1").replace(
            "LEVEL1DELETION", f"PLAUSVALS:{values}\nLEVEL1DELETION"))
        done = place.run("pv.mdm", "pv.kdr")
        check(done.returncode == 0 and f"The averages are those of {words}." in place.read("out.avg"), f"{phase}, plausible values")
    # Too many nodes for every data set: each has PQL's results, and none is averaged.
    codes = place.series(bernoulli + "AGQ:Y,50,190\n", IMPUTED[:2])
    check(codes == [0, 0] and "No analysis of the series is usable" in place.read("out.avg"), f"no engine: {codes}")
    check("WARNING: the engine has no results" in place.read("out.1") and "\nThese results do not reflect the failed subanalyses: 1 2"
          in place.read("out.avg"), "no engine: what is told")
    place.write("pv.kdr", bernoulli.replace("PASS=", "PS1=").replace("GCSECNT", "GC1").replace(
        "LEVEL1DELETION", "PLAUSVALS:PS1,PS2\nLEVEL1DELETION") + "AGQ:Y,50,190\n")
    done = place.run("pv.mdm", "pv.kdr")
    check(done.returncode == 100 and "The engine has no results for this plausible value" in done.stdout, f"no engine: {done.stdout[-200:]}")
    # Records of PQL are none to join.
    place.write("series.kdr", bernoulli)
    place.run("-mi0", "imp1.mdm", "series.kdr")
    place.write("series.kdr", bernoulli + "AGQ:Y,50,5\n")
    done = place.run("-mi1", "-e", "imp2.mdm", "series.kdr")
    check(done.returncode == 100 and "another model" in done.stdout, f"a store of PQL: {done.stdout[-200:]}")


def latent(check, text, taubeta, what):
    """The slope of the regression of the first coefficient on the second."""
    slopes = re.findall(r"B\d+,G\d+\* +(-?\d+\.\d+)", text[text.rindex("Latent Variable Regression Results"):])
    want = taubeta[0][1] / taubeta[1][1]
    check(slopes and abs(float(slopes[0]) - want) < 2e-5 * max(1, abs(want)), f"{what}: latent slope {slopes}, expected {want}")


def results(text):
    """A report from its first results on, without the list of the variance-covariance files."""
    return text[re.search("ITERATION|RESULTS FOR", text).start():].split("\ntauvc.dat")[0].rstrip()


if __name__ == "__main__":
    check = Checks()
    place = Place(sys.argv[1])
    moments = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    imputations(check, place)
    html(check, place)
    failures(check, place)
    refusals(check, place)
    uncomputable(check, place)
    leaving(check, place)
    plausible(check, place)
    engines(check, place)
    kills(check, place, moments)
    check.finish()
