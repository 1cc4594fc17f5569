"""The example in examples/chem97 against stored estimates of the same models by maximum likelihood.

    chem97_test.py <program>
"""
import math
import sys

import report
import residualfiles
from program import NOFEATURES, NOFILES, REFERENCE, Checks, Workplace, finish

STORED = REFERENCE / 'chem97'

# names of the stored fixed effects in the order of the report
ORDER = {'model1': ['(Intercept)', 'gcsecnt'],
         'model2': ['(Intercept)', 'LEAGCSEc', 'SCHGCSEc', 'FEMALE', 'gcsecnt', 'gcsecnt:SCHGCSEc']}
TIGHT = {'STOPVAL': '0.0000000001', 'NUMIT': '5000,N'}
RESIDUALS = {'RESFIL1': 'Y/', 'RESFIL2': 'Y/', 'RESFIL3': 'Y/', 'GRAPHGAMMAS': 'graph.bin'}
# name, model, settings, options, whether only the deviance is compared, and loosely
RUNS = [
    ('default', 'model1', {'NUMIT': '5000,N'}, [], True),
    ('default', 'model2', {'NUMIT': '5000,N'}, [], True),
    ('scoring', 'model1', {**TIGHT, **RESIDUALS, 'FISHERTYPE': '2'}, [], False),
    ('scoring', 'model2', {**TIGHT, **RESIDUALS, 'FISHERTYPE': '2'}, [], False),
    ('outer products', 'model1', {**TIGHT, 'FISHERTYPE': '1'}, [], False),
    ('outer products', 'model2', {**TIGHT, 'FISHERTYPE': '1'}, [], False),
    # the level-3 variance is so small that the likelihood is flat long before EM is there: a set number of iterations
    ('no scoring', 'model1', {'STOPVAL': '0.0', 'NUMIT': '2000,N', 'FISHERTYPE': '0'}, [], False),
    ('no scoring', 'model2', {'STOPVAL': '0.0', 'NUMIT': '6000,N', 'FISHERTYPE': '0'}, [], False),
    ('in memory', 'model2', {**TIGHT, 'FISHERTYPE': '2'}, ['-i', '1'], False),
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
    for line in open(STORED / 'residuals.txt'):
        name, level, what, *want = line.split()
        if name != model:
            continue
        rows, total = values[int(level)], what == 'sum'
        got = [math.fsum(x or 0.0 for x in column) for column in zip(*rows)] if total else rows[int(what) - 1]
        c.equal('columns of level ' + level, len(got), len(want))
        for i, (x, w) in enumerate(zip(got, want)):
            if w != 'NA':
                c.near('level %s, %s, column %d' % (level, what, i), x, float(w), 1e-4 * (len(rows) if total else 1))


def alike(place, work):
    """A graph file whose length agrees with another layout too: the readers still find the right one."""
    c = Checks('alike')
    long = 'INTRCPT2+SCHGCSE+SCHSIZE'
    lines = ['NONLIN:N', 'LEVEL1:SCORE=INTRCPT1+FEMALE+GCSECNT+RANDOM']
    for name, terms, random in (('INTRCPT1', 'INTRCPT2', '+RANDOM'), ('FEMALE', long, '+RANDOM'), ('GCSECNT', long, '')):
        lines.append('LEVEL2:%s=%s%s/' % (name, terms, random))
        lines += ['LEVEL3:%s=INTRCPT3%s/' % (t, '+RANDOM' if t == 'INTRCPT2' else '') for t in terms.split('+')]
    lines += ['NUMIT:2,N', 'TITLE:alike', 'OUTPUT:run.txt', 'FULLOUTPUT:Y', 'GRAPHGAMMAS:graph.bin']
    place.write('run.kdr', '\n'.join(lines) + '\n' + NOFILES + NOFEATURES)
    c.equal('exit code', place.run('chem97.mdm', 'run.kdr').returncode, 0)
    t = residualfiles.readgraph(work + '/graph.bin', work + '/chem97.mdm')
    c.equal('flags', (t['fixed1'], t['fixed2']), ([0, 0, 1], [0, 0, 1, 1, 0, 1, 1]))
    return c


def main():
    place, parts = Workplace(sys.argv[1]), []
    work = str(place.folder)
    assert place.run('-r', 'chem97.mdmt').returncode == 0
    for kind, model, settings, options, loose in RUNS:
        c = Checks('%s, %s' % (model, kind))
        parts.append(c)
        done = place.run(*options, 'chem97.mdm', place.edited('run.kdr', model + '.kdr', OUTPUT='run.txt', **settings))
        if done.returncode != 0:
            c.fail('the run ended with code %d\n%s' % (done.returncode, done.stdout[-800:]))
            continue
        r = report.read(work + '/run.txt')
        compare(c, r, readref('%s/%s.ref' % (STORED, model)), model, loose,
                'limit' if settings.get('STOPVAL') == '0.0' else 'converged')
        if 'RESFIL3' in settings:
            residuals(c, work, model)
            graph = residualfiles.readgraph(work + '/graph.bin', work + '/chem97.mdm')
            if model == 'model2':
                residualfiles.predictorsbyr(c, 'chem97', graph)
            for level, table in ((2, 'level2'), (3, 'level3')):
                rows = residualfiles.read(work, 'SPSS', level)
                for i, name in enumerate(n for n in rows.names if n.startswith('EB')):
                    c.equal('graph file: %s' % name, graph[table]['EB%d' % (i + 1)], rows.column(name))
    parts.append(alike(place, work))
    finish(parts)


if __name__ == '__main__':
    main()
