"""Running the built program in a folder of its own. Shared by the end-to-end tests; the standard library only."""
import os
import pathlib
import shutil
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
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


def body(report):
    """A report without what differs between two runs of one model: date, time, names of files, iteration control."""
    dropped = (" Date:", " Time:", "  The command file", "  Output file", "Date:", "Time:")
    return [line for line in report.splitlines() if not line.startswith(dropped)]


class Checks:
    """Counts checks and keeps the failed ones."""

    def __init__(self):
        self.count = 0
        self.failed = []

    def __call__(self, holds, what):
        self.count += 1
        if not holds:
            self.failed.append(what)
            print("FAILED:", what)

    def finish(self):
        print(f"{self.count} checks, {len(self.failed)} failed")
        raise SystemExit(1 if self.failed else 0)
