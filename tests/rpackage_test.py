#!/usr/bin/env python3
"""The R package of the tree on the library of a built one: R CMD check with its tests, the Debian package, the cases
that C and Python print too, the page docs/r.md.

    rpackage_test.py BUILD [--store]

The page's blocks are run in order, in one session of R in a copy of the examples:

    ```r run           the block is executed and must succeed
    ```text            what it prints, whole; --store writes it into the page
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
PAGE = ROOT / "docs" / "r.md"
MARK = "---- block"


def pkgconfig(build, place):
    """What pkg-config would say of the library if it were installed from the build folder."""
    (place / "kdr3.pc").write_text(f"libdir={build}\nincludedir={ROOT}/include\n\nName: kdr3\nDescription: the built tree\nVersion: 7.1.0\n"
                                   "Libs: -L${libdir} -lkdr3\nCflags: -I${includedir}\n")
    return dict(os.environ, PKG_CONFIG_PATH=str(place), R_LIBS=str(place))


def run(words, **options):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if done.returncode != 0:
        raise SystemExit(f"{' '.join(map(str, words))} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def printed(blocks, environment, place):
    """What each block of code prints."""
    folder = place / "examples"
    shutil.copytree(ROOT / "examples", folder)
    script = ["options(width = 100)"]
    for block in blocks:
        script += [f'cat("{MARK}\\n")', block]
    (folder / "page.R").write_text("\n".join(script))
    said = run(["Rscript", "--vanilla", "-e", 'source("page.R", print.eval = TRUE, echo = FALSE)'], cwd=folder, env=environment)
    return [part.strip("\n") for part in said.split(MARK + "\n")[1:]]


def comparable(text):
    return [line.rstrip() for line in text.strip("\n").splitlines()]


def checktarball(environment, place):
    """R CMD check of the source package, with its tests, on the built library."""
    run([str(ROOT / "r/tools/tarball"), str(place)])
    tarball, = place.glob("kdr3_*.tar.gz")
    held = run(["tar", "-tzf", str(tarball)])
    for name in ("library/fit.cpp", "core/version.h", "include/kdr3/kdr3.h", "estimate/linear/unitloops.cpp"):
        assert f"kdr3/src/libkdr3/{name}\n" in held, f"the source package lacks {name}"
    (place / "src/contrib").mkdir(parents=True)  # no network: the check asks an empty repository
    (place / "src/contrib/PACKAGES").touch()
    profile = place / "profile.R"
    profile.write_text(f'options(repos = c(CRAN = "file://{place}", BioCsoft = "file://{place}", BioCann = "file://{place}", '
                       f'BioCexp = "file://{place}"))\n')
    alone = {"_R_CHECK_FORCE_SUGGESTS_": "false", "_R_CHECK_XREFS_REPOSITORIES_": f"file://{place}", "R_PROFILE_USER": str(profile)}
    said = run(["R", "CMD", "check", "--no-manual", str(tarball)], cwd=place, env=dict(environment, **alone))
    assert not re.search(r"(ERROR|WARNING)s?$", said, re.M), said


def checkdebian(build, place):
    """The Debian package holds the library itself, and R loads it from there."""
    made = run([str(ROOT / "r/tools/deb"), str(build), str(place)]).strip()
    run(["dpkg-deb", "-x", made, str(place / "root")])
    libraries = place / "root/usr/lib/R/site-library"
    assert "libkdr3" not in run(["ldd", str(libraries / "kdr3/libs/kdr3.so")]), "the package needs another one's library"
    said = run(["Rscript", "--vanilla", "-e", "library(kdr3); kdr3(y ~ 1 + (1 | g), data.frame(y = (1:20)^1.5 %% 3, g = rep(1:5, 4)))"],
               env=dict(os.environ, R_LIBS=str(libraries)))
    assert "Number of obs: 20, groups:  g, 5" in said, said


def main():
    build, store = Path(sys.argv[1]).resolve(), "--store" in sys.argv
    with tempfile.TemporaryDirectory() as name:
        place = Path(name)
        environment = pkgconfig(build, place)
        if not store:
            checktarball(environment, place)
            checkdebian(build, place)
        shutil.copytree(ROOT / "r", place / "r", ignore=shutil.ignore_patterns("*.o", "*.so", "Makevars", "libkdr3"))
        run(["R", "CMD", "INSTALL", f"--library={place}", str(place / "r")], env=environment)
        print(run(["Rscript", "--vanilla", "samecases.R"], cwd=ROOT / "tests/reference", env=environment), end="")
        page = PAGE.read_text()
        pieces = re.split(r"(?m)^(```r run\n.*?^```\n(?:\n?```text\n.*?^```\n)?)", page, flags=re.S)
        codes = [re.match(r"```r run\n(.*?)^```\n", piece, re.S | re.M).group(1) for piece in pieces[1::2]]
        wrong = []
        for i, said in enumerate(printed(codes, environment, place)):
            wanted = re.search(r"```text\n(.*?)^```\n", pieces[2 * i + 1], re.S | re.M)
            if wanted is None:
                continue
            if store:
                pieces[2 * i + 1] = f"```r run\n{codes[i]}```\n\n```text\n{chr(10).join(comparable(said))}\n```\n"
            elif comparable(wanted.group(1)) != comparable(said):
                wrong.append(f"{codes[i]}prints\n{said}")
        if store:
            PAGE.write_text("".join(pieces))
        if wrong:
            raise SystemExit("docs/r.md has it otherwise:\n" + "\n\n".join(wrong))
    print(f"the R package, and {len(codes)} blocks of docs/r.md")


main()
