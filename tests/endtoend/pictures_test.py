"""kdr3-plot's pictures of predictions and checks: simulated residuals over made sets of data, draws against the integrals of
the engine, groups of records, margins against their table, profiles against the document.

    pictures_test.py <program>
"""
import csv
import json
import math
import statistics
import sys

import numpy
from scipy import special, stats

sys.dont_write_bytecode = True
from plotting import kdr3plot
from program import Checks, Workplace

from kdr3plot import checks, files, pictures, predicted, simulated
from kdr3plot.document import choosephase

FILES = ("RESFIL1:Y/X", "RESFIL2:Y", "RESFIL3:Y", "RESFILTYPE:FREEFORMAT")
SLOPES, INTERCEPTS = "y ~ x + (x | school:pupil) + (1 | school)", "y ~ x + (1 | school/pupil)"


def outcome(kind, random, eta, extra):
    if kind == "binomial":
        return int(random.random() < special.expit(eta))
    if kind == "ordinal":
        return 1 + int(numpy.sum(random.logistic() - eta > numpy.array([-1, 1])))
    if kind == "multinomial":
        weights = numpy.exp([eta, -0.5 * eta, 0])
        return 1 + int(random.choice(3, p=weights / weights.sum()))
    if kind == "gaussian":
        return eta + 1.5 * random.normal()
    return random.poisson(2 * numpy.exp(0.5 * eta) * (random.gamma(1 / extra, extra) if extra else 1))


class Tests:
    def __init__(self, program):
        self.check = Checks()
        self.place = Workplace(program)
        self.folder = self.place.folder

    def made(self, kind, seed, formula=SLOPES, extra=0.0, slope=0.5, more=(), keywords=FILES):
        """A set of data from a model of three levels, fitted: 6 pupils in each school, 5 records of each."""
        random, lines = numpy.random.default_rng(seed), ["school,pupil,x,t,y"]
        for school in range(40):
            u = random.normal(0, 0.7)
            for pupil in range(6):
                r, s = random.normal(0, 1), random.normal(0, slope) if slope else 0
                for _ in range(5):
                    x = random.normal()
                    lines.append(f"{school + 1},{pupil + 1},{x:.5f},2,{outcome(kind, random, -0.3 + 0.8 * x + u + r + s * x, extra)}")
        self.place.write("d.csv", "\n".join(lines) + "\n")
        lines = [word for line in keywords for word in ("-keyword", line)]
        done = self.place.run("-fit", formula, "d.csv", "-family", kind, "-o", "m", *lines, *more,
                              *(("-exposure", "t") if kind == "poisson" else ()))
        assert done.returncode == 0, done.stdout + done.stderr
        return files.Run(str(self.folder / "m.json"))

    def plot(self, *words):
        return kdr3plot(self.folder, *words)

    @staticmethod
    def ps(run):
        return [stats.kstest([u for _, u in points], "uniform").pvalue for _, _, points in simulated.residuals(run)]

    def uniform(self):
        """Under the model the residuals of all levels are uniform; so are the p of 20 sets at level 1, which those at the means
        of the random effects, moved by the same outcomes, are not."""
        for kind in ("binomial", "ordinal"):
            ps, atmeans = [], []
            for seed in range(20):
                run = self.made(kind, seed)
                ps.append(self.ps(run))
                a = run.drawn
                below, upto = simulated.ends(a, a.fitted)
                atmeans.append(stats.kstest(below + a.uniform * (upto - below), "uniform").pvalue)
            self.check(len(ps[0]) == 4 and min(map(min, ps)) > 0.001, f"residuals of {kind} under the model: {ps}")
            first = stats.kstest([p[0] for p in ps], "uniform").pvalue
            self.check(first > 0.001, f"p of 20 sets, {kind}: {first}")
            if kind == "ordinal":
                self.check(stats.kstest(atmeans, "uniform").pvalue < 1e-4, "residuals at the means would do as well")
        for kind in ("gaussian", "multinomial", "poisson"):
            ps = [p for seed in range(3) for p in self.ps(self.made(kind, seed, INTERCEPTS, slope=0))]
            self.check(min(ps) > 0.001, f"residuals of {kind} under the model: {ps}")
        over = [self.ps(self.made("poisson", seed, INTERCEPTS, extra=1.0, slope=0))[0] for seed in range(5)]
        self.check(max(over) < 1e-3 and statistics.median(over) < 1e-6, f"residuals of counts with over-dispersion: {over}")

    def draws(self):
        """Draws have the means and variances that the engine has integrated."""
        run = self.made("binomial", 7, INTERCEPTS, slope=0)
        seed, drawn = simulated.SEED, []
        for simulated.SEED in range(1, 201):
            drawn.append([one.effects[:, 0] for one in simulated.newdraw(run).levels])
        simulated.SEED = seed
        for level, column, variance in ((2, "EBINTRCP", "PV200"), (3, "EB00", "PV30000")):
            table = run.table(level)
            some, means, variances = numpy.array([one[level - 2] for one in drawn]), table.column(column), numpy.array(table.column(variance))
            z = (some.mean(0) - means) / numpy.sqrt(variances / len(some))
            self.check(numpy.mean(z ** 2) < 1.5 and abs(numpy.mean(z)) < 0.25, f"means of draws, level {level}: {numpy.mean(z ** 2)}, {z.mean()}")
            ratio = numpy.mean(some.var(0, ddof=1) / variances)
            self.check(abs(ratio - 1) < 0.06, f"variances of draws, level {level}: {ratio}")

    def distributions(self):
        """Ends of the randomised residuals, and the p of Kolmogorov and Smirnov, against scipy's."""
        random = numpy.random.default_rng(3)
        eta, count = random.normal(0, 2, (300, 1)), random.integers(1, 60, 300)
        for kind, law in (("binomial", stats.binom(count, special.expit(eta[:, 0]))), ("poisson", stats.poisson(count * numpy.exp(eta[:, 0])))):
            y = law.rvs(random_state=random).astype(float)
            below, upto = simulated.ends(simulated.SimpleNamespace(kind=kind, y=y, count=count.astype(float)), eta)
            self.check(numpy.abs(below - law.cdf(y - 1)).max() < 1e-10 and numpy.abs(upto - law.cdf(y)).max() < 1e-10, f"distribution of {kind}")
        for some in (random.random(50), random.random(400) ** 1.2):
            self.check(abs(simulated.kolmogorov(some)[1] - stats.kstest(some, "uniform").pvalue) < 0.02, "p of Kolmogorov and Smirnov")

    def groups(self):
        """Observed shares of the groups make up the mean of the outcome; what is drawn; the intervals cover it."""
        for kind in ("binomial", "ordinal", "poisson"):
            run = self.made(kind, 11, INTERCEPTS, slope=0)
            with open(self.folder / "d.csv", newline="") as file:
                y = numpy.array([float(row["y"]) for row in csv.DictReader(file)])
            want = {"binomial": [y.mean()], "ordinal": [(y <= 1).mean(), (y <= 2).mean()], "poisson": [y.mean() / 2]}[kind]
            panels = simulated.calibration(run)
            self.check(numpy.allclose([numpy.mean([g[1] for g in groups]) for _, groups in panels], want, atol=1e-9), f"groups of {kind}")
            off = sum(checks.outside(groups) for _, groups in panels)
            self.check(off <= 2 * len(panels), f"{off} groups of {kind} outside their intervals")
            figure = checks.drawcalibration(run)
            drawn = sorted(float(y) for line in figure.axes[0].lines if line.get_marker() in "sD" for y in line.get_ydata())
            self.check(drawn == sorted(g[1] for g in panels[0][1]), f"groups drawn of {kind}")

    def margins(self):
        """Lines, bands and stacks have the numbers of the table; the title is that of the results that it has."""
        run = self.made("ordinal", 5, INTERCEPTS, slope=0, more=("-margins", "x=-1,0,1; x"), keywords=("RESFIL1:Y/X", "RESFIL3:Y"))
        with open(self.folder / "m_margins.csv", newline="") as file:
            rows = list(csv.DictReader(file))
        table = [row for row in rows if row["x"] and row["quantity"] == "margin"]
        figure = predicted.drawmargins(run)
        self.check(len(figure.axes) == 2 and pictures.source("margins", run) == "quadrature results", "panels and source of margins")
        for line, band, category in zip(figure.axes[1].lines, figure.axes[1].collections, "123"):
            mine = [row for row in table if row["category"] == category]
            self.check(list(line.get_xdata()) == [-1, 0, 1] and list(line.get_ydata()) == [float(row["average"]) for row in mine], "margins drawn")
            ends = {float(row[name]) for row in mine for name in ("average_low", "average_high")}
            self.check(ends <= set(band.get_paths()[0].vertices[:, 1]), "bands drawn")
        effects = [row for row in rows if row["quantity"] == "effect" and not row["x"]]
        drawn = predicted.draweffects(run).axes[0]
        self.check(list(drawn.lines[0].get_xdata()) == [float(row["average"]) for row in effects] and len(effects) == 3
                   and drawn.get_yticklabels()[2].get_text() == "x, category 3", "average marginal effects drawn")
        top = figure.axes[0].collections[-1].get_paths()[0].vertices[:, 1].max()
        self.check(abs(top - 1) < 1e-9, f"the categories sum to {top}")
        code, told = self.plot("--page", "m.json", "-o", "m.html")
        text = self.place.read("m.html")
        self.check(code == 0 and "Predicted margins with their 95% intervals over x: category 1 from" in text
                   and text.count("RESFIL2:Y in the command file") == 4 and "Level-1 residuals" in text, f"page with margins: {told}")

    def profiles(self):
        run = self.made("gaussian", 5, keywords=(*FILES, "PROFILE:Y"))
        phase = choosephase(run.document)
        found, rows = phase["profile_intervals"], {row[0]: row for row in predicted.profiles(run.document, phase)}
        self.check(list(rows["x"][3:5]) == found["fixed_effects"][1] and rows["x"][1] == phase["fixed_effects"][1]["estimate"], "profile of x")
        self.check(list(rows["SD: x, level 2"][3:5]) == found["tau_pi"]["standard_deviation"][1], "profile of a standard deviation")
        self.check(abs(rows["SD: level 1"][4] ** 2 - found["sigma2"][1]) < 1e-12, "profile of level 1")
        figure = predicted.drawprofiles(run, phase)
        line = next(line for line in figure.axes[list(rows).index("x")].lines if line.get_marker() == "o")
        self.check(list(line.get_xdata()) == [rows["x"][3], rows["x"][1], rows["x"][4]], "profile drawn")
        drawn = [list(zip(*line.get_data())) for line in figure.axes[list(rows).index("SD: level 1")].lines]
        self.check([(math.sqrt(x), z) for x, z in found["curves"]["sigma2"]] in drawn and len(found["curves"]["sigma2"]) == 11, "curve drawn")
        code, told = self.plot("--page", "m.json", "-o", "p.html")
        text = self.place.read("p.html")
        self.check(code == 0 and "Profiles of the likelihood: " in text and "Level-1 residuals" in text and "Predicted margins" not in text, told)

    def pagesandrefusals(self):
        self.made("binomial", 2)
        code, told = self.plot("--page", "m.json", "-o", "b.html")
        text = self.place.read("b.html")
        self.check(code == 0 and "Simulated residuals: 1200 records, Kolmogorov–Smirnov p = " in text and "Observed against predicted values: " in text
                   and "Level-1 residuals against" not in text, f"page of a binary outcome: {told}")
        first = (self.plot("m.json", "--kind", "simulated", "-o", "s.svg"), (self.folder / "s.svg").read_bytes())
        self.check(first == (self.plot("m.json", "--kind", "simulated", "-o", "s.svg"), (self.folder / "s.svg").read_bytes()), "the same draw twice")
        document = json.loads(self.place.read("m.json"))
        document["model"]["weights"]["level2"] = "X"
        self.place.write("weighted.json", json.dumps(document))
        self.made("gaussian", 2, keywords=("RESFIL1:Y", *FILES[1:]))
        for words, want, part in ((("m.json", "--kind", "simulated"), 5, "needs the variable X, whose effect is random"),
                                  (("m.json", "--kind", "calibration"), 5, "has no groups"),
                                  (("m.json", "--kind", "margins"), 5, "-margins"), (("m.json", "--kind", "profile"), 5, "PROFILE:Y")):
            code, told = self.plot(*words, "-o", "no.png")
            self.check(code == want and part in told, f"{words}: {code}, {told}")
        self.made("binomial", 2)
        code, told = self.plot("weighted.json", "--kind", "simulated", "-o", "no.png")
        self.check(code == 5 and "design weights" in told, f"weights: {code}, {told}")


if __name__ == "__main__":
    tests = Tests(sys.argv[1])
    for part in (tests.uniform, tests.draws, tests.distributions, tests.groups, tests.margins, tests.profiles, tests.pagesandrefusals):
        part()
    tests.check.finish()
