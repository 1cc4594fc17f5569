"""kdr3-plot: the numbers that it draws against readings of the files that share nothing with it, every kind of picture as
PNG and SVG, the page, and what it refuses.

    plot_test.py <program>
"""
import html.parser
import json
import os
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree

from scipy import stats

sys.dont_write_bytecode = True
import residualfiles
from plotting import kdr3plot
from program import ROOT, Checks, Workplace

from kdr3plot import files, pictures, values
from kdr3plot.document import choosephase

FILES = dict(RESFIL1="Y/GCSECNT", RESFIL2="Y", RESFIL3="Y", GRAPHGAMMAS="graph.bin")
LINEAR = [kind for kind in pictures.KINDS if kind not in ("margins", "effects", "profile", "calibration")]  # pictures_test.py has those
VOID = {"meta", "img", "br"}


def near(a, b, room=1e-9):
    return len(a) == len(b) and all(abs(x - y) <= room * (1 + abs(y)) for x, y in zip(a, b))


class Page(html.parser.HTMLParser):
    """Checks that elements close in turn; gathers pictures and text."""

    def __init__(self, text):
        super().__init__()
        self.open, self.images, self.text = [], [], ""
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        if tag == "img":
            self.images.append(attributes)
        if tag == "meta" and attributes.get("name") == "viewport":
            self.viewport = attributes["content"]
        if tag not in VOID:
            self.open.append(tag)

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, f"</{tag}> closes nothing"

    def handle_data(self, data):
        self.text += data + "\n"


class Tests:
    def __init__(self, program):
        self.check = Checks()
        self.place = Workplace(program)
        self.folder = self.place.folder
        self.place.run("-r", "chem97.mdmt")
        self.estimate("plots", "model2.kdr", "chem97.mdm", **FILES, RESFILTYPE="FREEFORMAT")

    def estimate(self, name, source, mdm, **keywords):
        self.place.edited(name + ".kdr", source, RESULTS=name + ".json", OUTPUT=name + ".txt", **keywords)
        done = self.place.run(mdm, name + ".kdr")
        assert done.returncode == 0, done.stdout + done.stderr

    def plot(self, *words):
        return kdr3plot(self.folder, *words)

    def drawn(self, figure, place, panel=0):
        """Coordinates of a line of a panel, without the gaps between intervals."""
        x, y = figure.axes[panel].lines[place].get_data()
        return [float(a) for a, b in zip(x, y) if b == b], [float(b) for b in y if b == b]

    def randomeffects(self):
        """All forms of residual files give the same intervals, those that their columns tell by name."""
        for form, (_, pattern, places) in residualfiles.FORMS.items():
            if form != "FREEFORMAT":
                (self.folder / form).mkdir()
                self.place.edited(f"{form}/x.kdr", "model2.kdr", **FILES, RESFILTYPE=form, RESULTS="x.json")
                command = [self.place.program, "-q", "../chem97.mdm", "x.kdr"]
                subprocess.run(command, cwd=self.folder / form, capture_output=True, check=True, timeout=60)
            folder = self.folder / (form if form != "FREEFORMAT" else "")
            run = files.Run(str(folder / ("x.json" if form != "FREEFORMAT" else "plots.json")))
            long = form == "SPSS"
            for level, effects in ((2, (("Intercept", "EBINTRCPT1" if long else "EBINTRCP", "PV2_0_0" if long else "PV200"),
                                        ("GCSECNT", "EBGCSECNT" if long else "EBGCSECN", "PV2_2_2" if long else "PV222"))),
                                   (3, (("Intercept", "EB00", "PV3_0_0_0_0" if long else "PV30000"),))):
                table = residualfiles.read(folder, form, level)
                panels = values.caterpillar(run, level)
                self.check([name for name, _ in panels] == [e[0] for e in effects], f"{form}, {level}: effects")
                normal = values.quantiles(run, [level])
                figure = pictures.drawcaterpillar(run, level)
                qq = pictures.drawqq(run) if level == 3 else None
                for i, ((_, rows), (name, eb, pv)) in enumerate(zip(panels, effects)):
                    what = f"{form}, level {level}, {name}"
                    known = {row[0]: row for row in rows}
                    ids = [files.identifier(x) for x in table.column("L3ID" if level == 3 else "L2ID")]
                    u, v = table.column(eb), table.column(pv)
                    self.check(set(known) == set(ids), f"units of {what}")
                    self.check(near([known[unit][1] for unit in ids], u), f"estimates of {what}")
                    for side, sign in ((2, -1), (3, 1)):
                        self.check(near([known[unit][side] for unit in ids],
                                        [a + sign * 1.959963984540054 * b ** 0.5 for a, b in zip(u, v)]), f"intervals of {what}")
                    ends = [x for row in rows for x in row[2:]]
                    self.check(self.drawn(figure, 0, i)[1] == ends, f"intervals drawn of {what}")
                    self.check(self.drawn(figure, 2, i)[1] == sorted(u), f"estimates drawn of {what}")
                    want = stats.norm.ppf([(k - 0.5) / len(u) for k in range(1, len(u) + 1)]), sorted(u)
                    got = list(zip(*normal[i][2]))
                    self.check(near(got[0], want[0]) and near(got[1], want[1]), f"quantiles of {what}")
                    if qq:
                        self.check(near(self.drawn(qq, 0, 2)[0], want[0]), f"quantiles drawn of {what}")
        figure = pictures.drawcaterpillar(run, 2, ["387", "907"])
        self.check([t.get_text() for t in figure.axes[0].texts] == ["907", "387"], "marked units, in the order of the effect")
        figure, rows = pictures.drawcaterpillar(run, 3), values.caterpillar(run, 3)[0][1]
        self.check([t.get_text() for t in figure.axes[0].texts] == ["lowest: " + ", ".join(row[0] for row in rows[:3]), "highest: " + ", ".join(
            row[0] for row in rows[::-1][:3])], "the outermost of many units")
        figure = pictures.drawqq(run, [rows[5][0]])
        self.check([t.get_text() for axes in figure.axes for t in axes.texts if t.get_text() == rows[5][0]], "a unit found in the quantile plot")

        twice = files.Table("x", ["L3ID", "L2ID", "NJK"], [["1", "7", "3"], ["2", "7", "4"]])
        self.check(twice.units() == ["1/7", "2/7"] and values.pickunits(twice, ["2/7"]) == [1], "units of one ID")

    def records(self):
        """Residuals and lines against the raw data."""
        raw = [line.split() for line in (self.folder / "chem97-1.dat").read_text().splitlines()]
        run = files.Run(str(self.folder / "plots.json"))
        (name, points), = values.residuals(run)
        self.check(name == "" and near([f + r for f, r in points], [float(row[2]) for row in raw], 2e-6),
                   "fitted value and residual are not the score")
        self.check(self.drawn(pictures.drawresiduals(run), 0) == tuple(map(list, zip(*points))), "residuals drawn")

        table = residualfiles.read(self.folder, "FREEFORMAT", 2)
        female = sum(float(row[3]) for row in raw) / len(raw)
        counts = sorted(zip(table.column("NJK"), table.column("L2ID")), reverse=True)
        for units in (None, ["907", "387"]):
            predictor, lines, mean, held, _ = values.lines(run, units)
            self.check(predictor == "GCSECNT" and near([held["FEMALE"]], [female]), "what lines run over and hold")
            names = [line[0] for line in lines]
            self.check(names == (units or names), "lines of chosen units")
            self.check(units or sorted(c for c, unit in counts if unit in names) == sorted(c for c, _ in counts[:8]),
                       "the largest units")
            for unit, *ends in lines:
                at = table.column("L2ID").index(unit)
                own = [float(row[6]) for row in raw if row[1] == unit]
                a, b, c = (table.column(name)[at] for name in ("ECINTRCP", "ECFEMALE", "ECGCSECN"))
                want = [(x, a + b * female + c * x) for x in (min(own), max(own))]
                self.check(near(sum(ends, ()), sum(want, ()), 1e-6), f"line of unit {unit}: {ends} instead of {want}")
        means = [sum(table.column(name)) / len(table.rows) for name in ("ECINTRCP", "ECFEMALE", "ECGCSECN")]
        self.check(near([y for _, y in mean], [means[0] + means[1] * female + means[2] * x for x, _ in mean], 1e-6),
                   "the mean line")
        # Without the level-1 file the graph data file tells the range, the same for all units.
        _, lines, _, _, _ = values.lines(run, ["387"], "FEMALE")
        self.check([x for x, _ in lines[0][1:]] == [0, 1], "range from the graph data file")

    def coefficients(self):
        document = json.loads(self.place.read("plots.json"))
        final, run = document["phases"][-1], files.Run(str(self.folder / "plots.json"))
        names = ["Intercept", "LEAGCSE", "SCHGCSE", "FEMALE", "GCSECNT", "GCSECNT × SCHGCSE"]
        for side in ("model_based", "robust"):
            want = [(name, e["estimate"], *e[side]["interval"]) for name, e in zip(names, final["fixed_effects"])]
            for all_ in (True, False):
                rows, by = values.coefficients(run.document, choosephase(run.document), side == "robust", all_)
                self.check((rows, by) == (want[not all_:], side), f"coefficients with {side} intervals, {all_}")
            figure = pictures.drawcoefficients(run, choosephase(run.document), side == "robust", True)
            got = [tuple(self.drawn(figure, 2 * i)[0]) for i in range(6)], [self.drawn(figure, 2 * i + 1)[0] for i in range(6)]
            self.check(got == ([row[2:] for row in want], [[row[1]] for row in want]), f"coefficients drawn, {side}")
            labels = [t.get_text() for t in figure.axes[0].get_yticklabels()]
            self.check(labels == names, f"labels of coefficients: {labels}")

    def otheroutcomes(self):
        """Poisson: PQL before the population average, ratios, scale of the link. Ordinal: a panel for each cut."""
        for name in (ROOT / "examples" / "melanoma").iterdir():
            shutil.copy(name, self.folder)
        self.place.run("-r", "melanoma.mdmt")
        self.estimate("deaths", "deaths.kdr", "melanoma.mdm", RESFIL1="Y", RESFIL2="Y", RESFIL3="Y",
                      GRAPHGAMMAS="deaths.bin", RESFIL1NAME="d1.dta", RESFIL2NAME="d2.dta", RESFIL3NAME="d3.dta", RESFILTYPE="STATA")
        run = files.Run(str(self.folder / "deaths.json"))
        phase = choosephase(run.document)
        self.check(phase["phase"] == "pql", "the phase of a Poisson run")
        rows, _ = values.coefficients(run.document, phase, intercept=False, ratio=True)
        effect = phase["fixed_effects"][1]
        self.check(rows == [("UVB", effect["ratio"], *effect["model_based"]["ratio_interval"])], f"ratios: {rows}")
        figure = pictures.drawcaterpillar(run, 3)
        names = [t.get_text() for t in figure.axes[0].get_xticklabels()]
        self.check(sorted(names) == list("123456789"), f"names of the few level-3 units: {names}")
        _, lines, _, held, _ = values.lines(run)
        graph = residualfiles.graphfile.read(self.folder / "deaths.bin", self.folder / "melanoma.mdm", nonlinear=True)
        uvb = graph["predictors1"]
        self.check(len(lines) == 8 and [x for x, _ in lines[0][1:]] == [uvb["p0"][0], uvb["p100"][0]] and held == {},
                   "lines of the Poisson run")

        self.plot("--page", "deaths.json", "-o", "deaths.html")
        text = Page(self.place.read("deaths.html")).text
        self.check(text.count(", PQL results") == 7, "what the pictures rest on")
        for words in ("DEATHS: counts with the exposure EXPECTED (log link)", "offset(log(EXPECTED))", "penalized quasi-likelihood", "Rate ratio\n"):
            self.check(words in text, f"{words} is not on the page of counts")

        self.estimate("ordinal", "ordinal.kdr", "chem97.mdm", RESFIL1="Y", RESFIL1NAME="cuts.sav", MACROIT="2,N")
        self.plot("--page", "ordinal.json", "-o", "ordinal.html")
        text = Page(self.place.read("ordinal.html")).text
        effects, thresholds = text.split("Thresholds, model-based standard errors\n")[0], text.split("Thresholds, model-based standard errors\n")[1]
        table = thresholds.split("Fixed effects, robust")[0]
        self.check("Cumulative odds ratio\n" in effects and "ratio" not in table and "GCSECNT\n" in effects and all(
            cut in table for cut in ("At or below 0 (intercept)", "At or below 8, above the first")), "thresholds apart")
        panels = values.residuals(files.Run(str(self.folder / "ordinal.json")))
        self.check([name for name, _ in panels] == [f"SCORE at or below {cut}" for cut in (0, 2, 4, 6, 8)], "cuts")
        score = [float(line.split()[2]) for line in (self.folder / "chem97-1.dat").read_text().splitlines()]
        for (name, points), cut in zip(panels, (0, 2, 4, 6, 8)):
            self.check(near([f + r for f, r in points], [float(s <= cut) for s in score], 1e-6), f"residuals of {name}")

    def pictures(self):
        for kind in LINEAR:
            for ending in ("png", "svg"):
                name = f"{kind}.{ending}"
                code, told = self.plot("plots.json", "--kind", kind, "-o", name)
                self.check((code, told) == (0, ""), f"{name}: {code}, {told}")
                data = (self.folder / name).read_bytes()
                if ending == "svg":
                    root = xml.etree.ElementTree.fromstring(data)
                    self.check(root.tag.endswith("}svg") and len(list(root.iter())) > 50, f"{name} is empty")
                else:
                    self.check(data.startswith(b"\x89PNG") and b"IEND" in data[-12:] and len(data) > 4000, f"{name} is no PNG")
        self.check(self.plot("plots.json", "--kind", "qq,coefficients", "--label", "907", "-o", "two.svg") == (0, "") and sorted(
            path.name for path in self.folder.glob("two*")) == ["two-coefficients.svg", "two-qq.svg"], "two kinds in one call")
        before = (self.folder / "lines.svg").read_bytes()
        self.plot("plots.json", "--kind", "lines", "-o", "lines.svg")
        self.check((self.folder / "lines.svg").read_bytes() == before, "the same picture twice differs")

    def page(self):
        self.place.edited("titled.kdr", "plots.kdr", TITLE="Boys < girls & \"schools\"", RESULTS="titled.json")
        self.place.run("chem97.mdm", "titled.kdr")
        code, told = self.plot("--page", "titled.json", "-o", "page.html")
        text = self.place.read("page.html")
        page = Page(text)
        self.check((code, told, page.open) == (0, "", []), f"the page: {code}, {told}, {page.open}")
        self.check("width=device-width" in page.viewport, "viewport of the page")
        self.check(len(page.images) == len(LINEAR) and all(
            i["src"].startswith("data:image/svg+xml;base64,") and i["alt"] for i in page.images), "pictures of the page")
        self.check("http" not in text.split("</style>")[1].replace("http-equiv", ""), "the page refers to something outside")
        self.check("Boys < girls & \"schools\"" in page.text, "title of the page")
        final = json.loads(self.place.read("titled.json"))["phases"][-1]
        numbers = [(float(x), 10.0 ** -len(x.partition(".")[2])) for x in re.findall(r"-?\d+\.\d+", page.text.replace("−", "-"))]

        def has(value, error):
            """A number rounded to it, whose last digit is a tenth to a hundredth of the error."""
            self.check(any(abs(x - value) <= 0.5001 * unit and 9.9 * unit <= error <= 1001 * unit for x, unit in numbers),
                       f"{value} with the error {error} is not on the page")
        for effect in final["fixed_effects"]:
            for side in ("model_based", "robust"):
                error = effect[side]["standard_error"]
                for value in (effect["estimate"], error, *effect[side]["interval"]):
                    has(value, error)
        tau, sigma2 = final["tau_pi"], final["sigma2"]
        has(tau["estimate"][1][0], tau["standard_error"][1][0])
        has(sigma2["estimate"], sigma2["standard_error"])
        has(final["tau_beta"]["standard_error"][0][0], final["tau_beta"]["standard_error"][0][0])
        for words in ("SCORE ~ center(LEAGCSE) + center(SCHGCSE) + FEMALE + GCSECNT + GCSECNT:center(SCHGCSE) + (GCSECNT | level3:level2) + "
                      "(1 | level3)", "31022 records in 2410 level-2 units in 131 level-3 units", "maximum likelihood"):
            self.check(words in page.text, f"{words} is not on the page")
        self.check(all(i["alt"].count(":") and len(i["alt"]) > 60 for i in page.images), f"alternative texts: {[i['alt'] for i in page.images]}")

    def refusals(self):
        document = json.loads(self.place.read("plots.json"))
        self.place.write("text.json", "no document")
        self.place.write("other.json", '{"format": "something else"}')
        self.place.write("older.json", json.dumps(dict(document, format_version=3)))
        self.check(self.plot("older.json", "--kind", "coefficients", "-o", "older.svg")[0] == 0, "a document of version 3")
        self.place.write("newer.json", json.dumps(dict(document, format_version=99)))
        inner, sizes, large = (json.loads(json.dumps(document)) for _ in range(3))
        inner["phases"][1]["fixed_effects"][2]["estimate"] = "0.4"
        self.place.write("inner.json", json.dumps(inner))
        del sizes["phases"][1]["tau_pi"]["rows"][0]
        self.place.write("sizes.json", json.dumps(sizes))
        large["phases"][1]["fixed_effects"][2]["model_based"]["interval"] = [-1.7e308, 1.7e308]
        self.place.write("large.json", json.dumps(large))
        self.place.write("averages.json", json.dumps(dict(document, checksums=[], series={
            "kind": "multiple imputation", "subrun": None, "plausible_value": None, "failed_subruns": []})))
        self.estimate("bare", "model1.kdr", "chem97.mdm")
        (self.folder / "moved").mkdir()
        shutil.copy(self.folder / "plots.json", self.folder / "moved")
        draw = lambda file, kind, *more: (file, "--kind", kind, "-o", "refused.png", *more)
        for words, code, part in (
                (draw("nowhere.json", "qq"), 3, "nowhere.json cannot be read"),
                (draw("text.json", "qq"), 4, "text.json is not a results document"),
                (draw("other.json", "qq"), 4, "other.json is not a results document"),
                (draw("newer.json", "qq"), 4, "format_version 99"),
                (draw("inner.json", "qq"), 4, "inner.json is damaged: phases[1].fixed_effects[2].estimate is not of the type"),
                (draw("sizes.json", "qq"), 4, "sizes.json is damaged: the equations and tau_pi of the phase final"),
                (draw("bare.json", "caterpillar2"), 5, "no residual file of level 2 (RESFIL2:Y"),
                (draw("large.json", "coefficients"), 5, "the effects of the phase final are too large to draw"),
                (draw("averages.json", "qq"), 5, "take the document of a sub-run"),
                (draw("moved/plots.json", "residuals"), 3, "moved/resfil1.dat"),
                (draw("plots.json", "caterpillar3", "--units", "999"), 2, "no unit 999"),
                (draw("plots.json", "coefficients", "--phase", "pql"), 2, "it has least_squares, final"),
                (draw("plots.json", "coefficients", "--ratio"), 5, "no odds or event-rate ratios"),
                (draw("plots.json", "lines", "--predictor", "AGE"), 2, "AGE is no level-1 predictor"),
                (draw("plots.json", "lines", "--category", "2"), 2, "there is no category 2"),
                (draw("plots.json", "qq", "--units", "1"), 2, "--units has no effect on --kind qq"),
                (draw("plots.json", "pie"), 2, "invalid choice"),
                (("plots.json", "-o", "refused.png"), 2, "one of --kind, --page and --compare"),
                (("plots.json", "--kind", "qq", "-o", "refused.pdf"), 2, "ends in .png or .svg"),
                (("plots.json", "--kind", "lines", "-o", "nowhere/refused.png"), 3, "nowhere/refused.png cannot be written")):
            got, told = self.plot(*words)
            self.check(got == code and part in told and not (self.folder / "refused.png").exists(), f"{words}: {got}, {told}")
        code, told = self.plot("--page", "bare.json", "-o", "bare.html")
        page = Page(self.place.read("bare.html"))
        self.check(code == 0 and len(page.images) == 1 and page.text.count("the run made no residual file") == 6,
                   f"a page without residual files: {code}, {told}")
        self.place.write("moved.png.part", "another")
        self.check(self.plot("moved/plots.json", "--kind", "qq", "-o", "moved.png", "--folder", ".")[0] == 0, "--folder")
        self.check(self.place.read("moved.png.part") == "another", "what stands beside a picture stays")

        # Files cut off, and files of a later run under the same names: of the same model, with as many records.
        self.place.edited("later.kdr", "plots.kdr", OUTPUT="later.txt", RESULTS="later.json", STOPVAL="1")
        names = ("resfil1.dat", "resfil2.dat", "resfil3.dat", "graph.bin")
        keep = {name: (self.folder / name).read_bytes() for name in names}
        assert self.place.run("chem97.mdm", "later.kdr").returncode == 0
        later = {name: (self.folder / name).read_bytes() for name in keep}
        for name, kind in zip(names, ("residuals", "qq", "caterpillar3", "lines")):
            for data in (later[name], keep[name][:len(keep[name]) // 3]):
                for other in names:
                    (self.folder / other).write_bytes(data if other == name else keep[other])
                got, told = self.plot(*draw("plots.json", kind))
                self.check(got == 4 and f"{name} is not the one that the run of plots.json made" in told, f"{name}: {got}, {told}")
        got, told = self.plot("--page", "plots.json", "-o", "mixed.html")
        page = Page(self.place.read("mixed.html"))
        self.check(got == 0 and len(page.images) == 1 and page.text.count("graph.bin is not the one") == 8 and
                   "qq is not drawn" in told, f"the page beside it: {got}, {told}")
        (self.folder / "graph.bin").write_bytes(keep["graph.bin"])

    def losses(self):
        """What -o may name: nothing of the run, no other file's contents; a picture and a page give way to their like."""
        self.estimate("lost", "plots.kdr", "chem97.mdm", RESFIL2NAME="r2.html", GRAPHGAMMAS="graph.svg")
        self.place.edited("lost.kdr", "lost.kdr", OUTPUT="lost.html")
        assert self.place.run("chem97.mdm", "lost.kdr").returncode == 0
        os.symlink("lost.json", self.folder / "link.html")
        self.place.write("mine.html", "<!DOCTYPE html> a page of my own")
        self.place.write("notes.svg", "no picture")
        for name in ("lost.html", "r2.html", "link.html", "mine.html", "graph.svg", "notes.svg"):
            before = (self.folder / name).read_bytes()
            words = ["--page"] if name.endswith("html") else ["--kind", "coefficients"]
            got, told = self.plot("lost.json", *words, "-o", name)
            self.check(got == 3 and "would be lost" in told and (self.folder / name).read_bytes() == before, f"{name}: {got}, {told}")
        for words in (["--page", "-o", "again.html"], ["--kind", "qq", "-o", "again.svg"], ["--kind", "qq", "-o", "again.png"]):
            self.check([self.plot("lost.json", *words)[0] for _ in range(2)] == [0, 0], f"{words} twice")

    def emptyunit(self):
        """A level-2 unit that run-time deletion leaves without records has no row, and the others are drawn."""
        lines = (self.folder / "chem97-1.dat").read_text().splitlines(True)
        unit = lines[0].split()[1]
        missing = [line[:10] + "  -99" + line[15:] if line.split()[1] == unit else line for line in lines]
        self.place.write("gaps.dat", "".join(missing))
        template = self.place.read("chem97.mdmt")
        for old, new in (("chem97-1.dat", "gaps.dat"), ("l1missing:n", "l1missing:y/SAME\n-99"), ("deletion:now", "deletion:analysis"),
                         ("chem97.mdm", "gaps.mdm")):
            template = template.replace(old, new)
        self.place.write("gaps.mdmt", template)
        done = self.place.run("-r", "gaps.mdmt")
        assert done.returncode == 0, done.stdout
        self.estimate("gaps", "model2.kdr", "gaps.mdm", **FILES)
        run = files.Run(str(self.folder / "gaps.json"))
        units = run.document["dimensions"]["level2_units"]
        drawn = [row[0] for row in values.caterpillar(run, 2)[0][1]]
        self.check(len(drawn) == units - 1 and unit not in drawn, f"{len(drawn)} of {units} units drawn")
        self.plot("--page", "gaps.json", "-o", "gaps.html")
        lost = sum(line.split()[1] == unit for line in lines)
        self.check(f"{lost} of {len(lines)} are left out" in Page(self.place.read("gaps.html")).text, "records left out")

    def pooled(self):
        """Averages: their sub-runs on the page and in the picture of coefficients, missing information, pictures of the last one."""
        lines = (self.folder / "chem97-1.dat").read_text().splitlines()
        self.place.write("values.dat", "".join(line + "".join("%7.3f" % (float(line.split()[2]) + (i * k % 7 - 3) / 2) for k in (1, 2)) + "\n"
                                               for i, line in enumerate(lines)))
        template = self.place.read("chem97.mdmt")
        for old, new in (("chem97-1.dat", "values.dat"), ("chem97.mdm", "values.mdm"), ("numl1var:5", "numl1var:7"), ("F8.4)", "F8.4,2F7.3)"),
                         ("*end l1vars", "V1\nV2\n*end l1vars")):
            assert old in template, old
            template = template.replace(old, new, 1)
        self.place.write("values.mdmt", template)
        assert self.place.run("-r", "values.mdmt").returncode == 0
        self.place.write("model3.kdr", self.place.read("model1.kdr").replace("SCORE=", "V1="))
        self.estimate("values", "model3.kdr", "values.mdm", PLAUSVALS="V1,V2", **FILES, RESFILTYPE="FREEFORMAT")
        code, told = self.plot("--page", "values.json", "-o", "values.html")
        page = Page(self.place.read("values.html"))
        average = json.loads(self.place.read("values.json"))["phases"][0]["fixed_effects"][1]
        for words in ("V1, V2: normal", "averages of 2 plausible values", "2, V2, values_2.json", "Missing information", "sub-run 2",
                      f"{100 * average['model_based']['missing_information']:.1f}%"):
            self.check(words in page.text, f"{words} is not on the page of averages")
        self.check((code, told, len(page.images)) == (0, "", len(LINEAR)), f"pictures of averages: {told}")
        assert self.plot("--compare", "values.json", "-o", "values.csv")[0] == 0
        table = self.place.read("values.csv")
        self.check(f"Missing information,GCSECNT,values,{average['model_based']['missing_information']}" in table
                   and "by Rubin's rules (1, V1, values_1.json; 2, V2, values_2.json)" in table, f"averages in a table: {table}")
        run = files.Run(str(self.folder / "values.json"))
        figure = pictures.drawcoefficients(run, choosephase(run.document))
        want = [json.loads(self.place.read(f"values_{k}.json"))["phases"][-1]["fixed_effects"][1]["estimate"] for k in (1, 2)]
        self.check(self.drawn(figure, 2)[0] == want, "the sub-runs beside their average")


if __name__ == "__main__":
    tests = Tests(sys.argv[1])
    for part in (tests.randomeffects, tests.records, tests.coefficients, tests.otheroutcomes, tests.pictures, tests.page,
                 tests.refusals, tests.losses, tests.emptyunit, tests.pooled):
        part()
    tests.check.finish()
