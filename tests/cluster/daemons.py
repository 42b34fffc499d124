"""The daemons of several hosts, and what sends them streams."""

import ctypes
import json
import os
import pathlib
import signal
import subprocess
import time

from ceph import Failed

HOSTS = 4
PATIENCE = "120"  # seconds; a store that has lost a part stalls for a while
SET_CHILD_SUBREAPER = 36


def adopt_orphans():
    """An engine whose input has ended may outlive its daemon; it comes to this process then."""
    ctypes.CDLL(None).prctl(SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def kill_what_is_left():
    """Every child, and what comes to this process with its death."""
    children = pathlib.Path(f"/proc/self/task/{os.getpid()}/children")
    while found := [int(child) for child in children.read_text().split()]:
        for child in found:
            os.kill(child, signal.SIGKILL)
        for child in found:
            os.waitpid(child, 0)


def kill_with_this_process(number):
    """What precedes a command, so that it ends with this process."""
    return ["setpriv", "--pdeathsig", number]


class Hosts:
    """The daemons, each with its own queues."""

    def __init__(self, programs, folder, engine, streams, environment):
        self._folder = folder
        self._streams = streams
        self._processes = []
        for host in range(HOSTS):
            queues = [word for stream in streams if stream.host == host
                      for word in ("--queue", stream.queue)]
            with open(self._log(host), "wb") as log:
                self._processes.append(subprocess.Popen(
                    kill_with_this_process("TERM") +
                    [programs / "tools/korvexd/korvexd", "--exec", engine, "--exec-timeout",
                     PATIENCE, "--stats", self._statistics(host)] + queues,
                    env=environment, stderr=log, start_new_session=True))

    def __enter__(self):
        try:
            for stream in self._streams:
                await_until(f"queue {stream.queue}", lambda s=stream: is_queue(s), self._check)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process in self._processes:
            process.terminate()
        for host, process in enumerate(self._processes):
            if process.wait() != 0:
                raise Failed(f"host {host} ended with {process.returncode}: {self._last(host)}")

    def bytes_taken(self):
        self._check()
        return sum(self._statistic(host, "bytes") for host in range(HOSTS))

    def costs(self, host):
        """Seconds of CPU and the peak of resident memory in MiB, both of the daemon alone."""
        process = self._processes[host].pid
        fields = pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()
        ticks = int(fields[11]) + int(fields[12])
        status = pathlib.Path(f"/proc/{process}/status").read_text()
        peak = int(status.partition("VmHWM:")[2].split()[0])
        return ticks / os.sysconf("SC_CLK_TCK"), peak / 1024

    def _check(self):
        for host, process in enumerate(self._processes):
            if process.poll() is not None:
                raise Failed(f"host {host} is gone: {self._last(host)}")

    def _statistic(self, host, name):
        try:
            return json.loads(self._statistics(host).read_text())["total"][name]
        except FileNotFoundError:
            return 0

    def _statistics(self, host):
        return self._folder / f"host{host}.json"

    def _log(self, host):
        return self._folder / f"host{host}.log"

    def _last(self, host):
        return self._log(host).read_text().strip().split("\n")[-1]


class Producers:
    """All of them at once. Each answers with an exit code and a reason."""

    def __init__(self, programs, streams):
        self._processes = {
            stream: subprocess.Popen(
                kill_with_this_process("TERM") +
                [programs / "tools/korvex/korvex", "send", "--json", "--queue", stream.queue,
                 "--timeout", PATIENCE, "--receipt-timeout", PATIENCE, "--from-command", "--"] +
                stream.command(),
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                text=True, start_new_session=True)
            for stream in streams}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self._processes.values():
            process.terminate()
        for process in self._processes.values():
            process.wait()
            process.stdout.close()

    def running(self):
        return sum(process.poll() is None for process in self._processes.values())

    def results(self):
        """What each said in the end, by stream."""
        return {stream: _result(process) for stream, process in self._processes.items()}


def _result(process):
    said = process.communicate()[0]
    return json.loads(said) if said else {"exitCode": process.returncode, "message": ""}


def is_queue(stream):
    return os.path.exists(f"/dev/shm/{stream.queue}Response")


def await_until(what, is_so, look=lambda: None, seconds=600):
    end = time.monotonic() + seconds
    while not is_so():
        look()
        if time.monotonic() > end:
            raise Failed(f"{what}: not within {seconds} s")
        time.sleep(0.05)
