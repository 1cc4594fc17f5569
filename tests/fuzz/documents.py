"""kdr3-plot on damaged results documents: documents.py PROGRAM [COUNT] [SEED]

Documents of a linear, a Bernoulli and an ordinal run with all their files, damaged in their bytes or in their parts. Each
ends with a picture or with one sentence and its code: no traceback, no warning of Python, no hang, nothing half-written.
What jsonschema refuses by docs/results.schema.json is refused, and for no other reason does the schema's own reader in
kdr3-plot refuse a document. 800 mutants take some minutes; ./check runs fewer of them.
"""
import contextlib
import io
import json
import pathlib
import random
import signal
import sys
import tempfile
import traceback
import warnings
import xml.etree.ElementTree

import jsonschema

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "endtoend"))
sys.path.insert(0, str(ROOT / "tools"))
from kdr3plot import command, document as plot, pictures
from program import REFERENCE, madefolder, run

SCHEMA = json.loads((ROOT / "docs" / "results.schema.json").read_text())
ORACLE = jsonschema.Draft202012Validator(SCHEMA)

ODD = (None, True, False, 0, -1, 3, 2 ** 31, 2 ** 53, 10 ** 400, 0.5, 1e-308, 1e300, -1.7e308, "", "x", "<b>&\"'", "$x_{1",
       "\x01", "\ud800", "ü" * 300, [], {}, [[]], [None], {"rows": []}, "INTRCPT1", "../..", "a\0b")
ALLOWED = (0, plot.USAGE, plot.UNREADABLE, plot.DAMAGED, plot.NOTHING)


def places(value, found, path=()):
    """Every place of a document, as the path to it."""
    for key, part in value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ():
        found.append(path + (key,))
        places(part, found, path + (key,))
    return found


def reach(document, path):
    for key in path:
        document = document[key]
    return document


def damageparts(text, chance):
    document = json.loads(text)
    for _ in range(chance.choice((1, 1, 1, 2, 4))):
        paths = places(document, [])
        path, other = chance.choice(paths), chance.choice(paths)
        large = chance.random()  # there are many numbers, few large things and few lists
        if large < 0.4:
            path = chance.choice([p for p in paths if (len(p) < 3 if large < 0.2 else
                                                       isinstance(reach(document, p), list) or isinstance(p[-1], int))])
        owner, key = reach(document, path[:-1]), path[-1]
        what = chance.randrange(6)
        if what == 0:
            del owner[key]
        elif what == 1:
            alike = [odd for odd in ODD if type(odd) is type(owner[key])] if chance.random() < 0.6 else []
            owner[key] = chance.choice(alike or ODD)
        elif what == 2:
            owner[key] = json.loads(json.dumps(reach(document, other)))
        elif what == 3 and isinstance(owner[key], (int, float)):
            owner[key] = owner[key] * chance.choice((0, -1, 2, 1e9, 1e200, 1e-200))
        elif what == 4 and isinstance(owner, list):
            owner.insert(chance.randrange(len(owner) + 1), json.loads(json.dumps(owner[key])))
        elif isinstance(owner, dict):
            owner[chance.choice(list(owner) + ["another"])] = owner[key]
        if not isinstance(document, dict) or not document:
            break
    return json.dumps(document, indent=1).encode()


def damagebytes(text, chance):
    data = bytearray(text)
    for _ in range(chance.choice((1, 1, 3, 20))):
        data = data or bytearray(text)
        at = chance.randrange(len(data))
        what = chance.randrange(5)
        if what == 0:
            data[at] = chance.randrange(256)
        elif what == 1:
            del data[at:at + chance.choice((1, 2, 50, 1000))]
        elif what == 2:
            data[at:at] = chance.choice((b"[" * 100000, b"9" * 5000, b"1e999", b"NaN", b"\"", b",", b"}", b"null", b"-", b"\\ud800"))
        elif what == 3:
            data[at:at] = data[chance.randrange(len(data)):][:chance.choice((3, 40, 400))]
        else:
            del data[at + 1:]
    return bytes(data)


def complaint(folder, name, data, chance):
    """What is wrong with how kdr3-plot takes the mutant, or None, and its code."""
    (folder / name).write_bytes(data)
    kind = chance.choice(("--page",) * 3 + tuple(pictures.KINDS))
    out = folder / ("drawn.html" if kind == "--page" else chance.choice(("drawn.svg", "drawn.png")))
    words = [str(folder / name), "-o", str(out), *(["--page"] if kind == "--page" else ["--kind", kind])]
    if kind == "coefficients":
        words += chance.choice(([], ["--ratio"], ["--robust"], ["--no-intercept"]))
    told = io.StringIO()
    signal.setitimer(signal.ITIMER_PROF, 60)  # of its own time, not of a busy machine's
    try:
        with contextlib.redirect_stderr(told), warnings.catch_warnings():
            warnings.simplefilter("error")
            warnings.filterwarnings("ignore", "Glyph ")
            code = command.main(words)
    except (Exception, SystemExit):
        return f"{' '.join(words[1:])}: {traceback.format_exc()[-900:]}", None
    finally:
        signal.setitimer(signal.ITIMER_PROF, 0)
    made = out.read_bytes() if out.exists() else b""
    out.unlink(missing_ok=True)
    said = told.getvalue()
    if code not in ALLOWED or bool(made) != (code == 0) or list(folder.glob("*.part*")):
        return f"code {code}, {len(made)} bytes drawn", code
    if code and (said.count("\n") != 1 or not said.startswith("kdr3-plot: ")):
        return f"code {code} with the words {said!r}", code
    if made and out.suffix == ".svg":
        xml.etree.ElementTree.fromstring(made)
    try:
        document = json.loads(data.decode())
    except (ValueError, RecursionError):
        return None if code == plot.DAMAGED else f"no JSON, and code {code}", code
    if isinstance(document, dict) and plot.istype("integer", document.get("format_version")) and document["format_version"] == plot.OLDEST:
        document["format_version"] = SCHEMA["properties"]["format_version"]["const"]  # an earlier version is read, too
    valid = ORACLE.is_valid(document)
    mine = plot.fault(SCHEMA, document, SCHEMA) if isinstance(document, dict) else "no object"
    if not valid and code != plot.DAMAGED:
        return f"the schema refuses it, and code {code}", code
    if valid and mine and not any(mine.endswith(end) for end in ("is not text", "number", "number or null", "integer")):
        return f"the schema accepts it, and kdr3-plot: {mine}", code
    return None, code


def toolong(*_):
    raise TimeoutError("60 seconds of work")


def main(program, count=800, seed=1):
    files = "".join(f"RESFIL{level}:Y\nRESFIL{level}NAME:r{level}.dat\n" for level in (1, 2, 3)) + "GRAPHGAMMAS:graph.bin\n"
    codes, bad, chance = {}, 0, random.Random(seed)
    signal.signal(signal.SIGPROF, toolong)
    with tempfile.TemporaryDirectory() as top:
        subjects = []
        for source, template, mdm, model in (("school", "school.mdmt", "school.mdm", "A"), ("nonlinear", "nonlin.mdmt", "nonlin.mdm", "BERN"),
                                             ("nonlinear", "nonlin.mdmt", "nonlin.mdm", "O3")):
            folder = pathlib.Path(madefolder(program, REFERENCE / source, template, top))
            text = "".join(line for line in (folder / f"{model}.kdr").read_text().splitlines(True)
                           if not line.startswith(("RESFIL", "GRAPHG", "OUTPUT")))
            (folder / "run.kdr").write_text(text + files + "RESFILTYPE:FREEFORMAT\nOUTPUT:run.txt\nSTOPMACRO:0.01\n")
            code, said = run(program, folder, "-results", "whole.json", mdm, "run.kdr")
            assert code == 0, said
            subjects.append((folder, (folder / "whole.json").read_bytes()))
            wrong, code = complaint(folder, "same.json", subjects[-1][1], chance)
            assert not wrong and code in (0, plot.NOTHING), f"the whole document of {model}: {wrong}, {code}"
        for i in range(count):
            folder, whole = chance.choice(subjects)
            data = (damagebytes if chance.random() < 0.3 else damageparts)(whole, chance)
            wrong, code = complaint(folder, "mutant.json", data, chance)
            codes[code] = codes.get(code, 0) + 1
            if wrong:
                bad += 1
                print(f"mutant {i} of seed {seed}: {wrong}")
    print(f"{count} damaged documents, {bad} taken badly; codes: "
          + ", ".join(f"{code} {times}" for code, times in sorted(codes.items(), key=str)))
    return 1 if bad or codes.keys() - set(ALLOWED) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], *map(int, sys.argv[2:])))
