"""Whole runs beside lmer, as one table: usage python3 bench/run.py build/kdr3 [--lmer] [--large]

Each row is a whole process, from the MDM file to the closed report: median of five runs after one to warm up, with the peak
memory that the system accounts to the process. With --lmer the same model is fitted by R's lmer where R has lme4 (fit
only, data already in memory), and the ratio is printed. With --large the study of ten million records is added.
"""
import os
import pathlib
import resource
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


def commandfile(out, effects):
    slope = "+RANDOM" if effects.startswith("slope") else ""
    level3 = "" if effects == "slope2" else slope
    return f"""NUMIT:1000,N
STOPVAL:0.0000010000
NONLIN:n
LEVEL1:Y=INTRCPT1+X+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2{slope}/
LEVEL3:INTRCPT2=INTRCPT3{level3}/
LEVEL1DELETION:NONE
RESFIL1:N
RESFIL2:N
RESFIL3:N
HYPOTH:n
CONSTRAIN:N
LVR-BETA:N
OUTPUT:{out}.txt
TITLE:benchmark
"""


def timed(command, cwd):
    """Seconds and peak bytes of one process."""
    start = time.perf_counter()
    child = subprocess.Popen(command, cwd=cwd, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    seconds = time.perf_counter() - start
    if os.waitstatus_to_exitcode(status) != 0:
        raise SystemExit(f"{command} failed")
    return seconds, usage.ru_maxrss * 1024


def main():
    program = str(pathlib.Path(sys.argv[1]).resolve())
    lmer = "--lmer" in sys.argv and shutil.which("Rscript") is not None
    print(f"{'level 3':>8} {'level 2':>8} {'records':>9} {'random':>9} {'seconds':>8} {'MB':>6} {'lmer':>8} {'ratio':>6}")
    for n3, per3, per2, effects in STUDIES:
        if n3 * per3 * per2 > 5_000_000 and "--large" not in sys.argv:
            continue
        with tempfile.TemporaryDirectory() as folder:
            out = os.path.join(folder, "study")
            simulated = "intercept" if effects == "intercept" else "slope"
            subprocess.run(["/usr/bin/python3", HERE / "simulate.py", out, str(n3), str(per3), str(per2), simulated],
                           check=True)
            pathlib.Path(out + ".kdr").write_text(commandfile(out, effects))
            command = [program, "-q", out + ".mdm", out + ".kdr"]
            timed(command, folder)
            runs = [timed(command, folder) for _ in range(5)]
            seconds = statistics.median(run[0] for run in runs)
            memory = max(run[1] for run in runs)
            other = ratio = ""
            if lmer and n3 > 1 and n3 * per3 * per2 <= 1_000_000:
                words = subprocess.run(["Rscript", HERE / "lmer.R", out, effects], capture_output=True, text=True,
                                       check=True).stdout.split()
                other, ratio = f"{float(words[0]):.2f}", f"{float(words[0]) / seconds:.0f}"
            print(f"{n3:8} {n3 * per3:8} {n3 * per3 * per2:9} {effects:>9} {seconds:8.3f} {memory / 1e6:6.0f} "
                  f"{other:>8} {ratio:>6}", flush=True)


main()
