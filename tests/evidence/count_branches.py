#!/usr/bin/env python3
"""Counts the branches of the record-file engine that its tests take, and lists those that none takes.

Usage: tests/evidence/count_branches.py [BUILD]      BUILD, by default build/branches, is made when it is not there

The rule: what the compiler puts in for exceptions (the way out of each call) is no branch of ours and not counted;
everything else is, and what no test takes is listed with its line, in BUILD/untaken.txt, for somebody to justify or test.
"""
import json
import os
import re
import subprocess
import sys
import tempfile
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
ENGINE = "src/platform/registry/"
FAULT_SCALE = "0.3"  # of the failures that are tried elsewhere: programs that count are slow


def run(*command, **more):
    subprocess.run([str(part) for part in command], check=True, cwd=ROOT, stdin=subprocess.DEVNULL, **more)


def programs():
    """The test programs of the engine."""
    lists = (ROOT / "tests" / "platform" / "registry" / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.findall(r"zon_test\(NAME (\w+)", lists)


def build_and_test(build):
    quiet = {"stdout": subprocess.DEVNULL}
    run("cmake", "-S", ".", "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DZON_COVERAGE=ON",
        "-DZON_BUILD_TESTS=ON", **quiet)
    run("cmake", "--build", build, "--parallel", str(os.cpu_count()), "--target", *programs(), **quiet)
    for counts in build.rglob("*.gcda"):
        counts.unlink()
    environment = {**os.environ, "ZON_FAULT_SCALE": FAULT_SCALE}
    environment.pop("ZON_EVIDENCE", None)
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for done in [pool.submit(run, build / "bin" / name, "--gtest_brief=1", env=environment, **quiet)
                     for name in programs()]:
            done.result()


def branches_of(build):
    """(file, line, number of the branch among the line's) -> how often it was taken, over all programs."""
    taken = defaultdict(int)
    objects = build / "src"
    with tempfile.TemporaryDirectory() as folder:
        for notes in sorted(objects.rglob("*.gcno")):
            if "zongenreg_objects" not in str(notes):
                continue
            done = subprocess.run(["gcov", "--branch-probabilities", "--json-format", "--stdout", str(notes)],
                                  capture_output=True, text=True, check=True, cwd=folder)
            for text in done.stdout.splitlines():
                for file in json.loads(text)["files"]:
                    name = file["file"].removeprefix(str(ROOT) + "/").removeprefix("./")
                    if name.startswith(ENGINE):
                        count_lines(name, file["lines"], taken)
    return taken


def without_calls(branches):
    """Without the pairs that a call makes: its way on, and its way out when something is thrown."""
    ours, at = [], 0
    while at < len(branches):
        pair = branches[at:at + 2]
        if any(branch["throw"] for branch in pair):
            at += 2
        else:
            ours.append(branches[at])
            at += 1
    return ours


def count_lines(name, lines, taken):
    for line in lines:
        for number, branch in enumerate(without_calls(line["branches"])):
            taken[name, line["line_number"], number] += branch["count"]


def main():
    build = Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build" / "branches").resolve()
    build_and_test(build)
    taken = branches_of(build)
    untaken = sorted(place for place, count in taken.items() if count == 0)
    (build / "untaken.txt").write_text("".join(f"{name}:{line} branch {number}\n" for name, line, number in untaken),
                                       encoding="utf-8")
    if not taken:
        sys.exit("no branch was counted: is this a build with ZON_COVERAGE=ON?")
    share = 10000 * (len(taken) - len(untaken)) // len(taken)
    print(f"{len(taken) - len(untaken)} of {len(taken)} branches taken, {share / 100:.2f} %; {build}/untaken.txt has the others")
    if told := os.environ.get("ZON_EVIDENCE"):
        with open(told, "a", encoding="utf-8") as file:
            for what, count in (("branches.taken", len(taken) - len(untaken)), ("branches.all", len(taken))):
                file.write(json.dumps({"what": what, "count": count, "seed": 0}) + "\n")


if __name__ == "__main__":
    main()
