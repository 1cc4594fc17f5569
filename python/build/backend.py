"""What pip builds the package with, from the standard library alone.

A wheel holds the package, kdr3plot, which is kdr3-plot's, and libkdr3.so: the one that KDR3_LIBRARY names, that of the tree's build folder, or one that
is compiled from the sources beside the package (cmake, ninja or make, a C++ compiler). A source tarball holds these
sources, copied from the tree here and nowhere else.

    backend.py sdist|wheel FOLDER
"""
import base64
import hashlib
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import zipfile

PACKAGE = pathlib.Path(__file__).resolve().parents[1]
VERSION = re.search(r'^version = "(.*)"', (PACKAGE / "pyproject.toml").read_text(), re.M)[1]
PLOT, SCHEMA = "tools/kdr3plot", "docs/results.schema.json"
SOURCES = ["CMakeLists.txt", "src", "include", "man", PLOT, SCHEMA]  # what the library is compiled from, and a wheel made of
METADATA = f"""Metadata-Version: 2.1
Name: kdr3
Version: {VERSION}
Summary: Mixed models of two and three levels by maximum likelihood
Requires-Python: >=3.9
Requires-Dist: numpy
Provides-Extra: all
Requires-Dist: pandas; extra == "all"
Requires-Dist: matplotlib; extra == "all"
Description-Content-Type: text/markdown

"""


def metadata():
    return METADATA + (PACKAGE / "README.md").read_text()


def root():
    """The folder of the library's sources: in a source tarball, or the tree."""
    inside = PACKAGE / "library"
    return inside if inside.is_dir() else PACKAGE.parent


def files():
    return sorted(path for path in (PACKAGE / "kdr3").glob("*") if path.suffix in (".py", ".typed"))


def inside():
    """The files of a wheel's package, with their places in it."""
    yield from ((path, path.name) for path in files())
    yield from ((path, f"kdr3plot/{path.name}") for path in sorted((root() / PLOT).glob("*.py")))
    yield root() / SCHEMA, f"kdr3plot/{pathlib.Path(SCHEMA).name}"


def library(folder):
    """The path of libkdr3.so, compiled in the folder where there is none."""
    given = os.environ.get("KDR3_LIBRARY")
    for path in [pathlib.Path(given)] if given else [root() / "build" / "libkdr3.so"]:
        if path.is_file():
            return path
    if given:
        raise SystemExit(f"KDR3_LIBRARY: there is no {given}.")
    if not (root() / "CMakeLists.txt").is_file():
        raise SystemExit(f"There are no sources of the library in {root()}; name a built one by KDR3_LIBRARY.")
    subprocess.run(["cmake", "-S", root(), "-B", folder, "-DCMAKE_BUILD_TYPE=Release", "-DKDR3_TESTS=OFF", "-DKDR3_OTHER=OFF",
                    *(["-G", "Ninja"] if shutil.which("ninja") else [])], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", folder, "--target", "kdr3_shared", "-j", str(os.cpu_count() or 1)], check=True)
    return pathlib.Path(folder) / "libkdr3.so"


def tag():
    return "py3-none-" + re.sub(r"[-.]", "_", sysconfig.get_platform())


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    name = f"kdr3-{VERSION}-{tag()}.whl"
    info = f"kdr3-{VERSION}.dist-info"
    record = []
    with tempfile.TemporaryDirectory() as folder, zipfile.ZipFile(pathlib.Path(wheel_directory) / name, "w", zipfile.ZIP_DEFLATED) as wheel:
        def put(path, data):
            wheel.writestr(path, data)
            digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
            record.append(f"{path},sha256={digest},{len(data)}")
        for path, place in inside():
            put(f"kdr3/{place}", path.read_bytes())
        put("kdr3/libkdr3.so", library(folder).read_bytes())
        put(f"{info}/METADATA", metadata().encode())
        put(f"{info}/WHEEL", f"Wheel-Version: 1.0\nGenerator: kdr3\nRoot-Is-Purelib: false\nTag: {tag()}\n".encode())
        record.append(f"{info}/RECORD,,")
        wheel.writestr(f"{info}/RECORD", "\n".join(record) + "\n")
    return name


def build_sdist(sdist_directory, config_settings=None):
    name = f"kdr3-{VERSION}"
    with tarfile.open(pathlib.Path(sdist_directory) / f"{name}.tar.gz", "w:gz") as made:
        def put(path, data):
            entry = tarfile.TarInfo(f"{name}/{path}")
            entry.size = len(data)
            made.addfile(entry, io.BytesIO(data))
        put("PKG-INFO", metadata().encode())
        for path in ("pyproject.toml", "README.md", "build/backend.py"):
            put(path, (PACKAGE / path).read_bytes())
        for path in files():
            put(f"kdr3/{path.name}", path.read_bytes())
        for source in SOURCES:
            top = root() / source
            for path in [top] if top.is_file() else sorted(p for p in top.rglob("*") if p.is_file() and "__pycache__" not in p.parts):
                put(f"library/{path.relative_to(root())}", path.read_bytes())
    return f"{name}.tar.gz"


if __name__ == "__main__":
    make = {"sdist": build_sdist, "wheel": build_wheel}[sys.argv[1]]
    print(make(sys.argv[2]))
