"""Tests of running test programs."""

import os
import pathlib
import select
import tempfile
import unittest

from programs import Program, run

BIN = pathlib.Path("/bin")


def ends(process):
    """Whether a process that was killed a moment ago is gone, or goes within a minute."""
    try:
        descriptor = os.pidfd_open(process)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([descriptor], [], [], 60)[0])
    finally:
        os.close(descriptor)


def shell(script, patience):
    return run(Program("sh", ("-c", script)), BIN, patience)


class Run(unittest.TestCase):
    def test_is_over_when_the_program_is_whatever_it_left_behind(self):
        ending = shell("echo '[  FAILED  ] Suite.Test (1 ms)'; sleep 600 & exit 3", 300)
        self.assertEqual((ending.complaint, ending.is_late), ("sh: Suite.Test", False))

    def test_leaves_nothing_that_runs_on(self):
        with tempfile.NamedTemporaryFile() as place:
            shell(f"setsid sh -c 'echo $$ > {place.name}; exec sleep 600' & "
                  f"until [ -s {place.name} ]; do sleep 0.01; done", 300)
            left = int(place.read())
        self.assertTrue(ends(left))

    def test_is_late_when_the_program_does_not_end(self):
        ending = shell("exec sleep 600", 0.1)
        self.assertTrue(ending.is_late)
        self.assertEqual(ending.complaint, "sh: no end within 0 s")

    def test_shards_share_the_tests(self):
        program = Program("sh", shards=2)
        self.assertEqual([each["GTEST_SHARD_INDEX"] for each in program.shard_environments()],
                         ["0", "1"])


if __name__ == "__main__":
    unittest.main()
