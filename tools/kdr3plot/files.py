"""Residual files and the graph data file: each reader gives the names of the columns, and the rows."""
import csv
import math
import os
import re
import struct
import zlib

from .document import DAMAGED, NOTHING, UNREADABLE, Refusal, equations, label, readresults


class Table:
    """A residual file. A column is turned into identifiers or numbers when it is asked for: most are not drawn."""

    def __init__(self, path, names, rows, columns=None):
        self.path, self.names, self.rows, self.columns = path, [name.strip() for name in names], rows, columns or {}
        self.ids = sum(name in ("L3ID", "L2ID") for name in self.names[:2])  # data of two levels have no L3ID
        self.level = {"NK": 3, "NJK": 2}.get("".join(self.names[self.ids:self.ids + 1]), 1)

    def at(self, place):
        if place not in self.columns:
            convert = identifier if place < self.ids else number
            try:
                self.columns[place] = [convert(row[place]) for row in self.rows]
            except ValueError as error:
                raise Refusal(DAMAGED, f"{self.path} is damaged: {error}")
        return self.columns[place]

    def column(self, name):
        return self.at(self.names.index(name))

    def fullnames(self):
        return ["/".join(ids) for ids in zip(*(self.at(i) for i in range(self.ids)))]

    def units(self):
        """What the units are called: level 2 by their own ID where it is enough, else with that of level 3."""
        own = self.at(self.ids - 1)
        return own if len(set(own)) == len(own) else self.fullnames()


def identifier(value):
    if isinstance(value, float):
        return "%.12g" % value
    value = value.strip()
    return value.rstrip("0").rstrip(".") if re.fullmatch(r"-?\d+\.0+", value) else value


def number(value):
    """NaN for a missing value."""
    if isinstance(value, str):
        value = value.strip()
        value = math.nan if value == "." else float(value)
    return math.nan if value < -9e35 or value == 2.0 ** 1023 else value


def readfree(text):
    lines = text.split("\n")
    heads = 2 if re.match(r"(L3ID,L2ID,NJK|L3ID,NK|L2ID,NJK),", text) else 1
    names = [name for line in lines[:heads] for name in line.split(",") if name.strip()]
    if lines[-1]:
        raise ValueError("its last row is cut off")
    return names, list(csv.reader(lines[heads:-1]))


def readcards(names, fields, data, end):
    """Rows from fixed columns: fields has (line, first column, width) of each variable, `end` stands behind the data."""
    depth = 1 + max(line for line, _, _ in fields)
    lines = data.removesuffix("\n" + end + "\n").split("\n")
    if not data.endswith("\n" + end + "\n") or len(lines) % depth:
        raise ValueError("a row is cut off")
    return names, [[lines[at + line][first:first + width] for line, first, width in fields]
                   for at in range(0, len(lines), depth)]


def readsystat(text):
    head, _, data = text.partition("\nRUN\n")
    names, formats = re.search(r"INPUT \(([^)]*)\),\(([^)]*)\)", head).groups()
    fields, line, column = [], 0, 0
    for repeat, width, slash in re.findall(r"(?:(\d+)\*)?[$#](\d+)|(/)", formats):
        if slash:
            line, column = line + 1, 0
            continue
        for _ in range(int(repeat or 1)):
            fields.append((line, column, int(width)))
            column += int(width)
    names = [name.strip().rstrip("$") for name in names.split(",") if name.strip()]
    return readcards(names, fields, data, "~")


def readsas(text):
    head, _, data = text.partition("\ncards;\n")
    names, formats = re.search(r"INPUT \(([^)]*)\) \(([^)]*)\)", head).groups()
    fields, line, column = [], 0, 0
    for item in formats.split():
        if item.startswith("#"):
            line, column = int(item[1:]) - 1, 0
            continue
        repeat, width = re.fullmatch(r"(?:(\d+)\*)?\$?(\d+)\.\d*", item).groups()
        for _ in range(int(repeat or 1)):
            fields.append((line, column, int(width)))
            column += int(width)
    return readcards(names.split(), fields, data, ";")


def plaintext(data):
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        return data.decode("latin-1")


def readspss(data):
    slots, = struct.unpack_from("<i", data, 68)
    cases, = struct.unpack_from("<i", data, 80)
    variables, full, at = [], {}, 176  # (name, width of a text or 0) of each variable
    for _ in range(slots):
        _, kind, haslabel, marks, _, _ = struct.unpack_from("<6i", data, at)
        if kind >= 0:
            variables.append((data[at + 24:at + 32].decode("latin-1").strip(), kind))
        at += 32
        if haslabel:
            at += 4 + -(-struct.unpack_from("<i", data, at)[0] // 4) * 4
        at += 8 * abs(marks)
    while True:
        record, subtype = struct.unpack_from("<2i", data, at)
        at += 8
        if record == 999:
            break
        if record != 7:
            raise ValueError("its dictionary has no end")
        size, count = struct.unpack_from("<2i", data, at)
        at += 8
        if subtype == 13:
            full = dict(pair.split("=") for pair in data[at:at + size * count].decode("latin-1").split("\t"))
        at += size * count
    if subtype == 0 and len(data) == at + 8 * slots * cases:
        form = struct.Struct("<" + "".join("%ds" % (-(-kind // 8) * 8) if kind else "d" for _, kind in variables))
        rows = [[plaintext(x) if isinstance(x, bytes) else x for x in row] for row in form.iter_unpack(data[at:])]
        return [full.get(name, name) for name, _ in variables], rows
    raise ValueError("it has not the length that its head tells")


def readstata(data):
    count, cases = struct.unpack_from("<Hi", data, 4)
    types = data[109:109 + count]
    at = 109 + count
    names = [data[at + 33 * i:at + 33 * i + 33].split(b"\0")[0].decode("latin-1") for i in range(count)]
    at += 33 * count + 2 * (count + 1) + (12 + 33 + 81) * count + 5
    codes = {255: "d", 254: "f", 253: "i", 252: "h", 251: "b"}
    form = struct.Struct("<" + "".join(codes.get(t) or "%ds" % t for t in types))
    if len(data) != at + form.size * cases:
        raise ValueError("it has not the length that its head tells")
    rows = [[plaintext(x).strip("\0 ") if isinstance(x, bytes) else float(x) for x in row]
            for row in form.iter_unpack(data[at:])]
    return names, rows


# The beginning of a file of each form, whether it is text, its reader.
FORMS = ((b"L3ID,", True, readfree), (b"L2ID,", True, readfree), (b"BASIC\nSAVE RESFIL", True, readsystat), 
         (b"libname dir", True, readsas), (b"$FL2", False, readspss), (b"\x71\x02\x01", False, readstata))


def readresidualfile(path, data):
    """A table, or None when the file is none of the five forms."""
    for head, istext, reader in FORMS:
        if data.startswith(head):
            try:
                names, rows = reader((plaintext(data) if reader is readfree else data.decode("latin-1")) if istext else data)
                if any(len(row) != len(names) for row in rows):
                    raise ValueError("a row is cut off")
                return Table(path, names, rows)
            except (ValueError, AttributeError, IndexError, struct.error) as error:
                raise Refusal(DAMAGED, f"{path} is damaged: {error}")
    return None


GRAPHHEAD = b"GRKDR3"


def readgraphfile(path, data, nonlinear):
    """name: (mean, minimum, maximum) of each level-1 predictor in a graph data file; None when it is no such file."""
    if not data.startswith(GRAPHHEAD):
        return None
    try:
        nfix, = struct.unpack_from("<i", data, 10)
        at = 14 + 8 * nfix * (4 if nonlinear else 1)
        count, = struct.unpack_from("<i", data, at)
        at += 4
        if not 0 <= count * (13 + 16 + 808) <= len(data) - at:
            raise ValueError
        names = [data[at + 13 * i:at + 13 * i + 12].decode("latin-1").strip() for i in range(count)]
        at += 13 * count
        means = struct.unpack_from("<%dd" % count, data, at)
        at += 16 * count
        spans = [struct.unpack_from("<101d", data, at + 808 * i) for i in range(count)]
    except (struct.error, ValueError):
        raise Refusal(DAMAGED, f"{path} is damaged, or of another model than the results document")
    return {name: (mean, span[0], span[100]) for name, mean, span in zip(names, means, spans)}


MARGINSHEAD = b"quantity,variable,contrast,"


def readmargins(data):
    """The rows of a table of -margins as dictionaries, and the names of its grid; None when it is no such table."""
    if not data.startswith(MARGINSHEAD):
        return None
    reader = csv.DictReader(data.decode("utf-8").splitlines())
    names = reader.fieldnames
    return list(reader), names[3:names.index("category")]


class Run:
    """A results document and the files that its run made, each read when it is first asked for."""

    def __init__(self, path, folder=None, document=None):
        self.path = path
        self.document = readresults(path) if document is None else document
        self.folder = os.path.dirname(path) if folder is None else folder
        self.nonlinear = self.document["model"]["link"] != "identity"
        self.tables = None
        self.predictors = None
        self.margins = None  # rows and names of the grid
        self.drawn = None  # random effects, for the simulated residuals
        self.phases = {}  # by level, whose values a residual file has, where the document tells

    @classmethod
    def ofcolumns(cls, document, name, tables, phase):
        """Of a model in memory: tables as its residual files would be, whose values are those of the phase."""
        made = cls(name, document=document)
        made.tables, made.predictors, made.missing = {table.level: table for table in tables}, {}, []
        made.phases = dict.fromkeys(made.tables, phase)
        return made

    def read(self):
        if self.tables is not None:
            return
        tables, predictors, self.missing = {}, {}, []
        for mark in self.document["checksums"]:  # whatever their names are, files are known by their beginnings
            path = os.path.join(self.folder, mark["file"])
            if not os.path.isfile(path):
                self.missing.append(path)
                continue
            try:
                with open(path, "rb") as file:
                    data = file.read()
            except OSError as error:
                raise Refusal(UNREADABLE, f"{path}, which the results document names, cannot be read: {error.strerror}")
            changed = (len(data), zlib.crc32(data)) != (mark["bytes"], mark["crc32"])
            if changed and data.startswith(GRAPHHEAD) and (self.document["series"] or {}).get("subrun") is not None:
                continue  # a series keeps that of its last sub-run
            if changed:
                raise Refusal(DAMAGED, f"{path} is not the one that the run of {self.path} made: another run has written "
                                       "it, or it has been changed")
            table = readresidualfile(path, data)
            graph = readgraphfile(path, data, self.nonlinear)
            if table:
                self.check(table)
                tables[table.level] = table
                self.phases[table.level] = mark.get("phase")
            elif graph is not None:
                predictors = graph
            elif (rows := readmargins(data)) is not None:
                self.margins = rows
                for row in rows[0]:
                    row["category"] = self.document["labels"].get(row["category"], row["category"])
        self.tables, self.predictors = tables, predictors

    def check(self, table):
        """Does the model of the document have the columns of the file?"""
        if table.level == 1:
            return
        p, m = self.shape(table.level)
        names = table.names[table.ids + 1:]
        if len(names) < 2 * p + 2 * m + p * (p + 1) // 2 or [n[:2] for n in names[:2 * p + 2 * m]] != (
                ["EB"] * p + ["OL"] * p + ["FV"] * m + ["EC"] * m):
            raise Refusal(DAMAGED, f"{self.path} is damaged: its model has not the coefficients of {table.path}")

    def shape(self, level):
        """Numbers of random and of all coefficients in a residual file of level 2 or 3."""
        coefficients = equations(self.document)
        if level == 3:
            coefficients = [term for equation in coefficients for term in equation["terms"]]
        return sum(c["random"] for c in coefficients), len(coefficients)

    def table(self, level):
        self.read()
        if level in self.tables:
            return self.tables[level]
        if self.missing:
            raise Refusal(UNREADABLE, f"no residual file of level {level}, and files of the run are not there: "
                                      f"{', '.join(self.missing)} (if they are in another folder, name it with --folder)")
        if (self.document.get("series") or {}).get("subrun", 0) is None:
            names = ", ".join(one["results"] for one in self.document["series"].get("subruns", ()) if one["results"])
            raise Refusal(NOTHING, "averages have no residual files; take the document of a sub-run" + (f" ({names})" if names else ""))
        raise Refusal(NOTHING, f"the run made no residual file of level {level} (RESFIL{level}:Y in the command file)")


def randomeffects(run, level):
    """Label of each random effect of a level, in the order of the residual file."""
    rows = []
    for equation in equations(run.document):
        effects = [equation] if level == 2 else equation["terms"]
        rows += [label(run.document, {"category": equation["category"], "level1": equation["variable"],
                        "level2": None if level == 2 else effect["variable"]}) for effect in effects if effect["random"]]
    return rows
