#!/usr/bin/python3
"""Damaged delimited files: the program has the same records as the csv module of Python, or it refuses the file.

usage: delimitedfiles.py PROGRAM [COUNT [FIRST]]

Each number from FIRST on makes one file, and has it read as one long file or through a template. A mutant that fails is
written to the working folder's mutant-<number>.csv.
"""
import collections
import csv
import io
import math
import os
import pathlib
import random
import re
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "endtoend"))
import mdmfile
import program

NUMBER = re.compile(r"[+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?$", re.ASCII)
MISSING = {"", "NA", "NaN", ".", "#N/A"}
TEMPLATE = program.rawtemplate("other", ["f.csv /delim"] * 3, ("area", "school"), (["rec", "y"], [], []), "f.mdm")


def study(make):
    """A sound file: its bytes and its delimiter."""
    delimiter = make.choice(",;\t")
    ending = make.choice(["\n", "\n", "\r\n", "\r"])
    style = make.choice([csv.QUOTE_MINIMAL, csv.QUOTE_ALL, csv.QUOTE_NONNUMERIC])
    words = make.random() < 0.5  # text IDs
    names = ["area", "school", "rec", "y", "size", "name"]
    if make.random() < 0.5:
        names.insert(make.randrange(2, 6), "remark")
    rows = []
    for area in range(1, 5):
        for school in range(1, 4):
            for _ in range(3):
                y = f"{make.gauss(0, 9):.2f}" if make.random() < 0.9 else make.choice(["NA", "", "."])
                row = {"area": f"a{area}" if words else area, "school": f"s{area}{school}" if words else 10 * area + school,
                       "rec": len(rows) + 1, "y": y.replace(".", ",") if delimiter == ";" and len(y) > 1 else y,
                       "size": 100 * area + school,
                       "name": make.choice(["Anna", 'Anna "B."', "c, d; e", "line\nend", "", "5'10\"", "O'Brien"]),
                       "remark": make.choice(["", "x", "a\tb", 'say "no"', " blanks "])}
                rows.append([row[name] for name in names])
    text = io.StringIO(newline="")
    writer = csv.writer(text, delimiter=delimiter, quoting=style, lineterminator=ending)
    writer.writerows([names, *rows])
    return (b"\xef\xbb\xbf" if make.random() < 0.1 else b"") + text.getvalue().encode(), delimiter


def damaged(make, data, delimiter):
    """One to three bytes put in, taken out or changed, a line doubled or lost, the end cut off."""
    data = bytearray(data)
    for _ in range(make.choice([1, 1, 1, 2, 3])):
        at = make.randrange(len(data)) if data else 0
        piece = make.choice([b'"', b'"', b'"', b'""', delimiter.encode(), b"\n", b"\r", b" ", b' "', b'" ', b"x", b"\0", b"\xe4"])
        kind = make.randrange(8)
        quotes = [i for i, c in enumerate(data) if c == ord('"')]
        if kind < 3:
            data[at:at] = piece
        elif kind == 3:
            data[at:at + 1] = piece
        elif kind == 4:
            del data[at:at + make.choice([1, 1, 2, 20])]
        elif kind == 5 and quotes:
            i = make.choice(quotes)
            data[i:i + 1] = make.choice([b"", b'""', b"x", b'" B."'])
        elif kind == 6:
            lines = bytes(data).split(b"\n")
            i = make.randrange(len(lines))
            lines[i:i + 1] = make.choice([[], [lines[i]] * 2])
            data = bytearray(b"\n".join(lines))
        else:
            del data[make.randrange(len(data) // 2, len(data) + 1):]
    return bytes(data)


def numberof(field, delimiter):
    """None for a missing value."""
    if field in MISSING:
        return None
    if field.upper() in ("TRUE", "FALSE"):
        return float(field.upper() == "TRUE")
    if delimiter != ",":
        field = field.replace(",", ".")
    return float(field) if NUMBER.match(field) else field


def expected(data, delimiter, columns, numeric, loose):
    """The records by Python: of each the IDs and the values of the columns. None where the table has gaps."""
    text = data.decode("latin-1")
    text = text[3:] if text.startswith("\xef\xbb\xbf") else text
    rows = []
    blanks = " \t".replace(delimiter, "")
    try:
        for row in csv.reader(io.StringIO(text, newline=""), delimiter=delimiter, skipinitialspace=loose):
            row = [field.strip(blanks) for field in row]
            if row and row != [""]:
                rows.append(row)
    except csv.Error:
        return None
    width = len(rows[0])
    cut = bool(rows) and len(rows[-1]) < width and text[-1:] not in ("\n", "\r")
    if any(len(row) != width for row in rows[:len(rows) - cut]):
        return None
    head = [re.sub("[+=/,]", "_", re.sub(r"[\x00-\x1f\x7f]", "?", name)).upper()[:8].strip() for name in rows[0]]
    found = []
    for row in rows[1:len(rows) - cut]:
        ids = [row[head.index(name)] for name in ("AREA", "SCHOOL")]
        if "" in ids or (numeric and MISSING & set(ids)):
            continue
        ids = [numberof(x, delimiter) if numeric else x.strip(" \0").upper() for x in ids]
        ids = [math.floor(x + 0.2) if isinstance(x, float) else x for x in ids]
        value = lambda name: numberof(row[head.index(name)], delimiter) if name in head else "renamed"
        found.append((*ids, *map(value, columns)))
    return found


def whole(identifier, keys):
    if isinstance(identifier, float):
        return identifier
    text = identifier.strip(b" \0").decode("latin-1").upper()
    return keys[int(text)] if keys else text


def records(path):
    """Names of the variables, whether IDs are numbers, and the records of an MDM file."""
    mdm = mdmfile.Mdm(path)
    assert mdm.complete, "the MDM file is not whole"
    names = [name.rstrip(b"\0").decode("latin-1").strip() for table in mdm.names for name in table[1:]]
    keys = {3: {}, 2: {}}
    table = path.with_suffix(".ids.csv")
    if table.exists():
        for level, number, identifier in list(csv.reader(io.StringIO(table.read_text("latin-1"), newline="")))[1:]:
            keys[int(level)][int(number)] = identifier.upper()
    values = lambda raw: tuple(None if x <= -1e36 else x for x in memoryview(raw).cast("d"))
    level3 = {identifier: values(row) for identifier, row in mdm.rows()}
    found = []
    for id3, id2, rows, level2 in mdm.units():
        for row in rows:
            found.append((whole(id3, keys[3]), whole(id2, keys[2]), *values(row), *values(level2), *level3[id3]))
    return names, mdm.numeric, found


def trial(program_path, number, folder):
    """What became of one mutant, and what is wrong with that, if anything."""
    make = random.Random(number)
    data, delimiter = study(make)
    data = damaged(make, data, delimiter)
    for path in folder.iterdir():
        path.unlink()
    (folder / "f.csv").write_bytes(data)
    (folder / "t.mdmt").write_text(TEMPLATE)
    bytemplate = number % 3 == 0
    words = ["-r", "t.mdmt"] if bytemplate else ["-from", "f.csv", "-level3", "area", "-level2", "school"]
    code, said = program.run(program_path, folder, *words)
    if code not in (0, 1, 100):
        return "failed", data, f"code {code}\n{said}"
    if code != 0:
        return "refused", data, "" if said.strip() else "no word on why"
    names, numeric, got = records(folder / "f.mdm")
    key = lambda record: tuple((x is None, str(x)) for x in record)
    for loose in (False, True):  # blanks before a quote
        want = expected(data, delimiter, names, numeric, loose)
        if want is not None:
            # A record without any value of level 1 takes no part.
            n1 = mdmfile.Mdm(folder / "f.mdm").head[0]
            want = sorted((r for r in want if any(x is not None for x in r[2:2 + n1])), key=key)
            named = [i for i in range(2 + len(names)) if not want or want[0][i] != "renamed"]
            part = lambda rows: sorted(([r[i] for i in named] for r in rows), key=key)
            if part(got) == part(want):
                return "the same", data, ""
    return "differs", data, f"{len(got)} records, Python has {want if want is None else len(want)}\n{said[:600]}"


def main():
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
    first = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    counts = collections.Counter()
    bad = 0
    with tempfile.TemporaryDirectory() as holder:
        for number in range(first, first + count):
            outcome, data, wrong = trial(os.path.abspath(sys.argv[1]), number, pathlib.Path(holder))
            counts[outcome] += 1
            if wrong:
                bad += 1
                pathlib.Path(f"mutant-{number}.csv").write_bytes(data)
                print(f"mutant {number} {outcome}: {wrong}")
    print(", ".join(f"{outcome}: {n}" for outcome, n in sorted(counts.items())))
    # Files that are all refused would show nothing.
    sys.exit(1 if bad or counts["the same"] * 10 < count else 0)


main()
