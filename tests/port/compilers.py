#!/usr/bin/env python3
"""compilers.py [--jobs N] [--only REGEX]: no supported compiler has anything to say about korvex.

Builds everything but the tests with the newest compiler, and installs that. Then every compiler
reads every source in each newer language, and each public header alone, with both standard
libraries. Sources that may include Boost are read with a second release of it, too.

Any warning fails. What ./run test and ./run lint compile anyway, the tests among it, is left to
them: g++ and clang with their own standard library, C++17.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/port/newest"
INSTALLED = BUILD / "installed"
UNPACKED = ROOT / "build/debian"  # packages that cannot be installed beside others

NEWEST = "clang++-19"
COMPILERS = ("g++-12", "clang++-14", "clang++-16", NEWEST)
STANDARDS = ("c++17", "c++20", "c++2b")
READ_ELSEWHERE = {("g++-12", "c++17"), ("clang++-14", "c++17"), (NEWEST, "c++17")}

LIBCXX_19 = ("-nostdinc++", "-isystem", str(UNPACKED / "usr/lib/llvm-19/include/c++/v1"))
HEADER_READERS = (
    ("clang++-16",),
    (NEWEST,),
    ("clang++-14", "-stdlib=libc++"),
    (NEWEST, *LIBCXX_19),
)

OTHER_BOOST = UNPACKED / "usr/include"
WITH_BOOST = re.compile(r"/(src|receiver)/")
NOT_KEPT = re.compile(r"-(c|std=.*|O.|g.?)")
# What this tree spares the newest, for the sake of older headers; see cmake/KorvexOptions.cmake.
SPARED = ("-Wno-enum-constexpr-conversion", "-Wno-deprecated-declarations")


@dataclass(frozen=True)
class Check:
    """One call of a compiler, and the line of the report that it counts for."""

    group: str
    command: tuple
    folder: str = str(ROOT)


def run(*command):
    subprocess.run([str(word) for word in command], cwd=ROOT, check=True)


def build_with_the_newest(jobs):
    run("cmake", "--preset", "clang", "-B", BUILD, f"-DCMAKE_CXX_COMPILER={NEWEST}",
        "-DKORVEX_BUILD_TESTS=OFF", "--log-level=WARNING")
    run("cmake", "--build", BUILD, "-j", jobs)
    run("cmake", "--install", BUILD, "--prefix", INSTALLED, "--strip")


def options_of(entry):
    """What a source was compiled with, beside the compiler, the language and the object file."""
    words = shlex.split(entry["command"])
    after_compiler = next(i for i, word in enumerate(words) if word.endswith(NEWEST)) + 1
    words = words[after_compiler:]
    object_file = words.index("-o")
    del words[object_file:object_file + 2]
    return [word for word in words if not NOT_KEPT.fullmatch(word) and word not in SPARED]


def source_checks(entries):
    for compiler in COMPILERS:
        spared = SPARED if compiler == NEWEST else ()
        for standard in STANDARDS:
            if (compiler, standard) in READ_ELSEWHERE:
                continue
            for entry in entries:
                yield Check(f"{compiler} -std={standard}",
                            (compiler, f"-std={standard}", "-fsyntax-only", *spared,
                             *options_of(entry)), entry["directory"])


def boost_checks(entries):
    version = (OTHER_BOOST / "boost/version.hpp").read_text()
    name = re.search(r'BOOST_LIB_VERSION "(.*)"', version).group(1).replace("_", ".")
    for compiler in ("g++-12", NEWEST):
        for entry in entries:
            if WITH_BOOST.search(entry["file"]):
                yield Check(f"{compiler} -std=c++17, Boost {name}",
                            (compiler, "-std=c++17", "-fsyntax-only", "-isystem", str(OTHER_BOOST),
                             *options_of(entry)), entry["directory"])


def header_checks():
    for compiler, *options in HEADER_READERS:
        library = "libc++" if options else "libstdc++"
        yield Check(f"{compiler}, public headers, {library}",
                    ("env", f"PREFIX={INSTALLED}", "LC_ALL=C", "bash", "tests/package/headers.sh",
                     compiler, *options))


def passed(check):
    result = subprocess.run(check.command, cwd=check.folder, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, errors="replace")
    if result.returncode != 0 or result.stdout:
        print(f"{check.group}: {shlex.join(check.command)}\n{result.stdout}", flush=True)
        return False
    return True


def report(checks, results):
    for group in dict.fromkeys(check.group for check in checks):
        mine = [result for check, result in zip(checks, results) if check.group == group]
        print(f"{group}: {len(mine)} read, {mine.count(False)} refused")
    print(f"{results.count(True)} passed, {results.count(False)} failed")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--only", type=re.compile, default="", metavar="REGEX",
                        help="read only the sources whose paths fit")
    options = parser.parse_args()
    try:
        build_with_the_newest(options.jobs)
    except subprocess.CalledProcessError as error:
        sys.exit(f"compilers.py: {shlex.join(error.cmd)} failed")
    entries = [entry for entry in json.loads((BUILD / "compile_commands.json").read_text())
               if re.search(options.only, entry["file"])]
    if not entries:
        parser.error("--only: no source fits")
    checks = [*header_checks(), *boost_checks(entries), *source_checks(entries)]
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        results = list(pool.map(passed, checks))
    report(checks, results)
    return 1 if not all(results) else 0


if __name__ == "__main__":
    sys.exit(main())
