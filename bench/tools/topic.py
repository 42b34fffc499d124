"""Whole files through the command-line tools, beside what people use today."""

import os
import shutil
import subprocess
import tempfile
from contextlib import ExitStack
from functools import partial

from report import plots
from report.figures import rate_text, ratio_text, size_text, spread, table
from report.processes import (SHARED_MEMORY, Failed, cpu_seconds, daemon, memory_kib,
                              run_silently, timed_pipeline, write_file)
from report.targets import Aim, Target

DISCARD = "send into --discard"
CAT = "cat FILE | cat >/dev/null"
OPENSSL = "openssl dgst -sha256 FILE"
VERIFY, SUMS = "korvex verify DIR", "sha256sum DIR/*/data"
PIPELINES = {
    CAT: [["cat", "FILE"], ["cat"]],
    "pv FILE | cat >/dev/null": [["pv", "-q", "FILE"], ["cat"]],
    OPENSSL: [["openssl", "dgst", "-sha256", "FILE"]],
    VERIFY: [["KORVEX", "verify", "--quiet", "STREAMS"]],
    SUMS: [["sh", "-c", "sha256sum STREAMS/*/data"]],
}
STREAMS = 8  # hold together what the file holds

# Ways of storing the file; each is measured in each place.
OUTPUT, XXH128 = "send into --output", "send into --output --digest xxh128"
COPY, TEE = "cp FILE COPY; sync COPY", "tee >(sha256sum) >COPY; sync COPY"
OUTPUTS = {OUTPUT: ["--output", "STORE"], XXH128: ["--output", "STORE", "--digest", "xxh128"]}
COPIES = {COPY: [["sh", "-c", "cp FILE COPY && sync COPY"]],
          TEE: [["bash", "-c", "tee >(sha256sum) <FILE >COPY && sync COPY"]]}
DISK, TMPFS = "disk", "tmpfs"


def run(context):
    program = context.build / "tools/korvexd/korvexd"
    if not program.exists():
        raise Failed("the daemon was not built")
    with ExitStack() as stack:
        places = {place: stack.enter_context(
            tempfile.TemporaryDirectory(dir=parent, prefix="korvex-bench-"))
            for place, parent in ((DISK, context.output), (TMPFS, SHARED_MEMORY))}
        bench = _Bench(context, places, _missing(context, program))
        runs = {}
        for number in range(context.tool_rounds):
            context.say(f"tools: round {number + 1} of {context.tool_rounds}")
            for name, measure in bench.rows():
                runs.setdefault(name, []).append(measure())
    return {"bytes": context.file_bytes, "missing": bench.missing,
            "results": {name: _summary(found) for name, found in runs.items()}}


def _missing(context, program):
    """Programs, options and places that rows would need, each with the reason."""
    found = {name: f"{name} is not installed" for name in ("pv",) if shutil.which(name) is None}
    usage = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    if "--digest" not in usage:
        found[XXH128] = "korvexd has no --digest"
    if shutil.disk_usage(SHARED_MEMORY).free < 2 * context.file_bytes:
        found[TMPFS] = f"too little room in {SHARED_MEMORY}"
    return found


def _summary(runs):
    return {name: spread([run[name] for run in runs]) for name in runs[0]}


def _in_place(way, place):
    return f"{way}, {place}"


class _Bench:
    """The file, and every way of moving it once."""

    def __init__(self, context, places, missing):
        self.missing = missing
        self._tool = str(context.build / "tools/korvex/korvex")
        self._daemon = context.build / "tools/korvexd/korvexd"
        self._places = places
        self._queue = f"korvex-bench-{os.getpid()}"
        self._file = os.path.join(places[DISK], "file")
        self._streams = os.path.join(places[DISK], "streams")
        self._store_streams(context.file_bytes // STREAMS)
        write_file(self._file, context.file_bytes)

    def _store_streams(self, size):
        write_file(self._file, size)
        os.mkdir(self._streams)
        with daemon(self._daemon, [self._queue], ["--output", self._streams]):
            for _ in range(STREAMS):
                run_silently([self._tool, "send", "--quiet", "--queue", self._queue, self._file])

    def rows(self):
        yield DISCARD, partial(self._send, ["--discard"], DISK)
        for name, commands in PIPELINES.items():
            if commands[0][0] not in self.missing:
                yield name, partial(self._pipeline, commands, DISK)
        for place in (place for place in self._places if place not in self.missing):
            for name, options in OUTPUTS.items():
                if name not in self.missing:
                    yield _in_place(name, place), partial(self._send, options, place)
            for name, commands in COPIES.items():
                yield _in_place(name, place), partial(self._pipeline, commands, place)

    def _filled(self, words, place):
        for name, path in {"KORVEX": self._tool, "FILE": self._file, "STREAMS": self._streams,
                           "COPY": self._in(place, "copy"),
                           "STORE": self._in(place, "store")}.items():
            words = [word.replace(name, path) for word in words]
        return words

    def _in(self, place, name):
        return os.path.join(self._places[place], name)

    def _warm(self, place):
        """A virtual machine may have to ask its host for the memory that a new file takes, which
        takes longer than to fill it. Memory that was used a moment ago is still there."""
        path = self._in(place, "warm")
        shutil.copyfile(self._file, path)
        with open(path, "rb") as file:
            os.fsync(file.fileno())
        os.unlink(path)

    def _send(self, daemon_options, place):
        store = self._in(place, "store")
        os.mkdir(store)
        if "STORE" in daemon_options:
            self._warm(place)
        with daemon(self._daemon, [self._queue], self._filled(daemon_options, place)) as receiver:
            cpu_before = cpu_seconds(receiver.pid)
            command = [self._tool, "send", "--quiet", "--queue", self._queue, self._file]
            seconds, (sender,) = timed_pipeline([command])
            found = {"seconds": seconds, "sender_cpu": sender["cpu"],
                     "sender_kib": sender["peak_kib"],
                     "receiver_cpu": cpu_seconds(receiver.pid) - cpu_before,
                     "receiver_kib": memory_kib(receiver.pid)["peak_kib"]}
        shutil.rmtree(store)
        return found

    def _pipeline(self, commands, place):
        if any("COPY" in word for command in commands for word in command):
            self._warm(place)
        seconds, ends = timed_pipeline([self._filled(command, place) for command in commands])
        copy = self._in(place, "copy")
        if os.path.exists(copy):
            os.unlink(copy)
        sender, receiver = ends[0], ends[1] if len(ends) > 1 else {"cpu": 0, "peak_kib": 0}
        return {"seconds": seconds, "sender_cpu": sender["cpu"], "sender_kib": sender["peak_kib"],
                "receiver_cpu": receiver["cpu"], "receiver_kib": receiver["peak_kib"]}


def _seconds(results, name):
    found = results["results"].get(name)
    return found["seconds"]["median"] if found else None


def _ratio(results, name, *peers):
    """How many times as fast as the slowest of the peers."""
    ours, theirs = _seconds(results, name), [_seconds(results, peer) for peer in peers]
    return max(theirs) / ours if ours and all(theirs) else None


def targets(results):
    found = [Target(f"{DISCARD}, beside {CAT.replace('|', '&#124;')}: speed",
                    _ratio(results, DISCARD, CAT), least=1.5)]
    for place in (TMPFS, DISK):
        found += _aims_of_storing(results, place)
    return found + [Aim(f"{VERIFY}, beside {SUMS}: speed", _ratio(results, VERIFY, SUMS), least=4)]


def _aims_of_storing(results, place):
    copy, tee = _in_place(COPY, place), _in_place(TEE, place)
    rows = [(OUTPUT, (OPENSSL, copy), "the slower of openssl dgst -sha256 and cp; sync", 1.25),
            (XXH128, (copy,), "cp; sync", 1.2)]
    for name, peers, beside, most in rows:
        speed = _ratio(results, _in_place(name, place), *peers)
        yield Aim(f"{_in_place(name, place)}, beside {beside}: time", speed and 1 / speed,
                  most=most, why=results["missing"].get(place) or results["missing"].get(name))
    yield Aim(f"{_in_place(OUTPUT, place)}, beside tee >(sha256sum) >COPY; sync: speed",
              _ratio(results, _in_place(OUTPUT, place), tee), least=3,
              why=results["missing"].get(place))


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
        parts += ["Not measured: " + "; ".join(results["missing"].values()), ""]
    return "\n".join(parts + [f"![{name}]({name})" for name in plot_names])


def plot(results, folder):
    found = results["results"]
    plots.bars(folder / "tools.svg", f"Moving {size_text(results['bytes'])}", "GB/s",
               [(name, results["bytes"] / each["seconds"]["median"] / 1e9)
                for name, each in found.items()])
    return ["tools.svg"]
