"""Models of two levels, and such of three without random effects at one level, from those of models.py and nonlinearmodels.py.

`two` is a model of data of two levels (MDMTYPE:4): the units of level 2 of the same data, without the variables of level 3.
`only` is one of three levels whose random effects are all at level 3, `none` one whose are all at level 2.
"""
from makedata import NAMES as LINEARNAMES
from models import BOTH3, INT3, SCHOOL, commandfile
from nonlinearmodels import COUNTS, NAMES, THREE, commands

ABOUT3 = ('esttau3', 'contau3', 'diagtaubeta', 'extra3', 'hetit', 'deviance', 'df')
ABOUT2 = ('esttau2', 'contau2', 'diagtaupi', 'extra2', 'deviance', 'df')


def two(m, **options):
    m = {k: v for k, v in m.items() if k not in ABOUT3}
    # no groups to be centered in: means of all units take their place
    m.update(level2={c: [(t, 2 if mark == 1 else mark) for t, mark in terms] for c, terms in m['level2'].items()}, level3={},
             random3=[], twolevel=True)
    if 'weights' in m:
        m['weights'] = m['weights'][:2] + (None,)
    m.update(options)
    return m


def only(m, **options):
    m = {k: v for k, v in m.items() if k not in ABOUT2}
    m.update(random2=[], **options)
    return m


def none(m, **options):
    m = {k: v for k, v in m.items() if k not in ABOUT3}
    m.update(random3=[], **options)
    return m


# fixed effects of A without level 3: 00 01 02 10 11 20
TESTS = [[[0, 1, 0, 0, 0, 0], [0, 0, 0, 0, 1, 0]], [[0, 0, 1, 0, 0, -1]]]
LINEAR = {('two', n): two(SCHOOL[n]) for n in ('B', 'C', 'D', 'R1zero', 'R2', 'R4', 'R5', 'X', 'F0', 'F1', 'W1', 'W2')}
LINEAR['two', 'A'] = two(SCHOOL['A'], hypotheses=TESTS, deviance=5800.0, df=4)
LINEAR['two', 'R3'] = two(SCHOOL['R3'])
LINEAR['two', 'R6'] = two(SCHOOL['R6'], constrain=[0, 1, 1, 0, 2, 2])
LINEAR['two', 'W12'] = two(SCHOOL['W123'])
LINEAR['only', 'A'] = only(SCHOOL['A'])
LINEAR['only', 'B'] = only(SCHOOL['B'])
LINEAR['only', 'X'] = only(SCHOOL['X'])
LINEAR['only', 'W123'] = only(SCHOOL['W123'])
LINEAR['none', 'A'] = none(SCHOOL['A'])
LINEAR['none', 'W123'] = none(SCHOOL['W123'])

OTHER = {('two', n): two(COUNTS[n], **({'hypotheses': [[[0, 1, 0, 0, 0], [0, 0, 0, 1, 0]]]} if 'hypotheses' in COUNTS[n] else {}))
         for n in ('BERN', 'BERNW', 'BINI', 'BINS', 'POIS', 'EXPW')}
OTHER |= {('two', n): two(THREE[n]) for n in ('M3W', 'O5')}
OTHER['two', 'O3'] = two({k: v for k, v in THREE['O3'].items() if k != 'hypotheses'})
OTHER |= {('only', n): only({k: v for k, v in m.items() if k != 'hypotheses'})
          for n, m in (('BERN', COUNTS['BERN']), ('POIS', COUNTS['POIS']), ('M3W', THREE['M3W']), ('O3', THREE['O3']))}
OTHER['none', 'BERN'] = none(COUNTS['BERN'])

# (folder of the data, names of the variables, models)
SETS = [('school', LINEARNAMES, LINEAR), ('nonlinear', NAMES['nonlin'], OTHER)]


def tag(kind, name):
    return '%s-%s' % (kind, name)


def text(kind, name, m):
    """The command file."""
    lines = (commands if 'kind' in m else commandfile)(name, m).splitlines()
    if kind == 'two':
        lines = [line for line in lines if not line.startswith(('LEVEL3:', 'RESFIL3:', 'LVR-BETA:'))]
    return '\n'.join(lines) + '\n'


def template(folder, names):
    """The template of data of two levels on the files of a set."""
    lines = ['#KDR3 MDM CREATION TEMPLATE', 'mdmtype:4', 'rawdattype:ascii']
    for level in (1, 2):
        lines += ['l%dfname:level%d.dat' % (level, level), 'numl%dvar:%d' % (level, len(names[level])),
                  'l%dformat:(5X,A6,%dF10.4)' % (level, len(names[level]))]
    lines += ['l1missing:n', 'timeofdeletion:now', 'mdmname:two.mdm']
    for level in (1, 2):
        lines += ['*begin l%dvars' % level, *names[level], '*end l%dvars' % level]
    return '\n'.join(lines) + '\n'
