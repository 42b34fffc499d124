"""The side-by-side comparison: rounds over all rows, so that a change of the machine's mood meets
every row alike."""

from report import plots
from report.figures import rate_text, ratio_text, size_text, spread, table, time_text
from report.processes import Failed, run_json
from report.targets import Aim, Target

SIZES = [16, 100, 1000, 4096, 65536, 131072]
HEADER = 48
KIB = 1024

# The shape that ratios are told for, beside which the peers batch: what the daemon makes by default.
MESSAGE = 264 * KIB
DEPTH = 8
SHAPES = [(64 * KIB, 4), (64 * KIB, 16), (MESSAGE, 4), (MESSAGE, DEPTH), (MESSAGE, 16),
          (512 * KIB, 8), (1024 * KIB, 4), (4096 * KIB, 4)]

# The most messages that the kernel's own queue holds without special settings.
RECORD_DEPTH = 10


class Row:
    """One way of carrying records."""

    def __init__(self, name, label, transport, framing, message=MESSAGE, depth=DEPTH):
        self.name = name
        self.label = label
        self.transport = transport
        self.framing = framing
        self.message = message
        self.depth = depth

    def carries(self, size):
        return self.framing == "record" or HEADER + size + 8 <= self.message

    def arguments(self, size, records):
        return ["--transport", self.transport, "--framing", self.framing, "--record-size", size,
                "--records", records, "--message-size", self.message, "--depth", self.depth]


def shaped(name, message, depth):
    return f"{name}-{message // KIB}k-{depth}"


def rows():
    found = []
    for message, depth in SHAPES:
        shape = f"{size_text(message)} x {depth}"
        found.append(Row(shaped("korvex", message, depth), f"korvex, {shape}", "korvex", "batch",
                         message, depth))
        found.append(Row(shaped("bare", message, depth), f"bare queue, {shape}, polled", "queue",
                         "opaque", message, depth))
    shape = f"{size_text(MESSAGE)} x {DEPTH}"
    found += [
        Row("fetched", f"bare queue, {shape}, polled, bytes fetched ahead", "queue-fetched", "opaque"),
        Row("manual", f"bare queue, {shape}, blocking", "queue-manual", "opaque"),
        Row("manual-batch", f"bare queue + batch, {shape}, blocking", "queue-manual", "batch"),
        Row("queue-record", "bare queue, a message per record, polled", "queue", "record", depth=1000),
        Row("manual-record", "bare queue, a message per record, blocking", "queue-manual", "record",
            depth=1000),
    ]
    peers = [("posix-queue", "POSIX queue"), ("pipe", "pipe"), ("unix-socket", "Unix socket"),
             ("zeromq", "ZeroMQ ipc"), ("nng", "nng ipc"), ("iceoryx", "iceoryx")]
    for transport, label in peers:
        found.append(Row(f"{transport}-record", f"{label}, a message per record", transport,
                         "record", depth=RECORD_DEPTH))
        found.append(Row(f"{transport}-batch", f"{label} + batch, {shape}", transport, "batch"))
    found.append(Row("copy", "plain copy in one process", "copy", "batch"))
    return found


def run(context):
    program = context.build / "bench/compare/korvex_compare"
    available = run_json([program, "--list"])
    missing = sorted(name for name, present in available.items() if not present)
    wanted = [row for row in rows() if row.transport not in missing and context.wants_row(row.name)]
    plan, skipped = _calibrate(context, program, wanted)
    runs = {}
    for number in range(context.rounds):
        context.say(f"compare: round {number + 1} of {context.rounds}")
        for row, size, records in plan:
            try:
                result = run_json([program] + row.arguments(size, records))
            except Failed as failure:
                skipped.append({"row": row.name, "size": size,
                                "why": f"round {number + 1} failed: {failure}"})
                continue
            runs.setdefault((row.name, size), []).append(result)
    results = [_summary(name, size, found) for (name, size), found in runs.items()]
    return {"rows": {row.name: row.label for row in wanted}, "results": results,
            "missing": missing, "skipped": skipped}


def _calibrate(context, program, wanted):
    """How many records each row carries in about the time of one measurement."""
    plan, skipped = [], []
    for row in wanted:
        context.say(f"compare: calibrating {row.label}")
        for size in context.sizes(SIZES):
            if not row.carries(size):
                skipped.append({"row": row.name, "size": size, "why": "larger than the batch"})
                continue
            try:
                plan.append((row, size, _records_for(context.seconds, program, row, size)))
            except Failed as failure:
                skipped.append({"row": row.name, "size": size, "why": str(failure)})
    return plan, skipped


def _records_for(seconds, program, row, size):
    records = 2000
    while True:
        took = max(run_json([program] + row.arguments(size, records))["seconds"], 1e-5)
        if took >= seconds / 3:
            return max(1, int(records * seconds / took))
        records = int(records * min(50, 1.1 * seconds / took)) + 1


def _summary(name, size, runs):
    # Opaque messages hold no records; they are told per as many bytes as a record takes.
    per_record = [run["seconds"] * 1e9 * (HEADER + size) / run["bytes"] for run in runs]
    return {
        "row": name,
        "size": size,
        "ns_per_record": spread(per_record),
        "bytes_per_second": spread([run["bytes"] / run["seconds"] for run in runs]),
        "producer_peak_kib": max(run["producer"]["peak_kib"] for run in runs),
        "consumer_peak_kib": max(run["consumer"]["peak_kib"] for run in runs),
        "cpu_ns_per_record": spread([
            (run["producer"]["cpu_seconds"] + run["consumer"]["cpu_seconds"]) * 1e9
            * (HEADER + size) / run["bytes"] for run in runs]),
        "bytes": runs[0]["bytes"],
        "note": runs[0]["note"],
    }


class Found:
    """The results by row and size."""

    def __init__(self, results):
        self._by_key = {(each["row"], each["size"]): each for each in results["results"]}

    def rate(self, row, size):
        found = self._by_key.get((row, size))
        return found["bytes_per_second"]["median"] if found else None

    def ratio(self, row, peer, size):
        """How many times as fast `row` is as `peer`."""
        ours, theirs = self.rate(row, size), self.rate(peer, size)
        return ours / theirs if ours and theirs else None

    def get(self, row, size):
        return self._by_key.get((row, size))


OURS = shaped("korvex", MESSAGE, DEPTH)
BARE = shaped("bare", MESSAGE, DEPTH)
COPYING = ["posix-queue", "pipe", "unix-socket", "zeromq", "nng"]
PEERS = COPYING + ["iceoryx"]

# What a row of korvex must reach of each, by record size.
AIMS = {"fetched": {16: 0.75, 100: 0.85, **dict.fromkeys(SIZES[2:], 0.97)},
        "iceoryx-batch": {16: 0.95, 100: 0.95}}
AIM_ROWS = [OURS, *AIMS]

# What a reader looks for first; all other rows are tables further down.
MAIN = ([OURS, "fetched", "manual-batch"] + [f"{peer}-batch" for peer in PEERS]
        + ["pipe-record", "zeromq-record", "copy"])


def targets(results):
    found = Found(results)
    aims = _aims(results, found)

    def aim(what, peer, sizes, least):
        for size in sizes:
            aims.append(Target(f"end to end, {size_text(size)} records, beside {what}",
                               found.ratio(OURS, peer, size), least=least))

    labels = results["rows"]
    aim(labels.get(BARE, BARE), BARE, [16], 0.7)
    aim(labels.get(BARE, BARE), BARE, SIZES[1:], 0.9)
    aim(labels.get("manual-batch", "manual"), "manual-batch", SIZES, 1.3)
    for peer in PEERS:
        aim(labels.get(f"{peer}-record", peer), f"{peer}-record", [16, 100], 50)
        aim(labels.get(f"{peer}-record", peer), f"{peer}-record", [1000], 8)
    for peer in COPYING:
        aim(labels.get(f"{peer}-batch", peer), f"{peer}-batch", SIZES, 1.5)
    aim(labels.get("iceoryx-batch", "iceoryx"), "iceoryx-batch", [1000], 0.85)
    return aims


def _aims(results, found):
    return [Aim(f"end to end, {size_text(size)} records, beside {results['rows'].get(peer, peer)}: "
                "speed", found.ratio(OURS, peer, size), least=least,
                why=None if peer in results["rows"] else "not in this build")
            for peer, sizes in AIMS.items() for size, least in sizes.items()]


def markdown(results, plot_names):
    found = Found(results)
    labels = results["rows"]
    sizes = sorted({each["size"] for each in results["results"]})
    parts = ["## Beside other transports", "",
             f"How many times as fast `{labels.get(OURS, OURS)}` is as each row; a row above 1 is "
             "slower than korvex. Medians.", ""]
    heads = ["row"] + [size_text(size) for size in sizes]

    def rows_of(cell, names=labels):
        return [[labels[name]] + [cell(name, size) for size in sizes] for name in names]

    def ratio_cell(name, size):
        ratio = found.ratio(OURS, name, size)
        return ratio_text(ratio) if ratio else "-"

    def time_cell(name, size):
        each = found.get(name, size)
        if not each:
            return "-"
        time = each["ns_per_record"]
        return f"{time_text(time['median'])} ({time_text(time['min'])} to {time_text(time['max'])})"

    def rate_cell(name, size):
        rate = found.rate(name, size)
        return rate_text(rate) if rate else "-"

    first = [name for name in MAIN if name in labels]
    others = [name for name in labels if name not in MAIN]
    parts += [table(heads, rows_of(ratio_cell, first)), "", "Other shapes and framings:", "",
              table(heads, rows_of(ratio_cell, others)), "",
              "Time per record, median (smallest to largest); for opaque messages, per as many "
              "bytes:", "", table(heads, rows_of(time_cell)), "",
              "Bytes per second, headers included:", "", table(heads, rows_of(rate_cell)), ""]
    parts += _remarks(results)
    parts += [f"![{name}]({name})" for name in plot_names]
    return "\n".join(parts)


def _remarks(results):
    parts = []
    if results["missing"]:
        parts += ["Missing on this machine, so not compared: " + ", ".join(results["missing"]), ""]
    notes = {(each["row"], each["note"]) for each in results["results"] if each["note"]}
    parts += [f"- {results['rows'][row]}: {note}" for row, note in sorted(notes)]
    parts += [f"- {results['rows'][each['row']]}, {size_text(each['size'])}: not measured, "
              f"{each['why']}" for each in results["skipped"]]
    return parts + [""]


def plot(results, folder):
    found = Found(results)
    sizes = sorted({each["size"] for each in results["results"]})

    def series(names):
        drawn = []
        for name in names:
            points = []
            for size in sizes:
                each = found.get(name, size)
                if each:
                    rate = each["bytes_per_second"]
                    points.append((size, rate["median"] / 1e9, rate["min"] / 1e9,
                                   rate["max"] / 1e9))
            drawn.append((results["rows"].get(name, name), points))
        return [each for each in drawn if each[1]]

    plots.lines(folder / "compare-batched.svg", "Carried with batches", "record", "GB/s",
                series([OURS, BARE, "fetched", "manual", "manual-batch", "copy"]
                       + [f"{peer}-batch" for peer in PEERS]))
    plots.lines(folder / "compare-plain.svg", "Carried one message per record", "record", "GB/s",
                series([OURS, "queue-record", "manual-record"]
                       + [f"{peer}-record" for peer in PEERS]))
    plots.lines(folder / "compare-shapes.svg", "Message size and depth", "record", "GB/s",
                series([shaped("korvex", *shape) for shape in SHAPES]
                       + [shaped("bare", *shape) for shape in SHAPES]))
    return ["compare-batched.svg", "compare-plain.svg", "compare-shapes.svg"]
