"""Reads residual files of all five forms, and graph files. Shared by the end-to-end tests.

Every reader returns a Table: names, rows (texts without outer blanks, numbers, None for a missing value) and what the
form alone tells. The two command files are read by following their own INPUT statements.
"""
import csv
import os
import re
import shutil
import struct
import subprocess
import sys

READERS = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'examples', 'graphfile')
sys.path.append(READERS)
import read as graphfile


class Table:
    def __init__(self, names, rows, **more):
        self.names, self.rows = names, rows
        self.__dict__.update(more)

    def column(self, name):
        i = self.names.index(name)
        return [row[i] for row in self.rows]


def readfree(path, level):
    with open(path, newline='') as f:
        text = f.read()
    lines = text.split('\n')
    heads = 1 if level == 1 else 2
    names = [n.strip() for line in lines[:heads] for n in line.split(',') if n.strip() or heads == 1]
    rows = []
    texts = 2 if level < 3 else 1
    for fields in csv.reader(lines[heads:-1]):
        values = [float(f) if re.fullmatch(r'-?\d+\.\d{6}', f) else f.strip() for f in fields[:texts]]
        rows.append(values + [None if f == '.' else float(f) for f in fields[texts:]])
    if lines[-1] or any(len(r) != len(names) for r in rows):
        raise ValueError('%s: rows of another length than the head, or no end' % path)
    return Table(names, rows, raw=lines)


def cards(path, names, places, lines, end):
    """Cases from fixed columns: places[i] is (line, first, width, is text) of variable i."""
    depth = 1 + max(p[0] for p in places)
    if lines[-2:] != [end, '']:
        raise ValueError('%s does not end as it should' % path)
    data = lines[:-2]
    if len(data) % depth:
        raise ValueError('%s: %d lines are no whole number of cases of %d' % (path, len(data), depth))
    used = [max(p[1] + p[2] for p in places if p[0] == d) for d in range(depth)]
    rows = []
    for at in range(0, len(data), depth):
        case = data[at:at + depth]
        if [len(x) for x in case] != used:
            raise ValueError('%s: a line is longer or shorter than what is read of it: %r' % (path, case))
        fields = [case[d][i:i + w].strip() for d, i, w, _ in places]
        rows.append([f if text else float(f) for f, (_, _, _, text) in zip(fields, places)])
    return rows


def readsystat(path, level):
    with open(path) as f:
        text = f.read()
    m = re.match(r'BASIC\nSAVE RESFIL(\d)\nINPUT \(((?:.|\n)*?)\),\(((?:.|\n)*?)\)\n((?:if .*\n)*)RUN\n', text)
    if not m or int(m[1]) != level:
        raise ValueError('%s has no head' % path)
    names = [n.strip() for n in m[2].split(',') if n.strip()]
    places, line, column = [], 0, 0
    for repeat, kind, width, slash in re.findall(r'(?:(\d+)\*)?([$#])(\d+)|(/)', m[3]):
        if slash:
            line, column = line + 1, 0
            continue
        for _ in range(int(repeat or 1)):
            places.append((line, column, int(width), kind == '$'))
            column += int(width)
    if len(places) != len(names):
        raise ValueError('%s names %d variables and reads %d' % (path, len(names), len(places)))
    for name, place in zip(names, places):
        if name.endswith('$') != place[3]:
            raise ValueError('%s: %s is read as another type' % (path, name))
    names = [n.rstrip('$') for n in names]
    missing = set()
    for rule in m[4].splitlines():
        r = re.fullmatch(r'if (\S+) ?=-99 then let (\S+) ?=\.', rule)
        if not r or r[1] != r[2]:
            raise ValueError('%s: rule %r' % (path, rule))
        missing.add(names.index(r[1]))
    rows = cards(path, names, places, text[m.end():].split('\n'), '~')
    rows = [[None if i in missing and x == -99 else x for i, x in enumerate(row)] for row in rows]
    return Table(names, rows, head=text[:m.end()])


def readsas(path, level):
    with open(path) as f:
        text = f.read()
    m = re.match(r'libname dir "\.";\ndata dir\.resfil(\d);\ninfile cards;\nINPUT \(([^)]*)\) \(([^)]*)\);\n'
                 r'(?:array v (\S+) -- (\S+);\ndo over v;\nif v=-99 then v=\.;\nend;\n)?cards;\n', text)
    if not m or int(m[1]) != level:
        raise ValueError('%s has no head' % path)
    names, places, line, column = m[2].split(), [], 0, 0
    for item in m[3].split():
        if item[0] == '#':
            line, column = int(item[1:]) - 1, 0
            continue
        r = re.fullmatch(r'(?:(\d+)\*)?(\$?)(\d+)\.(\d*)', item)
        for _ in range(int(r[1] or 1)):
            places.append((line, column, int(r[3]), r[2] == '$'))
            column += int(r[3])
    if len(places) != len(names):
        raise ValueError('%s names %d variables and reads %d' % (path, len(names), len(places)))
    first, last = (names.index(m[4]), names.index(m[5])) if m[4] else (1, 0)
    rows = cards(path, names, places, text[m.end():].split('\n'), ';')
    rows = [[None if first <= i <= last and x == -99 else x for i, x in enumerate(row)] for row in rows]
    return Table(names, rows, head=text[:m.end()])


def readspss(path, level):
    with open(path, 'rb') as f:
        data = f.read()
    product, layout, slots, compressed, weight, cases, bias = struct.unpack_from('<64siiiiid', data)
    known = product.startswith(b'$FL2@(#) SPSS DATA FILE from KDR3 version 7.01')
    if not known or (layout, compressed, weight) != (2, 0, 0):
        raise ValueError('%s has no head of this form' % path)
    variables, at = [], 176
    for _ in range(slots):
        record, kind, label, missing, form, write = struct.unpack_from('<6i', data, at)
        name = data[at + 24:at + 32].decode().rstrip()
        at += 32
        mark = None
        if missing:
            mark, = struct.unpack_from('<d', data, at)
            at += 8
        if record != 2 or label or form != write:
            raise ValueError('%s: variable record of %s' % (path, name))
        variables.append((name, kind, form, mark))
    longs = {}
    if struct.unpack_from('<ii', data, at) == (7, 13):
        size, count = struct.unpack_from('<ii', data, at + 8)
        pairs = data[at + 16:at + 16 + count].decode()
        longs = dict(pair.split('=') for pair in pairs.split('\t'))
        at += 16 + count
    if struct.unpack_from('<ii', data, at) != (999, 0):
        raise ValueError('%s: the dictionary has no end' % path)
    at += 8
    if len(data) != at + 8 * slots * cases:
        raise ValueError('%s is %d bytes long, its head tells %d' % (path, len(data), at + 8 * slots * cases))
    rows = []
    for c in range(cases):
        row = []
        for i, (_, kind, _, mark) in enumerate(variables):
            slot = data[at:at + 8]
            at += 8
            if kind == 12:
                row.append((slot + data[at:at + 8]).decode().rstrip(' '))
            elif kind == 0:
                x, = struct.unpack('<d', slot)
                row.append(None if mark is not None and x == mark else x)
        rows.append(row)
    kept = [v for v in variables if v[1] != -1]
    return Table([longs.get(v[0], v[0]) for v in kept], rows, shorts=[v[0] for v in kept], kinds=[v[1] for v in kept],
                 formats=[v[2] for v in kept], marks=[v[3] for v in kept], cases=cases)


def readstata(path, level):
    with open(path, 'rb') as f:
        data = f.read()
    release, order, kind, filler, nvar, nobs = struct.unpack_from('<4BHi', data)
    if (release, order, kind, filler) != (113, 2, 1, 0) or any(data[91:109]):
        raise ValueError('%s has no head of this form' % path)
    at = 109
    types = list(data[at:at + nvar])
    at += nvar
    fixed = lambda n: [data[at + i * n:(at + i * n) + n].split(b'\0')[0].decode() for i in range(nvar)]
    names = fixed(33)
    at += 33 * nvar + 2 * nvar + 2
    formats = fixed(12)
    at += 12 * nvar
    blank = (33 + 81) * nvar + 5
    if any(data[at:at + blank]):
        raise ValueError('%s has labels' % path)
    at += blank
    form = '<' + ''.join({255: 'd', 253: 'i'}.get(t) or '%ds' % t for t in types)
    if len(data) != at + nobs * struct.calcsize(form):
        raise ValueError('%s has not the length that its head tells' % path)
    rows, raw = [], []
    for case in struct.iter_unpack(form, data[at:]):
        raw.append(case)
        rows.append([x.decode().strip('\0 ') if isinstance(x, bytes) else None if x == 2.0 ** 1023 else x
                     for x in case])
    return Table(names, rows, types=types, formats=formats, raw=raw, cases=nobs)


# keyword, reader, default names by level, places of the decimal point (0: all digits)
FORMS = {
    'FREEFORMAT': (readfree, 'resfil%d.dat', 6),
    'SYSTAT': (readsystat, 'RESFIL%d.CMD', 5),
    'SAS': (readsas, 'resfil%d.sas', 5),
    'SPSS': (readspss, 'resfil%d.sav', 0),
    'STATA': (readstata, 'resfil%d.dta', 0),
}


def read(directory, form, level):
    reader, name, _ = FORMS[form]
    return reader('%s/%s' % (directory, name % level), level)


# Every table of the R reader, a line for each column.
BYR = """
source("%s/read.R")
tables <- readgraph("%s", "%s"%s)
show <- function(x) if (is.character(x)) x else ifelse(is.na(x), "NA", sprintf("%%.17g", x))
for (name in names(tables)) {
  x <- tables[[name]]
  if (is.data.frame(x)) for (column in names(x)) cat(name, column, show(x[[column]]), "\\n") else cat(name, show(x), "\\n")
}
"""


def readgraph(path, mdm, **how):
    """A graph file through the example readers: the Python one, and the R one where R is, which must agree."""
    tables = graphfile.read(path, mdm, **how)
    if shutil.which('Rscript'):
        show = lambda x: 'NA' if x is None else x if isinstance(x, str) else '%.17g' % x
        want = []
        for name, table in tables.items():
            if name != 'version':
                for head, values in table.items() if isinstance(table, dict) else [(None, table)]:
                    want.append([w for w in (name, head) if w] + [show(x) for x in values])
        more = ''.join(', %s = %s' % (k, str(x).upper()) for k, x in how.items())
        p = subprocess.run(['Rscript', '-e', BYR % (READERS, path, mdm, more)], stdout=subprocess.PIPE, timeout=120)
        got = [line.split() for line in p.stdout.decode().splitlines()]
        if p.returncode != 0 or got != want:
            raise ValueError('the R reader ended with %d and read something else' % p.returncode)
    return tables


def predictorsbyr(c, study, tables):
    """The predictors of a graph file against R on the raw data."""
    names = {level: [] for level in '123'}
    for line in open(READERS + '/../../tests/reference/graphpredictors.txt'):
        name, level, predictor, *want = line.split()
        if name != study:
            continue
        table, i = tables['predictors' + level], len(names[level])
        names[level].append(predictor)
        for column, x in zip(['mean', 'deviation'] + ['p%d' % k for k in range(101)], want):
            c.near('%s of %s' % (column, predictor), table[column][i], float(x), 1e-9)
    for level in names:
        c.equal('predictors of level ' + level, tables['predictors' + level]['name'], names[level])
