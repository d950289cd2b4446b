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

LIBRARY = "hutil"
MARKS = ("<!-- figures: written by scripts/bench.sh --keep -->", "<!-- end of figures -->")
ARMHF, ARMHF_LIMIT = "libhutil.so, armhf", 160 * 1024  # bytes
HEADLINES = {("TCP echo: 64 B, 16 clients", "per_s"), ("TLS 1.2 echo: 8192 B, 16 clients", "per_s"),
             ("accept + close", "per_s"), ("wake-up: ready descriptor", "p50_us"),
             ("timers: 100 tasks, 10 ms", "cpu_us"), ("netlink: links", "per_s"),
             ("settings: LoadData, 100 keys", "us"), ("HTTP GET: 1 KiB", "us")}
COLOURS = ["#c0392b", "#2980b9", "#27ae60", "#7f8c8d"]


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
    judge(case, entry)
    return entry


def judge(case, entry):
    goals = []
    if case.judged is None or entry["figure"] in case.judged:
        for goal, key, name in ((case.peer_goal, "to_best_peer", "peer"),
                                (case.floor_goal, "to_floor", "floor")):
            if goal is not None:
                goals.append((f"{goal:.2f} of {name}", (entry[key] or 0) >= goal))
        if case.extra_goal is not None:
            over = median(own - floor
                          for own, floor in case.pairs(entry["floor"], entry["figure"]))
            goals.append((f"{case.extra_goal} µs over floor", over < case.extra_goal))
    entry["to_reach"] = ", ".join(text for text, _ in goals)
    entry["reached"] = all(met for _, met in goals) if goals else None


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
            "kernel": f"{platform.system()} {platform.release()}",
            "compiler": first_line("c++", "--version"),
            "peers": {name: first_line("pkg-config", "--modversion", name) for name in packages}}


# ---- Text ----

def number(value):
    if value is None:
        return ""
    return f"{value:.0f}" if abs(value) >= 1000 else f"{value:.3g}"


HEADER = ["what", "", "library", "spread", "best peer", "", "ratio", "floor", "ratio", "to reach", ""]


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
    reached = {True: "yes", False: "NO", None: ""}[entry["reached"]]
    return [label(entry), entry["unit"],
            number(medians[LIBRARY]), f"±{entry['spread'][LIBRARY]:.0%}", number(medians.get(peer)),
            peer or "", f"{entry['to_best_peer']:.2f}" if entry.get("to_best_peer") else "",
            floors(entry), floor_ratios(entry), entry["to_reach"], reached]


def size_lines(found):
    for name, value in found.items():
        if name == ARMHF:
            reached = "not built" if value is None else "yes" if value < ARMHF_LIMIT else "NO"
            yield f"{name}: {value} bytes, stripped; below {ARMHF_LIMIT}: {reached}"
        elif name != "daemon":
            yield f"{name}: {value}" + ("" if name == "relocations" else " bytes, stripped")
    daemons = ", ".join(f"{stack} {size}" for stack, size in found["daemon"].items())
    yield f"idle daemon and the library it links, stripped bytes: {daemons}"


def print_table(entries):
    rows = [HEADER, *map(cells, entries)]
    widths = [max(len(row[i]) for row in rows) for i in range(len(HEADER))]
    left = {0, 1, 5, 9, 10}
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


def headlines(entries, where, found):
    """The few figures that the README shows, each with its ratios."""
    yield "| what | library | to the best peer | to the floor |"
    yield "|---|---|---|---|"
    for entry in entries:
        if (label(entry), entry["figure"]) in HEADLINES:
            peer = entry.get("best_peer")
            yield (f"| {label(entry)} | {number(entry['median'][LIBRARY])} {entry['unit']} | "
                   + (f"{entry['to_best_peer']:.2f} of {peer} | " if peer else " | ")
                   + (f"{entry['to_floor']:.2f} |" if entry.get("to_floor") else "|"))
    for name, value in found.items():
        if name.startswith("libhutil") and value is not None:
            yield f"| {name}, stripped | {value} bytes | | |"
    yield ""
    yield (f"Ratios above 1 are better. `scripts/bench.sh` at commit {where['commit']} on "
           f"{where['processors']} x {where['processor']}.")


def keep(page, figures):
    """Puts the figures between a page's two marks."""
    before, rest = page.read_text().split(MARKS[0])
    after = rest.split(MARKS[1])[1]
    page.write_text(f"{before}{MARKS[0]}\n{figures}{MARKS[1]}{after}")


# ---- Charts ----

def svg(width, height, body):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
            f'width="{width}" height="{height}" font-family="sans-serif" font-size="11">'
            f'<rect width="{width}" height="{height}" fill="white"/>{"".join(body)}</svg>\n')


def text(x, y, words, anchor="start", style=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {style}>{words}</text>'


def line(x1, y1, x2, y2, colour="#ccc"):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}"/>'


def ratio_chart(entries):
    """A bar for each ratio, to the best peer and to the floor; the line in the middle is 1."""
    entries = [e for e in entries if e.get("to_best_peer") or e.get("to_floor")]
    left, scale, step = 390, 110, 26
    height = step * len(entries) + 50
    body = [text(10, 18, "The library's ratio to the best peer (blue) and to the floor (grey); "
                 "to the right of 1.0 it is better")]
    for mark in (0.25, 0.5, 1, 2, 4):
        x = left + scale * position(mark)
        body += [line(x, 30, x, height - 10, "#333" if mark == 1 else "#ccc"),
                 text(x, height, f"{mark}", "middle")]
    for i, entry in enumerate(entries):
        y = 34 + i * step
        body.append(text(left - 8, y + 14, f"{label(entry)}, {entry['unit']}", "end"))
        for j, key in enumerate(("to_best_peer", "to_floor")):
            if entry.get(key):
                ends = sorted((left + scale * position(entry[key]), left + scale * position(1)))
                body.append(f'<rect x="{ends[0]:.1f}" y="{y + j * 10}" width='
                            f'"{max(ends[1] - ends[0], 1):.1f}" height="9" '
                            f'fill="{COLOURS[1 + 2 * j]}"/>')
    return svg(left + scale * 5, height + 10, body)


def position(value):
    """Doublings and halvings around 1, from a quarter and below to eight and above."""
    return 2 + max(-2.0, min(3.0, math.log2(value)))


def growth_chart(cases):
    names = list(dict.fromkeys(case.row for case in cases))
    body = []
    for i, name in enumerate(names):
        body += growth_panel([case for case in cases if case.row == name], 20 + i * 330)
    return svg(330 * len(names) + 20, 320, body)


def growth_panel(cases, left):
    key, unit, _ = cases[0].figures[0]
    stacks = list(cases[0].rounds)
    right = max(case.name for case in cases)
    top = max(case.median(stack, key) for case in cases for stack in stacks) * 1.05
    def place(case, stack):
        return (left + 45 + 250 * case.name / right, 250 - 200 * case.median(stack, key) / top)
    body = [text(left, 20, f"{cases[0].title}, {unit.split()[0]}", style='font-weight="bold"'),
            line(left + 45, 250, left + 295, 250, "#333"), line(left + 45, 50, left + 45, 250, "#333"),
            text(left + 170, 280, cases[0].axis, "middle")]
    for part in (0, 0.5, 1):
        body += [text(left + 41, 254 - 200 * part, number(top * part), "end"),
                 text(left + 45 + 250 * part, 265, number(right * part), "middle")]
    for stack, colour in zip(stacks, COLOURS):
        points = " ".join("{:.1f},{:.1f}".format(*place(case, stack)) for case in cases)
        body.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>')
    for i, (stack, colour) in enumerate(zip(stacks, COLOURS)):
        body.append(text(left + 10 + i * 75, 305, stack, style=f'fill="{colour}"'))
    return body


def write(cases, build, where, found, root=None):
    fixed = [summary(case, figure) for case in cases if case.axis is None for figure in case.figures]
    growing = [case for case in cases if case.axis is not None]
    growth = [summary(case, case.figures[0]) for case in growing]
    print_table(fixed)
    for words in [*size_lines(found), *machine_lines(where)]:
        print(words)
    reached = [entry["reached"] for entry in fixed]
    print(f"{reached.count(True)} reached, {reached.count(False)} missed; more in {build}: "
          "results.json, results.md, ratios.svg, growth.svg")
    (build / "results.json").write_text(
        json.dumps({"machine": where, "sizes": found, "results": fixed + growth}, indent=1) + "\n")
    text_of_all = "\n".join(markdown(fixed, where, found)) + "\n"
    (build / "results.md").write_text(text_of_all)
    (build / "ratios.svg").write_text(ratio_chart(fixed))
    if growing:
        (build / "growth.svg").write_text(growth_chart(growing))
    if root is not None:
        keep(root / "docs/performance.md", text_of_all)
        keep(root / "README.md", "\n".join(headlines(fixed, where, found)) + "\n")
        (root / "docs/growth.svg").write_text(growth_chart(growing))
