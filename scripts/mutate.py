# SPDX-License-Identifier: MIT
"""Finds the small changes (mutants) that can be made to C++ sources, and writes them in, each behind a switch."""

import hashlib
import re
import subprocess
from collections import Counter

from clang.cindex import CursorKind, Index, TypeKind

SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
         "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "^": "&", "<<": ">>", ">>": "<<"}
EQUALITIES = ("==", "!=")
KINDS = {**dict.fromkeys(("<", "<=", ">", ">=", *EQUALITIES), "comparison"), **dict.fromkeys(("&&", "||"), "logic")}
NUMBER = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*$")
NOISE = re.compile(r"""("(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*')|//[^\n]*|/\*.*?\*/|\s+""", re.DOTALL)
CONSTEXPR = re.compile(r"\bconstexpr\b")
MACRO_CALL = re.compile(r"[A-Z_]+\(")

FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.CONVERSION_FUNCTION, CursorKind.FUNCTION_TEMPLATE}
SCOPES = {CursorKind.NAMESPACE, CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL, CursorKind.UNION_DECL,
          CursorKind.CLASS_TEMPLATE, CursorKind.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION}
CONDITIONED = {CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.FOR_STMT, CursorKind.DO_STMT,
               CursorKind.CONDITIONAL_OPERATOR}
HOLDERS = {CursorKind.COMPOUND_STMT, CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT}  # of statements that may go
WHOLE = {CursorKind.RETURN_STMT, CursorKind.DECL_STMT}  # statements that name what is in them
OPERATIONS = {CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR, CursorKind.CALL_EXPR}
CONSTANT = {*SCOPES, CursorKind.STATIC_ASSERT, CursorKind.CXX_UNARY_EXPR, CursorKind.DECL_REF_EXPR}


def one_line(text):
    """Without comments, and with single blanks."""
    return NOISE.sub(lambda match: match.group(1) or " ", text).strip()


def literal(text):
    """For a template."""
    return text.replace("{", "{{").replace("}", "}}")


def qualified_name(node):
    names = []
    while node is not None and node.kind != CursorKind.TRANSLATION_UNIT:
        names.insert(0, node.spelling)
        node = node.semantic_parent
    return "::".join(filter(None, names))


class Mutant:
    """Known by its code, wherever that stands. The template makes the code that has both forms: "{n}" is the
    number of the switch, "{}" the original."""

    def __init__(self, place, lines, code, change, template):
        self.file, self.begin, self.end = place
        self.line, self.last_line = lines
        self.code = code  # function, statement, kind
        self.change, self.template = change, template
        self.occurrence = 0  # among those of the same code
        self.number = 0

    def identity(self):
        return " | ".join((*self.code, str(self.occurrence)))

    def id(self):
        return hashlib.sha256(self.identity().encode()).hexdigest()[:10]

    def record(self):
        return {"id": self.id(), "file": self.file, "line": self.line, "change": self.change,
                **dict(zip(("function", "statement", "kind"), self.code)), "occurrence": self.occurrence}


class Source:
    """Finds the mutants of one file by its syntax tree."""

    def __init__(self, name, content):
        self.name, self.content = name, content
        self.mutants = []

    def text(self, begin, end):
        return self.content[begin:end].decode()

    def text_of(self, node):
        return self.text(node.extent.start.offset, node.extent.end.offset)

    def add(self, node, code, change, template):
        begin, end = node.extent.start.offset, node.extent.end.offset
        if begin < end:  # otherwise it comes from the argument of a macro
            lines = [self.content.count(b"\n", 0, offset) + 1 for offset in (begin, end)]
            change = change.format(one_line(self.text(begin, end)))
            self.mutants.append(Mutant((self.name, begin, end), lines, code, change, template))

    def scan(self, node):
        """Looks for function bodies."""
        if node.kind in FUNCTIONS and node.is_definition():
            for body in node.get_children():
                head = self.text(node.extent.start.offset, body.extent.start.offset)
                if body.kind == CursorKind.COMPOUND_STMT and not CONSTEXPR.search(head):
                    self.visit(body, qualified_name(node), "", None)
        elif node.kind in SCOPES:
            for child in node.get_children():
                self.scan(child)

    def visit(self, node, function, statement, parent):
        text = self.text_of(node)
        if node.kind in CONSTANT or node.kind == CursorKind.VAR_DECL and CONSTEXPR.search(text):
            return
        macro = node.kind.is_statement() and MACRO_CALL.match(text)  # its inside isn't in this file
        if parent and parent.kind.is_statement() and parent.kind not in WHOLE:
            statement = one_line(text)
            if (node.kind.is_expression() or macro) and parent.kind in HOLDERS and not text.startswith("va_"):
                self.add(node, (function, statement, "removal"), "{} removed", "if (!vexaMutant({n})) {}")
        if macro:
            return
        children = list(node.get_children())
        if node.kind == CursorKind.VAR_DECL:  # without the arguments of its type
            children = [child for child in children if child.extent.start.offset > node.location.offset]
        elif node.kind == CursorKind.CASE_STMT:
            children = children[1:]
        self.mutate(node, text, (function, statement), children)
        for child in children:
            self.visit(child, function, statement, node)

    def mutate(self, node, text, code, children):
        if node.kind in CONDITIONED and not text.startswith("if constexpr"):
            self.negate(node, code, children)
        elif node.kind in OPERATIONS:
            self.swap(node, code)
        elif node.kind == CursorKind.UNARY_OPERATOR and text.startswith("!"):
            self.add(node, (*code, "not"), "{} without the !", "(vexaMutant({n}) != {})")
        elif node.kind == CursorKind.INTEGER_LITERAL and NUMBER.match(text):
            self.add(node, (*code, "literal"), "{} + 1", "(vexaMutant({n}) ? {0} + 1 : {0})")
        elif node.kind == CursorKind.RETURN_STMT and text in ("return true", "return false"):
            self.add(children[0], (*code, "return"), "return {} reversed", "(vexaMutant({n}) != {})")

    def negate(self, node, code, children):
        if node.kind == CursorKind.FOR_STMT:
            children = [child for child in children if child.type.kind == TypeKind.BOOL]
        elif node.kind == CursorKind.DO_STMT:
            children = children[::-1]
        if not children or not children[0].kind.is_expression():
            return
        text = one_line(self.text_of(children[0]))
        if text.startswith("!") or self.operator(children[0])[0] in EQUALITIES:
            return  # as the other mutant there
        if node.kind != CursorKind.CONDITIONAL_OPERATOR:
            code = code[0], text
        self.add(children[0], (*code, "negation"), "{} negated", "(vexaMutant({n}) != static_cast<bool>({}))")

    def operator(self, node):
        """What stands between two operands, and where; of a call, only if it is a comparison for equality."""
        operands = list(node.get_arguments() if node.kind == CursorKind.CALL_EXPR else node.get_children())
        if node.kind not in OPERATIONS or len(operands) != 2:
            return "", ()
        between = operands[0].extent.end.offset, operands[1].extent.start.offset
        operator = one_line(self.text(*between))
        return (operator if node.kind != CursorKind.CALL_EXPR or operator in EQUALITIES else ""), between

    def swap(self, node, code):
        operator, between = self.operator(node)
        assigned = "=" if operator not in SWAPS and operator.endswith("=") else ""
        swapped = SWAPS.get(operator.removesuffix(assigned))
        if swapped:
            left = self.text(node.extent.start.offset, between[0])
            right = self.text(between[1], node.extent.end.offset)
            mutated = literal(one_line(f"{left} {swapped}{assigned} {right}"))
            self.add(node, (*code, KINDS.get(operator, "arithmetic")), f"{{}} -> {mutated}",
                     f"(vexaMutant({{n}}) ? ({mutated}) : ({{}}))")


def find(tree, files):
    """All mutants of `files`, names and contents of sources and headers below the folder `tree`."""
    flags = subprocess.run(["pkg-config", "--cflags", "gio-2.0"], capture_output=True, text=True, check=True)
    arguments = ["-std=c++17", *flags.stdout.split(),
                 *sorted({f"-I{(tree / name).parent}" for name in files if name.endswith(".h")})]
    found = {}
    for unit_name in (name for name in files if name.endswith(".cpp")):
        unit = Index.create().parse(str(tree / unit_name), arguments)
        for problem in unit.diagnostics:
            if problem.severity >= problem.Error:
                raise SystemExit(f"mutants: {unit_name} can't be parsed: {problem}")
        sources = {str(tree / name): Source(name, content) for name, content in files.items()}
        for node in unit.cursor.get_children():
            if node.location.file and node.location.file.name in sources:
                sources[node.location.file.name].scan(node)
        # Headers come again and again.
        found.update({(mutant.file, mutant.begin, mutant.end, mutant.code[2]): mutant
                      for source in sources.values() for mutant in source.mutants})
    seen = Counter()
    for _, mutant in sorted(found.items()):
        mutant.occurrence = seen[mutant.code]
        seen[mutant.code] += 1
    return list(found.values())


def rewrite(content, mutants):
    """The source with both forms of each mutant. Mutants lie in each other or apart, never across."""
    def render(begin, end, inside):
        text, position = b"", begin
        while inside:
            outer, *rest = inside
            inner = [mutant for mutant in rest if mutant.end <= outer.end]
            original = render(outer.begin, outer.end, inner).decode()
            text += content[position:outer.begin] + outer.template.format(original, n=outer.number).encode()
            position, inside = outer.end, rest[len(inner):]
        return text + content[position:end]

    # Of several at the same place the removal of the statement is the outermost.
    order = sorted(mutants, key=lambda it: (it.begin, -it.end, it.code[2] != "removal", it.code[2]))
    return render(0, len(content), order)
