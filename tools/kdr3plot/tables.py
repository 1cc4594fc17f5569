"""Tables of a phase as HTML."""
import html

from .document import phasename

def shown(value, digits=4):
    if value is None:
        return "–"
    if isinstance(value, int):
        return str(value)
    if value != 0 and abs(value) < 10 ** -digits:
        return f"{value:.2e}".replace("-", "−")
    return f"{value:.{digits}f}".replace("-", "−")


def pvalue(test):
    p = test.get("p")
    return "–" if p is None else "&lt;0.001" if p < 0.001 else f"{p:.3f}"


def tabled(head, rows, style=""):
    """A table; texts that are not HTML yet are escaped by the caller. The first column names the row."""
    text = f'<div class="wide"><table class="{style}"><thead><tr>' + "".join(f"<th>{h}</th>" for h in head)
    text += "</tr></thead><tbody>"
    for row in rows:
        text += f"<tr><th>{row[0]}</th>" + "".join(
            f'<td data-name="{h}">{cell}</td>' for h, cell in zip(head[1:], row[1:]))
        text += "</tr>"
    return text + "</tbody></table></div>\n"


def interval(bounds):
    return "–" if not bounds or bounds == [None, None] else f"{shown(bounds[0])} to {shown(bounds[1])}"


def fixedtables(phase):
    text = ""
    effects = phase["fixed_effects"]
    for side, name in (("model_based", "model-based"), ("robust", "robust")):
        if all(effect[side] is None for effect in effects):
            continue
        ratio = any("ratio_interval" in (effect[side] or {}) for effect in effects)
        rows = []
        for effect in effects:
            test = effect[side] or {}
            row = [html.escape(effect["label"]), shown(effect["estimate"]), shown(test.get("standard_error")),
                   shown(test.get("t"), 2), shown(test.get("df")), pvalue(test), interval(test.get("interval"))]
            rows.append(row + ([shown(effect.get("ratio")), interval(test.get("ratio_interval"))] if ratio else []))
        head = ["Effect", "Estimate", "SE", "t", "df", "p", "95% interval"] + ["Ratio", "Ratio, 95% interval"] * ratio
        text += f"<h3>Fixed effects, {name} standard errors</h3>" + tabled(head, rows, "effects")
    if not text:
        text = "<h3>Fixed effects</h3>" + tabled(
            ["Effect", "Estimate"], [[html.escape(e["label"]), shown(e["estimate"])] for e in effects])
    return text


def variancetables(phase):
    rows = []
    tests = phase.get("variance_tests") or {}
    for level, name in ((2, "tau_pi"), (3, "tau_beta")):
        tau = phase.get(name)
        for i, row in enumerate((tau or {}).get("rows", [])):
            test = (tests.get(f"level{level}") or [{}] * len(tau["rows"]))[i]
            at = lambda key: ((tau.get(key) or [[None] * len(tau["rows"])] * len(tau["rows"]))[i][i])
            reliability = (tau.get("reliability") or [None] * len(tau["rows"]))[i]
            rows.append([f"Level {level}: {html.escape(row['label'])}", shown(at("estimate")), shown(at("standard_error")),
                         shown(test.get("chi_square"), 2), shown(test.get("df")), pvalue(test), shown(reliability, 3)])
    sigma2 = phase.get("sigma2")
    if sigma2:
        rows.append(["Level 1 (σ²)" + (", held" if sigma2["held"] else ""), shown(sigma2["estimate"]),
                     shown(sigma2["standard_error"]), "–", "–", "–", "–"])
    text = ""
    if rows:
        text += "<h3>Variance components</h3>" + tabled(
            ["Variance", "Estimate", "SE", "χ²", "df", "p", "Reliability"], rows, "effects")
    for level, name in ((2, "tau_pi"), (3, "tau_beta")):
        tau = phase.get(name)
        if tau and len(tau["rows"]) > 1 and tau["estimate"]:
            names = [html.escape(row["label"]) for row in tau["rows"]]
            above = tau["correlation"] or [[None] * len(names)] * len(names)
            body = [[name] + [shown(tau["estimate"][i][j]) if j <= i else f"<i>{shown(above[i][j], 3)}</i>"
                              for j in range(len(names))] for i, name in enumerate(names)]
            text += (f"<h3>Level {level}: variances and covariances, correlations above the diagonal</h3>"
                     + tabled([""] + names, body))
    return text


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
    if any(effects):
        rows = [[html.escape(effect["label"])] + [interval(of[i]) if of else "–" for of in effects]
                for i, effect in enumerate(phase["fixed_effects"])] + rows
    pairs = [part.get("intraclass_correlation") for part in parts]
    if any(pairs):
        rows += [[f"Correlation of two records of a {what}"] + [interval(pair[key]) if pair else "–" for pair in pairs]
                 for key, what in (("same_level2_unit", "level-2 unit"), ("same_level3_unit", "level-3 unit"))
                 if any(pair and pair[key] for pair in pairs)]
    text = "<h3>95% intervals</h3>" + tabled([""] + heads, rows, "effects")
    if made:
        kind = {"level2_units": "of level-2 units drawn with replacement", "level3_units": "of level-3 units drawn with replacement",
                "parametric": "drawn from the fitted model"}[made["kind"]]
        text += (f"<p>{made['replicates']} bootstrap replicates {kind} (seed {made['seed']}); {made['failed']} fits have failed or not "
                 "converged and are left out.</p>")
    return text


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
    rows = [[name, shown(value)] for name, value in lines if value is not None]
    return "<h3>Shares of variance</h3>" + tabled(["", "Value"], rows, "effects")


def otherlines(phase):
    names = (("log_likelihood", "Log-likelihood"), ("marginal_log_likelihood", "Marginal log-likelihood"),
             ("deviance", "Deviance"), ("parameters", "Parameters"), ("aic", "AIC"), ("bic", "BIC"))
    rows = [[name, shown(phase[key], 2)] for key, name in names if phase.get(key) is not None]
    compared = phase.get("model_comparison")
    if compared:
        rows += [[f"Model comparison: {html.escape(key.replace('_', ' '))}", shown(value) if not isinstance(value, str)
                  else html.escape(value)] for key, value in compared.items() if not isinstance(value, (list, dict))]
    shares = phase.get("intraclass_correlation")
    if shares:
        names = {f"share_level{level}": f"Share of variance, level {level}" for level in (1, 2, 3)}
        names |= {"same_level2_unit": "Correlation within a level-2 unit",
                  "same_level3_unit": "Correlation within a level-3 unit only"}
        rows += [[name, shown(shares[key])] for key, name in names.items() if shares[key] is not None]
    text = "<h3>Fit</h3>" + tabled(["", ""], rows) if rows else ""
    tested = [[f"Hypothesis {test['number']}, {test['standard_errors_by'].replace('_', '-')}", shown(test["chi_square"], 2),
               shown(test["df"]), pvalue(test)] for test in phase.get("hypothesis_tests") or []]
    return text + ("<h3>Hypothesis tests</h3>" + tabled(["Hypothesis", "χ²", "df", "p"], tested) if tested else "")


def phasetables(phase):
    text = f"<h2>{phasename(phase)[0].upper()}{phasename(phase)[1:]}</h2>\n" + warnings(phase.get("warnings") or [])
    if phase.get("converged") is False:
        macro = phase.get("macro_iteration") if phase["phase"] == "pql" else None
        text += warnings([f"Not converged: ended after {'macro ' if macro else ''}iteration {macro or phase['iterations']}."])
    return text + fixedtables(phase) + variancetables(phase) + intervaltables(phase) + sharestable(phase) + otherlines(phase)


def warnings(texts):
    return "".join(f'<p class="warning">{html.escape(text)}</p>' for text in texts)
