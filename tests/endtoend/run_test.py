"""Whole runs: options, every kind of end, files written back, the interrupt key."""
import os
import resource
import signal
import subprocess
import sys
import time

from program import NOFEATURES, NOFILES, Checks, Workplace, body

check = Checks()
work = Workplace(sys.argv[1])


def ends(done, code, words, what):
    check(done.returncode == code, f"{what}: code {done.returncode}, not {code}")
    check(words in done.stdout, f"{what}: {words!r} not in {done.stdout[-300:]!r}")


def options():
    ends(work.run("-r"), 100, "option requires an argument -- r\nusage: ", "missing argument")
    ends(work.run("-e"), 100, "There is no result store mixyzzy.dat in this folder: a series begins with -mi0.\n", "-e alone, without a series")
    ends(work.run("-r", "none.rsp"), 100, "Unable to open none.rsp\n", "no response file")
    ends(work.run("-v", answers="n\n"), 14, "KDR3 version 7.01\n\n\nWill you be starting with raw data? \n", "-v alone")
    ends(work.run("none.mdm", "x.kdr"), 14, "mdm file none.mdm does not exist.\n Enter new file name: ", "no mdm file")
    ends(work.run(answers="maybe\n" * 10), 100, "Unable to get a proper response!\n\n", "ten bad answers")
    done = work.run(answers="maybe\n" * 9 + "n\n\nnone\n")
    ends(done, 14, "\nEnter name of MDM file:  none does not exist.\nEnter name of MDM file: ", "asked for the mdm file")
    check(done.stdout.count("Enter name of MDM file") == 10, "ten tries for the mdm file")
    # Without -q the end waits for a whole second of the clock to begin.
    start = time.time()
    subprocess.run([work.program, "-nowait", "-z"], stdout=subprocess.DEVNULL, cwd=work.folder)
    check(int(time.time()) > int(start), "-nowait ends at the next second")


def construction():
    ends(work.run("-r", "chem97.mdmt"), 0, "  31022 level-1 records have been processed\n", "construction")
    first = (work.folder / "chem97.mdm").read_bytes()
    work.run("-r", "creatmdm.mdmt")
    check((work.folder / "chem97.mdm").read_bytes() == first, "the template written back makes the same file")
    work.run("-r", "chem97.mdmt", "other.mdm")
    check((work.folder / "other.mdm").exists(), "a positional word names the mdm file")
    text = work.read("chem97-1.dat")
    work.write("chem97-1.dat", text.replace("\n", "\r\n"))
    work.run("-r", "chem97.mdmt")
    check((work.folder / "chem97.mdm").read_bytes() == first, "CRLF text makes the same file")
    work.write("chem97-1.dat", text)


def limitfilesize():
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (200_000, 200_000))


def fulldisk():
    ends(work.run("-r", "chem97.mdmt", "full.mdm", preexec_fn=limitfilesize), 5, " Unable to write. Full disk?\n", "full disk")
    check(not list(work.folder.glob("full.mdm*")), "a full disk leaves no mdm file")


def models():
    ends(work.run("chem97.mdm", "model2.kdr"), 0, "Starting values computed.  Iterations begun.\n", "model 2")
    report = work.read("model2.txt")
    work.run("chem97.mdm", "newcmd.kdr")
    check(body(work.read("model2.txt")) == body(report), "newcmd.kdr repeats the run")
    work.run("-i", "chem97.mdm", "model2.kdr")
    check(body(work.read("model2.txt")) == body(report), "-i changes no digit")
    done = work.run("chem97.mdm", work.edited("stdout.kdr", "model2.kdr", OUTPUT="STDOUT"))
    check("Statistics for the current model" in done.stdout and "Computing" not in done.stdout, "report to standard output")


def startingvalues():
    """Odd starting values lead to the same estimates; the file of one run starts the next one at its end."""
    odd = "#SIGMA2\n20\n#TAUPI\n 0.1\n 0.05 3.0\n#TAUBETA\n 2.5\n#GAMMA\n" + "0\n" * 6
    work.write("start.val", odd)
    command = work.edited("start.kdr", "model2.kdr", STARTVALS="start.val", STOPVAL="0.0000000001", NUMIT="5000,N")
    work.run("chem97.mdm", command)
    deviance = [line for line in work.read("model2.txt").splitlines() if line.startswith(" Deviance  ")][0]
    check(abs(float(deviance.split("=")[1]) - 140556.15748) < 0.001, f"odd starting values: {deviance}")
    check("STARTING VALUES" in work.read("model2.txt"), "the starting values are shown")
    work.run("chem97.mdm", command)
    iterations = [line for line in work.read("model2.txt").splitlines() if "ITERATION" in line][0]
    check(int(iterations.split()[2]) <= 6, f"a second run starts at the end of the first: {iterations}")
    files = {
        "20\n": "sigma2 value must be preceded with a line #SIGMA2\n",
        odd.replace("#TAUPI", "#TAU"): "Tau(pi) values must be preceded with a line #TAUPI\n",
        odd.replace("#TAUBETA", "#T"): "Tau(beta) values must be preceded with a line #TAUBETA\n",
        odd.replace("#GAMMA", "#"): "gamma values must be preceded with a line #GAMMA\n",
        odd[:-2]: "There should be 6 lines after the #GAMMA line.\n",
        odd[:-1]: "There should be 6 lines after the #GAMMA line.\n",
        odd.replace("20", "-20"): "sigma^2 cannot be negative\n",
        odd.replace("20", "20,5"): "there should be 1 number, with a point for decimals, on the line: 20,5\n",
        odd.replace(" 0.05 3.0", " 0.05"): "there should be 2 numbers, with a point for decimals, on the line:  0.05\n",
        odd.replace("2.5", "nan"): "on the line:  nan\n",
        odd[:-2] + "0x1\n": "on the line: 0x1\n",
    }
    for text, words in files.items():
        work.write("start.val", text)
        ends(work.run("chem97.mdm", command), 100, words, "starting-value file")
    work.write("start.val", odd.replace("#sigma2", "#Sigma2 of an earlier run").replace(" 0.1", " 0.1 9 9"))
    more = "has more values than the model"
    done = work.run("chem97.mdm", command)
    check(done.returncode == 0 and more in done.stdout and f"{more}." in " ".join(work.read("model2.txt").split()),
          "values behind a row are ignored, and told")
    work.write("start.val", odd + "0\n")
    ends(work.run("-strict", "chem97.mdm", command), 100, more, "starting values of a larger model")


def failures():
    def model(name, level1, others, **keywords):
        lines = ["NONLIN:N", level1, *others, "NUMIT:100,N", "TITLE:t", f"OUTPUT:{name}.txt"]
        work.write(name + ".kdr", "\n".join(lines) + "\n" + NOFILES + NOFEATURES)
        return work.edited(name + ".kdr", name + ".kdr", **keywords)

    plain = ["LEVEL2:INTRCPT1=INTRCPT2+RANDOM/", "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/"]
    done = work.run("chem97.mdm", model("f2", "LEVEL1:SCORE=INTRCPT1+RANDOM", [
        "LEVEL2:INTRCPT1=INTRCPT2/", "LEVEL3:INTRCPT2=INTRCPT3/"]))
    ends(done, 100, "Some variables must be specified as random.", "nothing random")
    done = work.run("chem97.mdm", model("f3", "LEVEL1:SCORE=INTRCPT1+RANDOM", plain, VARIANCEKNOWN="AGE"))
    ends(done, 100, "Variance knownWeights must be positive!", "a known variance below 0")
    done = work.run("chem97.mdm", model("f4", "LEVEL1:SCORE=INTRCPT1+RANDOM", plain, FIXTAU2="4"))
    check(done.returncode == 100 and "fixtau set to 4" in work.read("f4.txt"), "fixtau2 4 with an unusable start")
    done = work.run("chem97.mdm", model("f5", "LEVEL1:SCORE=INTRCPT1+RANDOM", plain, NUMIT="2"), answers="n\n")
    check(done.returncode == 0 and "WARNING: the iterations were stopped prior to convergence." in work.read("f5.txt"),
          "the limit with a warning")
    ends(work.run("chem97.mdm", "f5.kdr", "-strict", answers="n\n"), 20, "stopped prior to convergence.", "-strict at the limit")
    # A criterion so loose that the second iteration meets it, far from the maximum.
    work.edited("loose.kdr", "f5.kdr", STOPVAL="50", NUMIT="500,N", OUTPUT="loose.txt")
    ends(work.run("chem97.mdm", "loose.kdr", "-strict"), 20, "have not settled", "-strict with a criterion that is too loose")
    check("small change in likelihood function\nWARNING: the variance components have not settled" in work.read("loose.txt"),
          "no warning under a criterion that is too loose")
    ends(work.run("chem97.mdm", "f5.kdr", answers="y\n"), 0, "Setting number of iterations to 10000.\n\n", "going on at the limit")
    ends(work.run("chem97.mdm", "f5.kdr"), 100, "Unable to get a proper response!", "end of input at the limit")
    ends(work.run("chem97.mdm", work.edited("f7.kdr", "model1.kdr", OUTPUT="nowhere/r.txt")), 100,
         "Unable to open nowhere/r.txt for writing\n", "a report that cannot be opened")
    done = work.run("chem97.mdm", model("f8", "LEVEL1:SCORE=INTRCPT1+RANDOM", ["LEVEL2:INTRCPT1=INTRCPT2+RANDOM/", "LEVEL3:INTRCPT2=RANDOM/"]))
    ends(done, 17, "There are no fixed effects!!", "no fixed effects")
    ends(work.run("chem97.mdm", "."), 100, "Unable to open . for reading\n", "a directory for a command file")


def nothingleft():
    """Deletion leaves no record, in any kind of model."""
    work.write("empty.csv", "school,class,y,z,b,c\n" + "".join(
        f"s{i // 30},c{i // 6},{i % 7},{'' if i % 2 else i % 5},{i // 2 % 2 if i % 2 else ''},{i // 2 % 3 if i % 2 else ''}\n"
        for i in range(120)))
    check(work.run("-from", "empty.csv", "-level3", "school", "-level2", "class").returncode == 0, "empty.csv")
    set = "LEVEL1:{0}=INTRCPT1+Z{1}+RANDOM\nLEVEL2:INTRCPT1=INTRCPT2+RANDOM/\nLEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"
    for kind, outcome, more, sets in (("N", "B", "", 1), ("BERNOULLI", "B", "", 1), ("POISSON", "B", "", 1),
                                      ("ORDINAL,3", "C", "+THOLD2", 1), ("MULTINOMIAL,3", "C", "", 2)):
        limits = "NUMIT:3,N\n" if kind == "N" else "MACROIT:2,N\nMICROIT:2\n"
        work.write("empty.kdr", f"NONLIN:{kind}\n{limits}" + set.format(outcome, more) * sets + "TITLE:t\nOUTPUT:e.txt\n"
                   + NOFILES + NOFEATURES)
        done = work.run("-results", "empty.json", "empty.mdm", "empty.kdr")
        ends(done, 100, "No level-1 record is left: each lacks a value in a variable of the model.\n", kind)
        check(not (work.folder / "empty.json").exists(), f"{kind}: results of no record")


def interrupt():
    """The key during the iterations: 0 stops with results, 1 exits, and a second key asks again."""
    command = work.edited("long.kdr", "model2.kdr", FISHERTYPE="0", STOPVAL="0.0", NUMIT="10000,N", OUTPUT="long.txt")

    def started():
        child = subprocess.Popen([work.program, "-q", "chem97.mdm", command], cwd=work.folder, stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True, env=work.environment)
        for line in child.stdout:
            if "iteration 20 " in line:
                return child

    for answers, words in (("0\n", " Iterations terminated prematurely from the keyboard."), ("7\n1\n", None)):
        child = started()
        child.send_signal(signal.SIGINT)
        rest, _ = child.communicate(answers, timeout=60)
        check(child.returncode == 0, f"interrupt answered {answers!r}: code {child.returncode}")
        check("Enter 0 to stop iterating, 1 to exit now" in rest, "the question at the interrupt key")
        report = work.read("long.txt")
        check((words is None) == ("Final estimation of fixed effects" not in report), f"results after {answers!r}")
        check(words is None or words in report, "the words of a stop from the keyboard")
    child = started()
    child.terminate()
    rest, _ = child.communicate(timeout=60)
    check(child.returncode == 100 and "Program interrupted by termination request" in rest, "termination request")
    check(not list(work.scratch.iterdir()), "nothing left after a termination request")


def lostoutputs():
    """A report that cannot reach its place, a missing folder for temporary files, names that collide."""
    work.edited("stdout.kdr", "model1.kdr", OUTPUT="stdout")
    run = [work.program, "-q", "chem97.mdm", "stdout.kdr"]
    with open("/dev/full", "w") as full:
        done = subprocess.run(run, cwd=work.folder, stdout=full, stderr=subprocess.PIPE, env=work.environment, timeout=60)
    check(done.returncode == 5, f"report to a full device: code {done.returncode}")
    reader, writer = os.pipe()
    os.close(reader)  # before the start: a short report might be in the pipe before a reader can leave
    done = subprocess.run(run, cwd=work.folder, stdout=writer, stderr=subprocess.PIPE, env=work.environment, timeout=60)
    os.close(writer)
    check(done.returncode == 5 and done.stderr == b"", f"nobody reads the report: code {done.returncode}, {done.stderr}")
    work.write("kept.txt", "old report\n")
    work.edited("kept.kdr", "model1.kdr", OUTPUT="kept.txt")
    for words in (["chem97.mdm", "kept.kdr"], []):
        done = subprocess.run([work.program, "-q", *words], cwd=work.folder, capture_output=True, text=True, input="",
                              env=dict(work.environment, TMPDIR=str(work.folder / "none")), timeout=60)
        ends(done, 6, "Unable to open temp file", "no folder for temporary files")
        check("?" not in done.stdout, "and no question whose answer would be lost")
    check(work.read("kept.txt") == "old report\n", "the old report stays when there is no temporary file")
    folder = os.open(work.folder, os.O_RDONLY)  # opens, and cannot be read
    for words in (["chem97.mdm", "-"], []):
        done = subprocess.run([work.program, "-q", *words], cwd=work.folder, stdin=folder, capture_output=True, text=True,
                              timeout=60)
        ends(done, 100, "Unable to read standard input", f"{words} from what cannot be read")
    os.close(folder)
    for words in (["x" * 256 + ".mdm", "model1.kdr"], ["chem97.mdm", "/" * 300 + "model1.kdr"]):
        ends(work.run(*words), 100, "The path is too long", "a path that would be cut")

    for name in ("marked.txt", "marked.html"):
        marked = work.edited("marked.kdr", "model1.kdr", TITLE="a\x1b[31mred\x07", OUTPUT=name, **{"NO\x1b[31m": "x\x1b"})
        done = work.run("chem97.mdm", marked, answers="\n")
        check(done.returncode == 0 and not set("\x1b\x07") & set(done.stdout + work.read(name)), f"{name}: control characters")
        check("red" in work.read(name), f"{name}: the title's letters")

    (work.folder / "link.txt").symlink_to("chem97.mdm")
    (work.folder / "here").symlink_to(".")
    for name, target in (("ahead.txt", "newcmd.kdr"), ("raw.txt", "chem97-1.dat")):
        (work.folder / name).unlink(missing_ok=True)
        (work.folder / name).symlink_to(target)
    (work.folder / "newcmd.kdr").unlink(missing_ok=True)
    inputs = ("chem97.mdm", "chem97-1.dat", "chem97.mdmt")
    before = [(work.folder / name).read_bytes() for name in inputs]
    anothers = "has the name of another file of this run"
    for keywords, words in (({"OUTPUT": "same.txt", "STARTVALS": "same.txt"}, anothers),
                            ({"OUTPUT": "here/newcmd.kdr"}, anothers),
                            ({"OUTPUT": "./tauvc.dat", "PRINTVARIANCE-COVARIANCE": "Y"}, anothers),
                            ({"OUTPUT": "a.txt", "STARTVALS": "here/gamvc.dat", "PRINTVARIANCE-COVARIANCE": "Y"}, anothers),
                            ({"OUTPUT": "a.txt", "GRAPHGAMMAS": "link.txt"}, "is an input file of this run"),
                            ({"OUTPUT": "link.txt"}, "is an input file of this run"),
                            ({"OUTPUT": "ahead.txt"}, anothers),
                            ({"OUTPUT": "raw.txt"}, "holds raw data"),
                            ({"OUTPUT": "a.txt", "STARTVALS": "here/chem97-1.dat"}, "holds raw data")):
        ends(work.run("chem97.mdm", work.edited("clash.kdr", "model1.kdr", **keywords)), 100, words, str(keywords))
    (work.folder / "KDR3MDM.STS").unlink()
    (work.folder / "KDR3MDM.STS").symlink_to("chem97.mdmt")
    ends(work.run("-r", "chem97.mdmt"), 100, "is an input file of this run", "the log in the template's place")
    (work.folder / "KDR3MDM.STS").unlink()
    check([(work.folder / name).read_bytes() for name in inputs] == before, "the inputs stay as they were")
    for name in ("here/KDR3MDM.STS", "here/creatmdm.mdmt"):
        work.edited("clash.mdmt", "chem97.mdmt", mdmname=name)
        done = work.run("-r", "clash.mdmt")
        check(done.returncode == 100 and "must not" in done.stdout, f"MDM file {name}: {done.returncode} {done.stdout}")


def keptinputs():
    """Nothing that the program could read is written over, and no result's folder is missed after the estimation."""
    mdm, commands = (work.folder / "chem97.mdm").read_bytes(), (work.folder / "model2.kdr").read_bytes()
    kept = {"imp.1": mdm, "other.mdm": mdm, "mixyzzy.dat": mdm, "other.kdr": commands, "marked.kdr": b"\xef\xbb\xbf\n" + commands,
            "other.mdmt": (work.folder / "chem97.mdmt").read_bytes(), "starts.txt": b"#SIGMA2\n1\n", "x.sav": b"$FL2",
            "table.csv": b"school,pupil,y\n1,1,2\n"}
    for name, content in kept.items():
        (work.folder / name).write_bytes(content)
    for keywords, words in (({"OUTPUT": "imp.txt"}, ("-mi0",)), ({"OUTPUT": "new.txt"}, ("-mi0",)), ({"OUTPUT": "other.kdr"}, ()),
                            ({"OUTPUT": "marked.kdr"}, ()), ({"OUTPUT": "other.mdmt"}, ()), ({"OUTPUT": "starts.txt"}, ()),
                            ({"OUTPUT": "x.sav"}, ()), ({"OUTPUT": "table.csv"}, ()), ({"STARTVALS": "other.kdr"}, ()), ({"RESULTS": "other.mdm"}, ()),
                            ({"GRAPHGAMMAS": "other.mdm"}, ()), ({"RESFIL1": "Y", "RESFIL1NAME": "other.mdm"}, ()),
                            ({"RESFIL1": "Y", "RESFIL1NAME": "x.sav"}, ())):
        done = work.run(*words, "chem97.mdm", work.edited("lossy.kdr", "model1.kdr", **keywords))
        ends(done, 100, "which would be lost", f"{words} {keywords}")
    for place in ("other.kdr", "other.mdmt", "starts.txt"):
        done = work.run("-r", work.edited("lossy.mdmt", "chem97.mdmt", mdmname=place))
        ends(done, 100, "which would be lost", f"MDM file {place}")
    for name, content in kept.items():
        check((work.folder / name).read_bytes() == content, f"{name} is not what it was")
        (work.folder / name).unlink()
    for keywords in ({"RESULTS": "none/r.json"}, {"RESFIL1": "Y", "RESFIL1NAME": "none/r.sav"}, {"GRAPHGAMMAS": "none/g"}):
        done = work.run("chem97.mdm", work.edited("lossy.kdr", "model1.kdr", **keywords))
        ends(done, 100, "Unable to open none/", str(keywords))
        check("iteration" not in done.stdout, f"{keywords}: told after the estimation")


def marks():
    """What an editor puts before a text is passed over, or the file refused by its name."""
    for source, words in (("model1.kdr", ["chem97.mdm"]), ("chem97.mdmt", ["-r"])):
        text = work.read(source)
        for name, content, code in (("bom", "\ufeff" + text, 0), ("wide", text, 100)):
            for coding in ("utf-8",) if code == 0 else ("utf-16", "utf-16-le", "utf-16-be"):
                (work.folder / name).write_bytes(content.encode(coding))
                done = work.run(*words, name)
                check(done.returncode == code, f"{source} as {name} {coding}: {done.returncode} {done.stdout[-200:]}")
                check(code == 0 or "wide have two bytes each" in done.stdout, f"{source} as {coding}: {done.stdout[-200:]}")


for part in (options, construction, fulldisk, models, startingvalues, failures, nothingleft, lostoutputs, keptinputs, marks, interrupt):
    part()
check.finish()
