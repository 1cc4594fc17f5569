"""Reads a graph data file into tables: dictionaries of columns, each ready for pandas.DataFrame.

    python3 read.py GRAPHFILE MDMFILE [nonlinear]

    tables = read('graph.bin', 'study.mdm')
    tables['gamma'], tables['predictors1'] ... tables['level3'], tables['level2'], tables['fitted']

The file does not say how many units and coefficients it has. The numbers of units stand in the MDM file of the run; the
numbers of coefficients are the only ones with which the file's length and its last count agree. Standard library only.
"""
import struct
import sys


class Bytes:
    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, form):
        values = struct.unpack_from('<' + form, self.data, self.at)
        self.at += struct.calcsize('<' + form)
        return values

    def doubles(self, n):
        return list(self.take('%dd' % n))


def unitcounts(mdm):
    """Level-2 and level-3 units of an MDM file."""
    with open(mdm, 'rb') as f:
        head = f.read(54)
    if head[:6] != b'MXKDR3':
        raise ValueError('%s is not an MDM file' % mdm)
    return struct.unpack_from('<ii', head, 26)


def predictors(b):
    count, = b.take('i')
    names = [b.take('13s')[0].split(b'\0')[0].decode('latin-1').strip() for _ in range(count)]
    table = dict(name=names, mean=b.doubles(count), deviation=b.doubles(count))
    percentiles = [b.doubles(101) for _ in range(count)]
    for k in range(101):
        table['p%d' % k] = [p[k] for p in percentiles]
    return table


def shapes(b, units2, units3, last):
    """(m, n, p, q, level-2 units) that the rest of the file fits; `last`: a count and the fitted values end it."""
    rest = len(b.data) - b.at
    for m in range(1, rest // 4):
        flags1 = struct.unpack_from('<%di' % m, b.data, b.at)
        if any(f not in (0, 1, 2, 3) for f in flags1):
            return
        for n in range(m, (rest - 4 * m) // 4):
            flags2 = struct.unpack_from('<%di' % n, b.data, b.at + 4 * m)
            if any(f not in (0, 1, 2, 3) for f in flags2):
                break
            p, q = flags1.count(0), flags2.count(0)
            left = rest - 4 * (m + n) - 8 * units3 * (3 * q + n)
            each = 8 * (3 * p + m)
            if p == 0 or q == 0 or left < 0:
                continue
            # units that lost all their records to missing values are not in the file
            for units in range(units2, 0, -1):
                end = left - units * each
                if not last:
                    if end == 0:
                        yield m, n, p, q, units
                elif end >= 12 and (end - 4) % 8 == 0:
                    if struct.unpack_from('<i', b.data, len(b.data) - end)[0] == (end - 4) // 8:
                        yield m, n, p, q, units


def matrix(values, rows, columns, prefix):
    return {'%s%d' % (prefix, c + 1): values[c::columns] for c in range(columns) if rows}


def read(path, mdm, nonlinear=False, categories=False):
    """`nonlinear`: the run was one; `categories`: it had a multinomial or ordinal outcome."""
    with open(path, 'rb') as f:
        b = Bytes(f.read())
    magic, version, nfix = b.take('6sfi')
    if magic != b'GRKDR3':
        raise ValueError('%s is not a graph data file' % path)
    tables = dict(version=round(version, 2))
    if nonlinear:
        for name in ('unitspecific', 'laplace', 'quadrature'):
            tables[name] = b.doubles(nfix)
    tables['gamma'] = b.doubles(nfix)
    for level in (1, 2, 3):
        tables['predictors%d' % level] = predictors(b)
    units2, units3 = unitcounts(mdm)
    found = list(shapes(b, units2, units3, not categories))
    if len(found) != 1:
        raise ValueError('%d layouts fit the file; it belongs to another MDM file or is damaged' % len(found))
    m, n, p, q, units2 = found[0]
    tables['fixed1'], tables['fixed2'] = list(b.take('%di' % m)), list(b.take('%di' % n))
    level3 = {}
    for prefix, width in (('EB', q), ('OL', q), ('FV', n), ('PV', q)):
        level3.update(matrix(b.doubles(units3 * width), units3, width, prefix))
    tables['level3'] = level3
    values, width = b.doubles(units2 * (3 * p + m)), 3 * p + m
    names = ['%s%d' % (prefix, i + 1) for prefix, k in (('EB', p), ('OL', p), ('FV', m), ('PV', p)) for i in range(k)]
    tables['level2'] = {name: values[i::width] for i, name in enumerate(names)}
    for table in (tables['level3'], tables['level2']):
        for name in table:
            if name.startswith('OL'):
                table[name] = [None if x == -99.0 else x for x in table[name]]
    if not categories:
        count, = b.take('i')
        tables['fitted'] = dict(FITVAL=b.doubles(count))
    return tables


def main():
    tables = read(sys.argv[1], sys.argv[2], 'nonlinear' in sys.argv[3:])
    try:
        import pandas
    except ImportError:
        pandas = None
    for name, table in tables.items():
        print('\n%s' % name)
        print(pandas.DataFrame(table) if pandas and isinstance(table, dict) else table)


if __name__ == '__main__':
    main()
