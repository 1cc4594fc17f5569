"""The whole bench: usage python3 bench/run.py build/kdr3 [--large]

Prints tables of whole runs (beside R's lmer where R has lme4), of MDM construction from text (beside R's readers that do
no more than read it), of residual files, of convergence, and, where they were built (-DKDR3_BENCH=ON), of the data pass
and of the iterations per level-2 unit. Seconds are of whole processes, the median of five runs after one to warm up; MB
is the peak memory that the system accounts to the process. With --large the study of ten million records is added.
"""
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).parent
STUDIES = [  # level-3 units, level-2 units in each, records in each, random effects
    (5, 4, 3, "intercept"),
    (200, 50, 20, "slope"),
    (500, 100, 20, "slope"),
    (1000, 100, 20, "slope"),
    (500, 200, 20, "slope"),
    (500, 100, 40, "slope"),
    (1, 50000, 20, "slope2"),
    (1000, 1000, 10, "intercept"),
]
MICRO = [("datapass_bench", "ns/record"), ("engine_bench", "ns/unit")]


def commandfile(out, effects, extra="RESFIL1:N\nRESFIL2:N\nRESFIL3:N\n", stopval="STOPVAL:0.0000010000\n"):
    slope = "+RANDOM" if effects.startswith("slope") else ""
    level3 = "" if effects == "slope2" else slope
    return f"""NUMIT:3000,N
{stopval}NONLIN:n
LEVEL1:Y=INTRCPT1+X+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2{slope}/
LEVEL3:INTRCPT2=INTRCPT3{level3}/
LEVEL1DELETION:NONE
{extra}HYPOTH:n
CONSTRAIN:N
LVR-BETA:N
OUTPUT:{out}.txt
TITLE:benchmark
"""


def simulate(out, *words):
    subprocess.run(["/usr/bin/python3", HERE / "simulate.py", out, *map(str, words)], check=True)


def timed(command, cwd):
    """Seconds and peak bytes of one process, which are at least those of this one: it must stay small."""
    start = time.perf_counter()
    child = subprocess.Popen(command, cwd=cwd, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    seconds = time.perf_counter() - start
    if os.waitstatus_to_exitcode(status) != 0:
        raise SystemExit(f"{command} failed")
    return seconds, usage.ru_maxrss * 1024


def median(command, cwd):
    timed(command, cwd)
    runs = [timed(command, cwd) for _ in range(5)]
    return statistics.median(run[0] for run in runs), max(run[1] for run in runs)


def rscript(script, *arguments):
    """The words that an R script prints, or none where R or a package of its is missing."""
    if shutil.which("Rscript") is None:
        return []
    done = subprocess.run(["Rscript", HERE / script, *arguments], capture_output=True, text=True)
    return done.stdout.split() if done.returncode == 0 else []


def table(title, *columns):
    print(f"\n{title}")
    row(*columns)


def row(*cells):
    print("  " + "".join(f"{cell:>12}" for cell in cells), flush=True)


def wholeruns(program, large):
    table("Whole runs", "level 3", "level 2", "records", "random", "seconds", "MB", "lmer", "ratio")
    for n3, per3, per2, effects in STUDIES:
        n1 = n3 * per3 * per2
        if n1 > 5_000_000 and not large:
            continue
        with tempfile.TemporaryDirectory() as folder:
            out = os.path.join(folder, "study")
            simulate(out, n3, per3, per2, effects)
            pathlib.Path(out + ".kdr").write_text(commandfile(out, effects))
            seconds, memory = median([program, "-q", out + ".mdm", out + ".kdr"], folder)
            other = rscript("lmer.R", out, effects)[:1] if n3 > 1 and n1 <= 1_000_000 else []
            row(n3, n3 * per3, n1, effects, f"{seconds:.3f}", f"{memory / 1e6:.0f}", *other,
                *(f"{float(word) / seconds:.0f}" for word in other))


def construction(program):
    table("MDM construction from fixed-format text", "records", "MB", "seconds", "MB/s", "peak MB", "read_fwf", "fread")
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "study")
        simulate(out, 500, 100, 20, "slope", "text")
        size = sum(os.path.getsize(f"{out}-{level}.dat") for level in (1, 2, 3)) / 1e6
        seconds, memory = median([program, "-q", "-r", out + ".mdmt"], folder)
        row(1_000_000, f"{size:.0f}", f"{seconds:.3f}", f"{size / seconds:.0f}", f"{memory / 1e6:.0f}",
            *rscript("readtext.R", out + "-1.dat"))


def residualfiles(program):
    table("Three residual files of 1,000,000 records", "form", "seconds", "of it files", "MB", "MB/s")
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "study")
        simulate(out, 500, 100, 20, "slope")
        names = [os.path.join(folder, "residuals%d" % level) for level in (1, 2, 3)]
        command = [program, "-q", out + ".mdm", out + ".kdr"]
        pathlib.Path(out + ".kdr").write_text(commandfile(out, "slope"))
        plain, _ = median(command, folder)
        row("none", f"{plain:.3f}")
        for form in ("FREEFORMAT", "SYSTAT", "SAS", "SPSS", "STATA"):
            extra = f"RESFILTYPE:{form}\n" + "".join(
                f"RESFIL{level}:Y\nRESFIL{level}NAME:{name}\n" for level, name in enumerate(names, 1))
            pathlib.Path(out + ".kdr").write_text(commandfile(out, "slope", extra))
            seconds, _ = median(command, folder)
            size = sum(os.path.getsize(name) for name in names) / 1e6
            row(form, f"{seconds:.3f}", f"{seconds - plain:.3f}", f"{size:.0f}", f"{size / (seconds - plain):.0f}")


def reached(command, cwd, report):
    """Iterations of a run and the last deviance of its report."""
    words = subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=True).stdout
    iterations = words.count("at iteration")
    deviance = [line.split("=")[1] for line in pathlib.Path(report).read_text().splitlines() if "Deviance" in line]
    return iterations, float(deviance[-1])


def convergence(program):
    """Iterations to the default stopping value and how far the deviance then is above the least one known: that of
    a run to 1e-10 or of lmer, which also looks at the edge of the parameter space."""
    table("Convergence to the default stopping value", "study", "iterations", "deviance", "to 1e-10", "deviance", "lmer",
          "too high by")
    with tempfile.TemporaryDirectory() as folder:
        for study in range(1, 11):
            out = os.path.join(folder, "study")
            scale = 0.45 if study <= 5 else 0.2  # level-3 variances of 2% and of 0.4% of the whole
            simulate(out, 40, 8, 6, "slope", f"scale={scale}", f"seed={study}")
            found = []
            for stopval in ("", "STOPVAL:0.0000000001\n"):
                pathlib.Path(out + ".kdr").write_text(commandfile(out, "slope", stopval=stopval))
                found += reached([program, out + ".mdm", out + ".kdr"], folder, out + ".txt")
            lmer = rscript("lmer.R", out, "slope")[1:2]
            least = min([found[3], *map(float, lmer)])
            row(study, found[0], f"{found[1]:.4f}", found[2], f"{found[3]:.4f}", *lmer or "-", f"{found[1] - least:.4f}")
        example = HERE.parent / "examples" / "chem97"
        subprocess.run([program, "-q", "-r", example / "chem97.mdmt"], cwd=shutil.copytree(example, folder + "/chem97"),
                       check=True, stdout=subprocess.DEVNULL)
        for model in (1, 2):
            commands = pathlib.Path(f"{folder}/chem97/model{model}.kdr")
            given = commands.read_text()
            found = []
            for stopval in ("", "STOPVAL:0.0000000001\n"):
                commands.write_text(stopval + given.replace("NUMIT:500", "NUMIT:3000"))
                found += reached([program, "chem97.mdm", commands.name], folder + "/chem97",
                                 f"{folder}/chem97/model{model}.txt")
            row(f"Chem97 {model}", found[0], f"{found[1]:.4f}", found[2], f"{found[3]:.4f}", "-",
                f"{found[1] - found[3]:.4f}")


def micro(folder):
    for name, counter in MICRO:
        if not (folder / name).exists():
            continue
        done = subprocess.run([folder / name, "--benchmark_format=json"], capture_output=True, text=True, check=True)
        table(name, "", counter, "madds")
        for measured in json.loads(done.stdout)["benchmarks"]:
            value = measured.get(counter, measured.get("ns/madd"))
            row(measured["name"], f"{value:.2f}", f"{measured.get('madds/unit', 1):.1f}")


def main():
    program = str(pathlib.Path(sys.argv[1]).resolve())
    wholeruns(program, "--large" in sys.argv)
    construction(program)
    residualfiles(program)
    convergence(program)
    micro(pathlib.Path(program).parent)


main()
