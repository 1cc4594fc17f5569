#!/usr/bin/python3
"""Command files with small faults: commandfiles.py PROGRAM [COUNT] [SEED]

Makes COUNT mutants (2,000 unless told otherwise) of the command files below: a line lost, doubled or moved, a letter
lost, changed or swapped, a value in the place of another, a keyword misspelt. Runs each, without and with -strict.
What must hold: no signal and no hang; a refusal says why on the console; a run that ends with code 0 or 20 has either
a warning in its report, and in its results document, or a newcmd.kdr that states every line of the mutant; -strict
refuses where the report warns of the command file; newcmd.kdr can be run again and comes out as it is.
"""
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "endtoend"))
import program  # noqa: E402

ENDING = """LEVEL1DELETION:NONE
CONSTRAIN:N
HYPOTH:N
LVR-BETA:N
RESFILTYPE:FREEFORMAT
RESFILRECNUM:N
RESFIL1:N
RESFIL2:N
RESFIL3:N
FULLOUTPUT:Y
TITLE:mutant
RESULTS:new.json
OUTPUT:new.txt
"""
LINEAR = """NONLIN:N
NUMIT:3,N
STOPVAL:0.0000010000
ACCEL:5
FISHERTYPE:2
LEVEL1:YBERN=INTRCPT1+X1,1+X2,2+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+Z1,2+RANDOM/Z2
LEVEL3:INTRCPT2=INTRCPT3+Q1,2+RANDOM/Q2
LEVEL3:Z1=INTRCPT3/
LEVEL2:X1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL2:X2=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL1WEIGHT:NONE
LEVEL2WEIGHT:NONE
LEVEL3WEIGHT:NONE
VARIANCEKNOWN:NONE
FIXTAU2:3
FIXTAU3:3
FIXSIGMA2:N
GAMMA1:0,1,0,0,0
DEVIANCE:1000.5
DF:4
PRINTVARIANCE-COVARIANCE:Y
DIAGONALIZETAUPI:Y
""" + ENDING
NONLINEAR = """NONLIN:{kind}
MACROIT:2,N
MICROIT:3
STOPMICRO:0.0001
STOPMACRO:0.0001
{more}LEVEL1:{outcome}=INTRCPT1+X1,1{thresholds}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+Z1,2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL3:Z1=INTRCPT3/
LEVEL2:X1=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
""" + ENDING


def nonlinear(kind, outcome, more="", thresholds=""):
    return NONLINEAR.format(kind=kind, outcome=outcome, more=more, thresholds=thresholds)


FILES = [
    LINEAR,
    LINEAR,
    nonlinear("BERNOULLI", "YBERN", "FIXSIGMA2:1.0\n"),
    nonlinear("BINOMIAL,NTRIAL", "YBIN"),
    nonlinear("POISSON,EXPOS", "YEXP", "POPAVIT:2\n"),
    nonlinear("ORDINAL,3", "YORD3", "", "+THOLD2"),
]
VALUES = ["Y", "N", "y", "n", "", " ", "0", "1", "-1", "2", "7", "1e3", "1e1", "1.5.2", "0x10", "20abc", "nan", "inf", "1,5",
          "Y,abc,5", "Y,10,5.9", "Y,3.9", "Q", "X1", "YBERN", "Z1", "1e400", "99999999999", ".5", "5.", "+3", "--3", "Y,2,3"]
LETTERS = "ABEILMNORSTUXYZ0123456789,.:=+/ #"


def mutant(text, dice):
    lines = text.splitlines()
    for _ in range(1 if dice.random() < 0.8 else 2):
        i = dice.randrange(len(lines))
        line = lines[i]
        kind = dice.randrange(8)
        if kind == 0:
            del lines[i]
        elif kind == 1:
            lines.insert(dice.randrange(len(lines)), line)
        elif kind == 2:
            lines.insert(dice.randrange(len(lines)), lines.pop(i))
        elif kind == 3 and ":" in line:
            lines[i] = line[:line.index(":") + 1] + dice.choice(VALUES)
        elif kind == 4 and ":" in line:  # in the keyword
            at = dice.randrange(line.index(":") + 1)
            lines[i] = line[:at] + dice.choice(LETTERS) * dice.randrange(2) + line[at + 1:]
        else:
            at = dice.randrange(len(line))
            lines[i] = dice.choice([line[:at] + line[at + 1:], line[:at] + dice.choice(LETTERS) + line[at:],
                                    line[:at] + dice.choice(LETTERS) + line[at + 1:],
                                    line[:at] + line[at:at + 2][::-1] + line[at + 2:]])
        if not lines:
            lines = [""]
    return "\n".join(lines) + "\n"


class Shop:
    """A folder in which one program runs mutants."""

    def __init__(self, path, top):
        self.path = str(pathlib.Path(path).resolve())
        self.folder = pathlib.Path(program.madefolder(self.path, program.REFERENCE / "nonlinear", "nonlin.mdmt", top))
        self.before = set(os.listdir(self.folder))

    def run(self, text, *words):
        for name in set(os.listdir(self.folder)) - self.before:
            os.remove(self.folder / name)
        (self.folder / "m.kdr").write_text(text)
        try:
            done = subprocess.run([self.path, "-q", *words, "nonlin.mdm", "m.kdr"], cwd=self.folder, timeout=60,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        except subprocess.TimeoutExpired:
            return -1, "no end after 60 seconds"
        return done.returncode, done.stdout.decode("latin-1")

    def read(self, name):
        path = self.folder / name
        return path.read_text("latin-1") if path.exists() else ""


# Lines that newcmd.kdr states in other words, or never.
# RESFILTYPE: needs a residual file, LEVEL1DELETION: records that lack values.
UNSTATED = ("#", "TITLE", "OUTPUT", "RESULTS", "HYPOTH", "NOBASE", "RESFILTYPE", "RESFILRECNUM", "LEVEL1DELETION")


def spelt(line):
    """A line without what its writer is free to choose."""
    keyword, _, value = line.partition(":")
    return keyword.upper() + ":" + re.sub(r"[ \t]", "", value).upper().rstrip("/").rstrip(",")


def numbers(text):
    try:
        return [float(x) for x in text.split(",")]
    except ValueError:
        return None


def stated(line, written):
    """Whether one of the written lines says the same as the line of the mutant."""
    want = spelt(line)
    if want.startswith(UNSTATED) or want in (":", ""):
        return True
    keyword, _, value = want.partition(":")
    keyword = re.sub("^(STOPM[AI]CR).*", r"\1O", keyword)  # as far as it is compared
    for other in written:
        theirs = spelt(other)
        if theirs == want:
            return True
        word, _, said = theirs.partition(":")
        if word == keyword and (numbers(value) is not None and numbers(value) == numbers(said)):
            return True
        if word == keyword and value[:1] in "YN" and value[:1] == said[:1] and keyword not in ("TITLE",):
            return True
    # What holds anyway is not written.
    if keyword == "POPAVIT" and value in ("Y", "YES"):
        value = "1"
    return value in ("N", "NONE", "0") or value.startswith("N") or keyword in DEFAULTS and numbers(value) == DEFAULTS[keyword]


DEFAULTS = {"FIXSIGMA2": [0.0], "POPAVIT": [1.0], "TAYLOR": [0.0], "HETIT": [0.0], "DEBUG": [0.0]}


def check(shop, text):
    """What is wrong with the run of a mutant, or nothing."""
    code, said = shop.run(text)
    if code < 0 or code > 100:
        return f"code {code}: {said[-300:]}"
    if code not in (0, 20):
        return "" if said.strip() else f"code {code} without a word"
    report, written = shop.read("new.txt"), shop.read("newcmd.kdr")
    results = shop.read("new.json")
    odd = re.findall(r"(?m)^WARNING: (Command file: .*)$", report)
    if results:
        document = json.loads(results)
        warnings = document.get("warnings", [])
        if report and [w for w in warnings if w.startswith("Command file")] != odd:
            return f"the report warns of {odd}, the document of {warnings}"
    if report and not odd:
        for line in text.splitlines():
            if line.strip() and not line.startswith((" ", "#")) and not stated(line, written.splitlines()):
                return f"not stated, no warning: {line}"
    strict, words = shop.run(text, "-strict")
    if odd and strict in (0, 20):
        return f"-strict took what the report warns of: {odd[0]}"
    if report and not odd and strict not in (code, 20):
        return f"-strict ends with {strict} where nothing is warned of: {words[-200:]}"
    if written:
        again, words = shop.run(written)
        if again not in (0, 20):
            return f"newcmd.kdr ends with code {again}: {words[-300:]}"
        if shop.read("newcmd.kdr") != written:
            return "newcmd.kdr comes out in another way"
    return ""


def main(path, count=2000, seed=1):
    dice = random.Random(int(seed))
    top = tempfile.mkdtemp()
    shop, wrong = Shop(path, top), 0
    try:
        for n in range(int(count)):
            text = mutant(dice.choice(FILES), dice)
            fault = check(shop, text)
            if fault:
                wrong += 1
                print(f"---- mutant {n}: {fault}\n{text}")
    finally:
        shutil.rmtree(top)
    print(f"{count} mutants, {wrong} failed")
    raise SystemExit(1 if wrong else 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
