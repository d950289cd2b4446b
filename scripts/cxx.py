"""What the checks read of the library's sources: declarations of headers, with their comments, and
calls. It knows the C++ of the house style, as clang-format leaves it, and no other."""

import re
from dataclasses import dataclass

NAMESPACE = "hvn::util"
STRING = r'"(?:\\.|[^"\\])*"'
BUILT_IN = {"bool", "char", "double", "float", "int", "long", "short", "signed", "unsigned", "void"}


def split_list(text):
    """The parts of a list between its outermost commas. A < or > between blanks is no bracket."""
    parts, depth, begin = [], 0, 0
    for match in re.finditer(rf"{STRING}|->| [<>]=? |[(<{{\[]|[)>}}\]]|,", text):
        if match[0] == "," and depth == 0:
            parts.append(text[begin:match.start()].strip())
            begin = match.end()
        depth += (match[0] in "(<{[") - (match[0] in ")>}]")
    return [*parts, text[begin:].strip()] if text.strip() else []


def bracketed(text, start):
    """What the bracket at `start` and the one that closes it hold."""
    depth = 0
    for match in re.compile(rf"{STRING}|[()]").finditer(text, start):
        depth += (match[0] == "(") - (match[0] == ")")
        if depth == 0:
            return text[start + 1:match.start()]
    raise ValueError(f"nothing closes {text[start:start + 60]}")


def without_comments(text):
    """The same text, line by line, with blanks in place of comments."""
    return re.sub(rf"({STRING})|//[^\n]*", lambda match: match[1] or "", text)


def calls(text, name):
    """(offset, arguments) of each call of `name`."""
    for match in re.finditer(rf"\b{name}\(", text):
        yield match.start(), split_list(bracketed(text, match.end() - 1))


def literal(text):
    """What the string literals of an expression make together; None for any other expression."""
    pieces = re.findall(STRING, text)
    if not pieces or re.sub(STRING, "", text).strip():
        return None
    return "".join(piece[1:-1] for piece in pieces)


@dataclass
class Function:
    """A member function, as a header declares it."""
    scope: tuple  # the classes around it
    access: str
    text: str  # from its specifiers to behind its parameters, without a body
    line: int
    comment: str  # of the run of declarations that it stands in, and behind it

    @property
    def name(self):
        return re.search(r"(operator\W+|~?\w+)$", self.text[:parameters_of(self.text)])[1]

    @property
    def is_special(self):
        """A constructor, a destructor, or what the compiler writes or refuses."""
        return (self.name.lstrip("~") == self.scope[-1]
                or re.search(r"= (delete|default)$", self.text) is not None)


def parameters_of(text):
    """Where the parameter list begins; -1 for what is no function."""
    depth = 0
    for i, letter in enumerate(text):
        depth += (letter == "<") - (letter == ">")
        if letter == "(" and depth == 0:
            return i
    return -1


class Header:
    """The types and the member functions that a header declares."""

    def __init__(self, path):
        self.functions = []
        self.types = set()  # each with the classes around it
        self._scopes = []  # [name, access]
        self._comment, self._fresh = "", False  # whether the next comment line begins another
        self._lines = enumerate(path.read_text().splitlines(), 1)
        for number, line in self._lines:
            self._read(number, line)

    def _read(self, number, line):
        words = line.strip()
        if words.startswith("///"):
            self._comment = words[3:] if self._fresh else f"{self._comment} {words[3:].strip()}"
            self._fresh = False
            return
        if not words or words.startswith(("#", "//", "namespace", "}  //")):
            self._comment, self._fresh = "", True
        elif re.fullmatch(r"(public|protected|private):", words):
            self._scopes[-1][1] = words[:-1]
        elif words == "};":
            self._scopes.pop()
        elif opened := re.match(r"(class|struct) (?:HUTIL_\w+ )?(\w+)[^;(]*\{$", words):
            self._add_type(opened[2])
            self._scopes.append([opened[2], "private" if opened[1] == "class" else "public"])
            self._comment = ""
        else:
            self._read_statement(number, line)
        self._fresh = True

    def _add_type(self, name):
        self.types.add((*(scope for scope, _ in self._scopes), name))

    def _read_statement(self, first, line):
        """A declaration that no brace opens to read on in."""
        indent = line[:len(line) - len(line.lstrip())]
        code, behind = self._code_of(line)
        while not re.search(r"[;{}]$", code):
            more, behind = self._code_of(next(self._lines)[1])
            code += " " + more
        body = code.endswith("{")
        named = re.match(r"(?:class|struct|enum|using) (\w+)", code)
        if named and not re.fullmatch(r"\w+ \w+;", code):  # which only announces it
            self._add_type(named[1])
        while body and not next(self._lines)[1].startswith(indent + "}"):
            pass
        if not named and self._scopes and "(" in code and not code.startswith("friend"):
            self._add_function(first, code, behind)

    @staticmethod
    def _code_of(line):
        code, _, behind = line.partition("//")
        return code.strip(), behind.lstrip("/<")

    def _add_function(self, line, code, behind):
        code = re.sub(rf"HUTIL_\w+(\({STRING}\))? ", "", code)
        opening = parameters_of(code)
        if opening < 0:
            return
        end = opening + len(bracketed(code, opening)) + 2
        qualified = re.match(r" const| = delete| = default", code[end:])
        text = code[:end] + (qualified[0] if qualified else "")
        self.functions.append(Function(tuple(scope for scope, _ in self._scopes),
                                       self._scopes[-1][1], text, line, self._comment + behind))


def signature(function, types):
    """A function as the log names it; `types` are all that may need their scope's name."""
    opening = parameters_of(function.text)
    inside = bracketed(function.text, opening)
    before = re.sub(r"\b(explicit|virtual|inline|constexpr) ", "",
                    function.text[:opening])
    before = before[:-len(function.name)].strip()
    static = "static " if before.startswith("static ") else ""
    result = qualify(before.removeprefix("static "), function.scope, types)
    parameters = ", ".join(qualify(unnamed(one), function.scope, types)
                           for one in split_list(inside))
    const = " const" if function.text.endswith(" const") else ""
    return (f"{static}{result}{' ' if result else ''}{NAMESPACE}::{'::'.join(function.scope)}::"
            f"{function.name}({parameters}){const}")


def unnamed(parameter):
    """A parameter's type."""
    declared = re.sub(r"\s*=.*", "", parameter)
    named = re.fullmatch(r"(.*[\s*&>])(\w+)", declared)
    return named[1].strip() if named and named[2] not in BUILT_IN else declared


def qualify(text, scope, types):
    """`text` with our types named in full, and std::string in templates as compilers see it."""
    def full(match):
        for depth in range(len(scope), -1, -1):
            if (*scope[:depth], match[0]) in types:
                return "::".join([NAMESPACE, *scope[:depth], match[0]])
        return match[0]

    text = re.sub(r"(?<![\w:])[A-Za-z_]\w*", full, text)
    return re.sub(r"<std::string>", "<std::basic_string<char> >", text)
