"""What came out, for people and for programs."""

import json
from collections import Counter
from dataclasses import dataclass

from areas import AREAS
from workshop import EQUIVALENT, INVALID, KILLED, SURVIVED

OUTCOMES = (KILLED, SURVIVED, EQUIVALENT, INVALID)


@dataclass(frozen=True)
class Tried:
    """A mutant and its verdict."""

    mutant: object
    verdict: object

    def as_record(self, reason, is_same):
        mutant, verdict = self.mutant, self.verdict
        record = {"file": mutant.file, "line": mutant.line, "operator": mutant.operator,
                  "before": mutant.before, "after": mutant.after, "outcome": verdict.outcome,
                  "by": verdict.reason, "seconds": round(verdict.seconds, 2)}
        if verdict.outcome == SURVIVED:
            record.update(explanation=reason, same=is_same)
        return record


def share_of(killed, total):
    return 100 * killed / total if total else 100


@dataclass(frozen=True)
class Score:
    """How many were killed of all that compile, and of those that make a difference.

    The second is what literature calls the mutation score: what changes only the source, or how
    long something takes, says nothing about the tests.
    """

    killed: int
    total: int
    different: int

    def percent(self):
        return share_of(self.killed, self.different)

    def text(self):
        return (f"{self.killed} of {self.total} mutants killed, "
                f"{share_of(self.killed, self.total):.1f} %; {self.percent():.1f} % of the "
                f"{self.different} that make a difference")


class Explanations:
    """Why changes survive, from a file in the tree.

    An entry names the file, the line's text and the operator, and with "after" one of several
    changes of that line. With "same" the program does the same as before, if perhaps slower.
    """

    def __init__(self, path):
        self._entries = json.loads(path.read_text()) if path.is_file() else []
        self._used = set()

    def of(self, mutant):
        entry = self._entry_of(mutant)
        if entry is None:
            return ""
        self._used.add(self._entries.index(entry))
        return entry["reason"]

    def have(self, mutant):
        return self._entry_of(mutant) is not None

    def say_it_is_the_same(self, mutant):
        entry = self._entry_of(mutant)
        return entry is not None and entry.get("same", False)

    def _entry_of(self, mutant):
        return next((entry for entry in self._entries if self._is_about(entry, mutant)), None)

    @staticmethod
    def _is_about(entry, mutant):
        return ((entry["file"], entry["operator"], entry["before"]) ==
                (mutant.file, mutant.operator, mutant.before)
                and entry.get("after", mutant.after) == mutant.after)

    def unused(self, files):
        """Entries for these files that explain nothing any more."""
        return [entry for index, entry in enumerate(self._entries)
                if index not in self._used and entry["file"] in files]


class Report:
    """All that were tried in one run."""

    def __init__(self, tried, explanations):
        self._tried = sorted(tried, key=lambda each: each.mutant.number)
        self.counts = Counter(each.verdict.outcome for each in tried)
        self.reasons = {each.mutant: explanations.of(each.mutant) for each in self.survivors()}
        self._the_same = {each.mutant for each in self.survivors()
                          if explanations.say_it_is_the_same(each.mutant)}
        self.unused = explanations.unused({each.mutant.file for each in tried})

    def survivors(self):
        return [each for each in self._tried if each.verdict.outcome == SURVIVED]

    def unexplained(self):
        return [each for each in self.survivors() if not self.reasons[each.mutant]]

    def score(self, is_counted=lambda file: True):
        counted = [each for each in self._tried if is_counted(each.mutant.file)]
        outcomes = Counter(each.verdict.outcome for each in counted)
        total = outcomes[KILLED] + outcomes[SURVIVED]
        same = sum(each.mutant in self._the_same for each in counted)
        return Score(outcomes[KILLED], total, total - same)

    def is_good(self):
        enough = all(self.score(area.has).percent() >= area.wanted_percent for area in AREAS)
        return enough and not self.unexplained()

    def summary(self):
        scores = [(area, self.score(area.has)) for area in AREAS]
        parts = [f"{area.name}: {score.text()} (wanted: {area.wanted_percent} %)"
                 for area, score in scores if score.total]
        return "; ".join([*parts, f"{self.counts[SURVIVED]} survived, "
                          f"{len(self.unexplained())} of them without an explanation",
                          f"{self.counts[EQUIVALENT]} make the same machine code and "
                          f"{self.counts[INVALID]} do not compile, both outside the totals"])

    def write(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "report.md").write_text(self._markdown())
        score = self.score()
        document = {"killed": score.killed, "total": score.total, "different": score.different,
                    "percent": score.percent(),
                    "outcomes": dict(self.counts),
                    "mutants": [each.as_record(self.reasons.get(each.mutant, ""),
                                           each.mutant in self._the_same)
                                for each in self._tried]}
        (folder / "report.json").write_text(json.dumps(document, indent=1) + "\n")

    def _markdown(self):
        parts = ["# Mutants\n", self.summary() + ".\n", "## By file\n",
                 self._table("file"), "## By operator\n", self._table("operator"),
                 "## Survivors\n", *map(self._survivor, self.survivors())]
        if self.unused:
            parts += ["## Explanations that explain nothing any more\n",
                      *(f"- `{entry['file']}`: `{entry['before']}`\n" for entry in self.unused)]
        return "\n".join(parts)

    def _table(self, field):
        rows = {}
        for each in self._tried:
            rows.setdefault(getattr(each.mutant, field), Counter())[each.verdict.outcome] += 1
        lines = ["| | " + " | ".join(OUTCOMES) + " |", "|---|" + "---:|" * len(OUTCOMES)]
        lines += [f"| {name} | " + " | ".join(str(counts[one]) for one in OUTCOMES) + " |"
                  for name, counts in sorted(rows.items())]
        return "\n".join(lines) + "\n"

    def _survivor(self, each):
        mutant = each.mutant
        reason = self.reasons[mutant] or "**no explanation**"
        return (f"- `{mutant.file}:{mutant.line}`, {mutant.operator}: {reason}\n\n"
                f"      {mutant.before}\n      {mutant.after}\n")
