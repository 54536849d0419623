"""Which mutants are made of a text, and whether the equivalent ones are still of the code's lines.

    mutants_test.py, from the checkout's root
"""

import sys
import unittest

from mutants import mutants_of
from mutate import Equivalents


def made_of(text):
    """All mutants as (their line as it is, as it becomes), in the order of the text."""
    mutants = sorted(mutants_of("a.cpp", text), key=lambda mutant: mutant.start)
    return [mutant.lines(text)[1] for mutant in mutants]


class Mutants(unittest.TestCase):
    def test_relations_become_their_neighbours(self):
        self.assertEqual(made_of("a = b < c;\n")[-2:], ["a = b <= c;", "a = b >= c;"])
        self.assertEqual(made_of("if (b == c)\n"), ["if (b != c)"])

    def test_signs_without_blanks_are_no_operators(self):
        self.assertEqual(made_of("std::vector<int> list(const char* text, A&& other);\n"), [])
        self.assertEqual(made_of("template <class T>\n"), [])

    def test_logic(self):
        self.assertEqual(made_of("return !a && b;\n"), ["return a && b;", "return !a || b;"])
        self.assertEqual(made_of("bool a = true;\n"), ["bool a = false;"])

    def test_numbers_become_one_more_and_one_less_in_their_own_form(self):
        self.assertEqual(made_of("x[10];\n"), ["x[11];", "x[9];"])
        self.assertEqual(made_of("x[0x1Fu];\n"), ["x[0x20u];", "x[0x1eu];"])
        self.assertEqual(made_of("open(0600);\n"), [";", "open(0601);", "open(0577);"])
        self.assertEqual(made_of("x[0];\n"), ["x[1];"])
        self.assertEqual(made_of("double x = 1.5;\n"), [])

    def test_characters_become_others(self):
        self.assertEqual(made_of("x['a'];\n"), ["x['`'];"])
        self.assertEqual(made_of(R"x['\n'];" + "\n"), [R"x['\r'];"])
        self.assertEqual(made_of("x['&'];\n"), [R"x['\''];"])

    def test_statements_are_left_out_and_declarations_are_not(self):
        self.assertEqual(made_of("{ free(p); }\n"), ["{ ; }"])
        self.assertEqual(made_of("{ a->b[i].c = d; }\n"), ["{ ; }"])
        self.assertEqual(made_of("if (a) break;\n"), ["if (a) ;"])
        self.assertEqual(made_of("else throw Error();\n"), ["else ;"])
        for declaration in ("int a;", "Text text(b);", "const Text& a = b;", "return a;",
                            "using a::b;"):
            self.assertEqual(made_of("{ " + declaration + " }\n"), [], declaration)

    def test_neighbouring_arguments_swap_and_parameters_do_not(self):
        self.assertEqual(made_of("x = y(a, f(b, c), d);\n")[1:],
                         ["x = y(f(b, c), a, d);", "x = y(a, d, f(b, c));", "x = y(a, f(c, b), d);"])
        self.assertEqual(made_of("void f(int a, const Text& b);\n"), [])

    def test_texts_comments_and_directives_stay(self):
        self.assertEqual(made_of('// a < 1\n/* 2 */\n#if A < 3\n"x < 4"\n'), [])
        self.assertEqual(made_of('R"(1 < 2)"\n'), [])
        self.assertEqual(made_of("#define N (5)\n"), ["#define N (6)", "#define N (4)"])

    def test_each_is_another_text_than_the_one_it_is_made_of(self):
        text = "if (a < 1 && !b) { f(c, c); g(0, '\\\\'); }\n"
        for mutant in mutants_of("a.cpp", text):
            self.assertNotEqual(mutant.applied(text), text)

    def test_each_is_in_the_function_above(self):
        text = ("namespace {\n#define A(b) (1)\n}\nint first(int a)\n{\n    b(a);\n}\n"
                "Some::Some() : m_a(1) {}\n\nvoid Some::last(\n    int a)\n{\n    b(a);\n}\n")
        functions = [mutant.function(text) for mutant in mutants_of("a.cpp", text)]
        self.assertEqual(list(dict.fromkeys(functions)), ["", "first", "Some", "last"])


class TheEquivalentOnes(unittest.TestCase):
    def test_are_mutants_of_the_code(self):
        self.assertEqual(Equivalents().stale(), [])


if __name__ == "__main__":
    sys.exit(unittest.main())
