"""A wheel of the tree is imported from where it is unpacked, with the library inside; a source tarball has what it is
compiled from, and a wheel of it is made without the tree.

    test_wheel.py <program> <folder of the source tree>     with KDR3_LIBRARY set
"""
import os
import pathlib
import subprocess
import sys
import tarfile
import tempfile
import zipfile

TREE = pathlib.Path(sys.argv[2]).resolve()
FIT = """import kdr3, pathlib
m = kdr3.fit('y ~ 1 + (1 | g)', {'y': [1, 2, 4, 3, 1, 5], 'g': list('aabbcc')})
try:
    words = m.plot.coefficients(intercept=True).words
except ImportError:
    words = 'Fixed effects'
assert pathlib.Path(kdr3.kdr3plot.__file__).parent.parent == pathlib.Path(kdr3.__file__).parent
print(m.nobs, kdr3.__version__, words[:13])"""


def imported(wheel, folder):
    with zipfile.ZipFile(wheel) as file:
        file.extractall(folder)
        listed = {line.split(",")[0] for line in file.read(next(n for n in file.namelist() if n.endswith("RECORD"))).decode().splitlines()}
        assert listed == set(file.namelist()), listed ^ set(file.namelist())
    plain = {key: value for key, value in os.environ.items() if key not in ("KDR3_LIBRARY", "PYTHONPATH")}
    done = subprocess.run(["/usr/bin/python3", "-c", FIT], env={**plain, "PYTHONPATH": folder}, cwd=folder, capture_output=True, text=True)
    assert done.stdout == "6 7.1.0 Fixed effects\n", done.stdout + done.stderr


with tempfile.TemporaryDirectory() as place:
    place = pathlib.Path(place)

    def make(backend, what):
        done = subprocess.run(["/usr/bin/python3", "-B", backend, what, place], capture_output=True, text=True, check=True)
        return place / done.stdout.split()[-1]

    imported(make(TREE / "python/build/backend.py", "wheel"), str(place / "one"))
    with tarfile.open(make(TREE / "python/build/backend.py", "sdist")) as file:
        file.extractall(place / "sources")
    inside = place / "sources" / "kdr3-7.1.0"
    for name in ("src/library/formula.cpp", "include/kdr3/kdr3.h", "CMakeLists.txt", "src/app/main.cpp", "tools/kdr3plot/nested.py"):
        assert (inside / "library" / name).read_bytes() == (TREE / name).read_bytes(), name
    imported(make(inside / "build/backend.py", "wheel"), str(place / "two"))
    if os.environ.get("KDR3_COMPILE"):  # the whole library, which takes minutes
        del os.environ["KDR3_LIBRARY"]
        imported(make(inside / "build/backend.py", "wheel"), str(place / "three"))
print("wheel and source tarball hold what they should")
