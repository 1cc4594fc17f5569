#!/usr/bin/env python3
"""Stata files by pandas (1.5.3, python3-pandas), in tests/construct/files: release 10 of the 300 candidates that rawfiles.R
tells of, and releases 13 and 14 of the sample that otherfiles.py made, which has to run first."""
import os

import pandas

examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "chem97")


def read(level, names):
    return pandas.read_csv(os.path.join(examples, "chem97-%d.dat" % level), sep=r"\s+", names=names)


first = read(1, ["LEA", "SCHOOL", "SCORE", "FEMALE", "AGE", "GCSE", "GCSECNT"])[:300]
second = read(2, ["LEA", "SCHOOL", "SCHGCSE", "SCHSIZE"])
third = read(3, ["LEA", "LEAGCSE", "LEANSCH"])
second = second[second.SCHOOL.isin(first.SCHOOL)]
third = third[third.LEA.isin(first.LEA)]
record = first.index + 1
first = first.assign(GAP=first.SCORE.where((record % 7 != 0) & (record % 11 != 0)))
for level, table in enumerate((first, second, third), 1):
    table = table.assign(**{name + "T": table[name].map("{:05d}".format) for name in ("LEA", "SCHOOL") if name in table})
    table.to_stata("pandas10-%d.dta" % level, version=114, write_index=False,
                   variable_labels={"LEA": "local education authority"}, data_label="a label")
for level in (1, 2, 3):
    table = pandas.read_csv("sample%d.csv" % level)
    for version in (117, 118):
        table.to_stata("sample%d-%d.dta" % (level, version), version=version, write_index=False)
