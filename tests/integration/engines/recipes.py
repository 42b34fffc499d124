#!/usr/bin/env python3
"""Runs the recipes of a page exactly as they are printed.

  recipes.py PAGE PROGRAM_FOLDER... -- RECIPE
  recipes.py PAGE --list RECIPE...

A recipe is a section that has blocks of one language.

sh    It runs in a folder of its own that holds nothing but `documents`; each block waits until the
      daemon that an earlier one has started serves its queue.
cron  The job runs where /srv is such a folder: it says nothing when it succeeds, and something when
      nobody serves its queue or its command fails.
ini   The blocks are units of systemd, which has nothing to say about them; a daemon tells it when
      it is ready.

With --list it fails unless exactly these sections have such blocks.
"""

import contextlib
import os
import re
import shlex
import subprocess
import sys
import tempfile

import servers

SKIPPED = 77
NEEDS = {"borg": ["borg"], "cron": ["unshare"], "mysqldump": ["restic"],
         "pg_dump": ["restic", "pg_dump"], "rclone": ["rclone"], "restic": ["restic"],
         "S3": ["rclone"], "systemd": ["unshare", "systemd-analyze"], "zstd": ["zstd"]}
SERVERS = {"mysqldump": servers.MariaDb, "pg_dump": servers.Postgres, "S3": servers.S3}
# For comparisons that would find nothing and nothing equal.
PROOFS = {"mysqldump": "grep -q 'Dear customer' restored.sql",
          "pg_dump": "grep '^orders|600000|' restored.tables"}

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

# Where programs, data and queues have the places that a page for a whole system gives them.
SYSTEM = """
mount -t tmpfs none /dev/shm
mount -t tmpfs none /usr/local/bin
ln -s "$(command -v korvex)" "$(command -v korvexd)" /usr/local/bin
mount --bind "$PWD" /srv
"""

CRON = """
job() {
  code=0
  env -i HOME=/ LOGNAME=backup "${SETTINGS[@]}" "$SHELL" -c "$JOB" >"$1" 2>&1 || code=$?
  echo "$1: exit code $code, $(cat "$1")"
}
job alone
[ "$code" = 1 ]
[ -s alone ]
korvexd --queue "$QUEUE" --discard &
await_queue
job served
[ "$code" = 0 ]
[ ! -s served ]
rm -r documents
job without_documents
[ "$code" = 1 ]
[ -s without_documents ]
"""

UNITS = """
said=$(systemd-analyze verify --recursive-errors=no units/* 2>&1) || true
echo "$said"
[ -z "$said" ]
# A backup with After= must not start before the daemon serves its queue.
daemons=$(grep -l '^ExecStart=.*/korvexd ' units/*)
said=$(grep -Lx Type=notify $daemons) || true
[ -z "$said" ] || { echo "without Type=notify: $said" && exit 1; }
"""


def recipes(page):
    """The language and the text of each block of each recipe, by its heading."""
    with open(page, encoding="utf-8") as file:
        sections = re.split(r"^## (.*)\n", file.read(), flags=re.M)
    blocks = {
        heading: re.findall(r"^```(sh|cron|ini)\n(.*?)^```$", text, flags=re.M | re.S)
        for heading, text in zip(sections[1::2], sections[2::2])
    }
    return {heading: found for heading, found in blocks.items() if found}


def shell_script(blocks, _, proof):
    return START + "".join(f"await_queue\nset -x\n{block}set +x\n" for block in blocks) + proof


def cron_script(blocks, *_):
    settings = re.findall(r"^(\w+)=(.*)$", blocks[0], flags=re.M)
    (job,) = re.findall(r"^(?:\S+ +){5}\w+ (korvex .*)$", blocks[0], flags=re.M)
    (queue,) = re.findall(r"--queue (\w+)", job)
    words = shlex.join(f"{name}={value}" for name, value in settings)
    return (START + SYSTEM + f"QUEUE={queue}\nSETTINGS=({words})\nSHELL={dict(settings)['SHELL']}\n"
            f"JOB={shlex.quote(job)}\n" + CRON)


def units_script(blocks, folder, _):
    os.mkdir(f"{folder}/units")
    for block in blocks:
        (name,) = re.findall(r"^# /etc/systemd/system/(\S+)\n", block)
        with open(f"{folder}/units/{name}", "w", encoding="utf-8") as file:
            file.write(block)
    return START + SYSTEM + UNITS


SCRIPTS = {"sh": shell_script, "cron": cron_script, "ini": units_script}


def make_documents(folder):
    """A small tree with what trees have: a folder, an empty file, bytes that cannot be packed."""
    os.makedirs(os.path.join(folder, "documents", "letters"))
    for name, data in (("empty", b""), ("noise", os.urandom(3_000_000)), ("letters/a b", b"abc\n")):
        with open(os.path.join(folder, "documents", name), "wb") as file:
            file.write(data)


def environment(home):
    own = {name: value for name, value in os.environ.items() if name != "AWS_CA_BUNDLE"}
    own["QUEUE"] = f"korvex-recipe-{os.getpid()}"
    own["HOME"] = home
    return own


def around(language):
    """The command that gives a script mounts of its own, or an empty one where it needs none."""
    return [] if language == "sh" else ["unshare", "-m" if os.getuid() == 0 else "-Urm"]


def run(recipe, blocks):
    language = blocks[0][0]
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory())
        settings = environment(stack.enter_context(tempfile.TemporaryDirectory()))
        if recipe in SERVERS:
            settings |= stack.enter_context(servers.running(SERVERS[recipe])).environment
        make_documents(folder)
        script = SCRIPTS[language]([text for _, text in blocks], folder, PROOFS.get(recipe, ""))
        return subprocess.run([*around(language), "bash", "-c", script], cwd=folder, env=settings,
                              check=False).returncode


def obstacle(recipe, language):
    """Why this recipe cannot be run here, or None."""
    needed = [*NEEDS.get(recipe, []), *(SERVERS[recipe].NEEDS if recipe in SERVERS else [])]
    if missing := servers.missing(needed):
        return f"{missing} is not installed"
    if around(language) and subprocess.run([*around(language), "true"], check=False).returncode:
        return "no mounts of one's own"
    return None


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
    os.environ["PATH"] = ":".join(programs + [os.environ["PATH"]])
    blocks = recipes(page)[recipe]
    if reason := obstacle(recipe, blocks[0][0]):
        print(reason)
        return SKIPPED
    return run(recipe, blocks)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
