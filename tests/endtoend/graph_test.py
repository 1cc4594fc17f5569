"""The graph data file, read back by the example reader: residual blocks against dense computation, predictor statistics
against R on the raw data.

    graph_test.py <program>
"""
import json
import os
import struct
import sys
import tempfile

from mdmfile import Mdm
from program import REFERENCE, Checks, finish, madefolder, run
from residualfiles import predictorsbyr, readgraph
sys.path.append(str(REFERENCE))
from models import SETS
from residuals_test import commands, records

NULL = ['NONLIN:N', 'NUMIT:500,N', 'STOPVAL:0.0000000001', 'LEVEL1:Y=INTRCPT1+RANDOM', 'LEVEL2:INTRCPT1=INTRCPT2+RANDOM/',
        'LEVEL3:INTRCPT2=INTRCPT3+RANDOM/', 'LEVEL1DELETION:NONE', 'CONSTRAIN:N', 'HYPOTH:N', 'LVR-BETA:N', 'TITLE:null',
        'FULLOUTPUT:Y']


def graph(c, program, work, command, mdm, chosen={1: None, 2: None, 3: None}, code=0):
    commands(work, command, 'g.kdr', None, chosen, ['GRAPHGAMMAS:graph.bin'])
    got, out = run(program, work, mdm, 'g.kdr')
    c.equal('exit code of %s' % command, got, code)
    return readgraph(work + '/graph.bin', '%s/%s' % (work, mdm))


def block(c, what, table, prefix, want):
    """Columns prefix1, prefix2 ... against rows; a row of None has no value in any."""
    width = max(len(x) for x in want if x)
    for i in range(width):
        got = table['%s%d' % (prefix, i + 1)]
        c.equal('%s %s%d: number' % (what, prefix, i + 1), len(got), len(want))
        for k, (x, row) in enumerate(zip(got, want)):
            c.same('%s %s%d of unit %d' % (what, prefix, i + 1, k), x, row and row[i], 3e-5, 1e-6)
    c.equal('%s: columns %s' % (what, prefix), '%s%d' % (prefix, width + 1) in table, False)


def diagonal(triangle):
    values, i = [], 0
    while i < len(triangle):
        values.append(triangle[i])
        i += len(values) + 1
    return values


def oracle(program, work, tag):
    c = Checks(tag)
    template, name = tag.split('-')
    model = [models for templates, models in SETS.values() if template in templates][0][name]
    with open('%s/results/residuals-%s.json' % (REFERENCE, tag)) as f:
        want = json.load(f)
    with open('%s/results/%s.json' % (REFERENCE, tag)) as f:
        gamma = json.load(f)['gamma']
    t = graph(c, program, work, name + '.kdr', template + '.mdm')
    for got, x in zip(t['gamma'], gamma):
        c.near('gamma', got, x, 3e-5)
    c.equal('number of gammas', len(t['gamma']), len(gamma))
    c.equal('level-1 flags', [f == 0 for f in t['fixed1']], [n in model['random2'] for n, _ in model['level1']])
    c.equal('level-2 flags', [f == 0 for f in t['fixed2']],
            [(n, u) in model['random3'] for n, _ in model['level1'] for u, _ in model['level2'][n]])
    for prefix, key in (('EB', 'EB'), ('OL', 'graphOL'), ('FV', 'FV')):
        block(c, 'level 3', t['level3'], prefix, [u[key] for u in want['level3']])
    block(c, 'level 3', t['level3'], 'PV', [diagonal(u['PV']) for u in want['level3']])
    for prefix in ('EB', 'OL', 'FV'):
        block(c, 'level 2', t['level2'], prefix, [u[prefix] for u in want['level2']])
    block(c, 'level 2', t['level2'], 'PV', [diagonal(u['PV']) for u in want['level2']])
    c.equal('fitted values', len(t['fitted']['FITVAL']), len(want['level1']))
    for got, x in zip(t['fitted']['FITVAL'], want['level1']):
        c.near('fitted value', got, x[1], 3e-5)
    if tag in ('school-A', 'missinganalysis-A', 'tiny-T'):
        predictorsbyr(c, tag, t)
    return c


def nopredictors(program, work):
    c = Checks('no predictors')
    with open(work + '/null.kdr', 'w') as f:
        f.write('\n'.join(NULL) + '\n')
    t = graph(c, program, work, 'null.kdr', 'school.mdm')
    with open(work + '/graph.bin', 'rb') as f:
        data = f.read()
    c.equal('head', data[:14], b'GRKDR3' + struct.pack('<fi', 7.01, 1))
    c.equal('three empty sections and two flags', data[22:42], bytes(20))
    c.equal('fitted values', len(t['fitted']['FITVAL']), len(records(work)[1]))
    where = work + '/graph.bin', work + '/school.mdm'
    c.equal('told the numbers of coefficients', readgraph(*where, m=1, n=1), t)
    # What a multinomial run with one gamma would leave.
    with open(where[0], 'wb') as f:
        f.write(data[:14] + struct.pack('<3d', 1, 2, 3) + data[14:-4 - 8 * len(t['fitted']['FITVAL'])])
    many = readgraph(*where, categories=True)
    c.equal('with categories', (many['unitspecific'], many['laplace'], many['quadrature']), ([1.0], [2.0], [3.0]))
    c.equal('the rest with categories', [many[k] for k in t if k != 'fitted'], [t[k] for k in t if k != 'fitted'])
    both = graph(c, program, work, 'null.kdr', 'school.mdm', {1: '', 2: '', 3: ''})
    c.equal('residual files beside it change nothing', both, t)
    return c


def onevalue(program, work):
    """A predictor with one value in all records, in a model that gives it no effect of its own at level 1."""
    c, mdm = Checks('one value'), Mdm(work + '/school.mdm')
    n1 = mdm.head[0]
    for b in mdm.blocks:
        values = list(struct.unpack('<%dd' % (len(b[1]) // 8), b[1]))
        values[4::n1] = [0.1] * len(values[4::n1])  # W1
        b[1] = struct.pack('<%dd' % len(values), *values)
    mdm.write(work + '/one.mdm')
    with open(work + '/one.kdr', 'w') as f:
        f.write('\n'.join(NULL).replace('Y=INTRCPT1+RANDOM', 'Y=INTRCPT1+W1+RANDOM').replace(
            'LEVEL1DEL', 'LEVEL2:W1=INTRCPT2+Z1/\nLEVEL3:INTRCPT2=INTRCPT3/\nLEVEL3:Z1=INTRCPT3/\nLEVEL1DEL')
            .replace('CONSTRAIN:N', 'CONSTRAIN:1,1,0') + '\n')
    t = graph(c, program, work, 'one.kdr', 'one.mdm')
    p = t['predictors1']
    c.equal('predictor', p['name'], ['W1'])
    c.equal('deviation', p['deviation'], [0.0])
    c.equal('percentiles', {p['p%d' % k][0] for k in range(101)}, {0.1})
    return c


def main():
    program, parts = os.path.abspath(sys.argv[1]), []
    with tempfile.TemporaryDirectory() as top:
        for name, template, tags, others in (
                ('school', 'school', ['A', 'B', 'C', 'D', 'E', 'R6'], [nopredictors, onevalue]),
                ('schoolmissing', 'missinganalysis', ['A'], []), ('tiny', 'tiny', ['T'], [])):
            work = madefolder(program, REFERENCE / name, template + '.mdmt', top)
            parts += [oracle(program, work, '%s-%s' % (template, tag)) for tag in tags]
            parts += [test(program, work) for test in others]
    finish(parts)


if __name__ == '__main__':
    main()
