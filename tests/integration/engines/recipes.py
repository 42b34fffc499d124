#!/usr/bin/env python3
"""Runs the recipes of a page exactly as they are printed.

  recipes.py PAGE PROGRAM_FOLDER... -- RECIPE
  recipes.py PAGE --list RECIPE...

A recipe is a section that has `sh` blocks. It runs in a folder of its own that holds nothing but
`documents`; each block waits until the daemon that an earlier one has started serves its queue.
With --list it fails unless exactly these sections have such blocks.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77
NEEDS = {"borg": "borg", "rclone": "rclone", "restic": "restic", "zstd": "zstd"}

START = """
set -eu
finish() {
  code=$?
  for daemon in $(jobs -p); do kill "$daemon"; wait "$daemon" || code=$?; done
  exit "$code"
}
trap finish EXIT
await_queue() {
  [ -n "$(jobs -p)" ] || return 0
  for _ in $(seq 600); do
    [ -e "/dev/shm/$QUEUE" ] && return
    kill -0 "$(jobs -p)"
    sleep 0.1
  done
  echo "no daemon serves $QUEUE" >&2
  exit 1
}
"""


def recipes(page):
    """The blocks of each recipe by its heading."""
    with open(page, encoding="utf-8") as file:
        sections = re.split(r"^## (.*)\n", file.read(), flags=re.M)
    blocks = {
        heading: re.findall(r"^```sh\n(.*?)^```$", text, flags=re.M | re.S)
        for heading, text in zip(sections[1::2], sections[2::2])
    }
    return {heading: found for heading, found in blocks.items() if found}


def make_documents(folder):
    """A small tree with what trees have: a folder, an empty file, bytes that cannot be packed."""
    os.makedirs(os.path.join(folder, "documents", "letters"))
    for name, data in (("empty", b""), ("noise", os.urandom(3_000_000)), ("letters/a b", b"abc\n")):
        with open(os.path.join(folder, "documents", name), "wb") as file:
            file.write(data)


def environment(programs, home):
    own = {name: value for name, value in os.environ.items() if name != "AWS_CA_BUNDLE"}
    own["PATH"] = ":".join(programs + [own["PATH"]])
    own["QUEUE"] = f"korvex-recipe-{os.getpid()}"
    own["HOME"] = home
    return own


def run(blocks, programs):
    with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as home:
        make_documents(folder)
        script = START + "".join(f"await_queue\nset -x\n{block}set +x\n" for block in blocks)
        return subprocess.run(["bash", "-c", script], cwd=folder,
                              env=environment(programs, home), check=False).returncode


def check_list(page, expected):
    found = sorted(recipes(page))
    if found != sorted(expected):
        print(f"{page} has the recipes {found}, expected {sorted(expected)}")
        return 1
    return 0


def main(page, *words):
    if words[0] == "--list":
        return check_list(page, words[1:])
    *programs, _, recipe = words
    program = NEEDS.get(recipe, "tar")
    if not shutil.which(program):
        print(f"{program} is not installed")
        return SKIPPED
    return run(recipes(page)[recipe], programs)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
