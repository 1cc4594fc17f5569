"""Sessions at the terminal and the command files that repeat them.

    terminal_test.py <program> [--store]     --store writes the transcripts anew
"""
import io
import os
import pathlib
import re
import sys

import pexpect

from conversations import *
from program import ROOT, Checks, Workplace, body

STORE = sys.argv[2:] == ["--store"]
TRANSCRIPTS = pathlib.Path(__file__).resolve().parent / "transcripts"
check = Checks()
work = Workplace(sys.argv[1])


class Terminal:
    """The program at a terminal of 200 columns."""

    def __init__(self, *words):
        self.log = io.StringIO()
        environment = dict(work.environment, TERM="xterm", LANG="C.UTF-8", LC_ALL="C.UTF-8", HOME=str(work.folder))
        self.child = pexpect.spawn(work.program, ["-q", *words], cwd=str(work.folder), env=environment, encoding="utf-8",
                                   dimensions=(50, 200), timeout=60)
        self.child.delaybeforesend = None
        self.child.logfile_read = self.log

    def asked(self, question):
        """Waits for a question; by its last line, since that is what the editor shows."""
        self.child.expect_exact(question.strip("\n").rsplit("\n", 1)[-1])

    def answer(self, question, keys):
        self.asked(question)
        self.child.send(keys + "\r")

    def end(self):
        self.child.expect(pexpect.EOF)
        self.child.close()
        return self.child.exitstatus

    def transcript(self):
        """What stood on the screen, without control sequences and without what the iterations print."""
        text = re.sub(r"\x1b(\[[0-9;?]*[A-Za-z]|[=>]|[()][A-Z0-9])", "", self.log.getvalue())
        text = text.replace("\r\n", "\n").replace("\r", "")
        return "".join(line for line in text.splitlines(True) if not line.startswith("The value of the log-likelihood"))


def converse(conversation, name):
    terminal = Terminal()
    for question, answer in conversation:
        terminal.answer(question, answer)
    check(terminal.end() == 0, f"{name}: a session at the terminal ends with code 0")
    stored = TRANSCRIPTS / (name + ".txt")
    if STORE:
        stored.write_text(terminal.transcript())
    check(terminal.transcript() == stored.read_text(), f"{name}: another transcript:\n{terminal.transcript()}")


def answers(conversation):
    return "".join(answer + "\n" for _, answer in conversation)


def sessions():
    """Raw text to report by dialogue; the same from a template and from command files."""
    work.run("-r", "chem97.mdmt", "template.mdm")
    template = work.read("creatmdm.mdmt").replace("template.mdm", "chem97.mdm")
    converse(CREATION, "creation")
    made, wanted = ((work.folder / name).read_bytes() for name in ("chem97.mdm", "template.mdm"))
    check(made == wanted, "creation: the mdm file")
    check(work.read("creatmdm.mdmt") == template, "creation: the template")
    converse(MODEL, "model")
    report = body(work.read("dialogue.txt"))
    check(all(any(words in line for line in report) for words in ("G010*", "Model comparison test")), "model: report")

    def repeated(done, what):
        check(done.returncode == 0, f"{what}: code {done.returncode}\n{done.stdout[-300:]}")
        made = work.folder / "dialogue.txt"
        check(made.exists() and body(made.read_text()) == report, f"{what}: another report")
        made.unlink(missing_ok=True)

    written = work.read("newcmd.kdr")
    done = work.run("chem97.mdm", "newcmd.kdr")
    check("?" not in done.stdout and "Enter" not in done.stdout.replace("enter cntl-c", ""), "newcmd.kdr asks nothing")
    repeated(done, "newcmd.kdr")
    check(work.read("newcmd.kdr") == written, "newcmd.kdr writes itself again")
    repeated(work.run("chem97.mdm", work.write("model.kdr", COMMANDS)), "a command file")
    repeated(work.run("-r", work.write("model.rsp", answers(MODEL))), "a response file")
    repeated(work.run(answers=answers(MODEL).replace("\n", "\r\n")), "a pipe with CRLF")

    # The name of the report is asked last: answered rightly only if all questions before it were the expected ones.
    mixed = {
        "no model": (r"LEVEL|NONLIN|CONS|GAMMA|HYPO", LEVEL1LINES + LEVEL2LINES + RANDOM2 + CENTER2 + LEVEL3LINES + RANDOM3 +
                     EXTRA + CONSTRAINTS + HYPOTHESES[:-3]),
        "no exploratory lists": (r"$", EXTRA),
        "model alone": (r"[^L]|LVR", CONSTRAINTS + HYPOTHESES + REGRESSION + RESIDUALS + ITERATIONS + TITLE),
        "no features": (r"CONS|GAMMA|HYPO|DEV|DF|LVR", CONSTRAINTS + HYPOTHESES + REGRESSION),
        "no deviance": (r"HYPO|DEV|DF", HYPOTHESES[:1] + HYPOTHESES[-3:]),
        "no hypothesis": (r"HYPO|GAMMA", HYPOTHESES[:-3]),
        "no output": (r"RES|NUMIT|TITLE", RESIDUALS + ITERATIONS + TITLE),
    }
    for what, (pattern, questions) in mixed.items():
        text = re.sub("/.*", "", COMMANDS) if questions is EXTRA else COMMANDS
        kept = [line for line in text.splitlines(True) if not re.match(pattern + "|OUTPUT", line)]
        command = work.write("mixed.kdr", "".join(kept))
        repeated(work.run("chem97.mdm", command, answers=answers(questions + OUTPUT)), f"command file with {what}")


def choosing():
    """IDs and variables from the rows of .sav files; the marks are those of a template."""
    files = [str(ROOT / "tests" / "construct" / "files" / f"savbyte-{level}.sav") for level in (1, 2, 3)]
    head = ("#KDR3 MDM CREATION TEMPLATE\nmdmtype:0\nrawdattype:spss\n" +
            "".join(f"l{i + 1}fname:{name}\n" for i, name in enumerate(files)) +
            "l1missing:y\ntimeofdeletion:analysis\nmdmname:sav.mdm\n")
    names = ("level3id:LEA\nlevel2id:SCHOOL\nSCORE\nGCSE\n", "level3id:LEA\nlevel2id:SCHOOL\nSCHGCSE\n",
             "level3id:LEA\nLEAGCSE\n")
    blocks = "".join(f"*begin l{level}vars\n{chosen}*end l{level}vars\n" for level, chosen in enumerate(names, 1))
    work.run("-r", work.write("sav.mdmt", head + blocks))
    wanted = (work.folder / "sav.mdm").read_bytes()
    (work.folder / "sav.mdm").unlink()
    listing = (" The available level-1 variables are:\n"
               " For      LEA  enter  1    For   SCHOOL  enter  2    For     LEAT  enter  3\n"
               " For  SCHOOLT  enter  4    For AVERYLON  enter  5    For    SCORE  enter  6\n"
               " For   FEMALE  enter  7    For      AGE  enter  8    For     GCSE  enter  9\n"
               " For  GCSECNT  enter 10    For      GAP  enter 11\n What variable is the level-3 ID? ")
    chosen = lambda *given: work.run(answers="\n".join(["y", "4", *files, *given]) + "\n")

    def places(shown, level, *names):
        return [re.search(rf"level-{level} variables are:(?:.|\n)*?{name}  enter +(\d+)", shown)[1] for name in names]

    lea, school, leat, schgcse = places(chosen("1", "2", "0").stdout, 2, "LEA", "SCHOOL", "LEAT", "SCHGCSE")
    lea3, leagcse = places(chosen("1", "2", "0", lea, school, "0").stdout, 3, "LEA", "LEAGCSE")
    # Out of file order, with a character variable, an ID, and a repeat on the way.
    first = ["averylon", "LEA", "1", "2", "4", "9", "1", "gcse", "6", "0"]
    done = chosen(*first, leat, lea, school, schgcse, "0", lea3, leagcse, "0", "y", "a", "sav.mdm")
    check(listing in done.stdout, f"the list of variables\n{done.stdout[:1500]}")
    question = " Please specify level-1 variable # 1 (enter 0 to end): "
    again = "You have already chosen that variable!\n"
    check(f"level-2 ID? {again}" in done.stdout and
          question + " This is a character variable!\n" + question in done.stdout,
          f"what cannot be chosen\n{done.stdout[:3000]}")
    check(f"# 2 (enter 0 to end): {again} Please specify level-1 variable # 2 (enter 0 to end): {again}" in done.stdout,
          "what is chosen already")
    check("ID's must be both be character or both numeric!\n What variable is the level-3 ID? " in done.stdout,
          "IDs of two kinds")
    made = work.folder / "sav.mdm"
    check(made.exists() and made.read_bytes() == wanted, "the mdm file of the choice")
    check(work.read("creatmdm.mdmt").lower() == (head + blocks).lower(), "the template of the choice")


def keys():
    """Editing, history, the end of input and the interrupt key."""
    terminal = Terminal()
    terminal.answer(RAW[0], "yes\b\b\bno")
    terminal.answer(MDMNAME, "nonsuch.mdm")
    terminal.asked(" nonsuch.mdm does not exist.")
    terminal.answer(MDMNAME, "\x1b[A\x01\x0bchem97\x1b[D\x1b[D9\x1b[C\b7\x05.mdm")  # up, start, kill; arrows, end
    terminal.answer(MDMNAME, "chem97.mdm")
    terminal.asked(NONLINEAR[2][0])
    terminal.child.sendintr()
    check(terminal.end() == 100, "the interrupt key at a question: code 100")
    shown = terminal.transcript()
    check(re.search(" chem9(97|77).mdm does not exist.", shown), f"a line that was edited: {shown}")
    check(shown.endswith("Program interrupted by Ctrl-C\n"), f"the words of the interrupt key: {shown[-100:]!r}")
    terminal = Terminal()
    for _ in range(10):
        terminal.asked(RAW[0])
        terminal.child.sendeof()
    check(terminal.end() == 100 and terminal.transcript().endswith(IMPROPER), "ten ends of input at a terminal")


def badanswers():
    """Each question with ten bad answers, with the input at its end, and with nine bad answers and a good one."""
    special = {TYPES[1][0]: ("0", "", 100), MDMNAME: ("", "", 14), WHEN[0]: ("x", "", 14)}
    special.update({q: ("A4,F8.4", " First character of format must be (\n", 14) for q, _ in CREATION if "Input format" in q})
    special.update({q: ("none.dat", "\nnone.dat does not exist!\n", 14) for q, _ in CREATION if "Input name" in q})
    special.update({q: ("1001", "", 100) for q, _ in CREATION if "Input number" in q})
    special.update({q: ("1000000001", "", 100) for q, _ in CODES if "Enter the value for missing" in q})
    special.update({q: ("-1000001", "", 100) for q, _ in HYPOTHESES if "contrast value" in q})
    variables = ("outcome variable:", "predictor? (", "variable? (", "weight? (", "which variable indicates")
    for question, _ in MODEL + COUNTED + RESIDUALFILES:
        if any(word in question for word in variables):
            special[question] = ("x", " There is no variable x.\n", 100)
    special.update({LEVEL2LINES[0][0]: ("3", "", 100), ITERATIONS[0][0]: ("10001", "", 100)})
    special["type of analysis: "] = ("7", "", 100)
    free = ("Enter 8 character name", "How do you want to center", "Enter a problem title", "Enter name of output")
    done = set()
    for conversation in (CREATION, ONECODE, CODES, MODEL, NONLINEAR, COUNTED, CATEGORIES, RESIDUALFILES):
        for i, (question, good) in enumerate(conversation):
            known = (question, conversation is CREATION and question == MDMNAME)
            if known in done or any(word in question for word in free):
                continue
            done.add(known)
            bad, reply, code = special.get(question, ("x", "", 100))
            words = IMPROPER if code == 100 else NORESPONSE
            before = answers(conversation[:i])
            ten = work.run(answers=before + (bad + "\n") * 10)
            tail = (question + reply) * 10 + words
            check(ten.returncode == code and ten.stdout.endswith(tail),
                  f"ten bad answers to {question!r}: {ten.stdout[-200:]!r}")
            start = ten.stdout[: -len(tail)]
            none = work.run(answers=before)
            check(none.returncode == code and none.stdout == start + question * 10 + words, f"no answer to {question!r}")
            one = work.run(answers=before + good + "\n")
            nine = work.run(answers=before + (bad + "\n") * 9 + good + "\n")
            check(one.stdout.startswith(start + question), f"a good answer to {question!r}")
            check(nine.stdout == start + (question + reply) * 9 + one.stdout[len(start):], f"nine bad answers to {question!r}")
    check(len(done) > 60, f"{len(done)} questions")

    # Questions that follow other rules: 26 empty names, centering without a limit, a file that ends early.
    before = answers(CREATION[:11])
    invalid = " Invalid response. Try again.\n"
    ended = work.run(answers=before + "\n" * 26)
    check(ended.returncode == 14 and ended.stdout.count(invalid) == 26 and ended.stdout.endswith(invalid + NORESPONSE),
          "26 names")
    done = work.run(answers=before + "\n" * 25 + "SCORE\n")
    check(done.stdout.count("variable number 2: ") == 26, "25 empty names and a good one")
    at = MODEL.index(("How do you want to center   FEMALE? ", "0"))
    many = work.run(answers=answers(MODEL[:at]) + "3\n" * 20 + answers(MODEL[at : at + 1]))
    check(many.stdout.count(MODEL[at][0]) == 21 and MODEL[at + 1][0] in many.stdout, "centering has no limit")
    done = work.run("chem97.mdm", work.write("open.kdr", COMMANDS.replace("CONSTRAIN", "#")), preexec_fn=lambda: os.close(0))
    check(done.returncode == 100 and done.stdout.endswith(CONSTRAINTS[0][0] * 10 + IMPROPER), "a closed standard input")
    for i in range(len(MODEL)):
        early = work.run(answers=answers(MODEL[:i]))
        check(early.returncode in (14, 100), f"input that ends at {MODEL[i][0]!r}: code {early.returncode}")


def missing():
    """Codes of missing values reach the template, and the construction."""
    work.run(answers=answers(CODES))
    text = work.read("creatmdm.mdmt")
    check("l1missing:y/DIFFERENT\n-9.000000\n-8.000000\n-7.000000\n1000000000.000000\n-5.500000\n"
          "timeofdeletion:analysis\n" in text, f"codes of their own: {text}")
    work.run(answers=answers(ONECODE).replace("Analysis", "now"))
    check("l1missing:y/SAME\n-9.000000\ntimeofdeletion:now\nmdmname:one.mdm\n" in work.read("creatmdm.mdmt"), "one code")
    made = (work.folder / "one.mdm").read_bytes()
    work.run("-r", "creatmdm.mdmt")
    check((work.folder / "one.mdm").read_bytes() == made, "the template makes the same file")


def converting():
    """A SAS data set in the place of a transport file: the conversion is offered, and the job is told what to do."""
    program = work.write("sas", "#!/bin/sh\ncp $1 job.txt\necho made | tee visits.ssp > xyzzy.log\n")
    (work.folder / program).chmod(0o755)
    work.write("visits.ssd", "")
    path = os.environ["PATH"]
    work.environment["PATH"] = f"{work.folder}:{path}"
    for reply in ("n", "y"):
        done = work.run(answers=f"y\n3\nvisits.ssp\n{reply}\n")
        offer = "I don't see visits.ssp, but I do see visits.ssd.\nWould you like me to convert it to a transport file? "
        check(offer in done.stdout and done.returncode == 14, f"the offer to convert: {done.stdout[-300:]}")
        check((reply == "y") == ("Please keep visits.ssp around" in done.stdout), f"converted after {reply}")
        question = "level-2" if reply == "y" else "level-1"
        check(done.stdout.endswith(f"\nInput name of {question} file: " + NORESPONSE), f"the next question after {reply}")
    check(work.read("job.txt") == "libname tranfile sasv5xpt './visits.ssp';\nlibname fileout \".\";\n"
          "proc copy in=fileout out=tranfile;\nselect visits;\nrun;\n" and not list(work.folder.glob("xyzzy.*")), "the job")
    work.environment["PATH"] = path


def startingvalues():
    """The menu that repairs the starting values of tau(pi)."""
    menu = ("Do you wish to:\n   Set all off diagonal elements to 0?  Enter 1.\n"
            "   Manually reset values?               Enter 2.\n   Automatic fixup?                     Enter 3.\n"
            "   Quit?                                Enter 4.\n   Your choice =  ")
    reset = "Reset Tau(%s) to (hit return to leave unchanged) "
    command = work.edited("fix.kdr", "model2.kdr", FIXTAU2="5")
    plain = work.run("chem97.mdm", "model2.kdr").returncode
    deviance = [line for line in work.read("model2.txt").splitlines() if line.startswith(" Deviance  ")]

    def chosen(lines, code=0):
        done = work.run("chem97.mdm", command, answers="".join(line + "\n" for line in lines))
        check(done.returncode == code, f"menu, {lines}: code {done.returncode}\n{done.stdout[-400:]}")
        return done.stdout

    shown = chosen(["1"])
    matrix = r"\n Tau\(pi\)\(0\)\n INTRCPT1  +[0-9.]+ +[0-9.]+ \n  GCSECNT  +[0-9.]+ +[0-9.]+ \n\n"
    check(plain == 0 and re.search(matrix + re.escape(menu), shown), f"the matrix and the menu\n{shown}")
    for lines in (["1"], ["0", "5", "3"], ["2", "2.0", "0.1", "1.0", "n", "n"]):
        chosen(lines)
        again = [line for line in work.read("model2.txt").splitlines() if line.startswith(" Deviance  ")]
        near = abs(float(again[0].split("=")[1]) - float(deviance[0].split("=")[1]))
        check(near < 0.05, f"menu, {lines}: the same maximum within {near}")
    shown = chosen(["2", "x", "2.0", "", "-1", "3"])  # a bad number; left alone; not usable: the menu again
    check(shown.count(menu) == 2 and shown.count(reset % "0,0") == 2 and shown.count(reset % "1,0") == 1, f"resetting\n{shown}")
    check("The current value of Tau(1,1) is " in shown, "current values")
    shown = chosen(["2", "2.0", "0.1", "1.0", "y", "5.8", *[""] * 5, "y", "9.5"])
    check(shown.count("Reset gamma to (hit return to leave unchanged) ") == 6 and
          "New sigma(0)_squared = 9.500000\n" in shown, shown)
    check("    For  LEAGCSE\n" not in shown and " For " in shown and "Sigma(0)_squared = " in shown, f"gammas by name\n{shown}")
    check(chosen(["0"] * 10, 100).endswith(menu * 10 + IMPROPER) and chosen([], 100).endswith(menu * 10 + IMPROPER),
          "the menu's tries")
    chosen(["4"], 100)
    check("fixtau set to 4, so no correction to tau made. Unable to continue." in work.read("model2.txt"), "the choice to quit")


def otherpackages():
    """Stata files, and files with a type word: the file made by questions is the one that the template makes."""
    folder = ROOT / "tests" / "construct" / "files"
    asked = "\nEnter Stat/Transfer filename for level-%d or hit enter to be prompted:"
    # Name of the files, type word, answers at each level: the IDs and the variables.
    cases = (
        ("foreign10-%d.dta", "", (["1", "2", "3", "6"], ["1", "2", "3"], ["1", "2"])),
        ("sample%d.csv", " /delim", (["1", "2", "8", "5"], ["1", "2", "5"], ["1", "3"])),
        ("sample%d.csv", "/DELIM", (["3", "4", "5"], ["3", "4", "6"], ["2", "4"])),
        ("sample%d.sav", " /spss", (["3", "4", "5"], ["3", "4", "6"], ["2", "4"])),  # an ID of 12 characters
        ("sample%d.dta", " /stata/se", (["3", "4", "5"], ["3", "4", "6"], ["2", "4"])),
    )
    good = [str(folder / f"sample{level}.csv /delim") for level in (1, 2, 3)]
    tried = work.run(answers="\n".join(["y", "6", *good]) + "\n")
    without = "This KDR3 was built without the libraries for raw data of type OTHER.\n" in tried.stdout
    check(without == (" The available level-1 variables are:\n" not in tried.stdout), tried.stdout[-300:])
    for name, word, choices in cases[:1] if without else cases:
        files = [f"{folder / (name % level)}{word}" for level in (1, 2, 3)]
        picked = [number for choice in choices for number in [*choice, "0"]]
        done = work.run(answers="\n".join(["y", "6" if word else "5", *files, *picked, "y", "a", "made.mdm"]) + "\n")
        check(done.returncode == 0, f"{name}{word}: code {done.returncode}\n{done.stdout[-600:]}")
        if done.returncode != 0:
            continue
        for level in (1, 2, 3):
            question = asked % level if word else f"\nInput name of level-{level} file: "
            check(question in done.stdout, f"{name}{word}: the question at level {level}")
        made = (work.folder / "made.mdm").read_bytes()
        template = work.read("creatmdm.mdmt")
        check(f"l1fname:{folder / (name % 1)}{word.replace('/D', ' /D')}\n" in template, f"the template\n{template}")
        (work.folder / "made.mdm").unlink()
        check(work.run("-r", work.write("again.mdmt", template)).returncode == 0, f"{name}{word}: the template")
        check((work.folder / "made.mdm").read_bytes() == made, f"{name}{word}: the file from the template")
    if without:
        return
    windows = "There are no windows here to choose from. Enter the name, a slash and the type of the file.\n"
    long = "x" * 300
    typed = "\nMust specify Stat/Transfer file type!\n"
    for replies, words, code in (
        ([""] * 3, (asked % 1 + windows) * 3, 14),
        ([long], asked % 1 + f"File name too long: {long}\n" + asked % 1, 14),
        (["none"], asked % 1 + typed, 100),
        ([*good[:2], "none.csv /"], asked % 3 + typed, 100),
        ([*good[:2], "none.csv /csv"], asked % 3 + "\nIncorrect Stat/Transfer file type!\n", 100),
        ([*good[:2], "none.csv /delim"], asked % 3 + "\nnone.csv does not exist!\n", 100),
        ([good[0], ". /delim"] + good[2:], "\n. cannot be opened for reading!\n", 100),
    ):
        done = work.run(answers="\n".join(["y", "6", *replies]) + "\n")
        check(done.returncode == code and words in done.stdout, f"{replies}: {done.returncode} {done.stdout[-600:]}")
    # Names that are alike in 8 characters are shown whole, and one of them only can be chosen.
    work.write("alike.csv", "mathscore1,id2,mathscore2,mathscore3,intrcpt1\n1,1,2,3,4\n")
    done = work.run(answers="\n".join(["y", "6", "alike.csv /delim", *good[1:], "1", "2", "3", "4", "5", "0"]) + "\n")
    for words in (" For mathscore1 enter  1 ", "(enter 0 to end): INTRCPT1 is the name of an intercept!\n",
                  "(enter 0 to end): You have already chosen a variable MATHSCOR: names count by their first 8 characters!\n"):
        check(words in done.stdout, f"names alike\n{done.stdout[-900:]}")


for part in (sessions, choosing, otherpackages, keys, badanswers, missing, converting, startingvalues):
    part()
check.finish()
