"""Finds where a small fault could be in src/util, through Clang's syntax tree.

Every handler below yields faults of one sort of node: (kind, (start, end), replacement).
"""

import re
from collections import Counter
from dataclasses import dataclass, replace
from difflib import unified_diff
from itertools import pairwise
from multiprocessing import Pool
from pathlib import Path

from clang.cindex import CursorKind as Kind
from clang.cindex import Diagnostic, Index, TranslationUnit, TypeKind

ROOT = "src/util"
FLAGS = ["-std=c++17", "-Iinclude", "-Isrc"]
LOG = "HUTIL_LOG"
COMPARISONS = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
               "==": ["!="], "!=": ["=="]}
OPERATORS = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "<<": ">>",
             ">>": "<<", "&": "|", "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=",
             "&=": "|="}
PRIORITIES = ["LOG_DEBUG", "LOG_INFO", "LOG_WARNING", "LOG_ERR"]
SMALL, SIZE = 1000, 16  # where one more makes no difference, and where twice as much does
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.CONVERSION_FUNCTION, Kind.FUNCTION_TEMPLATE}
VARIABLES = {Kind.VAR_DECL, Kind.FIELD_DECL}
EXITS = {Kind.RETURN_STMT, Kind.BREAK_STMT, Kind.CONTINUE_STMT}
CASES = {Kind.CASE_STMT, Kind.DEFAULT_STMT}


def flat(text):
    return " ".join(text.split())


@dataclass(frozen=True, order=True)
class Mutant:
    """One edit of one place. Its key holds no line numbers, so that it outlives other edits."""
    path: str
    start: int
    end: int
    replacement: str
    kind: str
    function: str
    line: int
    column: int
    original: str
    number: int = 1  # among those alike in its function

    @property
    def name(self):
        return (f"{self.path}:{self.line}:{self.column} {self.kind} "
                f"`{flat(self.original)}` -> `{flat(self.replacement)}`")

    @property
    def key(self):
        number = f"#{self.number}" if self.number > 1 else ""
        return (f"{self.path}  {self.function}  {self.kind}{number}  "
                f"{flat(self.original)} -> {flat(self.replacement)}")

    @property
    def room(self):
        return room_of(self.path)

    @property
    def files(self):
        return [self.path]

    @property
    def lines(self):
        return range(self.line, self.line + self.original.count("\n") + 1)

    def texts(self, tree):
        """Before and after. Later lines keep their numbers, which are in the log."""
        text = (tree / self.path).read_bytes().decode("latin-1")
        lost = self.original.count("\n") - self.replacement.count("\n")
        return text, text[:self.start] + self.replacement + "\n" * lost + text[self.end:]

    def apply(self, tree):
        (tree / self.path).write_bytes(self.texts(tree)[1].encode("latin-1"))
        return True

    def diff(self, tree):
        before, after = (text.splitlines(keepends=True) for text in self.texts(tree))
        return "".join(list(unified_diff(before, after, n=1))[2:])


def room_of(path):
    """A source and its header are one room, named by its path in src/util (or include/util)."""
    return path.split("/util/", 1)[1].rsplit(".", 1)[0]


class Source:
    """One file, its text as bytes: Clang counts those."""

    def __init__(self, path):
        self.path = path
        self.text = Path(path).read_bytes().decode("latin-1")
        self.macros = set()  # the spans of macros with arguments
        self.ends = set()  # where functions end

    def span(self, cursor):
        """None for what stands elsewhere, and for what only a macro's expansion knows apart."""
        start, end = cursor.extent.start, cursor.extent.end
        if start.file is None or start.file.name != self.path or start.offset >= end.offset:
            return None
        if any(first < offset < last for first, last in self.macros
               for offset in (start.offset, end.offset)):
            return None
        return start.offset, end.offset

    def of(self, span):
        return self.text[span[0]:span[1]]

    def statement(self, cursor):
        """With the semicolon that ends it."""
        span = self.span(cursor)
        if span is None:
            return None
        return span[0], span[1] + len(re.match(r"(\s*;)?", self.text[span[1]:])[0])

    def operator(self, left, right):
        """What stands between two operands."""
        left, right = self.span(left), self.span(right)
        if left is None or right is None or left[1] > right[0]:
            return "", None
        between = self.text[left[1]:right[0]]
        start = left[1] + len(between) - len(between.lstrip())
        return between.strip(), (start, start + len(between.strip()))

    def is_call(self, cursor):
        return cursor.kind.is_expression() or self.span(cursor) in self.macros


def integers(source, cursor):
    span = source.span(cursor)
    digits = span and re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", source.of(span))
    if not digits:
        return
    value = int(digits[1], 16 if digits[1][:2] in ("0x", "0X") else 10)
    values = {value + 1} if value < SMALL else set()
    if value >= SIZE:
        values |= {value * 2, value // 2}
    for other in sorted(values | {0} - {value}):
        yield "constant", span, f"{other}{digits[2]}"
    if 0 < value < SMALL:
        yield "constant", span, f"(-{source.of(span)})"


def booleans(source, cursor):
    span = source.span(cursor)
    other = span and {"true": "false", "false": "true"}.get(source.of(span))
    if other:
        yield "constant", span, other


def sizes(source, cursor):
    span = source.span(cursor)
    if span and source.of(span).startswith("sizeof"):
        yield "size", span, f"(2 * {source.of(span)})"
        yield "size", span, f"({source.of(span)} / 2)"


def binaries(source, cursor):
    left, right = list(cursor.get_children())
    operator, at = source.operator(left, right)
    whole = source.span(cursor)
    if whole is None:
        return
    for other in COMPARISONS.get(operator, []):
        yield "comparison", at, other
    if operator in OPERATORS:
        yield "logic" if operator in ("&&", "||") else "arithmetic", at, OPERATORS[operator]
    if operator in ("&&", "||", "|", "&"):
        kind = "flag" if operator in "|&" else "logic"
        yield kind, whole, source.of(source.span(left))
        if operator != "&" and f" {operator} " not in source.of(source.span(left)):
            yield kind, whole, source.of(source.span(right))


def unaries(source, cursor):
    span = source.span(cursor)
    operand = source.span(next(cursor.get_children()))
    if span is None or operand is None:
        return
    text = source.of(span)
    if text[0] in "!~" or re.match(r"-[^-\d]", text):
        yield "condition" if text[0] == "!" else "arithmetic", span, source.of(operand)
    elif "++" in text or "--" in text:
        yield "arithmetic", span, text.translate(str.maketrans("+-", "-+"))


def plain_type(cursor):
    return re.sub(r"\bconst\b|&| ", "", cursor.type.get_canonical().spelling)


def swapped(source, kind, pair, types):
    """Two neighbours of one type in each other's place."""
    (left, right), (left_type, right_type) = pair, types
    if None in pair or left_type != right_type or left[1] > right[0]:
        return
    if source.of(left) != source.of(right):
        between = source.text[left[1]:right[0]]
        yield kind, (left[0], right[1]), source.of(right) + between + source.of(left)


def neighbours(source, arguments):
    for left, right in pairwise(arguments):
        yield from swapped(source, "arguments", (source.span(left), source.span(right)),
                           (plain_type(left), plain_type(right)))


def calls(source, cursor):
    if cursor.spelling.startswith("operator"):
        operands = list(cursor.get_children())
        operator, at = source.operator(operands[0], operands[-1]) if operands else ("", None)
        for other in COMPARISONS.get(operator, [])[:1]:
            yield "comparison", at, other
    else:
        yield from neighbours(source, cursor.get_arguments())


def lists(source, cursor):
    yield from neighbours(source, cursor.get_children())


def split_arguments(source, span):
    """The spans of a macro's arguments, which Clang does not tell."""
    depth, start = 0, source.text.index("(", span[0]) + 1
    for token in re.finditer(r'"(?:\\.|[^"\\])*"|[()\[\]{},]', source.of(span)):
        at = span[0] + token.start()
        depth += (token[0] in "([{") - (token[0] in ")]}")
        if (token[0] == "," and depth == 1) or depth == 0 and token[0] == ")":
            yield start, at
            start = re.compile(r"\s*").match(source.text, at + 1).end()


def logs(source, cursor):
    """Of a macro that is called."""
    span = source.span(cursor)
    if cursor.kind != Kind.CALL_EXPR or not source.of(span).startswith(LOG):
        return
    spans = list(split_arguments(source, span))
    priority = source.of(spans[0])
    if priority in PRIORITIES:
        place = PRIORITIES.index(priority)
        yield "log", spans[0], PRIORITIES[place - 1 if place else 1]
    types = [plain_type(argument) for argument in cursor.get_arguments()]
    for pair in pairwise(list(zip(spans, types))[2:]):
        yield from swapped(source, "log", *zip(*pair))


def condition_of(source, cursor, children):
    """The place of the condition among the children: the first expression, in `for` the second."""
    for place, child in enumerate(children):
        span = source.span(child)
        if span and child.kind.is_expression():
            around = source.text[:span[0]].rstrip()[-1] + source.text[span[1]:].lstrip()[:1]
            if cursor.kind != Kind.FOR_STMT or around == ";;":
                return place
    return None


def conditions(source, cursor):
    children = list(cursor.get_children())
    place = condition_of(source, cursor, children)
    if place is None or source.of(source.span(children[place])) in ("true", "false"):
        return
    span, rest = source.span(children[place]), children[place + 1:]
    text = source.of(span)
    if re.search(r" (&&|\|\|) ", text) or not re.search(r"^!| ([=!<>]=|[<>]) ", text):
        yield "condition", span, f"!({text})"  # or else the negation is one of the operator's faults
    if cursor.kind == Kind.CONDITIONAL_OPERATOR:
        return
    forced = "((void)({}), {})" if "(" in text else "{1}"  # what the condition calls is called still
    is_guard = cursor.kind == Kind.IF_STMT and len(rest) == 1 and rest[0].kind in EXITS
    yield "guard" if is_guard else "condition", span, forced.format(text, "false")
    if cursor.kind == Kind.IF_STMT:
        yield "condition", span, forced.format(text, "true")


def enumerators(source, cursor):
    """The neighbours of an enumerator in its enumeration."""
    span, used = source.span(cursor), cursor.referenced
    if span is None or used is None or used.kind != Kind.ENUM_CONSTANT_DECL:
        return
    if not source.of(span).endswith(used.spelling):
        return
    names = [child.spelling for child in used.semantic_parent.get_children()
             if child.kind == Kind.ENUM_CONSTANT_DECL]
    place = names.index(used.spelling)
    for name in names[max(place - 1, 0):place] + names[place + 1:place + 2]:
        yield "enumerator", (span[1] - len(used.spelling), span[1]), name


def held(source, statement, rest):
    """The kind of an object that is declared only to be held; none of its scope names it."""
    variables = list(statement.get_children()) if statement.kind == Kind.DECL_STMT else []
    if len(variables) != 1 or variables[0].kind != Kind.VAR_DECL:
        return None
    variable = variables[0]
    if variable.type.get_canonical().kind != TypeKind.RECORD:
        return None
    if re.search(rf"\b{variable.spelling}\b", rest):
        return None
    return "lock" if re.search("lock|mutex", variable.type.spelling, re.I) else "held"


def dropped(source, statement):
    span = source.span(statement)
    if span and source.is_call(statement):
        yield "log" if source.of(span).startswith(LOG) else "statement", span, "(void)0"


def bodies(source, cursor):
    """Statements without braces."""
    children = list(cursor.get_children())
    before = condition_of(source, cursor, children) if cursor.kind == Kind.IF_STMT else -2
    for child in children[before + 1:] if before is not None else []:
        yield from dropped(source, child)
        if cursor.kind in CASES and child.kind in EXITS:
            yield "exit", source.span(child), "(void)0"


def blocks(source, cursor):
    end = cursor.extent.end.offset
    previous = None
    for child in cursor.get_children():
        yield from dropped(source, child)
        span = source.statement(child)
        rest = source.text[span[1]:end] if span else ""
        is_last = end in source.ends and rest.strip() == "}"
        if span and child.kind in EXITS and not is_last and source.of(span)[0] in "rbc":
            yield "exit", source.span(child), "(void)0"
        kind = held(source, child, rest)
        if kind:
            yield kind, span, ";"
        statement = (child, span, kind) if span and child.kind not in EXITS | CASES else None
        if previous and statement and can_swap(source, previous, statement):
            sort = "lock" if "lock" in (previous[2], kind) else "order"
            yield from swapped(source, sort, (previous[1], span), ("", ""))
        previous = statement


def can_swap(source, first, second):
    """One at least calls or holds something; the second does not use what the first declares."""
    names = [child.spelling for child in first[0].get_children() if first[0].kind == Kind.DECL_STMT]
    if any(re.search(rf"\b{name}\b", source.of(second[1])) for name in names):
        return False
    return any(kind or source.is_call(cursor) for cursor, _, kind in (first, second))


HANDLERS = {
    Kind.INTEGER_LITERAL: [integers], Kind.CXX_BOOL_LITERAL_EXPR: [booleans],
    Kind.CXX_UNARY_EXPR: [sizes], Kind.BINARY_OPERATOR: [binaries],
    Kind.COMPOUND_ASSIGNMENT_OPERATOR: [binaries], Kind.UNARY_OPERATOR: [unaries],
    Kind.CALL_EXPR: [calls], Kind.INIT_LIST_EXPR: [lists], Kind.DECL_REF_EXPR: [enumerators],
    Kind.CONDITIONAL_OPERATOR: [conditions], Kind.IF_STMT: [conditions, bodies],
    Kind.COMPOUND_STMT: [blocks], Kind.DO_STMT: [conditions],
    Kind.WHILE_STMT: [conditions, bodies], Kind.FOR_STMT: [conditions, bodies],
    Kind.CXX_FOR_RANGE_STMT: [bodies], **{kind: [bodies] for kind in CASES}}


def function_name(cursor):
    owner = cursor.semantic_parent
    prefix = "" if owner.kind in (Kind.NAMESPACE, Kind.TRANSLATION_UNIT) else owner.spelling + "::"
    return prefix + cursor.spelling


def placed(source, function, kind, span, replacement):
    line = source.text.count("\n", 0, span[0]) + 1
    column = span[0] - source.text.rfind("\n", 0, span[0])
    return Mutant(source.path, *span, replacement, kind, function, line, column, source.of(span))


def walk(source, cursor, function):
    if cursor.kind == Kind.COMPOUND_STMT and source.text[cursor.extent.start.offset] != "{":
        return  # of a defaulted function
    if cursor.kind in FUNCTIONS or (function == "-" and cursor.kind in VARIABLES):
        function = function_name(cursor)
    if cursor.kind in FUNCTIONS or cursor.kind == Kind.LAMBDA_EXPR:
        source.ends.add(cursor.extent.end.offset)
    is_macro = source.span(cursor) in source.macros
    for handler in [logs] if is_macro else HANDLERS.get(cursor.kind, []):
        for found in handler(source, cursor):
            yield placed(source, function, *found)
    if not is_macro and cursor.kind != Kind.STATIC_ASSERT:
        for child in cursor.get_children():
            yield from walk(source, child, function)


def mutants_of_unit(path):
    """Of one source and the private headers that it includes."""
    unit = Index.create().parse(path, FLAGS,
                                options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
    errors = [str(each) for each in unit.diagnostics if each.severity >= Diagnostic.Error]
    if errors:
        raise RuntimeError("\n".join(errors))
    sources, found = {}, set()
    for cursor in unit.cursor.get_children():
        file = cursor.location.file
        if file is None or not file.name.startswith(ROOT + "/"):
            continue
        source = sources.setdefault(file.name, Source(file.name))
        if cursor.kind == Kind.MACRO_INSTANTIATION:
            start, end = cursor.extent.start.offset, cursor.extent.end.offset
            if end - start > len(cursor.spelling):
                source.macros.add((start, end))
        elif not cursor.kind.is_preprocessing():
            found.update(walk(source, cursor, "-"))
    return found


def numbered(mutants):
    """Sorted by place, each edit once, those alike in one function numbered."""
    seen, edits = Counter(), set()
    for mutant in sorted(mutants):
        edit = (mutant.path, mutant.start, mutant.end, mutant.replacement)
        if edit in edits:
            continue
        edits.add(edit)
        seen[mutant.key] += 1
        yield replace(mutant, number=seen[mutant.key])


def find_mutants():
    with Pool() as pool:
        units = pool.map(mutants_of_unit, map(str, sorted(Path(ROOT).rglob("*.cpp"))))
    return list(numbered(set().union(*units)))
