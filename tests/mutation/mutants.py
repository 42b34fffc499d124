"""All mutants of a set of files."""

from dataclasses import dataclass

from cpp_source import Source
from operators import OPERATORS, Edit


@dataclass(frozen=True)
class Mutant:
    """One file with one change."""

    number: int
    file: str
    line: int
    operator: str
    before: str  # the whole lines that are changed, without needless blanks
    after: str
    edit: Edit

    @property
    def key(self):
        """Stays the same when other lines of the file change."""
        return self.file, self.operator, self.before, self.after

    def applied_to(self, text):
        return text[:self.edit.start] + self.edit.replacement + text[self.edit.end:]


def squeezed(text):
    return " ".join(text.split())


def mutants_of(name, text, first_number=1):
    source = Source(name, text)
    found, seen = [], {text}
    for operator, generate in OPERATORS.items():
        for edit in generate(source):
            changed = text[:edit.start] + edit.replacement + text[edit.end:]
            if changed in seen:
                continue
            seen.add(changed)
            start, end = source.line_span(edit.start, edit.end)
            found.append((edit, operator, squeezed(text[start:end]), squeezed(
                text[start:edit.start] + edit.replacement + text[edit.end:end])))
    found.sort(key=lambda mutant: (mutant[0].start, mutant[0].end))
    return [Mutant(first_number + index, name, source.line_of(edit.start), operator, before, after,
                   edit)
            for index, (edit, operator, before, after) in enumerate(found)]


def all_mutants(root, names):
    mutants = []
    for name in names:
        mutants += mutants_of(name, (root / name).read_text(), len(mutants) + 1)
    return mutants
