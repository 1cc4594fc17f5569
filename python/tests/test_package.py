"""The package: beside the program, over kinds of tables, with bad calls, in threads, interrupted, saved.

    test_package.py <program> <folder of the source tree>     with PYTHONPATH and KDR3_LIBRARY set
"""
import copy
import csv
import datetime
import decimal
import json
import os
import pathlib
import pickle
import signal
import subprocess
import sys
import tempfile
import threading
import unittest
import warnings

import numpy as np

import cases
import kdr3
from kdr3 import _fit

try:
    import pandas
except ImportError:
    pandas = None

PROGRAM, TREE = os.path.abspath(sys.argv.pop(1)), pathlib.Path(sys.argv.pop(1)).resolve()
REFERENCE = TREE / "tests" / "reference"
sys.path.insert(0, str(REFERENCE))
import restrictedstudies  # noqa: E402
warnings.simplefilter("ignore", kdr3.KDR3Warning)
LINEAR = "score ~ year + ses + (year | school/pupil)"


def growth():
    return cases.read(REFERENCE / "formulas" / "growth.csv")


def byprogram(formula, data, *words):
    """The results document of -fit, of its last phase; the names that its variables have in the formula."""
    with tempfile.TemporaryDirectory() as folder:
        done = subprocess.run([PROGRAM, "-q", "-fit", formula, str(REFERENCE / "formulas" / data), "-o", "f", *words], cwd=folder,
                              capture_output=True, text=True)
        assert done.returncode == 0, done.stdout
        document = json.loads(pathlib.Path(f"{folder}/f.json").read_text())
    phases = {phase["phase"]: phase for phase in document["phases"]}
    return next(phases[name] for name in ("quadrature", "laplace6", "final", "pql") if name in phases)


class Models(unittest.TestCase):
    def test_same_digits_as_the_header(self):
        if header := os.environ.get("KDR3_CASES"):
            self.assertEqual(subprocess.run([header, REFERENCE], capture_output=True, text=True).stdout, (REFERENCE / "samecases.out").read_text())
        self.assertEqual(list(cases.lines(REFERENCE)), (REFERENCE / "samecases.out").read_text().splitlines())

    def test_beside_the_program(self):
        for formula, data, given, words in (
                (LINEAR, "growth.csv", {}, ()),
                ("score ~ year*sex + factor(arm) + (1 | school/pupil)", "growth.csv", {}, ()),
                ("score ~ year + (1 | school)", "growth.csv", {"weights1": "weeks"}, ("-weights1", "weeks")),
                ("books ~ year + (1 | school/pupil)", "growth.csv", {"family": "poisson", "exposure": "weeks"},
                 ("-family", "poisson", "-exposure", "weeks")),
                ("incidence ~ factor(period) + (1 | herd)", "cbpp.csv", {"family": "binomial", "trials": "size"},
                 ("-family", "binomial", "-trials", "size"))):
            phase = byprogram(formula, data, *words)
            m = kdr3.fit(formula, cases.read(REFERENCE / "formulas" / data), **given)
            rows = phase["fixed_effects"]
            theirs = [("params", [r["estimate"] for r in rows]), ("bse", [r["model_based"]["standard_error"] for r in rows])]
            if rows[0]["robust"]:
                theirs.append(("bse_robust", [r["robust"]["standard_error"] for r in rows]))
            for name, values in theirs:
                np.testing.assert_allclose(sorted(np.asarray(getattr(m, name))), sorted(values), rtol=1e-9, err_msg=formula)
            np.testing.assert_allclose(sorted(np.asarray(m.pvalues)), sorted(r["model_based"]["p"] for r in rows), rtol=1e-6, atol=1e-250)
            np.testing.assert_allclose(m.llf, phase["log_likelihood"] if given == {} or "weights1" in given else phase["marginal_log_likelihood"], rtol=1e-12)
            np.testing.assert_allclose([m.aic, m.bic], [phase["aic"], phase["bic"]], rtol=1e-12)
            # the program rounds the point of t up to three decimals
            np.testing.assert_allclose(np.asarray(m.conf_int()), sorted_intervals(rows, m), rtol=2e-3, atol=1e-3 * max(m.bse))

    def test_categories(self):
        data = cases.read(REFERENCE / "formulas" / "growth.csv")
        m = kdr3.fit("arm ~ year + ses + (1 | school)", data, family="multinomial")
        self.assertEqual(list(m.params.index), [f"{name}[{s}]" for s in (1, 2) for name in ("(Intercept)", "year", "ses")])
        if pandas is not None:
            self.assertEqual(list(m.cov_re["school"].index), ["(Intercept)[1]", "(Intercept)[2]"])
        self.assertEqual(np.asarray(m.random_effects["school"]).shape, (50, 2))
        self.assertIn("[1] books, [2] none; reference tutor", str(m.summary()))
        words = np.array(["low", "mid", "high"], dtype=object)[np.arange(len(data["ses"])) % 3]
        m = kdr3.fit("o ~ ses + (1 | school)", {**data, "o": words}, family="ordinal", engine="pql")
        self.assertIn("ordered by the alphabet: high < low < mid", " ".join(m.warnings))
        m = kdr3.fit("factor(tries) ~ ses + year + (1 | school)", data, family="ordinal")
        self.assertEqual(list(m.params.index)[:4], ["(Intercept)", "ses", "year", "threshold2"])
        self.assertLess(m.params["(Intercept)"], m.params["threshold2"] + m.params["(Intercept)"])

    def test_a_posterior_is_a_regression_that_is_shrunken(self):
        """Of a balanced model of intercepts: u = tau / (tau + s/n) times the unit's mean residual, var = tau s/n / (tau + s/n)."""
        draw = np.random.default_rng(3)
        group, n = np.repeat(np.arange(30), 8), 8
        y = draw.normal(size=240) + draw.normal(size=30)[group]
        m = kdr3.fit("y ~ 1 + (1 | g)", {"y": y, "g": group})
        tau, share = np.asarray(m.cov_re["g"])[0, 0], m.scale / n
        means = np.array([y[group == k].mean() for k in range(30)]) - np.asarray(m.params)[0]
        u = np.asarray(m.random_effects["g"])[:, 0]
        np.testing.assert_allclose(u, tau / (tau + share) * means, rtol=1e-9)
        np.testing.assert_allclose(m.random_effects_cov["g"][:, 0, 0], tau * share / (tau + share), rtol=1e-9)
        np.testing.assert_allclose(np.asarray(m.fittedvalues), np.asarray(m.params)[0] + u[group], rtol=1e-12)
        np.testing.assert_allclose(np.asarray(m.resid), y - np.asarray(m.fittedvalues), atol=1e-12)

    def test_predictions(self):
        data = growth()
        m = kdr3.fit("score ~ poly(year, 2)*sex + scale(ses) + log(weeks) + (year | school/pupil)", data)
        whole = np.asarray(m.predict())
        rows = np.asarray(m.predict().index)
        few = rows[[5, 900, 77]]
        np.testing.assert_allclose(np.asarray(m.predict({k: v[few] for k, v in data.items()})), whole[[5, 900, 77]], rtol=1e-12)
        texts = {**{k: v[few] for k, v in data.items()}, "pupil": np.array([str(int(x)) for x in data["pupil"][few]], dtype=object)}
        np.testing.assert_array_equal(np.asarray(m.predict(texts)), np.asarray(m.predict({k: v[few] for k, v in data.items()})))
        means = kdr3.fit("score ~ center(ses, school) + mean(ses, school) + (1 | school)", data)
        np.testing.assert_allclose(np.asarray(means.predict({k: v[few] for k, v in data.items()})), np.asarray(means.predict()[few]), rtol=1e-12)
        strange = {k: v[few].copy() for k, v in data.items()}
        strange["school"][0], strange["sex"][1], strange["ses"][2] = "new", "other", np.nan
        with self.assertWarnsRegex(kdr3.KDR3Warning, "2 of 3 rows have no prediction"):
            made = np.asarray(m.predict(strange))
        strange["school"][0] = None
        with self.assertWarnsRegex(kdr3.KDR3Warning, "1 of 3 rows do not tell their unit of school"):
            m.predict(strange)
        self.assertTrue(np.isnan(made[1:]).all())
        np.testing.assert_allclose(made[0], np.asarray(m.predict(effects="fixed"))[5], rtol=1e-12)
        for text, given in (("books ~ year + offset(log(weeks)) + (1 | school)", {}), ("books ~ year + (1 | school)", {"exposure": "weeks"}),
                            ("books ~ year + (1 | school)", {"offset": np.log(data["weeks"])})):
            counts = kdr3.fit(text, data, family="poisson", **given)
            alike = np.asarray(counts.predict())
            np.testing.assert_allclose(alike, np.asarray(counts.fittedvalues), rtol=1e-12)
            self.assertLess(abs(alike.sum() / data["books"].sum() - 1), 0.02)
            if "offset" in given:
                with self.assertRaisesRegex(kdr3.KDR3Error, "no column .offset"):
                    counts.predict(data)
            else:
                np.testing.assert_allclose(np.asarray(counts.predict(data)), alike, rtol=1e-12)
        less = kdr3.fit("score ~ ses + offset(2 * year) + (1 | school)", data)
        np.testing.assert_allclose(np.asarray(less.predict({k: v[few] for k, v in data.items()})), np.asarray(less.predict()[few]), rtol=1e-12)
        b = kdr3.fit("passed ~ year + (1 | school/pupil)", data, family="binomial", points=7)
        eta, variance = np.asarray(b.predict(kind="link", effects="fixed")), sum(np.asarray(t)[0, 0] for t in b.cov_re.values())
        x = np.linspace(-9, 9, 4001)
        weights = np.exp(-x * x / 2) / np.exp(-x * x / 2).sum()
        exact = [(weights / (1 + np.exp(-e - np.sqrt(variance) * x))).sum() for e in eta[:5]]
        np.testing.assert_allclose(np.asarray(b.predict(effects="population"))[:5], exact, rtol=1e-9)

    def test_predictions_are_those_of_the_program(self):
        """Rows of known units, of a new one within a known one, and of new ones: values and errors of -predict."""
        table = ("school,pupil,year,ses,tries,weeks,right\nS01,1,0,0.5,3,2,1\nS01,999,1,-1,3,2,2\nS77,1,2,0,3,4,3\nS02,2,3,1,3,1,1\n")
        data = growth()
        data["band"] = 3.0 + (data["hours"] > 5) + (data["ses"] + data["year"] > 2)
        draw, units = np.random.default_rng(5), {"w1": np.arange(len(data["year"])), "w3": np.unique(data["school"].astype(str), return_inverse=True)[1]}
        units["w2"] = np.unique(1000 * units["w3"] + data["pupil"], return_inverse=True)[1]
        data.update((name, np.round(draw.uniform(0.5, 4, unit.max() + 1)[unit], 3)) for name, unit in units.items())
        weights = {"weights1": "w1", "weights2": "w2", "weights3": "w3"}
        for formula, given in (("score ~ year + ses + (year | school/pupil)", {}),
                               ("passed ~ year + (1 | school/pupil)", {"family": "binomial"}),
                               ("passed ~ year + (1 | school)", {"family": "binomial", "engine": "laplace6"}),
                               ("books ~ year + (year | school)", {"family": "poisson", "exposure": "weeks"}),
                               ("band ~ ses + year + (year | school)", {"family": "ordinal"}),
                               ("band ~ ses + (1 | school/pupil)", {"family": "multinomial"}),
                               ("score ~ year + ses + (year | school/pupil)", weights),
                               ("score ~ ses + (1 | school)", {"weights1": "w1", "weights2": "w3"}),
                               ("passed ~ year + (1 | school/pupil)", {"family": "binomial", "engine": "pql", **weights}),
                               ("passed ~ year + (1 | school/pupil)", {"family": "binomial", **weights})):
            with tempfile.TemporaryDirectory() as folder:
                place = pathlib.Path(folder)
                (place / "new.csv").write_text(table)
                with open(place / "growth.csv", "w", newline="") as file:
                    csv.writer(file).writerows([list(data), *zip(*(["" if x is None or x != x else x for x in values] for values in data.values()))])
                options = [word for name, value in given.items() for word in (f"-{name}", value)]
                done = subprocess.run([PROGRAM, "-q", "-fit", formula, "growth.csv", "-o", "f", "-predict", "new.csv", *options], cwd=folder, capture_output=True, text=True)
                self.assertEqual(done.returncode, 0, done.stdout)
                rows, new = list(csv.DictReader(open(place / "f_predictions.csv"))), cases.read(place / "new.csv")
            m = kdr3.fit(formula, data, **given)
            for name, kind, effects in (("linear", "link", "fixed"), ("response", "response", "fixed"), ("average", "response", "population"),
                                        ("unit_linear", "link", "unit"), ("unit_response", "response", "unit")):
                made = m.predict(new, kind, effects, se=True)
                for part, column in (("predicted", name), ("se", f"{name}_se")):
                    theirs = [float(row[column]) for row in rows if row[column]]
                    tolerance = 1e-6 if part == "se" and m.engine == "pql" else 1e-12  # modes of quasi-likelihood
                    np.testing.assert_allclose(np.asarray(made[part]).ravel(), theirs, rtol=tolerance, err_msg=f"{formula} {column}")
            if m.categories:
                self.assertEqual([row["category"] for row in rows[:len(m.categories)]], m.categories)

    def test_predictions_of_categories(self):
        """By their formulas from params and random_effects; the same counted as they are simulated."""
        data = growth()
        data = {name: values[~np.isnan(data["score"])] for name, values in data.items()}
        bands = np.array(["low", "mid", "top"], dtype=object)[(data["score"] > 50).astype(int) + (data["score"] > 60)]
        order = np.random.default_rng(2).permutation(len(bands))
        mixed = {name: values[order] for name, values in {**data, "band": bands}.items()}
        group = np.unique(mixed["school"].astype(str), return_inverse=True)[1]
        for family in ("ordinal", "multinomial"):
            m = kdr3.fit("band ~ year + ses + (year | school)", mixed, family=family, engine="pql")
            b, u = np.asarray(m.params), np.asarray(m.random_effects["school"])[group]
            X, Z = np.column_stack([np.ones(len(order)), mixed["year"], mixed["ses"]]), np.column_stack([np.ones(len(order)), mixed["year"]])
            if family == "ordinal":
                eta = (X @ b[:3] + (Z * u).sum(axis=1))[:, None] + [0.0, b[3]]
                below = 1 / (1 + np.exp(-eta))
                p = np.column_stack([below[:, 0], below[:, 1] - below[:, 0], 1 - below[:, 1]])
            else:
                eta = np.column_stack([X @ b[:3] + (Z * u[:, :2]).sum(axis=1), X @ b[3:] + (Z * u[:, 2:]).sum(axis=1)])
                e = np.exp(np.column_stack([eta, np.zeros(len(order))]))
                p = e / e.sum(axis=1, keepdims=True)
            self.assertEqual(m.categories, ["low", "mid", "top"])
            np.testing.assert_allclose(np.asarray(m.fittedvalues), p, rtol=1e-10)
            np.testing.assert_allclose(np.asarray(m.predict(mixed)), p, rtol=1e-10)
            np.testing.assert_allclose(np.asarray(m.predict(kind="link")), eta, rtol=1e-9, atol=1e-9)
            if pandas is not None:
                self.assertEqual((list(m.predict().columns), list(m.predict(kind="link").columns)), (["low", "mid", "top"], ["low", "mid"]))
                self.assertEqual(list(m.predict(mixed, se=True)["se"].columns), ["low", "mid", "top"])
            seen = mixed["band"][:, None] == np.array(m.categories, dtype=object)
            np.testing.assert_allclose(np.asarray(m.resid), seen - p, atol=1e-10)
            np.testing.assert_allclose(np.asarray(m.residuals("pearson")), (seen - p) / np.sqrt(p * (1 - p)), atol=1e-8)
            # the delta method by differences, of effects="fixed"
            def response(b):
                eta = X[:5] @ b[:3, None] + [0.0, b[3]] if family == "ordinal" else np.column_stack([X[:5] @ b[:3], X[:5] @ b[3:]])
                if family == "ordinal":
                    below = np.column_stack([1 / (1 + np.exp(-eta)), np.ones(5)])
                    return np.diff(below, axis=1, prepend=0)
                e = np.exp(np.column_stack([eta, np.zeros(5)]))
                return e / e.sum(axis=1, keepdims=True)
            made = m.predict(effects="fixed", se=True)
            steps = [(response(b + h) - response(b - h)) / 2e-6 for h in 1e-6 * np.eye(len(b))]
            error = np.sqrt(np.einsum("iak,ij,jak->ak", steps, np.asarray(m.cov_params()), steps))
            np.testing.assert_allclose(np.asarray(made["predicted"])[:5], response(b), rtol=1e-9)
            np.testing.assert_allclose(np.asarray(made["se"])[:5], error, rtol=1e-6)
            drawn = m.simulate(200, seed=1)
            shares = np.array([(drawn == k).mean(axis=1) for k in range(3)]).T
            self.assertLess(np.abs(shares - np.asarray(m.predict(effects="population"))).mean(), 0.03)

    def test_errors_of_units_are_those_of_the_mixed_model_equations(self):
        """Of the working model of quasi-likelihood: rows of (x z) times the inverse of [X Z]'W[X Z] / s2 + [0, 1 / tau]."""
        data = growth()
        group = np.unique(data["school"].astype(str), return_inverse=True)[1]
        for dispersed in (False, True):
            m = kdr3.fit("cbind(right, tries - right) ~ year + ses + (1 | school)", data, family="binomial", engine="pql",
                         settings={"FIXSIGMA2": 0} if dispersed else {})
            self.assertEqual((m.scale != 1.0, "Residual" in list(m.variances["group"])), (dispersed, dispersed))
            design = np.column_stack([np.ones(len(group)), data["year"], data["ses"], group[:, None] == np.arange(50)])
            mean = np.asarray(m.fittedvalues)
            weight = data["tries"] * mean * (1 - mean) / m.scale
            equations = design.T @ (weight[:, None] * design) + np.diag([0.0] * 3 + [1 / np.asarray(m.cov_re["school"])[0, 0]] * 50)
            error = np.sqrt(np.einsum("ij,jk,ik->i", design, np.linalg.inv(equations), design))
            np.testing.assert_allclose(np.asarray(m.predict(kind="link", se=True)["se"]), error, rtol=1e-5)
            pearson = (data["right"] - data["tries"] * mean) / np.sqrt(m.scale * data["tries"] * mean * (1 - mean))
            np.testing.assert_allclose(np.asarray(m.residuals("pearson")), pearson, atol=1e-9)
        with self.assertRaisesRegex(kdr3.KDR3Error, "over-dispersion"):
            m.simulate()

    def test_tests_of_contrasts_beside_others(self):
        """By F with ddf, as pbkrtest (Kenward and Roger) and lmerTest have them, and of robust errors with CR2."""
        theirs = {}
        for line in (REFERENCE / "restricted.out").read_text().splitlines() + (REFERENCE / "cr2.out").read_text().splitlines():
            study, what, *values = line.split()
            theirs[what, study] = [float(value) for value in values]
        contrasts = {2: [[0, 1, 0, 0, 0], [0, 0, 0, 0, 1]], 3: [[0, 1, 0, 0, 0], [0, 0, 1, 0, 0], [0, 0, 0, 1, 1]]}
        text = {"intercepts": "(1 | k/j)", "slope2": "(1 | k) + (X | k:j)", "slopes": "(X | k/j)"}
        for study in (2, 7, 18):
            data = dict(zip("kjYXZQ", np.array(restrictedstudies.rows(study)).T))
            def fit(**given):
                return kdr3.fit("Y ~ Q + Z + X + X:Q + " + text[restrictedstudies.describe(study)[1]["model"]], data, reml=True, **given)
            kr, fai = fit(ddf="kenward-roger"), fit(ddf="satterthwaite", settings={"CR2": 1, "DDFOBSERVED": 1})
            for r, C in contrasts.items():
                made, (_, df2, F, _) = kr.wald_test(C), theirs[f"kr{r}", f"{study}"]
                np.testing.assert_allclose([made["df"], made["df2"], made["chi_square"] / r], [r, df2, F], rtol=5e-3)
                made, (df2, F) = fai.wald_test(C), theirs[f"fai{r}", f"{study}"]
                np.testing.assert_allclose([made["df2"], made["chi_square"] / r], [df2, F], rtol=5e-3)
                made, (df2, F) = fai.wald_test(C, robust=True), theirs[f"cr2F{r}", f"{study}"]
                np.testing.assert_allclose([made["df2"], made["chi_square"] / r], [df2, F], rtol=2e-3)
            terms = kr.anova()
            self.assertEqual(list(terms["term"]), ["Q", "Z", "X", "Q:X"])
            np.testing.assert_allclose(np.asarray(terms["p"], float), np.asarray(kr.pvalues)[1:], rtol=1e-6)  # F of one contrast is t squared
            np.testing.assert_allclose(np.asarray(terms["df2"], float), np.asarray(kr.df)[1:], rtol=1e-6)

    def test_an_ordinal_model_beside_clmm(self):
        theirs = {line.split()[0]: np.array(line.split()[1:], dtype=float) for line in (REFERENCE / "categoryfits.out").read_text().splitlines()}
        data = growth()
        data["band"] = np.where(np.isnan(data["score"]), np.nan, 1 + (data["score"] > 50) + (data["score"] > 60))
        m = kdr3.fit("band ~ year + ses + (1 | school)", data, family="ordinal", engine="laplace")
        self.assertEqual(m.categories, ["1", "2", "3"])
        b = np.asarray(m.params)
        np.testing.assert_allclose([b[0], b[0] + b[3], -b[1], -b[2]], theirs["coefficients"], rtol=1e-4)
        self.assertAlmostEqual(m.llf, theirs["loglikelihood"][0], 5)
        p, rows = np.asarray(m.fittedvalues), np.asarray(m.resid) > 0
        np.testing.assert_allclose(p[rows][[*range(8), 699, 1499]], theirs["fitted"], rtol=1e-4)
        np.testing.assert_allclose(-np.asarray(m.random_effects["school"])[:6, 0], theirs["modes"], atol=1e-4)
        np.testing.assert_allclose(m.random_effects_cov["school"][:6, 0, 0], theirs["variances"], rtol=1e-4)

    def test_pooled_beside_the_series(self):
        """Averages of imputed tables are those of a series of the program over the same data sets."""
        tables = imputed()
        for formula, given, words, hypotheses in (
                ("score ~ female + gcsecnt + (gcsecnt | lea/school)", {}, (), ((0, 1, 0), (0, 0, 1))),
                ("score ~ female + gcsecnt + (1 | lea)", {"reml": True, "ddf": "kenward-roger"}, ("-keyword", "LIKELIHOOD:REML", "-keyword", "DDF:KENWARDROGER"),
                 ((0, 1, 0),)),
                ("pass ~ female + gcsecnt + (1 | lea/school)", {"family": "binomial", "points": 7}, ("-family", "binomial", "-engine", "quadrature", "-points", "7"),
                 ((0, 1, 0), (0, 0, 1)))):
            with tempfile.TemporaryDirectory() as folder:
                phase = byseries(folder, formula, tables, words, hypotheses)
            pooled = kdr3.fit(formula, tables, **given)
            for robust, side in ((False, "model_based"), (True, "robust")):
                ours = pooled.tidy(["fixed"], True, robust=robust)
                names = ("standard_error", "t", "df", "p", "missing_information")
                for ours_, name in zip(("std.error", "statistic", "df", "p.value", "fmi"), names):
                    np.testing.assert_allclose(np.asarray(ours[ours_], float), [row[side][name] for row in phase["fixed_effects"]], rtol=1e-7, err_msg=formula + name)
                test = next(one for one in phase["hypothesis_tests"] if one["standard_errors_by"] == side)
                made = pooled.wald_test(hypotheses, robust=robust)
                np.testing.assert_allclose([made[name] for name in ("chi_square", "df", "df2", "p")], [test[name] for name in ("chi_square", "df", "df2", "p")], rtol=1e-7)
            np.testing.assert_allclose(np.asarray(pooled.params), [row["estimate"] for row in phase["fixed_effects"]], rtol=1e-9)
            for level, name in ((2, "tau_pi"), (3, "tau_beta")):
                if phase[name]:
                    np.testing.assert_allclose(pooled._state[f"tau{level}"], phase[name]["estimate"], rtol=1e-8)
                    np.testing.assert_allclose(pooled._state[f"tau{level}_errors"], np.array(phase[name]["standard_error"], float), rtol=1e-6)
            if pooled.family == "gaussian":
                np.testing.assert_allclose([pooled.scale, list(pooled.variances["std_error"])[-1]], [phase["sigma2"][n] for n in ("estimate", "standard_error")], rtol=1e-8)

    def test_pooled(self):
        tables = imputed()
        text = "score ~ female*gcsecnt + (1 | lea/school)"
        pooled, single = kdr3.fit(text, tables), kdr3.fit(text, tables[0])
        new = {name: values[:7] for name, values in tables[0].items()}
        made = pooled.predict(new, kind="link", effects="fixed", se=True)
        X = single._matrix(3, 4, single._newfields(new, False))
        np.testing.assert_allclose(np.asarray(made["predicted"]), X @ np.asarray(pooled.params), rtol=1e-12)
        np.testing.assert_allclose(np.asarray(made["se"]), np.sqrt(np.einsum("ij,jk,ik->i", X, np.asarray(pooled.cov_params()), X)), rtol=1e-9)
        np.testing.assert_allclose(np.asarray(pooled.predict()), np.mean([np.asarray(fit.predict()) for fit in pooled.fits], axis=0), rtol=1e-12)
        terms = kdr3.anova(pooled)
        self.assertEqual(list(terms["term"]), ["female", "gcsecnt", "female:gcsecnt"])
        np.testing.assert_allclose(list(terms["p"])[2], pooled.wald_test([0, 0, 0, 1])["p"], rtol=1e-12)
        # of one contrast the test is that of t squared, but for the degrees of freedom
        np.testing.assert_allclose(list(terms["chi_square"])[2], list(pooled.tvalues)[3] ** 2, rtol=1e-9)
        self.assertIn("<td style='text-align:right'>171 units", pooled._repr_html_().replace("text-align:left'>171", "text-align:right'>171"))
        with self.assertRaisesRegex(kdr3.KDR3Error, "pooled over data sets"):
            kdr3.anova(pooled, single)
        for call in (lambda: pooled.conf_int(2), lambda: pooled.wald_test([[0, 0, 0, 0]]), lambda: pooled.wald_test([1, 0])):
            with self.assertRaises(kdr3.KDR3Error):
                call()
        one = kdr3.fit(text, tables[:1])
        self.assertIn("One table alone", one.warnings[0])
        for name in ("params", "bse", "bse_robust", "df", "pvalues"):
            np.testing.assert_array_equal(np.asarray(getattr(one, name)), np.asarray(getattr(single, name)))
        wide = {**tables[0], **{f"pv{i}": table["score"] for i, table in enumerate(tables, 1)}}
        known = kdr3.fit("score ~ female + (1 | lea)", [{**tables[0], "score": table["score"]} for table in tables])
        for table in (wide, pandas.DataFrame(wide)) if pandas is not None else (wide,):
            values = kdr3.fit("pv1 ~ female + (1 | lea)", table, plausible=["pv1", "pv2", "pv3", "pv4", "pv5"])
            np.testing.assert_allclose(np.asarray(values.cov_params()), np.asarray(known.cov_params()), rtol=1e-9)
        for words, formula, names in (("does not stand in the formula", "score ~ female + (1 | lea)", ["pv1", "pv2"]), ("first plausible value alone", "pv1 ~ pv2 + (1 | lea)", ["pv1", "pv2"]),
                                      ("no column pv9", "pv1 ~ female + (1 | lea)", ["pv1", "pv9"]), ("two or more", "pv1 ~ female + (1 | lea)", ["pv1"])):
            with self.assertRaisesRegex(kdr3.KDR3Error, words):
                kdr3.fit(formula, wide, plausible=names)

    def test_other_models_are_not_pooled(self):
        tables, flat = [growth(), growth()], "sex ~ year + (1 | school)"
        turned = {**tables[0], "sex": np.where(tables[0]["sex"] == "male", "a", tables[0]["sex"])}
        with self.assertRaisesRegex(kdr3.KDR3Error, "categories of the outcome differ"):
            kdr3.fit(flat, [tables[0], turned], family="binomial", engine="pql")
        with self.assertRaisesRegex(kdr3.KDR3Error, "levels of a factor differ"):
            kdr3.fit("score ~ sex + (1 | school)", [tables[0], {**turned, "sex": np.where(turned["sex"] == "a", "male", "b")}])
        with self.assertRaisesRegex(kdr3.KDR3Error, "^Table 2: .* has no column score"):
            kdr3.fit("score ~ sex + (1 | school)", [tables[0], {name: values for name, values in tables[0].items() if name != "score"}])
        fewer = {name: values[:1500] for name, values in tables[0].items()}
        other = kdr3.fit("books ~ year + (1 | school)", [tables[0], fewer])
        self.assertIn("different records: 1604, 1500", other.warnings[0])
        with self.assertRaisesRegex(kdr3.KDR3Error, "different records"):
            other.predict()


def imputed():
    """The five imputations of tests/reference/imputed (imputations.R), with an outcome of two values made of the score."""
    tables = []
    for m in range(5):
        rows = [(x[:4], x[4:10], x[10:13], x[13 + 8 * m:21 + 8 * m], x[53 + 8 * m:61 + 8 * m])
                for x in (REFERENCE / "imputed" / "level1.dat").read_text().splitlines()]
        table = dict(zip(("lea", "school", "female", "score", "gcsecnt"), np.array(rows, dtype=float).T))
        tables.append({**table, "pass": (table["score"] >= 6).astype(float)})
    return tables


def byseries(folder, formula, tables, words, hypothesis):
    """The averages of the program's series over the tables."""
    def run(*call):
        done = subprocess.run([PROGRAM, "-q", *call], cwd=folder, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout
    for k, table in enumerate(tables):
        lines = [",".join(table), *(",".join(f"{x:.12g}" for x in row) for row in zip(*table.values()))]
        pathlib.Path(folder, f"d{k}.csv").write_text("\n".join(lines) + "\n")
        run("-fit", formula, f"d{k}.csv", "-o", f"f{k}", *words)
    contrasts = "".join("GAMMA1:" + ",".join(map(str, row)) + "\n" for row in hypothesis)
    text = pathlib.Path(folder, "f0.kdr").read_text().replace("HYPOTH:N", contrasts + "HYPOTH:N").replace("f0.json", "s.json").replace("f0.txt", "s.txt")
    pathlib.Path(folder, "s.kdr").write_text(text)
    for k in range(len(tables)):
        run(f"-mi{k}", *(["-e"] if k + 1 == len(tables) else []), f"f{k}.mdm", "s.kdr")
    return next(one for one in json.loads(pathlib.Path(folder, "s.json").read_text())["phases"] if one["phase"] == "average")


def sorted_intervals(rows, m):
    """The intervals of a document in the order of the result: those of equal estimates."""
    found = {round(row["estimate"], 9): row["model_based"]["interval"] for row in rows}
    return [found[round(b, 9)] for b in np.asarray(m.params)]


class Tables(unittest.TestCase):
    def test_kinds_of_columns(self):
        data = growth()
        want = kdr3.fit(LINEAR, data).llf
        n = len(data["score"])
        wide = np.zeros((n, 5))
        wide[:, 2] = data["ses"]
        kinds = {
            "strided": {**data, "ses": wide[:, 2]},
            "other bytes": {**data, "year": data["year"].astype(">f8")},
            "small integers": {**data, "year": data["year"].astype(np.int8)},
            "masked": {**data, "score": np.ma.masked_invalid(data["score"])},
            "objects": {**data, "year": np.array([int(x) for x in data["year"]], dtype=object)},
            "large IDs": {**data, "pupil": data["pupil"].astype(np.int64) + 2**60},
            "lists": {name: list(values) for name, values in data.items()},
            "backwards": {name: values[::-1] for name, values in data.items()},
            "bytes": {**data, "school": data["school"].astype("S"), "sex": np.array([x.encode() for x in data["sex"]], dtype=object)},
            "structured": np.array(list(zip(data["score"], data["year"], data["ses"], data["school"], data["pupil"])),
                                   dtype=[("score", "f8"), ("year", "f4"), ("ses", "f8"), ("school", "S4"), ("pupil", "i2")]),
            "decimals": {**data, "year": np.array([decimal.Decimal(int(x)) for x in data["year"]], dtype=object)},
            "large IDs as objects": {**data, "pupil": np.array([int(x) + 2**60 for x in data["pupil"]], dtype=object)},
            "polars": Polars({**data, "pupil": data["pupil"].astype(np.int64) + 2**60}),
            "pyarrow": Arrow({**data, "pupil": data["pupil"].astype(np.int64) + 2**60}),
        }
        if pandas is not None:
            frame = pandas.DataFrame(data)
            kinds["frame"] = frame
            kinds["NA in objects"] = frame.assign(sex=frame["sex"].astype(object), score=[
                pandas.NA if x != x else x for x in frame["score"]])
            kinds["own types"] = frame.assign(score=frame["score"].astype("Float64"), school=frame["school"].astype("category"),
                                              sex=frame["sex"].astype("string"))
            kinds["large IDs with NA"] = frame.assign(pupil=(frame["pupil"].astype("Int64") + 2**60).where(~frame["score"].isna()))
            kinds["interchange"] = Interchange(frame[["score", "year", "ses", "school", "pupil"]])
            kinds["chosen rows"] = pandas.concat([frame, frame.assign(score=1e6)])[lambda f: ~(f["score"] == 1e6)]
        for name, table in kinds.items():
            self.assertAlmostEqual(kdr3.fit(LINEAR, table).llf, want, 7, name)

    def test_factors_of_other_frames(self):
        """A missing value is one; the first category is the reference, wherever it stands first."""
        data = growth()
        texts = data["sex"].copy()
        texts[3] = None
        data["sex"] = texts
        want = kdr3.fit("score ~ sex + (1 | school)", data)
        for frame in (Polars, Arrow):
            m = kdr3.fit("score ~ sex + (1 | school)", frame(data, {"sex": ["male", "female"]}))
            self.assertEqual((list(m.params.index)[1], m.nobs), ("sexfemale", want.nobs), frame)
            self.assertAlmostEqual(m.llf, want.llf, 8)
            self.assertEqual(kdr3.fit("score ~ sex + (1 | school)", frame(data)).nobs, want.nobs)

    def test_factors(self):
        data = growth()
        sex = data["sex"]
        first = kdr3.fit("score ~ sex + (1 | school)", data)
        self.assertEqual(list(first.params.index), ["(Intercept)", "sexmale"])
        flag = kdr3.fit("score ~ man + (1 | school)", {**data, "man": sex == "male"})
        self.assertEqual((list(flag.params.index)[1], flag.llf), ("manTRUE", first.llf))
        if pandas is not None:
            turned = kdr3.fit("score ~ sex + (1 | school)", pandas.DataFrame(data).assign(sex=pandas.Categorical(sex, ["male", "female"])))
            self.assertEqual(list(turned.params.index)[1], "sexfemale")
            self.assertAlmostEqual(turned.params["sexfemale"], -first.params["sexmale"], 8)

    def test_rows_are_those_of_the_table(self):
        data = growth()
        m = kdr3.fit(LINEAR, data)
        np.testing.assert_array_equal(np.asarray(m.fittedvalues.index), np.flatnonzero(~np.isnan(data["score"])))
        order = np.random.default_rng(1).permutation(len(data["score"]))
        mixed = kdr3.fit(LINEAR, {name: values[order] for name, values in data.items()})
        back = dict(zip(order[np.asarray(mixed.fittedvalues.index)], np.asarray(mixed.fittedvalues)))
        np.testing.assert_allclose([back[i] for i in m.fittedvalues.index], np.asarray(m.fittedvalues), rtol=1e-8)
        self.assertEqual(m.units["school:pupil"][0], ("S01", 1))

    def test_told(self):
        with warnings.catch_warnings(record=True) as told:
            warnings.simplefilter("always")
            kdr3.fit(LINEAR, growth())
        self.assertEqual([(w.category, os.path.basename(w.filename)) for w in told], [(kdr3.KDR3Warning, os.path.basename(__file__))])
        self.assertIn("91 of 1604 records", str(told[0].message))


class PolarsSeries:
    """What the package asks of a polars column, by its documentation."""
    def __init__(self, values, dtype):
        self.values, self.dtype = values, dtype
        self.cat = self if dtype.startswith("Enum") else None

    def to_physical(self):
        raise AssertionError("how categories are numbered inside is not told")

    def get_categories(self):
        return PolarsSeries(np.array(["male", "other", "female"], dtype=object), "String")

    def cast(self, kind):
        return PolarsSeries(self.values, "String")

    def to_list(self):
        return self.values.tolist()

    def is_null(self):
        return PolarsSeries(np.array([x is None for x in self.values]), "Boolean")

    def fill_null(self, by):
        return PolarsSeries(np.array([by if x is None else x for x in self.values]), self.dtype)

    def to_numpy(self):
        missing = [x is None for x in self.values]
        return self.values.astype(float) if any(missing) and self.dtype.startswith("Int") else self.values


class Polars:
    def __init__(self, data, categories={}):
        self.columns = list(data)
        kinds = {"i": "Int64", "f": "Float64", "O": "String"}
        self.data = {name: PolarsSeries(values, "Enum(...)" if name in categories else kinds[values.dtype.kind]) for name, values in data.items()}

    def __getitem__(self, name):
        return self.data[name]


class ArrowArray:
    """What the package asks of a column of pyarrow, by its documentation: of a chunked one, or one piece."""
    def __init__(self, values, labels=None):
        self.values, self.type = values, {"i": "int64", "f": "double", "O": "string", "b": "bool"}[values.dtype.kind]
        if labels:
            self.dictionary, self.indices = ArrowArray(np.array(labels, dtype=object)), ArrowArray(
                np.array([None if x is None else labels.index(x) for x in values], dtype=object))

    def combine_chunks(self):
        return self

    def to_pylist(self):
        return list(self.values)

    def is_null(self):
        return ArrowArray(np.array([x is None for x in self.values]))

    def fill_null(self, by):
        return ArrowArray(np.array([by if x is None else x for x in self.values]))

    def to_numpy(self, zero_copy_only=True):
        assert not zero_copy_only
        return self.values


class Arrow:
    def __init__(self, data, categories={}):
        self.column_names, self.columns = list(data), list(data.values())
        self.data = {name: ArrowArray(values, categories.get(name)) for name, values in data.items()}

    def __getitem__(self, name):
        return self.data[name]


class Interchange:
    """A table that has the protocol alone."""
    def __init__(self, frame):
        self.frame = frame

    def __dataframe__(self, nan_as_null=False, allow_copy=True):
        return self.frame.__dataframe__(nan_as_null, allow_copy)


class Labelled:
    """As a frame's column of categories, two of which are written alike."""
    class cat:
        categories, codes = [1, "1"], None

    def __init__(self):
        self.cat.codes = self

    def to_numpy(self):
        return np.zeros(1604, dtype=np.int8)


class Calls(unittest.TestCase):
    def test_refused(self):
        data = growth()
        n = len(data["score"])
        infinite = data["ses"].copy()
        infinite[7] = np.inf
        for words, formula, change, given in (
                ("Is year meant", "score ~ yeer + (1 | school)", {}, {}),
                ("No record", "score ~ year + (1 | school)", {"score": np.full(n, np.nan)}, {}),
                ("holds texts", "sex ~ year + (1 | school)", {}, {}),
                ("crossed", "score ~ year + (1 | year) + (1 | sex)", {}, {}),
                ("infinite in record 8", "score ~ ses + (1 | school)", {"ses": infinite}, {}),
                ("only one value", "score ~ year + (1 | school)", {"score": np.ones(n)}, {}),
                ("differ in length", "score ~ year + (1 | school)", {"year": np.ones(3)}, {}),
                ("dimensions", "score ~ year + (1 | school)", {"year": np.ones((n, 2))}, {}),
                ("complex128", "score ~ year + (1 | school)", {"year": np.ones(n, dtype=complex)}, {}),
                ("no UTF-8: b'", "score ~ sex + (1 | school)", {"sex": np.array([b"\xff"] * n, dtype=object)}, {}),
                ("datetime64[D]: make a number", "score ~ year + (1 | school)", {"year": np.full(n, np.datetime64("2020-01-01"))}, {}),
                ("a date in record 1", "score ~ year + (1 | school)", {"year": np.full(n, datetime.date(2020, 1, 1), dtype=object)}, {}),
                ("1.5 in record 2 is no truth", "score ~ year + (1 | school)", {"year": np.array([True, 1.5] * (n // 2), dtype=object)}, {}),
                ("no text", "score ~ year + (1 | school)", {"year": np.array(["a", 1.5] * (n // 2), dtype=object)}, {}),
                ("family is one of", "score ~ year + (1 | school)", {}, {"family": "gamma"}),
                ("ddf is", "score ~ year + (1 | school)", {}, {"ddf": "magic"}),
                ("no setting NUMITS", "score ~ year + (1 | school)", {}, {"settings": {"NUMITS": 5}}),
                ("offset", "passed ~ year + offset(ses) + (1 | school)", {}, {"family": "binomial"}),
                ("two levels of the name", "score ~ year + arm + (1 | school)", {"arm": Labelled()}, {}),
                ("trials goes with family binomial", "score ~ year + (1 | school)", {}, {"trials": "weeks"}),
                ("NUL", "score ~ year + (1 | school)\0 + ses", {}, {}),
                ("exposure is the name", "books ~ year + (1 | school)", {}, {"family": "poisson", "exposure": data["weeks"]}),
                ("NUMIT is a number", "score ~ year + (1 | school)", {}, {"settings": {"NUMIT": "many"}}),
                ("reml is", "score ~ year + (1 | school)", {}, {"reml": "yes"}),
                ("settings are names", "score ~ year + (1 | school)", {}, {"settings": "NUMIT"}),
                ("threads is a whole number", "score ~ year + (1 | school)", {}, {"threads": 2.5}),
                ("missing is a number", "score ~ year + (1 | school)", {}, {"missing": "none"}),
                ("start is the result", "score ~ year + (1 | school)", {}, {"start": data}),
                ("progress is a function", "score ~ year + (1 | school)", {}, {"progress": 3}),
                ("ddf is for linear models", "passed ~ year + (1 | school)", {}, {"family": "binomial", "ddf": "satterthwaite"}),
                ("no Unicode", "score ~ year + (1 | school)", {"school": np.array(["\ud800"] * n, dtype=object)}, {}),
                ("above 2^53", "score ~ year + (1 | school)", {"year": 2**60 + data["year"].astype(np.int64)}, {}),
                ("family is one of", "score ~ year + (1 | school)", {}, {"family": ["binomial"]}),
                ("two or more", "score ~ year + (1 | school)", {}, {"plausible": "score"}),
                ("THREADS takes", "score ~ year + (1 | school)", {}, {"threads": -1}),
                ("This one has 3", "arm ~ year + (1 | school)", {}, {"family": "binomial"}),
                ("not list", ["score ~ year + (1 | school)"], {}, {}),
                ("no random part", "score ~ year", {}, {})):
            with self.assertRaises(kdr3.KDR3Error, msg=words) as refused:
                kdr3.fit(formula, {**data, **change}, **given)
            self.assertIn(words, str(refused.exception))
        if pandas is not None:
            frame = pandas.DataFrame(data)
            turned = frame["weeks"][::-1]
            for words, table, given in (
                    ("2 columns year", pandas.concat([frame, frame[["year"]]], axis=1), {}),
                    ("weights1 has other row labels than the table", frame, {"weights1": turned}),
                    ("score has other row labels than year", {"year": frame["year"], "score": frame["score"][::-1], "school": frame["school"]}, {}),
                    ("no column score", pandas.DataFrame({"other": [1, 2]}), {})):
                with self.assertRaisesRegex(kdr3.KDR3Error, words):
                    kdr3.fit("score ~ year + (1 | school)", table, **given)
            self.assertEqual(kdr3.fit("score ~ year + (1 | school)", frame, weights1=turned.reindex(frame.index)).llf,
                             kdr3.fit("score ~ year + (1 | school)", frame, weights1="weeks").llf)
        m = kdr3.fit("score ~ center(ses, school) + (1 | school)", data)
        with self.assertRaisesRegex(kdr3.KDR3Error, "no column ses"):
            m.predict({"school": data["school"]})
        for call in (lambda: m.conf_int(5), lambda: m.conf_int(float("nan")), lambda: m.wald_test([[0, 0]]),
                     lambda: m.wald_test([[1, 1e9], [2, 2e9]]), lambda: m.wald_test("year = 0"), lambda: m.conf_int("5"),
                     lambda: m.tidy(effects="fixd"), lambda: m.bootstrap(3, seed="x"), lambda: kdr3.anova(3, m), kdr3.anova, lambda: m.simulate(1, seed="x"), lambda: kdr3.load(TREE / "README.md"),
                     lambda: m.predict({name: values[:0] for name, values in data.items()})):
            with self.assertRaises(kdr3.KDR3Error):
                call()
        for table in (7, None, "growth.csv", data["score"], {}, {name: values[:0] for name, values in data.items()}):
            with self.assertRaises(kdr3.KDR3Error):
                kdr3.fit(LINEAR, table)
        self.assertTrue(kdr3.fit(LINEAR, data).converged)

    def test_told_by_settings(self):
        """Names of keywords go without regard to case, and a result says what it is of."""
        data = growth()
        m = kdr3.fit("score ~ year + (1 | school)", data, settings={"reml": 1})
        self.assertEqual((m.reml, m.llf), (True, kdr3.fit("score ~ year + (1 | school)", data, reml=True).llf))
        m = kdr3.fit("passed ~ year + (1 | school)", data, family="binomial", engine="pql", settings={"agq": 7})
        self.assertEqual(m.engine, "quadrature")
        self.assertEqual(m.aic, -2 * m.llf + 2 * m.df_model)
        coded = {**data, "ses": np.where(np.isnan(data["ses"]) | (np.arange(len(data["ses"])) % 9 == 0), -99, data["ses"])}
        m = kdr3.fit("score ~ ses + (1 | school)", coded, missing=-99)
        self.assertEqual(m.nobs, kdr3.fit("score ~ ses + (1 | school)", {**coded, "ses": np.where(coded["ses"] == -99, np.nan, coded["ses"])}).nobs)
        self.assertTrue(np.isnan(np.asarray(m.predict(coded))[0]))
        with self.assertRaises(ZeroDivisionError):
            kdr3.fit("score ~ ses + (1 | school)", data, progress=lambda sentence: 1 / 0)

    def test_separation_names_its_effect(self):
        x = np.random.default_rng(1).normal(size=60)
        data = {"y": np.where(x > 0, 1.0, 0.0), "x": x, "h": np.where(x > 0, 1.0, 0.0), "g": np.repeat(np.arange(12), 5)}
        for engine in ("laplace", "quadrature"):
            with self.assertRaisesRegex(kdr3.KDR3Error, "separation by X"):
                kdr3.fit("y ~ x + h + (x | g)", data, family="binomial", engine=engine)
        s = np.where(np.arange(60) % 3 == 1, "b", np.where(np.arange(60) % 3 == 0, "a", "c"))
        m = kdr3.fit("s ~ h + (1 | g)", {**data, "s": s, "h": np.where(s == "b", 1.0, 0.0)}, family="multinomial", engine="pql")
        self.assertIn("have category 2, all 40 records", " ".join(m.warnings))

    def test_one_unit_has_no_variance_and_no_degrees_of_freedom(self):
        data = growth()
        one = kdr3.fit("score ~ year + (1 | school)", {name: values[data["school"] == "S01"] for name, values in data.items()})
        self.assertIn("All records are of one unit of school", " ".join(one.warnings))
        self.assertTrue(np.isnan(np.asarray(one.conf_int())[0]).all())  # of 0 degrees of freedom
        large = np.unique(data["school"].astype(str), return_inverse=True)[1].astype(np.int64) + 2**62  # doubles make one of them
        self.assertEqual(kdr3.fit("score ~ year + (1 | school)", {**data, "school": large}).ngroups, {"school": 50})

    def test_another_version_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            source = "const char* kdr3_version(void) { return \"6.5.4\"; }\nint kdr3_abi(void) { return 1; }\n"
            pathlib.Path(f"{folder}/old.c").write_text(source)
            subprocess.run(["cc", "-shared", "-fPIC", f"{folder}/old.c", "-o", f"{folder}/old.so"], check=True)
            for path, words in ((f"{folder}/old.so", "6.5.4"), (f"{folder}/none.so", "not found")):
                done = subprocess.run([sys.executable, "-c", "import kdr3"], env={**os.environ, "KDR3_LIBRARY": path}, capture_output=True, text=True)
                self.assertIn(words, done.stderr.splitlines()[-1])
                self.assertTrue(done.stderr.splitlines()[-1].startswith("ImportError"), done.stderr)

    def test_interrupt(self):
        """A fit of long engines is given up, its thread is over when the interrupt is told, and the next one runs."""
        data = {name: np.tile(values, 40) for name, values in growth().items()}
        data["school"] = np.array([f"{i // 1604}{s}" for i, s in enumerate(data["school"])], dtype=object)
        timer = threading.Timer(0.7, lambda: os.kill(os.getpid(), signal.SIGINT))
        timer.start()
        with self.assertRaises(KeyboardInterrupt):
            kdr3.fit("passed ~ year + ses + hours + (year | school/pupil)", data, family="binomial", points=21, threads=1)
        self.assertFalse([t for t in threading.enumerate() if t.name == "kdr3"])
        self.assertTrue(kdr3.fit(LINEAR, growth()).converged)

    def test_threads(self):
        """Two fits at once have the results of one after the other."""
        data = growth()
        want = kdr3.fit("passed ~ year + (1 | school/pupil)", data, family="binomial").llf
        found = []
        threads = [threading.Thread(target=lambda: found.append(kdr3.fit("passed ~ year + (1 | school/pupil)", data, family="binomial", threads=1).llf))
                   for _ in range(3)]
        [thread.start() for thread in threads]
        [thread.join() for thread in threads]
        self.assertEqual(found, [want] * 3)

    def test_kept(self):
        m = kdr3.fit(LINEAR, growth())
        few = {name: values[:9] for name, values in growth().items()}
        with tempfile.TemporaryDirectory() as folder:
            m.save(f"{folder}/m.npz")
            twins = [kdr3.load(f"{folder}/m.npz"), pickle.loads(pickle.dumps(m)), copy.deepcopy(m)]
        for twin in twins:
            self.assertEqual(str(twin.summary()), str(m.summary()))
            np.testing.assert_array_equal(np.asarray(twin.predict(few)), np.asarray(m.predict(few)))
            np.testing.assert_array_equal(np.asarray(twin.bootstrap(20).params), np.asarray(m.bootstrap(20).params))
        if pandas is None:
            return
        frame = pandas.DataFrame(growth())
        for index in (frame.index[::-1] + 7, pandas.MultiIndex.from_arrays([frame["school"], frame["year"]]), pandas.date_range("2020", periods=len(frame))):
            m = kdr3.fit(LINEAR, frame.set_axis(index))
            with tempfile.TemporaryDirectory() as folder:
                m.save(f"{folder}/m.npz")
                for twin in (kdr3.load(f"{folder}/m.npz"), pickle.loads(pickle.dumps(m))):
                    pandas.testing.assert_series_equal(twin.resid, m.resid, check_freq=False)

    def test_bootstrap(self):
        m = kdr3.fit("score ~ year + (1 | school/pupil)", growth())
        one, two = m.bootstrap(200, seed=4, threads=1), m.bootstrap(200, seed=4, threads=2)
        np.testing.assert_array_equal(np.asarray(one.params), np.asarray(two.params))
        np.testing.assert_allclose(np.asarray(one.bse), np.asarray(m.bse), rtol=0.25)
        known = one.document["phases"][-1]["bootstrap"]
        np.testing.assert_allclose(np.asarray(one.conf_int()), known["percentile"]["fixed_effects"], rtol=1e-12)

    def test_compared(self):
        """What is tested, and what is refused, is as in kdr3-plot --compare; its sentences tell why."""
        data = growth()

        def fit(terms, table=data, **given):
            return kdr3.fit(terms if "~" in terms else f"score ~ {terms}", table, **given)
        small, large = fit("year + (1 | school/pupil)"), fit("year + (1 | school) + (year | school:pupil)")
        made = kdr3.anova(large, small)
        self.assertAlmostEqual(list(made["chi_square"])[1], 2 * (large.llf - small.llf), 9)
        self.assertEqual(list(made["df"])[1], 2)
        logit = {"family": "binomial", "engine": "quadrature"}
        word = data["passed"] == data["passed"][0]
        for words, one, two in (
                ("no part of", fit("ses + (1 | school/pupil)"), fit("year + hours + (1 | school/pupil)")),
                ("same number of parameters", small, fit("ses + (1 | school/pupil)")),
                ("different data", small, fit("year + ses + (1 | school/pupil)", {name: values[:800] for name, values in data.items()})),
                ("outcomes differ", small, fit("hours ~ year + ses + (1 | school/pupil)")),
                ("hashes differ", fit("e ~ year + (1 | school)", {**data, "e": np.where(word, "yes", "no")}, points=7, **logit),
                 fit("e ~ year + ses + (1 | school)", {**data, "e": np.where(word, "yes", "zno")}, points=7, **logit)),
                ("year has other values", small, fit("year + ses + (1 | school/pupil)", {**data, "year": data["year"][::-1]})),
                ("weights differ", small, fit("year + ses + (1 | school/pupil)", weights1="weeks")),
                ("is weighted", *(fit(f"{terms} + (1 | school/pupil)", weights1="weeks") for terms in ("year", "year + ses"))),
                ("did not converge", small, fit("year + (1 | school) + (year | school:pupil)", settings={"NUMIT": 2})),
                ("two kinds", *(fit(f"passed ~ {terms} + (1 | school)", points=points, **logit) for terms, points in (("year", 1), ("year + ses", 7)))),
                ("no likelihood", *(fit(f"passed ~ {terms} + (1 | school)", family="binomial", engine="pql") for terms in ("year", "year + ses"))),
                (r"restricted .* \(reml=False\)", *(fit(f"{terms} + (1 | school/pupil)", reml=True) for terms in ("year", "year + ses"))),
                ("by restricted", small, fit("year + (1 | school) + (year | school:pupil)", reml=True))):
            with self.assertRaisesRegex(kdr3.KDR3Error, words):
                kdr3.anova(one, two)
        for words, one, two in (("2 random effects more", small, fit("year + (year | school/pupil)")),
                                ("7 and 9 quadrature points", *(fit(f"passed ~ {terms} + (1 | school)", points=points, **logit)
                                                                for terms, points in (("year", 7), ("year + ses", 9))))):
            with self.assertWarnsRegex(kdr3.KDR3Warning, words):
                kdr3.anova(one, two)
        three = [fit(f"{terms} + (1 | school)") for terms in ("year", "poly(year, 2, raw = TRUE)")]
        self.assertEqual(list(kdr3.anova(*three)["df"])[1], 1)
        self.assertIn("weights1: weeks", str(fit("year + (1 | school/pupil)", weights1="weeks").summary()))
        terms = kdr3.anova(fit("arm*year + (1 | school)"))
        self.assertEqual((list(terms["term"]), list(terms["df"])), (["arm", "year", "arm:year"], [2, 1, 2]))

    def test_shown(self):
        m = kdr3.fit("score ~ year + `a<b` + (1 | school)", {**growth(), "a<b": growth()["ses"]})
        self.assertIn("a&lt;b", m._repr_html_())
        self.assertNotIn("a<b", m._repr_html_().replace("<b>", ""))


if __name__ == "__main__":
    unittest.main(warnings="ignore")
