#!/usr/bin/env python3
"""check-docs.py: whether the documentation is true where a program can tell.

The README's table has each public class and no other, links lead somewhere, whole programs of the
guide stand in examples/, every public operation says which threads may call it. That all other code
which is shown compiles is the build's to say (snippets.py), and check-log.py compares the log.
"""

import re
import sys
from pathlib import Path

import cxx
import snippets

ROOT = Path(__file__).resolve().parent.parent
HEADERS = sorted((ROOT / "include/util").glob("*.h"))
NO_CLASSES = {"Export", "Result"}
THREAD_WORD = re.compile(r"\b(Any thread|Owner|Loop thread|By the thread that|not for users)\b")


def faults_of_class_table():
    table = re.search(r"^\| class .*?\n\n", (ROOT / "README.md").read_text(), re.M | re.S)[0]
    named = {name for row in table.strip().splitlines()
             for name in re.findall(r"`(\w+)`", row.split("|")[1])}
    classes = {header.stem for header in HEADERS} - NO_CLASSES
    yield from (f"the README's table lacks {name}" for name in sorted(classes - named))
    yield from (f"the README's table has {name}, which has no header"
                for name in sorted(named - classes))


def faults_of_links():
    for page in [*sorted(ROOT.glob("*.md")), *sorted((ROOT / "docs").glob("*.md"))]:
        text = re.sub(r"```.*?```|`[^`]*`", "", page.read_text(), flags=re.S)
        for target in re.findall(r"\]\(([^)#: ]+)[^):]*\)", text):
            if not (page.parent / target).exists():
                yield f"{page.relative_to(ROOT)} links to {target}, which does not exist"


def faults_of_programs():
    examples = ["".join(path.read_text().split()) for path in (ROOT / "examples").glob("*.cpp")]
    programs = [(file, line, "".join(code.split())) for file, line, code in snippets.pieces()
                if snippets.is_program(code)]
    for file, line, code in programs:
        if not any(example.endswith(code) for example in examples):
            yield f"{file}:{line} shows a program that is no example"
    if not programs:
        yield "the guide shows no program: has its form changed?"


def faults_of_thread_words():
    for header in HEADERS:
        for function in cxx.Header(header).functions:
            if (function.access == "public" and len(function.scope) == 1
                    and not function.is_special and not THREAD_WORD.search(function.comment)):
                yield f"{header.name}:{function.line}: who may call {function.name}?"


def main():
    found = [*faults_of_class_table(), *faults_of_links(), *faults_of_programs(),
             *faults_of_thread_words()]
    for fault in found:
        print(f"check-docs.py: {fault}", file=sys.stderr)
    if not found:
        print("check-docs.py: table, links, programs and thread words are as they should be")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
