#!/usr/bin/env python3
"""check-log.py [--list]: whether docs/operations.md tells exactly what the library logs.

Every HUTIL_LOG of the sources has a row under its priority with its whole format and with the class
(or the operation) that it speaks for, and every row has such a call. Every function that is named
in the log is one that a header declares. TCP's figures stand under their names. --list prints what is
logged.
"""

import re
import sys
from dataclasses import dataclass
from pathlib import Path

import cxx

ROOT = Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/operations.md"
PRIORITIES = {"LOG_ERR": 3, "LOG_WARNING": 4, "LOG_INFO": 6, "LOG_DEBUG": 7}
WHO_AND_WHERE = "%s %d: "  # what most lines begin with, and the page leaves out
# The parameters of a helper that logs for its callers.
INSIDE = r"(?:[^()]|\([^()]*\))*"
NAMES_A_FUNCTION = rf"{INSIDE}\bconst char\* function\b{INSIDE}"
SHORT = {"Init": "Socket::Init", "SetNonBlock": "Socket::SetNonBlock", "Accept": "Socket::Accept"}


@dataclass
class Call:
    """One HUTIL_LOG."""
    place: str
    priority: int
    text: str
    speakers: set  # signatures; empty where the line names no function or only a caller knows
    figures: list  # fields of a tcp_info among its arguments


class Sources:
    """The library's sources, and what texts their names of functions stand for."""

    def __init__(self):
        files = sorted([*(ROOT / "src").rglob("*.*"), *(ROOT / "include").rglob("*.h")])
        self.texts = {file: cxx.without_comments(file.read_text()) for file in files}
        self.constants = {}  # by file and name
        for file, text in self.texts.items():
            for name, value in re.findall(
                    rf"constexpr char (\w+)\[\] =\s*((?:{cxx.STRING}\s*)+);", text):
                self.constants.setdefault((file, name), []).append(cxx.literal(value))
        self.passed = {}  # what callers of a helper with a parameter `function` pass, by helper
        helpers = set(self._helpers())
        for _ in helpers:  # as often as one may pass on what another was passed
            for helper, position in helpers:
                self.passed.setdefault(helper, set()).update(self._passed_to(helper, position))

    def _passed_to(self, helper, position):
        for file, text in self.texts.items():
            for offset, arguments in cxx.calls(text, helper):
                if len(arguments) > position:  # or it is another's of that name
                    yield from self.resolve(file, offset, arguments[position]) or ()

    def _helpers(self):
        for text in self.texts.values():
            for name, parameters in re.findall(rf"(\w+)\(({NAMES_A_FUNCTION})\)", text):
                names = [part.split()[-1] for part in cxx.split_list(parameters)]
                yield name, names.index("function")
            for name in re.findall(r"#define (\w+)\(function\)", text):
                yield name, 0

    def resolve(self, file, offset, expression):
        """The texts that an expression for a function's name may stand for; None if it is none."""
        value = cxx.literal(expression)
        if value is not None:
            return {value}
        before = self.texts[file][:offset]
        if re.fullmatch(r"k\w+", expression):
            return self._constant(file, before, expression)
        if expression.strip("()") == "function":
            return self.passed.get(self._helper_around(before), set())
        return set() if expression.endswith(".function") else None  # a record's: of its makers

    def _constant(self, file, before, name):
        """The last definition before, in this file or in a header that it includes."""
        found = re.findall(rf"constexpr char {name}\[\] =\s*((?:{cxx.STRING}\s*)+);", before)
        if found:
            return {cxx.literal(found[-1])}
        headers = {ROOT / "src" / header for header in re.findall(r'#include "(.*)"', before)}
        return {value for header in headers for value in self.constants.get((header, name), [])}

    @staticmethod
    def _helper_around(before):
        found = re.findall(rf"(\w+)\({NAMES_A_FUNCTION}\) {{|#define (\w+)\(function\)", before)
        return "".join(found[-1]) if found else ""

    def calls(self):
        for file, text in self.texts.items():
            for offset, arguments in cxx.calls(text, "HUTIL_LOG"):
                if arguments[0] == "priority":  # the macro itself
                    continue
                place = self._place(file, offset)
                format_ = cxx.literal(arguments[1])
                if arguments[0] not in PRIORITIES or format_ is None:
                    sys.exit(f"check-log.py: {place}: priority or format is not written out")
                speakers = set()
                if re.match(r"%s( %d|\(\)) ?:", format_):
                    speakers = self.resolve(file, offset, arguments[2])
                    if speakers is None:
                        sys.exit(f"check-log.py: {place}: what function is '{arguments[2]}'?")
                figures = re.findall(r"\.tcpi_(\w+)", " ".join(arguments[2:]))
                yield Call(place, PRIORITIES[arguments[0]], shown(format_), speakers, figures)

    def _place(self, file, offset):
        line = self.texts[file].count("\n", 0, offset) + 1
        return f"{file.relative_to(ROOT)}:{line}"

    def named_functions(self):
        """(place, text) of each literal that names a function of ours."""
        for file, text in self.texts.items():
            for match in re.finditer(rf"(?:{cxx.STRING}\s*)+", text):
                value = cxx.literal(match[0])
                if f"{cxx.NAMESPACE}::" in value:
                    yield self._place(file, match.start()), value


def shown(format_):
    """A format as the page has it."""
    return format_.removeprefix(WHO_AND_WHERE).removesuffix("\\n")


def operation(signature):
    """Class::Operation of a signature."""
    if signature in SHORT:
        return SHORT[signature]
    found = re.search(rf"{cxx.NAMESPACE}::((?:\w+::)+~?\w+)\(", signature)
    return found[1] if found else signature


def declared_signatures():
    headers = [cxx.Header(path) for path in
               [*(ROOT / "include/util").glob("*.h"), *(ROOT / "src/util").glob("*.h")]]
    types = set().union(*(header.types for header in headers))
    return {cxx.signature(function, types) for header in headers for function in header.functions}


def rows():
    """(priority, text, those who say it) of each text that the page explains."""
    priority = None
    for line in PAGE.read_text().splitlines():
        if heading := re.match(r"## (\d)", line):
            priority = int(heading[1])
        elif priority and line.startswith("|") and not line.startswith(("|-", "| text")):
            cells = re.split(r"(?<!\\)\|", line)
            texts = re.findall(r"`([^`]*)`", cells[1]) or [""]  # (empty)
            who = set(re.findall(r"[A-Z]\w+(?:::~?\w+)?", cells[2]))
            for text in texts:
                yield priority, text, who


def speaks_for(who, speaker):
    return who in (speaker, speaker.split("::")[0])


def faults():
    sources = Sources()
    explained = {}
    for priority, text, who in rows():
        explained.setdefault((priority, text), set()).update(who)
    unheard = {(key, who) for key, all_who in explained.items() for who in all_who}
    for call in sources.calls():
        key = (call.priority, call.text)
        if key not in explained:
            yield f"{call.place}: docs/operations.md has no such text at {key[0]}: '{key[1]}'"
            continue
        names = re.findall(r"(?:tcpi_)?(\w+) \[%u\]", call.text)
        if call.figures and call.figures != names:
            yield f"{call.place}: a figure of TCP does not stand under its name"
        speakers = {operation(speaker) for speaker in call.speakers}
        heard = {who for who in explained[key]
                 if not speakers or any(speaks_for(who, speaker) for speaker in speakers)}
        unheard -= {(key, who) for who in heard}
        for speaker in speakers:
            if not any(speaks_for(who, speaker) for who in heard):
                yield f"{call.place}: docs/operations.md does not have {speaker} say '{key[1]}'"
    for (priority, text), who in sorted(unheard):
        yield f"docs/operations.md: {who} logs nothing at {priority} like '{text}'"
    declared = declared_signatures() | set(SHORT)
    for place, text in sources.named_functions():
        if text not in declared:
            yield f"{place}: no header declares {text}"
    for call in sources.calls():
        yield from (f"{call.place}: no header declares {speaker}"
                    for speaker in call.speakers - declared if cxx.NAMESPACE not in speaker)


def main():
    if sys.argv[1:] == ["--list"]:
        for call in sorted(Sources().calls(), key=lambda call: (call.priority, call.place)):
            print(call.priority, call.place, repr(call.text),
                  sorted(map(operation, call.speakers)))
        return False
    found = sorted(set(faults()))
    for fault in found:
        print(f"check-log.py: {fault}", file=sys.stderr)
    if not found:
        print("check-log.py: docs/operations.md tells all that is logged, and nothing else")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
