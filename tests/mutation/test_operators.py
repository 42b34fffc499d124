"""The operators on small pieces of code, with the results written by hand."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from cpp_source import Source  # noqa: E402
from mutants import mutants_of  # noqa: E402
from operators import OPERATORS  # noqa: E402


def changed(operator, code):
    """The code as each mutant of this operator has it."""
    edits = OPERATORS[operator](Source("a.cpp", code))
    return [code[:edit.start] + edit.replacement + code[edit.end:] for edit in edits]


def body(statement):
    return "void f() { " + statement + " }\n"


class Operators(unittest.TestCase):
    def expect(self, operator, statement, *others):
        self.assertEqual(changed(operator, body(statement)), [body(other) for other in others])

    def test_a_comparison_becomes_its_neighbours(self):
        self.expect("relational", "g(a < b);", "g(a <= b);", "g(a >= b);")
        self.expect("relational", "g(a == b);", "g(a != b);")

    def test_angle_brackets_of_templates_are_no_comparison(self):
        self.expect("relational", "g(static_cast<int>(a));")
        self.assertEqual(changed("relational", "template <typename T>\nclass A {};\n"), [])

    def test_arithmetic_turns_round(self):
        self.expect("arithmetic", "g(a + b);", "g(a - b);")
        self.expect("arithmetic", "a %= b;", "a /= b;")
        self.expect("arithmetic", "++a;", "--a;")

    def test_pointers_and_signs_are_no_arithmetic(self):
        self.expect("arithmetic", "const char* a = *b; g(-1, &c);")

    def test_a_constant_moves_by_one_and_to_zero(self):
        self.expect("constant", "g(8);", "g(9);", "g(7);", "g(0);")
        self.expect("constant", "g(0);", "g(1);")
        self.expect("constant", "g(0x10u);", "g(0x11u);", "g(0xfu);", "g(0u);")
        self.expect("constant", "g(0600);", "g(0601);", "g(0577);", "g(0);")
        self.expect("constant", "g(true);", "g(false);")

    def test_minus_one_keeps_its_meaning_or_loses_it(self):
        self.expect("constant", "g(-1);", "g(-0);")
        self.expect("constant", "g(a - 1);", "g(a - 2);", "g(a - 0);")
        self.expect("constant", "g(-2);", "g(-3);", "g(-1);", "g(-0);")

    def test_texts_names_and_compile_time_checks_keep_their_digits(self):
        self.expect("constant", "g(\"8\", '8', a8);")
        self.assertEqual(changed("constant", "static_assert(a == 8, \"8\");\n#define A 8\n"), [])

    def test_a_condition_turns_round(self):
        self.expect("condition", "if (a) g();", "if (!(a)) g();")
        self.expect("condition", "if (a && b) g();", "if (!(a && b)) g();")
        self.expect("condition", "if (!a) g();", "if (a) g();")
        self.expect("condition", "g(a ? b : c);", "g(a ? c : b);")

    def test_a_plain_comparison_is_not_turned_round_twice(self):
        self.expect("condition", "if (a < b) g();")

    def test_logic_changes_sides(self):
        self.expect("logical", "g(a && b);", "g(a || b);")
        self.expect("logical", "void h(A&& a);")

    def test_bits_and_shifts_change(self):
        self.expect("bits", "g(a << 2 | b);", "g(a >> 2 | b);", "g(a << 2 & b);")
        self.expect("bits", "g(~a);", "g(a);")

    def test_a_statement_disappears(self):
        self.expect("deleted statement", "g(a);", ";")
        self.expect("deleted statement", "a.b = c;", ";")
        self.expect("deleted statement", "if (a) g();", "if (a) ;")
        self.expect("deleted statement", "for (;;) { break; }", "for (;;) { ; }")
        self.expect("deleted statement", "if (a) return;", "if (a) ;")
        self.expect("deleted statement", "h([&] { g(); });", ";", "h([&] { ; });")

    def test_an_assertion_stays(self):
        self.expect("deleted statement", "assert(a > 0);")

    def test_declarations_stay(self):
        for statement in ("const int a = 1;", "A a(1);", "A::B<C> a;", "A* a = b;", "auto a = b;"):
            self.expect("deleted statement", statement)
        self.assertEqual(changed("deleted statement", "class A {\n  int a;\n  void b();\n};\n"), [])

    def test_a_loop_keeps_its_condition(self):
        self.expect("deleted statement", "for (int i = 0; i < n; ++i) g();",
                    "for (int i = 0; i < n; ++i) ;")

    def test_a_value_that_is_returned_becomes_empty(self):
        self.expect("return value", "return a + b;", "return {};")
        for statement in ("return;", "return {};", "return 0;", "return false;"):
            self.expect("return value", statement)

    def test_a_throw_disappears(self):
        self.expect("removed throw", "if (a) throw B(1);", "if (a) ;")
        self.expect("removed throw", "throw;", ";")

    def test_neighbouring_arguments_change_places(self):
        self.expect("swapped arguments", "g(a, b + 1, c);", "g(b + 1, a, c);", "g(a, c, b + 1);")

    def test_arguments_with_text_or_alike_and_parameters_stay(self):
        self.expect("swapped arguments", "g(a, \"b\"); h(a, a); std::swap(a, b);")
        self.assertEqual(changed("swapped arguments", "void f(int a, char b);\n"), [])

    def test_the_smaller_becomes_the_larger(self):
        self.expect("extreme", "g(std::min(a, b));", "g(std::max(a, b));")

    def test_initialisers_of_members_count_as_a_function(self):
        code = "A::A(int a) : b_(g(a, c)) {}\n"
        self.assertEqual(changed("swapped arguments", code), ["A::A(int a) : b_(g(c, a)) {}\n"])


class Mutants(unittest.TestCase):
    CODE = "int f(int a) {\n  // a < b\n  return a < 1;\n}\n"

    def test_know_their_line_and_its_text(self):
        first = mutants_of("a.cpp", self.CODE)[0]
        self.assertEqual((first.line, first.before, first.after),
                         (3, "return a < 1;", "return {};"))
        self.assertEqual(first.applied_to(self.CODE), self.CODE.replace("a < 1", "{}"))

    def test_are_counted_from_the_given_number(self):
        self.assertEqual([mutant.number for mutant in mutants_of("a.cpp", self.CODE, 7)],
                         [7, 8, 9, 10, 11])

    def test_never_make_the_same_text_twice(self):
        texts = [mutant.applied_to(self.CODE) for mutant in mutants_of("a.cpp", self.CODE)]
        self.assertEqual(len(set(texts)), len(texts))


if __name__ == "__main__":
    unittest.main()
