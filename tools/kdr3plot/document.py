"""The results document: read, held against its schema, and the names of what is in it."""
import json
import os
import re
import statistics
import sys

USAGE, UNREADABLE, DAMAGED, NOTHING = 2, 3, 4, 5  # exit codes, as --help tells them
Z95 = statistics.NormalDist().inv_cdf(0.975)
# What a picture of the whole run shows unless a phase is chosen: the first of these that the document has.
PREFERRED = ("average", "final", "quadrature", "laplace6", "pql", "average_population_average", "population_average",
             "heterogeneous", "identity", "least_squares")


class Refusal(Exception):
    def __init__(self, code, text):
        super().__init__(text)
        self.code = code


def toconsole(text):
    print("kdr3-plot: " + text, file=sys.stderr)


hears = toconsole  # whoever hears what is odd but refuses nothing


def warn(text):
    hears(text)


def readschema():
    """The JSON Schema of the results document, from the source tree or from where an installation puts it."""
    here = os.path.dirname(os.path.realpath(__file__))
    for folder in ("../../docs", "..", "."):
        path = os.path.join(here, folder, "results.schema.json")
        if os.path.isfile(path):
            with open(path, encoding="utf-8") as file:
                return json.load(file)
    raise Refusal(UNREADABLE, f"results.schema.json, which belongs to {here}, is not there")


TYPES = {"object": dict, "array": list, "string": str, "boolean": bool, "null": type(None)}


def istype(kind, value):
    if kind in TYPES:
        return isinstance(value, TYPES[kind])
    most = sys.float_info.max
    return (isinstance(value, (int, float)) and not isinstance(value, bool) and -most <= value <= most
            and (kind == "number" or value == int(value)))


def fault(rule, value, schema, place=""):
    """What is wrong with a value by the rules of JSON Schema that the schema uses: place and words, or None."""
    if "$ref" in rule:
        rule = schema["$defs"][rule["$ref"].removeprefix("#/$defs/")]
    if "anyOf" in rule:
        faults = [fault(one, value, schema, place) for one in rule["anyOf"]]
        return None if None in faults else faults[0]
    kinds = rule.get("type", [])
    kinds = [kinds] if isinstance(kinds, str) else kinds
    where = place or "the document"
    if kinds and not any(istype(kind, value) for kind in kinds):
        return f"{where} is not of the type {' or '.join(kinds)}"
    known = rule.get("enum", [rule["const"]] if "const" in rule else None)
    if known is not None and not any(type(value) is type(one) and value == one for one in known):
        return f"{where} is none of {', '.join(json.dumps(one) for one in known)}"
    if isinstance(value, str):
        if "pattern" in rule and not re.search(rule["pattern"], value):
            return f"{where} does not have the form {rule['pattern']}"
        if any("\ud800" <= c <= "\udfff" for c in value):
            return f"{where} is not text"
    elif isinstance(value, list):
        if not rule.get("minItems", 0) <= len(value) <= rule.get("maxItems", len(value)):
            return f"{where} has {len(value)} items"
        return next(filter(None, (fault(rule.get("items", {}), item, schema, f"{place}[{i}]")
                                  for i, item in enumerate(value))), None)
    elif isinstance(value, dict):
        parts = rule.get("properties", {})
        for name in rule.get("required", []):
            if name not in value:
                return f"{where} lacks {name}"
        for name in value:
            if name not in parts and rule.get("additionalProperties") is False:
                return f"{where} has {json.dumps(name[:40])}, which is not known"
        return next(filter(None, (fault(parts.get(name, {}), item, schema, f"{place}.{name}".lstrip("."))
                                  for name, item in value.items())), None)
    elif isinstance(value, (int, float)) and not rule.get("minimum", value) <= value <= rule.get("maximum", value):
        return f"{where} is out of its range"
    return None


def disagreement(document):
    """What a schema cannot tell: lists that are as long as others."""
    phases = document["phases"]
    if len({phase["phase"] for phase in phases}) < len(phases):
        return "two phases have one name"
    all_ = equations(document)
    random = {"tau_pi": sum(e["random"] for e in all_), "tau_beta": sum(t["random"] for e in all_ for t in e["terms"])}
    places = {f["fixed_effect"] for e in document["model"]["equations"] for t in e["terms"] for f in t["effects"]}
    for phase in phases:
        if places != set(range(len(phase["fixed_effects"]))):
            return f"the equations and the fixed effects of the phase {phase['phase']} do not belong together"
        for level, name in ((2, "tau_pi"), (3, "tau_beta")):
            tau, tests = phase[name], (phase["variance_tests"] or {}).get(f"level{level}")
            n = len(tau["rows"]) if tau else 0
            if tau and n != random[name]:
                return f"the equations and {name} of the phase {phase['phase']} do not belong together"
            matrices = [tau[key] for key in ("estimate", "standard_error", "correlation") if tau[key]] if tau else []
            lists = [some for some in (tau and tau["reliability"], tau and tests) if some]
            if any(len(some) != n for some in matrices + lists) or any(len(row) != n for m in matrices for row in m):
                return f"the parts of {name} of the phase {phase['phase']} are not of one size"
    return None


# What versions 4 and 5 have added where a member was required, by the place of its owner, and what it would be in version 3.
OLDEST = 3
ADDED = (((), "records_hash", None), ((), "variable_hashes", None), ((), "coding", None), (("phases",), "covariance", None), (("phases",), "robust_covariance", None),
         (("checksums",), "phase", None), (("model", "weights"), "scale", "mean"))


def modernize(document, schema):
    """Makes a document of an earlier version, whose members all kept their places, one of this version."""
    version = document.get("format_version")
    if not istype("integer", version) or not OLDEST <= version < schema["properties"]["format_version"]["const"]:
        return
    document["format_version"] = schema["properties"]["format_version"]["const"]
    for path, name, value in ADDED:
        rule, owners = schema, [document]
        for step in path:
            rule, owners = rule["properties"][step], [owner.get(step) for owner in owners if isinstance(owner, dict)]
            if rule.get("type") == "array":
                rule, owners = rule["items"], [one for owner in owners if isinstance(owner, list) for one in owner]
            rule = schema["$defs"][rule["$ref"].removeprefix("#/$defs/")] if "$ref" in rule else rule
        if name in rule["properties"]:
            for owner in owners:
                if isinstance(owner, dict):
                    owner.setdefault(name, value)


def readresults(path):
    try:
        with open(path, encoding="utf-8") as file:
            text = file.read()
    except OSError as error:
        raise Refusal(UNREADABLE, f"{path} cannot be read: {error.strerror}")
    except UnicodeDecodeError:
        raise Refusal(DAMAGED, f"{path} is not a results document: it is not text")
    try:
        document = json.loads(text)
    except (ValueError, RecursionError) as error:
        raise Refusal(DAMAGED, f"{path} is not a results document (RESULTS:name.json): {error}")
    if not isinstance(document, dict) or document.get("format") != "kdr3 results":
        raise Refusal(DAMAGED, f"{path} is not a results document: it lacks \"format\": \"kdr3 results\"")
    return understood(document, path)


def understood(document, path):
    """A document that follows the schema, made one of this version, with the names that its effects are shown by."""
    schema = readschema()
    modernize(document, schema)
    mine, its = schema["properties"]["format_version"]["const"], document.get("format_version")
    if istype("integer", its) and its != mine:
        raise Refusal(DAMAGED, f"{path} has format_version {its}; this program reads {mine}")
    wrong = fault(schema, document, schema) or disagreement(document)
    if wrong:
        raise Refusal(DAMAGED, f"{path} is damaged: {wrong}")
    takenames(document)
    return document


def choosephase(document, wanted=None):
    phases = {phase["phase"]: phase for phase in document["phases"]}
    if wanted is None:
        return next((phases[name] for name in PREFERRED if name in phases), document["phases"][-1])
    if wanted not in phases:
        raise Refusal(USAGE, f"the run has no phase {wanted}; it has {', '.join(phases)}")
    return phases[wanted]


def errorsof(phase, robust=False):
    """Which standard errors of fixed effects to show: the robust ones where there are none by the model, and of an engine with
    design weights, whose errors are the sandwich's under either name."""
    model = any(effect["model_based"] for effect in phase["fixed_effects"])
    return "robust" if robust or not model or phase.get("weighted") else "model_based"


def phasename(phase):
    return {"pql": "PQL", "laplace6": "Laplace-6"}.get(phase["phase"], phase["phase"].replace("_", " ")) + " results"


def takenames(document):
    """Puts with every effect the label that it is shown by. The names are those that the data's source gave its variables,
    where the document has them."""
    document["whole"] = {(row["level"], row["name"]): row["whole_name"] for row in document.get("variables", ())
                         if row["whole_name"]}
    takelabels(document)
    for phase in document["phases"]:
        for rows in (phase["fixed_effects"], *(phase[name]["rows"] for name in ("tau_pi", "tau_beta") if phase[name])):
            for row in rows:
                row["variables"] = variables(document, row)
                row["label"] = label(document, row)
        for outcome in (phase.get("latent_regression") or {}).get("outcomes", ()):
            for row in (outcome, *outcome["predictors"]):
                row["label"] = label(document, row)
            for row in outcome["terms"]:
                row["label"] = "Intercept" if isintercept(row["level3"]) else wholename(document, 3, row["level3"])


def takelabels(document):
    """Puts the label of each category, where the data's source gave its value one, in the place of its number, and keeps that
    of a binary outcome's event."""
    model = document["model"]
    known = {float(row["value"]): row["label"] for variable in document.get("variables", ()) if isoutcome(variable, model)
             for row in variable["values"] if row["value"] is not None and row["label"]}
    document["event"] = known.get(1.0) if model["distribution"] == "bernoulli" else None
    document["labels"] = labels = {text: known[value] for text in model["categories"] if (value := number(text)) in known}
    if len({*labels.values(), *model["categories"]} - {*labels}) < len(model["categories"]):
        document["labels"] = labels = {}  # two of one name
    model["categories"] = [labels.get(text, text) for text in model["categories"]]
    for row in (*model["equations"], *(row for phase in document["phases"] for row in (
            *phase["fixed_effects"], *(row for name in ("tau_pi", "tau_beta") if phase[name] for row in phase[name]["rows"])))):
        row["category"] = labels.get(row["category"], row["category"])


def isoutcome(variable, model):
    return variable["level"] == 1 and variable["name"] == model["outcome"]


def number(text):
    try:
        return float(text)
    except ValueError:
        return None


def wholename(document, level, name):
    return document["whole"].get((level, name), name)


def outcomename(document):
    return wholename(document, 1, document["model"]["outcome"])


def outcomes(document):
    """The name of the outcome; of averages over plausible values those that the sub-runs had."""
    values = [run["plausible_value"] for run in (document["series"] or {}).get("subruns", ())]
    return [outcomename(document)] if document["model"]["outcome"] else [wholename(document, 1, value) for value in values if value] or [
        "plausible values"]


def isintercept(name):
    return name in ("INTRCPT1", "INTRCPT2", "INTRCPT3")


def variables(document, row):
    names = [(level, row.get(f"level{level}")) for level in (1, 2, 3)]
    return [wholename(document, *key) for key in names if key[1] and not isintercept(key[1])]


def label(document, row):
    """Name of a fixed or random effect: the variables whose product it belongs to."""
    name = " × ".join(variables(document, row)) or "Intercept"
    return f"{name}, category {row['category']}" if row.get("category") else name


def twolevel(document):
    return document["dimensions"]["level3_units"] is None


def equations(document):
    """The level-1 equations whose coefficients stand in residual files."""
    return [equation for equation in document["model"]["equations"] if not equation["threshold"]]
