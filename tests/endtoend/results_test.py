"""Results documents (RESULTS:, -results) of every kind of run: held against the schema, against the numbers of the text
report to all its digits, and against distributions and criteria computed here.

    results_test.py <program>
"""
import csv
import json
import math
import re
import sys

import jsonschema
from scipy import stats

import report
from program import ROOT, Checks
from series_test import HYPOTHESES, IMPUTED, Place, model, nonlinear

SCHEMA = jsonschema.Draft202012Validator(json.loads((ROOT / "docs" / "results.schema.json").read_text()))
SECTIONS = {"linear": "identity", "unit-specific": "pql", "categories": "pql", "laplace": "laplace6",
            "quadrature": "quadrature", "population-average": "population_average"}
EMPTY = re.sub(r"(?ms)^LEVEL1:.*?(?=LEVEL1DELETION)",
               "LEVEL1:SCORE=INTRCPT1+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n",
               model(hypotheses=""))


class Numbers:
    """Compares numbers of the document with printed ones."""

    def __init__(self, check, name):
        self.check, self.name = check, name

    def same(self, what, value, printed, decimals):
        """None where neither has one."""
        if value is None or printed is None:
            self.check(value is None and printed is None, f"{self.name}: {what}: {value} beside {printed} of the report")
        else:
            self.check(abs(value - printed) <= 0.500001 * 10 ** -decimals + 1e-12 * abs(printed),
                       f"{self.name}: {what}: {value!r}, the report has {printed}")

    def equal(self, what, value, want):
        self.check(value == want, f"{self.name}: {what}: {value!r} instead of {want!r}")

    def lists(self, what, values, printed, decimals):
        self.equal(f"length of {what}", len(values or []), len(printed or []))
        for i, (value, number) in enumerate(zip(values or [], printed or [])):
            if isinstance(number, list):
                self.lists(f"{what}, row {i}", value, number, decimals)
            else:
                self.same(f"{what}, {i}", value, number, decimals)

    def effects(self, effects, r, tables):
        for side, key in tables:
            rows = r.fixed[key].rows if key in r.fixed else []
            tested = [e for e in effects if e[side] is not None]
            self.equal(f"fixed effects of {key}", len(tested), len(rows))
            for e, row in zip(effects, rows):
                test, what = e[side], f"{side} {e['subscript']}"
                self.equal(f"label {what}", re.sub(r".*?(\d+)$|.*\((.*)\)$", r"\1\2", row.label),
                           e["level1"].removeprefix("THOLD") if e["threshold"] else e["subscript"])
                for name, value, printed, decimals in (
                        ("estimate", e["estimate"], row.coefficient, 6), ("error", test["standard_error"], row.se, 6),
                        ("t", test["t"], row.t, 3), ("p", test["p"], row.p, 3)):
                    self.same(f"{name} {what}", value, printed, decimals)
                self.equal(f"df {what}", test["df"], row.df)
                self.equal(f"rough {what}", test["p_rough"], row.rough)
                low, high = test["interval"]
                reach = stats.t.ppf(0.975, row.df) * test["standard_error"]
                room = 1.1e-3 * test["standard_error"]
                self.check(abs(e["estimate"] - reach - low) < room and abs(e["estimate"] + reach - high) < room,
                           f"{self.name}: interval {what}")
                tail = 2 * stats.t.sf(abs(test["t"]), row.df)
                self.check(abs(test["p"] - tail) <= 1e-9 * tail, f"{self.name}: p {what}")
            ratios = r.ratios.get(key, [])
            self.equal(f"ratios of {key}", sum("ratio_interval" in e[side] for e in tested), len(ratios))
            for e, row in zip(effects, ratios):
                self.same(f"ratio {e['subscript']}", e["ratio"], row.ratio, 6)
                bounds = e[side]["ratio_interval"] or (None, None)
                self.same("lower bound", bounds[0], row.low, 3)
                self.same("upper bound", bounds[1], row.high, 3)
                self.check(abs(e["ratio"] - math.exp(e["estimate"])) < 1e-12 * e["ratio"], f"{self.name}: exp")

    def tails(self, what, test, row):
        self.same(f"chi-square {what}", test["chi_square"], row[1], 5)
        self.equal(f"df {what}", test["df"], row[0])
        if test["p"] is None or test["p"] > 0.5:
            self.equal(f"p {what}", row[2], None if test["p"] is None else 0.5)
        elif row[2] != 0.001:  # less than that, without digits
            self.same(f"p {what}", test["p"], row[2], 3)
        if test["p"] is not None:
            tail = stats.f.sf(test["chi_square"] / test["df"], test["df"], test["df2"]) if "df2" in test else \
                stats.chi2.sf(test["chi_square"], test["df"])
            self.check(abs(test["p"] - tail) <= 1e-9 * tail, f"{self.name}: p {what}")

    def phase(self, phase, r, effects=(("model_based", "final"), ("robust", "robust"))):
        """All of a phase against its section of the report."""
        self.effects(phase["fixed_effects"], r, effects)
        for tau, level in (("pi", 2), ("beta", 3)):
            part = phase["tau_" + tau] or dict.fromkeys(("estimate", "standard_error", "correlation", "reliability"))
            for name, attribute, decimals in (("estimate", "", 5), ("standard_error", "se", 5), ("correlation", "corr", 3)):
                printed = getattr(r, attribute + "tau" + tau)
                if name == "correlation" and len(part[name] or []) == 1:
                    self.equal("correlation of one effect with itself", part[name], [[1.0]])
                else:
                    self.lists(f"{name} of tau({tau})", part[name], printed, decimals)
            self.lists(f"reliability {level}", part["reliability"], r.reliabilities.get(level), 3)
            tests = (phase["variance_tests"] or {}).get(f"level{level}", [])
            components = r.components.get(level, [])
            self.equal(f"variance tests of level {level}", len(tests), len(components))
            for test, row in zip(tests, components):
                self.same("variance", test["variance"], row.variance, 5)
                self.same("deviation", test["standard_deviation"], row.sd, 5)
                self.tails(f"of level {level}", test, (row.df, row.chisquare, row.p))
        if r.sigma2 is not None:
            self.same("sigma2", phase["sigma2"]["estimate"], r.sigma2, 5)
            self.same("error of sigma2", phase["sigma2"]["standard_error"], r.sesigma2, 5)
        self.equal("hypothesis tests", len(phase["hypothesis_tests"]), len(r.tests))
        for test, printed in zip(phase["hypothesis_tests"], r.tests):
            self.lists("contrast estimates", test["estimates"], printed.estimates, 5)
            self.lists("contrast errors", test["standard_errors"], printed.errors, 5)
            self.tails("of a hypothesis", test, (printed.df, printed.statistic, printed.p))
        self.same("deviance", phase["deviance"], r.deviance, 6)
        if r.deviance is not None:
            self.equal("parameters", phase["parameters"], r.parameters)
        if r.logliks:
            iteration, loglik = max(r.logliks.items())
            self.equal("iterations", phase["iterations"], iteration)
            self.check(abs(phase["log_likelihood"] / loglik - 1) < 1e-6, f"{self.name}: log-likelihood")

    def criteria(self, phase, records):
        """Parameters counted by hand, AIC and BIC from the log-likelihood."""
        n2, n3 = (len(phase["tau_" + tau]["rows"]) if phase["tau_" + tau] else 0 for tau in ("pi", "beta"))
        k = len(phase["fixed_effects"]) + n2 * (n2 + 1) // 2 + n3 * (n3 + 1) // 2 + \
            (1 if phase["sigma2"] and not phase["sigma2"]["held"] else 0)
        self.equal("parameters", phase["parameters"], k)
        self.equal("sample size", phase["bic_sample_size"], records)
        marginal = phase["marginal_log_likelihood"]
        height = phase["log_likelihood"] if marginal is None else marginal
        for name, penalty in (("aic", 2 * k), ("bic", k * math.log(records))):
            self.check(abs(phase[name] - penalty + 2 * height) < 1e-8, f"{self.name}: {name}")


def document(check, place, name, code=0, output="out.txt", **facts):
    """The document, which the schema must accept, and its phases by name."""
    text = json.loads(place.read(name))
    errors = [f"{'/'.join(map(str, e.absolute_path))}: {e.message[:200]}" for e in SCHEMA.iter_errors(text)]
    check(not errors, f"{name}: schema: {errors[:3]}")
    for key, want in facts.items():
        check(text[key] == want, f"{name}: {key} is {text[key]!r}")
    return text, {phase["phase"]: phase for phase in text["phases"]}


def run(check, place, name, text, mdm="imp1.mdm", code=0, words=()):
    """Runs a model with RESULTS:; the document, its phases and the report."""
    place.write(name + ".kdr", text + f"RESULTS:{name}.json\n")
    done = place.run(*words, mdm, name + ".kdr")
    check(done.returncode == code, f"{name}: code {done.returncode}\n{done.stdout[-500:]}")
    return *document(check, place, name + ".json"), report.read(place.folder / "out.txt")


def table(check, place, text, name):
    """The same run again as a table: its rows against the document."""
    done = place.run("-results", "out.CSV", "imp1.mdm", name + ".kdr")
    check(done.returncode == 0, f"{name}: {done.stdout[-300:]}")
    with open(place.folder / "out.CSV", newline="") as file:
        rows = list(csv.DictReader(file))
    number = lambda field: float(field) if field else None
    want = []
    for phase in text["phases"]:
        for e in phase["fixed_effects"]:
            numbers = {"estimate": e["estimate"], "ratio": e.get("ratio")}
            for prefix, side in (("", e["model_based"]), ("robust_", e["robust"])):
                for field in ("standard_error", "t", "df", "p"):
                    numbers[prefix + field] = side and side[field]
                for kind, key in (("", "interval"), ("ratio_", "ratio_interval")):
                    low, high = (side or {}).get(key) or (None, None)
                    numbers.update({prefix + kind + "low": low, prefix + kind + "high": high})
            want.append((phase["phase"], "fixed", e["category"] or "", e["subscript"], "", numbers))
        if phase["sigma2"]:
            numbers = {k: phase["sigma2"][k] for k in ("estimate", "standard_error")}
            want.append((phase["phase"], "sigma2", "", "", "", numbers))
        for part, level in (("tau_pi", "level2"), ("tau_beta", "level3")):
            tau = phase[part] or {"rows": []}
            for i, row in enumerate(tau["rows"]):
                for j, column in enumerate(tau["rows"][:i + 1]):
                    numbers = {k: tau[k] and tau[k][i][j] for k in ("estimate", "standard_error", "correlation")}
                    if i == j:
                        test = phase["variance_tests"] and phase["variance_tests"][level][i]
                        numbers.update(reliability=tau["reliability"] and tau["reliability"][i],
                                       chi_square=test and test["chi_square"], chi_square_p=test and test["p"])
                    want.append((phase["phase"], part, row["category"] or "", row["subscript"], column["subscript"], numbers))
    check(len(rows) == len(want), f"{name}: {len(rows)} rows of the table, {len(want)} of the document")
    for row, (phase, part, category, subscript, other, numbers) in zip(rows, want):
        keys = (row["phase"], row["part"], row["category"], row["subscript"], row["with_subscript"])
        check(keys == (phase, part, category, subscript, other), f"{name}: {keys}")
        got = {field: number(row[field]) for field in numbers}
        check(got == numbers, f"{name}, {keys}: {got} beside {numbers}")
    for line in (place.folder / "newcmd.kdr").read_text().splitlines():
        if line.startswith("RESULTS:"):
            check(line == "RESULTS:out.CSV", f"newcmd.kdr repeats {line}")


def linear(check, place):
    name = "null"
    text, phases, r = run(check, place, name, EMPTY.replace("FULLOUTPUT:N", "FULLOUTPUT:Y") + "DEVIANCE:9252\nDF:2\n")
    compare = Numbers(check, name)
    final = phases["final"]
    compare.phase(final, r)
    compare.effects(phases["least_squares"]["fixed_effects"], r,
                    (("model_based", "leastsquares"), ("robust", "leastsquaresrobust")))
    compare.same("deviance of least squares", phases["least_squares"]["deviance"], r.lsdeviance, 5)
    for phase in text["phases"]:
        compare.criteria(phase, text["dimensions"]["records"])
    check(text["converged"] and final["converged"] and final["ending"] == "converged", "null: converged")
    test = final["model_comparison"]
    compare.tails("of the deviances", test, (r.comparison[1], r.comparison[0], r.comparison[2]))
    check(test["impossible"] is None and test["mixture_p"] is None and text["warnings"] == [], f"null: {test}")
    s, p, b = r.sigma2, r.taupi[0][0], r.taubeta[0][0]
    for key, share in (("share_level1", s), ("share_level2", p), ("share_level3", b), ("same_level3_unit", b),
                       ("same_level2_unit", p + b)):
        compare.same(key, final["intraclass_correlation"][key], share / (s + p + b), 5)

    # One parameter less: a variance, perhaps, half of whose statistics are 0. Then a larger model that fits worse.
    for deviance, df, impossible in ((final["deviance"] + 2.7055, 3, False), (final["deviance"] - 2.0, 3, True),
                                     (final["deviance"] + 2.0, 4, True)):
        text, phases, _ = run(check, place, "compared", EMPTY + f"DEVIANCE:{deviance}\nDF:{df}\n")
        test = phases["final"]["model_comparison"]
        check((test["p"] is None) == impossible == (test["impossible"] is not None) == (len(text["warnings"]) == 1),
              f"compared: {test}, {text['warnings']}")
        if not impossible:
            check(abs(test["p"] - 0.1) < 1e-5 and abs(test["mixture_p"] - 0.05) < 1e-5, f"compared: {test}")

    text, phases, r = run(check, place, "linear", model(options="FISHERTYPE:2\n"))
    compare = Numbers(check, "linear")
    compare.phase(phases["final"], r)
    compare.criteria(phases["final"], text["dimensions"]["records"])
    compare.equal("tests", [(t["number"], t["standard_errors_by"]) for t in phases["final"]["hypothesis_tests"]],
                  [(1, "model_based"), (2, "model_based"), (1, "robust"), (2, "robust")])
    check(phases["final"]["intraclass_correlation"] is None, "linear: no null model, but a correlation")
    equations = text["model"]["equations"]
    compare.equal("random coefficients", [e["random"] for e in equations], [True, False, True])
    compare.equal("terms", [t["centering"] for t in equations[0]["terms"]], ["none", "grand mean"])
    compare.equal("effects", [f["fixed_effect"] for e in equations for t in e["terms"] for f in t["effects"]],
                  list(range(5)))
    compare.equal("files", text["files"], ["out.txt", "newcmd.kdr"])
    table(check, place, text, "linear")

    text, phases, _ = run(check, place, "stopped", re.sub("NUMIT.*", "NUMIT:1,N", model()) +
                          "GRAPHGAMMAS:g.bin\nPRINTVARIANCE-COVARIANCE:Y\n", words=["-strict"], code=20)
    check(not text["converged"] and not phases["final"]["converged"] and phases["final"]["ending"] == "limit",
          "stopped: not told")
    check({"g.bin", "tauvc.dat", "gamvc.dat", "gamvcr.dat", "newcmd.kdr"} <= set(text["files"]), f"files {text['files']}")
    text, phases, _ = run(check, place, "het", model() + "HETIT:3\n")
    check(list(phases) == ["heterogeneous", "final"], f"heterogeneous: {list(phases)}")
    check(phases["heterogeneous"]["parameters"] > phases["final"]["parameters"], "heterogeneous: parameters")


def others(check, place):
    scale = "FIXSIGMA2:1.0\n"
    engines = "LAPLACE:Y,60\nAGQ:Y,60,5\nFULLOUTPUT:Y\n"
    smaller = lambda text: text.replace("LEVEL2:GCSECNT=INTRCPT2+RANDOM/", "LEVEL2:GCSECNT=INTRCPT2/")
    thresholds = lambda n: re.sub("(?m)$(?=\n)", ",0" * n, HYPOTHESES)
    for name, text, sections in (
            ("bernoulli", smaller(nonlinear("BERNOULLI", options=scale + engines)),
             ["linear", "unit-specific", "laplace", "quadrature", "population-average"]),
            ("ordinal", nonlinear("ORDINAL,3", hypotheses=thresholds(1)), ["categories"]),
            ("multinomial", nonlinear("MULTINOMIAL,3", hypotheses=thresholds(5)), ["categories"]),
            ("poisson", nonlinear("POISSON"), ["unit-specific", "population-average"])):
        text, phases, r = run(check, place, name, text)
        found = report.splitsections(r.text)
        check(list(found) == sections and list(phases) == [SECTIONS[s] for s in sections], f"{name}: {list(phases)}")
        for section in sections:
            phase = phases[SECTIONS[section]]
            Numbers(check, f"{name}, {section}").phase(phase, found[section])
            if section in ("laplace", "quadrature"):
                Numbers(check, f"{name}, {section}").criteria(phase, text["dimensions"]["records"])
                gap = phase["marginal_log_likelihood"] - phase["log_likelihood"]
                if section == "quadrature":
                    check(phase["points"] == 5 and phase["check"]["points"] == 7, f"{name}: points, {phase['check']}")
                check(not any(sum(phase["tau_pi"]["at_edge"], [])), f"{name}, {section}: at the edge")
                check(abs(gap - text["dimensions"]["records"] / 2 * math.log(2 * math.pi)) < 1e-5, f"{name}: marginal")
        # Five macro iterations are few: the text and the document agree on whether they were enough.
        stopped = "macro iterations were stopped prior to convergence" in r.text
        check(phases["pql"]["converged"] is not stopped, f"{name}: converged {phases['pql']['converged']}")
        check(not (stopped and text["converged"]), f"{name}: converged as a whole")
        table(check, place, text, name)
    text, phases, _ = run(check, place, "given up", nonlinear("BERNOULLI", options=scale + "LAPLACE:Y,60\nAGQNODES:FIXED\n"))
    check("laplace6" not in phases and not text["converged"] and "Laplace-6" in text["warnings"][0], "given up: not told")
    text, _, r = run(check, place, "compared", nonlinear("BERNOULLI", options=scale + "DEVIANCE:900\nDF:3\n"))
    check("has no deviance to compare" in text["warnings"][0] and "DEVIANCE: has no effect" in r.text, "compared: not told")


def series(check, place):
    for kind, text in (("linear", model()), ("bernoulli", nonlinear("BERNOULLI", options="FIXSIGMA2:1.0\n"))):
        check(place.series(text + "RESULTS:mi.json\n", IMPUTED) == [0] * 5, f"{kind}: codes of the imputations")
        stopped = []
        for k in range(1, 6):
            one, phases = document(check, place, f"mi_{k}.json")
            stopped += [] if one["converged"] else [str(k)]
            check(one["series"]["subrun"] == k and "average" not in phases, f"{kind}: sub-run {k}")
        r = report.read(place.folder / f"out.{5}")
        if kind == "linear":
            Numbers(check, "last sub-run").phase(phases["final"], r)
        whole, phases = document(check, place, "mi.json", converged=not stopped, files=["out.avg"])
        told = [f"Sub-runs whose iterations were stopped prior to convergence: {' '.join(stopped)}"] if stopped else []
        check(whole["warnings"] == told and (not told or f"WARNING: {told[0]}" in place.read("out.avg")), f"{kind}: {whole['warnings']}")
        check(whole["series"]["subrun"] is None and phases["average"]["subruns"] == 5, f"{kind}: averages")
        check(whole["series"]["subruns"] == [{"subrun": k, "plausible_value": None, "results": f"mi_{k}.json"} for k in range(1, 6)],
              f"{kind}: documents of the sub-runs")
        if kind == "linear":
            Numbers(check, "averages").phase(phases["average"], place.averaged())
        else:
            Numbers(check, "averages").effects(phases["average_population_average"]["fixed_effects"], place.averaged(),
                                               (("model_based", "final"), ("robust", "robust")))
    codes = place.series(model() + "RESULTS:broken.json\n", IMPUTED[:2] + ["const"])
    check(codes[:2] == [0, 0] and codes[2] != 0 and not place.exists("broken_3.json"), f"a last failure: {codes}")
    whole, phases = document(check, place, "broken.json")
    check(whole["series"]["failed_subruns"] == [3] and phases["average"]["subruns"] == 2
          and [run["subrun"] for run in whole["series"]["subruns"]] == [1, 2], "a last failure: the averages")
    place.write("pv.kdr", model(outcome="SC1", predictors="FEMALE+GC1", plausvals="PLAUSVALS:SC1,SC2,SC3\n",
                                output="pv.txt") + "RESULTS:never.json\n")
    done = place.run("-results", "pv.json", "pv.mdm", "pv.kdr")
    told = "RESULTS:never.json has no effect: -results names pv.json."
    check(done.returncode == 0 and not place.exists("never.json") and done.stdout.count(told) == 1 and told in " ".join(place.read("pv.1").split())
          and told in json.loads(place.read("pv_1.json"))["warnings"], "plausible values: -results does not win, or silently")
    for k in range(1, 4):
        r = report.read(place.folder / f"pv.{k}")
        one, phases = document(check, place, f"pv_{k}.json", converged=r.stopped == "converged")
        check(one["series"]["plausible_value"] == f"SC{k}", f"plausible value {k}")
        Numbers(check, f"plausible value {k}").phase(phases["final"], r)
    _, phases = document(check, place, "pv.json")
    Numbers(check, "plausible values").phase(phases["average"], place.averaged("pv.avg"))


def failures(check, place):
    """An older file stays as it was when the run fails, no name serves twice, and only results give way to results."""
    old = '{\n "format": "kdr3 results"}'
    place.write("old.json", old)
    place.write("imp1.csv", "school,score\n1,2\n")
    place.write("zeros.csv", "\0\0\0\0")
    for name, text, words, told in (
            ("collinear", model().replace("LEVEL2:FEMALE=INTRCPT2", "LEVEL2:FEMALE=INTRCPT2+SCHGCSE"), (), ""),
            ("report", model(output="old.json"), (), "has the name of another file of this run"),
            ("input", model(), ("-results", "imp1.mdm"), "is an input file of this run"),
            ("raw data", model(), ("-results", "imp1.csv"), "imp1.csv holds no results of this program"),
            ("other data", model(), ("-results", "zeros.csv"), "zeros.csv holds no results of this program"),
            ("folder", model(), ("-results", "none/out.json"), "none/out.json"),
            ("template", model(), ("-r", "imp1.mdmt", "-results", "x.json"), "goes with a model")):
        place.write(name + ".kdr", text + "RESULTS:old.json\n")
        mdm = "const.mdm" if name == "collinear" else "imp1.mdm"
        done = place.run(*words, mdm, name + ".kdr")
        check(done.returncode != 0 and told in done.stdout, f"{name}: code {done.returncode} {done.stdout[-300:]}")
        check(place.read("old.json") == old and place.read("imp1.csv")[:6] == "school", f"{name}: a file is another")
        check(not list(place.folder.glob("*.part*")), f"{name}: an unfinished file")


def main():
    check = Checks()
    place = Place(sys.argv[1])
    for part in (linear, others, series, failures):
        part(check, place)
    check.finish()


if __name__ == "__main__":
    main()
