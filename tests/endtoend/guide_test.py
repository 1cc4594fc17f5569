#!/usr/bin/env python3
"""Holds README.md, docs/guide.md and the pages on the start, formulas, engines, series, results and plots against the program.

A page's blocks are taken in order, in a copy of an example with `kdr3` on the PATH, and the other examples beside it:

    ```sh run              the block is executed and must succeed
    ```text output=FILE    its lines must stand in FILE, one after the other, as FILE is at this point

Besides, each keyword that the guide's tables name must be known to the program, and each keyword that the program writes
to newcmd.kdr must be in the guide.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
GUIDE = ROOT / "docs" / "guide.md"
PAGES = {"guide.md": "chem97", "../README.md": "growth", "start.md": "growth", "formulas.md": "growth", "engines.md": "prenatal",
         "series.md": "chem97", "results.md": "chem97", "plots.md": "chem97"}  # and the example of each
SECONDS = 120


def blocks(text):
    """(line number, info string, lines) of each fenced block."""
    found, info, start, lines = [], None, 0, []
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("```"):
            if info is None:
                info, start, lines = line[3:].strip(), number, []
            else:
                found.append((start, info, lines))
                info = None
        elif info is not None:
            lines.append(line)
    assert info is None, f"the block at line {start} of the guide is not closed"
    return found


def comparable(lines):
    """Without form feeds and trailing blanks; date and time lines hold no digits."""
    cut = [line.replace("\f", "").rstrip() for line in lines]
    return [re.sub(r"\d", "9", line) if re.match(r" ?(Date|Time): ", line) else line for line in cut]


def contains(whole, part):
    return any(whole[i:i + len(part)] == part for i in range(len(whole) - len(part) + 1))


def nearest(whole, part):
    """How far the best match goes, for the message of a failure."""
    best, place = -1, 0
    for i in range(len(whole)):
        n = 0
        while n < len(part) and i + n < len(whole) and whole[i + n] == part[n]:
            n += 1
        if n > best:
            best, place = n, i
    expected = part[best] if best < len(part) else "(end)"
    got = whole[place + best] if place + best < len(whole) else "(end of file)"
    return f"{best} of {len(part)} lines agree; the guide goes on with\n  |{expected}|\nthe file with\n  |{got}|"


class Workplace:
    """A copy of the examples, in one of which the program is on the PATH as kdr3."""

    def __init__(self, program, example="chem97"):
        self.top = tempfile.TemporaryDirectory()
        for name in ("chem97", "growth", "prenatal", "melanoma"):
            shutil.copytree(ROOT / "examples" / name, Path(self.top.name) / name)
        self.directory = Path(self.top.name) / example
        bin_directory = Path(self.top.name) / "bin"
        bin_directory.mkdir()
        wrapper = bin_directory / "kdr3"
        wrapper.write_text(f'#!/bin/sh\nexec "{program}" "$@"\n')
        wrapper.chmod(0o755)
        (bin_directory / "kdr3-plot").symlink_to(ROOT / "tools" / "kdr3-plot")
        self.environment = dict(os.environ, PATH=f"{bin_directory}:{os.environ['PATH']}", LC_ALL="C")

    def run(self, script):
        return subprocess.run(["sh", "-eu", "-c", script], cwd=self.directory, env=self.environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=SECONDS)


class Guide(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.text = GUIDE.read_text()
        cls.place = Workplace(PROGRAM)

    @classmethod
    def tearDownClass(cls):
        cls.place.top.cleanup()

    def page(self, name, place):
        """Runs the blocks of a page."""
        runs = outputs = 0
        for line, info, lines in blocks((ROOT / "docs" / name).read_text()):
            if info == "sh run":
                done = place.run("\n".join(lines))
                self.assertEqual(done.returncode, 0, f"{name}, line {line}:\n{done.stdout}{done.stderr}")
                runs += 1
            elif info.startswith("text output="):
                file = info.removeprefix("text output=")
                part = comparable(lines)
                whole = comparable((place.directory / file).read_text().split("\n"))
                self.assertTrue(part, f"{name}, line {line}: an empty block")
                self.assertTrue(contains(whole, part), f"{name}, line {line}, {file}: {nearest(whole, part)}")
                outputs += 1
            else:
                self.fail(f"{name}, line {line}: a block of unknown kind \"{info}\"")
        self.assertGreater(runs, 0)
        self.assertGreater(outputs, 0)

    def test_1_examples(self):
        self.page("guide.md", self.place)

    def test_4_pages(self):
        for name, example in PAGES.items():
            if name != "guide.md":
                with self.subTest(name):
                    place = Workplace(PROGRAM, example)
                    self.page(name, place)
                    place.top.cleanup()

    def recognised(self, line):
        (self.place.directory / "one.kdr").write_text(line + "\n")
        done = self.place.run("kdr3 -q chem97.mdm one.kdr || true")
        return "Unrecognized control word" not in done.stdout

    def test_2_keywords_of_the_tables_exist(self):
        section = self.text.split("\n### All keywords\n")[1].split("\n### ")[0]
        keywords = [word for row in section.splitlines() if row.startswith("| `")
                    for word in re.findall(r"`([A-Z0-9-]+(?:<n>)?:)`", row.split("|")[1])]
        self.assertGreater(len(keywords), 50)
        self.assertFalse(self.recognised("NOTAWORD:1"))
        for keyword in keywords:
            with self.subTest(keyword):
                # The equation lines of levels 2 and 3 are read with the LEVEL1: line that they belong to.
                if keyword not in ("LEVEL2:", "LEVEL3:"):
                    self.assertTrue(self.recognised(keyword.replace("<n>", "1") + "1"))

    def test_3_written_keywords_are_told(self):
        written = {line.split(":")[0] + ":" for line in (self.place.directory / "newcmd.kdr").read_text().splitlines()
                   if not line.startswith("#")}
        self.assertGreater(len(written), 10)
        for keyword in sorted(written):
            with self.subTest(keyword):
                self.assertIn(f"`{keyword}`", self.text)


if __name__ == "__main__":
    PROGRAM = str(Path(sys.argv.pop(1)).resolve())
    unittest.main()
