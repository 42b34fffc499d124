"""The mutation operators: small changes that a programmer might make by mistake.

Each is a generator that takes a Source and yields Edits. Text for people is never changed: string
literals stay, and arguments are not swapped with one.
"""

from dataclasses import dataclass

KEYWORDS_THAT_START_NO_EXPRESSION = set("""
    alignas asm auto bool break case catch char class const constexpr continue default do double
    else enum extern float for friend goto if int long namespace private protected public return
    short signed static static_assert struct switch template throw try typedef typename union
    unsigned using virtual void volatile while
""".split())

RELATIONAL = {"<": ("<=", ">="), ">": (">=", "<="), "<=": ("<", ">"), ">=": (">", "<"),
              "==": ("!=",), "!=": ("==",)}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
              "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "%=": "/="}
STEPS = {"++": "--", "--": "++"}
BITS = {"<<": ">>", ">>": "<<", "|": "&", "&": "|", "^": "|",
        "<<=": ">>=", ">>=": "<<=", "|=": "&=", "&=": "|=", "^=": "|="}
LOGICAL = {"&&": "||", "||": "&&"}
EXTREMES = {"min": "max", "max": "min"}
ORDER_DOES_NOT_MATTER = {"min", "max", "swap", "_mm_add_epi32", "_mm_or_si128"}


@dataclass(frozen=True)
class Edit:
    """A stretch of the text, by offsets, and what takes its place."""

    start: int
    end: int
    replacement: str


def replace(token, text):
    return Edit(token.start, token.end, text)


def places(source):
    """The tokens that may be changed, with their indices."""
    return ((index, token) for index, token in enumerate(source.tokens)
            if index not in source.skipped)


def binary_operators(source, table):
    for index, token in places(source):
        if token.text in table and source.is_binary(index) and source.word(index - 1) != "template":
            yield token, table[token.text]


def relational(source):
    for token, others in binary_operators(source, RELATIONAL):
        for other in others:
            yield replace(token, other)


def arithmetic(source):
    for token, other in binary_operators(source, ARITHMETIC):
        yield replace(token, other)
    for index, token in places(source):
        if token.text in STEPS and source.in_function[index]:
            yield replace(token, STEPS[token.text])


def bits(source):
    for token, other in binary_operators(source, BITS):
        yield replace(token, other)
    for index, token in places(source):
        if token.text == "~" and source.in_function[index] and not source.is_binary(index):
            yield replace(token, "")


def logical(source):
    for token, other in binary_operators(source, LOGICAL):
        yield replace(token, other)


def other_constants(text):
    """An integer literal one larger, one smaller, and zero, in the literal's own base."""
    digits = text.rstrip("uUlL")
    suffix = text[len(digits):]
    digits = digits.replace("'", "")
    try:
        if digits[:2] in ("0x", "0X"):
            value, form = int(digits, 16), "0x{:x}"
        elif digits[:1] == "0" and len(digits) > 1:
            value, form = int(digits, 8), "0{:o}"
        else:
            value, form = int(digits, 10), "{}"
    except ValueError:
        return []  # a floating-point number
    others = {value + 1, max(value - 1, 0), 0} - {value}
    return ["0" + suffix if other == 0 else form.format(other) + suffix
            for other in sorted(others, reverse=True)]


def means_none(source, index):
    """Whether it is the 1 of -1: any other negative number would mean the same."""
    return (source.word(index) == "1" and source.word(index - 1) == "-"
            and not source.is_binary(index - 1))


def constant(source):
    for index, token in places(source):
        if token.kind == "number":
            for other in other_constants(token.text):
                if not (other == "2" and means_none(source, index)):
                    yield replace(token, other)
        elif token.text in ("true", "false"):
            yield replace(token, "false" if token.text == "true" else "true")


def is_plain(source, first, last):
    """Whether a condition is one comparison or one `!`: other operators negate it already."""
    top, index = [], first
    while index < last:
        top.append(source.word(index))
        index = source.skip_group(index) + 1
    if "&&" in top or "||" in top:
        return False
    return top[:1] == ["!"] or any(word in RELATIONAL and word not in "<>" for word in top) or any(
        source.word(i) in "<>" and source.is_binary(i) for i in range(first, last))


def negated(source, first, last):
    """The condition made of the tokens from `first` to before `last`, the other way round."""
    start, end = source.tokens[first].start, source.tokens[last - 1].end
    return Edit(start, end, "!(" + source.text[start:end] + ")")


def condition(source):
    for index, token in places(source):
        if token.text in ("if", "while") and source.in_function[index]:
            opening = index + (2 if source.word(index + 1) == "constexpr" else 1)
            closing = source.match[opening]
            if not is_plain(source, opening + 1, closing):
                yield negated(source, opening + 1, closing)
        elif token.text == "!" and source.in_function[index]:
            yield replace(token, "")
        elif token.text == "?":
            yield from swapped_branches(source, index)


def swapped_branches(source, question):
    colon = scan_to(source, question + 1, (":",))
    end = scan_to(source, colon + 1, (";", ",", ")", "]", "}"))
    first, last = source.tokens[question + 1].start, source.tokens[colon - 1].end
    other, stop = source.tokens[colon + 1].start, source.tokens[end - 1].end
    yield Edit(first, stop, source.text[other:stop] + " : " + source.text[first:last])


def scan_to(source, index, ends):
    """The next of these tokens that is not inside brackets opened on the way."""
    while index < len(source.tokens) and source.word(index) not in ends:
        index = source.skip_group(index) + 1
    return index


def starts_statement(source, index):
    before = source.word(index - 1)
    if not source.is_block(source.enclosing[index]) or source.word(index) == "{":
        return False
    if before == "}":
        return source.is_block(source.match[index - 1])
    if before in (";", "{", "else", "do"):
        return True
    if before == ":":
        return source.word(index - 2) == "default" or "case" in [source.word(index - back)
                                                                for back in (3, 5, 7)]
    opening = source.match.get(index - 1)
    return before == ")" and source.word(opening - 1) in ("if", "while", "for", "switch")


def is_declaration(source, index):
    """Whether a type and a name begin here, rather than an expression."""
    if source.word(index) == "::":
        index += 1
    while source.tokens[index].kind == "word":
        index += 1
        if source.word(index) == "<" and not source.is_binary(index):
            index = scan_to(source, index, (">", ">>")) + 1
        if source.word(index) != "::":
            break
        index += 1
    while source.word(index) in ("*", "&", "&&", "const"):
        index += 1
    return source.tokens[index].kind == "word"


def statements(source):
    """The simple statements of all functions, as first token and semicolon."""
    for index, token in places(source):
        if not source.in_function[index] or not starts_statement(source, index):
            continue
        end = scan_to(source, index, (";", ")", "]", "}"))
        if source.word(end) == ";" and end > index:
            yield index, end


def deleted_statement(source):
    for index, end in statements(source):
        first = source.tokens[index]
        if first.text in ("break", "continue") or first.text == "return" and end == index + 1:
            yield Edit(first.start, source.tokens[end].start, "")
        elif first.text == "return" and source.word(end - 1) == ")":
            # Compiles where a call that gives nothing is returned.
            yield Edit(first.start, source.tokens[end].start, "return")
        elif (first.text in KEYWORDS_THAT_START_NO_EXPRESSION or is_declaration(source, index)
              or first.text == "assert"):  # it never fails in a program that is right
            continue
        else:
            yield Edit(first.start, source.tokens[end].start, "")


def return_value(source):
    for index, end in statements(source):
        value = source.word(index + 1)
        if source.word(index) != "return" or end == index + 1:
            continue
        if end == index + 2 and value in ("true", "false", "nullptr", "0"):
            continue
        if value == "{" and end == index + 3:
            continue
        yield Edit(source.tokens[index + 1].start, source.tokens[end].start, "{}")


def removed_throw(source):
    for index, end in statements(source):
        if source.word(index) == "throw":
            yield Edit(source.tokens[index].start, source.tokens[end].start, "")


def arguments_of(source, opening):
    """The arguments between brackets, each as its first token and the one after its last."""
    arguments, first, index = [], opening + 1, opening + 1
    closing = source.match[opening]
    while index < closing:
        index = scan_to(source, index, (",", ")", "}"))
        arguments.append((first, index))
        first = index = index + 1
    return arguments


def has_text(source, first, last):
    return any(source.tokens[index].kind in ("string", "character") for index in range(first, last))


def swapped_arguments(source):
    for index, token in places(source):
        is_call = (token.text in ("(", "{") and source.in_function[index] and
                   source.tokens[index - 1].kind == "word" and
                   source.word(index - 1) not in
                   KEYWORDS_THAT_START_NO_EXPRESSION | ORDER_DOES_NOT_MATTER)
        if not is_call or index not in source.match:
            continue
        arguments = arguments_of(source, index)
        for (first, comma), (second, end) in zip(arguments, arguments[1:]):
            if not has_text(source, first, comma) and not has_text(source, second, end):
                yield from swapped(source, first, comma, second, end)


def swapped(source, first, comma, second, end):
    left = source.text[source.tokens[first].start:source.tokens[comma - 1].end]
    right = source.text[source.tokens[second].start:source.tokens[end - 1].end]
    if left != right:
        yield Edit(source.tokens[first].start, source.tokens[end - 1].end, right + ", " + left)


def extreme(source):
    for index, token in places(source):
        if token.text in EXTREMES and source.word(index + 1) in ("(", "<"):
            yield replace(token, EXTREMES[token.text])


OPERATORS = {
    "relational": relational,
    "arithmetic": arithmetic,
    "constant": constant,
    "condition": condition,
    "logical": logical,
    "bits": bits,
    "deleted statement": deleted_statement,
    "return value": return_value,
    "removed throw": removed_throw,
    "swapped arguments": swapped_arguments,
    "extreme": extreme,
}
