"""The models of the reference runs, once: the command files and the dense computation are both made from this table.

A model is a dict:
  level1   list of (name, centering mark), INTRCPT1 first when there is one
  random2  names of level1 that are random at level 2
  level2   {level-1 name: list of (level-2 name, mark)}
  level3   {(level-1 name, level-2 name): list of (level-3 name, mark)}; INTRCPT3 alone when absent
  random3  pairs (level-1 name, level-2 name) that are random at level 3
  and options: esttau2, esttau3 (lower triangles, None free), contau2, contau3 (list of groups of 1-based elements),
  diagtaupi, diagtaubeta, fixsigma2, vknown, weights (three names or None), constrain (group per gamma),
  extra2 {level-1 name: level-2 candidates}, extra3 {(level-1 name, level-2 name): level-3 candidates}, hetit,
  hypotheses (list of lists of contrast rows), deletion (value of LEVEL1DELETION), fisher, deviance, df.
"""

I3 = [('INTRCPT3', 0)]


def model(level1, random2, level2, random3, level3=None, **options):
    m = dict(level1=level1, random2=random2, level2=level2, random3=random3, level3=level3 or {}, outcome='Y')
    m.update(options)
    return m


L1 = [('INTRCPT1', 0), ('X1', 1), ('X2', 2)]
L2 = {'INTRCPT1': [('INTRCPT2', 0), ('Z1', 2), ('Z2', 1)], 'X1': [('INTRCPT2', 0), ('Z1', 2)], 'X2': [('INTRCPT2', 0)]}
L3 = {('INTRCPT1', 'INTRCPT2'): [('INTRCPT3', 0), ('Q1', 2)], ('X1', 'INTRCPT2'): [('INTRCPT3', 0), ('Q1', 2)]}
BOTH3 = [('INTRCPT1', 'INTRCPT2'), ('X1', 'INTRCPT2')]
INT3 = [('INTRCPT1', 'INTRCPT2')]


def a(**options):
    return model(L1, ['INTRCPT1', 'X1'], L2, BOTH3, L3, **options)


# gammas of A in order: 000 001 010 020 100 101 110 200
SCHOOL = {
    'A': a(hypotheses=[[[0, 0, 1, 0, 0, 0, 0, 0], [0, 0, 0, 0, 0, 0, 1, 0]], [[0, 1, 0, 0, 0, -1, 0, 0]]],
           deviance=5611.4696, df=13),
    'B': model([('INTRCPT1', 0), ('X1', 0), ('X2', 2)], ['INTRCPT1'],
               {'INTRCPT1': [('INTRCPT2', 0), ('Z1', 0)], 'X1': [('INTRCPT2', 0)], 'X2': [('INTRCPT2', 0)]}, INT3,
               {('INTRCPT1', 'INTRCPT2'): [('INTRCPT3', 0), ('Q1', 0), ('Q2', 2)]}),
    'C': model(L1, ['INTRCPT1', 'X1'], L2, INT3, L3),
    'D': model([('X1', 0), ('X2', 0)], ['X1'], {'X1': [('INTRCPT2', 0), ('Z1', 0)], 'X2': [('INTRCPT2', 0)]},
               [('X1', 'INTRCPT2')], {('X1', 'INTRCPT2'): [('INTRCPT3', 0), ('Q2', 0)]}),
    'E': model([('INTRCPT1', 0), ('X1', 2), ('X2', 2)], ['INTRCPT1', 'X1'],
               {'INTRCPT1': [('INTRCPT2', 0), ('Z1', 2), ('Z2', 1)], 'X1': [('INTRCPT2', 0)], 'X2': [('INTRCPT2', 0)]},
               [('INTRCPT1', 'INTRCPT2'), ('INTRCPT1', 'Z2'), ('X1', 'INTRCPT2')]),
    'R1zero': a(esttau2=[None, 0.0, None]),
    'R1value': a(esttau2=[None, 0.1, None]),
    'R2': a(contau2=[[1, 3]]),
    'R3': a(diagtaupi=True, diagtaubeta=True),
    'R4': a(fixsigma2=3.0),
    'R5': a(vknown='V'),
    'R6': a(constrain=[0, 1, 1, 0, 0, 2, 2, 0]),
    'W1': a(weights=('W1', None, None)),
    'W2': a(weights=(None, 'W2', None)),
    'W3': a(weights=(None, None, 'W3')),
    'W123': a(weights=('W1', 'W2', 'W3')),
    # exploratory analysis; Z1 and Q1 are in the model already
    'X': a(extra2={'INTRCPT1': ['Z1', 'Z2', 'W2'], 'X1': ['Z2']},
           extra3={('INTRCPT1', 'INTRCPT2'): ['Q1', 'Q2', 'W3'], ('X1', 'INTRCPT2'): ['Q2']}),
    # a tau(pi) for each level-3 unit first; the ordinary stage has to find the same maximum from there
    'H': a(hetit=20, fisher=0),
    'F0': a(fisher=0),
    'F1': a(fisher=1),
}
TINY = {
    'T': model([('INTRCPT1', 0), ('X1', 2)], ['INTRCPT1'], {'INTRCPT1': [('INTRCPT2', 0), ('Z1', 2)],
                                                           'X1': [('INTRCPT2', 0)]}, INT3),
}
MISSING = {'A': a(deletion='NONE')}

# directory: (templates as {name: (timeofdeletion, missing code or None)}, models)
SETS = {
    'school': ({'school': ('now', None)}, SCHOOL),
    'schoolnum': ({'schoolnum': ('now', None)}, {'A': a()}),
    'schoolmissing': ({'missingnow': ('now', -99), 'missinganalysis': ('analysis', -99)}, MISSING),
    'tiny': ({'tiny': ('now', None)}, TINY),
}


def commandfile(name, m):
    """The command file that states the model and answers every question."""
    mark = lambda terms: '+'.join(t + (',%d' % c if c else '') for t, c in terms)
    lines = ['#Reference model %s' % name, 'NONLIN:N', 'NUMIT:%d,N' % m.get('numit', 5000), 'STOPVAL:0.0000000001',
             'LEVEL1:%s=%s+RANDOM' % (m['outcome'], mark(m['level1']))]
    for c, _ in m['level1']:
        lines.append('LEVEL2:%s=%s%s/%s' % (c, mark(m['level2'][c]), '+RANDOM' if c in m['random2'] else '',
                                            ','.join(m.get('extra2', {}).get(c, []))))
        for t, _ in m['level2'][c]:
            lines.append('LEVEL3:%s=%s%s/%s' % (t, mark(m['level3'].get((c, t), I3)),
                                                '+RANDOM' if (c, t) in m['random3'] else '',
                                                ','.join(m.get('extra3', {}).get((c, t), []))))
    lines.append('LEVEL1DELETION:%s' % m.get('deletion', 'NONE'))
    for key in ('esttau2', 'esttau3'):
        if key in m:
            lines.append('%s:%s' % (key.upper(), ','.join('E' if x is None else '%g' % x for x in m[key])))
    for key in ('contau2', 'contau3'):
        lines += ['%s:%s' % (key.upper(), ','.join(map(str, group))) for group in m.get(key, [])]
    for key in ('diagtaupi', 'diagtaubeta'):
        if m.get(key):
            lines.append('DIAGONALIZETAU%s:Y' % key[7:].upper())
    if 'fixsigma2' in m:
        lines.append('FIXSIGMA2:%g' % m['fixsigma2'])
    if 'vknown' in m:
        lines.append('VARIANCEKNOWN:%s' % m['vknown'])
    for level, w in enumerate(m.get('weights', ()), 1):
        if w:
            lines.append('LEVEL%dWEIGHT:%s' % (level, w))
    if 'hetit' in m:
        lines.append('HETIT:%d' % m['hetit'])
    if 'fisher' in m:
        lines.append('FISHERTYPE:%d' % m['fisher'])
    lines.append('CONSTRAIN:%s' % (','.join(map(str, m['constrain'])) if 'constrain' in m else 'N'))
    for h, rows in enumerate(m.get('hypotheses', []), 1):
        lines += ['GAMMA%d:%s' % (h, ','.join('%g' % x for x in row)) for row in rows]
    lines.append('HYPOTH:N')
    if 'deviance' in m:
        lines += ['DEVIANCE:%.4f' % m['deviance'], 'DF:%d' % m['df']]
    lines += ['LVR-BETA:N', 'RESFIL1:N', 'RESFIL2:N', 'RESFIL3:N', 'FULLOUTPUT:Y', 'TITLE:Reference model %s' % name,
              'OUTPUT:%s.txt' % name]
    return '\n'.join(lines) + '\n'
