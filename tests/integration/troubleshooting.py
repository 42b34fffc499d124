#!/usr/bin/env python3
"""troubleshooting.py PAGE KORVEXD_FOLDER KORVEX_FOLDER -- SECTION: stages what the section is about
with the real programs, runs its commands, and compares what they show with what the page says.

troubleshooting.py PAGE --list SECTION...: whether these are all sections with commands.

Exits with 77 where no namespace of one's own, with shared memory that nobody else uses, can be made.
"""

import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import time

PATIENCE = 60
DAEMON = "korvexd --queue shop --output /srv/backups --stats /srv/stats.json"
ENGINE_DAEMON = ("korvexd --queue shop --stats /srv/stats.json "
                 "--exec 'restic -r /srv/repo backup --stdin'")
SEND = ["korvex", "send", "--quiet", "--timeout", "2", "--queue", "shop"]

# Dies with the lock, which lies at offset 48 of the object.
DIE_WITH_LOCK = """
import ctypes, mmap, os
memory = mmap.mmap(os.open("/dev/shm/shop", os.O_RDWR), 208)
ctypes.CDLL(None).pthread_mutex_lock(ctypes.byref(ctypes.c_char.from_buffer(memory, 48)))
os.kill(os.getpid(), 9)
"""


def await_that(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"in vain: {what}")
        time.sleep(0.05)


def output_of(script):
    """What a script shows. In a file, not a pipe, which background processes would keep open."""
    with tempfile.TemporaryFile() as out:
        subprocess.run(["bash", "-c", script], stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                       timeout=PATIENCE, check=False)
        out.seek(0)
        return out.read().decode()


class Night:
    """What happened before somebody looks. Ends only processes of its own: the machine has more."""

    def __init__(self):
        self.dump = os.urandom(300000)
        pathlib.Path("dump.sql").write_bytes(self.dump)
        self.daemons, self.sender, self.pipe = [], None, None

    def daemon(self, command=DAEMON):
        with open("daemon.log", "w", encoding="utf-8") as log:
            self.daemons.append(subprocess.Popen(shlex.split(command), stdout=log, stderr=log))
        log = pathlib.Path("daemon.log")
        await_that(lambda: "serving" in log.read_text(encoding="utf-8"), f"{command} serves")

    def kill_daemon(self):
        self.daemons[-1].kill()
        self.daemons[-1].wait()

    def send(self, *words, prefix=()):
        with open("nightly.log", "w", encoding="utf-8") as log:
            subprocess.run([*prefix, *SEND, *words], stdin=subprocess.DEVNULL, stderr=log,
                           check=False)

    def open_stream(self):
        """A sender that waits for more; some of its data has arrived."""
        os.mkfifo("pipe")
        with open("nightly.log", "w", encoding="utf-8") as log:
            self.sender = subprocess.Popen([*SEND, "pipe"], stderr=log)
        os.environ["SENDER"] = str(self.sender.pid)
        self.pipe = open("pipe", "wb", buffering=0)
        self.pipe.write(self.dump)
        self.see("stream open since")

    def end_stream(self):
        self.pipe.close()
        self.sender.wait()

    @staticmethod
    def see(text):
        await_that(lambda: text in output_of("korvex status"), f"status shows {text}")

    @staticmethod
    def die_with_lock():
        subprocess.run([sys.executable, "-c", DIE_WITH_LOCK], check=False)

    @staticmethod
    def small_place(place, size):
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "none", place], check=True)

    def end(self):
        for process in [*self.daemons, self.sender]:
            if process is not None:
                process.kill()
                process.wait()


def dead_daemon(night):
    night.daemon()
    night.open_stream()
    night.kill_daemon()
    night.sender.kill()  # it would wait a minute for its receipt
    night.end_stream()
    output_of("korvex clean --yes")
    night.daemon(DAEMON)
    night.kill_daemon()
    night.send("dump.sql")


def no_daemon(night):
    night.send("dump.sql")


def full_disk(night):
    night.small_place("/srv/backups", "200k")
    night.daemon()
    night.send("dump.sql")
    night.see("failed streams")


def failing_command(night):
    night.daemon()
    message = "pg_dump: error: connection to server failed"
    # No data: how much of it was sent before the failure is noticed depends on the moment.
    night.send("--from-command", "--", "sh", "-c", f"echo '{message}' >&2; exit 3")
    night.see("failed streams")


def failing_engine(night):
    os.environ["PATH"] = f"/srv:{os.environ['PATH']}"
    engine = pathlib.Path("/srv/restic")
    engine.write_text("#!/bin/sh\ncat >/dev/null\necho 'unable to create lock in backend' >&2\n"
                      "echo 'Fatal: repository is already locked' >&2\nexit 1\n",
                      encoding="utf-8")
    engine.chmod(0o755)
    night.daemon(ENGINE_DAEMON)
    night.send("dump.sql")
    night.see("failed streams")
    log = pathlib.Path("daemon.log")
    await_that(lambda: "incomplete" in log.read_text(encoding="utf-8"), "the log has the failure")


def two_producers(night):
    night.daemon()
    night.open_stream()
    night.sender.send_signal(signal.SIGSTOP)  # or it might meet the other's receipt, and say so
    subprocess.run([*SEND, "dump.sql"], check=False)
    night.see("300.0 kB")
    night.pipe.write(night.dump)
    night.sender.send_signal(signal.SIGCONT)
    night.end_stream()


def killed_with_the_lock(night):
    night.daemon()
    night.open_stream()
    night.die_with_lock()
    night.see("failed streams")
    night.end_stream()


def lock_without_daemon(night):
    night.kill_daemon()
    night.die_with_lock()


def small_shared_memory(night):
    night.small_place("/dev/shm", "1m")


def wrong_permissions(night):
    night.daemon()
    night.send(prefix=("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"))


def slow_stream(night):
    night.daemon()
    night.open_stream()
    night.pipe.write(night.dump)  # what did not fit into the first message waits in the sender
    night.see("262.1 kB")


def nothing(_):
    pass


# What happened before each block of a section.
STAGES = {
    "A dead daemon": [dead_daemon, nothing, nothing],
    "No daemon": [no_daemon],
    "A full disk": [full_disk, nothing],
    "A failing command": [failing_command],
    "A failing engine": [failing_engine, nothing],
    "Two producers": [two_producers],
    "A producer killed with the lock": [killed_with_the_lock, lock_without_daemon],
    "/dev/shm is too small": [small_shared_memory, nothing],
    "Wrong permissions": [wrong_permissions],
    "A stream that is merely slow": [slow_stream],
}

# What is different each time.
# The last line but one: in a container even root may not examine each process.
VARYING = [(r"\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d(\.\d+|Z)", "TIME"), (r"\d{8}T\d{6}Z-\d+", "STREAM"),
           (r"(\d+:)+\d\d ago", "AGO"), (r"\(\d+\)", "(PID)"), (r"(thread|held by) \d+", r"\1 ID"),
           (r"[\d.]+ \w?B/s", "RATE"), (r"in \d+\.\d s", "in TIME"), (r"RATE, [\d:]+", "RATE, TIME"),
           (r"korvex: not examined, but may have these queues open: .*\n", ""),
           (r"[ \t]+", " ")]


def sections_of(page):
    """The title of each section, and its blocks of commands with what they show."""
    sections = {}
    for part in re.split(r"^## ", page, flags=re.MULTILINE)[1:]:
        title, text = part.split("\n", 1)
        blocks = re.findall(r"^```console\n(.*?)^```", text, flags=re.MULTILINE | re.DOTALL)
        if blocks:
            sections[title] = [[tuple(step.split("\n", 1)) for step in
                                re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]]
                               for block in blocks]
    return sections


def plain(text):
    for pattern, name in VARYING:
        text = re.sub(pattern, name, text)
    return text.strip()


def is_as_printed(night, block):
    good = True
    for command, expected in block:
        if command.endswith(" &"):
            night.daemon(command.removesuffix(" &"))
            continue
        found = output_of(command)
        if plain(found) != plain(expected):
            print(f"$ {command}\nfound:\n{plain(found)}\nexpected:\n{plain(expected)}\n")
            good = False
    return good


def inside(page, section):
    for place in ("/dev/shm", "/srv"):
        Night.small_place(place, "64m")
    os.makedirs("/srv/backups")
    os.makedirs("/srv/work")
    os.chdir("/srv/work")
    night = Night()
    try:
        results = []
        for happens, block in zip(STAGES[section], sections_of(page)[section], strict=True):
            happens(night)
            results.append(is_as_printed(night, block))
        return 0 if all(results) else 1
    finally:
        night.end()


def main():
    page = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
    if sys.argv[2] == "--list":
        return 0 if sys.argv[3:] == list(sections_of(page)) == list(STAGES) else 1
    korvexd, korvex, _, section = sys.argv[2:6]
    if "--inside" in sys.argv:
        return inside(page, section)
    if os.geteuid() != 0 or subprocess.run(["unshare", "-m", "true"],
                                           capture_output=True, check=False).returncode:
        print("only root can have shared memory of its own")
        return 77
    os.environ["PATH"] = f"{korvexd}:{korvex}:{os.environ['PATH']}"
    return subprocess.run(["unshare", "-m", sys.executable, "-B", *sys.argv, "--inside"],
                          check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
