#!/usr/bin/env python3
"""Shows that each check of the source can fail: small trees, each with one fault, and one without any.

Usage: .ci/checks_test.py

The rule: the checks are run as .ci/run runs them, as programs.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CI = Path(__file__).resolve().parent

SOUND = {
    "include/zonmdfile/platform/oss.h": "#ifndef OSS_H\n#define OSS_H\nint release(int);\n#endif\n",
    "src/platform/oss/memory.cpp": '#include "zonmdfile/platform/oss.h"\nint release(int a) { return a; }\n',
    "src/record/layout.h": "#pragma once\n#include <cstddef>\nstruct Layout { std::size_t size; };\n",
    "src/stores/store.cpp": '#include "record/layout.h"\nLayout one;\n',
    "examples/first.c": "int main(void) { return 0; }\n",
    "examples/CMakeLists.txt": "add_executable(first first.c)\n",
}
BUILT = ["src/platform/oss/memory.cpp", "src/stores/store.cpp"]


class Checks(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        for name, text in SOUND.items():
            self.write(name, text)
        self.write_build(BUILT)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def write_build(self, names):
        self.write("build/compile_commands.json",
                   json.dumps([{"directory": str(self.root / "build"), "file": str(self.root / name)} for name in names]))

    def run_check(self, *arguments):
        result = subprocess.run([sys.executable, *map(str, arguments)], capture_output=True, text=True, check=False)
        return result.returncode, result.stderr

    def includes(self):
        return self.run_check(CI / "check_includes.py", self.root)

    def build_lists(self):
        return self.run_check(CI / "check_build_lists.py", self.root, self.root / "build")

    def source_files(self, path):
        script = f"source '{CI.parent}/packaging/shell-helpers.sh'; source_files ."
        result = subprocess.run(["bash", "-c", script], cwd=self.root, env={**os.environ, "PATH": path},
                                capture_output=True, text=True, check=True)
        return {name.removeprefix("./") for name in result.stdout.split()}

    def test_a_sound_tree_passes(self):
        self.assertEqual(self.includes(), (0, ""))
        self.assertEqual(self.build_lists(), (0, ""))

    def assert_finds(self, result, *parts):
        code, errors = result
        self.assertEqual(code, 1)
        for part in parts:
            self.assertIn(part, errors)

    def test_an_include_that_points_up(self):
        self.write("src/stores/names.h", "#pragma once\nint names();\n")
        self.write("src/record/layout.h", '#pragma once\n#include "stores/names.h"\nstruct Layout { int a = names(); };\n')
        self.assert_finds(self.includes(), "src/record/layout.h:2:", "floor above")

    def test_an_include_that_points_up_inside_the_engine(self):
        self.write("src/platform/registry/log/log.h", "#pragma once\nint tail();\n")
        self.write("src/platform/registry/format/frame.cpp", '#include "platform/registry/log/log.h"\nint a = tail();\n')
        self.assert_finds(self.includes(), "format/frame.cpp:1:", "floor above")

    def test_platform_folders_that_know_each_other(self):
        self.write("src/platform/oss/pool.h", "#pragma once\nint pool();\n")
        self.write("src/platform/admin/path.cpp", '#include "platform/oss/pool.h"\nint a = pool();\n')
        self.assert_finds(self.includes(), "admin/path.cpp:1:", "know nothing of each other")

    def test_a_circle(self):
        self.write("src/record/a.h", '#pragma once\n#include "record/b.h"\ninline int a() { return b(); }\n')
        self.write("src/record/b.h", '#pragma once\n#include "record/a.h"\nint b();\ninline int c() { return a(); }\n')
        self.assert_finds(self.includes(), "circle: src/record/a.h -> src/record/b.h -> src/record/a.h")

    def test_an_idle_include_of_the_project(self):
        self.write("src/stores/store.cpp", '#include "record/layout.h"\nint one;  // a Layout\n')
        self.assert_finds(self.includes(), "src/stores/store.cpp:1:", "no name")

    def test_an_idle_include_of_the_standard_library(self):
        self.write("src/stores/store.cpp", '#include <vector>\n#include "record/layout.h"\nLayout one;\n')
        self.assert_finds(self.includes(), "src/stores/store.cpp:1:", "<vector>")

    def test_a_comment_on_its_line_explains_an_include(self):
        self.write("src/stores/store.cpp", '#include <vector>  // for what a macro makes\n#include "record/layout.h"\nLayout one;\n')
        self.assertEqual(self.includes(), (0, ""))

    def test_an_installed_header_without_guards(self):
        self.write("include/zonmdfile/platform/oss.h", "#pragma once\nint release(int);\n")
        self.assert_finds(self.includes(), "include/zonmdfile/platform/oss.h:1:", "#ifndef")

    def test_an_internal_header_with_guards(self):
        self.write("src/record/layout.h", "#ifndef L\n#define L\n#include <cstddef>\nstruct Layout { std::size_t s; };\n#endif\n")
        self.assert_finds(self.includes(), "src/record/layout.h:1:", "#pragma once")

    def test_a_header_that_needs_another_one_before_it(self):
        self.write("src/record/layout.h", "#pragma once\nstruct Layout { std::size_t size; };\n")
        self.assert_finds(self.includes(), "src/record/layout.h:1: does not compile alone")

    def test_a_folder_that_stands_on_no_floor(self):
        self.write("src/cellar/box.cpp", "int box;\n")
        self.assert_finds(self.includes(), "src/cellar/box.cpp:1:", "no floor")

    def test_a_source_file_that_no_build_knows(self):
        self.write("src/record/forgotten.cpp", "int forgotten;\n")
        self.assert_finds(self.build_lists(), "src/record/forgotten.cpp:1:")

    def test_a_header_that_is_included_by_what_no_build_knows_alone(self):
        self.write("src/record/forgotten.h", "#pragma once\n")
        self.write("src/record/forgotten.cpp", '#include "record/forgotten.h"\n')
        self.assert_finds(self.build_lists(), "src/record/forgotten.cpp:1:", "src/record/forgotten.h:1:")

    def test_an_example_that_its_list_does_not_name(self):
        self.write("examples/second.c", "int main(void) { return 0; }\n")
        self.assert_finds(self.build_lists(), "examples/second.c:1:")

    def test_source_files_without_git_leave_out_what_git_and_builds_keep(self):
        self.write(".git/hooks/sample.sh", "")
        found = self.source_files("/nowhere:" + self.path_without_git())
        self.assertEqual(found, set(SOUND))

    @unittest.skipUnless(shutil.which("git"), "without git there is no tree that git could mistrust")
    def test_source_files_of_a_tree_of_somebody_else_are_those_that_git_knows(self):
        git = ["git", "-C", str(self.root), "-c", "user.name=a", "-c", "user.email=a@b"]
        subprocess.run([*git, "init", "--quiet"], check=True)
        subprocess.run([*git, "add", *SOUND], check=True)
        self.write("notes.txt", "not part of the source\n")
        if os.geteuid() == 0:
            for path in [self.root, *self.root.rglob("*")]:
                os.chown(path, 65534, 65534)
        self.assertEqual(self.source_files(os.environ["PATH"]), set(SOUND))

    def path_without_git(self):
        folder = self.root / "build/bin"
        folder.mkdir()
        for tool in ("bash", "find"):
            found = subprocess.run(["bash", "-c", f"command -v {tool}"], capture_output=True, text=True, check=True)
            (folder / tool).symlink_to(found.stdout.strip())
        return str(folder)


if __name__ == "__main__":
    unittest.main()
