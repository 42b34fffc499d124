"""What was found so far, kept while a long run goes on, so that a run can be taken up again."""

import hashlib
import json
import re

from areas import AREAS, area_of
from report import Tried
from workshop import EQUIVALENT, INVALID, SURVIVED, Verdict, tree_files

# What the verdicts depend on; pages and explanations may change meanwhile.
DECISIVE = ("src/", "include/", "platform/", "receiver/", "tools/", "tests/", "cmake/",
            "CMakeLists.txt")
WITHOUT_INFLUENCE = "tests/mutation/survivors.json"

QUICK_TESTS = re.compile(r"tests/(unit|property)/([^/]*/)?[^/]*Test\.cpp")
TEST = re.compile(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", re.MULTILINE)
KILLER = re.compile(r"\w+: (?:\w+/)?(\w+\.\w+)(?:/\w+)?")


def digest_of(contents):
    digest = hashlib.sha256()
    for name in sorted(contents):
        digest.update(name.encode() + b"\0" + contents[name] + b"\0")
    return digest.hexdigest()


class Tree:
    """Tells trees apart in which mutants might fare differently."""

    def __init__(self, contents):
        decisive = {name: content for name, content in contents.items()
                    if name.startswith(DECISIVE) and name != WITHOUT_INFLUENCE}
        self.whole = digest_of(decisive)
        self.grounds = {area.name: digest_of({name: content for name, content in decisive.items()
                                              if re.fullmatch(area.ground, name)})
                        for area in AREAS}
        self.tests = {}
        for name, content in decisive.items():
            if QUICK_TESTS.fullmatch(name):
                for suite, test in TEST.findall(content.decode()):
                    self.tests[f"{suite}.{test}"] = digest_of({name: content})

    @staticmethod
    def of(root):
        return Tree({name: (root / name).read_bytes() for name in tree_files(root)})

    def keeps(self, file, verdict, known, is_explained):
        """Whether a verdict on a mutant of this file, found in another tree, holds in this one.

        A mutant that a test killed is killed again by the same test, whatever was added elsewhere.
        One that lived counts as alive, even if it is not any more, where that is explained.
        """
        if known["whole"] == self.whole:
            return True
        area = area_of(file).name
        if known["grounds"][area] != self.grounds[area]:
            return False
        if verdict.outcome == SURVIVED:
            return is_explained
        if verdict.outcome in (INVALID, EQUIVALENT):
            return file.endswith(".cpp")  # a header may be used by more now
        killer = KILLER.fullmatch(verdict.reason)
        return killer is not None and known["tests"].get(killer[1], "") == self.tests.get(killer[1])


class Journal:
    """A file with a line for the tree and one for each mutant that was tried in it."""

    def __init__(self, path, tree, resume, explained=()):
        path.parent.mkdir(parents=True, exist_ok=True)
        lines = path.read_text().splitlines() if resume and path.is_file() else []
        known = json.loads(lines[0]) if lines else None
        parsed = dict(map(self._parse, lines[1:]))
        explained_keys = set(map(self._key, explained))
        self._known = {key: verdict for key, verdict in parsed.items()
                       if tree.keeps(key[0], verdict, known, key in explained_keys)}
        self._path = path
        path.write_text(json.dumps(vars(tree)) + "\n")
        for mutant, verdict in self._known.items():
            self._note(mutant, verdict)

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
        self._note(self._key(tried.mutant), tried.verdict)

    def _note(self, mutant, verdict):
        record = [mutant, [verdict.outcome, verdict.reason, verdict.seconds]]
        with self._path.open("a") as file:
            file.write(json.dumps(record) + "\n")
