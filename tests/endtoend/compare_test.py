"""kdr3-plot --compare: its numbers and tests against anova() of lmer and glmer (tests/reference/comparisons.R), one content in
every form of file, and what is no test.

    compare_test.py <program>
"""
import contextlib
import copy
import csv
import html.parser
import io
import json
import math
import re
import shutil
import subprocess
import sys

import docx
from scipy import stats

sys.dont_write_bytecode = True
from plotting import kdr3plot
from program import REFERENCE, ROOT, Checks, Workplace

from kdr3plot import compare, digits, document, files, nested

NESTED = "score ~ year + ses + tutoring + (1 | school/pupil)"
SLOPES = "score ~ year + ses + tutoring + (1 | school) + (year | school:pupil)"
LOGIT = ("-family", "binomial", "-engine", "quadrature", "-points", "25")
MODELS = {"ml_one": ("score ~ year + (1 | school/pupil)",), "ml_two": (NESTED,), "ml_three": (SLOPES,),
          "reml_two": (NESTED, "-keyword", "LIKELIHOOD:REML"), "reml_three": (SLOPES, "-keyword", "LIKELIHOOD:REML"),
          "glmm_one": ("good ~ year + (1 | pupil)", *LOGIT), "glmm_two": ("good ~ year + ses + (1 | pupil)", *LOGIT)}


class Cells(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.rows, self.inside = [], False
        self.feed(text)

    def handle_starttag(self, tag, _):
        if tag == "tr":
            self.rows.append([])
        elif tag in ("td", "th"):
            self.rows[-1].append("")
            self.inside = True

    def handle_endtag(self, tag):
        self.inside = self.inside and tag not in ("td", "th")

    def handle_data(self, data):
        if self.inside:
            self.rows[-1][-1] += data


class Tests:
    def __init__(self, program):
        self.check, self.place = Checks(), Workplace(program)
        self.folder = self.place.folder
        rows = list(csv.reader((ROOT / "examples" / "growth" / "growth.csv").open()))
        score = rows[0].index("score")
        for row in rows[1:]:
            row.append("" if row[score] == "" else str(int(float(row[score]) > 60)))
        self.place.write("growth.csv", "\n".join(map(",".join, [rows[0] + ["good"], *rows[1:]])) + "\n")
        for name, (formula, *more) in MODELS.items():
            done = self.place.run("-fit", formula, *more, "growth.csv", "-o", name)
            assert done.returncode == 0, done.stdout
        self.known = [line.split("\t")[:-1] for line in (REFERENCE / "comparisons.out").read_text().splitlines()]

    def plot(self, *words):
        return kdr3plot(self.folder, *words)

    def compare(self, names, ending, *more):
        code, told = self.plot("--compare", *(name + ".json" for name in names), "-o", "made" + ending, *more)
        assert code == 0, told
        return (self.folder / ("made" + ending)).read_bytes()

    def values(self, names, *more):
        """{(part, term, model): (value, error, lower, upper)} of the table of comma-separated values."""
        rows = list(csv.reader(io.StringIO(self.compare(names, ".csv", *more).decode())))
        return {tuple(row[:3]): row[3:] for row in rows[1:]}, [row[3] for row in rows if row[0] == "Note"]

    def numbers(self):
        """Effects, criteria and tests against R."""
        wide = {"(Intercept)": "Intercept"}
        for kind in ("ml", "reml", "glmm"):
            names = [name for name in MODELS if name.startswith(kind + "_")]
            made, notes = self.values(names)
            for known, model, what, *numbers in self.known:
                if known != kind:
                    continue
                name, numbers = f"{kind}_{model}", list(map(float, numbers))
                if what == "fit":
                    got = [float(made["Fit", key, name][0]) for key in ("Log-likelihood", "Parameters", "AIC", "BIC")]
                    want, room = numbers, [2e-3] * 4
                elif what == "anova":
                    at = [key for key in made if key[0] == "Likelihood-ratio test" and key[2].startswith(name + " against")]
                    got = {key[1]: float(made[key][0]) for key in at}
                    chi, df, p = numbers
                    want = {"chi_square": chi, "df": df, "p": p}
                    if model == "three":
                        want["mixture_p"] = (stats.chi2.sf(chi, 1) + stats.chi2.sf(chi, 2)) / 2
                    self.check(got.keys() == want.keys(), f"the test of {name}: {got}")
                    logs = lambda x: [x["chi_square"], x["df"], *(math.log(x[key]) for key in ("p", "mixture_p") if key in x)]
                    got, want, room = logs(got), logs(want), [3e-3] * 4
                else:
                    got = list(map(float, made["Fixed effects", wide.get(what, what), name][:2]))
                    want, room = numbers, [5e-3 * numbers[1], 1e-3 * numbers[1]]
                self.check(all(abs(a - b) <= r for a, b, r in zip(got, want, room)), f"{name}, {what}: {got} instead of {want}")
            self.check(not any(note.startswith("No likelihood-ratio test") for note in notes), f"notes of {kind}: {notes}")
        self.check(made["Size", "Records", "glmm_two"][0] == "1513" and made["Size", "Level-2 units", "glmm_two"][0] == "401", "sizes")
        effect = next(e for phase in json.loads(self.place.read("glmm_two.json"))["phases"] if phase["phase"] == "quadrature" for e in phase["fixed_effects"] if e["level1"] == "YEAR")
        made, _ = self.values(["glmm_one", "glmm_two"], "--ratio", "--robust")
        got = made["Odds ratios", "year", "glmm_two"]
        self.check([float(got[0])] == [effect["ratio"]], f"ratio {got}")
        made, _ = self.values(["glmm_one", "glmm_two"], "--ratio")
        got = made["Odds ratios", "year", "glmm_two"]
        self.check([float(x) for x in got[2:]] == effect["model_based"]["ratio_interval"], f"interval of the ratio {got}")

        for x, df in ((0.3, 1), (5.0, 2), (40.0, 7), (300.0, 12), (1e-8, 3)):
            self.check(abs(digits.chisquarep(x, df) / stats.chi2.sf(x, df) - 1) < 1e-12, f"chi-square of {x}, {df}")

    def forms(self):
        """The text has the numbers of the comma-separated values with digits that count; the other forms have its cells."""
        names = ["ml_one", "ml_two", "ml_three"]
        text, (made, notes) = self.compare(names, ".txt").decode(), self.values(names)
        rows = {}
        for line in text.splitlines():
            if not line.startswith(" "):
                part = line
            elif line.split() != names:
                first, *cells = re.split(r"  +", line.strip())
                rows[part, first] = cells
        for (part, term, model), (value, error, *_) in made.items():
            if part in ("Note", "Likelihood-ratio test") or term == "Estimation":
                continue
            cell = rows[part, term][names.index(model)].replace("−", "-")
            shown = re.fullmatch(r"(-?\d+(?:\.(\d+))?)(?: \((\d+(?:\.\d+)?)\))?", cell)
            unit = 10.0 ** -len(shown[2] or "") if shown else 0
            holds = shown and abs(float(shown[1]) - float(value)) <= 0.5001 * unit
            if error:
                holds = holds and abs(float(shown[3]) - float(error)) <= 0.5001 * unit and float(error) >= 9.4 * unit
            self.check(holds, f"{part}, {term}: {cell} for {value} ({error})")
        want = sorted(cell for (_, first), cells in rows.items() for cell in [first, *cells])
        tests = ["Likelihood-ratio test", "ml_two against ml_one", "ml_three against ml_two"]

        def holds(form, table, bare=lambda x: x):
            cells = [[bare(cell).strip() for cell in row] for row in table]
            got = sorted(cell for row in cells if len(row) == 4 and row[0] and row[0] not in tests for cell in row)
            self.check(got == want, f"cells of {form}: {set(got) ^ set(want)}")
            self.check([row[0] for row in cells if row[0] in tests] == tests, f"tests of {form}")

        holds("html", Cells(self.compare(names, ".html").decode()).rows)
        lines = [re.split(r"(?<!\\)\|", line)[1:-1] for line in self.compare(names, ".md").decode().splitlines() if line.startswith("|")]
        holds("md", [line for line in lines if "---" not in line[0] and "**" not in line[0]], lambda x: re.sub(r"\\(.)", r"\1", x))
        latex = self.compare(names, ".tex", "--title", "A & B_1 {c} $5").decode()
        self.check(r"\caption{A \& B\_1 \{c\} \$5}" in latex, "what LaTeX needs escaped")
        bare = lambda x: re.sub(r"\\(quad|_)", lambda m: "" if m[1] == "quad" else "_", x).replace("$-$", "−").replace("--", "–").replace(
            r"$\chi$\textsuperscript{2}", "χ²")
        holds("tex", [line.removesuffix(r" \\").split(" & ") for line in latex.splitlines() if " & " in line], bare)
        self.compare(names, ".docx")
        made = docx.Document(self.folder / "made.docx")
        holds("docx", [[cell.text for cell in row.cells] for table in made.tables for row in table.rows
                       if len({cell.text for cell in row.cells}) > 1 or row.cells[1].text not in (row.cells[0].text, "")])
        told = [paragraph.text for paragraph in made.paragraphs]
        self.check(all(note in told and note in text for note in notes) and len(notes) > 4, "notes")

    def notests(self):
        """Each condition of a test, broken in a copy of a document that is well otherwise."""
        load = lambda name: json.loads(self.place.read(name + ".json"))
        small, large = load("ml_two"), load("ml_three")
        self.place.write("a.json", json.dumps(dict(small)))

        def told(change, part, base=large, against="ml_two", criteria=None):
            other = copy.deepcopy(base)
            change(other)
            self.place.write("b.json", json.dumps(other))
            made, notes = self.values([against, "b"])
            note = next((note for note in notes if note.startswith("No likelihood-ratio test")), "")
            self.check(part in note and not any(key[0] == "Likelihood-ratio test" for key in made), f"{part}: {notes}")
            if criteria is not None:
                self.check(("do not compare" not in note) == criteria, f"{part}: criteria: {note}")

        phase = lambda document: document["phases"][-1]
        equation = lambda document, name: next(e for e in document["model"]["equations"] if e["variable"] == name)
        told(lambda d: d["dimensions"].update(records=1512), "different data (1513 and 1512 records)", criteria=False)
        told(lambda d: d["model"].update(outcome="YEAR"), "the outcomes differ", criteria=False)
        told(lambda d: d["model"]["weights"].update(level2="SES"), "their weights differ", criteria=False)
        told(lambda d: phase(d).update(converged=False), "b did not converge")
        told(lambda d: equation(d, "YEAR").update(centering="group mean"), "ml_two is no part of b", criteria=True)
        told(lambda d: phase(d).update(parameters=phase(small)["parameters"]), "the same number of parameters")
        told(lambda d: phase(d).update(log_likelihood=-4300.0), "has more parameters and fits worse")
        told(lambda d: phase(d).update(log_likelihood=None, deviance=None), "no likelihood of its outcome")
        told(lambda d: None, "one was fitted by maximum, the other by restricted", load("reml_three"), criteria=False)
        reml = load("ml_one")
        phase(reml)["likelihood"] = "restricted"
        told(lambda d: None, "with the same fixed effects alone", reml, "reml_two", criteria=False)
        told(lambda d: d["dimensions"].update(level3_units=None), "one has two levels and the other three")
        told(lambda d: next(p for p in d["phases"] if p["phase"] == "quadrature").update(points=1), "of two kinds", load("glmm_two"), "glmm_one")
        told(lambda d: d["model"]["weights"].update(level2="SES"), "their weights differ", load("glmm_two"), "glmm_one")

        def constrain(document):  # the last two effects as one: no part of it is one of them alone
            places = [f for e in document["model"]["equations"] for t in e["terms"] for f in t["effects"]]
            del phase(document)["fixed_effects"][-1]
            document["phases"] = document["phases"][-1:]
            places[-1]["fixed_effect"] = len(places) - 2
        told(constrain, "ml_two is no part of b")

        def hold(document):
            tau = phase(document)["tau_pi"]
            tau["standard_error"][0][0], tau["estimate"][0][0] = 0, 5.0
        told(hold, "ml_two is no part of b")
        # The hash of the records, and two levels of three: is there a variance of pupils within schools?
        self.place.run("-fit", "score ~ year + ses + tutoring + (1 | school)", "growth.csv", "-o", "schools")

        def hashed(name, digits):
            read = document.readresults(str(self.folder / f"{name}.json"))
            return compare.Column(dict(read, records_hash=digits), name)
        made = nested.compared(hashed("ml_two", "1" * 16), hashed("ml_three", "2" * 16))
        self.check("their hashes differ" in made["why"] and not made["criteria"], f"other records: {made}")
        schools, pupils = hashed("schools", "1" * 16), hashed("ml_two", "1" * 16)
        made = nested.compared(schools, pupils)
        gain = 2 * (pupils.phase["log_likelihood"] - schools.phase["log_likelihood"])
        self.check(made.get("df") == 1 and abs(made["chi_square"] - gain) < 1e-9 and made["notes"] == [] and abs(
            made["mixture_p"] / stats.chi2.sf(gain, 1) - 0.5) < 1e-9, f"levels two and three: {made}")
        # A predictor whose values were changed between the runs, of pupils in one model and of records in the other
        rows = list(csv.DictReader(io.StringIO(self.place.read("growth.csv"))))
        rows[3]["ses"] = "9.25"
        self.place.write("changed.csv", "\n".join([",".join(rows[0])] + [",".join(row.values()) for row in rows]) + "\n")
        for more, sentence in (((), "; AIC and BIC compare them"), (("-reml",), "; their AIC and BIC do not compare them, either")):
            for name, formula, file in (("first", "score ~ ses + (1 | school/pupil)", "growth.csv"), ("second", "score ~ year + ses + (1 | school/pupil)", "changed.csv"),
                                        ("third", "score ~ ses + (year | school/pupil)", "changed.csv")):
                self.place.run("-fit", formula, file, "-o", name, *more)
            _, notes = self.values(["first", "third" if more else "second"])
            self.check(any("ses has other values in one than in the other" + sentence in note for note in notes), f"a changed predictor: {notes}")
        self.check(not any("ses has other values" in note for note in self.values(["third", "second"])[1]), "the same predictor")
        # Categories of texts have their names, of margins too
        self.place.write("band.csv", "\n".join([",".join(rows[0]) + ",band"] + [",".join(row.values()) + "," + ("low", "mid", "top")[
            (float(row["score"] or 0) > 50) + (float(row["score"] or 0) > 62)] for row in rows]) + "\n")
        self.place.run("-fit", "band ~ ses + (1 | school)", "band.csv", "-family", "multinomial", "-o", "band", "-margins", "ses=0,1")
        run = files.Run(str(self.folder / "band.json"))
        self.check([e["category"] for e in run.document["model"]["equations"]] == ["low", "low", "mid", "mid"]
                   and run.document["phases"][-1]["fixed_effects"][0]["label"] == "Intercept, category low", "names of categories")
        # ... and so have numbers with value labels
        self.place.write("band.sps", "GET DATA /TYPE=TXT /FILE='band.csv' /DELIMITERS=',' /FIRSTCASE=2\n  /VARIABLES=school A3 pupil F4 year F2 hours F5.1 "
                         "score F5.1 ses F6.2 tutoring F1 good F1 word A3.\nCOMPUTE band=10*(1+(word='mid')+2*(word='top')).\nVALUE LABELS band 10 'poor' "
                         "20 'fair' 30 'fine' /good 0 'no' 1 'yes'.\nSAVE OUTFILE='band.sav'.\n")
        subprocess.run(["pspp", "band.sps"], cwd=self.folder, check=True, capture_output=True)
        for outcome, family, categories, event in (("band", "ordinal", ["poor", "fair", "fine"], None), ("good", "binomial", [], "yes")):
            self.place.run("-fit", outcome + " ~ ses + (1 | school)", "band.sav", "-family", family, "-engine", "pql", "-o", "labels")
            made = document.readresults(str(self.folder / "labels.json"))
            self.check((made["model"]["categories"], made["event"]) == (categories, event), f"labels of {outcome}: {made['model']['categories']}")
        made, notes = self.values(["ml_one", "ml_three"])
        self.check(made["Likelihood-ratio test", "mixture_p", "ml_three against ml_one"], "one variance more beside fixed effects")
        self.check(sum("seen by their numbers alone" in note for note in notes) <= 1, f"{notes}")

    def refusals(self):
        shutil.copy(self.folder / "ml_one.json", self.folder / "other.json")
        self.place.write("notes.md", "my own notes")
        two = ("--compare", "ml_one.json", "ml_two.json", "-o")
        for words, code, part in (
                ((*two, "notes.md"), 3, "would be lost"), ((*two, "ml_one.txt"), 3, "is a file of the run"),
                ((*two, "x.pdf"), 2, "ends in .txt"),
                ((*two, "x.txt", "--names", "A"), 2, "1 names for 2"), ((*two, "x.txt", "--units", "3"), 2, "--units has no effect"),
                ((*two, "x.txt", "--phase", "pql"), 2, "no phase pql"), (("ml_one.json", "--page", "-o", "x.html", "--intervals"), 2,
                                                                         "--intervals has no effect on --page"),
                (("--page", "ml_one.json", "ml_two.json", "-o", "x.html"), 2, "takes one results document"),
                (("--compare", "ml_one.json", "growth.csv", "-o", "x.txt"), 4, "growth.csv is not a results document")):
            got, told = self.plot(*words)
            self.check(got == code and part in told, f"{words}: {got}, {told}")
        self.check(not list(self.folder.glob("x.*")) and self.place.read("notes.md") == "my own notes", "what was refused is written")
        with contextlib.redirect_stdout(io.StringIO()) as helped:
            self.check(self.plot("--help")[0] == 0 and "95% intervals" in helped.getvalue(), "--help")
        for ending in (".txt", ".md", ".html", ".tex", ".csv", ".docx"):
            first = self.compare(["ml_one", "ml_two"], ending)
            again = self.compare(["ml_one", "ml_two"], ending, "--names", "A,B")
            self.check(first != again and (ending == ".docx" or b"B" in again), f"a table takes the place of one, {ending}")


if __name__ == "__main__":
    tests = Tests(sys.argv[1])
    for part in (tests.numbers, tests.forms, tests.notests, tests.refusals):
        part()
    tests.check.finish()
