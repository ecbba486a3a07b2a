#!/usr/bin/env python3
"""Runs clang-tidy over C++ files, several of a folder at a time.

Most of clang-tidy's time goes into the headers of the standard library and of GoogleTest, so that
files which stand together as one translation unit take a fraction of the time. What is found in such
a unit is not told but looked for again in halves of it, down to single files: names that two files
have each for itself clash in a unit, and what a file alone does not show is no fault of it. One check,
of names taken over and never used, looks at the main file only, so that files with a name that stands
nowhere else in them are given to it alone.

One fault that clang-tidy does not know is looked for in the text, headers too: a range-based for over what
a pointer points to that a call has just returned, `for (auto& each : *list())`. Of such an expression C++20
keeps only the list, not the pointer that owns it. Where the pointer owns nothing, NOLINT says so.
So is a program that writes past its one way out, which never throws and cleans what it is given.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

TIDY = "clang-tidy-14"
FILES_OF_A_UNIT = 8
USING_DECLARATION = re.compile(r"^\s*using (?!namespace)[\w:]*?(\w+);", re.MULTILINE)
NO_CODE = re.compile(r"//.*|^#include.*", re.MULTILINE)


FOR = re.compile(r"\bfor\s*\(")
COMMENT_OR_TEXT = re.compile(r"""//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*'""", re.DOTALL)
CAST = re.compile(r"^(?:static|dynamic|const|reinterpret)_cast\s*<|^(?:std::)?as_const\s*\(")


def without_comments_and_texts(code):
    """The code with blanks in their place, so that nothing moves."""
    return COMMENT_OR_TEXT.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), code)


def outside_parentheses(code):
    """The places outside all brackets, with the character there; ends where the surrounding one closes."""
    depth = 0
    for place, character in enumerate(code):
        if character in ")]}":
            depth -= 1
            if depth < 0:
                yield place, character
                return
        if depth == 0:
            yield place, character
        if character in "([{":
            depth += 1


def ranges_of(code):
    """Where each range-based for begins, and its range."""
    for found in FOR.finditer(code):
        rest = code[found.end():]
        places = list(outside_parentheses(rest))
        colons = [place for place, character in places
                  if character == ":" and rest[place + 1:place + 2] != ":" and rest[place - 1:place] != ":"]
        end, last = places[-1] if places else (0, "")
        if colons and last == ")" and "?" not in rest[:colons[0]]:
            yield found.start(), rest[colons[0] + 1:end].strip()


def dies_at_once(expression):
    """Whether what a range is in belongs to a pointer that a call in it returns."""
    if ")->" in re.sub(r"\s", "", expression):
        return True
    for group in re.finditer(r"(?<!\w)\(\s*(?=\*)", expression):  # not what is given to a call
        inside = expression[group.end():]
        if dies_at_once(inside[:list(outside_parentheses(inside))[-1][0]].strip()):
            return True
    pointer = expression.lstrip("* ")
    return pointer != expression and pointer.endswith(")") and not pointer.startswith("(") and not CAST.match(pointer)


def dead_ranges(file, code):
    lines = code.splitlines()
    for place, expression in ranges_of(without_comments_and_texts(code)):
        number = code.count("\n", 0, place)
        if dies_at_once(expression) and "NOLINT" not in lines[number]:
            yield f"{file}:{number + 1}: what owns `{expression}` may be gone before the body runs: keep it in a variable"


STRAY_PRINT = re.compile(r"\b(?:fmt::(?:v?print|println)|(?:std::)?(?:v?f?printf|f?puts|fwrite|putchar|perror))\s*\("
                         r"|\bstd::(?:cout|cerr|clog)\b")


def stray_prints(file, code):
    """Where a program prints by itself, which throws or ends it with its terminal."""
    if "apps/vesk/" not in str(file):
        return
    text = without_comments_and_texts(code)
    for found in STRAY_PRINT.finditer(text):
        yield f"{file}:{text.count(chr(10), 0, found.start()) + 1}: `{found[0]}` goes past apps/vesk/output.h"


def test_stray_prints():
    for code in ('fmt::print(stderr, "x");', "std::cerr << x;", "printf(x);", "fputs(x, stderr);"):
        assert list(stray_prints("apps/vesk/file.cpp", code)), code
    for code in ("printLine(x);", 'reportLine("fmt::print(");', "snprintf(a, b, c);", "// std::cout", "my_puts(x);"):
        assert not list(stray_prints("apps/vesk/file.cpp", code)), code


def test_dead_ranges():
    """What the look at the text finds and what it leaves alone."""
    rows = [
        (True, "for (auto& each : *list()) {"),
        (True, "for (const auto& each : *Camera::list(a, b(c))) {"),
        (True, "for (auto x = 1; auto& each : *camera->formats()) {"),
        (True, "for (auto& each :\n       *camera.formats()) {"),
        (True, "for (auto& each : list()->items()) {"),
        (True, "for (auto& each : (*list()).items()) {"),
        (True, "for (const std::pair<int, int>& each : (*list())) {"),
        (True, "for (auto& each : **find(a)) {"),
        (False, "for (auto& each : *list) {"),
        (False, "for (auto& each : *lists[index(i)]) {"),
        (False, "for (auto& each : list().items()) {"),
        (False, "for (auto& each : list()) {"),
        (False, "for (auto& each : copyOf(*list())) {"),
        (False, "for (auto& each : (*list).items()) {"),
        (False, "for (auto& each : *static_cast<List*>(list)) {"),
        (False, "for (int i = a ? *b : *c(); i < 3; ++i) {"),
        (False, "for (auto& each : *list()) {  // NOLINT: the table is never freed"),
        (False, "// for (auto& each : *list()) {"),
        (False, "for (const char* each : {\" : *list()\", b}) run(each);"),
    ]
    wrong = [code for expected, code in rows if bool(list(dead_ranges("file", code))) != expected]
    if wrong:
        raise SystemExit("The look for ranges that die at once is wrong about:\n" + "\n".join(wrong))


class Linter:
    def __init__(self, root, build, folder):
        self.root = root
        self.folder = pathlib.Path(folder)
        commands = json.loads((build / "compile_commands.json").read_text())
        self.commands = {pathlib.Path(entry["file"]): entry for entry in commands}

    def tidy(self, files, checks=None):
        """What clang-tidy finds in the files as one unit: its exit status and what it says."""
        unit = files[0]
        with tempfile.TemporaryDirectory(dir=self.folder) as folder:
            entries = [self.commands[file] for file in files]
            if len(files) > 1:
                unit = pathlib.Path(folder) / "unit.cpp"
                unit.write_text("".join(f'#include "{file}"  // NOLINT: these are sources\n' for file in files))
            entry = {"file": str(unit), "directory": entries[0]["directory"],
                     "arguments": self.flags(entries) + ["-c", str(unit)]}
            (pathlib.Path(folder) / "compile_commands.json").write_text(json.dumps([entry]))
            command = [TIDY, "-p", folder, "--quiet", f"--config-file={self.root / '.clang-tidy'}"]
            if checks:
                command.append(f"--checks=-*,{checks}")
            done = subprocess.run([*command, str(unit)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  errors="replace")
        # Counts of suppressed warnings are of no interest.
        errors = [line for line in done.stderr.splitlines() if "warnings generated" not in line]
        return done.returncode, "\n".join([done.stdout.strip(), *errors]).strip()

    @staticmethod
    def flags(entries):
        """All that the files are compiled with, each once and in their order, but for headers compiled by g++ for itself."""
        found = {}
        for entry in entries:
            words = iter(shlex.split(entry["command"])[1:])
            compiler = shlex.split(entry["command"])[0]
            for word in words:
                if word in ("-o", "-c"):
                    next(words)
                elif word in ("-isystem", "-include"):
                    value = next(words)
                    if not value.endswith("/cmake_pch.hxx"):
                        found[(word, value)] = True
                elif word != "-Winvalid-pch":
                    found[(word,)] = True
        return [compiler, *(word for group in found for word in group)]

    def findings(self, files):
        """What is wrong in these files, each looked at alone when they do not get on as one."""
        status, said = self.tidy(files)
        if status == 0:
            return []
        if len(files) == 1:
            return [said]
        middle = len(files) // 2
        return self.findings(files[:middle]) + self.findings(files[middle:])

    @staticmethod
    def may_hold_unused_names(file):
        text = NO_CODE.sub("", file.read_text())
        return any(not re.search(rf"(?<!::)\b{name}\b", text) for name in USING_DECLARATION.findall(text))

    def unused_names(self, file):
        status, said = self.tidy([file], "misc-unused-using-decls")
        return [said] if status else []

    def units(self, files):
        by_folder = collections.defaultdict(list)
        for file in files:
            by_folder[file.parent].append(file)
        for of_folder in by_folder.values():
            count = -(-len(of_folder) // FILES_OF_A_UNIT)
            for number in range(count):
                yield of_folder[number * len(of_folder) // count:(number + 1) * len(of_folder) // count]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path, help="the build folder")
    parser.add_argument("files", nargs="+", type=pathlib.Path)
    options = parser.parse_args()
    test_dead_ranges()
    test_stray_prints()
    headers = subprocess.run(["git", "ls-files", "*.h"], stdout=subprocess.PIPE, text=True, check=True).stdout.split()
    dead = [line for file in [*options.files, *map(pathlib.Path, headers)] for look in (dead_ranges, stray_prints)
            for line in look(file, file.read_text())]
    with tempfile.TemporaryDirectory() as folder:
        linter = Linter(pathlib.Path.cwd(), options.build, folder)
        files = [file.resolve() for file in options.files]
        unknown = [file for file in files if file not in linter.commands]
        if unknown:
            print("\n".join(f"{file} is not in the build" for file in unknown), file=sys.stderr)
            return 1
        units = list(linter.units(files))
        alone = [file for unit in units if len(unit) > 1 for file in unit if linter.may_hold_unused_names(file)]
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            found = [pool.submit(linter.findings, unit) for unit in units]
            found += [pool.submit(linter.unused_names, file) for file in alone]
            texts = dict.fromkeys(text for each in found for text in each.result())
    for text in [*dead, *texts]:
        print(text)
    return 1 if dead or texts else 0


if __name__ == "__main__":
    sys.exit(main())
