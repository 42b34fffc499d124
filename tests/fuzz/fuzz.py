#!/usr/bin/python3
"""Builds the fuzz targets and runs them, two at a time, on top of their corpora.

What a target finds stays in build/fuzz/findings, with the command that replays it.
"""

import argparse
import concurrent.futures
import os
import pathlib
import random
import re
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = SOURCE / "build/fuzz"
TARGETS = {"batch": 300, "session": 16, "input": 16, "reply": 140}  # largest inputs, in bytes
AT_ONCE = 2
NO_LIMIT = 10**9
# Where memory was taken is not noted, which is half of the work: the replay of a finding says it.
SANITIZER_OPTIONS = ("malloc_context_size=0:quarantine_size_mb=1:"
                     "thread_local_quarantine_size_kb=64:max_malloc_fill_size=0")


def parse(arguments):
    parser = argparse.ArgumentParser(prog="./run fuzz", description=__doc__.split("\n", 1)[0])
    parser.add_argument("--seconds", type=int, help="for each target; 60 unless --runs is given")
    parser.add_argument("--runs", type=int, help="executions of each target")
    parser.add_argument("--target", choices=TARGETS, nargs="+", default=list(TARGETS),
                        help="only these")
    parser.add_argument("--seed", type=int, default=random.randrange(1, 2**31),
                        help="repeats a run")
    options = parser.parse_args(arguments)
    if options.seconds is None and options.runs is None:
        options.seconds = 60
    return options


def build(targets):
    subprocess.run(["cmake", "--preset", "fuzz"], cwd=SOURCE, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", BUILD, "--parallel", "--target"]
                   + [f"korvex_fuzz_{target}" for target in targets], check=True,
                   stdout=sys.stderr)


def command(target, options):
    found = BUILD / "findings" / target
    grown = BUILD / "corpus" / target
    for folder in (found, grown):
        folder.mkdir(parents=True, exist_ok=True)
    limits = [f"-max_total_time={options.seconds}"] if options.seconds else []
    return [BUILD / "tests/fuzz" / f"korvex_fuzz_{target}", grown, SOURCE / "tests/fuzz/corpus" / target,
            f"-runs={options.runs or NO_LIMIT}", f"-seed={options.seed}",
            f"-max_len={TARGETS[target]}", "-len_control=0", "-print_final_stats=1", "-timeout=10",
            f"-artifact_prefix={found}/", *limits]


def fuzz(target, options):
    """One target to its end: what it did, and the inputs that broke it."""
    start = time.monotonic()
    log = BUILD / f"{target}.log"
    environment = {**os.environ, "ASAN_OPTIONS": SANITIZER_OPTIONS}
    with open(log, "w") as file:
        done = subprocess.run([str(part) for part in command(target, options)], stdout=file,
                              stderr=subprocess.STDOUT, env=environment)
    said = log.read_text(errors="replace")
    executions = re.search(r"stat::number_of_executed_units:\s*(\d+)", said)
    coverage = re.findall(r"cov: (\d+)", said)
    return {"target": target, "executions": int(executions[1]) if executions else 0,
            "seconds": time.monotonic() - start, "coverage": int(coverage[-1]) if coverage else 0,
            "inputs": re.findall(r"Test unit written to (\S+)", said), "code": done.returncode,
            "log": log}


def report(result, seed):
    speed = result["executions"] / max(result["seconds"], 1e-9)
    failed = result["code"] != 0
    print(f"{result['target']:8} {result['executions']:>12,} executions, {speed:>9,.0f} a second, "
          f"coverage {result['coverage']}, {'FAILED' if failed else '0 findings'}, seed {seed}",
          flush=True)
    if failed:
        print(f"  the log is {result['log']}")
    for found in result["inputs"]:
        print(f"  replay: {BUILD}/tests/fuzz/korvex_fuzz_{result['target']} {found}")
    return failed


def main(arguments):
    options = parse(arguments)
    build(options.target)
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        runs = [pool.submit(fuzz, target, options) for target in options.target]
        failures = [report(run.result(), options.seed)
                    for run in concurrent.futures.as_completed(runs)]
    return 1 if any(failures) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
