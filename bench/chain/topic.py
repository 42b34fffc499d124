"""What it costs that a backup is kept only when it is whole: an engine behind korvex and a pipe."""

import os
import shlex
import shutil
import statistics
import tempfile

from report import plots
from report.figures import rate_text, size_text, spread, table
from report.processes import (cpu_seconds_with_children, daemon, run_silently, timed_pipeline,
                              write_file)
from report.targets import Aim

PIPE, KORVEX = "pipe", "korvex"
SINK = "cat >/dev/null"

# An engine reads standard input; before each run it has a folder of its own, prepared so.
ENGINES = {
    SINK: ("exec cat >/dev/null", ":"),
    "restic": ("exec restic backup --quiet --no-cache --stdin --stdin-filename data",
               "exec restic init --quiet --no-cache"),
    "borg": ("exec borg create --checkpoint-interval 0 ::stream -",
             "exec borg init --encryption none"),
    "rclone": ("exec rclone rcat store/copy", ":"),
}
LEAST_OF_SINK = 0.9  # of the pipe's speed
MOST_OF_ENGINE = 1.03  # of the pipe's time


def run(context):
    missing = [name for name in ENGINES if name != SINK and shutil.which(name) is None]
    with tempfile.TemporaryDirectory(dir=context.output, prefix="chain-") as folder:
        bench = _Bench(context, folder)
        rounds = {name: [] for name in ENGINES if name not in missing}
        for number in range(context.chain_rounds):
            for name, found in rounds.items():
                context.say(f"chain: {name}, round {number + 1} of {context.chain_rounds}")
                found.append(bench.both(name, korvex_first=number % 2 == 1))
    return {"missing": missing,
            "results": {name: _summary(found, bench.size(name)) for name, found in rounds.items()}}


def _summary(rounds, size):
    times = [each[KORVEX]["seconds"] / each[PIPE]["seconds"] for each in rounds]
    found = {way: {key: spread([each[way][key] for each in rounds]) for key in rounds[0][way]}
             for way in (PIPE, KORVEX)}
    return {"bytes": size, "times_the_pipe": spread(times), "rounds": rounds, **found}


class _Bench:
    """The files, and both ways into each engine."""

    def __init__(self, context, folder):
        self._programs = context.build / "tools"
        self._folder = folder
        self._queue = f"korvex-bench-{os.getpid()}"
        self._sizes = {SINK: context.file_bytes}
        self._engine_bytes = context.engine_bytes
        for name, size in (("sink", context.file_bytes), ("engine", context.engine_bytes)):
            write_file(os.path.join(folder, name), size)
        self._environment = {name: value for name, value in os.environ.items()
                             if name != "AWS_CA_BUNDLE"}
        self._environment.update({
            "RESTIC_REPOSITORY": "store", "RESTIC_PASSWORD": "bench", "RCLONE_CONFIG": "/dev/null",
            "BORG_REPO": "store/repository", "BORG_BASE_DIR": folder,
            "BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK": "yes"})

    def size(self, name):
        return self._sizes.get(name, self._engine_bytes)

    def both(self, name, korvex_first):
        """One run each, so that both meet the same minute of the machine."""
        ways = [(PIPE, self._pipe), (KORVEX, self._korvex)]
        script, prepare = ENGINES[name]
        found = {}
        for way, measure in reversed(ways) if korvex_first else ways:
            self._empty_store(prepare)
            found[way] = measure(self._source(name), ["sh", "-c", script])
        return found

    def _source(self, name):
        return ["cat", os.path.join(self._folder, "sink" if name == SINK else "engine")]

    def _empty_store(self, prepare):
        """What the last run left to be written must not slow this one."""
        store = os.path.join(self._folder, "store")
        shutil.rmtree(store, ignore_errors=True)
        os.mkdir(store)
        run_silently(["sh", "-c", prepare], **self._place())
        os.sync()

    def _place(self):
        return {"cwd": self._folder, "env": self._environment}

    def _pipe(self, source, engine):
        seconds, ends = timed_pipeline([source, engine], **self._place())
        return {"seconds": seconds, "cpu": sum(end["cpu"] for end in ends)}

    def _korvex(self, source, engine):
        options = ["--exec", shlex.join(engine)]
        with daemon(self._programs / "korvexd/korvexd", [self._queue], options,
                    **self._place()) as receiver:
            before = cpu_seconds_with_children(receiver.pid)
            send = [str(self._programs / "korvex/korvex"), "send", "--quiet", "--queue",
                    self._queue, "--receipt-timeout", "600", "--from-command", "--"]
            seconds, (sender,) = timed_pipeline([send + source], **self._place())
            cpu = sender["cpu"] + cpu_seconds_with_children(receiver.pid) - before
        return {"seconds": seconds, "cpu": cpu}


def targets(results):
    aims = []
    for name, found in results["results"].items():
        times = found["times_the_pipe"]["median"]
        if name == SINK:
            aims.append(Aim(f"`cat FILE` through korvex into `{SINK}`, beside a pipe: speed",
                            1 / times, least=LEAST_OF_SINK))
        else:
            aims.append(Aim(f"`cat FILE` through korvex into {name}, beside a pipe: time",
                            times, most=MOST_OF_ENGINE))
    return aims


def markdown(results, plot_names):
    rows = []
    for name, found in results["results"].items():
        times = found["times_the_pipe"]
        rows.append([f"`{name}`", size_text(found["bytes"]),
                     f"{times['median']:.3f} ({times['min']:.3f} to {times['max']:.3f})"] +
                    [_way_text(found[way], found["bytes"]) for way in (KORVEX, PIPE)] +
                    [f"{found[way]['cpu']['median']:.2f} s" for way in (KORVEX, PIPE)])
    parts = ["## Into backup engines", "",
             "`korvex send --from-command cat FILE` with `korvexd --exec ENGINE`, beside "
             "`cat FILE \\| ENGINE`. Each round runs both, the first of them in turns, into an "
             "empty store; the ratio is the median of the rounds' ratios. CPU is of all processes.",
             "", table(["engine", "file", "time, times the pipe's", "through korvex",
                        "through the pipe", "CPU, korvex", "CPU, pipe"], rows), ""]
    if results["missing"]:
        parts += ["Missing on this machine: " + ", ".join(results["missing"]), ""]
    return "\n".join(parts + [f"![{name}]({name})" for name in plot_names])


def _way_text(found, size):
    seconds = found["seconds"]
    return (f"{seconds['median']:.2f} s ({seconds['min']:.2f} to {seconds['max']:.2f}), "
            f"{rate_text(size / seconds['median'])}")


def plot(results, folder):
    plots.bars(folder / "chain.svg", "Time through korvex, times the pipe's", "",
               [(name, found["times_the_pipe"]["median"])
                for name, found in results["results"].items()])
    return ["chain.svg"]
