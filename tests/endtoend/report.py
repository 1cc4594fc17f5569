"""Reads a text report back into numbers. Shared by the end-to-end tests; the standard library only.

    r = report.read('model.txt')
    r.fixed['final'].rows[0].coefficient        # 'final', 'robust', 'leastsquares', 'leastsquaresrobust'
    r.taupi, r.taubeta, r.setaupi, r.setaubeta  # lists of rows; None when the report has no such table
    r.ratios['final'].rows[0].ratio             # of a non-linear run
    r.sigma2, r.sesigma2, r.deviance, r.parameters, r.iterations, r.logliks

A table that occurs more than once (start and end of a run) is kept in its last, final form. The results of a non-linear
run come in sections, each a report of its own:

    report.sections('model.txt')['unit-specific']   # 'linear', 'unit-specific', 'laplace', 'quadrature',
                                                    # 'population-average', 'categories'
"""
import re
from collections import namedtuple

FixedRow = namedtuple('FixedRow', 'label level1 level2 constrained coefficient se t df p rough')
FixedTable = namedtuple('FixedTable', 'heading rows')
RatioRow = namedtuple('RatioRow', 'label coefficient ratio low high')  # low and high None: not computed
ComponentRow = namedtuple('ComponentRow', 'label effect sd variance df chisquare p')  # df None: too few df
Test = namedtuple('Test', 'rows estimates errors statistic df p df2')  # p 0.5 stands for ">.500"

NUMBER = r'-?(?:\d+\.\d+|nan|inf)'
FIXEDROW = re.compile(r'^ {6}(.*?)([ *])\s*(%s) +(%s) +(%s) +(?:(\d+) +(\d\.\d{3})(#?)|Unable to compute)\s*$'
                      % (NUMBER, NUMBER, NUMBER))
COMPONENT = re.compile(r'^\s*(\S.*?)(?:,| slope,)\s*(\w+?\d+) *(%s) +(%s) +(?:(\d+) +(%s) +(>?\d*\.\d{3})|too few df to compute)\s*$'
                       % (NUMBER, NUMBER, NUMBER))
RATIOROW = re.compile(r'^ {6}(.*?)[ *]\s*(%s) +(%s) +(?:\((%s),(%s)\)|Unable to compute)\s*$' % ((NUMBER,) * 4))
MISSINGROW = re.compile(r'^ {6}.*?[ *]\s*(%s) +(%s)\s*$' % (NUMBER, NUMBER))
LEVEL1ROW = re.compile(r'^  level-1, +(\S+) +(%s) +(%s)\s*$' % (NUMBER, NUMBER))


class Report:
    def __init__(self, text):
        self.text = text
        self.lines = text.replace('\f', '').split('\n')
        self.fixed, self.ratios, self.missing, self.heading = {}, {}, {}, None
        self.taupi = self.taubeta = self.setaupi = self.setaubeta = None
        self.starttaupi = self.starttaubeta = self.corrtaupi = self.corrtaubeta = None
        self.taupilabels = []
        self.sigma2 = self.sesigma2 = self.startsigma2 = self.deviance = self.parameters = None
        self.lsdeviance = self.lsparameters = None
        self.reliabilities, self.components, self.componentsigma2 = {}, {}, None
        self.iterations, self.logliks, self.stopped, self.notes, self.tests = None, {}, None, [], []
        self.comparison = None
        self.exploratory = {}  # level: rows (place of the coefficient, candidate, slope, error, t); 'NC' slopes are None
        for i, line in enumerate(self.lines):
            self.take(i, line)

    def take(self, i, line):
        word = line.strip()
        table = re.fullmatch(r'(Standard errors? of )?(tau\((?:pi|beta)\))(\(0\)| \(as correlations\))?', word)
        if table:
            self.tau(i, *table.groups())
        elif word.startswith(('Final estimation of fixed effects', 'Estimation of fixed effects',
                              'Least-squares estimates of fixed effects')):
            self.fixedtable(i, word)
        elif re.match(r'Fixed Effect +Coefficient +Ratio +Interval$', word):
            self.ratiotable(i)
        elif word.startswith('Final estimation of level-'):
            self.componenttable(i, 3 if 'level-3' in word else 2)
        elif word.startswith('Random level-'):
            self.reliability(i, int(word[13]))
        elif word == 'Statistics for the current model':
            self.statistics(i)
        elif word == 'Results of General Linear Hypothesis Testing':
            self.test(i)
        elif word.startswith('Exploratory Analysis: estimated level-'):
            self.candidates(i, int(word.split('level-')[1][0]))
        elif word.startswith('Fraction of      Relative'):
            self.missingtable(i)
        elif word == 'Model comparison test':
            self.compare(i)
        else:
            self.single(i, word)

    def single(self, i, word):
        m = re.match(r'(Standard [eE]rror of )?sigma\^2(\(0\))? = +(%s)' % NUMBER, word)
        if m:
            name = 'sesigma2' if m[1] else 'startsigma2' if m[2] else 'sigma2'
            setattr(self, name, float(m[3]))
        m = re.match(r'The value of the log-likelihood function at iteration (\d+) = (\S+)', word)
        if m:
            self.logliks[int(m[1])] = float(m[2])
        m = re.match(r'\*{7} ITERATION (\d+) \*{7}', word)
        if m:
            self.iterations = int(m[1])
        m = re.match(r'Iterations (stopped due to small change in likelihood function|terminated prematurely)|'
                     r'WARNING: the iterations were stopped prior to convergence', word)
        if m:
            self.stopped = 'converged' if 'small change' in word else 'limit' if 'WARNING' in word else 'keyboard'
        m = re.match(r'Note: The (.*) reported above are based on only (\d+) of (\d+)', word)
        if m:
            self.notes.append((m[1], int(m[2]), int(m[3])))
        if word.startswith('The least-squares likelihood value ='):
            self.lsdeviance = float(self.after(i, 'Deviance ='))
            self.lsparameters = int(self.after(i, 'Number of estimated parameters ='))

    def after(self, i, start, reach=12):
        """The word behind `start` on the first of the next lines that begins with it."""
        for line in self.lines[i:i + reach]:
            if line.strip().startswith(start):
                return line.strip()[len(start):].split()[0]
        raise ValueError('no line "%s" after line %d' % (start, i + 1))

    def numericrows(self, i, pattern):
        """Consecutive rows of numbers from line i on, after up to three lines of heading and labels."""
        rows, labels = [], []
        for line in self.lines[i:i + 200]:
            m = re.match(pattern, line)
            if m:
                rows.append([float(x) for x in m[m.lastindex].split()])
                labels.append(m[1].strip())
            elif rows or len(labels) > 3:
                break
        return rows, labels

    def tau(self, i, error, name, suffix):
        level2 = name == 'tau(pi)'
        attribute = ('corr' if suffix and 'corr' in suffix else 'start' if suffix else 'se' if error else '') + \
            ('taupi' if level2 else 'taubeta')
        numbers = r'((?: *%s)+)\s*$' % NUMBER
        if level2 or 'corr' in attribute:
            rows, labels = self.numericrows(i + 1, r'^ *([A-Za-z_]\S*(?: *[,/] *\S+?)*?(?:\([^)]*\))?) +' + numbers)
            if attribute == 'taupi':
                self.taupilabels = labels
        else:
            rows, _ = self.numericrows(i + 1, r'^()' + numbers)
        if not rows:
            return
        # a matrix of more than six columns comes in blocks, each under its heading: the later ones are not square
        old = getattr(self, attribute)
        if old and len(old) == len(rows) and len(old[0]) < len(old):
            rows = [a + b for a, b in zip(old, rows)]
        setattr(self, attribute, rows)

    def fixedtable(self, i, word):
        least = word.startswith('Least')
        heading, rows, level1, level2, begun = [word], [], '', '', False
        for n, line in enumerate(self.lines[i + 1:], 1):
            m = FIXEDROW.match(line)
            if m:
                begun = True
                label, mark, coef, se, t, df, p, rough = m.groups()
                rows.append(FixedRow(' '.join(label.split()), level1, level2, mark == '*', float(coef), float(se),
                                     float(t), int(df) if df else None, float(p) if p else None, rough == '#'))
            elif line.startswith('For Category'):
                level1 = level2 = ''
            elif line.startswith('    For '):
                level2 = ' '.join(line.split()[1:])
            elif line.startswith(' For '):
                level1 = ' '.join(line.split()[1:])
            elif re.match(r' -{20,}$', line):
                if begun:
                    break
            elif not begun and n < 4:
                heading.append(line.strip())
            elif begun and line.strip():
                raise ValueError('line %d in a fixed-effects table not understood: %r' % (i + n + 1, line))
        text = ' '.join(heading)
        key = ('leastsquares' if least else 'final') if 'robust' not in text else \
            ('leastsquaresrobust' if least else 'robust')
        self.heading = key
        self.fixed[key] = FixedTable(text, rows)

    def ratiotable(self, i):
        rows = []
        for line in self.lines[i + 2:]:
            m = RATIOROW.match(line)
            if m:
                rows.append(RatioRow(' '.join(m[1].split()), float(m[2]), float(m[3]), m[4] and float(m[4]),
                                     m[5] and float(m[5])))
            elif re.match(r' ?-{20,}$', line):
                break
            elif line.strip() and not re.match(r'(For Category| +For )', line):
                raise ValueError('a line in a ratio table not understood: %r' % line)
        self.ratios[self.heading] = rows

    def missingtable(self, i):
        rows, rules = [], 0
        for line in self.lines[i:]:
            m = MISSINGROW.match(line)
            rules += re.match(r' -{20,}$', line) is not None
            if rules == 2:
                break
            if m:
                rows.append((float(m[1]), float(m[2])))
        self.missing[self.heading] = rows

    def componenttable(self, i, level):
        rows, rules = [], 0
        for n, line in enumerate(self.lines[i + 1:], i + 2):
            if re.match(r' -{20,}$', line):
                rules += 1
                if rules == 3:
                    break
            elif rules == 2:
                m = LEVEL1ROW.match(line)
                if m:
                    self.componentsigma2 = float(m[3])
                    continue
                m = COMPONENT.match(line)
                if not m:
                    raise ValueError('line %d in a variance table not understood: %r' % (n, line))
                label, effect, sd, var, df, chi, p = m.groups()
                rows.append(ComponentRow(' '.join(label.split()), effect, float(sd), float(var), int(df) if df else None,
                                         float(chi) if chi else None,
                                         None if not p else 0.5 if p[0] == '>' else float(p)))
        self.components[level] = rows

    def reliability(self, i, level):
        rows = []
        for line in self.lines[i + 2:]:
            m = re.match(r'^  ( *\S.*?) +(%s)\s*$' % NUMBER, line)
            if not m:
                break
            rows.append(float(m[2]))
        self.reliabilities[level + 1] = rows

    def statistics(self, i):
        self.deviance = float(self.after(i, 'Deviance                       ='))
        self.parameters = int(self.after(i, 'Number of estimated parameters ='))

    def candidates(self, i, level):
        rows, names, coefs, errors, labels = [], [], [], [], []
        for line in self.lines[i + 1:]:
            word = line.split()
            if line.startswith(' ' * 24) and word:
                names = word
            elif line.startswith('    Coefficient '):
                coefs = [None if x == 'NC' else float(x) for x in word[1:]]
            elif line.startswith('    Standard Error '):
                errors = [float(x) for x in word[2:]]
            elif line.startswith('    t value '):
                rows += [(len(labels) - 1, *x) for x in zip(names, coefs, errors, map(float, word[2:]))]
            elif re.match(r' ?\s*\S+.*, *\w+\d+$', line):
                label = re.sub(' ', '', line)
                labels += [label] if label not in labels else []
            elif 'Exploratory' in line or 'Statistics' in line:
                break
        self.exploratory[level] = rows

    def compare(self, i):
        p = self.after(i, 'P-value                =')
        self.comparison = (float(self.after(i, 'Chi-square statistic   =')), int(self.after(i, 'Degrees of freedom     =')),
                           0.5 if p == '>.500' else None if p == 'Unable' else float(p.replace('<', '')))

    def test(self, i):
        rows, est, err = [], [], []
        for n, line in enumerate(self.lines[i + 1:], i + 1):
            m = re.match(r'^ {9}(.*?) +(%s) ((?: *%s)+)$' % (NUMBER, NUMBER), line)
            if m:
                rows.append((float(m[2]), [float(x) for x in m[3].split()]))
            elif line.startswith(' Estimate '):
                est = [float(x) for x in line.split()[1:]]
            elif line.startswith(' Standard Error of estimate'):
                err = [float(x) for x in line.split()[4:]]
            elif line.startswith('Chi-square statistic ='):
                p = self.after(n, 'P-value              =')
                self.tests.append(Test(rows, est, err, float(line.split()[3]),
                                       int(self.after(n, 'Degrees of freedom   =')), 0.5 if p == '>.500' else float(p), self.denominator(n + 3)))
                return
            elif 'cannot be computed' in line or 'Hypothesis Testing' in line:
                break
        self.tests.append(Test(rows, est, err, None, None, None, None))

    def denominator(self, i):
        m = re.match(r'The p-value is that of F = .* and (%s) degrees' % NUMBER, self.lines[i]) if i < len(self.lines) else None
        return float(m[1]) if m else None


def read(path):
    with open(path, encoding='latin-1') as f:
        return Report(f.read())


SECTION = re.compile(r'(?m)^\f?RESULTS FOR (LINEAR MODEL|NON-LINEAR MODEL(?:.*: Laplace)?|UNIT-SPECIFIC MODEL|'
                     r'POPULATION-AVERAGE|MULTINOMIAL ITERATION|ORDINAL ITERATION).*$')
SECTIONS = {'LINEAR MODEL': 'linear', 'NON-LINEAR MODEL': 'unit-specific', 'UNIT-SPECIFIC MODEL': 'quadrature',
            'POPULATION-AVERAGE': 'population-average', 'MULTINOMIAL ITERATION': 'categories', 'ORDINAL ITERATION': 'categories'}


def sections(path):
    """The results of a non-linear run by section."""
    return splitsections(read(path).text)


def splitsections(text):
    """The same of a report's text. A section that stands in it twice is an error."""
    begins = list(SECTION.finditer(text)) + [None]
    out = {}
    for m, after in zip(begins, begins[1:]):
        name = SECTIONS.get(m[1], 'laplace')
        if name in out:
            raise ValueError('the section of %s results stands in the report twice' % name)
        out[name] = Report(text[m.start():after.start() if after else len(text)])
    return out
