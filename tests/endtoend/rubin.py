"""Rubin's rules from single runs: reads their reports and variance-covariance files, and averages them by the
definition. The standard library only."""
import functools
import math
import pathlib
import re

import report


def rows(path, lengths):
    """The rows of a file of numbers, of these lengths each, however they are split into lines."""
    numbers = [float(x) for x in pathlib.Path(path).read_text().split()]
    assert len(numbers) == sum(lengths), f"{path}: {len(numbers)} numbers, expected {sum(lengths)}"
    out, at = [], 0
    for n in lengths:
        out.append(numbers[at:at + n])
        at += n
    return out


def sections(path):
    """The parts of a single run's report that a series averages."""
    parts = report.sections(path)
    if not parts:
        return [report.read(path)]
    return [parts[x] for x in ("unit-specific", "categories", "population-average") if x in parts]


class Effects:
    """Fixed effects of one section of a single run: what its tables say, and the covariances where a file has them."""

    def __init__(self, section, sigma2, files=None):
        self.section, self.sigma2 = section, sigma2
        self.gamma = [row.coefficient for row in section.fixed["final"].rows]
        self.df = [row.df for row in section.fixed["final"].rows]
        self.variance = {which: [row.se ** 2 for row in section.fixed[which].rows] for which in ("final", "robust")}
        half = len(section.tests) // 2
        self.tests = {"final": section.tests[:half], "robust": section.tests[half:]}
        self.covariance, g = {}, len(self.gamma)
        for which, path in (files or {}).items():
            self.gamma, *self.covariance[which] = rows(path, [g] * (g + 1))
            self.variance[which] = [self.covariance[which][i][i] for i in range(g)]


class Single:
    """What a single run left in its folder. No file has the robust covariances of the unit-specific effects."""

    def __init__(self, folder, name, fisher=True):
        folder = pathlib.Path(folder)
        linear = not report.sections(folder / name)
        self.report, *more = sections(folder / name)
        q, r = len(self.report.taupi), len(self.report.taubeta)
        nt = q * (q + 1) // 2 + r * (r + 1) // 2
        tau = rows(folder / "tauvc.dat", [q] * q + [r] * r + ([nt] * nt if fisher else []) + ([1] if linear else []))
        self.taupi, self.taubeta, self.taucovariance = tau[:q], tau[q:q + r], tau[q + r:q + r + nt]
        self.sigma2 = tau[-1][0] if linear else self.report.componentsigma2 or 1.0
        self.fixedsigma2 = self.report.componentsigma2 is None
        files = lambda **f: {which: folder / name for which, name in f.items()}
        self.effects = [Effects(self.report, self.sigma2, files(final="gamvc.dat", robust="gamvcr.dat") if linear else
                                files(final="gamvcus.dat"))]
        self.effects += [Effects(section, self.sigma2, files(final="gamvcpa.dat", robust="gamvcpar.dat"))
                         for section in more]
        self.gamma, self.covariance = self.effects[0].gamma, self.effects[0].covariance.get("final")

    def tau(self):
        return [m[i][j] for m in (self.taupi, self.taubeta) for i in range(len(m)) for j in range(i + 1)]


def mean(xs, vector=False):
    return [mean(x) for x in zip(*xs)] if vector else math.fsum(xs) / len(xs)


def meanmatrix(ms):
    return [[mean([m[i][j] for m in ms]) for j in range(len(ms[0][0]))] for i in range(len(ms[0]))]


def total(within, vectors):
    """Mean covariance within plus (1 + 1/M) times the covariance between, and that second part alone."""
    M, n = len(vectors), len(vectors[0])
    bar = [mean([v[i] for v in vectors]) for i in range(n)]
    f = (1 + 1 / M) / (M - 1) if M > 1 else 0.0
    between = [[f * math.fsum((v[i] - bar[i]) * (v[j] - bar[j]) for v in vectors) for j in range(n)] for i in range(n)]
    return [[within[i][j] + between[i][j] for j in range(n)] for i in range(n)], between


class Pooled:
    """Pooled fixed effects under one covariance; nu is None where there is nothing between."""

    def __init__(self, effects, which):
        M, self.effects, self.which = len(effects), effects, which
        within = mean([e.variance[which] for e in effects], vector=True)
        g = len(within)
        self.gamma = mean([e.gamma for e in effects], vector=True)
        _, between = total([[0.0] * g] * g, [e.gamma for e in effects])
        self.variance = [within[i] + between[i][i] for i in range(g)]
        self.nu = [(M - 1) * (within[i] / between[i][i] + 1) ** 2 if between[i][i] > 0 else None for i in range(g)]
        self.complete = effects[0].df
        ratio = [between[i][i] / within[i] for i in range(g)]
        self.missing = [(r + 2 / (n + 3)) / (r + 1) if n else 0.0 for r, n in zip(ratio, self.nu)]
        self.efficiency = [1 / (1 + x / M) for x in self.missing]

    def dfs(self, i):
        """The degrees of freedom that rounding of the inputs allows."""
        if self.nu[i] is None:
            return {self.complete[i]}
        return {min(int(self.nu[i] * x), self.complete[i]) for x in (1 - 1e-4, 1, 1 + 1e-4)}

    def wald(self, contrasts, test):
        """Estimates, standard errors and the statistic of hypothesis number `test` (Li, Raghunathan and Rubin, 1991) with
        the degrees of freedom of its denominator: from the covariances, or without those from what the single runs say
        of each contrast; then the statistic of several is None."""
        dot = lambda a, b: math.fsum(x * y for x, y in zip(a, b))
        e, n = [dot(row, self.gamma) for row in contrasts], len(contrasts)
        each = [[dot(row, x.gamma) for row in contrasts] for x in self.effects]
        known = all(self.which in x.covariance for x in self.effects)
        if known:
            C = [[[dot(a, [dot(row, b) for row in x.covariance[self.which]]) for b in contrasts] for a in contrasts]
                 for x in self.effects]
        else:
            C = [[[x.tests[self.which][test].errors[i] ** 2 * (i == j) for j in range(n)] for i in range(n)]
                 for x in self.effects]
        U, M = meanmatrix(C), len(self.effects)
        W, between = total(U, each)
        errors = [math.sqrt(W[i][i]) for i in range(n)]
        if not known and n > 1:
            return e, errors, None, None
        if M == 1:
            return e, errors, dot(e, solved(U, e)), None
        s, t = math.fsum(solved(U, [row[i] for row in between])[i] for i in range(n)) / n, n * (M - 1)
        nu = 4 + (t - 4) * (1 + (1 - 2 / t) / s) ** 2 if t > 4 else t * (1 + 1 / n) * (1 + 1 / s) ** 2 / 2
        return e, errors, dot(e, solved(U, e)) / (1 + s), nu


def twosided(t, df):
    """P(|T| <= t), by the finite series in the angle."""
    angle = math.atan(t / math.sqrt(df))
    c, s, odd = math.cos(angle), math.sin(angle), df % 2
    term = total = (c if df > 1 else 0.0) if odd else 1.0
    for k in range(2 + odd, df - 1, 2):
        term *= c * c * (k - 1) / k
        total += term
    return 2 / math.pi * (angle + s * total) if odd else s * total


@functools.lru_cache(None)
def critical(df):
    """The first value of 1.960, 1.961, ... that leaves less than 0.05 outside; 1.96 from 2501 degrees of freedom on."""
    return next(n / 1000 for n in range(1960, 12800) if df > 2500 or 1 - twosided(n / 1000, df) < 0.05)


def solved(A, b):
    """A x = b by elimination with pivoting."""
    n = len(b)
    rows_ = [list(a) + [y] for a, y in zip(A, b)]
    for k in range(n):
        pivot = max(range(k, n), key=lambda i: abs(rows_[i][k]))
        rows_[k], rows_[pivot] = rows_[pivot], rows_[k]
        for i in range(n):
            if i != k:
                f = rows_[i][k] / rows_[k][k]
                rows_[i] = [x - f * y for x, y in zip(rows_[i], rows_[k])]
    return [rows_[i][n] / rows_[i][i] for i in range(n)]


def compare(check, name, averaged, singles, contrasts=(), fisher=True):
    """An averaged report against the averages of single runs. `contrasts` are its hypotheses."""
    near = lambda what, got, want, tolerance: check(
        got is not None and abs(got - want) <= tolerance, f"{name}: {what} is {got}, expected {want}")
    # the population-average effects stand behind all others
    found = re.compile("\f The (outcome|plausible) variable").search(
        averaged.text, max(averaged.text.find(" Final estimation of level-3 variance"), 0))
    at = found.start() if found else -1
    parts = [averaged] if at < 0 else [report.Report(averaged.text[:at]), report.Report(averaged.text[at:])]
    r, sigma2, held = parts[0], mean([s.sigma2 for s in singles]), singles[0].fixedsigma2
    if held:
        check(r.sigma2 is None, f"{name}: sigma2 {r.sigma2}")
    else:
        near("sigma2", r.sigma2, sigma2, 6e-6)
    orders = len(singles[0].taupi), len(singles[0].taubeta)
    for what, got in (("taupi", r.taupi), ("taubeta", r.taubeta)):
        want = meanmatrix([getattr(s, what) for s in singles])
        check(got is not None and len(got) == len(want), f"{name}: no {what}")
        for i, row in enumerate(want):
            for j, x in enumerate(row):
                near(f"{what} {i} {j}", got[i][j], x, 6e-6)
    if fisher:
        covariance, _ = total(meanmatrix([s.taucovariance for s in singles]), [s.tau() for s in singles])
        errors = iter(math.sqrt(max(covariance[i][i], 0.0)) for i in range(len(covariance)))
        for what, got, n in (("taupi", r.setaupi, orders[0]), ("taubeta", r.setaubeta, orders[1])):
            check(got is not None, f"{name}: no errors of {what}")
            for i in range(n):
                for j in range(i + 1):
                    want = next(errors)
                    # the files round the covariance at the 7th decimal, whose root is far coarser near 0
                    near(f"error of {what} {i} {j}", got and got[i][j], want, 6e-6 + 1e-7 / max(want, 1e-5))
    if fisher and not held:
        within = mean([s.report.sesigma2 ** 2 for s in singles])
        V, _ = total([[within]], [[s.sigma2] for s in singles])
        line = next((x for x in r.lines if x.startswith(" Standard Error of sigma^2")), "= nan")
        near("error of sigma2", float(line.split("=")[1]), math.sqrt(V[0][0]), 1.2e-5)
    else:
        check("Standard Error of sigma" not in r.text, f"{name}: an error of sigma2")
        check(fisher or r.setaupi is None and r.setaubeta is None, f"{name}: standard errors without scoring")
    check(len(parts) == len(singles[0].effects), f"{name}: {len(parts)} sets of fixed effects")
    for n, part in enumerate(parts):
        fixedeffects(check, near, name + (", population average" if n else ""), part, [s.effects[n] for s in singles],
                     contrasts)
    check(len(parts) == 1 or parts[1].taupi is None and not parts[1].components, f"{name}: variances at the end")
    for level in (2, 3):
        for i, x in enumerate(r.reliabilities.get(level, [])):
            near(f"level-{level} reliability {i}", x, mean([s.report.reliabilities[level][i] for s in singles]), 1.1e-3)
        check(len(r.components.get(level, [])) == orders[level - 2], f"{name}: rows of level-{level} components")
        for i, row in enumerate(r.components.get(level, [])):
            of = [s.report.components[level][i] for s in singles]
            near(f"level-{level} variance {i}", row.variance, mean([x.variance for x in of]), 1.1e-5)
            chisquare = pooledchisquare([x.chisquare for x in of], row.df)
            near(f"level-{level} chi-square {i}", row.chisquare, chisquare, 3e-5 + 1e-6 * chisquare)
            check(row.df == of[0].df, f"{name}: level-{level} d.f. {row.df}, expected {of[0].df}")


def pooledchisquare(values, k):
    """Of Li, Meng, Raghunathan and Rubin (1991), times its degrees of freedom."""
    M = len(values)
    if M == 1:
        return values[0]
    roots = [math.sqrt(x) for x in values]
    r = (1 + 1 / M) / (M - 1) * math.fsum((x - mean(roots)) ** 2 for x in roots)
    return k * max(0.0, (mean(values) / k - (M + 1) / (M - 1) * r) / (1 + r))


def fixedeffects(check, near, name, part, effects, contrasts):
    """The tables, ratios and tests of the fixed effects under both covariances."""
    tests = iter(part.tests)
    check(len(part.tests) == 2 * len(contrasts), f"{name}: {len(part.tests)} hypothesis tests")
    for table in ("final", "robust"):
        want = Pooled(effects, table)
        got = part.fixed.get(table)
        check(got is not None and len(got.rows) == len(want.gamma), f"{name}: no {table} table")
        for i, row in enumerate(got.rows if got else []):
            what = f"{name}, {table} {row.label}"
            near(what, row.coefficient, want.gamma[i], 1.1e-6)
            error = math.sqrt(want.variance[i])
            near(what + " s.e.", row.se, error, 2e-6)
            near(what + " t", row.t, want.gamma[i] / error, 1e-3 + 1e-5 * abs(want.gamma[i] / error))
            check(row.df in want.dfs(i), f"{what} d.f. {row.df}, expected {want.dfs(i)}")
            if len(effects) > 1:
                near(what + " missing information", part.missing[table][i][0], want.missing[i], 1.1e-3)
                near(what + " efficiency", part.missing[table][i][1], want.efficiency[i], 6e-4)
            if effects[0].section.ratios:
                ratio = part.ratios[table][i]
                for which, value, x in (("", ratio.ratio, 0.0), (" low", ratio.low, -1.0), (" high", ratio.high, 1.0)):
                    expected = math.exp(want.gamma[i] + x * critical(row.df) * error)
                    step = 1e-3 * error * expected if row.df < 6 else 0.0
                    near(what + " ratio" + which, value, expected, 3e-5 * expected + abs(x) * (6e-4 + step))
        check(bool(part.ratios) == bool(effects[0].section.ratios), f"{name}: ratios")
        for number, contrast in enumerate(contrasts):
            e, errors, statistic, nu = want.wald(contrast, number)
            test = next(tests, None)
            if test is None:
                continue
            for k in range(len(e)):
                near(f"{name}, {table} contrast {k}", test.estimates[k], e[k], 1.1e-5)
                near(f"{name}, {table} contrast {k} s.e.", test.errors[k], errors[k], 1.1e-5)
            if statistic is not None:
                near(f"{name}, {table} chi-square", test.statistic, statistic, 2e-4 * max(1.0, statistic))
                check((test.df2 is None) == (nu is None), f"{name}, {table}: {test.df2} degrees of the denominator")
                if nu is not None:
                    near(f"{name}, {table} denominator", test.df2, nu, 0.1 + 1e-3 * nu)
