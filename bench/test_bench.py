#!/usr/bin/python3
"""What is read from the kernel and from results, without a measurement."""

import subprocess
import sys
import unittest

from report.processes import cpu_seconds
from report.targets import Aim, Target, markdown
from tools import topic as tools


class Targets(unittest.TestCase):
    def test_say_whether_they_are_met(self):
        for target, verdict in [(Target("a", 1.5, least=1.5), "met"),
                                (Target("a", 1.4, least=1.5), "**not met**"),
                                (Target("a", 3, most=3), "met"),
                                (Target("a", 3.1, most=3), "**not met**"),
                                (Target("a", None, most=3), "-")]:
            self.assertEqual(target.row()[-1], verdict)

    def test_show_figure_bound_and_reason(self):
        rows = markdown([Aim("a", 2.5, most=3, unit=" ms"),
                         Aim("b", None, least=3, why="no peer")]).split("\n")[2:]
        self.assertEqual(rows, ["| a | 2.5 ms | ≤ 3 ms | met |",
                                "| b | not measured: no peer | ≥ 3 | - |"])


class FilesStored(unittest.TestCase):
    SECONDS = {tools.DISCARD: 1, tools.CAT: 2, tools.OPENSSL: 4, tools.VERIFY: 1, tools.SUMS: 5,
               "send into --output, disk": 5, "cp FILE COPY; sync COPY, disk": 2,
               "tee >(sha256sum) >COPY; sync COPY, disk": 15}

    def aims(self):
        results = {"missing": {tools.XXH128: "no option", tools.TMPFS: "no room"},
                   "results": {name: {"seconds": {"median": seconds}}
                               for name, seconds in self.SECONDS.items()}}
        return [aim for aim in tools.targets(results) if aim.is_felt]

    def test_are_held_beside_the_slowest_peer(self):
        self.assertEqual([aim.found for aim in self.aims()],
                         [None, None, None, 5 / 4, None, 3, 5])

    def test_have_a_reason_where_a_row_is_missing(self):
        self.assertEqual([aim.why for aim in self.aims() if aim.found is None],
                         ["no room"] * 3 + ["no option"])


class CpuSeconds(unittest.TestCase):
    BUSY = """
import sys, threading, time
def spin():
    while time.thread_time() < 0.05: pass
thread = threading.Thread(target=spin)
thread.start()
thread.join()
print(flush=True)
sys.stdin.read()
"""

    def test_count_threads_that_have_ended(self):
        with subprocess.Popen([sys.executable, "-c", self.BUSY], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            self.assertGreaterEqual(cpu_seconds(process.pid), 0.05)
            process.stdin.close()


if __name__ == "__main__":
    unittest.main()
