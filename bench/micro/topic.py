"""The library's operations one by one, each beside its limit."""

import json
import re
import subprocess

from report import plots
from report.figures import ratio_text, size_text, spread, table, time_text
from report.targets import Target

SIZES = [16, 100, 1000, 4096, 65536, 131072]

# What stands beside what: (operation, its limit, record sizes).
PAIRS = [
    ("batchPushBack", "plainCopy", SIZES),
    ("writeData", "plainCopySent", SIZES),
    ("writeSegment", "plainCopySent", SIZES),
    ("adler32Ours", "adler32Zlib", [16, 100, 1000, 4096, 131072]),
    ("flushAndReceive", "bareSendAndReceive", [4096, 65536, 262144]),
]


def run(context):
    program = context.build / "bench/micro/korvex_micro"
    context.say("micro: all operations")
    command = [str(program), "--benchmark_format=json",
               f"--benchmark_min_time={context.micro_seconds}",
               f"--benchmark_repetitions={context.micro_repetitions}",
               "--benchmark_enable_random_interleaving=true"]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    runs = {}
    for each in json.loads(done.stdout)["benchmarks"]:
        if each["run_type"] == "iteration":
            runs.setdefault(_short(each["name"]), []).append(_nanoseconds(each))
    return {name: spread(times) for name, times in runs.items()}


def _short(name):
    """`writeSegment/bytes:16/manual_time` is called `writeSegment/16`."""
    name = re.sub(r"/(manual_time|real_time|repeats:\d+)", "", name)
    return re.sub(r"/(bytes|threads):(\d+)", r"/\2", name)


def _nanoseconds(each):
    """Time per record or call: where a measurement covers several, they are counted."""
    if "items_per_second" in each:
        return 1e9 / each["items_per_second"]
    return each["real_time"]


def _ratio(results, name, peer, size):
    ours, limit = results.get(f"{name}/{size}"), results.get(f"{peer}/{size}")
    return ours["median"] / limit["median"] if ours and limit else None


def targets(results):
    most = {16: 3, 100: 3, 1000: 1.2, 4096: 1.05, 65536: 1.05, 131072: 1.05}
    aims = [Target(f"writeSegment, {size_text(size)}, beside a plain copy: time",
                   _ratio(results, "writeSegment", "plainCopySent", size), most=most[size])
            for size in SIZES]
    for size in [16, 100, 1000, 4096, 131072]:
        slower = _ratio(results, "adler32Ours", "adler32Zlib", size)
        aims.append(Target(f"Adler-32 of {size_text(size)} beside zlib's: speed",
                           1 / slower if slower else None, least=1))
    return aims


def markdown(results, plot_names):
    rows = []
    for name, peer, sizes in PAIRS:
        for size in sizes:
            ratio = _ratio(results, name, peer, size)
            if ratio:
                rows.append([f"{name}, {size_text(size)}", ratio_text(ratio),
                             _time(results[f"{name}/{size}"]), peer,
                             _time(results[f"{peer}/{size}"])])
    paired = {f"{name}/{size}" for name, peer, sizes in PAIRS for size in sizes
              for name in (name, peer)}
    others = [[name, _time(time)] for name, time in sorted(results.items()) if name not in paired]
    parts = ["## Operations one by one", "",
             "Time beside the limit in the same run; medians, smallest and largest in parentheses.",
             "", table(["operation", "times its limit", "time", "limit", "its time"], rows), "",
             table(["operation", "time"], others), ""]
    return "\n".join(parts + [f"![{name}]({name})" for name in plot_names])


def _time(time):
    return f"{time_text(time['median'])} ({time_text(time['min'])} to {time_text(time['max'])})"


def plot(results, folder):
    def points(name):
        found = [(size, results.get(f"{name}/{size}")) for size in SIZES]
        return [(size, time["median"], time["min"], time["max"]) for size, time in found if time]

    plots.lines(folder / "micro-packing.svg", "Packing one record", "record", "ns",
                [(name, points(name)) for name in
                 ["plainCopy", "plainCopySent", "batchPushBack", "writeData", "writeSegment",
                  "writeSegmentTraced"]])
    return ["micro-packing.svg"]
