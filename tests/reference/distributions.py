"""Writes distributions.txt: upper tails by mpmath at 30 digits, held against scipy. A line is a distribution, its degrees of
freedom (two for F), a statistic and its tail; that of t and of the normal counts both sides."""
import mpmath as m
from scipy import stats

m.mp.dps = 30
half = m.mpf(1) / 2
tails = {
    "chi2": lambda df, _, x: m.gammainc(df * half, x / 2, m.inf, regularized=True),
    "t": lambda df, _, x: m.betainc(df * half, half, 0, df / (df + x * x), regularized=True),
    "f": lambda df, df2, x: m.betainc(df2 * half, df * half, 0, df2 / (df2 + df * x), regularized=True),
    "normal": lambda df, _, x: m.erfc(x / m.sqrt(2)),
}
rows = []
for df in (1, 2, 3, 5, 10, 30, 200, 2500, 10 ** 6):
    rows += [("chi2", df, 0, df * x) for x in (0.5, 0.9, 1.0, 1.1, 2.0, 4.0) if df * (x - 1) ** 2 < 1400]
    rows += [("t", df, 0, x) for x in (0.25, 1.0, 1.96, 4.0, 12.0, 36.0)]
    rows += [("f", 3, df, x) for x in (0.5, 1.0, 3.0, 20.0)] + [("f", df, 12.5, x) for x in (0.5, 3.0)]
rows += [("chi2", 1, 0, 3.84), ("chi2", 2, 0, 20.3), ("chi2", 2, 0, 50.37), ("chi2", 1, 0, 1360.0), ("chi2", 6, 0, 1380.0)]
rows += [("normal", 0, 0, x) for x in (0.5, 1.96, 8.0, 37.0)] + [("t", 2, 0, 1e150), ("t", 30, 0, 1e9)]
scipy = {"chi2": lambda df, _, x: stats.chi2.sf(x, df), "t": lambda df, _, x: 2 * stats.t.sf(x, df),
         "f": lambda df, df2, x: stats.f.sf(x, df, df2), "normal": lambda df, _, x: 2 * stats.norm.sf(x)}
with open("distributions.txt", "w") as file:
    for name, df, df2, x in rows:
        p = tails[name](m.mpf(df), m.mpf(df2), m.mpf(x))
        other = scipy[name](df, df2, x)
        assert abs(other / p - 1) < 1e-8, (name, df, df2, x, p, other)
        file.write(f"{name} {df} {df2} {x!r} {m.nstr(p, 17)}\n")
