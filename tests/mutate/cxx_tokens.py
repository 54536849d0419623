"""The tokens of C++ source text that a preprocessor has not seen yet."""

import re
from typing import NamedTuple

PATTERN = re.compile(r"""
  (?P<blank>\s+|\\\n)
| (?P<comment>//[^\n]*|/\*.*?\*/)
| (?P<string>(?:u8|[uUL])?R"(?P<mark>[^()\\\s]*)\(.*?\)(?P=mark)"|(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
| (?P<char>(?:u8|[uUL])?'(?:\\.|[^'\\\n])+')
| (?P<number>\.?\d(?:[eEpP][+-]|'?[\w.])*)
| (?P<word>[A-Za-z_]\w*)
| (?P<sign><<=|>>=|\.\.\.|->|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|::|[-+*/%&|^]=|.)
""", re.VERBOSE | re.DOTALL)

# A directive to its end; but of a macro's definition only what stands before the replacement.
DIRECTIVE = re.compile(
    r"#[ \t]*(?:define[ \t]+\w+(?:\([^)]*\))?|(?!define\b)(?:\\\n|//[^\n]*|/\*.*?\*/|[^\n])*)",
    re.DOTALL)


class Token(NamedTuple):
    kind: str   # "string", "char", "number", "word", "sign" or "directive"
    text: str
    start: int  # where it begins in the text, in characters
    spaced: bool  # whether blanks stand on both sides, as around a binary operator

    @property
    def end(self):
        return self.start + len(self.text)


def tokens_of(text):
    """Without blanks and comments."""
    tokens = []
    at = 0
    while at < len(text):
        line_so_far = text[text.rfind("\n", 0, at) + 1:at]
        if text[at] == "#" and not line_so_far.strip():
            kind, found = "directive", DIRECTIVE.match(text, at)
        else:
            found = PATTERN.match(text, at)
            kind = "string" if found.lastgroup == "mark" else found.lastgroup
        end = found.end()
        if kind not in ("blank", "comment"):
            spaced = text[at - 1:at].isspace() and text[end:end + 1].isspace()
            tokens.append(Token(kind, found.group(), at, spaced))
        at = end
    return tokens
