"""MDM files made from random studies hold what a plain merge of their rows keeps, value by value.

    constructions_test.py <program> [studies]

Units that are absent at other levels, records without an ID, missing values, both times of deletion; as fixed text, CSV
and Stata files.
"""
import os
import random
import struct
import sys
import tempfile

from mdmfile import Mdm
from program import Checks, rawtemplate, run, template
from rawfiles_test import MISSING, packed

NAMES = [['A', 'B', 'C'], ['V', 'W'], ['Z']]
CODE = -99.0


def study(draw):
    """Rows (ids, values) of each level in the order of their IDs; None is a missing ID or value."""
    value = lambda share: None if draw.random() < share else round(draw.uniform(-50, 50), 2)
    units = [(k, 100 * k + j) for k in range(1, draw.randint(3, 9)) for j in range(draw.randint(1, 5))]
    levels = [[], [], []]
    for k in sorted({k for k, _ in units}):
        if draw.random() > 0.1:
            levels[2].append(([k], [value(0.05)]))
    for unit in units:
        if draw.random() > 0.1:
            levels[1].append((list(unit), [value(0.04), value(0.04)]))
        for _ in range(draw.randint(0, 6)):
            ids = list(unit)
            if draw.random() < 0.03:
                ids[draw.randrange(2)] = None
            levels[0].append((ids, [value(0.15) for _ in range(3)]))
    return levels


def merged(levels, now):
    whole = lambda row: None not in row[1]
    leas = {row[0][0]: row for row in levels[2] if whole(row)}
    units = []
    for ids, values in filter(whole, levels[1]):
        records = [row[1] for row in levels[0] if row[0] == ids]
        records = [r for r in records if None not in r or not now and r != [None] * 3]
        if records and ids[0] in leas:
            units.append((float(ids[0]), float(ids[1]),
                          [packed([MISSING if x is None else x for x in r]) for r in records], packed(values)))
    kept = {unit[0] for unit in units}
    return [(float(k), packed(row[1])) for k, row in leas.items() if k in kept], units


def writetext(path, level, rows):
    with open(path, 'w') as f:
        for ids, values in rows:
            cells = ['' if x is None else '%d' % x for x in ids]
            cells += ['' if x is None and level > 0 else '%.2f' % (CODE if x is None else x) for x in values]
            f.write(''.join('%*s' % (5 if i < len(ids) else 8, cell) for i, cell in enumerate(cells)) + '\n')


def writecsv(path, level, rows):
    with open(path, 'w') as f:
        f.write(','.join(['K', 'J'][:len(rows[0][0])] + NAMES[level]) + '\n')
        for ids, values in rows:
            f.write(','.join('' if x is None else repr(x) for x in ids + values) + '\n')


def writestata(path, level, rows):
    """Release 10 (format 114), every variable a double."""
    names = ['K', 'J'][:len(rows[0][0])] + NAMES[level]
    n = len(names)
    with open(path, 'wb') as f:
        f.write(struct.pack('<4BHi81s18s', 114, 2, 1, 0, n, len(rows), b'', b'') + b'\xff' * n)
        f.write(b''.join(name.encode().ljust(33, b'\0') for name in names) + bytes(2 * (n + 1)))
        f.write(b'%9.0g'.ljust(49, b'\0') * n + bytes(33 * n) + bytes(81 * n) + bytes(5))
        for ids, values in rows:
            f.write(struct.pack('<%dd' % n, *(2.0 ** 1023 if x is None else x for x in ids + values)))


def form(kind, now):
    files = ['%d.%s%s' % (i, kind, ' /delim' if kind == 'csv' else '') for i in (1, 2, 3)]
    deletion = 'now' if now else 'analysis'
    if kind == 'text':
        return template('made.mdm', files, ['(A5,A5,3F8.2)', '(A5,A5,2F8.2)', '(A5,F8.2)'], NAMES, 'y/SAME\n-99', deletion)
    return rawtemplate('other' if kind == 'csv' else kind, files, ('K', 'J'), NAMES, 'made.mdm', deletion)


def main():
    program = os.path.abspath(sys.argv[1])
    draw = random.Random(29)
    c, compared = Checks('constructions'), 0
    with tempfile.TemporaryDirectory() as work:
        for n in range(int(sys.argv[2]) if len(sys.argv) > 2 else 40):
            levels = study(draw)
            for kind, write in (('text', writetext), ('csv', writecsv), ('stata', writestata)):
                for level, rows in enumerate(levels):
                    write('%s/%d.%s' % (work, level + 1, kind), level, rows)
                for now in (True, False):
                    with open(work + '/t.mdmt', 'w') as f:
                        f.write(form(kind, now))
                    rows, units = merged(levels, now)
                    code, out = run(program, work, '-r', 't.mdmt')
                    what = 'study %d, %s, %s' % (n, kind, 'now' if now else 'analysis')
                    if not units or code != 0:
                        c.equal(what + ' makes a file', code == 0, bool(units))
                        if code != 0 and units:
                            c.fail(out[-300:])
                        continue
                    mdm = Mdm(work + '/made.mdm')
                    decoded = lambda i: float(i[:12].decode()) if isinstance(i, bytes) else i
                    made = [(decoded(a), decoded(b), r, v) for a, b, r, v in mdm.units()]
                    if ([(decoded(i), v) for i, v in mdm.rows()], made) != (rows, units) or not mdm.complete:
                        c.fail('%s: %d units of %d expected' % (what, len(made), len(units)))
                    compared += len(units)
    c(compared > 0, 'no unit is compared')
    c.finish()


if __name__ == '__main__':
    main()
