#!/usr/bin/python3
"""Takes the second way out of every call that may throw out of gathered counts.

The compiler adds these branches; nobody wrote them. gcovr has an option for it, but applies it to
each object file before it adds them up, and in a file where a function was never called the
compiler's tool does not say which branches these are.
"""

import json
import pathlib
import sys


def without_throws(gathered):
    for file in gathered["files"]:
        for line in file["lines"]:
            line["branches"] = [branch for branch in line["branches"] if not branch["throw"]]
    return gathered


def main():
    source, target = map(pathlib.Path, sys.argv[1:])
    target.write_text(json.dumps(without_throws(json.loads(source.read_text()))))


if __name__ == "__main__":
    main()
