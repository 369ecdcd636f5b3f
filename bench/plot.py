"""Plots as SVG, with a background of their own in the light and in the dark, so that they are legible anywhere."""

import math
from html import escape
from typing import NamedTuple

OURS = "tessel"
# Okabe and Ito's colours, told apart by most eyes; black left out, for the dark.
COLOURS = ["#E69F00", "#56B4E9", "#009E73", "#CC79A7", "#D55E00", "#A6A100", "#8C7AE6", "#888888"]
OUR_COLOUR = "#0072F0"
STYLE = """
  .back { fill: #ffffff } .text { fill: #24292f } .soft { fill: #57606a } .grid { stroke: #d0d7de }
  text { font: 12px system-ui, sans-serif } .title { font-weight: 600; font-size: 14px }
  @media (prefers-color-scheme: dark) {
    .back { fill: #0d1117 } .text { fill: #e6edf3 } .soft { fill: #9198a1 } .grid { stroke: #30363d }
  }
"""


class Dot(NamedTuple):
    """A value, with the ends of its spread."""

    name: str
    value: float
    low: float
    high: float


class Line(NamedTuple):
    """A series over sizes."""

    name: str
    points: list[tuple[float, float]]


class Panel(NamedTuple):
    """Sizes across; nanoseconds, or else KiB, up."""

    title: str
    across: str
    timed: bool
    lines: list[Line]


class Drawing:
    def __init__(self, width: float, height: float):
        self.width, self.height, self.parts = width, height, []

    def text(self, x: float, y: float, text: str, kind="text", anchor="start", colour=""):
        style = f' style="fill:{colour}"' if colour else ""
        self.parts.append(f'<text class="{kind}" x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{style}>{escape(text)}</text>')

    def line(self, x1: float, y1: float, x2: float, y2: float, colour="", width=1.0):
        paint = f'stroke="{colour}"' if colour else 'class="grid"'
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" {paint} stroke-width="{width}"/>')

    def dot(self, x: float, y: float, colour: str, name: str, radius=4.5):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{colour}"><title>{escape(name)}</title></circle>')

    def path(self, points: list[tuple[float, float]], colour: str, width: float):
        joined = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{joined}" fill="none" stroke="{colour}" stroke-width="{width}"/>')

    def svg(self) -> str:
        size = f"{self.width:.0f} {self.height:.0f}"
        return (
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {size}" width="{self.width:.0f}"'
            f' height="{self.height:.0f}"><style>{STYLE}</style>'
            f'<rect class="back" width="100%" height="100%" rx="6"/>\n' + "\n".join(self.parts) + "\n</svg>\n"
        )


class Logarithmic:
    """A scale from low to high, laid out from one place to another."""

    def __init__(self, low: float, high: float, start: float, end: float):
        self.low, self.high = math.log(low), math.log(max(high, low * 1.01))
        self.start, self.end = start, end

    def __call__(self, value: float) -> float:
        share = (math.log(value) - self.low) / (self.high - self.low)
        return self.start + min(max(share, 0), 1) * (self.end - self.start)


def colours(names: list[str]) -> dict[str, str]:
    peers = [name for name in dict.fromkeys(names) if not name.startswith(OURS)]
    chosen = {name: COLOURS[i % len(COLOURS)] for i, name in enumerate(peers)}
    chosen.update({name: OUR_COLOUR for name in names if name.startswith(OURS)})
    return chosen


def legend(drawing: Drawing, x: float, y: float, chosen: dict[str, str]):
    for name, colour in chosen.items():
        drawing.dot(x, y - 4, colour, name)
        drawing.text(x + 9, y, name, "soft")
        x += 24 + 7 * len(name)


def readable(nanoseconds: float) -> str:
    for unit, length in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= length:
            return f"{nanoseconds / length:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def short(value: float) -> str:
    """1200000 as 1.2M."""
    for limit, mark in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if value >= limit:
            return f"{value / limit:g}{mark}"
    return f"{value:g}"


def ratios(title: str, rows: list[tuple[str, list[Dot]]], what: str, named=True) -> str:
    """A row of dots for each label, on one logarithmic scale with a heavy line at 1."""
    left, top, step = 210, 62, 20
    drawing = Drawing(860, top + step * len(rows) + 38)
    values = [end for _, dots in rows for dot in dots for end in (dot.low, dot.high)]
    low, high = min([0.7, *values]) / 1.1, max([1.5, *values]) * 1.1
    across = Logarithmic(low, high, left, drawing.width - 20)
    bottom = top + step * len(rows)
    chosen = colours([dot.name for _, dots in rows for dot in dots])
    drawing.text(14, 24, title, "title text")
    if named:
        legend(drawing, left + 4, 44, chosen)
    for tick in (0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000):
        if low <= tick <= high:
            drawing.line(across(tick), top - 6, across(tick), bottom, OUR_COLOUR if tick == 1 else "", 2 if tick == 1 else 1)
            drawing.text(across(tick), bottom + 14, f"{tick:g}", "soft", "middle")
    drawing.text((left + drawing.width) / 2, bottom + 30, what, "soft", "middle")
    for i, (label, dots) in enumerate(rows):
        y = top + step * i + 8
        drawing.text(left - 10, y + 4, label, "text", "end")
        drawing.line(left, y, drawing.width - 20, y)
        for dot in dots:
            drawing.line(across(dot.low), y, across(dot.high), y, chosen[dot.name], 1.5)
            drawing.dot(across(dot.value), y, chosen[dot.name], f"{dot.name}: {dot.value:.2f}")
    return drawing.svg()


def growth(panels: list[Panel]) -> str:
    """Panels side by side, two in a row, both scales logarithmic."""
    wide, tall = 430, 300
    drawing = Drawing(2 * wide, tall * ((len(panels) + 1) // 2))
    for i, panel in enumerate(panels):
        draw_panel(drawing, panel, wide * (i % 2), tall * (i // 2), wide, tall)
    return drawing.svg()


def decades(low: float, high: float) -> list[float]:
    return [10.0**power for power in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)]


def draw_panel(drawing: Drawing, panel: Panel, left: float, top: float, wide: float, tall: float):
    points = [point for line in panel.lines for point in line.points]
    sizes, values = [x for x, _ in points], [y for _, y in points]
    ticks = decades(min(values), max(values))
    across = Logarithmic(min(sizes), max(sizes), left + 72, left + wide - 22)
    up = Logarithmic(ticks[0], ticks[-1], top + tall - 48, top + 62)
    chosen = colours([line.name for line in panel.lines])
    drawing.text(left + 14, top + 24, panel.title, "title text")
    legend(drawing, left + 66, top + 46, chosen)
    for tick in ticks:
        drawing.line(left + 72, up(tick), left + wide - 22, up(tick))
        drawing.text(left + 66, up(tick) + 4, readable(tick) if panel.timed else f"{short(tick)} KiB", "soft", "end")
    for size in sorted(set(sizes)):
        drawing.text(across(size), top + tall - 30, short(size), "soft", "middle")
    drawing.text(left + wide / 2 + 20, top + tall - 10, panel.across, "soft", "middle")
    for line in sorted(panel.lines, key=lambda line: line.name.startswith(OURS)):
        placed = [(across(x), up(y)) for x, y in line.points]
        drawing.path(placed, chosen[line.name], 2.5 if line.name.startswith(OURS) else 1.5)
        for (x, y), (_, value) in zip(placed, line.points):
            drawing.dot(x, y, chosen[line.name], f"{line.name}: {value:.4g}", 3)
