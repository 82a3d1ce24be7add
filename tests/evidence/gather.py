#!/usr/bin/env python3
"""Runs the counting tests for some minutes and writes down what they have looked at: ./test --evidence [MINUTES] [SEED].

The rule: a figure in docs/evidence.md was counted by a program that held every answer against what must be answered, and
a run in which one of them complained writes nothing. What a run had no time for keeps the line of the run that had.

The seed is today's date unless another one is told. From 20 minutes on the branches are counted and the planted faults
tried as well, which builds the tree anew.
"""
import argparse
import datetime
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "test"
DOCUMENT = ROOT / "docs" / "evidence.md"
REAL_DISK = ROOT / "tests" / "evidence" / "real_disk.py"
PLANTED = ROOT / "tests" / "evidence" / "plant_faults.py"
BRANCHES = ROOT / "tests" / "evidence" / "count_branches.py"
THOROUGH_MINUTES = 20
NOT_ALLOWED = 77  # the exit code of a script whom the machine does not let do its work

# Line of the document: what it is called, the counts that it sums up, and what it is to reach.
LINES = (
    ("Distinct states of a disk after a power cut or a kill", ("crash_states.",), 100_000),
    ("... after one power cut (other run of the machine, or mounted anew)", ("crash_states.first",), None),
    ("... after a second power cut, during recovery", ("crash_states.second",), None),
    ("... after a kill, in the same run of the machine", ("crash_states.killed",), None),
    ("Runs with a failure, each after something else had happened", ("faults.calls", "faults.half done", "faults.memory",
                                                                  "faults.short transfers"), 150_000),
    ("... a system call gives an error, once or from there on", ("faults.calls",), None),
    ("... a write gives an error half done", ("faults.half done",), None),
    ("... no memory for the engine", ("faults.memory", "memory.engine"), None),
    ("... reads and writes that come in pieces", ("faults.short transfers",), None),
    ("Power cuts behind such runs", ("faults.cuts behind",), None),
    ("No memory within an entry point", ("memory.entry points",), None),
    ("Interleavings of a reader and a writer, one within the other", ("schedules.nested",), None),
    ("Distinct interleavings of two actors with two operations each, up to two forced switches", ("schedules.two",),
     200_000),
    ("... of so many pairs of programs", ("schedules.pairs",), None),
    ("... of which one actor dies on the way", ("schedules.dying",), None),
    ("... states after a power cut on the way", ("schedules.cuts",), None),
    ("Processes killed at a random moment", ("kills",), 1_000),
    ("Damaged files, met by a reader and a writer", ("damage.cases",), 3_000_000),
    ("... whose history is one commit", ("damage.one commit",), None),
    ("... whose backup trails", ("damage.trailing backup",), None),
    ("... that were compacted", ("damage.compacted",), None),
    ("... found after a power cut", ("damage.after a power cut",), None),
    ("... that were written on beside the damage", ("damage.written on",), None),
    ("Forged files, with all checksums right", ("forged files",), 5_000),
    ("Real file system: cut off under load", ("real.cuts",), 20),
    ("Real file system: acknowledged changes looked for afterwards", ("real.acknowledged",), None),
    ("Planted faults caught", ("planted.caught",), 40),
    ("... of all that are planted", ("planted.all",), None),
    ("Branches of the engine that tests take", ("branches.taken",), None),
    ("... of all branches, without what the compiler makes for exceptions", ("branches.all",), None),
)


# Of a script that tells its counts in its last line only: what they are called there.
PLANTED_LINE = re.compile(r"(\d+) of (\d+) planted faults caught")


class Job:
    """One program to run, with what it is told, and about how many seconds it takes."""

    def __init__(self, name, command, environment, seconds):
        self.name, self.command, self.environment, self.seconds = name, command, environment, seconds


def program(name, **options):
    return [str(BUILD / "bin" / name), "--gtest_brief=1", *(f"--gtest_{key}={text}" for key, text in options.items())]


def jobs_for(minutes, seed):
    """What is run, the longest first. Shares of the processors' time are chosen so that all targets are in reach."""
    total = minutes * 60 * os.cpu_count()
    jobs = []

    def timed(name, share, parts):
        for part in range(parts):
            seconds = total * share / parts
            jobs.append(Job(f"{name} {part + 1}", program(name),
                            {"ZON_EVIDENCE_SECONDS": f"{seconds:.0f}", "ZON_EVIDENCE_SEED": str(seed * 10 + part)}, seconds))

    timed("evidence_damage_test", 0.46, 4)
    timed("evidence_crash_test", 0.08, 2)
    timed("evidence_interleavings_test", 0.12, 1)
    scale = max(1.0, minutes / 2.2)
    for part in range(2):
        jobs.append(Job(f"registry_combined_faults_test {part + 1}", program("registry_combined_faults_test"),
                        {"ZON_FAULT_SCALE": f"{scale:g}", "ZON_FAULT_SEED": str(seed), "GTEST_TOTAL_SHARDS": "2",
                         "GTEST_SHARD_INDEX": str(part)}, scale * 18))
    jobs += [
        Job("registry_forged_test", program("registry_forged_test", filter="RandomlyForged*"),
            {"ZON_FORGED_CASES": str(int(1500 * minutes)), "ZON_FORGED_SEED": str(seed)}, 10 * minutes),
        Job("registry_concurrency_test", program("registry_concurrency_test"),
            {"ZON_KILLS": str(int(150 * minutes)), "ZON_KILL_SEED": str(seed)}, 8 * minutes),
        Job("failing_memory_test", program("failing_memory_test"), {"ZON_FAULT_SEED": str(seed)}, 10),
        Job("registry_crash_test", program("registry_crash_test"), {}, 5),
        Job("registry_damage_test", program("registry_damage_test"), {}, 10),
        Job("registry_fault_test", program("registry_fault_test"), {}, 3),
        Job("real_disk", [sys.executable, str(REAL_DISK), str(BUILD)],
            {"ZON_EVIDENCE_SECONDS": f"{10 * minutes:.0f}", "ZON_EVIDENCE_SEED": str(seed)}, 10 * minutes),
    ]
    if minutes >= THOROUGH_MINUTES:
        jobs += [Job(script.stem, [sys.executable, str(script)], {}, 600) for script in (PLANTED, BRANCHES)
                 if script.exists()]
    return sorted(jobs, key=lambda job: -job.seconds)


class Gatherer:
    """Works off the jobs, as many at a time as there are processors."""

    def __init__(self, jobs, folder):
        self.waiting, self.folder = list(jobs), folder
        self.lock = threading.Lock()
        self.failed, self.refused = [], []

    def run(self):
        workers = [threading.Thread(target=self._work) for _ in range(os.cpu_count())]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()

    def _work(self):
        while True:
            with self.lock:
                if not self.waiting:
                    return
                job = self.waiting.pop(0)
            self._do(job)

    def _do(self, job):
        log = self.folder / (job.name.replace(" ", "-") + ".log")
        environment = {**os.environ, **job.environment, "ZON_EVIDENCE": str(self.folder / "counts")}
        began = time.monotonic()
        with open(log, "w", encoding="utf-8") as output:
            code = subprocess.run(job.command, env=environment, stdout=output, stderr=subprocess.STDOUT,
                                  stdin=subprocess.DEVNULL, cwd=ROOT, check=False).returncode
        told = "clean" if code == 0 else "not possible here" if code == NOT_ALLOWED else f"COMPLAINED, code {code}"
        print(f"   {job.name}: {told} after {time.monotonic() - began:.0f} s", flush=True)
        if planted := PLANTED_LINE.search(log.read_text(encoding="utf-8")):
            self._tell("planted.caught", int(planted[1]))
            self._tell("planted.all", int(planted[2]))
        if code == NOT_ALLOWED:
            self.refused.append(log.read_text(encoding="utf-8").strip())
        elif code != 0:
            self.failed.append((job.name, log.read_text(encoding="utf-8")[-4000:]))

    def _tell(self, what, count):
        with open(self.folder / "counts", "a", encoding="utf-8") as file:
            file.write(json.dumps({"what": what, "count": count, "seed": 0}) + "\n")


def counted(path):
    counts = Counter()
    if path.exists():
        for line in path.read_text(encoding="utf-8").splitlines():
            told = json.loads(line)
            counts[told["what"]] += told["count"]
    return counts


def sum_of(counts, names):
    return sum(count for what, count in counts.items() for name in names
               if what == name or (name.endswith(".") and what.startswith(name)))


def written_before():
    """The lines of the document as it is: by the name of what was counted."""
    if not DOCUMENT.exists():
        return {}
    rows = {}
    for line in DOCUMENT.read_text(encoding="utf-8").splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("| ") and len(cells) == 5 and re.fullmatch(r"[\d,]+", cells[2]):
            rows[cells[0]] = line
    return rows


def document(counts, seed, minutes, refused, before):
    today = datetime.date.today().isoformat()
    rows = []
    for name, parts, target in LINES:
        count = sum_of(counts, parts)
        wanted = f"{target:,}" if target else ""
        if count > 0:
            rows.append(f"| {name} | {wanted} | {count:,} | {seed} | {today} |")
        elif name in before:
            rows.append(before[name])
        else:
            rows.append(f"| {name} | {wanted} | not counted yet | | |")
    text = f"""# Evidence: what was counted

Written by `./test --evidence`; do not edit. Every count is of cases that were looked at and judged by a program: each answer was held
against all that was ever written to that file and each state against what must have outlasted. In a run that is written down here
nobody complained. What the columns count is told below.

| what | target | reached | seed | date |
|---|---:|---:|---|---|
""" + "\n".join(rows) + f"""

Again: `./test --evidence {minutes:g} {seed}`. More minutes give other and larger counts; without a seed it is the day's date. What
processes and threads do at random moments (kills, the real file system) differs from run to run.

## What is counted

- **States of a disk.** The engine works on a disk in memory that keeps what was not synced in pieces of 512 bytes (the header's sectors of
  4 KiB, which may hold anything while they are written). At each call of a change the disk is put into states that a power cut could
  leave: all of them while they are few, else the extremes and a sample. States are told apart by their content within each test. In
  each, a reader and then a writer find every acknowledged change, the one under way whole or not at all, and nothing else.
  `tests/platform/registry/harness/crash_explorer.h`
- **Runs with a failure.** Each call of an operation, each error that it may give, once or from there on, or half done; each request for
  memory; on files that were left by a power cut, a new mount, damage, a writer that died, or that another writer works on.
  `tests/platform/registry/harness/fault_harness.h`
- **Interleavings.** Two actors take turns at system calls, by a scheduler under the table of calls. For one pair of programs after the
  other, on small files of several kinds, every schedule with up to two forced switches is tried until the time is over; a history counts as good when some order of its operations, that keeps to who
  was done before whom, explains all answers and the records that are left. So it must be when one of the actors dies
  at a call, whose change then took effect before its death or never does, and after power cuts.
  `tests/evidence/interleavings_test.cpp`
- **Damaged files.** Single bits, single bytes, sectors, lengths, one or two places with random bytes, in the file, its backup or both, each
  met in the same run of the machine, in the next, or both. No answer of code 0 may be another than before the damage, unless it tells of the loss.
  `tests/evidence/damage_evidence_test.cpp`, `tests/platform/registry/care/`
- **Forged files.** Numbers changed at random with all checksums made right; bounded in time, memory and disk.
  `tests/platform/registry/forged_test.cpp`
- **Real file system.** An image with ext4 on a loop device under load, cut off by the file system's own shutdown, mounted again, and
  looked at; and copies of the image under load. These are no power cuts: the order in which a device writes is not shaken. It is the
  second witness beside the disk in memory, which forgets more. `tests/evidence/real_disk.py`
- **Planted faults.** Mistakes put into the engine's source one at a time, and the tests that find each. `tests/evidence/planted_faults.txt`
"""
    if refused:
        text += "\n## What the machine of the last run did not allow\n\n" + "".join(f"- {line}\n" for line in refused)
    return text


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", nargs="?", type=float, default=4)
    parser.add_argument("seed", nargs="?", type=int, default=int(datetime.date.today().strftime("%Y%m%d")))
    told = parser.parse_args()
    if told.minutes <= 0 or told.seed < 0:
        parser.error("minutes and seed are positive numbers")
    print(f"   seed {told.seed}, {told.minutes:g} minutes on {os.cpu_count()} processors", flush=True)
    with tempfile.TemporaryDirectory(prefix="evidence.") as name:
        folder = Path(name)
        gatherer = Gatherer(jobs_for(told.minutes, told.seed), folder)
        gatherer.run()
        counts = counted(folder / "counts")
    for name, parts, target in LINES:
        count = sum_of(counts, parts)
        if count > 0:
            print(f"   {count:>12,}  {name}" + (f" (target {target:,})" if target else ""))
    if gatherer.failed:
        for job, log in gatherer.failed:
            print(f"\n{job} complained; nothing is written down:\n{log}", file=sys.stderr)
        return 1
    DOCUMENT.write_text(document(counts, told.seed, told.minutes, gatherer.refused, written_before()), encoding="utf-8")
    print(f"   written to {DOCUMENT.relative_to(ROOT)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
