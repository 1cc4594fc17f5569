#!/usr/bin/env python3
"""Makes the sample of examples/chem97 that the raw readers are held against, in tests/construct/files: fixed columns, a plain
table for the R script beside this one, delimited text, and Excel workbooks (python3-xlwt, python3-openpyxl). A few level-1 values are
missing. In tests/construct/files, run it first, then otherfiles.R, then otherfiles.sps (through pspp)."""
import csv
import os

import openpyxl
import xlwt

here = os.path.dirname(os.path.abspath(__file__))
examples = os.path.join(here, "..", "..", "examples", "chem97")


def columns(name, widths):
    for line in open(os.path.join(examples, name)):
        row, at = [], 0
        for width in widths:
            row.append(line[at:at + width].strip())
            at += width
        yield row


level1, level2, level3 = [], [], []
schools = {}
for row in columns("chem97-1.dat", (4, 6, 5, 3, 4, 7, 8)):
    lea, school = int(row[0]), int(row[1])
    if lea > 4:
        break
    taken = schools.setdefault(lea, {})
    if school not in taken and len(taken) == 4:
        continue
    taken[school] = taken.get(school, 0) + 1
    if taken[school] <= 5:
        level1.append([lea, school] + row[2:])
for row in columns("chem97-2.dat", (4, 6, 8, 5)):
    if int(row[1]) in schools.get(int(row[0]), {}):
        level2.append([int(row[0]), int(row[1])] + row[2:])
for row in columns("chem97-3.dat", (4, 8, 5)):
    if int(row[0]) in schools:
        level3.append([int(row[0])] + row[1:])
# AGE (place 4) and GCSE (place 5) hold missing values. The R script makes some of them special ones.
for i in (3, 11, 12, 30):
    level1[i][4] = ""
for i in (5, 12):
    level1[i][5] = ""

names = (["LEA", "SCHOOL", "TLEA", "TSCHOOL", "SCORE", "FEMALE", "AGE", "GCSE", "GCSECNT"],
         ["LEA", "SCHOOL", "TLEA", "TSCHOOL", "SCHGCSE", "SCHSIZE"],
         ["LEA", "TLEA", "LEAGCSE", "LEANSCH"])
tables = []
for ids, rows in ((2, level1), (2, level2), (1, level3)):
    texts = lambda r: ["AREA%d" % r[0]] + (["SCHOOL%06d" % r[1]] if ids == 2 else [])
    tables.append([r[:ids] + texts(r) + r[ids:] for r in rows])

widths = ((8, 8, 8, 8, 10), (10, 8), (10, 8))
for level in range(3):
    ids = 2 if level < 2 else 1
    with open("sample%d.dat" % (level + 1), "w") as out:
        for row in tables[level]:
            out.write("".join("%12s" % text for text in row[ids:2 * ids]))
            out.write("".join("%*s" % (w, value) for w, value in zip(widths[level], row[2 * ids:])) + "\n")
    for name, delimiter, absent in (("sample%d.csv", ",", ""), ("sample%d-semicolon.csv", ";", "NA"),
                                    ("sample%d.txt", "\t", "NA")):
        with open(name % (level + 1), "w", newline="") as out:
            quoting = csv.QUOTE_ALL if delimiter == ";" else csv.QUOTE_MINIMAL
            writer = csv.writer(out, delimiter=delimiter, quoting=quoting)
            writer.writerow(names[level])
            for row in tables[level]:
                writer.writerow([absent if value == "" else value for value in row])
    # Some missing values are empty cells, some are texts. In the newer workbooks one is an error.
    book, newer = xlwt.Workbook(), openpyxl.Workbook()
    sheet, newersheet = book.add_sheet("sample"), newer.active
    for r, row in enumerate([names[level]] + tables[level]):
        for c, value in enumerate(row):
            if r > 0 and value != "" and c not in range(ids, 2 * ids):
                value = float(value)
            if value == "":
                value = "NA" if r % 2 == 0 else None
            if value is not None:
                sheet.write(r, c, value)
            newersheet.cell(r + 1, c + 1, "#N/A" if value is None and r % 3 == 1 else value)
    book.save("sample%d.xls" % (level + 1))
    newer.save("sample%d.xlsx" % (level + 1))
