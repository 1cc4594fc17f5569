"""Bernoulli, binomial and Poisson models against dense computation from the definition (tests/reference/densepql.py).

    nonlinear_test.py <program> [model ...]
"""
import os
import shutil
import sys

import pqlcompare as pql
from graph_test import block
from nonlinearmodels import COUNTS, LARGE
from residualfiles import readgraph

# example, command file, settings, stored result
EXAMPLES = [('prenatal', 'care', [], 'prenatal-pql1'), ('melanoma', 'deaths', [], 'melanoma-pql1'),
            ('melanoma', 'deaths', ['FIXSIGMA2:0'], 'melanoma-pqlod')]


def examplejob(program, holder, name, command, settings, tag):
    def go(c):
        pql.tight('%s/%s.kdr' % (holder.name, command), holder.name + '/run.kdr', pql.TIGHT + settings + ['OUTPUT:run.txt'])
        sections = pql.results(c, program, holder.name, name + '.mdm', 'run.kdr', 'run.txt')
        if sections:
            pql.compare(c, sections, pql.stored(tag), {})
    return go


def flat(program, holder):
    """With taus of nearly nothing, the population-average effects are the unit-specific ones; POPAVIT changes no number."""
    def go(c):
        for popavit in ('N', 'Y', '5'):
            tau = ['ESTTAU2:0.0000001', 'ESTTAU3:0.0000001', 'PRINTVARIANCE-COVARIANCE:Y']
            with open(holder.name + '/BERNI.kdr') as f:
                lines = f.read().splitlines()
            at = lines.index('CONSTRAIN:N')
            with open(holder.name + '/flat.kdr', 'w') as f:
                f.write('\n'.join(lines[:at] + tau + ['POPAVIT:' + popavit] + lines[at:] + ['OUTPUT:flat.txt']) + '\n')
            sections = pql.results(c, program, holder.name, 'nonlin.mdm', 'flat.kdr', 'flat.txt')
            if not sections:
                return
            made = [os.path.exists(holder.name + '/' + name) for name in ('gamvcpa.dat', 'gamvcpar.dat')]
            c.equal('POPAVIT:%s, variance files' % popavit, made, [True, popavit != '5'])
            for name in ('gamvcpa.dat', 'gamvcpar.dat')[:sum(made)]:
                os.remove(holder.name + '/' + name)
            pairs = [(x.coefficient, y.coefficient, x.se, y.se) for key in ('final', 'robust') for x, y in
                     zip(sections['unit-specific'].fixed[key].rows, sections['population-average'].fixed[key].rows)]
            c.equal('rows', len(pairs), 12)
            for a, b, d, e in pairs:
                c.near('POPAVIT:%s, population average' % popavit, b, a, 2e-6)
                c.near('POPAVIT:%s, its s.e.' % popavit, e, d, 2e-6)
    return go


def graph(program, holder, name):
    """The graph data file, through both example readers: the fixed effects of both models, and the residuals, posterior
    variances and fitted values of the population average. The variance files."""
    def go(c):
        pql.tight('%s/%s.kdr' % (holder.name, name), holder.name + '/graph.kdr',
                  pql.TIGHT + ['GRAPHGAMMAS:graph.bin', 'PRINTVARIANCE-COVARIANCE:Y', 'OUTPUT:graph.txt'])
        if not pql.results(c, program, holder.name, 'nonlin.mdm', 'graph.kdr', 'graph.txt'):
            return
        t = readgraph(holder.name + '/graph.bin', holder.name + '/nonlin.mdm', nonlinear=True)
        want = pql.stored('nonlin-' + name)
        average = want['populationaverage']
        for key, gamma in (('unitspecific', want['gamma']), ('gamma', average['gamma'])):
            c.equal('number of ' + key, len(t[key]), len(gamma))
            for x, y in zip(t[key], gamma):
                c.near(key, x, y, 2e-5)
        c.equal('engines that did not run', (t['laplace'][0], t['quadrature'][0]), (-1e36, -1e36))
        for prefix, effects in (('EB', ('v', 'u')), ('PV', ('pv3', 'pv2'))):
            for level, key in zip((3, 2), effects):
                block(c, 'level %d' % level, t['level%d' % level], prefix, average[key])
        c.equal('fitted values', len(t['fitted']['FITVAL']), len(average['eta']))
        for i, (x, y) in enumerate(zip(t['fitted']['FITVAL'], average['eta'])):
            c.near('fitted value %d' % i, x, y, 4e-5, 4e-5)
        read = lambda file: [[float(x) for x in line.split()] for line in open(holder.name + '/' + file)]
        taus = want['taupi'] + want['taubeta']
        elements = sum(n * (n + 1) // 2 for n in (want['order']['p'], want['order']['b']))
        errors = [row[i] ** 0.5 for i, row in enumerate(read('tauvc.dat')[len(taus):])]  # their covariance; no sigma^2
        for what, got, table in (('taus', read('tauvc.dat')[:len(taus)], taus),
                                 ('errors of the taus', [errors], [want['setau'][:elements]]),
                                 ('gamvcus.dat', read('gamvcus.dat'), [want['gamma']] + want.get('weighted', want['covariance'])),
                                 ('gamvcpa.dat', read('gamvcpa.dat'), [average['gamma']] + average.get('weighted', average['covariance'])),
                                 ('gamvcpar.dat', read('gamvcpar.dat'), [average['gamma']] + average['robust'])):
            c.equal('rows of ' + what, [len(row) for row in got], [len(row) for row in table])
            for x, y in zip(sum(got, []), sum(table, [])):
                c.near(what, x, y, 2e-5, 4e-4)
    return go


def deleted(program, holder):
    """Records deleted at run time, among them all of a unit, against a file without them: trials and weights stay with
    their records in all macro iterations, and the note stands once."""
    def go(c):
        place = holder.name + '/deleted'
        os.mkdir(place)
        for name in ('level1.dat', 'level2.dat', 'level3.dat'):
            shutil.copy(holder.name + '/' + name, place)
        with open(holder.name + '/nonlin.mdmt') as f:
            template = f.read()
        with open(place + '/level1.dat') as f:
            lines = f.read().splitlines()
        missing = {i for i, line in enumerate(lines) if i % 19 == 3 or line[5:11] == 'c00010'}
        cell = lambda i: 11 + 10 * (1, 2, 10)[i % 3]  # the outcome, the trials, a predictor
        kept = [line for i, line in enumerate(lines) if i not in missing]
        holed = [line[:cell(i)] + '  -99.0000' + line[cell(i) + 10:] if i in missing else line for i, line in enumerate(lines)]
        with open(place + '/level2.dat') as f:
            units = [line for line in f.read().splitlines() if line[5:11] != 'c00010']
        sections, rows = [], []
        for name, one, two, more in (('holed', holed, None, 'l1missing:y/SAME\n-99.000000\ntimeofdeletion:analysis'),
                                     ('kept', kept, units, 'l1missing:n\ntimeofdeletion:now')):
            with open(place + '/level1.dat', 'w') as f:
                f.write('\n'.join(one) + '\n')
            if two:
                with open(place + '/level2.dat', 'w') as f:
                    f.write('\n'.join(two) + '\n')
            with open(place + '/made.mdmt', 'w') as f:
                f.write(template.replace('l1missing:n\ntimeofdeletion:now', more))
            pql.run(program, place, '-r', 'made.mdmt')
            with open(holder.name + '/BINI.kdr') as f:  # grand means would be those of all records
                text = f.read().replace(',2', '').replace('RESFIL1:N', 'RESFIL1:Y\nRESFILTYPE:FREEFORMAT')
            with open(place + '/run.kdr', 'w') as f:
                f.write(text + 'OUTPUT:run.txt\n')
            sections.append(pql.results(c, program, place, 'nonlin.mdm', 'run.kdr', 'run.txt'))
            rows.append(pql.residualfiles.read(place, 'FREEFORMAT', 1).rows)
            with open(place + '/run.txt') as f:
                c.equal(name + ': note', f.read().count('reduced the number of level-1 records to %d' % len(kept)), name == 'holed')
        for key in ('unit-specific', 'population-average'):
            for table in ('final', 'robust'):
                for x, y in zip(*(s[key].fixed[table].rows for s in sections)):
                    c.near(key + x.label, x.coefficient, y.coefficient, 1.1e-6)
                    c.near(key + x.label + ', s.e.', x.se, y.se, 1.1e-6)
        c.equal('records', [len(r) for r in rows], [len(kept)] * 2)
        for x, y in zip(*rows):
            c.equal('identifiers and trials', x[:2] + x[5:], y[:2] + y[5:])
            c.near('residual', x[2], y[2], 1e-5, 1e-5)
    return go


def fewpoints(program, holder):
    """Too few points that stand still leave a standard error of the constant that is too small: said three times; with
    points enough nothing is said."""
    def go(c):
        for points, times in ((11, 1), (31, 0)):
            with open(holder.name + '/deaths.kdr') as f:
                text = f.read()
            with open(holder.name + '/points.kdr', 'w') as f:
                f.write(text + 'OUTPUT:points.txt\nRESULTS:points.json\nAGQ:Y,100,%d\nAGQNODES:FIXED\n' % points)
            code, said = pql.run(program, holder.name, 'melanoma.mdm', 'points.kdr')
            c.equal('code', code, 0)
            told = [said] + [open(holder.name + '/points.' + end).read() for end in ('txt', 'json')]
            c.equal('%d points' % points, [words.count('standard errors are far below those of PQL') for words in told],
                    [times] * 3)
    return go


def held(program, holder):
    """Held elements stand on the scale of the link, also behind the first pass, whose estimates change scale."""
    def go(c):
        for keyword, name in (('ESTTAU2:0.5', 'taupi'), ('ESTTAU3:0.5', 'taubeta')):
            pql.tight(holder.name + '/care.kdr', holder.name + '/held.kdr', [keyword, 'OUTPUT:held.txt'])
            sections = pql.results(c, program, holder.name, 'prenatal.mdm', 'held.kdr', 'held.txt')
            if sections:
                c.near(keyword, getattr(sections['unit-specific'], name)[0][0], 0.5, 1e-9)
    return go


def main():
    program, pick = os.path.abspath(sys.argv[1]), sys.argv[2:]
    made = pql.folder(program, pql.REFERENCE + '/nonlinear', 'nonlin.mdmt')
    large = pql.folder(program, pql.REFERENCE + '/nonlinearlarge', 'large.mdmt')
    holders = {name: pql.folder(program, '%s/%s' % (pql.EXAMPLES, name), name + '.mdmt') for name in ('prenatal', 'melanoma')}
    jobs = [(tag, examplejob(program, holders[name], name, command, settings, tag))
            for name, command, settings, tag in EXAMPLES]
    jobs += pql.madejobs(program, made, COUNTS) + [('flat', flat(program, made)), ('held', held(program, holders['prenatal'])),
                                             ('deleted', deleted(program, made)),
                                             ('few points', fewpoints(program, holders['melanoma']))]
    jobs += [('working data of ' + name, pql.workingjob(program, made, name, 'counts'))
             for name in ('BERNW', 'POIS', 'POISW', 'EXP', 'EXPW')]
    jobs += pql.madejobs(program, large, LARGE, 'large')
    jobs += [('working data of ' + name, pql.workingjob(program, large, name, 'counts', 'large')) for name in LARGE]
    jobs += [('residual files of ' + name, pql.residualsjob(program, made, name, COUNTS[name]))
             for name in ('BINW', 'POIS', 'EXP', 'EXPW')]
    jobs += [('graph file of ' + name, graph(program, made, name)) for name in ('BINW', 'EXP')]
    pql.each(jobs, pick)


if __name__ == '__main__':
    main()
