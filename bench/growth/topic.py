"""How cost and memory grow, asked of the real daemon."""

import json
import os
import subprocess
import time

from report import plots
from report.figures import ratio_text, size_text, table
from report.processes import Failed, cpu_seconds, daemon, memory_kib, run_json, wakeups
from report.targets import Aim, Target

KIB = 1024
MIB = 2**20
GIB = 2**30
MESSAGE = 264 * KIB
DEPTH = 8
RECORD_SIZES = [16, 100, 1000, 4096, 65536, 131072]
MESSAGE_SIZES = [16 * KIB, 64 * KIB, 128 * KIB, MESSAGE, 512 * KIB, MIB, 4 * MIB, 16 * MIB]
DEPTHS = [1, 2, 4, 8, 16, 64]
QUEUES = [1, 2, 4, 8, 16, 32, 64]
IDLE_QUEUES = [32, 256, 1000]
AIM_QUEUES = 256
IDLE_MESSAGE = 16 * KIB
FIRST_MESSAGES = 100
MOST_DAEMON_NS = {16: 30, 100: 40, 1000: 110}  # of CPU a record


def run(context):
    growth = _Growth(context)
    if context.only_aims:
        return {"record_size": growth.sweep("record_size", list(MOST_DAEMON_NS))}
    return {
        "record_size": growth.sweep("record_size", RECORD_SIZES),
        "message_size": growth.sweep("message_size", MESSAGE_SIZES),
        "depth": growth.sweep("depth", DEPTHS),
        "queues": growth.sweep("queues", QUEUES),
        "stream": growth.stream(),
        "idle": [growth.idle(queues) for queues in IDLE_QUEUES],
    }


class _Growth:
    def __init__(self, context):
        self._context = context
        self._load = context.build / "bench/growth/korvex_load"
        self._first_message = context.build / "bench/growth/korvex_first_message"
        self._daemon = context.build / "tools/korvexd/korvexd"
        if not self._daemon.exists():
            raise Failed("the daemon was not built")
        self._names = [f"korvex-bench-{os.getpid()}-{number}"
                       for number in range(max(QUEUES + IDLE_QUEUES))]

    def _running_daemon(self, queues=1, message_size=MESSAGE, depth=DEPTH):
        return daemon(self._daemon, self._names[:queues],
                      ["--discard", "--max-messages", depth, "--max-message-size", message_size])

    def sweep(self, name, values):
        """One parameter varies, the others stay; the median run of several rounds each."""
        found = {value: [] for value in values}
        for number in range(self._context.growth_rounds):
            self._context.say(f"growth: {name}, round {number + 1} of "
                              f"{self._context.growth_rounds}")
            for value in values:
                found[value].append(self._point(**{name: value}))
        return [{"value": value, **_median_run(runs)} for value, runs in found.items()]

    def _point(self, record_size=1000, message_size=MESSAGE, depth=DEPTH, queues=1):
        # Small records cost more per byte; enough bytes for a steady state, few enough to wait for.
        total = self._context.sweep_bytes // (4 if record_size < 100 else 1)
        with self._running_daemon(queues, message_size, depth) as receiver:
            cpu_before = cpu_seconds(receiver.pid)
            loads = [self._start_load(name, record_size, total // queues)
                     for name in self._names[:queues]]
            reports = [_last_report(load) for load in loads]
            daemon_cpu = cpu_seconds(receiver.pid) - cpu_before
            memory = memory_kib(receiver.pid)
        records = sum(report["records"] for report in reports)
        sent = sum(report["bytes"] for report in reports)
        seconds = max(each["end"] for each in reports) - min(each["start"] for each in reports)
        producer_cpu = sum(report["cpu_seconds"] for report in reports)
        return {"ns_per_record": seconds * 1e9 / records, "bytes_per_second": sent / seconds,
                "producer_cpu_ns_per_record": producer_cpu * 1e9 / records,
                "daemon_cpu_ns_per_record": daemon_cpu * 1e9 / records,
                "cpu_ns_per_kib": (producer_cpu + daemon_cpu) * 1e9 * KIB / sent,
                "producer_own_kib": max(report["own_kib"] for report in reports),
                "daemon_own_kib": memory["own_kib"], "daemon_shared_kib": memory["shared_kib"]}

    def _start_load(self, queue, record_size, total, *options):
        return subprocess.Popen(
            [str(self._load), "--queue", queue, "--record-size", str(record_size), "--bytes",
             str(total), *options], stdout=subprocess.PIPE, text=True)

    def stream(self):
        """One stream, looked at after each doubling: what has been paid, what memory is held."""
        self._context.say(f"growth: one stream of {size_text(self._context.longest_stream)}")
        found = []
        with self._running_daemon() as receiver:
            cpu_before = cpu_seconds(receiver.pid)
            load = self._start_load(self._names[0], 1000, self._context.longest_stream,
                                    "--first-report", str(256 * MIB))
            for line in load.stdout:
                report = json.loads(line)
                memory = memory_kib(receiver.pid)
                found.append({**report, "daemon_cpu_seconds": cpu_seconds(receiver.pid) - cpu_before,
                              "daemon_own_kib": memory["own_kib"],
                              "daemon_shared_kib": memory["shared_kib"]})
            if load.wait() != 0:
                raise Failed("korvex_load failed")
        return found

    def idle(self, queues):
        """What many queues cost on which nothing happens, and how long a first message waits."""
        seconds = self._context.idle_seconds
        self._context.say(f"growth: {queues} idle queues for {seconds} s")
        with self._running_daemon(queues, IDLE_MESSAGE) as receiver:
            time.sleep(2)  # past the short pauses that follow a start
            before, start = (cpu_seconds(receiver.pid), wakeups(receiver.pid)), time.monotonic()
            time.sleep(seconds)
            taken = time.monotonic() - start
            share = (cpu_seconds(receiver.pid) - before[0]) / taken
            rate = (wakeups(receiver.pid) - before[1]) / taken
            memory = memory_kib(receiver.pid)
            first = run_json([self._first_message, "--queue"] +
                             self._names[:min(queues, FIRST_MESSAGES)])
        return {"queues": queues, "share_of_a_core": share, "wakeups_per_second": rate,
                "first_message": first, **memory}


def _last_report(load):
    output, _ = load.communicate()
    if load.returncode != 0:
        raise Failed("korvex_load failed")
    return json.loads(output.strip().split("\n")[-1])


def _median_run(runs):
    """The run of median speed, so that all its figures belong together; and the spread."""
    ordered = sorted(runs, key=lambda run: run["ns_per_record"])
    return {**ordered[len(ordered) // 2], "ns_per_record_min": ordered[0]["ns_per_record"],
            "ns_per_record_max": ordered[-1]["ns_per_record"]}


def targets(results):
    found = {point["value"]: point for point in results["record_size"]}
    aims = [Aim(f"daemon's CPU per record of {size_text(size)}, into --discard",
                found[size]["daemon_cpu_ns_per_record"], most=most, unit=" ns")
            for size, most in MOST_DAEMON_NS.items()]
    return aims + (_limits(results) if "stream" in results else [])


def _limits(results):
    stream = results["stream"]
    idle = next(each for each in results["idle"] if each["queues"] == AIM_QUEUES)
    first, last = _steps(stream)[0], _steps(stream)[-1]
    queue_kib = DEPTH * MESSAGE / KIB
    allowed_daemon = (queue_kib + 2 * MESSAGE / KIB) / KIB + 16
    producer = max(each["own_kib"] for each in stream) / KIB
    held = max(each["daemon_own_kib"] + each["daemon_shared_kib"] for each in stream) / KIB
    return [
        Target("producer's own memory over the longest stream", producer,
               most=MESSAGE / MIB + 8, unit=" MiB"),
        Target("daemon's memory over the longest stream, queues included", held,
               most=allowed_daemon, unit=" MiB"),
        Target("growth of both ends' memory from the first report to the last",
               (_held_kib(stream[-1]) - _held_kib(stream[0])) / KIB, most=1, unit=" MiB"),
        Target("cost per record at the end of the longest stream, beside its start",
               last["ns_per_record"] / first["ns_per_record"], most=1.1),
        Target(f"CPU of {idle['queues']} idle queues", idle["share_of_a_core"] * 100, most=1,
               unit=" %"),
        Target(f"wakeups a second of {idle['queues']} idle queues", idle["wakeups_per_second"],
               most=100),
        Target(f"first message on one of {idle['queues']} idle queues (99th of 100)",
               idle["first_message"]["attached"]["p99_ms"], most=10, unit=" ms"),
    ]


def _held_kib(report):
    return report["own_kib"] + report["daemon_own_kib"] + report["daemon_shared_kib"]


def _steps(stream):
    """What each part between two reports cost."""
    steps = []
    before = {"records": 0, "bytes": 0, "seconds": 0, "cpu_seconds": 0, "daemon_cpu_seconds": 0}
    for report in stream:
        records = report["records"] - before["records"]
        if records > 0:
            steps.append({
                "bytes": report["bytes"],
                "ns_per_record": (report["seconds"] - before["seconds"]) * 1e9 / records,
                "producer_cpu": (report["cpu_seconds"] - before["cpu_seconds"]) * 1e9 / records,
                "daemon_cpu": (report["daemon_cpu_seconds"] - before["daemon_cpu_seconds"]) * 1e9
                              / records,
                "own_kib": report["own_kib"], "daemon_own_kib": report["daemon_own_kib"],
                "daemon_shared_kib": report["daemon_shared_kib"]})
            before = report
    return steps


SWEEPS = [("record_size", "Record size", size_text), ("message_size", "Batch size", size_text),
          ("depth", "Queue depth", str), ("queues", "Queues on one daemon", str)]


def markdown(results, plot_names):
    parts = ["## Growth", "",
             f"Real producers into one `korvexd --discard`. Unless varied: 1000-byte records, "
             f"batches of {size_text(MESSAGE)}, {DEPTH} deep, one queue.", ""]
    for name, title, text in _measured_sweeps(results):
        parts += [f"### {title}", "", _sweep_table(title.lower(), results[name], text), ""]
    parts += _long_parts(results) if "stream" in results else []
    return "\n".join(parts + [f"![{name}]({name})" for name in plot_names])


def _measured_sweeps(results):
    return [sweep for sweep in SWEEPS if sweep[0] in results]


def _long_parts(results):
    parts = ["### Length of one stream", "", _stream_table(results["stream"]), ""]
    parts += ["### Idle", "",
              "Queues on one daemon on which nothing happens; then how long the first message on "
              "each of 100 of them waits, from a producer that was there before and from one that "
              "comes just now: the median, and the 99th of 100.", "",
              _idle_table(results["idle"]), ""]
    return parts


def _sweep_table(first_head, points, text):
    best = min(point["cpu_ns_per_kib"] for point in points)
    rows = [[text(point["value"]), ratio_text(point["cpu_ns_per_kib"] / best),
             f"{point['ns_per_record']:.1f} ({point['ns_per_record_min']:.1f} to "
             f"{point['ns_per_record_max']:.1f})",
             f"{point['bytes_per_second'] / 1e9:.2f}",
             f"{point['producer_cpu_ns_per_record']:.1f}",
             f"{point['daemon_cpu_ns_per_record']:.1f}",
             f"{point['producer_own_kib'] / KIB:.1f}", f"{point['daemon_own_kib'] / KIB:.1f}",
             f"{point['daemon_shared_kib'] / KIB:.1f}"] for point in points]
    return table([first_head, "CPU per byte, times the best", "ns per record", "GB/s",
                  "producer CPU ns", "daemon CPU ns", "producer MiB", "daemon MiB",
                  "of queues MiB"], rows)


def _idle_table(idle):
    rows = [[each["queues"], f"{each['share_of_a_core'] * 100:.2f}",
             f"{each['wakeups_per_second']:.0f}",
             *(f"{each['first_message'][producer][figure]:.2f}"
               for producer in ("attached", "new") for figure in ("median_ms", "p99_ms")),
             f"{each['own_kib'] / KIB:.1f}"] for each in idle]
    return table(["queues", "% of a core", "wakeups a second", "first message ms", "99th",
                  "new producer's ms", "99th", "daemon MiB"], rows)


def _stream_table(stream):
    steps = _steps(stream)
    first = steps[0]["ns_per_record"]
    rows = [[size_text(step["bytes"] // MIB * MIB), ratio_text(step["ns_per_record"] / first),
             f"{step['ns_per_record']:.1f}", f"{step['producer_cpu']:.1f}",
             f"{step['daemon_cpu']:.1f}", f"{step['own_kib'] / KIB:.1f}",
             f"{step['daemon_own_kib'] / KIB:.1f}", f"{step['daemon_shared_kib'] / KIB:.1f}"]
            for step in steps]
    return table(["up to", "cost, times the first part", "ns per record", "producer CPU ns",
                  "daemon CPU ns", "producer MiB", "daemon MiB", "of queues MiB"], rows)


def plot(results, folder):
    names = []
    for name, title, text in _measured_sweeps(results):
        points = [(each["value"], each["ns_per_record"], each["ns_per_record_min"],
                   each["ns_per_record_max"]) for each in results[name]]
        plots.lines(folder / f"growth-{name}.svg", title, title.lower(), "ns per record",
                    [("time per record", points)], sizes_on_x=text is size_text)
        names.append(f"growth-{name}.svg")
    if "stream" not in results:
        return names
    steps = _steps(results["stream"])
    plots.lines(folder / "growth-stream.svg", "One stream", "bytes so far", "ns per record",
                [("time per record", [(step["bytes"] // MIB * MIB,) + (step["ns_per_record"],) * 3
                                      for step in steps])], logarithmic_y=False)
    return names + ["growth-stream.svg"]
