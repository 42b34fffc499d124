"""Running test programs that may do anything: hang, crash, eat memory, leave things behind."""

import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass, field

SHARED_MEMORY = pathlib.Path("/dev/shm")
QUEUE_OF_A_TEST = re.compile(r"\.?korvexd?-(?:[a-z]+-)*(\d{1,7})(?!\d)")
FAILED_TEST = re.compile(r"^\[  FAILED  \] (\S+?),? ", re.MULTILINE)
MOST_MEMORY = 12 << 30  # of addresses: a thousand threads reserve 8 GiB for their stacks


@dataclass(frozen=True)
class Program:
    """A test program, relative to the build folder."""

    path: str
    arguments: tuple = ()
    environment: dict = field(default_factory=dict, hash=False, compare=False)
    core_seconds: int = 0  # that it may use; 0 for any number
    shards: int = 1        # processes that its tests are spread over, all at once

    @property
    def name(self):
        return pathlib.PurePath(self.path).name

    def shard_environments(self):
        """What to add to the environment of each process."""
        if self.shards == 1:
            return [{}]
        return [{"GTEST_TOTAL_SHARDS": str(self.shards), "GTEST_SHARD_INDEX": str(index)}
                for index in range(self.shards)]

    def command(self, build):
        return [build / self.path, *self.arguments]


@dataclass(frozen=True)
class Ending:
    """How it ended; `complaint` is empty when all was well."""

    complaint: str
    seconds: float
    is_late: bool = False


def limit(core_seconds):
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
    if core_seconds:
        resource.setrlimit(resource.RLIMIT_CPU, (core_seconds, core_seconds + 1))


def is_alive(process_id):
    try:
        os.kill(process_id, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        pass
    return True


def sweep(since):
    """Removes the queues that tests made after `since` and did not live to remove."""
    for entry in SHARED_MEMORY.glob("*korvex*"):
        found = QUEUE_OF_A_TEST.match(entry.name)
        try:
            known = entry.lstat()
            if (found and known.st_uid == os.getuid() and known.st_mtime >= since
                    and not is_alive(int(found.group(1)))):
                entry.unlink()
        except OSError:
            pass  # another run was faster


def end_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def end_leftovers(scratch):
    """Ends what left the group of the test that has this temporary folder."""
    mark = f"TMPDIR={scratch}".encode()
    for environment in pathlib.Path("/proc").glob("[0-9]*/environ"):
        try:
            if mark in environment.read_bytes().split(b"\0"):
                os.kill(int(environment.parent.name), signal.SIGKILL)
        except OSError:
            pass  # it is gone, or another user's


def run(program, build, patience, environment=None):
    """Runs it in a session and a temporary folder of its own; both are gone afterwards."""
    command = program.command(build)
    scratch = tempfile.mkdtemp(prefix="korvex-mutation-")
    os.chmod(scratch, 0o755)  # some tests drop the privileges of root
    started = time.monotonic()
    since = time.time() - 1
    is_late = False
    variables = dict(os.environ, TMPDIR=scratch, **program.environment, **(environment or {}))
    # A file, not a pipe: what a test started may outlive it, and would keep a pipe open.
    output = tempfile.TemporaryFile()
    process = subprocess.Popen(command, cwd=command[0].parent, env=variables,
                               stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                               start_new_session=True,
                               preexec_fn=lambda: limit(program.core_seconds))
    try:
        code = process.wait(timeout=patience)
        output.seek(0)
        complaint = complaint_of(program, code, output.read().decode(errors="replace"))
    except subprocess.TimeoutExpired:
        complaint = f"{program.name}: no end within {patience:.0f} s"
        is_late = True
    finally:
        # The group, also after an orderly end: what a test started may have outlived it.
        end_group(process)
        process.wait()
        end_leftovers(scratch)
        output.close()
        shutil.rmtree(scratch, ignore_errors=True)
        sweep(since)
    return Ending(complaint, time.monotonic() - started, is_late)


def complaint_of(program, code, output):
    if code == 0:
        return ""
    if code == -signal.SIGXCPU:
        return f"{program.name}: no end within {program.core_seconds} s of one core"
    failed = FAILED_TEST.search(output)
    if failed:
        return f"{program.name}: {failed.group(1)}"
    return f"{program.name}: " + (f"signal {-code}" if code < 0 else f"exit code {code}")
