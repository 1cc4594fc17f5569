"""MDM files made from files of statistics packages hold the data of examples/chem97, bit for bit.

    rawfiles_test.py <program>

The small files in tests/data/files were written by rawfiles.R and pandasfiles.py of tests/reference; the whole study is
written by PSPP here.
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from oracle_test import Checks, run

EXAMPLE = os.path.join(HERE, '..', '..', 'examples', 'chem97')
FILES = os.path.join(HERE, '..', 'data', 'files')
MISSING = -1.0e36
NAMES = [['SCORE', 'FEMALE', 'AGE', 'GCSE', 'GCSECNT'], ['SCHGCSE', 'SCHSIZE'], ['LEAGCSE', 'LEANSCH']]


class Mdm:
    """An MDM file: names, level-3 rows and units, all values as their bytes."""

    def __init__(self, path):
        with open(path, 'rb') as f:
            self.bytes = f.read()
        if self.bytes[:6] != b'MXKDR3':
            raise ValueError('no MDM file')
        self.at = 10
        self.counts, (n1, n2, n3) = [self.int() for _ in range(3)], [self.int() for _ in range(3)]
        self.missing, self.deleted, self.type, rawtype, self.maxnj = [self.int() for _ in range(5)]
        self.rawtype, self.numeric = abs(rawtype), rawtype < 0
        self.names = [[self.take(13)[:12].decode('latin-1').strip() for _ in range(n + 1)] for n in self.counts]
        self.take(3 * self.int())
        self.take(8 * sum(self.counts))
        ids = [self.id() for _ in range(n3)]
        self.rows = [(i, self.doubles(self.counts[2])) for i in ids]
        self.units = []
        for _ in range(n2):
            nj = self.int()
            self.take(8 * self.counts[0])
            records = [self.doubles(self.counts[0]) for _ in range(nj)]
            self.units.append((self.id(), self.id(), records, self.doubles(self.counts[1])))
        self.complete = self.at == len(self.bytes) and sum(len(u[2]) for u in self.units) == n1

    def take(self, n):
        self.at += n
        return self.bytes[self.at - n:self.at]

    def int(self):
        return struct.unpack('<i', self.take(4))[0]

    def id(self):
        return struct.unpack('<d', self.take(8))[0] if self.numeric else self.take(13)

    def doubles(self, n):
        return self.take(8 * n)


def packed(values):
    return struct.pack('<%dd' % len(values), *values)


def expected(limit, ids, gap):
    """Level-3 rows and units of the first `limit` candidates, with IDs made by `ids` and a GAP column or not."""
    levels = []
    for level in range(3):
        with open('%s/chem97-%d.dat' % (EXAMPLE, level + 1)) as f:
            levels.append([line.split() for line in f])
    units = {}
    for n, word in enumerate(levels[0][:limit], 1):
        values = [float(x) for x in word[2:]]
        if gap:
            values.append(MISSING if n % 7 == 0 or n % 11 == 0 else values[0])
        units.setdefault((word[0], word[1]), []).append(packed(values))
    wanted = [(ids(w[0]), ids(w[1]), units[w[0], w[1]], packed([float(x) for x in w[2:]]))
              for w in levels[1] if (w[0], w[1]) in units]
    leas = {key[0] for key in units}
    return [(ids(w[0]), packed([float(x) for x in w[1:]])) for w in levels[2] if w[0] in leas], wanted


# how an ID stands in the MDM file
def number(word):
    return float(word)


def rightjustified(word):
    return word.rjust(12).encode() + b'\0'


def asitstands(word):
    return word.zfill(5).encode().ljust(13, b'\0')


def template(kind, files, text, names1, name):
    lines = ['#KDR3 MDM CREATION TEMPLATE', 'rawdattype:' + kind, 'mdmname:' + name]
    lines += ['l%dfname:%s' % (i + 1, f) for i, f in enumerate(files)]
    lines += ['l1missing:y', 'timeofdeletion:analysis']
    for level, names in enumerate([names1] + NAMES[1:]):
        lines += ['*begin l%dvars' % (level + 1), 'level3id:' + ('leat' if text else 'lea')]
        lines += ['level2id:' + ('schoolt' if text else 'school')] if level < 2 else []
        lines += names + ['*end l%dvars' % (level + 1)]
    return '\n'.join(lines) + '\n'


def check(c, program, work, kind, files, text, limit, gap):
    ids = number if not text else asitstands if kind == 'stata' else rightjustified
    names1 = NAMES[0] + (['GAP'] if gap else [])
    with open(work + '/t.mdmt', 'w') as f:
        f.write(template(kind, files, text, names1, 'made.mdm'))
    code, out = run(program, work, '-r', 't.mdmt')
    if code != 0:
        return c.fail('ended with code %d\n%s' % (code, out[-600:]))
    mdm = Mdm(work + '/made.mdm')
    rows, units = expected(limit, ids, gap)
    c.equal('the length', mdm.complete, True)
    c.equal('the raw type', (mdm.rawtype, mdm.numeric), ({'spss': 6, 'stata': 8, 'other': 9}[kind], not text))
    c.equal('the names', [x[1:] for x in mdm.names], [names1] + NAMES[1:])
    if mdm.rows != rows:
        c.fail('level 3 differs')
    if mdm.units != units:
        wrong = [i for i, (a, b) in enumerate(zip(mdm.units, units)) if a != b]
        c.fail('%d units, expected %d; the first that differs is %s' % (len(mdm.units), len(units), wrong[:1]))
    with open(work + '/creatmdm.mdmt') as f:
        copy = f.read()
    os.remove(work + '/made.mdm')
    with open(work + '/again.mdmt', 'w') as f:
        f.write(copy)
    code, out = run(program, work, '-r', 'again.mdmt')
    c.equal('the code of the template written back', code, 0)
    c.equal('the file made from it', Mdm(work + '/made.mdm').bytes, mdm.bytes)


def writepspp(work):
    """The whole study as .sav files, compressed and not."""
    layout = ['LEA 1-4 SCHOOL 6-10 SCORE 11-15 FEMALE 16-18 AGE 19-22 GCSE 23-29 GCSECNT 30-37 LEAT 1-4 (A) '
              'SCHOOLT 6-10 (A)', 'LEA 1-4 SCHOOL 6-10 SCHGCSE 11-18 SCHSIZE 19-23 LEAT 1-4 (A) SCHOOLT 6-10 (A)',
              'LEA 1-4 LEAGCSE 5-12 LEANSCH 13-17 LEAT 1-4 (A)']
    with open(work + '/save.sps', 'w') as f:
        for level in range(3):
            f.write("DATA LIST FILE='%s/chem97-%d.dat' NOTABLE FIXED\n  / %s.\n" % (EXAMPLE, level + 1, layout[level]))
            f.write("VARIABLE LABELS LEA 'local education authority'.\nVALUE LABELS LEA 1 'the first'.\n")
            f.write("DOCUMENT written for a test.\n")
            for form in ('compressed', 'uncompressed'):
                f.write("SAVE OUTFILE='%s%d.sav' /%s.\n" % (form, level + 1, form.upper()))
    subprocess.run(['pspp', 'save.sps'], cwd=work, check=True, stdout=subprocess.DEVNULL, timeout=300)


def main():
    program = os.path.abspath(sys.argv[1])
    bad = []
    with tempfile.TemporaryDirectory() as work:
        runs = []
        for name in sorted({x.split('-')[0] for x in os.listdir(FILES)}):
            if not name.startswith(('foreign', 'haven', 'pandas', 'sav')):
                continue
            sav = name.startswith('sav')
            files = ['%s-%d.%s' % (name, i, 'sav' if sav else 'dta') for i in (1, 2, 3)]
            for file in files:
                shutil.copy(os.path.join(FILES, file), work)
            for text in (False, True):
                runs.append((name, 'spss' if sav else 'stata', files, text, 300, True))
        if shutil.which('pspp'):
            writepspp(work)
            for form in ('compressed', 'uncompressed'):
                for text in (False, True):
                    files = [form + '%d.sav' % i for i in (1, 2, 3)]
                    runs.append(('pspp ' + form, 'spss', files, text, None, False))
                    files = [name + ' /spss' for name in files]
                    runs.append(('pspp ' + form + ' /spss', 'other', files, text, None, False))
        else:
            print('pspp is not installed: its files are left out')
        for name, kind, files, text, limit, gap in runs:
            c = Checks('%s, %s IDs' % (name, 'text' if text else 'numeric'))
            try:
                check(c, program, work, kind, files, text, limit, gap)
            except (ValueError, OSError, struct.error) as error:
                c.fail('not understood: %s' % error)
            print('%-26s %s' % (c.tag, 'differs' if c.bad else 'holds'))
            bad += c.bad
    print('\n'.join(bad) if bad else 'all hold')
    return 1 if bad or not runs else 0


if __name__ == '__main__':
    sys.exit(main())
