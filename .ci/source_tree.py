"""What the checks of the source share: its files, the text of a file without comments, and where an include leads."""
import re
import sys
from pathlib import Path

FOLDERS = ("src", "include", "tools", "tests", "bench", "fuzz", "examples")
CODE = {".h", ".c", ".cpp"}

# Where an include that is not beside its file is looked for, as the builds do.
INCLUDE_PATHS = ("include", "src", "tests", "bench", "tools/zontrace")

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)[>"]', re.MULTILINE)
NO_CODE = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])+\'',
    re.DOTALL)


class SourceTree:
    """The C and C++ files below a folder, as paths relative to it."""

    def __init__(self, root):
        self.root = Path(root).resolve()
        self.files = sorted(
            path.relative_to(self.root).as_posix()
            for folder in FOLDERS
            for path in (self.root / folder).rglob("*")
            if path.suffix in CODE)
        self._known = set(self.files)

    def text(self, name):
        return (self.root / name).read_text(encoding="utf-8")

    def code(self, name):
        """The text without comments, texts in quotes, and includes; lines stay where they are."""
        kept = INCLUDE.sub("", self.text(name))
        return NO_CODE.sub(lambda match: " " + "\n" * match.group().count("\n"), kept)

    def includes(self, name):
        """(line, spelling, file or None) for each include; None is a header of the system."""
        text = self.text(name)
        for match in INCLUDE.finditer(text):
            line = text.count("\n", 0, match.start()) + 1
            yield line, match.group(2), self._resolve(name, match.group(2)) if match.group(1) == '"' else None

    def is_explained(self, name, line):
        """Whether an include has a comment on its line."""
        return re.search(r"//|/\*", self.text(name).splitlines()[line - 1]) is not None

    def _resolve(self, name, spelling):
        for folder in (Path(name).parent.as_posix(), *INCLUDE_PATHS):
            candidate = f"{folder}/{spelling}"
            if candidate in self._known:
                return candidate
        return None


def report(findings, what):
    """Prints the findings and gives the exit code."""
    for finding in findings:
        print(finding, file=sys.stderr)
    if not findings:
        print(f"   {what}")
    return 1 if findings else 0
