#!/usr/bin/env python3
"""completion.py SHELL KORVEX KORVEXD: whether SHELL completes what --help shows, no more, no less.

Exits with 77 where there is no such shell.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
QUIET = {"bash": ["bash", "--norc"], "zsh": ["zsh", "-f"], "fish": ["fish", "--no-config"]}
OPTION = re.compile(r"^\s+(-\S+)", re.MULTILINE)
VERB = re.compile(r"^  (\w+)", re.MULTILINE)


class Shell:
    def __init__(self, name, programs, folder):
        self.name, self.programs, self.folder = name, programs, folder
        for program, path in programs.items():
            ask = ["completion", name] if program == "korvex" else ["--completion", name]
            script = subprocess.run([path, *ask], check=True, capture_output=True).stdout
            (folder / program).write_bytes(script)

    def offers(self, *line):
        """What the last word of the line can become, in a folder with a file and a folder."""
        command = [*QUIET[self.name], HERE / f"words.{self.name}", self.folder / line[0], *line]
        place = self.folder / "place"
        found = subprocess.run(command, check=True, capture_output=True, text=True, cwd=place,
                               env={**os.environ, "HOME": str(self.folder), "TERM": "dumb"})
        return [word.rstrip("/") for word in found.stdout.split()]

    def words(self, *line):
        return set(self.offers(*line))

    def help(self, program, *verb):
        return subprocess.run([self.programs[program], *verb, "--help"], check=True,
                              capture_output=True, text=True).stdout


def long_options(text):
    return {word for words in OPTION.findall(text) for word in words.split(",")
            if word.startswith("--")}


def expect(what, found, expected):
    if found == expected:
        return True
    print(f"{what}: found {sorted(found)}, expected {sorted(expected)}")
    return False


def checks(shell):
    verbs = set(VERB.findall(shell.help("korvex").split("Subcommands:")[1].split("\n\n")[0]))
    yield expect("verbs", shell.words("korvex", ""), verbs)
    for line in [["korvexd"], ["korvex"], *(["korvex", verb] for verb in sorted(verbs))]:
        offers = shell.offers(*line, "--")
        yield expect(" ".join(line), set(offers), long_options(shell.help(*line)))
        yield expect(" ".join(line) + ", twice", {w for w in offers if offers.count(w) > 1}, set())
    yield expect("a word that has begun", shell.words("korvex", "sta"), {"status"})
    yield expect("an option that has begun", shell.words("korvexd", "--max-message-"),
                 {"--max-message-size"})
    yield expect("a choice", shell.words("korvex", "completion", ""), {"bash", "zsh", "fish"})
    yield expect("a choice of the daemon", shell.words("korvexd", "--log-format", ""),
                 {"text", "json"})
    yield expect("a file", shell.words("korvexd", "--stats", ""), {"file", "folder"})
    yield expect("a folder", shell.words("korvexd", "--output", ""), {"folder"})
    yield expect("files", shell.words("korvex", "send", ""), {"file", "folder"})
    yield expect("folders", shell.words("korvex", "verify", ""), {"folder"})
    yield expect("what cannot be known", shell.words("korvexd", "--queue", ""), set())


def main():
    name, korvex, korvexd = sys.argv[1:]
    if shutil.which(name) is None:
        print(f"no {name}")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        (folder / "place" / "folder").mkdir(parents=True)
        (folder / "place" / "file").touch()
        results = list(checks(Shell(name, {"korvex": korvex, "korvexd": korvexd}, folder)))
    print(f"{name}: {len(results)} lines, {results.count(False)} wrong")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
