#!/usr/bin/env python3
"""Compares the rows of benchmark runs as bench/rows.tsv and bench/growth.tsv say, and tells it: on standard output, as
build/bench/results.json and, with --publish, as docs/benchmarks.md with its plots and docs/benchmarks.json."""

import json
import math
import os
import platform
import re
import statistics
import subprocess
import sys
from dataclasses import asdict, dataclass, field
from fnmatch import fnmatchcase
from pathlib import Path

import plot

ROOT = Path(__file__).resolve().parent.parent
HAND_WRITTEN = "## What was tried"
NOISY = 0.10
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
PEER_PACKAGES = ["libc6", "libstdc++6", "libfmt-dev", "libabsl-dev", "libglib2.0-dev", "libicu-dev", "libsimdjson-dev",
                 "libunistring-dev", "libconfig-dev", "libbenchmark-dev", "coreutils", "findutils", "socat", "ncat", "s6",
                 "ucspi-tcp", "liblockfile-dev"]


@dataclass
class Row:
    """One implementation at one size. Times are in nanoseconds, of one item where the row counts items."""

    group: str
    case: str
    implementation: str
    size: int | None
    times: list[float] = field(default_factory=list)
    counters: dict[str, list[float]] = field(default_factory=dict)

    def quartiles(self) -> tuple[float, float, float]:
        if len(self.times) == 1:
            return (self.times[0],) * 3
        low, middle, high = statistics.quantiles(self.times, n=4, method="inclusive")
        return low, middle, high

    @property
    def time(self) -> float:
        return self.quartiles()[1]

    def counter(self, name: str) -> float:
        return statistics.median(self.counters[name])

    def ours(self) -> bool:
        return self.implementation.startswith(plot.OURS)


@dataclass
class Ratio:
    """How many times what another takes, and between which bounds half of the runs leave it."""

    other: str
    value: float
    low: float
    high: float

    def noisy(self) -> bool:
        return (self.high - self.low) / 2 > NOISY * self.value

    def verdict(self, goal: float) -> str:
        if self.value <= goal:
            return "met"
        return "missed" if self.low > goal else "open"

    def __str__(self) -> str:
        return f"{self.value:.2f}{' ~' if self.noisy() else ''} {self.other}"


@dataclass
class Comparison:
    label: str
    group: str
    time: float
    best: Ratio | None
    default: Ratio | None
    limit: Ratio | None
    goals: dict[str, float]

    def verdicts(self) -> dict[str, str]:
        ratios = {"best": self.best, "limit": self.limit}
        return {name: ratios[name].verdict(goal) for name, goal in self.goals.items() if ratios[name]}


@dataclass
class Growth:
    """How a cost follows the size: the exponent fitted over all sizes, and between the two greatest."""

    group: str
    case: str
    implementation: str
    what: str
    fitted: float
    last: float
    goal: float | None


def read_table(name: str) -> list[list[str]]:
    lines = (ROOT / "bench" / name).read_text().splitlines()
    return [line.split("\t") for line in lines if line and not line.startswith("#")]


def read_rows(folder: Path) -> tuple[list[Row], dict]:
    rows: dict[tuple, Row] = {}
    context = {}
    for file in sorted(folder.glob("*.json")):
        run = json.loads(file.read_text())
        context = run["context"]
        for entry in sorted(run["benchmarks"], key=lambda e: (e["family_index"], e["per_family_instance_index"])):
            if entry["run_type"] == "iteration" and not entry.get("error_occurred"):
                add_entry(rows, entry)
    return list(rows.values()), context


def add_entry(rows: dict[tuple, Row], entry: dict):
    """A name is GROUP/CASE/IMPLEMENTATION[/SIZE], with what the framework adds behind it."""
    group, case, implementation, *rest = entry["run_name"].split("/")
    size = int(rest[0]) if rest and rest[0].isdigit() else None
    row = rows.setdefault((group, case, implementation, size), Row(group, case, implementation, size))
    by_hand = "manual_time" in rest or "real_time" in rest
    if "items_per_second" in entry:
        row.times.append(1e9 / entry["items_per_second"])
    else:
        row.times.append(entry["real_time" if by_hand else "cpu_time"] * NANOSECONDS[entry["time_unit"]])
    for name, value in entry.items():
        if name.endswith("_KiB"):
            row.counters.setdefault(name, []).append(value)


def ratio(ours: Row, other: Row) -> Ratio:
    low, middle, high = ours.quartiles()
    other_low, other_middle, other_high = other.quartiles()
    return Ratio(other.implementation, middle / other_middle, low / other_high, high / other_low)


def rule_of(group: str, case: str, rules: list[list[str]]) -> list[str] | None:
    return next((rule for rule in rules if rule[0] == group and fnmatchcase(case, rule[1])), None)


def label_of(row: Row) -> str:
    variant = row.implementation[len(plot.OURS):].replace("-", " ").strip()
    return row.case + (f" {row.size:,}" if row.size is not None else "") + (f" ({variant})" if variant else "")


def peers_of(row: Row, rows: list[Row]) -> list[Row]:
    return [r for r in rows if (r.group, r.case, r.size) == (row.group, row.case, row.size) and not r.ours()]


def fastest(rows: list[Row]) -> Row | None:
    return min(rows, key=lambda row: row.time, default=None)


def compare(rows: list[Row], rules: list[list[str]]) -> list[Comparison]:
    comparisons = []
    for row in rows:
        rule = rule_of(row.group, row.case, rules)
        peers = {peer.implementation: peer for peer in peers_of(row, rows)}
        if not row.ours() or rule is None or not peers:
            continue
        _, _, default, limits, *goals = rule
        limit = fastest([peer for name, peer in peers.items() if name in limits.split(",")])
        best = fastest([peer for name, peer in peers.items() if name not in limits.split(",")])
        comparisons.append(Comparison(
            label_of(row), row.group, row.time,
            ratio(row, best) if best else None,
            ratio(row, peers[default]) if default in peers else None,
            ratio(row, limit) if limit else None,
            {name: float(goal) for name, goal in zip(("best", "limit"), goals) if goal != "-"}))
    return comparisons


def exponent(points: list[tuple[float, float]]) -> float:
    logs = [(math.log(x), math.log(y)) for x, y in points]
    return statistics.linear_regression([x for x, _ in logs], [y for _, y in logs]).slope


def series(rows: list[Row], group: str, case: str) -> dict[str, list[Row]]:
    found: dict[str, list[Row]] = {}
    for row in sorted((r for r in rows if (r.group, r.case) == (group, case)), key=lambda r: r.size or 0):
        found.setdefault(row.implementation, []).append(row)
    return {name: points for name, points in found.items() if len(points) > 1}


def curves(points: list[Row]) -> dict[str, list[tuple[float, float]]]:
    """Time, and memory where it was counted, over size."""
    found = {"time": [(row.size, row.time) for row in points]}
    if all(row.counters.get("memory_KiB", [0])[0] > 0 for row in points):
        found["memory"] = [(row.size, row.counter("memory_KiB")) for row in points]
    return found


def measure_growth(rows: list[Row], rules: list[list[str]]) -> list[Growth]:
    return [
        Growth(group, case, name, what, exponent(points), exponent(points[-2:]),
               float(goal) if name.startswith(plot.OURS) else None)
        for group, case, _, _, goal in rules
        for name, line in series(rows, group, case).items()
        for what, points in curves(line).items()
    ]


def first_line(*command: str) -> str:
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.stdout.splitlines()[0] if done.stdout else ""


def describe_machine(context: dict) -> dict:
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    system = re.search(r'PRETTY_NAME="(.*)"', Path("/etc/os-release").read_text())
    versions = {}
    for package in PEER_PACKAGES:
        version = first_line("dpkg-query", "-W", "-f", "${Version}", package)
        if version:
            versions[package] = version
    return {"processor": cpu.group(1) if cpu else platform.machine(), "cores": os.cpu_count(),
            "kernel": platform.release().split("-")[0], "system": system.group(1) if system else "",
            "compiler": first_line("g++", "--version"), "load": context.get("load_avg", []), "versions": versions}


def markdown_table(head: list[str], lines: list[list[str]]) -> list[str]:
    return ["| " + " | ".join(head) + " |", "|" + "---|" * len(head), *("| " + " | ".join(line) + " |" for line in lines), ""]


def comparison_lines(comparisons: list[Comparison]) -> list[list[str]]:
    def goals(row: Comparison) -> str:
        return ", ".join(f"{row.goals[name]:g} {name}: {verdict}" for name, verdict in row.verdicts().items())

    return [[row.label, plot.readable(row.time), str(row.best or ""), str(row.default or ""), str(row.limit or ""), goals(row)]
            for row in comparisons]


HEAD = ["Case", "Time", "To the best peer", "To the default", "To the limit", "Goal"]
GROWTH_HEAD = ["Case", "Implementation", "What", "Exponent", "At the end", "Goal"]


def growth_lines(growths: list[Growth]) -> list[list[str]]:
    def goal(row: Growth) -> str:
        if row.goal is None:
            return ""
        if row.fitted > row.goal:
            return f"{row.goal:g}: missed"
        return f"{row.goal:g}: {'met' if row.last <= row.goal else 'missed at the end'}"

    return [[f"{row.group.removesuffix('-grows')} {row.case}", row.implementation, row.what, f"{row.fitted:.2f}",
             f"{row.last:.2f}", goal(row)] for row in growths]


def memory_lines(rows: list[Row]) -> tuple[list[str], list[list[str]]]:
    """A group's counters of memory, of every implementation."""
    names = list(dict.fromkeys(name for row in rows for name in row.counters))
    lines = [[row.case + (f" {row.size:,}" if row.size else ""), row.implementation,
              *(f"{row.counter(name):,.0f}" if name in row.counters else "" for name in names)]
             for row in rows if row.counters]
    return ["Case", "Implementation", *(name.replace("_KiB", ", KiB").replace("_", " ") for name in names)], lines


def print_aligned(lines: list[list[str]]):
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    for line in lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
    print()


def ratio_plot(group: str, rows: list[Row]) -> str:
    """The other way round than the tables: what a peer takes, in multiples of ours."""
    lines = []
    for row in rows:
        peers = peers_of(row, rows)
        if row.ours() and peers:
            dots = [(ratio(row, peer), peer) for peer in peers]
            lines.append((label_of(row), [plot.Dot(p.implementation, 1 / r.value, 1 / r.high, 1 / r.low) for r, p in dots]))
    return plot.ratios(f"{group}: time of the others, in multiples of this project's", lines,
                       "left of the line: faster than this project; right of it: slower")


def overview_plot(comparisons: list[Comparison]) -> str:
    groups = dict.fromkeys(row.group for row in comparisons)
    lines = []
    for group in groups:
        found = [row.best for row in comparisons if row.group == group and row.best]
        lines.append((f"{group} ({len(found)})", [plot.Dot("a row", 1 / r.value, 1 / r.high, 1 / r.low) for r in found]))
    return plot.ratios("Every row: time of the best peer, in multiples of this project's", lines,
                       "left of the line: the best peer is faster; right of it: this project is", named=False)


def growth_plot(group: str, rows: list[Row], rules: list[list[str]]) -> str:
    panels = []
    for _, case, across, of, _ in (rule for rule in rules if rule[0] == group):
        lines: dict[str, list[plot.Line]] = {}
        for name, points in series(rows, group, case).items():
            for what, curve in curves(points).items():
                lines.setdefault(what, []).append(plot.Line(name, curve))
        for what, found in lines.items():
            panels.append(plot.Panel(f"{case}: {of if what == 'time' else what}", across, what == "time", found))
    return plot.growth(panels)


def save_plots(folder: Path, rows: list[Row], comparisons: list[Comparison], growth_rules: list[list[str]]) -> dict[str, str]:
    """By group; the overview is the empty one's."""
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.svg"):
        old.unlink()
    plots = {"": overview_plot(comparisons)}
    for group in dict.fromkeys(row.group for row in comparisons):
        plots[group] = ratio_plot(group, [row for row in rows if row.group == group])
    for group in dict.fromkeys(rule[0] for rule in growth_rules):
        if any(row.group == group for row in rows):
            plots[group] = growth_plot(group, rows, growth_rules)
    for group, svg in plots.items():
        (folder / f"{group or 'overview'}.svg").write_text(svg)
    return plots


def summary(comparisons: list[Comparison]) -> list[str]:
    lines = []
    for name, what in (("best", "the best peer"), ("limit", "the practical limit")):
        verdicts = [(row, row.verdicts()[name]) for row in comparisons if name in row.verdicts()]
        counts = {v: sum(1 for _, verdict in verdicts if verdict == v) for v in ("met", "open", "missed")}
        lines.append(f"Against {what}, of {len(verdicts)} goals {counts['met']} are met, {counts['missed']} missed, and"
                     f" {counts['open']} missed by less than the spread of the runs.")
        missed: dict[str, list[str]] = {}
        for row, verdict in verdicts:
            if verdict == "missed":
                missed.setdefault(row.group, []).append(f"{row.label} ({getattr(row, name).value:.2f})")
        lines += ["", *(f"- missed of {group}: {', '.join(labels)}" for group, labels in missed.items()), ""]
    return lines


INTRODUCTION = """# Benchmarks

Made by `scripts/bench`, which builds and runs every benchmark of `bench/` beside its peers and writes this page, but for
its last section, which is written by hand. `scripts/bench NAME` runs one program, `scripts/bench --quick` only tries
whether all of them work. `bench/rows.tsv` and `bench/growth.tsv` say what is compared with what, and the goals.

A number is how many times the time of the other this project takes: below 1 it is faster. The best peer is the fastest of
all that do the same; the default is what a program would use that thinks no further; the limit is what could be had at
best, such as code written by hand for the one case. Times are medians of processor time over repetitions whose order is
shuffled over all rows of a program, but the daemon's start, which is the time that passed. A ratio with ~ is noisy: half
of the runs leave it uncertain by more than a tenth either way.
"""


def page(rows: list[Row], comparisons: list[Comparison], growths: list[Growth], growth_rules, machine: dict) -> list[str]:
    lines = [INTRODUCTION]
    lines += ["![every row](benchmarks/overview.svg)", "", *summary(comparisons)]
    lines += ["## The machine", "", *(f"- {what}: {machine[what]}" for what in ("processor", "cores", "system", "kernel", "compiler"))]
    lines += [f"- load when the last program began: {', '.join(f'{load:.1f}' for load in machine['load'])}; above the number of cores, other work was going on",
              "- peers: " + ", ".join(f"{name} {version}" for name, version in machine["versions"].items()), ""]
    for group in dict.fromkeys(row.group for row in comparisons):
        lines += [f"## {group}", "", f"![{group}](benchmarks/{group}.svg)", ""]
        lines += markdown_table(HEAD, comparison_lines([row for row in comparisons if row.group == group]))
        head, memory = memory_lines([row for row in rows if row.group == group])
        lines += markdown_table(head, memory) if memory else []
    lines += ["## Costs that grow", "",
              "The exponent fitted to all sizes, and that between the two greatest: 0 where the size does not matter, 1 where the",
              "cost is in proportion to it.", ""]
    lines += markdown_table(GROWTH_HEAD, growth_lines(growths))
    for group in dict.fromkeys(rule[0] for rule in growth_rules if any(g.group == rule[0] for g in growths)):
        lines += [f"![{group}](benchmarks/{group}.svg)", ""]
    return lines


def kept_section(path: Path) -> str:
    """What people wrote at the end of the page."""
    old = path.read_text() if path.exists() else ""
    return old[old.index(HAND_WRITTEN):] if HAND_WRITTEN in old else HAND_WRITTEN + "\n"


def as_json(rows: list[Row], comparisons: list[Comparison], growths: list[Growth], machine: dict) -> str:
    def rounded(value):
        return float(f"{value:.4g}")

    told = []
    for row in rows:
        low, middle, high = row.quartiles()
        told.append({"group": row.group, "case": row.case, "implementation": row.implementation, "size": row.size,
                     "nanoseconds": rounded(middle), "quartiles": [rounded(low), rounded(high)], "repetitions": len(row.times),
                     "counters": {name: rounded(row.counter(name)) for name in row.counters}})
    whole = {"machine": machine, "rows": told, "comparisons": [asdict(row) | {"verdicts": row.verdicts()} for row in comparisons],
             "growth": [asdict(row) for row in growths]}
    return json.dumps(json.loads(json.dumps(whole), parse_float=lambda text: rounded(float(text))), indent=1) + "\n"


def main():
    arguments = sys.argv[1:]
    publish = "--publish" in arguments
    folder = Path(next(argument for argument in arguments if not argument.startswith("-")))
    growth_rules = read_table("growth.tsv")
    rows, context = read_rows(folder)
    comparisons = compare(rows, read_table("rows.tsv"))
    growths = measure_growth(rows, growth_rules)
    machine = describe_machine(context)

    if comparisons:
        print_aligned([["", *HEAD], *([row.group, *line] for row, line in zip(comparisons, comparison_lines(comparisons)))])
    if growths:
        print_aligned([GROWTH_HEAD, *growth_lines(growths)])
    told = as_json(rows, comparisons, growths, machine)
    (ROOT / "build/bench/results.json").write_text(told)
    if publish:
        docs = ROOT / "docs"
        save_plots(docs / "benchmarks", rows, comparisons, growth_rules)
        text = "\n".join(page(rows, comparisons, growths, growth_rules, machine))
        (docs / "benchmarks.md").write_text(text + kept_section(docs / "benchmarks.md"))
        (docs / "benchmarks.json").write_text(told)


if __name__ == "__main__":
    main()
