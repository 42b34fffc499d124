#!/usr/bin/python3
"""The data that the cluster receives: no two streams are alike, and each can be generated again.

  streams.py SEED SIZE [FAIL_AFTER]

Writes SIZE bytes, or exits with 1 after FAIL_AFTER of them.
"""

import hashlib
import random
import sys

MIB = 2**20
BROKEN = 9  # one of so many streams comes from a command that fails half-way


class Stream:
    """One of the streams of a run, and what a producer of it runs."""

    def __init__(self, seed, number, host, queue, mean_mib):
        self.number = number
        self.host = host
        self.queue = queue
        self.size = _size_of(number, mean_mib)
        self.breaks = number % BROKEN == BROKEN - 1
        self._seed = f"{seed}/{number}"

    def command(self):
        cut = [str(self.size // 2)] if self.breaks else []
        return [sys.executable, __file__, self._seed, str(self.size)] + cut

    def digest(self):
        digest = hashlib.sha256()
        for block in _blocks(self._seed, self.size):
            digest.update(block)
        return digest.hexdigest()


def _size_of(number, mean_mib):
    """No two have the same size; the smallest have no bytes and one."""
    if number < 2:
        return number
    return mean_mib * MIB * (8 + number % 10) // 12 + number


def _blocks(seed, size):
    generator = random.Random(seed)
    for start in range(0, size, MIB):
        yield generator.randbytes(min(MIB, size - start))


def main(seed, size, fail_after=None):
    left = int(size if fail_after is None else fail_after)
    for block in _blocks(seed, int(size)):
        sys.stdout.buffer.write(block[:left])
        left = max(left - len(block), 0)
    sys.stdout.buffer.flush()
    return 0 if fail_after is None else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
