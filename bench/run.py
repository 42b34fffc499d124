#!/usr/bin/python3
"""Builds the benchmarks, runs them and writes one report.

The report is build/bench/report.md, with plots beside it; results.json holds every figure. A run
ends with the list of aims, met or not, as a Markdown table.
"""

import argparse
import json
import pathlib
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(SOURCE / "bench"))

import chain.topic  # noqa: E402
import compare.topic  # noqa: E402
import growth.topic  # noqa: E402
import micro.topic  # noqa: E402
import streams.topic  # noqa: E402
import tools.topic  # noqa: E402
from report import machine, targets  # noqa: E402

TOPICS = {"compare": compare.topic, "micro": micro.topic, "tools": tools.topic,
          "streams": streams.topic, "chain": chain.topic, "growth": growth.topic}
TOPICS_WITH_AIMS = [name for name in TOPICS if name != "micro"]
MIB = 2**20
GIB = 2**30


class Context:
    """How thorough this run is, and where things are."""

    def __init__(self, options, build, output):
        self.quick = options.quick
        self.build = build
        self.output = output
        self.rounds = options.rounds or (3 if options.quick else 5)
        self.seconds = 0.1 if options.quick else 0.25
        self.micro_seconds = 0.02 if options.quick else 0.2
        self.micro_repetitions = 3 if options.quick else 9
        self.tool_rounds = 2 if options.quick else 5
        self.chain_rounds = 3 if options.quick else 7
        self.growth_rounds = 1 if options.quick else 3
        self.sweep_bytes = (1 if options.quick else 8) * GIB
        self.idle_seconds = 3 if options.quick else 30
        self.file_bytes = (1 if options.quick else 4) * GIB
        self.engine_bytes = (128 if options.quick else 512) * MIB
        self.short_streams = 20 if options.quick else 200
        self.many_streams = 1000 if options.quick else 10000
        self.slow_seconds = 3 if options.quick else 10
        self.slow_rounds = 1 if options.quick else 3
        self.replies = 60 if options.quick else 300
        self.longest_stream = (4 if options.quick else 64) * GIB
        self.only_aims = options.aims
        self._rows = compare.topic.AIM_ROWS if self.only_aims else options.rows
        self._sizes = options.sizes

    def wants_row(self, name):
        return not self._rows or any(name.startswith(start) for start in self._rows)

    def sizes(self, all_sizes):
        return [size for size in all_sizes if not self._sizes or size in self._sizes]

    @staticmethod
    def say(text):
        print(text, file=sys.stderr, flush=True)


def parse(arguments):
    parser = argparse.ArgumentParser(description="Runs the benchmarks and writes a report.")
    parser.add_argument("--quick", action="store_true",
                        help="minutes instead of an hour; the figures are rough")
    parser.add_argument("--only", nargs="+", choices=TOPICS, metavar="TOPIC",
                        help="some of: " + ", ".join(TOPICS))
    parser.add_argument("--aims", action="store_true", help="only what the list of aims needs")
    parser.add_argument("--rounds", type=int, help="rounds of the comparison")
    parser.add_argument("--rows", nargs="+", metavar="START",
                        help="only the comparison's rows whose names start so")
    parser.add_argument("--sizes", nargs="+", type=int, help="only these record sizes")
    parser.add_argument("--output", type=pathlib.Path, default=SOURCE / "build/bench",
                        help="folder for the report")
    options = parser.parse_args(arguments)
    options.only = options.only or (TOPICS_WITH_AIMS if options.aims else list(TOPICS))
    return options


def build_all(build):
    """The release preset in a build tree of its own, with the benchmarks and without the tests."""
    subprocess.run(["cmake", "--preset", "release", "-B", str(build), "-DKORVEX_BUILD_BENCH=ON",
                    "-DKORVEX_BUILD_TESTS=OFF"], cwd=SOURCE, check=True, stdout=sys.stderr)
    subprocess.run(["cmake", "--build", str(build), "--parallel"], check=True, stdout=sys.stderr)


def write_report(output, document, sections, found):
    aims = targets.markdown([target for target in found if target.is_felt])
    others = targets.markdown([target for target in found if not target.is_felt])
    results = output / "results.json"
    results.write_text(json.dumps(document, indent=1) + "\n")
    text = ["# Benchmarks", "", machine.markdown(document["machine"], document["command"]), "",
            "Figures hold for this machine; the ratios travel better than the times.", "",
            "## Aims", "", aims, "", "## Other targets", "", others, ""] + sections
    report = output / "report.md"
    report.write_text("\n".join(text) + "\n")
    print(f"{report}\n\n{aims}")


def main(arguments):
    options = parse(arguments)
    output = options.output.resolve()
    output.mkdir(parents=True, exist_ok=True)
    build = SOURCE / "build/bench/tree"
    build_all(build)
    context = Context(options, build, output)
    document = {"machine": machine.describe(SOURCE, build),
                "command": " ".join(["./run bench"] + arguments), "quick": options.quick}
    sections, found = [], []
    for name in options.only:
        topic = TOPICS[name]
        results = topic.run(context)
        document[name] = results
        sections += [topic.markdown(results, topic.plot(results, output)), ""]
        found += topic.targets(results)
    document["targets"] = [target.as_dict() for target in found]
    write_report(output, document, sections, found)


if __name__ == "__main__":
    main(sys.argv[1:])
