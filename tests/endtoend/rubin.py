"""Rubin's rules from single runs: reads their reports and variance-covariance files, and averages them by the
definition. The standard library only."""
import math
import pathlib

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


class Single:
    """What a single linear run left in its folder."""

    def __init__(self, folder, name, fisher=True):
        folder = pathlib.Path(folder)
        self.report = report.read(folder / name)
        q, r = len(self.report.taupi), len(self.report.taubeta)
        g = len(self.report.fixed["final"].rows)
        nt = q * (q + 1) // 2 + r * (r + 1) // 2
        tau = rows(folder / "tauvc.dat", [q] * q + [r] * r + ([nt] * nt if fisher else []) + [1])
        self.taupi, self.taubeta, self.sigma2 = tau[:q], tau[q:q + r], tau[-1][0]
        self.taucovariance = tau[q + r:-1]
        self.gamma, *self.covariance = rows(folder / "gamvc.dat", [g] * (g + 1))
        _, *self.robust = rows(folder / "gamvcr.dat", [g] * (g + 1))
        self.df = [row.df for row in self.report.fixed["final"].rows]

    def tau(self):
        return [m[i][j] for m in (self.taupi, self.taubeta) for i in range(len(m)) for j in range(i + 1)]


def mean(xs):
    return math.fsum(xs) / len(xs)


def meanmatrix(ms):
    return [[mean([m[i][j] for m in ms]) for j in range(len(ms[0][0]))] for i in range(len(ms[0]))]


def total(within, vectors):
    """Mean covariance within plus (1 + 1/M) times the covariance between, and that second part alone."""
    M, n = len(vectors), len(vectors[0])
    bar = [mean([v[i] for v in vectors]) for i in range(n)]
    f = (1 + 1 / M) / (M - 1) if M > 1 else 0.0
    between = [[f * math.fsum((v[i] - bar[i]) * (v[j] - bar[j]) for v in vectors) for j in range(n)] for i in range(n)]
    return [[within[i][j] + between[i][j] for j in range(n)] for i in range(n)], between


class Effects:
    """Pooled fixed effects under one covariance; nu is None where there is nothing between."""

    def __init__(self, singles, which):
        M = len(singles)
        sigma2 = mean([s.sigma2 for s in singles])
        within = meanmatrix([[[x / s.sigma2 for x in row] for row in getattr(s, which)] for s in singles])
        within = [[sigma2 * x for x in row] for row in within]
        self.gamma = [mean([s.gamma[i] for s in singles]) for i in range(len(within))]
        self.covariance, between = total(within, [s.gamma for s in singles])
        self.nu = [(M - 1) * (within[i][i] / between[i][i] + 1) ** 2 if between[i][i] > 0 else None
                   for i in range(len(within))]
        self.complete = singles[0].df

    def dfs(self, i):
        """The degrees of freedom that rounding of the inputs allows."""
        if self.nu[i] is None:
            return {self.complete[i]}
        return {min(int(self.nu[i] * x), self.complete[i]) for x in (1 - 1e-4, 1, 1 + 1e-4)}

    def wald(self, contrasts):
        e = [math.fsum(c * g for c, g in zip(row, self.gamma)) for row in contrasts]
        n = len(self.gamma)
        W = [[math.fsum(a[i] * self.covariance[i][j] * b[j] for i in range(n) for j in range(n)) for b in contrasts]
             for a in contrasts]
        return e, [math.sqrt(W[i][i]) for i in range(len(e))], math.fsum(x * y for x, y in zip(e, solved(W, e)))


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
    r = averaged
    near("sigma2", r.sigma2, mean([s.sigma2 for s in singles]), 6e-6)
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
        within = mean([s.report.sesigma2 ** 2 for s in singles])
        V, _ = total([[within]], [[s.sigma2] for s in singles])
        line = next((x for x in r.lines if x.startswith(" Standard Error of sigma^2")), "= nan")
        near("error of sigma2", float(line.split("=")[1]), math.sqrt(V[0][0]), 1.2e-5)
    else:
        check(r.setaupi is None and r.setaubeta is None and "Standard Error of sigma" not in r.text,
              f"{name}: standard errors without scoring")
    tests = iter(r.tests)
    check(len(r.tests) == 2 * len(contrasts), f"{name}: {len(r.tests)} hypothesis tests")
    for table, which in (("final", "covariance"), ("robust", "robust")):
        want = Effects(singles, which)
        got = r.fixed.get(table)
        check(got is not None and len(got.rows) == len(want.gamma), f"{name}: no {table} table")
        for i, row in enumerate(got.rows if got else []):
            near(f"{table} {row.label}", row.coefficient, want.gamma[i], 1.1e-6)
            error = math.sqrt(want.covariance[i][i])
            near(f"{table} {row.label} s.e.", row.se, error, 2e-6)
            near(f"{table} {row.label} t", row.t, want.gamma[i] / error, 1e-3 + 1e-5 * abs(want.gamma[i] / error))
            check(row.df in want.dfs(i), f"{name}: {table} {row.label} d.f. {row.df}, expected {want.dfs(i)}")
        for rows_ in contrasts:
            e, errors, statistic = want.wald(rows_)
            test = next(tests, None)
            if test is None:
                continue
            for k in range(len(e)):
                near(f"{table} contrast {k}", test.estimates[k], e[k], 1.1e-5)
                near(f"{table} contrast {k} s.e.", test.errors[k], errors[k], 1.1e-5)
            near(f"{table} chi-square", test.statistic, statistic, 1e-4 * max(1.0, statistic))
    for level in (2, 3):
        for i, x in enumerate(r.reliabilities.get(level, [])):
            near(f"level-{level} reliability {i}", x, mean([s.report.reliabilities[level][i] for s in singles]), 1.1e-3)
        check(len(r.components.get(level, [])) == orders[level - 2], f"{name}: rows of level-{level} components")
        for i, row in enumerate(r.components.get(level, [])):
            of = [s.report.components[level][i] for s in singles]
            near(f"level-{level} variance {i}", row.variance, mean([x.variance for x in of]), 1.1e-5)
            near(f"level-{level} chi-square {i}", row.chisquare, mean([x.chisquare for x in of]), 1.1e-5)
            check(row.df == of[0].df, f"{name}: level-{level} d.f. {row.df}, expected {of[0].df}")
