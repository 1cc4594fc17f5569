"""The command line, and what the dialogue does with answers that are none: help, names, a report that cannot be written.

    commandline_test.py <program>
"""
import fcntl
import json
import os
import re
import signal
import subprocess
import sys
import time

from conversations import CREATION, MODEL, OUTPUT
from program import NOFEATURES, NOFILES, Checks, Workplace, body

work, check = Workplace(sys.argv[1]), Checks()


def commandline():
    done = work.run("--help")
    check(done.returncode == 0 and done.stdout.startswith("usage: kdr3 [options]"), "--help")
    check(work.run("-h").stdout == done.stdout, "-h")
    done = work.run("--version")
    check((done.returncode, done.stdout) == (0, "KDR3 version 7.01\n"), f"--version: {done.stdout}")
    done = work.run("-z")
    check(done.returncode == 100 and "illegal option -- z\nusage: " in done.stdout, "an unknown option")
    check(work.run("-r", "chem97.mdmt").returncode == 0, "the MDM file")
    check(work.run("chem97.mdm", "model1.kdr").returncode == 0, "files")
    want = body(work.read("model1.txt"))
    for words, answers in ((["chem97.mdm", "model1.kdr", "-strict", "-t", "2"], ""),
                           (["chem97.mdm", "-"], work.read("model1.kdr"))):
        (work.folder / "model1.txt").unlink()
        done = work.run(*words, answers=answers)
        check(done.returncode == 0 and body(work.read("model1.txt")) == want, f"{words}: {done.stdout[-300:]}")


def onelongfile():
    """The MDM file of three raw files and that of one file with the same records give one model."""
    wide = {"Y": lambda k, j, i: (7 * k + 3 * j + 5 * i) % 11, "X": lambda k, j, i: (i * i + j) % 5}
    rows = [f"{k},{10 * k + j},{wide['Y'](k, j, i)},{wide['X'](k, j, i)},{k * k % 7}"
            for k in range(1, 13) for j in range(1, 4) for i in range(6)]
    work.write("long.csv", "area,school,y,x,q\n" + "\n".join(rows) + "\n")
    done = work.run("-from", "long.csv", "-level3", "area", "-level2", "school")
    if "without the libraries" in done.stdout:
        return
    check(done.returncode == 0 and (work.folder / "long.mdm").exists(), f"-from: {done.stdout[-500:]}")
    work.write("long.kdr", "NUMIT:50,N\nNONLIN:N\nLEVEL1:Y=INTRCPT1+X+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\n"
               "LEVEL3:INTRCPT2=INTRCPT3+Q+RANDOM/\nLEVEL2:X=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\nTITLE:long\n"
               "OUTPUT:long.txt\n" + NOFILES + NOFEATURES)
    done = work.run("long.mdm", "long.kdr")
    check(done.returncode == 0, f"a run on the file of -from: {done.stdout[-300:]}")
    check("The maximum number of level-1 units = 216" in work.read("long.txt"), "all its records are there")
    # whole names that begin alike, of two levels: neither is taken for the other
    work.write("alike.csv", "area,school,y,mathematics_a,mathematics_b\n" + "\n".join(rows) + "\n")
    work.run("-from", "alike.csv", "-level3", "area", "-level2", "school")
    for name, code, told in (("mathematics_a", 0, ""), ("mathematics_b", 9, "mathematics_b is a variable of level 3: put it on a LEVEL3: line.")):
        work.write("alike.kdr", work.read("long.kdr").replace("+X+", f"+{name}+").replace("LEVEL2:X", f"LEVEL2:{name}").replace("+Q+", "+"))
        done = work.run("alike.mdm", "alike.kdr")
        check(done.returncode == code and told in done.stdout and "is taken for" not in done.stdout, f"{name}: {done.returncode} {done.stdout[:300]}")
    done = work.run("-from", "long.csv", "-level3", "area")
    check(done.returncode == 100 and "go together" in done.stdout, "-from without -level2")
    done = work.run("-from", "long.csv", "-level3", "region", "-level2", "school")
    check(done.returncode == 100 and "no column region. Its columns are: area school y x q\n" in done.stdout, done.stdout)
    work.write("coded.csv", work.read("long.csv").replace(",x,", ",x\x1b[31m,", 1))
    done = work.run("-from", "coded.csv", "-level3", "area", "-level2", "school")
    check("X?[31M" in done.stdout and "\x1b" not in done.stdout + work.read("KDR3MDM.STS"), f"a coded name: {done.stdout}")
    work.write("slip.csv", work.read("long.csv").replace(rows[0], rows[0] + "0", 1))
    done = work.run("-from", "slip.csv", "-level3", "area", "-level2", "school")
    check("q varies within 1 of 36 level-2 units" in done.stdout and "Level-1 variables: Y X Q" in done.stdout, done.stdout)
    work.write("stray.csv", work.read("long.csv").replace(rows[0], "1,x" + rows[0][3:]).replace(rows[-1], "," + rows[-1]))
    work.write("stray.csv", work.read("stray.csv").replace("\n,12,", "\n,"))
    done = work.run("-from", "stray.csv", "-level3", "area", "-level2", "school")
    for words in ('The IDs in school are numbers, but line 2 holds "x1"', "1 records of stray.csv have no ID", "Level-1 variables: Y X"):
        check(words in done.stdout and words in work.read("KDR3MDM.STS"), f"log and console: {words}: {done.stdout[:500]}")
    ones = sum(row.split(",")[2] == "1" for row in rows)
    for codes, told in (("-9,1", f"y: {ones} values count as missing.\n"), ("-9,a", "cannot be -9,a")):
        done = work.run("-from", "long.csv", "-level3", "area", "-level2", "school", "-missing", codes)
        check(told in done.stdout and done.returncode == (100 if "a" in codes else 0), done.stdout[:300])


def interchanged():
    """Levels in each other's place: asked by construction, run, report and document."""
    question = "Each of the 36 level-3 units holds one level-2 unit. Are the levels interchanged?"
    said = work.run("-from", "long.csv", "-level3", "school", "-level2", "area", "swapped.mdm").stdout + work.read("KDR3MDM.STS")
    check(said.count(question) == 2, f"construction: {said[-400:]}")
    done = work.run("swapped.mdm", "long.kdr", "-results", "swapped.json")
    check(done.returncode == 0 and question in done.stdout, f"run: {done.returncode} {done.stdout[:400]}")
    check(question in work.read("long.txt"), "report")
    check(question in json.loads(work.read("swapped.json"))["warnings"], "document")


def slips():
    """What newcomers do wrong is told in the words that mend it."""
    work.write("long.csv", "".join(f"{line},{2 * int(line.split(',')[3]) if i else 'x2'}\n"
                                   for i, line in enumerate(work.read("long.csv").splitlines())))
    work.run("-from", "long.csv", "-level3", "area", "-level2", "school")
    X2 = "LEVEL2:X2=INTRCPT2/\nLEVEL3:INTRCPT2=INTRCPT3/\n"
    model = work.read("long.kdr")
    for name, words, text, code, told in (
            ("a lost line", (), model.replace("HYPOTH:N\n", ""), 100, "HYPOTH:N"),
            ("an unknown keyword", ("-strict",), model + "FIXSIGMA:1\n", 8, "line FIXSIGMA:1"),
            ("a report that ends early", (), model.replace("+X+", "+X+X2+").replace("TITLE", X2 + "TITLE"), 11, "end of long.txt"),
            ("raw data", ("long.csv",), model, 100, "long.csv is raw data: kdr3 -from long.csv")):
        work.write("slip.kdr", text)
        done = work.run(*(words if name == "raw data" else (*words, "long.mdm")), "slip.kdr")
        check(done.returncode == code and told in done.stdout + done.stderr, f"{name}: {done.returncode} {done.stdout[-300:]}")


def answersof(conversation):
    return "".join(answer + "\n" for _, answer in conversation)


def dialogue():
    """Help at every question, variables by name, and a path that cannot be opened leave the report as it was."""
    done = work.run(answers=answersof(MODEL))
    check(done.returncode == 0, "the plain dialogue")
    want, commands = body(work.read("dialogue.txt")), work.read("newcmd.kdr")
    done = work.run(answers="".join(f" ?\n{answer}\n" for _, answer in MODEL))
    check(done.returncode == 0 and body(work.read("dialogue.txt")) == want, f"help everywhere: {done.stdout[-300:]}")
    for words in ("y for yes, n for no.\nDo you want to do a non-linear analysis? ",
                  "or its name.\nWhat is the outcome variable: ", "-1 takes that of the question before.\n",
                  "It lies within 0 and 10000.\nHow many iterations", "may be empty.\nEnter a problem title: "):
        check(words in done.stdout, f"help: {words}")
    made = (work.folder / "chem97.mdm").read_bytes()
    done = work.run(answers="".join(f"?\n{answer}\n" for _, answer in CREATION))
    check(done.returncode == 0 and (work.folder / "chem97.mdm").read_bytes() == made, "help while a file is made")
    named = [(q, {"1": "Score", "2": "female", "4": " GCSE "}.get(a, a) if q.startswith(("What is the", "level-1 pred")) else a)
             for q, a in MODEL]
    check(named != MODEL, "some variables are named")
    done = work.run(answers=answersof(named).replace("female\n", "female1\nfemale\n", 1))
    check(done.returncode == 0 and body(work.read("dialogue.txt")) == want, f"by name: {done.stdout[-300:]}")
    check("There is no variable female1." in done.stdout, "an unknown name is told")
    again = [(q, "y\no\nn" if "latent variable" in q else a) for q, a in MODEL]
    done = work.run(answers=answersof(again))
    check(done.returncode == 0 and body(work.read("dialogue.txt")) == want, f"half a regression: {done.stdout[-300:]}")
    check("needs an outcome and a predictor" in done.stdout, "half a regression is told")

    (work.folder / "newcmd.kdr").unlink()
    assert MODEL[-1] == OUTPUT[0]
    before = answersof(MODEL[:-1])
    done = work.run(answers=before + "nowhere/report.txt\n.\nchem97.mdm\n\ndialogue.txt\n")
    check(done.returncode == 0 and done.stdout.count(OUTPUT[0][0]) == 5, f"asked again: {done.stdout[-300:]}")
    check(body(work.read("dialogue.txt")) == want and work.read("newcmd.kdr") == commands, "and the run is the same")
    (work.folder / "newcmd.kdr").unlink()
    done = work.run(answers=before + "nowhere/report.txt\n" * 10)
    check(done.returncode == 100 and "proper response" in done.stdout, "ten bad answers end the run")
    check(work.read("newcmd.kdr") == commands.replace("OUTPUT:dialogue.txt\n", ""), "but the model is kept")
    done = work.run("chem97.mdm", "newcmd.kdr", answers="dialogue.txt\n")
    check(done.returncode == 0 and body(work.read("dialogue.txt")) == want, "and goes on from there")


def blocked():
    """The interrupt key while the console waits for a reader, as a pager: no line is lost."""
    work.write("blocked.kdr", work.read("model1.kdr").replace("\nOUTPUT:", "\nOUTPUT:b").replace("STOPVAL", "#")
               + "DEBUG:1\nSTOPVAL:1e-13\n")
    reading, writing = os.pipe()
    fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
    child = subprocess.Popen([work.program, "-q", "chem97.mdm", "blocked.kdr"], cwd=work.folder, stdin=subprocess.PIPE,
                             stdout=writing, env=work.environment)
    os.close(writing)
    child.stdin.write(b"0\n")
    child.stdin.close()
    time.sleep(3)  # the pipe is full by now
    child.send_signal(signal.SIGINT)
    time.sleep(0.5)
    with os.fdopen(reading) as console:
        said = console.read()
    iterations = [int(n) for n in re.findall(r"at iteration (\d+) =", said)]
    check(child.wait() == 0 and iterations == list(range(1, len(iterations) + 1)), f"a blocked console: {said[-300:]}")
    check(said.endswith("The report is bmodel1.txt.\n"), f"the last line: {said[-100:]}")


def options():
    """Options in their other forms, and what is none."""
    for words, told in ((("-t0",), "-t takes"), (("-tx",), "cannot be x"), (("-t", "100000"), "1 to 1024"), (("-mix",), "-mi must"),
                        (("-mi", "chem97.mdm"), "cannot be chem97.mdm"), (("-i", "2"), "-i takes"), (("-nowhere",), "usage: kdr3"),
                        (("--nothing",), "illegal option -- nothing\n"), (("-missing", "nan", "--from=a"), "go together"),
                        (("--strict=no",), "takes no argument -- strict"), (("--results=",), "requires an argument -- results"),
                        (("-results", "a.json", "-results", "b.json"), "-results stands twice"),
                        (("-r", "chem97.mdmt", "-r", "chem97.mdmt"), "-r stands twice")):
        done = work.run(*words, "chem97.mdm", "model1.kdr")
        check(done.returncode == 100 and told in done.stdout, f"{words}: {done.stdout[:200]}")
    done = work.run("chem97.mdm", "model1.kdr", "model2.kdr")
    unused = "The word model2.kdr of the command line is not used."
    check(unused in done.stdout and unused in work.read("model1.txt"), "a word too many")
    work.write("reml.kdr", work.read("model1.kdr") + "LIKELIHOOD:ML\n")
    done = work.run("chem97.mdm", "reml.kdr", "-reml", "-strict")
    check(done.returncode == 100 and "LIKELIHOOD:ML has no effect" in done.stdout, f"-reml: {done.stdout[-200:]}")
    done = work.run("--results=double.json", "--t", "1", "chem97.mdm", "model1.kdr")
    check(done.returncode == 0 and done.stdout.endswith("The report is model1.txt, the results are double.json.\n"), done.stdout[-200:])


commandline()
options()
blocked()
onelongfile()
interchanged()
slips()
dialogue()
check.finish()
