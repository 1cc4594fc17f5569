"""Running the built program in a folder of its own. Shared by the end-to-end tests; the standard library only."""
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
REFERENCE = ROOT / "tests" / "reference"
EXAMPLE = ROOT / "examples" / "chem97"


class Workplace:
    """A temporary folder with the chem97 example in it, and a folder of its own for temporary files."""

    def __init__(self, program):
        self.program = str(pathlib.Path(program).resolve())
        self.holder = tempfile.TemporaryDirectory()
        self.folder = pathlib.Path(self.holder.name) / "work"
        self.scratch = pathlib.Path(self.holder.name) / "scratch"
        shutil.copytree(EXAMPLE, self.folder)
        self.scratch.mkdir()
        self.environment = dict(os.environ, TMPDIR=str(self.scratch))

    def run(self, *words, answers="", **options):
        """Runs the program with -q; checks that it left no temporary file."""
        done = subprocess.run([self.program, "-q", *words], cwd=self.folder, input=answers, capture_output=True, text=True,
                              env=self.environment, timeout=120, **options)
        left = os.listdir(self.scratch)
        assert not left, f"left behind after {words}: {left}"
        return done

    def write(self, name, text):
        (self.folder / name).write_text(text)
        return name

    def read(self, name):
        return (self.folder / name).read_text()

    def edited(self, name, source, **keywords):
        """A copy of a command file or template with some keywords' values replaced, or added at its end."""
        lines = self.read(source).splitlines()
        for keyword, value in keywords.items():
            kept = [line for line in lines if not line.upper().startswith(keyword.upper() + ":")]
            lines = kept + [f"{keyword}:{value}"]
        return self.write(name, "\n".join(lines) + "\n")

    def make(self, rows, cell, variables, mdm="s.mdm", **missing):
        """A made study by fixedtext(), and its MDM file."""
        done = self.run("-r", fixedtext(self.folder, rows, cell, variables, mdm, **missing))
        assert done.returncode == 0, done.stdout


def run(program, folder, *words):
    """Exit code and all that the program says, run with -q in a folder of the test's own."""
    done = subprocess.run([program, "-q", *words], cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=300)
    return done.returncode, done.stdout.decode("latin-1")


def madefolder(program, source, template, top=None):
    """A folder with the files of `source`, and the MDM file made of them by one of its templates."""
    folder = tempfile.mkdtemp(dir=top)
    shutil.copytree(source, folder, dirs_exist_ok=True)
    code, said = run(program, folder, "-r", template)
    assert code == 0, f"{template}: making the MDM file ended with code {code}\n{said[-800:]}"
    return folder


TEMPLATE = "#KDR3 MDM CREATION TEMPLATE"


def template(mdm, files, formats, variables, missing="n", deletion="now"):
    """The template of a study in fixed text; of each level the file, the format and the names of its variables."""
    each = lambda line, values: [line % (level, value) for level, value in enumerate(values, 1)]
    lines = [TEMPLATE, "mdmtype:0", "rawdattype:ascii", *each("l%dfname:%s", files), *each("numl%dvar:%d", map(len, variables)),
             *each("l%dformat:%s", formats), "l1missing:" + missing, "timeofdeletion:" + deletion, "mdmname:" + mdm]
    for level, names in enumerate(variables, 1):
        lines += [f"*begin l{level}vars", *names, f"*end l{level}vars"]
    return "\n".join(lines) + "\n"


def rawtemplate(kind, files, ids, variables, mdm, deletion="analysis"):
    """The template of a study in files that name their columns; `ids` are those of level 3 and of level 2."""
    lines = [TEMPLATE, "mdmtype:0", "rawdattype:" + kind, *(f"l{level}fname:{file}" for level, file in enumerate(files, 1)),
             "l1missing:y", "timeofdeletion:" + deletion, "mdmname:" + mdm]
    for level, names in enumerate(variables, 1):
        lines += [f"*begin l{level}vars", "level3id:" + ids[0], *["level2id:" + ids[1]] * (level < 3), *names, f"*end l{level}vars"]
    return "\n".join(lines) + "\n"


def fixedtext(folder, rows, cell, variables, mdm="s.mdm", **missing):
    """Writes a made study and its template, whose name comes back. The rows of each level hold the IDs, which get 4 columns
    each, and numbers of the form `cell`, cut to its width; numbers behind a level's variables are not read."""
    stem, formats = mdm.removesuffix(".mdm"), []
    width, digits = re.findall(r"\d+", cell)
    files = [f"{stem}{level}.dat" for level in (1, 2, 3)]
    for file, made, names, ids in zip(files, rows, variables, (2, 2, 1)):
        lines = ("%4d" * ids % tuple(row[:ids]) + "".join((cell % x)[:int(width)] for x in row[ids:]) for row in made)
        pathlib.Path(folder, file).write_text("\n".join(lines) + "\n")
        formats.append("(" + "2A4"[2 - ids:] + f",{len(names)}F{width}.{digits}" * bool(names) + ")")
    pathlib.Path(folder, stem + ".mdmt").write_text(template(mdm, files, formats, variables, **missing))
    return stem + ".mdmt"


# What a command file has to say for no question to be asked, behind its equations.
NOFILES = "RESFIL1:N\nRESFIL2:N\nRESFIL3:N\n"
NOFEATURES = "LEVEL1DELETION:NONE\nCONSTRAIN:N\nHYPOTH:N\nLVR-BETA:N\n"


def body(report):
    """A report without what differs between two runs of one model: date, time, names of files, iteration control."""
    dropped = (" Date:", " Time:", "  The command file", "  Output file", "Date:", "Time:")
    return [line for line in report.splitlines() if not line.startswith(dropped)]


class Checks:
    """Keeps what does not hold of what a test, or the part of one that the tag names, has checked."""

    def __init__(self, tag=""):
        self.tag, self.done, self.bad = tag, 0, []

    def fail(self, what):
        self.bad.append(f"{self.tag}: {what}" if self.tag else what)
        if not self.tag:
            print("FAILED:", what)

    def __call__(self, holds, what):
        self.done += 1
        if not holds:
            self.fail(what)

    def equal(self, what, got, want):
        self(got == want, f"{what} is {got!r}, expected {want!r}")

    def near(self, what, got, want, absolute, relative=0.0):
        """Half a unit of the last printed place is already inside `absolute`."""
        allowed = max(absolute, relative * abs(want))
        if got is None:
            self(False, f"{what} is missing, expected {want:.8g}")
        else:
            self(abs(got - want) <= allowed, f"{what} is {got:.8g}, expected {want:.8g} (allowed difference {allowed:.2g})")

    def same(self, what, got, want, absolute, relative=0.0):
        """Numbers near, texts and missing values equal."""
        if want is None or isinstance(want, str):
            self.equal(what, got, want)
        else:
            self.near(what, got, want, absolute, relative)

    def matrix(self, what, got, want, absolute, relative):
        if not want:  # a level without random effects has no table
            return self.equal(what, got, None)
        if got is None or [len(x) for x in got] != [len(x) for x in want]:
            return self(False, f"{what} has another shape or is missing: {got!r}")
        for i, row in enumerate(want):
            for j, x in enumerate(row):
                self.near(f"{what}[{i}][{j}]", got[i][j], x, absolute, relative)

    def finish(self):
        finish([self])


def finish(parts, most=12):
    """Ends a test with what its parts have found."""
    for part in parts:
        print(f"{part.tag or 'all':26} {part.done:6} checks, {len(part.bad)} failed")
    for part in parts:
        for what in part.bad[:most] if part.tag else ():
            print(what)
    raise SystemExit(1 if any(part.bad for part in parts) or not any(part.done for part in parts) else 0)
