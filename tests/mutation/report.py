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

    def as_record(self, reason):
        mutant, verdict = self.mutant, self.verdict
        record = {"file": mutant.file, "line": mutant.line, "operator": mutant.operator,
                  "before": mutant.before, "after": mutant.after, "outcome": verdict.outcome,
                  "by": verdict.reason, "seconds": round(verdict.seconds, 2)}
        if verdict.outcome == SURVIVED:
            record["explanation"] = reason
        return record


def total_of(counts):
    return counts[KILLED] + counts[SURVIVED]


def share_of(counts):
    return 100 * counts[KILLED] / total_of(counts) if total_of(counts) else 100


def killed_text(counts):
    return f"{counts[KILLED]} of {total_of(counts)} mutants killed, {share_of(counts):.1f} %"


class Explanations:
    """Why survivors change nothing that a test could see, from a file in the tree.

    An entry names the file, the line's text and the operator, and with "after" one of several
    changes of that line.
    """

    def __init__(self, path):
        self._entries = json.loads(path.read_text()) if path.is_file() else []
        self._used = set()

    def of(self, mutant):
        for index, entry in enumerate(self._entries):
            if self._is_about(entry, mutant):
                self._used.add(index)
                return entry["reason"]
        return ""

    def have(self, mutant):
        return any(self._is_about(entry, mutant) for entry in self._entries)

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
        self.unused = explanations.unused({each.mutant.file for each in tried})

    def survivors(self):
        return [each for each in self._tried if each.verdict.outcome == SURVIVED]

    def unexplained(self):
        return [each for each in self.survivors() if not self.reasons[each.mutant]]

    def counts_of(self, area):
        return Counter(each.verdict.outcome for each in self._tried if area.has(each.mutant.file))

    def is_good(self):
        enough = all(share_of(self.counts_of(area)) >= area.wanted_percent for area in AREAS)
        return enough and not self.unexplained()

    def summary(self):
        parts = [f"{area.name}: {killed_text(self.counts_of(area))} "
                 f"(wanted: {area.wanted_percent} %)"
                 for area in AREAS if total_of(self.counts_of(area))]
        return "; ".join([*parts, f"{self.counts[SURVIVED]} survived, "
                          f"{len(self.unexplained())} of them without an explanation",
                          f"{self.counts[EQUIVALENT]} make the same machine code and "
                          f"{self.counts[INVALID]} do not compile, both outside the totals"])

    def write(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "report.md").write_text(self._markdown())
        document = {"killed": self.counts[KILLED], "total": total_of(self.counts),
                    "percent": share_of(self.counts),
                    "outcomes": dict(self.counts),
                    "mutants": [each.as_record(self.reasons.get(each.mutant, ""))
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
