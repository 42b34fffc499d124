#!/usr/bin/env python3
"""man_pages.py MAN lint: mandoc has nothing to say of the pages in this folder, and the pages that
they name are there.

man_pages.py MAN contents KORVEXD KORVEX SOURCES: they have every verb, option, key, exit code and
metric that the programs have, and none that they have not.
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

PATIENCE = 30
CODES_OF_SIGNALS = {"korvexd", "korvex", "korvex-send", "korvex-status", "korvex-clean",
                    "korvex-verify", "korvex-inspect"}


def page_of(man, name):
    found = sorted(man.glob(f"man*/{name}.[0-9]"))  # of two, that of the program comes first
    if not found:
        sys.exit(f"{man}: no page {name}")
    return found[0].read_text(encoding="utf-8")


def terms(page, wanted):
    """What is explained in a section and those below it, with the first line of what is said."""
    section, lines, found = "", page.splitlines(), {}
    for number, line in enumerate(lines):
        if line.startswith(".SH "):
            section = line[4:].strip('"')
        elif line == ".TP" and section == wanted:
            term = re.sub(r"\\f\[\w*\]", "", lines[number + 1]).replace("\\", "")
            found[term] = lines[number + 2]
    return found


def options(found):
    """The options among terms, or in what --help prints."""
    return {word for term in found for word in re.findall(r"(?<![\w-])--?[a-z][\w-]*", term)}


def help_of(*command):
    """The options, and the verbs."""
    text = subprocess.run([*command, "--help"], check=True, capture_output=True, text=True).stdout
    verbs = text.partition("Subcommands:\n")[2].partition("\n\n")[0]
    declared = re.findall(r"^ +(-[\w,-]+)", text, re.M)
    return options(",".join(declared).split(",")), {line.split()[0] for line in verbs.splitlines()}


def keys_of(korvexd, folder):
    """What the daemon says a table may hold: it is asked for a key that cannot be."""
    file = folder / "korvexd.toml"
    file.write_text("[daemon]\nnone = 1\n[queue.a]\nnone = 1\n", encoding="utf-8")
    run = subprocess.run([korvexd, "--check-config", "--config", file], capture_output=True,
                         text=True, check=False)
    lists = re.findall(r"unknown key 'none', expected one of (.*)", run.stderr)
    return [set(words.split(", ")) for words in lists]


def metrics_of(korvexd, folder):
    """Name and type of each metric that a daemon writes."""
    file = folder / "korvex.prom"
    with subprocess.Popen([korvexd, "--queue", f"korvex-pages-{os.getpid()}", "--discard",
                           "--metrics", file], stderr=subprocess.DEVNULL) as daemon:
        end = time.monotonic() + PATIENCE
        while not file.exists() and daemon.poll() is None and time.monotonic() < end:
            time.sleep(0.05)
        daemon.send_signal(signal.SIGTERM)
    return dict(re.findall(r"^# TYPE (\S+) (\S+)$", file.read_text(encoding="utf-8"), re.M))


class Comparison:
    """Counts what differs, and says it."""

    def __init__(self):
        self.differences = 0

    def same(self, what, on_page, in_program):
        for missing in sorted(in_program - on_page):
            self.say(f"{what}: the page lacks {missing}")
        for strange in sorted(on_page - in_program):
            self.say(f"{what}: the page has {strange}, the program has not")
        if not in_program:
            self.say(f"{what}: found none in the program, expected some")

    def say(self, text):
        self.differences += 1
        print(text)


def exit_codes(source, place):
    """The exit codes that a folder of tools/ knows by name."""
    header = (source / "tools/common/ExitCode.h").read_text(encoding="utf-8")
    codes = dict(re.findall(r"^  (\w+) = (\d+)", header, re.M))
    cannot_tell = any("NoReceipt" in file.read_text(encoding="utf-8")
                      for file in (source / "tools" / place).rglob("*.cpp"))
    return {code for name, code in codes.items() if name != "NoReceipt" or cannot_tell}


def compare_codes(comparison, man, source, name, place):
    known = exit_codes(source, place) | ({"128 + N"} if name in CODES_OF_SIGNALS else set())
    comparison.same(f"{name}: exit codes", set(terms(page_of(man, name), "EXIT STATUS")), known)


def compare_contents(man, korvexd, korvex, source):
    comparison = Comparison()
    daemon = page_of(man, "korvexd")
    comparison.same("korvexd(8): options", options(terms(daemon, "OPTIONS")), help_of(korvexd)[0])
    compare_codes(comparison, man, source, "korvexd", "korvexd")

    common, verbs = help_of(korvex)
    tool = page_of(man, "korvex")
    comparison.same("korvex(1): options", options(terms(tool, "OPTIONS")), common)
    comparison.same("korvex(1): verbs", set(terms(tool, "VERBS")), verbs)
    comparison.same("section 1", {page.stem for page in man.glob("man1/*")},
                    {"korvex"} | {f"korvex-{verb}" for verb in verbs})
    compare_codes(comparison, man, source, "korvex", "korvex")
    for verb in sorted(verbs):
        page = page_of(man, f"korvex-{verb}")
        comparison.same(f"korvex-{verb}(1): options", options(terms(page, "OPTIONS")),
                        help_of(korvex, verb)[0])
        compare_codes(comparison, man, source, f"korvex-{verb}", f"korvex/{verb}")

    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        configuration = page_of(man, "korvexd.toml")
        for title, keys in zip(["KEYS OF THE DAEMON", "KEYS OF A QUEUE"],
                               keys_of(korvexd, folder), strict=True):
            comparison.same(f"korvexd.toml(5): {title}", set(terms(configuration, title)), keys)
        metrics = {f"{name}, a {kind}" for name, kind in metrics_of(korvexd, folder).items()}
        comparison.same("korvexd(8): metrics", {
            f"{name}, a {said.removeprefix('type: ')}"
            for name, said in terms(daemon, "METRICS").items()}, metrics)
    return comparison.differences


def lint(man):
    pages = sorted(man.glob("man*/*"))
    if not pages:
        sys.exit(f"{man}: no pages")
    run = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", *pages], capture_output=True,
                         text=True, check=False)
    lost = [f"{page.name}: there is no {name}({section})" for page in pages
            for name, section in named_in(page.read_text(encoding="utf-8"))
            if not (man / f"man{section}" / f"{name}.{section}").is_file()]
    print(run.stdout + run.stderr + "\n".join(lost), end="")
    return run.returncode or len(lost)


def named_in(page):
    """The pages of ours that a page names."""
    text = re.sub(r"\\f\[\w*\]", "", page).replace("\\-", "-")
    return set(re.findall(r"\b((?:korvex|qmx)[\w.-]*)\((\d)\)", text))


def main():
    man, task, *rest = [pathlib.Path(sys.argv[1]), *sys.argv[2:]]
    found = lint(man) if task == "lint" else compare_contents(man, *map(pathlib.Path, rest))
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
