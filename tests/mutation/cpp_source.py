"""What the operators need to know of a C++ source: its tokens, which brackets belong together, and
which parts are the bodies of functions.

It is no parser. It relies on the layout that the formatter gives every file of this tree: a blank
on both sides of a binary operator, none beside a template's angle brackets.
"""

import re
from bisect import bisect_right
from dataclasses import dataclass

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<string>(?:u8|[uUL])?(?:R"(?P<fence>[^(\s]*)\(.*?\)(?P=fence)"|"(?:\\.|[^"\\\n])*"))
  | (?P<character>(?:u8|[uUL])?'(?:\\.|[^'\\\n])+')
  | (?P<number>\.?\d(?:'?[\w.]|(?<=[eEpP])[+-])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|.)
""", re.VERBOSE | re.MULTILINE | re.DOTALL)

OPENERS = {"(": ")", "[": "]", "{": "}"}
TYPES = {"class", "struct", "union", "enum"}


@dataclass(frozen=True)
class Token:
    """One word of the language. Comments, directives and white space are none."""

    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


class Source:
    """One file's text and what is known of it."""

    def __init__(self, name, text):
        self.name = name
        self.text = text
        self.tokens = [Token(found.lastgroup if found.lastgroup != "fence" else "string",
                             found.group(), found.start())
                       for found in TOKEN.finditer(text)
                       if found.lastgroup not in ("comment", "directive")
                       and not found.group().isspace()]
        self._lines = [0] + [found.end() for found in re.finditer("\n", text)]
        self.match = self._match_brackets()
        self.in_function = self._find_functions()
        self.enclosing = self._find_enclosing()
        self.skipped = self._find_skipped()

    def word(self, index):
        """The token's text; nothing outside of the file."""
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def line_of(self, offset):
        return bisect_right(self._lines, offset)

    def line_span(self, start, end):
        """The offsets of the whole lines that hold this stretch."""
        first = self._lines[self.line_of(start) - 1]
        last = self.text.find("\n", end)
        return first, len(self.text) if last < 0 else last

    def is_binary(self, index):
        """Whether the operator has a blank on both sides."""
        token = self.tokens[index]
        around = self.text[token.start - 1:token.start] + self.text[token.end:token.end + 1]
        return len(around) == 2 and around.isspace()

    def skip_group(self, index):
        """Where a bracket's closing partner is; the index itself for everything else."""
        return self.match.get(index, index) if self.word(index) in OPENERS else index

    def is_block(self, brace):
        """Whether an opening brace inside a function begins statements, not a list of values."""
        before = self.tokens[brace - 1]
        if not self.in_function[brace] or self.word(brace) != "{":
            return False
        return before.text in (")", "]", "else", "do", "try", ";", "{", "}", ":", "noexcept",
                               "const", "mutable", "override") or not self.in_function[brace - 1]

    def _find_enclosing(self):
        """For every token, the bracket that it is in; -1 for none."""
        enclosing, open_ones = [], [-1]
        for index, token in enumerate(self.tokens):
            if token.text in OPENERS.values() and index in self.match:
                open_ones.pop()
            enclosing.append(open_ones[-1])
            if token.text in OPENERS and index in self.match:
                open_ones.append(index)
        return enclosing

    def _match_brackets(self):
        match, open_ones = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in OPENERS:
                open_ones.append(index)
            elif token.text in OPENERS.values() and open_ones:
                partner = open_ones.pop()
                match[partner], match[index] = index, partner
        return match

    def _find_functions(self):
        """For every token, whether it is inside a function's body or its member initialisers."""
        inside = [False] * len(self.tokens)
        self._scan_scope(0, len(self.tokens), inside)
        return inside

    def _scan_scope(self, index, end, inside):
        """Looks through a namespace or a class for bodies."""
        start = index
        while index < end:
            text = self.word(index)
            if text == "{":
                closing = self.match.get(index, end)
                kind = self._kind_of_block(start, index)
                if kind == "scope":
                    self._scan_scope(index + 1, closing, inside)
                elif kind == "function":
                    self._mark(self._initialisers(start, index), closing, inside)
                index = closing
                if kind != "value":
                    start = index + 1
            elif text == ";" or (text == ":" and self.word(index - 1) in
                                 ("public", "private", "protected")):
                start = index + 1
            elif text in OPENERS:
                index = self.match.get(index, end)
            index += 1

    def _kind_of_block(self, start, brace):
        """What a brace opens: "scope", "function", or the "value" of something."""
        words = self._words_outside_brackets(start, brace)
        if "namespace" in words or (TYPES & set(words) and "(" not in words):
            return "scope"
        if words[:1] == ["extern"] and "(" not in words:
            return "scope"
        if "(" not in words or "=" in words and "operator" not in words:
            return "value"
        before = self.tokens[brace - 1]
        members = ":" in words[words.index("("):]
        return "value" if members and before.kind == "word" else "function"

    def _words_outside_brackets(self, start, end):
        words, index = [], start
        while index < end:
            words.append(self.word(index))
            index = self.skip_group(index) + 1
        return words

    def _initialisers(self, start, brace):
        """Where a constructor's member initialisers begin, or the body."""
        index, seen_parameters = start, False
        while index < brace:
            if self.word(index) == "(":
                seen_parameters = True
            elif self.word(index) == ":" and seen_parameters:
                return index
            index = self.skip_group(index) + 1
        return brace

    @staticmethod
    def _mark(first, last, inside):
        for index in range(first, last + 1):
            inside[index] = True

    def _find_skipped(self):
        """The tokens of compile-time checks and attributes, which no test can observe."""
        skipped = set()
        for index, token in enumerate(self.tokens):
            if token.text in ("static_assert", "__attribute__", "alignas", "asm"):
                skipped.update(range(index, self.match.get(index + 1, index) + 1))
            elif token.text == "[" and self.word(index + 1) == "[":
                skipped.update(range(index, self.match.get(index, index) + 1))
        return skipped
