"""Runs of models with outcomes that are counts or categories, and their reports against dense computation."""
import json
import math
import os
import re
import shutil
import sys
import tempfile

import report
import residualfiles
from oracle_test import spread
from program import ROOT, Checks, body, finish, run

REFERENCE, EXAMPLES = str(ROOT / 'tests' / 'reference'), str(ROOT / 'examples')
sys.path.append(REFERENCE)
from nonlinearmodels import NAMES

TIGHT = ['STOPMACRO:0.0000001', 'STOPMICRO:0.0000000001', 'MACROIT:500,N', 'MICROIT:5000', 'FULLOUTPUT:Y']


class Roomy(Checks):
    """Checks whose tolerances are multiplied."""
    room = 1

    def near(self, what, got, want, absolute, relative=0.0):
        super().near(what, got, want, absolute * self.room, relative * self.room)


def tight(source, target, settings):
    """A copy of a command file with some keywords' values replaced."""
    keys = '|'.join(re.escape(s.split(':')[0]) for s in settings)
    with open(source) as f:
        lines = [x for x in f.read().splitlines() if not re.match('(%s):' % keys, x, re.I)]
    with open(target, 'w') as f:
        f.write('\n'.join(lines + settings) + '\n')


def results(c, program, work, mdm, commands, output):
    """The sections of the report of one run, or None."""
    code, out = run(program, work, mdm, commands)
    if code != 0:
        c.fail('the run ended with code %d\n%s' % (code, out[-800:]))
        return None
    with open(os.path.join(work, output), encoding='latin-1') as f:
        c.equal('warning of the macro iterations', 'stopped prior to convergence' in f.read(), False)
    return report.sections(os.path.join(work, output))


def fixed(c, what, r, want, model, df, nlrun):
    """Both tables of fixed effects, their ratios, and the hypothesis tests of one section."""
    for key, covariance in (('final', want.get('weighted', want['covariance'])), ('robust', want['robust'])):
        table = r.fixed.get(key)
        if table is None or len(table.rows) != len(want['gamma']):
            c.fail('%s: %s table missing or of another length' % (what, key))
            continue
        for i, row in enumerate(table.rows):
            name = '%s %s, %s, row %d' % (what, key, row.label, i)
            se = covariance[i][i] ** 0.5
            c.near(name, row.coefficient, want['gamma'][i], 2e-5)
            c.near(name + ' s.e.', row.se, se, 2e-5, 1e-4)
            c.near(name + ' t', row.t, want['gamma'][i] / se, 2e-3, 3e-4)
            c.equal(name + ' d.f.', row.df, df[i])
        if not nlrun:
            continue
        ratios = r.ratios.get(key, [])
        c.equal('%s %s: ratios' % (what, key), len(ratios), len(want['gamma']))
        for row, (ratio, low, high) in zip(ratios, want['ratio' + key]):
            name = '%s %s, ratio of %s' % (what, key, row.label)
            c.near(name, row.ratio, ratio, 3e-5, 3e-5)
            # the program takes its critical values of t from a table with a step of 0.001
            c.near(name + ' from', row.low, low, 1e-3, 1e-3)
            c.near(name + ' to', row.high, high, 1e-3, 1e-3)
    order = [w for kind in ('model', 'robust') for w in want['wald'] if w['kind'] == kind]
    c.equal('%s: number of hypothesis tests' % what, len(r.tests), len(order))
    for i, (got, w) in enumerate(zip(r.tests, order)):
        c.near('%s: test %d' % (what, i), got.statistic, w['statistic'], 1e-3, 3e-4)
        c.equal('%s: test %d d.f.' % (what, i), got.df, w['df'])
        c.near('%s: test %d p' % (what, i), got.p, 0.5 if w['statistic'] < w['df'] else w['p'], 6e-4)  # by an approximation
        for e, f, g, h in zip(got.estimates, w['estimate'], got.errors, w['se']):
            c.near('%s: test %d estimate' % (what, i), e, f, 4e-5)
            c.near('%s: test %d error' % (what, i), g, h, 2e-5, 1e-4)


def compare(c, sections, want, model):
    """All that the report of a run gives, against a stored result."""
    categories = 'categories' in model
    c.room = 20 if 'stopmacro' in model else 1
    c.equal('sections', sorted(sections), ['categories'] if categories else ['linear', 'population-average', 'unit-specific'])
    r = sections.get('categories' if categories else 'unit-specific')
    if r is None:
        return
    fixed(c, 'unit-specific', r, want, model, want['df'], True)
    p, b = want['order']['p'], want['order']['b']
    half = p * (p + 1) // 2
    for name, at, order in (('taupi', 0, p), ('taubeta', half, b)):
        c.matrix(name, getattr(r, name), want[name], 3e-5, 3e-5)
        c.matrix('s.e. of ' + name, getattr(r, 'se' + name), spread(want['setau'], at, order), 3e-5, 5e-4)
    if want['sigma2'] == 1.0:  # held there: no row of its own
        c.equal('level-1 row', r.componentsigma2, None)
    else:
        c.near('sigma2', r.componentsigma2, want['sigma2'], 3e-5)
    c.equal('deviance', r.deviance, None)
    for level, order, tau in ((2, p, 'taupi'), (3, b, 'taubeta')):
        rel = r.reliabilities.get(level, [])
        c.equal('level-%d reliabilities' % level, len(rel), order)
        for i, (x, y) in enumerate(zip(rel, want['rel%d' % level])):
            c.near('level-%d reliability %d' % (level, i), x, y, 6e-4)
        rows = r.components.get(level, [])
        c.equal('rows of level-%d components' % level, len(rows), order)
        for i, row in enumerate(rows):
            name = 'level-%d chi-square %s' % (level, row.effect)
            c.near(name + ' variance', row.variance, want[tau][i][i], 3e-5, 3e-5)
            c.equal(name + ' d.f.', row.df, want['dfstat%d' % level][i] if want['dfstat%d' % level][i] > 0 else None)
            if row.df:
                c.near(name, row.chisquare, want['stat%d' % level][i], 2e-3, 2e-4)
    notes = [(what, want[key + level], total) for what, key in (('reliability estimates', 'nrel'),
                                                                 ('chi-square statistics', 'nstat'))
             for level, total in (('2', want['n2']), ('3', want['n3'])) if want[key + level] != total]
    c.equal('notes on units without enough data', sorted(r.notes), sorted(notes))
    if not categories and 'population-average' in sections:
        r = sections['population-average']
        fixed(c, 'population-average', r, want['populationaverage'], model, want['df'], True)
        c.equal('tables that the population-average section has not', (r.taupi, r.components, r.reliabilities), (None, {}, {}))


def stored(tag):
    with open('%s/results/%s.json' % (REFERENCE, tag)) as f:
        return json.load(f)


def each(jobs, pick):
    """Runs the jobs (tag, function of the checks)."""
    parts = []
    for tag, job in jobs:
        if not pick or tag in pick:
            parts.append(Roomy(tag))
            job(parts[-1])
    finish(parts)


def folder(program, source, template):
    """A temporary folder with the files of a source folder and its MDM file; the holder keeps it alive."""
    holder = tempfile.TemporaryDirectory()
    for name in os.listdir(source):
        shutil.copy(os.path.join(source, name), holder.name)
    code, out = run(program, holder.name, '-r', template)
    if code != 0:
        sys.exit('making the MDM file of %s ended with code %d\n%s' % (template, code, out[-800:]))
    return holder


def madejobs(program, holder, models, data='nonlin'):
    """One job for each model of a made data set: its report against the stored result, and that of newcmd.kdr against it."""
    def job(name, model):
        def go(c):
            sections = results(c, program, holder.name, data + '.mdm', name + '.kdr', name + '.txt')
            if sections:
                compare(c, sections, stored('%s-%s' % (data, name)), model)
                with open(os.path.join(holder.name, name + '.txt')) as f:
                    first = f.read()
                run(program, holder.name, data + '.mdm', 'newcmd.kdr')
                with open(os.path.join(holder.name, name + '.txt')) as f:
                    c.equal('the report of newcmd.kdr', body(f.read()), body(first))
        return go
    return [(name, job(name, model)) for name, model in models.items()]


def workingjob(program, holder, name, kind, data='nonlin'):
    """The working data of the first three macro iterations, record by record, as the level-1 residual file shows those of
    the last pass: of one outcome the working dependent variable, the residual plus the fitted value; of categories the
    fitted probabilities, which give the weight matrix."""
    def go(c):
        for step, want in enumerate(stored('%s-%s' % (data, name))['workingdata'], 1):
            tight('%s/%s.kdr' % (holder.name, name), holder.name + '/working.kdr',
                  TIGHT + ['MACROIT:%d,N' % (step + 1), 'RESFIL1:Y/', 'RESFILTYPE:FREEFORMAT', 'OUTPUT:working.txt'])
            code, out = run(program, holder.name, data + '.mdm', 'working.kdr')
            if code != 0:
                return c.fail('the run ended with code %d\n%s' % (code, out[-800:]))
            rows = residualfiles.read(holder.name, 'FREEFORMAT', 1).rows
            c.equal('records', len(rows), len(want['z']))
            for i, (row, z, w) in enumerate(zip(rows, want['z'], want['w'])):
                what = 'step %d, record %d' % (step, i)
                if kind == 'counts':
                    c.near(what + ', Z', row[2] + row[3], z, 2e-4, 2e-4)
                    continue
                M = len(z)
                p = row[2 + M:2 + 2 * M]
                for a in range(M):
                    for b in range(a + 1):
                        c.near(what + ', W', weight(kind, p, a, b), w[a][b], 2e-5, 1e-3)
    return go


def weight(kind, p, a, b):
    """Element (a, b), b <= a, of the weight matrix of a record with the probabilities p: of an ordinal one with two cuts
    the inverse of V_cd = 1 / (p_d (1 - p_c)), c <= d."""
    if kind == 'multinomial':
        return p[a] * (1 - p[a]) if a == b else -p[a] * p[b]
    V = [[1 / (p[max(c, d)] * (1 - p[min(c, d)])) for d in range(2)] for c in range(2)]
    det = V[0][0] * V[1][1] - V[0][1] ** 2
    return (V[1 - a][1 - a] if a == b else -V[a][b]) / det


def residualsjob(program, holder, name, model):
    """The residual files in all forms: random effects with their posterior variances (not of categories) and
    least-squares twins, and the level-1 rows with variables that the model uses and does not; every name once."""
    def go(c):
        raw = records(holder.name + '/level1.dat', NAMES['nonlin'][1])
        grades = sorted({r[model['outcome']] for r in raw})
        want, M = stored('nonlin-' + name), model.get('categories', 2) - 1
        c.room = 40 if 'stopmacro' in model else 1  # random effects move more than the variances that they come from
        p, b = want['order']['p'], want['order']['b']
        source = dict(eb2='u', eb3='v', ol2='ol2', ol3='ol3', pv2='pv2', pv3='pv3')
        for form, (_, _, digits) in residualfiles.FORMS.items():
            tight('%s/%s.kdr' % (holder.name, name), holder.name + '/files.kdr',
                  TIGHT + ['RESFIL1:Y/YEXP,W1', 'RESFIL2:Y/', 'RESFIL3:Y/', 'RESFILTYPE:' + form, 'OUTPUT:files.txt'])
            code, out = run(program, holder.name, 'nonlin.mdm', 'files.kdr')
            if code != 0:
                return c.fail('the run ended with code %d\n%s' % (code, out[-800:]))
            near = lambda what, x, y: c.near('%s, %s' % (form, what), x, y, 4e-5 + 0.6 * 10.0 ** -digits * bool(digits), 4e-5)
            for level, order in ((2, p), (3, b)):
                t = residualfiles.read(holder.name, form, level)
                c.equal('%s: rows' % form, len(t.rows), want['n%d' % level])
                c.equal('%s: different names' % form, len({n.upper() for n in t.names}), len(t.names))
                first = 3 if level == 2 else 2
                places = {'eb': [first + i for i in range(order)], 'ol': [first + order + i for i in range(order)],
                          'pv': [i for i, n in enumerate(t.names) if n.upper().startswith('PV')]}
                for kind, at in places.items():
                    key = source[kind + str(level)]
                    if key not in want:
                        continue
                    for i, (row, ref) in enumerate(zip(t.rows, want[key])):
                        for x, y in zip([row[a] for a in at], ref or [None] * order):
                            what = '%s of level %d, unit %d' % (kind, level, i)
                            c.equal(what, x, y) if x is None or y is None else near(what, x, y)
            t = residualfiles.read(holder.name, form, 1)
            c.equal('%s: different names' % form, len({n.upper() for n in t.names}), len(t.names))
            c.equal('%s: records' % form, len(t.rows), len(raw))
            for i, (row, eta, r) in enumerate(zip(t.rows, want['eta'], raw)):
                fitted = fittedvalues(model['kind'], eta)
                for x, y in zip(row[2:2 + M], levelone(model, r, grades, fitted)):
                    near('residual of record %d' % i, x, y)
                for x, y in zip(row[2 + M:2 + 2 * M], fitted):
                    near('fitted value of record %d' % i, x, y)
                near('sigma', row[2 + 2 * M], want['sigma2'] ** 0.5)
            for column in {model['outcome'], model.get('count') or 'W1', 'W1', 'YEXP'}:
                for i, (x, r) in enumerate(zip(t.column(column), raw)):
                    near('%s of record %d' % (column, i), x, r[column])
    return go


def records(path, names):
    """The level-1 records of a made data set."""
    with open(path) as f:
        return [{n: float(line[11 + 10 * i:21 + 10 * i]) for i, n in enumerate(names)} for line in f]


def levelone(model, record, grades, fitted):
    """The residuals of a record: the working residual (y - n mu) / w of a count, of categories what was observed less what
    was fitted."""
    y = record[model['outcome']]
    if 'categories' in model:
        return [(y <= g if model['kind'] == 'ordinal' else y == g) - p for g, p in zip(grades, fitted)]
    n = record[model['count']] if model['count'] else 1.0
    mu = math.exp(fitted[0]) if model['kind'] == 'poisson' else 1 / (1 + math.exp(-fitted[0]))
    return [(y - n * mu) / (n * (mu if model['kind'] == 'poisson' else mu * (1 - mu)))]


def fittedvalues(kind, eta):
    """Of the level-1 file: of one outcome the linear predictor, of categories the probabilities, cumulative of an
    ordinal one."""
    if kind == 'multinomial':
        total = 1 + sum(math.exp(x) for x in eta)
        return [math.exp(x) / total for x in eta]
    return [1 / (1 + math.exp(-x)) for x in eta] if kind == 'ordinal' else [eta]
