#!/usr/bin/python3
"""Changes library, daemon and tool in many small ways, one at a time; sees whether a test notices.

Ends with 0 when enough mutants are killed and every survivor is explained, else with 1. The report
is build/mutation/report.md; report.json holds every mutant.
"""

import argparse
import os
import pathlib
import queue
import random
import resource
import sys
import threading
import time

from areas import AREAS, area_of
from journal import Journal, Tree
from mutants import all_mutants
from report import Explanations, Report, Tried
from workshop import SPARED, SURVIVED, Workshop, tree_files

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
OUTPUT = ROOT / "build/mutation"
EXPLANATIONS = pathlib.Path(__file__).parent / "survivors.json"
BUNDLE = 25


def parse(arguments):
    parser = argparse.ArgumentParser(prog="./run mutate", description=__doc__.split("\n", 1)[0])
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N",
                        help="builds at once, each in a copy of its own (default: all cores)")
    parser.add_argument("--only", action="append", metavar="FILE",
                        help="mutants of this file, or of library, receiver, daemon or tool; may "
                             "be given several times")
    parser.add_argument("--sample", type=int, metavar="N", help="N mutants, chosen at random")
    parser.add_argument("--seed", type=int, default=1, help="for the choice (default: 1)")
    parser.add_argument("--seconds", type=float, default=float("inf"), metavar="S",
                        help="begin with no further mutant after this time; the report is partial")
    parser.add_argument("--resume", action="store_true",
                        help="keep what earlier runs found, as far as the tree is still the same")
    parser.add_argument("--quick", action="store_true",
                        help="without the slow tests, which kill some of the last")
    parser.add_argument("--list", action="store_true", help="show the mutants and try none")
    return parser.parse_args(arguments)


def source_files(root):
    return sorted(name for name in tree_files(root) if area_of(name))


def chosen_files(only):
    files = source_files(ROOT)
    if not only:
        return files
    for wanted in only:
        if not any(is_meant(name, wanted) for name in files):
            areas = [area.name for area in AREAS]
            sys.exit(f"--only {wanted}: expected one of " + ", ".join(areas + files))
    return [name for name in files if any(is_meant(name, wanted) for wanted in only)]


def is_meant(name, wanted):
    return name.endswith(wanted) or area_of(name).name == wanted


def chosen_mutants(options):
    mutants = all_mutants(ROOT, chosen_files(options.only))
    if options.sample is not None and options.sample < len(mutants):
        mutants = random.Random(options.seed).sample(mutants, options.sample)
        mutants.sort(key=lambda mutant: mutant.number)
    return mutants


def bundles_of(mutants):
    """Neighbours in one file stay together: going to another file costs a build."""
    bundles = queue.SimpleQueue()
    bundle = []
    for mutant in mutants:
        if bundle and (len(bundle) == BUNDLE or bundle[-1].file != mutant.file):
            bundles.put(bundle)
            bundle = []
        bundle.append(mutant)
    if bundle:
        bundles.put(bundle)
    return bundles


class Run:
    """The jobs at work, and what they found so far."""

    def __init__(self, mutants, journal, deadline, needs_slow_tests):
        self.tried = [tried for tried in journal.known(mutants)
                      if tried.verdict.reason != SPARED or not needs_slow_tests(tried.mutant)]
        known = {tried.mutant for tried in self.tried}
        self._bundles = bundles_of([mutant for mutant in mutants if mutant not in known])
        self._count = len(mutants)
        self._journal = journal
        self._deadline = deadline
        self._lock = threading.Lock()
        self.failure = None

    def work(self, workshop):
        try:
            while True:
                for mutant in self._bundles.get_nowait():
                    if self.failure or time.monotonic() > self._deadline:
                        return
                    self._note(Tried(mutant, workshop.try_mutant(mutant)))
        except queue.Empty:
            pass
        except BaseException as error:  # to be raised in the main thread
            self.failure = error

    def _note(self, tried):
        with self._lock:
            self.tried.append(tried)
            self._journal.note(tried)
            mutant, verdict = tried.mutant, tried.verdict
            place = f"{mutant.file}:{mutant.line} {mutant.operator}"
            what = mutant.after if verdict.outcome == SURVIVED else verdict.reason
            print(f"{len(self.tried)}/{self._count} {verdict.outcome:10} {place}: {what}",
                  flush=True)


def prepare(options, areas, needs_slow_tests, tree):
    workshops = [Workshop(ROOT, OUTPUT / f"job-{number}", areas, options.quick, needs_slow_tests)
                 for number in range(1, options.jobs + 1)]
    for number, workshop in enumerate(workshops, 1):
        print(f"building copy {number} of {options.jobs}", flush=True)
        workshop.prepare(options.jobs, tree.whole)
    return workshops


def try_all(run, workshops):
    before = core_seconds()
    already = len(run.tried)
    threads = [threading.Thread(target=run.work, args=(workshop,)) for workshop in workshops]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if run.failure:
        raise run.failure
    cost = (core_seconds() - before) / max(len(run.tried) - already, 1)
    print(f"{cost:.2f} s of one core for each mutant")


def core_seconds():
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def show(mutants):
    for mutant in mutants:
        print(f"{mutant.file}:{mutant.line} {mutant.operator}\n    {mutant.before}\n"
              f"    {mutant.after}")
    print(f"{len(mutants)} mutants")


def reported(run, mutants, explanations):
    """Whether all is well; says so."""
    report = Report(run.tried, explanations)
    report.write(OUTPUT)
    print(report.summary())
    missing = len(mutants) - len(run.tried)
    if missing > 0:
        print(f"not tried yet: {missing} of {len(mutants)}; go on with --resume")
    for each in report.unexplained():
        print(f"not explained: {each.mutant.file}:{each.mutant.line} {each.mutant.operator}\n"
              f"    {each.mutant.before}\n    {each.mutant.after}")
    return report.is_good() and missing == 0


def main():
    options = parse(sys.argv[1:])
    deadline = time.monotonic() + options.seconds
    mutants = chosen_mutants(options)
    if options.list:
        show(mutants)
        return 0
    tree = Tree.of(ROOT)
    explanations = Explanations(EXPLANATIONS)

    def needs_slow_tests(mutant):
        # What is explained counts as a survivor, whatever more tests would say.
        return not options.quick and not explanations.have(mutant)

    explained = [mutant for mutant in mutants if explanations.have(mutant)]
    journal = Journal(OUTPUT / "journal.jsonl", tree, options.resume, explained)
    run = Run(mutants, journal, deadline, needs_slow_tests)
    if len(run.tried) < len(mutants):
        areas = [area for area in AREAS if any(area.has(mutant.file) for mutant in mutants)]
        try_all(run, prepare(options, areas, needs_slow_tests, tree))
    return 0 if reported(run, mutants, explanations) else 1


if __name__ == "__main__":
    sys.exit(main())
