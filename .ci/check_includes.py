#!/usr/bin/env python3
"""Checks the includes: they point down, go round in no circle, and each serves; every header compiles alone.

Usage: .ci/check_includes.py [ROOT]

The rule: a finding names file and line. An include that serves otherwise than by its names says how, in a comment on its
line; there is no other way around a check.
"""
import itertools
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

from source_tree import INCLUDE_PATHS, SourceTree, report

# Floors, lowest first. A file may include what is on its own floor and on those below. A file stands on the floor of the
# longest name here that its path begins with.
FLOORS = (
    ("include/zonmdfile/platform", "src/platform/guarded.h", "src/platform/trace_", "src/platform/oss"),
    ("src/platform/collections", "src/platform/admin"),
    ("src/platform/registry/format/",),
    ("src/platform/registry/files/",),
    ("src/platform/registry/log/",),
    ("src/platform/registry/care/",),
    ("src/platform/registry/",),
    ("include/zonmdfile/zonmdfile.h", "include/zonmdfile/MDStringParser.h", "include/zonmdfile/MDOneKeyReg.h",
     "include/zonmdfile/MDTwoKeyReg.h", "include/zonmdfile/MDThreeKeyReg.h", "src/record"),
    ("include/zonmdfile", "src/stores"),
    ("src/api",),
    ("tools", "bench", "examples"),
    ("tests",),
    ("fuzz",),
)
# Platform folders that know nothing of each other.
STRANGERS = (
    ("src/platform/oss", "src/platform/collections"), ("src/platform/oss", "src/platform/admin"),
    ("src/platform/collections", "src/platform/admin"), ("src/platform/collections", "src/platform/registry"),
    ("src/platform/admin", "src/platform/registry"),
)

# What each header of the standard library is included for; those that are not here are not checked.
STANDARD = {
    "algorithm": r"std::(ranges::)?(all_of|any_of|none_of|find(_if|_if_not|_end|_first_of)?|count(_if)?|for_each(_n)?|min|"
                 r"max|minmax|clamp|sort|stable_sort|is_sorted|copy(_n|_if|_backward)?|move_backward|fill(_n)?|equal|"
                 r"mismatch|search|(lower|upper)_bound|equal_range|binary_search|reverse|rotate|unique|remove(_if)?|"
                 r"replace(_if)?|transform|generate(_n)?|swap_ranges|merge|includes|nth_element|partition|shuffle|"
                 r"(push|pop|make|sort)_heap|(min|max)_element|lexicographical_compare|erase|iota|set_\w+|"
                 r"next_permutation|partial_sort|stable_partition|adjacent_find)\b",
    "array": r"std::(array|to_array)\b",
    "atomic": r"std::(atomic\w*|memory_order\w*)\b",
    "bit": r"std::(bit_cast|bit_width|bit_ceil|bit_floor|countl_\w+|countr_\w+|popcount|rotl|rotr|endian|has_single_bit)\b",
    "cassert": r"\bassert\s*\(",
    "cctype": r"\b(is(alnum|alpha|digit|print|space|upper|lower|xdigit|punct|cntrl)|to(upper|lower))\s*\(",
    "cerrno": r"\b(errno|E[A-Z]{2,})\b",
    "charconv": r"std::(from_chars|to_chars|chars_format)\b",
    "chrono": r"\bchrono\b",
    "cinttypes": r"\b(PRI|SCN)\w+\b",
    "climits": r"\b[A-Z]+_(MAX|MIN|BIT)\b",
    "condition_variable": r"std::condition_variable\w*\b",
    "csignal": r"\b(SIG\w+|sig\w+|raise|kill)\b",
    "cstddef": r"\b((std::)?(size_t|ptrdiff_t|byte|nullptr_t|max_align_t|to_integer)|offsetof|NULL)\b",
    "cstdint": r"\b(std::)?u?int(_least|_fast)?(8|16|32|64|max|ptr)_t\b|\bU?INT\w*_(MAX|MIN)\b",
    "cstdio": r"\b(f?printf|snprintf|vsnprintf|fopen|fdopen|fclose|fgetc|fgets|fputs|fputc|puts|putchar|fread|fwrite|FILE|EOF|"
              r"stdin|stdout|stderr|perror|fflush|remove|rename|sscanf|getc|popen|pclose|fileno|SEEK_\w+)\b",
    "cstdlib": r"\b(abort|exit|_Exit|atexit|malloc|calloc|free|realloc|getenv|setenv|unsetenv|strto\w+|atoi|atol|EXIT_\w+|"
               r"system|mkstemp|mkdtemp|realpath|abs|secure_getenv|qsort|aligned_alloc|posix_memalign)\b",
    "cstring": r"\b(mem(cpy|move|set|cmp|chr)|str(len|nlen|cmp|ncmp|cpy|ncpy|chr|rchr|str|error|signal|cat)\w*)\b",
    "ctime": r"\b(time_t|tm|time|gmtime\w*|localtime\w*|strftime|mktime|timespec|clock_gettime|CLOCK_\w+)\b",
    "deque": r"std::deque\b",
    "exception": r"std::(exception\w*|terminate|set_terminate|current_exception|rethrow_exception|uncaught_exceptions)\b",
    "filesystem": r"\b(filesystem|fs)::|\bnamespace fs\b",
    "fstream": r"std::[io]?fstream\b|std::filebuf\b",
    "functional": r"std::(function|hash|less|greater|invoke|bind\w*|ref|cref|plus|minus|equal_to|reference_wrapper|not_fn)\b",
    "initializer_list": r"std::initializer_list\b|\bfor \([^;)]*: \{",
    "iomanip": r"std::(setw|setfill|setprecision|put_time|quoted|setbase)\b",
    "iostream": r"std::(cout|cerr|cin|clog)\b",
    "iterator": r"std::(istream\w*_iterator|ostream\w*_iterator|(back|front)?_?inserter|begin|end|rbegin|size|ssize|data|"
                r"distance|next|prev|advance|\w*_iterator(_tag)?|make_move_iterator|iterator_traits)\b",
    "latch": r"std::latch\b",
    "limits": r"std::numeric_limits\b",
    "list": r"std::list\b",
    "map": r"std::(multi)?map\b",
    "memory": r"std::(unique_ptr|shared_ptr|weak_ptr|make_unique\w*|make_shared|addressof|construct_at|destroy\w*|"
              r"allocator\w*|default_delete|enable_shared_from_this|uninitialized_\w+|static_pointer_cast|to_address)\b",
    "mutex": r"std::(mutex|lock_guard|unique_lock|scoped_lock|call_once|once_flag|recursive_mutex|timed_mutex)\b",
    "new": r"std::(bad_alloc|nothrow\w*|launder|align_val_t|set_new_handler|hardware_\w+)\b|\bnew \(|\boperator (new|delete)",
    "numeric": r"std::(accumulate|iota|reduce|gcd|lcm|midpoint|partial_sum|inner_product|transform_reduce)\b",
    "optional": r"std::(optional|nullopt\w*|make_optional)\b",
    "ostream": r"std::(ostream|endl|flush)\b",
    "istream": r"std::(istream|ws|getline)\b",
    "iosfwd": r"std::\w*stream\w*\b",
    "random": r"std::(mt19937\w*|random_device|\w*_distribution|seed_seq|default_random_engine|minstd_rand)\b",
    "set": r"std::(multi)?set\b",
    "span": r"std::(span|as_bytes|as_writable_bytes|dynamic_extent)\b",
    "sstream": r"std::[io]?stringstream\b",
    "stdexcept": r"std::(runtime_error|logic_error|out_of_range|invalid_argument|length_error|domain_error|range_error|"
                 r"overflow_error)\b",
    "string": r"std::(\w*string|to_string|stoi|stol|stoul|stoull|stoll|stod|char_traits|getline)\b|\bs\b|_s\b",
    "string_view": r"std::\w*string_view\b|\bsv\b",
    "system_error": r"std::(error_code|error_condition|system_error|errc|generic_category|system_category)\b",
    "thread": r"\b(thread|jthread|this_thread)\b",
    "tuple": r"std::(tuple|tie|make_tuple|get|apply|ignore|forward_as_tuple)\b",
    "type_traits": r"std::(is_\w+|remove_\w+|enable_if\w*|decay\w*|conditional\w*|underlying_type\w*|make_(un)?signed\w*|"
                   r"true_type|false_type|invoke_result\w*|void_t|integral_constant|add_\w+|type_identity\w*)\b",
    "unordered_map": r"std::unordered_(multi)?map\b",
    "unordered_set": r"std::unordered_(multi)?set\b",
    "utility": r"std::(move|forward|swap|exchange|pair|make_pair|as_const|declval|(make_)?(index|integer)_sequence\w*|in_place|"
               r"piecewise_construct|to_underlying|cmp_\w+|in_range|unreachable)\b",
    "variant": r"std::(variant|monostate|visit|holds_alternative|get|get_if)\b",
    "vector": r"std::vector\b",
    "gmock/gmock.h": r"\b(EXPECT_THAT|ASSERT_THAT|testing::|MATCHER\w*|MOCK_METHOD|HasSubstr|Not|ElementsAre\w*|Each)\b",
    "gtest/gtest.h": r"\b(TEST\w*|EXPECT_\w+|ASSERT_\w+|testing|FAIL|ADD_FAILURE\w*|GTEST_\w+|SCOPED_TRACE|SUCCEED)\b",
}

IDENTIFIER = re.compile(r"[A-Za-z_]\w*")
# What a header declares, and more: whatever stands where a declaration could have its name.
DECLARED = re.compile(
    r"\b(?:class|struct|union|enum(?:\s+class|\s+struct)?)\s+(?:[A-Z_]+\s+)?(?P<type>[A-Za-z_]\w*)\s*(?:final\s*)?[:{]|"
    r"\busing\s+(?P<alias>[A-Za-z_]\w*)\s*=|"
    r"#[ \t]*define[ \t]+(?P<macro>[A-Za-z_]\w*)|"
    r"\btypedef\b[^;{]*?\b(?P<typedef>[A-Za-z_]\w*)\s*;|\}\s*(?P<last>[A-Za-z_]\w*)\s*;|"
    r"(?P<function>[A-Za-z_]\w*)\s*\(|"
    r"[\w>&*\]]\s+(?P<value>[A-Za-z_]\w*)\s*(?:\[[^\]]*\]\s*)*[={;]|"
    r"^\s*(?P<enumerator>[A-Z]\w*)\s*(?:=[^,;{}]*)?(?:,|$)", re.MULTILINE)
KEYWORDS = set("if for while switch return sizeof alignas alignof decltype static_assert defined noexcept operator const "
               "constexpr static inline explicit virtual override default delete public private protected namespace "
               "template typename class struct enum void bool char int long unsigned auto std size_t uint32_t".split())


def floor_of(name):
    best = None
    for level, prefixes in enumerate(FLOORS):
        for prefix in prefixes:
            if name.startswith(prefix) and (best is None or len(prefix) > len(best[1])):
                best = (level, prefix)
    return None if best is None else best[0]


def folder_among(name, folders):
    return next((folder for folder in folders if name.startswith(folder + "/")), None)


def check_floors(tree):
    for name in tree.files:
        floor = floor_of(name)
        if floor is None:
            yield f"{name}:1: stands on no floor: add its folder to FLOORS in .ci/check_includes.py"
            continue
        for line, spelling, target in tree.includes(name):
            if target is None:
                continue
            if (floor_of(target) or 0) > floor:
                yield f"{name}:{line}: {spelling} is on a floor above; includes point down"
            for pair in STRANGERS:
                ends = {folder_among(name, pair), folder_among(target, pair)}
                if ends == set(pair):
                    yield f"{name}:{line}: {pair[0]} and {pair[1]} know nothing of each other"


def check_circles(tree):
    targets = {name: [target for _, _, target in tree.includes(name) if target] for name in tree.files}
    done, path = set(), []

    def visit(name):
        if name in path:
            yield f"{name}:1: included in a circle: {' -> '.join(path[path.index(name):] + [name])}"
            return
        if name in done:
            return
        path.append(name)
        for target in targets[name]:
            yield from visit(target)
        path.pop()
        done.add(name)

    for name in tree.files:
        yield from visit(name)


def declared_by(code):
    names = {next(filter(None, match.groups()), "") for match in DECLARED.finditer(code)}
    return names - KEYWORDS


def check_idle(tree):
    declared = {}
    for name in tree.files:
        code = tree.code(name)
        used = set(IDENTIFIER.findall(code))
        stem = os.path.splitext(name)[0].removesuffix("_test").rsplit("/", 1)[1]
        for line, spelling, target in tree.includes(name):
            if tree.is_explained(name, line):
                continue
            if target is None:
                pattern = STANDARD.get(spelling)
                if pattern and not re.search(pattern, code):
                    yield f"{name}:{line}: nothing of <{spelling}> is used"
                continue
            if target not in declared:
                declared[target] = declared_by(tree.code(target))
            is_own = os.path.splitext(target)[0].rsplit("/", 1)[1] == stem
            if not is_own and not declared[target] & used:
                yield f"{name}:{line}: no name that {spelling} declares is used"


def check_guards(tree):
    for name in tree.files:
        if not name.endswith(".h"):
            continue
        wanted = "#ifndef" if name.startswith(("include/", "examples/")) else "#pragma once"
        directive = re.search(r"^[ \t]*#[^\n]*", tree.code(name), re.MULTILINE)
        if directive is None or not directive.group().startswith(wanted):
            yield f"{name}:1: its first directive is not {wanted}: installed headers have guards, all others say #pragma once"


def check_alone(tree, compiler):
    """Every header compiles as the first line of a file."""
    paths = [f"-I{tree.root / path}" for path in INCLUDE_PATHS]

    def compile_one(name):
        path = tree.root / name
        is_c = name.startswith("examples/")
        language = ["-x", "c", "-std=c11", "-D_POSIX_C_SOURCE=200809L"] if is_c else ["-x", "c++", "-std=c++20"]
        # Paths of programs that the builds hand to some test headers; their values do not matter here.
        definitions = [f'-D{macro}="/"' for macro in sorted(set(re.findall(r"\b(?:ZON_|TRACED_|ZONTRACE_)[A-Z_]+\b",
                                                                           tree.code(name)))) if macro.endswith("_PROGRAM")]
        result = subprocess.run(
            [*compiler, *language, "-fsyntax-only", "-Wall", "-Wextra", *paths, *definitions, "-include", str(path), os.devnull],
            capture_output=True, text=True, check=False)
        if result.returncode == 0:
            return None
        return f"{name}:1: does not compile alone:\n{result.stderr.strip()}"

    headers = [name for name in tree.files if name.endswith(".h")]
    with ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
        return [finding for finding in pool.map(compile_one, headers) if finding]


def main():
    tree = SourceTree(sys.argv[1] if len(sys.argv) > 1 else ".")
    compiler = shlex.split(os.environ.get("CXX", "clang++-14"))
    findings = list(itertools.chain(check_floors(tree), check_circles(tree), check_idle(tree), check_guards(tree),
                                    check_alone(tree, compiler)))
    return report(findings, f"{len(tree.files)} files: includes point down, none is idle, every header compiles alone")


if __name__ == "__main__":
    sys.exit(main())
