"""Running programs, and what the kernel says about them."""

import json
import os
import shlex
import subprocess
import tempfile
import time
from contextlib import contextmanager

SHARED_MEMORY = "/dev/shm"
GNU_TIME = "/usr/bin/time"
MIB = 2**20


class Failed(Exception):
    """A measured program failed; the text says which and how."""


def run_json(command, timeout=600):
    """Runs a program to its end and reads the JSON that it prints last."""
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          timeout=timeout)
    if done.returncode != 0:
        raise Failed(done.stderr.strip() or f"{command[0]} ended with {done.returncode}")
    return json.loads(done.stdout.strip().split("\n")[-1])


def run_silently(command, **place):
    """Runs a program that has nothing to say to its end."""
    done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                          **place)
    if done.returncode != 0:
        raise Failed(f"{shlex.join(command)} ended with {done.returncode}: {done.stderr.strip()}")


def run_timed(command):
    """Seconds and CPU seconds of a program, with as little of this interpreter as can be."""
    start = time.monotonic()
    process = os.posix_spawnp(command[0], command, os.environ)
    _, status, usage = os.wait4(process, 0)
    seconds = time.monotonic() - start
    if status != 0:
        raise Failed(f"{shlex.join(command)} ended with {os.waitstatus_to_exitcode(status)}")
    return {"seconds": seconds, "cpu": usage.ru_utime + usage.ru_stime}


def cpu_seconds(process):
    """CPU time of all threads, of those that have ended too: the kernel's clock of the process."""
    return time.clock_gettime(~process << 3 | 2)


def cpu_seconds_with_children(process):
    """CPU time of a process and of all that have ended below it."""
    with open(f"/proc/{process}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return sum(int(ticks) for ticks in fields[11:15]) / os.sysconf("SC_CLK_TCK")


def wakeups(process):
    """How often the threads that live have slept and woken."""
    total = 0
    for thread in os.listdir(f"/proc/{process}/task"):
        try:
            with open(f"/proc/{process}/task/{thread}/status") as file:
                total += sum(int(line.split()[1]) for line in file
                             if line.startswith("voluntary_ctxt_switches"))
        except OSError:
            continue  # ended meanwhile
    return total


def memory_kib(process):
    """Resident memory: `own` of this process alone, `shared` the queues that it has touched."""
    found = {}
    with open(f"/proc/{process}/status") as file:
        for line in file:
            name, _, value = line.partition(":")
            if name in ("RssAnon", "RssShmem", "VmHWM"):
                found[name] = int(value.split()[0])
    return {"own_kib": found["RssAnon"], "shared_kib": found["RssShmem"],
            "peak_kib": found["VmHWM"]}


@contextmanager
def daemon(program, queues, options, **place):
    """A daemon that serves the queues, ready when the body runs, ended after it. Its log goes to a
    file: a pipe that nobody reads would make it keep the lines in memory."""
    command = [str(program)] + [str(option) for option in options]
    for queue in queues:
        command += ["--queue", queue]
    with tempfile.TemporaryFile(mode="w+") as log:
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=log, **place)
        try:
            _await_queues(process, queues, log)
            yield process
        finally:
            process.terminate()
            process.wait(timeout=60)


def _await_queues(process, queues, log, timeout=30):
    names = [os.path.join(SHARED_MEMORY, name) for queue in queues
             for name in (queue, queue + "Response")]
    end = time.monotonic() + timeout
    while not all(os.path.exists(name) for name in names):
        if process.poll() is not None:
            log.seek(0)
            raise Failed(f"the daemon did not start: {log.read().strip()}")
        if time.monotonic() > end:
            raise Failed("the daemon's queues did not appear")
        time.sleep(0.005)


def write_file(path, size):
    """Bytes that no file system and no tool can leave out or store once for many; in the cache
    afterwards."""
    with open(path, "wb") as file:
        for _ in range(size // MIB):
            file.write(os.urandom(MIB))
        file.flush()
        os.fsync(file.fileno())


def timed_pipeline(commands, **place):
    """Runs the commands as a pipeline into nothing: seconds, and what each command used. `place`
    is their folder and environment, as subprocess takes them.

    Each runs below a small program that measures it: the kernel would count this interpreter's
    memory as its child's."""
    reports, processes = [], []
    start = time.monotonic()
    source = subprocess.DEVNULL
    for number, command in enumerate(commands):
        report = tempfile.NamedTemporaryFile(mode="r", prefix="korvex-bench-time-")
        last = number == len(commands) - 1
        process = subprocess.Popen(
            [GNU_TIME, "-q", "-f", "%U %S %M", "-o", report.name] + command, stdin=source,
            stdout=subprocess.DEVNULL if last else subprocess.PIPE, **place)
        if source != subprocess.DEVNULL:
            source.close()
        source = process.stdout
        reports.append(report)
        processes.append(process)
    for process, command in zip(processes, commands):
        if process.wait() != 0:
            raise Failed(f"{shlex.join(command)} ended with {process.returncode}")
    return time.monotonic() - start, [_usage(report) for report in reports]


def _usage(report):
    user, system, peak = report.read().split()
    report.close()
    return {"cpu": float(user) + float(system), "peak_kib": int(peak)}
