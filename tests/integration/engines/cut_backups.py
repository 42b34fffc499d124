#!/usr/bin/env python3
"""Real dumps and archives on their way into restic, cut before their end: restic keeps none.

  cut_backups.py PROGRAM_FOLDER... -- CASE
"""

import contextlib
import glob
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import servers
from servers import eventually

SKIPPED = 77
# More than the queue, the pipes and the programs on the way hold: restic has some of it.
MIDDLE = 20_000_000
# restic in a shell's place, which leaves its number.
ENGINE = """sh -c 'echo "$$" >engine; exec restic backup --quiet --stdin --stdin-filename data'"""


def children_of(process):
    for children in glob.glob(f"/proc/{process.pid}/task/*/children"):
        with contextlib.suppress(FileNotFoundError):  # a thread that has ended since
            yield from map(int, pathlib.Path(children).read_text(encoding="ascii").split())


class CutBackup(unittest.TestCase):
    """A daemon with restic behind it, and what is sent to it."""

    NEEDS = ()

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.queue = f"korvex-cut-{os.getpid()}"
        self.environment = os.environ | {
            "RESTIC_REPOSITORY": "repository", "RESTIC_PASSWORD": "secret",
            "RESTIC_CACHE_DIR": "cache"}
        self.succeed("restic", "init", "--quiet")
        self.daemon = self.start("korvexd", "--queue", self.queue, "--exec", ENGINE)
        self.addCleanup(self.end_daemon)
        eventually(self.daemon_serves)

    def start(self, *command):
        process = subprocess.Popen(command, cwd=self.folder, env=self.environment, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        return process

    def succeed(self, *command):
        """What the command writes."""
        return subprocess.run(command, cwd=self.folder, env=self.environment, text=True, check=True,
                              stdout=subprocess.PIPE).stdout

    def send(self, *command):
        return self.start("korvex", "send", "--queue", self.queue, "--from-command", "--", *command)

    def daemon_serves(self):
        return self.daemon.poll() is not None or os.path.exists(f"/dev/shm/{self.queue}")

    def end_daemon(self):
        """After that no engine is left."""
        self.daemon.terminate()
        self.daemon.communicate()

    def engine_is_in_the_middle(self):
        engine = pathlib.Path(self.folder, "engine").read_text(encoding="ascii").strip()
        counters = pathlib.Path(f"/proc/{engine}/io").read_text(encoding="ascii")
        return int(counters.split()[1]) > MIDDLE  # rchar: what it has read

    def expect_nothing_of(self, send, reason):
        _, errors = send.communicate(timeout=servers.PATIENCE)
        self.assertEqual(send.returncode, 1, errors)
        self.assertRegex(errors, reason)
        self.end_daemon()
        self.assertEqual(self.succeed("restic", "list", "snapshots", "--no-lock"), "")
        self.succeed("restic", "check", "--quiet", "--no-lock")


class DatabaseDump(CutBackup):
    """A dump that has most of its data behind it, and cannot go on."""

    SERVER = None
    DUMP = ()

    @classmethod
    def setUpClass(cls):
        cls.server = cls.enterClassContext(servers.running(cls.SERVER))

    def setUp(self):
        super().setUp()
        self.environment |= self.server.environment

    def send_dump_to_the_middle(self):
        sender = self.send(*self.DUMP)
        self.server.await_held_dump()
        eventually(self.engine_is_in_the_middle)
        return sender

    def test_killed_leaves_nothing(self):
        with self.server.held_dumps():
            sender = self.send_dump_to_the_middle()
            for child in children_of(sender):
                os.kill(child, signal.SIGKILL)
            self.expect_nothing_of(sender, rf"'{self.DUMP[0]}' was ended by signal 9")

    def test_of_a_stopped_server_leaves_nothing(self):
        with self.server.held_dumps():
            sender = self.send_dump_to_the_middle()
            self.server.end(self.server.CRASH)
            self.addCleanup(self.server.start)
            self.expect_nothing_of(sender, rf"'{self.DUMP[0]}' ended with exit code [123]\b")


class Postgres(DatabaseDump):
    SERVER = servers.Postgres
    NEEDS = SERVER.NEEDS + ("pg_dump",)
    DUMP = ("pg_dump", "--format", "custom", "--compress", "0", "shop")


class MariaDb(DatabaseDump):
    SERVER = servers.MariaDb
    NEEDS = SERVER.NEEDS + ("mysqldump",)
    DUMP = ("mysqldump", "--single-transaction", "shop")


class Tar(CutBackup):
    """A tree of header files and libraries, as compilers have it."""

    NEEDS = ("tar",)

    @classmethod
    def setUpClass(cls):
        # A copy: packages may be installed meanwhile.
        parent = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.tree = f"{parent}/tree"
        cls.parent = ("-C", parent)
        for folder in ("/usr/include/c++", "/usr/lib/llvm-14/lib/clang"):
            shutil.copytree(folder, cls.tree + folder, symlinks=True)

    def test_killed_leaves_nothing(self):
        far = MIDDLE // 10240  # records
        sender = self.send("tar", f"--checkpoint={far}",
                           "--checkpoint-action=exec=kill -KILL $PPID", "-c", *self.parent, "tree")
        self.expect_nothing_of(sender, "'tar' was ended by signal 9")

    def test_that_misses_a_file_leaves_nothing(self):
        self.expect_nothing_of(self.send("tar", "-c", *self.parent, "tree", "missing"),
                               "'tar' ended with exit code 2")

    def test_that_is_whole_is_restored(self):
        sender = self.send("tar", "-c", *self.parent, "tree")
        _, errors = sender.communicate(timeout=servers.PATIENCE)
        self.assertEqual(sender.returncode, 0, errors)
        self.succeed("sh", "-c", "restic dump latest data | tar -x")
        self.succeed("diff", "--recursive", "--no-dereference", self.tree, "tree")
        self.succeed("restic", "check", "--quiet")


def main(*words):
    *programs, _, name = words
    os.environ["PATH"] = ":".join(programs + [os.environ["PATH"]])
    case = {"MariaDb": MariaDb, "Postgres": Postgres, "Tar": Tar}[name]
    if missing := servers.missing(("restic", *case.NEEDS)):
        print(f"{missing} is not installed")
        return SKIPPED
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(case)
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
