"""Running programs, and what the kernel says about them."""

import json
import os
import subprocess
import time
from contextlib import contextmanager

SHARED_MEMORY = "/dev/shm"


class Failed(Exception):
    """A measured program failed; the text says which and how."""


def run_json(command, timeout=600):
    """Runs a program to its end and reads the JSON that it prints last."""
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          timeout=timeout)
    if done.returncode != 0:
        raise Failed(done.stderr.strip() or f"{command[0]} ended with {done.returncode}")
    return json.loads(done.stdout.strip().split("\n")[-1])


def cpu_seconds(process):
    """CPU time of all threads that live."""
    total = 0
    for thread in os.listdir(f"/proc/{process}/task"):
        try:
            with open(f"/proc/{process}/task/{thread}/schedstat") as file:
                total += int(file.read().split()[0])
        except OSError:
            continue  # ended meanwhile
    return total * 1e-9


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
def daemon(program, queues, options):
    """A daemon that serves the queues, ready when the body runs, ended after it."""
    command = [str(program)] + [str(option) for option in options]
    for queue in queues:
        command += ["--queue", queue]
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        _await_queues(process, queues)
        yield process
    finally:
        process.terminate()
        process.communicate(timeout=60)


def _await_queues(process, queues, timeout=30):
    names = [os.path.join(SHARED_MEMORY, name) for queue in queues
             for name in (queue, queue + "Response")]
    end = time.monotonic() + timeout
    while not all(os.path.exists(name) for name in names):
        if process.poll() is not None:
            raise Failed(f"the daemon did not start: {process.stderr.read().decode().strip()}")
        if time.monotonic() > end:
            raise Failed("the daemon's queues did not appear")
        time.sleep(0.005)
