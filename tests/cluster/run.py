#!/usr/bin/python3
"""Sends streams into a distributed store that loses one of its parts half-way.

Starts a store of several processes, four daemons as four hosts would run them, and 40 producers at
once. Kills one of the object stores half-way and starts it again. In the end every stream is in the
store, byte for byte, or its producer has failed and nothing of it is there; else this exits with 1.
"""

import argparse
import contextlib
import os
import pathlib
import shlex
import signal
import sys
import tempfile
import time

from bucket import ENGINE, Bucket, defects, environment_of
from ceph import STORES, Cluster, Failed
from daemons import (HOSTS, Hosts, Producers, adopt_orphans, await_until,
                     kill_what_is_left)
from streams import BROKEN, MIB, Stream

VICTIM = 1  # of the object stores
FEWEST_STREAMS = HOSTS * BROKEN  # so that each host has one whose command fails


def say(text):
    print(f"== {text}", flush=True)


def lose_a_store(cluster, hosts, producers, total):
    await_until("half of the data", lambda: hosts.bytes_taken() >= total // 2)
    process = cluster.kill_store(VICTIM)
    say(f"killed object store {VICTIM} (kill -9 {process}) after {hosts.bytes_taken() / MIB:.0f} "
        f"of {total / MIB:.0f} MiB; {producers.running()} streams are open")
    if producers.running() == 0:
        raise Failed("the object store was killed too late: every stream had ended")
    cluster.await_stores_up(STORES - 1)
    say(f"the monitor has noticed; {producers.running()} streams are open")
    cluster.start_store(VICTIM)
    cluster.await_stores_up(STORES)
    say(f"it is back; {producers.running()} streams are open")


def print_table(streams, results, wrong, costs, seconds):
    print("\n| host | streams | stored and equal | failed, nothing stored | wrong | MiB stored "
          "| MiB/s | daemon's CPU s | its peak MiB |\n|---|" + "---:|" * 8)
    for host in range(HOSTS):
        mine = [stream for stream in streams if stream.host == host]
        good = [stream for stream in mine if stream not in wrong]
        stored = [stream for stream in good if results[stream]["exitCode"] == 0]
        mib = sum(stream.size for stream in stored) / MIB
        cpu, peak = costs[host]
        print(f"| {host} | {len(mine)} | {len(stored)} | {len(good) - len(stored)} "
              f"| {len(mine) - len(good)} | {mib:.0f} | {mib / seconds:.1f} | {cpu:.2f} "
              f"| {peak:.1f} |")
    print(flush=True)


def print_failures(results):
    for stream, result in results.items():
        if result["exitCode"] != 0:
            print(f"   {stream.queue}: exit code {result['exitCode']}, {result['message']}")


def expect_noticed(bucket, results):
    """A check that cannot fail shows nothing, so the store is damaged and checked again."""
    stored = [stream for stream, result in results.items() if result["exitCode"] == 0]
    failed = [stream for stream, result in results.items() if result["exitCode"] != 0]
    if len(stored) < len(results) // 2:
        raise Failed(f"{len(stored)} of {len(results)} streams were stored, expected at least half")
    spoiled = bucket.spoil(stored, failed)
    found = defects(results, bucket)
    for stream, text in found.items():
        print(f"   noticed: {stream.queue if stream else ''} {text}")
    if set(found) != spoiled:
        raise Failed(f"{len(spoiled)} streams were spoiled, {len(found)} noticed")


def make_streams(options):
    return [Stream(options.seed, number, number % HOSTS,
                   f"korvex-cluster-{os.getpid()}-host{number % HOSTS}-{number}", options.mib)
            for number in range(options.streams)]


def send_all(options, folder, cluster, streams):
    """What the producers said, how long it took, and what it cost each daemon."""
    total = sum(stream.size for stream in streams)
    say(f"start {HOSTS} hosts with {len(streams)} queues in all: korvexd --exec {shlex.quote(ENGINE)}")
    with Hosts(options.build, folder, ENGINE, streams, environment_of(cluster)) as hosts:
        say(f"start {len(streams)} streams at once, {total / MIB:.0f} MiB (--seed {options.seed}); "
            f"the commands of {sum(stream.breaks for stream in streams)} fail half-way")
        start = time.monotonic()
        with Producers(options.build, streams) as producers:
            lose_a_store(cluster, hosts, producers, total)
            results = producers.results()
        seconds = time.monotonic() - start
        say(f"all producers have ended after {seconds:.1f} s; those that failed:")
        print_failures(results)
        return results, seconds, [hosts.costs(host) for host in range(HOSTS)]


def run(options, folder, cluster):
    streams = make_streams(options)
    bucket = Bucket(environment_of(cluster))
    results, seconds, costs = send_all(options, folder, cluster, streams)
    cluster.await_clean()
    say("every object is in three places; compare each with its producer's data")
    wrong = defects(results, bucket)
    print_table(streams, results, wrong, costs, seconds)
    print(f"unfinished uploads that the killed engines have left: {bucket.unfinished()}")
    for stream, text in wrong.items():
        print(f"WRONG: {stream.queue if stream else ''} {text}")
    if wrong:
        return 1
    say("change an object, remove one, add one, and compare again")
    expect_noticed(bucket, results)
    say("every stream is stored and equal, or has failed and left nothing")
    return 0


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=pathlib.Path, help="build folder of the programs")
    parser.add_argument("--streams", type=int, default=40, 
                        help=f"at least {FEWEST_STREAMS}; default 40")
    parser.add_argument("--mib", type=int, default=24, help="of a stream, roughly; default 24")
    parser.add_argument("--seed", type=int, default=int(time.time()), help="of the data")
    options = parser.parse_args(arguments)
    if options.streams < FEWEST_STREAMS or options.mib < 1:
        parser.error(f"expected at least {FEWEST_STREAMS} streams, and of at least 1 MiB")
    return options


def main(arguments):
    options = parse(arguments)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    try:
        with contextlib.ExitStack() as stack:
            folder = pathlib.Path(stack.enter_context(
                tempfile.TemporaryDirectory(prefix="korvex-cluster-")))
            adopt_orphans()
            stack.callback(kill_what_is_left)
            say(f"start the store in {folder}: a monitor, a manager, {STORES} object stores and "
                "an S3 gateway")
            return run(options, folder, stack.enter_context(Cluster(folder)))
    except Failed as failure:
        print(f"cluster: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 128 + signal.SIGINT


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
