"""The mutants of a source file: copies of it with one small mistake each.

The mistakes are those of the classic operators of mutation testing (R. DeMillo, R. Lipton, F.
Sayward, "Hints on Test Data Selection", 1978): a relation, a sign of arithmetic or logic is
another one, a constant is one more or less, a statement is missing, two arguments stand in each
other's place. Texts are left as they are: what they say is held as a whole, or by no test at all.
"""

import re
from typing import NamedTuple

from cxx_tokens import tokens_of

# Between two operands, where blanks stand around it.
BINARY = {
    "<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"),
    "==": ("!=",), "!=": ("==",),
    "&&": ("||",), "||": ("&&",),
    "+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("/",),
    "<<": (">>",), ">>": ("<<",), "&": ("|",), "|": ("&",), "^": ("&",),
    "+=": ("-=",), "-=": ("+=",), "*=": ("/=",), "|=": ("&=",), "&=": ("|=",), "^=": ("|=",),
    "<<=": (">>=",), ">>=": ("<<=",),
}
UNARY = {"++": "--", "--": "++", "!": ""}
ESCAPES = {"\\0": "\\1", "\\n": "\\r", "\\r": "\\n", "\\t": " ", "\\\\": "/", "\\'": "`"}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}
# What begins no statement that can be left out, and no call.
KEYWORDS = set("""alignas alignof asm auto case catch class const constexpr decltype default do else
    enum explicit extern for friend goto if inline mutable namespace noexcept operator private
    protected public return sizeof static static_assert struct switch template thread_local try
    typedef typename union using virtual volatile while""".split())
PAIRS = {"(": ")", "[": "]", "{": "}"}
# Where a function begins, up to its name: at the beginning of a line.
FUNCTION = re.compile(r"^(?=[A-Za-z_])(?!static_assert)[^\n;={(]*?([A-Za-z_~]\w*)\(", re.MULTILINE)
INTEGER = re.compile(r"(0[xX][\da-fA-F']+|0[bB][01']+|0[0-7']+|[1-9][\d']*|0)([uUlLzZ]*)$")


class Mutant(NamedTuple):
    path: str   # from the checkout's root
    start: int  # of what is replaced in the file's text, in characters
    end: int
    new: str
    swapped_in: str = ""  # if it is two arguments in each other's place, the function's name

    def applied(self, text):
        return text[:self.start] + self.new + text[self.end:]

    def line_number(self, text):
        return text.count("\n", 0, self.start) + 1

    def function(self, text):
        """The name of the function that it is in, or of the one before; empty if there is none."""
        names = FUNCTION.findall(text, 0, self.start)
        return names[-1] if names else ""

    def lines(self, text):
        """The lines that it changes, as they are and as they become; without indentation."""
        first = text.rfind("\n", 0, self.start) + 1
        last = text.find("\n", self.end)
        old = text[first:last]
        new = text[first:self.start] + self.new + text[self.end:last]
        return tuple(" ".join(lines.split()) for lines in (old, new))

    def place(self, text):
        """What it is, without line numbers: its path, its function, and its lines."""
        return self.path, self.function(text), *self.lines(text)


class Finder:
    def __init__(self, path, text):
        self.path, self.text, self.tokens = path, text, tokens_of(text)
        self.mutants = []

    def add(self, first, last, new, swapped_in=""):
        """Replaces the tokens from the first to the last, both included."""
        mutant = Mutant(self.path, self.tokens[first].start, self.tokens[last].end, new, swapped_in)
        if self.text[mutant.start:mutant.end] != new:
            self.mutants.append(mutant)

    def is_sign(self, at, *signs):
        return (0 <= at < len(self.tokens) and self.tokens[at].kind == "sign"
                and self.tokens[at].text in signs)

    def partner(self, at):
        """Of the bracket at `at`, the one that closes it; None if there is none."""
        waiting = []
        for i in range(at, len(self.tokens)):
            token = self.tokens[i]
            if token.kind != "sign":
                continue
            if token.text in PAIRS:
                waiting.append(PAIRS[token.text])
            elif token.text in PAIRS.values():
                if token.text != waiting.pop():
                    return None
                if not waiting:
                    return i
        return None

    def operator(self, at):
        token = self.tokens[at]
        if token.spaced and token.text in BINARY:
            template = at > 0 and self.tokens[at - 1].text in ("template", "operator")
            if not template:
                for new in BINARY[token.text]:
                    self.add(at, at, new)
        elif token.text in UNARY:
            self.add(at, at, UNARY[token.text])

    def constant(self, at):
        token = self.tokens[at]
        if token.text in ("true", "false"):
            self.add(at, at, "false" if token.text == "true" else "true")
        elif token.kind == "number":
            for new in next_numbers(token.text):
                self.add(at, at, new)
        elif token.kind == "char":
            self.add(at, at, next_char(token.text))

    def statement(self, at):
        """A statement that begins here and declares nothing is left out."""
        if at > 0 and not self.begins_statement(at):
            return
        first = self.tokens[at]
        if first.text in ("break", "continue", "throw", "delete"):
            end = self.semicolon(at)
        else:
            end = self.expression_statement(at)
        if end is not None:
            self.add(at, end, ";")

    def begins_statement(self, at):
        before = self.tokens[at - 1]
        if before.text == ")":
            return self.is_after_condition(at - 1)
        return before.text in (";", "{", "}", "else", ":")

    def is_after_condition(self, closing):
        depth = 0
        for i in range(closing, -1, -1):
            if self.is_sign(i, ")"):
                depth += 1
            elif self.is_sign(i, "("):
                depth -= 1
                if depth == 0:
                    words = {self.tokens[i - 1].text, self.tokens[i - 2].text}
                    return bool(words & {"if", "for", "while"})
        return False

    def semicolon(self, at):
        while at < len(self.tokens):
            if self.is_sign(at, ";"):
                return at
            if self.is_sign(at, *PAIRS):
                at = self.partner(at)
                if at is None:
                    return None
            elif self.is_sign(at, ")", "]", "}"):
                return None
            at += 1
        return None

    def expression_statement(self, at):
        """Where it ends, if it is a call, an assignment or a step up or down."""
        while self.is_sign(at, "*", "++", "--"):
            if self.tokens[at].text != "*":
                return self.semicolon(at)
            at += 1
        if self.tokens[at].kind != "word" or self.tokens[at].text in KEYWORDS:
            return None
        was_call = False
        while at + 1 < len(self.tokens):
            at += 1
            if self.is_sign(at, "(", "["):
                was_call = self.tokens[at].text == "("
                at = self.partner(at)
                if at is None:
                    return None
            elif self.is_sign(at, ".", "->", "::"):
                at += 1
            elif self.is_sign(at, ";"):
                return at if was_call else None
            elif self.is_sign(at, "++", "--", *ASSIGNMENTS):
                return self.semicolon(at)
            else:
                return None
        return None

    def arguments(self, at):
        """Two neighbours among the arguments of a call, each in the other's place."""
        if not self.is_sign(at + 1, "(") or self.tokens[at].text in KEYWORDS:
            return
        end = self.partner(at + 1)
        if end is None:
            return
        spans, first, i = [], at + 2, at + 2
        while i <= end:
            if i == end or self.is_sign(i, ","):
                spans.append((first, i - 1))
                first = i + 1
            elif self.is_sign(i, *PAIRS):
                i = self.partner(i)
            i += 1
        if any(last < first or self.declares(first, last) for first, last in spans):
            return
        for (a, b), (c, d) in zip(spans, spans[1:]):
            left, between, right = (
                self.text[self.tokens[x].start:self.tokens[y].end]
                for x, y in ((a, b), (b + 1, c - 1), (c, d)))
            if left != right:
                self.add(a, d, right + between + " " + left, self.tokens[at].text)

    def declares(self, first, last):
        """Whether it looks like a parameter: `int count`, `const Text& text`, `Text&`."""
        if self.is_sign(last, "*", "&", "&&"):
            return True
        return (last > first and self.tokens[last].kind == "word"
                and (self.tokens[last - 1].kind == "word"
                     or (self.is_sign(last - 1, "*", "&", "&&", ">")
                         and not self.tokens[last - 1].spaced)))

    def all(self):
        for at, token in enumerate(self.tokens):
            if token.kind == "directive":
                continue
            self.statement(at)
            if token.kind == "sign":
                self.operator(at)
            elif token.kind == "word":
                self.arguments(at)
            self.constant(at)
        return self.mutants


def next_numbers(text):
    found = INTEGER.match(text)
    if found is None:
        return []
    digits, suffix = found.groups()
    plain = digits.replace("'", "")
    octal = len(plain) > 1 and plain.isdigit() and plain[0] == "0"
    value = int(plain, 8) if octal else int(plain, 0)
    form = "0{:o}" if octal else "{:#x}" if plain[:2].lower() == "0x" else "{}"
    return [form.format(near) + suffix for near in (value + 1, value - 1) if near >= 0]


def next_char(text):
    content = text[text.index("'") + 1:-1]
    if content in ESCAPES:
        new = ESCAPES[content]
    elif content.startswith("\\x"):
        new = f"\\x{(int(content[2:], 16) ^ 1):x}"
    elif len(content) == 1:
        new = chr(ord(content) ^ 1)
        new = "\\" + new if new in "'\\" else new
    else:
        return text
    return text.replace(content, new)


def mutants_of(path, text):
    return Finder(path, text).all()
