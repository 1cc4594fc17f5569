"""-predict and -margins: against R's predict, emmeans and margins by hand (reference/predictions.R), means over random
effects against a grid, errors against differences of the responses, units against dense formulas; what cannot be
predicted is told and keeps its row.

    predictions_test.py <program>
"""
import csv
import itertools
import json
import math
import sys

import numpy

from program import REFERENCE, ROOT, Checks, Workplace

sys.path.append(str(REFERENCE))
import posteriormoments

GROWTH = list(csv.DictReader((ROOT / "examples" / "growth" / "growth.csv").read_text().splitlines()))
BANDS = ("low", "mid", "top")
COLUMNS = ("school", "pupil", "year", "ses", "tutoring", "score", "high", "right", "trials", "visits", "weeks", "band", "third",
           "choice")
NEW = [dict(zip(("year", "ses", "tutoring", "band", "weeks", "school", "pupil"), row)) for row in
       ((0, -0.65, 1, "low", 1, "S01", 1), (1, 0, 0, "mid", 2, "S02", 8), (3, 1.5, 1, "top", 3, "S03", 99), (2, 0.3, 0, "mid", 1, "S99", 1))]


def records():
    for r in GROWTH:
        if r["score"] and r["hours"] and r["ses"]:
            score, pupil, year = float(r["score"]), int(r["pupil"]), int(r["year"])
            yield dict(r, high=int(score > 58), right=math.floor(score / 10), trials=10, visits=math.floor(float(r["hours"])), weeks=1 + pupil % 3,
                       band=BANDS[pupil % 3], third=1 + (score > 55) + (score > 62), choice=1 + int(7 * score + pupil * pupil + year) % 3)


def table(place, name, rows, columns):
    place.write(name, "\n".join([",".join(columns)] + [",".join(str(r.get(c, "")) for c in columns) for r in rows]) + "\n")


def fit(check, place, formula, *words, new="new.csv", code=0, stem="m"):
    done = place.run("-fit", formula, "data.csv", "-o", stem, *words, *(("-predict", new) if new else ()))
    check(done.returncode == code, f"{formula}: code {done.returncode} {done.stdout[-400:]}")
    return done.stdout


def read(place, name):
    return list(csv.DictReader(place.read(name).splitlines()))


def last(place):
    document = json.loads(place.read("m.json"))
    phases = {p["phase"]: p for p in document["phases"]}
    return document, next(phases[name] for name in ("quadrature", "final", "pql") if name in phases)


def near(check, what, values, wanted, relative):
    for i, (a, b) in enumerate(zip(values, wanted)):
        check(a not in ("", None) and abs(float(a) - b) <= relative * abs(b) + 1e-12, f"{what} {i}: {a} instead of {b}")
    check(len(values) == len(wanted), f"{what}: {len(values)} instead of {len(wanted)}")


def againstr(check, place):
    r = {}
    for line in (REFERENCE / "predictions.out").read_text().splitlines():
        name, what, *values = line.split()
        r[name, what] = [float(v) for v in values]
    for name, formula, words in (
            ("linear", "score ~ year*ses + tutoring + (year | school)", ()), ("factor", "score ~ year*band + ses + tutoring + (1 | school)", ()),
            ("binary", "high ~ year*ses + tutoring + (1 | school)", ("-family", "binomial", "-points", "15")),
            ("binomial", "right ~ year + ses + tutoring + (1 | school)", ("-family", "binomial", "-trials", "trials", "-points", "15")),
            ("counts", "visits ~ year + ses + tutoring + offset(log(weeks)) + (1 | school)", ("-family", "poisson", "-points", "15"))):
        fit(check, place, formula, *words, "-margins", "year=0,1,2; tutoring; ses")
        rows = read(place, "m_predictions.csv")
        tight = 2e-3 if name in ("binary", "counts") else 4e-4
        for what in ("linear", "response", "unit_response", "linear_se"):
            near(check, f"{name} {what}", [row[what] for row in rows], r[name, what], 5 * tight if what == "linear_se" else tight)
        margins = read(place, "m_margins.csv")
        for row in margins:
            known = r.get((name, f"margin_year{row['year']}" if row["quantity"] == "margin" else f"effect_{row['variable']}"))
            if known and (row["quantity"] == "margin") == bool(row["year"]):
                small = 0.02 if name == "counts" else 10 * tight
                near(check, f"{name} {row['quantity']} {row['variable']}{row['year']}", [row["response"], row["response_se"]], known, small)


def design(row):
    return numpy.array([1, float(row["year"]), float(row["ses"])])


def responses(distribution, eta, count=1.0):
    """Of predictors [..., M], the responses [..., K]."""
    if distribution == "poisson":
        return count * numpy.exp(eta)
    if distribution == "ordinal":
        below = numpy.concatenate([1 / (1 + numpy.exp(-eta)), numpy.ones(eta.shape[:-1] + (1,))], -1)
        return numpy.diff(below, axis=-1, prepend=0)
    if distribution == "multinomial":
        e = numpy.exp(numpy.concatenate([eta, numpy.zeros(eta.shape[:-1] + (1,))], -1))
        return e / e.sum(-1, keepdims=True)
    return 1 / (1 + numpy.exp(-eta))


def model(document, phase):
    """Rows x (M by g), d (M by p), e (M by b) of a record, from the names that the phase has for its effects."""
    distribution = document["model"]["distribution"]
    names = {p["name"]: p["formula_name"] for p in document["coding"]["pieces"]}
    categories = document["model"]["categories"]
    M = max(1, len(categories) - 1)
    value = lambda row, label: 1.0 if label is None or label.startswith("INTRCPT") else float(row[names[label]])

    def of(row, effects, levels):
        Z = numpy.zeros((M, len(effects)))
        for i, effect in enumerate(effects):
            if effect.get("threshold"):
                Z[int(effect["level1"].removeprefix("THOLD")) - 1, i] = 1
                continue
            own = numpy.prod([value(row, effect[level]) for level in levels if effect.get(level)])
            lines = [categories.index(effect["category"])] if effect.get("category") else range(M)
            for m in lines:
                Z[m, i] = own
        return Z

    def rows(row):
        taus = [phase[t]["rows"] if phase[t] else [] for t in ("tau_pi", "tau_beta")]
        return (of(row, phase["fixed_effects"], ("level1", "level2", "level3")), of(row, taus[0], ("level1",)),
                of(row, taus[1], ("level1", "level2")))
    return distribution, rows


def averages(check, place):
    """Means over random effects on a grid of the effects themselves, and errors by differences, of all outcome types."""
    grid = numpy.linspace(-7, 7, 41)
    for formula, words in (("high ~ year + ses + (year | school)", ("-family", "binomial")),
                           ("high ~ year + ses + (1 | school/pupil)", ("-family", "binomial", "-points", "7")),
                           ("visits ~ year + ses + offset(log(weeks)) + (1 | school)", ("-family", "poisson")),
                           ("third ~ year + ses + (year | school)", ("-family", "ordinal")),
                           ("choice ~ year + ses + (1 | school)", ("-family", "multinomial")),
                           ("third ~ year + ses + (1 | school)", ("-family", "ordinal", "-points", "7")),
                           ("choice ~ year + ses + (1 | school)", ("-family", "multinomial", "-points", "3"))):
        fit(check, place, formula, *words)
        document, phase = last(place)
        distribution, rows = model(document, phase)
        printed = read(place, "m_predictions.csv")
        gamma = numpy.array([f["estimate"] for f in phase["fixed_effects"]])
        taus = [numpy.array(phase[t]["estimate"], ndmin=2) if phase[t] else numpy.zeros((0, 0)) for t in ("tau_pi", "tau_beta")]
        packed = numpy.concatenate([t[numpy.tril_indices(len(t))] for t in taus])
        covariance = numpy.array(phase.get("joint_covariance") or phase["covariance"], dtype=float)
        theta = numpy.concatenate([packed, gamma]) if phase.get("joint_covariance") else gamma

        def average(row, theta):
            x, d, e = rows(row)
            values = theta if len(theta) > len(gamma) else numpy.concatenate([packed, theta])
            eta, spread, first = x @ values[len(packed):], [], 0
            for Z, T in ((d, taus[0]), (e, taus[1])):
                n = len(T) * (len(T) + 1) // 2
                full = numpy.zeros_like(T)
                full[numpy.tril_indices(len(T))] = values[first:first + n]
                full = full + full.T - numpy.diag(numpy.diag(full))
                first += n
                if len(T):
                    size, axes = numpy.linalg.eigh(full)
                    spread.append(Z @ axes @ numpy.diag(numpy.sqrt(numpy.maximum(size, 0))))
            L = numpy.concatenate(spread, 1)
            z = numpy.array(list(itertools.product(grid, repeat=L.shape[1])))
            weights = numpy.exp(-0.5 * (z * z).sum(1))
            return weights @ responses(distribution, eta + z @ L.T, float(row["weeks"])) / weights.sum()

        K = len(printed) // len(NEW)
        for i, row in enumerate(NEW):
            own = printed[i * K:(i + 1) * K]
            near(check, f"{formula}: average {i}", [r["average"] for r in own], average(row, theta), 1e-6)
            near(check, f"{formula}: response {i}", [r["response"] for r in own], responses(distribution, rows(row)[0] @ gamma, row["weeks"]), 1e-8)
            G = []
            for a in range(len(theta)):
                h = 1e-4 * math.sqrt(covariance[a, a])
                step = h * numpy.eye(len(theta))[a]
                G.append((average(row, theta + step) - average(row, theta - step)) / (2 * h) if h else numpy.zeros(K))
            G = numpy.array(G).T
            near(check, f"{formula}: average_se {i}", [r["average_se"] for r in own], numpy.sqrt(numpy.diag(G @ covariance @ G.T)), 1e-4)


def linearunits(check, place):
    """Units of the data by dense matrices: (u, v) given the data, with the errors of the fixed effects in them."""
    fit(check, place, "score ~ year + ses + (year | school/pupil)")
    document, phase = last(place)
    _, rows = model(document, phase)
    s = phase["sigma2"]["estimate"]
    T, L = (numpy.array(phase[t]["estimate"]) for t in ("tau_pi", "tau_beta"))
    gamma, Phi = numpy.array([f["estimate"] for f in phase["fixed_effects"]]), numpy.array(phase["covariance"])
    printed = read(place, "m_predictions.csv")
    check([r["units"] for r in printed] == ["known", "known", "level3", "new"], f"units: {[r['units'] for r in printed]}")
    data = list(records())
    for row, own in zip(NEW, printed):
        inside = [r for r in data if r["school"] == row["school"]]
        x, d, e = rows(row)
        cov, mean, J = d @ T @ d.T + e @ L @ e.T, x @ gamma, x
        if inside:
            X, D, E = (numpy.concatenate(part) for part in zip(*(rows(r) for r in inside)))
            same = numpy.array([[a["pupil"] == b["pupil"] for a in inside] for b in inside])
            V = s * numpy.eye(len(X)) + same * (D @ T @ D.T) + E @ L @ E.T
            C = numpy.array([[r["pupil"] == str(row["pupil"]) for r in inside]]) * (d @ T @ D.T) + e @ L @ E.T
            B = C @ numpy.linalg.inv(V)
            mean, cov, J = mean + B @ (numpy.array([float(r["score"]) for r in inside]) - X @ gamma), cov - B @ C.T, x - B @ X
        near(check, f"unit {row['school']}", [own["unit_linear"], own["unit_linear_se"]], [mean[0], math.sqrt((J @ Phi @ J.T + cov)[0, 0])], 2e-6)


def modes(check, place):
    """The units of a logistic model by one point: Newton's steps on one school's effects, by dense matrices; by quadrature: means
    and covariances on a grid. With and without design weights."""
    for points, weights in ((1, False), (1, True), (15, False), (15, True)):
        unitsofengine(check, place, points, weights)


def unitsofengine(check, place, points, weights):
    words = ("-weights1", "third", "-weights2", "weeks", "-keyword", "WEIGHTSCALE:NONE") if weights else ()
    fit(check, place, "high ~ year + ses + (1 | school/pupil)", "-family", "binomial", "-points", str(points), *words)
    document, phase = last(place)
    _, rows = model(document, phase)
    t, l = (phase[name]["estimate"][0][0] for name in ("tau_pi", "tau_beta"))
    gamma, Phi = numpy.array([f["estimate"] for f in phase["fixed_effects"]]), numpy.array(phase["covariance"])
    inside = [r for r in records() if r["school"] == "S02"]
    pupils = sorted({r["pupil"] for r in inside})
    X = numpy.concatenate([rows(r)[0] for r in inside])
    Z = numpy.array([[1.0] + [float(r["pupil"] == p) for p in pupils] for r in inside])
    y, b = numpy.array([float(r["high"]) for r in inside]), numpy.zeros(1 + len(pupils))
    weights1 = numpy.array([float(r["third"]) if weights else 1.0 for r in inside])
    weights2 = numpy.array([float(next(r["weeks"] for r in inside if r["pupil"] == p)) if weights else 1.0 for p in pupils])
    scale = weights1 * (Z[:, 1:] @ weights2)
    P = numpy.diag([1 / l, *(weights2 / t)])
    for _ in range(50):
        mu = 1 / (1 + numpy.exp(-(X @ gamma + Z @ b)))
        W = numpy.diag(scale * mu * (1 - mu))
        H = Z.T @ W @ Z + P
        step = numpy.linalg.solve(H, Z.T @ (scale * (y - mu)) - P @ b)
        b = b + step / max(1, abs(step).max())
    x, own = rows(NEW[1])[0], pupils.index("8")
    z = numpy.array([1.0] + [float(p == "8") for p in pupils])
    J = x - z @ numpy.linalg.solve(H, Z.T @ W @ X)
    # Given v a unit's own information is not multiplied by its weight.
    A, c = H[own + 1, own + 1] / weights2[own], H[0, own + 1] / weights2[own]
    V = 1 / (H[0, 0] - sum(H[0, j] ** 2 / H[j, j] for j in range(1, len(H))))
    mean, variance = z @ b, V + 1 / A + (c / A) ** 2 * V - 2 * c / A * V
    if points > 1:
        unit = posteriormoments.Unit.__new__(posteriormoments.Unit)
        unit.outcome, unit.q, unit.r, unit.y, unit.n, unit.g = "bernoulli", 1, 1, y, numpy.ones(len(y)), X
        unit.d = unit.e = numpy.ones((len(y), 1))
        unit.j, unit.units, unit.weights1, unit.weights2 = Z[:, 1:].argmax(1), len(pupils), weights1, weights2
        found = posteriormoments.integrals(unit, gamma, numpy.array([[t]]), numpy.array([[l]]), 121)
        mean = found["v"][0] + found["u"][own, 0]
        variance = found["vv"][0, 0] + found["uu"][own, 0, 0] + 2 * found["uv"][own, 0, 0]
    near(check, f"units, {points} points, weights: {weights}",
         [read(place, "m_predictions.csv")[1][name] for name in ("unit_linear", "unit_linear_se")],
         [(x @ gamma)[0] + mean, math.sqrt((J @ Phi @ J.T)[0, 0] + variance)], 1e-6 if points == 1 else 1e-4)


def coding(check, place):
    """The member `coding` tells the columns of other records; -predict goes by the same."""
    fit(check, place, "score ~ poly(year, 2)*band + scale(ses) + center(tutoring) + I(year > 1) + (1 | school)")
    document, phase = last(place)
    told = document["coding"]
    settings = {s["call"]: s for s in told["settings"]}

    def variable(part, row):
        name, year = part["variable"], float(row["year"])
        if name == "poly(year, 2)":
            s = settings[name]
            z, p = year - s["center"], [1.0]
            for k in range(2):
                p.append((z - s["shifts"][k]) * p[k] - (s["squared_lengths"][k] / s["squared_lengths"][k - 1] * p[k - 1] if k else 0))
            return p[part["column"]] / math.sqrt(s["squared_lengths"][part["column"]])
        if part["level"]:
            return float(part["level"] == (row["band"] if name == "band" else str(year > 1).upper()))
        source = float(row["ses" if "ses" in name else "tutoring"])
        return (source - settings[name]["center"]) / settings[name].get("scale", 1.0)
    effects = {(f["level1"], f["level2"]): f["estimate"] for f in phase["fixed_effects"]}
    wanted = [sum(effects[c["level1"], c["level2"]] * math.prod(variable(p, row) for p in c["parts"]) for c in told["columns"]) for row in NEW]
    near(check, "coding", [r["linear"] for r in read(place, "m_predictions.csv")], wanted, 1e-9)


def told(check, place):
    """What cannot be predicted: one sentence each, the row stays; units of measurement; files that would be lost."""
    rows = [dict(NEW[0], band="other"), dict(NEW[1], ses=""), dict(NEW[2], school=""), NEW[3]]
    table(place, "odd.csv", rows, ("year", "ses", "band", "school"))
    said = fit(check, place, "score ~ year + ses + band + (1 | school)", new="odd.csv")
    printed = read(place, "m_predictions.csv")
    check([bool(r["linear"]) for r in printed] == [False, False, True, True], f"rows: {[r['linear'] for r in printed]}")
    check([r["units"] for r in printed[2:]] == ["", "new"] and not printed[2]["unit_linear"], "a row without a unit")
    for words in ("band: the level other, as in record 1", "2 of 4 rows lack a value"):
        check(said.count(words) == 1 and words in place.read("m.json"), f"not told once: {words} {said[-600:]}")
    for column, words in (("ses", "has no column ses, which the model needs"), ("school", "")):
        table(place, "less.csv", NEW, [c for c in ("year", "ses", "band", "school") if c != column])
        said = fit(check, place, "score ~ year + ses + band + (1 | school)", new="less.csv", code=100 if words else 0, stem="less")
        check(words in said and (not words or not (place.folder / "less.kdr").exists()), f"without {column}: {said[-300:]}")
    counts = []
    for columns in (("year", "school"), ("year", "school", "weeks")):
        table(place, "ones.csv", [dict(r, weeks=1) for r in NEW], columns)
        said = fit(check, place, "visits ~ year + offset(log(weeks)) + (1 | school)", "-family", "poisson", "-engine", "pql", new="ones.csv")
        untold = "The file does not tell the exposure: responses are for one of 1."
        check((untold in said) == (untold in place.read("m.json")) == ("weeks" not in columns), f"exposure, {columns}: {said[-300:]}")
        counts.append(place.read("m_predictions.csv"))
    check(counts[0] == counts[1], "without exposure the counts are those of 1")
    table(place, "new6.csv", [dict(r, ses=float(r["ses"]) * 1e6) for r in NEW], list(NEW[0]))
    table(place, "data6.csv", [dict(r, ses=float(r["ses"]) * 1e6) for r in records()], COLUMNS)
    results = []
    for data, new in (("data.csv", "new.csv"), ("data6.csv", "new6.csv")):
        done = place.run("-fit", "high ~ year*ses + (1 | school)", data, "-family", "binomial", "-o", "m", "-predict", new, "-margins", "year=1; ses")
        check(done.returncode == 0, done.stdout[-300:])
        results.append((read(place, "m_predictions.csv"), read(place, "m_margins.csv")))
    for one, other in zip(results[0][0], results[1][0]):
        names = ("average", "average_se", "unit_linear_se")
        near(check, "a unit of ses", [other[k] for k in names], [float(one[k]) for k in names], 2e-5)
    for one, other in zip(results[0][1], results[1][1]):
        scale = 1e-6 if one["variable"] == "ses" else 1
        near(check, "margins", [other[k] for k in ("average", "average_se")], [scale * float(one[k]) for k in ("average", "average_se")], 2e-5)
    place.write("m_margins.csv", "mine,own\n1,2\n")
    for words, sentence in ((("-margins", "year=0"), "holds no predictions of this program"), (("-margins", "none"), "has no variable none"),
                            (("-margins", "band=blue"), "band has no value blue"), (("-margins", "=1"), "takes names and values")):
        place.write("k_margins.csv", "quantity,variable,contrast,old")
        done = place.run("-fit", "score ~ year + band + (1 | school)", "data.csv", "-o", "m" if "holds" in sentence else "k", *words)
        check(done.returncode == 100 and sentence in done.stdout, f"{words}: {done.returncode} {done.stdout[-300:]}")
    check(place.read("m_margins.csv") == "mine,own\n1,2\n", "a file of the user's is lost")


def documents(check, place):
    """Random effects of -effects against lme4's; which runs have the same records."""
    fit(check, place, "score ~ year*ses + tutoring + (year | school)", "-effects", new="")
    _, phase = last(place)
    known = next(line.split()[2:] for line in (REFERENCE / "predictions.out").read_text().splitlines() if line.startswith("linear ranef"))
    own = next(unit for unit in phase["random_effects"]["level2"] if unit["level2"] == "S02")
    near(check, "ranef", own["estimate"] + sum(own["covariance"], []), [float(v) for v in known], 5e-3)
    check(phase["random_effects"]["level3"] is None and own["level3"] is None, "level 3 of two levels")
    errors = [f["model_based"]["standard_error"] for f in phase["fixed_effects"]]
    near(check, "covariance", numpy.sqrt(numpy.diag(phase["covariance"])), errors, 1e-12)
    data = list(records())
    table(place, "other.csv", data[::-1], COLUMNS)
    table(place, "altered.csv", [dict(data[0], score=float(data[0]["score"]) + 1)] + data[1:], COLUMNS)
    table(place, "moved.csv", [dict(data[0], school="S02")] + data[1:], COLUMNS)
    table(place, "predictor.csv", [dict(data[0], year=float(data[0]["year"]) + 1)] + data[1:], COLUMNS)
    hashes, variables = [], []
    for formula, name in (("score ~ year + (1 | school)", "data"), ("score ~ ses + (year | school/pupil)", "data"), ("score ~ 1 + (1 | school)", "other"),
                          ("score ~ year + (1 | school)", "altered"), ("score ~ year + (1 | school)", "moved"),
                          ("score ~ center(year, school) + ses + tutoring + (1 | school/pupil)", "other"), ("score ~ year + ses + (1 | school)", "predictor")):
        done = place.run("-fit", formula, f"{name}.csv", "-o", "h")
        document = json.loads(place.read("h.json")) if done.returncode == 0 else {"records_hash": done.stdout, "variable_hashes": []}
        hashes.append(document["records_hash"])
        variables.append({row["name"].lower(): row["hash"] for row in document["variable_hashes"]})
    check(hashes[0] == hashes[1] == hashes[2] == hashes[5] == hashes[6] and len({*hashes}) == 3, f"records_hash: {hashes}")
    # of a variable at level 1 or 2, centered or not, in any order of the records; one value changed
    check(variables[0]["year"] == variables[1]["year"] != variables[6]["year"] and variables[2] == {}, f"year: {variables}")
    check(variables[1]["ses"] == variables[5]["ses"] == variables[6]["ses"] and len({*variables[5].values()}) == len(variables[5]), f"ses: {variables}")


def commandfile(check, place):
    """The model's own variables, with group and grand means; the same by a formula."""
    fit(check, place, "score ~ center(year, school:pupil) + center(ses) + (1 | school/pupil)", "-keyword", "TITLE:a", "-margins", "ses=1", stem="f")
    wanted, margins = read(place, "f_predictions.csv"), read(place, "f_margins.csv")
    done = place.run("-from", "data.csv", "-level3", "school", "-level2", "pupil", "-level1", "ses,tutoring")
    check(done.returncode == 0, done.stdout[-300:])
    place.write("own.kdr", "NONLIN:N\nNUMIT:500,N\nLEVEL1:SCORE=INTRCPT1+YEAR,1+SES,2+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\n"
                "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/\nLEVEL2:YEAR=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\nLEVEL2:SES=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n"
                "RESFIL1:N\nRESFIL2:N\nRESFIL3:N\nCONSTRAIN:N\nHYPOTH:N\nLVR-BETA:N\nFULLOUTPUT:N\nTITLE:a\nOUTPUT:own.txt\n")
    done = place.run("-predict", "new.csv", "-level2", "pupil", "-level3", "school", "-margins", "SES=1", "data.mdm", "own.kdr")
    check(done.returncode == 0, done.stdout[-600:])
    for name, rows in (("own_predictions.csv", wanted), ("own_margins.csv", margins)):
        for one, other in zip(rows, read(place, name)):
            columns = [k for k in one if one[k] and k not in ("row", "level3", "level2", "units", "quantity", "ses", "records")]
            near(check, name, [other[k] for k in columns], [float(one[k]) for k in columns], 1e-6)


def main():
    check = Checks()
    place = Workplace(sys.argv[1])
    table(place, "data.csv", list(records()), COLUMNS)
    table(place, "new.csv", NEW, list(NEW[0]))
    for part in (againstr, averages, linearunits, modes, coding, told, documents, commandfile):
        part(check, place)
    check.finish()


if __name__ == "__main__":
    main()
