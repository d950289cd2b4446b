#!/usr/bin/env python3
"""snippets.py OUTPUT: makes one source of the code that the documentation shows.

Each piece in a public header's comment (indented by four blanks more than text) and each block of
the README and the guide becomes the body of a function, so that the compiler says whether it is
true, and where not. "..." stands for anything. Whole programs are left out: check-docs.py compares
them with the examples.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
HEADERS = ROOT / "include/util"
PAGES = [ROOT / "README.md", ROOT / "docs/guide.md"]
SET_UP = ("#include", "using namespace")  # which stands at the top of what is compiled


def of_header(path):
    """(line, text) of each piece of code in a header's comments."""
    yield from gather((number, found and found[1]) for number, found in (
        (number, re.match(r"\s*///     ?(\s*\S.*)$", line)) for number, line in lines_of(path)))


def of_page(path):
    """The same of the blocks of a page."""
    def marked():
        inside = False
        for number, line in lines_of(path):
            if line.strip().startswith("```"):
                inside = line.strip() == "```cpp"
                yield number, None
            else:
                yield number, line if inside else None

    yield from gather(marked())


def gather(marked):
    """Joins the lines that follow each other; None separates."""
    begin, piece = 0, []
    for number, line in [*marked, (0, None)]:
        if line is not None:
            begin = begin or number
            piece.append(line)
        elif piece:
            yield begin, "\n".join(piece)
            begin, piece = 0, []


def lines_of(path):
    return enumerate(path.read_text().splitlines(), 1)


def is_program(code):
    return "int main(" in code


def body(code):
    """What a function may hold of a piece of code, line by line."""
    return "\n".join("" if line.strip() == "..." or line.startswith(SET_UP) else line
                     for line in code.split("\n"))


def pieces():
    """(file, line, code) of all that is shown."""
    for path in [*sorted(HEADERS.glob("*.h")), *PAGES]:
        found = list((of_header if path.suffix == ".h" else of_page)(path))
        if path in PAGES and not found:
            sys.exit(f"snippets.py: {path.name} shows no code: has its form changed?")
        yield from ((path.relative_to(ROOT), line, code) for line, code in found)


def main():
    shown = [(file, line, code) for file, line, code in pieces() if not is_program(code)]
    functions = [f'void Snippet{i}() {{\n#line {line} "{file}"\n{body(code)}\n}}\n'
                 for i, (file, line, code) in enumerate(shown)]
    headers = [f'#include "util/{path.name}"\n' for path in sorted(HEADERS.glob("*.h"))]
    Path(sys.argv[1]).write_text("".join([*headers, '#include "snippets.h"\n', *functions]))


if __name__ == "__main__":
    main()
