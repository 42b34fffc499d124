"""A copy of the tree with a build of its own, in which one mutant after the other is built and
tried. The tree itself is never touched."""

import hashlib
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

from areas import area_of
from programs import run

KILLED, SURVIVED, INVALID, EQUIVALENT = "killed", "survived", "invalid", "equivalent"

SPARED = "not tried with the slow tests"

# The optimiser sees through many changes that make no difference.
OPTIMISED = ["-O2", "-g0"]
SHORTEST_PATIENCE = 8
PATIENCE_FACTOR = 10
LONG_PATIENCE = 30
LONG_PATIENCE_FACTOR = 2
LONGEST_PATIENCE = 180


@dataclass(frozen=True)
class Verdict:
    """What became of a mutant, and which test killed it."""

    outcome: str
    reason: str
    seconds: float


def tree_files(root):
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=root,
                            check=True, capture_output=True).stdout
    return [name for name in listed.decode().split("\0") if name and (root / name).is_file()]


class Workshop:
    """One job's copy, for the mutants of these areas.

    Made once; later runs only bring it up to date.
    `needs_slow_tests` tells whether a mutant that the quick tests let live goes to the slow ones.
    """

    def __init__(self, root, folder, areas, is_quick, needs_slow_tests):
        self.root = root
        self._areas = areas
        self._is_quick = is_quick
        self._needs_slow_tests = needs_slow_tests
        self.source = folder / "source"
        self.build = folder / "build"
        self._proof = folder / "passes-unchanged.json"
        # The compiler's cache, if there is one, then knows one copy's objects in the other, too.
        self._environment = dict(os.environ, CCACHE_BASEDIR=str(folder), CCACHE_NOHASHDIR="1")
        self._originals = {}
        self._objects = {}
        self._optimised = {}
        self._patience = {}

    def prepare(self, jobs, fingerprint):
        """Builds everything and sees all tests pass; not again in a tree where they once did."""
        self._copy_tree()
        self._configure()
        failed = self._make(self._all_paths(), jobs)
        if failed:
            raise SystemExit("the tree does not build:\n" + failed)
        self._objects = {str(path.relative_to(self.build)): digest(path)
                         for path in self.build.rglob("*.cpp.o")}
        proof = [fingerprint, *self._all_paths()]
        if not self._is_proved(proof):
            self._prove(proof)

    def _quick_programs(self):
        return list(dict.fromkeys(program for area in self._areas for stage in area.stages
                                  for program in stage))

    def _slow_programs(self):
        return [] if self._is_quick else list(dict.fromkeys(
            program for area in self._areas for program in area.slow))

    def _all_paths(self):
        programs = self._quick_programs() + self._slow_programs()
        return list(dict.fromkeys(program.path for program in programs))

    def _is_proved(self, proof):
        known = json.loads(self._proof.read_text()) if self._proof.is_file() else {}
        self._patience = known.get("patience", {})
        return known.get("proof") == proof

    def _prove(self, proof):
        self._patience = {}
        slow = self._slow_programs()
        for programs in [[each] for each in self._quick_programs()] + [slow]:
            for program, ending in self._endings(programs):
                self._note_time(program, ending)
        self._proof.write_text(json.dumps({"proof": proof, "patience": self._patience}))

    def _note_time(self, program, ending):
        if ending.complaint:
            raise SystemExit("without any mutant: " + ending.complaint)
        patience = SHORTEST_PATIENCE + min(PATIENCE_FACTOR * ending.seconds,
                                           LONG_PATIENCE + LONG_PATIENCE_FACTOR * ending.seconds)
        self._patience[program.path] = max(patience, self._patience.get(program.path, 0))

    def _copy_tree(self):
        names = tree_files(self.root)
        for stale in set(tree_of(self.source)) - set(names):
            (self.source / stale).unlink()
        for name in names:
            copy_if_changed(self.root / name, self.source / name)

    def _configure(self):
        speed = pathlib.Path(__file__).parent / "speed.cmake"
        cache = shutil.which("ccache")
        subprocess.run(["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja",
                        *([f"-DCMAKE_CXX_COMPILER_LAUNCHER={cache}"] if cache else []),
                        "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
                        "-DCMAKE_CXX_FLAGS=-O0 -w", f"-DCMAKE_PROJECT_korvex_INCLUDE={speed}",
                        "-DKORVEX_BUILD_TESTS=ON", "-DKORVEX_WERROR=OFF",
                        # CTest runs nothing here, so nobody needs the names of the tests.
                        "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"],
                       check=True, stdout=subprocess.DEVNULL)

    def _make(self, targets, jobs=1):
        """The errors; empty when all is built."""
        done = subprocess.run(["ninja", "-C", self.build, "-j", str(jobs), *targets],
                              env=self._environment, capture_output=True, text=True)
        return "" if done.returncode == 0 else (done.stdout + done.stderr)[-2000:]

    def try_mutant(self, mutant):
        started = time.monotonic()
        place = self.source / mutant.file
        original = self._originals.setdefault(mutant.file, place.read_text())
        place.write_text(mutant.applied_to(original))
        try:
            outcome, reason = self._judge(mutant)
        finally:
            place.write_text(original)
        return Verdict(outcome, reason, time.monotonic() - started)

    def _judge(self, mutant):
        area = area_of(mutant.file)
        for stage in area.stages:
            failed = self._make([program.path for program in stage])
            if failed:
                return INVALID, first_error(failed)
            if stage is area.stages[0] and self._has_same_objects(mutant.file):
                return EQUIVALENT, "the same machine code without optimisation"
            for program in stage:
                complaint = self._complaint([program])
                if complaint:
                    return KILLED, complaint
        if self._is_same_optimised(mutant):
            return EQUIVALENT, "the same machine code with optimisation"
        return (self._judge_slowly(area, mutant.file) if self._needs_slow_tests(mutant)
                else (SURVIVED, SPARED))

    def _judge_slowly(self, area, name):
        for program in area.slow_for(name):
            failed = self._make([program.path])
            if failed:
                return INVALID, first_error(failed)
            complaint = self._complaint([program])
            if complaint:
                return KILLED, complaint
        return SURVIVED, ""

    def _complaint(self, programs):
        """The first of them; empty if there is none."""
        return next((ending.complaint for _, ending in self._endings(programs) if ending.complaint),
                    "")

    def _endings(self, programs):
        """Runs the programs, and yields how each of their shards ended.

        All at once, since they mostly wait. So a complaint counts only if it comes again from the
        shard by itself.
        """
        shards = [(program, environment) for program in programs
                  for environment in program.shard_environments()]
        with ThreadPoolExecutor(2 * max((each.shards for each in programs), default=1)) as pool:
            endings = list(pool.map(self._run_shard, shards))
        for shard, ending in zip(shards, endings):
            yield shard[0], self._run_again(shard, ending) if ending.complaint else ending

    def _run_shard(self, shard, factor=1):
        program, environment = shard
        patience = self._patience.get(program.path, LONGEST_PATIENCE)
        return run(program, self.build, factor * patience, environment)

    def _run_again(self, shard, first):
        """A busy machine is no mistake of the mutant's: who was late gets twice the time."""
        if shard[0].shards > 1 or first.is_late:
            return self._run_shard(shard, 2 if first.is_late else 1)
        return first

    def _units(self, file):
        """The compile commands of what includes the file."""
        includers = self._includers(file)
        return [words for name, words in self._commands().items() if name in includers]

    def _commands(self):
        database = subprocess.run(["ninja", "-C", self.build, "-t", "compdb"], check=True,
                                  capture_output=True, text=True).stdout
        return {entry["output"]: shlex.split(entry["command"]) for entry in json.loads(database)
                if entry["output"].endswith(".cpp.o")}

    def _includers(self, file):
        """All objects that are made from the file, as the compiler noted when it made them."""
        listed = subprocess.run(["ninja", "-C", self.build, "-t", "deps"], check=True,
                                capture_output=True, text=True).stdout
        names, current = set(), ""
        wanted = os.path.normpath(self.source / file)
        for line in listed.splitlines():
            if line and not line.startswith(" "):
                current = line.split(": #deps")[0]
            elif os.path.normpath(self.build / line.strip()) == wanted:
                names.add(current)
        return names

    def _has_same_objects(self, file):
        """Only for sources: in a header, functions that are not called here leave no code."""
        objects = [name for name in self._includers(file) if name in self._objects]
        if not file.endswith(".cpp") or not objects or self._make(objects):
            return False
        return all(digest(self.build / name) == self._objects[name] for name in objects)

    def _is_same_optimised(self, mutant):
        if mutant.file.startswith("include/"):
            return False
        units = self._units(mutant.file)
        return bool(units) and all(self._optimise(words) == self._optimised_original(mutant, words)
                                   for words in units)

    def _optimised_original(self, mutant, words):
        key = tuple(words)
        if key not in self._optimised:
            place = self.source / mutant.file
            changed = place.read_text()
            place.write_text(self._originals[mutant.file])
            self._optimised[key] = self._optimise(words)
            place.write_text(changed)
        return self._optimised[key]

    def _optimise(self, words):
        """The digest of the unit's object as the optimiser makes it."""
        place = self.build / "optimised.o"
        command = list(words)
        command[command.index("-o") + 1] = str(place)
        for option in ("-MF", "-MT"):
            if option in command:
                command[command.index(option) + 1] = str(place) + ".d"
        done = subprocess.run([*command, *OPTIMISED], cwd=self.build, env=self._environment,
                              capture_output=True)
        return digest(place) if done.returncode == 0 else object()


def tree_of(folder):
    return [str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file()]


def copy_if_changed(original, copy):
    if copy.is_file() and copy.read_bytes() == original.read_bytes():
        return
    copy.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(original, copy)
    shutil.copymode(original, copy)


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() else ""


def first_error(output):
    errors = [line for line in output.splitlines() if "error" in line]
    return errors[0].strip()[:200] if errors else output[-200:]
