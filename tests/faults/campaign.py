#!/usr/bin/python3
"""The program while calls of the system fail: campaign.py PROGRAM INJECTOR [STEP]

Small constructions, two small runs with every output on and the last run of a series, again and again, each time with
another call that fails (groups and calls: injector.cpp). Of every group each STEP-th call fails in turn; 1, the default,
is the whole campaign.
After each: no signal, no hang; no temporary file; every result file is as it was before or as the undisturbed job
leaves it; the exit code is 0 only when all outputs are. Optimised build only: the sanitizers bring an allocator of
their own, which does not go together with a library that takes its place.
"""
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "endtoend"))
from program import fixedtext, rawtemplate

OLD = b'{\n "format": "kdr3 results", what stood here before\n'  # only results give way to results
GROUPS = ("open", "write", "cut", "read", "close", "rename", "map", "memory")

LINEAR = """NONLIN:N
LEVEL1:Y=INTRCPT1+X,2+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+W,2+RANDOM/
LEVEL3:INTRCPT2=INTRCPT3+Z,2+RANDOM/
LEVEL3:W=INTRCPT3/
LEVEL2:X=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL1DELETION:NONE
RESFILTYPE:FREEFORMAT
RESFIL1:Y/X/W/Z
RESFIL1NAME:r1.dat
RESFIL2:Y/W/Z
RESFIL2NAME:r2.dat
RESFIL3:Y/Z
RESFIL3NAME:r3.dat
PRINTVARIANCE-COVARIANCE:Y
GRAPHGAMMAS:graph.dat
RESULTS:results.json
STARTVALS:start.val
NUMIT:20,N
STOPVAL:0.01
CONSTRAIN:N
HYPOTH:N
LVR-BETA:N
TITLE:Small study
FULLOUTPUT:Y
OUTPUT:report.txt
"""
LAPLACE = (LINEAR.replace("NONLIN:N\n", "NONLIN:BERNOULLI\nLAPLACE:y,2\nMACROIT:2,N\nMICROIT:3\n")
           .replace("LEVEL1:Y=", "LEVEL1:B=").replace("NUMIT:20,N\nSTOPVAL:0.01\n", "").replace("STARTVALS:start.val\n", ""))
SERIES = ("".join(line + "\n" for line in LINEAR.splitlines() if not line.startswith(("RESFIL", "GRAPH", "STARTVALS", "PRINTV")))
          .replace("OUTPUT:report.txt", "OUTPUT:series.txt") + "RESFIL1:N\nRESFIL2:N\nRESFIL3:N\n")

RESULTS = ["newcmd.kdr", "r1.dat", "r2.dat", "r3.dat", "graph.dat", "results.json", "tauvc.dat", "gamvc.dat", "gamvcr.dat"]
JOBS = {
    "construction": (["-r", "small.mdmt"], ["small.mdm", "creatmdm.mdmt", "KDR3MDM.STS"], []),
    "linear run": (["small.mdm", "linear.kdr"], RESULTS + ["start.val"], ["report.txt"]),
    "Laplace run": (["small.mdm", "laplace.kdr"], RESULTS[:-2] + ["gamvcus.dat", "gamvcpar.dat"],
                    ["report.txt", "gamvcpa.dat"]),  # that file is written by two stages, whole by each
    "first of a series": (["-mi0", "small.mdm", "series.kdr"], ["newcmd.kdr"], ["series.1", "series.avg", "mixyzzy.dat"]),
    "last of a series": (["-mi1", "-e", "small.mdm", "series.kdr"], ["newcmd.kdr"], ["series.2", "series.avg"]),
}


FILES = pathlib.Path(__file__).resolve().parents[1] / "construct" / "files"  # sample<level>: one study in many formats
# The libraries for these formats are a choice of the build.
LIBRARIES = {"sav, xlsx, dbf": ("sav /spss", "xlsx /excel", "dbf /xbase"), "dta, xpt, xls": ("dta /stata", "xpt /sasx", "xls /excel")}
for job, types in LIBRARIES.items():
    JOBS[job] = (["-r", job[:3] + ".mdmt"], [job[:3] + ".mdm", "creatmdm.mdmt", "KDR3MDM.STS"], [])


def makestudy(folder):
    draw = random.Random(5)
    rows = [[], [], []]
    for k in range(6):
        vk = draw.gauss(0, 0.5)
        rows[2].append((k, draw.gauss(0, 1)))
        for j in range(4):
            uj = draw.gauss(0, 0.7)
            rows[1].append((k, 10 * k + j, draw.gauss(0, 1)))
            for _ in range(8):
                x = draw.gauss(0, 1)
                y = 1 + 0.5 * x + uj + vk + draw.gauss(0, 1)
                rows[0].append((k, 10 * k + j, y, x, y > 1))
    fixedtext(folder, rows, "%8.3f", (["Y", "X", "B"], ["W"], ["Z"]), "small.mdm")
    (folder / "linear.kdr").write_text(LINEAR)
    (folder / "laplace.kdr").write_text(LAPLACE)
    (folder / "series.kdr").write_text(SERIES)
    for job, types in LIBRARIES.items():
        (folder / (job[:3] + ".mdmt")).write_text(rawtemplate(
            "other", [f"sample{level}.{type}" for level, type in enumerate(types, 1)], ("LEA", "SCHOOL"),
            (["SCORE", "AGE"], ["SCHSIZE"], ["LEANSCH"]), job[:3] + ".mdm"))
        for level, type in enumerate(types):
            shutil.copy(FILES / f"sample{level + 1}.{type.split()[0]}", folder)


def masked(data):
    """Without the lines that tell the time."""
    return re.sub(rb"(?m)^ *(Date|Time):.*$", b"", data)


STORE, AVERAGES = "mixyzzy.dat", "series.avg"


class Job:
    """One of JOBS in its folder; its undisturbed outcome is what every other one is held against."""

    def __init__(self, program, injector, holder, name):
        self.name = name
        self.words, self.results, self.growing = JOBS[name]
        self.program, self.folder = program, holder / "work"
        self.scratch, self.counts = holder / "scratch", holder / "counts"
        self.before = {name: OLD for name in self.results + self.growing}
        if name == "last of a series":
            subprocess.run([program, "-q", "-mi0", *self.words[2:]], cwd=self.folder, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, check=True)
            for kept in (STORE, AVERAGES):
                self.before[kept] = (self.folder / kept).read_bytes()
            del self.before["series.2"]  # another would be left alone, under its number
        if name == "first of a series":
            del self.before[STORE]  # what is no store there is refused
        self.environment = {"PATH": os.environ["PATH"], "TMPDIR": str(self.scratch)}
        if injector:
            self.environment["LD_PRELOAD"] = injector

    def prepare(self):
        """Outputs of old, where a job is to write its own."""
        for name in self.results + self.growing:
            (self.folder / name).unlink(missing_ok=True)
        for name, bytes in self.before.items():
            (self.folder / name).write_bytes(bytes)
        if "start.val" in self.results:  # is read where it stands: without it the run makes one
            (self.folder / "start.val").unlink()

    def run(self, fault=None, prepared=False, **limits):
        """One run over outputs of old: exit code, standard output, what the outputs hold."""
        if not prepared:
            self.prepare()
        extra = {"KDR3_FAULT": fault} if fault else {"KDR3_COUNTS": str(self.counts)}
        done = subprocess.run([self.program, "-q", *self.words], cwd=self.folder, stdin=subprocess.DEVNULL,
                              capture_output=True, env={**self.environment, **extra}, timeout=60, **limits)
        return done.returncode, masked(done.stdout), self.held()

    def held(self):
        held = {}
        for name in self.results + self.growing:
            path = self.folder / name
            held[name] = masked(path.read_bytes()) if path.exists() else None
        return held

    def whole(self):
        """The undisturbed job; the calls of each group, where an injector counts them."""
        self.code, self.told, self.undisturbed = self.run()
        assert self.code == 0, f"{self.name}: the undisturbed job ends with {self.code}\n{self.told.decode()}"
        unwritten = [name for name, bytes in self.undisturbed.items() if bytes in (OLD, None)]
        assert not unwritten, f"{self.name}: the undisturbed job does not write {unwritten}"
        if "LD_PRELOAD" in self.environment:
            return {group: int(n) for group, n in (line.split() for line in self.counts.read_text().splitlines())}

    def faulty(self, fault="", **limits):
        """What is wrong after the job with one fault, or under other limits."""
        try:
            code, told, held = self.run(fault, **limits)
        except subprocess.TimeoutExpired:
            return ["hangs"]
        wrong = []
        if code < 0:
            wrong.append(f"signal {-code}")
        left = os.listdir(self.scratch) + [name for name in os.listdir(self.folder) if ".part" in name]
        if left:
            wrong.append(f"leaves {left}")
            for name in left:
                for place in (self.scratch, self.folder):
                    (place / name).unlink(missing_ok=True)
        wrong += self.broken(held, code)
        if STORE in self.before and not (self.folder / STORE).exists():
            # Without the last data set the averages are others, but the report is whole.
            averages = held[AVERAGES] or b""
            head, last = masked(self.before[AVERAGES]), self.undisturbed[AVERAGES].splitlines()[-1]
            if not averages.startswith(head) or averages.splitlines()[-1] != last:
                wrong.append(f"the store has gone before the averages stand (code {code})")
        if fault.startswith("read") and code != 0 and b"Unable to" not in told:
            wrong.append(f"words of something else: {told[-80:]}")
        if code == 0:
            wrong += [f"code 0 with another {name}" for name in held if held[name] != self.undisturbed[name]]
            if told != self.told:
                wrong.append("code 0 with other words")
        return wrong

    def broken(self, held, code):
        """Results that are neither as they were nor as the undisturbed job leaves them."""
        before = {name: None if name == "start.val" else OLD for name in self.results}
        stopped = lambda name: code == 100 and name == "KDR3MDM.STS" and held[name].endswith(b"No MDM file was made.\n")
        return [f"{name} is neither old nor whole (code {code})" for name in self.results
                if held[name] not in (before[name], self.undisturbed[name]) and not stopped(name)]


def main():
    program, injector = (str(pathlib.Path(word).resolve()) for word in sys.argv[1:3])
    step = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    tried, failed = 0, 0
    with tempfile.TemporaryDirectory() as name:
        holder = pathlib.Path(name)
        for folder in ("work", "scratch"):
            (holder / folder).mkdir()
        makestudy(holder / "work")
        for name in JOBS:
            job = Job(program, injector, holder, name)
            if name in LIBRARIES and b"without the libraries" in job.run()[1]:
                continue
            calls = job.whole()
            print(f"{name}: {calls}", flush=True)
            if name == "construction":
                study = (holder / "work" / "small.mdm").read_bytes()
            # The libraries only read: what writes is the same for all constructions.
            for group in ("open", "read", "map", "memory") if name in LIBRARIES else GROUPS:
                # A disk may fail once, or go away; it may be full for a moment only.
                marks = {"read": ("", "+"), "write": ("", "-")}.get(group, ("",))
                for fault in [f"{group}:{n}{mark}" for n in range(1, calls[group] + 1, step) for mark in marks]:
                    wrong = job.faulty(fault)
                    tried += 1
                    failed += bool(wrong)
                    if wrong and failed <= 40:
                        print(f"{name}, {fault}: {'; '.join(wrong)}", flush=True)
            if name == "construction":
                (holder / "work" / "small.mdm").write_bytes(study)
    print(f"{tried} faults, {failed} of them with a finding")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
