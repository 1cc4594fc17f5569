"""Numbers as readers want them: as many digits as their standard error gives a meaning to."""
import math

MOST = 6  # decimals, or digits before the point, from which on a power of ten stands in the number
LARGEST = 10 ** 9


def minus(text):
    return text.replace("-", "−")


def places(errors, significant=2):
    """Decimals by which the least of these errors (standard errors, widths) shows so many digits; None without any."""
    sizes = [abs(x) for x in errors if x is not None and x != 0 and math.isfinite(x)]
    return significant - 1 - math.floor(math.log10(min(sizes))) if sizes else None


def shown(value, decimals=None):
    """A number with so many decimals, or with three or four digits that count. What is too small or too large for a table has a
    power of ten."""
    if value is None:
        return "–"
    if isinstance(value, int):
        return minus(str(value))
    if decimals is None:
        decimals = places([value], 4 if abs(value) >= 1 else 3) if value else 0
    if decimals > MOST or abs(value) >= LARGEST:
        return scientific(value, decimals)
    text = minus(f"{value:.{max(decimals, 0)}f}")
    return text[1:] if text.startswith("−") and not text.strip("−0.") else text  # no −0.00


def scientific(value, decimals):
    """With the digits down to that decimal place, two of them at least."""
    if value == 0:
        return "0"
    digits = max(1, min(15, math.floor(math.log10(abs(value))) + decimals))
    return minus(f"{value:.{digits}e}")


def interval(bounds, decimals=None, word=" to "):
    """Both bounds with the same decimals, by the width of the interval unless they are given."""
    if not bounds or bounds == [None, None]:
        return "–"
    if decimals is None and None not in bounds:
        decimals = places([(bounds[1] - bounds[0]) / 4], 3)
    return word.join(shown(x, decimals) for x in bounds)


def statistic(value):
    """A test statistic, which two decimals are enough for."""
    return shown(value, 2) if value is not None and abs(value) < 1000 else shown(value, 1)


def degrees(value):
    return shown(value) if value is None or value == int(value) else shown(value, 1)


def pvalue(p):
    return "–" if p is None else "<0.001" if p < 0.001 else f"{p:.3f}"


def chisquarep(x, df):
    """The probability that a chi-square of df degrees of freedom is above x: with m = df/2 the finite sums
    e^(-x/2) sum_{i<m} (x/2)^i/i! for even df, and erfc(sqrt(x/2)) + e^(-x/2) sum_{i<(df-1)/2} (x/2)^(i+1/2)/Gamma(i+3/2)
    for odd ones."""
    if x <= 0 or df <= 0:
        return float(x <= 0 < df)
    half = x / 2
    first = 0.0 if df % 2 == 0 else 0.5
    terms = (math.exp(-half + (i + first) * math.log(half) - math.lgamma(i + first + 1)) for i in range(df // 2))
    return min(1.0, math.fsum(terms) + (math.erfc(math.sqrt(half)) if df % 2 else 0.0))
