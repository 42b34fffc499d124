#!/usr/bin/env python3
"""check_rooms.py ROOT: whether every file of the tree includes only what its room may use.

Dependencies point one way: from the programs to the receiving half, to the library, to the queue and
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
ROOTS = ("include", "src", "platform/include", "receiver/include", "receiver/src", "tools",
         "tools/korvex", "tests", "bench")

LIBRARY = {"include", "platform/include"}
RECEIVER = LIBRARY | {"receiver/include"}
EVERYTHING = RECEIVER | {"src/queue", "src/shm", "src/support", "src/config", "receiver/src",
                         "platform/src", "tools/common", "tools/korvexd", "tools/korvex"}

# Each room, and the other rooms that it may use. A file belongs to the longest path that fits.
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
    "bench": EVERYTHING | {"tests/support"},
    "tests": EVERYTHING | {"tests/support"},
}

# Rooms within a room of programs, and which of these may use which.
INNER = {
    "tools/korvexd": {"tools/korvexd/os", "tools/korvexd/sink", "tools/korvexd/exec",
                      "tools/korvexd/config", "tools/korvexd/log", "tools/korvexd/metrics",
                      "tools/korvexd/report", "tools/korvexd/service"},
    # It tries out what a file names: folders to store and capture in, programs to run.
    "tools/korvexd/config": {"tools/korvexd/os", "tools/korvexd/log", "tools/korvexd/sink",
                             "tools/korvexd/exec", "tools/korvexd/report"},
    "tools/korvexd/os": set(),
    "tools/korvexd/sink": {"tools/korvexd/os"},
    "tools/korvexd/log": {"tools/korvexd/os"},
    "tools/korvexd/exec": {"tools/korvexd/os", "tools/korvexd/log"},
    "tools/korvexd/report": {"tools/korvexd/os", "tools/korvexd/log"},
    "tools/korvexd/metrics": {"tools/korvexd/log", "tools/korvexd/exec", "tools/korvexd/report"},
    "tools/korvexd/service": {"tools/korvexd/os", "tools/korvexd/log"},
    "tools/korvex": {"tools/korvex/send", "tools/korvex/inspect", "tools/korvex/verify",
                     "tools/korvex/status"},
    "tools/korvex/send": {"tools/korvex"},
    "tools/korvex/inspect": {"tools/korvex"},
    "tools/korvex/verify": {"tools/korvex"},
    "tools/korvex/status": {"tools/korvex"},
}


# Headers that only one room of what we ship may include: waits and exceptions of the queue library
# are handled there.
CONFINED = {"boost/interprocess/": "src/queue"}

# A group of tests uses its own files and the shared tools, never another group's files.
TEST_GROUPS = ("tests/unit/", "tests/")


def group_of(file):
    """The folder of a file's group of tests: tests/GROUP or tests/unit/GROUP."""
    for groups in TEST_GROUPS:
        if file.startswith(groups):
            return groups + file[len(groups):].split("/")[0]
    return None


def room_of(path, rooms):
    fitting = [room for room in rooms if path.startswith(room + "/")]
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


def group_complaint(file, target):
    group, used = group_of(file), group_of(target)
    if group and used and used not in (group, "tests/support"):
        return f"{file} includes {target}: expected a file of {group} or tests/support"
    return None


def confined_complaint(file, name):
    for prefix, room in CONFINED.items():
        if name.startswith(prefix) and not file.startswith((room + "/", "tests/", "bench/")):
            return f"{file} includes <{name}>: only {room} may"
    return None


def complaint(file, target, rooms):
    room, used = room_of(file, rooms), room_of(target, rooms)
    if room and used and used != room and used not in rooms[room]:
        return f"{file} includes {target}: {room} may not use {used}"
    return None


def include_complaints(root, files):
    for file in files:
        for kind, name in INCLUDE.findall((root / file).read_text(errors="replace")):
            target = found_at(root, file, kind, name)
            found = [confined_complaint(file, name)]
            if target:
                found += [complaint(file, target, rooms) for rooms in (ROOMS, INNER)]
                found.append(group_complaint(file, target))
            yield from filter(None, found)


def folder_complaints(files):
    folders = [str(pathlib.PurePosixPath(file).parent) for file in files
               if not file.startswith(("tests/", "bench/", "examples/"))]
    for folder in sorted(set(folders)):
        if folders.count(folder) > MOST_FILES:
            yield f"{folder}: found {folders.count(folder)} files, expected at most {MOST_FILES}"


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    files = sorted({path.relative_to(root).as_posix() for room in ROOMS
                    for path in (root / room).rglob("*") if path.suffix in SOURCES})
    complaints = [*include_complaints(root, files), *folder_complaints(files)]
    print(*complaints, sep="\n")
    print(f"{len(files)} files, {len(complaints)} complaints")
    return 1 if complaints or not files else 0


if __name__ == "__main__":
    sys.exit(main())
