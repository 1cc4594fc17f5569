"""Holds every #include of the source tree against the table of rooms: arrows point one way."""
import pathlib
import re
import sys

MAY_INCLUDE = {
    "kernel": [],
    "driver": ["kernel"],
    "data": ["kernel", "driver"],
    "model": ["kernel", "driver", "data"],
    "report": ["kernel", "driver", "data", "model"],
    "linear": ["kernel", "driver", "data", "model", "report"],
    "nonlinear": ["kernel", "driver", "data", "model", "report", "linear"],
    "multirun": ["kernel", "driver", "data", "model", "report", "linear", "nonlinear"],
    "app": ["kernel", "driver", "data", "model", "report", "linear", "nonlinear", "multirun"],
}

root = pathlib.Path(sys.argv[1])
wrong = []
for path in sorted(root.rglob("*.[ch]*")):
    name = path.relative_to(root).as_posix()
    room = name.split("/")[0]
    for line in path.read_text().splitlines():
        match = re.match(r'\s*#\s*include\s+"([a-z]+)/', line)
        if match and match[1] != room and match[1] not in MAY_INCLUDE[room]:
            wrong.append(f"{name}: {line.strip()}")
print("\n".join(wrong) or "every include points the right way")
sys.exit(1 if wrong else 0)
