"""Runs the program on the reference data sets and compares the report with dense computation (tests/reference).

    oracle_test.py <program> [template-model ...]
"""
import json
import os
import sys
import tempfile

import report
from program import REFERENCE, Checks, finish, madefolder, run
sys.path.append(str(REFERENCE))
from models import SETS


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
    program, pick, parts = os.path.abspath(sys.argv[1]), sys.argv[2:], []
    with tempfile.TemporaryDirectory() as top:
        for name, (templates, models) in SETS.items():
            for template in templates:
                chosen = {m: model for m, model in models.items() if not pick or f'{template}-{m}' in pick}
                work = madefolder(program, REFERENCE / name, template + '.mdmt', top) if chosen else None
                for m, model in chosen.items():
                    c = Checks(f'{template}-{m}')
                    parts.append(c)
                    code, out = run(program, work, template + '.mdm', m + '.kdr')
                    if code != 0:
                        c.fail('the run ended with code %d\n%s' % (code, out[-800:]))
                        continue
                    with open(REFERENCE / 'results' / (c.tag + '.json')) as f:
                        compare(c, report.read(f'{work}/{m}.txt'), json.load(f), model)
    finish(parts)


if __name__ == '__main__':
    main()
