"""Tables of a phase as HTML."""
import html

from . import digits
from .digits import interval, places, shown, statistic
from .document import phasename
from .model import rationame, thresholdname


def shownp(test):
    p = test.get("p")
    return ("≈ " if p is not None and test.get("p_rough") else "") + html.escape(digits.pvalue(p))


def tabled(caption, head, rows, stacked=False):
    """A table; texts that are not HTML yet are escaped by the caller. The first column names the row. On a narrow screen
    the rows of a stacked one become blocks, which keep their roles by their own words."""
    role = (lambda name: f' role="{name}"') if stacked else (lambda name: "")
    text = (f'<div class="wide" tabindex="0" role="group" aria-label="{caption}">'
            f'<table{role("table")}{" class=" + chr(34) + "stacked" + chr(34) if stacked else ""}>'
            f'<caption>{caption}</caption><thead{role("rowgroup")}><tr{role("row")}>')
    text += "".join(f'<th scope="col"{role("columnheader")}>{h}</th>' if h else f'<td{role("cell")}></td>' for h in head)
    text += f'</tr></thead><tbody{role("rowgroup")}>\n'
    for first, *others in rows:
        text += f'<tr{role("row")}><th scope="row"{role("rowheader")}>{first}</th>' + "".join(
            f'<td{role("cell")} data-name="{h}">{cell}</td>' for h, cell in zip(head[1:], others)) + "</tr>\n"
    return text + "</tbody></table></div>\n"


# ---- Fixed effects

SIDES = (("model_based", "model-based"), ("robust", "robust"))


def fixedtables(document, phase):
    """Effects, and apart from them the thresholds of an ordinal outcome, by each kind of standard errors."""
    effects = [effect for effect in phase["fixed_effects"] if not thresholdname(document, effect)]
    thresholds = [effect for effect in phase["fixed_effects"] if thresholdname(document, effect)]
    text = ""
    sides = SIDES[1:] if phase.get("weighted") else SIDES  # an engine's errors are the sandwich's then
    for side, name in sides:
        for some, what in ((effects, "Fixed effects"), (thresholds, "Thresholds")):
            if any(effect[side] is not None for effect in some):
                text += fixedtable(document, f"{what}, {name} standard errors", some, side, what == "Fixed effects")
    if text:
        return text + note(document, phase)
    rows = [[html.escape(thresholdname(document, e) or e["label"]), shown(e["estimate"])] for e in phase["fixed_effects"]]
    return tabled("Fixed effects", ["Effect", "Estimate"], rows, True)


def fixedtable(document, caption, effects, side, ratios):
    tests = [effect[side] or {} for effect in effects]
    ratios = ratios and any("ratio_interval" in test for test in tests)
    missing = any("missing_information" in test for test in tests)
    head = ["Effect", "Estimate", "SE", "t", "df", "p", "95% interval"]
    head += [rationame(document), "Its 95% interval"] * ratios + ["Missing information", "Relative efficiency"] * missing
    rows = []
    for effect, test in zip(effects, tests):
        decimals = places([test.get("standard_error")], 3)
        row = [html.escape(thresholdname(document, effect) or effect["label"]), shown(effect["estimate"], decimals),
               shown(test.get("standard_error"), decimals), statistic(test.get("t")), digits.degrees(test.get("df")), shownp(test),
               interval(test.get("interval"), decimals)]
        if ratios:  # that of an intercept is none
            bounds = test.get("ratio_interval") if effect["variables"] else None
            fine = places([(bounds[1] - bounds[0]) / 4], 3) if bounds and None not in bounds else None
            row += [shown(effect.get("ratio"), fine) if effect["variables"] else "–", interval(bounds, fine)]
        if missing:
            row += [share(test.get("missing_information")), share(test.get("relative_efficiency"))]
        rows.append(row)
    return tabled(caption, head, rows, True)


def share(value):
    return "–" if value is None else f"{100 * value:.1f}%"


def note(document, phase):
    tests = [effect[side] for effect in phase["fixed_effects"] for side, _ in SIDES if effect[side]]
    words = ["≈: a rough approximation."] * any(test.get("p_rough") and test["p"] is not None for test in tests)
    if document["model"]["distribution"] == "ordinal":
        words.append("Effects and cumulative odds are those of lower categories: a ratio above 1 makes the lower ones more likely.")
    if document["model"]["distribution"] == "multinomial":
        words.append(f"Odds are those of a category against {document['model']['categories'][-1]}.")
    return "".join(f"<p>{html.escape(word)}</p>" for word in words)


# ---- Variances

def variancetables(phase):
    rows, tests = [], phase.get("variance_tests") or {}
    weighted = phase.get("weighted")  # whose standard errors are the robust ones
    robust = not weighted and any((phase.get(name) or {}).get("robust_standard_error") for name in ("tau_pi", "tau_beta"))
    for level, name in ((2, "tau_pi"), (3, "tau_beta")):
        tau = phase.get(name)
        for i, row in enumerate((tau or {}).get("rows", [])):
            rows.append([f"Level {level}: {html.escape(row['label'])}"] + variancecells(
                tau, i, (tests.get(f"level{level}") or [{}] * (i + 1))[i] if tests else None, robust))
    sigma2 = phase.get("sigma2")
    if sigma2:
        decimals = places([sigma2["standard_error"]], 3)
        rows.append(["Level 1 (σ²)", shown(sigma2["estimate"], decimals), "held" if sigma2["held"] else shown(sigma2["standard_error"], decimals)]
                    + ["–"] * (1 + robust + 3 * bool(tests)))
    text = ""
    if rows:
        text = tabled("Variance components", ["Variance", "Estimate", "Robust SE" if weighted else "SE"] + ["Robust SE"] * robust
                      + ["χ²", "df", "p"] * bool(tests) + ["Reliability"], rows, True)
    for level, name in ((2, "tau_pi"), (3, "tau_beta")):
        tau = phase.get(name)
        if tau and len(tau["rows"]) > 1 and tau["estimate"]:
            names = [html.escape(row["label"]) for row in tau["rows"]]
            above = tau["correlation"] or [[None] * len(names)] * len(names)
            fine = [[places([tau["standard_error"][i][j]], 3) if tau["standard_error"] else None for j in range(i + 1)]
                    for i in range(len(names))]
            body = [[name] + [shown(tau["estimate"][i][j], fine[i][j]) if j <= i else f"<i>{shown(above[i][j], 3)}</i>"
                              for j in range(len(names))] for i, name in enumerate(names)]
            text += tabled(f"Level {level}: variances and covariances, correlations above the diagonal", ["", *names], body)
    return text


def variancecells(tau, i, test, robust):
    at = lambda key: tau[key][i][i] if tau.get(key) else None
    error, edge = at("standard_error"), at("at_edge")
    decimals = places([error], 3)
    words = "at its edge" if edge else "held" if error == 0 else shown(error, decimals)
    return ([shown(at("estimate"), decimals), words] + [shown(at("robust_standard_error"), decimals)] * robust
            + ([] if test is None else [statistic(test.get("chi_square")), shown(test.get("df")), shownp(test)])
            + [shown(tau["reliability"][i], 3) if tau["reliability"] and tau["reliability"][i] is not None else "–"])


def intervalrows(phase, parts):
    """Rows of a table of intervals of the variance components: what, then of each of `parts` its interval."""
    pick = lambda part, name, key, i: ((part.get(name) or {}).get(key) or [None] * (i + 1))[i]
    rows = []
    if any(part.get("sigma2") for part in parts):
        rows.append(["Level 1: variance (σ²)"] + [interval(part.get("sigma2")) for part in parts])
    for level, name in ((2, "tau_pi"), (3, "tau_beta")):
        names = [html.escape(row["label"]) for row in (phase.get(name) or {}).get("rows", [])]
        for i, of in enumerate(names):
            for key, what in (("variance", "variance"), ("standard_deviation", "standard deviation")):
                rows.append([f"Level {level}: {what}, {of}"] + [interval(pick(part, name, key, i)) for part in parts])
            for j in range(i):
                rows.append([f"Level {level}: correlation, {of} and {names[j]}"]
                            + [interval((pick(part, name, "correlation", i) or [None] * (j + 1))[j]) for part in parts])
    return rows


def intervaltables(phase):
    """Intervals of variance components, and by the profile of the likelihood of fixed effects as well."""
    made = phase.get("bootstrap") or {}
    named = (("By standard errors", phase.get("variance_intervals")), ("By the profile", phase.get("profile_intervals")),
             ("Bootstrap, percentile", made.get("percentile")), ("Bootstrap, basic", made.get("basic")))
    heads, parts = [head for head, part in named if part], [part for _, part in named if part]
    if not parts:
        return ""
    rows = intervalrows(phase, parts)
    effects = [part.get("fixed_effects") for part in parts]
    if any(effects):  # beside the intervals of their own table
        plain = [(effect["model_based"] or {}).get("interval") for effect in phase["fixed_effects"]]
        effects = [plain if part is phase.get("variance_intervals") else of for part, of in zip(parts, effects)]
        rows = [[html.escape(effect["label"])] + [interval(of[i]) if of else "–" for of in effects]
                for i, effect in enumerate(phase["fixed_effects"])] + rows
    pairs = [part.get("intraclass_correlation") for part in parts]
    if any(pairs):
        rows += [[f"Correlation of two records of a {what}"] + [interval(pair[key]) if pair else "–" for pair in pairs]
                 for key, what in (("same_level2_unit", "level-2 unit"), ("same_level3_unit", "level-3 unit"))
                 if any(pair and pair[key] for pair in pairs)]
    text = tabled("95% intervals", ["Of", *heads], rows, True)
    if made:
        kind = {"level2_units": "of level-2 units drawn with replacement", "level3_units": "of level-3 units drawn with replacement",
                "parametric": "drawn from the fitted model"}[made["kind"]]
        text += (f"<p>{made['replicates']} bootstrap replicates {kind} (seed {made['seed']}); {made['failed']} fits have failed or not "
                 "converged and are left out.</p>")
    return text


# ---- Latent variable regression

def latenttables(phase):
    if "latent_regression" not in phase:
        return ""
    latent = phase["latent_regression"]
    if latent is None:
        return "<p>The latent variable regression could not be computed.</p>"
    text = ""
    for outcome in latent["outcomes"]:
        rows = []
        for row in outcome["terms"] + outcome["predictors"]:
            decimals = places([row["standard_error"]], 3)
            test = [shown(row["estimate"], decimals), shown(row["standard_error"], decimals), statistic(row["t"]), shown(latent["df"]), shownp(row)]
            more = places([row.get("difference_standard_error")], 3)
            compared = ([shown(row["original"], decimals), shown(row["difference"], more), shown(row["difference_standard_error"], more)]
                        if "original" in row else [""] * 3)
            rows.append([("" if "original" in row else "Coefficient: ") + html.escape(row["label"])] + test + compared)
        text += tabled(f"Latent variable regression of the coefficient {html.escape(outcome['label'])}",
                       ["On", "Estimate", "SE", "t", "df", "p", "Before", "Difference", "Its SE"], rows, True)
    names = [html.escape(outcome["label"]) for outcome in latent["outcomes"]]
    body = [[name, *map(shown, row)] for name, row in zip(names, latent["residual_covariance"])]
    return (text + "<p>On level-3 variables and on other coefficients of a level-3 unit. Before: without these coefficients.</p>"
            + tabled("What is left of the outcomes' covariance", ["", *names], body))


# ---- What belongs to the whole

def sharestable(phase):
    made = phase.get("variance_shares")
    if not made:
        return ""
    pair = lambda name, key: (made[name] or {}).get(key)
    lines = [("Variance of the fixed part", made["fixed"])]
    lines += [(f"Variance at level {level}", made[f"level{level}"]) for level in (1, 2, 3)]
    lines += [("R², marginal", made["r_squared"]["marginal"]), ("R², conditional", made["r_squared"]["conditional"])]
    for name, what in (("intraclass_correlation", "Correlation"), ("response_correlation", "Correlation of outcomes")):
        lines += [(f"{what} in a level-{level} unit", pair(name, f"same_level{level}_unit")) for level in (2, 3) if made[name]]
    lines += [("Design effect of a mean", made["design_effect"]), ("Effective number of records", made["effective_sample_size"])]
    lines += [(f"Less variance at level {level} than the null model", made["explained"][f"level{level}"])
              for level in (1, 2, 3) if made["explained"]]
    return tabled("Shares of variance", ["Of", "Value"], [[name, shown(value)] for name, value in lines if value is not None])


COMPARED = {"chi_square": "χ² against the other model", "df": "Its degrees of freedom", "p": "Its p",
            "mixture_p": "p of the mixture of chi-squares", "impossible": "No comparison"}


def fittable(phase):
    # Of an engine the whole log-likelihood, which the criteria and --compare go by: the report's lacks constants.
    whole = phase.get("marginal_log_likelihood")
    if whole is not None:
        phase = phase | {"log_likelihood": whole, "deviance": -2 * whole}
    names = (("log_likelihood", "Log-likelihood"), ("deviance", "Deviance"), ("parameters", "Parameters"), ("aic", "AIC"),
             ("bic", "BIC (of level-1 records)"))
    rows = [[name, shown(phase[key], 2)] for key, name in names if phase.get(key) is not None]
    for key, value in (phase.get("model_comparison") or {}).items():
        if value is not None and key in COMPARED:
            rows.append([COMPARED[key], html.escape(value if isinstance(value, str) else digits.pvalue(value) if key.endswith("p")
                                                    else shown(value, 2))])
    shares = phase.get("intraclass_correlation")
    if shares:
        names = {f"share_level{level}": f"Share of variance, level {level}" for level in (1, 2, 3)}
        names |= {"same_level2_unit": "Correlation within a level-2 unit",
                  "same_level3_unit": "Correlation within a level-3 unit only"}
        rows += [[name, shown(shares[key], 3)] for key, name in names.items() if shares[key] is not None]
    return tabled("Fit", ["Of", "Value"], rows) if rows else ""


def contrastname(contrast, effects):
    """The hypothesis as a sum that is 0."""
    text = ""
    for weight, effect in zip(contrast, effects):
        if weight:
            sign = ("− " if weight < 0 else "+ ") if text else "−" if weight < 0 else ""
            size = "" if abs(weight) == 1 else f"{abs(weight):g} · "
            text += (" " if text else "") + sign + size + effect["label"]
    return (text or "0") + " = 0"


def hypothesistable(phase):
    """A row for each contrast; the test stands with the first one of its hypothesis."""
    rows = []
    for test in phase.get("hypothesis_tests") or []:
        for i, contrast in enumerate(test["contrasts"]):
            error = test["standard_errors"][i] if test["standard_errors"] else None
            decimals = places([error], 3)
            estimate = test["estimates"][i] if test["estimates"] else None
            df = shown(test["df"]) + (f", {digits.degrees(test['df2'])}" if "df2" in test else "")
            rows.append([f"{test['number']}. " + html.escape(contrastname(contrast, phase["fixed_effects"])),
                         test["standard_errors_by"].replace("_", "-"), shown(estimate, decimals), shown(error, decimals)]
                        + ([statistic(test["chi_square"]), df, shownp(test)] if i == 0 else ["", "", ""]))
    return tabled("Hypothesis tests", ["Hypothesis", "Errors", "Estimate", "SE", "χ²", "df", "p"], rows, True) if rows else ""


def phasetables(document, phase, mark):
    """A section of the page; `mark` is its place for links."""
    name = phasename(phase)
    text = f'<section id="{mark}"><h2>{name[0].upper()}{name[1:]}</h2>\n' + warnings(phase.get("warnings") or [])
    if phase.get("converged") is False:
        macro = phase.get("macro_iteration") if phase["phase"] == "pql" else None
        text += warnings(["Not to be relied on, though the iterations converged: see the warnings." if phase["ending"] == "doubtful" else
                          f"Not converged: ended after {'macro ' if macro else ''}iteration {macro or phase['iterations']}."])
    return (text + fixedtables(document, phase) + hypothesistable(phase) + variancetables(phase) + latenttables(phase) + intervaltables(phase)
            + sharestable(phase) + fittable(phase) + "</section>\n")


def warnings(texts):
    return "".join(f'<p class="warning">{html.escape(text)}</p>\n' for text in dict.fromkeys(texts))
