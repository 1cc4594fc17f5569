"""The example in examples/chem97 against stored estimates of the same models by maximum likelihood.

    chem97_test.py <program>
"""
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import report
import residualfiles
from oracle_test import Checks, run

EXAMPLE = os.path.join(HERE, '..', '..', 'examples', 'chem97')
REFERENCE = os.path.join(HERE, '..', 'reference', 'chem97')

# names of the stored fixed effects in the order of the report
ORDER = {'model1': ['(Intercept)', 'gcsecnt'],
         'model2': ['(Intercept)', 'LEAGCSEc', 'SCHGCSEc', 'FEMALE', 'gcsecnt', 'gcsecnt:SCHGCSEc']}
TIGHT = ['STOPVAL:0.0000000001', 'NUMIT:5000,N']
RESIDUALS = ['RESFIL%d:Y/' % level for level in (1, 2, 3)] + ['GRAPHGAMMAS:graph.bin']
# name, model, settings, options, whether only the deviance is compared, and loosely
RUNS = [
    ('default', 'model1', ['NUMIT:5000,N'], [], True),
    ('default', 'model2', ['NUMIT:5000,N'], [], True),
    ('scoring', 'model1', TIGHT + RESIDUALS + ['FISHERTYPE:2'], [], False),
    ('scoring', 'model2', TIGHT + RESIDUALS + ['FISHERTYPE:2'], [], False),
    ('outer products', 'model1', TIGHT + ['FISHERTYPE:1'], [], False),
    ('outer products', 'model2', TIGHT + ['FISHERTYPE:1'], [], False),
    # the level-3 variance is so small that the likelihood is flat long before EM is there: a set number of iterations
    ('no scoring', 'model1', ['STOPVAL:0.0', 'NUMIT:2000,N', 'FISHERTYPE:0'], [], False),
    ('no scoring', 'model2', ['STOPVAL:0.0', 'NUMIT:6000,N', 'FISHERTYPE:0'], [], False),
    ('in memory', 'model2', TIGHT + ['FISHERTYPE:2'], ['-i', '1'], False),
]


def readref(path):
    ref = dict(gamma={}, tau={})
    for line in open(path):
        w = line.split()
        if w[0] == 'gamma':
            ref['gamma'][w[1]] = (float(w[2]), float(w[4]))
        elif w[0] == 'tau':
            ref['tau'].setdefault(w[1], {})[int(w[2]) - 1, int(w[3]) - 1] = float(w[4])
        else:
            ref[w[0]] = float(w[1])
    return ref


def compare(c, r, ref, model, loose, stop):
    c.equal('end of the iterations', r.stopped, stop)
    c.near('deviance', r.deviance, ref['deviance'], 0.1 if loose else 1e-3)
    if loose:
        return
    rows = r.fixed['final'].rows
    c.equal('number of fixed effects', len(rows), len(ORDER[model]))
    for row, name in zip(rows, ORDER[model]):
        c.near(name, row.coefficient, ref['gamma'][name][0], 2e-5)
        c.near(name + ' s.e.', row.se, ref['gamma'][name][1], 1e-4)
    c.near('sigma2', r.sigma2, ref['sigma2'], 2e-5, 5e-4)
    for name, got in (('schN', r.taupi), ('leaN', r.taubeta)):
        for (i, j), x in ref['tau'][name].items():
            c.near('tau %s %d %d' % (name, i, j), got[i][j], x, 2e-5, 5e-4)


def residuals(c, work, model):
    """Selected rows and the sums of all columns of the three residual files."""
    values = {level: [row[2 if level < 3 else 1:] for row in residualfiles.read(work, 'SPSS', level).rows]
              for level in (1, 2, 3)}
    for line in open(REFERENCE + '/residuals.txt'):
        name, level, what, *want = line.split()
        if name != model:
            continue
        rows, total = values[int(level)], what == 'sum'
        got = [math.fsum(x or 0.0 for x in column) for column in zip(*rows)] if total else rows[int(what) - 1]
        c.equal('columns of level ' + level, len(got), len(want))
        for i, (x, w) in enumerate(zip(got, want)):
            if w != 'NA':
                c.near('level %s, %s, column %d' % (level, what, i), x, float(w), 1e-4 * (len(rows) if total else 1))


def alike(program, work):
    """A graph file whose length agrees with another layout too: the readers still find the right one."""
    c = Checks('alike')
    long = 'INTRCPT2+SCHGCSE+SCHSIZE'
    lines = ['NONLIN:N', 'LEVEL1:SCORE=INTRCPT1+FEMALE+GCSECNT+RANDOM']
    for name, terms, random in (('INTRCPT1', 'INTRCPT2', '+RANDOM'), ('FEMALE', long, '+RANDOM'), ('GCSECNT', long, '')):
        lines.append('LEVEL2:%s=%s%s/' % (name, terms, random))
        lines += ['LEVEL3:%s=INTRCPT3%s/' % (t, '+RANDOM' if t == 'INTRCPT2' else '') for t in terms.split('+')]
    lines += ['LEVEL1DELETION:NONE', 'RESFIL1:N', 'RESFIL2:N', 'RESFIL3:N', 'CONSTRAIN:N', 'HYPOTH:N', 'LVR-BETA:N',
              'NUMIT:2,N', 'TITLE:alike', 'OUTPUT:run.txt', 'FULLOUTPUT:Y', 'GRAPHGAMMAS:graph.bin']
    with open(work + '/run.kdr', 'w') as f:
        f.write('\n'.join(lines) + '\n')
    c.equal('exit code', run(program, work, 'chem97.mdm', 'run.kdr')[0], 0)
    t = residualfiles.readgraph(work + '/graph.bin', work + '/chem97.mdm')
    c.equal('flags', (t['fixed1'], t['fixed2']), ([0, 0, 1], [0, 0, 1, 1, 0, 1, 1]))
    return c


def main():
    program, pick = os.path.abspath(sys.argv[1]), sys.argv[2:]
    bad = []
    with tempfile.TemporaryDirectory() as work:
        for name in os.listdir(EXAMPLE):
            shutil.copy(os.path.join(EXAMPLE, name), work)
        code, out = run(program, work, '-r', 'chem97.mdmt')
        if code != 0:
            print('making the MDM file ended with code %d\n%s' % (code, out[-800:]))
            return 1
        for kind, model, settings, options, loose in RUNS:
            if pick and kind not in pick:
                continue
            c = Checks('%s, %s' % (model, kind))
            keys = '|'.join(s.split(':')[0] for s in settings)
            with open('%s/%s.kdr' % (work, model)) as f:
                lines = [x for x in f.read().splitlines() if not re.match('(%s|OUTPUT):' % keys, x, re.I)]
            with open(work + '/run.kdr', 'w') as f:
                f.write('\n'.join(lines + settings + ['OUTPUT:run.txt']) + '\n')
            try:
                code, out = run(program, work, *options, 'chem97.mdm', 'run.kdr')
                if code != 0:
                    c.fail('the run ended with code %d\n%s' % (code, out[-800:]))
                else:
                    r = report.read(work + '/run.txt')
                    compare(c, r, readref('%s/%s.ref' % (REFERENCE, model)), model, loose,
                            'limit' if 'STOPVAL:0.0' in settings else 'converged')
                    if 'RESFIL3:Y/' in settings:
                        residuals(c, work, model)
                        graph = residualfiles.readgraph(work + '/graph.bin', work + '/chem97.mdm')
                        if model == 'model2':
                            residualfiles.predictorsbyr(c, 'chem97', graph)
                        for level, table in ((2, 'level2'), (3, 'level3')):
                            rows = residualfiles.read(work, 'SPSS', level)
                            for i, name in enumerate(n for n in rows.names if n.startswith('EB')):
                                c.equal('graph file: %s' % name, graph[table]['EB%d' % (i + 1)], rows.column(name))
                    print('%-24s %5s iterations, %d comparisons, %d differ' % (c.tag, r.iterations, c.done, len(c.bad)))
            except subprocess.TimeoutExpired:
                c.fail('the run did not end')
            except (ValueError, OSError, KeyError) as error:
                c.fail('report not understood: %s' % error)
            bad += c.bad
        if not pick:
            bad += alike(program, work).bad
    print('\n'.join(bad) if bad else 'all hold')
    return 1 if bad else 0


if __name__ == '__main__':
    sys.exit(main())
