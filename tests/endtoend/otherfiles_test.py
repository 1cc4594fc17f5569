"""MDM files made from files of other packages hold the whole of examples/chem97, bit for bit.

    otherfiles_test.py <program>

The writers here know nothing of the program: they follow the published layouts.
"""
import csv
import math
import os
import struct
import sys
import tempfile

from program import EXAMPLE, Checks, finish
from rawfiles_test import NAMES, check


def tables():
    """Names and rows of each level: numeric IDs, the values, and the IDs once more as texts."""
    for level in range(3):
        ids = 1 if level == 2 else 2
        names = ['LEA', 'SCHOOL'][:ids] + NAMES[level] + ['LEAT', 'SCHOOLT'][:ids]
        with open('%s/chem97-%d.dat' % (EXAMPLE, level + 1)) as f:
            words = [line.split() for line in f]
        yield names, [[float(x) for x in w] + w[:ids] for w in words]


def ibm(value):
    """A double as eight bytes of hexadecimal floating point: 0.fraction times 16 to the exponent."""
    if value == 0:
        return bytes(8)
    fraction, binary = math.frexp(abs(value))
    exponent = -(-binary // 4)
    whole = int(math.ldexp(fraction, 56 + binary - 4 * exponent))
    return struct.pack('>Q', (128 * (value < 0) + 64 + exponent) << 56 | whole)


def cards(data):
    return data + b' ' * (-len(data) % 80)


def sas(path, names, rows):
    head = lambda name, digits: cards(b'HEADER RECORD*******%-8sHEADER RECORD!!!!!!!%s' % (name, digits))
    out = head(b'LIBRARY', b'0' * 30) + cards(b'SAS     SAS     SASLIB  9.4') + cards(b'24NOV26:00:00:00')
    out += head(b'MEMBER', b'000000000000000001600000000140') + head(b'DSCRPTR', b'0' * 30)
    out += cards(b'SAS     CHEM97  SASDATA 9.4') + cards(b'24NOV26:00:00:00')
    out += head(b'NAMESTR', b'000000%04d00000000000000000000' % len(names))
    variables = b''
    for i, name in enumerate(names):
        kind = 2 if name.endswith('T') and name != 'GCSECNT' else 1
        # type, hash, width, number, name, label, format, its numbers, filler, informat, its numbers, position, rest
        variables += struct.pack('>hhhh8s40s8shhh2x8shhi52x', kind, 0, 8, i + 1, name.encode().ljust(8), b'', b'', 0, 0,
                                 0, b'', 0, 0, 8 * i)
    out += cards(variables) + head(b'OBS', b'0' * 30)
    data = b''.join(x.encode().ljust(8) if isinstance(x, str) else ibm(x) for row in rows for x in row)
    with open(path, 'wb') as f:
        f.write(out + cards(data))


def systat(path, names, rows):
    kinds = [isinstance(x, str) for x in rows[0]]
    out = [b'\x4b\x06', struct.pack('<hhhb', len(names), 1, 2, 6)]
    for name, text in zip(names, kinds):
        out.append(b'\x0c' + (name + '$' * text).encode().ljust(12) + b'\x0c')
    for row in rows:
        data = b''.join(struct.pack('<d', x) for x in row if not isinstance(x, str))
        data += b''.join(x.encode().ljust(12) for x in row if isinstance(x, str))
        while len(data) > 128:
            out.append(b'\x81' + data[:128] + b'\x81')
            data = data[128:]
        out.append(bytes([len(data)]) + data + bytes([len(data)]))
    with open(path, 'wb') as f:
        f.write(b''.join(out) + b'\x82')


def delimited(path, names, rows):
    # A letter before the digits makes a column of texts.
    with open(path, 'w', newline='') as f:
        writer = csv.writer(f)
        writer.writerow(names)
        writer.writerows([['%r' % x if isinstance(x, float) else 'T%5s' % x for x in row] for row in rows])


def dbase(path, names, rows):
    head = struct.pack('<BBBBIHH20x', 3, 126, 11, 24, len(rows), 32 * len(names) + 33, 20 * len(names) + 1)
    for name, x in zip(names, rows[0]):
        head += struct.pack('<11sc4xBB14x', name.encode(), b'C' if isinstance(x, str) else b'N', 20, 4)
    with open(path, 'wb') as f:
        f.write(head + b'\r')
        for row in rows:
            f.write(b' ' + b''.join(x.encode().ljust(20) if isinstance(x, str) else repr(x).encode().rjust(20) for x in row))
        f.write(b'\x1a')


def excel(path, names, rows):
    """The records of a workbook, in a compound file of one stream."""
    record = lambda kind, data: struct.pack('<HH', kind, len(data)) + data
    start = lambda kind: record(0x809, struct.pack('<HH12x', 0x600, kind))
    before, end = start(5), record(10, b'')
    cells = []
    for r, row in enumerate([names] + rows):
        for c, x in enumerate(row):
            place = struct.pack('<HHH', r, c, 0)
            cells.append(record(0x204, place + struct.pack('<HB', len(x), 0) + x.encode()) if isinstance(x, str)
                         else record(0x203, place + struct.pack('<d', x)))
    sheet = struct.pack('<IBBBB', len(before) + 4 + 9 + len(end), 0, 0, 1, 0) + b's'
    stream = before + record(0x85, sheet) + end + start(16) + b''.join(cells) + end
    stream += bytes(max(4096 - len(stream), -len(stream) % 512))
    sectors = len(stream) // 512
    tables = -(-(sectors + 1) // 127)
    chain = [-3] * tables + [-2] + [tables + 2 + i for i in range(sectors - 1)] + [-2]
    table = struct.pack('<%di' % len(chain), *chain)
    entry = lambda name, kind, first, length: (name.encode('utf-16-le').ljust(64, b'\0') + struct.pack(
        '<HBB12x36xiQ', 2 * len(name) + 2, kind, 1, first, length))
    listed = struct.pack('<%di' % tables, *range(tables))
    with open(path, 'wb') as f:
        f.write(b'\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1' + bytes(16) + struct.pack(
            '<HHHHH10xIIIIiIiI', 62, 3, 65534, 9, 6, tables, tables, 0, 4096, -2, 0, -2, 0) + listed.ljust(436, b'\xff'))
        f.write(table.ljust(512 * tables, b'\xff'))
        f.write((entry('Root Entry', 5, -2, 0) + entry('Workbook', 2, tables + 1, len(stream))).ljust(512, b'\0'))
        f.write(stream)


def stata(path, names, rows):
    n = len(names)
    widths = [12 if isinstance(x, str) else 0 for x in rows[0]]
    out = struct.pack('<BBBBhi99x', 114, 2, 1, 0, n, len(rows)) + bytes(w or 255 for w in widths)
    out += b''.join(name.encode().ljust(33, b'\0') for name in names)
    out += bytes(2 * (n + 1) + (49 + 33 + 81) * n + 5)
    with open(path, 'wb') as f:
        f.write(out + b''.join(x.encode().ljust(12, b'\0') if isinstance(x, str) else struct.pack('<d', x)
                               for row in rows for x in row))


def lettered(word):
    return ('T%5s' % word).rjust(12).encode() + b'\0'


FORMS = [('sas', sas, ''), ('systat', systat, ''), ('other', delimited, ' /delim'), ('other', dbase, ' /xbase'),
         ('other', excel, ' /excel'), ('other', stata, ' /stata'), ('other', sas, ' /sasx')]


def main():
    program, parts = os.path.abspath(sys.argv[1]), []
    with tempfile.TemporaryDirectory() as work:
        for kind, write, suffix in FORMS:
            for level, (names, rows) in enumerate(tables()):
                write('%s/%s%d' % (work, kind, level + 1), names, rows)
            for text in (False, True):
                parts.append(Checks('%s%s, %s IDs' % (kind, suffix, 'text' if text else 'numeric')))
                check(parts[-1], program, work, kind, ['%s%d%s' % (kind, level, suffix) for level in (1, 2, 3)], text,
                      ids=lettered if write is delimited else None, mark='$' if write is systat else '')
    finish(parts)


if __name__ == '__main__':
    main()
