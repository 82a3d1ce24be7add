#!/usr/bin/env python3
"""Plants one fault after the other into a copy of the sources, and expects the tests that are named for it to fail.

Usage: tests/evidence/plant_faults.py [--only TEXT] [--jobs N] [--list] [FAULTS]

The rule: a fault that no test notices is a gap in the tests, and ends this with exit code 1. So does a fault whose lines
are not found exactly once (the sources have moved on: adapt the fault), that does not compile, or whose tests fail
without it. The tree itself is never touched: everything happens in build/planted.

FAULTS, by default planted_faults.txt beside this file, tells each fault so:

    == what is wrong then
    in: a file, or a folder somewhere below which the lines stand
    by: test program and filter of the tests that must fail; may be repeated, then each must fail
    - lines as they are
    + lines in their place

Where lines are looked for, their indentation does not count. A fault may have several groups of - and + lines.
"""
import argparse
import json
import os
import queue
import shutil
import subprocess
import sys
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "planted"
SOURCE_ENDINGS = (".cpp", ".h")
TEST_SECONDS = 300  # as long as ctest gives a test


class NoFault(Exception):
    """Something about a fault itself is wrong."""


@dataclass
class Edit:
    old: list = field(default_factory=list)
    new: list = field(default_factory=list)


@dataclass
class Fault:
    name: str
    place: str = ""
    tests: list = field(default_factory=list)  # pairs of a program and a filter
    edits: list = field(default_factory=list)


def read_faults(path):
    faults = []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if line.startswith("== "):
            faults.append(Fault(line[3:]))
        elif line.startswith("#") or not line.strip():
            continue
        elif not faults:
            raise NoFault(f"{path}:{number}: stands before the first fault")
        elif line.startswith("in: "):
            faults[-1].place = line[4:]
        elif line.startswith("by: "):
            faults[-1].tests.append(tuple(line[4:].split(maxsplit=1)))
        elif line[0] in "-+":
            edits = faults[-1].edits
            if line[0] == "-" and (not edits or edits[-1].new):
                edits.append(Edit())
            if not edits:
                raise NoFault(f"{path}:{number}: new lines without old ones")
            (edits[-1].old if line[0] == "-" else edits[-1].new).append(line[2:])
        else:
            raise NoFault(f"{path}:{number}: is not understood")
    for fault in faults:
        if not (fault.place and fault.tests and fault.edits) or any(len(test) != 2 for test in fault.tests):
            raise NoFault(f"{fault.name}: needs in:, by: and lines to change")
    if len({fault.name for fault in faults}) != len(faults):
        raise NoFault("two faults have one name")
    return faults


def find_lines(tree, place, wanted):
    """The one file, and the line in it, where these lines stand."""
    base = tree / place
    files = [base] if base.is_file() else sorted(path for path in base.rglob("*") if path.suffix in SOURCE_ENDINGS)
    bare = [line.strip() for line in wanted]
    found = []
    for path in files:
        lines = [line.strip() for line in path.read_text().splitlines()]
        found += [(path, at) for at in range(len(lines) - len(bare) + 1) if lines[at:at + len(bare)] == bare]
    if len(found) != 1:
        raise NoFault(f"stands {len(found)} times below {place}, not once: {bare[0]}")
    return found[0]


def planted(tree, fault):
    """What the changed files hold with the fault, by their paths."""
    lines = {}
    for edit in fault.edits:
        path, at = find_lines(tree, fault.place, edit.old)
        # Further edits of a file are looked for as it was, so each line keeps its place until all are made.
        changed = lines.setdefault(path, path.read_text().splitlines())
        changed[at:at + len(edit.old)] = ["\n".join(edit.new)] + [None] * (len(edit.old) - 1)
    return {path: "".join(f"{line}\n" for line in changed if line is not None) for path, changed in lines.items()}


def copy_sources(tree):
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT, check=True,
                            capture_output=True).stdout.decode().split("\0")
    names = {name for name in listed if name and (ROOT / name).is_file()}
    for name in names:
        source, target = ROOT / name, tree / name
        if target.is_file() and target.read_bytes() == source.read_bytes():
            continue  # keeps its time, and with that what was built from it
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
    for path in [path for path in tree.rglob("*") if path.is_file()]:
        name = path.relative_to(tree)
        if name.parts[0] != "build" and str(name) not in names:
            path.unlink()


class Copy:
    """A copy of the sources with a build of its own."""

    def __init__(self, number, jobs):
        self.tree = WORK / str(number)
        self.build = self.tree / "build" / "test"
        self.compilers = max(1, (os.cpu_count() or 1) // jobs)
        copy_sources(self.tree)
        self.call(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                   "-DZON_BUILD_TESTS=ON", "-DZON_WERROR=ON"], "cannot be configured")

    def call(self, command, complaint):
        done = subprocess.run(command, capture_output=True, text=True, errors="replace")
        if done.returncode != 0:
            raise NoFault(f"{complaint}:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")

    def make(self, programs):
        self.call(["cmake", "--build", self.build, "--parallel", str(self.compilers), "--target", *sorted(programs)],
                  "does not compile")

    def run(self, program, tests):
        """How the tests end: "passed", "failed", "did not end"; and which was the first to fail."""
        report = self.build / f"{program}.json"
        report.unlink(missing_ok=True)
        command = [self.build / "bin" / program, f"--gtest_filter={tests}", "--gtest_fail_fast",
                   f"--gtest_output=json:{report}"]
        try:
            done = subprocess.run(command, cwd=self.build, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  timeout=TEST_SECONDS)
        except subprocess.TimeoutExpired:
            return "did not end", tests
        told = json.loads(report.read_text()) if report.is_file() else {"tests": 1, "testsuites": []}
        if told["tests"] == 0:
            raise NoFault(f"{program} has no tests {tests}")
        failed = [f"{suite['name']}.{test['name']}" for suite in told["testsuites"] for test in suite["testsuite"]
                  if test.get("failures")]
        return ("passed" if done.returncode == 0 else "failed"), (failed[0] if failed else tests)

    def complaint(self, program, names):
        """What keeps these tests from telling anything of a fault; empty when they pass as things are."""
        try:
            return "" if self.run(program, names)[0] == "passed" else f"{program} {names} fails without any fault"
        except NoFault as wrong:
            return str(wrong)

    def plant(self, fault):
        """By what the fault was caught; empty when it was not."""
        texts = planted(self.tree, fault)
        before = {path: path.read_text() for path in texts}
        try:
            for path, text in texts.items():
                path.write_text(text)
            self.make({program for program, _ in fault.tests})
            caught = []
            for program, names in fault.tests:
                how, first = self.run(program, names)
                if how == "passed":
                    return ""
                caught.append(first if how == "failed" else f"{first} ({how})")
            return ", ".join(caught)
        finally:
            for path, text in before.items():
                path.write_text(text)


def plant_all(faults, jobs):
    waiting = queue.SimpleQueue()
    for fault in faults:
        waiting.put(fault)
    tests = sorted({test for fault in faults for test in fault.tests})
    complaints = {}  # by test
    results = {}
    lock = threading.Lock()
    sound = threading.Barrier(jobs)

    def tell(fault, caught, wrong, seconds):
        with lock:
            results[fault.name] = bool(caught)
            state = f"caught    {fault.name}: {caught}" if caught else f"{'WRONG' if wrong else 'NOT CAUGHT'}  {fault.name}"
            print(f"{state}  [{seconds:.0f} s]" + (f"\n    {wrong}" if wrong else ""), flush=True)

    def work(number):
        try:
            copy = Copy(number, jobs)
            copy.make({program for program, _ in tests})
            # Each looks at its share of the tests as they are.
            complaints.update({test: copy.complaint(*test) for test in tests[number::jobs]})
        except NoFault as wrong:
            print(f"WRONG  {wrong}", flush=True)
            sound.abort()
            return
        try:
            sound.wait()
        except threading.BrokenBarrierError:
            return
        while True:
            try:
                fault = waiting.get_nowait()
            except queue.Empty:
                return
            started = time.monotonic()
            caught, wrong = "", "; ".join(filter(None, (complaints[test] for test in fault.tests)))
            try:
                caught = "" if wrong else copy.plant(fault)
            except NoFault as why:
                wrong = str(why)
            tell(fault, caught, wrong, time.monotonic() - started)

    workers = [threading.Thread(target=work, args=(number,)) for number in range(jobs)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("faults", nargs="?", type=Path, default=Path(__file__).with_name("planted_faults.txt"))
    parser.add_argument("--only", default="", help="faults whose names hold this text")
    parser.add_argument("--jobs", type=int, default=2, help="copies of the sources that are worked on at once")
    parser.add_argument("--list", action="store_true", help="only check that each fault finds its place, and name them")
    chosen = parser.parse_args()
    try:
        faults = [fault for fault in read_faults(chosen.faults) if chosen.only in fault.name]
    except NoFault as wrong:
        sys.exit(str(wrong))
    if chosen.list:
        wrong = 0
        for fault in faults:
            try:
                planted(ROOT, fault)
                print(fault.name)
            except NoFault as why:
                wrong += 1
                print(f"WRONG  {fault.name}: {why}")
        sys.exit(1 if wrong or not faults else 0)
    results = plant_all(faults, max(1, chosen.jobs))
    count = sum(results.values())
    print(f"{count} of {len(faults)} planted faults caught")
    sys.exit(0 if faults and count == len(faults) else 1)


if __name__ == "__main__":
    main()
