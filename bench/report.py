"""What run.py measured, as a table on the terminal and as JSON, Markdown and SVG in the build folder.

A ratio says how the library compares: 1 is as good, above 1 is better, whatever the unit. It is
the median of the rounds' own ratios: what the stacks of one round met of the machine's moods was
about the same.
"""

import json
import math
import os
import platform
import re
import subprocess
from dataclasses import dataclass, field
from pathlib import Path
from statistics import median

from charts import LIBRARY, growth_chart, ratio_chart

MARKS = ("<!-- figures: written by scripts/bench.sh --keep -->", "<!-- end of figures -->")
ARMHF, ARMHF_LIMIT = "libhutil.so, armhf", 160 * 1024  # bytes


@dataclass(eq=False)
class Case:
    """One line of a row: what runs, who takes part, and what there is to reach."""
    row: str
    name: object
    figures: list  # (key, unit, "more" or "less" is better)
    peers: list
    floors: list  # the first is the one that ratios are to
    run: object
    peer_goal: float = None  # ratio to the best peer
    floor_goal: float = None
    extra_goal: float = None  # how much more than the floor
    judged: list = None  # the figures that the goals are about; all by default
    axis: str = None  # of a growth chart
    title: str = None
    rounds: dict = field(default_factory=dict)  # by stack

    def add(self, stack, figures):
        self.rounds.setdefault(stack, []).append(figures)

    def values(self, stack, key):
        return [figures[key] for figures in self.rounds[stack]]

    def median(self, stack, key):
        return median(self.values(stack, key))

    def pairs(self, other, key):
        """The library's value and another stack's, of each round."""
        return zip(self.values(LIBRARY, key), self.values(other, key))


def spread(values):
    """The furthest that a round was from the median, as a part of it."""
    middle = median(values)
    return max(abs(value - middle) for value in values) / abs(middle) if middle else 0


def ratio(case, key, other, better):
    ratios = [own / theirs if better == "more" else theirs / own
              for own, theirs in case.pairs(other, key) if own > 0 and theirs > 0]
    return median(ratios) if ratios else None


def summary(case, figure):
    """All that is said about one figure of a case."""
    key, unit, better = figure
    entry = {"row": case.row, "case": case.name, "figure": key, "unit": unit, "better": better,
             "rounds": {stack: case.values(stack, key) for stack in case.rounds},
             "median": {stack: case.median(stack, key) for stack in case.rounds},
             "spread": {stack: spread(case.values(stack, key)) for stack in case.rounds}}
    to_peers = {stack: ratio(case, key, stack, better) for stack in case.peers}
    if to_peers:
        entry["best_peer"] = min(to_peers, key=lambda stack: to_peers[stack] or math.inf)
        entry["to_best_peer"] = to_peers[entry["best_peer"]]
    if case.floors:
        entry["floor"] = case.floors[0]
        entry["to_floor"] = ratio(case, key, case.floors[0], better)
        entry["to_other_floors"] = {stack: ratio(case, key, stack, better)
                                    for stack in case.floors[1:]}
    entry["goal"] = ", ".join(goals(case, key))
    return entry


def goals(case, key):
    """What a figure is measured to reach."""
    if case.judged is not None and key not in case.judged:
        return
    if case.peer_goal is not None:
        yield f"{case.peer_goal:.2f} of peer"
    if case.floor_goal is not None:
        yield f"{case.floor_goal:.2f} of floor"
    if case.extra_goal is not None:
        yield f"{case.extra_goal} µs over floor"


# ---- Sizes, which are read and not timed ----

def relocations(library):
    text = subprocess.run(["readelf", "-rW", library], capture_output=True, text=True,
                          check=True).stdout
    return sum(map(int, re.findall(r"contains (\d+) entr", text)))


def stripped(file, folder, strip="strip"):
    target = folder / "stripped"
    subprocess.run([strip, "-o", target, file], check=True)
    size = target.stat().st_size
    target.unlink()
    return size


def linked(program, name):
    """The file of the shared library `name` that a program is linked to."""
    text = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    found = re.search(rf"{name}\S* => (\S+)", text)
    return Path(found[1]).resolve() if found else None


def sizes(build):
    """Bytes, stripped: of the library, and of the idle daemon with the library it is linked to."""
    library = next((build / "hutil/src").glob("libhutil.so.*.*"))
    result = {"libhutil.so": stripped(library, build), "relocations": relocations(library),
              "daemon": {}}
    armhf = sorted((build.parent / "armhf/src").glob("libhutil.so.*.*"))  # by scripts/armhf.sh
    result[ARMHF] = stripped(armhf[0], build, "arm-linux-gnueabihf-strip") if armhf else None
    for stack, name in (("hutil", "libhutil"), ("libevent", "libevent"), ("libuv", "libuv"),
                        ("asio", None)):
        program = build / f"bench_server_{stack}"
        result["daemon"][stack] = stripped(program, build) + (
            stripped(linked(program, name), build) if name else 0)
    return result


def machine(options):
    def first_line(*command):
        return subprocess.run(command, capture_output=True, text=True,
                              check=True).stdout.splitlines()[0]
    model = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    packages = ["libevent", "libuv", "libmnl", "sqlite3", "libcurl", "openssl"]
    return {"commit": options.commit, "rounds": options.rounds, "seconds": options.seconds,
            "processor": model[1] if model else platform.machine(),
            "processors": len(os.sched_getaffinity(0)),
            "kernel": f"{platform.system()} {'.'.join(platform.release().split('.')[:2])}",
            "compiler": first_line("c++", "--version"),
            "peers": {name: first_line("pkg-config", "--modversion", name) for name in packages}}


# ---- Text ----

def number(value):
    if value is None:
        return ""
    return f"{value:.0f}" if abs(value) >= 1000 else f"{value:.3g}"


HEADER = ["what", "", "library", "spread", "best peer", "", "ratio", "floor", "ratio", "goal"]


def label(entry):
    return f"{entry['row']}: {entry['case']}" if entry["case"] else entry["row"]


def floors(entry):
    if "floor" not in entry:
        return ""
    others = (f"{name} {number(entry['median'][name])}" for name in entry["to_other_floors"])
    return number(entry["median"][entry["floor"]]) + bracketed(others)


def floor_ratios(entry):
    if not entry.get("to_floor"):
        return ""
    others = (f"{name} {value:.2f}" for name, value in entry["to_other_floors"].items() if value)
    return f"{entry['to_floor']:.2f}" + bracketed(others)


def bracketed(words):
    inside = ", ".join(words)
    return f" ({inside})" if inside else ""


def cells(entry):
    medians = entry["median"]
    peer = entry.get("best_peer")
    return [label(entry), entry["unit"],
            number(medians[LIBRARY]), f"±{entry['spread'][LIBRARY]:.0%}", number(medians.get(peer)),
            peer or "", f"{entry['to_best_peer']:.2f}" if entry.get("to_best_peer") else "",
            floors(entry), floor_ratios(entry), entry["goal"]]


def size_lines(found):
    for name, value in found.items():
        if name == ARMHF:
            size = "not built" if value is None else f"{value} bytes, stripped"
            yield f"{name}: {size}; goal: below {ARMHF_LIMIT}"
        elif name != "daemon":
            yield f"{name}: {value}" + ("" if name == "relocations" else " bytes, stripped")
    daemons = ", ".join(f"{stack} {size}" for stack, size in found["daemon"].items())
    yield f"idle daemon and the library it links, stripped bytes: {daemons}"


def print_table(entries):
    rows = [HEADER, *map(cells, entries)]
    widths = [max(len(row[i]) for row in rows) for i in range(len(HEADER))]
    left = {0, 1, 5, 9}
    for row in rows:
        print("  ".join(text.ljust(width) if i in left else text.rjust(width)
                        for i, (text, width) in enumerate(zip(row, widths))).rstrip())


def machine_lines(where):
    peers = ", ".join(f"{name} {version}" for name, version in where["peers"].items())
    yield (f"commit {where['commit']}; {where['processors']} x {where['processor']}, "
           f"{where['kernel']}, {where['compiler']}")
    yield f"{where['rounds']} rounds of {where['seconds']} s each; {peers}"


def markdown(entries, where, found):
    yield from (f"- {words}" for words in [*machine_lines(where), *size_lines(found)])
    yield ""
    yield "| " + " | ".join(HEADER) + " |"
    yield "|" + "---|" * len(HEADER)
    for entry in entries:
        yield "| " + " | ".join(cells(entry)) + " |"


def keep(page, figures):
    """Puts the figures between a page's two marks."""
    before, rest = page.read_text().split(MARKS[0])
    after = rest.split(MARKS[1])[1]
    page.write_text(f"{before}{MARKS[0]}\n{figures}{MARKS[1]}{after}")


def write(cases, build, where, found, root=None):
    fixed = [summary(case, figure) for case in cases if case.axis is None for figure in case.figures]
    growing = [case for case in cases if case.axis is not None]
    growth = [summary(case, case.figures[0]) for case in growing]
    print_table(fixed)
    for words in [*size_lines(found), *machine_lines(where)]:
        print(words)
    print(f"more in {build}: results.json, results.md, ratios.svg, growth.svg")
    (build / "results.json").write_text(
        json.dumps({"machine": where, "sizes": found, "results": fixed + growth}, indent=1) + "\n")
    text_of_all = "\n".join(markdown(fixed, where, found)) + "\n"
    (build / "results.md").write_text(text_of_all)
    (build / "ratios.svg").write_text(ratio_chart(fixed, label))
    if growing:
        (build / "growth.svg").write_text(growth_chart(growing))
    if root is not None:
        keep(root / "docs/performance.md", text_of_all)
        (root / "docs/growth.svg").write_text(growth_chart(growing))
