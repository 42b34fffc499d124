"""What was found so far, kept while a long run goes on, so that a run can be taken up again."""

import hashlib
import json

from report import Tried
from workshop import Verdict, tree_files

# What the verdicts depend on; pages and explanations may change meanwhile.
DECISIVE = ("src/", "include/", "platform/", "tools/", "tests/", "cmake/", "CMakeLists.txt")
WITHOUT_INFLUENCE = "tests/mutation/survivors.json"


def fingerprint_of(root):
    """Tells trees apart in which mutants might fare differently."""
    digest = hashlib.sha256()
    for name in sorted(tree_files(root)):
        if name.startswith(DECISIVE) and name != WITHOUT_INFLUENCE:
            digest.update(name.encode() + b"\0" + (root / name).read_bytes() + b"\0")
    return digest.hexdigest()


class Journal:
    """A file with a line for the tree and one for each mutant that was tried in it."""

    def __init__(self, path, fingerprint, resume):
        path.parent.mkdir(parents=True, exist_ok=True)
        lines = path.read_text().splitlines() if resume and path.is_file() else []
        is_of_this_tree = bool(lines) and json.loads(lines[0]) == fingerprint
        self._known = dict(map(self._parse, lines[1:])) if is_of_this_tree else {}
        self._file = path.open("a" if is_of_this_tree else "w")
        if not is_of_this_tree:
            self._write(fingerprint)

    @staticmethod
    def _parse(line):
        mutant, verdict = json.loads(line)
        return tuple(mutant), Verdict(*verdict)

    @staticmethod
    def _key(mutant):
        return (mutant.file, mutant.edit.start, mutant.edit.end, mutant.edit.replacement)

    def known(self, mutants):
        return [Tried(mutant, self._known[self._key(mutant)]) for mutant in mutants
                if self._key(mutant) in self._known]

    def note(self, tried):
        verdict = tried.verdict
        self._write([self._key(tried.mutant), [verdict.outcome, verdict.reason, verdict.seconds]])

    def _write(self, record):
        self._file.write(json.dumps(record) + "\n")
        self._file.flush()
