"""What streams cost besides their bytes: waiting for the other side, being short, being many."""

import os
import pathlib
import shutil
import tempfile
from contextlib import contextmanager

from report.figures import ratio_text, spread, table
from report.processes import (SHARED_MEMORY, cpu_seconds, daemon, memory_kib, run_json, run_timed,
                              timed_pipeline, write_file)
from report.targets import Aim

MB = 10**6
SLOW_SINK, SLOW_PRODUCER = 100 * MB, MB  # bytes a second
PACE = pathlib.Path(__file__).with_name("pace.py")
EMPTY, DISCARD, OUTPUT = "an empty program", "send into --discard", "send into --output, tmpfs"
COMPARED = 100  # of many streams, so many first ones and last ones
KIB = 1024
MS = 1000


def run(context):
    with tempfile.TemporaryDirectory(dir=SHARED_MEMORY, prefix="korvex-bench-") as folder:
        streams = _Streams(context, folder)
        return {"one_byte": streams.of_one_byte(), "many": streams.many(),
                "waiting_sender": streams.waiting_sender(),
                "waiting_daemon": streams.waiting_daemon(), "reply": streams.reply()}


class _Streams:
    """Daemons that store on tmpfs, and what is sent to them."""

    def __init__(self, context, folder):
        self._context = context
        self._tool = str(context.build / "tools/korvex/korvex")
        self._folder = folder
        self._queue = f"korvex-bench-{os.getpid()}"
        self._byte = self._in("byte")
        with open(self._byte, "wb") as file:
            file.write(b"x")

    def _in(self, name):
        return os.path.join(self._folder, name)

    @contextmanager
    def _daemon(self, *options, queue=""):
        with daemon(self._context.build / "tools/korvexd/korvexd", [self._queue + queue],
                    options) as process:
            yield process.pid

    def _send(self, *files, queue=""):
        return [self._tool, "send", "--quiet", "--queue", self._queue + queue, *files]

    @contextmanager
    def _store(self, name="store"):
        store = self._in(name)
        os.mkdir(store)
        yield store
        shutil.rmtree(store)

    def of_one_byte(self):
        """Whole processes, the receipt included; beside a program that does nothing."""
        self._context.say(f"streams: {self._context.short_streams} of 1 byte each way")
        found = {EMPTY: [], DISCARD: [], OUTPUT: []}
        with self._store() as store, self._daemon("--discard", queue="-d"), \
                self._daemon("--output", store, queue="-o"):
            commands = {EMPTY: ["true"], DISCARD: self._send(self._byte, queue="-d"),
                        OUTPUT: self._send(self._byte, queue="-o")}
            for _ in range(self._context.short_streams):
                for name, command in commands.items():
                    found[name].append(run_timed(command)["seconds"] * MS)
        return {name: spread(times) for name, times in found.items()}

    def many(self):
        """One after the other into one daemon; the last in turns with the first into another, so
        that both meet the same minute of the machine."""
        streams = self._context.many_streams
        self._context.say(f"streams: {streams} one after the other")
        times = {"first": [], "last": []}
        with self._store() as store, self._daemon("--output", store) as receiver:
            self._send_bytes(COMPARED)
            held = [_held(receiver)]
            self._send_bytes(streams - 2 * COMPARED)
            with self._store("fresh") as fresh, self._daemon("--output", fresh, queue="-fresh"):
                for _ in range(COMPARED):
                    times["first"] += self._send_bytes(1, queue="-fresh")
                    times["last"] += self._send_bytes(1)
            held.append(_held(receiver))
        return {"streams": streams, "held": held,
                **{which: spread(found) for which, found in times.items()}}

    def _send_bytes(self, streams, queue=""):
        return [run_timed(self._send(self._byte, queue=queue))["seconds"] * MS
                for _ in range(streams)]

    def waiting_sender(self):
        """Its CPU with a slow engine behind the daemon, less that with none."""
        seconds = self._context.slow_seconds
        write_file(self._in("file"), SLOW_SINK * seconds)
        slow = ["--exec", f"sh -c 'exec {PACE} {SLOW_SINK} >/dev/null'"]
        shares = []
        for number in range(self._context.slow_rounds):
            self._context.say(f"streams: a slow sink for {seconds} s, round {number + 1} of "
                              f"{self._context.slow_rounds}")
            runs = []
            for options in (slow, ["--discard"]):
                with self._daemon(*options):
                    runs.append(run_timed(self._send(self._in("file"))))
            shares.append((runs[0]["cpu"] - runs[1]["cpu"]) / runs[0]["seconds"] * 100)
        os.unlink(self._in("file"))
        return spread(shares)

    def waiting_daemon(self):
        """Its CPU, work included, while data trickles in."""
        seconds = self._context.slow_seconds
        write_file(self._in("file"), SLOW_PRODUCER * seconds)
        source = ["sh", "-c", f"exec {PACE} {SLOW_PRODUCER} <{self._in('file')}"]
        shares = []
        for number in range(self._context.slow_rounds):
            self._context.say(f"streams: a slow producer for {seconds} s, round {number + 1} of "
                              f"{self._context.slow_rounds}")
            with self._daemon("--discard") as receiver:
                before = cpu_seconds(receiver)
                taken, _ = timed_pipeline([source, self._send()])
                shares.append((cpu_seconds(receiver) - before) / taken * 100)
        return spread(shares)

    def reply(self):
        batches = self._context.replies
        self._context.say(f"streams: {batches} replies on an idle queue")
        program = self._context.build / "bench/growth/korvex_first_message"
        with self._daemon("--discard"):
            return {"batches": batches, **run_json([program, "--queue", self._queue, "--replies",
                                                    batches])}


def _held(process):
    return {"own_kib": memory_kib(process)["own_kib"],
            "descriptors": len(os.listdir(f"/proc/{process}/fd"))}


def targets(results):
    many, one_byte = results["many"], results["one_byte"]
    first, last = many["held"]
    return [
        Aim("CPU of a sender that waits for a sink of 100 MB/s, beyond that for --discard",
            results["waiting_sender"]["median"], most=3, unit=" %"),
        Aim("CPU of a daemon that waits for a producer of 1 MB/s",
            results["waiting_daemon"]["median"], most=1, unit=" %"),
        Aim(f"a stream of 1 byte, {DISCARD}", one_byte[DISCARD]["median"], most=4, unit=" ms"),
        Aim(f"a stream of 1 byte, {OUTPUT}", one_byte[OUTPUT]["median"], most=6, unit=" ms"),
        Aim(f"{many['streams']} streams, the last {COMPARED} beside a new daemon's first: time",
            many["last"]["median"] / many["first"]["median"], most=1.05),
        Aim(f"{many['streams']} streams: growth of the daemon's memory",
            (last["own_kib"] - first["own_kib"]) / KIB, most=0.1, unit=" MiB"),
        Aim(f"{many['streams']} streams: growth of the daemon's descriptors",
            last["descriptors"] - first["descriptors"], most=0),
        Aim("from a batch on an idle queue to its reply (99th of 100, "
            f"{results['reply']['batches']} tries)", results["reply"]["p99_ms"], most=10,
            unit=" ms"),
    ]


def markdown(results, plot_names):
    many, reply = results["many"], results["reply"]
    rows = [[f"a stream of 1 byte: {name}", *_cells(found)]
            for name, found in results["one_byte"].items()]
    rows += [[f"{text}, {OUTPUT}", *_cells(many[which])] for text, which in
             ((f"the last {COMPARED} of {many['streams']} streams", "last"),
              (f"meanwhile a new daemon's first {COMPARED}", "first"))]
    shares = [[text, *_cells(results[name])] for text, name in
              (("sender, for a sink of 100 MB/s", "waiting_sender"),
               ("daemon, for a producer of 1 MB/s", "waiting_daemon"))]
    held = [[f"after {number}", each["own_kib"], each["descriptors"]]
            for number, each in zip((COMPARED, many["streams"]), many["held"])]
    return "\n".join([
        "## Short streams, many, and slow ones", "",
        "Whole processes of `korvex send`, the receipt included.", "",
        table(["time, ms", "median", "least", "most"], rows), "",
        table(["streams", "daemon's memory, KiB", "descriptors"], held), "",
        "CPU while one side waits for the other; the sender's beyond what it takes to send the "
        "same into --discard, the daemon's with its work.", "",
        table(["% of a core", "median", "least", "most"], shares), "",
        f"From a batch on an idle queue to its reply: {reply['median_ms']:.2f} ms, "
        f"{reply['p99_ms']:.2f} ms for the 99th of 100. The queue had been idle for 5 ms to 2 s."])


def _cells(found):
    return [ratio_text(found[name]) for name in ("median", "min", "max")]


def plot(_results, _folder):
    return []
