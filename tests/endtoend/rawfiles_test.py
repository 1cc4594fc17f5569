"""MDM files made from files of statistics packages hold the data of examples/chem97, bit for bit.

    rawfiles_test.py <program>

The small files in tests/construct/files were written by rawfiles.R and pandasfiles.py of tests/reference; the whole study is
written by PSPP here.
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile

from mdmfile import Mdm
from program import EXAMPLE, ROOT, Checks, finish, rawtemplate, run

FILES = ROOT / 'tests' / 'construct' / 'files'
RAWTYPES = {'systat': 3, 'sas': 5, 'spss': 6, 'stata': 8, 'other': 9}
MISSING = -1.0e36
NAMES = [['SCORE', 'FEMALE', 'AGE', 'GCSE', 'GCSECNT'], ['SCHGCSE', 'SCHSIZE'], ['LEAGCSE', 'LEANSCH']]


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


def check(c, program, work, kind, files, text, limit=None, gap=False, ids=None, mark=''):
    """Makes the MDM file of three raw files, and makes it again from the template that is written back."""
    ids = number if not text else ids or rightjustified
    names1 = NAMES[0] + (['GAP'] if gap else [])
    with open(work + '/t.mdmt', 'w') as f:
        columns = ('leat' + mark, 'schoolt' + mark) if text else ('lea', 'school')
        f.write(rawtemplate(kind, files, columns, [names1] + NAMES[1:], 'made.mdm'))
    code, out = run(program, work, '-r', 't.mdmt')
    if code != 0:
        return c.fail('ended with code %d\n%s' % (code, out[-600:]))
    mdm = Mdm(work + '/made.mdm')
    rows, units = expected(limit, ids, gap)
    c.equal('the length', mdm.complete, True)
    c.equal('the raw type', (mdm.rawtype, mdm.numeric), (RAWTYPES[kind], not text))
    c.equal('the names', [[n[:12].decode().strip() for n in x[1:]] for x in mdm.names], [names1] + NAMES[1:])
    c(mdm.rows() == rows, 'level 3 differs')
    wrong = [i for i, (a, b) in enumerate(zip(mdm.units(), units)) if a != b]
    c(mdm.units() == units, '%d units, expected %d; the first that differs is %s' % (len(mdm.blocks), len(units), wrong[:1]))
    os.remove(work + '/made.mdm')
    os.rename(work + '/creatmdm.mdmt', work + '/again.mdmt')
    c.equal('the code of the template written back', run(program, work, '-r', 'again.mdmt')[0], 0)
    c(Mdm(work + '/made.mdm').data == mdm.data, 'the file made from it is another')


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
    program, parts = os.path.abspath(sys.argv[1]), []

    def each(name, kind, files, **how):
        for text in (False, True):
            parts.append(Checks('%s, %s IDs' % (name, 'text' if text else 'numeric')))
            check(parts[-1], program, work, kind, files, text, **how)

    with tempfile.TemporaryDirectory() as work:
        for name in sorted({x.split('-')[0] for x in os.listdir(FILES)}):
            if name.startswith(('foreign', 'haven', 'pandas', 'sav')):
                kind, end = ('spss', 'sav') if name.startswith('sav') else ('stata', 'dta')
                files = ['%s/%s-%d.%s' % (FILES, name, i, end) for i in (1, 2, 3)]
                each(name, kind, files, limit=300, gap=True, ids=asitstands if kind == 'stata' else None)
        if shutil.which('pspp'):
            writepspp(work)
            for form in ('compressed', 'uncompressed'):
                files = [form + '%d.sav' % i for i in (1, 2, 3)]
                each('pspp ' + form, 'spss', files)
                each('pspp ' + form + ' /spss', 'other', [name + ' /spss' for name in files])
        else:
            print('pspp is not installed: its files are left out')
    finish(parts)


if __name__ == '__main__':
    main()
