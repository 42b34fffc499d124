#!/usr/bin/env python3
"""check_rooms.py ROOT: whether every file of the tree includes only what its room may use.

Dependencies point one way: from programs to the receiving half, to the library, to the queue and
the platform. An include that points back, or into a neighbour's private files, fails the check. So
does a folder of production code that has grown past what fits on a screen.
"""

import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+([<"])([^>"]+)[>"]', re.MULTILINE)
SOURCES = (".h", ".cpp")
MOST_FILES = 16

# Where an include may be found, besides the folder of the file that has it.
ROOTS = ("include", "src", "platform/include", "receiver/include", "tools", "tests", "bench")

LIBRARY = {"include", "platform/include"}
RECEIVER = LIBRARY | {"receiver/include"}

# room: the other rooms that it may use. A file belongs to the longest path that fits.
ROOMS = {
    "include": {"platform/include"},
    "platform/include": set(),
    "platform/src": {"platform/include"},
    "src/queue": set(),
    "src/support": LIBRARY,
    "src/config": LIBRARY | {"src/support"},
    "src/shm": LIBRARY | {"src/support", "src/queue"},
    "receiver/include": LIBRARY,
    "receiver/src": RECEIVER | {"src/shm", "src/queue", "src/support"},
    "tools/common": RECEIVER,
    "tools/korvexd": RECEIVER | {"tools/common"},
    "tools/korvex": RECEIVER | {"tools/common"},
    "examples": RECEIVER,
    "bench": RECEIVER | {"src/queue", "src/shm", "src/support", "tools/common", "tests/support"},
    "tests": RECEIVER | {"src/queue", "src/shm", "src/support", "src/config", "receiver/src",
                         "platform/src", "tools/common", "tools/korvexd", "tools/korvex",
                         "tests/support"},
}
TEST_ROOMS = ("unit", "integration", "property", "fuzz", "faults", "package", "support")
ROOMS.update({f"tests/{name}": ROOMS["tests"] for name in TEST_ROOMS})

# Where a room of programs has rooms of its own, and which of these may use which.
INNER = {
    "tools/korvexd/os": set(),
    "tools/korvexd/sink": {"tools/korvexd/os"},
    "tools/korvexd/report": {"tools/korvexd/os"},
    "tools/korvexd": {"tools/korvexd/os", "tools/korvexd/sink", "tools/korvexd/report"},
}


def longest(path, names):
    fitting = [name for name in names if path.startswith(name + "/")]
    return max(fitting, key=len, default=None)


def found_at(root, file, kind, name):
    """The file of this tree that an include means, or None for somebody else's."""
    places = [root / base for base in ROOTS]
    if kind == '"':
        places.insert(0, (root / file).parent)
    for place in places:
        if (place / name).is_file():
            return (place / name).resolve().relative_to(root).as_posix()
    return None


def complaint(file, target):
    room, used = longest(file, ROOMS), longest(target, ROOMS)
    if used != room and used not in ROOMS[room]:
        return f"{file} includes {target}: {room} may not use {used}"
    inner, innerUsed = longest(file, INNER), longest(target, INNER)
    if inner and innerUsed and inner != innerUsed and innerUsed not in INNER[inner]:
        return f"{file} includes {target}: {inner} may not use {innerUsed}"
    return None


def include_complaints(root, files):
    for file in files:
        text = (root / file).read_text(errors="replace")
        for kind, name in INCLUDE.findall(text):
            target = found_at(root, file, kind, name)
            if target and longest(target, ROOMS):
                yield complaint(file, target)


def folder_complaints(files):
    production = [f for f in files if not f.startswith(("tests/", "bench/", "examples/"))]
    for folder in sorted({str(pathlib.PurePosixPath(f).parent) for f in production}):
        count = sum(str(pathlib.PurePosixPath(f).parent) == folder for f in production)
        if count > MOST_FILES and folder not in LARGER:
            yield f"{folder}: found {count} files, expected at most {MOST_FILES}"


LARGER = ()


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    files = sorted(path.relative_to(root).as_posix() for room in ROOMS
                   for path in (root / room).rglob("*") if path.suffix in SOURCES)
    files = sorted(set(files))
    complaints = [c for c in include_complaints(root, files) if c] + list(folder_complaints(files))
    print(*complaints, sep="\n")
    print(f"{len(files)} files, {len(complaints)} complaints")
    return 1 if complaints or not files else 0


if __name__ == "__main__":
    sys.exit(main())
