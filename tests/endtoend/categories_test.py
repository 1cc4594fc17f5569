"""Multinomial and ordinal models against dense computation from the definition (tests/reference/densepql.py).

    categories_test.py <program> [model ...]
"""
import os
import subprocess
import sys

import pqlcompare as pql
from nonlinearmodels import MORE, THREE


def flat(program, holder, name):
    """Without variance between the units: the coefficients of multinom and polr."""
    def go(c):
        sections = pql.results(c, program, holder.name, 'nonlin.mdm', name + '.kdr', name + '.txt')
        if not sections:
            return
        with open(pql.REFERENCE + '/categories.out') as f:
            want = [line.split() for line in f if line.startswith(name)]
        rows = sections['categories'].fixed['final'].rows
        c.equal('rows', len(rows), len(want))
        for row, (_, i, b, se) in zip(rows, want):
            c.near('coefficient %s, %s' % (i, row.label), row.coefficient, float(b), 2e-5)
            # polr's come from the observed information, which differs by 0.6%
            c.near('s.e. %s, %s' % (i, row.label), row.se, float(se), 2e-5, 1e-2)
    return go


def two(program, holder, name):
    """Two categories: a Bernoulli model with the signs turned."""
    def go(c):
        pairs = []
        for m in (name, 'BERNI'):
            sections = pql.results(c, program, holder.name, 'nonlin.mdm', m + '.kdr', m + '.txt')
            if not sections:
                return
            pairs.append(sections['categories' if m == name else 'unit-specific'])
        rows = [r.fixed['final'].rows for r in pairs]
        c.equal('rows', len(rows[0]), len(rows[1]))
        for x, y in zip(*rows):
            c.near(y.label, x.coefficient, -y.coefficient, 1.1e-6)
            c.near(y.label + ' s.e.', x.se, y.se, 1.1e-6)
        c.matrix('taupi', pairs[0].taupi, pairs[1].taupi, 1.1e-5, 0)
        c.matrix('taubeta', pairs[0].taubeta, pairs[1].taubeta, 1.1e-5, 0)
    return go


def grades(program, holder):
    """The example creeps towards the border, where a search has to find it: under tight criteria it ends in the same place."""
    def go(c):
        tight = 'tight.kdr'
        pql.tight(holder.name + '/grades.kdr', f'{holder.name}/{tight}', ['STOPMACRO:0.001', 'STOPMICRO:0.000000001'])
        pairs = [pql.results(c, program, holder.name, 'grades.mdm', kdr, 'grades.txt') for kdr in ('grades.kdr', tight)]
        if all(pairs):
            for name in ('taupi', 'taubeta'):
                c.matrix(name, *[getattr(sections['categories'], name) for sections in pairs], 0.001, 0)
    return go


def main():
    program, pick = os.path.abspath(sys.argv[1]), sys.argv[2:]
    made = pql.folder(program, pql.REFERENCE + '/nonlinear', 'nonlin.mdmt')
    large = pql.folder(program, pql.REFERENCE + '/nonlinearlarge', 'large.mdmt')
    chem = pql.folder(program, pql.EXAMPLES + '/chem97', 'chem97.mdmt')
    with open(pql.EXAMPLES + '/chem97/README.md') as f:
        recode = next(line for line in f if line.startswith('awk '))
    subprocess.run(recode, shell=True, cwd=chem.name, check=True)
    pql.run(program, chem.name, '-r', 'grades.mdmt')
    jobs = pql.madejobs(program, made, THREE) + pql.madejobs(program, large, MORE, 'large')
    jobs += [(n + ', R', flat(program, made, n)) for n in ('M3FLAT', 'O3FLAT')]
    jobs += [(n + ', Bernoulli', two(program, made, n)) for n in ('M2', 'O2')]
    jobs += [('grades', grades(program, chem))]
    jobs += [('working data of ' + n, pql.workingjob(program, made, n, kind))
             for n, kind in (('M3W', 'multinomial'), ('O3W', 'ordinal'))]
    jobs += [('working data of M3', pql.workingjob(program, large, 'M3', 'multinomial', 'large'))]
    jobs += [('residual files of ' + n, pql.residualsjob(program, made, n, THREE[n])) for n in ('M3W', 'O3', 'O3W')]
    pql.each(jobs, pick)


if __name__ == '__main__':
    main()
