"""The pictures of what was measured, as SVG; they follow a reader's dark mode."""

import math

LIBRARY = "hutil"

STYLE = """
svg { font: 11px sans-serif }
.page { fill: #fff }
.axis { stroke: #666 }
.grid { stroke: #ddd }
text { fill: #222 }
.title { font-weight: bold }
.line { fill: none; stroke-width: 2 }
.c0 { stroke: #b03020; fill: #b03020 }
.c1 { stroke: #1f6fa5; fill: #1f6fa5 }
.c2 { stroke: #1d7d45; fill: #1d7d45 }
.c3 { stroke: #6a5a8c; fill: #6a5a8c }
.peer { fill: #1f6fa5 }
.floor { fill: #777 }
text.c0, text.c1, text.c2, text.c3 { stroke: none }
@media (prefers-color-scheme: dark) {
  .page { fill: #14181d }
  .axis { stroke: #999 }
  .grid { stroke: #333a42 }
  text { fill: #ddd }
  .c0 { stroke: #ff8a75; fill: #ff8a75 }
  .c1 { stroke: #6bb8ee; fill: #6bb8ee }
  .c2 { stroke: #66cf94; fill: #66cf94 }
  .c3 { stroke: #b7a6e0; fill: #b7a6e0 }
  .peer { fill: #6bb8ee }
  .floor { fill: #999 }
}
.line.c0, .line.c1, .line.c2, .line.c3 { fill: none }
"""
# What tells lines apart without colour: dashes, and the points' shapes.
DASHES = ["", "7 3", "2 3", "9 3 2 3"]
SHAPES = ["M-3,0a3,3 0 1,0 6,0a3,3 0 1,0 -6,0", "M-3,-3h6v6h-6z", "M0,-4l4,7h-8z", "M0,-4l4,4l-4,4l-4,-4z"]


def svg(width, height, body):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
            f'width="{width}" height="{height}">\n<style>{STYLE}</style>\n'
            f'<rect class="page" width="{width}" height="{height}"/>\n' + "\n".join(body) + "\n</svg>\n")


def text(x, y, words, anchor="start", kind=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{kind}">{words}</text>'


def line(x1, y1, x2, y2, kind="grid"):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


# ---- Ratios: a bar for each, to the best peer and to the floor; the line in the middle is 1 ----

def ratio_chart(entries, label):
    entries = [e for e in entries if e.get("to_best_peer") or e.get("to_floor")]
    left, scale, step = 390, 110, 26
    height = step * len(entries) + 50
    body = [text(10, 18, "The library's ratio to the best peer (upper bars) and to the floor (lower ones); "
                 "to the right of 1 it is better", kind="title")]
    for mark in (0.25, 0.5, 1, 2, 4):
        x = left + scale * position(mark)
        body += [line(x, 30, x, height - 10, "axis" if mark == 1 else "grid"),
                 text(x, height, f"{mark}", "middle")]
    for i, entry in enumerate(entries):
        y = 34 + i * step
        body.append(text(left - 8, y + 14, f"{label(entry)}, {entry['unit']}", "end"))
        for j, (key, kind) in enumerate((("to_best_peer", "peer"), ("to_floor", "floor"))):
            if entry.get(key):
                ends = sorted((left + scale * position(entry[key]), left + scale * position(1)))
                body.append(f'<rect class="{kind}" x="{ends[0]:.1f}" y="{y + j * 10}" width='
                            f'"{max(ends[1] - ends[0], 1):.1f}" height="9"/>')
    return svg(left + scale * 5, height + 10, body)


def position(value):
    """Doublings and halvings around 1, from a quarter and below to eight and above."""
    return 2 + max(-2.0, min(3.0, math.log2(value)))


# ---- Growth: lines, each named at its end ----

WIDTH, HEIGHT, NAMES = 230, 200, 70  # of a panel's plot, and what the names take beside it


def growth_chart(cases):
    names = list(dict.fromkeys(case.row for case in cases))
    body = []
    for i, name in enumerate(names):
        body += panel([case for case in cases if case.row == name], 55 + i * (WIDTH + NAMES + 50))
    return svg(len(names) * (WIDTH + NAMES + 50) + 20, HEIGHT + 90, body)


def panel(cases, left):
    key, unit, _ = cases[0].figures[0]
    across = ticks(max(case.name for case in cases))
    up = ticks(max(case.median(stack, key) for case in cases for stack in cases[0].rounds))
    bottom = 45 + HEIGHT

    def place(x, y):
        return left + WIDTH * x / across[-1], bottom - HEIGHT * y / up[-1]

    body = [text(left - 35, 20, f"{cases[0].title}, {unit.split()[0]}", kind="title"),
            text(left + WIDTH / 2, bottom + 36, cases[0].axis, "middle")]
    for mark in up:
        y = place(0, mark)[1]
        body += [line(left, y, left + WIDTH, y, "grid" if mark else "axis"),
                 text(left - 5, y + 4, f"{mark:g}", "end")]
    for mark in across:
        x = place(mark, 0)[0]
        body += [line(x, bottom, x, bottom + 4, "axis"), text(x, bottom + 17, f"{mark:g}", "middle")]
    ends = []
    for i, stack in enumerate(cases[0].rounds):
        points = [place(case.name, case.median(stack, key)) for case in cases]
        body += plotted(points, i)
        ends.append((points[-1][1], i, stack))
    return body + [text(left + WIDTH + 9, y + 4, stack, kind=f"c{i}") for y, i, stack in apart(ends)]


def plotted(points, i):
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    yield f'<polyline class="line c{i}" stroke-dasharray="{DASHES[i]}" points="{path}"/>'
    for x, y in points:
        yield f'<path class="c{i}" transform="translate({x:.1f},{y:.1f})" d="{SHAPES[i]}"/>'


def ticks(top):
    """Round numbers from 0 to `top` or a little more."""
    rough = (top or 1) / 5
    unit = 10 ** math.floor(math.log10(rough))
    step = next(unit * part for part in (1, 2, 2.5, 5, 10) if unit * part >= rough)
    return [step * i for i in range(math.ceil((top or 1) / step) + 1)]


def apart(ends, room=13):
    """The names' places, none on top of another."""
    placed = []
    for y, i, stack in sorted(ends):
        placed.append((max(y, placed[-1][0] + room) if placed else y, i, stack))
    return placed
