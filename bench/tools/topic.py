"""Whole files through the command-line tools, beside what people use today."""

import os
import shutil
import tempfile

from report import plots
from report.figures import rate_text, ratio_text, size_text, spread, table
from report.processes import (Failed, cpu_seconds, daemon, memory_kib, timed_pipeline,
                              write_file)
from report.targets import Target

DISCARD = "korvex send, korvexd --discard"
OUTPUT = "korvex send, korvexd --output"
CAT = "cat FILE | cat >/dev/null"
PIPELINES = {
    CAT: [["cat", "FILE"], ["cat"]],
    "pv FILE | cat >/dev/null": [["pv", "-q", "FILE"], ["cat"]],
    "cp FILE COPY": [["cp", "FILE", "COPY"]],
    "cp FILE COPY; sync COPY": [["sh", "-c", "cp FILE COPY && sync COPY"]],
}


def run(context):
    if not (context.build / "tools/korvexd/korvexd").exists():
        raise Failed("the daemon was not built")
    missing = [name for name in ("pv",) if shutil.which(name) is None]
    with tempfile.TemporaryDirectory(dir=context.output, prefix="tools-") as folder:
        bench = _Bench(context, folder, missing)
        runs = {}
        for number in range(context.tool_rounds):
            context.say(f"tools: round {number + 1} of {context.tool_rounds}")
            for name, measure in bench.rows():
                runs.setdefault(name, []).append(measure())
    return {"bytes": context.file_bytes, "missing": missing,
            "results": {name: _summary(found) for name, found in runs.items()}}


def _summary(runs):
    return {name: spread([run[name] for run in runs]) for name in runs[0]}


class _Bench:
    """The file, and every way of moving it once."""

    def __init__(self, context, folder, missing):
        self._tool = context.build / "tools/korvex/korvex"
        self._daemon = context.build / "tools/korvexd/korvexd"
        self._missing = missing
        self._queue = f"korvex-bench-{os.getpid()}"
        self._file = os.path.join(folder, "file")
        self._copy = os.path.join(folder, "copy")
        self._store = os.path.join(folder, "store")
        write_file(self._file, context.file_bytes)

    def rows(self):
        yield DISCARD, lambda: self._send(["--discard"])
        yield OUTPUT, lambda: self._send(["--output", self._store])
        for name, commands in PIPELINES.items():
            if not any(command[0] in self._missing for command in commands):
                yield name, lambda commands=commands: self._pipeline(commands)

    def _send(self, daemon_options):
        os.mkdir(self._store)
        with daemon(self._daemon, [self._queue], daemon_options) as receiver:
            cpu_before = cpu_seconds(receiver.pid)
            command = [str(self._tool), "send", "--quiet", "--queue", self._queue, self._file]
            seconds, (sender,) = timed_pipeline([command])
            found = {"seconds": seconds, "sender_cpu": sender["cpu"],
                     "sender_kib": sender["peak_kib"],
                     "receiver_cpu": cpu_seconds(receiver.pid) - cpu_before,
                     "receiver_kib": memory_kib(receiver.pid)["peak_kib"]}
        shutil.rmtree(self._store)
        return found

    def _pipeline(self, commands):
        filled = [[part.replace("FILE", self._file).replace("COPY", self._copy)
                   for part in command] for command in commands]
        seconds, ends = timed_pipeline(filled)
        if os.path.exists(self._copy):
            os.unlink(self._copy)
        sender, receiver = ends[0], ends[1] if len(ends) > 1 else {"cpu": 0, "peak_kib": 0}
        return {"seconds": seconds, "sender_cpu": sender["cpu"], "sender_kib": sender["peak_kib"],
                "receiver_cpu": receiver["cpu"], "receiver_kib": receiver["peak_kib"]}


def _ratio(results, name, peer):
    found = results["results"]
    return found[peer]["seconds"]["median"] / found[name]["seconds"]["median"]


def targets(results):
    return [Target(f"korvex send into korvexd --discard, beside {CAT.replace('|', '&#124;')}",
                   _ratio(results, DISCARD, CAT), least=1.5)]


def markdown(results, plot_names):
    rows = []
    for name, found in results["results"].items():
        seconds = found["seconds"]
        rows.append([
            f"`{name.replace('|', '&#124;')}`", ratio_text(_ratio(results, DISCARD, name)),
            f"{seconds['median']:.2f} s ({seconds['min']:.2f} to {seconds['max']:.2f})",
            rate_text(results["bytes"] / seconds["median"]),
            f"{found['sender_cpu']['median']:.2f} s", f"{found['receiver_cpu']['median']:.2f} s",
            f"{found['sender_kib']['max'] / 1024:.1f} MiB",
            f"{found['receiver_kib']['max'] / 1024:.1f} MiB"])
    parts = ["## Whole files", "",
             f"A file of {size_text(results['bytes'])} in the cache, medians; the ratio says how "
             f"many times as fast `{DISCARD}` is.", "",
             table(["way", "ratio", "time", "rate", "sender's CPU", "receiver's CPU",
                    "sender's memory", "receiver's memory"], rows), ""]
    if results["missing"]:
        parts += ["Missing on this machine: " + ", ".join(results["missing"]), ""]
    return "\n".join(parts + [f"![{name}]({name})" for name in plot_names])


def plot(results, folder):
    found = results["results"]
    plots.bars(folder / "tools.svg", f"Moving {size_text(results['bytes'])}", "GB/s",
               [(name, results["bytes"] / each["seconds"]["median"] / 1e9)
                for name, each in found.items()])
    return ["tools.svg"]
