#!/usr/bin/env python3
"""Writes docs/performance.md and its plots from the figures of compare_peers.

Usage: bench/report.py FIGURES.jsonl FOLDER      writes FOLDER/performance.md and FOLDER/performance-*.svg
       bench/report.py FIGURES.jsonl --check     only sees whether every figure is there

The rule: the page says nothing about figures that is not computed from them.
"""
import datetime
import json
import platform
import subprocess
import sys
from pathlib import Path

OURS, FLOOR = "zonmdfile", "system calls"
CALLS = ["get", "absent", "insert", "update", "remove", "list"]
USUAL_SIZE = 200

PAGE = """# Performance

Written by `bench/run` on {date} ({machine}); run it again on the machine that counts. Medians of whole calls in microseconds, taken
in turns within one run, `{rounds}` runs at least for each figure that is not a listing's.

Every store does the same work: a change returns when a power cut cannot take it back, an insertion looks whether the key is there, a
listing copies all keys and data into texts. Ours holds nothing open between calls; the others are shown opened for each call, as
ours, and held open. *System calls* is what a call cannot do without: open, read or lock, write and sync, close; for a listing
reading everything once and one copy into fresh memory. Keys have 15 bytes.

{notes}

{sections}
"""


def load(path):
    return [json.loads(line) for line in Path(path).read_text(encoding="utf-8").splitlines()]


class Figures:
    def __init__(self, rows):
        self.calls = [row for row in rows if "records" in row]
        self.writers = [row for row in rows if "writers" in row]

    def sizes(self):
        return sorted({row["size"] for row in self.calls})

    def records(self, size):
        return sorted({row["records"] for row in self.calls if row["size"] == size})

    def one(self, records, size, what, store, manner):
        for row in self.calls:
            if (row["records"], row["size"], row["what"], row["store"], row["manner"]) == (records, size, what, store, manner):
                return row
        return None

    def stores(self):
        """Each store with each manner, ours first, then in the order of the figures."""
        seen = dict.fromkeys((row["store"], row["manner"]) for row in self.calls if row["store"] != FLOOR)
        return sorted(seen, key=lambda subject: (subject[0] != OURS, subject[1] != "per call", subject[0]))


def number(value):
    if value is None:
        return ""
    return f"{value:,.1f}" if value < 10 else f"{value:,.0f}"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def calls_table(figures, records, size):
    floors = {what: figures.one(records, size, what, FLOOR, "per call") for what in CALLS}
    for change in ("update", "remove"):
        floors[change] = floors["insert"]
    floors["absent"] = floors["get"]
    rows = [["*system calls*", ""] + [number(floors[what]["median"]) for what in CALLS]]
    for store, manner in figures.stores():
        cells = []
        for what in CALLS:
            row = figures.one(records, size, what, store, manner)
            text = number(row["median"])
            if store == OURS:
                text = f"**{text}** ({row['median'] / floors[what]['median']:.1f} x)"
            cells.append(text)
        rows.append([f"**{store}**" if store == OURS else store, manner] + cells)
    return table(["store", "manner", *CALLS], rows)


def tails_table(figures, records, size):
    rows = []
    for what in CALLS:
        row = figures.one(records, size, what, OURS, "per call")
        rows.append([what, str(row["runs"]), number(row["median"]), number(row["p99"]), number(row["longest"])])
    return table(["call", "runs", "median", "99 of 100 within", "longest"], rows)


def writers_table(figures):
    counts = sorted({row["writers"] for row in figures.writers})
    stores = dict.fromkeys(row["store"] for row in figures.writers)
    by_key = {(row["store"], row["writers"]): row for row in figures.writers}
    rows = []
    for store in stores:
        found = [by_key[store, count] for count in counts]
        rows.append([store] + [f"{row['per_second']:,.0f} ({number(row['p99'] / 1000)}; {number(row['longest'] / 1000)})" for row in found])
    return table(["store", *(f"{count}" for count in counts)], rows)


def plot(path, title, x_label, y_label, series):
    """series: name -> list of (x, y). Logarithmic axes; ours is drawn thick."""
    blocks, commands = "", []
    for index, (name, points) in enumerate(series.items()):
        blocks += f"$data{index} << EOD\n" + "\n".join(f"{x} {y}" for x, y in points) + "\nEOD\n"
        style = "linewidth 3 linecolor rgb '#c0392b'" if name.startswith(OURS) else "linewidth 1"
        if name == FLOOR:
            style = "linewidth 2 linecolor rgb '#222222' dashtype 2"
        commands.append(f"$data{index} using 1:2 with linespoints {style} title {json.dumps(name)}")
    script = (f"set terminal svg size 760,460 font 'sans,12' background '#ffffff'\nset output {json.dumps(str(path))}\n"
              f"set title {json.dumps(title)}\nset xlabel {json.dumps(x_label)}\nset ylabel {json.dumps(y_label)}\n"
              f"set logscale xy\nset format y '%.0f'\nset key outside right\nset grid\n{blocks}plot {', '.join(commands)}\n")
    subprocess.run(["gnuplot", "-"], input=script, text=True, check=True)


def plots(figures, folder):
    made = []
    for what in ("get", "insert", "list"):
        series = {}
        for store, manner in [(FLOOR, "per call"), *figures.stores()]:
            if manner != "per call":
                continue
            rows = [(n, figures.one(n, USUAL_SIZE, what, store, manner)) for n in figures.records(USUAL_SIZE)]
            series[store] = [(n, row["median"]) for n, row in rows if row]
        path = folder / f"performance-{what}-records.svg"
        plot(path, f"{what}: opened for each call, records of {USUAL_SIZE} bytes", "records", "microseconds", series)
        made.append((path, f"{what} by number of records"))
    for what in ("get", "insert"):
        series = {}
        for store, manner in [(FLOOR, "per call"), *figures.stores()]:
            if manner != "per call":
                continue
            points = []
            for size in figures.sizes():
                row = figures.one(50, size, what, store, manner)
                if row:
                    points.append((size, row["median"]))
            series[store] = points
        path = folder / f"performance-{what}-size.svg"
        plot(path, f"{what}: opened for each call, 50 records", "bytes of data in the record", "microseconds", series)
        made.append((path, f"{what} by size of the record"))
    series = {}
    for row in sorted(figures.writers, key=lambda row: row["writers"]):
        series.setdefault(row["store"], []).append((row["writers"], row["per_second"]))
    path = folder / "performance-writers.svg"
    plot(path, "insertions of several processes at once", "writers", "insertions a second", series)
    made.append((path, "insertions a second by number of writers"))
    return made


def machine():
    model = next((line.split(":", 1)[1].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), platform.machine())
    cores = len([line for line in Path("/proc/cpuinfo").read_text().splitlines() if line.startswith("processor")])
    return f"{cores} cores, {model}, Linux {platform.release().split('-')[0]}"


def write_page(figures, folder):
    sections = []
    for records in figures.records(USUAL_SIZE):
        sections.append(f"## {records:,} records of {USUAL_SIZE} bytes\n\n{calls_table(figures, records, USUAL_SIZE)}\n\n"
                        f"Ours, from call to call:\n\n{tails_table(figures, records, USUAL_SIZE)}")
    for size in figures.sizes():
        if size != USUAL_SIZE:
            sections.append(f"## 50 records of {size:,} bytes\n\n{calls_table(figures, 50, size)}")
    sections.append("## Several writers\n\nInsertions a second by number of writing processes (in brackets milliseconds: 99 of 100 "
                    f"within; longest).\n\n{writers_table(figures)}")
    for path, text in plots(figures, folder):
        sections.append(f"![{text}]({path.name})")
    rounds = min(row["runs"] for row in figures.calls if row["what"] != "list")
    notes = "LevelDB, RocksDB and Berkeley DB may be opened by one process at a time; GDBM promises nothing for a power cut within a change."
    (folder / "performance.md").write_text(
        PAGE.format(date=datetime.date.today().isoformat(), machine=machine(), rounds=rounds, notes=notes,
                    sections="\n\n".join(sections)), encoding="utf-8")


def check(figures):
    for size in figures.sizes():
        for records in figures.records(size):
            for store, manner in figures.stores():
                for what in CALLS:
                    if figures.one(records, size, what, store, manner) is None:
                        sys.exit(f"report: no figure for {what} of {store}, {manner}, {records} records of {size} bytes")
    if not figures.writers:
        sys.exit("report: no figures of several writers")
    print(f"   {len(figures.calls) + len(figures.writers)} figures, none missing")


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    figures = Figures(load(sys.argv[1]))
    check(figures)
    if sys.argv[2] != "--check":
        write_page(figures, Path(sys.argv[2]))
        print(f"   {sys.argv[2]}/performance.md and its plots")
    return 0


if __name__ == "__main__":
    sys.exit(main())
