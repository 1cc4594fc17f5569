"""Reading raw data, beside other programs: usage python3 bench/reading.py build/kdr3 [FOLDER] [--records=N] [--only=NAME]

One study as files of every format that is read: 1,000,000 level-1 records of two IDs and 18 variables, 12 of them with
decimals and 6 whole numbers, 2% of the values missing. The files are made once and kept in FOLDER (default
/tmp/kdr3-reading; 3.5 GB). Each number is the best of three runs, ours and the others' in turn; what takes more than ten
seconds runs once. Ours is the whole process that makes an MDM file: reading, checks of the order, statistics, scratch
file and MDM file written. The others only read: an R package the file into memory, the start of R not counted; PSPP, a
whole process, passes over the cases.
"""
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import time

import numpy as np

HERE = pathlib.Path(__file__).parent
NAMES = ["V%d" % v for v in range(1, 19)]
WHOLE = 6  # of them are whole numbers, the last ones
LEVELS = [["ID3", "ID2"] + NAMES, ["ID3", "ID2", "W1"], ["ID3", "Q1"]]
WIDTHS = {"ID3": 8, "ID2": 8}  # columns of a text; all others have 9
FORMATS = [  # name, label, extension, rawdattype, file type of OTHER, readers beside ours
    ("savplain", "SPSS .sav, uncompressed", "sav", "spss", "", ("haven", "PSPP")),
    ("savbyte", "SPSS .sav, compressed", "sav", "spss", "", ("haven", "PSPP")),
    ("savzlib", "SPSS .zsav, OTHER", "zsav", "other", " /spss", ("haven", "PSPP")),
    ("stata12", "Stata 12 .dta", "dta", "stata", "", ("haven", "foreign")),
    ("stata14", "Stata 14 .dta, OTHER", "dta", "other", " /stata", ("haven",)),
    ("transport", "SAS transport", "xpt", "sas", "", ("haven",)),
    ("sas7", "SAS .sas7bdat, OTHER", "sas7bdat", "other", " /sas-win", ("haven",)),
    ("systat", "SYSTAT", "sys", "systat", "", ("foreign",)),
    ("dbase", "dBASE .dbf, OTHER", "dbf", "other", " /xbase", ("foreign",)),
    ("fixed", "text in columns", "dat", "ascii", "", ("readr", "PSPP")),
    ("comma", "CSV, OTHER", "csv", "other", " /delim", ("readr", "data.table", "PSPP")),
]


def simulate(records):
    """The three levels, one matrix each."""
    rng = np.random.default_rng(20)
    per3, per2 = 100, 20
    n2 = max(records // per2, 1)
    j2 = np.arange(1, n2 + 1)
    k2 = (j2 - 1) // per3 + 1
    values = rng.standard_normal((n2 * per2, len(NAMES))) * 10
    values[:, -WHOLE:] = np.floor(np.abs(values[:, -WHOLE:]) ** np.arange(1, WHOLE + 1) / 10)
    values = np.round(np.clip(values, -999, 99999), 4) + 0.0
    values[rng.random(values.shape) < 0.02] = np.nan
    ids = np.stack([np.repeat(k2, per2), np.repeat(j2, per2)], axis=1)
    level3 = np.arange(1, k2[-1] + 1)
    return [np.hstack([ids, values]), np.stack([k2, j2, np.round(rng.standard_normal(n2), 4)], axis=1),
            np.stack([level3, np.round(rng.standard_normal(len(level3)), 4)], axis=1)]


def decimals(name):
    return 0 if name in ("ID3", "ID2", *NAMES[-WHOLE:]) else 4


def textrows(names, table, separator, plain):
    """Lines of text, a missing value being blank, or empty where a separator stands."""
    widths = [0 if plain else WIDTHS.get(name, 9) for name in names]
    form = separator.join("%%%s.%df" % (width or "", decimals(name)) for name, width in zip(names, widths))
    blank = "" if plain else "   "
    for row in table.tolist():
        yield (form % tuple(row)).replace("nan", blank)


def writetexts(stem, names, table):
    with open(stem("fixed"), "w") as f:
        f.writelines(row + "\n" for row in textrows(names, table, "", False))
    with open(stem("comma"), "w") as f:
        f.write(",".join(names) + "\n")
        f.writelines(row + "\n" for row in textrows(names, table, ",", True))


def writedbase(path, names, table):
    widths = [WIDTHS.get(name, 9) for name in names]
    with open(path, "wb") as f:
        f.write(struct.pack("<4BIHH20x", 3, 124, 1, 1, len(table), 33 + 32 * len(names), 1 + sum(widths)))
        for name, width in zip(names, widths):
            f.write(struct.pack("<11sc4xBB14x", name.encode(), b"N", width, decimals(name)))
        f.write(b"\r")
        f.writelines(b" " + row.encode() for row in textrows(names, table, "", False))
        f.write(b"\x1a")


def writesystat(path, names, table):
    """Records in segments of at most 128 bytes, each between its marks."""
    whole = 16  # doubles in a segment
    data = np.where(np.isnan(table), -1.0e36, table).astype("<f8")
    pieces = []
    for at in range(0, data.shape[1], whole):
        piece = np.ascontiguousarray(data[:, at:at + whole]).view(np.uint8)
        mark = np.full((len(data), 1), 0x81 if at + whole < data.shape[1] else piece.shape[1], np.uint8)
        pieces += [mark, piece, mark]
    with open(path, "wb") as f:
        f.write(b"\x4b\x06" + struct.pack("<hhhb", len(names), 1, 2, 6))
        f.writelines(b"\x0c" + name.encode().ljust(12) + b"\x0c" for name in names)
        f.write(np.hstack(pieces).tobytes() + b"\x82")


def makefiles(folder, records):
    mark = folder / "made"
    if mark.exists() and mark.read_text() == str(records):
        return
    print("making the files ...", file=sys.stderr)
    for level, (names, table) in enumerate(zip(LEVELS, simulate(records)), 1):
        stem = lambda name: folder / ("%s-%d.%s" % (name, level, next(f[2] for f in FORMATS if f[0] == name)))
        writetexts(stem, names, table)
        writedbase(stem("dbase"), names, table)
        writesystat(stem("systat"), names, table)
        np.asfortranarray(table).T.tofile(folder / ("table-%d.raw" % level))
        subprocess.run(["Rscript", HERE / "reading.R", "write", folder, str(level), str(len(table)), *names], check=True)
    mark.write_text(str(records))


def template(name, extension, kind, filetype):
    lines = ["#KDR3 MDM CREATION TEMPLATE", "rawdattype:" + kind]
    lines += ["l%dfname:%s-%d.%s%s" % (level, name, level, extension, filetype) for level in (1, 2, 3)]
    if kind == "ascii":
        lines += ["numl%dvar:%d" % (level, len([n for n in names if n not in WIDTHS]))
                  for level, names in enumerate(LEVELS, 1)]
        lines += ["l1format:(2A8,%dF9.4)" % len(NAMES), "l2format:(2A8,F9.4)", "l3format:(A8,F9.4)"]
    lines += ["l1missing:y/SAME", "-99999"] if kind == "ascii" else ["l1missing:y"]
    lines += ["timeofdeletion:analysis", "mdmname:%s.mdm" % name]
    for level, names in enumerate(LEVELS, 1):
        lines.append("*begin l%dvars" % level)
        if kind != "ascii":
            lines += ["level3id:ID3"] + (["level2id:ID2"] if level < 3 else [])
        lines += [n for n in names if n not in WIDTHS] + ["*end l%dvars" % level]
    return "\n".join(lines) + "\n"


def psppjob(path, kind):
    if kind in ("sav", "zsav"):
        return "GET FILE='%s'.\nEXECUTE.\n" % path
    if kind == "csv":
        variables = "\n".join("%s F9.%d" % (name, decimals(name)) for name in LEVELS[0])
        return ("GET DATA /TYPE=TXT /FILE='%s' /ARRANGEMENT=DELIMITED /DELIMITERS=',' /FIRSTCASE=2 /VARIABLES=\n%s.\n"
                "EXECUTE.\n" % (path, variables))
    at, places = 1, []
    for name in LEVELS[0]:
        width = WIDTHS.get(name, 9)
        places.append("%s %d-%d" % (name, at, at + width - 1))
        at += width
    return "DATA LIST FILE='%s' NOTABLE FIXED /%s.\nEXECUTE.\n" % (path, " ".join(places))


def timedprocess(command, folder, check=""):
    start = time.perf_counter()
    done = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    seconds = time.perf_counter() - start
    if done.returncode != 0 or check not in done.stdout:
        raise SystemExit("%s failed\n%s" % (command, done.stdout + done.stderr))
    return seconds, done.stdout


def timedother(reader, path, folder):
    if reader == "PSPP":
        (folder / "job.sps").write_text(psppjob(path.name, path.suffix[1:]))
        return timedprocess(["pspp", "-O", "format=txt", "-o", os.devnull, "job.sps"], folder)[0]
    return float(timedprocess(["Rscript", HERE.resolve() / "reading.R", "read", reader, path], folder)[1])


def available(reader):
    if reader == "PSPP":
        return shutil.which("pspp") is not None
    test = "quit(status = !requireNamespace('%s', quietly = TRUE))" % reader
    return shutil.which("Rscript") is not None and subprocess.run(["Rscript", "-e", test]).returncode == 0


def main():
    options = dict(word[2:].split("=") for word in sys.argv[1:] if word.startswith("--"))
    words = [word for word in sys.argv[1:] if not word.startswith("--")]
    program = str(pathlib.Path(words[0]).resolve())
    folder = pathlib.Path(words[1] if len(words) > 1 else "/tmp/kdr3-reading").resolve()
    folder.mkdir(parents=True, exist_ok=True)
    records = int(options.get("records", 1_000_000)) // 20 * 20
    makefiles(folder, records)
    installed = {reader for reader in {r for f in FORMATS for r in f[5]} if available(reader)}
    print("| format | MB | seconds | MB/s | beside | seconds | ratio |\n|---|---|---|---|---|---|---|")
    for name, label, extension, kind, filetype, readers in FORMATS:
        if not name.startswith(options.get("only", "")):
            continue
        path = folder / ("%s-1.%s" % (name, extension))
        (folder / (name + ".mdmt")).write_text(template(name, extension, kind, filetype))
        ours, others = [], {reader: [] for reader in readers if reader in installed}
        for _ in range(3):
            (folder / (name + ".mdm")).unlink(missing_ok=True)  # some file systems wait where a file is written over
            ours.append(timedprocess([program, "-q", "-r", name + ".mdmt"], folder,
                                     " %6d level-1 records have been processed" % records)[0])
            for reader, times in others.items():
                if not times or times[0] < 10:
                    times.append(timedother(reader, path, folder))
        size, best = path.stat().st_size / 1e6, min(ours)
        for i, reader in enumerate(readers):
            first = (label, "%.0f" % size, "%.2f" % best, "%.0f" % (size / best)) if i == 0 else ("", "", "", "")
            last = ("-", "-")
            if reader in others:
                last = ("%.2f" % min(others[reader]), "%.1f" % (min(others[reader]) / best))
            print("| " + " | ".join(first + (reader,) + last) + " |", flush=True)


main()
