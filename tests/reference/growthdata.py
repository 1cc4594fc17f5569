#!/usr/bin/env python3
"""Makes examples/growth/growth.csv: simulated scores of pupils in schools over four years.

    growthdata.py > examples/growth/growth.csv

score = 50 + 3 ses + 2 tutoring + (4 + 0.5 ses + 1.5 tutoring) year + 0.8 (hours - 5) + random effects, whose standard
deviations are: pupil 3.0 and 0.8 (intercept and slope of year), school 2.0 and 0.7, residual 2.5. One score in twenty
is missing.
"""
import numpy

draw = numpy.random.default_rng(20261125)
print("school,pupil,year,hours,score,ses,tutoring")
pupil = 0
for school in range(1, 51):
    tutoring = school % 2
    school_effect = draw.normal(size=2) * (2.0, 0.7)
    school_ses = draw.normal() * 0.5
    for _ in range(draw.integers(6, 11)):
        pupil += 1
        ses = round(school_ses + draw.normal() * 0.9, 2)
        pupil_effect = draw.normal(size=2) * (3.0, 0.8)
        usual_hours = 5 + draw.normal()
        for year in range(4):
            hours = round(max(0.0, usual_hours + draw.normal()), 1)
            intercept = 50 + 3 * ses + 2 * tutoring + school_effect[0] + pupil_effect[0]
            slope = 4 + 0.5 * ses + 1.5 * tutoring + school_effect[1] + pupil_effect[1]
            score = intercept + slope * year + 0.8 * (hours - 5) + draw.normal() * 2.5
            written = "" if draw.random() < 0.05 else f"{score:.1f}"
            print(f"S{school:02},{pupil},{year},{hours},{written},{ses},{tutoring}")
