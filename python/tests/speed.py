"""Seconds from a mapping of 1,000,000 rows to a printed summary, and of 1,000 bootstrap refits of 10,000 rows.

    speed.py
"""
import time

import numpy as np

import kdr3


def data(schools, pupils, records):
    """y = 1 + x / 2 + 0.3 z + effects of schools and pupils + noise, all of variance 1."""
    draw = np.random.default_rng(1)
    school = np.repeat(np.arange(schools), pupils * records)
    pupil = np.tile(np.repeat(np.arange(pupils), records), schools)
    x, z = draw.normal(size=len(school)), np.repeat(draw.normal(size=schools * pupils), records)
    y = 1 + 0.5 * x + 0.3 * z + draw.normal(size=schools)[school] + np.repeat(draw.normal(size=schools * pupils), records)
    return {"y": y + draw.normal(size=len(school)), "x": x, "z": z, "school": school, "pupil": pupil}


table = data(1000, 20, 50)
start = time.perf_counter()
text = str(kdr3.fit("y ~ x + z + (1 | school/pupil)", table).summary())
print(f"{len(table['y'])} rows to a summary: {time.perf_counter() - start:.2f} s")
fitted = kdr3.fit("y ~ x + z + (x | school/pupil)", data(50, 20, 10))
start = time.perf_counter()
print(fitted.bootstrap(1000), f"{time.perf_counter() - start:.2f} s")
