#!/usr/bin/python3
"""pace.py RATE: copies standard input to standard output, evenly, so many bytes a second."""

import os
import sys
import time

PIECES_A_SECOND = 1000


def main(rate):
    due = time.monotonic()
    with open(0, "rb", closefd=False) as source:
        while piece := source.read(rate // PIECES_A_SECOND):
            os.write(1, piece)
            due += 1 / PIECES_A_SECOND
            time.sleep(max(0, due - time.monotonic()))


if __name__ == "__main__":
    main(int(sys.argv[1]))
