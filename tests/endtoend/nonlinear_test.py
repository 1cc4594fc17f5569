"""Bernoulli, binomial and Poisson models against dense computation from the definition (tests/reference/densepql.py).

    nonlinear_test.py <program> [model ...]
"""
import os
import sys

import pqlcompare as pql
from nonlinearmodels import COUNTS, LARGE

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
            tau = ['ESTTAU2:0.0000001', 'ESTTAU3:0.0000001']
            with open(holder.name + '/BERNI.kdr') as f:
                lines = f.read().splitlines()
            at = lines.index('CONSTRAIN:N')
            with open(holder.name + '/flat.kdr', 'w') as f:
                f.write('\n'.join(lines[:at] + tau + ['POPAVIT:' + popavit] + lines[at:] + ['OUTPUT:flat.txt']) + '\n')
            sections = pql.results(c, program, holder.name, 'nonlin.mdm', 'flat.kdr', 'flat.txt')
            if not sections:
                return
            pairs = [(x.coefficient, y.coefficient, x.se, y.se) for key in ('final', 'robust') for x, y in
                     zip(sections['unit-specific'].fixed[key].rows, sections['population-average'].fixed[key].rows)]
            c.equal('rows', len(pairs), 12)
            for a, b, d, e in pairs:
                c.near('POPAVIT:%s, population average' % popavit, b, a, 2e-6)
                c.near('POPAVIT:%s, its s.e.' % popavit, e, d, 2e-6)
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
    jobs += pql.madejobs(program, made, COUNTS) + [('flat', flat(program, made)), ('held', held(program, holders['prenatal']))]
    jobs += [('working data of ' + name, pql.workingjob(program, made, name, 'counts'))
             for name in ('BERNW', 'POIS', 'EXP', 'EXPW')]
    jobs += pql.madejobs(program, large, LARGE, 'large')
    jobs += [('working data of ' + name, pql.workingjob(program, large, name, 'counts', 'large')) for name in LARGE]
    jobs += [('residual files of ' + name, pql.residualsjob(program, made, name, COUNTS[name]))
             for name in ('BINI', 'POIS', 'EXP', 'EXPW')]
    return pql.each(program, jobs, pick)


if __name__ == '__main__':
    sys.exit(main())
