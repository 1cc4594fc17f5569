"""The Debian package of a built tree: what it holds, what it depends on, and that its program runs.

    package_test.py <build folder> <cpack>
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
DOC = "usr/share/doc/kdr3/"


def output(*words, **options):
    done = subprocess.run(words, capture_output=True, text=True, timeout=120, **options)
    if done.returncode != 0:
        raise SystemExit(f"{words} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


with tempfile.TemporaryDirectory() as place:
    output(sys.argv[2], "-G", "DEB", "-B", place, "--config", sys.argv[1] + "/CPackConfig.cmake")
    package, = Path(place).glob("kdr3_*.deb")
    output("dpkg-deb", "-x", str(package), place + "/root")
    root = Path(place) / "root"
    held = {str(path.relative_to(root)) for path in root.rglob("*") if path.is_file()}
    listing = shutil.which("git") and subprocess.run(["git", "ls-files", "docs", "examples"], cwd=ROOT, capture_output=True,
                                                     text=True).stdout
    files = listing.split() if listing else [str(path.relative_to(ROOT)) for path in (ROOT / "docs").glob("*.md")]
    for name in ["usr/bin/kdr3", "usr/bin/kdr3-plot", "usr/share/kdr3/kdr3plot/command.py", "usr/share/kdr3/results.schema.json", "usr/share/man/man1/kdr3.1", "usr/share/man/man1/kdr3-plot.1", DOC + "README.md", DOC + "CHANGELOG.md",
                 *(DOC + name for name in files)]:
        assert name in held, f"the package lacks {name}"
    known = r"usr/(bin/kdr3|share/(kdr3/|man/man1/kdr3|doc/kdr3/)|include/kdr3/kdr3\.hp*$|lib/.*kdr3[^/]*$)"
    strange = {name for name in held if not re.match(known, name)}
    assert not strange, f"the package holds {strange}"
    # A client built against the package alone, from outside the tree.
    shutil.copy(ROOT / "examples" / "library" / "growth.c", place)
    libraries = [path.parent for path in root.rglob("libkdr3.so")][0]
    output("cc", "-Wall", "-Werror", f"-I{root}/usr/include", "growth.c", f"-L{libraries}", "-lkdr3", "-o", "growth", cwd=place)
    said = output("./growth", cwd=place, env=dict(os.environ, LD_LIBRARY_PATH=str(libraries)))
    assert re.search(r"(?m)^\(intercept\) +\d+\.\d{4} ", said) and re.search(r"(?m)^year +\d\.\d{4} ", said), said
    names = output("nm", "-D", "--defined-only", str(libraries / "libkdr3.so"))
    foreign = [name for name in re.findall(r" [A-Z] (\S+)", names) if not name.startswith(("kdr3_", "KDR3_1"))]
    assert not foreign, f"the library shows {foreign}"
    header = (ROOT / "include/kdr3/kdr3.h").read_text()
    lacking = set(re.findall(r"(?m)^KDR3_PUBLIC [^(]*?(kdr3_\w+)\(", header)) - set(re.findall(r" T (\w+)", names))
    assert not lacking, f"the header declares what the library lacks: {lacking}"
    # That for Python, beside it.
    python, = Path(place).glob("python3-kdr3_*.deb")
    output("dpkg-deb", "-x", str(python), place + "/python")
    inside = Path(place) / "python/usr/lib/python3/dist-packages"
    sources = {f"kdr3/{path.name}" for path in (ROOT / "python/kdr3").glob("*") if path.suffix in (".py", ".typed")}
    sources |= {f"kdr3/kdr3plot/{path.name}" for path in [*(ROOT / "tools/kdr3plot").glob("*.py"), ROOT / "docs/results.schema.json"]}
    assert {str(path.relative_to(inside)) for path in inside.rglob("*") if path.is_file()} == sources, "the package for Python"
    version = output("dpkg-deb", "-f", str(package), "Version").strip()
    assert f"kdr3 (= {version})" in output("dpkg-deb", "-f", str(python), "Depends"), "what it stands on"
    said = output("/usr/bin/python3", "-c", "import kdr3; m = kdr3.fit('y ~ 1 + (1 | g)', {'y': [1, 2, 4, 3, 1, 5], 'g': list('aabbcc')}); "
                  "m.plot.qq(); print(m.nobs)", env=dict(os.environ, PYTHONPATH=str(inside), LD_LIBRARY_PATH=str(libraries)))
    assert said == "6\n", said
    depends = output("dpkg-deb", "-f", str(package), "Depends")
    assert "libc6" in depends and "libstdc++6" in depends, depends
    assert "python3-matplotlib" in output("dpkg-deb", "-f", str(package), "Recommends")
    (root / "none.json").write_text('{"format": "kdr3 results"}')
    done = subprocess.run([root / "usr/bin/kdr3-plot", "--page", root / "none.json", "-o", root / "none.html"], capture_output=True,
                          text=True)
    assert done.returncode == 4 and "lacks format_version" in done.stderr, f"the schema of kdr3-plot: {done.stderr}"
    # The pages, --help and the programs agree on the options.
    for program, least in (("kdr3", 13), ("kdr3-plot", 12)):
        page = (root / f"usr/share/man/man1/{program}.1").read_text().replace("\\-", "-")
        helped = output(str(root / "usr/bin" / program), "--help")
        options = set(re.findall(r"(?:^|[ ,])(--?[a-z0-9-]+)(?=[ ,]|$)", "\n".join(
            line[:34] for line in helped.splitlines() if line.startswith("  -")), re.M))
        assert len(options) >= least, options
        missing = {option for option in options if not re.search(re.escape(option) + r"\b", page)}
        assert not missing, f"the man page of {program} lacks {missing}"
print("the package holds what it should")
