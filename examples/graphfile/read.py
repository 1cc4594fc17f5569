"""Reads a graph data file into tables: dictionaries of columns, each ready for pandas.DataFrame.

    python3 read.py GRAPHFILE MDMFILE [nonlinear] [categories] [m=3] [n=7]

    tables = read('graph.bin', 'study.mdm')
    tables['gamma'], tables['predictors1'] ... tables['level3'], tables['level2'], tables['fitted']

The file does not say how many units and coefficients it has. The numbers of units stand in the MDM file of the run; the
numbers of coefficients are inferred from the length of the file and what stands in it (see layouts). Where that leaves
a choice, give m and n, the numbers of level-1 and of level-2 coefficients of the model. Standard library only.
"""
import math
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
    """Level-2 and level-3 units of an MDM file; of the latter none in data of two levels."""
    with open(mdm, 'rb') as f:
        head = f.read(54)
    if head[:6] != b'MXKDR3':
        raise ValueError('%s is not an MDM file' % mdm)
    units2, units3, _, _, kind = struct.unpack_from('<5i', head, 26)
    return units2, 0 if kind == 4 else units3


def predictors(b):
    count, = b.take('i')
    names = [b.take('13s')[0].split(b'\0')[0].decode('latin-1').strip() for _ in range(count)]
    table = dict(name=names, mean=b.doubles(count), deviation=b.doubles(count))
    percentiles = [b.doubles(101) for _ in range(count)]
    for k in range(101):
        table['p%d' % k] = [p[k] for p in percentiles]
    return table


def layouts(b, units2, units3, predictors, nfix, categories, m, n):
    """What the rest of the file may be: lists of (m, n, p, q, level-2 units with records); m and n: None if unknown.

    Every level-1 coefficient but the intercept belongs to a level-1 predictor, and its equation has at most an
    intercept and every level-2 predictor; the same holds of level-2 coefficients and fixed effects. With categories
    there are more: several sets of coefficients, or thresholds without equations.
    """
    rest = len(b.data) - b.at
    flags = lambda at, k: struct.unpack_from('<%di' % k, b.data, at) if at + 4 * k <= len(b.data) else (-1,)
    found = []
    most = rest // 4 if categories else predictors[0] + 1
    for M in [m] if m else range(max(1, predictors[0]), most + 1):
        flags1 = flags(b.at, M)
        if not all(0 <= f <= 3 for f in flags1):
            break
        least = 1 if categories else max(M, -(-nfix // (predictors[2] + 1)))
        for N in [n] if n else range(least, M * (predictors[1] + 1) + 1):
            flags2 = flags(b.at + 4 * M, N)
            if not all(0 <= f <= 3 for f in flags2):
                break
            p, q = flags1.count(0), flags2.count(0)
            left = rest - 4 * (M + N) - 8 * units3 * (3 * q + N)
            if p + q == 0 or left < 0:
                continue
            # units that lost all their records to missing values are not in the file
            for units in range(units2, 0, -1):
                end = left - units * 8 * (3 * p + M)
                if categories:
                    fits = end == 0  # else a count and as many fitted values end the file
                else:
                    fits = end >= 12 and end % 8 == 4 and flags(len(b.data) - end, 1)[0] == end // 8
                if fits:
                    found.append((M, N, p, q, units))
    return found


def variancesfit(b, units3, m, n, p, q, units2):
    """True when posterior variances stand where this layout has them."""
    at = b.at + 4 * (m + n) + 8 * units3 * (2 * q + n)
    values = list(struct.unpack_from('<%dd' % (units3 * q), b.data, at))
    at += 8 * units3 * q
    for unit in struct.iter_unpack('<%dd' % (3 * p + m), b.data[at:at + 8 * units2 * (3 * p + m)]):
        values += unit[len(unit) - p:]
    return all(0 < x < math.inf for x in values)


def layout(b, units2, units3, predictors, nfix, categories, m, n):
    """The one layout that fits best."""
    found = layouts(b, units2, units3, predictors, nfix, categories, m, n)
    if not found:
        raise ValueError('no layout fits: the file is of another MDM file or kind of run, or it is damaged')
    for fits in (lambda x: variancesfit(b, units3, *x),
                 lambda x: predictors[2] > 0 or x[1] == nfix,  # without level-3 predictors or constraints
                 lambda x: x[4] == units2):  # nothing was deleted
        found = [x for x in found if fits(x)] or found
    if len(found) > 1:
        raise ValueError('%d layouts fit; give the numbers of coefficients: %s' %
                         (len(found), ' or '.join('m=%d n=%d' % x[:2] for x in found)))
    return found[0]


def matrix(values, rows, columns, prefix):
    return {'%s%d' % (prefix, c + 1): values[c::columns] for c in range(columns) if rows}


def read(path, mdm, nonlinear=False, categories=False, m=None, n=None):
    """`nonlinear`: the run was one; `categories`: it had a multinomial or ordinal outcome, which is non-linear too;
    m, n: numbers of level-1 and level-2 coefficients, where they cannot be inferred."""
    with open(path, 'rb') as f:
        b = Bytes(f.read())
    magic, version, nfix = b.take('6sfi')
    if magic != b'GRKDR3':
        raise ValueError('%s is not a graph data file' % path)
    tables = dict(version=round(version, 2))
    if nonlinear or categories:
        for name in ('unitspecific', 'laplace', 'quadrature'):
            tables[name] = b.doubles(nfix)
    tables['gamma'] = b.doubles(nfix)
    for level in (1, 2, 3):
        tables['predictors%d' % level] = predictors(b)
    units2, units3 = unitcounts(mdm)
    counts = [len(tables['predictors%d' % level]['name']) for level in (1, 2, 3)]
    m, n, p, q, units2 = layout(b, units2, units3, counts, nfix, categories, m, n)
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


def show(table, rows=4, columns=12):
    """The beginning of a table as text."""
    names = list(table)[:columns]
    lines = [names] + [list(row) for row in list(zip(*(table[name] for name in names)))[:rows]]
    return '\n'.join(' '.join(('%12.5g' % x if isinstance(x, float) else str(x).rjust(12)) for x in line) for line in lines)


def main():
    words = sys.argv[3:]
    numbers = {w[0]: int(w[2:]) for w in words if w[:2] in ('m=', 'n=')}
    try:
        tables = read(sys.argv[1], sys.argv[2], 'nonlinear' in words, 'categories' in words, **numbers)
    except (OSError, ValueError) as error:
        sys.exit(str(error))
    for name, table in tables.items():
        print('\n%s\n%s' % (name, show(table) if isinstance(table, dict) else table))


if __name__ == '__main__':
    main()
