"""The residual files of all five forms: against dense computation, against each other, and opened by other software.

    residuals_test.py <program> [directory]

With a directory, the files that tests/reference/openedfiles.R and openedfiles.py open are put there.
"""
import contextlib
import csv
import glob
import json
import math
import os
import shutil
import subprocess
import sys
import tempfile

import report
from mdmfile import Mdm
from program import REFERENCE, Checks, finish, madefolder, run
from residualfiles import FORMS, read, readgraph
sys.path.append(str(REFERENCE))
from models import SETS

NAMES = {1: ['Y', 'X1', 'X2', 'V', 'W1'], 2: ['Z1', 'Z2', 'W2'], 3: ['Q1', 'Q2', 'W3']}
CHOSEN = {1: 'Y,X1,V/Z2,W2/Q2', 2: 'W2/Q2', 3: 'W3'}  # beside the variables of the model, which come by themselves
MODELS = {m: model for _, models in SETS.values() for m, model in models.items()}


def commands(directory, source, target, form, chosen=CHOSEN, extra=()):
    """A copy of a command file that asks for residual files; chosen None asks for none of that level."""
    with open('%s/%s' % (directory, source)) as f:
        lines = [x for x in f.read().splitlines() if not x.startswith(('RESFIL', 'OUTPUT'))]
    for level in (1, 2, 3):
        lines.append('RESFIL%d:%s' % (level, 'N' if chosen.get(level) is None else 'Y/' + chosen[level]))
    if form:
        lines.append('RESFILTYPE:' + form)
    with open('%s/%s' % (directory, target), 'w') as f:
        f.write('\n'.join(lines + list(extra) + ['OUTPUT:run.txt']) + '\n')


def records(directory):
    """The raw data: per level the identifiers and values, in file order."""
    data = {}
    for level, start in ((1, 11), (2, 11), (3, 4)):
        data[level] = []
        with open('%s/level%d.dat' % (directory, level)) as f:
            for line in f:
                values = [float(line[start + 10 * i:start + 10 * i + 10]) for i in range(len(NAMES[level]))]
                id2 = line[5:11].strip().upper() if level < 3 else None
                data[level].append((line[:4].strip().upper(), id2, values))
    return data


def marks(model):
    """Centering marks by level and name."""
    found = {1: dict(model['level1']), 2: {}, 3: {}}
    for terms in model['level2'].values():
        found[2].update(terms)
    for terms in model['level3'].values():
        found[3].update(terms)
    return found


def chosenvalues(directory, model, code=None):
    """Per level a function from a row number and a name to the value that the analysis had."""
    data, center = records(directory), marks(model)
    used = [NAMES[1].index(n) for n in {model['outcome']} | {n for n, _ in model['level1']} - {'INTRCPT1'}]
    kept = [r for r in data[1] if all(r[2][i] != code for i in used)]
    mean = lambda values: sum(values) / len(values)
    out = {}
    for level, rows in ((1, kept), (2, data[2]), (3, data[3])):
        table = {}
        for i, name in enumerate(NAMES[level]):
            mark = center[level].get(name, 0)
            everything = [r[2][i] for r in data[level] if r[2][i] != code]
            group = {}
            for r in rows:
                group.setdefault(r[0] if level == 2 else r[:2], []).append(r[2][i])
            shift = lambda r: {0: 0.0, 1: mean(group[r[0] if level == 2 else r[:2]]), 2: mean(everything)}[mark]
            table[name] = [-1e36 if r[2][i] == code else r[2][i] - shift(r) for r in rows]
        out[level] = (rows, table)
    return out


def modelvariables(model):
    center = marks(model)
    return {1: {model['outcome']} | set(center[1]), 2: set(center[2]), 3: set(center[3])}


def columns(model, level):
    """Names by group as the text forms have them, from the rules alone."""
    first = 0 if model['level1'][0][0] == 'INTRCPT1' else 1
    sub1 = {c: i + first for i, (c, _) in enumerate(model['level1'])}
    terms = [(c, t, i + (0 if model['level2'][c][0][0] == 'INTRCPT2' else 1))
             for c, _ in model['level1'] for i, (t, _) in enumerate(model['level2'][c])]
    if level == 2:
        rand = [c for c, _ in model['level1'] if c in model['random2']]
        ends, index, all_ = [c[:6] for c in rand], ['%d' % sub1[c] for c in rand], [c[:6] for c, _ in model['level1']]
    else:
        rand = ['%d%d' % (sub1[c], i) for c, t, i in terms if (c, t) in model['random3']]
        ends, index, all_ = rand, rand, ['%d%d' % (sub1[c], i) for c, t, i in terms]
    pv = ['PV%d%s%s' % (level, index[i], index[j]) for i in range(len(index)) for j in range(i + 1)]
    return dict(EB=['EB' + e for e in ends], OL=['OL' + e for e in ends], FV=['FV' + e for e in all_],
                EC=['EC' + e for e in all_], PV=pv)


def listed(level, of, model):
    """Chosen variables of level `of` in the file of `level`, in the order of the MDM file."""
    lists = CHOSEN[level].split('/')[of - level]
    wanted = set(lists.split(',')) | modelvariables(model)[of]
    if level == 1 and of == 1:  # level-1 predictors do not come by themselves into the level-1 file
        wanted = set(lists.split(',')) | {model['outcome']}
    return [n for n in NAMES[of] if n in wanted]


def compare(c, directory, form, model, want, ids, code=None):
    digits = FORMS[form][2]
    near = (lambda what, got, ref: c.same(what, got, ref, 3e-5 + 0.6 * 10.0 ** -digits * bool(digits), 1e-6))
    raw = chosenvalues(directory, model, code)
    for level in (1, 2, 3):
        t = read(directory, form, level)
        rows = want['level%d' % level]
        c.equal('%s: rows of level %d' % (form, level), len(t.rows), len(rows))
        chosen = [(of, n) for of in range(level, 4) for n in listed(level, of, model)]
        head = {1: ['L3ID', 'L2ID', 'L1RESID', 'FITVAL', 'SIGMA'], 2: ['L3ID', 'L2ID', 'NJK'], 3: ['L3ID', 'NK']}[level]
        groups = {} if level == 1 else columns(model, level)
        names = head + [n for g in groups.values() for n in g] + [n for _, n in chosen]
        short = names if form != 'SPSS' else None
        if short:
            c.equal('%s: names of level %d' % (form, level), t.names, short)
        c.equal('%s: width of level %d' % (form, level), len(t.names), len(names))
        if len(t.rows) != len(rows) or len(t.names) != len(names):
            continue
        where2 = {r[:2]: i for i, r in enumerate(raw[2][0])}
        where3 = {r[0]: i for i, r in enumerate(raw[3][0])}
        for i, (row, ref) in enumerate(zip(t.rows, rows)):
            source = raw[level][0][i]
            c.equal('identifiers of row %d' % i, row[:2 if level < 3 else 1], [ids(x) for x in source[:2] if x])
            at = len(head)
            if level == 1:
                for what, got, x in zip(head[2:], row[2:5], ref + [want['sigma']]):
                    near('%s %s of record %d' % (form, what, i), got, x)
            else:
                c.equal('%s of row %d' % (head[-1], i), row[at - 1], ref[head[-1]])
                for group, members in groups.items():
                    values = ref[group] or [None] * len(members)
                    for name, x in zip(members, values):
                        near('%s %s of row %d' % (form, name, i), row[at], x)
                        at += 1
            for of, name in chosen:
                place = i if of == level else where2[source[:2]] if of == 2 else where3[source[0]]
                x = raw[of][1][name][place]
                c.same('%s %s of row %d' % (form, name, i), row[at], None if x == -1e36 and form == 'STATA' else x,
                       1e-9 + 0.6 * 10.0 ** -digits * bool(digits))
                at += 1


def details(c, directory, text):
    """What single forms tell beside names and values."""
    for level in (1, 2, 3):
        s, d = read(directory, 'SPSS', level), read(directory, 'STATA', level)
        ids, count = (2 if level < 3 else 1), level > 1
        values = len(s.names) - ids - count
        c.equal('SPSS kinds', s.kinds, [12 if text else 0] * ids + [0] * (len(s.names) - ids))
        c.equal('SPSS formats', s.formats, [0x10c00 if text else 0x50800] * ids + [0x50800] * count + [0x50c03] * values)
        c.equal('SPSS missing values', [n for n, m in zip(s.names, s.marks) if m is not None],
                [n for n in s.names if n.startswith('OL')])
        c.equal('Stata types', d.types, [12 if text else 255] * ids + [253] * count + [255] * values)
        c.equal('Stata formats', d.formats, ['%12s' if text else '%12.0f'] * ids + ['%9.0f'] * count + ['%9.3g'] * values)
    if text:
        c.equal('Stata identifiers keep their blanks', read(directory, 'STATA', 1).raw[0][:2],
                (b'        S001', b'      C00001'))


def bypspp(c, directory):
    """Opens the SPSS files with PSPP and compares what it exports with what they hold."""
    for level in (1, 2, 3):
        s = read(directory, 'SPSS', level)
        with open(directory + '/open.sps', 'w') as f:
            f.write("set decimal=dot.\nget file='resfil%d.sav'.\nsave translate /outfile='open.csv' /type=csv /replace "
                    "/fieldnames /missing=recode.\n" % level)
        p = subprocess.run(['pspp', '-o', 'open.txt', 'open.sps'], cwd=directory, stdin=subprocess.DEVNULL,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
        out = p.stdout.decode('latin-1')
        c.equal('PSPP on level %d ends with' % level, p.returncode, 0)
        c.equal('PSPP finds no error in level %d' % level, 'error' in out.lower() or 'duplicate' in out.lower(), False)
        with open(directory + '/open.csv', newline='') as f:
            table = list(csv.reader(f))
        c.equal('names in PSPP', [n.upper() for n in table[0]], [n.upper() for n in s.names])
        c.equal('cases in PSPP', len(table) - 1, len(s.rows))
        for got, row in zip(table[1:], s.rows):
            for x, y in zip(got, row):
                if y is None or isinstance(y, str):
                    c.equal('value in PSPP', x.strip(), y or '')
                else:
                    c.near('value in PSPP', float(x), y, 1e-12, 1e-9)


def everyform(c, program, work, command, mdm, chosen, extra=()):
    """Runs a model in all forms: each holds the numbers of the SPSS form, no name twice, and PSPP opens the SPSS files."""
    for form in FORMS:
        commands(work, command, 'r.kdr', form, chosen, extra)
        execute(c, program, work, 'r.kdr', mdm)
    for level in (1, 2, 3):
        ref = read(work, 'SPSS', level)
        for form in FORMS:
            t, digits = read(work, form, level), FORMS[form][2]
            c.equal('%s: different names at level %d' % (form, level), len({n.upper() for n in t.names}), len(t.names))
            c.equal('%s: rows of level %d' % (form, level), len(t.rows), len(ref.rows))
            for got, row in zip(t.rows, ref.rows):
                for name, x, y in zip(t.names, got, row):
                    places = 6 if name.startswith('PV') else digits
                    c.same('%s: %s' % (form, name), x, y, 0.51 * 10.0 ** -places if digits else 0.0)
    bypspp(c, work)


def execute(c, program, directory, command, mdm, code=0):
    got, out = run(program, directory, mdm, command)
    c.equal('exit code of %s' % command, got, code)
    return out


def oracle(program, work, tag, forms, pspp=False):
    template, name = tag.split('-')
    c, model = Checks(tag), MODELS[name] if template != 'missinganalysis' else SETS['schoolmissing'][1]['A']
    with open('%s/results/residuals-%s.json' % (REFERENCE, tag)) as f:
        want = json.load(f)
    for form in forms:
        commands(work, name + '.kdr', 'r.kdr', form)
        execute(c, program, work, 'r.kdr', template + '.mdm')
        compare(c, work, form, model, want, lambda x: x, -99.0 if 'missing' in template else None)
    if pspp:
        details(c, work, True)
        bypspp(c, work)
    return c


def numericids(program, work):
    """The same data with numeric identifiers, in all forms."""
    c, model = Checks('numeric identifiers'), SETS['schoolnum'][1]['A']
    Mdm(work + '/schoolnum.mdm').write(work + '/numeric.mdm', numeric=True)
    with open(REFERENCE / 'results/residuals-schoolnum-A.json') as f:
        want = json.load(f)
    for form in FORMS:
        commands(work, 'A.kdr', 'r.kdr', form)
        execute(c, program, work, 'r.kdr', 'numeric.mdm')
        compare(c, work, form, model, want, float)
    details(c, work, False)
    bypspp(c, work)
    c.equal('identifiers in the free form', read(work, 'FREEFORMAT', 1).raw[1].split(',')[:2], ['107.000000', '1003.000000'])
    c.equal('line of the SAS form', open(work + '/resfil2.sas').read().split('cards;\n')[2].split('\n')[0],
            '         107        1003    9')
    return c


def missingvalues(program, work):
    """A chosen level-1 variable that the model does not use, with missing values in records that stay."""
    c = Checks('missing values')
    with open(work + '/A.kdr') as f:
        text = f.read().replace('+X2,2', '').replace('LEVEL2:X2=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n', '')
    with open(work + '/missing.kdr', 'w') as f:
        f.write('\n'.join(x for x in text.splitlines() if not x.startswith(('GAMMA', 'DEVIANCE', 'DF'))) + '\n')
    rows = [r[2] for r in records(work)[1]]
    want = [None if r[2] == -99 else r[2] for r in rows if r[0] != -99 and r[1] != -99]
    for form in FORMS:
        commands(work, 'missing.kdr', 'r.kdr', form, {1: 'X2', 2: None, 3: None})
        execute(c, program, work, 'r.kdr', 'missinganalysis.mdm')
        got = read(work, form, 1).column('X2')
        c.equal('%s: places of the missing values' % form, [i for i, x in enumerate(got) if x is None or x == -1e36],
                [i for i, x in enumerate(want) if x is None])
        c.equal('%s: missing value of its own' % form, None in got, form == 'STATA')
        for x, y in zip(got, want):
            if y is not None:
                c.near('%s: X2' % form, x, y, 1e-9)
    c.equal('some are missing', 10 < want.count(None) < 200, True)
    return c


def defaults(program, work):
    """Without RESFILTYPE: the files are SPSS files of the default names; a file not asked for is not there."""
    c = Checks('defaults')
    for path in glob.glob(work + '/resfil*') + glob.glob(work + '/RESFIL*'):
        os.remove(path)
    commands(work, 'A.kdr', 'r.kdr', None, {1: None, 2: None, 3: ''})
    execute(c, program, work, 'r.kdr', 'school.mdm')
    c.equal('files', sorted(os.path.basename(p) for p in glob.glob(work + '/resfil*')), ['resfil3.sav'])
    c.equal('level-3 columns', read(work, 'SPSS', 3).names[:4], ['L3ID', 'NK', 'EB00', 'EB10'])
    return c


WIDE = ['NONLIN:N', 'NUMIT:3,N', 'LEVEL1:Y=INTRCPT1+X1+X2+V+RANDOM']
WIDE += [x for n, (rand, terms) in {'INTRCPT1': ('+RANDOM', 'INTRCPT2+Z1,2+Z2,2+W2'), 'X1': ('+RANDOM', 'INTRCPT2+Z1,2+Z2'),
                                    'X2': ('+RANDOM', 'INTRCPT2+Z1,2'), 'V': ('+RANDOM', 'INTRCPT2')}.items()
         for x in ['LEVEL2:%s=%s%s/' % (n, terms, rand)] +
         ['LEVEL3:%s=INTRCPT3%s/' % (t.split(',')[0], '+RANDOM' if t == 'INTRCPT2' else '') for t in terms.split('+')]]
WIDE += ['LEVEL1DELETION:NONE', 'CONSTRAIN:N', 'HYPOTH:N', 'LVR-BETA:N', 'TITLE:wide', 'FULLOUTPUT:Y', 'DIAGONALIZETAUPI:Y',
         'DIAGONALIZETAUBETA:Y']


def wide(program, work):
    """More than seven columns in a group, and values too wide for their fields, in all forms."""
    c = Checks('wide')
    with open(work + '/wide.kdr', 'w') as f:
        f.write('\n'.join(WIDE) + '\n')
    everyform(c, program, work, 'wide.kdr', 'school.mdm',
              {1: 'Y,X1,X2,V,W1/Z1,Z2,W2/Q1,Q2', 2: 'Z1,Z2,W2/Q1,Q2,W3', 3: 'Q1,Q2,W3'})
    c.equal('posterior variances of level 2', sum(n.startswith('PV') for n in read(work, 'STATA', 2).names), 10)
    c.equal('fitted coefficients of level 3', sum(n.startswith('FV') for n in read(work, 'STATA', 3).names), 10)
    c.equal('names are those of the text forms', read(work, 'SAS', 3).names, read(work, 'STATA', 3).names)
    head = read(work, 'SYSTAT', 2).head
    c.equal('SYSTAT format of level 2', head[head.index('),('):head.index(')\n')],
            '),($12,$12,#5/ 4*#11/,\n 4*#11/,\n 4*#11/,\n 4*#11/,\n 7*#11/ 3*#11/,\n 6*#11/,\n')
    head = read(work, 'SAS', 3).head
    c.equal('SAS format of level 3', head[head.index(') ('):head.index(');')],
            ') ($12. 5.\n#2  4*11.5 \n#3  4*11.5 \n#4  7*11.5 #5  3*11.5 \n#6  7*11.5 #7  3*11.5 \n'
            '#8  7*11.6 #9  3*11.6 \n#10  3*11.5 \n')
    return c


def names(program, work):
    """Names that would repeat: every form keeps them apart, and PSPP reads the full ones."""
    c, mdm = Checks('names'), Mdm(work + '/school.mdm')
    for level, old, new in ((1, 'X1', 'ABCDEFG1'), (1, 'X2', 'ABCDEFG2'), (1, 'V', 'SIGMA'), (2, 'Z2', 'EB0'),
                            (2, 'W2', 'SAME'), (3, 'Q2', 'SAME'), (3, 'W3', 'NK')):
        mdm.rename(level, old, new)
    mdm.write(work + '/names.mdm')
    with open(work + '/A.kdr') as f:
        text = f.read()
    for old, new in (('X1', 'ABCDEFG1'), ('X2', 'ABCDEFG2'), ('Z2', 'EB0')):
        text = text.replace(old, new)
    with open(work + '/names.kdr', 'w') as f:
        f.write(text)
    everyform(c, program, work, 'names.kdr', 'names.mdm', {1: 'SIGMA,Y/SAME/SAME', 2: 'EB0,SAME/SAME', 3: 'NK,SAME'})
    c.equal('level 1', read(work, 'SAS', 1).names,
            ['L3ID', 'L2ID', 'L1RESID', 'FITVAL', 'SIGMA', 'Y', 'SIGMA_1', 'Z1', 'EB0', 'SAME', 'Q1', 'SAME_1'])
    c.equal('level 2', read(work, 'STATA', 2).names[3:13], ['EBINTRCP', 'EBABCDEF', 'OLINTRCP', 'OLABCDEF', 'FVINTRCP',
                                                           'FVABCDEF', 'FVABCD_1', 'ECINTRCP', 'ECABCDEF', 'ECABCD_1'])
    s = read(work, 'SPSS', 2)
    c.equal('SPSS short names', s.shorts[3:], ['EB0', 'EB1', 'OL0', 'OL1', 'FVINTRCP', 'FVABCDEF', 'FVABCD_1', 'ECINTRCP',
                                               'ECABCDEF', 'ECABCD_1', 'PV0', 'PV1', 'PV2', 'Z1', 'EB0_1', 'SAME', 'Q1', 'SAME_1'])
    c.equal('SPSS full names', s.names[3:10], ['EBINTRCPT1', 'EBABCDEFG1', 'OLINTRCPT1', 'OLABCDEFG1', 'FVINTRCPT1',
                                               'FVABCDEFG1', 'FVABCDEFG2'])
    c.equal('level 3', read(work, 'FREEFORMAT', 3).names[-3:], ['Q1', 'SAME', 'NK_1'])
    return c


def emptyunits(program, work):
    """Level-2 units that lost all their records at analysis have no row. A level-3 unit without any record has one, with
    nothing of its own. All else, the graph file too, is that of data without these units."""
    c = Checks('empty units')
    full = {n: open('%s/level%d.dat' % (work, n)).read().splitlines(True) for n in (1, 2, 3)}
    gone = ['c00005', 'c00009', 'c00159'] + [x[5:11] for x in full[2] if x[:4].upper() == 'S001']
    with open(work + '/B.kdr') as f:
        text = f.read().replace('X2,2', 'X2').replace('Q2,2', 'Q2')
    with open(work + '/empty.kdr', 'w') as f:
        f.write(text)
    with open(work + '/school.mdmt') as f:
        template = f.read()
    template = template.replace('l1missing:n', 'l1missing:y/SAME\n-99').replace('deletion:now', 'deletion:analysis')
    keep = lambda lines, n: [x for x in lines if x[:4].upper() != 'S001' and (n == 3 or x[5:11] not in gone)]
    tables, graphs = {}, {}
    for name, data in (
            ('emptied', {1: [x[:11] + '%10d' % -99 + x[21:] if x[5:11] in gone else x for x in full[1]]}),
            ('removed', {n: keep(full[n], n) for n in full})):
        for n in full:
            with open('%s/%s%d.dat' % (work, name, n), 'w') as f:
                f.writelines(data.get(n, full[n]))
            template = template.replace('level%d.dat' % n, 'NAME%d.dat' % n)
        with open('%s/%s.mdmt' % (work, name), 'w') as f:
            f.write(template.replace('NAME', name).replace('school.mdm', name + '.mdm'))
        c.equal('making ' + name, run(program, work, '-r', name + '.mdmt')[0], 0)
        everyform(c, program, work, 'empty.kdr', name + '.mdm', {1: 'Y', 2: 'W2', 3: 'Q2'}, ['GRAPHGAMMAS:graph.bin'])
        tables[name] = [read(work, 'SPSS', level) for level in (1, 2, 3)]
        graphs[name] = readgraph(work + '/graph.bin', '%s/%s.mdm' % (work, name))
        taubeta = report.read(work + '/run.txt').taubeta[0][0]
        if name == 'emptied':
            first = dict(zip(tables[name][2].names, tables[name][2].rows.pop(0)))
            c.equal('a level-3 unit without records', [first[n] for n in ('L3ID', 'EB00', 'OL00')], ['S001', 0, None])
            c.equal('its coefficients', first['EC00'], first['FV00'])
            c.near('its posterior variance', first['PV3_0_0_0_0'], taubeta, 1e-5)
            for column in graphs[name]['level3'].values():
                column.pop(0)
    for level, (got, want) in enumerate(zip(tables['emptied'], tables['removed']), 1):
        c.equal('rows of level %d' % level, len(got.rows), len(want.rows))
        for a, b in zip(got.rows, want.rows):
            for name, x, y in zip(got.names, a, b):
                if name != 'NK':
                    c.same('%s at level %d' % (name, level), x, y, 1e-5)
    changed = [a[0] for a, b in zip(tables['emptied'][2].rows, tables['removed'][2].rows) if a[1] != b[1]]
    c.equal('level-3 units that count a unit without records', changed, ['S002', 'S028'])
    for name in ('predictors1', 'predictors2', 'level3', 'level2', 'fitted'):
        for column, want in graphs['removed'][name].items():
            got = graphs['emptied'][name][column]
            c.equal('graph file: length of %s %s' % (name, column), len(got), len(want))
            for x, y in zip(got, want):
                c.same('graph file: %s %s' % (name, column), x, y, 1e-5)
    return c


@contextlib.contextmanager
def fulldisk(work):
    """A small full file system in the folder `small`, with room for a few blocks; None where none can be mounted."""
    small = work + '/small'
    os.makedirs(small, exist_ok=True)
    mounted = subprocess.run(['mount', '-t', 'tmpfs', '-o', 'size=16k', 'none', small], stderr=subprocess.DEVNULL)
    try:
        yield small if mounted.returncode == 0 else None
    finally:
        if mounted.returncode == 0:
            subprocess.run(['umount', small])


def failures(program, work):
    """Files that cannot be written leave nothing behind and do not touch an earlier file, nor one of the run's own."""
    c = Checks('failures')
    listed = lambda folder: sorted(os.listdir(folder))
    with fulldisk(work) as small:
        for setting in ('RESFIL1NAME', 'RESFIL2NAME', 'GRAPHGAMMAS') if small else ():
            path = small + '/file'
            with open(path, 'w') as f:
                f.write('an earlier file')
            commands(work, 'A.kdr', 'r.kdr', 'SPSS', {int(setting[6]): ''} if setting[6].isdigit() else {},
                     ['%s:small/file' % setting])
            out = execute(c, program, work, 'r.kdr', 'school.mdm', 5)
            c.equal('words on a full disk', 'Unable to write. Full disk?' in out, True)
            c.equal('files on a full disk', listed(small), ['file'])
            c.equal('the earlier file', open(path).read(), 'an earlier file')
    own = {n: open('%s/%s' % (work, n), 'rb').read() for n in ('school.mdm', 'A.kdr')}
    clash, taken = 'has the name of another file of this run', 'is an input file of this run'
    for setting, code, words in (
            ('RESFIL3NAME:/dev/full', 5, 'Unable to write'), ('GRAPHGAMMAS:/dev/full', 5, 'Unable to write'),
            ('RESFIL2NAME:nowhere/x.sav', 100, 'Unable to open nowhere/x.sav for writing'),
            ('GRAPHGAMMAS:nowhere/x', 100, 'Unable to open nowhere/x for writing'), ('RESFIL2NAME:school.mdm', 100, taken),
            ('RESFIL2NAME:./r.kdr', 100, taken), ('RESFIL2NAME:run.txt', 100, clash), ('RESFIL2NAME:resfil3.sav', 100, clash),
            ('RESFIL3NAME:newcmd.kdr', 100, clash), ('GRAPHGAMMAS:tauvc.dat', 100, clash)):
        commands(work, 'A.kdr', 'r.kdr', 'SPSS', {2: '', 3: ''}, [setting, 'PRINTVARIANCE-COVARIANCE:Y'])
        out = execute(c, program, work, 'r.kdr', 'school.mdm', code)
        c.equal('words on ' + setting, words in out, True)
    shutil.copy(work + '/school.mdm', work + '/x.sav.part')
    commands(work, 'A.kdr', 'r.kdr', 'SPSS', {2: ''}, ['RESFIL2NAME:x.sav'])
    execute(c, program, work, 'r.kdr', 'x.sav.part')
    c.equal('files beside a .part', [n for n in listed(work) if n.startswith('x.sav')], ['x.sav', 'x.sav.part'])
    own['x.sav.part'] = own['school.mdm']
    for name, data in own.items():
        c.equal(name, open('%s/%s' % (work, name), 'rb').read() == data, True)
    return c


def opened(work, numeric):
    """The files as R and pandas found them (tests/reference/openedfiles.txt) against what they hold now."""
    c, tables = Checks('opened'), {}
    form = dict(sav='SPSS', dta='STATA', free='FREEFORMAT')
    for line in open(REFERENCE / 'openedfiles.txt'):
        reader, ids, level, name, kind, missing, total = line.split()
        key = ids, int(level), form[reader.split('_')[-1]]
        if key not in tables:
            tables[key] = read(work if ids == 'text' else numeric, key[2], key[1])
        x = tables[key].column(name)
        values = [v for v in x if v is not None]
        text = isinstance(values[0], str)
        c.equal(line, ('text' if text else 'number', len(x) - len(values)), (kind, int(missing)))
        if text:
            c.equal(line, len(set(values)), int(total))
        else:
            c.near(line, math.fsum(values), float(total), 1e-3, 1e-6)
    return c


def main():
    program = os.path.abspath(sys.argv[1])
    made = {}

    def folder(name, template):
        if template not in made:
            made[template] = madefolder(program, REFERENCE / name, template + '.mdmt', top)
        return made[template]

    with tempfile.TemporaryDirectory() as top:
        school = folder('school', 'school')
        parts = [oracle(program, school, 'school-A', FORMS, pspp=True)]
        for tag in ('school-B', 'school-C', 'school-D', 'school-R5', 'school-R6', 'school-W123'):
            parts.append(oracle(program, school, tag, ['SPSS']))
        parts.append(oracle(program, school, 'school-E', FORMS))  # a level-3 unit without a fit
        missing = folder('schoolmissing', 'missinganalysis')
        parts.append(oracle(program, missing, 'missinganalysis-A', FORMS))
        parts.append(oracle(program, folder('tiny', 'tiny'), 'tiny-T', ['FREEFORMAT']))
        numeric = folder('schoolnum', 'schoolnum')
        parts.append(numericids(program, numeric))
        if len(sys.argv) > 2:
            for kind, place in (('text', school), ('numeric', numeric)):
                os.makedirs('%s/%s' % (sys.argv[2], kind), exist_ok=True)
                for path in glob.glob(place + '/resfil*'):
                    shutil.copy(path, '%s/%s' % (sys.argv[2], kind))
        parts.append(opened(school, numeric))
        parts.append(missingvalues(program, missing))
        for test in (defaults, wide, names, emptyunits, failures):
            parts.append(test(program, school))
    finish(parts)


if __name__ == '__main__':
    main()
