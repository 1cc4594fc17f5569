"""Models with outcomes that are counts or categories: as models.py, with these options more.

  kind       'bernoulli', 'binomial', 'poisson', 'multinomial', 'ordinal'
  count      variable of the trials or the exposure
  categories number of categories; a multinomial model has the same terms in each of its equations
  stopmacro  0.0000001 by default; a likelihood that is flat near a singular tau(pi) leaves the micro iterations no more
  digits, and the tolerances are 20 times as wide
  fixsigma2  1 by default; 0: estimated
The order of the fixed effects of an ordinal model ends with the cuts from the second one on.
"""
from models import I3, INT3, commandfile, model

NAMES = {'nonlin': {1: ['YBERN', 'YBIN', 'NTRIAL', 'YPOIS', 'YEXP', 'EXPOS', 'YMUL3', 'YORD3', 'YMUL5', 'YORD5', 'X1', 'X2',
                        'W1'], 2: ['Z1', 'Z2', 'W2'], 3: ['Q1', 'Q2', 'W3']},
         'large': {1: ['YBERN', 'YBIN', 'NTRIAL', 'YMUL3', 'YMUL5', 'X1', 'X2'], 2: ['Z1', 'Z2'], 3: ['Q1', 'Q2']}}
FOLDERS = {'nonlin': 'nonlinear', 'large': 'nonlinearlarge'}
# what of the working data of the first iterations is stored, and of the residuals
TRACED = ['BERN', 'BERNW', 'BINW', 'POIS', 'POISW', 'EXP', 'EXPW', 'M3W', 'O3', 'O3W', 'BERNL', 'BINL', 'M3']
WEIGHTS = ('W1', 'W2', 'W3')

L1 = [('INTRCPT1', 0), ('X1', 1), ('X2', 2)]
L2 = {'INTRCPT1': [('INTRCPT2', 0), ('Z1', 2)], 'X1': [('INTRCPT2', 0), ('Z1', 2)], 'X2': [('INTRCPT2', 0)]}
L3 = {('INTRCPT1', 'INTRCPT2'): [('INTRCPT3', 0), ('Q1', 2)]}
SLOPES = ['INTRCPT1', 'X1']
BOTH3 = [('INTRCPT1', 'INTRCPT2'), ('X1', 'INTRCPT2')]
# fixed effects: 000 001 010 100 110 200
TESTS = [[[0, 0, 1, 0, 0, 0], [0, 0, 0, 0, 1, 0]], [[0, 0, 0, 1, 0, -1]]]


def n(kind, outcome, count=None, random2=SLOPES, random3=BOTH3, level1=L1, **options):
    m = model(level1, random2, L2, random3, L3, kind=kind, count=count, outcome=outcome, fixsigma2=1.0)
    m.update(options)
    return m


def categories(kind, outcome, c, **options):
    return n(kind, outcome, categories=c, **options)


COUNTS = {
    'BERN': n('bernoulli', 'YBERN', stopmacro=1e-5, hypotheses=TESTS),
    'BERNI': n('bernoulli', 'YBERN', random2=['INTRCPT1'], random3=INT3),
    'BERNW': n('bernoulli', 'YBERN', random3=INT3, weights=WEIGHTS),
    'BIN': n('binomial', 'YBIN', 'NTRIAL', hypotheses=TESTS),
    'BINI': n('binomial', 'YBIN', 'NTRIAL', random2=['INTRCPT1'], random3=INT3),
    'BINS': n('binomial', 'YBIN', 'NTRIAL', fixsigma2=0.0),
    'BINW': n('binomial', 'YBIN', 'NTRIAL', weights=WEIGHTS),
    'POIS': n('poisson', 'YPOIS', hypotheses=TESTS),
    'POISW': n('poisson', 'YPOIS', random2=['INTRCPT1'], random3=INT3, weights=WEIGHTS),
    'POISS': n('poisson', 'YPOIS', fixsigma2=0.0),
    'EXP': n('poisson', 'YEXP', 'EXPOS', hypotheses=TESTS),
    'EXPS': n('poisson', 'YEXP', 'EXPOS', fixsigma2=0.0),
    'EXPW': n('poisson', 'YEXP', 'EXPOS', weights=WEIGHTS),
}
THREE = {
    'M2': categories('multinomial', 'YBERN', 2, random2=['INTRCPT1'], random3=INT3),
    'O2': categories('ordinal', 'YBERN', 2, random2=['INTRCPT1'], random3=INT3),
    'M3W': categories('multinomial', 'YMUL3', 3, random2=['INTRCPT1'], random3=INT3, weights=WEIGHTS),
    'O3': categories('ordinal', 'YORD3', 3, hypotheses=[[row + [0] for row in rows] for rows in TESTS]),
    'O3W': categories('ordinal', 'YORD3', 3, random3=INT3, weights=WEIGHTS),
    # no variance to speak of: the coefficients are those of models without random effects
    'M3FLAT': categories('multinomial', 'YMUL3', 3, random2=['INTRCPT1'], random3=INT3, esttau2=[1e-7, 0.0, 1e-7],
                         esttau3=[1e-7, 0.0, 1e-7]),
    'O3FLAT': categories('ordinal', 'YORD3', 3, random2=['INTRCPT1'], random3=INT3, esttau2=[1e-7], esttau3=[1e-7]),
    'O5': categories('ordinal', 'YORD5', 5, random3=INT3),
}
# with large level-2 units
LARGE = {
    'BERNL': n('bernoulli', 'YBERN', random3=INT3),
    'BINL': n('binomial', 'YBIN', 'NTRIAL', random3=INT3),
}
MORE = {
    'M3': categories('multinomial', 'YMUL3', 3, random3=INT3),
    'M5': categories('multinomial', 'YMUL5', 5, random2=['X1'], random3=INT3),
}
SETS = [('nonlin', COUNTS), ('nonlin', THREE), ('large', LARGE), ('large', MORE)]  # by the data that they are of


def thresholds(m):
    return m['categories'] - 2 if m['kind'] == 'ordinal' else 0


def commands(name, m):
    """The command file: as for a linear model, with the lines that belong to the kind of outcome."""
    text = commandfile(name, m)
    kind, count = m['kind'].upper(), m.get('categories') or m['count']
    head = ['NONLIN:%s' % kind + (',%s' % count if count else ''), 'MACROIT:500,N', 'MICROIT:5000',
            'STOPMACRO:%.7f' % m.get('stopmacro', 1e-7), 'STOPMICRO:0.0000000001']
    lines = [x for x in text.splitlines() if not x.startswith(('NONLIN', 'NUMIT', 'STOPVAL', 'FIXSIGMA2', 'LVR-BETA'))]
    equations = [x for x in lines if x.startswith(('LEVEL1:', 'LEVEL2:', 'LEVEL3:'))]
    at = lines.index(equations[0])
    before, after = lines[:at], lines[at + len(equations):]
    if m['kind'] == 'multinomial':
        equations = equations * (m['categories'] - 1)
    cuts = ['THOLD%d' % (c + 2) for c in range(thresholds(m))]
    if cuts:
        equations[0] = equations[0].replace('+RANDOM', ''.join('+' + c for c in cuts) + '+RANDOM')
    if 'categories' not in m:
        head.append('FIXSIGMA2:%.1f' % m['fixsigma2'])
    if m['kind'] != 'multinomial':
        after = ['LVR-BETA:N'] + after
    return '\n'.join(before + head + equations + after) + '\n'
