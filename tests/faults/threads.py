#!/usr/bin/python3
"""The engines on several threads: threads.py PROGRAM, with a program built for ThreadSanitizer

Eight fits of one made study, on one thread and on four: no race is told, and reports and documents are the same.
"""
import pathlib
import re
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "endtoend"))
from program import NOFEATURES, NOFILES, REFERENCE, madefolder, run

MODEL = """NONLIN:{kind}
MACROIT:3,N
MICROIT:5
{engine}
LEVEL1:{outcome}=INTRCPT1+X1,1+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+Z1,2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+RANDOM/
LEVEL3:Z1=INTRCPT3/
LEVEL2:X1=INTRCPT2{slope}/
LEVEL3:INTRCPT2=INTRCPT3/
TITLE:threads
OUTPUT:out.txt
""" + NOFEATURES + NOFILES
FITS = (("BERNOULLI", "YBERN", "LAPLACE:Y,5", ""), ("BERNOULLI", "YBERN", "LAPLACE:Y,5\nAGQNODES:FIXED", ""), ("BERNOULLI", "YBERN", "AGQ:Y,5,5", ""),
        ("BERNOULLI", "YBERN", "AGQ:Y,5,AUTO", "+RANDOM"), ("BERNOULLI", "YBERN", "AGQ:Y,5,1", "+RANDOM"),
        ("BERNOULLI", "YBERN", "AGQ:Y,5,5\nAGQNODES:FIXED", ""), ("BINOMIAL,NTRIAL", "YBIN", "AGQ:Y,5,3", ""),
        ("POISSON,EXPOS", "YEXP", "AGQ:Y,5,3", "+RANDOM"))


def main(program):
    failed = 0
    with tempfile.TemporaryDirectory() as top:
        folder = pathlib.Path(madefolder(program, REFERENCE / "nonlinear", "nonlin.mdmt", top))
        for kind, outcome, engine, slope in FITS:
            (folder / "fit.kdr").write_text(MODEL.format(kind=kind, outcome=outcome, engine=engine, slope=slope))
            written = []
            for threads in "14":
                code, said = run(program, folder, "-t", threads, "-results", "out.json", "nonlin.mdm", "fit.kdr")
                if code != 0 or "ThreadSanitizer" in said:
                    failed += 1
                    print(f"{kind} {engine!r}, {threads} threads: code {code}\n{said[-2000:]}")
                written.append([re.sub(r"(?m)^.*(Date:|Time:|\"started\").*$", "", (folder / name).read_text())
                                for name in ("out.txt", "out.json")])
            if written[0] != written[1]:
                failed += 1
                print(f"{kind} {engine!r}: four threads give other results than one")
    print(f"{len(FITS)} fits, {failed} failures")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(str(pathlib.Path(sys.argv[1]).resolve())))
