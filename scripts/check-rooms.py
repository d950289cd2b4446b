#!/usr/bin/env python3
"""check-rooms.py [TREE]: whether includes point down the list of rooms in docs/architecture.md.

Reads that list and each #include of TREE's own headers (this tree's). Fails on an include that
points up or sideways, on rooms that include each other in a circle, on a file in no room, and on a
room without a file.
"""

import re
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent.parent
PAGE = HERE / "docs/architecture.md"


def read_rooms():
    """The layer of each room, counted from the top, and the room that each file's name is in."""
    block = re.search(r"^```rooms\n(.*?)^```", PAGE.read_text(), re.M | re.S)
    if not block:
        sys.exit(f"check-rooms.py: {PAGE.name} has no block of rooms")
    layer, room_of = {}, {}
    for depth, paragraph in enumerate(re.split(r"\n\s*\n", block[1].strip())):
        for room, private in re.findall(r"(\w+)(?:\s*\(([^)]*)\))?", paragraph):
            layer[room] = depth
            for name in [room, *re.findall(r"\w+", private)]:
                if name in room_of:
                    yield f"{name} is listed twice"
                room_of[name] = room
    return layer, room_of


def read_includes(tree):
    """(file, the room's name in its own, the header's) for each #include of a header of ours."""
    for folder in ("src", "include"):
        for file in sorted((tree / folder).rglob("*.*")):
            if file.suffix in (".h", ".cpp"):
                yield file.relative_to(tree), file.stem, None
                for header in re.findall(r'^\s*#\s*include\s+"(.*)"', file.read_text(), re.M):
                    yield file.relative_to(tree), file.stem, Path(header).stem


def circles(arrows):
    """Each circle once, as the rooms on it."""
    found = set()

    def follow(path):
        for room in sorted(arrows.get(path[-1], ())):
            if room == path[0]:
                found.add(" -> ".join([*path, room]))
            elif room not in path and room > path[0]:  # a circle begins with its first name
                follow([*path, room])

    for room in arrows:
        follow([room])
    return sorted(found)


def faults(tree):
    layer, room_of = yield from read_rooms()
    arrows, unused = {}, set(room_of)
    for file, name, header in read_includes(tree):
        unused.discard(name)
        if header is None and name not in room_of:
            yield f"{file} is in no room of docs/{PAGE.name}"
        source, target = room_of.get(name), room_of.get(header)
        if not source or not target or source == target:
            continue
        arrows.setdefault(source, set()).add(target)
        if layer[source] >= layer[target]:
            direction = "up" if layer[source] > layer[target] else "sideways"
            yield f"{file} includes {header}: from {source} {direction} to {target}"
    yield from (f"a circle: {circle}" for circle in circles(arrows))
    yield from (f"docs/{PAGE.name} lists {name}, which has no file" for name in sorted(unused))


def main():
    found = list(faults(Path(sys.argv[1]) if sys.argv[1:] else HERE))
    for fault in found:
        print(f"check-rooms.py: {fault}", file=sys.stderr)
    if not found:
        print("check-rooms.py: every include points down the list of rooms")
    return bool(found)


if __name__ == "__main__":
    sys.exit(main())
