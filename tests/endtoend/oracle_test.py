"""Runs the program on the reference data sets and compares the report with dense computation (tests/reference).

    oracle_test.py <program> [template-model ...]
"""
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
REFERENCE = os.path.join(HERE, '..', 'reference')
sys.path[:0] = [HERE, REFERENCE]
import report
from models import SETS


class Checks:
    """Collects what differs; every comparison names what it compared."""

    def __init__(self, tag):
        self.tag, self.bad, self.done, self.worst = tag, [], 0, {}

    def fail(self, what):
        self.bad.append('%s: %s' % (self.tag, what))

    def near(self, what, got, want, absolute, relative=0.0):
        self.done += 1
        if got is None:
            return self.fail('%s is missing, expected %.8g' % (what, want))
        # half a unit of the last printed place is already inside `absolute`
        allowed = max(absolute, relative * abs(want))
        if not abs(got - want) <= allowed:
            self.fail('%s is %.8g, expected %.8g (allowed difference %.2g)' % (what, got, want, allowed))

    def equal(self, what, got, want):
        self.done += 1
        if got != want:
            self.fail('%s is %r, expected %r' % (what, got, want))

    def matrix(self, what, got, want, absolute, relative):
        if got is None or [len(x) for x in got] != [len(x) for x in want]:
            self.done += 1
            return self.fail('%s has another shape or is missing: %r' % (what, got))
        for i, row in enumerate(want):
            for j, x in enumerate(row):
                self.near('%s[%d][%d]' % (what, i, j), got[i][j], x, absolute, relative)


def run(program, directory, *arguments):
    p = subprocess.run([program, '-q', *arguments], cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                       stderr=subprocess.STDOUT, timeout=300)
    return p.returncode, p.stdout.decode('latin-1')


def spread(se, at, order):
    """The elements of a lower triangle by rows from `at` on, as a full matrix."""
    full = [[0.0] * order for _ in range(order)]
    for i in range(order):
        for j in range(i + 1):
            full[i][j] = full[j][i] = se[at]
            at += 1
    return full


def fixedtable(c, what, table, gamma, covariance, df, setolerance):
    if table is None or len(table.rows) != len(gamma):
        return c.fail('%s table is missing or has another length' % what)
    for i, row in enumerate(table.rows):
        name = '%s %s' % (what, row.label)
        se = covariance[i][i] ** 0.5
        c.near(name, row.coefficient, gamma[i], 2e-5)
        c.near(name + ' s.e.', row.se, se, setolerance)
        c.near(name + ' t', row.t, gamma[i] / se, 2e-3, 5e-4)
        c.equal(name + ' d.f.', row.df, df[i])


def compare(c, r, want, model):
    p, b = want['order']['p'], want['order']['b']
    fisher = model.get('fisher', 2)
    c.equal('end of the iterations', r.stopped, 'converged')
    c.near('deviance', r.deviance, want['deviance'], 1e-3)
    c.equal('number of parameters', r.parameters, want['parameters'])
    covariance = want['weighted'] if 'weights' in model else want['covariance']
    fixedtable(c, 'fixed effect', r.fixed.get('final'), want['gamma'], covariance, want['df'], 1e-4)
    fixedtable(c, 'robust', r.fixed.get('robust'), want['gamma'], want['robust'], want['df'], 2e-5)
    if r.fixed.get('final'):
        c.equal('rough marks', [row.rough for row in r.fixed['final'].rows], want['dfrough'])
    least, lsdf = want['leastsquares'], [want['n1'] - len(want['gamma'])] * len(want['gamma'])
    fixedtable(c, 'least squares', r.fixed.get('leastsquares'), least['gamma'], least['covariance'], lsdf, 2e-6)
    fixedtable(c, 'least squares robust', r.fixed.get('leastsquaresrobust'), least['gamma'], least['robust'], lsdf, 2e-6)
    c.near('least-squares deviance', r.lsdeviance, least['deviance'], 1e-4)
    c.equal('least-squares parameters', r.lsparameters, least['parameters'])
    if 'vknown' not in model:
        c.near('sigma2', r.sigma2, want['sigma2'], 2e-5, 5e-4)
    c.matrix('tau(pi)', r.taupi, want['taupi'], 2e-5, 5e-4)
    c.matrix('tau(beta)', r.taubeta, want['taubeta'], 2e-5, 5e-4)
    for name, got, m in (('tau(pi)', r.corrtaupi, want['taupi']), ('tau(beta)', r.corrtaubeta, want['taubeta'])):
        if len(m) > 1:
            c.matrix(name + ' correlations', got, [[m[i][j] / (m[i][i] * m[j][j]) ** 0.5 for j in range(len(m))]
                                                   for i in range(len(m))], 1.1e-3, 0)
    if fisher:
        c.matrix('s.e. of tau(pi)', r.setaupi, spread(want['setau'], 0, p), 2e-5, 5e-3)
        c.matrix('s.e. of tau(beta)', r.setaubeta, spread(want['setau'], p * (p + 1) // 2, b), 2e-5, 5e-3)
        if 'fixsigma2' not in model and 'vknown' not in model:
            c.near('s.e. of sigma2', r.sesigma2, want['setau'][-1], 2e-5, 5e-3)
    else:
        c.equal('no s.e. without scoring', (r.setaupi, r.setaubeta, r.sesigma2), (None, None, None))
    for level, order in ((2, p), (3, b)):
        got = r.reliabilities.get(level, [])
        c.equal('rows of level-%d reliabilities' % level, len(got), order)
        for i, x in enumerate(got):
            c.near('level-%d reliability %d' % (level, i), x, want['rel%d' % level][i], 1.1e-3)
        rows = r.components.get(level, [])
        c.equal('rows of level-%d components' % level, len(rows), order)
        for i, row in enumerate(rows):
            name = 'level-%d chi-square %s' % (level, row.effect)
            c.equal(name + ' d.f.', row.df, want['dfstat%d' % level][i])
            c.near(name, row.chisquare, want['stat%d' % level][i], 1e-4, 1e-4)
            c.near(name + ' variance', row.variance, want['taupi' if level == 2 else 'taubeta'][i][i], 2e-5, 5e-4)
    notes = [(what, want[key + level], total) for what, key in (('reliability estimates', 'nrel'),
                                                                 ('chi-square statistics', 'nstat'))
             for level, total in (('2', want['n2']), ('3', want['n3'])) if want[key + level] != total]
    c.equal('notes on units without enough data', sorted(r.notes), sorted(notes))
    c.equal('number of hypothesis tests', len(r.tests), len(want['wald']))
    order = [w for kind in ('model', 'robust') for w in want['wald'] if w['kind'] == kind]
    for i, (got, w) in enumerate(zip(r.tests, order)):
        c.near('test %d' % i, got.statistic, w['statistic'], 1e-3, 2e-4)
        c.equal('test %d d.f.' % i, got.df, w['df'])
        for e, f, g, h in zip(got.estimates, w['estimate'], got.errors, w['se']):
            c.near('test %d estimate' % i, e, f, 3e-5)
            c.near('test %d error' % i, g, h, 1e-4)
    for level, rows in want.get('exploratory', {}).items():
        got = r.exploratory.get(int(level), [])
        c.equal('level-%s candidates' % level, [x[1] for x in got], [x[1] for x in rows])
        for x, (place, name, slope, error) in zip(got, rows):
            c.near('level-%s candidate %s for %d' % (level, name, place), x[2], slope, 1.1e-3)
            c.near('level-%s candidate %s for %d s.e.' % (level, name, place), x[3], error, 1.1e-3)
            c.equal('level-%s candidate %s belongs to' % (level, name), x[0], place)
    if 'deviance' in model:
        chi, df = abs(want['deviance'] - model['deviance']), abs(want['parameters'] - model['df'])
        c.near('comparison', (r.comparison or [None])[0], chi, 2e-3)
        c.equal('comparison d.f.', (r.comparison or [None, None])[1], df)


def main():
    program, pick = os.path.abspath(sys.argv[1]), sys.argv[2:]
    bad, done = [], 0
    for name, (templates, models) in SETS.items():
        for template in templates:
            tags = {m: '%s-%s' % (template, m) for m in models}
            if pick and not any(t in pick for t in tags.values()):
                continue
            with tempfile.TemporaryDirectory() as work:
                for path in glob.glob('%s/%s/*' % (REFERENCE, name)):
                    shutil.copy(path, work)
                code, out = run(program, work, '-r', template + '.mdmt')
                if code != 0:
                    bad.append('%s: making the MDM file ended with code %d\n%s' % (template, code, out[-800:]))
                    continue
                for m, model in models.items():
                    if pick and tags[m] not in pick:
                        continue
                    c = Checks(tags[m])
                    try:
                        code, out = run(program, work, template + '.mdm', m + '.kdr')
                        if code == 100 and 'This version of KDR3 cannot' in out:
                            print('%-20s skipped: %s' % (c.tag, out.strip().splitlines()[-1]))
                            continue
                        if code != 0:
                            c.fail('the run ended with code %d\n%s' % (code, out[-800:]))
                        else:
                            r = report.read('%s/%s.txt' % (work, m))
                            with open('%s/results/%s.json' % (REFERENCE, tags[m])) as f:
                                compare(c, r, json.load(f), model)
                            if tags[m] == 'school-A':  # the work files in memory change nothing
                                code, out = run(program, work, '-i', '1', template + '.mdm', m + '.kdr')
                                c.equal('report with -i', report.masked(report.read('%s/%s.txt' % (work, m)).text),
                                        report.masked(r.text))
                    except subprocess.TimeoutExpired:
                        c.fail('the run did not end')
                    except (ValueError, OSError) as error:
                        c.fail(str(error))
                    print('%-20s %3d comparisons, %d differ' % (c.tag, c.done, len(c.bad)))
                    bad += c.bad[:12] + ['%s: %d more' % (c.tag, len(c.bad) - 12)] * (len(c.bad) > 12)
                    done += c.done
    print('\n'.join(bad) if bad else 'all %d comparisons hold' % done)
    return 1 if bad or not done else 0


if __name__ == '__main__':
    sys.exit(main())
