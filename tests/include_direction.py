"""Holds every #include of the source tree against the table of rooms: arrows point one way. Inside a room, too: no files
include each other in a ring, a source counting together with its header."""
import pathlib
import re
import sys

LIBRARY = ["kernel", "core", "data", "formula", "estimate", "series", "document", "library"]  # what the estimation is made of, each on those before it
PROGRAM = ["driver", "construct", "command", "report", "app"]  # the program around it

MAY_INCLUDE = {room: LIBRARY[:i] for i, room in enumerate(LIBRARY)}
MAY_INCLUDE |= {room: LIBRARY + PROGRAM[:i] for i, room in enumerate(PROGRAM)}

root = pathlib.Path(sys.argv[1])
wrong, includes = [], {}
for path in sorted(root.rglob("*.[ch]*")):
    name = path.relative_to(root).as_posix()
    room = name.split("/")[0]
    unit = name.rsplit(".", 1)[0]
    for line in path.read_text().splitlines():
        if other := re.match(r'\s*#\s*include\s+"([a-z0-9_/]+)\.h"', line):
            includes.setdefault(unit, set()).add(other[1])
        match = re.match(r'\s*#\s*include\s+"([a-z0-9]+)/', line)
        public = room == "library" and match and match[1] == "kdr3"
        if match and not public and match[1] != room and match[1] not in MAY_INCLUDE[room]:
            wrong.append(f"{name}: {line.strip()}")


def ring(unit, way, done):
    """The first ring that is reached from a unit."""
    if unit in way:
        return way[way.index(unit):] + [unit]
    if unit in done:
        return None
    for other in sorted(includes.get(unit, set()) - {unit}):
        if found := ring(other, way + [unit], done):
            return found
    done.add(unit)
    return None


done = set()
wrong += [" -> ".join(found) for unit in sorted(includes) if (found := ring(unit, [], done))][:1]
print("\n".join(wrong) or "every include points the right way")
sys.exit(1 if wrong else 0)
