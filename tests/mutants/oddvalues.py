#!/usr/bin/python3
"""Every option of --help and every keyword of the guide with values that nobody means: oddvalues.py PROGRAM [PART]

Small runs of examples/growth, by -fit and by command file, of a linear and of a binary outcome; PART: options, keywords or outputs.
What must hold: no signal, no hang, an exit code of the guide's table; a refusal ends with a sentence and leaves no result, whole or
cut off, but a report that has begun, and of -fit what it tells; what was there before stays; code 0 leaves nothing empty. `outputs` gives every output a full
disk, a folder in its place, a folder that takes nothing, and one that does not exist: no such run ends with code 0.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
ODD = ["", " ", "NaN", "-nan", "1e400", "inf", "-1", "0", "1", "2", "1e-400", "0x10", "1,2", "Y", "N", "none", "1," * 3000 + "1", "7" * 400, "x" * 5000,
       "gr\u00f6\u00dfe", "\u65e5\u672c\u8a9e", "\udcff\udcfe", "%s%n%d", "a\tb", "'", "\"", ".", "/", "/dev/full", "no/such", "folder", "growth.csv",
       "SCORE", "year", "year=", "year=0,x", "year=1e400", "=", ";", "1;2", "year*", "Y,Y,Y", "Y,5,5", "--", "-", "~", "*"]
FORMULA = {"score": ["-fit", "score ~ year + ses + (year | school/pupil)"],
           "tutoring": ["-fit", "tutoring ~ year + (1 | school)", "-family", "binomial", "-engine", "laplace"]}
PARTIAL = re.compile(r"\.part\d*$")
CODES = {*range(21), 100}
MADE = {"newcmd.kdr", "KDR3MDM.STS", "creatmdm.mdmt"}  # what every run leaves; and of -fit that is told, g.mdm, g.kdr


class Shop:
    def __init__(self, program, top):
        self.program, self.folder = str(pathlib.Path(program).resolve()), pathlib.Path(top) / "work"
        self.folder.mkdir()
        shutil.copy(ROOT / "examples/growth/growth.csv", self.folder)
        self.bad = self.runs = 0
        for stem, words in FORMULA.items():
            done = self.run([*words, "growth.csv", "-o", stem])
            assert done.returncode == 0, done.stdout
        for name in os.listdir(self.folder):
            if name.endswith((".txt", ".json")) or name in MADE:
                os.remove(self.folder / name)
        (self.folder / "folder").mkdir()
        self.before = self.state()

    def run(self, words, **more):
        self.runs += 1
        return subprocess.run([self.program, "-q", *[os.fsencode(word) for word in words]], cwd=self.folder, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, encoding="utf-8", errors="replace", **more)

    def state(self):
        return {str(path.relative_to(self.folder)): path.read_bytes() if path.is_file() else None for path in self.folder.rglob("*") if not path.is_symlink()}

    def restore(self):
        for path in list(self.folder.iterdir()):
            if path.is_symlink() or path.name not in self.before:
                shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink()
        for name, content in self.before.items():
            path = self.folder / name
            if content is not None and (not path.exists() or path.read_bytes() != content):
                path.write_bytes(content)

    def fault(self, what, words):
        self.bad += 1
        print(f"{what[:160]!r}: {words}", flush=True)

    def judge(self, what, words, refused=None, place="", **more):
        """Runs and looks; `refused`: whether it must not succeed."""
        try:
            done = self.run(words, **more)
        except subprocess.TimeoutExpired:
            return self.fault(what, "no end after a minute")
        code, said, now = done.returncode, done.stdout, self.state()
        lines = [line for line in said.splitlines() if line.strip()]
        new = {name for name in now if name not in self.before and name != place}
        if code not in CODES:
            self.fault(what, f"code {code}: {said[-300:]}")
        if any(PARTIAL.search(name) for name in new):
            self.fault(what, f"code {code} leaves {new}")
        if changed := [name for name in self.before if now.get(name) != self.before[name] and not name.endswith((".mdm", ".kdr"))]:
            self.fault(what, f"code {code} changes {changed}")
        if code not in (0, 20):
            results = {name for name in new - MADE if not name.endswith((".mdm", ".kdr", ".txt"))}  # a report has begun
            if new & {"new.mdm", "new.kdr"} and "new.txt" not in new and "Without results" not in said and code != 5:
                self.fault(what, f"code {code} leaves {sorted(new)} without a word")
            if not lines or max(map(len, lines[-3:])) < 12 or "terminate called" in said:
                self.fault(what, f"code {code} says {said[-300:]!r}")
            elif place and code == 5 and not place.endswith(".mdm") and not lines[-1].startswith(place):
                self.fault(what, f"code 5 does not name {place}: {lines[-1][:200]}")
            elif results and code not in (2, 5, 11, 12, 13, 15, 16, 18, 20):
                self.fault(what, f"code {code} leaves {sorted(results)}: {lines[-1][:200]}")
        elif refused:
            self.fault(what, f"code {code}: {said[-300:]}")
        else:
            for name in new:
                if now[name] is not None and len(now[name]) == 0:
                    self.fault(what, f"code {code} leaves {name} empty")
        self.restore()
        return code, said


def options(shop):
    """With one value after the other behind each option, and without any."""
    helped = subprocess.run([shop.program, "--help"], capture_output=True, text=True).stdout
    names = sorted({word for line in helped.splitlines() for word in re.findall(r"(?:^  |, )(--?[a-z0-9]+)", line)} - {"-i", "-w", "-nowait", "-v", "--version", "--help", "-h"})
    assert len(names) > 28, names
    for name in names:
        for value in [None, *ODD]:
            given = [name] if value is None else [name, value]
            for stem, words in FORMULA.items():
                shop.judge(f"{name} {value} with -fit {stem}", [*words, "growth.csv", "-o", "new", *given] if name != "-fit" else [*given, "growth.csv", "-o", "new"])
                shop.judge(f"{name} {value} with {stem}.kdr", [stem + ".mdm", stem + ".kdr", *given])


def keywordsof():
    section = (ROOT / "docs/guide.md").read_text().split("\n### All keywords\n")[1].split("\n### ")[0]
    words = [word for row in section.splitlines() if row.startswith("| `") for word in re.findall(r"`([A-Z0-9-]+(?:<n>)?:)`", row.split("|")[1])]
    assert len(words) > 50, words
    return [word.replace("<n>", "1") for word in words]


def keywords(shop):
    """In the place of the line that stands, or in front of all lines."""
    for keyword in keywordsof():
        for stem in FORMULA:
            lines = (shop.folder / (stem + ".kdr")).read_text().splitlines()
            lines = [line for line in lines if line.startswith("LEVEL") or not line.upper().startswith(keyword)]
            for value in ODD:
                (shop.folder / "odd.kdr").write_bytes(os.fsencode("\n".join([keyword + value, *lines]) + "\n"))
                shop.before["odd.kdr"] = (shop.folder / "odd.kdr").read_bytes()
                shop.judge(f"{keyword}{value} in {stem}.kdr", [stem + ".mdm", "odd.kdr"])
                shop.before.pop("odd.kdr")


RESIDUALS = "".join(f"RESFIL{level}:Y\nRESFIL{level}NAME:r{level}.sav\n" for level in (1, 2, 3))
ALL = RESIDUALS + "GRAPHGAMMAS:graph.bin\nPRINTVARIANCE-COVARIANCE:Y\nSTARTVALS:start.val\n"


def outputs(shop):
    """Each output of a run in a place that does not take it."""
    lines = [line for line in (shop.folder / "score.kdr").read_text().splitlines() if not line.startswith(("RESFIL", "OUTPUT", "RESULTS"))]
    (shop.folder / "all.kdr").write_text("\n".join(lines) + "\n" + ALL + "OUTPUT:out.txt\nRESULTS:out.json\n")
    (shop.folder / "het.kdr").write_text("\n".join(lines) + "\nRESFIL1:N\nRESFIL2:N\nRESFIL3:N\nHETIT:2\nOUTPUT:out.html\nRESULTS:out.csv\n")
    shop.before = shop.state()
    words = ["score.mdm", "all.kdr", "-predict", "growth.csv", "-level2", "pupil", "-level3", "school", "-margins", "year=0,1"]
    fit = [*FORMULA["score"], "growth.csv", "-o", "new", "-predict", "growth.csv", "-margins", "year=0,1"]
    for given in (words, fit, ["score.mdm", "het.kdr"]):
        code, said = shop.judge("all outputs", given)
        done = shop.run(given)
        made = sorted(set(shop.state()) - set(shop.before))
        shop.restore()
        if code or done.returncode:
            return shop.fault("all outputs", f"code {code}: {said[-300:]}")
        for name in made:
            for place in ("/dev/full", "folder", "no/such"):
                if (name, place) == ("start.val", "/dev/full"):
                    continue  # it is read, and has no end
                link = shop.folder / name
                if place == "folder":
                    link.mkdir()
                else:
                    link.symlink_to(place)
                shop.judge(f"{name} is {place}, {given[0]}", given, name != "KDR3MDM.STS", name)
    # A folder that takes nothing, for a user whom it can refuse.
    closed = shop.folder / "folder"
    user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.getuid() == 0 else []
    closed.chmod(0o555)
    for name in ("new", "out.txt"):
        given = [*FORMULA["score"], "../growth.csv", "-o", name] if name == "new" else ["../score.mdm", "../all.kdr"]
        done = subprocess.run([*user, shop.program, "-q", *given], cwd=closed, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode in (0, 20) or done.returncode not in CODES or not done.stdout.strip() or os.listdir(closed):
            shop.fault("a folder that takes nothing", f"{given}: code {done.returncode}, {done.stdout[-300:]}, {os.listdir(closed)}")


def main():
    parts = {"options": options, "keywords": keywords, "outputs": outputs}
    bad = 0
    for name in sys.argv[2:] or parts:
        with tempfile.TemporaryDirectory() as top:
            os.chmod(top, 0o755)
            shop = Shop(sys.argv[1], top)
            parts[name](shop)
            print(f"{name}: {shop.runs} runs, {shop.bad} findings", flush=True)
            bad += shop.bad
    return bad > 0


if __name__ == "__main__":
    sys.exit(main())
