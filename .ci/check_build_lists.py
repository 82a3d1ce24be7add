#!/usr/bin/env python3
"""Checks that every source file is built: a .c or .cpp by a target, a .h by being included from one that is.

Usage: .ci/check_build_lists.py ROOT BUILD_FOLDER...      the folders of configured builds, which together build everything

The rule: what counts is what CMake made of its lists. Only the examples, a project of their own, are taken from their list.
"""
import json
import re
import sys
from pathlib import Path

from source_tree import SourceTree, report


def compiled_by(root, build):
    for entry in json.loads((Path(build) / "compile_commands.json").read_text(encoding="utf-8")):
        path = (Path(entry["directory"]) / entry["file"]).resolve()
        if path.is_relative_to(root):
            yield path.relative_to(root).as_posix()


def listed_examples(root):
    words = re.findall(r"[\w.]+\.(?:c|cpp)\b", (root / "examples/CMakeLists.txt").read_text(encoding="utf-8"))
    return {f"examples/{word}" for word in words}


def reached_from(tree, names):
    """These files and all that they include, over any number of steps."""
    reached, waiting = set(), list(names)
    while waiting:
        name = waiting.pop()
        if name in reached:
            continue
        reached.add(name)
        waiting += [target for _, _, target in tree.includes(name) if target]
    return reached


def main():
    if len(sys.argv) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    tree = SourceTree(sys.argv[1])
    built = listed_examples(tree.root)
    for build in sys.argv[2:]:
        built.update(compiled_by(tree.root, build))
    reached = reached_from(tree, built & set(tree.files))
    findings = [f"{name}:1: no build knows this file" for name in tree.files if name not in reached]
    return report(findings, f"{len(tree.files)} files, each in a build")


if __name__ == "__main__":
    sys.exit(main())
