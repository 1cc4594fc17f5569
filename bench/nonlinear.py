"""Non-linear whole runs: usage python3 bench/nonlinear.py build/kdr3 [--ordinal] [--large] [--threads N]

Bernoulli records in level-2 units in level-3 units, two random intercepts (or with a slope too), from the MDM file to
the report: penalised quasi-likelihood with the population-average pass, and the same with Laplace-6 or quadrature
behind it. With --ordinal the records have four categories. Seconds and peak memory of the whole process, the median of three runs after one to warm up. With --large the
study of ten million records is added (one run, quasi-likelihood and quadrature).
"""
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).parent


def commandfile(slope, extra, ordinal):
    random = "+RANDOM" if slope else ""
    return f"""NONLIN:{'ORDINAL,4' if ordinal else 'BERNOULLI'}
MACROIT:100,N
MICROIT:100
FIXSIGMA2:1.0
LEVEL1:Y=INTRCPT1+X{'+THOLD2+THOLD3' if ordinal else ''}+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL2:X=INTRCPT2{random}/
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL1DELETION:NONE
FULLOUTPUT:N
RESFIL1:N
RESFIL2:N
RESFIL3:N
HYPOTH:N
CONSTRAIN:N
LVR-BETA:N
TITLE:benchmark
OUTPUT:run.txt
{extra}"""


def timed(program, folder):
    start = time.perf_counter()
    process = subprocess.Popen([program, "-q", "study.mdm", "run.kdr"], cwd=folder, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    output = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    assert status == 0, output[-500:]
    return time.perf_counter() - start, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024, output


def main():
    program = str(pathlib.Path(sys.argv[1]).resolve())
    ordinal = "--ordinal" in sys.argv
    studies = [((200, 50, 10), False, [("PQL", ""), ("Laplace-6", "LAPLACE:Y,50\n"), ("AGQ, 1 point", "AGQ:Y,50,1\n"), ("AGQ, 5 points", "AGQ:Y,50,5\n"), ("AGQ, 7 points", "AGQ:Y,50,7\n")], 3),
               ((200, 50, 10), True, [("PQL", ""), ("AGQ, 1 point", "AGQ:Y,50,1\n"), ("AGQ, 5 points", "AGQ:Y,50,5\n"), ("AGQ, 7 points", "AGQ:Y,50,7\n")], 3)]
    if "--large" in sys.argv:
        studies.append(((1000, 1000, 10), False, [("PQL", ""), ("AGQ, 5 points", "AGQ:Y,50,5\n")], 1))
    print("| records | level 2 | level 3 | slope | engine | seconds | CPU s | MB | macro iterations |")
    print("|---|---|---|---|---|---|---|---|---|")
    for sizes, slope, engines, repeats in studies:
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["/usr/bin/python3", HERE / "simulate.py", f"{folder}/study", *map(str, sizes),
                            "slope" if slope else "intercept", "ordinal" if ordinal else "bernoulli"], check=True)
            for name, extra in engines:
                if ordinal and name == "Laplace-6":
                    continue
                pathlib.Path(folder, "run.kdr").write_text(commandfile(slope, extra, ordinal))
                runs = [timed(program, folder) for _ in range(repeats + (repeats > 1))][repeats > 1:]
                seconds, cpu, memory = (statistics.median(run[i] for run in runs) for i in range(3))
                macro = runs[0][3].count("MACRO ITERATION")
                print(f"| {sizes[0] * sizes[1] * sizes[2]:,} | {sizes[0] * sizes[1]:,} | {sizes[0]:,} | "
                      f"{'yes' if slope else 'no'} | {name} | {seconds:.2f} | {cpu:.2f} | {memory:.0f} | {macro} |", flush=True)


if __name__ == "__main__":
    main()
